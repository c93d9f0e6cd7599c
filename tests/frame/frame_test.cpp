// The toolkit frame: error texts, start and stop, init data, file search.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fonts/shapes.h"
#include "frame/globals.h"
#include "store/handles.h"

namespace fs = std::filesystem;

namespace {

// Builds init data files: a valid one by default, with knobs for the
// faults worth testing.
struct InitImage {
    std::string signature = "TEST G";
    int pages = 2;
    std::vector<uint16_t> extended = {0x8140, 0x8141};  // keys of page 3; values key + 1

    std::vector<uint8_t> bytes() const
    {
        std::vector<uint8_t> out(signature.begin(), signature.end());
        out.push_back(0);
        auto u16 = [&](unsigned v) { out.push_back(v & 0xFF), out.push_back(v >> 8 & 0xFF); };
        auto u32 = [&](uint32_t v) { u16(v & 0xFFFF), u16(v >> 16); };
        u32(0), u32(0);
        for (int i = 0; i < 100; ++i)
            u16(200 + i), u32(10 * i);
        out.resize(out.size() + 4998, 0x11);
        for (int i = 0; i < 103; ++i)
            u16(300 + i), u32(0);
        out.resize(out.size() + 4832, 0x22);
        u16(pages);
        for (int p = 0; p < pages; ++p)
            u32(0), u16(256), u16(p == 1 ? extended.size() : 0);
        for (int p = 0; p < pages; ++p) {
            for (unsigned c = 0; c < 256; ++c)
                u16(p == 0 ? c : 0x1000 + c);
            if (p == 1) {
                for (uint16_t k : extended)
                    u16(k);
                for (uint16_t k : extended)
                    u16(k + 1);
            }
        }
        return out;
    }
};

class FrameTest : public ::testing::Test {
protected:
    fs::path dir;

    void SetUp() override
    {
        dir = fs::temp_directory_path() /
              ("zem-frame-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir);
    }
    void TearDown() override
    {
        ksShutdown();
        fs::remove_all(dir);
    }

    std::string write(const std::string& name, const std::vector<uint8_t>& data)
    {
        fs::path p = dir / name;
        std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(data.data()), data.size());
        return p.string();
    }

    int16_t init(const std::vector<uint8_t>& data)
    {
        int16_t error = -1;
        int16_t ok = ksInit(write("ksinit.dat", data).c_str(), 0, &error);
        EXPECT_EQ(ok != 0, error == 0);
        return ok ? 0 : error;
    }
};

TEST(ErrorMessage, TextsPrefixesAndRange)
{
    struct Case {
        int16_t number;
        const char* text;
    } cases[] = {
        {0, "No error"},
        {1, "Can't allocate control block"},             // prefix "Can't allocate "
        {3, "Can't open file"},                          // prefix "Can't "
        {45, "Error loading linetypes"},
        {97, "Error deleting entity xdata"},
        {102, "Error freeing regapp"},
        {206, "Error allocating parent buffer"},
        {59, "Can't resolve header layer"},
        {9, "Error in xdata read malloc"},
        {4, "Error reading header"},
        {38, "Attempt to allocate 0 bytes"},
        {182, "Unable to open init file"},
        {275, "Can't allocate ks3 ctrl blocks"},
        {272, "Can't allocate temp kshd"},
        {284, "Can't allocate KT internal data"},
        {306, "Save attempted to incompatible version"},
        {307, "Error number out of range"},
        {-1, "Error number out of range"},
        {32767, "Error number out of range"},
    };
    for (const Case& c : cases)
        EXPECT_STREQ(ksErrorMessage(c.number), c.text) << c.number;
    for (int16_t n = 0; n < ksErrorCount; ++n) {
        std::string text = ksErrorMessage(n);
        EXPECT_GE(text.size(), 7u) << n;
        EXPECT_GE(static_cast<unsigned char>(text[0]), 'A') << n;
    }
}

TEST(ErrorMessage, PrefixedTextsShareOneBuffer)
{
    const char* first = ksErrorMessage(3);
    std::string copy = first;
    const char* second = ksErrorMessage(45);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "Error loading linetypes");
    EXPECT_EQ(copy, "Can't open file");
}

TEST_F(FrameTest, InitShutdownAndDefaults)
{
    ASSERT_EQ(init(InitImage{}.bytes()), 0);
    ASSERT_NE(ksG, nullptr);
    EXPECT_EQ(ksG->errorNumber, 0);
    EXPECT_EQ(ksG->allowBetaFiles, 1);
    EXPECT_EQ(ksG->convertPolylines, 1);
    EXPECT_EQ(ksG->writeBlockSize, 4096);
    EXPECT_EQ(ksG->dxfPrecision, 6);
    EXPECT_STREQ(ksG->dxfIntegerFormat, "%6d");
    EXPECT_STREQ(ksG->dxfRealFormat, "%.6f");
    EXPECT_STREQ(ksG->dxfExpFormat, "%.6lE");
    EXPECT_DOUBLE_EQ(ksG->dxfScale, 1e6);
    EXPECT_DOUBLE_EQ(ksG->dxfHalfUnitRadians, 5e-07 / 57.295779513082195);
    EXPECT_EQ(ksHandleToU64(ksG->firstHandle), 1u);
    EXPECT_TRUE(ksHandleIsNull(ksG->nullHandle));
    EXPECT_EQ(ksG->findFile, &ksFindFileDefault);
    EXPECT_EQ(ksG->loadProgress, nullptr);

    // The two built-in fonts point into the init data.
    ASSERT_NE(ksG->simplexFont, nullptr);
    EXPECT_STREQ(ksG->simplexFont->name, "SIMPLEX.SHX");
    EXPECT_EQ(ksG->simplexFont->shapeCount, 100);
    EXPECT_EQ(ksG->simplexFont->beforeCount, 258);
    EXPECT_EQ(ksG->simplexFont->index[99].number, 299);
    EXPECT_EQ(ksG->simplexFont->index[99].offset, 990);
    EXPECT_STREQ(ksG->gdtFont->name, "GDT.SHX");
    EXPECT_EQ(ksG->gdtFont->shapeCount, 103);
    EXPECT_EQ(ksG->gdtFont->data[4831], 0x22);

    ksShutdown();
    EXPECT_EQ(ksG, nullptr);
    ksShutdown();  // harmless the second time
    EXPECT_EQ(ksStopLoad(), 0);  // setters of the block need it up
}

TEST_F(FrameTest, InitFailures)
{
    int16_t error = 0;
    EXPECT_EQ(ksInit(nullptr, 0, &error), 0);
    EXPECT_EQ(error, 295);
    EXPECT_EQ(ksG, nullptr);

    EXPECT_EQ(ksInit((dir / "missing.dat").c_str(), 0, &error), 0);
    EXPECT_EQ(error, 182);
    EXPECT_EQ(ksG, nullptr);

    InitImage badSignature;
    badSignature.signature = "TEST F";
    EXPECT_EQ(init(badSignature.bytes()), 183);
    EXPECT_EQ(ksG, nullptr);

    InitImage empty;
    empty.signature = "";
    EXPECT_EQ(init(empty.bytes()), 183);
    EXPECT_EQ(init({}), 183);            // no zero byte at all
    EXPECT_EQ(init({'G'}), 183);         // runs out before the zero

    InitImage tooMany;
    tooMany.pages = 51;
    EXPECT_EQ(init(tooMany.bytes()), 183);
}

TEST_F(FrameTest, InitDataEdges)
{
    InitImage g;
    g.signature = std::string(3000, 'x') + "G";  // only the last byte counts
    g.pages = 0;
    ASSERT_EQ(init(g.bytes()), 0);
    EXPECT_EQ(ksG->init.codePageCount, 0);
    uint16_t out = 0;
    EXPECT_EQ(ksCodeToUnicode(2, 65, &out), 0);
    ksShutdown();

    // A file cut short after the fonts still loads: the rest reads as zero.
    std::vector<uint8_t> shortFile = InitImage{}.bytes();
    shortFile.erase(shortFile.end() - 700, shortFile.end());
    ASSERT_EQ(init(shortFile), 0);
    EXPECT_EQ(ksCodeToUnicode(3, 255, &out), 1);
    EXPECT_EQ(out, 0);
}

TEST_F(FrameTest, CodePageTables)
{
    ASSERT_EQ(init(InitImage{}.bytes()), 0);
    uint16_t out = 0;
    EXPECT_EQ(ksCodeToUnicode(2, 'A', &out), 1);
    EXPECT_EQ(out, 'A');
    EXPECT_EQ(ksCodeToUnicode(3, 'A', &out), 1);
    EXPECT_EQ(out, 0x1041);
    EXPECT_EQ(ksCodeToUnicode(3, 0x8141, &out), 1);
    EXPECT_EQ(out, 0x8142);
    EXPECT_EQ(ksCodeToUnicode(3, 0x8150, &out), 0);  // no such key
    EXPECT_EQ(ksCodeToUnicode(2, 0x8140, &out), 0);  // page without extended codes
    EXPECT_EQ(ksCodeToUnicode(1, 'A', &out), 0);     // "ascii" has no table
    EXPECT_EQ(ksCodeToUnicode(4, 'A', &out), 0);     // beyond the pages

    EXPECT_EQ(ksUnicodeToCode(0x1041, 3, &out), 1);
    EXPECT_EQ(out, 'A');
    EXPECT_EQ(ksUnicodeToCode(0x8141, 3, &out), 1);
    EXPECT_EQ(out, 0x8140);
    EXPECT_EQ(ksUnicodeToCode(0x9999, 3, &out), 0);
}

// The init data through the four hooks instead of a file.
std::vector<uint8_t> hookData;
size_t hookPos;
int hookCloses;

TEST_F(FrameTest, InitThroughHooks)
{
    hookData = InitImage{}.bytes();
    hookPos = 0;
    hookCloses = 0;
    ksSetInitOpen([]() -> int16_t { return 1; });
    ksSetInitReadByte([]() -> int { return hookPos < hookData.size() ? hookData[hookPos++] : -1; });
    ksSetInitReadBlock([](void* buffer, int32_t size) -> int16_t {
        size_t n = std::min<size_t>(size, hookData.size() - hookPos);
        std::memcpy(buffer, hookData.data() + hookPos, n);
        hookPos += n;
        return 1;
    });
    ksSetInitClose([] { ++hookCloses; });
    int16_t error = -1;
    EXPECT_EQ(ksInit(nullptr, 1, &error), 1);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(hookPos, hookData.size());
    EXPECT_EQ(hookCloses, 1);
    uint16_t out;
    EXPECT_EQ(ksCodeToUnicode(3, 0x8140, &out), 1);
    EXPECT_EQ(out, 0x8141);
    ksShutdown();

    ksSetInitOpen([]() -> int16_t { return 0; });
    EXPECT_EQ(ksInit(nullptr, 1, &error), 0);
    EXPECT_EQ(error, 182);
    ksSetInitOpen(nullptr);
    ksSetInitReadByte(nullptr);
    ksSetInitReadBlock(nullptr);
    ksSetInitClose(nullptr);
}

TEST_F(FrameTest, FindFile)
{
    ASSERT_EQ(init(InitImage{}.bytes()), 0);
    char found[ksPathMax];
    char name[ksPathMax];

    // A name with a folder is taken as it stands, with the separators made
    // the platform's.
    std::strcpy(name, "c:\\fonts\\txt.shx");
    ksFindFileDefault(name, found, 0);
    EXPECT_STREQ(found, "c:/fonts/txt.shx");

    fs::create_directories(dir / "b");
    write("b/txt.shx", {1});
    std::string acad = "/nonexistent;" + (dir / "b").string();
    setenv("ACAD", acad.c_str(), 1);
    std::strcpy(name, "txt.shx");
    ksFindFileDefault(name, found, 0);
    EXPECT_EQ(std::string(found), (dir / "b" / "txt.shx").string());

    std::strcpy(name, "other.shx");  // found nowhere: the name itself
    ksFindFileDefault(name, found, 0);
    EXPECT_STREQ(found, "other.shx");

    std::strcpy(name, "c:txt.shx");  // a drive letter stops the search
    ksFindFileDefault(name, found, 0);
    EXPECT_STREQ(found, "c:txt.shx");
    unsetenv("ACAD");
}

TEST(CodePages, NamesAndIndexes)
{
    char buffer[32];
    EXPECT_EQ(ksCodePageName(0, buffer), 1);
    EXPECT_STREQ(buffer, "undefined");
    EXPECT_EQ(ksCodePageName(12, buffer), 1);
    EXPECT_STREQ(buffer, "dos850");
    EXPECT_EQ(ksCodePageName(41, buffer), 1);
    EXPECT_STREQ(buffer, "ansi_950");
    EXPECT_EQ(ksCodePageName(42, buffer), 0);
    EXPECT_EQ(ksCodePageName(-1, buffer), 0);

    int16_t index = -1;
    EXPECT_EQ(ksCodePageIndex("ANSI_1252", &index), 1);
    EXPECT_EQ(index, 30);
    EXPECT_EQ(ksCodePageIndex("Mac-Roman", &index), 1);
    EXPECT_EQ(index, 23);
    EXPECT_EQ(ksCodePageIndex("ansi_12", &index), 0);  // whole names only
}

TEST(TextCompare, FoldsAsciiLettersOnly)
{
    EXPECT_EQ(ksStrCompare("Continuous", "CONTINUOUS"), 0);
    EXPECT_EQ(ksStrCompare("a", "B"), -1);
    EXPECT_EQ(ksStrCompare("B", "a"), 1);
    EXPECT_EQ(ksStrCompare("ab", "a"), 1);
    EXPECT_NE(ksStrCompare("\xe9", "\xc9"), 0);  // no folding beyond ASCII
    EXPECT_EQ(ksStrNCompare("LAYER1", "layer2", 5), 0);
    EXPECT_EQ(ksStrCompare("[", "a"), 1);  // letters fold to upper case: "A" < "["
}

TEST(Handles, IncrementCarriesAndWraps)
{
    ksObjHandle h = ksHandleFromU64(0xFF);
    EXPECT_EQ(ksHandleIncrement(&h), 1);
    EXPECT_EQ(ksHandleToU64(h), 0x100u);
    h = ksHandleFromU64(UINT64_MAX);
    EXPECT_EQ(ksHandleIncrement(&h), 0);
    EXPECT_TRUE(ksHandleIsNull(h));
    EXPECT_EQ(ksHandleLength(ksHandleFromU64(0)), 0);
    EXPECT_EQ(ksHandleLength(ksHandleFromU64(0x1FF)), 2);
    EXPECT_LT(ksHandleCompare(ksHandleFromU64(0xFF), ksHandleFromU64(0x100)), 0);
}

}  // namespace
