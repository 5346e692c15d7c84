// The dispatch to the library of the hub-only functions from several threads.
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "libvtenterprise/report_collect_extension.h"
#include "support/hub_library.h"

namespace {

using ReportCollectThreads = HubLibraryTest;

void CallFromThreads()
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++) {
        threads.emplace_back([] {
            for (int i = 0; i < 50; i++) { EXPECT_EQ(VeskGetMaxVtHubProcesses(), SIZE_MAX); }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
}

}  // namespace

TEST_F(ReportCollectThreads, FirstCallsMayBeMadeAtOnce)
{
    Install("fake_hub");
    InChild(CallFromThreads);
}

TEST_F(ReportCollectThreads, AndSoMayCallsThatOpenAndCloseTheLibrary)
{
    Install("fake_hub");
    InChild([&] {
        OpenForEachCall();
        CallFromThreads();
    });
}
