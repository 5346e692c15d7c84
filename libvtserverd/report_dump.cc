// Report dumps; report_dump.h has the form of the file.
#include "libvtserverd/report_dump.h"

#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/seq.h>

namespace {

constexpr size_t kDirectorySize = 3584;
constexpr size_t kPathSize = 4096;

// What is missing of diagnostics/report_dumps. A failure shows when the file is opened.
void MakeDumpDirectory(char (&directory)[kDirectorySize])
{
    (void)snprintf(directory, sizeof(directory), "%s/diagnostics", GetWorkDir());
    (void)mkdir(directory, 0700);
    (void)snprintf(directory, sizeof(directory), "%s/diagnostics/report_dumps", GetWorkDir());
    (void)mkdir(directory, 0700);
}

}  // namespace

ReportDump::ReportDump(const ReportDumpSubject &subject)
{
    const auto now = static_cast<uintmax_t>(subject.now);
    const auto to = static_cast<uintmax_t>(subject.to);
    const auto from = static_cast<uintmax_t>(subject.from);
    const auto peer_time = static_cast<uintmax_t>(subject.peer_time);
    const char *word = subject.query_word.c_str();

    char directory[kDirectorySize];
    MakeDumpDirectory(directory);
    char path[kPathSize];
    (void)snprintf(path, sizeof(path), "%s%c%ju_%ju_%ju_%s", directory, '/', now, to, from, word);

    if (subject.query_word.find('/') == std::string::npos) {
        file_.reset(safe_fopen(path, "w"));
    }
    if (file_ == nullptr) {
        Log(LOG_LEVEL_ERR, "Couldn't open report dump file: '%s'", path);
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "Will dump report to file: '%s'", path);
    (void)fprintf(file_.get(), "# %s from %ju to %ju at %ju\n", word, from, peer_time, now);
}

void ReportDump::WriteLines(const Seq *lines)
{
    if (IsOpen()) {
        (void)SeqStringWriteFileStream(lines, file_.get());
    }
}

void ReportDump::WriteFailedLine(size_t index, const char *line)
{
    if (IsOpen()) {
        (void)fprintf(file_.get(), "# Failed send on report line %zu:\n# %s\n", index, line);
    }
}

void ReportDump::WriteComplete()
{
    if (IsOpen()) {
        (void)fputs("# send QUERY complete successful\n", file_.get());
    }
}

void ReportDump::WriteCompleteFailure()
{
    if (IsOpen()) {
        (void)fprintf(file_.get(), "# send QUERY complete failure: %s\n", GetErrorStr());
    }
}
