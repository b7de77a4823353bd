/* xraw: what the reference readers (xreader, xhandoff) share: options, the XInput2 raw event selection, one
 * record per raw event, and the output line format. */
#ifndef ZEL_TOOLS_XRAW_H
#define ZEL_TOOLS_XRAW_H

#include <X11/Xlib.h>
#include <stdio.h>

/* Command-line options: [-d DISPLAY] [-n N] [-T MS]. */
typedef struct XRawOptions {
    const char* displayName; /* NULL: $DISPLAY */
    long limit;              /* leave after this many events; 0: no limit */
    long timeoutMs;          /* leave after this many milliseconds in total; 0: no limit */
} XRawOptions;

/* One raw event as the readers report it. */
typedef enum XRawKind { XRAW_NONE, XRAW_MOTION, XRAW_PRESS, XRAW_RELEASE } XRawKind;

typedef struct XRawRecord {
    XRawKind kind;
    long long receivedNs; /* CLOCK_MONOTONIC when XNextEvent returned the event */
    double dx, dy;        /* motion: raw valuators 0 and 1, 0 when unset */
    int x, y;             /* motion: the pointer position (XQueryPointer) */
    int button;           /* press, release: the button number */
} XRawRecord;

/* A display connection with raw motion and raw button press/release selected on the root window. */
typedef struct XRawReader {
    Display* display;
    Window root;
    int opcode; /* major opcode of XInputExtension */
} XRawReader;

/* CLOCK_MONOTONIC now, in nanoseconds. */
long long xrawNowNs(void);

/* Parses the options; on a usage error prints the usage line of `program` and returns 0. */
int xrawParseOptions(int argc, char** argv, const char* program, XRawOptions* options);

/* Opens the display, checks XInput 2.1 and selects the raw events for all master devices, then waits until the
 * selection is active (XSync). Returns 0, or prints why on standard error and returns 2. */
int xrawOpen(XRawReader* reader, const char* program, const char* displayName);

/* Waits for the next event until `deadline` (CLOCK_MONOTONIC ns, 0: none) and reads it into `record`: a raw
 * motion (with the pointer position queried at once, as the input driver does), press or release; any other
 * event gives kind XRAW_NONE. Returns 0 at the deadline or when the connection fails, 1 otherwise. */
int xrawNext(XRawReader* reader, long long deadline, XRawRecord* record);

/* Writes `record` as one line stamped `ns`: "NS motion DX DY X Y", "NS press B" or "NS release B". */
void xrawPrint(FILE* out, long long ns, const XRawRecord* record);

#endif
