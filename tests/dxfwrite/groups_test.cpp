// The DXF group writer: number forms byte for byte and against printf for
// every precision, codes and values of both forms, caret coding, short
// names, point Z, ASCII and binary read back alike, a refused write.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/save.h"
#include "records/tables.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "support/fixtures.h"

namespace {

using namespace std::string_literals;
using Body = std::function<void(ksFcb*)>;

class DxfGroups : public zt::DrawingTest {
protected:
    // The bytes `body` writes to a target of that form and version, through
    // the open output or, unbuffered, group by group.
    static std::string written(int16_t fileType, int16_t version, const Body& body, bool buffered = true)
    {
        char* data = nullptr;
        size_t size = 0;
        auto target = std::make_unique<ksFcb>();
        target->fileType = static_cast<uint8_t>(fileType);
        target->outputVersion = version;
        target->outputFile = open_memstream(&data, &size);
        EXPECT_EQ(!buffered || ksDxfOpenOutput(target.get()), true);
        body(target.get());
        EXPECT_EQ(ksDxfCloseOutput(target.get()), 1);
        std::fclose(target->outputFile);
        std::string bytes(data, size);
        std::free(data);
        return bytes;
    }
    static std::string real(double value, bool full = false)
    {
        char text[ksDxfRealTextMax];
        return {text, full ? ksDxfFormatRealFull(value, text) : ksDxfFormatReal(value, text)};
    }
};

TEST_F(DxfGroups, RealForms)
{
    constexpr double inf = std::numeric_limits<double>::infinity();
    const struct {
        int16_t precision, negativeZero;
        double value;
        const char* text;
        bool full = false;
    } cases[] = {
        {6, 0, 1e-7, "0.0"}, {6, 1, -1e-7, "-0.0"}, {6, 0, -1e-7, "0.0"}, {6, 1, -1e-310, "0.0"},
        // The threshold, 0.5 divided by ten six times, lies a little above 5e-7.
        {6, 0, -5e-7, "0.0"}, {6, 0, 5.000000000000001e-07, "0.000001"},
        {6, 0, 0.1, "0.1"}, {6, 0, 100.0, "100.0"}, {6, 0, -2.25, "-2.25"},
        {6, 0, 1234.5678915, "1234.567892"}, {6, 0, 9999999999999998.0, "9999999999999998.0"},
        {6, 0, 1e16, "1.000000E+16"}, {6, 0, -1.5e20, "-1.500000E+20"}, {6, 0, 1e300, "1.000000E+300"},
        {6, 0, inf, "INF"}, {6, 0, -inf, "-INF"}, {6, 0, std::numeric_limits<double>::quiet_NaN(), "nan"},
        {0, 0, 1.0, "1"}, {0, 0, 0.4, "0.0"}, {0, 0, 0.5, "0"}, {0, 0, 2.5, "2"}, {0, 0, 3.5, "4"},
        {0, 0, -7.6, "-8"}, {0, 0, 100.0, "100"}, {0, 0, 1e16, "1E+16"},
        {1, 0, 0.25, "0.2"}, {1, 0, 0.35, "0.3"}, {1, 0, 10.0, "10.0"}, {1, 0, 0.04, "0.0"}, {2, 0, 0.125, "0.12"},
        {2, 0, 0.375, "0.38"}, {2, 0, 100.0, "100.0"}, {12, 0, 5e-13, "0.0"}, {16, 0, 0.1, "0.1"},
        {16, 0, 1.0 / 3, "0.3333333333333333"}, {16, 0, 1e16, "1.0000000000000000E+16"},
        {6, 0, 123456.789, "123456.7890000000043074", true}, {6, 0, 1e-20, "0.0", true},
        {6, 0, -1e-20, "-0.0", true}, {6, 0, 1e16, "1.000000E+16", true},
    };
    for (const auto& c : cases) {
        ksDxfSetFormat(c.negativeZero, c.precision, 0);
        EXPECT_EQ(real(c.value, c.full), c.text) << "precision " << c.precision << " value " << c.value;
    }
}

// The same forms by the C library with ksG's format strings.
std::string printfForm(double v, bool full)
{
    char text[512];
    if (!full && (std::bit_cast<uint64_t>(v) & 0x7FF0000000000000) == 0)
        v = 0.0;
    if (!full && std::fabs(v) < ksG->dxfHalfUnit)
        return ksG->dxfNegativeZero && v < 0 ? "-0.0" : "0.0";
    if (std::fabs(v) >= 1e16) {
        std::snprintf(text, sizeof text, ksG->dxfExpFormat, v);
        std::string s = text;
        if (const size_t e = s.find('E'); e != std::string::npos && s[e + 2] == '0')
            s.erase(e + 2, 1);  // a three-digit exponent loses its leading 0
        return s;
    }
    std::snprintf(text, sizeof text, full ? "%.16f" : ksG->dxfRealFormat, v);
    std::string s = text;
    for (int cut = 0; cut < (full ? 15 : ksG->dxfPrecision - 1) && s.back() == '0'; ++cut)
        s.pop_back();
    return s;
}

TEST_F(DxfGroups, RealFormsAgreeWithPrintf)
{
    std::mt19937_64 random(20240611);
    std::uniform_real_distribution<double> unit(1.0, 10.0);
    for (int16_t p = 0; p <= ksDxfMaxPrecision; ++p) {
        ksDxfSetFormat(p % 2, p, 0);
        int mismatches = 0;
        for (int i = 0; i < 30000 && mismatches < 5; ++i) {
            double v = 0;
            const auto toward = [&](double x) { return std::nextafter(x, (random() & 1) ? 0.0 : 1e300); };
            switch (i % 4) {
            case 0:  // any bits
                v = std::bit_cast<double>(random());
                break;
            case 1:  // 1e-20 to 1e20
                v = unit(random) * std::pow(10.0, static_cast<int>(random() % 41) - 20);
                break;
            case 2:  // exact halves of the last decimal, and their neighbours
                v = static_cast<double>(random() % (1u << 24)) / std::ldexp(1.0, static_cast<int>(random() % (p + 2u)));
                v = (random() & 1) ? v : toward(v);
                break;
            default:  // by the zero threshold and by 1e16
                v = toward((random() & 1) ? ksG->dxfHalfUnit : 1e16);
            }
            v = (random() & 1) ? -v : v;
            for (bool full : {false, true}) {
                if (real(v, full) != printfForm(v, full) && ++mismatches)
                    ADD_FAILURE() << "precision " << p << (full ? " full" : "") << " bits 0x" << std::hex
                                  << std::bit_cast<uint64_t>(v) << ": " << real(v, full) << " against "
                                  << printfForm(v, full);
            }
        }
    }
}

TEST_F(DxfGroups, CodesAndValuesInBothForms)
{
    const uint8_t chunk[] = {0x0A, 0xFF};
    const double half = 0.5;
    const auto handle = [](uint64_t value) {
        return [value](ksFcb* t) { ksDxfWriteHandle(t, 5, ksHandleFromU64(value)); };
    };
    const auto coded = [](std::string text) {
        return [text](ksFcb* t) { ksDxfWriteCoded(t, 1, text.c_str()); };
    };
    std::string carets;
    for (int i = 0; i < 300; ++i)
        carets += "^M";
    const struct {
        int16_t fileType, version, precision;
        Body write;
        std::string bytes;
    } cases[] = {
        {1, 7, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 70, 2); }, " 70\r\n     2\r\n"},
        {1, 7, 0, [](ksFcb* t) { ksDxfWriteInt16(t, 70, 2); }, " 70\r\n2\r\n"},
        {1, 7, 12, [](ksFcb* t) { ksDxfWriteInt16(t, 62, -7); }, " 62\r\n          -7\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfWriteInt8(t, 280, -1); }, "280\r\n    -1\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfWriteInt32(t, 90, 5); }, " 90\r\n        5\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfWriteChar(t, 1002, '{'); }, "1002\r\n{\r\n"},
        {1, 7, 6, [&](ksFcb* t) { ksDxfWriteBytes(t, 310, chunk, 2); }, "310\r\n0AFF\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfWriteAngle(t, 50, std::numbers::pi / 2); }, " 50\r\n90.0\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfWriteAngle(t, 50, 1e-9); }, " 50\r\n0.0\r\n"},
        {1, 7, 6, handle(0), "  5\r\n0\r\n"},
        {1, 7, 6, handle(0xA2F), "  5\r\nA2F\r\n"},
        {1, 7, 6, handle(~0ull), "  5\r\nFFFFFFFFFFFFFFFF\r\n"},
        {1, 7, 6, coded("a\nb\t\x1f"), "  1\r\na^Jb^I^_\r\n"},
        {1, 7, 6, coded("x^y^"), "  1\r\nx^ y^ \r\n"},
        {1, 7, 6, coded("\x81^a\x81^"), "  1\r\n\x81^a\x81^ \r\n"},  // a "^" behind a lead byte at an odd place stays
        {1, 7, 6, coded(std::string(300, '\r')), "  1\r\n" + carets + "\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfWriteDate(t, 40, {2451545, 43200000}, 9); },
         " 40\r\n2451545.500000000\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfHeaderDate(t, "$TDINDWG", {0, 1}, 10); },
         "  9\r\n$TDINDWG\r\n 40\r\n0.0000000116\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfHeaderByte(t, "$DIMALT", 1); }, "  9\r\n$DIMALT\r\n 70\r\n     1\r\n"},
        {1, 7, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 290, 1); }, "290\r\n     1\r\n"},
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 70, 2); }, "\x46\0\x02\0"s},
        {2, 4, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 70, 2); }, "\x46\x02\0"s},
        {2, 4, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 1070, -2); }, "\xFF\x2E\x04\xFE\xFF"s},
        {2, 4, 6, [](ksFcb* t) { ksDxfWriteText(t, 255, "x"); }, "\xFF\xFF\0x\0"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteInt8(t, 280, 1); }, "\x18\x01\x01"s},
        // The flags of 290 to 299 take one byte in binary; their neighbours two.
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 290, 1); }, "\x22\x01\x01"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 299, 0); }, "\x2B\x01\0"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 289, 1); }, "\x21\x01\x01\0"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 370, 1); }, "\x72\x01\x01\0"s},
        {2, 4, 6, [](ksFcb* t) { ksDxfWriteInt16(t, 290, 1); }, "\xFF\x22\x01\x01"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfHeaderByte(t, "$XEDIT", 1, 290); }, "\x09\0$XEDIT\0\x22\x01\x01"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfHeaderByte(t, "$DIMALT", 1); }, "\x09\0$DIMALT\0\x46\0\x01\0"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteInt32(t, 90, -2); }, "\x5A\0\xFE\xFF\xFF\xFF"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteChar(t, 1002, '{'); }, "\xEA\x03{\0"s},
        {2, 7, 6, handle(0xA2F), "\x05\0A2F\0"s},
        {2, 7, 6, [](ksFcb* t) { ksDxfWriteReal(t, 40, 0.5); },
         "\x28\0"s + std::string(reinterpret_cast<const char*>(&half), 8)},
        {2, 7, 6, [&](ksFcb* t) { ksDxfWriteBytes(t, 1004, chunk, 2); }, "\xEC\x03\x02\x0A\xFF"s},
        {2, 7, 6, coded("a\n"), "\x01\0a^J\0"s},
    };
    for (const auto& c : cases) {
        ksDxfSetFormat(0, c.precision, 0);
        EXPECT_EQ(written(c.fileType, c.version, c.write), c.bytes);
    }
}

TEST_F(DxfGroups, PointsWriteZByVersionAndSwitch)
{
    const struct {
        int16_t version, writeZeroZ;
        double z;
        bool varZ, keepZ;
    } cases[] = {
        {3, 0, 0.0, false, true}, {3, 1, 0.0, true, true},  {3, 0, -0.0, false, true},
        {7, 0, 2.0, true, true},  {2, 1, 0.0, false, false}, {2, 0, 2.0, false, true},
    };
    for (const auto& c : cases) {
        ksDxfSetFormat(0, 6, c.writeZeroZ);
        const auto hasZ = [&](const Body& write) {
            return written(1, c.version, write).find(" 30\r\n") != std::string::npos;
        };
        EXPECT_EQ(hasZ([&](ksFcb* t) { ksDxfWritePointVar(t, {1, 2, c.z}, 10); }), c.varZ) << c.version;
        EXPECT_EQ(hasZ([&](ksFcb* t) { ksDxfWritePointKeepZ(t, 10, {1, 2, c.z}); }), c.keepZ) << c.version;
    }
}

TEST_F(DxfGroups, ShortNames)
{
    const std::string coded5 = "\\U+00E9\\U+00E8\\U+00E7\\U+00E6\\U+00E5";
    const struct {
        std::string name;
        int32_t limit, index;
        std::string text;
    } cases[] = {
        {"my layer", 26, 3, "MY_LAYER"},
        {"(a)\xBD", 26, 0, "_A__"},
        {"abcdefghijklmnopqrstuvwxyz0123", 26, 12, "ABCDEFGHIJKLMNOPQRSTUVWX12"},
        {"abcdefghijklmnopqrstuvwxyz", 26, 12, "ABCDEFGHIJKLMNOPQRSTUVWXYZ"},
        {coded5, 3, 7, coded5.substr(0, 14)},
        {coded5, 5, 7, coded5},
    };
    for (const auto& c : cases) {
        char out[128];
        EXPECT_EQ(std::string(out, ksDxfShortName(c.name.c_str(), c.name.size(), c.limit, c.index, out)), c.text);
    }

    // A block that external reference symbols name gets the room they leave
    // it, as the prefix of a symbol and as a name of its own alike; the
    // block is found in any case, with its place as the index.
    for (const char* name : {"OTHER", "PLANNING"}) {
        ksBlockHeader block{};
        std::strcpy(block.name, name);
        block.entryHandle = ksHandleFromU64(0x40 + std::strlen(name));
        ASSERT_EQ(ksBlockHeaderAdd(fcb, &block), 1);
    }
    ksObjHandle planning{};
    ASSERT_EQ(ksBlockHeaderFind(fcb, "PLANNING", &planning), 1);
    zt::Bytes entry(ksXrefNameEntrySize, 0);
    std::memcpy(entry.data(), planning.bytes, 8);
    std::memcpy(entry.data() + 8, "Planning", 8);
    entry[ksXrefNameRoomOffset] = 4;
    fcb->xrefNames = zt::blobOf(entry);
    fcb->xrefNameCount = 1;
    const auto name = [&](int16_t version, const char* text, int32_t index = 9) {
        return written(1, version, [&](ksFcb* t) { ksDxfWriteName(fcb, t, 8, text, index); });
    };
    EXPECT_EQ(name(4, "planning|wall (new)"), "  8\r\nPLA1|WALL__NEW_\r\n");
    EXPECT_EQ(name(4, "PLANNING", 1), "  8\r\nPLA1\r\n");
    EXPECT_EQ(name(6, "Planning", 1), "  8\r\nPLA1\r\n");
    EXPECT_EQ(name(4, "other|a b"), "  8\r\nOTHER|A_B\r\n");
    EXPECT_EQ(name(4, "other"), "  8\r\nOTHER\r\n");
    EXPECT_EQ(name(4, "no block|a b"), "  8\r\nNO_BLOCK|A_B\r\n");
    EXPECT_EQ(name(7, "planning|wall (new)"), "  8\r\nplanning|wall (new)\r\n");
    EXPECT_EQ(name(7, "PLANNING"), "  8\r\nPLANNING\r\n");
}

// A group as a reader has it: the code, texts as text, numbers as numbers.
struct Group {
    int code;
    std::string text;
    double number;
};

// Value sizes by code, as readers of binary files take them.
int valueSize(int c)
{
    const auto in = [c](int a, int b) { return c >= a && c <= b; };
    if (in(10, 59) || in(110, 149) || in(210, 239) || in(1010, 1059))
        return 8;
    if (in(290, 299))
        return 1;
    if (in(60, 79) || in(170, 179) || in(270, 289) || in(370, 389) || in(400, 409) || in(1060, 1070))
        return 2;
    return in(90, 99) || c == 1071 ? 4 : c == 310 || c == 1004 ? -1 : 0;  // -1 chunk, 0 text
}

std::vector<Group> parseAscii(const std::string& s)
{
    std::vector<Group> groups;
    for (size_t at = 0, end = 0; at < s.size(); at = end + 2) {
        const size_t codeEnd = s.find("\r\n", at);
        end = s.find("\r\n", codeEnd + 2);
        Group g{std::stoi(s.substr(at, codeEnd - at)), s.substr(codeEnd + 2, end - codeEnd - 2), 0};
        if (valueSize(g.code) > 0)
            g.number = std::stod(g.text);
        groups.push_back(g);
    }
    return groups;
}

std::vector<Group> parseBinary(const std::string& s, int version)
{
    std::vector<Group> groups;
    const auto* b = reinterpret_cast<const uint8_t*>(s.data());
    const auto little = [&](size_t at, int n, uint64_t v = 0) {
        while (n-- > 0)
            v = v << 8 | b[at + n];
        return v;
    };
    for (size_t at = 0; at < s.size();) {
        int code = b[at++];
        if (version >= ksAC1012)
            code |= b[at++] << 8;
        else if (code == 255)
            code = static_cast<int>(little(at, 2)), at += 2;
        Group g{static_cast<int16_t>(code), "", 0};
        const int size = valueSize(g.code);
        if (size == 8)
            g.number = std::bit_cast<double>(little(at, 8));
        else if (size > 0)
            g.number = size == 1   ? static_cast<int8_t>(b[at])
                       : size == 2 ? static_cast<int16_t>(little(at, 2))
                                   : static_cast<int32_t>(little(at, 4));
        else if (size < 0)
            for (int n = b[at++]; n > 0; --n)
                g.text += "0123456789ABCDEF"[b[at] >> 4], g.text += "0123456789ABCDEF"[b[at++] & 15];
        else
            g.text = s.c_str() + at, at += g.text.size() + 1;
        at += size > 0 ? size : 0;
        groups.push_back(g);
    }
    return groups;
}

TEST_F(DxfGroups, AsciiAndBinaryReadBackAlike)
{
    const uint8_t chunk[] = {1, 2, 0xFE};
    const Body groups = [&](ksFcb* t) {
        ksDxfWriteText(t, 0, "LINE");
        ksDxfWriteHandle(t, 5, ksHandleFromU64(0x1F2E));
        ksDxfWriteName(fcb, t, 8, "WALLS", 3);
        ksDxfWriteInt16(t, 62, 7);
        ksDxfWriteInt16(t, 290, 1);
        ksDxfWriteInt16(t, 370, -3);
        ksDxfWritePoint3(t, 10, {1.25, -3.5e-9, 123456.789});
        ksDxfWritePoint3Full(t, 11, {0.1, 2.0 / 3, -1e17});
        ksDxfWriteAngle(t, 50, 1.0);
        ksDxfWriteInt32(t, 90, -70000);
        ksDxfWriteBytes(t, 310, chunk, 3);
        ksDxfWriteText(t, 1001, "APP");
        ksDxfWriteChar(t, 1002, '{');
        ksDxfWriteCoded(t, 1000, "two\nlines");
        ksDxfWriteInt16(t, 1070, -3);
        ksDxfWriteInt32(t, 1071, 1 << 30);
        ksDxfWriteText(t, 999, std::string(100000, 'x').c_str());  // longer than any buffer but the open output's
        ksDxfWriteText(t, 0, "EOF");
    };
    ksDxfSetFormat(0, 6, 0);
    const std::string text = written(1, ksAC1014, groups);
    EXPECT_EQ(written(1, ksAC1014, groups, false), text);
    const auto fromText = parseAscii(text);
    for (int16_t version : {ksAC1009, ksAC1015}) {
        const std::string binary = written(2, version, groups);
        EXPECT_EQ(written(2, version, groups, false), binary);
        const auto fromBinary = parseBinary(binary, version);
        ASSERT_EQ(fromBinary.size(), fromText.size());
        for (size_t i = 0; i < fromText.size(); ++i) {
            const Group &a = fromText[i], &b = fromBinary[i];
            EXPECT_EQ(a.code, b.code) << "group " << i;
            if (valueSize(a.code) > 0)
                EXPECT_NEAR(a.number, b.number, 5e-7 + std::fabs(b.number) * 1e-6) << "group " << i;
            else
                EXPECT_EQ(a.text, b.text) << "group " << i;
        }
    }
}

int handlerCalls = 0;
int16_t handlerSeverity = 0;

TEST_F(DxfGroups, RefusedBytesFailTheGroup)
{
    for (bool withHandler : {false, true}) {
        handlerCalls = handlerSeverity = 0;
        const ksSeverityHook hook = [](int16_t severity) { ++handlerCalls, handlerSeverity = severity; };
        ksG->errorHandler = withHandler ? hook : nullptr;
        auto target = std::make_unique<ksFcb>();
        target->fileType = 1;
        target->outputFile = std::fopen("/dev/full", "wb");
        ASSERT_NE(target->outputFile, nullptr);
        std::setvbuf(target->outputFile, nullptr, _IONBF, 0);
        EXPECT_EQ(ksDxfWriteText(target.get(), 0, "SECTION"), 0);
        EXPECT_EQ(ksG->errorNumber, 27);
        ASSERT_EQ(ksDxfOpenOutput(target.get()), 1);
        EXPECT_EQ(ksDxfWriteText(target.get(), 0, "SECTION"), 1);  // still in the buffer
        EXPECT_EQ(ksDxfCloseOutput(target.get()), 0);
        EXPECT_EQ(ksG->errorNumber, 27);
        EXPECT_EQ(handlerCalls, withHandler ? 2 : 0);
        EXPECT_EQ(handlerSeverity, withHandler ? 3 : 0);
        std::fclose(target->outputFile);
    }
}

}  // namespace
