// A report, shown to people: one table a chapter.
#ifndef HOST_VT_HUB_REPORT_VIEW_H
#define HOST_VT_HUB_REPORT_VIEW_H

#include <ostream>

#include "vt-hub/report_reader.h"

namespace vthub {

// Print every chapter of the report in the order of the stream that it was read from; chapters that the reader added
// come last. wide: all columns, and cells are never cut.
void PrintReport(std::ostream &out, const ReportReader &reader, const ReportData *report,
                 const std::vector<std::string> &stream, bool wide);

// Print the stream as it came, a line each. On a terminal control bytes are escaped.
void PrintStream(std::ostream &out, const std::vector<std::string> &lines, bool terminal);

}  // namespace vthub

#endif
