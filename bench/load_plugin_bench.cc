// Loading the plug-in and asking its version, in a process that has none of its libraries yet.
#include "bench/figure.h"

namespace {

using bench::Side;
using bench::Work;

const bench::Figure kFigure = {
    .title = "loading the plug-in and asking its version",
    .peer_title = "`dlopen` of libldap and libssl alone",
    .ratio = bench::Ratio::time,
    .bound = 1.2,
    .size = 1,
    .ours = [](const Work &) -> Side {
        return {{{VT_BENCH_LOADER, VT_BENCH_PLUGIN, "GetExtensionLibraryVersion()"}, "/dev/null", true}};
    },
    .peer = [](const Work &) -> Side {
        return {{{VT_BENCH_LOADER, "libldap-2.5.so.0", "libssl.so.3"}, "/dev/null", true}};
    },
};

void LoadingThePlugin(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(LoadingThePlugin)->Arg(1)->Iterations(1)->Repetitions(41)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
