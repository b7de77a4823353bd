/* xreader: a bare single-threaded XInput2 raw event reader, the floor for latency and throughput measurements.
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
#include <stdio.h>

#include "xraw.h"

int main(int argc, char** argv) {
    XRawOptions options;
    if (!xrawParseOptions(argc, argv, "xreader", &options))
        return 1;
    XRawReader reader;
    const int status = xrawOpen(&reader, "xreader", options.displayName);
    if (status != 0)
        return status;
    printf("# ready\n");
    fflush(stdout);

    const long long deadline = options.timeoutMs ? xrawNowNs() + options.timeoutMs * 1000000LL : 0;
    long events = 0;
    XRawRecord record;
    while ((options.limit == 0 || events < options.limit) && xrawNext(&reader, deadline, &record)) {
        if (record.kind == XRAW_NONE)
            continue;
        xrawPrint(stdout, record.receivedNs, &record);
        ++events;
    }
    printf("# events %ld\n", events);
    fflush(stdout);
    XCloseDisplay(reader.display);
    return (options.limit != 0 && events < options.limit) ? 3 : 0;
}
