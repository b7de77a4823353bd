/* xinject: drives the X server's pointer through XTest, for tests and benchmarks.
 *
 * Usage: xinject [-d DISPLAY] COMMAND [ARGS] [-n N] [-r RATE] [-t]
 *
 *   move DX DY       relative motion by (DX, DY); the pointer is never warped
 *   wiggle DX DY     relative motions by (DX, DY) and (-DX, -DY) in turn: input that leaves the pointer in place
 *   click BUTTON     press and release BUTTON (1..7)
 *   press BUTTON     press BUTTON and leave it held (the server keeps it down after xinject exits)
 *   release BUTTON   release BUTTON
 *   hold BUTTON MS   press BUTTON, keep it down for MS milliseconds, release it
 *   pos              print the pointer position "X Y"
 *   closecapture     send "_APP_CLOSE_INPUT" to the hidden window of every running capture, as another client
 *                    may; print how many windows got it
 *   script           read commands from standard input, one per line (see below)
 *
 *   -n N     repeat the command N times (move, wiggle, click; default 1)
 *   -r RATE  send RATE commands per second (0, the default, sends back to back)
 *   -t       print the CLOCK_MONOTONIC time in nanoseconds of every sent event (taken right before the request
 *            is written), one per line
 *   -d NAME  the display to use instead of $DISPLAY
 *
 * Script mode commands (answers go to standard output, flushed at once):
 *   move DX DY [N [RATE]]   N relative motions (default 1) at RATE per second (default 0, back to back)
 *   press B | release B | click B [N [RATE]] | hold B MS
 *   sync                    XSync, then print "ok"
 *   pos                     print "X Y"
 *   closecapture            as above
 *   window | nowindow       map a window that covers the screen (override-redirect: no window manager places or
 *                           decorates it), or destroy it; under a Wayland compositor this puts an X11 window
 *                           under the pointer or takes it away
 *   quit                    leave (so does the end of input)
 * An unknown or malformed line prints "error: ..." and script mode goes on.
 *
 * Every send is followed by XFlush; every command by XSync, so events have reached the server on return.
 * Exit status: 0 on success, 1 on a usage error, 2 when the display or XTest is missing.
 */
#define _GNU_SOURCE

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "words.h"

static int g_printTimes = 0;

static long long nowNs(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

/* Sleeps until the absolute CLOCK_MONOTONIC time `deadline` (ns). */
static void sleepUntil(long long deadline) {
    struct timespec ts;
    ts.tv_sec = (time_t)(deadline / 1000000000LL);
    ts.tv_nsec = (long)(deadline % 1000000000LL);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL) == EINTR) {
    }
}

/* Flushes the request just queued and reports its send time when asked: the time before the write, since the
 * writer can lose the processor to the server and the reader before it takes a time after the write, and an event
 * must not be read before it was sent. */
static void sent(Display* display) {
    const long long at = nowNs();
    XFlush(display);
    if (g_printTimes)
        printf("%lld\n", at);
}

static int validButton(long button) { return button >= 1 && button <= 7; }

/* Runs `count` rounds of `step` at `rate` rounds per second (0: back to back). */
typedef void (*Step)(Display* display, long a, long b);

static void repeat(Display* display, Step step, long a, long b, long count, double rate) {
    const long long start = nowNs();
    for (long i = 0; i < count; ++i) {
        if (rate > 0)
            sleepUntil(start + (long long)((double)i * 1e9 / rate));
        step(display, a, b);
    }
    XSync(display, False);
}

static void moveStep(Display* display, long dx, long dy) {
    XTestFakeRelativeMotionEvent(display, (int)dx, (int)dy, CurrentTime);
    sent(display);
}

static void wiggleStep(Display* display, long dx, long dy) {
    static long sign = 1;
    moveStep(display, sign * dx, sign * dy);
    sign = -sign;
}

static void clickStep(Display* display, long button, long unused) {
    (void)unused;
    XTestFakeButtonEvent(display, (unsigned)button, True, CurrentTime);
    sent(display);
    XTestFakeButtonEvent(display, (unsigned)button, False, CurrentTime);
    sent(display);
}

static void buttonStep(Display* display, long button, long press) {
    XTestFakeButtonEvent(display, (unsigned)button, press ? True : False, CurrentTime);
    sent(display);
}

static void hold(Display* display, long button, long ms) {
    buttonStep(display, button, 1);
    XSync(display, False);
    sleepUntil(nowNs() + ms * 1000000LL);
    buttonStep(display, button, 0);
    XSync(display, False);
}

static void printPosition(Display* display) {
    Window root = 0, child = 0;
    int rootX = 0, rootY = 0, winX = 0, winY = 0;
    unsigned int mask = 0;
    XQueryPointer(display, DefaultRootWindow(display), &root, &child, &rootX, &rootY, &winX, &winY, &mask);
    printf("%d %d\n", rootX, rootY);
}

/* The window of "window", 0 when there is none. */
static Window g_window = 0;

static void showWindow(Display* display, int show) {
    if (show && !g_window) {
        XSetWindowAttributes attributes;
        attributes.override_redirect = True;
        attributes.background_pixel = BlackPixel(display, DefaultScreen(display));
        g_window =
            XCreateWindow(display, DefaultRootWindow(display), 0, 0, DisplayWidth(display, DefaultScreen(display)),
                          DisplayHeight(display, DefaultScreen(display)), 0, CopyFromParent, InputOutput,
                          CopyFromParent, CWOverrideRedirect | CWBackPixel, &attributes);
        XMapWindow(display, g_window);
    } else if (!show && g_window) {
        XDestroyWindow(display, g_window);
        g_window = 0;
    }
    XSync(display, False);
}

/* Sends the close message "_APP_CLOSE_INPUT" to every top-level window named "ZEL:EventReceiver" (the hidden
 * window of each running capture), as any other client of the display may; prints how many got it. */
static void closeCaptures(Display* display) {
    const Atom close = XInternAtom(display, "_APP_CLOSE_INPUT", False);
    Window root = 0, parent = 0, *children = NULL;
    unsigned int count = 0, sent = 0;
    if (XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count)) {
        for (unsigned int i = 0; i < count; ++i) {
            char* name = NULL;
            if (XFetchName(display, children[i], &name) && name && strcmp(name, "ZEL:EventReceiver") == 0) {
                XEvent event;
                memset(&event, 0, sizeof event);
                event.xclient.type = ClientMessage;
                event.xclient.window = children[i];
                event.xclient.message_type = close;
                event.xclient.format = 32;
                XSendEvent(display, children[i], False, NoEventMask, &event);
                ++sent;
            }
            if (name)
                XFree(name);
        }
        if (children)
            XFree(children);
    }
    XSync(display, False);
    printf("%u\n", sent);
}

static int parseLong(const char* text, long* value) {
    char* end = NULL;
    errno = 0;
    *value = strtol(text, &end, 10);
    return text[0] != '\0' && *end == '\0' && errno == 0;
}

static int parseRate(const char* text, double* value) {
    char* end = NULL;
    errno = 0;
    *value = strtod(text, &end);
    return text[0] != '\0' && *end == '\0' && errno == 0 && *value >= 0;
}

/* Runs one command given as words; returns NULL on success or an error text. */
static const char* runCommand(Display* display, int argc, char** argv, long count, double rate) {
    long a = 0, b = 0;
    if (argc < 1)
        return "empty command";
    const char* name = argv[0];
    if (strcmp(name, "move") == 0 || strcmp(name, "wiggle") == 0) {
        if (argc != 3 || !parseLong(argv[1], &a) || !parseLong(argv[2], &b))
            return "usage: move|wiggle DX DY";
        repeat(display, name[0] == 'm' ? moveStep : wiggleStep, a, b, count, rate);
    } else if (strcmp(name, "click") == 0) {
        if (argc != 2 || !parseLong(argv[1], &a) || !validButton(a))
            return "usage: click BUTTON (1..7)";
        repeat(display, clickStep, a, 0, count, rate);
    } else if (strcmp(name, "press") == 0 || strcmp(name, "release") == 0) {
        if (argc != 2 || !parseLong(argv[1], &a) || !validButton(a))
            return "usage: press|release BUTTON (1..7)";
        buttonStep(display, a, name[0] == 'p');
        XSync(display, False);
    } else if (strcmp(name, "hold") == 0) {
        if (argc != 3 || !parseLong(argv[1], &a) || !validButton(a) || !parseLong(argv[2], &b) || b < 0)
            return "usage: hold BUTTON MS";
        hold(display, a, b);
    } else if (strcmp(name, "pos") == 0) {
        if (argc != 1)
            return "usage: pos";
        printPosition(display);
    } else if (strcmp(name, "window") == 0 || strcmp(name, "nowindow") == 0) {
        if (argc != 1)
            return "usage: window | nowindow";
        showWindow(display, name[0] == 'w');
    } else if (strcmp(name, "closecapture") == 0) {
        if (argc != 1)
            return "usage: closecapture";
        closeCaptures(display);
    } else if (strcmp(name, "sync") == 0) {
        if (argc != 1)
            return "usage: sync";
        XSync(display, False);
        printf("ok\n");
    } else {
        return "unknown command";
    }
    return NULL;
}

/* Script mode: one command per line; "move"/"click" take optional trailing N and RATE. */
static int runScript(Display* display) {
    char line[512];
    char* words[8];
    for (int count = 0; (count = readCommand(line, sizeof line, words, 8)) >= 0;) {
        if (count == 0)
            continue;

        long repeatCount = 1;
        double rate = 0;
        int commandWords = count;
        const int isMove = strcmp(words[0], "move") == 0;
        const int isClick = strcmp(words[0], "click") == 0;
        const int base = isMove ? 3 : isClick ? 2 : count;
        const char* error = NULL;
        if ((isMove || isClick) && count > base) {
            commandWords = base;
            if (!parseLong(words[base], &repeatCount) || repeatCount < 0)
                error = "bad repeat count";
            else if (count > base + 1 && (count > base + 2 || !parseRate(words[base + 1], &rate)))
                error = "bad rate";
        }
        if (!error)
            error = runCommand(display, commandWords, words, repeatCount, rate);
        if (error)
            printf("error: %s\n", error);
        fflush(stdout);
    }
    XSync(display, False);
    return 0;
}

static void usage(void) {
    fprintf(
        stderr,
        "usage: xinject [-d DISPLAY] move DX DY | wiggle DX DY | click B | press B | release B | hold B MS | pos |\n"
        "               closecapture | script\n"
        "               [-n N] [-r RATE] [-t]\n");
}

int main(int argc, char** argv) {
    const char* displayName = NULL;
    long count = 1;
    double rate = 0;
    char* words[8];
    int wordCount = 0;

    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (strcmp(arg, "-t") == 0) {
            g_printTimes = 1;
        } else if (strcmp(arg, "-d") == 0 && i + 1 < argc) {
            displayName = argv[++i];
        } else if (strcmp(arg, "-n") == 0 && i + 1 < argc) {
            if (!parseLong(argv[++i], &count) || count < 0) {
                usage();
                return 1;
            }
        } else if (strcmp(arg, "-r") == 0 && i + 1 < argc) {
            if (!parseRate(argv[++i], &rate)) {
                usage();
                return 1;
            }
        } else if ((arg[0] == '-' && !(arg[1] >= '0' && arg[1] <= '9')) || wordCount == 8) {
            usage();
            return 1;
        } else {
            words[wordCount++] = argv[i];
        }
    }
    if (wordCount == 0) {
        usage();
        return 1;
    }

    Display* display = XOpenDisplay(displayName);
    if (!display) {
        fprintf(stderr, "xinject: cannot open display %s\n", XDisplayName(displayName));
        return 2;
    }
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    if (!XTestQueryExtension(display, &eventBase, &errorBase, &major, &minor)) {
        fprintf(stderr, "xinject: the XTEST extension is missing\n");
        XCloseDisplay(display);
        return 2;
    }

    int status = 0;
    if (strcmp(words[0], "script") == 0 && wordCount == 1) {
        status = runScript(display);
    } else {
        const char* error = runCommand(display, wordCount, words, count, rate);
        if (error) {
            fprintf(stderr, "xinject: %s\n", error);
            status = 1;
        }
    }
    fflush(stdout);
    XSync(display, False);
    XCloseDisplay(display);
    return status;
}
