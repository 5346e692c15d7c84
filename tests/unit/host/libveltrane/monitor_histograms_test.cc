#include "libveltrane/monitor_histograms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "libveltrane/monitor_rings.h"

namespace {

using veltrane::HistogramPosition;
using veltrane::Histograms;

constexpr time_t kMonday = veltrane::kFirstMonday;

MonitorSample Sample(time_t t, size_t slot, QPoint quantity)
{
    MonitorSample sample = veltrane::NextSample(std::nullopt, t, veltrane::NoValues());
    sample.Q[slot] = quantity;
    return sample;
}

double SumOf(const Histograms &histograms)
{
    double sum = 0;
    for (size_t slot = 0; slot < VT_OBSERVABLES; ++slot) {
        for (size_t day = 0; day < VT_WEEK_DAYS; ++day) {
            for (size_t p = 0; p < VT_HISTOGRAM_POSITIONS; ++p) { sum += histograms.At(slot, day, p); }
        }
    }
    return sum;
}

}  // namespace

TEST(MonitorHistograms, ADistanceHasItsPosition)
{
    EXPECT_EQ(HistogramPosition(0.4, 0.4, 0.01), 32u);
    EXPECT_EQ(HistogramPosition(0.5, 0.4, 0.01), 40u) << "eight positions for one standard deviation";
    EXPECT_EQ(HistogramPosition(0.3, 0.4, 0.01), 24u);
    EXPECT_EQ(HistogramPosition(0.8, 0.4, 0.01), 62u);
    EXPECT_EQ(HistogramPosition(-1e9, 0.4, 0.01), 1u);
    EXPECT_EQ(HistogramPosition(1e308, -1e308, 1e-300), 62u);
}

TEST(MonitorHistograms, AVarianceThatSaysNothingPutsEverythingInTheMiddle)
{
    constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(HistogramPosition(5, 1, 0), 32u);
    EXPECT_EQ(HistogramPosition(5, 1, -1), 32u);
    EXPECT_EQ(HistogramPosition(5, 1, kNan), 32u);
    EXPECT_EQ(HistogramPosition(5, 1, std::numeric_limits<double>::infinity()), 32u);
    EXPECT_EQ(HistogramPosition(kNan, 1, 1), 32u);
}

TEST(MonitorHistograms, ASampleCountsByTheAverageBeforeIt)
{
    Histograms histograms;
    const MonitorSample before = Sample(kMonday, 4, {0.5, 0.4, 0.01, 0.1});
    histograms.Count(Sample(kMonday + veltrane::kWeekSeconds, 4, {0.5, 0.43, 0.011, 0}), before);
    EXPECT_EQ(histograms.At(4, 0, 40), 1);
    EXPECT_EQ(SumOf(histograms), 1) << "slots that were not measured do not count";
}

TEST(MonitorHistograms, ASlotNotKnownBeforeCountsAsAverage)
{
    Histograms histograms;
    histograms.Count(Sample(kMonday, 4, {0.5, 0.5, 0, 0}), std::nullopt);
    histograms.Count(Sample(kMonday, 4, {0.5, 0.5, 0, 0}), Sample(kMonday, 5, {1, 1, 1, 1}));
    EXPECT_EQ(histograms.At(4, 0, 32), 2);
}

TEST(MonitorHistograms, EachDayOfTheWeekIsCountedByItself)
{
    Histograms histograms;
    for (time_t day = 0; day < VT_WEEK_DAYS; ++day) {
        for (time_t i = 0; i <= day; ++i) {
            histograms.Count(Sample(kMonday + day * veltrane::kDaySeconds + 86399, 0, {1, 1, 0, 0}), std::nullopt);
        }
    }
    for (size_t day = 0; day < VT_WEEK_DAYS; ++day) { EXPECT_EQ(histograms.At(0, day, 32), day + 1.0); }
}

TEST(MonitorHistograms, TheOutermostPositionsStayEmpty)
{
    Histograms histograms;
    const MonitorSample before = Sample(kMonday, 4, {0, 0, 1, 0});
    histograms.Count(Sample(kMonday, 4, {1e9, 0, 1, 0}), before);
    histograms.Count(Sample(kMonday, 4, {-1e9, 0, 1, 0}), before);
    EXPECT_EQ(histograms.At(4, 0, 62), 1);
    EXPECT_EQ(histograms.At(4, 0, 1), 1);
    EXPECT_EQ(histograms.At(4, 0, 63), 0);
    EXPECT_EQ(histograms.At(4, 0, 0), 0);
}

TEST(MonitorHistograms, ASlotThatGrowsTooLargeIsHalvedAsAWhole)
{
    Histograms histograms;
    const MonitorSample sample = Sample(kMonday, 4, {1, 1, 0, 0});
    histograms.Count(Sample(kMonday + veltrane::kDaySeconds, 4, {1, 1, 0, 0}), std::nullopt);
    histograms.Count(Sample(kMonday, 7, {1, 1, 0, 0}), std::nullopt);
    for (int i = 0; i < 100000; ++i) { histograms.Count(sample, std::nullopt); }
    EXPECT_EQ(histograms.At(4, 0, 32), 100000);
    histograms.Count(sample, std::nullopt);
    EXPECT_EQ(histograms.At(4, 0, 32), 50000.5);
    EXPECT_EQ(histograms.At(4, 1, 32), 0.5);
    EXPECT_EQ(histograms.At(7, 0, 32), 1) << "another slot has nothing to do with it";
}

TEST(MonitorHistograms, TheTextHasSixtyFourLinesOfSevenHundredValues)
{
    Histograms histograms;
    histograms.Count(Sample(kMonday + 2 * veltrane::kDaySeconds, 1, {1, 1, 0, 0}), std::nullopt);
    const std::string text = histograms.Text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 64);
    EXPECT_EQ(std::count(text.begin(), text.end(), '.'), 64 * 700);
    EXPECT_EQ(text.substr(0, 16), "0 0.0000 0.0000 ");
    EXPECT_EQ(text.substr(text.size() - 8), "0.0000 \n");

    size_t line = 0;
    for (int i = 0; i < 32; ++i) { line = text.find('\n', line) + 1; }
    std::string expected = "32 ";
    for (int i = 0; i < 700; ++i) { expected += i == 7 + 2 ? "1.0000 " : "0.0000 "; }  // slot 1, Wednesday
    EXPECT_EQ(text.substr(line, expected.size() + 1), expected + "\n");
}

TEST(MonitorHistograms, WhatWasWrittenIsReadAgain)
{
    Histograms histograms;
    const MonitorSample before = Sample(kMonday, 99, {0, 0, 1, 0});
    for (int i = 0; i < 50; ++i) { histograms.Count(Sample(kMonday + i * 40000, 99, {i - 25.0, 0, 1, 0}), before); }
    const std::optional<Histograms> again = Histograms::Parse(histograms.Text());
    ASSERT_NE(again, std::nullopt);
    EXPECT_EQ(again->Text(), histograms.Text());
    EXPECT_EQ(SumOf(*again), 50);
}

TEST(MonitorHistograms, AnythingElseIsRefused)
{
    const std::string good = Histograms().Text();
    ASSERT_NE(Histograms::Parse(good), std::nullopt);
    const auto with = [&good](size_t at, const std::string &bytes) {
        std::string text = good;
        return text.replace(at, bytes.size(), bytes);
    };
    const size_t second_line = good.find('\n') + 1;
    for (const std::string &bad :
         {std::string(), std::string("garbage"), std::string(good.size(), '\0'), good + "64 ", good + " ",
          good.substr(second_line), good.substr(0, good.size() - 1), with(0, "1"), with(2, "-1.000"), with(2, "nan   "),
          with(2, "x.0000"), with(2, "9e9   "), with(2, "0,0000"), with(second_line - 1, " ")}) {
        EXPECT_EQ(Histograms::Parse(bad), std::nullopt) << bad.substr(0, 40);
    }
    for (size_t size = 0; size < good.size(); size += 997) {
        EXPECT_EQ(Histograms::Parse(good.substr(0, size)), std::nullopt) << "cut after " << size;
    }
}
