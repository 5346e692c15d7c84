#include "libvtenterprise/cache_comparison.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "libvtenterprise/diff_engine.h"
#include "support/log_capture.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::SeqPtr;
using veltrane::SeqViewPtr;

namespace {

const ReportDataHandle &kClasses = REPORT_DATA_HANDLES[report_type_classes];
const ReportDataHandle &kSoftware = REPORT_DATA_HANDLES[report_type_software];

// The rows that come of adding the cached records one by one.
std::vector<std::string> RowsFor(const SeqPtr &cached, const SeqPtr &present, const ReportDataHandle &handle = kClasses,
                                 ReportType type = report_type_classes)
{
    CacheComparison comparison(present.get(), handle);
    for (size_t i = 0; i < SeqLength(cached.get()); i++) { comparison.Add(handle.DataDup(SeqAt(cached.get(), i))); }
    return RowTexts(comparison.Rows().get(), type);
}

std::vector<std::string> RowsFor(const ClassTexts &cached, const ClassTexts &present)
{
    return RowsFor(ClassState(cached), ClassState(present));
}

SeqPtr Packages(const std::vector<std::string> &names)
{
    SeqPtr state(SeqNew(0, HubSoftwareDelete));
    for (const std::string &name : names) {
        SeqAppend(state.get(), HubSoftwareNew(nullptr, name.c_str(), "1", "x", 0));
    }
    return state;
}

TEST(CacheComparison, SortedStatesAreMerged)
{
    EXPECT_THAT(RowsFor({{"b", "1"}, {"d", "1"}, {"m", "1"}, {"z", "1"}},
                        {{"a", "1"}, {"b", "2"}, {"c", "1"}, {"m", "1"}, {"y", "1"}}),
                ElementsAre("0,2,d,1", "0,2,z,1", "0,1,a,1", "0,3,b,2", "0,1,c,1", "0,1,y,1"));
}

TEST(CacheComparison, StatesInAnyOrderAreMatchedAndTheirRowsSorted)
{
    EXPECT_THAT(RowsFor({{"z", "1"}, {"m", "1"}, {"d", "1"}, {"b", "1"}},
                        {{"y", "1"}, {"m", "2"}, {"c", "1"}, {"b", "2"}, {"a", "1"}}),
                ElementsAre("0,2,d,1", "0,2,z,1", "0,1,a,1", "0,3,b,2", "0,1,c,1", "0,3,m,2", "0,1,y,1"));
}

TEST(CacheComparison, WithoutACachedRecordEveryItemIsAnAdditionInItsOwnOrder)
{
    EXPECT_THAT(RowsFor({}, {{"b", "1"}, {"a", nullptr}}), ElementsAre("0,1,b,1", "0,1,a,"));
    EXPECT_THAT(RowsFor(ClassTexts{}, ClassTexts{}), IsEmpty());
}

TEST(CacheComparison, AnEmptyPresentStateRemovesEverything)
{
    EXPECT_THAT(RowsFor({{"a", "1"}, {"b", "1"}}, {}), ElementsAre("0,2,a,1", "0,2,b,1"));
}

TEST(CacheComparison, ACacheThatIsNotInOrderIsComparedAllTheSame)
{
    EXPECT_THAT(RowsFor({{"c", "1"}, {"a", "1"}, {"b", "1"}}, {{"a", "1"}, {"b", "2"}, {"d", "1"}}),
                ElementsAre("0,2,c,1", "0,3,b,2", "0,1,d,1"));
}

TEST(CacheComparison, AKeyThatComesTwiceIsNeitherAddedNorRemoved)
{
    EXPECT_THAT(RowsFor({{"a", "1"}, {"a", "1"}}, {{"a", "1"}}), IsEmpty());
    EXPECT_THAT(RowsFor({{"a", "1"}}, {{"a", "1"}, {"a", "1"}}), IsEmpty());
    EXPECT_THAT(RowsFor({{"b", "1"}, {"a", "1"}, {"b", "1"}}, {{"b", "1"}, {"a", "1"}}), IsEmpty());
}

TEST(CacheComparison, EmptySlotsArePassedOver)
{
    const SeqPtr present = ClassState({{"a", "1"}});
    SeqAppend(present.get(), nullptr);
    SeqAppend(present.get(), HubClassNew(nullptr, "c", 0, "1"));

    EXPECT_THAT(RowsFor(ClassState({{"a", "1"}, {"b", "1"}}), present), ElementsAre("0,2,b,1", "0,1,c,1"));
}

TEST(CacheComparison, RecordsWithoutAMainKeyNeedNoOrderEither)
{
    EXPECT_THAT(RowsFor(Packages({"b", "a"}), Packages({"c", "a"}), kSoftware, report_type_software),
                ElementsAre("0,2,b,1,x", "0,1,c,1,x"));
    EXPECT_THAT(RowsFor(Packages({"a", "b"}), Packages({"a", "c"}), kSoftware, report_type_software),
                ElementsAre("0,2,b,1,x", "0,1,c,1,x"));
}

TEST(CacheComparison, AClassWithoutANameIsComparedAllTheSame)
{
    SeqPtr present = ClassState({{"b", "1"}});
    SeqAppend(present.get(), HubClassNew(nullptr, nullptr, 0, "1"));
    SeqPtr cached = ClassState({{"b", "1"}});
    SeqAppend(cached.get(), HubClassNew(nullptr, nullptr, 0, "2"));

    EXPECT_THAT(RowsFor(cached, present), ElementsAre("0,3,,1"));
}

TEST(CacheComparison, TheExpectedRecordIsTheNextOneInOrder)
{
    const SeqPtr present = ClassState({{"a", "1"}, {"b", "1"}, {"c", "1"}});
    CacheComparison comparison(present.get(), kClasses);

    EXPECT_EQ(comparison.Expected(), 0u);
    comparison.AddExpected();
    EXPECT_EQ(comparison.Expected(), 1u);
    comparison.Add(HubClassNew(nullptr, "aa", 0, "1"));
    EXPECT_EQ(comparison.Expected(), 1u);
    comparison.AddExpected();
    comparison.AddExpected();
    EXPECT_EQ(comparison.Expected(), SIZE_MAX);
    EXPECT_THAT(RowTexts(comparison.Rows().get()), ElementsAre("0,2,aa,1"));
}

TEST(CacheComparison, InAnotherOrderNothingIsExpected)
{
    const SeqPtr present = ClassState({{"b", "1"}, {"a", "1"}});
    EXPECT_EQ(CacheComparison(present.get(), kClasses).Expected(), SIZE_MAX);
}

// States of few names, so that keys meet, sometimes come twice, and sometimes are in order.
class RandomStates {
  public:
    ClassTexts Next()
    {
        static constexpr const char *kTags[] = {nullptr, "1", "2", "1,2"};
        ClassTexts state;
        for (char c = 'a'; c < 'k'; c++) {
            const size_t times = random_() % 8 == 0 ? random_() % 3 : random_() % 4 != 0;
            for (size_t i = 0; i < times; i++) { state.emplace_back(std::string(1, c), kTags[random_() % 4]); }
        }
        if (random_() % 3 == 0) {
            std::shuffle(state.begin(), state.end(), random_);
        }
        return state;
    }

    unsigned Number() { return static_cast<unsigned>(random_()); }

  private:
    std::mt19937 random_{7};
};

TEST(CacheComparison, AnyStatesGiveTheRowsOfGenerateDiff)
{
    RandomStates states;
    for (int round = 0; round < 5000; round++) {
        const SeqPtr cached = ClassState(states.Next());
        const SeqPtr present = ClassState(states.Next());
        const SeqPtr expected(GenerateDiff(cached.get(), present.get(), HubClassDelete, HubClassCompareKeys,
                                           HubClassCompareValues, HubClassDup));
        ASSERT_EQ(RowsFor(cached, present), RowTexts(expected.get())) << "round " << round;
    }
}

// A cache as somebody may have left it: other line ends, needless quotes, records that do not split or do not fit.
std::string CacheText(const ClassTexts &state, RandomStates *random)
{
    std::string text;
    for (const auto &[name, tags] : state) {
        const bool odd = random->Number() % 10 == 0;
        const std::string written = tags != nullptr ? tags : "";
        const bool quoted = written.find(',') != std::string::npos || (odd && random->Number() % 2 == 0);
        text += name + ',' + (quoted ? '"' + written + '"' : written) + (odd ? "\n" : "\r\n");
        if (random->Number() % 40 == 0) {
            text += random->Number() % 2 == 0 ? "x\"y,z\r\n" : "only one column\r\n";
        }
    }
    return text;
}

TEST(CacheComparison, APassOverAnyCacheGivesTheRowsOfGenerateDiffAndTheSameWarnings)
{
    const WorkDirectory work;
    RandomStates states;
    for (int round = 0; round < 200; round++) {
        const ClassTexts now = states.Next();
        WriteFile(CachePath(work), CacheText(states.Next(), &states));
        std::filesystem::remove(DiffPath(work));
        LogCapture log;
        const SeqPtr cached(GetStateCache(CachePath(work).c_str(), HubClassFromAttributeList, HubClassDelete));
        const auto warnings = log.UpTo(LOG_LEVEL_WARNING);
        log.lines.clear();
        SeqPtr present = ClassState(now);
        const SeqPtr expected(GenerateDiff(cached.get(), present.get(), HubClassDelete, HubClassCompareKeys,
                                           HubClassCompareValues, HubClassDup));

        ASSERT_TRUE(DiffReportGenerateFrom(report_type_classes, 77, 77, present.release()));

        EXPECT_EQ(log.UpTo(LOG_LEVEL_WARNING), warnings);
        const SeqPtr rows(DiffReportGet(report_type_classes, 77, 78));
        const SeqPtr no_rows(SeqNew(0, nullptr));
        for (size_t i = 0; i < SeqLength(expected.get()); i++) {
            static_cast<DiffRow *>(SeqAt(expected.get(), i))->info->time = 77;
        }
        ASSERT_EQ(RowTexts(rows != nullptr ? rows.get() : no_rows.get()), RowTexts(expected.get()))
            << "round " << round;
        const SeqPtr written(GetStateCache(CachePath(work).c_str(), HubClassFromAttributeList, HubClassDelete));
        ASSERT_EQ(RowsFor(written, ClassState(now)), RowsFor(ClassState(now), ClassState(now))) << "round " << round;
        ASSERT_EQ(SeqLength(written.get()), now.size());
    }
}

}  // namespace
