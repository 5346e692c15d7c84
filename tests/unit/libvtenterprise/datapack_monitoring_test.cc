#include "libvtenterprise/datapack_monitoring.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "support/fake_measurements.h"
#include "support/log_capture.h"
#include "support/report_filters.h"
#include "support/texts.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;
using veltrane::SeqPtr;
using veltrane::TextPtr;

namespace {

constexpr time_t kFrom = 1700000000;
constexpr int kUsers = 0;
constexpr int kLoad = 4;
constexpr int kCpu = 5;
constexpr int kNameless = 60;
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

class DatapackMonitoring : public testing::Test {
  protected:
    DatapackMonitoring() { Measurements() = {}; }

    static Texts Recent(const ReportFilter *filter = nullptr)
    {
        const SeqPtr reply(SeqNew(10, free));
        Vesk_PackMonitorMg(reply.get(), kFrom, filter);
        return SeqTexts(reply.get());
    }

    static Texts Yearly(const ReportFilter *filter = nullptr)
    {
        const SeqPtr reply(SeqNew(10, free));
        Vesk_PackMonitorYr(reply.get(), filter);
        return SeqTexts(reply.get());
    }

    static std::string Line(const char *slot, time_t t, QPoint quantity)
    {
        const TextPtr line(Vesk_FormatMonitoringReply(slot, t, &quantity));
        return line != nullptr ? line.get() : "(none)";
    }

    const WorkDirectory work_;
};

TEST_F(DatapackMonitoring, ALineIsSlotDeviationAverageLastValueAndTime)
{
    EXPECT_EQ(Line("load_1m", 1700000300, {0.5, 0.25, 0.0625, 7}), "load_1m,0.250000,0.250000,0.500000,1700000300");
}

TEST_F(DatapackMonitoring, ASlotNameIsQuotedWhereItMustBe)
{
    EXPECT_EQ(Line("a,\"b\"", 1, {1, 1, 0, 0}), "\"a,\"\"b\"\"\",0.000000,1.000000,1.000000,1");
}

TEST_F(DatapackMonitoring, WhatIsNoNumberHasNoLine)
{
    for (const QPoint &quantity : {QPoint{kNan, 1, 1, 0}, QPoint{1, kNan, 1, 0}, QPoint{1, 1, kNan, 0},
                                   QPoint{kInfinity, 1, 1, 0}, QPoint{1, -kInfinity, 1, 0}, QPoint{1, 1, -1, 0}}) {
        EXPECT_EQ(Line("load_1m", 1, quantity), "(none)");
    }
}

TEST_F(DatapackMonitoring, RecentSamplesComeSlotBySlotAndOldestFirst)
{
    LogCapture log;
    Measurements().samples = {Measured(kFrom + 10, {{kLoad, {1, 2, 4, 0}}, {kUsers, {3, 3, 0, 0}}}),
                              Measured(kFrom + 310, {{kLoad, {2, 2, 4, 1}}, {kUsers, {5, 3, 0, 2}}})};

    EXPECT_THAT(
        Recent(),
        ElementsAre("MOM", "users,0.000000,3.000000,3.000000,1700000010", "users,0.000000,3.000000,5.000000,1700000310",
                    "load_1m,2.000000,2.000000,1.000000,1700000010", "load_1m,2.000000,2.000000,2.000000,1700000310"));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing magnified monitoring data")));
}

TEST_F(DatapackMonitoring, ASampleAtTheStartOfThePeriodIsNotSent)
{
    Measurements().samples = {Measured(kFrom, {{kLoad, {1, 1, 0, 0}}}), Measured(kFrom + 1, {{kLoad, {2, 1, 0, 0}}})};

    EXPECT_THAT(Recent(), ElementsAre("MOM", "load_1m,0.000000,1.000000,2.000000,1700000001"));
}

TEST_F(DatapackMonitoring, SamplesUpToThePresentSecondAreAskedFor)
{
    const time_t before = time(nullptr);

    Recent();

    EXPECT_EQ(Measurements().asked_from, kFrom + 1);
    EXPECT_GT(Measurements().asked_to, before);
    EXPECT_LE(Measurements().asked_to, time(nullptr) + 1);
}

TEST_F(DatapackMonitoring, AStartAtTheEndOfTimeAsksForNothing)
{
    const SeqPtr reply(SeqNew(10, free));
    Measurements().samples = {Measured(kFrom + 1, {{kLoad, {2, 1, 0, 0}}})};

    Vesk_PackMonitorMg(reply.get(), std::numeric_limits<time_t>::max(), nullptr);

    EXPECT_EQ(SeqLength(reply.get()), 0U);
}

TEST_F(DatapackMonitoring, WhatWasNotMeasuredIsLeftOut)
{
    Measurements().samples = {Measured(kFrom + 10, {}), Measured(kFrom + 310, {{kCpu, {2, 2, 0, 0}}})};

    EXPECT_THAT(Recent(), ElementsAre("MOM", "cpu,0.000000,2.000000,2.000000,1700000310"));
}

TEST_F(DatapackMonitoring, ASlotWithoutANameIsLeftOut)
{
    Measurements().samples = {Measured(kFrom + 10, {{kNameless, {1, 1, 0, 0}}})};
    Measurements().weeks = Measurements().samples;

    EXPECT_THAT(Recent(), IsEmpty());
    EXPECT_THAT(Yearly(), IsEmpty());
}

TEST_F(DatapackMonitoring, WithoutMeasurementsThereIsNoChapter)
{
    EXPECT_THAT(Recent(), IsEmpty());
    EXPECT_THAT(Yearly(), IsEmpty());
}

TEST_F(DatapackMonitoring, WeeksComeSlotBySlotAndOldestFirstWhateverThePeriod)
{
    LogCapture log;
    Measurements().weeks = {Measured(1000425600, {{kLoad, {1, 2, 4, 0}}, {kUsers, {3, 3, 0, 0}}}),
                            Measured(1001030400, {{kLoad, {2, 2, 4, 1}}})};

    EXPECT_THAT(Yearly(), ElementsAre("MOY", "users,0.000000,3.000000,3.000000,1000425600",
                                      "load_1m,2.000000,2.000000,1.000000,1000425600",
                                      "load_1m,2.000000,2.000000,2.000000,1001030400"));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing yearly monitoring data")));
}

TEST_F(DatapackMonitoring, AFilterAdmitsSlotsByTheirNames)
{
    Measurements().samples = {
        Measured(kFrom + 10, {{kUsers, {1, 1, 0, 0}}, {kLoad, {1, 1, 0, 0}}, {kCpu, {1, 1, 0, 0}}})};
    Measurements().weeks = Measurements().samples;

    EXPECT_THAT(Recent(Filter("monitoring", {"load.*", "users"}, {"users"}).get()),
                ElementsAre("MOM", StartsWith("load_1m,")));
    EXPECT_THAT(Yearly(Filter("monitoring", {}, {"load.*"}).get()),
                ElementsAre("MOY", StartsWith("users,"), StartsWith("cpu,")));
    EXPECT_THAT(Recent(Filter("monitoring", {"none_of_these"}).get()), IsEmpty());
}

TEST_F(DatapackMonitoring, NumbersOfAnySizeTravel)
{
    Measurements().samples = {Measured(kFrom + 10, {{kLoad, {1e308, -1e308, 1e300, 0}}})};

    const Texts lines = Recent();

    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_LT(lines[1].size(), 1000U);
}

TEST_F(DatapackMonitoring, AWholeWeekOfEverySlotIsPacked)
{
    for (int i = 0; i < 2016; ++i) {
        Measurements().samples.push_back(
            Measured(kFrom + 300 * (i + 1), {{kUsers, {1, 1, 0, 0}}, {kCpu, {2, 2, 0, 0}}}));
    }

    EXPECT_THAT(Recent(), SizeIs(1 + 2 * 2016));
}

TEST_F(DatapackMonitoring, ARowForAnOldPeerHasItsRecordEnd)
{
    const HubPerformance measured{nullptr, const_cast<char *>("a"), 1, 2, 3, 4};

    EXPECT_STREQ(PerformanceRow(&measured, true).get(), "a,3.000000,2.000000,1.000000,4\r\n");
    EXPECT_STREQ(PerformanceRow(&measured, false).get(), "a,3.000000,2.000000,1.000000,4");
}

}  // namespace
