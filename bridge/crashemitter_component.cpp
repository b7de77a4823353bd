// The "crash_emitter" component.
#include "bridge/crashemitter_component.h"

#include <cstdint>
#include <functional>

#include "common/v8binding/v8binding.h"

namespace zel {

CrashEmitter::CrashEmitter(v8::Isolate* isolate, v8::Local<v8::Object> object) {
    common::js::bindToObject<CrashEmitter>(isolate, object);
}

// Not instrumented for null stores: in sanitizer builds the fault must still reach the process as SIGSEGV.
__attribute__((no_sanitize("null"))) void CrashEmitter::emitAccessViolation() const {
    // A volatile pointer: the compiler can neither prove it null nor drop the store.
    volatile uint32_t* volatile target = nullptr;
    *target = 42;
}

void CrashEmitter::emitStackOverflow() const {
    std::function<void(int)> recurse;
    recurse = [&recurse](int n) {
        recurse(n);
        // Work after the call keeps it from becoming a jump: every level takes a stack frame.
        asm volatile("" ::: "memory");
    };
    recurse(42);
}

ZEL_REGISTER_COMPONENT("crash_emitter", CrashEmitter);

}  // namespace zel
