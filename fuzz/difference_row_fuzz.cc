// Any text as a difference row of each report type: what parses is written, read and written again as the same bytes.
#include <cstring>
#include <string>

#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "libvtenterprise/diff_common.h"

using DiffRowPtr = std::unique_ptr<DiffRow, veltrane::Destroyer<DiffRowDelete>>;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzWorkDirectory();
    const std::string text(reinterpret_cast<const char *>(data), size);
    for (int i = 0; i < report_type_max; ++i) {
        const auto type = static_cast<ReportType>(i);
        const DiffRowPtr row(DiffRowFromCSV(text.c_str(), type));
        if (row == nullptr) {
            continue;
        }
        const veltrane::TextPtr written(DiffRowToCSV(row.get(), type, false));
        const DiffRowPtr again(DiffRowFromCSV(written.get(), type));
        Require(again != nullptr);
        const veltrane::TextPtr rewritten(DiffRowToCSV(again.get(), type, false));
        Require(std::strcmp(written.get(), rewritten.get()) == 0);
        const veltrane::TextPtr key(DiffRowGetMainKey(row.get(), type));
    }
    return 0;
}
