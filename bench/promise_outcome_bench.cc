// Logging promise outcomes, each record by opening, appending to and closing its file, beside a bare loop that does no
// more than that with the same bytes.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/figure.h"
#include "libvtenterprise/enterprise_compliance_log.h"
#include "libvtenterprise/entry_points_real.h"
#include "support/promise_site.h"
#include "support/work_dir.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;

std::filesystem::path Log(const Work &work, const char *name) { return bench::HostDirectory(work) / "state" / name; }
std::filesystem::path Bare(const Work &work, const char *name)
{
    return work.directory / (std::string(name) + ".bare");
}

// A promise as policies have them, with a handle, tags and somebody who depends on it, and the one message that a
// repair leaves; what holds already is no message.
PromiseSite Site(PromiseResult result)
{
    PromiseSite site({.release_id = "2f4c1b0e9d8a",
                      .bundle = "message_of_the_day",
                      .source_path = "/var/veltrane/inputs/promises.vt",
                      .source_hash = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08",
                      .promisees = {"operations"},
                      .line = 42});
    site.Scalar("handle", "message_of_the_day_is_ours");
    site.Scalar("content", "Welcome.\nThis machine is managed.\n");
    site.List("meta", {"critical", "team=operations"});
    if (result == PROMISE_RESULT_CHANGE) {
        site.Message("Rewrote '/etc/motd': its content differed");
    }
    return site;
}

void EnterEmptyHost(const Work &work)
{
    bench::EnterHost(work);
    std::filesystem::remove(Log(work, kExecutionLogName));
    std::filesystem::remove(Log(work, kPromiseLogName));
}

bool IsWritten(std::string_view name, PromiseResult result)
{
    return name == kExecutionLogName || result != PROMISE_RESULT_NOOP;
}

// The outcomes of work.size iterations, each logged.
Cost LogOutcomes(const Work &work, PromiseResult result)
{
    EnterEmptyHost(work);
    const PromiseSite site = Site(result);
    const bench::Stopwatch watch;
    for (size_t i = 0; i < work.size; i++) {
        EvalContextLogPromiseIterationOutcome__real(site.ctx(), site.promise(), result);
    }
    const Cost cost = watch.Stop();
    for (const char *name : {kExecutionLogName, kPromiseLogName}) {
        if (IsWritten(name, result) &&
            std::filesystem::file_size(Log(work, name)) != work.size * std::filesystem::file_size(Bare(work, name))) {
            throw std::runtime_error("records are missing");
        }
    }
    return cost;
}

// One record of each log, for the peer to write.
Cost Prepare(const Work &work, PromiseResult result)
{
    EnterEmptyHost(work);
    const PromiseSite site = Site(result);
    EvalContextLogPromiseIterationOutcome__real(site.ctx(), site.promise(), result);
    for (const char *name : {kExecutionLogName, kPromiseLogName}) {
        if (IsWritten(name, result)) {
            std::filesystem::copy_file(Log(work, name), Bare(work, name));
        }
    }
    return {};
}

void Append(const std::string &path, const std::string &record)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd < 0 || write(fd, record.data(), record.size()) != static_cast<ssize_t>(record.size()) || close(fd) != 0) {
        throw std::runtime_error("a record was not written");
    }
}

Cost WriteOneBare(const Work &work)
{
    EnterEmptyHost(work);
    const std::string path = Log(work, kExecutionLogName);
    const std::string record = ReadFile(Bare(work, kExecutionLogName));
    const bench::Stopwatch watch;
    for (size_t i = 0; i < work.size; i++) { Append(path, record); }
    return watch.Stop();
}

Cost WriteBothBare(const Work &work)
{
    EnterEmptyHost(work);
    const std::string paths[] = {Log(work, kExecutionLogName), Log(work, kPromiseLogName)};
    const std::string records[] = {ReadFile(Bare(work, kExecutionLogName)), ReadFile(Bare(work, kPromiseLogName))};
    const bench::Stopwatch watch;
    for (size_t i = 0; i < work.size; i++) {
        Append(paths[0], records[0]);
        Append(paths[1], records[1]);
    }
    return watch.Stop();
}

Cost PrepareKept(const Work &work) { return Prepare(work, PROMISE_RESULT_NOOP); }
Cost PrepareRepaired(const Work &work) { return Prepare(work, PROMISE_RESULT_CHANGE); }
Cost LogKept(const Work &work) { return LogOutcomes(work, PROMISE_RESULT_NOOP); }
Cost LogRepaired(const Work &work) { return LogOutcomes(work, PROMISE_RESULT_CHANGE); }

const bench::Job kJobs[] = {
    {"promise_outcome.prepare_kept", PrepareKept},
    {"promise_outcome.prepare_repaired", PrepareRepaired},
    {"promise_outcome.kept", LogKept},
    {"promise_outcome.repaired", LogRepaired},
    {"promise_outcome.one_bare", WriteOneBare},
    {"promise_outcome.both_bare", WriteBothBare},
};

const bench::Figure kKept = {
    .title = "logging 100,000 kept promise outcomes, one record each",
    .peer_title = "a loop of bare open, write, close of the same bytes",
    .bound = 0.25,
    .aim = 0.5,
    .size = 100'000,
    .prepare = "promise_outcome.prepare_kept",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("promise_outcome.kept", work)}; },
    .peer = [](const Work &work) -> Side { return {bench::JobCommand("promise_outcome.one_bare", work)}; },
};

const bench::Figure kRepaired = {
    .title = "logging 100,000 repaired promise outcomes into both logs",
    .peer_title = "the same, twice",
    .bound = 0.12,
    .aim = 0.3,
    .size = 100'000,
    .prepare = "promise_outcome.prepare_repaired",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("promise_outcome.repaired", work)}; },
    .peer = [](const Work &work) -> Side { return {bench::JobCommand("promise_outcome.both_bare", work)}; },
};

// A tenth of the other figures' sizes: a million records are more than any agent leaves before they are reported.
void AtSizesOfRuns(benchmark::internal::Benchmark *b)
{
    b->RangeMultiplier(10)->Range(1'000, 100'000);
    b->Iterations(1)->Repetitions(7)->UseManualTime()->Unit(benchmark::kMillisecond)->Complexity();
}

void LoggingKeptOutcomes(benchmark::State &state) { bench::Measure(state, kKept); }
BENCHMARK(LoggingKeptOutcomes)->Apply(AtSizesOfRuns);

void LoggingRepairedOutcomes(benchmark::State &state) { bench::Measure(state, kRepaired); }
BENCHMARK(LoggingRepairedOutcomes)->Apply(AtSizesOfRuns);

}  // namespace
