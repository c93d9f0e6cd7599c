// Speed of a whole load (ksLoadDrawing) through the reader table, with a
// scripted reader in place of the DXF one: N LINE entities on 10 000
// layers that alternate (entity i on layer i % 10000), so the entity step
// resolves every layer name through its name index. The file the load
// opens is a small DXF stub of AC1014; everything else comes from the
// slots below. Entities per second should not fall as N grows.
//   ScriptedLoad/100000, ScriptedLoad/1000000
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "frame/readerops.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/tables.h"
#include "store/handles.h"

namespace {

constexpr int kLayers = 10'000;

// What the reader serves and where it stands.
struct Script {
    std::vector<std::string> layerNames;
    int64_t entities = 0;  // of the main list
    int layerAt = 0;
    int64_t entityAt = 0;
    int64_t entityEnd = 0;  // the list being served ends here
};
Script script;

int16_t readHeader(ksFcb* fcb)
{
    fcb->handlesEnabled = 1;
    fcb->handleSeed = ksHandleFromU64(0x100);
    fcb->visRetain = 0;
    fcb->header->HANDLING = 1;
    fcb->header->HANDSEED = fcb->handleSeed;
    fcb->header->VISRETAIN = 0;
    for (int32_t& count : fcb->tableCount)
        count = 0;
    fcb->tableCount[ksHeadLayers] = kLayers;
    return 1;
}

int16_t startLayers(ksFcb*)
{
    script.layerAt = 0;
    return 1;
}

int16_t readLayer(ksFcb*, ksLayer* record, int16_t* hasExtended)
{
    if (script.layerAt >= kLayers)
        return 0;
    const std::string& name = script.layerNames[static_cast<size_t>(script.layerAt++)];
    std::snprintf(record->name, sizeof record->name, "%s", name.c_str());
    ksNoteLayerLinetypeName("Continuous");
    *hasExtended = 0;
    return 1;
}

int16_t startEntities(ksFcb*)
{
    script.entityAt = 0;
    script.entityEnd = script.entities;
    return 1;
}

// The blocks (the two spaces only) have no entities.
int16_t startBlockEntities(ksFcb*)
{
    script.entityAt = script.entityEnd = 0;
    return 1;
}

// A LINE on its layer, by name as DXF gives it; 0 at the end, the error
// number left as it stands.
int16_t readEntity(ksFcb*, ksEntityHeader* header, void* body, int16_t* hasExtended)
{
    if (script.entityAt >= script.entityEnd)
        return 0;
    const int64_t i = script.entityAt++;
    ksEntityDefaults(header, body, ksEntLine);
    static_cast<ksEntityBody*>(body)->line.end = {static_cast<double>(i), 1.0, 0.0};
    ksG->entityRefs.layerName = script.layerNames[static_cast<size_t>(i % kLayers)].c_str();
    *hasExtended = 0;
    return 1;
}

int16_t started(ksFcb*) { return 1; }
int16_t noObject(ksFcb*) { return 0; }
int16_t noBlockRecord(ksFcb*, ksBlockHeader*) { return 0; }
int16_t noClass(ksFcb*, ksClass*) { return 0; }

ksReaderOps scriptedOps()
{
    ksReaderOps ops{};
    ops.readHeader = readHeader;
    ops.readLayer = readLayer;
    ops.readEntity = readEntity;
    ops.nextObjectType = noObject;
    ops.readBlockRecord = noBlockRecord;
    ops.readClass = noClass;
    ops.startLayers = startLayers;
    ops.startEntities = startEntities;
    ops.startBlockEntities = startBlockEntities;
    for (ksStartOp* start : {&ops.startBlockHeaders, &ops.startClasses, &ops.startDimStyles, &ops.startLinetypes,
                             &ops.startObjects, &ops.startRegApps, &ops.startShapeFiles, &ops.startUcses,
                             &ops.startViews, &ops.startVpEntHeaders, &ops.startVports})
        *start = started;
    return ops;
}

// The DXF stub the load opens, written once to a fresh temporary file and
// removed at exit.
struct Stub {
    std::string path = (std::filesystem::temp_directory_path() / "zemacad-scripted-load-XXXXXX").string();
    Stub()
    {
        int fd = ::mkstemp(path.data());
        if (fd < 0)
            return;
        ::close(fd);
        std::ofstream(path, std::ios::binary | std::ios::trunc)
            << "  0\nSECTION\n  2\nHEADER\n  9\n$ACADVER\n  1\nAC1014\n  0\nENDSEC\n";
    }
    ~Stub() { std::remove(path.c_str()); }
};

void ScriptedLoad(benchmark::State& state)
{
    static const Stub stub;
    const char* path = stub.path.c_str();
    script.layerNames.resize(kLayers);
    for (int i = 0; i < kLayers; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "Layer%05d", i);
        script.layerNames[static_cast<size_t>(i)] = name;
    }
    script.entities = state.range(0);
    const ksReaderOps saved = ksG->dxfOps;
    ksG->dxfOps = scriptedOps();
    for (auto _ : state) {
        ksFcb* fcb = ksLoadDrawing(path, 1, 0);
        state.PauseTiming();
        if (fcb == nullptr) {
            state.ResumeTiming();
            state.SkipWithError(("load failed with error " + std::to_string(ksErrorNumber())).c_str());
            break;
        }
        ksCloseDrawing(fcb);
        state.ResumeTiming();
    }
    ksG->dxfOps = saved;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * script.entities);
}

BENCHMARK(ScriptedLoad)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

}  // namespace
