// Non-graphic objects of R13-R2000 DWG files: the objects phase over the
// corpus, held against the DXF exports of the same drawings, and objects
// built bit by bit for what real files don't show.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>

#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "frame/globals.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "support/dwgtest.h"

namespace {

using namespace zt;
using Entries = std::vector<std::pair<std::string, uint64_t>>;

ksObjHandle H(uint64_t v) { return ksHandleFromU64(v); }
uint64_t U(const ksObjHandle& h) { return ksHandleToU64(h); }

// What a blob of dictionary entries, proxy references or handles holds.
template <typename T, typename Read>
std::vector<T> blobItems(ksLoc blob, Read read)
{
    std::vector<T> out;
    ksBlobCursor* in = ksBlobOpenRead(blob);
    for (T item; in && read(in, &item);)
        out.push_back(item);
    ksBlobCloseRead(in);
    return out;
}
Entries entriesOf(ksLoc blob)
{
    return blobItems<std::pair<std::string, uint64_t>>(blob, [](ksBlobCursor* in, auto* item) {
        ksDictionaryEntry e;
        return ksDictionaryEntryRead(in, &e) ? (*item = {e.name, U(e.handle)}, true) : false;
    });
}
std::vector<std::pair<uint64_t, int>> referencesOf(ksLoc blob)
{
    return blobItems<std::pair<uint64_t, int>>(blob, [](ksBlobCursor* in, auto* item) {
        ksObjHandle h;
        uint8_t kind;
        return ksProxyReferenceRead(in, &h, &kind) ? (*item = {U(h), kind}, true) : false;
    });
}
std::vector<uint64_t> handlesOf(ksLoc blob)
{
    return blobItems<uint64_t>(blob, [](ksBlobCursor* in, uint64_t* item) {
        ksObjHandle h;
        return ksBlobReadHandle(in, &h) ? (*item = U(h), true) : false;
    });
}

// The corpus, through the load's phases up to the objects.
class DwgObjectsCorpus : public DwgLoadTest {
protected:
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
};

TEST_F(DwgObjectsCorpus, EveryDrawingReadsItsObjects)
{
    ZT_REQUIRE_CORPUS();
    for (const std::string& path : corpusDwgs()) {
        SCOPED_TRACE(path);
        const std::string version = path.substr(4, 6);
        ASSERT_EQ(open(corpusDir() / path, DwgPhases::objects), "");
        const auto all = objects();
        // The named objects dictionary first, naming the dictionaries every
        // drawing of its release has (one writer leaves the plot styles out).
        ASSERT_FALSE(all.empty());
        EXPECT_EQ(all[0].header.kind, ksKindDictionary);
        EXPECT_EQ(U(all[0].header.handle), U(ksDwg(fcb)->namedObjects));
        std::vector<std::string> wanted = {"ACAD_GROUP", "ACAD_MLINESTYLE"};
        if (version == "AC1015")
            wanted.insert(wanted.end(), {"ACAD_LAYOUT", "ACAD_PLOTSETTINGS"});
        if (version == "AC1015" && !path.ends_with("dup_paperspace_r2000.dwg"))
            wanted.push_back("ACAD_PLOTSTYLENAME");
        const Entries named = entriesOf(all[0].body.dictionary.entries);
        EXPECT_EQ(named.size(), size_t(all[0].body.dictionary.entryCount));
        for (const std::string& w : wanted)
            EXPECT_TRUE(std::ranges::count(named, w, &Entries::value_type::first)) << w;
        // Proxy and zombie objects keep their bits as proxies; the stream
        // kind, which holds groups, is never a DWG object's.
        auto count = [&](int16_t kind) { return std::ranges::count(all, kind, [](auto& o) { return o.header.kind; }); };
        EXPECT_GE(count(ksKindMlineStyle), 1);
        EXPECT_EQ(count(ksKindStream), 0);
        EXPECT_EQ(count(ksKindProxy) > 0, version == "AC1012");
    }
}

TEST_F(DwgObjectsCorpus, ObjectsMatchTheDxfExport)
{
    ZT_REQUIRE_CORPUS();
    for (const DrawingPair& pair : drawingPairs()) {
        if (!pair.sameObjects)
            continue;
        SCOPED_TRACE(pair.dwg);
        ASSERT_EQ(open(corpusDir() / pair.dwg, DwgPhases::objects), "");
        const DxfFile dxf(corpusDir() / pair.dxf);
        std::map<uint64_t, const DxfRecord*> expected;
        for (const DxfRecord& r : dxf.section("OBJECTS"))
            expected[r.handle()] = &r;
        auto all = objects();
        ASSERT_EQ(all.size(), expected.size());
        for (Loaded& o : all) {
            SCOPED_TRACE(U(o.header.handle));
            ASSERT_EQ(expected.count(U(o.header.handle)), 1u);
            const DxfRecord* x = expected.at(U(o.header.handle));
            EXPECT_EQ(nameOf(o.header.kind), x->type);
            EXPECT_EQ(handlesOf(o.header.reactors), x->reactors());
            EXPECT_EQ(o.header.reactorCount, int32_t(x->reactors().size()));
            // The first of each group in a subclass that the DXF reader stores
            // in a field of the body; a layout's plot settings are its own.
            // The dictionary flags are R2000's: older releases keep the setup.
            const ksObjectBody& b = o.body;
            const ksObjectForm form = ksObjectFormOf(fcb, o.header.kind);
            const bool r2000 = fcb->fileVersion >= ksAC1015;
            std::set<std::pair<std::string, int>> seen;
            std::string subclass;
            for (const auto& [group, value] : x->groups) {
                subclass = group == 100 ? value : subclass;
                const bool settings = subclass == "AcDbPlotSettings";
                const ksTableField* row = subclass.empty() || !seen.insert({subclass, group}).second
                                              ? nullptr
                                              : ksObjectFieldFind(settings ? ksFormPlotSettings : form, group);
                void* body = settings ? static_cast<void*>(&o.body.layout.settings) : &o.body;
                if (row && (form != ksFormDictionary || r2000)) {
                    const void* at = ksTableFieldAddress(body, row, 0);
                    EXPECT_EQ(fieldDiffers(dxf, at, row->kind, row->index, value, 1e-9), "") << x->type << " " << group;
                }
            }
            if (form == ksFormDictionary || form == ksFormDictionaryWithDefault) {
                // The export sorts the items; the file keeps its own order.
                Entries items = x->items();
                Entries read = entriesOf(form == ksFormDictionary ? b.dictionary.entries
                                                                  : b.dictionaryWithDefault.entries);
                std::ranges::sort(items), std::ranges::sort(read);
                EXPECT_EQ(read, items);
            } else if (form == ksFormMlineStyle) {
                ksMlineElement el{};
                ksBlobCursor* in = ksBlobOpenRead(b.mlineStyle.elements);
                EXPECT_TRUE(ksMlineElementRead(in, &el));
                ksBlobCloseRead(in);
                EXPECT_EQ(el.offset, x->real(49, "AcDbMlineStyle"));
                EXPECT_EQ(el.linetypeIndex, ksMlineByLayer);
            } else if (form == ksFormPlaceholder) {
                EXPECT_EQ(U(o.header.owner), x->hex(330, ""));
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

// Owner, one reactor, no extension dictionary.
void tail(ksBitWriter& w)
{
    ksWriteHandle(w, H(0xC), 0x40), ksWriteHandle(w, H(0x41), 0x40), ksWriteHandle(w, H(0), 0x30);
}

class DwgObjectsBuilt : public DrawingTest {
protected:
    void TearDown() override
    {
        ksObjectFreeBlobs(fcb, &header, &body);
        DrawingTest::TearDown();
    }
    // A fresh drawing whose reader stands over these objects, each with one
    // reactor; roles of classes 500 to 503: XRECORD, DICTIONARYVAR,
    // SPATIAL_FILTER, LAYER_INDEX.
    void place(int16_t version, const std::vector<Built>& objects)
    {
        TearDown();
        drawings.clear();
        header = ksObjectHeader{};
        body = ksObjectBody{};
        DrawingTest::SetUp();
        ksClassNumbers& n = fcb->classNumbers;
        n.xrecord = 500, n.dictionaryVar = 501, n.spatialFilter = 502, n.layerIndex = 503;
        DwgImage image(version);
        for (const Built& o : objects) {
            ksWriteBL(image.begin(o.type, o.handle, false), 1);
            if (o.data)
                o.data(image.w);
            ksMarkHandles(image.w);
            if (o.handles)
                o.handles(image.w);
            image.end();
        }
        fcb->dwgState = new ksDwgState;
        fcb->releaseReader = [](ksFcb* f) { delete ksDwg(f), f->dwgState = nullptr; };
        ksDwg(fcb)->version = fcb->fileVersion = version;
        image.install(*ksDwg(fcb));
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

// The head by release: R14 has a byte more, R2000 the cloning flag and the
// hard owner byte. A long name; no dictionary read as a group.
TEST_F(DwgObjectsBuilt, DictionaryHeadByRelease)
{
    const Entries items = {{"ACAD_GROUP", 0xD}, {std::string(84, 'N'), 0x1A}};
    for (int16_t version : {ksAC1012, ksAC1014, ksAC1015}) {
        SCOPED_TRACE(version);
        place(version, {{0x20, 42,
                         [&](ksBitWriter& w) {
                             ksWriteBL(w, uint32_t(items.size()));
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
        EXPECT_EQ(body.dictionary.entryCount, 2);
        EXPECT_EQ(entriesOf(body.dictionary.entries), items);
        EXPECT_EQ(body.dictionary.cloning + body.dictionary.hardOwner, version == ksAC1015 ? 2 : 0);
        EXPECT_EQ(read(0x20, ksKindGroup), 0);
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
                              ksWriteBS(w, uint16_t(stored)), ksWriteBS(w, 256);
                              ksWriteBD(w, 1.5), ksWriteBD(w, 1.25), ksWriteRC(w, 1);
                              ksWriteBD(w, -0.5), ksWriteBS(w, 3), ksWriteBS(w, 32767);
                          }, tail}});
        ASSERT_EQ(read(0x30, ksKindMlineStyle), 1);
        EXPECT_EQ(body.mlineStyle.flags, dxf);
        ksMlineElement e{};
        ksBlobCursor* in = ksBlobOpenRead(body.mlineStyle.elements);
        EXPECT_TRUE(ksMlineElementRead(in, &e));
        ksBlobCloseRead(in);
        EXPECT_TRUE(e.offset == -0.5 && e.color == 3);
    }
}

TEST_F(DwgObjectsBuilt, UnknownClassKeptRawWithItsReferences)
{
    const Writer noHead = nullptr;
    const Writer classInData = [](ksBitWriter& w) { ksWriteBL(w, 612), ksWriteBL(w, 77), ksWriteBit(w, 1); };
    const Writer roleInData = [](ksBitWriter& w) { ksWriteBL(w, 500), ksWriteBL(w, 0), ksWriteBit(w, 0); };
    const struct {
        int16_t version, type, zombieClass;
        const Writer& head;
        int16_t kind;
        int32_t applicationClass;
    } cases[] = {
        {ksAC1014, 600, 0, noHead, 600, 0},
        {ksAC1015, 499, 0, classInData, 612, 0},
        // A class with a body of its own stays a proxy that names it.
        {ksAC1015, 499, 0, roleInData, ksKindProxy, 500},
        // Only R13 turns its zombie objects into plain proxies; a proxy
        // object of R13 or R14 is one whatever its class.
        {ksAC1012, 600, 600, noHead, ksKindProxy, 499},
        {ksAC1014, 600, 600, noHead, 600, 0},
        {ksAC1014, 499, 0, noHead, ksKindProxy, 499},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.version) + "/" + std::to_string(c.type));
        place(c.version, {{0x40, c.type,
                           [&](ksBitWriter& w) {
                               if (c.head)
                                   c.head(w);
                               ksWriteBits(w, 0b1011001110001, 13);
                           },
                           [](ksBitWriter& w) {
                               tail(w);
                               ksWriteHandle(w, H(0x1234), 0x50), ksWriteHandle(w, H(0), 0x30);
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
                         ksWriteBL(w, uint32_t(data.size())), ksWriteBytes(w, data.data(), data.size());
                         ksWriteBS(w, 2);
                     }, tail};
    };
    place(ksAC1015, {xrecord(0x50, 500, {}), xrecord(0x51, 79, ten),
                     {0x52, 502, [](ksBitWriter& w) {
                          ksWriteBS(w, 1), ksWrite2RD(w, {3, 4}), ksWrite3BD(w, {0, 0, 1}), ksWrite3BD(w, {5, 6, 7});
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
    place(ksAC1015,
          {{0x60, 42, [=](ksBitWriter& w) { ksWriteBL(w, huge), ksWriteBS(w, 1), ksWriteRC(w, 0); }, tail},
           {0x61, 72, [=](ksBitWriter& w) { ksWriteText(w, ""), ksWriteBS(w, 0), ksWriteBS(w, 1), ksWriteBL(w, huge); }, tail},
           {0x62, 500, [=](ksBitWriter& w) { ksWriteBL(w, huge); }, tail},
           {0x63, 503, [=](ksBitWriter& w) { ksWriteBL(w, 1), ksWriteBL(w, 2), ksWriteBL(w, 3); }, tail},
           // A DICTIONARYVAR without its text: the text would be read from
           // the handle stream, whose first bits read as an empty one.
           {0x64, 501, [](ksBitWriter& w) { ksWriteRC(w, 0); }, [](ksBitWriter& w) {
                ksWriteHandle(w, H(0), 0x80), ksWriteHandle(w, H(0x41), 0x40), ksWriteHandle(w, H(0), 0x30);
            }}});
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
    std::erase_if(st->map, [](auto& e) { return e.handle == 0x19; });
    EXPECT_EQ(ksDwgNextObjectType(fcb), 0);
    EXPECT_EQ(fcb->failureNumber, -1);
}

}  // namespace
