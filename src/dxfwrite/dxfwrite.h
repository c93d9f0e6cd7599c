// The DXF writer's sections and how they meet: the file assembly calls the
// HEADER, CLASSES, TABLES, BLOCKS, ENTITIES and OBJECTS writers in the order
// of the target release; BLOCKS and ENTITIES share one entity walk, which
// asks the downgrade rules (bridge/downgrade.h) whether an entity fits the
// target and hands it to the entity writer. The group forms are in
// dxfwrite/groups.h.
#pragma once

#include <cstdint>

#include "frame/kstypes.h"
#include "store/vm.h"

struct ksFcb;
struct ksHeader;
struct ksEntityHeader;
struct ksBlockHeader;

// ---- assembly.cpp: the two save operations of the save sequence (their
// signatures are ksDxfSaveR13Fn and ksDxfSaveOldFn of frame/save.h).
int16_t ksDxfSaveR13(ksFcb* source, ksFcb* target, void* scratchHeader, void* scratchBody, void* scratchRecord,
                     void* scratchBlock, int16_t negativeZero, int16_t precision, int16_t writeZeroZ);
int16_t ksDxfSaveOld(ksFcb* source, ksFcb* target, uint8_t extendedR12, void* scratchHeader, void* scratchBody,
                     void* scratchRecord, void* scratchBlock, int16_t negativeZero, int16_t precision,
                     int16_t writeZeroZ);

// The entity walk over one entity list (a space's, or a block's from its
// BLOCK on until an ENDBLK has been written): SHAPE numbers above 254
// dropped with notice 95, names resolved, the fit test, the write. 1, or 0
// with the error number set.
int16_t ksDxfWriteEntityList(ksFcb* source, ksFcb* target, ksLoc list, ksEntityHeader* header, void* body);
// One entity of the walk once it is read: its names resolved, the fit
// test, the write. 1 also for an entity the target can't hold (left out).
int16_t ksDxfWriteOneEntity(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body);

// ---- header.cpp
int16_t ksDxfResolveHeaderNames(ksFcb* source, ksHeader* header);
int16_t ksDxfWriteHeader(ksFcb* source, ksFcb* target, ksHeader* header, int16_t r12Extras);

// ---- tables.cpp: every table of the target release in its order, and
// the BLOCKS section.
int16_t ksDxfWriteTables(ksFcb* source, ksFcb* target, void* scratchRecord);
int16_t ksDxfWriteBlocks(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body, void* scratchBlock);

// The block being written, as ksDxfStartBlock notes it for the BLOCK and
// ENDBLK entities of its list: its name, flags (8 added for an overlay from
// R14 on) and index, and whether it is the fixed paper space block.
struct ksDxfBlockNote {
    char name[512];
    int16_t flags;
    int32_t index;
    uint8_t isPaperSpace;
    uint8_t inBlocksSection;  // the BLOCKS section of a release below R13 is running
};
ksDxfBlockNote& ksDxfCurrentBlock();
// Notes a block before its BLOCK is written: the name the file gives it
// (an anonymous block numbered by its place in the block list), its flags
// and index. fixedSpace: the block is one of the drawing's two spaces.
void ksDxfStartBlock(ksFcb* target, const ksBlockHeader& block, int32_t index, bool fixedSpace = false);
// The name the file gives the block of that name at `index` of the block
// list: an anonymous block ("*" first) keeps its first two characters and
// takes the index in decimal; a block named "*Paper_Space" that is not the
// fixed paper space (a layout's, as DWG files name them) takes the index
// behind the whole name; the two spaces keep their names. Every writer of a
// block name goes through it. out: ksTableNameSize bytes.
void ksDxfBlockFileName(const char* name, int32_t index, char* out, bool fixedSpace = false);

// Pieces the table and object writers share.
int16_t ksDxfSectionEnd(ksFcb* target);  // 0 ENDSEC
int16_t ksDxfTableEnd(ksFcb* target);    // 0 ENDTAB
// A table record's head: 0 name; from R13 on the handle in handleGroup,
// the extension dictionary, the reactors and the two subclass markers,
// the second "AcDb<word>TableRecord".
int16_t ksDxfRecordHead(ksFcb* target, const char* name, const ksObjHandle& handle, int16_t handleGroup,
                        const char* word, const ksObjHandle& xdictHandle, int32_t reactorCount, ksLoc reactors);
// 102 {ACAD_REACTORS, 330 each of `count` handles of the blob, 102 }; nothing
// for none.
int16_t ksDxfWriteReactorGroups(ksFcb* target, int32_t count, ksLoc reactors);
// A blob as byte chunks of at most chunkSize (at most 127) bytes, each one
// group; nothing for a null blob.
int16_t ksDxfWriteBinaryChunks(ksLoc blob, ksFcb* target, int16_t group, uint32_t chunkSize);
// The record of a handle in one of the source's tables (a ksTableList),
// found by a walk of the list's links, so that no cursor moves: its name,
// and its place in the list in *index. Null when no record has it.
const char* ksDxfTableName(ksFcb* source, int table, const ksObjHandle& handle, int32_t* index);

// ---- entities.cpp
// Fills the name buffers of the running entity (layer, linetype, style,
// block, dimension style, multiline style, shape name) from its handles.
int16_t ksDxfResolveEntityNames(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body);
// Writes the entity with its extended data, or its expansion for an older
// target (an LWPOLYLINE below R14 as POLYLINE, VERTEX and SEQEND).
int16_t ksDxfWriteEntity(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body);

// ---- objects.cpp: CLASSES and OBJECTS of R13 and later.
int16_t ksDxfWriteClasses(ksFcb* source, ksFcb* target);
int16_t ksDxfWriteObjects(ksFcb* source, ksFcb* target, void* scratchHeader, void* scratchBody);
// Extended data of a table record or an object (from R13 on): every item
// of the blob, the application of a 1001 and the layer of a 1003 by name;
// an application that can't be found is error 71, a layer that can't be
// found drops its item.
int16_t ksDxfWriteObjectEed(ksFcb* source, ksFcb* target, ksLoc eed);
// Objects of the last OBJECTS section that the writer left out (class
// objects kept as group streams).
uint32_t ksDxfObjectsLeftOut();
