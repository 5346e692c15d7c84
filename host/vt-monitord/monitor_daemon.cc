#include "vt-monitord/monitor_daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>

#include "libveltrane/daemon_signal.h"
#include "libveltrane/monitor_histograms.h"
#include "libveltrane/monitor_record.h"

namespace vtmonitord {

namespace {

constexpr int kMillisecondsInSecond = 1000;

}  // namespace

bool LockMonitor()
{
    const std::string path = std::string(GetStateDir()) + "/locks/monitor.lock";
    const int fd = safe_open(path.c_str(), O_RDWR | O_CREAT);
    if (fd < 0) {
        Log(LOG_LEVEL_ERR, "Could not open '%s'. (open: %s)", path.c_str(), GetErrorStr());
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        Log(LOG_LEVEL_NOTICE, "Another vt-monitord measures for this work directory");
        close(fd);
        return false;
    }
    return true;  // fd stays open to the end
}

bool MeasureOnce()
{
    const veltrane::RoundResult round = veltrane::RecordReading(veltrane::ReadMachine(), time(nullptr));
    if (round.histograms_damaged) {
        Log(LOG_LEVEL_WARNING, "'%s/%s' was damaged: it begins anew", GetStateDir(), veltrane::kHistogramsName);
    }
    for (const std::string &trouble : round.troubles) {
        Log(LOG_LEVEL_ERR, "A measurement is not kept: %s", trouble.c_str());
    }
    Log(LOG_LEVEL_VERBOSE, "Measured %zu slots", round.measured);
    return round.troubles.empty();
}

time_t SecondsToNext(time_t now, time_t interval_seconds) { return interval_seconds - now % interval_seconds; }

int MeasureUntilStopped(time_t interval_seconds)
{
    if (!veltrane::CatchDaemonSignals()) {
        Log(LOG_LEVEL_ERR, "Could not catch signals. (sigaction: %s)", GetErrorStr());
        return 1;
    }
    while (true) {
        (void)MeasureOnce();  // it has said what was lost; the next time may fare better
        pollfd waiting{veltrane::DaemonWakeDescriptor(), POLLIN, 0};
        const time_t seconds = SecondsToNext(time(nullptr), interval_seconds);
        if (poll(&waiting, 1, static_cast<int>(seconds) * kMillisecondsInSecond) < 0 && errno != EINTR) {
            Log(LOG_LEVEL_ERR, "Could not wait. (poll: %s)", GetErrorStr());
            return 1;
        }
        if (veltrane::TakeDaemonRequests().stop) {
            Log(LOG_LEVEL_INFO, "Stopping");
            return 0;
        }
    }
}

}  // namespace vtmonitord
