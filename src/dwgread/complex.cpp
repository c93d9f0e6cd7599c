// The complex entities of R13 to R2000 DWG files: INSERT and MINSERT,
// POLYLINE and VERTEX, DIMENSION, VIEWPORT, SPLINE, the solid models,
// MTEXT, LEADER, TOLERANCE and MLINE.
//
// Each reader stands behind the common data, reads the body's data, the
// common handles (ksReadEntityHandles) and then the body's own handles.
// Where R13/R14 and R2000 differ the readers say so; "R14" below always
// means R13 and R14 alike unless R13 is named.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "dwgread/bodyread.h"
#include "dwgread/dwgfile.h"
#include "records/entity.h"
#include "store/blob.h"

namespace {

using EntityRead = ksBodyRead;

// Scales this close to 0 are taken as 1.0.
constexpr double kTinyScale = 1e-12;

double scaleOrOne(double v)
{
    return std::fabs(v) < kTinyScale ? 1.0 : v;
}

bool commonHandles(EntityRead& e)
{
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

// The first and last vertex or attribute and the SEQEND behind a POLYLINE
// or an INSERT with attributes: the chain goes through them next.
void readSubHandles(EntityRead& e)
{
    ksReadHandle(e.r, &e.st.firstSub);
    ksReadHandle(e.r, &e.st.lastSub);
    ksReadHandle(e.r, &e.st.seqend);
}

// A count that the body keeps as an int16: it must fit that and the bits
// left, `bitsEach` at least per item.
bool shortCountFits(ksBitReader& r, int64_t count, unsigned bitsEach)
{
    if (count > INT16_MAX) {
        ksBitReaderFail(r);
        return false;
    }
    return ksCountFits(r, count, bitsEach);
}

}  // namespace

// ---------------------------------------------------------------------------
// INSERT, MINSERT

bool ksReadInsertBody(EntityRead& e)
{
    ksInsertBody& b = e.body->insert;
    ksBitReader& r = e.r;
    ksRead3BD(r, &b.insertion);
    if (!e.r2000) {
        b.xScale = ksReadBDValue(r);
        b.yScale = ksReadBDValue(r);
        b.zScale = ksReadBDValue(r);
    } else {
        // Two bits tell which scales are stored; y and z default to x.
        switch (ksReadBits(r, 2)) {
        case 0:
            b.xScale = ksReadRDValue(r);
            b.yScale = ksReadDDValue(r, b.xScale);
            b.zScale = ksReadDDValue(r, b.xScale);
            break;
        case 1:
            b.xScale = 1.0;
            b.yScale = ksReadDDValue(r, 1.0);
            b.zScale = ksReadDDValue(r, 1.0);
            break;
        case 2:
            b.xScale = b.yScale = b.zScale = ksReadRDValue(r);
            break;
        default:
            b.xScale = b.yScale = b.zScale = 1.0;
            break;
        }
    }
    b.xScale = scaleOrOne(b.xScale);
    b.yScale = scaleOrOne(b.yScale);
    b.zScale = scaleOrOne(b.zScale);
    b.rotation = ksReadBDValue(r);
    // The extrusion is a 3BD in R2000 too, not a BE.
    ksReadExtrusion(r, &e.header->extrusion);
    b.hasAttributes = ksReadBit(r);
    b.columnCount = b.rowCount = 1;
    b.columnSpacing = b.rowSpacing = 0.0;
    if (e.dwgType == 8) {
        b.columnCount = ksReadBS(r);
        b.rowCount = ksReadBS(r);
        b.columnSpacing = ksReadBDValue(r);
        b.rowSpacing = ksReadBDValue(r);
        if (b.columnCount == 0)
            b.columnCount = 1;
        if (b.rowCount == 0)
            b.rowCount = 1;
    }
    if (!commonHandles(e))
        return false;
    ksReadHandle(r, &b.blockHandle);
    if (b.hasAttributes)
        readSubHandles(e);
    else
        e.st.firstSub = e.st.lastSub = e.st.seqend = ksObjHandle{};
    return true;
}

// ---------------------------------------------------------------------------
// POLYLINE, VERTEX

bool ksReadPolylineBody(EntityRead& e)
{
    ksPolylineBody& b = e.body->polyline;
    ksBitReader& r = e.r;
    switch (e.dwgType) {
    case 15:  // 2D
        b.flags = ksReadBS(r);
        b.curveType = ksReadBS(r);
        b.startWidth = ksReadBDValue(r);
        b.endWidth = ksReadBDValue(r);
        ksReadEntityThickness(e);
        b.elevation = ksReadBDValue(r);
        ksReadEntityExtrusion(e);
        if (b.flags & 8)
            b.startWidth = b.endWidth = 0.0;
        // The 2D vertices take their Z from here and compare their widths.
        e.st.polylineElevation = b.elevation;
        e.st.polylineStartWidth = b.startWidth;
        e.st.polylineEndWidth = b.endWidth;
        break;
    case 16: {  // 3D
        const uint8_t curve = ksReadRC(r);
        b.curveType = (curve & 1) ? 5 : (curve & 2) ? 6 : 0;
        b.flags = static_cast<int16_t>(ksReadRC(r) | 8);
        if (b.curveType != 0)
            b.flags |= 4;
        break;
    }
    case 29:  // polyface mesh
        b.flags = 64;
        b.meshM = ksReadBS(r);
        b.meshN = ksReadBS(r);
        break;
    case 30:  // polygon mesh
        b.flags = ksReadBS(r);
        b.curveType = ksReadBS(r);
        b.meshM = ksReadBS(r);
        b.meshN = ksReadBS(r);
        b.smoothM = ksReadBS(r);
        b.smoothN = ksReadBS(r);
        break;
    default:
        return false;
    }
    if (!commonHandles(e))
        return false;
    readSubHandles(e);
    return true;
}

bool ksReadVertexBody(EntityRead& e)
{
    ksVertexBody& b = e.body->vertex;
    ksBitReader& r = e.r;
    switch (e.dwgType) {
    case 10: {  // 2D
        b.flags = ksReadRC(r);
        ksRead3BD(r, &b.point);
        b.point.z = e.st.polylineElevation;
        b.startWidth = ksReadBDValue(r);
        if (b.startWidth < 0.0) {
            // A negative start width stands for both widths.
            b.startWidth = b.endWidth = -b.startWidth;
        } else {
            b.endWidth = ksReadBDValue(r);
        }
        b.bulge = ksReadBDValue(r);
        b.tangent = ksReadBDValue(r);
        // A width the polyline has already needs no group of its own.
        b.hasStartWidth = b.startWidth != e.st.polylineStartWidth;
        b.hasEndWidth = b.endWidth != e.st.polylineEndWidth;
        return commonHandles(e);
    }
    case 11:
    case 12:
    case 13:  // 3D, polygon mesh, polyface mesh
        b.flags = ksReadRC(r);
        ksRead3BD(r, &b.point);
        return commonHandles(e);
    case 14:  // a face of a polyface mesh
        b.faceIndexCount = 0;
        for (int16_t& index : b.faceIndices) {
            index = ksReadBS(r);
            if (index != 0)
                ++b.faceIndexCount;
        }
        if (!commonHandles(e))
            return false;
        b.flags = 128;
        return true;
    default:
        return false;
    }
}

// ---------------------------------------------------------------------------
// DIMENSION

bool ksReadDimensionBody(EntityRead& e)
{
    ksDimensionBody& b = e.body->dimension;
    ksBitReader& r = e.r;
    ksReadExtrusion(r, &e.header->extrusion);
    b.textMidpoint.x = ksReadRDValue(r);
    b.textMidpoint.y = ksReadRDValue(r);
    b.textMidpoint.z = ksReadBDValue(r);
    ksSkipBits(r, 7);
    // Bit 128 marks a dimension whose text stands where the user put it.
    b.dimensionType = ksReadBit(r) ? 0 : static_cast<int8_t>(128);
    ksReadTextField(r, b.text, 1024);
    b.textRotation = ksReadBDValue(r);
    b.horizontalDirection = ksReadBDValue(r);
    ksPoint3 dropped;
    ksRead3BD(r, &dropped);
    b.horizontal = ksReadBDValue(r);
    if (e.r2000) {
        b.attachment = ksReadBS(r);
        b.lineSpacingStyle = ksReadBS(r);
        b.lineSpacingFactor = ksReadBDValue(r);
        b.measurement = ksReadBDValue(r);
    }
    b.insertionPoint.x = ksReadRDValue(r);
    b.insertionPoint.y = ksReadRDValue(r);
    b.insertionPoint.z = b.textMidpoint.z;
    b.hasInsertionPoint = !(b.insertionPoint.x == 0.0 && b.insertionPoint.y == 0.0);

    static constexpr int8_t kKinds[] = {6, 0, 1, 5, 2, 4, 3};  // by DWG type from 20
    if (e.dwgType < 20 || e.dwgType > 26)
        return false;
    b.dimensionType = static_cast<int8_t>(b.dimensionType | kKinds[e.dwgType - 20]);
    switch (e.dwgType) {
    case 20:  // ordinate
        ksRead3BD(r, &b.definitionPoint);
        ksRead3BD(r, &b.point13);
        ksRead3BD(r, &b.point14);
        if (ksReadRC(r) & 1)
            b.dimensionType = static_cast<int8_t>(b.dimensionType | 64);
        break;
    case 21:  // linear
    case 22:  // aligned
        ksRead3BD(r, &b.point13);
        ksRead3BD(r, &b.point14);
        ksRead3BD(r, &b.definitionPoint);
        b.extensionOblique = ksReadBDValue(r);
        if (e.dwgType == 21)
            b.rotation = ksReadBDValue(r);
        break;
    case 23:  // angular by three points
        ksRead3BD(r, &b.definitionPoint);
        ksRead3BD(r, &b.point13);
        ksRead3BD(r, &b.point14);
        ksRead3BD(r, &b.point15);
        break;
    case 24:  // angular by two lines
        b.point16.x = ksReadRDValue(r);
        b.point16.y = ksReadRDValue(r);
        ksRead3BD(r, &b.point13);
        ksRead3BD(r, &b.point14);
        ksRead3BD(r, &b.point15);
        ksRead3BD(r, &b.definitionPoint);
        break;
    case 25:  // radius
        ksRead3BD(r, &b.definitionPoint);
        ksRead3BD(r, &b.point15);
        b.leaderLength = ksReadBDValue(r);
        break;
    default:  // 26, diameter
        ksRead3BD(r, &b.point15);
        ksRead3BD(r, &b.definitionPoint);
        b.leaderLength = ksReadBDValue(r);
        break;
    }
    if (!commonHandles(e))
        return false;
    ksReadHandle(r, &b.dimstyleHandle);
    ksReadHandle(r, &b.blockHandle);
    return true;
}

// ---------------------------------------------------------------------------
// VIEWPORT

bool ksReadViewportBody(EntityRead& e)
{
    ksViewportBody& b = e.body->viewport;
    ksBitReader& r = e.r;
    ksRead3BD(r, &b.center);
    b.width = ksReadBDValue(r);
    b.height = ksReadBDValue(r);
    if (!e.r2000) {
        // The view of an R14 viewport stands in its extended data.
        if (!commonHandles(e))
            return false;
        ksObjHandle dropped;
        ksReadHandle(r, &dropped);
        return true;
    }
    ksRead3BD(r, &b.target);
    ksRead3BD(r, &b.direction);
    b.twist = ksReadBDValue(r);
    b.viewHeight = ksReadBDValue(r);
    b.lensLength = ksReadBDValue(r);
    b.frontClip = ksReadBDValue(r);
    b.backClip = ksReadBDValue(r);
    b.snapAngle = ksReadBDValue(r);
    ksRead2RD(r, &b.viewCenter);
    ksRead2RD(r, &b.snapBase);
    ksRead2RD(r, &b.snapSpacing);
    ksRead2RD(r, &b.gridSpacing);
    b.circleZoom = ksReadBS(r);
    b.frozenLayerCount = ksReadBL(r);
    b.statusFlags = ksReadBL(r);
    ksReadTextField(r, b.plotStyleName, 512);
    b.renderMode = ksReadRC(r);
    b.ucsIcon = ksReadBit(r);
    b.ucsPerViewport = ksReadBit(r);
    ksRead3BD(r, &b.ucsOrigin);
    ksRead3BD(r, &b.ucsXAxis);
    ksRead3BD(r, &b.ucsYAxis);
    b.elevation = ksReadBDValue(r);
    b.orthoType = ksReadBS(r);
    if (!commonHandles(e))
        return false;
    if (!ksCountFits(r, b.frozenLayerCount, 8))
        return false;
    if (b.frozenLayerCount > 0) {
        b.frozenLayers = ksReadHandleBlob(r, static_cast<uint32_t>(b.frozenLayerCount));
        if (b.frozenLayers == 0) {
            ksBitReaderFail(r);
            return false;
        }
    }
    ksObjHandle dropped;
    ksReadHandle(r, &b.clipBoundaryHandle);
    ksReadHandle(r, &dropped);
    ksReadHandle(r, &b.baseUcsHandle);
    ksReadHandle(r, &b.namedUcsHandle);
    return true;
}

// ---------------------------------------------------------------------------
// SPLINE

namespace {

constexpr double kSplineTolerance = 1e-12;

bool samePoint(const ksPoint3& a, const ksPoint3& b)
{
    return a.x == b.x && a.y == b.y && a.z == b.z;
}

// The planar (8) and linear (16) bits of a spline by its points: all on
// one line gives both, all in one plane the first.
int16_t splineShape(const std::vector<ksPoint3>& p)
{
    constexpr int16_t kPlanar = 8, kLinear = 16;
    if (p.size() < 3)
        return kPlanar | kLinear;
    const ksPoint3& first = p[0];
    auto differs = [&](const ksPoint3& q) {
        return std::fabs(q.x - first.x) >= kSplineTolerance || std::fabs(q.y - first.y) >= kSplineTolerance ||
               std::fabs(q.z - first.z) >= kSplineTolerance;
    };
    size_t i = 1;
    while (i < p.size() && !differs(p[i]))
        ++i;
    if (i == p.size())
        return kPlanar | kLinear;
    // The direction of the line, its axes that are next to nothing made 0.
    double d[3] = {p[i].x - first.x, p[i].y - first.y, p[i].z - first.z};
    for (double& axis : d)
        if (std::fabs(axis) < kSplineTolerance)
            axis = 0.0;
    // A later point lies on the line when it is first + t * d for one t
    // in every axis.
    const ksPoint3* off = nullptr;
    for (size_t j = i + 1; j < p.size() && off == nullptr; ++j) {
        const double q[3] = {p[j].x - first.x, p[j].y - first.y, p[j].z - first.z};
        bool haveRatio = false;
        double ratio = 0.0;
        for (int k = 0; k < 3 && off == nullptr; ++k) {
            if (d[k] == 0.0) {
                if (q[k] != 0.0)
                    off = &p[j];
                continue;
            }
            const double t = q[k] / d[k];
            if (haveRatio && t != ratio)
                off = &p[j];
            ratio = t, haveRatio = true;
        }
    }
    if (off == nullptr)
        return kPlanar | kLinear;
    // The plane through the first point, the one that gave the line its
    // direction and the one off it: planar when every point lies in it.
    // (The literal second point would give no plane when it equals the
    // first, and every such spline would count as planar.)
    const ksPoint3& second = p[i];
    const double u[3] = {second.x - first.x, second.y - first.y, second.z - first.z};
    const double v[3] = {off->x - first.x, off->y - first.y, off->z - first.z};
    const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    const double dist = -(n[0] * first.x + n[1] * first.y + n[2] * first.z);
    for (const ksPoint3& q : p)
        if (!(std::fabs(n[0] * q.x + n[1] * q.y + n[2] * q.z + dist) < kSplineTolerance))
            return 0;
    return kPlanar;
}

}  // namespace

bool ksReadSplineBody(EntityRead& e)
{
    ksSplineBody& b = e.body->spline;
    ksBitReader& r = e.r;
    const int16_t scenario = ksReadBS(r);
    b.degree = ksReadBS(r);
    int32_t knots = 0, controls = 0, fits = 0;
    if (scenario == 2) {
        b.fitTolerance = ksReadBDValue(r);
        ksRead3BD(r, &b.startTangent);
        ksRead3BD(r, &b.endTangent);
        fits = ksReadBL(r);
    } else if (scenario == 1) {
        if (ksReadBit(r))
            b.flags |= ksSplineWeighted;
        if (ksReadBit(r))
            b.flags |= 1;
        if (ksReadBit(r))
            b.flags |= 2;
        b.knotTolerance = ksReadBDValue(r);
        b.controlTolerance = ksReadBDValue(r);
        knots = ksReadBL(r);
        controls = ksReadBL(r);
        ksReadBit(r);
    }
    const bool weighted = (b.flags & ksSplineWeighted) != 0;
    if (!shortCountFits(r, knots, ksBitsBD) || !shortCountFits(r, controls, ksBits3BD + (weighted ? ksBitsBD : 0)) ||
        !shortCountFits(r, fits, ksBits3BD))
        return false;
    b.knotCount = static_cast<int16_t>(knots);
    b.controlCount = static_cast<int16_t>(controls);
    b.fitCount = static_cast<int16_t>(fits);

    std::vector<ksPoint3> controlPoints, fitPoints;
    if (knots + controls + fits > 0) {
        ksBlobOut out;
        if (!out.open()) {
            ksBitReaderFail(r);
            return false;
        }
        for (int32_t i = 0; i < knots && !r.bad; ++i)
            out.put(ksBlobWriteReal(out.cursor, ksReadBDValue(r)));
        controlPoints.reserve(static_cast<size_t>(controls));
        for (int32_t i = 0; i < controls && !r.bad; ++i) {
            ksPoint3 p;
            ksRead3BD(r, &p);
            controlPoints.push_back(p);
            out.put(ksBlobWritePoint(out.cursor, p));
            if (weighted)
                out.put(ksBlobWriteReal(out.cursor, ksReadBDValue(r)));
        }
        fitPoints.reserve(static_cast<size_t>(fits));
        for (int32_t i = 0; i < fits && !r.bad; ++i) {
            ksPoint3 p;
            ksRead3BD(r, &p);
            fitPoints.push_back(p);
            out.put(ksBlobWritePoint(out.cursor, p));
        }
        b.data = out.finish(!r.bad);
        if (b.data == 0) {
            ksBitReaderFail(r);
            return false;
        }
    }
    // The shape bits come from the fit points where there are any, else
    // from the control points.
    if (fits != 0) {
        if (samePoint(fitPoints.front(), fitPoints.back()))
            b.flags |= 1;
        b.flags |= splineShape(fitPoints);
    } else if (controls != 0) {
        b.flags |= splineShape(controlPoints);
    }
    return commonHandles(e);
}

// ---------------------------------------------------------------------------
// REGION, 3DSOLID, BODY

namespace {

// The model's text: blocks of coded bytes until a block of length 0. A
// byte from 33 to 126 stands for 159 minus it, a tab for a blank.
bool readModelText(ksBitReader& r, ksLoc* text)
{
    ksBlobOut out;
    if (!out.open()) {
        ksBitReaderFail(r);
        return false;
    }
    uint8_t piece[512];
    for (;;) {
        const int32_t length = ksReadBL(r);
        if (length == 0 || r.bad)
            break;
        if (!ksCountFits(r, length, 8))
            return false;
        for (int32_t left = length; left > 0 && out.ok;) {
            const uint32_t n = static_cast<uint32_t>(left < int32_t(sizeof piece) ? left : int32_t(sizeof piece));
            if (!ksReadBytes(r, piece, n)) {
                ksBitReaderFail(r);
                return false;
            }
            for (uint32_t i = 0; i < n; ++i) {
                if (piece[i] >= 33 && piece[i] <= 126)
                    piece[i] = static_cast<uint8_t>(159 - piece[i]);
                else if (piece[i] == 9)
                    piece[i] = ' ';
            }
            out.put(ksBlobWrite(out.cursor, piece, static_cast<uint16_t>(n)));
            left -= static_cast<int32_t>(n);
        }
        if (!out.ok)
            break;
    }
    *text = out.finish(!r.bad);
    if (*text == 0) {
        ksBitReaderFail(r);
        return false;
    }
    return true;
}

// What stands between the text and the handles, kept bit for bit: the
// flag byte, the bit count (int32), the whole bytes, and the last bits
// at the top of a byte of their own.
bool readModelTail(ksBitReader& r, bool hadText, ksLoc* tail)
{
    if (r.bad || r.bitSize == 0 || r.bitSize > r.bitEnd || r.bitPos > r.bitSize) {
        ksBitReaderFail(r);
        return false;
    }
    const uint64_t count = r.bitSize - r.bitPos;
    ksBlobOut out;
    if (!out.open()) {
        ksBitReaderFail(r);
        return false;
    }
    out.put(ksBlobWriteByte(out.cursor, hadText ? 1 : 0));
    out.put(ksBlobWriteInt32(out.cursor, static_cast<int32_t>(count)));
    uint8_t piece[512];
    uint64_t left = count;
    while (left >= 8 && out.ok) {
        const uint32_t n = static_cast<uint32_t>(left / 8 < sizeof piece ? left / 8 : sizeof piece);
        for (uint32_t i = 0; i < n; ++i)
            piece[i] = ksReadRC(r);
        out.put(ksBlobWrite(out.cursor, piece, static_cast<uint16_t>(n)));
        left -= uint64_t{n} * 8;
    }
    if (left > 0 && out.ok) {
        const unsigned n = static_cast<unsigned>(left);
        out.put(ksBlobWriteByte(out.cursor, static_cast<uint8_t>(ksReadBits(r, n) << (8 - n))));
    }
    *tail = out.finish(!r.bad);
    if (*tail == 0) {
        ksBitReaderFail(r);
        return false;
    }
    return true;
}

}  // namespace

bool ksReadModelerBody(EntityRead& e)
{
    ksModelerBody& b = e.body->modeler;
    ksBitReader& r = e.r;
    const bool hasText = ksReadBS(r) == 64;
    if (hasText) {
        ksReadBDValue(r);
        if (!readModelText(r, &b.satData))
            return false;
    }
    if (!readModelTail(r, hasText, &b.modelerTail))
        return false;
    return commonHandles(e);
}

// ---------------------------------------------------------------------------
// MTEXT

bool ksReadMtextBody(EntityRead& e)
{
    ksMtextBody& b = e.body->mtext;
    ksBitReader& r = e.r;
    ksRead3BD(r, &b.insertion);
    ksReadExtrusion(r, &e.header->extrusion);
    ksRead3BD(r, &b.direction);
    b.referenceWidth = ksReadBDValue(r);
    b.height = ksReadBDValue(r);
    b.attachment = static_cast<int8_t>(ksReadBS(r));
    b.drawingDirection = static_cast<int8_t>(ksReadBS(r));
    b.boxHeight = ksReadBDValue(r);
    b.boxWidth = ksReadBDValue(r);
    const int32_t length = static_cast<uint16_t>(ksReadBS(r));
    if (!ksCountFits(r, length, 8))
        return false;
    // A text of up to 255 bytes fits one group; a longer one goes to the
    // blob as its bytes, without a terminator.
    if (length < 256) {
        ksReadBytes(r, reinterpret_cast<uint8_t*>(b.text), static_cast<uint32_t>(length));
        b.text[length] = '\0';
    } else {
        b.text[0] = '\0';
        b.longText = ksReadRawBytes(r, length);
        if (b.longText == 0)
            return false;
    }
    b.lineSpacingStyle = 1;
    b.lineSpacing = 1.0;
    if (e.r2000) {
        b.lineSpacingStyle = ksReadBS(r);
        b.lineSpacing = ksReadBDValue(r);
        ksReadBit(r);
    }
    if (!commonHandles(e))
        return false;
    ksReadHandle(r, &b.styleHandle);
    return true;
}

// ---------------------------------------------------------------------------
// LEADER

namespace {

// 0 when the last segment lies within 15 degrees of the horizontal, else 1.
int8_t hookLineOf(const ksPoint3& p, const ksPoint3& q)
{
    constexpr double kPi = 3.1415926535898;
    const double dx = p.x - q.x, dy = p.y - q.y;
    double a;
    if (dx == 0.0) {
        a = dy < 0.0 ? -kPi / 2 : kPi / 2;
    } else {
        a = std::atan(dy / dx);
        if (dx < 0.0)
            a += a <= 0.0 ? kPi : -kPi;
    }
    const double m = std::fabs(a);
    return (m <= 0.2617993855 || m >= 2.8797932680898004) ? 0 : 1;
}

}  // namespace

bool ksReadLeaderBody(EntityRead& e)
{
    ksLeaderBody& b = e.body->leader;
    ksBitReader& r = e.r;
    ksReadBit(r);
    b.creationFlag = ksReadBS(r);
    b.pathType = static_cast<int8_t>(ksReadBS(r));
    const int32_t count = ksReadBL(r);
    if (!shortCountFits(r, count, ksBits3BD))
        return false;
    b.vertexCount = static_cast<int16_t>(count);
    ksPoint3 last[2] = {};
    if (count > 0) {
        ksBlobOut out;
        if (!out.open()) {
            ksBitReaderFail(r);
            return false;
        }
        for (int32_t i = 0; i < count && !r.bad; ++i) {
            ksPoint3 p;
            ksRead3BD(r, &p);
            last[0] = last[1], last[1] = p;
            out.put(ksBlobWritePoint(out.cursor, p));
        }
        b.vertices = out.finish(!r.bad);
        if (b.vertices == 0) {
            ksBitReaderFail(r);
            return false;
        }
    }
    ksRead3BD(r, &b.annotationOffset);
    ksReadExtrusion(r, &e.header->extrusion);
    ksRead3BD(r, &b.horizontalDirection);
    ksRead3BD(r, &b.blockOffset);
    ksPoint3 dropped;
    if (e.st.version >= ksAC1014)
        ksRead3BD(r, &dropped);
    if (!e.r2000)
        ksReadBDValue(r);
    b.textHeight = ksReadBDValue(r);
    b.textWidth = ksReadBDValue(r);
    b.hookDirection = static_cast<int8_t>(ksReadBit(r));
    b.arrowFlag = static_cast<int8_t>(ksReadBit(r));
    if (e.r2000) {
        ksReadBS(r);
        ksReadBits(r, 2);
        b.color = 255;
    } else {
        ksReadBS(r);
        ksReadBDValue(r);
        ksReadBits(r, 2);
        ksReadBS(r);
        b.color = ksReadBS(r);
        ksReadBits(r, 2);
    }
    b.hookLine = 0;
    if ((b.creationFlag == 0 || b.creationFlag == 1) && count >= 2)
        b.hookLine = hookLineOf(last[0], last[1]);
    if (!commonHandles(e))
        return false;
    ksReadHandle(r, &b.annotationHandle);
    ksReadHandle(r, &b.dimstyleHandle);
    return true;
}

// ---------------------------------------------------------------------------
// TOLERANCE

bool ksReadToleranceBody(EntityRead& e)
{
    ksToleranceBody& b = e.body->tolerance;
    ksBitReader& r = e.r;
    if (!e.r2000) {
        // Two reals and a short the records keep no field for.
        ksReadBS(r);
        ksReadBDValue(r);
        ksReadBDValue(r);
    }
    ksRead3BD(r, &b.insertion);
    ksRead3BD(r, &b.direction);
    ksReadExtrusion(r, &e.header->extrusion);
    ksReadTextField(r, b.text, 1024);
    if (!commonHandles(e))
        return false;
    ksReadHandle(r, &b.dimstyleHandle);
    return true;
}

// ---------------------------------------------------------------------------
// MLINE

bool ksReadMlineBody(EntityRead& e)
{
    ksMlineBody& b = e.body->mline;
    ksBitReader& r = e.r;
    b.scale = ksReadBDValue(r);
    b.justification = ksReadRC(r);
    ksRead3BD(r, &b.start);
    ksReadExtrusion(r, &e.header->extrusion);
    b.flags = ksReadBS(r);
    b.styleCount = ksReadRC(r);
    b.vertexCount = ksReadBS(r);
    // A vertex takes three points and two counts per element at least.
    if (!ksCountFits(r, b.vertexCount, 3 * ksBits3BD + 4u * static_cast<unsigned>(b.styleCount)))
        return false;
    if (b.vertexCount > 0) {
        ksBlobOut out;
        if (!out.open()) {
            ksBitReaderFail(r);
            return false;
        }
        for (int32_t i = 0; i < b.vertexCount && !r.bad && out.ok; ++i) {
            for (int k = 0; k < 3; ++k) {  // position, direction, miter
                ksPoint3 p;
                ksRead3BD(r, &p);
                out.put(ksBlobWritePoint(out.cursor, p));
            }
            for (int16_t s = 0; s < b.styleCount * 2 && !r.bad && out.ok; ++s) {
                // The segment's parameters, then the fill's.
                const int16_t n = ksReadBS(r);
                if (!ksCountFits(r, n, ksBitsBD))
                    return false;
                out.put(ksBlobWriteInt16(out.cursor, n));
                for (int16_t j = 0; j < n && !r.bad; ++j)
                    out.put(ksBlobWriteReal(out.cursor, ksReadBDValue(r)));
            }
        }
        b.data = out.finish(!r.bad);
        if (b.data == 0) {
            ksBitReaderFail(r);
            return false;
        }
    }
    if (!commonHandles(e))
        return false;
    ksReadHandle(r, &b.styleHandle);
    return true;
}
