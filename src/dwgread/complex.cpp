// The complex entities of R13 to R2000: placeholder until their readers land.
#include "dwgread/bodyread.h"

bool ksReadInsertBody(ksBodyRead&) { return false; }
bool ksReadPolylineBody(ksBodyRead&) { return false; }
bool ksReadVertexBody(ksBodyRead&) { return false; }
bool ksReadDimensionBody(ksBodyRead&) { return false; }
bool ksReadViewportBody(ksBodyRead&) { return false; }
bool ksReadSplineBody(ksBodyRead&) { return false; }
bool ksReadModelerBody(ksBodyRead&) { return false; }
bool ksReadMtextBody(ksBodyRead&) { return false; }
bool ksReadLeaderBody(ksBodyRead&) { return false; }
bool ksReadToleranceBody(ksBodyRead&) { return false; }
bool ksReadMlineBody(ksBodyRead&) { return false; }
