// The process-wide log handler slot and the console writer.
#include "common/diagnostics/log.h"

#include <cstdio>
#include <thread>
#include <vector>

namespace common::diagnostics {
namespace {

// Handlers replaced while they run on this thread (a handler that installs another one) are destroyed
// when this thread's outermost write returns, not under their own feet.
thread_local int t_writeDepth = 0;
thread_local std::vector<std::unique_ptr<Log::Handler>> t_retiredHandlers;

struct WriteScope {
    WriteScope() { ++t_writeDepth; }
    ~WriteScope() {
        if (--t_writeDepth == 0 && !t_retiredHandlers.empty())
            t_retiredHandlers.clear();
    }
};

}  // namespace

void Log::write(Level level, LogContext context, std::string message) {
    LogInternal::instance().write(level, context, message);
}

void Log::setHandler(std::unique_ptr<Handler> handler) { LogInternal::instance().setHandler(std::move(handler)); }

LogInternal& LogInternal::instance() {
    static LogInternal instance;
    return instance;
}

LogInternal::~LogInternal() { delete m_handler.load(); }

void LogInternal::write(Log::Level level, const LogContext& context, const std::string& message) const {
    if (!m_handler.load())
        return;
    WriteScope scope;
    struct Writer {
        std::atomic<int>& writers;
        explicit Writer(std::atomic<int>& count) : writers(count) { ++writers; }
        ~Writer() { --writers; }
    } writer(m_writers);
    if (Log::Handler* handler = m_handler.load())
        handler->invoke(level, context, message.c_str());
}

Log::Handler* LogInternal::setHandler(std::unique_ptr<Log::Handler> handler) {
    Log::Handler* installed = handler.get();
    std::unique_ptr<Log::Handler> replaced(m_handler.exchange(handler.release()));
    // Writers that loaded the replaced handler before the exchange may still run it on other threads: wait for
    // them (those of this thread are below this call and run it until they return).
    while (m_writers.load() > t_writeDepth)
        std::this_thread::yield();
    if (t_writeDepth > 0 && replaced)
        t_retiredHandlers.push_back(std::move(replaced));
    return installed;
}

void LogInternal::removeHandler(const void*) { setHandler(nullptr); }

}  // namespace common::diagnostics

namespace zel {

void writeDebugString(const char* text) {
    // One line at a time: lines written by several threads never interleave.
    flockfile(stdout);
    if (text)
        std::fputs(text, stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    funlockfile(stdout);
}

}  // namespace zel
