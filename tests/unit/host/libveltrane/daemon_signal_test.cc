#include "libveltrane/daemon_signal.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <cerrno>
#include <thread>

#include <veltrane/net.h>

namespace {

bool Woken()
{
    pollfd waiting{veltrane::DaemonWakeDescriptor(), POLLIN, 0};
    return poll(&waiting, 1, 0) == 1;
}

class DaemonSignal : public testing::Test {
  protected:
    DaemonSignal()
    {
        EXPECT_TRUE(veltrane::CatchDaemonSignals());
        veltrane::TakeDaemonRequests();
    }
};

TEST_F(DaemonSignal, ZeroWakesAndAsksForNothing)
{
    EXPECT_FALSE(Woken());
    HandleSignalsForDaemon(0);
    EXPECT_TRUE(Woken());
    const veltrane::DaemonRequests requests = veltrane::TakeDaemonRequests();
    EXPECT_FALSE(requests.stop || requests.reload);
    EXPECT_FALSE(Woken());
}

TEST_F(DaemonSignal, RealSignalsAskToStopAndToReload)
{
    for (const int signum : {SIGTERM, SIGINT}) {
        ASSERT_EQ(raise(signum), 0);
        EXPECT_TRUE(Woken());
        EXPECT_TRUE(veltrane::TakeDaemonRequests().stop);
    }
    ASSERT_EQ(raise(SIGHUP), 0);
    const veltrane::DaemonRequests requests = veltrane::TakeDaemonRequests();
    EXPECT_TRUE(requests.reload);
    EXPECT_FALSE(requests.stop);
    EXPECT_FALSE(veltrane::TakeDaemonRequests().reload) << "taken once";
}

TEST_F(DaemonSignal, AFullPipeNeitherBlocksNorLosesARequest)
{
    for (int i = 0; i < 200'000; ++i) { HandleSignalsForDaemon(0); }
    HandleSignalsForDaemon(SIGTERM);
    EXPECT_TRUE(Woken());
    EXPECT_TRUE(veltrane::TakeDaemonRequests().stop);
    EXPECT_FALSE(Woken());
}

TEST_F(DaemonSignal, AnotherThreadMayWake)
{
    std::thread([] { HandleSignalsForDaemon(0); }).join();
    EXPECT_TRUE(Woken());
}

TEST_F(DaemonSignal, TheInterruptedCodeKeepsItsErrno)
{
    errno = ENOSPC;
    HandleSignalsForDaemon(SIGHUP);
    EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
