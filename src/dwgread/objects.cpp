// Placeholder until the module is written.
#include "dwgread/ops.h"
#include "dwgread/bitcodes.h"

int16_t ksDwgStartObjects(ksFcb* )
{
    return 0;
}

int16_t ksDwgNextObjectType(ksFcb* )
{
    return 0;
}

int16_t ksDwgReadDictionary(ksFcb* , ksObjectHeader* , void* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadGroup(ksFcb* , ksObjectHeader* , void* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadMlineStyle(ksFcb* , ksObjectHeader* , void* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadPlotSettings(ksFcb* , ksObjectHeader* , void* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadObject(ksFcb* , ksObjectHeader* , void* , int16_t* )
{
    return 0;
}
