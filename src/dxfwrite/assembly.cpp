// The two DXF save operations: the sections in the order of the target
// release, the handle seed with the room reserved for expanded
// LWPOLYLINEs, and the entity walk that BLOCKS and ENTITIES share.
#include <algorithm>
#include <cstring>

// The object records first: the downgrade rules name a function as the
// layer index record is named.
#include "frame/fcb.h"
#include "records/object.h"

#include "bridge/downgrade.h"
#include "driver/hooks.h"
#include "dxfwrite/dxfwrite.h"
#include "dxfwrite/groups.h"
#include "frame/globals.h"
#include "frame/save.h"
#include "records/entity.h"
#include "records/header.h"
#include "store/entitylist.h"
#include "store/list.h"
#include "store/vm.h"

namespace {

void progress(int16_t percent)
{
    if (ksG->saveProgress)
        ksG->saveProgress(percent);
}

// Progress over the ENTITIES section: entities done of the total, and the
// percentage the section starts at. Off (total 0) in BLOCKS.
struct EntityProgress {
    uint32_t total;
    uint32_t done;
    int16_t base;
};
EntityProgress entityProgress{};

// Every 10 entities: the base plus a quarter of the share done, in steps
// of 5 and not above 100.
void countEntity()
{
    EntityProgress& p = entityProgress;
    if (p.total == 0 || ++p.done % 10 != 0)
        return;
    const uint32_t share = std::min<uint32_t>(100, static_cast<uint32_t>(uint64_t{p.done} * 100 / p.total)) / 5 * 5;
    progress(static_cast<int16_t>(p.base + share / 4));
}

// A SHAPE whose number a file can't hold (above 254).
bool isBadShape(const ksEntityHeader& header, const void* body)
{
    return header.type == ksEntShape && static_cast<const ksShapeBody*>(body)->shapeNumber > 254;
}

// The BLOCK of an anonymous block carries the number the block has in the
// file from R12 on.
void renameBlockEntity(const ksFcb* target, const ksEntityHeader& header, void* body)
{
    const ksDxfBlockNote& note = ksDxfCurrentBlock();
    if (header.type != ksEntBlock || target->outputVersion < ksAC1009 || note.name[0] != '*' ||
        ksStrNCompare(note.name, "*PAPER_SPACE", 12) == 0)
        return;
    auto* block = static_cast<ksBlockBody*>(body);
    std::memcpy(block->name, note.name, sizeof block->name);
}

// ENTITIES: paper space, then model space.
int16_t writeEntities(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body, int16_t base)
{
    if (!ksDxfWriteText(target, 0, "SECTION") || !ksDxfWriteText(target, 2, "ENTITIES"))
        return 0;
    entityProgress = {ksListCount(source->paperEntities) + ksListCount(source->modelEntities), 0, base};
    const int16_t written = ksDxfWriteEntityList(source, target, source->paperEntities, header, body) &&
                            ksDxfWriteEntityList(source, target, source->modelEntities, header, body);
    entityProgress = {};
    return written && ksDxfSectionEnd(target);
}

// The end of a save that wrote everything: 0 EOF, the output closed, the
// target released. False when the file refused the last bytes.
int16_t finish(ksFcb* target)
{
    const bool ended = ksDxfWriteText(target, 0, "EOF");
    const bool written = ksDxfCloseOutput(target) && ended;
    ksG->errorNumber = 27;
    const bool closed = ksFileCloseOutput(target->outputFile) == 0;
    target->outputFile = nullptr;
    if (!written || !closed)
        return 0;  // the save closes what is left
    ksFreeSaveTarget(target);
    ksG->errorNumber = 0;
    return 1;
}

// The start of both: the number forms, the name caches, the output
// buffer, and the handle seed raised past the handles that LWPOLYLINE
// expansion will take.
int16_t start(ksFcb* source, ksFcb* target, int16_t negativeZero, int16_t precision, int16_t writeZeroZ,
              ksObjHandle seed, bool reserve)
{
    ksDxfSetFormat(negativeZero, precision, writeZeroZ);
    ksClearRefCaches(source);
    ksDxfOpenOutput(target);  // without the buffer the groups go straight through
    ksG->errorNumber = 0;
    if (reserve && !ksReserveHandles(source, target, &seed))
        return 0;
    target->header->HANDSEED = seed;
    target->handleSeed = seed;
    return 1;
}

}  // namespace

int16_t ksDxfWriteOneEntity(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body)
{
    if (!ksDxfResolveEntityNames(source, target, header, body))
        return 0;
    if (!ksEntityFitsVersion(header, body, source, target))
        return 1;
    return ksDxfWriteEntity(source, target, header, body);
}

int16_t ksDxfWriteEntityList(ksFcb* source, ksFcb* target, ksLoc list, ksEntityHeader* header, void* body)
{
    ksLoc next = 0;
    for (ksLoc node = ksListFirst(list); node != 0; node = next) {
        ksG->errorNumber = 305;
        if (!ksEntityUnpack(source, node, header, body, nullptr, &next))
            return 0;
        // The next node is wanted when this one is written: its first
        // bytes are asked for now.
        if (const auto* ahead = next != 0 ? static_cast<const char*>(ksVmPtr(next)) : nullptr) {
            __builtin_prefetch(ahead);
            __builtin_prefetch(ahead + 64);
        }
        if (isBadShape(*header, body)) {
            if (ksG->writeNotice)
                ksG->writeNotice(95);
            continue;
        }
        renameBlockEntity(target, *header, body);
        if (!ksDxfWriteOneEntity(source, target, header, body))
            return 0;
        countEntity();
        // A block's walk ends with its ENDBLK.
        if (header->type == ksEntEndblk)
            break;
    }
    ksG->errorNumber = 0;
    return 1;
}

int16_t ksDxfSaveR13(ksFcb* source, ksFcb* target, void* scratchHeader, void* scratchBody, void* scratchRecord,
                     void* scratchBlock, int16_t negativeZero, int16_t precision, int16_t writeZeroZ)
{
    auto* header = static_cast<ksEntityHeader*>(scratchHeader);
    if (!start(source, target, negativeZero, precision, writeZeroZ, source->nextHandle,
               target->outputVersion == ksAC1012))
        return 0;
    if (!ksDxfResolveHeaderNames(source, target->header) || !ksDxfWriteHeader(source, target, target->header, 1))
        return 0;
    if (!ksDxfWriteClasses(source, target))
        return 0;
    if (!ksDxfWriteTables(source, target, scratchRecord))
        return 0;
    if (!ksDxfWriteBlocks(source, target, header, scratchBody, scratchBlock))
        return 0;
    if (!writeEntities(source, target, header, scratchBody, 75))
        return 0;
    if (!ksDxfWriteObjects(source, target, scratchHeader, scratchBody) || !ksDxfSectionEnd(target))
        return 0;
    return finish(target);
}

int16_t ksDxfSaveOld(ksFcb* source, ksFcb* target, uint8_t extendedR12, void* scratchHeader, void* scratchBody,
                     void* scratchRecord, void* scratchBlock, int16_t negativeZero, int16_t precision,
                     int16_t writeZeroZ)
{
    auto* header = static_cast<ksEntityHeader*>(scratchHeader);
    if (!start(source, target, negativeZero, precision, writeZeroZ, target->header->HANDSEED, true))
        return 0;
    if (!ksDxfResolveHeaderNames(source, target->header) ||
        !ksDxfWriteHeader(source, target, target->header, extendedR12))
        return 0;
    if (!ksDxfWriteTables(source, target, scratchRecord))
        return 0;
    if (!ksDxfWriteBlocks(source, target, header, scratchBody, scratchBlock))
        return 0;
    if (!writeEntities(source, target, header, scratchBody, 70))
        return 0;
    return finish(target);
}
