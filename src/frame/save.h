// Saving a drawing as a new file: the version gate, the scratch records,
// the xref name pass, the target control block and the choice of writer.
#pragma once

#include <cstdint>

struct ksFcb;

// Writes fcb to path. fileType: 0 DWG, 1 ASCII DXF, 2 binary DXF; version:
// the target ksVersion, 0 to 7. The last four shape DXF output only: keep
// the sign of reals that round to zero, decimal places, write zero Z
// coordinates, extended header variables in R12 DXF. 1 on success, else 0
// with the error number set: 306 a drawing made in memory below R2000 can't
// be saved as R2000; 21 no writer for that file type and release (nothing
// is touched and no file is made); 57, 1, 12 out of memory; 3 the output
// can't be created. A writer's failure leaves its file as far as it got.
//
// The source's records stay as they are, but after a save that reached its
// writer the source's fileVersion is the target version, and for targets
// below R2000 its xrefNames blob holds the pass's entries.
int16_t ksSaveDrawing(ksFcb* fcb, const char* path, int16_t fileType, int16_t version,
                      int16_t negativeZero, int16_t precision, int16_t writeZeroZ, int16_t extendedR12);

// ---------------------------------------------------------------------------
// The writers.
//
// Each writer gets the source drawing, the save's target and scratch
// records of the sizes below. The target holds the open output
// (outputFile), a copy of the source's header with the target's ACADVER and
// $HANDSEED, writeBlock and the per-release values. A writer that succeeds
// has finished with the target: it releases it by ksFreeSaveTarget, which
// also closes the output. A writer that fails leaves the target alone; the
// save closes the output and releases it.

// Sizes of the scratch records: an entity header or object head; any entity
// or object body; any table record; an extended data item (also room for a
// block header).
extern const uint32_t ksSaveScratchHeaderSize;
extern const uint32_t ksSaveScratchBodySize;
extern const uint32_t ksSaveScratchRecordSize;
extern const uint32_t ksSaveScratchBlockSize;

using ksWriteDwgOldFn = int16_t (*)(ksFcb* source, ksFcb* target, void* scratchHeader, void* scratchBody,
                                    void* scratchRecord, void* scratchBlock);
using ksWriteDwg13Fn = int16_t (*)(ksFcb* source, ksFcb* target, void* scratchHeader, void* scratchBody,
                                   void* scratchRecord);
using ksDxfSaveOldFn = int16_t (*)(ksFcb* source, ksFcb* target, uint8_t extendedR12, void* scratchHeader,
                                   void* scratchBody, void* scratchRecord, void* scratchBlock,
                                   int16_t negativeZero, int16_t precision, int16_t writeZeroZ);
using ksDxfSaveR13Fn = int16_t (*)(ksFcb* source, ksFcb* target, void* scratchHeader, void* scratchBody,
                                   void* scratchRecord, void* scratchBlock, int16_t negativeZero,
                                   int16_t precision, int16_t writeZeroZ);

// One writer per file kind and release range; null where none is built.
struct ksSaveWriters {
    ksWriteDwgOldFn dwgOld;  // DWG, versions 0 to 4
    ksWriteDwg13Fn dwg13;    // DWG, versions 5 to 7
    ksDxfSaveOldFn dxfOld;   // DXF of either form, versions 0 to 4
    ksDxfSaveR13Fn dxfR13;   // DXF of either form, versions 5 to 7
};

// The writers in use. The setter replaces them all and hands back the set
// it replaced (tests put in their own writers and restore the set after).
ksSaveWriters ksGetSaveWriters();
ksSaveWriters ksSetSaveWriters(const ksSaveWriters& writers);

// Releases a save's target: closes the output if it is still open, frees
// the write block, the header and the block. Null is tolerated.
void ksFreeSaveTarget(ksFcb* target);

// The number formats of the DXF writer in ksG, built from the decimal
// places (cut to 0..ksDxfMaxPrecision): the integer, real and exponent
// formats, dxfScale (10 to that power) and dxfHalfUnit (half a unit of the
// last place); also stores the sign and zero-Z switches. Precision 6 gives
// the values ksInit starts with. Returns the precision it used.
inline constexpr int16_t ksDxfMaxPrecision = 16;
int16_t ksSetDxfNumberFormats(int16_t negativeZero, int16_t precision, int16_t writeZeroZ);

// Frees the xrefNames blob of a drawing and clears its count. The blob of
// the last save lives until the drawing is closed, which frees it here.
void ksFreeXrefNames(ksFcb* fcb);

// One entry of xrefNames: the block's handle (8 bytes), its name as the
// symbol's prefix has it (ksXrefNameSize bytes, NUL padded), then the room
// left for the part behind the bar (32-bit, little-endian).
inline constexpr uint32_t ksXrefNameSize = 512;
inline constexpr uint32_t ksXrefNameRoomOffset = 8 + ksXrefNameSize;
inline constexpr uint32_t ksXrefNameEntrySize = ksXrefNameRoomOffset + 4;
