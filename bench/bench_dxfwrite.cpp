// Speed of the DXF group writer, with no drawing involved:
//   DxfWriteAscii/DxfWriteBinary  200k CIRCLE-like records (groups 0, 8,
//                        62, 10, 20, 30, 40) through the open output, to
//                        /dev/null (arg 0) or a file in the temp dir (arg 1);
//                        bytes per second
//   DxfFormatReal        the ASCII form of one real, precision 6 and full
//                        (arg 1); values per second
//   SnprintfReal         "%.6f" by snprintf, for comparison
//
// Run: build/bench/zemacad_bench_toolkit --benchmark_filter=Dxf
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <vector>

#include "driver/hooks.h"
#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"

namespace {

constexpr size_t kRecords = 200'000;

struct Circle {
    ksPoint3 center;
    double radius;
    int16_t color;
};

const std::vector<Circle>& circles()
{
    static const std::vector<Circle> all = [] {
        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> coordinate(-1e4, 1e4), radius(0.0, 100.0);
        std::vector<Circle> c(kRecords);
        for (Circle& x : c)
            x = {{coordinate(random), coordinate(random), 0.0}, radius(random), static_cast<int16_t>(random() % 256)};
        return c;
    }();
    return all;
}

bool writeCircles(ksFcb* target)
{
    bool ok = ksDxfOpenOutput(target) != 0;
    for (const Circle& c : circles()) {
        ok = ok && ksDxfWriteText(target, 0, "CIRCLE") && ksDxfWriteText(target, 8, "WALLS-1") &&
             ksDxfWriteInt16(target, 62, c.color) && ksDxfWritePoint3(target, 10, c.center) &&
             ksDxfWriteReal(target, 40, c.radius);
    }
    return ksDxfCloseOutput(target) && ok;
}

// Bytes of one pass, counted in memory.
size_t passBytes(uint8_t fileType)
{
    char* data = nullptr;
    size_t size = 0;
    auto target = std::make_unique<ksFcb>();
    target->fileType = fileType;
    target->outputVersion = ksAC1015;
    target->outputFile = open_memstream(&data, &size);
    writeCircles(target.get());
    std::fclose(target->outputFile);
    std::free(data);
    return size;
}

void writeStream(benchmark::State& state, uint8_t fileType)
{
    ksDxfSetFormat(0, 6, 0);
    const auto path = state.range(0) == 0
                          ? std::filesystem::path("/dev/null")
                          : std::filesystem::temp_directory_path() / "zemacad_bench_dxfwrite.dxf";
    const size_t bytes = passBytes(fileType);
    auto target = std::make_unique<ksFcb>();
    target->fileType = fileType;
    target->outputVersion = ksAC1015;
    for (auto _ : state) {
        target->outputFile = ksFileOpen(path.c_str(), "w+b");
        if (target->outputFile == nullptr || !writeCircles(target.get()))
            state.SkipWithError("the stream could not be written");
        ksFileCloseOutput(target->outputFile);
    }
    if (state.range(0) != 0)
        std::filesystem::remove(path);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void DxfWriteAscii(benchmark::State& state) { writeStream(state, 1); }
void DxfWriteBinary(benchmark::State& state) { writeStream(state, 2); }

void DxfFormatReal(benchmark::State& state)
{
    ksDxfSetFormat(0, 6, 0);
    const bool full = state.range(0) != 0;
    char text[ksDxfRealTextMax];
    for (auto _ : state) {
        size_t total = 0;
        for (const Circle& c : circles())
            total += full ? ksDxfFormatRealFull(c.center.x, text) : ksDxfFormatReal(c.center.x, text);
        benchmark::DoNotOptimize(total);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRecords));
}

void SnprintfReal(benchmark::State& state)
{
    char text[64];
    for (auto _ : state) {
        size_t total = 0;
        for (const Circle& c : circles())
            total += static_cast<size_t>(std::snprintf(text, sizeof text, "%.6f", c.center.x));
        benchmark::DoNotOptimize(total);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRecords));
}

}  // namespace

BENCHMARK(DxfWriteAscii)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(DxfWriteBinary)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(DxfFormatReal)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(SnprintfReal)->Unit(benchmark::kMillisecond);
