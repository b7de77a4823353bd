// The "diagnostics" component.
#include "bridge/diagnostics_component.h"

#include <unistd.h>

#include <atomic>

#include "common/diagnostics/log.h"
#include "common/utils/exception.h"
#include "common/v8binding/v8binding.h"

namespace zel {
namespace {

// Live diagnostics components: a handler can be installed only while one exists to remove it again.
std::atomic<int> g_liveComponents{0};

// The log handler slot is process-wide and its handler holds a script function of the isolate that installed it,
// which only that isolate's thread may release: the slot belongs to the main thread (the process's first thread,
// where the host runs its main context). Workers neither install nor remove a handler.
bool onMainThread() { return gettid() == getpid(); }

}  // namespace

using common::diagnostics::Log;
using common::diagnostics::LogContext;

DiagnosticsComponent::DiagnosticsComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
    common::js::bindToObject<DiagnosticsComponent>(isolate, object);
    ++g_liveComponents;
}

DiagnosticsComponent::~DiagnosticsComponent() {
    --g_liveComponents;
    if (onMainThread())
        Log::setHandler(nullptr);
}

void DiagnosticsComponent::setLogHandler(std::unique_ptr<ScriptLogHandler> callback) {
    if (g_liveComponents.load() == 0)
        COMMON_THROW_AT("../bridge/diagnostics_component", __LINE__, "The diagnostics component has been shut down");
    if (!onMainThread())
        COMMON_THROW_AT("../bridge/diagnostics_component", __LINE__,
                        "setLogHandler is supported on the main thread only, not in a Worker");
    v8::Isolate* isolate = v8::Isolate::GetCurrent();
    Log::setHandler(Log::Handler::makeUnique(
        [callback = std::move(callback), isolate](Log::Level level, const LogContext&, const char* message) noexcept {
            writeDebugString(message);
            if (common::js::V8WeakReferenceHolder::inDestructor())
                return;
            v8::Isolate* current = v8::Isolate::TryGetCurrent();
            if (!current || current != isolate || !isolate->InContext())
                return;
            if (callback)
                callback->invoke(std::string(message), static_cast<int>(level));
        }));
}

ZEL_REGISTER_COMPONENT("diagnostics", DiagnosticsComponent);

}  // namespace zel
