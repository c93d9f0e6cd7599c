#include "support/testreader.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "driver/hooks.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "records/header.h"
#include "store/handles.h"
#include "store/vm.h"

namespace zt {

namespace {

ReaderScript* active = nullptr;

// Where the reader stands in each list.
struct Positions {
    size_t linetype, layer, vport, ucs, appid, view, style, dimstyle, blockHeader, blockRecord, classes;
    size_t entity, blockList, object, vpEntHeader;
    const std::vector<ScriptedEntity>* entityList;
};
Positions pos{};
const std::vector<ScriptedEntity> noEntities;

// Counts the call and tells whether the slot serves it.
bool enter(Slot slot)
{
    if (active == nullptr)
        return false;
    int& calls = active->calls[static_cast<int>(slot)];
    int call = calls++;
    for (const Failure& f : active->failures) {
        if (f.slot == slot && f.call == call) {
            if (f.error != 0)
                ksG->errorNumber = f.error;
            return false;
        }
    }
    return true;
}

void putXdata(const std::vector<uint8_t>& xdata, int16_t* hasExtended)
{
    if (hasExtended)
        *hasExtended = xdata.empty() ? 0 : 1;
    if (xdata.empty())
        return;
    if (xdata.size() > ksXdataBufferSize)
        throw std::length_error("scripted extended data exceeds the buffer");
    std::memcpy(ksG->xdataReadBuffer, xdata.data(), xdata.size());
    ksG->xdataSourceEnd = static_cast<int32_t>(xdata.size());
}

template <typename Record, typename Entry>
int16_t serve(Slot slot, const std::vector<Entry>& list, size_t& at, Record* out, int16_t* hasExtended)
{
    if (!enter(slot) || at >= list.size())
        return 0;
    const Entry& e = list[at++];
    *out = e.record;
    putXdata(e.xdata, hasExtended);
    return 1;
}

int16_t start(Slot slot, size_t& at)
{
    if (!enter(slot))
        return 0;
    at = 0;
    return 1;
}

int32_t countOf(int head, size_t size)
{
    int32_t given = active->counts[static_cast<size_t>(head)];
    return given >= 0 ? given : static_cast<int32_t>(size);
}

int16_t readHeader(ksFcb* fcb)
{
    if (!enter(Slot::readHeader))
        return 0;
    const ReaderScript& s = *active;
    fcb->handlesEnabled = s.handlesEnabled;
    fcb->handleSeed = ksHandleFromU64(s.handleSeed);
    fcb->visRetain = s.visRetain;
    fcb->header->HANDLING = s.handlesEnabled;
    fcb->header->HANDSEED = fcb->handleSeed;
    fcb->header->VISRETAIN = s.visRetain;
    fcb->tableCount[ksHeadBlocks] = countOf(ksHeadBlocks, s.blockHeaders.size());
    fcb->tableCount[ksHeadLayers] = countOf(ksHeadLayers, s.layers.size());
    fcb->tableCount[ksHeadStyles] = countOf(ksHeadStyles, s.styles.size());
    fcb->tableCount[ksHeadLinetypes] = countOf(ksHeadLinetypes, s.linetypes.size());
    fcb->tableCount[ksHeadViews] = countOf(ksHeadViews, s.views.size());
    fcb->tableCount[ksHeadUcses] = countOf(ksHeadUcses, s.ucses.size());
    fcb->tableCount[ksHeadVports] = countOf(ksHeadVports, s.vports.size());
    fcb->tableCount[ksHeadAppids] = countOf(ksHeadAppids, s.appids.size());
    fcb->tableCount[ksHeadDimstyles] = countOf(ksHeadDimstyles, s.dimstyles.size());
    fcb->tableCount[ksHeadVpEntHeaders] = countOf(ksHeadVpEntHeaders, s.vpEntHeaders.size());
    if (s.onHeader)
        s.onHeader(fcb);
    return 1;
}

int16_t readLayer(ksFcb*, ksLayer* record, int16_t* hasExtended)
{
    static const std::vector<ScriptedLayer> none;
    size_t at = pos.layer;
    if (!serve(Slot::readLayer, active ? active->layers : none, pos.layer, record, hasExtended))
        return 0;
    const ScriptedLayer& e = active->layers[at];
    ksNoteLayerLinetypeName(e.linetypeName.c_str());
    ksNoteLayerLinetypeIndex(e.linetypeIndex);
    return 1;
}

int16_t readClass(ksFcb*, ksClass* record)
{
    if (!enter(Slot::readClass) || pos.classes >= active->classes.size())
        return 0;
    *record = active->classes[pos.classes++];
    return 1;
}

int16_t readBlockRecord(ksFcb*, ksBlockHeader* record)
{
    if (!enter(Slot::readBlockRecord))
        return 0;
    if (pos.blockRecord >= active->blockRecords.size()) {
        pos.blockRecord = 0;
        return 0;
    }
    *record = active->blockRecords[pos.blockRecord++];
    return 1;
}

int16_t readEntity(ksFcb* fcb, ksEntityHeader* header, void* body, int16_t* hasExtended)
{
    if (!enter(Slot::readEntity) || pos.entityList == nullptr || pos.entity >= pos.entityList->size())
        return 0;
    const ScriptedEntity& e = (*pos.entityList)[pos.entity++];
    ksEntityRefs& refs = ksG->entityRefs;
    if (e.filePosition >= 0 && fcb->file != nullptr) {
        ksFileSeek(fcb->file, e.filePosition, 0);
        refs.filePosition = static_cast<int32_t>(e.filePosition);
    }
    refs.layerName = e.layerName.c_str();
    refs.linetypeName = e.linetypeName.empty() ? nullptr : e.linetypeName.c_str();
    refs.blockName = e.blockName.empty() ? nullptr : e.blockName.c_str();
    refs.layerIndex = e.layerIndex;
    refs.blockIndex = e.blockIndex;
    *header = e.header;
    if (!e.body.empty())
        std::memcpy(body, e.body.data(), std::min<size_t>(e.body.size(), ksEntityBodyMax));
    putXdata(e.xdata, hasExtended);
    return 1;
}

int16_t startEntities(ksFcb*)
{
    if (!enter(Slot::startEntities))
        return 0;
    pos.entityList = &active->entities;
    pos.entity = 0;
    return 1;
}

int16_t startBlockEntities(ksFcb* fcb)
{
    if (!enter(Slot::startBlockEntities))
        return 0;
    active->blockEntityPositions.push_back(fcb->entityFilePosition);
    size_t n = pos.blockList++;
    pos.entityList = n < active->blockEntities.size() ? &active->blockEntities[n] : &noEntities;
    pos.entity = 0;
    return 1;
}

int16_t nextObjectType(ksFcb*)
{
    if (!enter(Slot::nextObjectType) || pos.object >= active->objects.size())
        return 0;
    return active->objects[pos.object].kind;
}

// All the object read slots take the object nextObjectType looked at.
template <Slot slot>
int16_t readObject(ksFcb*, ksObjectHeader* header, void* body, int16_t* hasExtended)
{
    if (!enter(slot) || pos.object >= active->objects.size())
        return 0;
    const ScriptedObject& o = active->objects[pos.object++];
    *header = o.header;
    if (!o.body.empty())
        std::memcpy(body, o.body.data(), o.body.size());
    putXdata(o.xdata, hasExtended);
    return 1;
}

int16_t readVpEntHeader(ksFcb*, ksVpEntHeader* record)
{
    if (!enter(Slot::readVpEntHeader) || pos.vpEntHeader >= active->vpEntHeaders.size())
        return 0;
    const std::vector<uint8_t>& bytes = active->vpEntHeaders[pos.vpEntHeader++];
    std::memcpy(record, bytes.data(), bytes.size());
    return 1;
}

// The table slots, one pair per table.
#define ZT_TABLE_SLOTS(Start, Read, Record, list, at)                                  \
    int16_t Start(ksFcb*) { return start(Slot::Start, pos.at); }                       \
    int16_t Read(ksFcb*, Record* record, int16_t* hasExtended)                         \
    {                                                                                  \
        static const std::vector<Scripted<Record>> none;                               \
        return serve(Slot::Read, active ? active->list : none, pos.at, record, hasExtended); \
    }

ZT_TABLE_SLOTS(startLinetypes, readLinetype, ksLinetype, linetypes, linetype)
ZT_TABLE_SLOTS(startVports, readVport, ksVport, vports, vport)
ZT_TABLE_SLOTS(startUcses, readUcs, ksUcs, ucses, ucs)
ZT_TABLE_SLOTS(startRegApps, readRegApp, ksAppid, appids, appid)
ZT_TABLE_SLOTS(startViews, readView, ksView, views, view)
ZT_TABLE_SLOTS(startShapeFiles, readShapeFile, ksStyle, styles, style)
ZT_TABLE_SLOTS(startDimStyles, readDimStyle, ksDimstyle, dimstyles, dimstyle)
#undef ZT_TABLE_SLOTS

int16_t startBlockHeaders(ksFcb*) { return start(Slot::startBlockHeaders, pos.blockHeader); }
int16_t readBlockHeader(ksFcb*, ksBlockHeader* record, int16_t* hasExtended)
{
    static const std::vector<Scripted<ksBlockHeader>> none;
    size_t at = pos.blockHeader;
    if (!serve(Slot::readBlockHeader, active ? active->blockHeaders : none, pos.blockHeader, record, hasExtended))
        return 0;
    ksG->blockWork = at < active->blockWork.size() ? active->blockWork[at] : ksBlockWork{};
    return 1;
}

int16_t startLayers(ksFcb*) { return start(Slot::startLayers, pos.layer); }
int16_t startClasses(ksFcb*) { return start(Slot::startClasses, pos.classes); }
int16_t startObjects(ksFcb*) { return start(Slot::startObjects, pos.object); }
int16_t startVpEntHeaders(ksFcb*) { return start(Slot::startVpEntHeaders, pos.vpEntHeader); }

int16_t startBlockHeadersAndRecords(ksFcb* fcb)
{
    pos.blockRecord = 0;
    return startBlockHeaders(fcb);
}

void setDefaults(ksLinetype* r) { ksLinetypeDefaults(r); }
void setDefaults(ksLayer* r) { ksLayerDefaults(nullptr, r); }
void setDefaults(ksVport* r) { ksVportDefaults(r); }
void setDefaults(ksUcs* r) { ksUcsDefaults(r); }
void setDefaults(ksAppid* r) { ksAppidDefaults(r); }
void setDefaults(ksView* r) { ksViewDefaults(r); }
void setDefaults(ksStyle* r) { ksStyleDefaults(r); }
void setDefaults(ksDimstyle* r) { ksDimstyleDefaults(nullptr, r); }
void setDefaults(ksBlockHeader* r) { ksBlockHeaderDefaults(r); }

template <size_t N>
void copyName(char (&field)[N], const char* name)
{
    std::strncpy(field, name, N - 1);
    field[N - 1] = '\0';
}

}  // namespace

ksReaderOps testReaderOps()
{
    ksReaderOps ops{};
    ops.nextObjectType = nextObjectType;
    ops.readDictionary = readObject<Slot::readDictionary>;
    ops.readObject = readObject<Slot::readObject>;
    ops.readBlockHeader = readBlockHeader;
    ops.readBlockRecord = readBlockRecord;
    ops.readClass = readClass;
    ops.readDimStyle = readDimStyle;
    ops.readEntity = readEntity;
    ops.readGroup = readObject<Slot::readGroup>;
    ops.readHeader = readHeader;
    ops.readLayer = readLayer;
    ops.readLinetype = readLinetype;
    ops.readMlineStyle = readObject<Slot::readMlineStyle>;
    ops.readPlotSettings = readObject<Slot::readPlotSettings>;
    ops.readRegApp = readRegApp;
    ops.readShapeFile = readShapeFile;
    ops.readUcs = readUcs;
    ops.readView = readView;
    ops.readVport = readVport;
    ops.readVpEntHeader = readVpEntHeader;
    ops.startBlockEntities = startBlockEntities;
    ops.startBlockHeaders = startBlockHeadersAndRecords;
    ops.startClasses = startClasses;
    ops.startDimStyles = startDimStyles;
    ops.startEntities = startEntities;
    ops.startLayers = startLayers;
    ops.startLinetypes = startLinetypes;
    ops.startObjects = startObjects;
    ops.startRegApps = startRegApps;
    ops.startShapeFiles = startShapeFiles;
    ops.startUcses = startUcses;
    ops.startViews = startViews;
    ops.startVpEntHeaders = startVpEntHeaders;
    ops.startVports = startVports;
    return ops;
}

void installTestReader(ReaderScript& script)
{
    active = &script;
    script.calls.fill(0);
    pos = Positions{};
    ksG->dwgOps = testReaderOps();
    ksG->dxfOps = testReaderOps();
}

void uninstallTestReader()
{
    active = nullptr;
    pos = Positions{};
}

template <typename Record>
Scripted<Record> entry(const char* name, uint64_t handle)
{
    Scripted<Record> e;
    setDefaults(&e.record);
    copyName(e.record.name, name);
    e.record.entryHandle = ksHandleFromU64(handle);
    return e;
}

template Scripted<ksLinetype> entry<ksLinetype>(const char*, uint64_t);
template Scripted<ksVport> entry<ksVport>(const char*, uint64_t);
template Scripted<ksUcs> entry<ksUcs>(const char*, uint64_t);
template Scripted<ksAppid> entry<ksAppid>(const char*, uint64_t);
template Scripted<ksView> entry<ksView>(const char*, uint64_t);
template Scripted<ksStyle> entry<ksStyle>(const char*, uint64_t);
template Scripted<ksDimstyle> entry<ksDimstyle>(const char*, uint64_t);
template Scripted<ksBlockHeader> entry<ksBlockHeader>(const char*, uint64_t);

ScriptedLayer layer(const char* name, uint64_t handle, const char* linetypeName, int16_t linetypeIndex)
{
    ScriptedLayer e;
    setDefaults(&e.record);
    copyName(e.record.name, name);
    e.record.entryHandle = ksHandleFromU64(handle);
    e.linetypeName = linetypeName ? linetypeName : "";
    e.linetypeIndex = linetypeIndex;
    return e;
}

ksClass classRecord(const char* dxfName, int16_t number)
{
    ksClass c;
    ksClassDefaults(&c);
    copyName(c.dxfName, dxfName);
    c.classNumber = number;
    return c;
}

std::string writeDrawingStub(const std::filesystem::path& file, FileKind kind, int16_t version)
{
    std::string content;
    const bool known = version >= 0 && version < ksVersionCount;
    if (kind == FileKind::dxf) {
        content = "  0\nSECTION\n  2\nHEADER\n";
        if (known)
            content += std::string("  9\n$ACADVER\n  1\n") + ksVersionNames[version] + "\n";
        content += "  0\nENDSEC\n  0\nEOF\n";
    } else {
        // A DWG starts with its version string; without one the file would
        // be taken for DXF, so an unknown version writes AC10?? instead.
        content = known ? ksVersionNames[version] : "AC10??";
        content += std::string(2100, '\0');
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out)
        throw std::runtime_error("can't write " + file.string());
    return file.string();
}

uint64_t handleOf(ksFcb* fcb, ksTableList table, const char* name)
{
    ksObjHandle h{};
    ksTableFind(fcb, table, name, &h);
    return u64(h);
}

std::string names(ksFcb* fcb, ksTableList table)
{
    std::vector<uint8_t> record(ksTableLists[table].recordSize);
    std::string out;
    ksTableRewind(fcb, table);
    while (ksTableNext(fcb, table, record.data())) {
        if (!out.empty())
            out += ',';
        out += reinterpret_cast<const char*>(record.data() + ksTableLists[table].nameOffset);
    }
    return out;
}

void ScriptedLoadTest::SetUp()
{
    int16_t error = 0;
    ASSERT_EQ(ksInit(ZEMACAD_INIT_FILE, 0, &error), 1) << error;
}

void ScriptedLoadTest::TearDown()
{
    close();
    uninstallTestReader();
    ksShutdown();
}

void ScriptedLoadTest::close()
{
    if (fcb) {
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
    fcb = nullptr;
}

ksFcb* ScriptedLoadTest::load(const Kind& k)
{
    close();
    installTestReader(script);
    return fcb = ksLoadDrawing(writeDrawingStub(dir / "drawing", k.kind, k.version).c_str(), 1, 0);
}

void ScriptedLoadTest::expectRefused(const Kind& k, int16_t error)
{
    close();
    const size_t before = ksVmBytesInUse();
    EXPECT_EQ(load(k), nullptr);
    EXPECT_EQ(ksErrorNumber(), error);
    EXPECT_EQ(ksVmBytesInUse(), before);
}

}  // namespace zt
