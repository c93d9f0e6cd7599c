// The non-graphic objects of a drawing and its class list.
//
// An object is a ksObjectHeader and a body. The header's `kind` says what
// the body is: a fixed kind (dictionary, multiline style, group, plot
// settings, proxy, group stream) or a class number of the drawing, whose
// body is that of the class's role. The class numbers of the roles differ
// from drawing to drawing, so every question "which body is this" goes
// through ksObjectFormOf with the drawing in hand.
//
// The object list holds header and body behind the list header, each node
// allocated to the size of its own body. The class list holds ksClass
// records of one size; adding a class notes its number in the drawing's
// ksClassNumbers when its DXF name is one of the roles.
//
// Long lists stand in blobs, held by location (0 for none). The forms of
// the blob records (dictionary entries, multiline style elements, proxy
// references, XRECORD items) are read and written by the helpers below, so
// that every reader and writer agrees on them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "frame/kstypes.h"
#include "records/tables.h"
#include "store/vm.h"

struct ksFcb;
struct ksBlobCursor;

// ---------------------------------------------------------------------------
// Class numbers of one drawing

// The number of each class role in this drawing; 0 while the drawing has
// no class of that name. ksClassAdd fills them.
struct ksClassNumbers {
    // Entity classes.
    int16_t lwpolyline;
    int16_t ole2frame;
    int16_t hatch;
    int16_t image;
    int16_t arcAlignedText;
    int16_t wipeout;
    int16_t rtext;
    // Object classes.
    int16_t xrecord;
    int16_t idBuffer;
    int16_t dictionaryVar;
    int16_t imageDefReactor;
    int16_t imageDef;
    int16_t layerIndex;
    int16_t objectPtr;
    int16_t rasterVariables;
    int16_t sortentsTable;
    int16_t spatialFilter;
    int16_t spatialIndex;
    int16_t dictionaryWithDefault;  // ACDBDICTIONARYWDFLT
    int16_t placeholder;            // ACDBPLACEHOLDER
    int16_t layout;
    int16_t vbaProject;
    int16_t wipeoutVariables;
    // Classes of zombie entities and objects (DxfZombieEntity,
    // DxfZombieObject).
    int16_t zombieEntityClass;
    int16_t zombieObjectClass;
    // Classes in the drawing's list: raised by ksClassAdd, lowered by
    // ksClassDelete.
    int16_t classCount;
};

// A DXF class name and the field that takes its number.
struct ksClassRole {
    const char* dxfName;
    int16_t ksClassNumbers::*field;
};
inline constexpr int ksClassRoleCount = 25;
// The 23 roles, then the two zombie classes.
extern const ksClassRole ksClassRoles[ksClassRoleCount];
// The role of a DXF name, ASCII letters compared without case; null for
// a name that has none.
const ksClassRole* ksClassRoleFind(const char* dxfName);

// ---------------------------------------------------------------------------
// Kinds and forms

enum : int16_t {
    ksKindDictionary = 32,
    ksKindMlineStyle = 33,
    ksKindClassRecord = 34,  // what nextObjectType answers for a DXF CLASS
    ksKindGroup = 36,
    ksKindProxy = 100,  // proxy or zombie object; applicationClass holds the class
    ksKindPlotSettings = 103,
    ksKindProxyEntity = 498,
    ksKindStream = 499,  // a class object kept as a group stream
    ksFirstClassNumber = 500,
};

// What a body is.
enum ksObjectForm : uint8_t {
    ksFormDictionary,
    ksFormMlineStyle,
    ksFormGroup,
    ksFormPlotSettings,
    ksFormProxy,   // kind 100, and any kind without a body of its own
    ksFormStream,  // kind 499: a ksProxyObject whose data is a group stream
    ksFormXrecord,
    ksFormIdBuffer,
    ksFormSortentsTable,
    ksFormDictionaryVar,
    ksFormImageDef,
    ksFormImageDefReactor,
    ksFormRasterVariables,
    ksFormSpatialFilter,
    ksFormLayerIndex,
    ksFormSpatialIndex,
    ksFormObjectPtr,
    ksFormDictionaryWithDefault,
    ksFormPlaceholder,  // no body
    ksFormLayout,
    ksFormVbaProject,
    ksFormWipeoutVariables,
    ksObjectFormCount
};

// The form of a kind in this drawing. Class numbers are compared with the
// role fields in the order XRECORD, IDBUFFER, SORTENTSTABLE, DICTIONARYVAR,
// IMAGEDEF, IMAGEDEF_REACTOR, RASTERVARIABLES, SPATIAL_FILTER, LAYER_INDEX,
// SPATIAL_INDEX, OBJECT_PTR, ACDBDICTIONARYWDFLT, ACDBPLACEHOLDER, LAYOUT,
// VBA_PROJECT, WIPEOUTVARIABLES; a null drawing knows no class.
ksObjectForm ksObjectFormOf(const ksFcb* fcb, int16_t kind);
// Bytes of the body of a kind in this drawing (0 for a placeholder).
uint32_t ksObjectBodySize(const ksFcb* fcb, int16_t kind);

// ---------------------------------------------------------------------------
// Records

struct ksObjectHeader {
    ksObjHandle handle;  // 5
    int16_t kind;
    ksLoc eed;           // extended data
    ksLoc reactors;      // reactorCount handles, 330 in {ACAD_REACTORS
    int32_t reactorCount;
    ksObjHandle owner;   // 330
    ksObjHandle xdict;   // 360 in {ACAD_XDICTIONARY: the extension dictionary
};

inline constexpr int ksObjectTextSize = 512;
inline constexpr int ksObjectShortTextSize = 256;

// An entry of a dictionary's `entries` blob: 520 bytes, see
// ksDictionaryEntryWrite.
struct ksDictionaryEntry {
    char name[ksObjectTextSize];  // 3
    ksObjHandle handle;           // 350
};

struct ksDictionary {
    int32_t entryCount;
    ksLoc entries;  // ksDictionaryEntry, in file order
    int16_t hardOwner;  // 280
    int16_t cloning;    // 281
};

// An element of a multiline style: 16 bytes in the blob.
struct ksMlineElement {
    int16_t color;          // 62
    int16_t linetypeIndex;  // 6: 32767 BYLAYER, 32766 BYBLOCK, else the
                            // linetype's place in the list from 0
    double offset;          // 49
};
inline constexpr int16_t ksMlineByLayer = 32767;
inline constexpr int16_t ksMlineByBlock = 32766;

struct ksMlineStyle {
    char name[ksObjectTextSize];              // 2
    int16_t flags;                            // 70, bits as DXF has them
    char description[ksObjectShortTextSize];  // 3
    int16_t fillColor;                        // 62; 256
    double startAngle;                        // 51, radians; a quarter turn
    double endAngle;                          // 52, the same
    int8_t elementCount;                      // 71; 2
    ksLoc elements;                           // ksMlineElement
};

struct ksGroup {
    char description[ksObjectTextSize];  // 300
    int32_t handleCount;
    int16_t unnamed;     // 70
    int16_t selectable;  // 71; 1
    ksLoc handles;       // 340, 8 bytes each
};

// Plot settings, and the first part of a layout. All zero but the two
// scale terms and the scale factor, which are 1.0.
struct ksPlotSettings {
    char pageSetupName[ksObjectTextSize];  // 1
    char plotConfig[ksObjectTextSize];     // 2
    char paperSize[ksObjectTextSize];      // 4
    char plotViewName[ksObjectTextSize];   // 6
    double leftMargin;                     // 40
    double bottomMargin;                   // 41
    double rightMargin;                    // 42
    double topMargin;                      // 43
    double paperWidth;                     // 44
    double paperHeight;                    // 45
    double plotOriginX;                    // 46
    double plotOriginY;                    // 47
    double windowMinX;                     // 48
    double windowMinY;                     // 49
    double windowMaxX;                     // 140
    double windowMaxY;                     // 141
    double realWorldUnits;                 // 142
    double drawingUnits;                   // 143
    int16_t plotLayoutFlags;               // 70
    int16_t paperUnits;                    // 72
    int16_t plotRotation;                  // 73
    int16_t plotType;                      // 74
    char currentStyleSheet[ksObjectTextSize];  // 7
    int16_t standardScaleType;                 // 75
    double scaleFactor;                        // 147
    double paperImageOriginX;                  // 148
    double paperImageOriginY;                  // 149
};

struct ksLayout {
    char name[ksObjectTextSize];  // 1
    int16_t layoutFlags;          // 70
    int16_t tabOrder;             // 71
    ksPlotSettings settings;
    ksPoint2 limitsMin;      // 10
    ksPoint2 limitsMax;      // 11
    ksPoint3 insertionBase;  // 12
    ksPoint3 extentsMin;     // 14
    ksPoint3 extentsMax;     // 15
    double elevation;        // 146
    ksPoint3 ucsOrigin;      // 13
    ksPoint3 ucsXAxis;       // 16
    ksPoint3 ucsYAxis;       // 17
    int16_t orthoViewType;   // 76
    ksObjHandle blockRecord;   // 330
    ksObjHandle lastViewport;  // 331
    ksObjHandle baseUcs;       // 345
    ksObjHandle namedUcs;      // 346
};

struct ksXrecord {
    int32_t dataBits;  // the data blob's bytes times 8
    ksLoc data;        // items, see ksNextXrecordItem
    int16_t cloning;   // 280
};

struct ksIdBuffer {
    int32_t handleCount;
    ksLoc handles;  // 330, 8 bytes each
};

struct ksDictionaryVar {
    int16_t schema;                     // 280
    char value[ksObjectShortTextSize];  // 1
};

struct ksImageDefReactor {
    int32_t classVersion;  // 90
    ksLoc image;           // one handle, 330
};

struct ksImageDef {
    int32_t classVersion;              // 90
    char fileName[ksObjectTextSize];   // 1
    ksPoint2 imageSize;                // 10
    ksPoint2 pixelSize;                // 11
    int16_t loaded;                    // 280
    int16_t resolutionUnits;           // 281
};

struct ksLayerIndex {
    int32_t entryCount;
    int32_t day;           // time stamp (40 is day + milliseconds / 86400000)
    int32_t milliseconds;
    ksLoc names;           // per entry: int32 (90), layer name (8); see
                           // ksLayerIndexEntryWrite
    ksLoc idBuffers;       // per entry a handle (360)
};

struct ksObjectPtr {
    int32_t bitCount;
    ksLoc bits;  // raw bits of the DWG object; empty from DXF
};

struct ksSpatialIndex {
    int32_t day;
    int32_t milliseconds;
    int32_t bitCount;
    ksLoc bits;
};

struct ksRasterVariables {
    int32_t classVersion;    // 90
    int16_t displayFrame;    // 70
    int16_t displayQuality;  // 71
    int16_t units;           // 72
};

struct ksSortentsTable {
    ksObjHandle ownerBlock;  // 330
    int32_t entryCount;
    ksLoc sortHandles;    // 5, 8 bytes each
    ksLoc entityHandles;  // 331, in step with sortHandles
};

struct ksSpatialFilter {
    int16_t pointCount;      // 70
    ksLoc points;            // 10, point2 each (ksPoint2Write)
    ksPoint3 normal;         // 210; (0, 0, 1)
    ksPoint3 origin;         // 11
    int16_t displayBoundary; // 71; 1
    int16_t frontClipOn;     // 72
    int16_t backClipOn;      // 73
    double frontClip;        // 40
    double backClip;         // 41
    // Four columns of three; DXF runs row by row: for each of the three
    // rows the four columns.
    double inverseBlockTransform[4][3];  // 40, twelve groups
    double clipTransform[4][3];          // 40, twelve groups
};

struct ksDictionaryWithDefault {
    int16_t entryCount;
    int16_t cloning;          // 281
    ksLoc entries;            // ksDictionaryEntry
    ksObjHandle defaultEntry; // 340
};

struct ksVbaProject {
    int32_t size;  // 90, bytes
    ksLoc data;    // 310
};

struct ksWipeoutVariables {
    int16_t displayFrame;  // 70; 1
};

// An object of a class that is kept, not decoded: raw bits from DWG,
// the group stream for kind 499.
struct ksProxyObject {
    int32_t dataBitLength;  // 93
    int32_t handleCount;    // entries in references
    ksLoc data;             // 310, or the group stream of kind 499
    ksLoc references;       // handle and kind (ksProxyReferenceWrite); plain
                            // 8-byte handles for kind 499
    int32_t originalClass;  // 95
    int16_t flags;          // 70
    int32_t applicationClass;  // 91; 0: the header's kind is the class
};

// Any body, for callers that need a buffer of the full size.
union ksObjectBody {
    ksDictionary dictionary;
    ksMlineStyle mlineStyle;
    ksGroup group;
    ksPlotSettings plotSettings;
    ksProxyObject proxy;
    ksXrecord xrecord;
    ksIdBuffer idBuffer;
    ksSortentsTable sortentsTable;
    ksDictionaryVar dictionaryVar;
    ksImageDef imageDef;
    ksImageDefReactor imageDefReactor;
    ksRasterVariables rasterVariables;
    ksSpatialFilter spatialFilter;
    ksLayerIndex layerIndex;
    ksSpatialIndex spatialIndex;
    ksObjectPtr objectPtr;
    ksDictionaryWithDefault dictionaryWithDefault;
    ksLayout layout;
    ksVbaProject vbaProject;
    ksWipeoutVariables wipeoutVariables;
};

// A class of the drawing.
struct ksClass {
    int16_t classNumber;              // 500 and up
    char dxfName[ksObjectTextSize];   // 1
    char cppName[ksObjectTextSize];   // 2
    char appName[ksObjectTextSize];   // 3
    int16_t classVersion;             // 90, its low 16 bits
    int16_t wasProxy;                 // 280
    int16_t itemClassId;              // 498 entities, 499 objects; 281 is 1
                                      // for 498 and 0 otherwise
};

#define KS_OBJECT_RECORD_CHECK(T)                                                \
    static_assert(std::is_trivially_copyable_v<T>, #T " is copied as bytes");    \
    static_assert(std::is_standard_layout_v<T>, "the field rows use offsetof"); \
    static_assert(sizeof(T) < 65536, "field offsets are 16 bits")
KS_OBJECT_RECORD_CHECK(ksObjectHeader);
KS_OBJECT_RECORD_CHECK(ksMlineStyle);
KS_OBJECT_RECORD_CHECK(ksLayout);
KS_OBJECT_RECORD_CHECK(ksSpatialFilter);
KS_OBJECT_RECORD_CHECK(ksProxyObject);
KS_OBJECT_RECORD_CHECK(ksClass);
KS_OBJECT_RECORD_CHECK(ksObjectBody);
#undef KS_OBJECT_RECORD_CHECK

// ---------------------------------------------------------------------------
// Setup

// Clears the header but for `kind`, then gives the body (of the size of
// the kind's body) the defaults of its form.
void ksObjectDefaults(const ksFcb* fcb, ksObjectHeader* header, void* body);
// The empty class: texts empty, number 0, itemClassId 499.
void ksClassDefaults(ksClass* record);

// ---------------------------------------------------------------------------
// Blob records
//
// All return 1, or 0 when the cursor is null or the bytes run out; a read
// that fails leaves the out argument in an unspecified but valid state.

// Dictionary entry, 520 bytes:
//   offset  size  content
//        0   512  name, NUL-padded; a read forces the last byte to NUL
//      512     8  handle, most significant byte first
int16_t ksDictionaryEntryWrite(ksBlobCursor* cursor, const ksDictionaryEntry& entry);
int16_t ksDictionaryEntryRead(ksBlobCursor* cursor, ksDictionaryEntry* entry);

// Multiline style element, 16 bytes:
//   offset  size  content
//        0     2  color
//        2     2  linetypeIndex
//        4     4  zero
//        8     8  offset, IEEE double
int16_t ksMlineElementWrite(ksBlobCursor* cursor, const ksMlineElement& element);
int16_t ksMlineElementRead(ksBlobCursor* cursor, ksMlineElement* element);

// Proxy reference (entity and object alike), 9 bytes: the 8 handle bytes,
// then the kind byte, (group - 320) / 10.
int16_t ksProxyReferenceWrite(ksBlobCursor* cursor, const ksObjHandle& handle, uint8_t kind);
int16_t ksProxyReferenceRead(ksBlobCursor* cursor, ksObjHandle* handle, uint8_t* kind);

// Layer index entry: the int32 (90), then the name as a blob text (2-byte
// length and bytes). A read takes names of at most 255 bytes into a buffer
// of 256.
int16_t ksLayerIndexEntryWrite(ksBlobCursor* cursor, int32_t count, const char* name);
int16_t ksLayerIndexEntryRead(ksBlobCursor* cursor, int32_t* count, char* name);

// A 2D point: two IEEE doubles, X then Y (16 bytes).
int16_t ksPoint2Write(ksBlobCursor* cursor, const ksPoint2& point);
int16_t ksPoint2Read(ksBlobCursor* cursor, ksPoint2* point);

// ---------------------------------------------------------------------------
// XRECORD items
//
// The data blob of an XRECORD holds its items in one form whatever the file
// was: a 2-byte group code, then the value by the code.

enum ksXrecordValueKind : uint8_t {
    ksXvNone,    // no stored form
    ksXvText,    // 2-byte length n, code page byte, n bytes
    ksXvBytes,   // 1-byte length n, n bytes
    ksXvPoint,   // three doubles
    ksXvReal,    // one double
    ksXvInt16,   // two bytes
    ksXvInt32,   // four bytes
    ksXvHandle,  // eight bytes; group 330 stands with its bytes reversed
};

inline constexpr int ksXrecordTextMax = 65535;  // the widest 2-byte length
inline constexpr uint8_t ksXrecordCodePage = 192;

struct ksXrecordItem {
    int16_t code;
    uint16_t length;  // texts: bytes without the end mark; byte runs: bytes
    union {
        char text[ksXrecordTextMax + 1];  // ends with NUL after a read
        uint8_t bytes[ksXrecordTextMax + 1];
        double real;
        ksPoint3 point;
        int16_t int16;
        int32_t int32;
        ksObjHandle handle;
    } value;
};

// The stored form of a code, as the readers know it; ksXvNone for any code
// no item can have.
ksXrecordValueKind ksXrecordKindOf(int16_t code);
// Whether ksAddXrecordItem takes the code: 0-9, 10-19, 40-79, 90-99, 100,
// 102, 140-147, 170-175, 300-369, 999-1071, all that have a stored form.
bool ksXrecordCodeAccepted(int16_t code);

// Reads the next item. 1 with the item; 0 at the end of the data, with
// error 0; 0 with error 165 for an unknown code or an item cut short by the
// end of the data; 162 for a null cursor.
int16_t ksNextXrecordItem(ksBlobCursor* reader, ksXrecordItem* item);
// Appends an item: a text is taken up to its end mark (at most
// ksXrecordTextMax bytes) and stored with the code page byte 192; a byte
// run takes `length`, at most 255. 0 with error 166 for a code outside the
// accepted ranges or a byte run too long for its form; 163 for a null
// cursor.
int16_t ksAddXrecordItem(ksBlobCursor* writer, const ksXrecordItem* item);

// ---------------------------------------------------------------------------
// Class list

void ksClassRewind(ksFcb* fcb);
int16_t ksClassNext(ksFcb* fcb, ksClass* record);  // 0 at the end
uint32_t ksClassCount(const ksFcb* fcb);
// 500 for an empty list, else the highest classNumber + 1; 0 when that
// passes 32767.
int16_t ksClassNextNumber(const ksFcb* fcb);
// Adds at the tail and notes the number in the role fields. A classNumber
// of 0 takes ksClassNextNumber. The class's number, or 0 with 202 (a number
// from 1 to 499, or no number left) or 223 (no memory).
int16_t ksClassAdd(ksFcb* fcb, const ksClass* record);
// Adds a class unless one of that DXF name is there (ASCII case ignored).
// 1 when it was there, else the new class's number; 0 when adding failed.
int16_t ksClassAddIfMissing(ksFcb* fcb, const char* dxfName, const char* cppName, const char* appName,
                            int16_t classVersion, int16_t itemClassId, int16_t wasProxy);
// Removes the first class of that number and clears the role fields that
// held it. 176 empty list, 180 no such class, 178 unlinking, 179 freeing.
int16_t ksClassDelete(ksFcb* fcb, int16_t number);
// Lookups that leave the list's cursor alone: 1 with the record, or 0.
int16_t ksClassFindName(const ksFcb* fcb, const char* dxfName, ksClass* record);
int16_t ksClassFindNumber(const ksFcb* fcb, int16_t number, ksClass* record);
// The classes every drawing holds, each added if its DXF name is missing,
// in the fixed order from LWPOLYLINE to ARCALIGNEDTEXT. 0 on the first
// failure.
int16_t ksAddDefaultClasses(ksFcb* fcb);
// Empties the class list and clears the class numbers.
void ksClassesFree(ksFcb* fcb);

// One row of the default class table.
struct ksDefaultClass {
    const char* dxfName;
    const char* cppName;
    const char* appName;
    int16_t classVersion;
    int16_t itemClassId;
};
inline constexpr int ksDefaultClassCount = 24;
extern const ksDefaultClass ksDefaultClasses[ksDefaultClassCount];

// ---------------------------------------------------------------------------
// Object list
//
// Nodes: list header, ksObjectHeader, then the body at the size of its
// kind. `body` arguments are buffers of at least ksObjectBodySize of the
// kind (a ksObjectBody always is).

void ksObjectRewind(ksFcb* fcb);
uint32_t ksObjectCount(const ksFcb* fcb);
// Copies the object at the cursor and moves the cursor on; 0 at the end.
int16_t ksObjectNext(ksFcb* fcb, ksObjectHeader* header, void* body);
// By handle: 303 not in the index, 304 not an object of this drawing's
// list, 305 unreadable. The cursor stands behind the object afterwards.
int16_t ksObjectSeek(ksFcb* fcb, const ksObjHandle& handle, ksObjectHeader* header, void* body);
// At the tail, with the handle entered in the index (errors of
// ksRecordAdd: 231, 223, 172, 173).
int16_t ksObjectAdd(ksFcb* fcb, const ksObjectHeader* header, const void* body);
// Copies header and body over the stored object of the header's handle,
// in place. 303/304 as ksObjectSeek; 205 when the kinds differ, and then
// nothing changes. The old object's blobs are the caller's.
int16_t ksObjectReplace(ksFcb* fcb, const ksObjectHeader* header, const void* body);
// Removes the object with its blobs. 164 empty list, 168 no object of
// that handle, 170 unlinking, 169 freeing.
int16_t ksObjectDelete(ksFcb* fcb, const ksObjHandle& handle);
// Frees the blobs an object owns (eed, reactors, the body's) and nulls
// their fields. 0 when one of them would not go.
int16_t ksObjectFreeBlobs(const ksFcb* fcb, ksObjectHeader* header, void* body);
// Makes `owner` the object's owner and its one reactor (a new reactor
// blob). 0, with the header's reactors left null, when the blob can't be
// made.
int16_t ksObjectSetOwner(ksObjectHeader* header, const ksObjHandle& owner);
// Frees every object and its blobs; the list stays, empty.
void ksObjectsFree(ksFcb* fcb);

// ---------------------------------------------------------------------------
// DXF field rows
//
// The groups of an object's head that go straight into a field, in the row
// form of the symbol tables (all versions). Groups with a reading of their
// own (entries, handles lists, matrices, reactors) have no row.

#define KS_OBJ_ROW(R, group, field, kind, index) \
    ksTableField{group, offsetof(R, field), sizeof(R::field), kind, index, 0, 7, 0}

// ksTableFieldTable[ksTableMlinestyle]: the MLINESTYLE head.
inline constexpr ksTableField ksMlineStyleFieldRows[] = {
    KS_OBJ_ROW(ksMlineStyle, 2, name, ksTfText, 0),
    KS_OBJ_ROW(ksMlineStyle, 3, description, ksTfText, 0),
    KS_OBJ_ROW(ksMlineStyle, 51, startAngle, ksTfAngle, 0),
    KS_OBJ_ROW(ksMlineStyle, 52, endAngle, ksTfAngle, 0),
    KS_OBJ_ROW(ksMlineStyle, 62, fillColor, ksTfShort, 0),
    KS_OBJ_ROW(ksMlineStyle, 70, flags, ksTfShort, 0),
    KS_OBJ_ROW(ksMlineStyle, 71, elementCount, ksTfByte, 0),
};

// ksTableFieldTable[ksTableClass]: the class record. Group 90 is a 32-bit
// group kept in 16 bits; the reader turns 281 into 498 or 499.
inline constexpr ksTableField ksClassFieldRows[] = {
    KS_OBJ_ROW(ksClass, 1, dxfName, ksTfText, 0),
    KS_OBJ_ROW(ksClass, 2, cppName, ksTfText, 0),
    KS_OBJ_ROW(ksClass, 3, appName, ksTfText, 0),
    KS_OBJ_ROW(ksClass, 90, classVersion, ksTfShort, 0),
    KS_OBJ_ROW(ksClass, 280, wasProxy, ksTfShort, 0),
    KS_OBJ_ROW(ksClass, 281, itemClassId, ksTfShort, 0),
};

#undef KS_OBJ_ROW

inline constexpr ksTableFieldSet ksMlineStyleFields = {
    ksMlineStyleFieldRows, static_cast<uint16_t>(std::size(ksMlineStyleFieldRows)),
    static_cast<uint16_t>(sizeof(ksMlineStyle))};
inline constexpr ksTableFieldSet ksClassFields = {
    ksClassFieldRows, static_cast<uint16_t>(std::size(ksClassFieldRows)), static_cast<uint16_t>(sizeof(ksClass))};

// The rows of a form, offsets into its body; rows null for a form without
// any. A layout's own fields are in ksFormLayout; its settings are read
// with the ksFormPlotSettings rows on `settings`.
const ksTableFieldSet& ksObjectFields(ksObjectForm form);
// The row of a group, or null.
const ksTableField* ksObjectFieldFind(ksObjectForm form, int group);
