// The bit codes of R13 to R2000 DWG files, both directions.
//
// Every object and section of these files is a bit stream: values are not
// byte aligned, bits are taken from the top of each byte (0x80 first), and
// multi-byte values are stored lowest byte first. The reader works over a
// byte range that is wholly in memory and never reads past its end: a read
// beyond it yields zeros and marks the stream bad, which the object readers
// test before they keep what they read. The writer assembles one object or
// section in a growing buffer and frames it on the way to the file.
//
// Stream layout of each code (bit patterns in stream order):
//
//   B    one bit
//   RC   eight bits, the value's 0x80 bit first
//   RS   two RC, low byte first;  RL  four RC, low first;  RD  eight RC (IEEE)
//   BS   00: RS   01: RC unsigned   10: 0   11: 256
//   BL   00: RL   01: RC unsigned   1x: 0 (the second bit is consumed)
//   BD   00: RD   01: 1.0           1x: 0.0
//   DD   00: the default  01: default with its bytes 0-3 replaced by 4 RC
//        10: default with bytes 4-5 then 0-3 replaced (6 RC)   11: RD
//   BT   1: 0.0, 0: BD
//   BE   1: (0,0,1), 0: 3BD and the axis rule
//   T    BS length, then that many bytes, no terminator
//   H    RC: code in the high nibble, byte count in the low one, then the
//        bytes of the handle's low end, most significant first
//
// Doubles taken whole (RD, BD's long form) are sanitised: an exponent field
// of all zeros (zero, -0.0, denormals) or all ones (infinities, NaNs) reads
// as +0.0. The short forms of DD build values that are not sanitised.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frame/kstypes.h"

struct ksFcb;

// A reference: a handle and the kind its code gives (0 soft owner, 1 hard
// owner, 2 soft pointer, 3 hard pointer, 4 for code 3).
struct ksHandleRef {
    ksObjHandle handle;
    uint8_t kind;
};

// ---------------------------------------------------------------------------
// Reader

struct ksBitReader {
    // The stream: `data` holds at least `bitEnd` bits and is followed by at
    // least 8 readable bytes (the file image keeps zero padding at its end),
    // so a read of up to 57 bits inside the stream is one unaligned load.
    const uint8_t* data;
    uint64_t bitPos;   // bits consumed
    uint64_t bitEnd;   // bits in the stream
    uint8_t bad;       // a read ran past the end or met an impossible value

    // The frame of the object being read (ksOpenObject).
    uint32_t objectFilePos;  // file position of the size word
    uint32_t dataFilePos;    // file position of the first data byte
    uint32_t objectSize;     // bytes of object data behind the size word
    uint8_t bigObject;       // the size word had its top bit set
    uint32_t bitSize;        // bits from dataFilePos to the handle stream; 0 unknown
    uint32_t reactorCount;   // non-graphic objects: read by the frame
    uint8_t hasGraphic;

    // Entity state, valid until the next object is opened: the common data
    // and the chain links of the entity being read.
    uint16_t linetypeFlags;  // R2000: 0 BYLAYER, 1 BYBLOCK, 2 CONTINUOUS, 3 stored
    uint8_t noLinks;
    uint8_t ownerImplied;
    uint8_t ownerStored;
    uint8_t linetypeByLayer;
    ksObjHandle owner;
    ksObjHandle nextEntity;
    ksObjHandle prevEntity;
};

// Opens a reader over `byteCount` bytes at `data` (padding rule above);
// filePos is the file position of data[0].
inline void ksBitReaderOpen(ksBitReader& r, const uint8_t* data, uint64_t byteCount, uint32_t filePos)
{
    r.data = data;
    r.bitPos = 0;
    r.bitEnd = byteCount * 8;
    r.bad = 0;
    r.dataFilePos = filePos;
}

// Marks the stream bad: the reads that follow give zeros.
void ksBitReaderFail(ksBitReader& r);

// n bits (1 to 57) as an unsigned value, the first bit the highest.
inline uint64_t ksReadBits(ksBitReader& r, unsigned n)
{
    if (r.bitPos + n > r.bitEnd) [[unlikely]] {
        ksBitReaderFail(r);
        return 0;
    }
    uint64_t word;
    std::memcpy(&word, r.data + (r.bitPos >> 3), 8);
    if constexpr (std::endian::native == std::endian::little)
        word = __builtin_bswap64(word);
    word <<= (r.bitPos & 7);
    r.bitPos += n;
    return word >> (64 - n);
}

inline int16_t ksReadBit(ksBitReader& r) { return static_cast<int16_t>(ksReadBits(r, 1)); }
inline uint8_t ksReadRC(ksBitReader& r) { return static_cast<uint8_t>(ksReadBits(r, 8)); }
inline uint16_t ksReadRS(ksBitReader& r)
{
    uint32_t v = static_cast<uint32_t>(ksReadBits(r, 16));
    return static_cast<uint16_t>((v >> 8) | (v << 8));
}
inline uint32_t ksReadRL(ksBitReader& r)
{
    return __builtin_bswap32(static_cast<uint32_t>(ksReadBits(r, 32)));
}
inline uint64_t ksReadRawU64(ksBitReader& r)
{
    uint64_t lo = ksReadRL(r);
    uint64_t hi = ksReadRL(r);
    return lo | (hi << 32);
}

// +0.0 for an exponent field of all zeros or all ones.
inline double ksSanitiseDouble(uint64_t bits)
{
    const uint64_t exponent = (bits >> 52) & 0x7ff;
    if (exponent == 0 || exponent == 0x7ff)
        return 0.0;
    return std::bit_cast<double>(bits);
}

inline double ksReadRDValue(ksBitReader& r) { return ksSanitiseDouble(ksReadRawU64(r)); }
inline void ksReadRD(ksBitReader& r, double* out) { *out = ksReadRDValue(r); }
inline void ksRead2RD(ksBitReader& r, ksPoint2* out)
{
    out->x = ksReadRDValue(r);
    out->y = ksReadRDValue(r);
}

inline int16_t ksReadBS(ksBitReader& r)
{
    switch (ksReadBits(r, 2)) {
    case 0: return static_cast<int16_t>(ksReadRS(r));
    case 1: return static_cast<int16_t>(ksReadRC(r));
    case 2: return 0;
    default: return 256;
    }
}

inline int32_t ksReadBL(ksBitReader& r)
{
    switch (ksReadBits(r, 2)) {
    case 0: return static_cast<int32_t>(ksReadRL(r));
    case 1: return ksReadRC(r);
    default: return 0;
    }
}

inline double ksReadBDValue(ksBitReader& r)
{
    switch (ksReadBits(r, 2)) {
    case 0: return ksReadRDValue(r);
    case 1: return 1.0;
    default: return 0.0;
    }
}
inline void ksReadBD(ksBitReader& r, double* out) { *out = ksReadBDValue(r); }
inline void ksRead2BD(ksBitReader& r, ksPoint2* out)
{
    out->x = ksReadBDValue(r);
    out->y = ksReadBDValue(r);
}
inline void ksRead3BD(ksBitReader& r, ksPoint3* out)
{
    out->x = ksReadBDValue(r);
    out->y = ksReadBDValue(r);
    out->z = ksReadBDValue(r);
}

inline double ksReadDDValue(ksBitReader& r, double defaultValue)
{
    switch (ksReadBits(r, 2)) {
    case 0: return defaultValue;
    case 1: {
        uint64_t bits = std::bit_cast<uint64_t>(defaultValue);
        bits = (bits & 0xffffffff00000000ull) | ksReadRL(r);
        return std::bit_cast<double>(bits);
    }
    case 2: {
        uint64_t bits = std::bit_cast<uint64_t>(defaultValue);
        uint64_t b4 = ksReadRC(r);
        uint64_t b5 = ksReadRC(r);
        bits = (bits & 0xffff0000ffffffffull) | (b4 << 32) | (b5 << 40);
        bits = (bits & 0xffffffff00000000ull) | ksReadRL(r);
        return std::bit_cast<double>(bits);
    }
    default: return ksReadRDValue(r);
    }
}
inline void ksReadDD(ksBitReader& r, double* out, double defaultValue) { *out = ksReadDDValue(r, defaultValue); }
inline void ksRead3DD(ksBitReader& r, ksPoint3* out, const ksPoint3& defaultValue)
{
    out->x = ksReadDDValue(r, defaultValue.x);
    out->y = ksReadDDValue(r, defaultValue.y);
    out->z = ksReadDDValue(r, defaultValue.z);
}

inline double ksReadBTValue(ksBitReader& r) { return ksReadBit(r) ? 0.0 : ksReadBDValue(r); }
inline void ksReadBT(ksBitReader& r, double* out) { *out = ksReadBTValue(r); }

// The axis rule of extrusions: (0, 0, z) becomes (0, 0, 1) for z above 0,
// else (0, 0, -1); any other vector stays as stored.
inline void ksAxisRule(ksPoint3* v)
{
    if (v->x == 0.0 && v->y == 0.0)
        v->z = v->z > 0.0 ? 1.0 : -1.0;
}
inline void ksReadExtrusion(ksBitReader& r, ksPoint3* out)
{
    ksRead3BD(r, out);
    ksAxisRule(out);
}
inline void ksReadBE(ksBitReader& r, ksPoint3* out)
{
    if (ksReadBit(r)) {
        *out = ksPoint3{0.0, 0.0, 1.0};
        return;
    }
    ksReadExtrusion(r, out);
}

// Flag bit, x and y as RD, z as RD only when the flag is 0.
inline void ksReadFlaggedPoint(ksBitReader& r, ksPoint3* out)
{
    const bool flat = ksReadBit(r) != 0;
    out->x = ksReadRDValue(r);
    out->y = ksReadRDValue(r);
    out->z = flat ? 0.0 : ksReadRDValue(r);
}

// Start and end of a LINE in R2000: flag, start x RD, end x DD, start y,
// end y, and with the flag 0 start z and end z.
inline void ksReadSpan(ksBitReader& r, ksPoint3* start, ksPoint3* end)
{
    const bool flat = ksReadBit(r) != 0;
    start->x = ksReadRDValue(r);
    end->x = ksReadDDValue(r, start->x);
    start->y = ksReadRDValue(r);
    end->y = ksReadDDValue(r, start->y);
    if (flat) {
        start->z = end->z = 0.0;
    } else {
        start->z = ksReadRDValue(r);
        end->z = ksReadDDValue(r, start->z);
    }
}

// count raw bytes at the current bit offset; false (zeros out) when the
// stream ends first.
bool ksReadBytes(ksBitReader& r, uint8_t* out, uint32_t count);
// Drops count bits; false when the stream ends first.
bool ksSkipBits(ksBitReader& r, uint64_t count);

// T: BS length, then the bytes. `out` holds limit + 1 bytes and gets a
// terminator; the result is the stored length. A length above `limit` or
// past the stream's end is bad data: the error handler gets severity 5,
// `out` is left empty and the stream is marked bad.
int32_t ksReadText(ksBitReader& r, char* out, int32_t limit);

// H: the handle whose bytes follow; the code nibble is dropped. Returns the
// byte count. A count above 8 is bad data (handler 5, zero handle, 0).
int16_t ksReadHandle(ksBitReader& r, ksObjHandle* out);
// H with its code kept: the high nibble into *code.
int16_t ksReadHandleCode(ksBitReader& r, ksObjHandle* out, uint8_t* code);
// H against a base: code 6 gives base + 1, code 8 base - 1, code 0xA
// base plus the bytes, code 0xC base minus them (eight-byte arithmetic,
// wrapping); any other code holds the handle itself, null without bytes.
void ksReadRelHandle(ksBitReader& r, const ksObjHandle& base, ksObjHandle* out);
// H whose code gives the kind: 2 -> 0, 4 -> 1, 5 -> 2, 6 -> 3, 3 -> 4
// (other codes kind 0). Returns the byte count.
int16_t ksReadTypedHandle(ksBitReader& r, ksHandleRef* out);

// The file position of the byte under the read position.
inline uint32_t ksBitPosition(const ksBitReader& r)
{
    return r.dataFilePos + static_cast<uint32_t>(r.bitPos >> 3);
}
// Moves the read position to the handle stream (bitSize bits behind the
// first data byte) when the frame gave one inside the object; false when
// it lies outside (the stream is marked bad).
bool ksSeekHandleStream(ksBitReader& r);

// Modular codes of the object map, read from bytes in memory; `used` gets
// the bytes taken, 0 when the code runs past `end`.
//   unsigned: 7 value bits per byte, lowest group first, 0x80 = more; at
//             most 10 bytes.
//   signed:   the same, but the byte without 0x80 ends the code and its bit
//             0x40 is the sign. A code of 7 bytes or more is bad data
//             (handler 5, result 0).
uint64_t ksReadModularU(const uint8_t* p, const uint8_t* end, uint32_t* used);
int32_t ksReadModularS(const uint8_t* p, const uint8_t* end, uint32_t* used);

// Handle arithmetic of relative references, over eight bytes, wrapping.
ksObjHandle ksHandleAdd(const ksObjHandle& a, uint64_t delta);
ksObjHandle ksHandleSub(const ksObjHandle& a, uint64_t delta);

// ---------------------------------------------------------------------------
// CRC: 16 bits, reflected polynomial 0xA001. Objects and sections of
// R13-R2000 start from 0xC0C1.

inline constexpr uint16_t ksCrcSeed = 0xC0C1;
uint16_t ksCrc16(uint16_t seed, const uint8_t* data, size_t count);
// CRC with seed 0 over the first totalLength - 2 bytes, XOR xorValue, stored
// low byte first in the last two.
void ksStampCrc(uint8_t* buffer, size_t totalLength, uint16_t xorValue);

// ---------------------------------------------------------------------------
// Writer
//
// One object or section is assembled in `data` (grown with ksMemAlloc as
// needed, kept between objects so that a long run of objects allocates
// nothing). Every primitive returns 1, or -1 when the buffer couldn't
// grow; `failed` then stays set until the next begin.

struct ksBitWriter {
    uint8_t* data;
    size_t capacity;        // bytes of data
    uint64_t bitPos;        // bits written
    uint8_t failed;
    int16_t version;        // ksVersion being written
    uint64_t handleMarkBits;  // bits up to the handle stream (ksMarkHandles)
    uint64_t patchBit;        // bit position of the 32-bit size placeholder
    uint8_t hasPatch;
    uint32_t startFilePos;    // file position at which the object begins
};

// Frees the writer's buffer.
void ksBitWriterFree(ksBitWriter& w);
// Opens a bit stream without a frame (a section body, a test).
void ksResetBits(ksBitWriter& w, int16_t version);
// Bytes written so far (the last byte counted when partly filled).
inline size_t ksBitWriterBytes(const ksBitWriter& w) { return static_cast<size_t>((w.bitPos + 7) >> 3); }

int16_t ksWriteBits(ksBitWriter& w, uint64_t value, unsigned n);  // n 1..57, top bit first
int16_t ksWriteBit(ksBitWriter& w, int value);
int16_t ksWriteRC(ksBitWriter& w, uint8_t value);
int16_t ksWriteRS(ksBitWriter& w, uint16_t value);
int16_t ksWriteRL(ksBitWriter& w, uint32_t value);
int16_t ksWriteRD(ksBitWriter& w, double value);
int16_t ksWrite2RD(ksBitWriter& w, const ksPoint2& value);
int16_t ksWriteBS(ksBitWriter& w, uint16_t value);
int16_t ksWriteBL(ksBitWriter& w, uint32_t value);
int16_t ksWriteBD(ksBitWriter& w, double value);
int16_t ksWrite2BD(ksBitWriter& w, const ksPoint2& value);
int16_t ksWrite3BD(ksBitWriter& w, const ksPoint3& value);
int16_t ksWriteDD(ksBitWriter& w, double value, double defaultValue);
int16_t ksWrite3DD(ksBitWriter& w, const ksPoint3& value, const ksPoint3& defaultValue);
int16_t ksWriteBT(ksBitWriter& w, double value);
int16_t ksWriteBE(ksBitWriter& w, const ksPoint3& value);
int16_t ksWriteFlaggedPoint(ksBitWriter& w, const ksPoint3& value);
int16_t ksWriteSpan(ksBitWriter& w, const ksPoint3& start, const ksPoint3& end);
int16_t ksWriteBytes(ksBitWriter& w, const uint8_t* data, size_t count);
int16_t ksWriteText(ksBitWriter& w, const char* text);
// code is already in the high nibble (0x40, 0x50 ...).
int16_t ksWriteHandle(ksBitWriter& w, const ksObjHandle& handle, uint8_t code);
int16_t ksWriteTypedHandle(ksBitWriter& w, const ksHandleRef& reference);
int16_t ksWriteRelHandle(ksBitWriter& w, const ksObjHandle& target, const ksObjHandle& base, uint8_t code);

// Modular codes of the object map into `out` (at least 10 bytes); the
// result is the byte count.
uint32_t ksWriteModularU(uint64_t value, uint8_t* out);
uint32_t ksWriteModularS(int32_t value, uint8_t* out);
