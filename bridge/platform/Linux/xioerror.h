// Surviving the loss of the module's own X connections: a process-wide X I/O error handler that unwinds a guarded
// call on a lost connection back to its caller, and hands every other connection to the handler it replaced.
#pragma once

#include <csetjmp>
#include <type_traits>

// Xlib last: its macros must not reach the declarations above.
#include <X11/Xlib.h>

namespace zel::x11 {

/// One guarded call in progress on this thread. Trivially destructible: it is left by `longjmp`.
struct IOErrorGuard {
    Display* display;
    IOErrorGuard* outer;
    std::jmp_buf jump;
};
static_assert(std::is_trivially_destructible_v<IOErrorGuard>);

/// Installs the module's I/O error handler once per process (before the module opens a connection). For a
/// display in a guarded call on the failing thread it unwinds to that call; for any other display it calls
/// the handler it replaced, so the host's own connections keep the host's behaviour.
void installIOErrorHandler();

namespace xioerror_internal {
void enter(IOErrorGuard* guard);
void leave(IOErrorGuard* guard);
}  // namespace xioerror_internal

/// Runs `call`, which makes Xlib calls on `display` only. Returns true when it completed, false when the connection
/// was lost during it: the error unwound to here instead of ending the process, and the display must never be used
/// (nor closed) again. Between here and the Xlib calls nothing may have a destructor to run: `call` keeps only
/// trivially destructible locals (the unwinding is a `longjmp`).
template <typename Call>
bool guardedXCall(Display* display, Call&& call) {
    static_assert(std::is_trivially_destructible_v<std::remove_reference_t<Call>>);
    IOErrorGuard guard;
    guard.display = display;
    guard.outer = nullptr;
    if (setjmp(guard.jump) != 0)
        return false;  // the handler has left the guard
    xioerror_internal::enter(&guard);
    call();
    xioerror_internal::leave(&guard);
    return true;
}

}  // namespace zel::x11
