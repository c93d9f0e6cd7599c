// The save sequence with stand-in writers: the version gate, the choice of
// writer and what the target carries to it, $HANDSEED, the xref name
// entries, the DXF number formats and the failures around the writer.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/save.h"
#include "records/header.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

// What the stand-in writer saw of its call.
struct Seen {
    int calls = 0;
    std::string writer;
    std::string acadver;
    double ltscale = 0;
    uint64_t handseed = 0;
    int16_t outputVersion = -9, sourceFileVersion = -9;
    uint8_t isDxf = 9, fileType = 9, extendedR12 = 9;
    int32_t byBlock = 0, byLayer = 0;
    std::array<int16_t, 10> sizes{};
    bool scratchOk = false;
    int16_t negativeZero = -9, precision = -9, writeZeroZ = -9;
};
Seen seen;
int16_t writerResult = 1;
std::vector<int> progress;

int16_t standIn(const char* name, ksFcb* source, ksFcb* target, std::initializer_list<void*> scratch)
{
    ++seen.calls;
    seen.writer = name;
    seen.acadver = target->header->ACADVER;
    seen.ltscale = target->header->LTSCALE;
    seen.handseed = ksHandleToU64(target->header->HANDSEED);
    seen.outputVersion = target->outputVersion;
    seen.sourceFileVersion = source->fileVersion;
    seen.isDxf = target->isDxf;
    seen.fileType = target->fileType;
    seen.byBlock = target->byBlockIndex;
    seen.byLayer = target->byLayerIndex;
    std::memcpy(seen.sizes.data(), target->oldRecordSizes, sizeof target->oldRecordSizes);
    seen.scratchOk = target->writeBlock != nullptr;
    for (void* block : scratch)
        seen.scratchOk = seen.scratchOk && block != nullptr;
    ksFilePutText(name, target->outputFile);
    if (!writerResult) {
        ksG->errorNumber = 27;
        return 0;
    }
    ksFreeSaveTarget(target);  // a writer that succeeds finishes with the target
    return 1;
}

int16_t dwgOld(ksFcb* s, ksFcb* t, void* h, void* b, void* r, void* x) { return standIn("dwgOld", s, t, {h, b, r, x}); }
int16_t dwg13(ksFcb* s, ksFcb* t, void* h, void* b, void* r) { return standIn("dwg13", s, t, {h, b, r}); }
int16_t dxfOld(ksFcb* s, ksFcb* t, uint8_t extra, void* h, void* b, void* r, void* x, int16_t nz, int16_t p, int16_t z)
{
    seen.extendedR12 = extra;
    seen.negativeZero = nz, seen.precision = p, seen.writeZeroZ = z;
    return standIn("dxfOld", s, t, {h, b, r, x});
}
int16_t dxfR13(ksFcb* s, ksFcb* t, void* h, void* b, void* r, void* x, int16_t nz, int16_t p, int16_t z)
{
    seen.negativeZero = nz, seen.precision = p, seen.writeZeroZ = z;
    return standIn("dxfR13", s, t, {h, b, r, x});
}

constexpr ksSaveWriters kStandIns = {dwgOld, dwg13, dxfOld, dxfR13};

std::string fileText(const zt::fs::path& file)
{
    auto bytes = zt::readFile(file);
    return std::string(bytes.begin(), bytes.end());
}

// One xref name entry as the blob holds it.
struct XrefEntry {
    uint64_t block;
    std::string name;
    int32_t room;
    bool operator==(const XrefEntry&) const = default;
};

class SaveTest : public zt::DrawingTest {
protected:
    zt::TempDir dir;
    ksSaveWriters previous{};
    uint64_t nextHandle = 0x100;

    SaveTest() { withHeader = true; }
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(DrawingTest::SetUp());
        previous = ksSetSaveWriters({});
        seen = Seen{};
        writerResult = 1;
        progress.clear();
        ksSetSaveProgress([](int16_t percent) { progress.push_back(percent); });
    }
    void TearDown() override
    {
        ksSetSaveWriters(previous);
        DrawingTest::TearDown();
    }

    template <typename Record>
    void add(int16_t (*adder)(ksFcb*, const Record*), const char* name, int8_t deleted = 0)
    {
        Record record{};
        record.xrefIndex = -1;
        std::snprintf(record.name, sizeof record.name, "%s", name);
        record.deleted = deleted;
        record.entryHandle = ksHandleFromU64(nextHandle++);
        ASSERT_EQ(adder(fcb, &record), 1) << name;
    }
    uint64_t addBlock(const char* name)
    {
        add(ksBlockHeaderAdd, name);
        return nextHandle - 1;
    }

    std::vector<XrefEntry> xrefEntries() const
    {
        std::vector<XrefEntry> out;
        ksBlobCursor* cursor = ksBlobOpenRead(fcb->xrefNames);
        uint8_t entry[ksXrefNameEntrySize];
        while (cursor && ksBlobRead(cursor, entry, ksXrefNameEntrySize)) {
            ksObjHandle handle;
            std::memcpy(handle.bytes, entry, 8);
            int32_t room = entry[520] | entry[521] << 8 | entry[522] << 16 | entry[523] << 24;
            out.push_back({ksHandleToU64(handle), reinterpret_cast<const char*>(entry + 8), room});
        }
        ksBlobCloseRead(cursor);
        EXPECT_EQ(static_cast<size_t>(fcb->xrefNameCount), out.size());
        return out;
    }

    int16_t save(const std::string& name, int16_t fileType, int16_t version, int16_t precision = 6)
    {
        return ksSaveDrawing(fcb, (dir / name).string().c_str(), fileType, version, 1, precision, 1, 1);
    }
};

TEST_F(SaveTest, GateRefusesR2000ForDrawingsMadeBelowItAndNoWriterMeans21WithNothingTouched)
{
    for (int16_t source = -1; source < ksVersionCount; ++source) {
        for (int16_t target = -1; target <= ksVersionCount; ++target) {
            for (int16_t fileType : {0, 1, 2, 3}) {
                fcb->sourceVersion = source;
                fcb->fileVersion = 4;
                bool forbidden = source >= 0 && source < 7 && target >= 7;
                EXPECT_EQ(save("out", fileType, target), 0);
                EXPECT_EQ(ksErrorNumber(), forbidden ? 306 : 21)
                    << "source " << source << " target " << target << " type " << fileType;
                EXPECT_EQ(fcb->fileVersion, 4);
                EXPECT_EQ(fcb->xrefNames, 0u);
            }
        }
    }
    EXPECT_TRUE(dir.list().empty());
    EXPECT_TRUE(progress.empty());
    EXPECT_EQ(seen.calls, 0);

    // With the writers in place the gate still stands, and a loaded drawing
    // goes to R2000.
    ksSetSaveWriters(kStandIns);
    fcb->sourceVersion = 4;
    EXPECT_EQ(save("made.dwg", 0, 7), 0);
    EXPECT_EQ(ksErrorNumber(), 306);
    fcb->sourceVersion = 7;
    EXPECT_EQ(save("made.dwg", 0, 7), 1);
    fcb->sourceVersion = -1;
    EXPECT_EQ(save("loaded.dwg", 0, 7), 1);
    EXPECT_EQ(dir.list(), (std::vector<std::string>{"loaded.dwg", "made.dwg"}));
}

TEST_F(SaveTest, WriterFollowsFileTypeAndReleaseAndSeesTheTargetsRelease)
{
    struct Row {
        int16_t fileType, version;
        const char* writer;
        int16_t entitySize, tableSize, lastSize;  // oldRecordSizes 0, 4, 9
        int32_t byBlock, byLayer;
    };
    const Row rows[] = {
        {0, 0, "dwgOld", 38, 92, 0, 255, 256},        {0, 2, "dwgOld", 37, 91, 0, 255, 256},
        {0, 3, "dwgOld", 37, 149, 0, 255, 256},       {0, 4, "dwgOld", 45, 153, 43, 32766, 32767},
        {0, 5, "dwg13", 0, 0, 0, 32766, 32767},       {0, 7, "dwg13", 0, 0, 0, 32766, 32767},
        {1, 1, "dxfOld", 38, 92, 0, 255, 256},        {2, 3, "dxfOld", 37, 149, 0, 255, 256},
        {1, 4, "dxfOld", 45, 153, 43, 32766, 32767},  {1, 6, "dxfR13", 0, 0, 0, 32766, 32767},
        {2, 7, "dxfR13", 0, 0, 0, 32766, 32767},
    };
    ksSetSaveWriters(kStandIns);
    std::strcpy(fcb->header->ACADVER, "AC1009");
    fcb->header->LTSCALE = 2.5;
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.fileType) + "/" + std::to_string(row.version));
        seen = Seen{};
        progress.clear();
        std::string name = "out" + std::to_string(row.fileType) + std::to_string(row.version);
        ASSERT_EQ(save(name, row.fileType, row.version), 1);
        EXPECT_EQ(ksErrorNumber(), 0);
        EXPECT_EQ(std::tuple(seen.calls, seen.writer, fileText(dir / name), seen.acadver),
                  std::tuple(1, row.writer, row.writer, ksVersionNames[row.version]));
        // the rest of the header is the source's; the source's header is not touched
        EXPECT_EQ(std::tuple(seen.ltscale, std::string(fcb->header->ACADVER)), std::tuple(2.5, "AC1009"));
        EXPECT_EQ(std::tuple(seen.outputVersion, seen.sourceFileVersion, fcb->fileVersion),
                  std::tuple(row.version, row.version, row.version));
        EXPECT_EQ(std::tuple(seen.isDxf, seen.fileType), std::tuple(row.fileType != 0, row.fileType));
        EXPECT_EQ(std::tuple(seen.sizes[0], seen.sizes[4], seen.sizes[9], seen.byBlock, seen.byLayer),
                  std::tuple(row.entitySize, row.tableSize, row.lastSize, row.byBlock, row.byLayer));
        EXPECT_TRUE(seen.scratchOk);
        EXPECT_EQ(progress, (std::vector<int>{0, 100}));
        EXPECT_EQ(seen.precision, row.fileType != 0 ? 6 : -9);
    }
    seen = Seen{};
    ASSERT_EQ(save("extras.dxf", 1, 4), 1);
    EXPECT_EQ(std::tuple(seen.extendedR12, seen.negativeZero, seen.writeZeroZ), std::tuple(1, 1, 1));
}

TEST_F(SaveTest, HandseedIsTheNextHandleOrTheFirstWithoutHandling)
{
    ksSetSaveWriters(kStandIns);
    fcb->nextHandle = ksHandleFromU64(0x2A5);
    fcb->header->HANDSEED = ksHandleFromU64(0x77);
    for (int16_t handling : {1, 0}) {
        fcb->header->HANDLING = handling;
        ASSERT_EQ(save("h.dwg", 0, 5), 1);
        EXPECT_EQ(seen.handseed, handling ? 0x2A5u : 1u) << handling;
        EXPECT_EQ(ksHandleToU64(fcb->header->HANDSEED), 0x77u);
    }
}

TEST_F(SaveTest, XrefNamesKeepTheLeastRoomPerBlock)
{
    ksSetSaveWriters(kStandIns);
    const uint64_t plan = addBlock("plan");
    const uint64_t site = addBlock("Site");
    const std::string thirty(30, 'x');
    add(ksAppidAdd, "PLAN|app");                       // prefix found ignoring case: 30 - 3
    add(ksLayerAdd, "plan|0");                          // 29: above 27, no change
    add(ksLayerAdd, "site|\\U+0041\\U+0042\\U+0043");   // three escapes: 27
    add(ksLayerAdd, "nowhere|wall");                    // no block of that name
    add(ksLayerAdd, "plain");                           // no bar
    add(ksLayerAdd, ("site|" + thirty).c_str(), 1);     // deleted: not looked at
    add(ksLinetypeAdd, ("site|" + thirty + "y").c_str());  // at least 4
    add(ksLinetypeAdd, "plan|a|b");                     // split at the first bar: "a|b", 27

    ASSERT_EQ(save("x.dxf", 1, 6), 1);
    const std::vector<XrefEntry> expected = {{plan, "PLAN", 27}, {site, "site", 4}};
    EXPECT_EQ(xrefEntries(), expected);
    ksLayer layer;
    ksLayerRewind(fcb);
    ASSERT_EQ(ksLayerNext(fcb, &layer), 1);
    EXPECT_STREQ(layer.name, "plan|0");  // the bar is back in the record

    // Each save below R2000 rebuilds the entries; an R2000 save leaves them.
    ASSERT_EQ(save("x.dwg", 0, 4), 1);
    EXPECT_EQ(xrefEntries(), expected);
    ksFreeXrefNames(fcb);
    ASSERT_EQ(save("x2000.dwg", 0, 7), 1);
    EXPECT_EQ(fcb->xrefNames, 0u);
    EXPECT_EQ(fcb->xrefNameCount, 0);
}

TEST_F(SaveTest, MissingFolderGives3AndLeavesTheSourceAsItWas)
{
    ksSetSaveWriters(kStandIns);
    addBlock("plan");
    add(ksLayerAdd, "plan|walls");
    fcb->fileVersion = 4;
    const ksHeader before = *fcb->header;

    EXPECT_EQ(ksSaveDrawing(fcb, (dir / "no" / "out.dwg").string().c_str(), 0, 5, 0, 6, 0, 0), 0);
    EXPECT_EQ(ksErrorNumber(), 3);
    EXPECT_EQ(seen.calls, 0);
    EXPECT_TRUE(dir.list().empty());
    EXPECT_EQ(progress, (std::vector<int>{0}));
    EXPECT_EQ(fcb->fileVersion, 4);
    EXPECT_EQ(std::memcmp(&before, fcb->header, sizeof before), 0);
    EXPECT_EQ(ksLayerCount(fcb), 1u);
    EXPECT_EQ(ksBlockHeaderCount(fcb), 1u);

    // The drawing still saves, and closes cleanly in TearDown.
    EXPECT_EQ(save("out.dwg", 0, 5), 1);
}

TEST_F(SaveTest, FailingWriterLeavesItsPartialFileClosed)
{
    ksSetSaveWriters(kStandIns);
    writerResult = 0;
    EXPECT_EQ(save("part.dxf", 2, 5), 0);
    EXPECT_EQ(ksErrorNumber(), 27);
    EXPECT_EQ(fileText(dir / "part.dxf"), "dxfR13");
    EXPECT_EQ(progress, (std::vector<int>{0, 100}));
    EXPECT_EQ(fcb->fileVersion, 5);
}

TEST_F(SaveTest, DxfSavesSetTheNumberFormatsFromThePrecision)
{
    struct Row {
        int16_t precision, used;
        const char *integer, *real, *exp, *printed;  // printed: 1.5 by the real format
        double scale;
    };
    const Row rows[] = {
        {6, 6, "%6d", "%.6f", "%.6lE", "1.500000", 1e6},
        {0, 0, "%0d", "%.0f", "%.0lE", "2", 1.0},
        {3, 3, "%3d", "%.3f", "%.3lE", "1.500", 1e3},
        {12, 12, "%12d", "%.12f", "%.12lE", "1.500000000000", 1e12},
        {-4, 0, "%0d", "%.0f", "%.0lE", "2", 1.0},
        {40, 16, "%16d", "%.16f", "%.16lE", "1.5000000000000000", 1e16},
    };
    ksSetSaveWriters(kStandIns);
    const double halfUnitRadians = ksG->dxfHalfUnitRadians;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.precision);
        ASSERT_EQ(save("f.dxf", 1, 6, row.precision), 1);
        const ksGlobals& g = *ksG;
        char printed[40];
        std::snprintf(printed, sizeof printed, g.dxfRealFormat, 1.5);
        EXPECT_EQ(std::tuple(seen.precision, g.dxfPrecision, g.dxfHalfUnitRadians, g.dxfNegativeZero, g.dxfWriteZeroZ),
                  std::tuple(row.used, row.used, halfUnitRadians, 1, 1));
        EXPECT_EQ((std::vector<std::string>{g.dxfIntegerFormat, g.dxfRealFormat, g.dxfExpFormat, printed}),
                  (std::vector<std::string>{row.integer, row.real, row.exp, row.printed}));
        EXPECT_DOUBLE_EQ(g.dxfScale, row.scale);
        EXPECT_DOUBLE_EQ(g.dxfHalfUnit, 0.5 / row.scale);
    }
    // A DWG save leaves the formats of the last DXF save.
    ASSERT_EQ(save("f.dwg", 0, 6, 3), 1);
    EXPECT_EQ(ksG->dxfPrecision, 16);
    EXPECT_STREQ(ksG->dxfRealFormat, "%.16f");
}

TEST_F(SaveTest, PrecisionSixRestoresTheStartingFormats)
{
    const ksGlobals start = *ksG;
    ksSetDxfNumberFormats(0, 2, 0);
    EXPECT_EQ(ksSetDxfNumberFormats(0, 6, 0), 6);
    const ksGlobals& g = *ksG;
    EXPECT_EQ((std::vector<std::string>{g.dxfIntegerFormat, g.dxfRealFormat, g.dxfExpFormat}),
              (std::vector<std::string>{start.dxfIntegerFormat, start.dxfRealFormat, start.dxfExpFormat}));
    EXPECT_EQ(std::tuple(g.dxfScale, g.dxfHalfUnit), std::tuple(start.dxfScale, start.dxfHalfUnit));
}

}  // namespace
