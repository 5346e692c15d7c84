// The table that ties each report type to its records: the one place that knows all of them.
//
// The operations have exactly the slots' signatures, so each slot holds the exported function itself.
#include "libvtenterprise/diff_classes.h"
#include "libvtenterprise/diff_common.h"
#include "libvtenterprise/diff_execution_log.h"
#include "libvtenterprise/diff_lastseen.h"
#include "libvtenterprise/diff_software.h"
#include "libvtenterprise/diff_variables.h"
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
        .GetCurrentState = GetCurrentHubVariableSerializedList,
        .PurgeCurrentState = PurgeCurrentVariables,
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
        .GetCurrentState = GetCurrentHubLastSeenList,
        .PurgeCurrentState = PurgeCurrentLastSeen,
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
        .GetCurrentState = GetCurrentHubSoftwareList,
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
        .GetCurrentState = GetCurrentHubSoftwarePatchList,
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
        .GetCurrentState = GetCurrentHubPromiseExecutionList,
        .PurgeCurrentState = PurgeCurrentPromiseExecutions,
        .DataToCSV = HubPromiseExecutionToCSV,
        .DataFromAttributeList = HubPromiseExecutionFromAttributeList,
        .DataGetMainKey = HubPromiseExecutionGetMainKey,
        .DataDelete = HubPromiseExecutionDelete,
        .DataDup = HubPromiseExecutionDup,
    },
    {},  // report_type_max
};
