// X11 / XInput2 raw input driver: a reader thread with its own X connection, woken by a descriptor of its own.
#include "bridge/platform/Linux/rawinputdriver-x11.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>
#include <utility>

#include "bridge/platform/Linux/rawinputdriver-x11_internal.h"
#include "common/diagnostics/log.h"
#include "common/diagnostics/runtimecheck.h"

// Xlib last: its macros must not reach the declarations above.
#include <X11/X.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XInput2.h>

#include "bridge/platform/Linux/xioerror.h"

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

/// Queued events (about 200 bytes each) above which the memory Xlib kept for its event queue is handed back to
/// the system when the connection closes.
constexpr int kTrimAfterQueuedEvents = 4096;

/// How long a stop waits for the reader before it drops the reader's connection: the reader is then stuck in a
/// round trip with a server that does not answer (stopped, hung).
constexpr auto kStopGrace = std::chrono::milliseconds(250);

}  // namespace

/// What one read of the reader's connection gave.
enum class XRawInputDriver::ReadOutcome { Empty, Skipped, Record, Close };

/// One X connection of the reader thread with its receiver window; built on the reader thread's stack, then set up.
/// A failed step leaves it half-built (no receiver window); only the missing display is silent. Every Xlib call on
/// the connection goes through `call`: a connection lost on the way is abandoned (never used or closed again).
class XRawInputDriver::InputClient {
public:
    InputClient() {
        x11::installIOErrorHandler();
        m_display = XOpenDisplay(nullptr);
        if (m_display)
            m_displayName = DisplayString(m_display);
    }

    /// Asks the server for what the reader needs and creates the receiver window. A failed step leaves the client
    /// incomplete and logs why, except a lost connection (`lost()`).
    void setUp() {
        int firstEvent = 0;
        int firstError = 0;
        bool hasExtension = false;
        if (!call([&] {
                m_closeAtom = XInternAtom(m_display, "_APP_CLOSE_INPUT", False);
                m_rootWindow = RootWindowOfScreen(DefaultScreenOfDisplay(m_display));
                hasExtension =
                    XQueryExtension(m_display, "XInputExtension", &m_xiOpcode, &firstEvent, &firstError) != 0;
            }))
            return;
        if (!hasExtension) {
            COMMON_LOG_AT(Level::Error, kFile, 59, "XInputExtension does not supported");
            return;
        }

        int major = kRequiredXIMajor;
        int minor = kRequiredXIMinor;
        Status status = 0;
        if (!call([&] { status = XIQueryVersion(m_display, &major, &minor); }))
            return;
        if (const auto refusal = xiVersionRefusal(status, major, minor)) {
            COMMON_LOG_AT(Level::Error, kFile, 70, *refusal);
            return;
        }
        if (!call([&] { m_xwayland = hasXwaylandDevices(); }))
            return;

        Window window = 0;
        if (call([&] {
                window = XCreateSimpleWindow(m_display, m_rootWindow, 0, 0, 100, 100, 0, 0, 0);
                XSetStandardProperties(m_display, window, "ZEL:EventReceiver", "", None, nullptr, 0, nullptr);
            }))
            m_internalWindow = window;
    }

    ~InputClient() {
        if (!m_display || m_lost)
            return;
        call([&] {
            XDestroyWindow(m_display, m_rootWindow);  // the server ignores it for a root window
            if (m_internalWindow != 0L)
                XDestroyWindow(m_display, m_internalWindow);
            XCloseDisplay(m_display);
        });
    }

    InputClient(const InputClient&) = delete;
    InputClient& operator=(const InputClient&) = delete;

    /// Runs Xlib calls on the connection (see `x11::guardedXCall`); false when the connection is or was lost.
    template <typename Call>
    bool call(Call&& xlibCalls) {
        if (!m_lost && !x11::guardedXCall(m_display, xlibCalls))
            m_lost = true;
        return !m_lost;
    }

    /// The display; null when the connection failed.
    Display* display() const { return m_display; }
    /// Whether every construction step succeeded (the receiver window exists).
    bool complete() const { return m_internalWindow != 0L; }
    /// Whether the connection was lost (the server went away).
    bool lost() const { return m_lost; }
    /// Whether the server is Xwayland (known once set up).
    bool xwayland() const { return m_xwayland; }
    const std::string& displayName() const { return m_displayName; }
    Window rootWindow() const { return m_rootWindow; }

    /// Reads one event if one can be read without blocking and turns a raw pointer event into `record`. Only
    /// inside `call`: it keeps no object with a destructor.
    ReadOutcome readEvent(PointerData& record, int& peakQueued) const {
        if (XPending(m_display) == 0)
            return ReadOutcome::Empty;
        XEvent event;
        XNextEvent(m_display, &event);
        peakQueued = std::max(peakQueued, QLength(m_display));
        if (isCloseInputEvent(event))
            return ReadOutcome::Close;
        if (!admitsInputEvent(event.type, event.xcookie.extension, m_xiOpcode))
            return ReadOutcome::Skipped;
        if (event.type != GenericEvent || XGetEventData(m_display, &event.xcookie) == 0)
            return ReadOutcome::Skipped;
        const int evtype = event.xcookie.evtype;
        if (isRawPointerEvent(evtype)) {
            const auto& raw = *static_cast<const XIRawEvent*>(event.xcookie.data);
            if (evtype == XI_RawMotion) {
                record.offset.x = truncateOffset(rawValuator(raw, 0));
                record.offset.y = truncateOffset(rawValuator(raw, 1));
            } else {
                applyRawButton(record, evtype, raw.detail);
            }
        }
        XFreeEventData(m_display, &event.xcookie);
        if (!isRawPointerEvent(evtype))
            return ReadOutcome::Skipped;
        if (evtype == XI_RawMotion) {
            const auto [x, y] = queryPointerPosition();
            record.screenPoint = Point2{x, y};
        }
        return ReadOutcome::Record;
    }

    /// The pointer position in root-window coordinates; (0, 0) when the query fails. Only inside `call`.
    std::pair<int32_t, int32_t> queryPointerPosition() const {
        Window rootReturn = 0;
        Window childReturn = 0;
        int rootX = 0;
        int rootY = 0;
        int winX = 0;
        int winY = 0;
        unsigned int mask = 0;
        XQueryPointer(m_display, m_rootWindow, &rootReturn, &childReturn, &rootX, &rootY, &winX, &winY, &mask);
        return {rootX, rootY};
    }

private:
    /// Whether an input device of the server has a name that only Xwayland gives. Only inside `call`.
    bool hasXwaylandDevices() const {
        int count = 0;
        XIDeviceInfo* devices = XIQueryDevice(m_display, XIAllDevices, &count);
        bool found = false;
        for (int i = 0; i < count && !found; ++i)
            found = isXwaylandDeviceName(devices[i].name);
        if (devices)
            XIFreeDeviceInfo(devices);
        return found;
    }

    /// Whether `event` is a stop request: a client message with the close atom, whatever its window.
    bool isCloseInputEvent(const XEvent& event) const {
        return event.type == ClientMessage && isCloseMessage(event.type, event.xclient.message_type, m_closeAtom);
    }

    Display* m_display = nullptr;
    Window m_rootWindow = 0;
    Window m_internalWindow = 0;
    int m_xiOpcode = 0;
    Atom m_closeAtom = 0;
    bool m_lost = false;
    bool m_xwayland = false;
    std::string m_displayName;  ///< for the report of a lost connection
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

XRawInputDriver::XRawInputDriver()
    : m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_endedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

XRawInputDriver::~XRawInputDriver() {
    releasePointerCapture();
    for (const int fd : {m_wakeFd, m_endedFd}) {
        if (fd >= 0)
            close(fd);
    }
}

void XRawInputDriver::capturePointer(std::unique_ptr<Callback> callback,
                                     std::unique_ptr<StatusCallback> statusCallback) {
    // No reader runs here (or one runs that was never asked to stop): a stale request must not end the next one.
    m_stopRequested.store(false);
    for (const int fd : {m_wakeFd, m_endedFd}) {
        uint64_t pending = 0;
        if (fd >= 0)
            (void)!read(fd, &pending, sizeof(pending));
    }
    RawInputDriverBase::capturePointer(std::move(callback), std::move(statusCallback));
}

void XRawInputDriver::reportConnectionLost(const std::string& displayName) {
    // A connection dropped by a stop is no loss to report.
    if (m_stopRequested.load())
        return;
    COMMON_LOG_AT(Level::Error, kFile, __LINE__, "Lost the connection to X display {0}: pointer capture ended",
                  displayName);
    notifyStatus(CaptureStatus::Lost);
}

void XRawInputDriver::processInput() {
    // Declared first, so that it runs last, after the connection is closed: the reader's end, told to a waiting stop.
    struct ReaderEnd {
        XRawInputDriver& driver;
        ~ReaderEnd() {
            {
                std::lock_guard<std::mutex> lock(driver.m_readerLock);
                if (driver.m_connectionFd >= 0)
                    close(std::exchange(driver.m_connectionFd, -1));
            }
            const uint64_t one = 1;
            if (driver.m_endedFd >= 0)
                (void)!write(driver.m_endedFd, &one, sizeof(one));
        }
    } readerEnd{*this};
    if (m_stopRequested.load())
        return;
    if (m_wakeFd < 0) {
        COMMON_LOG_AT(Level::Error, kFile, __LINE__, "Fail to create the raw input wake-up");
        return notifyStatus(CaptureStatus::Failed);
    }

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
        return notifyStatus(CaptureStatus::NoDisplay);
    }
    {
        // A copy of the connection's descriptor that lives until the reader ends, for a stop to drop the connection.
        std::lock_guard<std::mutex> lock(m_readerLock);
        m_connectionFd = fcntl(ConnectionNumber(client.display()), F_DUPFD_CLOEXEC, 0);
    }
    client.setUp();
    if (client.lost())
        return reportConnectionLost(client.displayName());
    if (!client.complete())
        return notifyStatus(CaptureStatus::NoXInput);  // the client has logged why

    unsigned char maskBytes[kRawEventMaskLength] = {};
    fillRawEventMask(maskBytes);
    XIEventMask mask;
    mask.deviceid = XIAllMasterDevices;
    mask.mask_len = kRawEventMaskLength;
    mask.mask = maskBytes;
    int selectResult = 0;
    if (!client.call([&] {
            selectResult = XISelectEvents(client.display(), client.rootWindow(), &mask, 1);
            if (selectResult == 0) {
                XFlush(client.display());
                (void)client.queryPointerPosition();
            }
        }))
        return reportConnectionLost(client.displayName());
    if (selectResult != 0) {
        COMMON_LOG_AT(Level::Error, kFile, 287, "Fail to select XInput events mask");
        return notifyStatus(CaptureStatus::SelectRefused);
    }
    // The position query's answer came after the server had handled the selection: raw events flow from here on.
    notifyStatus(CaptureStatus::Live);
    if (client.xwayland()) {
        COMMON_LOG_AT(Level::Warning, kFile, __LINE__, statusEvent(CaptureStatus::Xwayland).message);
        notifyStatus(CaptureStatus::Xwayland);
    }

    // Waits on the connection and on the wake-up together: a stop never needs the X server.
    pollfd waits[2] = {{ConnectionNumber(client.display()), POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    for (;;) {
        for (;;) {
            if (m_stopRequested.load())
                return;
            PointerData record;
            ReadOutcome outcome = ReadOutcome::Empty;
            if (!client.call([&] { outcome = client.readEvent(record, queueMemory.peakQueued); }))
                return reportConnectionLost(client.displayName());
            if (outcome == ReadOutcome::Empty)
                break;
            if (outcome == ReadOutcome::Close) {
                // A stop never sends the message (it wakes the reader through m_wakeFd): another client did.
                COMMON_LOG_AT(Level::Warning, kFile, __LINE__, statusEvent(CaptureStatus::Closed).message);
                return notifyStatus(CaptureStatus::Closed);
            }
            if (outcome == ReadOutcome::Record)
                notifyPointerEvent(record);
        }
        // A hang-up or error on the connection wakes the poll; the next read reports the loss.
        if (poll(waits, 2, -1) < 0 && errno != EINTR) {
            COMMON_LOG_AT(Level::Error, kFile, __LINE__, "Fail to wait for X events (error {0})", errno);
            return notifyStatus(CaptureStatus::Failed);
        }
    }
}

void XRawInputDriver::breakInputProcessing(uint64_t /*threadHandle*/) {
    m_stopRequested.store(true);
    const uint64_t one = 1;
    if (m_wakeFd >= 0)
        (void)!write(m_wakeFd, &one, sizeof(one));
    // A reader in a round trip with a server that does not answer never sees the wake-up: drop its connection
    // (the reader then abandons it as lost) so that the join that follows cannot hang.
    pollfd ended = {m_endedFd, POLLIN, 0};
    if (poll(&ended, 1, static_cast<int>(kStopGrace.count())) > 0)
        return;
    std::lock_guard<std::mutex> lock(m_readerLock);
    if (m_connectionFd >= 0)
        shutdown(m_connectionFd, SHUT_RDWR);
}

common::ComPtr<RawInputDriver> RawInputDriver::create() {
    return common::com::createInstance<XRawInputDriver, RawInputDriver>();
}

}  // namespace zel
