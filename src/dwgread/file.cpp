// Opening an R13 to R2000 DWG file: the file header and its locators, the
// header section, the preview, the object map and the handle -> position
// lookup, the control objects, the two spaces' block headers and the named
// objects dictionary; then the services every object reader shares
// (opening an object's frame, walking a table's entries, the common tails)
// and the class section.
#include <algorithm>
#include <cstring>
#include <new>

#include "driver/hooks.h"
#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"

namespace {

// Bytes of the file header in front of the locators, and of one locator.
constexpr uint32_t kLocatorsAt = 25;
constexpr uint32_t kLocatorSize = 9;
constexpr uint32_t kSentinelSize = 16;
// The largest file we take into memory: locations are 32 bits.
constexpr long kMaxImage = 0x7ffffff0L;

uint32_t le32(const uint8_t* p)
{
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

uint16_t le16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

uint64_t handleValue(const ksObjHandle& h)
{
    return ksHandleToU64(h);
}

void releaseState(ksFcb* fcb)
{
    delete ksDwg(fcb);
    fcb->dwgState = nullptr;
    fcb->readProgress = nullptr;
}

// Reads the whole file into the image, with 8 zero bytes behind it.
bool loadImage(ksFcb* fcb, ksDwgState& st)
{
    const long size = ksFileSize(fcb->file);
    if (size <= 0 || size > kMaxImage)
        return false;
    try {
        st.image.assign(static_cast<size_t>(size) + 8, 0);
    } catch (const std::bad_alloc&) {
        ksAllocFailed(11);
        return false;
    }
    ksFileSeek(fcb->file, 0, 0);
    if (ksFileRead(st.image.data(), 1, static_cast<size_t>(size), fcb->file) != static_cast<size_t>(size))
        return false;
    st.size = static_cast<uint32_t>(size);
    return true;
}

// A bit stream over a section body: position + 16 holds the RL size, the
// body follows. Bounded by the image; false when even the size is outside.
bool openSection(const ksDwgState& st, uint32_t position, ksBitReader& r, uint32_t* bodySize)
{
    const uint64_t sizeAt = uint64_t{position} + kSentinelSize;
    if (sizeAt + 4 > st.size)
        return false;
    const uint32_t size = le32(st.image.data() + sizeAt);
    const uint64_t start = sizeAt + 4;
    const uint64_t available = std::min<uint64_t>(size, st.size - start);
    r = ksBitReader{};
    ksBitReaderOpen(r, st.image.data() + start, available, static_cast<uint32_t>(start));
    if (bodySize)
        *bodySize = size;
    return true;
}

// The preview section: a count of entries (code, position, size); a BMP
// (code 2) and a WMF (code 3) are copied into blobs of the drawing.
void readPreview(ksFcb* fcb, const ksDwgState& st)
{
    fcb->previewFlags = 0;
    const uint64_t countAt = uint64_t{st.previewPos} + kSentinelSize + 4;
    if (countAt >= st.size)
        return;
    const uint8_t* image = st.image.data();
    const unsigned count = image[countAt];
    uint64_t at = countAt + 1;
    struct Image {
        uint32_t position, size;
    } bmp{}, wmf{};
    for (unsigned i = 0; i < count && at + 9 <= st.size; ++i) {
        const uint8_t code = image[at];
        if (code == 1 || code == 2 || code == 3) {
            Image item{le32(image + at + 1), le32(image + at + 5)};
            if (code == 2)
                bmp = item, fcb->previewFlags |= 1;
            else if (code == 3)
                wmf = item, fcb->previewFlags |= 2;
            at += 9;
        } else {
            // Any other code is stepped over by itself.
            at += 1;
        }
    }
    auto copy = [&](const Image& item, ksLoc* blobOut, uint8_t flag) {
        if (!(fcb->previewFlags & flag))
            return;
        if (uint64_t{item.position} + item.size > st.size) {
            fcb->previewFlags &= static_cast<uint8_t>(~flag);
            return;
        }
        ksLoc blob = ksBlobNew();
        ksBlobCursor* out = blob ? ksBlobOpenWrite(blob) : nullptr;
        bool ok = out != nullptr;
        for (uint32_t done = 0; ok && done < item.size;) {
            const uint32_t piece = std::min<uint32_t>(8192, item.size - done);
            ok = ksBlobWrite(out, image + item.position + done, static_cast<uint16_t>(piece)) != 0;
            done += piece;
        }
        if (out && !ksBlobCloseWrite(out))
            ok = false;
        if (!ok) {
            ksBlobFree(blob);
            fcb->previewFlags &= static_cast<uint8_t>(~flag);
            return;
        }
        *blobOut = blob;
    };
    copy(bmp, &fcb->bmpBlob, 1);
    copy(wmf, &fcb->wmfBlob, 2);
}

}  // namespace

bool ksReadObjectMap(ksDwgState& st)
{
    const uint8_t* image = st.image.data();
    uint64_t at = st.objectMapPos;
    st.map.clear();
    for (;;) {
        if (at + 2 > st.size)
            return false;
        const uint32_t pageSize = uint32_t{image[at]} << 8 | image[at + 1];
        if (pageSize < 2 || at + pageSize + 2 > st.size)
            return false;
        const uint8_t* p = image + at + 2;
        const uint8_t* pageEnd = image + at + pageSize;
        uint64_t handle = 0;
        int64_t location = 0;
        int32_t lastDelta = 0;
        while (pageEnd - p >= 1) {
            uint32_t used = 0;
            const uint64_t handleDelta = ksReadModularU(p, pageEnd, &used);
            if (used == 0)
                return false;
            p += used;
            lastDelta = ksReadModularS(p, pageEnd, &used);
            if (used == 0)
                return false;
            p += used;
            handle += handleDelta;
            location += lastDelta;
            if (location < 0 || location > int64_t{UINT32_MAX})
                return false;
            st.map.push_back({handle, static_cast<uint32_t>(location)});
        }
        at += pageSize + 2;  // behind the page's CRC
        if (lastDelta == 0)
            break;
    }
    std::stable_sort(st.map.begin(), st.map.end(),
                     [](const ksDwgMapEntry& a, const ksDwgMapEntry& b) { return a.handle < b.handle; });
    st.mapCursor = SIZE_MAX;
    return true;
}

namespace {

// The entry count of a control object and its entry handles, non-null
// only; the reader stands on the object. False when it can't be read.
bool readControl(ksFcb* fcb, int table, bool withEntries, int32_t count, std::vector<ksObjHandle>* entries,
                 int32_t* nonNull)
{
    ksDwgState& st = *ksDwg(fcb);
    ksObjHandle own;
    int16_t hasExtended = 0;
    const int16_t type = ksOpenObject(fcb, &own, &hasExtended, false, nullptr);
    if (type == 0)
        return false;
    ksBitReader& r = st.bits;
    const int32_t stored = ksReadBL(r);
    if (st.version >= ksAC1015 && table == ksHeadDimstyles)
        ksReadRC(r);
    if (!withEntries)
        count = stored;
    // Entry handles take at least 8 bits each.
    const uint64_t room = (r.bitEnd - r.bitPos) / 8;
    if (count < 0 || static_cast<uint64_t>(count) > room)
        return false;
    ksObjHandle h;
    ksReadHandle(r, &h);  // owner
    for (uint32_t i = 0; i < r.reactorCount && !r.bad; ++i)
        ksReadHandle(r, &h);
    ksReadHandle(r, &h);  // extension dictionary
    int32_t found = 0;
    if (withEntries) {
        entries->clear();
        while (found < count && !r.bad) {
            ksReadHandle(r, &h);
            if (r.bad)
                break;
            if (!ksHandleIsNull(h)) {
                entries->push_back(h);
                ++found;
            }
        }
    } else {
        for (int32_t i = 0; i < count && !r.bad; ++i) {
            ksReadHandle(r, &h);
            if (!r.bad && !ksHandleIsNull(h))
                ++found;
        }
    }
    if (r.bad && !withEntries)
        return false;
    if (nonNull)
        *nonNull = found;
    return true;
}

// The two spaces' block headers: their BLOCK, first, last and ENDBLK
// entities.
bool readSpace(ksFcb* fcb, const ksObjHandle& header, ksObjHandle* first, ksObjHandle* last, ksObjHandle* block,
               ksObjHandle* endblk)
{
    ksDwgState& st = *ksDwg(fcb);
    if (!ksSeekHandle(fcb, header))
        return false;
    ksBlockHeader record;
    ksBlockHeaderDefaults(&record);
    int16_t hasExtended = 0;
    st.blockEntity = st.firstEntity = st.lastEntity = st.endblkEntity = ksObjHandle{};
    const int16_t ok = ksReadBlockHeaderAt(fcb, &record, &hasExtended);
    ksBlobFree(record.previewData);
    ksBlobFree(record.reactors);
    if (!ok)
        return false;
    *first = st.firstEntity;
    *last = st.lastEntity;
    *block = st.blockEntity;
    *endblk = st.endblkEntity;
    return true;
}

// The named objects dictionary, and through it the multiline style
// dictionary: its entry count and the position of its first style.
bool readNamedObjects(ksFcb* fcb)
{
    ksDwgState& st = *ksDwg(fcb);
    if (!ksSeekHandle(fcb, st.namedObjects))
        return false;
    st.objectsPos = st.pos;
    auto readDictionary = [fcb](ksObjectHeader* head, ksObjectBody* body) {
        *head = ksObjectHeader{};
        head->kind = ksKindDictionary;
        ksObjectDefaults(fcb, head, body);
        int16_t hasExtended = 0;
        return ksDwgReadDictionary(fcb, head, body, &hasExtended) != 0;
    };
    ksObjectHeader head;
    ksObjectBody body;
    if (!readDictionary(&head, &body)) {
        ksObjectFreeBlobs(fcb, &head, &body);
        return false;
    }
    ksObjHandle styles{};
    bool found = false;
    if (ksBlobCursor* in = ksBlobOpenRead(body.dictionary.entries)) {
        ksDictionaryEntry entry;
        while (!found && ksBlobRead(in, &entry, sizeof entry)) {
            if (std::strcmp(entry.name, "ACAD_MLINESTYLE") == 0) {
                styles = entry.handle;
                found = true;
            }
        }
        ksBlobCloseRead(in);
    }
    ksObjectFreeBlobs(fcb, &head, &body);
    if (!found || !ksSeekHandle(fcb, styles))
        return true;
    if (readDictionary(&head, &body)) {
        st.mlineStyleCount = body.dictionary.entryCount;
        if (ksBlobCursor* in = ksBlobOpenRead(body.dictionary.entries)) {
            ksDictionaryEntry entry;
            if (ksBlobRead(in, &entry, sizeof entry) && ksSeekHandle(fcb, entry.handle))
                st.mlineStylePos = st.pos;
            ksBlobCloseRead(in);
        }
    }
    ksObjectFreeBlobs(fcb, &head, &body);
    return true;
}

int16_t versionOf(const uint8_t* text)
{
    for (int v = ksAC1012; v <= ksAC1015; ++v)
        if (std::memcmp(text, ksVersionNames[v], 6) == 0)
            return static_cast<int16_t>(v);
    return ksVersionUnknown;
}

}  // namespace

int16_t ksDwgFail(ksFcb* fcb, int16_t number)
{
    if (fcb != nullptr)
        fcb->failureNumber = number != 0 ? number : -1;
    if (number != 0)
        ksG->errorNumber = number;
    return 0;
}

// ---------------------------------------------------------------------------
// Opening

int16_t ksDwgReadHeader(ksFcb* fcb)
{
    if (fcb == nullptr || fcb->file == nullptr || fcb->header == nullptr)
        return 0;
    uint8_t head[6] = {};
    ksFileSeek(fcb->file, 0, 0);
    if (ksFileRead(head, 1, 6, fcb->file) != 6)
        return 0;
    int16_t version = versionOf(head);
    if (version == ksVersionUnknown) {
        if (std::memcmp(head, "AC1013", 6) == 0) {
            if (!ksG->allowBetaFiles) {
                ksG->errorNumber = 286;
                return 0;
            }
            version = ksAC1014;
        } else {
            // The releases before R13 are another reader's; anything else
            // is no release we know.
            bool older = false;
            for (int v = ksAC1002; v <= ksAC1009; ++v)
                older = older || std::memcmp(head, ksVersionNames[v], 6) == 0;
            if (!older)
                ksG->errorNumber = 8;
            return 0;
        }
    }
    fcb->fileVersion = version;

    if (fcb->releaseReader)
        fcb->releaseReader(fcb);
    auto* st = new (std::nothrow) ksDwgState;
    if (st == nullptr) {
        ksAllocFailed(11);
        return 0;
    }
    st->version = version;
    fcb->dwgState = st;
    fcb->releaseReader = releaseState;
    fcb->readProgress = ksReadProgress;
    fcb->bmpBlob = fcb->wmfBlob = 0;
    fcb->previewFlags = 0;
    std::memset(fcb->tableCount, 0, sizeof fcb->tableCount);
    if (!loadImage(fcb, *st))
        return 0;

    // File header and locators.
    const uint8_t* image = st->image.data();
    if (st->size < kLocatorsAt) {
        ksG->errorNumber = 186;
        return 0;
    }
    ksHeader& h = *fcb->header;
    std::memcpy(h.ACADVER, ksVersionNames[version], 6);
    h.ACADVER[6] = '\0';
    h.ACADMAINTVER = version >= ksAC1015 ? static_cast<int8_t>(image[11]) : (image[11] & 1);
    st->previewPos = le32(image + 13);
    h.DWGCODEPAGE = static_cast<int16_t>(le16(image + 19));
    const uint32_t locatorCount = image[21];
    uint32_t measurementAt = 0;
    bool haveMeasurement = false;
    for (uint32_t place = 0; place < locatorCount; ++place) {
        const uint64_t at = kLocatorsAt + uint64_t{place} * kLocatorSize;
        if (at + kLocatorSize > st->size) {
            if (place <= ksDwgLocFixed)
                ksG->errorNumber = 186;
            return 0;
        }
        const uint32_t position = le32(image + at + 1);
        const uint32_t size = le32(image + at + 5);
        if (position > st->size) {
            if (place <= ksDwgLocFixed)
                ksG->errorNumber = 186;
            return 0;
        }
        switch (place) {
        case ksDwgLocHeader: st->headerPos = position, st->headerLocSize = size; break;
        case ksDwgLocClasses: st->classesPos = position, st->classesLocSize = size; break;
        case ksDwgLocObjectMap: st->objectMapPos = position, st->objectMapLocSize = size; break;
        case ksDwgLocMeasurement: measurementAt = position, haveMeasurement = true; break;
        default: break;
        }
    }
    if (locatorCount < 3) {
        ksG->errorNumber = 186;
        return 0;
    }

    // Header variables.
    ksBitReader r;
    if (!openSection(*st, st->headerPos, r, nullptr) || !ksDwgReadHeaderVars(fcb, r)) {
        ksG->errorNumber = 186;
        return 0;
    }
    const ksObjHandle* required[] = {
        &st->mlineStyleDictionary, &st->groupDictionary, &st->namedObjects, &st->modelBlockHeader,
        &st->paperBlockHeader,     &st->byBlock,         &st->byLayer,
    };
    bool zero = std::any_of(std::begin(st->controls), std::end(st->controls),
                            [](const ksObjHandle& c) { return ksHandleIsNull(c); });
    for (const ksObjHandle* handle : required)
        zero = zero || ksHandleIsNull(*handle);
    if (zero) {
        ksG->errorNumber = 300;
        return 0;
    }
    if (version >= ksAC1014 && haveMeasurement && uint64_t{measurementAt} + 2 < st->size)
        h.MEASUREMENT = image[measurementAt + 2];

    if (st->previewPos < st->size)
        readPreview(fcb, *st);

    if (!ksReadObjectMap(*st)) {
        ksG->errorNumber = 186;
        return 0;
    }

    // Control objects: the count of each table is its non-null entries.
    for (int table = 0; table < ksTableHeadCount; ++table) {
        if (!ksSeekHandle(fcb, st->controls[table]))
            return 0;
        if (table == 0)
            st->firstObjectPos = st->pos;
        int32_t count = 0;
        if (!readControl(fcb, table, false, 0, nullptr, &count))
            return 0;
        fcb->tableCount[table] = count;
    }
    st->blockNext = 0;
    st->blockHeaders.clear();

    if (!readSpace(fcb, st->modelBlockHeader, &st->modelFirst, &st->modelLast, &st->modelBlock, &st->modelEndblk) ||
        !readSpace(fcb, st->paperBlockHeader, &st->paperFirst, &st->paperLast, &st->paperBlock, &st->paperEndblk))
        return 0;
    fcb->modelBlockBegin = st->modelBlock;
    fcb->modelBlockEnd = st->modelEndblk;
    fcb->paperBlockBegin = st->paperBlock;
    fcb->paperBlockEnd = st->paperEndblk;

    if (!readNamedObjects(fcb))
        return 0;

    // BYLAYER and BYBLOCK stand behind the entries of the linetype control.
    fcb->tableCount[ksHeadLinetypes] += 2;
    fcb->visRetain = h.VISRETAIN;
    return 1;
}

// ---------------------------------------------------------------------------
// Objects by handle

int16_t ksSeekHandle(ksFcb* fcb, const ksObjHandle& handle)
{
    ksDwgState& st = *ksDwg(fcb);
    if (ksHandleIsNull(handle))
        return 0;
    const uint64_t wanted = handleValue(handle);
    size_t index = SIZE_MAX;
    // Chains mostly go up one entry at a time.
    if (st.mapCursor < st.map.size()) {
        if (st.map[st.mapCursor].handle == wanted)
            index = st.mapCursor;
        else if (st.mapCursor + 1 < st.map.size() && st.map[st.mapCursor + 1].handle == wanted)
            index = st.mapCursor + 1;
    }
    if (index == SIZE_MAX) {
        auto it = std::lower_bound(st.map.begin(), st.map.end(), wanted,
                                   [](const ksDwgMapEntry& e, uint64_t h) { return e.handle < h; });
        if (it == st.map.end() || it->handle != wanted)
            return 0;
        index = static_cast<size_t>(it - st.map.begin());
    }
    st.mapCursor = index;
    st.pos = st.map[index].location;
    st.currentHandle = handle;
    return 1;
}

int16_t ksOpenObject(ksFcb* fcb, ksObjHandle* handleOut, int16_t* hasExtended, bool isEntity, ksLoc* graphicOut)
{
    ksDwgState& st = *ksDwg(fcb);
    ksBitReader& r = st.bits;
    if (graphicOut)
        *graphicOut = 0;
    const uint8_t* image = st.image.data();
    // Objects of type 0 are stepped over; each step moves forward.
    for (uint32_t pos = st.pos; pos < st.size;) {
        if (uint64_t{pos} + 2 > st.size)
            break;
        uint32_t size = le16(image + pos);
        uint32_t dataAt = pos + 2;
        uint8_t big = 0;
        if (size & 0x8000) {
            if (uint64_t{pos} + 4 > st.size)
                break;
            size = (size & 0x7fff) + uint32_t{le16(image + pos + 2)} * 32768;
            dataAt += 2;
            big = 1;
        }
        const uint64_t available = std::min<uint64_t>(size, st.size - std::min(dataAt, st.size));
        r = ksBitReader{};
        ksBitReaderOpen(r, image + dataAt, available, dataAt);
        r.objectFilePos = pos;
        r.objectSize = size;
        r.bigObject = big;
        const int16_t type = ksReadBS(r);
        if (st.version >= ksAC1015)
            r.bitSize = ksReadRL(r);
        ksReadHandle(r, handleOut);
        if (r.bad)
            break;
        if (type == 0) {
            // Behind its data and CRC; a size past the file ends the walk.
            const uint64_t next = uint64_t{dataAt} + size + 2;
            if (next >= st.size)
                break;
            pos = static_cast<uint32_t>(next);
            continue;
        }

        // Extended data, raw: per application u16 size, the handle byte,
        // the handle bytes and the data bytes; a final u16 0.
        uint8_t* xdata = ksG->xdataReadBuffer;
        uint32_t length = 0;
        *hasExtended = 0;
        for (;;) {
            const uint32_t blockSize = static_cast<uint16_t>(ksReadBS(r));
            if (r.bad)
                break;
            if (blockSize == 0)
                break;
            const uint8_t handleByte = ksReadRC(r);
            const uint32_t bytes = (handleByte & 15u) + blockSize;
            if (length + 3 + bytes + 2 > ksXdataBufferSize || r.bitPos + uint64_t{bytes} * 8 > r.bitEnd) {
                ksBitReaderFail(r);
                break;
            }
            xdata[length] = static_cast<uint8_t>(blockSize);
            xdata[length + 1] = static_cast<uint8_t>(blockSize >> 8);
            xdata[length + 2] = handleByte;
            ksReadBytes(r, xdata + length + 3, bytes);
            length += 3 + bytes;
            *hasExtended = 1;
        }
        if (r.bad)
            break;
        xdata[length] = xdata[length + 1] = 0;
        ksG->xdataSourceEnd = static_cast<int32_t>(length + 2);

        if (isEntity) {
            r.hasGraphic = static_cast<uint8_t>(ksReadBit(r));
            if (r.hasGraphic) {
                const uint32_t graphicSize = ksReadRL(r);
                if (r.bitPos + uint64_t{graphicSize} * 8 > r.bitEnd) {
                    ksBitReaderFail(r);
                    break;
                }
                if (graphicOut) {
                    ksLoc blob = ksBlobNew();
                    ksBlobCursor* out = blob ? ksBlobOpenWrite(blob) : nullptr;
                    uint8_t piece[512];
                    for (uint32_t done = 0; out && done < graphicSize;) {
                        const uint32_t n = std::min<uint32_t>(sizeof piece, graphicSize - done);
                        ksReadBytes(r, piece, n);
                        ksBlobWrite(out, piece, static_cast<uint16_t>(n));
                        done += n;
                    }
                    if (out)
                        ksBlobCloseWrite(out);
                    else
                        ksSkipBits(r, uint64_t{graphicSize} * 8);
                    *graphicOut = out ? blob : 0;
                    if (!out)
                        ksBlobFree(blob);
                } else {
                    ksSkipBits(r, uint64_t{graphicSize} * 8);
                }
            }
        }
        if (st.version < ksAC1015)
            r.bitSize = ksReadRL(r);
        r.reactorCount = 0;
        if (!isEntity) {
            const uint32_t reactors = static_cast<uint32_t>(ksReadBL(r));
            if (reactors > (r.bitEnd - r.bitPos) / 8)
                ksBitReaderFail(r);
            else
                r.reactorCount = reactors;
        }
        if (r.bad)
            break;
        st.pos = pos;
        return type;
    }
    if (graphicOut && *graphicOut) {
        ksBlobFree(*graphicOut);
        *graphicOut = 0;
    }
    *hasExtended = 0;
    return 0;
}

int16_t ksPeekObjectType(ksFcb* fcb)
{
    ksDwgState& st = *ksDwg(fcb);
    const uint32_t pos = st.pos;
    if (uint64_t{pos} + 4 > st.size)
        return -1;
    const uint8_t* image = st.image.data();
    uint32_t size = le16(image + pos);
    uint32_t dataAt = pos + 2;
    if (size & 0x8000) {
        size = (size & 0x7fff) + uint32_t{le16(image + pos + 2)} * 32768;
        dataAt += 2;
    }
    // An object cut short by the end of the file can't be read.
    if (uint64_t{dataAt} + size > st.size)
        return -1;
    ksBitReader r{};
    ksBitReaderOpen(r, image + dataAt, std::min<uint64_t>(size, 3), dataAt);
    const int16_t type = ksReadBS(r);
    return r.bad ? -1 : type;
}

int16_t ksReadProgress(ksFcb* fcb)
{
    ksDwgState& st = *ksDwg(fcb);
    const uint32_t at = st.pos;
    const size_t cursor = st.mapCursor;
    const ksObjHandle current = st.currentHandle;
    if (!st.progressReady) {
        // The span of a chain: from its first entity to its last.
        auto span = [&](const ksObjHandle& first, const ksObjHandle& last, int64_t* start, int64_t* length) {
            *start = *length = 0;
            if (!ksSeekHandle(fcb, first))
                return;
            *start = st.pos;
            if (ksSeekHandle(fcb, last))
                *length = std::max<int64_t>(0, int64_t{st.pos} - *start);
        };
        span(st.paperFirst, st.paperLast, &st.paperStart, &st.paperSpan);
        span(st.modelFirst, st.modelLast, &st.modelStart, &st.modelSpan);
        st.progressReady = 1;
        st.progressLast = 0;
    } else {
        const int64_t sum = st.paperSpan + st.modelSpan;
        const int64_t done = st.secondPass ? int64_t{at} - st.modelStart + st.paperSpan : int64_t{at} - st.paperStart;
        int64_t p = sum == 0 ? 100 : 100 * done / sum + 1;
        if (p >= 1 && p <= 100)
            st.progressLast = static_cast<int16_t>(p);
    }
    st.pos = at;
    st.mapCursor = cursor;
    st.currentHandle = current;
    return st.progressLast;
}

// ---------------------------------------------------------------------------
// Tables

int16_t ksBeginTable(ksFcb* fcb, int table)
{
    ksDwgState& st = *ksDwg(fcb);
    st.tableEntries.clear();
    st.tableNext = 0;
    if (table < 0 || table >= ksTableHeadCount || !ksSeekHandle(fcb, st.controls[table]))
        return 0;
    return readControl(fcb, table, true, fcb->tableCount[table], &st.tableEntries, nullptr) ? 1 : 0;
}

int16_t ksNextTableEntry(ksFcb* fcb, ksObjHandle* handleOut)
{
    ksDwgState& st = *ksDwg(fcb);
    if (st.tableNext >= st.tableEntries.size()) {
        *handleOut = ksObjHandle{};
        return -1;
    }
    *handleOut = st.tableEntries[st.tableNext++];
    return ksSeekHandle(fcb, *handleOut);
}

ksLoc ksReadHandleBlob(ksBitReader& r, uint32_t count)
{
    if (count == 0)
        return 0;
    if (count > (r.bitEnd - r.bitPos) / 8) {
        ksBitReaderFail(r);
        return 0;
    }
    ksLoc blob = ksBlobNew();
    ksBlobCursor* out = blob ? ksBlobOpenWrite(blob) : nullptr;
    if (out == nullptr) {
        ksBlobFree(blob);
        return 0;
    }
    ksObjHandle h;
    for (uint32_t i = 0; i < count && !r.bad; ++i) {
        ksReadHandle(r, &h);
        ksBlobWriteHandle(out, h);
    }
    if (!ksBlobCloseWrite(out) || r.bad) {
        ksBlobFree(blob);
        return 0;
    }
    return blob;
}

void ksReadTableTail(ksBitReader& r, const ksObjHandle& own, ksObjHandle* ownerOut, ksObjHandle* xdictOut,
                     uint32_t reactorCount, ksLoc* reactorsOut)
{
    ksReadRelHandle(r, own, ownerOut);
    const ksLoc reactors = ksReadHandleBlob(r, reactorCount);
    if (reactorsOut)
        *reactorsOut = reactors;
    else
        ksBlobFree(reactors);
    ksReadHandle(r, xdictOut);
}

// ---------------------------------------------------------------------------
// Classes

int16_t ksDwgStartClasses(ksFcb* fcb)
{
    ksDwgState* st = ksDwg(fcb);
    if (st == nullptr)
        return 0;
    uint32_t size = 0;
    if (!openSection(*st, st->classesPos, st->classBits, &size)) {
        // No class section: no classes.
        st->classBits = ksBitReader{};
        st->classesSize = 0;
        return 1;
    }
    st->classesSize = size;
    return 1;
}

int16_t ksDwgReadClass(ksFcb* fcb, ksClass* record)
{
    ksDwgState& st = *ksDwg(fcb);
    ksBitReader& r = st.classBits;
    if (r.data == nullptr || st.classesSize < 2 || (r.bitPos >> 3) >= st.classesSize - 2 || r.bitPos >= r.bitEnd)
        return 0;
    record->classNumber = ksReadBS(r);
    record->classVersion = ksReadBS(r);
    char text[513];
    ksReadText(r, text, std::min<int32_t>(512, sizeof record->appName - 1));
    std::strcpy(record->appName, text);
    ksReadText(r, text, std::min<int32_t>(512, sizeof record->cppName - 1));
    std::strcpy(record->cppName, text);
    ksReadText(r, text, std::min<int32_t>(512, sizeof record->dxfName - 1));
    std::strcpy(record->dxfName, text);
    record->wasProxy = ksReadBit(r);
    record->itemClassId = ksReadBS(r);
    if (r.bad)
        return ksDwgFail(fcb);
    return 1;
}

// ---------------------------------------------------------------------------
// Verification

int16_t ksVerifyFile(ksStream* file, int16_t level)
{
    if (file == nullptr)
        return 0;
    ksFcb probe{};
    probe.file = file;
    ksDwgState st;
    uint8_t head[24] = {};
    ksFileSeek(file, 0, 0);
    const size_t got = ksFileRead(head, 1, sizeof head, file);
    int16_t version = got >= 6 ? versionOf(head) : int16_t{ksVersionUnknown};
    if (version == ksVersionUnknown && got >= 6 && std::memcmp(head, "AC1013", 6) == 0)
        version = ksAC1014;
    if (version == ksVersionUnknown) {
        // Older releases have nothing to check here.
        ksG->errorNumber = 0;
        return -1;
    }
    if (level == 2 || !loadImage(&probe, st))
        return 0;
    st.version = version;
    const uint8_t* image = st.image.data();
    const uint32_t locatorCount = st.size > kLocatorsAt ? image[21] : 0;
    if (locatorCount < 3 || kLocatorsAt + 3 * kLocatorSize > st.size)
        return 0;
    st.classesPos = le32(image + kLocatorsAt + kLocatorSize + 1);
    st.objectMapPos = le32(image + kLocatorsAt + 2 * kLocatorSize + 1);

    // The class section: its CRC covers the size and the body.
    const uint64_t sizeAt = uint64_t{st.classesPos} + kSentinelSize;
    if (sizeAt + 4 <= st.size) {
        const uint32_t size = le32(image + sizeAt);
        if (sizeAt + 4 + size + 2 > st.size ||
            ksCrc16(ksCrcSeed, image + sizeAt, size + 4) != le16(image + sizeAt + 4 + size)) {
            ksG->errorNumber = 202;
            return 202;
        }
    }

    // The objects, one behind the other from the first the map names up
    // to the map.
    if (!ksReadObjectMap(st) || st.map.empty())
        return 0;
    uint32_t pos = UINT32_MAX;
    for (const ksDwgMapEntry& e : st.map)
        pos = std::min(pos, e.location);
    while (pos < st.objectMapPos) {
        if (uint64_t{pos} + 2 > st.size)
            break;
        uint32_t size = le16(image + pos);
        uint32_t words = 2;
        if (size & 0x8000) {
            if (uint64_t{pos} + 4 > st.size)
                break;
            size = (size & 0x7fff) + uint32_t{le16(image + pos + 2)} * 32768;
            words = 4;
        }
        const uint64_t end = uint64_t{pos} + words + size;
        if (end + 2 > st.size || ksCrc16(ksCrcSeed, image + pos, words + size) != le16(image + end)) {
            ksG->errorNumber = 201;
            return 201;
        }
        pos = static_cast<uint32_t>(end + 2);
    }
    return 0;
}
