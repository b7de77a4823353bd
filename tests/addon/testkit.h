// Pieces shared by the components of the test addon.
#pragma once

#include <v8.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <tuple>

#include "common/meta/classinfo.h"

namespace zel::testkit {

/// Constructions and destructions of every test component, over all contexts and threads.
struct ComponentCounts {
    int32_t constructed = 0;
    int32_t destroyed = 0;

    struct ClassAttributes__ {
        using Class = ComponentCounts;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                return std::make_tuple(common::meta::createFieldInfo("constructed", &self->constructed),
                                       common::meta::createFieldInfo("destroyed", &self->destroyed));
            }});
        }
    };
};

inline std::atomic<int32_t> g_componentsConstructed{0};
inline std::atomic<int32_t> g_componentsDestroyed{0};

/// Base of every test component: counts its construction and destruction.
class Tracked {
protected:
    Tracked() { ++g_componentsConstructed; }
    ~Tracked() { ++g_componentsDestroyed; }

public:
    Tracked(const Tracked&) = delete;
    Tracked& operator=(const Tracked&) = delete;
};

/// Asked by the recording failure handler at the moment of a failure; answers -1 when empty.
std::function<int32_t()>& failureProbe();

/// Source path that the test components report in their log entries and checks.
inline constexpr const char* kTestkitFile = "../tests/addon/testkit";

/// Installs a plain V8 function (not a bound method) as property `name` of `object`, with `data` attached.
inline void setRawFunction(v8::Isolate* isolate, v8::Local<v8::Object> object, const char* name,
                           v8::FunctionCallback callback, v8::Local<v8::Value> data) {
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    v8::Local<v8::String> key = v8::String::NewFromUtf8(isolate, name).ToLocalChecked();
    v8::Local<v8::Function> function = v8::Function::New(context, callback, data).ToLocalChecked();
    function->SetName(key);
    (void)object->Set(context, key, function).IsJust();
}

}  // namespace zel::testkit
