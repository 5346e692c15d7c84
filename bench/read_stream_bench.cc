// Reading a report stream back into chapters.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <veltrane/owned.h>

#include "bench/figure.h"
#include "libvtenterprise/report_data.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;
using ReportPtr = std::unique_ptr<ReportData, veltrane::Destroyer<ReportData_Destroy>>;

constexpr char kStream[] = "stream";

Cost Prepare(const Work &work)
{
    std::ofstream file(work.directory / kStream, std::ios::binary);
    file << "VTR: 0 " << bench::kRunTime << ' ' << work.size * bench::kReportLineLength << "\nCLD\n";
    for (size_t i = 0; i < work.size; i++) { file << bench::ReportLine(i) << '\n'; }
    return {};
}

// From the file to the chapters, and to their memory given back.
Cost Read(const Work &work)
{
    const bench::Stopwatch watch;
    const veltrane::FilePtr file(fopen((work.directory / kStream).c_str(), "r"));
    ReportPtr report(ReportData_Start("SHA=00", REPORT_REQUEST_TYPE_REBASE));
    char *line = nullptr;
    size_t room = 0;
    for (ssize_t length = 0; (length = getline(&line, &room, file.get())) > 0;) {
        line[length - 1] = '\0';
        if (!ReportData_AddNext(report.get(), line)) {
            throw std::runtime_error("a line was refused");
        }
    }
    free(line);
    (void)ReportData_Stop(report.get());
    if (SeqLength(ReportData_GetChapter(report.get(), vtr_code_class_diff)) != work.size) {
        throw std::runtime_error("lines are missing");
    }
    report.reset();
    return watch.Stop();
}

const bench::Job kJobs[] = {{"read_stream.prepare", Prepare}, {"read_stream.read", Read}};

const bench::Figure kFigure = {
    .title = "reading a stream of 1,000,000 lines back into chapters",
    .peer_title = "`wc -l` on it",
    .bound = 0.04,
    .aim = 0.08,
    .size = 1'000'000,
    .prepare = "read_stream.prepare",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("read_stream.read", work)}; },
    .peer = [](const Work &work) -> Side {
        return {{{"wc", "-l", (work.directory / kStream).string()}}};
    },
};

void ReadingAStream(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(ReadingAStream)->Apply(bench::AtGrowingSizes);

}  // namespace
