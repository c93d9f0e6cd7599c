// A scripted reader for tests of the load: a ksReaderOps table whose slots
// serve records from a ReaderScript instead of reading a file, so a test
// states what a drawing holds and runs the real load sequence over it.
//
// Use:
//
//   zt::ReaderScript script;
//   script.layers.push_back(zt::layer("WALLS", 0x30));
//   zt::installTestReader(script);   // after ksInit
//   ksFcb* fcb = ksLoadDrawing(zt::writeDrawingStub(dir / "a.dxf", zt::FileKind::dxf, ksAC1014).c_str(), 1, 0);
//
// The file still matters: the load takes the file's kind and release from
// its first bytes (writeDrawingStub writes a file that detects as wanted),
// and the drawing's ops table is dwgOps or dxfOps by kind; the scripted
// table fills both, so the same script serves either kind.
//
// readHeader sets the table counts from the vectors' sizes (or `counts`)
// and the handle state from the script. Each start... slot rewinds its
// table; each read... slot copies the next scripted record whole into the
// caller's buffer and returns 1, or returns 0 when the table is used up.
// A record with xdata puts the bytes into xdataReadBuffer and reports
// extended data, as a file reader does.
//
// Any slot can be made to fail at its n-th call (Failure), to test the
// tear-down; every call is counted per slot.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/readerops.h"
#include "records/entity.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "support/support.h"

namespace zt {

// The slots of ksReaderOps, by slot number.
enum class Slot : int {
    nextObjectType = 1,
    readDictionary,
    readObject,
    readBlockHeader,
    readBlockRecord,
    readClass,
    readDimStyle,
    readEntity,
    readGroup,
    readHeader,
    readLayer,
    readLinetype,
    readMlineStyle,
    readPlotSettings,
    readRegApp,
    readShapeFile,
    readUcs,
    readView,
    readVport,
    readVpEntHeader,
    startBlockEntities,
    startBlockHeaders,
    startClasses,
    startDimStyles,
    startEntities,
    startLayers,
    startLinetypes,
    unused28,
    startObjects,
    empty30,
    startRegApps,
    startShapeFiles,
    startUcses,
    startViews,
    startVpEntHeaders,
    startVports,
};
inline constexpr int kSlotCount = ksReaderSlotCount;

// A table record and the extended data that comes with it in the file:
// raw items in the file's coding (store/xdata.h); empty for none.
template <typename Record>
struct Scripted {
    Record record{};
    std::vector<uint8_t> xdata;
};

// A layer names its linetype apart from the record: DXF by text (group 6),
// an old DWG by the place in the linetype table. The reader notes both
// through ksNoteLayerLinetypeName / ksNoteLayerLinetypeIndex.
struct ScriptedLayer {
    ksLayer record{};
    std::vector<uint8_t> xdata;
    std::string linetypeName;
    int16_t linetypeIndex = -1;
};

struct ScriptedEntity {
    ksEntityHeader header{};
    std::vector<uint8_t> body;  // copied to the body buffer, at most ksEntityBodyMax bytes
    std::vector<uint8_t> xdata;
    // The references the reader leaves in ksG->entityRefs: DXF names (the
    // layer "0" unless given), old DWG indices (ksEntityRefsClear's
    // values unless given).
    std::string layerName = "0";
    std::string linetypeName;
    std::string blockName;
    int16_t layerIndex = 0;
    int16_t blockIndex = 0;
    // The reader seeks the drawing's file here before it hands the entity
    // over, as a file reader moves on, and gives it as the entity's file
    // position (-1: neither).
    long filePosition = -1;
};

struct ScriptedObject {
    int16_t kind = 0;  // what nextObjectType answers for it
    ksObjectHeader header{};
    std::vector<uint8_t> body;  // copied to the body buffer
    std::vector<uint8_t> xdata;
};

// The `call`-th call (counted from 0) of `slot` returns 0, after setting
// the error number to `error` unless that is 0.
struct Failure {
    Slot slot;
    int call = 0;
    int16_t error = 0;
};

struct ReaderScript {
    // What readHeader leaves in the drawing.
    uint8_t handlesEnabled = 0;
    uint64_t handleSeed = 0;
    int16_t visRetain = 0;
    // Table counts by ksTableHead; -1 takes the size of the table's vector.
    std::array<int32_t, ksTableHeadCount> counts = filled(-1);
    // Called last by readHeader, for any other header variable.
    std::function<void(ksFcb*)> onHeader;

    std::vector<Scripted<ksLinetype>> linetypes;
    std::vector<ScriptedLayer> layers;
    std::vector<Scripted<ksVport>> vports;
    std::vector<Scripted<ksUcs>> ucses;
    std::vector<Scripted<ksAppid>> appids;
    std::vector<Scripted<ksView>> views;
    std::vector<Scripted<ksStyle>> styles;
    std::vector<Scripted<ksDimstyle>> dimstyles;
    std::vector<Scripted<ksBlockHeader>> blockHeaders;
    // What readBlockHeader leaves in ksG->blockWork for the block of the
    // same place; zero beyond the vector.
    std::vector<ksBlockWork> blockWork;
    // Where each call of startBlockEntities found fcb->entityFilePosition,
    // in call order.
    std::vector<int32_t> blockEntityPositions;
    // DXF BLOCK_RECORD entries (slot 5). startBlockHeaders rewinds them, and
    // a read past the last one returns 0 and rewinds, so a reader can run
    // through them more than once.
    std::vector<ksBlockHeader> blockRecords;
    // readClass returns 0 behind the last.
    std::vector<ksClass> classes;
    // The main entity list (both spaces), served after startEntities.
    std::vector<ScriptedEntity> entities;
    // The n-th call of startBlockEntities serves blockEntities[n]; an
    // empty list beyond the vector.
    std::vector<std::vector<ScriptedEntity>> blockEntities;
    // nextObjectType gives each object's kind, 0 behind the last; any of
    // the object read slots then takes the object.
    std::vector<ScriptedObject> objects;
    // Viewport entity headers, as the bytes of the record.
    std::vector<std::vector<uint8_t>> vpEntHeaders;

    std::vector<Failure> failures;

    // Calls of each slot so far, by slot number; installTestReader clears it.
    std::array<int, kSlotCount> calls{};

    int callsOf(Slot slot) const { return calls[static_cast<int>(slot)]; }

private:
    static std::array<int32_t, ksTableHeadCount> filled(int32_t value)
    {
        std::array<int32_t, ksTableHeadCount> a;
        a.fill(value);
        return a;
    }
};

// The scripted slots, all 37 filled but for 0, 28 and 30.
ksReaderOps testReaderOps();
// Makes `script` the one the slots serve (it must outlive its use), clears
// its call counts and the reader's positions, and fills ksG->dwgOps and
// ksG->dxfOps with testReaderOps(). Needs a running toolkit.
void installTestReader(ReaderScript& script);
// Forgets the script; the slots then fail.
void uninstallTestReader();

// A table record as a reader starts it (the record's defaults), with the
// name and the handle (0: none).
template <typename Record>
Scripted<Record> entry(const char* name, uint64_t handle = 0);
ScriptedLayer layer(const char* name, uint64_t handle = 0, const char* linetypeName = "",
                    int16_t linetypeIndex = -1);
ksClass classRecord(const char* dxfName, int16_t number = 0);

enum class FileKind { dxf, dwg };
// Writes a small file at `file` that the load's detection takes for the
// given kind and ksVersion: a DXF header with $ACADVER (none for version
// -1), or a DWG start, R13 to R2000 or older by the version, padded past
// the detection window. Returns the path as a string.
std::string writeDrawingStub(const std::filesystem::path& file, FileKind kind, int16_t version);

// A file kind and version to load a script as, for tables of cases.
struct Kind {
    const char* label;
    FileKind kind;
    int16_t version;
    bool dxf() const { return kind == FileKind::dxf; }
};
inline constexpr Kind kDxf12{"DXF R12", FileKind::dxf, ksAC1009}, kDxf13{"DXF R13", FileKind::dxf, ksAC1012},
    kDxf14{"DXF R14", FileKind::dxf, ksAC1014}, kDxf2000{"DXF R2000", FileKind::dxf, ksAC1015},
    kDwg12{"DWG R12", FileKind::dwg, ksAC1009}, kDwg13{"DWG R13", FileKind::dwg, ksAC1012},
    kDwg14{"DWG R14", FileKind::dwg, ksAC1014}, kDwg2000{"DWG R2000", FileKind::dwg, ksAC1015};

// One 1070 item of value 42 in the DXF and old DWG coding.
inline const std::vector<uint8_t> kXdata1070{70, 42, 0};

inline uint64_t u64(const ksObjHandle& h) { return ksHandleToU64(h); }
// The handle of a table's record by name; 0 for none.
uint64_t handleOf(ksFcb* fcb, ksTableList table, const char* name);
// Names of a table's records in list order, joined by commas.
std::string names(ksFcb* fcb, ksTableList table);

// A fixture for loads of scripts: a running toolkit, the script, a folder
// for the stub file and `fcb`, the drawing last loaded, which the next
// load and the end of the test close (checking the close).
class ScriptedLoadTest : public ::testing::Test {
protected:
    ReaderScript script;
    TempDir dir;
    ksFcb* fcb = nullptr;

    void SetUp() override;
    void TearDown() override;
    void close();
    // Closes `fcb`, then loads the script as a file of kind `k` into it;
    // null on failure, with the error in ksErrorNumber().
    ksFcb* load(const Kind& k);
    // Loading as `k` fails with `error` and leaves the store as it was.
    void expectRefused(const Kind& k, int16_t error);
};
// Loads the script into the fixture's `fcb`, or ends the test.
#define ZT_LOAD(k) ASSERT_NE(load(k), nullptr) << ksErrorMessage(ksErrorNumber())

}  // namespace zt
