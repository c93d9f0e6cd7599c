// The complex entities of R13-R2000 DWG files, on hand-made objects: the
// readings that depend on values (scale codes, widths, hook lines, the
// shape of a spline, the solid model's coding) and counts that the object
// cannot hold.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "dwgread/dwgfile.h"
#include "dwgread/ops.h"
#include "dwgwrite/objectframe.h"
#include "records/entity.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "support/dwgtest.h"

namespace {

using namespace zt;

ksObjHandle H(uint64_t v) { return ksHandleFromU64(v); }
uint64_t U(const ksObjHandle& h) { return ksHandleToU64(h); }

using Write = std::function<void(ksBitWriter&)>;

// Entities framed one by one into a file image, then read by handle.
class ComplexBodies : public DrawingTest, public ::testing::WithParamInterface<int16_t> {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(DrawingTest::SetUp());
        fcb->dwgState = st = new ksDwgState;
        fcb->releaseReader = [](ksFcb* f) { delete ksDwg(f), f->dwgState = nullptr; };
        fcb->fileVersion = st->version = GetParam();
        fcb->byLayerHandle = H(0x15);
    }
    void TearDown() override
    {
        for (auto& [h, b] : read)
            ksEntityFreeBlobs(fcb, h, &b);
        DrawingTest::TearDown();
    }
    bool r2000() const { return st->version >= ksAC1015; }

    // An entity in model space on layer 0x10 with linetype BYLAYER; its
    // handle is the next free one.
    uint64_t add(int16_t type, const Write& data, const Write& handles = {})
    {
        const uint64_t handle = next++;
        image.entity(type, handle, data, handles, {});
        return handle;
    }
    // Reads the entities in the order they were added; false at the first
    // that fails.
    bool install()
    {
        image.install(*st);
        st->modelFirst = H(0x30), st->modelLast = H(next - 1);
        return ksDwgStartEntities(fcb) == 1;
    }
    bool readAll()
    {
        if (!install())
            return false;
        for (uint64_t h = 0x30; h < next; ++h)
            if (!readOne(h))
                return false;
        return true;
    }
    bool readOne(uint64_t h)
    {
        ksEntityHeader header;
        ksEntityBody body;
        int16_t ext = 0;
        st->current = H(h), st->secondPass = 1, st->entitiesRead = 0;
        if (ksDwgReadEntity(fcb, &header, &body, &ext) != 1)
            return false;
        EXPECT_EQ(U(header.layerHandle), 0x10u) << h;
        read.emplace_back(header, body);
        return true;
    }
    const ksEntityBody& body(size_t i) const { return read.at(i).second; }
    const ksEntityHeader& header(size_t i) const { return read.at(i).first; }

    // The extrusion and thickness as this release stores them.
    void extrusion(ksBitWriter& w) { r2000() ? ksWriteBE(w, {0, 0, 1}) : ksWrite3BD(w, {0, 0, 1}); }
    void thickness(ksBitWriter& w) { r2000() ? ksWriteBT(w, 0) : ksWriteBD(w, 0); }

    ksDwgState* st = nullptr;
    DwgImage image{GetParam()};
    uint64_t next = 0x30;
    std::vector<std::pair<ksEntityHeader, ksEntityBody>> read;
};

std::vector<double> reals(ksLoc blob)
{
    std::vector<double> out;
    ksBlobCursor* c = ksBlobOpenRead(blob);
    double v;
    while (c && ksBlobTell(c) + 8 <= ksBlobSize(blob) && ksBlobReadReal(c, &v))
        out.push_back(v);
    ksBlobCloseRead(c);
    return out;
}

std::string bytes(ksLoc blob)
{
    std::string out(ksBlobSize(blob), '\0');
    ksBlobCursor* c = ksBlobOpenRead(blob);
    if (c && !out.empty())
        ksBlobRead(c, out.data(), uint16_t(out.size()));
    ksBlobCloseRead(c);
    return out;
}

TEST_P(ComplexBodies, InsertScalesCountsAndAttributes)
{
    auto insert = [&](int16_t type, const Write& scales, bool attributes) {
        add(type, [&](ksBitWriter& w) {
            ksWrite3BD(w, {1, 2, 3}), scales(w), ksWriteBD(w, 0.5), ksWrite3BD(w, {0, 0, 1});
            ksWriteBit(w, attributes);
            if (type == 8)
                ksWriteBS(w, 0), ksWriteBS(w, 0), ksWriteBD(w, 4.0), ksWriteBD(w, 5.0);
        }, [&](ksBitWriter& w) {
            ksWriteHandle(w, H(0x20), 0x50);
            if (attributes)
                ksWriteHandle(w, H(0x61), 0x30), ksWriteHandle(w, H(0x62), 0x30), ksWriteHandle(w, H(0x63), 0x30);
        });
    };
    std::vector<ksPoint3> want;
    if (r2000()) {
        insert(7, [](ksBitWriter& w) { ksWriteBits(w, 2, 2), ksWriteRD(w, 2.0); }, false);
        insert(7, [](ksBitWriter& w) { ksWriteBits(w, 1, 2), ksWriteDD(w, 3.0, 1.0), ksWriteDD(w, 1.0, 1.0); }, false);
        insert(7, [](ksBitWriter& w) { ksWriteBits(w, 3, 2); }, false);
        insert(8, [](ksBitWriter& w) { ksWriteBits(w, 0, 2), ksWriteRD(w, 1e-13), ksWriteDD(w, 1e-13, 1e-13), ksWriteDD(w, 7.0, 1e-13); }, true);
        want = {{2, 2, 2}, {1, 3, 1}, {1, 1, 1}, {1, 1, 7}};
    } else {
        insert(7, [](ksBitWriter& w) { ksWriteBD(w, 2.0), ksWriteBD(w, -3.0), ksWriteBD(w, 4.0); }, false);
        insert(7, [](ksBitWriter& w) { ksWriteBD(w, 0.0), ksWriteBD(w, 1.0), ksWriteBD(w, 1.0); }, false);
        insert(7, [](ksBitWriter& w) { ksWriteBD(w, 1.0), ksWriteBD(w, 1.0), ksWriteBD(w, 1.0); }, false);
        insert(8, [](ksBitWriter& w) { ksWriteBD(w, 1e-13), ksWriteBD(w, -1e-13), ksWriteBD(w, 7.0); }, true);
        want = {{2, -3, 4}, {1, 1, 1}, {1, 1, 1}, {1, 1, 7}};
    }
    insert(7, [&](ksBitWriter& w) { r2000() ? ksWriteBits(w, 3, 2) : (ksWriteBD(w, 1), ksWriteBD(w, 1), ksWriteBD(w, 1)); }, false);
    ASSERT_TRUE(readAll());
    for (size_t i = 0; i < want.size(); ++i) {
        const ksInsertBody& b = body(i).insert;
        EXPECT_EQ(b.xScale, want[i].x) << i;
        EXPECT_EQ(b.yScale, want[i].y) << i;
        EXPECT_EQ(b.zScale, want[i].z) << i;
        EXPECT_EQ(b.rotation, 0.5);
        EXPECT_EQ(U(b.blockHandle), 0x20u);
    }
    const ksInsertBody& m = body(3).insert;
    EXPECT_EQ(m.columnCount, 1);
    EXPECT_EQ(m.rowCount, 1);
    EXPECT_EQ(m.columnSpacing, 4.0);
    EXPECT_EQ(m.rowSpacing, 5.0);
    EXPECT_EQ(m.hasAttributes, 1);
    // The last INSERT has no attributes and clears what the MINSERT left.
    EXPECT_TRUE(ksHandleIsNull(st->firstSub) && ksHandleIsNull(st->seqend));
}

TEST_P(ComplexBodies, PolylinesAndTheirVertices)
{
    auto polyline2d = [&](int16_t flags) {
        add(15, [&](ksBitWriter& w) {
            ksWriteBS(w, flags), ksWriteBS(w, 0), ksWriteBD(w, 1.5), ksWriteBD(w, 2.5);
            thickness(w), ksWriteBD(w, 4.0), extrusion(w);
        }, [](ksBitWriter& w) {
            ksWriteHandle(w, H(0x61), 0x30), ksWriteHandle(w, H(0x62), 0x30), ksWriteHandle(w, H(0x63), 0x30);
        });
    };
    auto vertex2d = [&](double start, double end) {
        add(10, [=](ksBitWriter& w) {
            ksWriteRC(w, 0), ksWrite3BD(w, {1, 2, 9}), ksWriteBD(w, start);
            if (start >= 0)
                ksWriteBD(w, end);
            ksWriteBD(w, 0.25), ksWriteBD(w, 0.75);
        });
    };
    polyline2d(0);
    vertex2d(-3.0, 0);   // both widths 3, no end width stored
    vertex2d(1.5, 2.5);  // the polyline's own widths
    polyline2d(8);       // widths dropped
    for (int curve : {3, 2, 0})
        add(16, [=](ksBitWriter& w) { ksWriteRC(w, uint8_t(curve)), ksWriteRC(w, 1); }, [](ksBitWriter& w) {
            for (int i = 0; i < 3; ++i)
                ksWriteHandle(w, H(0), 0x30);
        });
    add(14, [](ksBitWriter& w) { ksWriteBS(w, 1), ksWriteBS(w, 2), ksWriteBS(w, 3), ksWriteBS(w, 0); });
    ASSERT_TRUE(readAll());

    EXPECT_EQ(body(0).polyline.elevation, 4.0);
    const ksVertexBody& a = body(1).vertex;
    EXPECT_EQ(a.point.z, 4.0) << "the polyline's elevation";
    EXPECT_EQ(a.startWidth, 3.0);
    EXPECT_EQ(a.endWidth, 3.0);
    EXPECT_EQ(a.hasStartWidth + a.hasEndWidth, 2);
    EXPECT_EQ(a.bulge, 0.25);
    EXPECT_EQ(a.tangent, 0.75);
    const ksVertexBody& b = body(2).vertex;
    EXPECT_EQ(b.hasStartWidth + b.hasEndWidth, 0);
    EXPECT_EQ(b.startWidth, 1.5);
    EXPECT_EQ(body(3).polyline.startWidth + body(3).polyline.endWidth, 0.0);
    EXPECT_EQ(body(4).polyline.curveType, 5);
    EXPECT_EQ(body(4).polyline.flags, 1 | 4 | 8);
    EXPECT_EQ(body(5).polyline.curveType, 6);
    EXPECT_EQ(body(6).polyline.curveType, 0);
    EXPECT_EQ(body(6).polyline.flags, 1 | 8);
    const ksVertexBody& face = body(7).vertex;
    EXPECT_EQ(face.faceIndexCount, 3);
    EXPECT_EQ(face.faceIndices[2], 3);
    EXPECT_EQ(face.flags, 128);
}

TEST_P(ComplexBodies, DimensionTypeAndInsertionPoint)
{
    // The common block; `textAtDefault` is the flag bit.
    auto common = [&](ksBitWriter& w, bool textAtDefault, ksPoint2 insertion) {
        ksWrite3BD(w, {0, 0, 1}), ksWriteRD(w, 1), ksWriteRD(w, 2), ksWriteBD(w, 3);
        ksWriteBits(w, 0, 7), ksWriteBit(w, textAtDefault), ksWriteText(w, "<>");
        for (double v : {0.1, 0.2, 1.0, 1.0, 1.0, 0.3})
            ksWriteBD(w, v);
        if (r2000())
            ksWriteBS(w, 5), ksWriteBS(w, 1), ksWriteBD(w, 1.5), ksWriteBD(w, 9);
        ksWrite2RD(w, insertion);
    };
    auto handles = [](ksBitWriter& w) { ksWriteHandle(w, H(0x21), 0x50), ksWriteHandle(w, H(0x22), 0x50); };
    add(20, [&](ksBitWriter& w) {
        common(w, true, {0, 0});
        ksWrite3BD(w, {7, 0, 0}), ksWrite3BD(w, {0, 0, 0}), ksWrite3BD(w, {0, 0, 0}), ksWriteRC(w, 1);
    }, handles);
    add(21, [&](ksBitWriter& w) {
        common(w, false, {5, 0});
        ksWrite3BD(w, {1, 0, 0}), ksWrite3BD(w, {2, 0, 0}), ksWrite3BD(w, {8, 0, 0});
        ksWriteBD(w, 0.4), ksWriteBD(w, 0.6);
    }, handles);
    ASSERT_TRUE(readAll());
    const ksDimensionBody& ord = body(0).dimension;
    EXPECT_EQ(ord.dimensionType, 6 + 64);
    EXPECT_EQ(ord.hasInsertionPoint, 0);
    EXPECT_EQ(ord.definitionPoint.x, 7.0);
    EXPECT_STREQ(ord.text, "<>");
    EXPECT_EQ(ord.horizontal, 0.3);
    const ksDimensionBody& lin = body(1).dimension;
    EXPECT_EQ(uint8_t(lin.dimensionType), 128u);
    EXPECT_EQ(lin.hasInsertionPoint, 1);
    EXPECT_EQ(lin.insertionPoint.z, 3.0) << "the Z of the text midpoint";
    EXPECT_EQ(lin.definitionPoint.x, 8.0);
    EXPECT_EQ(lin.rotation, 0.6);
    EXPECT_EQ(U(lin.dimstyleHandle), 0x21u);
    EXPECT_EQ(U(lin.blockHandle), 0x22u);
}

TEST_P(ComplexBodies, MtextOfOneGroupOrMore)
{
    for (size_t n : {255, 256}) {
        add(44, [&](ksBitWriter& w) {
            ksWrite3BD(w, {0, 0, 0}), ksWrite3BD(w, {0, 0, 1}), ksWrite3BD(w, {1, 0, 0});
            for (double v : {10.0, 2.5})
                ksWriteBD(w, v);
            ksWriteBS(w, 1), ksWriteBS(w, 1), ksWriteBD(w, 0), ksWriteBD(w, 0);
            const std::string text(n, 'x');
            ksWriteBS(w, uint16_t(n)), ksWriteBytes(w, reinterpret_cast<const uint8_t*>(text.data()), n);
            if (r2000())
                ksWriteBS(w, 2), ksWriteBD(w, 1.5), ksWriteBit(w, 0);
        }, [](ksBitWriter& w) { ksWriteHandle(w, H(0x11), 0x50); });
    }
    ASSERT_TRUE(readAll());
    const ksMtextBody& shortText = body(0).mtext;
    EXPECT_EQ(std::string(shortText.text), std::string(255, 'x'));
    EXPECT_EQ(shortText.longText, 0u);
    const ksMtextBody& longText = body(1).mtext;
    EXPECT_EQ(longText.text[0], '\0');
    EXPECT_EQ(bytes(longText.longText), std::string(256, 'x'));
    EXPECT_EQ(longText.lineSpacingStyle, r2000() ? 2 : 1);
    EXPECT_EQ(longText.lineSpacing, r2000() ? 1.5 : 1.0);
    EXPECT_EQ(U(longText.styleHandle), 0x11u);
}

TEST_P(ComplexBodies, LeaderHookLine)
{
    const double degree = 3.14159265358979 / 180;
    auto leader = [&](int16_t creation, double angle) {
        add(45, [&](ksBitWriter& w) {
            ksWriteBit(w, 0), ksWriteBS(w, uint16_t(creation)), ksWriteBS(w, 0), ksWriteBL(w, 2);
            ksWrite3BD(w, {std::cos(angle) + 5, std::sin(angle) + 6, 0}), ksWrite3BD(w, {5, 6, 0});
            for (int i = 0; i < 4; ++i)
                ksWrite3BD(w, {0, 0, 1});
            if (st->version >= ksAC1014)
                ksWrite3BD(w, {0, 0, 0});
            if (!r2000())
                ksWriteBD(w, 0);
            ksWriteBD(w, 2.0), ksWriteBD(w, 3.0), ksWriteBit(w, 1), ksWriteBit(w, 0);
            if (r2000())
                ksWriteBS(w, 0), ksWriteBits(w, 0, 2);
            else
                ksWriteBS(w, 0), ksWriteBD(w, 0), ksWriteBits(w, 0, 2), ksWriteBS(w, 0), ksWriteBS(w, 3), ksWriteBits(w, 0, 2);
        }, [](ksBitWriter& w) { ksWriteHandle(w, H(0x23), 0x50), ksWriteHandle(w, H(0x24), 0x50); });
    };
    const struct { int16_t creation; double angle; int hook; } cases[] = {
        {0, 10, 0}, {0, 90, 1}, {1, 170, 0}, {1, -120, 1}, {0, 190, 0}, {0, 200, 1}, {2, 90, 0}, {3, 90, 0},
    };
    for (const auto& c : cases)
        leader(c.creation, c.angle * degree);
    ASSERT_TRUE(readAll());
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(body(i).leader.hookLine, cases[i].hook) << cases[i].angle << " creation " << cases[i].creation;
    const ksLeaderBody& b = body(0).leader;
    EXPECT_EQ(b.vertexCount, 2);
    EXPECT_EQ(reals(b.vertices).size(), 6u);
    EXPECT_EQ(b.textHeight + b.textWidth, 5.0);
    EXPECT_EQ(b.hookDirection, 1);
    EXPECT_EQ(b.color, r2000() ? 255 : 3);
    EXPECT_EQ(U(b.annotationHandle), 0x23u);
    EXPECT_EQ(U(b.dimstyleHandle), 0x24u);
}

TEST_P(ComplexBodies, SplineDataAndShape)
{
    auto controls = [&](const std::vector<ksPoint3>& points, bool weighted) {
        add(36, [=](ksBitWriter& w) {
            ksWriteBS(w, 1), ksWriteBS(w, 3), ksWriteBit(w, weighted), ksWriteBit(w, 0), ksWriteBit(w, 0);
            ksWriteBD(w, 1e-10), ksWriteBD(w, 1e-10), ksWriteBL(w, 2), ksWriteBL(w, uint32_t(points.size()));
            ksWriteBit(w, 0), ksWriteBD(w, 0.0), ksWriteBD(w, 1.0);
            for (const ksPoint3& p : points) {
                ksWrite3BD(w, p);
                if (weighted)
                    ksWriteBD(w, 0.5);
            }
        });
    };
    auto fits = [&](const std::vector<ksPoint3>& points) {
        add(36, [=](ksBitWriter& w) {
            ksWriteBS(w, 2), ksWriteBS(w, 3), ksWriteBD(w, 1e-10), ksWrite3BD(w, {1, 0, 0}), ksWrite3BD(w, {0, 1, 0});
            ksWriteBL(w, uint32_t(points.size()));
            for (const ksPoint3& p : points)
                ksWrite3BD(w, p);
        });
    };
    controls({{0, 0, 0}, {1, 1, 1}}, true);                                   // planar and linear
    controls({{0, 0, 0}, {1, 1, 0}, {2, 2, 0}, {3, 3, 0}}, false);             // linear
    controls({{1, 1, 1}, {1, 1, 1}, {1, 1, 1}}, false);                       // one point
    fits({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 0, 0}});                       // closed, planar
    fits({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {1, 1, 1}});                       // neither
    fits({{0, 0, 0}, {2, 0, 0}, {2, 4, 0}, {0, 4, 1e-13}});                   // planar within tolerance
    add(36, [](ksBitWriter& w) { ksWriteBS(w, 3), ksWriteBS(w, 3); });       // no data at all
    ASSERT_TRUE(readAll());
    const int16_t flags[] = {4 | 8 | 16, 8 | 16, 8 | 16, 1 | 8, 0, 8, 0};
    for (size_t i = 0; i < std::size(flags); ++i)
        EXPECT_EQ(body(i).spline.flags, flags[i]) << i;
    const ksSplineBody& weighted = body(0).spline;
    EXPECT_EQ(weighted.knotCount, 2);
    EXPECT_EQ(weighted.controlCount, 2);
    EXPECT_EQ(reals(weighted.data), (std::vector<double>{0, 1, 0, 0, 0, 0.5, 1, 1, 1, 0.5}));
    const ksSplineBody& fit = body(3).spline;
    EXPECT_EQ(fit.fitCount, 4);
    EXPECT_EQ(fit.startTangent.x, 1.0);
    EXPECT_EQ(reals(fit.data).size(), 12u);
    const ksSplineBody& none = body(6).spline;
    EXPECT_EQ(none.degree, 3);
    EXPECT_EQ(ksBlobSize(none.data), 0u);
}

TEST_P(ComplexBodies, SolidModelTextAndTail)
{
    // The coded text: '?' coded is 0x60, a tab stands for a blank, the line
    // feed stays. 13 bits follow it up to the handles.
    const char codedBytes[] = {'\x60', '\x09', char(159 - 'A'), '\n'};
    const std::string coded(codedBytes, sizeof codedBytes);
    add(38, [&](ksBitWriter& w) {
        ksWriteBS(w, 64), ksWriteBD(w, 1.0);
        ksWriteBL(w, uint32_t(coded.size())), ksWriteBytes(w, reinterpret_cast<const uint8_t*>(coded.data()), coded.size());
        ksWriteBL(w, 1), ksWriteRC(w, 159 - 'z'), ksWriteBL(w, 0);
        ksWriteRC(w, 0xA5), ksWriteBits(w, 0x1F, 5);
    });
    add(37, [](ksBitWriter& w) { ksWriteBS(w, 0), ksWriteBits(w, 0x5, 3); });
    ASSERT_TRUE(readAll());
    const ksModelerBody& solid = body(0).modeler;
    EXPECT_EQ(bytes(solid.satData), "? A\nz");
    // Flag byte, bit count, the bits packed from the top.
    const std::string tail = bytes(solid.modelerTail);
    ASSERT_EQ(tail.size(), 1u + 4 + 2);
    EXPECT_EQ(tail[0], 1);
    int32_t count = 0;
    std::memcpy(&count, tail.data() + 1, 4);
    // The stream is padded up to the handles: at least the bits written.
    EXPECT_GE(count, 13);
    EXPECT_EQ(uint8_t(tail[5]), 0xA5);
    EXPECT_EQ(uint8_t(tail[6]) >> 3, 0x1F);
    const ksModelerBody& region = body(1).modeler;
    EXPECT_EQ(region.satData, 0u);
    EXPECT_EQ(bytes(region.modelerTail).substr(0, 1), std::string(1, '\0'));
}

TEST_P(ComplexBodies, ViewportMlineAndTolerance)
{
    add(34, [&](ksBitWriter& w) {
        ksWrite3BD(w, {1, 2, 0}), ksWriteBD(w, 10), ksWriteBD(w, 20);
        if (!r2000())
            return;
        ksWrite3BD(w, {0, 0, 0}), ksWrite3BD(w, {0, 0, 1});
        for (double v : {0.0, 9.0, 50.0, 0.0, 0.0, 0.0})
            ksWriteBD(w, v);
        for (int i = 0; i < 4; ++i)
            ksWrite2RD(w, {0.5, 0.5});
        ksWriteBS(w, 100), ksWriteBL(w, 2), ksWriteBL(w, 7), ksWriteText(w, "");
        ksWriteRC(w, 0), ksWriteBit(w, 1), ksWriteBit(w, 0);
        ksWrite3BD(w, {0, 0, 0}), ksWrite3BD(w, {1, 0, 0}), ksWrite3BD(w, {0, 1, 0}), ksWriteBD(w, 0), ksWriteBS(w, 0);
    }, [&](ksBitWriter& w) {
        if (!r2000()) {
            ksWriteHandle(w, H(0x5), 0x50);
            return;
        }
        for (uint64_t h : {0x41, 0x42, 0x43, 0x44, 0x45, 0x46})
            ksWriteHandle(w, H(h), 0x50);
    });
    add(47, [](ksBitWriter& w) {
        ksWriteBD(w, 1.0), ksWriteRC(w, 1), ksWrite3BD(w, {0, 0, 0}), ksWrite3BD(w, {0, 0, 1});
        ksWriteBS(w, 0), ksWriteRC(w, 1), ksWriteBS(w, 1);
        ksWrite3BD(w, {1, 2, 3}), ksWrite3BD(w, {1, 0, 0}), ksWrite3BD(w, {0, 1, 0});
        ksWriteBS(w, 2), ksWriteBD(w, 0.0), ksWriteBD(w, 4.0), ksWriteBS(w, 0);
    }, [](ksBitWriter& w) { ksWriteHandle(w, H(0x25), 0x50); });
    add(46, [&](ksBitWriter& w) {
        if (!r2000())
            ksWriteBS(w, 0), ksWriteBD(w, 0.5), ksWriteBD(w, 0);
        ksWrite3BD(w, {3, 4, 0}), ksWrite3BD(w, {0, 1, 0}), ksWrite3BD(w, {0, 0, 1}), ksWriteText(w, "{\\Fgdt;j}");
    }, [](ksBitWriter& w) { ksWriteHandle(w, H(0x26), 0x50); });
    ASSERT_TRUE(readAll());
    const ksViewportBody& vp = body(0).viewport;
    EXPECT_EQ(vp.height, 20.0);
    if (r2000()) {
        EXPECT_EQ(vp.viewHeight, 9.0);
        EXPECT_EQ(vp.statusFlags, 7);
        EXPECT_EQ(vp.frozenLayerCount, 2);
        EXPECT_EQ(ksBlobSize(vp.frozenLayers), 2 * sizeof(ksObjHandle));
        EXPECT_EQ(U(vp.clipBoundaryHandle), 0x43u);
        EXPECT_EQ(U(vp.namedUcsHandle), 0x46u);
    }
    const ksMlineBody& ml = body(1).mline;
    EXPECT_EQ(ml.vertexCount, 1);
    EXPECT_EQ(ml.styleCount, 1);
    EXPECT_EQ(U(ml.styleHandle), 0x25u);
    // Three points, count 2, two reals, count 0.
    EXPECT_EQ(ksBlobSize(ml.data), 9 * 8 + 2 + 16 + 2u);
    const ksToleranceBody& tol = body(2).tolerance;
    EXPECT_EQ(tol.insertion.y, 4.0);
    EXPECT_STREQ(tol.text, "{\\Fgdt;j}");
    EXPECT_EQ(U(tol.dimstyleHandle), 0x26u);
}

// Counts that the object's bits cannot hold end the read instead of a
// loop or an allocation.
TEST_P(ComplexBodies, CountsBeyondTheObjectFail)
{
    const std::vector<Write> hostile = {
        [](ksBitWriter& w) {  // LEADER of 30000 vertices
            ksWriteBit(w, 0), ksWriteBS(w, 0), ksWriteBS(w, 0), ksWriteBL(w, 30000);
        },
        [](ksBitWriter& w) {  // SPLINE of a million knots
            ksWriteBS(w, 1), ksWriteBS(w, 3), ksWriteBits(w, 0, 3), ksWriteBD(w, 0), ksWriteBD(w, 0);
            ksWriteBL(w, 1000000), ksWriteBL(w, 0), ksWriteBit(w, 0);
        },
        [](ksBitWriter& w) {  // MLINE of -1 vertices
            ksWriteBD(w, 1), ksWriteRC(w, 0), ksWrite3BD(w, {}), ksWrite3BD(w, {0, 0, 1});
            ksWriteBS(w, 0), ksWriteRC(w, 1), ksWriteBS(w, 0xFFFF);
        },
        [](ksBitWriter& w) {  // a solid model's block longer than the object
            ksWriteBS(w, 64), ksWriteBD(w, 1), ksWriteBL(w, 0x7FFFFFF0);
        },
    };
    const int16_t types[] = {45, 36, 47, 38};
    for (size_t i = 0; i < hostile.size(); ++i)
        add(types[i], hostile[i]);
    ASSERT_TRUE(install());
    for (uint64_t h = 0x30; h < next; ++h)
        EXPECT_FALSE(readOne(h)) << std::hex << h;
}

INSTANTIATE_TEST_SUITE_P(Releases, ComplexBodies,
                         ::testing::Values(int16_t(ksAC1012), int16_t(ksAC1014), int16_t(ksAC1015)));

// ---- The corpus -----------------------------------------------------------

// The lines of a model text, the record name that begins each (in lower
// case; a line of numbers gives ""). Exporters write the numbers anew and
// may add a closing marker.
std::vector<std::string> modelWords(const std::string& text)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find_first_of("\r\n", start);
        end = end == std::string::npos ? text.size() : end;
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        if (line.empty() || line.starts_with("End-of-A"))
            continue;
        std::string word = std::isalpha(static_cast<unsigned char>(line[0])) ? line.substr(0, line.find(' ')) : "";
        for (char& c : word)
            c = char(std::tolower(static_cast<unsigned char>(c)));
        out.push_back(word);
    }
    return out;
}

using DwgSolidModels = DwgLoadTest;

// The solid models of the drawings hold the text of the DXF exports: line
// by line the same records (the exporters write the numbers anew).
TEST_F(DwgSolidModels, TextMatchesTheDxfExports)
{
    ZT_REQUIRE_CORPUS();
    int compared = 0;
    for (const DrawingPair& pair : drawingPairs()) {
        if (!pair.sameSave)
            continue;
        ASSERT_EQ(open(corpusDir() / pair.dwg, DwgPhases::tables), "") << pair.dwg;
        const DxfFile dxf(corpusDir() / pair.dxf);
        for (const char* section : {"ENTITIES", "BLOCKS"}) {
            for (const DxfRecord& r : dxf.section(section)) {
                if ((r.type != "3DSOLID" && r.type != "REGION" && r.type != "BODY") || !ksSeekHandle(fcb, H(r.handle())))
                    continue;
                const std::string where = std::string(pair.dwg).append(" ").append(r.text(5));
                ksDwgState& st = *ksDwg(fcb);
                st.current = H(r.handle()), st.secondPass = section[0] == 'B' || r.real(67) != 1;
                st.inBlock = 0, st.entitiesRead = 0;
                ksEntityHeader h;
                ksEntityBody b;
                int16_t ext = 0;
                ASSERT_EQ(ksDwgReadEntity(fcb, &h, &b, &ext), 1) << where;
                std::string exported;
                for (const DxfGroup& g : r.groups) {
                    if (g.code != 1 && g.code != 3)
                        continue;
                    for (unsigned char c : g.value)
                        exported += char(c >= 33 && c <= 126 ? 159 - c : c);
                    if (g.code == 1)
                        exported += "\n";
                }
                EXPECT_EQ(modelWords(bytes(b.modeler.satData)), modelWords(exported)) << where;
                EXPECT_EQ(bytes(b.modeler.modelerTail).substr(0, 1), std::string(1, '\1')) << where;
                ksEntityFreeBlobs(fcb, h, &b);
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 0);
}

}  // namespace
