// Binding of native functions and reflected methods as script functions, and script wrappers that own
// native objects and release them when collected.
#pragma once

#include <v8.h>

#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "common/com/comptr.h"
#include "common/com/refcounted.h"
#include "common/diagnostics/log.h"
#include "common/meta/classinfo.h"
#include "common/utils/exception.h"
#include "common/v8binding/v8marshal.h"
#include "common/v8binding/v8utils.h"

namespace common::js_internal {

inline constexpr const char* kV8BindingFile = "../common/include/common/v8binding/v8binding";

/// Signature of a bound function: its class (for members), result and decayed argument tuple.
template <typename F>
struct FunctionTraits;
template <typename R, typename... Args>
struct FunctionTraits<R (*)(Args...)> {
    using Result = R;
    using Arguments = std::tuple<std::decay_t<Args>...>;
};
template <typename R, typename... Args>
struct FunctionTraits<R (*)(Args...) noexcept> : FunctionTraits<R (*)(Args...)> {};
template <typename R, typename C, typename... Args>
struct FunctionTraits<R (C::*)(Args...)> : FunctionTraits<R (*)(Args...)> {
    using Class = C;
};
template <typename R, typename C, typename... Args>
struct FunctionTraits<R (C::*)(Args...) const> : FunctionTraits<R (C::*)(Args...)> {};
template <typename R, typename C, typename... Args>
struct FunctionTraits<R (C::*)(Args...) noexcept> : FunctionTraits<R (C::*)(Args...)> {};
template <typename R, typename C, typename... Args>
struct FunctionTraits<R (C::*)(Args...) const noexcept> : FunctionTraits<R (C::*)(Args...)> {};

/// Fills the tuple of decayed arguments from the call; throws when the call has too few.
template <typename... Args>
void initializeArguments(const v8::FunctionCallbackInfo<v8::Value>& info, std::tuple<Args...>& arguments) {
    constexpr uint64_t expected = sizeof...(Args);
    auto convert = [&]<size_t I>(std::integral_constant<size_t, I>) {
        if (static_cast<int>(I) >= info.Length())
            COMMON_THROW_AT(kV8BindingFile, 53, "Expected ({0}) arguments, but only ({1})", expected,
                            static_cast<int32_t>(info.Length()));
        js::fromValue(info.GetIsolate(), info[static_cast<int>(I)], std::get<I>(arguments));
    };
    [&]<size_t... I>(std::index_sequence<I...>) { (convert(std::integral_constant<size_t, I>{}), ...); }
    (std::index_sequence_for<Args...>{});
}

/// Converts the result (if any) of a call of `call` into the call's return value.
template <typename R, typename Call>
void callAndReturn(const v8::FunctionCallbackInfo<v8::Value>& info, Call&& call) {
    if constexpr (std::is_void_v<R>) {
        call();
    } else {
        info.GetReturnValue().Set(js::toValue(info.GetIsolate(), call()));
    }
}

/// The script callback of a bound free function.
template <auto F>
void freeFunctionCallback(const v8::FunctionCallbackInfo<v8::Value>& info) {
    using Traits = FunctionTraits<decltype(F)>;
    v8::Isolate* isolate = info.GetIsolate();
    v8::HandleScope scope(isolate);
    try {
        typename Traits::Arguments arguments;
        initializeArguments(info, arguments);
        callAndReturn<typename Traits::Result>(info, [&] { return std::apply(F, std::move(arguments)); });
    } catch (const std::exception& e) {
        isolate->ThrowException(v8::Exception::Error(js::makeStr(isolate, e.what())));
    } catch (...) {
        diagnostics_internal::checkFailed({"operator()", kV8BindingFile, 140}, "RUNTIME_FAILURE",
                                          "Unexpected exception type");
    }
}

/// The script callback of a bound member function: the receiver's internal field 0 names the native object.
template <auto F>
void memberFunctionCallback(const v8::FunctionCallbackInfo<v8::Value>& info) {
    using Traits = FunctionTraits<decltype(F)>;
    using Class = typename Traits::Class;
    v8::Isolate* isolate = info.GetIsolate();
    v8::HandleScope scope(isolate);
    try {
        typename Traits::Arguments arguments;
        initializeArguments(info, arguments);
        v8::Local<v8::Object> receiver = info.This();
        IRefCounted* rc = getInternalFieldAs<IRefCounted>(receiver, 0);
        if (!rc && internalFieldReleased(receiver, 0))
            COMMON_THROW_AT(kV8BindingFile, __LINE__, "Native object of ({0}) has been released", typeid(Class));
        COMMON_CHECK_IN("operator()", kV8BindingFile, 172, rc);
        Class* instance = rc ? rc->template as<Class*>() : nullptr;
        COMMON_CHECK_IN("operator()", kV8BindingFile, 175, instance,
                        "Expected API ({0}) does not provided while attempt to calling native method ()",
                        typeid(Class));
        callAndReturn<typename Traits::Result>(info, [&] {
            return std::apply([instance](auto&&... args) { return (instance->*F)(std::move(args)...); },
                              std::move(arguments));
        });
    } catch (const std::exception& e) {
        isolate->ThrowException(v8::Exception::Error(js::makeStr(isolate, e.what())));
    } catch (...) {
        diagnostics_internal::checkFailed({"operator()", kV8BindingFile, 197}, "RUNTIME_FAILURE",
                                          "Unexpected exception type");
    }
}

}  // namespace common::js_internal

namespace common::js {

/// A new function template (nothing cached) whose callback calls `F`: a free function or a member function.
template <auto F>
v8::Local<v8::FunctionTemplate> getFunctionTemplate(v8::Isolate* isolate) {
    if constexpr (std::is_member_function_pointer_v<decltype(F)>)
        return v8::FunctionTemplate::New(isolate, &js_internal::memberFunctionCallback<F>);
    else
        return v8::FunctionTemplate::New(isolate, &js_internal::freeFunctionCallback<F>);
}

/// Installs `F` as the function property `name` of `obj`.
template <auto F>
void setFunctionProperty(v8::Isolate* isolate, v8::Local<v8::Object> obj, std::string_view name) {
    COMMON_CHECK_AT(js_internal::kV8BindingFile, 208, isolate);
    COMMON_CHECK_AT(js_internal::kV8BindingFile, 209, !obj.IsEmpty());
    COMMON_CHECK_AT(js_internal::kV8BindingFile, 210, !name.empty());
    v8::HandleScope scope(isolate);
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    v8::Local<v8::String> key = makeStr(isolate, name);
    v8::Local<v8::Function> function = getFunctionTemplate<F>(isolate)->GetFunction(context).ToLocalChecked();
    function->SetName(key);
    (void)obj->Set(context, key, function).IsJust();
}

/// Installs `F` as the function-template property `name` of the object template `obj`.
template <auto F>
void setFunctionProperty(v8::Isolate* isolate, v8::Local<v8::ObjectTemplate> obj, std::string_view name) {
    COMMON_CHECK_AT(js_internal::kV8BindingFile, 227, isolate);
    COMMON_CHECK_AT(js_internal::kV8BindingFile, 228, !obj.IsEmpty());
    COMMON_CHECK_AT(js_internal::kV8BindingFile, 229, !name.empty());
    v8::HandleScope scope(isolate);
    v8::Local<v8::String> key =
        v8::String::NewFromUtf8(isolate, name.data(), v8::NewStringType::kNormal, static_cast<int>(name.size()))
            .ToLocalChecked();
    obj->Set(key, getFunctionTemplate<F>(isolate), v8::None);
}

/// Binds every reflected method of `C` (inherited ones first) onto `obj`, under its reflected name.
template <typename C>
void bindToObject(v8::Isolate* isolate, v8::Local<v8::Object> obj) {
    std::apply(
        [&](auto... methods) {
            (setFunctionProperty<decltype(methods)::method>(isolate, obj, methods.name().data()), ...);
        },
        meta::classMethods<C>());
}

/// A new object template (nothing cached) with every reflected method of `T` as a function-template property.
template <typename T>
v8::Local<v8::ObjectTemplate> getObjectTemplate(v8::Isolate* isolate) {
    v8::Local<v8::ObjectTemplate> tmpl = v8::ObjectTemplate::New(isolate);
    std::apply(
        [&](auto... methods) { (setFunctionProperty<decltype(methods)::method>(isolate, tmpl, methods.name()), ...); },
        meta::classMethods<T>());
    return tmpl;
}

/// Base of native classes whose script wrapper releases them when the engine collects it.
class V8WeakReferenceHolder {
public:
    V8WeakReferenceHolder() = default;
    virtual ~V8WeakReferenceHolder() = default;
    V8WeakReferenceHolder(const V8WeakReferenceHolder&) = delete;
    V8WeakReferenceHolder& operator=(const V8WeakReferenceHolder&) = delete;

    /// Starts weak tracking of the wrapper `obj`, whose internal field 0 carries this object's reference.
    void trackWeakReference(v8::Isolate* isolate, v8::Local<v8::Object> obj);
    /// True while a weak callback of this binding runs on the calling thread.
    static bool inDestructor();

private:
    static void weakCallback(const v8::WeakCallbackInfo<IRefCounted>& info);

    std::optional<v8::Persistent<v8::Object>> m_weakRef;
};

}  // namespace common::js

namespace common::js_internal {

/// The wrapper template of `T` (its methods, one internal field), made once per isolate and kept. V8 keeps every
/// function it instantiates from an API function template for the life of the context, so a new template per
/// wrapper would keep a new set of method functions (some 4 KiB) per wrapped object for ever. The cache is per
/// thread and remembers its isolate: an isolate runs on one thread at a time, and a host thread runs one isolate
/// in its life (the main thread; one thread per Worker).
template <typename T>
v8::Local<v8::ObjectTemplate> wrapperTemplate(v8::Isolate* isolate) {
    thread_local v8::Isolate* templateIsolate = nullptr;
    thread_local v8::Eternal<v8::ObjectTemplate> cached;
    if (templateIsolate != isolate) [[unlikely]] {
        v8::Local<v8::ObjectTemplate> tmpl = js::getObjectTemplate<T>(isolate);
        tmpl->SetInternalFieldCount(1);
        cached.Set(isolate, tmpl);
        templateIsolate = isolate;
    }
    return cached.Get(isolate);
}

}  // namespace common::js_internal

namespace common::js {

/// Wraps an object reference for script: the wrapper takes over the reference (undefined for a null one).
template <typename T>
v8::Local<v8::Value> toValue(v8::Isolate* isolate, ComPtr<T> value) {
    COMMON_CHECK_AT(js_internal::kV8BindingFile, 290, isolate);
    if (!value) {
        COMMON_LOG_AT(diagnostics::Log::Level::Warning, js_internal::kV8BindingFile, 293,
                      "Return null instance where expected ComPtr<{0}>", typeid(T));
        return v8::Undefined(isolate);
    }
    v8::Local<v8::ObjectTemplate> tmpl = js_internal::wrapperTemplate<T>(isolate);
    v8::Local<v8::Object> object;
    if (!tmpl->NewInstance(isolate->GetCurrentContext()).ToLocal(&object)) {
        COMMON_LOG_AT(diagnostics::Log::Level::Warning, js_internal::kV8BindingFile, 321,
                      "Fail to create object-wrapper for types instance:  ComPtr<{0}>", typeid(T));
        return v8::Undefined(isolate);
    }
    T* raw = value.giveup();
    IRefCounted* instancePtr = static_cast<IAnything&>(*raw).template as<IRefCounted*>();
    COMMON_CHECK_AT(js_internal::kV8BindingFile, 305, instancePtr, "Class <{0}> must expose IRefCounted API",
                    typeid(T));
    object->SetInternalField(0, v8::External::New(isolate, instancePtr));
    if (auto* holder = instancePtr ? instancePtr->template as<V8WeakReferenceHolder*>() : nullptr)
        holder->trackWeakReference(isolate, object);
    else
        COMMON_LOG_AT(diagnostics::Log::Level::Warning, js_internal::kV8BindingFile, 315,
                      "({0}) does not expose js::V8WeakReferenceHolder api, so underlying native object will never "
                      "been destroyed",
                      typeid(T));
    return object;
}

}  // namespace common::js
