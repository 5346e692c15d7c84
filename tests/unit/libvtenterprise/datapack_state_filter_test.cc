#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/datapack_state.h"
#include "tests/support/log_capture.h"
#include "tests/unit/libvtenterprise/state_rows.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using veltrane::SeqPtr;
using veltrane::StringMapPtr;
using veltrane::TextPtr;

void FilterClasses(Seq *rows, StringMap *index, const ReportFilter *filter,
                   ProtocolVersion version = VT_PROTOCOL_COOKIE)
{
    FilterDiffData(rows, index, filter, report_type_classes, IsMetaTagAllowedByKey, version);
}

TEST(FilterDiffData, WithoutAnIndexDoesNothingAtAll)
{
    const SeqPtr rows = NewRows({"200,1,late,secret", "100,1,early,secret"});

    FilterClasses(rows.get(), nullptr, Excluding({"secret"}).get());

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("200,1,late,secret", "100,1,early,secret"));
}

TEST(FilterDiffData, WithoutFilterAndEntriesOnlySortsByTime)
{
    const SeqPtr rows = NewRows({"200,1,a,secret", "100,3,b,", "200,2,c,", "100,1,d,"});
    const StringMapPtr index = NewIndex({});

    FilterClasses(rows.get(), index.get(), nullptr);

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("100,3,b,", "100,1,d,", "200,1,a,secret", "200,2,c,"));
    EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
}

TEST(FilterDiffData, AHiddenRowGoesOutOnceAsUntrackedAndIsRememberedAsItWas)
{
    const SeqPtr rows = NewRows({"100,3,cfg,secret", "110,1,web,inventory"});
    const StringMapPtr index = NewIndex({});

    FilterClasses(rows.get(), index.get(), Excluding({"secret"}).get());

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("100,4,cfg,secret", "110,1,web,inventory"));
    EXPECT_THAT(EntriesOf(index.get()), ElementsAre(Pair("cfg", "100,3,cfg,secret")));
}

TEST(FilterDiffData, ARowThatWasHiddenBeforeIsWithheldAndRememberedAnew)
{
    const SeqPtr rows = NewRows({"100,2,cfg,secret", "110,1,web,inventory"});
    const StringMapPtr index = NewIndex({{"cfg", "90,1,cfg,secret"}});

    FilterClasses(rows.get(), index.get(), Excluding({"secret"}).get());

    EXPECT_THAT(TextsOf(rows.get()), UnorderedElementsAre("-", "110,1,web,inventory"));
    EXPECT_THAT(EntriesOf(index.get()), ElementsAre(Pair("cfg", "100,2,cfg,secret")));
}

TEST(FilterDiffData, OfTwoRowsOfOneHiddenItemOnlyTheFirstGoesOut)
{
    const SeqPtr rows = NewRows({"100,1,cfg,secret", "110,2,cfg,secret"});
    const StringMapPtr index = NewIndex({});

    FilterClasses(rows.get(), index.get(), Excluding({"secret"}).get());

    EXPECT_THAT(TextsOf(rows.get()), UnorderedElementsAre("100,4,cfg,secret", "-"));
    EXPECT_THAT(EntriesOf(index.get()), ElementsAre(Pair("cfg", "110,2,cfg,secret")));
}

TEST(FilterDiffData, RowsAreRememberedInTheFormOfThePeersProtocol)
{
    for (const ProtocolVersion version :
         {VT_PROTOCOL_UNDEFINED, VT_PROTOCOL_CLASSIC, VT_PROTOCOL_TLS, VT_PROTOCOL_COOKIE, VT_PROTOCOL_FILESTREAM}) {
        const SeqPtr rows = NewRows({"100,1,cfg,secret"});
        const StringMapPtr index = NewIndex({});

        FilterClasses(rows.get(), index.get(), Excluding({"secret"}).get(), version);

        EXPECT_STREQ(StringMapGet(index.get(), "cfg"),
                     version <= VT_PROTOCOL_TLS ? "100,1,cfg,secret\r\n" : "100,1,cfg,secret");
    }
}

TEST(FilterDiffData, AnEntryStillHiddenStaysInTheIndex)
{
    const SeqPtr rows = NewRows({"110,1,web,inventory"});
    const StringMapPtr index = NewIndex({{"cfg", "90,1,cfg,secret"}});

    FilterClasses(rows.get(), index.get(), Excluding({"secret"}).get());

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("110,1,web,inventory"));
    EXPECT_THAT(EntriesOf(index.get()), ElementsAre(Pair("cfg", "90,1,cfg,secret")));
}

TEST(FilterDiffData, AnAdmittedEntryWithoutARowComesBackAsAdditionAtTheFirstRowsTime)
{
    const SeqPtr rows = NewRows({"500,1,web,", "400,1,db,"});
    const StringMapPtr index = NewIndex({{"cfg", "90,3,cfg,secret"}});

    FilterClasses(rows.get(), index.get(), Excluding({"other"}).get());

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("400,1,db,", "500,1,web,", "500,1,cfg,secret"));
    EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
}

TEST(FilterDiffData, WithoutRowsAnAdmittedEntryComesBackAtThePresentTime)
{
    const SeqPtr rows = NewRows({});
    const StringMapPtr index = NewIndex({{"cfg", "90,1,cfg,secret"}});

    const time_t before = time(nullptr);
    FilterClasses(rows.get(), index.get(), nullptr);
    const time_t after = time(nullptr);

    ASSERT_EQ(SeqLength(rows.get()), 1U);
    const DiffRow *row = static_cast<DiffRow *>(SeqAt(rows.get(), 0));
    EXPECT_GE(row->info->time, before);
    EXPECT_LE(row->info->time, after);
    EXPECT_EQ(row->info->type, diff_add);
}

TEST(FilterDiffData, ARowOfAnAdmittedItemBecomesAnAddition)
{
    for (const char *kind : {"1", "3", "4"}) {
        const SeqPtr rows = NewRows({std::string("100,") + kind + ",cfg,plain"});
        const StringMapPtr index = NewIndex({{"cfg", "90,1,cfg,secret"}});

        FilterClasses(rows.get(), index.get(), Excluding({"secret", "x"}).get());  // the stored row is still hidden
        EXPECT_EQ(EntriesOf(index.get()).size(), 1U);
        FilterClasses(rows.get(), index.get(), Excluding({"x"}).get());

        EXPECT_THAT(TextsOf(rows.get()), ElementsAre("100,1,cfg,plain")) << kind;
        EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
    }
}

TEST(FilterDiffData, OnlyTheFirstRowOfAnAdmittedItemIsChanged)
{
    const SeqPtr rows = NewRows({"100,3,cfg,a", "110,3,cfg,b"});
    const StringMapPtr index = NewIndex({{"cfg", "90,1,cfg,secret"}});

    FilterClasses(rows.get(), index.get(), nullptr);

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("100,1,cfg,a", "110,3,cfg,b"));
}

TEST(FilterDiffData, TheRemovalOfAnItemTheHubNeverSawIsTakenOut)
{
    const SeqPtr rows = NewRows({"100,2,cfg,secret", "110,1,web,"});
    const StringMapPtr index = NewIndex({{"cfg", "90,1,cfg,secret"}});

    FilterClasses(rows.get(), index.get(), nullptr);

    EXPECT_THAT(TextsOf(rows.get()), UnorderedElementsAre("-", "110,1,web,"));
    EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
}

TEST(FilterDiffData, AnItemRemovedWhileHiddenNeverReachesTheHub)
{
    const StringMapPtr index = NewIndex({{"cfg", "90,1,cfg,secret"}});
    const SeqPtr removal = NewRows({"100,2,cfg,secret"});
    FilterClasses(removal.get(), index.get(), Excluding({"secret"}).get());
    EXPECT_THAT(TextsOf(removal.get()), ElementsAre("-"));

    const SeqPtr rows = NewRows({"200,1,web,"});
    FilterClasses(rows.get(), index.get(), nullptr);

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("200,1,web,"));
    EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
}

TEST(FilterDiffData, AnEntryThatDoesNotParseLeavesTheIndexSilentlyForTheHub)
{
    LogCapture log;
    const SeqPtr rows = NewRows({"100,1,web,"});
    const StringMapPtr index = NewIndex({{"bad", "not a row"}, {"worse", "1,1,\"open"}});

    FilterClasses(rows.get(), index.get(), Excluding({"secret"}).get());

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("100,1,web,"));
    EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
    EXPECT_THAT(log.lines, Contains(Pair(LOG_LEVEL_ERR, "Failed to parse CSV entry: '1,1,\"open'")));
}

TEST(FilterDiffData, AnEntryThatDoesNotParseStillAdmitsTheRowOfItsKey)
{
    const SeqPtr rows = NewRows({"100,3,web,"});
    const StringMapPtr index = NewIndex({{"web", "not a row"}});

    FilterClasses(rows.get(), index.get(), nullptr);

    EXPECT_THAT(TextsOf(rows.get()), ElementsAre("100,1,web,"));
}

TEST(FilterDiffData, EmptySlotsArePassedOver)
{
    const SeqPtr rows = NewRows({"-", "100,1,cfg,secret", "-"});
    const StringMapPtr index = NewIndex({{"web", "90,1,web,plain"}});

    FilterClasses(rows.get(), index.get(), Excluding({"secret"}).get());

    EXPECT_THAT(TextsOf(rows.get()), UnorderedElementsAre("-", "-", "100,4,cfg,secret", "100,1,web,plain"));
}

TEST(FilterDiffData, HiddenRowsWithoutAMainKeyShareTheEmptyOne)
{
    // Promise executions whose hash is absent.
    const SeqPtr rows = NewRows(
        {"100,1,,p.vt,,99,default,main,files,/a,/,secret,,", "110,1,,p.vt,,99,default,main,files,/b,/,secret,,"},
        report_type_execution_log);
    const StringMapPtr index = NewIndex({});

    FilterDiffData(rows.get(), index.get(), Excluding({"secret"}).get(), report_type_execution_log,
                   IsKeyAllowedByFilter, VT_PROTOCOL_COOKIE);

    ASSERT_EQ(EntriesOf(index.get()).size(), 1U);
    EXPECT_EQ(EntriesOf(index.get())[0].first, "");
    EXPECT_THAT(EntriesOf(index.get())[0].second, HasSubstr("/b"));
    EXPECT_THAT(TextsOf(rows.get(), report_type_execution_log), UnorderedElementsAre(HasSubstr("100,4,"), "-"));
}

TEST(FilterDiffData, AnEntryWithTheEmptyKeyMatchesNoRow)
{
    const SeqPtr rows = NewRows({"100,2,,p.vt,,99,default,main,files,/a,/,h,,"}, report_type_execution_log);
    const StringMapPtr index = NewIndex({{"", "90,2,,p.vt,,99,default,main,files,/b,/,h,,"}});

    FilterDiffData(rows.get(), index.get(), nullptr, report_type_execution_log, IsKeyAllowedByFilter,
                   VT_PROTOCOL_COOKIE);

    EXPECT_THAT(TextsOf(rows.get(), report_type_execution_log), ElementsAre(HasSubstr("100,2,")));
    EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
}

TEST(FilterDiffData, RowsWithoutAFilteringKeyAreNeverHidden)
{
    const ReportFilterPtr nothing_passes = Including({});
    const std::vector<std::pair<ReportType, std::string>> rows_by_type = {
        {report_type_lastseen, "100,1,43,SHA=00,192.0.2.1,1.000000,90"},
        {report_type_software, "100,1,bash,5.2,x"},
        {report_type_software_patch, "100,1,bash,5.2,x,0"},
    };
    for (const auto &[type, text] : rows_by_type) {
        const SeqPtr rows = NewRows({text}, type);
        const StringMapPtr index = NewIndex({});
        FilterDiffData(rows.get(), index.get(), nothing_passes.get(), type, IsKeyAllowedByFilter, VT_PROTOCOL_COOKIE);
        EXPECT_THAT(TextsOf(rows.get(), type), ElementsAre(text));
        EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
    }
}

// The filtering step as one reads it: for each admitted entry a walk over the rows from the start. Quadratic, and so
// the measure for the one that is not.
class PlainFiltering {
  public:
    PlainFiltering(Seq *data, StringMap *index, const ReportFilter *filter, ReportType type, FilterTestFn test)
        : data_(data), index_(index), filter_(filter), type_(type), test_(test)
    {
    }

    void Run(time_t oldest)
    {
        Readmit(oldest);
        if (filter_ != nullptr) {
            Hide();
        }
        SeqSort(data_, DiffRowCompareTs, nullptr);
    }

  private:
    DiffRow *At(size_t i) const { return static_cast<DiffRow *>(SeqAt(data_, i)); }

    bool IsHidden(const DiffRow *row) const
    {
        const char *key = GetFilteringKey(row, type_);
        return key != nullptr && !test_(key, filter_);
    }

    void Readmit(time_t oldest)
    {
        Texts noted;
        for (const auto &[key, text] : EntriesOf(index_)) {
            DiffRowPtr stored(DiffRowFromCSV(text.c_str(), type_));
            if (filter_ != nullptr && stored != nullptr && IsHidden(stored.get())) {
                continue;
            }
            if (!AdmitFirstRow(key) && stored != nullptr && stored->info->type != diff_remove) {
                stored->info->type = diff_add;
                stored->info->time = oldest;
                SeqAppend(data_, stored.release());
            }
            noted.push_back(key);
        }
        for (const std::string &key : noted) { StringMapRemove(index_, key.c_str()); }
    }

    bool AdmitFirstRow(const std::string &key)
    {
        for (size_t i = 0; i < SeqLength(data_); ++i) {
            if (At(i) == nullptr || !StringEqual(TextPtr(DiffRowGetMainKey(At(i), type_)).get(), key.c_str())) {
                continue;
            }
            if (At(i)->info->type == diff_remove) {
                SeqSet(data_, i, nullptr);
            } else {
                At(i)->info->type = diff_add;
            }
            return true;
        }
        return false;
    }

    void Hide()
    {
        for (size_t i = 0; i < SeqLength(data_); ++i) {
            if (At(i) == nullptr || !IsHidden(At(i))) {
                continue;
            }
            TextPtr key(DiffRowGetMainKey(At(i), type_));
            const std::string name = key != nullptr ? key.get() : "";
            const bool held = StringMapHasKey(index_, name.c_str());
            StringMapInsert(index_, xstrdup(name.c_str()), DiffRowToCSV(At(i), type_, false));
            At(i)->info->type = diff_untracked;
            if (held) {
                SeqSet(data_, i, nullptr);
            }
        }
    }

    Seq *data_;
    StringMap *index_;
    const ReportFilter *filter_;
    ReportType type_;
    FilterTestFn test_;
};

class RandomStates {
  public:
    Texts Rows()
    {
        Texts rows = {Row(Name())};  // the first is never empty: its time is the oldest
        for (unsigned n = Below(25); n > 0; --n) { rows.push_back(Below(10) == 0 ? "-" : Row(Name())); }
        return rows;
    }

    // Some entries hold the row of another key, or no row at all: the file may have been damaged.
    Entries Index()
    {
        Entries entries;
        for (unsigned n = Below(15); n > 0; --n) {
            const std::string key = Name();
            const unsigned kind = Below(10);
            entries.emplace_back(key, kind == 0 ? "no row" : kind == 1 ? Row(Name()) : Row(key));
        }
        return entries;
    }

    unsigned Below(unsigned n) { return static_cast<unsigned>(random_() % n); }

  private:
    std::string Name() { return Below(30) == 0 ? "" : "class" + std::to_string(Below(12)); }

    std::string Row(const std::string &name)
    {
        static const char *const kTags[] = {"", "secret", "plain", "\"plain,secret\""};
        return std::to_string(1000 + Below(5)) + "," + std::to_string(1 + Below(4)) + "," + name + "," +
               kTags[Below(4)];
    }

    std::mt19937 random_{20240607};
};

TEST(FilterDiffData, GivesWhatThePlainWalkGivesOnRandomStates)
{
    LogSetOutput(nullptr, false);  // a warning for each row without a key
    RandomStates states;
    const ReportFilterPtr filters[] = {nullptr, Excluding({"secret"}), Including({"plain"}), Including({})};
    size_t readmitted = 0;
    for (int round = 0; round < 3000; ++round) {
        const Texts texts = states.Rows();
        const Entries entries = states.Index();
        const ReportFilter *filter = filters[states.Below(4)].get();
        const SeqPtr rows = NewRows(texts);
        const SeqPtr plain_rows = NewRows(texts);
        const StringMapPtr index = NewIndex(entries);
        const StringMapPtr plain_index = NewIndex(entries);
        const time_t oldest = static_cast<DiffRow *>(SeqAt(rows.get(), 0))->info->time;

        FilterClasses(rows.get(), index.get(), filter);
        PlainFiltering(plain_rows.get(), plain_index.get(), filter, report_type_classes, IsMetaTagAllowedByKey)
            .Run(oldest);

        ASSERT_EQ(TextsOf(rows.get()), TextsOf(plain_rows.get())) << "round " << round;
        ASSERT_EQ(EntriesOf(index.get()), EntriesOf(plain_index.get())) << "round " << round;
        readmitted += SeqLength(rows.get()) - texts.size();
    }
    LogSetOutput(stderr, false);
    EXPECT_GT(readmitted, 1000U);  // the rounds really bring entries back
}

TEST(FilterDiffData, ManyEntriesAgainstManyRowsAreNoWalkForEach)
{
    constexpr int kItems = 20'000;  // the square of which no test would wait for
    Texts texts;
    Entries entries;
    for (int i = 0; i < kItems; ++i) {
        const std::string name = "class" + std::to_string(i);
        texts.push_back("100,3," + name + ",");
        entries.emplace_back(name, "90,1," + name + ",secret");
    }
    const SeqPtr rows = NewRows(texts);
    const StringMapPtr index = NewIndex(entries);

    FilterClasses(rows.get(), index.get(), nullptr);

    ASSERT_EQ(SeqLength(rows.get()), static_cast<size_t>(kItems));
    for (size_t i = 0; i < SeqLength(rows.get()); ++i) {
        ASSERT_EQ(static_cast<DiffRow *>(SeqAt(rows.get(), i))->info->type, diff_add);
    }
    EXPECT_THAT(EntriesOf(index.get()), IsEmpty());
}

}  // namespace
