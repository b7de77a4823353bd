// Tests of the source locations: the view carried by log entries, checks and exceptions, and its owning copy.
#include "common/diagnostics/sourceinfo.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace {

using common::diagnostics::SourceInfo;
using common::diagnostics::SourceInfoPersistent;

static_assert(std::is_trivially_copyable_v<SourceInfo>);
// Either form converts to the other implicitly, so that both pass where a location is expected.
static_assert(std::is_convertible_v<SourceInfo, SourceInfoPersistent>);
static_assert(std::is_convertible_v<SourceInfoPersistent, SourceInfo>);
// The truth test is explicit: a location never turns into a number or a flag by accident.
static_assert(std::is_constructible_v<bool, SourceInfoPersistent>);
static_assert(!std::is_convertible_v<SourceInfoPersistent, bool>);

TEST(SourceInfo, ViewsTheCallersTextsAndHasNoLineUnlessGiven) {
    const std::string function = "capturePointer";
    const std::string file = "../bridge/rawinputdriverbase";
    const SourceInfo location{function, file, {}};
    EXPECT_EQ(location.function.data(), function.data());
    EXPECT_EQ(location.file.data(), file.data());
    EXPECT_FALSE(location.line.has_value());
    const SourceInfo copy = location;
    EXPECT_EQ(copy.function.data(), function.data());
    EXPECT_EQ(SourceInfo{}.line, std::nullopt);
    EXPECT_TRUE(SourceInfo{}.function.empty());
}

TEST(SourceInfoPersistent, EmptyLocationWithALineIsFalse) {
    const SourceInfoPersistent location(SourceInfo{"", "", 42});
    EXPECT_FALSE(static_cast<bool>(location));
    EXPECT_FALSE(static_cast<bool>(SourceInfoPersistent()));
    EXPECT_FALSE(static_cast<bool>(SourceInfoPersistent("", "", 7)));
}

TEST(SourceInfoPersistent, FunctionOrFileMakesItTrue) {
    EXPECT_TRUE(static_cast<bool>(SourceInfoPersistent("f", "", std::nullopt)));
    EXPECT_TRUE(static_cast<bool>(SourceInfoPersistent("", "../bridge/pointercapture", std::nullopt)));
    EXPECT_TRUE(static_cast<bool>(SourceInfoPersistent(SourceInfo{"f", "file", 3})));
}

TEST(SourceInfoPersistent, OwnsItsTextsAndViewsThemBack) {
    std::string function = "InputClient";
    std::string file = "../bridge/platform/Linux/rawinputdriver-x11";
    const SourceInfoPersistent location(SourceInfo{function, file, 12});
    function.assign(function.size(), '#');
    file.assign(file.size(), '#');
    const SourceInfo view = location;
    EXPECT_EQ(view.function, "InputClient");
    EXPECT_EQ(view.file, "../bridge/platform/Linux/rawinputdriver-x11");
    EXPECT_EQ(view.line, std::optional<uint32_t>(12));
    EXPECT_EQ(view.function.data(), location.function.data());
    EXPECT_EQ(view.file.data(), location.file.data());
}

TEST(SourceInfoPersistent, BuiltFromThreeParts) {
    const SourceInfoPersistent location("acquire", "../common/include/common/com/comptr", std::nullopt);
    EXPECT_EQ(location.function, "acquire");
    EXPECT_EQ(location.file, "../common/include/common/com/comptr");
    EXPECT_FALSE(location.line.has_value());
}

TEST(SourceInfoPersistent, DefaultIsEmptyWithoutALine) {
    const SourceInfoPersistent location;
    EXPECT_TRUE(location.function.empty());
    EXPECT_TRUE(location.file.empty());
    EXPECT_FALSE(location.line.has_value());
}

TEST(SourceInfoPersistent, KeepsAMissingLineMissing) {
    const SourceInfoPersistent location(SourceInfo{"getButtonState", "../bridge/platform/Linux/mousetool-linux", {}});
    EXPECT_FALSE(location.line.has_value());
    EXPECT_FALSE(static_cast<SourceInfo>(location).line.has_value());
}

TEST(SourceInfoPersistent, CopiesOwnTheirTexts) {
    SourceInfoPersistent original("releasePointerCapture", "../bridge/rawinputdriverbase", 49);
    const SourceInfoPersistent copy = original;
    original.function.assign(original.function.size(), '#');
    original.file.clear();
    original.line = 1;
    const SourceInfo view = copy;
    EXPECT_EQ(view.function, "releasePointerCapture");
    EXPECT_EQ(view.file, "../bridge/rawinputdriverbase");
    EXPECT_EQ(view.line, std::optional<uint32_t>(49));
    EXPECT_NE(view.function.data(), original.function.data());
}

TEST(SourceInfoPersistent, RoundTripThroughTheViewKeepsEveryPart) {
    const SourceInfoPersistent first("toValue", "../common/include/common/v8binding/v8binding", 99);
    const SourceInfoPersistent second(static_cast<SourceInfo>(first));
    EXPECT_EQ(second.function, first.function);
    EXPECT_EQ(second.file, first.file);
    EXPECT_EQ(second.line, first.line);
    EXPECT_NE(second.file.data(), first.file.data());
}

}  // namespace
