// The phases of a load, one per table and list, run by ksLoadDrawing in a
// fixed order. Each takes the drawing and returns 1, or 0 with the error
// number standing. Each undo frees what its phase made.
//
// The table phases all run one pattern: start the table, read as many
// records as the header counted, give records of drawings below R13 new
// handles, take their extended data into the store, add them at the tail,
// and behind the loop add the table's default record when the file lacked
// it. What differs from table to table is in loadphases.cpp, beside each
// phase.
#pragma once

#include <cstdint>

#include "frame/kstypes.h"
#include "store/vm.h"

struct ksFcb;

int16_t ksLoadLinetypes(ksFcb* fcb);
int16_t ksLoadLayers(ksFcb* fcb);
int16_t ksLoadClasses(ksFcb* fcb);
int16_t ksLoadVports(ksFcb* fcb);
int16_t ksLoadUcses(ksFcb* fcb);
int16_t ksLoadRegApps(ksFcb* fcb);
int16_t ksLoadViews(ksFcb* fcb);
int16_t ksLoadShapeFiles(ksFcb* fcb);
int16_t ksLoadBlockHeaders(ksFcb* fcb);
int16_t ksLoadDimStyles(ksFcb* fcb);
int16_t ksLoadMainEntities(ksFcb* fcb);
int16_t ksLoadBlockEntities(ksFcb* fcb);
int16_t ksLoadObjects(ksFcb* fcb);
int16_t ksLoadVpEntHeaders(ksFcb* fcb);
int16_t ksResolveHeader(ksFcb* fcb);

// The resolving steps behind the phases (frame/resolve.cpp).
//
// One entity list of the file: entities are read and handed to the entity
// step (bridge/upgrade.h) into modelList or paperList until the reader has
// no more, or, with inBlock, until an ENDBLK. 1, also when a stop request
// cut the list short; 0 with the number of the failing entity (287 to
// 291), the lists' entities freed.
int16_t ksLoadEntities(ksFcb* fcb, ksLoc modelList, ksLoc paperList, uint8_t makeHandles, uint8_t inBlock);
// $CMLSTYLE by the name of the DXF header: the first multiline style of
// that name, or a new one of the default values.
int16_t ksResolveCmlStyle(ksFcb* fcb);
// The ACAD_PLOTSTYLENAME entry of the named object dictionary becomes
// plotStyleDictionary and defaultPlotStyleHandle; null when there is none.
void ksFindPlotStyleDictionary(ksFcb* fcb);
// The ACAD_BLKREFS dictionaries and ID buffers of the external references
// of a drawing below R14, from pendingRefs1 and pendingRefs2. 1, or 0 when
// an object couldn't be made (the others are made all the same).
int16_t ksMakeBlockRefObjects(ksFcb* fcb);
// Sets the header references a reader may leave (ksG->headerNames,
// headerIndices) and the block working data to their values for a file
// that gives none.
void ksResetHeaderReferences();

// Undo of the table phases: each empties its table (records and their
// blobs). The handle index is not touched; the tear-down frees it last.
// ksUnloadLinetypes also drops the pending extended-data references, as the
// linetypes are the first phase that can note any.
void ksUnloadLinetypes(ksFcb* fcb);
void ksUnloadLayers(ksFcb* fcb);
void ksUnloadClasses(ksFcb* fcb);
void ksUnloadVports(ksFcb* fcb);
void ksUnloadUcses(ksFcb* fcb);
void ksUnloadRegApps(ksFcb* fcb);
void ksUnloadViews(ksFcb* fcb);
void ksUnloadShapeFiles(ksFcb* fcb);
void ksUnloadDimStyles(ksFcb* fcb);
// Undo of the resolving phases. Block headers: every block's entity list,
// the two main lists and the block headers, with the pending reference
// lists. Main entities: the entities of the two spaces and vpEntList,
// with the entity step's caches. Block entities: the entities of every
// block but the two spaces. Objects: all objects.
void ksUnloadBlockHeaders(ksFcb* fcb);
void ksUnloadMainEntities(ksFcb* fcb);
void ksUnloadBlockEntities(ksFcb* fcb);
void ksUnloadObjects(ksFcb* fcb);

// A layer's linetype as the file names it, which ksLayer has no field for.
// The reader of an old DWG notes the linetype's place in the table (from
// 0), the DXF reader the text of group 6, while it reads the layer; the
// layer phase clears both before each read and turns them into
// linetypeHandle.
void ksNoteLayerLinetypeIndex(int16_t index);
void ksNoteLayerLinetypeName(const char* name);

// The default records that every drawing holds, shared by the load and by
// ksNewDrawing. Each makes the record with the given handle and adds it;
// 1, or 0 with the error number of the add.
//
// "ByBlock" then "ByLayer", with byBlockHandle and byLayerHandle, at the
// tail of the linetypes.
int16_t ksAddSpecialLinetypes(ksFcb* fcb);
// "Continuous", "Solid line", at the head of the linetypes.
int16_t ksAddContinuousLinetype(ksFcb* fcb, const ksObjHandle& handle);
// Layer "0" with the first linetype, at the head of the layers.
int16_t ksAddLayerZero(ksFcb* fcb, const ksObjHandle& handle);
// Viewport "*ACTIVE" looking along $VIEWDIR at $VIEWCTR, $VIEWSIZE high,
// at the head of the viewports.
int16_t ksAddActiveVport(ksFcb* fcb, const ksObjHandle& handle);
// Application "ACAD" at the head of the registered applications.
int16_t ksAddAcadRegApp(ksFcb* fcb, const ksObjHandle& handle);
// Text style "Standard" with font file "txt", at the head of the styles.
int16_t ksAddStandardStyle(ksFcb* fcb, const ksObjHandle& handle);
// Dimension style "Standard" of the default values, its text style the
// first of the drawing; at the tail of the dimension styles.
int16_t ksAddStandardDimStyle(ksFcb* fcb, const ksObjHandle& handle);
