// The module entry: the component registry, the live components and "shutdown".
#include <node.h>
#include <v8.h>

#include <exception>
#include <list>
#include <set>
#include <string>
#include <utility>

#include "bridge/component.h"
#include "common/com/comptr.h"
#include "common/diagnostics/log.h"
#include "common/utils/exception.h"
#include "common/v8binding/v8binding.h"

namespace zel {
namespace {

struct RegistryEntry {
    std::string name;
    ComponentFactory factory;
};

std::list<RegistryEntry>& registry() {
    static std::list<RegistryEntry> entries;
    return entries;
}

// A component the module keeps alive, with the script object that stands for it.
struct LiveComponent {
    common::ComPtr<Component> component;
    v8::Isolate* isolate;
    v8::Global<v8::Object> object;
};

std::list<LiveComponent>& liveComponents() {
    // The log slot must outlive this list: a component still alive at process exit (after process.exit(), or an
    // exit() from another thread) is destroyed with the list, and the diagnostics component's destructor empties
    // the slot. Statics are destroyed in reverse order of construction, so the slot is created first.
    (void)common::diagnostics::LogInternal::instance();
    static std::list<LiveComponent> components;
    return components;
}

// Marks the script objects of this thread's components as released, so that their methods throw
// instead of reaching freed memory; objects of other threads' isolates cannot be touched from here.
void markReleased(std::list<LiveComponent>& components) {
    v8::Isolate* current = v8::Isolate::TryGetCurrent();
    if (!current)
        return;
    v8::HandleScope scope(current);
    for (LiveComponent& live : components) {
        if (live.isolate == current && !live.object.IsEmpty())
            common::js_internal::releaseInternalField(current, live.object.Get(current), 0);
    }
}

// Isolates whose environment already has the cleanup hook below: the host refuses a second registration of
// the same hook, and the entry runs again for every further load in the same environment.
std::set<v8::Isolate*>& hookedIsolates() {
    static std::set<v8::Isolate*> isolates;
    return isolates;
}

// Releases the components of one isolate when its environment is torn down (process exit, Worker end).
void releaseIsolateComponents(void* arg) {
    auto* isolate = static_cast<v8::Isolate*>(arg);
    hookedIsolates().erase(isolate);
    std::list<LiveComponent> released;
    auto& components = liveComponents();
    for (auto it = components.begin(); it != components.end();) {
        auto next = std::next(it);
        if (it->isolate == isolate)
            released.splice(released.end(), components, it);
        it = next;
    }
    released.clear();
}

// Builds one script object per registered component and hangs it on `exports`; then adds "shutdown".
void registerComponents(v8::Isolate* isolate, v8::Local<v8::Object> exports, v8::Local<v8::Context> context) {
    v8::Local<v8::ObjectTemplate> objectTemplate = v8::ObjectTemplate::New(isolate);
    objectTemplate->SetInternalFieldCount(1);
    for (RegistryEntry entry : registry()) {
        v8::Local<v8::Object> object = objectTemplate->NewInstance(context).ToLocalChecked();
        common::ComPtr<Component> component = entry.factory(isolate, object);
        object->SetInternalField(0, v8::External::New(isolate, component->as<IRefCounted*>()));
        (void)exports->Set(context, common::js::makeStr(isolate, entry.name), object).IsJust();
        liveComponents().push_back(LiveComponent{std::move(component), isolate, v8::Global<v8::Object>(isolate, object)});
    }
    common::js::setFunctionProperty<&shutdownNodeModule>(isolate, exports, "shutdown");
}

}  // namespace

ComponentRegistration::ComponentRegistration(std::string name, ComponentFactory factory) {
    registry().push_back(RegistryEntry{std::move(name), factory});
}

void shutdownNodeModule() {
    auto& components = liveComponents();
    markReleased(components);
    components.clear();
}

}  // namespace zel

extern "C" NODE_MODULE_EXPORT void NODE_MODULE_INITIALIZER(v8::Local<v8::Object> exports, v8::Local<v8::Value>,
                                                           v8::Local<v8::Context> context) {
    v8::Isolate* isolate = v8::Isolate::GetCurrent();
    v8::HandleScope scope(isolate);
    if (zel::hookedIsolates().insert(isolate).second)
        node::AddEnvironmentCleanupHook(isolate, &zel::releaseIsolateComponents, isolate);
    // A failing component leaves the earlier ones exported and alive; the failure reaches script as an
    // Error instead of unwinding into the host.
    try {
        zel::registerComponents(isolate, exports, context);
    } catch (const std::exception& e) {
        isolate->ThrowException(v8::Exception::Error(common::js::makeStr(isolate, e.what())));
    } catch (...) {
        isolate->ThrowException(v8::Exception::Error(common::js::makeStr(isolate, "Unexpected exception type")));
    }
}

namespace {

void registerContextForwarder(v8::Local<v8::Object> exports, v8::Local<v8::Value> module,
                              v8::Local<v8::Context> context, void*) {
    NODE_MODULE_INITIALIZER(exports, module, context);
}

node::node_module g_moduleRecord = {
    NODE_MODULE_VERSION,  // nm_version
    0,                    // nm_flags
    nullptr,              // nm_dso_handle
    __FILE__,             // nm_filename
    nullptr,              // nm_register_func
    &registerContextForwarder,
    "NODE_GYP_MODULE_NAME",  // nm_modname
    nullptr,                 // nm_priv
    nullptr,                 // nm_link
};

[[gnu::constructor]] void registerModuleRecord() { node_module_register(&g_moduleRecord); }

}  // namespace
