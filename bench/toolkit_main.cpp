// The main of the benchmarks that need no drawing files: the toolkit is
// brought up once from the build's init data, then every registered
// benchmark runs.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "frame/globals.h"

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    int16_t error = 0;
    if (ksInit(ZEMACAD_BENCH_INIT_FILE, 0, &error) == 0) {
        std::fprintf(stderr, "zemacad_bench_toolkit: init from %s failed with error %d\n", ZEMACAD_BENCH_INIT_FILE,
                     error);
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    ksShutdown();
    return 0;
}
