// The "hardware" component: mouse button state and pointer capture.
#pragma once

#include <v8.h>

#include <tuple>

#include "bridge/component.h"
#include "bridge/pointercapture.h"
#include "bridge/pointerevents.h"
#include "bridge/rawinputdriver.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"

namespace zel {

/// Hands out pointer captures sharing one raw input driver, and answers button-state queries.
class HwComponentComponent final : public Component {
    COMMON_COM_CLASS(HwComponentComponent, common::SingleThreadRC, Component)

    HwComponentComponent(v8::Isolate* isolate, v8::Local<v8::Object> object);

    /// A new capture object; the driver is created on the first call and shared by every capture.
    common::ComPtr<PointerCapture> capturePointer();
    /// Whether `button` is held now.
    bool getButtonState(MouseButton button) const;

    struct ClassAttributes__ {
        using Class = HwComponentComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{createMethodInfo<&HwComponentComponent::capturePointer>("capturePointer"),
                                           createMethodInfo<&HwComponentComponent::getButtonState>("getButtonState")});
        }
    };

private:
    common::ComPtr<RawInputDriver> m_driver;
};

}  // namespace zel
