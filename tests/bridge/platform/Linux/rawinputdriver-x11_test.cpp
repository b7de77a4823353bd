// Tests of the X11 raw input driver against the test Xvfb, driven by xinject.
#include "bridge/platform/Linux/rawinputdriver-x11.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/utils/exception.h"
#include "tests/bridge/input_test_support.h"

namespace {

using namespace zel_test;
using zel::ButtonEvent;
using zel::RawInputDriver;

#ifndef ZEL_XINJECT_PATH
#error "ZEL_XINJECT_PATH must name the xinject tool"
#endif

class XRawInputDriverTest : public InjectorTest {
protected:
    void TearDown() override {
        if (driver)
            driver->releasePointerCapture();
        InjectorTest::TearDown();
    }

    /// Captures and waits until the reader receives events: clicks of button 7 (records with every field 0)
    /// until one arrives, then until the stream is quiet; the collector is empty on return.
    void captureAndWaitUntilReading() {
        driver->capturePointer(records.callback());
        bool reading = false;
        for (int attempt = 0; attempt < 500 && !reading; ++attempt) {
            injector->click(7);
            injector->sync();
            reading = records.waitFor(1, 20ms);
        }
        ASSERT_TRUE(reading) << "the reader never received an event";
        records.waitQuiet(150ms);
        for (const auto& record : records.records())
            ASSERT_TRUE(isAllZero(record));
        records.clear();
    }

    common::ComPtr<RawInputDriver> driver = RawInputDriver::create();
    RecordCollector records;
};

TEST_F(XRawInputDriverTest, CreateGivesADriverWithoutCapture) {
    ASSERT_TRUE(driver);
    EXPECT_NE(driver->as<zel::XRawInputDriver*>(), nullptr);
    EXPECT_FALSE(driver->pointerCaptured());
}

TEST_F(XRawInputDriverTest, RelativeMoveGivesOneRecordWithOffsetAndPosition) {
    LogCollector log;
    captureAndWaitUntilReading();
    const zel::Point2 before = injector->position();

    injector->move(5, 3);
    injector->sync();
    ASSERT_TRUE(records.waitFor(1));
    records.waitQuiet(150ms);
    const zel::Point2 after = injector->position();

    const auto got = records.records();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(xy(got[0].offset), xy({5, 3}));
    EXPECT_EQ(xy(got[0].screenPoint), xy(after));
    EXPECT_EQ(got[0].left, ButtonEvent::None);
    EXPECT_EQ(got[0].middle, ButtonEvent::None);
    EXPECT_EQ(got[0].right, ButtonEvent::None);
    EXPECT_EQ(after.x - before.x, 5);  // the pointer is away from the screen edges
    EXPECT_EQ(after.y - before.y, 3);
    for (const auto& id : records.threads())
        EXPECT_NE(id, std::this_thread::get_id());

    driver->releasePointerCapture();
    EXPECT_EQ(log.countAtLevel(3), 0u);
    EXPECT_EQ(log.count("Pointer capture released"), 1u);
}

TEST_F(XRawInputDriverTest, ButtonsOneToThreeGiveLeftMiddleRight) {
    captureAndWaitUntilReading();
    for (int button = 1; button <= 3; ++button) {
        records.clear();
        injector->press(button);
        injector->sync();
        ASSERT_TRUE(records.waitFor(1)) << button;
        injector->release(button);
        injector->sync();
        ASSERT_TRUE(records.waitFor(2)) << button;
        records.waitQuiet(100ms);

        const auto got = records.records();
        ASSERT_EQ(got.size(), 2u) << button;
        const ButtonEvent PointerData::*field = button == 1   ? &PointerData::left
                                                : button == 2 ? &PointerData::middle
                                                              : &PointerData::right;
        EXPECT_EQ(got[0].*field, ButtonEvent::Pressed) << button;
        EXPECT_EQ(got[1].*field, ButtonEvent::Released) << button;
        for (const auto& record : got) {
            EXPECT_EQ(xy(record.offset), xy({0, 0}));
            EXPECT_EQ(xy(record.screenPoint), xy({0, 0}));
            const int changed = (record.left != ButtonEvent::None) + (record.middle != ButtonEvent::None) +
                                (record.right != ButtonEvent::None);
            EXPECT_EQ(changed, 1) << button;
        }
    }
}

TEST_F(XRawInputDriverTest, WheelButtonGivesRecordsWithEveryFieldZero) {
    captureAndWaitUntilReading();
    injector->press(4);
    injector->release(4);
    injector->sync();
    ASSERT_TRUE(records.waitFor(2));
    records.waitQuiet(150ms);
    const auto got = records.records();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_TRUE(isAllZero(got[0]));
    EXPECT_TRUE(isAllZero(got[1]));
}

TEST_F(XRawInputDriverTest, TenThousandMovesArriveInOrderNoneLost) {
    captureAndWaitUntilReading();
    constexpr int kCount = 10000;
    // Each pair of moves returns to where it started; the lengths vary so that a lost record shows.
    auto expected = [](int i) {
        const int k = 1 + (i / 2) % 13;
        const int m = 1 + (i / 2) % 7;
        return (i % 2 == 0) ? zel::Point2{k, -m} : zel::Point2{-k, m};
    };
    std::vector<std::string> commands;
    commands.reserve(kCount);
    for (int i = 0; i < kCount; ++i) {
        const zel::Point2 step = expected(i);
        commands.push_back("move " + std::to_string(step.x) + " " + std::to_string(step.y));
    }
    injector->sendAll(commands);
    injector->sync();
    ASSERT_TRUE(records.waitFor(kCount, 60s)) << "got " << records.size();
    records.waitQuiet(200ms);

    const auto got = records.records();
    ASSERT_EQ(got.size(), static_cast<size_t>(kCount));
    for (int i = 0; i < kCount; ++i) {
        ASSERT_EQ(xy(got[i].offset), xy(expected(i))) << "record " << i;
        ASSERT_EQ(got[i].left, ButtonEvent::None);
    }
}

TEST_F(XRawInputDriverTest, ReleaseRightAfterCaptureDoesNotHang) {
    LogCollector log;
    Watchdog watchdog("capture and immediate release", 60s);
    constexpr int kRounds = 100;
    for (int round = 0; round < kRounds; ++round) {
        driver->capturePointer(records.callback());
        driver->releasePointerCapture();
        EXPECT_FALSE(driver->pointerCaptured());
    }
    EXPECT_EQ(log.count("Pointer capture released"), static_cast<size_t>(kRounds));
    EXPECT_EQ(log.countAtLevel(3), 0u);
    // And the driver still reads afterwards.
    captureAndWaitUntilReading();
}

TEST_F(XRawInputDriverTest, ThousandRapidCaptureReleaseCyclesDoNotHang) {
    Watchdog watchdog("1000 capture/release cycles", 300s);
    for (int round = 0; round < 1000; ++round) {
        driver->capturePointer(records.callback());
        // Vary the moment of the release: before the reader starts, while it connects, once it reads.
        if (round % 4 == 0)
            std::this_thread::sleep_for(std::chrono::microseconds(500 * ((round / 4) % 8)));
        driver->releasePointerCapture();
    }
    EXPECT_FALSE(driver->pointerCaptured());
}

TEST_F(XRawInputDriverTest, ReleaseOfAReadingCaptureStopsTheReader) {
    Watchdog watchdog("release of a reading capture", 60s);
    for (int round = 0; round < 5; ++round) {
        captureAndWaitUntilReading();
        driver->releasePointerCapture();
        EXPECT_FALSE(driver->pointerCaptured());
        injector->move(1, 1);
        injector->sync();
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(records.size(), 0u);  // nothing after the release
    }
}

TEST_F(XRawInputDriverTest, SecondCaptureThrowsWhileReading) {
    captureAndWaitUntilReading();
    RecordCollector other;
    EXPECT_THROW(driver->capturePointer(other.callback()), common::Exception);
    injector->move(2, -2);
    injector->sync();
    ASSERT_TRUE(records.waitFor(1));
    EXPECT_EQ(xy(records.records()[0].offset), xy({2, -2}));
    EXPECT_EQ(other.size(), 0u);
}

TEST_F(XRawInputDriverTest, DroppingTheLastReferenceStopsTheReader) {
    Watchdog watchdog("destruction of a reading driver", 60s);
    captureAndWaitUntilReading();
    driver = nullptr;
}

}  // namespace
