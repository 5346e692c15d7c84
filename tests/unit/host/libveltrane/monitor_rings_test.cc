#include "libveltrane/monitor_rings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "support/file_size_limit.h"
#include "support/work_dir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;
using veltrane::kFirstMonday;
using veltrane::kSampleSeconds;
using veltrane::kWeekSeconds;
using veltrane::NextSample;
using veltrane::NoValues;
using veltrane::SlotValues;

constexpr time_t kWeek = kFirstMonday + 2900 * kWeekSeconds;  // in 2025
constexpr size_t kRecord = 3216;

class MonitorRings : public testing::Test {
  protected:
    std::filesystem::path Samples() const { return work.State(veltrane::kSamplesName); }

    static MonitorSample Sample(time_t t, double value)
    {
        SlotValues values = NoValues();
        values[4] = value;
        return NextSample(std::nullopt, t, values);
    }

    static void Write(time_t t, double value) { ASSERT_EQ(veltrane::WriteSample(Sample(t, value)), std::nullopt); }

    static std::vector<time_t> Times(const std::vector<MonitorSample> &samples)
    {
        std::vector<time_t> times;
        for (const MonitorSample &sample : samples) { times.push_back(sample.t); }
        return times;
    }

    // Change one byte of the file of samples.
    void Damage(size_t at)
    {
        std::string bytes = ReadFile(Samples());
        ASSERT_LT(at, bytes.size());
        bytes[at] = static_cast<char>(bytes[at] ^ 1);
        WriteFile(Samples(), bytes);
    }

    WorkDirectory work;
};

void ExpectQuantity(const QPoint &quantity, double q, double expect, double var, double dq)
{
    EXPECT_DOUBLE_EQ(quantity.q, q);
    EXPECT_DOUBLE_EQ(quantity.expect, expect);
    EXPECT_DOUBLE_EQ(quantity.var, var);
    EXPECT_DOUBLE_EQ(quantity.dq, dq);
}

}  // namespace

TEST_F(MonitorRings, ARecordStandsAtThePlaceOfItsTime)
{
    Write(kWeek + 3 * kSampleSeconds + 17, 0.5);
    const std::string bytes = ReadFile(Samples());
    ASSERT_EQ(bytes.size(), 4 * kRecord);
    EXPECT_EQ(bytes.substr(0, 3 * kRecord), std::string(3 * kRecord, '\0'));

    int64_t t = 0;
    double quantity[4];
    memcpy(&t, &bytes[3 * kRecord], sizeof(t));
    memcpy(quantity, &bytes[3 * kRecord + 8 + 4 * 32], sizeof(quantity));
    EXPECT_EQ(t, kWeek + 3 * kSampleSeconds + 17);
    EXPECT_THAT(quantity, ElementsAre(0.5, 0.5, 0.0, 0.0));
    memcpy(quantity, &bytes[3 * kRecord + 8], sizeof(quantity));
    for (const double unmeasured : quantity) { EXPECT_TRUE(std::isnan(unmeasured)); }

    uint64_t check = 0xcbf29ce484222325;
    for (size_t word = 0; word < 401; ++word) {
        uint64_t value = 0;
        memcpy(&value, &bytes[3 * kRecord + word * 8], sizeof(value));
        check = (check ^ value) * 0x100000001b3;
    }
    uint64_t written = 0;
    memcpy(&written, &bytes[3 * kRecord + 401 * 8], sizeof(written));
    EXPECT_EQ(written, check);
}

TEST_F(MonitorRings, TheFilesAreTheirOwnersAlone)
{
    Write(kWeek, 1);
    struct stat st {};
    ASSERT_EQ(stat(Samples().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(MonitorRings, AWeekLaterTheSamePlaceIsTaken)
{
    Write(kWeek + 600, 1);
    Write(kWeek + kWeekSeconds + 600, 2);
    EXPECT_EQ(ReadFile(Samples()).size(), 3 * kRecord);
    EXPECT_THAT(Times(veltrane::ReadSamples(0, 1'000'000'000'000)), ElementsAre(kWeek + kWeekSeconds + 600));
}

TEST_F(MonitorRings, OlderThanAWeekBeforeTheNewestIsNotGiven)
{
    Write(kWeek, 1);
    Write(kWeek + 300, 2);
    Write(kWeek + kWeekSeconds + 600, 3);  // two samples are missing before it
    EXPECT_THAT(Times(veltrane::ReadSamples(0, 1'000'000'000'000)), ElementsAre(kWeek + kWeekSeconds + 600));
    EXPECT_THAT(Times(veltrane::ReadSamples(kWeek, kWeek + 600)), ElementsAre(kWeek, kWeek + 300));
}

TEST_F(MonitorRings, AnyDamagedByteCostsItsRecordAndNoOther)
{
    Write(kWeek, 1);
    Write(kWeek + 300, 2);
    Write(kWeek + 600, 3);
    for (const size_t at : {size_t{0}, size_t{7}, size_t{500}, kRecord - 1}) {
        Damage(kRecord + at);
        EXPECT_THAT(Times(veltrane::ReadSamples(0, 1'000'000'000'000)), ElementsAre(kWeek, kWeek + 600)) << at;
        Damage(kRecord + at);
        EXPECT_THAT(Times(veltrane::ReadSamples(0, 1'000'000'000'000)), ElementsAre(kWeek, kWeek + 300, kWeek + 600));
    }
}

TEST_F(MonitorRings, EveryCutOfTheFileLeavesTheRecordsThatAreWhole)
{
    Write(kWeek, 1);
    Write(kWeek + 300, 2);
    const std::string bytes = ReadFile(Samples());
    for (size_t size = 0; size < bytes.size(); size += 67) {
        WriteFile(Samples(), bytes.substr(0, size));
        EXPECT_EQ(veltrane::ReadSamples(0, 1'000'000'000'000).size(), size / kRecord) << size;
    }
}

TEST_F(MonitorRings, ARecordAtTheWrongPlaceDoesNotCount)
{
    Write(kWeek, 1);
    const std::string bytes = ReadFile(Samples());
    WriteFile(Samples(), std::string(kRecord, '\0') + bytes);
    EXPECT_TRUE(veltrane::ReadSamples(0, 1'000'000'000'000).empty());
}

TEST_F(MonitorRings, GarbageReadsAsEmptyAndIsOverwrittenRecordByRecord)
{
    std::string garbage;
    for (size_t i = 0; i < 3 * kRecord; ++i) { garbage += static_cast<char>(i * 7919 >> 3); }
    WriteFile(Samples(), garbage);
    EXPECT_TRUE(veltrane::ReadSamples(0, std::numeric_limits<time_t>::max()).empty());
    Write(kWeek + 300, 1);
    EXPECT_THAT(Times(veltrane::ReadSamples(0, std::numeric_limits<time_t>::max())), ElementsAre(kWeek + 300));
}

TEST_F(MonitorRings, BytesBeyondTheLastPlaceAreCutOffByTheNextWrite)
{
    WriteFile(Samples(), std::string(2016 * kRecord + 5, 'x'));
    Write(kWeek, 1);
    EXPECT_EQ(std::filesystem::file_size(Samples()), 2016 * kRecord);
}

TEST_F(MonitorRings, WhatIsNoFileIsTroubleAndReadsAsEmpty)
{
    ASSERT_EQ(mkfifo(Samples().c_str(), 0600), 0);
    EXPECT_TRUE(veltrane::ReadSamples(0, 1'000'000'000'000).empty()) << "and nobody is waited for";
    ASSERT_EQ(remove(Samples().c_str()), 0);
    std::filesystem::create_directory(Samples());
    EXPECT_THAT(veltrane::WriteSample(Sample(kWeek, 1)),
                Optional(HasSubstr("could not open '" + Samples().string() + "'")));
    EXPECT_TRUE(veltrane::ReadSamples(0, 1'000'000'000'000).empty());
}

TEST_F(MonitorRings, AFullDiskIsTroubleAndTheRecordBeforeIsThere)
{
    Write(kWeek, 1);
    veltrane::Trouble trouble;
    {
        const FileSizeLimit limit(kRecord + 100);
        trouble = veltrane::WriteSample(Sample(kWeek + 300, 2));
    }
    EXPECT_THAT(trouble, Optional(HasSubstr("could not write")));
    EXPECT_THAT(Times(veltrane::ReadSamples(0, 1'000'000'000'000)), ElementsAre(kWeek));
}

TEST_F(MonitorRings, AClockBeforeTheFirstMondayHasNoPlace)
{
    EXPECT_THAT(veltrane::WriteSample(Sample(kFirstMonday - 1, 1)),
                Optional(std::string("the clock of this machine says 345599")));
    EXPECT_EQ(veltrane::ReadSampleAt(0), std::nullopt);
    EXPECT_EQ(veltrane::ReadSampleAt(-5), std::nullopt);
    Write(kFirstMonday, 1);
    EXPECT_NE(veltrane::ReadSampleAt(kFirstMonday), std::nullopt);
}

TEST_F(MonitorRings, ASampleCarriesOnTheAveragesOfItsTimeOfTheWeek)
{
    MonitorSample before = Sample(kWeek, 0);
    before.Q[4] = {0.5, 0.4, 0.01, 0.1};
    SlotValues values = NoValues();
    values[4] = 0.8;
    values[5] = 7;
    const MonitorSample after = NextSample(before, kWeek + kWeekSeconds, values);
    EXPECT_EQ(after.t, kWeek + kWeekSeconds);
    ExpectQuantity(after.Q[4], 0.8, 0.3 * 0.8 + 0.7 * 0.4, 0.3 * 0.4 * 0.4 + 0.7 * 0.01, 0.8 - 0.5);
    ExpectQuantity(after.Q[5], 7, 7, 0, 0);  // nothing was known of it
    EXPECT_FALSE(veltrane::IsMeasured(after.Q[6]));
}

TEST_F(MonitorRings, ForeignNumbersAreNoMeasurements)
{
    SlotValues values = NoValues();
    values[0] = std::numeric_limits<double>::infinity();
    MonitorSample before = Sample(kWeek, 1);
    before.Q[4].var = std::numeric_limits<double>::quiet_NaN();
    values[4] = 2;
    const MonitorSample after = NextSample(before, kWeek, values);
    EXPECT_FALSE(veltrane::IsMeasured(after.Q[0]));
    ExpectQuantity(after.Q[4], 2, 2, 0, 0);
}

TEST_F(MonitorRings, WhatStandsAtAPlaceIsGivenWhateverWeekItIsOf)
{
    Write(kWeek + 42, 1);
    const std::optional<MonitorSample> found = veltrane::ReadSampleAt(kWeek + 5 * kWeekSeconds + 299);
    ASSERT_NE(found, std::nullopt);
    EXPECT_EQ(found->t, kWeek + 42);
    EXPECT_EQ(veltrane::ReadSampleAt(kWeek + 300), std::nullopt);
}

TEST_F(MonitorRings, AWeekHoldsTheMeanAndVarianceOfItsSamples)
{
    const std::vector<MonitorSample> samples = {Sample(kWeek, 1), Sample(kWeek + 300, 3), Sample(kWeek + 900, 5)};
    MonitorSample week = veltrane::SumUpWeek(samples, std::nullopt);
    EXPECT_EQ(week.t, kWeek);
    ExpectQuantity(week.Q[4], 5, 3, 8.0 / 3, 0);
    EXPECT_FALSE(veltrane::IsMeasured(week.Q[0]));

    MonitorSample before = week;
    before.Q[4].expect = 1;
    week = veltrane::SumUpWeek(samples, before);
    ExpectQuantity(week.Q[4], 5, 3, 8.0 / 3, 2);
}

TEST_F(MonitorRings, AWeekBeginsOnMondayAtMidnight)
{
    EXPECT_EQ(veltrane::WeekOf(kFirstMonday), kFirstMonday);
    EXPECT_EQ(veltrane::WeekOf(kFirstMonday + kWeekSeconds - 1), kFirstMonday);
    EXPECT_EQ(veltrane::WeekOf(1763974931), 1763942400) << "Monday 24 November 2025";
}

TEST_F(MonitorRings, AsManyWeeksAreKeptAsThreeYearsHave)
{
    for (int i = 0; i < 160; ++i) {
        MonitorSample week = Sample(kWeek + i * kWeekSeconds, i);
        ASSERT_EQ(veltrane::WriteWeek(week), std::nullopt);
    }
    const time_t newest = kWeek + 159 * kWeekSeconds;
    const std::vector<MonitorSample> weeks = veltrane::ReadWeeks(newest + 100);
    ASSERT_EQ(weeks.size(), 157u);
    EXPECT_EQ(weeks.front().t, newest - 156 * kWeekSeconds);
    EXPECT_EQ(weeks.back().t, newest);
    EXPECT_EQ(std::filesystem::file_size(work.State(veltrane::kWeeksName)), 157 * kRecord);
    EXPECT_EQ(veltrane::ReadWeeks(newest + 155 * kWeekSeconds).size(), 2u) << "the machine was off for long";
    EXPECT_EQ(veltrane::ReadWeeks(newest - 1).size(), 156u) << "and none of the future";
}
