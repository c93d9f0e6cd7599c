// Entities of R13-R2000 DWG files: the chain walk on hand-made drawings,
// every drawing of the corpus loaded whole, and the simple entities held
// against DXF exports of the same drawings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <functional>
#include <map>
#include <numbers>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "driver/hooks.h"
#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "dwgwrite/objectframe.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/object.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

using namespace zt;

ksObjHandle H(uint64_t v) { return ksHandleFromU64(v); }
uint64_t U(const ksObjHandle& h) { return ksHandleToU64(h); }

// ---- The chain behind complex entities and at the ends ---------------------

// One entity read (code, handle, next link, INSERT attributes) and the
// handle the chain goes to behind it.
struct Step {
    int16_t code;
    uint64_t self, next;
    bool attributes;
    uint64_t expected;
};

TEST(EntityChain, ComplexEntitiesAndTheEndsOfPassesAndBlocks)
{
    // Paper space ends at 0x20; the block runs 0x40 to 0x42, ENDBLK 0x4F;
    // vertices or attributes are 0x60 and 0x61, the SEQEND 0x62.
    const struct {
        const char* what;
        bool inBlock;
        std::vector<Step> steps;
    } chains[] = {
        {"POLYLINE last of the pass", false,
         {{ksEntLine, 0x1E, 0x1F, false, 0x1F}, {ksEntPolyline, 0x20, 0x21, false, 0x60},
          {ksEntVertex, 0x60, 0x61, false, 0x61}, {ksEntVertex, 0x61, 0x62, false, 0x62}, {ksEntSeqend, 0x62, 0x63, false, 0}}},
        {"INSERT with attributes", false,
         {{ksEntInsert, 0x10, 0x11, true, 0x60}, {ksEntAttrib, 0x60, 0x61, false, 0x61},
          {ksEntAttrib, 0x61, 0x99, false, 0x62}, {ksEntSeqend, 0x62, 0x99, false, 0x11}}},
        {"INSERT without attributes", false, {{ksEntInsert, 0x10, 0x11, false, 0x11}}},
        {"last entity of the pass", false, {{ksEntCircle, 0x20, 0x21, false, 0}}},
        {"block ending in an INSERT with attributes", true,
         {{ksEntBlock, 0x3F, 0x40, false, 0x40}, {ksEntLine, 0x40, 0x41, false, 0x41}, {ksEntArc, 0x41, 0x42, false, 0x42},
          {ksEntInsert, 0x42, 0x43, true, 0x60}, {ksEntAttrib, 0x60, 0x61, false, 0x61},
          {ksEntAttrib, 0x61, 0x62, false, 0x62}, {ksEntSeqend, 0x62, 0x63, false, 0x4F}}},
        {"block ending in a plain entity", true, {{ksEntText, 0x42, 0x43, false, 0x4F}}},
    };
    for (const auto& c : chains) {
        ksDwgState st;
        st.paperLast = H(0x20), st.modelLast = H(0x30);
        st.firstEntity = H(0x40), st.lastEntity = H(0x42), st.endblkEntity = H(0x4F);
        st.inBlock = st.secondPass = c.inBlock;
        for (const Step& s : c.steps) {
            st.firstSub = H(0x60), st.lastSub = H(0x61), st.seqend = H(0x62);
            ksDwgChainNext(st, s.code, H(s.self), H(s.next), s.attributes);
            EXPECT_EQ(U(st.current), s.expected) << c.what << ", behind " << std::hex << s.self;
        }
    }
    // No vertices or attributes: straight to the SEQEND. An empty block:
    // from its BLOCK to its ENDBLK.
    for (int16_t code : {ksEntPolyline, ksEntInsert, ksEntBlock}) {
        ksDwgState st;
        st.seqend = H(0x62), st.endblkEntity = H(0x4F), st.inBlock = code == ksEntBlock;
        ksDwgChainNext(st, code, H(0x10), H(0x11), true);
        EXPECT_EQ(U(st.current), code == ksEntBlock ? 0x4Fu : 0x62u) << code;
    }
}

// ---- Hand-made drawings ---------------------------------------------------

// Entities framed by the object writer into a file image of their own.
class HandMade : public DrawingTest, public ::testing::WithParamInterface<int16_t> {
protected:
    using Write = std::function<void(ksBitWriter&)>;

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(DrawingTest::SetUp());
        fcb->dwgState = st = new ksDwgState;
        fcb->releaseReader = [](ksFcb* f) {
            delete ksDwg(f);
            f->dwgState = nullptr;
        };
        fcb->fileVersion = st->version = GetParam();
        fcb->byLayerHandle = H(0x15);
        ksResetBits(w, st->version);
    }
    void TearDown() override
    {
        ksBitWriterFree(w);
        DrawingTest::TearDown();
    }
    bool r2000() const { return st->version >= ksAC1015; }

    // An entity on layer 0x10 with linetype BYLAYER; mode 0 stores an owner.
    void add(int16_t type, uint64_t handle, uint64_t next, const Write& data, int mode = 2, bool noLinks = false,
             const Write& handles = {})
    {
        ASSERT_EQ(ksBeginObject(w, type, H(handle), 0, 0, 0, true), 1);
        ksWriteBits(w, uint64_t(mode), 2), ksWriteBL(w, 0);
        if (!r2000())
            ksWriteBit(w, 1);
        ksWriteBit(w, noLinks), ksWriteBS(w, 256), ksWriteBD(w, 1.0);
        if (r2000())
            ksWriteBits(w, 0, 4);
        ksWriteBS(w, 0);
        if (r2000())
            ksWriteRC(w, 29);
        data(w);
        ksMarkHandles(w);
        if (mode == 0)
            ksWriteHandle(w, H(0x1F), 0x40);
        ksWriteHandle(w, H(0), 0x30);
        // R2000 has the links in front of the layer, the others behind it.
        for (int i = 0; i < 2; ++i) {
            if (i == r2000())
                ksWriteHandle(w, H(0x10), 0x50);
            else if (!noLinks)
                ksWriteHandle(w, H(handle - 1), 0x40), ksWriteHandle(w, H(next), 0x40);
        }
        if (handles)
            handles(w);
        st->map.push_back({handle, uint32_t(image.size())});
        ASSERT_EQ(ksEndObject(w, ksVectorSink(image)), 1);
    }
    void start(uint64_t paperFirst, uint64_t paperLast, uint64_t modelFirst, uint64_t modelLast)
    {
        st->image = image;
        st->image.resize(image.size() + 8);
        st->size = uint32_t(image.size());
        std::sort(st->map.begin(), st->map.end(), [](auto& a, auto& b) { return a.handle < b.handle; });
        st->paperFirst = H(paperFirst), st->paperLast = H(paperLast);
        st->modelFirst = H(modelFirst), st->modelLast = H(modelLast);
        ASSERT_EQ(ksDwgStartEntities(fcb), 1);
    }
    // Reads on to the end: the handles read, with the paper space flags.
    std::vector<std::pair<uint64_t, bool>> readAll(bool* failed)
    {
        std::vector<std::pair<uint64_t, bool>> read;
        int16_t ext = 0;
        for (fcb->failureNumber = 0; read.size() < 100 && ksDwgReadEntity(fcb, &header, &body, &ext);)
            read.emplace_back(U(header.handle), (header.flags & ksEntityPaperSpace) != 0);
        *failed = fcb->failureNumber != 0;
        return read;
    }

    ksDwgState* st = nullptr;
    ksBitWriter w{};
    Bytes image;
    ksEntityHeader header;
    ksEntityBody body;
};

TEST_P(HandMade, ChainsOfBothSpacesAndTheirEnds)
{
    auto line = [&](uint64_t h, uint64_t next, int mode, bool noLinks = false) {
        add(19, h, next, [&](ksBitWriter& w) {
            if (r2000())
                ksWriteSpan(w, {1, 2, 3}, {4, 5, 6}), ksWriteBT(w, 0), ksWriteBE(w, {0, 0, 1});
            else
                ksWrite3BD(w, {1, 2, 3}), ksWrite3BD(w, {4, 5, 6}), ksWriteBD(w, 0), ksWrite3BD(w, {0, 0, 1});
        }, mode, noLinks);
    };
    line(0x2E, 0x77, 1);
    line(0x2F, 0x99, 1, true);  // no links: the next is 0x30
    line(0x30, 0x99, 1);
    line(0x40, 0x41, 2);
    line(0x41, 0x99, 0);        // an owner stored
    line(0x50, 0x51, 1);
    line(0x51, 0x50, 1);
    const struct {
        uint64_t paperFirst, paperLast, modelFirst, modelLast;
        std::vector<uint64_t> read;
        bool failed;
    } cases[] = {
        {0x2F, 0x30, 0x40, 0x41, {0x2F, 0x30, 0x40, 0x41}, false},
        {0, 0, 0x40, 0x41, {0x40, 0x41}, false},
        {0x2F, 0x30, 0, 0, {0x2F, 0x30}, false},
        {0, 0, 0, 0, {}, false},
        {0x2E, 0x30, 0, 0, {0x2E}, true},                    // 0x77 isn't in the map
        {0x2F, 0x30, 0x41, 0x42, {0x2F, 0x30, 0x41}, true},  // nor is 0x99
        {0x50, 0x52, 0, 0, {}, true},                        // a loop without the last entity
    };
    for (const auto& c : cases) {
        start(c.paperFirst, c.paperLast, c.modelFirst, c.modelLast);
        bool failed = false;
        const auto read = readAll(&failed);
        EXPECT_EQ(failed, c.failed) << std::hex << c.paperFirst << " " << c.modelFirst;
        std::vector<uint64_t> handles;
        for (const auto& [handle, paper] : read) {
            handles.push_back(handle);
            EXPECT_EQ(paper, handle < 0x40 || handle >= 0x50) << std::hex << handle;
        }
        if (c.paperFirst == 0x50)
            EXPECT_LE(read.size(), st->map.size());
        else
            EXPECT_EQ(handles, c.read) << std::hex << c.paperFirst << " " << c.modelFirst;
    }
}

TEST_P(HandMade, FieldsOfTheSimpleEntities)
{
    const bool r2000 = this->r2000();
    add(18, 0x30, 0, [&](ksBitWriter& w) {  // CIRCLE of radius -2, extruded downwards
        ksWrite3BD(w, {1, 1, 0}), ksWriteBD(w, -2.0);
        r2000 ? (ksWriteBT(w, 0), ksWriteBE(w, {0, 0, -1})) : (ksWriteBD(w, 0), ksWrite3BD(w, {0, 0, -1}));
    });
    add(35, 0x31, 0, [](ksBitWriter& w) {  // ELLIPSE whose end lies below its start
        ksWrite3BD(w, {0, 0, 0}), ksWrite3BD(w, {2, 0, 0}), ksWrite3BD(w, {0, 0, 1});
        ksWriteBD(w, 0.5), ksWriteBD(w, 3.0), ksWriteBD(w, 0.5);
    });
    add(4, 0x32, 0, [](ksBitWriter& w) { ksWriteText(w, "*D12"); });
    add(4, 0x33, 0, [](ksBitWriter& w) { ksWriteText(w, "*paper_space7"); });
    // TEXT; R2000 data flags 0xFF leave all but the insertion, height and
    // text at their defaults.
    add(1, 0x34, 0, [&](ksBitWriter& w) {
        if (r2000) {
            ksWriteRC(w, 0xFF), ksWriteRD(w, 7), ksWriteRD(w, 8), ksWriteBE(w, {0, 0, 1}), ksWriteBT(w, 0);
            ksWriteRD(w, 2.5), ksWriteText(w, "abc");
            return;
        }
        ksWriteBD(w, 0), ksWriteRD(w, 7), ksWriteRD(w, 8), ksWriteRD(w, 0), ksWriteRD(w, 0);
        ksWrite3BD(w, {0, 0, 1});
        for (double v : {0.0, 0.0, 0.0, 2.5, 1.0})
            ksWriteBD(w, v);
        ksWriteText(w, "abc"), ksWriteBS(w, 0), ksWriteBS(w, 0), ksWriteBS(w, 0);
    }, 2, false, [](ksBitWriter& w) { ksWriteHandle(w, H(0x11), 0x50); });
    start(0, 0, 0x30, 0x34);

    std::vector<std::pair<ksEntityHeader, ksEntityBody>> got;
    for (uint64_t h = 0x30; h <= 0x34; ++h) {
        int16_t ext = 0;
        st->current = H(h), st->secondPass = 1;  // a BLOCK would lead into its block
        ASSERT_EQ(ksDwgReadEntity(fcb, &header, &body, &ext), 1) << h;
        EXPECT_EQ(U(header.layerHandle), 0x10u);
        EXPECT_EQ(U(header.linetypeHandle), 0x15u);
        got.emplace_back(header, body);
    }
    EXPECT_EQ(got[0].second.circle.radius, 0.0);
    EXPECT_EQ(got[0].first.flags, ksEntityOwnExtrusion);
    EXPECT_EQ(got[1].second.ellipse.endParameter, 0.5 + 6.28318530718);
    EXPECT_EQ(got[1].first.flags, 0) << "(0, 0, 1) is no extrusion of its own";
    EXPECT_STREQ(got[2].second.block.name, "*D");
    EXPECT_STREQ(got[3].second.block.name, "*paper_space7");
    const ksTextBody& t = got[4].second.text;
    EXPECT_EQ(t.insertion.x + t.insertion.y + t.insertion.z, 15.0);
    EXPECT_EQ(t.height, 2.5);
    EXPECT_EQ(t.widthFactor, 1.0);
    EXPECT_STREQ(t.text, "abc");
    EXPECT_EQ(U(t.styleHandle), 0x11u);
}

INSTANTIATE_TEST_SUITE_P(Releases, HandMade, ::testing::Values(int16_t(ksAC1014), int16_t(ksAC1015)));

// ---- The corpus -----------------------------------------------------------

std::string upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::toupper(c)); });
    return s;
}

// A DWG opened as the load opens it, without the phases, with its classes.
struct OpenDwg {
    ksFcb* fcb = ksNewFcb();
    std::map<int, ksClass> classes;
    bool ok = false;

    explicit OpenDwg(const fs::path& file)
    {
        fcb->header = static_cast<ksHeader*>(ksMemAlloc(sizeof(ksHeader)));
        ksHeaderSetDefaults(fcb->header);
        std::strcpy(fcb->fileName, file.c_str());
        fcb->file = ksFileOpenRead(fcb->fileName);
        fcb->fileVersion = ksSniffBytes(readFile(file, ksSniffSize)).version;
        ksResetHeaderReferences();
        ksClass c;
        for (ok = fcb->file && ksDwgReadHeader(fcb) && ksDwgStartClasses(fcb); ok && ksDwgReadClass(fcb, &c);)
            classes[c.classNumber] = c;
    }
    ~OpenDwg() { ksCloseDrawing(fcb); }

    // The entity types in the map that have no reader yet: the DWG type, or
    // the class's name.
    std::set<std::string> unreadTypes()
    {
        static const std::set<int> simple = {1, 2, 3, 4, 5, 6, 17, 18, 19, 27, 28, 31, 32, 33, 35, 40, 41};
        const char* fixedClasses[] = {"OLE2FRAME", "", "", "LWPOLYLINE", "HATCH"};
        std::set<std::string> out;
        for (const ksDwgMapEntry& e : ksDwg(fcb)->map) {
            const int type = ksSeekHandle(fcb, H(e.handle)) ? ksPeekObjectType(fcb) : 0;
            const auto c = classes.find(type);
            const bool fixedEntity = type >= 1 && type < 48 && type != 9 && type != 42 && type != 43;
            if (fixedEntity && !simple.count(type))
                out.insert("type " + std::to_string(type));
            else if ((type == 74 || type == 77 || type == 78) && fcb->fileVersion >= ksAC1015)
                out.insert(fixedClasses[type - 74]);
            else if (type == 498 || (c != classes.end() && c->second.itemClassId == 498))
                out.insert(type == 498 ? "proxy" : c->second.dxfName);
        }
        return out;
    }
};

class DwgEntities : public ToolkitTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ksDwgFillOps(&ksG->dwgOps);
    }
};

// Drawings with simple entities only load; the others fail at an entity
// type not read yet and tell which types those are.
TEST_F(DwgEntities, EveryDrawingLoadsOrNamesTheTypesItLacks)
{
    ZT_REQUIRE_CORPUS();
    int files = 0;
    for (const CorpusEntry& e : corpusManifest()) {
        if (!e.path.starts_with("dwg/AC101"))
            continue;
        ++files;
        const fs::path path = corpusDir() / e.path;
        ksFcb* fcb = ksLoadDrawing(path.c_str(), 1, 0);
        const int32_t error = ksG->errorNumber;
        if (fcb)
            ksCloseDrawing(fcb);
        OpenDwg dwg(path);
        ASSERT_TRUE(dwg.ok) << e.path;
        std::string unread;
        for (const std::string& name : dwg.unreadTypes())
            unread += " " + name;
        EXPECT_TRUE(fcb != nullptr || (!unread.empty() && (error == 55 || error == 130))) << e.path << ": " << error;
        if (!unread.empty())
            std::printf("%-48s %s; not read:%s\n", e.path.c_str(), fcb ? "loads" : std::to_string(error).c_str(),
                        unread.c_str());
    }
    EXPECT_GT(files, 0);
}

// One DXF record: its type and the first value of each group.
struct DxfRecord {
    std::string type;
    std::map<int, std::string> groups;

    bool has(int g) const { return groups.count(g) != 0; }
    double real(int g) const { return std::strtod(groups.at(g).c_str(), nullptr); }
    uint64_t handle() const { return has(5) ? std::strtoull(groups.at(5).c_str(), nullptr, 16) : 0; }
    // A real with more than 6 decimals: the writer kept them whole.
    bool precise() const
    {
        return std::any_of(groups.begin(), groups.end(), [](const auto& g) {
            const size_t point = g.second.find('.');
            return g.first >= 10 && g.first < 60 && point != std::string::npos &&
                   std::min(g.second.find_first_not_of("0123456789", point + 1), g.second.size()) > point + 7;
        });
    }
};

// The records of each section by its name.
std::map<std::string, std::vector<DxfRecord>> readDxf(const fs::path& file)
{
    const Bytes bytes = readFile(file);
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    std::map<std::string, std::vector<DxfRecord>> sections;
    std::vector<DxfRecord>* records = nullptr;
    std::string code, value;
    while (std::getline(in, code) && std::getline(in, value)) {
        value.erase(0, value.find_first_not_of(" \t"));
        value.erase(value.find_last_not_of(" \t\r") + 1);
        const int g = std::atoi(code.c_str());
        if (g == 0 && value == "SECTION")
            records = nullptr;
        else if (g == 0 && records)
            records->push_back({value, {}});
        else if (g == 2 && !records)
            records = &sections[value];
        else if (records && !records->empty())
            records->back().groups.emplace(g, value);
    }
    return sections;
}

// Drawings of the corpus with DXF exports of them. The two examples'
// exports come from other revisions: what they hold beyond the DWG is
// passed over.
const std::pair<const char*, const char*> kPairs[] = {
    {"AC1012/example_r13.dwg", "AC1012/libredwg_example_r13.dxf"},
    {"AC1014/example_r14.dwg", "AC1014/libredwg_example_r14.dxf"},
    {"AC1014/v.dwg", "AC1012/v.dxf"},
    {"AC1015/Constraints.dwg", "AC1015/Constraints.dxf"},
    {"AC1015/circle_2000.dwg", "AC1015/circle_2000.dxf"},
    {"AC1015/libredwg_entities-2d.dwg", "AC1015/libredwg_entities-2d.dxf"},
    {"AC1015/libredwg_sample_2000.dwg", "AC1015/libredwg_sample_2000.dxf"},
    {"AC1015/libredwg_test-data_example_2000.dwg", "AC1015/libredwg_test-data_example_2000.dxf"},
    {"AC1015/line_2000.dwg", "AC1015/line_2000.dxf"},
    {"AC1015/mtext_2000.dwg", "AC1015/mtext_2000.dxf"},
    {"AC1015/point2d_2000.dwg", "AC1015/point2d_2000.dxf"},
    {"AC1015/polyline2d_line_2000.dwg", "AC1015/polyline2d_line_2000.dxf"},
    {"AC1015/text_2000.dwg", "AC1015/text_2000.dxf"},
};

// A DXF group and the body field it reads into: reals of 1 or 3 axes,
// angles from degrees, or a text.
struct Check {
    const char* type;
    int group;
    size_t offset;
    int axes = 1;  // 0: a text
    bool angle = false;
};
#define AT(field) offsetof(ksEntityBody, field)
const Check kChecks[] = {
    {"LINE", 10, AT(line.start), 3}, {"LINE", 11, AT(line.end), 3}, {"POINT", 10, AT(point.position), 3},
    {"CIRCLE", 10, AT(circle.center), 3}, {"CIRCLE", 40, AT(circle.radius)}, {"ARC", 10, AT(arc.center), 3},
    {"ARC", 40, AT(arc.radius)}, {"ARC", 50, AT(arc.startAngle), 1, true}, {"ARC", 51, AT(arc.endAngle), 1, true},
    {"SOLID", 10, AT(trace.corner1), 3}, {"SOLID", 11, AT(trace.corner2), 3}, {"SOLID", 12, AT(trace.corner3), 3},
    {"SOLID", 13, AT(trace.corner4), 3}, {"TRACE", 10, AT(trace.corner1), 3}, {"TRACE", 13, AT(trace.corner4), 3},
    {"3DFACE", 10, AT(face.corner1), 3}, {"3DFACE", 11, AT(face.corner2), 3}, {"3DFACE", 12, AT(face.corner3), 3},
    {"3DFACE", 13, AT(face.corner4), 3}, {"SHAPE", 10, AT(shape.insertion), 3}, {"SHAPE", 40, AT(shape.size)},
    {"ELLIPSE", 10, AT(ellipse.center), 3}, {"ELLIPSE", 11, AT(ellipse.majorAxis), 3},
    {"ELLIPSE", 40, AT(ellipse.ratio)}, {"ELLIPSE", 41, AT(ellipse.startParameter)},
    {"ELLIPSE", 42, AT(ellipse.endParameter)}, {"RAY", 10, AT(ray.start), 3}, {"RAY", 11, AT(ray.direction), 3},
    {"XLINE", 10, AT(ray.start), 3}, {"XLINE", 11, AT(ray.direction), 3}, {"TEXT", 10, AT(text.insertion), 3},
    {"TEXT", 40, AT(text.height)}, {"TEXT", 50, AT(text.rotation), 1, true}, {"TEXT", 1, AT(text.text), 0},
    {"ATTDEF", 10, AT(attdef.insertion), 3}, {"ATTDEF", 40, AT(attdef.height)}, {"ATTDEF", 1, AT(attdef.defaultValue), 0},
    {"ATTDEF", 2, AT(attdef.tag), 0}, {"ATTDEF", 3, AT(attdef.prompt), 0}, {"ATTRIB", 10, AT(attrib.insertion), 3},
    {"ATTRIB", 40, AT(attrib.height)}, {"ATTRIB", 1, AT(attrib.value), 0}, {"ATTRIB", 2, AT(attrib.tag), 0},
};
#undef AT

// Within 1e-9 where the DXF holds its reals whole, else within 1e-6.
bool near(double got, double want, bool precise, bool angle = false)
{
    want *= angle ? std::numbers::pi / 180.0 : 1.0;
    return std::fabs(got - want) <= (precise ? 1e-9 : 1e-6) * std::max(1.0, std::fabs(want));
}

// Reads the entity of a DXF record's handle as the load would (a block's
// in the second pass) and compares the two.
void compareEntity(ksFcb* fcb, const DxfRecord& dxf, bool inBlock, const std::map<std::string, uint64_t>& tables,
                   const std::string& where)
{
    ksDwgState& st = *ksDwg(fcb);
    const bool paper = !inBlock && dxf.has(67) && dxf.real(67) == 1, precise = dxf.precise();
    st.current = H(dxf.handle()), st.secondPass = !paper, st.inBlock = 0, st.entitiesRead = 0;
    ksEntityHeader h;
    ksEntityBody b;
    int16_t ext = 0;
    ASSERT_EQ(ksDwgReadEntity(fcb, &h, &b, &ext), 1) << where;
    EXPECT_STREQ(ksEntityNames[h.type], dxf.type.c_str()) << where;
    EXPECT_EQ(h.flags & ksEntityPaperSpace, paper ? ksEntityPaperSpace : 0) << where;
    EXPECT_EQ(U(h.layerHandle), tables.at("LAYER " + upper(dxf.groups.at(8)))) << where;
    EXPECT_EQ(U(h.linetypeHandle), tables.at("LTYPE " + (dxf.has(6) ? upper(dxf.groups.at(6)) : "BYLAYER"))) << where;
    EXPECT_EQ(h.color, dxf.has(62) ? int(dxf.real(62)) : 256) << where;
    EXPECT_EQ(h.lineweight, dxf.has(370) ? int(dxf.real(370)) : h.lineweight) << where;
    EXPECT_TRUE(near(h.thickness, dxf.has(39) ? dxf.real(39) : h.thickness, precise)) << where;
    const Check extrusion{"", 210, 0, 3};
    std::vector<std::pair<const char*, const Check*>> fields{{reinterpret_cast<const char*>(&h.extrusion), &extrusion}};
    for (const Check& c : kChecks)
        if (dxf.type == c.type && dxf.has(c.group))
            fields.emplace_back(reinterpret_cast<const char*>(&b) + c.offset, &c);
    for (const auto& [at, c] : fields) {
        EXPECT_TRUE(c->axes != 0 || at == dxf.groups.at(c->group)) << where << " group " << c->group << ": " << at;
        for (int axis = 0, group = c->group; axis < c->axes; ++axis, group += 10)
            EXPECT_TRUE(!dxf.has(group) || near(reinterpret_cast<const double*>(at)[axis], dxf.real(group), precise, c->angle))
                << where << " group " << group << ": " << reinterpret_cast<const double*>(at)[axis];
    }
    ksEntityFreeBlobs(fcb, h, &b);
}

TEST_F(DwgEntities, SimpleEntitiesMatchTheDxfExports)
{
    ZT_REQUIRE_CORPUS();
    const std::set<std::string> simple = {"LINE", "POINT", "CIRCLE", "ARC",  "SOLID",  "TRACE",  "3DFACE", "SHAPE", "ELLIPSE",
                                          "RAY",  "XLINE", "TEXT",   "ATTDEF", "ATTRIB", "BLOCK", "ENDBLK", "SEQEND"};
    for (const auto& [dwgName, dxfName] : kPairs) {
        OpenDwg dwg(corpusDir() / "dwg" / dwgName);
        ASSERT_TRUE(dwg.ok) << dwgName;
        auto dxf = readDxf(corpusDir() / "dxf" / dxfName);
        std::map<std::string, uint64_t> tables;  // "LAYER name", "LTYPE name" -> handle
        for (const DxfRecord& r : dxf["TABLES"])
            if ((r.type == "LAYER" || r.type == "LTYPE") && r.has(2))
                tables[r.type + " " + upper(r.groups.at(2))] = r.handle();
        int compared = 0;
        for (const char* section : {"ENTITIES", "BLOCKS"}) {
            for (const DxfRecord& r : dxf[section]) {
                if (simple.count(r.type) && r.handle() != 0 && ksSeekHandle(dwg.fcb, H(r.handle()))) {
                    ++compared;
                    compareEntity(dwg.fcb, r, section[0] == 'B', tables, std::string(dwgName) + " " + r.type + " " + r.groups.at(5));
                }
            }
        }
        EXPECT_GT(compared, 0) << dwgName << " and " << dxfName << " aren't one drawing";

        // A drawing that loads whole has the entities of the ENTITIES
        // section on the lists of its two spaces.
        if (ksFcb* fcb = ksLoadDrawing((corpusDir() / "dwg" / dwgName).c_str(), 1, 0)) {
            std::set<uint64_t> loaded, exported;
            ksEntityHeader h;
            ksEntityBody b;
            for (ksLoc list : {fcb->modelEntities, fcb->paperEntities})
                for (ksLoc node = ksListFirst(list); node != 0; node = ksListNodeNext(node))
                    if (ksEntityUnpack(fcb, node, &h, &b, nullptr, nullptr))
                        loaded.insert(U(h.handle));
            for (const DxfRecord& r : dxf["ENTITIES"])
                if (r.handle() != 0)
                    exported.insert(r.handle());
            EXPECT_EQ(loaded, exported) << dwgName;
            ksCloseDrawing(fcb);
        }
    }
}

}  // namespace
