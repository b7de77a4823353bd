// Tests of the raw input driver base over a fake platform driver whose reader emits records on demand.
#include "bridge/rawinputdriverbase.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/com/comclass.h"
#include "common/utils/exception.h"
#include "fakerawinputdriver.h"
#include "input_test_support.h"
#include "threadrefusal.h"

namespace {

using namespace zel_test;
using zel::RawInputDriver;

PointerData motion(int x, int y) {
    PointerData data;
    data.offset = {x, y};
    data.screenPoint = {x * 10, y * 10};
    return data;
}

class RawInputDriverBaseTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (driver)
            driver->releasePointerCapture();
    }

    FakeRawInputDriver& fake() { return *driver->as<FakeRawInputDriver*>(); }

    common::ComPtr<RawInputDriver> driver = common::com::createInstance<FakeRawInputDriver, RawInputDriver>();
    RecordCollector records;
};

TEST_F(RawInputDriverBaseTest, ReleaseOnAnIdleDriverDoesNothingAndLogsNothing) {
    LogCollector log;
    EXPECT_FALSE(driver->pointerCaptured());
    driver->releasePointerCapture();
    driver->releasePointerCapture();
    EXPECT_FALSE(driver->pointerCaptured());
    EXPECT_EQ(fake().counts().breaks, 0);
    EXPECT_EQ(fake().counts().started, 0);
    EXPECT_TRUE(log.entries().empty());
}

TEST_F(RawInputDriverBaseTest, CaptureRunsTheReaderOnItsOwnThreadAndDeliversRecords) {
    driver->capturePointer(records.callback());
    EXPECT_TRUE(driver->pointerCaptured());
    fake().emit(motion(1, 2));
    fake().emit(motion(3, 4));
    ASSERT_TRUE(records.waitFor(2));

    const auto got = records.records();
    EXPECT_EQ(xy(got[0].offset), xy({1, 2}));
    EXPECT_EQ(xy(got[0].screenPoint), xy({10, 20}));
    EXPECT_EQ(xy(got[1].offset), xy({3, 4}));
    for (const auto& id : records.threads())
        EXPECT_NE(id, std::this_thread::get_id());
}

TEST_F(RawInputDriverBaseTest, ReleaseBreaksJoinsAndLogsOnce) {
    LogCollector log;
    driver->capturePointer(records.callback());
    fake().emit(motion(1, 1));
    ASSERT_TRUE(fake().waitDelivered(1));

    driver->releasePointerCapture();
    EXPECT_FALSE(driver->pointerCaptured());
    EXPECT_EQ(fake().counts().breaks, 1);
    EXPECT_EQ(fake().counts().finished, 1);  // joined: the reader has returned
    EXPECT_EQ(fake().counts().breakHandle, fake().counts().readerHandle);

    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, 0);
    EXPECT_EQ(entries[0].message, "Pointer capture released");
    EXPECT_EQ(entries[0].function, "releasePointerCapture");
    EXPECT_EQ(entries[0].file, "../bridge/rawinputdriverbase");
    EXPECT_EQ(entries[0].line, std::optional<uint32_t>(49));

    driver->releasePointerCapture();  // idle again: nothing more
    EXPECT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(fake().counts().breaks, 1);
}

TEST_F(RawInputDriverBaseTest, SecondCaptureThrowsAndTheFirstCallbackKeepsReceiving) {
    driver->capturePointer(records.callback());

    RecordCollector second;
    auto sentinel = std::make_shared<int>(0);
    auto secondCallback =
        RawInputDriver::Callback::makeUnique([&second, sentinel](PointerData data) { second.add(data); });
    bool thrown = false;
    try {
        driver->capturePointer(std::move(secondCallback));
    } catch (const common::Exception& e) {
        thrown = true;
        EXPECT_STREQ(e.message(), "Pointer already captured.");
        EXPECT_STREQ(e.what(), "Pointer already captured.");
        EXPECT_EQ(e.source().function, "capturePointer");
        EXPECT_EQ(e.source().file, "../bridge/rawinputdriverbase");
        EXPECT_EQ(e.source().line, std::optional<uint32_t>(19));
        EXPECT_EQ(e.flags(), 0u);
    }
    EXPECT_TRUE(thrown);
    EXPECT_EQ(sentinel.use_count(), 1);  // the refused callback was destroyed
    EXPECT_TRUE(driver->pointerCaptured());

    fake().emit(motion(7, 8));
    ASSERT_TRUE(records.waitFor(1));
    ASSERT_TRUE(fake().waitDelivered(1));
    EXPECT_EQ(xy(records.records()[0].offset), xy({7, 8}));
    EXPECT_EQ(second.size(), 0u);
    EXPECT_EQ(fake().counts().started, 1);  // no second reader
}

TEST_F(RawInputDriverBaseTest, RecordsAfterTheCallbackWasDroppedAreDiscarded) {
    driver->capturePointer(records.callback());
    fake().emit(motion(1, 0));
    ASSERT_TRUE(records.waitFor(1));

    // The fake reader hands over one more record on its way out, after the callback was dropped.
    driver->releasePointerCapture();
    ASSERT_EQ(fake().counts().finished, 1);
    fake().notifyNow(motion(5, 5));

    const auto got = records.records();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(xy(got[0].offset), xy({1, 0}));
}

TEST_F(RawInputDriverBaseTest, RecordsKeepTheirOrder) {
    driver->capturePointer(records.callback());
    constexpr int kCount = 2000;
    for (int i = 0; i < kCount; ++i)
        fake().emit(motion(i, -i));
    ASSERT_TRUE(records.waitFor(kCount));
    const auto got = records.records();
    ASSERT_EQ(got.size(), static_cast<size_t>(kCount));
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(xy(got[i].offset), xy({i, -i})) << i;
}

TEST_F(RawInputDriverBaseTest, CaptureCanStartAgainAfterRelease) {
    for (int round = 0; round < 50; ++round) {
        driver->capturePointer(records.callback());
        fake().emit(motion(round, 0));
        ASSERT_TRUE(records.waitFor(static_cast<size_t>(round + 1)));
        driver->releasePointerCapture();
        EXPECT_FALSE(driver->pointerCaptured());
    }
    EXPECT_EQ(fake().counts().started, 50);
    EXPECT_EQ(fake().counts().finished, 50);
    EXPECT_EQ(records.size(), 50u);
}

TEST_F(RawInputDriverBaseTest, ReaderThatEndedByItselfStaysCapturedUntilReleased) {
    LogCollector log;
    fake().endAtOnce();
    driver->capturePointer(records.callback());
    ASSERT_TRUE(fake().waitFinished(1));
    EXPECT_TRUE(driver->pointerCaptured());
    EXPECT_THROW(driver->capturePointer(records.callback()), common::Exception);

    driver->releasePointerCapture();
    EXPECT_FALSE(driver->pointerCaptured());
    EXPECT_EQ(log.count("Pointer capture released"), 1u);
    EXPECT_EQ(records.size(), 0u);
}

TEST_F(RawInputDriverBaseTest, ReleaseWaitsForARunningDelivery) {
    std::mutex gateMutex;
    std::condition_variable gateChanged;
    bool entered = false;
    bool open = false;
    std::atomic<bool> deliveryDone{false};
    driver->capturePointer(RawInputDriver::Callback::makeUnique([&](PointerData) {
        std::unique_lock<std::mutex> lock(gateMutex);
        entered = true;
        gateChanged.notify_all();
        gateChanged.wait(lock, [&] { return open; });
        deliveryDone = true;
    }));
    fake().emit(motion(1, 1));
    {
        std::unique_lock<std::mutex> lock(gateMutex);
        ASSERT_TRUE(gateChanged.wait_for(lock, 10s, [&] { return entered; }));
    }

    std::atomic<bool> released{false};
    bool doneWhenReleased = false;
    std::thread releaser([&] {
        driver->releasePointerCapture();
        doneWhenReleased = deliveryDone.load();
        released = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(released.load());  // blocked on the driver lock held by the delivery
    {
        std::lock_guard<std::mutex> lock(gateMutex);
        open = true;
    }
    gateChanged.notify_all();
    releaser.join();
    EXPECT_TRUE(released.load());
    EXPECT_TRUE(doneWhenReleased);
    EXPECT_FALSE(driver->pointerCaptured());
}

TEST_F(RawInputDriverBaseTest, FailureToStartTheReaderLeavesTheCaptureInertAndLogsAnError) {
    LogCollector log;
    std::vector<zel::CaptureStatus> statuses;  // told on this thread, inside capturePointer
    {
        ThreadRefusal refusal;
        if (!refusal.active())
            GTEST_SKIP() << "cannot raise the stack limit";
        driver->capturePointer(records.callback(), RawInputDriver::StatusCallback::makeUnique(
                                                       [&](zel::CaptureStatus status) { statuses.push_back(status); }));
    }

    const auto entries = log.entries();
    if (driver->pointerCaptured())
        GTEST_SKIP() << "the reader started anyway";
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, 3);
    EXPECT_EQ(entries[0].function, "capturePointer");
    EXPECT_EQ(entries[0].file, "../bridge/rawinputdriverbase");
    EXPECT_EQ(fake().counts().started, 0);
    EXPECT_EQ(statuses, std::vector<zel::CaptureStatus>{zel::CaptureStatus::Failed});

    driver->releasePointerCapture();  // nothing to stop: no break, no log
    EXPECT_EQ(fake().counts().breaks, 0);
    EXPECT_EQ(log.entries().size(), 1u);

    driver->capturePointer(records.callback());  // a later capture works
    fake().emit(motion(1, 1));
    EXPECT_TRUE(records.waitFor(1));
}

TEST_F(RawInputDriverBaseTest, StatusesReachTheStatusCallbackInOrderWithTheRecordsUntilRelease) {
    // Both callbacks append to one list, on the reader thread, inside the driver's lock.
    std::vector<std::string> told;
    driver->capturePointer(
        RawInputDriver::Callback::makeUnique([&](PointerData data) { told.push_back(std::to_string(data.offset.x)); }),
        RawInputDriver::StatusCallback::makeUnique(
            [&](zel::CaptureStatus status) { told.push_back(zel::statusEvent(status).code.data()); }));
    fake().emit(motion(1, 0));
    fake().emitStatus(zel::CaptureStatus::Live);
    fake().emit(motion(2, 0));
    fake().emitStatus(zel::CaptureStatus::Lost);
    ASSERT_TRUE(fake().waitDelivered(4));
    driver->releasePointerCapture();
    fake().notifyStatusNow(zel::CaptureStatus::Live);  // no capture: dropped
    EXPECT_EQ(told, (std::vector<std::string>{"1", "live", "2", "lost"}));
}

TEST_F(RawInputDriverBaseTest, PointerCapturedFollowsTheCallback) {
    EXPECT_FALSE(driver->pointerCaptured());
    driver->capturePointer(records.callback());
    EXPECT_TRUE(driver->pointerCaptured());
    driver->releasePointerCapture();
    EXPECT_FALSE(driver->pointerCaptured());
}

}  // namespace
