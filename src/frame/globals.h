// The toolkit control block: one per process, reached through ksG, null
// while the toolkit is down. It holds the error number, the hooks, the
// shared buffers, the init data and the reader tables.
#pragma once

#include <cstdint>

#include "bridge/upgrade.h"
#include "frame/initdata.h"
#include "frame/kstypes.h"
#include "frame/readerops.h"

struct ksEntityHeader;
struct ksFontRecord;

// Optional hooks of a hosting program. All but findFile are null unless a
// setter installs them; every call site tests for null.
using ksFindFileHook = int16_t (*)(char* name, char* found, int16_t flag);  // found: ksPathMax bytes
using ksNoticeHook = void (*)(int16_t number);
using ksSeverityHook = void (*)(int16_t severity);
using ksProgressHook = void (*)(int16_t percent);
using ksEntityNoticeHook = void (*)(ksEntityHeader* head, void* body);
using ksInitOpenHook = int16_t (*)();
using ksInitReadByteHook = int (*)();
using ksInitReadBlockHook = int16_t (*)(void* buffer, int32_t size);
using ksInitCloseHook = void (*)();

inline constexpr uint32_t ksIoBufferSize = 65535;     // readBuffer, writeBuffer
inline constexpr uint32_t ksXdataBufferSize = 16384;  // the two extended-data buffers
inline constexpr int ksHeaderNameCount = 12;          // name-valued header variables
inline constexpr int ksHeaderNameSize = 512;

// ---- Working records between the readers and the resolving phases of a
// load (frame/resolve.cpp) -------------------------------------------------

// What a block header has beside its public record. readBlockHeader fills
// ksG->blockWork for every block it delivers; the load keeps a copy behind
// the record in the block's node and puts it back into ksG->blockWork
// before it calls startBlockEntities for that block.
struct ksBlockWork {
    ksObjHandle blockEntity;   // R13 on: the BLOCK entity
    ksObjHandle firstEntity;   // R13 on: the first and last entity between
    ksObjHandle lastEntity;    // them; null for an external reference
    ksObjHandle endblkEntity;  // R13 on: the ENDBLK entity
    int32_t filePosition;      // DXF and DWG below R13: where the block's
                               // entities begin (given back in
                               // fcb->entityFilePosition)
};

// The table references of a DWG header below R13, as places in the tables
// (from 0). The old header reader fills ksG->headerIndices; the load turns
// them into handles once the tables are in.
struct ksHeaderIndices {
    int16_t layer;         // $CLAYER
    int16_t linetype;      // $CELTYPE: 32767 BYLAYER, 32766 BYBLOCK
    int16_t dimStyle;      // $DIMSTYLE: -1 none
    int16_t ucs;           // $UCSNAME: -1 none
    int16_t paperUcs;      // $PUCSNAME: -1 none
    int16_t textStyle;     // $TEXTSTYLE
    int16_t dimTextStyle;  // $DIMTXSTY
};

// One viewport entity header as readVpEntHeader delivers it.
struct ksVpEntHeader {
    int8_t deleted;             // passed over by the load
    int16_t active;             // the on flag
    int16_t status;             // 68 of its VIEWPORT
    int32_t statusFlags;        // 90 of its VIEWPORT
    int16_t viewportId;         // the reader's number of it
    int16_t xrefIndex;
    ksObjHandle handle;         // R13 on: the header's own handle
    ksObjHandle viewportHandle; // R13 on: its VIEWPORT entity
    int32_t viewportPosition;   // below R13: the file position of its VIEWPORT
    char name[ksHeaderNameSize];
};

struct ksGlobals {
    uint8_t skipBlockRefs;
    ksObjHandle continuousHandle;
    int16_t betaSeen;
    int16_t outputOption;
    ksFontRecord* simplexFont;
    ksFontRecord* gdtFont;
    uint8_t loadContinue;
    int32_t errorNumber;
    uint8_t convertPolylines;

    ksFindFileHook findFile;
    ksNoticeHook writeNotice;
    ksSeverityHook errorHandler;
    ksProgressHook dxfProgress;
    ksProgressHook loadProgress;
    ksProgressHook saveProgress;
    ksEntityNoticeHook entityNotice;
    ksInitOpenHook initOpen;
    ksInitReadByteHook initReadByte;
    ksInitReadBlockHook initReadBlock;
    ksInitCloseHook initClose;

    uint8_t initLoaded;
    ksInitData init;

    ksObjHandle duplicateHandle;  // the handle of the last refused duplicate add
    ksObjHandle nullHandle;
    ksObjHandle firstHandle;
    uint8_t* xdataReadBuffer;
    uint8_t* xdataWriteBuffer;
    uint8_t* readBuffer;
    uint8_t* writeBuffer;
    ksReaderOps dwgOps;
    ksReaderOps dxfOps;

    int16_t dxfWriteZeroZ;
    int16_t writeBlockSize;
    int16_t dxfNegativeZero;
    double dxfHalfUnit;
    double dxfHalfUnitRadians;
    int16_t dxfPrecision;
    char dxfIntegerFormat[10];
    char dxfRealFormat[10];
    char dxfExpFormat[10];
    double dxfScale;
    int16_t allowBetaFiles;

    // Extended data between a file's reader and the store: the read
    // position in xdataReadBuffer, the bytes left there (of the current run
    // for R13 and later DWG), and the file's reference of the last 1001 or
    // 1003 item (an index for old DWG, a name for DXF).
    const uint8_t* xdataSource;
    int32_t xdataSourceLeft;
    int32_t xdataSourceEnd;  // bytes of extended data in xdataReadBuffer
    int16_t xdataAppIndex;
    int16_t xdataLayerIndex;
    char xdataAppName[256];
    char xdataLayerName[256];
    // The writers' side: coded items being assembled in xdataWriteBuffer.
    int32_t xdataWriteLength;

    // Scratch of ksInit's own (10 bytes); ksShutdown frees it.
    void* initScratch;

    // DXF text of the name-valued header variables ($CELTYPE ...), in the
    // order of ksHeaderNameTable; resolved to handles after the tables load.
    char headerNames[ksHeaderNameCount][ksHeaderNameSize];

    // ---- Reader working data of the resolving phases (see the records
    // above ksGlobals). The load sets the defaults before readHeader.
    ksHeaderIndices headerIndices;
    ksBlockWork blockWork;
    // The block whose entities are being read (R13 on): its own handle,
    // owner, extension dictionary and name, set before startBlockEntities.
    ksObjHandle blockHandle;
    ksObjHandle blockOwnerHandle;
    ksObjHandle blockXdictHandle;
    char blockName[ksHeaderNameSize];
    // The references of the entity that readEntity delivers: the entity
    // loop clears them (ksEntityRefsClear) before each read, the reader
    // fills what its file gives. The texts stay the reader's; they must
    // last until the next read.
    ksEntityRefs entityRefs;
};

// The one control block; null while the toolkit is down.
extern ksGlobals* ksG;

// Lifecycle. ksInit returns 1 and brings the toolkit up, or 0 with the
// reason in *errorOut (the block is gone again by then).
int16_t ksInit(const char* initPath, int16_t useHooks, int16_t* errorOut);
void ksShutdown();

// Error number of the running toolkit (0 while it is down).
int16_t ksErrorNumber();
void ksSetError(int16_t number);
// Reports an allocation failure: sets the number and calls errorHandler(2)
// where one is set. Returns true when a handler let the operation go on.
bool ksAllocFailed(int16_t number);

// The error texts: 0 to 306. The result is a constant or lies in a buffer
// that the next call overwrites.
const char* ksErrorMessage(int16_t number);
inline constexpr int ksErrorCount = 307;

// Hook setters. The four init hooks and the error handler are process-wide
// and may be set before ksInit; the others need a running toolkit and
// return 0 when it is down.
void ksSetInitOpen(ksInitOpenHook hook);
void ksSetInitReadByte(ksInitReadByteHook hook);
void ksSetInitReadBlock(ksInitReadBlockHook hook);
void ksSetInitClose(ksInitCloseHook hook);
void ksSetErrorHandler(ksSeverityHook hook);
int16_t ksSetFindFile(ksFindFileHook hook);  // null restores the built-in search
int16_t ksSetWriteNotice(ksNoticeHook hook);
int16_t ksSetDxfProgress(ksProgressHook hook);
int16_t ksSetLoadProgress(ksProgressHook hook);
int16_t ksSetSaveProgress(ksProgressHook hook);
int16_t ksSetEntityNotice(ksEntityNoticeHook hook);

// Setters of the block's switches. ksStopLoad is the stop request: it
// clears loadContinue, and the load fails before its next phase.
int16_t ksStopLoad();
int16_t ksSetAllowBetaFiles(int16_t allow);
int16_t ksSetOutputOption(int16_t option);
int16_t ksSetConvertPolylines(uint8_t convert);
int16_t ksSetSkipBlockRefs(uint8_t skip);

// The built-in file search: the name as given (forward slashes and
// backslashes made the platform separator), then the current directory,
// then each directory of the ACAD variable (separated by semicolons).
// found must hold ksPathMax bytes; it holds the name when nothing matched.
int16_t ksFindFileDefault(char* name, char* found, int16_t flag);

// Code page names: index 0 to 41.
inline constexpr int ksCodePageNameCount = 42;
int16_t ksCodePageName(int16_t index, char* buffer);  // buffer of 16 bytes
int16_t ksCodePageIndex(const char* name, int16_t* indexOut);

// Case-insensitive compare of the toolkit's texts (ASCII letters folded),
// -1, 0 or 1; ksStrNCompare looks at most at n characters.
int ksStrCompare(const char* a, const char* b);
int ksStrNCompare(const char* a, const char* b, size_t n);
