// The base of script-visible components and their registration with the module entry.
#pragma once

#include <v8.h>

#include <string>

#include "common/com/comptr.h"
#include "common/com/refcounted.h"

namespace zel {

/// Base of every component; its script object's internal field 0 points at its `IRefCounted` view.
class Component : public virtual IRefCounted {
protected:
    Component() = default;
    ~Component() override = default;
};

/// Creates a component for a fresh script object; the component binds its methods onto that object.
using ComponentFactory = common::ComPtr<Component> (*)(v8::Isolate* isolate, v8::Local<v8::Object> object);

/// Appends a component (name and factory) to the module's registry during static initialisation.
class ComponentRegistration {
public:
    ComponentRegistration(std::string name, ComponentFactory factory);
};

/// Releases every live component of every context ("shutdown" in script).
void shutdownNodeModule();

}  // namespace zel

/// Registers component class `Concrete` under the script name `name` (one per source unit).
#define ZEL_REGISTER_COMPONENT(name, Concrete)                                                                 \
    static const ::zel::ComponentRegistration g_componentRegistration__(                                       \
        (name), [](v8::Isolate* isolate, v8::Local<v8::Object> object) -> ::common::ComPtr<::zel::Component> { \
            return ::common::com::createInstance<Concrete, ::zel::Component>(isolate, object);                 \
        })
