// DWG bit codes both ways: random round trips of every code through the
// writer and the reader, the one coding the writer picks for each value,
// the forms only a reader meets, bad and short streams, the modular codes,
// the CRC and the object frame.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dwgread/bitcodes.h"
#include "dwgwrite/objectframe.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/xdata.h"
#include "support/fixtures.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Check = std::function<bool(ksBitReader&)>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

uint64_t bitsOf(double d) { return std::bit_cast<uint64_t>(d); }
bool same(double a, double b) { return bitsOf(a) == bitsOf(b); }
bool same(const ksPoint3& a, const ksPoint3& b) { return same(a.x, b.x) && same(a.y, b.y) && same(a.z, b.z); }
ksObjHandle H(uint64_t v) { return ksHandleFromU64(v); }
uint64_t U(const ksObjHandle& h) { return ksHandleToU64(h); }

// "0101..." of hex bytes ("3F F0").
std::string hex(std::string_view bytes)
{
    std::string out;
    for (size_t i = 0; i + 1 < bytes.size(); i += 3)
        for (int bit = 7, v = std::stoi(std::string(bytes.substr(i, 2)), nullptr, 16); bit >= 0; --bit)
            out += (v >> bit & 1) ? '1' : '0';
    return out;
}

// A writer for one case, and a reader over what it wrote, in place: the
// writer keeps zero padding behind its data.
struct Stream {
    ksBitWriter w{};
    Stream() { ksResetBits(w, ksAC1015); }
    ~Stream() { ksBitWriterFree(w); }
    ksBitReader reader() const
    {
        ksBitReader r{};
        ksBitReaderOpen(r, w.data, ksBitWriterBytes(w), 0);
        return r;
    }
    std::string str() const
    {
        std::string s;
        for (uint64_t i = 0; i < w.bitPos; ++i)
            s += (w.data[i >> 3] >> (7 - (i & 7)) & 1) ? '1' : '0';
        return s;
    }
    void put(std::string_view pattern)  // '0' and '1'; anything else is ignored
    {
        for (char c : pattern)
            if (c == '0' || c == '1')
                ksWriteBit(w, c == '1');
    }
};

const std::string kOne = hex("00 00 00 00 00 00 F0 3F"), kZero = hex("00 00 00 00 00 00 00 00");

TEST(BitWriter, PicksOneCodingPerValue)
{
    const struct {
        const char* name;
        std::function<void(ksBitWriter&)> write;
        std::string bits;
    } cases[] = {
        {"BS 0", [](auto& w) { ksWriteBS(w, 0); }, "10"},
        {"BS 256", [](auto& w) { ksWriteBS(w, 256); }, "11"},
        {"BS 255", [](auto& w) { ksWriteBS(w, 255); }, "01" + hex("FF")},
        {"BS 257", [](auto& w) { ksWriteBS(w, 257); }, "00" + hex("01 01")},
        {"BS FFFF", [](auto& w) { ksWriteBS(w, 0xFFFF); }, "00" + hex("FF FF")},
        {"BL 0", [](auto& w) { ksWriteBL(w, 0); }, "10"},
        {"BL 255", [](auto& w) { ksWriteBL(w, 255); }, "01" + hex("FF")},
        {"BL 256", [](auto& w) { ksWriteBL(w, 256); }, "00" + hex("00 01 00 00")},
        {"BD 0", [](auto& w) { ksWriteBD(w, 0.0); }, "10"},
        {"BD 1", [](auto& w) { ksWriteBD(w, 1.0); }, "01"},
        {"BD -0 long", [](auto& w) { ksWriteBD(w, -0.0); }, "00" + hex("00 00 00 00 00 00 00 80")},
        {"BT -0 one bit", [](auto& w) { ksWriteBT(w, -0.0); }, "1"},
        {"BT 1", [](auto& w) { ksWriteBT(w, 1.0); }, "0 01"},
        {"DD NaN", [](auto& w) { ksWriteDD(w, kNaN, 2.0); }, "00"},
        {"DD equal", [](auto& w) { ksWriteDD(w, -0.0, 0.0); }, "00"},
        {"DD other", [](auto& w) { ksWriteDD(w, 1.0, 2.0); }, "11" + kOne},
        {"BE up", [](auto& w) { ksWriteBE(w, {0, 0, 1}); }, "1"},
        {"BE down", [](auto& w) { ksWriteBE(w, {0, 0, -1}); }, "0 10 10 00" + hex("00 00 00 00 00 00 F0 BF")},
        {"flagged flat", [](auto& w) { ksWriteFlaggedPoint(w, {1, 0, -0.0}); }, "1" + kOne + kZero},
        {"span", [](auto& w) { ksWriteSpan(w, {1, 0, 0}, {1, 0, 1}); },
         "0" + kOne + "00" + kZero + "00" + kZero + "11" + kOne},
        {"T empty", [](auto& w) { ksWriteText(w, ""); }, "10"},
        {"T ab", [](auto& w) { ksWriteText(w, "ab"); }, "01" + hex("02 61 62")},
        {"H null", [](auto& w) { ksWriteHandle(w, H(0), 0x40); }, hex("40")},
        {"H 2 bytes", [](auto& w) { ksWriteHandle(w, H(0x102), 0x50); }, hex("52 01 02")},
        {"H 8 bytes", [](auto& w) { ksWriteHandle(w, H(0x8000000000000001), 0); }, hex("08 80 00 00 00 00 00 00 01")},
        {"typed kinds", [](auto& w) { for (uint8_t k = 0; k < 6; ++k) ksWriteTypedHandle(w, {H(0), k}); },
         hex("20 40 50 60 30 00")},
        {"rel same", [](auto& w) { ksWriteRelHandle(w, H(0x10), H(0x10), 0x40); }, hex("40")},
        {"rel +1", [](auto& w) { ksWriteRelHandle(w, H(0x11), H(0x10), 0x40); }, hex("60")},
        {"rel -1", [](auto& w) { ksWriteRelHandle(w, H(0xF), H(0x10), 0x40); }, hex("80")},
        {"rel up", [](auto& w) { ksWriteRelHandle(w, H(0x130), H(0x10), 0x40); }, hex("A2 01 20")},
        {"rel down near", [](auto& w) { ksWriteRelHandle(w, H(0xF0), H(0x100), 0x40); }, hex("C1 10")},
        {"rel down far", [](auto& w) { ksWriteRelHandle(w, H(0x10), H(0x100), 0x40); }, hex("41 10")},
        {"rel down half", [](auto& w) { ksWriteRelHandle(w, H(0x80), H(0x100), 0x40); }, hex("41 80")},
    };
    for (const auto& c : cases) {
        Stream s;
        s.put("1");  // every coding off byte alignment
        c.write(s.w);
        std::string expected = "1" + c.bits;
        std::erase(expected, ' ');
        EXPECT_EQ(s.str(), expected) << c.name;
    }
}

// Forms a reader meets but this writer never makes, whole doubles that are
// sanitised, the axis rule, and streams that are bad or end too soon.
TEST(BitReader, ReadsHandMadeAndBadForms)
{
    auto rel = [](uint64_t expected) {
        return [=](ksBitReader& r) { ksObjHandle h; ksReadRelHandle(r, H(0x100), &h); return U(h) == expected; };
    };
    auto rdZero = [](ksBitReader& r) { return same(ksReadRDValue(r), 0.0); };
    auto be = [](ksPoint3 expected) { return [=](ksBitReader& r) { ksPoint3 p; ksReadBE(r, &p); return same(p, expected); }; };
    char text[8];
    const struct {
        const char* name;
        std::string bits;
        Check check;
        bool bad = false;
    } cases[] = {
        {"DD 01", "01" + hex("01 00 00 00"), [](auto& r) { return bitsOf(ksReadDDValue(r, 1.0)) == 0x3FF0000000000001; }},
        {"DD 10", "10" + hex("34 12 78 56 34 12"), [](auto& r) { return bitsOf(ksReadDDValue(r, 1.0)) == 0x3FF0123412345678; }},
        {"BL 11", "11 1", [](auto& r) { return ksReadBL(r) == 0 && ksReadBit(r) == 1; }},
        {"BD 11", "11 1", [](auto& r) { return same(ksReadBDValue(r), 0.0) && ksReadBit(r) == 1; }},
        {"BS 10", "10", [](auto& r) { return ksReadBS(r) == 0; }},
        {"BS 11", "11", [](auto& r) { return ksReadBS(r) == 256; }},
        {"RD NaN", hex("00 00 00 00 00 00 F8 7F"), rdZero},
        {"RD -inf", hex("00 00 00 00 00 00 F0 FF"), rdZero},
        {"RD denormal", hex("01 00 00 00 00 00 00 00"), rdZero},
        {"RD -0", hex("00 00 00 00 00 00 00 80"), rdZero},
        {"BD long inf", "00" + hex("00 00 00 00 00 00 F0 7F"), [](auto& r) { return same(ksReadBDValue(r), 0.0); }},
        {"2RD each", hex("00 00 00 00 00 00 F8 FF") + kOne,
         [](auto& r) { ksPoint2 p; ksRead2RD(r, &p); return same(p.x, 0.0) && p.y == 1.0; }},
        {"BE 0,0,0", "0 10 10 10", be({0, 0, -1})},
        {"BE 0,0,3", "0 10 10 00" + hex("00 00 00 00 00 00 08 40"), be({0, 0, 1})},
        {"BE 1,0,0", "0 01 10 10", be({1, 0, 0})},
        {"rel 6 count 0", hex("60"), rel(0x101)},
        {"rel 8 count 0", hex("80"), rel(0xFF)},
        {"rel 4 count 0 is null", hex("40"), rel(0)},
        {"rel 4 absolute", hex("41 05"), rel(0x05)},
        {"rel 5 absolute", hex("51 05"), rel(0x05)},
        {"rel A added", hex("A1 05"), rel(0x105)},
        {"rel C subtracted", hex("C1 05"), rel(0xFB)},
        {"rel wraps", hex("C2 01 01"), rel(0xFFFFFFFFFFFFFFFF)},
        {"H count 0 any code", hex("F0 AA"),
         [](auto& r) { ksObjHandle h; return ksReadHandle(r, &h) == 0 && U(h) == 0 && ksReadRC(r) == 0xAA; }},
        {"H count 9", hex("49 01 02 03 04 05 06 07 08 09"),
         [](auto& r) { ksObjHandle h; return ksReadHandle(r, &h) == 0 && U(h) == 0; }, true},
        {"T length 0", "10 1", [&](auto& r) { return ksReadText(r, text, 7) == 0 && !text[0] && ksReadBit(r) == 1; }},
        {"T above limit", "01" + hex("08 61 62 63 64 65 66 67 68"),
         [&](auto& r) { return ksReadText(r, text, 7) == 8 && !text[0]; }, true},
        {"T past the end", "01" + hex("05 61 62"), [&](auto& r) { ksReadText(r, text, 7); return !text[0]; }, true},
        {"RL past the end", hex("AB"), [](auto& r) { return ksReadRL(r) == 0 && ksReadRC(r) == 0; }, true},
        {"RD past the end", hex("01 02 03"), [](auto& r) { return same(ksReadRDValue(r), 0.0) && ksReadBS(r) == 0; }, true},
        {"bytes past the end", hex("01 02 03"),
         [](auto& r) { uint8_t b[4] = {9, 9, 9, 9}; return !ksReadBytes(r, b, 4) && b[0] == 0 && b[3] == 0; }, true},
        {"skip past the end", hex("01"), [](auto& r) { return !ksSkipBits(r, 9) && ksReadBit(r) == 0; }, true},
    };
    for (const auto& c : cases) {
        Stream s;
        s.put(c.bits);
        ksBitReader r = s.reader();
        r.bitEnd = s.w.bitPos;  // the stream ends with the hand-made bits
        EXPECT_TRUE(c.check(r)) << c.name;
        EXPECT_EQ(r.bad, c.bad) << c.name;
    }
}

// ---- Random round trips --------------------------------------------------

// One random value of every kind; each code takes what it needs. Doubles
// include NaN, infinities, denormals, -0.0 and repeats (DD defaults).
struct Value {
    uint64_t u;
    unsigned n;
    double d[6];
    ksPoint3 p, q;
    ksObjHandle target, base;
    std::string text;
};

Value randomValue(std::mt19937_64& rng)
{
    static const double special[] = {0.0, -0.0, 1.0, -1.0, kNaN, -kInf, std::numeric_limits<double>::denorm_min()};
    auto real = [&]() -> double {
        switch (rng() % 4) {
        case 0: return special[rng() % std::size(special)];
        case 1: return std::bit_cast<double>(rng());
        default: return std::ldexp(double(int64_t(rng())), int(rng() % 80) - 100);
        }
    };
    Value v;
    const unsigned width = rng() % 65;
    v.u = width == 64 ? rng() : rng() & ((uint64_t{1} << width) - 1);
    v.n = 1 + rng() % 57;
    v.d[0] = real();
    for (int i = 1; i < 6; ++i)
        v.d[i] = rng() % 3 ? real() : v.d[0];
    v.p = {v.d[0], v.d[1], v.d[2]};
    v.q = {v.d[3], v.d[4], v.d[5]};
    const unsigned bytes = rng() % 9;
    const uint64_t target = bytes == 8 ? rng() : rng() & ((uint64_t{1} << bytes * 8) - 1);
    const uint64_t step = rng() % 2 ? rng() % 4 : rng() >> (rng() % 64);
    v.target = H(target);
    v.base = H(rng() % 2 ? target + step : target - step);
    v.text.resize(rng() % 40);
    for (char& c : v.text)
        c = char(1 + rng() % 255);
    return v;
}

// What a whole double reads as, and a BD of it.
double whole(double d) { return (bitsOf(d) >> 52 & 0x7FF) % 0x7FF ? d : 0.0; }
double bd(double d) { return bitsOf(d) == bitsOf(1.0) ? 1.0 : whole(d); }
// A DD is compared with the default the writer has and read against the
// one the reader has; they differ where a span's start was sanitised.
double dd(double d, double written, double read)
{
    return (d == written || std::isnan(d) || std::isnan(written)) ? read : whole(d);
}

const struct {
    const char* name;
    std::function<void(ksBitWriter&, const Value&)> write;
    std::function<bool(ksBitReader&, const Value&)> check;
} kCodecs[] = {
    {"bits", [](auto& w, auto& v) { ksWriteBits(w, v.u, v.n); },
     [](auto& r, auto& v) { return ksReadBits(r, v.n) == (v.u & (~uint64_t{0} >> (64 - v.n))); }},
    {"BS", [](auto& w, auto& v) { ksWriteBS(w, uint16_t(v.u)); }, [](auto& r, auto& v) { return ksReadBS(r) == int16_t(v.u); }},
    {"BL", [](auto& w, auto& v) { ksWriteBL(w, uint32_t(v.u)); }, [](auto& r, auto& v) { return ksReadBL(r) == int32_t(v.u); }},
    {"RD", [](auto& w, auto& v) { ksWriteRD(w, v.d[0]); }, [](auto& r, auto& v) { return same(ksReadRDValue(r), whole(v.d[0])); }},
    {"BD", [](auto& w, auto& v) { ksWriteBD(w, v.d[0]); }, [](auto& r, auto& v) { return same(ksReadBDValue(r), bd(v.d[0])); }},
    {"BT", [](auto& w, auto& v) { ksWriteBT(w, v.d[1]); },
     [](auto& r, auto& v) { return same(ksReadBTValue(r), v.d[1] == 0 ? 0.0 : bd(v.d[1])); }},
    {"3DD", [](auto& w, auto& v) { ksWrite3DD(w, v.p, v.q); },
     [](auto& r, auto& v) {
         ksPoint3 p;
         ksRead3DD(r, &p, v.q);
         return same(p, {dd(v.p.x, v.q.x, v.q.x), dd(v.p.y, v.q.y, v.q.y), dd(v.p.z, v.q.z, v.q.z)});
     }},
    {"BE", [](auto& w, auto& v) { ksWriteBE(w, v.p); },
     [](auto& r, auto& v) {
         ksPoint3 p, e{bd(v.p.x), bd(v.p.y), bd(v.p.z)};
         ksReadBE(r, &p);
         if (v.p.x == 0 && v.p.y == 0 && v.p.z == 1)
             e = {0, 0, 1};
         ksAxisRule(&e);
         return same(p, e);
     }},
    {"flagged", [](auto& w, auto& v) { ksWriteFlaggedPoint(w, v.p); },
     [](auto& r, auto& v) {
         ksPoint3 p;
         ksReadFlaggedPoint(r, &p);
         return same(p, {whole(v.p.x), whole(v.p.y), v.p.z == 0 ? 0.0 : whole(v.p.z)});
     }},
    {"span", [](auto& w, auto& v) { ksWriteSpan(w, v.p, v.q); },
     [](auto& r, auto& v) {
         ksPoint3 s, e;
         ksReadSpan(r, &s, &e);
         const bool flat = v.p.z == 0 && v.q.z == 0;
         const ksPoint3 es{whole(v.p.x), whole(v.p.y), flat ? 0.0 : whole(v.p.z)};
         return same(s, es) &&
                same(e, {dd(v.q.x, v.p.x, es.x), dd(v.q.y, v.p.y, es.y), flat ? 0.0 : dd(v.q.z, v.p.z, es.z)});
     }},
    {"T", [](auto& w, auto& v) { ksWriteText(w, v.text.c_str()); },
     [](auto& r, auto& v) { char t[64]; return ksReadText(r, t, 63) == int32_t(v.text.size()) && v.text == t; }},
    {"H", [](auto& w, auto& v) { ksWriteHandle(w, v.target, uint8_t(v.u << 4)); },
     [](auto& r, auto& v) {
         ksObjHandle h;
         uint8_t code;
         return ksReadHandleCode(r, &h, &code) == ksHandleLength(v.target) && code == (v.u & 15) && U(h) == U(v.target);
     }},
    {"typed H", [](auto& w, auto& v) { ksWriteTypedHandle(w, {v.target, uint8_t(v.u % 6)}); },
     [](auto& r, auto& v) { ksHandleRef h; ksReadTypedHandle(r, &h); return h.kind == v.u % 6 % 5 && U(h.handle) == U(v.target); }},
    // A target equal to its base is written as code 4 without bytes, which
    // reads as the null handle (the coding table pins what is written).
    {"rel H", [](auto& w, auto& v) { ksWriteRelHandle(w, v.target, v.base, 0x40); },
     [](auto& r, auto& v) {
         ksObjHandle h;
         ksReadRelHandle(r, v.base, &h);
         return U(h) == U(v.target) || U(v.target) == U(v.base);
     }},
};

TEST(BitCodes, RandomRoundTrips)
{
    constexpr int kOps = 30000;
    Stream s;
    std::mt19937_64 rng(7);
    for (int i = 0; i < kOps; ++i) {
        const auto& c = kCodecs[rng() % std::size(kCodecs)];
        c.write(s.w, randomValue(rng));
    }
    ASSERT_FALSE(s.w.failed);
    ksBitReader r = s.reader();
    rng.seed(7);
    for (int i = 0; i < kOps; ++i) {
        const auto& c = kCodecs[rng() % std::size(kCodecs)];
        ASSERT_TRUE(c.check(r, randomValue(rng))) << c.name << " at op " << i;
    }
    EXPECT_FALSE(r.bad);
    EXPECT_EQ(r.bitPos, s.w.bitPos);
}

// ---- Modular codes and CRC -----------------------------------------------

TEST(ModularCodes, HandMadeAndRoundTrips)
{
    const struct {
        Bytes bytes;
        uint64_t u;
        uint32_t usedU;
        int32_t s;
        uint32_t usedS;
    } cases[] = {
        {{0x81, 0x01}, 129, 2, 129, 2}, {{0x81, 0x41}, 0x41 * 128 + 1, 2, -129, 2}, {{0x41}, 0x41, 1, -1, 1},
        {{0x40}, 0x40, 1, 0, 1},        {{0x81}, 0, 0, 0, 0},  // cut short
        {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, uint64_t{1} << 42, 7, 0, 0},  // 7 bytes: a bad signed code
    };
    for (const auto& c : cases) {
        uint32_t used = 99;
        EXPECT_EQ(ksReadModularU(c.bytes.data(), c.bytes.data() + c.bytes.size(), &used), c.u);
        EXPECT_EQ(used, c.usedU);
        EXPECT_EQ(ksReadModularS(c.bytes.data(), c.bytes.data() + c.bytes.size(), &used), c.s);
        EXPECT_EQ(used, c.usedS);
    }
    std::mt19937_64 rng(3);
    uint8_t out[10];
    for (int64_t v : {0, 1, -1, 63, 64, -64, 127, 128, 8191, 8192, INT32_MAX, INT32_MIN, INT32_MIN + 1}) {
        uint32_t used = 0;
        const uint32_t n = ksWriteModularS(int32_t(v), out);
        EXPECT_EQ(ksReadModularS(out, out + n, &used), v);
        EXPECT_EQ(used, n);
        const uint64_t u = uint64_t(v) * 0x9E3779B97F4A7C15u >> (rng() % 64);
        const uint32_t m = ksWriteModularU(u, out);
        EXPECT_EQ(ksReadModularU(out, out + m, &used), u);
        EXPECT_EQ(used, m);
    }
    EXPECT_EQ(ksWriteModularS(64, out), 2u) << "bit 6 of the last group is the sign";
    EXPECT_EQ(out[0] << 8 | out[1], 0xC000);
}

TEST(Crc, KnownValuesAndStamp)
{
    const auto* digits = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(ksCrc16(0, digits, 9), 0xBB3D);  // CRC-16/ARC check value
    EXPECT_EQ(ksCrc16(0, digits, 1), 0xD4C1);
    EXPECT_EQ(ksCrc16(ksCrcSeed, digits, 0), ksCrcSeed);
    EXPECT_EQ(ksCrc16(ksCrc16(ksCrcSeed, digits, 4), digits + 4, 5), ksCrc16(ksCrcSeed, digits, 9));
    uint8_t block[11] = {'1', '2', '3', '4', '5', '6', '7', '8', '9', 0xEE, 0xEE};
    ksStampCrc(block, sizeof block, 0xA598);
    EXPECT_EQ(block[9] | block[10] << 8, 0xBB3D ^ 0xA598);
}

// ---- The object frame ----------------------------------------------------

// The data of one framed object (with the reader's padding), its size
// words and CRC checked.
Bytes unframe(const Bytes& file, std::vector<uint16_t>* words)
{
    const size_t w1 = file[0] | file[1] << 8, w2 = file[2] | file[3] << 8;
    const size_t head = w1 & 0x8000 ? 4 : 2, size = head == 2 ? w1 : (w1 & 0x7FFF) + w2 * 32768;
    *words = head == 2 ? std::vector<uint16_t>{uint16_t(w1)} : std::vector<uint16_t>{uint16_t(w1), uint16_t(w2)};
    EXPECT_EQ(file.size(), head + size + 2);
    EXPECT_EQ(ksCrc16(ksCrcSeed, file.data(), head + size), file[head + size] | file[head + size + 1] << 8);
    Bytes data(file.begin() + head, file.begin() + head + size);
    data.resize(size + 8);
    return data;
}

using ObjectFrame = zt::ToolkitTest;

// The size words of small and large objects; the bit size of the data in
// front of the handle stream.
TEST_F(ObjectFrame, SizesWordsAndBitSize)
{
    const struct {
        size_t size;
        std::vector<uint16_t> words;
    } cases[] = {{13, {13}}, {32767, {0x7FFF}}, {32768, {0x8000, 1}}, {65536, {0x8000, 2}}, {70000, {0x8000 | 4464, 2}}};
    ksBitWriter w{};
    ksResetBits(w, ksAC1015);
    for (const auto& c : cases) {
        ASSERT_EQ(ksBeginObject(w, 0x1F3, H(0xABCD), 0, 0, 0, false), 1);
        const Bytes fill(c.size - ksBitWriterBytes(w) - 2, 0x5A);
        ksWriteBytes(w, fill.data(), fill.size());
        ksMarkHandles(w);
        const uint64_t mark = w.bitPos;
        ksWriteHandle(w, H(0x12), 0x30);  // 16 bits from bit 4 of a byte, then one more
        ksWriteBit(w, 1);
        Bytes file;
        ASSERT_EQ(ksEndObject(w, ksVectorSink(file)), 1);
        std::vector<uint16_t> words;
        const Bytes data = unframe(file, &words);
        EXPECT_EQ(words, c.words) << c.size;
        ksBitReader r{};
        ksBitReaderOpen(r, data.data(), c.size, 0);
        EXPECT_TRUE(ksReadBS(r) == 0x1F3 && ksReadRL(r) == mark) << c.size;
        EXPECT_EQ(data[c.size - 1], 0x28) << "the handle's last 4 bits, the 1, then zeros";
    }
    ksBitWriterFree(w);
}

// R14 entity: extended data, a graphic image large enough that the bit
// size placeholder behind it straddles the end of the first chunk (32868
// bytes of an object of 65636), then a small object from the same writer.
TEST_F(ObjectFrame, ExtendedDataGraphicAndStraddlingPlaceholder)
{
    auto item = std::make_unique<ksXdataItem>();
    const ksLoc xdata = ksBlobNew();
    ksBlobCursor* xc = ksBlobOpenWrite(xdata);
    auto add = [&](int16_t code, auto value) {
        if constexpr (std::is_same_v<decltype(value), const char*>)
            ksXdataSetText(item.get(), code, value);
        else
            ksXdataSet(item.get(), code, value);
        EXPECT_EQ(ksXdataWrite(xc, item.get()), 1);
    };
    add(1000, "ab");  // before any application
    add(1001, H(0x12));
    add(1070, int16_t(7));
    add(1002, "{");
    add(1001, H(0x13));  // a run without items is left out
    add(1001, H(0x14));
    add(1040, 1.5);
    ASSERT_EQ(ksBlobCloseWrite(xc), 1);

    constexpr uint32_t kImage = 32829;  // 8 head bytes, one record of the rest
    Bytes image(kImage, 0xEE);
    const uint32_t record = kImage - 8, head[2] = {kImage, 1};
    std::memcpy(image.data() + 8, &record, 4);
    for (size_t i = 12; i < image.size(); ++i)
        image[i] = uint8_t(i * 7);
    const ksLoc graphic = zt::blobOf(image);
    std::memcpy(image.data(), head, 8);  // the head is written afresh: size, record count

    ksBitWriter w{};
    ksResetBits(w, ksAC1014);
    ASSERT_EQ(ksBeginObject(w, 19, H(0x1234), 0, xdata, graphic, true), 1);
    EXPECT_EQ(w.patchBit / 8, 32866u);
    const Bytes fill(65636 - ksBitWriterBytes(w) - 1, 0x33);
    ksWriteBytes(w, fill.data(), fill.size());
    ksMarkHandles(w);
    ksWriteRC(w, 0x40);
    Bytes file;
    ASSERT_EQ(ksEndObject(w, ksVectorSink(file)), 1);
    std::vector<uint16_t> words;
    const Bytes data = unframe(file, &words);
    EXPECT_EQ(words, (std::vector<uint16_t>{0x8000 | 100, 2}));

    ksBitReader r{};
    ksBitReaderOpen(r, data.data(), data.size() - 8, 0);
    ksObjHandle h;
    EXPECT_EQ(ksReadBS(r), 19);
    ksReadHandle(r, &h);
    const Bytes runs[] = {{0, 2, 0, 30, 'a', 'b'}, {70, 7, 0, 2, 0}, {40, 0, 0, 0, 0, 0, 0, 0xF8, 0x3F}};
    const uint64_t apps[] = {0, 0x12, 0x14};
    for (size_t i = 0; i < std::size(runs); ++i) {
        Bytes got(uint16_t(ksReadBS(r)));
        uint8_t code;
        ksReadHandleCode(r, &h, &code);
        ksReadBytes(r, got.data(), uint32_t(got.size()));
        EXPECT_TRUE(got == runs[i] && code == 5 && U(h) == apps[i]) << "run " << i;
    }
    EXPECT_EQ(ksReadBS(r), 0);
    EXPECT_EQ(ksReadBit(r), 1);
    Bytes got(ksReadRL(r));
    ksReadBytes(r, got.data(), uint32_t(got.size()));
    EXPECT_EQ(got, image);
    EXPECT_EQ(ksReadRL(r), w.handleMarkBits);
    EXPECT_FALSE(r.bad);

    // The next object carries nothing of the last, not even in the padding.
    Bytes again, fresh;
    ksBitWriter clean{};
    ksResetBits(clean, ksAC1014);
    for (auto [writer, out] : {std::pair{&w, &again}, std::pair{&clean, &fresh}}) {
        ksBeginObject(*writer, 0x31, H(1), 0, 0, 0, true);
        ksWriteText(*writer, "twenty-one characters");
        ksWriteRL(*writer, 0x11223344);
        ksMarkHandles(*writer);
        ksEndObject(*writer, ksVectorSink(*out));
    }
    EXPECT_EQ(again, fresh);
    EXPECT_EQ(Bytes(w.data + ksBitWriterBytes(w), w.data + ksBitWriterBytes(w) + 8), Bytes(8, 0));
    ksBitWriterFree(w);
    ksBitWriterFree(clean);
    ksBlobFree(xdata);
    ksBlobFree(graphic);
}

}  // namespace
