// The HEADER section: the variables of the target's header in their fixed
// order, each written when the target release has it. The fields, groups
// and release ranges come from ksHeaderVarTable and ksHeaderNameTable;
// the order list below adds only how a value differs from its field.
#include <cstring>

#include "driver/hooks.h"
#include "dxfwrite/dxfwrite.h"
#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/header.h"
#include "records/object.h"
#include "store/handles.h"
#include "store/tablelist.h"

namespace {

// How a variable's value differs from its field as it stands.
enum HeaderHow : uint8_t {
    kField,          // the field by its kind and group
    kVersionText,    // $ACADVER: the target's version string
    kMaintVersion,   // $ACADMAINTVER: 6 for R2000
    kCodePage,       // $DWGCODEPAGE: the code page's name
    kLowByte,        // $SPLINESEGS: the low 8 bits
    kAngle,          // degrees
    kFull,           // points at full precision
    kDate10,         // $TDINDWG, $TDUSRTIMER: 10 decimals (other dates 9)
    kHandling,       // $HANDLING: also gives the target its handle state
    kBlockName,      // $DIMBLK...: the name of the block of a handle field
    kTableName,      // a name variable through the short-name rule
    kPlainName,      // a name variable as it stands
    kR12Extra,       // before R13 only with the R12 extras, and then in R12
    kR12CodePage,    // the R12 extras' $DWGCODEPAGE, its name as in the table
};

struct HeaderLine {
    const char* name;  // with the '$'
    HeaderHow how;
    ksObjHandle ksHeader::*block = nullptr;  // kBlockName
};

constexpr HeaderLine kHeaderOrder[] = {
    {"$ACADVER", kVersionText},
    {"$ACADMAINTVER", kMaintVersion},
    {"$DWGCODEPAGE", kCodePage},
    {"$INSBASE", kField},
    {"$EXTMIN", kField},
    {"$EXTMAX", kField},
    {"$LIMMIN", kField},
    {"$LIMMAX", kField},
    {"$VIEWCTR", kField},
    {"$VIEWSIZE", kField},
    {"$SNAPMODE", kField},
    {"$SNAPUNIT", kField},
    {"$SNAPBASE", kField},
    {"$SNAPANG", kAngle},
    {"$SNAPSTYLE", kField},
    {"$SNAPISOPAIR", kField},
    {"$GRIDMODE", kField},
    {"$GRIDUNIT", kField},
    {"$ORTHOMODE", kField},
    {"$REGENMODE", kField},
    {"$FILLMODE", kField},
    {"$QTEXTMODE", kField},
    {"$MIRRTEXT", kField},
    {"$DRAGMODE", kField},
    {"$LTSCALE", kField},
    {"$OSMODE", kField},
    {"$ATTMODE", kField},
    {"$TEXTSIZE", kField},
    {"$TRACEWID", kField},
    {"$TEXTSTYLE", kTableName},
    {"$CLAYER", kTableName},
    {"$CELTYPE", kTableName},
    {"$CECOLOR", kField},
    {"$CELTSCALE", kField},
    {"$DELOBJ", kField},
    {"$DISPSILH", kField},
    {"$DIMSCALE", kField},
    {"$DIMASZ", kField},
    {"$DIMEXO", kField},
    {"$DIMDLI", kField},
    {"$DIMRND", kField},
    {"$DIMDLE", kField},
    {"$DIMEXE", kField},
    {"$DIMTP", kField},
    {"$DIMTM", kField},
    {"$DIMTXT", kField},
    {"$DIMCEN", kField},
    {"$DIMTSZ", kField},
    {"$DIMTOL", kField},
    {"$DIMLIM", kField},
    {"$DIMTIH", kField},
    {"$DIMTOH", kField},
    {"$DIMSE1", kField},
    {"$DIMSE2", kField},
    {"$DIMTAD", kField},
    {"$DIMZIN", kField},
    {"$DIMBLK", kBlockName, &ksHeader::dimblkHandle},
    {"$DIMASO", kField},
    {"$DIMSHO", kField},
    {"$DIMPOST", kField},
    {"$DIMAPOST", kField},
    {"$DIMALT", kField},
    {"$DIMALTD", kField},
    {"$DIMALTF", kField},
    {"$DIMLFAC", kField},
    {"$DIMTOFL", kField},
    {"$DIMTVP", kField},
    {"$DIMTIX", kField},
    {"$DIMSOXD", kField},
    {"$DIMSAH", kField},
    {"$DIMBLK1", kBlockName, &ksHeader::dimblk1Handle},
    {"$DIMBLK2", kBlockName, &ksHeader::dimblk2Handle},
    {"$DIMSTYLE", kTableName},
    {"$DIMCLRD", kField},
    {"$DIMCLRE", kField},
    {"$DIMCLRT", kField},
    {"$DIMTFAC", kField},
    {"$DIMGAP", kField},
    {"$DIMJUST", kField},
    {"$DIMSD1", kField},
    {"$DIMSD2", kField},
    {"$DIMTOLJ", kField},
    {"$DIMTZIN", kField},
    {"$DIMALTZ", kField},
    {"$DIMALTTZ", kField},
    {"$DIMFIT", kField},
    {"$DIMUPT", kField},
    {"$DIMUNIT", kField},
    {"$DIMDEC", kField},
    {"$DIMTDEC", kField},
    {"$DIMALTU", kField},
    {"$DIMALTTD", kField},
    {"$DIMTXSTY", kTableName},
    {"$DIMAUNIT", kField},
    {"$DIMADEC", kField},
    {"$DIMALTRND", kField},
    {"$DIMAZIN", kField},
    {"$DIMDSEP", kField},
    {"$DIMATFIT", kField},
    {"$DIMFRAC", kField},
    {"$DIMLDRBLK", kBlockName, &ksHeader::dimldrblkHandle},
    {"$DIMLUNIT", kField},
    {"$DIMLWD", kField},
    {"$DIMLWE", kField},
    {"$DIMTMOVE", kField},
    {"$LUNITS", kField},
    {"$LUPREC", kField},
    {"$AXISMODE", kField},
    {"$AXISUNIT", kField},
    {"$SKETCHINC", kField},
    {"$FILLETRAD", kField},
    {"$AUNITS", kField},
    {"$AUPREC", kField},
    {"$MENU", kField},
    {"$ELEVATION", kField},
    {"$PELEVATION", kField},
    {"$THICKNESS", kField},
    {"$VIEWDIR", kField},
    {"$LIMCHECK", kField},
    {"$BLIPMODE", kField},
    {"$CHAMFERA", kField},
    {"$CHAMFERB", kField},
    {"$CHAMFERC", kField},
    {"$CHAMFERD", kField},
    {"$FASTZOOM", kField},
    {"$SKPOLY", kField},
    {"$TDCREATE", kField},
    {"$TDUCREATE", kField},
    {"$TDUPDATE", kField},
    {"$TDUUPDATE", kField},
    {"$TDINDWG", kDate10},
    {"$TDUSRTIMER", kDate10},
    {"$USRTIMER", kField},
    {"$ANGBASE", kAngle},
    {"$ANGDIR", kField},
    {"$PDMODE", kField},
    {"$PDSIZE", kField},
    {"$PLINEWID", kField},
    {"$COORDS", kField},
    {"$SPLFRAME", kField},
    {"$SPLINETYPE", kField},
    {"$SPLINESEGS", kLowByte},
    {"$ATTDIA", kField},
    {"$ATTREQ", kField},
    {"$HANDLING", kHandling},
    {"$HANDSEED", kField},
    {"$SURFTAB1", kField},
    {"$SURFTAB2", kField},
    {"$SURFTYPE", kField},
    {"$SURFU", kField},
    {"$SURFV", kField},
    {"$FLATLAND", kField},
    {"$UCSBASE", kPlainName},
    {"$UCSNAME", kTableName},
    {"$UCSORG", kFull},
    {"$UCSXDIR", kFull},
    {"$UCSYDIR", kFull},
    {"$UCSORTHOREF", kPlainName},
    {"$UCSORTHOVIEW", kField},
    {"$UCSORGTOP", kFull},
    {"$UCSORGBOTTOM", kFull},
    {"$UCSORGLEFT", kFull},
    {"$UCSORGRIGHT", kFull},
    {"$UCSORGFRONT", kFull},
    {"$UCSORGBACK", kFull},
    {"$PUCSBASE", kPlainName},
    {"$PUCSNAME", kPlainName},
    {"$PUCSORG", kFull},
    {"$PUCSXDIR", kFull},
    {"$PUCSYDIR", kFull},
    {"$PUCSORTHOREF", kPlainName},
    {"$PUCSORTHOVIEW", kField},
    {"$PUCSORGTOP", kFull},
    {"$PUCSORGBOTTOM", kFull},
    {"$PUCSORGLEFT", kFull},
    {"$PUCSORGRIGHT", kFull},
    {"$PUCSORGFRONT", kFull},
    {"$PUCSORGBACK", kFull},
    {"$USERI1", kField},
    {"$USERI2", kField},
    {"$USERI3", kField},
    {"$USERI4", kField},
    {"$USERI5", kField},
    {"$USERR1", kField},
    {"$USERR2", kField},
    {"$USERR3", kField},
    {"$USERR4", kField},
    {"$USERR5", kField},
    {"$WORLDVIEW", kField},
    {"$SHADEDGE", kField},
    {"$SHADEDIF", kField},
    {"$TILEMODE", kField},
    {"$MAXACTVP", kField},
    {"$PINSBASE", kField},
    {"$PLIMCHECK", kField},
    {"$PEXTMIN", kField},
    {"$PEXTMAX", kField},
    {"$PLIMMIN", kField},
    {"$PLIMMAX", kField},
    {"$UNITMODE", kField},
    {"$VISRETAIN", kField},
    {"$PLINEGEN", kR12Extra},
    {"$PSLTSCALE", kR12Extra},
    {"$TREEDEPTH", kR12Extra},
    {"$DWGCODEPAGE", kR12CodePage},
    {"$PICKSTYLE", kField},
    {"$CMLSTYLE", kTableName},
    {"$CMLJUST", kField},
    {"$CMLSCALE", kField},
    {"$PROXYGRAPHICS", kField},
    {"$MEASUREMENT", kField},
    {"$SAVEIMAGES", kField},
    {"$CELWEIGHT", kField},
    {"$ENDCAPS", kField},
    {"$JOINSTYLE", kField},
    {"$LWDISPLAY", kField},
    {"$INSUNITS", kField},
    {"$HYPERLINKBASE", kField},
    {"$XEDIT", kField},
    {"$CEPSNTYPE", kField},
    {"$PSTYLEMODE", kField},
    {"$FINGERPRINTGUID", kField},
    {"$VERSIONGUID", kField},
    {"$EXTNAMES", kField},
    {"$PSVPSCALE", kField},
};

// What a name variable's handle is looked up in, and the error of a miss.
struct NameSource {
    const char* name;  // without the '$'
    int table;         // a ksTableList; -1 the multiline styles
    int16_t missError;
};

constexpr NameSource kNameSources[] = {
    {"CLAYER", ksListLayers, 59},   {"CELTYPE", ksListLinetypes, 60}, {"DIMSTYLE", ksListDimStyles, 61},
    {"UCSNAME", ksListUcses, 62},   {"PUCSNAME", ksListUcses, 63},    {"TEXTSTYLE", ksListShapeFiles, 64},
    {"DIMTXSTY", ksListShapeFiles, 65}, {"CMLSTYLE", -1, 128},
};

// The places in their tables of the names in ksG->headerNames, by buffer.
int32_t nameIndex[ksHeaderNameCount];

void setName(int buffer, const char* text)
{
    const size_t length = strnlen(text, ksHeaderNameSize - 1);
    std::memcpy(ksG->headerNames[buffer], text, length);
    ksG->headerNames[buffer][length] = '\0';
}

// The multiline style object of that handle; its name goes to the buffer.
bool findMlineStyle(ksFcb* source, const ksObjHandle& handle, int buffer)
{
    ksObjectHeader head;
    ksObjectBody body;
    ksObjectRewind(source);
    while (ksObjectNext(source, &head, &body)) {
        if (head.kind == ksKindMlineStyle && ksHandleCompare(head.handle, handle) == 0) {
            setName(buffer, body.mlineStyle.name);
            return true;
        }
    }
    return false;
}

bool resolveName(ksFcb* source, const ksHeader* header, const NameSource& from)
{
    const ksHeaderNameVar* var = ksHeaderNameFind(from.name);
    ksObjHandle handle;
    std::memcpy(&handle, reinterpret_cast<const uint8_t*>(header) + var->handleOffset, sizeof handle);
    const int buffer = var->buffer;
    nameIndex[buffer] = 0;
    if (from.table == ksListLinetypes && !ksHandleIsNull(handle)) {
        // The two fixed linetypes stand first in the LTYPE table.
        const bool byBlock = ksHandleCompare(handle, source->byBlockHandle) == 0;
        if (byBlock || ksHandleCompare(handle, source->byLayerHandle) == 0) {
            setName(buffer, byBlock ? "ByBlock" : "ByLayer");
            nameIndex[buffer] = byBlock ? 0 : 1;
            return true;
        }
    }
    if (ksHandleIsNull(handle)) {
        if (from.table == ksListDimStyles) {
            setName(buffer, "*UNNAMED");
            return true;
        }
        if (from.table == ksListUcses) {
            setName(buffer, "");
            return true;
        }
    }
    ksG->errorNumber = from.missError;
    if (from.table < 0)
        return findMlineStyle(source, handle, buffer);
    int32_t index = 0;
    const char* name = ksDxfTableName(source, static_cast<ksTableList>(from.table), handle, &index);
    if (name == nullptr)
        return false;
    setName(buffer, name);
    nameIndex[buffer] = from.table == ksListLinetypes ? index + 2 : index;
    return true;
}

// ---- Values -------------------------------------------------------------------

template <typename T>
T fieldOf(const ksHeader* header, const ksHeaderVar* var)
{
    T value;
    std::memcpy(&value, ksHeaderVarField(header, var), sizeof value);
    return value;
}

int16_t writePoint(ksFcb* target, const ksHeader* header, const ksHeaderVar* var, bool full)
{
    const int16_t g = var->group;
    int16_t (*real)(ksFcb*, int16_t, double) = full ? ksDxfWriteRealFull : ksDxfWriteReal;
    if (var->kind == ksHvPoint2) {
        const auto p = fieldOf<ksPoint2>(header, var);
        return real(target, g, p.x) && real(target, g + 10, p.y);
    }
    const auto p = fieldOf<ksPoint3>(header, var);
    const bool z = target->outputVersion >= var->zFromVersion;
    return real(target, g, p.x) && real(target, g + 10, p.y) && (!z || real(target, g + 20, p.z));
}

// The value groups of a variable that is its field.
int16_t writeField(ksFcb* target, const ksHeader* header, const ksHeaderVar* var, HeaderHow how)
{
    const int16_t g = var->group;
    switch (var->kind) {
        case ksHvByte:
        case ksHvShort:
        case ksHvShortIndex:
        case ksHvLowByte:
            return ksDxfWriteInt16(target, g, static_cast<int16_t>(ksHeaderVarGetInt(header, var)));
        case ksHvReal:
        case ksHvRealIndex:
            return how == kAngle ? ksDxfWriteAngle(target, g, ksHeaderVarGetReal(header, var))
                                 : ksDxfWriteReal(target, g, ksHeaderVarGetReal(header, var));
        case ksHvPoint2:
        case ksHvPoint3:
            return writePoint(target, header, var, how == kFull);
        case ksHvText:
            return ksDxfWriteText(target, g, static_cast<const char*>(ksHeaderVarField(header, var)));
        case ksHvDate:
            return ksDxfWriteDate(target, g, fieldOf<ksDate>(header, var), how == kDate10 ? 10 : 9);
        case ksHvHandle:
            return ksDxfWriteHandle(target, g, fieldOf<ksObjHandle>(header, var));
        case ksHvCodePage: {
            char name[16] = "";
            ksCodePageName(static_cast<int16_t>(ksHeaderVarGetInt(header, var)), name);
            if (target->outputVersion >= ksAC1014 && how != kR12CodePage) {
                for (char* c = name; *c; ++c)
                    if (*c >= 'a' && *c <= 'z')
                        *c = static_cast<char>(*c - 'a' + 'A');
            }
            return ksDxfWriteText(target, g, name);
        }
    }
    return 0;
}

int16_t writeBlockName(ksFcb* source, ksFcb* target, const ksObjHandle& handle)
{
    if (ksHandleIsNull(handle))
        return ksDxfWriteText(target, 1, "");
    int32_t index = 0;
    const char* name = ksDxfTableName(source, ksListBlockHeaders, handle, &index);
    ksG->errorNumber = 303;
    if (name == nullptr)
        return 0;
    char fileName[ksTableNameSize];
    ksDxfBlockFileName(name, index, fileName);
    return ksDxfWriteName(source, target, 1, fileName, index);
}

// One line of the order: nothing when the target doesn't have it.
int16_t writeLine(ksFcb* source, ksFcb* target, const ksHeader* header, const HeaderLine& line, int16_t r12Extras)
{
    const int16_t version = target->outputVersion;
    if (line.how == kTableName || line.how == kPlainName) {
        const ksHeaderNameVar* var = ksHeaderNameFind(line.name);
        if (!ksHeaderNameWritten(var, version))
            return 1;
        const char* text = (var->flags & ksHvWrittenEmpty) ? "" : ksG->headerNames[var->buffer];
        if (!ksDxfWriteText(target, 9, line.name))
            return 0;
        return line.how == kTableName ? ksDxfWriteName(source, target, var->group, text, nameIndex[var->buffer])
                                      : ksDxfWriteText(target, var->group, text);
    }
    const ksHeaderVar* var = ksHeaderVarFind(line.name);
    ksG->errorNumber = 27;
    if (var == nullptr)
        return 0;
    bool written = ksHeaderVarWritten(var, version);
    if (line.how == kR12Extra || line.how == kR12CodePage)
        written = version >= ksAC1012 ? written && line.how == kR12Extra : version == ksAC1009 && r12Extras;
    if (line.how == kHandling && version >= ksAC1006) {
        target->handlesEnabled = static_cast<uint8_t>(header->HANDLING & 0xFF);
        target->handleSeed = header->HANDSEED;
    }
    if (!written)
        return 1;
    if (!ksDxfWriteText(target, 9, line.name))
        return 0;
    switch (line.how) {
        case kVersionText:
            return ksDxfWriteText(target, var->group, ksVersionNames[version]);
        case kMaintVersion:
            return ksDxfWriteInt16(target, var->group, version >= ksAC1015 ? 6 : header->ACADMAINTVER);
        case kLowByte:
            return ksDxfWriteInt16(target, var->group, static_cast<int16_t>(header->SPLINESEGS & 0xFF));
        case kBlockName:
            return writeBlockName(source, target, header->*line.block);
        default:
            return writeField(target, header, var, line.how);
    }
}

}  // namespace

int16_t ksDxfResolveHeaderNames(ksFcb* source, ksHeader* header)
{
    for (const NameSource& from : kNameSources)
        if (!resolveName(source, header, from))
            return 0;
    // The base and orthographic references are written empty.
    for (const char* name : {"UCSBASE", "PUCSBASE", "UCSORTHOREF", "PUCSORTHOREF"})
        setName(ksHeaderNameFind(name)->buffer, "");
    ksG->errorNumber = 0;
    return 1;
}

int16_t ksDxfWriteHeader(ksFcb* source, ksFcb* target, ksHeader* header, int16_t r12Extras)
{
    if (target->fileType == 2) {
        // The sentinel goes straight to the file, ahead of the gathered
        // groups, which are flushed first should there be any.
        static constexpr char kSentinel[] = "AutoCAD Binary DXF\r\n\x1A";  // and its NUL: 22 bytes
        static_assert(sizeof kSentinel == 22);
        if (!ksDxfFlushOutput(target))
            return 0;
        ksG->errorNumber = 27;
        if (ksFileWrite(kSentinel, 1, sizeof kSentinel, target->outputFile) != sizeof kSentinel)
            return 0;
    }
    if (!ksDxfWriteText(target, 0, "SECTION") || !ksDxfWriteText(target, 2, "HEADER"))
        return 0;
    for (const HeaderLine& line : kHeaderOrder)
        if (!writeLine(source, target, header, line, r12Extras))
            return 0;
    return ksDxfSectionEnd(target);
}
