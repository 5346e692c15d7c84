// Assembly of the reply to a report query: header, order of the chapters, and the chapters that have no room of their
// own.
#include "libvtenterprise/datapack.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include <veltrane/alloc.h>
#include <veltrane/csv.h>
#include <veltrane/dbm_api.h>
#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>
#include <veltrane/string_lib.h>
#include <veltrane/time_lib.h>
#include <veltrane/writer.h>

#include "libvtenterprise/datapack_file_changes.h"
#include "libvtenterprise/datapack_file_diffs.h"
#include "libvtenterprise/datapack_histograms.h"
#include "libvtenterprise/datapack_monitoring.h"
#include "libvtenterprise/datapack_promise_log.h"
#include "libvtenterprise/datapack_state.h"
#include "libvtenterprise/diff_engine.h"
#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/reply_line.h"

namespace {

using veltrane::DBCursorPtr;
using veltrane::DBHandlePtr;
using veltrane::TextPtr;
using HubPerformancePtr = std::unique_ptr<HubPerformance, veltrane::Destroyer<HubPerformanceDelete>>;

constexpr size_t kReplyCapacity = 500;
constexpr size_t kHeaderSize = 1024;
constexpr size_t kEventNameSize = 4096;
constexpr size_t kMaxEventNameLength = 512;

// The state chapters in their order, each with the filter that applies to it; NULL: it is never filtered.
constexpr struct {
    CodeBookIndex chapter;
    ReportType type;
    const char *filter;
} kStateChapters[] = {
    {vtr_code_class_diff, report_type_classes, "metatags"},
    {vtr_code_variable_diff, report_type_variables, "metatags"},
    {vtr_code_last_seen_diff, report_type_lastseen, nullptr},
    {vtr_code_software_diff, report_type_software, nullptr},
    {vtr_code_software_patch_diff, report_type_software_patch, nullptr},
    {vtr_code_execution_log_diff, report_type_execution_log, "promise_handles"},
};

// What every chapter of one reply needs to know.
struct Query {
    time_t from;
    time_t to;
    const ReportBookFilter *book;
    ProtocolVersion version;
};

const ReportFilter *FilterOf(const char *name, const Query &query)
{
    return name != nullptr ? GetReportFilter(name, query.book) : nullptr;
}

// Take the value of a performance entry into *event. A shorter one leaves the rest of *event as the entry before filled
// it. False: the entry is skipped.
bool TakeEvent(const void *value, int size, Event *event)
{
    if (value == nullptr) {
        return false;
    }
    if (size < 0 || static_cast<size_t>(size) > sizeof(*event)) {
        Log(LOG_LEVEL_ERR, "Invalid entry in performance database. Expected size: %zu, actual size: %d", sizeof(*event),
            size);
        return false;
    }
    memcpy(event, value, static_cast<size_t>(size));
    return true;
}

// The performance records measured after query.from.
void PackPerformance(Seq *reply, const Query &query)
{
    Log(LOG_LEVEL_VERBOSE, "Packing performance data");
    DBHandle *handle = nullptr;
    if (!OpenDB(&handle, dbid_performance)) {
        Log(LOG_LEVEL_INFO, "Unable to open performance database");
        return;
    }
    const DBHandlePtr db(handle);
    DBCursor *opened = nullptr;
    if (!NewDBCursor(db.get(), &opened)) {
        Log(LOG_LEVEL_INFO, "Unable to scan performance database");
        return;
    }
    const DBCursorPtr cursor(opened);

    Event event{};  // one for the whole walk: see TakeEvent
    ReplyChapter chapter(reply, vtr_code_performance, "performance");
    char *key = nullptr;
    void *value = nullptr;
    int key_size = 0;
    int value_size = 0;
    while (NextDB(cursor.get(), &key, &key_size, &value, &value_size)) {
        const std::string name(key, strnlen(key, std::min<size_t>(static_cast<size_t>(key_size), kEventNameSize - 1)));
        if (!TakeEvent(value, value_size, &event) || event.t <= query.from) {
            continue;
        }
        if (name.empty() || name.size() > kMaxEventNameLength) {
            Log(LOG_LEVEL_INFO, "Corrupt entry in database");
            continue;
        }
        const HubPerformancePtr performance(
            HubPerformanceNew(nullptr, name.c_str(), event.t, event.Q.q, event.Q.expect, std::sqrt(event.Q.var)));
        chapter.Add(PerformanceRow(performance.get(), IsOldProtocol(query.version)));
    }
}

void PackRebase(Seq *reply, const Query &query)
{
    for (const auto &state : kStateChapters) {
        PackBaseState(reply, VT_CODEBOOK[state.chapter], query.to, FilterOf(state.filter, query), state.type,
                      query.version);
    }
    Vesk_PackExecutionStatus(reply, query.version);
}

void PackDelta(Seq *reply, const Query &query)
{
    for (const auto &state : kStateChapters) {
        PackDiffReport(reply, VT_CODEBOOK[state.chapter], query.from, query.to, FilterOf(state.filter, query),
                       state.type, query.version);
    }
    PackPerformance(reply, query);
    Vesk_PackExecutionStatus(reply, query.version);
    PackFileChanges(reply, query.from);
    Vesk_PackDiffs(reply, query.from);
    const ReportFilter *slots = FilterOf("monitoring", query);
    Vesk_PackMonitorMg(reply, query.from, slots);
    Vesk_PackMonitorYr(reply, slots);
    PackHistograms(reply, slots);
    PackPromiseLog(reply, query.from, FilterOf("promise_handles", query));
}

// The header goes into the slot kept for it once the length of all other lines is known.
void FillHeader(Seq *reply, time_t clock_error, time_t to)
{
    Log(LOG_LEVEL_VERBOSE, "Reply end time: %s", rpl_ctime(&to));
    char header[kHeaderSize];
    (void)snprintf(header, sizeof(header), "VTR: %ld %ld %d", static_cast<long>(clock_error), static_cast<long>(to),
                   SeqStringLength(reply));
    SeqSet(reply, 0, xstrdup(header));
}

// A whole number of a double, cut toward zero; what an int cannot hold becomes its nearest end, no number at all 0.
int TruncateToInt(double number)
{
    if (std::isnan(number)) {
        return 0;
    }
    if (number >= static_cast<double>(std::numeric_limits<int>::max())) {
        return std::numeric_limits<int>::max();
    }
    if (number <= static_cast<double>(std::numeric_limits<int>::min())) {
        return std::numeric_limits<int>::min();
    }
    return static_cast<int>(number);
}

}  // namespace

Seq *Vesk_PackAllReports(time_t from, time_t to, time_t clock_error, ReportRequestType type,
                         const ReportBookFilter *report_book_filter, ProtocolVersion version) noexcept
{
    Seq *reply = SeqNew(kReplyCapacity, free);
    SeqAppend(reply, nullptr);  // for the header

    const Query query{from, to, report_book_filter, version};
    switch (type) {
        case REPORT_REQUEST_TYPE_FULL:
            Log(LOG_LEVEL_WARNING, "Request for FULL query have been deprecated");
            break;
        case REPORT_REQUEST_TYPE_REBASE:
            PackRebase(reply, query);
            break;
        case REPORT_REQUEST_TYPE_DELTA:
            PackDelta(reply, query);
            break;
        default:
            // A collect call is not softened into a delta: whoever hands one over has mixed up two protocols.
            ProgrammingError("Unhandled report request type in switch: %d", static_cast<int>(type));
    }
    FillHeader(reply, clock_error, to);
    return reply;
}

void Vesk_PackExecutionStatus(Seq *reply, ProtocolVersion version) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "Packing execution status data");
    DBHandle *handle = nullptr;
    if (!OpenDB(&handle, dbid_agent_execution)) {
        Log(LOG_LEVEL_INFO, "Unable to open agent_execution db");
        return;
    }
    const DBHandlePtr db(handle);
    double average_interval = 0;
    time_t last_exec = 0;
    if (!ReadDB(db.get(), "delta_gavr", &average_interval, sizeof(average_interval)) ||
        !ReadDB(db.get(), "last_exec", &last_exec, sizeof(last_exec))) {
        Log(LOG_LEVEL_INFO, "Unable to read from agent_execution db");
        return;
    }
    const std::string row = ExecutionStatusRow(time(nullptr), last_exec, average_interval, IsOldProtocol(version));
    AppendChapterCode(reply, vtr_code_execution_status);
    SeqAppend(reply, xstrdup(row.c_str()));
}

std::string ExecutionStatusRow(time_t now, time_t last_exec, double average_interval, bool terminate)
{
    const double interval = static_cast<double>(now) - static_cast<double>(last_exec);
    const double limited = average_interval > 300.0 ? average_interval : 300.0;
    const double threshold = 3.0 * limited + 0.1 * (3.0 * limited);

    Writer *writer = StringWriter();
    CsvWriter *csv = CsvWriterOpenSpecifyTerminate(writer, terminate);
    CsvWriterFieldF(csv, "%c", interval > threshold ? 't' : 'f');
    CsvWriterFieldF(csv, "%d", TruncateToInt(average_interval));
    CsvWriterFieldF(csv, "%ld", static_cast<long>(last_exec));
    CsvWriterClose(csv);
    return std::string(TextPtr(StringWriterClose(writer)).get());
}

void PurgeOldDiffReports(time_t from) noexcept
{
    for (int type = report_type_classes; type < report_type_max; ++type) {
        DiffReportRemoveOldEntries(static_cast<ReportType>(type), from);
    }
}
