// The library's exception type: a message, a source location and flags.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "common/diagnostics/log.h"
#include "common/diagnostics/sourceinfo.h"

namespace common {

/// Interface of the library's exceptions.
class Exception : public virtual std::exception {
public:
    ~Exception() override = default;
    const char* what() const noexcept override = 0;
    /// The plain message.
    virtual const char* message() const = 0;
    /// "file(line):message" when a location is known, the plain message otherwise.
    virtual const char* diagMessage() const = 0;
    virtual diagnostics::SourceInfo source() const = 0;
    virtual uint32_t flags() const = 0;
};

/// Implements `Exception` (or a class derived from it).
template <typename Base>
class ExceptionImpl : public Base {
public:
    ExceptionImpl(diagnostics::SourceInfo source, std::string_view message, uint32_t flags)
        : m_source(source), m_message(message), m_flags(flags) {}

    const char* what() const noexcept override { return message(); }
    const char* message() const override { return m_message.c_str(); }
    const char* diagMessage() const override {
        if (!m_source)
            return message();
        if (!m_diagMessage)
            m_diagMessage = common::format("{0}({1}):{2}", m_source.file, m_source.line.value_or(0), m_message);
        return m_diagMessage->c_str();
    }
    diagnostics::SourceInfo source() const override { return m_source; }
    uint32_t flags() const override { return m_flags; }

private:
    diagnostics::SourceInfoPersistent m_source;
    std::string m_message;
    uint32_t m_flags;
    mutable std::optional<std::string> m_diagMessage;
};

}  // namespace common

namespace common::common_internal {

/// The type every throw site of the system throws.
class DefaultException final : public ExceptionImpl<Exception> {
public:
    using ExceptionImpl<Exception>::ExceptionImpl;
};

}  // namespace common::common_internal

/// Throws a `DefaultException` located at the enclosing function, `file` and `line`, flags 0.
#define COMMON_THROW_AT(file, line, format, ...)                     \
    throw ::common::common_internal::DefaultException(               \
        ::common::diagnostics::SourceInfo{__func__, (file), (line)}, \
        ::common::diagnostics_internal::makeUtf8String((format)__VA_OPT__(, ) __VA_ARGS__), 0)
