// Speed of the DWG bit codes, with no file involved:
//   BitRead    a stream of 200k records of mixed codes (BS, BL, BD, RD, H,
//              T), written once, decoded from its start (bytes per second)
//   BitWrite   the same records coded into a writer reset before each pass
//   Crc16      the object CRC over 1 MB
//
// Run: build/bench/zemacad_bench_toolkit --benchmark_filter='Bit|Crc'
#include <benchmark/benchmark.h>

#include <bit>
#include <random>
#include <string>
#include <vector>

#include "dwgread/bitcodes.h"
#include "store/handles.h"

namespace {

constexpr size_t kRecords = 200'000;

struct Record {
    uint16_t bs;
    uint32_t bl;
    double bd;
    double rd;
    ksObjHandle handle;
    const char* text;
};

// Values with the spread of drawing data: many zeros and small counts,
// round coordinates as well as arbitrary ones, short names.
const std::vector<Record>& records()
{
    static const std::vector<Record> all = [] {
        static const char* const names[] = {"", "0", "DEFPOINTS", "CONTINUOUS", "A-WALL-FULL", "Standard",
                                            "*Model_Space", "DIMENSION TEXT STYLE 1"};
        std::mt19937_64 rng(11);
        std::vector<Record> v(kRecords);
        for (Record& r : v) {
            const uint64_t x = rng();
            r.bs = static_cast<uint16_t>(x % 4 == 0 ? 0 : x % 4 == 1 ? 256 : x % 4 == 2 ? x % 200 : x >> 48);
            r.bl = static_cast<uint32_t>((x >> 8) % 3 == 0 ? 0 : (x >> 8) % 3 == 1 ? (x >> 16) % 250 : x >> 32);
            r.bd = (x >> 20) % 3 == 0 ? 0.0 : (x >> 20) % 3 == 1 ? 1.0 : std::ldexp(double(x >> 30), -20);
            r.rd = std::bit_cast<double>((rng() >> 2) | 0x3000000000000000ull);
            r.handle = ksHandleFromU64(rng() % (x % 2 ? 0x100 : 0x100000));
            r.text = names[rng() % std::size(names)];
        }
        return v;
    }();
    return all;
}

void writeAll(ksBitWriter& w)
{
    for (const Record& r : records()) {
        ksWriteBS(w, r.bs);
        ksWriteBL(w, r.bl);
        ksWriteBD(w, r.bd);
        ksWriteRD(w, r.rd);
        ksWriteHandle(w, r.handle, 0x50);
        ksWriteText(w, r.text);
    }
}

void BitRead(benchmark::State& state)
{
    ksBitWriter w{};
    ksResetBits(w, ksAC1015);
    writeAll(w);
    const size_t bytes = ksBitWriterBytes(w);
    char text[256];
    for (auto _ : state) {
        ksBitReader r{};
        ksBitReaderOpen(r, w.data, bytes, 0);
        double sum = 0;
        for (size_t i = 0; i < kRecords; ++i) {
            ksObjHandle h;
            sum += ksReadBS(r) + ksReadBL(r);
            sum += ksReadBDValue(r) + ksReadRDValue(r);
            sum += ksReadHandle(r, &h) + h.bytes[7];
            sum += ksReadText(r, text, 255) + text[0];
        }
        benchmark::DoNotOptimize(sum);
        if (r.bad)
            state.SkipWithError("the stream read as bad");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
    ksBitWriterFree(w);
}
BENCHMARK(BitRead)->Unit(benchmark::kMillisecond);

void BitWrite(benchmark::State& state)
{
    ksBitWriter w{};
    ksResetBits(w, ksAC1015);
    writeAll(w);  // the buffer at its full size before timing
    for (auto _ : state) {
        ksResetBits(w, ksAC1015);
        writeAll(w);
        benchmark::DoNotOptimize(w.data);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(ksBitWriterBytes(w)));
    ksBitWriterFree(w);
}
BENCHMARK(BitWrite)->Unit(benchmark::kMillisecond);

void Crc16(benchmark::State& state)
{
    std::vector<uint8_t> data(1 << 20);
    std::mt19937 rng(5);
    for (uint8_t& b : data)
        b = static_cast<uint8_t>(rng());
    for (auto _ : state)
        benchmark::DoNotOptimize(ksCrc16(ksCrcSeed, data.data(), data.size()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}
BENCHMARK(Crc16)->Unit(benchmark::kMicrosecond);

}  // namespace
