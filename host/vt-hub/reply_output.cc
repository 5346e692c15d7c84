#include "vt-hub/reply_output.h"

#include "vt-hub/report_reader.h"
#include "vt-hub/report_view.h"

namespace vthub {

bool WriteReply(std::ostream &out, const OutputOptions &options, const std::string &identity, const std::string &type,
                const std::vector<std::string> &lines)
{
    if (options.raw) {
        PrintStream(out, lines, options.terminal);
        return true;
    }
    ReportReader reader;
    if (!LoadReportReader(&reader)) {
        return false;
    }
    const ReportPtr report = ReadReport(reader, identity, type, lines);
    if (report == nullptr) {
        return false;
    }
    PrintReport(out, reader, report.get(), lines, options.wide);
    return true;
}

}  // namespace vthub
