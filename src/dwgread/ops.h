// The operations of the R13-R2000 DWG reader, one module each:
// file.cpp (open, classes), tables.cpp (table entries and block headers),
// entities.cpp (entity chains), objects.cpp (the object walk). ops.cpp puts
// them into the reader table.
#pragma once

#include <cstdint>

#include "frame/readerops.h"

struct ksBitReader;

// file.cpp
int16_t ksDwgReadHeader(ksFcb* fcb);
int16_t ksDwgStartClasses(ksFcb* fcb);
int16_t ksDwgReadClass(ksFcb* fcb, ksClass* record);

// headervars.cpp: the header section's stream into fcb->header and the
// handles of the reader state. 1, or 0 when the stream is bad.
int16_t ksDwgReadHeaderVars(ksFcb* fcb, ksBitReader& r);

// tables.cpp
int16_t ksDwgStartLinetypes(ksFcb* fcb);
int16_t ksDwgStartLayers(ksFcb* fcb);
int16_t ksDwgStartShapeFiles(ksFcb* fcb);
int16_t ksDwgStartViews(ksFcb* fcb);
int16_t ksDwgStartUcses(ksFcb* fcb);
int16_t ksDwgStartVports(ksFcb* fcb);
int16_t ksDwgStartRegApps(ksFcb* fcb);
int16_t ksDwgStartDimStyles(ksFcb* fcb);
int16_t ksDwgStartBlockHeaders(ksFcb* fcb);
int16_t ksDwgStartVpEntHeaders(ksFcb* fcb);
int16_t ksDwgReadLinetype(ksFcb* fcb, ksLinetype* record, int16_t* hasExtended);
int16_t ksDwgReadLayer(ksFcb* fcb, ksLayer* record, int16_t* hasExtended);
int16_t ksDwgReadShapeFile(ksFcb* fcb, ksStyle* record, int16_t* hasExtended);
int16_t ksDwgReadView(ksFcb* fcb, ksView* record, int16_t* hasExtended);
int16_t ksDwgReadUcs(ksFcb* fcb, ksUcs* record, int16_t* hasExtended);
int16_t ksDwgReadVport(ksFcb* fcb, ksVport* record, int16_t* hasExtended);
int16_t ksDwgReadRegApp(ksFcb* fcb, ksAppid* record, int16_t* hasExtended);
int16_t ksDwgReadDimStyle(ksFcb* fcb, ksDimstyle* record, int16_t* hasExtended);
int16_t ksDwgReadBlockHeader(ksFcb* fcb, ksBlockHeader* record, int16_t* hasExtended);
int16_t ksDwgReadVpEntHeader(ksFcb* fcb, ksVpEntHeader* record);
// The block header at the reader's position (the spaces' headers are read
// this way while the file opens). 1, or 0 when it can't be read.
int16_t ksReadBlockHeaderAt(ksFcb* fcb, ksBlockHeader* record, int16_t* hasExtended);

// entities.cpp
int16_t ksDwgStartEntities(ksFcb* fcb);
int16_t ksDwgStartBlockEntities(ksFcb* fcb);
int16_t ksDwgReadEntity(ksFcb* fcb, ksEntityHeader* header, void* body, int16_t* hasExtended);

// objects.cpp
int16_t ksDwgStartObjects(ksFcb* fcb);
int16_t ksDwgNextObjectType(ksFcb* fcb);
int16_t ksDwgReadDictionary(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended);
int16_t ksDwgReadGroup(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended);
int16_t ksDwgReadMlineStyle(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended);
int16_t ksDwgReadPlotSettings(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended);
int16_t ksDwgReadObject(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended);
