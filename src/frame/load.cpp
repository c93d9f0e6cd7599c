// Loading a drawing: detection of the file's kind and release from its
// first bytes, then a fixed sequence of phases through the reader table,
// and on failure the tear-down of what the phases made, in reverse.
#include "frame/load.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "bridge/layouts.h"
#include "bridge/upgrade.h"
#include "driver/hooks.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/loadphases.h"
#include "frame/readerops.h"
#include "frame/save.h"
#include "records/header.h"
#include "records/object.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/entitylist.h"
#include "store/list.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "store/xdata.h"

namespace {

bool startsWith(std::span<const uint8_t> bytes, std::string_view text)
{
    return bytes.size() >= text.size() && std::memcmp(bytes.data(), text.data(), text.size()) == 0;
}

// True when text starts at one of the positions 0 .. size - length - 2, so
// that a string ending in the last two bytes is not found.
bool containsVersion(std::span<const uint8_t> bytes, std::string_view text)
{
    if (bytes.size() < text.size() + 2)
        return false;
    auto searchEnd = bytes.end() - 2;
    return std::search(bytes.begin(), searchEnd, text.begin(), text.end()) != searchEnd;
}

bool contains(std::span<const uint8_t> bytes, std::string_view text)
{
    return std::search(bytes.begin(), bytes.end(), text.begin(), text.end()) != bytes.end();
}

void reportProgress(int16_t percent)
{
    if (ksG->loadProgress)
        ksG->loadProgress(percent);
}

// One step of the main sequence after the header.
struct Phase {
    int16_t error;     // the number that stands while the phase runs
    int16_t progress;  // handed to loadProgress before it runs; -1 none
    int16_t (*run)(ksFcb*);
    void (*undo)(ksFcb*);  // frees what run made; null when it keeps nothing
};

constexpr Phase kPhases[] = {
    {45, 4, ksLoadLinetypes, ksUnloadLinetypes},
    {46, 8, ksLoadLayers, ksUnloadLayers},
    {47, 12, ksLoadClasses, ksUnloadClasses},
    {48, 16, ksLoadVports, ksUnloadVports},
    {49, 20, ksLoadUcses, ksUnloadUcses},
    {50, 24, ksLoadRegApps, ksUnloadRegApps},
    {51, 28, ksLoadViews, ksUnloadViews},
    {52, 32, ksLoadShapeFiles, ksUnloadShapeFiles},
    {54, 36, ksLoadBlockHeaders, ksUnloadBlockHeaders},
    {53, 40, ksLoadDimStyles, ksUnloadDimStyles},
    {55, 46, ksLoadMainEntities, ksUnloadMainEntities},
    {130, 71, ksLoadBlockEntities, ksUnloadBlockEntities},
    {56, -1, ksLoadObjects, ksUnloadObjects},
    {70, 96, ksLoadVpEntHeaders, nullptr},
};

// Which drawings get new handles on load: those without handles and those
// of the oldest releases.
void decideNewHandles(ksFcb* fcb)
{
    fcb->makeEntityHandles = fcb->makeTableHandles = 0;
    if (fcb->fileVersion >= ksAC1012)
        return;
    int16_t v = fcb->fileVersion;
    if (v >= ksAC1006 && (v < ksAC1009 || fcb->handlesEnabled) && fcb->versionGuessed == 0) {
        if (v != ksAC1006)
            return;
        if (fcb->isDxf) {
            fcb->makeTableHandles = 1;
            fcb->makeEntityHandles = fcb->handlesEnabled ? 0 : 1;
            return;
        }
        if (fcb->handlesEnabled)
            return;
    }
    fcb->makeEntityHandles = fcb->makeTableHandles = 1;
}

// Drawings below R13 have no control objects; R13 and later DXF has no
// viewport entity control. They get new handles, in the fixed order.
void makeControlHandles(ksFcb* fcb)
{
    if (fcb->fileVersion >= ksAC1012) {
        if (fcb->isDxf)
            ksHandleNext(fcb, &fcb->vpEntControlHandle);
        return;
    }
    ksObjHandle* order[] = {
        &fcb->blockControlHandle, &fcb->layerControlHandle,  &fcb->shapeFileControlHandle,
        &fcb->linetypeControlHandle, &fcb->viewControlHandle, &fcb->ucsControlHandle,
        &fcb->vportControlHandle,  &fcb->regAppControlHandle, &fcb->dimStyleControlHandle,
        &fcb->modelBlockHandle,    &fcb->paperBlockHandle,   &fcb->vpEntControlHandle,
    };
    for (ksObjHandle* h : order)
        ksHandleNext(fcb, h);
}

void closeInput(ksFcb* fcb)
{
    if (fcb->releaseReader) {
        fcb->releaseReader(fcb);
        fcb->releaseReader = nullptr;
    }
    if (fcb->file) {
        ksFileClose(fcb->file);
        fcb->file = nullptr;
    }
}

// Frees what a drawing holds and the drawing itself.
void freeDrawing(ksFcb* fcb)
{
    ksLoadEntityCacheFree(fcb);
    ksEntityListFree(fcb, fcb->modelEntities);
    ksEntityListFree(fcb, fcb->paperEntities);
    ksTablesFree(fcb);
    ksObjectsFree(fcb);
    ksClassesFree(fcb);
    ksListFree(fcb->pendingRefs1);
    ksListFree(fcb->pendingRefs2);
    ksFreeXrefNames(fcb);
    ksXdataFreePending(fcb);
    ksLoadEntityCacheFree(fcb);
    ksBtreeFree(fcb);
    ksBlobFree(fcb->bmpBlob);
    ksBlobFree(fcb->wmfBlob);
    fcb->bmpBlob = fcb->wmfBlob = 0;
    closeInput(fcb);
    ksMemFree(fcb->header);
    ksFreeFcb(fcb);
}

constexpr size_t kPhaseCount = sizeof kPhases / sizeof kPhases[0];

// Frees a drawing that a load could not finish. The phases begun so far
// (phasesBegun of kPhases) free what they made, in reverse; then the
// input, the header and the block go.
ksFcb* abandonLoad(ksFcb* fcb, ksFcb** fcbOut, size_t phasesBegun = 0)
{
    for (size_t i = phasesBegun; i-- > 0;)
        if (kPhases[i].undo)
            kPhases[i].undo(fcb);
    freeDrawing(fcb);
    if (fcbOut)
        *fcbOut = nullptr;
    return nullptr;
}

}  // namespace

ksSniff ksSniffBytes(std::span<const uint8_t> head)
{
    head = head.first(std::min(head.size(), ksSniffSize));
    ksSniff s{};
    if (!startsWith(head, "AC10")) {
        s.isDxf = 1;
        s.fileType = startsWith(head, "AutoCAD Binary DXF") ? 2 : 1;
        s.sectionFound = contains(head, "SECTION") || startsWith(head, "999");
    }
    s.version = ksVersionUnknown;
    for (int v = 0; v < ksVersionCount; ++v) {
        if (containsVersion(head, ksVersionNames[v])) {
            s.version = static_cast<int16_t>(v);
            break;
        }
    }
    if (s.version == ksVersionUnknown && startsWith(head, "AC1013")) {
        s.version = ksAC1014;
        s.betaSeen = 1;
    }
    return s;
}

ksFcb* ksLoadDrawing(const char* path, uint8_t closeAfterLoad, int16_t makeLayouts)
{
    ksFcb* fcb = nullptr;
    return ksLoadDrawingInto(path, closeAfterLoad, makeLayouts, &fcb);
}

ksFcb* ksLoadDrawingInto(const char* path, uint8_t closeAfterLoad, int16_t makeLayouts, ksFcb** fcbOut)
{
    if (fcbOut)
        *fcbOut = nullptr;
    ksG->loadContinue = 1;
    ksG->betaSeen = 0;

    ksG->errorNumber = 1;
    ksFcb* fcb = ksNewFcb();
    if (fcb == nullptr)
        return nullptr;
    ksG->errorNumber = 1;
    if (fcbOut)
        *fcbOut = fcb;
    fcb->childCount = 0;
    fcb->closeAfterLoad = closeAfterLoad;
    fcb->header = static_cast<ksHeader*>(ksMemAlloc(sizeof(ksHeader)));
    if (fcb->header == nullptr)
        return abandonLoad(fcb, fcbOut);
    ksHeaderSetDefaults(fcb->header);

    ksG->errorNumber = 3;
    if (path == nullptr || std::strlen(path) >= sizeof fcb->fileName)
        return abandonLoad(fcb, fcbOut);
    std::strcpy(fcb->fileName, path);
    fcb->file = ksFileOpenRead(path);
    if (fcb->file == nullptr)
        return abandonLoad(fcb, fcbOut);

    ksG->errorNumber = 4;
    auto* sniffBuffer = static_cast<uint8_t*>(ksMemAlloc(ksSniffSize));
    if (sniffBuffer == nullptr) {
        if (!ksAllocFailed(11))
            return abandonLoad(fcb, fcbOut);
    }
    ksSniff sniff{};
    if (sniffBuffer) {
        size_t got = ksFileRead(sniffBuffer, 1, ksSniffSize, fcb->file);
        sniff = ksSniffBytes({sniffBuffer, got});
        ksMemFree(sniffBuffer);
    }
    fcb->isDxf = sniff.isDxf;
    fcb->fileType = sniff.fileType;
    fcb->fileVersion = sniff.version;
    fcb->ops = sniff.isDxf ? &ksG->dxfOps : &ksG->dwgOps;
    ksG->betaSeen = sniff.betaSeen;
    fcb->loading = 1;

    ksG->errorNumber = 286;
    if (ksG->betaSeen && ksG->allowBetaFiles == 0)
        return abandonLoad(fcb, fcbOut);

    ksG->errorNumber = 5;
    if (fcb->isDxf && !sniff.sectionFound)
        return abandonLoad(fcb, fcbOut);

    ksG->errorNumber = 22;
    reportProgress(0);
    if (!ksG->loadContinue)
        return abandonLoad(fcb, fcbOut);
    ksFileSeek(fcb->file, 0, 0);
    ksResetHeaderReferences();
    if (!ksOpReadHeader(fcb))
        return abandonLoad(fcb, fcbOut);

    reportProgress(0);
    if (!ksG->loadContinue)
        return abandonLoad(fcb, fcbOut);
    decideNewHandles(fcb);
    fcb->nextHandle = fcb->handlesEnabled ? fcb->handleSeed : ksG->firstHandle;
    makeControlHandles(fcb);

    for (size_t i = 0; i < kPhaseCount; ++i) {
        const Phase& phase = kPhases[i];
        ksG->errorNumber = phase.error;
        if (phase.progress >= 0)
            reportProgress(phase.progress);
        if (!ksG->loadContinue)
            return abandonLoad(fcb, fcbOut, i);
        if (!phase.run(fcb))
            return abandonLoad(fcb, fcbOut, i + 1);
    }

    fcb->visRetain = fcb->header->VISRETAIN;
    const int16_t version = fcb->fileVersion;
    // A closing step that fails ends the load with its own number, whatever
    // the store said on the way.
    auto failStep = [&](int16_t number) {
        ksG->errorNumber = number;
        return abandonLoad(fcb, fcbOut, kPhaseCount);
    };
    ksG->errorNumber = 131;
    if (!ksG->loadContinue || !ksResolveHeader(fcb))
        return failStep(131);
    ksG->errorNumber = 132;
    if (version >= ksAC1012 && fcb->isDxf && !ksResolveCmlStyle(fcb))
        return failStep(132);
    if (version >= ksAC1015 && fcb->fileType == 1)
        ksFindPlotStyleDictionary(fcb);
    ksG->errorNumber = 133;
    if (version < ksAC1012 && !ksAddDefaultObjects(fcb, nullptr))
        return failStep(133);
    // A drawing asked for with layouts that can't have them is no drawing
    // to hand out: the load fails with the number the layouts left.
    if (makeLayouts && version < ksAC1015) {
        ksG->errorNumber = 133;
        if (!ksAddLayoutObjects(fcb, nullptr)) {
            if (ksG->errorNumber == 0)
                ksG->errorNumber = 133;
            return abandonLoad(fcb, fcbOut, kPhaseCount);
        }
    }

    if (fcb->closeAfterLoad == 1)
        closeInput(fcb);
    ksG->errorNumber = 0;
    // From here on nothing fails the load: what can't be finished is left
    // as the file had it.
    if (fcb->pendingXdata != 0) {
        ksXdataResolvePending(fcb);
        if (version < ksAC1015)
            ksUpgradeViewports(fcb);
    }
    if (fcb->pendingRefs1 != 0 && fcb->pendingRefs2 != 0)
        ksMakeBlockRefObjects(fcb);
    ksListFree(fcb->pendingRefs1);
    ksListFree(fcb->pendingRefs2);
    fcb->pendingRefs1 = fcb->pendingRefs2 = 0;
    ksLoadEntityCacheFree(fcb);
    ksG->errorNumber = 0;
    reportProgress(100);
    fcb->header->HANDSEED = fcb->nextHandle;
    fcb->sourceVersion = ksVersionUnknown;
    fcb->loading = 0;
    return fcb;
}

int16_t ksCloseDrawing(ksFcb* fcb)
{
    if (fcb == nullptr)
        return 0;
    for (int i = 0; i < fcb->childCount && i < ksMaxChildren; ++i) {
        if (fcb->children[i])
            ksCloseDrawing(fcb->children[i]);
        fcb->children[i] = nullptr;
    }
    freeDrawing(fcb);
    return 1;
}
