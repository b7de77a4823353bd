// Allocation-free text helpers over narrow and 16-bit string views.
#pragma once

#include <string>
#include <string_view>

namespace common::strings_internal {

/// Picks the narrow literal for `char` and the wide one otherwise.
template <typename CharT, typename Wide, typename Narrow>
constexpr auto choose(Wide wide, Narrow narrow) {
    if constexpr (std::is_same_v<CharT, char>)
        return narrow;
    else
        return wide;
}

/// The token after `previous` in `text` (the first one when `previous` is empty).
template <typename CharT>
std::basic_string_view<CharT> splitNext(std::basic_string_view<CharT> text, std::basic_string_view<CharT> previous,
                                        std::basic_string_view<CharT> separators) {
    using View = std::basic_string_view<CharT>;
    if (text.empty())
        return {};
    size_t start = previous.empty() ? 0 : size_t(previous.data() - text.data()) + previous.size();
    if (start >= text.size())
        return {};
    size_t sep = text.find_first_of(separators, start);
    while (sep == start) {
        ++start;
        if (start >= text.size())
            return {};
        sep = text.find_first_of(separators, start);
    }
    if (sep != View::npos)
        return text.substr(start, sep - start);
    return text.substr(start);
}

/// A lazy range over the tokens of a text split at a set of separator characters.
template <typename CharT>
class SplitSequence {
public:
    using View = std::basic_string_view<CharT>;

    class iterator {
    public:
        iterator() = default;
        iterator(View text, View separators)
            : m_text(text), m_separators(separators), m_token(splitNext<CharT>(text, {}, separators)) {
            if (m_token.empty())
                m_text = m_separators = {};
        }
        View operator*() const { return m_token; }
        iterator& operator++() {
            m_token = splitNext<CharT>(m_text, m_token, m_separators);
            if (m_token.empty())
                m_text = m_separators = {};
            return *this;
        }
        bool operator==(const iterator& other) const {
            if (m_token.empty() || other.m_token.empty())
                return m_token.empty() && other.m_token.empty();
            return m_token.data() == other.m_token.data();
        }
        bool operator!=(const iterator& other) const { return !(*this == other); }

    private:
        View m_text;
        View m_separators;
        View m_token;
    };

    SplitSequence(View text, View separators) : m_text(text), m_separators(separators) {}
    iterator begin() const { return iterator(m_text, m_separators); }
    iterator end() const { return iterator(); }

private:
    View m_text;
    View m_separators;
};

template <typename CharT>
std::basic_string_view<CharT> trimEnd(std::basic_string_view<CharT> text) {
    size_t n = text.size();
    while (n > 0 && text[n - 1] == CharT(' '))
        --n;
    return text.substr(0, n);
}

template <typename CharT>
std::basic_string_view<CharT> trimStart(std::basic_string_view<CharT> text) {
    size_t n = 0;
    while (n < text.size() && text[n] == CharT(' '))
        ++n;
    return text.substr(n);
}

template <typename CharT>
bool startWith(std::basic_string_view<CharT> text, std::basic_string_view<CharT> prefix) {
    return text.find(prefix) == 0;
}

template <typename CharT>
bool endWith(std::basic_string_view<CharT> text, std::basic_string_view<CharT> suffix) {
    const size_t pos = text.rfind(suffix);
    if (pos == std::basic_string_view<CharT>::npos)
        return false;
    return text.size() - pos == suffix.size();
}

}  // namespace common::strings_internal

namespace common::strings {

/// The C library's lower-case mapping of `c` taken as an unsigned byte.
char lower(char c);
/// The C library's upper-case test of `c`.
bool isUpper(char c);

/// `text` without trailing blanks (only code 32 counts as blank).
inline std::string_view trimEnd(std::string_view text) { return strings_internal::trimEnd(text); }
inline std::u16string_view trimEnd(std::u16string_view text) { return strings_internal::trimEnd(text); }
/// `text` without leading blanks.
inline std::string_view trimStart(std::string_view text) { return strings_internal::trimStart(text); }
inline std::u16string_view trimStart(std::u16string_view text) { return strings_internal::trimStart(text); }
/// `text` without leading and trailing blanks.
inline std::string_view trim(std::string_view text) { return trimStart(trimEnd(text)); }
inline std::u16string_view trim(std::u16string_view text) { return trimStart(trimEnd(text)); }

/// True when `prefix` is found at position 0 of `text`.
inline bool startWith(std::string_view text, std::string_view prefix) {
    return strings_internal::startWith(text, prefix);
}
inline bool startWith(std::u16string_view text, std::u16string_view prefix) {
    return strings_internal::startWith(text, prefix);
}
/// True when the last occurrence of `suffix` in `text` ends at its end.
inline bool endWith(std::string_view text, std::string_view suffix) { return strings_internal::endWith(text, suffix); }
inline bool endWith(std::u16string_view text, std::u16string_view suffix) {
    return strings_internal::endWith(text, suffix);
}

/// Lazily splits `text` at any of the characters of `separators`; empty tokens are skipped.
inline strings_internal::SplitSequence<char> split(std::string_view text, const char* separators) {
    return {text, separators};
}

/// UTF conversions are placeholders on this platform: they return a fixed marker text.
std::string utf16ToUtf8(std::u16string_view text);
std::u16string utf8ToUtf16(std::string_view text);

}  // namespace common::strings
