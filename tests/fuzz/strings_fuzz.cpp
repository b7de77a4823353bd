// libFuzzer target: the string splitter and trimmers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "common/utils/strings.h"

namespace {

// `inner` must lie within `outer`.
void requireWithin(std::string_view outer, std::string_view inner) {
    if (inner.empty())
        return;
    if (inner.data() < outer.data() || inner.data() + inner.size() > outer.data() + outer.size())
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    // The first byte chooses the separator set size (0 to 3 characters taken from the front).
    const size_t separatorCount = data[0] % 4;
    if (size < 1 + separatorCount)
        return 0;
    const std::string separators(reinterpret_cast<const char*>(data + 1), separatorCount);
    const std::string_view text(reinterpret_cast<const char*>(data + 1 + separatorCount), size - 1 - separatorCount);

    using namespace common::strings;
    const std::string_view trimmed = trim(text);
    requireWithin(text, trimmed);
    if (!trimmed.empty() && (trimmed.front() == ' ' || trimmed.back() == ' '))
        std::abort();
    requireWithin(text, trimStart(text));
    requireWithin(text, trimEnd(text));

    size_t tokens = 0;
    size_t covered = 0;
    for (std::string_view token : split(text, separators.c_str())) {
        requireWithin(text, token);
        if (token.empty())
            std::abort();  // runs of separators never produce empty tokens
        // A token holds no separator character (the set stops at the first NUL, as a C string does).
        if (token.find_first_of(std::string_view(separators.c_str())) != std::string_view::npos)
            std::abort();
        covered += token.size();
        if (++tokens > text.size())
            std::abort();  // the sequence always ends
    }
    if (covered > text.size())
        std::abort();
    (void)startWith(text, trimmed);
    (void)endWith(text, trimmed);
    return 0;
}
