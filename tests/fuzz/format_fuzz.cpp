// libFuzzer target: common::format over arbitrary format texts with a fixed mixed argument list.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <typeinfo>

#include "common/utils/format.h"

namespace {
struct Probe {};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::string owned = "owned";
    const char* nullText = nullptr;
    const std::string result = common::format(text, owned, 7u, -42, 3.25, "literal", nullText,
                                              std::u16string_view(u"wide"), typeid(Probe), 255ul, true);
    // A placeholder (three bytes at least) renders one argument, "()" or an error text; the longest is a
    // double at the largest fixed precision (1000 decimals plus up to 309 integer digits).
    if (result.size() > 64 + size * 1500)
        std::abort();
    // Without placeholders characters the text comes back unchanged.
    if (text.find_first_of("{%") == std::string_view::npos && result != text)
        std::abort();
    return 0;
}
