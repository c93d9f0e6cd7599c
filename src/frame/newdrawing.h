// A drawing made in memory, with the content every drawing holds.
#pragma once

#include <cstdint>

#include "frame/kstypes.h"

struct ksFcb;
struct ksClass;

// Slots of the table of fixed handles a caller may hand to ksNewDrawing.
enum ksFixedHandleSlot : int {
    ksFixedControls = 0,       // 0 to 11: the control handles, in the field
                               // order of ksFcb from blockControlHandle to
                               // paperBlockHandle
    ksFixedBlockEntities = 12, // 12 to 15: modelBlockBegin, modelBlockEnd,
                               // paperBlockBegin, paperBlockEnd
    ksFixedByBlock = 16,
    ksFixedByLayer = 17,
    ksFixedContinuous = 18,
    ksFixedLayerZero = 19,
    ksFixedActiveVport = 20,
    ksFixedAcadRegApp = 21,
    ksFixedStandardStyle = 22,
    ksFixedStandardDimStyle = 23,
    ksFixedDefaultObjects = 24,  // 24 to 27, see ksAddDefaultObjects
    ksFixedLayoutObjects = 28,   // 28 to 34, see ksAddLayoutObjects
    ksFixedHandleCount = 35
};

// A new drawing of the ksVersion `version`: header defaults, the control
// and space handles, the classes, the default table records, the default
// objects, the two space block headers and, from R2000 on, the layout
// objects. `handles` is null or a table of ksFixedHandleCount handles that
// the drawing then uses instead of drawing new ones; nextHandle and
// $HANDSEED are then one above the greatest of them. `classes` is null
// (the default classes) or classCount classes to add as they are.
// The drawing, or null with the error number standing and nothing left
// behind.
ksFcb* ksNewDrawing(const ksObjHandle* handles, const ksClass* classes, int16_t classCount, int16_t version);
