// Object records, the class list and the object list.
#include "records/object.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/list.h"
#include "store/record.h"

// ---------------------------------------------------------------------------
// Class roles

const ksClassRole ksClassRoles[ksClassRoleCount] = {
    {"LWPOLYLINE", &ksClassNumbers::lwpolyline},
    {"OLE2FRAME", &ksClassNumbers::ole2frame},
    {"HATCH", &ksClassNumbers::hatch},
    {"IMAGE", &ksClassNumbers::image},
    {"ARCALIGNEDTEXT", &ksClassNumbers::arcAlignedText},
    {"WIPEOUT", &ksClassNumbers::wipeout},
    {"RTEXT", &ksClassNumbers::rtext},
    {"XRECORD", &ksClassNumbers::xrecord},
    {"IDBUFFER", &ksClassNumbers::idBuffer},
    {"DICTIONARYVAR", &ksClassNumbers::dictionaryVar},
    {"IMAGEDEF_REACTOR", &ksClassNumbers::imageDefReactor},
    {"IMAGEDEF", &ksClassNumbers::imageDef},
    {"LAYER_INDEX", &ksClassNumbers::layerIndex},
    {"OBJECT_PTR", &ksClassNumbers::objectPtr},
    {"RASTERVARIABLES", &ksClassNumbers::rasterVariables},
    {"SORTENTSTABLE", &ksClassNumbers::sortentsTable},
    {"SPATIAL_FILTER", &ksClassNumbers::spatialFilter},
    {"SPATIAL_INDEX", &ksClassNumbers::spatialIndex},
    {"ACDBDICTIONARYWDFLT", &ksClassNumbers::dictionaryWithDefault},
    {"ACDBPLACEHOLDER", &ksClassNumbers::placeholder},
    {"LAYOUT", &ksClassNumbers::layout},
    {"VBA_PROJECT", &ksClassNumbers::vbaProject},
    {"WIPEOUTVARIABLES", &ksClassNumbers::wipeoutVariables},
    {"DxfZombieEntity", &ksClassNumbers::zombieEntityClass},
    {"DxfZombieObject", &ksClassNumbers::zombieObjectClass},
};

const ksClassRole* ksClassRoleFind(const char* dxfName)
{
    if (dxfName == nullptr)
        return nullptr;
    for (const ksClassRole& role : ksClassRoles) {
        if (ksStrCompare(role.dxfName, dxfName) == 0)
            return &role;
    }
    return nullptr;
}

// ---------------------------------------------------------------------------
// Forms

namespace {

constexpr uint16_t kNoBlob = UINT16_MAX;

// What the list needs of a form: its body size and the blob fields it
// owns.
struct FormInfo {
    uint32_t size;
    uint16_t blobs[2];
};

#define KS_FORM(T) {sizeof(T), {kNoBlob, kNoBlob}}
#define KS_FORM1(T, a) {sizeof(T), {offsetof(T, a), kNoBlob}}
#define KS_FORM2(T, a, b) {sizeof(T), {offsetof(T, a), offsetof(T, b)}}

constexpr FormInfo kForms[ksObjectFormCount] = {
    KS_FORM1(ksDictionary, entries),
    KS_FORM1(ksMlineStyle, elements),
    KS_FORM1(ksGroup, handles),
    KS_FORM(ksPlotSettings),
    KS_FORM2(ksProxyObject, data, references),
    KS_FORM2(ksProxyObject, data, references),
    KS_FORM1(ksXrecord, data),
    KS_FORM1(ksIdBuffer, handles),
    KS_FORM2(ksSortentsTable, sortHandles, entityHandles),
    KS_FORM(ksDictionaryVar),
    KS_FORM(ksImageDef),
    KS_FORM1(ksImageDefReactor, image),
    KS_FORM(ksRasterVariables),
    KS_FORM1(ksSpatialFilter, points),
    KS_FORM2(ksLayerIndex, names, idBuffers),
    KS_FORM1(ksSpatialIndex, bits),
    KS_FORM1(ksObjectPtr, bits),
    KS_FORM1(ksDictionaryWithDefault, entries),
    {0, {kNoBlob, kNoBlob}},  // placeholder
    KS_FORM(ksLayout),
    KS_FORM1(ksVbaProject, data),
    KS_FORM(ksWipeoutVariables),
};

#undef KS_FORM2
#undef KS_FORM1
#undef KS_FORM

// The object class roles in the order in which a kind is compared.
struct RoleForm {
    int16_t ksClassNumbers::*field;
    ksObjectForm form;
};
constexpr RoleForm kRoleForms[] = {
    {&ksClassNumbers::xrecord, ksFormXrecord},
    {&ksClassNumbers::idBuffer, ksFormIdBuffer},
    {&ksClassNumbers::sortentsTable, ksFormSortentsTable},
    {&ksClassNumbers::dictionaryVar, ksFormDictionaryVar},
    {&ksClassNumbers::imageDef, ksFormImageDef},
    {&ksClassNumbers::imageDefReactor, ksFormImageDefReactor},
    {&ksClassNumbers::rasterVariables, ksFormRasterVariables},
    {&ksClassNumbers::spatialFilter, ksFormSpatialFilter},
    {&ksClassNumbers::layerIndex, ksFormLayerIndex},
    {&ksClassNumbers::spatialIndex, ksFormSpatialIndex},
    {&ksClassNumbers::objectPtr, ksFormObjectPtr},
    {&ksClassNumbers::dictionaryWithDefault, ksFormDictionaryWithDefault},
    {&ksClassNumbers::placeholder, ksFormPlaceholder},
    {&ksClassNumbers::layout, ksFormLayout},
    {&ksClassNumbers::vbaProject, ksFormVbaProject},
    {&ksClassNumbers::wipeoutVariables, ksFormWipeoutVariables},
};

ksPlotSettings makePlotSettingsImage()
{
    ksPlotSettings s{};
    s.realWorldUnits = 1.0;
    s.drawingUnits = 1.0;
    s.scaleFactor = 1.0;
    return s;
}

}  // namespace

ksObjectForm ksObjectFormOf(const ksFcb* fcb, int16_t kind)
{
    switch (kind) {
    case ksKindDictionary:
        return ksFormDictionary;
    case ksKindMlineStyle:
        return ksFormMlineStyle;
    case ksKindGroup:
        return ksFormGroup;
    case ksKindPlotSettings:
        return ksFormPlotSettings;
    case ksKindStream:
        return ksFormStream;
    default:
        break;
    }
    if (fcb != nullptr && kind >= ksFirstClassNumber) {
        for (const RoleForm& r : kRoleForms) {
            if (fcb->classNumbers.*r.field == kind)
                return r.form;
        }
    }
    return ksFormProxy;
}

uint32_t ksObjectBodySize(const ksFcb* fcb, int16_t kind) { return kForms[ksObjectFormOf(fcb, kind)].size; }

void ksObjectDefaults(const ksFcb* fcb, ksObjectHeader* header, void* body)
{
    const int16_t kind = header->kind;
    *header = ksObjectHeader{};
    header->kind = kind;
    const ksObjectForm form = ksObjectFormOf(fcb, kind);
    std::memset(body, 0, kForms[form].size);
    switch (form) {
    case ksFormMlineStyle: {
        auto* m = static_cast<ksMlineStyle*>(body);
        m->fillColor = 256;
        m->startAngle = 1.5707963267949;
        m->endAngle = 1.5707963267949;
        m->elementCount = 2;
        break;
    }
    case ksFormGroup:
        static_cast<ksGroup*>(body)->selectable = 1;
        break;
    case ksFormPlotSettings:
        *static_cast<ksPlotSettings*>(body) = makePlotSettingsImage();
        break;
    case ksFormLayout:
        static_cast<ksLayout*>(body)->settings = makePlotSettingsImage();
        break;
    case ksFormSpatialFilter: {
        auto* f = static_cast<ksSpatialFilter*>(body);
        f->normal = {0.0, 0.0, 1.0};
        f->displayBoundary = 1;
        break;
    }
    case ksFormWipeoutVariables:
        static_cast<ksWipeoutVariables*>(body)->displayFrame = 1;
        break;
    default:
        break;
    }
}

void ksClassDefaults(ksClass* record)
{
    *record = ksClass{};
    record->itemClassId = 499;
}

// ---------------------------------------------------------------------------
// Blob records

int16_t ksDictionaryEntryWrite(ksBlobCursor* cursor, const ksDictionaryEntry& entry)
{
    char name[ksObjectTextSize] = {};
    std::memcpy(name, entry.name, sizeof name - 1);
    return ksBlobWrite(cursor, name, sizeof name) && ksBlobWrite(cursor, entry.handle.bytes, 8);
}

int16_t ksDictionaryEntryRead(ksBlobCursor* cursor, ksDictionaryEntry* entry)
{
    if (!ksBlobRead(cursor, entry->name, sizeof entry->name) || !ksBlobRead(cursor, entry->handle.bytes, 8))
        return 0;
    entry->name[sizeof entry->name - 1] = '\0';
    return 1;
}

int16_t ksMlineElementWrite(ksBlobCursor* cursor, const ksMlineElement& element)
{
    return ksBlobWriteInt16(cursor, element.color) && ksBlobWriteInt16(cursor, element.linetypeIndex) &&
           ksBlobWriteInt32(cursor, 0) && ksBlobWriteReal(cursor, element.offset);
}

int16_t ksMlineElementRead(ksBlobCursor* cursor, ksMlineElement* element)
{
    int32_t unused;
    return ksBlobReadInt16(cursor, &element->color) && ksBlobReadInt16(cursor, &element->linetypeIndex) &&
           ksBlobReadInt32(cursor, &unused) && ksBlobReadReal(cursor, &element->offset);
}

int16_t ksProxyReferenceWrite(ksBlobCursor* cursor, const ksObjHandle& handle, uint8_t kind)
{
    return ksBlobWrite(cursor, handle.bytes, 8) && ksBlobWriteByte(cursor, kind);
}

int16_t ksProxyReferenceRead(ksBlobCursor* cursor, ksObjHandle* handle, uint8_t* kind)
{
    return ksBlobRead(cursor, handle->bytes, 8) && ksBlobReadByte(cursor, kind);
}

int16_t ksLayerIndexEntryWrite(ksBlobCursor* cursor, int32_t count, const char* name)
{
    return ksBlobWriteInt32(cursor, count) && ksBlobWriteText(cursor, name);
}

int16_t ksLayerIndexEntryRead(ksBlobCursor* cursor, int32_t* count, char* name)
{
    return ksBlobReadInt32(cursor, count) && ksBlobReadText(cursor, name, ksObjectShortTextSize - 1);
}

int16_t ksPoint2Write(ksBlobCursor* cursor, const ksPoint2& point)
{
    return ksBlobWriteReal(cursor, point.x) && ksBlobWriteReal(cursor, point.y);
}

int16_t ksPoint2Read(ksBlobCursor* cursor, ksPoint2* point)
{
    return ksBlobReadReal(cursor, &point->x) && ksBlobReadReal(cursor, &point->y);
}

// ---------------------------------------------------------------------------
// XRECORD items

namespace {

struct CodeRange {
    int16_t low, high;
    ksXrecordValueKind kind;
};

// Stored form by code, as the readers of every file kind leave it.
constexpr CodeRange kStoredForms[] = {
    {0, 9, ksXvText},        {10, 19, ksXvPoint},      {39, 59, ksXvReal},      {60, 79, ksXvInt16},
    {90, 99, ksXvInt32},     {100, 100, ksXvText},     {102, 102, ksXvText},    {140, 147, ksXvReal},
    {170, 175, ksXvInt16},   {300, 309, ksXvText},     {310, 319, ksXvBytes},   {320, 369, ksXvHandle},
    {999, 1003, ksXvText},   {1004, 1004, ksXvBytes},  {1005, 1008, ksXvText},  {1010, 1059, ksXvReal},
    {1060, 1070, ksXvInt16}, {1071, 1071, ksXvInt32},
};

// The codes an item may be added with (their kind column is not used).
constexpr CodeRange kAddable[] = {
    {0, 9, ksXvNone},     {10, 19, ksXvNone},   {40, 79, ksXvNone},   {90, 99, ksXvNone},    {100, 100, ksXvNone},
    {102, 102, ksXvNone}, {140, 147, ksXvNone}, {170, 175, ksXvNone}, {300, 369, ksXvNone},  {999, 1071, ksXvNone},
};

template <size_t N>
const CodeRange* rangeOf(const CodeRange (&ranges)[N], int16_t code)
{
    for (const CodeRange& r : ranges) {
        if (code >= r.low && code <= r.high)
            return &r;
    }
    return nullptr;
}

constexpr int16_t kReversedHandleCode = 330;

void reverse(ksObjHandle* handle) { std::reverse(handle->bytes, handle->bytes + 8); }

}  // namespace

ksXrecordValueKind ksXrecordKindOf(int16_t code)
{
    const CodeRange* r = rangeOf(kStoredForms, code);
    return r ? r->kind : ksXvNone;
}

bool ksXrecordCodeAccepted(int16_t code)
{
    return rangeOf(kAddable, code) != nullptr && ksXrecordKindOf(code) != ksXvNone;
}

int16_t ksNextXrecordItem(ksBlobCursor* reader, ksXrecordItem* item)
{
    if (reader == nullptr) {
        ksSetError(162);
        return 0;
    }
    if (!reader->writing && reader->remaining == 0) {
        ksSetError(0);
        return 0;
    }
    ksSetError(165);
    if (!ksBlobReadInt16(reader, &item->code))
        return 0;
    item->length = 0;
    auto& v = item->value;
    switch (ksXrecordKindOf(item->code)) {
    case ksXvText: {
        uint8_t head[3];  // length, low byte first, then the code page
        if (!ksBlobRead(reader, head, sizeof head))
            return 0;
        const uint16_t n = static_cast<uint16_t>(head[0] | head[1] << 8);
        if (!ksBlobRead(reader, v.text, n))
            return 0;
        v.text[n] = '\0';
        item->length = n;
        break;
    }
    case ksXvBytes: {
        uint8_t n;
        if (!ksBlobReadByte(reader, &n) || !ksBlobRead(reader, v.bytes, n))
            return 0;
        item->length = n;
        break;
    }
    case ksXvPoint:
        if (!ksBlobReadPoint(reader, &v.point))
            return 0;
        break;
    case ksXvReal:
        if (!ksBlobReadReal(reader, &v.real))
            return 0;
        break;
    case ksXvInt16:
        if (!ksBlobReadInt16(reader, &v.int16))
            return 0;
        break;
    case ksXvInt32:
        if (!ksBlobReadInt32(reader, &v.int32))
            return 0;
        break;
    case ksXvHandle:
        if (!ksBlobRead(reader, v.handle.bytes, 8))
            return 0;
        if (item->code == kReversedHandleCode)
            reverse(&v.handle);
        break;
    case ksXvNone:
        return 0;
    }
    ksSetError(0);
    return 1;
}

int16_t ksAddXrecordItem(ksBlobCursor* writer, const ksXrecordItem* item)
{
    if (writer == nullptr) {
        ksSetError(163);
        return 0;
    }
    ksSetError(166);
    if (!ksXrecordCodeAccepted(item->code))
        return 0;
    const ksXrecordValueKind kind = ksXrecordKindOf(item->code);
    if (kind == ksXvBytes && item->length > UINT8_MAX)
        return 0;
    ksSetError(0);
    if (!ksBlobWriteInt16(writer, item->code))
        return 0;
    const auto& v = item->value;
    switch (kind) {
    case ksXvText: {
        const auto n = static_cast<uint16_t>(strnlen(v.text, ksXrecordTextMax));
        const uint8_t head[3] = {static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8), ksXrecordCodePage};
        return ksBlobWrite(writer, head, sizeof head) && ksBlobWrite(writer, v.text, n);
    }
    case ksXvBytes:
        return ksBlobWriteByte(writer, static_cast<uint8_t>(item->length)) &&
               ksBlobWrite(writer, v.bytes, item->length);
    case ksXvPoint:
        return ksBlobWritePoint(writer, v.point);
    case ksXvReal:
        return ksBlobWriteReal(writer, v.real);
    case ksXvInt16:
        return ksBlobWriteInt16(writer, v.int16);
    case ksXvInt32:
        return ksBlobWriteInt32(writer, v.int32);
    case ksXvHandle: {
        ksObjHandle h = v.handle;
        if (item->code == kReversedHandleCode)
            reverse(&h);
        return ksBlobWriteHandle(writer, h);
    }
    case ksXvNone:
        break;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Class list

namespace {

const ksClass* classIn(ksLoc node) { return static_cast<const ksClass*>(ksRecordOf(node)); }

void noteRoles(ksFcb* fcb, const ksClass& c)
{
    if (const ksClassRole* role = ksClassRoleFind(c.dxfName))
        fcb->classNumbers.*role->field = c.classNumber;
}

void forgetRoles(ksFcb* fcb, int16_t number)
{
    for (const ksClassRole& role : ksClassRoles) {
        if (fcb->classNumbers.*role.field == number)
            fcb->classNumbers.*role.field = 0;
    }
}

template <typename Match>
ksLoc findClass(const ksFcb* fcb, Match match)
{
    for (ksLoc node = ksListFirst(fcb->classes); node != 0; node = ksListNodeNext(node)) {
        if (match(*classIn(node)))
            return node;
    }
    return 0;
}

void copyText(char (&to)[ksObjectTextSize], const char* from)
{
    std::snprintf(to, sizeof to, "%s", from ? from : "");
}

}  // namespace

void ksClassRewind(ksFcb* fcb) { ksListRewind(fcb->classes); }

int16_t ksClassNext(ksFcb* fcb, ksClass* record)
{
    const ksLoc node = ksListCurrent(fcb->classes);
    if (node == 0)
        return 0;
    *record = *classIn(node);
    ksListNext(fcb->classes);
    return 1;
}

uint32_t ksClassCount(const ksFcb* fcb) { return ksListCount(fcb->classes); }

int16_t ksClassNextNumber(const ksFcb* fcb)
{
    int32_t highest = ksFirstClassNumber - 1;
    for (ksLoc node = ksListFirst(fcb->classes); node != 0; node = ksListNodeNext(node))
        highest = std::max<int32_t>(highest, classIn(node)->classNumber);
    return highest < INT16_MAX ? static_cast<int16_t>(highest + 1) : 0;
}

int16_t ksClassAdd(ksFcb* fcb, const ksClass* record)
{
    ksClass c = *record;
    c.dxfName[ksObjectTextSize - 1] = c.cppName[ksObjectTextSize - 1] = c.appName[ksObjectTextSize - 1] = '\0';
    if (c.classNumber == 0)
        c.classNumber = ksClassNextNumber(fcb);
    if (c.classNumber < ksFirstClassNumber) {
        ksSetError(202);
        return 0;
    }
    if (ksRecordCopy(&c, sizeof c, fcb->classes, ksAtTail, 0) == 0)
        return 0;
    noteRoles(fcb, c);
    ++fcb->classNumbers.classCount;
    ksSetError(0);
    return c.classNumber;
}

int16_t ksClassAddIfMissing(ksFcb* fcb, const char* dxfName, const char* cppName, const char* appName,
                            int16_t classVersion, int16_t itemClassId, int16_t wasProxy)
{
    const char* name = dxfName ? dxfName : "";
    if (findClass(fcb, [name](const ksClass& c) { return ksStrCompare(c.dxfName, name) == 0; }) != 0)
        return 1;
    ksClass c;
    ksClassDefaults(&c);
    copyText(c.dxfName, name);
    copyText(c.cppName, cppName);
    copyText(c.appName, appName);
    c.classVersion = classVersion;
    c.itemClassId = itemClassId;
    c.wasProxy = wasProxy;
    return ksClassAdd(fcb, &c);
}

int16_t ksClassDelete(ksFcb* fcb, int16_t number)
{
    const ksLoc list = fcb->classes;
    ksSetError(0);
    ksListRewind(list);
    if (ksListFirst(list) == 0) {
        ksSetError(176);
        return 0;
    }
    const ksLoc node = findClass(fcb, [number](const ksClass& c) { return c.classNumber == number; });
    if (node == 0) {
        ksSetError(180);
        return 0;
    }
    if (ksListCurrent(list) == node)
        ksListNext(list);
    if (ksListRemove(list, node) != node) {
        ksSetError(178);
        return 0;
    }
    if (!ksVmFree(node)) {
        ksSetError(179);
        return 0;
    }
    forgetRoles(fcb, number);
    --fcb->classNumbers.classCount;
    return 1;
}

int16_t ksClassFindName(const ksFcb* fcb, const char* dxfName, ksClass* record)
{
    const char* name = dxfName ? dxfName : "";
    const ksLoc node = findClass(fcb, [name](const ksClass& c) { return ksStrCompare(c.dxfName, name) == 0; });
    if (node != 0)
        *record = *classIn(node);
    return node != 0;
}

int16_t ksClassFindNumber(const ksFcb* fcb, int16_t number, ksClass* record)
{
    const ksLoc node = findClass(fcb, [number](const ksClass& c) { return c.classNumber == number; });
    if (node != 0)
        *record = *classIn(node);
    return node != 0;
}

// The application of the Express Tools classes: the tool, the suite, and
// where to write about them.
#define KS_EXPRESS_TOOL(part) part "|AutoCAD Express Tool|expresstools@zemacad.example"

const ksDefaultClass ksDefaultClasses[ksDefaultClassCount] = {
    {"LWPOLYLINE", "AcDbPolyline", "\"AutoCAD\"", 0, 498},
    {"IMAGE", "AcDbRasterImage", "ISM", 127, 498},
    {"OLE2FRAME", "AcDbOle2Frame", "\"\"", 0, 498},
    {"HATCH", "AcDbHatch", "\"ACAD_SEDONA\"", 0, 498},
    {"DICTIONARYVAR", "AcDbDictionaryVar", "\"AutoCAD\"", 0, 499},
    {"RASTERVARIABLES", "AcDbRasterVariables", "ISM", 0, 499},
    {"IMAGEDEF", "AcDbRasterImageDef", "ISM", 0, 499},
    {"IMAGEDEF_REACTOR", "AcDbRasterImageDefReactor", "ISM", 1, 499},
    {"IDBUFFER", "AcDbIdBuffer", "\"Acad\"", 0, 499},
    {"SPATIAL_FILTER", "AcDbSpatialFilter", "\"Acad\"", 0, 499},
    {"XRECORD", "AcDbXrecord", "\"<Built In>\"", 0, 499},
    {"SORTENTSTABLE", "AcDbSortentsTable", "\"AutoCAD\"", 0, 499},
    {"LAYER_INDEX", "AcDbLayerIndex", "\"Acad\"", 0, 499},
    {"SPATIAL_INDEX", "AcDbSpatialIndex", "\"Acad\"", 0, 499},
    {"OBJECT_PTR", "CAseDLPNTableRecord", "\"ASE-LPNTableRecord\"", 1, 499},
    {"LAYOUT", "AcDbLayout", "\"AutoCAD 2000\"", 1, 499},
    {"PLOTSETTINGS", "AcDbPlotSettings", "\"AutoCAD 2000\"", 1, 499},
    {"ACDBDICTIONARYWDFLT", "AcDbDictionaryWithDefault", "\"AutoCAD 2000\"", 1, 499},
    {"ACDBPLACEHOLDER", "AcDbPlaceHolder", "\"AutoCAD 2000\"", 1, 499},
    {"VBA_PROJECT", "AcDbVbaProject", "\"acadvba\"", 1, 499},
    {"WIPEOUT", "AcDbWipeout", KS_EXPRESS_TOOL("WipeOut"), 127, 498},
    {"WIPEOUTVARIABLES", "AcDbWipeoutVariables", KS_EXPRESS_TOOL("WipeOut"), 0, 499},
    {"RTEXT", "RText", KS_EXPRESS_TOOL("RText"), 0, 498},
    {"ARCALIGNEDTEXT", "AcDbArcAlignedText", KS_EXPRESS_TOOL("ATEXT"), 0, 498},
};
#undef KS_EXPRESS_TOOL

int16_t ksAddDefaultClasses(ksFcb* fcb)
{
    for (const ksDefaultClass& d : ksDefaultClasses) {
        if (!ksClassAddIfMissing(fcb, d.dxfName, d.cppName, d.appName, d.classVersion, d.itemClassId, 0))
            return 0;
    }
    return 1;
}

void ksClassesFree(ksFcb* fcb)
{
    ksListClear(fcb->classes);
    fcb->classNumbers = ksClassNumbers{};
}

// ---------------------------------------------------------------------------
// Object list

namespace {

constexpr uint32_t kHeadSize = sizeof(ksObjectHeader);

ksObjectHeader* headerIn(ksLoc node) { return static_cast<ksObjectHeader*>(ksRecordOf(node)); }
uint8_t* bodyIn(ksLoc node) { return static_cast<uint8_t*>(ksRecordOf(node)) + kHeadSize; }

// Body bytes the node has room for; a node made while the drawing's class
// numbers were different may hold less than its kind asks for now.
uint32_t bodyRoom(ksLoc node)
{
    const uint32_t block = ksVmBlockSize(node);
    return block > ksListNodeHeaderSize + kHeadSize ? block - ksListNodeHeaderSize - kHeadSize : 0;
}

// The object node of a handle: 303 not in the index, 304 not an object.
ksLoc objectNode(const ksFcb* fcb, const ksObjHandle& handle)
{
    const ksLoc node = ksBtreeFind(fcb, handle);
    if (node == 0) {
        ksSetError(303);
        return 0;
    }
    if (ksListNodeOwner(node) != fcb->objects) {
        ksSetError(304);
        return 0;
    }
    return node;
}

void readNode(const ksFcb* fcb, ksLoc node, ksObjectHeader* header, void* body)
{
    *header = *headerIn(node);
    const uint32_t size = ksObjectBodySize(fcb, header->kind);
    const uint32_t stored = std::min(size, bodyRoom(node));
    std::memcpy(body, bodyIn(node), stored);
    std::memset(static_cast<uint8_t*>(body) + stored, 0, size - stored);
}

bool freeBlob(ksLoc* blob)
{
    if (*blob == 0)
        return true;
    const bool ok = ksBlobFree(*blob) != 0;
    *blob = 0;
    return ok;
}

}  // namespace

void ksObjectRewind(ksFcb* fcb) { ksListRewind(fcb->objects); }

uint32_t ksObjectCount(const ksFcb* fcb) { return ksListCount(fcb->objects); }

int16_t ksObjectNext(ksFcb* fcb, ksObjectHeader* header, void* body)
{
    const ksLoc node = ksListCurrent(fcb->objects);
    if (node == 0)
        return 0;
    readNode(fcb, node, header, body);
    ksListNext(fcb->objects);
    return 1;
}

int16_t ksObjectSeek(ksFcb* fcb, const ksObjHandle& handle, ksObjectHeader* header, void* body)
{
    const ksLoc node = objectNode(fcb, handle);
    if (node == 0)
        return 0;
    if (ksListSetCurrent(fcb->objects, node) != 0) {
        ksSetError(304);
        return 0;
    }
    ksSetError(305);
    if (!ksObjectNext(fcb, header, body))
        return 0;
    ksSetError(0);
    return 1;
}

int16_t ksObjectAdd(ksFcb* fcb, const ksObjectHeader* header, const void* body)
{
    struct {
        ksObjectHeader header;
        ksObjectBody body;
    } record;
    static_assert(offsetof(decltype(record), body) == kHeadSize, "the body follows the header directly");
    const uint32_t size = ksObjectBodySize(fcb, header->kind);
    record.header = *header;
    if (size != 0)
        std::memcpy(&record.body, body, size);
    if (ksRecordAdd(&record, fcb, header->handle, kHeadSize + size, fcb->objects, ksAtTail, 0) == 0)
        return 0;
    ksSetError(0);
    return 1;
}

int16_t ksObjectReplace(ksFcb* fcb, const ksObjectHeader* header, const void* body)
{
    const ksLoc node = objectNode(fcb, header->handle);
    if (node == 0)
        return 0;
    const uint32_t size = ksObjectBodySize(fcb, header->kind);
    if (headerIn(node)->kind != header->kind || size > bodyRoom(node)) {
        ksSetError(205);
        return 0;
    }
    *headerIn(node) = *header;
    std::memcpy(bodyIn(node), body, size);
    ksSetError(0);
    return 1;
}

int16_t ksObjectFreeBlobs(const ksFcb* fcb, ksObjectHeader* header, void* body)
{
    bool ok = freeBlob(&header->eed);
    ok = freeBlob(&header->reactors) && ok;
    for (uint16_t offset : kForms[ksObjectFormOf(fcb, header->kind)].blobs) {
        if (offset == kNoBlob)
            continue;
        ksLoc blob;
        std::memcpy(&blob, static_cast<uint8_t*>(body) + offset, sizeof blob);
        ok = freeBlob(&blob) && ok;
        std::memcpy(static_cast<uint8_t*>(body) + offset, &blob, sizeof blob);
    }
    return ok;
}

int16_t ksObjectDelete(ksFcb* fcb, const ksObjHandle& handle)
{
    const ksLoc list = fcb->objects;
    ksSetError(0);
    if (ksListFirst(list) == 0) {
        ksSetError(164);
        return 0;
    }
    const ksLoc node = ksBtreeFind(fcb, handle);
    if (node == 0 || ksListNodeOwner(node) != list) {
        ksSetError(168);
        return 0;
    }
    ksObjectHeader header;
    ksObjectBody body;
    readNode(fcb, node, &header, &body);
    ksObjectFreeBlobs(fcb, &header, &body);
    if (ksListCurrent(list) == node)
        ksListNext(list);  // a walk in progress goes on behind the object
    if (ksListRemove(list, node) != node) {
        ksSetError(170);
        return 0;
    }
    if (!ksVmFree(node)) {
        ksSetError(169);
        return 0;
    }
    ksBtreeDelete(fcb, handle);
    return 1;
}

void ksObjectsFree(ksFcb* fcb)
{
    ksObjectHeader header;
    ksObjectBody body;
    for (ksLoc node = ksListFirst(fcb->objects); node != 0; node = ksListNodeNext(node)) {
        readNode(fcb, node, &header, &body);
        ksObjectFreeBlobs(fcb, &header, &body);
    }
    ksListClear(fcb->objects);
}

// ---------------------------------------------------------------------------
// DXF field rows

namespace {

#define KS_ROW(R, group, field, kind) \
    ksTableField{group, offsetof(R, field), sizeof(R::field), kind, 0, 0, 7, 0}
#define KS_AXIS(R, group, field, axis) \
    ksTableField{group, offsetof(R, field), sizeof(R::field), ksTfReal, axis, 0, 7, 0}

constexpr ksTableField dictionaryRows[] = {
    KS_ROW(ksDictionary, 280, hardOwner, ksTfShort),
    KS_ROW(ksDictionary, 281, cloning, ksTfShort),
};

constexpr ksTableField groupRows[] = {
    KS_ROW(ksGroup, 70, unnamed, ksTfShort),
    KS_ROW(ksGroup, 71, selectable, ksTfShort),
    KS_ROW(ksGroup, 300, description, ksTfText),
};

constexpr ksTableField plotSettingsRows[] = {
    KS_ROW(ksPlotSettings, 1, pageSetupName, ksTfText),
    KS_ROW(ksPlotSettings, 2, plotConfig, ksTfText),
    KS_ROW(ksPlotSettings, 4, paperSize, ksTfText),
    KS_ROW(ksPlotSettings, 6, plotViewName, ksTfText),
    KS_ROW(ksPlotSettings, 7, currentStyleSheet, ksTfText),
    KS_ROW(ksPlotSettings, 40, leftMargin, ksTfReal),
    KS_ROW(ksPlotSettings, 41, bottomMargin, ksTfReal),
    KS_ROW(ksPlotSettings, 42, rightMargin, ksTfReal),
    KS_ROW(ksPlotSettings, 43, topMargin, ksTfReal),
    KS_ROW(ksPlotSettings, 44, paperWidth, ksTfReal),
    KS_ROW(ksPlotSettings, 45, paperHeight, ksTfReal),
    KS_ROW(ksPlotSettings, 46, plotOriginX, ksTfReal),
    KS_ROW(ksPlotSettings, 47, plotOriginY, ksTfReal),
    KS_ROW(ksPlotSettings, 48, windowMinX, ksTfReal),
    KS_ROW(ksPlotSettings, 49, windowMinY, ksTfReal),
    KS_ROW(ksPlotSettings, 70, plotLayoutFlags, ksTfShort),
    KS_ROW(ksPlotSettings, 72, paperUnits, ksTfShort),
    KS_ROW(ksPlotSettings, 73, plotRotation, ksTfShort),
    KS_ROW(ksPlotSettings, 74, plotType, ksTfShort),
    KS_ROW(ksPlotSettings, 75, standardScaleType, ksTfShort),
    KS_ROW(ksPlotSettings, 140, windowMaxX, ksTfReal),
    KS_ROW(ksPlotSettings, 141, windowMaxY, ksTfReal),
    KS_ROW(ksPlotSettings, 142, realWorldUnits, ksTfReal),
    KS_ROW(ksPlotSettings, 143, drawingUnits, ksTfReal),
    KS_ROW(ksPlotSettings, 147, scaleFactor, ksTfReal),
    KS_ROW(ksPlotSettings, 148, paperImageOriginX, ksTfReal),
    KS_ROW(ksPlotSettings, 149, paperImageOriginY, ksTfReal),
};

constexpr ksTableField layoutRows[] = {
    KS_ROW(ksLayout, 1, name, ksTfText),
    KS_AXIS(ksLayout, 10, limitsMin, 0),
    KS_AXIS(ksLayout, 11, limitsMax, 0),
    KS_AXIS(ksLayout, 12, insertionBase, 0),
    KS_AXIS(ksLayout, 13, ucsOrigin, 0),
    KS_AXIS(ksLayout, 14, extentsMin, 0),
    KS_AXIS(ksLayout, 15, extentsMax, 0),
    KS_AXIS(ksLayout, 16, ucsXAxis, 0),
    KS_AXIS(ksLayout, 17, ucsYAxis, 0),
    KS_AXIS(ksLayout, 20, limitsMin, 1),
    KS_AXIS(ksLayout, 21, limitsMax, 1),
    KS_AXIS(ksLayout, 22, insertionBase, 1),
    KS_AXIS(ksLayout, 23, ucsOrigin, 1),
    KS_AXIS(ksLayout, 24, extentsMin, 1),
    KS_AXIS(ksLayout, 25, extentsMax, 1),
    KS_AXIS(ksLayout, 26, ucsXAxis, 1),
    KS_AXIS(ksLayout, 27, ucsYAxis, 1),
    KS_AXIS(ksLayout, 32, insertionBase, 2),
    KS_AXIS(ksLayout, 33, ucsOrigin, 2),
    KS_AXIS(ksLayout, 34, extentsMin, 2),
    KS_AXIS(ksLayout, 35, extentsMax, 2),
    KS_AXIS(ksLayout, 36, ucsXAxis, 2),
    KS_AXIS(ksLayout, 37, ucsYAxis, 2),
    KS_ROW(ksLayout, 70, layoutFlags, ksTfShort),
    KS_ROW(ksLayout, 71, tabOrder, ksTfShort),
    KS_ROW(ksLayout, 76, orthoViewType, ksTfShort),
    KS_ROW(ksLayout, 146, elevation, ksTfReal),
    KS_ROW(ksLayout, 330, blockRecord, ksTfHandle),
    KS_ROW(ksLayout, 331, lastViewport, ksTfHandle),
    KS_ROW(ksLayout, 345, baseUcs, ksTfHandle),
    KS_ROW(ksLayout, 346, namedUcs, ksTfHandle),
};

constexpr ksTableField xrecordRows[] = {
    KS_ROW(ksXrecord, 280, cloning, ksTfShort),
};

constexpr ksTableField dictionaryVarRows[] = {
    KS_ROW(ksDictionaryVar, 1, value, ksTfText),
    KS_ROW(ksDictionaryVar, 280, schema, ksTfShort),
};

constexpr ksTableField imageDefRows[] = {
    KS_ROW(ksImageDef, 1, fileName, ksTfText),
    KS_AXIS(ksImageDef, 10, imageSize, 0),
    KS_AXIS(ksImageDef, 11, pixelSize, 0),
    KS_AXIS(ksImageDef, 20, imageSize, 1),
    KS_AXIS(ksImageDef, 21, pixelSize, 1),
    KS_ROW(ksImageDef, 90, classVersion, ksTfLong),
    KS_ROW(ksImageDef, 280, loaded, ksTfShort),
    KS_ROW(ksImageDef, 281, resolutionUnits, ksTfShort),
};

constexpr ksTableField imageDefReactorRows[] = {
    KS_ROW(ksImageDefReactor, 90, classVersion, ksTfLong),
};

constexpr ksTableField rasterVariablesRows[] = {
    KS_ROW(ksRasterVariables, 70, displayFrame, ksTfShort),
    KS_ROW(ksRasterVariables, 71, displayQuality, ksTfShort),
    KS_ROW(ksRasterVariables, 72, units, ksTfShort),
    KS_ROW(ksRasterVariables, 90, classVersion, ksTfLong),
};

// 40 and 41 follow their flags, and the matrices run on from the first 40:
// the reader takes those groups in order, not by row.
constexpr ksTableField spatialFilterRows[] = {
    KS_AXIS(ksSpatialFilter, 11, origin, 0),
    KS_AXIS(ksSpatialFilter, 21, origin, 1),
    KS_AXIS(ksSpatialFilter, 31, origin, 2),
    KS_ROW(ksSpatialFilter, 70, pointCount, ksTfShort),
    KS_ROW(ksSpatialFilter, 71, displayBoundary, ksTfShort),
    KS_ROW(ksSpatialFilter, 72, frontClipOn, ksTfShort),
    KS_ROW(ksSpatialFilter, 73, backClipOn, ksTfShort),
    KS_AXIS(ksSpatialFilter, 210, normal, 0),
    KS_AXIS(ksSpatialFilter, 220, normal, 1),
    KS_AXIS(ksSpatialFilter, 230, normal, 2),
};

constexpr ksTableField sortentsRows[] = {
    KS_ROW(ksSortentsTable, 330, ownerBlock, ksTfHandle),
};

constexpr ksTableField dictionaryWithDefaultRows[] = {
    KS_ROW(ksDictionaryWithDefault, 281, cloning, ksTfShort),
    KS_ROW(ksDictionaryWithDefault, 340, defaultEntry, ksTfHandle),
};

constexpr ksTableField vbaProjectRows[] = {
    KS_ROW(ksVbaProject, 90, size, ksTfLong),
};

constexpr ksTableField wipeoutVariablesRows[] = {
    KS_ROW(ksWipeoutVariables, 70, displayFrame, ksTfShort),
};

// Group 91 of a proxy is tested against the roles before it is stored.
constexpr ksTableField proxyRows[] = {
    KS_ROW(ksProxyObject, 70, flags, ksTfShort),
    KS_ROW(ksProxyObject, 93, dataBitLength, ksTfLong),
    KS_ROW(ksProxyObject, 95, originalClass, ksTfLong),
};

#undef KS_AXIS
#undef KS_ROW

template <typename R, size_t N>
constexpr ksTableFieldSet rows(const ksTableField (&r)[N])
{
    return {r, static_cast<uint16_t>(N), static_cast<uint16_t>(sizeof(R))};
}

template <typename R>
constexpr ksTableFieldSet none()
{
    return {nullptr, 0, static_cast<uint16_t>(sizeof(R))};
}

constexpr ksTableFieldSet kFieldSets[ksObjectFormCount] = {
    rows<ksDictionary>(dictionaryRows),
    ksMlineStyleFields,
    rows<ksGroup>(groupRows),
    rows<ksPlotSettings>(plotSettingsRows),
    rows<ksProxyObject>(proxyRows),
    none<ksProxyObject>(),
    rows<ksXrecord>(xrecordRows),
    none<ksIdBuffer>(),
    rows<ksSortentsTable>(sortentsRows),
    rows<ksDictionaryVar>(dictionaryVarRows),
    rows<ksImageDef>(imageDefRows),
    rows<ksImageDefReactor>(imageDefReactorRows),
    rows<ksRasterVariables>(rasterVariablesRows),
    rows<ksSpatialFilter>(spatialFilterRows),
    none<ksLayerIndex>(),
    none<ksSpatialIndex>(),
    none<ksObjectPtr>(),
    rows<ksDictionaryWithDefault>(dictionaryWithDefaultRows),
    {nullptr, 0, 0},
    rows<ksLayout>(layoutRows),
    rows<ksVbaProject>(vbaProjectRows),
    rows<ksWipeoutVariables>(wipeoutVariablesRows),
};

constexpr size_t unitOf(ksTableFieldKind kind)
{
    switch (kind) {
    case ksTfByte:
        return 1;
    case ksTfShort:
        return 2;
    case ksTfLong:
        return 4;
    case ksTfReal:
    case ksTfAngle:
        return 8;
    case ksTfHandle:
        return sizeof(ksObjHandle);
    case ksTfText:
        return 1;
    default:
        return 0;  // kinds of the symbol tables only
    }
}

// Every row lies in its record with a kind that fits the field, and the
// rows stand in group order without a group twice.
constexpr bool wellFormed(const ksTableFieldSet& set)
{
    for (size_t i = 0; i < set.count; ++i) {
        const ksTableField& row = set.rows[i];
        const size_t unit = unitOf(row.kind);
        if (unit == 0 || row.offset + row.width > set.recordSize)
            return false;
        if (row.kind == ksTfText ? row.width < 2 : (row.index + 1) * unit > row.width || row.width % unit != 0)
            return false;
        if (i > 0 && set.rows[i - 1].group >= row.group)
            return false;
    }
    return true;
}

constexpr bool allWellFormed()
{
    for (const ksTableFieldSet& set : kFieldSets) {
        if (!wellFormed(set))
            return false;
    }
    return wellFormed(ksClassFields) && wellFormed(ksMlineStyleFields);
}
static_assert(allWellFormed(), "an object field row is out of order or does not fit its field");

}  // namespace

const ksTableFieldSet& ksObjectFields(ksObjectForm form)
{
    static constexpr ksTableFieldSet kNone = {nullptr, 0, 0};
    return form < ksObjectFormCount ? kFieldSets[form] : kNone;
}

const ksTableField* ksObjectFieldFind(ksObjectForm form, int group)
{
    const ksTableFieldSet& set = ksObjectFields(form);
    const ksTableField* end = set.rows + set.count;
    const ksTableField* row =
        std::lower_bound(set.rows, end, group, [](const ksTableField& r, int g) { return r.group < g; });
    return row != end && row->group == group ? row : nullptr;
}

int16_t ksObjectSetOwner(ksObjectHeader* header, const ksObjHandle& owner)
{
    header->owner = owner;
    header->reactors = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(header->reactors);
    bool ok = out && ksBlobWriteHandle(out, owner);
    ok = ksBlobCloseWrite(out) && ok;
    if (!ok) {
        ksBlobFree(header->reactors);
        header->reactors = 0;
        return 0;
    }
    header->reactorCount = 1;
    return 1;
}
