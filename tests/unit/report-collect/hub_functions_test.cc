// The frame of the hub-only functions.
#include "report-collect/hub_functions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <veltrane/globals.h>

#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr int kUntouched = 7;

std::string Refusal(const std::string &signature)
{
    return "Function '" + signature +
           "' failed stack consistency check. Most likely this means the plugin containing the function is "
           "incompatible "
           "with this version of Veltrane.";
}

// Call a wrapper with the start canary wrong, then the end canary, and expect that nothing runs.
template <typename Call>
void ExpectRefusals(const std::string &signature, Call call)
{
    for (const auto &[start, end] : {std::pair(kFrameCanary - 1, kFrameCanary), std::pair(kFrameCanary, 0)}) {
        LogCapture log;
        int successful = kUntouched;
        call(start, &successful, end);
        EXPECT_EQ(successful, kUntouched);
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, Refusal(signature))));
    }
}

TEST(HubFunctions, AWrongCanaryRunsNothingAndSaysWhichFunctionItWas)
{
    const WorkDirectory work;
    ExpectRefusals("_Bool Vesk_AcceptCollectCall(conn)", [](int32_t start, int *successful, int32_t end) {
        EXPECT_FALSE(Vesk_AcceptCollectCall__wrapper(start, successful, nullptr, end));
    });
    ExpectRefusals("_Bool share_connection(path, descriptor, message)",
                   [](int32_t start, int *successful, int32_t end) {
                       EXPECT_FALSE(share_connection__wrapper(start, successful, "/", 0, "", end));
                   });
    ExpectRefusals("int take_connection(interface, message)", [](int32_t start, int *successful, int32_t end) {
        EXPECT_EQ(take_connection__wrapper(start, successful, -1, nullptr, end), 0);
    });
    ExpectRefusals("void Vesk_CheckAndSetHAState(workdir, ctx)", [](int32_t start, int *successful, int32_t end) {
        Vesk_CheckAndSetHAState__wrapper(start, successful, "/", nullptr, end);
    });
    ExpectRefusals("void Vesk_ReloadHAConfig()", [](int32_t start, int *successful, int32_t end) {
        Vesk_ReloadHAConfig__wrapper(start, successful, end);
    });
    ExpectRefusals("size_t VeskGetMaxVtHubProcesses()", [](int32_t start, int *successful, int32_t end) {
        EXPECT_EQ(VeskGetMaxVtHubProcesses__wrapper(start, successful, end), 0u);
    });
}

TEST(HubFunctions, RightCanariesRunTheFunctionAndSetTheFlag)
{
    const WorkDirectory work;
    const LogCapture log;
    int successful = 0;
    EXPECT_EQ(VeskGetMaxVtHubProcesses__wrapper(kFrameCanary, &successful, kFrameCanary), 4u);
    EXPECT_EQ(successful, 1);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(HubFunctions, AFunctionThatFailsHasRunAllTheSame)
{
    const WorkDirectory work;
    LogCapture log;
    const SocketPair sockets;
    char *message = nullptr;
    int successful = 0;
    shutdown(sockets.theirs.Get(), SHUT_RDWR);
    EXPECT_EQ(take_connection__wrapper(kFrameCanary, &successful, sockets.ours.Get(), &message, kFrameCanary), -1);
    EXPECT_EQ(successful, 1);
    EXPECT_EQ(message, nullptr);
}

TEST(HubFunctions, TheVersionIsThatOfTheHostItWasBuiltWith) { EXPECT_STREQ(GetExtensionLibraryVersion(), Version()); }

}  // namespace
