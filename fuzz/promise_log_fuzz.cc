// Any bytes as a promise log file, and any text as a CSV entry: the records are the bytes of the file, and an entry
// that is read is written, read and written again as the same bytes.
#include <cstring>
#include <string>

#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "libvtenterprise/json_line.h"
#include "libvtenterprise/promise_log.h"

using veltrane::JsonPtr;
using veltrane::TextPtr;

namespace {

PromiseLogEntryPtr FromJsonText(const char *text)
{
    JsonElement *json = nullptr;
    if (JsonParse(text, &json) != JSON_PARSE_OK) {
        return nullptr;
    }
    const JsonPtr owned(json);
    return PromiseLogEntryPtr(PromiseLogEntryFromJson(json));
}

void WriteAndReadAsCsv(const PromiseLogEntry *entry)
{
    const TextPtr written(PromiseLogEntryToCSV(entry));
    const PromiseLogEntryPtr again(PromiseLogEntryFromCSV(written.get()));
    Require(again != nullptr && again->timestamp == entry->timestamp);
    const TextPtr rewritten(PromiseLogEntryToCSV(again.get()));
    Require(std::strcmp(written.get(), rewritten.get()) == 0);
}

// Of an entry from JSON every list is an array, so it can be written; of one from CSV it need not be.
void WriteAndReadAsJson(const PromiseLogEntry *entry)
{
    const TextPtr written(PromiseLogEntryToJsonString(entry));
    Require(written != nullptr);
    const PromiseLogEntryPtr again = FromJsonText(written.get());
    Require(again != nullptr && again->timestamp == static_cast<int>(entry->timestamp));
    const TextPtr rewritten(PromiseLogEntryToJsonString(again.get()));
    Require(std::strcmp(written.get(), rewritten.get()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const bool has_zero = std::memchr(text.data(), '\0', size) != nullptr;
    const veltrane::FilePtr file(std::fopen(InputAsFile(data, size).c_str(), "r"));
    std::string joined;
    while (const TextPtr line{JsonLGetLineNext(file.get())}) {
        joined += line.get();
        if (const PromiseLogEntryPtr entry = FromJsonText(line.get()); entry != nullptr) {
            WriteAndReadAsJson(entry.get());
            WriteAndReadAsCsv(entry.get());
            (void)IsAllowedForPromiseLog(entry->promise);  // any answer will do
        }
    }
    Require(has_zero || joined == text);
    if (const PromiseLogEntryPtr entry(PromiseLogEntryFromCSV(text.c_str())); entry != nullptr) {
        WriteAndReadAsCsv(entry.get());
    }
    return 0;
}
