// The non-graphic objects of an R13 to R2000 DWG file: the list of the
// objects that no earlier phase has read, the kind of each, and the bodies
// of dictionaries, groups, multiline styles and the object classes. An
// object of a class without a body of its own is kept raw: the bits of its
// data and the references behind its tail, so nothing of the file is lost.
//
// Every read works on the reader of ksOpenObject, which is bounded by the
// object: a read past it gives zeros and marks the stream bad. A count
// from the file is weighed against the bits that remain before anything is
// made for it, and an object whose stream went bad is not kept.
#include "dwgread/ops.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "dwgread/bitcodes.h"
#include "dwgread/bodyread.h"
#include "dwgread/dwgfile.h"
#include "frame/fcb.h"
#include "records/object.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"

namespace {

// Fixed object types of the stream.
constexpr int16_t kTypeDictionary = 42;
constexpr int16_t kTypeGroup = 72;
constexpr int16_t kTypeMlineStyle = 73;
constexpr int16_t kTypeXrecord2000 = 79;  // R2000 gives XRECORD a fixed type
constexpr int16_t kTypeProxyEntity = 498;
constexpr int16_t kTypeProxyObject = 499;

// Bytes a piece of raw object data is written to its blob in.
constexpr uint32_t kRawPiece = 512;

// The entity classes whose objects the entity chains read: an object of
// one of them that the chains did not reach is passed over here.
constexpr int16_t ksClassNumbers::*kChainedEntityClasses[] = {
    &ksClassNumbers::lwpolyline, &ksClassNumbers::image,          &ksClassNumbers::ole2frame,
    &ksClassNumbers::hatch,      &ksClassNumbers::arcAlignedText, &ksClassNumbers::wipeout,
    &ksClassNumbers::rtext,
};

// The multiline style flags that the stream holds with bits exchanged:
// (stored bit, bit of group 70). Bits not named here are not kept.
struct FlagBit {
    int16_t stored;
    int16_t dxf;
};
constexpr FlagBit kMlineFlagBits[] = {
    {0x001, 0x002}, {0x002, 0x001}, {0x010, 0x010}, {0x020, 0x040},
    {0x040, 0x020}, {0x100, 0x100}, {0x200, 0x400}, {0x400, 0x200},
};

using BlobOut = ksBlobOut;

bool countFits(ksBitReader& r, int64_t count, unsigned bitsEach) { return ksCountFits(r, count, bitsEach); }

// A text of at most `limit` bytes into a field of N bytes; a longer text
// than the field holds is cut to it.
template <size_t N>
void readText(ksBitReader& r, char (&field)[N], int32_t limit)
{
    char buffer[ksObjectTextSize + 1];
    limit = std::min<int32_t>(limit, ksObjectTextSize);
    ksReadText(r, buffer, limit);
    const size_t n = strnlen(buffer, N - 1);
    std::memcpy(field, buffer, n);
    field[n] = '\0';
}

ksLoc readRawBytes(ksBitReader& r, int32_t count) { return ksReadRawBytes(r, count); }

// count handles into a blob of 8-byte handles, 0 for none; a count the
// stream can't hold, or a blob that can't be made, marks it bad.
ksLoc readHandles(ksBitReader& r, int64_t count)
{
    if (!countFits(r, count, 8) || count == 0)
        return 0;
    const ksLoc blob = ksReadHandleBlob(r, static_cast<uint32_t>(count));
    if (blob == 0)
        ksBitReaderFail(r);
    return blob;
}

// Moves the reader to the handle stream. The data must not have run into
// it.
bool toHandles(ksBitReader& r)
{
    if (r.bitPos > r.bitSize) {
        ksBitReaderFail(r);
        return false;
    }
    return ksSeekHandleStream(r);
}

// The reactors that the frame counted, into the header.
void readReactors(ksBitReader& r, ksObjectHeader* header)
{
    header->reactorCount = static_cast<int32_t>(r.reactorCount);
    header->reactors = readHandles(r, r.reactorCount);
    if (r.bad)
        header->reactorCount = 0;
}

// The tail of an object, at the start of its handle stream: the owner,
// the reactors and the extension dictionary. The owner is kept for every
// object: DXF readers want it in group 330, and the writer can't derive it
// for objects that no dictionary lists.
bool readTail(ksBitReader& r, ksObjectHeader* header)
{
    if (!toHandles(r))
        return false;
    ksReadRelHandle(r, header->handle, &header->owner);
    readReactors(r, header);
    ksReadHandle(r, &header->xdict);
    return !r.bad;
}

bool readOwnerTail(ksBitReader& r, ksObjectHeader* header) { return readTail(r, header); }

// Opens the object at the position: its type, or 0 when it can't be read.
// R2000 stores XRECORD with a fixed type, which is the class's number here.
int16_t openObject(ksFcb* fcb, ksObjectHeader* header, int16_t* hasExtended)
{
    int16_t scratch = 0;
    int16_t type = ksOpenObject(fcb, &header->handle, hasExtended ? hasExtended : &scratch, false, nullptr);
    if (type == kTypeXrecord2000 && fcb->fileVersion >= ksAC1015)
        type = fcb->classNumbers.xrecord;
    return type;
}

// The kind the object list gives for a stored type; 0 for an object that
// is passed over.
int16_t kindOfType(const ksFcb* fcb, int16_t type)
{
    const bool r2000 = fcb->fileVersion >= ksAC1015;
    switch (type) {
    case kTypeDictionary:
        return ksKindDictionary;
    case kTypeMlineStyle:
        return ksKindMlineStyle;
    case kTypeGroup:
        return ksKindGroup;
    case kTypeXrecord2000:
        if (r2000)
            return fcb->classNumbers.xrecord;
        return 0;
    default:
        break;
    }
    // Entities, the proxy entity among them, are the chains' to read; one
    // that no chain reached can't be read as an object.
    if (type <= kTypeProxyEntity)
        return 0;
    for (auto field : kChainedEntityClasses) {
        if (fcb->classNumbers.*field == type)
            return 0;
    }
    if (type >= ksFirstClassNumber && ksObjectFormOf(fcb, type) == ksFormProxy) {
        ksClass record;
        if (ksClassFindNumber(fcb, type, &record) && record.itemClassId == kTypeProxyEntity)
            return 0;
    }
    return type;
}

// ---------------------------------------------------------------------------
// Class objects

bool readXrecord(ksFcb* fcb, ksBitReader& r, ksObjectHeader* header, ksXrecord* x)
{
    const int32_t size = ksReadBL(r);
    if (!countFits(r, size, 8) || size > INT32_MAX / 8)
        return false;
    // An empty record still has its (empty) data blob.
    if (size == 0) {
        BlobOut out;
        if (!out.open())
            return false;
        x->data = out.finish();
    } else {
        x->data = readRawBytes(r, size);
    }
    x->dataBits = size * 8;
    if (fcb->fileVersion >= ksAC1015)
        x->cloning = ksReadBS(r);
    return !r.bad && x->data != 0 && readTail(r, header);
}

bool readIdBuffer(ksBitReader& r, ksObjectHeader* header, ksIdBuffer* b)
{
    ksReadRC(r);
    const int32_t count = ksReadBL(r);
    if (!readTail(r, header))
        return false;
    b->handles = readHandles(r, count);
    b->handleCount = r.bad ? 0 : count;
    return !r.bad;
}

bool readDictionaryVar(ksBitReader& r, ksObjectHeader* header, ksDictionaryVar* v)
{
    v->schema = ksReadRC(r);
    readText(r, v->value, ksObjectShortTextSize);
    return !r.bad && readTail(r, header);
}

bool readImageDefReactor(ksBitReader& r, ksObjectHeader* header, ksImageDefReactor* d)
{
    d->classVersion = ksReadBL(r);
    if (!toHandles(r))
        return false;
    // The one handle is the image definition; no reactors and no extension
    // dictionary are taken.
    ksObjHandle image;
    ksReadRelHandle(r, header->handle, &image);
    if (r.bad)
        return false;
    BlobOut out;
    if (!out.open())
        return false;
    out.put(ksBlobWriteHandle(out.cursor, image));
    d->image = out.finish();
    return d->image != 0;
}

bool readImageDef(ksBitReader& r, ksObjectHeader* header, ksImageDef* d)
{
    d->classVersion = ksReadBL(r);
    ksRead2RD(r, &d->imageSize);
    readText(r, d->fileName, ksObjectTextSize);
    d->loaded = ksReadBit(r);
    d->resolutionUnits = ksReadRC(r);
    ksRead2RD(r, &d->pixelSize);
    return !r.bad && readTail(r, header);
}

bool readLayerIndex(ksBitReader& r, ksObjectHeader* header, ksLayerIndex* x)
{
    x->day = ksReadBL(r);
    x->milliseconds = ksReadBL(r);
    const int32_t count = ksReadBL(r);
    // Each entry: a BL and a text of at least two bits each, and a handle.
    if (!countFits(r, count, 12))
        return false;
    if (count > 0) {
        BlobOut out;
        if (!out.open())
            return false;
        for (int32_t i = 0; i < count && out.ok && !r.bad; ++i) {
            const int32_t indexCount = ksReadBL(r);
            char name[ksObjectShortTextSize];
            readText(r, name, ksObjectShortTextSize - 1);
            out.put(ksLayerIndexEntryWrite(out.cursor, indexCount, name));
        }
        x->names = out.finish(!r.bad);
        if (x->names == 0)
            return false;
    }
    x->entryCount = count;
    if (!readTail(r, header))
        return false;
    x->idBuffers = readHandles(r, count);
    return !r.bad;
}

bool readRasterVariables(ksBitReader& r, ksObjectHeader* header, ksRasterVariables* v)
{
    v->classVersion = ksReadBL(r);
    v->displayFrame = ksReadBS(r);
    v->displayQuality = ksReadBS(r);
    v->units = ksReadBS(r);
    return !r.bad && readTail(r, header);
}

bool readSortentsTable(ksBitReader& r, ksObjectHeader* header, ksSortentsTable* t)
{
    const int32_t count = ksReadBL(r);
    // A sort handle in the data and an entity handle behind the tail each.
    if (!countFits(r, count, 16))
        return false;
    t->sortHandles = readHandles(r, count);
    if (r.bad || !readTail(r, header))
        return false;
    ksReadHandle(r, &t->ownerBlock);
    t->entityHandles = readHandles(r, count);
    t->entryCount = count;
    return !r.bad;
}

void readMatrix(ksBitReader& r, double (&m)[4][3])
{
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 4; ++column)
            m[column][row] = ksReadBDValue(r);
}

bool readSpatialFilter(ksBitReader& r, ksObjectHeader* header, ksSpatialFilter* f)
{
    const int16_t count = ksReadBS(r);
    if (!countFits(r, count, 128))
        return false;
    if (count > 0) {
        BlobOut out;
        if (!out.open())
            return false;
        for (int16_t i = 0; i < count && out.ok; ++i) {
            ksPoint2 p;
            ksRead2RD(r, &p);
            out.put(ksPoint2Write(out.cursor, p));
        }
        f->points = out.finish(!r.bad);
        if (f->points == 0)
            return false;
    }
    f->pointCount = count;
    ksRead3BD(r, &f->normal);
    ksRead3BD(r, &f->origin);
    f->displayBoundary = ksReadBS(r);
    f->frontClipOn = ksReadBS(r);
    if (f->frontClipOn)
        f->frontClip = ksReadBDValue(r);
    f->backClipOn = ksReadBS(r);
    if (f->backClipOn)
        f->backClip = ksReadBDValue(r);
    readMatrix(r, f->inverseBlockTransform);
    readMatrix(r, f->clipTransform);
    return !r.bad && readTail(r, header);
}

bool readSpatialIndex(ksBitReader& r, ksObjectHeader* header, ksSpatialIndex* x)
{
    x->day = ksReadBL(r);
    x->milliseconds = ksReadBL(r);
    x->bits = ksCopyBits(r, &x->bitCount);
    return !r.bad && readTail(r, header);
}

bool readObjectPtr(ksBitReader& r, ksObjectHeader* header, ksObjectPtr* p)
{
    p->bits = ksCopyBits(r, &p->bitCount);
    return !r.bad && readTail(r, header);
}

// Item names in the data, item handles behind the tail: the names wait for
// their handles.
bool readEntries(ksBitReader& r, ksObjectHeader* header, int32_t count, int32_t nameLimit, ksLoc* entriesOut,
                 ksObjHandle* defaultOut)
{
    // A text of at least two bits and a handle each.
    if (!countFits(r, count, 10))
        return false;
    // The names one behind the other, each with its end mark.
    std::string names;
    for (int32_t i = 0; i < count && !r.bad; ++i) {
        char name[ksObjectTextSize];
        readText(r, name, nameLimit);
        names.append(name, strlen(name) + 1);
    }
    if (r.bad || !readTail(r, header))
        return false;
    if (count == 0) {
        if (defaultOut)
            ksReadHandle(r, defaultOut);
        return !r.bad;
    }
    BlobOut out;
    if (!out.open())
        return false;
    for (size_t at = 0; at < names.size();) {
        ksDictionaryEntry entry{};
        const size_t length = strlen(names.c_str() + at);
        std::memcpy(entry.name, names.c_str() + at, length + 1);
        at += length + 1;
        ksReadHandle(r, &entry.handle);
        out.put(ksDictionaryEntryWrite(out.cursor, entry));
    }
    if (defaultOut)
        ksReadHandle(r, defaultOut);
    *entriesOut = out.finish(!r.bad);
    return *entriesOut != 0;
}

bool readDictionaryWithDefault(ksBitReader& r, ksObjectHeader* header, ksDictionaryWithDefault* d)
{
    const int16_t count = ksReadBS(r);
    d->cloning = ksReadBS(r);
    ksReadRC(r);
    if (!readEntries(r, header, count, ksObjectTextSize, &d->entries, &d->defaultEntry))
        return false;
    d->entryCount = count;
    return true;
}

bool readVbaProject(ksBitReader& r, ksObjectHeader* header, ksVbaProject* v)
{
    const int32_t size = ksReadBL(r);
    v->data = readRawBytes(r, size);
    if (r.bad)
        return false;
    v->size = size;
    return readOwnerTail(r, header);
}

bool readWipeoutVariables(ksBitReader& r, ksObjectHeader* header, ksWipeoutVariables* v)
{
    v->displayFrame = ksReadBS(r);
    return !r.bad && readTail(r, header);
}

void readPlotSettings(ksBitReader& r, ksPlotSettings* s)
{
    readText(r, s->pageSetupName, ksObjectTextSize);
    readText(r, s->plotConfig, ksObjectTextSize);
    s->plotLayoutFlags = ksReadBS(r);
    s->leftMargin = ksReadBDValue(r);
    s->bottomMargin = ksReadBDValue(r);
    s->rightMargin = ksReadBDValue(r);
    s->topMargin = ksReadBDValue(r);
    s->paperWidth = ksReadBDValue(r);
    s->paperHeight = ksReadBDValue(r);
    readText(r, s->paperSize, ksObjectTextSize);
    s->plotOriginX = ksReadBDValue(r);
    s->plotOriginY = ksReadBDValue(r);
    s->paperUnits = ksReadBS(r);
    s->plotRotation = ksReadBS(r);
    s->plotType = ksReadBS(r);
    s->windowMinX = ksReadBDValue(r);
    s->windowMinY = ksReadBDValue(r);
    s->windowMaxX = ksReadBDValue(r);
    s->windowMaxY = ksReadBDValue(r);
    readText(r, s->plotViewName, ksObjectTextSize);
    s->realWorldUnits = ksReadBDValue(r);
    s->drawingUnits = ksReadBDValue(r);
    readText(r, s->currentStyleSheet, ksObjectTextSize);
    s->standardScaleType = ksReadBS(r);
    s->scaleFactor = ksReadBDValue(r);
    s->paperImageOriginX = ksReadBDValue(r);
    s->paperImageOriginY = ksReadBDValue(r);
}

bool readLayout(ksBitReader& r, ksObjectHeader* header, ksLayout* l)
{
    readPlotSettings(r, &l->settings);
    readText(r, l->name, ksObjectTextSize);
    l->tabOrder = ksReadBS(r);
    l->layoutFlags = ksReadBS(r);
    ksRead3BD(r, &l->ucsOrigin);
    ksRead2RD(r, &l->limitsMin);
    ksRead2RD(r, &l->limitsMax);
    ksRead3BD(r, &l->insertionBase);
    ksRead3BD(r, &l->ucsXAxis);
    ksRead3BD(r, &l->ucsYAxis);
    l->elevation = ksReadBDValue(r);
    l->orthoViewType = ksReadBS(r);
    ksRead3BD(r, &l->extentsMin);
    ksRead3BD(r, &l->extentsMax);
    if (r.bad || !readTail(r, header))
        return false;
    ksReadHandle(r, &l->blockRecord);
    ksReadHandle(r, &l->lastViewport);
    ksReadHandle(r, &l->namedUcs);
    ksReadHandle(r, &l->baseUcs);
    return !r.bad;
}

// An object kept raw: its data bits, the tail, and every handle behind it.
bool readProxy(ksFcb* fcb, ksBitReader& r, ksObjectHeader* header, ksProxyObject* p)
{
    if (fcb->fileVersion >= ksAC1015 && header->kind == kTypeProxyObject) {
        // The class number stands in the data. A class with a body of its
        // own keeps the proxy kind and names the class beside it, so that
        // the body is never taken for that class's.
        const int32_t type = ksReadBL(r);
        p->originalClass = ksReadBL(r);
        p->flags = ksReadBit(r);
        if (type >= ksFirstClassNumber && type <= INT16_MAX &&
            ksObjectFormOf(fcb, static_cast<int16_t>(type)) == ksFormProxy) {
            header->kind = static_cast<int16_t>(type);
        } else {
            header->kind = ksKindProxy;
            p->applicationClass = type;
        }
    } else if (header->kind == kTypeProxyObject) {
        // An older file's proxy object: its kind is not the group stream's,
        // which shares the number.
        header->kind = ksKindProxy;
        p->applicationClass = kTypeProxyObject;
    }
    p->data = ksCopyBits(r, &p->dataBitLength);
    if (r.bad || !readTail(r, header))
        return false;
    p->references = ksReadReferences(r, &p->handleCount);
    return !r.bad;
}

// Opens the object at the position and checks that it is of `type`.
bool openAs(ksFcb* fcb, ksObjectHeader* header, int16_t* hasExtended, int16_t type)
{
    return openObject(fcb, header, hasExtended) == type;
}

}  // namespace

// ---------------------------------------------------------------------------
// Raw bytes

// Bytes of the stream into a blob in pieces of at most kRawPiece; 0 for a
// count of 0. The stream is marked bad when the bytes or the blob fail.
ksLoc ksReadRawBytes(ksBitReader& r, int32_t count)
{
    if (!ksCountFits(r, count, 8) || count == 0)
        return 0;
    ksBlobOut out;
    if (!out.open()) {
        ksBitReaderFail(r);
        return 0;
    }
    uint8_t piece[kRawPiece];
    for (uint32_t left = static_cast<uint32_t>(count); left > 0 && out.ok;) {
        const uint32_t n = std::min(left, kRawPiece);
        if (!ksReadBytes(r, piece, n))
            out.ok = false;
        out.put(ksBlobWrite(out.cursor, piece, static_cast<uint16_t>(n)));
        left -= n;
    }
    return ksFinishBlob(r, out);
}

// ---------------------------------------------------------------------------
// Raw bits and references

ksLoc ksCopyBits(ksBitReader& r, int32_t* bitCount)
{
    *bitCount = 0;
    if (r.bitSize == 0 || r.bitSize > r.bitEnd || r.bitPos > r.bitSize) {
        ksBitReaderFail(r);
        return 0;
    }
    const uint64_t count = r.bitSize - r.bitPos;
    if (count == 0)
        return 0;
    if (count > INT32_MAX) {
        ksBitReaderFail(r);
        return 0;
    }
    BlobOut out;
    if (!out.open()) {
        ksBitReaderFail(r);
        return 0;
    }
    // Whole bytes in buffers of 256, then the last bits at the top of a
    // byte of their own.
    uint8_t buffer[256];
    uint64_t left = count;
    while (left >= 8 && out.ok) {
        const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(left / 8, sizeof buffer));
        ksReadBytes(r, buffer, n);
        out.put(ksBlobWrite(out.cursor, buffer, static_cast<uint16_t>(n)));
        left -= uint64_t{n} * 8;
    }
    if (left > 0 && out.ok) {
        const unsigned n = static_cast<unsigned>(left);
        out.put(ksBlobWriteByte(out.cursor, static_cast<uint8_t>(ksReadBits(r, n) << (8 - n))));
    }
    const ksLoc blob = out.finish(!r.bad);
    if (blob == 0) {
        ksBitReaderFail(r);
        return 0;
    }
    *bitCount = static_cast<int32_t>(count);
    return blob;
}

ksLoc ksReadReferences(ksBitReader& r, int32_t* count)
{
    *count = 0;
    BlobOut out;
    int32_t n = 0;
    // A handle takes its code byte and as many bytes as that gives; the few
    // bits behind the last one are padding of the stream.
    while (ksBitsLeft(r) >= 8) {
        const uint64_t mark = r.bitPos;
        const unsigned length = static_cast<unsigned>(ksReadRC(r) & 0x0f);
        r.bitPos = mark;
        if (length > 8 || uint64_t{length + 1} * 8 > ksBitsLeft(r))
            break;
        ksHandleRef reference;
        ksReadTypedHandle(r, &reference);
        if (n == 0 && !out.open()) {
            ksBitReaderFail(r);
            return 0;
        }
        out.put(ksProxyReferenceWrite(out.cursor, reference.handle, reference.kind));
        ++n;
    }
    if (n == 0)
        return 0;
    const ksLoc blob = ksFinishBlob(r, out);
    if (blob == 0)
        return 0;
    *count = n;
    return blob;
}

// ---------------------------------------------------------------------------
// The object list

int16_t ksDwgStartObjects(ksFcb* fcb)
{
    ksDwgState* st = ksDwg(fcb);
    if (st == nullptr)
        return 0;
    st->objectList.clear();
    st->objectNext = 0;

    const uint64_t named = ksHandleToU64(st->namedObjects);
    if (named != 0)
        st->objectList.push_back(st->namedObjects);

    // Handles that are read elsewhere: the table controls, the BLOCK and
    // ENDBLK entities of the two spaces and the dictionary just taken.
    std::vector<uint64_t> skipped;
    for (const ksObjHandle& h : st->controls)
        skipped.push_back(ksHandleToU64(h));
    for (const ksObjHandle* h : {&st->modelBlock, &st->modelEndblk, &st->paperBlock, &st->paperEndblk})
        skipped.push_back(ksHandleToU64(*h));
    skipped.push_back(named);

    // The map and the handle index, both in handle order, side by side: a
    // map entry that the index holds has been read by an earlier phase.
    ksObjHandle indexed{};
    ksLoc location = 0;
    bool more = ksBtreeSeekAtOrAbove(fcb, ksObjHandle{}, &indexed, &location) != 0;
    uint64_t indexedValue = more ? ksHandleToU64(indexed) : 0;
    uint64_t last = 0;
    for (const ksDwgMapEntry& entry : st->map) {
        const uint64_t handle = entry.handle;
        if (handle == 0 || handle == last)
            continue;
        while (more && indexedValue < handle) {
            if (indexedValue == UINT64_MAX) {
                more = false;
                break;
            }
            more = ksBtreeSeekAtOrAbove(fcb, ksHandleFromU64(indexedValue + 1), &indexed, &location) != 0;
            indexedValue = more ? ksHandleToU64(indexed) : 0;
        }
        if (more && indexedValue == handle)
            continue;
        if (std::find(skipped.begin(), skipped.end(), handle) != skipped.end())
            continue;
        st->objectList.push_back(ksHandleFromU64(handle));
        last = handle;
    }
    return 1;
}

int16_t ksDwgNextObjectType(ksFcb* fcb)
{
    ksDwgState* st = ksDwg(fcb);
    while (st->objectNext < st->objectList.size()) {
        const ksObjHandle handle = st->objectList[st->objectNext++];
        if (!ksSeekHandle(fcb, handle))
            return ksDwgFail(fcb);
        const int16_t type = ksPeekObjectType(fcb);
        if (type < 0)
            return ksDwgFail(fcb);
        const int16_t kind = kindOfType(fcb, type);
        if (kind != 0)
            return kind;
    }
    st->objectList.clear();
    st->objectList.shrink_to_fit();
    st->objectNext = 0;
    return 0;
}

// ---------------------------------------------------------------------------
// Objects of fixed types

int16_t ksDwgReadDictionary(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended)
{
    if (!openAs(fcb, header, hasExtended, kTypeDictionary))
        return 0;
    ksBitReader& r = ksDwg(fcb)->bits;
    auto* d = static_cast<ksDictionary*>(body);
    const int32_t count = ksReadBL(r);
    if (fcb->fileVersion == ksAC1014) {
        ksReadRC(r);
    } else if (fcb->fileVersion >= ksAC1015) {
        d->cloning = ksReadBS(r);
        d->hardOwner = ksReadRC(r);
    }
    if (!readEntries(r, header, count, ksObjectTextSize, &d->entries, nullptr))
        return 0;
    d->entryCount = count;
    return 1;
}

int16_t ksDwgReadGroup(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended)
{
    if (!openAs(fcb, header, hasExtended, kTypeGroup))
        return 0;
    ksBitReader& r = ksDwg(fcb)->bits;
    auto* g = static_cast<ksGroup*>(body);
    readText(r, g->description, ksObjectTextSize);
    g->unnamed = ksReadBS(r);
    g->selectable = ksReadBS(r);
    const int32_t count = ksReadBL(r);
    if (r.bad || !readTail(r, header))
        return 0;
    g->handles = readHandles(r, count);
    if (r.bad)
        return 0;
    g->handleCount = count;
    return 1;
}

int16_t ksDwgReadMlineStyle(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended)
{
    if (!openAs(fcb, header, hasExtended, kTypeMlineStyle))
        return 0;
    ksBitReader& r = ksDwg(fcb)->bits;
    auto* m = static_cast<ksMlineStyle*>(body);
    readText(r, m->name, ksObjectTextSize);
    readText(r, m->description, ksObjectShortTextSize);
    const int16_t stored = ksReadBS(r);
    m->flags = 0;
    for (const FlagBit& bit : kMlineFlagBits) {
        if (stored & bit.stored)
            m->flags |= bit.dxf;
    }
    m->fillColor = ksReadBS(r);
    m->startAngle = ksReadBDValue(r);
    m->endAngle = ksReadBDValue(r);
    const uint8_t count = ksReadRC(r);
    m->elementCount = static_cast<int8_t>(count);
    // An element: a BD and two BS, six bits at the least.
    if (r.bad || !countFits(r, count, 6))
        return 0;
    if (count > 0) {
        BlobOut out;
        if (!out.open())
            return 0;
        for (unsigned i = 0; i < count && out.ok; ++i) {
            ksMlineElement element{};
            element.offset = ksReadBDValue(r);
            element.color = ksReadBS(r);
            element.linetypeIndex = ksReadBS(r);
            out.put(ksMlineElementWrite(out.cursor, element));
        }
        m->elements = out.finish(!r.bad);
        if (m->elements == 0)
            return 0;
    }
    return readTail(r, header) ? 1 : 0;
}

int16_t ksDwgReadPlotSettings(ksFcb*, ksObjectHeader*, void*, int16_t*)
{
    return 1;
}

// ---------------------------------------------------------------------------
// Objects of classes

int16_t ksDwgReadObject(ksFcb* fcb, ksObjectHeader* header, void* body, int16_t* hasExtended)
{
    const int16_t kind = header->kind;
    if (openObject(fcb, header, hasExtended) != kind)
        return 0;
    ksBitReader& r = ksDwg(fcb)->bits;

    // The load has set the body up for the form of the kind: the dispatch
    // takes the same form, so that body and kind always agree.
    bool ok = false;
    switch (ksObjectFormOf(fcb, kind)) {
    case ksFormXrecord:
        ok = readXrecord(fcb, r, header, static_cast<ksXrecord*>(body));
        break;
    case ksFormIdBuffer:
        ok = readIdBuffer(r, header, static_cast<ksIdBuffer*>(body));
        break;
    case ksFormDictionaryVar:
        ok = readDictionaryVar(r, header, static_cast<ksDictionaryVar*>(body));
        break;
    case ksFormImageDefReactor:
        ok = readImageDefReactor(r, header, static_cast<ksImageDefReactor*>(body));
        break;
    case ksFormImageDef:
        ok = readImageDef(r, header, static_cast<ksImageDef*>(body));
        break;
    case ksFormLayerIndex:
        ok = readLayerIndex(r, header, static_cast<ksLayerIndex*>(body));
        break;
    case ksFormObjectPtr:
        ok = readObjectPtr(r, header, static_cast<ksObjectPtr*>(body));
        break;
    case ksFormRasterVariables:
        ok = readRasterVariables(r, header, static_cast<ksRasterVariables*>(body));
        break;
    case ksFormSortentsTable:
        ok = readSortentsTable(r, header, static_cast<ksSortentsTable*>(body));
        break;
    case ksFormSpatialFilter:
        ok = readSpatialFilter(r, header, static_cast<ksSpatialFilter*>(body));
        break;
    case ksFormSpatialIndex:
        ok = readSpatialIndex(r, header, static_cast<ksSpatialIndex*>(body));
        break;
    case ksFormDictionaryWithDefault:
        ok = readDictionaryWithDefault(r, header, static_cast<ksDictionaryWithDefault*>(body));
        break;
    case ksFormPlaceholder:
        ok = readOwnerTail(r, header);
        break;
    case ksFormLayout:
        ok = readLayout(r, header, static_cast<ksLayout*>(body));
        break;
    case ksFormVbaProject:
        ok = readVbaProject(r, header, static_cast<ksVbaProject*>(body));
        break;
    case ksFormWipeoutVariables:
        ok = readWipeoutVariables(r, header, static_cast<ksWipeoutVariables*>(body));
        break;
    default:
        ok = readProxy(fcb, r, header, static_cast<ksProxyObject*>(body));
        // R13 turns its zombie objects into plain proxy objects; the class
        // number goes. (They keep bits, not groups: the stream kind, which
        // holds groups, is not theirs.)
        if (ok && fcb->fileVersion == ksAC1012 && fcb->classNumbers.zombieObjectClass != 0 &&
            header->kind == fcb->classNumbers.zombieObjectClass) {
            header->kind = ksKindProxy;
            static_cast<ksProxyObject*>(body)->applicationClass = kTypeProxyObject;
        }
        break;
    }
    return ok && !r.bad ? 1 : 0;
}
