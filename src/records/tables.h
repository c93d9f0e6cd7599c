// The symbol table records: one plain record per table entry (linetype,
// layer, text style, view, UCS, viewport, registered application, dimension
// style, block header), their setup operations, and the DXF field tables
// through which groups reach the records' fields.
//
// Every record is plain data copied whole into and out of the table lists.
// The field order is fixed: the DWG readers and writers and the list nodes
// rely on it. Every record starts with ownerHandle. A blob or a list of the
// store is held by its location (ksLoc, 0 for none).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "frame/kstypes.h"
#include "store/vm.h"

struct ksFcb;

// Size of every record name and of the longer texts of the records.
inline constexpr int ksTableNameSize = 512;
// A linetype holds at most this many dashes; further dashes have no room.
inline constexpr int ksLinetypeMaxDashes = 15;
// Bytes for the texts of all dashes of one linetype, NULs included.
inline constexpr int ksLinetypeTextAreaSize = 256;

struct ksLayer {
    ksObjHandle ownerHandle;
    int8_t deleted;
    int16_t xrefIndex;  // -1: not from an external reference
    int16_t color;      // negative: the layer is off
    int8_t flags;
    char name[ksTableNameSize];
    ksObjHandle linetypeHandle;   // DXF names the linetype (group 6)
    ksObjHandle xrefBlockHandle;  // external reference block of a DWG entry
    ksObjHandle entryHandle;
    ksObjHandle xdictHandle;
    ksLoc eed;
    int32_t reactorCount;
    ksLoc reactors;  // reactorCount handles of 8 bytes
    int16_t plotFlag;
    int16_t lineweight;
    ksObjHandle plotStyleHandle;
};

// One element of a linetype's pattern.
struct ksLinetypeDash {
    double length;
    int16_t shapeNumber;
    double scale;
    double rotation;  // radians; degrees in DXF
    double xOffset;
    double yOffset;
    ksObjHandle styleHandle;
    int16_t dashFlags;   // bit value 2: textOffset is valid
    int16_t textOffset;  // the dash's text in textArea; 0 for none
};

struct ksLinetype {
    ksObjHandle ownerHandle;
    int8_t deleted;
    int16_t xrefIndex;
    char name[ksTableNameSize];
    char description[ksTableNameSize];
    int8_t alignment;
    int8_t flags;
    int16_t dashCount;
    double patternLength;
    ksLinetypeDash dashes[ksLinetypeMaxDashes];
    ksObjHandle xrefBlockHandle;
    ksObjHandle entryHandle;
    ksObjHandle xdictHandle;
    // The dash texts one after another, each closed by a NUL. Offset 0 is
    // "no text", so a reader places the first text at offset 1 or later.
    char textArea[ksLinetypeTextAreaSize];
    ksLoc eed;
    int32_t reactorCount;
    ksLoc reactors;
};

// A text style, or a shape file (flag bit value 1).
struct ksStyle {
    ksObjHandle ownerHandle;
    char bigFont[256];
    int8_t deleted;
    int16_t xrefIndex;
    int8_t generation;
    int8_t flags;
    char name[ksTableNameSize];
    char fontFile[256];
    double obliqueAngle;  // radians; degrees in DXF
    double height;
    double widthFactor;
    double lastHeight;
    ksObjHandle xrefBlockHandle;
    ksObjHandle entryHandle;
    ksObjHandle xdictHandle;
    ksLoc eed;
    int32_t reactorCount;
    ksLoc reactors;
};

struct ksView {
    ksObjHandle ownerHandle;
    int8_t deleted;
    int16_t xrefIndex;
    double backClip;
    ksPoint2 center;
    ksPoint3 direction;
    int8_t flags;
    int8_t viewFlags2;  // the byte beside the flags in a pre-R13 file
    double frontClip;
    double height;
    double lensLength;
    char name[ksTableNameSize];
    ksPoint3 target;
    double twist;  // radians; degrees in DXF
    int16_t viewMode;
    double width;
    int16_t renderMode;
    int16_t ucsAssociated;  // 1: the UCS fields below apply
    ksPoint3 ucsOrigin;
    ksPoint3 ucsXAxis;
    ksPoint3 ucsYAxis;
    int16_t orthoType;
    double elevation;
    ksObjHandle baseUcsHandle;
    ksObjHandle namedUcsHandle;
    ksObjHandle entryHandle;
    ksObjHandle xdictHandle;
    ksLoc eed;
    int32_t reactorCount;
    ksLoc reactors;
};

struct ksUcs {
    ksObjHandle ownerHandle;
    int8_t deleted;
    int16_t xrefIndex;
    int8_t flags;
    char name[ksTableNameSize];
    ksPoint3 origin;
    ksPoint3 xAxis;
    ksPoint3 yAxis;
    ksObjHandle entryHandle;
    ksObjHandle xdictHandle;
    ksLoc eed;
    int32_t reactorCount;
    ksLoc reactors;
    int16_t orthoType;
    int16_t orthoView;
    double elevation;
    ksObjHandle baseUcsHandle;
    ksObjHandle secondUcsHandle;  // only carried from R2000 DWG to R2000 DWG
    ksPoint3 orthoOrigin;
};

// An entry of the VPORT table.
struct ksVport {
    ksObjHandle ownerHandle;
    int8_t deleted;
    int16_t xrefIndex;
    int8_t flags;
    char name[ksTableNameSize];
    ksPoint2 lowerLeft;
    ksPoint2 upperRight;
    ksPoint2 snapBase;
    ksPoint2 snapSpacing;
    ksPoint2 gridSpacing;
    ksPoint2 center;
    ksPoint3 direction;
    ksPoint3 target;
    double twist;  // radians; degrees in DXF
    double height;
    int16_t viewMode;
    int16_t circleZoom;
    int16_t fastZoom;
    int16_t ucsIcon;
    double aspect;
    double backClip;
    double frontClip;
    int16_t gridOn;
    double lensLength;
    int16_t snapIsoPair;
    int16_t snapOn;
    double snapAngle;  // radians; degrees in DXF
    int16_t snapStyle;
    int16_t renderMode;
    int16_t ucsFollow;
    ksPoint3 ucsOrigin;
    ksPoint3 ucsXAxis;
    ksPoint3 ucsYAxis;
    int16_t orthoType;
    double elevation;
    ksObjHandle baseUcsHandle;
    ksObjHandle namedUcsHandle;
    ksObjHandle entryHandle;
    ksObjHandle xdictHandle;
    ksLoc eed;
    int32_t reactorCount;
    ksLoc reactors;
};

// A registered application. Unlike most records, xrefIndex comes before
// deleted.
struct ksAppid {
    ksObjHandle ownerHandle;
    int16_t xrefIndex;
    int8_t deleted;
    int8_t flags;
    char name[ksTableNameSize];
    ksObjHandle entryHandle;
    ksObjHandle xdictHandle;
    ksLoc eed;
    int32_t reactorCount;
    ksLoc reactors;
};

// A dimension style: the dimension variables in the style's own widths.
// As in the application record, xrefIndex comes before deleted. The block
// variables are handles of block records; DXF before R2000 names the blocks.
struct ksDimstyle {
    ksObjHandle ownerHandle;
    int16_t xrefIndex;
    int8_t deleted;
    int8_t flags;
    char name[ksTableNameSize];
    int16_t DIMADEC;
    int8_t DIMALT;
    int8_t DIMALTD;
    double DIMALTF;
    double DIMALTRND;
    char DIMAPOST[ksTableNameSize];
    double DIMASZ;
    int16_t DIMAZIN;
    ksObjHandle DIMBLK;
    ksObjHandle DIMBLK1;
    ksObjHandle DIMBLK2;
    double DIMCEN;
    int16_t DIMCLRD;
    int16_t DIMCLRE;
    int16_t DIMCLRT;
    double DIMDLE;
    double DIMDLI;
    double DIMEXE;
    double DIMEXO;
    double DIMGAP;
    double DIMLFAC;
    int8_t DIMLIM;
    char DIMPOST[ksTableNameSize];
    double DIMRND;
    int8_t DIMSAH;
    double DIMSCALE;
    int8_t DIMSE1;
    int8_t DIMSE2;
    double DIMTFAC;
    int8_t DIMTIH;
    double DIMTM;
    int8_t DIMTOH;
    int8_t DIMTOFL;
    int8_t DIMTOL;
    double DIMTP;
    double DIMTSZ;
    double DIMTXT;
    double DIMTVP;
    int8_t DIMSOXD;
    int8_t DIMTAD;
    int8_t DIMTIX;
    int8_t DIMZIN;
    int16_t DIMALTTD;
    int8_t DIMALTTZ;
    int16_t DIMALTU;
    int8_t DIMALTZ;
    int16_t DIMAUNIT;
    int16_t DIMDEC;
    int8_t DIMFIT;
    int8_t DIMJUST;
    int8_t DIMSD1;
    int8_t DIMSD2;
    int16_t DIMTDEC;
    int8_t DIMTOLJ;
    int8_t DIMTZIN;
    int16_t DIMUNIT;
    int8_t DIMUPT;
    int16_t DIMFRAC;
    int16_t DIMDSEP;
    int16_t DIMTMOVE;
    ksObjHandle DIMLDRBLK;
    int16_t DIMLWD;
    int16_t DIMLWE;
    ksObjHandle entryHandle;  // group 105: group 5 is DIMBLK in older DXF
    ksObjHandle DIMTXSTY;
    ksObjHandle xdictHandle;
    ksLoc eed;
    int32_t reactorCount;
    ksLoc reactors;
};

// One block of the drawing, with its entity list. Written to DXF as one
// BLOCK_RECORD; read from DXF off the BLOCK entity.
struct ksBlockHeader {
    ksObjHandle ownerHandle;
    ksObjHandle layoutHandle;
    ksLoc previewData;  // blob of preview bytes (R2000)
    int8_t flags;       // bit value 8: overlaid external reference (R14 on)
    char name[ksTableNameSize];
    char description[ksTableNameSize];  // R2000 only
    int8_t deleted;
    int16_t xrefIndex;
    ksObjHandle entryHandle;
    int8_t overlay;  // flag bit value 8 as found in a file later than R13
    ksLoc entities;  // the block's entity list
    ksObjHandle xdictHandle;
    ksLoc eed;  // extended data, in the place it has in every other record
    int32_t reactorCount;
    ksLoc reactors;
};

// A working record, in no list: carries one BLOCK_RECORD between a block
// header and DXF text.
struct ksBlockRecordEntry {
    ksObjHandle ownerHandle;
    char name[ksTableNameSize];
    ksObjHandle layoutHandle;
    ksObjHandle entryHandle;
    ksObjHandle xdictHandle;
    ksLoc previewData;
};

#define KS_TABLE_RECORD_CHECKS(T)                                                  \
    static_assert(std::is_trivially_copyable_v<T>, #T " is copied as bytes");     \
    static_assert(std::is_standard_layout_v<T>, "the field tables use offsetof"); \
    static_assert(sizeof(T) < 65536, "ksTableField keeps offsets in 16 bits")
KS_TABLE_RECORD_CHECKS(ksLayer);
KS_TABLE_RECORD_CHECKS(ksLinetype);
KS_TABLE_RECORD_CHECKS(ksStyle);
KS_TABLE_RECORD_CHECKS(ksView);
KS_TABLE_RECORD_CHECKS(ksUcs);
KS_TABLE_RECORD_CHECKS(ksVport);
KS_TABLE_RECORD_CHECKS(ksAppid);
KS_TABLE_RECORD_CHECKS(ksDimstyle);
KS_TABLE_RECORD_CHECKS(ksBlockHeader);
KS_TABLE_RECORD_CHECKS(ksBlockRecordEntry);
#undef KS_TABLE_RECORD_CHECKS

// Setup operations. Each read operation calls the one of its record first;
// whatever a file does not give keeps these values. Every record starts
// with xrefIndex -1 (not from an external reference): the DWG writers turn
// any other value into an xref-dependent entry.

// Colour 7, plot flag 1, lineweight -3 (default), the drawing's first
// linetype; all else zero.
void ksLayerDefaults(ksFcb* fcb, ksLayer* record);
// Alignment 'A', flags 64, no dashes, every dash at scale 1.0.
void ksLinetypeDefaults(ksLinetype* record);
// All zero, width factor 1.0.
void ksStyleDefaults(ksStyle* record);
// Unit height and width, looking down Z, lens 50, world UCS axes.
void ksViewDefaults(ksView* record);
// All zero.
void ksUcsDefaults(ksUcs* record);
// The viewport of a new drawing.
void ksVportDefaults(ksVport* record);
// All zero.
void ksAppidDefaults(ksAppid* record);
// The dimension style image; DIMTXSTY the drawing's first text style.
void ksDimstyleDefaults(ksFcb* fcb, ksDimstyle* record);
// Empty, not deleted.
void ksBlockHeaderDefaults(ksBlockHeader* record);

// The handle of the first record of the drawing's linetype list and of its
// text style list; null when the list is empty.
ksObjHandle ksFirstLinetypeHandle(const ksFcb* fcb);
ksObjHandle ksFirstStyleHandle(const ksFcb* fcb);

// Table numbers of the DXF field tables and of ksTableNames.
enum ksTableNumber : int {
    ksTableLtype = 0,
    ksTableLayer = 1,
    ksTableStyle = 2,
    ksTableView = 3,
    ksTableVport = 4,
    ksTableAppid = 5,
    ksTableDimstyle = 6,
    ksTableUcs = 7,
    ksTableBlock = 8,        // ksBlockHeader, read off the BLOCK entity
    ksTableBlockRecord = 9,  // ksBlockRecordEntry
    ksTableMlinestyle = 10,  // the MLINESTYLE object's head
    ksTableClass = 11,       // ksClass
    ksTableNumberCount = 12
};

// The DXF record names, by table number.
inline constexpr const char* ksTableNames[ksTableNumberCount] = {
    "LTYPE", "LAYER", "STYLE", "VIEW", "VPORT", "APPID",
    "DIMSTYLE", "UCS", "BLOCK", "BLOCK_RECORD", "MLINESTYLE", "CLASS",
};

// The table number of a record name, ASCII letters compared without case;
// -1 for a name that is none of ksTableNames.
int ksTableNumberFind(std::string_view name);

// How a DXF group's value is stored into its field. The first eight are
// those of entity reading; the rest exist for the table records.
enum ksTableFieldKind : uint8_t {
    ksTfByte,        // int8: the low 8 bits of the integer
    ksTfShort,       // int16[index]
    ksTfReal,        // double[index]; a point's axes are index 0, 1, 2
    ksTfAngle,       // double: degrees in DXF, radians in the record
    ksTfText,        // char field, copied and cut to width - 1 bytes
    ksTfCodedText,   // as text, with the caret coding undone
    ksTfHandle,      // ksObjHandle
    ksTfLong,        // int32[index]
    ksTfName,        // a record's own name: copied on reading; the DXF
                     // writer shortens it for old targets
    ksTfNameRef,     // ksObjHandle of the record of that name in table
                     // `index` (a ksTableNumber); a missing record leaves it
    ksTfDashStart,   // next dash (see ksTfInDash): the cursor moves on unless
                     // this is the first dash, dashFlags := 0, then the real
    ksTfDashText,    // the current dash's text: goes into textArea at the text
                     // cursor, whose offset goes into the int16 field
    ksTfByteChunks,  // a run of hexadecimal byte groups, appended to a blob
                     // whose location is the ksLoc field
};

// Row flags.
enum : uint8_t {
    // The field is one of the current dash: offset names it in dashes[0],
    // and the dash's index times sizeof(ksLinetypeDash) is added.
    ksTfInDash = 1,
};

// One DXF group of a record: where its value goes, and in which file
// versions the group has this meaning.
struct ksTableField {
    int16_t group;
    uint16_t offset;  // offsetof the field in the record
    uint16_t width;   // bytes of the whole field (a whole point, a whole text)
    ksTableFieldKind kind;
    int8_t index;      // element of the field; table number for ksTfNameRef
    int8_t minVersion; // ksVersion codes in which the group carries
    int8_t maxVersion; // this field
    uint8_t flags;     // ksTfInDash
};

// The rows of one table, sorted by group and, within a group, by version.
struct ksTableFieldSet {
    const ksTableField* rows;  // null for a table without rows
    uint16_t count;
    uint16_t recordSize;  // sizeof the record the offsets refer to
};

// By table number.
extern const ksTableFieldSet ksTableFieldTable[ksTableNumberCount];

// The row of a group in a table for a file of the given ksVersion, or null
// when the group has no field there. A version outside 0..7 is taken as the
// nearest known one.
const ksTableField* ksTableFieldFind(int table, int group, int version);

// Bytes of one element of a field of the kind: 1 for the texts.
size_t ksTableFieldElementWidth(ksTableFieldKind kind);

// The storage a row names in a record: the field, its element `index` for
// short, real and long, and for a dash field that of dash `dash` (0 to 14;
// ignored for other rows). Null for a dash out of range.
void* ksTableFieldAddress(void* record, const ksTableField* row, int dash);
