#include "libveltrane/monitor_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libveltrane/monitor_histograms.h"
#include "libveltrane/monitor_slots.h"
#include "support/log_capture.h"
#include "support/places.h"
#include "support/work_dir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using veltrane::MachineReading;
using veltrane::RecordReading;
using veltrane::RoundResult;

constexpr time_t kWeek = veltrane::kFirstMonday + 2900 * veltrane::kWeekSeconds;

class MonitorRecord : public testing::Test {
  protected:
    static MachineReading Load(double load, double uptime = 1000)
    {
        MachineReading reading;
        reading.levels[veltrane::kSlotLoad] = load;
        reading.counters = {"boot", uptime, 10, 100, {}, {}, {}, {}};
        return reading;
    }

    static std::optional<veltrane::Histograms> Histograms(const WorkDirectory &work)
    {
        return veltrane::Histograms::Parse(ReadFile(work.State(veltrane::kHistogramsName)));
    }

    WorkDirectory work;
    const std::vector<std::string> all = {"histograms", "monitor_counters", "monitor_samples", "monitor_slots.csv",
                                          "monitor_weeks"};
    LogCapture log;
};

}  // namespace

TEST_F(MonitorRecord, OneRoundMakesAllFilesForTheirOwnerAlone)
{
    const RoundResult round = RecordReading(Load(0.5), kWeek + 600);
    EXPECT_THAT(round.troubles, IsEmpty());
    EXPECT_EQ(round.measured, 2u) << "load and processor";
    EXPECT_FALSE(round.histograms_damaged);
    for (const std::string &name : all) { EXPECT_EQ(ModeOf(work.State(name)), 0600u) << name; }
    EXPECT_EQ(ReadFile(work.State("monitor_slots.csv")), veltrane::MonitorSlotsText());
    EXPECT_EQ(ReadFile(work.State("monitor_counters")), "boot,1000.000,10,100,,,,\r\n");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(MonitorRecord, TwoRoundsOfOneWeekAreTwoSamplesAndOneWeek)
{
    RecordReading(Load(1), kWeek + 600);
    RecordReading(Load(3, 1300), kWeek + 900);
    const std::vector<MonitorSample> samples = veltrane::ReadSamples(0, kWeek + 901);
    ASSERT_THAT(samples, SizeIs(2));
    EXPECT_EQ(samples[1].Q[veltrane::kSlotLoad].q, 3);
    const std::vector<MonitorSample> weeks = veltrane::ReadWeeks(kWeek + 901);
    ASSERT_THAT(weeks, SizeIs(1));
    EXPECT_EQ(weeks[0].t, kWeek);
    EXPECT_DOUBLE_EQ(weeks[0].Q[veltrane::kSlotLoad].expect, 2);
    EXPECT_DOUBLE_EQ(weeks[0].Q[veltrane::kSlotLoad].var, 1);
    ASSERT_NE(Histograms(work), std::nullopt);
    EXPECT_EQ(Histograms(work)->At(veltrane::kSlotLoad, 0, 32), 2);
}

TEST_F(MonitorRecord, AWeekLaterTheAveragesGoOn)
{
    RecordReading(Load(1), kWeek + 600);
    RecordReading(Load(2), kWeek + veltrane::kWeekSeconds + 600);
    RecordReading(Load(0), kWeek + 2 * veltrane::kWeekSeconds + 600);
    const std::optional<MonitorSample> sample = veltrane::ReadSampleAt(kWeek + 600);
    ASSERT_NE(sample, std::nullopt);
    EXPECT_EQ(sample->t, kWeek + 2 * veltrane::kWeekSeconds + 600);
    EXPECT_DOUBLE_EQ(sample->Q[veltrane::kSlotLoad].expect, 0.7 * 1.3);
    const std::vector<MonitorSample> weeks = veltrane::ReadWeeks(sample->t);
    ASSERT_THAT(weeks, SizeIs(3));
    EXPECT_EQ(weeks[1].Q[veltrane::kSlotLoad].dq, 1);
    EXPECT_EQ(weeks[2].Q[veltrane::kSlotLoad].dq, -2);
    // Third round: average 1.3, variance 0.3, so -1.3 lies 2.37 deviations below.
    EXPECT_EQ(Histograms(work)->At(veltrane::kSlotLoad, 0, 32 - 19), 1);
}

TEST_F(MonitorRecord, AGapOfAWeekLeavesTheDifferenceUnknown)
{
    RecordReading(Load(1), kWeek + 600);
    RecordReading(Load(2), kWeek + 2 * veltrane::kWeekSeconds + 600);
    const std::vector<MonitorSample> weeks = veltrane::ReadWeeks(kWeek + 3 * veltrane::kWeekSeconds);
    ASSERT_THAT(weeks, SizeIs(2));
    EXPECT_EQ(weeks[1].Q[veltrane::kSlotLoad].dq, 0);
}

TEST_F(MonitorRecord, TheSameFiveMinutesAgainTakeTheFirstSamplesPlace)
{
    RecordReading(Load(1), kWeek + 600);
    RecordReading(Load(2), kWeek + 610);
    const std::vector<MonitorSample> samples = veltrane::ReadSamples(0, kWeek + 900);
    ASSERT_THAT(samples, SizeIs(1));
    EXPECT_DOUBLE_EQ(samples[0].Q[veltrane::kSlotLoad].expect, 0.3 * 2 + 0.7 * 1);
}

TEST_F(MonitorRecord, GarbageInEveryFileIsReplaced)
{
    for (const std::string &name : all) { WriteFile(work.State(name), "garbage\xff" + std::string(5000, 'g')); }
    const RoundResult round = RecordReading(Load(0.5), kWeek);
    EXPECT_THAT(round.troubles, IsEmpty());
    EXPECT_TRUE(round.histograms_damaged);
    EXPECT_EQ(ReadFile(work.State("monitor_slots.csv")), veltrane::MonitorSlotsText());
    EXPECT_EQ(ReadFile(work.State("monitor_counters")), "boot,1000.000,10,100,,,,\r\n");
    ASSERT_NE(Histograms(work), std::nullopt);
    EXPECT_EQ(Histograms(work)->At(veltrane::kSlotLoad, 0, 32), 1);
    EXPECT_THAT(veltrane::ReadSamples(0, kWeek + 1), SizeIs(1));
    EXPECT_THAT(veltrane::ReadWeeks(kWeek + 1), SizeIs(1));
    EXPECT_FALSE(RecordReading(Load(0.5), kWeek + 300).histograms_damaged);
}

TEST_F(MonitorRecord, WhatCannotBeReplacedIsSaidAndTheRestIsKept)
{
    std::filesystem::create_directory(work.State("histograms"));
    std::filesystem::create_directory(work.State("monitor_counters"));
    const RoundResult round = RecordReading(Load(0.5), kWeek);
    EXPECT_THAT(round.troubles,
                ElementsAre(HasSubstr("could not replace '" + work.State("monitor_counters").string() + "'"),
                            HasSubstr("could not replace '" + work.State("histograms").string() + "'")));
    EXPECT_FALSE(round.histograms_damaged) << "there is no file";
    EXPECT_THAT(veltrane::ReadSamples(0, kWeek + 1), SizeIs(1));
    EXPECT_THAT(NamesIn(work.path / "state"), testing::Not(testing::Contains(HasSubstr(".new"))));
}

TEST_F(MonitorRecord, ASampleThatCannotBeWrittenCountsNowhere)
{
    std::filesystem::create_directory(work.State("monitor_samples"));
    const RoundResult round = RecordReading(Load(0.5), kWeek);
    EXPECT_THAT(round.troubles, ElementsAre(HasSubstr("monitor_samples")));
    EXPECT_FALSE(std::filesystem::exists(work.State("histograms")));
    EXPECT_FALSE(std::filesystem::exists(work.State("monitor_weeks")));
}

TEST_F(MonitorRecord, AReaderOfTheHistogramsNeverSeesAFileHalfWritten)
{
    RecordReading(Load(1), kWeek);
    const ino_t first = InodeOf(work.State("histograms"));
    RecordReading(Load(1), kWeek + 300);
    EXPECT_NE(InodeOf(work.State("histograms")), first) << "it is a new file under the old name";
}
