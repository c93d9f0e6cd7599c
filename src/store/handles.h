// Handle arithmetic. Handles are 8 bytes, most significant first, and
// compare as unsigned bytes, which is their numeric order.
#pragma once

#include <cstdint>
#include <cstring>

#include "frame/kstypes.h"

struct ksFcb;

// Adds 1 to the last byte, carrying towards the first. 0 when the carry
// runs off the first byte (the handle has wrapped to zero).
int16_t ksHandleIncrement(ksObjHandle* handle);
// Copies the drawing's nextHandle to *out and increments nextHandle.
void ksHandleNext(ksFcb* fcb, ksObjHandle* out);
// The handle of a slot of a table of fixed handles, or, without a table,
// the drawing's next handle.
ksObjHandle ksHandleFixedOrNext(ksFcb* fcb, const ksObjHandle* handles, int slot);
// Significant length: 8 less the leading zero bytes; 0 for the null handle.
int ksHandleLength(const ksObjHandle& handle);

inline int ksHandleCompare(const ksObjHandle& a, const ksObjHandle& b)
{
    return std::memcmp(a.bytes, b.bytes, sizeof a.bytes);
}

inline bool ksHandleIsNull(const ksObjHandle& h)
{
    static constexpr ksObjHandle kNull{};
    return std::memcmp(h.bytes, kNull.bytes, sizeof h.bytes) == 0;
}

// Handle from a number, and back (for tests and small tables).
ksObjHandle ksHandleFromU64(uint64_t value);
uint64_t ksHandleToU64(const ksObjHandle& handle);
