// Placeholder until the module is written.
#include "dwgread/ops.h"
#include "dwgread/bitcodes.h"

int16_t ksDwgStartLinetypes(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartLayers(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartShapeFiles(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartViews(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartUcses(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartVports(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartRegApps(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartDimStyles(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartBlockHeaders(ksFcb* )
{
    return 0;
}

int16_t ksDwgStartVpEntHeaders(ksFcb* )
{
    return 0;
}

int16_t ksDwgReadLinetype(ksFcb* , ksLinetype* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadLayer(ksFcb* , ksLayer* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadShapeFile(ksFcb* , ksStyle* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadView(ksFcb* , ksView* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadUcs(ksFcb* , ksUcs* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadVport(ksFcb* , ksVport* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadRegApp(ksFcb* , ksAppid* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadDimStyle(ksFcb* , ksDimstyle* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadBlockHeader(ksFcb* , ksBlockHeader* , int16_t* )
{
    return 0;
}

int16_t ksDwgReadVpEntHeader(ksFcb* , ksVpEntHeader* )
{
    return 0;
}

int16_t ksReadBlockHeaderAt(ksFcb* , ksBlockHeader* , int16_t* )
{
    return 0;
}
