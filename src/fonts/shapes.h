// Shape fonts. The toolkit keeps two built-in font records (SIMPLEX and
// GDT) made from the init data; a conversion only reads shape names and
// numbers, never shape geometry.
#pragma once

#include <cstdint>

#include "frame/initdata.h"

struct ksFontRecord {
    char name[16];
    int16_t kind;              // 4: a font built from init data
    const ksFontIndexEntry* index;
    int16_t indexEntries;
    int16_t above;             // font height above the base line
    int16_t below;             // and below it
    int16_t orientation;
    int16_t beforeCount;       // the field that stands before the shape count
    int16_t shapeCount;
    int16_t dataBlocks;
    uint32_t dataSize;
    const uint8_t* data;       // points into the init data
};

// Makes ksG->simplexFont and ksG->gdtFont from the loaded init data.
// 0 with error 293 when they can't be allocated.
int16_t ksShapeSystemInit();
// Frees the two records; harmless when they were never made.
void ksShapeSystemShutdown();
