// The module entry: the component registry, the live components and "shutdown".
#include <node.h>
#include <uv.h>
#include <v8.h>

#include <exception>
#include <list>
#include <mutex>
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

// A component the module keeps alive, with the script object that stands for it (a handle of `isolate`, which
// only that isolate's thread may touch).
struct LiveComponent {
    common::ComPtr<Component> component;
    v8::Isolate* isolate;
    v8::Global<v8::Object> object;
};

// An environment (the main thread's, or a Worker's) that loaded the module: "shutdown" called on another thread
// asks it, through `shutdownRequest` on its own event loop, to release its components itself.
struct Environment {
    v8::Isolate* isolate;
    uv_async_t* shutdownRequest;
    std::list<LiveComponent> pendingRelease;  ///< components a "shutdown" elsewhere left to this environment
};

// The module's process-wide state, shared by the main thread and Workers: every access holds `lock`, and no V8
// handle is touched under it (entries only move between lists).
struct ModuleState {
    std::mutex lock;
    std::list<LiveComponent> components;
    std::list<Environment> environments;
};

ModuleState& moduleState() {
    // Never destroyed: an exit() from any thread would otherwise release components of isolates whose threads may
    // still run script, or after the engine has begun its teardown (see ExitRelease).
    static ModuleState* const state = new ModuleState();
    return *state;
}

// Moves the components of `isolate` (live, and left to it by a "shutdown" elsewhere) out of the shared state.
std::list<LiveComponent> takeComponents(ModuleState& state, v8::Isolate* isolate) {
    std::list<LiveComponent> taken;
    for (auto it = state.components.begin(); it != state.components.end();) {
        auto next = std::next(it);
        if (it->isolate == isolate)
            taken.splice(taken.end(), state.components, it);
        it = next;
    }
    for (Environment& environment : state.environments) {
        if (environment.isolate == isolate)
            taken.splice(taken.end(), environment.pendingRelease);
    }
    return taken;
}

// Releases components of the current thread's isolate, first marking their script objects as released so that
// their methods throw instead of reaching freed memory.
void releaseOnThisThread(std::list<LiveComponent> components, v8::Isolate* isolate) {
    if (components.empty())
        return;
    {
        v8::HandleScope scope(isolate);
        for (LiveComponent& live : components)
            common::js_internal::releaseInternalField(isolate, live.object.Get(isolate), 0);
    }
    components.clear();
}

// Releases, at process exit, the components of the isolate the exiting thread is running (process.exit() on the
// main thread); whatever belongs to other threads is left to the end of the process.
struct ExitRelease {
    ~ExitRelease() {
        v8::Isolate* current = v8::Isolate::TryGetCurrent();
        if (!current)
            return;
        ModuleState& state = moduleState();
        std::unique_lock<std::mutex> lock(state.lock);
        std::list<LiveComponent> released = takeComponents(state, current);
        lock.unlock();
        released.clear();
    }
};

void registerExitRelease() {
    // The log slot must outlive this object: a diagnostics component released here empties the slot. Statics are
    // destroyed in reverse order of construction, so the slot is created first.
    (void)common::diagnostics::LogInternal::instance();
    static ExitRelease exitRelease;
}

// Runs on an environment's own thread when a "shutdown" on another thread asked it to release its components.
void onShutdownRequest(uv_async_t* handle) {
    auto* isolate = static_cast<v8::Isolate*>(handle->data);
    ModuleState& state = moduleState();
    std::unique_lock<std::mutex> lock(state.lock);
    std::list<LiveComponent> released;
    for (Environment& environment : state.environments) {
        if (environment.isolate == isolate)
            released.splice(released.end(), environment.pendingRelease);
    }
    lock.unlock();
    releaseOnThisThread(std::move(released), isolate);
}

// Releases the components of one environment when it is torn down (process exit, Worker end), on its thread.
void releaseEnvironment(void* arg) {
    auto* isolate = static_cast<v8::Isolate*>(arg);
    ModuleState& state = moduleState();
    std::unique_lock<std::mutex> lock(state.lock);
    std::list<LiveComponent> released = takeComponents(state, isolate);
    uv_async_t* request = nullptr;
    state.environments.remove_if([&](const Environment& environment) {
        if (environment.isolate != isolate)
            return false;
        request = environment.shutdownRequest;
        return true;
    });
    lock.unlock();
    if (request)
        uv_close(reinterpret_cast<uv_handle_t*>(request),
                 [](uv_handle_t* closed) { delete reinterpret_cast<uv_async_t*>(closed); });
    released.clear();
}

// Records the calling environment on its first load: its cleanup hook and its way to receive a "shutdown" made on
// another thread. The host refuses a second registration of the same hook, and the entry runs again for every
// further load in the same environment.
void registerEnvironment(v8::Isolate* isolate) {
    ModuleState& state = moduleState();
    {
        std::lock_guard<std::mutex> lock(state.lock);
        for (const Environment& environment : state.environments) {
            if (environment.isolate == isolate)
                return;
        }
    }
    auto* request = new uv_async_t();
    request->data = isolate;
    if (uv_async_init(node::GetCurrentEventLoop(isolate), request, &onShutdownRequest) != 0) {
        delete request;
        request = nullptr;
    } else {
        uv_unref(reinterpret_cast<uv_handle_t*>(request));  // it never keeps the environment alive
    }
    {
        std::lock_guard<std::mutex> lock(state.lock);
        state.environments.push_back(Environment{isolate, request, {}});
    }
    node::AddEnvironmentCleanupHook(isolate, &releaseEnvironment, isolate);
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
        LiveComponent live{std::move(component), isolate, v8::Global<v8::Object>(isolate, object)};
        ModuleState& state = moduleState();
        std::lock_guard<std::mutex> lock(state.lock);
        state.components.push_back(std::move(live));
    }
    common::js::setFunctionProperty<&shutdownNodeModule>(isolate, exports, "shutdown");
}

}  // namespace

ComponentRegistration::ComponentRegistration(std::string name, ComponentFactory factory) {
    registry().push_back(RegistryEntry{std::move(name), factory});
}

void shutdownNodeModule() {
    // The components of this thread's isolate are released here; those of other threads' isolates are handed to
    // their environments, which release them on their own threads (never under this thread's feet).
    v8::Isolate* current = v8::Isolate::TryGetCurrent();
    ModuleState& state = moduleState();
    std::unique_lock<std::mutex> lock(state.lock);
    std::list<LiveComponent> released = takeComponents(state, current);
    for (auto it = state.components.begin(); it != state.components.end();) {
        auto next = std::next(it);
        for (Environment& environment : state.environments) {
            if (environment.isolate == it->isolate && environment.shutdownRequest) {
                environment.pendingRelease.splice(environment.pendingRelease.end(), state.components, it);
                uv_async_send(environment.shutdownRequest);
                break;
            }
        }
        it = next;
    }
    lock.unlock();
    if (current)
        releaseOnThisThread(std::move(released), current);
}

}  // namespace zel

extern "C" NODE_MODULE_EXPORT void NODE_MODULE_INITIALIZER(v8::Local<v8::Object> exports, v8::Local<v8::Value>,
                                                           v8::Local<v8::Context> context) {
    v8::Isolate* isolate = v8::Isolate::GetCurrent();
    v8::HandleScope scope(isolate);
    zel::registerExitRelease();
    zel::registerEnvironment(isolate);
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
