// The "fakeInput" test component: pointer capture objects over a fake raw input driver whose reader thread
// emits the records that script stages, so that delivery can be driven without an X server.
#include "bridge/pointercapture.h"

#include <v8.h>

#include <cstdint>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "bridge/component.h"
#include "bridge/pointerevents.h"
#include "common/com/comclass.h"
#include "common/com/comptr.h"
#include "common/meta/classinfo.h"
#include "common/v8binding/v8binding.h"
#include "tests/addon/testkit.h"
#include "tests/bridge/fakerawinputdriver.h"
#include "tests/bridge/threadrefusal.h"

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
                return std::make_tuple(createFieldInfo("readersStarted", &self->readersStarted),
                                       createFieldInfo("readersFinished", &self->readersFinished),
                                       createFieldInfo("breaks", &self->breaks),
                                       createFieldInfo("recordsEmitted", &self->recordsEmitted),
                                       createFieldInfo("reading", &self->reading));
            }});
        }
    };
};

using PointerData = RawInputDriver::PointerData;
using zel_test::FakeRawInputDriver;

/// Hands out capture objects over one fake driver, and makes its reader emit staged records.
class FakeInputComponent final : public Component, private Tracked {
    COMMON_COM_CLASS(FakeInputComponent, common::SingleThreadRC, Component)

    FakeInputComponent(v8::Isolate* isolate, v8::Local<v8::Object> object)
        : m_driver(common::com::createInstance<FakeRawInputDriver, RawInputDriver>()) {
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
        m_staged.push_back(FakeRawInputDriver::Item{data, std::nullopt});
    }

    /// Adds a status (a `CaptureStatus` number) to what the next `emit` hands to the reader.
    void stageStatus(CaptureStatus status) { m_staged.push_back(FakeRawInputDriver::Item{{}, status}); }

    /// Makes the reader thread emit the staged records, all of them before this call returns: the script
    /// thread is blocked meanwhile, so the capture's wake-ups cannot be handled in between. Whether the
    /// reader took every record.
    bool emit() {
        const std::vector<FakeRawInputDriver::Item> records = std::exchange(m_staged, {});
        return fake().emitAndWait(records);
    }

    /// Whether the driver holds a capture.
    bool captured() const { return m_driver->pointerCaptured(); }

    /// While `refuse` holds, no capture's reader thread can be created (see ThreadRefusal); false ends that.
    /// Whether reader threads are refused as asked.
    bool refuseReaderThreads(bool refuse) {
        static std::optional<zel_test::ThreadRefusal> refusal;
        if (!refuse) {
            refusal.reset();
            return true;
        }
        if (!refusal)
            refusal.emplace();
        return refusal->active();
    }

    FakeDriverStats stats() const {
        const zel_test::FakeDriverCounts counts = fake().counts();
        return FakeDriverStats{counts.started, counts.finished, counts.breaks, counts.delivered, counts.reading};
    }

    struct ClassAttributes__ {
        using Class = FakeInputComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{
                    createMethodInfo<&FakeInputComponent::capturePointer>("capturePointer"),
                    createMethodInfo<&FakeInputComponent::stage>("stage"),
                    createMethodInfo<&FakeInputComponent::stageStatus>("stageStatus"),
                    createMethodInfo<&FakeInputComponent::emit>("emit"),
                    createMethodInfo<&FakeInputComponent::captured>("captured"),
                    createMethodInfo<&FakeInputComponent::refuseReaderThreads>("refuseReaderThreads"),
                    createMethodInfo<&FakeInputComponent::stats>("stats")});
        }
    };

private:
    FakeRawInputDriver& fake() const { return *m_driver->as<FakeRawInputDriver*>(); }

    common::ComPtr<RawInputDriver> m_driver;
    std::vector<FakeRawInputDriver::Item> m_staged;
};

ZEL_REGISTER_COMPONENT("fakeInput", FakeInputComponent);

}  // namespace zel::testkit
