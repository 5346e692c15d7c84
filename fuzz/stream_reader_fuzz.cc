// Any bytes, cut into lines as the transport cuts them, leave the stream reader whole.
#include <memory>
#include <sstream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "libvtenterprise/report_data.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzWorkDirectory();
    const ReportRequestType type = size % 2 == 0 ? REPORT_REQUEST_TYPE_DELTA : REPORT_REQUEST_TYPE_REBASE;
    const std::unique_ptr<ReportData, decltype(&ReportData_Destroy)> report(ReportData_Start("SHA=00", type),
                                                                            ReportData_Destroy);
    std::istringstream stream(std::string(reinterpret_cast<const char *>(data), size));
    long accepted = 0;
    for (std::string line; std::getline(stream, line);) {
        accepted += ReportData_AddNext(report.get(), line.c_str()) ? 1 : 0;
    }
    Require(report->state_counter == accepted);
    Require(ReportData_Stop(report.get()));
    for (int chapter = 0; chapter < vtr_code_max; ++chapter) {
        ReportData_GetChapter(report.get(), static_cast<CodeBookIndex>(chapter));
    }
    return 0;
}
