// The file between two runs, over classes; what each report adds to it is asserted with that report.
#include "libvtenterprise/temporary_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libvtenterprise/diff_classes.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::MapPtr;
using veltrane::SeqPtr;

namespace {

constexpr TemporaryCache kCache = {"some.cache.tmp", "some_tmp_lock", report_type_classes};

std::filesystem::path FileOf(const WorkDirectory &work) { return work.State("some.cache.tmp"); }

Seq *Merged(const ClassTexts &present) { return kCache.Merge(ClassState(present).release()); }

TEST(TemporaryCache, WhatIsStoredIsReadBackWhateverItsBytes)
{
    const WorkDirectory work;
    const std::string odd = "caf\xE9 \xFF, \"quoted\"\r\nsecond line";
    kCache.Store(ClassState({{odd, "a,b"}, {"plain", nullptr}}).get());

    const MapPtr records(kCache.Read());

    ASSERT_NE(records, nullptr);
    ASSERT_EQ(MapSize(records.get()), 2u);
    const auto *record = static_cast<const HubClass *>(MapGet(records.get(), odd.c_str()));
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->meta_serialized, "a,b");
}

TEST(TemporaryCache, AnEmptyFileIsAMapWithoutEntriesNotAMissingOne)
{
    const WorkDirectory work;
    WriteFile(FileOf(work), "");
    LogCapture log;
    const MapPtr records(kCache.Read());
    ASSERT_NE(records, nullptr);
    EXPECT_EQ(MapSize(records.get()), 0u);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(TemporaryCache, AFileThatOpensButCannotBeReadIsNoMap)
{
    const WorkDirectory work;
    std::filesystem::create_directory(FileOf(work));
    LogCapture log;
    EXPECT_EQ(kCache.Read(), nullptr);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read: '" + FileOf(work).string() + "'")));
}

TEST(TemporaryCache, TheMergeKeepsThePlacesOfTheFileAndTheValuesOfThisRun)
{
    const WorkDirectory work;
    WriteFile(FileOf(work), "b,old\r\na,old\r\n");
    const SeqPtr state(Merged({{"a", "new"}, {"c", nullptr}}));
    EXPECT_THAT(StateTexts(state.get(), report_type_classes), ElementsAre("b,old", "a,new", "c,"));
}

TEST(TemporaryCache, WithoutAFileTheMergeIsThisRunInItsOwnOrder)
{
    const WorkDirectory work;
    const SeqPtr state(Merged({{"z", nullptr}, {"a", nullptr}, {"z", "twice"}}));
    EXPECT_THAT(StateTexts(state.get(), report_type_classes), ElementsAre("z,", "a,", "z,twice"));
}

TEST(TemporaryCache, ARecordOfThisRunWithoutAKeyIsStillReported)
{
    const WorkDirectory work;
    WriteFile(FileOf(work), "a,old\r\n");
    SeqPtr present = ClassState({{"b", nullptr}});
    SeqAppend(present.get(), HubClassNew(nullptr, nullptr, 0, "nameless"));

    const SeqPtr state(kCache.Merge(present.release()));

    EXPECT_THAT(StateTexts(state.get(), report_type_classes), ElementsAre("a,old", "b,", ",nameless"));
}

TEST(TemporaryCache, TheClassesOfTwoStoringRunsHaveTheirGoldenBytes)
{
    const WorkDirectory work;
    StoreContexts(ContextWith({{"linux", "hardclass,source=agent"}, {"ready", nullptr}}).get());
    StoreContexts(ContextWith({{"linux", "inventory"}, {"web:proxy", "a \"quoted\" tag"}, {"any", nullptr}}).get());
    ExpectGolden("state/context.cache.tmp", ReadFile(work.State("context.cache.tmp")));
}

}  // namespace
