// The resolving phases of a load over scripted drawings: block headers and
// the two spaces, the entity loops, objects, viewport entity headers, the
// header's references, progress, failures and stop requests.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "frame/load.h"
#include "frame/loadphases.h"
#include "records/header.h"
#include "records/object.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/list.h"
#include "store/record.h"
#include "support/testreader.h"

namespace {

using namespace zt;
using Handles = std::vector<uint64_t>;
using Strings = std::vector<std::string>;

ksBlockHeader blockNamed(ksFcb* fcb, const char* name)
{
    ksObjHandle h{};
    ksBlockHeader record{};
    EXPECT_TRUE(ksBlockHeaderFind(fcb, name, &h)) << name;
    EXPECT_TRUE(ksBlockHeaderSeek(fcb, h, &record)) << name;
    return record;
}

// An entity of the type with its defaults, a handle (0 none) and the paper
// space flag; at(), xd() and insertOf() set its file position, extended
// data and inserted block.
struct Ent : ScriptedEntity {
    explicit Ent(int16_t type, uint64_t handle = 0, bool paper = false)
    {
        ksEntityBody b;
        ksEntityDefaults(&header, &b, type);
        header.handle = ksHandleFromU64(handle);
        if (paper)
            header.flags = static_cast<int8_t>(header.flags | ksEntityPaperSpace);
        const auto* bytes = reinterpret_cast<const uint8_t*>(&b);
        body.assign(bytes, bytes + ksEntityBodySize(type));
    }
    Ent& at(long position) { return filePosition = position, *this; }
    Ent& xd() { return xdata = kXdata1070, *this; }
    Ent& insertOf(uint64_t block)
    {
        const ksObjHandle h = ksHandleFromU64(block);
        return std::memcpy(body.data() + offsetof(ksEntityBody, insert.blockHandle), &h, sizeof h), *this;
    }
};

Scripted<ksBlockHeader> block(const char* name, uint64_t handle = 0, int8_t flags = 0, int8_t deleted = 0)
{
    auto b = entry<ksBlockHeader>(name, handle);
    b.record.flags = flags;
    b.record.deleted = deleted;
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

// vpEntList in list order, as "handle=name/viewportId" (hex handles), or
// with `positions` as "filePosition=name" (checking each is active).
Strings viewportRefs(ksFcb* fcb, bool positions = false)
{
    Strings out;
    ksEntityHeader header;
    ksEntityBody body;
    char text[600];
    for (ksLoc node = ksListFirst(fcb->vpEntList); node != 0; node = ksListNodeNext(node)) {
        const auto* ref = static_cast<const ksVpEntRef*>(ksRecordOf(node));
        if (!ksEntityUnpack(fcb, ref->location, &header, &body, nullptr, nullptr))
            return {"unreadable"};
        if (positions)
            std::snprintf(text, sizeof text, "%d=%s%s", static_cast<int>(ref->filePosition), body.viewport.name,
                          body.viewport.active == 1 ? "" : " inactive");
        else
            std::snprintf(text, sizeof text, "%llx=%s/%d", static_cast<unsigned long long>(u64(header.handle)),
                          body.viewport.name, body.viewport.viewportId);
        out.push_back(text);
    }
    return out;
}

ScriptedObject object(int16_t kind, uint64_t handle, const void* body = nullptr, size_t size = 0)
{
    ScriptedObject o;
    o.kind = o.header.kind = kind;
    o.header.handle = ksHandleFromU64(handle);
    const auto* bytes = static_cast<const uint8_t*>(body);
    o.body.assign(bytes, bytes + size);
    return o;
}

ScriptedObject mlineStyle(uint64_t handle, const char* name)
{
    ksMlineStyle m{};
    std::snprintf(m.name, sizeof m.name, "%s", name);
    return object(ksKindMlineStyle, handle, &m, sizeof m);
}

// A dictionary whose entries blob the load takes over.
ScriptedObject dictionary(uint64_t handle, std::vector<std::pair<const char*, uint64_t>> entries)
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

Handles handlesIn(ksLoc blob)
{
    Handles out;
    ksBlobCursor* in = ksBlobOpenRead(blob);
    ksObjHandle h;
    while (in && ksBlobReadHandle(in, &h))
        out.push_back(u64(h));
    ksBlobCloseRead(in);
    return out;
}

// Sets a named header variable as a DXF reader leaves it.
void setHeaderName(const char* variable, const char* value)
{
    std::snprintf(ksG->headerNames[ksHeaderNameFind(variable)->buffer], ksHeaderNameSize, "%s", value);
}

std::vector<int> progress;
int stopAtEntity = -1;
int entitiesSeen = 0;

class ResolveTest : public ScriptedLoadTest {
protected:
    void SetUp() override
    {
        ScriptedLoadTest::SetUp();
        progress.clear();
        stopAtEntity = -1;
        entitiesSeen = 0;
        ksSetLoadProgress([](int16_t percent) { progress.push_back(percent); });
        ksSetEntityNotice([](ksEntityHeader*, void*) {
            if (++entitiesSeen == stopAtEntity)
                ksStopLoad();
        });
    }
};

TEST_F(ResolveTest, SpacesAreMadeLastWithNewHandles)
{
    for (const Kind& k : {kDxf14, kDxf12, kDwg14, kDwg12}) {
        SCOPED_TRACE(k.label);
        script = ReaderScript{};
        script.blockHeaders = {block("A", 0x50), block("B", 0x51)};
        ZT_LOAD(k);
        EXPECT_EQ(names(fcb, ksListBlockHeaders), "A,B,*Model_Space,*Paper_Space");
        ksBlockHeader model = blockNamed(fcb, "*MODEL_SPACE");
        ksBlockHeader paper = blockNamed(fcb, "*PAPER_SPACE");
        EXPECT_EQ(std::make_tuple(u64(model.entryHandle), u64(paper.entryHandle), model.entities, paper.entities),
                  std::make_tuple(u64(fcb->modelBlockHandle), u64(fcb->paperBlockHandle), fcb->modelEntities,
                                  fcb->paperEntities));
        for (uint64_t h : {u64(model.entryHandle), u64(paper.entryHandle)})
            for (uint64_t taken : {0x0, 0x50, 0x51})
                EXPECT_NE(h, taken);
        EXPECT_NE(u64(model.entryHandle), u64(paper.entryHandle));
    }
}

TEST_F(ResolveTest, DxfSpacesByNameAndBlockRecords)
{
    for (const Kind& k : {kDxf12, kDxf14}) {
        SCOPED_TRACE(k.label);
        script = ReaderScript{};
        script.blockHeaders = {block("*model_space", 0x20), block("*Paper_Space", 0x21), block("X", 0x22)};
        script.blockWork = {{{}, {}, {}, {}, 100}, {{}, {}, {}, {}, 200}, {{}, {}, {}, {}, 300}};
        script.blockRecords = {entry<ksBlockHeader>("*MODEL_SPACE", 0x1F).record,
                               entry<ksBlockHeader>("*PAPER_SPACE", 0x1B).record, entry<ksBlockHeader>("x", 0x30).record};
        // X, then (R14) the BLOCK and ENDBLK of each space.
        script.blockEntities = {{Ent(ksEntLine, 0x40), Ent(ksEntEndblk, 0x41)},
                                {Ent(ksEntBlock, 0x42), Ent(ksEntEndblk, 0x43)},
                                {Ent(ksEntBlock, 0x44), Ent(ksEntEndblk, 0x45)}};
        ZT_LOAD(k);
        ksBlockHeader x = blockNamed(fcb, "X");
        EXPECT_EQ(std::make_tuple(names(fcb, ksListBlockHeaders), fcb->modelBlockPosition, fcb->paperBlockPosition,
                                  ksListCount(x.entities)),
                  std::make_tuple(std::string("X,*model_space,*Paper_Space"), 100, 200, uint32_t{2}));
        if (k.version < ksAC1012) {
            EXPECT_EQ(script.blockEntityPositions, (std::vector<int32_t>{300}));
            continue;
        }
        EXPECT_EQ(script.blockEntityPositions, (std::vector<int32_t>{300, 100, 200}));
        // X moves to the BLOCK_RECORD's handle; the spaces' BLOCK and ENDBLK are not kept.
        EXPECT_EQ((Handles{u64(fcb->modelBlockHandle), u64(fcb->paperBlockHandle), u64(x.entryHandle),
                           u64(fcb->modelBlockBegin), u64(fcb->paperBlockEnd),
                           ksListCount(fcb->modelEntities) + ksListCount(fcb->paperEntities)}),
                  (Handles{0x1F, 0x1B, 0x30, 0x42, 0x45, 0}));
    }
}

TEST_F(ResolveTest, DeletedBlocksAndEndblk)
{
    script.layers = {layer("0")};
    script.blockHeaders = {block("A"), block("B", 0, 0, 1), block("C")};
    // ENDBLK ends A; C starts where the reader puts it.
    script.blockEntities = {{Ent(ksEntLine), Ent(ksEntLine), Ent(ksEntEndblk), Ent(ksEntLine)}, {Ent(ksEntLine)}};
    ZT_LOAD(kDwg12);
    // A, C and its end, the empty main list.
    EXPECT_EQ((std::vector<size_t>{ksListCount(blockNamed(fcb, "A").entities), ksListCount(blockNamed(fcb, "B").entities),
                                   ksListCount(blockNamed(fcb, "C").entities)}),
              (std::vector<size_t>{3, 0, 1}));
    EXPECT_EQ(std::make_pair(script.callsOf(Slot::startBlockEntities), script.callsOf(Slot::readEntity)),
              std::make_pair(2, 3 + 2 + 1));
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
        {"CLAYER", "", &ksHeader::CLAYER, "", -1},           {"CLAYER", "NEWLAYER", &ksHeader::CLAYER, "NEWLAYER", -1},
        {"CLAYER", "walls", &ksHeader::CLAYER, "WALLS", -1}, {"CELTYPE", "NOSUCH", &ksHeader::CELTYPE, nullptr, 1},
        {"DIMSTYLE", "*UNNAMED", &ksHeader::DIMSTYLE, nullptr, 0}, {"DIMSTYLE", "ds1", &ksHeader::DIMSTYLE, nullptr, 2},
        {"DIMSTYLE", "NOSUCH", &ksHeader::DIMSTYLE, nullptr, 0}, {"UCSNAME", "", &ksHeader::UCSNAME, nullptr, 0},
        {"DIMTXSTY", "", &ksHeader::DIMTXSTY, nullptr, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.variable) + "=" + c.value);
        script = ReaderScript{};
        script.layers = {layer("WALLS")};
        script.dimstyles = {entry<ksDimstyle>("DS1")};
        script.onHeader = [&c](ksFcb*) { setHeaderName(c.variable, c.value); };
        ZT_LOAD(kDxf12);
        const uint64_t got = u64(fcb->header->*c.field);
        if (c.expectLayer) {
            EXPECT_EQ(got, handleOf(fcb, ksListLayers, c.expectLayer));
            EXPECT_NE(got, 0u);
        } else {
            const uint64_t expected[] = {0, u64(fcb->byBlockHandle), handleOf(fcb, ksListDimStyles, "DS1"),
                                         handleOf(fcb, ksListShapeFiles, "Standard")};
            EXPECT_EQ(got, expected[c.expect]);
        }
    }
}

TEST_F(ResolveTest, ArrowBlocksPreferTheUnderscore)
{
    script.blockHeaders = {block("CLOSED"), block("_CLOSED"), block("DOT")};
    script.onHeader = [](ksFcb* f) {
        std::strcpy(f->header->DIMBLK, "closed");
        std::strcpy(f->header->DIMBLK1, "DOT");
        std::strcpy(f->header->DIMBLK2, "");
        std::strcpy(f->header->DIMLDRBLK, "NONE");
    };
    for (const Kind& k : {kDxf12, kDwg14}) {
        SCOPED_TRACE(k.label);
        ZT_LOAD(k);
        const ksHeader& h = *fcb->header;
        EXPECT_EQ((Handles{u64(h.dimblkHandle), u64(h.dimblk1Handle), u64(h.dimblk2Handle), u64(h.dimldrblkHandle)}),
                  (Handles{handleOf(fcb, ksListBlockHeaders, "_CLOSED"), handleOf(fcb, ksListBlockHeaders, "DOT"), 0, 0}));
    }
}

TEST_F(ResolveTest, OldDwgHeaderByIndex)
{
    script.layers = {layer("0"), layer("WALLS")};
    script.styles = {entry<ksStyle>("Standard"), entry<ksStyle>("ROMANS")};
    script.ucses = {entry<ksUcs>("U1")};
    script.onHeader = [](ksFcb*) { ksG->headerIndices = ksHeaderIndices{1, 32766, -1, 0, -1, 1, 0}; };
    ZT_LOAD(kDwg12);
    const ksHeader& h = *fcb->header;
    EXPECT_EQ((Handles{u64(h.CLAYER), u64(h.CELTYPE), u64(h.DIMSTYLE), u64(h.UCSNAME), u64(h.PUCSNAME),
                       u64(h.TEXTSTYLE), u64(h.DIMTXSTY)}),
              (Handles{handleOf(fcb, ksListLayers, "WALLS"), u64(fcb->byBlockHandle), 0, handleOf(fcb, ksListUcses, "U1"),
                       0, handleOf(fcb, ksListShapeFiles, "ROMANS"), handleOf(fcb, ksListShapeFiles, "Standard")}));
}

TEST_F(ResolveTest, OldViewportHeadersPassOverTheFirst)
{
    script.layers = {layer("0")};
    script.entities = {Ent(ksEntViewport, 0, true).at(100).xd(), Ent(ksEntViewport, 0, true).at(200).xd()};
    script.onHeader = [](ksFcb* f) { f->blockEntitiesStart = 150; };
    // The first names no VIEWPORT: matched, it would fail the load. The
    // second counts from the block entity section.
    script.vpEntHeaders = {vpEntHeader(300, "FIRST"), vpEntHeader(static_cast<int32_t>(0x80000000u | 50), "SECOND"),
                           vpEntHeader(100, "THIRD")};
    ZT_LOAD(kDwg12);
    EXPECT_EQ(viewportRefs(fcb, true), (Strings{"100=THIRD", "200=SECOND"}));
    EXPECT_EQ(fcb->vpEntRefsSorted, 1);

    // A header that matches nothing is an error of the file.
    script.vpEntHeaders.push_back(vpEntHeader(400, "NONE"));
    expectRefused(kDwg12, 302);
}

TEST_F(ResolveTest, ProgressOfASmallLoad)
{
    // 30 entities through the 2106 bytes of the stub: the file percentage
    // is looked at after the 10th, 20th and 30th.
    for (int i = 0; i < 30; ++i)
        script.entities.push_back(Ent(ksEntLine, 0x100 + i).at((i + 1) * 70));
    script.blockHeaders = {block("A", 0x50)};
    ZT_LOAD(kDwg14);
    // 700 bytes of 2106: 33 -> 30 percent, 46 + 7; 1400: 66 -> 65, 62; 2100: 99 -> 95, 69.
    EXPECT_EQ(progress, (std::vector<int>{0, 0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 40, 46, 53, 62, 69, 71, 71, 79,
                                          87, 96, 100}));
    EXPECT_EQ(ksListCount(fcb->modelEntities), 30u);
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        script = ReaderScript{};
        script.blockHeaders = {block("A", 0x50), block("B", 0x51, 4)};
        script.blockEntities = {{Ent(ksEntLine, 0x60), Ent(ksEntEndblk, 0x61)},
                                {Ent(ksEntLine, 0x62), Ent(ksEntEndblk, 0x63)}};
        script.entities = {Ent(ksEntLine, 0x70).xd(), Ent(ksEntLine, 0x71), Ent(ksEntCircle, 0x72)};
        script.objects = {object(ksKindDictionary, 0x80), object(ksKindDictionary, 0x81)};
        script.vpEntHeaders = {vpEntHeader(0, "A"), vpEntHeader(0, "B")};
        if (c.expected == 290)
            script.entities[2].header.handle = ksHandleFromU64(0x70);
        else if (c.expected == 287)
            script.entities.push_back(Ent(ksEntViewport, 0x73, true));
        else
            script.failures = {{c.slot, c.call, c.error}};
        expectRefused(kDwg14, c.expected);
    }
}

TEST_F(ResolveTest, StopRequestInTheEntityLoop)
{
    for (int i = 0; i < 10; ++i)
        script.entities.push_back(Ent(ksEntLine, 0x100 + i));
    stopAtEntity = 3;
    // The list ends at the request; the next phase doesn't begin.
    expectRefused(kDwg14, 130);
    EXPECT_EQ(std::make_pair(script.callsOf(Slot::readEntity), script.callsOf(Slot::startBlockEntities)),
              std::make_pair(3, 0));
}

TEST_F(ResolveTest, ExternalReferenceListsOfOldDrawings)
{
    for (const Kind& k : {kDwg12, kDxf12, kDwg13, kDxf14}) {
        SCOPED_TRACE(k.label);
        script = ReaderScript{};
        script.layers = {layer("0")};
        script.blockHeaders = {block("XREF", 0x50, 4), block("PLAIN", 0x51)};
        // XREF, PLAIN, XREF: by index (old DWG), name (DXF) or handle (R13 DWG).
        for (int16_t index : {0, 1, 0}) {
            script.entities.push_back(Ent(ksEntInsert, 0x60 + script.entities.size()).insertOf(0x50u + index));
            script.entities.back().blockIndex = index;
            script.entities.back().blockName = index == 0 ? "XREF" : "PLAIN";
        }
        ZT_LOAD(k);
        EXPECT_EQ(std::make_pair(fcb->pendingRefs1, fcb->pendingRefs2), std::make_pair(0u, 0u));
        ksBlockHeader xref = blockNamed(fcb, "XREF");
        EXPECT_TRUE(ksHandleIsNull(blockNamed(fcb, "PLAIN").xdictHandle));
        Handles inserts;
        ksEntityHeader eh;
        ksEntityBody eb;
        ksListRewind(fcb->modelEntities);
        while (ksEntityRead(fcb, fcb->modelEntities, &eh, &eb))
            if (u64(eb.insert.blockHandle) == u64(xref.entryHandle))
                inserts.push_back(u64(eh.handle));
        EXPECT_EQ(inserts.size(), 2u);
        if (k.version >= ksAC1014) {
            EXPECT_TRUE(ksHandleIsNull(xref.xdictHandle));  // the file has its own
            continue;
        }
        ksObjectHeader head;
        ksObjectBody body;
        ASSERT_TRUE(ksObjectSeek(fcb, xref.xdictHandle, &head, &body));
        ASSERT_EQ(std::make_tuple(head.kind, body.dictionary.cloning, body.dictionary.entryCount),
                  std::make_tuple(int16_t{ksKindDictionary}, decltype(body.dictionary.cloning){1},
                                  decltype(body.dictionary.entryCount){1}));
        ksBlobCursor* in = ksBlobOpenRead(body.dictionary.entries);
        ksDictionaryEntry entry;
        ASSERT_TRUE(ksDictionaryEntryRead(in, &entry));
        ksBlobCloseRead(in);
        EXPECT_STREQ(entry.name, "ACAD_BLKREFS");
        ASSERT_TRUE(ksObjectSeek(fcb, entry.handle, &head, &body));
        EXPECT_EQ(head.kind, fcb->classNumbers.idBuffer);
        EXPECT_EQ(handlesIn(head.reactors), Handles{u64(xref.xdictHandle)});
        EXPECT_EQ(body.idBuffer.handleCount, 2);
        EXPECT_EQ(handlesIn(body.idBuffer.handles), inserts);  // in file order
    }
}

TEST_F(ResolveTest, NewViewportHeadersByHandle)
{
    struct Case {
        const char* what;
        std::vector<std::vector<uint8_t>> headers;  // behind the first, which is dropped
        Strings expected;                           // vpEntList
        bool moved;                                 // viewport 1 wasn't first
    } cases[] = {
        {"viewport 1 moves to the head",
         {vpEntHeader(0, "ONE", 0x92), vpEntHeader(0, "TWO", 0x90), vpEntHeader(0, "THREE", 0x91)},
         {"92=ONE/1", "90=TWO/2", "91=THREE/3"}, true},
        {"a miss carries on with the last entry", {vpEntHeader(0, "ONE", 0x90), vpEntHeader(0, "MISS", 0x99)},
         {"90=ONE/1", "91=/0", "92=MISS/2"}, false},
        {"deleted and null headers are passed over",
         {vpEntHeader(0, "ONE", 0x91), vpEntHeader(0, "TWO", 0x92), vpEntHeader(0, "DEL", 0x90, 1),
          vpEntHeader(0, "NULL", 0)},
         {"91=ONE/1", "90=/0", "92=TWO/2"}, true},
    };
    for (const Kind& k : {kDwg13, kDwg14}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(k.label) + ": " + c.what);
            script = ReaderScript{};
            script.entities = {Ent(ksEntViewport, 0x90, true).xd(), Ent(ksEntViewport, 0x91, true).xd(),
                               Ent(ksEntViewport, 0x92, true).xd()};
            script.vpEntHeaders = c.headers;
            script.vpEntHeaders.insert(script.vpEntHeaders.begin(), vpEntHeader(0, "DROPPED", 0x90));
            ZT_LOAD(k);
            EXPECT_EQ(viewportRefs(fcb), c.expected);
            EXPECT_EQ(std::make_pair(fcb->paperViewportNode, fcb->vpEntRefsSorted),
                      std::make_pair(c.moved ? ksListFirst(fcb->vpEntList) : ksLoc{0}, decltype(fcb->vpEntRefsSorted){1}));
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
            script = ReaderScript{};
            script.objects = {mlineStyle(0x80, "OTHER"), mlineStyle(0x81, "STANDARD"), mlineStyle(0x82, "FANCY"),
                              mlineStyle(0x83, "fancy")};
            script.onHeader = [&c](ksFcb*) { setHeaderName("CMLSTYLE", c.name); };
            ZT_LOAD(k);
            const ksObjHandle got = fcb->header->CMLSTYLE;
            EXPECT_EQ(ksObjectCount(fcb), c.found >= 0 ? 4u : 5u);
            if (c.found >= 0) {
                EXPECT_EQ(u64(got), styles[c.found]);
                continue;
            }
            ksObjectHeader head;
            ksObjectBody body;
            ASSERT_TRUE(ksObjectSeek(fcb, got, &head, &body));
            EXPECT_EQ(head.kind, ksKindMlineStyle);
            EXPECT_STREQ(body.mlineStyle.name, "NEW");
            EXPECT_LT(u64(got), u64(fcb->header->HANDSEED));  // given out by this drawing
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
        script = ReaderScript{};
        script.objects = {dictionary(0x20C, {{"ACAD_GROUP", 0x20D}, {c.entry, 0x20E}}), dictionary(0x20D, {}),
                          dictionary(0x20E, {})};
        if (!c.dictionaryFirst)
            script.objects.insert(script.objects.begin(), mlineStyle(0x20B, "STANDARD"));
        if (c.binary) {
            close();
            installTestReader(script);
            std::string content("AutoCAD Binary DXF\r\n\x1a\0", 22);
            content += "SECTION HEADER $ACADVER AC1015" + std::string(100, '\0');
            std::ofstream(dir / "drawing", std::ios::binary | std::ios::trunc) << content;
            fcb = ksLoadDrawing((dir / "drawing").string().c_str(), 1, 0);
            ASSERT_NE(fcb, nullptr) << ksErrorNumber();
        } else {
            ZT_LOAD(c.kind);
        }
        ksLayer fresh;
        ksLayerDefaults(fcb, &fresh);
        EXPECT_EQ(std::make_tuple(fcb->fileType, u64(fcb->plotStyleDictionary), u64(fresh.plotStyleHandle)),
                  std::make_tuple(decltype(fcb->fileType)(c.binary ? 2 : c.kind.dxf() ? 1 : 0), c.expected, c.expected));
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
        script = ReaderScript{};
        script.handlesEnabled = 1;
        script.handleSeed = 0x100;
        script.layers = {layer("0", 0x20)};
        if (c.expected == 131)
            script.onHeader = [](ksFcb*) { setHeaderName("CLAYER", "NEW"); };
        ZT_LOAD(c.kind);
        ksObjHandle taken = c.expected == 131 ? fcb->header->CLAYER : fcb->header->CMLSTYLE;
        if (c.expected == 133) {
            ksObjectHeader head;
            ksObjectBody body;
            ksObjectRewind(fcb);
            ASSERT_TRUE(ksObjectNext(fcb, &head, &body));
            taken = head.handle;
        }
        ASSERT_FALSE(ksHandleIsNull(taken));

        script.entities = {Ent(ksEntLine, u64(taken))};
        expectRefused(c.kind, c.expected);
        EXPECT_EQ(progress.back(), 96);  // past the last phase
    }
}

}  // namespace
