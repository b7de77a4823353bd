// The "binding" test component: bound methods over every kind of argument and result the binding converts,
// methods that throw, and receivers and names that the binding must refuse.
#include <v8.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>

#include "bridge/component.h"
#include "bridge/pointerevents.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"
#include "common/utils/exception.h"
#include "common/v8binding/v8binding.h"
#include "tests/addon/testkit.h"

namespace zel::testkit {

/// A class that no test component implements: its bound method is put on receivers that cannot answer it.
class Stranger {
public:
    int32_t greet(int32_t value) { return value; }
};

/// Bound methods with ints, strings, bools, doubles, enumerations and records.
class BindingComponent final : public Component, private Tracked {
    COMMON_COM_CLASS(BindingComponent, common::SingleThreadRC, Component)

    BindingComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        common::js::bindToObject<BindingComponent>(isolate, object);
        v8::Local<v8::External> self = v8::External::New(isolate, static_cast<IRefCounted*>(this));
        setRawFunction(isolate, object, "foreignReceiver", &BindingComponent::foreignReceiver, self);
        setRawFunction(isolate, object, "bindWithEmptyName", &BindingComponent::bindWithEmptyName, self);
    }

    /// The text back, made into a script string by `makeStr`.
    static std::string makeStr(std::string text) { return text; }

    /// One argument; counts the calls that reach it.
    int32_t takeOne(int32_t value) {
        ++m_takeOneCalls;
        return value;
    }
    int32_t takeOneCalls() const { return m_takeOneCalls; }

    /// Several arguments of different kinds, rendered "a|b|c|d".
    static std::string takeSeveral(int32_t number, std::string text, bool flag, double real) {
        std::ostringstream out;
        out << number << '|' << text << '|' << (flag ? "true" : "false") << '|' << real;
        return out.str();
    }

    /// The number a `MouseButton` argument arrived as.
    static int32_t buttonNumber(zel::MouseButton button) { return static_cast<int32_t>(button); }
    /// A `ButtonEvent` result.
    static zel::ButtonEvent buttonEvent(int32_t value) { return static_cast<zel::ButtonEvent>(value); }

    static zel::Point2 point(int32_t x, int32_t y) { return zel::Point2{x, y}; }
    static zel::MotionEventData motion(int32_t offsetX, int32_t offsetY, int32_t screenX, int32_t screenY) {
        return zel::MotionEventData{{offsetX, offsetY}, {screenX, screenY}};
    }
    static zel::ButtonsEventData buttons(int32_t left, int32_t middle, int32_t right) {
        return zel::ButtonsEventData{static_cast<zel::ButtonEvent>(left), static_cast<zel::ButtonEvent>(middle),
                                     static_cast<zel::ButtonEvent>(right)};
    }
    /// Records read from script objects, returned unchanged.
    static zel::Point2 mirrorPoint(zel::Point2 value) { return value; }
    static zel::MotionEventData mirrorMotion(zel::MotionEventData value) { return value; }

    /// Returns nothing; counts its calls.
    void doNothing() { ++m_doNothingCalls; }
    int32_t doNothingCalls() const { return m_doNothingCalls; }

    /// Throws a `std::runtime_error` with `text`.
    void throwStdException(std::string text) { throw std::runtime_error(text); }
    /// Throws the library's exception with `text`.
    void throwLibraryException(std::string text) { COMMON_THROW_AT(kTestkitFile, 77, "{0}", text); }
    /// Throws an int: neither form of bound function can turn it into a script error.
    void throwInt() { throw 42; }
    static void throwIntFree() { throw 42; }

    struct ClassAttributes__ {
        using Class = BindingComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{
                    createMethodInfo<&BindingComponent::makeStr>("makeStr"),
                    createMethodInfo<&BindingComponent::takeOne>("takeOne"),
                    createMethodInfo<&BindingComponent::takeOneCalls>("takeOneCalls"),
                    createMethodInfo<&BindingComponent::takeSeveral>("takeSeveral"),
                    createMethodInfo<&BindingComponent::buttonNumber>("buttonNumber"),
                    createMethodInfo<&BindingComponent::buttonEvent>("buttonEvent"),
                    createMethodInfo<&BindingComponent::point>("point"),
                    createMethodInfo<&BindingComponent::motion>("motion"),
                    createMethodInfo<&BindingComponent::buttons>("buttons"),
                    createMethodInfo<&BindingComponent::mirrorPoint>("mirrorPoint"),
                    createMethodInfo<&BindingComponent::mirrorMotion>("mirrorMotion"),
                    createMethodInfo<&BindingComponent::doNothing>("doNothing"),
                    createMethodInfo<&BindingComponent::doNothingCalls>("doNothingCalls"),
                    createMethodInfo<&BindingComponent::throwStdException>("throwStdException"),
                    createMethodInfo<&BindingComponent::throwLibraryException>("throwLibraryException"),
                    createMethodInfo<&BindingComponent::throwInt>("throwInt"),
                    createMethodInfo<&BindingComponent::throwIntFree>("throwIntFree")});
        }
    };

private:
    // A plain object whose internal field 0 holds this component, carrying `Stranger::greet` as "greet":
    // the component does not offer `Stranger`, so a call must fail the interface check.
    static void foreignReceiver(const v8::FunctionCallbackInfo<v8::Value>& info) {
        v8::Isolate* isolate = info.GetIsolate();
        v8::EscapableHandleScope scope(isolate);
        v8::Local<v8::ObjectTemplate> objectTemplate = v8::ObjectTemplate::New(isolate);
        objectTemplate->SetInternalFieldCount(1);
        v8::Local<v8::Object> object = objectTemplate->NewInstance(isolate->GetCurrentContext()).ToLocalChecked();
        object->SetInternalField(0, info.Data());
        common::js::setFunctionProperty<&Stranger::greet>(isolate, object, "greet");
        info.GetReturnValue().Set(scope.Escape(object));
    }

    // Binds `doNothing` under an empty name onto a fresh object and returns the object. A failure handler
    // that records sees, through the failure probe, how many properties the object had at the failure.
    static void bindWithEmptyName(const v8::FunctionCallbackInfo<v8::Value>& info) {
        v8::Isolate* isolate = info.GetIsolate();
        v8::EscapableHandleScope scope(isolate);
        v8::Local<v8::Context> context = isolate->GetCurrentContext();
        v8::Local<v8::Object> object = v8::Object::New(isolate);
        failureProbe() = [context, object]() -> int32_t {
            v8::Local<v8::Array> names;
            if (!object->GetOwnPropertyNames(context).ToLocal(&names))
                return -1;
            return static_cast<int32_t>(names->Length());
        };
        common::js::setFunctionProperty<&BindingComponent::doNothing>(isolate, object, "");
        failureProbe() = nullptr;
        info.GetReturnValue().Set(scope.Escape(object));
    }

    int32_t m_takeOneCalls = 0;
    int32_t m_doNothingCalls = 0;
};

ZEL_REGISTER_COMPONENT("binding", BindingComponent);

}  // namespace zel::testkit
