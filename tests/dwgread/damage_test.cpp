// Damaged R13-R2000 drawings: real files cut at many places and with bytes
// flipped. Each case loads or fails with an error number; none crashes,
// hangs, runs away on a count or reads outside the file (the sanitizer
// build checks the last).
#include <gtest/gtest.h>

#include <random>

#include "dwgread/dwgfile.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "support/dwgtest.h"

namespace {

using namespace zt;

// Drawings whose whole content the reader takes.
constexpr const char* kWhole[] = {"dwg/AC1014/line_R14.dwg", "dwg/AC1015/line_2000.dwg", "dwg/AC1015/Constraints.dwg",
                                  "dwg/AC1012/example_r13.dwg"};

// Drawings with hatches, dimensions, proxies, OLE frames and solid models.
constexpr const char* kComplex[] = {"dwg/AC1012/example_r13.dwg", "dwg/AC1014/acadsharp_samples_3_sample_AC1014.dwg",
                                    "dwg/AC1015/TS1.dwg"};

class DamagedDwg : public DwgLoadTest {
protected:
    // 1 when the bytes load; 0 with the error number, which must be set.
    int load(const std::vector<uint8_t>& bytes)
    {
        writeFile(dir / "damaged.dwg", bytes);
        ksFcb* loaded = ksLoadDrawing((dir / "damaged.dwg").c_str(), 1, 0);
        EXPECT_TRUE(loaded || ksG->errorNumber != 0);
        if (loaded)
            ksCloseDrawing(loaded);
        return loaded != nullptr;
    }
    TempDir dir;
};

TEST_F(DamagedDwg, CutAnywhereFailsBeforeTheMapEnds)
{
    ZT_REQUIRE_CORPUS();
    for (const char* name : kWhole) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> whole = readFile(corpusDir() / name);
        ASSERT_EQ(load(whole), 1) << "error " << ksG->errorNumber;
        // Every cut short of the object map (locator 2 of the file header)
        // loses an object or the map itself.
        const uint8_t* at = whole.data() + 25 + 2 * 9 + 1;
        const uint32_t map = at[0] | at[1] << 8 | at[2] << 16 | uint32_t{at[3]} << 24;
        for (size_t cut = 0; cut < whole.size(); cut += std::max<size_t>(1, whole.size() / 150)) {
            const int loaded = load({whole.begin(), whole.begin() + long(cut)});
            EXPECT_TRUE(cut > map || !loaded) << "cut at " << cut;
        }
    }
}

// One to four bytes anywhere behind the version string of drawings read
// whole; and one to three inside the table entries of drawings with many
// tables, through the table phases.
TEST_F(DamagedDwg, FlippedBytesLoadOrFail)
{
    ZT_REQUIRE_CORPUS();
    std::mt19937 rng(11);
    for (const char* name : kWhole) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> whole = readFile(corpusDir() / name);
        for (int i = 0; i < 120; ++i) {
            std::vector<uint8_t> bytes = whole;
            for (int n = 1 + int(rng() % 4); n > 0; --n)
                bytes[6 + rng() % (bytes.size() - 6)] ^= uint8_t(1 + rng() % 255);
            load(bytes);
        }
    }
    for (const char* name : {"dwg/AC1012/example_r13.dwg", "dwg/AC1014/acadsharp_sample_AC1014.dwg",
                             "dwg/AC1015/acadsharp_sample_AC1015.dwg"}) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> whole = readFile(corpusDir() / name);
        ASSERT_EQ(open(corpusDir() / name, DwgPhases::tables), "");
        // Each entry's bytes behind its size word.
        std::vector<std::pair<uint32_t, uint32_t>> spans;
        ksDwgState& st = *ksDwg(fcb);
        for (int table = 0; table < ksTableHeadCount; ++table) {
            ksBeginTable(fcb, table);
            for (const ksObjHandle& h : st.tableEntries)
                if (ksSeekHandle(fcb, h) && st.pos + 4 < whole.size())
                    spans.emplace_back(st.pos + 2, std::min<uint32_t>(whole[st.pos] | (whole[st.pos + 1] & 0x7f) << 8,
                                                                      uint32_t(whole.size()) - st.pos - 2));
        }
        ASSERT_GT(spans.size(), 20u);
        for (int round = 0; round < 80; ++round) {
            std::vector<uint8_t> bytes = whole;
            const auto [from, size] = spans[rng() % spans.size()];
            for (int flips = 1 + int(rng() % 3); flips > 0 && size > 0; --flips)
                bytes[from + rng() % size] ^= uint8_t(1 + rng() % 255);
            writeFile(dir / "damaged.dwg", bytes);
            if (const std::string failure = open(dir / "damaged.dwg", DwgPhases::tables); !failure.empty()) {
                EXPECT_NE(ksG->errorNumber, 0) << "round " << round << ": " << failure;
            }
        }
    }
}

// Bytes flipped inside the entities that have more to them than a few
// fields (complex, class and proxy entities): the whole load either takes
// the drawing or fails with a number.
TEST_F(DamagedDwg, FlippedComplexEntitiesLoadOrFail)
{
    ZT_REQUIRE_CORPUS();
    std::mt19937 rng(23);
    for (const char* name : kComplex) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> whole = readFile(corpusDir() / name);
        ASSERT_EQ(open(corpusDir() / name, DwgPhases::tables), "");
        std::vector<std::pair<uint32_t, uint32_t>> spans;
        ksDwgState& st = *ksDwg(fcb);
        for (const ksDwgMapEntry& e : st.map) {
            st.pos = e.location;
            const int type = ksPeekObjectType(fcb);
            const bool complex = (type >= 7 && type <= 16) || (type >= 20 && type <= 26) || type == 34 ||
                                 (type >= 36 && type <= 39) || (type >= 44 && type <= 47) || type >= 74;
            if (complex && e.location + 4 < whole.size())
                spans.emplace_back(e.location + 2,
                                   std::min<uint32_t>(whole[e.location] | (whole[e.location + 1] & 0x7f) << 8,
                                                      uint32_t(whole.size()) - e.location - 2));
        }
        ASSERT_GT(spans.size(), 20u);
        int loaded = 0;
        for (int round = 0; round < 100; ++round) {
            std::vector<uint8_t> bytes = whole;
            const auto [from, size] = spans[rng() % spans.size()];
            for (int flips = 1 + int(rng() % 3); flips > 0 && size > 0; --flips)
                bytes[from + rng() % size] ^= uint8_t(1 + rng() % 255);
            loaded += load(bytes);
        }
        std::printf("%s: %d of 100 damaged copies load\n", name, loaded);
    }
}

}  // namespace
