#include "vt-testd/test_daemon.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include <veltrane/errors.h>
#include <veltrane/extension.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>

#include "libveltrane/daemon_signal.h"
#include "libveltrane/net_address.h"
#include "libveltrane/privilege.h"
#include "vt-testd/requests.h"

namespace vttestd {

namespace {

constexpr size_t kListenQueue = 128;
constexpr size_t kMostConnections = 200;
constexpr std::chrono::seconds kStopPatience{10};  // for answers under way when the daemon is told to end

}  // namespace

TestDaemon::TestDaemon() : connections_(ServeConnection, [] { HandleSignalsForDaemon(0); }) {}

int TestDaemon::Run(const DaemonOptions &options)
{
    if (!Start(options)) {
        return 1;
    }
    Loop();
    Log(LOG_LEVEL_INFO, "Stopping");
    (void)listener_.Close();
    connections_.Stop(kStopPatience);
    return 0;
}

bool TestDaemon::Start(const DaemonOptions &options)
{
    if (!veltrane::CatchDaemonSignals()) {
        Log(LOG_LEVEL_ERR, "Could not catch signals. (sigaction: %s)", GetErrorStr());
        return false;
    }
    listener_ = veltrane::Descriptor(
        veltrane::OpenListeningSocket(kListenQueue, options.bind_address.c_str(), options.port.c_str()));
    if (!listener_.IsOpen()) {
        Log(LOG_LEVEL_ERR, "Could not listen on '%s' port %s. (bind: %s)", options.bind_address.c_str(),
            options.port.c_str(), GetErrorStr());
        return false;
    }
    if (enterprise_library() == nullptr) {  // loaded before the sandbox closes
        Log(LOG_LEVEL_WARNING, "Without the enterprise plug-in no query is answered");
    }
    const std::string why = veltrane::EnterSandbox();
    if (!why.empty()) {
        Log(LOG_LEVEL_ERR, "Could not give up privileges. (%s)", why.c_str());
        return false;
    }
    vtnet_Init();
    if (!vtnet_IsInitialized()) {
        return false;
    }
    std::printf("Listening on %s\n", veltrane::LocalAddressAndPort(listener_.Get()).c_str());
    std::fflush(stdout);
    return true;
}

void TestDaemon::Loop()
{
    while (true) {
        const bool full = connections_.Count() >= kMostConnections;
        std::array<pollfd, 2> waiting{pollfd{veltrane::DaemonWakeDescriptor(), POLLIN, 0},
                                      pollfd{full ? -1 : listener_.Get(), POLLIN, 0}};
        const int ready = poll(waiting.data(), waiting.size(), -1);
        if (ready < 0 && errno != EINTR) {
            Log(LOG_LEVEL_ERR, "Could not wait for connections. (poll: %s)", GetErrorStr());
            return;
        }
        if (veltrane::TakeDaemonRequests().stop) {
            return;
        }
        connections_.Join();
        if (ready > 0 && waiting[1].revents != 0) {
            Accept();
        }
    }
}

void TestDaemon::Accept()
{
    const int fd = accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;  // it went away before it was accepted
    }
    if (!connections_.Start(fd, "")) {
        Log(LOG_LEVEL_ERR, "Could not serve a connection. (pthread_create: %s)", GetErrorStr());
    }
}

}  // namespace vttestd
