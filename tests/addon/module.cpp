// The "lifecycle" test component: reports how many test components were made and released, so script can
// follow the module entry, "shutdown" and environment teardown.
#include <v8.h>

#include <tuple>

#include "bridge/component.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"
#include "common/v8binding/v8binding.h"
#include "tests/addon/testkit.h"

namespace zel::testkit {

class LifecycleComponent final : public Component, private Tracked {
    COMMON_COM_CLASS(LifecycleComponent, common::SingleThreadRC, Component)

    LifecycleComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        common::js::bindToObject<LifecycleComponent>(isolate, object);
    }

    /// Test components constructed and destroyed so far, over all contexts and threads (a plain function:
    /// it can be called after "shutdown").
    static ComponentCounts componentCounts() {
        return ComponentCounts{g_componentsConstructed.load(), g_componentsDestroyed.load()};
    }

    /// A member method: reaches this component through the receiver.
    bool alive() const { return true; }

    struct ClassAttributes__ {
        using Class = LifecycleComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{createMethodInfo<&LifecycleComponent::componentCounts>("componentCounts"),
                                           createMethodInfo<&LifecycleComponent::alive>("alive")});
        }
    };
};

ZEL_REGISTER_COMPONENT("lifecycle", LifecycleComponent);

}  // namespace zel::testkit
