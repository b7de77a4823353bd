// Source locations carried by log entries, runtime checks and exceptions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace common::diagnostics {

/// A non-owning source location: plain function name, source path as the build names it, optional line.
struct SourceInfo {
    std::string_view function;
    std::string_view file;
    std::optional<uint32_t> line;
};

/// The owning copy of a `SourceInfo`.
struct SourceInfoPersistent {
    std::string function;
    std::string file;
    std::optional<uint32_t> line;

    SourceInfoPersistent() = default;
    SourceInfoPersistent(std::string function_, std::string file_, std::optional<uint32_t> line_)
        : function(std::move(function_)), file(std::move(file_)), line(line_) {}
    SourceInfoPersistent(const SourceInfo& source)  // NOLINT(google-explicit-constructor)
        : function(source.function), file(source.file), line(source.line) {}

    /// A view of this location, valid while this object lives unchanged.
    operator SourceInfo() const { return {function, file, line}; }  // NOLINT(google-explicit-constructor)
    /// True when the function or the file is known; the line alone does not count.
    explicit operator bool() const { return !function.empty() || !file.empty(); }
};

}  // namespace common::diagnostics
