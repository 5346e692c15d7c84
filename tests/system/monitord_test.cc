// The real vt-monitord: what it keeps, how it is told, and what becomes of its files when it is killed or they are
// damaged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include <veltrane/monitoring.h>
#include <veltrane/owned.h>

#include "libveltrane/monitor_histograms.h"
#include "libveltrane/monitor_slots.h"
#include "support/kill_moments.h"
#include "support/process.h"
#include "support/work_dir.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int kKilled = 128 + SIGKILL;

class Monitord : public testing::Test {
  protected:
    ProcessOptions Options(std::vector<std::string> arguments) const
    {
        ProcessOptions options;
        options.arguments = {"--workdir", work.path.string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        return options;
    }

    ProcessResult Run(const std::vector<std::string> &arguments) const
    {
        return RunProcess(program, Options(arguments));
    }

    std::optional<veltrane::Histograms> Histograms() const
    {
        return veltrane::Histograms::Parse(ReadFile(work.State("histograms")));
    }

    static veltrane::SeqPtr Samples() { return veltrane::SeqPtr(MonitorGetSamples(0, time(nullptr) + 1)); }

    static const MonitorSample &Newest(const veltrane::SeqPtr &samples)
    {
        return *static_cast<const MonitorSample *>(SeqAt(samples.get(), SeqLength(samples.get()) - 1));
    }

    WorkDirectory work;
    const std::string program = std::string(VT_TEST_BIN_DIR) + "/vt-monitord";
};

}  // namespace

TEST_F(Monitord, OnceMeasuresThisMachineAndEnds)
{
    const time_t before = time(nullptr);
    const ProcessResult result = Run({"--once"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");

    const veltrane::SeqPtr samples = Samples();
    ASSERT_NE(samples, nullptr);
    ASSERT_EQ(SeqLength(samples.get()), 1u);
    const MonitorSample &sample = Newest(samples);
    EXPECT_GE(sample.t, before);
    EXPECT_LE(sample.t, time(nullptr));
    for (int slot = 0; slot < VT_OBSERVABLES; ++slot) {
        const bool network = slot == veltrane::kSlotNetIn || slot == veltrane::kSlotNetOut;  // there may be none
        if (VeskHasSlot(slot) && !network) {
            EXPECT_TRUE(std::isfinite(sample.Q[slot].q)) << VeskGetSlotName(slot);
            EXPECT_EQ(sample.Q[slot].expect, sample.Q[slot].q);
        } else if (!VeskHasSlot(slot)) {
            EXPECT_TRUE(std::isnan(sample.Q[slot].q)) << slot;
        }
    }
    EXPECT_GT(sample.Q[veltrane::kSlotMemoryTotal].q, sample.Q[veltrane::kSlotMemoryFree].q);
    EXPECT_GE(sample.Q[veltrane::kSlotUsers].q, 1);

    const veltrane::SeqPtr weeks(MonitorGetWeeks());
    ASSERT_NE(weeks, nullptr);
    EXPECT_EQ(SeqLength(weeks.get()), 1u);
    ASSERT_NE(Histograms(), std::nullopt);
    EXPECT_EQ(ReadFile(work.State("monitor_slots.csv")), veltrane::MonitorSlotsText());
}

TEST_F(Monitord, ASecondTimeCarriesOn)
{
    ASSERT_EQ(Run({"--once"}).status, 0);
    const std::string counters = ReadFile(work.State("monitor_counters"));
    const ProcessResult result = Run({"--once", "-v"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr(" verbose: Measured 1"));
    EXPECT_NE(ReadFile(work.State("monitor_counters")), counters);
    double counted = 0;
    const std::optional<veltrane::Histograms> histograms = Histograms();
    ASSERT_NE(histograms, std::nullopt);
    for (size_t day = 0; day < VT_WEEK_DAYS; ++day) {
        for (size_t p = 0; p < VT_HISTOGRAM_POSITIONS; ++p) {
            counted += histograms->At(veltrane::kSlotMemoryTotal, day, p);
        }
    }
    EXPECT_EQ(counted, 2);
}

TEST_F(Monitord, GarbageFilesAreReplaced)
{
    const std::vector<std::string> names = {"histograms", "monitor_counters", "monitor_samples", "monitor_slots.csv",
                                            "monitor_weeks"};
    for (const std::string &name : names) { WriteFile(work.State(name), std::string(10'000, '\xfe')); }
    ProcessResult result = Run({"--once"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, " warning: '" + work.State("histograms").string() + "' was damaged: it begins anew\n");
    EXPECT_NE(Histograms(), std::nullopt);
    EXPECT_STREQ(VeskGetSlotName(veltrane::kSlotCpu), "cpu");
    ASSERT_NE(Samples(), nullptr);
    EXPECT_EQ(SeqLength(Samples().get()), 1u);

    result = Run({"--once"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

TEST_F(Monitord, WhatCannotBeKeptIsAnErrorAndTheRestIsKept)
{
    std::filesystem::create_directory(work.State("histograms"));
    const ProcessResult result = Run({"--once"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "   error: A measurement is not kept: could not replace '" +
                              work.State("histograms").string() + "' (rename: Is a directory)\n");
    EXPECT_NE(Samples(), nullptr);
}

TEST_F(Monitord, WrongUsageIsStatusTwoAndMeasuresNothing)
{
    for (const std::vector<std::string> &wrong : std::vector<std::vector<std::string>>{
             {"--interval", "0"}, {"--interval", "86401"}, {"--interval", "soon"}, {"--onse"}, {"extra"}}) {
        const ProcessResult result = Run(wrong);
        EXPECT_EQ(result.status, 2) << wrong[0];
        EXPECT_THAT(result.err, Not(IsEmpty()));
    }
    EXPECT_FALSE(std::filesystem::exists(work.State("monitor_samples")));
    EXPECT_THAT(Run({"--help"}).out, AllOf(HasSubstr("--once"), HasSubstr("SIGHUP measures at once")));
    EXPECT_THAT(Run({"--version"}).out, HasSubstr("Veltrane Core"));
}

TEST_F(Monitord, AWorkDirectoryThatOthersMayWriteIsRefused)
{
    ASSERT_EQ(chmod(work.path.c_str(), 0777), 0);
    const ProcessResult result = Run({"--once"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("is writable by other users"));
    EXPECT_FALSE(std::filesystem::exists(work.State("monitor_samples")));
}

TEST_F(Monitord, ItMeasuresAtItsStartAndWhenToldAndEndsWhenToldTo)
{
    for (const int end : {SIGTERM, SIGINT}) {
        BackgroundProcess monitord(program, Options({"--interval", "86400", "-v"}));
        ASSERT_TRUE(monitord.WaitForLine("Measured"));
        WriteFile(work.State("histograms"), "damaged");
        monitord.Signal(SIGHUP);
        ASSERT_TRUE(monitord.WaitForLine("was damaged: it begins anew"));
        monitord.Signal(end);
        EXPECT_EQ(monitord.Wait().status, 0);
        EXPECT_THAT(monitord.Err(), HasSubstr("    info: Stopping\n"));
    }
}

TEST_F(Monitord, ItMeasuresAgainWhenItsTimeHasCome)
{
    BackgroundProcess monitord(program, Options({"--interval", "1", "-v"}));
    ASSERT_TRUE(monitord.WaitForLine("Measured"));
    bool seen = false;
    for (int attempt = 0; attempt < 5 && !seen; ++attempt) {  // a round under way may put its file over this one
        WriteFile(work.State("histograms"), "damaged");
        seen = monitord.WaitForLine("was damaged: it begins anew", std::chrono::seconds(4));
    }
    EXPECT_TRUE(seen);
}

TEST_F(Monitord, OnlyOneMeasuresForAWorkDirectory)
{
    BackgroundProcess first(program, Options({"-v"}));
    ASSERT_TRUE(first.WaitForLine("Measured"));
    const ProcessResult second = Run({"--once"});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "  notice: Another vt-monitord measures for this work directory\n");
    first.Kill();
    EXPECT_EQ(Run({"--once"}).status, 0) << "the lock went with the process";
}

TEST_F(Monitord, KilledAtAnyMomentItLeavesFilesThatAreWhole)
{
    KillMoments moments([&] { ASSERT_EQ(Run({"--once"}).status, 0); });
    int hits = 0;
    for (int kill = KillsOr(60); kill > 0; kill--) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        {
            BackgroundProcess monitord(program, Options({"--once"}));
            moments.Wait();
            monitord.Kill();
            hits += monitord.Wait().status == kKilled ? 1 : 0;
        }
        ASSERT_NE(Histograms(), std::nullopt);
        ASSERT_NE(Samples(), nullptr);
        ASSERT_TRUE(VeskHasSlot(veltrane::kSlotCpu));
    }
    EXPECT_GT(hits, 0);
    const ProcessResult next = Run({"--once"});
    EXPECT_EQ(next.status, 0);
    EXPECT_EQ(next.err, "");
    for (const auto &entry : std::filesystem::directory_iterator(work.path / "state")) {
        EXPECT_THAT(entry.path().string(), Not(HasSubstr(".new"))) << "the next one takes away what a killed one left";
    }
}
