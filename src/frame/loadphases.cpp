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

}  // namespace

int16_t ksLoadLinetypes(ksFcb* fcb) { return tablePhase(fcb, ksOpStartLinetypes, ksHeadLinetypes); }
int16_t ksLoadLayers(ksFcb* fcb) { return tablePhase(fcb, ksOpStartLayers, ksHeadLayers); }
int16_t ksLoadVports(ksFcb* fcb) { return tablePhase(fcb, ksOpStartVports, ksHeadVports); }
int16_t ksLoadUcses(ksFcb* fcb) { return tablePhase(fcb, ksOpStartUcses, ksHeadUcses); }
int16_t ksLoadRegApps(ksFcb* fcb) { return tablePhase(fcb, ksOpStartRegApps, ksHeadAppids); }
int16_t ksLoadViews(ksFcb* fcb) { return tablePhase(fcb, ksOpStartViews, ksHeadViews); }
int16_t ksLoadShapeFiles(ksFcb* fcb) { return tablePhase(fcb, ksOpStartShapeFiles, ksHeadStyles); }
int16_t ksLoadDimStyles(ksFcb* fcb) { return tablePhase(fcb, ksOpStartDimStyles, ksHeadDimstyles); }

int16_t ksLoadClasses(ksFcb* fcb)
{
    // Drawings below R13 have no class section to read.
    if (fcb->fileVersion < ksAC1012)
        return 1;
    return ksOpStartClasses(fcb);
}
