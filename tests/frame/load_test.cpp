// The load sequence driven through a scripted reader table: phase order,
// error numbers, progress, stop requests, handle decisions and closing.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/readerops.h"
#include "records/header.h"
#include "store/handles.h"

namespace fs = std::filesystem;

namespace {

// What the scripted reader does; reset for every test.
struct Script {
    int16_t headerResult = 1;
    int16_t headerError = 0;         // a closer number set by the header reader
    uint8_t handlesEnabled = 0;
    uint64_t handleSeed = 0;
    int tableHead = -1;              // a table that reports one entry
    int stopAtProgress = -1;
    std::vector<int> progress;
    int headerCalls = 0;
};
Script script;

int16_t readHeader(ksFcb* fcb)
{
    ++script.headerCalls;
    if (script.headerError)
        ksG->errorNumber = script.headerError;
    fcb->handlesEnabled = script.handlesEnabled;
    fcb->handleSeed = ksHandleFromU64(script.handleSeed);
    if (script.tableHead >= 0)
        fcb->tableCount[script.tableHead] = 1;
    return script.headerResult;
}
int16_t start(ksFcb*) { return 1; }
int16_t noEntity(ksFcb*, ksEntityHeader*, void*, int16_t*) { return 0; }
int16_t noObject(ksFcb*) { return 0; }

void scriptedOps(ksReaderOps& ops)
{
    ops = ksReaderOps{};
    ops.readHeader = readHeader;
    ops.readEntity = noEntity;
    ops.nextObjectType = noObject;
    for (ksStartOp* slot : {&ops.startBlockEntities, &ops.startBlockHeaders, &ops.startClasses,
                            &ops.startDimStyles, &ops.startEntities, &ops.startLayers, &ops.startLinetypes,
                            &ops.startObjects, &ops.startRegApps, &ops.startShapeFiles, &ops.startUcses,
                            &ops.startViews, &ops.startVpEntHeaders, &ops.startVports})
        *slot = start;
}

class LoadTest : public ::testing::Test {
protected:
    fs::path dir;

    void SetUp() override
    {
        script = Script{};
        int16_t error = 0;
        ASSERT_EQ(ksInit(ZEMACAD_INIT_FILE, 0, &error), 1) << error;
        scriptedOps(ksG->dwgOps);
        scriptedOps(ksG->dxfOps);
        ksSetLoadProgress([](int16_t percent) {
            script.progress.push_back(percent);
            if (percent == script.stopAtProgress)
                ksStopLoad();
        });
        dir = fs::temp_directory_path() /
              ("zem-load-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
        fs::create_directories(dir);
    }
    void TearDown() override
    {
        ksShutdown();
        fs::remove_all(dir);
    }

    std::string file(const std::string& content, const std::string& name = "drawing")
    {
        fs::path p = dir / name;
        std::ofstream(p, std::ios::binary) << content;
        return p.string();
    }

    // A DWG start of the given release, padded past the detection window.
    std::string dwg(const char* version) { return file(std::string(version) + std::string(2100, '\0')); }
    std::string dxf(const char* version)
    {
        return file("  0\nSECTION\n  2\nHEADER\n  9\n$ACADVER\n  1\n" + std::string(version) + "\n  0\nENDSEC\n");
    }
};

TEST_F(LoadTest, EmptyDrawingRunsEveryPhase)
{
    ksFcb* out = nullptr;
    ksFcb* fcb = ksLoadDrawingInto(dwg("AC1015").c_str(), 1, 0, &out);
    ASSERT_NE(fcb, nullptr) << ksErrorMessage(ksErrorNumber());
    EXPECT_EQ(out, fcb);
    EXPECT_EQ(ksErrorNumber(), 0);
    // 71 and 83 before the entities of the two spaces, block 0 and 1 of 2.
    EXPECT_EQ(script.progress,
              (std::vector<int>{0, 0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 40, 46, 71, 71, 83, 96, 100}));
    EXPECT_EQ(fcb->ops, &ksG->dwgOps);
    EXPECT_EQ(fcb->fileVersion, ksAC1015);
    EXPECT_EQ(fcb->file, nullptr);  // closed at the end of the load
    EXPECT_EQ(fcb->loading, 0);
    EXPECT_EQ(fcb->sourceVersion, -1);
    EXPECT_EQ(fcb->makeEntityHandles, 0);
    // From 1: the five defaults that drew one, and the two spaces.
    EXPECT_EQ(ksHandleToU64(fcb->header->HANDSEED), 8u);
    EXPECT_EQ(ksCloseDrawing(fcb), 1);
}

TEST_F(LoadTest, EachFailureHasItsNumber)
{
    struct Case {
        const char* what;
        int tableHead;
        int stopAt;
        int16_t headerResult, headerError;
        int16_t expected;
    } cases[] = {
        {"stop before the header", -1, 0, 1, 0, 22},
        {"stop at 8 percent", -1, 8, 1, 0, 46},
        {"stop at 96 percent", -1, 96, 1, 0, 70},
        {"header refused", -1, -1, 0, 0, 22},
        {"header refused with a closer number", -1, -1, 0, 8, 8},
        {"linetypes", ksHeadLinetypes, -1, 1, 0, 45},
        {"layers", ksHeadLayers, -1, 1, 0, 46},
        {"viewports", ksHeadVports, -1, 1, 0, 48},
        {"text styles", ksHeadStyles, -1, 1, 0, 52},
        {"block headers", ksHeadBlocks, -1, 1, 0, 54},
        {"dimension styles", ksHeadDimstyles, -1, 1, 0, 53},
        {"viewport entity headers", ksHeadVpEntHeaders, -1, 1, 0, 70},
    };
    std::string path = dwg("AC1014");
    for (const Case& c : cases) {
        script = Script{};
        script.tableHead = c.tableHead;
        script.stopAtProgress = c.stopAt;
        script.headerResult = c.headerResult;
        script.headerError = c.headerError;
        ksFcb* out = reinterpret_cast<ksFcb*>(1);
        EXPECT_EQ(ksLoadDrawingInto(path.c_str(), 1, 0, &out), nullptr) << c.what;
        EXPECT_EQ(out, nullptr) << c.what;
        EXPECT_EQ(ksErrorNumber(), c.expected) << c.what;
    }
}

TEST_F(LoadTest, DetectionGates)
{
    EXPECT_EQ(ksLoadDrawing((dir / "missing.dwg").c_str(), 1, 0), nullptr);
    EXPECT_EQ(ksErrorNumber(), 3);

    for (const char* content : {"", "AC1", "just some text, no drawing"}) {
        EXPECT_EQ(ksLoadDrawing(file(content).c_str(), 1, 0), nullptr) << content;
        EXPECT_EQ(ksErrorNumber(), 5) << content;
    }
    EXPECT_EQ(script.headerCalls, 0);

    // A leading comment counts as a DXF file even without SECTION.
    ksFcb* fcb = ksLoadDrawing(file("999\nmade by hand\n").c_str(), 1, 0);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(fcb->ops, &ksG->dxfOps);
    EXPECT_EQ(fcb->fileType, 1);
    EXPECT_EQ(fcb->fileVersion, -1);
    ksCloseDrawing(fcb);

    // The R14 beta signature loads only while beta files are allowed.
    std::string beta = dwg("AC1013");
    fcb = ksLoadDrawing(beta.c_str(), 1, 0);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(fcb->fileVersion, ksAC1014);
    EXPECT_EQ(ksG->betaSeen, 1);
    ksCloseDrawing(fcb);
    ksSetAllowBetaFiles(0);
    EXPECT_EQ(ksLoadDrawing(beta.c_str(), 1, 0), nullptr);
    EXPECT_EQ(ksErrorNumber(), 286);
}

TEST_F(LoadTest, OldDrawingsGetControlHandlesInOrder)
{
    ksFcb* fcb = ksLoadDrawing(dwg("AC1009").c_str(), 1, 0);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(ksHandleToU64(fcb->layerControlHandle), 2u);
    EXPECT_EQ(ksHandleToU64(fcb->dimStyleControlHandle), 9u);
    EXPECT_EQ(ksHandleToU64(fcb->vpEntControlHandle), 12u);
    // The block header phase draws the spaces and the block control anew
    // (17 to 19, behind the special linetypes, *ACTIVE and ACAD), then the
    // four BLOCK and ENDBLK handles; "Standard" and the four default
    // objects follow.
    EXPECT_EQ(ksHandleToU64(fcb->modelBlockHandle), 17u);
    EXPECT_EQ(ksHandleToU64(fcb->paperBlockHandle), 18u);
    EXPECT_EQ(ksHandleToU64(fcb->blockControlHandle), 19u);
    EXPECT_EQ(ksHandleToU64(fcb->header->HANDSEED), 29u);
    ksCloseDrawing(fcb);

    // An R13+ DXF file has no viewport entity control: it gets the seed.
    script.handlesEnabled = 1;
    script.handleSeed = 0x2A0;
    fcb = ksLoadDrawing(dxf("AC1014").c_str(), 1, 0);
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(ksHandleToU64(fcb->vpEntControlHandle), 0x2A0u);
    EXPECT_TRUE(ksHandleIsNull(fcb->layerControlHandle));
    // The two spaces and the multiline style $CMLSTYLE names.
    EXPECT_EQ(ksHandleToU64(fcb->header->HANDSEED), 0x2ACu);
    ksCloseDrawing(fcb);
}

TEST_F(LoadTest, WhichDrawingsGetNewHandles)
{
    struct Case {
        const char* version;
        bool isDxf;
        uint8_t handles;
        uint8_t entity, table;
    } cases[] = {
        {"AC1009", false, 1, 0, 0},  // R12 with handles keeps them
        {"AC1009", false, 0, 1, 1},
        {"AC1009", true, 1, 0, 0},
        {"AC1006", true, 1, 0, 1},   // R10 DXF: tables always, entities unless handled
        {"AC1006", true, 0, 1, 1},
        {"AC1006", false, 1, 0, 0},
        {"AC1006", false, 0, 1, 1},
        {"AC1004", false, 1, 1, 1},  // the oldest releases always get new ones
        {"AC1002", true, 1, 1, 1},
        {"AC1012", false, 0, 0, 0},
        {"AC1015", true, 0, 0, 0},
    };
    for (const Case& c : cases) {
        script.handlesEnabled = c.handles;
        script.handleSeed = 0x100;
        ksFcb* fcb = ksLoadDrawing((c.isDxf ? dxf(c.version) : dwg(c.version)).c_str(), 1, 0);
        ASSERT_NE(fcb, nullptr) << c.version;
        EXPECT_EQ(fcb->isDxf, c.isDxf) << c.version;
        EXPECT_EQ(fcb->makeEntityHandles, c.entity) << c.version << " dxf " << c.isDxf << " h " << int(c.handles);
        EXPECT_EQ(fcb->makeTableHandles, c.table) << c.version << " dxf " << c.isDxf << " h " << int(c.handles);
        ksCloseDrawing(fcb);
    }
}

TEST_F(LoadTest, InputStaysOpenUntilCloseWhenAsked)
{
    ksFcb* fcb = ksLoadDrawing(dwg("AC1015").c_str(), 0, 0);
    ASSERT_NE(fcb, nullptr);
    EXPECT_NE(fcb->file, nullptr);
    EXPECT_EQ(ksCloseDrawing(fcb), 1);
    EXPECT_EQ(ksCloseDrawing(nullptr), 0);
}

// The installed readers: a DWG head with nothing behind it has no file
// header to speak of (186); DXF has no reader yet (22).
TEST_F(LoadTest, InstalledReadersFailCleanly)
{
    ksInstallDwgReader();
    ksInstallDxfReader();
    EXPECT_EQ(ksLoadDrawing(dwg("AC1015").c_str(), 1, 0), nullptr);
    EXPECT_EQ(ksErrorNumber(), 186);
    EXPECT_EQ(ksLoadDrawing(dxf("AC1009").c_str(), 1, 0), nullptr);
    EXPECT_EQ(ksErrorNumber(), 22);
}

}  // namespace
