#include "vt-serverd/server_daemon.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

#include <veltrane/entry_points.h>
#include <veltrane/errors.h>
#include <veltrane/extension.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>

#include "libveltrane/daemon_signal.h"
#include "libveltrane/hub_address.h"
#include "libveltrane/net_address.h"
#include "libveltrane/policy_functions.h"
#include "libveltrane/privilege.h"
#include "vt-serverd/announcement.h"
#include "vt-serverd/requests.h"

namespace vtserverd {

namespace {

constexpr size_t kListenQueue = 128;
constexpr std::chrono::seconds kStopPatience{10};  // for answers under way when the daemon is told to end
constexpr int kPauseMilliseconds = 1000;           // before accepting again when descriptors have run out

// The daemon whose listener InitServer opens: a plain function is all that the entry point takes. Main thread only.
ServerDaemon *asking_daemon = nullptr;

}  // namespace

bool RateLimit::Allows()
{
    const auto now = std::chrono::steady_clock::now();
    if (last_.has_value() && now - *last_ < interval_) {
        return false;
    }
    last_ = now;
    return true;
}

ServerDaemon::ServerDaemon(DaemonOptions options)
    : options_(std::move(options)),
      connections_([this](int fd) { ServeConnection(fd, policy_, [this, fd] { return connections_.Share(fd); }); },
                   [] { HandleSignalsForDaemon(0); })
{
}

ServerDaemon::~ServerDaemon() { StopListening(); }

int ServerDaemon::Run()
{
    if (!Start()) {
        return 1;
    }
    Loop();
    Log(LOG_LEVEL_INFO, "Stopping");
    StopListening();
    CollectCallStop();
    DropCollectCall();
    connections_.Stop(kStopPatience);
    return 0;
}

bool ServerDaemon::Start()
{
    if (!veltrane::CatchDaemonSignals()) {
        Log(LOG_LEVEL_ERR, "Could not catch signals. (sigaction: %s)", GetErrorStr());
        return false;
    }
    Bind();
    (void)enterprise_library();  // a plug-in may do at its loading what the sandbox refuses
    veltrane::UsePortOfHub();
    if (!Confine() || !policy_.Load(options_.policy_file)) {
        return false;
    }
    vtnet_Init();
    if (!vtnet_IsInitialized() || !Listen()) {
        return false;
    }
    FollowPolicy();
    return true;
}

bool ServerDaemon::Confine()
{
    veltrane::RefuseCommandsOfPolicy("the server daemon runs no commands");
    const std::string why = veltrane::EnterSandbox();
    if (!why.empty()) {
        Log(LOG_LEVEL_ERR, "Could not give up privileges. (%s)", why.c_str());
    }
    return why.empty();
}

void ServerDaemon::Bind()
{
    listener_ = veltrane::OpenBoundSocket(options_.bind_address.c_str(), options_.port.c_str());
    bind_error_ = listener_ < 0 ? errno : 0;
}

void ServerDaemon::LogNoListener() const
{
    Log(LOG_LEVEL_ERR, "Could not listen on '%s' port %s. (bind: %s)", options_.bind_address.c_str(),
        options_.port.c_str(), GetErrorStr());
}

// What the policy, or the plug-in on a hub, asks for: the listening socket, or -1 with errno.
int ServerDaemon::OpenListener(size_t queue_size)
{
    wanted_ = true;
    if (listener_ < 0 && bind_error_ == 0) {
        Bind();  // the policy before had it closed
    }
    if (listener_ < 0) {
        errno = std::exchange(bind_error_, 0);  // the next reload tries again
        return -1;
    }
    return veltrane::Listen(listener_, queue_size) ? listener_ : -1;
}

int ServerDaemon::InitServer(size_t queue_size, char * /*bind_address: the socket is bound already*/)
{
    return asking_daemon->OpenListener(queue_size);
}

bool ServerDaemon::Listen()
{
    wanted_ = false;
    asking_daemon = this;
    const int fd = SetServerListenState(policy_.Context(), kListenQueue, options_.bind_address.data(),
                                        policy_.Settings().listen, InitServer);
    asking_daemon = nullptr;
    if (!wanted_) {
        Log(LOG_LEVEL_NOTICE, "The policy does not let this daemon listen");
        StopListening();
        return true;
    }
    if (fd < 0) {
        LogNoListener();
        StopListening();
        return false;
    }
    if (!std::exchange(listening_, true)) {
        std::printf("Listening on %s\n", veltrane::LocalAddressAndPort(listener_).c_str());
        std::fflush(stdout);
    }
    return true;
}

void ServerDaemon::StopListening()
{
    listening_ = false;
    bind_error_ = 0;
    if (listener_ >= 0) {
        close(std::exchange(listener_, -1));
    }
}

// What else is as the policy in force says.
void ServerDaemon::FollowPolicy()
{
    if (listening_) {
        AnnounceHub(policy_, listener_);
    }
    const int interval = policy_.Settings().call_collect_interval;
    makes_calls_ = makes_calls_ || interval > 0;
    CollectCallStart(interval);
}

void ServerDaemon::Loop()
{
    while (true) {
        std::array<pollfd, 2> waiting{pollfd{veltrane::DaemonWakeDescriptor(), POLLIN, 0},
                                      pollfd{accept_paused_ ? -1 : listener_, POLLIN, 0}};
        const int ready = poll(waiting.data(), waiting.size(), accept_paused_ ? kPauseMilliseconds : -1);
        if (ready < 0 && errno != EINTR) {
            Log(LOG_LEVEL_ERR, "Could not wait for connections. (poll: %s)", GetErrorStr());
            return;
        }
        const veltrane::DaemonRequests requests = veltrane::TakeDaemonRequests();
        if (requests.stop) {
            return;
        }
        connections_.Join();
        if (requests.reload) {
            Reload();
        }
        ServeCollectCall();
        accept_paused_ = false;
        if (ready > 0 && waiting[1].revents != 0 && listener_ >= 0) {
            AcceptAll();
        }
    }
}

void ServerDaemon::Reload()
{
    ReloadHAConfig();  // the policy is then evaluated with what it says
    if (!policy_.Load(options_.policy_file)) {
        Log(LOG_LEVEL_ERR, "The policy before stays in force");
        return;
    }
    Log(LOG_LEVEL_NOTICE, "Read the policy '%s' again", options_.policy_file.c_str());
    (void)Listen();  // has said why not; the next reload tries again
    FollowPolicy();
}

// Serve the hub that has accepted our call, on the connection that we made. Until it is marked as processed the plug-in
// makes no other call.
void ServerDaemon::ServeCollectCall()
{
    if (!makes_calls_ || !CollectCallHasPending()) {
        return;
    }
    const int fd = CollectCallGetPending(nullptr);
    if (fd < 0) {
        return;
    }
    const std::string network = veltrane::NetworkOf(veltrane::PeerAddress(fd));
    if (!connections_.Start(fd, network, CollectCallMarkProcessed)) {
        Log(LOG_LEVEL_ERR, "Could not serve the hub that was called. (pthread_create: %s)", GetErrorStr());
    }
}

// The hub that has accepted a call while we end.
void ServerDaemon::DropCollectCall()
{
    const int fd = makes_calls_ ? CollectCallGetPending(nullptr) : -1;
    if (fd >= 0) {
        close(fd);
        CollectCallMarkProcessed();
    }
}

void ServerDaemon::AcceptAll()
{
    const size_t max_connections = policy_.Settings().max_connections;
    // Not without end: a flood of connections must not keep signals from being seen.
    for (size_t i = 0; i < kListenQueue; ++i) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            Serve(fd, max_connections);
            continue;
        }
        const bool none_left = errno == EAGAIN || errno == EWOULDBLOCK;
        if (none_left) {
            return;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            accept_paused_ = true;
            if (accept_failed_.Allows()) {
                Log(LOG_LEVEL_ERR, "Could not accept a connection. (accept: %s)", GetErrorStr());
            }
            return;
        }
        // Anything else is about one connection that went away before it was accepted.
    }
}

void ServerDaemon::Serve(int fd, size_t max_connections)
{
    connections_.Join();
    const std::string address = veltrane::PeerAddress(fd);
    const std::string network = veltrane::NetworkOf(address);
    const size_t from_there = connections_.CountOf(network);
    const bool full = connections_.Count() >= max_connections;
    if (full || from_there >= std::max<size_t>(max_connections / 2, 1)) {
        if (too_many_.Allows()) {
            Log(LOG_LEVEL_WARNING, "Closed a connection from %s at once: %zu are open already%s", address.c_str(),
                full ? connections_.Count() : from_there, full ? "" : " from there");
        }
        close(fd);
        return;
    }
    if (!connections_.Start(fd, network) && accept_failed_.Allows()) {
        Log(LOG_LEVEL_ERR, "Could not serve a connection. (pthread_create: %s)", GetErrorStr());
    }
}

}  // namespace vtserverd
