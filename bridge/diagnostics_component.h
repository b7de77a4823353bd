// The "diagnostics" component: routes the native log to standard output and a script handler.
#pragma once

#include <v8.h>

#include <memory>
#include <string>
#include <tuple>

#include "bridge/component.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"
#include "common/utils/functor.h"

namespace zel {

/// Installs the process's log handler on request of script.
class DiagnosticsComponent final : public Component {
    COMMON_COM_CLASS(DiagnosticsComponent, common::SingleThreadRC, Component)

    using ScriptLogHandler = common::FunctorClass<false, void, common::TypeList<std::string, int>>;

    DiagnosticsComponent(v8::Isolate* isolate, v8::Local<v8::Object> object);
    /// Removes whatever log handler is installed.
    ~DiagnosticsComponent() override;

    /// Every log message is then printed and, on the script thread inside a context, passed to `callback`
    /// as (message, level). The last call wins.
    static void setLogHandler(std::unique_ptr<ScriptLogHandler> callback);

    struct ClassAttributes__ {
        using Class = DiagnosticsComponent;
        static constexpr auto attributes() {
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{
                    common::meta::createMethodInfo<&DiagnosticsComponent::setLogHandler>("setLogHandler")});
        }
    };
};

}  // namespace zel
