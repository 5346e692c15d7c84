// Any bytes as a histogram file: the chapter opens, and each of its rows is a slot that has a name, once, and 64 counts
// within their bounds.
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include <veltrane/monitoring.h>
#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "libvtenterprise/datapack_histograms.h"

namespace {

std::set<std::string> SlotNames()
{
    std::set<std::string> names;
    for (int slot = 0; slot < VT_OBSERVABLES; ++slot) {
        if (VeskHasSlot(slot)) {
            names.insert(VeskGetSlotName(slot));
        }
    }
    return names;
}

void RequireCounts(const char *text)
{
    for (int position = 0; position < VT_HISTOGRAM_POSITIONS; ++position) {
        Require(*text == ',');
        char *end = nullptr;
        const long count = std::strtol(text + 1, &end, 10);
        Require(end > text + 1 && count >= 0 && count <= 999999);
        text = end;
    }
    Require(*text == '\0');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    InputAsStateFile("histograms", data, size);
    const veltrane::SeqPtr reply(SeqNew(10, std::free));
    PackHistograms(reply.get(), nullptr);

    Require(SeqLength(reply.get()) > 0);
    Require(std::strcmp(static_cast<const char *>(SeqAt(reply.get(), 0)), "MOH") == 0);
    std::set<std::string> names = SlotNames();
    for (size_t i = 1; i < SeqLength(reply.get()); ++i) {
        const std::string row = static_cast<const char *>(SeqAt(reply.get(), i));
        const size_t comma = row.find(',');
        Require(comma != std::string::npos && names.erase(row.substr(0, comma)) == 1);
        RequireCounts(row.c_str() + comma);
    }
    return 0;
}
