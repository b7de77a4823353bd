// The "callbacks" test component: keeps script callbacks as native callables and invokes them from native code.
#include <v8.h>

#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "bridge/component.h"
#include "bridge/pointerevents.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"
#include "common/utils/functor.h"
#include "common/v8binding/v8binding.h"
#include "tests/addon/testkit.h"

namespace zel::testkit {
namespace {

int32_t g_callbacksDestroyed = 0;

// Owns a callback received from script and counts its destruction (replacement, clearing, component end).
template <typename... Args>
class CountedCallback final : public common::FunctorClass<false, void, common::TypeList<Args...>> {
public:
    explicit CountedCallback(std::unique_ptr<common::FunctorClass<false, void, common::TypeList<Args...>>> inner)
        : m_inner(std::move(inner)) {}
    ~CountedCallback() override { ++g_callbacksDestroyed; }
    void invoke(Args... args) override { m_inner->invoke(std::move(args)...); }

private:
    std::unique_ptr<common::FunctorClass<false, void, common::TypeList<Args...>>> m_inner;
};

template <typename... Args>
std::unique_ptr<common::FunctorClass<false, void, common::TypeList<Args...>>> counted(
    std::unique_ptr<common::FunctorClass<false, void, common::TypeList<Args...>>> callback) {
    if (!callback)
        return nullptr;
    return std::make_unique<CountedCallback<Args...>>(std::move(callback));
}

}  // namespace

/// Callbacks with the argument lists the system uses: (text, number), buttons record, motion record.
class CallbacksComponent final : public Component, private Tracked {
    COMMON_COM_CLASS(CallbacksComponent, common::SingleThreadRC, Component)

    using TextCallback = common::FunctorClass<false, void, common::TypeList<std::string, int>>;
    using ButtonsCallback = common::FunctorClass<false, void, common::TypeList<zel::ButtonsEventData>>;
    using MotionCallback = common::FunctorClass<false, void, common::TypeList<zel::MotionEventData>>;

    CallbacksComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        common::js::bindToObject<CallbacksComponent>(isolate, object);
    }

    /// Replaces the callback (null or undefined clears it); the previous one is destroyed.
    void setTextCallback(std::unique_ptr<TextCallback> callback) { m_text = counted(std::move(callback)); }
    void setButtonsCallback(std::unique_ptr<ButtonsCallback> callback) { m_buttons = counted(std::move(callback)); }
    void setMotionCallback(std::unique_ptr<MotionCallback> callback) { m_motion = counted(std::move(callback)); }

    bool hasTextCallback() const { return m_text != nullptr; }
    bool hasButtonsCallback() const { return m_buttons != nullptr; }
    bool hasMotionCallback() const { return m_motion != nullptr; }

    /// Invokes the text callback `times` times with (text, number); returns how many invocations returned
    /// to native code, or -1 when no callback is set.
    int32_t fireText(std::string text, int32_t number, int32_t times) {
        if (!m_text)
            return -1;
        int32_t returned = 0;
        for (int32_t i = 0; i < times; ++i) {
            m_text->invoke(text, number);
            ++returned;
        }
        return returned;
    }
    /// Invokes the buttons callback once; -1 when none is set, else 1 once it returned.
    int32_t fireButtons(int32_t left, int32_t middle, int32_t right) {
        if (!m_buttons)
            return -1;
        m_buttons->invoke(zel::ButtonsEventData{static_cast<zel::ButtonEvent>(left),
                                                static_cast<zel::ButtonEvent>(middle),
                                                static_cast<zel::ButtonEvent>(right)});
        return 1;
    }
    /// Invokes the motion callback once; -1 when none is set, else 1 once it returned.
    int32_t fireMotion(int32_t offsetX, int32_t offsetY, int32_t screenX, int32_t screenY) {
        if (!m_motion)
            return -1;
        m_motion->invoke(zel::MotionEventData{{offsetX, offsetY}, {screenX, screenY}});
        return 1;
    }

    /// How many callbacks received from script have been destroyed so far (process-wide).
    static int32_t callbacksDestroyed() { return g_callbacksDestroyed; }

    struct ClassAttributes__ {
        using Class = CallbacksComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{
                    createMethodInfo<&CallbacksComponent::setTextCallback>("setTextCallback"),
                    createMethodInfo<&CallbacksComponent::setButtonsCallback>("setButtonsCallback"),
                    createMethodInfo<&CallbacksComponent::setMotionCallback>("setMotionCallback"),
                    createMethodInfo<&CallbacksComponent::hasTextCallback>("hasTextCallback"),
                    createMethodInfo<&CallbacksComponent::hasButtonsCallback>("hasButtonsCallback"),
                    createMethodInfo<&CallbacksComponent::hasMotionCallback>("hasMotionCallback"),
                    createMethodInfo<&CallbacksComponent::fireText>("fireText"),
                    createMethodInfo<&CallbacksComponent::fireButtons>("fireButtons"),
                    createMethodInfo<&CallbacksComponent::fireMotion>("fireMotion"),
                    createMethodInfo<&CallbacksComponent::callbacksDestroyed>("callbacksDestroyed")});
        }
    };

private:
    std::unique_ptr<TextCallback> m_text;
    std::unique_ptr<ButtonsCallback> m_buttons;
    std::unique_ptr<MotionCallback> m_motion;
};

ZEL_REGISTER_COMPONENT("callbacks", CallbacksComponent);

}  // namespace zel::testkit
