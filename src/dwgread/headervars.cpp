// Placeholder until the module is written.
#include "dwgread/ops.h"
#include "dwgread/bitcodes.h"

int16_t ksDwgReadHeaderVars(ksFcb* , ksBitReader&)
{
    return 0;
}
