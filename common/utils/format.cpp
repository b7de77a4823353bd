// The formatting engine: placeholder scanning, specifier guards and value writers.
#include "common/utils/format.h"

#include <optional>
#include <sstream>

#include "common/utils/exception.h"
#include "common/utils/strings.h"

namespace common::formatters {

void formatValue(std::ostream& out, std::string_view value) { out.write(value.data(), std::streamsize(value.size())); }

void formatValue(std::ostream& out, const std::string& value) { formatValue(out, std::string_view(value)); }

void formatValue(std::ostream& out, const char* value) {
    if (value)
        out << value;
}

void formatValue(std::ostream& out, std::u16string_view value) { formatValue(out, strings::utf16ToUtf8(value)); }

void formatValue(std::ostream& out, const std::u16string& value) { formatValue(out, std::u16string_view(value)); }

void formatValue(std::ostream& out, const std::type_info& value) { out << value.name(); }

void formatValue(std::ostream& out, const void* value) { out << value; }

}  // namespace common::formatters

namespace common::zel_internal {
namespace {

// Precisions beyond this are refused: a stray "f.999999999" must not make one message gigabytes long.
constexpr int kMaxFixedPrecision = 1000;

// A fixed-point specifier ("f.3", "fp3"): the precision starts at the token's third character.
struct FFixedFormatting {
    explicit FFixedFormatting(std::string_view token) {
        if (token.size() <= 2)
            COMMON_THROW_AT("../common/utils/format", 113, "Bad format");
        precision = std::stoi(std::string(token.substr(2)));
        if (precision > kMaxFixedPrecision)
            COMMON_THROW_AT("../common/utils/format", __LINE__, "Bad format");
    }
    int precision = 0;
};

// An integer-base specifier ("x", "X", "d", "D"); an upper-case letter also selects upper-case digits.
struct BaseFormatting {
    std::ios_base::fmtflags base;
    bool upper;
};

// Saves the stream's flags and precision, applies the specifiers, restores on destruction.
class FormattingGuard {
public:
    FormattingGuard(std::ostream& out, std::string_view specifiers)
        : m_out(out), m_flags(out.flags()), m_precision(out.precision()) {
        std::optional<FFixedFormatting> fixed;
        std::optional<BaseFormatting> base;
        for (std::string_view token : strings::split(specifiers, ":")) {
            const char kind = strings::lower(token.front());
            if (kind == 'f')
                fixed.emplace(token);
            else if (kind == 'x' || kind == 'd')
                base = BaseFormatting{kind == 'x' ? std::ios_base::hex : std::ios_base::dec,
                                      strings::isUpper(token.front())};
        }
        if (fixed) {
            out.precision(fixed->precision);
            out.setf(std::ios_base::fixed, std::ios_base::floatfield);
        }
        if (base) {
            out.setf(base->base, std::ios_base::basefield);
            if (base->upper)
                out.setf(std::ios_base::uppercase);
        }
    }
    ~FormattingGuard() {
        m_out.flags(m_flags);
        m_out.precision(m_precision);
    }
    FormattingGuard(const FormattingGuard&) = delete;
    FormattingGuard& operator=(const FormattingGuard&) = delete;

private:
    std::ostream& m_out;
    std::ios_base::fmtflags m_flags;
    std::streamsize m_precision;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::string formatImpl(std::string_view format, const FormatArg* args, size_t count) {
    const size_t size = format.size();
    if (count == 0 || size == 0)
        return std::string(format);
    const size_t last = size - 1;

    std::ostringstream out;
    out << std::boolalpha;
    std::optional<FormattingGuard> sticky;
    size_t pos = 0;
    size_t mark = 0;

    for (;;) {
        if (pos > last) {
            if (mark >= size)
                break;
            if (mark == 0)
                return std::string(format);
            out.write(format.data() + mark, std::streamsize(size - mark));
            break;
        }
        const char c = format[pos];
        const size_t start = pos;
        std::string_view text;
        int offset = 0;

        if (c == '{') {
            const size_t close = format.find('}', pos + 1);
            if (close != std::string_view::npos) {
                text = format.substr(pos + 1, close - pos - 1);
                pos = close + 1;
            }
        } else if (c == '%' && pos != last) {
            if (format[pos + 1] == '%') {
                out.put('%');
                pos += 2;
                mark = pos;
                continue;
            }
            size_t end = pos + 1;
            while (end < size && isDigit(format[end]))
                ++end;
            if (end > pos + 1) {
                text = format.substr(pos + 1, end - pos - 1);
                offset = -1;
                pos = end;
            }
        }

        if (text.empty()) {
            ++pos;
            continue;
        }

        if (start > mark)
            out.write(format.data() + mark, std::streamsize(start - mark));
        mark = pos;
        try {
            const size_t colon = text.find(':');
            const std::string_view indexPart = strings::trim(text.substr(0, colon));
            const std::string_view specPart =
                colon == std::string_view::npos ? std::string_view() : strings::trim(text.substr(colon + 1));
            int index = indexPart.empty() ? -1 : std::stoi(std::string(indexPart));
            if (index >= 0)
                index += offset;
            if (index >= 0 && size_t(index) >= count) {
                out << "()";
            } else if (index >= 0) {
                FormattingGuard guard(out, specPart);
                args[index].writer(out, args[index].value);
            } else {
                sticky.reset();
                sticky.emplace(out, specPart);
            }
        } catch (const std::exception& e) {
            out << "ERROR:(" << e.what() << ")";
        }
    }
    sticky.reset();
    return std::move(out).str();
}

}  // namespace common::zel_internal
