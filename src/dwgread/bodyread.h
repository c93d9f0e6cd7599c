// What the readers of entity and object bodies share: the entity being
// read, bounds on counts taken from the stream, and blobs written as they
// are read.
#pragma once

#include <cstdint>
#include <cstring>

#include "dwgread/bitcodes.h"
#include "dwgread/dwgfile.h"
#include "records/entity.h"
#include "store/blob.h"

// One entity read: the reader stands behind the common data.
struct ksBodyRead {
    ksFcb* fcb;
    ksDwgState& st;
    ksBitReader& r;
    ksEntityHeader* header;
    ksEntityBody* body;  // room for any body, the class entities' too
    bool r2000;
    int16_t dwgType;     // the type code of the file (a class number from 500)
    ksLoc graphic;       // the graphic image; a class body that keeps it takes it and clears this
};

// A body reader: the data behind the common data, ksReadEntityHandles,
// then the body's own handles. False for data it refuses; a stream that
// runs out marks the reader bad, which the caller checks.
using ksBodyReader = bool (*)(ksBodyRead&);

// The bodies of the complex entities of the fixed types, by DWG type.
bool ksReadInsertBody(ksBodyRead& e);     // 7, 8
bool ksReadPolylineBody(ksBodyRead& e);   // 15, 16, 29, 30
bool ksReadVertexBody(ksBodyRead& e);     // 10 to 14
bool ksReadDimensionBody(ksBodyRead& e);  // 20 to 26
bool ksReadViewportBody(ksBodyRead& e);   // 34
bool ksReadSplineBody(ksBodyRead& e);     // 36
bool ksReadModelerBody(ksBodyRead& e);    // 37, 38, 39
bool ksReadMtextBody(ksBodyRead& e);      // 44
bool ksReadLeaderBody(ksBodyRead& e);     // 45
bool ksReadToleranceBody(ksBodyRead& e);  // 46
bool ksReadMlineBody(ksBodyRead& e);      // 47

// The body of an entity whose type is a class number (or 498): one of the
// decoded class forms, or the proxy that keeps its bits and references.
// The body is set up here for the form.
bool ksReadClassEntity(ksBodyRead& e);

// The thickness (BD, or BT in R2000) and extrusion (axis rule, or BE in
// R2000) into the header.
void ksReadEntityThickness(ksBodyRead& e);
void ksReadEntityExtrusion(ksBodyRead& e);

// ---- Bounds and blobs

// The fewest bits an item of a code takes in the stream.
inline constexpr unsigned ksBitsBD = 2;
inline constexpr unsigned ksBits3BD = 3 * ksBitsBD;
inline constexpr unsigned ksBits2RD = 128;

inline uint64_t ksBitsLeft(const ksBitReader& r) { return r.bitEnd > r.bitPos ? r.bitEnd - r.bitPos : 0; }

// Whether `count` items of at least `bitsEach` bits can still stand in the
// stream; a negative count never can. One that can't marks the stream bad,
// so that the record is not kept: a count is never trusted for an
// allocation or a loop beyond what the object's bits can hold.
inline bool ksCountFits(ksBitReader& r, int64_t count, unsigned bitsEach)
{
    if (count >= 0 && static_cast<uint64_t>(count) * bitsEach <= ksBitsLeft(r))
        return true;
    ksBitReaderFail(r);
    return false;
}

// A text of at most `limit` bytes into a char field of N bytes, cut to the
// field's room.
template <size_t N>
void ksReadTextField(ksBitReader& r, char (&field)[N], int32_t limit)
{
    char text[2049 + 1];
    ksReadText(r, text, limit < 2049 ? limit : 2049);
    const size_t n = strnlen(text, N - 1);
    std::memcpy(field, text, n);
    field[n] = '\0';
}

// A new blob with its write cursor. finish() closes it and gives the blob,
// or frees it and gives 0 when a write failed or `keep` is false. A blob
// never finished is freed when the ksBlobOut goes.
struct ksBlobOut {
    ksLoc blob = 0;
    ksBlobCursor* cursor = nullptr;
    bool ok = false;

    bool open()
    {
        blob = ksBlobNew();
        cursor = blob ? ksBlobOpenWrite(blob) : nullptr;
        ok = cursor != nullptr;
        if (!ok && blob) {
            ksBlobFree(blob);
            blob = 0;
        }
        return ok;
    }
    bool put(int16_t written)
    {
        ok = ok && written != 0;
        return ok;
    }
    ksLoc finish(bool keep = true)
    {
        if (cursor != nullptr && !ksBlobCloseWrite(cursor))
            ok = false;
        cursor = nullptr;
        const ksLoc result = ok && keep ? blob : 0;
        if (result == 0 && blob != 0)
            ksBlobFree(blob);
        blob = 0;
        return result;
    }
    ~ksBlobOut() { finish(false); }
    ksBlobOut() = default;
    ksBlobOut(const ksBlobOut&) = delete;
    ksBlobOut& operator=(const ksBlobOut&) = delete;
};

// Finishes a blob written as the stream was read: a write that failed, or
// a stream gone bad, marks the stream bad and gives 0.
inline ksLoc ksFinishBlob(ksBitReader& r, ksBlobOut& out)
{
    const ksLoc blob = out.finish(!r.bad);
    if (blob == 0)
        ksBitReaderFail(r);
    return blob;
}

// `count` raw bytes of the stream into a new blob, in pieces; 0 for a
// count of 0. The stream is marked bad when the bytes or the blob fail.
ksLoc ksReadRawBytes(ksBitReader& r, int32_t count);
