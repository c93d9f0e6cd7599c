// Saving to an older release: what a target can hold and what stands in
// for the rest. The records stay as they are; the writers ask here, one
// entity at a time, whether it fits, how an LWPOLYLINE becomes a POLYLINE
// with its VERTEX and SEQEND entities and which handles those take, how a
// VIEWPORT's view goes into extended data, how table names are shortened
// and cleaned, how a deleted block keeps its place, and how handles become
// the table indices of a file below R13.
//
// Releases are ksVersion codes; "target" is the save's target block, whose
// outputVersion is the release being written. The state of one save (the
// reference caches, the running entity's indices, the next handle of the
// LWPOLYLINE expansion) lives in ksDowngrade(): a save is the only one in
// progress, and ksClearRefCaches starts it afresh.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/kstypes.h"
#include "records/entity.h"
#include "store/vm.h"

struct ksFcb;
struct ksBlobCursor;
struct ksXdataItem;

// ---- State of one save -------------------------------------------------

inline constexpr int32_t ksRefCacheEmpty = 65535;

// One-entry caches of the index resolvers: the last handle and its index.
enum ksRefKind : int { ksRefLayer, ksRefLinetype, ksRefStyle, ksRefBlock, ksRefDimstyle, ksRefKindCount };

struct ksRefCache {
    ksObjHandle handle;
    int32_t index;  // ksRefCacheEmpty: nothing cached
};

struct ksDowngradeState {
    ksRefCache refs[ksRefKindCount];
    // Clears so far: the DXF writer keeps the names it finds by handle
    // (layer, linetype, style, block, dimension style) until the count
    // moves on.
    uint64_t clears;
    // Indices found for the running entity by ksResolveEntityRefs.
    int32_t layerIndex;
    int32_t linetypeIndex;
    uint8_t styleIndex;
    int32_t blockIndex;
    int32_t dimstyleIndex;
    // The next handle for a VERTEX or SEQEND made from an LWPOLYLINE, set by
    // ksReserveHandles.
    ksObjHandle expansionHandle;
};
ksDowngradeState& ksDowngrade();

// Empties the index and name caches. Every save starts with it.
void ksClearRefCaches(ksFcb* fcb);

// ---- What fits -----------------------------------------------------------

// Whether the entity exists in the target's release: a SHAPE numbered
// above 254 never; from R13 on all else; below R13 none of ELLIPSE, SPLINE,
// REGION, 3DSOLID, RAY, XLINE, MTEXT, LEADER, TOLERANCE, MLINE, BODY and
// the class entities but LWPOLYLINE; below R12 no VIEWPORT; in AC1002 no
// 3DLINE, 3DFACE or DIMENSION. A proxy (498) fits every release.
bool ksEntityFitsVersion(const ksEntityHeader* header, const void* body, const ksFcb* source,
                         const ksFcb* target);

// ---- LWPOLYLINE expansion ------------------------------------------------

// Reserves the handles that the expansion of the drawing's LWPOLYLINEs
// takes: vertex count + 1 for each in every block and both spaces, and 2
// for the drawing. The first goes to ksDowngrade().expansionHandle (seed +
// 1) and seed is raised by the whole sum, so that a $HANDSEED of seed lies
// above them all. Without an LWPOLYLINE class seed stays. 1, or 0 when a
// list can't be read.
int16_t ksReserveHandles(ksFcb* source, ksFcb* target, ksObjHandle* seed);

// The POLYLINE head and body of an LWPOLYLINE: the header copied with type
// 15 (the R13 object type of a 2D POLYLINE; callers set their own), the
// elevation (flag 8, or a record that holds one without the flag), the
// constant width as both widths, flags 1 (closed) and 128 (linetype
// generation).
void ksLwToPolyline(const ksEntityHeader* header, const void* body, ksEntityHeader* outHeader,
                    ksPolylineBody* outBody);
// Turns that head and body into a VERTEX's: type 10, no extended data, no
// extension dictionary, no reactors, no own extrusion; the body cleared.
void ksLwVertexHead(ksEntityHeader* outHeader, void* outBody);
// Reads the next vertex of the LWPOLYLINE `body` from its vertex blob into
// the VERTEX body; a width is marked present only where it differs from the
// POLYLINE's. 1, or 0 when the blob ends.
int16_t ksLwReadVertex(ksBlobCursor* vertexStream, ksVertexBody* outBody, const void* body, double startWidth,
                       double endWidth);

// The expansion for DXF below R14: POLYLINE with the entity's handle, then
// its VERTEX entities and SEQEND with handles from expansionHandle, each
// through ksDxfWriteEntity. 1, or 0 with the error number set.
int16_t ksDxfWriteLwpolyline(ksFcb* source, ksFcb* target, const ksEntityHeader* header, const void* body);

// ---- VIEWPORT view as extended data --------------------------------------

// Below R2000: puts a new blob into the header's eed with the "ACAD"
// application's MVIEW items and then the old items; *savedEed takes the old
// blob. The caller writes the entity, then frees the new blob and puts
// *savedEed back (ksRestoreMviewEed does both). From R2000 on nothing
// changes and *savedEed is header->eed. 1, or 0 (no blob, a frozen layer
// list that can't be read) with the header as it was.
int16_t ksMakeMviewEed(ksFcb* source, ksFcb* target, ksEntityHeader* header, const ksViewportBody* body,
                       ksLoc* savedEed);
void ksRestoreMviewEed(ksEntityHeader* header, ksLoc savedEed);

// ---- Names -----------------------------------------------------------------

// The characters a table name keeps below R2000 unless it is a block that
// external reference symbols name.
inline constexpr int32_t ksDefaultNameLimit = 26;

// The room the xrefNames of the source leave a block of that name (any
// case): the room of its entry, ksDefaultNameLimit when it has none.
int32_t ksXrefNameLimit(const ksFcb* source, const char* name);
// The place of the block of that name (any case, as the block table finds
// names) in the block list (from 0). 1 with *outIndex, or 0 with *outIndex 0.
int16_t ksFindBlockIndex(ksFcb* source, const char* name, int32_t* outIndex);
// Shortens and cleans a table name for a release below R2000 by the short
// form of ksDxfShortName (dxfwrite/groups.h): a name longer than `limit`
// keeps limit - d characters and gets `index` as its d decimal digits (a
// name of \M or \U escapes counts 7 bytes a character and keeps
// (limit - d) * 7 bytes); blanks, parentheses and the byte 0xBD become "_",
// letters a to z upper case. An xref-dependent name "X|N" (the first "|")
// has X done with its block's index and ksXrefNameLimit(X), N with `index`
// and ksDefaultNameLimit; `limit` then serves nothing. `out` takes
// strlen(name) + 24 bytes; returns the length written.
size_t ksFixName(ksFcb* source, const char* name, int32_t index, int32_t limit, char* out);

// ---- Deleted blocks in a file below R13 ------------------------------------

// The writer of one entity record below R13 (the pre-R13 DWG writer's
// ksWriteOldEntity): 1, or 0 on a failed write.
using ksOldEntityWriter = int16_t (*)(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body,
                                      int32_t index);
// Writes the placeholder of the deleted block at `index`: a BLOCK named
// "FAKE<index>" and an ENDBLK, through `write`. For an R12 target with
// handles on each takes a fresh handle of the target's counter, and one more
// is drawn after them. The layer and linetype indices are those the last
// entity left in ksDowngrade().
int16_t ksPlaceholderBlock(ksFcb* source, ksFcb* target, int32_t index, ksOldEntityWriter write);

// ---- Handles to indices (files below R13) ----------------------------------

// Each answers from its one-entry cache first, then walks its table from
// the start. 1 with *outIndex, or 0 with the error number: 66 layer, 67
// linetype, 68 style, 75 block, 69 dimension style. A linetype: BYLAYER
// 32767, BYBLOCK 32766 (the target's byLayerIndex and byBlockIndex), a
// found place lowered past the places of those two. A block: among all
// blocks but the two spaces. A null dimension style: 65535. The layer's is
// ksLayerIndexOf, as ksLayerIndex names the LAYER_INDEX object.
int16_t ksLayerIndexOf(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex);
int16_t ksLinetypeIndex(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex);
int16_t ksStyleIndex(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex);
int16_t ksBlockIndex(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex);
int16_t ksDimstyleIndex(ksFcb* source, const ksObjHandle& handle, int32_t* outIndex);

// The running entity's indices into ksDowngrade(): linetype, layer, the
// style of a SHAPE, TEXT, ATTDEF or ATTRIB, the block of an INSERT or
// DIMENSION and a DIMENSION's dimension style. 1, or 0 with the resolver's
// error.
int16_t ksResolveEntityRefs(ksFcb* source, const ksEntityHeader* header, const void* body);
// A 1001 item's application and a 1003 item's layer as indices (the int16
// that ksXdataEmit takes for a file below R13), by a walk each: 71 and 72
// on a miss. Other items pass.
int16_t ksResolveEedRefs(ksFcb* source, ksXdataItem* item);
