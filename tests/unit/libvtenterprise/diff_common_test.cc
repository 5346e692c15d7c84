// Rows of difference files: parsing, writing, naming and ordering.
#include "libvtenterprise/diff_common.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/log_capture.h"
#include "support/record_text.h"
#include "support/texts.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

using InfoPtr = std::unique_ptr<DiffInfo, veltrane::Destroyer<DiffInfoDelete>>;
using RowPtr = std::unique_ptr<DiffRow, veltrane::Destroyer<DiffRowDelete>>;

// A row of a record that it takes over.
RowPtr Row(time_t time, DiffType type, void *data, DataDeleteFn DataDelete)
{
    return RowPtr(DiffRowNew(DiffInfoNew(time, type), report_type_max, data, DataDelete));
}

RowPtr ClassRow(time_t time, DiffType type, const char *context, const char *meta_serialized)
{
    return Row(time, type, HubClassNew(nullptr, context, 0, meta_serialized), HubClassDelete);
}

InfoPtr Info(const std::vector<std::string> &fields)
{
    return InfoPtr(DiffInfoFromAttributeList(Fields(fields).get()));
}

RowPtr Parsed(const char *text, ReportType type = report_type_classes) { return RowPtr(DiffRowFromCSV(text, type)); }

const HubClass *ClassOf(const RowPtr &row) { return static_cast<const HubClass *>(row->data); }

// A kind of record that counts what is asked of it and rejects every list of columns.
int records_deleted = 0;
std::vector<std::string> columns_seen;

void CountDelete(void *data)
{
    records_deleted++;
    free(data);
}

void *RejectColumns(Seq *attr)
{
    columns_seen = SeqTexts(attr);
    return nullptr;
}

void *AcceptColumns(Seq *attr)
{
    (void)RejectColumns(attr);
    return xstrdup("record");
}

}  // namespace

TEST(DiffType, HasItsTexts)
{
    EXPECT_STREQ(DiffTypeToString(diff_unknown), "UNKNOWN");
    EXPECT_STREQ(DiffTypeToString(diff_add), "ADD");
    EXPECT_STREQ(DiffTypeToString(diff_remove), "REMOVE");
    EXPECT_STREQ(DiffTypeToString(diff_change), "CHANGE");
    EXPECT_STREQ(DiffTypeToString(diff_untracked), "UNTRACKED");
    EXPECT_STREQ(DiffTypeToString(static_cast<DiffType>(5)), "UNKNOWN");
    EXPECT_STREQ(DiffTypeToString(static_cast<DiffType>(-1)), "UNKNOWN");
}

TEST(DiffInfo, IsTwoColumns)
{
    const InfoPtr info(DiffInfoNew(1513275477, diff_change));
    EXPECT_EQ(info->time, 1513275477);
    EXPECT_EQ(info->type, diff_change);
    EXPECT_EQ(CsvOf<const DiffInfo>(DiffInfoToCSV, info.get()), "1513275477,3\r\n");
    const InfoPtr before_the_epoch(DiffInfoNew(-1, diff_add));
    EXPECT_EQ(CsvOf<const DiffInfo>(DiffInfoToCSV, before_the_epoch.get()), "-1,1\r\n");
}

TEST(DiffInfo, NoneIsDeletedInPeace) { DiffInfoDelete(nullptr); }

TEST(DiffInfo, EveryKindOfFilesIsRead)
{
    LogCapture log;
    for (int type = 1; type <= 4; type++) {
        const InfoPtr info = Info({"1513275477", std::to_string(type)});
        ASSERT_NE(info, nullptr) << type;
        EXPECT_EQ(info->time, 1513275477);
        EXPECT_EQ(info->type, type);
    }
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(DiffInfo, MalformedColumnsAreRefusedWithoutALine)
{
    LogCapture log;
    const std::vector<std::vector<std::string>> malformed = {
        {"1", "0"}, {"1", "5"},          {"1", "-1"}, {"-1", "1"}, {"12a", "1"},   {"", "1"},
        {"1", ""},  {"1", "4294967297"}, {"1"},       {},          {"1", "1", "1"}};
    for (const std::vector<std::string> &fields : malformed) {
        EXPECT_EQ(Info(fields), nullptr) << testing::PrintToString(fields);
    }
    EXPECT_EQ(DiffInfoFromAttributeList(nullptr), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(DiffInfo, AnEmptySlotIsRefusedWithoutALine)
{
    LogCapture log;
    const veltrane::SeqPtr no_time(SeqNew(2, free));
    SeqAppend(no_time.get(), nullptr);
    SeqAppend(no_time.get(), xstrdup("1"));
    const veltrane::SeqPtr no_type(SeqNew(2, free));
    SeqAppend(no_type.get(), xstrdup("1"));
    SeqAppend(no_type.get(), nullptr);
    EXPECT_EQ(DiffInfoFromAttributeList(no_time.get()), nullptr);
    EXPECT_EQ(DiffInfoFromAttributeList(no_type.get()), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(DiffInfo, ANumberThatIsTooLargeIsADebugLine)
{
    LogCapture log;
    EXPECT_EQ(Info({"99999999999999999999", "2"}), nullptr);
    EXPECT_EQ(Info({"7", "99999999999999999999"}), nullptr);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_DEBUG, "Conversion error: '2'->2 '99999999999999999999'->0"),
                                       Pair(LOG_LEVEL_DEBUG, "Conversion error: '99999999999999999999'->0 '7'->7")));
}

TEST(DiffRow, ItOwnsItsInfoAndItsRecord)
{
    records_deleted = 0;
    RowPtr row = Row(1, diff_add, xstrdup("record"), CountDelete);
    EXPECT_EQ(row->type, report_type_max);
    row.reset();
    EXPECT_EQ(records_deleted, 1);
}

TEST(DiffRow, WhatIsAbsentIsNotDeleted)
{
    records_deleted = 0;
    DiffRowDelete(nullptr);
    DiffRowDelete(DiffRowNew(nullptr, report_type_classes, nullptr, CountDelete));
    EXPECT_EQ(records_deleted, 0);
}

TEST(DiffRow, ARowIsMadeFromItsTwoColumnsAndTheRecordsColumns)
{
    records_deleted = 0;
    const veltrane::SeqPtr fields = Fields({"10", "4", "a", "", "b"});
    RowPtr row(DiffRowFromAttrListWithSpecifier(fields.get(), AcceptColumns, CountDelete));
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->info->time, 10);
    EXPECT_EQ(row->info->type, diff_untracked);
    EXPECT_EQ(row->type, report_type_max);
    EXPECT_STREQ(static_cast<const char *>(row->data), "record");
    EXPECT_THAT(columns_seen, ElementsAre("a", "", "b"));
    EXPECT_STREQ(static_cast<const char *>(SeqAt(fields.get(), 4)), "b");
    row.reset();
    EXPECT_EQ(records_deleted, 1);
}

TEST(DiffRow, TwoColumnsAreNoRow)
{
    LogCapture log;
    records_deleted = 0;
    EXPECT_EQ(DiffRowFromAttrListWithSpecifier(Fields({"10", "1"}).get(), AcceptColumns, CountDelete), nullptr);
    EXPECT_EQ(DiffRowFromAttrListWithSpecifier(Fields({}).get(), AcceptColumns, CountDelete), nullptr);
    EXPECT_EQ(records_deleted, 0);
    EXPECT_EQ(Parsed("10,1"), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(DiffRow, ARejectedRecordIsNoRowAndDeletesNothingTwice)
{
    records_deleted = 0;
    EXPECT_EQ(DiffRowFromAttrListWithSpecifier(Fields({"10", "1", "a"}).get(), RejectColumns, CountDelete), nullptr);
    EXPECT_EQ(records_deleted, 1);  // the operation is also asked to end the record that there is not
}

TEST(DiffRow, ARecordWithoutItsInfoIsDeleted)
{
    records_deleted = 0;
    EXPECT_EQ(DiffRowFromAttrListWithSpecifier(Fields({"10", "9", "a"}).get(), AcceptColumns, CountDelete), nullptr);
    EXPECT_EQ(records_deleted, 1);
}

TEST(DiffRow, AClassRowReadsBackAsItWasWritten)
{
    const RowPtr written = ClassRow(1513275477, diff_change, "ns:web", "inventory,source=agent");
    const veltrane::TextPtr csv(DiffRowToCSV(written.get(), report_type_classes, true));
    EXPECT_STREQ(csv.get(), "1513275477,3,ns:web,\"inventory,source=agent\"\r\n");

    const RowPtr row = Parsed(csv.get());
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->info->time, 1513275477);
    EXPECT_EQ(row->info->type, diff_change);
    EXPECT_EQ(row->type, report_type_max);
    EXPECT_STREQ(ClassOf(row)->context, "ns:web");
    EXPECT_STREQ(ClassOf(row)->meta_serialized, "inventory,source=agent");
}

TEST(DiffRow, AnEmptyTagColumnReadsAsAbsent)
{
    const RowPtr row = Parsed("1,1,web,");
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(ClassOf(row)->meta_serialized, nullptr);
}

TEST(DiffRow, TheRecordEndIsWrittenOnlyWhenAskedFor)
{
    const RowPtr row = ClassRow(1, diff_add, "web", nullptr);
    EXPECT_EQ(Taken(DiffRowToCSV(row.get(), report_type_classes, true)), "1,1,web,\r\n");
    EXPECT_EQ(Taken(DiffRowToCSV(row.get(), report_type_classes, false)), "1,1,web,");
}

TEST(DiffRow, TheArgumentChoosesTheColumnsNotTheRow)
{
    const RowPtr row = Row(1, diff_remove, HubSoftwareNew(nullptr, "bash", "5.2", "x", 0), HubSoftwareDelete);
    row->type = report_type_software;
    EXPECT_EQ(Taken(DiffRowToCSV(row.get(), report_type_software, false)), "1,2,bash,5.2,x");
    EXPECT_EQ(Taken(DiffRowToCSV(row.get(), report_type_software_patch, false)), "1,2,bash,5.2,x,0");
}

TEST(DiffRow, EveryReportTypeReadsItsOwnRowsBack)
{
    const char *const rows[] = {
        "1,1,web,tag\r\n",
        "1,2,ns,sys,x,3,\"{\"\"a\"\"}\",\r\n",
        "1,3,45,SHA=aa,10.0.0.1,0.500000,7\r\n",
        "1,4,bash,5.2,x\r\n",
        "1,1,bash,5.3,x,0\r\n",
        "1,1,hash,p.vt,,99,,b,files,/a,/s,,,,12,fh,m\r\n",
    };
    for (int type = 0; type < report_type_max; type++) {
        const RowPtr row = Parsed(rows[type], static_cast<ReportType>(type));
        ASSERT_NE(row, nullptr) << rows[type];
        EXPECT_EQ(Taken(DiffRowToCSV(row.get(), static_cast<ReportType>(type), true)), rows[type]);
    }
}

TEST(DiffRow, MalformedRowsAreRefusedWithoutALine)
{
    LogCapture log;
    for (const char *text :
         {"1,0,web,", "1,5,web,", "1,-1,web,", "1x,1,web,", "1,1,web", "1,1,web,tag,more", "", "1"}) {
        EXPECT_EQ(Parsed(text), nullptr) << text;
    }
    EXPECT_EQ(Parsed(nullptr), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(DiffRow, WhatDoesNotSplitIsAnError)
{
    LogCapture log;
    EXPECT_EQ(Parsed("1,1,\"web"), nullptr);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Failed to parse CSV entry: '1,1,\"web'")));
}

TEST(DiffRow, AnExecutionOfTwelveColumnsHasNoLineHashOrTags)
{
    const RowPtr row = Parsed("1,1,h,p,r,99,n,b,t,w,s,i,[],[]", report_type_execution_log);
    ASSERT_NE(row, nullptr);
    const auto *e = static_cast<const HubPromiseExecution *>(row->data);
    EXPECT_EQ(e->line_number, 0u);
    EXPECT_EQ(e->policy_file_hash, nullptr);
    EXPECT_EQ(e->meta_serialized, nullptr);
}

TEST(DiffRow, AnExecutionOfSixteenColumnsHasNoTags)
{
    const RowPtr row = Parsed("1,1,h,p,r,99,n,b,t,w,s,i,[],[],7,fh,m,more", report_type_execution_log);
    ASSERT_NE(row, nullptr);
    const auto *e = static_cast<const HubPromiseExecution *>(row->data);
    EXPECT_EQ(e->line_number, 7u);
    EXPECT_STREQ(e->policy_file_hash, "fh");
    EXPECT_EQ(e->meta_serialized, nullptr);
}

TEST(DiffRow, AVariableOfAnImpossibleTypeIsNoRow)
{
    LogCapture log;
    EXPECT_EQ(Parsed("1,1,ns,sys,x,16,v,m", report_type_variables), nullptr);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Received variable with invalid type in reporting data")));
}

TEST(DiffRow, ItsMainKeyIsThatOfItsRecord)
{
    LogCapture log;
    const RowPtr row = ClassRow(1, diff_add, "ns:web", nullptr);
    EXPECT_EQ(Taken(DiffRowGetMainKey(row.get(), report_type_classes)), "ns:web");
    const RowPtr variable = Parsed("1,1,,sys,x,0,v,", report_type_variables);
    EXPECT_EQ(Taken(DiffRowGetMainKey(variable.get(), report_type_variables)), "sys.x");
    const RowPtr execution = Parsed("1,1,hash,p,r,99,n,b,t,w,s,i,[],[]", report_type_execution_log);
    EXPECT_EQ(Taken(DiffRowGetMainKey(execution.get(), report_type_execution_log)), "hash");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(DiffRow, TypesWithoutMainKeysGiveNoneWithoutALine)
{
    LogCapture log;
    const RowPtr row = Row(1, diff_remove, HubSoftwareNew(nullptr, "bash", "5.2", "x", 0), HubSoftwareDelete);
    for (const int type : {2, 3, 4, 6, 7, 1000, -1}) {
        EXPECT_EQ(DiffRowGetMainKey(row.get(), static_cast<ReportType>(type)), nullptr) << type;
    }
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(DiffRow, ARecordThatGivesNoMainKeyIsAWarningWithItsRow)
{
    LogCapture log;
    const RowPtr row = ClassRow(17, diff_add, nullptr, "tag");
    EXPECT_EQ(DiffRowGetMainKey(row.get(), report_type_classes), nullptr);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING,
                                            "Failed to get main key for classes report entry (csv:'17,1,,tag')")));
}

TEST(DiffRow, ARowWithoutARecordCannotEvenBeShown)
{
    LogCapture log;
    const RowPtr row = Row(17, diff_add, nullptr, HubClassDelete);
    EXPECT_EQ(DiffRowToCSV(row.get(), report_type_classes, true), nullptr);
    EXPECT_EQ(DiffRowGetMainKey(row.get(), report_type_classes), nullptr);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING,
                                 "Failed to get main key for classes report entry (csv:'<failed to serialize>')")));
}

TEST(DiffRow, RowsAreOrderedByTime)
{
    const RowPtr early = ClassRow(1, diff_add, "z", nullptr);
    const RowPtr late = ClassRow(4294967298, diff_add, "a", nullptr);
    EXPECT_EQ(DiffRowCompareTs(early.get(), late.get(), nullptr), -1);
    EXPECT_EQ(DiffRowCompareTs(late.get(), early.get(), nullptr), 1);
    EXPECT_EQ(DiffRowCompareTs(late.get(), late.get(), nullptr), 0);
}

TEST(DiffRow, ALoneEmptySlotIsLessOnEitherSide)
{
    const RowPtr row = ClassRow(1, diff_add, "z", nullptr);
    EXPECT_EQ(DiffRowCompareTs(nullptr, row.get(), nullptr), -1);
    EXPECT_EQ(DiffRowCompareTs(row.get(), nullptr, nullptr), -1);
    EXPECT_EQ(DiffRowCompareTs(nullptr, nullptr, nullptr), 0);
}

TEST(DiffRow, ASequenceOfRowsEndsItsRows)
{
    records_deleted = 0;
    {
        const veltrane::SeqPtr rows(SeqNew(3, DiffRowDelete));
        SeqAppend(rows.get(), Row(2, diff_add, xstrdup("b"), CountDelete).release());
        SeqAppend(rows.get(), nullptr);
        SeqAppend(rows.get(), Row(1, diff_add, xstrdup("a"), CountDelete).release());
        SeqSort(rows.get(), DiffRowCompareTs, nullptr);
        EXPECT_EQ(SeqLength(rows.get()), 3u);
    }
    EXPECT_EQ(records_deleted, 2);
}
