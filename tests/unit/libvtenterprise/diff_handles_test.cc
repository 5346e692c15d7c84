// The table of record operations: each row bound to the right functions, and every row usable.
#include <string>

#include <gtest/gtest.h>

#include "libvtenterprise/diff_classes.h"
#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/diff_execution_log.h"
#include "libvtenterprise/diff_lastseen.h"
#include "libvtenterprise/diff_software.h"
#include "libvtenterprise/diff_variables.h"
#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"

namespace {

struct Sample {
    ReportType type;
    const char *columns;
    const char *main_key;  // NULL: the type has none
};

constexpr Sample kSamples[] = {
    {report_type_classes, "web,tag\r\n", "web"},
    {report_type_variables, "ns,sys,x,0,v,m\r\n", "ns.sys.x"},
    {report_type_lastseen, "43,SHA=aa,10.0.0.1,2.000000,7\r\n", nullptr},
    {report_type_software, "bash,5.2,x\r\n", nullptr},
    {report_type_software_patch, "bash,5.3,x,0\r\n", nullptr},
    {report_type_execution_log, "hash,p.vt,r,110,ns,b,files,/a,/s,h,[],[],3,fh,m\r\n", "hash"},
};

}  // namespace

TEST(ReportDataHandles, ClassesAreFullyBound)
{
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[report_type_classes];
    EXPECT_EQ(handle.CompareKeys, HubClassCompareKeys);
    EXPECT_EQ(handle.CompareValues, HubClassCompareValues);
    EXPECT_EQ(handle.GetCurrentState, GetCurrentHubClassList);
    EXPECT_EQ(handle.PurgeCurrentState, PurgeCurrentContexts);
    EXPECT_EQ(handle.DataToCSV, HubClassToCSV);
    EXPECT_EQ(handle.DataFromAttributeList, HubClassFromAttributeList);
    EXPECT_EQ(handle.DataGetMainKey, HubClassGetMainKey);
    EXPECT_EQ(handle.DataDelete, HubClassDelete);
    EXPECT_EQ(handle.DataDup, HubClassDup);
}

TEST(ReportDataHandles, VariablesAreBoundToTheSerializedRecord)
{
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[report_type_variables];
    EXPECT_EQ(handle.CompareKeys, HubVariableSerializedCompareKeys);
    EXPECT_EQ(handle.CompareValues, HubVariableSerializedCompareValues);
    EXPECT_EQ(handle.GetCurrentState, GetCurrentHubVariableSerializedList);
    EXPECT_EQ(handle.PurgeCurrentState, PurgeCurrentVariables);
    EXPECT_EQ(handle.DataToCSV, HubVariableSerializedToCSV);
    EXPECT_EQ(handle.DataFromAttributeList, HubVariableSerializedFromAttributeList);
    EXPECT_EQ(handle.DataGetMainKey, HubVariableSerializedGetMainKey);
    EXPECT_EQ(handle.DataDelete, HubVariableSerializedDelete);
    EXPECT_EQ(handle.DataDup, HubVariableSerializedDup);
}

TEST(ReportDataHandles, LastSeenPeersHaveNoMainKey)
{
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[report_type_lastseen];
    EXPECT_EQ(handle.CompareKeys, HubLastSeenCompareKeys);
    EXPECT_EQ(handle.CompareValues, HubLastSeenCompareValues);
    EXPECT_EQ(handle.GetCurrentState, GetCurrentHubLastSeenList);
    EXPECT_EQ(handle.PurgeCurrentState, PurgeCurrentLastSeen);
    EXPECT_EQ(handle.DataToCSV, HubLastSeenToCSV);
    EXPECT_EQ(handle.DataFromAttributeList, HubLastSeenFromAttributeList);
    EXPECT_EQ(handle.DataGetMainKey, nullptr);
    EXPECT_EQ(handle.DataDelete, HubLastSeenDelete);
    EXPECT_EQ(handle.DataDup, HubLastSeenDup);
}

TEST(ReportDataHandles, PackagesAndPatchesShareTheirRecordAndNeverChange)
{
    const ReportDataHandle &software = REPORT_DATA_HANDLES[report_type_software];
    const ReportDataHandle &patch = REPORT_DATA_HANDLES[report_type_software_patch];
    for (const ReportDataHandle *handle : {&software, &patch}) {
        EXPECT_EQ(handle->CompareKeys, HubSoftwareCompareKeys);
        EXPECT_EQ(handle->CompareValues, nullptr);
        EXPECT_EQ(handle->PurgeCurrentState, nullptr);
        EXPECT_EQ(handle->DataGetMainKey, nullptr);
        EXPECT_EQ(handle->DataDelete, HubSoftwareDelete);
        EXPECT_EQ(handle->DataDup, HubSoftwareDup);
    }
    EXPECT_EQ(software.GetCurrentState, GetCurrentHubSoftwareList);
    EXPECT_EQ(patch.GetCurrentState, GetCurrentHubSoftwarePatchList);
    EXPECT_EQ(software.DataToCSV, HubSoftwareToCSV);
    EXPECT_EQ(software.DataFromAttributeList, HubSoftwareFromAttributeList);
    EXPECT_EQ(patch.DataToCSV, HubSoftwarePatchToCSV);
    EXPECT_EQ(patch.DataFromAttributeList, HubSoftwarePatchFromAttributeList);
}

TEST(ReportDataHandles, PromiseExecutionsAreBound)
{
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[report_type_execution_log];
    EXPECT_EQ(handle.CompareKeys, HubPromiseExecutionCompareKeys);
    EXPECT_EQ(handle.CompareValues, HubPromiseExecutionCompareValues);
    EXPECT_EQ(handle.GetCurrentState, GetCurrentHubPromiseExecutionList);
    EXPECT_EQ(handle.PurgeCurrentState, PurgeCurrentPromiseExecutions);
    EXPECT_EQ(handle.DataToCSV, HubPromiseExecutionToCSV);
    EXPECT_EQ(handle.DataFromAttributeList, HubPromiseExecutionFromAttributeList);
    EXPECT_EQ(handle.DataGetMainKey, HubPromiseExecutionGetMainKey);
    EXPECT_EQ(handle.DataDelete, HubPromiseExecutionDelete);
    EXPECT_EQ(handle.DataDup, HubPromiseExecutionDup);
}

TEST(ReportDataHandles, TheLastRowIsEmpty)
{
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[report_type_max];
    EXPECT_EQ(handle.CompareKeys, nullptr);
    EXPECT_EQ(handle.CompareValues, nullptr);
    EXPECT_EQ(handle.GetCurrentState, nullptr);
    EXPECT_EQ(handle.PurgeCurrentState, nullptr);
    EXPECT_EQ(handle.DataToCSV, nullptr);
    EXPECT_EQ(handle.DataFromAttributeList, nullptr);
    EXPECT_EQ(handle.DataGetMainKey, nullptr);
    EXPECT_EQ(handle.DataDelete, nullptr);
    EXPECT_EQ(handle.DataDup, nullptr);
}

TEST(ReportDataHandles, EveryRecordIsReadCopiedComparedWrittenAndEndedThroughTheTable)
{
    for (const Sample &sample : kSamples) {
        SCOPED_TRACE(ReportTypeToString(sample.type));
        const ReportDataHandle &handle = REPORT_DATA_HANDLES[sample.type];
        const veltrane::SeqPtr fields(SeqParseCsvString(sample.columns));
        void *record = handle.DataFromAttributeList(fields.get());
        ASSERT_NE(record, nullptr);
        void *copy = handle.DataDup(record);
        EXPECT_NE(copy, record);
        EXPECT_EQ(handle.CompareKeys(record, copy, nullptr), 0);
        if (handle.CompareValues != nullptr) {
            EXPECT_TRUE(handle.CompareValues(record, copy));
        }
        handle.DataDelete(record);
        EXPECT_EQ(CsvOf<void>(handle.DataToCSV, copy), sample.columns);
        if (sample.main_key != nullptr) {
            EXPECT_EQ(Taken(handle.DataGetMainKey(copy)), sample.main_key);
        }
        handle.DataDelete(copy);
        handle.DataDelete(nullptr);
    }
}
