// The limit of reported texts.
#include "libvtenterprise/reported_text.h"

#include <veltrane/alloc.h>
#include <veltrane/buffer.h>
#include <veltrane/logging.h>

using veltrane::BufferPtr;
using veltrane::TextPtr;

TextPtr ReportedText(std::string_view text, const ReportedItem &item, const char *what)
{
    if (text.empty()) {
        return nullptr;
    }
    if (text.size() > kMaxReportedBytes) {
        Log(LOG_LEVEL_VERBOSE,
            "%s '%s' %s too large for transmission to reporting hub (larger than %zu bytes) -- will be truncated in "
            "reports",
            item.kind, item.name, what, kMaxReportedBytes);
        text = text.substr(0, kMaxReportedBytes - 1);
    }
    return TextPtr(xstrndup(text.data(), text.size()));
}

TextPtr ReportedTags(const StringSet *tags, const ReportedItem &item)
{
    const BufferPtr joined(StringSetToBuffer(tags, ','));
    return ReportedText(std::string_view(BufferData(joined.get()), BufferSize(joined.get())), item, "(meta tags) are");
}
