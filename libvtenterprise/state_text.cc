// Batches of CSV records.
#include "libvtenterprise/state_text.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr size_t kBatchBytes = 1 << 16;

using Block = unsigned char __attribute__((vector_size(16)));

Block BlockAt(const char *bytes)
{
    Block block;
    memcpy(&block, bytes, sizeof(block));
    return block;
}

// Whether two commas follow each other. Millions of records are asked, so a block of places is looked at once; the last
// one overlaps the one before it.
bool HasCommaPair(std::string_view text)
{
    constexpr size_t kStep = sizeof(Block);
    if (text.size() < kStep + 1) {
        return text.find(",,") != std::string_view::npos;
    }
    const auto pair_at = [&](size_t i) {
        const auto pairs = (BlockAt(&text[i]) == ',') & (BlockAt(&text[i + 1]) == ',');
        uint64_t halves[2];
        memcpy(halves, &pairs, sizeof(halves));
        return (halves[0] | halves[1]) != 0;
    };
    for (size_t i = 0; i + kStep + 1 < text.size(); i += kStep) {
        if (pair_at(i)) {
            return true;
        }
    }
    return pair_at(text.size() - kStep - 1);
}

}  // namespace

StateText::StateText(const Seq *state, DataToCSVFn DataToCSV, Writer *to)
    : state_(state), data_to_csv_(DataToCSV), to_(to), batch_(StringWriter()), csv_(CsvWriterOpen(batch_.get()))
{
}

std::string_view StateText::Record(size_t i)
{
    while (made_ <= i) { Make(); }
    return std::string_view(StringWriterData(batch_.get()), StringWriterLength(batch_.get())).substr(last_);
}

void StateText::Finish()
{
    while (made_ < SeqLength(state_)) { Make(); }
    WriteBatch();
}

void StateText::Make()
{
    if (StringWriterLength(batch_.get()) >= kBatchBytes) {
        WriteBatch();
    }
    last_ = StringWriterLength(batch_.get());
    void *item = SeqAt(state_, made_++);
    if (item != nullptr) {
        data_to_csv_(item, csv_.get());
        CsvWriterNewRecord(csv_.get());
    }
}

void StateText::WriteBatch()
{
    if (to_ != nullptr) {
        // A failure is remembered until the writer is closed.
        (void)WriterWriteLen(to_, StringWriterData(batch_.get()), StringWriterLength(batch_.get()));
    }
    csv_.reset();
    batch_.reset(StringWriter());
    csv_.reset(CsvWriterOpen(batch_.get()));
}

bool MayHoldEmptyField(std::string_view record)
{
    const size_t end = record.find_last_not_of("\r\n");
    return end == std::string_view::npos || record.front() == ',' || record[end] == ',' || HasCommaPair(record);
}
