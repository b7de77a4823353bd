// The process-wide log: leveled messages with a source location, delivered to at most one handler.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "common/diagnostics/sourceinfo.h"
#include "common/utils/format.h"
#include "common/utils/functor.h"

namespace common::diagnostics {

/// The time and place of one log entry; the timestamp is taken at construction.
struct LogContext {
    explicit LogContext(SourceInfo source_) : timestamp(std::chrono::system_clock::now()), source(source_) {}

    std::chrono::system_clock::time_point timestamp;
    SourceInfo source;
};

/// Static front of the process-wide log.
struct Log {
    /// Severity; the numbers are handed to script unchanged.
    enum class Level : int32_t {
        Info = 0,
        Notice = 1,  ///< reserved: no site of the system writes it
        Warning = 2,
        Error = 3,
    };

    using Handler = FunctorClass<true, void, TypeList<Level, LogContext const&, char const*>>;

    /// Delivers the message to the installed handler, if any.
    static void write(Level level, LogContext context, std::string message);
    /// Installs `handler`, destroying the previous one; an empty pointer removes the handler.
    static void setHandler(std::unique_ptr<Handler> handler);
};

/// The singleton behind `Log`: holds the one handler. Any thread may write while the handler is replaced: a
/// replaced handler is destroyed only once no other thread still runs it.
class LogInternal {
public:
    static LogInternal& instance();
    ~LogInternal();

    void write(Log::Level level, const LogContext& context, const std::string& message) const;
    Log::Handler* setHandler(std::unique_ptr<Log::Handler> handler);
    /// Empties the handler slot whatever `token` is.
    void removeHandler(const void* token);

private:
    std::atomic<Log::Handler*> m_handler{nullptr};  ///< owned
    mutable std::atomic<int> m_writers{0};          ///< handler calls in progress, over all threads
};

}  // namespace common::diagnostics

namespace common::diagnostics_internal {

/// Builds a message: `format` unchanged without arguments, `common::format` otherwise.
template <typename... Args>
std::string makeUtf8String(std::string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0)
        return std::string(format);
    else
        return common::format(format, args...);
}

}  // namespace common::diagnostics_internal

namespace zel {

/// Writes `text` and an end of line to standard output, then flushes.
void writeDebugString(const char* text);

}  // namespace zel

/// Writes a log entry from the enclosing function, at `file`/`line`, formatting `format` with the arguments.
#define COMMON_LOG_AT(level, file, line, format, ...)                                                            \
    ::common::diagnostics::Log::write(                                                                           \
        (level), ::common::diagnostics::LogContext(::common::diagnostics::SourceInfo{__func__, (file), (line)}), \
        ::common::diagnostics_internal::makeUtf8String((format)__VA_OPT__(, ) __VA_ARGS__))
