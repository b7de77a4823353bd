// Tests of the message formatter: placeholder scanning, specifiers, sticky state and per-type rendering.
#include "common/utils/format.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>

#include "common/utils/exception.h"

// The fixed-point specifier's exception is caught inside the engine, so the tests watch it being thrown:
// this binary interposes the C++ runtime's throw entry point, records a copy of every DefaultException
// while recording is on, and hands the throw on to the real runtime.
namespace {

struct ThrownRecord {
    int count = 0;
    std::string function;
    std::string file;
    std::optional<uint32_t> line;
    std::string message;
    std::string what;
    uint32_t flags = 0xFFFFFFFFu;
};

bool g_recordThrows = false;
ThrownRecord g_thrown;

class ThrowRecorder {
public:
    ThrowRecorder() {
        g_thrown = ThrownRecord{};
        g_recordThrows = true;
    }
    ~ThrowRecorder() { g_recordThrows = false; }
    ThrowRecorder(const ThrowRecorder&) = delete;
    ThrowRecorder& operator=(const ThrowRecorder&) = delete;
};

}  // namespace

// The compiler declares the entry point itself, with an untyped second parameter.
extern "C" [[noreturn]] void __cxa_throw(void* object, void* typeInfo, void (*destructor)(void*)) {
    const auto* type = static_cast<const std::type_info*>(typeInfo);
    if (g_recordThrows && *type == typeid(common::common_internal::DefaultException)) {
        const auto* e = static_cast<const common::common_internal::DefaultException*>(object);
        ++g_thrown.count;
        g_thrown.function = std::string(e->source().function);
        g_thrown.file = std::string(e->source().file);
        g_thrown.line = e->source().line;
        g_thrown.message = e->message();
        g_thrown.what = e->what();
        g_thrown.flags = e->flags();
    }
    using ThrowFunction = void (*)(void*, void*, void (*)(void*));
    static const auto next = reinterpret_cast<ThrowFunction>(dlsym(RTLD_NEXT, "__cxa_throw"));
    if (!next)
        std::abort();
    next(object, typeInfo, destructor);
    __builtin_unreachable();
}

namespace {

using common::format;

struct SomeClass {};

std::string conversionError(const std::string& text) {
    try {
        (void)std::stoi(text);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(no error)";
}

// --- the reference shape and the plain cases ---

TEST(Format, LocationShape) {
    const std::string file = "../common/utils/format";
    EXPECT_EQ(format("{0}({1}):{2}", file, 7u, "Bad format"), "../common/utils/format(7):Bad format");
}

TEST(Format, FormatWithoutPlaceholderIsReturnedWithArguments) {
    EXPECT_EQ(format("no placeholder here", 1, "x", 2.5), "no placeholder here");
}

TEST(Format, FormatWithoutArgumentsIsReturnedAsItStands) {
    EXPECT_EQ(format("{0} %1 %% {x} {:x} 100%"), "{0} %1 %% {x} {:x} 100%");
    EXPECT_EQ(format("text%%more"), "text%%more");
}

TEST(Format, EmptyFormatIsEmpty) {
    EXPECT_EQ(format("", 1, 2), "");
    EXPECT_EQ(format(""), "");
}

TEST(Format, LiteralTextAroundPlaceholdersIsKept) {
    EXPECT_EQ(format("a{0}b{1}c", 1, 2), "a1b2c");
    EXPECT_EQ(format("{1}{0}", "x", "y"), "yx");
    EXPECT_EQ(format("{0}{0}", 3), "33");
}

// --- indexes ---

TEST(Format, OutOfRangeIndexRendersEmptyParentheses) {
    EXPECT_EQ(format("{5}", 1, 2), "()");
    EXPECT_EQ(format("a{2}b", 1, 2), "a()b");
}

TEST(Format, NonNumericIndexRendersTheConversionError) {
    const std::string what = conversionError("abc");
    EXPECT_EQ(format("{abc}", 1), "ERROR:(" + what + ")");
    EXPECT_EQ(format("a{x}b{0}", 1), "aERROR:(" + what + ")b1");
}

TEST(Format, TooLargeIndexRendersTheConversionError) {
    const std::string what = conversionError("99999999999");
    EXPECT_EQ(format("{99999999999}", 1), "ERROR:(" + what + ")");
}

TEST(Format, IndexNeedsOnlyLeadingDigits) { EXPECT_EQ(format("{1x}", "a", "b"), "b"); }

TEST(Format, IndexAndSpecifiersAreTrimmed) {
    EXPECT_EQ(format("{ 0 }", 7), "7");
    EXPECT_EQ(format("{ 0 : x }", 255), "ff");
}

TEST(Format, BracesDoNotNest) { EXPECT_EQ(format("{{0}", 1), "ERROR:(" + conversionError("{0") + ")"); }

TEST(Format, UnmatchedBraceStaysLiteral) {
    EXPECT_EQ(format("a{0", 1), "a{0");
    EXPECT_EQ(format("{0} and {1", 1, 2), "1 and {1");
}

TEST(Format, NegativeIndexRendersNothing) { EXPECT_EQ(format("a{-1}b", 1), "ab"); }

// --- the empty "{}" ---

TEST(Format, EmptyBracesAreLiteralAndSkipTheNextCharacter) {
    // The character right after "{}" is never examined: here it is the "{" of "{0}".
    EXPECT_EQ(format("{}{0}", 1), "{}{0}");
    // Here it is the "%" of "%1".
    EXPECT_EQ(format("a{0}b{}%1", "X"), "aXb{}%1");
    // Only that one character is skipped.
    EXPECT_EQ(format("{}x%1", "A"), "{}xA");
    EXPECT_EQ(format("{0}{}", 5), "5{}");
}

// --- percent placeholders ---

TEST(Format, PercentPlaceholdersAreOneBased) {
    EXPECT_EQ(format("%1 and %2", "first", "second"), "first and second");
    EXPECT_EQ(format("%2%1", 1, 2), "21");
    EXPECT_EQ(format("ComPtr<%1> is not dereferencible", "IFoo"), "ComPtr<IFoo> is not dereferencible");
}

TEST(Format, PercentZeroRendersNothing) {
    EXPECT_EQ(format("%0", 1), "");
    EXPECT_EQ(format("a%0b", 1), "ab");
}

TEST(Format, PercentNumberTakesAllDigits) {
    EXPECT_EQ(format("%12", 1, 2), "()");
    EXPECT_EQ(format("%1x", 1, 2), "1x");
}

TEST(Format, LonePercentStaysLiteral) {
    EXPECT_EQ(format("100%", 1), "100%");
    EXPECT_EQ(format("100% sure", 1), "100% sure");
    EXPECT_EQ(format("%s and %1", "x"), "%s and x");
}

TEST(Format, DoublePercentDropsThePrecedingLiteralText) {
    EXPECT_EQ(format("text%%more", 1), "%more");
    EXPECT_EQ(format("ab%%cd", "x"), "%cd");
    EXPECT_EQ(format("a{0}b%%c", "X"), "aX%c");
    EXPECT_EQ(format("%%%1", "X"), "%X");
    EXPECT_EQ(format("%%", 1), "%");
    EXPECT_EQ(format("ab%%", 1), "%");
    EXPECT_EQ(format("a%%b%%c", 1), "%%c");
}

// --- integer base specifiers ---

TEST(Format, HexSpecifiers) {
    EXPECT_EQ(format("{0:x}", 255), "ff");
    EXPECT_EQ(format("{0:X}", 255), "FF");
}

TEST(Format, SpecifiersApplyToTheirPlaceholderOnly) {
    EXPECT_EQ(format("{0:x} {0}", 255), "ff 255");
    EXPECT_EQ(format("{0:X} {0}", 255), "FF 255");
    EXPECT_EQ(format("{0:X} {1:x}", 255, 171), "FF ab");
}

TEST(Format, DecimalSpecifier) {
    EXPECT_EQ(format("{0:d}", 255), "255");
    EXPECT_EQ(format("{0:D}", 255), "255");
}

TEST(Format, LaterBaseSpecifierReplacesTheEarlierOne) {
    EXPECT_EQ(format("{0:x:d}", 255), "255");
    EXPECT_EQ(format("{0:d:x}", 255), "ff");
    EXPECT_EQ(format("{0:X:x}", 255), "ff");
}

TEST(Format, LaterFixedSpecifierReplacesTheEarlierOne) {
    EXPECT_EQ(format("{0:f.1:f.3}", 1.5), "1.500");
    EXPECT_EQ(format("{0:f.3:f.1}", 1.5), "1.5");
}

TEST(Format, UnknownSpecifiersAreIgnored) {
    EXPECT_EQ(format("{0:q}", 255), "255");
    EXPECT_EQ(format("{0:q:x}", 255), "ff");
    EXPECT_EQ(format("{0:}", 255), "255");
}

// --- the sticky state ---

TEST(Format, StickyHexAppliesToLaterPlaceholders) {
    EXPECT_EQ(format("{:x}{0}", 255), "ff");
    EXPECT_EQ(format("{:x}{0} {1}", 255, 16), "ff 10");
    EXPECT_EQ(format("{:x}%1", 255), "ff");
    EXPECT_EQ(format("{-1:x}{0}", 255), "ff");
}

TEST(Format, StickySpecifierRendersNothing) {
    EXPECT_EQ(format("{:x}", 255), "");
    EXPECT_EQ(format("a{:x}b{0}c", 255), "abffc");
}

TEST(Format, PerPlaceholderSpecifierOverridesStickyStateOnce) { EXPECT_EQ(format("{:x}{0:d} {0}", 255), "255 ff"); }

TEST(Format, StickyStateIsReplacedByTheNextOne) {
    EXPECT_EQ(format("{:x}{0} {:d}{0}", 255), "ff 255");
    EXPECT_EQ(format("{:x}{0} {}{0}", 255), "ff {}{0}");
    EXPECT_EQ(format("{:x}{0} { }{0}", 255), "ff 255");
}

TEST(Format, PercentZeroResetsStickyState) { EXPECT_EQ(format("{:x}{0}%0{0}", 255), "ff255"); }

TEST(Format, StickyUpperCaseSurvivesALowerCaseSpecifier) {
    // A lower-case letter selects the base only; it does not switch upper-case digits off.
    EXPECT_EQ(format("{:X}{0:x}", 255), "FF");
    EXPECT_EQ(format("{:X}{0:d} {0}", 255), "255 FF");
}

TEST(Format, StickyStateIsPerCall) {
    EXPECT_EQ(format("{:x}{0}", 255), "ff");
    EXPECT_EQ(format("{0}", 255), "255");
}

// --- fixed point ---

TEST(Format, FixedPointPrecision) {
    EXPECT_EQ(format("{0:f.2}", 3.14159), "3.14");
    EXPECT_EQ(format("{0:fp3}", 3.14159), "3.142");
    EXPECT_EQ(format("{0:F.1}", 2.26f), "2.3");
    EXPECT_EQ(format("{0:f.0}", 2.0), "2");
}

TEST(Format, FixedPointIsRestoredAfterThePlaceholder) {
    EXPECT_EQ(format("{0:f.2} {0}", 3.14159), "3.14 3.14159");
    EXPECT_EQ(format("{0:f.2} {0}", 1e10), "10000000000.00 1e+10");
}

TEST(Format, StickyFixedPoint) { EXPECT_EQ(format("{:f.1}{0} {1}", 1.26, 2.0), "1.3 2.0"); }

TEST(Format, FixedAndBaseInOneGuard) {
    EXPECT_EQ(format("{0:x:f.2}", 255), "ff");
    EXPECT_EQ(format("{0:x:f.2}", 2.5), "2.50");
}

TEST(Format, ShortFixedSpecifierIsABadFormat) {
    EXPECT_EQ(format("{0:f}", 1.5), "ERROR:(Bad format)");
    EXPECT_EQ(format("{0:f3}", 1.5), "ERROR:(Bad format)");
    EXPECT_EQ(format("a{0:F}b{0}", 1.5), "aERROR:(Bad format)b1.5");
    EXPECT_EQ(format("{:f}{0}", 1.5), "ERROR:(Bad format)1.5");
}

TEST(Format, NonNumericPrecisionRendersTheConversionError) {
    EXPECT_EQ(format("{0:f.x}", 1.5), "ERROR:(" + conversionError("x") + ")");
}

TEST(Format, BadFormatExceptionCarriesItsLocation) {
    ThrowRecorder recorder;
    EXPECT_EQ(format("{0:f}", 1.5), "ERROR:(Bad format)");
    ASSERT_EQ(g_thrown.count, 1);
    EXPECT_EQ(g_thrown.function, "FFixedFormatting");
    EXPECT_EQ(g_thrown.file, "../common/utils/format");
    ASSERT_TRUE(g_thrown.line.has_value());
    EXPECT_EQ(*g_thrown.line, 113u);
    EXPECT_EQ(g_thrown.message, "Bad format");
    EXPECT_EQ(g_thrown.what, "Bad format");
    EXPECT_EQ(g_thrown.flags, 0u);
}

TEST(Format, GoodFixedSpecifierThrowsNothing) {
    ThrowRecorder recorder;
    EXPECT_EQ(format("{0:f.2}", 1.5), "1.50");
    EXPECT_EQ(g_thrown.count, 0);
}

// --- per-type rendering ---

TEST(Format, NarrowStrings) {
    const std::string owned = "owned";
    const std::string_view view = "view";
    const char* pointer = "pointer";
    EXPECT_EQ(format("{0} {1} {2} {3}", owned, view, pointer, "literal"), "owned view pointer literal");
}

TEST(Format, StringViewIsWrittenAsItStands) {
    const std::string_view embedded("a\0b", 3);
    EXPECT_EQ(format("[{0}]", embedded), std::string("[a\0b]", 5));
    EXPECT_EQ(format("[{0}]", std::string_view("abcdef").substr(1, 3)), "[bcd]");
}

TEST(Format, NullCharPointerRendersNothing) {
    const char* null = nullptr;
    EXPECT_EQ(format("[{0}]", null), "[]");
    EXPECT_EQ(format("{0}", null), "");
}

TEST(Format, SixteenBitTextRendersTheConversionMarker) {
    const std::u16string_view view = u"wide";
    const std::u16string owned = u"owned";
    EXPECT_EQ(format("{0}", view), "UTF16->UTF8:NOT-CONVERTED");
    EXPECT_EQ(format("{0}", owned), "UTF16->UTF8:NOT-CONVERTED");
    EXPECT_EQ(format("{0}", std::u16string_view()), "UTF16->UTF8:NOT-CONVERTED");
}

TEST(Format, TypeInfoRendersTheRawName) {
    EXPECT_EQ(format("{0}", typeid(SomeClass)), typeid(SomeClass).name());
    EXPECT_EQ(format("ComPtr<{0}>", typeid(common::Exception)), "ComPtr<N6common9ExceptionE>");
    EXPECT_EQ(format("{0}", typeid(int)), "i");
}

TEST(Format, IntegersUseStreamInsertion) {
    EXPECT_EQ(format("{0} {1} {2}", -5, 7u, 123456789012ul), "-5 7 123456789012");
}

TEST(Format, IntegerTypesFollowBaseSpecifiers) {
    EXPECT_EQ(format("{0:x}", -1), "ffffffff");
    EXPECT_EQ(format("{0:x}", 3054u), "bee");
    EXPECT_EQ(format("{0:X}", 3054u), "BEE");
    EXPECT_EQ(format("{0:x}", 0xdeadbeefcafeul), "deadbeefcafe");
    EXPECT_EQ(format("{0:X}", 0xdeadbeefcafeul), "DEADBEEFCAFE");
    EXPECT_EQ(format("{:x}{0} {1} {2}", 10, 11u, 12ul), "a b c");
}

TEST(Format, BooleansRenderAsWords) { EXPECT_EQ(format("{0}/{1}", true, false), "true/false"); }

TEST(Format, FloatingValuesUseTheDefaultNotation) { EXPECT_EQ(format("{0}", 2.5), "2.5"); }

TEST(Format, ManyArguments) {
    EXPECT_EQ(format("{10}{9}{8}{7}{6}{5}{4}{3}{2}{1}{0}", 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10), "109876543210");
    EXPECT_EQ(format("%11", 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10), "10");
}

}  // namespace
