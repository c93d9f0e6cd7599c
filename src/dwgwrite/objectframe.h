// The frame of every object of an R13 to R2000 DWG file, as written.
//
// In the file an object is
//
//   size     RS; above 32767 two RS: (size % 32768) + 32768, size / 32768
//   data     `size` bytes of bit stream:
//              BS type, (R2000) RL bit size, H own handle, extended data,
//              (an entity) graphic image flag and image, (R13/R14) RL bit
//              size, then the body: its data fields, then its handles
//   CRC      RS, seed ksCrcSeed, over the size words and the data
//
// The bit size counts the bits from the first data bit to the start of the
// handle stream. It is known only once the body is written, so
// ksBeginObject reserves it as 32 zero bits and ksEndObject fills it in on
// the way out.
//
// Calling order for one object: ksBeginObject, the data fields,
// ksMarkHandles, the handle references, ksEndObject. The writer's buffer is
// reused by the next ksBeginObject; nothing may be kept in it across one.
#pragma once

#include <cstdint>
#include <vector>

#include "dwgread/bitcodes.h"
#include "store/vm.h"

// Where framed objects go: `write` takes `count` bytes (at most 65535 at a
// time) and returns 1, or 0 when it couldn't (the object is then lost).
// A file writer implements it over its output stream.
struct ksByteSink {
    int16_t (*write)(void* context, const uint8_t* data, uint32_t count);
    void* context;
};

// A sink that appends to a vector, which must outlive it.
ksByteSink ksVectorSink(std::vector<uint8_t>& out);

// Opens an object in `w` for the release in w.version (set once by
// ksResetBits) and writes its frame: type, the R2000 bit size placeholder,
// the own handle with handleCode (0 for every object of a file), the
// extended data of xdataBlob (0: none), for an entity the graphic image of
// graphicBlob (0: none), and the R13/R14 placeholder. w.startFilePos,
// set by the caller, is kept. 1, or -1 when the buffer couldn't grow or a
// blob couldn't be read.
int16_t ksBeginObject(ksBitWriter& w, int16_t type, const ksObjHandle& handle, uint8_t handleCode, ksLoc xdataBlob,
                      ksLoc graphicBlob, bool isEntity);

// Extended data from a blob of items: runs of BS byte count, the
// application's handle (code 5), the coded items; BS 0 ends them. An item
// 1001 starts the next run with its handle. A null blob writes BS 0 alone.
// The items are coded in the toolkit's extended-data write buffer.
int16_t ksWriteEed(ksBitWriter& w, ksLoc xdataBlob);

// A graphic image from its blob (an 8-byte head, then records that each
// start with a 4-byte length counting itself): RL blob size, then the blob
// with its head written afresh as RL blob size and RL record count.
int16_t ksWriteGraphic(ksBitWriter& w, ksLoc graphicBlob);

// Notes the start of the handle stream: the bits written so far.
void ksMarkHandles(ksBitWriter& w);

// Fills the bit size placeholder with the marked count and hands the
// framed object to `sink`: size words, the data in chunks (the first
// chunk takes the size, or (size % 32768) + 32768 above 32767, each
// further one 32768 bytes) and the CRC, low byte first. 1, or 0 when the
// writer failed, the object is too large for its frame (error 146), or the
// sink refused.
int16_t ksEndObject(ksBitWriter& w, const ksByteSink& sink);
