// Speed of the OBJECTS section against the number of objects, to show that
// no walk over the objects is quadratic (owner chains, the objects left
// out, dictionary entries):
//   DxfSaveObjects/N   a drawing of N dictionaries in two levels under one
//                      dictionary of the root (100 entries each), built once
//                      per N, saved as R2000 and R14 ASCII DXF to /dev/null;
//                      objects per second, which must not fall as N grows
//                      from 10k to 100k
//
// Run: build/bench/zemacad_bench_toolkit --benchmark_filter=DxfSaveObjects
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/newdrawing.h"
#include "frame/save.h"
#include "records/object.h"
#include "store/blob.h"
#include "store/handles.h"

namespace {

// A dictionary whose entries are the given handles, named by number.
bool addDictionary(ksFcb* fcb, const ksObjHandle& self, const ksObjHandle& owner,
                   const std::vector<ksObjHandle>& entries)
{
    ksObjectHeader head{};
    ksObjectBody body;
    head.kind = ksKindDictionary;
    ksObjectDefaults(fcb, &head, &body);
    head.handle = self;
    if (!ksObjectSetOwner(&head, owner))
        return false;
    body.dictionary.entryCount = static_cast<int32_t>(entries.size());
    body.dictionary.entries = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(body.dictionary.entries);
    bool ok = out != nullptr;
    ksDictionaryEntry entry{};
    for (size_t i = 0; ok && i < entries.size(); ++i) {
        std::snprintf(entry.name, sizeof entry.name, "ITEM%zu", i);
        entry.handle = entries[i];
        ok = ksDictionaryEntryWrite(out, entry) != 0;
    }
    return ksBlobCloseWrite(out) && ok && ksObjectAdd(fcb, &head, &body);
}

// The root gets one more entry, "ZEMBENCH", for the tree.
bool addToRoot(ksFcb* fcb, const ksObjHandle& top, ksObjHandle* root)
{
    ksObjectHeader head{};
    ksObjectBody body;
    ksObjectRewind(fcb);
    if (!ksObjectNext(fcb, &head, &body) || head.kind != ksKindDictionary)
        return false;
    *root = head.handle;
    ksLoc grown = ksBlobNew();
    ksBlobCursor* in = ksBlobOpenRead(body.dictionary.entries);
    ksBlobCursor* out = ksBlobOpenWrite(grown);
    ksDictionaryEntry entry{};
    bool ok = out != nullptr;
    for (int32_t i = 0; ok && in && i < body.dictionary.entryCount && ksDictionaryEntryRead(in, &entry); ++i)
        ok = ksDictionaryEntryWrite(out, entry) != 0;
    ksBlobCloseRead(in);
    entry = ksDictionaryEntry{};
    std::snprintf(entry.name, sizeof entry.name, "ZEMBENCH");
    entry.handle = top;
    ok = ok && ksDictionaryEntryWrite(out, entry);
    if (!ksBlobCloseWrite(out) || !ok)
        return false;
    ksBlobFree(body.dictionary.entries);
    body.dictionary.entries = grown;
    ++body.dictionary.entryCount;
    return ksObjectReplace(fcb, &head, &body) != 0;
}

ksFcb* buildDrawing(int64_t count)
{
    ksFcb* fcb = ksNewDrawing(nullptr, nullptr, 0, ksAC1015);
    if (fcb == nullptr)
        return nullptr;
    ksObjHandle top, root;
    ksHandleNext(fcb, &top);
    if (!addToRoot(fcb, top, &root))
        return nullptr;
    constexpr int64_t kFanOut = 100;
    std::vector<ksObjHandle> middles, leaves;
    for (int64_t made = 0; made < count; made += kFanOut + 1) {
        ksObjHandle middle;
        ksHandleNext(fcb, &middle);
        middles.push_back(middle);
        leaves.assign(kFanOut, ksObjHandle{});
        for (ksObjHandle& leaf : leaves)
            ksHandleNext(fcb, &leaf);
        // The leaves go in before their owner: the owner chains must be
        // followed forwards as well as backwards.
        for (const ksObjHandle& leaf : leaves)
            if (!addDictionary(fcb, leaf, middle, {}))
                return nullptr;
        if (!addDictionary(fcb, middle, top, leaves))
            return nullptr;
    }
    return addDictionary(fcb, top, root, middles) ? fcb : nullptr;
}

void DxfSaveObjects(benchmark::State& state)
{
    // One drawing per size, kept for the run (the toolkit closes them at
    // its shutdown).
    static std::map<int64_t, ksFcb*> drawings;
    ksFcb*& fcb = drawings[state.range(0)];
    if (fcb == nullptr)
        fcb = buildDrawing(state.range(0));
    if (fcb == nullptr) {
        state.SkipWithError("the drawing could not be built");
        return;
    }
    const int16_t version = static_cast<int16_t>(state.range(1));
    for (auto _ : state) {
        if (!ksSaveDrawing(fcb, "/dev/null", 1, version, 0, 6, 1, 0))
            state.SkipWithError("the drawing could not be saved");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ksObjectCount(fcb)));
}

}  // namespace

BENCHMARK(DxfSaveObjects)
    ->Args({10'000, ksAC1015})
    ->Args({100'000, ksAC1015})
    ->Args({10'000, ksAC1014})
    ->Args({100'000, ksAC1014})
    ->Unit(benchmark::kMillisecond);
