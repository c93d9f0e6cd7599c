// Writes the init data file (ksinit.dat) that the toolkit needs to start:
// two small shape fonts of our own and our code page tables. The build
// runs it; the program carries no copy of the data.
//
//   zem_mkinit <output path>
//
// Layout, little-endian: signature text ending in 'G' and a zero byte; two
// 32-bit words; font index 1 (100 x 16-bit number, 32-bit offset); font
// data 1 (4998 bytes); font index 2 (103 entries); font data 2 (4832
// bytes); 16-bit page count; per page an 8-byte directory entry (32-bit
// page number, 16-bit single-byte count, 16-bit extended count); per page
// 256 16-bit values, then the extended keys and the extended values.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr char kSignature[] = "ZEMACAD init data, revision G";
constexpr int kFont1Entries = 100;
constexpr int kFont2Entries = 103;
constexpr size_t kFont1Size = 4998;
constexpr size_t kFont2Size = 4832;

// Code page numbers of the name list with a table: 2 ("iso8859-1") to 41.
constexpr int kFirstPage = 2;
constexpr int kLastPage = 41;
constexpr int kIso8859_1 = 2;
constexpr int kAnsi1252 = 30;
constexpr int kDos932 = 22;
constexpr int kAnsi932 = 38;

struct Bytes {
    std::vector<uint8_t> data;
    void u8(unsigned v) { data.push_back(static_cast<uint8_t>(v)); }
    void u16(unsigned v) { u8(v & 0xFF), u8(v >> 8 & 0xFF); }
    void u32(uint32_t v) { u16(v & 0xFFFF), u16(v >> 16); }
    void text(const std::string& s) { data.insert(data.end(), s.begin(), s.end()); }
};

// A font: index entries and one data block. Each shape is its name, a
// zero byte, a few vector codes (a square whose size follows the shape
// number) and the end code 0.
void writeFont(Bytes& out, const char* prefix, int entries, size_t dataSize, unsigned firstNumber)
{
    Bytes body;
    std::vector<uint32_t> offsets;
    for (int i = 0; i < entries; ++i) {
        offsets.push_back(static_cast<uint32_t>(body.data.size()));
        char name[16];
        std::snprintf(name, sizeof name, "%s%03d", prefix, i);
        body.text(name);
        body.u8(0);
        unsigned length = 1 + i % 15;   // vector length 1..15
        body.u8(1);                      // pen down
        for (unsigned direction : {0u, 4u, 8u, 12u})
            body.u8(length << 4 | direction);
        body.u8(2);                      // pen up
        body.u8(0);                      // end of shape
    }
    if (body.data.size() > dataSize) {
        std::fprintf(stderr, "zem_mkinit: font %s does not fit in %zu bytes\n", prefix, dataSize);
        std::exit(1);
    }
    body.data.resize(dataSize, 0);
    for (int i = 0; i < entries; ++i) {
        out.u16(firstNumber + i);
        out.u32(offsets[i]);
    }
    out.data.insert(out.data.end(), body.data.begin(), body.data.end());
}

// Single-byte table of a page: ASCII as itself; the upper half as far as
// we define it, U+FFFD elsewhere.
std::vector<uint16_t> singleByteTable(int page)
{
    static constexpr uint16_t kAnsi1252High[32] = {
        0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
        0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD, 0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
        0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178,
    };
    std::vector<uint16_t> table(256);
    for (unsigned c = 0; c < 256; ++c) {
        if (c < 128 || page == kIso8859_1)
            table[c] = static_cast<uint16_t>(c);
        else if (page == kAnsi1252)
            table[c] = c < 0xA0 ? kAnsi1252High[c - 0x80] : static_cast<uint16_t>(c);
        else
            table[c] = 0xFFFD;
    }
    return table;
}

// Double-byte pages carry a few Shift-JIS pairs in their extended table.
std::vector<std::pair<uint16_t, uint16_t>> extendedTable(int page)
{
    if (page != kDos932 && page != kAnsi932)
        return {};
    return {{0x8140, 0x3000}, {0x8141, 0x3001}, {0x8142, 0x3002}, {0x8143, 0xFF0C}, {0x8144, 0xFF0E}};
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: zem_mkinit <output path>\n");
        return 2;
    }
    Bytes out;
    out.text(kSignature);
    out.u8(0);
    out.u32(0x5A454D00);  // not read by the toolkit
    out.u32(1);
    writeFont(out, "SX", kFont1Entries, kFont1Size, 32);
    writeFont(out, "GD", kFont2Entries, kFont2Size, 32);

    out.u16(kLastPage - kFirstPage + 1);
    for (int page = kFirstPage; page <= kLastPage; ++page) {
        out.u32(static_cast<uint32_t>(page));
        out.u16(256);
        out.u16(static_cast<unsigned>(extendedTable(page).size()));
    }
    for (int page = kFirstPage; page <= kLastPage; ++page) {
        for (uint16_t v : singleByteTable(page))
            out.u16(v);
        auto extended = extendedTable(page);
        for (auto [key, value] : extended)
            out.u16(key);
        for (auto [key, value] : extended)
            out.u16(value);
    }

    std::FILE* file = std::fopen(argv[1], "wb");
    if (file == nullptr || std::fwrite(out.data.data(), 1, out.data.size(), file) != out.data.size() ||
        std::fclose(file) != 0) {
        std::fprintf(stderr, "zem_mkinit: can't write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
