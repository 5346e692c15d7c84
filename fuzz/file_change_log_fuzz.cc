// Any bytes as the change log of watched files: what they lead to are rows that read back, newest of the log first.
#include <string>
#include <string_view>

#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "libvtenterprise/datapack_file_diffs.h"
#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/reply_line.h"
#include "libvtenterprise/reports.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using FileDiffPtr = std::unique_ptr<HubFileDiffSerialized, veltrane::Destroyer<HubFileDiffSerializedDelete>>;

    static const std::string kTooManyTabs(1024, '\t');  // they end the process, which is no finding
    if (std::string_view(reinterpret_cast<const char *>(data), size).find(kTooManyTabs) != std::string_view::npos) {
        return 0;
    }
    InputAsStateFile(kFileDiffLogName, data, size);
    constexpr time_t kFrom = 1000;
    const veltrane::SeqPtr reply(SeqNew(1, free));
    Vesk_PackDiffs(reply.get(), kFrom);
    for (size_t i = 0; i < SeqLength(reply.get()); i++) {
        const std::string_view line = static_cast<const char *>(SeqAt(reply.get(), i));
        Require(line.size() <= kMaxReplyLineLength);
        if (i == 0) {
            Require(line == VT_CODEBOOK[vtr_code_fdiff]);
            continue;
        }
        const FileDiffPtr row(HubFileDiffSerializedFromCSV(line.data()));
        Require(row != nullptr && row->t > kFrom && row->diff != nullptr);
        Require(line == veltrane::TextPtr(HubFileDiffSerializedToCSV(row.get())).get());
    }
    return 0;
}
