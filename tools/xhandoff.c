/* xhandoff: an XInput2 raw event reader with one hand-off between threads, the reference for the module's latency
 * and CPU figures.
 *
 * Usage: xhandoff [-d DISPLAY] [-n N] [-T MS]
 *
 * The same shape as the module's capture path: a reader thread, alone on its X connection, reads raw motion, raw
 * button press and raw button release (selected on the root window for all master devices, with the pointer
 * position queried on every raw motion, as xreader does) and appends each record to a queue under a mutex, waking
 * the main thread through an eventfd when no wake-up is pending yet (as uv_async_send does). The main thread waits
 * for the eventfd, takes the whole queue under the mutex and, record by record, stamps and prints it in xreader's
 * format:
 *
 *   NS motion DX DY X Y
 *   NS press BUTTON
 *   NS release BUTTON
 *
 * NS is the CLOCK_MONOTONIC time in nanoseconds at which the main thread took the record. Lines starting with '#'
 * are comments: "# ready" once the selection is active (start injecting after it), "# events COUNT" at the end.
 *
 *   -n N   leave after N events (0, the default: no limit)
 *   -T MS  leave after MS milliseconds in total (0, the default: no limit)
 *
 * Exit status: 0 after N events (or at the timeout when no N was given), 1 on a usage error, 2 when the display or
 * XInput 2 is missing or the reader thread cannot start, 3 at the timeout before N events.
 */
#define _GNU_SOURCE

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "xraw.h"

typedef struct Queue {
    XRawRecord* items;
    size_t count;
    size_t capacity;
} Queue;

/* What the two threads share. */
typedef struct HandOff {
    pthread_mutex_t lock;
    Queue queue;   /* guarded by lock */
    int finished;  /* guarded by lock: the reader has left its loop */
    int signalled; /* guarded by lock: the eventfd was written and the main thread has not taken the queue since */
    int wake;      /* eventfd */
} HandOff;

typedef struct Reader {
    XRawReader x;
    long limit;
    long long deadline;
    HandOff* handOff;
} Reader;

static void push(Queue* queue, const XRawRecord* record) {
    if (queue->count == queue->capacity) {
        const size_t capacity = queue->capacity ? queue->capacity * 2 : 64;
        XRawRecord* items = realloc(queue->items, capacity * sizeof *items);
        if (!items) {
            fprintf(stderr, "xhandoff: out of memory\n");
            abort();
        }
        queue->items = items;
        queue->capacity = capacity;
    }
    queue->items[queue->count++] = *record;
}

/* Appends `record` (NULL: the end of input) under the lock and wakes the main thread unless a wake-up is pending;
 * the wake-up is sent while the lock is held, as the module's capture does. */
static void handOver(HandOff* handOff, const XRawRecord* record) {
    pthread_mutex_lock(&handOff->lock);
    if (record)
        push(&handOff->queue, record);
    else
        handOff->finished = 1;
    if (!handOff->signalled) {
        handOff->signalled = 1;
        const uint64_t one = 1;
        while (write(handOff->wake, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
    pthread_mutex_unlock(&handOff->lock);
}

static void* readLoop(void* arg) {
    Reader* reader = arg;
    long events = 0;
    XRawRecord record;
    while ((reader->limit == 0 || events < reader->limit) && xrawNext(&reader->x, reader->deadline, &record)) {
        if (record.kind == XRAW_NONE)
            continue;
        handOver(reader->handOff, &record);
        ++events;
    }
    handOver(reader->handOff, NULL);
    return NULL;
}

/* Waits for a wake-up: a poll for the descriptor, then a read that resets it (the two calls an event loop makes). */
static void waitForWake(int wake) {
    struct pollfd pfd = {wake, POLLIN, 0};
    while (poll(&pfd, 1, -1) < 0 && errno == EINTR) {
    }
    uint64_t count = 0;
    while (read(wake, &count, sizeof count) < 0 && errno == EINTR) {
    }
}

int main(int argc, char** argv) {
    XRawOptions options;
    if (!xrawParseOptions(argc, argv, "xhandoff", &options))
        return 1;
    Reader reader;
    const int status = xrawOpen(&reader.x, "xhandoff", options.displayName);
    if (status != 0)
        return status;
    HandOff handOff = {.queue = {NULL, 0, 0}, .finished = 0, .signalled = 0, .wake = eventfd(0, EFD_CLOEXEC)};
    pthread_mutex_init(&handOff.lock, NULL);
    reader.limit = options.limit;
    reader.deadline = options.timeoutMs ? xrawNowNs() + options.timeoutMs * 1000000LL : 0;
    reader.handOff = &handOff;
    pthread_t thread;
    if (handOff.wake < 0 || pthread_create(&thread, NULL, readLoop, &reader) != 0) {
        fprintf(stderr, "xhandoff: cannot start the reader thread\n");
        return 2;
    }
    printf("# ready\n");
    fflush(stdout);

    long events = 0;
    Queue taken = {NULL, 0, 0};
    for (int finished = 0; !finished;) {
        waitForWake(handOff.wake);
        pthread_mutex_lock(&handOff.lock);
        const Queue queued = handOff.queue;
        handOff.queue = taken;
        taken = queued;
        finished = handOff.finished;
        handOff.signalled = 0;
        pthread_mutex_unlock(&handOff.lock);
        for (size_t i = 0; i < taken.count; ++i)
            xrawPrint(stdout, xrawNowNs(), &taken.items[i]);
        events += (long)taken.count;
        taken.count = 0;
    }
    pthread_join(thread, NULL);
    printf("# events %ld\n", events);
    fflush(stdout);
    XCloseDisplay(reader.x.display);
    close(handOff.wake);
    pthread_mutex_destroy(&handOff.lock);
    free(taken.items);
    free(handOff.queue.items);
    return (options.limit != 0 && events < options.limit) ? 3 : 0;
}
