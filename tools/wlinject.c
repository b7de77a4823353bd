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
 *   window | nowindow   show a native Wayland window (an xdg toplevel, which the compositor places and sizes), or
 *                       destroy it; either ends with a round trip and prints nothing
 *   seen                what the window received: "M B" with M pointer motions and B button events, counted while
 *                       the pointer was over it since the last "window"
 *   quit                leave (so do the end of input and the compositor going away)
 * An unknown or malformed line prints "error: ..." and the reading goes on. Every command ends with a frame.
 *
 * The pointer lives as long as this program: some compositors (sway 1.7) crash when a virtual pointer goes away, so
 * keep one wlinject for the compositor's whole life and end the compositor first.
 * Exit status: 0 on success, 1 on a usage error, 2 when the compositor or the protocol is missing.
 */
#define _GNU_SOURCE

#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>
#include <wayland-client.h>

#include "wlr-virtual-pointer-unstable-v1-client-protocol.h"
#include "words.h"
#include "xdg-shell-client-protocol.h"

/* evdev codes of the left, right and middle buttons (linux/input-event-codes.h). */
enum { kBtnLeft = 0x110, kBtnRight = 0x111, kBtnMiddle = 0x112 };

static struct wl_seat* g_seat;
static struct zwlr_virtual_pointer_manager_v1* g_manager;
static struct wl_compositor* g_compositor;
static struct wl_shm* g_shm;
static struct xdg_wm_base* g_shell;

static void onGlobal(void* data, struct wl_registry* registry, uint32_t name, const char* interface, uint32_t version) {
    (void)data;
    (void)version;
    if (strcmp(interface, wl_seat_interface.name) == 0 && !g_seat)
        g_seat = wl_registry_bind(registry, name, &wl_seat_interface, 1);
    else if (strcmp(interface, zwlr_virtual_pointer_manager_v1_interface.name) == 0)
        g_manager = wl_registry_bind(registry, name, &zwlr_virtual_pointer_manager_v1_interface, 1);
    else if (strcmp(interface, wl_compositor_interface.name) == 0)
        g_compositor = wl_registry_bind(registry, name, &wl_compositor_interface, 1);
    else if (strcmp(interface, wl_shm_interface.name) == 0)
        g_shm = wl_registry_bind(registry, name, &wl_shm_interface, 1);
    else if (strcmp(interface, xdg_wm_base_interface.name) == 0)
        g_shell = wl_registry_bind(registry, name, &xdg_wm_base_interface, 1);
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

/* ---- the native window: one xdg toplevel with a black buffer of the size the compositor gives it ---- */

static struct {
    struct wl_surface* surface;
    struct xdg_surface* xdgSurface;
    struct xdg_toplevel* toplevel;
    struct wl_buffer* buffer;
    int32_t width, height; /* from the last toplevel configure; 0 leaves it to this program */
    int configured;
    int pointerOver;
    unsigned motions, buttons;
} g_window;
static struct wl_pointer* g_pointer;

static void onPing(void* data, struct xdg_wm_base* shell, uint32_t serial) {
    (void)data;
    xdg_wm_base_pong(shell, serial);
}
static const struct xdg_wm_base_listener kShellListener = {onPing};

/* A buffer of width x height black pixels, or NULL. */
static struct wl_buffer* blackBuffer(int32_t width, int32_t height) {
    const int32_t stride = width * 4;
    const size_t size = (size_t)stride * (size_t)height;
    const int fd = memfd_create("wlinject-window", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, (off_t)size) < 0) {
        if (fd >= 0)
            close(fd);
        return NULL;
    }
    /* A new memfd reads as zeros: black, and opaque with XRGB. */
    struct wl_shm_pool* pool = wl_shm_create_pool(g_shm, fd, (int32_t)size);
    struct wl_buffer* buffer = wl_shm_pool_create_buffer(pool, 0, width, height, stride, WL_SHM_FORMAT_XRGB8888);
    wl_shm_pool_destroy(pool);
    close(fd);
    return buffer;
}

static void onSurfaceConfigure(void* data, struct xdg_surface* xdgSurface, uint32_t serial) {
    (void)data;
    xdg_surface_ack_configure(xdgSurface, serial);
    if (g_window.buffer)
        wl_buffer_destroy(g_window.buffer);
    g_window.buffer =
        blackBuffer(g_window.width > 0 ? g_window.width : 640, g_window.height > 0 ? g_window.height : 480);
    wl_surface_attach(g_window.surface, g_window.buffer, 0, 0);
    wl_surface_commit(g_window.surface);
    g_window.configured = 1;
}
static const struct xdg_surface_listener kSurfaceListener = {onSurfaceConfigure};

static void onToplevelConfigure(void* data, struct xdg_toplevel* toplevel, int32_t width, int32_t height,
                                struct wl_array* states) {
    (void)data;
    (void)toplevel;
    (void)states;
    g_window.width = width;
    g_window.height = height;
}
static void onToplevelClose(void* data, struct xdg_toplevel* toplevel) {
    (void)data;
    (void)toplevel;
}
/* Bound at version 1: the later events are never sent. */
static const struct xdg_toplevel_listener kToplevelListener = {.configure = onToplevelConfigure,
                                                               .close = onToplevelClose};

static void onEnter(void* data, struct wl_pointer* pointer, uint32_t serial, struct wl_surface* surface, wl_fixed_t x,
                    wl_fixed_t y) {
    (void)data, (void)pointer, (void)serial, (void)x, (void)y;
    g_window.pointerOver = surface && surface == g_window.surface;
}
static void onLeave(void* data, struct wl_pointer* pointer, uint32_t serial, struct wl_surface* surface) {
    (void)data, (void)pointer, (void)serial, (void)surface;
    g_window.pointerOver = 0;
}
static void onMotion(void* data, struct wl_pointer* pointer, uint32_t time, wl_fixed_t x, wl_fixed_t y) {
    (void)data, (void)pointer, (void)time, (void)x, (void)y;
    g_window.motions += g_window.pointerOver;
}
static void onButton(void* data, struct wl_pointer* pointer, uint32_t serial, uint32_t time, uint32_t button,
                     uint32_t state) {
    (void)data, (void)pointer, (void)serial, (void)time, (void)button, (void)state;
    g_window.buttons += g_window.pointerOver;
}
static void onAxis(void* data, struct wl_pointer* pointer, uint32_t time, uint32_t axis, wl_fixed_t value) {
    (void)data, (void)pointer, (void)time, (void)axis, (void)value;
}
/* Bound at version 1: the later events are never sent. */
static const struct wl_pointer_listener kPointerListener = {
    .enter = onEnter, .leave = onLeave, .motion = onMotion, .button = onButton, .axis = onAxis};

/* Shows the window and waits until it has its first buffer; NULL or an error text. */
static const char* showWindow(struct wl_display* display) {
    if (!g_compositor || !g_shm || !g_shell || !g_seat)
        return "the compositor offers no native windows";
    if (g_window.surface)
        return NULL;
    if (!g_pointer) {
        g_pointer = wl_seat_get_pointer(g_seat);
        wl_pointer_add_listener(g_pointer, &kPointerListener, NULL);
    }
    g_window.motions = g_window.buttons = 0;
    g_window.surface = wl_compositor_create_surface(g_compositor);
    g_window.xdgSurface = xdg_wm_base_get_xdg_surface(g_shell, g_window.surface);
    xdg_surface_add_listener(g_window.xdgSurface, &kSurfaceListener, NULL);
    g_window.toplevel = xdg_surface_get_toplevel(g_window.xdgSurface);
    xdg_toplevel_add_listener(g_window.toplevel, &kToplevelListener, NULL);
    xdg_toplevel_set_title(g_window.toplevel, "wlinject");
    wl_surface_commit(g_window.surface);
    for (int i = 0; i < 100 && !g_window.configured; ++i) {
        if (wl_display_roundtrip(display) < 0)
            return "the compositor is gone";
    }
    return g_window.configured ? NULL : "the window was never configured";
}

static void hideWindow(void) {
    if (!g_window.surface)
        return;
    xdg_toplevel_destroy(g_window.toplevel);
    xdg_surface_destroy(g_window.xdgSurface);
    wl_surface_destroy(g_window.surface);
    if (g_window.buffer)
        wl_buffer_destroy(g_window.buffer);
    g_window.surface = NULL;
    g_window.xdgSurface = NULL;
    g_window.toplevel = NULL;
    g_window.buffer = NULL;
    g_window.width = g_window.height = 0;
    g_window.configured = 0;
    g_window.pointerOver = 0;
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
    } else if (strcmp(name, "window") == 0 || strcmp(name, "nowindow") == 0) {
        if (argc != 1)
            return "usage: window | nowindow";
        const char* error = name[0] == 'w' ? showWindow(display) : (hideWindow(), NULL);
        if (!error && wl_display_roundtrip(display) < 0)
            error = "the compositor is gone";
        return error;
    } else if (strcmp(name, "seen") == 0) {
        if (argc != 1)
            return "usage: seen";
        if (wl_display_roundtrip(display) < 0)
            return "the compositor is gone";
        printf("%u %u\n", g_window.motions, g_window.buttons);
        return NULL;
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
        /* Compositor events (the window's) or its hang-up. */
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
    if (g_shell)
        xdg_wm_base_add_listener(g_shell, &kShellListener, NULL);
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
