// Speed of the entity step of a load (ksLoadEntity) on DXF input: LINE
// entities whose layer names alternate over 10 000 layers, so that the
// one-entry cache almost never serves and every layer goes through the
// name index. Entities per second should not fall as the count grows.
//   LoadEntity/100000, LoadEntity/1000000
//
// Run: build/bench/zemacad_bench_load_entity
#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

#include "bridge/upgrade.h"
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

constexpr int kLayers = 10'000;

const std::vector<std::vector<char>>& layerNames()
{
    static const std::vector<std::vector<char>> names = [] {
        std::vector<std::vector<char>> n(kLayers, std::vector<char>(16));
        for (int i = 0; i < kLayers; ++i)
            std::snprintf(n[i].data(), n[i].size(), "Layer%05d", i);
        return n;
    }();
    return names;
}

ksFcb* drawing()
{
    ksFcb* fcb = ksNewFcb();
    fcb->isDxf = 1;
    fcb->fileVersion = ksAC1009;
    fcb->nextHandle = ksHandleFromU64(0x100);
    fcb->modelEntities = ksListNew();
    fcb->paperEntities = ksListNew();
    ksLinetype linetype{};
    std::snprintf(linetype.name, sizeof linetype.name, "ByLayer");
    ksHandleNext(fcb, &linetype.entryHandle);
    fcb->byLayerHandle = linetype.entryHandle;
    ksLinetypeAdd(fcb, &linetype);
    for (const auto& name : layerNames()) {
        ksLayer layer;
        ksLayerDefaults(fcb, &layer);
        std::snprintf(layer.name, sizeof layer.name, "%s", name.data());
        ksHandleNext(fcb, &layer.entryHandle);
        ksLayerAdd(fcb, &layer);
    }
    return fcb;
}

void drop(ksFcb* fcb)
{
    ksLoadEntityCacheFree(fcb);
    ksEntityListFree(fcb, fcb->modelEntities);
    ksEntityListFree(fcb, fcb->paperEntities);
    ksTablesFree(fcb);
    ksBtreeFree(fcb);
    ksFreeFcb(fcb);
}

void LoadEntity(benchmark::State& state)
{
    const int64_t count = state.range(0);
    const auto& names = layerNames();
    ksEntityRefs refs;
    ksEntityRefsClear(&refs);
    refs.linetypeName = "BYLAYER";
    ksEntityHeader header;
    ksEntityBody body;
    for (auto _ : state) {
        state.PauseTiming();
        ksFcb* fcb = drawing();
        state.ResumeTiming();
        for (int64_t i = 0; i < count; ++i) {
            ksEntityDefaults(&header, &body, ksEntLine);
            body.line.end = {static_cast<double>(i), 1.0, 0.0};
            refs.layerName = names[static_cast<size_t>(i * 7919 % kLayers)].data();
            if (ksLoadEntity(fcb, fcb->modelEntities, fcb->paperEntities, 0, 0, &header, &body, &refs) == 0) {
                state.SkipWithError("ksLoadEntity failed");
                break;
            }
        }
        state.PauseTiming();
        drop(fcb);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
}

BENCHMARK(LoadEntity)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

}  // namespace
