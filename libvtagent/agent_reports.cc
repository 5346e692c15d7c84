// Tracking of policy runs, and the state reports at their end.
//
// Only runs of the main policy are tracked and reported. A run that updates policy, or that stands in after a failure,
// leaves its classes and variables for the main run that follows. While another agent runs, no state reports are made:
// what it is changing at the moment would be reported as this run's.
#include "libvtagent/agent_reports.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include <sluice/sluice.h>
#include <veltrane/alloc.h>
#include <veltrane/csv.h>
#include <veltrane/dbm_api.h>
#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/generic_agent.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/measure.h>
#include <veltrane/owned.h>
#include <veltrane/packages.h>
#include <veltrane/string_lib.h>

#include "libvtagent/processes.h"
#include "libvtenterprise/diff_classes.h"
#include "libvtenterprise/diff_engine.h"
#include "libvtenterprise/diff_variables.h"
#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/reports_context.h"

using veltrane::CsvWriterPtr;
using veltrane::DBHandlePtr;
using veltrane::FilePtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;

namespace {

constexpr double kAssumedInterval = 300.0;  // seconds: a fresh host starts with five minutes, not with none
constexpr double kWeightOfNew = 0.7;
constexpr const char *kClassLogName = "classes.jsonl";  // in the state directory

struct Execution {
    time_t last;
    double average;
};

bool Contains(const char *text, const char *part) { return strstr(text, part) != nullptr; }

// What the database says of the runs before this one at `now`, and with it the seconds since the last one.
Execution ReadExecution(DBHandle *db, time_t now, double *ret_delta)
{
    Execution execution = {0, 0.0};
    const bool has_last = ReadDB(db, kLastExecutionKey, &execution.last, sizeof(execution.last));
    if (!has_last) {
        execution.last = now;
    }
    *ret_delta = static_cast<double>(now - execution.last);
    if (ReadDB(db, kAverageIntervalKey, &execution.average, sizeof(execution.average))) {
        return execution;
    }
    if (!has_last) {  // the first run ever
        execution.last = now - static_cast<time_t>(kAssumedInterval);
        *ret_delta = kAssumedInterval;
    }
    execution.average = *ret_delta;
    return execution;
}

void WriteValue(DBHandle *db, const char *key, const void *value, int size)
{
    if (!WriteDB(db, key, value, size)) {
        Log(LOG_LEVEL_INFO, "Unable to write to vesk_agent_execution db");
    }
}

void LogClasses(const EvalContext *ctx, time_t now)
{
    Log(LOG_LEVEL_VERBOSE, "Logging classes to '%s': enabled.", kClassLogName);
    if (!LogContexts(ctx, now, kClassLogName)) {
        Log(LOG_LEVEL_ERR, "Failed while logging classes '%s'", kClassLogName);
    }
}

FilePtr OpenPatchFile(const char *path)
{
    FilePtr file(safe_fopen(path, "w"));
    if (file == nullptr) {
        Log(LOG_LEVEL_ERR, "Cannot open the destination file '%s'. (fopen: %s)", path, GetErrorStr());
    }
    return file;
}

// The last name of the command that a package manager's line runs.
TextPtr ManagerName(const char *command_line)
{
    const TextPtr command(RealPackageManager(command_line));
    return TextPtr(xstrdup(ReadLastNode(command.get())));
}

// One record an item of the list that each manager has under `patches`.
void WritePatches(const PackageManager *managers, PackageItem *PackageManager::*patches, CsvWriter *c)
{
    for (const PackageManager *manager = managers; manager != nullptr; manager = manager->next) {
        if (manager->*patches == nullptr) {
            continue;
        }
        const TextPtr name = ManagerName(manager->manager);
        for (const PackageItem *item = manager->*patches; item != nullptr; item = item->next) {
            CsvWriterField(c, item->name);
            CsvWriterField(c, item->version);
            CsvWriterField(c, item->arch);
            CsvWriterField(c, name.get());
            CsvWriterNewRecord(c);
        }
    }
}

// False when the file could not be opened. Patches that cannot be written are logged, and the other file goes on.
bool ReplacePatchFile(const char *path, const PackageManager *managers, PackageItem *PackageManager::*patches)
{
    FilePtr file = OpenPatchFile(path);
    if (file == nullptr) {
        return false;
    }
    WriterPtr writer(FileWriter(file.release()));
    CsvWriterPtr csv(CsvWriterOpen(writer.get()));
    if (csv != nullptr) {
        WritePatches(managers, patches, csv.get());
    }
    const bool opened = csv != nullptr;
    csv.reset();
    if (!WriterClose(writer.release()) || !opened) {
        Log(LOG_LEVEL_ERR, "Cannot write CSV to file '%s'", path);
    }
    return true;
}

}  // namespace

void Vesk_TrackExecution__real(const char *input_file) noexcept
{
    const time_t now = time(nullptr);
    if (Contains(input_file, "failsafe.vt") || Contains(input_file, "update.vt")) {
        Log(LOG_LEVEL_DEBUG, "TrackExecution: policy file '%s' skipped", input_file);
        return;
    }
    DBHandle *opened = nullptr;
    if (!OpenDB(&opened, dbid_agent_execution)) {
        Log(LOG_LEVEL_INFO, "Unable to open vesk_agent_execution db");
        return;
    }
    DBHandlePtr db(opened);
    double delta;
    const Execution execution = ReadExecution(db.get(), now, &delta);
    const double average = GAverage(delta, execution.average, kWeightOfNew);
    WriteValue(db.get(), kLastExecutionKey, &now, sizeof(now));
    WriteValue(db.get(), kAverageIntervalKey, &average, sizeof(average));
    db.reset();
    Log(LOG_LEVEL_DEBUG, "TrackExecution: policy file '%s', last_exec %jd, avr %g PASSED", input_file,
        static_cast<intmax_t>(execution.last), average);
}

void GenerateReports__real(const GenericAgentConfig *config, const EvalContext *ctx) noexcept
{
    Log(LOG_LEVEL_DEBUG, "Current sluice version '%s'", SLC_Version());
    const time_t now = time(nullptr);
    if (config->agent_specific.report_class_log) {
        LogClasses(ctx, now);
    }
    const char *input_file = config->input_file;
    if (config->agent_specific.bootstrap_argument == nullptr && !Contains(input_file, "promises.vt")) {
        if (Contains(input_file, "update.vt") || Contains(input_file, "failsafe.vt")) {
            StoreContexts(ctx);
            StoreVariables(ctx);
            Log(LOG_LEVEL_VERBOSE, "Cache context and variable information for reporting.");
        }
        Log(LOG_LEVEL_VERBOSE, "Generate diff state reports for policy '%s' SKIPPED", input_file);
        return;
    }
    if (AreParallelAgentsExecuting()) {
        Log(LOG_LEVEL_VERBOSE,
            "Generate diff state reports for policy '%s' SKIPPED (detected parallel vt-agent process running)",
            input_file);
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "Generate diff state reports");
    for (int type = report_type_classes; type < report_type_max; type++) {
        (void)DiffReportGenerate(static_cast<ReportType>(type), now, ctx);  // it has logged; the others go on
    }
}

void ReportPatches__real(PackageManager *list) noexcept
{
    char path[4096];
    (void)snprintf(path, sizeof(path), "%s/software_patch_status.csv", GetStateDir());
    if (!ReplacePatchFile(MapName(path), list, &PackageManager::patch_list)) {
        return;
    }
    (void)snprintf(path, sizeof(path), "%s/software_patches_avail.csv", GetStateDir());
    (void)ReplacePatchFile(path, list, &PackageManager::patch_avail);  // it has logged
}

void Vesk_NoteAgentExecutionPerformance__real(const char *input_file, struct timespec start) noexcept
{
    const WriterPtr name(StringWriter());
    (void)WriterWriteF(name.get(), "Veltrane Execution (policy filename: '%s')", input_file);
    EndMeasure(StringWriterData(name.get()), start);
}
