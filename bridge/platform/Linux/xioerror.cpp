// The process-wide X I/O error handler behind guardedXCall.
#include "bridge/platform/Linux/xioerror.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace zel::x11 {
namespace {

/// The innermost guarded call of this thread.
thread_local IOErrorGuard* t_guard = nullptr;

/// The handler ours replaced; Xlib reports its default one when none was set, so this is never null once installed.
std::atomic<XIOErrorHandler> g_replaced{nullptr};

int onIOError(Display* display) {
    for (IOErrorGuard* guard = t_guard; guard; guard = guard->outer) {
        if (guard->display == display) {
            // Xlib calls this with the display's own lock released and never touches it again on this path; the
            // display is abandoned (its user lock stays taken by this thread, which never uses it again).
            t_guard = guard->outer;
            std::longjmp(guard->jump, 1);
        }
    }
    XIOErrorHandler replaced = g_replaced.load();
    while (!replaced) {  // another thread is inside installIOErrorHandler, between the swap and the store
        std::this_thread::yield();
        replaced = g_replaced.load();
    }
    return replaced(display);
}

}  // namespace

void installIOErrorHandler() {
    static std::once_flag once;
    std::call_once(once, [] { g_replaced.store(XSetIOErrorHandler(&onIOError)); });
}

namespace xioerror_internal {

void enter(IOErrorGuard* guard) {
    guard->outer = t_guard;
    t_guard = guard;
}

void leave(IOErrorGuard* guard) { t_guard = guard->outer; }

}  // namespace xioerror_internal
}  // namespace zel::x11
