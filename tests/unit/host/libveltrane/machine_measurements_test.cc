#include "libveltrane/machine_measurements.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>

#include <cmath>

#include "support/log_capture.h"
#include "support/work_dir.h"

namespace {

using testing::DoubleNear;
using testing::IsEmpty;
using testing::Optional;
using veltrane::MachineCounters;
using veltrane::MachineReading;
using veltrane::NoValues;
using veltrane::Process;
using veltrane::SlotValues;
using veltrane::ValuesOf;

constexpr char kNetDev[] =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier "
    "compressed\n"
    "    lo: 6067426865  780185    0    0    0     0          0         0 6067426865  780185    0    0    0     0      "
    " "
    "0          0\n"
    "  eth0: 1000    3909    0    0    0     0          0         0   200    2195    0    0    0     0       0         "
    " "
    "0\n"
    "wlan0:18446744073709551000 1 0 0 0 0 0 0 50 1 0 0 0 0 0 0\n";

// A tree in the shape of /proc with two processes.
void MakeTree(const std::filesystem::path &proc)
{
    for (const char *name : {"net", "sys/kernel/random", "1", "17"}) {
        std::filesystem::create_directories(proc / name);
    }
    WriteFile(proc / "net/dev", kNetDev);
    WriteFile(proc / "net/sockstat", "sockets: used 321\nTCP: inuse 1 orphan 0 tw 0 alloc 1 mem 0\n");
    WriteFile(proc / "sys/kernel/random/boot_id", "b3d2878e-8f62-4ea0-985f-979576d4191a\n");
    WriteFile(proc / "1/cmdline", "init");
    WriteFile(proc / "1/status", "State:\tS (sleeping)\nUid:\t0\t0\t0\t0\n");
    WriteFile(proc / "17/cmdline", "sh");
    WriteFile(proc / "17/status", "State:\tS (sleeping)\nUid:\t4711\t4711\t4711\t4711\n");
}

MachineReading At(double uptime, uint64_t counter)
{
    MachineReading reading;
    reading.counters = {"boot", uptime, counter, 2 * counter, counter, 3 * counter, 4 * counter, 5 * counter};
    return reading;
}

}  // namespace

TEST(MachineMeasurements, ProcessesAreCountedByTheirUsers)
{
    SlotValues levels = NoValues();
    veltrane::CountProcesses({Process{1, 0, "root", "init"}, Process{2, 0, "root", ""}, Process{3, 1, "ada", "sh"},
                              Process{4, 1, "ada", "sh"}, Process{5, 1, "4711", "sh"}},
                             &levels);
    EXPECT_EQ(levels[veltrane::kSlotUsers], 3);
    EXPECT_EQ(levels[veltrane::kSlotProcessesRoot], 2);
    EXPECT_EQ(levels[veltrane::kSlotProcessesOther], 3);
    EXPECT_TRUE(std::isnan(levels[veltrane::kSlotLoad]));
}

TEST(MachineMeasurements, InterfacesAddUpWithoutLoopback)
{
    MachineCounters counters;
    veltrane::TakeNetworkCounters(kNetDev, &counters);
    EXPECT_THAT(counters.net_in, Optional(uint64_t{18446744073709551000u + 1000u}));
    EXPECT_THAT(counters.net_out, Optional(uint64_t{250}));
}

TEST(MachineMeasurements, WithoutAnInterfaceThereAreNoNetworkCounters)
{
    for (const char *text :
         {"", "garbage", "eth0", "eth0:", "eth0: 1 2 3\n", "lo: 1 2 3 4 5 6 7 8 9 10\n", ":::\n\n"}) {
        MachineCounters counters;
        veltrane::TakeNetworkCounters(text, &counters);
        EXPECT_EQ(counters.net_in, std::nullopt) << text;
        EXPECT_EQ(counters.net_out, std::nullopt) << text;
    }
}

TEST(MachineMeasurements, SocketsInUseStandInTheFirstLine)
{
    EXPECT_THAT(veltrane::SocketsIn("sockets: used 11\nTCP: inuse 1\n"), Optional(11.0));
    EXPECT_EQ(veltrane::SocketsIn(""), std::nullopt);
    EXPECT_EQ(veltrane::SocketsIn("TCP: inuse 1\nsockets: used 11\n"), std::nullopt);
}

TEST(MachineMeasurements, ATreeInTheShapeOfProcIsRead)
{
    const TemporaryDirectory proc;
    MakeTree(proc.path);
    const MachineReading reading = veltrane::ReadMachine(proc.path);
    EXPECT_EQ(reading.counters.boot, "b3d2878e-8f62-4ea0-985f-979576d4191a");
    EXPECT_THAT(reading.counters.net_out, Optional(uint64_t{250}));
    EXPECT_EQ(reading.levels[veltrane::kSlotSockets], 321);
    EXPECT_EQ(reading.levels[veltrane::kSlotUsers], 2);
    EXPECT_EQ(reading.levels[veltrane::kSlotProcessesRoot], 1);
    EXPECT_EQ(reading.levels[veltrane::kSlotProcessesOther], 1);
}

TEST(MachineMeasurements, WhatATreeLacksIsNotMeasuredAndTheRestIs)
{
    const TemporaryDirectory proc;
    const MachineReading reading = veltrane::ReadMachine(proc.path);
    EXPECT_EQ(reading.counters.boot, "");
    EXPECT_EQ(reading.counters.net_in, std::nullopt);
    EXPECT_TRUE(std::isnan(reading.levels[veltrane::kSlotSockets]));
    EXPECT_EQ(reading.levels[veltrane::kSlotUsers], 0);
    EXPECT_FALSE(std::isnan(reading.levels[veltrane::kSlotDiskFree]));
}

TEST(MachineMeasurements, ThisMachineIsMeasuredAsItSaysOfItself)
{
    LogCapture log;
    const MachineReading reading = veltrane::ReadMachine();
    struct sysinfo info {};
    ASSERT_EQ(sysinfo(&info), 0);
    const double memory = static_cast<double>(info.totalram) * info.mem_unit / (1024.0 * 1024.0);
    EXPECT_THAT(reading.levels[veltrane::kSlotMemoryTotal], DoubleNear(memory, memory / 100));
    EXPECT_GT(reading.levels[veltrane::kSlotMemoryFree], 0);
    EXPECT_LT(reading.levels[veltrane::kSlotMemoryFree], memory);
    EXPECT_GE(reading.levels[veltrane::kSlotMemoryCached], 0);
    EXPECT_GE(reading.levels[veltrane::kSlotSwapUsed], 0);
    EXPECT_GE(reading.levels[veltrane::kSlotLoad], 0);
    EXPECT_GE(reading.levels[veltrane::kSlotUsers], 1);
    EXPECT_GE(reading.levels[veltrane::kSlotProcessesRoot] + reading.levels[veltrane::kSlotProcessesOther], 1);
    EXPECT_GE(reading.levels[veltrane::kSlotDiskFree], 0);
    EXPECT_LE(reading.levels[veltrane::kSlotDiskFree], 100);
    ASSERT_NE(reading.counters.cpu_total, std::nullopt);
    EXPECT_GT(*reading.counters.cpu_total, *reading.counters.cpu_busy);
    EXPECT_NE(reading.counters.reads, std::nullopt);
    EXPECT_GT(reading.counters.uptime, 0);
    EXPECT_EQ(reading.counters.boot.size(), 36u);
    EXPECT_THAT(log.UpTo(LOG_LEVEL_VERBOSE), IsEmpty());
}

TEST(MachineMeasurements, RatesAreThoseSinceTheReadingBefore)
{
    const SlotValues values = ValuesOf(At(110, 1500), At(100, 1000).counters);
    EXPECT_DOUBLE_EQ(values[veltrane::kSlotCpu], 50);
    EXPECT_DOUBLE_EQ(values[veltrane::kSlotNetIn], 50);
    EXPECT_DOUBLE_EQ(values[veltrane::kSlotNetOut], 150);
    EXPECT_DOUBLE_EQ(values[veltrane::kSlotIoReads], 200);
    EXPECT_DOUBLE_EQ(values[veltrane::kSlotIoWrites], 250);
}

TEST(MachineMeasurements, WithoutAReadingBeforeRatesAreThoseSinceTheMachineStarted)
{
    const MachineReading now = At(100, 1000);
    MachineReading other_start = At(10, 10);
    other_start.counters.boot = "another";
    for (const std::optional<MachineCounters> &before :
         {std::optional<MachineCounters>(), std::optional(other_start.counters), std::optional(At(99.5, 990).counters),
          std::optional(At(200, 1000).counters)}) {
        const SlotValues values = ValuesOf(now, before);
        EXPECT_DOUBLE_EQ(values[veltrane::kSlotNetIn], 10);
        EXPECT_DOUBLE_EQ(values[veltrane::kSlotCpu], 50);
    }
}

TEST(MachineMeasurements, ACounterThatWentBackOrIsMissingHasNoRate)
{
    MachineReading now = At(110, 1500);
    now.counters.net_in = 999;
    now.counters.reads.reset();
    now.counters.cpu_total = 2000;  // no processor time went by
    const SlotValues values = ValuesOf(now, At(100, 1000).counters);
    EXPECT_TRUE(std::isnan(values[veltrane::kSlotNetIn]));
    EXPECT_TRUE(std::isnan(values[veltrane::kSlotIoReads]));
    EXPECT_TRUE(std::isnan(values[veltrane::kSlotCpu]));
    EXPECT_DOUBLE_EQ(values[veltrane::kSlotNetOut], 150);
}

TEST(MachineMeasurements, CountersAreOneCsvRecordThatIsReadAgain)
{
    MachineCounters counters = At(1234.5678, 7).counters;
    counters.net_in.reset();
    const std::string text = veltrane::CountersText(counters);
    EXPECT_EQ(text, "boot,1234.568,7,14,,21,28,35\r\n");
    const std::optional<MachineCounters> again = veltrane::ParseCounters(text);
    ASSERT_NE(again, std::nullopt);
    EXPECT_EQ(veltrane::CountersText(*again), text);
}

TEST(MachineMeasurements, CountersThatAreNoneAreNotRead)
{
    for (const char *bad :
         {"", "garbage", "boot,1,1,1,1,1,1", "boot,1,1,1,1,1,1,1,1", "boot,x,1,1,1,1,1,1", "boot,inf,1,1,1,1,1,1",
          "boot,1,-1,1,1,1,1,1", "boot,1,1.5,1,1,1,1,1", "boot,1,99999999999999999999,1,1,1,1,1", "\"boot,1,1"}) {
        EXPECT_EQ(veltrane::ParseCounters(bad), std::nullopt) << bad;
    }
}
