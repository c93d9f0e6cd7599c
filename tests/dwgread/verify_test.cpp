// CRC verification of R13-R2000 files: every corpus file checks clean, and
// a changed byte is found in the class section or in the object it hits.
#include <gtest/gtest.h>

#include "driver/hooks.h"
#include "dwgread/dwgfile.h"
#include "frame/globals.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

class VerifyDwg : public zt::ToolkitTest {
protected:
    int16_t verify(const zt::fs::path& file, int16_t level = 1)
    {
        ksStream* in = ksFileOpenRead(file.c_str());
        EXPECT_NE(in, nullptr) << file;
        const int16_t result = ksVerifyFile(in, level);
        ksFileClose(in);
        return result;
    }
    uint32_t locator(const std::vector<uint8_t>& bytes, int place)
    {
        const size_t at = 25 + 9 * place + 1;
        return bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | uint32_t{bytes[at + 3]} << 24;
    }
    zt::TempDir dir_;
};

TEST_F(VerifyDwg, CorpusClean)
{
    ZT_REQUIRE_CORPUS();
    int checked = 0;
    for (const zt::CorpusEntry& e : zt::corpusManifest()) {
        if (!e.path.starts_with("dwg/AC101"))
            continue;
        EXPECT_EQ(verify(zt::corpusDir() / e.path), 0) << e.path;
        ++checked;
    }
    EXPECT_GT(checked, 50);
}

TEST_F(VerifyDwg, ChangedBytesFound)
{
    ZT_REQUIRE_CORPUS();
    const std::vector<uint8_t> whole = zt::readFile(zt::corpusDir() / "dwg/AC1015/line_2000.dwg");
    const zt::fs::path file = dir_ / "changed.dwg";
    struct Case {
        const char* what;
        uint32_t at;
        int16_t level;
        int16_t result;
    } cases[] = {
        {"class section body", locator(whole, 1) + 16 + 4 + 3, 1, 202},
        {"an object's data", locator(whole, 2) - 40, 1, 201},
        {"nothing at level 2", locator(whole, 2) - 40, 2, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<uint8_t> bytes = whole;
        bytes[c.at] ^= 0x5a;
        zt::writeFile(file, bytes);
        EXPECT_EQ(verify(file, c.level), c.result);
    }
    zt::writeFile(file, std::string("AC1009") + std::string(100, '\0'));
    EXPECT_EQ(verify(file), -1);
}

}  // namespace
