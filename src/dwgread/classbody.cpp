// The class entities of R13 to R2000: placeholder until their readers land.
#include "dwgread/bodyread.h"

bool ksReadClassEntity(ksBodyRead&) { return false; }
