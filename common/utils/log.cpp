// The process-wide log handler slot and the console writer.
#include "common/diagnostics/log.h"

#include <cstdio>

namespace common::diagnostics {

void Log::write(Level level, LogContext context, std::string message) {
    LogInternal::instance().write(level, context, message);
}

void Log::setHandler(std::unique_ptr<Handler> handler) { LogInternal::instance().setHandler(std::move(handler)); }

LogInternal& LogInternal::instance() {
    static LogInternal instance;
    return instance;
}

void LogInternal::write(Log::Level level, const LogContext& context, const std::string& message) const {
    if (m_handler)
        m_handler->invoke(level, context, message.c_str());
}

Log::Handler* LogInternal::setHandler(std::unique_ptr<Log::Handler> handler) {
    m_handler = std::move(handler);
    return m_handler.get();
}

void LogInternal::removeHandler(const void*) { m_handler.reset(); }

}  // namespace common::diagnostics

namespace zel {

void writeDebugString(const char* text) {
    if (text)
        std::fputs(text, stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

}  // namespace zel
