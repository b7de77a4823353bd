// Helpers of the pointer input tests: record and log collectors, a hang watchdog, the test display, the
// XTest injector process and the fixture of the tests that use both.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bridge/rawinputdriver.h"
#include "common/diagnostics/log.h"

namespace zel_test {

using PointerData = zel::RawInputDriver::PointerData;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// A point as a comparable and printable pair.
inline std::pair<int32_t, int32_t> xy(const zel::Point2& point) { return {point.x, point.y}; }

inline bool isAllZero(const PointerData& data) {
    return data.offset.x == 0 && data.offset.y == 0 && data.screenPoint.x == 0 && data.screenPoint.y == 0 &&
           data.left == zel::ButtonEvent::None && data.middle == zel::ButtonEvent::None &&
           data.right == zel::ButtonEvent::None;
}

/// Collects the records a driver delivers; safe to feed from the reader thread.
class RecordCollector {
public:
    /// A capture callback appending to this collector (which must outlive the capture).
    std::unique_ptr<zel::RawInputDriver::Callback> callback() {
        return zel::RawInputDriver::Callback::makeUnique([this](PointerData data) { add(data); });
    }

    void add(const PointerData& data) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_records.push_back(data);
            m_threads.push_back(std::this_thread::get_id());
        }
        m_changed.notify_all();
    }

    /// Waits until at least `count` records are in; returns whether they are.
    bool waitFor(size_t count, Clock::duration timeout = 10s) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_records.size() >= count; });
    }

    /// Waits until no record has arrived for `quiet` (at most `limit` in all).
    void waitQuiet(Clock::duration quiet = 200ms, Clock::duration limit = 10s) {
        const auto end = Clock::now() + limit;
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            const size_t before = m_records.size();
            if (!m_changed.wait_for(lock, quiet, [&] { return m_records.size() != before; }) || Clock::now() > end)
                return;
        }
    }

    std::vector<PointerData> records() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }
    std::vector<std::thread::id> threads() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads;
    }
    size_t size() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records.size();
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_records.clear();
        m_threads.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<PointerData> m_records;
    std::vector<std::thread::id> m_threads;
};

/// One log message as the handler saw it.
struct LogEntry {
    int level;
    std::string function;
    std::string file;
    std::optional<uint32_t> line;
    std::string message;
};

/// Installs a log handler for its lifetime and keeps every message; the reader thread logs too.
class LogCollector {
public:
    LogCollector() {
        using common::diagnostics::Log;
        Log::setHandler(Log::Handler::makeUnique(
            [this](Log::Level level, common::diagnostics::LogContext const& context, char const* message) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_entries.push_back(LogEntry{static_cast<int>(level), std::string(context.source.function),
                                             std::string(context.source.file), context.source.line, message});
                m_changed.notify_all();
            }));
    }
    ~LogCollector() { common::diagnostics::Log::setHandler(nullptr); }

    LogCollector(const LogCollector&) = delete;
    LogCollector& operator=(const LogCollector&) = delete;

    std::vector<LogEntry> entries() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.clear();
    }
    /// Waits until a message with this text is in; returns it.
    std::optional<LogEntry> waitFor(const std::string& message, Clock::duration timeout = 10s) {
        std::unique_lock<std::mutex> lock(m_mutex);
        std::optional<LogEntry> found;
        m_changed.wait_for(lock, timeout, [&] {
            for (const auto& entry : m_entries) {
                if (entry.message == message) {
                    found = entry;
                    return true;
                }
            }
            return false;
        });
        return found;
    }
    size_t count(const std::string& message) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (const auto& entry : m_entries)
            n += entry.message == message;
        return n;
    }
    size_t countAtLevel(int level) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (const auto& entry : m_entries)
            n += entry.level == level;
        return n;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<LogEntry> m_entries;
};

/// Ends the process with a message when not disarmed (destroyed) in time: a hang fails fast and visibly.
class Watchdog {
public:
    Watchdog(std::string what, Clock::duration timeout) : m_what(std::move(what)) {
        m_thread = std::thread([this, timeout] {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_disarmed.wait_for(lock, timeout, [&] { return m_done; })) {
                std::fprintf(stderr, "watchdog: %s did not finish in time\n", m_what.c_str());
                std::fflush(stderr);
                std::abort();
            }
        });
    }
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_done = true;
        }
        m_disarmed.notify_all();
        m_thread.join();
    }

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::string m_what;
    std::mutex m_mutex;
    std::condition_variable m_disarmed;
    bool m_done = false;
    std::thread m_thread;
};

/// The test X display: the one the "xvfb" fixture wrote to the file named by ZEL_XVFB_DISPLAY_FILE, else
/// ZEL_XVFB_DISPLAY (a server started by hand). A desktop's own DISPLAY is never used: the tests move its
/// pointer and press its buttons.
inline std::optional<std::string> testDisplay() {
    if (const char* file = std::getenv("ZEL_XVFB_DISPLAY_FILE")) {
        std::ifstream in(file);
        std::string display;
        if (in >> display)
            return display;
        return std::nullopt;
    }
    if (const char* display = std::getenv("ZEL_XVFB_DISPLAY"); display && *display)
        return std::string(display);
    return std::nullopt;
}

/// Points DISPLAY at the test display; false when there is none.
inline bool useTestDisplay() {
    const auto display = testDisplay();
    if (!display)
        return false;
    ::setenv("DISPLAY", display->c_str(), 1);
    return true;
}

/// The xinject tool in script mode, driven through pipes.
class Injector {
public:
    explicit Injector(const std::string& path) {
        ::signal(SIGPIPE, SIG_IGN);  // a dead injector shows as a write error, not as the end of the test
        int toChild[2];
        int fromChild[2];
        if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe failed");
        m_pid = ::fork();
        if (m_pid < 0)
            throw std::runtime_error("fork failed");
        if (m_pid == 0) {
            ::dup2(toChild[0], STDIN_FILENO);
            ::dup2(fromChild[1], STDOUT_FILENO);
            ::execl(path.c_str(), path.c_str(), "script", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(toChild[0]);
        ::close(fromChild[1]);
        m_in = toChild[1];
        m_out = fromChild[0];
    }
    ~Injector() {
        if (m_in >= 0) {
            try {
                send("quit");
            } catch (const std::exception&) {
            }
            ::close(m_in);
        }
        if (m_out >= 0)
            ::close(m_out);
        int status = 0;
        if (m_pid > 0 && ::waitpid(m_pid, &status, 0) < 0)
            ::kill(m_pid, SIGKILL);
    }

    Injector(const Injector&) = delete;
    Injector& operator=(const Injector&) = delete;

    /// Sends one command line.
    void send(const std::string& command) {
        const std::string line = command + "\n";
        size_t done = 0;
        while (done < line.size()) {
            const ssize_t n = ::write(m_in, line.data() + done, line.size() - done);
            if (n <= 0)
                throw std::runtime_error("injector is gone");
            done += static_cast<size_t>(n);
        }
    }

    /// Sends several commands in one write.
    void sendAll(const std::vector<std::string>& commands) {
        std::string all;
        for (const auto& command : commands)
            all += command + "\n";
        size_t done = 0;
        while (done < all.size()) {
            const ssize_t n = ::write(m_in, all.data() + done, all.size() - done);
            if (n <= 0)
                throw std::runtime_error("injector is gone");
            done += static_cast<size_t>(n);
        }
    }

    /// Waits until the server has processed every command sent so far.
    void sync() {
        send("sync");
        const std::string answer = readLine();
        if (answer != "ok")
            throw std::runtime_error("injector answered '" + answer + "' to sync");
    }

    /// The pointer position.
    zel::Point2 position() {
        send("pos");
        std::istringstream in(readLine());
        zel::Point2 point;
        if (!(in >> point.x >> point.y))
            throw std::runtime_error("bad position answer");
        return point;
    }

    void move(int dx, int dy) { send("move " + std::to_string(dx) + " " + std::to_string(dy)); }
    void press(int button) { send("press " + std::to_string(button)); }
    void release(int button) { send("release " + std::to_string(button)); }
    void click(int button) { send("click " + std::to_string(button)); }

private:
    std::string readLine(Clock::duration timeout = 30s) {
        const auto end = Clock::now() + timeout;
        for (;;) {
            if (const auto pos = m_buffer.find('\n'); pos != std::string::npos) {
                std::string line = m_buffer.substr(0, pos);
                m_buffer.erase(0, pos + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
            if (left <= 0)
                throw std::runtime_error("injector did not answer");
            pollfd pfd{m_out, POLLIN, 0};
            if (::poll(&pfd, 1, static_cast<int>(left)) <= 0)
                continue;
            char chunk[256];
            const ssize_t n = ::read(m_out, chunk, sizeof chunk);
            if (n <= 0)
                throw std::runtime_error("injector closed its output");
            m_buffer.append(chunk, static_cast<size_t>(n));
        }
    }

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    std::string m_buffer;
};

#ifdef ZEL_XINJECT_PATH
/// Base of the tests against the test display: skips without one, starts the injector (ZEL_XINJECT_PATH)
/// and lets go of every button afterwards.
class InjectorTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!useTestDisplay())
            GTEST_SKIP() << "no test display: run under the xvfb fixture or set ZEL_XVFB_DISPLAY";
        injector = std::make_unique<Injector>(ZEL_XINJECT_PATH);
        injector->sync();
    }
    void TearDown() override {
        if (!injector)
            return;
        for (int button = 1; button <= 7; ++button)
            injector->release(button);
        injector->sync();
    }

    std::unique_ptr<Injector> injector;
};
#endif

}  // namespace zel_test
