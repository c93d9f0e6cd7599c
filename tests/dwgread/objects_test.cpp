// Non-graphic objects of R13-R2000 DWG files: the objects phase over the
// corpus, held against the DXF exports of the same drawings, and objects
// built bit by bit for what real files don't show.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "driver/hooks.h"
#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "frame/readerops.h"
#include "records/header.h"
#include "store/btree.h"
#include "store/handles.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

using namespace zt;
using Entries = std::vector<std::pair<std::string, uint64_t>>;

ksObjHandle H(uint64_t v) { return ksHandleFromU64(v); }
uint64_t V(const ksObjHandle& h) { return ksHandleToU64(h); }
uint64_t hex(const std::string& s) { return s.empty() ? 0 : std::stoull(s, nullptr, 16); }

Entries entriesOf(ksLoc blob)
{
    Entries out;
    ksBlobCursor* in = ksBlobOpenRead(blob);
    for (ksDictionaryEntry e; in && ksDictionaryEntryRead(in, &e);)
        out.emplace_back(e.name, V(e.handle));
    ksBlobCloseRead(in);
    return out;
}

std::vector<std::pair<uint64_t, int>> referencesOf(ksLoc blob)
{
    std::vector<std::pair<uint64_t, int>> out;
    ksBlobCursor* in = ksBlobOpenRead(blob);
    ksObjHandle h;
    for (uint8_t kind; in && ksProxyReferenceRead(in, &h, &kind);)
        out.emplace_back(V(h), kind);
    ksBlobCloseRead(in);
    return out;
}

std::vector<uint64_t> handlesOf(ksLoc blob)
{
    std::vector<uint64_t> out;
    ksBlobCursor* in = ksBlobOpenRead(blob);
    for (ksObjHandle h; in && ksBlobReadHandle(in, &h);)
        out.push_back(V(h));
    ksBlobCloseRead(in);
    return out;
}

// An object of a DXF OBJECTS section: its type, its groups in order (the
// reactors apart) and the first value of each (subclass marker, group).
struct DxfObject {
    std::string type;
    std::vector<std::pair<int, std::string>> groups;
    std::map<std::pair<std::string, int>, std::string> first;
    std::vector<uint64_t> reactors;
};

std::map<uint64_t, DxfObject> dxfObjects(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::map<uint64_t, DxfObject> out;
    std::string code, value, last, marker;
    bool inObjects = false, inReactors = false;
    DxfObject current;
    auto flush = [&] {
        if (!current.type.empty())
            out[hex(current.first[{"", 5}])] = current;
        current = DxfObject{};
    };
    while (std::getline(in, code) && std::getline(in, value)) {
        const int group = std::stoi(code);
        value.erase(value.find_last_not_of(" \r") + 1);
        value.erase(0, std::min(value.size(), value.find_first_not_of(' ')));
        if (group == 2 && last == "SECTION")
            inObjects = value == "OBJECTS";
        last = group == 0 ? value : "";
        if (!inObjects)
            continue;
        if (group == 0) {
            flush();
            inObjects = value != "ENDSEC";
            current.type = inObjects ? value : "";
            marker.clear();
        } else if (group == 102) {
            inReactors = value == "{ACAD_REACTORS";
        } else if (inReactors && group == 330) {
            current.reactors.push_back(hex(value));
        } else {
            marker = group == 100 ? value : marker;
            current.groups.emplace_back(group, value);
            current.first.insert({{marker, group}, value});
        }
    }
    flush();
    return out;
}

// Opens a DWG as the load does and runs the class and object phases.
class DwgObjectsCorpus : public ToolkitTest {
protected:
    void TearDown() override
    {
        ksCloseDrawing(fcb);
        ToolkitTest::TearDown();
    }

    std::string load(const fs::path& file)
    {
        ksCloseDrawing(fcb);
        fcb = ksNewFcb();
        fcb->header = static_cast<ksHeader*>(ksMemAlloc(sizeof(ksHeader)));
        ksHeaderSetDefaults(fcb->header);
        std::strcpy(fcb->fileName, file.c_str());
        if ((fcb->file = ksFileOpenRead(fcb->fileName)) == nullptr)
            return "open";
        fcb->fileVersion = ksSniffBytes(readFile(file, ksSniffSize)).version;
        ksInstallDwgReader();
        fcb->ops = &ksG->dwgOps;
        fcb->loading = 1;
        ksResetHeaderReferences();
        const std::pair<int16_t, int16_t (*)(ksFcb*)> steps[] = {
            {22, ksDwgReadHeader}, {47, ksLoadClasses}, {56, ksLoadObjects}};
        for (const auto& [error, step] : steps) {
            ksG->errorNumber = error;
            if (!step(fcb))
                return "error " + std::to_string(ksG->errorNumber);
        }
        return {};
    }

    struct Loaded {
        ksObjectHeader header;
        ksObjectBody body;
    };
    std::vector<Loaded> objects()
    {
        std::vector<Loaded> out;
        ksObjectRewind(fcb);
        for (Loaded o; ksObjectNext(fcb, &o.header, &o.body);)
            out.push_back(o);
        return out;
    }

    std::string nameOf(int16_t kind)
    {
        ksClass c;
        const char* fixed[] = {"DICTIONARY", "MLINESTYLE", "", "", "GROUP"};
        if (kind >= 32 && kind <= 36)
            return fixed[kind - 32];
        return ksClassFindNumber(fcb, kind, &c) ? std::string(c.dxfName) : std::to_string(kind);
    }

    ksFcb* fcb = nullptr;
};

TEST_F(DwgObjectsCorpus, EveryDrawingReadsItsObjects)
{
    ZT_REQUIRE_CORPUS();
    int files = 0;
    for (const CorpusEntry& e : corpusManifest()) {
        if (!e.path.starts_with("dwg/") || (e.version != "AC1012" && e.version != "AC1014" && e.version != "AC1015"))
            continue;
        SCOPED_TRACE(e.path);
        ++files;
        ASSERT_EQ(load(corpusDir() / e.path), "");
        const auto all = objects();
        // The named objects dictionary first, naming the dictionaries every
        // drawing of its release has (one writer leaves the plot styles out).
        ASSERT_FALSE(all.empty());
        EXPECT_EQ(all[0].header.kind, ksKindDictionary);
        EXPECT_EQ(V(all[0].header.handle), V(ksDwg(fcb)->namedObjects));
        std::vector<std::string> wanted = {"ACAD_GROUP", "ACAD_MLINESTYLE"};
        if (e.version == "AC1015")
            wanted.insert(wanted.end(), {"ACAD_LAYOUT", "ACAD_PLOTSETTINGS"});
        if (e.version == "AC1015" && !e.path.ends_with("dup_paperspace_r2000.dwg"))
            wanted.push_back("ACAD_PLOTSTYLENAME");
        const Entries named = entriesOf(all[0].body.dictionary.entries);
        EXPECT_EQ(named.size(), static_cast<size_t>(all[0].body.dictionary.entryCount));
        for (const std::string& w : wanted)
            EXPECT_TRUE(std::any_of(named.begin(), named.end(), [&](auto& n) { return n.first == w; })) << w;
        // Only R13 turns its zombie objects into the stream kind.
        auto count = [&](int16_t kind) {
            return std::count_if(all.begin(), all.end(), [&](auto& o) { return o.header.kind == kind; });
        };
        EXPECT_GE(count(ksKindMlineStyle), 1);
        EXPECT_EQ(count(ksKindStream) > 0, e.version == "AC1012");
    }
    EXPECT_GT(files, 40);
}

// Drawings whose DXF export holds the same objects under the same handles.
constexpr const char* kPairs[][2] = {
    {"dwg/AC1014/v.dwg", "dxf/AC1012/v.dxf"},
    {"dwg/AC1015/libredwg_2000_entities-2d.dwg", "dxf/AC1015/libredwg_2000_entities-2d.dxf"},
    {"dwg/AC1015/libredwg_2000_entities-3d.dwg", "dxf/AC1015/libredwg_2000_entities-3d.dxf"},
    {"dwg/AC1015/libredwg_entities-2d.dwg", "dxf/AC1015/libredwg_entities-2d.dxf"},
};

TEST_F(DwgObjectsCorpus, ObjectsMatchTheDxfExport)
{
    ZT_REQUIRE_CORPUS();
    for (const auto& [dwg, dxf] : kPairs) {
        SCOPED_TRACE(dwg);
        ASSERT_EQ(load(corpusDir() / dwg), "");
        auto expected = dxfObjects(corpusDir() / dxf);
        const auto all = objects();
        ASSERT_EQ(all.size(), expected.size());
        for (const Loaded& o : all) {
            SCOPED_TRACE(V(o.header.handle));
            ASSERT_EQ(expected.count(V(o.header.handle)), 1u);
            DxfObject& x = expected.at(V(o.header.handle));
            auto get = [&](const char* marker, int group) { return x.first[{marker, group}]; };
            EXPECT_EQ(nameOf(o.header.kind), x.type);
            EXPECT_EQ(handlesOf(o.header.reactors), x.reactors);
            EXPECT_EQ(o.header.reactorCount, static_cast<int32_t>(x.reactors.size()));
            const ksObjectBody& b = o.body;
            if (x.type == "DICTIONARY" || x.type == "ACDBDICTIONARYWDFLT") {
                // The export sorts the items; the file keeps its own order.
                Entries items, read = entriesOf(x.type == "DICTIONARY" ? b.dictionary.entries
                                                                      : b.dictionaryWithDefault.entries);
                std::string name;
                for (const auto& [group, value] : x.groups) {
                    name = group == 3 ? value : name;
                    if (group == 350)
                        items.emplace_back(name, hex(value));
                }
                std::sort(items.begin(), items.end());
                std::sort(read.begin(), read.end());
                EXPECT_EQ(read, items);
                if (x.type == "ACDBDICTIONARYWDFLT") {
                    EXPECT_EQ(V(b.dictionaryWithDefault.defaultEntry), hex(get("AcDbDictionaryWithDefault", 340)));
                }
            } else if (x.type == "MLINESTYLE") {
                EXPECT_STREQ(b.mlineStyle.name, get("AcDbMlineStyle", 2).c_str());
                EXPECT_EQ(b.mlineStyle.flags, std::stoi(get("AcDbMlineStyle", 70)));
                EXPECT_EQ(b.mlineStyle.fillColor, std::stoi(get("AcDbMlineStyle", 62)));
                EXPECT_EQ(b.mlineStyle.elementCount, std::stoi(get("AcDbMlineStyle", 71)));
                ksMlineElement el{};
                ksBlobCursor* in = ksBlobOpenRead(b.mlineStyle.elements);
                EXPECT_TRUE(ksMlineElementRead(in, &el));
                ksBlobCloseRead(in);
                EXPECT_EQ(el.offset, std::stod(get("AcDbMlineStyle", 49)));
                EXPECT_EQ(el.linetypeIndex, ksMlineByLayer);
            } else if (x.type == "LAYOUT") {
                EXPECT_STREQ(b.layout.name, get("AcDbLayout", 1).c_str());
                EXPECT_EQ(b.layout.layoutFlags, std::stoi(get("AcDbLayout", 70)));
                EXPECT_EQ(b.layout.tabOrder, std::stoi(get("AcDbLayout", 71)));
                EXPECT_EQ(b.layout.limitsMax.y, std::stod(get("AcDbLayout", 21)));
                EXPECT_EQ(b.layout.extentsMax.z, std::stod(get("AcDbLayout", 35)));
                EXPECT_EQ(V(b.layout.blockRecord), hex(get("AcDbLayout", 330)));
                EXPECT_EQ(b.layout.settings.plotLayoutFlags, std::stoi(get("AcDbPlotSettings", 70)));
                EXPECT_EQ(b.layout.settings.standardScaleType, std::stoi(get("AcDbPlotSettings", 75)));
            } else if (x.type == "ACDBPLACEHOLDER") {
                EXPECT_EQ(V(o.header.owner), hex(get("", 330)));
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Objects built bit by bit

using Writer = std::function<void(ksBitWriter&)>;

struct Built {
    uint64_t handle;
    int16_t type;
    Writer data = nullptr, handles = nullptr;
};

void tail(ksBitWriter& w) { ksWriteHandle(w, H(0xC), 0x40), ksWriteHandle(w, H(0x41), 0x40), ksWriteHandle(w, H(0), 0x30); }

// Size word, stream with one reactor, CRC; the bit size from a first pass.
Bytes objectBytes(int16_t version, const Built& o)
{
    auto stream = [&](uint32_t bitSize, uint64_t* dataEnd) {
        ksBitWriter w{};
        ksResetBits(w, version);
        ksWriteBS(w, static_cast<uint16_t>(o.type));
        if (version >= ksAC1015)
            ksWriteRL(w, bitSize);
        ksWriteHandle(w, H(o.handle), 0x00);
        ksWriteBS(w, 0);
        if (version < ksAC1015)
            ksWriteRL(w, bitSize);
        ksWriteBL(w, 1);
        if (o.data)
            o.data(w);
        *dataEnd = w.bitPos;
        if (o.handles)
            o.handles(w);
        Bytes b(w.data, w.data + ksBitWriterBytes(w));
        ksBitWriterFree(w);
        return b;
    };
    uint64_t end = 0;
    stream(0, &end);
    const Bytes s = stream(static_cast<uint32_t>(end), &end);
    Bytes out = {static_cast<uint8_t>(s.size()), static_cast<uint8_t>(s.size() >> 8)};
    out.insert(out.end(), s.begin(), s.end());
    out.insert(out.end(), {0, 0});
    return out;
}

class DwgObjectsBuilt : public DrawingTest {
protected:
    void TearDown() override
    {
        ksObjectFreeBlobs(fcb, &header, &body);
        DrawingTest::TearDown();
    }
    // A fresh drawing whose reader stands over these objects; roles of
    // classes 500 to 503: XRECORD, DICTIONARYVAR, SPATIAL_FILTER, LAYER_INDEX.
    void place(int16_t version, const std::vector<Built>& objects)
    {
        TearDown();
        drawings.clear();
        header = ksObjectHeader{};
        body = ksObjectBody{};
        DrawingTest::SetUp();
        fcb->classNumbers.xrecord = 500;
        fcb->classNumbers.dictionaryVar = 501;
        fcb->classNumbers.spatialFilter = 502;
        fcb->classNumbers.layerIndex = 503;
        auto* st = new ksDwgState;
        st->version = fcb->fileVersion = version;
        fcb->dwgState = st;
        fcb->releaseReader = [](ksFcb* f) { delete ksDwg(f), f->dwgState = nullptr; };
        for (const Built& o : objects) {
            st->map.push_back({o.handle, static_cast<uint32_t>(st->image.size())});
            const Bytes b = objectBytes(version, o);
            st->image.insert(st->image.end(), b.begin(), b.end());
        }
        st->size = static_cast<uint32_t>(st->image.size());
        st->image.resize(st->image.size() + 8);
        std::sort(st->map.begin(), st->map.end(), [](auto& a, auto& b) { return a.handle < b.handle; });
    }

    // Reads the object of this handle by the operation of its kind.
    int16_t read(uint64_t handle, int16_t kind)
    {
        ksObjectFreeBlobs(fcb, &header, &body);
        header = ksObjectHeader{};
        header.kind = kind;
        ksObjectDefaults(fcb, &header, &body);
        int16_t extended = 0;
        if (!ksSeekHandle(fcb, H(handle)))
            return -1;
        auto op = kind == ksKindDictionary  ? ksDwgReadDictionary
                  : kind == ksKindGroup     ? ksDwgReadGroup
                  : kind == ksKindMlineStyle ? ksDwgReadMlineStyle
                                             : ksDwgReadObject;
        return op(fcb, &header, &body, &extended);
    }

    ksObjectHeader header{};
    ksObjectBody body{};
};

TEST_F(DwgObjectsBuilt, DictionaryHeadByRelease)
{
    for (int16_t version : {ksAC1012, ksAC1014, ksAC1015}) {
        for (const Entries& items : {Entries{{"ACAD_GROUP", 0xD}, {std::string(84, 'N'), 0x1A}}, Entries{}}) {
            SCOPED_TRACE(std::to_string(version) + " items " + std::to_string(items.size()));
            place(version, {{0x20, 42,
                             [&](ksBitWriter& w) {
                                 ksWriteBL(w, static_cast<uint32_t>(items.size()));
                                 if (version == ksAC1014)
                                     ksWriteRC(w, 0);
                                 if (version == ksAC1015)
                                     ksWriteBS(w, 1), ksWriteRC(w, 1);
                                 for (const auto& item : items)
                                     ksWriteText(w, item.first.c_str());
                             },
                             [&](ksBitWriter& w) {
                                 tail(w);
                                 for (const auto& item : items)
                                     ksWriteHandle(w, H(item.second), 0x20);
                             }}});
            ASSERT_EQ(read(0x20, ksKindDictionary), 1);
            EXPECT_EQ(body.dictionary.entryCount, static_cast<int32_t>(items.size()));
            EXPECT_EQ(entriesOf(body.dictionary.entries), items);
            EXPECT_EQ(body.dictionary.entries == 0, items.empty());
            // The flags are R2000's; older releases keep the setup.
            EXPECT_EQ(body.dictionary.cloning + body.dictionary.hardOwner, version == ksAC1015 ? 2 : 0);
            EXPECT_EQ(handlesOf(header.reactors), std::vector<uint64_t>{0x41});
            EXPECT_EQ(read(0x20, ksKindGroup), 0);
        }
    }
}

TEST_F(DwgObjectsBuilt, MlineStyleFlagsAreExchanged)
{
    constexpr int16_t kCases[][2] = {{0x001, 0x002}, {0x002, 0x001}, {0x020, 0x040}, {0x040, 0x020}, {0x200, 0x400},
                                     {0x400, 0x200}, {0x110, 0x110}, {0x008, 0x000}, {0x7ff, 0x773}};
    for (const auto& [stored, dxf] : kCases) {
        SCOPED_TRACE(stored);
        place(ksAC1014, {{0x30, 73, [&](ksBitWriter& w) {
                              ksWriteText(w, "STANDARD"), ksWriteText(w, "");
                              ksWriteBS(w, static_cast<uint16_t>(stored)), ksWriteBS(w, 256);
                              ksWriteBD(w, 1.5), ksWriteBD(w, 1.25), ksWriteRC(w, 1);
                              ksWriteBD(w, -0.5), ksWriteBS(w, 3), ksWriteBS(w, 32767);
                          }, tail}});
        ASSERT_EQ(read(0x30, ksKindMlineStyle), 1);
        EXPECT_EQ(body.mlineStyle.flags, dxf);
        ksMlineElement e{};
        ksBlobCursor* in = ksBlobOpenRead(body.mlineStyle.elements);
        EXPECT_TRUE(ksMlineElementRead(in, &e));
        ksBlobCloseRead(in);
        EXPECT_EQ(e.offset, -0.5);
        EXPECT_EQ(e.color, 3);
    }
}

TEST_F(DwgObjectsBuilt, UnknownClassKeptRawWithItsReferences)
{
    const Writer noHead = nullptr;
    const Writer classInData = [](ksBitWriter& w) { ksWriteBL(w, 612), ksWriteBL(w, 77), ksWriteBit(w, 1); };
    const Writer roleInData = [](ksBitWriter& w) { ksWriteBL(w, 500), ksWriteBL(w, 0), ksWriteBit(w, 0); };
    struct Case {
        int16_t version, type, zombieClass;
        const Writer& head;
        int16_t kind;
        int32_t applicationClass;
    } cases[] = {
        {ksAC1014, 600, 0, noHead, 600, 0},
        {ksAC1015, 499, 0, classInData, 612, 0},
        // A class with a body of its own stays a proxy that names it.
        {ksAC1015, 499, 0, roleInData, ksKindProxy, 500},
        // Only R13 turns its zombie objects into the stream kind.
        {ksAC1012, 600, 600, noHead, ksKindStream, 0},
        {ksAC1014, 600, 600, noHead, 600, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.version) + "/" + std::to_string(c.type));
        place(c.version, {{0x40, c.type,
                           [&](ksBitWriter& w) {
                               if (c.head)
                                   c.head(w);
                               ksWriteBits(w, 0b1011001110001, 13);
                           },
                           [](ksBitWriter& w) {
                               tail(w);
                               ksWriteHandle(w, H(0x1234), 0x50);
                               ksWriteHandle(w, H(0), 0x30);
                               ksWriteHandle(w, H(0xABCDEF), 0x20);
                           }}});
        fcb->classNumbers.zombieObjectClass = c.zombieClass;
        ASSERT_EQ(read(0x40, c.type), 1);
        EXPECT_EQ(header.kind, c.kind);
        EXPECT_EQ(body.proxy.applicationClass, c.applicationClass);
        EXPECT_EQ(body.proxy.dataBitLength, 13);
        EXPECT_EQ(bytesOf(body.proxy.data), (Bytes{0b10110011, 0b10001000}));
        EXPECT_EQ(handlesOf(header.reactors), std::vector<uint64_t>{0x41});
        EXPECT_EQ(body.proxy.handleCount, 3);
        EXPECT_EQ(referencesOf(body.proxy.references),
                  (std::vector<std::pair<uint64_t, int>>{{0x1234, 2}, {0, 4}, {0xABCDEF, 0}}));
    }
}

TEST_F(DwgObjectsBuilt, XrecordsAndSpatialFilters)
{
    const Bytes ten = {70, 0, 5, 0, 40, 0, 0, 0, 0, 0};
    auto xrecord = [](uint64_t handle, int16_t type, Bytes data) {
        return Built{handle, type, [=](ksBitWriter& w) {
                         ksWriteBL(w, static_cast<uint32_t>(data.size()));
                         ksWriteBytes(w, data.data(), data.size());
                         ksWriteBS(w, 2);
                     }, tail};
    };
    place(ksAC1015, {xrecord(0x50, 500, {}), xrecord(0x51, 79, ten),
                     {0x52, 502, [](ksBitWriter& w) {
                          ksWriteBS(w, 1), ksWrite2RD(w, {3, 4});
                          ksWrite3BD(w, {0, 0, 1}), ksWrite3BD(w, {5, 6, 7});
                          ksWriteBS(w, 1), ksWriteBS(w, 1), ksWriteBD(w, 2.5), ksWriteBS(w, 0);
                          for (int i = 1; i <= 24; ++i)
                              ksWriteBD(w, i);
                      }, tail}});
    ASSERT_EQ(read(0x50, 500), 1);
    EXPECT_NE(body.xrecord.data, 0u);
    EXPECT_EQ(ksBlobSize(body.xrecord.data), 0u);
    // R2000's fixed XRECORD type reads as the class.
    ASSERT_EQ(read(0x51, 500), 1);
    EXPECT_EQ(bytesOf(body.xrecord.data), ten);
    EXPECT_EQ(body.xrecord.dataBits, 80);
    EXPECT_EQ(body.xrecord.cloning, 2);
    // The matrices run row by row in the stream, four values a row.
    ASSERT_EQ(read(0x52, 502), 1);
    EXPECT_EQ(body.spatialFilter.frontClip, 2.5);
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 4; ++column) {
            EXPECT_EQ(body.spatialFilter.inverseBlockTransform[column][row], 1 + row * 4 + column);
            EXPECT_EQ(body.spatialFilter.clipTransform[column][row], 13 + row * 4 + column);
        }
    }
}

TEST_F(DwgObjectsBuilt, CountsBeyondTheStreamFail)
{
    const uint32_t huge = 0x7fffffff;
    auto object = [](uint64_t handle, int16_t type, Writer head, Writer handles = tail) {
        return Built{handle, type, head, handles};
    };
    place(ksAC1015,
          {object(0x60, 42, [=](ksBitWriter& w) { ksWriteBL(w, huge), ksWriteBS(w, 1), ksWriteRC(w, 0); }),
           object(0x61, 72, [=](ksBitWriter& w) { ksWriteText(w, ""), ksWriteBS(w, 0), ksWriteBS(w, 1), ksWriteBL(w, huge); }),
           object(0x62, 500, [=](ksBitWriter& w) { ksWriteBL(w, huge); }),
           object(0x63, 503, [=](ksBitWriter& w) { ksWriteBL(w, 1), ksWriteBL(w, 2), ksWriteBL(w, 3); }),
           // A DICTIONARYVAR without its text: the text would be read from
           // the handle stream, whose first bits read as an empty one.
           object(0x64, 501, [](ksBitWriter& w) { ksWriteRC(w, 0); },
                  [](ksBitWriter& w) {
                      ksWriteHandle(w, H(0), 0x80), ksWriteHandle(w, H(0x41), 0x40), ksWriteHandle(w, H(0), 0x30);
                  })});
    EXPECT_EQ(read(0x60, ksKindDictionary), 0);
    EXPECT_EQ(read(0x61, ksKindGroup), 0);
    EXPECT_EQ(read(0x62, 500), 0);
    EXPECT_EQ(read(0x63, 503), 0);
    EXPECT_EQ(body.layerIndex.names, 0u);
    EXPECT_EQ(read(0x64, 501), 0);
}

TEST_F(DwgObjectsBuilt, ObjectListTakesWhatNoPhaseRead)
{
    place(ksAC1015, {{0x10, 600}, {0x11, 19}, {0x12, 42}, {0x13, 48}, {0x14, 79}, {0x15, 504},
                     {0x16, 505}, {0x17, 498}, {0x18, 73}, {0x19, 42}, {0x1A, 72}});
    fcb->classNumbers.lwpolyline = 504;
    ksClass entityClass{};
    entityClass.classNumber = 505;
    entityClass.itemClassId = 498;
    ASSERT_EQ(ksClassAdd(fcb, &entityClass), 505);
    ksDwgState* st = ksDwg(fcb);
    st->namedObjects = H(0x19);
    st->controls[ksHeadBlocks] = H(0x13);
    ASSERT_EQ(ksBtreeAdd(fcb, H(0x12), 1), ksBtDone);
    // The named objects dictionary first; then by handle what the index
    // lacks, but a LINE, the control, the chained LWPOLYLINE, an entity
    // class and a proxy entity.
    ASSERT_EQ(ksDwgStartObjects(fcb), 1);
    std::vector<int16_t> kinds;
    for (int16_t kind; (kind = ksDwgNextObjectType(fcb)) != 0;)
        kinds.push_back(kind);
    EXPECT_EQ(kinds, (std::vector<int16_t>{ksKindDictionary, 600, 500, ksKindMlineStyle, ksKindGroup}));
    EXPECT_EQ(fcb->failureNumber, 0);
    // A handle that the map lost is a failure, not the end of the list.
    ASSERT_EQ(ksDwgStartObjects(fcb), 1);
    st->map.erase(std::find_if(st->map.begin(), st->map.end(), [](auto& e) { return e.handle == 0x19; }));
    EXPECT_EQ(ksDwgNextObjectType(fcb), 0);
    EXPECT_EQ(fcb->failureNumber, -1);
}

}  // namespace
