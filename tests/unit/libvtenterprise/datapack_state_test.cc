#include "libvtenterprise/datapack_state.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "libvtenterprise/reply_line.h"
#include "tests/support/log_capture.h"
#include "tests/support/texts.h"
#include "tests/support/work_dir.h"
#include "tests/unit/libvtenterprise/state_rows.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using veltrane::SeqPtr;
using veltrane::TextPtr;

// --- Filtering keys --------------------------------------------------------------------------------------------------

std::string FilteringKeyOf(const std::string &text, ReportType type)
{
    const DiffRowPtr row(DiffRowFromCSV(text.c_str(), type));
    const char *key = GetFilteringKey(row.get(), type);
    return key != nullptr ? key : "(none)";
}

TEST(GetFilteringKey, IsTheTagsOrTheHandleOfTheRow)
{
    EXPECT_EQ(FilteringKeyOf("1,1,web,\"a,b\"", report_type_classes), "a,b");
    EXPECT_EQ(FilteringKeyOf("1,1,web,", report_type_classes), "");
    EXPECT_EQ(FilteringKeyOf("1,1,ns,scope,name,0,value,tags", report_type_variables), "tags");
    EXPECT_EQ(FilteringKeyOf("1,1,ns,scope,name,0,value,", report_type_variables), "");
    EXPECT_EQ(FilteringKeyOf("1,1,hash,p.vt,,99,default,main,files,/a,/,my_handle,,", report_type_execution_log),
              "my_handle");
    EXPECT_EQ(FilteringKeyOf("1,1,hash,p.vt,,99,default,main,files,/a,/,,,", report_type_execution_log), "");
}

TEST(GetFilteringKey, IsNoneForTheOtherReports)
{
    EXPECT_EQ(FilteringKeyOf("1,1,43,SHA=00,192.0.2.1,1.000000,90", report_type_lastseen), "(none)");
    EXPECT_EQ(FilteringKeyOf("1,1,bash,5.2,x", report_type_software), "(none)");
    EXPECT_EQ(FilteringKeyOf("1,1,bash,5.2,x,0", report_type_software_patch), "(none)");
}

TEST(IsMetaTagAllowedByKey, JudgesEveryTag)
{
    EXPECT_TRUE(IsMetaTagAllowedByKey("a,b", Including({"b"}).get()));
    EXPECT_FALSE(IsMetaTagAllowedByKey("a,b", Including({"c"}).get()));
    EXPECT_FALSE(IsMetaTagAllowedByKey("a,b", Excluding({"b"}).get()));
    EXPECT_FALSE(IsMetaTagAllowedByKey("a,b", Including({"a,b"}).get()));
}

TEST(IsMetaTagAllowedByKey, CountsARowWithoutTagsAsOneWithTheEmptyTag)
{
    for (const char *key : {"", ","}) {
        EXPECT_TRUE(IsMetaTagAllowedByKey(key, Including({""}).get()));
        EXPECT_TRUE(IsMetaTagAllowedByKey(key, Including({".*"}).get()));
        EXPECT_FALSE(IsMetaTagAllowedByKey(key, Including({"inventory"}).get()));
        EXPECT_FALSE(IsMetaTagAllowedByKey(key, Excluding({""}).get()));
        EXPECT_TRUE(IsMetaTagAllowedByKey(key, Excluding({"secret"}).get()));
    }
}

// --- The two packers -------------------------------------------------------------------------------------------------

// The columns of one record of each report, as its files hold them.
const std::vector<std::pair<ReportType, std::string>> kRecords = {
    {report_type_classes, "web,inventory"},
    {report_type_variables, "default,sys,host,0,name,inventory"},
    {report_type_lastseen, "43,SHA=00,192.0.2.1,1.000000,90"},
    {report_type_software, "bash,5.2,x"},
    {report_type_software_patch, "bash,5.2,x,0"},
    {report_type_execution_log, "hash,p.vt,,99,default,main,files,/a,/,my_handle,,,7,,"},
};

class StateChapters : public ::testing::Test {
  protected:
    std::string IndexPath(ReportType type = report_type_classes) const
    {
        return work_.State(std::string("untracked/") + ReportTypeToString(type) + ".idx").string();
    }

    void WriteDiff(const Texts &rows, ReportType type = report_type_classes) const
    {
        WriteRecords(std::string("diff/") + ReportTypeToString(type) + ".diff", rows);
    }

    void WriteCache(const Texts &records, ReportType type = report_type_classes) const
    {
        WriteRecords(std::string("previous_state/") + ReportTypeToString(type) + ".cache", records);
    }

    static Texts PackDelta(const ReportFilter *filter = nullptr, ReportType type = report_type_classes,
                           ProtocolVersion version = VT_PROTOCOL_COOKIE)
    {
        const SeqPtr reply(SeqNew(10, free));
        PackDiffReport(reply.get(), "CLD", 100, 200, filter, type, version);
        return SeqTexts(reply.get());
    }

    static Texts PackBase(const ReportFilter *filter = nullptr, ReportType type = report_type_classes,
                          ProtocolVersion version = VT_PROTOCOL_COOKIE)
    {
        const SeqPtr reply(SeqNew(10, free));
        PackBaseState(reply.get(), "CLD", 500, filter, type, version);
        return SeqTexts(reply.get());
    }

    WorkDirectory work_;

  private:
    void WriteRecords(const std::string &name, const Texts &records) const
    {
        std::string bytes;
        for (const std::string &record : records) { bytes += record + "\r\n"; }
        WriteFile(work_.State(name), bytes);
    }
};

TEST_F(StateChapters, ADeltaCarriesTheRowsOfThePeriodInTimeOrder)
{
    LogCapture log;
    WriteDiff({"99,1,before,", "150,3,later,x", "100,1,first,", "200,1,after,", "199,2,last,"});

    EXPECT_THAT(PackDelta(), ElementsAre("CLD", "100,1,first,", "150,3,later,x", "199,2,last,"));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing diff CLD chapter"),
                                       Pair(LOG_LEVEL_VERBOSE, "Could not read file: '" + IndexPath() + "'")));
    EXPECT_TRUE(std::filesystem::exists(IndexPath()));
    EXPECT_EQ(ReadFile(IndexPath()), "");
}

TEST_F(StateChapters, ADeltaWithoutADifferenceFileLeavesTheChapterOutAndTheIndexAlone)
{
    LogCapture log;

    EXPECT_THAT(PackDelta(), IsEmpty());

    EXPECT_THAT(log.lines, Contains(Pair(LOG_LEVEL_VERBOSE, "No delta report to pack (Report type: classes)")));
    EXPECT_FALSE(std::filesystem::exists(IndexPath()));
}

TEST_F(StateChapters, ADeltaWithoutRowsInThePeriodLeavesTheChapterOutAndTheIndexAlone)
{
    LogCapture log;
    WriteDiff({"99,1,before,1,x,0", "200,1,after,1,x,0"}, report_type_software_patch);
    WriteDiff({"99,1,before,", "200,1,after,"});
    WriteFile(IndexPath(), "cfg,\"90,1,cfg,\"\r\n");

    EXPECT_THAT(PackDelta(), IsEmpty());
    EXPECT_THAT(PackDelta(nullptr, report_type_software_patch), IsEmpty());

    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "No delta report to pack (Report type: classes)"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "No delta report to pack (Report type: patch)"));
    EXPECT_EQ(ReadFile(IndexPath()), "cfg,\"90,1,cfg,\"\r\n");
}

TEST_F(StateChapters, EveryReportTravelsAsDifferencesAndAsBaseState)
{
    for (const auto &[type, record] : kRecords) {
        WriteDiff({"150,1," + record}, type);
        WriteCache({record}, type);
        EXPECT_THAT(PackDelta(nullptr, type), ElementsAre("CLD", "150,1," + record));
        EXPECT_THAT(PackBase(nullptr, type), ElementsAre("CLD", "500,1," + record));
        EXPECT_TRUE(std::filesystem::exists(IndexPath(type)));
    }
}

TEST_F(StateChapters, OldPeersGetRowsWithTheirRecordEnd)
{
    WriteDiff({"150,1,web,"});
    WriteCache({"web,"});
    for (const ProtocolVersion version : {VT_PROTOCOL_UNDEFINED, VT_PROTOCOL_CLASSIC, VT_PROTOCOL_TLS}) {
        EXPECT_THAT(PackDelta(nullptr, report_type_classes, version), ElementsAre("CLD", "150,1,web,\r\n"));
    }
    EXPECT_THAT(PackBase(nullptr, report_type_classes, VT_PROTOCOL_TLS), ElementsAre("CLD", "500,1,web,\r\n"));
    EXPECT_THAT(PackBase(nullptr, report_type_classes, VT_PROTOCOL_FILESTREAM), ElementsAre("CLD", "500,1,web,"));
}

TEST_F(StateChapters, ARebaseCarriesTheWholeBaseState)
{
    LogCapture log;
    WriteCache({"web,inventory", "db,"});
    WriteDiff({"150,1,web,inventory"});

    EXPECT_THAT(PackBase(), ElementsAre("CLD", "500,1,web,inventory", "500,1,db,"));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Packing BaseState CLD chapter"),
                                       Pair(LOG_LEVEL_VERBOSE, "Could not read file: '" + IndexPath() + "'")));
}

TEST_F(StateChapters, ARebaseWithoutABaseStateLeavesTheChapterOutAndTheIndexAlone)
{
    LogCapture log;

    EXPECT_THAT(PackBase(), IsEmpty());

    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Missing basestate to pack (Report type: classes)"));
    EXPECT_FALSE(std::filesystem::exists(IndexPath()));
}

TEST_F(StateChapters, ARebaseOfAnEmptyBaseStateWritesNoChapterButRunsTheIndexStep)
{
    LogCapture log;
    WriteCache({});
    WriteFile(IndexPath(), "gone,\"90,2,gone,secret\"\r\n");

    EXPECT_THAT(PackBase(), IsEmpty());

    EXPECT_FALSE(log.Has(LOG_LEVEL_VERBOSE, "Missing basestate to pack (Report type: classes)"));
    EXPECT_EQ(ReadFile(IndexPath()), "");
}

TEST_F(StateChapters, AHiddenClassGoesOutOnceAsUntrackedThenNotAtAllAndComesBackAsAnAddition)
{
    const ReportFilterPtr filter = Excluding({"secret"});
    WriteDiff({"110,1,web,", "120,1,cfg,secret"});

    EXPECT_THAT(PackDelta(filter.get()), ElementsAre("CLD", "110,1,web,", "120,4,cfg,secret"));
    EXPECT_EQ(ReadFile(IndexPath()), "cfg,\"120,1,cfg,secret\"\r\n");
    EXPECT_THAT(PackDelta(filter.get()), ElementsAre("CLD", "110,1,web,"));
    EXPECT_THAT(PackDelta(), ElementsAre("CLD", "110,1,web,", "120,1,cfg,secret"));
    EXPECT_EQ(ReadFile(IndexPath()), "");
}

TEST_F(StateChapters, AHiddenClassOfTheBaseStateIsUntrackedToo)
{
    WriteCache({"web,", "cfg,secret"});

    EXPECT_THAT(PackBase(Excluding({"secret"}).get()), ElementsAre("CLD", "500,1,web,", "500,4,cfg,secret"));

    EXPECT_EQ(ReadFile(IndexPath()), "cfg,\"500,1,cfg,secret\"\r\n");
}

TEST_F(StateChapters, AClassRemovedWhileHiddenNeverReachesTheHub)
{
    const ReportFilterPtr filter = Excluding({"secret"});
    WriteDiff({"110,1,web,", "120,1,cfg,secret"});
    PackDelta(filter.get());

    WriteDiff({"130,1,db,", "140,2,cfg,secret"});
    EXPECT_THAT(PackDelta(filter.get()), ElementsAre("CLD", "130,1,db,"));
    EXPECT_THAT(PackDelta(), ElementsAre("CLD", "130,1,db,"));
    EXPECT_EQ(ReadFile(IndexPath()), "");
}

TEST_F(StateChapters, WithoutAFilterAnOldIndexIsEmptiedAndItsEntriesComeBackAtTheFirstRowsTime)
{
    WriteDiff({"150,1,web,", "120,1,db,"});
    WriteFile(IndexPath(), "cfg,\"90,3,cfg,secret\"\r\nold,\"80,1,old,secret\r\\n\"\r\n");

    EXPECT_THAT(PackDelta(), ElementsAre("CLD", "120,1,db,", "150,1,web,", "150,1,cfg,secret", "150,1,old,secret"));

    EXPECT_EQ(ReadFile(IndexPath()), "");
}

TEST_F(StateChapters, ANewlineInAHiddenRowSurvivesTheIndex)
{
    WriteDiff({"150,1,default,sys,text,0,\"two\nlines\",secret"}, report_type_variables);

    PackDelta(Excluding({"secret"}).get(), report_type_variables);
    EXPECT_EQ(ReadFile(IndexPath(report_type_variables)),
              "default.sys.text,\"150,1,default,sys,text,0,\"\"two\\nlines\"\",secret\"\r\n");
    WriteDiff({"160,1,default,sys,other,0,x,"}, report_type_variables);

    EXPECT_THAT(PackDelta(nullptr, report_type_variables),
                ElementsAre("CLD", "160,1,default,sys,other,0,x,", "160,1,default,sys,text,0,\"two\nlines\",secret"));
}

TEST_F(StateChapters, TagsAreJudgedOneByOneAndHandlesWhole)
{
    WriteDiff({"150,1,web,\"a,secret\""});
    EXPECT_THAT(PackDelta(Excluding({"secret"}).get()), ElementsAre("CLD", "150,4,web,\"a,secret\""));

    WriteDiff({"150,1,default,sys,text,0,x,\"a,secret\""}, report_type_variables);
    EXPECT_THAT(PackDelta(Excluding({"secret"}).get(), report_type_variables),
                ElementsAre("CLD", "150,4,default,sys,text,0,x,\"a,secret\""));

    const std::string row = "150,1,hash,p.vt,,99,default,main,files,/a,/,\"a,secret\",,,7,,";
    WriteDiff({row}, report_type_execution_log);
    EXPECT_THAT(PackDelta(Excluding({"secret"}).get(), report_type_execution_log), ElementsAre("CLD", row));
}

TEST_F(StateChapters, ARowOf4024CharactersIsSentAndALongerOneSkippedWithAWarning)
{
    const auto row_of = [](size_t length) {
        std::string row = "150,1," + std::string(length, 'c');
        row.resize(length - 1);
        return row + ",";
    };
    ASSERT_EQ(row_of(4024).size(), 4024U);
    LogCapture log;
    WriteDiff({row_of(4024)});
    EXPECT_THAT(PackDelta(), ElementsAre("CLD", row_of(4024)));
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());

    WriteDiff({row_of(4025)});
    EXPECT_THAT(PackDelta(), ElementsAre("CLD"));
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING),
                ElementsAre(Pair(LOG_LEVEL_WARNING,
                                 "classes report entry exceeds network limit and will be skipped from reporting to "
                                 "hub (size: 4025)")));
}

TEST_F(StateChapters, TheRecordEndForOldPeersCountsTowardsTheLimit)
{
    LogCapture log;
    WriteCache({std::string(4015, 'c') + ",", "short,"});  // 500,1, and a comma make it 4022, its end 4024

    EXPECT_EQ(PackBase(nullptr, report_type_classes, VT_PROTOCOL_TLS).size(), 3U);
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), ElementsAre(Pair(LOG_LEVEL_WARNING, HasSubstr("Diff history"))));

    WriteCache({std::string(4016, 'c') + ",", "short,"});
    EXPECT_THAT(PackBase(nullptr, report_type_classes, VT_PROTOCOL_TLS), ElementsAre("CLD", "500,1,short,\r\n"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_WARNING,
                        "classes report entry exceeds network limit and will be skipped from reporting to hub (size: "
                        "4025)"));
}

TEST_F(StateChapters, AnIndexThatCannotBeSavedDoesNotKeepTheChapterBack)
{
    LogCapture log;
    std::filesystem::remove_all(work_.State("untracked"));
    WriteDiff({"150,1,web,"});

    EXPECT_THAT(PackDelta(), ElementsAre("CLD", "150,1,web,"));

    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Could not write file: '" + IndexPath() + "'"));
}

TEST_F(StateChapters, AChapterWhoseRowsAreAllWithheldIsLeftOut)
{
    const ReportFilterPtr filter = Excluding({"secret"});
    WriteDiff({"120,1,cfg,secret"});

    EXPECT_THAT(PackDelta(filter.get()), ElementsAre("CLD", "120,4,cfg,secret"));
    EXPECT_THAT(PackDelta(filter.get()), IsEmpty());
}

TEST(AppendReplyLine, TakesALineThatFitsATransactionWithItsZero)
{
    LogCapture log;
    const SeqPtr reply(SeqNew(10, free));

    AppendReplyLine(reply.get(), "file change", TextPtr(xstrdup(std::string(4095, 'x').c_str())));
    AppendReplyLine(reply.get(), "file change", TextPtr(xstrdup(std::string(4096, 'x').c_str())));

    EXPECT_THAT(SeqTexts(reply.get()), ElementsAre(std::string(4095, 'x')));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING,
                                 "file change report entry exceeds network limit and will be skipped from reporting "
                                 "to hub (size: 4096)")));
}

TEST(AppendReplyLine, CountsALineThatCouldNotBeMadeAsZero)
{
    LogCapture log;
    const SeqPtr reply(SeqNew(10, free));

    AppendReplyLine(reply.get(), "lastseen", nullptr);

    EXPECT_EQ(SeqLength(reply.get()), 0U);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING,
                                            "lastseen report entry exceeds network limit and will be skipped from "
                                            "reporting to hub (size: 0)")));
}

}  // namespace
