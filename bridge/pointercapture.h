// The script-visible pointer capture: raw motion and button records delivered to script callbacks.
#pragma once

#include <memory>
#include <tuple>

#include "bridge/pointerevents.h"
#include "bridge/rawinputdriver.h"
#include "common/com/comptr.h"
#include "common/com/refcounted.h"
#include "common/meta/classinfo.h"
#include "common/utils/functor.h"

namespace zel {

/// Streams the records of a raw input driver to script: set the callbacks (once each), then start and stop.
struct PointerCapture : public virtual IRefCounted {
    using ButtonsCallback = common::FunctorClass<false, void, common::TypeList<ButtonsEventData>>;
    using MotionCallback = common::FunctorClass<false, void, common::TypeList<MotionEventData>>;
    using StatusCallback = common::FunctorClass<false, void, common::TypeList<StatusEventData>>;

    /// Called with each record in which a button changed.
    virtual void setButtonsEventCallback(std::unique_ptr<ButtonsCallback> callback) = 0;
    /// Called with each record of non-zero motion.
    virtual void setMotionEventCallback(std::unique_ptr<MotionCallback> callback) = 0;
    /// Starts capturing unless the driver already captures (for this or another capture object).
    virtual void startCapturing() = 0;
    /// Stops the driver's capture, whoever started it.
    virtual void stopCapturing() = 0;
    /// Called with each status of this object's captures, in order with the records: live, the Xwayland notice,
    /// could not start, ended. Set once; a second call throws. A status that reaches the script thread after this
    /// object has stopped its capture, or started a new one, is dropped.
    virtual void setStatusCallback(std::unique_ptr<StatusCallback> callback) = 0;

    /// A new capture object over `driver`, created on the script thread inside a script call.
    static common::ComPtr<PointerCapture> create(common::ComPtr<RawInputDriver> driver);

    struct ClassAttributes__ {
        using Class = PointerCapture;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(common::meta::ClassMethods{
                createMethodInfo<&PointerCapture::setButtonsEventCallback>("setButtonsEventCallback"),
                createMethodInfo<&PointerCapture::setMotionEventCallback>("setMotionEventCallback"),
                createMethodInfo<&PointerCapture::startCapturing>("startCapturing"),
                createMethodInfo<&PointerCapture::stopCapturing>("stopCapturing"),
                createMethodInfo<&PointerCapture::setStatusCallback>("setStatusCallback")});
        }
    };
};

}  // namespace zel
