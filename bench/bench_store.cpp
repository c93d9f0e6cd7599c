// Speed of the drawing store's containers, with no drawing involved:
//   BtreeAdd/BtreeFind   1M handles added in random order, then each one
//                        looked up (handles per second)
//   ListAppend/ListWalk  1M nodes allocated and appended, then walked
//                        through the list's cursor (nodes per second)
//   BlobWrite/BlobRead   100 MB through one blob in 16-byte items (items
//                        and bytes per second)
//
// Run: build/bench/zemacad_bench_store [--benchmark_filter=Blob]
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/list.h"

namespace {

constexpr uint32_t kHandles = 1'000'000;
constexpr uint32_t kNodes = 1'000'000;
constexpr uint32_t kBlobBytes = 100u << 20;
constexpr uint16_t kItem = 16;

const std::vector<uint64_t>& shuffledKeys()
{
    static const std::vector<uint64_t> keys = [] {
        std::vector<uint64_t> k(kHandles);
        std::iota(k.begin(), k.end(), uint64_t{1});
        std::shuffle(k.begin(), k.end(), std::mt19937_64(1));
        return k;
    }();
    return keys;
}

ksFcb* treeOf(const std::vector<uint64_t>& keys)
{
    ksFcb* fcb = ksNewFcb();
    for (uint64_t k : keys)
        ksBtreeAdd(fcb, ksHandleFromU64(k), static_cast<ksLoc>(k));
    return fcb;
}

void dropTree(ksFcb* fcb)
{
    ksBtreeFree(fcb);
    ksFreeFcb(fcb);
}

void BtreeAdd(benchmark::State& state)
{
    const auto& keys = shuffledKeys();
    for (auto _ : state) {
        ksFcb* fcb = treeOf(keys);
        state.PauseTiming();
        if (ksBtreeCount(fcb) != kHandles)
            state.SkipWithError("handles went missing");
        dropTree(fcb);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kHandles);
}

void BtreeFind(benchmark::State& state)
{
    const auto& keys = shuffledKeys();
    ksFcb* fcb = treeOf(keys);
    std::vector<uint64_t> probes = keys;
    std::shuffle(probes.begin(), probes.end(), std::mt19937_64(2));
    for (auto _ : state) {
        ksLoc sum = 0;
        for (uint64_t k : probes)
            sum += ksBtreeFind(fcb, ksHandleFromU64(k));
        benchmark::DoNotOptimize(sum);
    }
    dropTree(fcb);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kHandles);
}

ksLoc listOf(uint32_t n)
{
    ksLoc list = ksListNew();
    for (uint32_t i = 0; i < n; ++i)
        ksListAppend(list, ksListAddNode(ksListNodeHeaderSize + 8));
    return list;
}

void ListAppend(benchmark::State& state)
{
    for (auto _ : state) {
        ksLoc list = listOf(kNodes);
        state.PauseTiming();
        ksListFree(list);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kNodes);
}

void ListWalk(benchmark::State& state)
{
    ksLoc list = listOf(kNodes);
    for (auto _ : state) {
        uint32_t seen = 0;
        for (ksListRewind(list); ksListCurrent(list) != 0; ksListNext(list))
            ++seen;
        if (seen != kNodes)
            state.SkipWithError("walk came up short");
    }
    ksListFree(list);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kNodes);
}

void fillBlob(ksLoc blob)
{
    uint8_t item[kItem];
    ksBlobCursor* cursor = ksBlobOpenWrite(blob);
    for (uint32_t i = 0; i < kBlobBytes / kItem; ++i) {
        std::fill(item, item + kItem, static_cast<uint8_t>(i));
        ksBlobWrite(cursor, item, kItem);
    }
    ksBlobCloseWrite(cursor);
}

void BlobWrite(benchmark::State& state)
{
    ksLoc blob = ksBlobNew();
    for (auto _ : state) {
        fillBlob(blob);  // each write drops the previous content
        if (ksBlobSize(blob) != kBlobBytes)
            state.SkipWithError("blob came out short");
    }
    ksBlobFree(blob);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * (kBlobBytes / kItem));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBlobBytes);
}

void BlobRead(benchmark::State& state)
{
    ksLoc blob = ksBlobNew();
    fillBlob(blob);
    for (auto _ : state) {
        uint8_t item[kItem];
        uint32_t sum = 0;
        ksBlobCursor* cursor = ksBlobOpenRead(blob);
        while (ksBlobRead(cursor, item, kItem))
            sum += item[0];
        ksBlobCloseRead(cursor);
        benchmark::DoNotOptimize(sum);
    }
    ksBlobFree(blob);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * (kBlobBytes / kItem));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBlobBytes);
}

BENCHMARK(BtreeAdd)->Unit(benchmark::kMillisecond);
BENCHMARK(BtreeFind)->Unit(benchmark::kMillisecond);
BENCHMARK(ListAppend)->Unit(benchmark::kMillisecond);
BENCHMARK(ListWalk)->Unit(benchmark::kMillisecond);
BENCHMARK(BlobWrite)->Unit(benchmark::kMillisecond);
BENCHMARK(BlobRead)->Unit(benchmark::kMillisecond);

}  // namespace
