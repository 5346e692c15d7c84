// The table that ties each report type to its records: the one place that knows all of them.
//
// The operations have exactly the slots' signatures, so each slot holds the exported function itself. A report whose
// present state cannot be gathered yet has no GetCurrentState: it reads as a state that cannot be accessed.
#include "libvtenterprise/diff_classes.h"
#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/enterprise_install.h"

const ReportDataHandle REPORT_DATA_HANDLES[report_type_max + 1] = {
    {
        // report_type_classes
        .CompareKeys = HubClassCompareKeys,
        .CompareValues = HubClassCompareValues,
        .GetCurrentState = GetCurrentHubClassList,
        .PurgeCurrentState = PurgeCurrentContexts,
        .DataToCSV = HubClassToCSV,
        .DataFromAttributeList = HubClassFromAttributeList,
        .DataGetMainKey = HubClassGetMainKey,
        .DataDelete = HubClassDelete,
        .DataDup = HubClassDup,
    },
    {
        // report_type_variables
        .CompareKeys = HubVariableSerializedCompareKeys,
        .CompareValues = HubVariableSerializedCompareValues,
        .GetCurrentState = nullptr,
        .PurgeCurrentState = nullptr,
        .DataToCSV = HubVariableSerializedToCSV,
        .DataFromAttributeList = HubVariableSerializedFromAttributeList,
        .DataGetMainKey = HubVariableSerializedGetMainKey,
        .DataDelete = HubVariableSerializedDelete,
        .DataDup = HubVariableSerializedDup,
    },
    {
        // report_type_lastseen
        .CompareKeys = HubLastSeenCompareKeys,
        .CompareValues = HubLastSeenCompareValues,
        .GetCurrentState = nullptr,
        .PurgeCurrentState = nullptr,
        .DataToCSV = HubLastSeenToCSV,
        .DataFromAttributeList = HubLastSeenFromAttributeList,
        .DataGetMainKey = nullptr,
        .DataDelete = HubLastSeenDelete,
        .DataDup = HubLastSeenDup,
    },
    {
        // report_type_software: a package never changes
        .CompareKeys = HubSoftwareCompareKeys,
        .CompareValues = nullptr,
        .GetCurrentState = nullptr,
        .PurgeCurrentState = nullptr,
        .DataToCSV = HubSoftwareToCSV,
        .DataFromAttributeList = HubSoftwareFromAttributeList,
        .DataGetMainKey = nullptr,
        .DataDelete = HubSoftwareDelete,
        .DataDup = HubSoftwareDup,
    },
    {
        // report_type_software_patch: the record of a package, with columns of its own
        .CompareKeys = HubSoftwareCompareKeys,
        .CompareValues = nullptr,
        .GetCurrentState = nullptr,
        .PurgeCurrentState = nullptr,
        .DataToCSV = HubSoftwarePatchToCSV,
        .DataFromAttributeList = HubSoftwarePatchFromAttributeList,
        .DataGetMainKey = nullptr,
        .DataDelete = HubSoftwareDelete,
        .DataDup = HubSoftwareDup,
    },
    {
        // report_type_execution_log
        .CompareKeys = HubPromiseExecutionCompareKeys,
        .CompareValues = HubPromiseExecutionCompareValues,
        .GetCurrentState = nullptr,
        .PurgeCurrentState = nullptr,
        .DataToCSV = HubPromiseExecutionToCSV,
        .DataFromAttributeList = HubPromiseExecutionFromAttributeList,
        .DataGetMainKey = HubPromiseExecutionGetMainKey,
        .DataDelete = HubPromiseExecutionDelete,
        .DataDup = HubPromiseExecutionDup,
    },
    {},  // report_type_max
};
