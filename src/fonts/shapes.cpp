#include "fonts/shapes.h"

#include <cstring>

#include "driver/hooks.h"
#include "frame/globals.h"

namespace {

ksFontRecord* makeFont(const char* name, const ksFontIndexEntry* index, int16_t entries,
                       const uint8_t* data, uint32_t dataSize)
{
    auto* font = static_cast<ksFontRecord*>(ksMemAlloc(sizeof(ksFontRecord)));
    if (font == nullptr)
        return nullptr;
    std::memset(font, 0, sizeof *font);
    std::strncpy(font->name, name, sizeof font->name - 1);
    font->kind = 4;
    font->index = index;
    font->indexEntries = entries;
    font->above = 21;
    font->below = 6;
    font->orientation = 2;
    font->beforeCount = 258;
    font->shapeCount = entries;
    font->dataBlocks = 1;
    font->dataSize = dataSize;
    font->data = data;
    return font;
}

}  // namespace

int16_t ksShapeSystemInit()
{
    const ksInitData& init = ksG->init;
    ksG->errorNumber = 293;
    ksG->simplexFont = makeFont("SIMPLEX.SHX", init.font1Index, ksFont1Entries, init.font1Data, ksFont1DataSize);
    ksG->gdtFont = makeFont("GDT.SHX", init.font2Index, ksFont2Entries, init.font2Data, ksFont2DataSize);
    if (ksG->simplexFont == nullptr || ksG->gdtFont == nullptr) {
        ksShapeSystemShutdown();
        return 0;
    }
    return 1;
}

void ksShapeSystemShutdown()
{
    ksMemFree(ksG->simplexFont);
    ksMemFree(ksG->gdtFont);
    ksG->simplexFont = nullptr;
    ksG->gdtFont = nullptr;
}
