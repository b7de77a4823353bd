// Runtime checks compiled into every build, reported to one replaceable failure handler.
#pragma once

#include <memory>
#include <string>

#include "common/diagnostics/log.h"
#include "common/diagnostics/sourceinfo.h"
#include "common/utils/functor.h"

namespace common::diagnostics {

/// Receives (location, reserved text — always null here, expression text, message — "" when none).
using FailureHandler = FunctorClass<false, void, TypeList<SourceInfo const&, char const*, char const*, char const*>>;

/// Static front of the failure-handler slot.
struct RuntimeCheck {
    /// Installs `handler`; when `previous` is given the old handler is moved into it instead of being destroyed.
    static FailureHandler* setFailureHandler(std::unique_ptr<FailureHandler> handler,
                                             std::unique_ptr<FailureHandler>* previous = nullptr);
    /// Reports a failed check; terminates at once when no handler is installed.
    static void raiseFailure(SourceInfo source, const char* reserved, const char* expression, std::string message);
};

/// The singleton behind `RuntimeCheck`.
class RuntimeCheckInternal {
public:
    static RuntimeCheckInternal& instance();

    FailureHandler* setFailureHandler(std::unique_ptr<FailureHandler> handler,
                                      std::unique_ptr<FailureHandler>* previous);
    /// Empties the handler slot whatever `token` is.
    void removeFailureHandler(const void* token);
    void raiseFailure(const SourceInfo& source, const char* reserved, const char* expression,
                      const std::string& message);

private:
    std::unique_ptr<FailureHandler> m_handler;
};

}  // namespace common::diagnostics

namespace common::diagnostics_internal {

/// The truth value a check tests: `true` for a true bool or a non-null pointer.
template <typename T>
bool safeBoolean(T const& value) {
    return static_cast<bool>(value);
}

/// The out-of-line part of a failed check: formats the message and reports it.
template <typename... Args>
[[gnu::cold, gnu::noinline]] void checkFailed(diagnostics::SourceInfo source, const char* expression,
                                              std::string_view format = {}, const Args&... args) {
    diagnostics::RuntimeCheck::raiseFailure(source, nullptr, expression, makeUtf8String(format, args...));
}

}  // namespace common::diagnostics_internal

/// Checks `cond` in the enclosing function, reporting `file`/`line`, the condition's text and an optional
/// formatted message. A check never throws: when an installed handler returns, execution goes on.
#define COMMON_CHECK_AT(file, line, cond, ...)                                                                       \
    do {                                                                                                             \
        if (!::common::diagnostics_internal::safeBoolean(cond)) [[unlikely]]                                         \
            ::common::diagnostics_internal::checkFailed(::common::diagnostics::SourceInfo{__func__, (file), (line)}, \
                                                        #cond __VA_OPT__(, ) __VA_ARGS__);                           \
    } while (false)

/// Same as `COMMON_CHECK_AT` with an explicit function name, for sites whose name `__func__` cannot spell.
#define COMMON_CHECK_IN(function, file, line, cond, ...)                                                               \
    do {                                                                                                               \
        if (!::common::diagnostics_internal::safeBoolean(cond)) [[unlikely]]                                           \
            ::common::diagnostics_internal::checkFailed(::common::diagnostics::SourceInfo{(function), (file), (line)}, \
                                                        #cond __VA_OPT__(, ) __VA_ARGS__);                             \
    } while (false)
