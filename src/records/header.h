// The header record of a drawing: every drawing-wide variable, one ksHeader
// per ksFcb, plus the two tables through which DXF names reach its fields.
//
// The record is plain data copied whole (the save path copies the source's
// header into the target). Its fields stand in a fixed order that the DWG
// readers and writers rely on; a variable keeps its DXF name without the
// '$', and the few fields that no DXF variable names are lower camel case.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "frame/globals.h"
#include "frame/kstypes.h"

struct ksHeader {
    int16_t ACADMAINTVER;
    char ACADVER[7];
    double ANGBASE;  // radians; degrees in DXF
    int16_t ANGDIR;
    int16_t ATTDIA;
    int16_t ATTMODE;
    int16_t ATTREQ;
    int16_t AUNITS;
    int16_t AUPREC;
    int16_t AXISMODE;
    ksPoint2 AXISUNIT;
    double BACKZ;  // DWG only
    int16_t BLIPMODE;
    int16_t CECOLOR;
    double CELTSCALE;
    int16_t CELWEIGHT;
    int16_t CEPSNTYPE;
    double CHAMFERA;
    double CHAMFERB;
    double CHAMFERC;
    double CHAMFERD;
    int16_t CMLJUST;
    double CMLSCALE;
    int16_t COORDS;
    int16_t CYCLECURR;  // pre-R13 DWG only
    int16_t CYCLEKEEP;  // pre-R13 DWG only
    int8_t DELOBJ;
    int16_t DIMADEC;
    int8_t DIMALT;
    int8_t DIMALTD;
    double DIMALTF;
    double DIMALTRND;
    int16_t DIMALTTD;
    int8_t DIMALTTZ;
    int16_t DIMALTU;
    int8_t DIMALTZ;
    char DIMAPOST[121];
    int8_t DIMASO;
    double DIMASZ;
    int16_t DIMAUNIT;
    int16_t DIMAZIN;
    char DIMBLK[512];
    ksObjHandle dimblkHandle;  // block record behind DIMBLK
    char DIMBLK1[512];
    ksObjHandle dimblk1Handle;  // block record behind DIMBLK1
    char DIMBLK2[512];
    ksObjHandle dimblk2Handle;  // block record behind DIMBLK2
    double DIMCEN;
    int16_t DIMCLRD;
    int16_t DIMCLRE;
    int16_t DIMCLRT;
    int16_t DIMDEC;
    double DIMDLE;
    double DIMDLI;
    int16_t DIMDSEP;
    double DIMEXE;
    double DIMEXO;
    // One field under two DXF names: $DIMATFIT stores all 16 bits, $DIMFIT
    // (R13/R14) only the low byte.
    int16_t DIMATFIT;
    int16_t DIMFRAC;
    double DIMGAP;
    int8_t DIMJUST;
    char DIMLDRBLK[512];
    ksObjHandle dimldrblkHandle;  // block record behind DIMLDRBLK
    double DIMLFAC;
    int8_t DIMLIM;
    int16_t DIMLWD;
    int16_t DIMLWE;
    char DIMPOST[121];
    double DIMRND;
    int8_t DIMSAH;
    double DIMSCALE;
    int8_t DIMSD1;
    int8_t DIMSD2;
    int8_t DIMSE1;
    int8_t DIMSE2;
    int8_t DIMSHO;
    int8_t DIMSOXD;
    int8_t DIMTAD;
    int16_t DIMTDEC;
    double DIMTFAC;
    int8_t DIMTIH;
    int8_t DIMTIX;
    double DIMTM;
    int16_t DIMTMOVE;
    int8_t DIMTOFL;
    int8_t DIMTOH;
    int8_t DIMTOL;
    int8_t DIMTOLJ;
    double DIMTP;
    double DIMTSZ;
    double DIMTVP;
    double DIMTXT;
    int8_t DIMTZIN;
    // One field under two DXF names: $DIMLUNIT and $DIMUNIT (R13/R14).
    int16_t DIMLUNIT;
    int8_t DIMUPT;
    int8_t DIMZIN;
    int8_t DISPSILH;
    int16_t DRAGMODE;
    int16_t DWGCODEPAGE;  // index into ksCodePageNames
    double ELEVATION;
    int8_t ENDCAPS;
    ksPoint3 EXTMIN;  // 1e20 on every axis: no extents
    ksPoint3 EXTMAX;  // -1e20 on every axis: no extents
    int8_t EXTNAMES;
    double FACETRES;  // DWG only
    int16_t FASTZOOM;
    double FILLETRAD;
    int16_t FILLMODE;
    char FINGERPRINTGUID[39];
    int16_t FLATLAND;
    double FRONTZ;  // DWG only
    int16_t GRIDMODE;
    ksPoint2 GRIDUNIT;
    int16_t HANDLING;
    ksObjHandle HANDSEED;  // next handle to give out
    char HYPERLINKBASE[262];
    ksPoint3 INSBASE;
    int16_t INSUNITS;
    int16_t ISOLINES;  // DWG only
    int8_t JOINSTYLE;
    double LENSLENGTH;  // DWG only
    int16_t LIMCHECK;
    ksPoint2 LIMMIN;
    ksPoint2 LIMMAX;
    double LTSCALE;
    int16_t LUNITS;
    int16_t LUPREC;
    int8_t LWDISPLAY;
    int16_t MAXACTVP;
    int16_t MEASUREMENT;
    char MENU[512];
    int16_t MIRRTEXT;
    int16_t OLESTARTUP;  // R2000 DWG only
    int16_t ORTHOMODE;
    int16_t OSMODE;
    int16_t PDMODE;
    double PDSIZE;
    double PELEVATION;
    int8_t PELLIPSE;  // R13+ DWG only
    ksPoint3 PEXTMIN;  // as EXTMIN, for paper space
    ksPoint3 PEXTMAX;  // as EXTMAX, for paper space
    int8_t PICKSTYLE;
    ksPoint3 PINSBASE;
    int16_t PLIMCHECK;
    ksPoint2 PLIMMIN;
    ksPoint2 PLIMMAX;
    int16_t PLINEGEN;
    double PLINEWID;
    // One field under two DXF names: $SAVEIMAGES (R13) and $PROXYGRAPHICS.
    int8_t PROXYGRAPHICS;
    int16_t PSLTSCALE;
    int8_t PSTYLEMODE;
    double PSVPSCALE;
    ksPoint3 PUCSORG;
    ksPoint3 PUCSORGBACK;
    ksPoint3 PUCSORGBOTTOM;
    ksPoint3 PUCSORGFRONT;
    ksPoint3 PUCSORGLEFT;
    ksPoint3 PUCSORGRIGHT;
    ksPoint3 PUCSORGTOP;
    int16_t PUCSORTHOVIEW;
    ksPoint3 PUCSXDIR;
    ksPoint3 PUCSYDIR;
    int16_t QTEXTMODE;
    int16_t REGENMODE;
    int16_t SHADEDGE;
    int16_t SHADEDIF;
    double SKETCHINC;
    int16_t SKPOLY;
    double SNAPANG;  // radians; degrees in DXF
    ksPoint2 SNAPBASE;
    int16_t SNAPISOPAIR;
    int16_t SNAPMODE;
    int16_t SNAPSTYLE;
    ksPoint2 SNAPUNIT;
    int16_t SPLFRAME;
    int16_t SPLINESEGS;  // only the low 8 bits reach a DXF file
    int16_t SPLINETYPE;
    char STYLESHEET[512];  // R2000 DWG only
    int16_t SURFTAB1;
    int16_t SURFTAB2;
    int16_t SURFTYPE;
    int16_t SURFU;
    int16_t SURFV;
    ksPoint3 TARGET;  // DWG only
    ksDate TDCREATE;
    ksDate TDINDWG;
    ksDate TDUCREATE;
    ksDate TDUPDATE;
    ksDate TDUSRTIMER;
    ksDate TDUUPDATE;
    int16_t TEXTQLTY;  // DWG only
    double TEXTSIZE;
    double THICKNESS;
    int16_t TILEMODE;
    double TRACEWID;
    int16_t TREEDEPTH;
    int16_t UCSFOLLOW;  // pre-R13 DWG only
    int16_t UCSICON;  // pre-R13 DWG only
    // A 32-byte UCS name carried from one pre-R13 header to another.
    char ucsNameText[514];
    ksPoint3 UCSORG;
    ksPoint3 UCSORGBACK;
    ksPoint3 UCSORGBOTTOM;
    ksPoint3 UCSORGFRONT;
    ksPoint3 UCSORGLEFT;
    ksPoint3 UCSORGRIGHT;
    ksPoint3 UCSORGTOP;
    int16_t UCSORTHOVIEW;
    ksPoint3 UCSXDIR;
    ksPoint3 UCSYDIR;
    int16_t UNITMODE;
    // $USERI1..$USERI5 and $USERR1..$USERR5.
    int16_t USERI[5];
    double USERR[5];
    int16_t USRTIMER;
    char VERSIONGUID[39];
    ksPoint3 VIEWCTR;
    double VIEWSIZE;
    // Read from DXF, written by no DXF writer; radians, no conversion.
    double VIEWTWIST;
    int16_t VISRETAIN;
    ksPoint3 VIEWDIR;
    int16_t WORLDVIEW;
    int8_t XEDIT;
    // The table records that the name-valued variables refer to. DXF holds
    // names for them; the names wait in ksG->headerNames until the tables are
    // loaded and are then resolved into these handles.
    ksObjHandle CELTYPE;
    ksObjHandle CLAYER;
    ksObjHandle CMLSTYLE;
    ksObjHandle DIMSTYLE;
    ksObjHandle DIMTXSTY;
    ksObjHandle PUCSNAME;
    ksObjHandle TEXTSTYLE;
    ksObjHandle UCSNAME;
    ksObjHandle UCSORTHOREF;
    ksObjHandle UCSBASE;
    ksObjHandle PUCSORTHOREF;
    ksObjHandle PUCSBASE;
    // The opening values of the R13+ DWG header, carried unchanged.
    char dwgHeaderTexts[4][512];
    double dwgHeaderReals[4];
    int32_t dwgHeaderLong1;
    int32_t dwgHeaderLong2;
    int16_t dwgHeaderShort;
};

static_assert(std::is_trivially_copyable_v<ksHeader>, "ksHeader is copied as bytes");
static_assert(std::is_standard_layout_v<ksHeader>, "the variable tables use offsetof");
static_assert(sizeof(ksHeader) < 65536, "ksHeaderVar keeps offsets in 16 bits");

// Copies the default image over the whole record. Every load path calls it
// before it reads anything, so a drawing that sets nothing keeps the image.
void ksHeaderSetDefaults(ksHeader* header);

// How a DXF value is stored into its field.
enum ksHeaderKind : uint8_t {
    ksHvByte,        // int8 field: the low 8 bits of the integer
    ksHvShort,       // int16 field
    ksHvReal,        // double field
    ksHvPoint2,      // ksPoint2 field: X, then Y from group + 10
    ksHvPoint3,      // ksPoint3 field: X, Y, then Z from group + 20
    ksHvText,        // char field: at most size - 1 bytes and a NUL
    ksHvDate,        // ksDate field: a real day number with fraction
    ksHvShortIndex,  // element `size` of the int16 array USERI
    ksHvRealIndex,   // element `size` of the double array USERR
    ksHvHandle,      // ksObjHandle field, given in DXF as hexadecimal text
    ksHvCodePage,    // int16 field holding the index of a code page name
    ksHvLowByte,     // int16 field of which only the low byte is replaced
};

// Entry flags.
enum : uint8_t {
    ksHvNeverWritten = 1,  // read from DXF, but no DXF writer emits it
    ksHvWrittenEmpty = 2,  // name variable that the writer always emits empty
};

// One DXF header variable that maps onto a field of ksHeader.
struct ksHeaderVar {
    const char* name;    // upper case, without the '$'
    uint16_t offset;     // offsetof the field in ksHeader
    uint16_t width;      // bytes of the field (the whole array for USERI/USERR)
    ksHeaderKind kind;
    int16_t size;        // text: the limit n of a DXF value, NUL included;
                         // handle: 8; index kinds: the array index; else 0
    int16_t group;       // DXF group code of the value (of X for a point)
    int8_t minVersion;   // DXF targets from minVersion to maxVersion
    int8_t maxVersion;   // (ksVersion codes) carry the variable
    int8_t zFromVersion; // point3: first target version that gets Z (group + 20);
                         // ksVersionCount when Z is never written
    uint8_t flags;       // ksHvNeverWritten
};

// One name-valued DXF variable ($CLAYER, $TEXTSTYLE ...). DXF gives a table
// record's name; the text waits in ksG->headerNames[buffer] until the table
// is loaded, and is then resolved into the handle field at handleOffset.
struct ksHeaderNameVar {
    const char* name;       // upper case, without the '$'
    int16_t buffer;         // index into ksG->headerNames; equals the entry's position
    uint16_t handleOffset;  // offsetof the ksObjHandle field in ksHeader
    ksHeaderKind kind;      // always ksHvText
    int16_t size;           // always ksHeaderNameSize
    int16_t group;          // DXF group code of the name
    int8_t minVersion;
    int8_t maxVersion;
    uint8_t flags;          // ksHvWrittenEmpty
};

inline constexpr int ksHeaderVarCount = 213;

// The variables that map onto fields, sorted by name (byte order of the
// upper-case names). Shared fields have one entry per name: DIMFIT and
// DIMATFIT, DIMUNIT and DIMLUNIT, SAVEIMAGES and PROXYGRAPHICS.
extern const ksHeaderVar ksHeaderVarTable[ksHeaderVarCount];

// The twelve name-valued variables, sorted by name. Entry i owns the
// buffer ksG->headerNames[i].
extern const ksHeaderNameVar ksHeaderNameTable[ksHeaderNameCount];

// Binary search by name. ASCII letters are folded to upper case and a
// leading '$' is optional. Null when the name is not in the table.
const ksHeaderVar* ksHeaderVarFind(std::string_view name);
const ksHeaderNameVar* ksHeaderNameFind(std::string_view name);

// True when a DXF writer for targetVersion emits the variable.
bool ksHeaderVarWritten(const ksHeaderVar* var, int targetVersion);
bool ksHeaderNameWritten(const ksHeaderNameVar* var, int targetVersion);

// The storage an entry names: the field, or for the index kinds the array
// element.
void* ksHeaderVarField(ksHeader* header, const ksHeaderVar* var);
const void* ksHeaderVarField(const ksHeader* header, const ksHeaderVar* var);

// Stores a value through an entry as its kind demands. SetInt serves byte,
// short, shortIndex, codePage and lowByte; SetReal serves real and
// realIndex; SetText serves text and cuts the value to size - 1 bytes.
// Each returns false, storing nothing, for an entry of another kind.
bool ksHeaderVarSetInt(ksHeader* header, const ksHeaderVar* var, int32_t value);
bool ksHeaderVarSetReal(ksHeader* header, const ksHeaderVar* var, double value);
bool ksHeaderVarSetText(ksHeader* header, const ksHeaderVar* var, std::string_view text);

// Reads back what the matching setter stores: a lowByte entry gives the
// low byte of its field (0 to 255), a byte entry the signed int8. Zero for
// an entry of another kind.
int32_t ksHeaderVarGetInt(const ksHeader* header, const ksHeaderVar* var);
double ksHeaderVarGetReal(const ksHeader* header, const ksHeaderVar* var);
