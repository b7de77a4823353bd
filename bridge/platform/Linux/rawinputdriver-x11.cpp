// X11 / XInput2 raw input driver: a reader thread with its own X connection, woken by a private client message.
#include "bridge/platform/Linux/rawinputdriver-x11.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

#include "bridge/platform/Linux/rawinputdriver-x11_internal.h"
#include "common/diagnostics/log.h"
#include "common/diagnostics/runtimecheck.h"

// Xlib last: its macros must not reach the declarations above.
#include <X11/X.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XInput2.h>

namespace zel {

namespace {

using namespace common::zel_internal;
using Level = common::diagnostics::Log::Level;

constexpr const char* kFile = "../bridge/platform/Linux/rawinputdriver-x11";

static_assert(kBadRequest == BadRequest);
static_assert(kClientMessage == ClientMessage);
static_assert(kGenericEvent == GenericEvent);
static_assert(kXIAllMasterDevices == XIAllMasterDevices);
static_assert(kXIRawButtonPress == XI_RawButtonPress);
static_assert(kXIRawButtonRelease == XI_RawButtonRelease);
static_assert(kXIRawMotion == XI_RawMotion);

/// Attempts to open the connection that carries a stop request before giving up.
constexpr int kStopConnectionAttempts = 50;
constexpr auto kStopConnectionRetryDelay = std::chrono::milliseconds(20);
/// Queued events (about 200 bytes each) above which the memory Xlib kept for its event queue is handed back to
/// the system when the connection closes.
constexpr int kTrimAfterQueuedEvents = 4096;

}  // namespace

/// One X connection of the reader thread with its receiver window; built on the reader thread's stack.
/// A failed step leaves it half-built (no receiver window); only the missing display is silent.
class XRawInputDriver::InputClient {
public:
    InputClient() : m_display(XOpenDisplay(nullptr)) {
        if (!m_display)
            return;
        m_closeAtom = XInternAtom(m_display, "_APP_CLOSE_INPUT", False);
        m_rootWindow = RootWindowOfScreen(DefaultScreenOfDisplay(m_display));
        m_displayName = DisplayString(m_display);

        int firstEvent = 0;
        int firstError = 0;
        if (XQueryExtension(m_display, "XInputExtension", &m_xiOpcode, &firstEvent, &firstError) == 0) {
            COMMON_LOG_AT(Level::Error, kFile, 59, "XInputExtension does not supported");
            return;
        }

        int major = kRequiredXIMajor;
        int minor = kRequiredXIMinor;
        const Status status = XIQueryVersion(m_display, &major, &minor);
        if (const auto refusal = xiVersionRefusal(status, major, minor)) {
            COMMON_LOG_AT(Level::Error, kFile, 70, *refusal);
            return;
        }

        m_internalWindow = XCreateSimpleWindow(m_display, m_rootWindow, 0, 0, 100, 100, 0, 0, 0);
        XSetStandardProperties(m_display, m_internalWindow, "ZEL:EventReceiver", "", None, nullptr, 0, nullptr);
    }

    ~InputClient() {
        if (!m_display)
            return;
        XDestroyWindow(m_display, m_rootWindow);  // the server ignores it for a root window
        if (m_internalWindow != 0L)
            XDestroyWindow(m_display, m_internalWindow);
        XCloseDisplay(m_display);
    }

    InputClient(const InputClient&) = delete;
    InputClient& operator=(const InputClient&) = delete;

    operator Display*() const {  // NOLINT(google-explicit-constructor)
        COMMON_CHECK_IN("operator Display*", kFile, 97, m_display);
        return m_display;
    }

    /// The display without the check; null when the connection failed.
    Display* display() const { return m_display; }
    /// Whether every construction step succeeded (the receiver window exists).
    bool complete() const { return m_internalWindow != 0L; }
    Window rootWindow() const { return m_rootWindow; }
    int xiOpcode() const { return m_xiOpcode; }

    /// Asks the reader to stop: sends the close message to the receiver window. Runs on the stopping
    /// thread, which must not use the reader's connection; a short-lived connection of its own to the same
    /// display carries the message, and is synchronised so that the message is with the server on return.
    void sendCloseInput() const {
        COMMON_CHECK_AT(kFile, 138, m_display);
        COMMON_CHECK_AT(kFile, 139, m_internalWindow != 0L);

        Display* connection = nullptr;
        for (int attempt = 0; attempt < kStopConnectionAttempts && !connection; ++attempt) {
            if (attempt > 0)
                std::this_thread::sleep_for(kStopConnectionRetryDelay);
            connection = XOpenDisplay(m_displayName.c_str());
        }
        if (!connection) {
            COMMON_LOG_AT(Level::Error, kFile, __LINE__, "Fail to open X display {0} to stop input", m_displayName);
            return;
        }

        XEvent event;
        std::memset(&event, 0, sizeof(event));
        event.xclient.type = ClientMessage;
        event.xclient.serial = 0;
        event.xclient.send_event = True;
        event.xclient.display = connection;
        event.xclient.window = m_internalWindow;
        event.xclient.message_type = m_closeAtom;
        event.xclient.format = 32;
        XSendEvent(connection, m_internalWindow, False, 0, &event);
        XSync(connection, False);
        XCloseDisplay(connection);
    }

    /// Whether `event` is the stop request: a client message with the close atom, whatever its window.
    bool isCloseInputEvent(const XEvent& event) const {
        return event.type == ClientMessage && isCloseMessage(event.type, event.xclient.message_type, m_closeAtom);
    }

    /// The pointer position in root-window coordinates; (0, 0) when the query fails.
    std::pair<int32_t, int32_t> queryPointerPosition() const {
        Window rootReturn = 0;
        Window childReturn = 0;
        int rootX = 0;
        int rootY = 0;
        int winX = 0;
        int winY = 0;
        unsigned int mask = 0;
        XQueryPointer(*this, m_rootWindow, &rootReturn, &childReturn, &rootX, &rootY, &winX, &winY, &mask);
        return {rootX, rootY};
    }

private:
    Display* m_display = nullptr;
    Window m_rootWindow = 0;
    Window m_internalWindow = 0;
    int m_xiOpcode = 0;
    Atom m_closeAtom = 0;
    std::string m_displayName;  ///< the name the connection resolved, for the stop connection
};

/// The data of one generic event cookie, fetched at construction and freed at destruction.
class XRawInputDriver::EventData {
public:
    EventData(const InputClient& client, XEvent& event) : m_client(client.display()), m_cookie(&event.xcookie) {
        COMMON_CHECK_AT(kFile, __LINE__, m_client);
        m_success = m_client && event.type == GenericEvent && XGetEventData(m_client, m_cookie) != 0;
    }
    ~EventData() {
        if (m_success)
            XFreeEventData(m_client, m_cookie);
    }

    EventData(const EventData&) = delete;
    EventData& operator=(const EventData&) = delete;

    explicit operator bool() const { return m_success; }
    XGenericEventCookie* operator->() const {
        COMMON_CHECK_IN("operator->", kFile, __LINE__, m_success);
        return m_cookie;
    }

private:
    Display* m_client;
    XGenericEventCookie* m_cookie;
    bool m_success = false;
};

template <typename RawEvent>
double XRawInputDriver::rawValuator(const RawEvent& event, int index) {
    return rawValuatorValue(event.valuators.mask, event.valuators.mask_len, event.raw_values, index);
}

template <typename RawEvent>
void XRawInputDriver::dumpRawEvent(const RawEvent& event) {
    std::printf("Inbound XI Event (%d):\n", event.evtype);
    std::printf("    device: %d (%d)\n", event.deviceid, event.sourceid);
    std::printf("    detail: %d\n", event.detail);
    if (event.evtype >= XI_RawButtonPress && event.evtype <= XI_RawMotion)
        std::printf("    flags: %s\n", (event.flags & 0x10000) ? "emulated" : "");
    std::puts("    valuators:");
    const double* value = event.valuators.values;
    const double* rawValue = event.raw_values;
    for (int i = 0; i < event.valuators.mask_len * 8; ++i) {
        if (XIMaskIsSet(event.valuators.mask, i)) {
            const double accelerated = *value++;
            const double raw = *rawValue++;
            std::printf("         %2d: %.2f (%.2f)\n", i, accelerated, raw);
        }
    }
    std::printf("\n");
}

template void XRawInputDriver::dumpRawEvent<XIRawEvent>(const XIRawEvent& event);

XRawInputDriver::XRawInputDriver() = default;

XRawInputDriver::~XRawInputDriver() {
    releasePointerCapture();
}

void XRawInputDriver::capturePointer(std::unique_ptr<Callback> callback) {
    // No reader runs here (or one runs that was never asked to stop): a stale request must not end the next one.
    m_stopRequested.store(false);
    RawInputDriverBase::capturePointer(std::move(callback));
}

void XRawInputDriver::processInput() {
    if (m_stopRequested.load())
        return;

    // Xlib keeps every event-queue entry it has allocated until the connection closes, so a burst that outran this
    // thread keeps its peak backlog allocated for the whole capture. Once the connection is closed (the client
    // goes before this guard), a large backlog's memory is handed back to the system.
    struct QueueMemoryRelease {
        int peakQueued = 0;
        ~QueueMemoryRelease() {
            if (peakQueued > kTrimAfterQueuedEvents)
                malloc_trim(0);
        }
    } queueMemory;
    InputClient client;
    if (!client.display()) {
        COMMON_LOG_AT(Level::Error, kFile, __LINE__, "Fail to open X display");
        return;
    }
    if (!client.complete())
        return;  // the client has logged why

    // The receiver window must exist on the server before a stop request can name it.
    XSync(client, False);
    {
        std::lock_guard<std::mutex> lock(m_clientLock);
        if (m_stopRequested.load())
            return;
        m_client = &client;
    }
    // Unpublishes the client on every way out, before the client (and its connection) goes.
    struct ClientReset {
        XRawInputDriver& driver;
        ~ClientReset() {
            std::lock_guard<std::mutex> lock(driver.m_clientLock);
            driver.m_client = nullptr;
        }
    } clientReset{*this};

    unsigned char maskBytes[kRawEventMaskLength] = {};
    fillRawEventMask(maskBytes);
    XIEventMask mask;
    mask.deviceid = XIAllMasterDevices;
    mask.mask_len = kRawEventMaskLength;
    mask.mask = maskBytes;
    if (XISelectEvents(client, client.rootWindow(), &mask, 1) != 0) {
        COMMON_LOG_AT(Level::Error, kFile, 287, "Fail to select XInput events mask");
        return;
    }
    XFlush(client);
    (void)client.queryPointerPosition();

    for (;;) {
        XEvent event;
        XNextEvent(client, &event);
        queueMemory.peakQueued = std::max(queueMemory.peakQueued, QLength(client.display()));
        if (client.isCloseInputEvent(event))
            return;
        if (!admitsInputEvent(event.type, event.xcookie.extension, client.xiOpcode()))
            continue;

        EventData data(client, event);
        if (!data)
            continue;
        const int evtype = data->evtype;
        if (!isRawPointerEvent(evtype))
            continue;

        PointerData record;
        const auto& raw = *static_cast<const XIRawEvent*>(data->data);
        if (evtype == XI_RawMotion) {
            const auto [x, y] = client.queryPointerPosition();
            record.screenPoint = Point2{x, y};
            record.offset.x = truncateOffset(rawValuator(raw, 0));
            record.offset.y = truncateOffset(rawValuator(raw, 1));
        } else {
            applyRawButton(record, evtype, raw.detail);
        }
        notifyPointerEvent(record);
    }
}

void XRawInputDriver::breakInputProcessing(uint64_t /*threadHandle*/) {
    m_stopRequested.store(true);
    std::lock_guard<std::mutex> lock(m_clientLock);
    if (m_client)
        m_client->sendCloseInput();
}

common::ComPtr<RawInputDriver> RawInputDriver::create() {
    return common::com::createInstance<XRawInputDriver, RawInputDriver>();
}

}  // namespace zel
