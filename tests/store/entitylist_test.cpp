// Entity lists: every fixed type and every class form through the packed
// store with random fields, the compact common part and the cut bodies, the
// list operations with their refusals, and the blobs an entity takes along.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/object.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"
#include "support/fixtures.h"

namespace {

constexpr uint8_t kFill = 0xA5;  // what a caller's body buffer holds before an unpack
constexpr uint64_t kBlock = 0x40;

template <typename T>
bool sameBytes(const T& a, const T& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// The header's fields (not its padding).
struct HeaderField {
    size_t at, size;
    const char* name;
};
#define KS_FIELD(f) HeaderField{offsetof(ksEntityHeader, f), sizeof(ksEntityHeader::f), #f}
constexpr HeaderField kHeaderFields[] = {
    KS_FIELD(type),      KS_FIELD(handle),        KS_FIELD(layerHandle), KS_FIELD(linetypeHandle), KS_FIELD(xdictHandle),
    KS_FIELD(thickness), KS_FIELD(color),         KS_FIELD(extrusion),   KS_FIELD(linetypeScale),  KS_FIELD(flags),
    KS_FIELD(lineweight), KS_FIELD(userData),     KS_FIELD(eed),         KS_FIELD(reactorCount),   KS_FIELD(reactors),
};
#undef KS_FIELD

// Where the closing texts of a fixed type begin (they run to the body's
// end); 0 for a type without.
uint32_t closingAt(int16_t type)
{
    switch (type) {
    case ksEntText: return offsetof(ksTextBody, text);
    case ksEntAttdef: return offsetof(ksAttdefBody, prompt);
    case ksEntAttrib: return offsetof(ksAttribBody, tag);
    case ksEntDimension: return offsetof(ksDimensionBody, text);
    case ksEntViewport: return offsetof(ksViewportBody, name);
    case ksEntMtext: return offsetof(ksMtextBody, text);
    case ksEntTolerance: return offsetof(ksToleranceBody, text);
    default: return 0;
    }
}

// The class forms with their blob fields (0 ends a list: no blob stands first).
struct ClassForm {
    const char* name;
    int16_t ksClassNumbers::*number;  // null: the proxy
    uint32_t size;
    std::array<uint16_t, 4> blobs;
};
const ClassForm kClassForms[] = {
    {"LWPOLYLINE", &ksClassNumbers::lwpolyline, ksLwpolylineBodySize, {offsetof(ksLwpolyline, vertices)}},
    {"HATCH", &ksClassNumbers::hatch, ksHatchBodySize,
     {offsetof(ksHatch, boundary), offsetof(ksHatch, patternLines), offsetof(ksHatch, boundaryHandles),
      offsetof(ksHatch, seedPoints)}},
    {"IMAGE", &ksClassNumbers::image, ksImageBodySize, {offsetof(ksImage, clipVertices), offsetof(ksImage, graphics)}},
    {"WIPEOUT", &ksClassNumbers::wipeout, ksWipeoutBodySize,
     {offsetof(ksImage, clipVertices), offsetof(ksImage, graphics)}},
    {"OLE2FRAME", &ksClassNumbers::ole2frame, ksOle2FrameBodySize, {offsetof(ksOle2Frame, data)}},
    {"RTEXT", &ksClassNumbers::rtext, ksRtextBodySize, {offsetof(ksRtext, graphics)}},
    {"ARCALIGNEDTEXT", &ksClassNumbers::arcAlignedText, ksArcAlignedTextBodySize,
     {offsetof(ksArcAlignedText, graphics)}},
    {"proxy", nullptr, ksProxyEntityBodySize,
     {offsetof(ksProxyEntity, data), offsetof(ksProxyEntity, references), offsetof(ksProxyEntity, graphics)}},
};

class EntityListTest : public zt::DrawingTest {
protected:
    ksLoc list = 0;
    std::mt19937_64 rng{20260523};

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(DrawingTest::SetUp());
        ASSERT_NE(list = ksListNew(), 0u);
        ksBlockHeader block;
        ksBlockHeaderDefaults(&block);
        std::snprintf(block.name, sizeof block.name, "DOOR");
        block.entryHandle = ksHandleFromU64(kBlock);
        ASSERT_EQ(ksBlockHeaderAdd(fcb, &block), 1);
    }
    void TearDown() override
    {
        ksEntityListFree(fcb, list);
        DrawingTest::TearDown();
    }

    // A plain entity of the type with the defaults, on layer 0x1F3.
    void plain(int16_t type, uint64_t handle, ksEntityHeader& h, ksEntityBody& b)
    {
        ksEntityDefaults(&h, &b, type);
        h.handle = ksHandleFromU64(handle);
        h.layerHandle = ksHandleFromU64(0x1F3);
        if (type == ksEntInsert)
            b.insert.blockHandle = ksHandleFromU64(kBlock);
    }
    int16_t add(int16_t type, uint64_t handle, ksLoc into = 0)
    {
        ksEntityHeader h;
        ksEntityBody b;
        plain(type, handle, h, b);
        return ksEntityAppend(fcb, into ? into : list, &h, &b);
    }
    ksLoc node(uint64_t handle) { return ksBtreeFind(fcb, ksHandleFromU64(handle)); }
    std::vector<uint64_t> order()
    {
        std::vector<uint64_t> out;
        ksEntityHeader h;
        ksEntityBody b;
        for (ksLoc n = ksListFirst(list); n != 0; n = ksListNodeNext(n))
            out.push_back(ksEntityUnpack(fcb, n, &h, &b, nullptr, nullptr) ? ksHandleToU64(h.handle) : 0);
        return out;
    }

    // Random values.
    double real()
    {
        for (;;) {
            uint64_t bits = rng();
            double d;
            std::memcpy(&d, &bits, sizeof d);
            if (std::isfinite(d))
                return d;
        }
    }
    void randomBytes(void* out, size_t n)
    {
        auto* p = static_cast<uint8_t*>(out);
        for (size_t i = 0; i < n; ++i)
            p[i] = static_cast<uint8_t>(rng());
    }
    // Printable, of a random length within the field, random bytes behind.
    void text(char* field, size_t width)
    {
        randomBytes(field, width);
        size_t length = rng() % width;
        for (size_t i = 0; i < length; ++i)
            field[i] = static_cast<char>(' ' + rng() % 95);
        field[length] = 0;
    }
    ksObjHandle handleOfLength(int length)
    {
        ksObjHandle h{};
        while (ksHandleLength(h) != length)
            h = ksHandleFromU64(length ? rng() >> (64 - 8 * length) : 0);
        return h;
    }
    static ksLoc filledBlob(uint32_t bytes)
    {
        zt::Bytes b(bytes);
        for (uint32_t i = 0; i < bytes; ++i)
            b[i] = static_cast<uint8_t>(i);
        return zt::blobOf(b);
    }

    ksEntityHeader randomHeader(int16_t type, std::set<uint64_t>& used)
    {
        ksEntityHeader h;
        std::memset(&h, 0, sizeof h);
        h.type = type;
        do
            h.handle = handleOfLength(1 + static_cast<int>(rng() % 8));
        while (!used.insert(ksHandleToU64(h.handle)).second);
        h.layerHandle = handleOfLength(static_cast<int>(rng() % 9));
        h.linetypeHandle = handleOfLength(static_cast<int>(rng() % 9));
        h.xdictHandle = handleOfLength(rng() % 2 ? 0 : 1 + static_cast<int>(rng() % 8));
        const double thickness[] = {0.0, -0.0, real()};
        h.thickness = thickness[rng() % 3];
        const int16_t color[] = {256, 0, static_cast<int16_t>(rng())};
        h.color = color[rng() % 3];
        h.extrusion = {real(), real(), real()};
        h.linetypeScale = rng() % 2 ? 1.0 : real();
        h.flags = static_cast<int8_t>(rng());
        h.lineweight = static_cast<int16_t>(rng());
        h.userData = rng() % 2 ? 0 : static_cast<int32_t>(rng());
        h.eed = rng() % 2 ? ksBlobNew() : 0;
        h.reactors = rng() % 2 ? ksBlobNew() : 0;
        h.reactorCount = static_cast<int32_t>(rng());
        return h;
    }

    // A body of a fixed type with every row's field random by its kind and
    // random bytes elsewhere (padding, fields without rows, and the buffer
    // behind the record, none of which the store may take past its cut).
    // Returns the fixed bytes the store keeps.
    uint32_t randomBody(int16_t type, ksEntityBody& b, int round)
    {
        randomBytes(b.bytes, sizeof b.bytes);
        const ksEntityFieldSet& set = ksEntityFieldTable[type];
        std::set<uint16_t> blobs;
        for (uint16_t i = 0; i < set.count; ++i) {
            const ksEntityField& row = set.rows[i];
            switch (row.kind) {
            case ksEfReal: case ksEfAngle: {
                double d = real();
                std::memcpy(ksEntityFieldAddress(&b, row), &d, sizeof d);
                break;
            }
            case ksEfText: case ksEfCodedText: case ksEfName:
                text(reinterpret_cast<char*>(b.bytes + row.offset), row.width);
                break;
            case ksEfTextChunk: case ksEfModelText: case ksEfRealList: case ksEfPointList: case ksEfShortList:
            case ksEfHandleList:
                if (blobs.insert(row.offset).second) {
                    ksLoc blob = ksBlobNew();
                    std::memcpy(b.bytes + row.offset, &blob, sizeof blob);
                }
                break;
            default: break;  // bytes, shorts, longs, bits and handles: already random
            }
        }
        if (type == ksEntInsert)
            b.insert.blockHandle = ksHandleFromU64(kBlock);  // an INSERT needs its block
        if (closingAt(type))
            return closingAt(type);
        if (type != ksEntVertex)
            return set.recordSize;
        // A VERTEX in its four forms: whole, point and flags (by Z or by
        // flags), X and Y alone.
        ksVertexBody& v = b.vertex;
        if (round % 4 == 0) {
            v.bulge = 0.25;
            return sizeof v;
        }
        v.hasStartWidth = v.hasEndWidth = 0;
        v.bulge = v.tangent = 0;
        v.flags &= ~(64 | 128);
        if (round % 4 == 1) {
            v.point.z = 5.0;
            return ksVertexCutPoint;
        }
        v.point.z = 0;
        if (round % 4 == 2) {
            v.flags = static_cast<int16_t>(v.flags | 1);
            return ksVertexCutPoint;
        }
        v.flags = 0;
        return ksVertexCutXY;
    }
};

// What an unpack into a buffer of kFill must give: the fixed bytes the
// store keeps, each closing text to its end mark, the caller's bytes
// elsewhere, and the fields behind a cut VERTEX's flags zero.
uint32_t expectedBody(int16_t type, uint32_t keep, const ksEntityBody& sent, ksEntityBody& want)
{
    std::memset(want.bytes, kFill, sizeof want.bytes);
    std::memcpy(want.bytes, sent.bytes, keep);
    uint32_t size = keep;
    const ksEntityFieldSet& set = ksEntityFieldTable[type];
    for (uint16_t i = 0; closingAt(type) && i < set.count; ++i) {
        const ksEntityField& row = set.rows[i];
        if (row.offset < closingAt(type) || (row.kind != ksEfText && row.kind != ksEfCodedText))
            continue;
        uint32_t n = static_cast<uint32_t>(std::strlen(reinterpret_cast<const char*>(sent.bytes + row.offset))) + 1;
        std::memcpy(want.bytes + row.offset, sent.bytes + row.offset, n);
        size += n;
    }
    if (type == ksEntVertex && keep < sizeof(ksVertexBody)) {
        std::memset(want.bytes + ksVertexCutPoint, 0, sizeof(ksVertexBody) - ksVertexCutPoint);
        if (keep == ksVertexCutXY) {
            want.vertex.point.z = 0;
            want.vertex.flags = 0;
        }
    }
    return size;
}

TEST_F(EntityListTest, EveryTypeAndClassFormComesBackWithOnlyTheDefinedLosses)
{
    ASSERT_EQ(ksAddDefaultClasses(fcb), 1);
    struct Kind {
        std::string name;
        int16_t type;
        const ClassForm* form;
    };
    std::vector<Kind> kinds;
    for (int16_t t = 1; t < ksEntityFixedCount; ++t) {
        if (*ksEntityNames[t])
            kinds.push_back({ksEntityNames[t], t, nullptr});
    }
    for (const ClassForm& f : kClassForms) {
        int16_t number = f.number ? fcb->classNumbers.*f.number : int16_t{ksEntProxy};
        ASSERT_TRUE(number >= ksEntClassBase || !f.number) << f.name;
        kinds.push_back({f.name, number, &f});
    }
    kinds.push_back({"unknown class", ksClassNextNumber(fcb), &kClassForms[std::size(kClassForms) - 1]});

    struct Sent {
        std::string name;
        ksEntityHeader header;
        ksEntityBody body;
        uint32_t size;
    };
    std::vector<Sent> sent;
    std::set<uint64_t> used{kBlock};
    for (int round = 0; round < 8; ++round) {
        for (const Kind& k : kinds) {
            Sent s{k.name, randomHeader(k.type, used), {}, 0};
            uint32_t keep;
            if (k.form) {
                randomBytes(s.body.bytes, sizeof s.body.bytes);
                for (uint16_t at : k.form->blobs) {
                    if (at == 0)
                        continue;
                    const ksLoc blob = ksBlobNew();
                    std::memcpy(s.body.bytes + at, &blob, sizeof blob);
                }
                keep = k.form->size;
            } else {
                keep = randomBody(k.type, s.body, round);
            }
            ASSERT_EQ(ksEntityAppend(fcb, list, &s.header, &s.body), 1) << k.name << " error " << ksErrorNumber();
            ksEntityBody want;
            s.size = expectedBody(k.form ? int16_t{0} : k.type, keep, s.body, want);
            s.body = want;
            // The common part's normalisations.
            ksEntityHeader& h = s.header;
            if (!(h.flags & ksEntityOwnExtrusion))
                h.extrusion = {0, 0, 1.0};
            if (h.thickness == 0)
                h.thickness = 0.0;
            if (h.reactors == 0)
                h.reactorCount = 0;
            sent.push_back(s);
        }
    }
    EXPECT_EQ(ksListCount(list), sent.size());

    std::shuffle(sent.begin(), sent.end(), rng);
    for (const Sent& s : sent) {
        SCOPED_TRACE(s.name + " " + std::to_string(ksHandleToU64(s.header.handle)));
        ksEntityHeader got;
        ksEntityBody body;
        std::memset(body.bytes, kFill, sizeof body.bytes);
        ASSERT_EQ(ksEntitySeek(fcb, list, s.header.handle, &got, &body), 1);
        const ksEntityHeader& want = s.header;
        for (const HeaderField& f : kHeaderFields) {
            EXPECT_EQ(std::memcmp(reinterpret_cast<const char*>(&got) + f.at,
                                  reinterpret_cast<const char*>(&want) + f.at, f.size), 0)
                << f.name;
        }
        if (s.header.type == ksEntVertex && s.size == ksVertexCutXY) {  // the padding behind flags is no field
            constexpr size_t pad = offsetof(ksVertexBody, flags) + sizeof(int16_t);
            std::memcpy(body.bytes + pad, s.body.bytes + pad, ksVertexCutPoint - pad);
        }
        auto diff = std::mismatch(body.bytes, body.bytes + sizeof body.bytes, s.body.bytes);
        EXPECT_EQ(diff.first - body.bytes, ksEntityBodyMax) << "bodies differ first at byte " << diff.first - body.bytes;

        uint32_t size = 0;
        ASSERT_EQ(ksEntityUnpack(fcb, ksBtreeFind(fcb, s.header.handle), &got, &body, &size, nullptr), 1);
        EXPECT_EQ(size, s.size) << "stored body bytes";
    }
}

// The node's presence byte and common size (both at fixed offsets of the
// head) for one field away from its default, on a LINE whose layer has a
// 2-byte handle and whose linetype a 1-byte one.
TEST_F(EntityListTest, CommonFieldsTakeRoomOnlyAwayFromTheirDefaults)
{
    struct Case {
        const char* what;
        void (*set)(ksEntityHeader&);
        uint8_t presence;
        int extra;
    };
    const Case cases[] = {
        {"all defaults", [](ksEntityHeader&) {}, 0, 0},
        {"thickness 2.5", [](ksEntityHeader& h) { h.thickness = 2.5; }, 1, 8},
        {"thickness -0.0", [](ksEntityHeader& h) { h.thickness = -0.0; }, 0, 0},
        {"colour 0, by block", [](ksEntityHeader& h) { h.color = 0; }, 2, 2},
        {"colour 256, by layer", [](ksEntityHeader& h) { h.color = 256; }, 0, 0},
        {"extrusion with its flag", [](ksEntityHeader& h) { h.extrusion = {0, 1, 0}, h.flags |= ksEntityOwnExtrusion; },
         4, 24},
        {"extrusion without its flag", [](ksEntityHeader& h) { h.extrusion = {0, 1, 0}; }, 0, 0},
        {"extended data", [](ksEntityHeader& h) { h.eed = ksBlobNew(); }, 8, 4},
        {"linetype scale 0.5", [](ksEntityHeader& h) { h.linetypeScale = 0.5; }, 16, 8},
        {"user data", [](ksEntityHeader& h) { h.userData = 7; }, 32, 4},
        {"reactors", [](ksEntityHeader& h) { ksEntityAddReactor(&h, ksHandleFromU64(0xA1)); }, 64, 8},
        {"extension dictionary of 3 bytes", [](ksEntityHeader& h) { h.xdictHandle = ksHandleFromU64(0x12345); },
         128, 1 + 3},
        {"null layer", [](ksEntityHeader& h) { h.layerHandle = ksObjHandle{}; }, 0, -2},
    };
    uint64_t handle = 0x100;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ksEntityHeader h, got;
        ksEntityBody b;
        plain(ksEntLine, ++handle, h, b);
        h.linetypeHandle = ksHandleFromU64(0x14);
        c.set(h);
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
        const auto* n = static_cast<const uint8_t*>(ksVmPtr(node(handle)));
        ASSERT_NE(n, nullptr);
        uint16_t commonSize;
        std::memcpy(&commonSize, n + 25, sizeof commonSize);
        EXPECT_EQ(n[23], c.presence);
        EXPECT_EQ(commonSize, 5 + 2 + 1 + c.extra);
        uint32_t size = 0;
        ASSERT_EQ(ksEntityUnpack(fcb, node(handle), &got, &b, &size, nullptr), 1);
        EXPECT_EQ(size, sizeof(ksLineBody));
        EXPECT_TRUE(sameBytes(got.layerHandle, h.layerHandle));
        EXPECT_TRUE(sameBytes(got.linetypeHandle, h.linetypeHandle));
        EXPECT_FALSE(std::signbit(got.thickness));
    }
}

TEST_F(EntityListTest, CutBodiesKeepWhatTheirContentNeeds)
{
    struct Case {
        const char* what;
        int16_t type;
        void (*set)(ksEntityBody&);
        uint32_t size;
    };
    const Case cases[] = {
        {"VERTEX at Z 0", ksEntVertex, [](ksEntityBody& b) { b.vertex.point = {1, 2, 0}; }, 16},
        {"VERTEX at Z 5", ksEntVertex, [](ksEntityBody& b) { b.vertex.point = {1, 2, 5}; }, 32},
        {"VERTEX with flags 32", ksEntVertex, [](ksEntityBody& b) { b.vertex.flags = 32; }, 32},
        {"VERTEX of a polyface", ksEntVertex, [](ksEntityBody& b) { b.vertex.flags = 128; }, 88},
        {"VERTEX with a bulge", ksEntVertex, [](ksEntityBody& b) { b.vertex.bulge = 0.5; }, 88},
        {"VERTEX with a start width", ksEntVertex, [](ksEntityBody& b) { b.vertex.hasStartWidth = 1; }, 88},
        {"TEXT, empty", ksEntText, [](ksEntityBody& b) { b.text.text[0] = 0; }, 89},
        {"TEXT 'abc'", ksEntText, [](ksEntityBody& b) { std::strcpy(b.text.text, "abc"); }, 92},
        {"ATTDEF 'P' 'TAG' ''", ksEntAttdef,
         [](ksEntityBody& b) { std::strcpy(b.attdef.prompt, "P"), std::strcpy(b.attdef.tag, "TAG"); }, 96 + 2 + 4 + 1},
        {"VIEWPORT named Front", ksEntViewport, [](ksEntityBody& b) { std::strcpy(b.viewport.name, "Front"); },
         offsetof(ksViewportBody, name) + 6},
        {"ENDBLK", ksEntEndblk, [](ksEntityBody&) {}, 0},
    };
    uint64_t handle = 0x100;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ksEntityHeader h;
        ksEntityBody b, got;
        plain(c.type, ++handle, h, b);
        std::memset(b.bytes + ksEntityBodySize(c.type), 0x5A, sizeof b.bytes - ksEntityBodySize(c.type));
        c.set(b);
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
        uint32_t size = 0;
        std::memset(got.bytes, kFill, sizeof got.bytes);
        ASSERT_EQ(ksEntityUnpack(fcb, node(handle), &h, &got, &size, nullptr), 1);
        EXPECT_EQ(size, c.size);
        if (c.type == ksEntVertex) {
            EXPECT_TRUE(sameBytes(got.vertex.point, b.vertex.point));
            EXPECT_EQ(got.vertex.flags, b.vertex.flags);
            EXPECT_EQ(got.vertex.bulge, b.vertex.bulge);
            EXPECT_EQ(got.vertex.hasStartWidth, b.vertex.hasStartWidth);
        }
        if (c.type == ksEntViewport) {  // kept, though it is the body's last field
            EXPECT_STREQ(got.viewport.name, "Front");
        }
    }
}

TEST_F(EntityListTest, ReplaceKeepsThePlaceTheIndexAndTheCursor)
{
    for (uint64_t handle : {0x101, 0x102, 0x103})
        ASSERT_EQ(add(ksEntLine, handle), 1);
    struct Case {
        const char* what;
        uint64_t handle;
        int16_t type;
    };
    const Case cases[] = {
        {"head", 0x101, ksEntLine},
        {"tail", 0x103, ksEntLine},
        {"middle", 0x102, ksEntLine},
        {"head, by a CIRCLE", 0x101, ksEntCircle},
        {"tail, by a TEXT", 0x103, ksEntText},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ksEntityHeader h;
        ksEntityBody b;
        plain(c.type, c.handle, h, b);
        b.line.start.x = static_cast<double>(c.handle);
        ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &h, &b), 1) << ksErrorNumber();
        EXPECT_EQ(order(), (std::vector<uint64_t>{0x101, 0x102, 0x103}));
        EXPECT_EQ(ksBtreeCount(fcb), 4u);  // the block and the three
        ASSERT_EQ(ksEntitySeek(fcb, list, h.handle, &h, &b), 1);
        EXPECT_EQ(h.type, c.type);
        EXPECT_EQ(b.line.start.x, static_cast<double>(c.handle));
    }
    // With the cursor on the record, it stands on the new one.
    ksListRewind(list);
    ksEntityHeader h;
    ksEntityBody b;
    ASSERT_EQ(ksEntityRead(fcb, list, &h, &b), 1);
    plain(ksEntPoint, 0x102, h, b);
    ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &h, &b), 1);
    ASSERT_EQ(ksEntityRead(fcb, list, &h, &b), 1);
    EXPECT_EQ(h.type, ksEntPoint);

    EXPECT_EQ(ksEntityReplace(fcb, list, ksHandleFromU64(0x999), &h, &b), 0);
    EXPECT_EQ(ksErrorNumber(), 226);
    EXPECT_EQ(ksEntityReplace(fcb, 0, ksHandleFromU64(0x101), &h, &b), 0);
    EXPECT_EQ(ksErrorNumber(), 151);
}

TEST_F(EntityListTest, DeleteUnlinksMovesTheCursorOnAndEmptiesTheList)
{
    for (uint64_t handle : {0x101, 0x102, 0x103})
        ASSERT_EQ(add(ksEntLine, handle), 1);
    ksEntityHeader h;
    ksEntityBody b;
    ksListRewind(list);
    ASSERT_EQ(ksEntityRead(fcb, list, &h, &b), 1);  // the cursor on 0x102
    ASSERT_EQ(ksEntityDelete(fcb, list, ksHandleFromU64(0x102), 1), 1);
    EXPECT_EQ(ksListCurrent(list), node(0x103));
    EXPECT_EQ(order(), (std::vector<uint64_t>{0x101, 0x103}));
    EXPECT_EQ(node(0x102), 0u);

    ASSERT_EQ(ksEntityDelete(fcb, list, ksHandleFromU64(0x103), 1), 1);  // the cursor was on it: past the end
    EXPECT_EQ(ksListCurrent(list), 0u);
    ASSERT_EQ(ksEntityDelete(fcb, list, ksHandleFromU64(0x101), 1), 1);
    EXPECT_EQ(ksListFirst(list), 0u);
    EXPECT_EQ(ksListLast(list), 0u);
    EXPECT_EQ(ksListCount(list), 0u);

    EXPECT_EQ(ksEntityDelete(fcb, list, ksHandleFromU64(0x101), 1), 0);
    EXPECT_EQ(ksErrorNumber(), 152);
    EXPECT_EQ(ksEntityDelete(fcb, 0, ksHandleFromU64(0x101), 1), 0);
    EXPECT_EQ(ksErrorNumber(), 151);
}

TEST_F(EntityListTest, RefusedAddsLeaveListIndexAndStoreAsTheyWere)
{
    ASSERT_EQ(add(ksEntLine, 0x101), 1);
    ASSERT_EQ(add(ksEntLine, 0x102), 1);
    const ksLoc first = node(0x101);
    const uint32_t indexed = ksBtreeCount(fcb);
    const size_t inUse = ksVmBytesInUse();
    auto unchanged = [&] {
        EXPECT_EQ(order(), (std::vector<uint64_t>{0x101, 0x102}));
        EXPECT_EQ(node(0x101), first);
        EXPECT_EQ(ksBtreeCount(fcb), indexed);
        EXPECT_EQ(ksVmBytesInUse(), inUse);
    };

    EXPECT_EQ(add(ksEntCircle, 0x101), 0);
    EXPECT_EQ(ksErrorNumber(), 172);
    EXPECT_EQ(ksHandleToU64(ksG->duplicateHandle), 0x101u);
    unchanged();

    ksEntityHeader h;
    ksEntityBody b;
    plain(ksEntCircle, 0x102, h, b);
    EXPECT_EQ(ksEntityAddAfter(fcb, list, &h, &b, ksHandleFromU64(0x101)), 0);
    EXPECT_EQ(ksErrorNumber(), 172);
    unchanged();

    plain(ksEntInsert, 0x103, h, b);
    b.insert.blockHandle = ksHandleFromU64(0x777);  // no such block
    EXPECT_EQ(ksEntityAppend(fcb, list, &h, &b), 0);
    EXPECT_EQ(ksErrorNumber(), 232);
    EXPECT_EQ(node(0x103), 0u);
    unchanged();

    EXPECT_EQ(add(ksEntInsert, 0x103), 1);  // of the block that is there
    EXPECT_EQ(ksListCount(list), 3u);
}

TEST_F(EntityListTest, AddAfterAndSeekStayWithinTheList)
{
    ASSERT_EQ(add(ksEntLine, 0x101), 1);
    ASSERT_EQ(add(ksEntLine, 0x102), 1);
    ksEntityHeader h;
    ksEntityBody b;
    for (auto [handle, after] : {std::pair<uint64_t, uint64_t>{0x100, 0}, {0x150, 0x101}, {0x160, 0x102}}) {
        plain(ksEntArc, handle, h, b);
        EXPECT_EQ(ksEntityAddAfter(fcb, list, &h, &b, ksHandleFromU64(after)), 1) << handle;
    }
    EXPECT_EQ(order(), (std::vector<uint64_t>{0x100, 0x101, 0x150, 0x102, 0x160}));
    EXPECT_EQ(ksListLast(list), node(0x160));
    plain(ksEntArc, 0x170, h, b);
    EXPECT_EQ(ksEntityAddAfter(fcb, list, &h, &b, ksHandleFromU64(0x999)), 0);

    ksLoc other = ksListNew();
    ASSERT_EQ(add(ksEntLine, 0x201, other), 1);
    ksListRewind(list);
    EXPECT_EQ(ksEntitySeek(fcb, list, ksHandleFromU64(0x201), &h, &b), 0);
    EXPECT_EQ(ksListCurrent(list), ksListFirst(list));
    EXPECT_EQ(ksEntityAddAfter(fcb, list, &h, &b, ksHandleFromU64(0x201)), 0);
    EXPECT_EQ(ksListCount(list), 5u);
    EXPECT_EQ(ksEntitySeek(fcb, other, ksHandleFromU64(0x201), &h, &b), 1);
    ksEntityListFree(fcb, other);
}

TEST_F(EntityListTest, PaperSpaceViewportsAreListedWithViewportOneFirst)
{
    fcb->paperEntities = list;
    auto refs = [&] {
        std::vector<uint64_t> out;
        for (ksLoc n = ksListFirst(fcb->vpEntList); n != 0; n = ksListNodeNext(n)) {
            const auto* ref = static_cast<const ksVpEntRef*>(ksRecordOf(n));
            EXPECT_EQ(ref->location, ksBtreeFind(fcb, ref->handle)) << "the entry names the node";
            out.push_back(ksHandleToU64(ref->handle));
        }
        return out;
    };
    ksEntityHeader h;
    ksEntityBody b;
    for (auto [handle, id] : {std::pair<uint64_t, int16_t>{0x301, 2}, {0x302, 1}, {0x303, 3}}) {
        plain(ksEntViewport, handle, h, b);
        b.viewport.viewportId = id;
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
    }
    ASSERT_EQ(add(ksEntLine, 0x304), 1);
    EXPECT_EQ(refs(), (std::vector<uint64_t>{0x302, 0x301, 0x303}));

    plain(ksEntViewport, 0x302, h, b);
    b.viewport.viewportId = 1;
    ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &h, &b), 1);
    EXPECT_EQ(refs(), (std::vector<uint64_t>{0x302, 0x301, 0x303}));
    ASSERT_EQ(ksEntityDelete(fcb, list, ksHandleFromU64(0x301), 1), 1);
    EXPECT_EQ(refs(), (std::vector<uint64_t>{0x302, 0x303}));

    ksLoc block = ksBlockEntityList(fcb, ksHandleFromU64(kBlock));
    ASSERT_EQ(add(ksEntViewport, 0x305, block), 1);  // not paper space: not listed
    EXPECT_EQ(refs(), (std::vector<uint64_t>{0x302, 0x303}));
}

TEST_F(EntityListTest, ReactorsAndBlockLists)
{
    ksEntityHeader h;
    ksEntityBody b;
    plain(ksEntLine, 0x101, h, b);
    ASSERT_EQ(ksEntityAddReactor(&h, ksHandleFromU64(0xA1)), 1);
    const ksLoc blob = h.reactors;
    ASSERT_NE(blob, 0u);
    ASSERT_EQ(ksEntityAddReactor(&h, ksHandleFromU64(0xA2)), 1);
    EXPECT_EQ(h.reactors, blob);
    EXPECT_EQ(h.reactorCount, 2);
    ksBlobCursor* c = ksBlobOpenRead(blob);
    ksObjHandle r1, r2, r3;
    EXPECT_TRUE(ksBlobReadHandle(c, &r1) && ksBlobReadHandle(c, &r2));
    EXPECT_FALSE(ksBlobReadHandle(c, &r3));
    ksBlobCloseRead(c);
    EXPECT_EQ(ksHandleToU64(r1), 0xA1u);
    EXPECT_EQ(ksHandleToU64(r2), 0xA2u);
    ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);

    ksBlockHeader block;
    ASSERT_EQ(ksBlockHeaderSeek(fcb, ksHandleFromU64(kBlock), &block), 1);
    EXPECT_EQ(ksBlockEntityList(fcb, ksHandleFromU64(kBlock)), block.entities);
    EXPECT_EQ(ksBlockEntityList(fcb, ksHandleFromU64(0x999)), 0u);
    EXPECT_EQ(ksErrorNumber(), 73);
    ksSetError(0);
    EXPECT_EQ(ksBlockEntityList(fcb, ksHandleFromU64(0x101)), 0u);  // indexed, but an entity
    EXPECT_EQ(ksErrorNumber(), 73);
}

TEST_F(EntityListTest, DeepDeleteAndReplaceFreeTheBlobsTheEntityNoLongerNames)
{
    ASSERT_EQ(add(ksEntLine, 0x100), 1);  // the index has its root
    struct Case {
        const char* what;
        int16_t type;
        size_t blobAt;
    };
    const Case cases[] = {
        {"MTEXT, long text", ksEntMtext, offsetof(ksMtextBody, longText)},
        {"LEADER, vertices", ksEntLeader, offsetof(ksLeaderBody, vertices)},
    };
    ksEntityHeader h;
    ksEntityBody b;
    auto make = [&](int16_t type, size_t blobAt) {
        plain(type, 0x101, h, b);
        h.eed = filledBlob(300);
        ksEntityAddReactor(&h, ksHandleFromU64(0xA1));
        ksLoc blob = filledBlob(3 * ksBlobChunkSize);
        std::memcpy(b.bytes + blobAt, &blob, sizeof blob);
        return blob;
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const size_t before = ksVmBytesInUse();
        make(c.type, c.blobAt);
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
        ASSERT_EQ(ksEntityDelete(fcb, list, h.handle, 1), 1);
        EXPECT_EQ(ksVmBytesInUse(), before);

        ksLoc blob = make(c.type, c.blobAt);
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
        ASSERT_EQ(ksEntityDelete(fcb, list, h.handle, 0), 1);  // the blobs stay the caller's
        EXPECT_EQ(ksBlobSize(blob), 3 * ksBlobChunkSize);
        ksBlobFree(blob), ksBlobFree(h.eed), ksBlobFree(h.reactors);
        EXPECT_EQ(ksVmBytesInUse(), before);

        // Replaced by its like: the blobs the new record still names stay,
        // the one it doesn't goes.
        blob = make(c.type, c.blobAt);
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
        const size_t appended = ksVmBytesInUse();
        ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &h, &b), 1);
        EXPECT_EQ(ksVmBytesInUse(), appended);
        EXPECT_EQ(ksBlobSize(blob), 3 * ksBlobChunkSize);
        const ksLoc none = 0;
        std::memcpy(b.bytes + c.blobAt, &none, sizeof none);
        ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &h, &b), 1);
        EXPECT_LT(ksVmBytesInUse(), appended);
        ASSERT_EQ(ksEntityDelete(fcb, list, h.handle, 1), 1);  // would fail on an eed freed twice
        EXPECT_EQ(ksVmBytesInUse(), before);

        // Replaced by another type: all its blobs go.
        make(c.type, c.blobAt);
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
        ksEntityHeader line;
        plain(ksEntLine, 0x101, line, b);
        ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &line, &b), 1);
        ASSERT_EQ(ksEntityDelete(fcb, list, h.handle, 1), 1);
        EXPECT_EQ(ksVmBytesInUse(), before);
    }
}

}  // namespace
