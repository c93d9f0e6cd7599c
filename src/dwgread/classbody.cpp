// The class entities of R13 to R2000 DWG files: the entities whose type is
// a class number of the drawing (or 498). Seven classes have bodies of
// their own (records/classent.h); an entity of any other class, or of a
// class number the file never defined, is a proxy that keeps its data bits
// and its references as they were, so that a writer can put it back.
//
// Every reader stands behind the common data, reads its data, then the
// common handles (ksReadEntityHandles) and its own handles. Counts taken
// from the stream are held against the bits the object has left before
// anything is looped over or allocated.
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "dwgread/bodyread.h"
#include "dwgread/dwgfile.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/object.h"
#include "store/blob.h"

namespace {

// The style name of the last ARCALIGNEDTEXT: the entity step resolves it
// by name to the style handle (entityRefs.styleName), and the text must
// last until the next read.
char arcTextStyleName[513];

template <typename T>
T& bodyAs(ksBodyRead& e)
{
    return *static_cast<T*>(static_cast<void*>(e.body));
}

// A double as its eight bytes stand, low byte first, not sanitised.
double rawDouble(const uint8_t* bytes)
{
    uint64_t bits = 0;
    for (int i = 7; i >= 0; --i)
        bits = (bits << 8) | bytes[i];
    return std::bit_cast<double>(bits);
}

// ---- LWPOLYLINE

// The stream has all vertices, then all bulges, then all widths; the blob
// has them woven vertex by vertex. Three readers walk the three runs side
// by side, so nothing is held in between. The vertex doubles of R13 and
// R14 are taken as they stand; those of R2000 are coded against the
// previous vertex.
bool readLwpolyline(ksBodyRead& e)
{
    ksLwpolyline& b = bodyAs<ksLwpolyline>(e);
    ksBitReader& r = e.r;
    b.flags = ksReadBS(r);
    if (b.flags & 4)
        b.constantWidth = ksReadBDValue(r);
    if (b.flags & 8)
        b.elevation = ksReadBDValue(r);
    if (b.flags & 2)
        e.header->thickness = ksReadBDValue(r);
    if (b.flags & 1)
        ksReadExtrusion(r, &e.header->extrusion);
    const int32_t count = ksReadBL(r);
    const int32_t bulges = (b.flags & ksLwHasBulges) ? ksReadBL(r) : 0;
    const int32_t widths = (b.flags & ksLwHasWidths) ? ksReadBL(r) : 0;
    // A run of bulges or widths stands for every vertex or is absent.
    if (!ksCountFits(r, count, e.r2000 ? 4 : ksBits2RD) || !ksCountFits(r, bulges, ksBitsBD) ||
        !ksCountFits(r, widths, 2 * ksBitsBD) || (bulges != 0 && bulges != count) ||
        (widths != 0 && widths != count)) {
        ksBitReaderFail(r);
        return false;
    }
    // Pass over the vertices and the bulges to find where each run starts.
    ksBitReader vertexRun = r;
    ksPoint2 point{};
    for (int32_t i = 0; i < count && !r.bad; ++i) {
        if (!e.r2000) {
            ksSkipBits(r, ksBits2RD);
        } else if (i == 0) {
            ksRead2RD(r, &point);
        } else {
            point.x = ksReadDDValue(r, point.x);
            point.y = ksReadDDValue(r, point.y);
        }
    }
    ksBitReader bulgeRun = r;
    for (int32_t i = 0; i < bulges && !r.bad; ++i)
        ksReadBDValue(r);
    if (r.bad)
        return false;
    // r now stands at the widths.
    b.vertexCount = count;
    if (count > 0) {
        ksBlobOut out;
        if (!out.open()) {
            ksBitReaderFail(r);
            return false;
        }
        ksLwVertex v{};
        for (int32_t i = 0; i < count && out.ok && !r.bad; ++i) {
            if (!e.r2000) {
                v.point.x = std::bit_cast<double>(ksReadRawU64(vertexRun));
                v.point.y = std::bit_cast<double>(ksReadRawU64(vertexRun));
            } else if (i == 0) {
                ksRead2RD(vertexRun, &v.point);
            } else {
                v.point.x = ksReadDDValue(vertexRun, v.point.x);
                v.point.y = ksReadDDValue(vertexRun, v.point.y);
            }
            v.bulge = bulges ? ksReadBDValue(bulgeRun) : 0.0;
            v.startWidth = widths ? ksReadBDValue(r) : 0.0;
            v.endWidth = widths ? ksReadBDValue(r) : 0.0;
            out.put(ksLwVertexWrite(out.cursor, b.flags, v));
        }
        if (vertexRun.bad || bulgeRun.bad)
            ksBitReaderFail(r);
        b.vertices = ksFinishBlob(r, out);
        if (b.vertices == 0)
            return false;
    }
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

// ---- HATCH

// The edges of a loop that is no polyline. With a cursor they go to the
// boundary; the result is the number of edges of a known kind, the only
// ones the boundary can hold (an edge of another kind has no data).
int32_t readEdges(ksBitReader& r, int32_t count, ksBlobOut* out)
{
    int32_t known = 0;
    for (int32_t i = 0; i < count && !r.bad; ++i) {
        ksHatchEdge edge{};
        edge.kind = ksReadRC(r);
        switch (edge.kind) {
        case ksHatchLine:
            ksRead2RD(r, &edge.first);
            ksRead2RD(r, &edge.second);
            break;
        case ksHatchArc:
            ksRead2RD(r, &edge.first);
            edge.radius = ksReadBDValue(r);
            edge.start = ksReadBDValue(r);
            edge.end = ksReadBDValue(r);
            edge.counterClockwise = ksReadBit(r);
            break;
        case ksHatchEllipse:
            ksRead2RD(r, &edge.first);
            ksRead2RD(r, &edge.second);
            edge.radius = ksReadBDValue(r);
            edge.start = ksReadBDValue(r);
            edge.end = ksReadBDValue(r);
            edge.counterClockwise = ksReadBit(r);
            break;
        case ksHatchSpline: {
            edge.degree = ksReadBL(r);
            edge.rational = ksReadBit(r);
            edge.periodic = ksReadBit(r);
            edge.knotCount = ksReadBL(r);
            edge.controlCount = ksReadBL(r);
            if (!ksCountFits(r, edge.knotCount, ksBitsBD) || !ksCountFits(r, edge.controlCount, ksBits2RD))
                return known;
            if (out)
                out->put(ksHatchEdgeWrite(out->cursor, edge));
            for (int32_t k = 0; k < edge.knotCount && !r.bad; ++k) {
                const double knot = ksReadBDValue(r);
                if (out)
                    out->put(ksBlobWriteReal(out->cursor, knot));
            }
            for (int32_t c = 0; c < edge.controlCount && !r.bad; ++c) {
                ksHatchControl control{};
                ksRead2RD(r, &control.point);
                if (edge.rational)
                    control.weight = ksReadBDValue(r);
                if (out)
                    out->put(ksHatchControlWrite(out->cursor, edge.rational, control));
            }
            ++known;
            continue;
        }
        default:
            continue;
        }
        if (out)
            out->put(ksHatchEdgeWrite(out->cursor, edge));
        ++known;
    }
    return known;
}

// One boundary loop into the blob. Adds the loop's boundary object count
// to *objects and notes a loop with the pixel flag.
bool readLoop(ksBitReader& r, ksBlobOut& out, int64_t* objects, bool* pixel)
{
    ksHatchLoop loop{};
    loop.flags = ksReadBL(r);
    if (loop.flags & ksHatchPixelLoop)
        *pixel = true;
    if (loop.flags & ksHatchPolylineLoop) {
        loop.hasBulge = ksReadBit(r);
        loop.closed = ksReadBit(r);
        loop.count = ksReadBL(r);
        if (!ksCountFits(r, loop.count, ksBits2RD))
            return false;
        out.put(ksHatchLoopWrite(out.cursor, loop));
        for (int32_t i = 0; i < loop.count && !r.bad; ++i) {
            ksHatchVertex v{};
            ksRead2RD(r, &v.point);
            if (loop.hasBulge)
                v.bulge = ksReadBDValue(r);
            out.put(ksHatchVertexWrite(out.cursor, loop.hasBulge, v));
        }
    } else {
        const int32_t edges = ksReadBL(r);
        if (!ksCountFits(r, edges, 8))
            return false;
        // The count that goes in front of the edges is that of the edges
        // the boundary keeps: a first pass counts them.
        ksBitReader probe = r;
        loop.count = readEdges(probe, edges, nullptr);
        if (probe.bad) {
            ksBitReaderFail(r);
            return false;
        }
        out.put(ksHatchLoopWrite(out.cursor, loop));
        readEdges(r, edges, &out);
    }
    const int32_t count = ksReadBL(r);
    out.put(ksHatchLoopEndWrite(out.cursor, count));
    // Their handles stand in the handle stream of this very object.
    *objects += count;
    return count >= 0 && ksCountFits(r, *objects, 8) && !r.bad;
}

bool readHatch(ksBodyRead& e)
{
    ksHatch& b = bodyAs<ksHatch>(e);
    ksBitReader& r = e.r;
    b.elevation.z = ksReadBDValue(r);
    ksReadExtrusion(r, &e.header->extrusion);
    ksReadTextField(r, b.patternName, 512);
    b.solidFill = ksReadBit(r);
    b.associative = ksReadBit(r);
    b.loopCount = ksReadBL(r);
    // A loop has its flags, its count and its object count at least.
    if (!ksCountFits(r, b.loopCount, 6))
        return false;
    int64_t objects = 0;
    bool pixel = false;
    if (b.loopCount > 0) {
        ksBlobOut out;
        if (!out.open()) {
            ksBitReaderFail(r);
            return false;
        }
        for (int32_t i = 0; i < b.loopCount && !r.bad; ++i) {
            if (!readLoop(r, out, &objects, &pixel)) {
                ksBitReaderFail(r);
                return false;
            }
        }
        if ((b.boundary = ksFinishBlob(r, out)) == 0)
            return false;
    }
    b.hatchStyle = ksReadBS(r);
    b.patternType = ksReadBS(r);
    if (!b.solidFill) {
        b.patternAngle = ksReadBDValue(r);
        b.patternScale = ksReadBDValue(r);
        b.patternDouble = ksReadBit(r);
        b.patternLineCount = ksReadBS(r);
        if (!ksCountFits(r, b.patternLineCount, 5 * ksBitsBD + 2))
            return false;
        if (b.patternLineCount > 0) {
            ksBlobOut out;
            if (!out.open()) {
                ksBitReaderFail(r);
                return false;
            }
            for (int16_t i = 0; i < b.patternLineCount && !r.bad; ++i) {
                ksHatchPatternLine line{};
                line.angle = ksReadBDValue(r);
                line.base.x = ksReadBDValue(r);
                line.base.y = ksReadBDValue(r);
                ksRead2BD(r, &line.offset);
                line.dashCount = ksReadBS(r);
                if (!ksCountFits(r, line.dashCount, ksBitsBD))
                    return false;
                out.put(ksHatchPatternLineWrite(out.cursor, line));
                for (int16_t d = 0; d < line.dashCount && !r.bad; ++d)
                    out.put(ksBlobWriteReal(out.cursor, ksReadBDValue(r)));
            }
            if ((b.patternLines = ksFinishBlob(r, out)) == 0)
                return false;
        }
    }
    // The pixel size stands apart from the pattern: solid fills have it too.
    if (pixel)
        b.pixelSize = ksReadBDValue(r);
    b.seedCount = ksReadBL(r);
    if (!ksCountFits(r, b.seedCount, ksBits2RD))
        return false;
    if (b.seedCount > 0) {
        ksBlobOut out;
        if (!out.open()) {
            ksBitReaderFail(r);
            return false;
        }
        for (int32_t i = 0; i < b.seedCount && !r.bad; ++i) {
            ksPoint2 seed;
            ksRead2RD(r, &seed);
            out.put(ksPoint2Write(out.cursor, seed));
        }
        if ((b.seedPoints = ksFinishBlob(r, out)) == 0)
            return false;
    }
    if (!ksReadEntityHandles(e.fcb, e.header))
        return false;
    if (objects > 0) {
        if (!ksCountFits(r, objects, 8))
            return false;
        b.boundaryHandles = ksReadHandleBlob(r, static_cast<uint32_t>(objects));
        if (b.boundaryHandles == 0) {
            ksBitReaderFail(r);
            return false;
        }
    }
    return true;
}

// ---- IMAGE and WIPEOUT

bool readImage(ksBodyRead& e, bool keepHandles)
{
    ksImage& b = bodyAs<ksImage>(e);
    ksBitReader& r = e.r;
    b.classVersion = ksReadBL(r);
    ksRead3BD(r, &b.insertion);
    ksRead3BD(r, &b.uVector);
    ksRead3BD(r, &b.vVector);
    ksRead2RD(r, &b.size);
    b.display = ksReadBS(r);
    b.clipState = ksReadBit(r);
    b.brightness = ksReadRC(r);
    b.contrast = ksReadRC(r);
    b.fade = ksReadRC(r);
    b.clipType = ksReadBS(r);
    if (b.clipType == 1) {
        b.clipVertexCount = 2;
        ksRead2RD(r, &b.clipCorner1);
        ksRead2RD(r, &b.clipCorner2);
    } else {
        // The outline is stored open; the list closes it with a copy of its
        // first vertex.
        const int32_t count = ksReadBL(r);
        if (!ksCountFits(r, count, ksBits2RD))
            return false;
        if (count > 0) {
            ksBlobOut out;
            if (!out.open()) {
                ksBitReaderFail(r);
                return false;
            }
            ksPoint2 first{};
            for (int32_t i = 0; i < count && !r.bad; ++i) {
                ksPoint2 v;
                ksRead2RD(r, &v);
                if (i == 0)
                    first = v;
                out.put(ksPoint2Write(out.cursor, v));
            }
            out.put(ksPoint2Write(out.cursor, first));
            if ((b.clipVertices = ksFinishBlob(r, out)) == 0)
                return false;
            b.clipVertexCount = count + 1;
        }
    }
    if (!ksReadEntityHandles(e.fcb, e.header))
        return false;
    ksObjHandle definition, reactor;
    ksReadHandle(r, &definition);
    ksReadHandle(r, &reactor);
    if (keepHandles) {
        b.imageDefHandle = definition;
        b.imageDefReactorHandle = reactor;
    }
    b.graphics = e.graphic;
    e.graphic = 0;
    return true;
}

// ---- OLE2FRAME

bool readOle2Frame(ksBodyRead& e)
{
    ksOle2Frame& b = bodyAs<ksOle2Frame>(e);
    ksBitReader& r = e.r;
    b.version = ksReadBS(r);
    if (e.r2000)
        b.secondShort = ksReadBS(r);
    b.dataSize = ksReadBL(r);
    if (!ksCountFits(r, b.dataSize, 8))
        return false;
    // The frame's corners stand inside the data, at bytes 2 and 26.
    uint8_t head[50];
    if (b.dataSize >= 50) {
        ksBitReader peek = r;
        ksReadBytes(peek, head, sizeof head);
        b.upperLeft = ksPoint3{rawDouble(head + 2), rawDouble(head + 10), rawDouble(head + 18)};
        b.lowerRight = ksPoint3{rawDouble(head + 26), rawDouble(head + 34), rawDouble(head + 42)};
    }
    b.data = ksReadRawBytes(r, b.dataSize);
    if (r.bad)
        return false;
    if (e.r2000)
        b.oleType = static_cast<int8_t>(ksReadRC(r));
    return ksReadEntityHandles(e.fcb, e.header) != 0;
}

// ---- RTEXT

bool readRtext(ksBodyRead& e)
{
    ksRtext& b = bodyAs<ksRtext>(e);
    ksBitReader& r = e.r;
    ksRead3BD(r, &b.insertion);
    ksRead3BD(r, &e.header->extrusion);
    b.rotation = ksReadBDValue(r);
    b.height = ksReadBDValue(r);
    b.rtextFlags = ksReadBS(r);
    ksReadTextField(r, b.contents, 1024);
    if (!ksReadEntityHandles(e.fcb, e.header))
        return false;
    ksReadHandle(r, &b.styleHandle);
    b.graphics = e.graphic;
    e.graphic = 0;
    return true;
}

// ---- ARCALIGNEDTEXT

// A real stored as its decimal text. The leading number counts, as far as
// it goes; a text that begins with none, or one that is no finite number,
// is 0.0.
double decimalText(ksBitReader& r)
{
    char text[513];
    ksReadText(r, text, 512);
    const char* p = text;
    while (*p == ' ' || *p == '\t')
        ++p;
    if (*p == '+')
        ++p;
    double value = 0.0;
    const auto [end, error] = std::from_chars(p, p + std::strlen(p), value);
    if (error != std::errc{} || !std::isfinite(value))
        return 0.0;
    return value;
}

bool readArcAlignedText(ksBodyRead& e)
{
    ksArcAlignedText& b = bodyAs<ksArcAlignedText>(e);
    ksBitReader& r = e.r;
    b.height = decimalText(r);
    b.widthFactor = decimalText(r);
    b.spacing = decimalText(r);
    // The style is named, not referenced: the entity step finds it by name.
    ksReadText(r, arcTextStyleName, 512);
    if (ksG != nullptr)
        ksG->entityRefs.styleName = arcTextStyleName;
    ksReadTextField(r, b.fontName, 512);
    ksReadTextField(r, b.bigFontName, 512);
    ksReadTextField(r, b.text, 1024);
    b.offsetFromArc = decimalText(r);
    b.rightOffset = decimalText(r);
    b.leftOffset = decimalText(r);
    ksRead3BD(r, &b.center);
    b.radius = ksReadBDValue(r);
    b.startAngle = ksReadBDValue(r);
    b.endAngle = ksReadBDValue(r);
    ksRead3BD(r, &e.header->extrusion);
    b.color = ksReadBL(r);
    // The flags of groups 70 to 79 in the order the stream has them, the
    // wizard between 70 and 73.
    for (int group : {77, 78, 79, 74, 75, 76, 72, 70})
        b.flags[group - 70] = ksReadBS(r);
    b.wizard = ksReadBS(r);
    b.flags[3] = ksReadBS(r);
    b.flags[1] = ksReadBS(r);
    if (!ksReadEntityHandles(e.fcb, e.header))
        return false;
    ksReadHandle(r, &b.arcHandle);
    b.graphics = e.graphic;
    e.graphic = 0;
    return true;
}

// ---- Proxy

// The data bits of the entity, its common handles, then every handle the
// object has left, with its kind. The type in the header stays the class
// number; a 498 of R2000 names its application class in the data.
bool readProxy(ksBodyRead& e)
{
    ksProxyEntity& b = bodyAs<ksProxyEntity>(e);
    ksBitReader& r = e.r;
    b.proxyClassId = ksKindProxyEntity;
    b.applicationClass = e.dwgType;
    if (e.dwgType == ksKindProxyEntity && e.r2000) {
        // A class number beyond the 16 bits of the field names no class of
        // this drawing: it is kept as the plain proxy number.
        const int32_t application = ksReadBL(r);
        b.applicationClass = static_cast<int16_t>(
            application >= ksKindProxyEntity && application <= INT16_MAX ? application : ksKindProxyEntity);
        b.originalClass = ksReadBL(r);
        b.flags = ksReadBit(r);
    }
    b.graphics = e.graphic;
    e.graphic = 0;
    b.data = ksCopyBits(r, &b.dataBitLength);
    if (r.bad || !ksReadEntityHandles(e.fcb, e.header))
        return false;
    b.references = ksReadReferences(r, &b.handleCount);
    return !r.bad;
}

}  // namespace

bool ksReadClassEntity(ksBodyRead& e)
{
    switch (ksClassEntityDefaults(e.fcb, e.dwgType, e.body)) {
    case ksCeLwpolyline: return readLwpolyline(e);
    case ksCeHatch: return readHatch(e);
    case ksCeImage: return readImage(e, true);
    case ksCeWipeout: return readImage(e, false);
    case ksCeOle2Frame: return readOle2Frame(e);
    case ksCeRtext: return readRtext(e);
    case ksCeArcAlignedText: return readArcAlignedText(e);
    case ksCeProxy: return readProxy(e);
    case ksCeNone: break;
    }
    return false;
}
