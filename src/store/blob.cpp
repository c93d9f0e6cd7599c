#include "store/blob.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "driver/hooks.h"
#include "frame/globals.h"
#include "store/list.h"

namespace {

constexpr uint32_t kNoChunk = UINT32_MAX;

inline ksBlob* desc(ksLoc blob)
{
    auto* b = static_cast<ksBlob*>(ksVmPtr(blob));
    return b && b->magic == ksBlobMagic ? b : nullptr;
}

inline uint8_t* payload(ksLoc chunk) { return static_cast<uint8_t*>(ksVmPtr(chunk)) + ksListNodeHeaderSize; }

// The cursor and its chunk buffer in one block.
ksBlobCursor* newCursor(ksLoc blob)
{
    ksBlob* b = desc(blob);
    if (b == nullptr)
        return nullptr;
    auto* cursor = static_cast<ksBlobCursor*>(ksMemAlloc(sizeof(ksBlobCursor) + ksBlobChunkSize));
    if (cursor == nullptr) {
        ksAllocFailed(210);
        return nullptr;
    }
    *cursor = ksBlobCursor{};
    cursor->magic = b->magic;
    cursor->chunks = b->chunks;
    cursor->size = b->size;
    cursor->buffer = reinterpret_cast<uint8_t*>(cursor + 1);
    cursor->self = blob;
    cursor->loadedIndex = kNoChunk;
    return cursor;
}

void saveCursor(const ksBlobCursor* cursor)
{
    if (ksBlob* b = desc(cursor->self)) {
        b->chunks = cursor->chunks;
        b->size = cursor->size;
        b->remaining = cursor->remaining;
        b->writing = 0;
        b->offset = cursor->offset;
        b->available = cursor->available;
    }
}

// Stores the buffer's first `length` bytes as a new last chunk.
bool storeChunk(ksBlobCursor* cursor, uint32_t length)
{
    ksLoc chunk = ksVmAlloc(ksListNodeHeaderSize + length);
    if (chunk == 0) {
        ksAllocFailed(222);
        return false;
    }
    *static_cast<ksListNode*>(ksVmPtr(chunk)) = ksListNode{};
    std::memcpy(payload(chunk), cursor->buffer, length);
    ksListAppend(cursor->chunks, chunk);
    return true;
}

// Loads the chunk at nextChunk; the read position is at its start.
bool loadChunk(ksBlobCursor* cursor)
{
    if (cursor->nextChunk == 0)
        return false;
    uint32_t length = std::min(ksBlobChunkSize, cursor->remaining);
    std::memcpy(cursor->buffer, payload(cursor->nextChunk), length);
    cursor->nextChunk = ksListNodeNext(cursor->nextChunk);
    cursor->loadedIndex = cursor->loadedIndex == kNoChunk ? 0 : cursor->loadedIndex + 1;
    cursor->available = static_cast<uint16_t>(length);
    cursor->offset = 0;
    return true;
}

inline bool reading(const ksBlobCursor* cursor) { return cursor && !cursor->writing; }
inline bool writing(const ksBlobCursor* cursor) { return cursor && cursor->writing; }

template <typename T>
int16_t writeLE(ksBlobCursor* cursor, T value)
{
    uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    if constexpr (std::endian::native == std::endian::big)
        std::reverse(bytes, bytes + sizeof(T));
    return ksBlobWrite(cursor, bytes, sizeof(T));
}

template <typename T>
int16_t readLE(ksBlobCursor* cursor, T* value)
{
    *value = T{};
    uint8_t bytes[sizeof(T)];
    if (!ksBlobRead(cursor, bytes, sizeof(T)))
        return 0;
    if constexpr (std::endian::native == std::endian::big)
        std::reverse(bytes, bytes + sizeof(T));
    std::memcpy(value, bytes, sizeof(T));
    return 1;
}

}  // namespace

ksLoc ksBlobNew()
{
    ksLoc blob = ksVmAlloc(sizeof(ksBlob));
    if (blob == 0) {
        ksAllocFailed(215);
        return 0;
    }
    auto* b = static_cast<ksBlob*>(ksVmPtr(blob));
    *b = ksBlob{};
    b->magic = ksBlobMagic;
    return blob;
}

int16_t ksBlobFree(ksLoc blob)
{
    ksBlob* b = desc(blob);
    if (b == nullptr)
        return 0;
    if (b->chunks != 0)
        ksListFree(b->chunks);
    b->magic = 0;
    ksVmFree(blob);
    return 1;
}

uint32_t ksBlobSize(ksLoc blob)
{
    ksBlob* b = desc(blob);
    return b ? b->size : 0;
}

ksBlobCursor* ksBlobOpenWrite(ksLoc blob)
{
    ksBlobCursor* cursor = newCursor(blob);
    if (cursor == nullptr)
        return nullptr;
    ksLoc chunks = ksListNew();
    if (chunks == 0) {
        ksMemFree(cursor);
        return nullptr;
    }
    if (cursor->chunks != 0)
        ksListFree(cursor->chunks);  // a new write drops the old bytes
    cursor->chunks = chunks;
    desc(blob)->chunks = chunks;
    desc(blob)->size = 0;
    cursor->size = 0;
    cursor->offset = 0;
    cursor->writing = 1;
    return cursor;
}

ksBlobCursor* ksBlobOpenAppend(ksLoc blob)
{
    ksBlob* b = desc(blob);
    if (b == nullptr)
        return nullptr;
    if (b->chunks == 0 || ksListCount(b->chunks) == 0)
        return ksBlobOpenWrite(blob);
    ksBlobCursor* cursor = newCursor(blob);
    if (cursor == nullptr)
        return nullptr;
    // The last chunk goes back into the buffer, so that the blob keeps
    // full chunks in front of its last one.
    uint32_t count = ksListCount(cursor->chunks);
    uint32_t tail = cursor->size - ksBlobChunkSize * (count - 1);
    ksLoc last = ksListRemoveLast(cursor->chunks);
    std::memcpy(cursor->buffer, payload(last), tail);
    ksVmFree(last);
    cursor->offset = static_cast<uint16_t>(tail);
    cursor->size -= tail;
    cursor->writing = 1;
    return cursor;
}

ksBlobCursor* ksBlobOpenRead(ksLoc blob)
{
    ksBlobCursor* cursor = newCursor(blob);
    if (cursor)
        ksBlobRewind(cursor);
    return cursor;
}

int16_t ksBlobCloseWrite(ksBlobCursor* cursor)
{
    if (!writing(cursor))
        return 0;
    bool ok = true;
    if (cursor->offset > 0) {
        ok = storeChunk(cursor, cursor->offset);
        if (ok)
            cursor->size += cursor->offset;
    }
    cursor->offset = 0;
    cursor->remaining = 0;
    cursor->available = 0;
    saveCursor(cursor);
    ksMemFree(cursor);
    return ok;
}

int16_t ksBlobCloseRead(ksBlobCursor* cursor)
{
    if (cursor == nullptr)
        return 0;
    saveCursor(cursor);
    ksMemFree(cursor);
    return 1;
}

int16_t ksBlobWrite(ksBlobCursor* cursor, const void* bytes, uint16_t length)
{
    if (!writing(cursor))
        return 0;
    auto* from = static_cast<const uint8_t*>(bytes);
    uint32_t left = length;
    while (left > 0) {
        uint32_t n = std::min<uint32_t>(left, ksBlobChunkSize - cursor->offset);
        std::memcpy(cursor->buffer + cursor->offset, from, n);
        cursor->offset = static_cast<uint16_t>(cursor->offset + n);
        from += n;
        left -= n;
        if (cursor->offset == ksBlobChunkSize) {
            if (cursor->size > UINT32_MAX - ksBlobChunkSize || !storeChunk(cursor, ksBlobChunkSize))
                return 0;
            cursor->size += ksBlobChunkSize;
            cursor->offset = 0;
        }
    }
    return 1;
}

int16_t ksBlobWriteByte(ksBlobCursor* cursor, uint8_t byte)
{
    if (writing(cursor) && cursor->offset < ksBlobChunkSize - 1) {
        cursor->buffer[cursor->offset++] = byte;
        return 1;
    }
    return ksBlobWrite(cursor, &byte, 1);
}

int16_t ksBlobWriteText(ksBlobCursor* cursor, const char* text)
{
    size_t length = std::strlen(text);
    if (length > INT16_MAX)
        return 0;
    return writeLE<int16_t>(cursor, static_cast<int16_t>(length)) &&
           ksBlobWrite(cursor, text, static_cast<uint16_t>(length));
}

int16_t ksBlobWriteHandle(ksBlobCursor* cursor, const ksObjHandle& handle)
{
    if (cursor == nullptr) {
        ksSetError(163);
        return 0;
    }
    return ksBlobWrite(cursor, handle.bytes, sizeof handle.bytes);
}

int16_t ksBlobWriteInt16(ksBlobCursor* cursor, int16_t value) { return writeLE(cursor, value); }
int16_t ksBlobWriteInt32(ksBlobCursor* cursor, int32_t value) { return writeLE(cursor, value); }
int16_t ksBlobWriteReal(ksBlobCursor* cursor, double value) { return writeLE(cursor, value); }

int16_t ksBlobWritePoint(ksBlobCursor* cursor, const ksPoint3& value)
{
    return writeLE(cursor, value.x) && writeLE(cursor, value.y) && writeLE(cursor, value.z);
}

int16_t ksBlobRead(ksBlobCursor* cursor, void* bytes, uint16_t length)
{
    if (!reading(cursor) || cursor->remaining == 0 || cursor->remaining < length)
        return 0;
    auto* to = static_cast<uint8_t*>(bytes);
    uint32_t wanted = length;
    while (wanted > 0) {
        if (cursor->available == 0 && !loadChunk(cursor))
            return 0;  // the chunks hold fewer bytes than the size says
        uint32_t n = std::min<uint32_t>(wanted, cursor->available);
        std::memcpy(to, cursor->buffer + cursor->offset, n);
        to += n;
        cursor->offset = static_cast<uint16_t>(cursor->offset + n);
        cursor->available = static_cast<uint16_t>(cursor->available - n);
        cursor->remaining -= n;
        wanted -= n;
    }
    return 1;
}

int16_t ksBlobReadByte(ksBlobCursor* cursor, uint8_t* byte)
{
    if (reading(cursor) && cursor->available != 0) {
        *byte = cursor->buffer[cursor->offset++];
        --cursor->available;
        --cursor->remaining;
        return 1;
    }
    return ksBlobRead(cursor, byte, 1);
}

int16_t ksBlobUnreadByte(ksBlobCursor* cursor, uint8_t byte)
{
    if (!reading(cursor) || cursor->offset == 0)
        return 0;
    cursor->buffer[--cursor->offset] = byte;
    ++cursor->available;
    ++cursor->remaining;
    return 1;
}

int16_t ksBlobReadText(ksBlobCursor* cursor, char* buffer, uint16_t limit)
{
    int16_t length = 0;
    if (!readLE(cursor, &length))
        return 0;
    if (length < 0 || length > limit) {
        if (ksG == nullptr || ksG->errorHandler == nullptr || length < 0)
            return 0;
        ksG->errorHandler(5);
        // Go on as asked: keep what fits, step over the rest.
        if (!ksBlobRead(cursor, buffer, limit))
            return 0;
        buffer[limit] = '\0';
        return ksBlobSeek(cursor, ksBlobTell(cursor) + (length - limit));
    }
    if (!ksBlobRead(cursor, buffer, static_cast<uint16_t>(length)))
        return 0;
    buffer[length] = '\0';
    return 1;
}

int16_t ksBlobReadHandle(ksBlobCursor* cursor, ksObjHandle* handle)
{
    if (cursor == nullptr) {
        ksSetError(162);
        return 0;
    }
    return ksBlobRead(cursor, handle->bytes, sizeof handle->bytes);
}

int16_t ksBlobReadInt16(ksBlobCursor* cursor, int16_t* value) { return readLE(cursor, value); }
int16_t ksBlobReadInt32(ksBlobCursor* cursor, int32_t* value) { return readLE(cursor, value); }
int16_t ksBlobReadReal(ksBlobCursor* cursor, double* value) { return readLE(cursor, value); }

int16_t ksBlobReadPoint(ksBlobCursor* cursor, ksPoint3* value)
{
    *value = ksPoint3{};
    uint8_t bytes[24];
    if (!ksBlobRead(cursor, bytes, sizeof bytes))
        return 0;
    double xyz[3];
    for (int i = 0; i < 3; ++i) {
        if constexpr (std::endian::native == std::endian::big)
            std::reverse(bytes + 8 * i, bytes + 8 * i + 8);
        std::memcpy(&xyz[i], bytes + 8 * i, 8);
    }
    *value = {xyz[0], xyz[1], xyz[2]};
    return 1;
}

int16_t ksBlobSeek(ksBlobCursor* cursor, uint32_t position)
{
    if (!reading(cursor) || position > cursor->size)
        return 0;
    uint32_t index = position / ksBlobChunkSize;
    uint32_t within = position % ksBlobChunkSize;
    if (cursor->loadedIndex != index) {
        // Walk forward from the loaded chunk when the target lies ahead,
        // otherwise from the first.
        ksLoc chunk;
        uint32_t at;
        if (cursor->loadedIndex != kNoChunk && index > cursor->loadedIndex) {
            chunk = cursor->nextChunk;
            at = cursor->loadedIndex + 1;
        } else {
            chunk = ksListFirst(cursor->chunks);
            at = 0;
        }
        for (; at < index && chunk != 0; ++at)
            chunk = ksListNodeNext(chunk);
        cursor->offset = 0;
        cursor->available = 0;
        cursor->loadedIndex = kNoChunk;
        cursor->nextChunk = chunk;
        cursor->remaining = cursor->size - index * ksBlobChunkSize;
        if (chunk == 0) {  // a position at the very end, behind the last full chunk
            cursor->remaining = 0;
            return position == cursor->size;
        }
        loadChunk(cursor);
        cursor->loadedIndex = index;
    }
    uint32_t chunkLength = std::min(ksBlobChunkSize, cursor->size - index * ksBlobChunkSize);
    cursor->offset = static_cast<uint16_t>(within);
    cursor->available = static_cast<uint16_t>(chunkLength - within);
    cursor->remaining = cursor->size - position;
    return 1;
}

uint32_t ksBlobTell(const ksBlobCursor* cursor) { return cursor ? cursor->size - cursor->remaining : 0; }

void ksBlobRewind(ksBlobCursor* cursor)
{
    if (cursor == nullptr)
        return;
    cursor->remaining = cursor->size;
    cursor->offset = cursor->available = cursor->writing = 0;
    cursor->nextChunk = ksListFirst(cursor->chunks);
    cursor->loadedIndex = kNoChunk;
}

uint32_t ksBlobLength(const ksBlobCursor* cursor)
{
    if (cursor == nullptr)
        return 0;
    return cursor->size + (cursor->writing ? cursor->offset : 0);
}

int16_t ksBlobPatch(ksLoc blob, uint32_t position, const void* bytes, uint16_t length)
{
    ksBlob* b = desc(blob);
    if (b == nullptr || position > b->size || length > b->size - position)
        return 0;
    ksLoc chunk = ksListFirst(b->chunks);
    for (; position >= ksBlobChunkSize && chunk != 0; position -= ksBlobChunkSize)
        chunk = ksListNodeNext(chunk);
    auto* from = static_cast<const uint8_t*>(bytes);
    uint32_t left = length;
    while (left > 0 && chunk != 0) {
        uint32_t n = std::min(left, ksBlobChunkSize - position);
        std::memcpy(payload(chunk) + position, from, n);
        from += n;
        left -= n;
        position = 0;
        chunk = ksListNodeNext(chunk);
    }
    return left == 0;
}
