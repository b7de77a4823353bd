// The "crash_emitter" component: crashes the host process on demand.
#pragma once

#include <v8.h>

#include <tuple>

#include "bridge/component.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"

namespace zel {

/// Ends the process by an invalid write or by stack exhaustion.
class CrashEmitter final : public Component {
    COMMON_COM_CLASS(CrashEmitter, common::SingleThreadRC, Component)

    CrashEmitter(v8::Isolate* isolate, v8::Local<v8::Object> object);

    /// Stores 42 at address 0: a segmentation fault.
    void emitAccessViolation() const;
    /// Recurses through a `std::function` with no base case until the stack is exhausted.
    void emitStackOverflow() const;

    struct ClassAttributes__ {
        using Class = CrashEmitter;
        static constexpr auto attributes() {
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{
                    common::meta::createMethodInfo<&CrashEmitter::emitAccessViolation>("emitAccessViolation"),
                    common::meta::createMethodInfo<&CrashEmitter::emitStackOverflow>("emitStackOverflow")});
        }
    };
};

}  // namespace zel
