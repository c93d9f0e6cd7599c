// The CLASSES and OBJECTS sections of R13 and later, and the extended
// data of table records and objects.
#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "dxfwrite/dxfwrite.h"
#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/record.h"
#include "store/tablelist.h"
#include "store/xdata.h"

namespace {

void progress(int16_t percent)
{
    if (ksG->saveProgress)
        ksG->saveProgress(percent);
}

inline int16_t version(const ksFcb* target) { return target->outputVersion; }

// Working items: too large for the stack.
ksXdataItem eedItem;
ksXrecordItem xrecordItem;

void upperAscii(char* text)
{
    for (; *text; ++text)
        if (*text >= 'a' && *text <= 'z')
            *text = static_cast<char>(*text - 'a' + 'A');
}

// ---- Extended data ---------------------------------------------------------------

// One item, its references turned into names: 1001 an application, which
// must be found (71); 1003 a layer, dropped when null or not found.
int16_t writeEedItem(ksFcb* source, ksFcb* target, const ksXdataItem& item)
{
    const int16_t code = item.code;
    switch (code) {
        case 1000:
            return ksDxfWriteCoded(target, code, ksXdataText(item));
        case 1001:
        case 1003: {
            const auto handle = ksXdataGet<ksObjHandle>(item);
            int32_t index = 0;
            const int table = code == 1001 ? ksListRegApps : ksListLayers;
            const char* name = ksHandleIsNull(handle) ? nullptr : ksDxfTableName(source, table, handle, &index);
            if (name == nullptr) {
                if (code == 1003)
                    return 1;
                ksG->errorNumber = 71;
                return 0;
            }
            return ksDxfWriteText(target, code, name);
        }
        case 1002:
            return ksDxfWriteChar(target, code, static_cast<char>(item.value[0]));
        case 1004: {
            const auto count = static_cast<uint8_t>(std::clamp<int>(item.length, 0, 127));
            return ksDxfWriteBytes(target, code, item.value, count);
        }
        case 1005:
            return ksDxfWriteHandle(target, code, ksXdataGet<ksObjHandle>(item));
        case 1010:
        case 1011:
        case 1012:
        case 1013:
            return ksDxfWritePoint3(target, code, ksXdataGet<ksPoint3>(item));
        case 1040:
        case 1041:
        case 1042:
            return ksDxfWriteReal(target, code, ksXdataGet<double>(item));
        case 1070:
            return ksDxfWriteInt16(target, code, ksXdataGet<int16_t>(item));
        case 1071:
            return ksDxfWriteInt32(target, code, ksXdataGet<int32_t>(item));
        default:
            return 1;
    }
}

// ---- Object pieces ---------------------------------------------------------------------

int16_t writeHandles(ksFcb* target, int16_t group, ksLoc blob, int32_t count)
{
    ksBlobCursor* cursor = ksBlobOpenRead(blob);
    ksObjHandle handle;
    bool ok = true;
    for (int32_t i = 0; ok && cursor && i < count && ksBlobReadHandle(cursor, &handle); ++i)
        ok = ksDxfWriteHandle(target, group, handle) != 0;
    ksBlobCloseRead(cursor);
    return ok;
}

int16_t writeDate(ksFcb* target, int32_t day, int32_t milliseconds)
{
    return ksDxfWriteReal(target, 40, day + milliseconds / 8.64e7);
}

bool isLeftOut(const ksObjHandle& handle);

// Objects whose head has gone out; the object's extended data follows its
// body once it is written (readers refuse it between head and body).
uint32_t headsWritten = 0;

// 0 name; 5 handle; the reactors, the extension dictionary and the owner;
// the subclass marker. Readers take the owner from 330 outside the
// application groups.
int16_t writeHead(ksFcb* /*source*/, ksFcb* target, const ksObjectHeader& header, const char* name,
                  const char* marker)
{
    ++headsWritten;
    const bool xdict = !ksHandleIsNull(header.xdict) && !isLeftOut(header.xdict);
    return ksDxfWriteText(target, 0, name) && ksDxfWriteHandle(target, 5, header.handle) &&
           ksDxfWriteReactorGroups(target, header.reactorCount, header.reactors) &&
           (!xdict || (ksDxfWriteText(target, 102, "{ACAD_XDICTIONARY") &&
                       ksDxfWriteHandle(target, 360, header.xdict) && ksDxfWriteText(target, 102, "}"))) &&
           (ksHandleIsNull(header.owner) || ksDxfWriteHandle(target, 330, header.owner)) &&
           (marker[0] == '\0' || ksDxfWriteText(target, 100, marker));
}

// Dictionaries of R2000 content that the root of an older target no
// longer names; they are left out with it, as their entries would name
// objects the target doesn't hold.
constexpr int kDroppedMax = 8;
ksObjHandle dropped[kDroppedMax];
int droppedCount = 0;

bool isDropped(const ksObjHandle& handle)
{
    return std::any_of(dropped, dropped + droppedCount,
                       [&](const ksObjHandle& h) { return ksHandleCompare(h, handle) == 0; });
}

// The entries of a dictionary blob, 3 name and 350 handle. Below R2000
// the names are upper case; in R14 ACAD_BLKREFS holds its entry (360);
// the root of an older target loses the entries of R2000 content.
bool isR2000Entry(const char* name)
{
    static constexpr const char* kR2000Entries[] = {"ACAD_LAYOUT", "ACAD_PLOTSETTINGS", "ACAD_WIPEOUT_VARS",
                                                    "ACAD_PLOTSTYLENAME", "ACDBHEADERROUNDTRIPXREC"};
    return std::any_of(std::begin(kR2000Entries), std::end(kR2000Entries),
                       [&](const char* entry) { return ksStrCompare(name, entry) == 0; });
}

// Notes the root's entries of R2000 content as dropped, for an older target.
void noteDroppedEntries(ksFcb* target, ksLoc entries, int32_t count)
{
    droppedCount = 0;
    if (version(target) >= ksAC1015)
        return;
    ksBlobCursor* cursor = ksBlobOpenRead(entries);
    ksDictionaryEntry entry;
    for (int32_t i = 0; cursor && i < count && ksDictionaryEntryRead(cursor, &entry); ++i)
        if (isR2000Entry(entry.name) && droppedCount < kDroppedMax)
            dropped[droppedCount++] = entry.handle;
    ksBlobCloseRead(cursor);
}

// A dictionary names none of the objects the file leaves out.
int16_t writeEntries(ksFcb* target, ksLoc entries, int32_t count, bool root)
{
    ksBlobCursor* cursor = ksBlobOpenRead(entries);
    ksDictionaryEntry entry;
    bool ok = true;
    for (int32_t i = 0; ok && cursor && i < count && ksDictionaryEntryRead(cursor, &entry); ++i) {
        if (version(target) < ksAC1015) {
            if (root && isR2000Entry(entry.name))
                continue;
            upperAscii(entry.name);
        }
        // An entry without an object (erased, in some files, or one the
        // load could not take) would name nothing in the file.
        if (isLeftOut(entry.handle))
            continue;
        const bool owns = version(target) == ksAC1014 && std::strcmp(entry.name, "ACAD_BLKREFS") == 0;
        ok = ksDxfWriteText(target, 3, entry.name) && ksDxfWriteHandle(target, owns ? 360 : 350, entry.handle);
    }
    ksBlobCloseRead(cursor);
    return ok;
}

// Whether a dictionary has no place in the target.
bool dictionaryLeftOut(ksFcb* source, ksFcb* target, const ksObjectHeader& header)
{
    return version(target) < ksAC1015 &&
           ((!ksHandleIsNull(source->plotStyleDictionary) &&
             ksHandleCompare(header.handle, source->plotStyleDictionary) == 0) ||
            isDropped(header.handle));
}

int16_t writeDictionary(ksFcb* source, ksFcb* target, const ksObjectHeader& header, const ksDictionary& body,
                        bool root)
{
    if (dictionaryLeftOut(source, target, header))
        return 1;
    ksG->errorNumber = 158;
    if (!writeHead(source, target, header, "DICTIONARY", "AcDbDictionary"))
        return 0;
    if (version(target) >= ksAC1015 &&
        (!ksDxfWriteInt16(target, 280, body.hardOwner) || !ksDxfWriteInt16(target, 281, body.cloning)))
        return 0;
    if (!writeEntries(target, body.entries, body.entryCount, root))
        return 0;
    ksG->errorNumber = 0;
    return 1;
}

// The name of a multiline style element's linetype by its place, and the
// index the LTYPE table gives it (ByBlock 0, ByLayer 1, the others their
// place + 2), so that a long name is shortened alike in both.
const char* elementLinetype(ksFcb* source, int16_t place, int32_t* index)
{
    *index = 0;
    if (place == ksMlineByLayer) {
        *index = 1;
        return "ByLayer";
    }
    if (place == ksMlineByBlock)
        return "ByBlock";
    const ksTableListInfo& info = ksTableLists[ksListLinetypes];
    int16_t at = 0;
    for (ksLoc node = ksListFirst(source->linetypes); node != 0; node = ksListNodeNext(node), ++at) {
        if (at == place) {
            *index = place + 2;
            return static_cast<const char*>(ksRecordOf(node)) + info.nameOffset;
        }
    }
    return nullptr;
}

int16_t writeMlineStyle(ksFcb* source, ksFcb* target, const ksObjectHeader& header, const ksMlineStyle& body,
                        int32_t index)
{
    if (!writeHead(source, target, header, "MLINESTYLE", "AcDbMlineStyle") ||
        !ksDxfWriteName(source, target, 2, body.name, index) || !ksDxfWriteInt16(target, 70, body.flags) ||
        !ksDxfWriteText(target, 3, body.description) || !ksDxfWriteInt16(target, 62, body.fillColor) ||
        !ksDxfWriteAngle(target, 51, body.startAngle) || !ksDxfWriteAngle(target, 52, body.endAngle) ||
        !ksDxfWriteInt16(target, 71, body.elementCount))
        return 0;
    ksBlobCursor* cursor = ksBlobOpenRead(body.elements);
    ksMlineElement element;
    bool ok = true;
    for (int i = 0; ok && cursor && i < body.elementCount && ksMlineElementRead(cursor, &element); ++i) {
        int32_t linetypeIndex = 0;
        const char* name = elementLinetype(source, element.linetypeIndex, &linetypeIndex);
        ksG->errorNumber = 67;
        ok = name && ksDxfWriteReal(target, 49, element.offset) && ksDxfWriteInt16(target, 62, element.color) &&
             ksDxfWriteName(source, target, 6, name, linetypeIndex);
    }
    ksBlobCloseRead(cursor);
    return ok;
}

int16_t writeGroupObject(ksFcb* source, ksFcb* target, const ksObjectHeader& header, const ksGroup& body)
{
    return writeHead(source, target, header, "GROUP", "AcDbGroup") &&
           ksDxfWriteText(target, 300, body.description) && ksDxfWriteInt16(target, 70, body.unnamed) &&
           ksDxfWriteInt16(target, 71, body.selectable) && writeHandles(target, 340, body.handles, body.handleCount);
}

int16_t writeSettings(ksFcb* target, const ksPlotSettings& s)
{
    const double reals1[] = {s.leftMargin,  s.bottomMargin, s.rightMargin, s.topMargin,  s.paperWidth,
                             s.paperHeight, s.plotOriginX,  s.plotOriginY, s.windowMinX, s.windowMinY,
                             s.windowMaxX,  s.windowMaxY,   s.realWorldUnits, s.drawingUnits};
    static constexpr int16_t kRealGroups1[] = {40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 140, 141, 142, 143};
    if (!ksDxfWriteText(target, 1, s.pageSetupName) || !ksDxfWriteText(target, 2, s.plotConfig) ||
        !ksDxfWriteText(target, 4, s.paperSize) || !ksDxfWriteText(target, 6, s.plotViewName))
        return 0;
    for (size_t i = 0; i < std::size(reals1); ++i)
        if (!ksDxfWriteReal(target, kRealGroups1[i], reals1[i]))
            return 0;
    return ksDxfWriteInt16(target, 70, s.plotLayoutFlags) && ksDxfWriteInt16(target, 72, s.paperUnits) &&
           ksDxfWriteInt16(target, 73, s.plotRotation) && ksDxfWriteInt16(target, 74, s.plotType) &&
           ksDxfWriteText(target, 7, s.currentStyleSheet) && ksDxfWriteInt16(target, 75, s.standardScaleType) &&
           ksDxfWriteReal(target, 147, s.scaleFactor) && ksDxfWriteReal(target, 148, s.paperImageOriginX) &&
           ksDxfWriteReal(target, 149, s.paperImageOriginY);
}

// ---- Class objects ----------------------------------------------------------------------

int16_t writeXrecordItems(ksFcb* target, ksLoc data)
{
    if (data == 0)
        return 1;
    ksBlobCursor* cursor = ksBlobOpenRead(data);
    bool ok = cursor != nullptr;
    ksXrecordItem& item = xrecordItem;
    while (ok && ksNextXrecordItem(cursor, &item)) {
        const int16_t g = item.code;
        switch (ksXrecordKindOf(g)) {
            case ksXvText: ok = ksDxfWriteCoded(target, g, item.value.text); break;
            case ksXvPoint: ok = ksDxfWritePointVar(target, item.value.point, g); break;
            case ksXvReal: ok = ksDxfWriteReal(target, g, item.value.real); break;
            case ksXvInt16: ok = ksDxfWriteInt16(target, g, item.value.int16); break;
            case ksXvInt32: ok = ksDxfWriteInt32(target, g, item.value.int32); break;
            case ksXvHandle: ok = ksDxfWriteHandle(target, g, item.value.handle); break;
            case ksXvBytes: {
                // Hexadecimal text in either form, one group for the item.
                static constexpr char kDigits[] = "0123456789ABCDEF";
                char hex[2 * 256 + 1];
                const size_t n = std::min<size_t>(item.length, 256);
                for (size_t i = 0; i < n; ++i) {
                    hex[2 * i] = kDigits[item.value.bytes[i] >> 4];
                    hex[2 * i + 1] = kDigits[item.value.bytes[i] & 15];
                }
                hex[2 * n] = '\0';
                ok = ksDxfWriteText(target, g, hex);
                break;
            }
            case ksXvNone: break;
        }
    }
    ksBlobCloseRead(cursor);
    return ok;
}

int16_t writeLayerIndex(ksFcb* target, const ksLayerIndex& body)
{
    if (!writeDate(target, body.day, body.milliseconds) || !ksDxfWriteText(target, 100, "AcDbLayerIndex"))
        return 0;
    ksBlobCursor* names = ksBlobOpenRead(body.names);
    ksBlobCursor* buffers = ksBlobOpenRead(body.idBuffers);
    bool ok = true;
    int32_t count = 0;
    char name[256];
    ksObjHandle buffer;
    for (int32_t i = 0; ok && names && buffers && i < body.entryCount; ++i) {
        ok = ksLayerIndexEntryRead(names, &count, name) && ksBlobReadHandle(buffers, &buffer) &&
             ksDxfWriteText(target, 8, name) && ksDxfWriteHandle(target, 360, buffer) &&
             ksDxfWriteInt32(target, 90, count);
    }
    ksBlobCloseRead(names);
    ksBlobCloseRead(buffers);
    return ok;
}

int16_t writeSortents(ksFcb* target, const ksSortentsTable& body)
{
    if (!ksDxfWriteHandle(target, 330, body.ownerBlock))
        return 0;
    ksBlobCursor* sorts = ksBlobOpenRead(body.sortHandles);
    ksBlobCursor* entities = ksBlobOpenRead(body.entityHandles);
    bool ok = true;
    ksObjHandle sort, entity;
    for (int32_t i = 0; ok && sorts && entities && i < body.entryCount; ++i)
        ok = ksBlobReadHandle(sorts, &sort) && ksBlobReadHandle(entities, &entity) &&
             ksDxfWriteHandle(target, 331, entity) && ksDxfWriteHandle(target, 5, sort);
    ksBlobCloseRead(sorts);
    ksBlobCloseRead(entities);
    return ok;
}

int16_t writeSpatialFilter(ksFcb* target, const ksSpatialFilter& body)
{
    if (!ksDxfWriteText(target, 100, "AcDbSpatialFilter") || !ksDxfWriteInt16(target, 70, body.pointCount))
        return 0;
    ksBlobCursor* cursor = ksBlobOpenRead(body.points);
    ksPoint2 point;
    bool ok = true;
    for (int i = 0; ok && cursor && i < body.pointCount && ksPoint2Read(cursor, &point); ++i)
        ok = ksDxfWritePoint2(target, 10, point);
    ksBlobCloseRead(cursor);
    if (!ok || !ksDxfWritePoint3(target, 210, body.normal) || !ksDxfWritePoint3(target, 11, body.origin) ||
        !ksDxfWriteInt16(target, 71, body.displayBoundary) || !ksDxfWriteInt16(target, 72, body.frontClipOn) ||
        (body.frontClipOn && !ksDxfWriteReal(target, 40, body.frontClip)) ||
        !ksDxfWriteInt16(target, 73, body.backClipOn) ||
        (body.backClipOn && !ksDxfWriteReal(target, 41, body.backClip)))
        return 0;
    for (const auto* matrix : {&body.inverseBlockTransform, &body.clipTransform})
        for (int row = 0; row < 3; ++row)
            for (int column = 0; column < 4; ++column)
                if (!ksDxfWriteReal(target, 40, (*matrix)[column][row]))
                    return 0;
    return 1;
}

int16_t writeLayout(ksFcb* target, const ksLayout& l)
{
    return writeSettings(target, l.settings) && ksDxfWriteText(target, 100, "AcDbLayout") &&
           ksDxfWriteText(target, 1, l.name) && ksDxfWriteInt16(target, 70, l.layoutFlags) &&
           ksDxfWriteInt16(target, 71, l.tabOrder) && ksDxfWritePoint2(target, 10, l.limitsMin) &&
           ksDxfWritePoint2(target, 11, l.limitsMax) && ksDxfWritePoint3(target, 12, l.insertionBase) &&
           ksDxfWritePoint3(target, 14, l.extentsMin) && ksDxfWritePoint3(target, 15, l.extentsMax) &&
           ksDxfWriteReal(target, 146, l.elevation) && ksDxfWritePoint3(target, 13, l.ucsOrigin) &&
           ksDxfWritePoint3(target, 16, l.ucsXAxis) && ksDxfWritePoint3(target, 17, l.ucsYAxis) &&
           ksDxfWriteInt16(target, 76, l.orthoViewType) && ksDxfWriteHandle(target, 330, l.blockRecord) &&
           ksDxfWriteHandle(target, 331, l.lastViewport) && ksDxfWriteHandle(target, 345, l.baseUcs) &&
           ksDxfWriteHandle(target, 346, l.namedUcs);
}

// The proxy of a class object: the groups of the kept data.
int16_t writeProxyBody(ksFcb* source, ksFcb* target, const ksObjectHeader& header, const ksProxyObject& body)
{
    const int16_t classNumber = static_cast<int16_t>(body.applicationClass ? body.applicationClass : header.kind);
    ksClass record;
    const int32_t itemClassId = ksClassFindNumber(source, classNumber, &record) ? record.itemClassId : 0;
    if (!ksDxfWriteInt32(target, 90, itemClassId) || !ksDxfWriteInt32(target, 91, classNumber))
        return 0;
    if (version(target) >= ksAC1015 &&
        (!ksDxfWriteInt32(target, 95, body.originalClass) || !ksDxfWriteInt16(target, 70, body.flags)))
        return 0;
    if (!ksDxfWriteInt32(target, 93, body.dataBitLength) || !ksDxfWriteBinaryChunks(body.data, target, 310, 127))
        return 0;
    ksBlobCursor* cursor = ksBlobOpenRead(body.references);
    ksObjHandle handle;
    uint8_t kind = 0;
    bool ok = true;
    for (int32_t i = 0; ok && cursor && i < body.handleCount && ksProxyReferenceRead(cursor, &handle, &kind); ++i)
        ok = ksDxfWriteHandle(target, static_cast<int16_t>(320 + 10 * kind), handle);
    ksBlobCloseRead(cursor);
    return ok && ksDxfWriteInt32(target, 94, 0);
}

int16_t writeProxy(ksFcb* source, ksFcb* target, const ksObjectHeader& header, const ksProxyObject& body)
{
    if (version(target) == ksAC1012)
        return writeHead(source, target, header, "ACAD_ZOMBIE_OBJECT", "AcDbZombieObject");
    if (version(target) == ksAC1014)
        return writeHead(source, target, header, "ACAD_PROXY_OBJECT", "AcDbProxyObject") &&
               writeProxyBody(source, target, header, body);
    return writeHead(source, target, header, "ACAD_PROXY_OBJECT", "AcDbProxyObject") &&
           writeProxyBody(source, target, header, body);
}

// The class objects with a body of their own: the first release that
// has them, their name and marker.
struct ClassObject {
    ksObjectForm form;
    int8_t from;
    const char* name;
    const char* marker;
};

constexpr ClassObject kClassObjects[] = {
    {ksFormXrecord, ksAC1012, "XRECORD", "AcDbXrecord"},
    {ksFormIdBuffer, ksAC1014, "IDBUFFER", "AcDbIdBuffer"},
    {ksFormDictionaryVar, ksAC1014, "DICTIONARYVAR", "DictionaryVariables"},
    {ksFormImageDefReactor, ksAC1014, "IMAGEDEF_REACTOR", "AcDbRasterImageDefReactor"},
    {ksFormImageDef, ksAC1014, "IMAGEDEF", "AcDbRasterImageDef"},
    {ksFormLayerIndex, ksAC1014, "LAYER_INDEX", "AcDbIndex"},
    {ksFormObjectPtr, ksAC1014, "OBJECT_PTR", ""},
    {ksFormRasterVariables, ksAC1014, "RASTERVARIABLES", "AcDbRasterVariables"},
    {ksFormSortentsTable, ksAC1014, "SORTENTSTABLE", "AcDbSortentsTable"},
    {ksFormSpatialFilter, ksAC1014, "SPATIAL_FILTER", "AcDbFilter"},
    {ksFormSpatialIndex, ksAC1014, "SPATIAL_INDEX", "AcDbIndex"},
    {ksFormDictionaryWithDefault, ksAC1015, "ACDBDICTIONARYWDFLT", "AcDbDictionary"},
    {ksFormPlaceholder, ksAC1015, "ACDBPLACEHOLDER", ""},
    {ksFormLayout, ksAC1015, "LAYOUT", "AcDbPlotSettings"},
    {ksFormVbaProject, ksAC1015, "VBA_PROJECT", "AcDbVbaProject"},
    {ksFormWipeoutVariables, ksAC1015, "WIPEOUTVARIABLES", "AcDbWipeoutVariables"},
};

const ClassObject* classObjectOf(ksObjectForm form)
{
    for (const ClassObject& c : kClassObjects)
        if (c.form == form)
            return &c;
    return nullptr;
}

int16_t writeClassBody(ksFcb* target, ksObjectForm form, const ksObjectBody& b)
{
    switch (form) {
        case ksFormXrecord:
            return (version(target) < ksAC1015 || ksDxfWriteInt16(target, 280, b.xrecord.cloning)) &&
                   writeXrecordItems(target, b.xrecord.data);
        case ksFormIdBuffer:
            return writeHandles(target, 330, b.idBuffer.handles, b.idBuffer.handleCount);
        case ksFormDictionaryVar:
            return ksDxfWriteInt16(target, 280, b.dictionaryVar.schema) &&
                   ksDxfWriteText(target, 1, b.dictionaryVar.value);
        case ksFormImageDefReactor:
            return ksDxfWriteInt32(target, 90, b.imageDefReactor.classVersion) &&
                   writeHandles(target, 330, b.imageDefReactor.image, 1);
        case ksFormImageDef:
            return ksDxfWriteInt32(target, 90, b.imageDef.classVersion) &&
                   ksDxfWriteText(target, 1, b.imageDef.fileName) &&
                   ksDxfWritePoint2(target, 10, b.imageDef.imageSize) &&
                   ksDxfWritePoint2(target, 11, b.imageDef.pixelSize) &&
                   ksDxfWriteInt16(target, 280, b.imageDef.loaded) &&
                   ksDxfWriteInt16(target, 281, b.imageDef.resolutionUnits);
        case ksFormLayerIndex:
            return writeLayerIndex(target, b.layerIndex);
        case ksFormRasterVariables:
            return ksDxfWriteInt32(target, 90, b.rasterVariables.classVersion) &&
                   ksDxfWriteInt16(target, 70, b.rasterVariables.displayFrame) &&
                   ksDxfWriteInt16(target, 71, b.rasterVariables.displayQuality) &&
                   ksDxfWriteInt16(target, 72, b.rasterVariables.units);
        case ksFormSortentsTable:
            return writeSortents(target, b.sortentsTable);
        case ksFormSpatialFilter:
            return writeSpatialFilter(target, b.spatialFilter);
        case ksFormSpatialIndex:
            return writeDate(target, b.spatialIndex.day, b.spatialIndex.milliseconds) &&
                   ksDxfWriteText(target, 100, "AcDbSpatialIndex");
        case ksFormDictionaryWithDefault: {
            const ksDictionaryWithDefault& d = b.dictionaryWithDefault;
            return ksDxfWriteInt16(target, 281, d.cloning) && writeEntries(target, d.entries, d.entryCount, false) &&
                   ksDxfWriteText(target, 100, "AcDbDictionaryWithDefault") &&
                   ksDxfWriteHandle(target, 340, d.defaultEntry);
        }
        case ksFormLayout:
            return writeLayout(target, b.layout);
        case ksFormVbaProject:
            return ksDxfWriteInt32(target, 90, b.vbaProject.size) &&
                   ksDxfWriteBinaryChunks(b.vbaProject.data, target, 310, 127);
        case ksFormWipeoutVariables:
            return ksDxfWriteInt16(target, 70, b.wipeoutVariables.displayFrame);
        default:
            return 1;
    }
}

// Any object but the four with operations of their own.
int16_t writeClassObject(ksFcb* source, ksFcb* target, const ksObjectHeader& header, const ksObjectBody& body,
                         uint32_t* leftOut)
{
    ksG->errorNumber = 161;
    const ksObjectForm form = ksObjectFormOf(source, header.kind);
    int16_t written = 1;
    if (form == ksFormStream) {
        // The group stream of a class object goes out only by the replay
        // of its groups, which this writer does not have yet.
        ++*leftOut;
    } else if (form == ksFormProxy) {
        written = writeProxy(source, target, header, body.proxy);
    } else if (const ClassObject* c = classObjectOf(form); c != nullptr && version(target) >= c->from) {
        written = writeHead(source, target, header, c->name, c->marker) && writeClassBody(target, form, body);
    }
    if (written)
        ksG->errorNumber = 0;
    return written;
}

uint32_t objectsLeftOut = 0;

// Whether an object goes out by itself: its kind has a place in the
// target's release.
bool placedByItself(ksFcb* source, ksFcb* target, const ksObjectHeader& header)
{
    if (header.kind == ksKindDictionary)
        return !dictionaryLeftOut(source, target, header);
    if (header.kind == ksKindMlineStyle || header.kind == ksKindGroup || header.kind == ksKindPlotSettings)
        return true;
    const ksObjectForm form = ksObjectFormOf(source, header.kind);
    if (form == ksFormStream)
        return false;
    if (form == ksFormProxy)
        return true;
    const ClassObject* c = classObjectOf(form);
    return c == nullptr || version(target) >= c->from;
}

// The objects the file leaves out: those without a place of their own, and
// every object whose owner, at any depth, is left out too or is a block
// that the release doesn't hold (the further layouts below R2000). A
// reader would drop such an object for its missing owner; here it never
// goes out. Built once per save in linear time.
class LeftOut {
public:
    void build(ksFcb* source, ksFcb* target, ksObjectHeader& header, ksObjectBody& body)
    {
        out_.clear();
        owners_.clear();
        if (version(target) < ksAC1015) {
            for (ksLoc node = ksListFirst(source->blockHeaders); node != 0; node = ksListNodeNext(node)) {
                const auto* block = static_cast<const ksBlockHeader*>(ksRecordOf(node));
                if (ksStrNCompare(block->name, "*PAPER_SPACE", 12) == 0 &&
                    ksHandleCompare(block->entryHandle, source->paperBlockHandle) != 0)
                    out_.insert(ksHandleToU64(block->entryHandle));
            }
        }
        ksObjectRewind(source);
        for (bool root = true; ksObjectNext(source, &header, &body); root = false) {
            if (root && header.kind == ksKindDictionary)
                noteDroppedEntries(target, body.dictionary.entries, body.dictionary.entryCount);
            const uint64_t self = ksHandleToU64(header.handle);
            owners_.emplace(self, ksHandleToU64(header.owner));
            if (!placedByItself(source, target, header))
                out_.insert(self);
        }
        // Down the owner chains, each handle visited once: a walk ends at
        // a handle already settled, out or kept, or at one on the walk
        // itself (a loop of owners, which stays in).
        std::unordered_map<uint64_t, uint8_t> state;  // 1 on the walk, 2 settled
        std::vector<uint64_t> chain;
        for (const auto& [self, owner] : owners_) {
            chain.clear();
            uint64_t at = self;
            bool left = false;
            for (;;) {
                if (out_.count(at) != 0) {
                    left = true;
                    break;
                }
                uint8_t& seen = state[at];
                if (seen != 0)
                    break;
                seen = 1;
                chain.push_back(at);
                const auto next = owners_.find(at);
                if (next == owners_.end() || next->second == 0)
                    break;
                at = next->second;
            }
            for (uint64_t h : chain) {
                state[h] = 2;
                if (left)
                    out_.insert(h);
            }
        }
    }
    bool has(const ksObjHandle& handle) const { return out_.count(ksHandleToU64(handle)) != 0; }
    bool known(const ksObjHandle& handle) const { return owners_.count(ksHandleToU64(handle)) != 0; }

private:
    std::unordered_map<uint64_t, uint64_t> owners_;
    std::unordered_set<uint64_t> out_;
};

LeftOut leftOut;

// Left out, or no object of the drawing at all.
bool isLeftOut(const ksObjHandle& handle) { return leftOut.has(handle) || !leftOut.known(handle); }

}  // namespace

int16_t ksDxfWriteObjectEed(ksFcb* source, ksFcb* target, ksLoc eed)
{
    ksBlobCursor* cursor = ksBlobOpenRead(eed);
    bool ok = true;
    while (ok && cursor && ksXdataRead(cursor, &eedItem))
        ok = writeEedItem(source, target, eedItem) != 0;
    ksBlobCloseRead(cursor);
    return ok;
}

int16_t ksDxfWriteClasses(ksFcb* source, ksFcb* target)
{
    if (!ksDxfWriteText(target, 0, "SECTION") || !ksDxfWriteText(target, 2, "CLASSES"))
        return 0;
    ksClass record;
    ksClassRewind(source);
    while (ksClassNext(source, &record)) {
        if (!ksDxfWriteText(target, 0, "CLASS") || !ksDxfWriteText(target, 1, record.dxfName) ||
            !ksDxfWriteText(target, 2, record.cppName) || !ksDxfWriteText(target, 3, record.appName) ||
            !ksDxfWriteInt32(target, 90, record.classVersion) || !ksDxfWriteInt16(target, 280, record.wasProxy) ||
            !ksDxfWriteInt16(target, 281, record.itemClassId == ksKindProxyEntity))
            return 0;
    }
    progress(4);
    return ksDxfSectionEnd(target);
}

int16_t ksDxfWriteObjects(ksFcb* source, ksFcb* target, void* scratchHeader, void* scratchBody)
{
    auto& header = *static_cast<ksObjectHeader*>(scratchHeader);
    auto& body = *static_cast<ksObjectBody*>(scratchBody);
    if (!ksDxfWriteText(target, 0, "SECTION") || !ksDxfWriteText(target, 2, "OBJECTS"))
        return 0;
    objectsLeftOut = 0;
    droppedCount = 0;
    leftOut.build(source, target, header, body);
    int32_t count = 0;
    ksObjectRewind(source);
    for (; ksObjectNext(source, &header, &body); ++count) {
        if (count > 0 && leftOut.has(header.handle)) {
            if (ksObjectFormOf(source, header.kind) == ksFormStream)
                ++objectsLeftOut;
            continue;
        }
        const uint32_t heads = headsWritten;
        int16_t written;
        switch (header.kind) {
            case ksKindDictionary:
                written = writeDictionary(source, target, header, body.dictionary, count == 0);
                break;
            case ksKindMlineStyle: written = writeMlineStyle(source, target, header, body.mlineStyle, count); break;
            case ksKindGroup: written = writeGroupObject(source, target, header, body.group); break;
            case ksKindPlotSettings:
                written = writeHead(source, target, header, "PLOTSETTINGS", "AcDbPlotSettings") &&
                          writeSettings(target, body.plotSettings);
                break;
            default: written = writeClassObject(source, target, header, body, &objectsLeftOut); break;
        }
        if (!written)
            return 0;
        // The extended data of an object that went out, at its end.
        if (headsWritten != heads && header.eed != 0 && !ksDxfWriteObjectEed(source, target, header.eed))
            return 0;
    }
    return 1;
}

uint32_t ksDxfObjectsLeftOut() { return objectsLeftOut; }
