// The "fakeInput" test component: pointer capture objects over a fake raw input driver whose reader thread
// emits the records that script stages, so that delivery can be driven without an X server.
#include <v8.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <tuple>
#include <utility>
#include <vector>

#include "bridge/component.h"
#include "bridge/pointercapture.h"
#include "bridge/pointerevents.h"
#include "bridge/rawinputdriverbase.h"
#include "common/com/comclass.h"
#include "common/com/comptr.h"
#include "common/meta/classinfo.h"
#include "common/v8binding/v8binding.h"
#include "tests/addon/testkit.h"

namespace zel::testkit {

/// A record as script stages it: the fields of a driver record, by name.
struct FakeRecord {
    Point2 offset;
    Point2 screenPoint;
    ButtonEvent left = ButtonEvent::None;
    ButtonEvent middle = ButtonEvent::None;
    ButtonEvent right = ButtonEvent::None;

    struct ClassAttributes__ {
        using Class = FakeRecord;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                using common::meta::createFieldInfo;
                return std::make_tuple(createFieldInfo("offset", &self->offset),
                                       createFieldInfo("screenPoint", &self->screenPoint),
                                       createFieldInfo("left", &self->left), createFieldInfo("middle", &self->middle),
                                       createFieldInfo("right", &self->right));
            }});
        }
    };
};

/// What the fake driver has done so far.
struct FakeDriverStats {
    int32_t readersStarted = 0;
    int32_t readersFinished = 0;
    int32_t breaks = 0;
    int32_t recordsEmitted = 0;  ///< records handed to the base (delivered to a capture or dropped there)
    bool reading = false;        ///< a reader thread is inside its loop now

    struct ClassAttributes__ {
        using Class = FakeDriverStats;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                using common::meta::createFieldInfo;
                return std::make_tuple(
                    createFieldInfo("readersStarted", &self->readersStarted),
                    createFieldInfo("readersFinished", &self->readersFinished), createFieldInfo("breaks", &self->breaks),
                    createFieldInfo("recordsEmitted", &self->recordsEmitted), createFieldInfo("reading", &self->reading));
            }});
        }
    };
};

namespace {

using PointerData = RawInputDriver::PointerData;

/// Longest time `emit` waits for the reader before it gives up.
constexpr auto kEmitTimeout = std::chrono::seconds(10);

/// A platform driver whose reader thread waits for records to emit or for the stop request.
class FakeDriver final : public RawInputDriverBase {
    COMMON_COM_CLASS(FakeDriver, common::ConcurrentRC, RawInputDriverBase);

public:
    void processInput() override {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_stats.readersStarted;
        m_stats.reading = true;
        m_changed.notify_all();
        for (;;) {
            m_changed.wait(lock, [&] { return !m_pending.empty() || m_stop; });
            if (m_stop)
                break;
            while (!m_pending.empty()) {
                const PointerData record = m_pending.front();
                m_pending.pop_front();
                lock.unlock();
                notifyPointerEvent(record);
                lock.lock();
                ++m_stats.recordsEmitted;
            }
            m_changed.notify_all();
        }
        m_stop = false;
        m_pending.clear();
        m_stats.reading = false;
        ++m_stats.readersFinished;
        m_changed.notify_all();
    }

    void breakInputProcessing(uint64_t /*threadHandle*/) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        ++m_stats.breaks;
        m_changed.notify_all();
    }

    /// Hands `records` to the reader and waits until it has passed every one of them to the base, that is,
    /// into the capture's queue. False when no reader runs or it did not finish in time.
    bool emit(const std::vector<PointerData>& records) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_stats.reading)
            return false;
        const int32_t target = m_stats.recordsEmitted + static_cast<int32_t>(records.size());
        m_pending.insert(m_pending.end(), records.begin(), records.end());
        m_changed.notify_all();
        return m_changed.wait_for(lock, kEmitTimeout,
                                  [&] { return m_stats.recordsEmitted >= target || !m_stats.reading; }) &&
               m_stats.recordsEmitted >= target;
    }

    FakeDriverStats stats() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stats;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<PointerData> m_pending;
    bool m_stop = false;
    FakeDriverStats m_stats;
};

}  // namespace

/// Hands out capture objects over one fake driver, and makes its reader emit staged records.
class FakeInputComponent final : public Component, private Tracked {
    COMMON_COM_CLASS(FakeInputComponent, common::SingleThreadRC, Component)

    FakeInputComponent(v8::Isolate* isolate, v8::Local<v8::Object> object)
        : m_driver(common::com::createInstance<FakeDriver, RawInputDriver>()) {
        common::js::bindToObject<FakeInputComponent>(isolate, object);
    }

    ~FakeInputComponent() override {
        // Capture objects still alive keep the driver; none may be left reading when it goes.
        m_driver->releasePointerCapture();
    }

    /// A new capture object over the fake driver.
    common::ComPtr<PointerCapture> capturePointer() { return PointerCapture::create(m_driver); }

    /// Adds `record` to the records the next `emit` hands to the reader.
    void stage(FakeRecord record) {
        PointerData data;
        data.offset = record.offset;
        data.screenPoint = record.screenPoint;
        data.left = record.left;
        data.middle = record.middle;
        data.right = record.right;
        m_staged.push_back(data);
    }

    /// Makes the reader thread emit the staged records, all of them before this call returns: the script
    /// thread is blocked meanwhile, so the capture's wake-ups cannot be handled in between. Whether the
    /// reader took every record.
    bool emit() {
        const std::vector<PointerData> records = std::exchange(m_staged, {});
        return fake().emit(records);
    }

    /// Whether the driver holds a capture.
    bool captured() const { return m_driver->pointerCaptured(); }

    FakeDriverStats stats() const { return fake().stats(); }

    struct ClassAttributes__ {
        using Class = FakeInputComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{createMethodInfo<&FakeInputComponent::capturePointer>("capturePointer"),
                                           createMethodInfo<&FakeInputComponent::stage>("stage"),
                                           createMethodInfo<&FakeInputComponent::emit>("emit"),
                                           createMethodInfo<&FakeInputComponent::captured>("captured"),
                                           createMethodInfo<&FakeInputComponent::stats>("stats")});
        }
    };

private:
    FakeDriver& fake() const { return *m_driver->as<FakeDriver*>(); }

    common::ComPtr<RawInputDriver> m_driver;
    std::vector<PointerData> m_staged;
};

ZEL_REGISTER_COMPONENT("fakeInput", FakeInputComponent);

}  // namespace zel::testkit
