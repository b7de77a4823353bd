/* xreader: a bare XInput2 raw event reader, the reference for latency and throughput measurements.
 *
 * Usage: xreader [-d DISPLAY] [-n N] [-T MS]
 *
 * Selects raw motion, raw button press and raw button release on the root window for all master devices,
 * the way the input driver does, and prints one line per event on standard output:
 *
 *   NS motion DX DY X Y     raw valuators 0 and 1 (0 when unset) and the pointer position (XQueryPointer)
 *   NS press BUTTON
 *   NS release BUTTON
 *
 * NS is the CLOCK_MONOTONIC time in nanoseconds at which the event was read. Lines starting with '#' are
 * comments: "# ready" once the selection is active (start injecting after it), "# events COUNT" at the end.
 *
 *   -n N   leave after N events (0, the default: no limit)
 *   -T MS  leave after MS milliseconds in total (0, the default: no limit)
 *
 * Exit status: 0 after N events (or at the timeout when no N was given), 2 when the display or XInput 2 is
 * missing, 3 at the timeout before N events.
 */
#define _GNU_SOURCE

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>

static long long nowNs(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

/* Valuator `index` of a raw event, indexed by the valuator number, 0 when unset. */
static double rawValuator(const XIRawEvent* event, int index) {
    if (index < event->valuators.mask_len * 8 && XIMaskIsSet(event->valuators.mask, index))
        return event->raw_values[index];
    return 0.0;
}

/* Waits until an event is queued or `deadline` (ns, 0: none) passes; returns whether one is queued. */
static int waitForEvent(Display* display, long long deadline) {
    while (XPending(display) == 0) {
        int timeoutMs = -1;
        if (deadline != 0) {
            const long long left = deadline - nowNs();
            if (left <= 0)
                return 0;
            timeoutMs = (int)((left + 999999) / 1000000);
        }
        struct pollfd pfd = {ConnectionNumber(display), POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) < 0 && errno != EINTR)
            return 0;
    }
    return 1;
}

static int parseLong(const char* text, long* value) {
    char* end = NULL;
    errno = 0;
    *value = strtol(text, &end, 10);
    return text[0] != '\0' && *end == '\0' && errno == 0 && *value >= 0;
}

int main(int argc, char** argv) {
    const char* displayName = NULL;
    long limit = 0;
    long timeoutMs = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-d") == 0 && i + 1 < argc) {
            displayName = argv[++i];
        } else if (strcmp(argv[i], "-n") == 0 && i + 1 < argc && parseLong(argv[i + 1], &limit)) {
            ++i;
        } else if (strcmp(argv[i], "-T") == 0 && i + 1 < argc && parseLong(argv[i + 1], &timeoutMs)) {
            ++i;
        } else {
            fprintf(stderr, "usage: xreader [-d DISPLAY] [-n N] [-T MS]\n");
            return 1;
        }
    }

    Display* display = XOpenDisplay(displayName);
    if (!display) {
        fprintf(stderr, "xreader: cannot open display %s\n", XDisplayName(displayName));
        return 2;
    }
    int opcode = 0, firstEvent = 0, firstError = 0;
    int major = 2, minor = 1;
    if (!XQueryExtension(display, "XInputExtension", &opcode, &firstEvent, &firstError) ||
        XIQueryVersion(display, &major, &minor) != Success) {
        fprintf(stderr, "xreader: XInput 2.1 is not available\n");
        XCloseDisplay(display);
        return 2;
    }

    const Window root = DefaultRootWindow(display);
    unsigned char maskBytes[XIMaskLen(XI_LASTEVENT)];
    memset(maskBytes, 0, sizeof maskBytes);
    XISetMask(maskBytes, XI_RawMotion);
    XISetMask(maskBytes, XI_RawButtonPress);
    XISetMask(maskBytes, XI_RawButtonRelease);
    XIEventMask mask = {XIAllMasterDevices, (int)sizeof maskBytes, maskBytes};
    XISelectEvents(display, root, &mask, 1);
    XSync(display, False);
    printf("# ready\n");
    fflush(stdout);

    const long long deadline = timeoutMs ? nowNs() + timeoutMs * 1000000LL : 0;
    long events = 0;
    while (limit == 0 || events < limit) {
        if (!waitForEvent(display, deadline))
            break;
        XEvent event;
        XNextEvent(display, &event);
        const long long received = nowNs();
        if (event.type != GenericEvent || event.xcookie.extension != opcode || !XGetEventData(display, &event.xcookie))
            continue;
        const XIRawEvent* raw = (const XIRawEvent*)event.xcookie.data;
        switch (event.xcookie.evtype) {
        case XI_RawMotion: {
            Window rootReturn = 0, child = 0;
            int x = 0, y = 0, winX = 0, winY = 0;
            unsigned int buttons = 0;
            XQueryPointer(display, root, &rootReturn, &child, &x, &y, &winX, &winY, &buttons);
            printf("%lld motion %g %g %d %d\n", received, rawValuator(raw, 0), rawValuator(raw, 1), x, y);
            ++events;
            break;
        }
        case XI_RawButtonPress:
        case XI_RawButtonRelease:
            printf("%lld %s %d\n", received, event.xcookie.evtype == XI_RawButtonPress ? "press" : "release",
                   raw->detail);
            ++events;
            break;
        default:
            break;
        }
        XFreeEventData(display, &event.xcookie);
    }
    printf("# events %ld\n", events);
    fflush(stdout);
    XCloseDisplay(display);
    return (limit != 0 && events < limit) ? 3 : 0;
}
