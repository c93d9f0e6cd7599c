// The phases of a load, one per table and list, run by ksLoadDrawing in a
// fixed order. Each takes the drawing and returns 1, or 0 with the error
// number standing. Each undo frees what its phase made.
//
// The drawing store keeps the records that the readers deliver. Until a
// table's store exists, its phase accepts an empty table and refuses one
// with entries (the load fails with the phase's number), so that no record
// is ever dropped without a word.
#pragma once

#include <cstdint>

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
