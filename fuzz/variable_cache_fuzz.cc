// Any bytes as a temporary variable cache: what is read is the same when it is stored and read again.
#include <string>

#include <veltrane/eval_context.h>
#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "fuzz/record_rows.h"
#include "libvtenterprise/diff_variables.h"

namespace {

std::vector<std::string> RowsOfCache(const std::string &bytes)
{
    InputAsStateFile("variable.cache.tmp", reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    const veltrane::SeqPtr state(GetCurrentHubVariableSerializedList(ctx.get()));
    return RowsOf(report_type_variables, state.get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::vector<std::string> rows = RowsOfCache(std::string(reinterpret_cast<const char *>(data), size));
    std::string stored;
    for (const std::string &row : rows) { stored += row; }
    Require(RowsOfCache(stored) == rows);
    return 0;
}
