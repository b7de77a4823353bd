// The "log" test component: writes log entries at a chosen level from the script thread inside and outside a
// script context, from a native thread and from an event-loop callback.
#include <node.h>
#include <uv.h>
#include <v8.h>

#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "bridge/component.h"
#include "common/com/comclass.h"
#include "common/diagnostics/log.h"
#include "common/meta/classinfo.h"
#include "common/v8binding/v8binding.h"
#include "tests/addon/testkit.h"

namespace zel::testkit {
namespace {

using common::diagnostics::Log;

void writeEntry(int32_t level, const std::string& text) {
    COMMON_LOG_AT(static_cast<Log::Level>(level), kTestkitFile, 31, text);
}

// One pending write from an event-loop timer.
struct LoopWrite {
    uv_timer_t timer;
    int32_t level;
    std::string text;
};

int32_t g_loopWrites = 0;
bool g_loopWriteSawContext = false;

}  // namespace

/// Every method is a plain function: they keep working after "shutdown" released the components.
class LogComponent final : public Component, private Tracked {
    COMMON_COM_CLASS(LogComponent, common::SingleThreadRC, Component)

    LogComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        common::js::bindToObject<LogComponent>(isolate, object);
    }

    /// Writes `text` at `level` (a `Log::Level` number) on the calling thread, inside the caller's context.
    static void write(int32_t level, std::string text) { writeEntry(level, text); }

    /// Writes `text` at `level` from a new native thread, and joins it before returning.
    static void writeFromThread(int32_t level, std::string text) {
        std::thread writer([level, &text] { writeEntry(level, text); });
        writer.join();
    }

    /// Writes `text` at `level` on the script thread with no context entered: the entered contexts are exited
    /// for the write (the host may have entered its main context more than once) and entered again afterwards.
    static void writeOutsideContext(int32_t level, std::string text) {
        v8::Isolate* isolate = v8::Isolate::GetCurrent();
        v8::HandleScope scope(isolate);
        std::vector<v8::Local<v8::Context>> exited;
        while (isolate->InContext() && exited.size() < 16) {
            v8::Local<v8::Context> context = isolate->GetEnteredOrMicrotaskContext();
            if (context.IsEmpty())
                break;
            context->Exit();
            exited.push_back(context);
        }
        const bool inContext = isolate->InContext();
        writeEntry(level, inContext ? text + " (a context was still current)" : text);
        for (auto it = exited.rbegin(); it != exited.rend(); ++it)
            (*it)->Enter();
    }

    /// Writes `text` at `level` from an event-loop timer callback that fires after the current script turn.
    static void writeFromLoop(int32_t level, std::string text) {
        v8::Isolate* isolate = v8::Isolate::GetCurrent();
        auto* pending = new LoopWrite{{}, level, std::move(text)};
        uv_timer_init(node::GetCurrentEventLoop(isolate), &pending->timer);
        pending->timer.data = pending;
        uv_timer_start(
            &pending->timer,
            [](uv_timer_t* timer) {
                auto* write = static_cast<LoopWrite*>(timer->data);
                v8::Isolate* current = v8::Isolate::TryGetCurrent();
                g_loopWriteSawContext = current && current->InContext();
                writeEntry(write->level, write->text);
                ++g_loopWrites;
                uv_close(reinterpret_cast<uv_handle_t*>(timer),
                         [](uv_handle_t* handle) { delete static_cast<LoopWrite*>(handle->data); });
            },
            0, 0);
    }
    /// How many loop writes have happened.
    static int32_t loopWrites() { return g_loopWrites; }
    /// Whether the last loop write ran with a script context current.
    static bool loopWriteSawContext() { return g_loopWriteSawContext; }

    struct ClassAttributes__ {
        using Class = LogComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(common::meta::ClassBase<Component>{},
                                   common::meta::ClassMethods{
                                       createMethodInfo<&LogComponent::write>("write"),
                                       createMethodInfo<&LogComponent::writeFromThread>("writeFromThread"),
                                       createMethodInfo<&LogComponent::writeOutsideContext>("writeOutsideContext"),
                                       createMethodInfo<&LogComponent::writeFromLoop>("writeFromLoop"),
                                       createMethodInfo<&LogComponent::loopWrites>("loopWrites"),
                                       createMethodInfo<&LogComponent::loopWriteSawContext>("loopWriteSawContext")});
        }
    };
};

ZEL_REGISTER_COMPONENT("log", LogComponent);

}  // namespace zel::testkit
