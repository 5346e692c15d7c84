#include "libveltrane/daemon_signal.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

#include <veltrane/net.h>

namespace veltrane {

namespace {

// Touched in signal handlers: only lock-free atomics and write(2) may be used.
std::atomic<bool> stop_asked{false};
std::atomic<bool> reload_asked{false};
std::atomic<int> read_end{-1};
std::atomic<int> write_end{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

}  // namespace

bool CatchDaemonSignals()
{
    if (read_end < 0) {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
            return false;
        }
        read_end = ends[0];
        write_end = ends[1];
    }
    struct sigaction action {};
    action.sa_handler = HandleSignalsForDaemon;
    action.sa_flags = SA_RESTART;
    for (const int signum : {SIGTERM, SIGINT, SIGHUP}) {
        if (sigaction(signum, &action, nullptr) != 0) {
            return false;
        }
    }
    return true;
}

int DaemonWakeDescriptor() { return read_end; }

DaemonRequests TakeDaemonRequests()
{
    std::array<char, 64> bytes;
    while (read(read_end, bytes.data(), bytes.size()) > 0) {}
    return {stop_asked.exchange(false), reload_asked.exchange(false)};
}

}  // namespace veltrane

extern "C" void HandleSignalsForDaemon(int signum)
{
    const int error = errno;  // the interrupted code may be about to read it
    if (signum == SIGTERM || signum == SIGINT) {
        veltrane::stop_asked = true;
    } else if (signum == SIGHUP) {
        veltrane::reload_asked = true;
    }
    if (veltrane::write_end >= 0) {
        const char byte = 0;
        // A full pipe wakes the loop as well.
        [[maybe_unused]] const ssize_t written = write(veltrane::write_end, &byte, 1);
    }
    errno = error;
}
