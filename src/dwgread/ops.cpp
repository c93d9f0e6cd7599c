// The R13-R2000 DWG reader's registration in the reader table.
#include "dwgread/ops.h"

#include "frame/readerops.h"

void ksDwgFillOps(ksReaderOps* ops)
{
    ops->nextObjectType = ksDwgNextObjectType;
    ops->readDictionary = ksDwgReadDictionary;
    ops->readObject = ksDwgReadObject;
    ops->readBlockHeader = ksDwgReadBlockHeader;
    ops->readClass = ksDwgReadClass;
    ops->readDimStyle = ksDwgReadDimStyle;
    ops->readEntity = ksDwgReadEntity;
    ops->readGroup = ksDwgReadGroup;
    ops->readHeader = ksDwgReadHeader;
    ops->readLayer = ksDwgReadLayer;
    ops->readLinetype = ksDwgReadLinetype;
    ops->readMlineStyle = ksDwgReadMlineStyle;
    ops->readPlotSettings = ksDwgReadPlotSettings;
    ops->readRegApp = ksDwgReadRegApp;
    ops->readShapeFile = ksDwgReadShapeFile;
    ops->readUcs = ksDwgReadUcs;
    ops->readView = ksDwgReadView;
    ops->readVport = ksDwgReadVport;
    ops->readVpEntHeader = ksDwgReadVpEntHeader;
    ops->startBlockEntities = ksDwgStartBlockEntities;
    ops->startBlockHeaders = ksDwgStartBlockHeaders;
    ops->startClasses = ksDwgStartClasses;
    ops->startDimStyles = ksDwgStartDimStyles;
    ops->startEntities = ksDwgStartEntities;
    ops->startLayers = ksDwgStartLayers;
    ops->startLinetypes = ksDwgStartLinetypes;
    ops->startObjects = ksDwgStartObjects;
    ops->startRegApps = ksDwgStartRegApps;
    ops->startShapeFiles = ksDwgStartShapeFiles;
    ops->startUcses = ksDwgStartUcses;
    ops->startViews = ksDwgStartViews;
    ops->startVpEntHeaders = ksDwgStartVpEntHeaders;
    ops->startVports = ksDwgStartVports;
}
