// Speed of the entity lists, with no file involved (entities per second):
//   EntityAppend          1M LINEs packed, appended and indexed
//   EntityWalk            1M LINEs unpacked through the list's cursor
//   InsertsWithAttributes 100k INSERTs, each followed by two ATTRIBs and a
//                         SEQEND (400k entities)
//   EntityReplace         100k LINEs replaced in place by their like
//
// Run: build/bench/zemacad_bench_entities [--benchmark_filter=Walk]
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/entity.h"
#include "records/tables.h"
#include "store/btree.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/tablelist.h"

namespace {

constexpr uint32_t kLines = 1'000'000;
constexpr uint32_t kInserts = 100'000;
constexpr uint32_t kReplaced = 100'000;
constexpr uint64_t kFirstHandle = 0x100;
constexpr uint64_t kBlock = 0x40;

// A drawing with one block, and an entity list of its own.
struct Drawing {
    ksFcb* fcb = ksNewFcb();
    ksLoc list = ksListNew();

    Drawing()
    {
        ksBlockHeader block;
        ksBlockHeaderDefaults(&block);
        std::snprintf(block.name, sizeof block.name, "DOOR");
        block.entryHandle = ksHandleFromU64(kBlock);
        ksBlockHeaderAdd(fcb, &block);
    }
    ~Drawing()
    {
        ksEntityListFree(fcb, list);
        ksTablesFree(fcb);
        ksBtreeFree(fcb);
        ksFreeFcb(fcb);
    }
    Drawing(const Drawing&) = delete;
    Drawing& operator=(const Drawing&) = delete;
};

// An entity of the type on a layer of a 2-byte handle.
void entity(int16_t type, uint64_t handle, ksEntityHeader& h, ksEntityBody& b)
{
    ksEntityDefaults(&h, &b, type);
    h.handle = ksHandleFromU64(handle);
    h.layerHandle = ksHandleFromU64(0x1F3);
}

bool appendLines(const Drawing& d, uint32_t count, double x)
{
    ksEntityHeader h;
    ksEntityBody b;
    entity(ksEntLine, 0, h, b);
    for (uint32_t i = 0; i < count; ++i) {
        h.handle = ksHandleFromU64(kFirstHandle + i);
        b.line.start = {x, static_cast<double>(i), 0};
        b.line.end = {x + 1, static_cast<double>(i), 0};
        if (!ksEntityAppend(d.fcb, d.list, &h, &b))
            return false;
    }
    return true;
}

void EntityAppend(benchmark::State& state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto* d = new Drawing;
        state.ResumeTiming();
        if (!appendLines(*d, kLines, 0))
            state.SkipWithError("an append failed");
        state.PauseTiming();
        delete d;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kLines);
}

void EntityWalk(benchmark::State& state)
{
    Drawing d;
    if (!appendLines(d, kLines, 0))
        state.SkipWithError("an append failed");
    ksEntityHeader h;
    ksEntityBody b;
    for (auto _ : state) {
        uint32_t seen = 0;
        double sum = 0;
        for (ksListRewind(d.list); ksEntityRead(d.fcb, d.list, &h, &b); ++seen)
            sum += b.line.start.y;
        benchmark::DoNotOptimize(sum);
        if (seen != kLines)
            state.SkipWithError("the walk came up short");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kLines);
}

void InsertsWithAttributes(benchmark::State& state)
{
    ksEntityHeader insert, attrib, seqend;
    ksEntityBody insertBody, attribBody, seqendBody;
    entity(ksEntInsert, 0, insert, insertBody);
    insertBody.insert.blockHandle = ksHandleFromU64(kBlock);
    insertBody.insert.hasAttributes = 1;
    entity(ksEntAttrib, 0, attrib, attribBody);
    std::strcpy(attribBody.attrib.tag, "PART");
    std::strcpy(attribBody.attrib.value, "D-1200");
    entity(ksEntSeqend, 0, seqend, seqendBody);
    for (auto _ : state) {
        state.PauseTiming();
        auto* d = new Drawing;
        state.ResumeTiming();
        uint64_t handle = kFirstHandle;
        bool ok = true;
        for (uint32_t i = 0; i < kInserts && ok; ++i) {
            insert.handle = ksHandleFromU64(handle++);
            insertBody.insert.insertion = {static_cast<double>(i), 0, 0};
            ok = ksEntityAppend(d->fcb, d->list, &insert, &insertBody);
            for (int a = 0; a < 2 && ok; ++a) {
                attrib.handle = ksHandleFromU64(handle++);
                ok = ksEntityAppend(d->fcb, d->list, &attrib, &attribBody);
            }
            seqend.handle = ksHandleFromU64(handle++);
            ok = ok && ksEntityAppend(d->fcb, d->list, &seqend, &seqendBody);
        }
        if (!ok)
            state.SkipWithError("an append failed");
        state.PauseTiming();
        delete d;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kInserts * 4);
}

void EntityReplace(benchmark::State& state)
{
    Drawing d;
    if (!appendLines(d, kReplaced, 0))
        state.SkipWithError("an append failed");
    ksEntityHeader h;
    ksEntityBody b;
    entity(ksEntLine, 0, h, b);
    double x = 0;
    for (auto _ : state) {
        x += 1;
        for (uint32_t i = 0; i < kReplaced; ++i) {
            h.handle = ksHandleFromU64(kFirstHandle + i);
            b.line.start = {x, static_cast<double>(i), 0};
            if (!ksEntityReplace(d.fcb, d.list, h.handle, &h, &b)) {
                state.SkipWithError("a replace failed");
                break;
            }
        }
    }
    if (ksListCount(d.list) != kReplaced)
        state.SkipWithError("the list changed its length");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kReplaced);
}

BENCHMARK(EntityAppend)->Unit(benchmark::kMillisecond);
BENCHMARK(EntityWalk)->Unit(benchmark::kMillisecond);
BENCHMARK(InsertsWithAttributes)->Unit(benchmark::kMillisecond);
BENCHMARK(EntityReplace)->Unit(benchmark::kMillisecond);

}  // namespace
