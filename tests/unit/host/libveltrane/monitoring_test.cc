#include <veltrane/monitoring.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <thread>

#include <veltrane/owned.h>

#include "libveltrane/monitor_rings.h"
#include "libveltrane/monitor_slots.h"
#include "support/work_dir.h"

namespace {

using testing::ElementsAre;

class Monitoring : public testing::Test {
  protected:
    void WriteSlots(const std::string &text) { WriteFile(work.State(veltrane::kMonitorSlotsName), text); }

    WorkDirectory work;
};

std::vector<time_t> TimesOf(const Seq *samples)
{
    std::vector<time_t> times;
    for (size_t i = 0; i < SeqLength(samples); ++i) {
        times.push_back(static_cast<const MonitorSample *>(SeqAt(samples, i))->t);
    }
    return times;
}

}  // namespace

TEST_F(Monitoring, WithoutAFileTheSlotsOfTheHostHaveTheirNames)
{
    const char *const names[] = {"users",  "processes_root", "processes_other", "disk_free",     "load_1m",
                                 "cpu",    "memory_total",   "memory_free",     "memory_cached", "swap_used",
                                 "net_in", "net_out",        "sockets",         "io_reads",      "io_writes"};
    for (int i = 0; i < 15; ++i) {
        EXPECT_TRUE(VeskHasSlot(i)) << i;
        EXPECT_STREQ(VeskGetSlotName(i), names[i]);
        EXPECT_STRNE(VeskGetSlotDescription(i), "") << i;
    }
    EXPECT_FALSE(VeskHasSlot(15));
    EXPECT_FALSE(VeskHasSlot(99));
}

TEST_F(Monitoring, ASlotWithoutANameIsCalledByItsNumber)
{
    EXPECT_STREQ(VeskGetSlotName(15), "slot_15");
    EXPECT_STREQ(VeskGetSlotDescription(99), "slot_99");
    for (const int index : {-1, 100, 1000000}) {
        EXPECT_FALSE(VeskHasSlot(index));
        EXPECT_EQ(std::string(VeskGetSlotName(index)), "slot_" + std::to_string(index));
    }
}

TEST_F(Monitoring, TheFileOfNamesIsReadAgainWhenItChanged)
{
    WriteSlots("20,rain,\"Rain, here\",mm\r\n");
    EXPECT_TRUE(VeskHasSlot(20));
    EXPECT_FALSE(VeskHasSlot(0)) << "the file has the say over all slots";
    EXPECT_STREQ(VeskGetSlotName(20), "rain");
    EXPECT_STREQ(VeskGetSlotDescription(20), "Rain, here");

    WriteSlots("21,wind,Wind there,m/s\r\n");
    EXPECT_FALSE(VeskHasSlot(20));
    EXPECT_STREQ(VeskGetSlotName(21), "wind");

    std::filesystem::remove(work.State(veltrane::kMonitorSlotsName));
    EXPECT_STREQ(VeskGetSlotName(0), "users");
}

TEST_F(Monitoring, TheNameStaysWhileTheDescriptionIsAsked)
{
    const char *const name = VeskGetSlotName(4);
    EXPECT_STREQ(VeskGetSlotDescription(5), "Processor time in use");
    (void)name;  // its storage is another one than the description's, though both are one thread's
}

TEST_F(Monitoring, RecordsThatNameNoSlotArePassedOver)
{
    WriteSlots("x,a,b,c\r\n-1,a,b,c\r\n100,a,b,c\r\n1,,b,c\r\n2,has blank,b,c\r\n3,a,b\r\n4,a,b,c,d\r\n5,\"a\r\n" +
               std::string(64, 'n') + "\r\n");
    for (int i = 0; i < VT_OBSERVABLES; ++i) { EXPECT_FALSE(VeskHasSlot(i)) << i; }

    const std::string longest(63, 'n');
    WriteSlots(std::string("\0garbage\xff\r\n", 11) + "6," + longest + "n,b,c\r\n7," + longest + ",b,c\r\n");
    EXPECT_FALSE(VeskHasSlot(6));
    EXPECT_EQ(VeskGetSlotName(7), longest);
}

TEST_F(Monitoring, ADirectoryInThePlaceOfTheFileLeavesTheHostsNames)
{
    std::filesystem::create_directory(work.State(veltrane::kMonitorSlotsName));
    EXPECT_STREQ(VeskGetSlotName(5), "cpu");
}

TEST_F(Monitoring, WhatTheMonitorWritesIsWhatHoldsWithoutIt)
{
    const std::string text = veltrane::MonitorSlotsText();
    EXPECT_EQ(text.substr(0, text.find('\n') + 1), "0,users,Users with running processes,users\r\n");
    std::string names;
    for (int i = 0; i < VT_OBSERVABLES; ++i) { names += std::string(VeskGetSlotName(i)) + VeskGetSlotDescription(i); }
    WriteSlots(text);
    std::string written;
    for (int i = 0; i < VT_OBSERVABLES; ++i) { written += std::string(VeskGetSlotName(i)) + VeskGetSlotDescription(i); }
    EXPECT_EQ(written, names);
}

TEST_F(Monitoring, ThreadsAskBesideEachOther)
{
    WriteSlots("0,one,d,u\r\n");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 1000; ++round) {
                const std::string name = VeskGetSlotName(0);
                EXPECT_TRUE(name == "one" || name == "two" || name == "slot_0" || name == "users") << name;
            }
        });
    }
    for (int round = 0; round < 100; ++round) { WriteSlots(round % 2 == 0 ? "0,two,d,u\r\n" : "0,one,d,uu\r\n"); }
    for (std::thread &thread : threads) { thread.join(); }
}

TEST_F(Monitoring, SamplesComeOldestFirstFromTheFirstMomentUpToTheLastExcluded)
{
    EXPECT_EQ(MonitorGetSamples(0, 2'000'000'000), nullptr) << "there is no data";
    const time_t week = veltrane::WeekOf(1'700'000'000);
    for (const time_t t : {week + 900, week, week + 600, week + 300}) {
        ASSERT_EQ(veltrane::WriteSample(veltrane::NextSample(std::nullopt, t, veltrane::NoValues())), std::nullopt);
    }
    const veltrane::SeqPtr samples(MonitorGetSamples(week + 300, week + 900));
    ASSERT_NE(samples, nullptr);
    EXPECT_THAT(TimesOf(samples.get()), ElementsAre(week + 300, week + 600));
    EXPECT_EQ(MonitorGetSamples(week + 901, week + 2000), nullptr);
}

TEST_F(Monitoring, WeeksOfThreeYearsAreGiven)
{
    EXPECT_EQ(MonitorGetWeeks(), nullptr);
    const time_t week = veltrane::WeekOf(time(nullptr));
    for (const int ago : {0, 1, 156, 157}) {
        MonitorSample sample{};
        sample.t = week - ago * veltrane::kWeekSeconds;
        ASSERT_EQ(veltrane::WriteWeek(sample), std::nullopt);
        if (ago == 156) {
            const veltrane::SeqPtr weeks(MonitorGetWeeks());
            ASSERT_NE(weeks, nullptr);
            EXPECT_THAT(TimesOf(weeks.get()),
                        ElementsAre(week - 156 * veltrane::kWeekSeconds, week - veltrane::kWeekSeconds, week));
        }
    }
}
