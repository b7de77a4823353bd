// String helpers that need the C library.
#include "common/utils/strings.h"

#include <cctype>

namespace common::strings {

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool isUpper(char c) { return std::isupper(c) != 0; }

std::string utf16ToUtf8(std::u16string_view) { return "UTF16->UTF8:NOT-CONVERTED"; }

std::u16string utf8ToUtf16(std::string_view) { return u"UTF8->UTF16:NOT-CONVERTED"; }

}  // namespace common::strings
