// The report query service; server.h tells its steps.
#include "libvtserverd/server.h"

#include <pthread.h>
#include <sluice/sluice.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include <veltrane/crypto.h>
#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/measure.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>
#include <veltrane/time_lib.h>

#include "libvtenterprise/datapack.h"
#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/reports.h"
#include "libvtenterprise/scan_number.h"
#include "libvtenterprise/server_report_filter.h"
#include "libvtenterprise/thread_guard.h"
#include "libvtenterprise/time_difference.h"

namespace {

using veltrane::SeqPtr;

constexpr size_t kMaxQueryWordLength = 255;
constexpr time_t kTolerableClockError = 29;
constexpr time_t kAgeingMargin = 3600;
constexpr char kCompletion[] = "QUERY complete";
constexpr const char *kWhiteSpace = " \t\n\v\f\r";

// One reply is packed at a time, and no difference file is aged meanwhile: packing reads and rewrites the untracked
// indexes and the difference files.
pthread_mutex_t packing_lock = PTHREAD_MUTEX_INITIALIZER;

std::string Timestamp(time_t t)
{
    char text[26];
    (void)vt_strtimestamp_local(t, text);
    ChopTimestamp(text, sizeof(text));
    return std::string(text, strnlen(text, sizeof(text)));
}

void LogQuery(const ReportQuery &query, const ReportWindow &window, time_t now)
{
    Log(LOG_LEVEL_VERBOSE, "Menu request \"%s\" at %s, clock error %jd", query.word.c_str(), Timestamp(now).c_str(),
        static_cast<intmax_t>(window.clock_error));
    Log(LOG_LEVEL_VERBOSE, "Menu request starting from %s", Timestamp(window.from).c_str());
}

SeqPtr PackReply(const ReportQuery &query, const ReportWindow &window, ReportRequestType type, ProtocolVersion version)
{
    const ThreadGuard guard(&packing_lock);
    const struct timespec start = BeginMeasure();
    ReportBookFilterPtr filter = CopyBookFilterOfQuery(query.word.c_str());
    SeqPtr lines(Vesk_PackAllReports(window.from, window.to, window.clock_error, type, filter.get(), version));
    filter.reset();
    if (lines != nullptr) {
        EndMeasure(("Packing reports: " + query.word).c_str(), start);
    }
    return lines;
}

// One message of a reply: text and its terminating zero. False with errno.
bool SendMessage(const ServerConnectionState *conn, const char *text, bool encrypt, char status)
{
    // What does not fit a transaction fails below, however long it is.
    const int length = static_cast<int>(std::min<size_t>(strlen(text) + 1, VT_BUFSIZE + 1));
    if (!encrypt) {
        return SendTransaction(conn->conn_info, text, length, status) != -1;
    }
    char cipher_text[VT_BUFSIZE] = {};
    const int cipher_length =
        EncryptString(cipher_text, sizeof(cipher_text), text, length, conn->encryption_type, conn->session_key);
    return SendTransaction(conn->conn_info, cipher_text, cipher_length, status) != -1;
}

bool SendLines(const ServerConnectionState *conn, const Seq *lines, bool encrypt, ReportDump *dump)
{
    for (size_t i = 0; i < SeqLength(lines); ++i) {
        const char *line = static_cast<const char *>(SeqAt(lines, i));
        if (line != nullptr && !SendMessage(conn, line, encrypt, 'm')) {
            Log(LOG_LEVEL_ERR, "Failed send. (send: %s)", GetErrorStr());
            dump->WriteLines(lines);
            dump->WriteFailedLine(i, line);
            return false;
        }
    }
    dump->WriteLines(lines);
    return true;
}

bool SendCompletion(const ServerConnectionState *conn, bool encrypt, ReportDump *dump)
{
    if (!SendMessage(conn, kCompletion, encrypt, 't')) {
        Log(LOG_LEVEL_ERR, "Failed send. (send: %s)", GetErrorStr());
        dump->WriteCompleteFailure();
        return false;
    }
    dump->WriteComplete();
    return true;
}

}  // namespace

ReportQuery ParseReportQuery(const char *menu)
{
    ReportQuery query;
    menu += strspn(menu, kWhiteSpace);
    const size_t word_length = strcspn(menu, kWhiteSpace);
    query.word.assign(menu, word_length < kMaxQueryWordLength ? word_length : kMaxQueryWordLength);
    menu += query.word.size();
    if (ScanNumber(&menu, &query.from)) {
        (void)ScanNumber(&menu, &query.peer_time);  // a query without numbers is served as if they were 0
    }
    return query;
}

ReportWindow ReportWindowAt(const ReportQuery &query, time_t now)
{
    const time_t last = TimeDifference(now, 1);
    return {query.from, last > query.from ? last : query.from, TimeDifference(now, query.peer_time)};
}

bool IsPoorlySynchronized(time_t clock_error) { return clock_error > kTolerableClockError; }

time_t AgeingThreshold(time_t from) { return from > kAgeingMargin ? from - kAgeingMargin : from; }

void ChopTimestamp(char *text, size_t size)
{
    if (Chop(text, size - 1) == -1) {
        Log(LOG_LEVEL_ERR, "Chop was called on a string that seemed to have no terminator");
    }
}

bool SendReply(const ServerConnectionState *conn, const Seq *lines, bool encrypt, ReportDump *dump)
{
    if (lines == nullptr) {
        Log(LOG_LEVEL_ERR, "Failed to pack reports");
        return false;
    }
    return SendLines(conn, lines, encrypt, dump) && SendCompletion(conn, encrypt, dump);
}

bool ReturnQueryData__real(ServerConnectionState *conn, char *menu, int encrypt) noexcept
{
    Log(LOG_LEVEL_DEBUG, "Current sluice version '%s'", SLC_Version());
    const ReportQuery query = ParseReportQuery(menu);
    const time_t now = time(nullptr);
    const ReportWindow window = ReportWindowAt(query, now);
    if (IsPoorlySynchronized(window.clock_error)) {
        Log(LOG_LEVEL_VERBOSE, "Poor clock synchronization between peers");
    }
    ReportDump dump =
        conn->dump_reports ? ReportDump({query.word, now, window.from, window.to, query.peer_time}) : ReportDump();
    LogQuery(query, window, now);

    const ReportRequestType type = Reports_RequestTypeFromString(query.word.c_str());
    if (type == REPORT_REQUEST_TYPE_ERROR) {
        Log(LOG_LEVEL_VERBOSE, "Unknown menu type \"%s\"", query.word.c_str());
        return false;
    }
    const SeqPtr lines = PackReply(query, window, type, conn->conn_info->protocol);
    if (!SendReply(conn, lines.get(), encrypt != 0, &dump)) {
        return false;
    }
    if (type == REPORT_REQUEST_TYPE_DELTA) {
        const ThreadGuard guard(&packing_lock);
        PurgeOldDiffReports(AgeingThreshold(window.from));
    }
    return true;
}
