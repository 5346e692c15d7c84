// Measuring the machine at fixed times until told to end.
//
// Times are whole multiples of the interval since the epoch, so that samples of different weeks meet at one place. The
// lock of the one process that may measure for a work directory goes with the process.
#ifndef HOST_VT_MONITORD_MONITOR_DAEMON_H
#define HOST_VT_MONITORD_MONITOR_DAEMON_H

#include <ctime>

namespace vtmonitord {

// Measure once: false, with error lines, when something measured could not be kept.
bool MeasureOnce();

// Measure now, at each whole multiple of the interval, and when SIGHUP asks for it; SIGTERM and SIGINT end it. The exit
// status of the program.
int MeasureUntilStopped(time_t interval_seconds);

// Whether this process is now the one that measures for the work directory; says why when it is not.
bool LockMonitor();

// Seconds from now to the next whole multiple of the interval; never 0.
time_t SecondsToNext(time_t now, time_t interval_seconds);

}  // namespace vtmonitord

#endif
