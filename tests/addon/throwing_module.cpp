// A module of three components whose second cannot be created: the entry stops there.
#include <v8.h>

#include <stdexcept>
#include <string>
#include <tuple>

#include "bridge/component.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"
#include "common/v8binding/v8binding.h"

namespace zel::throwing {
namespace {

// The components whose construction started, in order, comma separated.
std::string g_attempts;

void attempt(const char* name) {
    if (!g_attempts.empty())
        g_attempts += ',';
    g_attempts += name;
}

}  // namespace

class FirstComponent final : public Component {
    COMMON_COM_CLASS(FirstComponent, common::SingleThreadRC, Component)

    FirstComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        attempt("first");
        common::js::bindToObject<FirstComponent>(isolate, object);
    }

    /// Reaches this component through the receiver.
    bool alive() const { return true; }
    /// The components whose construction started, in order ("first,second").
    static std::string attempts() { return g_attempts; }

    struct ClassAttributes__ {
        using Class = FirstComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(common::meta::ClassBase<Component>{},
                                   common::meta::ClassMethods{createMethodInfo<&FirstComponent::alive>("alive"),
                                                              createMethodInfo<&FirstComponent::attempts>("attempts")});
        }
    };
};

class SecondComponent final : public Component {
    COMMON_COM_CLASS(SecondComponent, common::SingleThreadRC, Component)

    SecondComponent(v8::Isolate*, v8::Local<v8::Object>) {
        attempt("second");
        throw std::runtime_error("The second component cannot start");
    }
};

class ThirdComponent final : public Component {
    COMMON_COM_CLASS(ThirdComponent, common::SingleThreadRC, Component)

    ThirdComponent(v8::Isolate*, v8::Local<v8::Object>) { attempt("third"); }
};

namespace first {
ZEL_REGISTER_COMPONENT("first", FirstComponent);
}
namespace second {
ZEL_REGISTER_COMPONENT("second", SecondComponent);
}
namespace third {
ZEL_REGISTER_COMPONENT("third", ThirdComponent);
}

}  // namespace zel::throwing
