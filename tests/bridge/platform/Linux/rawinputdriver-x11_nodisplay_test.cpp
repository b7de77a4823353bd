// The X11 driver and the button state query in a process without an X display. A program of its own: the
// button query keeps the connection it opened first for the life of the process.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "bridge/platform/Linux/mousetool-linux.h"
#include "bridge/rawinputdriver.h"
#include "tests/bridge/input_test_support.h"

namespace {

using namespace zel_test;
using zel::MouseButton;
using zel::RawInputDriver;

class NoDisplayTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::unsetenv("DISPLAY"); }
};

TEST_F(NoDisplayTest, CaptureDeliversNothingAndLogsTheError) {
    LogCollector log;
    RecordCollector records;
    std::atomic<int> noDisplay{0};
    auto driver = RawInputDriver::create();
    driver->capturePointer(records.callback(),
                           RawInputDriver::StatusCallback::makeUnique([&](zel::CaptureStatus status) {
                               noDisplay += status == zel::CaptureStatus::NoDisplay ? 1 : 100;
                           }));

    const auto error = log.waitFor("Fail to open X display");
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->level, 3);
    EXPECT_EQ(error->function, "processInput");
    EXPECT_EQ(error->file, "../bridge/platform/Linux/rawinputdriver-x11");
    EXPECT_TRUE(driver->pointerCaptured());  // the reader ended by itself; the capture stays until released
    for (int wait = 0; wait < 1000 && noDisplay.load() == 0; ++wait)  // told right after the log
        std::this_thread::sleep_for(10ms);

    Watchdog watchdog("release without a display", 30s);
    driver->releasePointerCapture();
    EXPECT_FALSE(driver->pointerCaptured());
    EXPECT_EQ(records.size(), 0u);
    EXPECT_EQ(log.count("Pointer capture released"), 1u);
    EXPECT_EQ(log.countAtLevel(3), 1u);
    EXPECT_EQ(noDisplay.load(), 1) << "one status, NoDisplay";
}

TEST_F(NoDisplayTest, CaptureCanBeRepeated) {
    LogCollector log;
    RecordCollector records;
    auto driver = RawInputDriver::create();
    Watchdog watchdog("repeated captures without a display", 60s);
    for (int round = 0; round < 20; ++round) {
        driver->capturePointer(records.callback());
        driver->releasePointerCapture();
    }
    EXPECT_EQ(records.size(), 0u);
    EXPECT_EQ(log.count("Pointer capture released"), 20u);
}

TEST_F(NoDisplayTest, ButtonStateWarnsOnceAndReportsFalse) {
    LogCollector log;
    EXPECT_FALSE(zel::MouseTool::getButtonState(MouseButton::Left));
    EXPECT_FALSE(zel::MouseTool::getButtonState(MouseButton::Right));
    EXPECT_FALSE(zel::MouseTool::getButtonState(static_cast<MouseButton>(7)));

    // The display stays missing: one warning for it, not one per call.
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, 2);
    EXPECT_EQ(entries[0].function, "getButtonState");
    EXPECT_EQ(entries[0].file, "../bridge/platform/Linux/mousetool-linux");
    EXPECT_EQ(entries[0].message, "No X display to query the pointer");
}

}  // namespace
