// The R2000 layout objects: the layouts of the two spaces with their
// dictionary, the plot settings and plot style dictionaries with the
// placeholder "Normal", and the wipeout variables.
#pragma once

#include <cstdint>

#include "frame/kstypes.h"

struct ksFcb;

// Adds the whole set to a drawing that lacks it (a new R2000 drawing, or an
// older drawing being loaded with layouts asked for). The drawing must
// already hold its named object dictionary as its first object, its
// layers and the block headers of both spaces.
//
// handles: the 35-slot table of fixed handles, or null. Slots used: 28 the
// placeholder "Normal", 29 the ACAD_LAYOUT dictionary, 30 the
// ACAD_PLOTSTYLENAME dictionary, 31 the layout "Model", 32 the layout
// "Layout1", 33 the ACAD_PLOTSETTINGS dictionary, 34 the wipeout
// variables. With null each handle is drawn with ksHandleNext.
//
// 1, or 0 with the error number standing; the objects made before the
// failure stay in the drawing.
int16_t ksAddLayoutObjects(ksFcb* fcb, const ksObjHandle* handles);
