// The enterprise checks of the agent's diagnostics.
#include "libvtagent/enterprise-agent-diagnostics.h"

#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <utility>

#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/datapack.h"
#include "libvtenterprise/entry_points_real.h"

using veltrane::FilePtr;
using veltrane::SeqPtr;

AgentDiagnosticsResultNewFunction AgentDiagnosticsResultNewPtr = nullptr;

namespace {

constexpr time_t kPeriod = 300;  // seconds

const AgentDiagnosticCheck kChecks[] = {
    {"Export all reports", AgentDiagnosticsCheckReportsExport},
    {nullptr, nullptr},
};

// Takes over message.
AgentDiagnosticsResult Failure(char *message) { return AgentDiagnosticsResultNewPtr(false, message); }

// A row for an old peer ends in CR LF: its line feed is the line's.
void WriteLines(FILE *file, const Seq *lines)
{
    for (size_t i = 0; i < SeqLength(lines); ++i) {
        char *line = static_cast<char *>(SeqAt(lines, i));
        (void)ReplaceTrailingChar(line, '\n', '\0');
        (void)fprintf(file, "%s\n", line);  // a failure stays with the stream
    }
}

// A full disk often speaks first when the file is closed.
bool CloseWritten(FilePtr file)
{
    const bool is_written = ferror(file.get()) == 0;
    return fclose(file.release()) == 0 && is_written;
}

}  // namespace

AgentDiagnosticsResult AgentDiagnosticsCheckReportsExport(const char *workdir) noexcept
{
    char path[4096] = {};
    (void)snprintf(path, sizeof(path), "%s/diagnostics/reports", workdir);
    FilePtr file(safe_fopen(MapName(path), "w"));
    if (file == nullptr) {
        return Failure(StringFormat("Cannot open output file for writing '%s'", path));
    }
    (void)fchmod(fileno(file.get()), 0600);  // one that was there may have had another mode; it is ours, so this works

    const time_t now = time(nullptr);
    const SeqPtr lines(Vesk_PackAllReports(now - kPeriod, now, 0, REPORT_REQUEST_TYPE_DELTA, nullptr, VT_PROTOCOL_TLS));
    if (lines == nullptr) {
        return Failure(StringFormat("Error while packing reports"));
    }
    WriteLines(file.get(), lines.get());
    if (!CloseWritten(std::move(file))) {
        return Failure(StringFormat("Cannot write output file '%s'", path));
    }
    const int count = static_cast<int>(SeqLength(lines.get()));
    return AgentDiagnosticsResultNewPtr(true, StringFormat("Wrote reports based on %d rows to file '%s'", count, path));
}

void AgentDiagnosticsRunAllChecksVesk__real(const char *workdir, Writer *output,
                                            AgentDiagnosticsRunFunction AgentDiagnosticsRunPtr,
                                            AgentDiagnosticsResultNewFunction func_ptr) noexcept
{
    AgentDiagnosticsResultNewPtr = func_ptr;
    AgentDiagnosticsRunPtr(workdir, kChecks, output);
}
