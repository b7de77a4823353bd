// Script strings and native objects behind script objects' internal fields.
#pragma once

#include <v8.h>

#include <string_view>

#include "common/diagnostics/runtimecheck.h"

namespace common::js_internal {
inline constexpr const char* kV8UtilsFile = "../common/include/common/v8binding/v8utils";
}

namespace common::js {

/// A script string holding the UTF-8 `text` (the current isolate when `isolate` is null).
inline v8::Local<v8::String> makeStr(v8::Isolate* isolate, std::string_view text) {
    if (!isolate)
        isolate = v8::Isolate::GetCurrent();
    COMMON_CHECK_AT(js_internal::kV8UtilsFile, 18, isolate);
    if (text.empty())
        return v8::String::Empty(isolate);
    v8::MaybeLocal<v8::String> maybeJsStr =
        v8::String::NewFromUtf8(isolate, text.data(), v8::NewStringType::kNormal, static_cast<int>(text.size()));
    v8::Local<v8::String> jsStr;
    COMMON_CHECK_AT(js_internal::kV8UtilsFile, 29, maybeJsStr.ToLocal(&jsStr) && !jsStr.IsEmpty(),
                    "Fail to allocate js string: ({0})", text);
    return jsStr;
}

}  // namespace common::js

namespace common::js_internal {

/// The native pointer stored as a `v8::External` in internal field `index` of `obj`; null when the object has no
/// such field or the field holds no `v8::External` (a released component, a foreign receiver).
template <typename T>
T* getInternalFieldAs(v8::Local<v8::Object> obj, int index) {
    COMMON_CHECK_AT(kV8UtilsFile, __LINE__, !obj.IsEmpty());
    if (obj.IsEmpty() || index >= obj->InternalFieldCount())
        return nullptr;
    v8::Local<v8::Value> field = obj->GetInternalField(index).As<v8::Value>();
    if (field.IsEmpty() || !field->IsExternal())
        return nullptr;
    return static_cast<T*>(field.As<v8::External>()->Value());
}

/// Marks internal field `index` of `obj` as released: bound methods then throw instead of reaching native code.
inline void releaseInternalField(v8::Isolate* isolate, v8::Local<v8::Object> obj, int index) {
    if (index < obj->InternalFieldCount())
        obj->SetInternalField(index, v8::Null(isolate));
}

/// Whether internal field `index` of `obj` was marked released.
inline bool internalFieldReleased(v8::Local<v8::Object> obj, int index) {
    if (index >= obj->InternalFieldCount())
        return false;
    v8::Local<v8::Value> field = obj->GetInternalField(index).As<v8::Value>();
    return !field.IsEmpty() && field->IsNull();
}

}  // namespace common::js_internal
