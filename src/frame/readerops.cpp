// The reader tables and the forwarders through which a load reaches them.
#include "frame/readerops.h"

#include "frame/fcb.h"
#include "frame/globals.h"

void ksInstallDwgReader()
{
    // An empty slot makes its forwarder fail.
    ksG->dwgOps = ksReaderOps{};
    ksDwgFillOps(&ksG->dwgOps);
}

void ksInstallDxfReader()
{
    // The DXF reader modules fill their slots here as they are built.
    ksG->dxfOps = ksReaderOps{};
}

// A forwarder calls the drawing's slot, or returns 0 when it is empty.
#define KS_FORWARD(slot, ...)                     \
    {                                             \
        const ksReaderOps* ops = fcb->ops;        \
        if (ops == nullptr || ops->slot == nullptr) \
            return 0;                             \
        return ops->slot(__VA_ARGS__);            \
    }

int16_t ksOpNextObjectType(ksFcb* fcb)
KS_FORWARD(nextObjectType, fcb)

int16_t ksOpReadDictionary(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended)
KS_FORWARD(readDictionary, fcb, head, body, hasExtended)

int16_t ksOpReadObject(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended)
KS_FORWARD(readObject, fcb, head, body, hasExtended)

int16_t ksOpReadBlockHeader(ksFcb* fcb, ksBlockHeader* record, int16_t* hasExtended)
KS_FORWARD(readBlockHeader, fcb, record, hasExtended)

int16_t ksOpReadBlockRecord(ksFcb* fcb, ksBlockHeader* record)
KS_FORWARD(readBlockRecord, fcb, record)

int16_t ksOpReadClass(ksFcb* fcb, ksClass* record)
KS_FORWARD(readClass, fcb, record)

int16_t ksOpReadDimStyle(ksFcb* fcb, ksDimstyle* record, int16_t* hasExtended)
KS_FORWARD(readDimStyle, fcb, record, hasExtended)

int16_t ksOpReadEntity(ksFcb* fcb, ksEntityHeader* head, void* body, int16_t* hasExtended)
KS_FORWARD(readEntity, fcb, head, body, hasExtended)

int16_t ksOpReadGroup(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended)
KS_FORWARD(readGroup, fcb, head, body, hasExtended)

int16_t ksOpReadHeader(ksFcb* fcb)
KS_FORWARD(readHeader, fcb)

int16_t ksOpReadLayer(ksFcb* fcb, ksLayer* record, int16_t* hasExtended)
KS_FORWARD(readLayer, fcb, record, hasExtended)

int16_t ksOpReadLinetype(ksFcb* fcb, ksLinetype* record, int16_t* hasExtended)
KS_FORWARD(readLinetype, fcb, record, hasExtended)

int16_t ksOpReadMlineStyle(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended)
KS_FORWARD(readMlineStyle, fcb, head, body, hasExtended)

int16_t ksOpReadPlotSettings(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended)
KS_FORWARD(readPlotSettings, fcb, head, body, hasExtended)

int16_t ksOpReadRegApp(ksFcb* fcb, ksAppid* record, int16_t* hasExtended)
KS_FORWARD(readRegApp, fcb, record, hasExtended)

int16_t ksOpReadShapeFile(ksFcb* fcb, ksStyle* record, int16_t* hasExtended)
KS_FORWARD(readShapeFile, fcb, record, hasExtended)

int16_t ksOpReadUcs(ksFcb* fcb, ksUcs* record, int16_t* hasExtended)
KS_FORWARD(readUcs, fcb, record, hasExtended)

int16_t ksOpReadView(ksFcb* fcb, ksView* record, int16_t* hasExtended)
KS_FORWARD(readView, fcb, record, hasExtended)

int16_t ksOpReadVport(ksFcb* fcb, ksVport* record, int16_t* hasExtended)
KS_FORWARD(readVport, fcb, record, hasExtended)

int16_t ksOpReadVpEntHeader(ksFcb* fcb, ksVpEntHeader* record)
KS_FORWARD(readVpEntHeader, fcb, record)

int16_t ksOpStartBlockEntities(ksFcb* fcb)
KS_FORWARD(startBlockEntities, fcb)

int16_t ksOpStartBlockHeaders(ksFcb* fcb)
KS_FORWARD(startBlockHeaders, fcb)

int16_t ksOpStartClasses(ksFcb* fcb)
KS_FORWARD(startClasses, fcb)

int16_t ksOpStartDimStyles(ksFcb* fcb)
KS_FORWARD(startDimStyles, fcb)

int16_t ksOpStartEntities(ksFcb* fcb)
KS_FORWARD(startEntities, fcb)

int16_t ksOpStartLayers(ksFcb* fcb)
KS_FORWARD(startLayers, fcb)

int16_t ksOpStartLinetypes(ksFcb* fcb)
KS_FORWARD(startLinetypes, fcb)

int16_t ksOpStartObjects(ksFcb* fcb)
KS_FORWARD(startObjects, fcb)

int16_t ksOpStartRegApps(ksFcb* fcb)
KS_FORWARD(startRegApps, fcb)

int16_t ksOpStartShapeFiles(ksFcb* fcb)
KS_FORWARD(startShapeFiles, fcb)

int16_t ksOpStartUcses(ksFcb* fcb)
KS_FORWARD(startUcses, fcb)

int16_t ksOpStartViews(ksFcb* fcb)
KS_FORWARD(startViews, fcb)

int16_t ksOpStartVpEntHeaders(ksFcb* fcb)
KS_FORWARD(startVpEntHeaders, fcb)

int16_t ksOpStartVports(ksFcb* fcb)
KS_FORWARD(startVports, fcb)

#undef KS_FORWARD
