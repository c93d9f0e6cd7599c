// Extended data: the blob form of every code, the three file codings in
// and out, hostile raw bytes, and the pending references of a drawing.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "store/xdata.h"
#include "support/fixtures.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Item = std::unique_ptr<ksXdataItem>;
using Strings = std::vector<std::string>;

// How 1001 and 1003 values read: handles (the store, DWG R13 up), names
// (DXF) or indices (DWG below R13).
enum class Refs { handles, names, indices };

// Raw bytes as the file readers leave them: numbers little-endian,
// handles most significant first, texts after a length byte.
struct Raw {
    Bytes b;
    Raw& u8(int v) { return b.push_back(static_cast<uint8_t>(v)), *this; }
    Raw& u16(int v) { return u8(v & 0xFF).u8(v >> 8 & 0xFF); }
    Raw& str(const std::string& s) { return u8(static_cast<int>(s.size())).raw(s.data(), s.size()); }
    Raw& handle(uint64_t h) { return num(__builtin_bswap64(h)); }
    Raw& raw(const void* p, size_t n) { return b.insert(b.end(), (const uint8_t*)p, (const uint8_t*)p + n), *this; }
    Raw& raw(const Raw& r) { return raw(r.b.data(), r.b.size()); }
    template <typename T> Raw& num(T v)
    {
        uint8_t p[sizeof v];
        std::memcpy(p, &v, sizeof v);
        if constexpr (std::endian::native == std::endian::big) std::reverse(p, p + sizeof v);
        return raw(p, sizeof v);
    }
};

Item make(int16_t code) { auto i = std::make_unique<ksXdataItem>(); i->code = code; return i; }
Item text(int16_t code, const char* s) { Item i = make(code); ksXdataSetText(i.get(), code, s); return i; }
template <typename T> Item num(int16_t code, T v) { Item i = make(code); ksXdataSet(i.get(), code, v); return i; }
Item handle(int16_t code, uint64_t h) { return num(code, ksHandleFromU64(h)); }

// An item as "code=value", exact for reals.
std::string show(const ksXdataItem& it, Refs refs = Refs::handles)
{
    char s[128];
    const int c = it.code;
    const bool ref = c == 1001 || c == 1003;
    if (c == 1000 || c == 1002 || (ref && refs == Refs::names))
        std::snprintf(s, sizeof s, "%d=%.100s", c, ksXdataText(it));
    else if (ref && refs == Refs::indices)
        std::snprintf(s, sizeof s, "%d=#%d", c, ksXdataGet<int16_t>(it));
    else if (ref || c == 1005)
        std::snprintf(s, sizeof s, "%d=h%llX", c, (unsigned long long)ksHandleToU64(ksXdataGet<ksObjHandle>(it)));
    else if (auto p = ksXdataGet<ksPoint3>(it); c >= 1010 && c <= 1013)
        std::snprintf(s, sizeof s, "%d=(%.17g,%.17g,%.17g)", c, p.x, p.y, p.z);
    else if (c >= 1040 && c <= 1042)
        std::snprintf(s, sizeof s, "%d=%.17g", c, p.x);
    else if (c == 1070 || c == 1071)
        std::snprintf(s, sizeof s, "%d=%d", c, c == 1070 ? ksXdataGet<int16_t>(it) : ksXdataGet<int32_t>(it));
    else {
        std::string out = std::to_string(c) + "=b" + std::to_string(it.length) + ":";
        for (int i = 0; i < it.length; ++i) out += std::to_string(it.value[i]) + ".";
        return out;
    }
    return s;
}

class XdataTest : public zt::DrawingTest {
protected:
    void TearDown() override
    {
        for (ksLoc b : blobs) ksBlobFree(b);
        DrawingTest::TearDown();
    }
    void coding(bool dxf, int16_t version) { fcb->isDxf = dxf, fcb->fileVersion = version; }
    ksLoc newBlob() { return blobs.emplace_back(ksBlobNew()); }
    ksLoc blobOf(const Bytes& bytes) { return blobs.emplace_back(zt::blobOf(bytes)); }
    // The bytes into xdataReadBuffer; behind them more valid items (1070
    // 7), which a read past the end would hand out.
    void source(const Bytes& bytes)
    {
        for (uint32_t i = 0; i + 3 <= ksXdataBufferSize; i += 3) std::memcpy(ksG->xdataReadBuffer + i, "\x46\x07\x00", 3);
        std::copy(bytes.begin(), bytes.end(), ksG->xdataReadBuffer);
        ksXdataBeginRaw(fcb, static_cast<int32_t>(bytes.size()));
    }
    Strings drain(Refs refs, std::vector<Item>* items = nullptr)
    {
        Strings out;
        for (Item it = make(0); ksXdataNextRaw(fcb, it.get()); it = make(0)) {
            out.push_back(show(*it, refs));
            if (items) items->push_back(std::move(it));
        }
        EXPECT_EQ(ksXdataNextRaw(fcb, make(0).get()), 0) << "the data stays ended";
        return out;
    }
    Strings readAll(ksLoc blob)
    {
        Strings out;
        ksBlobCursor* r = ksBlobOpenRead(blob);
        for (Item it = make(0); ksXdataRead(r, it.get()); it = make(0)) out.push_back(show(*it));
        ksBlobCloseRead(r);
        return out;
    }
    Bytes emitted() const { return Bytes(ksG->xdataWriteBuffer, ksG->xdataWriteBuffer + ksG->xdataWriteLength); }

    std::vector<ksLoc> blobs;
};

TEST_F(XdataTest, EveryCodeRoundTripsThroughTheBlob)
{
    Item b127 = make(1004);
    uint8_t bytes127[127];
    for (int i = 0; i < 127; ++i) bytes127[i] = uint8_t(255 - i);
    ksXdataSetBytes(b127.get(), bytes127, 127);
    struct Row { Item item; uint32_t stored; };
    Row rows[] = {
        {text(1000, "hello"), 13}, {handle(1001, 0x2F), 16}, {text(1002, "{"), 9}, {text(1002, "}"), 9},
        {handle(1003, 0x1122334455667788), 16}, {std::move(b127), 135}, {handle(1005, 0xABCDEF), 16},
        {num(1010, ksPoint3{1.5, -2.25, 1e300}), 32}, {num(1013, ksPoint3{0, -0.0, 3}), 32}, {num(1041, 0.1), 16},
        {num(1070, int16_t(-2)), 10}, {num(1071, int32_t(-123456789)), 12},
        {text(1000, ""), 8},  // an empty value at the very end
    };
    ksLoc blob = newBlob();
    ksBlobCursor* w = ksBlobOpenWrite(blob);
    Strings expected;
    uint32_t size = 0;
    for (Row& r : rows) {
        ASSERT_EQ(ksXdataWrite(w, r.item.get()), 1) << show(*r.item);
        EXPECT_EQ(ksBlobLength(w), size += r.stored) << show(*r.item);
        expected.push_back(show(*r.item));
    }
    ASSERT_EQ(ksBlobCloseWrite(w), 1);
    EXPECT_EQ(readAll(blob), expected);

    // Lengths after a read, end marks, and the end: false, item unchanged.
    ksBlobCursor* r = ksBlobOpenRead(blob);
    Item it = make(0);
    for (Row& row : rows) {
        std::memset(it->value, 'x', sizeof it->value);
        ASSERT_EQ(ksXdataRead(r, it.get()), 1);
        EXPECT_EQ(it->length, row.item->code == 1004 ? 127 : 0);
        EXPECT_TRUE((it->code != 1000 && it->code != 1002) || it->value[row.stored - 8] == 0) << "end mark";
    }
    auto before = std::make_unique<ksXdataItem>(*it);
    EXPECT_EQ(ksXdataRead(r, it.get()), 0);
    EXPECT_EQ(std::memcmp(before.get(), it.get(), sizeof *it), 0);
    // Numbers stand little-endian: the 1070 value -2 is FE FF.
    Bytes head(10);
    ASSERT_TRUE(ksBlobSeek(r, size - 30) && ksBlobRead(r, head.data(), 10));
    EXPECT_EQ(head, (Bytes{0x2E, 0x04, 2, 0, 0, 0, 0, 0, 0xFE, 0xFF}));
    ksBlobCloseRead(r);
}

TEST_F(XdataTest, BlobReadAndWriteRefuseWhatDoesNotFit)
{
    EXPECT_TRUE(readAll(blobOf({})).empty()) << "a blob closed with no item";
    struct Case { const char* what; Bytes bytes; };
    const Case cases[] = {
        {"1070 with 8 bytes", Raw().u16(1070).u16(8).u16(0).u16(0).num(1.0).b},
        {"1001 with 4 bytes", Raw().u16(1001).u16(4).u16(0).u16(0).u16(0).u16(0).b},
        {"1000 without room for its end mark", Raw().u16(1000).u16(16384).u16(0).u16(0).raw(Bytes(16384, 'a').data(), 16384).b},
        {"1004 longer than the blob", Raw().u16(1004).u16(20).u16(0).u16(0).u8(1).u8(2).b},
        {"unknown code, negative length", Raw().u16(1099).u16(0xFFFF).u16(0).u16(0).b},
        {"a head cut short", Raw().u16(1070).u16(2).u16(0).u8(0).b},
    };
    for (const Case& c : cases) {
        ksBlobCursor* r = ksBlobOpenRead(blobOf(c.bytes));
        Item it = make(7);
        EXPECT_EQ(ksXdataRead(r, it.get()), 0) << c.what;
        EXPECT_EQ(it->code, 7) << c.what;
        EXPECT_EQ(ksBlobTell(r), 0u) << c.what;
        ksBlobCloseRead(r);
    }
    ksBlobCursor* w = ksBlobOpenWrite(newBlob());
    Item noMark = make(1000), tooLong = make(1004), odd = make(1099);
    std::memset(noMark->value, 'a', sizeof noMark->value);
    tooLong->length = ksXdataValueSize + 1;
    odd->length = 3;
    EXPECT_EQ(ksXdataWrite(w, noMark.get()) + ksXdataWrite(w, tooLong.get()), 0);
    EXPECT_EQ(ksBlobLength(w), 0u);
    EXPECT_EQ(ksXdataWrite(w, odd.get()), 1) << "unknown codes keep the given length";
    EXPECT_EQ(ksBlobLength(w), 11u);
    ksBlobCloseWrite(w);
}

// Each coding: the items handed out, and the same items coded again.
TEST_F(XdataTest, RawCodingsReadAndEmitAlike)
{
    const Raw run1 = Raw().u8(0).u8(2).u8(0).u8(30).raw("hi", 2).u8(70).u16(5);
    const Raw run2 = Raw().u8(2).u8(0).u8(3).handle(0x11).u8(40).num(1.5);
    struct Case { const char* what; bool dxf; int16_t version; Refs refs; Raw raw, emitted; Strings items; };
    const Case cases[] = {
        {"DWG R14 runs", false, ksAC1014, Refs::handles,
         Raw().u16(int(run1.b.size())).u8(0x52).u8(0x0A).u8(0x2F).raw(run1).u16(int(run2.b.size())).u8(0x51).u8(0x21).raw(run2).u16(0),
         Raw().raw(run1).raw(run2), {"1001=hA2F", "1000=hi", "1070=5", "1001=h21", "1002={", "1003=h11", "1040=1.5"}},
        {"DWG R12", false, ksAC1009, Refs::indices,
         Raw().u8(1).u16(3).u8(0).str("ab").u8(3).u16(7).u8(4).u8(3).u8(1).u8(2).u8(255).u8(71).num(int32_t(-9))
             .u8(10).num(1.0).num(2.0).num(3.0).u8(2).u8(1),
         {}, {"1001=#3", "1000=ab", "1003=#7", "1004=b3:1.2.255.", "1071=-9", "1010=(1,2,3)", "1002=}"}},
        {"DXF, with the lone code byte of a dropped group", true, ksAC1009, Refs::names,
         Raw().u8(1).str("ACAD").u8(20).u8(3).str("Walls").u8(5).handle(0xBEEF).u8(42).num(-0.5).u8(0).str(""),
         Raw().u8(1).str("ACAD").u8(3).str("Walls").u8(5).handle(0xBEEF).u8(42).num(-0.5).u8(0).str(""),
         {"1001=ACAD", "1003=Walls", "1005=hBEEF", "1042=-0.5", "1000="}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        coding(c.dxf, c.version);
        source(c.raw.b);
        std::vector<Item> got;
        EXPECT_EQ(drain(c.refs, &got), c.items);
        ksG->xdataWriteLength = 0;
        for (const Item& it : got)  // R13 up: the 1001 is the run's head
            EXPECT_TRUE((c.refs == Refs::handles && it->code == 1001) || ksXdataEmit(fcb, c.version, c.dxf, it.get()));
        EXPECT_EQ(emitted(), c.emitted.b.empty() ? c.raw.b : c.emitted.b);
    }
    EXPECT_STREQ(ksG->xdataAppName, "ACAD");
    EXPECT_STREQ(ksG->xdataLayerName, "Walls");
    EXPECT_EQ(ksG->xdataLayerIndex, 7);
}

TEST_F(XdataTest, EmitCodesByTarget)
{
    const std::string z300(300, 'z');
    Item bytes300 = make(1004);
    bytes300->length = 300;
    struct Case { const char* what; Item item; int16_t version; bool dxf; Bytes want; };
    Case cases[] = {
        {"R13 text: code page 12", text(1000, "ab"), ksAC1012, false, {0, 2, 0, 12, 'a', 'b'}},
        {"R2000 text: code page 30", text(1000, ""), ksAC1015, false, {0, 0, 0, 30}},
        {"old text", text(1000, "a"), ksAC1006, false, {0, 1, 'a'}},
        {"R13 layer by handle", handle(1003, 0x0102), ksAC1012, false, {3, 0, 0, 0, 0, 0, 0, 1, 2}},
        {"text cut to 255", text(1000, z300.c_str()), ksAC1009, true, Raw().u8(0).str(z300.substr(0, 255)).b},
        {"R13 has no 1001 item", handle(1001, 0x20), ksAC1014, false, {}},
        {"bytes longer than 255", std::move(bytes300), ksAC1009, false, {}},
        {"unknown code", make(1020), ksAC1009, false, {}},
    };
    for (Case& c : cases) {
        ksG->xdataWriteLength = 0;
        EXPECT_EQ(ksXdataEmit(fcb, c.version, c.dxf, c.item.get()), c.want.empty() ? 0 : 1) << c.what;
        EXPECT_EQ(emitted(), c.want) << c.what;
    }
    // At the buffer's end: a 1070 takes 3 bytes.
    Item n = num(1070, int16_t(1));
    for (int32_t room : {2, 3}) {
        ksG->xdataWriteLength = ksXdataBufferSize - room;
        EXPECT_EQ(ksXdataEmit(fcb, ksAC1009, false, n.get()), room == 3);
        EXPECT_EQ(ksG->xdataWriteLength, int32_t(ksXdataBufferSize) - (room == 3 ? 0 : room));
    }
}

TEST_F(XdataTest, HostileRawBytesEndTheData)
{
    struct Case { const char* what; bool dxf; int16_t version; Bytes raw; size_t items; };
    const Case cases[] = {
        {"run size beyond the data", false, ksAC1014, Raw().u16(10).u8(0x51).u8(1).u8(2).u8(0).b, 0},
        {"run size 1 byte too large", false, ksAC1014, Raw().u16(4).u8(0x51).u8(1).u8(70).u16(1).b, 0},
        {"nine handle bytes", false, ksAC1014, Raw().u16(1).u8(0x59).handle(1).u8(0).u8(2).u8(0).b, 0},
        {"item runs past its run", false, ksAC1014, Raw().u16(3).u8(0x51).u8(1).u8(0).u8(5).u8(0).u8(30).raw("abcde", 5).b, 1},
        {"1001 inside a run", false, ksAC1014, Raw().u16(3).u8(0x51).u8(1).u8(1).u16(0).u16(0).b, 1},
        {"run without its end", false, ksAC1014, Raw().u16(2).u8(0x50).u8(2).u8(0).u8(1).b, 2},
        {"text longer than the data", false, ksAC1009, Raw().u8(0).u8(200).raw("abc", 3).b, 0},
        {"short 1071", false, ksAC1009, Raw().u8(70).u16(1).u8(71).u16(1).b, 1},
        {"short point", false, ksAC1009, Raw().u8(10).num(1.0).num(2.0).b, 0},
        {"unknown DWG code", false, ksAC1006, Raw().u8(48).u16(0).b, 0},
        {"negative code byte", false, ksAC1009, Raw().u8(0x80).u8(0).b, 0},
        {"DXF name beyond the data", true, ksAC1014, Raw().u8(1).u8(255).raw("ACAD", 4).b, 0},
        {"DXF lone code byte at the end", true, ksAC1014, Raw().u8(2).u8(0).u8(20).b, 1},
    };
    for (const Case& c : cases) {
        coding(c.dxf, c.version);
        source(c.raw);
        EXPECT_EQ(drain(Refs::handles).size(), c.items) << c.what;
    }
    // A full buffer of 1070 items whose last byte is a 1071 without its value.
    coding(false, ksAC1009);
    source({});
    ksG->xdataReadBuffer[ksXdataBufferSize - 1] = 71;
    ksXdataBeginRaw(fcb, ksXdataBufferSize);
    EXPECT_EQ(drain(Refs::indices).size(), ksXdataBufferSize / 3);
    for (int32_t length : {-1, int32_t(ksXdataBufferSize) + 1}) {
        EXPECT_EQ(ksXdataBeginRaw(fcb, length), 0);
        EXPECT_TRUE(drain(Refs::indices).empty()) << length;
    }
}

// Each coding's references, hits and misses, for two records at a time.
// Tables: layers "0", "Walls", "Doors" (handles 10 to 12), applications
// "ACAD" and "MyApp" (20, 21).
TEST_F(XdataTest, PendingReferencesResolveByTheFilesCoding)
{
    ksLayer l;
    ksAppid a;
    ksLayerDefaults(fcb, &l);
    ksAppidDefaults(&a);
    for (auto [name, h] : {std::pair{"0", 0x10}, {"Walls", 0x11}, {"Doors", 0x12}, {"ACAD", 0x20}, {"MyApp", 0x21}}) {
        bool app = h >= 0x20;
        std::strcpy(app ? a.name : l.name, name);
        (app ? a.entryHandle : l.entryHandle) = ksHandleFromU64(h);
        ASSERT_EQ(app ? ksAppidAdd(fcb, &a) : ksLayerAdd(fcb, &l), 1);
    }
    // `before`: the records ahead of resolution, unless all references are null.
    struct Case { const char* what; bool dxf; int16_t version; Bytes raw; Strings items, before; };
    const Case cases[] = {
        {"DXF by name", true, ksAC1014,
         Raw().u8(1).str("myapp").u8(3).str("WALLS").u8(0).str("x").u8(1).str("ACAD").u8(3).str("Roof").u8(1).str("Nope")
             .u8(3).str("Roof").u8(3).str("WALLS").u8(3).str("WALLS").u8(3).str("WAL").b,
         {"1001=h21", "1003=h11", "1000=x", "1001=h20", "1003=h0", "1001=h0", "1003=h0", "1003=h11", "1003=h11", "1003=h0"}, {}},
        {"R12 by index", false, ksAC1009, Raw().u8(1).u16(1).u8(3).u16(2).u8(3).u16(0).u8(3).u16(3).u8(1).u16(0xFFFF).b,
         {"1001=h21", "1003=h12", "1003=h10", "1003=h0", "1001=h0"}, {}},
        {"R2000 by handle", false, ksAC1015,
         Raw().u16(18).u8(0x51).u8(0x21).u8(3).handle(0x11).u8(3).handle(0x20).u16(2).u8(0x51).u8(0x99).u8(2).u8(0)
             .u16(2).u8(0x51).u8(0x10).u8(2).u8(1).u16(0).b,
         {"1001=h21", "1003=h11", "1003=h0", "1001=h0", "1002={", "1001=h0", "1002=}"},
         {"1001=h21", "1003=h11", "1003=h20", "1001=h99", "1002={", "1001=h10", "1002=}"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        coding(c.dxf, c.version);
        ksLoc records[2] = {};
        for (ksLoc& record : records) {
            std::copy(c.raw.begin(), c.raw.end(), ksG->xdataReadBuffer);
            ksG->xdataSourceEnd = static_cast<int32_t>(c.raw.size());
            ASSERT_EQ(ksXdataResolve(fcb, &record), 1);
            blobs.push_back(record);
        }
        Strings before = c.before;
        int references = 0;
        for (const std::string& s : c.items) {
            bool ref = s.starts_with("1001") || s.starts_with("1003");
            references += ref;
            if (c.before.empty()) before.push_back(ref ? s.substr(0, 5) + "h0" : s);
        }
        EXPECT_EQ(fcb->pendingCount, 2 * references);
        EXPECT_EQ(readAll(records[1]), before);
        ASSERT_EQ(ksXdataResolvePending(fcb), 1);
        EXPECT_TRUE(fcb->pendingXdata == 0 && fcb->pendingCount == 0 && fcb->pendingCursor == nullptr);
        for (ksLoc record : records) EXPECT_EQ(readAll(record), c.items);
    }
    // A reference behind 8190 braces of 9 bytes each: its place in the blob
    // is beyond 16 bits.
    coding(false, ksAC1009);
    Raw big;
    for (int i = 0; i < 8190; ++i) big.u8(2).u8(0);
    source(big.u8(1).u16(0).b);
    ksLoc bigRecord = 0, none = 0;
    ASSERT_EQ(ksXdataResolve(fcb, &bigRecord), 1);
    blobs.push_back(bigRecord);
    ASSERT_EQ(ksXdataResolvePending(fcb), 1);
    EXPECT_EQ(readAll(bigRecord).back(), "1001=h20");
    // A record without items: an empty blob and nothing pending.
    ksG->xdataSourceEnd = 0;
    ASSERT_EQ(ksXdataResolve(fcb, &none), 1);
    blobs.push_back(none);
    EXPECT_TRUE(ksBlobSize(none) == 0 && fcb->pendingXdata == 0);
}

}  // namespace
