// Measurements.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"

namespace {

using PerformancePtr = std::unique_ptr<HubPerformance, veltrane::Destroyer<HubPerformanceDelete>>;

PerformancePtr Measured(const char *event, time_t t)
{
    return PerformancePtr(HubPerformanceNew(nullptr, event, t, 1.5, 2.25, 0.125));
}

PerformancePtr Read(const std::vector<std::string> &fields)
{
    return PerformancePtr(HubPerformanceFromAttributeList(Fields(fields).get()));
}

}  // namespace

TEST(HubPerformance, ANewMeasurementBorrowsItsHostAndCopiesItsEvent)
{
    HubHost host{};
    std::string event = "agent run";
    const PerformancePtr p(HubPerformanceNew(&host, event.c_str(), 9, 1.5, 2.25, 0.125));
    event = "gone";
    EXPECT_EQ(p->hh, &host);
    EXPECT_STREQ(p->event, "agent run");
    EXPECT_EQ(p->last_observed_value, 1.5);
    EXPECT_EQ(p->average, 2.25);
    EXPECT_EQ(p->standard_deviation, 0.125);
    EXPECT_EQ(p->t, 9);
}

TEST(HubPerformance, NoneIsDeletedInPeace) { HubPerformanceDelete(nullptr); }

TEST(HubPerformance, ItsColumnsPutTheDeviationFirst)
{
    EXPECT_EQ(CsvOf<const HubPerformance>(HubPerformanceToCSV, Measured("run, all", 1513275477).get()),
              "\"run, all\",0.125000,2.250000,1.500000,1513275477\r\n");
    EXPECT_EQ(CsvOf<const HubPerformance>(HubPerformanceToCSV, Measured(nullptr, -1).get()),
              ",0.125000,2.250000,1.500000,-1\r\n");
}

TEST(HubPerformance, ReadsBackInTheSameOrder)
{
    const PerformancePtr p = Read({"run", "0.125", "2.25", "1.5", "7"});
    EXPECT_EQ(p->hh, nullptr);
    EXPECT_STREQ(p->event, "run");
    EXPECT_EQ(p->standard_deviation, 0.125);
    EXPECT_EQ(p->average, 2.25);
    EXPECT_EQ(p->last_observed_value, 1.5);
    EXPECT_EQ(p->t, 7);
}

TEST(HubPerformance, NumbersAreReadUnchecked)
{
    const PerformancePtr p = Read({"", "a", "", "c", "d"});
    EXPECT_EQ(p->event, nullptr);
    EXPECT_EQ(p->standard_deviation, 0);
    EXPECT_EQ(p->average, 0);
    EXPECT_EQ(p->last_observed_value, 0);
    EXPECT_EQ(p->t, 0);
}

TEST(HubPerformance, AnotherNumberOfColumnsIsNoMeasurement)
{
    EXPECT_EQ(Read({}), nullptr);
    EXPECT_EQ(Read({"run", "0", "0", "0"}), nullptr);
    EXPECT_EQ(Read({"run", "0", "0", "0", "0", "0"}), nullptr);
    EXPECT_EQ(HubPerformanceFromAttributeList(nullptr), nullptr);
}

TEST(HubPerformance, ListsAreSortedLatestFirstWithOneForBeforeAndZeroElse)
{
    const PerformancePtr old = Measured("a", 1);
    const PerformancePtr recent = Measured("b", 2);
    EXPECT_EQ(SortPerformance(recent.get(), old.get()), 1);
    EXPECT_EQ(SortPerformance(old.get(), recent.get()), 0);
    EXPECT_EQ(SortPerformance(old.get(), old.get()), 0);
}
