// The symbol table records' setup images and their DXF field tables.
#include "records/tables.h"

#include "frame/fcb.h"
#include "records/object.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

// Default images. Fields not named are zero: empty texts, null handles and
// locations, zero numbers and points.

constexpr ksLinetype makeLinetypeImage() {
    ksLinetype r{};
    r.xrefIndex = -1;
    r.alignment = 'A';
    r.flags = 64;
    for (ksLinetypeDash& d : r.dashes) d.scale = 1.0;
    return r;
}

constexpr ksStyle makeStyleImage() {
    ksStyle r{};
    r.xrefIndex = -1;
    r.widthFactor = 1.0;
    return r;
}

constexpr ksView makeViewImage() {
    ksView r{};
    r.xrefIndex = -1;
    r.height = 1.0;
    r.width = 1.0;
    r.direction = {0.0, 0.0, 1.0};
    r.lensLength = 50.0;
    r.ucsXAxis = {1.0, 0.0, 0.0};
    r.ucsYAxis = {0.0, 1.0, 0.0};
    return r;
}

constexpr ksVport makeVportImage() {
    ksVport r{};
    r.xrefIndex = -1;
    r.upperRight = {1.0, 1.0};
    r.snapSpacing = {1.0, 1.0};
    r.center = {6.21, 9.02};
    r.direction = {0.0, 0.0, 1.0};
    r.height = 18.04;
    r.circleZoom = 100;
    r.fastZoom = 1;
    r.ucsIcon = 1;
    r.aspect = 0.688564;
    r.lensLength = 50.0;
    return r;
}

constexpr ksDimstyle makeDimstyleImage() {
    ksDimstyle r{};
    r.xrefIndex = -1;
    r.DIMALTD = 2;
    r.DIMALTF = 25.4;
    r.DIMASZ = 0.18;
    r.DIMCEN = 0.09;
    r.DIMDLI = 0.38;
    r.DIMEXE = 0.18;
    r.DIMEXO = 0.0625;
    r.DIMGAP = 0.09;
    r.DIMLFAC = 1.0;
    r.DIMSCALE = 1.0;
    r.DIMTFAC = 1.0;
    r.DIMTIH = 1;
    r.DIMTOH = 1;
    r.DIMTXT = 0.18;
    r.DIMALTTD = 2;
    r.DIMALTU = 2;
    r.DIMDEC = 4;
    r.DIMTDEC = 4;
    r.DIMTOLJ = 1;
    r.DIMUNIT = 2;
    r.DIMDSEP = '.';
    r.DIMLWD = -2;  // by block
    r.DIMLWE = -2;
    return r;
}

template <typename T>
constexpr T makeEmptyImage() {
    T r{};
    r.xrefIndex = -1;
    return r;
}

constexpr ksLinetype linetypeImage = makeLinetypeImage();
constexpr ksStyle styleImage = makeStyleImage();
constexpr ksView viewImage = makeViewImage();
constexpr ksUcs ucsImage = makeEmptyImage<ksUcs>();
constexpr ksVport vportImage = makeVportImage();
constexpr ksAppid appidImage = makeEmptyImage<ksAppid>();
constexpr ksDimstyle dimstyleImage = makeDimstyleImage();
constexpr ksBlockHeader blockHeaderImage = makeEmptyImage<ksBlockHeader>();

template <typename T>
void copyImage(T* record, const T& image) {
    std::memcpy(record, &image, sizeof(T));
}

}  // namespace

void ksLayerDefaults(ksFcb* fcb, ksLayer* record) {
    std::memset(record, 0, sizeof *record);
    record->xrefIndex = -1;
    record->color = 7;
    record->linetypeHandle = ksFirstLinetypeHandle(fcb);
    record->plotFlag = 1;
    record->lineweight = -3;  // the default lineweight
    record->plotStyleHandle = fcb ? fcb->defaultPlotStyleHandle : ksObjHandle{};
}

void ksLinetypeDefaults(ksLinetype* record) { copyImage(record, linetypeImage); }
void ksStyleDefaults(ksStyle* record) { copyImage(record, styleImage); }
void ksViewDefaults(ksView* record) { copyImage(record, viewImage); }
void ksUcsDefaults(ksUcs* record) { copyImage(record, ucsImage); }
void ksVportDefaults(ksVport* record) { copyImage(record, vportImage); }
void ksAppidDefaults(ksAppid* record) { copyImage(record, appidImage); }
void ksBlockHeaderDefaults(ksBlockHeader* record) { copyImage(record, blockHeaderImage); }

void ksDimstyleDefaults(ksFcb* fcb, ksDimstyle* record) {
    copyImage(record, dimstyleImage);
    record->DIMTXSTY = ksFirstStyleHandle(fcb);
}

int ksTableNumberFind(std::string_view name) {
    for (int t = 0; t < ksTableNumberCount; ++t) {
        const char* candidate = ksTableNames[t];
        size_t i = 0;
        for (; i < name.size() && candidate[i] != '\0'; ++i) {
            char c = name[i];
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
            if (c != candidate[i]) break;
        }
        if (i == name.size() && candidate[i] == '\0') return t;
    }
    return -1;
}

// Rows. The field is named once; offset and width follow from it.
#define KS_TF_ROW(R, group, field, kind, index, lo, hi, flags) \
    {group, offsetof(R, field), sizeof(R::field), kind, index, lo, hi, flags}
// A field read from and written to every version.
#define KS_TF(R, group, field, kind) KS_TF_ROW(R, group, field, kind, 0, 0, 7, 0)
// One axis of a point: X (axis 0) at the point's group, Y at group + 10,
// Z at group + 20. The rows of one point stand apart in group order.
#define KS_TF_AXIS(R, group, field, axis) KS_TF_ROW(R, group, field, ksTfReal, axis, 0, 7, 0)
// A field of the current linetype dash.
#define KS_TF_DASH(group, field, kind)                                                            \
    {group, offsetof(ksLinetype, dashes) + offsetof(ksLinetypeDash, field),                       \
     sizeof(ksLinetypeDash::field), kind, 0, 0, 7, ksTfInDash}

namespace {

constexpr ksTableField linetypeRows[] = {
    KS_TF(ksLinetype, 2, name, ksTfName),
    KS_TF(ksLinetype, 3, description, ksTfText),
    KS_TF(ksLinetype, 5, entryHandle, ksTfHandle),
    KS_TF_DASH(9, textOffset, ksTfDashText),
    KS_TF(ksLinetype, 40, patternLength, ksTfReal),
    KS_TF_DASH(44, xOffset, ksTfReal),
    KS_TF_DASH(45, yOffset, ksTfReal),
    KS_TF_DASH(46, scale, ksTfReal),
    KS_TF_DASH(49, length, ksTfDashStart),
    KS_TF_DASH(50, rotation, ksTfAngle),
    KS_TF(ksLinetype, 70, flags, ksTfByte),
    KS_TF(ksLinetype, 72, alignment, ksTfByte),
    KS_TF(ksLinetype, 73, dashCount, ksTfShort),
    KS_TF_DASH(74, dashFlags, ksTfShort),
    KS_TF_DASH(75, shapeNumber, ksTfShort),
    KS_TF(ksLinetype, 330, ownerHandle, ksTfHandle),
    KS_TF_DASH(340, styleHandle, ksTfHandle),
    KS_TF(ksLinetype, 360, xdictHandle, ksTfHandle),
};

constexpr ksTableField layerRows[] = {
    KS_TF(ksLayer, 2, name, ksTfName),
    KS_TF(ksLayer, 5, entryHandle, ksTfHandle),
    KS_TF_ROW(ksLayer, 6, linetypeHandle, ksTfNameRef, ksTableLtype, 0, 7, 0),
    KS_TF(ksLayer, 62, color, ksTfShort),
    KS_TF(ksLayer, 70, flags, ksTfByte),
    KS_TF(ksLayer, 290, plotFlag, ksTfShort),
    KS_TF(ksLayer, 330, ownerHandle, ksTfHandle),
    KS_TF(ksLayer, 360, xdictHandle, ksTfHandle),
    KS_TF(ksLayer, 370, lineweight, ksTfShort),
    KS_TF(ksLayer, 390, plotStyleHandle, ksTfHandle),
};

constexpr ksTableField styleRows[] = {
    KS_TF(ksStyle, 2, name, ksTfName),
    KS_TF(ksStyle, 3, fontFile, ksTfText),
    KS_TF(ksStyle, 4, bigFont, ksTfText),
    KS_TF(ksStyle, 5, entryHandle, ksTfHandle),
    KS_TF(ksStyle, 40, height, ksTfReal),
    KS_TF(ksStyle, 41, widthFactor, ksTfReal),
    KS_TF(ksStyle, 42, lastHeight, ksTfReal),
    KS_TF(ksStyle, 50, obliqueAngle, ksTfAngle),
    KS_TF(ksStyle, 70, flags, ksTfByte),
    KS_TF(ksStyle, 71, generation, ksTfByte),
    KS_TF(ksStyle, 330, ownerHandle, ksTfHandle),
    KS_TF(ksStyle, 360, xdictHandle, ksTfHandle),
};

constexpr ksTableField viewRows[] = {
    KS_TF(ksView, 2, name, ksTfName),
    KS_TF(ksView, 5, entryHandle, ksTfHandle),
    KS_TF_AXIS(ksView, 10, center, 0),
    KS_TF_AXIS(ksView, 11, direction, 0),
    KS_TF_AXIS(ksView, 12, target, 0),
    KS_TF_AXIS(ksView, 20, center, 1),
    KS_TF_AXIS(ksView, 21, direction, 1),
    KS_TF_AXIS(ksView, 22, target, 1),
    KS_TF_AXIS(ksView, 31, direction, 2),
    KS_TF_AXIS(ksView, 32, target, 2),
    KS_TF(ksView, 40, height, ksTfReal),
    KS_TF(ksView, 41, width, ksTfReal),
    KS_TF(ksView, 42, lensLength, ksTfReal),
    KS_TF(ksView, 43, frontClip, ksTfReal),
    KS_TF(ksView, 44, backClip, ksTfReal),
    KS_TF(ksView, 50, twist, ksTfAngle),
    KS_TF(ksView, 70, flags, ksTfByte),
    KS_TF(ksView, 71, viewMode, ksTfShort),
    KS_TF(ksView, 72, ucsAssociated, ksTfShort),
    KS_TF(ksView, 79, orthoType, ksTfShort),
    KS_TF_AXIS(ksView, 110, ucsOrigin, 0),
    KS_TF_AXIS(ksView, 111, ucsXAxis, 0),
    KS_TF_AXIS(ksView, 112, ucsYAxis, 0),
    KS_TF_AXIS(ksView, 120, ucsOrigin, 1),
    KS_TF_AXIS(ksView, 121, ucsXAxis, 1),
    KS_TF_AXIS(ksView, 122, ucsYAxis, 1),
    KS_TF_AXIS(ksView, 130, ucsOrigin, 2),
    KS_TF_AXIS(ksView, 131, ucsXAxis, 2),
    KS_TF_AXIS(ksView, 132, ucsYAxis, 2),
    KS_TF(ksView, 146, elevation, ksTfReal),
    KS_TF(ksView, 281, renderMode, ksTfShort),
    KS_TF(ksView, 330, ownerHandle, ksTfHandle),
    KS_TF(ksView, 345, baseUcsHandle, ksTfHandle),
    KS_TF(ksView, 346, namedUcsHandle, ksTfHandle),
    KS_TF(ksView, 360, xdictHandle, ksTfHandle),
};

constexpr ksTableField vportRows[] = {
    KS_TF(ksVport, 2, name, ksTfName),
    KS_TF(ksVport, 5, entryHandle, ksTfHandle),
    KS_TF_AXIS(ksVport, 10, lowerLeft, 0),
    KS_TF_AXIS(ksVport, 11, upperRight, 0),
    KS_TF_AXIS(ksVport, 12, center, 0),
    KS_TF_AXIS(ksVport, 13, snapBase, 0),
    KS_TF_AXIS(ksVport, 14, snapSpacing, 0),
    KS_TF_AXIS(ksVport, 15, gridSpacing, 0),
    KS_TF_AXIS(ksVport, 16, direction, 0),
    KS_TF_AXIS(ksVport, 17, target, 0),
    KS_TF_AXIS(ksVport, 20, lowerLeft, 1),
    KS_TF_AXIS(ksVport, 21, upperRight, 1),
    KS_TF_AXIS(ksVport, 22, center, 1),
    KS_TF_AXIS(ksVport, 23, snapBase, 1),
    KS_TF_AXIS(ksVport, 24, snapSpacing, 1),
    KS_TF_AXIS(ksVport, 25, gridSpacing, 1),
    KS_TF_AXIS(ksVport, 26, direction, 1),
    KS_TF_AXIS(ksVport, 27, target, 1),
    KS_TF_AXIS(ksVport, 36, direction, 2),
    KS_TF_AXIS(ksVport, 37, target, 2),
    KS_TF(ksVport, 40, height, ksTfReal),
    KS_TF(ksVport, 41, aspect, ksTfReal),
    KS_TF(ksVport, 42, lensLength, ksTfReal),
    KS_TF(ksVport, 43, frontClip, ksTfReal),
    KS_TF(ksVport, 44, backClip, ksTfReal),
    KS_TF(ksVport, 50, snapAngle, ksTfAngle),
    KS_TF(ksVport, 51, twist, ksTfAngle),
    KS_TF(ksVport, 65, ucsFollow, ksTfShort),
    KS_TF(ksVport, 70, flags, ksTfByte),
    KS_TF(ksVport, 71, viewMode, ksTfShort),
    KS_TF(ksVport, 72, circleZoom, ksTfShort),
    KS_TF(ksVport, 73, fastZoom, ksTfShort),
    KS_TF(ksVport, 74, ucsIcon, ksTfShort),
    KS_TF(ksVport, 75, snapOn, ksTfShort),
    KS_TF(ksVport, 76, gridOn, ksTfShort),
    KS_TF(ksVport, 77, snapStyle, ksTfShort),
    KS_TF(ksVport, 78, snapIsoPair, ksTfShort),
    KS_TF(ksVport, 79, orthoType, ksTfShort),
    KS_TF_AXIS(ksVport, 110, ucsOrigin, 0),
    KS_TF_AXIS(ksVport, 111, ucsXAxis, 0),
    KS_TF_AXIS(ksVport, 112, ucsYAxis, 0),
    KS_TF_AXIS(ksVport, 120, ucsOrigin, 1),
    KS_TF_AXIS(ksVport, 121, ucsXAxis, 1),
    KS_TF_AXIS(ksVport, 122, ucsYAxis, 1),
    KS_TF_AXIS(ksVport, 130, ucsOrigin, 2),
    KS_TF_AXIS(ksVport, 131, ucsXAxis, 2),
    KS_TF_AXIS(ksVport, 132, ucsYAxis, 2),
    KS_TF(ksVport, 146, elevation, ksTfReal),
    KS_TF(ksVport, 281, renderMode, ksTfShort),
    KS_TF(ksVport, 330, ownerHandle, ksTfHandle),
    KS_TF(ksVport, 345, baseUcsHandle, ksTfHandle),
    KS_TF(ksVport, 346, namedUcsHandle, ksTfHandle),
    KS_TF(ksVport, 360, xdictHandle, ksTfHandle),
};

// The application name goes out as it stands in every version, so it is
// plain text rather than a record name.
constexpr ksTableField appidRows[] = {
    KS_TF(ksAppid, 2, name, ksTfText),
    KS_TF(ksAppid, 5, entryHandle, ksTfHandle),
    KS_TF(ksAppid, 70, flags, ksTfByte),
    KS_TF(ksAppid, 330, ownerHandle, ksTfHandle),
    KS_TF(ksAppid, 360, xdictHandle, ksTfHandle),
};

// Before R2000 the three arrow blocks are named in groups 5, 6 and 7 and
// the style's own handle moves to 105; from R2000 the blocks are handles in
// 342 to 344. DIMUNIT is 270 before R2000 and 277 from it; DIMFIT has no
// group from R2000 on.
#define KS_TF_DIM(group, field, kind) KS_TF(ksDimstyle, group, field, kind)
#define KS_TF_DIM_UNTIL6(group, field, kind, index) KS_TF_ROW(ksDimstyle, group, field, kind, index, 0, 6, 0)
#define KS_TF_DIM_FROM7(group, field, kind) KS_TF_ROW(ksDimstyle, group, field, kind, 0, 7, 7, 0)

constexpr ksTableField dimstyleRows[] = {
    KS_TF_DIM(2, name, ksTfName),
    KS_TF_DIM(3, DIMPOST, ksTfText),
    KS_TF_DIM(4, DIMAPOST, ksTfText),
    KS_TF_DIM_UNTIL6(5, DIMBLK, ksTfNameRef, ksTableBlock),
    KS_TF_DIM_UNTIL6(6, DIMBLK1, ksTfNameRef, ksTableBlock),
    KS_TF_DIM_UNTIL6(7, DIMBLK2, ksTfNameRef, ksTableBlock),
    KS_TF_DIM(40, DIMSCALE, ksTfReal),
    KS_TF_DIM(41, DIMASZ, ksTfReal),
    KS_TF_DIM(42, DIMEXO, ksTfReal),
    KS_TF_DIM(43, DIMDLI, ksTfReal),
    KS_TF_DIM(44, DIMEXE, ksTfReal),
    KS_TF_DIM(45, DIMRND, ksTfReal),
    KS_TF_DIM(46, DIMDLE, ksTfReal),
    KS_TF_DIM(47, DIMTP, ksTfReal),
    KS_TF_DIM(48, DIMTM, ksTfReal),
    KS_TF_DIM(70, flags, ksTfByte),
    KS_TF_DIM(71, DIMTOL, ksTfByte),
    KS_TF_DIM(72, DIMLIM, ksTfByte),
    KS_TF_DIM(73, DIMTIH, ksTfByte),
    KS_TF_DIM(74, DIMTOH, ksTfByte),
    KS_TF_DIM(75, DIMSE1, ksTfByte),
    KS_TF_DIM(76, DIMSE2, ksTfByte),
    KS_TF_DIM(77, DIMTAD, ksTfByte),
    KS_TF_DIM(78, DIMZIN, ksTfByte),
    KS_TF_DIM(79, DIMAZIN, ksTfShort),
    KS_TF_DIM(105, entryHandle, ksTfHandle),
    KS_TF_DIM(140, DIMTXT, ksTfReal),
    KS_TF_DIM(141, DIMCEN, ksTfReal),
    KS_TF_DIM(142, DIMTSZ, ksTfReal),
    KS_TF_DIM(143, DIMALTF, ksTfReal),
    KS_TF_DIM(144, DIMLFAC, ksTfReal),
    KS_TF_DIM(145, DIMTVP, ksTfReal),
    KS_TF_DIM(146, DIMTFAC, ksTfReal),
    KS_TF_DIM(147, DIMGAP, ksTfReal),
    KS_TF_DIM(148, DIMALTRND, ksTfReal),
    KS_TF_DIM(170, DIMALT, ksTfByte),
    KS_TF_DIM(171, DIMALTD, ksTfByte),
    KS_TF_DIM(172, DIMTOFL, ksTfByte),
    KS_TF_DIM(173, DIMSAH, ksTfByte),
    KS_TF_DIM(174, DIMTIX, ksTfByte),
    KS_TF_DIM(175, DIMSOXD, ksTfByte),
    KS_TF_DIM(176, DIMCLRD, ksTfShort),
    KS_TF_DIM(177, DIMCLRE, ksTfShort),
    KS_TF_DIM(178, DIMCLRT, ksTfShort),
    KS_TF_DIM(179, DIMADEC, ksTfShort),
    KS_TF_DIM_UNTIL6(270, DIMUNIT, ksTfShort, 0),
    KS_TF_DIM(271, DIMDEC, ksTfShort),
    KS_TF_DIM(272, DIMTDEC, ksTfShort),
    KS_TF_DIM(273, DIMALTU, ksTfShort),
    KS_TF_DIM(274, DIMALTTD, ksTfShort),
    KS_TF_DIM(275, DIMAUNIT, ksTfShort),
    KS_TF_DIM(276, DIMFRAC, ksTfShort),
    KS_TF_DIM_FROM7(277, DIMUNIT, ksTfShort),
    KS_TF_DIM(278, DIMDSEP, ksTfShort),
    KS_TF_DIM(279, DIMTMOVE, ksTfShort),
    KS_TF_DIM(280, DIMJUST, ksTfByte),
    KS_TF_DIM(281, DIMSD1, ksTfByte),
    KS_TF_DIM(282, DIMSD2, ksTfByte),
    KS_TF_DIM(283, DIMTOLJ, ksTfByte),
    KS_TF_DIM(284, DIMTZIN, ksTfByte),
    KS_TF_DIM(285, DIMALTZ, ksTfByte),
    KS_TF_DIM(286, DIMALTTZ, ksTfByte),
    KS_TF_DIM_UNTIL6(287, DIMFIT, ksTfByte, 0),
    KS_TF_DIM(288, DIMUPT, ksTfByte),
    KS_TF_DIM(330, ownerHandle, ksTfHandle),
    KS_TF_DIM(340, DIMTXSTY, ksTfHandle),
    KS_TF_DIM(341, DIMLDRBLK, ksTfHandle),
    KS_TF_DIM_FROM7(342, DIMBLK, ksTfHandle),
    KS_TF_DIM_FROM7(343, DIMBLK1, ksTfHandle),
    KS_TF_DIM_FROM7(344, DIMBLK2, ksTfHandle),
    KS_TF_DIM(360, xdictHandle, ksTfHandle),
    KS_TF_DIM(371, DIMLWD, ksTfShort),
    KS_TF_DIM(372, DIMLWE, ksTfShort),
};

#undef KS_TF_DIM_FROM7
#undef KS_TF_DIM_UNTIL6
#undef KS_TF_DIM

constexpr ksTableField ucsRows[] = {
    KS_TF(ksUcs, 2, name, ksTfName),
    KS_TF(ksUcs, 5, entryHandle, ksTfHandle),
    KS_TF_AXIS(ksUcs, 10, origin, 0),
    KS_TF_AXIS(ksUcs, 11, xAxis, 0),
    KS_TF_AXIS(ksUcs, 12, yAxis, 0),
    KS_TF_AXIS(ksUcs, 13, orthoOrigin, 0),
    KS_TF_AXIS(ksUcs, 20, origin, 1),
    KS_TF_AXIS(ksUcs, 21, xAxis, 1),
    KS_TF_AXIS(ksUcs, 22, yAxis, 1),
    KS_TF_AXIS(ksUcs, 23, orthoOrigin, 1),
    KS_TF_AXIS(ksUcs, 30, origin, 2),
    KS_TF_AXIS(ksUcs, 31, xAxis, 2),
    KS_TF_AXIS(ksUcs, 32, yAxis, 2),
    KS_TF_AXIS(ksUcs, 33, orthoOrigin, 2),
    KS_TF(ksUcs, 70, flags, ksTfByte),
    KS_TF(ksUcs, 71, orthoView, ksTfShort),
    KS_TF(ksUcs, 79, orthoType, ksTfShort),
    KS_TF(ksUcs, 146, elevation, ksTfReal),
    KS_TF(ksUcs, 330, ownerHandle, ksTfHandle),
    KS_TF(ksUcs, 346, baseUcsHandle, ksTfHandle),
    KS_TF(ksUcs, 360, xdictHandle, ksTfHandle),
};

// Read off the BLOCK entity; group 5 there is the block's handle.
constexpr ksTableField blockRows[] = {
    KS_TF(ksBlockHeader, 2, name, ksTfName),
    KS_TF(ksBlockHeader, 4, description, ksTfText),
    KS_TF(ksBlockHeader, 5, entryHandle, ksTfHandle),
    KS_TF(ksBlockHeader, 70, flags, ksTfByte),
    KS_TF(ksBlockHeader, 310, previewData, ksTfByteChunks),
    KS_TF(ksBlockHeader, 330, ownerHandle, ksTfHandle),
    KS_TF(ksBlockHeader, 340, layoutHandle, ksTfHandle),
    KS_TF(ksBlockHeader, 360, xdictHandle, ksTfHandle),
};

constexpr ksTableField blockRecordRows[] = {
    KS_TF(ksBlockRecordEntry, 2, name, ksTfName),
    KS_TF(ksBlockRecordEntry, 5, entryHandle, ksTfHandle),
    KS_TF(ksBlockRecordEntry, 310, previewData, ksTfByteChunks),
    KS_TF(ksBlockRecordEntry, 330, ownerHandle, ksTfHandle),
    KS_TF(ksBlockRecordEntry, 340, layoutHandle, ksTfHandle),
    KS_TF(ksBlockRecordEntry, 360, xdictHandle, ksTfHandle),
};

}  // namespace

#undef KS_TF_DASH
#undef KS_TF_AXIS
#undef KS_TF
#undef KS_TF_ROW

namespace {

template <typename R, size_t N>
constexpr ksTableFieldSet rowSet(const ksTableField (&rows)[N]) {
    return {rows, static_cast<uint16_t>(N), static_cast<uint16_t>(sizeof(R))};
}

}  // namespace

constexpr ksTableFieldSet ksTableFieldTable[ksTableNumberCount] = {
    rowSet<ksLinetype>(linetypeRows),
    rowSet<ksLayer>(layerRows),
    rowSet<ksStyle>(styleRows),
    rowSet<ksView>(viewRows),
    rowSet<ksVport>(vportRows),
    rowSet<ksAppid>(appidRows),
    rowSet<ksDimstyle>(dimstyleRows),
    rowSet<ksUcs>(ucsRows),
    rowSet<ksBlockHeader>(blockRows),
    rowSet<ksBlockRecordEntry>(blockRecordRows),
    ksMlineStyleFields,
    ksClassFields,
};

namespace {

constexpr size_t elementWidth(ksTableFieldKind kind) {
    switch (kind) {
        case ksTfByte: return 1;
        case ksTfShort:
        case ksTfDashText: return 2;
        case ksTfLong: return 4;
        case ksTfReal:
        case ksTfAngle:
        case ksTfDashStart: return 8;
        case ksTfHandle:
        case ksTfNameRef: return sizeof(ksObjHandle);
        case ksTfByteChunks: return sizeof(ksLoc);
        case ksTfText:
        case ksTfCodedText:
        case ksTfName: return 1;
    }
    return 0;
}

constexpr bool isTextKind(ksTableFieldKind kind) {
    return kind == ksTfText || kind == ksTfCodedText || kind == ksTfName;
}

constexpr bool isDashKind(ksTableFieldKind kind) {
    return kind == ksTfDashStart || kind == ksTfDashText;
}

// The kind fits the field: a text has room for one byte and its NUL; an
// indexed element lies inside its array; every other kind fills its field
// exactly.
constexpr bool rowFitsField(const ksTableField& row) {
    const size_t unit = elementWidth(row.kind);
    if (isTextKind(row.kind)) return row.width >= 2 && row.index == 0;
    if (row.kind == ksTfNameRef) {
        return row.width == unit && row.index >= 0 && row.index < ksTableNumberCount;
    }
    if (row.kind == ksTfShort || row.kind == ksTfReal || row.kind == ksTfLong) {
        return row.index >= 0 && row.width % unit == 0 && (row.index + 1) * unit <= row.width;
    }
    return row.width == unit && row.index == 0;
}

// Rows lie inside the record, dash rows inside dash 0, only the linetype
// has dash rows, version ranges are sane, and the rows stand by group then
// version, with the ranges of one group disjoint.
constexpr bool rowsWellFormed(int table) {
    const ksTableFieldSet& set = ksTableFieldTable[table];
    constexpr size_t dashStart = offsetof(ksLinetype, dashes);
    constexpr size_t dashEnd = dashStart + sizeof(ksLinetypeDash);
    for (size_t i = 0; i < set.count; ++i) {
        const ksTableField& row = set.rows[i];
        if (row.offset + row.width > set.recordSize || !rowFitsField(row)) return false;
        if (row.minVersion < 0 || row.minVersion > row.maxVersion || row.maxVersion >= ksVersionCount) {
            return false;
        }
        const bool inDash = (row.flags & ksTfInDash) != 0;
        if (inDash && (table != ksTableLtype || row.offset < dashStart || row.offset + row.width > dashEnd)) {
            return false;
        }
        if (isDashKind(row.kind) && !inDash) return false;
        if (i == 0) continue;
        const ksTableField& prev = set.rows[i - 1];
        if (prev.group > row.group) return false;
        if (prev.group == row.group && prev.maxVersion >= row.minVersion) return false;
    }
    return true;
}

constexpr bool allTablesWellFormed() {
    for (int t = 0; t < ksTableNumberCount; ++t) {
        if (!rowsWellFormed(t)) return false;
    }
    return true;
}

static_assert(allTablesWellFormed(), "a ksTableFieldTable row is out of order or does not fit its field");

}  // namespace

const ksTableField* ksTableFieldFind(int table, int group, int version) {
    if (table < 0 || table >= ksTableNumberCount) return nullptr;
    const ksTableFieldSet& set = ksTableFieldTable[table];
    if (version < 0) version = 0;
    if (version >= ksVersionCount) version = ksVersionCount - 1;
    // Rows stand sorted by group: the first of the group, then its versions.
    const ksTableField* end = set.rows + set.count;
    for (const ksTableField* it = std::lower_bound(set.rows, end, group,
                                             [](const ksTableField& row, int g) { return row.group < g; });
         it != end && it->group == group; ++it) {
        const ksTableField& row = *it;
        if (version >= row.minVersion && version <= row.maxVersion) return &row;
    }
    return nullptr;
}

size_t ksTableFieldElementWidth(ksTableFieldKind kind) {
    return elementWidth(kind);
}

void* ksTableFieldAddress(void* record, const ksTableField* row, int dash) {
    size_t at = row->offset;
    if (row->flags & ksTfInDash) {
        if (dash < 0 || dash >= ksLinetypeMaxDashes) return nullptr;
        at += static_cast<size_t>(dash) * sizeof(ksLinetypeDash);
    }
    if (row->kind == ksTfShort || row->kind == ksTfReal || row->kind == ksTfLong) {
        at += static_cast<size_t>(row->index) * elementWidth(row->kind);
    }
    return static_cast<unsigned char*>(record) + at;
}
