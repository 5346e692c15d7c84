#include "libvtenterprise/diff_engine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <random>

#include <veltrane/string_lib.h>

#include "support/file_size_limit.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/section_probe.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

using testing::AnyOf;
using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Pair;
using veltrane::EvalContextPtr;
using veltrane::SeqPtr;
using veltrane::SeqViewPtr;

namespace {

constexpr const char *kSection = "DIFF_CRITICAL_SECTION";

SeqPtr DiffOfClasses(Seq *old_state, Seq *new_state)
{
    return SeqPtr(
        GenerateDiff(old_state, new_state, HubClassDelete, HubClassCompareKeys, HubClassCompareValues, HubClassDup));
}

std::vector<std::string> RowsOfClasses(const ClassTexts &old_state, const ClassTexts &new_state)
{
    const SeqPtr before = ClassState(old_state);
    const SeqPtr now = ClassState(new_state);
    return RowTexts(DiffOfClasses(before.get(), now.get()).get());
}

// --- GenerateDiff ---

TEST(GenerateDiff, WithoutAnOldStateEveryItemIsAnAdditionInItsOwnOrder)
{
    const SeqPtr now = ClassState({{"linux", "b"}, {"any_host", nullptr}, {"debian", "a"}});
    const SeqPtr empty = ClassState({});

    EXPECT_THAT(RowTexts(DiffOfClasses(nullptr, now.get()).get()),
                ElementsAre("0,1,linux,b", "0,1,any_host,", "0,1,debian,a"));
    EXPECT_THAT(RowTexts(DiffOfClasses(empty.get(), now.get()).get()),
                ElementsAre("0,1,linux,b", "0,1,any_host,", "0,1,debian,a"));
}

TEST(GenerateDiff, TwoEmptyStatesGiveAnEmptyResult)
{
    const SeqPtr empty = ClassState({});
    EXPECT_EQ(SeqLength(DiffOfClasses(nullptr, empty.get()).get()), 0u);
    EXPECT_EQ(SeqLength(DiffOfClasses(empty.get(), empty.get()).get()), 0u);
}

TEST(GenerateDiff, TheSameStateInAnotherOrderHasNoDifference)
{
    EXPECT_THAT(RowsOfClasses({{"a", "x"}, {"b", nullptr}, {"c", "z"}}, {{"c", "z"}, {"a", "x"}, {"b", nullptr}}),
                IsEmpty());
}

TEST(GenerateDiff, ChangedTagsAreOneChangeThatCarriesTheNewOnes)
{
    EXPECT_THAT(RowsOfClasses({{"a", "x"}, {"b", "old"}}, {{"a", "x"}, {"b", "new"}}), ElementsAre("0,3,b,new"));
    EXPECT_THAT(RowsOfClasses({{"a", "x"}}, {{"a", nullptr}}), ElementsAre("0,3,a,"));
}

TEST(GenerateDiff, RemovalsComeFirstThenAdditionsAndChangesInKeyOrder)
{
    EXPECT_THAT(RowsOfClasses({{"z", "1"}, {"m", "1"}, {"d", "1"}, {"b", "1"}},
                              {{"y", "1"}, {"m", "2"}, {"c", "1"}, {"b", "2"}, {"a", "1"}}),
                ElementsAre("0,2,d,1", "0,2,z,1", "0,1,a,1", "0,3,b,2", "0,1,c,1", "0,3,m,2", "0,1,y,1"));
}

TEST(GenerateDiff, KeysAreOrderedByUnsignedBytes)
{
    EXPECT_THAT(
        RowsOfClasses({{"k", nullptr}}, {{"\xc3\xa4", nullptr}, {"k", nullptr}, {"Z", nullptr}, {"a", nullptr}}),
        ElementsAre("0,1,Z,", "0,1,a,", "0,1,\xc3\xa4,"));
}

TEST(GenerateDiff, AnEmptyNewStateRemovesEverything)
{
    EXPECT_THAT(RowsOfClasses({{"b", "1"}, {"a", "1"}}, {}), ElementsAre("0,2,a,1", "0,2,b,1"));
}

TEST(GenerateDiff, ANewVersionOfAPackageIsARemovalAndAnAddition)
{
    SeqPtr before(SeqNew(0, HubSoftwareDelete));
    SeqAppend(before.get(), HubSoftwareNew(nullptr, "zlib", "1.2", "amd64", 0));
    SeqAppend(before.get(), HubSoftwareNew(nullptr, "bash", "5.2", "amd64", 0));
    SeqPtr now(SeqNew(0, HubSoftwareDelete));
    SeqAppend(now.get(), HubSoftwareNew(nullptr, "zlib", "1.3", "amd64", 0));
    SeqAppend(now.get(), HubSoftwareNew(nullptr, "bash", "5.2", "amd64", 0));

    const SeqPtr rows(
        GenerateDiff(before.get(), now.get(), HubSoftwareDelete, HubSoftwareCompareKeys, nullptr, HubSoftwareDup));

    EXPECT_THAT(RowTexts(rows.get(), report_type_software), ElementsAre("0,2,zlib,1.2,amd64", "0,1,zlib,1.3,amd64"));
}

TEST(GenerateDiff, WithoutValuesAnItemNeverChanges)
{
    const SeqPtr before = ClassState({{"a", "x"}});
    const SeqPtr now = ClassState({{"a", "y"}});
    const SeqPtr rows(GenerateDiff(before.get(), now.get(), HubClassDelete, HubClassCompareKeys, nullptr, HubClassDup));
    EXPECT_EQ(SeqLength(rows.get()), 0u);
}

TEST(GenerateDiff, RowsHoldCopiesWithoutTimeAndTypeAndTheStatesStay)
{
    SeqPtr before = ClassState({{"b", "1"}, {"a", "1"}});
    SeqPtr now = ClassState({{"c", "1"}, {"b", "2"}});
    const void *const first_old = SeqAt(before.get(), 0);
    const void *const first_new = SeqAt(now.get(), 0);

    const SeqPtr rows = DiffOfClasses(before.get(), now.get());

    EXPECT_EQ(SeqAt(before.get(), 0), first_old);
    EXPECT_EQ(SeqAt(now.get(), 0), first_new);
    before.reset();
    now.reset();
    EXPECT_THAT(RowTexts(rows.get()), ElementsAre("0,2,a,1", "0,3,b,2", "0,1,c,1"));
    for (size_t i = 0; i < SeqLength(rows.get()); i++) {
        const DiffRow *row = static_cast<const DiffRow *>(SeqAt(rows.get(), i));
        EXPECT_EQ(row->info->time, 0);
        EXPECT_EQ(row->type, report_type_max);
        EXPECT_EQ(row->DataDelete, &HubClassDelete);
    }
}

TEST(GenerateDiff, EmptySlotsArePassedOver)
{
    const SeqPtr before = ClassState({{"b", "1"}, {"a", "1"}});
    SeqAppend(before.get(), nullptr);
    const SeqPtr now = ClassState({{"c", "1"}});
    SeqAppend(now.get(), nullptr);
    SeqAppend(now.get(), HubClassNew(nullptr, "a", 0, "1"));

    EXPECT_THAT(RowTexts(DiffOfClasses(before.get(), now.get()).get()), ElementsAre("0,2,b,1", "0,1,c,1"));
    EXPECT_THAT(RowTexts(DiffOfClasses(nullptr, now.get()).get()), ElementsAre("0,1,c,1", "0,1,a,1"));
}

// The behaviour in its plainest form: sort both states, look each item up in the other.
std::vector<std::string> RowsBySearching(const Seq *before, const Seq *now, bool with_values)
{
    const SeqViewPtr old_sorted(SeqSoftSort(before, HubClassCompareKeys, nullptr));
    const SeqViewPtr new_sorted(SeqSoftSort(now, HubClassCompareKeys, nullptr));
    std::vector<std::string> rows;
    const auto row = [&rows](int kind, const void *item) {
        const HubClass *hub_class = static_cast<const HubClass *>(item);
        rows.push_back("0," + std::to_string(kind) + "," + hub_class->context + "," +
                       (hub_class->meta_serialized != nullptr ? hub_class->meta_serialized : ""));
    };
    for (size_t i = 0; i < SeqLength(old_sorted.get()); i++) {
        const void *item = SeqAt(old_sorted.get(), i);
        if (SeqBinaryLookup(new_sorted.get(), item, HubClassCompareKeys) == nullptr) {
            row(diff_remove, item);
        }
    }
    for (size_t i = 0; i < SeqLength(new_sorted.get()); i++) {
        const void *item = SeqAt(new_sorted.get(), i);
        const void *found = SeqBinaryLookup(old_sorted.get(), item, HubClassCompareKeys);
        if (found == nullptr) {
            row(diff_add, item);
        } else if (with_values && !HubClassCompareValues(item, found)) {
            row(diff_change, item);
        }
    }
    return rows;
}

ClassTexts RandomState(std::mt19937 &random, size_t most, unsigned keys, bool unique)
{
    static const char *const kTags[] = {nullptr, "x", "y"};
    ClassTexts state;
    std::map<std::string, bool> taken;
    for (size_t length = random() % (most + 1); length > 0; length--) {
        const std::string name = "c" + std::to_string(random() % keys);
        if (!unique || taken.emplace(name, true).second) {
            state.emplace_back(name, kTags[random() % 3]);
        }
    }
    return state;
}

TEST(GenerateDiff, GivesTheRowsThatSearchingGives)
{
    std::mt19937 random(7);
    for (int round = 0; round < 2000; round++) {
        const SeqPtr before = ClassState(RandomState(random, 40, 50, true));
        const SeqPtr now = ClassState(RandomState(random, 40, 50, true));
        if (SeqLength(before.get()) == 0) {
            continue;  // then the new state's own order counts
        }
        ASSERT_EQ(RowTexts(DiffOfClasses(before.get(), now.get()).get()),
                  RowsBySearching(before.get(), now.get(), true));
        const SeqPtr rows(
            GenerateDiff(before.get(), now.get(), HubClassDelete, HubClassCompareKeys, nullptr, HubClassDup));
        ASSERT_EQ(RowTexts(rows.get()), RowsBySearching(before.get(), now.get(), false));
    }
}

// Of several items with one key any may match: what is removed and what is added is certain all the same, and a change
// needs a partner that differs.
TEST(GenerateDiff, SeveralItemsOfOneKeyGiveSensibleRows)
{
    std::mt19937 random(11);
    for (int round = 0; round < 2000; round++) {
        ClassTexts old_state = RandomState(random, 12, 6, false);
        const ClassTexts new_state = RandomState(random, 12, 6, false);
        old_state.emplace_back("c0", "x");  // never empty
        const auto tags_of = [](const ClassTexts &state, const std::string &name) {
            std::vector<std::string> tags;
            for (const auto &[other, text] : state) {
                if (other == name) {
                    tags.push_back(text != nullptr ? text : "");
                }
            }
            return tags;
        };

        size_t removed = 0;
        size_t added = 0;
        for (const std::string &row : RowsOfClasses(old_state, new_state)) {
            const std::string name = row.substr(4, 2);
            const std::string tag = row.substr(7);
            const auto old_tags = tags_of(old_state, name);
            const auto new_tags = tags_of(new_state, name);
            if (row[2] == '2') {
                removed++;
                ASSERT_THAT(new_tags, IsEmpty());
                ASSERT_THAT(old_tags, testing::Contains(tag));
            } else if (row[2] == '1') {
                added++;
                ASSERT_THAT(old_tags, IsEmpty());
                ASSERT_THAT(new_tags, testing::Contains(tag));
            } else {
                ASSERT_THAT(new_tags, testing::Contains(tag));
                ASSERT_THAT(old_tags, testing::Contains(testing::Ne(tag)));
            }
        }
        const auto lonely = [&](const ClassTexts &state, const ClassTexts &other) {
            return static_cast<size_t>(std::count_if(
                state.begin(), state.end(), [&](const auto &item) { return tags_of(other, item.first).empty(); }));
        };
        ASSERT_EQ(removed, lonely(old_state, new_state));
        ASSERT_EQ(added, lonely(new_state, old_state));
    }
}

TEST(GenerateDiff, ASelfContradictingComparatorNeverStrays)
{
    static std::mt19937 random;
    random.seed(3);
    const auto contradicting = [](const void *, const void *, void *) { return static_cast<int>(random() % 3) - 1; };
    for (int round = 0; round < 200; round++) {
        const SeqPtr before = ClassState(RandomState(random, 60, 50, true));
        const SeqPtr now = ClassState(RandomState(random, 60, 50, true));
        const SeqPtr rows(
            GenerateDiff(before.get(), now.get(), HubClassDelete, contradicting, HubClassCompareValues, HubClassDup));
        ASSERT_LE(SeqLength(rows.get()), SeqLength(before.get()) + SeqLength(now.get()));
    }
}

// --- GetStateCache ---

std::vector<std::string> NamesIn(const Seq *classes)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < SeqLength(classes); i++) {
        names.emplace_back(static_cast<const HubClass *>(SeqAt(classes, i))->context);
    }
    return names;
}

TEST(GetStateCache, AMissingFileIsNoState)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path / "classes.cache";
    LogCapture log;

    EXPECT_EQ(GetStateCache(path.c_str(), HubClassFromAttributeList, HubClassDelete), nullptr);

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read cached state: '" + path + "'")));
}

TEST(GetStateCache, WhatOpensButCannotBeReadIsNoState)
{
    const TemporaryDirectory directory;
    LogCapture log;

    EXPECT_EQ(GetStateCache(directory.path.c_str(), HubClassFromAttributeList, HubClassDelete), nullptr);

    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read cached state: '" + directory.path.string() + "'")));
}

TEST(GetStateCache, AnEmptyFileIsAnEmptyState)
{
    const TemporaryDirectory directory;
    WriteFile(directory.path / "classes.cache", "");
    const SeqPtr state(
        GetStateCache((directory.path / "classes.cache").c_str(), HubClassFromAttributeList, HubClassDelete));
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(SeqLength(state.get()), 0u);
}

TEST(GetStateCache, ARecordThatDoesNotSplitIsAWarningAndOneOfOtherColumnsIsSkippedSilently)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path / "classes.cache";
    WriteFile(path, "a,1\r\nb\"ad\",1\r\nonly_one_column\r\nb,2\r\nc,3,4\r\n\"d\r\ne\",5\r\n");
    LogCapture log;

    const SeqPtr state(GetStateCache(path.c_str(), HubClassFromAttributeList, HubClassDelete));

    ASSERT_NE(state, nullptr);
    EXPECT_THAT(NamesIn(state.get()), ElementsAre("a", "b", "d\r\ne"));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING, "Failed to parse csv file entry ('" + path + "'): 'b\"ad\",1'")));
}

// --- DiffReportGenerate ---

bool AgentRun(time_t agent_time, const ClassTexts &classes)
{
    const EvalContextPtr ctx = ContextWith(classes);
    return DiffReportGenerate(report_type_classes, agent_time, ctx.get());
}

TEST(DiffReportGenerate, TheFirstRunWritesTheCacheAndAddsEverything)
{
    const WorkDirectory work;
    LogCapture log;

    EXPECT_TRUE(AgentRun(1000, {{"linux", "a"}, {"debian", nullptr}}));

    EXPECT_EQ(ReadFile(CachePath(work)), "debian,\r\nlinux,a\r\n");
    EXPECT_EQ(ReadFile(DiffPath(work)), "1000,1,debian,\r\n1000,1,linux,a\r\n");
    EXPECT_THAT(
        log.lines,
        ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read: '" + work.State("context.cache.tmp").string() + "'"),
                    Pair(LOG_LEVEL_VERBOSE, "Could not read cached state: '" + CachePath(work).string() + "'"),
                    Pair(LOG_LEVEL_VERBOSE, "Writing diff to '" + DiffPath(work).string() + "'")));
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportGenerate, CacheAndDifferenceFileHaveTheirGoldenBytes)
{
    const WorkDirectory work;

    EXPECT_TRUE(AgentRun(
        1000,
        {{"linux", "hardclass,source=agent"}, {"debian", nullptr}, {"spare", "report"}, {"web:server", "report"}}));
    EXPECT_TRUE(AgentRun(2000, {{"linux", "hardclass,source=agent"},
                                {"debian", nullptr},
                                {"web:proxy", nullptr},
                                {"web:server", "a \"quoted\" tag"}}));

    ExpectGolden("state/classes.cache", ReadFile(CachePath(work)));
    ExpectGolden("state/classes.diff", ReadFile(DiffPath(work)));
}

TEST(DiffReportGenerate, BothFilesAreForTheirOwnerAlone)
{
    const WorkDirectory work;
    EXPECT_TRUE(AgentRun(1000, {{"linux", "a"}}));
    for (const auto &path : {CachePath(work), DiffPath(work)}) {
        struct stat st = {};
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600u) << path;
    }
}

TEST(DiffReportGenerate, ARunWithoutChangeLeavesTheDifferenceFileAlone)
{
    const WorkDirectory work;
    ASSERT_TRUE(AgentRun(1000, {{"linux", "a"}, {"debian", nullptr}}));
    const std::string before = ReadFile(DiffPath(work));
    LogCapture log;

    EXPECT_TRUE(AgentRun(2000, {{"linux", "a"}, {"debian", nullptr}}));

    EXPECT_EQ(ReadFile(DiffPath(work)), before);
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Diff is empty, nothing to save at '" + DiffPath(work).string() + "'"));
    EXPECT_THAT(log.UpTo(LOG_LEVEL_INFO), IsEmpty());
}

TEST(DiffReportGenerate, NoChangeMakesNoDifferenceFile)
{
    const WorkDirectory work;
    WriteFile(CachePath(work), "linux,a\r\n");
    EXPECT_TRUE(AgentRun(2000, {{"linux", "a"}}));
    EXPECT_FALSE(std::filesystem::exists(DiffPath(work)));
}

TEST(DiffReportGenerate, AnEmptyStateRemovesEachCachedItemAndEmptiesTheCache)
{
    const WorkDirectory work;
    WriteFile(CachePath(work), "linux,a\r\ndebian,\r\n");

    EXPECT_TRUE(AgentRun(2000, {}));

    EXPECT_EQ(ReadFile(DiffPath(work)), "2000,2,debian,\r\n2000,2,linux,a\r\n");
    EXPECT_TRUE(std::filesystem::exists(CachePath(work)));
    EXPECT_EQ(ReadFile(CachePath(work)), "");
}

TEST(DiffReportGenerate, ATypeWithoutStateIsSkipped)
{
    const WorkDirectory work;
    LogCapture log;

    EXPECT_FALSE(DiffReportGenerate(report_type_max, 1000, nullptr));  // its row of operations is empty

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                            "Failed to access current state for report: 'unknown' (skipping report)")));
    EXPECT_THAT(std::filesystem::directory_iterator(work.State("previous_state")),
                Eq(std::filesystem::directory_iterator()));
}

TEST(DiffReportGenerate, ACacheThatCannotBeWrittenEndsThePass)
{
    const WorkDirectory work;
    std::filesystem::create_directory(CachePath(work).string() + ".new");
    WriteFile(CachePath(work), "debian,\r\n");
    LogCapture log;

    EXPECT_FALSE(AgentRun(2000, {{"linux", "a"}}));

    EXPECT_EQ(ReadFile(CachePath(work)), "debian,\r\n");
    EXPECT_FALSE(std::filesystem::exists(DiffPath(work)));
    EXPECT_EQ(log.lines.back(),
              LogCapture::Line(LOG_LEVEL_VERBOSE, "Could not write cached state: '" + CachePath(work).string() + "'"));
}

TEST(DiffReportGenerate, WithoutItsDirectoriesNothingIsWritten)
{
    const WorkDirectory work;
    std::filesystem::remove(work.State("previous_state"));
    LogCapture log;

    EXPECT_FALSE(AgentRun(2000, {{"linux", "a"}}));

    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Could not write cached state: '" + CachePath(work).string() + "'"));
    EXPECT_FALSE(std::filesystem::exists(work.State("previous_state")));
}

TEST(DiffReportGenerate, WhatACrashLeftBesideTheCacheIsOverwritten)
{
    const WorkDirectory work;
    WriteFile(CachePath(work).string() + ".new", "half a state that is longer than the new one");
    EXPECT_TRUE(AgentRun(2000, {{"linux", "a"}}));
    EXPECT_EQ(ReadFile(CachePath(work)), "linux,a\r\n");
    EXPECT_FALSE(std::filesystem::exists(CachePath(work).string() + ".new"));
}

TEST(DiffReportGenerate, InputsThatCannotBeDroppedLoseTheDifferencesAfterTheCacheIsReplaced)
{
    const WorkDirectory work;
    WriteFile(CachePath(work), "debian,\r\n");
    std::filesystem::create_directory(work.State("context.cache.tmp"));  // opens, but no unlink removes it
    LogCapture log;

    EXPECT_FALSE(AgentRun(2000, {{"linux", "a"}}));

    EXPECT_EQ(ReadFile(CachePath(work)), "linux,a\r\n");
    EXPECT_FALSE(std::filesystem::exists(DiffPath(work)));
    EXPECT_EQ(log.lines.back(),
              LogCapture::Line(LOG_LEVEL_VERBOSE, "Failed to remove file '" + work.State("context.cache.tmp").string() +
                                                      "' during cleanup"));
}

TEST(DiffReportGenerate, ADifferenceFileThatCannotBeOpenedIsAnError)
{
    const WorkDirectory work;
    std::filesystem::create_directory(DiffPath(work));
    LogCapture log;

    EXPECT_FALSE(AgentRun(2000, {{"linux", "a"}}));

    EXPECT_EQ(ReadFile(CachePath(work)), "linux,a\r\n");
    EXPECT_THAT(log.UpTo(LOG_LEVEL_INFO), ElementsAre(Pair(LOG_LEVEL_ERR, "Could not write diff to the file: '" +
                                                                              DiffPath(work).string() + "'")));
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportGenerate, ATornLastRowIsCutOffInsideTheSection)
{
    const WorkDirectory work;
    WriteFile(DiffPath(work), "1000,1,debian,\r\n1000,1,\"li");
    bool held = false;
    {
        const LogAction action([&held](LogLevel level, const std::string &) {
            if (level == LOG_LEVEL_WARNING) {
                held = IsSectionHeld(kSection);
            }
        });
        EXPECT_TRUE(AgentRun(2000, {{"linux", "a"}}));
    }

    EXPECT_EQ(ReadFile(DiffPath(work)), "1000,1,debian,\r\n2000,1,linux,a\r\n");
    EXPECT_TRUE(held);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(DiffReportGenerate, ALockFileThatCannotBeMadeDoesNotLoseTheReport)
{
    const WorkDirectory work;
    std::filesystem::remove_all(work.State("locks"));
    WriteFile(work.State("locks"), "");
    const LogCapture log;

    EXPECT_TRUE(AgentRun(2000, {{"linux", "a"}}));

    EXPECT_EQ(ReadFile(DiffPath(work)), "2000,1,linux,a\r\n");
}

// The disk is full after 0, 1, 2 ... bytes until all fits: each time both files are the old or the new ones.
TEST(DiffReportGenerate, AFullDiskLeavesEachFileOldOrNew)
{
    const std::string old_cache = "debian,\r\n";
    const std::string new_cache = "linux,\"a,b\"\r\nrecent,\r\n";
    const std::string old_diff = "1000,1,debian,\r\n";
    const std::string new_rows = "2000,2,debian,\r\n2000,1,linux,\"a,b\"\r\n2000,1,recent,\r\n";
    const size_t enough = old_diff.size() + new_rows.size();
    for (size_t bytes = 0; bytes <= enough; bytes++) {
        const WorkDirectory work;
        WriteFile(CachePath(work), old_cache);
        WriteFile(DiffPath(work), old_diff);
        const LogCapture log;
        bool done;
        {
            const FileSizeLimit limit(bytes);
            done = AgentRun(2000, {{"linux", "a,b"}, {"recent", nullptr}});
        }

        const bool cached = bytes >= new_cache.size();
        EXPECT_EQ(done, bytes == enough) << bytes;
        EXPECT_EQ(ReadFile(CachePath(work)), cached ? new_cache : old_cache) << bytes;
        EXPECT_EQ(ReadFile(DiffPath(work)), done ? old_diff + new_rows : old_diff) << bytes;
        EXPECT_FALSE(std::filesystem::exists(CachePath(work).string() + ".new")) << bytes;
        if (!cached) {
            EXPECT_EQ(log.lines.back(), LogCapture::Line(LOG_LEVEL_VERBOSE, "Could not write cached state: '" +
                                                                                CachePath(work).string() + "'"));
        } else if (!done) {
            EXPECT_EQ(log.lines.back(), LogCapture::Line(LOG_LEVEL_ERR, "Could not write diff to the file: '" +
                                                                            DiffPath(work).string() + "'"));
        }
    }
}

}  // namespace
