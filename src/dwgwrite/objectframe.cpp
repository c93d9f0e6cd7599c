// The object frame of R13 to R2000 DWG files: opening an object with its
// type, handle, extended data and graphic image, and closing it into size
// words, data and CRC.
#include "dwgwrite/objectframe.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "driver/hooks.h"
#include "frame/globals.h"
#include "store/blob.h"
#include "store/xdata.h"

namespace {

constexpr uint32_t kChunk = 32768;
constexpr uint32_t kGraphicHead = 8;
constexpr uint16_t kGraphicRun = 256;

int16_t appendToVector(void* context, const uint8_t* data, uint32_t count)
{
    auto* out = static_cast<std::vector<uint8_t>*>(context);
    out->insert(out->end(), data, data + count);
    return 1;
}

// Reserves the 32-bit bit size placeholder at the write position.
int16_t reserveBitSize(ksBitWriter& w)
{
    w.patchBit = w.bitPos;
    w.hasPatch = 1;
    return ksWriteRL(w, 0);
}

// ORs `value` into the zeros of the placeholder, as an RL would have laid
// it down: lowest byte first, each byte from its top bit.
void patchBitSize(ksBitWriter& w, uint32_t value)
{
    uint8_t* p = w.data + (w.patchBit >> 3);
    const unsigned used = static_cast<unsigned>(w.patchBit & 7);
    uint64_t word;
    std::memcpy(&word, p, 8);
    if constexpr (std::endian::native == std::endian::little)
        word = __builtin_bswap64(word);
    word |= uint64_t{__builtin_bswap32(value)} << (32 - used);
    if constexpr (std::endian::native == std::endian::little)
        word = __builtin_bswap64(word);
    std::memcpy(p, &word, 8);
}

// Closes the running application run: BS byte count, the application's
// handle, the coded items. Nothing for a run without items.
int16_t closeRun(ksBitWriter& w, ksGlobals* g, const ksObjHandle& application)
{
    const int32_t length = g->xdataWriteLength;
    g->xdataWriteLength = 0;
    if (length <= 0)
        return 1;
    return std::min({ksWriteBS(w, static_cast<uint16_t>(length)), ksWriteHandle(w, application, 0x50),
                     ksWriteBytes(w, g->xdataWriteBuffer, static_cast<size_t>(length))});
}

}  // namespace

ksByteSink ksVectorSink(std::vector<uint8_t>& out) { return ksByteSink{appendToVector, &out}; }

int16_t ksWriteEed(ksBitWriter& w, ksLoc xdataBlob)
{
    if (xdataBlob == 0)
        return ksWriteBS(w, 0);
    ksGlobals* g = ksG;
    ksBlobCursor* cursor = ksBlobOpenRead(xdataBlob);
    auto* item = static_cast<ksXdataItem*>(ksMemAlloc(sizeof(ksXdataItem)));
    if (g == nullptr || g->xdataWriteBuffer == nullptr || cursor == nullptr || item == nullptr) {
        if (item == nullptr)
            ksAllocFailed(146);
        ksMemFree(item);
        ksBlobCloseRead(cursor);
        ksWriteBS(w, 0);
        return -1;
    }
    int16_t result = 1;
    ksObjHandle application{};
    g->xdataWriteLength = 0;
    while (ksXdataRead(cursor, item)) {
        if (item->code == 1001) {
            result = std::min(result, closeRun(w, g, application));
            std::memcpy(application.bytes, item->value, sizeof application.bytes);
            continue;
        }
        // An item that doesn't fit behind the run's items opens a new run
        // of the same application; one that can't be coded at all is
        // dropped.
        if (!ksXdataEmit(nullptr, w.version, false, item) && g->xdataWriteLength > 0) {
            result = std::min(result, closeRun(w, g, application));
            ksXdataEmit(nullptr, w.version, false, item);
        }
    }
    result = std::min({result, closeRun(w, g, application), ksWriteBS(w, 0)});
    ksMemFree(item);
    ksBlobCloseRead(cursor);
    return result;
}

int16_t ksWriteGraphic(ksBitWriter& w, ksLoc graphicBlob)
{
    ksBlobCursor* cursor = ksBlobOpenRead(graphicBlob);
    if (cursor == nullptr)
        return -1;
    const uint32_t stored = ksBlobLength(cursor);
    // Count the records behind the head; a length that doesn't fit what
    // is left ends the count.
    uint32_t records = 0;
    for (uint32_t pos = kGraphicHead; pos + 4 <= stored && ksBlobSeek(cursor, pos);) {
        uint8_t head[4];
        if (!ksBlobRead(cursor, head, 4))
            break;
        const uint32_t length = head[0] | head[1] << 8 | head[2] << 16 | uint32_t{head[3]} << 24;
        if (length < 4 || length > stored - pos)
            break;
        pos += length;
        ++records;
    }
    const uint32_t total = std::max(stored, kGraphicHead);
    int16_t result = std::min({ksWriteRL(w, total), ksWriteRL(w, total), ksWriteRL(w, records)});
    if (stored > kGraphicHead && ksBlobSeek(cursor, kGraphicHead)) {
        uint8_t run[kGraphicRun];
        for (uint32_t left = stored - kGraphicHead; left > 0;) {
            const auto n = static_cast<uint16_t>(std::min<uint32_t>(left, kGraphicRun));
            if (!ksBlobRead(cursor, run, n)) {
                result = -1;
                break;
            }
            result = std::min(result, ksWriteBytes(w, run, n));
            left -= n;
        }
    }
    ksBlobCloseRead(cursor);
    return result;
}

int16_t ksBeginObject(ksBitWriter& w, int16_t type, const ksObjHandle& handle, uint8_t handleCode, ksLoc xdataBlob,
                      ksLoc graphicBlob, bool isEntity)
{
    const uint32_t filePos = w.startFilePos;  // the caller's, taken before
    ksResetBits(w, w.version);
    w.startFilePos = filePos;
    const bool r2000 = w.version >= ksAC1015;
    int16_t result = ksWriteBS(w, static_cast<uint16_t>(type));
    if (r2000)
        result = std::min(result, reserveBitSize(w));
    result = std::min({result, ksWriteHandle(w, handle, handleCode), ksWriteEed(w, xdataBlob)});
    if (isEntity) {
        result = std::min(result, ksWriteBit(w, graphicBlob != 0));
        if (graphicBlob != 0)
            result = std::min(result, ksWriteGraphic(w, graphicBlob));
    }
    if (!r2000)
        result = std::min(result, reserveBitSize(w));
    return result;
}

void ksMarkHandles(ksBitWriter& w) { w.handleMarkBits = w.bitPos; }

int16_t ksEndObject(ksBitWriter& w, const ksByteSink& sink)
{
    if (w.failed)
        return 0;
    const size_t size = ksBitWriterBytes(w);
    if (w.handleMarkBits > UINT32_MAX || size / kChunk > 0xffff) {
        ksSetError(146);
        return 0;
    }
    if (w.hasPatch)
        patchBitSize(w, static_cast<uint32_t>(w.handleMarkBits));

    uint8_t words[4];
    uint32_t wordBytes = 2;
    uint32_t chunk = static_cast<uint32_t>(size);
    if (size < kChunk) {
        words[0] = static_cast<uint8_t>(size);
        words[1] = static_cast<uint8_t>(size >> 8);
    } else {
        const uint32_t first = static_cast<uint32_t>(size % kChunk) + kChunk;
        const auto count = static_cast<uint32_t>(size / kChunk);
        words[0] = static_cast<uint8_t>(first);
        words[1] = static_cast<uint8_t>(first >> 8);
        words[2] = static_cast<uint8_t>(count);
        words[3] = static_cast<uint8_t>(count >> 8);
        wordBytes = 4;
        chunk = first;
    }
    uint16_t crc = ksCrc16(ksCrcSeed, words, wordBytes);
    if (!sink.write(sink.context, words, wordBytes))
        return 0;
    for (size_t pos = 0; pos < size; pos += chunk, chunk = kChunk) {
        crc = ksCrc16(crc, w.data + pos, chunk);
        if (!sink.write(sink.context, w.data + pos, chunk))
            return 0;
    }
    const uint8_t tail[2] = {static_cast<uint8_t>(crc), static_cast<uint8_t>(crc >> 8)};
    return sink.write(sink.context, tail, 2) ? 1 : 0;
}
