// A figure: one job beside a peer that does the same job, and what the ratio of their times must be.
//
// Both sides run alternately in the same run. Each pair gives a ratio of wall-clock times, and the figure is the median
// over the pairs: what else the machine does meanwhile burdens both sides. At sizes other than the figure's own our
// side runs alone, to show how time and memory grow.
#ifndef BENCH_FIGURE_H
#define BENCH_FIGURE_H

#include <benchmark/benchmark.h>

#include <ostream>

#include "bench/bench_support.h"

namespace bench {

enum class Ratio {
    times_as_fast,  // the peer's time by ours: more is better
    time,           // our time by the peer's: less is better
};

struct Figure {
    const char *title;
    const char *peer_title;
    Ratio ratio = Ratio::times_as_fast;
    double bound;                     // "at least", for Ratio::time "at most"
    double aim = 0;                   // 0 = none
    double peak_limit_mb = 0;         // 0 = none
    size_t size;                      // at which it is held
    const char *prepare = nullptr;    // job that makes the files of a size; NULL = there are none
    const char *uncounted = nullptr;  // job that makes only what the peak limit leaves out; NULL = nothing
    Side (*ours)(const Work &);
    Side (*peer)(const Work &);
};

// The body of a benchmark. An iteration is one pair, in a directory that is prepared once a size.
void Measure(benchmark::State &state, const Figure &figure);

// Sizes ten times apart, so that a step that grows with the square shows.
void AtGrowingSizes(benchmark::internal::Benchmark *b);

// What was measured so far, one row a figure, in Markdown.
void WriteTable(std::ostream &out);

}  // namespace bench

#endif
