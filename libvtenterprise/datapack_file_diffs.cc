// Reading the change log back, line by line, into one row a change.
//
// A difference is bounded: it is for a screen of the hub, and the file itself is on the host. Where it is cut, its last
// entry says so.
#include "libvtenterprise/datapack_file_diffs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>
#include <veltrane/writer.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/reply_line.h"
#include "libvtenterprise/reports.h"
#include "libvtenterprise/scan_number.h"

namespace {

using veltrane::FilePtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;
using FileDiffPtr = std::unique_ptr<HubFileDiffSerialized, veltrane::Destroyer<HubFileDiffSerializedDelete>>;

constexpr size_t kLineBuffer = 4095;       // of a log line; a longer one is read in pieces, each like a line
constexpr size_t kTextBuffer = 5120;       // of a line's text with its tabs written out
constexpr size_t kMaxFilledLength = 1023;  // of difference and file name, beyond which no further line is taken
constexpr char kSeparator = '\a';          // between the lines of a difference: it travels, and the hub knows it

// The log, a line at a time.
class LogLines {
  public:
    LogLines(FILE *file, const char *path) : file_(file), path_(path) {}

    // False at the end, and when nothing can be read any more.
    bool Next()
    {
        if (fgets(line_, sizeof(line_), file_) == nullptr) {
            return false;
        }
        number_++;
        return true;
    }

    const char *Text() const { return line_; }
    bool Begins(const char *with) const { return StringStartsWith(line_, with); }
    int Number() const { return number_; }
    const char *Path() const { return path_; }

  private:
    FILE *const file_;
    const char *const path_;
    char line_[kLineBuffer];
    int number_ = 0;
};

// A change as its first lines tell it.
struct Change {
    char file[kLineBuffer] = "";
    char handle[kLineBuffer] = "";
    long t = 0;
};

// Read on from a line that begins with "CHANGE". False: the log ends, or there is nothing in the change for us.
bool ReadHead(LogLines *log, time_t from, Change *ret_change)
{
    (void)sscanf(log->Text(), "CHANGE %[^\n]", ret_change->file);  // a change without a name is one all the same
    if (!log->Next()) {
        return false;
    }
    if (log->Begins("promise handle:")) {
        (void)sscanf(log->Text(), "promise handle: %[^\n]", ret_change->handle);
        if (!log->Next()) {
            return false;
        }
    }
    const char *text = log->Text();
    (void)ScanNumber(&text, &ret_change->t);  // a time that cannot be read is 0
    return ret_change->t > from && !log->Begins("END");
}

// One line of a difference.
struct DiffLine {
    char kind = '\0';
    char number[65] = "";
    char text[kTextBuffer] = "";
};

// What the line of the log holds; its text comes with tabs written out. False: it holds nothing.
bool ReadDiffLine(const LogLines &log, DiffLine *ret_line)
{
    if (sscanf(log.Text(), "%c,%64[^,],%1024[^\n]", &ret_line->kind, ret_line->number, ret_line->text) == EOF) {
        Log(LOG_LEVEL_ERR, "Failed to scan line (sscanf: %s)", GetErrorStr());
        return false;
    }
    if (StringReplace(ret_line->text, sizeof(ret_line->text), "\t", "(TAB)") < 0) {
        ProgrammingError("Buffer overflow with StringReplace at line %d in file %s.", log.Number(), log.Path());
    }
    return true;
}

// The difference text of a change, read up to its end.
TextPtr ReadDifference(LogLines *log, const char *file)
{
    const size_t file_length = strlen(file);
    WriterPtr difference(StringWriter());
    while (log->Next() && !log->Begins("END")) {
        DiffLine line;
        if (!ReadDiffLine(*log, &line)) {
            continue;
        }
        if (StringWriterLength(difference.get()) > 0) {
            WriterWriteChar(difference.get(), kSeparator);
        }
        const bool full = StringWriterLength(difference.get()) + file_length > kMaxFilledLength;
        WriterWriteF(difference.get(), "%c,%s,%s", line.kind, line.number, full ? "(TRUNCATED)" : line.text);
        if (full) {
            Log(LOG_LEVEL_INFO, "!! Diff of file \"%s\" is too large be transmitted - truncating", file);
            break;
        }
    }
    return TextPtr(StringWriterClose(difference.release()));
}

// The rows of all changes that are wanted, in the log's order.
std::vector<TextPtr> ReadRows(LogLines *log, time_t from)
{
    std::vector<TextPtr> rows;
    while (log->Next()) {
        Change change;
        if (!log->Begins("CHANGE") || !ReadHead(log, from, &change)) {
            continue;
        }
        const TextPtr difference = ReadDifference(log, change.file);
        if (*difference != '\0') {
            const FileDiffPtr row(HubFileDiffSerializedNew(change.t, change.file, change.handle, difference.get()));
            rows.emplace_back(HubFileDiffSerializedToCSV(row.get()));
        }
    }
    return rows;
}

}  // namespace

void Vesk_PackDiffs(Seq *reply, time_t from) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "Packing file diff data");
    char path[VT_BUFSIZE];
    (void)snprintf(path, sizeof(path), "%s/%s", GetStateDir(), kFileDiffLogName);
    const FilePtr file(safe_fopen(MapName(path), "r"));
    if (file == nullptr) {
        Log(LOG_LEVEL_INFO, "Cannot open the source log '%s'. (fopen: %s)", path, GetErrorStr());
        return;
    }
    LogLines log(file.get(), path);
    std::vector<TextPtr> rows = ReadRows(&log, from);
    ReplyChapter chapter(reply, vtr_code_fdiff, "file difference");
    for (auto row = rows.rbegin(); row != rows.rend(); ++row) { chapter.Add(std::move(*row)); }
}
