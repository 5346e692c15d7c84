// The host's side of the frame: the plug-in answers when the call got through, the host's own default when it did not.
//
// A process opens its plug-in once, so every test has a process of its own, and this one never makes a framed call.
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <veltrane/class.h>
#include <veltrane/entry_points.h>
#include <veltrane/extension.h>
#include <veltrane/generic_agent.h>
#include <veltrane/owned.h>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::ClassTableIteratorPtr;
using veltrane::EvalContextPtr;
using veltrane::TextPtr;

namespace fs = std::filesystem;

namespace {

class EntryPoints : public testing::Test {
  protected:
    void Install(const std::string &fake) const
    {
        const fs::path library = work_.path / "lib" / "veltrane-enterprise.so";
        fs::copy_file(fs::path(VT_TEST_BUILD_DIR) / "tests" / "plugins" / (fake + ".so"), library);
        fs::permissions(library, fs::perms(0755));
    }

    // A variable that the fake plug-in keeps.
    template <typename T>
    static T &Fake(const char *name)
    {
        return *static_cast<T *>(shlib_load(enterprise_library(), name));
    }

    static void ExpectTheDefaultsOfPlainCalls()
    {
        char to[8] = "";
        EXPECT_TRUE(TranslatePath("/bin", to, sizeof(to)));
        EXPECT_STREQ(to, "/bin");
        EXPECT_STREQ(GetConsolePrefix(), "veltrane");
        EXPECT_EQ(VtSessionKeySize('c'), 16);
        EXPECT_EQ(VtEnterpriseOptions(), 'c');
        CleanReportBookFilterSet();
    }

    WorkDirectory work_;
    LogCapture log_;
};

using EntryPointDefaults = EntryPoints;

}  // namespace

TEST_F(EntryPoints, AnswersOfThePlugInComeBackUnchanged)
{
    Install("fake_good");
    InChild([&] {
        char to[16] = "";
        EXPECT_TRUE(TranslatePath("/bin", to, sizeof(to)));
        EXPECT_STREQ(to, "</bin>");
        EXPECT_STREQ(GetConsolePrefix(), "fake");
        EXPECT_EQ(VtSessionKeySize('N'), 1000 + 'N');
        EXPECT_EQ(VtEnterpriseOptions(), 'F');
        EXPECT_EQ(VeltraneCipher('c'), nullptr);  // a zero answer is an answer
        EXPECT_EQ(GetBestFileChangeHashMethod(), HASH_METHOD_MD5);
        EXPECT_FALSE(ReturnQueryData(nullptr, nullptr, 0));
        EXPECT_EQ(Fake<std::atomic<int>>("fake_calls"), 7);
        EXPECT_THAT(log_.lines, IsEmpty());
    });
}

TEST_F(EntryPoints, AStructPassedByValueArrivesWhole)
{
    Install("fake_good");
    InChild([&] {
        Vesk_NoteAgentExecutionPerformance("promises.vt", {1234567890123, 987654321});
        EXPECT_EQ(Fake<struct timespec>("fake_start").tv_sec, 1234567890123);
        EXPECT_EQ(Fake<struct timespec>("fake_start").tv_nsec, 987654321);
    });
}

TEST_F(EntryPoints, EveryEntryPointOfTheTableReachesThePlugIn)
{
    Install("fake_good");
    InChild([&] {
        int names = 0;
#define VT_ENTRY(R, returns, Name, parameters, arguments) \
    names++;                                              \
    EXPECT_NE(shlib_load(enterprise_library(), #Name "__wrapper"), nullptr);
#include <veltrane/entry_points.def>

        const EvalContextPtr ctx(EvalContextNew());
        const GenericAgentConfig config = {};
        const veltrane::WriterPtr w(StringWriter());
        HashMethod digest = HASH_METHOD_NONE;
        int digest_len = -1;
        StringSet *history = nullptr;
        Vesk_TrackExecution("promises.vt");
        ReportPatches(nullptr);
        GenerateReports(&config, ctx.get());
        EvalContextSetupHubviewLogHook(ctx.get());
        EvalContextLogPromiseIterationOutcome(ctx.get(), nullptr, PROMISE_RESULT_NOOP);
        TrackTotalCompliance(PROMISE_RESULT_NOOP, nullptr);
        LogTotalCompliance("", 0);
        AgentDiagnosticsRunAllChecksVesk(nullptr, nullptr, nullptr, nullptr);
        (void)LogFileChange(nullptr, nullptr, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
        KeepReportDataSelectAccessPromise(nullptr);
        CleanReportBookFilterSet();
        Vesk_Initialize(ctx.get());
        Vesk_ClassHistoryEnable(&history, true);
        Vesk_ClassHistoryAddContextName(history, "linux");
        GenericAgentSetDefaultDigest(&digest, &digest_len);
        GenericAgentAddEditionClasses(ctx.get());
        GenericAgentWriteVersion(w.get());
        EnterpriseContext(ctx.get());

        EXPECT_GE(names, 26);
        EXPECT_EQ(Fake<std::atomic<int>>("fake_calls"), 18);
        EXPECT_EQ(history, nullptr);
        EXPECT_EQ(digest_len, -1);  // the fake does nothing, and no default stepped in
        EXPECT_EQ(StringWriterLength(w.get()), 0u);
    });
}

TEST_F(EntryPoints, WithoutAPlugInTheDefaultsAnswer)
{
    InChild([&] {
        ExpectTheDefaultsOfPlainCalls();
        EXPECT_THAT(log_.lines,
                    ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Extension library '" + work_.path.string() +
                                                            "/lib/veltrane-enterprise.so' is not installed")));
    });
}

TEST_F(EntryPoints, WithARefusedPlugInTheDefaultsAnswer)
{
    Install("fake_other_version");
    InChild([&] {
        ExpectTheDefaultsOfPlainCalls();
        EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, testing::HasSubstr("its version is '3.26.1'"))));
    });
}

TEST_F(EntryPoints, WithoutTheSymbolTheDefaultsAnswer)
{
    Install("fake_without_entry_points");
    InChild([&] {
        ExpectTheDefaultsOfPlainCalls();
        ExpectTheDefaultsOfPlainCalls();
        EXPECT_NE(enterprise_library(), nullptr);
        EXPECT_THAT(log_.lines, IsEmpty());
    });
}

TEST_F(EntryPoints, WhenTheFlagStaysUnsetTheDefaultsAnswerWithTheSameArguments)
{
    Install("fake_other_canary");
    InChild([&] {
        ExpectTheDefaultsOfPlainCalls();
        EXPECT_EQ(Fake<std::atomic<int>>("fake_calls"), 5);  // the plug-in was asked each time
    });
}

TEST_F(EntryPoints, ThreadsMayMakeTheFirstCallAtOnce)
{
    Install("fake_good");
    InChild([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; t++) {
            threads.emplace_back([] {
                for (int i = 0; i < 100; i++) { EXPECT_EQ(VtEnterpriseOptions(), 'F'); }
            });
        }
        for (std::thread &thread : threads) { thread.join(); }
    });
}

TEST_F(EntryPoints, TheWorkDirectoryOfTheFirstCallCounts)
{
    Install("fake_good");
    TemporaryDirectory empty;
    InChild([&] {
        EXPECT_STREQ(GetConsolePrefix(), "fake");
        SetWorkDir(empty.path.c_str());
        EXPECT_STREQ(GetConsolePrefix(), "fake");
    });
}

TEST_F(EntryPointDefaults, MostDoNothing)
{
    InChild([&] {
        const EvalContextPtr ctx(EvalContextNew());
        const GenericAgentConfig config = {};
        Vesk_TrackExecution("promises.vt");
        ReportPatches(nullptr);
        GenerateReports(&config, ctx.get());
        Vesk_NoteAgentExecutionPerformance("promises.vt", {});
        EvalContextLogPromiseIterationOutcome(ctx.get(), nullptr, PROMISE_RESULT_FAIL);
        TrackTotalCompliance(PROMISE_RESULT_SKIPPED, nullptr);
        LogTotalCompliance("", 0);
        KeepReportDataSelectAccessPromise(nullptr);
        CleanReportBookFilterSet();
        Vesk_Initialize(ctx.get());
        EnterpriseContext(ctx.get());

        const ClassTableIteratorPtr classes(EvalContextClassTableIteratorNewGlobal(ctx.get(), nullptr, true, true));
        EXPECT_EQ(ClassTableIteratorNext(classes.get()), nullptr);
        EXPECT_TRUE(fs::is_empty(work_.State("previous_state")));
        EXPECT_FALSE(fs::exists(work_.State("promise_execution.log")));
        EXPECT_TRUE(fs::is_empty(work_.path / "log"));
        EXPECT_EQ(log_.UpTo(LOG_LEVEL_INFO).size(), 0u);
    });
}

TEST_F(EntryPointDefaults, TheHostsOwnChecksAreAllThereAre)
{
    InChild([&] {
        const veltrane::WriterPtr output(StringWriter());
        AgentDiagnosticsRunAllChecksVesk(work_.path.c_str(), output.get(), nullptr, nullptr);
        EXPECT_EQ(StringWriterLength(output.get()), 0u);
    });
}

TEST_F(EntryPointDefaults, LineDifferencesNeedThePlugIn)
{
    InChild([&] {
        log_.lines.clear();
        EXPECT_EQ(LogFileChange(nullptr, "/etc/motd", 1, nullptr, nullptr, nullptr, "", nullptr), PROMISE_RESULT_NOOP);
        EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "Line differences of '/etc/motd' need the enterprise plug-in"));
        EXPECT_EQ(log_.UpTo(LOG_LEVEL_INFO).size(), 0u);
    });
}

TEST_F(EntryPointDefaults, AReportQueryIsNotAnswered)
{
    InChild([] {
        char menu[] = "delta 0 0";
        EXPECT_FALSE(ReturnQueryData(nullptr, menu, 0));
    });
}

TEST_F(EntryPointDefaults, LiteralsAreNotServed)
{
    InChild([&] {
        const EvalContextPtr ctx(EvalContextNew());
        log_.lines.clear();
        RegisterLiteralServerData(ctx.get(), "site_network", nullptr);
        EXPECT_TRUE(
            log_.Has(LOG_LEVEL_VERBOSE, "Literal 'site_network' is not served: it needs the enterprise plug-in"));

        char handle[] = "site_network";
        char recv[8] = "before";
        EXPECT_EQ(ReturnLiteralData(ctx.get(), handle, recv), 0);
        EXPECT_STREQ(recv, "");
        EXPECT_EQ(log_.UpTo(LOG_LEVEL_INFO).size(), 0u);
    });
}

TEST_F(EntryPointDefaults, CookiesAndTestReportsAreNotAnswered)
{
    InChild([] {
        char menu[] = "delta 0 0";
        EXPECT_FALSE(ReturnCookies(nullptr));
        EXPECT_FALSE(VTTestD_ReturnQueryData(nullptr, menu));
    });
}

TEST_F(EntryPointDefaults, TheDaemonListensAsPolicySays)
{
    InChild([] {
        const EvalContextPtr ctx(EvalContextNew());
        EvalContextClassPutHard(ctx.get(), "policy_server", nullptr);
        const InitServerFunction open = [](size_t queue_size, char *) { return static_cast<int>(queue_size); };
        char address[] = "127.0.0.1";
        EXPECT_EQ(SetServerListenState(ctx.get(), 7, address, true, open), 7);
        EXPECT_EQ(SetServerListenState(ctx.get(), 7, address, false, open), -1);
    });
}

TEST_F(EntryPointDefaults, AHubAnnouncesItselfUnderTheProductsName)
{
    InChild([&] {
        const fs::path path = work_.path / "service";
        {
            const veltrane::FilePtr file(fopen(path.c_str(), "w"));
            FprintAvahiVeltraneTag(file.get());
        }
        EXPECT_EQ(ReadFile(path), "<name replace-wildcards=\"yes\" >Veltrane 3.27.0 Policy Hub on %h </name>\n");
    });
}

TEST_F(EntryPointDefaults, RemoteScalarsNeedThePlugIn)
{
    InChild([&] {
        const EvalContextPtr ctx(EvalContextNew());
        char word[] = "VAR";
        char handle[] = "h1";
        char recv[8] = "before";
        log_.lines.clear();
        EXPECT_EQ(GetRemoteScalar(ctx.get(), word, handle, "127.0.0.1", 0, recv), recv);
        EXPECT_STREQ(recv, "BAD:");
        EXPECT_TRUE(log_.Has(LOG_LEVEL_ERR, "Remote scalars need the enterprise plug-in"));
    });
}

TEST_F(EntryPointDefaults, NoValueIsRememberedForLater)
{
    InChild([&] {
        char caller[] = "main";
        char handle[] = "h1";
        char buffer[8] = "value";
        CacheUnreliableValue(caller, handle, buffer);
        EXPECT_EQ(RetrieveUnreliableValue(caller, handle, buffer), 0);
        EXPECT_STREQ(buffer, "");
        EXPECT_FALSE(fs::exists(work_.State("cache.lmdb")));
    });
}

TEST_F(EntryPointDefaults, CollectCallsAreNotMade)
{
    InChild([&] {
        CollectCallStart(0);
        CollectCallStop();
        const LogCapture::Line needed = {LOG_LEVEL_VERBOSE, "Collect calls need the enterprise plug-in"};
        EXPECT_FALSE(log_.Has(needed.first, needed.second));
        log_.lines.clear();
        CollectCallStart(1);
        EXPECT_THAT(log_.lines, ElementsAre(needed));

        int waiting_queue = 7;
        EXPECT_FALSE(CollectCallHasPending());
        EXPECT_EQ(CollectCallGetPending(&waiting_queue), -1);
        EXPECT_EQ(waiting_queue, 7);
        CollectCallMarkProcessed();
        EXPECT_THAT(log_.lines, ElementsAre(needed));
    });
}

TEST_F(EntryPointDefaults, CollectCallsAreNotReceived)
{
    InChild([&] {
        (void)enterprise_library();
        log_.lines.clear();
        EXPECT_FALSE(ReceiveCollectCall(nullptr));
        EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Collect calls need the enterprise plug-in")));
    });
}

TEST_F(EntryPointDefaults, WhatOnlyAHubDoesIsNotDone)
{
    InChild([&] {
        (void)enterprise_library();
        log_.lines.clear();
        CheckAndSetHAState("/workdir", nullptr);
        ReloadHAConfig();
        EXPECT_EQ(EnterpriseGetMaxVtHubProcesses(), 0u);
        EXPECT_THAT(log_.lines, IsEmpty());

        char value[] = "value";
        char format[] = "format";
        Rlist *hosts = nullptr;
        EXPECT_FALSE(ListHostsWithField(nullptr, &hosts, value, format, 0));
        EXPECT_EQ(hosts, nullptr);
        EXPECT_THAT(log_.lines,
                    ElementsAre(Pair(LOG_LEVEL_ERR, "Listing hosts needs the enterprise plug-in on a hub")));
    });
}

TEST_F(EntryPointDefaults, TheConsolePrefixIsTheProducts)
{
    InChild([] { EXPECT_STREQ(GetConsolePrefix(), "veltrane"); });
}

TEST_F(EntryPointDefaults, APathIsCopiedAsItIsWhenItFits)
{
    InChild([&] {
        char to[6] = "";
        EXPECT_TRUE(TranslatePath("/path", to, sizeof(to)));
        EXPECT_STREQ(to, "/path");
        EXPECT_FALSE(TranslatePath("/paths", to, sizeof(to)));
        EXPECT_STREQ(to, "/path");
        EXPECT_FALSE(TranslatePath("", to, 0));
        EXPECT_EQ(log_.UpTo(LOG_LEVEL_INFO).size(), 0u);
    });
}

TEST_F(EntryPointDefaults, TheCipherIsBlowfishWithSixteenBytesOfKey)
{
    InChild([] {
        EXPECT_EQ(VeltraneCipher('c'), EVP_bf_cbc());
        EXPECT_EQ(VeltraneCipher('N'), EVP_bf_cbc());
        EXPECT_EQ(VtSessionKeySize('c'), 16);
        EXPECT_EQ(VtSessionKeySize('N'), 16);
        EXPECT_EQ(VtEnterpriseOptions(), 'c');
    });
}

TEST_F(EntryPointDefaults, TheDigestsAreSha256)
{
    InChild([] {
        HashMethod digest = HASH_METHOD_NONE;
        int digest_len = 0;
        GenericAgentSetDefaultDigest(&digest, &digest_len);
        EXPECT_EQ(digest, HASH_METHOD_SHA256);
        EXPECT_EQ(digest_len, 32);
        EXPECT_EQ(GetBestFileChangeHashMethod(), HASH_METHOD_SHA256);
    });
}

TEST_F(EntryPointDefaults, TheEditionClassIsCoreEdition)
{
    InChild([] {
        const EvalContextPtr ctx(EvalContextNew());
        GenericAgentAddEditionClasses(ctx.get());

        const ClassTableIteratorPtr classes(EvalContextClassTableIteratorNewGlobal(ctx.get(), nullptr, true, true));
        const Class *const edition = ClassTableIteratorNext(classes.get());
        ASSERT_NE(edition, nullptr);
        EXPECT_STREQ(edition->name, "core_edition");
        EXPECT_FALSE(edition->is_soft);
        const veltrane::BufferPtr tags(StringSetToBuffer(edition->tags, ','));
        EXPECT_STREQ(BufferData(tags.get()), "inventory,attribute_name=none,source=agent");
        EXPECT_EQ(ClassTableIteratorNext(classes.get()), nullptr);
    });
}

TEST_F(EntryPointDefaults, TheVersionIsWrittenOnALine)
{
    InChild([] {
        Writer *const w = StringWriter();
        GenericAgentWriteVersion(w);
        const TextPtr text(StringWriterClose(w));
        EXPECT_STREQ(text.get(), "Veltrane Core 3.27.0\n");
    });
}

TEST_F(EntryPointDefaults, NoMessagesOfPromisesAreCollected)
{
    InChild([] {
        LoggingPrivContext *const bound = LoggingPrivGetContext();
        const EvalContextPtr ctx(EvalContextNew());
        EvalContextSetupHubviewLogHook(ctx.get());
        EXPECT_EQ(LoggingPrivGetContext(), bound);
    });
}

TEST_F(EntryPointDefaults, ClassHistoryWorks)
{
    InChild([] {
        StringSet *history = nullptr;
        Vesk_ClassHistoryEnable(&history, true);
        ASSERT_NE(history, nullptr);
        StringSet *const first = history;
        Vesk_ClassHistoryAddContextName(history, "ns:web-server");
        Vesk_ClassHistoryEnable(&history, true);
        EXPECT_EQ(history, first);
        EXPECT_TRUE(StringSetContains(history, "ns_web_server"));
        EXPECT_EQ(StringSetSize(history), 1u);
        Vesk_ClassHistoryEnable(&history, false);
        EXPECT_EQ(history, nullptr);
    });
}

TEST_F(EntryPoints, DirectoryLookUpsReachThePlugIn)
{
    Install("fake_good");
    InChild([&] {
        char text[] = "x";
        EXPECT_EQ(VtLDAPValue(text, text, text, text, text, text), nullptr);
        EXPECT_EQ(VtLDAPList(text, text, text, text, text, text), nullptr);
        EXPECT_EQ(VtLDAPArray(nullptr, nullptr, text, text, text, text, text, text), nullptr);
        EXPECT_EQ(VtRegLDAP(nullptr, text, text, text, text, text, text, text), nullptr);
        EXPECT_EQ(Fake<std::atomic<int>>("fake_calls"), 4);
        EXPECT_THAT(log_.lines, IsEmpty());
    });
}

TEST_F(EntryPointDefaults, DirectoryLookUpsNeedThePlugIn)
{
    InChild([&] {
        char text[] = "x";
        EXPECT_EQ(VtLDAPValue(text, text, text, text, text, text), nullptr);
        EXPECT_EQ(VtLDAPList(text, text, text, text, text, text), nullptr);
        EXPECT_EQ(VtLDAPArray(nullptr, nullptr, text, text, text, text, text, text), nullptr);
        EXPECT_EQ(VtRegLDAP(nullptr, text, text, text, text, text, text, text), nullptr);
        const LogCapture::Line line(LOG_LEVEL_ERR, "Directory look-ups need the enterprise plug-in");
        EXPECT_THAT(log_.UpTo(LOG_LEVEL_INFO), ElementsAre(line, line, line, line));
    });
}
