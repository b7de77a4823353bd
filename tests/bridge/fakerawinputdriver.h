// A raw input driver without a platform behind it, for the tests of the driver base and of pointer capture.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "bridge/rawinputdriverbase.h"
#include "common/com/comclass.h"

namespace zel_test {

/// What a `FakeRawInputDriver` has done so far.
struct FakeDriverCounts {
    int32_t started = 0;        ///< reader threads that entered `processInput`
    int32_t finished = 0;       ///< reader threads that left it
    int32_t breaks = 0;         ///< calls of `breakInputProcessing`
    int32_t delivered = 0;      ///< records handed to the base (passed to the callback or dropped there)
    bool reading = false;       ///< a reader thread is in its loop now
    uint64_t readerHandle = 0;  ///< the thread handle of the last reader
    uint64_t breakHandle = 0;   ///< the thread handle that the last break named
};

/// A platform driver whose reader thread hands the records (and statuses) queued by `emit` to the base, in order,
/// until the base asks it to stop. On its way out the reader hands over one more record, offset (99, 99): the base
/// has dropped the callback by then and must discard it.
class FakeRawInputDriver final : public zel::RawInputDriverBase {
    COMMON_COM_CLASS(FakeRawInputDriver, common::ConcurrentRC, zel::RawInputDriverBase);

public:
    using PointerData = zel::RawInputDriver::PointerData;
    /// A record, or a status when `status` is set.
    struct Item {
        PointerData data;
        std::optional<zel::CaptureStatus> status;
    };

    /// The longest time any wait of this driver takes before it gives up.
    static constexpr std::chrono::seconds kTimeout{10};

    void processInput() override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_counts.readerHandle = static_cast<uint64_t>(pthread_self());
        ++m_counts.started;
        m_changed.notify_all();
        if (m_endAtOnce) {
            ++m_counts.finished;
            m_changed.notify_all();
            return;
        }
        m_counts.reading = true;
        for (;;) {
            m_changed.wait(lock, [&] { return !m_pending.empty() || m_stop; });
            while (!m_pending.empty()) {
                const Item item = m_pending.front();
                m_pending.pop_front();
                lock.unlock();
                if (item.status)
                    notifyStatus(*item.status);
                else
                    notifyPointerEvent(item.data);
                lock.lock();
                ++m_counts.delivered;
                m_changed.notify_all();
            }
            if (m_stop)
                break;
        }
        m_counts.reading = false;
        lock.unlock();
        PointerData trailing;
        trailing.offset = {99, 99};
        notifyPointerEvent(trailing);
        lock.lock();
        m_stop = false;
        ++m_counts.finished;
        m_changed.notify_all();
    }

    void breakInputProcessing(uint64_t threadHandle) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        m_counts.breakHandle = threadHandle;
        ++m_counts.breaks;
        m_changed.notify_all();
    }

    /// Queues a record for the reader, which need not run yet.
    void emit(const PointerData& data) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pending.push_back(Item{data, std::nullopt});
        m_changed.notify_all();
    }

    /// Queues a status for the reader, in order with the records.
    void emitStatus(zel::CaptureStatus status) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pending.push_back(Item{{}, status});
        m_changed.notify_all();
    }

    /// Hands `records` (and statuses) to the running reader and waits until it has passed every one of them to the
    /// base. False when no reader runs, or when it stopped or took too long before it was done.
    bool emitAndWait(const std::vector<Item>& records) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_counts.reading)
            return false;
        const int32_t target = m_counts.delivered + static_cast<int32_t>(records.size());
        m_pending.insert(m_pending.end(), records.begin(), records.end());
        m_changed.notify_all();
        m_changed.wait_for(lock, kTimeout, [&] { return m_counts.delivered >= target || !m_counts.reading; });
        return m_counts.delivered >= target;
    }

    /// Waits until the readers have handed `count` records to the base in all.
    bool waitDelivered(int32_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kTimeout, [&] { return m_counts.delivered >= count; });
    }

    /// Waits until `count` readers have returned in all.
    bool waitFinished(int32_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kTimeout, [&] { return m_counts.finished >= count; });
    }

    /// Hands a record to the base on the calling thread.
    void notifyNow(const PointerData& data) { notifyPointerEvent(data); }
    /// Hands a status to the base on the calling thread.
    void notifyStatusNow(zel::CaptureStatus status) { notifyStatus(status); }

    /// Makes every later reader return at once, reading nothing.
    void endAtOnce() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_endAtOnce = true;
    }

    FakeDriverCounts counts() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_counts;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Item> m_pending;
    bool m_stop = false;
    bool m_endAtOnce = false;
    FakeDriverCounts m_counts;
};

}  // namespace zel_test
