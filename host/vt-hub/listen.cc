#include "vt-hub/listen.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <iterator>
#include <list>
#include <mutex>
#include <sstream>
#include <utility>
#include <vector>

#include <libvtenterprise/report_collect_extension.h>
#include <report-collect/hub_calls.h>

#include <veltrane/entry_points.h>
#include <veltrane/errors.h>
#include <veltrane/extension.h>
#include <veltrane/globals.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>

#include "libveltrane/daemon_signal.h"
#include "libveltrane/net_address.h"
#include "libveltrane/privilege.h"
#include "vt-hub/call_socket.h"
#include "vt-hub/call_workers.h"
#include "vt-hub/query.h"

namespace vthub {

namespace {

using Clock = std::chrono::steady_clock;
using TakeConnection = decltype(&::take_connection);

constexpr char kHubLibrary[] = "veltrane-report-collect.so";
constexpr std::chrono::seconds kStopPatience{2};
constexpr std::chrono::seconds kAcceptPause{1};  // while the process is out of descriptors

// The plug-in's function that takes a connection; null after one error line.
TakeConnection FindTakeConnection()
{
    void *plugin = enterprise_library();
    if (plugin == nullptr) {
        Log(LOG_LEVEL_ERR, "Nobody waits for calls here: the enterprise plug-in cannot be used");
        return nullptr;
    }
    // Without the hub's library the plug-in's function is there all the same, and takes nothing.
    if (extension_library_open(kHubLibrary) == nullptr) {
        Log(LOG_LEVEL_ERR, "Nobody waits for calls here: '%s' cannot be used", kHubLibrary);
        return nullptr;
    }
    void *address = shlib_load(plugin, "take_connection");
    if (address == nullptr) {
        Log(LOG_LEVEL_ERR, "The enterprise plug-in lacks 'take_connection'");
    }
    return reinterpret_cast<TakeConnection>(address);
}

// Asks one caller and shows its reports.
class Asker {
  public:
    explicit Asker(const ListenOptions &options) : options_(options) {}

    Outcome Ask(Caller caller)
    {
        Query query;
        query.host = veltrane::PeerAddress(caller.socket.Get()) + " (" + caller.key + ")";
        query.key = caller.key;
        query.type = options_.type;
        query.since = options_.since;
        query.timeout_seconds = static_cast<unsigned>(CONNTIMEOUT);
        const std::optional<Reply> reply = AskCaller(std::move(caller.socket), query);
        if (!reply) {
            return Outcome::no_answer;
        }
        std::ostringstream text;
        if (options_.output.raw) {
            text << "# Host " << reply->identity << '\n';
        }
        if (!WriteReply(text, options_.output, reply->identity, options_.type, reply->lines)) {
            return Outcome::no_answer;
        }
        const std::lock_guard lock(output_);
        if (!(std::cout << text.str() << std::flush)) {
            Log(LOG_LEVEL_ERR, "Could not write the report of '%s'", query.host.c_str());
            return Outcome::no_output;
        }
        return Outcome::answered;
    }

  private:
    const ListenOptions &options_;
    std::mutex output_;  // standard output
};

// Where callers get their places and hand over their sockets. For the main thread.
class Reception {
  public:
    Reception(const CallSocket &socket, TakeConnection take, CallWorkers *workers)
        : socket_(socket), take_(take), workers_(workers)
    {
    }

    // Wait for whatever happens first and do what is to be done.
    void Turn(int wake)
    {
        const Clock::time_point now = Clock::now();
        const bool accepts = now >= accept_again_;
        std::vector<pollfd> waits{{wake, POLLIN, 0}, {accepts ? socket_.Get() : -1, POLLIN, 0}};
        for (const Reserved &reserved : reserved_) { waits.push_back({reserved.line.Get(), POLLIN, 0}); }
        if (poll(waits.data(), waits.size(), TimeOut(now)) < 0) {
            return;  // a signal; the wake descriptor tells
        }
        auto wait = std::next(waits.cbegin(), 2);
        for (auto reserved = reserved_.begin(); reserved != reserved_.end(); ++wait) {
            reserved = wait->revents != 0 || Clock::now() >= reserved->deadline ? Settle(reserved, wait->revents != 0)
                                                                                : std::next(reserved);
        }
        if (waits[1].revents != 0) {
            AcceptAll();
        }
    }

  private:
    // A place that was promised, until its socket comes.
    struct Reserved {
        veltrane::Descriptor line;
        Clock::time_point deadline;
    };
    using Place = std::list<Reserved>::iterator;

    // Milliseconds until something is due; -1 when nothing is.
    int TimeOut(Clock::time_point now) const
    {
        Clock::time_point next = accept_again_ > now ? accept_again_ : Clock::time_point::max();
        for (const Reserved &reserved : reserved_) { next = std::min(next, reserved.deadline); }
        if (next == Clock::time_point::max()) {
            return -1;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
        return static_cast<int>(std::max<std::int64_t>(left, 0));
    }

    // Take what came for a place, or give the place up.
    Place Settle(Place place, bool came)
    {
        if (came) {
            char *text = nullptr;
            veltrane::Descriptor socket(take_(place->line.Get(), &text));
            const veltrane::TextPtr key(text);
            if (socket.IsOpen()) {  // else it was said why
                workers_->Add({std::move(socket), key.get()});
            }
        } else {
            Log(LOG_LEVEL_WARNING, "A call was announced, and its connection was not handed over in time");
        }
        return reserved_.erase(place);
    }

    void AcceptAll()
    {
        while (true) {
            veltrane::Descriptor line = socket_.Accept();
            if (!line.IsOpen()) {
                if (errno != EAGAIN && errno != EWOULDBLOCK) {
                    Log(LOG_LEVEL_ERR, "Could not take a call. (accept: %s)", GetErrorStr());
                    accept_again_ = Clock::now() + kAcceptPause;
                }
                return;
            }
            const std::size_t waiting = reserved_.size() + workers_->Waiting();
            const bool full = waiting >= report_collect::kMaxWaitingCalls;
            const std::int32_t place = full ? 0 : static_cast<std::int32_t>(waiting + 1);
            const ssize_t sent = send(line.Get(), &place, sizeof(place), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (!full && sent == sizeof(place)) {
                reserved_.push_back({std::move(line), Clock::now() + std::chrono::seconds(std::max(CONNTIMEOUT, 1))});
            }
        }
    }

    const CallSocket &socket_;
    const TakeConnection take_;
    CallWorkers *const workers_;
    std::list<Reserved> reserved_;
    Clock::time_point accept_again_;
};

int ServeCalls(const ListenOptions &options, const CallSocket &socket, TakeConnection take)
{
    Asker asker(options);
    CallWorkers workers(
        std::max<std::size_t>(EnterpriseGetMaxVtHubProcesses(), 1), options.count,
        [&asker](Caller caller) { return asker.Ask(std::move(caller)); }, [] { HandleSignalsForDaemon(0); });
    Reception reception(socket, take, &workers);
    std::cout << "Waiting for calls" << std::endl;
    while (!workers.IsDone()) {
        reception.Turn(veltrane::DaemonWakeDescriptor());
        const veltrane::DaemonRequests requests = veltrane::TakeDaemonRequests();
        if (requests.stop || requests.reload) {  // there is nothing to read again: a hang-up is an end
            break;
        }
    }
    if (!workers.Stop(kStopPatience)) {
        Log(LOG_LEVEL_ERR, "Nobody reads the output; a report is lost");
        _exit(1);
    }
    return workers.OutputFailed() ? 1 : 0;
}

}  // namespace

int Listen(const ListenOptions &options)
{
    const TakeConnection take = FindTakeConnection();
    if (take == nullptr) {
        return 1;
    }
    if (!veltrane::CatchDaemonSignals()) {
        Log(LOG_LEVEL_ERR, "Could not catch signals. (sigaction: %s)", GetErrorStr());
        return 1;
    }
    CallSocket socket;
    if (!socket.Open()) {
        return 1;
    }
    const std::string why = veltrane::EnterSandbox();
    if (!why.empty()) {
        Log(LOG_LEVEL_ERR, "Could not give up privileges. (%s)", why.c_str());
        return 1;
    }
    return ServeCalls(options, socket, take);
}

}  // namespace vthub
