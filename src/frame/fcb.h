// The control block of one drawing: its file, version, header, handle
// state and the table heads. The drawing store's lists and index live here
// too once they are made by the store.
#pragma once

#include <cstdint>

#include "driver/hooks.h"
#include "frame/kstypes.h"
#include "records/object.h"
#include "store/vm.h"

struct ksHeader;
struct ksReaderOps;

inline constexpr int ksMaxChildren = 512;
inline constexpr int ksShapeCacheSize = 10;

// The ten table heads in the order of the DWG header section.
enum ksTableHead : int {
    ksHeadBlocks = 0,
    ksHeadLayers,
    ksHeadStyles,
    ksHeadLinetypes,
    ksHeadViews,
    ksHeadUcses,
    ksHeadVports,
    ksHeadAppids,
    ksHeadDimstyles,
    ksHeadVpEntHeaders,
    ksTableHeadCount
};

struct ksFcb {
    ksFcb* children[ksMaxChildren];  // external references loaded under this drawing
    int16_t childCount;
    char fileName[ksPathMax];
    ksHeader* header;
    ksStream* file;           // the open input
    ksReaderOps* ops;         // dwgOps or dxfOps of ksG
    uint8_t isDxf;
    uint8_t fileType;         // 0 DWG, 1 ASCII DXF, 2 binary DXF
    int16_t fileVersion;      // ksVersion of the input; -1 when none was found
    int16_t sourceVersion;    // -1 after a load; the version of a drawing made in memory
    uint8_t loading;
    uint8_t closeAfterLoad;
    uint8_t handlesEnabled;   // $HANDLING as the header reader found it
    ksObjHandle handleSeed;   // $HANDSEED as the header reader found it
    ksObjHandle nextHandle;
    ksLoc btreeRoot;          // the handle index; 0 while empty
    uint32_t btreeCount;      // entries in the handle index
    uint8_t makeEntityHandles;
    uint8_t makeTableHandles;
    int16_t visRetain;
    int16_t versionGuessed;

    // Fixed handles of the drawing, in the order of the fixed-handle table.
    ksObjHandle blockControlHandle;
    ksObjHandle layerControlHandle;
    ksObjHandle shapeFileControlHandle;
    ksObjHandle linetypeControlHandle;
    ksObjHandle viewControlHandle;
    ksObjHandle ucsControlHandle;
    ksObjHandle vportControlHandle;
    ksObjHandle regAppControlHandle;
    ksObjHandle dimStyleControlHandle;
    ksObjHandle vpEntControlHandle;
    ksObjHandle modelBlockHandle;
    ksObjHandle paperBlockHandle;
    ksObjHandle modelBlockBegin;
    ksObjHandle modelBlockEnd;
    ksObjHandle paperBlockBegin;
    ksObjHandle paperBlockEnd;
    ksObjHandle byBlockHandle;
    ksObjHandle byLayerHandle;
    ksObjHandle defaultPlotStyleHandle;  // the plot style new layers take

    // The drawing's lists, made by ksNewFcb in this order.
    ksLoc layers;
    ksLoc linetypes;
    ksLoc ucses;
    ksLoc views;
    ksLoc vports;
    ksLoc vpEntList;
    ksLoc dimStyles;
    ksLoc regApps;
    ksLoc blockHeaders;
    ksLoc shapeFiles;
    ksLoc classes;
    ksLoc objects;
    ksClassNumbers classNumbers;  // class numbers of the roles, the class count

    // The entity lists of the two spaces (the entities of the model and
    // paper space blocks).
    ksLoc modelEntities;
    ksLoc paperEntities;
    // While a drawing of a release without block reference lists loads:
    // pairs (INSERT handle, block handle) for each INSERT of an external
    // reference, and (block, dictionary, ID buffer) per such block; 0 when
    // not gathered.
    ksLoc pendingRefs1;
    ksLoc pendingRefs2;

    // References in extended data that wait for the tables: a blob of
    // entries, its open write cursor and the entry count.
    ksLoc pendingXdata;
    struct ksBlobCursor* pendingCursor;
    int32_t pendingCount;

    // Entry counts of the tables as the header reader found them.
    int32_t tableCount[ksTableHeadCount];

    // Shape lookups of this drawing.
    int16_t shapeCacheCount;
    char shapeCacheName[ksShapeCacheSize][32];
    ksObjHandle shapeCacheStyle[ksShapeCacheSize];
    int16_t shapeCacheNumber[ksShapeCacheSize];

    // Saving (ksSaveDrawing, frame/save.h). On the target of a save, which
    // lives for one save: the open output, a block of writeBlockSize bytes,
    // the release being written, the linetype indices that stand for BYBLOCK
    // and BYLAYER in pre-R13 records, the record sizes of a pre-R13 release
    // (two entity sections, four tables, four more; 0 from R13 on), and the
    // owner that the pre-R13 writer's next SEQEND points to (flag, position).
    ksStream* outputFile;
    uint8_t* writeBlock;
    int16_t outputVersion;
    int32_t byBlockIndex;
    int32_t byLayerIndex;
    int16_t oldRecordSizes[10];
    uint8_t ownerPending;
    int32_t ownerPosition;
    // On the source of a save below R2000: the blob of xref name entries
    // (ksXrefNameEntrySize bytes each) and their count.
    ksLoc xrefNames;
    int32_t xrefNameCount;

    // Entity step of a load (bridge/upgrade.h): its working state, with
    // the one-entry reference caches, the bounded name index beside them,
    // the inheritance of complex entities in DXF and a POLYLINE being
    // gathered. Null until the first entity comes; allocated with
    // ksMemAlloc and freed by ksLoadEntityCacheFree.
    struct ksLoadState* loadState;

    // ---- Resolving phases of a load (frame/resolve.cpp).
    // File positions of the two spaces' BLOCK entities (DXF, DWG below
    // R13), and where the reader begins with the entities of the block
    // that startBlockEntities is called for.
    int32_t modelBlockPosition;
    int32_t paperBlockPosition;
    int32_t entityFilePosition;
    // DWG below R13: the start of the block entity section, against which
    // a viewport entity header's position with its top bit set counts.
    int32_t blockEntitiesStart;
    // The vpEntList node of the viewport with viewportId 1, and whether a
    // viewport entity header matched a VIEWPORT.
    ksLoc paperViewportNode;
    uint8_t vpEntRefsSorted;
    // R2000 DXF: the ACAD_PLOTSTYLENAME dictionary of the named object
    // dictionary; null when none.
    ksObjHandle plotStyleDictionary;

    // ---- The file reader's own state, and what frees it (set by a reader
    // that keeps state between its operations; the load calls it when it
    // closes the input and when the drawing is freed).
    void* dwgState;
    void (*releaseReader)(ksFcb*);
    // The share of the entity lists read so far, 0 to 100, for a reader
    // whose file position says nothing about it; null otherwise.
    int16_t (*readProgress)(ksFcb*);
    // A read operation failed inside a list, as opposed to reaching its
    // end: -1 keeps the phase's error number, any other number replaces it.
    int16_t failureNumber;

    // The preview images of a DWG file from R13 on, kept for a DWG save:
    // previewFlags bit 0 a BMP in bmpBlob, bit 1 a WMF in wmfBlob.
    uint8_t previewFlags;
    ksLoc bmpBlob;
    ksLoc wmfBlob;
};

inline constexpr int ksFcbListCount = 12;

// The constructor: a zeroed drawing block with its twelve lists, or null
// with error 1.
ksFcb* ksNewFcb();
// Frees the block itself (the caller has freed what it holds).
void ksFreeFcb(ksFcb* fcb);
