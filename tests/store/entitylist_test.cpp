// Entity lists: every fixed type and every class form through the packed
// store with random fields, the compact common part and the cut bodies, the
// list operations with their refusals, and the blobs an entity takes along.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <span>
#include <string>
#include <tuple>
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
using Handles = std::vector<uint64_t>;
ksObjHandle H(uint64_t v) { return ksHandleFromU64(v); }

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
        block.entryHandle = H(kBlock);
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
        h.handle = H(handle);
        h.layerHandle = H(0x1F3);
        if (type == ksEntInsert)
            b.insert.blockHandle = H(kBlock);
    }
    int16_t add(int16_t type, uint64_t handle, ksLoc into = 0)
    {
        ksEntityHeader h;
        ksEntityBody b;
        plain(type, handle, h, b);
        return ksEntityAppend(fcb, into ? into : list, &h, &b);
    }
    ksLoc node(uint64_t handle) { return ksBtreeFind(fcb, H(handle)); }
    Handles order()
    {
        Handles out;
        ksEntityHeader h;
        ksEntityBody b;
        for (ksLoc n = ksListFirst(list); n != 0; n = ksListNodeNext(n))
            out.push_back(ksEntityUnpack(fcb, n, &h, &b, nullptr, nullptr) ? ksHandleToU64(h.handle) : 0);
        return out;
    }

    // Random values.
    template <typename T>
    T pick(std::initializer_list<T> choices) { return choices.begin()[rng() % choices.size()]; }
    double real()
    {
        double d;
        do {
            const uint64_t bits = rng();
            std::memcpy(&d, &bits, sizeof d);
        } while (!std::isfinite(d));
        return d;
    }
    ksObjHandle handleOfLength(int length)
    {
        ksObjHandle h{};
        while (ksHandleLength(h) != length)
            h = H(length ? rng() >> (64 - 8 * length) : 0);
        return h;
    }
    ksLoc blobOrNone() { return rng() % 2 ? ksBlobNew() : 0; }

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
        h.xdictHandle = handleOfLength(pick({0, 1 + static_cast<int>(rng() % 8)}));
        h.thickness = pick({0.0, -0.0, real()});
        h.color = pick<int16_t>({256, 0, static_cast<int16_t>(rng())});
        h.extrusion = {real(), real(), real()};
        h.linetypeScale = pick({1.0, real()});
        h.flags = static_cast<int8_t>(rng()), h.lineweight = static_cast<int16_t>(rng());
        h.userData = pick({0, static_cast<int32_t>(rng())});
        h.eed = blobOrNone(), h.reactors = blobOrNone();
        h.reactorCount = static_cast<int32_t>(rng());
        return h;
    }

    // Random bytes throughout (padding, fields without rows, and the buffer
    // behind the record, none of which the store may take past its cut),
    // then each row's field random by its kind, and a new blob in each blob
    // field: those of the rows and those at `blobAt`.
    void randomFields(ksEntityBody& b, std::span<const ksEntityField> rows, std::span<const uint16_t> blobAt = {})
    {
        for (uint8_t& byte : b.bytes)
            byte = static_cast<uint8_t>(rng());
        std::set<uint16_t> blobs(blobAt.begin(), blobAt.end());
        blobs.erase(0);
        for (const ksEntityField& row : rows) {
            char* text = reinterpret_cast<char*>(b.bytes + row.offset);
            if (row.kind == ksEfReal || row.kind == ksEfAngle) {
                const double d = real();
                std::memcpy(ksEntityFieldAddress(&b, row), &d, sizeof d);
            } else if (row.kind == ksEfText || row.kind == ksEfCodedText || row.kind == ksEfName) {
                const size_t length = rng() % row.width;  // printable, random bytes behind
                for (size_t i = 0; i < length; ++i)
                    text[i] = static_cast<char>(' ' + rng() % 95);
                text[length] = 0;
            } else if (row.kind >= ksEfTextChunk) {  // the list kinds; the others are random already
                blobs.insert(row.offset);
            }
        }
        for (uint16_t at : blobs) {
            const ksLoc blob = ksBlobNew();
            std::memcpy(b.bytes + at, &blob, sizeof blob);
        }
    }

    // A random body of a fixed type; returns the fixed bytes the store keeps.
    uint32_t randomBody(int16_t type, ksEntityBody& b, int round)
    {
        const ksEntityFieldSet& set = ksEntityFieldTable[type];
        randomFields(b, {set.rows, set.count});
        if (type == ksEntInsert)
            b.insert.blockHandle = H(kBlock);  // an INSERT needs its block
        if (type != ksEntVertex)
            return closingAt(type) ? closingAt(type) : set.recordSize;
        // A VERTEX in its four forms: whole, point and flags (by Z or by
        // flags), X and Y alone.
        ksVertexBody& v = b.vertex;
        const int form = round % 4;
        if (form == 0) {
            v.bulge = 0.25;
            return sizeof v;
        }
        v.hasStartWidth = v.hasEndWidth = 0;
        v.bulge = v.tangent = 0;
        v.flags = form == 3 ? int16_t{0} : static_cast<int16_t>((v.flags & ~(64 | 128)) | (form == 2));
        v.point.z = form == 1 ? 5.0 : 0;
        return form == 3 ? ksVertexCutXY : ksVertexCutPoint;
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
        if (keep == ksVertexCutXY)
            want.vertex.point.z = 0, want.vertex.flags = 0;
    }
    return size;
}

TEST_F(EntityListTest, EveryTypeAndClassFormComesBackWithOnlyTheDefinedLosses)
{
    ASSERT_EQ(ksAddDefaultClasses(fcb), 1);
    struct Sent {
        std::string name;
        int16_t type;
        const ClassForm* form;
        ksEntityHeader header{};
        ksEntityBody body{};
        uint32_t size = 0;
    };
    std::vector<Sent> kinds, sent;
    for (int16_t t = 1; t < ksEntityFixedCount; ++t)
        if (*ksEntityNames[t])
            kinds.push_back({ksEntityNames[t], t, nullptr});
    for (const ClassForm& f : kClassForms) {
        int16_t number = f.number ? fcb->classNumbers.*f.number : int16_t{ksEntProxy};
        ASSERT_TRUE(number >= ksEntClassBase || !f.number) << f.name;
        kinds.push_back({f.name, number, &f});
    }
    kinds.push_back({"unknown class", ksClassNextNumber(fcb), &kClassForms[std::size(kClassForms) - 1]});

    std::set<uint64_t> used{kBlock};
    for (int round = 0; round < 8; ++round) {
        for (Sent s : kinds) {
            s.header = randomHeader(s.type, used);
            if (s.form)
                randomFields(s.body, {}, s.form->blobs);
            const uint32_t keep = s.form ? s.form->size : randomBody(s.type, s.body, round);
            ASSERT_EQ(ksEntityAppend(fcb, list, &s.header, &s.body), 1) << s.name << " error " << ksErrorNumber();
            ksEntityBody want;
            s.size = expectedBody(s.form ? int16_t{0} : s.type, keep, s.body, want);
            s.body = want;
            // The common part's normalisations.
            ksEntityHeader& h = s.header;
            h.extrusion = h.flags & ksEntityOwnExtrusion ? h.extrusion : ksPoint3{0, 0, 1.0};
            h.thickness = h.thickness == 0 ? 0.0 : h.thickness;
            h.reactorCount = h.reactors ? h.reactorCount : 0;
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
        for (const HeaderField& f : kHeaderFields)
            EXPECT_EQ(std::memcmp(reinterpret_cast<const char*>(&got) + f.at,
                                  reinterpret_cast<const char*>(&want) + f.at, f.size), 0) << f.name;
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

// One field of the common part or the body away from its default, on an
// entity whose layer has a 2-byte handle and whose linetype a 1-byte one:
// the node's presence byte and common size (both at fixed offsets of the
// head) and the body bytes it keeps.
TEST_F(EntityListTest, CommonFieldsAndCutBodiesTakeOnlyTheRoomTheyNeed)
{
    const struct {
        const char* what;
        int16_t type;
        void (*set)(ksEntityHeader&, ksEntityBody&);
        uint8_t presence;
        int extra;
        uint32_t size = sizeof(ksLineBody);
    } cases[] = {
        {"all defaults", ksEntLine, [](auto&, auto&) {}, 0, 0},
        {"thickness 2.5", ksEntLine, [](auto& h, auto&) { h.thickness = 2.5; }, 1, 8},
        {"thickness -0.0", ksEntLine, [](auto& h, auto&) { h.thickness = -0.0; }, 0, 0},
        {"colour 0, by block", ksEntLine, [](auto& h, auto&) { h.color = 0; }, 2, 2},
        {"colour 256, by layer", ksEntLine, [](auto& h, auto&) { h.color = 256; }, 0, 0},
        {"extrusion with its flag", ksEntLine,
         [](auto& h, auto&) { h.extrusion = {0, 1, 0}, h.flags |= ksEntityOwnExtrusion; }, 4, 24},
        {"extrusion without its flag", ksEntLine, [](auto& h, auto&) { h.extrusion = {0, 1, 0}; }, 0, 0},
        {"extended data", ksEntLine, [](auto& h, auto&) { h.eed = ksBlobNew(); }, 8, 4},
        {"linetype scale 0.5", ksEntLine, [](auto& h, auto&) { h.linetypeScale = 0.5; }, 16, 8},
        {"user data", ksEntLine, [](auto& h, auto&) { h.userData = 7; }, 32, 4},
        {"reactors", ksEntLine, [](auto& h, auto&) { ksEntityAddReactor(&h, H(0xA1)); }, 64, 8},
        {"extension dictionary of 3 bytes", ksEntLine, [](auto& h, auto&) { h.xdictHandle = H(0x12345); }, 128, 1 + 3},
        {"null layer", ksEntLine, [](auto& h, auto&) { h.layerHandle = ksObjHandle{}; }, 0, -2},
        {"VERTEX at Z 0", ksEntVertex, [](auto&, auto& b) { b.vertex.point = {1, 2, 0}; }, 0, 0, 16},
        {"VERTEX at Z 5", ksEntVertex, [](auto&, auto& b) { b.vertex.point = {1, 2, 5}; }, 0, 0, 32},
        {"VERTEX with flags 32", ksEntVertex, [](auto&, auto& b) { b.vertex.flags = 32; }, 0, 0, 32},
        {"VERTEX of a polyface", ksEntVertex, [](auto&, auto& b) { b.vertex.flags = 128; }, 0, 0, 88},
        {"VERTEX with a bulge", ksEntVertex, [](auto&, auto& b) { b.vertex.bulge = 0.5; }, 0, 0, 88},
        {"VERTEX with a start width", ksEntVertex, [](auto&, auto& b) { b.vertex.hasStartWidth = 1; }, 0, 0, 88},
        {"TEXT, empty", ksEntText, [](auto&, auto& b) { b.text.text[0] = 0; }, 0, 0, 89},
        {"TEXT 'abc'", ksEntText, [](auto&, auto& b) { std::strcpy(b.text.text, "abc"); }, 0, 0, 92},
        {"ATTDEF 'P' 'TAG' ''", ksEntAttdef,
         [](auto&, auto& b) { std::strcpy(b.attdef.prompt, "P"), std::strcpy(b.attdef.tag, "TAG"); }, 0, 0,
         96 + 2 + 4 + 1},
        {"VIEWPORT named Front", ksEntViewport, [](auto&, auto& b) { std::strcpy(b.viewport.name, "Front"); }, 0, 0,
         offsetof(ksViewportBody, name) + 6},
        {"ENDBLK", ksEntEndblk, [](auto&, auto&) {}, 0, 0, 0},
    };
    uint64_t handle = 0x100;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ksEntityHeader h, got;
        ksEntityBody b, body;
        plain(c.type, ++handle, h, b);
        h.linetypeHandle = H(0x14);
        std::memset(b.bytes + ksEntityBodySize(c.type), 0x5A, sizeof b.bytes - ksEntityBodySize(c.type));
        c.set(h, b);
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
        const auto* n = static_cast<const uint8_t*>(ksVmPtr(node(handle)));
        ASSERT_NE(n, nullptr);
        uint16_t commonSize;
        std::memcpy(&commonSize, n + 25, sizeof commonSize);
        EXPECT_EQ(std::tuple(n[23], commonSize), std::tuple(c.presence, 5 + 2 + 1 + c.extra));
        uint32_t size = 0;
        std::memset(body.bytes, kFill, sizeof body.bytes);
        ASSERT_EQ(ksEntityUnpack(fcb, node(handle), &got, &body, &size, nullptr), 1);
        EXPECT_EQ(size, c.size);
        EXPECT_TRUE(sameBytes(got.layerHandle, h.layerHandle) && sameBytes(got.linetypeHandle, h.linetypeHandle));
        EXPECT_FALSE(std::signbit(got.thickness));
        if (c.type == ksEntVertex) {
            EXPECT_TRUE(sameBytes(body.vertex.point, b.vertex.point));
            EXPECT_EQ(std::tuple(body.vertex.flags, body.vertex.bulge, body.vertex.hasStartWidth),
                      std::tuple(b.vertex.flags, b.vertex.bulge, b.vertex.hasStartWidth));
        }
        if (c.type == ksEntViewport) {  // kept, though it is the body's last field
            EXPECT_STREQ(body.viewport.name, "Front");
        }
    }
}

// Each on the list 0x101 0x102 0x103 with the cursor on 0x102: the order,
// the index, the ends and the cursor after it, and the record it placed.
TEST_F(EntityListTest, ReplaceDeleteAndAddAfterKeepOrderIndexAndCursor)
{
    enum Op { Replace, Delete, After };
    const struct {
        const char* what;
        Op op;
        int16_t type;
        Handles handles;  // done in turn
        uint64_t after;
        Handles order;
        uint64_t cursor;
    } cases[] = {
        {"replace the head", Replace, ksEntLine, {0x101}, 0, {0x101, 0x102, 0x103}, 0x102},
        {"replace the tail", Replace, ksEntLine, {0x103}, 0, {0x101, 0x102, 0x103}, 0x102},
        {"replace the head by a CIRCLE", Replace, ksEntCircle, {0x101}, 0, {0x101, 0x102, 0x103}, 0x102},
        {"replace the tail by a TEXT", Replace, ksEntText, {0x103}, 0, {0x101, 0x102, 0x103}, 0x102},
        {"replace under the cursor", Replace, ksEntPoint, {0x102}, 0, {0x101, 0x102, 0x103}, 0x102},
        {"delete under the cursor: on", Delete, ksEntLine, {0x102}, 0, {0x101, 0x103}, 0x103},
        {"delete under it again: past the end", Delete, ksEntLine, {0x102, 0x103}, 0, {0x101}, 0},
        {"delete all", Delete, ksEntLine, {0x102, 0x103, 0x101}, 0, {}, 0},
        {"add after none: first", After, ksEntArc, {0x100}, 0, {0x100, 0x101, 0x102, 0x103}, 0x102},
        {"add after the head", After, ksEntArc, {0x150}, 0x101, {0x101, 0x150, 0x102, 0x103}, 0x102},
        {"add after the tail: last", After, ksEntArc, {0x160}, 0x103, {0x101, 0x102, 0x103, 0x160}, 0x102},
    };
    ksEntityHeader h;
    ksEntityBody b;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ksEntityListFree(fcb, list);
        list = ksListNew();
        for (uint64_t handle : {0x101, 0x102, 0x103})
            ASSERT_EQ(add(ksEntLine, handle), 1);
        ksListRewind(list);
        ASSERT_EQ(ksEntityRead(fcb, list, &h, &b), 1);
        for (uint64_t handle : c.handles) {
            plain(c.type, handle, h, b);
            b.line.start.x = static_cast<double>(handle);
            ASSERT_EQ(c.op == Delete  ? ksEntityDelete(fcb, list, h.handle, 1)
                      : c.op == After ? ksEntityAddAfter(fcb, list, &h, &b, H(c.after))
                                      : ksEntityReplace(fcb, list, h.handle, &h, &b),
                      1) << ksErrorNumber();
        }
        EXPECT_EQ(order(), c.order);
        EXPECT_EQ(std::tuple(ksBtreeCount(fcb), ksListCount(list)), std::tuple(1 + c.order.size(), c.order.size()));
        EXPECT_EQ(std::tuple(ksListFirst(list), ksListLast(list), ksListCurrent(list)),
                  std::tuple(c.order.empty() ? 0 : node(c.order.front()), c.order.empty() ? 0 : node(c.order.back()),
                             c.cursor ? node(c.cursor) : 0));
        for (uint64_t gone : c.op == Delete ? c.handles : Handles{})
            EXPECT_EQ(node(gone), 0u);
        if (c.cursor) {  // the cursor's record: the new one if replaced
            ASSERT_EQ(ksEntityRead(fcb, list, &h, &b), 1);
            EXPECT_EQ(std::tuple(ksHandleToU64(h.handle), h.type),
                      std::tuple(c.cursor, c.op == Replace && c.handles[0] == c.cursor ? c.type : int16_t{ksEntLine}));
        }
        if (c.op != Delete) {
            ASSERT_EQ(ksEntitySeek(fcb, list, H(c.handles[0]), &h, &b), 1);
            EXPECT_EQ(std::tuple(h.type, b.line.start.x), std::tuple(c.type, static_cast<double>(c.handles[0])));
        }
    }
}

TEST_F(EntityListTest, RefusalsLeaveListIndexCursorAndStoreAsTheyWere)
{
    ASSERT_EQ(add(ksEntLine, 0x101), 1);
    ASSERT_EQ(add(ksEntLine, 0x102), 1);
    const ksLoc other = ksListNew();
    ASSERT_EQ(add(ksEntLine, 0x201, other), 1);
    const ksLoc first = node(0x101);
    const uint32_t indexed = ksBtreeCount(fcb);
    const size_t inUse = ksVmBytesInUse();
    ksEntityHeader h;
    ksEntityBody b;
    auto after = [&](uint64_t handle) { return [&, handle] { return ksEntityAddAfter(fcb, list, &h, &b, H(handle)); }; };
    auto append = [&] { return ksEntityAppend(fcb, list, &h, &b); };
    const struct {
        const char* what;
        int16_t type;
        uint64_t handle;
        std::function<int16_t()> op;
        int error;  // -1: not checked
    } cases[] = {
        {"append of a handle in use", ksEntCircle, 0x101, append, 172},
        {"add after, of a handle in use", ksEntCircle, 0x102, after(0x101), 172},
        {"an INSERT of no block", ksEntInsert, 0x103, [&] { b.insert.blockHandle = H(0x777); return append(); }, 232},
        {"add after a handle not there", ksEntArc, 0x170, after(0x999), -1},
        {"add after a handle of another list", ksEntArc, 0x170, after(0x201), -1},
        {"seek of another list's handle", ksEntArc, 0x201, [&] { return ksEntitySeek(fcb, list, h.handle, &h, &b); }, -1},
        {"replace of a handle not there", ksEntLine, 0x999, [&] { return ksEntityReplace(fcb, list, h.handle, &h, &b); },
         226},
        {"replace of another list's handle", ksEntLine, 0x201,
         [&] { return ksEntityReplace(fcb, list, h.handle, &h, &b); }, 227},
        {"delete of another list's handle", ksEntLine, 0x201, [&] { return ksEntityDelete(fcb, list, h.handle, 1); }, 152},
        {"replace in no list", ksEntLine, 0x101, [&] { return ksEntityReplace(fcb, 0, h.handle, &h, &b); }, 151},
        {"delete of a handle not there", ksEntLine, 0x999, [&] { return ksEntityDelete(fcb, list, h.handle, 1); }, 152},
        {"delete in no list", ksEntLine, 0x101, [&] { return ksEntityDelete(fcb, 0, h.handle, 1); }, 151},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        plain(c.type, c.handle, h, b);
        ksListRewind(list);
        ksSetError(0);
        EXPECT_EQ(c.op(), 0);
        if (c.error >= 0) {
            EXPECT_EQ(ksErrorNumber(), c.error);
        }
        EXPECT_EQ(order(), (Handles{0x101, 0x102}));
        EXPECT_EQ(std::tuple(node(0x101), node(0x103), ksBtreeCount(fcb), ksVmBytesInUse(), ksListCurrent(list)),
                  std::tuple(first, 0u, indexed, inUse, first));
    }
    EXPECT_EQ(ksHandleToU64(ksG->duplicateHandle), 0x102u);
    EXPECT_EQ(add(ksEntInsert, 0x103), 1);  // of the block that is there
    EXPECT_EQ(ksListCount(list), 3u);
    EXPECT_EQ(ksEntitySeek(fcb, other, H(0x201), &h, &b), 1);
    ksEntityListFree(fcb, other);
}

TEST_F(EntityListTest, PaperSpaceViewportsAreListedWithViewportOneFirst)
{
    fcb->paperEntities = list;
    auto refs = [&] {
        Handles out;
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
    EXPECT_EQ(refs(), (Handles{0x302, 0x301, 0x303}));
    plain(ksEntViewport, 0x302, h, b);
    b.viewport.viewportId = 1;
    ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &h, &b), 1);
    EXPECT_EQ(refs(), (Handles{0x302, 0x301, 0x303}));
    ASSERT_EQ(ksEntityDelete(fcb, list, H(0x301), 1), 1);
    EXPECT_EQ(refs(), (Handles{0x302, 0x303}));
    ASSERT_EQ(add(ksEntViewport, 0x305, ksBlockEntityList(fcb, H(kBlock))), 1);  // not paper space: not listed
    EXPECT_EQ(refs(), (Handles{0x302, 0x303}));
}

TEST_F(EntityListTest, ReactorsAndBlockLists)
{
    ksEntityHeader h;
    ksEntityBody b;
    plain(ksEntLine, 0x101, h, b);
    ASSERT_EQ(ksEntityAddReactor(&h, H(0xA1)), 1);
    const ksLoc blob = h.reactors;
    ASSERT_NE(blob, 0u);
    ASSERT_EQ(ksEntityAddReactor(&h, H(0xA2)), 1);
    EXPECT_EQ(std::tuple(h.reactors, h.reactorCount), std::tuple(blob, 2));
    ksBlobCursor* c = ksBlobOpenRead(blob);
    ksObjHandle r[3];
    EXPECT_TRUE(ksBlobReadHandle(c, &r[0]) && ksBlobReadHandle(c, &r[1]));
    EXPECT_FALSE(ksBlobReadHandle(c, &r[2]));
    ksBlobCloseRead(c);
    EXPECT_EQ(std::tuple(ksHandleToU64(r[0]), ksHandleToU64(r[1])), std::tuple(0xA1u, 0xA2u));
    ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);

    ksBlockHeader block;
    ASSERT_EQ(ksBlockHeaderSeek(fcb, H(kBlock), &block), 1);
    EXPECT_EQ(ksBlockEntityList(fcb, H(kBlock)), block.entities);
    for (uint64_t handle : {0x999, 0x101}) {  // none, and indexed but an entity
        ksSetError(0);
        EXPECT_EQ(ksBlockEntityList(fcb, H(handle)), 0u);
        EXPECT_EQ(ksErrorNumber(), 73);
    }
}

TEST_F(EntityListTest, DeepDeleteAndReplaceFreeTheBlobsTheEntityNoLongerNames)
{
    ASSERT_EQ(add(ksEntLine, 0x100), 1);  // the index has its root
    ksEntityHeader h;
    ksEntityBody b;
    for (const std::pair<int16_t, size_t>& c : {std::pair<int16_t, size_t>{ksEntMtext, offsetof(ksMtextBody, longText)},
                                                {ksEntLeader, offsetof(ksLeaderBody, vertices)}}) {
        const size_t blobAt = c.second;
        SCOPED_TRACE(c.first);
        auto make = [&] {  // appended, with its blobs
            plain(c.first, 0x101, h, b);
            zt::Bytes bytes(3 * ksBlobChunkSize);
            std::generate(bytes.begin(), bytes.end(), [i = 0]() mutable { return static_cast<uint8_t>(i++); });
            h.eed = zt::blobOf(zt::Bytes(bytes.begin(), bytes.begin() + 300));
            ksEntityAddReactor(&h, H(0xA1));
            const ksLoc blob = zt::blobOf(bytes);
            std::memcpy(b.bytes + blobAt, &blob, sizeof blob);
            EXPECT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
            return blob;
        };
        const size_t before = ksVmBytesInUse();
        make();
        ASSERT_EQ(ksEntityDelete(fcb, list, h.handle, 1), 1);
        EXPECT_EQ(ksVmBytesInUse(), before);

        ksLoc blob = make();
        ASSERT_EQ(ksEntityDelete(fcb, list, h.handle, 0), 1);  // the blobs stay the caller's
        EXPECT_EQ(ksBlobSize(blob), 3 * ksBlobChunkSize);
        ksBlobFree(blob), ksBlobFree(h.eed), ksBlobFree(h.reactors);
        EXPECT_EQ(ksVmBytesInUse(), before);

        // Replaced by its like: the blobs the new record still names stay,
        // the one it doesn't goes.
        blob = make();
        const size_t appended = ksVmBytesInUse();
        ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &h, &b), 1);
        EXPECT_EQ(ksVmBytesInUse(), appended);
        EXPECT_EQ(ksBlobSize(blob), 3 * ksBlobChunkSize);
        std::memset(b.bytes + blobAt, 0, sizeof(ksLoc));
        ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &h, &b), 1);
        EXPECT_LT(ksVmBytesInUse(), appended);
        ASSERT_EQ(ksEntityDelete(fcb, list, h.handle, 1), 1);  // would fail on an eed freed twice
        EXPECT_EQ(ksVmBytesInUse(), before);

        // Replaced by another type: all its blobs go.
        make();
        ksEntityHeader line;
        plain(ksEntLine, 0x101, line, b);
        ASSERT_EQ(ksEntityReplace(fcb, list, h.handle, &line, &b), 1);
        ASSERT_EQ(ksEntityDelete(fcb, list, h.handle, 1), 1);
        EXPECT_EQ(ksVmBytesInUse(), before);
    }
}

}  // namespace
