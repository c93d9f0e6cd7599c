// The ENTITIES writer: one entity as DXF groups, in the BLOCKS and ENTITIES
// sections alike, for every release from AC1002 to AC1015.
//
// Where a body's group stands in its record, and in which releases it is
// carried, is told once by the field rows of records/entity.h. The scripts
// below add what the rows can't: the order of the groups, the subclass
// markers, which groups go out only when they differ from their default,
// and the point forms. What no row can say is written by hand: the common
// head, names, the LEADER's hook point, MTEXT chunks, solid model text,
// DIMENSION geometry, the VIEWPORT's view, the class entities, the proxy
// replay and extended data.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <string>

#include "bridge/downgrade.h"
#include "driver/hooks.h"
#include "dxfwrite/dxfwrite.h"
#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"
#include "store/xdata.h"

namespace {

constexpr double kTwoPi = 6.2831853071796;

// ---------------------------------------------------------------------------
// Names of the running entity, filled by ksDxfResolveEntityNames. Each
// table name comes with the index its table writer gives the record, so
// that both ends of a reference shorten alike below R2000.

// A table record's name as entities name it: its text, the index its
// table writer gives the record, what follows from the text, and the form
// the file gives it (shortened below R2000), made the first time it is
// written for a source and release.
struct EntityName {
    uint64_t clears = UINT64_MAX;  // the count of clears it was found at
    ksObjHandle handle;
    char text[ksEntityNameSize];
    int32_t index;
    bool byLayer;   // "BYLAYER" in any case
    bool standard;  // "Standard" in any case
    bool unnamed;   // "*UNNAMED" in any case
    uint64_t formClears;  // the form's key: the count of clears, the source and the release
    const ksFcb* formSource;
    int16_t formVersion;
    const char* form;
    size_t formLength;
    char shortForm[ksDxfShortNameFormSize];
};

// The names of the running entity, and the others it needs.
struct EntityNames {
    EntityName* layer;
    EntityName* linetype;
    EntityName* style;
    EntityName* block;
    EntityName* dimstyle;
    char mlineStyle[ksObjectTextSize];
    int32_t mlineStyleIndex;  // the style's place in the object list, its index in OBJECTS
    char shape[32];
};

// What the names point to before anything is resolved: no name, index 0.
EntityName noName{};
EntityNames names{&noName, &noName, &noName, &noName, &noName, {}, 0, {}};

constexpr ksTableList kNameTables[ksRefKindCount] = {ksListLayers, ksListLinetypes, ksListShapeFiles,
                                                     ksListBlockHeaders, ksListDimStyles};
constexpr int16_t kNameErrors[ksRefKindCount] = {66, 67, 68, 75, 69};

bool sameHandle(const ksObjHandle& a, const ksObjHandle& b) { return ksHandleCompare(a, b) == 0; }

void copyName(char* out, const char* name, size_t room)
{
    const size_t n = strnlen(name, room - 1);
    std::memcpy(out, name, n);
    out[n] = '\0';
}

// The record of that handle in a table: its node and its place. 0 when
// none.
ksLoc findRecord(ksFcb* source, ksTableList table, const ksObjHandle& handle, int32_t* place)
{
    const ksTableListInfo& info = ksTableLists[table];
    int32_t at = 0;
    for (ksLoc node = ksListFirst(source->*info.list); node != 0; node = ksListNodeNext(node), ++at) {
        ksObjHandle own;
        std::memcpy(&own, static_cast<const uint8_t*>(ksRecordOf(node)) + info.handleOffset, sizeof own);
        if (sameHandle(own, handle)) {
            *place = at;
            return node;
        }
    }
    return 0;
}

const char* nameOf(ksLoc node, ksTableList table)
{
    return static_cast<const char*>(ksRecordOf(node)) + ksTableLists[table].nameOffset;
}

// The names found by handle, a few of each kind, for as long as the
// tables stand still: ksClearRefCaches, which every save starts with,
// drops them (its count of clears moves on). A full cache takes the place
// of its oldest name, but never of the name the running entity holds.
constexpr int kNamesKept = 8;
struct NameCache {
    uint64_t clears = UINT64_MAX;
    int count = 0;
    int next = 0;
    EntityName kept[kNamesKept];
};
NameCache nameCaches[ksRefKindCount];

EntityName*& heldName(ksRefKind kind)
{
    switch (kind) {
        case ksRefLayer: return names.layer;
        case ksRefLinetype: return names.linetype;
        case ksRefStyle: return names.style;
        case ksRefBlock: return names.block;
        default: return names.dimstyle;
    }
}

// The name of the record of that handle in the table of its kind; null
// with the kind's error when no record has it.
EntityName* findName(ksFcb* source, ksRefKind kind, const ksObjHandle& handle)
{
    NameCache& cache = nameCaches[kind];
    if (cache.clears != ksDowngrade().clears) {
        cache.clears = ksDowngrade().clears;
        cache.count = 0;
        cache.next = 0;
    }
    for (int i = 0; i < cache.count; ++i) {
        if (sameHandle(cache.kept[i].handle, handle))
            return &cache.kept[i];
    }
    int slot = cache.count;
    if (slot == kNamesKept) {
        slot = cache.next;
        if (&cache.kept[slot] == heldName(kind))
            slot = (slot + 1) % kNamesKept;
        cache.next = (slot + 1) % kNamesKept;
    }
    EntityName* out = &cache.kept[slot];
    int32_t place = 0;
    const ksTableList table = kNameTables[kind];
    if (kind == ksRefLinetype && sameHandle(handle, source->byLayerHandle)) {
        copyName(out->text, "ByLayer", sizeof out->text);
        out->index = 1;
    } else if (kind == ksRefLinetype && sameHandle(handle, source->byBlockHandle)) {
        copyName(out->text, "ByBlock", sizeof out->text);
        out->index = 0;
    } else if (kind == ksRefDimstyle && ksHandleIsNull(handle)) {
        copyName(out->text, "*UNNAMED", sizeof out->text);
        out->index = 0;
    } else {
        // The linetype table of a file puts ByBlock and ByLayer first as
        // indices 0 and 1; the others take their place + 2.
        const bool linetype = kind == ksRefLinetype;
        const ksLoc node = findRecord(source, table, handle, &place);
        if (node == 0) {
            ksG->errorNumber = kNameErrors[kind];
            return nullptr;
        }
        // A block is named as the block table names it ("*U7" at place 12
        // is "*U12").
        static_assert(sizeof out->text >= ksTableNameSize);
        if (kind == ksRefBlock)
            ksDxfBlockFileName(nameOf(node, table), place, out->text);
        else
            copyName(out->text, nameOf(node, table), sizeof out->text);
        out->index = linetype ? place + 2 : place;
    }
    out->clears = cache.clears;
    out->handle = handle;
    out->byLayer = ksStrCompare(out->text, "BYLAYER") == 0;
    out->standard = ksStrCompare(out->text, "Standard") == 0;
    out->unnamed = ksStrCompare(out->text, "*UNNAMED") == 0;
    out->formSource = nullptr;
    if (slot == cache.count)
        ++cache.count;
    return out;
}

// The running entity's name of a kind; false with the kind's error.
bool resolveName(ksFcb* source, ksRefKind kind, const ksObjHandle& handle)
{
    // Mostly the name of the entity before.
    EntityName*& held = heldName(kind);
    if (held->clears == ksDowngrade().clears && sameHandle(held->handle, handle))
        return true;
    EntityName* name = findName(source, kind, handle);
    if (name == nullptr)
        return false;
    held = name;
    return true;
}

// A field of a record in the store, which keeps records unaligned.
template <typename T>
T storedField(ksLoc node, size_t offset)
{
    T value;
    std::memcpy(&value, static_cast<const uint8_t*>(ksRecordOf(node)) + offset, sizeof value);
    return value;
}

const char* storedText(ksLoc node, size_t offset)
{
    return static_cast<const char*>(ksRecordOf(node)) + offset;
}

bool resolveMlineStyle(ksFcb* source, const ksObjHandle& handle)
{
    int32_t place = 0;
    for (ksLoc node = ksListFirst(source->objects); node != 0; node = ksListNodeNext(node), ++place) {
        if (storedField<int16_t>(node, offsetof(ksObjectHeader, kind)) == ksKindMlineStyle &&
            sameHandle(storedField<ksObjHandle>(node, offsetof(ksObjectHeader, handle)), handle)) {
            copyName(names.mlineStyle, storedText(node, sizeof(ksObjectHeader) + offsetof(ksMlineStyle, name)),
                     sizeof names.mlineStyle);
            names.mlineStyleIndex = place;
            return true;
        }
    }
    ksG->errorNumber = 303;
    return false;
}

uint16_t readLe16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

// The shape's name from its style's shape file: the count at 28, then
// (number, size) pairs, then the shapes, each starting with its name.
void readShapeName(const char* fontFile, int16_t number, char* out)
{
    out[0] = '\0';
    char name[ksPathMax];
    const size_t n = strnlen(fontFile, ksPathMax - 5);
    std::memcpy(name, fontFile, n);
    name[n] = '\0';
    const bool hasExtension = (n >= 4 && ksStrCompare(name + n - 4, ".shx") == 0) || (n > 0 && name[n - 1] == '.');
    if (!hasExtension)
        std::memcpy(name + n, ".shx", 5);
    char found[ksPathMax] = {};
    if (ksG->findFile)
        ksG->findFile(name, found, 0);
    ksStream* file = ksFileOpenRead(found[0] ? found : name);
    if (file == nullptr)
        return;
    uint8_t word[4];
    if (ksFileSeek(file, 28, 0) == 0 && ksFileRead(word, 1, 2, file) == 2) {
        const uint16_t count = readLe16(word);
        long position = static_cast<long>(count) * 4 + 30;
        bool hit = false;
        for (uint16_t i = 0; i < count && ksFileRead(word, 1, 4, file) == 4; ++i) {
            if (static_cast<int16_t>(readLe16(word)) == number) {
                hit = true;
                break;
            }
            position += readLe16(word + 2);
        }
        if (hit && ksFileSeek(file, position, 0) == 0) {
            const size_t got = ksFileRead(out, 1, 31, file);
            out[got] = '\0';
        }
    }
    ksFileClose(file);
}

void resolveShapeName(ksFcb* source, ksShapeBody* shape)
{
    for (int i = 0; i < source->shapeCacheCount; ++i) {
        if (source->shapeCacheNumber[i] == shape->shapeNumber &&
            sameHandle(source->shapeCacheStyle[i], shape->styleHandle)) {
            copyName(names.shape, source->shapeCacheName[i], sizeof names.shape);
            return;
        }
    }
    int32_t place = 0;
    const ksLoc node = findRecord(source, ksListShapeFiles, shape->styleHandle, &place);
    names.shape[0] = '\0';
    if (node != 0)
        readShapeName(storedText(node, offsetof(ksStyle, fontFile)), shape->shapeNumber, names.shape);
    if (names.shape[0] == '\0') {
        shape->shapeNumber = 255;
        return;
    }
    if (source->shapeCacheCount < ksShapeCacheSize) {
        const int i = source->shapeCacheCount++;
        source->shapeCacheNumber[i] = shape->shapeNumber;
        source->shapeCacheStyle[i] = shape->styleHandle;
        copyName(source->shapeCacheName[i], names.shape, sizeof source->shapeCacheName[i]);
    }
}

// ---------------------------------------------------------------------------
// The writing context and small writers

struct Ctx {
    ksFcb* source;
    ksFcb* target;
    const ksEntityHeader* header;
    const void* body;
    int16_t version;
};

bool isSet(double value) { return std::fabs(value) >= ksG->dxfHalfUnit; }
bool isSetAngle(double value) { return std::fabs(value) >= ksG->dxfHalfUnitRadians; }
bool isZero(const ksPoint3& p) { return p.x == 0.0 && p.y == 0.0 && p.z == 0.0; }
bool isUnitX(const ksPoint3& p) { return p.x == 1.0 && p.y == 0.0 && p.z == 0.0; }

template <typename T>
const T& bodyOf(const Ctx& c)
{
    return *static_cast<const T*>(c.body);
}

// writeZeroZ of the number forms, taken as 1 for a while.
struct ZeroZ {
    int16_t saved;
    explicit ZeroZ(bool force) : saved(ksG->dxfWriteZeroZ)
    {
        if (force)
            ksG->dxfWriteZeroZ = 1;
    }
    ~ZeroZ() { ksG->dxfWriteZeroZ = saved; }
};

// A table name below R2000 shortened with its index (ksDxfWriteName, which
// gives a block that xref symbols name the room they leave it, so that
// "X|NAME" and the block X shorten alike).
bool writeName(const Ctx& c, int16_t group, EntityName& name)
{
    const uint64_t clears = ksDowngrade().clears;
    if (name.formClears != clears || name.formSource != c.source || name.formVersion != c.version) {
        if (c.version >= ksAC1015) {
            name.form = name.text;
            name.formLength = std::strlen(name.text);
        } else {
            name.form = name.shortForm;
            name.formLength = ksDxfShortNameForm(c.source, name.text, name.index, name.shortForm);
        }
        name.formClears = clears;
        name.formSource = c.source;
        name.formVersion = c.version;
    }
    return ksDxfWriteTextSized(c.target, group, name.form, name.formLength);
}

bool writeBlockName(const Ctx& c, int16_t group, const char* name, int32_t index)
{
    return ksDxfWriteName(c.source, c.target, group, name, index);
}

bool writeExtrusion(const Ctx& c)
{
    return !(c.header->flags & ksEntityOwnExtrusion) || ksDxfWritePoint3Full(c.target, 210, c.header->extrusion);
}

bool writeChunks(ksFcb* target, int16_t group, ksLoc blob, uint32_t chunk)
{
    ksBlobCursor* cursor = ksBlobOpenRead(blob);
    if (cursor == nullptr)
        return blob == 0;
    uint8_t bytes[127];
    bool ok = true;
    for (uint32_t left = ksBlobSize(blob); ok && left > 0;) {
        const auto n = static_cast<uint16_t>(std::min(left, chunk));
        ok = ksBlobRead(cursor, bytes, n) && ksDxfWriteBytes(target, group, bytes, static_cast<uint8_t>(n));
        left -= n;
    }
    ksBlobCloseRead(cursor);
    return ok;
}

// 92 with the size of a graphics blob and its 310 chunks.
bool writeGraphics(ksFcb* target, ksLoc graphics)
{
    if (graphics == 0)
        return true;
    return ksDxfWriteInt32(target, 92, static_cast<int32_t>(ksBlobSize(graphics))) &&
           writeChunks(target, 310, graphics, 127);
}

// ---------------------------------------------------------------------------
// Scripts: a body's groups in order, its fields found through the rows.

enum class Op : uint8_t {
    Field,     // the field of the group's row
    Marker,    // 100 and the text
    Thick,     // 39, the header's thickness, if set
    Ext,       // 210 at full precision with the own-extrusion flag
    Int,       // the group with the constant `value`
    Real,      // the group with the constant `value`
    StopBelow, // the rest only from version `group` on
    Call,      // a hand-written piece
};

// How a field goes out.
enum class Form : uint8_t {
    Value,  // by the row's kind
    Full,   // a real at full precision
    Var,    // a point by ksDxfWritePointVar
    Keep,   // a point by ksDxfWritePointKeepZ
    Point,  // a point at full precision
};

// When a field goes out.
enum class Test : uint8_t {
    Always,
    Differs,     // differs from `value`; a real against 0 and an angle by the thresholds
    NotZeroVec,  // a point not (0, 0, 0)
    NotUnitX,    // a point not (1, 0, 0)
};

using Piece = bool (*)(const Ctx&);

struct Step {
    Op op;
    int16_t group = 0;
    int8_t lo = 0;
    int8_t hi = 7;
    Form form = Form::Value;
    Test test = Test::Always;
    double value = 0.0;
    const char* text = nullptr;
    uint16_t textLength = 0;
    Piece piece = nullptr;
};

constexpr Step marker(const char* text)
{
    return {.op = Op::Marker,
            .group = 100,
            .lo = 5,
            .text = text,
            .textLength = static_cast<uint16_t>(std::char_traits<char>::length(text))};
}
constexpr Step thick() { return {.op = Op::Thick, .group = 39, .lo = 5}; }
constexpr Step ext(int8_t lo = 3, int8_t hi = 7) { return {.op = Op::Ext, .group = 210, .lo = lo, .hi = hi}; }
constexpr Step field(int16_t group, int8_t lo = 0, int8_t hi = 7)
{
    return {.op = Op::Field, .group = group, .lo = lo, .hi = hi};
}
constexpr Step full(int16_t group) { return {.op = Op::Field, .group = group, .form = Form::Full}; }
constexpr Step ifSet(int16_t group, double otherwise = 0.0, int8_t lo = 0, int8_t hi = 7)
{
    return {.op = Op::Field, .group = group, .lo = lo, .hi = hi, .test = Test::Differs, .value = otherwise};
}
constexpr Step var(int16_t group) { return {.op = Op::Field, .group = group, .form = Form::Var}; }
constexpr Step keep(int16_t group, Test test = Test::Always)
{
    return {.op = Op::Field, .group = group, .form = Form::Keep, .test = test};
}
constexpr Step point(int16_t group, Test test = Test::Always)
{
    return {.op = Op::Field, .group = group, .form = Form::Point, .test = test};
}
constexpr Step constInt(int16_t group, int value, int8_t lo = 0)
{
    return {.op = Op::Int, .group = group, .lo = lo, .value = static_cast<double>(value)};
}
constexpr Step constReal(int16_t group, double value, int8_t lo = 0)
{
    return {.op = Op::Real, .group = group, .lo = lo, .value = value};
}
constexpr Step stopBelow(int16_t version) { return {.op = Op::StopBelow, .group = version}; }
constexpr Step call(Piece piece, int8_t lo = 0, int8_t hi = 7)
{
    return {.op = Op::Call, .lo = lo, .hi = hi, .piece = piece};
}

struct Script {
    const Step* steps;
    size_t count;
};

template <size_t N>
constexpr Script script(const Step (&steps)[N])
{
    return {steps, N};
}

// The row that carries a group's field, read or written in any release.
const ksEntityField* rowOf(const ksEntityFieldSet& rows, int16_t group)
{
    for (uint16_t i = 0; i < rows.count; ++i) {
        const ksEntityField& row = rows.rows[i];
        if (row.group == group && (row.flags & ksEfConditions) == 0 && !(row.flags & ksEfNoWrite))
            return &row;
    }
    return nullptr;
}

const ksEntityFieldSet& rowsOf(const Ctx& c) { return ksEntityFieldTable[c.header->type]; }

const uint8_t* fieldAt(const void* record, const ksEntityField& row)
{
    return static_cast<const uint8_t*>(record) + row.offset;
}

// Where a row's storage (the field, or its element) stands in its record,
// as ksEntityFieldAddress finds it.
uint32_t elementOffset(const ksEntityField& row)
{
    // The rows of ksEntityFieldTable describe bodies, all within this size.
    static uint8_t record[ksEntityBodyMax];
    return static_cast<uint32_t>(static_cast<const uint8_t*>(ksEntityFieldAddress(record, row)) - record);
}

template <typename T>
T valueAt(const void* record, uint32_t at)
{
    T value;
    std::memcpy(&value, static_cast<const uint8_t*>(record) + at, sizeof value);
    return value;
}

// A point field: three axes, or two with Z 0.
ksPoint3 pointAt(const void* record, const ksEntityField& row)
{
    ksPoint3 p{};
    std::memcpy(&p, fieldAt(record, row), row.width >= sizeof(ksPoint3) ? sizeof(ksPoint3) : sizeof(ksPoint2));
    return p;
}

bool writePointField(const Ctx& c, const ksEntityField& row, const Step& step)
{
    const ksPoint3 p = pointAt(c.body, row);
    const bool twoAxes = row.width < sizeof(ksPoint3);
    if ((step.test == Test::NotZeroVec && isZero(p)) || (step.test == Test::NotUnitX && isUnitX(p)))
        return true;
    switch (step.form) {
        case Form::Var:
            return twoAxes ? ksDxfWritePoint2(c.target, row.group, {p.x, p.y})
                           : ksDxfWritePointVar(c.target, p, row.group);
        case Form::Keep:
            return twoAxes ? ksDxfWritePoint2(c.target, row.group, {p.x, p.y})
                           : ksDxfWritePointKeepZ(c.target, row.group, p);
        default:
            return twoAxes ? ksDxfWritePoint2Full(c.target, row.group, {p.x, p.y})
                           : ksDxfWritePoint3Full(c.target, row.group, p);
    }
}

// A field of a row that the release writes; its storage is at `at`.
bool writeFieldValue(const Ctx& c, const ksEntityField& row, const Step& step, uint32_t at)
{
    const void* record = c.body;
    // The companion of a presence or counted row: an int16 at `note`.
    int16_t companion = 0;
    if (row.note != ksEfNoNote)
        std::memcpy(&companion, static_cast<const uint8_t*>(record) + row.note, sizeof companion);
    if (((row.flags & ksEfPresence) && companion == 0) || ((row.flags & ksEfCounted) && row.index >= companion))
        return true;
    if (step.form == Form::Var || step.form == Form::Keep || step.form == Form::Point)
        return writePointField(c, row, step);
    const bool differs = step.test == Test::Differs;
    switch (row.kind) {
        case ksEfByte:
        case ksEfShort:
        case ksEfLong: {
            int32_t value = row.kind == ksEfByte    ? valueAt<int8_t>(record, at)
                            : row.kind == ksEfShort ? valueAt<int16_t>(record, at)
                                                    : valueAt<int32_t>(record, at);
            if (row.flags & ksEfLowByteOut)
                value &= 0xFF;
            if (differs && value == static_cast<int32_t>(step.value))
                return true;
            return row.kind == ksEfLong ? ksDxfWriteInt32(c.target, row.group, value)
                                        : ksDxfWriteInt16(c.target, row.group, static_cast<int16_t>(value));
        }
        case ksEfReal: {
            const double value = valueAt<double>(record, at);
            if (differs && (step.value == 0.0 ? !isSet(value) : value == step.value))
                return true;
            return step.form == Form::Full ? ksDxfWriteRealFull(c.target, row.group, value)
                                           : ksDxfWriteReal(c.target, row.group, value);
        }
        case ksEfAngle: {
            const double value = valueAt<double>(record, at);
            if (differs && !isSetAngle(value))
                return true;
            return ksDxfWriteAngle(c.target, row.group, value);
        }
        case ksEfText:
        case ksEfName:
            return ksDxfWriteText(c.target, row.group, reinterpret_cast<const char*>(fieldAt(record, row)));
        case ksEfCodedText:
            return ksDxfWriteCoded(c.target, row.group, reinterpret_cast<const char*>(fieldAt(record, row)));
        case ksEfHandle: {
            const auto handle = valueAt<ksObjHandle>(record, at);
            if (differs && ksHandleIsNull(handle))
                return true;
            return ksDxfWriteHandle(c.target, row.group, handle);
        }
        case ksEfBit:
            return (valueAt<int8_t>(record, at) & row.index) == 0 || ksDxfWriteInt16(c.target, row.group, 1);
        default:
            return true;  // names by handle, blobs: their pieces write them
    }
}

// A script made ready for one entity type and release: the steps that
// run there, each field step with its row. A step outside the release's
// range, a field without a row or whose row the release doesn't write is
// left out, and a StopBelow that stops ends the plan. Everything it
// follows from (the scripts, the rows) is constant, so a plan made once
// serves every entity of its type and release.
struct Plan {
    static constexpr size_t kMost = 32;
    struct Item {
        const Step* step;
        const ksEntityField* row;  // of a field step
        uint32_t at;               // where the row's storage stands
    };
    const Step* steps = nullptr;  // the script it was made from
    int16_t type = -1;
    int16_t version = -1;
    bool whole = false;  // false when the script's steps don't fit: it then runs step by step
    uint8_t count = 0;
    Item items[kMost];
};

// The plan of the script for the running entity's type and release, made
// in the slot unless the slot has it already.
const Plan& planOf(const Ctx& c, const Script& s, Plan& slot)
{
    const int16_t type = c.header->type;
    if (slot.steps == s.steps && slot.type == type && slot.version == c.version)
        return slot;
    slot.steps = s.steps;
    slot.type = type;
    slot.version = c.version;
    slot.count = 0;
    slot.whole = true;
    for (size_t i = 0; i < s.count; ++i) {
        const Step& step = s.steps[i];
        if (c.version < step.lo || c.version > step.hi)
            continue;
        if (step.op == Op::StopBelow) {
            if (c.version < step.group)
                break;
            continue;
        }
        const ksEntityField* row = nullptr;
        if (step.op == Op::Field) {
            row = rowOf(rowsOf(c), step.group);
            if (row == nullptr || !ksEntityFieldWritten(*row, c.version))
                continue;
        }
        if (slot.count == Plan::kMost) {
            slot.whole = false;
            break;
        }
        slot.items[slot.count++] = {&step, row, row != nullptr ? elementOffset(*row) : 0};
    }
    return slot;
}

// One step; a field step with its row, which the release writes, and
// where the row's storage stands.
inline bool runStep(const Ctx& c, const Step& step, const ksEntityField* row, uint32_t at)
{
    switch (step.op) {
        case Op::Field: return writeFieldValue(c, *row, step, at);
        case Op::Marker: return ksDxfWriteTextSized(c.target, 100, step.text, step.textLength);
        case Op::Thick: return !isSet(c.header->thickness) || ksDxfWriteReal(c.target, 39, c.header->thickness);
        case Op::Ext: return writeExtrusion(c);
        case Op::Int: return ksDxfWriteInt16(c.target, step.group, static_cast<int16_t>(step.value));
        case Op::Real: return ksDxfWriteReal(c.target, step.group, step.value);
        case Op::StopBelow: return true;
        case Op::Call: return step.piece(c);
    }
    return true;
}

// A script step by step.
bool runSteps(const Ctx& c, const Script& s)
{
    for (size_t i = 0; i < s.count; ++i) {
        const Step& step = s.steps[i];
        if (c.version < step.lo || c.version > step.hi)
            continue;
        if (step.op == Op::StopBelow) {
            if (c.version < step.group)
                return true;
            continue;
        }
        const ksEntityField* row = nullptr;
        if (step.op == Op::Field) {
            row = rowOf(rowsOf(c), step.group);
            if (row == nullptr || !ksEntityFieldWritten(*row, c.version))
                continue;
        }
        if (!runStep(c, step, row, row != nullptr ? elementOffset(*row) : 0))
            return false;
    }
    return true;
}

// A script through its plan in the slot.
bool run(const Ctx& c, const Script& s, Plan& slot)
{
    const Plan& plan = planOf(c, s, slot);
    if (!plan.whole)
        return runSteps(c, s);
    for (uint8_t i = 0; i < plan.count; ++i) {
        if (!runStep(c, *plan.items[i].step, plan.items[i].row, plan.items[i].at))
            return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Pieces of the fixed types

bool lineEnds(const Ctx& c)
{
    const auto& line = bodyOf<ksLineBody>(c);
    ZeroZ force(line.start.z != 0.0 || line.end.z != 0.0);
    return ksDxfWritePointVar(c.target, line.start, 10) && ksDxfWritePointVar(c.target, line.end, 11);
}

bool extAlways(const Ctx& c) { return ksDxfWritePoint3Full(c.target, 210, c.header->extrusion); }

bool shapeName(const Ctx& c) { return ksDxfWriteText(c.target, 2, names.shape); }

bool styleIfNotStandard(const Ctx& c)
{
    return names.style->standard || writeName(c, 7, *names.style);
}

// 11, 21 and from AC1006 31 with the insertion's Z, for aligned text.
bool alignment(const Ctx& c, int horizontal, int vertical, const ksPoint3& insertion, const ksPoint2& at)
{
    if (horizontal == 0 && vertical == 0)
        return true;
    if (!ksDxfWritePoint2(c.target, 11, at))
        return false;
    const bool z = c.version >= ksAC1006 && !(ksG->dxfWriteZeroZ == 0 && insertion.z == 0.0);
    return !z || ksDxfWriteReal(c.target, 31, insertion.z);
}

bool textAlignment(const Ctx& c)
{
    const auto& t = bodyOf<ksTextBody>(c);
    return alignment(c, t.horizontalAlign, t.verticalAlign, t.insertion, t.alignment);
}

bool attributeAlignment(const Ctx& c)
{
    const auto& a = bodyOf<ksAttdefBody>(c);  // ATTRIB has the same head
    return alignment(c, a.horizontalAlign, a.verticalAlign, a.insertion, a.alignment);
}

constexpr Step kAttributeTail[] = {
    ifSet(50), ifSet(41, 1.0), ifSet(51), call(styleIfNotStandard), ifSet(71), ifSet(72),
    call(attributeAlignment), ext(), ifSet(74, 0.0, 4, 4),
};
bool attributeTail(const Ctx& c)
{
    static Plan plans[2];  // ATTDEF's, ATTRIB's
    return run(c, script(kAttributeTail), plans[c.header->type == ksEntAttrib ? 1 : 0]);
}

bool blockNameRef(const Ctx& c) { return writeName(c, 2, *names.block); }

bool insertMarker(const Ctx& c)
{
    const auto& insert = bodyOf<ksInsertBody>(c);
    const bool single = insert.rowCount == 1 && insert.columnCount == 1;
    return ksDxfWriteText(c.target, 100, single ? "AcDbBlockReference" : "AcDbMInsertBlock");
}

bool hasAttributes(const Ctx& c)
{
    return bodyOf<ksInsertBody>(c).hasAttributes == 0 || ksDxfWriteInt16(c.target, 66, 1);
}

// The BLOCK of the block the BLOCKS walk has noted.
bool blockEntity(const Ctx& c)
{
    const ksDxfBlockNote& note = ksDxfCurrentBlock();
    const auto& block = bodyOf<ksBlockBody>(c);
    char name[ksEntityNameSize + 16];
    copyName(name, note.name, ksEntityNameSize);
    if (!(c.version < 5 || ksDxfWriteText(c.target, 100, "AcDbBlockBegin")) ||
        !writeBlockName(c, 2, name, note.index) || !ksDxfWriteInt16(c.target, 70, note.flags) ||
        !ksDxfWritePoint2(c.target, 10, {block.basePoint.x, block.basePoint.y}) ||
        !(c.version < 4 || ksDxfWriteReal(c.target, 30, block.basePoint.z)))
        return false;
    if (c.version < 4)
        return true;
    // The body's own name follows the noted one where it is that block's:
    // an anonymous block's is renumbered alike.
    char own[ksEntityNameSize];
    copyName(own, block.name, sizeof own);
    const bool renumbered = own[0] == '*' && ksStrNCompare(own, name, 2) == 0;
    const char* bodyName = renumbered ? name : own;
    // Group 3 repeats the name in the form of group 2.
    if (c.version == ksAC1009) {
        return (block.xrefPath[0] == '\0' || ksDxfWriteText(c.target, 1, block.xrefPath)) &&
               writeBlockName(c, 3, bodyName, note.index);
    }
    return writeBlockName(c, 3, bodyName, note.index) && ksDxfWriteText(c.target, 1, block.xrefPath);
}

bool polylineMarker(const Ctx& c)
{
    const int16_t flags = bodyOf<ksPolylineBody>(c).flags;
    const char* kind = "AcDb2dPolyline";
    if (flags & ksPolyline3d)
        kind = "AcDb3dPolyline";
    if (flags & ksPolylinePolyfaceMesh)
        kind = "AcDbPolyFaceMesh";
    if (flags & ksPolylinePolygonMesh)
        kind = "AcDbPolygonMesh";
    return ksDxfWriteText(c.target, 100, kind);
}

bool vertexMarkers(const Ctx& c)
{
    const auto& v = bodyOf<ksVertexBody>(c);
    if (v.faceIndexCount > 0)
        return ksDxfWriteText(c.target, 100, "AcDbFaceRecord");
    const char* kind = "AcDb2dVertex";
    if (v.flags & 32)
        kind = "AcDb3dPolylineVertex";
    else if ((v.flags & 64) && (v.flags & static_cast<int16_t>(0x8000)))
        kind = "AcDbPolyFaceMeshVertex";
    else if (v.flags & 64)
        kind = "AcDbPolygonMeshVertex";
    return ksDxfWriteText(c.target, 100, "AcDbVertex") && ksDxfWriteText(c.target, 100, kind);
}

constexpr Step kFaceIndices[] = {field(71), field(72), field(73), field(74)};
bool faceIndicesOrExt(const Ctx& c)
{
    static Plan plan;
    return bodyOf<ksVertexBody>(c).faceIndexCount > 0 ? run(c, script(kFaceIndices), plan) : writeExtrusion(c);
}

// Solid model text: lines of the blob, each byte 33 to 126 mirrored.
bool modelerText(const Ctx& c)
{
    if (!ksDxfWriteText(c.target, 100, "AcDbModelerGeometry") || !ksDxfWriteInt16(c.target, 70, 1))
        return false;
    const ksLoc blob = bodyOf<ksModelerBody>(c).satData;
    ksBlobCursor* cursor = ksBlobOpenRead(blob);
    if (cursor == nullptr)
        return blob == 0;
    std::string line;
    bool ok = true;
    bool open = false;
    const auto flush = [&]() {
        if (line.size() > 255) {
            const std::string head = line.substr(0, 255);
            ok = ksDxfWriteText(c.target, 3, head.c_str()) && ksDxfWriteText(c.target, 1, line.c_str() + 255);
        } else {
            ok = ksDxfWriteText(c.target, 1, line.c_str());
        }
        line.clear();
        open = false;
    };
    uint8_t byte = 0;
    uint8_t last = 0;
    while (ok && ksBlobReadByte(cursor, &byte)) {
        if (byte == '\n' && last == '\r') {
            last = 0;
            continue;
        }
        last = byte;
        if (byte == '\r' || byte == '\n') {
            flush();
            continue;
        }
        line.push_back(static_cast<char>(byte >= 33 && byte <= 126 ? 159 - byte : byte));
        open = true;
    }
    if (ok && open)
        flush();
    ksBlobCloseRead(cursor);
    return ok;
}

bool splineRest(const Ctx& c)
{
    const auto& s = bodyOf<ksSplineBody>(c);
    ksFcb* t = c.target;
    if ((s.knotCount != 0 && !ksDxfWriteRealFull(t, 42, s.knotTolerance)) ||
        (s.controlCount != 0 && !ksDxfWriteRealFull(t, 43, s.controlTolerance)) ||
        (s.fitCount != 0 && !ksDxfWriteRealFull(t, 44, s.fitTolerance)) ||
        (!isZero(s.startTangent) && !ksDxfWritePoint3Full(t, 12, s.startTangent)) ||
        (!isZero(s.endTangent) && !ksDxfWritePoint3Full(t, 13, s.endTangent)))
        return false;
    ksBlobCursor* cursor = ksBlobOpenRead(s.data);
    if (cursor == nullptr)
        return s.data == 0 && s.knotCount <= 0 && s.controlCount <= 0 && s.fitCount <= 0;
    bool ok = true;
    double real = 0.0;
    ksPoint3 p{};
    for (int i = 0; ok && i < s.knotCount; ++i)
        ok = ksBlobReadReal(cursor, &real) && ksDxfWriteReal(t, 40, real);
    for (int i = 0; ok && i < s.controlCount; ++i) {
        ok = ksBlobReadPoint(cursor, &p) && ksDxfWritePoint3Full(t, 10, p);
        if (ok && (s.flags & ksSplineWeighted))
            ok = ksBlobReadReal(cursor, &real) && ksDxfWriteRealFull(t, 41, real);
    }
    for (int i = 0; ok && i < s.fitCount; ++i)
        ok = ksBlobReadPoint(cursor, &p) && ksDxfWritePoint3Full(t, 11, p);
    ksBlobCloseRead(cursor);
    if (!ok && ksG->errorNumber != 27)
        ksG->errorNumber = 199;
    return ok;
}

// MTEXT: a long text in pieces of 250 bytes, 3 for all but the last,
// which is 1; line feeds dropped, then coded.
bool writeMtextPiece(ksFcb* target, int16_t group, const char* bytes, size_t n)
{
    char piece[ksEntityNameSize];
    size_t m = 0;
    for (size_t i = 0; i < n && bytes[i] != '\0'; ++i) {
        if (bytes[i] != '\n')
            piece[m++] = bytes[i];
    }
    piece[m] = '\0';
    return ksDxfWriteCoded(target, group, piece);
}

bool mtextText(const Ctx& c)
{
    const auto& m = bodyOf<ksMtextBody>(c);
    if (m.longText == 0)
        return writeMtextPiece(c.target, 1, m.text, strnlen(m.text, sizeof m.text - 1));
    ksBlobCursor* cursor = ksBlobOpenRead(m.longText);
    if (cursor == nullptr)
        return false;
    char piece[250];
    bool ok = true;
    uint32_t left = ksBlobSize(m.longText);
    do {
        const auto n = static_cast<uint16_t>(std::min<uint32_t>(left, sizeof piece));
        ok = ksBlobRead(cursor, piece, n) && writeMtextPiece(c.target, left > n ? 3 : 1, piece, n);
        left -= n;
    } while (ok && left > 0);
    ksBlobCloseRead(cursor);
    return ok;
}

bool mtextStyle(const Ctx& c)
{
    return names.style->text[0] == '\0' || names.style->standard || writeName(c, 7, *names.style);
}

bool dimstyleName(const Ctx& c) { return writeName(c, 3, *names.dimstyle); }

bool unnamedStyle() { return names.dimstyle->text[0] == '\0' || names.dimstyle->unnamed; }

// The arrow size of a leader: DIMASZ of its style, or the DSTYLE override
// (code 41) in the ACAD application's extended data.
double leaderArrowSize(const Ctx& c)
{
    double size = c.source->header ? c.source->header->DIMASZ : 0.0;
    int32_t place = 0;
    const auto& leader = bodyOf<ksLeaderBody>(c);
    if (const ksLoc node = findRecord(c.source, ksListDimStyles, leader.dimstyleHandle, &place))
        size = storedField<double>(node, offsetof(ksDimstyle, DIMASZ));
    ksBlobCursor* cursor = c.header->eed ? ksBlobOpenRead(c.header->eed) : nullptr;
    if (cursor == nullptr)
        return size;
    static ksXdataItem item;
    bool acad = false;
    int stage = 0;  // 1 DSTYLE seen, 2 inside the list, 3 the code 41 read
    while (ksXdataRead(cursor, &item)) {
        if (item.code == 1001) {
            const ksObjHandle app = ksXdataGet<ksObjHandle>(item);
            const ksLoc node = findRecord(c.source, ksListRegApps, app, &place);
            acad = node != 0 && ksStrCompare(nameOf(node, ksListRegApps), "ACAD") == 0;
            stage = 0;
        } else if (!acad) {
            continue;
        } else if (item.code == 1000 && stage == 0) {
            stage = ksStrCompare(ksXdataText(item), "DSTYLE") == 0 ? 1 : 0;
        } else if (item.code == 1002 && stage == 1 && item.value[0] == '{') {
            stage = 2;
        } else if (item.code == 1002 && stage >= 2) {
            stage = 0;
        } else if (item.code == 1070 && stage == 2) {
            stage = ksXdataGet<int16_t>(item) == 41 ? 3 : 2;
        } else if (stage == 3) {
            if (item.code == 1040)
                size = ksXdataGet<double>(item);
            stage = 2;
        }
    }
    ksBlobCloseRead(cursor);
    return size;
}

bool leaderVertices(const Ctx& c)
{
    const auto& leader = bodyOf<ksLeaderBody>(c);
    const int count = std::max<int>(leader.vertexCount, 0);
    const bool hook = leader.hookLine != 0 && count > 0;
    if (!ksDxfWriteInt16(c.target, 76, static_cast<int16_t>(count + (hook ? 1 : 0))))
        return false;
    ksBlobCursor* cursor = ksBlobOpenRead(leader.vertices);
    if (cursor == nullptr)
        return count == 0;
    bool ok = true;
    ksPoint3 p{};
    for (int i = 0; ok && i < count; ++i) {
        ok = ksBlobReadPoint(cursor, &p);
        if (ok && hook && i == count - 1) {
            const double size = leaderArrowSize(c) * (leader.hookDirection != 0 ? 1.0 : -1.0);
            const ksPoint3& d = leader.horizontalDirection;
            ok = ksDxfWritePointKeepZ(c.target, 10, {p.x + d.x * size, p.y + d.y * size, p.z + d.z * size});
        }
        ok = ok && ksDxfWritePointKeepZ(c.target, 10, p);
    }
    ksBlobCloseRead(cursor);
    return ok;
}

bool toleranceText(const Ctx& c)
{
    const char* text = bodyOf<ksToleranceBody>(c).text;
    std::string coded;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\n')
            coded += "^J";
        else
            coded.push_back(*p);
    }
    return ksDxfWriteText(c.target, 1, coded.c_str());
}

// In the form the MLINESTYLE object gives its name.
bool mlineStyleName(const Ctx& c)
{
    return ksDxfWriteName(c.source, c.target, 2, names.mlineStyle, names.mlineStyleIndex);
}

// Per vertex its three points, then each element's two lists.
bool mlineData(const Ctx& c)
{
    const auto& m = bodyOf<ksMlineBody>(c);
    ksBlobCursor* cursor = ksBlobOpenRead(m.data);
    if (cursor == nullptr)
        return m.data == 0;
    bool ok = true;
    ksPoint3 p{};
    int16_t count = 0;
    double real = 0.0;
    for (int v = 0; ok && v < m.vertexCount; ++v) {
        for (int16_t group = 11; ok && group <= 13; ++group)
            ok = ksBlobReadPoint(cursor, &p) && ksDxfWritePoint3Full(c.target, group, p);
        for (int e = 0; ok && e < m.styleCount; ++e) {
            for (int16_t list = 0; ok && list < 2; ++list) {
                ok = ksBlobReadInt16(cursor, &count) && ksDxfWriteInt16(c.target, list ? 75 : 74, count);
                for (int i = 0; ok && i < count; ++i) {
                    ok = ksBlobReadReal(cursor, &real) &&
                         (list ? ksDxfWriteReal(c.target, 42, real) : ksDxfWriteRealFull(c.target, 41, real));
                }
            }
        }
    }
    ksBlobCloseRead(cursor);
    return ok;
}

// The R2000 frame of a dimension's text: the attachment always, the line
// spacing where it isn't the default (1.0, or the value a record of an
// older file is set up with), the measured value where one is known
// (files before R2000 hold none, and 0 stands for that).
bool dimensionTextFrame(ksFcb* t, const ksDimensionBody& d)
{
    ksDimensionBody setUp;
    ksEntityDefaults(nullptr, &setUp, ksEntDimension);
    const bool defaultFactor = d.lineSpacingFactor == 1.0 || d.lineSpacingFactor == setUp.lineSpacingFactor;
    return ksDxfWriteInt16(t, 71, d.attachment) &&
           (d.lineSpacingStyle == setUp.lineSpacingStyle || ksDxfWriteInt16(t, 72, d.lineSpacingStyle)) &&
           (defaultFactor || ksDxfWriteReal(t, 41, d.lineSpacingFactor)) &&
           (d.measurement == 0.0 || ksDxfWriteReal(t, 42, d.measurement));
}

// DIMENSION: the common part, then the geometry by the low bits of 70.
bool dimensionBody(const Ctx& c)
{
    const auto& d = bodyOf<ksDimensionBody>(c);
    ksFcb* t = c.target;
    const int kind = d.dimensionType & 7;
    const auto angle = [&](int16_t group, double value) {
        return !isSetAngle(value) || ksDxfWriteAngle(t, group, value);
    };
    const auto geometry = [&]() {
        if ((kind <= 2 || kind == 5 || kind == 6) &&
            !(ksDxfWritePointVar(t, d.point13, 13) && ksDxfWritePointVar(t, d.point14, 14)))
            return false;
        if (kind >= 2 && kind <= 5 && !ksDxfWritePointVar(t, d.point15, 15))
            return false;
        return kind != 2 || ksDxfWritePointVar(t, d.point16, 16);
    };
    if (!(c.version < 5 || ksDxfWriteText(t, 100, "AcDbDimension")) || !blockNameRef(c) ||
        !ksDxfWritePointVar(t, d.definitionPoint, 10) ||
        !ksDxfWritePoint2(t, 11, {d.textMidpoint.x, d.textMidpoint.y}) ||
        !(c.version < 3 || ksDxfWriteReal(t, 31, d.textMidpoint.z)) ||
        !(d.hasInsertionPoint == 0 || ksDxfWritePointVar(t, d.insertionPoint, 12)) ||
        !(d.dimensionType == 0 || ksDxfWriteInt16(t, 70, d.dimensionType)) ||
        !(c.version < ksAC1015 || dimensionTextFrame(t, d)))
        return false;
    if (c.version < ksAC1012) {
        return (d.text[0] == '\0' || ksDxfWriteCoded(t, 1, d.text)) && geometry() &&
               !((kind == 3 || kind == 4) && isSet(d.leaderLength) && !ksDxfWriteReal(t, 40, d.leaderLength)) &&
               angle(50, d.rotation) &&
               (c.version < 4 || (angle(52, d.extensionOblique) && angle(53, d.textRotation))) &&
               (c.version < 3 || (angle(51, d.horizontalDirection) && writeExtrusion(c))) &&
               (c.version < 4 || unnamedStyle() || dimstyleName(c));
    }
    static constexpr const char* kSubclasses[] = {"AcDbAlignedDimension",       "AcDbAlignedDimension",
                                                  "AcDb2LineAngularDimension",  "AcDbDiametricDimension",
                                                  "AcDbRadialDimension",        "AcDb3PointAngularDimension",
                                                  "AcDbOrdinateDimension"};
    const int subclass = d.dimensionType & 15;
    return angle(51, d.horizontalDirection) && writeExtrusion(c) && angle(53, d.textRotation) &&
           (d.text[0] == '\0' || ksDxfWriteCoded(t, 1, d.text)) && (unnamedStyle() || dimstyleName(c)) &&
           (subclass > 6 || ksDxfWriteText(t, 100, kSubclasses[subclass])) && geometry() &&
           ((kind != 3 && kind != 4) || ksDxfWriteReal(t, 40, d.leaderLength)) && angle(50, d.rotation) &&
           angle(52, d.extensionOblique) && angle(54, d.horizontal) &&
           (subclass != 0 || ksDxfWriteText(t, 100, "AcDbRotatedDimension"));
}

// The name of a layer named by extended data, through the layer names' cache.
EntityName* frozenLayerName(const Ctx& c, const ksObjHandle& handle)
{
    return findName(c.source, ksRefLayer, handle);
}

bool viewportView(const Ctx& c)
{
    const auto& vp = bodyOf<ksViewportBody>(c);
    ksFcb* t = c.target;
    ksBlobCursor* layers = vp.frozenLayerCount > 0 ? ksBlobOpenRead(vp.frozenLayers) : nullptr;
    if (vp.frozenLayerCount > 0 && layers == nullptr)
        return false;
    bool ok = true;
    EntityName* layer = nullptr;
    ksObjHandle handle;
    if (c.version < ksAC1015) {
        const int32_t bits = vp.statusFlags;
        const auto flag = [&](int32_t mask) { return ksDxfWriteInt16(t, 1070, (bits & mask) ? 1 : 0); };
        ZeroZ force(true);
        ok = ksDxfWriteText(t, 1001, "ACAD") && ksDxfWriteText(t, 1000, "MVIEW") && ksDxfWriteChar(t, 1002, '{') &&
             ksDxfWriteInt16(t, 1070, 16) && ksDxfWritePoint3(t, 1010, vp.target) &&
             ksDxfWritePoint3(t, 1010, vp.direction) && ksDxfWriteReal(t, 1040, vp.twist) &&
             ksDxfWriteReal(t, 1040, vp.viewHeight) && ksDxfWriteReal(t, 1040, vp.viewCenter.x) &&
             ksDxfWriteReal(t, 1040, vp.viewCenter.y) && ksDxfWriteReal(t, 1040, vp.lensLength) &&
             ksDxfWriteReal(t, 1040, vp.frontClip) && ksDxfWriteReal(t, 1040, vp.backClip) &&
             ksDxfWriteInt16(t, 1070, static_cast<int16_t>(bits & 31)) && ksDxfWriteInt16(t, 1070, vp.circleZoom) &&
             flag(128) && flag(32) && flag(256) && flag(512) && flag(1024) && flag(4096 | 8192) &&
             ksDxfWriteReal(t, 1040, vp.snapAngle) && ksDxfWriteReal(t, 1040, vp.snapBase.x) &&
             ksDxfWriteReal(t, 1040, vp.snapBase.y) && ksDxfWriteReal(t, 1040, vp.snapSpacing.x) &&
             ksDxfWriteReal(t, 1040, vp.snapSpacing.y) && ksDxfWriteReal(t, 1040, vp.gridSpacing.x) &&
             ksDxfWriteReal(t, 1040, vp.gridSpacing.y) && flag(2048) && ksDxfWriteChar(t, 1002, '{');
        for (int32_t i = 0; ok && i < vp.frozenLayerCount; ++i) {
            ok = ksBlobReadHandle(layers, &handle) && (layer = frozenLayerName(c, handle)) != nullptr &&
                 writeName(c, 1003, *layer);
            if (!ok && ksG->errorNumber != 27)
                ksG->errorNumber = 66;
        }
        ok = ok && ksDxfWriteChar(t, 1002, '}') && ksDxfWriteChar(t, 1002, '}');
        ksBlobCloseRead(layers);
        return ok;
    }
    ok = ksDxfWritePoint2(t, 12, vp.viewCenter) && ksDxfWritePoint2(t, 13, vp.snapBase) &&
         ksDxfWritePoint2(t, 14, vp.snapSpacing) && ksDxfWritePoint2(t, 15, vp.gridSpacing) &&
         ksDxfWritePoint3(t, 16, vp.direction) && ksDxfWritePoint3(t, 17, vp.target) &&
         ksDxfWriteReal(t, 42, vp.lensLength) && ksDxfWriteReal(t, 43, vp.frontClip) &&
         ksDxfWriteReal(t, 44, vp.backClip) && ksDxfWriteReal(t, 45, vp.viewHeight) &&
         ksDxfWriteAngle(t, 50, vp.snapAngle) && ksDxfWriteAngle(t, 51, vp.twist) &&
         ksDxfWriteInt16(t, 72, vp.circleZoom);
    for (int32_t i = 0; ok && i < vp.frozenLayerCount; ++i)
        ok = ksBlobReadHandle(layers, &handle) && ksDxfWriteHandle(t, 341, handle);
    ksBlobCloseRead(layers);
    return ok && ksDxfWriteInt32(t, 90, vp.statusFlags) && ksDxfWriteHandle(t, 340, vp.clipBoundaryHandle) &&
           ksDxfWriteText(t, 1, vp.plotStyleName) && ksDxfWriteInt16(t, 281, vp.renderMode) &&
           ksDxfWriteInt16(t, 71, vp.ucsPerViewport) && ksDxfWriteInt16(t, 74, vp.ucsIcon) &&
           ksDxfWritePoint3(t, 110, vp.ucsOrigin) && ksDxfWritePoint3(t, 111, vp.ucsXAxis) &&
           ksDxfWritePoint3(t, 112, vp.ucsYAxis) && ksDxfWriteHandle(t, 345, vp.baseUcsHandle) &&
           ksDxfWriteHandle(t, 346, vp.namedUcsHandle) && ksDxfWriteInt16(t, 79, vp.orthoType) &&
           ksDxfWriteReal(t, 146, vp.elevation);
}

// ---------------------------------------------------------------------------
// The scripts of the fixed types

constexpr Step kLine[] = {marker("AcDbLine"), thick(), call(lineEnds), ext()};
constexpr Step kPoint[] = {marker("AcDbPoint"), var(10), thick(), ext(), ifSet(50)};
constexpr Step kCircle[] = {marker("AcDbCircle"), thick(), var(10), field(40), ext()};
constexpr Step kArc[] = {marker("AcDbCircle"), thick(), var(10), field(40), ext(5, 7),
                         marker("AcDbArc"), field(50), field(51), ext(3, 4)};
constexpr Step kShape[] = {marker("AcDbShape"), thick(), var(10), field(40), call(shapeName),
                           ifSet(50), ifSet(41, 1.0), ifSet(51), ext()};
constexpr Step kTrace[] = {marker("AcDbTrace"), var(10), var(11), var(12), var(13), thick(), ext()};
constexpr Step k3dLine[] = {marker("AcDbLine"), keep(10), keep(11), ext()};
constexpr Step k3dFace[] = {marker("AcDbFace"), keep(10), keep(11), keep(12), keep(13), ifSet(70)};
constexpr Step kEllipse[] = {marker("AcDbEllipse"), keep(10), point(11), call(extAlways),
                             field(40), full(41), full(42)};
constexpr Step kSpline[] = {marker("AcDbSpline"), call(extAlways), field(70), field(71), field(72),
                            field(73), field(74), call(splineRest)};
constexpr Step kRay[] = {marker("AcDbRay"), keep(10), point(11)};
constexpr Step kXline[] = {marker("AcDbXline"), keep(10), point(11)};
constexpr Step kModeler[] = {call(modelerText, 5)};
constexpr Step kText[] = {marker("AcDbText"), thick(), var(10), field(40), field(1), ifSet(50), ifSet(41, 1.0),
                          ifSet(51), call(styleIfNotStandard), ifSet(71), ifSet(72), call(textAlignment), ext(),
                          marker("AcDbText"), ifSet(73)};
constexpr Step kBlock[] = {call(blockEntity)};
constexpr Step kEndblk[] = {marker("AcDbBlockEnd")};
constexpr Step kInsert[] = {call(insertMarker, 5), call(hasAttributes), call(blockNameRef), var(10),
                            ifSet(41, 1.0), ifSet(42, 1.0), ifSet(50, 0.0, 0, 4), ifSet(43, 1.0, 0, 4),
                            ifSet(43, 1.0, 5), ifSet(50, 0.0, 5), ifSet(70, 1.0), ifSet(71, 1.0), ifSet(44),
                            ifSet(45), ext()};
constexpr Step kAttdef[] = {marker("AcDbText"), var(10), field(40), field(1), call(attributeTail, 5),
                            marker("AcDbAttributeDefinition"), field(3), field(2), field(70), ifSet(73),
                            call(attributeTail, 0, 4), ifSet(74, 0.0, 5)};
constexpr Step kAttrib[] = {marker("AcDbText"), var(10), field(40), field(1), field(2, 0, 4), field(70, 0, 4),
                            ifSet(73, 0.0, 0, 4), call(attributeTail), marker("AcDbAttribute"), field(2, 5),
                            field(70, 5), ifSet(74, 0.0, 5)};
constexpr Step kPolyline[] = {call(polylineMarker, 5), constInt(66, 1), constReal(10, 0.0, 3), constReal(20, 0.0, 3),
                              field(30, 3), thick(), ifSet(70), ifSet(40), ifSet(41), stopBelow(3), ext(),
                              ifSet(71), ifSet(72), ifSet(73), ifSet(74), ifSet(75)};
constexpr Step kVertex[] = {call(vertexMarkers, 5), var(10), field(40), field(41), ifSet(42), ifSet(70),
                            ifSet(50), ext(3, 3), call(faceIndicesOrExt, 4)};
constexpr Step kDimension[] = {call(dimensionBody)};
constexpr Step kViewport[] = {marker("AcDbViewport"), field(68, 0, 4), var(10), field(40), field(41),
                              field(68, 5), field(69), call(viewportView)};
bool mtextDirection(const Ctx& c)
{
    const ksPoint3& d = bodyOf<ksMtextBody>(c).direction;
    return isUnitX(d) || ksDxfWritePointKeepZ(c.target, 11, d);
}
constexpr Step kMtext[] = {marker("AcDbMText"), keep(10), field(40), field(41), field(71), field(72),
                           call(mtextText), call(mtextStyle), ext(), call(mtextDirection)};
constexpr Step kLeader[] = {marker("AcDbLeader"), call(dimstyleName), ifSet(71, 1.0), ifSet(72), field(73),
                            field(74), field(75), field(40), ifSet(41), call(leaderVertices), field(77),
                            ifSet(340), point(211, Test::NotUnitX), point(212, Test::NotZeroVec),
                            point(213, Test::NotZeroVec), ext()};
constexpr Step kTolerance[] = {marker("AcDbFcf"), call(dimstyleName), keep(10), call(toleranceText), ext(),
                               keep(11, Test::NotUnitX)};
constexpr Step kMline[] = {marker("AcDbMline"), call(mlineStyleName), field(340), field(40), field(70), field(71),
                           field(72), field(73), point(10), call(extAlways), call(mlineData)};
constexpr Step kNone[] = {stopBelow(0)};

constexpr Script kScripts[ksEntityFixedCount] = {
    script(kNone),     script(kLine),      script(kPoint),    script(kCircle),    script(kShape),
    script(kEllipse),  script(kSpline),    script(kText),     script(kArc),       script(kTrace),
    script(kModeler),  script(kTrace),     script(kBlock),    script(kEndblk),    script(kInsert),
    script(kAttdef),   script(kAttrib),    script(kNone),     script(kNone),      script(kPolyline),
    script(kVertex),   script(k3dLine),    script(k3dFace),   script(kDimension), script(kViewport),
    script(kModeler),  script(kRay),       script(kXline),    script(kMtext),     script(kLeader),
    script(kTolerance), script(kMline),    script(kNone),     script(kNone),      script(kNone),
    script(kModeler),
};

// ---------------------------------------------------------------------------
// Class entities, from R13 on

bool writeLwpolyline(const Ctx& c)
{
    const auto& lw = bodyOf<ksLwpolyline>(c);
    ksFcb* t = c.target;
    if (!ksDxfWriteText(t, 100, "AcDbPolyline") || !ksDxfWriteInt32(t, 90, lw.vertexCount) ||
        !ksDxfWriteInt16(t, 70, ksLwpolylineDxfFlags(lw.flags)) ||
        !(lw.constantWidth == 0.0 || ksDxfWriteReal(t, 43, lw.constantWidth)) ||
        !(lw.elevation == 0.0 || ksDxfWriteReal(t, 38, lw.elevation)) ||
        !(c.header->thickness == 0.0 || ksDxfWriteReal(t, 39, c.header->thickness)))
        return false;
    ksBlobCursor* cursor = lw.vertexCount > 0 ? ksBlobOpenRead(lw.vertices) : nullptr;
    if (lw.vertexCount > 0 && cursor == nullptr)
        return false;
    bool ok = true;
    ksLwVertex v{};
    for (int32_t i = 0; ok && i < lw.vertexCount; ++i) {
        ok = ksLwVertexRead(cursor, lw.flags, &v) && ksDxfWritePoint2(t, 10, v.point) &&
             (!(lw.flags & ksLwHasWidths) ||
              (ksDxfWriteReal(t, 40, v.startWidth) && ksDxfWriteReal(t, 41, v.endWidth))) &&
             (!(lw.flags & ksLwHasBulges) || v.bulge == 0.0 || ksDxfWriteReal(t, 42, v.bulge));
    }
    ksBlobCloseRead(cursor);
    return ok && writeExtrusion(c);
}

bool writeOle2Frame(const Ctx& c)
{
    const auto& o = bodyOf<ksOle2Frame>(c);
    ksFcb* t = c.target;
    return ksDxfWriteText(t, 100, "AcDbOle2Frame") && ksDxfWriteInt16(t, 70, o.version) &&
           ksDxfWritePointKeepZ(t, 10, o.upperLeft) && ksDxfWritePointKeepZ(t, 11, o.lowerRight) &&
           ksDxfWriteInt16(t, 71, 2) && ksDxfWriteInt16(t, 72, 0) && ksDxfWriteInt16(t, 73, o.oleType) &&
           ksDxfWriteInt32(t, 90, static_cast<int32_t>(o.data ? ksBlobSize(o.data) : 0)) &&
           writeChunks(t, 310, o.data, 32) && ksDxfWriteText(t, 1, "OLE");
}

bool writeArcAlignedText(const Ctx& c)
{
    const auto& a = bodyOf<ksArcAlignedText>(c);
    ksFcb* t = c.target;
    if (!writeGraphics(t, a.graphics) || !ksDxfWriteText(t, 100, "AcDbArcAlignedText") ||
        !ksDxfWriteText(t, 1, a.text) || !ksDxfWriteText(t, 2, a.fontName) || !ksDxfWriteText(t, 3, a.bigFontName) ||
        !writeName(c, 7, *names.style) || !ksDxfWritePoint3(t, 10, a.center))
        return false;
    const double reals[] = {a.radius, a.widthFactor, a.height, a.spacing, a.offsetFromArc, a.rightOffset, a.leftOffset};
    for (int i = 0; i < 7; ++i) {
        if (!ksDxfWriteReal(t, static_cast<int16_t>(40 + i), reals[i]))
            return false;
    }
    if (!ksDxfWriteAngle(t, 50, a.startAngle) || !ksDxfWriteAngle(t, 51, a.endAngle))
        return false;
    for (int i = 0; i < 10; ++i) {
        if (!ksDxfWriteInt16(t, static_cast<int16_t>(70 + i), a.flags[i]))
            return false;
    }
    return ksDxfWriteInt32(t, 90, a.color) && ksDxfWritePoint3Full(t, 210, c.header->extrusion) &&
           ksDxfWriteInt16(t, 280, a.wizard) && ksDxfWriteHandle(t, 330, a.arcHandle);
}

bool writeImage(const Ctx& c, bool wipeout)
{
    const auto& im = bodyOf<ksImage>(c);
    ksFcb* t = c.target;
    bool ok = writeGraphics(t, im.graphics) && ksDxfWriteText(t, 100, wipeout ? "AcDbWipeout" : "AcDbRasterImage") &&
              ksDxfWriteInt32(t, 90, im.classVersion) && ksDxfWritePoint3(t, 10, im.insertion) &&
              ksDxfWritePoint3(t, 11, im.uVector) && ksDxfWritePoint3(t, 12, im.vVector) &&
              ksDxfWritePoint2(t, 13, im.size) &&
              (wipeout ? ksDxfWriteText(t, 340, "0") : ksDxfWriteHandle(t, 340, im.imageDefHandle)) &&
              ksDxfWriteInt16(t, 70, im.display) && ksDxfWriteInt16(t, 280, im.clipState) &&
              ksDxfWriteInt16(t, 281, im.brightness) && ksDxfWriteInt16(t, 282, im.contrast) &&
              ksDxfWriteInt16(t, 283, im.fade) &&
              (wipeout ? ksDxfWriteText(t, 360, "0") : ksDxfWriteHandle(t, 360, im.imageDefReactorHandle)) &&
              ksDxfWriteInt16(t, 71, im.clipType) && ksDxfWriteInt32(t, 91, im.clipVertexCount);
    if (!ok)
        return false;
    if (im.clipType == 1)
        return ksDxfWritePoint2(t, 14, im.clipCorner1) && ksDxfWritePoint2(t, 14, im.clipCorner2);
    ksBlobCursor* cursor = im.clipVertexCount > 0 ? ksBlobOpenRead(im.clipVertices) : nullptr;
    if (im.clipVertexCount > 0 && cursor == nullptr)
        return false;
    ksPoint2 p{};
    for (int32_t i = 0; ok && i < im.clipVertexCount; ++i)
        ok = ksPoint2Read(cursor, &p) && ksDxfWritePoint2(t, 14, p);
    ksBlobCloseRead(cursor);
    return ok;
}

bool writeRtext(const Ctx& c)
{
    const auto& r = bodyOf<ksRtext>(c);
    ksFcb* t = c.target;
    return writeGraphics(t, r.graphics) && ksDxfWriteText(t, 100, "RText") && ksDxfWritePoint3(t, 10, r.insertion) &&
           ksDxfWritePoint3Full(t, 210, c.header->extrusion) && ksDxfWriteReal(t, 50, r.rotation) &&
           ksDxfWriteReal(t, 40, r.height) && writeName(c, 7, *names.style) && ksDxfWriteInt16(t, 70, r.rtextFlags) &&
           ksDxfWriteText(t, 1, r.contents);
}

// An elliptic edge's parameter as the angle DXF has.
double ellipseAngle(double ratio, double parameter)
{
    return std::atan2(ratio * std::sin(parameter), std::cos(parameter));
}

bool writeHatchEdge(ksFcb* t, ksBlobCursor* cursor, const ksHatchEdge& e)
{
    if (!ksDxfWriteInt16(t, 72, e.kind))
        return false;
    switch (e.kind) {
        case ksHatchLine:
            return ksDxfWritePoint2Full(t, 10, e.first) && ksDxfWritePoint2Full(t, 11, e.second);
        case ksHatchArc:
            return ksDxfWritePoint2Full(t, 10, e.first) && ksDxfWriteReal(t, 40, e.radius) &&
                   ksDxfWriteAngle(t, 50, e.start) && ksDxfWriteAngle(t, 51, e.end) &&
                   ksDxfWriteInt16(t, 73, e.counterClockwise);
        case ksHatchEllipse: {
            double start = ellipseAngle(e.radius, e.start);
            double end = ellipseAngle(e.radius, e.end);
            while (start < 0.0 || end < 0.0) {
                start += kTwoPi;
                end += kTwoPi;
            }
            return ksDxfWritePoint2Full(t, 10, e.first) && ksDxfWritePoint2Full(t, 11, e.second) &&
                   ksDxfWriteReal(t, 40, e.radius) && ksDxfWriteAngle(t, 50, start) && ksDxfWriteAngle(t, 51, end) &&
                   ksDxfWriteInt16(t, 73, e.counterClockwise);
        }
        default: {
            bool ok = ksDxfWriteInt32(t, 94, e.degree) && ksDxfWriteInt16(t, 73, e.rational) &&
                      ksDxfWriteInt16(t, 74, e.periodic) && ksDxfWriteInt32(t, 95, e.knotCount) &&
                      ksDxfWriteInt32(t, 96, e.controlCount);
            double knot = 0.0;
            for (int32_t i = 0; ok && i < e.knotCount; ++i)
                ok = ksBlobReadReal(cursor, &knot) && ksDxfWriteReal(t, 40, knot);
            ksHatchControl control{};
            for (int32_t i = 0; ok && i < e.controlCount; ++i) {
                ok = ksHatchControlRead(cursor, e.rational, &control) && ksDxfWritePoint2Full(t, 10, control.point) &&
                     (e.rational == 0 || ksDxfWriteRealFull(t, 42, control.weight));
            }
            return ok;
        }
    }
}

bool writeHatchLoops(const Ctx& c, bool* pixel)
{
    const auto& h = bodyOf<ksHatch>(c);
    ksFcb* t = c.target;
    ksBlobCursor* cursor = h.loopCount > 0 ? ksBlobOpenRead(h.boundary) : nullptr;
    if (h.loopCount > 0 && cursor == nullptr)
        return false;
    ksBlobCursor* handles = h.boundaryHandles ? ksBlobOpenRead(h.boundaryHandles) : nullptr;
    bool ok = true;
    for (int32_t l = 0; ok && l < h.loopCount; ++l) {
        ksHatchLoop loop{};
        ok = ksHatchLoopRead(cursor, &loop) && ksDxfWriteInt32(t, 92, loop.flags);
        *pixel |= (loop.flags & ksHatchPixelLoop) != 0;
        if (ok && (loop.flags & ksHatchPolylineLoop)) {
            ok = ksDxfWriteInt16(t, 72, loop.hasBulge) && ksDxfWriteInt16(t, 73, loop.closed) &&
                 ksDxfWriteInt32(t, 93, loop.count);
            ksHatchVertex v{};
            for (int32_t i = 0; ok && i < loop.count; ++i) {
                ok = ksHatchVertexRead(cursor, loop.hasBulge, &v) && ksDxfWritePoint2Full(t, 10, v.point) &&
                     (loop.hasBulge == 0 || ksDxfWriteRealFull(t, 42, v.bulge));
            }
        } else if (ok) {
            ok = ksDxfWriteInt32(t, 93, loop.count);
            ksHatchEdge edge{};
            for (int32_t i = 0; ok && i < loop.count; ++i)
                ok = ksHatchEdgeRead(cursor, &edge) && writeHatchEdge(t, cursor, edge);
        }
        int32_t objects = 0;
        ok = ok && ksHatchLoopEndRead(cursor, &objects) && ksDxfWriteInt32(t, 97, objects);
        ksObjHandle handle{};
        for (int32_t i = 0; ok && i < objects; ++i)
            ok = ksBlobReadHandle(handles, &handle) && ksDxfWriteHandle(t, 330, handle);
    }
    ksBlobCloseRead(handles);
    ksBlobCloseRead(cursor);
    if (!ok && ksG->errorNumber != 27)
        ksG->errorNumber = 199;
    return ok;
}

bool writeHatchPattern(const Ctx& c)
{
    const auto& h = bodyOf<ksHatch>(c);
    ksFcb* t = c.target;
    ksBlobCursor* cursor = h.patternLineCount > 0 ? ksBlobOpenRead(h.patternLines) : nullptr;
    if (h.patternLineCount > 0 && cursor == nullptr)
        return false;
    bool ok = true;
    for (int i = 0; ok && i < h.patternLineCount; ++i) {
        ksHatchPatternLine line{};
        ok = ksHatchPatternLineRead(cursor, &line) && ksDxfWriteAngle(t, 53, line.angle) &&
             ksDxfWriteReal(t, 43, line.base.x) && ksDxfWriteReal(t, 44, line.base.y) &&
             ksDxfWriteRealFull(t, 45, line.offset.x) && ksDxfWriteRealFull(t, 46, line.offset.y) &&
             ksDxfWriteInt16(t, 79, line.dashCount);
        double dash = 0.0;
        for (int d = 0; ok && d < line.dashCount; ++d)
            ok = ksBlobReadReal(cursor, &dash) && ksDxfWriteReal(t, 49, dash);
    }
    ksBlobCloseRead(cursor);
    return ok;
}

bool writeHatch(const Ctx& c)
{
    const auto& h = bodyOf<ksHatch>(c);
    ksFcb* t = c.target;
    bool pixel = false;
    const bool solid = h.solidFill != 0;
    if (!ksDxfWriteText(t, 100, "AcDbHatch") || !ksDxfWritePoint3Full(t, 10, h.elevation) ||
        !ksDxfWritePoint3Full(t, 210, c.header->extrusion) || !ksDxfWriteText(t, 2, h.patternName) ||
        !ksDxfWriteInt16(t, 70, h.solidFill) || !ksDxfWriteInt16(t, 71, h.associative) ||
        !ksDxfWriteInt32(t, 91, h.loopCount) || !writeHatchLoops(c, &pixel) ||
        !ksDxfWriteInt16(t, 75, h.hatchStyle) || !ksDxfWriteInt16(t, 76, h.patternType) ||
        !(solid || ksDxfWriteAngle(t, 52, h.patternAngle)) ||
        !(!isSet(h.patternScale) || ksDxfWriteReal(t, 41, h.patternScale)) ||
        !(solid || (ksDxfWriteInt16(t, 77, h.patternDouble) && ksDxfWriteInt16(t, 78, h.patternLineCount) &&
                    writeHatchPattern(c))) ||
        !(!pixel || ksDxfWriteReal(t, 47, h.pixelSize)) || !ksDxfWriteInt32(t, 98, h.seedCount))
        return false;
    ksBlobCursor* cursor = h.seedCount > 0 ? ksBlobOpenRead(h.seedPoints) : nullptr;
    if (h.seedCount > 0 && cursor == nullptr)
        return false;
    bool ok = true;
    ksPoint2 p{};
    for (int32_t i = 0; ok && i < h.seedCount; ++i)
        ok = ksPoint2Read(cursor, &p) && ksDxfWritePoint2Full(t, 10, p);
    ksBlobCloseRead(cursor);
    return ok;
}

// ---------------------------------------------------------------------------
// The proxy

// Bits of a blob, read from the top bit of each byte.
struct BitReader {
    ksBlobCursor* cursor;
    uint8_t byte = 0;
    int bitsLeft = 0;
    bool ok = true;

    unsigned bit()
    {
        if (bitsLeft == 0) {
            if (!ksBlobReadByte(cursor, &byte)) {
                ok = false;
                return 0;
            }
            bitsLeft = 8;
        }
        --bitsLeft;
        return (byte >> bitsLeft) & 1u;
    }
    uint8_t rc()
    {
        unsigned v = 0;
        for (int i = 0; i < 8; ++i)
            v = (v << 1) | bit();
        return static_cast<uint8_t>(v);
    }
    uint64_t raw(int bytes)
    {
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i)
            v |= static_cast<uint64_t>(rc()) << (8 * i);
        return v;
    }
    int16_t bs()
    {
        const unsigned prefix = bit() << 1 | bit();
        switch (prefix) {
            case 0: return static_cast<int16_t>(raw(2));
            case 1: return rc();
            case 2: return 0;
            default: return 256;
        }
    }
    int32_t bl()
    {
        const unsigned prefix = bit() << 1 | bit();
        if (prefix == 0)
            return static_cast<int32_t>(raw(4));
        return prefix == 1 ? rc() : 0;
    }
    double bd()
    {
        const unsigned prefix = bit() << 1 | bit();
        if (prefix >= 2)
            return 0.0;
        if (prefix == 1)
            return 1.0;
        const uint64_t bits = raw(8);
        double value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
    std::string text()
    {
        const auto length = static_cast<uint16_t>(bs());
        std::string s;
        for (uint16_t i = 0; ok && i < length; ++i)
            s.push_back(static_cast<char>(rc()));
        return s;
    }
    ksObjHandle handle()
    {
        const uint8_t head = rc();
        ksObjHandle h{};
        const int count = std::min(head & 15, 8);
        for (int i = 0; i < count; ++i)
            h.bytes[8 - count + i] = rc();
        return h;
    }
};

bool inRange(int code, int lo, int hi) { return code >= lo && code <= hi; }

// The class a proxy's data names (BL 498, BL the class number); its DXF
// name into `name`, or false when the data doesn't name a known class.
bool proxyClassName(ksFcb* source, const ksProxyEntity& p, char* name)
{
    ksBlobCursor* cursor = p.data ? ksBlobOpenRead(p.data) : nullptr;
    if (cursor == nullptr)
        return false;
    BitReader bits{cursor};
    const int32_t marker = bits.bl();
    const int32_t number = bits.bl();
    ksBlobCloseRead(cursor);
    ksClass cls;
    if (!bits.ok || marker != ksEntProxy || number < ksEntClassBase || number > INT16_MAX ||
        !ksClassFindNumber(source, static_cast<int16_t>(number), &cls))
        return false;
    copyName(name, cls.dxfName, ksEntityNameSize);
    return true;
}

// The stored groups of a proxy whose data names a known class.
bool replayProxy(const Ctx& c)
{
    const auto& p = bodyOf<ksProxyEntity>(c);
    ksFcb* t = c.target;
    ksBlobCursor* data = ksBlobOpenRead(p.data);
    if (data == nullptr)
        return false;
    ksBlobCursor* refs = p.references ? ksBlobOpenRead(p.references) : nullptr;
    BitReader bits{data};
    bits.bl();
    bits.bl();
    bool ok = true;
    for (int code = bits.bs(); ok && bits.ok && code != 0; code = bits.bs()) {
        const auto group = static_cast<int16_t>(code);
        if (inRange(code, 10, 18) || code == 210) {
            const ksPoint3 q{bits.bd(), bits.bd(), bits.bd()};
            ok = ksDxfWritePoint3(t, group, q);
        } else if (inRange(code, 40, 48)) {
            ok = ksDxfWriteReal(t, group, bits.bd());
        } else if (inRange(code, 50, 58)) {
            ok = ksDxfWriteAngle(t, group, bits.bd());
        } else if (inRange(code, 70, 78) || inRange(code, 170, 179) || inRange(code, 270, 289)) {
            ok = ksDxfWriteInt16(t, group, bits.bs());
        } else if (inRange(code, 90, 99)) {
            ok = ksDxfWriteInt32(t, group, bits.bl());
        } else if (inRange(code, 1, 4) || code == 100 || inRange(code, 300, 309)) {
            ok = ksDxfWriteText(t, group, bits.text().c_str());
        } else if (inRange(code, 320, 329)) {
            ok = ksDxfWriteHandle(t, 5, bits.handle());
        } else if (inRange(code, 330, 369)) {
            ksObjHandle handle{};
            uint8_t kind = 0;
            if (refs != nullptr && ksProxyReferenceRead(refs, &handle, &kind))
                ok = ksDxfWriteHandle(t, group, handle);
        }
    }
    ksBlobCloseRead(refs);
    ksBlobCloseRead(data);
    return ok;
}

// The form of a class nobody here writes: the proxy's own groups.
bool fixedProxy(const Ctx& c)
{
    const auto& p = bodyOf<ksProxyEntity>(c);
    ksFcb* t = c.target;
    bool ok = ksDxfWriteText(t, 100, c.version < ksAC1014 ? "AcDbZombieEntity" : "AcDbProxyEntity") &&
              ksDxfWriteInt32(t, 90, ksEntProxy) && ksDxfWriteInt32(t, 91, p.applicationClass) &&
              (c.version < ksAC1015 ||
               (ksDxfWriteInt32(t, 95, p.originalClass) && ksDxfWriteInt16(t, 70, p.flags))) &&
              writeGraphics(t, p.graphics) && ksDxfWriteInt32(t, 93, p.dataBitLength) &&
              writeChunks(t, 310, p.data, 127);
    ksBlobCursor* refs = ok && p.references ? ksBlobOpenRead(p.references) : nullptr;
    ksObjHandle handle{};
    uint8_t kind = 0;
    while (ok && refs != nullptr && ksProxyReferenceRead(refs, &handle, &kind))
        ok = ksDxfWriteHandle(t, static_cast<int16_t>(320 + 10 * kind), handle);
    ksBlobCloseRead(refs);
    return ok && ksDxfWriteInt32(t, 94, 0);
}

// ---------------------------------------------------------------------------
// Head and extended data

const char* const kClassNames[] = {"",      "LWPOLYLINE", "HATCH", "IMAGE",           "WIPEOUT",
                                   "OLE2FRAME", "RTEXT",  "ARCALIGNEDTEXT", "ACAD_PROXY_ENTITY"};

double firstZ(const ksEntityHeader& header, const void* body)
{
    switch (header.type) {
        case ksEntLine: case ksEnt3dLine: return static_cast<const ksLineBody*>(body)->start.z;
        case ksEntPoint: return static_cast<const ksPointBody*>(body)->position.z;
        case ksEntCircle: case ksEntArc: return static_cast<const ksCircleBody*>(body)->center.z;
        case ksEntShape: return static_cast<const ksShapeBody*>(body)->insertion.z;
        case ksEntText: return static_cast<const ksTextBody*>(body)->insertion.z;
        case ksEntInsert: return static_cast<const ksInsertBody*>(body)->insertion.z;
        case ksEntAttdef: case ksEntAttrib: return static_cast<const ksAttdefBody*>(body)->insertion.z;
        case ksEntTrace: case ksEntSolid: case ksEnt3dFace: return static_cast<const ksTraceBody*>(body)->corner1.z;
        case ksEntBlock: return static_cast<const ksBlockBody*>(body)->basePoint.z;
        case ksEntVertex: return static_cast<const ksVertexBody*>(body)->point.z;
        case ksEntPolyline: return static_cast<const ksPolylineBody*>(body)->elevation;
        case ksEntDimension: return static_cast<const ksDimensionBody*>(body)->textMidpoint.z;
        default: return 0.0;
    }
}

bool writeHead(const Ctx& c, const char* name)
{
    ksFcb* t = c.target;
    const ksEntityHeader& h = *c.header;
    if (!ksDxfWriteText(t, 0, name))
        return false;
    if (c.version >= ksAC1012) {
        if (!ksDxfWriteHandle(t, 5, h.handle))
            return false;
        if (!ksHandleIsNull(h.xdictHandle) &&
            !(ksDxfWriteText(t, 102, "{ACAD_XDICTIONARY") && ksDxfWriteHandle(t, 360, h.xdictHandle) &&
              ksDxfWriteText(t, 102, "}")))
            return false;
        // Every reactor: an entity that several objects watch (the
        // boundary of more than one associative hatch) keeps them all.
        if (h.reactors != 0 && (c.version >= ksAC1014 || h.type >= ksEntProxy) &&
            !ksDxfWriteReactorGroups(t, std::max<int32_t>(h.reactorCount, 1), h.reactors))
            return false;
        if (!ksDxfWriteText(t, 100, "AcDbEntity") ||
            !(!(h.flags & ksEntityPaperSpace) || ksDxfWriteInt16(t, 67, 1)))
            return false;
    }
    if (!writeName(c, 8, *names.layer) ||
        !(c.version < ksAC1015 || h.lineweight == -1 || h.lineweight == 28 ||
          ksDxfWriteInt16(t, 370, h.lineweight)) ||
        !(names.linetype->byLayer || writeName(c, 6, *names.linetype)) ||
        !(h.color == 256 || ksDxfWriteInt16(t, 62, h.color)) ||
        !(h.linetypeScale == 1.0 || ksDxfWriteReal(t, 48, h.linetypeScale)))
        return false;
    const bool z38 = c.version < ksAC1006 || (c.version == ksAC1006 && h.type == ksEntBlock);
    if (z38) {
        const double z = firstZ(h, c.body);
        if (z != 0.0 && !ksDxfWriteReal(t, 38, z))
            return false;
    }
    if (c.version < ksAC1012 && isSet(h.thickness) && !ksDxfWriteReal(t, 39, h.thickness))
        return false;
    if (c.version == ksAC1006 || c.version == ksAC1009) {
        const bool handles = t->header != nullptr && t->header->HANDLING != 0;
        const bool inBlocks = c.version == ksAC1006 && ksDxfCurrentBlock().inBlocksSection;
        if (handles && !inBlocks && !ksHandleIsNull(h.handle) && !ksDxfWriteHandle(t, 5, h.handle))
            return false;
        if ((h.flags & ksEntityPaperSpace) && !ksDxfWriteInt16(t, 67, 1))
            return false;
    }
    return c.version < ksAC1012 || !(h.flags & ksEntityInvisible) || ksDxfWriteInt16(t, 60, 1);
}

// One extended data item; a 1003 without a layer is dropped.
bool writeEedItem(const Ctx& c, ksXdataItem& item)
{
    ksFcb* t = c.target;
    switch (item.code) {
        case 1000: return ksDxfWriteCoded(t, 1000, ksXdataText(item));
        case 1001: {
            int32_t place = 0;
            const ksLoc node = findRecord(c.source, ksListRegApps, ksXdataGet<ksObjHandle>(item), &place);
            if (node == 0) {
                ksG->errorNumber = 71;
                return false;
            }
            return ksDxfWriteText(t, 1001, nameOf(node, ksListRegApps));
        }
        case 1002: return ksDxfWriteChar(t, 1002, static_cast<char>(item.value[0]));
        case 1003: {
            const auto handle = ksXdataGet<ksObjHandle>(item);
            EntityName* layer = ksHandleIsNull(handle) ? nullptr : frozenLayerName(c, handle);
            return layer == nullptr || writeName(c, 1003, *layer);
        }
        case 1004: {
            const uint32_t chunk = t->fileType == 2 ? 127 : 255;
            for (int32_t at = 0; at < item.length || at == 0; at += static_cast<int32_t>(chunk)) {
                const auto n = static_cast<uint8_t>(std::min<int32_t>(item.length - at, static_cast<int32_t>(chunk)));
                if (!ksDxfWriteBytes(t, 1004, item.value + at, n))
                    return false;
                if (item.length == 0)
                    break;
            }
            return true;
        }
        case 1005: return ksDxfWriteHandle(t, 1005, ksXdataGet<ksObjHandle>(item));
        case 1010: case 1011: case 1012: case 1013:
            return ksDxfWritePoint3(t, item.code, ksXdataGet<ksPoint3>(item));
        case 1040: case 1041: case 1042: return ksDxfWriteReal(t, item.code, ksXdataGet<double>(item));
        case 1070: return ksDxfWriteInt16(t, 1070, ksXdataGet<int16_t>(item));
        case 1071: return ksDxfWriteInt32(t, 1071, ksXdataGet<int32_t>(item));
        default: return true;
    }
}

bool writeEed(const Ctx& c)
{
    ksBlobCursor* cursor = ksBlobOpenRead(c.header->eed);
    if (cursor == nullptr)
        return false;
    static ksXdataItem item;
    ZeroZ force(true);
    bool ok = true;
    while (ok && ksXdataRead(cursor, &item))
        ok = writeEedItem(c, item);
    ksBlobCloseRead(cursor);
    return ok;
}

}  // namespace

// ---------------------------------------------------------------------------

int16_t ksDxfResolveEntityNames(ksFcb* source, ksFcb* /*target*/, ksEntityHeader* header, void* body)
{
    if (!resolveName(source, ksRefLinetype, header->linetypeHandle) ||
        !resolveName(source, ksRefLayer, header->layerHandle))
        return 0;
    const int16_t type = header->type;
    const ksObjHandle* style = nullptr;
    const ksObjHandle* block = nullptr;
    const ksObjHandle* dimstyle = nullptr;
    switch (type) {
        case ksEntShape: style = &static_cast<ksShapeBody*>(body)->styleHandle; break;
        case ksEntText: style = &static_cast<ksTextBody*>(body)->styleHandle; break;
        case ksEntAttdef: case ksEntAttrib: style = &static_cast<ksAttdefBody*>(body)->styleHandle; break;
        case ksEntMtext: style = &static_cast<ksMtextBody*>(body)->styleHandle; break;
        case ksEntInsert: block = &static_cast<ksInsertBody*>(body)->blockHandle; break;
        case ksEntDimension:
            block = &static_cast<ksDimensionBody*>(body)->blockHandle;
            dimstyle = &static_cast<ksDimensionBody*>(body)->dimstyleHandle;
            break;
        case ksEntLeader: dimstyle = &static_cast<ksLeaderBody*>(body)->dimstyleHandle; break;
        case ksEntTolerance: dimstyle = &static_cast<ksToleranceBody*>(body)->dimstyleHandle; break;
        case ksEntMline:
            if (!resolveMlineStyle(source, static_cast<ksMlineBody*>(body)->styleHandle))
                return 0;
            break;
        default:
            if (type >= ksEntClassBase) {
                const ksClassEntityForm form = ksClassEntityFormOf(source, type);
                if (form == ksCeRtext)
                    style = &static_cast<ksRtext*>(body)->styleHandle;
                else if (form == ksCeArcAlignedText)
                    style = &static_cast<ksArcAlignedText*>(body)->styleHandle;
            }
            break;
    }
    if ((style && !resolveName(source, ksRefStyle, *style)) || (block && !resolveName(source, ksRefBlock, *block)) ||
        (dimstyle && !resolveName(source, ksRefDimstyle, *dimstyle)))
        return 0;
    if (type == ksEntShape)
        resolveShapeName(source, static_cast<ksShapeBody*>(body));
    ksG->errorNumber = 0;
    return 1;
}

int16_t ksDxfWriteEntity(ksFcb* source, ksFcb* target, ksEntityHeader* header, void* body)
{
    const Ctx c{source, target, header, body, target->outputVersion};
    const int16_t type = header->type;
    const ksClassEntityForm form = type >= ksEntProxy ? ksClassEntityFormOf(source, type) : ksCeNone;
    ksG->errorNumber = 2;
    if (form == ksCeLwpolyline && c.version < ksAC1014)
        return ksDxfWriteLwpolyline(source, target, header, body);
    const bool fixed = type > 0 && type < ksEntityFixedCount && ksEntityNames[type][0] != '\0';
    if (!fixed && (form == ksCeNone || c.version < ksAC1012))
        return 0;

    // The fixed names are short and taken as they stand.
    const char* name = nullptr;
    char className[ksEntityNameSize];
    bool replay = false;
    if (fixed) {
        name = ksEntityNames[type];
    } else if (form == ksCeProxy) {
        replay = type == ksEntProxy && proxyClassName(source, *static_cast<const ksProxyEntity*>(body), className);
        name = replay ? className : c.version == ksAC1012 ? "ACAD_ZOMBIE_ENTITY" : "ACAD_PROXY_ENTITY";
    } else {
        name = kClassNames[form];
    }
    ksG->errorNumber = 27;
    if (!writeHead(c, name))
        return 0;

    bool ok = true;
    switch (form) {
        case ksCeNone: {
            static Plan plans[ksEntityFixedCount];
            ok = run(c, kScripts[type], plans[type]);
            break;
        }
        case ksCeLwpolyline: ok = writeLwpolyline(c); break;
        case ksCeHatch: ok = writeHatch(c); break;
        case ksCeImage: ok = writeImage(c, false); break;
        case ksCeWipeout: ok = writeImage(c, true); break;
        case ksCeOle2Frame: ok = writeOle2Frame(c); break;
        case ksCeRtext: ok = writeRtext(c); break;
        case ksCeArcAlignedText: ok = writeArcAlignedText(c); break;
        case ksCeProxy: {
            const auto& p = *static_cast<const ksProxyEntity*>(body);
            ok = replay ? (type != ksEntProxy || writeGraphics(target, p.graphics)) && replayProxy(c)
                        : fixedProxy(c);
            break;
        }
    }
    if (ok && header->eed != 0 && c.version >= ksAC1009 && type != ksEntMtext)
        ok = writeEed(c);
    if (!ok)
        return 0;
    ksG->errorNumber = 0;
    return 1;
}
