// Value conversion between native and script form, and script functions held as native callables.
#pragma once

#include <v8.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "common/com/comptr.h"
#include "common/meta/classinfo.h"
#include "common/utils/functor.h"
#include "common/v8binding/v8utils.h"

namespace common::js_internal {
inline constexpr const char* kV8MarshalFile = "../common/include/common/v8binding/v8marshal";

template <typename T>
concept ReflectedRecord = meta_internal::HasAttributes<T>::value &&
    !std::is_same_v<decltype(meta::attributeValue<T, meta::ClassFieldsAttribute>()), meta_internal::NoAttribute>;

/// The property key of field `Index` of the field list `Fields` of record `R` (a record's own fields and its fields
/// with those of its bases are numbered apart): an internalized string made once per isolate and kept as an eternal
/// handle, so that converting a record makes no strings. The objects are the same as with a new string per property
/// (V8 internalizes property names anyway), with the properties in the same order. The cache is per thread and
/// remembers its isolate: an isolate runs on one thread at a time, and a host thread runs one isolate in its life
/// (the main thread; one thread per Worker).
template <typename R, typename Fields, size_t Index>
v8::Local<v8::String> fieldKey(v8::Isolate* isolate, std::string_view name) {
    thread_local v8::Isolate* keyIsolate = nullptr;
    thread_local v8::Eternal<v8::String> key;
    if (keyIsolate != isolate) [[unlikely]] {
        v8::Local<v8::String> text;
        if (!v8::String::NewFromUtf8(isolate, name.data(), v8::NewStringType::kInternalized,
                                     static_cast<int>(name.size()))
                 .ToLocal(&text))
            return js::makeStr(isolate, name);
        key.Set(isolate, text);
        keyIsolate = isolate;
    }
    return key.Get(isolate);
}

/// Reads property `key` of `object` in the current context; empty when it is missing or throws.
inline v8::Local<v8::Value> getProperty(v8::Isolate* isolate, v8::Local<v8::Object> object, v8::Local<v8::String> key) {
    v8::Local<v8::Value> value;
    v8::TryCatch tryCatch(isolate);
    if (!object->Get(isolate->GetCurrentContext(), key).ToLocal(&value))
        return {};
    return value;
}

}  // namespace common::js_internal

namespace common::js {

// ---- native to script ----

inline v8::Local<v8::Value> toValue(v8::Isolate* isolate, std::string_view text) { return makeStr(isolate, text); }

inline v8::Local<v8::Value> toValue(v8::Isolate* isolate, bool value) {
    return value ? v8::True(isolate) : v8::False(isolate);
}

/// Integers: 32-bit signed through `NewFromInt32`, wider or unsigned ones as numbers.
template <typename T>
requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) v8::Local<v8::Value> toValue(v8::Isolate* isolate,
                                                                                         T value) {
    if constexpr (std::is_same_v<T, int>)
        return v8::Integer::New(isolate, value);
    else if constexpr (std::is_unsigned_v<T> && sizeof(T) <= 4)
        return v8::Integer::NewFromUnsigned(isolate, value);
    else
        return v8::Number::New(isolate, static_cast<double>(value));
}

template <typename T>
requires std::is_floating_point_v<T> v8::Local<v8::Value> toValue(v8::Isolate* isolate, T value) {
    return v8::Number::New(isolate, static_cast<double>(value));
}

/// Enumerations become their number.
template <typename E>
requires std::is_enum_v<E> v8::Local<v8::Value> toValue(v8::Isolate* isolate, E value) {
    return toValue<int>(isolate, static_cast<int>(value));
}

/// Object references become script wrappers that own one reference (defined with the wrappers).
template <typename T>
v8::Local<v8::Value> toValue(v8::Isolate* isolate, ComPtr<T> value);

/// Reflected records become new plain objects with one property per field, in declaration order.
template <typename R>
requires js_internal::ReflectedRecord<R> v8::Local<v8::Value> toValue(v8::Isolate* isolate, const R& record) {
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    v8::Local<v8::Object> object = v8::Object::New(isolate);
    const auto fields = meta::classFields(record);
    using Fields = std::remove_const_t<decltype(fields)>;
    [&]<size_t... I>(std::index_sequence<I...>) {
        ((void)object
             ->Set(context, js_internal::fieldKey<R, Fields, I>(isolate, std::get<I>(fields).name()),
                   toValue(isolate, std::get<I>(fields).value()))
             .IsJust(),
         ...);
    }
    (std::make_index_sequence<std::tuple_size_v<Fields>>{});
    return object;
}

// ---- script to native ----

/// Enumerations: any value convertible to an integer; otherwise the target keeps its value, silently.
template <typename E>
requires std::is_enum_v<E>
void fromValue(v8::Isolate* isolate, v8::Local<v8::Value> value, E& target) {
    v8::TryCatch tryCatch(isolate);
    v8::Local<v8::Integer> integer;
    if (value->ToInteger(isolate->GetCurrentContext()).ToLocal(&integer))
        target = static_cast<E>(static_cast<std::underlying_type_t<E>>(integer->Value()));
}

/// Integers: as enumerations, by integer conversion.
template <typename T>
requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) void fromValue(v8::Isolate* isolate,
                                                                           v8::Local<v8::Value> value, T& target) {
    v8::TryCatch tryCatch(isolate);
    v8::Local<v8::Integer> integer;
    if (value->ToInteger(isolate->GetCurrentContext()).ToLocal(&integer))
        target = static_cast<T>(integer->Value());
}

inline void fromValue(v8::Isolate* isolate, v8::Local<v8::Value> value, bool& target) {
    target = value->BooleanValue(isolate);
}

inline void fromValue(v8::Isolate* isolate, v8::Local<v8::Value> value, double& target) {
    v8::TryCatch tryCatch(isolate);
    v8::Local<v8::Number> number;
    if (value->ToNumber(isolate->GetCurrentContext()).ToLocal(&number))
        target = number->Value();
}

/// Strings: the UTF-8 text of the value's string conversion; unchanged when the conversion throws.
inline void fromValue(v8::Isolate* isolate, v8::Local<v8::Value> value, std::string& target) {
    v8::TryCatch tryCatch(isolate);
    v8::Local<v8::String> text;
    if (!value->ToString(isolate->GetCurrentContext()).ToLocal(&text))
        return;
    v8::String::Utf8Value utf8(isolate, text);
    target.assign(*utf8 ? *utf8 : "", size_t(utf8.length()));
}

/// Reflected records from plain objects, field by field; fields missing on the object keep their values.
template <typename R>
requires js_internal::ReflectedRecord<R>
void fromValue(v8::Isolate* isolate, v8::Local<v8::Value> value, R& record) {
    if (value.IsEmpty() || !value->IsObject())
        return;
    v8::Local<v8::Object> object = value.As<v8::Object>();
    auto fields = meta::attributeValue<R, meta::ClassFieldsAttribute>().getter(&record);
    using Fields = decltype(fields);
    [&]<size_t... I>(std::index_sequence<I...>) {
        auto readField = [&](auto& field, v8::Local<v8::String> key) {
            v8::Local<v8::Value> property = js_internal::getProperty(isolate, object, key);
            if (!property.IsEmpty() && !property->IsUndefined())
                fromValue(isolate, property, field.value());
        };
        (readField(std::get<I>(fields), js_internal::fieldKey<R, Fields, I>(isolate, std::get<I>(fields).name())), ...);
    }
    (std::make_index_sequence<std::tuple_size_v<Fields>>{});
}

// ---- script functions ----

/// Calls script value `fn` through `caller` with the arguments converted by `toValue`; a script exception is
/// caught and dropped.
template <typename R, typename Caller, typename... Args>
void callFunction(v8::Isolate* isolate, v8::Local<v8::Value> fn, Caller caller, Args... args) {
    static_assert(std::is_void_v<R>, "script callbacks return nothing to native code");
    if (!isolate)
        isolate = v8::Isolate::GetCurrent();
    v8::HandleScope scope(isolate);
    (void)fn->IsFunction();  // used as a function whatever it is: the engine rejects non-functions itself
    constexpr int count = static_cast<int>(sizeof...(Args));
    std::array<v8::Local<v8::Value>, count == 0 ? 1 : count> argv{toValue(isolate, args)...};
    v8::TryCatch tryCatch(isolate);
    caller(fn.As<v8::Function>(), count, argv.data());
}

/// A script function held as a native callable; invoke it only on the script thread, inside a context.
template <typename R, typename... Args>
class FunctionMarshaller final : public FunctorClass<false, R, TypeList<Args...>> {
public:
    FunctionMarshaller(v8::Isolate* isolate, v8::Local<v8::Value> value) {
        if (!value.IsEmpty())
            m_funcRef.Reset(isolate, value);
    }
    ~FunctionMarshaller() override {
        if (!m_funcRef.IsEmpty())
            m_funcRef.Reset();
    }

    R invoke(Args... args) override {
        v8::Isolate* scopeIsolate = v8::Isolate::GetCurrent();
        COMMON_CHECK_AT(js_internal::kV8MarshalFile, 168, scopeIsolate);
        COMMON_CHECK_AT(js_internal::kV8MarshalFile, 170, !m_funcRef.IsEmpty(), "Underlying js object handle is empty");
        v8::HandleScope scope(scopeIsolate);
        v8::Local<v8::Value> fn = m_funcRef.Get(scopeIsolate);
        auto caller = [scopeIsolate](v8::Local<v8::Function> function, int argc, v8::Local<v8::Value>* argv) {
            COMMON_CHECK_AT(js_internal::kV8MarshalFile, 176, scopeIsolate->InContext());
            v8::Local<v8::Context> ctx = scopeIsolate->GetCurrentContext();
            COMMON_CHECK_AT(js_internal::kV8MarshalFile, 180, !ctx.IsEmpty());
            (void)function->CallAsFunction(ctx, v8::Undefined(scopeIsolate), argc, argv).IsEmpty();
        };
        return callFunction<R>(scopeIsolate, fn, caller, std::move(args)...);
    }

private:
    v8::Global<v8::Value> m_funcRef;
};

/// Callables: a function becomes a `FunctionMarshaller`; null or undefined clears the target.
template <typename R, typename... Args>
void fromValue(v8::Isolate* isolate, v8::Local<v8::Value> value,
               std::unique_ptr<FunctorClass<false, R, TypeList<Args...>>>& target) {
    if (value.IsEmpty() || value->IsNullOrUndefined())
        target.reset();
    else
        target = std::make_unique<FunctionMarshaller<R, Args...>>(isolate, value);
}

}  // namespace common::js
