// How signals and threads reach a daemon's main loop: a pipe of the process itself.
//
// HandleSignalsForDaemon (net.h) notes what is asked for and writes one byte; the main loop polls the reading end
// together with its sockets, so no signal is lost between looking and waiting.
#ifndef HOST_LIBVELTRANE_DAEMON_SIGNAL_H
#define HOST_LIBVELTRANE_DAEMON_SIGNAL_H

namespace veltrane {

struct DaemonRequests {
    bool stop = false;    // SIGTERM or SIGINT came
    bool reload = false;  // SIGHUP came
};

// Make the pipe and let HandleSignalsForDaemon handle SIGTERM, SIGINT and SIGHUP. Once, before any thread is made.
// false with errno.
[[nodiscard]] bool CatchDaemonSignals();

// The descriptor to poll for reading; -1 before CatchDaemonSignals.
int DaemonWakeDescriptor();

// What was asked for since the last call; empties the pipe.
DaemonRequests TakeDaemonRequests();

}  // namespace veltrane

#endif
