// The dispatch to the library of the hub-only functions: found, absent, incomplete, or built for another frame.
#include "libvtenterprise/report_collect_extension.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/owned.h>

#include "support/hub_library.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::EvalContextPtr;
using veltrane::RlistPtr;
using veltrane::TextPtr;

namespace {

bool once_fails = false;

class ReportCollectExtension : public HubLibraryTest {
  protected:
    // Every function once; what they answer without the library.
    static void ExpectTheStubs()
    {
        char *message = nullptr;
        Rlist *hosts = nullptr;
        char value[] = "value";
        char format[] = "format";
        EXPECT_FALSE(Vesk_AcceptCollectCall(nullptr));
        EXPECT_TRUE(share_connection("/path", 1, "message"));
        EXPECT_EQ(take_connection(3, &message), -1);
        EXPECT_EQ(message, nullptr);
        EXPECT_FALSE(VTDB_HostsWithField(nullptr, &hosts, value, format, 1));
        EXPECT_EQ(hosts, nullptr);
        Vesk_CheckAndSetHAState("/workdir", nullptr);
        Vesk_ReloadHAConfig();
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), 0u);
    }

    // Every function once, as the library answers it.
    void ExpectTheLibrary()
    {
        const EvalContextPtr ctx(EvalContextNew());
        char *message = nullptr;
        Rlist *hosts = nullptr;
        char value[] = "value";
        char format[] = "format";
        log.lines.clear();

        EXPECT_FALSE(Vesk_AcceptCollectCall(nullptr));
        EXPECT_FALSE(share_connection("/path", -7, "message"));
        EXPECT_TRUE(share_connection("/path", 7, "message"));
        EXPECT_EQ(take_connection(3, &message), 1003);
        const TextPtr owned_message(message);
        EXPECT_STREQ(message, "from the library");
        EXPECT_TRUE(VTDB_HostsWithField(ctx.get(), &hosts, value, format, 5));
        const RlistPtr owned_hosts(hosts);
        EXPECT_STREQ(RlistScalarValue(hosts), "SHA=host");
        Vesk_CheckAndSetHAState("/workdir", ctx.get());
        Vesk_ReloadHAConfig();
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), SIZE_MAX);

        EXPECT_THAT(
            log.lines,
            ElementsAre(Pair(LOG_LEVEL_INFO, "Accept((nil))"), Pair(LOG_LEVEL_INFO, "Share(/path, -7, message)"),
                        Pair(LOG_LEVEL_INFO, "Share(/path, 7, message)"),
                        Pair(LOG_LEVEL_INFO, "Hosts(context, value, format, 5)"),
                        Pair(LOG_LEVEL_INFO, "HAState(/workdir, context)"), Pair(LOG_LEVEL_INFO, "ReloadHA()")));
    }
};

}  // namespace

// The library's way to run something once, which a test may let fail.
extern "C" int pthread_once(pthread_once_t *control, void (*routine)())
{
    using Once = int (*)(pthread_once_t *, void (*)());
    static const Once real = reinterpret_cast<Once>(dlsym(RTLD_NEXT, "pthread_once"));
    return once_fails ? ENOMEM : real(control, routine);
}

TEST_F(ReportCollectExtension, WithTheLibraryItsAnswersComeBackUnchanged)
{
    Install("fake_hub");
    InChild([&] {
        ExpectTheLibrary();
        ExpectTheLibrary();
    });
}

TEST_F(ReportCollectExtension, WithoutTheLibraryEveryStubAnswersAndTheLibraryIsLookedForOnce)
{
    InChild([&] {
        ExpectTheStubs();
        EXPECT_THAT(log.lines, ElementsAre(NotInstalled(), kCollectCallsNeedAHub, kCollectCallsNeedAHub,
                                           kCollectCallsNeedAHub, kListingNeedsAHub, kHaNeedsAHub));
    });
}

TEST_F(ReportCollectExtension, ReloadingAndCountingNeverLogWhenTheyFallBack)
{
    InChild([&] {
        (void)report_collect_library_open();
        log.lines.clear();
        Vesk_ReloadHAConfig();
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), 0u);
        EXPECT_THAT(log.lines, IsEmpty());
    });
}

TEST_F(ReportCollectExtension, ALibraryThatIsInstalledLaterIsNotSeenByARunningProcess)
{
    InChild([&] {
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), 0u);
        Install("fake_hub");
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), 0u);
        EXPECT_EQ(report_collect_library_open(), nullptr);
    });
}

TEST_F(ReportCollectExtension, TheStubAnswersForAMissingFunctionAndTheOthersWork)
{
    Install("fake_hub_without_collect_call");
    InChild([&] {
        EXPECT_TRUE(share_connection("/path", -7, "message"));
        EXPECT_FALSE(Vesk_AcceptCollectCall(nullptr));
        EXPECT_EQ(take_connection(3, nullptr), -1);
        EXPECT_THAT(log.lines, ElementsAre(kCollectCallsNeedAHub, kCollectCallsNeedAHub, kCollectCallsNeedAHub));
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), SIZE_MAX);
    });
}

TEST_F(ReportCollectExtension, AMissingFunctionIsLookedForAgainAtTheNextCall)
{
    Install("fake_hub_without_collect_call");
    InChild([&] {
        OpenForEachCall();
        EXPECT_EQ(take_connection(3, nullptr), -1);
        Install("fake_hub");
        char *message = nullptr;
        EXPECT_EQ(take_connection(3, &message), 1003);
        free(message);
        EXPECT_THAT(log.lines, ElementsAre(kCollectCallsNeedAHub));
    });
}

TEST_F(ReportCollectExtension, AFrameThatTheLibraryRefusesIsAnsweredByTheStubs)
{
    Install("fake_hub_other_canary");
    InChild([&] {
        ExpectTheStubs();
        EXPECT_THAT(log.lines, ElementsAre(kCollectCallsNeedAHub, kCollectCallsNeedAHub, kCollectCallsNeedAHub,
                                           kListingNeedsAHub, kHaNeedsAHub));
    });
}

TEST_F(ReportCollectExtension, TheLibraryStaysOpenFromTheFirstCallOn)
{
    Install("fake_hub");
    InChild([&] {
        void *const library = report_collect_library_open();
        ASSERT_NE(library, nullptr);
        report_collect_library_close(library);
        std::filesystem::remove(work.path / "lib" / "veltrane-report-collect.so");
        EXPECT_EQ(report_collect_library_open(), library);
        ExpectTheLibrary();
    });
}

TEST_F(ReportCollectExtension, WithTheVariableSetEachCallOpensTheLibraryAnew)
{
    InChild([&] {
        OpenForEachCall();
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), 0u);
        Install("fake_hub");
        ExpectTheLibrary();
        ExpectTheLibrary();
        std::filesystem::remove(work.path / "lib" / "veltrane-report-collect.so");
        log.lines.clear();
        ExpectTheStubs();
        EXPECT_THAT(log.lines, ElementsAre(NotInstalled(), kCollectCallsNeedAHub, NotInstalled(), kCollectCallsNeedAHub,
                                           NotInstalled(), kCollectCallsNeedAHub, NotInstalled(), kListingNeedsAHub,
                                           NotInstalled(), kHaNeedsAHub, NotInstalled(), NotInstalled()));
    });
}

TEST_F(ReportCollectExtension, WithTheVariableSetTheLibraryIsClosedAfterEachCall)
{
    Install("fake_hub_without_collect_call");
    InChild([&] {
        OpenForEachCall();
        const std::string path = (work.path / "lib" / "veltrane-report-collect.so").string();
        const auto is_loaded = [&] {
            void *const loaded = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
            if (loaded != nullptr) {
                dlclose(loaded);
            }
            return loaded != nullptr;
        };
        void *const library = report_collect_library_open();
        EXPECT_TRUE(is_loaded());
        report_collect_library_close(library);
        EXPECT_FALSE(is_loaded());
        EXPECT_EQ(take_connection(3, nullptr), -1);  // the function is missing
        EXPECT_FALSE(is_loaded());
        Vesk_ReloadHAConfig();  // it answers
        EXPECT_FALSE(is_loaded());
    });
}

TEST_F(ReportCollectExtension, ARefusedFrameClosesTheLibraryBeforeTheStubAnswers)
{
    Install("fake_hub_other_canary");
    InChild([&] {
        OpenForEachCall();
        EXPECT_EQ(take_connection(3, nullptr), -1);
        EXPECT_EQ(dlopen((work.path / "lib" / "veltrane-report-collect.so").c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    });
}

TEST_F(ReportCollectExtension, TheVariableMayBeSetAfterTheLibraryWasOpenedForGood)
{
    Install("fake_hub");
    InChild([&] {
        ExpectTheLibrary();
        OpenForEachCall();
        ExpectTheLibrary();
        unsetenv("VELTRANE_TEST_OVERRIDE_EXTENSION_LIBRARY_DO_CLOSE");
        ExpectTheLibrary();
    });
}

TEST_F(ReportCollectExtension, OpeningThatCannotBeArrangedIsAnErrorAndTheStubAnswers)
{
    Install("fake_hub");
    InChild([&] {
        once_fails = true;
        EXPECT_EQ(report_collect_library_open(), nullptr);
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), 0u);
        once_fails = false;
        const LogCapture::Line failed = {LOG_LEVEL_ERR,
                                         "Could not initialize Extension Library: veltrane-report-collect.so: Cannot "
                                         "allocate memory"};
        EXPECT_THAT(log.lines, ElementsAre(failed, failed));
        EXPECT_EQ(VeskGetMaxVtHubProcesses(), SIZE_MAX);
    });
}
