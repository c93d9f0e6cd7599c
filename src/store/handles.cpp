#include "store/handles.h"

#include "frame/fcb.h"

int16_t ksHandleIncrement(ksObjHandle* handle)
{
    for (int i = 7; i >= 0; --i) {
        if (++handle->bytes[i] != 0)
            return 1;
    }
    return 0;
}

void ksHandleNext(ksFcb* fcb, ksObjHandle* out)
{
    *out = fcb->nextHandle;
    ksHandleIncrement(&fcb->nextHandle);
}

ksObjHandle ksHandleFixedOrNext(ksFcb* fcb, const ksObjHandle* handles, int slot)
{
    if (handles != nullptr)
        return handles[slot];
    ksObjHandle h;
    ksHandleNext(fcb, &h);
    return h;
}

int ksHandleLength(const ksObjHandle& handle)
{
    int leadingZeros = 0;
    while (leadingZeros < 8 && handle.bytes[leadingZeros] == 0)
        ++leadingZeros;
    return 8 - leadingZeros;
}

ksObjHandle ksHandleFromU64(uint64_t value)
{
    ksObjHandle h;
    for (int i = 7; i >= 0; --i, value >>= 8)
        h.bytes[i] = static_cast<uint8_t>(value);
    return h;
}

uint64_t ksHandleToU64(const ksObjHandle& handle)
{
    uint64_t value = 0;
    for (uint8_t b : handle.bytes)
        value = value << 8 | b;
    return value;
}
