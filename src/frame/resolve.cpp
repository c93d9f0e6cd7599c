// The phases of a load that resolve references and walk the entity
// lists: block headers, the main and block entities, the objects, the
// viewport entity headers and the header's references.
#include "frame/loadphases.h"

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/readerops.h"

namespace {

// The extended-data flag the list readers fill; entity and object records
// go into the shared read buffer as scratch.
int16_t hasExtended;

}  // namespace

// Until a phase keeps its records, it accepts an empty list only.
int16_t ksLoadBlockHeaders(ksFcb* fcb)
{
    return ksOpStartBlockHeaders(fcb) && fcb->tableCount[ksHeadBlocks] == 0;
}

int16_t ksLoadVpEntHeaders(ksFcb* fcb)
{
    return ksOpStartVpEntHeaders(fcb) && fcb->tableCount[ksHeadVpEntHeaders] == 0;
}

int16_t ksLoadMainEntities(ksFcb* fcb)
{
    if (!ksOpStartEntities(fcb))
        return 0;
    // readEntity gives 0 at the end of the list; a delivered entity can't
    // be kept yet.
    auto* scratch = ksG->readBuffer;
    return !ksOpReadEntity(fcb, reinterpret_cast<ksEntityHeader*>(scratch), scratch + 4096, &hasExtended);
}

int16_t ksLoadBlockEntities(ksFcb* fcb)
{
    // One entity list per block header; with no block headers kept there
    // is nothing to walk.
    return fcb->tableCount[ksHeadBlocks] == 0;
}

int16_t ksLoadObjects(ksFcb* fcb)
{
    if (fcb->fileVersion < ksAC1012)
        return 1;
    if (!ksOpStartObjects(fcb))
        return 0;
    return ksOpNextObjectType(fcb) == 0;
}

int16_t ksResolveHeader(ksFcb*)
{
    // The header's table references resolve against the tables, which are
    // empty here.
    return 1;
}
