// Bringing old content up to the store's model while a drawing loads: the
// per-entity step with its reference resolving and the POLYLINE to
// LWPOLYLINE conversion, the default objects of a drawing older than R13,
// and the viewport settings that old files keep in extended data.
#pragma once

#include <cstdint>

#include "frame/kstypes.h"
#include "store/vm.h"

struct ksFcb;
struct ksEntityHeader;

// What a reader hands over with one entity besides its header and body:
// the references in the file's own terms. Which of them are read depends
// on the drawing's file:
//   - DWG below R13: the table indices (a place in the table's list,
//     counted from 0);
//   - DXF: the names, as the reader filled its name buffers (a null
//     pointer reads as an empty name);
//   - DWG from R13 on: the header and body hold handles already; only
//     styleName is read, for an ARCALIGNEDTEXT.
// ksEntityRefsClear gives the values of "nothing read".
struct ksEntityRefs {
    int16_t hasExtended;     // the raw extended data waits in xdataReadBuffer
                             // (xdataSourceEnd bytes), as the readers leave it
    int32_t filePosition;    // DWG below R13: the record's file position,
                             // which a paper space VIEWPORT keeps
    int16_t layerIndex;
    int16_t linetypeIndex;   // 32767 BYLAYER, 32766 BYBLOCK
    int16_t styleIndex;      // SHAPE, TEXT, ATTDEF, ATTRIB
    int16_t blockIndex;      // INSERT, DIMENSION
    int16_t dimStyleIndex;   // DIMENSION; -1 none
    const char* layerName;      // 8
    const char* linetypeName;   // 6
    const char* styleName;      // 7: TEXT, ATTDEF, ATTRIB, MTEXT, RTEXT, ARCALIGNEDTEXT
    const char* shapeName;      // 2 of a SHAPE
    const char* blockName;      // 2 of an INSERT or DIMENSION
    const char* dimStyleName;   // 3 of a DIMENSION, LEADER or TOLERANCE
    const char* mlineStyleName; // 2 of an MLINE
};

// No extended data, position 0, indices 0 but linetype BYLAYER and
// dimension style -1, all names null.
void ksEntityRefsClear(ksEntityRefs* refs);

// The entity step of a load: one entity, as a reader delivered it, is
// resolved, upgraded and stored.
//
//   header, body   the entity; body is a buffer of ksEntityBodyMax bytes.
//                  Both are changed: references become handles, and the
//                  record passes to the store, which owns its blobs from
//                  then on.
//   refs           the file's references, above.
//   modelList,     where the entity goes: paperList when its paper space
//   paperList      flag is set (the same list twice for a block's entities).
//   makeHandles    give the entity a new handle whatever it has; from DXF a
//                  null handle gets a new one in any case.
//   inBlock        the entity belongs to a block: its paper space flag is
//                  cleared.
//
// The caller reads on past records that the reader marks erased: they are
// never handed over (their blobs are the caller's to free).
//
// Result: the entity's type code (498 for an entity of the zombie class of
// an R13 file), also when the entity is held back (the records of a
// POLYLINE being gathered for the conversion), or 0 with the failure in
// the error number, the entity's blobs freed:
//   287  a paper space VIEWPORT without extended data from a file below
//        R2000
//   288  the extended data can't be resolved
//   289  the store refused the entity; also a new layer that can't be added
//   290  the handle index refused it (a duplicate handle among them)
//   291  a paper space VIEWPORT can't join the viewport entity list
// Part of a gathered POLYLINE can have been stored when one of its records
// fails; the load is failing then anyway.
//
// The step keeps state between calls in the drawing (fcb->loadState): the
// one-entry cache of each kind of reference with an index by name beside
// it, the DXF inheritance of POLYLINE and INSERT, and a POLYLINE being
// gathered. The index follows the tables as long as they only grow; a
// caller that renames or removes table records between two calls starts
// afresh with ksLoadEntityCacheFree.
int16_t ksLoadEntity(ksFcb* fcb, ksLoc modelList, ksLoc paperList, uint8_t makeHandles, uint8_t inBlock,
                     ksEntityHeader* header, void* body, const ksEntityRefs* refs);

// Ends an entity list: a POLYLINE still being gathered (its SEQEND never
// came) is stored as it stands, unconverted. The entity loop calls it when
// the reader has no more entities. 1, or 0 with 289 or 290.
int16_t ksLoadEntityFinish(ksFcb* fcb);

// Frees the entity step's state of the drawing, with the records of a
// POLYLINE still being gathered (and their blobs). Harmless when there is
// none; a drawing that is freed calls it.
void ksLoadEntityCacheFree(ksFcb* fcb);

// The default objects of a drawing older than R13: the named object
// dictionary with its "ACAD_GROUP" and "ACAD_MLINESTYLE" dictionaries and
// the multiline style "Standard", which $CMLSTYLE of the drawing's header
// then names (when the drawing has a header). The object list must be
// empty: the named object dictionary has to be the first object.
//
// handles: the 35-slot table of fixed handles, or null. Slots used: 24 the
// named object dictionary, 25 ACAD_GROUP, 26 ACAD_MLINESTYLE, 27 the
// multiline style "Standard". With null each comes from ksHandleNext.
//
// 1, or 0 with the error number standing; objects made before a failure
// stay in the list.
int16_t ksAddDefaultObjects(ksFcb* fcb, const ksObjHandle* handles);

// Moves the settings of each VIEWPORT that a file below R2000 keeps in the
// extended data of the application "ACAD" into the VIEWPORT's body: view,
// clipping, status bits, snap and grid, and the frozen layers (1003 items,
// already handles). The remaining items stay as the entity's extended
// data. A VIEWPORT without extended data is left alone.
//
// 1, or 0 when a VIEWPORT's extended data has no view (no 1010 item behind
// the application's name) or breaks off: that one is left as it was, and
// the others are upgraded all the same. 0 with an error number also when a
// record can't be written back.
int16_t ksUpgradeViewports(ksFcb* fcb);
