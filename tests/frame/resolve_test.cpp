// The resolving phases of a load over scripted drawings: block headers and
// the two spaces, the entity loops, objects, viewport entity headers, the
// header's references, progress, failures and stop requests.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"
#include "support/support.h"
#include "support/testreader.h"

namespace {

using zt::FileKind;
using zt::Slot;

struct Kind {
    const char* label;
    FileKind kind;
    int16_t version;
};
constexpr Kind kDxf14{"DXF R14", FileKind::dxf, ksAC1014};
constexpr Kind kDxf12{"DXF R12", FileKind::dxf, ksAC1009};
constexpr Kind kDwg14{"DWG R14", FileKind::dwg, ksAC1014};
constexpr Kind kDwg12{"DWG R12", FileKind::dwg, ksAC1009};
constexpr Kind kDxf13{"DXF R13", FileKind::dxf, ksAC1012};
constexpr Kind kDwg13{"DWG R13", FileKind::dwg, ksAC1012};
constexpr Kind kDxf2000{"DXF R2000", FileKind::dxf, ksAC1015};
constexpr Kind kDwg2000{"DWG R2000", FileKind::dwg, ksAC1015};

uint64_t u64(const ksObjHandle& h) { return ksHandleToU64(h); }

std::string blockNames(ksFcb* fcb)
{
    std::string out;
    ksBlockHeader record;
    ksBlockHeaderRewind(fcb);
    while (ksBlockHeaderNext(fcb, &record)) {
        if (!out.empty())
            out += ',';
        out += record.name;
    }
    return out;
}

ksBlockHeader blockNamed(ksFcb* fcb, const char* name)
{
    ksObjHandle h{};
    ksBlockHeader record{};
    EXPECT_TRUE(ksBlockHeaderFind(fcb, name, &h)) << name;
    EXPECT_TRUE(ksBlockHeaderSeek(fcb, h, &record)) << name;
    return record;
}

uint64_t handleOf(ksFcb* fcb, ksTableList table, const char* name)
{
    ksObjHandle h{};
    ksTableFind(fcb, table, name, &h);
    return u64(h);
}

// An entity of the type with its defaults, a handle (0 none) and the
// paper space flag.
zt::ScriptedEntity entity(int16_t type, uint64_t handle = 0, bool paper = false)
{
    zt::ScriptedEntity e;
    ksEntityBody body;
    ksEntityDefaults(&e.header, &body, type);
    e.header.handle = ksHandleFromU64(handle);
    if (paper)
        e.header.flags = static_cast<int8_t>(e.header.flags | ksEntityPaperSpace);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&body);
    e.body.assign(bytes, bytes + ksEntityBodySize(type));
    return e;
}

zt::Scripted<ksBlockHeader> block(const char* name, uint64_t handle = 0, int8_t flags = 0)
{
    auto b = zt::entry<ksBlockHeader>(name, handle);
    b.record.flags = flags;
    return b;
}

std::vector<uint8_t> vpEntHeader(int32_t position, const char* name, uint64_t viewport = 0, int8_t deleted = 0)
{
    ksVpEntHeader h{};
    h.deleted = deleted;
    h.active = 1;
    h.viewportPosition = position;
    h.viewportHandle = ksHandleFromU64(viewport);
    std::snprintf(h.name, sizeof h.name, "%s", name);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&h);
    return {bytes, bytes + sizeof h};
}

// One 1070 item of value 42 in the DXF and old DWG coding.
const std::vector<uint8_t> kXdata1070{70, 42, 0};

// vpEntList in list order, as "handle=name/viewportId" (hex handles).
std::vector<std::string> viewportRefs(ksFcb* fcb)
{
    std::vector<std::string> out;
    ksEntityHeader header;
    ksEntityBody body;
    char text[600];
    for (ksLoc node = ksListFirst(fcb->vpEntList); node != 0; node = ksListNodeNext(node)) {
        const auto* ref = static_cast<const ksVpEntRef*>(ksRecordOf(node));
        if (!ksEntityUnpack(fcb, ref->location, &header, &body, nullptr, nullptr))
            return {"unreadable"};
        std::snprintf(text, sizeof text, "%llx=%s/%d", static_cast<unsigned long long>(u64(header.handle)),
                      body.viewport.name, body.viewport.viewportId);
        out.push_back(text);
    }
    return out;
}

zt::ScriptedObject object(int16_t kind, uint64_t handle, const void* body, size_t size)
{
    zt::ScriptedObject o;
    o.kind = o.header.kind = kind;
    o.header.handle = ksHandleFromU64(handle);
    const auto* bytes = static_cast<const uint8_t*>(body);
    o.body.assign(bytes, bytes + size);
    return o;
}

zt::ScriptedObject mlineStyle(uint64_t handle, const char* name)
{
    ksMlineStyle m{};
    std::snprintf(m.name, sizeof m.name, "%s", name);
    return object(ksKindMlineStyle, handle, &m, sizeof m);
}

// A dictionary whose entries blob the load takes over.
zt::ScriptedObject dictionary(uint64_t handle, std::vector<std::pair<const char*, uint64_t>> entries)
{
    ksDictionary d{};
    d.entries = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(d.entries);
    for (auto [name, h] : entries) {
        ksDictionaryEntry e{};
        std::snprintf(e.name, sizeof e.name, "%s", name);
        e.handle = ksHandleFromU64(h);
        EXPECT_TRUE(ksDictionaryEntryWrite(out, e));
        ++d.entryCount;
    }
    EXPECT_TRUE(ksBlobCloseWrite(out));
    return object(ksKindDictionary, handle, &d, sizeof d);
}

std::vector<uint64_t> handlesIn(ksLoc blob)
{
    std::vector<uint64_t> out;
    ksBlobCursor* in = ksBlobOpenRead(blob);
    ksObjHandle h;
    while (in && ksBlobReadHandle(in, &h))
        out.push_back(u64(h));
    ksBlobCloseRead(in);
    return out;
}

void setHeaderName(const char* variable, const char* value)
{
    std::snprintf(ksG->headerNames[ksHeaderNameFind(variable)->buffer], ksHeaderNameSize, "%s", value);
}

std::vector<int> progress;
int stopAtEntity = -1;
int entitiesSeen = 0;

class ResolveTest : public ::testing::Test {
protected:
    zt::ReaderScript script;
    zt::TempDir dir;

    void SetUp() override
    {
        int16_t error = 0;
        ASSERT_EQ(ksInit(ZEMACAD_INIT_FILE, 0, &error), 1) << error;
        progress.clear();
        stopAtEntity = -1;
        entitiesSeen = 0;
        ksSetLoadProgress([](int16_t percent) { progress.push_back(percent); });
        ksSetEntityNotice([](ksEntityHeader*, void*) {
            if (++entitiesSeen == stopAtEntity)
                ksStopLoad();
        });
    }
    void TearDown() override
    {
        zt::uninstallTestReader();
        ksShutdown();
    }

    ksFcb* load(const Kind& k)
    {
        zt::installTestReader(script);
        std::string path = zt::writeDrawingStub(dir / "drawing", k.kind, k.version);
        return ksLoadDrawing(path.c_str(), 1, 0);
    }
};

TEST_F(ResolveTest, SpacesAreMadeLastWithNewHandles)
{
    for (const Kind& k : {kDxf14, kDxf12, kDwg14, kDwg12}) {
        SCOPED_TRACE(k.label);
        script = zt::ReaderScript{};
        script.blockHeaders = {block("A", 0x50), block("B", 0x51)};
        ksFcb* fcb = load(k);
        ASSERT_NE(fcb, nullptr) << ksErrorNumber();
        EXPECT_EQ(blockNames(fcb), "A,B,*Model_Space,*Paper_Space");
        ksBlockHeader model = blockNamed(fcb, "*MODEL_SPACE");
        ksBlockHeader paper = blockNamed(fcb, "*PAPER_SPACE");
        EXPECT_EQ(u64(model.entryHandle), u64(fcb->modelBlockHandle));
        EXPECT_EQ(u64(paper.entryHandle), u64(fcb->paperBlockHandle));
        EXPECT_EQ(model.entities, fcb->modelEntities);
        EXPECT_EQ(paper.entities, fcb->paperEntities);
        for (uint64_t h : {u64(model.entryHandle), u64(paper.entryHandle)}) {
            EXPECT_NE(h, 0u);
            EXPECT_NE(h, 0x50u);
            EXPECT_NE(h, 0x51u);
        }
        EXPECT_NE(u64(model.entryHandle), u64(paper.entryHandle));
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
}

TEST_F(ResolveTest, DxfSpacesByNameAndBlockRecords)
{
    for (const Kind& k : {kDxf12, kDxf14}) {
        SCOPED_TRACE(k.label);
        script = zt::ReaderScript{};
        script.blockHeaders = {block("*model_space", 0x20), block("*Paper_Space", 0x21), block("X", 0x22)};
        script.blockWork = {{{}, {}, {}, {}, 100}, {{}, {}, {}, {}, 200}, {{}, {}, {}, {}, 300}};
        script.blockRecords = {zt::entry<ksBlockHeader>("*MODEL_SPACE", 0x1F).record,
                               zt::entry<ksBlockHeader>("*PAPER_SPACE", 0x1B).record,
                               zt::entry<ksBlockHeader>("x", 0x30).record};
        // X, then (R14) the BLOCK and ENDBLK of each space.
        script.blockEntities = {{entity(ksEntLine, 0x40), entity(ksEntEndblk, 0x41)},
                                {entity(ksEntBlock, 0x42), entity(ksEntEndblk, 0x43)},
                                {entity(ksEntBlock, 0x44), entity(ksEntEndblk, 0x45)}};
        ksFcb* fcb = load(k);
        ASSERT_NE(fcb, nullptr) << ksErrorNumber();
        EXPECT_EQ(blockNames(fcb), "X,*model_space,*Paper_Space");
        EXPECT_EQ(fcb->modelBlockPosition, 100);
        EXPECT_EQ(fcb->paperBlockPosition, 200);
        ksBlockHeader x = blockNamed(fcb, "X");
        EXPECT_EQ(ksListCount(x.entities), 2u);
        if (k.version >= ksAC1012) {
            EXPECT_EQ(script.blockEntityPositions, (std::vector<int32_t>{300, 100, 200}));
            EXPECT_EQ(u64(fcb->modelBlockHandle), 0x1Fu);
            EXPECT_EQ(u64(fcb->paperBlockHandle), 0x1Bu);
            EXPECT_EQ(u64(x.entryHandle), 0x30u);  // moved to the BLOCK_RECORD's handle
            EXPECT_EQ(u64(fcb->modelBlockBegin), 0x42u);
            EXPECT_EQ(u64(fcb->paperBlockEnd), 0x45u);
            // The spaces' BLOCK and ENDBLK are not kept.
            EXPECT_EQ(ksListCount(fcb->modelEntities) + ksListCount(fcb->paperEntities), 0u);
        } else {
            EXPECT_EQ(script.blockEntityPositions, (std::vector<int32_t>{300}));
        }
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
}

TEST_F(ResolveTest, DeletedBlocksAndEndblk)
{
    script.layers = {zt::layer("0")};
    auto deleted = block("B");
    deleted.record.deleted = 1;
    script.blockHeaders = {block("A"), deleted, block("C")};
    // ENDBLK ends A; C starts where the reader puts it.
    script.blockEntities = {{entity(ksEntLine), entity(ksEntLine), entity(ksEntEndblk), entity(ksEntLine)},
                            {entity(ksEntLine)}};
    ksFcb* fcb = load(kDwg12);
    ASSERT_NE(fcb, nullptr) << ksErrorNumber();
    EXPECT_EQ(ksListCount(blockNamed(fcb, "A").entities), 3u);
    EXPECT_EQ(ksListCount(blockNamed(fcb, "B").entities), 0u);
    EXPECT_EQ(ksListCount(blockNamed(fcb, "C").entities), 1u);
    EXPECT_EQ(script.callsOf(Slot::startBlockEntities), 2);
    EXPECT_EQ(script.callsOf(Slot::readEntity), 3 + 2 + 1);  // A, C and its end, the empty main list
    EXPECT_EQ(ksCloseDrawing(fcb), 1);
}

TEST_F(ResolveTest, DxfHeaderNames)
{
    struct Case {
        const char* variable;
        const char* value;
        ksObjHandle ksHeader::*field;
        const char* expectLayer;  // the layer the handle names, or null
        int expect;               // 0 null, 1 byBlock, 2 the named dimension style, 3 "Standard" style
    } cases[] = {
        {"CLAYER", "", &ksHeader::CLAYER, "", -1},
        {"CLAYER", "NEWLAYER", &ksHeader::CLAYER, "NEWLAYER", -1},
        {"CLAYER", "walls", &ksHeader::CLAYER, "WALLS", -1},
        {"CELTYPE", "NOSUCH", &ksHeader::CELTYPE, nullptr, 1},
        {"DIMSTYLE", "*UNNAMED", &ksHeader::DIMSTYLE, nullptr, 0},
        {"DIMSTYLE", "ds1", &ksHeader::DIMSTYLE, nullptr, 2},
        {"DIMSTYLE", "NOSUCH", &ksHeader::DIMSTYLE, nullptr, 0},
        {"UCSNAME", "", &ksHeader::UCSNAME, nullptr, 0},
        {"DIMTXSTY", "", &ksHeader::DIMTXSTY, nullptr, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.variable) + "=" + c.value);
        script = zt::ReaderScript{};
        script.layers = {zt::layer("WALLS")};
        script.dimstyles = {zt::entry<ksDimstyle>("DS1")};
        const char* variable = c.variable;
        const char* value = c.value;
        script.onHeader = [variable, value](ksFcb*) {
            std::snprintf(ksG->headerNames[ksHeaderNameFind(variable)->buffer], ksHeaderNameSize, "%s", value);
        };
        ksFcb* fcb = load(kDxf12);
        ASSERT_NE(fcb, nullptr) << ksErrorNumber();
        const ksObjHandle got = fcb->header->*c.field;
        if (c.expectLayer) {
            EXPECT_EQ(u64(got), handleOf(fcb, ksListLayers, c.expectLayer));
            EXPECT_NE(u64(got), 0u);
        } else {
            const uint64_t expected[] = {0, u64(fcb->byBlockHandle), handleOf(fcb, ksListDimStyles, "DS1"),
                                         handleOf(fcb, ksListShapeFiles, "Standard")};
            EXPECT_EQ(u64(got), expected[c.expect]);
        }
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
}

TEST_F(ResolveTest, ArrowBlocksPreferTheUnderscore)
{
    script.blockHeaders = {block("CLOSED"), block("_CLOSED"), block("DOT")};
    script.onHeader = [](ksFcb* fcb) {
        std::strcpy(fcb->header->DIMBLK, "closed");
        std::strcpy(fcb->header->DIMBLK1, "DOT");
        std::strcpy(fcb->header->DIMBLK2, "");
        std::strcpy(fcb->header->DIMLDRBLK, "NONE");
    };
    for (const Kind& k : {kDxf12, kDwg14}) {
        SCOPED_TRACE(k.label);
        ksFcb* fcb = load(k);
        ASSERT_NE(fcb, nullptr) << ksErrorNumber();
        const ksHeader& h = *fcb->header;
        EXPECT_EQ(u64(h.dimblkHandle), handleOf(fcb, ksListBlockHeaders, "_CLOSED"));
        EXPECT_EQ(u64(h.dimblk1Handle), handleOf(fcb, ksListBlockHeaders, "DOT"));
        EXPECT_EQ(u64(h.dimblk2Handle), 0u);
        EXPECT_EQ(u64(h.dimldrblkHandle), 0u);
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
}

TEST_F(ResolveTest, OldDwgHeaderByIndex)
{
    script.layers = {zt::layer("0"), zt::layer("WALLS")};
    script.styles = {zt::entry<ksStyle>("Standard"), zt::entry<ksStyle>("ROMANS")};
    script.ucses = {zt::entry<ksUcs>("U1")};
    script.onHeader = [](ksFcb*) { ksG->headerIndices = ksHeaderIndices{1, 32766, -1, 0, -1, 1, 0}; };
    ksFcb* fcb = load(kDwg12);
    ASSERT_NE(fcb, nullptr) << ksErrorNumber();
    const ksHeader& h = *fcb->header;
    EXPECT_EQ(u64(h.CLAYER), handleOf(fcb, ksListLayers, "WALLS"));
    EXPECT_EQ(u64(h.CELTYPE), u64(fcb->byBlockHandle));
    EXPECT_EQ(u64(h.DIMSTYLE), 0u);
    EXPECT_EQ(u64(h.UCSNAME), handleOf(fcb, ksListUcses, "U1"));
    EXPECT_EQ(u64(h.PUCSNAME), 0u);
    EXPECT_EQ(u64(h.TEXTSTYLE), handleOf(fcb, ksListShapeFiles, "ROMANS"));
    EXPECT_EQ(u64(h.DIMTXSTY), handleOf(fcb, ksListShapeFiles, "Standard"));
    EXPECT_EQ(ksCloseDrawing(fcb), 1);
}

TEST_F(ResolveTest, OldViewportHeadersPassOverTheFirst)
{
    script.layers = {zt::layer("0")};
    for (long position : {100, 200}) {
        script.entities.push_back(entity(ksEntViewport, 0, true));
        script.entities.back().filePosition = position;
        script.entities.back().xdata = kXdata1070;
    }
    script.onHeader = [](ksFcb* fcb) { fcb->blockEntitiesStart = 150; };
    // The first names no VIEWPORT: matched, it would fail the load. The
    // second counts from the block entity section.
    script.vpEntHeaders = {vpEntHeader(300, "FIRST"), vpEntHeader(static_cast<int32_t>(0x80000000u | 50), "SECOND"),
                           vpEntHeader(100, "THIRD")};
    ksFcb* fcb = load(kDwg12);
    ASSERT_NE(fcb, nullptr) << ksErrorNumber();
    std::vector<std::string> names;
    ksEntityHeader header;
    ksEntityBody body;
    for (ksLoc node = ksListFirst(fcb->vpEntList); node != 0; node = ksListNodeNext(node)) {
        const auto* ref = static_cast<const ksVpEntRef*>(ksRecordOf(node));
        ASSERT_TRUE(ksEntityUnpack(fcb, ref->location, &header, &body, nullptr, nullptr));
        names.push_back(std::to_string(ref->filePosition) + "=" + body.viewport.name);
        EXPECT_EQ(body.viewport.active, 1);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"100=THIRD", "200=SECOND"}));
    EXPECT_EQ(fcb->vpEntRefsSorted, 1);
    EXPECT_EQ(ksCloseDrawing(fcb), 1);

    // A header that matches nothing is an error of the file.
    script.vpEntHeaders.push_back(vpEntHeader(400, "NONE"));
    const size_t before = ksVmBytesInUse();
    EXPECT_EQ(load(kDwg12), nullptr);
    EXPECT_EQ(ksErrorNumber(), 302);
    EXPECT_EQ(ksVmBytesInUse(), before);
}

TEST_F(ResolveTest, ProgressOfASmallLoad)
{
    // 30 entities through the 2106 bytes of the stub: the file percentage
    // is looked at after the 10th, 20th and 30th.
    for (int i = 0; i < 30; ++i) {
        script.entities.push_back(entity(ksEntLine, 0x100 + i));
        script.entities.back().filePosition = (i + 1) * 70;
    }
    script.blockHeaders = {block("A", 0x50)};
    ksFcb* fcb = load(kDwg14);
    ASSERT_NE(fcb, nullptr) << ksErrorNumber();
    // 700 bytes of 2106: 33 -> 30 percent, 46 + 7; 1400: 66 -> 65, 62; 2100: 99 -> 95, 69.
    EXPECT_EQ(progress, (std::vector<int>{0, 0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 40, 46, 53, 62, 69, 71, 71, 79,
                                          87, 96, 100}));
    EXPECT_EQ(ksListCount(fcb->modelEntities), 30u);
    EXPECT_EQ(ksCloseDrawing(fcb), 1);
}

TEST_F(ResolveTest, FailureInEachPhaseTearsDown)
{
    struct Case {
        const char* what;
        Slot slot;
        int call;
        int16_t error;  // set by the failing slot; 0 none
        int16_t expected;
    } cases[] = {
        {"start block headers", Slot::startBlockHeaders, 0, 0, 54},
        {"second block header", Slot::readBlockHeader, 1, 0, 54},
        {"start entities", Slot::startEntities, 0, 0, 55},
        {"an entity, with the reader's number", Slot::readEntity, 1, 8, 8},
        {"start block entities", Slot::startBlockEntities, 1, 0, 130},
        {"start objects", Slot::startObjects, 0, 0, 56},
        {"a dictionary", Slot::readDictionary, 1, 0, 56},
        {"start viewport entity headers", Slot::startVpEntHeaders, 0, 0, 70},
        {"a viewport entity header", Slot::readVpEntHeader, 1, 0, 70},
        {"duplicate entity handle", Slot::unused28, 0, 0, 290},
        {"paper space viewport without extended data", Slot::unused28, 0, 0, 287},
    };
    const size_t before = ksVmBytesInUse();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        script = zt::ReaderScript{};
        script.blockHeaders = {block("A", 0x50), block("B", 0x51, 4)};
        script.blockEntities = {{entity(ksEntLine, 0x60), entity(ksEntEndblk, 0x61)},
                                {entity(ksEntLine, 0x62), entity(ksEntEndblk, 0x63)}};
        script.entities = {entity(ksEntLine, 0x70), entity(ksEntLine, 0x71), entity(ksEntCircle, 0x72)};
        script.entities[0].xdata = kXdata1070;
        for (uint64_t h : {0x80, 0x81}) {
            zt::ScriptedObject o;
            o.kind = ksKindDictionary;
            o.header.kind = ksKindDictionary;
            o.header.handle = ksHandleFromU64(h);
            script.objects.push_back(o);
        }
        script.vpEntHeaders = {vpEntHeader(0, "A"), vpEntHeader(0, "B")};
        if (c.expected == 290)
            script.entities[2].header.handle = ksHandleFromU64(0x70);
        else if (c.expected == 287)
            script.entities.push_back(entity(ksEntViewport, 0x73, true));
        else
            script.failures = {{c.slot, c.call, c.error}};
        EXPECT_EQ(load(kDwg14), nullptr);
        EXPECT_EQ(ksErrorNumber(), c.expected);
        EXPECT_EQ(ksVmBytesInUse(), before);
    }
}

TEST_F(ResolveTest, StopRequestInTheEntityLoop)
{
    for (int i = 0; i < 10; ++i)
        script.entities.push_back(entity(ksEntLine, 0x100 + i));
    stopAtEntity = 3;
    const size_t before = ksVmBytesInUse();
    EXPECT_EQ(load(kDwg14), nullptr);
    // The list ends at the request; the next phase doesn't begin.
    EXPECT_EQ(ksErrorNumber(), 130);
    EXPECT_EQ(script.callsOf(Slot::readEntity), 3);
    EXPECT_EQ(script.callsOf(Slot::startBlockEntities), 0);
    EXPECT_EQ(ksVmBytesInUse(), before);
}

TEST_F(ResolveTest, ExternalReferenceListsOfOldDrawings)
{
    for (const Kind& k : {kDwg12, kDxf12, kDwg13, kDxf14}) {
        SCOPED_TRACE(k.label);
        script = zt::ReaderScript{};
        script.layers = {zt::layer("0")};
        script.blockHeaders = {block("XREF", 0x50, 4), block("PLAIN", 0x51)};
        // XREF, PLAIN, XREF: by index (old DWG), name (DXF) or handle (R13 DWG).
        for (int16_t index : {0, 1, 0}) {
            zt::ScriptedEntity e = entity(ksEntInsert, 0x60 + script.entities.size());
            ksEntityBody body{};
            std::memcpy(&body, e.body.data(), e.body.size());
            body.insert.blockHandle = ksHandleFromU64(0x50u + static_cast<uint64_t>(index));
            std::memcpy(e.body.data(), &body, e.body.size());
            e.blockIndex = index;
            e.blockName = index == 0 ? "XREF" : "PLAIN";
            script.entities.push_back(e);
        }
        ksFcb* fcb = load(k);
        ASSERT_NE(fcb, nullptr) << ksErrorNumber();
        EXPECT_EQ(fcb->pendingRefs1, 0u);
        EXPECT_EQ(fcb->pendingRefs2, 0u);
        ksBlockHeader xref = blockNamed(fcb, "XREF");
        EXPECT_TRUE(ksHandleIsNull(blockNamed(fcb, "PLAIN").xdictHandle));
        std::vector<uint64_t> inserts;
        ksEntityHeader eh;
        ksEntityBody eb;
        ksListRewind(fcb->modelEntities);
        while (ksEntityRead(fcb, fcb->modelEntities, &eh, &eb))
            if (u64(eb.insert.blockHandle) == u64(xref.entryHandle))
                inserts.push_back(u64(eh.handle));
        EXPECT_EQ(inserts.size(), 2u);
        if (k.version >= ksAC1014) {
            EXPECT_TRUE(ksHandleIsNull(xref.xdictHandle));  // the file has its own
            EXPECT_EQ(ksCloseDrawing(fcb), 1);
            continue;
        }
        ksObjectHeader head;
        ksObjectBody body;
        ASSERT_TRUE(ksObjectSeek(fcb, xref.xdictHandle, &head, &body));
        ASSERT_EQ(head.kind, ksKindDictionary);
        EXPECT_EQ(body.dictionary.cloning, 1);
        ASSERT_EQ(body.dictionary.entryCount, 1);
        ksBlobCursor* in = ksBlobOpenRead(body.dictionary.entries);
        ksDictionaryEntry entry;
        ASSERT_TRUE(ksDictionaryEntryRead(in, &entry));
        ksBlobCloseRead(in);
        EXPECT_STREQ(entry.name, "ACAD_BLKREFS");
        ASSERT_TRUE(ksObjectSeek(fcb, entry.handle, &head, &body));
        EXPECT_EQ(head.kind, fcb->classNumbers.idBuffer);
        EXPECT_EQ(handlesIn(head.reactors), std::vector<uint64_t>{u64(xref.xdictHandle)});
        EXPECT_EQ(body.idBuffer.handleCount, 2);
        EXPECT_EQ(handlesIn(body.idBuffer.handles), inserts);  // in file order
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
}

TEST_F(ResolveTest, NewViewportHeadersByHandle)
{
    struct Case {
        const char* what;
        std::vector<std::vector<uint8_t>> headers;  // behind the first, which is dropped
        std::vector<std::string> expected;          // vpEntList
        bool moved;                                 // viewport 1 wasn't first
    } cases[] = {
        {"viewport 1 moves to the head",
         {vpEntHeader(0, "ONE", 0x92), vpEntHeader(0, "TWO", 0x90), vpEntHeader(0, "THREE", 0x91)},
         {"92=ONE/1", "90=TWO/2", "91=THREE/3"},
         true},
        {"a miss carries on with the last entry",
         {vpEntHeader(0, "ONE", 0x90), vpEntHeader(0, "MISS", 0x99)},
         {"90=ONE/1", "91=/0", "92=MISS/2"},
         false},
        {"deleted and null headers are passed over",
         {vpEntHeader(0, "ONE", 0x91), vpEntHeader(0, "TWO", 0x92), vpEntHeader(0, "DEL", 0x90, 1),
          vpEntHeader(0, "NULL", 0)},
         {"91=ONE/1", "90=/0", "92=TWO/2"},
         true},
    };
    for (const Kind& k : {kDwg13, kDwg14}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(k.label) + ": " + c.what);
            script = zt::ReaderScript{};
            for (uint64_t h : {0x90, 0x91, 0x92}) {
                script.entities.push_back(entity(ksEntViewport, h, true));
                script.entities.back().xdata = kXdata1070;
            }
            script.vpEntHeaders = c.headers;
            script.vpEntHeaders.insert(script.vpEntHeaders.begin(), vpEntHeader(0, "DROPPED", 0x90));
            ksFcb* fcb = load(k);
            ASSERT_NE(fcb, nullptr) << ksErrorNumber();
            EXPECT_EQ(viewportRefs(fcb), c.expected);
            EXPECT_EQ(fcb->paperViewportNode, c.moved ? ksListFirst(fcb->vpEntList) : 0u);
            EXPECT_EQ(fcb->vpEntRefsSorted, 1);
            EXPECT_EQ(ksCloseDrawing(fcb), 1);
        }
    }
}

TEST_F(ResolveTest, CurrentMultilineStyleOfDxf)
{
    struct Case {
        const char* name;
        int found;  // place among the scripted styles; -1 a new one
    } cases[] = {{"standard", 1}, {"Fancy", 2}, {"NEW", -1}};
    const uint64_t styles[] = {0x80, 0x81, 0x82, 0x83};
    for (const Kind& k : {kDxf13, kDxf14}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(k.label) + ": " + c.name);
            script = zt::ReaderScript{};
            script.objects = {mlineStyle(0x80, "OTHER"), mlineStyle(0x81, "STANDARD"), mlineStyle(0x82, "FANCY"),
                              mlineStyle(0x83, "fancy")};
            const char* name = c.name;
            script.onHeader = [name](ksFcb*) { setHeaderName("CMLSTYLE", name); };
            ksFcb* fcb = load(k);
            ASSERT_NE(fcb, nullptr) << ksErrorNumber();
            const ksObjHandle got = fcb->header->CMLSTYLE;
            if (c.found >= 0) {
                EXPECT_EQ(u64(got), styles[c.found]);
                EXPECT_EQ(ksObjectCount(fcb), 4u);
            } else {
                EXPECT_EQ(ksObjectCount(fcb), 5u);
                ksObjectHeader head;
                ksObjectBody body;
                ASSERT_TRUE(ksObjectSeek(fcb, got, &head, &body));
                EXPECT_EQ(head.kind, ksKindMlineStyle);
                EXPECT_STREQ(body.mlineStyle.name, "NEW");
                EXPECT_LT(u64(got), u64(fcb->header->HANDSEED));  // given out by this drawing
            }
            EXPECT_EQ(ksCloseDrawing(fcb), 1);
        }
    }
}

TEST_F(ResolveTest, PlotStyleDictionaryOfAsciiDxf)
{
    struct Case {
        const char* what;
        Kind kind;
        bool binary;
        bool dictionaryFirst;
        const char* entry;
        uint64_t expected;
    } cases[] = {
        {"ASCII DXF R2000", kDxf2000, false, true, "ACAD_PLOTSTYLENAME", 0x20E},
        {"no such entry", kDxf2000, false, true, "ACAD_PLOTSTYLE", 0},
        {"first object not a dictionary", kDxf2000, false, false, "ACAD_PLOTSTYLENAME", 0},
        {"binary DXF R2000", kDxf2000, true, true, "ACAD_PLOTSTYLENAME", 0},
        {"ASCII DXF R14", kDxf14, false, true, "ACAD_PLOTSTYLENAME", 0},
        {"DWG R2000", kDwg2000, false, true, "ACAD_PLOTSTYLENAME", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        script = zt::ReaderScript{};
        script.objects = {dictionary(0x20C, {{"ACAD_GROUP", 0x20D}, {c.entry, 0x20E}}), dictionary(0x20D, {}),
                          dictionary(0x20E, {})};
        if (!c.dictionaryFirst)
            script.objects.insert(script.objects.begin(), mlineStyle(0x20B, "STANDARD"));
        zt::installTestReader(script);
        const std::filesystem::path file = dir / "drawing";
        std::string path = file.string();
        if (c.binary) {
            std::string content("AutoCAD Binary DXF\r\n\x1a\0", 22);
            content += "SECTION HEADER $ACADVER AC1015" + std::string(100, '\0');
            std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
        } else {
            zt::writeDrawingStub(file, c.kind.kind, c.kind.version);
        }
        ksFcb* fcb = ksLoadDrawing(path.c_str(), 1, 0);
        ASSERT_NE(fcb, nullptr) << ksErrorNumber();
        EXPECT_EQ(fcb->fileType, c.binary ? 2 : c.kind.kind == FileKind::dxf ? 1 : 0);
        EXPECT_EQ(u64(fcb->plotStyleDictionary), c.expected);
        ksLayer fresh;
        ksLayerDefaults(fcb, &fresh);
        EXPECT_EQ(u64(fresh.plotStyleHandle), c.expected);
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
}

TEST_F(ResolveTest, FailuresInTheClosingSteps)
{
    // Each step gives a new record a new handle: a first load tells which,
    // and in a second one an entity already holds it, so the store refuses.
    struct Case {
        const char* what;
        Kind kind;
        int16_t expected;
    } cases[] = {
        {"a $CLAYER layer", kDxf14, 131},
        {"the $CMLSTYLE style", kDxf14, 132},
        {"the default objects", kDwg12, 133},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        script = zt::ReaderScript{};
        script.handlesEnabled = 1;
        script.handleSeed = 0x100;
        script.layers = {zt::layer("0", 0x20)};
        if (c.expected == 131)
            script.onHeader = [](ksFcb*) { setHeaderName("CLAYER", "NEW"); };
        ksFcb* fcb = load(c.kind);
        ASSERT_NE(fcb, nullptr) << ksErrorNumber();
        ksObjHandle taken = c.expected == 131 ? fcb->header->CLAYER : fcb->header->CMLSTYLE;
        if (c.expected == 133) {
            ksObjectHeader head;
            ksObjectBody body;
            ksObjectRewind(fcb);
            ASSERT_TRUE(ksObjectNext(fcb, &head, &body));
            taken = head.handle;
        }
        ASSERT_FALSE(ksHandleIsNull(taken));
        EXPECT_EQ(ksCloseDrawing(fcb), 1);

        script.entities = {entity(ksEntLine, u64(taken))};
        const size_t before = ksVmBytesInUse();
        EXPECT_EQ(load(c.kind), nullptr);
        EXPECT_EQ(progress.back(), 96);  // past the last phase
        EXPECT_EQ(ksErrorNumber(), c.expected);
        EXPECT_EQ(ksVmBytesInUse(), before);
    }
}

}  // namespace
