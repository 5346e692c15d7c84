#include "libveltrane/log_limits.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include <veltrane/critical_section.h>
#include <veltrane/dir.h>
#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libveltrane/file_bytes.h"

namespace veltrane {

namespace {

constexpr size_t kChunkBytes = 1 << 16;
constexpr std::string_view kEntryEnd = "END";
constexpr std::string_view kDifferenceFileEnd = ".diff";
constexpr char kDifferenceSection[] = "DIFF_CRITICAL_SECTION";  // whoever reads or writes difference files is inside

constexpr struct {
    const char *(*directory)();
    const char *name;
    RecordForm form;
} kLogs[] = {
    {GetStateDir, "promise_execution.log", RecordForm::kCsv}, {GetStateDir, "promise_log.jsonl", RecordForm::kCrLfLine},
    {GetStateDir, "classes.jsonl", RecordForm::kCrLfLine},    {GetStateDir, "file_changes.log", RecordForm::kLine},
    {GetStateDir, "vesk_diff.log", RecordForm::kEntry},       {GetLogDir, "promise_summary.log", RecordForm::kLine},
};

// Finds the ends of records in bytes that come in pieces.
class RecordEnds {
  public:
    // wanted  the first end at or behind it is noted
    RecordEnds(RecordForm form, off_t wanted) : form_(form), wanted_(wanted) {}

    void Feed(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const size_t line_feed = bytes.find('\n');
            const std::string_view part = bytes.substr(0, line_feed);
            Take(part);
            seen_ += static_cast<off_t>(part.size());
            if (line_feed == std::string_view::npos) {
                return;
            }
            seen_++;
            if (EndsRecord()) {
                last_ = seen_;
                first_wanted_ = first_wanted_ < 0 && seen_ >= wanted_ ? seen_ : first_wanted_;
            }
            line_.clear();
            carriage_return_ = false;
            bytes.remove_prefix(line_feed + 1);
        }
    }

    off_t Last() const { return last_; }                 // where the last whole record ends; 0 when there is none
    off_t FirstWanted() const { return first_wanted_; }  // -1 when no record ends there
    off_t Seen() const { return seen_; }

  private:
    // A part of a line, its line feed left out.
    void Take(std::string_view part)
    {
        if (part.empty()) {
            return;
        }
        carriage_return_ = part.back() == '\r';
        if (form_ == RecordForm::kCsv) {
            quoted_ ^= std::count(part.begin(), part.end(), '"') % 2 != 0;
        } else if (form_ == RecordForm::kEntry && line_.size() <= kEntryEnd.size()) {
            line_.append(part.substr(0, kEntryEnd.size() + 1));
        }
    }

    bool EndsRecord() const
    {
        switch (form_) {
            case RecordForm::kLine:
                return true;
            case RecordForm::kCrLfLine:
                return carriage_return_;
            case RecordForm::kCsv:
                return !quoted_;
            case RecordForm::kEntry:
                return line_ == kEntryEnd;
        }
        return true;
    }

    const RecordForm form_;
    const off_t wanted_;
    off_t seen_ = 0;
    off_t last_ = 0;
    off_t first_wanted_ = -1;
    bool quoted_ = false;
    bool carriage_return_ = false;
    std::string line_;  // the beginning of the line under way, as far as it matters
};

// Hand the bytes from an offset to the end of an open file to use, piece by piece; false with errno, or when use gives
// false.
template <typename Use>
bool ForEachChunk(int fd, off_t from, Use use)
{
    const std::unique_ptr<char[]> chunk(new char[kChunkBytes]);
    for (;;) {
        const ssize_t got = pread(fd, chunk.get(), kChunkBytes, from);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0;
        }
        if (!use(std::string_view(chunk.get(), static_cast<size_t>(got)))) {
            return false;
        }
        from += got;
    }
}

bool FindEnds(int fd, RecordEnds *ends)
{
    return ForEachChunk(fd, 0, [ends](std::string_view bytes) {
        ends->Feed(bytes);
        return true;
    });
}

// Open a log that may be missing. fd is not open then, and the result is true.
bool OpenIfThere(const std::string &path, int flags, Descriptor *ret_file, off_t *ret_size)
{
    Descriptor file(safe_open(path.c_str(), flags | O_NONBLOCK));  // a FIFO would hold us
    struct stat status {};
    if (!file.IsOpen()) {
        return errno == ENOENT;
    }
    if (fstat(file.Get(), &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    *ret_size = status.st_size;
    *ret_file = std::move(file);
    return true;
}

// The end of a file that holds lines tells all; only quotes need what is before them.
bool EndsWhole(int fd, RecordForm form, off_t size)
{
    const std::string_view end = form == RecordForm::kLine ? "\n" : form == RecordForm::kCrLfLine ? "\r\n" : "\nEND\n";
    char bytes[8];
    const auto length = static_cast<off_t>(end.size());
    return form != RecordForm::kCsv && size >= length &&
           pread(fd, bytes, end.size(), size - length) == static_cast<ssize_t>(length) &&
           std::string_view(bytes, end.size()) == end;
}

// Put what an open file holds from an offset on in the place of the file.
bool KeepFrom(const std::string &path, int fd, off_t from)
{
    const std::string beside = path + ".new";
    (void)unlink(beside.c_str());  // of a run that did not get to its end
    Descriptor shorter(safe_open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL));
    if (!shorter.IsOpen()) {
        return false;
    }
    const bool written =
        ForEachChunk(fd, from,
                     [&](std::string_view bytes) { return !WriteAll(shorter.Get(), bytes, beside).has_value(); }) &&
        fsync(shorter.Get()) == 0;
    if (written && shorter.Close() && rename(beside.c_str(), path.c_str()) == 0) {
        return true;
    }
    const int error = errno;
    (void)unlink(beside.c_str());  // else it is overwritten by the next run
    errno = error;
    return false;
}

std::string Generation(const std::string &path, int number) { return path + "." + std::to_string(number); }

void WarnUnless(bool done, const char *what, const std::string &path)
{
    if (!done) {
        Log(LOG_LEVEL_WARNING, "Could not %s '%s': %s", what, path.c_str(), GetErrorStr());
    }
}

// The difference files, by name.
std::vector<std::string> DifferenceFiles()
{
    const std::string directory = std::string(GetStateDir()) + "/diff";
    std::vector<std::string> paths;
    const DirPtr entries(DirOpen(directory.c_str()));
    const struct dirent *entry;
    while (entries != nullptr && (entry = DirRead(entries.get())) != nullptr) {
        const std::string_view name = entry->d_name;
        if (name.size() > kDifferenceFileEnd.size() && name.ends_with(kDifferenceFileEnd)) {
            paths.push_back(directory + "/" + entry->d_name);
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

bool IsOver(const std::string &path, off_t limit)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && status.st_size > limit;
}

// The section is entered only when there is something to do: a daemon may be inside it for a while.
void LimitDifferenceFiles(off_t limit)
{
    for (const std::string &path : DifferenceFiles()) {
        if (!IsOver(path, limit)) {
            continue;
        }
        (void)WaitForCriticalSection(kDifferenceSection);  // it has logged; no other agent is at work here
        WarnUnless(LimitLog(path, RecordForm::kCsv, limit), "shorten", path);
        ReleaseCriticalSection(kDifferenceSection);
    }
}

}  // namespace

bool RepairLogTail(const std::string &path, RecordForm form)
{
    Descriptor file;
    off_t size = 0;
    if (!OpenIfThere(path, O_RDWR, &file, &size)) {
        return false;
    }
    if (!file.IsOpen() || size == 0 || EndsWhole(file.Get(), form, size)) {
        return true;
    }
    RecordEnds ends(form, 0);
    if (!FindEnds(file.Get(), &ends)) {
        return false;
    }
    if (ends.Last() == ends.Seen()) {
        return true;
    }
    if (ftruncate(file.Get(), ends.Last()) != 0) {
        return false;
    }
    Log(LOG_LEVEL_WARNING, "Cut off an unfinished record at the end of '%s'", path.c_str());
    return true;
}

bool LimitLog(const std::string &path, RecordForm form, off_t limit)
{
    Descriptor file;
    off_t size = 0;
    if (!OpenIfThere(path, O_RDONLY, &file, &size)) {
        return false;
    }
    if (!file.IsOpen() || size <= limit) {
        return true;
    }
    RecordEnds ends(form, size - limit);
    if (!FindEnds(file.Get(), &ends)) {
        return false;
    }
    const off_t from = ends.FirstWanted();
    const bool nothing_stays = from < 0 || from >= ends.Seen();
    if (nothing_stays ? unlink(path.c_str()) != 0 : !KeepFrom(path, file.Get(), from)) {
        return false;
    }
    Log(LOG_LEVEL_INFO, "Dropped the oldest %jd bytes of '%s': it may hold %jd",
        static_cast<intmax_t>(nothing_stays ? ends.Seen() : from), path.c_str(), static_cast<intmax_t>(limit));
    return true;
}

bool RotateLog(const std::string &path, off_t over, int generations)
{
    if (!IsOver(path, over)) {
        return true;
    }
    int free_place = 1;
    while (free_place < generations && access(Generation(path, free_place).c_str(), F_OK) == 0) { free_place++; }
    for (int number = free_place; number > 1; number--) {
        if (rename(Generation(path, number - 1).c_str(), Generation(path, number).c_str()) != 0) {
            return false;
        }
    }
    return rename(path.c_str(), Generation(path, 1).c_str()) == 0;
}

void RepairLogTails()
{
    for (const auto &log : kLogs) {
        const std::string path = std::string(log.directory()) + "/" + log.name;
        WarnUnless(RepairLogTail(path, log.form), "repair the end of", path);
    }
}

void LimitLogs(off_t limit)
{
    for (const auto &log : kLogs) {
        const std::string path = std::string(log.directory()) + "/" + log.name;
        WarnUnless(LimitLog(path, log.form, limit), "shorten", path);
    }
    const std::string promise_log = std::string(GetStateDir()) + "/promise_log.jsonl";
    WarnUnless(RotateLog(promise_log, kPromiseLogRotatedOver, kPromiseLogGenerations), "rotate", promise_log);
    LimitDifferenceFiles(limit);
}

}  // namespace veltrane
