// Table entries of R13 to R2000 DWG files: layers, text styles, linetypes,
// views, UCSs, viewports, applications, dimension styles, block headers and
// viewport entity headers.
//
// Every entry is an object of its own, reached by handle through the list
// of its table's control object. Its stream, behind the object frame:
//
//   name            T
//   referenced      B   flag 64
//   xref index      BS  stored value minus 1 (0 in the file: -1)
//   xref dependent  B   flag 16
//   body            by table
//   owner           H   relative to the entry's own handle
//   reactors        H   times the frame's reactor count
//   xdictionary     H
//   xref block      H   kept by layers, text styles and linetypes
//   body handles    by table
//
// Block headers and viewport entity headers put more between the name and
// the body; each reader below says what it reads.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/tablelist.h"

namespace {

// Object types of the entries.
constexpr int16_t kTypeLayer = 51;
constexpr int16_t kTypeStyle = 53;
constexpr int16_t kTypeLinetype = 57;
constexpr int16_t kTypeView = 61;
constexpr int16_t kTypeUcs = 63;
constexpr int16_t kTypeVport = 65;
constexpr int16_t kTypeAppid = 67;
constexpr int16_t kTypeDimstyle = 69;
constexpr int16_t kTypeVpEntHeader = 71;

// Viewport entity headers whose viewports decide the ids of later headers.
constexpr int kVpentIdPlaces = 16;
constexpr int kVpentTableSize = sizeof(ksDwgState::vpentViewports) / sizeof(ksObjHandle);

// Bytes of a linetype's text area in the stream, and of preview pieces.
constexpr uint32_t kTextAreaBytes = ksLinetypeTextAreaSize;
constexpr uint32_t kPreviewPiece = 512;

bool isR2000(const ksFcb* fcb) { return fcb->fileVersion >= ksAC1015; }

bool sameHandle(const ksObjHandle& a, const ksObjHandle& b) { return ksHandleCompare(a, b) == 0; }

template <size_t N>
void readText(ksBitReader& r, char (&field)[N])
{
    ksReadText(r, field, static_cast<int32_t>(N - 1));
}

void setFlag(int8_t& flags, int value, bool on)
{
    if (on)
        flags = static_cast<int8_t>(flags | value);
}

void setBit(int16_t& field, int value, bool on)
{
    if (on)
        field = static_cast<int16_t>(field | value);
}

int8_t byte(int value) { return static_cast<int8_t>(value); }

// Where an entry's object stands after its table's next handle.
enum class Entry { open, missing, fail };

// Takes the next handle of the table being walked and opens its object,
// which must be of `type`. A handle the map lacks is an erased entry that
// keeps the handle.
Entry openEntry(ksFcb* fcb, int16_t type, ksObjHandle* own, int16_t* hasExtended)
{
    ksObjHandle handle;
    const int16_t found = ksNextTableEntry(fcb, &handle);
    if (found < 0) {
        ksDwgFail(fcb);
        return Entry::fail;
    }
    if (found == 0) {
        *own = handle;
        return Entry::missing;
    }
    if (ksOpenObject(fcb, own, hasExtended, false, nullptr) != type) {
        ksDwgFail(fcb);
        return Entry::fail;
    }
    return Entry::open;
}

// Name, the referenced and xref-dependent flags and the xref index. The
// flags start from these two bits.
template <typename R>
void readHead(ksBitReader& r, R* record)
{
    readText(r, record->name);
    record->flags = 0;
    setFlag(record->flags, 64, ksReadBit(r));
    record->xrefIndex = static_cast<int16_t>(ksReadBS(r) - 1);
    setFlag(record->flags, 16, ksReadBit(r));
}

// Owner, reactors, extension dictionary and the xref block handle.
template <typename R>
void readTail(ksBitReader& r, R* record, ksObjHandle* xrefBlock)
{
    ksReadTableTail(r, record->entryHandle, &record->ownerHandle, &record->xdictHandle, r.reactorCount,
                    &record->reactors);
    record->reactorCount = record->reactors != 0 ? static_cast<int32_t>(r.reactorCount) : 0;
    ksReadHandle(r, xrefBlock);
}

template <typename R>
void dropReactors(R* record)
{
    ksBlobFree(record->reactors);
    record->reactors = 0;
    record->reactorCount = 0;
}

// The end of an entry: 1, or 0 with what the record holds freed when the
// stream ran out on the way.
template <typename R>
int16_t finish(ksFcb* fcb, const ksBitReader& r, R* record)
{
    if (!r.bad)
        return 1;
    dropReactors(record);
    return ksDwgFail(fcb);
}

ksBitReader& bits(ksFcb* fcb) { return ksDwg(fcb)->bits; }

// One entry of the table being walked: the common head, then `body` reads
// the rest (the body, the tail, the body's handles).
template <typename R, typename Body>
int16_t readEntry(ksFcb* fcb, int16_t type, R* record, int16_t* hasExtended, Body body)
{
    switch (openEntry(fcb, type, &record->entryHandle, hasExtended)) {
    case Entry::fail: return 0;
    case Entry::missing: record->deleted = 1; return 1;
    case Entry::open: break;
    }
    ksBitReader& r = bits(fcb);
    readHead(r, record);
    body(r);
    return finish(fcb, r, record);
}

// Bits left in the object.
uint64_t bitsLeft(const ksBitReader& r) { return r.bitEnd - r.bitPos; }

// A handle of the body of a dimension style of R13 and R14, by name; null
// for an empty name and a block the drawing doesn't have.
ksObjHandle blockNamed(ksFcb* fcb, const char* name)
{
    ksObjHandle handle{};
    if (name[0] != '\0')
        ksBlockHeaderFind(fcb, name, &handle);
    return handle;
}

}  // namespace

// ---------------------------------------------------------------------------
// Starting a table

int16_t ksDwgStartLinetypes(ksFcb* fcb) { return ksBeginTable(fcb, ksHeadLinetypes); }
int16_t ksDwgStartLayers(ksFcb* fcb) { return ksBeginTable(fcb, ksHeadLayers); }
int16_t ksDwgStartShapeFiles(ksFcb* fcb) { return ksBeginTable(fcb, ksHeadStyles); }
int16_t ksDwgStartViews(ksFcb* fcb) { return ksBeginTable(fcb, ksHeadViews); }
int16_t ksDwgStartUcses(ksFcb* fcb) { return ksBeginTable(fcb, ksHeadUcses); }
int16_t ksDwgStartVports(ksFcb* fcb) { return ksBeginTable(fcb, ksHeadVports); }

int16_t ksDwgStartRegApps(ksFcb* fcb)
{
    ksDwg(fcb)->regAppIndex = 0;
    return ksBeginTable(fcb, ksHeadAppids);
}

// The control object of R2000 dimension styles has one byte more.
int16_t ksDwgStartDimStyles(ksFcb* fcb) { return ksBeginTable(fcb, ksHeadDimstyles); }

// All block header handles are taken at once: the blocks are read by
// index, and the list has no other way in.
int16_t ksDwgStartBlockHeaders(ksFcb* fcb)
{
    ksDwgState& st = *ksDwg(fcb);
    st.blockHeaders.clear();
    st.blockNext = 0;
    if (!ksBeginTable(fcb, ksHeadBlocks))
        return 0;
    st.blockHeaders.swap(st.tableEntries);
    st.tableEntries.clear();
    st.tableNext = 0;
    // The two spaces stand apart from the control object's entries: they
    // come last, so that the load keeps what their records hold (layout,
    // reactors, extension dictionary, preview).
    for (const ksObjHandle& space : {st.modelBlockHeader, st.paperBlockHeader}) {
        const bool listed = std::any_of(st.blockHeaders.begin(), st.blockHeaders.end(), [&](const ksObjHandle& h) {
            return ksHandleCompare(h, space) == 0;
        });
        if (!listed) {
            st.blockHeaders.push_back(space);
            ++fcb->tableCount[ksHeadBlocks];
        }
    }
    return 1;
}

// ---------------------------------------------------------------------------
// Layers, text styles, linetypes

int16_t ksDwgReadLayer(ksFcb* fcb, ksLayer* record, int16_t* hasExtended)
{
    return readEntry(fcb, kTypeLayer, record, hasExtended, [&](ksBitReader& r) {
        bool off;
        int16_t color;
        if (isR2000(fcb)) {
            const int values = static_cast<uint16_t>(ksReadBS(r));
            setFlag(record->flags, 1, values & 0x01);
            off = (values & 0x02) != 0;
            setFlag(record->flags, 2, values & 0x04);
            setFlag(record->flags, 4, values & 0x08);
            record->plotFlag = (values & 0x10) ? 1 : 0;
            record->lineweight = ksLineweightFromIndex((values >> 5) & 0x1f);
            color = ksReadBS(r);
        } else {
            setFlag(record->flags, 1, ksReadBit(r));
            off = ksReadBit(r) != 0;
            setFlag(record->flags, 2, ksReadBit(r));
            setFlag(record->flags, 4, ksReadBit(r));
            color = ksReadBS(r);
        }
        record->color = off ? static_cast<int16_t>(-std::abs(color)) : color;
        readTail(r, record, &record->xrefBlockHandle);
        if (isR2000(fcb))
            ksReadHandle(r, &record->plotStyleHandle);
        ksReadHandle(r, &record->linetypeHandle);
    });
}

int16_t ksDwgReadShapeFile(ksFcb* fcb, ksStyle* record, int16_t* hasExtended)
{
    return readEntry(fcb, kTypeStyle, record, hasExtended, [&](ksBitReader& r) {
        setFlag(record->flags, 1, ksReadBit(r));
        setFlag(record->flags, 4, ksReadBit(r));
        ksReadBD(r, &record->height);
        ksReadBD(r, &record->widthFactor);
        ksReadBD(r, &record->obliqueAngle);
        record->generation = static_cast<int8_t>(ksReadRC(r));
        ksReadBD(r, &record->lastHeight);
        readText(r, record->fontFile);
        readText(r, record->bigFont);
        readTail(r, record, &record->xrefBlockHandle);
    });
}

// Dashes beyond the record's 15 are read past and dropped; the pattern
// length stays the file's.
int16_t ksDwgReadLinetype(ksFcb* fcb, ksLinetype* record, int16_t* hasExtended)
{
    return readEntry(fcb, kTypeLinetype, record, hasExtended, [&](ksBitReader& r) {
        readText(r, record->description);
        ksReadBD(r, &record->patternLength);
        record->alignment = static_cast<int8_t>(ksReadRC(r));
        const int stored = ksReadRC(r);
        const int kept = std::min(stored, ksLinetypeMaxDashes);
        record->dashCount = static_cast<int16_t>(kept);
        for (int i = 0; i < stored && !r.bad; ++i) {
            ksLinetypeDash scratch{};
            ksLinetypeDash& dash = i < kept ? record->dashes[i] : scratch;
            ksReadBD(r, &dash.length);
            dash.shapeNumber = ksReadBS(r);
            ksReadRD(r, &dash.xOffset);
            ksReadRD(r, &dash.yOffset);
            ksReadBD(r, &dash.scale);
            ksReadBD(r, &dash.rotation);
            dash.dashFlags = ksReadBS(r);
        }
        // The file's area starts with its first text, at offset 0, which the
        // record keeps for "no text": the area moves up one byte, and the
        // texts' offsets with it. The area's last byte has no room and is
        // dropped, so a text running to the end still ends.
        uint8_t area[kTextAreaBytes];
        ksReadBytes(r, area, kTextAreaBytes);
        record->textArea[0] = '\0';
        std::memcpy(record->textArea + 1, area, kTextAreaBytes - 1);
        record->textArea[ksLinetypeTextAreaSize - 1] = '\0';
        for (int i = 0; i < kept; ++i) {
            ksLinetypeDash& dash = record->dashes[i];
            dash.textOffset = 0;
            if (dash.dashFlags & 2) {
                // The shape number field holds the text's place in the area.
                if (dash.shapeNumber >= 0 && dash.shapeNumber < ksLinetypeTextAreaSize - 1)
                    dash.textOffset = static_cast<int16_t>(dash.shapeNumber + 1);
                dash.shapeNumber = 0;
            }
        }
        readTail(r, record, &record->xrefBlockHandle);
        if (static_cast<uint64_t>(stored) * 8 > bitsLeft(r))
            ksBitReaderFail(r);
        for (int i = 0; i < stored && !r.bad; ++i) {
            ksObjHandle style;
            ksReadHandle(r, &style);
            if (i < kept)
                record->dashes[i].styleHandle = style;
        }
    });
}

// ---------------------------------------------------------------------------
// Views, UCSs, viewports

namespace {

// Perspective, front and back clipping, and the "front clip not at the
// eye" bit, which the file keeps inverted.
void readViewMode(ksBitReader& r, int16_t* viewMode)
{
    setBit(*viewMode, 1, ksReadBit(r));
    setBit(*viewMode, 2, ksReadBit(r));
    setBit(*viewMode, 4, ksReadBit(r));
    setBit(*viewMode, 16, !ksReadBit(r));
}

}  // namespace

int16_t ksDwgReadView(ksFcb* fcb, ksView* record, int16_t* hasExtended)
{
    return readEntry(fcb, kTypeView, record, hasExtended, [&](ksBitReader& r) {
        ksReadBD(r, &record->height);
        ksReadBD(r, &record->width);
        ksRead2RD(r, &record->center);
        ksRead3BD(r, &record->target);
        ksRead3BD(r, &record->direction);
        ksReadBD(r, &record->twist);
        ksReadBD(r, &record->lensLength);
        ksReadBD(r, &record->frontClip);
        ksReadBD(r, &record->backClip);
        record->viewMode = 0;
        readViewMode(r, &record->viewMode);
        setFlag(record->flags, 1, ksReadBit(r));
        if (isR2000(fcb)) {
            record->renderMode = ksReadRC(r);
            record->ucsAssociated = ksReadBit(r);
            if (record->ucsAssociated) {
                ksRead3BD(r, &record->ucsOrigin);
                ksRead3BD(r, &record->ucsXAxis);
                ksRead3BD(r, &record->ucsYAxis);
                record->orthoType = ksReadBS(r);
                ksReadBD(r, &record->elevation);
            }
        }
        ksObjHandle xrefBlock;
        readTail(r, record, &xrefBlock);
        if (isR2000(fcb) && record->ucsAssociated) {
            ksReadHandle(r, &record->baseUcsHandle);
            ksReadHandle(r, &record->namedUcsHandle);
        }
    });
}

int16_t ksDwgReadUcs(ksFcb* fcb, ksUcs* record, int16_t* hasExtended)
{
    return readEntry(fcb, kTypeUcs, record, hasExtended, [&](ksBitReader& r) {
        ksRead3BD(r, &record->origin);
        ksRead3BD(r, &record->xAxis);
        ksRead3BD(r, &record->yAxis);
        if (isR2000(fcb)) {
            ksReadBD(r, &record->elevation);
            record->orthoType = ksReadBS(r);
            record->orthoView = ksReadBS(r);
        }
        ksObjHandle xrefBlock;
        readTail(r, record, &xrefBlock);
        if (isR2000(fcb)) {
            ksReadHandle(r, &record->baseUcsHandle);
            ksReadHandle(r, &record->secondUcsHandle);
        }
    });
}

int16_t ksDwgReadVport(ksFcb* fcb, ksVport* record, int16_t* hasExtended)
{
    return readEntry(fcb, kTypeVport, record, hasExtended, [&](ksBitReader& r) {
        const bool r2000 = isR2000(fcb);
        ksReadBD(r, &record->height);
        // The file keeps the view's width; the record its ratio to the height.
        const double width = ksReadBDValue(r);
        record->aspect = record->height != 0.0 ? width / record->height : 0.0;
        ksRead2RD(r, &record->center);
        ksRead3BD(r, &record->target);
        ksRead3BD(r, &record->direction);
        ksReadBD(r, &record->twist);
        ksReadBD(r, &record->lensLength);
        ksReadBD(r, &record->frontClip);
        ksReadBD(r, &record->backClip);
        record->viewMode = 0;
        readViewMode(r, &record->viewMode);
        if (r2000)
            record->renderMode = ksReadRC(r);
        ksRead2RD(r, &record->lowerLeft);
        ksRead2RD(r, &record->upperRight);
        setBit(record->viewMode, 8, ksReadBit(r));
        record->circleZoom = ksReadBS(r);
        record->fastZoom = ksReadBit(r);
        record->ucsIcon = 0;
        setBit(record->ucsIcon, 1, ksReadBit(r));
        setBit(record->ucsIcon, 2, ksReadBit(r));
        record->gridOn = ksReadBit(r);
        ksRead2RD(r, &record->gridSpacing);
        record->snapOn = ksReadBit(r);
        record->snapStyle = ksReadBit(r);
        record->snapIsoPair = ksReadBS(r);
        ksReadBD(r, &record->snapAngle);
        ksRead2RD(r, &record->snapBase);
        ksRead2RD(r, &record->snapSpacing);
        if (r2000) {
            ksReadBit(r);
            record->ucsFollow = ksReadBit(r);
            ksRead3BD(r, &record->ucsOrigin);
            ksRead3BD(r, &record->ucsXAxis);
            ksRead3BD(r, &record->ucsYAxis);
            ksReadBD(r, &record->elevation);
            record->orthoType = ksReadBS(r);
        } else {
            // The world's axes, which a release without a UCS per viewport
            // implies.
            record->ucsXAxis = ksPoint3{1.0, 0.0, 0.0};
            record->ucsYAxis = ksPoint3{0.0, 1.0, 0.0};
        }
        ksObjHandle xrefBlock;
        readTail(r, record, &xrefBlock);
        if (r2000) {
            ksReadHandle(r, &record->namedUcsHandle);
            ksReadHandle(r, &record->baseUcsHandle);
        }
    });
}

// ---------------------------------------------------------------------------
// Applications

int16_t ksDwgReadRegApp(ksFcb* fcb, ksAppid* record, int16_t* hasExtended)
{
    ksDwgState& st = *ksDwg(fcb);
    ++st.regAppIndex;
    return readEntry(fcb, kTypeAppid, record, hasExtended, [&](ksBitReader& r) {
        ksReadRC(r);
        ksObjHandle xrefBlock;
        readTail(r, record, &xrefBlock);
    });
}

// ---------------------------------------------------------------------------
// Dimension styles

namespace {

void readDimStyleR13(ksFcb* fcb, ksBitReader& r, ksDimstyle* d)
{
    auto bit = [&r] { return byte(ksReadBit(r)); };
    auto rc = [&r] { return byte(ksReadRC(r)); };
    d->DIMTOL = bit();
    d->DIMLIM = bit();
    d->DIMTIH = bit();
    d->DIMTOH = bit();
    d->DIMSE1 = bit();
    d->DIMSE2 = bit();
    d->DIMALT = bit();
    d->DIMTOFL = bit();
    d->DIMSAH = bit();
    d->DIMTIX = bit();
    d->DIMSOXD = bit();
    d->DIMALTD = rc();
    d->DIMZIN = rc();
    d->DIMSD1 = bit();
    d->DIMSD2 = bit();
    d->DIMTOLJ = rc();
    d->DIMJUST = rc();
    d->DIMFIT = rc();
    d->DIMUPT = bit();
    d->DIMTZIN = rc();
    d->DIMALTZ = rc();
    d->DIMALTTZ = rc();
    d->DIMTAD = rc();
    d->DIMUNIT = ksReadBS(r);
    d->DIMAUNIT = ksReadBS(r);
    d->DIMDEC = ksReadBS(r);
    d->DIMTDEC = ksReadBS(r);
    d->DIMALTU = ksReadBS(r);
    d->DIMALTTD = ksReadBS(r);
    for (double* v : {&d->DIMSCALE, &d->DIMASZ, &d->DIMEXO, &d->DIMDLI, &d->DIMEXE, &d->DIMRND, &d->DIMDLE,
                      &d->DIMTP, &d->DIMTM, &d->DIMTXT, &d->DIMCEN, &d->DIMTSZ, &d->DIMALTF, &d->DIMLFAC,
                      &d->DIMTVP, &d->DIMTFAC, &d->DIMGAP})
        ksReadBD(r, v);
    readText(r, d->DIMPOST);
    readText(r, d->DIMAPOST);
    // The arrow blocks by name; the block headers are in by now.
    char name[1025];
    for (ksObjHandle* block : {&d->DIMBLK, &d->DIMBLK1, &d->DIMBLK2}) {
        ksReadText(r, name, 1024);
        *block = r.bad ? ksObjHandle{} : blockNamed(fcb, name);
    }
    d->DIMCLRD = ksReadBS(r);
    d->DIMCLRE = ksReadBS(r);
    d->DIMCLRT = ksReadBS(r);
    // What R2000 added.
    d->DIMALTRND = 0.0;
    d->DIMAZIN = 0;
    d->DIMADEC = 0;
    d->DIMFRAC = 0;
    d->DIMTMOVE = 0;
    d->DIMDSEP = '.';
    d->DIMLWD = -1;
    d->DIMLWE = -1;
    d->DIMLDRBLK = ksObjHandle{};
}

void readDimStyleR2000(ksBitReader& r, ksDimstyle* d)
{
    auto bit = [&r] { return byte(ksReadBit(r)); };
    auto bs8 = [&r] { return byte(ksReadBS(r)); };
    readText(r, d->DIMPOST);
    readText(r, d->DIMAPOST);
    for (double* v : {&d->DIMSCALE, &d->DIMASZ, &d->DIMEXO, &d->DIMDLI, &d->DIMEXE, &d->DIMRND, &d->DIMDLE,
                      &d->DIMTP, &d->DIMTM})
        ksReadBD(r, v);
    d->DIMTOL = bit();
    d->DIMLIM = bit();
    d->DIMTIH = bit();
    d->DIMTOH = bit();
    d->DIMSE1 = bit();
    d->DIMSE2 = bit();
    d->DIMTAD = bs8();
    d->DIMZIN = bs8();
    d->DIMAZIN = ksReadBS(r);
    for (double* v : {&d->DIMTXT, &d->DIMCEN, &d->DIMTSZ, &d->DIMALTF, &d->DIMLFAC, &d->DIMTVP, &d->DIMTFAC,
                      &d->DIMGAP, &d->DIMALTRND})
        ksReadBD(r, v);
    d->DIMALT = bit();
    d->DIMALTD = bs8();
    d->DIMTOFL = bit();
    d->DIMSAH = bit();
    d->DIMTIX = bit();
    d->DIMSOXD = bit();
    d->DIMCLRD = ksReadBS(r);
    d->DIMCLRE = ksReadBS(r);
    d->DIMCLRT = ksReadBS(r);
    d->DIMADEC = ksReadBS(r);
    d->DIMDEC = ksReadBS(r);
    d->DIMTDEC = ksReadBS(r);
    d->DIMALTU = ksReadBS(r);
    d->DIMALTTD = ksReadBS(r);
    d->DIMAUNIT = ksReadBS(r);
    d->DIMFRAC = ksReadBS(r);
    d->DIMUNIT = ksReadBS(r);
    d->DIMDSEP = ksReadBS(r);
    d->DIMTMOVE = ksReadBS(r);
    d->DIMJUST = bs8();
    d->DIMSD1 = bit();
    d->DIMSD2 = bit();
    d->DIMTOLJ = bs8();
    d->DIMTZIN = bs8();
    d->DIMALTZ = bs8();
    d->DIMALTTZ = bs8();
    d->DIMUPT = bit();
    d->DIMFIT = bs8();
    d->DIMLWD = ksReadBS(r);
    d->DIMLWE = ksReadBS(r);
}

}  // namespace

int16_t ksDwgReadDimStyle(ksFcb* fcb, ksDimstyle* record, int16_t* hasExtended)
{
    return readEntry(fcb, kTypeDimstyle, record, hasExtended, [&](ksBitReader& r) {
        if (isR2000(fcb))
            readDimStyleR2000(r, record);
        else
            readDimStyleR13(fcb, r, record);
        ksReadBit(r);
        ksObjHandle xrefBlock;
        readTail(r, record, &xrefBlock);
        ksReadHandle(r, &record->DIMTXSTY);
        if (isR2000(fcb)) {
            ksReadHandle(r, &record->DIMLDRBLK);
            ksReadHandle(r, &record->DIMBLK);
            ksReadHandle(r, &record->DIMBLK1);
            ksReadHandle(r, &record->DIMBLK2);
        }
    });
}

// ---------------------------------------------------------------------------
// Block headers

int16_t ksReadBlockHeaderAt(ksFcb* fcb, ksBlockHeader* record, int16_t* hasExtended)
{
    ksDwgState& st = *ksDwg(fcb);
    const bool r2000 = isR2000(fcb);
    if (ksOpenObject(fcb, &record->entryHandle, hasExtended, false, nullptr) == 0)
        return ksDwgFail(fcb);
    ksBitReader& r = st.bits;
    readHead(r, record);
    setFlag(record->flags, 1, ksReadBit(r));  // anonymous
    setFlag(record->flags, 2, ksReadBit(r));  // has attribute definitions
    setFlag(record->flags, 4, ksReadBit(r));  // external reference
    record->overlay = byte(ksReadBit(r));
    if (r2000)
        ksReadBit(r);
    ksRead3BD(r, &st.blockBase);
    ksReadText(r, st.blockXrefPath, sizeof st.blockXrefPath - 1);
    uint32_t insertCount = 0;
    if (r2000) {
        // One non-zero byte per INSERT of the block; a read past the end
        // gives 0 and ends the run.
        while (ksReadRC(r) != 0)
            ++insertCount;
        readText(r, record->description);
        const uint32_t previewSize = static_cast<uint32_t>(ksReadBL(r));
        if (uint64_t{previewSize} * 8 > bitsLeft(r)) {
            ksBitReaderFail(r);
        } else if (previewSize > 0) {
            record->previewData = ksBlobNew();
            ksBlobCursor* out = record->previewData ? ksBlobOpenWrite(record->previewData) : nullptr;
            uint8_t piece[kPreviewPiece];
            bool ok = out != nullptr;
            for (uint32_t done = 0; ok && done < previewSize;) {
                const uint32_t n = std::min(kPreviewPiece, previewSize - done);
                ksReadBytes(r, piece, n);
                ok = ksBlobWrite(out, piece, static_cast<uint16_t>(n)) != 0;
                done += n;
            }
            if (out != nullptr && !ksBlobCloseWrite(out))
                ok = false;
            if (!ok) {
                ksBlobFree(record->previewData);
                record->previewData = 0;
                ksBitReaderFail(r);
            }
        }
    }
    ksObjHandle xrefBlock;
    readTail(r, record, &xrefBlock);
    st.blockEntity = st.firstEntity = st.lastEntity = st.endblkEntity = ksObjHandle{};
    ksReadHandle(r, &st.blockEntity);
    if (!(record->flags & 4) && !record->overlay) {
        ksReadHandle(r, &st.firstEntity);
        ksReadHandle(r, &st.lastEntity);
    }
    ksReadHandle(r, &st.endblkEntity);
    if (r2000) {
        if (uint64_t{insertCount} * 8 > bitsLeft(r))
            ksBitReaderFail(r);
        ksObjHandle insert;
        for (uint32_t i = 0; i < insertCount && !r.bad; ++i)
            ksReadHandle(r, &insert);
        ksReadHandle(r, &record->layoutHandle);
    }
    if (r.bad) {
        ksBlobFree(record->previewData);
        record->previewData = 0;
        dropReactors(record);
        st.blockEntity = st.firstEntity = st.lastEntity = st.endblkEntity = ksObjHandle{};
        return ksDwgFail(fcb);
    }
    ksG->blockWork.blockEntity = st.blockEntity;
    ksG->blockWork.firstEntity = st.firstEntity;
    ksG->blockWork.lastEntity = st.lastEntity;
    ksG->blockWork.endblkEntity = st.endblkEntity;
    return 1;
}

// A handle the list lacks or the map doesn't hold gives an erased block
// without a name.
int16_t ksDwgReadBlockHeader(ksFcb* fcb, ksBlockHeader* record, int16_t* hasExtended)
{
    ksDwgState& st = *ksDwg(fcb);
    const size_t index = st.blockNext++;
    const ksObjHandle handle = index < st.blockHeaders.size() ? st.blockHeaders[index] : ksObjHandle{};
    record->entryHandle = handle;
    if (!ksSeekHandle(fcb, handle)) {
        record->deleted = 1;
        record->name[0] = '\0';
        return 1;
    }
    return ksReadBlockHeaderAt(fcb, record, hasExtended);
}

// ---------------------------------------------------------------------------
// Viewport entity headers

namespace {

struct VpEntEntry {
    ksObjHandle viewport;
    ksObjHandle next;  // null at the end of the chain
    uint8_t on;
    int16_t xrefIndex;
};

// The header at the reader's position, without a type check (the caller
// makes it). Its frame's reactors are not read: the handles that follow
// the extension dictionary are the xref block, the viewport and the next
// header.
bool readVpEnt(ksFcb* fcb, const ksObjHandle& own, char* name, size_t nameSize, VpEntEntry* out)
{
    ksBitReader& r = bits(fcb);
    ksReadText(r, name, static_cast<int32_t>(nameSize - 1));
    ksReadBit(r);
    out->xrefIndex = static_cast<int16_t>(ksReadBS(r) - 1);
    ksReadBit(r);
    out->on = static_cast<uint8_t>(ksReadBit(r));
    ksObjHandle owner, xdict, xrefBlock;
    ksReadTableTail(r, own, &owner, &xdict, 0, nullptr);
    ksReadHandle(r, &xrefBlock);
    ksReadHandle(r, &out->viewport);
    ksReadHandle(r, &out->next);
    if (sameHandle(out->next, own))
        out->next = ksObjHandle{};
    return !r.bad;
}

}  // namespace

// The chain from the header's first entry gives each header's place,
// which decides the id of its viewport. A chain that loops or runs long
// ends when the table of places is full.
int16_t ksDwgStartVpEntHeaders(ksFcb* fcb)
{
    ksDwgState& st = *ksDwg(fcb);
    if (fcb->tableCount[ksHeadVpEntHeaders] == 0)
        return 1;
    std::fill(std::begin(st.vpentViewports), std::end(st.vpentViewports), ksObjHandle{});
    st.vpentViewportCount = 0;
    ksObjHandle at = st.firstVpentHeader;
    char name[ksTableNameSize];
    while (st.vpentViewportCount < kVpentTableSize && ksSeekHandle(fcb, at)) {
        ksObjHandle own;
        int16_t hasExtended = 0;
        VpEntEntry entry;
        if (ksOpenObject(fcb, &own, &hasExtended, false, nullptr) != kTypeVpEntHeader ||
            !readVpEnt(fcb, own, name, sizeof name, &entry))
            break;
        st.vpentViewports[st.vpentViewportCount++] = entry.viewport;
        at = entry.next;
    }
    if (!ksBeginTable(fcb, ksHeadVpEntHeaders))
        return 0;
    st.vpentFirst = 1;
    return 1;
}

int16_t ksDwgReadVpEntHeader(ksFcb* fcb, ksVpEntHeader* record)
{
    ksDwgState& st = *ksDwg(fcb);
    int16_t hasExtended = 0;
    switch (openEntry(fcb, kTypeVpEntHeader, &record->handle, &hasExtended)) {
    case Entry::fail: return 0;
    case Entry::missing: record->deleted = 1; return 1;
    case Entry::open: break;
    }
    VpEntEntry entry;
    if (!readVpEnt(fcb, record->handle, record->name, sizeof record->name, &entry))
        return ksDwgFail(fcb);
    record->active = entry.on;
    record->xrefIndex = entry.xrefIndex;
    record->viewportHandle = entry.viewport;
    if (st.vpentFirst) {
        st.vpentFirst = 0;
        record->viewportId = 0;
    } else if (!entry.on) {
        record->viewportId = 0;
    } else {
        const int places = std::min(st.vpentViewportCount, kVpentIdPlaces);
        record->viewportId = -1;
        for (int i = 0; i < places; ++i) {
            if (sameHandle(st.vpentViewports[i], entry.viewport)) {
                record->viewportId = static_cast<int16_t>(i + 1);
                break;
            }
        }
    }
    return 1;
}
