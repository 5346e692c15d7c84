#include "libvtenterprise/enterprise_promises.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>

#include <veltrane/globals.h>

#include "libvtenterprise/entry_points_real.h"
#include "support/file_size_limit.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/promise_site.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace fs = std::filesystem;

namespace {

// The counters as the plug-in has them at load.
class Compliance : public testing::Test {
  protected:
    Compliance()
    {
        for (int *counter : {&PR_KEPT, &PR_REPAIRED, &PR_NOTKEPT, &PR_KEPT_USER, &PR_REPAIRED_USER, &PR_NOTKEPT_USER,
                             &PR_KEPT_INTERNAL, &PR_REPAIRED_INTERNAL, &PR_NOTKEPT_INTERNAL}) {
            *counter = 0;
        }
        VTSTARTTIME = 1699999000;
    }

    static void Track(PromiseResult result, const char *handle = nullptr)
    {
        PromiseSite site;
        if (handle != nullptr) {
            site.Scalar("handle", handle);
        }
        TrackTotalCompliance__real(result, site.promise());
    }

    // Kept, repaired, not kept.
    static std::array<int, 3> OfUser() { return {PR_KEPT_USER, PR_REPAIRED_USER, PR_NOTKEPT_USER}; }
    static std::array<int, 3> OfProduct() { return {PR_KEPT_INTERNAL, PR_REPAIRED_INTERNAL, PR_NOTKEPT_INTERNAL}; }

    fs::path Summary() const { return work_.path / "log" / "promise_summary.log"; }

    // The message that the summary was asked for.
    std::string Logged(const char *version = "1.0", int background_tasks = 0)
    {
        log_.lines.clear();
        LogTotalCompliance__real(version, background_tasks);
        return log_.lines.size() == 1 && log_.lines[0].first == LOG_LEVEL_VERBOSE ? log_.lines[0].second : "";
    }

    WorkDirectory work_;
    LogCapture log_;
};

const char *const kNothing =
    "Outcome of version 1.0 (agent-0): Promises observed - Total promise compliance: 0% kept, 0% repaired, 0% not "
    "kept (out of 0 events). User promise compliance: 0% kept, 0% repaired, 0% not kept (out of 0 events). "
    "Veltrane system compliance: 0% kept, 0% repaired, 0% not kept (out of 0 events).";

// "<start>,<now>: " and the rest, with now, which must be of now, made 1700000000.
std::string WithFixedTime(const std::string &line)
{
    const size_t comma = line.find(',');
    const size_t colon = line.find(": ");
    const long now = std::stol(line.substr(comma + 1, colon - comma - 1));
    EXPECT_LE(now, time(nullptr));
    EXPECT_GT(now, time(nullptr) - 600);
    return line.substr(0, comma + 1) + "1700000000" + line.substr(colon);
}

}  // namespace

// --- Counting ---

TEST_F(Compliance, EachResultCountsOnce)
{
    Track(PROMISE_RESULT_NOOP);
    EXPECT_EQ(OfUser(), (std::array<int, 3>{1, 0, 0}));
    Track(PROMISE_RESULT_CHANGE);
    EXPECT_EQ(OfUser(), (std::array<int, 3>{1, 1, 0}));
    int not_kept = 0;
    for (const PromiseResult result : {PROMISE_RESULT_DENIED, PROMISE_RESULT_FAIL, PROMISE_RESULT_INTERRUPTED,
                                       PROMISE_RESULT_TIMEOUT, PROMISE_RESULT_WARN}) {
        Track(result);
        EXPECT_EQ(OfUser(), (std::array<int, 3>{1, 1, ++not_kept})) << static_cast<char>(result);
    }
    EXPECT_EQ(OfProduct(), (std::array<int, 3>{0, 0, 0}));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(Compliance, PromisesOfTheProductAreCountedApart)
{
    Track(PROMISE_RESULT_NOOP, "vte_internal_update");
    Track(PROMISE_RESULT_CHANGE, "vte_internal_update");
    Track(PROMISE_RESULT_FAIL, "vte_internal_");
    EXPECT_EQ(OfProduct(), (std::array<int, 3>{1, 1, 1}));
    EXPECT_EQ(OfUser(), (std::array<int, 3>{0, 0, 0}));
}

TEST_F(Compliance, AHandleThatHoldsTheMarkAnywhereIsTheProducts)
{
    Track(PROMISE_RESULT_NOOP, "my_vte_internal_update");
    EXPECT_EQ(OfProduct(), (std::array<int, 3>{1, 0, 0}));
}

TEST_F(Compliance, OtherHandlesAndNoneAreTheUsers)
{
    Track(PROMISE_RESULT_NOOP);
    Track(PROMISE_RESULT_NOOP, "vte_internal");
    Track(PROMISE_RESULT_NOOP, "VTE_INTERNAL_x");
    EXPECT_EQ(OfUser(), (std::array<int, 3>{3, 0, 0}));
    EXPECT_EQ(OfProduct(), (std::array<int, 3>{0, 0, 0}));
}

TEST_F(Compliance, AnyOtherStateCountsNothing)
{
    const PromiseSite site;
    for (const int state : {static_cast<int>(PROMISE_STATE_ANY), 0, -1, 1000}) {
        EnterpriseTrackTotalCompliance(site.promise(), static_cast<PromiseState>(state));
    }
    EXPECT_EQ(OfUser(), (std::array<int, 3>{0, 0, 0}));
    EXPECT_EQ(OfProduct(), (std::array<int, 3>{0, 0, 0}));
}

TEST_F(Compliance, ASkippedPromiseIsAProgrammingError)
{
    EXPECT_DEATH(Track(PROMISE_RESULT_SKIPPED),
                 "programming error: Unexpected status 's' has been passed to TrackTotalCompliance");
}

TEST_F(Compliance, AnUnknownResultIsAProgrammingError)
{
    EXPECT_DEATH(Track(static_cast<PromiseResult>('z')),
                 "programming error: Unexpected status 'z' has been passed to TrackTotalCompliance");
}

// --- The summary ---

TEST_F(Compliance, WithoutPromisesEveryPercentageIsZero) { EXPECT_EQ(Logged(), kNothing); }

TEST_F(Compliance, TheSummaryHasItsGoldenBytes)
{
    PR_KEPT = 5, PR_REPAIRED = 2, PR_NOTKEPT = 1;
    PR_KEPT_USER = 3, PR_REPAIRED_USER = 2, PR_NOTKEPT_USER = 1;
    PR_KEPT_INTERNAL = 2;
    LogTotalCompliance__real("Veltrane Promises.vt 2.1", 3);
    LogTotalCompliance__real("1.0", 0);

    const std::string bytes = ReadFile(Summary());
    const size_t second = bytes.find('\n') + 1;
    ExpectGolden("log/promise_summary.log",
                 WithFixedTime(bytes.substr(0, second)) + WithFixedTime(bytes.substr(second)));
}

TEST_F(Compliance, ThePercentagesAreRoundedToWholeOnes)
{
    PR_KEPT_USER = 2, PR_NOTKEPT_USER = 1;
    PR_KEPT_INTERNAL = 1, PR_REPAIRED_INTERNAL = 199;
    EXPECT_THAT(Logged(), testing::HasSubstr("User promise compliance: 67% kept, 0% repaired, 33% not kept (out of 3 "
                                             "events). Veltrane system compliance: 0% kept, 100% repaired, 0% not "
                                             "kept (out of 200 events)."));
}

TEST_F(Compliance, TheLineIsTheTwoTimesAndTheMessage)
{
    const std::string message = Logged();
    EXPECT_EQ(WithFixedTime(ReadFile(Summary())), "1699999000,1700000000: " + message + "\n");
}

TEST_F(Compliance, TheCountersAreNeverReset)
{
    Track(PROMISE_RESULT_NOOP);
    const std::string first = Logged();
    EXPECT_EQ(Logged(), first);
    Track(PROMISE_RESULT_NOOP);
    EXPECT_THAT(Logged(), testing::HasSubstr("(out of 2 events)"));
}

TEST_F(Compliance, AMessageIsCutAt4095Bytes)
{
    const std::string version(5000, 'v');
    const std::string message = Logged(version.c_str());
    EXPECT_EQ(message, ("Outcome of version " + version).substr(0, 4095));
    EXPECT_EQ(WithFixedTime(ReadFile(Summary())), "1699999000,1700000000: " + message + "\n");
}

TEST_F(Compliance, AVersionWithAPercentSignIsPrintedAsItIs)
{
    EXPECT_THAT(Logged("%s%n"), testing::StartsWith("Outcome of version %s%n (agent-0)"));
}

TEST_F(Compliance, ASummaryThatCannotBeOpenedIsAnErrorLine)
{
    fs::create_directory(Summary());

    LogTotalCompliance__real("1.0", 0);

    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, kNothing),
                                        Pair(LOG_LEVEL_ERR,
                                             "Could not open '" + Summary().string() + "'. (fopen: Is a directory)")));
}

TEST_F(Compliance, ASummaryThatCannotBeWrittenIsAnErrorLine)
{
    {
        const FileSizeLimit full(0);
        LogTotalCompliance__real("1.0", 0);
    }
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, kNothing),
                                        Pair(LOG_LEVEL_ERR, "Could not write to log file '" + Summary().string() +
                                                                "' (write: File too large)")));
}
