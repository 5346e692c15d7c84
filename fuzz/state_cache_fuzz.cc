// Any bytes as a state cache of each report type: what is read compares with itself as unchanged.
#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "libvtenterprise/diff_engine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &path = InputAsFile(data, size);
    for (int i = 0; i < report_type_max; ++i) {
        const ReportDataHandle &handle = REPORT_DATA_HANDLES[i];
        const veltrane::SeqPtr state(GetStateCache(path.c_str(), handle.DataFromAttributeList, handle.DataDelete));
        Require(state != nullptr);
        const veltrane::SeqPtr rows(GenerateDiff(nullptr, state.get(), handle.DataDelete, handle.CompareKeys,
                                                 handle.CompareValues, handle.DataDup));
        Require(SeqLength(rows.get()) == SeqLength(state.get()));
        const veltrane::SeqPtr unchanged(GenerateDiff(state.get(), state.get(), handle.DataDelete, handle.CompareKeys,
                                                      handle.CompareValues, handle.DataDup));
        Require(unchanged != nullptr);
    }
    return 0;
}
