// The reading side of the report stream; report_data.h has its grammar.
#include "libvtenterprise/report_data.h"

#include <cstdlib>
#include <cstring>

#include <veltrane/alloc.h>
#include <veltrane/logging.h>

#include "libvtenterprise/scan_number.h"

namespace {

constexpr size_t kChapterCapacity = 1024;
constexpr size_t kCodeLength = 3;

// The chapters that carry state reports, in the order in which a rebase brings them.
constexpr CodeBookIndex kDiffChapters[] = {vtr_code_class_diff,          vtr_code_variable_diff,
                                           vtr_code_last_seen_diff,      vtr_code_software_diff,
                                           vtr_code_software_patch_diff, vtr_code_execution_log_diff};

struct Header {
    long first, second, third;
};

void DestroyChapter(void *lines) { SeqDestroy(static_cast<Seq *>(lines)); }

// The code of a chapter; NULL for what is none.
const char *CodeOf(CodeBookIndex chapter)
{
    return chapter >= 0 && chapter < vtr_code_max ? VT_CODEBOOK[chapter] : nullptr;
}

// "VTR: %ld %ld %ld"
bool ReadHeader(const char *line, Header *ret_header)
{
    Header header{};
    if (strncmp(line, "VTR:", 4) != 0) {
        return false;
    }
    const char *at = line + 4;
    if (!ScanNumber(&at, &header.first) || !ScanNumber(&at, &header.second) || !ScanNumber(&at, &header.third)) {
        return false;
    }
    *ret_header = header;
    return true;
}

// "%c,%ld,%ld", of which only the last number is wanted
bool ReadExecutionTime(const char *line, long *ret_time)
{
    if (line[0] == '\0' || line[1] != ',') {
        return false;
    }
    const char *at = line + 2;
    long interval = 0;
    if (!ScanNumber(&at, &interval) || *at != ',') {
        return false;
    }
    ++at;
    return ScanNumber(&at, ret_time);
}

bool AcceptHeader(ReportData *report, const char *line)
{
    Header header;
    if (!ReadHeader(line, &header)) {
        Log(LOG_LEVEL_ERR, "Invalid header format in reporting data: '%s'", line);
        return false;
    }
    report->requested_timestamp = header.first;
    report->response_timestamp = header.second;
    report->string_length = header.third;
    return true;
}

bool AcceptExecutionStatus(ReportData *report, const char *line)
{
    long timestamp = 0;
    if (!ReadExecutionTime(line, &timestamp)) {
        Log(LOG_LEVEL_ERR, "Reporting data for execution status has incorrect formatting (line='%s')", line);
        return false;
    }
    if (timestamp <= 0) {
        Log(LOG_LEVEL_WARNING, "Unexpected timestamp in reporting data (ts=%ld host='%s')", timestamp, report->hostkey);
    }
    report->last_exec_timestamp = timestamp;
    return true;
}

bool AcceptData(ReportData *report, CodeBookIndex chapter, const char *line)
{
    if (chapter == vtr_code_max) {
        Log(LOG_LEVEL_ERR, "Could not determine reporting chapter before line '%s'", line);
        return false;
    }
    if (!ReportData_AddToChapter(report, chapter, line)) {
        const char *code = CodeOf(chapter);
        Log(LOG_LEVEL_ERR, "Failed to add report data to map (chapter='%s' line='%s')", code != nullptr ? code : "",
            line);
        return false;
    }
    return chapter != vtr_code_execution_status || AcceptExecutionStatus(report, line);
}

}  // namespace

ReportData *ReportData_New(const char *hostkey, ReportRequestType request) noexcept
{
    ReportData *report = static_cast<ReportData *>(xcalloc(1, sizeof(ReportData)));
    report->map = MapNew(StringHashUntyped, StringEqualUntyped, free, DestroyChapter);
    report->hostkey = xstrdup(hostkey);
    report->request_type = request;
    report->state_chapter = vtr_code_max;
    report->state_counter = -1;
    return report;
}

ReportData *ReportData_Start(const char *hostkey, ReportRequestType request) noexcept
{
    ReportData *report = ReportData_New(hostkey, request);
    report->state_chapter = vtr_code_max;
    report->state_counter = 0;
    return report;
}

bool ReportData_AddNext(ReportData *report, const char *line) noexcept
{
    CodeBookIndex chapter = report->state_chapter;
    if (report->state_counter == 0) {
        if (!AcceptHeader(report, line)) {
            return false;
        }
    } else if (strnlen(line, kCodeLength + 1) == kCodeLength) {
        // Inside a chapter an unknown code keeps the chapter, and the line is dropped.
        chapter = Reports_CodeBookIndexFromString(line, chapter);
        if (chapter == vtr_code_max) {
            Log(LOG_LEVEL_ERR, "Invalid chapter code in reporting data ('%s')", line);
            report->state_chapter = vtr_code_max;
            return false;
        }
    } else if (!AcceptData(report, chapter, line)) {
        return false;
    }
    report->state_counter++;
    report->state_chapter = chapter;
    return true;
}

bool ReportData_Stop(ReportData *report) noexcept
{
    if (report == nullptr) {
        return false;
    }
    if (report->request_type == REPORT_REQUEST_TYPE_REBASE) {
        for (const CodeBookIndex chapter : kDiffChapters) { (void)ReportData_AddChapter(report, chapter); }
    }
    return true;
}

Seq *ReportData_GetChapter(const ReportData *report, CodeBookIndex chapter) noexcept
{
    const char *code = CodeOf(chapter);
    return code != nullptr ? static_cast<Seq *>(MapGet(report->map, code)) : nullptr;
}

bool ReportData_AddChapter(ReportData *report, CodeBookIndex chapter) noexcept
{
    const char *code = CodeOf(chapter);
    if (code == nullptr || MapHasKey(report->map, code)) {
        return false;
    }
    (void)MapInsert(report->map, xstrdup(code), SeqNew(kChapterCapacity, free));
    return true;
}

bool ReportData_AddToChapter(ReportData *report, CodeBookIndex chapter, const char *line) noexcept
{
    Seq *lines = ReportData_GetChapter(report, chapter);  // one look-up a line once the chapter is there
    if (lines == nullptr) {
        (void)ReportData_AddChapter(report, chapter);
        lines = ReportData_GetChapter(report, chapter);
    }
    if (lines == nullptr) {
        Log(LOG_LEVEL_DEBUG, "Could not get chapter after adding it!(ReportData)");
        return false;
    }
    if (Reports_IsDiff(chapter)) {
        report->has_diffs = true;
    }
    SeqAppend(lines, xstrdup(line));
    return true;
}

void ReportData_Destroy(ReportData *report) noexcept
{
    if (report == nullptr) {
        return;
    }
    MapDestroy(report->map);
    free(report->hostkey);
    free(report);
}
