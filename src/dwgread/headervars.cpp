// The header section of R13, R14 and R2000 DWG files: the stream order as
// data, and the reader that walks it into ksHeader and the reader state.
#include "dwgread/headervars.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "dwgread/bitcodes.h"
#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "frame/globals.h"

// Rows of the item table. The field is named once; offset and width follow
// from it. Handle rows give the code a writer uses: 5 for most references,
// 3 for the control objects and the named objects dictionary, 0 for the
// seed.
#define KS_HI(code, forms, field) \
    {#field, code, forms, ksHtField, offsetof(ksHeader, field), sizeof(ksHeader::field), 0, 0}
// A field that the stream names differently (DIMFIT, DIMUNIT of R13/R14).
#define KS_HI_AS(code, forms, name, field) \
    {name, code, forms, ksHtField, offsetof(ksHeader, field), sizeof(ksHeader::field), 0, 0}
// Element i of an array field.
#define KS_HI_AT(code, forms, name, field, i, limit)                                       \
    {name, code, forms, ksHtField, offsetof(ksHeader, field) + (i) * sizeof(ksHeader::field[0]), \
     sizeof(ksHeader::field[0]), limit, 0}
#define KS_HI_TEXT(forms, field, limit) \
    {#field, ksHcT, forms, ksHtField, offsetof(ksHeader, field), sizeof(ksHeader::field), limit, 0}
#define KS_HI_HANDLE(forms, field, handleCode) \
    {#field, ksHcH, forms, ksHtField, offsetof(ksHeader, field), sizeof(ksHeader::field), 0, handleCode}
#define KS_HI_SLOT(forms, name, slot, handleCode) \
    {name, ksHcH, forms, ksHtSlot, slot, sizeof(ksObjHandle), 0, handleCode}
// Control object of table head `head`, in both forms.
#define KS_HI_CONTROL(name, head) \
    {name, ksHcH, ksHfBoth, ksHtSlot, int{ksSlotControls} + int{head}, sizeof(ksObjHandle), 0, 3}
#define KS_HI_DROP(code, forms) {"", code, forms, ksHtDrop, 0, 0, 0, 0}

constexpr ksHeaderItem ksHeaderItems[] = {
    // Opening values, carried unchanged.
    KS_HI_AT(ksHcBD, ksHfBoth, "dwgHeaderReals[0]", dwgHeaderReals, 0, 0),
    KS_HI_AT(ksHcBD, ksHfBoth, "dwgHeaderReals[1]", dwgHeaderReals, 1, 0),
    KS_HI_AT(ksHcBD, ksHfBoth, "dwgHeaderReals[2]", dwgHeaderReals, 2, 0),
    KS_HI_AT(ksHcBD, ksHfBoth, "dwgHeaderReals[3]", dwgHeaderReals, 3, 0),
    KS_HI_AT(ksHcT, ksHfBoth, "dwgHeaderTexts[0]", dwgHeaderTexts, 0, 512),
    KS_HI_AT(ksHcT, ksHfBoth, "dwgHeaderTexts[1]", dwgHeaderTexts, 1, 512),
    KS_HI_AT(ksHcT, ksHfBoth, "dwgHeaderTexts[2]", dwgHeaderTexts, 2, 512),
    KS_HI_AT(ksHcT, ksHfBoth, "dwgHeaderTexts[3]", dwgHeaderTexts, 3, 512),
    KS_HI(ksHcBL, ksHfBoth, dwgHeaderLong1),
    KS_HI(ksHcBL, ksHfBoth, dwgHeaderLong2),
    KS_HI(ksHcBS, ksHfR13, dwgHeaderShort),
    KS_HI_SLOT(ksHfBoth, "first viewport entity header", ksSlotFirstVpentHeader, 5),

    // Flags, one bit each.
    KS_HI(ksHcB, ksHfBoth, DIMASO),
    KS_HI(ksHcB, ksHfBoth, DIMSHO),
    KS_HI_DROP(ksHcB, ksHfR13),
    KS_HI(ksHcB, ksHfBoth, PLINEGEN),
    KS_HI(ksHcB, ksHfBoth, ORTHOMODE),
    KS_HI(ksHcB, ksHfBoth, REGENMODE),
    KS_HI(ksHcB, ksHfBoth, FILLMODE),
    KS_HI(ksHcB, ksHfBoth, QTEXTMODE),
    KS_HI(ksHcB, ksHfBoth, PSLTSCALE),
    KS_HI(ksHcB, ksHfBoth, LIMCHECK),
    KS_HI(ksHcB, ksHfR13, BLIPMODE),
    KS_HI(ksHcB, ksHfBoth, USRTIMER),
    KS_HI(ksHcB, ksHfBoth, SKPOLY),
    KS_HI(ksHcB, ksHfBoth, ANGDIR),
    KS_HI(ksHcB, ksHfBoth, SPLFRAME),
    KS_HI(ksHcB, ksHfR13, ATTREQ),
    KS_HI(ksHcB, ksHfR13, ATTDIA),
    KS_HI(ksHcB, ksHfBoth, MIRRTEXT),
    KS_HI(ksHcB, ksHfBoth, WORLDVIEW),
    KS_HI_DROP(ksHcB, ksHfR13),
    KS_HI(ksHcB, ksHfBoth, TILEMODE),
    KS_HI(ksHcB, ksHfBoth, PLIMCHECK),
    KS_HI(ksHcB, ksHfBoth, VISRETAIN),
    KS_HI(ksHcB, ksHfR13, DELOBJ),
    KS_HI(ksHcB, ksHfBoth, DISPSILH),
    KS_HI(ksHcB, ksHfBoth, PELLIPSE),

    KS_HI(ksHcBS, ksHfBoth, PROXYGRAPHICS),
    KS_HI(ksHcBS, ksHfR13, DRAGMODE),
    KS_HI(ksHcBS, ksHfBoth, TREEDEPTH),
    KS_HI(ksHcBS, ksHfBoth, LUNITS),
    KS_HI(ksHcBS, ksHfBoth, LUPREC),
    KS_HI(ksHcBS, ksHfBoth, AUNITS),
    KS_HI(ksHcBS, ksHfBoth, AUPREC),
    KS_HI(ksHcBS, ksHfR13, OSMODE),
    KS_HI(ksHcBS, ksHfBoth, ATTMODE),
    KS_HI(ksHcBS, ksHfR13, COORDS),
    KS_HI(ksHcBS, ksHfBoth, PDMODE),
    KS_HI(ksHcBS, ksHfR13, PICKSTYLE),
    KS_HI_AT(ksHcBS, ksHfBoth, "USERI1", USERI, 0, 0),
    KS_HI_AT(ksHcBS, ksHfBoth, "USERI2", USERI, 1, 0),
    KS_HI_AT(ksHcBS, ksHfBoth, "USERI3", USERI, 2, 0),
    KS_HI_AT(ksHcBS, ksHfBoth, "USERI4", USERI, 3, 0),
    KS_HI_AT(ksHcBS, ksHfBoth, "USERI5", USERI, 4, 0),
    KS_HI(ksHcBS, ksHfBoth, SPLINESEGS),
    KS_HI(ksHcBS, ksHfBoth, SURFU),
    KS_HI(ksHcBS, ksHfBoth, SURFV),
    KS_HI(ksHcBS, ksHfBoth, SURFTYPE),
    KS_HI(ksHcBS, ksHfBoth, SURFTAB1),
    KS_HI(ksHcBS, ksHfBoth, SURFTAB2),
    KS_HI(ksHcBS, ksHfBoth, SPLINETYPE),
    KS_HI(ksHcBS, ksHfBoth, SHADEDGE),
    KS_HI(ksHcBS, ksHfBoth, SHADEDIF),
    KS_HI(ksHcBS, ksHfBoth, UNITMODE),
    KS_HI(ksHcBS, ksHfBoth, MAXACTVP),
    KS_HI(ksHcBS, ksHfBoth, ISOLINES),
    KS_HI(ksHcBS, ksHfBoth, CMLJUST),
    KS_HI(ksHcBS, ksHfBoth, TEXTQLTY),

    KS_HI(ksHcBD, ksHfBoth, LTSCALE),
    KS_HI(ksHcBD, ksHfBoth, TEXTSIZE),
    KS_HI(ksHcBD, ksHfBoth, TRACEWID),
    KS_HI(ksHcBD, ksHfBoth, SKETCHINC),
    KS_HI(ksHcBD, ksHfBoth, FILLETRAD),
    KS_HI(ksHcBD, ksHfBoth, THICKNESS),
    KS_HI(ksHcBD, ksHfBoth, ANGBASE),
    KS_HI(ksHcBD, ksHfBoth, PDSIZE),
    KS_HI(ksHcBD, ksHfBoth, PLINEWID),
    KS_HI_AT(ksHcBD, ksHfBoth, "USERR1", USERR, 0, 0),
    KS_HI_AT(ksHcBD, ksHfBoth, "USERR2", USERR, 1, 0),
    KS_HI_AT(ksHcBD, ksHfBoth, "USERR3", USERR, 2, 0),
    KS_HI_AT(ksHcBD, ksHfBoth, "USERR4", USERR, 3, 0),
    KS_HI_AT(ksHcBD, ksHfBoth, "USERR5", USERR, 4, 0),
    KS_HI(ksHcBD, ksHfBoth, CHAMFERA),
    KS_HI(ksHcBD, ksHfBoth, CHAMFERB),
    KS_HI(ksHcBD, ksHfBoth, CHAMFERC),
    KS_HI(ksHcBD, ksHfBoth, CHAMFERD),
    KS_HI(ksHcBD, ksHfBoth, FACETRES),
    KS_HI(ksHcBD, ksHfBoth, CMLSCALE),
    KS_HI(ksHcBD, ksHfBoth, CELTSCALE),
    KS_HI_TEXT(ksHfBoth, MENU, 512),
    KS_HI(ksHcDate, ksHfBoth, TDCREATE),
    KS_HI(ksHcDate, ksHfBoth, TDUPDATE),
    KS_HI(ksHcDate, ksHfBoth, TDINDWG),
    KS_HI(ksHcDate, ksHfBoth, TDUSRTIMER),
    KS_HI(ksHcBS, ksHfBoth, CECOLOR),
    KS_HI_HANDLE(ksHfBoth, HANDSEED, 0),
    KS_HI_HANDLE(ksHfBoth, CLAYER, 5),
    KS_HI_HANDLE(ksHfBoth, TEXTSTYLE, 5),
    KS_HI_HANDLE(ksHfBoth, CELTYPE, 5),
    KS_HI_HANDLE(ksHfBoth, DIMSTYLE, 5),
    KS_HI_HANDLE(ksHfBoth, CMLSTYLE, 5),

    // Paper space.
    KS_HI(ksHcBD, ksHfR2000, PSVPSCALE),
    KS_HI(ksHc3BD, ksHfBoth, PINSBASE),
    KS_HI(ksHc3BD, ksHfBoth, PEXTMIN),
    KS_HI(ksHc3BD, ksHfBoth, PEXTMAX),
    KS_HI(ksHc2RD, ksHfBoth, PLIMMIN),
    KS_HI(ksHc2RD, ksHfBoth, PLIMMAX),
    KS_HI(ksHcBD, ksHfBoth, PELEVATION),
    KS_HI(ksHc3BD, ksHfBoth, PUCSORG),
    KS_HI(ksHc3BD, ksHfBoth, PUCSXDIR),
    KS_HI(ksHc3BD, ksHfBoth, PUCSYDIR),
    KS_HI_HANDLE(ksHfBoth, PUCSNAME, 5),
    KS_HI_HANDLE(ksHfR2000, PUCSORTHOREF, 5),
    KS_HI(ksHcBS, ksHfR2000, PUCSORTHOVIEW),
    KS_HI_HANDLE(ksHfR2000, PUCSBASE, 5),
    KS_HI(ksHc3BD, ksHfR2000, PUCSORGTOP),
    KS_HI(ksHc3BD, ksHfR2000, PUCSORGBOTTOM),
    KS_HI(ksHc3BD, ksHfR2000, PUCSORGLEFT),
    KS_HI(ksHc3BD, ksHfR2000, PUCSORGRIGHT),
    KS_HI(ksHc3BD, ksHfR2000, PUCSORGFRONT),
    KS_HI(ksHc3BD, ksHfR2000, PUCSORGBACK),

    // Model space.
    KS_HI(ksHc3BD, ksHfBoth, INSBASE),
    KS_HI(ksHc3BD, ksHfBoth, EXTMIN),
    KS_HI(ksHc3BD, ksHfBoth, EXTMAX),
    KS_HI(ksHc2RD, ksHfBoth, LIMMIN),
    KS_HI(ksHc2RD, ksHfBoth, LIMMAX),
    KS_HI(ksHcBD, ksHfBoth, ELEVATION),
    KS_HI(ksHc3BD, ksHfBoth, UCSORG),
    KS_HI(ksHc3BD, ksHfBoth, UCSXDIR),
    KS_HI(ksHc3BD, ksHfBoth, UCSYDIR),
    KS_HI_HANDLE(ksHfBoth, UCSNAME, 5),
    KS_HI_HANDLE(ksHfR2000, UCSORTHOREF, 5),
    KS_HI(ksHcBS, ksHfR2000, UCSORTHOVIEW),
    KS_HI_HANDLE(ksHfR2000, UCSBASE, 5),
    KS_HI(ksHc3BD, ksHfR2000, UCSORGTOP),
    KS_HI(ksHc3BD, ksHfR2000, UCSORGBOTTOM),
    KS_HI(ksHc3BD, ksHfR2000, UCSORGLEFT),
    KS_HI(ksHc3BD, ksHfR2000, UCSORGRIGHT),
    KS_HI(ksHc3BD, ksHfR2000, UCSORGFRONT),
    KS_HI(ksHc3BD, ksHfR2000, UCSORGBACK),

    // Dimension variables of R13 and R14: small values as bytes, the arrow
    // blocks by name.
    KS_HI(ksHcB, ksHfR13, DIMTOL),
    KS_HI(ksHcB, ksHfR13, DIMLIM),
    KS_HI(ksHcB, ksHfR13, DIMTIH),
    KS_HI(ksHcB, ksHfR13, DIMTOH),
    KS_HI(ksHcB, ksHfR13, DIMSE1),
    KS_HI(ksHcB, ksHfR13, DIMSE2),
    KS_HI(ksHcB, ksHfR13, DIMALT),
    KS_HI(ksHcB, ksHfR13, DIMTOFL),
    KS_HI(ksHcB, ksHfR13, DIMSAH),
    KS_HI(ksHcB, ksHfR13, DIMTIX),
    KS_HI(ksHcB, ksHfR13, DIMSOXD),
    KS_HI(ksHcRC, ksHfR13, DIMALTD),
    KS_HI(ksHcRC, ksHfR13, DIMZIN),
    KS_HI(ksHcB, ksHfR13, DIMSD1),
    KS_HI(ksHcB, ksHfR13, DIMSD2),
    KS_HI(ksHcRC, ksHfR13, DIMTOLJ),
    KS_HI(ksHcRC, ksHfR13, DIMJUST),
    KS_HI_AS(ksHcRC, ksHfR13, "DIMFIT", DIMATFIT),
    KS_HI(ksHcB, ksHfR13, DIMUPT),
    KS_HI(ksHcRC, ksHfR13, DIMTZIN),
    KS_HI(ksHcRC, ksHfR13, DIMALTZ),
    KS_HI(ksHcRC, ksHfR13, DIMALTTZ),
    KS_HI(ksHcRC, ksHfR13, DIMTAD),
    KS_HI_AS(ksHcBS, ksHfR13, "DIMUNIT", DIMLUNIT),
    KS_HI(ksHcBS, ksHfR13, DIMAUNIT),
    KS_HI(ksHcBS, ksHfR13, DIMDEC),
    KS_HI(ksHcBS, ksHfR13, DIMTDEC),
    KS_HI(ksHcBS, ksHfR13, DIMALTU),
    KS_HI(ksHcBS, ksHfR13, DIMALTTD),
    KS_HI_HANDLE(ksHfR13, DIMTXSTY, 5),
    KS_HI(ksHcBD, ksHfR13, DIMSCALE),
    KS_HI(ksHcBD, ksHfR13, DIMASZ),
    KS_HI(ksHcBD, ksHfR13, DIMEXO),
    KS_HI(ksHcBD, ksHfR13, DIMDLI),
    KS_HI(ksHcBD, ksHfR13, DIMEXE),
    KS_HI(ksHcBD, ksHfR13, DIMRND),
    KS_HI(ksHcBD, ksHfR13, DIMDLE),
    KS_HI(ksHcBD, ksHfR13, DIMTP),
    KS_HI(ksHcBD, ksHfR13, DIMTM),
    KS_HI(ksHcBD, ksHfR13, DIMTXT),
    KS_HI(ksHcBD, ksHfR13, DIMCEN),
    KS_HI(ksHcBD, ksHfR13, DIMTSZ),
    KS_HI(ksHcBD, ksHfR13, DIMALTF),
    KS_HI(ksHcBD, ksHfR13, DIMLFAC),
    KS_HI(ksHcBD, ksHfR13, DIMTVP),
    KS_HI(ksHcBD, ksHfR13, DIMTFAC),
    KS_HI(ksHcBD, ksHfR13, DIMGAP),
    KS_HI_TEXT(ksHfR13, DIMPOST, 121),
    KS_HI_TEXT(ksHfR13, DIMAPOST, 121),
    KS_HI_TEXT(ksHfR13, DIMBLK, 512),
    KS_HI_TEXT(ksHfR13, DIMBLK1, 512),
    KS_HI_TEXT(ksHfR13, DIMBLK2, 512),
    KS_HI(ksHcBS, ksHfR13, DIMCLRD),
    KS_HI(ksHcBS, ksHfR13, DIMCLRE),
    KS_HI(ksHcBS, ksHfR13, DIMCLRT),

    // Dimension variables of R2000: small values as BS, the arrow blocks
    // by handle (their names are found through the block records).
    KS_HI_TEXT(ksHfR2000, DIMPOST, 121),
    KS_HI_TEXT(ksHfR2000, DIMAPOST, 121),
    KS_HI(ksHcBD, ksHfR2000, DIMSCALE),
    KS_HI(ksHcBD, ksHfR2000, DIMASZ),
    KS_HI(ksHcBD, ksHfR2000, DIMEXO),
    KS_HI(ksHcBD, ksHfR2000, DIMDLI),
    KS_HI(ksHcBD, ksHfR2000, DIMEXE),
    KS_HI(ksHcBD, ksHfR2000, DIMRND),
    KS_HI(ksHcBD, ksHfR2000, DIMDLE),
    KS_HI(ksHcBD, ksHfR2000, DIMTP),
    KS_HI(ksHcBD, ksHfR2000, DIMTM),
    KS_HI(ksHcB, ksHfR2000, DIMTOL),
    KS_HI(ksHcB, ksHfR2000, DIMLIM),
    KS_HI(ksHcB, ksHfR2000, DIMTIH),
    KS_HI(ksHcB, ksHfR2000, DIMTOH),
    KS_HI(ksHcB, ksHfR2000, DIMSE1),
    KS_HI(ksHcB, ksHfR2000, DIMSE2),
    KS_HI(ksHcBS, ksHfR2000, DIMTAD),
    KS_HI(ksHcBS, ksHfR2000, DIMZIN),
    KS_HI(ksHcBS, ksHfR2000, DIMAZIN),
    KS_HI(ksHcBD, ksHfR2000, DIMTXT),
    KS_HI(ksHcBD, ksHfR2000, DIMCEN),
    KS_HI(ksHcBD, ksHfR2000, DIMTSZ),
    KS_HI(ksHcBD, ksHfR2000, DIMALTF),
    KS_HI(ksHcBD, ksHfR2000, DIMLFAC),
    KS_HI(ksHcBD, ksHfR2000, DIMTVP),
    KS_HI(ksHcBD, ksHfR2000, DIMTFAC),
    KS_HI(ksHcBD, ksHfR2000, DIMGAP),
    KS_HI(ksHcBD, ksHfR2000, DIMALTRND),
    KS_HI(ksHcB, ksHfR2000, DIMALT),
    KS_HI(ksHcBS, ksHfR2000, DIMALTD),
    KS_HI(ksHcB, ksHfR2000, DIMTOFL),
    KS_HI(ksHcB, ksHfR2000, DIMSAH),
    KS_HI(ksHcB, ksHfR2000, DIMTIX),
    KS_HI(ksHcB, ksHfR2000, DIMSOXD),
    KS_HI(ksHcBS, ksHfR2000, DIMCLRD),
    KS_HI(ksHcBS, ksHfR2000, DIMCLRE),
    KS_HI(ksHcBS, ksHfR2000, DIMCLRT),
    KS_HI(ksHcBS, ksHfR2000, DIMADEC),
    KS_HI(ksHcBS, ksHfR2000, DIMDEC),
    KS_HI(ksHcBS, ksHfR2000, DIMTDEC),
    KS_HI(ksHcBS, ksHfR2000, DIMALTU),
    KS_HI(ksHcBS, ksHfR2000, DIMALTTD),
    KS_HI(ksHcBS, ksHfR2000, DIMAUNIT),
    KS_HI(ksHcBS, ksHfR2000, DIMFRAC),
    KS_HI(ksHcBS, ksHfR2000, DIMLUNIT),
    KS_HI(ksHcBS, ksHfR2000, DIMDSEP),
    KS_HI(ksHcBS, ksHfR2000, DIMTMOVE),
    KS_HI(ksHcBS, ksHfR2000, DIMJUST),
    KS_HI(ksHcB, ksHfR2000, DIMSD1),
    KS_HI(ksHcB, ksHfR2000, DIMSD2),
    KS_HI(ksHcBS, ksHfR2000, DIMTOLJ),
    KS_HI(ksHcBS, ksHfR2000, DIMTZIN),
    KS_HI(ksHcBS, ksHfR2000, DIMALTZ),
    KS_HI(ksHcBS, ksHfR2000, DIMALTTZ),
    KS_HI(ksHcB, ksHfR2000, DIMUPT),
    KS_HI(ksHcBS, ksHfR2000, DIMATFIT),
    KS_HI_HANDLE(ksHfR2000, DIMTXSTY, 5),
    KS_HI_HANDLE(ksHfR2000, dimldrblkHandle, 5),
    KS_HI_HANDLE(ksHfR2000, dimblkHandle, 5),
    KS_HI_HANDLE(ksHfR2000, dimblk1Handle, 5),
    KS_HI_HANDLE(ksHfR2000, dimblk2Handle, 5),
    KS_HI(ksHcBS, ksHfR2000, DIMLWD),
    KS_HI(ksHcBS, ksHfR2000, DIMLWE),

    // The objects the drawing hangs from.
    KS_HI_CONTROL("block control", ksHeadBlocks),
    KS_HI_CONTROL("layer control", ksHeadLayers),
    KS_HI_CONTROL("text style control", ksHeadStyles),
    KS_HI_CONTROL("linetype control", ksHeadLinetypes),
    KS_HI_CONTROL("view control", ksHeadViews),
    KS_HI_CONTROL("UCS control", ksHeadUcses),
    KS_HI_CONTROL("viewport control", ksHeadVports),
    KS_HI_CONTROL("application control", ksHeadAppids),
    KS_HI_CONTROL("dimension style control", ksHeadDimstyles),
    KS_HI_CONTROL("viewport entity header control", ksHeadVpEntHeaders),
    KS_HI_SLOT(ksHfBoth, "ACAD_GROUP dictionary", ksSlotGroupDictionary, 5),
    KS_HI_SLOT(ksHfBoth, "ACAD_MLINESTYLE dictionary", ksSlotMlineStyleDictionary, 5),
    KS_HI_SLOT(ksHfBoth, "named objects dictionary", ksSlotNamedObjects, 3),
    KS_HI_DROP(ksHcBS, ksHfR2000),
    KS_HI_DROP(ksHcBS, ksHfR2000),
    KS_HI_TEXT(ksHfR2000, HYPERLINKBASE, 256),
    KS_HI_TEXT(ksHfR2000, STYLESHEET, 512),
    KS_HI_SLOT(ksHfR2000, "ACAD_LAYOUT dictionary", ksSlotLayoutDictionary, 5),
    KS_HI_SLOT(ksHfR2000, "ACAD_PLOTSETTINGS dictionary", ksSlotPlotSettingsDictionary, 5),
    KS_HI_SLOT(ksHfR2000, "ACAD_PLOTSTYLENAME dictionary", ksSlotPlotStyleDictionary, 5),
    {"flags", ksHcFlags, ksHfR2000, ksHtField, 0, 0, 0, 0},
    KS_HI(ksHcBS, ksHfR2000, INSUNITS),
    KS_HI(ksHcBS, ksHfR2000, CEPSNTYPE),
    KS_HI_TEXT(ksHfR2000, FINGERPRINTGUID, 39),
    KS_HI_TEXT(ksHfR2000, VERSIONGUID, 39),
    KS_HI_SLOT(ksHfBoth, "*PAPER_SPACE block header", ksSlotPaperBlockHeader, 5),
    KS_HI_SLOT(ksHfBoth, "*MODEL_SPACE block header", ksSlotModelBlockHeader, 5),
    KS_HI_SLOT(ksHfBoth, "BYLAYER linetype", ksSlotByLayer, 5),
    KS_HI_SLOT(ksHfBoth, "BYBLOCK linetype", ksSlotByBlock, 5),
    KS_HI_SLOT(ksHfBoth, "CONTINUOUS linetype", ksSlotContinuous, 5),
};

#define KS_HF(field, first, count, rule) \
    {#field, first, count, offsetof(ksHeader, field), sizeof(ksHeader::field), rule}

constexpr ksHeaderFlagBit ksHeaderFlagBits[] = {
    KS_HF(CELWEIGHT, 0, 5, ksFrLineweight),
    KS_HF(ENDCAPS, 5, 2, ksFrPlain),
    KS_HF(JOINSTYLE, 7, 2, ksFrPlain),
    KS_HF(LWDISPLAY, 9, 1, ksFrClearIsOne),
    KS_HF(XEDIT, 10, 1, ksFrClearIsOne),
    KS_HF(EXTNAMES, 11, 1, ksFrPlain),
    KS_HF(PSTYLEMODE, 13, 1, ksFrPlain),
    KS_HF(OLESTARTUP, 14, 1, ksFrPlain),
};

#undef KS_HI
#undef KS_HI_AS
#undef KS_HI_AT
#undef KS_HI_TEXT
#undef KS_HI_HANDLE
#undef KS_HI_SLOT
#undef KS_HI_CONTROL
#undef KS_HI_DROP
#undef KS_HF

namespace {

// Every field row's width fits its code: the reader stores by width.
constexpr bool itemsFitFields()
{
    for (const ksHeaderItem& item : ksHeaderItems) {
        if (item.name == nullptr || item.forms == 0)
            return false;
        if (item.target == ksHtSlot && (item.code != ksHcH || item.offset >= ksHeaderSlotCount))
            return false;
        if (item.target != ksHtField || item.code == ksHcFlags)
            continue;
        if (item.offset + item.width > sizeof(ksHeader))
            return false;
        switch (item.code) {
        case ksHcB:
        case ksHcRC:
        case ksHcBS: if (item.width != 1 && item.width != 2) return false; break;
        case ksHcBL: if (item.width != 4) return false; break;
        case ksHcBD: if (item.width != sizeof(double)) return false; break;
        case ksHcT: if (item.limit <= 0 || item.limit > 512 || item.width < 2) return false; break;
        case ksHcH: if (item.width != sizeof(ksObjHandle)) return false; break;
        case ksHc2RD: if (item.width != sizeof(ksPoint2)) return false; break;
        case ksHc3BD: if (item.width != sizeof(ksPoint3)) return false; break;
        case ksHcDate: if (item.width != sizeof(ksDate)) return false; break;
        default: return false;
        }
    }
    for (const ksHeaderFlagBit& bit : ksHeaderFlagBits)
        if ((bit.width != 1 && bit.width != 2) || bit.first + bit.count > 16)
            return false;
    return true;
}
static_assert(std::size(ksHeaderItems) == ksHeaderItemCount, "ksHeaderItemCount");
static_assert(std::size(ksHeaderFlagBits) == ksHeaderFlagBitCount, "ksHeaderFlagBitCount");
static_assert(itemsFitFields(), "a header item does not fit its field");

// Longest text of any row, and its terminator.
constexpr int kTextBuffer = 512 + 1;

// The lineweights of the 32 indices.
constexpr int16_t kLineweights[32] = {
    0,  5,  9,  13, 15, 18, 20, 25, 30, 35, 40, 50, 53, 60, 70, 80,
    90, 100, 106, 120, 140, 158, 200, 211, 0, 0, 0, 0, 28, -1, -2, -3,
};

// Stores an integer into a field of one, two or four bytes. A byte item
// (RC) replaces only the low byte of a 16-bit field; a wider value stored
// into a narrower field keeps its low bytes.
void storeInt(uint8_t* field, uint16_t width, int32_t value, bool byteItem)
{
    if (width == 1) {
        const int8_t v = static_cast<int8_t>(value);
        std::memcpy(field, &v, 1);
        return;
    }
    if (width == 4) {
        std::memcpy(field, &value, 4);
        return;
    }
    int16_t v = static_cast<int16_t>(value);
    if (byteItem) {
        int16_t old;
        std::memcpy(&old, field, 2);
        v = static_cast<int16_t>((old & 0xff00) | (value & 0xff));
    }
    std::memcpy(field, &v, 2);
}

void storeFlags(ksHeader* header, int32_t flags)
{
    auto* base = reinterpret_cast<uint8_t*>(header);
    for (const ksHeaderFlagBit& bit : ksHeaderFlagBits) {
        int32_t value = (flags >> bit.first) & ((1 << bit.count) - 1);
        if (bit.rule == ksFrClearIsOne)
            value = value == 0;
        else if (bit.rule == ksFrLineweight)
            value = ksLineweightFromIndex(value);
        storeInt(base + bit.offset, bit.width, value, false);
    }
}

// Reads one item; stores it unless it is dropped.
void readItem(ksBitReader& r, const ksHeaderItem& item, ksHeader* header, ksObjHandle* slots)
{
    uint8_t* field = reinterpret_cast<uint8_t*>(header) + item.offset;
    const bool keep = item.target != ksHtDrop;
    switch (item.code) {
    case ksHcB:
    case ksHcRC:
    case ksHcBS:
    case ksHcBL: {
        int32_t value = item.code == ksHcB    ? ksReadBit(r)
                        : item.code == ksHcRC ? ksReadRC(r)
                        : item.code == ksHcBS ? ksReadBS(r)
                                              : ksReadBL(r);
        if (keep)
            storeInt(field, item.width, value, item.code == ksHcRC);
        break;
    }
    case ksHcBD: {
        const double value = ksReadBDValue(r);
        if (keep)
            std::memcpy(field, &value, sizeof value);
        break;
    }
    case ksHc2RD: {
        ksPoint2 value;
        ksRead2RD(r, &value);
        if (keep)
            std::memcpy(field, &value, sizeof value);
        break;
    }
    case ksHc3BD: {
        ksPoint3 value;
        ksRead3BD(r, &value);
        if (keep)
            std::memcpy(field, &value, sizeof value);
        break;
    }
    case ksHcDate: {
        ksDate value;
        value.days = ksReadBL(r);
        value.milliseconds = ksReadBL(r);
        if (keep)
            std::memcpy(field, &value, sizeof value);
        break;
    }
    case ksHcT: {
        // Read whole within the item's limit, then cut to the field: the
        // field keeps its terminator.
        char text[kTextBuffer];
        const int32_t length = ksReadText(r, text, item.limit);
        if (keep && !r.bad) {
            const size_t n = std::min<size_t>(static_cast<size_t>(length), item.width - 1u);
            std::memcpy(field, text, n);
            field[n] = '\0';
        }
        break;
    }
    case ksHcH: {
        ksObjHandle value;
        ksReadHandle(r, &value);
        if (item.target == ksHtSlot)
            slots[item.offset] = value;
        else if (keep)
            std::memcpy(field, &value, sizeof value);
        break;
    }
    case ksHcFlags: storeFlags(header, ksReadBL(r)); break;
    }
}

// Where the slots end up: the reader state, and for some a field of ksFcb.
struct SlotHome {
    ksHeaderSlot slot;
    ksObjHandle ksDwgState::*state;
    ksObjHandle ksFcb::*fcb;
};
constexpr SlotHome kSlotHomes[] = {
    {ksSlotFirstVpentHeader, &ksDwgState::firstVpentHeader, nullptr},
    {ksSlotGroupDictionary, &ksDwgState::groupDictionary, nullptr},
    {ksSlotMlineStyleDictionary, &ksDwgState::mlineStyleDictionary, nullptr},
    {ksSlotNamedObjects, &ksDwgState::namedObjects, nullptr},
    {ksSlotLayoutDictionary, &ksDwgState::layoutDictionary, nullptr},
    {ksSlotPlotSettingsDictionary, &ksDwgState::plotSettingsDictionary, nullptr},
    {ksSlotPlotStyleDictionary, &ksDwgState::plotStyleDictionary, nullptr},
    {ksSlotPaperBlockHeader, &ksDwgState::paperBlockHeader, &ksFcb::paperBlockHandle},
    {ksSlotModelBlockHeader, &ksDwgState::modelBlockHeader, &ksFcb::modelBlockHandle},
    {ksSlotByLayer, &ksDwgState::byLayer, &ksFcb::byLayerHandle},
    {ksSlotByBlock, &ksDwgState::byBlock, &ksFcb::byBlockHandle},
    {ksSlotContinuous, &ksDwgState::continuous, nullptr},
};
static_assert(std::size(kSlotHomes) + ksTableHeadCount == ksHeaderSlotCount, "every slot has a home");

// The control handles of ksFcb in ksTableHead order.
constexpr ksObjHandle ksFcb::*kControlFields[ksTableHeadCount] = {
    &ksFcb::blockControlHandle,    &ksFcb::layerControlHandle, &ksFcb::shapeFileControlHandle,
    &ksFcb::linetypeControlHandle, &ksFcb::viewControlHandle,  &ksFcb::ucsControlHandle,
    &ksFcb::vportControlHandle,    &ksFcb::regAppControlHandle, &ksFcb::dimStyleControlHandle,
    &ksFcb::vpEntControlHandle,
};

// The record being read: it goes to the drawing only when the whole
// stream has been read, so a stream that ends early changes nothing. The
// toolkit reads one drawing at a time.
ksHeader staged;

}  // namespace

int16_t ksLineweightFromIndex(int index)
{
    return index >= 0 && index < 32 ? kLineweights[index] : 0;
}

int16_t ksDwgReadHeaderVars(ksFcb* fcb, ksBitReader& r)
{
    ksDwgState* dwg = ksDwg(fcb);
    const uint8_t form = ksHeaderForm(fcb->fileVersion);
    if (dwg == nullptr || fcb->header == nullptr || form == 0)
        return 0;

    staged = *fcb->header;
    ksObjHandle slots[ksHeaderSlotCount]{};
    for (const ksHeaderItem& item : ksHeaderItems) {
        if ((item.forms & form) == 0)
            continue;
        readItem(r, item, &staged, slots);
        if (r.bad)
            return 0;
    }

    // The seed is the next handle to give out; a file that has one has
    // handles on, whatever the seed.
    staged.HANDLING = 1;
    *fcb->header = staged;
    fcb->handleSeed = staged.HANDSEED;
    fcb->handlesEnabled = 1;

    for (int i = 0; i < ksTableHeadCount; ++i) {
        dwg->controls[i] = slots[ksSlotControls + i];
        fcb->*kControlFields[i] = slots[ksSlotControls + i];
    }
    for (const SlotHome& home : kSlotHomes) {
        dwg->*home.state = slots[home.slot];
        if (home.fcb)
            fcb->*home.fcb = slots[home.slot];
    }
    if (ksG != nullptr)
        ksG->continuousHandle = dwg->continuous;
    return 1;
}
