// How a packer puts lines into a reply: no line that the transport cannot carry ever gets there, and a chapter opens
// with its first line.
#ifndef LIBVTENTERPRISE_REPLY_LINE_H
#define LIBVTENTERPRISE_REPLY_LINE_H

#include <cstring>
#include <utility>

#include <veltrane/alloc.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>

#include "libvtenterprise/reports.h"

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

// The line that opens a chapter.
inline void AppendChapterCode(Seq *reply, CodeBookIndex chapter) { SeqAppend(reply, xstrdup(VT_CODEBOOK[chapter])); }

// A chapter that opens with the first line that is added, and is not there without one. A line that is left out opens
// it all the same: something happened, though it cannot be told.
class ReplyChapter {
  public:
    // report  names the chapter's content; a literal
    ReplyChapter(Seq *reply, CodeBookIndex chapter, const char *report)
        : reply_(reply), chapter_(chapter), report_(report)
    {
    }

    void Add(veltrane::TextPtr line)
    {
        if (!is_open_) {
            AppendChapterCode(reply_, chapter_);
            is_open_ = true;
        }
        AppendReplyLine(reply_, report_, std::move(line));
    }

  private:
    Seq *reply_;
    CodeBookIndex chapter_;
    const char *report_;
    bool is_open_ = false;
};

#endif
