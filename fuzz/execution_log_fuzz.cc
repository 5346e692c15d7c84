// Any bytes as an execution log: what it is reduced to has each promise once, and is the same when it is cached.
#include <set>
#include <string>

#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "fuzz/record_rows.h"
#include "libvtenterprise/diff_execution_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    InputAsStateFile("promise_execution.log", data, size);
    const veltrane::SeqPtr state(GetCurrentHubPromiseExecutionList(nullptr));
    Require(state != nullptr);
    std::set<std::string> hashes;
    for (size_t i = 0; i < SeqLength(state.get()); i++) {
        const auto *execution = static_cast<const HubPromiseExecution *>(SeqAt(state.get(), i));
        Require(hashes.insert(execution->promise_hash != nullptr ? execution->promise_hash : "").second);
    }
    (void)RowsOf(report_type_execution_log, state.get());
    return 0;
}
