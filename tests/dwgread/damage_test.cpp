// Damaged R13-R2000 drawings: real files cut at many places and with bytes
// flipped. Each case loads or fails with an error number; none crashes,
// hangs or reads outside the file (the sanitizer build checks the last).
#include <gtest/gtest.h>

#include <random>

#include "frame/globals.h"
#include "frame/load.h"
#include "frame/readerops.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

// Drawings whose whole content the reader takes.
constexpr const char* kFiles[] = {
    "dwg/AC1014/line_R14.dwg",
    "dwg/AC1015/line_2000.dwg",
    "dwg/AC1015/Constraints.dwg",
};

// The object map's position: locator 2 of the file header.
uint32_t objectMapPosition(const std::vector<uint8_t>& bytes)
{
    const size_t at = 25 + 2 * 9 + 1;
    return uint32_t{bytes[at]} | uint32_t{bytes[at + 1]} << 8 | uint32_t{bytes[at + 2]} << 16 |
           uint32_t{bytes[at + 3]} << 24;
}

class DamagedDwg : public zt::ToolkitTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(zt::ToolkitTest::SetUp());
        ksInstallDwgReader();
    }
    // 1 when the bytes load; 0 with the error number, which must be set.
    int load(const std::vector<uint8_t>& bytes, int32_t* error)
    {
        const zt::fs::path file = dir_ / "damaged.dwg";
        zt::writeFile(file, bytes);
        ksFcb* fcb = ksLoadDrawing(file.c_str(), 1, 0);
        *error = ksG->errorNumber;
        if (fcb == nullptr)
            return 0;
        ksCloseDrawing(fcb);
        return 1;
    }
    zt::TempDir dir_;
};

TEST_F(DamagedDwg, CutAnywhereFailsBeforeTheMapEnds)
{
    ZT_REQUIRE_CORPUS();
    for (const char* name : kFiles) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> whole = zt::readFile(zt::corpusDir() / name);
        int32_t error = 0;
        ASSERT_EQ(load(whole, &error), 1) << "error " << error;
        const uint32_t map = objectMapPosition(whole);
        // Every cut short of the map loses an object or the map itself.
        const size_t step = std::max<size_t>(1, whole.size() / 150);
        for (size_t cut = 0; cut < whole.size(); cut += step) {
            const std::vector<uint8_t> part(whole.begin(), whole.begin() + static_cast<long>(cut));
            const int loaded = load(part, &error);
            if (cut <= map) {
                EXPECT_EQ(loaded, 0) << "cut at " << cut;
            }
            if (!loaded) {
                EXPECT_NE(error, 0) << "cut at " << cut;
            }
        }
    }
}

TEST_F(DamagedDwg, FlippedBytesLoadOrFail)
{
    ZT_REQUIRE_CORPUS();
    std::mt19937 rng(11);
    for (const char* name : kFiles) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> whole = zt::readFile(zt::corpusDir() / name);
        for (int i = 0; i < 120; ++i) {
            std::vector<uint8_t> bytes = whole;
            // One to four bytes, anywhere behind the version string.
            for (int n = 1 + static_cast<int>(rng() % 4); n > 0; --n)
                bytes[6 + rng() % (bytes.size() - 6)] ^= static_cast<uint8_t>(1 + rng() % 255);
            int32_t error = 0;
            if (!load(bytes, &error)) {
                EXPECT_NE(error, 0) << "case " << i;
            }
        }
    }
}

}  // namespace
