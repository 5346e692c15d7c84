// Any text as JSON: what parses is written, parses again and is written as the same bytes.
#include <cstring>
#include <string>

#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"

namespace {

veltrane::JsonPtr Parse(const char *text)
{
    JsonElement *json = nullptr;
    return veltrane::JsonPtr(JsonParse(text, &json) == JSON_PARSE_OK ? json : nullptr);
}

veltrane::TextPtr Write(const JsonElement *json)
{
    Writer *writer = StringWriter();
    JsonWriteCompact(writer, json);
    return veltrane::TextPtr(StringWriterClose(writer));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzWorkDirectory();
    const std::string text(reinterpret_cast<const char *>(data), size);
    const veltrane::JsonPtr json = Parse(text.c_str());
    if (json == nullptr) {
        return 0;
    }
    const veltrane::TextPtr written = Write(json.get());
    const veltrane::JsonPtr again = Parse(written.get());
    Require(again != nullptr);
    Require(std::strcmp(Write(again.get()).get(), written.get()) == 0);
    return 0;
}
