// A new drawing in memory: the same content a load leaves in every
// drawing, with handles drawn in a fixed order or taken from a table.
#include "frame/newdrawing.h"

#include <cstring>
#include <iterator>

#include "bridge/layouts.h"
#include "bridge/upgrade.h"
#include "driver/hooks.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/tablelist.h"

namespace {

// Where each fixed handle goes, by slot of the table.
ksObjHandle ksFcb::*const kControlSlots[] = {
    &ksFcb::blockControlHandle, &ksFcb::layerControlHandle,  &ksFcb::shapeFileControlHandle,
    &ksFcb::linetypeControlHandle, &ksFcb::viewControlHandle, &ksFcb::ucsControlHandle,
    &ksFcb::vportControlHandle, &ksFcb::regAppControlHandle, &ksFcb::dimStyleControlHandle,
    &ksFcb::vpEntControlHandle, &ksFcb::modelBlockHandle,    &ksFcb::paperBlockHandle,
};
// Without a table the viewport entity control comes last.
ksObjHandle ksFcb::*const kControlDrawOrder[] = {
    &ksFcb::blockControlHandle, &ksFcb::layerControlHandle,  &ksFcb::shapeFileControlHandle,
    &ksFcb::linetypeControlHandle, &ksFcb::viewControlHandle, &ksFcb::ucsControlHandle,
    &ksFcb::vportControlHandle, &ksFcb::regAppControlHandle, &ksFcb::dimStyleControlHandle,
    &ksFcb::modelBlockHandle,   &ksFcb::paperBlockHandle,    &ksFcb::vpEntControlHandle,
};
ksObjHandle ksFcb::*const kBlockEntitySlots[] = {
    &ksFcb::modelBlockBegin, &ksFcb::modelBlockEnd, &ksFcb::paperBlockBegin, &ksFcb::paperBlockEnd,
};
static_assert(std::size(kControlSlots) == ksFixedBlockEntities);


// One of the two space block headers, with its own entity list, which
// becomes the drawing's list of that space.
bool addSpace(ksFcb* fcb, const char* name, const ksObjHandle& handle, ksLoc ksFcb::*entities)
{
    ksBlockHeader record;
    ksBlockHeaderDefaults(&record);
    std::strcpy(record.name, name);
    record.entryHandle = handle;
    fcb->*entities = record.entities = ksListNew();
    return record.entities != 0 && ksBlockHeaderAdd(fcb, &record);
}

// The default records, in order; each step stops the making of the
// drawing when it fails.
bool addDefaultRecords(ksFcb* fcb, const ksObjHandle* handles)
{
    fcb->byBlockHandle = ksHandleFixedOrNext(fcb, handles, ksFixedByBlock);
    fcb->byLayerHandle = ksHandleFixedOrNext(fcb, handles, ksFixedByLayer);
    return ksAddSpecialLinetypes(fcb) &&
           ksAddContinuousLinetype(fcb, ksHandleFixedOrNext(fcb, handles, ksFixedContinuous)) &&
           ksAddLayerZero(fcb, ksHandleFixedOrNext(fcb, handles, ksFixedLayerZero)) &&
           ksAddActiveVport(fcb, ksHandleFixedOrNext(fcb, handles, ksFixedActiveVport)) &&
           ksAddAcadRegApp(fcb, ksHandleFixedOrNext(fcb, handles, ksFixedAcadRegApp)) &&
           ksAddStandardStyle(fcb, ksHandleFixedOrNext(fcb, handles, ksFixedStandardStyle)) &&
           ksAddStandardDimStyle(fcb, ksHandleFixedOrNext(fcb, handles, ksFixedStandardDimStyle)) &&
           ksAddDefaultObjects(fcb, handles) &&
           addSpace(fcb, "*MODEL_SPACE", fcb->modelBlockHandle, &ksFcb::modelEntities) &&
           addSpace(fcb, "*PAPER_SPACE", fcb->paperBlockHandle, &ksFcb::paperEntities);
}

bool addClasses(ksFcb* fcb, const ksClass* classes, int16_t classCount)
{
    if (classes == nullptr)
        return ksAddDefaultClasses(fcb) != 0;
    for (int16_t i = 0; i < classCount; ++i)
        if (!ksClassAdd(fcb, &classes[i]))
            return false;
    return true;
}

// Frees all the drawing holds; the error number of the failure stays.
ksFcb* abandon(ksFcb* fcb)
{
    const int32_t error = ksG->errorNumber;
    ksCloseDrawing(fcb);
    ksG->errorNumber = error;
    return nullptr;
}

}  // namespace

ksFcb* ksNewDrawing(const ksObjHandle* handles, const ksClass* classes, int16_t classCount, int16_t version)
{
    ksG->errorNumber = 0;
    ksFcb* fcb = ksNewFcb();
    if (fcb == nullptr)
        return nullptr;
    fcb->header = static_cast<ksHeader*>(ksMemAlloc(sizeof(ksHeader)));
    if (fcb->header == nullptr) {
        ksAllocFailed(181);
        return abandon(fcb);
    }
    ksHeaderSetDefaults(fcb->header);
    ksHeader& header = *fcb->header;

    fcb->sourceVersion = version;
    fcb->loading = 0;
    fcb->nextHandle = ksHandleFromU64(1);
    header.HANDSEED = fcb->nextHandle;
    header.HANDLING = 1;

    if (handles) {
        for (int slot = 0; slot < ksFixedBlockEntities; ++slot)
            fcb->*kControlSlots[slot] = handles[ksFixedControls + slot];
    } else {
        for (ksObjHandle ksFcb::*field : kControlDrawOrder)
            ksHandleNext(fcb, &(fcb->*field));
    }
    for (int i = 0; i < 4; ++i)
        fcb->*kBlockEntitySlots[i] = ksHandleFixedOrNext(fcb, handles, ksFixedBlockEntities + i);

    if (!addClasses(fcb, classes, classCount) || !addDefaultRecords(fcb, handles))
        return abandon(fcb);
    if (version >= ksAC1015 && !ksAddLayoutObjects(fcb, handles))
        return abandon(fcb);

    header.TEXTSTYLE = header.DIMTXSTY = ksFirstStyleHandle(fcb);
    header.CLAYER = ksTableFirstHandle(fcb, ksListLayers);
    header.CELTYPE = ksFirstLinetypeHandle(fcb);
    header.DIMSTYLE = ksTableFirstHandle(fcb, ksListDimStyles);
    header.UCSNAME = header.PUCSNAME = ksObjHandle{};

    if (handles) {
        ksObjHandle greatest{};
        for (int slot = 0; slot < ksFixedHandleCount; ++slot)
            if (ksHandleCompare(handles[slot], greatest) > 0)
                greatest = handles[slot];
        fcb->nextHandle = greatest;
        ksHandleIncrement(&fcb->nextHandle);
    }
    header.HANDSEED = fcb->nextHandle;
    ksG->errorNumber = 0;
    return fcb;
}
