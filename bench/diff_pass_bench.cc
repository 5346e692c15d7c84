// One pass of the difference engine over the classes of a host.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>

#include <veltrane/eval_context.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>

#include "bench/figure.h"
#include "libvtenterprise/diff_classes.h"
#include "libvtenterprise/diff_engine.h"

namespace {

using bench::Cost;
using bench::Generation;
using bench::Order;
using bench::Side;
using bench::Work;
using veltrane::EvalContextPtr;
using veltrane::SeqPtr;

constexpr char kOldState[] = "old.csv";  // also the cache that a pass finds
constexpr char kNewState[] = "new.csv";

void WriteStates(const Work &work, Generation present, Order order)
{
    bench::WriteClasses(work.directory / kOldState, work.size, Generation::old_run, order);
    bench::WriteClasses(work.directory / kNewState, work.size, present, order);
}

Cost PrepareSorted(const Work &work)
{
    WriteStates(work, Generation::new_run, Order::sorted);
    return {};
}

Cost PrepareShuffled(const Work &work)
{
    WriteStates(work, Generation::new_run, Order::shuffled);
    return {};
}

Cost PrepareUnchanged(const Work &work)
{
    WriteStates(work, Generation::old_run, Order::sorted);
    return {};
}

EvalContextPtr ContextOf(size_t size, Generation generation)
{
    EvalContextPtr ctx(EvalContextNew());
    bench::ForEachClass(size, generation, [&](const bench::SyntheticClass &c) {
        EvalContextClassPutSoft(ctx.get(), c.name.c_str(), c.tags);
    });
    return ctx;
}

// A host's work directory as the last run left it.
class StateOfLastRun {
  public:
    explicit StateOfLastRun(const Work &work)
    {
        bench::EnterHost(work);
        const std::filesystem::path state = GetStateDir();
        rows_ = state / "diff/classes.diff";
        std::filesystem::copy_file(work.directory / kOldState, state / "previous_state/classes.cache",
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::remove(rows_);
    }

    void CheckPass(bool passed, size_t rows) const
    {
        if (!passed || (rows > 0) != std::filesystem::exists(rows_) || (rows > 0 && bench::CountLines(rows_) != rows)) {
            throw std::runtime_error("the pass went wrong");
        }
    }

  private:
    std::filesystem::path rows_;
};

Cost PassOver(const Work &work, Generation present)
{
    const EvalContextPtr ctx = ContextOf(work.size, present);
    const StateOfLastRun state(work);
    const bench::Stopwatch watch;
    const bool passed = DiffReportGenerate(report_type_classes, bench::kRunTime, ctx.get());
    const Cost cost = watch.Stop();
    state.CheckPass(passed, present == Generation::new_run ? bench::ChangesIn(work.size) : 0);
    return cost;
}

Cost PassSorted(const Work &work) { return PassOver(work, Generation::new_run); }

Cost PassUnchanged(const Work &work) { return PassOver(work, Generation::old_run); }

// The classes of the present state in another order, made one after the other as a listing makes them.
SeqPtr ShuffledListing(size_t size)
{
    std::vector<bench::SyntheticClass> classes;
    bench::ForEachClass(size, Generation::new_run, [&](const bench::SyntheticClass &c) { classes.push_back(c); });
    std::shuffle(classes.begin(), classes.end(), std::mt19937_64(3));
    SeqPtr listing(SeqNew(classes.size(), HubClassDelete));
    for (const bench::SyntheticClass &c : classes) {
        SeqAppend(listing.get(), HubClassNew(nullptr, c.name.c_str(), 0, c.tags));
    }
    return listing;
}

// A context lists its classes in order, so the pass is handed a listing that is not; what listing the context takes is
// counted all the same.
Cost PassShuffled(const Work &work)
{
    const EvalContextPtr ctx = ContextOf(work.size, Generation::new_run);
    const StateOfLastRun state(work);
    const bench::Stopwatch gathering;
    SeqPtr gathered(GetCurrentClassesFromEvalContext(ctx.get()));
    Cost cost = gathering.Stop();
    gathered.reset();

    SeqPtr listing = ShuffledListing(work.size);
    const bench::Stopwatch watch;
    const bool passed =
        DiffReportGenerateFrom(report_type_classes, bench::kRunTime, bench::kRunTime, listing.release());
    const Cost pass = watch.Stop();
    cost.wall_seconds += pass.wall_seconds;
    cost.cpu_seconds += pass.cpu_seconds;
    state.CheckPass(passed, bench::ChangesIn(work.size));
    return cost;
}

Cost ContextAlone(const Work &work)
{
    (void)ContextOf(work.size, Generation::new_run);
    return {};
}

const bench::Job kJobs[] = {
    {"diff_pass.prepare_sorted", PrepareSorted},
    {"diff_pass.prepare_shuffled", PrepareShuffled},
    {"diff_pass.prepare_unchanged", PrepareUnchanged},
    {"diff_pass.sorted", PassSorted},
    {"diff_pass.shuffled", PassShuffled},
    {"diff_pass.unchanged", PassUnchanged},
    {"diff_pass.context", ContextAlone},
};

Side SortBothAndCompare(const Work &work)
{
    const auto path = [&](const char *name) { return (work.directory / name).string(); };
    return {
        {{"sort", "-o", path("old.sorted"), path(kOldState)}},
        {{"sort", "-o", path("new.sorted"), path(kNewState)}},
        {{"comm", "-3", path("old.sorted"), path("new.sorted")}, work.directory / "differences"},
    };
}

constexpr char kPeer[] = "`LC_ALL=C sort` of both sides, `comm -3`";

const bench::Figure kSorted = {
    .title = "diff pass over 1,000,000 classes, sorted, 1 % changed",
    .peer_title = kPeer,
    .bound = 0.5,
    .aim = 1.5,
    .peak_limit_mb = 600,
    .size = 1'000'000,
    .prepare = "diff_pass.prepare_sorted",
    .uncounted = "diff_pass.context",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("diff_pass.sorted", work)}; },
    .peer = SortBothAndCompare,
};

const bench::Figure kShuffled = {
    .title = "the same, both sides shuffled",
    .peer_title = kPeer,
    .bound = 0.3,
    .aim = 1,
    .size = 1'000'000,
    .prepare = "diff_pass.prepare_shuffled",
    .uncounted = "diff_pass.context",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("diff_pass.shuffled", work)}; },
    .peer = SortBothAndCompare,
};

const bench::Figure kUnchanged = {
    .title = "the same over 100,000, sorted, nothing changed",
    .peer_title = kPeer,
    .bound = 0.6,
    .aim = 2,
    .peak_limit_mb = 100,
    .size = 100'000,
    .prepare = "diff_pass.prepare_unchanged",
    .uncounted = "diff_pass.context",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("diff_pass.unchanged", work)}; },
    .peer = SortBothAndCompare,
};

void DiffPassSorted(benchmark::State &state) { bench::Measure(state, kSorted); }
BENCHMARK(DiffPassSorted)->Apply(bench::AtGrowingSizes);

void DiffPassShuffled(benchmark::State &state) { bench::Measure(state, kShuffled); }
BENCHMARK(DiffPassShuffled)->Apply(bench::AtGrowingSizes);

void DiffPassUnchanged(benchmark::State &state) { bench::Measure(state, kUnchanged); }
BENCHMARK(DiffPassUnchanged)->Apply(bench::AtGrowingSizes);

}  // namespace
