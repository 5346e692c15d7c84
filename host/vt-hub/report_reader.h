// The plug-in's reader of report streams, looked up in the loaded library and called straight.
#ifndef HOST_VT_HUB_REPORT_READER_H
#define HOST_VT_HUB_REPORT_READER_H

#include <memory>
#include <string>
#include <vector>

#include <libvtenterprise/diff_common.h>
#include <libvtenterprise/enterprise_install.h>
#include <libvtenterprise/report_data.h>
#include <libvtenterprise/reports.h>

namespace vthub {

// The functions and tables of the plug-in that the hub uses. All are set once Load succeeded.
struct ReportReader {
    decltype(&::ReportData_Start) start;
    decltype(&::ReportData_AddNext) add_next;
    decltype(&::ReportData_Stop) stop;
    decltype(&::ReportData_GetChapter) get_chapter;
    decltype(&::ReportData_Destroy) destroy;
    decltype(&::Reports_RequestTypeFromString) request_type_from_string;
    decltype(&::Reports_IsDiff) is_diff;
    decltype(&::DiffTypeToString) diff_type_to_string;
    decltype(&::LastSeenDirectionToString) direction_to_string;
    decltype(&::PromiseStateToString) promise_state_to_string;
    const char *const *codebook;  // vtr_code_max codes
};

// false after one error line when the plug-in is absent, refused or lacks a name.
bool LoadReportReader(ReportReader *ret_reader);

using ReportPtr = std::unique_ptr<ReportData, decltype(&::ReportData_Destroy)>;

// The lines of a whole stream, read into chapters; null after the reader's own error line.
ReportPtr ReadReport(const ReportReader &reader, const std::string &identity, const std::string &type,
                     const std::vector<std::string> &lines);

}  // namespace vthub

#endif
