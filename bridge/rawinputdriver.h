// The platform-neutral raw pointer input source and the record it emits per input event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

#include "bridge/pointerevents.h"
#include "common/com/comptr.h"
#include "common/com/refcounted.h"
#include "common/utils/functor.h"

namespace zel {

/// A raw pointer input source: one capture callback at a time, fed from a reader thread.
struct RawInputDriver : public virtual IRefCounted {
    /// One input event: a motion part (`MotionEventData` layout) followed by a buttons part
    /// (`ButtonsEventData` layout). Copied by value everywhere.
    struct PointerData {
        Point2 offset;       ///< relative raw motion; (0, 0) when the event is not a motion
        Point2 screenPoint;  ///< pointer position in root-window coordinates at a motion; (0, 0) otherwise
        ButtonEvent left = ButtonEvent::None;
        ButtonEvent middle = ButtonEvent::None;
        ButtonEvent right = ButtonEvent::None;

        /// The leading part as a motion record.
        MotionEventData motion() const { return MotionEventData{offset, screenPoint}; }
        /// The trailing part as a buttons record.
        ButtonsEventData buttons() const { return ButtonsEventData{left, middle, right}; }
    };

    /// The consumer of records; invoked on the reader thread.
    using Callback = common::FunctorClass<true, void, common::TypeList<PointerData>>;
    /// The consumer of a capture's statuses; invoked on the reader thread, in order with the records.
    using StatusCallback = common::FunctorClass<true, void, common::TypeList<CaptureStatus>>;

    /// Takes ownership of `callback` and starts the reader thread; throws when a capture is running.
    virtual void capturePointer(std::unique_ptr<Callback> callback) = 0;
    /// Drops the callbacks, stops and joins the reader thread.
    virtual void releasePointerCapture() = 0;
    /// Whether a callback is installed.
    virtual bool pointerCaptured() const = 0;
    /// The reader thread's body: reads platform input until told to stop.
    virtual void processInput() = 0;
    /// Wakes the reader thread (`threadHandle` is its handle) so that `processInput` returns.
    virtual void breakInputProcessing(uint64_t threadHandle) = 0;
    /// As `capturePointer(callback)`; `statusCallback` (possibly null) learns how the capture goes.
    virtual void capturePointer(std::unique_ptr<Callback> callback, std::unique_ptr<StatusCallback> statusCallback) = 0;

    /// The driver of this platform.
    static common::ComPtr<RawInputDriver> create();
};

namespace rawinputdriver_internal {

using PointerData = RawInputDriver::PointerData;
constexpr size_t kButtonsPart = offsetof(PointerData, left);

static_assert(std::is_standard_layout_v<PointerData> && std::is_standard_layout_v<MotionEventData> &&
              std::is_standard_layout_v<ButtonsEventData>);
static_assert(offsetof(PointerData, offset) == offsetof(MotionEventData, offset));
static_assert(offsetof(PointerData, screenPoint) == offsetof(MotionEventData, screenPoint));
static_assert(kButtonsPart == sizeof(MotionEventData));
static_assert(offsetof(PointerData, left) - kButtonsPart == offsetof(ButtonsEventData, left));
static_assert(offsetof(PointerData, middle) - kButtonsPart == offsetof(ButtonsEventData, middle));
static_assert(offsetof(PointerData, right) - kButtonsPart == offsetof(ButtonsEventData, right));
static_assert(sizeof(PointerData) == sizeof(MotionEventData) + sizeof(ButtonsEventData));

}  // namespace rawinputdriver_internal

}  // namespace zel
