// Runs the benchmarks, or as a process of its own one job of theirs, and prints the table of figures.
//
// Usage: veltrane-bench [options of Google Benchmark]
//        veltrane-bench --job NAME SIZE DIRECTORY
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

#include "bench/bench_support.h"
#include "bench/figure.h"

int main(int argc, char **argv)
{
    if (argc == 5 && std::string_view(argv[1]) == "--job") {
        return bench::RunJob(argv[2], {argv[4], strtoull(argv[3], nullptr, 10)});
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::ConsoleReporter progress(benchmark::ConsoleReporter::OO_None);
    progress.SetOutputStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&progress);
    bench::WriteTable(std::cout);
    return 0;
}
