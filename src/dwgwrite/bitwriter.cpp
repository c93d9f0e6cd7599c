// The bit writer: every primitive code of R13 to R2000 DWG files, with the
// one coding of each value that this writer produces, and the modular codes
// of the object map.
//
// Bits go into one buffer that grows as needed and is kept from object to
// object. A write of up to 57 bits is one unaligned 8-byte store: the
// partly filled byte under the write position keeps its written bits, the
// value goes in behind them, and every byte behind the value is zero. A
// second store clears the 8 bytes after that, so the buffer always has 8
// zero bytes behind its data and a reader can be opened on it in place.
#include "dwgread/bitcodes.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "driver/hooks.h"
#include "frame/globals.h"

namespace {

// Room behind the write position that a store may touch: the value's 8
// bytes and the 8 cleared behind them.
constexpr size_t kSlack = 16;
constexpr size_t kFirstCapacity = 64 * 1024;
// The buffer never grows past this: an object's size must fit its frame.
constexpr size_t kMaxCapacity = size_t{0x7fff0000};

inline uint64_t loadBig(const uint8_t* p)
{
    uint64_t v;
    std::memcpy(&v, p, 8);
    if constexpr (std::endian::native == std::endian::little)
        v = __builtin_bswap64(v);
    return v;
}

inline void storeBig(uint8_t* p, uint64_t v)
{
    if constexpr (std::endian::native == std::endian::little)
        v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
}

// Grows the buffer to at least `need` bytes. False, with the writer
// failed, when it can't.
[[gnu::noinline]] bool grow(ksBitWriter& w, uint64_t need)
{
    if (w.failed)
        return false;
    size_t grown = std::max<size_t>({kFirstCapacity, w.capacity * 2, static_cast<size_t>(need)});
    grown = std::min(grown, kMaxCapacity);
    auto* data = need <= grown ? static_cast<uint8_t*>(ksMemAlloc(static_cast<uint32_t>(grown))) : nullptr;
    if (data == nullptr) {
        w.failed = 1;
        ksAllocFailed(146);
        return false;
    }
    // The written bytes and the zeros behind them.
    const size_t kept = std::min(w.capacity, static_cast<size_t>((w.bitPos + 7) >> 3) + 8);
    if (kept > 0)
        std::memcpy(data, w.data, kept);
    std::memset(data + kept, 0, std::min<size_t>(grown - kept, kSlack));
    ksMemFree(w.data);
    w.data = data;
    w.capacity = grown;
    return true;
}

// Makes room for `bits` more bits behind the write position.
inline bool reserve(ksBitWriter& w, uint64_t bits)
{
    const uint64_t need = ((w.bitPos + bits + 7) >> 3) + kSlack;
    return need <= w.capacity || grow(w, need);
}

// n bits (1 to 57) at the write position, room reserved.
inline void put(ksBitWriter& w, uint64_t value, unsigned n)
{
    uint8_t* p = w.data + (w.bitPos >> 3);
    const unsigned used = static_cast<unsigned>(w.bitPos & 7);
    const uint64_t kept = uint64_t{static_cast<uint8_t>(p[0] & (0xff00u >> used))} << 56;
    storeBig(p, kept | (value << (64 - used - n)));
    storeBig(p + 8, 0);
    w.bitPos += n;
}

inline int16_t bits(ksBitWriter& w, uint64_t value, unsigned n)
{
    if (!reserve(w, n)) [[unlikely]]
        return -1;
    put(w, value, n);
    return 1;
}

inline uint16_t rsStream(uint16_t v) { return static_cast<uint16_t>((v >> 8) | (v << 8)); }
inline uint32_t rlStream(uint32_t v) { return __builtin_bswap32(v); }

// Eight bytes of a double, lowest first, after a prefix of `prefixBits`.
int16_t prefixedDouble(ksBitWriter& w, uint64_t prefix, unsigned prefixBits, double value)
{
    if (!reserve(w, prefixBits + 64)) [[unlikely]]
        return -1;
    const uint64_t raw = std::bit_cast<uint64_t>(value);
    put(w, (prefix << 32) | rlStream(static_cast<uint32_t>(raw)), prefixBits + 32);
    put(w, rlStream(static_cast<uint32_t>(raw >> 32)), 32);
    return 1;
}

// Equal as numbers, with a NaN taken as equal to anything: the test is
// "neither below nor above".
inline bool sameNumber(double a, double b) { return !(a < b) && !(a > b); }

uint64_t handleValue(const ksObjHandle& h)
{
    uint64_t v = 0;
    for (uint8_t b : h.bytes)
        v = (v << 8) | b;
    return v;
}

inline unsigned significantBytes(uint64_t v) { return static_cast<unsigned>((64 - std::countl_zero(v) + 7) / 8); }

// H of a handle given as a number: code, count, the significant bytes.
int16_t handleOfValue(ksBitWriter& w, uint64_t value, uint8_t code)
{
    const unsigned count = significantBytes(value);
    if (!reserve(w, 8 + count * 8)) [[unlikely]]
        return -1;
    const uint8_t head = static_cast<uint8_t>((code & 0xf0) | count);
    if (count <= 6) {
        put(w, (uint64_t{head} << (count * 8)) | value, 8 + count * 8);
    } else {
        put(w, head, 8);
        put(w, value >> 32, count * 8 - 32);
        put(w, value & 0xffffffffu, 32);
    }
    return 1;
}

}  // namespace

// Codes made of several codes combine their results with std::min over a
// braced list: its elements are evaluated in order, which keeps the stream
// order (the arguments of a plain call are not ordered).

void ksBitWriterFree(ksBitWriter& w)
{
    ksMemFree(w.data);
    w.data = nullptr;
    w.capacity = 0;
    w.bitPos = 0;
}

void ksResetBits(ksBitWriter& w, int16_t version)
{
    w.bitPos = 0;
    w.failed = 0;
    w.version = version;
    w.handleMarkBits = 0;
    w.patchBit = 0;
    w.hasPatch = 0;
    w.startFilePos = 0;
    if (reserve(w, 0))
        std::memset(w.data, 0, kSlack);
}

int16_t ksWriteBits(ksBitWriter& w, uint64_t value, unsigned n)
{
    if (n == 0)
        return 1;
    return bits(w, value & (~uint64_t{0} >> (64 - n)), n);
}

int16_t ksWriteBit(ksBitWriter& w, int value) { return bits(w, value != 0, 1); }
int16_t ksWriteRC(ksBitWriter& w, uint8_t value) { return bits(w, value, 8); }
int16_t ksWriteRS(ksBitWriter& w, uint16_t value) { return bits(w, rsStream(value), 16); }
int16_t ksWriteRL(ksBitWriter& w, uint32_t value) { return bits(w, rlStream(value), 32); }
int16_t ksWriteRD(ksBitWriter& w, double value) { return prefixedDouble(w, 0, 0, value); }

int16_t ksWrite2RD(ksBitWriter& w, const ksPoint2& value)
{
    return std::min({ksWriteRD(w, value.x), ksWriteRD(w, value.y)});
}

int16_t ksWriteBS(ksBitWriter& w, uint16_t value)
{
    if (value == 0)
        return bits(w, 0b10, 2);
    if (value == 256)
        return bits(w, 0b11, 2);
    if (value < 256)
        return bits(w, 0x100u | value, 10);
    return bits(w, rsStream(value), 18);
}

int16_t ksWriteBL(ksBitWriter& w, uint32_t value)
{
    if (value == 0)
        return bits(w, 0b10, 2);
    if (value < 256)
        return bits(w, 0x100u | value, 10);
    return bits(w, rlStream(value), 34);
}

int16_t ksWriteBD(ksBitWriter& w, double value)
{
    // By bit pattern: -0.0 is not 0.0 here and takes the long form.
    const uint64_t raw = std::bit_cast<uint64_t>(value);
    if (raw == std::bit_cast<uint64_t>(0.0))
        return bits(w, 0b10, 2);
    if (raw == std::bit_cast<uint64_t>(1.0))
        return bits(w, 0b01, 2);
    return prefixedDouble(w, 0b00, 2, value);
}

int16_t ksWrite2BD(ksBitWriter& w, const ksPoint2& value)
{
    return std::min({ksWriteBD(w, value.x), ksWriteBD(w, value.y)});
}

int16_t ksWrite3BD(ksBitWriter& w, const ksPoint3& value)
{
    return std::min({ksWriteBD(w, value.x), ksWriteBD(w, value.y), ksWriteBD(w, value.z)});
}

int16_t ksWriteDD(ksBitWriter& w, double value, double defaultValue)
{
    // Only 00 (the default) and 11 (a whole RD); the partial forms are read
    // but never written.
    if (sameNumber(value, defaultValue))
        return bits(w, 0b00, 2);
    return prefixedDouble(w, 0b11, 2, value);
}

int16_t ksWrite3DD(ksBitWriter& w, const ksPoint3& value, const ksPoint3& defaultValue)
{
    return std::min({ksWriteDD(w, value.x, defaultValue.x), ksWriteDD(w, value.y, defaultValue.y),
                     ksWriteDD(w, value.z, defaultValue.z)});
}

int16_t ksWriteBT(ksBitWriter& w, double value)
{
    if (value == 0.0)
        return bits(w, 1, 1);
    return std::min({bits(w, 0, 1), ksWriteBD(w, value)});
}

int16_t ksWriteBE(ksBitWriter& w, const ksPoint3& value)
{
    if (value.x == 0.0 && value.y == 0.0 && value.z == 1.0)
        return bits(w, 1, 1);
    return std::min({bits(w, 0, 1), ksWrite3BD(w, value)});
}

int16_t ksWriteFlaggedPoint(ksBitWriter& w, const ksPoint3& value)
{
    const bool flat = value.z == 0.0;
    int16_t result = std::min({bits(w, flat, 1), ksWriteRD(w, value.x), ksWriteRD(w, value.y)});
    if (!flat)
        result = std::min(result, ksWriteRD(w, value.z));
    return result;
}

int16_t ksWriteSpan(ksBitWriter& w, const ksPoint3& start, const ksPoint3& end)
{
    const bool flat = start.z == 0.0 && end.z == 0.0;
    int16_t result = std::min({bits(w, flat, 1), ksWriteRD(w, start.x), ksWriteDD(w, end.x, start.x),
                               ksWriteRD(w, start.y), ksWriteDD(w, end.y, start.y)});
    if (!flat)
        result = std::min({result, ksWriteRD(w, start.z), ksWriteDD(w, end.z, start.z)});
    return result;
}

int16_t ksWriteBytes(ksBitWriter& w, const uint8_t* data, size_t count)
{
    if (count == 0)
        return 1;
    if (!reserve(w, uint64_t{count} * 8)) [[unlikely]]
        return -1;
    uint8_t* p = w.data + (w.bitPos >> 3);
    const unsigned used = static_cast<unsigned>(w.bitPos & 7);
    if (used == 0) {
        std::memcpy(p, data, count);
    } else {
        // Each run of 8 source bytes goes out shifted right by `used`; the
        // bits shifted out lead the next word.
        uint64_t carry = uint64_t{static_cast<uint8_t>(p[0] & (0xff00u >> used))} << 56;
        size_t i = 0;
        for (; i + 8 <= count; i += 8) {
            const uint64_t v = loadBig(data + i);
            storeBig(p + i, carry | (v >> used));
            carry = v << (64 - used);
        }
        uint64_t tail = 0;
        for (size_t k = 0; i + k < count; ++k)
            tail |= uint64_t{data[i + k]} << (56 - 8 * k);
        // The tail's low byte is zero, so nothing of it is shifted out.
        storeBig(p + i, carry | (tail >> used));
    }
    w.bitPos += uint64_t{count} * 8;
    storeBig(w.data + ((w.bitPos + 7) >> 3), 0);
    return 1;
}

int16_t ksWriteText(ksBitWriter& w, const char* text)
{
    const size_t length = std::min<size_t>(std::strlen(text), 0xffff);
    return std::min({ksWriteBS(w, static_cast<uint16_t>(length)),
                     ksWriteBytes(w, reinterpret_cast<const uint8_t*>(text), length)});
}

int16_t ksWriteHandle(ksBitWriter& w, const ksObjHandle& handle, uint8_t code)
{
    return handleOfValue(w, handleValue(handle), code);
}

int16_t ksWriteTypedHandle(ksBitWriter& w, const ksHandleRef& reference)
{
    static constexpr uint8_t kCodeOfKind[5] = {0x20, 0x40, 0x50, 0x60, 0x30};
    const uint8_t code = reference.kind < 5 ? kCodeOfKind[reference.kind] : 0;
    return ksWriteHandle(w, reference.handle, code);
}

int16_t ksWriteRelHandle(ksBitWriter& w, const ksObjHandle& target, const ksObjHandle& base, uint8_t code)
{
    const uint64_t t = handleValue(target);
    const uint64_t b = handleValue(base);
    if (t == b)
        return handleOfValue(w, 0, code);
    if (t > b) {
        const uint64_t up = t - b;
        if (up == 1)
            return bits(w, 0x60, 8);
        if (significantBytes(up) > significantBytes(t))
            return handleOfValue(w, t, 0x40);
        return handleOfValue(w, up, 0xa0);
    }
    const uint64_t down = b - t;
    if (down == 1)
        return bits(w, 0x80, 8);
    if (down >= t)
        return handleOfValue(w, t, 0x40);
    return handleOfValue(w, down, 0xc0);
}

uint32_t ksWriteModularU(uint64_t value, uint8_t* out)
{
    uint32_t n = 0;
    while (value >= 0x80) {
        out[n++] = static_cast<uint8_t>(value | 0x80);
        value >>= 7;
    }
    out[n++] = static_cast<uint8_t>(value);
    return n;
}

uint32_t ksWriteModularS(int32_t value, uint8_t* out)
{
    const bool negative = value < 0;
    const uint32_t magnitude = negative ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
    uint32_t n = ksWriteModularU(magnitude, out);
    // The last byte's 0x40 is the sign: a group that needs that bit gets a
    // byte of its own behind it.
    if (out[n - 1] & 0x40) {
        out[n - 1] |= 0x80;
        out[n++] = negative ? 0x40 : 0x00;
    } else if (negative) {
        out[n - 1] |= 0x40;
    }
    return n;
}
