// Speed of the first steps of a load, over the drawing corpus:
//   Sniff/<folder>      ksSniffBytes over the first ksSniffSize bytes of
//                       every file (bytes per second of those heads)
//   LoadStart/<folder>  ksLoadDrawing and ksCloseDrawing of every file
//                       (files per second): detection, open and whatever
//                       the load gets through
//   LoadDwg/<release>   whole loads of the R13, R14 and R2000 DWG files
//                       (bytes per second of the files that load
//                       completely; `loaded` counts them)
//   DwgToDxf/<release>  DWG to DXF as the command line converts (load, then
//   DwgToDxf/all        save as R14 ASCII DXF to /dev/null) of every R13,
//                       R14 and R2000 DWG: bytes per second of the DWG
//                       files that convert; `converted` counts them, and
//                       `peakPerInput` is the largest ratio over one file of
//                       what the load holds at its end (the file image and
//                       the store) less 128 KiB to the file's size,
//                       `peakMiB` the largest such amount
// One benchmark per corpus folder (dwg, dxf, dxf-binary), plus Sniff/all.
//
// Run: build/bench/zemacad_bench [--benchmark_filter=Sniff]
// The corpus is $ZEMACAD_CORPUS, else <source dir>/../shared/corpus.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "frame/globals.h"
#include "frame/load.h"
#include "frame/readerops.h"
#include "frame/save.h"
#include "store/vm.h"

namespace fs = std::filesystem;

namespace {

struct Sample {
    std::string path;
    size_t bytes = 0;   // the whole file
    std::vector<uint8_t> head;  // at most ksSniffSize bytes
};

struct Folder {
    std::string name;
    std::vector<Sample> samples;
    size_t headBytes = 0;
};

fs::path corpusRoot()
{
    const char* env = std::getenv("ZEMACAD_CORPUS");
    if (env != nullptr && *env != '\0')
        return env;
    return fs::path(ZEMACAD_SOURCE_DIR) / ".." / "shared" / "corpus";
}

Folder readFolder(const fs::path& root, const std::string& name)
{
    Folder folder;
    folder.name = name;
    std::error_code ec;
    std::vector<fs::path> paths;
    for (fs::recursive_directory_iterator it(root / name, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_regular_file(ec))
            paths.push_back(it->path());
    }
    std::sort(paths.begin(), paths.end());
    for (const fs::path& path : paths) {
        std::ifstream in(path, std::ios::binary);
        Sample sample;
        sample.path = path.string();
        sample.head.resize(ksSniffSize);
        in.read(reinterpret_cast<char*>(sample.head.data()), static_cast<std::streamsize>(ksSniffSize));
        sample.head.resize(static_cast<size_t>(in.gcount()));
        folder.headBytes += sample.head.size();
        sample.bytes = static_cast<size_t>(fs::file_size(path, ec));
        folder.samples.push_back(std::move(sample));
    }
    return folder;
}

void sniffAll(benchmark::State& state, const std::vector<const Folder*>& folders)
{
    size_t bytes = 0;
    for (const Folder* folder : folders)
        bytes += folder->headBytes;
    for (auto _ : state) {
        for (const Folder* folder : folders) {
            for (const Sample& sample : folder->samples) {
                ksSniff sniff = ksSniffBytes(std::span<const uint8_t>(sample.head));
                benchmark::DoNotOptimize(sniff);
            }
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void loadStart(benchmark::State& state, const Folder* folder)
{
    int64_t loaded = 0;
    int64_t loadedBytes = 0;
    for (auto _ : state) {
        for (const Sample& sample : folder->samples) {
            ksSetError(0);
            ksFcb* fcb = ksLoadDrawing(sample.path.c_str(), 1, 0);
            if (fcb != nullptr) {
                ++loaded;
                loadedBytes += static_cast<int64_t>(sample.bytes);
                ksCloseDrawing(fcb);
            }
            benchmark::DoNotOptimize(fcb);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * folder->samples.size()));
    // Bytes of the files that loaded completely: a load that stops early
    // says nothing about speed.
    state.SetBytesProcessed(loadedBytes);
    state.counters["loaded"] = benchmark::Counter(static_cast<double>(loaded) / static_cast<double>(state.iterations()));
}

// What any drawing holds whatever its size (tables, dictionaries, the
// store's first chunks): left out of the ratio to the input.
constexpr double kHeldConstant = 128.0 * 1024;

// Load and save as DXF, file after file. The store is measured right after
// the load, when the drawing is whole and the file image still held.
void dwgToDxf(benchmark::State& state, std::vector<const Folder*> folders)
{
    int64_t converted = 0;
    int64_t convertedBytes = 0;
    double peakRatio = 0.0, peakBytes = 0.0;
    for (auto _ : state) {
        for (const Folder* folder : folders) {
            for (const Sample& sample : folder->samples) {
                ksSetError(0);
                const size_t before = ksVmBytesInUse();
                ksFcb* fcb = ksLoadDrawing(sample.path.c_str(), 1, 0);
                if (fcb == nullptr)
                    continue;
                const double held = static_cast<double>(ksVmBytesInUse() - before + sample.bytes);
                peakBytes = std::max(peakBytes, held);
                peakRatio = std::max(peakRatio, (held - kHeldConstant) / static_cast<double>(sample.bytes));
                if (ksSaveDrawing(fcb, "/dev/null", 1, ksAC1014, 0, 6, 1, 0)) {
                    ++converted;
                    convertedBytes += static_cast<int64_t>(sample.bytes);
                }
                ksCloseDrawing(fcb);
            }
        }
    }
    state.SetBytesProcessed(convertedBytes);
    state.counters["converted"] =
        benchmark::Counter(static_cast<double>(converted) / static_cast<double>(state.iterations()));
    state.counters["peakPerInput"] = peakRatio;
    state.counters["peakMiB"] = peakBytes / (1024.0 * 1024.0);
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;

    fs::path root = corpusRoot();
    std::error_code ec;
    if (!fs::is_directory(root, ec)) {
        std::printf("zemacad_bench: corpus not found at %s (set ZEMACAD_CORPUS): nothing measured\n",
                    root.c_str());
        return 0;
    }

    int16_t error = 0;
    if (ksInit(ZEMACAD_BENCH_INIT_FILE, 0, &error) == 0) {
        std::fprintf(stderr, "zemacad_bench: init from %s failed with error %d\n", ZEMACAD_BENCH_INIT_FILE,
                     error);
        return 1;
    }
    ksInstallDxfReader();
    ksInstallDwgReader();

    // Kept alive until the run ends: the benchmarks point into them.
    std::vector<Folder> folders;
    for (const char* name : {"dwg", "dxf", "dxf-binary", "dwg/AC1012", "dwg/AC1014", "dwg/AC1015"}) {
        if (fs::is_directory(root / name, ec))
            folders.push_back(readFolder(root, name));
    }
    std::vector<const Folder*> all;
    for (const Folder& folder : folders) {
        if (folder.samples.empty())
            continue;
        all.push_back(&folder);
        if (!folder.name.starts_with("dwg/"))
            benchmark::RegisterBenchmark(("Sniff/" + folder.name).c_str(), sniffAll,
                                         std::vector<const Folder*>{&folder});
    }
    if (all.empty()) {
        std::printf("zemacad_bench: no drawings under %s: nothing measured\n", root.c_str());
        ksShutdown();
        return 0;
    }
    std::vector<const Folder*> top;
    for (const Folder* folder : all)
        if (!folder->name.starts_with("dwg/"))
            top.push_back(folder);
    benchmark::RegisterBenchmark("Sniff/all", sniffAll, top);
    for (const Folder* folder : all) {
        const bool release = folder->name.starts_with("dwg/");
        const std::string name = release ? "LoadDwg/" + folder->name.substr(4) : "LoadStart/" + folder->name;
        benchmark::RegisterBenchmark(name.c_str(), loadStart, folder);
    }

    std::vector<const Folder*> releases;
    for (const Folder* folder : all) {
        if (folder->name.starts_with("dwg/")) {
            releases.push_back(folder);
            benchmark::RegisterBenchmark(("DwgToDxf/" + folder->name.substr(4)).c_str(), dwgToDxf,
                                         std::vector<const Folder*>{folder});
        }
    }
    if (!releases.empty())
        benchmark::RegisterBenchmark("DwgToDxf/all", dwgToDxf, releases);

    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    ksShutdown();
    return 0;
}
