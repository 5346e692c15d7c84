// The line difference of a watched file whose lines all changed places, from the two files to the entry of the log.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <veltrane/attributes.h>
#include <veltrane/known_dirs.h>

#include "bench/figure.h"
#include "libvtenterprise/datapack_file_diffs.h"
#include "libvtenterprise/entry_points_real.h"
#include "support/promise_site.h"
#include "support/work_dir.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;

std::string File(const Work &work) { return work.directory / "settings.conf"; }
std::string Reference(const Work &work) { return File(work) + "_vtchanges"; }

void WriteLines(const std::string &path, const std::vector<std::string> &lines)
{
    std::ofstream file(path, std::ios::binary);
    for (const std::string &line : lines) { file << line << "\n"; }
}

Cost Prepare(const Work &work)
{
    std::vector<std::string> lines;
    for (size_t i = 0; i < work.size; i++) {
        lines.push_back("service." + std::to_string(i / 9) + ".option_" + std::to_string(i) + " = \"" +
                        std::to_string(i * 0x9E3779B9 % 100'000) + "\"  # as operations wants it");
    }
    WriteLines(Reference(work), lines);
    std::shuffle(lines.begin(), lines.end(), std::mt19937_64(4));
    WriteLines(File(work), lines);
    bench::EnterHost(work);
    return {};
}

// The copying is the agent's, and no part of a difference: it is left out, on both sides.
extern "C" bool CopyNothing(EvalContext *, const char *, const char *, const struct stat *, const Attributes *,
                            const Promise *, CompressedArray **, AgentConnection *, PromiseResult *)
{
    return true;
}
extern "C" void DeleteNothing(CompressedArray *) {}

Cost Compare(const Work &work)
{
    SetWorkDir(bench::HostDirectory(work).c_str());
    const std::filesystem::path log = std::filesystem::path(GetStateDir()) / kFileDiffLogName;
    std::filesystem::remove(log);
    const PromiseSite site;
    const Attributes attr{};
    const std::string file = File(work);
    const bench::Stopwatch watch;
    const PromiseResult result =
        LogFileChange__real(site.ctx(), file.c_str(), 1, &attr, site.promise(), CopyNothing, "", DeleteNothing);
    const Cost cost = watch.Stop();
    // As many lines are gone as are new, and nearly all are both.
    const size_t head_and_end = 3;
    const size_t lines = bench::CountLines(log) - head_and_end;
    if (result != PROMISE_RESULT_NOOP || lines % 2 != 0 || lines < work.size || lines >= 2 * work.size) {
        throw std::runtime_error("the difference is wrong");
    }
    return cost;
}

// Everything but the comparison: the two texts in memory.
Cost TextsAlone(const Work &work)
{
    SetWorkDir(bench::HostDirectory(work).c_str());
    const PromiseSite site;
    const std::string texts[] = {ReadFile(File(work)), ReadFile(Reference(work))};
    if (texts[0].size() != texts[1].size()) {
        throw std::runtime_error("the texts are wrong");
    }
    return {};
}

const bench::Job kJobs[] = {
    {"line_diff.prepare", Prepare},
    {"line_diff.compare", Compare},
    {"line_diff.texts", TextsAlone},
};

const bench::Figure kFigure = {
    .title = "line difference, 4,500 lines against the same lines shuffled",
    .peer_title = "`diff --minimal`",
    .bound = 5,
    .aim = 15,
    .peak_limit_mb = 20,  // 12 beyond the program with both texts, which is the uncounted part
    .size = 4'500,
    .prepare = "line_diff.prepare",
    .uncounted = "line_diff.texts",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("line_diff.compare", work)}; },
    // It says with its status that there is a difference.
    .peer = [](const Work &work) -> Side {
        return {{{"sh", "-c", "diff --minimal \"$0\" \"$1\"; test $? -eq 1", Reference(work), File(work)},
                 work.directory / "difference"}};
    },
};

// The largest is the figure's own: beyond it the table of the comparison has no room.
void AtSizesOfFiles(benchmark::internal::Benchmark *b)
{
    b->Arg(450)->Arg(4'500);
    b->Iterations(1)->Repetitions(7)->UseManualTime()->Unit(benchmark::kMillisecond)->Complexity();
}

void ComparingShuffledLines(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(ComparingShuffledLines)->Apply(AtSizesOfFiles);

}  // namespace
