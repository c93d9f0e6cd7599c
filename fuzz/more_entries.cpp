#include "more_entries.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "load_entry.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "store/xdata.h"

namespace {

// A drawing with two layers and two applications for references to find.
ksFcb* smallDrawing()
{
    ksFcb* fcb = ksNewFcb();
    if (fcb == nullptr)
        return nullptr;
    uint64_t handle = 0x10;
    for (const char* name : {"0", "WALLS"}) {
        ksLayer layer;
        ksLayerDefaults(fcb, &layer);
        std::snprintf(layer.name, sizeof layer.name, "%s", name);
        layer.entryHandle = ksHandleFromU64(handle++);
        ksLayerAdd(fcb, &layer);
    }
    for (const char* name : {"ACAD", "ZEMACAD"}) {
        ksAppid app;
        ksAppidDefaults(&app);
        std::snprintf(app.name, sizeof app.name, "%s", name);
        app.entryHandle = ksHandleFromU64(handle++);
        ksAppidAdd(fcb, &app);
    }
    return fcb;
}

void freeDrawing(ksFcb* fcb)
{
    ksXdataFreePending(fcb);
    ksTablesFree(fcb);
    ksBtreeFree(fcb);
    ksFreeFcb(fcb);
}

// The init data bytes served through the hooks.
const uint8_t* initBytes;
size_t initSize;
size_t initAt;

}  // namespace

int zemacadFuzzXdata(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    zemacadFuzzStart();
    ksFcb* fcb = smallDrawing();
    if (fcb == nullptr)
        return 0;
    static constexpr struct {
        uint8_t isDxf;
        int16_t version;
    } kCodings[] = {{1, ksAC1014}, {0, ksAC1009}, {0, ksAC1015}};
    const auto& coding = kCodings[data[0] % 3];
    fcb->isDxf = coding.isDxf;
    fcb->fileVersion = coding.version;
    size_t length = std::min<size_t>(size - 1, ksXdataBufferSize);
    std::memcpy(ksG->xdataReadBuffer, data + 1, length);

    ksLoc blob = 0;
    if (ksXdataBeginRaw(fcb, static_cast<int32_t>(length)) && ksXdataResolve(fcb, &blob)) {
        ksXdataResolvePending(fcb);
        static ksXdataItem item;
        ksBlobCursor* cursor = ksBlobOpenRead(blob);
        ksG->xdataWriteLength = 0;
        while (cursor && ksXdataRead(cursor, &item))
            ksXdataEmit(fcb, coding.version, coding.isDxf, &item);
        ksBlobCloseRead(cursor);
        ksBlobFree(blob);
    }
    freeDrawing(fcb);
    return 0;
}

int zemacadFuzzInitData(const uint8_t* data, size_t size)
{
    // The loader's entry keeps a toolkit up; this one needs its own start.
    zemacadFuzzShutdown();
    initBytes = data;
    initSize = size;
    initAt = 0;
    ksSetInitOpen([]() -> int16_t { return 1; });
    ksSetInitReadByte([]() -> int { return initAt < initSize ? initBytes[initAt++] : -1; });
    ksSetInitReadBlock([](void* buffer, int32_t want) -> int16_t {
        size_t n = std::min<size_t>(static_cast<size_t>(want), initSize - initAt);
        if (n)
            std::memcpy(buffer, initBytes + initAt, n);
        initAt += n;
        return 1;
    });
    ksSetInitClose(nullptr);
    int16_t error = 0;
    if (ksInit(nullptr, 1, &error)) {
        uint16_t out;
        for (int16_t page = 0; page < 52; ++page) {
            ksCodeToUnicode(page, 0x41, &out);
            ksCodeToUnicode(page, 0x8140, &out);
            ksUnicodeToCode(0x41, page, &out);
        }
        ksShutdown();
    }
    ksSetInitOpen(nullptr);
    ksSetInitReadByte(nullptr);
    ksSetInitReadBlock(nullptr);
    return 0;
}
