// The difference history of a report type: reading a window of it, ending it with a base state, ageing it.
//
// Ageing enters the critical section twice, once to read and once to write; what an agent appends in between is lost,
// which is accepted.
#include <unistd.h>

#include <cerrno>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libvtenterprise/critical_guard.h"
#include "libvtenterprise/diff_engine.h"
#include "libvtenterprise/diff_files.h"
#include "libvtenterprise/state_files.h"

using veltrane::FilePtr;
using veltrane::SeqPtr;

namespace {

constexpr size_t kFirstRoom = 100;

void RemoveHistory(const char *path)
{
    const CriticalGuard guard(kDiffSection);
    if (unlink(path) == 0) {
        return;
    }
    if (errno == ENOENT) {
        Log(LOG_LEVEL_WARNING, "Diff history cleanup. File '%s' not found.", path);
    } else {
        Log(LOG_LEVEL_ERR, "Failed to remove file '%s' during diff history cleanup (unlink: %s)", path, GetErrorStr());
    }
}

bool ReplaceRows(const char *path, const Seq *rows, DataToCSVFn DataToCSV)
{
    ReplacementFile file(path);
    if (file.writer() == nullptr) {
        return false;
    }
    WriteRows(file.writer(), rows, DataToCSV);
    return file.Commit();
}

}  // namespace

Seq *DiffReportGetWithSpecifier(time_t from, time_t to, const char *path, DataFromAttributeListFn DataFromAttributeList,
                                DataDeleteFn DataDelete) noexcept
{
    SeqPtr rows(SeqNew(kFirstRoom, DiffRowDelete));
    const auto keep = [&](const char *record, Seq *fields) {
        DiffRow *row = DiffRowFromAttrListWithSpecifier(fields, DataFromAttributeList, DataDelete);
        if (row == nullptr) {
            Log(LOG_LEVEL_WARNING, "Failed to parse csv file entry ('%s'): '%s'", path, record);
        } else if (row->info->time >= from && (to == -1 || row->info->time < to)) {
            SeqAppend(rows.get(), row);
        } else {
            DiffRowDelete(row);
        }
    };
    const CriticalGuard guard(kDiffSection);
    const FilePtr file(safe_fopen(path, "r"));
    if (file == nullptr || !ForEachCsvRecord(file.get(), path, keep)) {
        Log(LOG_LEVEL_VERBOSE, "Could not read diff: '%s'", path);
        return nullptr;
    }
    return rows.release();
}

Seq *DiffReportGet(ReportType type, time_t from, time_t to) noexcept
{
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[type];
    return DiffReportGetWithSpecifier(from, to, DiffFilePath(type).c_str(), handle.DataFromAttributeList,
                                      handle.DataDelete);
}

bool DiffReportVisitBaseState(ReportType type, const std::function<void(void *record)> &take)
{
    if (!ForEachCachedRecord(StateCachePath(type).c_str(), REPORT_DATA_HANDLES[type].DataFromAttributeList, take)) {
        Log(LOG_LEVEL_VERBOSE, "Failed to access current state for report: '%s'", ReportTypeToString(type));
        return false;
    }
    RemoveHistory(DiffFilePath(type).c_str());
    return true;
}

Seq *DiffReportGetBaseState(ReportType type, time_t rebase_time) noexcept
{
    SeqPtr rows(SeqNew(kFirstRoom, DiffRowDelete));
    const auto append = [&](void *record) {
        DiffInfo *info = DiffInfoNew(rebase_time, diff_add);
        SeqAppend(rows.get(), DiffRowNew(info, type, record, REPORT_DATA_HANDLES[type].DataDelete));
    };
    return DiffReportVisitBaseState(type, append) ? rows.release() : nullptr;
}

void DiffReportRemoveOldEntries(ReportType type, time_t agent_time) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "Remove old diff data for %s report (remove older than %ld)", ReportTypeToString(type),
        static_cast<long>(agent_time));
    const ReportDataHandle &handle = REPORT_DATA_HANDLES[type];
    const StatePath path = DiffFilePath(type);
    const SeqPtr kept(
        DiffReportGetWithSpecifier(agent_time, -1, path.c_str(), handle.DataFromAttributeList, handle.DataDelete));
    if (kept == nullptr) {
        return;
    }
    const CriticalGuard guard(kDiffSection);
    if (SeqLength(kept.get()) > 0) {
        if (ReplaceRows(path.c_str(), kept.get(), handle.DataToCSV)) {
            return;
        }
        Log(LOG_LEVEL_ERR, "Could not overwrite diff in the file: '%s' during cleanup. Removing file for safety.",
            path.c_str());
    }
    if (unlink(path.c_str()) != 0) {
        Log(LOG_LEVEL_ERR, "Failed to remove file '%s' during diff cleanup", path.c_str());
    }
}
