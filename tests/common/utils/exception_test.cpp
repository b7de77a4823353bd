// Tests of the library's exception type and the throw macro.
#include "common/utils/exception.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <type_traits>

namespace {

using common::common_internal::DefaultException;
using common::diagnostics::SourceInfo;

static_assert(std::is_base_of_v<std::exception, common::Exception>);
static_assert(std::is_base_of_v<common::Exception, DefaultException>);
static_assert(std::is_base_of_v<common::ExceptionImpl<common::Exception>, DefaultException>);
static_assert(std::is_abstract_v<common::Exception>);

TEST(Exception, StoresMessageLocationAndFlags) {
    const DefaultException e(SourceInfo{"capturePointer", "../bridge/hwsupport_component", 42}, "message text", 5);
    EXPECT_STREQ(e.message(), "message text");
    EXPECT_EQ(e.flags(), 5u);
    const SourceInfo source = e.source();
    EXPECT_EQ(source.function, "capturePointer");
    EXPECT_EQ(source.file, "../bridge/hwsupport_component");
    ASSERT_TRUE(source.line.has_value());
    EXPECT_EQ(*source.line, 42u);
}

TEST(Exception, WhatAndMessageReturnTheSameText) {
    const DefaultException e(SourceInfo{"f", "../x", 1}, "Pointer already captured.", 0);
    EXPECT_STREQ(e.what(), e.message());
    EXPECT_STREQ(e.what(), "Pointer already captured.");
    const std::exception& base = e;
    EXPECT_STREQ(base.what(), "Pointer already captured.");
}

TEST(Exception, LocationIsAnOwnedCopy) {
    std::string function = "toValue";
    std::string file = "../common/include/common/v8binding/v8binding";
    std::string message = "some message";
    const DefaultException e(SourceInfo{function, file, 7}, message, 0);
    function.assign(function.size(), '#');
    file.assign(file.size(), '#');
    message.assign(message.size(), '#');
    EXPECT_EQ(e.source().function, "toValue");
    EXPECT_EQ(e.source().file, "../common/include/common/v8binding/v8binding");
    EXPECT_STREQ(e.message(), "some message");
    EXPECT_STREQ(e.diagMessage(), "../common/include/common/v8binding/v8binding(7):some message");
}

TEST(Exception, DiagMessagePrefixesFileAndLine) {
    const DefaultException e(SourceInfo{"FFixedFormatting", "../common/utils/format", 113}, "Bad format", 0);
    EXPECT_STREQ(e.diagMessage(), "../common/utils/format(113):Bad format");
}

TEST(Exception, DiagMessageLeavesOutTheFunctionName) {
    const DefaultException e(SourceInfo{"someFunction", "file", 3}, "text", 0);
    EXPECT_EQ(std::string(e.diagMessage()).find("someFunction"), std::string::npos);
    EXPECT_STREQ(e.diagMessage(), "file(3):text");
}

TEST(Exception, DiagMessageIsCached) {
    const DefaultException e(SourceInfo{"f", "../bridge/rawinputdriverbase", 9}, "Pointer already captured.", 0);
    const char* first = e.diagMessage();
    const char* second = e.diagMessage();
    EXPECT_EQ(first, second);
    EXPECT_STREQ(second, "../bridge/rawinputdriverbase(9):Pointer already captured.");
}

TEST(Exception, DiagMessageOfAnEmptyLocationIsTheMessage) {
    const DefaultException e(SourceInfo{}, "plain", 0);
    EXPECT_STREQ(e.diagMessage(), "plain");
    EXPECT_EQ(e.diagMessage(), e.message());

    // A line alone does not make a location.
    const DefaultException withLine(SourceInfo{"", "", 12}, "plain", 0);
    EXPECT_STREQ(withLine.diagMessage(), "plain");
}

TEST(Exception, DiagMessageWithoutLineRendersZero) {
    const DefaultException e(SourceInfo{"f", "../bridge/pointercapture", std::nullopt}, "msg", 0);
    EXPECT_STREQ(e.diagMessage(), "../bridge/pointercapture(0):msg");
}

TEST(Exception, DiagMessageWithFunctionOnly) {
    const DefaultException e(SourceInfo{"f", "", 4}, "msg", 0);
    EXPECT_STREQ(e.diagMessage(), "(4):msg");
}

TEST(Exception, DiagMessageKeepsPlaceholderCharactersOfTheMessage) {
    // The message is an argument of the location format, so its own braces and percent signs stay.
    const DefaultException e(SourceInfo{"f", "file", 1}, "{0} %1 %%", 0);
    EXPECT_STREQ(e.diagMessage(), "file(1):{0} %1 %%");
}

TEST(Exception, DiagMessageThroughTheInterface) {
    const DefaultException e(SourceInfo{"f", "a/b", 2}, "m", 0);
    const common::Exception& base = e;
    EXPECT_STREQ(base.diagMessage(), "a/b(2):m");
    EXPECT_STREQ(base.message(), "m");
    EXPECT_EQ(base.flags(), 0u);
    EXPECT_EQ(base.source().file, "a/b");
}

TEST(Exception, CopyKeepsEverything) {
    const DefaultException original(SourceInfo{"f", "file", 8}, "text", 3);
    (void)original.diagMessage();
    const DefaultException copy = original;
    EXPECT_STREQ(copy.message(), "text");
    EXPECT_STREQ(copy.diagMessage(), "file(8):text");
    EXPECT_EQ(copy.flags(), 3u);
    EXPECT_EQ(copy.source().function, "f");
    EXPECT_NE(static_cast<const void*>(copy.message()), static_cast<const void*>(original.message()));
}

// --- the throw macro ---

void throwArgumentCount(uint64_t expected, int32_t actual) {
    COMMON_THROW_AT("../common/include/common/v8binding/v8binding", 321, "Expected ({0}) arguments, but only ({1})",
                    expected, actual);
}

void throwPlain() { COMMON_THROW_AT("../bridge/rawinputdriverbase", 77, "Pointer already captured."); }

void throwPlainWithPlaceholders() { COMMON_THROW_AT("../x", 1, "{0} and 100%% stay"); }

TEST(Exception, ThrowMacroThrowsADefaultExceptionWithItsLocation) {
    try {
        throwArgumentCount(3, 1);
        FAIL() << "nothing thrown";
    } catch (const DefaultException& e) {
        EXPECT_STREQ(e.message(), "Expected (3) arguments, but only (1)");
        EXPECT_EQ(e.source().function, "throwArgumentCount");
        EXPECT_EQ(e.source().file, "../common/include/common/v8binding/v8binding");
        EXPECT_EQ(e.source().line, std::optional<uint32_t>(321));
        EXPECT_EQ(e.flags(), 0u);
        EXPECT_STREQ(e.diagMessage(),
                     "../common/include/common/v8binding/v8binding(321):Expected (3) arguments, but only (1)");
    }
}

TEST(Exception, ThrowMacroWithoutArgumentsKeepsTheTextUnchanged) {
    try {
        throwPlainWithPlaceholders();
        FAIL() << "nothing thrown";
    } catch (const DefaultException& e) {
        EXPECT_STREQ(e.message(), "{0} and 100%% stay");
    }
}

TEST(Exception, CaughtAsStandardException) {
    try {
        throwPlain();
        FAIL() << "nothing thrown";
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "Pointer already captured.");
        const auto* library = dynamic_cast<const common::Exception*>(&e);
        ASSERT_NE(library, nullptr);
        EXPECT_STREQ(library->diagMessage(), "../bridge/rawinputdriverbase(77):Pointer already captured.");
    }
}

// --- message building ---

TEST(Exception, MakeUtf8StringWithoutArgumentsCopiesTheFormat) {
    EXPECT_EQ(common::diagnostics_internal::makeUtf8String("{0} %1 %%"), "{0} %1 %%");
    EXPECT_EQ(common::diagnostics_internal::makeUtf8String(""), "");
}

TEST(Exception, MakeUtf8StringWithArgumentsFormats) {
    EXPECT_EQ(common::diagnostics_internal::makeUtf8String("Fail to allocate js string: ({0})", "abc"),
              "Fail to allocate js string: (abc)");
    EXPECT_EQ(common::diagnostics_internal::makeUtf8String("Runtime cast (%1) -> IRefCounted failed", "IFoo"),
              "Runtime cast (IFoo) -> IRefCounted failed");
}

}  // namespace
