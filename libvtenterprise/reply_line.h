// How a packer puts a line into a reply: no line that the transport cannot carry ever gets there.
#ifndef LIBVTENTERPRISE_REPLY_LINE_H
#define LIBVTENTERPRISE_REPLY_LINE_H

#include <cstring>
#include <utility>

#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>

// The longest line that fits a transaction together with its zero.
inline constexpr size_t kMaxReplyLineLength = VT_BUFSIZE - 1;

// Append line to reply. One that could not be made (NULL) or is longer than limit is left out with a warning in which
// report names the chapter's content: a single such line would make this reply and every later one fail.
inline void AppendReplyLine(Seq *reply, const char *report, veltrane::TextPtr line, size_t limit = kMaxReplyLineLength)
{
    const size_t length = line != nullptr ? strlen(line.get()) : 0;
    if (line == nullptr || length > limit) {
        Log(LOG_LEVEL_WARNING,
            "%s report entry exceeds network limit and will be skipped from reporting to hub (size: %zu)", report,
            length);
        return;
    }
    SeqAppend(reply, line.release());
}

#endif
