// Collect calls: at a fixed interval the server daemon calls its hub, which asks for reports on that same connection.
//
// One worker thread makes the calls (collect_call_hub.h). An accepted connection lies in a mailbox of one slot until
// the daemon's main loop takes it; until the daemon has marked it processed, no other call is made.
//
// Two locks: collect_call_worker_lock for what steers the worker, collect_call_data_lock for the mailbox. Each is held
// for a few assignments, never both together, and never while the hub is talked to.
//
// An interval of 0 tells a running worker to end without waiting for it: it sleeps on to its deadline and ends there by
// itself. Each start makes a new generation, so that such a worker ends even when collect calls were started again
// meanwhile.
//
// A worker may live to the end of the process; nothing here has a destructor that would run under it.
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <algorithm>
#include <cinttypes>
#include <utility>

#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/report_collect_extension.h"
#include "libvtenterprise/thread_guard.h"
#include "libvtserverd/collect_call_hub.h"

namespace {

constexpr int32_t kLongestFirstWait = 10;  // seconds

pthread_mutex_t collect_call_worker_lock = PTHREAD_MUTEX_INITIALIZER;
int32_t collect_call_interval = 0;      // seconds
bool collect_call_stop_flag = false;    // asks the worker to end
bool collect_call_in_progress = false;  // a connection was handed over and not yet marked processed
uintptr_t collect_call_generation = 0;  // of the worker that may call

pthread_mutex_t collect_call_data_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t collect_call_data_alert = PTHREAD_COND_INITIALIZER;  // wakes the worker before its deadline
bool collect_call_alerted = false;        // so that an alert before the worker waits is not lost
int32_t collect_call_socket = -1;         // owned here while it waits to be taken
int32_t collect_call_waiting_queue = -1;  // the hub's, with that socket

// Of the daemon's main thread alone.
bool collect_call_live = false;  // the worker exists and was not told to end
pthread_t collect_call_worker;

timeval Now()
{
    timeval now;
    gettimeofday(&now, nullptr);
    return now;
}

timeval After(timeval time, int32_t seconds)
{
    time.tv_sec += seconds;
    return time;
}

// What a worker goes by, as it stands at one moment.
struct Orders {
    int32_t interval;
    bool stop;
    bool in_progress;
};

Orders OrdersOf(uintptr_t generation)
{
    const ThreadGuard guard(&collect_call_worker_lock);
    const bool stop = collect_call_stop_flag || generation != collect_call_generation;
    return {collect_call_interval, stop, collect_call_in_progress};
}

// Sleep until the deadline or an alert; the time after that.
timeval WaitUntil(const timeval &deadline)
{
    const timeval now = Now();
    if (!timercmp(&now, &deadline, <)) {
        return now;
    }
    timeval left;
    timersub(&deadline, &now, &left);
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: timed wait [%jd seconds]", static_cast<intmax_t>(left.tv_sec));
    const timespec until = {deadline.tv_sec, deadline.tv_usec * 1000};
    {
        const ThreadGuard guard(&collect_call_data_lock);
        int error = 0;
        while (!collect_call_alerted && error == 0) {
            error = pthread_cond_timedwait(&collect_call_data_alert, &collect_call_data_lock, &until);
        }
    }
    return Now();
}

// Put a connection into the mailbox and tell the daemon. It counts as in progress before it lies there: the daemon may
// be done with it before this thread goes on. A worker that others have followed hands over nothing.
void HandOver(AcceptedCall call, uintptr_t generation)
{
    {
        const ThreadGuard guard(&collect_call_worker_lock);
        if (generation != collect_call_generation) {
            return;
        }
        collect_call_in_progress = true;
    }
    veltrane::Descriptor never_taken;
    {
        const ThreadGuard guard(&collect_call_data_lock);
        never_taken = veltrane::Descriptor(std::exchange(collect_call_socket, call.socket.Release()));
        collect_call_waiting_queue = call.queue;
    }
    HandleSignalsForDaemon(0);
}

void CallUntilStopped(uintptr_t generation)
{
    timeval deadline = After(Now(), std::min(OrdersOf(generation).interval, kLongestFirstWait));
    while (!OrdersOf(generation).stop) {
        const timeval now = WaitUntil(deadline);
        const Orders orders = OrdersOf(generation);
        deadline = After(now, orders.interval);
        if (orders.stop) {
            break;
        }
        if (orders.in_progress) {
            Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: already in progress");
            continue;
        }
        Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: no call in progress");
        Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: trying to contact server");
        if (std::optional<AcceptedCall> call = CallHub(); call.has_value()) {
            HandOver(std::move(*call), generation);
        }
    }
}

void *Worker(void *generation)
{
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker starting");
    CallUntilStopped(reinterpret_cast<uintptr_t>(generation));
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: stopped");
    return nullptr;
}

// Start the worker without any signal of the process: those are for the daemon's own threads. Whether it was made.
bool CreateWorker(uintptr_t generation)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&collect_call_worker, nullptr, Worker, reinterpret_cast<void *>(generation));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error == 0;
}

void AdjustLiveWorker(int interval)
{
    if (interval >= 1) {
        Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: adjusting interval to [%d] while running", interval);
        const ThreadGuard guard(&collect_call_worker_lock);
        collect_call_interval = interval;
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: setting interval to 0 and stopping");
    {
        const ThreadGuard guard(&collect_call_worker_lock);
        collect_call_stop_flag = true;
        collect_call_interval = 0;
    }
    collect_call_live = false;
    pthread_detach(collect_call_worker);  // nobody will join it: what it holds must go with it
}

// The state of a machinery that has not made any call. The generation of the worker to come.
uintptr_t Reset(int32_t interval)
{
    uintptr_t generation = 0;
    {
        const ThreadGuard guard(&collect_call_worker_lock);
        collect_call_in_progress = false;
        collect_call_stop_flag = false;
        collect_call_interval = interval;
        generation = ++collect_call_generation;
    }
    veltrane::Descriptor never_taken;
    const ThreadGuard guard(&collect_call_data_lock);
    never_taken = veltrane::Descriptor(std::exchange(collect_call_socket, -1));
    collect_call_waiting_queue = -1;
    collect_call_alerted = false;
    return generation;
}

}  // namespace

void CollectCallStart__real(int interval) noexcept
{
    if (collect_call_live) {
        AdjustLiveWorker(interval);
        return;
    }
    const uintptr_t generation = Reset(std::max(interval, 0));
    if (interval < 1) {
        Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: no interval specified. Not starting");
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker, starting machinery interval: [%d]", interval);
    if (!CreateWorker(generation)) {
        Log(LOG_LEVEL_ERR, "CollectCallWorker: failed to start");
        return;
    }
    collect_call_live = true;
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: machinery started");
}

void CollectCallStop__real() noexcept
{
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: stopping");
    {
        const ThreadGuard guard(&collect_call_worker_lock);
        collect_call_stop_flag = true;
    }
    {
        const ThreadGuard guard(&collect_call_data_lock);
        collect_call_alerted = true;
        pthread_cond_broadcast(&collect_call_data_alert);  // a worker that nobody joins may wait there as well
    }
    if (collect_call_live) {
        pthread_join(collect_call_worker, nullptr);
    }
    collect_call_live = false;
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: stopped");
}

bool CollectCallHasPending__real() noexcept
{
    bool pending = false;
    {
        const ThreadGuard guard(&collect_call_data_lock);
        pending = collect_call_socket >= 0;
    }
    Log(LOG_LEVEL_VERBOSE, "CollectCallHasPending: %s", pending ? "true" : "false");
    return pending;
}

int CollectCallGetPending__real(int *waiting_queue) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: getting pending connection");
    int32_t socket = -1;
    int32_t queue = -1;
    {
        const ThreadGuard guard(&collect_call_data_lock);
        socket = std::exchange(collect_call_socket, -1);
        queue = collect_call_waiting_queue;
    }
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: socket [%d], queue [%d]", socket, queue);
    if (waiting_queue != nullptr) {
        *waiting_queue = queue;
    }
    return socket;
}

void CollectCallMarkProcessed__real() noexcept
{
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: marking as processed");
    {
        const ThreadGuard guard(&collect_call_worker_lock);
        collect_call_in_progress = false;
    }
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: marked as processed");
}

bool ReceiveCollectCall__real(ServerConnectionState *conn) noexcept { return Vesk_AcceptCollectCall(conn); }
