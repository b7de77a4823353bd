// "{0}" / "%1" message formatting with per-placeholder number specifiers.
#pragma once

#include <array>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

namespace common::formatters {

/// Per-type rendering into the formatting stream.
void formatValue(std::ostream& out, std::string_view value);
void formatValue(std::ostream& out, const std::string& value);
void formatValue(std::ostream& out, const char* value);  ///< a null pointer renders nothing
void formatValue(std::ostream& out, std::u16string_view value);
void formatValue(std::ostream& out, const std::u16string& value);
void formatValue(std::ostream& out, const std::type_info& value);  ///< the raw (mangled) name
void formatValue(std::ostream& out, const void* value);

/// Numbers, booleans and characters go through the stream's own insertion (so base specifiers apply).
template <typename T, std::enable_if_t<std::is_arithmetic_v<T>, int> = 0>
void formatValue(std::ostream& out, T value) {
    out << value;
}

/// Enumerations render as their number.
template <typename T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
void formatValue(std::ostream& out, T value) {
    out << static_cast<std::underlying_type_t<T>>(value);
}

}  // namespace common::formatters

namespace common::zel_internal {

/// One formatting argument: its writer and its untyped address.
struct FormatArg {
    void (*writer)(std::ostream&, const void*) noexcept;
    const void* value;
};

template <typename T, typename CharT>
void formatValue__(std::ostream& out, const void* value) noexcept {
    common::formatters::formatValue(out, *static_cast<const T*>(value));
}

/// The formatting engine.
std::string formatImpl(std::string_view format, const FormatArg* args, size_t count);

template <typename CharT, typename... Args>
std::string format__(std::basic_string_view<CharT> format, const Args&... args) {
    if (format.empty())
        return {};
    const std::array<FormatArg, sizeof...(Args)> array{FormatArg{&formatValue__<Args, CharT>, &args}...};
    return formatImpl(format, array.data(), array.size());
}

}  // namespace common::zel_internal

namespace common {

/// Renders `format`, replacing "{N[:specifiers]}" (0-based) and "%N" (1-based) placeholders by the arguments.
/// Malformed placeholders never fail: they render as "()", "ERROR:(...)" or stay literal.
template <typename... Args>
std::string format(std::string_view format, const Args&... args) {
    return zel_internal::format__<char>(format, args...);
}

}  // namespace common
