// Placeholder until the module is written.
#include "dwgread/ops.h"
#include "dwgread/bitcodes.h"

int16_t ksDwgReadHeader(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartClasses(ksFcb* )
{
    return 0;
}

int16_t ksDwgReadClass(ksFcb* , ksClass* )
{
    return 0;
}
