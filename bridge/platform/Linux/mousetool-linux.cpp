// Mouse button state from the X server's pointer query, on a connection of its own.
#include "bridge/platform/Linux/mousetool-linux.h"

#include <mutex>
#include <utility>

#include "bridge/platform/Linux/rawinputdriver-x11_internal.h"
#include "common/diagnostics/log.h"

// Xlib last: its macros must not reach the declarations above.
#include <X11/X.h>
#include <X11/Xlib.h>

#include "bridge/platform/Linux/xioerror.h"

namespace zel {

namespace {

using Level = common::diagnostics::Log::Level;

constexpr const char* kFile = "../bridge/platform/Linux/mousetool-linux";

static_assert(common::zel_internal::kButton1Mask == Button1Mask);
static_assert(common::zel_internal::kButton2Mask == Button2Mask);
static_assert(common::zel_internal::kButton3Mask == Button3Mask);

/// The process's connection for button queries: opened on first use and never closed; not retried when no display
/// could be opened. Every thread that queries (the main thread and Workers) takes the lock.
struct QueryConnection {
    std::mutex lock;
    bool opened = false;
    bool lost = false;         ///< the server went away: the connection is abandoned, never used again
    bool failureTold = false;  ///< the lasting failure of the last query (no display, lost) has been logged
    Display* display = nullptr;
    Window root = 0;
};

QueryConnection& queryConnection() {
    static QueryConnection connection;
    return connection;
}

enum class QueryResult { Answered, NoDisplay, Lost, Failed };

/// Asks the server for the pointer's button mask on the locked `connection`; what became of the question.
QueryResult askButtonMask(QueryConnection& connection, unsigned& mask) {
    if (!connection.opened) {
        connection.opened = true;
        x11::installIOErrorHandler();
        connection.display = XOpenDisplay(nullptr);
        if (connection.display)
            connection.root = XDefaultRootWindow(connection.display);
    }
    if (!connection.display)
        return QueryResult::NoDisplay;
    if (connection.lost)
        return QueryResult::Lost;

    Bool answered = False;
    if (!x11::guardedXCall(connection.display, [&] {
            Window rootReturn = 0;
            Window childReturn = 0;
            int rootX = 0;
            int rootY = 0;
            int winX = 0;
            int winY = 0;
            answered = XQueryPointer(connection.display, connection.root, &rootReturn, &childReturn, &rootX, &rootY,
                                     &winX, &winY, &mask);
        })) {
        connection.lost = true;
        return QueryResult::Lost;
    }
    return answered == True ? QueryResult::Answered : QueryResult::Failed;
}

/// Asks the server for the pointer's button mask; what became of the question, and whether it is a lasting failure
/// (no display, a lost connection) that the calls before did not meet: such a failure is logged once, not per call.
std::pair<QueryResult, bool> queryButtonMask(unsigned& mask) {
    QueryConnection& connection = queryConnection();
    std::lock_guard<std::mutex> lock(connection.lock);
    const QueryResult result = askButtonMask(connection, mask);
    const bool lasting = result == QueryResult::NoDisplay || result == QueryResult::Lost;
    const bool untold = lasting && !connection.failureTold;
    connection.failureTold = lasting;
    return {result, untold};
}

}  // namespace

bool MouseTool::getButtonState(MouseButton button) {
    // Logged without the lock: a log handler may call back into this function.
    unsigned mask = 0;
    const auto [result, untold] = queryButtonMask(mask);
    switch (result) {
        case QueryResult::Answered:
            break;
        case QueryResult::NoDisplay:
            if (untold)
                COMMON_LOG_AT(Level::Warning, kFile, __LINE__, "No X display to query the pointer");
            return false;
        case QueryResult::Lost:
            if (untold)
                COMMON_LOG_AT(Level::Warning, kFile, __LINE__, "The X display connection for pointer queries was lost");
            return false;
        case QueryResult::Failed:
            COMMON_LOG_AT(Level::Warning, kFile, 46, "XQueryPointer returns False");
            return false;
    }
    const unsigned bit = common::zel_internal::buttonStateMask(button);
    return (mask & bit) == bit;
}

}  // namespace zel
