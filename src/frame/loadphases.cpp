#include "frame/loadphases.h"

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/readerops.h"

namespace {

// A table phase: start the table, then accept it only while it is empty.
int16_t tablePhase(ksFcb* fcb, int16_t (*start)(ksFcb*), ksTableHead head)
{
    if (!start(fcb))
        return 0;
    return fcb->tableCount[head] == 0;
}

// The extended-data flag the list readers fill; entity and object records
// go into the shared read buffer as scratch.
int16_t hasExtended;

}  // namespace

int16_t ksLoadLinetypes(ksFcb* fcb) { return tablePhase(fcb, ksOpStartLinetypes, ksHeadLinetypes); }
int16_t ksLoadLayers(ksFcb* fcb) { return tablePhase(fcb, ksOpStartLayers, ksHeadLayers); }
int16_t ksLoadVports(ksFcb* fcb) { return tablePhase(fcb, ksOpStartVports, ksHeadVports); }
int16_t ksLoadUcses(ksFcb* fcb) { return tablePhase(fcb, ksOpStartUcses, ksHeadUcses); }
int16_t ksLoadRegApps(ksFcb* fcb) { return tablePhase(fcb, ksOpStartRegApps, ksHeadAppids); }
int16_t ksLoadViews(ksFcb* fcb) { return tablePhase(fcb, ksOpStartViews, ksHeadViews); }
int16_t ksLoadShapeFiles(ksFcb* fcb) { return tablePhase(fcb, ksOpStartShapeFiles, ksHeadStyles); }
int16_t ksLoadBlockHeaders(ksFcb* fcb) { return tablePhase(fcb, ksOpStartBlockHeaders, ksHeadBlocks); }
int16_t ksLoadDimStyles(ksFcb* fcb) { return tablePhase(fcb, ksOpStartDimStyles, ksHeadDimstyles); }
int16_t ksLoadVpEntHeaders(ksFcb* fcb) { return tablePhase(fcb, ksOpStartVpEntHeaders, ksHeadVpEntHeaders); }

int16_t ksLoadClasses(ksFcb* fcb)
{
    // Drawings below R13 have no class section to read.
    if (fcb->fileVersion < ksAC1012)
        return 1;
    return ksOpStartClasses(fcb);
}

int16_t ksLoadMainEntities(ksFcb* fcb)
{
    if (!ksOpStartEntities(fcb))
        return 0;
    // readEntity gives 0 at the end of the list; a delivered entity can't
    // be kept yet.
    auto* scratch = ksG->readBuffer;
    return !ksOpReadEntity(fcb, reinterpret_cast<ksEntityHeader*>(scratch), scratch + 4096, &hasExtended);
}

int16_t ksLoadBlockEntities(ksFcb* fcb)
{
    // One entity list per block header; with no block headers kept there
    // is nothing to walk.
    return fcb->tableCount[ksHeadBlocks] == 0;
}

int16_t ksLoadObjects(ksFcb* fcb)
{
    if (fcb->fileVersion < ksAC1012)
        return 1;
    if (!ksOpStartObjects(fcb))
        return 0;
    return ksOpNextObjectType(fcb) == 0;
}

int16_t ksResolveHeader(ksFcb*)
{
    // The header's table references resolve against the tables, which are
    // empty here.
    return 1;
}
