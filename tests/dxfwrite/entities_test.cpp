// Entities of every kind the store holds, made in memory, saved in every
// release and read back by an independent reader (ezdxf): which types a
// release keeps, their layers and main points; below R14 the LWPOLYLINE
// as a POLYLINE whose VERTEX and SEQEND handles are new, unique and below
// $HANDSEED.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/newdrawing.h"
#include "frame/save.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "store/xdata.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

namespace fs = std::filesystem;

const char* const kPython = "/usr/bin/python3";

// The audit's errors, then one line per model space entity: type, layer,
// X and Y of its main point; a POLYLINE adds its vertex count.
const char* const kListEntities = R"(
import sys, ezdxf
doc = ezdxf.readfile(sys.argv[1])
def main(e):
    t = e.dxftype()
    if t == "POLYLINE":
        v = list(e.vertices)
        return v[0].dxf.location if v else (0, 0)
    if t == "LWPOLYLINE": return e.get_points()[0]
    if t == "SPLINE": return e.control_points[0]
    if t == "LEADER": return e.vertices[0]
    if t == "DIMENSION": return e.dxf.defpoint
    if t in ("3DFACE", "SOLID", "TRACE"): return e.dxf.vtx0
    for name in ("start", "location", "center", "insert", "elevation"):
        if e.dxf.hasattr(name): return e.dxf.get(name)
    return (0, 0)
for error in doc.audit().errors:
    print("AUDIT", error.code, error.message)
for e in doc.modelspace():
    p = main(e)
    extra = len(list(e.vertices)) if e.dxftype() == "POLYLINE" else ""
    print(e.dxftype(), e.dxf.layer.upper(), round(p[0], 3), round(p[1], 3), extra)
)";

bool haveEzdxf()
{
    static const bool have = zt::runCommand(kPython, {"-c", "import ezdxf"}).status == 0;
    return have;
}

struct Made {
    const char* type;  // as the reader names it
    int16_t from;      // first release that holds it
    double x, y;
};

class DxfEntities : public zt::ToolkitTest {
protected:
    zt::TempDir dir;
    ksFcb* fcb = nullptr;
    std::vector<Made> made;
    ksObjHandle walls{};
    ksObjHandle standardStyle{};

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ASSERT_NE(fcb = ksNewDrawing(nullptr, nullptr, 0, ksAC1015), nullptr);
        ksLayer layer;
        ksLayerDefaults(fcb, &layer);
        std::strcpy(layer.name, "Walls");
        ksHandleNext(fcb, &layer.entryHandle);
        walls = layer.entryHandle;
        ASSERT_EQ(ksLayerAdd(fcb, &layer), 1);
        ASSERT_EQ(ksStyleFind(fcb, "Standard", &standardStyle), 1);
        addAll();
    }
    void TearDown() override
    {
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
        ToolkitTest::TearDown();
    }

    // An entity of the type at (x, y), on Walls; `fill` sets its body.
    template <typename Body, typename Fill>
    void add(int16_t type, const char* name, int16_t from, double x, double y, Fill fill)
    {
        ksEntityHeader h{};
        ksEntityBody b{};
        h.type = type;
        ksEntityDefaults(fcb, &h, &b);
        if (type >= ksEntClassBase)
            ksClassEntityDefaults(fcb, type, &b);
        h.layerHandle = walls;
        ksHandleNext(fcb, &h.handle);
        fill(*reinterpret_cast<Body*>(&b), h);
        ASSERT_EQ(ksEntityAppend(fcb, fcb->modelEntities, &h, &b), 1) << name;
        if (name)
            made.push_back({name, from, x, y});
    }

    // Extended data of the application ACAD: one text.
    ksLoc eed()
    {
        static ksXdataItem item;
        ksObjHandle acad{};
        EXPECT_EQ(ksAppidFind(fcb, "ACAD", &acad), 1);
        const ksLoc blob = ksBlobNew();
        ksBlobCursor* w = ksBlobOpenWrite(blob);
        ksXdataSet(&item, 1001, acad);
        EXPECT_EQ(ksXdataWrite(w, &item), 1);
        ksXdataSetText(&item, 1000, "note");
        EXPECT_EQ(ksXdataWrite(w, &item), 1);
        EXPECT_EQ(ksBlobCloseWrite(w), 1);
        return blob;
    }

    static ksLoc pointsBlob(std::initializer_list<ksPoint3> points)
    {
        const ksLoc blob = ksBlobNew();
        ksBlobCursor* w = ksBlobOpenWrite(blob);
        for (const ksPoint3& p : points)
            EXPECT_EQ(ksBlobWritePoint(w, p), 1);
        EXPECT_EQ(ksBlobCloseWrite(w), 1);
        return blob;
    }

    void addAll()
    {
        using H = ksEntityHeader;
        add<ksLineBody>(ksEntLine, "LINE", 0, 1, 2, [](auto& b, H&) { b = {{1, 2, 0}, {3, 4, 0}}; });
        add<ksPointBody>(ksEntPoint, "POINT", 0, 3, 4, [](auto& b, H&) { b.position = {3, 4, 0}; });
        // Watched by three objects.
        add<ksCircleBody>(ksEntCircle, "CIRCLE", 0, 5, 6, [](auto& b, H& h) {
            b = {{5, 6, 0}, 2};
            h.reactors = ksBlobNew();
            ksBlobCursor* out = ksBlobOpenWrite(h.reactors);
            for (uint64_t r : {0xA1, 0xA2, 0xA3})
                ksBlobWriteHandle(out, ksHandleFromU64(r));
            ksBlobCloseWrite(out);
            h.reactorCount = 3;
        });
        add<ksArcBody>(ksEntArc, "ARC", 0, 7, 8, [](auto& b, H&) { b = {{7, 8, 0}, 1, 0, 1.5}; });
        add<ksTextBody>(ksEntText, "TEXT", 0, 9, 10, [&](auto& b, H& h) {
            h.eed = eed();
            b.styleHandle = standardStyle;
            b.insertion = {9, 10, 0};
            b.height = 2.5;
            std::strcpy(b.text, "caret ^ and tab\t");
        });
        add<ksTraceBody>(ksEntSolid, "SOLID", 0, 11, 12,
                         [](auto& b, H&) { b = {{11, 12, 0}, {13, 12, 0}, {11, 14, 0}, {13, 14, 0}}; });
        add<ks3dFaceBody>(ksEnt3dFace, "3DFACE", 1, 15, 16,
                          [](auto& b, H&) { b = {{15, 16, 1}, {17, 16, 1}, {17, 18, 1}, {15, 18, 1}, 0}; });
        const ksObjHandle door = addBlock("Door");
        add<ksInsertBody>(ksEntInsert, "INSERT", 0, 19, 20, [&](auto& b, H&) {
            b.insertion = {19, 20, 0};
            b.blockHandle = door;
        });
        add<ksPolylineBody>(ksEntPolyline, "POLYLINE", 0, 21, 22, [](auto&, H&) {});
        for (double x : {21.0, 23.0})
            add<ksVertexBody>(ksEntVertex, nullptr, 0, 0, 0, [&](auto& b, H&) { b.point = {x, 22, 0}; });
        add<ksVertexBody>(ksEntSeqend, nullptr, 0, 0, 0, [](auto&, H&) {});
        add<ksDimensionBody>(ksEntDimension, "DIMENSION", 1, 25, 26, [&](auto& b, H&) {
            b.definitionPoint = {25, 26, 0};
            b.point13 = {20, 26, 0};
            b.point14 = {25, 20, 0};
            b.blockHandle = door;
        });
        add<ksEllipseBody>(ksEntEllipse, "ELLIPSE", 5, 27, 28,
                           [](auto& b, H&) { b = {{27, 28, 0}, {2, 0, 0}, 0.5, 0, 6.283185307179586}; });
        add<ksSplineBody>(ksEntSpline, "SPLINE", 5, 29, 30, [](auto& b, H&) {
            b.degree = 1;
            b.knotCount = 4;
            b.controlCount = 2;
            b.data = ksBlobNew();
            ksBlobCursor* w = ksBlobOpenWrite(b.data);
            for (double k : {0.0, 0.0, 1.0, 1.0})
                ksBlobWriteReal(w, k);
            ksBlobWritePoint(w, {29, 30, 0});
            ksBlobWritePoint(w, {31, 30, 0});
            ksBlobCloseWrite(w);
        });
        add<ksRayBody>(ksEntRay, "RAY", 5, 33, 34, [](auto& b, H&) { b = {{33, 34, 0}, {1, 0, 0}}; });
        add<ksRayBody>(ksEntXline, "XLINE", 5, 35, 36, [](auto& b, H&) { b = {{35, 36, 0}, {0, 1, 0}}; });
        add<ksMtextBody>(ksEntMtext, "MTEXT", 5, 37, 38, [&](auto& b, H& h) {
            h.eed = eed();
            b.styleHandle = standardStyle;
            b.insertion = {37, 38, 0};
            b.height = 1;
            std::strcpy(b.text, "two\nlines");
        });
        ksObjHandle standard{};
        ksDimstyleFind(fcb, "Standard", &standard);
        add<ksLeaderBody>(ksEntLeader, "LEADER", 5, 39, 40, [&](auto& b, H&) {
            b.vertexCount = 2;
            b.hookLine = 1;
            b.dimstyleHandle = standard;
            b.vertices = pointsBlob({{39, 40, 0}, {41, 42, 0}});
        });
        add<ksToleranceBody>(ksEntTolerance, "TOLERANCE", 5, 43, 44, [&](auto& b, H&) {
            b.insertion = {43, 44, 0};
            b.dimstyleHandle = standard;
            std::strcpy(b.text, "{\\Fgdt;j}%%v0.5");
        });
        add<ksModelerBody>(ksEnt3dSolid, "3DSOLID", 5, 0, 0, [](auto& b, H&) {
            b.satData = zt::blobOf({'4', '0', '0', ' ', '0', '\r', '\n', 'e', 'n', 'd', '\r', '\n'});
        });
        const ksLwVertex corners[] = {{{45, 46}, 0, 0, 0}, {{47, 46}, 0.5, 0, 0}, {{47, 48}, 0, 0, 0}};
        add<ksLwpolyline>(fcb->classNumbers.lwpolyline, "LWPOLYLINE", 6, 45, 46, [&](auto& b, H&) {
            b.flags = ksLwClosed;
            ASSERT_EQ(ksLwpolylineSetVertices(&b, corners, 3), 1);
        });
        add<ksHatch>(fcb->classNumbers.hatch, "HATCH", 5, 0, 0, [](auto& b, H&) {
            std::strcpy(b.patternName, "SOLID");
            b.solidFill = 1;
            b.loopCount = 1;
            b.boundary = ksBlobNew();
            ksBlobCursor* w = ksBlobOpenWrite(b.boundary);
            ksHatchLoopWrite(w, {ksHatchPolylineLoop, 0, 1, 3});
            for (ksPoint2 p : {ksPoint2{0, 0}, ksPoint2{4, 0}, ksPoint2{4, 4}})
                ksHatchVertexWrite(w, 0, {p, 0});
            ksHatchLoopEndWrite(w, 0);
            ksBlobCloseWrite(w);
        });
    }

    ksObjHandle addBlock(const char* name)
    {
        ksBlockHeader block;
        ksBlockHeaderDefaults(&block);
        std::strcpy(block.name, name);
        ksHandleNext(fcb, &block.entryHandle);
        EXPECT_EQ(ksBlockHeaderAdd(fcb, &block), 1);
        const ksLoc list = ksBlockEntityList(fcb, block.entryHandle);
        for (int16_t type : {ksEntBlock, ksEntCircle, ksEntEndblk}) {
            ksEntityHeader h{};
            ksEntityBody b{};
            h.type = type;
            ksEntityDefaults(fcb, &h, &b);
            if (type == ksEntCircle)
                b.circle = {{0, 0, 0}, 1};
            ksHandleNext(fcb, &h.handle);
            EXPECT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
        }
        return block.entryHandle;
    }

    fs::path save(int16_t version, int16_t form = 1, int16_t writeZeroZ = 1)
    {
        const fs::path path = dir / (std::to_string(version) + (form == 2 ? "b.dxf" : "a.dxf"));
        EXPECT_EQ(ksSaveDrawing(fcb, path.string().c_str(), form, version, 0, 6, writeZeroZ, 0), 1)
            << "version " << version << " error " << ksErrorNumber();
        return path;
    }
};

TEST_F(DxfEntities, EveryReleaseKeepsItsTypesWithLayerAndPoint)
{
    if (!haveEzdxf())
        GTEST_SKIP() << "ezdxf for /usr/bin/python3 not available";
    for (int16_t version = 0; version < ksVersionCount; ++version) {
        for (int16_t form : {1, 2}) {
            if (form == 2 && version != ksAC1009 && version != ksAC1015)
                continue;
            SCOPED_TRACE("version " + std::to_string(version) + " form " + std::to_string(form));
            const fs::path path = save(version, form);
            const auto r = zt::runCommand(kPython, {"-c", kListEntities, path.string()});
            ASSERT_EQ(r.status, 0) << r.err;
            std::istringstream lines(r.out);
            std::vector<std::string> seen;
            std::string type, layer;
            double x = 0, y = 0;
            std::string line;
            while (std::getline(lines, line)) {
                std::istringstream in(line);
                in >> type >> layer >> x >> y;
                seen.push_back(type);
                EXPECT_EQ(layer, "WALLS") << line;
                for (const Made& m : made) {
                    const bool expanded = type == "POLYLINE" && std::string(m.type) == "LWPOLYLINE";
                    if ((type == m.type || expanded) && x == m.x && y == m.y)
                        seen.back() = m.type;
                }
            }
            std::vector<std::string> expected;
            for (const Made& m : made) {
                if (version >= m.from || std::string(m.type) == "LWPOLYLINE")
                    expected.push_back(m.type);
            }
            EXPECT_EQ(seen, expected) << r.out;
        }
    }
}

// The groups of the first entity of each type in the ENTITIES section of
// an ASCII file, as "code value" texts, the value's leading blanks cut.
std::map<std::string, std::vector<std::string>> entityGroups(const fs::path& path)
{
    const auto bytes = zt::readFile(path);
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    std::map<std::string, std::vector<std::string>> entities;
    std::vector<std::string>* current = nullptr;
    std::string code, value;
    bool inEntities = false;
    while (std::getline(in, code) && std::getline(in, value)) {
        if (!value.empty() && value.back() == '\r')
            value.pop_back();
        const int group = std::stoi(code);
        if (group == 2 && value == "ENTITIES")
            inEntities = true;
        if (!inEntities)
            continue;
        if (group == 0) {
            current = entities.count(value) ? nullptr : &entities[value];
            continue;
        }
        if (current) {
            const size_t start = value.find_first_not_of(' ');
            current->push_back(std::to_string(group) + " " + (start == std::string::npos ? "" : value.substr(start)));
        }
    }
    return entities;
}

bool has(const std::vector<std::string>& groups, const std::string& what)
{
    for (const std::string& g : groups) {
        if (g == what || g.rfind(what + " ", 0) == 0)
            return true;
    }
    return false;
}

TEST_F(DxfEntities, OptionalGroupsStayOutAtTheirDefaults)
{
    auto groups = entityGroups(save(ksAC1015, 1, 0));
    const struct {
        const char* type;
        const char* group;
        bool present;
    } cases[] = {
        {"LINE", "30", false},   {"LINE", "31", false},   {"TEXT", "11", false},
        {"TEXT", "7", false},    {"TEXT", "1001 ACAD", true}, {"MTEXT", "1001", false},
        {"INSERT", "70", false}, {"INSERT", "71", false}, {"INSERT", "100 AcDbBlockReference", true},
        {"LEADER", "76 3", true}, {"LEADER", "100 AcDbLeader", true}, {"CIRCLE", "100 AcDbCircle", true},
        {"3DFACE", "30 1.0", true}, {"LWPOLYLINE", "70 1", true}, {"LWPOLYLINE", "42 0.5", true},
        {"CIRCLE", "330 A1", true}, {"CIRCLE", "330 A3", true},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(groups.count(c.type)) << c.type;
        EXPECT_EQ(has(groups[c.type], c.group), c.present) << c.type << " " << c.group;
    }
    // The releases before R13 have neither markers nor extended data names
    // the target can't resolve; R12 keeps the TEXT's extended data.
    groups = entityGroups(save(ksAC1009, 1, 0));
    EXPECT_FALSE(has(groups["LINE"], "100"));
    EXPECT_TRUE(has(groups["TEXT"], "1001 ACAD"));
    EXPECT_TRUE(has(groups["LINE"], "8 WALLS")) << "names below R2000 are cleaned and upper-cased";
}

// The handles of the entities of an ASCII file (the 5 groups of BLOCKS
// and ENTITIES), and $HANDSEED.
std::vector<uint64_t> entityHandles(const fs::path& path, uint64_t* seed)
{
    const auto bytes = zt::readFile(path);
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    std::vector<uint64_t> handles;
    std::string code, value, previous, section;
    while (std::getline(in, code) && std::getline(in, value)) {
        if (!value.empty() && value.back() == '\r')
            value.pop_back();
        const int group = std::stoi(code);
        if (previous == "$HANDSEED")
            *seed = std::stoull(value, nullptr, 16);
        else if (group == 2 && previous == "SECTION")
            section = value;
        else if (group == 5 && (section == "BLOCKS" || section == "ENTITIES"))
            handles.push_back(std::stoull(value, nullptr, 16));
        previous = value;
    }
    return handles;
}

TEST_F(DxfEntities, ExpandedPolylineTakesNewHandlesBelowTheSeed)
{
    const uint64_t next = ksHandleToU64(fcb->nextHandle);
    for (int16_t version : {ksAC1009, ksAC1012}) {
        SCOPED_TRACE("version " + std::to_string(version));
        uint64_t seed = 0;
        const auto handles = entityHandles(save(version), &seed);
        ASSERT_GT(seed, 0u);
        const std::set<uint64_t> unique(handles.begin(), handles.end());
        EXPECT_EQ(unique.size(), handles.size());
        EXPECT_LT(*unique.rbegin(), seed);
        // The LWPOLYLINE's 3 vertices and SEQEND take handles the drawing
        // didn't have, behind the one it would give next; the seed passes
        // them by 3 + 1 + 2.
        for (uint64_t h = next + 1; h <= next + 4; ++h)
            EXPECT_EQ(unique.count(h), 1u) << h;
        EXPECT_EQ(seed, next + 6);
    }
}

}  // namespace
