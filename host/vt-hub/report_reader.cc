#include "vt-hub/report_reader.h"

#include <veltrane/extension.h>
#include <veltrane/logging.h>

namespace vthub {

namespace {

template <typename Symbol>
bool Find(void *library, const char *name, Symbol *ret_symbol)
{
    void *address = shlib_load(library, name);
    if (address == nullptr) {
        Log(LOG_LEVEL_ERR, "The enterprise plug-in lacks '%s'", name);
        return false;
    }
    *ret_symbol = reinterpret_cast<Symbol>(address);
    return true;
}

}  // namespace

bool LoadReportReader(ReportReader *ret_reader)
{
    void *library = enterprise_library();
    if (library == nullptr) {
        Log(LOG_LEVEL_ERR, "Reading reports needs the enterprise plug-in, and it is not installed");
        return false;
    }
    ReportReader reader{};
    const bool whole =
        Find(library, "ReportData_Start", &reader.start) && Find(library, "ReportData_AddNext", &reader.add_next) &&
        Find(library, "ReportData_Stop", &reader.stop) && Find(library, "ReportData_GetChapter", &reader.get_chapter) &&
        Find(library, "ReportData_Destroy", &reader.destroy) &&
        Find(library, "Reports_RequestTypeFromString", &reader.request_type_from_string) &&
        Find(library, "Reports_IsDiff", &reader.is_diff) &&
        Find(library, "DiffTypeToString", &reader.diff_type_to_string) &&
        Find(library, "LastSeenDirectionToString", &reader.direction_to_string) &&
        Find(library, "PromiseStateToString", &reader.promise_state_to_string) &&
        Find(library, "VT_CODEBOOK", &reader.codebook);
    if (whole) {
        *ret_reader = reader;
    }
    return whole;
}

ReportPtr ReadReport(const ReportReader &reader, const std::string &identity, const std::string &type,
                     const std::vector<std::string> &lines)
{
    ReportPtr report(reader.start(identity.c_str(), reader.request_type_from_string(type.c_str())), reader.destroy);
    for (const std::string &line : lines) {
        if (!reader.add_next(report.get(), line.c_str())) {
            return ReportPtr(nullptr, reader.destroy);  // the reader said why
        }
    }
    if (lines.empty()) {
        Log(LOG_LEVEL_ERR, "The report stream is empty");
        return ReportPtr(nullptr, reader.destroy);
    }
    if (!reader.stop(report.get())) {
        return ReportPtr(nullptr, reader.destroy);
    }
    return report;
}

}  // namespace vthub
