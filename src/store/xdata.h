// Extended data: the typed items (groups 1000 to 1071) that a registered
// application attaches to a table record, an entity or an object.
//
// In the store a record's extended data is one blob of items in a single
// form, whatever file it came from. Each item is an 8-byte head (code,
// 16-bit; length, 16-bit; four bytes never read, written as zero) and then
// `length` bytes of value:
//
//   1000              the text's bytes, no end mark
//   1001, 1003, 1005  8 handle bytes, most significant first
//   1002              one byte, '{' or '}'
//   1004              `length` bytes
//   1010 to 1013      three reals (24 bytes)
//   1040 to 1042      one real
//   1070, 1071        16-bit, 32-bit integer
//
// Numbers stand little-endian in the blob, whatever the host.
//
// References (1001 the application, 1003 the layer) are handles in the
// store. The files name them (DXF), count them as table indices (DWG below
// R13) or give handles (DWG R13 up), so a load notes each reference in the
// drawing's pending list and patches the handles once all tables are in.
//
// The working record, ksXdataItem, holds the value in host order. Its
// `value` by code:
//
//   1000              the text and an end mark (at most 16383 bytes + NUL)
//   1001, 1003        in the store's form: the handle (8 bytes). In a file's
//                     form, as ksXdataNextRaw gives it and ksXdataEmit takes
//                     it: DXF a name with an end mark; DWG below R13 an
//                     int16 index; DWG R13 up the handle
//   1002              '{' or '}' and an end mark
//   1004              `length` bytes
//   1005              the handle (8 bytes, most significant first)
//   1010 to 1013      ksPoint3
//   1040 to 1042      double
//   1070              int16_t
//   1071              int32_t
//
// Numbers sit at the start of `value`, which has no alignment: go through
// the accessors below (or memcpy).
#pragma once

#include <cstdint>
#include <cstring>

#include "frame/kstypes.h"
#include "store/vm.h"

struct ksBlobCursor;
struct ksFcb;

inline constexpr int32_t ksXdataValueSize = 16384;

struct ksXdataItem {
    int16_t code;    // 1000 to 1071
    int16_t length;  // 1004 (and codes of no fixed size): the byte count
    uint8_t value[ksXdataValueSize];
};

// Blob form. ksXdataWrite sets `length` by the code (the text's length for
// 1000, as given for 1004 and unknown codes, at most ksXdataValueSize) and
// writes 8 + length bytes; 0 for a 1000 without an end mark, a bad length
// or a failed blob write. ksXdataRead gives 0 at the end of the blob with
// the item unchanged; so it does, with the cursor left on the item's head,
// for a head whose length doesn't fit its code or the bytes left. After a
// read `length` is the byte count for 1004 (and unknown codes), 0 for the
// others; a 1000 and a 1002 get an end mark.
int16_t ksXdataWrite(ksBlobCursor* cursor, ksXdataItem* item);
int16_t ksXdataRead(ksBlobCursor* cursor, ksXdataItem* item);

// The raw items of one record as a file reader left them in
// xdataReadBuffer: `length` bytes from its start. ksXdataBeginRaw sets the
// read position up for that (0, and an empty source, for a length beyond
// the buffer). ksXdataNextRaw hands out the items one by one in the
// coding of the drawing's file:
//   - DWG R13 up: runs, each a 16-bit size, a handle byte whose low four
//     bits count the handle bytes that follow, and `size` bytes of items;
//     a size of 0 ends the data. A run's head comes out as a 1001 with the
//     handle.
//   - DWG below R13 and DXF: the items one after another.
// Each item is a code byte (signed, plus 1000) and its value. A 1001 or
// 1003 by name or index leaves that also in xdataAppName / xdataAppIndex
// or xdataLayerName / xdataLayerIndex. The result is 0 at the end, and for
// anything that doesn't fit the bytes left (of the run or the data), which
// ends the data. An unknown code ends DWG data; in DXF data it stands alone
// (the DXF reader keeps the code byte of a group it drops) and is stepped
// over.
int16_t ksXdataBeginRaw(ksFcb* fcb, int32_t length);
int16_t ksXdataNextRaw(ksFcb* fcb, ksXdataItem* item);

// Turns the raw items (xdataSourceEnd bytes of xdataReadBuffer) into a new
// blob, and notes every 1001 and 1003 in the drawing's pending list. The
// value bytes of a reference hold the null handle until
// ksXdataResolvePending, except from DWG R13 up, where they hold the
// file's handle at once and the pending pass only confirms that it names a
// record of the right table. 1 with *blobOut, or 0 with *blobOut 0 and no
// entry left behind that names a freed blob.
int16_t ksXdataResolve(ksFcb* fcb, ksLoc* blobOut);

// Runs through the pending list: finds each reference's record (by name
// ignoring case for DXF, as the (index + 1)-th record for DWG below R13,
// by handle for DWG R13 up), among the layers for 1003 and the registered
// applications for 1001, and patches its handle, or the null handle, into
// the item. Frees the list. 0 only when the list can't be read.
int16_t ksXdataResolvePending(ksFcb* fcb);
// Drops the pending list unread (a failed load).
void ksXdataFreePending(ksFcb* fcb);

// Appends one item in a target's coding to xdataWriteBuffer at
// xdataWriteLength, which it advances. The code byte (code less 1000),
// then:
//   1000        a length byte and the text (cut to 255 bytes); for DWG of
//               R13 (version 5) the length as 16 bits and code page 12,
//               from R14 code page 30
//   1001        DXF: the name; DWG below R13: a 16-bit index. DWG R13 up
//               has no 1001 item (the run's head carries the handle): 0.
//   1002        0 for '{', 1 else
//   1003        DXF: the name; DWG below R13: a 16-bit index; DWG R13 up:
//               the handle
//   1004        a length byte and the bytes (0 for more than 255)
//   1005        8 handle bytes; 1010-1013, 1040-1042, 1070, 1071 the
//               numbers, lowest byte first
// 1001 and 1003 take `value` in the file's form (see above): the caller
// puts the name or index there after looking the handle up. 0 and
// nothing written for an unknown code or when the item doesn't fit in
// the buffer's ksXdataValueSize bytes. `target` is the drawing being
// written; the coding needs only `version` and `dxf`.
int16_t ksXdataEmit(ksFcb* target, int16_t version, bool dxf, const ksXdataItem* item);

// Accessors of `value` in host order.
inline void ksXdataSetText(ksXdataItem* item, int16_t code, const char* text)
{
    size_t n = std::strlen(text);
    if (n > ksXdataValueSize - 1)
        n = ksXdataValueSize - 1;
    item->code = code;
    item->length = 0;
    std::memcpy(item->value, text, n);
    item->value[n] = 0;
}
inline void ksXdataSetBytes(ksXdataItem* item, const void* bytes, int16_t length)
{
    item->code = 1004;
    item->length = length < 0 ? 0 : length > ksXdataValueSize ? ksXdataValueSize : length;
    std::memcpy(item->value, bytes, static_cast<size_t>(item->length));
}
template <typename T>
inline void ksXdataSet(ksXdataItem* item, int16_t code, const T& value)
{
    static_assert(sizeof(T) <= 24);
    item->code = code;
    item->length = 0;
    std::memcpy(item->value, &value, sizeof value);
}
template <typename T>
inline T ksXdataGet(const ksXdataItem& item)
{
    static_assert(sizeof(T) <= 24);
    T value;
    std::memcpy(&value, item.value, sizeof value);
    return value;
}
inline const char* ksXdataText(const ksXdataItem& item) { return reinterpret_cast<const char*>(item.value); }
