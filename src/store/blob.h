// Blobs: growable byte streams in the store, kept as a list of chunks of
// ksBlobChunkSize bytes (the last one holds the rest). All variable-length
// content of records lives in blobs. A blob is read and written through a
// cursor that buffers one chunk, so small reads and writes touch the store
// once per chunk; it has one open cursor at a time.
//
// Numbers are stored little-endian whatever the host: 16-bit, 32-bit,
// reals as IEEE 754 doubles, points as three reals, handles as their 8
// bytes, texts as a 16-bit length and the bytes without an end mark.
#pragma once

#include <cstdint>

#include "frame/kstypes.h"
#include "store/vm.h"

inline constexpr uint32_t ksBlobChunkSize = 4096;
inline constexpr uint32_t ksBlobMagic = 4728;

// The descriptor, in the store.
struct ksBlob {
    uint32_t magic;
    ksLoc chunks;  // list of chunks; 0 in a blob never written
    uint32_t size;
    uint32_t remaining;
    uint16_t writing;
    uint16_t offset;
    uint16_t available;
};

// A working cursor, in process memory.
struct ksBlobCursor {
    uint32_t magic;
    uint8_t* buffer;     // one chunk
    ksLoc chunks;
    ksLoc self;          // the descriptor
    uint32_t size;       // stored bytes; when writing, the bytes flushed
    uint32_t remaining;  // reading: bytes still to read
    uint16_t writing;
    uint16_t offset;     // position in buffer
    uint16_t available;  // reading: bytes of buffer not yet read
    ksLoc nextChunk;     // reading: the chunk the next load takes
    uint32_t loadedIndex;  // reading: index of the chunk in buffer, or kNoChunk
};

ksLoc ksBlobNew();               // 0 on failure
int16_t ksBlobFree(ksLoc blob);  // 0 for a null blob
uint32_t ksBlobSize(ksLoc blob);

// Cursors: null for a null blob, or with error 210 when there is no memory.
ksBlobCursor* ksBlobOpenWrite(ksLoc blob);   // from the start; drops what was stored
ksBlobCursor* ksBlobOpenAppend(ksLoc blob);  // behind the stored bytes
ksBlobCursor* ksBlobOpenRead(ksLoc blob);
int16_t ksBlobCloseWrite(ksBlobCursor* cursor);  // flushes; 0 if that fails (222)
int16_t ksBlobCloseRead(ksBlobCursor* cursor);   // 0 for a null cursor

int16_t ksBlobWrite(ksBlobCursor* cursor, const void* bytes, uint16_t length);
int16_t ksBlobWriteByte(ksBlobCursor* cursor, uint8_t byte);
int16_t ksBlobWriteText(ksBlobCursor* cursor, const char* text);
int16_t ksBlobWriteHandle(ksBlobCursor* cursor, const ksObjHandle& handle);  // 163 on a null cursor
int16_t ksBlobWriteInt16(ksBlobCursor* cursor, int16_t value);
int16_t ksBlobWriteInt32(ksBlobCursor* cursor, int32_t value);
int16_t ksBlobWriteReal(ksBlobCursor* cursor, double value);
int16_t ksBlobWritePoint(ksBlobCursor* cursor, const ksPoint3& value);

// Reads are all or nothing: with fewer than `length` bytes left (or none
// at all) the result is 0 and the cursor stays where it was.
int16_t ksBlobRead(ksBlobCursor* cursor, void* bytes, uint16_t length);
int16_t ksBlobReadByte(ksBlobCursor* cursor, uint8_t* byte);
int16_t ksBlobUnreadByte(ksBlobCursor* cursor, uint8_t byte);
// A text of at most `limit` bytes into a buffer of limit + 1. A longer one
// fails; where an errorHandler lets it go on (severity 5), it is read and
// cut to `limit`.
int16_t ksBlobReadText(ksBlobCursor* cursor, char* buffer, uint16_t limit);
int16_t ksBlobReadHandle(ksBlobCursor* cursor, ksObjHandle* handle);  // 162 on a null cursor
int16_t ksBlobReadInt16(ksBlobCursor* cursor, int16_t* value);
int16_t ksBlobReadInt32(ksBlobCursor* cursor, int32_t* value);
int16_t ksBlobReadReal(ksBlobCursor* cursor, double* value);
int16_t ksBlobReadPoint(ksBlobCursor* cursor, ksPoint3* value);

int16_t ksBlobSeek(ksBlobCursor* cursor, uint32_t position);  // 0 beyond the size
uint32_t ksBlobTell(const ksBlobCursor* cursor);
void ksBlobRewind(ksBlobCursor* cursor);
uint32_t ksBlobLength(const ksBlobCursor* cursor);
// Overwrites stored bytes without a cursor; it can't grow the blob.
int16_t ksBlobPatch(ksLoc blob, uint32_t position, const void* bytes, uint16_t length);
