// Placeholder until the module is written.
#include "dwgread/ops.h"
#include "dwgread/bitcodes.h"

int16_t ksDwgStartEntities(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartBlockEntities(ksFcb* )
{
    return 0;
}

int16_t ksDwgReadEntity(ksFcb* , ksEntityHeader* , void* , int16_t* )
{
    return 0;
}
