// Entity lists. The store keeps an entity packed: a 27-byte head, then only
// the common fields that differ from their defaults, then the body cut to
// what its type needs. Every entity node is a list node and the target of
// its handle in the drawing's index.
//
// Packed node:
//
//   offset  size  field
//   0       12    list header (next, prev, owner)
//   12      2     type
//   14      8     handle
//   22      1     flags of the header
//   23      1     presence: which optional common fields follow
//   24      1     reserved
//   25      2     commonSize: bytes of the common part, its size field included
//   27      ...   common part, in this order:
//                   presence 1    8  thickness, when not 0
//                   presence 2    2  color, when not 256
//                   presence 4   24  extrusion, when flags has ksEntityOwnExtrusion
//                   presence 8    4  eed, when not null
//                   presence 16   8  linetypeScale, when not 1.0
//                   presence 32   4  userData, when not 0
//                   presence 64   8  reactorCount, reactors, when reactors not null
//                   presence 128 1+N xdictHandle: N, its N significant bytes
//                   always        2  lineweight
//                   always        1  M << 4 | L, the significant lengths
//                   always      M+L  layerHandle's, then linetypeHandle's bytes
//                   always        2  body size
//   27+commonSize  body: the fixed fields, and a closing text kept to its end
//                  mark (TEXT, ATTDEF's three, ATTRIB's two, DIMENSION,
//                  MTEXT, TOLERANCE, and a VIEWPORT's name)
//
// Numbers in the node are in host order: the store never leaves the process.
#pragma once

#include <cstdint>

#include "frame/kstypes.h"
#include "records/entity.h"
#include "store/vm.h"

struct ksFcb;

// One node of vpEntList: a VIEWPORT of paper space. Viewport 1 (the paper
// space viewport itself) stands at the head.
struct ksVpEntRef {
    int32_t filePosition;  // file position of the VIEWPORT in an old DWG
    ksLoc location;        // its node
    ksObjHandle handle;
};

// Bytes that the store keeps of a body of this type (texts not counted),
// and whether it closes with texts. 0 for types without a body.
uint32_t ksEntityPackedFixedSize(const ksFcb* fcb, const ksEntityHeader& header, const void* body);

// Packs and inserts at a position code of record.h; the node, or 0 with
// 223 (no memory) or 232 (an INSERT naming a block that isn't indexed; a
// null block handle is taken as it stands).
ksLoc ksEntityPack(ksFcb* fcb, ksLoc list, const ksEntityHeader* header, const void* body, int16_t position,
                   ksLoc place);
// Fills the header and the body (a buffer of ksEntityBodyMax bytes; only
// the stored bytes are written, with the fix-ups of the cut forms).
// bodySizeOut takes the stored body size, nextOut the node's next.
int16_t ksEntityUnpack(const ksFcb* fcb, ksLoc node, ksEntityHeader* header, void* body, uint32_t* bodySizeOut,
                       ksLoc* nextOut);
// The entity at the list's cursor; the cursor moves on. 0 at the end.
int16_t ksEntityRead(ksFcb* fcb, ksLoc list, ksEntityHeader* header, void* body);
// By handle: the cursor is set on it, then as ksEntityRead.
int16_t ksEntitySeek(ksFcb* fcb, ksLoc list, const ksObjHandle& handle, ksEntityHeader* header, void* body);
// At the tail, with its handle in the index: 172 for a handle that is
// there already (duplicateHandle set), 173 for another refusal; the list
// is then as it was.
int16_t ksEntityAppend(ksFcb* fcb, ksLoc list, const ksEntityHeader* header, const void* body);
// Behind the entity with handle `after`; the null handle adds at the head.
int16_t ksEntityAddAfter(ksFcb* fcb, ksLoc list, const ksEntityHeader* header, const void* body,
                         const ksObjHandle& after);
// Removes an entity (deep: with its blobs): 151 null list, 152 not found,
// 98 / 159 / 160 a blob won't go, 99 not in the list.
int16_t ksEntityDelete(ksFcb* fcb, ksLoc list, const ksObjHandle& handle, int16_t deep);
// Exchanges the entity of that handle for a new record at the same place:
// 151, 226 handle not indexed, 227, 152, 175, 228, 229.
int16_t ksEntityReplace(ksFcb* fcb, ksLoc list, const ksObjHandle& handle, const ksEntityHeader* header,
                        const void* body);
// The entity list of a block; 0 with 73 when no block has that handle.
ksLoc ksBlockEntityList(ksFcb* fcb, const ksObjHandle& block);
// Appends a reactor handle to the header's reactor blob.
int16_t ksEntityAddReactor(ksEntityHeader* header, const ksObjHandle& handle);
// Frees the blobs an entity owns (its extended data, reactors and the
// blobs of its body).
int16_t ksEntityFreeBlobs(const ksFcb* fcb, const ksEntityHeader& header, const void* body);
// Frees every entity of a list, with their blobs, and the list itself.
void ksEntityListFree(ksFcb* fcb, ksLoc list);
