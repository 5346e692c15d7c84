#include "libvtenterprise/diff_classes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <veltrane/csv.h>

#include "libvtenterprise/diff_engine.h"
#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/section_probe.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;
using veltrane::EvalContextPtr;
using veltrane::MapPtr;
using veltrane::SeqPtr;
using veltrane::StringSetPtr;

namespace {

constexpr const char *kSection = "context_tmp_lock";

struct HubClassDeleter {
    void operator()(HubClass *hub_class) const { HubClassDelete(hub_class); }
};
using HubClassPtr = std::unique_ptr<HubClass, HubClassDeleter>;

HubClassPtr FromClass(const char *ns, std::string name, const char *tags)
{
    const StringSetPtr set(tags != nullptr ? StringSetFromString(tags, ',') : nullptr);
    const Class context = {const_cast<char *>(ns), name.data(), set.get(), true};
    return HubClassPtr(HubClassFromClass(&context));
}

// "name tags" of each class.
std::vector<std::string> Texts(const Seq *classes)
{
    std::vector<std::string> texts;
    for (size_t i = 0; i < SeqLength(classes); i++) {
        const HubClass *hub_class = static_cast<const HubClass *>(SeqAt(classes, i));
        texts.push_back(std::string(hub_class->context) + " " +
                        (hub_class->meta_serialized != nullptr ? hub_class->meta_serialized : "-"));
    }
    return texts;
}

std::vector<std::string> Texts(const Map *classes)
{
    std::vector<std::string> texts;
    MapIterator iterator = MapIteratorInit(classes);
    while (const MapKeyValue *entry = MapIteratorNext(&iterator)) {
        const HubClass *hub_class = static_cast<const HubClass *>(entry->value);
        texts.push_back(std::string(static_cast<const char *>(entry->key)) + ": " + hub_class->context + " " +
                        (hub_class->meta_serialized != nullptr ? hub_class->meta_serialized : "-"));
    }
    return texts;
}

std::filesystem::path TemporaryCache(const WorkDirectory &work) { return work.State("context.cache.tmp"); }

// --- IsContextIgnorableForReporting ---

TEST(IsContextIgnorableForReporting, ClassesOfTheClockAndOfNothingAreIgnored)
{
    for (const char *name : {"Min00",    "Min05_10",   "Min",       "Minimal_install",
                             "Hr00",     "Hr12_Q1",    "Hrm",       "Q1",
                             "Q2",       "Q3",         "Q4",        "Yr2025",
                             "Day1",     "Daylight",   "any",       "from_vtexecd",
                             "January",  "December",   "Monday",    "Sunday",
                             "Night",    "Morning",    "Afternoon", "Evening",
                             "Lcycle_0", "Lcycle",     "GMT_Hr12",  "GMT_Q4",
                             "GMT_any",  "GMT_Monday", "GMT_May",   "GMT_from_vtexecd"}) {
        EXPECT_TRUE(IsContextIgnorableForReporting(name)) << name;
    }
}

TEST(IsContextIgnorableForReporting, EverythingElseIsReported)
{
    for (const char *name :
         {"linux",   "",         "Q",      "Q0",           "Q5",       "Q10",       "q1",       "Q1x",
          "Qx",      "min00",    "hr12",   "yr2025",       "day1",     "Any",       "any_host", "from_vtexecd_x",
          "january", "Januaryx", "Januar", "monday",       "night",    "lcycle_0",  "Mi",       "Da",
          "xMin00",  "GMT_",     "GMT",    "GMT_GMT_Hr12", "gmt_Hr12", "GMT_linux", "GMTHr12"}) {
        EXPECT_FALSE(IsContextIgnorableForReporting(name)) << name;
    }
}

// --- HubClassFromClass ---

TEST(HubClassFromClass, HasTheFullNameTheJoinedTagsAndNothingElse)
{
    const HubClassPtr hub_class = FromClass("web", "server", "b,a,c d");
    EXPECT_STREQ(hub_class->context, "web:server");
    EXPECT_STREQ(hub_class->meta_serialized, "b,a,c d");
    EXPECT_EQ(hub_class->hh, nullptr);
    EXPECT_EQ(hub_class->t, 0);

    EXPECT_STREQ(FromClass(nullptr, "linux", "a")->context, "linux");
    EXPECT_STREQ(FromClass("default", "linux", "a")->context, "linux");
}

TEST(HubClassFromClass, AClassWithoutTagsHasAnAbsentTextNotAnEmptyOne)
{
    EXPECT_EQ(FromClass(nullptr, "linux", "")->meta_serialized, nullptr);
}

TEST(HubClassFromClass, AClassWithoutATagSetIsAnUnexpectedErrorAndHasNoTags)
{
    LogCapture log;

    const HubClassPtr hub_class = FromClass("web", "server", nullptr);

    EXPECT_STREQ(hub_class->context, "web:server");
    EXPECT_EQ(hub_class->meta_serialized, nullptr);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].first, LOG_LEVEL_ERR);
    EXPECT_THAT(log.lines[0].second, StartsWith("diff_classes:"));
    EXPECT_THAT(log.lines[0].second, HasSubstr("NULL tags found in class: server !"));
}

TEST(HubClassFromClass, TagsOfExactlyTheLimitAreKeptWhole)
{
    const std::string tags = std::string(1000, 'a') + "," + std::string(23, 'b');
    LogCapture log;
    EXPECT_STREQ(FromClass(nullptr, "linux", tags.c_str())->meta_serialized, tags.c_str());
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(HubClassFromClass, LongerTagsAreCutToOneByteLessThanTheLimit)
{
    for (const size_t length : {1025, 2000}) {
        const std::string tags = std::string(1000, 'a') + "," + std::string(length - 1001, 'b');
        LogCapture log;

        const HubClassPtr hub_class = FromClass("web", "server", tags.c_str());

        EXPECT_EQ(hub_class->meta_serialized, tags.substr(0, 1023));
        EXPECT_THAT(log.lines,
                    ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                     "Context 'web:server' (meta tags) are too large for transmission to reporting hub "
                                     "(larger than 1024 bytes) -- will be truncated in reports")));
    }
}

// --- GetCurrentClassesFromEvalContext ---

TEST(GetCurrentClassesFromEvalContext, HardAndSoftClassesOfAllNamespacesAreReported)
{
    const EvalContextPtr ctx(EvalContextNew());
    EvalContextClassPutHard(ctx.get(), "linux", "source=agent,hardclass");
    EvalContextClassPutSoft(ctx.get(), "web:server", nullptr);
    EvalContextClassPutSoft(ctx.get(), "ready", "report");

    const SeqPtr classes(GetCurrentClassesFromEvalContext(ctx.get()));

    EXPECT_THAT(Texts(classes.get()), ElementsAre("linux source=agent,hardclass", "ready report", "web:server -"));
}

TEST(GetCurrentClassesFromEvalContext, AnIgnoredClassIsADebugLineWithItsBareName)
{
    const EvalContextPtr ctx(EvalContextNew());
    EvalContextClassPutSoft(ctx.get(), "web:Hr12", nullptr);
    EvalContextClassPutSoft(ctx.get(), "web:server", nullptr);
    LogCapture log;

    const SeqPtr classes(GetCurrentClassesFromEvalContext(ctx.get()));

    EXPECT_THAT(Texts(classes.get()), ElementsAre("web:server -"));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_DEBUG, "Ignoring class for reporting: 'Hr12'")));
}

// --- StoreContexts ---

TEST(StoreContexts, EachRunAppendsItsClasses)
{
    const WorkDirectory work;
    const EvalContextPtr first = ContextWith({{"linux", "a,b"}, {"any", nullptr}});
    const EvalContextPtr second = ContextWith({{"debian", nullptr}, {"linux", "c"}});
    LogCapture log;

    StoreContexts(first.get());
    StoreContexts(second.get());

    EXPECT_EQ(ReadFile(TemporaryCache(work)), "linux,\"a,b\"\r\ndebian,\r\nlinux,c\r\n");
    EXPECT_THAT(log.UpTo(LOG_LEVEL_VERBOSE), IsEmpty());
    struct stat st = {};
    ASSERT_EQ(stat(TemporaryCache(work).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(StoreContexts, WithoutReportableClassesThereIsNoFile)
{
    const WorkDirectory work;
    const EvalContextPtr ctx = ContextWith({{"any", nullptr}, {"Hr12", "a"}});
    StoreContexts(ctx.get());
    EXPECT_FALSE(std::filesystem::exists(TemporaryCache(work)));
}

TEST(StoreContexts, AFileThatCannotBeOpenedIsAnError)
{
    const WorkDirectory work;
    std::filesystem::create_directory(TemporaryCache(work));
    const EvalContextPtr ctx = ContextWith({{"linux", "a"}});
    LogCapture log;

    StoreContexts(ctx.get());

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                            "Could not write to the file: '" + TemporaryCache(work).string() + "'")));
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(StoreContexts, AFullDiskTakesTheWholeBatchBack)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "debian,\r\n");
    const EvalContextPtr ctx = ContextWith({{"linux", "a"}, {"ready", nullptr}});
    LogCapture log;
    {
        const FileSizeLimit limit(20);
        StoreContexts(ctx.get());
    }

    EXPECT_EQ(ReadFile(TemporaryCache(work)), "debian,\r\n");
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                            "Could not write to the file: '" + TemporaryCache(work).string() + "'")));
}

TEST(StoreContexts, AppendsInsideTheSectionAfterCuttingOffATornRecord)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "debian,\r\nlin");
    const EvalContextPtr ctx = ContextWith({{"ready", nullptr}});
    bool held = false;
    {
        const LogAction action([&held](LogLevel, const std::string &) { held = IsSectionHeld(kSection); });
        StoreContexts(ctx.get());
    }
    EXPECT_EQ(ReadFile(TemporaryCache(work)), "debian,\r\nready,\r\n");
    EXPECT_TRUE(held);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

// --- GetCurrentCachedHubClasses ---

TEST(GetCurrentCachedHubClasses, AMissingFileIsNoMap)
{
    const WorkDirectory work;
    LogCapture log;

    EXPECT_EQ(GetCurrentCachedHubClasses(), nullptr);

    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read: '" + TemporaryCache(work).string() + "'")));
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(GetCurrentCachedHubClasses, ALaterRecordReplacesAnEarlierOneOfTheSameName)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "linux,a\r\ndebian,\r\nlinux,b\r\n");

    const MapPtr classes(GetCurrentCachedHubClasses());

    ASSERT_NE(classes, nullptr);
    EXPECT_THAT(Texts(classes.get()), ElementsAre("linux: linux b", "debian: debian -"));
}

TEST(GetCurrentCachedHubClasses, EachBadRecordIsAWarningInsideTheSection)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "linux,a\r\nb\"a\"d,1\r\nonly_one\r\na,b,c\r\n,tags_of_nothing\r\ndebian,\r\n");
    const std::string entry = "csv file entry ('" + TemporaryCache(work).string() + "'): ";
    std::vector<std::pair<LogLevel, std::string>> lines;
    bool held = true;
    MapPtr classes;
    {
        const LogAction action([&](LogLevel level, const std::string &message) {
            lines.emplace_back(level, message);
            held = held && IsSectionHeld(kSection);
        });
        classes.reset(GetCurrentCachedHubClasses());
    }

    ASSERT_NE(classes, nullptr);
    EXPECT_THAT(Texts(classes.get()), ElementsAre("linux: linux a", "debian: debian -"));
    EXPECT_THAT(lines, ElementsAre(Pair(LOG_LEVEL_WARNING, "Failed to parse " + entry + "'b\"a\"d,1'"),
                                   Pair(LOG_LEVEL_WARNING, "Invalid " + entry + "'only_one'"),
                                   Pair(LOG_LEVEL_WARNING, "Invalid " + entry + "'a,b,c'"),
                                   Pair(LOG_LEVEL_WARNING, "Invalid " + entry + "',tags_of_nothing'")));
    EXPECT_TRUE(held);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

// --- GetCurrentHubClassList ---

TEST(GetCurrentHubClassList, WithoutATemporaryCacheItIsTheContextAlone)
{
    const WorkDirectory work;
    const EvalContextPtr ctx = ContextWith({{"linux", "b"}, {"any", nullptr}});
    const SeqPtr classes(GetCurrentHubClassList(ctx.get()));
    EXPECT_THAT(Texts(classes.get()), ElementsAre("linux b"));
}

TEST(GetCurrentHubClassList, AClassOfThisRunReplacesTheCachedOneInItsPlace)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "zone,\r\nlinux,a\r\n");
    const EvalContextPtr ctx = ContextWith({{"linux", "b"}, {"debian", nullptr}});

    const SeqPtr classes(GetCurrentHubClassList(ctx.get()));

    EXPECT_THAT(Texts(classes.get()), ElementsAre("zone -", "linux b", "debian -"));
}

TEST(GetCurrentHubClassList, AnEmptyContextStillReportsTheCachedClasses)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "linux,a\r\n");
    const EvalContextPtr ctx(EvalContextNew());
    const SeqPtr classes(GetCurrentHubClassList(ctx.get()));
    EXPECT_THAT(Texts(classes.get()), ElementsAre("linux a"));
}

// --- PurgeCurrentContexts ---

TEST(PurgeCurrentContexts, DeletesTheTemporaryCache)
{
    const WorkDirectory work;
    WriteFile(TemporaryCache(work), "linux,a\r\n");
    LogCapture log;
    EXPECT_TRUE(PurgeCurrentContexts(0));
    EXPECT_FALSE(std::filesystem::exists(TemporaryCache(work)));
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_FALSE(IsSectionHeld(kSection));
}

TEST(PurgeCurrentContexts, NoFileIsNoFailure)
{
    const WorkDirectory work;
    LogCapture log;
    EXPECT_TRUE(PurgeCurrentContexts(0));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(PurgeCurrentContexts, WhatCannotBeDeletedIsAFailureInsideTheSection)
{
    const WorkDirectory work;
    std::filesystem::create_directory(TemporaryCache(work));  // opens, but no unlink removes it
    std::vector<std::pair<LogLevel, std::string>> lines;
    bool held = false;
    {
        const LogAction action([&](LogLevel level, const std::string &message) {
            lines.emplace_back(level, message);
            held = IsSectionHeld(kSection);
        });
        EXPECT_FALSE(PurgeCurrentContexts(0));
    }
    EXPECT_THAT(lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Failed to remove file '" + TemporaryCache(work).string() +
                                                               "' during cleanup")));
    EXPECT_TRUE(held);
    EXPECT_FALSE(IsSectionHeld(kSection));
}

// --- Through the engine ---

TEST(ClassReport, TheClassesOfAnEarlierRunAreReportedOnceAndTheirCacheGoes)
{
    const WorkDirectory work;
    const EvalContextPtr update = ContextWith({{"updated", "report"}, {"linux", "a"}});
    const EvalContextPtr main_run = ContextWith({{"linux", "b"}});
    StoreContexts(update.get());

    EXPECT_TRUE(DiffReportGenerate(report_type_classes, 1000, main_run.get()));
    EXPECT_FALSE(std::filesystem::exists(TemporaryCache(work)));
    EXPECT_TRUE(DiffReportGenerate(report_type_classes, 2000, main_run.get()));

    EXPECT_EQ(ReadFile(DiffPath(work)), "1000,1,linux,b\r\n1000,1,updated,report\r\n2000,2,updated,report\r\n");
}

TEST(ClassReport, AClassWithoutTagsDoesNotLookChangedAfterEachRun)
{
    const WorkDirectory work;
    const EvalContextPtr ctx = ContextWith({{"linux", nullptr}});
    EXPECT_TRUE(DiffReportGenerate(report_type_classes, 1000, ctx.get()));
    EXPECT_TRUE(DiffReportGenerate(report_type_classes, 2000, ctx.get()));
    EXPECT_EQ(ReadFile(DiffPath(work)), "1000,1,linux,\r\n");
}

}  // namespace
