#include "libvtenterprise/datapack_histograms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <string>
#include <vector>

#include <veltrane/monitoring.h>
#include <veltrane/owned.h>

#include "support/log_capture.h"
#include "support/report_filters.h"
#include "support/texts.h"
#include "support/work_dir.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;
using veltrane::SeqPtr;

namespace {

constexpr int kUsers = 0;
constexpr int kLoad = 4;
constexpr int kNameless = 60;
constexpr int kValuesOfAPosition = VT_OBSERVABLES * VT_WEEK_DAYS;

// The values of a histogram file, most of them 0.
class Values {
  public:
    std::string &At(int slot, int day, int position)
    {
        return values_[static_cast<size_t>(position)][static_cast<size_t>(slot * VT_WEEK_DAYS + day)];
    }

    // The record of one position, under another number where asked for.
    std::string Record(int position, const std::string &number = "") const
    {
        std::string record = (number.empty() ? std::to_string(position) : number) + " ";
        for (const std::string &value : values_[static_cast<size_t>(position)]) {
            record += (value.empty() ? "0.0000" : value) + " ";
        }
        return record + "\n";
    }

    std::string File() const
    {
        std::string file;
        for (int position = 0; position < VT_HISTOGRAM_POSITIONS; ++position) { file += Record(position); }
        return file;
    }

  private:
    std::array<std::array<std::string, kValuesOfAPosition>, VT_HISTOGRAM_POSITIONS> values_;
};

class DatapackHistograms : public testing::Test {
  protected:
    void Write(const std::string &bytes) const { WriteFile(work_.State("histograms"), bytes); }

    static Texts Pack(const ReportFilter *filter = nullptr)
    {
        const SeqPtr reply(SeqNew(10, free));
        PackHistograms(reply.get(), filter);
        return SeqTexts(reply.get());
    }

    // A line in which every position is what seven days without data make of it, but for these.
    static std::string Line(const std::string &slot, const std::map<int, std::string> &sums)
    {
        std::string line = slot;
        for (int position = 0; position < VT_HISTOGRAM_POSITIONS; ++position) {
            const auto found = sums.find(position);
            line += "," + (found != sums.end() ? found->second : "4");
        }
        return line;
    }

    static size_t CouldNotLoad(const LogCapture &log)
    {
        size_t lines = 0;
        for (const auto &[level, message] : log.lines) {
            lines +=
                level == LOG_LEVEL_VERBOSE && message.starts_with("!! Could not load histogram data for i=") ? 1 : 0;
        }
        return lines;
    }

    const WorkDirectory work_;
    Values values_;
};

TEST_F(DatapackHistograms, WithoutAFileThereIsNoChapter)
{
    LogCapture log;

    EXPECT_THAT(Pack(), IsEmpty());

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing histograms"),
                                       Pair(LOG_LEVEL_VERBOSE, "!! Unable to load histogram data")));
}

TEST_F(DatapackHistograms, AFileThatCanBeOpenedMakesTheChapterThoughNoRowFollows)
{
    for (const std::string &bytes : {std::string(), std::string("\n"), std::string("rubbish"), values_.File()}) {
        LogCapture log;
        Write(bytes);

        EXPECT_THAT(Pack(), ElementsAre("MOH"));

        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing histograms")));
    }
}

TEST_F(DatapackHistograms, ADirectoryInItsPlaceIsAChapterWithoutRows)
{
    std::filesystem::create_directory(work_.State("histograms"));

    EXPECT_THAT(Pack(), ElementsAre("MOH"));
}

TEST_F(DatapackHistograms, AValueIsSpreadOverItsNeighboursAndSevenHalvesAreAdded)
{
    values_.At(kLoad, 0, 30) = "9.0000";
    Write(values_.File());

    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("load_1m", {{29, "7"}, {30, "7"}, {31, "7"}})));
}

TEST_F(DatapackHistograms, SevenDaysAddUp)
{
    for (int day = 0; day < VT_WEEK_DAYS; ++day) { values_.At(kUsers, day, 10) = std::to_string(30 * (day + 1)); }
    Write(values_.File());

    // (30 + 60 + ... + 210) / 3 + 7 * 0.5 = 283.5
    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("users", {{9, "284"}, {10, "284"}, {11, "284"}})));
}

TEST_F(DatapackHistograms, TheEndsAreNeverSmoothedAndKeepNoValueOfTheirOwn)
{
    values_.At(kLoad, 0, 0) = "300";
    values_.At(kLoad, 0, 63) = "600";
    Write(values_.File());

    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("load_1m", {{1, "104"}, {62, "204"}})));
}

TEST_F(DatapackHistograms, ASumBeyondTheMostStartsAgainFromNothing)
{
    values_.At(kLoad, 0, 30) = "3000000";  // smoothed 1000000, so the first day's sum is dropped; six halves follow
    Write(values_.File());

    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("load_1m", {{29, "3"}, {30, "3"}, {31, "3"}})));
}

TEST_F(DatapackHistograms, TheMostItselfStays)
{
    values_.At(kLoad, 6, 30) = "2999986.5";  // smoothed 999995.5, with seven halves 999999
    Write(values_.File());

    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("load_1m", {{29, "999999"}, {30, "999999"}, {31, "999999"}})));
}

TEST_F(DatapackHistograms, ASumBelowNothingStartsAgainFromNothing)
{
    values_.At(kLoad, 0, 30) = "-90";
    values_.At(kLoad, 1, 10) = "9";
    Write(values_.File());

    EXPECT_THAT(Pack(),
                ElementsAre("MOH", Line("load_1m", {{9, "7"}, {10, "7"}, {11, "7"}, {29, "3"}, {30, "3"}, {31, "3"}})));
}

TEST_F(DatapackHistograms, ASlotWithNothingAboveZeroHasNoRow)
{
    values_.At(kLoad, 0, 30) = "-90";
    Write(values_.File());

    EXPECT_THAT(Pack(), ElementsAre("MOH"));
}

TEST_F(DatapackHistograms, ASlotWithoutANameIsLeftOut)
{
    LogCapture log;
    values_.At(kNameless, 0, 30) = "9";
    Write(values_.File());

    EXPECT_THAT(Pack(), ElementsAre("MOH"));

    EXPECT_TRUE(log.Has(LOG_LEVEL_DEBUG, "Could not find slot 60 when packing monitoring histograms - skipping"));
}

TEST_F(DatapackHistograms, AFilterAdmitsSlotsByTheirNames)
{
    LogCapture log;
    values_.At(kUsers, 0, 30) = "9";
    values_.At(kLoad, 0, 30) = "9";
    Write(values_.File());

    EXPECT_THAT(Pack(Filter("monitoring", {"load.*"}).get()), ElementsAre("MOH", StartsWith("load_1m,")));

    EXPECT_TRUE(
        log.Has(LOG_LEVEL_DEBUG, "Slot 0 not allowed by report filter when packing monitoring histograms - skipping"));
    EXPECT_FALSE(
        log.Has(LOG_LEVEL_DEBUG, "Slot 4 not allowed by report filter when packing monitoring histograms - skipping"));
}

TEST_F(DatapackHistograms, SlotsWithoutDataAreNotWorthAWord)
{
    LogCapture log;
    Write(values_.File());

    Pack(Filter("monitoring", {"load.*"}).get());

    EXPECT_THAT(log.lines, SizeIs(1));
}

TEST_F(DatapackHistograms, TheNumberReadSelectsThePositionWhateverItsPlaceInTheFile)
{
    values_.At(kLoad, 0, 30) = "9";
    Write(values_.Record(30, "5"));

    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("load_1m", {{4, "7"}, {5, "7"}, {6, "7"}})));
}

TEST_F(DatapackHistograms, OfTwoRecordsForOnePositionTheLaterCounts)
{
    values_.At(kLoad, 0, 30) = "9";
    values_.At(kLoad, 0, 31) = "18";
    Write(values_.Record(30, "5") + values_.Record(31, "5"));

    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("load_1m", {{4, "10"}, {5, "10"}, {6, "10"}})));
}

TEST_F(DatapackHistograms, NothingIsReadBehindTheLastPosition)
{
    values_.At(kLoad, 0, 30) = "9";
    Write(values_.Record(0, "63") + values_.Record(30));

    EXPECT_THAT(Pack(), ElementsAre("MOH"));
}

TEST_F(DatapackHistograms, APositionBeyondTheLastStoresNothingAndEndsTheFile)
{
    values_.At(kLoad, 0, 30) = "9";
    for (const char *number : {"64", "2147483647", "4294967296", "99999999999999999999"}) {
        Write(values_.Record(30, number) + values_.Record(30));

        EXPECT_THAT(Pack(), ElementsAre("MOH")) << number;
    }
}

TEST_F(DatapackHistograms, APositionBelowTheFirstStoresNothingAndReadingGoesOn)
{
    values_.At(kLoad, 0, 30) = "9";
    for (const char *number : {"-1", "-2147483648", "-4294967266", "-99999999999999999999"}) {
        Write(values_.Record(30, number) + values_.Record(30));

        EXPECT_THAT(Pack(), ElementsAre("MOH", Line("load_1m", {{29, "7"}, {30, "7"}, {31, "7"}}))) << number;
    }
}

TEST_F(DatapackHistograms, AValueThatCannotBeReadCountsAsZeroAndSoDoAllAfterIt)
{
    LogCapture log;
    values_.At(kUsers, 0, 30) = "9";
    values_.At(kLoad, 2, 30) = "rubbish";
    values_.At(kLoad, 3, 30) = "9";
    Write(values_.Record(30));

    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("users", {{29, "7"}, {30, "7"}, {31, "7"}})));

    EXPECT_EQ(CouldNotLoad(log), static_cast<size_t>(kValuesOfAPosition - (kLoad * VT_WEEK_DAYS + 2)));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "!! Could not load histogram data for i=4,day=2,position=30"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "!! Could not load histogram data for i=99,day=6,position=30"));
}

TEST_F(DatapackHistograms, AFileCutAnywhereIsReadToItsCut)
{
    values_.At(kUsers, 0, 1) = "9";
    values_.At(kLoad, 6, 3) = "9";
    const std::string whole = values_.Record(1) + values_.Record(2) + values_.Record(3);
    for (size_t length = 0; length < whole.size(); length += 53) {
        LogCapture log;
        Write(whole.substr(0, length));

        const Texts lines = Pack();

        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], "MOH");
        EXPECT_LE(lines.size(), 3U);
        EXPECT_LE(CouldNotLoad(log), static_cast<size_t>(kValuesOfAPosition));
    }
}

TEST_F(DatapackHistograms, WhatIsNoNumberCountsForNothing)
{
    values_.At(kLoad, 0, 30) = "nan";
    values_.At(kLoad, 1, 40) = "inf";
    values_.At(kLoad, 2, 50) = "-inf";
    values_.At(kLoad, 3, 10) = "9";
    Write(values_.File());

    EXPECT_THAT(Pack(), ElementsAre("MOH", Line("load_1m", {{9, "7"},
                                                            {10, "7"},
                                                            {11, "7"},
                                                            {29, "0"},
                                                            {30, "0"},
                                                            {31, "0"},
                                                            {39, "3"},
                                                            {40, "3"},
                                                            {41, "3"},
                                                            {49, "2"},
                                                            {50, "2"},
                                                            {51, "2"}})));
}

TEST_F(DatapackHistograms, GarbageOfAnyKindIsNoLoop)
{
    std::string garbage;
    for (int i = 0; i < 100000; ++i) { garbage += static_cast<char>(i * 2654435761U >> 13); }
    Write(garbage);
    EXPECT_THAT(Pack(), ElementsAre("MOH"));

    Write("0 x");
    EXPECT_THAT(Pack(), ElementsAre("MOH"));

    Write("5 5 5 5 5");
    EXPECT_THAT(Pack(), Contains("MOH"));
}

}  // namespace
