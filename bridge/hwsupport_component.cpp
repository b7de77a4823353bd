// The "hardware" component.
#include "bridge/hwsupport_component.h"

#include "bridge/platform/Linux/mousetool-linux.h"
#include "common/utils/exception.h"
#include "common/v8binding/v8binding.h"

namespace zel {

HwComponentComponent::HwComponentComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
    common::js::bindToObject<HwComponentComponent>(isolate, object);
}

common::ComPtr<PointerCapture> HwComponentComponent::capturePointer() {
    if (!m_driver) {
        m_driver = RawInputDriver::create();
        if (!m_driver)
            COMMON_THROW_AT("../bridge/hwsupport_component", 54, "Fail to create raw input driver");
    }
    return PointerCapture::create(m_driver);
}

bool HwComponentComponent::getButtonState(MouseButton button) const { return MouseTool::getButtonState(button); }

ZEL_REGISTER_COMPONENT("hardware", HwComponentComponent);

}  // namespace zel
