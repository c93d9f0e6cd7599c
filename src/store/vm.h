// The drawing store: the address space in which every record of every open
// drawing lives, known by a 32-bit location (0 is never a location).
//
// The store is an arena of fixed chunks taken from ksMemAlloc. A location is
// chunk index << ksVmChunkBits | offset, so a location plus a field offset
// addresses that field, and locations never need more than 32 bits on any
// platform. Freed blocks go to a free list by size class and are reused;
// chunks go back only when the toolkit shuts down.
//
// Limits, all checked: at most ksVmMaxChunks chunks (4 GiB of records), no
// block larger than ksVmMaxBlock, and no copy that runs past the bytes of
// its chunk that were ever handed out.
#pragma once

#include <cstddef>
#include <cstdint>

using ksLoc = uint32_t;

inline constexpr uint32_t ksVmChunkBits = 22;
inline constexpr uint32_t ksVmChunkSize = 1u << ksVmChunkBits;  // 4 MiB
inline constexpr uint32_t ksVmMaxChunks = 1u << (32 - ksVmChunkBits);
inline constexpr uint32_t ksVmMaxBlock = 1u << 20;

// A new block of at least size bytes (contents undefined), or 0.
ksLoc ksVmAlloc(uint32_t size);
// Frees a block; 0 is tolerated. 1, or 0 for a location that is no live block.
int16_t ksVmFree(ksLoc location);
// Copies count bytes out of or into the store. 1, or 0 when the range
// leaves the store.
int16_t ksVmRead(void* destination, ksLoc source, uint16_t count);
int16_t ksVmWrite(ksLoc destination, const void* source, uint16_t count);
// Direct address of a location, for the store's own structures (lists,
// index, blobs). Null for 0 or a location outside the store. Valid until
// the store is released: chunks never move.
void* ksVmPtr(ksLoc location);
// Usable size of a live block (its size class), 0 for none.
uint32_t ksVmBlockSize(ksLoc location);
// Frees every chunk; all locations become invalid. Called by ksShutdown.
void ksVmRelease();
// Bytes in live blocks, for tests and benchmarks.
size_t ksVmBytesInUse();
