// Measuring pairs, and the table of what they came to.
#include "bench/figure.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <stdexcept>

#include "support/work_dir.h"

namespace bench {

namespace {

constexpr int kRepetitions = 7;

struct Pair {
    Cost ours;
    Cost peer;
};

// What was measured of one figure.
struct Result {
    const Figure *figure;
    std::map<size_t, std::vector<Cost>> ours;  // by size
    std::vector<Pair> pairs;                   // at the figure's size
    double uncounted_mb = 0;
};

// In the order in which the figures were measured.
std::vector<Result> &Results()
{
    static std::vector<Result> results;
    return results;
}

Result &ResultOf(const Figure &figure)
{
    for (Result &result : Results()) {
        if (result.figure == &figure) {
            return result;
        }
    }
    Results().push_back({&figure, {}, {}});
    return Results().back();
}

// The files of one figure at one size, kept from one repetition to the next.
class PreparedDirectory {
  public:
    Work For(const Figure &figure, size_t size)
    {
        if (figure_ != &figure || size_ != size) {
            directory_.reset();
            directory_ = std::make_unique<TemporaryDirectory>();
            if (figure.prepare != nullptr) {
                (void)Run({JobCommand(figure.prepare, {directory_->path, size})});
            }
            figure_ = &figure;
            size_ = size;
        }
        return {directory_->path, size};
    }

  private:
    std::unique_ptr<TemporaryDirectory> directory_;
    const Figure *figure_ = nullptr;
    size_t size_ = 0;
};

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? NAN : n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

template <typename Item, typename Value>
std::vector<double> ValuesOf(const std::vector<Item> &items, Value value)
{
    std::vector<double> values;
    for (const Item &item : items) { values.push_back(value(item)); }
    return values;
}

double RatioOf(const Figure &figure, const Pair &pair)
{
    return figure.ratio == Ratio::times_as_fast ? pair.peer.wall_seconds / pair.ours.wall_seconds
                                                : pair.ours.wall_seconds / pair.peer.wall_seconds;
}

void MeasureOnce(benchmark::State &state, const Figure &figure, const Work &work)
{
    Result &result = ResultOf(figure);
    const Cost ours = Run(figure.ours(work));
    state.SetIterationTime(ours.wall_seconds);
    state.counters["cpu_s"] = ours.cpu_seconds;
    state.counters["peak_MB"] = ours.peak_mb;
    result.ours[work.size].push_back(ours);
    if (work.size != figure.size) {
        return;
    }
    const Pair pair{ours, Run(figure.peer(work))};
    state.counters["peer_s"] = pair.peer.wall_seconds;
    state.counters["ratio"] = RatioOf(figure, pair);
    result.pairs.push_back(pair);
    if (figure.uncounted != nullptr && result.pairs.size() == 1) {
        result.uncounted_mb = Run({JobCommand(figure.uncounted, work)}).peak_mb;
    }
}

std::string Text(const char *format, double number)
{
    char text[64];
    (void)snprintf(text, sizeof(text), format, number);
    return text;
}

std::string Times(const std::vector<Cost> &costs)
{
    const double wall = Median(ValuesOf(costs, [](const Cost &c) { return c.wall_seconds; }));
    const double cpu = Median(ValuesOf(costs, [](const Cost &c) { return c.cpu_seconds; }));
    const bool short_one = wall < 0.1;
    const double unit = short_one ? 1000 : 1;
    return Text("%.3g", wall * unit) + (short_one ? " ms" : " s") + " (" + Text("%.3g", cpu * unit) + ")";
}

double PeakOf(const std::vector<Cost> &costs)
{
    double peak = 0;
    for (const Cost &cost : costs) { peak = std::max(peak, cost.peak_mb); }
    return peak;
}

// The exponent of growth over the largest step of size; "" when only one size ran.
std::string Growth(const Result &result, double (*value)(const std::vector<Cost> &))
{
    if (result.ours.size() < 2) {
        return "";
    }
    const auto last = std::prev(result.ours.end());
    const auto before = std::prev(last);
    const double sizes = static_cast<double>(last->first) / static_cast<double>(before->first);
    return Text("%.2f", std::log(value(last->second) / value(before->second)) / std::log(sizes));
}

bool IsHeld(const Figure &figure, double ratio, double peak_mb)
{
    const bool in_time = figure.ratio == Ratio::times_as_fast ? ratio >= figure.bound : ratio <= figure.bound;
    return in_time && (figure.peak_limit_mb == 0 || peak_mb < figure.peak_limit_mb);
}

void WriteRow(std::ostream &out, const Result &result)
{
    const Figure &figure = *result.figure;
    const std::vector<double> ratios = ValuesOf(result.pairs, [&](const Pair &p) { return RatioOf(figure, p); });
    const auto [least, most] = std::minmax_element(ratios.begin(), ratios.end());
    const std::vector<Cost> &ours = result.ours.at(figure.size);
    const double peak = PeakOf(ours);
    std::vector<Cost> peer;
    for (const Pair &pair : result.pairs) { peer.push_back(pair.peer); }

    const char *times = figure.ratio == Ratio::times_as_fast ? " x" : " x the time";
    out << "| " << figure.title << " | " << figure.peer_title << " | " << Times(ours) << " | " << Times(peer) << " | **"
        << Text("%.3g", Median(ratios)) << "** (" << Text("%.3g", *least) << " to " << Text("%.3g", *most) << ") | "
        << Text("%.3g", figure.bound) << times;
    if (figure.peak_limit_mb > 0) {
        out << ", under " << figure.peak_limit_mb << " MB";
    }
    out << " | " << (figure.aim > 0 ? Text("%.3g", figure.aim) + times : "") << " | "
        << (IsHeld(figure, Median(ratios), peak) ? "yes" : "**NO**") << " | " << Text("%.0f", peak) << " MB";
    if (figure.uncounted != nullptr) {
        out << " (" << Text("%.0f", result.uncounted_mb) << ")";
    }
    const auto wall = [](const std::vector<Cost> &costs) {
        return Median(ValuesOf(costs, [](const Cost &c) { return c.wall_seconds; }));
    };
    out << " | " << Growth(result, wall) << " | " << Growth(result, PeakOf) << " |\n";
}

}  // namespace

void Measure(benchmark::State &state, const Figure &figure)
{
    static PreparedDirectory prepared;
    try {
        const Work work = prepared.For(figure, static_cast<size_t>(state.range(0)));
        for (auto _ : state) { MeasureOnce(state, figure, work); }
    } catch (const std::exception &error) {
        state.SkipWithError(error.what());
        return;
    }
    state.SetComplexityN(state.range(0));
}

void AtGrowingSizes(benchmark::internal::Benchmark *b)
{
    b->RangeMultiplier(10)->Range(10'000, 1'000'000);
    b->Iterations(1)->Repetitions(kRepetitions)->UseManualTime()->Unit(benchmark::kMillisecond)->Complexity();
}

void WriteTable(std::ostream &out)
{
    out << "| job | peer | ours: wall (cpu) | peer: wall (cpu) | ratio: median (of all pairs) | at least | aim | held "
           "| peak (uncounted part) | growth of time | of memory |\n"
           "|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (const Result &result : Results()) {
        if (!result.pairs.empty()) {
            WriteRow(out, result);
        }
    }
}

}  // namespace bench
