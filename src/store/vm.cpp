#include "store/vm.h"

#include <bit>
#include <cstring>

#include "driver/hooks.h"

namespace {

// Every block has an 8-byte header in front of its payload: its size class
// and a tag telling live from free. Payloads are 16-byte aligned.
struct BlockHeader {
    uint32_t sizeClass;
    uint32_t tag;
};
constexpr uint32_t kLiveTag = 0x4B534C56;  // "KSLV"
constexpr uint32_t kFreeTag = 0x4B534652;  // "KSFR"

// Size classes: 16-byte steps up to kSmallLimit, then powers of two up to
// ksVmMaxBlock.
constexpr uint32_t kSmallLimit = 4096 + 256;
constexpr uint32_t kSmallClasses = kSmallLimit / 16;
constexpr uint32_t kFirstLargeBits = 13;  // 8192
constexpr uint32_t kLargeClasses = 20 - kFirstLargeBits + 1;
constexpr uint32_t kClassCount = kSmallClasses + 1 + kLargeClasses;

constexpr uint32_t classOf(uint32_t size)
{
    if (size <= kSmallLimit)
        return (size + 15) / 16;
    uint32_t bits = std::bit_width(size - 1);
    return kSmallClasses + 1 + (bits - kFirstLargeBits);
}

constexpr uint32_t classSize(uint32_t sizeClass)
{
    if (sizeClass <= kSmallClasses)
        return sizeClass * 16;
    return 1u << (sizeClass - kSmallClasses - 1 + kFirstLargeBits);
}

static_assert(classOf(1) == 1 && classSize(1) == 16);
static_assert(classOf(kSmallLimit) == kSmallClasses && classSize(kSmallClasses) == kSmallLimit);
static_assert(classSize(classOf(kSmallLimit + 1)) == 8192);
static_assert(classSize(classOf(ksVmMaxBlock)) == ksVmMaxBlock);
static_assert(classOf(ksVmMaxBlock) < kClassCount);

struct Arena {
    uint8_t* chunks[ksVmMaxChunks];
    uint32_t chunkCount;
    uint32_t top;  // bytes handed out in the last chunk
    ksLoc freeHead[kClassCount];
    size_t bytesInUse;
};

Arena arena;

inline uint8_t* address(ksLoc location)
{
    return arena.chunks[location >> ksVmChunkBits] + (location & (ksVmChunkSize - 1));
}

// True when [location, location + count) lies in handed-out bytes.
inline bool inStore(ksLoc location, uint32_t count)
{
    uint32_t chunk = location >> ksVmChunkBits;
    uint32_t offset = location & (ksVmChunkSize - 1);
    if (location == 0 || chunk >= arena.chunkCount)
        return false;
    uint32_t limit = chunk + 1 == arena.chunkCount ? arena.top : ksVmChunkSize;
    return offset + count <= limit;
}

inline BlockHeader* headerOf(ksLoc location)
{
    return reinterpret_cast<BlockHeader*>(address(location) - sizeof(BlockHeader));
}

// A live block's header, or null when the location is none.
BlockHeader* liveHeader(ksLoc location)
{
    if (!inStore(location, 0) || (location & 15) != 0 || (location & (ksVmChunkSize - 1)) < 16)
        return nullptr;
    BlockHeader* h = headerOf(location);
    return h->tag == kLiveTag ? h : nullptr;
}

}  // namespace

ksLoc ksVmAlloc(uint32_t size)
{
    if (size > ksVmMaxBlock)
        return 0;
    uint32_t sizeClass = classOf(size == 0 ? 1 : size);
    uint32_t payload = classSize(sizeClass);
    ksLoc location = arena.freeHead[sizeClass];
    if (location != 0) {
        std::memcpy(&arena.freeHead[sizeClass], address(location), sizeof(ksLoc));
    } else {
        // Header and payload together keep the next payload 16-byte aligned.
        uint32_t need = payload + 16;
        if (arena.chunkCount == 0 || arena.top + need > ksVmChunkSize) {
            if (arena.chunkCount == ksVmMaxChunks)
                return 0;
            auto* chunk = static_cast<uint8_t*>(ksMemAlloc(ksVmChunkSize));
            if (chunk == nullptr)
                return 0;
            arena.chunks[arena.chunkCount++] = chunk;
            arena.top = 0;  // the first payload sits at 16: location 0 stays unused
        }
        location = ((arena.chunkCount - 1) << ksVmChunkBits) | (arena.top + 16);
        arena.top += need;
    }
    BlockHeader* h = headerOf(location);
    h->sizeClass = sizeClass;
    h->tag = kLiveTag;
    arena.bytesInUse += payload;
    return location;
}

int16_t ksVmFree(ksLoc location)
{
    if (location == 0)
        return 1;
    BlockHeader* h = liveHeader(location);
    if (h == nullptr)
        return 0;
    h->tag = kFreeTag;
    std::memcpy(address(location), &arena.freeHead[h->sizeClass], sizeof(ksLoc));
    arena.freeHead[h->sizeClass] = location;
    arena.bytesInUse -= classSize(h->sizeClass);
    return 1;
}

int16_t ksVmRead(void* destination, ksLoc source, uint16_t count)
{
    if (count == 0)
        return 1;
    if (!inStore(source, count))
        return 0;
    std::memcpy(destination, address(source), count);
    return 1;
}

int16_t ksVmWrite(ksLoc destination, const void* source, uint16_t count)
{
    if (count == 0)
        return 1;
    if (!inStore(destination, count))
        return 0;
    std::memcpy(address(destination), source, count);
    return 1;
}

void* ksVmPtr(ksLoc location) { return inStore(location, 0) ? address(location) : nullptr; }

uint32_t ksVmBlockSize(ksLoc location)
{
    BlockHeader* h = liveHeader(location);
    return h ? classSize(h->sizeClass) : 0;
}

void ksVmRelease()
{
    for (uint32_t i = 0; i < arena.chunkCount; ++i)
        ksMemFree(arena.chunks[i]);
    std::memset(&arena, 0, sizeof arena);
}

size_t ksVmBytesInUse() { return arena.bytesInUse; }
