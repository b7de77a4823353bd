#define _GNU_SOURCE

#include "xraw.h"

#include <X11/extensions/XInput2.h>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

long long xrawNowNs(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

static int parseLong(const char* text, long* value) {
    char* end = NULL;
    errno = 0;
    *value = strtol(text, &end, 10);
    return text[0] != '\0' && *end == '\0' && errno == 0 && *value >= 0;
}

int xrawParseOptions(int argc, char** argv, const char* program, XRawOptions* options) {
    options->displayName = NULL;
    options->limit = 0;
    options->timeoutMs = 0;
    for (int i = 1; i < argc; i += 2) {
        const char* value = i + 1 < argc ? argv[i + 1] : NULL;
        int valid = 0;
        if (value && strcmp(argv[i], "-d") == 0) {
            options->displayName = value;
            valid = 1;
        } else if (value && strcmp(argv[i], "-n") == 0) {
            valid = parseLong(value, &options->limit);
        } else if (value && strcmp(argv[i], "-T") == 0) {
            valid = parseLong(value, &options->timeoutMs);
        }
        if (!valid) {
            fprintf(stderr, "usage: %s [-d DISPLAY] [-n N] [-T MS]\n", program);
            return 0;
        }
    }
    return 1;
}

int xrawOpen(XRawReader* reader, const char* program, const char* displayName) {
    reader->display = XOpenDisplay(displayName);
    if (!reader->display) {
        fprintf(stderr, "%s: cannot open display %s\n", program, XDisplayName(displayName));
        return 2;
    }
    int firstEvent = 0, firstError = 0;
    int major = 2, minor = 1;
    if (!XQueryExtension(reader->display, "XInputExtension", &reader->opcode, &firstEvent, &firstError) ||
        XIQueryVersion(reader->display, &major, &minor) != Success) {
        fprintf(stderr, "%s: XInput 2.1 is not available\n", program);
        XCloseDisplay(reader->display);
        reader->display = NULL;
        return 2;
    }

    reader->root = DefaultRootWindow(reader->display);
    unsigned char maskBytes[XIMaskLen(XI_LASTEVENT)];
    memset(maskBytes, 0, sizeof maskBytes);
    XISetMask(maskBytes, XI_RawMotion);
    XISetMask(maskBytes, XI_RawButtonPress);
    XISetMask(maskBytes, XI_RawButtonRelease);
    XIEventMask mask = {XIAllMasterDevices, (int)sizeof maskBytes, maskBytes};
    XISelectEvents(reader->display, reader->root, &mask, 1);
    XSync(reader->display, False);
    return 0;
}

/* How many of the first `bits` valuator bits of a raw event are set: its count of values for them. */
static int setBits(const XIRawEvent* event, int bits) {
    int count = 0;
    for (int i = 0; i < bits; ++i)
        count += XIMaskIsSet(event->valuators.mask, i) != 0;
    return count;
}

/* Valuator `index` of a raw event, 0 when unset: as the module reads it, by the valuator number where that is below
   the count of values, else at the valuator's place among the set bits (never past the array). */
static double rawValuator(const XIRawEvent* event, int index) {
    if (index >= event->valuators.mask_len * 8 || !XIMaskIsSet(event->valuators.mask, index))
        return 0.0;
    const int count = setBits(event, event->valuators.mask_len * 8);
    return event->raw_values[index < count ? index : setBits(event, index)];
}

/* Waits until an event is queued or `deadline` (ns, 0: none) passes; returns whether one is queued. */
static int waitForEvent(Display* display, long long deadline) {
    while (XPending(display) == 0) {
        int timeoutMs = -1;
        if (deadline != 0) {
            const long long left = deadline - xrawNowNs();
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

int xrawNext(XRawReader* reader, long long deadline, XRawRecord* record) {
    if (!waitForEvent(reader->display, deadline))
        return 0;
    XEvent event;
    XNextEvent(reader->display, &event);
    memset(record, 0, sizeof *record);
    record->receivedNs = xrawNowNs();
    if (event.type != GenericEvent || event.xcookie.extension != reader->opcode ||
        !XGetEventData(reader->display, &event.xcookie))
        return 1;
    const XIRawEvent* raw = (const XIRawEvent*)event.xcookie.data;
    switch (event.xcookie.evtype) {
        case XI_RawMotion: {
            Window rootReturn = 0, child = 0;
            int winX = 0, winY = 0;
            unsigned int buttons = 0;
            XQueryPointer(reader->display, reader->root, &rootReturn, &child, &record->x, &record->y, &winX, &winY,
                          &buttons);
            record->kind = XRAW_MOTION;
            record->dx = rawValuator(raw, 0);
            record->dy = rawValuator(raw, 1);
            break;
        }
        case XI_RawButtonPress:
        case XI_RawButtonRelease:
            record->kind = event.xcookie.evtype == XI_RawButtonPress ? XRAW_PRESS : XRAW_RELEASE;
            record->button = raw->detail;
            break;
        default:
            break;
    }
    XFreeEventData(reader->display, &event.xcookie);
    return 1;
}

void xrawPrint(FILE* out, long long ns, const XRawRecord* record) {
    switch (record->kind) {
        case XRAW_MOTION:
            fprintf(out, "%lld motion %g %g %d %d\n", ns, record->dx, record->dy, record->x, record->y);
            break;
        case XRAW_PRESS:
        case XRAW_RELEASE:
            fprintf(out, "%lld %s %d\n", ns, record->kind == XRAW_PRESS ? "press" : "release", record->button);
            break;
        case XRAW_NONE:
            break;
    }
}
