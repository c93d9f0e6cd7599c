// The header record's default image and its two DXF variable tables.
#include "records/header.h"

#include <cstring>

namespace {

constexpr void copyText(char* dst, const char* src) {
    while ((*dst++ = *src++) != '\0') {
    }
}

// The image every drawing starts from. Fields not named here are zero:
// empty texts, null handles, zero numbers and points.
constexpr ksHeader makeDefaultHeader() {
    ksHeader h{};
    copyText(h.ACADVER, "AC1012");
    copyText(h.MENU, "acad");

    h.ATTMODE = 1;
    h.ATTREQ = 1;
    h.BLIPMODE = 1;
    h.CECOLOR = 256;  // by layer
    h.CELTSCALE = 1.0;
    h.CMLSCALE = 1.0;
    h.CYCLECURR = 1;
    h.CYCLEKEEP = 5;
    h.DELOBJ = 1;
    h.DRAGMODE = 2;
    h.DWGCODEPAGE = 12;  // dos850
    h.EXTNAMES = 1;
    h.FACETRES = 0.5;
    h.FASTZOOM = 1;
    h.FILLMODE = 1;
    h.HANDLING = 1;
    h.ISOLINES = 4;
    h.LENSLENGTH = 50.0;
    h.LTSCALE = 1.0;
    h.LUNITS = 2;
    h.LUPREC = 4;
    h.MAXACTVP = 16;
    h.MIRRTEXT = 1;
    h.PICKSTYLE = 1;
    h.PLINEGEN = 1;
    h.REGENMODE = 1;
    h.SHADEDGE = 3;
    h.SHADEDIF = 70;
    h.SKETCHINC = 0.1;
    h.SPLINESEGS = 8;
    h.SPLINETYPE = 6;
    h.SURFTAB1 = 6;
    h.SURFTAB2 = 6;
    h.SURFTYPE = 6;
    h.SURFU = 6;
    h.SURFV = 6;
    h.TEXTQLTY = 50;
    h.TEXTSIZE = 0.2;
    h.TILEMODE = 1;
    h.TRACEWID = 0.05;
    h.TREEDEPTH = 3020;
    h.UCSICON = 1;
    h.USRTIMER = 1;
    h.WORLDVIEW = 1;
    h.XEDIT = 1;

    h.DIMALTD = 2;
    h.DIMALTF = 25.4;
    h.DIMALTTD = 2;
    h.DIMALTU = 2;
    h.DIMASO = 1;
    h.DIMASZ = 0.18;
    h.DIMATFIT = 3;
    h.DIMCEN = 0.09;
    h.DIMDEC = 4;
    h.DIMDLI = 0.38;
    h.DIMEXE = 0.18;
    h.DIMEXO = 0.0625;
    h.DIMGAP = 0.09;
    h.DIMLFAC = 1.0;
    h.DIMLUNIT = 2;
    h.DIMSCALE = 1.0;
    h.DIMSHO = 1;
    h.DIMTDEC = 4;
    h.DIMTFAC = 1.0;
    h.DIMTIH = 1;
    h.DIMTOH = 1;
    h.DIMTOLJ = 1;
    h.DIMTXT = 0.18;

    // Inverted boxes: the first point that is drawn sets both corners.
    h.EXTMIN = {1e20, 1e20, 1e20};
    h.EXTMAX = {-1e20, -1e20, -1e20};
    h.PEXTMIN = {1e20, 1e20, 1e20};
    h.PEXTMAX = {-1e20, -1e20, -1e20};

    h.PLIMMAX = {12.0, 9.0};
    h.SNAPUNIT = {1.0, 1.0};
    h.UCSXDIR = {1.0, 0.0, 0.0};
    h.UCSYDIR = {0.0, 1.0, 0.0};
    h.PUCSXDIR = {1.0, 0.0, 0.0};
    h.PUCSYDIR = {0.0, 1.0, 0.0};
    h.VIEWCTR = {6.591288, 4.579184, 0.0};
    h.VIEWSIZE = 9.158369;
    h.VIEWDIR = {0.0, 0.0, 1.0};

    h.dwgHeaderReals[0] = 412148564080.0;
    h.dwgHeaderReals[1] = 1.0;
    h.dwgHeaderReals[2] = 1.0;
    h.dwgHeaderReals[3] = 1.0;
    h.dwgHeaderLong1 = 24;
    return h;
}

constexpr ksHeader defaultHeader = makeDefaultHeader();

}  // namespace

void ksHeaderSetDefaults(ksHeader* header) {
    std::memcpy(header, &defaultHeader, sizeof(ksHeader));
}

// Table entries. The field is named once; offset and width follow from it.
#define KS_HV_ENTRY(name, field, kind, size, group, lo, hi, zFrom, flags) \
    {name, offsetof(ksHeader, field), sizeof(ksHeader::field), kind, size, group, lo, hi, zFrom, flags}
#define KS_HV(name, field, kind, size, group, lo, hi) \
    KS_HV_ENTRY(name, field, kind, size, group, lo, hi, 0, 0)
// A point3 whose Z goes to DXF targets from zFrom on only.
#define KS_HV_Z(name, field, kind, size, group, lo, hi, zFrom) \
    KS_HV_ENTRY(name, field, kind, size, group, lo, hi, zFrom, 0)
#define KS_HV_NEVER_WRITTEN(name, field, kind, size, group) \
    KS_HV_ENTRY(name, field, kind, size, group, 0, 7, 0, ksHvNeverWritten)

// Every field that a DXF variable names has an entry here, except the
// twelve name-valued handles (ksHeaderNameTable); fields kept for DWG only
// have none. Columns: name, field, kind, size or index, group, first and
// last DXF target version.
constexpr ksHeaderVar ksHeaderVarTable[ksHeaderVarCount] = {
    KS_HV("ACADMAINTVER", ACADMAINTVER, ksHvShort, 0, 70, 6, 7),
    KS_HV("ACADVER", ACADVER, ksHvText, 7, 1, 0, 7),
    KS_HV("ANGBASE", ANGBASE, ksHvReal, 0, 50, 0, 7),
    KS_HV("ANGDIR", ANGDIR, ksHvShort, 0, 70, 0, 7),
    KS_HV("ATTDIA", ATTDIA, ksHvShort, 0, 70, 2, 6),
    KS_HV("ATTMODE", ATTMODE, ksHvShort, 0, 70, 0, 7),
    KS_HV("ATTREQ", ATTREQ, ksHvShort, 0, 70, 2, 6),
    KS_HV("AUNITS", AUNITS, ksHvShort, 0, 70, 0, 7),
    KS_HV("AUPREC", AUPREC, ksHvShort, 0, 70, 0, 7),
    KS_HV("AXISMODE", AXISMODE, ksHvShort, 0, 70, 0, 4),
    KS_HV("AXISUNIT", AXISUNIT, ksHvPoint2, 0, 10, 0, 4),
    KS_HV("BLIPMODE", BLIPMODE, ksHvShort, 0, 70, 0, 6),
    KS_HV("CECOLOR", CECOLOR, ksHvShort, 0, 62, 0, 7),
    KS_HV("CELTSCALE", CELTSCALE, ksHvReal, 0, 40, 5, 7),
    KS_HV("CELWEIGHT", CELWEIGHT, ksHvShort, 0, 370, 7, 7),
    KS_HV("CEPSNTYPE", CEPSNTYPE, ksHvShort, 0, 380, 7, 7),
    KS_HV("CHAMFERA", CHAMFERA, ksHvReal, 0, 40, 0, 7),
    KS_HV("CHAMFERB", CHAMFERB, ksHvReal, 0, 40, 0, 7),
    KS_HV("CHAMFERC", CHAMFERC, ksHvReal, 0, 40, 5, 7),
    KS_HV("CHAMFERD", CHAMFERD, ksHvReal, 0, 40, 5, 7),
    KS_HV("CMLJUST", CMLJUST, ksHvShort, 0, 70, 5, 7),
    KS_HV("CMLSCALE", CMLSCALE, ksHvReal, 0, 40, 5, 7),
    KS_HV("COORDS", COORDS, ksHvShort, 0, 70, 0, 6),
    KS_HV("DELOBJ", DELOBJ, ksHvByte, 0, 70, 5, 6),
    KS_HV("DIMADEC", DIMADEC, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMALT", DIMALT, ksHvByte, 0, 70, 1, 7),
    KS_HV("DIMALTD", DIMALTD, ksHvByte, 0, 70, 1, 7),
    KS_HV("DIMALTF", DIMALTF, ksHvReal, 0, 40, 1, 7),
    KS_HV("DIMALTRND", DIMALTRND, ksHvReal, 0, 40, 7, 7),
    KS_HV("DIMALTTD", DIMALTTD, ksHvShort, 0, 70, 5, 7),
    KS_HV("DIMALTTZ", DIMALTTZ, ksHvByte, 0, 70, 5, 7),
    KS_HV("DIMALTU", DIMALTU, ksHvShort, 0, 70, 5, 7),
    KS_HV("DIMALTZ", DIMALTZ, ksHvByte, 0, 70, 5, 7),
    KS_HV("DIMAPOST", DIMAPOST, ksHvText, 16, 1, 1, 7),
    KS_HV("DIMASO", DIMASO, ksHvByte, 0, 70, 1, 7),
    KS_HV("DIMASZ", DIMASZ, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMATFIT", DIMATFIT, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMAUNIT", DIMAUNIT, ksHvShort, 0, 70, 5, 7),
    KS_HV("DIMAZIN", DIMAZIN, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMBLK", DIMBLK, ksHvText, 32, 1, 0, 7),
    KS_HV("DIMBLK1", DIMBLK1, ksHvText, 32, 1, 3, 7),
    KS_HV("DIMBLK2", DIMBLK2, ksHvText, 32, 1, 3, 7),
    KS_HV("DIMCEN", DIMCEN, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMCLRD", DIMCLRD, ksHvShort, 0, 70, 4, 7),
    KS_HV("DIMCLRE", DIMCLRE, ksHvShort, 0, 70, 4, 7),
    KS_HV("DIMCLRT", DIMCLRT, ksHvShort, 0, 70, 4, 7),
    KS_HV("DIMDEC", DIMDEC, ksHvShort, 0, 70, 5, 7),
    KS_HV("DIMDLE", DIMDLE, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMDLI", DIMDLI, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMDSEP", DIMDSEP, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMEXE", DIMEXE, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMEXO", DIMEXO, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMFIT", DIMATFIT, ksHvLowByte, 0, 70, 5, 6),
    KS_HV("DIMFRAC", DIMFRAC, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMGAP", DIMGAP, ksHvReal, 0, 40, 4, 7),
    KS_HV("DIMJUST", DIMJUST, ksHvByte, 0, 70, 5, 7),
    KS_HV("DIMLDRBLK", DIMLDRBLK, ksHvText, 32, 1, 7, 7),
    KS_HV("DIMLFAC", DIMLFAC, ksHvReal, 0, 40, 1, 7),
    KS_HV("DIMLIM", DIMLIM, ksHvByte, 0, 70, 0, 7),
    KS_HV("DIMLUNIT", DIMLUNIT, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMLWD", DIMLWD, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMLWE", DIMLWE, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMPOST", DIMPOST, ksHvText, 16, 1, 1, 7),
    KS_HV("DIMRND", DIMRND, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMSAH", DIMSAH, ksHvByte, 0, 70, 3, 7),
    KS_HV("DIMSCALE", DIMSCALE, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMSD1", DIMSD1, ksHvByte, 0, 70, 5, 7),
    KS_HV("DIMSD2", DIMSD2, ksHvByte, 0, 70, 5, 7),
    KS_HV("DIMSE1", DIMSE1, ksHvByte, 0, 70, 0, 7),
    KS_HV("DIMSE2", DIMSE2, ksHvByte, 0, 70, 0, 7),
    KS_HV("DIMSHO", DIMSHO, ksHvByte, 0, 70, 1, 7),
    KS_HV("DIMSOXD", DIMSOXD, ksHvByte, 0, 70, 3, 7),
    KS_HV("DIMTAD", DIMTAD, ksHvByte, 0, 70, 0, 7),
    KS_HV("DIMTDEC", DIMTDEC, ksHvShort, 0, 70, 5, 7),
    KS_HV("DIMTFAC", DIMTFAC, ksHvReal, 0, 40, 4, 7),
    KS_HV("DIMTIH", DIMTIH, ksHvByte, 0, 70, 0, 7),
    KS_HV("DIMTIX", DIMTIX, ksHvByte, 0, 70, 3, 7),
    KS_HV("DIMTM", DIMTM, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMTMOVE", DIMTMOVE, ksHvShort, 0, 70, 7, 7),
    KS_HV("DIMTOFL", DIMTOFL, ksHvByte, 0, 70, 3, 7),
    KS_HV("DIMTOH", DIMTOH, ksHvByte, 0, 70, 0, 7),
    KS_HV("DIMTOL", DIMTOL, ksHvByte, 0, 70, 0, 7),
    KS_HV("DIMTOLJ", DIMTOLJ, ksHvByte, 0, 70, 5, 7),
    KS_HV("DIMTP", DIMTP, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMTSZ", DIMTSZ, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMTVP", DIMTVP, ksHvReal, 0, 40, 3, 7),
    KS_HV("DIMTXT", DIMTXT, ksHvReal, 0, 40, 0, 7),
    KS_HV("DIMTZIN", DIMTZIN, ksHvByte, 0, 70, 5, 7),
    KS_HV("DIMUNIT", DIMLUNIT, ksHvShort, 0, 70, 5, 6),
    KS_HV("DIMUPT", DIMUPT, ksHvByte, 0, 70, 5, 7),
    KS_HV("DIMZIN", DIMZIN, ksHvByte, 0, 70, 0, 7),
    KS_HV("DISPSILH", DISPSILH, ksHvByte, 0, 70, 5, 7),
    KS_HV("DRAGMODE", DRAGMODE, ksHvShort, 0, 70, 0, 6),
    KS_HV("DWGCODEPAGE", DWGCODEPAGE, ksHvCodePage, 0, 3, 5, 7),
    KS_HV("ELEVATION", ELEVATION, ksHvReal, 0, 40, 0, 7),
    KS_HV("ENDCAPS", ENDCAPS, ksHvByte, 0, 280, 7, 7),
    KS_HV_Z("EXTMAX", EXTMAX, ksHvPoint3, 0, 10, 0, 7, 4),
    KS_HV_Z("EXTMIN", EXTMIN, ksHvPoint3, 0, 10, 0, 7, 4),
    KS_HV("EXTNAMES", EXTNAMES, ksHvByte, 0, 290, 7, 7),
    KS_HV("FASTZOOM", FASTZOOM, ksHvShort, 0, 70, 0, 2),
    KS_HV("FILLETRAD", FILLETRAD, ksHvReal, 0, 40, 0, 7),
    KS_HV("FILLMODE", FILLMODE, ksHvShort, 0, 70, 0, 7),
    KS_HV("FINGERPRINTGUID", FINGERPRINTGUID, ksHvText, 39, 2, 7, 7),
    KS_HV("FLATLAND", FLATLAND, ksHvShort, 0, 70, 3, 3),
    KS_HV("GRIDMODE", GRIDMODE, ksHvShort, 0, 70, 0, 3),
    KS_HV("GRIDUNIT", GRIDUNIT, ksHvPoint2, 0, 10, 0, 3),
    KS_HV("HANDLING", HANDLING, ksHvShort, 0, 70, 3, 6),
    KS_HV("HANDSEED", HANDSEED, ksHvHandle, 8, 5, 3, 7),
    KS_HV("HYPERLINKBASE", HYPERLINKBASE, ksHvText, 127, 1, 7, 7),
    KS_HV_Z("INSBASE", INSBASE, ksHvPoint3, 0, 10, 0, 7, 3),
    KS_HV("INSUNITS", INSUNITS, ksHvShort, 0, 70, 7, 7),
    KS_HV("JOINSTYLE", JOINSTYLE, ksHvByte, 0, 280, 7, 7),
    KS_HV("LIMCHECK", LIMCHECK, ksHvShort, 0, 70, 0, 7),
    KS_HV("LIMMAX", LIMMAX, ksHvPoint2, 0, 10, 0, 7),
    KS_HV("LIMMIN", LIMMIN, ksHvPoint2, 0, 10, 0, 7),
    KS_HV("LTSCALE", LTSCALE, ksHvReal, 0, 40, 0, 7),
    KS_HV("LUNITS", LUNITS, ksHvShort, 0, 70, 0, 7),
    KS_HV("LUPREC", LUPREC, ksHvShort, 0, 70, 0, 7),
    KS_HV("LWDISPLAY", LWDISPLAY, ksHvByte, 0, 290, 7, 7),
    KS_HV("MAXACTVP", MAXACTVP, ksHvShort, 0, 70, 4, 7),
    KS_HV("MEASUREMENT", MEASUREMENT, ksHvShort, 0, 70, 6, 7),
    KS_HV("MENU", MENU, ksHvText, 61, 1, 0, 7),
    KS_HV("MIRRTEXT", MIRRTEXT, ksHvShort, 0, 70, 3, 7),
    KS_HV("ORTHOMODE", ORTHOMODE, ksHvShort, 0, 70, 0, 7),
    KS_HV("OSMODE", OSMODE, ksHvShort, 0, 70, 0, 6),
    KS_HV("PDMODE", PDMODE, ksHvShort, 0, 70, 0, 7),
    KS_HV("PDSIZE", PDSIZE, ksHvReal, 0, 40, 0, 7),
    KS_HV("PELEVATION", PELEVATION, ksHvReal, 0, 40, 4, 7),
    KS_HV("PEXTMAX", PEXTMAX, ksHvPoint3, 0, 10, 4, 7),
    KS_HV("PEXTMIN", PEXTMIN, ksHvPoint3, 0, 10, 4, 7),
    KS_HV("PICKSTYLE", PICKSTYLE, ksHvByte, 0, 70, 5, 6),
    KS_HV("PINSBASE", PINSBASE, ksHvPoint3, 0, 10, 4, 7),
    KS_HV("PLIMCHECK", PLIMCHECK, ksHvShort, 0, 70, 4, 7),
    KS_HV("PLIMMAX", PLIMMAX, ksHvPoint2, 0, 10, 4, 7),
    KS_HV("PLIMMIN", PLIMMIN, ksHvPoint2, 0, 10, 4, 7),
    KS_HV("PLINEGEN", PLINEGEN, ksHvShort, 0, 70, 5, 7),
    KS_HV("PLINEWID", PLINEWID, ksHvReal, 0, 40, 0, 7),
    KS_HV("PROXYGRAPHICS", PROXYGRAPHICS, ksHvByte, 0, 70, 6, 7),
    KS_HV("PSLTSCALE", PSLTSCALE, ksHvShort, 0, 70, 5, 7),
    KS_HV("PSTYLEMODE", PSTYLEMODE, ksHvByte, 0, 290, 7, 7),
    KS_HV("PSVPSCALE", PSVPSCALE, ksHvReal, 0, 40, 7, 7),
    KS_HV("PUCSORG", PUCSORG, ksHvPoint3, 0, 10, 4, 7),
    KS_HV("PUCSORGBACK", PUCSORGBACK, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("PUCSORGBOTTOM", PUCSORGBOTTOM, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("PUCSORGFRONT", PUCSORGFRONT, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("PUCSORGLEFT", PUCSORGLEFT, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("PUCSORGRIGHT", PUCSORGRIGHT, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("PUCSORGTOP", PUCSORGTOP, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("PUCSORTHOVIEW", PUCSORTHOVIEW, ksHvShort, 0, 70, 7, 7),
    KS_HV("PUCSXDIR", PUCSXDIR, ksHvPoint3, 0, 10, 4, 7),
    KS_HV("PUCSYDIR", PUCSYDIR, ksHvPoint3, 0, 10, 4, 7),
    KS_HV("QTEXTMODE", QTEXTMODE, ksHvShort, 0, 70, 0, 7),
    KS_HV("REGENMODE", REGENMODE, ksHvShort, 0, 70, 0, 7),
    KS_HV("SAVEIMAGES", PROXYGRAPHICS, ksHvByte, 0, 70, 5, 5),
    KS_HV("SHADEDGE", SHADEDGE, ksHvShort, 0, 70, 4, 7),
    KS_HV("SHADEDIF", SHADEDIF, ksHvShort, 0, 70, 4, 7),
    KS_HV("SKETCHINC", SKETCHINC, ksHvReal, 0, 40, 0, 7),
    KS_HV("SKPOLY", SKPOLY, ksHvShort, 0, 70, 0, 7),
    KS_HV("SNAPANG", SNAPANG, ksHvReal, 0, 50, 0, 3),
    KS_HV("SNAPBASE", SNAPBASE, ksHvPoint2, 0, 10, 0, 3),
    KS_HV("SNAPISOPAIR", SNAPISOPAIR, ksHvShort, 0, 70, 0, 3),
    KS_HV("SNAPMODE", SNAPMODE, ksHvShort, 0, 70, 0, 3),
    KS_HV("SNAPSTYLE", SNAPSTYLE, ksHvShort, 0, 70, 0, 3),
    KS_HV("SNAPUNIT", SNAPUNIT, ksHvPoint2, 0, 10, 0, 3),
    KS_HV("SPLFRAME", SPLFRAME, ksHvShort, 0, 70, 2, 7),
    KS_HV("SPLINESEGS", SPLINESEGS, ksHvShort, 0, 70, 2, 7),
    KS_HV("SPLINETYPE", SPLINETYPE, ksHvShort, 0, 70, 3, 7),
    KS_HV("SURFTAB1", SURFTAB1, ksHvShort, 0, 70, 3, 7),
    KS_HV("SURFTAB2", SURFTAB2, ksHvShort, 0, 70, 3, 7),
    KS_HV("SURFTYPE", SURFTYPE, ksHvShort, 0, 70, 3, 7),
    KS_HV("SURFU", SURFU, ksHvShort, 0, 70, 3, 7),
    KS_HV("SURFV", SURFV, ksHvShort, 0, 70, 3, 7),
    KS_HV("TDCREATE", TDCREATE, ksHvDate, 0, 40, 0, 7),
    KS_HV("TDINDWG", TDINDWG, ksHvDate, 0, 40, 0, 7),
    KS_HV("TDUCREATE", TDUCREATE, ksHvDate, 0, 40, 7, 7),
    KS_HV("TDUPDATE", TDUPDATE, ksHvDate, 0, 40, 0, 7),
    KS_HV("TDUSRTIMER", TDUSRTIMER, ksHvDate, 0, 40, 0, 7),
    KS_HV("TDUUPDATE", TDUUPDATE, ksHvDate, 0, 40, 7, 7),
    KS_HV("TEXTSIZE", TEXTSIZE, ksHvReal, 0, 40, 0, 7),
    KS_HV("THICKNESS", THICKNESS, ksHvReal, 0, 40, 0, 7),
    KS_HV("TILEMODE", TILEMODE, ksHvShort, 0, 70, 4, 7),
    KS_HV("TRACEWID", TRACEWID, ksHvReal, 0, 40, 0, 7),
    KS_HV("TREEDEPTH", TREEDEPTH, ksHvShort, 0, 70, 5, 7),
    KS_HV("UCSORG", UCSORG, ksHvPoint3, 0, 10, 3, 7),
    KS_HV("UCSORGBACK", UCSORGBACK, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("UCSORGBOTTOM", UCSORGBOTTOM, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("UCSORGFRONT", UCSORGFRONT, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("UCSORGLEFT", UCSORGLEFT, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("UCSORGRIGHT", UCSORGRIGHT, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("UCSORGTOP", UCSORGTOP, ksHvPoint3, 0, 10, 7, 7),
    KS_HV("UCSORTHOVIEW", UCSORTHOVIEW, ksHvShort, 0, 70, 7, 7),
    KS_HV("UCSXDIR", UCSXDIR, ksHvPoint3, 0, 10, 3, 7),
    KS_HV("UCSYDIR", UCSYDIR, ksHvPoint3, 0, 10, 3, 7),
    KS_HV("UNITMODE", UNITMODE, ksHvShort, 0, 70, 4, 7),
    KS_HV("USERI1", USERI, ksHvShortIndex, 0, 70, 0, 7),
    KS_HV("USERI2", USERI, ksHvShortIndex, 1, 70, 0, 7),
    KS_HV("USERI3", USERI, ksHvShortIndex, 2, 70, 0, 7),
    KS_HV("USERI4", USERI, ksHvShortIndex, 3, 70, 0, 7),
    KS_HV("USERI5", USERI, ksHvShortIndex, 4, 70, 0, 7),
    KS_HV("USERR1", USERR, ksHvRealIndex, 0, 40, 0, 7),
    KS_HV("USERR2", USERR, ksHvRealIndex, 1, 40, 0, 7),
    KS_HV("USERR3", USERR, ksHvRealIndex, 2, 40, 0, 7),
    KS_HV("USERR4", USERR, ksHvRealIndex, 3, 40, 0, 7),
    KS_HV("USERR5", USERR, ksHvRealIndex, 4, 40, 0, 7),
    KS_HV("USRTIMER", USRTIMER, ksHvShort, 0, 70, 0, 7),
    KS_HV("VERSIONGUID", VERSIONGUID, ksHvText, 39, 2, 7, 7),
    KS_HV_Z("VIEWCTR", VIEWCTR, ksHvPoint3, 0, 10, 0, 3, ksVersionCount),
    KS_HV("VIEWDIR", VIEWDIR, ksHvPoint3, 0, 10, 0, 2),
    KS_HV("VIEWSIZE", VIEWSIZE, ksHvReal, 0, 40, 0, 3),
    KS_HV_NEVER_WRITTEN("VIEWTWIST", VIEWTWIST, ksHvReal, 0, 0),
    KS_HV("VISRETAIN", VISRETAIN, ksHvShort, 0, 70, 4, 7),
    KS_HV("WORLDVIEW", WORLDVIEW, ksHvShort, 0, 70, 3, 7),
    KS_HV("XEDIT", XEDIT, ksHvByte, 0, 290, 7, 7),
};

#define KS_HN(index, name, field, group, lo, hi, flags) \
    {name, index, offsetof(ksHeader, field), ksHvText, ksHeaderNameSize, group, lo, hi, flags}

constexpr ksHeaderNameVar ksHeaderNameTable[ksHeaderNameCount] = {
    KS_HN(0, "CELTYPE", CELTYPE, 6, 0, 7, 0),
    KS_HN(1, "CLAYER", CLAYER, 8, 0, 7, 0),
    KS_HN(2, "CMLSTYLE", CMLSTYLE, 2, 5, 7, 0),
    KS_HN(3, "DIMSTYLE", DIMSTYLE, 2, 4, 7, 0),
    KS_HN(4, "DIMTXSTY", DIMTXSTY, 7, 5, 7, 0),
    KS_HN(5, "PUCSBASE", PUCSBASE, 2, 7, 7, ksHvWrittenEmpty),
    KS_HN(6, "PUCSNAME", PUCSNAME, 2, 4, 7, 0),
    KS_HN(7, "PUCSORTHOREF", PUCSORTHOREF, 2, 7, 7, ksHvWrittenEmpty),
    KS_HN(8, "TEXTSTYLE", TEXTSTYLE, 7, 0, 7, 0),
    KS_HN(9, "UCSBASE", UCSBASE, 2, 7, 7, ksHvWrittenEmpty),
    KS_HN(10, "UCSNAME", UCSNAME, 2, 3, 7, 0),
    KS_HN(11, "UCSORTHOREF", UCSORTHOREF, 2, 7, 7, ksHvWrittenEmpty),
};

#undef KS_HN
#undef KS_HV_NEVER_WRITTEN
#undef KS_HV_Z
#undef KS_HV
#undef KS_HV_ENTRY

namespace {

constexpr char upperAscii(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

// Compares a table name (upper case already) with a name as given,
// folding the latter's letters. Negative, zero or positive.
constexpr int compareName(const char* tableName, std::string_view name) {
    size_t i = 0;
    for (; tableName[i] != '\0' && i < name.size(); ++i) {
        const auto a = static_cast<unsigned char>(tableName[i]);
        const auto b = static_cast<unsigned char>(upperAscii(name[i]));
        if (a != b) return a < b ? -1 : 1;
    }
    if (tableName[i] != '\0') return 1;
    return i < name.size() ? -1 : 0;
}

template <typename Entry, size_t N>
constexpr const Entry* findByName(const Entry (&table)[N], std::string_view name) {
    if (!name.empty() && name.front() == '$') name.remove_prefix(1);
    size_t lo = 0;
    size_t hi = N;
    while (lo < hi) {
        const size_t mid = lo + (hi - lo) / 2;
        const int c = compareName(table[mid].name, name);
        if (c == 0) return &table[mid];
        if (c < 0) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return nullptr;
}

template <typename Entry, size_t N>
constexpr bool sortedAndUnique(const Entry (&table)[N]) {
    for (size_t i = 1; i < N; ++i) {
        if (compareName(table[i - 1].name, table[i].name) >= 0) return false;
    }
    return true;
}

constexpr size_t elementWidth(ksHeaderKind kind) {
    switch (kind) {
        case ksHvByte: return 1;
        case ksHvShort:
        case ksHvCodePage:
        case ksHvLowByte:
        case ksHvShortIndex: return 2;
        case ksHvReal:
        case ksHvRealIndex: return 8;
        case ksHvPoint2: return sizeof(ksPoint2);
        case ksHvPoint3: return sizeof(ksPoint3);
        case ksHvDate: return sizeof(ksDate);
        case ksHvHandle: return sizeof(ksObjHandle);
        case ksHvText: return 0;  // any width
    }
    return 0;
}

// Each entry's kind fits its field: the widths agree, a text limit lies
// within the field, an index within its array.
constexpr bool entriesFitFields() {
    for (const ksHeaderVar& v : ksHeaderVarTable) {
        if (v.offset + v.width > sizeof(ksHeader)) return false;
        switch (v.kind) {
            case ksHvText:
                if (v.size < 2 || v.size > v.width) return false;
                break;
            case ksHvShortIndex:
            case ksHvRealIndex:
                if (v.size < 0 || (v.size + 1) * elementWidth(v.kind) > v.width) return false;
                break;
            case ksHvHandle:
                if (v.size != 8 || v.width != 8) return false;
                break;
            default:
                if (v.width != elementWidth(v.kind) || v.size != 0) return false;
        }
    }
    return true;
}

constexpr bool namesMatchBuffers() {
    for (int i = 0; i < ksHeaderNameCount; ++i) {
        const ksHeaderNameVar& v = ksHeaderNameTable[i];
        if (v.buffer != i || v.handleOffset + sizeof(ksObjHandle) > sizeof(ksHeader)) return false;
        if (findByName(ksHeaderVarTable, v.name) != nullptr) return false;
    }
    return true;
}

static_assert(sortedAndUnique(ksHeaderVarTable), "ksHeaderVarTable must be sorted for the binary search");
static_assert(sortedAndUnique(ksHeaderNameTable), "ksHeaderNameTable must be sorted for the binary search");
static_assert(entriesFitFields(), "a ksHeaderVarTable entry does not fit its field");
static_assert(namesMatchBuffers(), "ksHeaderNameTable entry i must use buffer i and stay out of the main table");

int16_t loadInt16(const void* p) {
    int16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

void storeInt16(void* p, int16_t v) {
    std::memcpy(p, &v, sizeof v);
}

}  // namespace

const ksHeaderVar* ksHeaderVarFind(std::string_view name) {
    return findByName(ksHeaderVarTable, name);
}

const ksHeaderNameVar* ksHeaderNameFind(std::string_view name) {
    return findByName(ksHeaderNameTable, name);
}

bool ksHeaderVarWritten(const ksHeaderVar* var, int targetVersion) {
    return (var->flags & ksHvNeverWritten) == 0 && targetVersion >= var->minVersion &&
           targetVersion <= var->maxVersion;
}

bool ksHeaderNameWritten(const ksHeaderNameVar* var, int targetVersion) {
    return targetVersion >= var->minVersion && targetVersion <= var->maxVersion;
}

void* ksHeaderVarField(ksHeader* header, const ksHeaderVar* var) {
    auto* field = reinterpret_cast<unsigned char*>(header) + var->offset;
    if (var->kind == ksHvShortIndex || var->kind == ksHvRealIndex) {
        field += static_cast<size_t>(var->size) * elementWidth(var->kind);
    }
    return field;
}

const void* ksHeaderVarField(const ksHeader* header, const ksHeaderVar* var) {
    return ksHeaderVarField(const_cast<ksHeader*>(header), var);
}

bool ksHeaderVarSetInt(ksHeader* header, const ksHeaderVar* var, int32_t value) {
    void* field = ksHeaderVarField(header, var);
    switch (var->kind) {
        case ksHvByte: {
            const auto b = static_cast<int8_t>(value & 0xFF);
            std::memcpy(field, &b, 1);
            return true;
        }
        case ksHvShort:
        case ksHvShortIndex:
        case ksHvCodePage:
            storeInt16(field, static_cast<int16_t>(value));
            return true;
        case ksHvLowByte: {
            // Arithmetic on the value, not a byte store at the field's
            // address, so the high byte survives on any byte order.
            const auto old = static_cast<uint16_t>(loadInt16(field));
            const auto low = static_cast<uint16_t>(value & 0xFF);
            storeInt16(field, static_cast<int16_t>((old & 0xFF00u) | low));
            return true;
        }
        default:
            return false;
    }
}

bool ksHeaderVarSetReal(ksHeader* header, const ksHeaderVar* var, double value) {
    if (var->kind != ksHvReal && var->kind != ksHvRealIndex) return false;
    std::memcpy(ksHeaderVarField(header, var), &value, sizeof value);
    return true;
}

bool ksHeaderVarSetText(ksHeader* header, const ksHeaderVar* var, std::string_view text) {
    if (var->kind != ksHvText) return false;
    auto* field = static_cast<char*>(ksHeaderVarField(header, var));
    const auto limit = static_cast<size_t>(var->size - 1);
    const size_t n = text.size() < limit ? text.size() : limit;
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
    return true;
}

int32_t ksHeaderVarGetInt(const ksHeader* header, const ksHeaderVar* var) {
    const void* field = ksHeaderVarField(header, var);
    switch (var->kind) {
        case ksHvByte: {
            int8_t b;
            std::memcpy(&b, field, 1);
            return b;
        }
        case ksHvShort:
        case ksHvShortIndex:
        case ksHvCodePage:
            return loadInt16(field);
        case ksHvLowByte:
            return static_cast<uint16_t>(loadInt16(field)) & 0xFF;
        default:
            return 0;
    }
}

double ksHeaderVarGetReal(const ksHeader* header, const ksHeaderVar* var) {
    if (var->kind != ksHvReal && var->kind != ksHvRealIndex) return 0.0;
    double v;
    std::memcpy(&v, ksHeaderVarField(header, var), sizeof v);
    return v;
}
