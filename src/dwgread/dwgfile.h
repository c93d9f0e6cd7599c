// The R13 to R2000 DWG reader: its state per drawing and the file-level
// services that the table, entity and object readers share.
//
// File layout (all values lowest byte first, except inside the object map):
//
//   offset  size  content
//   0       6     version string "AC1012", "AC1014", "AC1015" ("AC1013" beta)
//   11      1     maintenance release
//   13      4     file position of the preview section
//   19      2     code page index
//   21      4     number of locators (first byte; three bytes skipped)
//   25      9n    locators: record number (ignored), RL position, RL size
//                   0 header variables  1 classes  2 object map
//                   3 fixed block       4 four bytes, $MEASUREMENT at +2
//   25+9n   2     CRC of the block (ignored)
//
// Header, classes and preview sections: a 16-byte sentinel, RL body size,
// the body, CRC and end sentinel (ignored).
//
// Object map: pages of [2-byte size, big-endian, counting itself and the
// entries] [entries: modular unsigned handle delta, modular signed location
// delta; both absolute at a page's start] [2-byte CRC]. The list ends
// behind the first page whose last location delta is 0.
//
// Object: RS size (top bit set: a second RS, size = (w1 & 0x7fff) +
// w2 * 32768), that many bytes of bit stream, RS CRC. The stream opens
// with BS type, (R2000) RL bit size, H own handle, the extended data, (an
// entity) the graphic image flag and image, (R13/R14) RL bit size, (an
// object) BL reactor count.
//
// The whole file is read into memory when it is opened; every read is
// bounded by the object, the section and the image.
#pragma once

#include <cstdint>
#include <vector>

#include "dwgread/bitcodes.h"
#include "frame/fcb.h"
#include "frame/kstypes.h"
#include "store/vm.h"

struct ksLayer;
struct ksBlockHeader;
struct ksEntityHeader;

// One object map entry.
struct ksDwgMapEntry {
    uint64_t handle;
    uint32_t location;  // file position of the object's size word
};

// Locator places of the file header.
enum : int {
    ksDwgLocHeader = 0,
    ksDwgLocClasses = 1,
    ksDwgLocObjectMap = 2,
    ksDwgLocFixed = 3,
    ksDwgLocMeasurement = 4,
};

struct ksDwgState {
    int16_t version;  // ksAC1012 .. ksAC1015

    // The file image, with 8 zero bytes behind its `size` bytes.
    std::vector<uint8_t> image;
    uint32_t size = 0;

    // Sections.
    uint32_t headerPos = 0, headerLocSize = 0;
    uint32_t classesPos = 0, classesLocSize = 0;
    uint32_t objectMapPos = 0, objectMapLocSize = 0;
    uint32_t previewPos = 0;
    uint32_t firstObjectPos = 0;   // file position of the block control object
    uint32_t objectsPos = 0;       // the named objects dictionary
    uint32_t mlineStylePos = 0;
    int32_t mlineStyleCount = 0;

    // The object map sorted by handle, and the entry last found.
    std::vector<ksDwgMapEntry> map;
    size_t mapCursor = SIZE_MAX;

    // The reader of the object being read, and the position the next
    // ksOpenObject starts from (ksSeekHandle sets it).
    ksBitReader bits{};
    uint32_t pos = 0;
    ksObjHandle currentHandle{};  // the handle last sought; the entity chain's next

    // Handles of the header section.
    ksObjHandle controls[ksTableHeadCount]{};  // in ksTableHead order
    ksObjHandle firstVpentHeader{};
    ksObjHandle groupDictionary{}, mlineStyleDictionary{}, namedObjects{};
    ksObjHandle layoutDictionary{}, plotSettingsDictionary{}, plotStyleDictionary{};
    ksObjHandle paperBlockHeader{}, modelBlockHeader{};
    ksObjHandle byLayer{}, byBlock{}, continuous{};

    // The two spaces, from their block headers.
    ksObjHandle modelFirst{}, modelLast{}, modelBlock{}, modelEndblk{};
    ksObjHandle paperFirst{}, paperLast{}, paperBlock{}, paperEndblk{};

    // Entry handles of the table being walked (ksBeginTable), non-null
    // only, and the next one to take.
    std::vector<ksObjHandle> tableEntries;
    size_t tableNext = 0;

    // Block headers: every non-null handle of the block control object,
    // the next index, and what the last block header leaves for its BLOCK
    // entity.
    std::vector<ksObjHandle> blockHeaders;
    size_t blockNext = 0;
    ksPoint3 blockBase{};
    char blockXrefPath[257]{};

    // Entity chains.
    ksObjHandle current{};       // the entity to read next; null at the end
    uint8_t secondPass = 0;      // 0 paper space chain, 1 model space and blocks
    uint8_t inBlock = 0;
    uint8_t chainEndAt = 0;      // 1 ENDBLK behind the SEQEND, 2 end behind it
    ksObjHandle resumeHandle{}, complexLast{}, complexEnd{};
    ksObjHandle blockEntity{}, firstEntity{}, lastEntity{}, endblkEntity{};
    // What a complex entity reads behind its body.
    ksObjHandle firstSub{}, lastSub{}, seqend{};
    // What a 2D POLYLINE notes for its vertices.
    double polylineElevation = 0.0, polylineStartWidth = 0.0, polylineEndWidth = 0.0;
    uint32_t entitiesRead = 0;   // guards against chains that loop

    // Class section stream.
    ksBitReader classBits{};
    uint32_t classesSize = 0;

    // Objects not read by any other phase, in handle order, and the next.
    std::vector<ksObjHandle> objectList;
    size_t objectNext = 0;

    // Progress along the two chains: their byte spans (found at the first
    // call) and the last result.
    uint8_t progressReady = 0;
    int64_t paperStart = 0, paperSpan = 0, modelStart = 0, modelSpan = 0;
    int16_t progressLast = 0;

    // Applications: an index counted by readRegApp.
    int16_t regAppIndex = 0;

    // Viewport entity headers: the VIEWPORT of each header along the chain
    // (at most 49), and whether the first header is still to come.
    ksObjHandle vpentViewports[49]{};
    int vpentViewportCount = 0;
    uint8_t vpentFirst = 0;
};

// The reader state of a drawing being read; null for other drawings.
inline ksDwgState* ksDwg(ksFcb* fcb) { return static_cast<ksDwgState*>(fcb->dwgState); }

// Fills the reader table's slots with the R13-R2000 operations.
void ksDwgFillOps(struct ksReaderOps* ops);

// Checks the CRCs of a file from R13 on: at level 2 nothing (what a load
// asks for); at any other level the class section (202 "Bad class
// definition") and every object from the first one the map names up to the
// map (201 "Bad object"). 0 when nothing is wrong, the error number when
// something is, -1 for a release before R13 (error number 0).
int16_t ksVerifyFile(ksStream* file, int16_t level);

// ---- Objects by handle

// Reads the object map at st.objectMapPos into st.map, sorted by handle
// (entries of one handle keep their file order). False when a page runs
// out of the image or a code is bad.
bool ksReadObjectMap(ksDwgState& st);

// Positions the reader on the object with this handle (its size word) and
// makes the handle current. 0 for the null handle and a handle the map
// doesn't hold.
int16_t ksSeekHandle(ksFcb* fcb, const ksObjHandle& handle);

// Opens the object at the position: reads its size, bounds the stream to
// it and reads the frame. Result: the type code, or 0 when the position is
// at or behind the object map or the object is unreadable (error set).
//   handleOut    the object's own handle
//   hasExtended  set to 1 when extended data was found; it is left raw in
//                ksG->xdataReadBuffer (xdataSourceEnd bytes)
//   isEntity     read the graphic image flag and image
//   graphicOut   with isEntity: a new blob with the image, or 0; null to
//                drop the image
int16_t ksOpenObject(ksFcb* fcb, ksObjHandle* handleOut, int16_t* hasExtended, bool isEntity, ksLoc* graphicOut);

// The type code of the object at the position, without opening it; -1
// when no object can be read there (outside the file, or cut short by its
// end).
int16_t ksPeekObjectType(ksFcb* fcb);

// The share of the entity chains read, 1 to 100, measured by the file
// position of the entity last sought within the spans of the two chains.
int16_t ksReadProgress(ksFcb* fcb);

// ---- Tables

// Opens a control object (one of ksTableHead) and takes its entry handles
// (null ones passed over) for ksNextTableEntry; the dimension style
// control of R2000 has one byte more, which it knows by itself. 1, or 0
// when the control object can't be read.
int16_t ksBeginTable(ksFcb* fcb, int table);
// The next entry handle into *handleOut: 1 when its object is found and
// the reader stands on it, 0 when the map lacks it (the entry reads as
// erased), -1 when the list is used up.
int16_t ksNextTableEntry(ksFcb* fcb, ksObjHandle* handleOut);

// The common tail of a table entry: owner relative to the entry's own
// handle, reactorCount reactors into a new blob of 8-byte handles (0 when
// none), the extension dictionary. The external reference block handle
// that follows is the caller's to read.
void ksReadTableTail(ksBitReader& r, const ksObjHandle& own, ksObjHandle* ownerOut, ksObjHandle* xdictOut,
                     uint32_t reactorCount, ksLoc* reactorsOut);

// count handles (H) into a new blob of 8-byte handles; 0 for none.
ksLoc ksReadHandleBlob(ksBitReader& r, uint32_t count);

// The lineweight of an R2000 lineweight index; 0 outside 0 to 31.
int16_t ksLineweightFromIndex(int index);

// Bits from the read position up to the handle stream into a new blob
// (packed from the top bit), their count into *bitCount; 0 with a count of
// 0 when there are none.
ksLoc ksCopyBits(ksBitReader& r, int32_t* bitCount);
// Typed handles up to the end of the object, 9 bytes each (handle, kind),
// into a new blob; *count gets their number.
ksLoc ksReadReferences(ksBitReader& r, int32_t* count);

// ---- Entities

// The common handles, read where a body reader's data ends: the stream
// moves to the handle stream first. 0 when the body's data ran into the
// handles or the stream went bad.
int16_t ksReadEntityHandles(ksFcb* fcb, ksEntityHeader* header);

// Sets the handle of the entity to read next, once the entity `self` of
// type `code` (a code in memory) has been read; `next` is its link to the
// next entity, `hasAttributes` that of an INSERT. The handles that a
// complex entity reads behind its body stand in the state (firstSub,
// lastSub, seqend).
void ksDwgChainNext(ksDwgState& st, int16_t code, const ksObjHandle& self, const ksObjHandle& next,
                    bool hasAttributes);

// A failure inside a read operation, which the load must not take for the
// end of a list: notes it in fcb->failureNumber (number, or -1 to keep the
// phase's number) and sets the error number when one is given. Returns 0.
int16_t ksDwgFail(ksFcb* fcb, int16_t number = 0);
