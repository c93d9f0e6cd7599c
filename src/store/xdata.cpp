#include "store/xdata.h"

#include <algorithm>
#include <bit>
#include <cstddef>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"

namespace {

constexpr int32_t kNoFixedLength = -1;
constexpr int32_t kHeadSize = 8;
constexpr int32_t kMaxText = ksXdataValueSize - 1;  // room for the end mark
constexpr int32_t kMaxFileText = 255;               // one length byte in every file coding

// The three codings of extended data in the files.
enum class Coding { dxf, oldDwg, runs };

Coding codingOf(const ksFcb* fcb)
{
    if (fcb->isDxf)
        return Coding::dxf;
    return fcb->fileVersion >= ksAC1012 ? Coding::runs : Coding::oldDwg;
}

// The value's size in the blob for codes that have one.
int32_t fixedLength(int16_t code)
{
    switch (code) {
    case 1001: case 1003: case 1005: return 8;
    case 1002: return 1;
    case 1010: case 1011: case 1012: case 1013: return 24;
    case 1040: case 1041: case 1042: return 8;
    case 1070: return 2;
    case 1071: return 4;
    default: return kNoFixedLength;
    }
}

bool isKnown(int16_t code) { return code == 1000 || code == 1004 || fixedLength(code) != kNoFixedLength; }

// Turns the numbers of a value between host order and little-endian, in
// place; the same step goes both ways.
void swapNumbers(int16_t code, uint8_t* value)
{
    if constexpr (std::endian::native == std::endian::big) {
        int width = 8, count = 1;
        if (code >= 1010 && code <= 1013)
            count = 3;
        else if (code == 1070)
            width = 2;
        else if (code == 1071)
            width = 4;
        else if (code < 1040 || code > 1042)
            return;
        for (int i = 0; i < count; ++i)
            std::reverse(value + i * width, value + (i + 1) * width);
    } else {
        (void)code;
        (void)value;
    }
}

bool hasNumbers(int16_t code) { return (code >= 1010 && code <= 1013) || (code >= 1040 && code <= 1042) || code == 1070 || code == 1071; }

// The value's size in the blob, or kNoFixedLength when the item can't be
// stored (a 1000 without an end mark, a length out of range).
int32_t blobLength(const ksXdataItem& item)
{
    if (item.code == 1000) {
        size_t n = strnlen(reinterpret_cast<const char*>(item.value), ksXdataValueSize);
        return n > static_cast<size_t>(kMaxText) ? kNoFixedLength : static_cast<int32_t>(n);
    }
    int32_t fixed = fixedLength(item.code);
    if (fixed != kNoFixedLength)
        return fixed;
    return item.length >= 0 && item.length <= ksXdataValueSize ? item.length : kNoFixedLength;
}

inline uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
inline void putLe16(uint8_t* p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
inline void putLe32(uint8_t* p, uint32_t v)
{
    putLe16(p, v);
    putLe16(p + 2, v >> 16);
}
inline uint32_t le32(const uint8_t* p) { return le16(p) | static_cast<uint32_t>(le16(p + 2)) << 16; }

void putHandle(ksXdataItem* item, const ksObjHandle& handle) { std::memcpy(item->value, handle.bytes, 8); }

// ---- Raw items ------------------------------------------------------------

// The bytes one item may take: `at` moves on as they are taken.
struct Bytes {
    const uint8_t* at;
    int32_t left;
    bool take(void* out, int32_t n)
    {
        if (n < 0 || n > left)
            return false;
        std::memcpy(out, at, static_cast<size_t>(n));
        at += n;
        left -= n;
        return true;
    }
    bool skip(int32_t n)
    {
        if (n < 0 || n > left)
            return false;
        at += n;
        left -= n;
        return true;
    }
};

enum class Decoded { item, skipped, bad };

// A length byte and that many bytes of text, into `text` (at least 256
// bytes) with an end mark.
bool takeText(Bytes& in, char* text)
{
    uint8_t n = 0;
    if (!in.take(&n, 1) || !in.take(text, n))
        return false;
    text[n] = 0;
    return true;
}

bool takeIndex(Bytes& in, int16_t* index)
{
    uint8_t b[2];
    if (!in.take(b, 2))
        return false;
    *index = static_cast<int16_t>(le16(b));
    return true;
}

// One item from `in`, in the given coding.
Decoded decodeItem(Coding coding, Bytes& in, ksXdataItem* item)
{
    uint8_t codeByte = 0;
    if (!in.take(&codeByte, 1))
        return Decoded::bad;
    const int16_t code = static_cast<int16_t>(static_cast<int8_t>(codeByte) + 1000);
    ksGlobals* g = ksG;
    uint8_t* v = item->value;
    int16_t length = 0;
    switch (code) {
    case 1000: {
        uint8_t n = 0;
        if (!in.take(&n, 1) || (coding == Coding::runs && !in.skip(2)) || !in.take(v, n))
            return Decoded::bad;
        v[n] = 0;
        break;
    }
    case 1001:
    case 1003: {
        const bool app = code == 1001;
        if (coding == Coding::dxf) {
            char* name = app ? g->xdataAppName : g->xdataLayerName;
            if (!takeText(in, name))
                return Decoded::bad;
            std::memcpy(v, name, std::strlen(name) + 1);
        } else if (coding == Coding::oldDwg) {
            int16_t* index = app ? &g->xdataAppIndex : &g->xdataLayerIndex;
            if (!takeIndex(in, index))
                return Decoded::bad;
            std::memcpy(v, index, sizeof *index);
        } else if (app || !in.take(v, 8)) {  // in runs a 1001 stands only at a run's head
            return Decoded::bad;
        }
        break;
    }
    case 1002: {
        uint8_t b = 0;
        if (!in.take(&b, 1))
            return Decoded::bad;
        v[0] = b == 0 ? '{' : '}';
        v[1] = 0;
        break;
    }
    case 1004: {
        uint8_t n = 0;
        if (!in.take(&n, 1) || !in.take(v, n))
            return Decoded::bad;
        length = n;
        break;
    }
    default: {
        int32_t fixed = fixedLength(code);
        if (fixed == kNoFixedLength)
            return coding == Coding::dxf ? Decoded::skipped : Decoded::bad;
        if (!in.take(v, fixed))
            return Decoded::bad;
        swapNumbers(code, v);
        break;
    }
    }
    item->code = code;
    item->length = length;
    return Decoded::item;
}

// Ends the raw data: every later call gives 0.
void endRaw(ksGlobals* g)
{
    int32_t end = std::clamp<int32_t>(g->xdataSourceEnd, 0, ksXdataBufferSize);
    g->xdataSource = g->xdataReadBuffer + end;
    g->xdataSourceLeft = 0;
}

// ---- Pending references ---------------------------------------------------

// An entry: kind (1 byte, 3 unused), the blob (32 bits), the value's
// position in it (32 bits: a record's blob can pass 64 KB, as a 1002 of
// 2 raw bytes takes 9 in the blob), then the file's reference: a name
// (16-bit length and bytes), a 16-bit index, or 8 handle bytes.
constexpr int32_t kEntryHead = 12;
constexpr int32_t kMaxReference = 2 + kMaxFileText;
enum : uint8_t { kKindApp = 0, kKindLayer = 1 };

struct Entry {
    uint8_t kind;
    ksLoc blob;
    uint32_t position;
    uint8_t reference[kMaxReference + 1];  // a name gets an end mark
    int32_t referenceLength;
};

bool openPending(ksFcb* fcb)
{
    if (fcb->pendingCursor != nullptr)
        return true;
    if (fcb->pendingXdata == 0) {
        if ((fcb->pendingXdata = ksBlobNew()) == 0)
            return false;
        fcb->pendingCount = 0;
        fcb->pendingCursor = ksBlobOpenWrite(fcb->pendingXdata);
    } else {
        fcb->pendingCursor = ksBlobOpenAppend(fcb->pendingXdata);
    }
    return fcb->pendingCursor != nullptr;
}

// The entry of the reference `item` (just decoded, so the globals hold its
// name or index) at `position` of `blob`.
bool addPending(ksFcb* fcb, Coding coding, const ksXdataItem& item, ksLoc blob, uint32_t position)
{
    if (!openPending(fcb))
        return false;
    const bool app = item.code == 1001;
    uint8_t entry[kEntryHead + kMaxReference] = {};
    entry[0] = app ? kKindApp : kKindLayer;
    putLe32(entry + 4, blob);
    putLe32(entry + 8, position);
    int32_t size = kEntryHead;
    if (coding == Coding::dxf) {
        const char* name = app ? ksG->xdataAppName : ksG->xdataLayerName;
        size_t n = strnlen(name, kMaxFileText);
        putLe16(entry + size, static_cast<uint32_t>(n));
        std::memcpy(entry + size + 2, name, n);
        size += 2 + static_cast<int32_t>(n);
    } else if (coding == Coding::oldDwg) {
        putLe16(entry + size, static_cast<uint16_t>(app ? ksG->xdataAppIndex : ksG->xdataLayerIndex));
        size += 2;
    } else {
        std::memcpy(entry + size, item.value, 8);
        size += 8;
    }
    if (!ksBlobWrite(fcb->pendingCursor, entry, static_cast<uint16_t>(size)))
        return false;
    ++fcb->pendingCount;
    return true;
}

bool readEntry(ksBlobCursor* cursor, Coding coding, Entry* e)
{
    uint8_t head[kEntryHead];
    if (!ksBlobRead(cursor, head, kEntryHead))
        return false;
    e->kind = head[0];
    e->blob = le32(head + 4);
    e->position = le32(head + 8);
    if (coding == Coding::dxf) {
        uint8_t b[2];
        if (!ksBlobRead(cursor, b, 2))
            return false;
        e->referenceLength = le16(b);
        if (e->referenceLength > kMaxFileText ||
            !ksBlobRead(cursor, e->reference, static_cast<uint16_t>(e->referenceLength)))
            return false;
        e->reference[e->referenceLength] = 0;
    } else {
        e->referenceLength = coding == Coding::runs ? 8 : 2;
        if (!ksBlobRead(cursor, e->reference, static_cast<uint16_t>(e->referenceLength)))
            return false;
    }
    return e->kind == kKindApp || e->kind == kKindLayer;
}

// The handle of the record that an entry names, or the null handle.
ksObjHandle lookUp(ksFcb* fcb, Coding coding, const Entry& e)
{
    const ksTableList table = e.kind == kKindApp ? ksListRegApps : ksListLayers;
    const ksTableListInfo& t = ksTableLists[table];
    const ksLoc list = fcb->*t.list;
    ksObjHandle found{};
    if (coding == Coding::dxf) {
        ksTableFind(fcb, table, reinterpret_cast<const char*>(e.reference), &found);
    } else if (coding == Coding::oldDwg) {
        // Index i is the list's (i + 1)-th record.
        ksLoc node = ksListFirst(list);
        for (uint32_t i = le16(e.reference); i > 0 && node != 0; --i)
            node = ksListNodeNext(node);
        if (node != 0)
            std::memcpy(&found, static_cast<const uint8_t*>(ksRecordOf(node)) + t.handleOffset, sizeof found);
    } else {
        // The index finds the record of a handle; it counts only when it
        // stands in this table's list.
        ksObjHandle handle;
        std::memcpy(handle.bytes, e.reference, 8);
        ksLoc node = ksHandleIsNull(handle) ? 0 : ksBtreeFind(fcb, handle);
        if (node != 0 && ksListNodeOwner(node) == list)
            found = handle;
    }
    return found;
}

}  // namespace

// ---- Blob form ------------------------------------------------------------

int16_t ksXdataWrite(ksBlobCursor* cursor, ksXdataItem* item)
{
    if (cursor == nullptr || item == nullptr)
        return 0;
    const int32_t length = blobLength(*item);
    if (length == kNoFixedLength)
        return 0;
    item->length = static_cast<int16_t>(length);
    uint8_t head[kHeadSize] = {};
    putLe16(head, static_cast<uint16_t>(item->code));
    putLe16(head + 2, static_cast<uint16_t>(length));
    if (!ksBlobWrite(cursor, head, kHeadSize))
        return 0;
    if (hasNumbers(item->code)) {
        uint8_t numbers[24];
        std::memcpy(numbers, item->value, static_cast<size_t>(length));
        swapNumbers(item->code, numbers);
        return ksBlobWrite(cursor, numbers, static_cast<uint16_t>(length));
    }
    return ksBlobWrite(cursor, item->value, static_cast<uint16_t>(length));
}

int16_t ksXdataRead(ksBlobCursor* cursor, ksXdataItem* item)
{
    if (cursor == nullptr || item == nullptr)
        return 0;
    const uint32_t start = ksBlobTell(cursor);
    uint8_t head[kHeadSize];
    if (!ksBlobRead(cursor, head, kHeadSize))
        return 0;
    const auto code = static_cast<int16_t>(le16(head));
    const auto length = static_cast<int16_t>(le16(head + 2));
    const int32_t fixed = fixedLength(code);
    bool fits = fixed != kNoFixedLength ? length == fixed
                                        : length >= 0 && length <= (code == 1000 ? kMaxText : ksXdataValueSize);
    fits = fits && static_cast<uint32_t>(length) <= cursor->remaining;
    // A read of 0 bytes at the blob's very end is refused by the blob, so
    // an empty value isn't read at all.
    if (!fits || (length > 0 && !ksBlobRead(cursor, item->value, static_cast<uint16_t>(length)))) {
        ksBlobSeek(cursor, start);
        return 0;
    }
    swapNumbers(code, item->value);
    item->code = code;
    item->length = code == 1004 || !isKnown(code) ? length : 0;
    if (code == 1000 || code == 1002)
        item->value[length] = 0;
    return 1;
}

// ---- Raw items ------------------------------------------------------------

int16_t ksXdataBeginRaw(ksFcb* fcb, int32_t length)
{
    ksGlobals* g = ksG;
    if (g == nullptr || fcb == nullptr)
        return 0;
    const bool fits = length >= 0 && length <= static_cast<int32_t>(ksXdataBufferSize);
    g->xdataSourceEnd = fits ? length : 0;
    g->xdataSource = g->xdataReadBuffer;
    g->xdataSourceLeft = codingOf(fcb) == Coding::runs ? 0 : g->xdataSourceEnd;
    return fits;
}

int16_t ksXdataNextRaw(ksFcb* fcb, ksXdataItem* item)
{
    ksGlobals* g = ksG;
    if (g == nullptr || fcb == nullptr || item == nullptr || g->xdataReadBuffer == nullptr || g->xdataSource == nullptr)
        return 0;
    // Where the read position stands, all in integers: a position outside
    // the buffer's first xdataSourceEnd bytes reads nothing.
    const int32_t end = g->xdataSourceEnd;
    const auto base = reinterpret_cast<uintptr_t>(g->xdataReadBuffer);
    const auto at = reinterpret_cast<uintptr_t>(g->xdataSource);
    if (end < 0 || end > static_cast<int32_t>(ksXdataBufferSize) || at < base || at - base > static_cast<uintptr_t>(end))
        return 0;
    Bytes all{g->xdataSource, end - static_cast<int32_t>(at - base)};
    const Coding coding = codingOf(fcb);

    if (coding == Coding::runs && g->xdataSourceLeft == 0) {
        // A run's head: size, handle byte, handle bytes.
        uint8_t head[3];
        if (!all.take(head, 2) || le16(head) == 0 || !all.take(head + 2, 1)) {
            endRaw(g);
            return 0;
        }
        const int32_t size = le16(head);
        const int n = head[2] & 15;
        uint8_t handle[8] = {};
        if (n > 8 || !all.take(handle + 8 - n, n) || size > all.left) {
            endRaw(g);
            return 0;
        }
        item->code = 1001;
        item->length = 0;
        std::memcpy(item->value, handle, 8);
        g->xdataSource = all.at;
        g->xdataSourceLeft = size;
        return 1;
    }

    if (coding == Coding::runs) {
        if (g->xdataSourceLeft < 0 || g->xdataSourceLeft > all.left) {
            endRaw(g);
            return 0;
        }
        all.left = g->xdataSourceLeft;
    }
    for (;;) {
        const Decoded d = decodeItem(coding, all, item);
        if (d == Decoded::bad) {
            endRaw(g);
            return 0;
        }
        g->xdataSource = all.at;
        g->xdataSourceLeft = all.left;  // the run's rest, or the data's
        if (d == Decoded::item)
            return 1;
    }
}

// ---- Resolution -----------------------------------------------------------

int16_t ksXdataResolve(ksFcb* fcb, ksLoc* blobOut)
{
    if (blobOut != nullptr)
        *blobOut = 0;
    if (fcb == nullptr || blobOut == nullptr || ksG == nullptr)
        return 0;
    const Coding coding = codingOf(fcb);
    ksLoc blob = ksBlobNew();
    if (blob == 0)
        return 0;
    ksBlobCursor* cursor = ksBlobOpenWrite(blob);
    if (cursor == nullptr) {
        ksBlobFree(blob);
        return 0;
    }
    ksXdataItem item;

    // First the items, so that a failure leaves no pending entry behind
    // that names the blob about to be freed. A reference's value holds the
    // null handle until the pending pass; from DWG R13 up it holds the
    // file's handle already.
    bool ok = true;
    int32_t references = 0;
    ksXdataBeginRaw(fcb, ksG->xdataSourceEnd);
    while (ok && ksXdataNextRaw(fcb, &item)) {
        if (item.code == 1001 || item.code == 1003) {
            ++references;
            if (coding != Coding::runs)
                putHandle(&item, ksObjHandle{});
        }
        ok = ksXdataWrite(cursor, &item);
    }
    ok = ksBlobCloseWrite(cursor) && ok;
    if (!ok) {
        ksBlobFree(blob);
        return 0;
    }

    // Then the references, again through the raw items, with the place of
    // each value in the blob.
    uint32_t position = 0;
    ksXdataBeginRaw(fcb, ksG->xdataSourceEnd);
    while (references > 0 && ksXdataNextRaw(fcb, &item)) {
        if (item.code == 1001 || item.code == 1003) {
            if (!addPending(fcb, coding, item, blob, position + kHeadSize)) {
                // Entries of this blob may stand in the list already, so
                // it must stay alive; the store takes it back at shutdown.
                return 0;
            }
            --references;
        }
        position += kHeadSize + static_cast<uint32_t>(blobLength(item));
    }
    *blobOut = blob;
    ksG->errorNumber = 0;
    return 1;
}

void ksXdataFreePending(ksFcb* fcb)
{
    if (fcb == nullptr)
        return;
    if (fcb->pendingCursor != nullptr)
        ksBlobCloseWrite(fcb->pendingCursor);
    ksBlobFree(fcb->pendingXdata);
    fcb->pendingCursor = nullptr;
    fcb->pendingXdata = 0;
    fcb->pendingCount = 0;
}

int16_t ksXdataResolvePending(ksFcb* fcb)
{
    if (fcb == nullptr)
        return 0;
    if (fcb->pendingXdata == 0)
        return 1;
    if (fcb->pendingCursor != nullptr) {
        ksBlobCloseWrite(fcb->pendingCursor);
        fcb->pendingCursor = nullptr;
    }
    ksBlobCursor* cursor = ksBlobOpenRead(fcb->pendingXdata);
    if (cursor == nullptr) {
        ksXdataFreePending(fcb);
        return 0;
    }
    const Coding coding = codingOf(fcb);
    // References come in long runs of the same name; the last answer of
    // each kind is kept.
    Entry last[2] = {};
    ksObjHandle lastFound[2] = {};
    bool haveLast[2] = {};
    Entry e;
    for (int32_t i = 0; i < fcb->pendingCount && readEntry(cursor, coding, &e); ++i) {
        ksObjHandle found;
        bool same = haveLast[e.kind] && last[e.kind].referenceLength == e.referenceLength &&
                    std::memcmp(last[e.kind].reference, e.reference, static_cast<size_t>(e.referenceLength)) == 0;
        if (same) {
            found = lastFound[e.kind];
        } else {
            found = lookUp(fcb, coding, e);
            last[e.kind] = e;
            lastFound[e.kind] = found;
            haveLast[e.kind] = true;
        }
        ksBlobPatch(e.blob, e.position, found.bytes, sizeof found.bytes);
    }
    ksBlobCloseRead(cursor);
    ksXdataFreePending(fcb);
    ksG->errorNumber = 0;
    return 1;
}

// ---- Target coding --------------------------------------------------------

int16_t ksXdataEmit(ksFcb* /*target*/, int16_t version, bool dxf, const ksXdataItem* item)
{
    ksGlobals* g = ksG;
    if (g == nullptr || item == nullptr || g->xdataWriteBuffer == nullptr)
        return 0;
    const int32_t used = g->xdataWriteLength;
    if (used < 0 || used > static_cast<int32_t>(ksXdataBufferSize))
        return 0;
    const bool runs = !dxf && version >= ksAC1012;
    const bool byName = dxf;
    const bool byIndex = !dxf && !runs;
    const int16_t code = item->code;
    const uint8_t* v = item->value;

    // The coded item, built here first: at most a code byte, 3 bytes of
    // length and code page and 255 bytes.
    uint8_t out[4 + kMaxFileText];
    int32_t size = 0;
    out[size++] = static_cast<uint8_t>(code - 1000);
    auto text = [&](bool codePage) {
        const int32_t n = static_cast<int32_t>(strnlen(reinterpret_cast<const char*>(v), kMaxFileText));
        out[size++] = static_cast<uint8_t>(n);
        if (codePage) {
            out[size++] = 0;  // the length's high byte
            out[size++] = version == ksAC1012 ? 12 : 30;
        }
        std::memcpy(out + size, v, static_cast<size_t>(n));
        size += n;
    };
    switch (code) {
    case 1000:
        text(runs);
        break;
    case 1001:
    case 1003:
        if (byName) {
            text(false);
        } else if (byIndex) {
            std::memcpy(out + size, v, 2);
            swapNumbers(1070, out + size);
            size += 2;
        } else if (code == 1003) {
            std::memcpy(out + size, v, 8);
            size += 8;
        } else {
            return 0;  // an R13-up run carries its application at its head
        }
        break;
    case 1002:
        out[size++] = v[0] == '{' ? 0 : 1;
        break;
    case 1004:
        if (item->length < 0 || item->length > kMaxFileText)
            return 0;
        out[size++] = static_cast<uint8_t>(item->length);
        std::memcpy(out + size, v, static_cast<size_t>(item->length));
        size += item->length;
        break;
    default: {
        const int32_t fixed = fixedLength(code);
        if (fixed == kNoFixedLength)
            return 0;
        std::memcpy(out + size, v, static_cast<size_t>(fixed));
        swapNumbers(code, out + size);
        size += fixed;
        break;
    }
    }
    if (size > static_cast<int32_t>(ksXdataBufferSize) - used)
        return 0;
    std::memcpy(g->xdataWriteBuffer + used, out, static_cast<size_t>(size));
    g->xdataWriteLength = used + size;
    return 1;
}
