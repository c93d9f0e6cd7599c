// The bit reader's out-of-line codes: bytes, texts, handles, the modular
// codes of the object map. The hot primitives are inline in bitcodes.h.
#include "dwgread/bitcodes.h"

#include <algorithm>

#include "frame/globals.h"

namespace {

void reportBadData()
{
    if (ksG != nullptr && ksG->errorHandler != nullptr)
        ksG->errorHandler(5);
}

uint64_t handleValue(const ksObjHandle& h)
{
    uint64_t v = 0;
    for (uint8_t b : h.bytes)
        v = (v << 8) | b;
    return v;
}

ksObjHandle handleOf(uint64_t v)
{
    ksObjHandle h;
    for (int i = 7; i >= 0; --i) {
        h.bytes[i] = static_cast<uint8_t>(v);
        v >>= 8;
    }
    return h;
}

}  // namespace

void ksBitReaderFail(ksBitReader& r)
{
    r.bad = 1;
    r.bitPos = r.bitEnd;
}

bool ksReadBytes(ksBitReader& r, uint8_t* out, uint32_t count)
{
    if (r.bitPos + uint64_t{count} * 8 > r.bitEnd) {
        std::fill_n(out, count, uint8_t{0});
        ksBitReaderFail(r);
        return false;
    }
    const uint8_t* p = r.data + (r.bitPos >> 3);
    const unsigned shift = static_cast<unsigned>(r.bitPos & 7);
    if (shift == 0) {
        std::memcpy(out, p, count);
    } else {
        // Each byte is the tail of one stored byte and the head of the next;
        // the byte behind the last is inside the stream or its padding.
        for (uint32_t i = 0; i < count; ++i)
            out[i] = static_cast<uint8_t>((p[i] << shift) | (p[i + 1] >> (8 - shift)));
    }
    r.bitPos += uint64_t{count} * 8;
    return true;
}

bool ksSkipBits(ksBitReader& r, uint64_t count)
{
    if (count > r.bitEnd - r.bitPos) {
        ksBitReaderFail(r);
        return false;
    }
    r.bitPos += count;
    return true;
}

int32_t ksReadText(ksBitReader& r, char* out, int32_t limit)
{
    const int32_t length = static_cast<uint16_t>(ksReadBS(r));
    if (length > limit || r.bitPos + uint64_t(length) * 8 > r.bitEnd) {
        reportBadData();
        out[0] = '\0';
        ksBitReaderFail(r);
        return length;
    }
    ksReadBytes(r, reinterpret_cast<uint8_t*>(out), static_cast<uint32_t>(length));
    out[length] = '\0';
    return length;
}

int16_t ksReadHandleCode(ksBitReader& r, ksObjHandle* out, uint8_t* code)
{
    const uint8_t head = ksReadRC(r);
    const int count = head & 0x0f;
    *code = static_cast<uint8_t>(head >> 4);
    *out = ksObjHandle{};
    if (count > 8) {
        reportBadData();
        ksBitReaderFail(r);
        return 0;
    }
    if (count > 0)
        ksReadBytes(r, out->bytes + (8 - count), static_cast<uint32_t>(count));
    return static_cast<int16_t>(count);
}

int16_t ksReadHandle(ksBitReader& r, ksObjHandle* out)
{
    uint8_t code;
    return ksReadHandleCode(r, out, &code);
}

ksObjHandle ksHandleAdd(const ksObjHandle& a, uint64_t delta)
{
    return handleOf(handleValue(a) + delta);
}

ksObjHandle ksHandleSub(const ksObjHandle& a, uint64_t delta)
{
    return handleOf(handleValue(a) - delta);
}

void ksReadRelHandle(ksBitReader& r, const ksObjHandle& base, ksObjHandle* out)
{
    ksObjHandle value;
    uint8_t code;
    ksReadHandleCode(r, &value, &code);
    if (r.bad) {
        *out = ksObjHandle{};
        return;
    }
    // Codes 6 and 8 stand for the handles next to the base, 0xA and 0xC
    // for an offset from it; every other code holds the handle itself, and
    // one without bytes is the null handle (the owner of the named objects
    // dictionary is such a one in real files).
    switch (code) {
    case 0x6: *out = ksHandleAdd(base, 1); break;
    case 0x8: *out = ksHandleSub(base, 1); break;
    case 0xA: *out = ksHandleAdd(base, handleValue(value)); break;
    case 0xC: *out = ksHandleSub(base, handleValue(value)); break;
    default: *out = value; break;
    }
}

int16_t ksReadTypedHandle(ksBitReader& r, ksHandleRef* out)
{
    uint8_t code;
    const int16_t count = ksReadHandleCode(r, &out->handle, &code);
    switch (code) {
    case 2: out->kind = 0; break;
    case 4: out->kind = 1; break;
    case 5: out->kind = 2; break;
    case 6: out->kind = 3; break;
    case 3: out->kind = 4; break;
    default: out->kind = 0; break;
    }
    return count;
}

bool ksSeekHandleStream(ksBitReader& r)
{
    const uint64_t target = (uint64_t{r.bitSize});
    if (r.bitSize == 0 || target > r.bitEnd) {
        ksBitReaderFail(r);
        return false;
    }
    r.bitPos = target;
    return true;
}

uint64_t ksReadModularU(const uint8_t* p, const uint8_t* end, uint32_t* used)
{
    uint64_t value = 0;
    unsigned shift = 0;
    for (uint32_t i = 0; i < 10; ++i) {
        if (p + i >= end) {
            *used = 0;
            return 0;
        }
        const uint8_t b = p[i];
        if (shift < 64)
            value |= uint64_t{b & 0x7fu} << shift;
        shift += 7;
        if ((b & 0x80) == 0) {
            *used = i + 1;
            return value;
        }
    }
    // Ten bytes all saying more: the code is cut there.
    *used = 10;
    return value;
}

int32_t ksReadModularS(const uint8_t* p, const uint8_t* end, uint32_t* used)
{
    int64_t value = 0;
    unsigned shift = 0;
    for (uint32_t i = 0;; ++i) {
        if (p + i >= end) {
            *used = 0;
            return 0;
        }
        const uint8_t b = p[i];
        if (i >= 6) {
            // Seven bytes or more: bad data.
            reportBadData();
            *used = 0;
            return 0;
        }
        if (b & 0x80) {
            value |= int64_t{b & 0x7f} << shift;
            shift += 7;
            continue;
        }
        value |= int64_t{b & 0x3f} << shift;
        *used = i + 1;
        const int64_t result = (b & 0x40) ? -value : value;
        return static_cast<int32_t>(result);
    }
}
