// The test daemon's answer to a report query: one of two fixed replies, so that a hub's intake can be tried without
// hosts. Unlike a real answer it is never encrypted, filtered, dumped, and ages nothing.
//
// Only "delta" and "rebase" have such a reply. A caller that hands over another word of the vocabulary has made a
// mistake, and the process ends.
#include <ctime>

#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/time_lib.h>

#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/reports.h"
#include "libvtenterprise/synthetic_reports.h"
#include "libvtserverd/server.h"

namespace {

using veltrane::SeqPtr;

constexpr char kDeltaTime[] = "1513576541";
constexpr char kRebaseTime[] = "1513276541";

SeqPtr PackTestReply(ReportRequestType type)
{
    switch (type) {
        case REPORT_REQUEST_TYPE_DELTA:
            Log(LOG_LEVEL_VERBOSE, "REPORT_REQUEST_TYPE_DELTA, ts_diff=%s", kDeltaTime);
            return SeqPtr(Reports_PackTestDelta(kDeltaTime));
        case REPORT_REQUEST_TYPE_REBASE:
            Log(LOG_LEVEL_VERBOSE, "REPORT_REQUEST_TYPE_REBASE, ts=%s", kRebaseTime);
            return SeqPtr(Reports_PackTestRebase(kRebaseTime));
        default:
            ProgrammingError("Unhandled report request type in switch: %d", static_cast<int>(type));
    }
    return nullptr;
}

}  // namespace

bool VTTestD_ReturnQueryData__real(ServerConnectionState *conn, char *menu) noexcept
{
    Log(LOG_LEVEL_DEBUG, "Enterprise function VTTestD_ReturnQueryData menu='%s'", menu);
    const ReportQuery query = ParseReportQuery(menu);
    const ReportRequestType type = Reports_RequestTypeFromString(query.word.c_str());
    if (type == REPORT_REQUEST_TYPE_ERROR) {
        Log(LOG_LEVEL_VERBOSE, "Unknown menu type \"%s\"", query.word.c_str());
        return false;
    }
    const SeqPtr lines = PackTestReply(type);
    const time_t now = time(nullptr);
    Log(LOG_LEVEL_VERBOSE, "Assembled reply at %s", rpl_ctime(&now));
    ReportDump none;
    return SendReply(conn, lines.get(), false, &none);
}
