// The upgrade of loaded content: references by index, name and handle, the
// POLYLINE conversion, the default and layout objects, and the viewport
// settings kept in extended data.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

#include "bridge/layouts.h"
#include "bridge/upgrade.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/object.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/tablelist.h"
#include "store/xdata.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

uint64_t u64(const ksObjHandle& h) { return ksHandleToU64(h); }
ksObjHandle H(uint64_t v) { return ksHandleFromU64(v); }

int handlerCalls = 0;
void countHandler(int16_t severity) { handlerCalls += severity == 6; }
int notices = 0;
void countNotice(ksEntityHeader*, void*) { ++notices; }

struct Stored {
    ksEntityHeader head;
    ksEntityBody body;
};
using Fill = std::function<void(ksEntityHeader&, ksEntityBody&)>;
using Entries = std::vector<std::pair<std::string, uint64_t>>;

class UpgradeTest : public zt::DrawingTest {
protected:
    uint64_t next = 0x500;

    UpgradeTest() { withHeader = true; }
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(DrawingTest::SetUp());
        fcb->nextHandle = H(0x1000);
        fcb->modelEntities = ksListNew();
        fcb->paperEntities = ksListNew();
        ASSERT_EQ(ksAddDefaultClasses(fcb), 1);
        fcb->byBlockHandle = add<ksLinetype>(ksListLinetypes, "ByBlock", 0x20);
        fcb->byLayerHandle = add<ksLinetype>(ksListLinetypes, "ByLayer", 0x21);
        add<ksLinetype>(ksListLinetypes, "Continuous", 0x22), add<ksLinetype>(ksListLinetypes, "Dashed", 0x23);
        add<ksLayer>(ksListLayers, "0", 0x30), add<ksLayer>(ksListLayers, "Walls", 0x31);
        add<ksStyle>(ksListShapeFiles, "Standard", 0x40), add<ksStyle>(ksListShapeFiles, "Notes", 0x41);
        add<ksBlockHeader>(ksListBlockHeaders, "Door", 0x50);
        add<ksDimstyle>(ksListDimStyles, "Standard", 0x60), add<ksDimstyle>(ksListDimStyles, "Arch", 0x61);
        handlerCalls = notices = 0;
    }
    void TearDown() override
    {
        ksSetErrorHandler(nullptr);
        DrawingTest::TearDown();
    }

    template <typename Record>
    ksObjHandle add(ksTableList table, const char* name, uint64_t handle, ksLoc entities = 0)
    {
        Record r{};
        if constexpr (std::is_same_v<Record, ksLayer>)
            ksLayerDefaults(fcb, &r);
        if constexpr (std::is_same_v<Record, ksBlockHeader>)
            r.entities = entities;
        std::snprintf(r.name, sizeof r.name, "%s", name);
        r.entryHandle = H(handle);
        EXPECT_EQ(ksTableAdd(fcb, table, &r), 1) << name;
        return r.entryHandle;
    }

    void setFile(bool dxf, int16_t version) { fcb->isDxf = dxf, fcb->fileVersion = version; }

    // One entity through the step, as a reader delivers it; `fill` sets
    // what differs from the defaults.
    int16_t load(int16_t type, ksEntityRefs r, const Fill& fill = {}, ksEntityHeader* headOut = nullptr,
                 ksEntityBody* bodyOut = nullptr)
    {
        ksEntityHeader h;
        static ksEntityBody b;
        std::memset(&b, 0, sizeof b);
        ksEntityDefaults(&h, type < ksEntityFixedCount ? &b : nullptr, type);
        if (!fcb->isDxf)
            h.handle = H(next++);
        if (fill)
            fill(h, b);
        int16_t result = ksLoadEntity(fcb, fcb->modelEntities, fcb->paperEntities, 0, 0, &h, &b, &r);
        if (headOut)
            *headOut = h;
        if (bodyOut)
            *bodyOut = b;
        return result;
    }
    static ksEntityRefs refs()
    {
        ksEntityRefs r;
        ksEntityRefsClear(&r);
        return r;
    }

    // The records of a list from place `from` on.
    std::vector<Stored> stored(ksLoc list = 0, size_t from = 0)
    {
        std::vector<Stored> out;
        ksLoc node = ksListFirst(list ? list : fcb->modelEntities);
        for (size_t place = 0; node; ++place) {
            Stored s{};
            ksLoc following = 0;
            EXPECT_EQ(ksEntityUnpack(fcb, node, &s.head, &s.body, nullptr, &following), 1);
            if (place >= from)
                out.push_back(s);
            node = following;
        }
        return out;
    }
    std::vector<int16_t> types(size_t from = 0)
    {
        std::vector<int16_t> out;
        for (const Stored& s : stored(0, from))
            out.push_back(s.head.type);
        return out;
    }
};

// ---------------------------------------------------------------------------
// References

TEST_F(UpgradeTest, OldDwgResolvesTableIndicesInListOrder)
{
    setFile(false, ksAC1009);
    struct Case {
        int16_t layer, linetype;
        uint64_t wantLayer, wantLinetype;
    } cases[] = {
        {1, 32767, 0x31, 0x21}, {0, 32766, 0x30, 0x20}, {1, 0, 0x31, 0x22},  // own linetypes first, specials last
        {1, 1, 0x31, 0x23},     {7, 9, 0, 0},                                // past the end: null
        {0, 1, 0x30, 0x23},
    };
    ksEntityRefs r = refs();
    ksEntityHeader h;
    ksEntityBody b;
    for (const Case& c : cases) {
        r.layerIndex = c.layer;
        r.linetypeIndex = c.linetype;
        ASSERT_EQ(load(ksEntLine, r, {}, &h), ksEntLine);
        EXPECT_EQ(u64(h.layerHandle), c.wantLayer) << c.layer;
        EXPECT_EQ(u64(h.linetypeHandle), c.wantLinetype) << c.linetype;
    }
    for (auto [index, want] : {std::pair{1, 0x41}, {5, 0x40}}) {  // no such style: the first
        r.styleIndex = static_cast<int16_t>(index);
        load(ksEntText, r, {}, nullptr, &b);
        EXPECT_EQ(u64(b.text.styleHandle), static_cast<uint64_t>(want));
    }
    for (auto [index, want] : {std::pair{1, 0x61}, {-1, 0}}) {
        r.dimStyleIndex = static_cast<int16_t>(index);
        load(ksEntDimension, r, {}, nullptr, &b);
        EXPECT_EQ(u64(b.dimension.dimstyleHandle), static_cast<uint64_t>(want));
        EXPECT_EQ(u64(b.dimension.blockHandle), 0x50u);
    }
}

TEST_F(UpgradeTest, DxfResolvesNamesCreatesLayersAndFallsBack)
{
    setFile(true, ksAC1009);
    ksSetErrorHandler(countHandler);
    const uint32_t layers = ksLayerCount(fcb);
    struct Case {
        const char *layer, *linetype;
        uint64_t wantLinetype;
    } cases[] = {{"walls", "DASHED", 0x23}, {"Roof", "NoSuchType", 0x21}, {"ROOF", "continuous", 0x22}};
    std::vector<uint64_t> got;
    for (const Case& c : cases) {
        ksEntityRefs r = refs();
        r.layerName = c.layer;
        r.linetypeName = c.linetype;
        ksEntityHeader h;
        ASSERT_EQ(load(ksEntLine, r, {}, &h), ksEntLine);
        EXPECT_FALSE(ksHandleIsNull(h.handle)) << "DXF entities without a handle get one";
        EXPECT_EQ(u64(h.linetypeHandle), c.wantLinetype) << c.linetype;
        got.push_back(u64(h.layerHandle));
    }
    EXPECT_EQ(got[0], 0x31u);
    EXPECT_EQ(got[1], got[2]) << "the layer made for the first miss serves the second";
    EXPECT_EQ(ksLayerCount(fcb), layers + 1);
    ksLayer made;
    ASSERT_EQ(ksLayerSeek(fcb, H(got[1]), &made), 1);
    EXPECT_STREQ(made.name, "Roof");
    EXPECT_EQ(made.color, 7);
    EXPECT_EQ(u64(made.linetypeHandle), u64(ksTableFirstHandle(fcb, ksListLinetypes)));

    struct BodyCase {
        int16_t type;
        const char *style, *block, *dimStyle;
        uint64_t wantStyle, wantBlock, wantDimStyle;
        int wantHandlerCalls;
    } bodies[] = {
        {ksEntText, "notes", nullptr, nullptr, 0x41, 0, 0, 0},
        {ksEntText, "Missing", nullptr, nullptr, 0x40, 0, 0, 0},
        {ksEntInsert, nullptr, "DOOR", nullptr, 0, 0x50, 0, 0},
        {ksEntDimension, nullptr, "Door", "arch", 0, 0x50, 0x61, 0},
        {ksEntDimension, nullptr, "Door", "", 0, 0x50, 0, 0},
        {ksEntDimension, nullptr, "Door", "*unnamed", 0, 0x50, 0, 0},
        {ksEntDimension, nullptr, "Nowhere", "Nothing", 0, 0, 0, 2},
        {ksEntLeader, nullptr, nullptr, "Nothing", 0, 0, 0, 0},
        {ksEntTolerance, nullptr, nullptr, "Arch", 0, 0, 0x61, 0},
    };
    for (const BodyCase& c : bodies) {
        ksEntityRefs r = refs();
        r.layerName = "0";
        r.styleName = c.style;
        r.blockName = c.block;
        r.dimStyleName = c.dimStyle;
        handlerCalls = 0;
        ksEntityBody b;
        ASSERT_EQ(load(c.type, r, {}, nullptr, &b), c.type) << ksErrorNumber();
        const int16_t t = c.type;
        const ksObjHandle* style = t == ksEntText ? &b.text.styleHandle : nullptr;
        const ksObjHandle* block = t == ksEntInsert ? &b.insert.blockHandle
                                   : t == ksEntDimension ? &b.dimension.blockHandle : nullptr;
        const ksObjHandle* dim = t == ksEntDimension ? &b.dimension.dimstyleHandle
                                 : t == ksEntLeader ? &b.leader.dimstyleHandle
                                 : t == ksEntTolerance ? &b.tolerance.dimstyleHandle : nullptr;
        auto value = [](const ksObjHandle* h) { return h ? u64(*h) : 0; };
        EXPECT_EQ(std::tuple(value(style), value(block), value(dim), handlerCalls),
                  std::tuple(c.wantStyle, c.wantBlock, c.wantDimStyle, c.wantHandlerCalls)) << t;
    }
}

TEST_F(UpgradeTest, DxfShapeNamesGoThroughTheShapeFiles)
{
    zt::TempDir dir;
    const std::string font = (dir / "marks").string();
    // Header text, two shapes (3 "OTHER", 5 "ARROW") and their bodies.
    std::string shx = std::string(28, 'h') + std::string("\2\0\3\0\6\0\5\0\7\0", 10) +
                      std::string("OTHER\0ARROW\0\1", 13);
    std::FILE* f = std::fopen((font + ".shx").c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(shx.data(), 1, shx.size(), f);
    std::fclose(f);
    ksStyle shapes{};
    std::snprintf(shapes.name, sizeof shapes.name, "Marks");
    std::snprintf(shapes.fontFile, sizeof shapes.fontFile, "%s", font.c_str());
    shapes.flags = 1;
    shapes.entryHandle = H(0x42);
    ASSERT_EQ(ksStyleAdd(fcb, &shapes), 1);

    setFile(true, ksAC1009);
    ksEntityRefs r = refs();
    ksEntityBody b;
    // Exact names only; the last comes from the drawing's cache, the file gone.
    for (auto [name, number, style] : {std::tuple{"arrow", 255, 0}, {"ARROW", 5, 0x42}, {nullptr, 0, 0},
                                       {"ARROW", 5, 0x42}}) {
        if (name == nullptr) {
            std::remove((font + ".shx").c_str());
            continue;
        }
        r.shapeName = name;
        load(ksEntShape, r, {}, nullptr, &b);
        EXPECT_EQ(b.shape.shapeNumber, number) << name;
        EXPECT_EQ(u64(b.shape.styleHandle), static_cast<uint64_t>(style)) << name;
    }
}

TEST_F(UpgradeTest, LaterDwgKeepsHandlesAndMakesZombiesProxies)
{
    setFile(false, ksAC1012);
    fcb->classNumbers.zombieEntityClass = 540;
    ksEntityHeader h;
    for (uint64_t layer : {0x31, 0x9999}) {  // a handle that names no layer stays as it is
        auto fill = [&](ksEntityHeader& e, ksEntityBody&) {
            e.layerHandle = H(layer);
            e.linetypeHandle = H(0x23);
        };
        ASSERT_EQ(load(ksEntLine, refs(), fill, &h), ksEntLine);
        EXPECT_EQ(u64(h.layerHandle), layer);
        EXPECT_EQ(u64(h.linetypeHandle), 0x23u);
    }
    EXPECT_EQ(load(540, refs(), [&](ksEntityHeader&, ksEntityBody& b) { ksClassEntityDefaults(fcb, 540, &b); }),
              ksEntProxy);
    EXPECT_EQ(types().back(), ksEntProxy);
}

TEST_F(UpgradeTest, ManyAlternatingLayersResolveThroughTheIndex)
{
    setFile(true, ksAC1009);
    const int count = 3000;  // past the first sizes of the index
    char name[32];
    for (int i = 0; i < count; ++i) {
        std::snprintf(name, sizeof name, "L%04d", i);
        add<ksLayer>(ksListLayers, name, 0x10000 + i);
    }
    ksEntityRefs r = refs();
    ksEntityHeader h;
    for (int i = 0; i < 2 * count; ++i) {
        int want = (i * 7919) % count;
        std::snprintf(name, sizeof name, "l%04d", want);
        r.layerName = name;
        ASSERT_EQ(load(ksEntPoint, r, {}, &h), ksEntPoint);
        ASSERT_EQ(u64(h.layerHandle), 0x10000u + want) << name;
    }
    // A layer that comes in behind the step's back is found all the same.
    add<ksLayer>(ksListLayers, "Late", 0x9000);
    r.layerName = "late";
    load(ksEntPoint, r, {}, &h);
    EXPECT_EQ(u64(h.layerHandle), 0x9000u);
    EXPECT_EQ(ksLayerCount(fcb), static_cast<uint32_t>(count + 3));
}

TEST_F(UpgradeTest, DxfVertexAndSeqendInheritFromTheirOwner)
{
    setFile(true, ksAC1009);
    ksEntityRefs r = refs();
    r.layerName = "Walls";
    load(ksEntPolyline, r, [](ksEntityHeader& h, ksEntityBody& b) {
        h.color = 3;
        b.polyline.flags = ksPolyline3d;  // stays a POLYLINE
    });
    r.layerName = "0";
    load(ksEntVertex, r);
    r.layerName = "Elsewhere";
    load(ksEntSeqend, r);
    r.blockName = "Door";
    ASSERT_EQ(load(ksEntInsert, r, [](ksEntityHeader& h, ksEntityBody&) { h.flags |= ksEntityPaperSpace; }),
              ksEntInsert);
    load(ksEntSeqend, r);
    auto model = stored();
    ASSERT_EQ(model.size(), 3u);
    for (const Stored& s : model) {
        EXPECT_EQ(u64(s.head.layerHandle), 0x31u) << s.head.type;
        EXPECT_EQ(s.head.color, 3);
    }
    auto paper = stored(fcb->paperEntities);
    ASSERT_EQ(paper.size(), 2u) << "the SEQEND follows its INSERT into paper space";
    EXPECT_EQ(paper[1].head.type, ksEntSeqend);
}

TEST_F(UpgradeTest, StepFailuresAndTheNoticeHook)
{
    setFile(false, ksAC1009);
    ksSetEntityNotice(countNotice);
    EXPECT_EQ(load(ksEntViewport, refs(), [](ksEntityHeader& h, ksEntityBody&) { h.flags |= ksEntityPaperSpace; }),
              0);
    EXPECT_EQ(ksErrorNumber(), 287) << "a paper space viewport without extended data";
    EXPECT_EQ(load(ksEntLine, refs()), ksEntLine);
    EXPECT_EQ(load(ksEntLine, refs(), [](ksEntityHeader& h, ksEntityBody&) { h.handle = H(0x31); }), 0);
    EXPECT_EQ(ksErrorNumber(), 290) << "a handle that a layer has";
    EXPECT_EQ(notices, 2);
    EXPECT_EQ(stored().size(), 1u);
    EXPECT_EQ(stored(fcb->paperEntities).size(), 0u);
}

// ---------------------------------------------------------------------------
// POLYLINE to LWPOLYLINE

// A vertex: X, Y, bulge, its widths (-1: none of its own), flags, extended data.
struct Vertex {
    double x, y, bulge = 0, startWidth = -1, endWidth = -1;
    int16_t flags = 0;
    bool eed = false;
};
constexpr int16_t Kept = -1;  // every record kept as it came, not converted

struct PolyCase {
    const char* name;
    int16_t flags;
    double startWidth, endWidth, thickness, elevation;
    std::vector<Vertex> vertices;
    int16_t want;  // the LWPOLYLINE's flags, or Kept
    double wantConstant = 0;
    std::vector<double> wantBlob = {};  // X, Y, then bulge and widths by the flags
};

TEST_F(UpgradeTest, PolylineConversionTable)
{
    const std::vector<Vertex> sq = {{0, 0}, {1, 0}, {1, 1}}, two = {{0, 0}, {1, 0}};
    const PolyCase cases[] = {
        {"plain", 0, 0, 0, 0, 0, sq, 0, 0, {0, 0, 1, 0, 1, 1}},
        {"bulge on the second vertex", 0, 0, 0, 0, 0, {{0, 0}, {1, 0, 0.5}, {1, 1}}, ksLwHasBulges, 0,
         {0, 0, 0, 1, 0, 0.5, 1, 1, 0}},
        {"closed and linetype generation", 1 | 128, 0, 0, 0, 0, sq, ksLwClosed | ksLwPlinegen},
        {"constant width", 0, 1, 1, 0, 0, sq, ksLwConstantWidth, 1.0, {0, 0, 1, 0, 1, 1}},
        {"a vertex start width", 0, 1, 1, 0, 0, {{0, 0, 0, 2}, {1, 0}}, ksLwHasWidths, 0, {0, 0, 2, 1, 1, 0, 1, 1}},
        {"a vertex end width", 0, 1, 1, 0, 0, {{0, 0}, {1, 0, 0, -1, 3}}, ksLwHasWidths, 0, {0, 0, 1, 1, 1, 0, 1, 3}},
        {"start and end differ", 0, 0, 3, 0, 0, two, ksLwHasWidths, 0, {0, 0, 0, 3, 1, 0, 0, 3}},
        {"thickness below the threshold", 0, 0, 0, 1e-11, 0, sq, 0},
        {"thickness and elevation", 0, 0, 0, 2, 5, sq, 2 | 8},
        {"3D", ksPolyline3d, 0, 0, 0, 0, sq, Kept},
        {"polygon mesh", ksPolylinePolygonMesh, 0, 0, 0, 0, sq, Kept},
        {"polyface mesh", ksPolylinePolyfaceMesh, 0, 0, 0, 0, sq, Kept},
        {"curve fit", 2, 0, 0, 0, 0, sq, Kept},
        {"duplicate vertex", 0, 0, 0, 0, 0, {{0, 0}, {1, 0}, {1, 0}}, Kept},
        {"vertex with extended data", 0, 0, 0, 0, 0, {{0, 0}, {1, 0, 0, -1, -1, 0, true}}, Kept},
        {"curve-fit tangent on a vertex", 0, 0, 0, 0, 0, {{0, 0}, {1, 0, 0, -1, -1, 2}}, Kept},
    };
    setFile(false, ksAC1009);
    for (const PolyCase& c : cases) {
        SCOPED_TRACE(c.name);
        const size_t from = stored().size();
        ASSERT_EQ(load(ksEntPolyline, refs(), [&](ksEntityHeader& h, ksEntityBody& b) {
                      h.thickness = c.thickness;
                      b.polyline = ksPolylineBody{c.elevation, c.startWidth, c.endWidth, 0, 0, 0, 0, 0, c.flags};
                  }), ksEntPolyline);
        for (const Vertex& v : c.vertices) {
            auto fill = [&](ksEntityHeader& h, ksEntityBody& b) {
                b.vertex = ksVertexBody{{v.x, v.y, c.elevation}, v.flags, v.startWidth, v.endWidth,
                                        v.startWidth >= 0, v.endWidth >= 0, v.bulge, 0, 0, {}};
                if (v.eed)  // as a reader may hand it over, already in a blob
                    h.eed = zt::blobOf({1, 0});
            };
            ASSERT_EQ(load(ksEntVertex, refs(), fill), ksEntVertex);
        }
        ASSERT_EQ(load(ksEntSeqend, refs()), ksEntSeqend);

        if (c.want == Kept) {
            std::vector<int16_t> want = {ksEntPolyline};
            want.insert(want.end(), c.vertices.size(), ksEntVertex);
            want.push_back(ksEntSeqend);
            EXPECT_EQ(types(from), want) << "every record kept, in order";
            continue;
        }
        auto all = stored(0, from);
        ASSERT_EQ(all.size(), 1u);
        const auto& lw = reinterpret_cast<const ksLwpolyline&>(all[0].body);
        EXPECT_EQ(std::tuple(all[0].head.type, all[0].head.thickness, lw.vertexCount, lw.flags, lw.constantWidth,
                             lw.elevation),
                  std::tuple(fcb->classNumbers.lwpolyline, c.thickness >= 1e-10 ? c.thickness : 0.0,
                             static_cast<int32_t>(c.vertices.size()), c.want, c.wantConstant, c.elevation));
        if (!c.wantBlob.empty()) {
            std::vector<double> blob(ksBlobSize(lw.vertices) / 8);
            ksBlobCursor* in = ksBlobOpenRead(lw.vertices);
            for (double& d : blob)
                ksBlobReadReal(in, &d);
            ksBlobCloseRead(in);
            EXPECT_EQ(blob, c.wantBlob);
        }
    }
}

TEST_F(UpgradeTest, PolylineWithoutItsSeqend)
{
    setFile(false, ksAC1009);
    for (int16_t type : {ksEntPolyline, ksEntVertex, ksEntLine})
        load(type, refs());
    EXPECT_EQ(types(), (std::vector<int16_t>{ksEntPolyline, ksEntVertex, ksEntLine})) << "cut off, kept as it came";

    load(ksEntPolyline, refs());
    load(ksEntVertex, refs());
    EXPECT_EQ(stored().size(), 3u) << "held back while gathered";
    EXPECT_EQ(ksLoadEntityFinish(fcb), 1);
    EXPECT_EQ(stored().size(), 5u);

    ksSetConvertPolylines(0);
    load(ksEntPolyline, refs());
    load(ksEntSeqend, refs());
    EXPECT_EQ(stored().size(), 7u) << "no conversion when it is switched off";
    ksSetConvertPolylines(1);
    load(ksEntPolyline, refs());
    load(ksEntVertex, refs());  // TearDown drops what is gathered
}

// ---------------------------------------------------------------------------
// Default and layout objects

struct Object {
    ksObjectHeader head;
    ksObjectBody body;
};

std::vector<Object> objects(ksFcb* fcb)
{
    std::vector<Object> out;
    Object o;
    ksObjectRewind(fcb);
    while (ksObjectNext(fcb, &o.head, &o.body))
        out.push_back(o);
    return out;
}

void clearObjects(ksFcb* fcb)
{
    for (const Object& o : objects(fcb))
        ASSERT_EQ(ksObjectDelete(fcb, o.head.handle), 1);
}

Entries entries(ksLoc blob)
{
    Entries out;
    ksDictionaryEntry e;
    ksBlobCursor* in = ksBlobOpenRead(blob);
    while (in && ksDictionaryEntryRead(in, &e))
        out.emplace_back(e.name, u64(e.handle));
    ksBlobCloseRead(in);
    return out;
}

// The one reactor of an object, 0 without.
uint64_t reactor(const ksObjectHeader& head)
{
    ksObjHandle h{};
    ksBlobCursor* in = ksBlobOpenRead(head.reactors);
    ksBlobReadHandle(in, &h);
    ksBlobCloseRead(in);
    return head.reactorCount == 1 ? u64(h) : 0;
}

TEST_F(UpgradeTest, DefaultObjectsWithDrawnAndFixedHandles)
{
    ksObjHandle table[35];
    std::generate(table, table + 35, [i = 0x2000]() mutable { return H(i++); });
    for (bool fixed : {false, true}) {
        SCOPED_TRACE(fixed ? "fixed handles" : "drawn handles");
        clearObjects(fcb);
        const uint64_t base = fixed ? 0x2000 + 24 : u64(fcb->nextHandle);
        ASSERT_EQ(ksAddDefaultObjects(fcb, fixed ? table : nullptr), 1);

        auto all = objects(fcb);
        ASSERT_EQ(all.size(), 4u);
        const Object &named = all[0], &groups = all[1], &mlines = all[2], &style = all[3];
        EXPECT_EQ(std::tuple(named.head.kind, u64(named.head.handle), named.body.dictionary.cloning, reactor(named.head)),
                  std::tuple(ksKindDictionary, base, 1, 0u));
        EXPECT_EQ(entries(named.body.dictionary.entries),
                  (Entries{{"ACAD_GROUP", base + 1}, {"ACAD_MLINESTYLE", base + 2}}));
        EXPECT_EQ(std::tuple(u64(groups.head.handle), groups.body.dictionary.entryCount, reactor(groups.head)),
                  std::tuple(base + 1, 0, base));
        EXPECT_EQ(entries(mlines.body.dictionary.entries), (Entries{{"Standard", base + 3}}));
        EXPECT_EQ(reactor(mlines.head), base);
        EXPECT_EQ(std::tuple(style.head.kind, std::string(style.body.mlineStyle.name), reactor(style.head)),
                  std::tuple(ksKindMlineStyle, std::string("Standard"), base + 2));
        EXPECT_EQ(u64(fcb->header->CMLSTYLE), base + 3);
        ksMlineElement e[2];
        ksBlobCursor* in = ksBlobOpenRead(style.body.mlineStyle.elements);
        ASSERT_TRUE(ksMlineElementRead(in, &e[0]) && ksMlineElementRead(in, &e[1]));
        ksBlobCloseRead(in);
        for (double offset : {0.5, -0.5}) {
            const ksMlineElement& element = e[offset < 0];
            EXPECT_EQ(std::tuple(element.offset, element.color, element.linetypeIndex), std::tuple(offset, 256, 32767));
        }
    }
}

TEST_F(UpgradeTest, LayoutObjectsAndTheNamedObjectDictionary)
{
    fcb->modelBlockHandle = add<ksBlockHeader>(ksListBlockHeaders, "*Model_Space", 0x70, fcb->modelEntities);
    fcb->paperBlockHandle = add<ksBlockHeader>(ksListBlockHeaders, "*Paper_Space", 0x71, fcb->paperEntities);
    ksObjHandle table[35];
    std::generate(table, table + 35, [i = 0x3000]() mutable { return H(i++); });
    auto slot = [](int i) -> uint64_t { return 0x3000 + i; };
    const Entries added = {{"ACAD_PLOTSETTINGS", slot(33)}, {"ACAD_PLOTSTYLENAME", slot(30)},
                           {"ACAD_WIPEOUT_VARS", slot(34)}};
    struct Case {
        const char* name;
        Entries before, after;
    } cases[] = {
        {"empty", {}, {{"ACAD_LAYOUT", slot(29)}}},
        {"with a layout entry",
         {{"acad_layout", 0x999}, {"Other", 0x998}},
         {{"acad_layout", slot(29)}, {"Other", 0x998}}},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.after.insert(c.after.end(), added.begin(), added.end());
        clearObjects(fcb);
        ksObjectHeader head{};
        ksObjectBody body{};
        head.kind = ksKindDictionary;
        ksObjectDefaults(fcb, &head, &body);
        head.handle = H(0x10);
        body.dictionary.entryCount = static_cast<int32_t>(c.before.size());
        ksBlobCursor* w = ksBlobOpenWrite(body.dictionary.entries = ksBlobNew());
        for (const auto& [name, handle] : c.before) {
            ksDictionaryEntry e{};
            e.handle = H(handle);
            std::snprintf(e.name, sizeof e.name, "%s", name.c_str());
            ksDictionaryEntryWrite(w, e);
        }
        ksBlobCloseWrite(w);
        ASSERT_EQ(ksObjectAdd(fcb, &head, &body), 1);
        ASSERT_EQ(ksAddLayoutObjects(fcb, table), 1) << ksErrorNumber();

        auto all = objects(fcb);
        ASSERT_EQ(all.size(), 8u);
        EXPECT_EQ(entries(all[0].body.dictionary.entries), c.after);
        EXPECT_EQ(all[0].body.dictionary.entryCount, static_cast<int32_t>(c.after.size()));
        auto byHandle = [&](uint64_t h) -> const Object& {
            for (const Object& o : all)
                if (u64(o.head.handle) == h)
                    return o;
            ADD_FAILURE() << std::hex << h;
            return all[0];
        };
        const Object& styles = byHandle(slot(30));
        EXPECT_EQ(entries(styles.body.dictionaryWithDefault.entries), (Entries{{"Normal", slot(28)}}));
        EXPECT_EQ(std::tuple(styles.head.kind, u64(styles.body.dictionaryWithDefault.defaultEntry), reactor(styles.head)),
                  std::tuple(fcb->classNumbers.dictionaryWithDefault, slot(28), 0x10u));
        EXPECT_EQ(reactor(byHandle(slot(28)).head), slot(30));
        EXPECT_EQ(entries(byHandle(slot(29)).body.dictionary.entries),
                  (Entries{{"Layout1", slot(32)}, {"Model", slot(31)}}));
        EXPECT_EQ(byHandle(slot(33)).body.dictionary.entryCount, 0);
        EXPECT_EQ(byHandle(slot(34)).head.kind, fcb->classNumbers.wipeoutVariables);
        for (auto [layout, block, name] : {std::tuple{slot(31), 0x70, "Model"}, {slot(32), 0x71, "Layout1"}}) {
            const Object& o = byHandle(layout);
            EXPECT_EQ(std::tuple(std::string(o.body.layout.name), u64(o.body.layout.blockRecord), reactor(o.head)),
                      std::tuple(std::string(name), uint64_t(block), slot(29)));
            ksBlockHeader record;
            ASSERT_EQ(ksBlockHeaderSeek(fcb, H(block), &record), 1);
            EXPECT_EQ(u64(record.layoutHandle), layout);
        }
        ksLayer layer;
        ksLayerRewind(fcb);
        while (ksLayerNext(fcb, &layer))
            EXPECT_EQ(u64(layer.plotStyleHandle), slot(28)) << layer.name;
    }
}

// ---------------------------------------------------------------------------
// Viewports of old files

TEST_F(UpgradeTest, ViewportSettingsLeaveTheExtendedData)
{
    const ksObjHandle acad = add<ksAppid>(ksListRegApps, "ACAD", 0x80);
    static ksXdataItem item;
    using Item = std::pair<int16_t, std::variant<int16_t, double, ksPoint3, ksObjHandle, const char*>>;
    std::vector<Item> view = {{1010, ksPoint3{1, 2, 3}}, {1010, ksPoint3{1e-14, 0, 1}}};
    for (double d : {0.25, 10.0, 5.0, 6.0, 50.0, 0.5, 0.75})
        view.emplace_back(1040, d);
    for (int16_t f : {3, 100, 1, 0, 1, 0, 1, 2})  // status, zoom, bits 128 32 256 512 1024, isometric
        view.emplace_back(1070, f);
    for (double d : {0.1, 1.0, 2.0, 0.5, 0.5, 10.0, 10.0})
        view.emplace_back(1040, d);
    view.insert(view.end(), {{1070, int16_t{1}} /* 2048 */, {1002, "{"}, {1003, H(0x30)}, {1003, H(0x31)},
                             {1002, "}"}, {1002, "}"}});
    auto build = [&](bool withView) {  // another application's items ahead and behind
        std::vector<Item> items = {{1001, H(0x81)}, {1070, int16_t{42}}, {1001, acad}, {1000, "MVIEW"},
                                   {1002, "{"},     {1070, int16_t{16}}};
        items.insert(items.end(), withView ? view.begin() : view.end(), view.end());
        items.insert(items.end(), {{1001, H(0x82)}, {1000, "behind"}});
        ksLoc blob = ksBlobNew();
        ksBlobCursor* w = ksBlobOpenWrite(blob);
        for (const Item& it : items) {
            std::visit([&](auto value) {
                if constexpr (std::is_same_v<decltype(value), const char*>)
                    ksXdataSetText(&item, it.first, value);
                else
                    ksXdataSet(&item, it.first, value);
            }, it.second);
            ksXdataWrite(w, &item);
        }
        ksBlobCloseWrite(w);
        return blob;
    };
    setFile(false, ksAC1009);
    for (bool withView : {true, false}) {
        ksEntityHeader h;
        ksEntityBody b;
        ksEntityDefaults(&h, &b, ksEntViewport);
        h.handle = H(withView ? 0x600 : 0x601);
        h.eed = build(withView);
        ASSERT_EQ(ksEntityAppend(fcb, fcb->modelEntities, &h, &b), 1);
    }
    EXPECT_EQ(ksUpgradeViewports(fcb), 0) << "the second has no view";

    auto all = stored();
    ASSERT_EQ(all.size(), 2u);
    const ksViewportBody& v = all[0].body.viewport;
    EXPECT_EQ(std::tuple(v.target.z, v.direction.x, v.direction.z, v.twist, v.viewCenter.y, v.backClip, v.snapAngle),
              std::tuple(3.0, 0.0, 1.0, 0.25, 6.0, 0.75, 0.1));
    EXPECT_EQ(std::tuple(v.gridSpacing.y, v.circleZoom, v.statusFlags), std::tuple(10.0, 100, 3 | 128 | 256 | 1024 | 8192 | 2048));
    std::vector<uint64_t> frozen;
    ksObjHandle layer;
    ksBlobCursor* in = ksBlobOpenRead(v.frozenLayers);
    while (ksBlobReadHandle(in, &layer))
        frozen.push_back(u64(layer));
    ksBlobCloseRead(in);
    EXPECT_EQ(frozen, (std::vector<uint64_t>{0x30, 0x31}));
    EXPECT_EQ(v.frozenLayerCount, 2);

    std::vector<int16_t> left;
    in = ksBlobOpenRead(all[0].head.eed);
    while (ksXdataRead(in, &item))
        left.push_back(item.code);
    ksBlobCloseRead(in);
    EXPECT_EQ(left, (std::vector<int16_t>{1001, 1070, 1001, 1000})) << "the others' items stay";
    EXPECT_EQ(all[1].body.viewport.frozenLayerCount, 0);
    EXPECT_GT(ksBlobSize(all[1].head.eed), 0u) << "a broken one keeps its data";
}

}  // namespace
