// The header section of R13, R14 and R2000 DWG files as data.
//
// The section is one bit stream of variables with nothing between them to
// tell where one starts: a reader that skips or adds an item loses all that
// follows. ksHeaderItems lists the items in stream order, one row each, for
// both forms of the section: R13 and R14 share one form, R2000 has another.
// A row says how the item is coded, which forms hold it and where its value
// lives. The reader (ksDwgReadHeaderVars) walks the rows of its form; a
// writer walks the same rows and takes the values from the same places.
//
// The dimension variables of the two forms stand in different orders, so
// the table holds them as two groups, the R13/R14 group first; each form
// sees only its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/fcb.h"
#include "frame/kstypes.h"
#include "records/header.h"

// How an item is coded in the stream.
enum ksHeaderCode : uint8_t {
    ksHcB,      // one bit
    ksHcRC,     // a byte; into a 16-bit field it replaces only the low byte
    ksHcBS,
    ksHcBL,
    ksHcBD,
    ksHcT,      // text of at most `limit` bytes
    ksHcH,      // handle
    ksHc2RD,    // ksPoint2
    ksHc3BD,    // ksPoint3
    ksHcDate,   // two BL: day, milliseconds into the day
    ksHcFlags,  // the R2000 flags BL; its fields are ksHeaderFlagBits, not the row's
};

// The forms of the section that hold an item.
enum : uint8_t {
    ksHfR13 = 1,    // R13 and R14
    ksHfR2000 = 2,
    ksHfBoth = ksHfR13 | ksHfR2000,
};

// Where an item's value lives.
enum ksHeaderTarget : uint8_t {
    ksHtField,  // the ksHeader field at `offset`, `width` bytes
    ksHtSlot,   // the handle slot `offset` (ksHeaderSlot)
    ksHtDrop,   // read and forgotten; a writer puts zero
};

// Handles of the section that are not header variables: the reader keeps
// them in its state (ksDwgState) and mirrors some into ksFcb.
enum ksHeaderSlot : uint16_t {
    ksSlotFirstVpentHeader,  // head of the viewport entity header chain
    ksSlotControls,          // ten control objects, in ksTableHead order
    ksSlotGroupDictionary = ksSlotControls + ksTableHeadCount,
    ksSlotMlineStyleDictionary,
    ksSlotNamedObjects,
    ksSlotLayoutDictionary,
    ksSlotPlotSettingsDictionary,
    ksSlotPlotStyleDictionary,
    ksSlotPaperBlockHeader,
    ksSlotModelBlockHeader,
    ksSlotByLayer,
    ksSlotByBlock,
    ksSlotContinuous,
    ksHeaderSlotCount
};

struct ksHeaderItem {
    const char* name;       // the variable, or what the slot holds
    ksHeaderCode code;
    uint8_t forms;          // ksHfR13, ksHfR2000 or ksHfBoth
    ksHeaderTarget target;
    uint16_t offset;        // ksHtField: offsetof in ksHeader; ksHtSlot: the slot
    uint16_t width;         // ksHtField: bytes of the field (of the element for arrays)
    int16_t limit;          // ksHcT: longest text the reader accepts
    uint8_t handleCode;     // ksHcH: the code a writer gives the reference
};

inline constexpr int ksHeaderItemCount = 290;
extern const ksHeaderItem ksHeaderItems[ksHeaderItemCount];

// How a bit field of the R2000 flags BL becomes its variable.
enum ksFlagRule : uint8_t {
    ksFrPlain,       // the field's value
    ksFrClearIsOne,  // one bit: the variable is 1 when the bit is clear
    ksFrLineweight,  // a lineweight index (ksLineweightFromIndex)
};

struct ksHeaderFlagBit {
    const char* name;
    uint8_t first;  // lowest bit of the field
    uint8_t count;  // bits in it
    uint16_t offset;  // the ksHeader field
    uint16_t width;
    ksFlagRule rule;
};

// Bits 12 and 15 up are not variables.
inline constexpr int ksHeaderFlagBitCount = 8;
extern const ksHeaderFlagBit ksHeaderFlagBits[ksHeaderFlagBitCount];

// The section form of a file version: ksHfR13 or ksHfR2000, 0 for a
// version without this section.
constexpr uint8_t ksHeaderForm(int16_t version)
{
    if (version == ksAC1012 || version == ksAC1014)
        return ksHfR13;
    return version == ksAC1015 ? ksHfR2000 : 0;
}
