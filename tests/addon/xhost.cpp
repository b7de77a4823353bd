// The "xhost" test component: an X connection of the host's own (not the module's) and a host I/O error handler,
// so that script can check that the module's I/O error handling leaves the host's connections to the host.
#include <v8.h>

#include <cstdio>
#include <cstdlib>
#include <tuple>
#include <vector>

#include "bridge/component.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"
#include "common/v8binding/v8binding.h"

// Xlib last: its macros must not reach the declarations above.
#include <X11/Xlib.h>

namespace zel::testkit {
namespace {

std::vector<Display*> g_hostDisplays;

int hostIOErrorHandler(Display* display) {
    std::fprintf(stderr, "host I/O error handler: %s\n", DisplayString(display));
    std::fflush(stderr);
    std::_Exit(3);
}

}  // namespace

class XHostComponent final : public Component {
    COMMON_COM_CLASS(XHostComponent, common::SingleThreadRC, Component)

    XHostComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        common::js::bindToObject<XHostComponent>(isolate, object);
    }

    /// Opens one more connection of the host's to the default display (kept until the process ends); whether it
    /// opened.
    static bool open() {
        Display* display = XOpenDisplay(nullptr);
        if (display)
            g_hostDisplays.push_back(display);
        return display != nullptr;
    }

    /// A round trip on each of the host's connections.
    static void roundTrip() {
        for (Display* display : g_hostDisplays)
            XSync(display, False);
    }

    /// Installs a process-wide I/O error handler that prints "host I/O error handler: <display>" and ends the
    /// process with status 3, as a host would before it loads the module.
    static void installHostHandler() { XSetIOErrorHandler(&hostIOErrorHandler); }

    struct ClassAttributes__ {
        using Class = XHostComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(common::meta::ClassBase<Component>{},
                                   common::meta::ClassMethods{
                                       createMethodInfo<&XHostComponent::open>("open"),
                                       createMethodInfo<&XHostComponent::roundTrip>("roundTrip"),
                                       createMethodInfo<&XHostComponent::installHostHandler>("installHostHandler")});
        }
    };
};

ZEL_REGISTER_COMPONENT("xhost", XHostComponent);

}  // namespace zel::testkit
