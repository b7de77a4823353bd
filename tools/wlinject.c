/* wlinject: drives a Wayland compositor's pointer through one virtual pointer (the wlroots virtual-pointer protocol,
 * tools/protocols/wlr-virtual-pointer-unstable-v1.xml), for tests.
 *
 * Usage: wlinject [-d WAYLAND_DISPLAY]
 *
 * Creates one virtual pointer on the compositor named by -d (else $WAYLAND_DISPLAY) and reads commands from standard
 * input, one per line; answers go to standard output, flushed at once:
 *   move DX DY          relative motion by (DX, DY) pixels (fractions allowed)
 *   moveto X Y W H      absolute position (X, Y) in a W by H extent that covers the whole layout
 *   press B | release B | click B    button B: 1 left, 2 middle, 3 right
 *   sync                a round trip with the compositor (it has handled everything sent before), then "ok"
 *   quit                leave (so do the end of input and the compositor going away)
 * An unknown or malformed line prints "error: ..." and the reading goes on. Every command ends with a frame.
 *
 * The pointer lives as long as this program: some compositors (sway 1.7) crash when a virtual pointer goes away, so
 * keep one wlinject for the compositor's whole life and end the compositor first.
 * Exit status: 0 on success, 1 on a usage error, 2 when the compositor or the protocol is missing.
 */
#define _GNU_SOURCE

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <wayland-client.h>

#include "wlr-virtual-pointer-unstable-v1-client-protocol.h"
#include "words.h"

/* evdev codes of the left, right and middle buttons (linux/input-event-codes.h). */
enum { kBtnLeft = 0x110, kBtnRight = 0x111, kBtnMiddle = 0x112 };

static struct wl_seat* g_seat;
static struct zwlr_virtual_pointer_manager_v1* g_manager;

static void onGlobal(void* data, struct wl_registry* registry, uint32_t name, const char* interface, uint32_t version) {
    (void)data;
    (void)version;
    if (strcmp(interface, wl_seat_interface.name) == 0 && !g_seat)
        g_seat = wl_registry_bind(registry, name, &wl_seat_interface, 1);
    else if (strcmp(interface, zwlr_virtual_pointer_manager_v1_interface.name) == 0)
        g_manager = wl_registry_bind(registry, name, &zwlr_virtual_pointer_manager_v1_interface, 1);
}

static void onGlobalRemove(void* data, struct wl_registry* registry, uint32_t name) {
    (void)data;
    (void)registry;
    (void)name;
}

static const struct wl_registry_listener kRegistryListener = {onGlobal, onGlobalRemove};

static uint32_t nowMs(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint32_t)(ts.tv_sec * 1000 + ts.tv_nsec / 1000000);
}

/* The evdev code of button 1 (left), 2 (middle) or 3 (right); 0 for any other text. */
static uint32_t buttonCode(const char* text) {
    if (strcmp(text, "1") == 0)
        return kBtnLeft;
    if (strcmp(text, "2") == 0)
        return kBtnMiddle;
    if (strcmp(text, "3") == 0)
        return kBtnRight;
    return 0;
}

/* Runs one command given as words; returns NULL on success or an error text. */
static const char* runCommand(struct wl_display* display, struct zwlr_virtual_pointer_v1* pointer, int argc,
                              char** argv) {
    const char* name = argv[0];
    const uint32_t time = nowMs();
    if (strcmp(name, "move") == 0) {
        char* end1 = NULL;
        char* end2 = NULL;
        const double dx = argc == 3 ? strtod(argv[1], &end1) : 0;
        const double dy = argc == 3 ? strtod(argv[2], &end2) : 0;
        if (argc != 3 || *end1 != '\0' || *end2 != '\0')
            return "usage: move DX DY";
        zwlr_virtual_pointer_v1_motion(pointer, time, wl_fixed_from_double(dx), wl_fixed_from_double(dy));
    } else if (strcmp(name, "moveto") == 0) {
        unsigned long v[4] = {0, 0, 0, 0};
        for (int i = 0; i < 4 && argc == 5; ++i) {
            char* end = NULL;
            v[i] = strtoul(argv[i + 1], &end, 10);
            if (*end != '\0')
                return "usage: moveto X Y W H";
        }
        if (argc != 5 || v[0] > v[2] || v[1] > v[3])
            return "usage: moveto X Y W H";
        zwlr_virtual_pointer_v1_motion_absolute(pointer, time, (uint32_t)v[0], (uint32_t)v[1], (uint32_t)v[2],
                                                (uint32_t)v[3]);
    } else if (strcmp(name, "press") == 0 || strcmp(name, "release") == 0 || strcmp(name, "click") == 0) {
        const uint32_t code = argc == 2 ? buttonCode(argv[1]) : 0;
        if (code == 0)
            return "usage: press|release|click BUTTON (1..3)";
        if (name[0] != 'r')
            zwlr_virtual_pointer_v1_button(pointer, time, code, WL_POINTER_BUTTON_STATE_PRESSED);
        if (name[0] == 'c')
            zwlr_virtual_pointer_v1_frame(pointer);
        if (name[0] != 'p')
            zwlr_virtual_pointer_v1_button(pointer, time, code, WL_POINTER_BUTTON_STATE_RELEASED);
    } else if (strcmp(name, "sync") == 0) {
        if (argc != 1)
            return "usage: sync";
        if (wl_display_roundtrip(display) < 0)
            return "the compositor is gone";
        printf("ok\n");
        return NULL;
    } else {
        return "unknown command";
    }
    zwlr_virtual_pointer_v1_frame(pointer);
    wl_display_flush(display);
    return NULL;
}

/* Waits for a line on standard input; false when the compositor hangs up first. */
static int waitForInput(struct wl_display* display) {
    struct pollfd waits[2] = {{STDIN_FILENO, POLLIN, 0}, {wl_display_get_fd(display), POLLIN, 0}};
    for (;;) {
        if (poll(waits, 2, -1) < 0)
            return 0;
        if (waits[0].revents)
            return 1;
        /* Compositor events (none are expected) or its hang-up. */
        if (wl_display_dispatch(display) < 0)
            return 0;
    }
}

int main(int argc, char** argv) {
    const char* name = NULL;
    if (argc == 3 && strcmp(argv[1], "-d") == 0)
        name = argv[2];
    else if (argc != 1) {
        fprintf(stderr, "usage: wlinject [-d WAYLAND_DISPLAY]\n");
        return 1;
    }
    struct wl_display* display = wl_display_connect(name);
    if (!display) {
        fprintf(stderr, "wlinject: cannot connect to the Wayland compositor\n");
        return 2;
    }
    struct wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &kRegistryListener, NULL);
    wl_display_roundtrip(display);
    if (!g_manager) {
        fprintf(stderr, "wlinject: the compositor offers no %s\n", zwlr_virtual_pointer_manager_v1_interface.name);
        return 2;
    }
    struct zwlr_virtual_pointer_v1* pointer = zwlr_virtual_pointer_manager_v1_create_virtual_pointer(g_manager, g_seat);
    wl_display_roundtrip(display);
    setvbuf(stdout, NULL, _IOLBF, 0);
    setvbuf(stdin, NULL, _IONBF, 0); /* nothing read ahead: the poll for input sees every line */

    char line[512];
    char* words[8];
    for (int count = 0; waitForInput(display) && (count = readCommand(line, sizeof line, words, 8)) >= 0;) {
        if (count == 0)
            continue;
        const char* error = runCommand(display, pointer, count, words);
        if (error)
            printf("error: %s\n", error);
    }
    wl_display_disconnect(display);
    return 0;
}
