// The frame of all entry points, called here as a host calls it, and the version query beside it.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/known_dirs.h>

#include "enterprise-plugin/plugin_version.h"
#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/vtenterprise.h"
#include "support/log_capture.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr int32_t kCanary = 0x10203040;

// Calls a wrapper with given canaries and with zero for every argument.
template <typename Real>
struct Frame;

template <typename R, typename... A>
struct Frame<R(A...) noexcept> {
    using Wrapper = R(int32_t, int *, A..., int32_t) noexcept;

    // Whether what came back is the zero of its type.
    static bool ReturnsZero(Wrapper *wrapper, int32_t start, int *successful, int32_t end)
    {
        if constexpr (std::is_void_v<R>) {
            wrapper(start, successful, A()..., end);
            return true;
        } else {
            return wrapper(start, successful, A()..., end) == R();
        }
    }
};

struct EntryPoint {
    std::string name;
    bool (*returns_zero)(int32_t start, int *successful, int32_t end);
};

const std::vector<EntryPoint> kEntryPoints = {
#define VT_ENTRY(R, returns, Name, parameters, arguments)                                            \
    {#Name, [](int32_t start, int *successful, int32_t end) {                                        \
         return Frame<decltype(Name##__real)>::ReturnsZero(Name##__wrapper, start, successful, end); \
     }},
#include <veltrane/entry_points.def>
};

// What the failure message says of each entry point, in the table's order. Hosts and their operators know these texts.
const std::vector<std::string> kSignatures = {
    "void Vesk_TrackExecution(input_file)",
    "void ReportPatches(list)",
    "void GenerateReports(config, ctx)",
    "void Vesk_NoteAgentExecutionPerformance(input_file, start)",
    "void EvalContextSetupHubviewLogHook(ctx)",
    "void EvalContextLogPromiseIterationOutcome(ctx, pp, result)",
    "void TrackTotalCompliance(status, pp)",
    "void LogTotalCompliance(version, background_tasks)",
    "void AgentDiagnosticsRunAllChecksVesk(workdir, output, AgentDiagnosticsRunPtr, func_ptr)",
    "PromiseResult LogFileChange(ctx, file, change, attr, pp, CopyRegularFilePtr, destination, "
    "DeleteCompressedArrayPtr)",
    "void RegisterLiteralServerData(ctx, handle, pp)",
    "int ReturnLiteralData(ctx, handle, recv)",
    "_Bool ReturnCookies(conn)",
    "_Bool ReturnQueryData(conn, menu, encrypt)",
    "void KeepReportDataSelectAccessPromise(pp)",
    "void CleanReportBookFilterSet()",
    "int SetServerListenState(ctx, queue_size, bind_address, server_listen, InitServerPtr)",
    "_Bool ReceiveCollectCall(conn)",
    "void FprintAvahiVeltraneTag(fp)",
    "void CollectCallStart(interval)",
    "void CollectCallStop()",
    "_Bool CollectCallHasPending()",
    "int CollectCallGetPending(waiting_queue)",
    "void CollectCallMarkProcessed()",
    "_Bool VTTestD_ReturnQueryData(conn, menu)",
    "void Vesk_Initialize(ctx)",
    "const char * GetConsolePrefix()",
    "_Bool TranslatePath(from, to, to_size)",
    "const EVP_CIPHER * VeltraneCipher(type)",
    "int VtSessionKeySize(c)",
    "char VtEnterpriseOptions()",
    "char * GetRemoteScalar(ctx, proto, handle, server, encrypted, recvbuffer)",
    "int RetrieveUnreliableValue(caller, handle, buffer)",
    "void CacheUnreliableValue(caller, handle, buffer)",
    "void GenericAgentSetDefaultDigest(digest, digest_len)",
    "HashMethod GetBestFileChangeHashMethod()",
    "void GenericAgentAddEditionClasses(ctx)",
    "void GenericAgentWriteVersion(w)",
    "void EnterpriseContext(ctx)",
    "void Vesk_ClassHistoryEnable(list, enable)",
    "void Vesk_ClassHistoryAddContextName(list, context_name)",
    "size_t EnterpriseGetMaxVtHubProcesses()",
    "void CheckAndSetHAState(workdir, ctx)",
    "void ReloadHAConfig()",
    "_Bool ListHostsWithField(ctx, return_list, field_value, return_format, function_type)",
    "void * VtLDAPValue(uri, basedn, filter, name, scopes, sec)",
    "void * VtLDAPList(uri, basedn, filter, name, scopes, sec)",
    "void * VtLDAPArray(ctx, caller, array, uri, basedn, filter, scopes, sec)",
    "void * VtRegLDAP(ctx, uri, basedn, filter, name, scopes, regex, sec)",
};

std::string FailureMessage(const std::string &signature)
{
    return "Function '" + signature +
           "' failed stack consistency check. Most likely this means the plugin containing the function is "
           "incompatible "
           "with this version of Veltrane.";
}

// Every entry point once with these canaries, at least one of them wrong: one message each and nothing else.
void ExpectEveryCallRefused(int32_t start, int32_t end)
{
    for (size_t i = 0; i < kEntryPoints.size(); i++) {
        SCOPED_TRACE(kEntryPoints[i].name);
        LogCapture log;
        int successful = 7;

        // Run with these arguments, the real functions would read through null pointers.
        EXPECT_TRUE(kEntryPoints[i].returns_zero(start, &successful, end));

        EXPECT_EQ(successful, 7);
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, FailureMessage(kSignatures.at(i)))));
    }
}

}  // namespace

TEST(Frame, EveryEntryPointHasItsSignatureInThisTest)
{
    std::vector<std::string> from_table;
#define VT_ENTRY(R, returns, Name, parameters, arguments) \
    from_table.push_back(std::string(returns " " #Name #arguments));
#include <veltrane/entry_points.def>

    EXPECT_THAT(from_table, ElementsAreArray(kSignatures));
}

TEST(Frame, AWrongStartCanaryIsRefusedByEveryEntryPoint) { ExpectEveryCallRefused(kCanary + 1, kCanary); }

TEST(Frame, AWrongEndCanaryIsRefusedByEveryEntryPoint) { ExpectEveryCallRefused(kCanary, kCanary - 1); }

TEST(Frame, TwoWrongCanariesAreOneMessage) { ExpectEveryCallRefused(0, -1); }

TEST(Frame, AWrongEndCanaryRunsNothingAndLeavesTheCallersFlag)
{
    LogCapture log;
    char to[8] = "before";
    int successful = 7;

    EXPECT_FALSE(TranslatePath__wrapper(kCanary, &successful, "/bin", to, sizeof(to), kCanary + 1));

    EXPECT_EQ(successful, 7);
    EXPECT_STREQ(to, "before");
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, FailureMessage("_Bool TranslatePath(from, to, to_size)"))));
}

TEST(Frame, BothCanariesRightRunTheRealFunctionAndSetTheFlag)
{
    LogCapture log;
    char to[8] = "before";
    int successful = 0;

    EXPECT_TRUE(TranslatePath__wrapper(kCanary, &successful, "/bin", to, sizeof(to), kCanary));

    EXPECT_EQ(successful, 1);
    EXPECT_STREQ(to, "/bin");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(Frame, TheResultComesBackUnchanged)
{
    int successful = 0;
    EXPECT_EQ(VtEnterpriseOptions__wrapper(kCanary, &successful, kCanary), 'N');
    EXPECT_EQ(GetConsolePrefix__wrapper(kCanary, &successful, kCanary), GetConsolePrefix__real());
    EXPECT_EQ(GetBestFileChangeHashMethod__wrapper(kCanary, &successful, kCanary), HASH_METHOD_SHA512);
    EXPECT_EQ(VeltraneCipher__wrapper(kCanary, &successful, 'N', kCanary), EVP_aes_256_cbc());
}

TEST(Frame, WithoutArgumentsTheEndCanaryFollowsTheFlag)
{
    // Through the shape that a host built without the plug-in's headers uses.
    using HostSide = const char *(*)(int32_t, int *, int32_t) noexcept;
    const HostSide wrapper = GetConsolePrefix__wrapper;
    LogCapture log;
    int successful = 0;

    EXPECT_STREQ(wrapper(kCanary, &successful, kCanary), "enterprise");
    EXPECT_EQ(successful, 1);

    successful = 0;
    EXPECT_EQ(wrapper(kCanary, &successful, 0), nullptr);
    EXPECT_EQ(successful, 0);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, FailureMessage("const char * GetConsolePrefix()"))));
}

TEST(Frame, AFlagThatWasNotClearedHidesAFailedCall)
{
    LogCapture log;
    int successful = 1;

    EXPECT_EQ(VtSessionKeySize__wrapper(0, &successful, 'N', kCanary), 0);

    EXPECT_EQ(successful, 1);
}

TEST(PluginVersion, EqualsTheVersionThatThePluginTells)
{
    EXPECT_STREQ(GetExtensionLibraryVersion(), "3.27.0");
    EXPECT_STREQ(GetExtensionLibraryVersion(), Vesk_Version());
}
