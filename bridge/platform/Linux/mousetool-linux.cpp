// Mouse button state from the X server's pointer query, on a connection of its own.
#include "bridge/platform/Linux/mousetool-linux.h"

#include "bridge/platform/Linux/rawinputdriver-x11_internal.h"
#include "common/diagnostics/log.h"

// Xlib last: its macros must not reach the declarations above.
#include <X11/X.h>
#include <X11/Xlib.h>

namespace zel {

namespace {

using Level = common::diagnostics::Log::Level;

constexpr const char* kFile = "../bridge/platform/Linux/mousetool-linux";

static_assert(common::zel_internal::kButton1Mask == Button1Mask);
static_assert(common::zel_internal::kButton2Mask == Button2Mask);
static_assert(common::zel_internal::kButton3Mask == Button3Mask);

/// The process's connection for button queries, opened once on first use and never closed; null when no
/// display could be opened (it is not retried).
Display* queryDisplay() {
    static Display* const display = XOpenDisplay(nullptr);
    return display;
}

/// The root window of the query connection's default screen; 0 without a display.
Window queryRootWindow() {
    static const Window root = queryDisplay() ? XDefaultRootWindow(queryDisplay()) : Window(0);
    return root;
}

}  // namespace

bool MouseTool::getButtonState(MouseButton button) {
    Display* const display = queryDisplay();
    const Window root = queryRootWindow();
    if (!display) {
        COMMON_LOG_AT(Level::Warning, kFile, __LINE__, "No X display to query the pointer");
        return false;
    }

    Window rootReturn = 0;
    Window childReturn = 0;
    int rootX = 0;
    int rootY = 0;
    int winX = 0;
    int winY = 0;
    unsigned int mask = 0;
    if (XQueryPointer(display, root, &rootReturn, &childReturn, &rootX, &rootY, &winX, &winY, &mask) != True) {
        COMMON_LOG_AT(Level::Warning, kFile, 46, "XQueryPointer returns False");
        return false;
    }
    const unsigned bit = common::zel_internal::buttonStateMask(button);
    return (mask & bit) == bit;
}

}  // namespace zel
