// The entity records: setup, the layouts the store's cut relies on, and the
// DXF field tables.
#include "records/entity.h"

#include <gtest/gtest.h>

#include <bit>

#include <cstdio>
#include <cstring>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "store/btree.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "support/fixtures.h"

namespace {

bool isNull(const ksObjHandle& h) {
    static const ksObjHandle null{};
    return std::memcmp(&h, &null, sizeof h) == 0;
}

// One default value of a body, at its offset.
struct Value {
    size_t offset;
    char width;  // 'd' double, 'l' int32, 's' int16, 'b' int8
    double value;
};

void put(unsigned char* body, const Value& v) {
    unsigned char* at = body + v.offset;
    switch (v.width) {
        case 'd': { const double x = v.value; std::memcpy(at, &x, sizeof x); break; }
        case 'l': { const int32_t x = static_cast<int32_t>(v.value); std::memcpy(at, &x, sizeof x); break; }
        case 's': { const int16_t x = static_cast<int16_t>(v.value); std::memcpy(at, &x, sizeof x); break; }
        default: *at = static_cast<unsigned char>(static_cast<int8_t>(v.value)); break;
    }
}

struct DefaultCase {
    int16_t type;
    std::vector<Value> values;  // all else zero
};

#define D(R, field) offsetof(R, field), 'd'
const DefaultCase defaultCases[] = {
    {ksEntLine, {}},
    {ksEntSpline, {}},
    {ksEntBlock, {}},
    {ksEntVertex, {}},
    {ksEntMline, {}},
    {ksEntShape, {{D(ksShapeBody, widthFactor), 1.0}}},
    {ksEntText, {{D(ksTextBody, widthFactor), 1.0}}},
    {ksEntAttdef, {{D(ksAttdefBody, widthFactor), 1.0}}},
    {ksEntAttrib, {{D(ksAttribBody, widthFactor), 1.0}}},
    {ksEntInsert,
     {{D(ksInsertBody, xScale), 1.0}, {D(ksInsertBody, yScale), 1.0}, {D(ksInsertBody, zScale), 1.0},
      {offsetof(ksInsertBody, rowCount), 's', 1}, {offsetof(ksInsertBody, columnCount), 's', 1}}},
    {ksEntViewport,
     {{offsetof(ksViewportBody, active), 's', 1}, {offsetof(ksViewportBody, statusFlags), 'l', 32800},
      {offsetof(ksViewportBody, ucsIcon), 's', 1}, {D(ksViewportBody, ucsXAxis.x), 1.0},
      {D(ksViewportBody, ucsYAxis.y), 1.0}, {D(ksViewportBody, lensLength), 50.0},
      {offsetof(ksViewportBody, circleZoom), 's', 100}, {D(ksViewportBody, snapSpacing.x), 0.5},
      {D(ksViewportBody, snapSpacing.y), 0.5}, {D(ksViewportBody, gridSpacing.x), 0.5},
      {D(ksViewportBody, gridSpacing.y), 0.5}}},
    {ksEntMtext, {{D(ksMtextBody, direction.x), 1.0}}},
    // The R2000 text frame that older files don't hold; the factor is the
    // one R2000 itself writes, a hair below 5/3.
    {ksEntDimension,
     {{offsetof(ksDimensionBody, attachment), 's', 5}, {offsetof(ksDimensionBody, lineSpacingStyle), 's', 1},
      {D(ksDimensionBody, lineSpacingFactor), std::bit_cast<double>(uint64_t{0x3FFAAAAA98C55E44})}}},
    {ksEntLeader,
     {{offsetof(ksLeaderBody, arrowFlag), 'b', 1}, {offsetof(ksLeaderBody, creationFlag), 's', 3},
      {D(ksLeaderBody, horizontalDirection.x), 1.0}}},
    {ksEntTolerance, {{D(ksToleranceBody, direction.x), 1.0}}},
};
#undef D

TEST(EntityDefaults, BodiesTakeTheirTypesValuesAndNothingBeyond) {
    for (const DefaultCase& c : defaultCases) {
        const size_t size = ksEntityBodySize(c.type);
        ASSERT_GT(size, 0u) << c.type;
        ksEntityBody body;
        std::memset(&body, 0xA5, sizeof body);
        ksEntityDefaults(nullptr, &body, c.type);

        ksEntityBody expected;
        std::memset(&expected, 0xA5, sizeof expected);
        std::memset(&expected, 0, size);
        for (const Value& v : c.values) put(expected.bytes, v);
        EXPECT_EQ(std::memcmp(&body, &expected, sizeof body), 0) << ksEntityNames[c.type];
    }
}

TEST(EntityDefaults, TypesWithoutBodyLeaveTheBufferAlone) {
    const int16_t types[] = {ksEntEndblk, ksEntSeqend, 18, ksEntProxy, ksEntClassBase + 3};
    for (int16_t type : types) {
        unsigned char body[64];
        std::memset(body, 0xA5, sizeof body);
        ksEntityHeader header;
        ksEntityDefaults(&header, body, type);
        EXPECT_EQ(header.type, type);
        for (unsigned char b : body) ASSERT_EQ(b, 0xA5) << type;
    }
}

TEST(EntityDefaults, HeaderTakesTheCommonDefaults) {
    ksEntityHeader h;
    std::memset(&h, 0xA5, sizeof h);
    ksEntityDefaults(&h, nullptr, ksEntCircle);
    EXPECT_EQ(std::tuple(h.type, h.color, h.lineweight, h.flags, h.userData, h.reactorCount, h.eed, h.reactors),
              std::tuple(ksEntCircle, 256, -1, 0, 0, 0, 0u, 0u));
    EXPECT_EQ(std::tuple(h.thickness, h.linetypeScale, h.extrusion.x, h.extrusion.y, h.extrusion.z),
              std::tuple(0.0, 1.0, 0.0, 0.0, 1.0));
    for (const ksObjHandle* handle : {&h.handle, &h.layerHandle, &h.linetypeHandle, &h.xdictHandle})
        EXPECT_TRUE(isNull(*handle));
}

using EntityDrawing = zt::DrawingTest;

TEST_F(EntityDrawing, DrawingGivesFirstLayerAndBylayer) {
    for (uint64_t handle : {0x10u, 0x11u}) {
        ksLayer layer;
        ksLayerDefaults(fcb, &layer);
        std::snprintf(layer.name, sizeof layer.name, "L%u", static_cast<unsigned>(handle));
        layer.entryHandle = ksHandleFromU64(handle);
        ASSERT_EQ(ksLayerAdd(fcb, &layer), 1);
    }
    fcb->byLayerHandle = ksHandleFromU64(0x14);

    ksEntityHeader h;
    ksInsertBody body;
    h.type = ksEntInsert;
    ksEntityDefaults(fcb, &h, &body);
    EXPECT_EQ(std::tuple(ksHandleToU64(h.layerHandle), ksHandleToU64(h.linetypeHandle), body.rowCount, h.color),
              std::tuple(0x10u, 0x14u, 1, 256));
}

// The store keeps the first `kept` bytes of a body (plus the closing texts).
// fixedEnd is where the fields it must keep end: the closing text's offset,
// or the record's size.
struct Kept {
    int16_t type;
    size_t kept;
    size_t fixedEnd;
    size_t recordSize;
};

#define WHOLE(type, kept, R) {type, kept, sizeof(R), sizeof(R)}
#define TO_TEXT(type, kept, R, text) {type, kept, offsetof(R, text), sizeof(R)}
const Kept keptSizes[] = {
    WHOLE(ksEntLine, 48, ksLineBody),         WHOLE(ksEnt3dLine, 48, ksLineBody),
    WHOLE(ksEntPoint, 32, ksPointBody),       WHOLE(ksEntCircle, 32, ksCircleBody),
    WHOLE(ksEntShape, 72, ksShapeBody),       WHOLE(ksEntEllipse, 72, ksEllipseBody),
    WHOLE(ksEntSpline, 96, ksSplineBody),     TO_TEXT(ksEntText, 88, ksTextBody, text),
    WHOLE(ksEntArc, 48, ksArcBody),           WHOLE(ksEntTrace, 96, ksTraceBody),
    WHOLE(ksEntRegion, 40, ksModelerBody),    WHOLE(ksEntSolid, 96, ksTraceBody),
    WHOLE(ksEntBlock, 1048, ksBlockBody),     WHOLE(ksEntInsert, 96, ksInsertBody),
    TO_TEXT(ksEntAttdef, 96, ksAttdefBody, prompt), TO_TEXT(ksEntAttrib, 96, ksAttribBody, tag),
    WHOLE(ksEntPolyline, 40, ksPolylineBody), WHOLE(ksEntVertex, 88, ksVertexBody),
    WHOLE(ksEnt3dFace, 104, ks3dFaceBody),    TO_TEXT(ksEntDimension, 304, ksDimensionBody, text),
    TO_TEXT(ksEntViewport, 880, ksViewportBody, name), WHOLE(ksEnt3dSolid, 40, ksModelerBody),
    WHOLE(ksEntRay, 48, ksRayBody),           WHOLE(ksEntXline, 48, ksRayBody),
    TO_TEXT(ksEntMtext, 144, ksMtextBody, text), WHOLE(ksEntLeader, 128, ksLeaderBody),
    TO_TEXT(ksEntTolerance, 64, ksToleranceBody, text), WHOLE(ksEntMline, 56, ksMlineBody),
    WHOLE(ksEntBody, 40, ksModelerBody),
};
#undef TO_TEXT
#undef WHOLE

// Where the kept size reaches past the fields: into the closing field, or
// (the solid models) past the record, never past a ksEntityBody.
const std::set<int> keptBeyondFields = {ksEntRegion, ksEnt3dSolid, ksEntBody, ksEntDimension,
                                        ksEntViewport, ksEntMtext, ksEntTolerance};

TEST(EntityLayout, KeptBytesHoldTheFieldsTheStoreKeeps) {
    std::set<int> listed;
    for (const Kept& k : keptSizes) {
        listed.insert(k.type);
        const char* name = ksEntityNames[k.type];
        EXPECT_EQ(ksEntityBodySize(k.type), k.recordSize) << name;
        EXPECT_LE(k.kept, sizeof(ksEntityBody)) << name;
        if (keptBeyondFields.count(k.type)) {
            EXPECT_LT(k.fixedEnd, k.kept) << name;
        } else {
            EXPECT_EQ(k.fixedEnd, k.kept) << name;
        }
    }
    for (int t = 0; t < ksEntityFixedCount; ++t) {
        EXPECT_EQ(ksEntityBodySize(t) != 0, listed.count(t) == 1) << t;
    }
}

TEST(EntityLayout, ClosingTextsAndTheVertexCut) {
    // A closing text is the last field, padding aside.
    auto last = [](size_t offset, size_t width, size_t size) { return offset + width <= size && size < offset + width + 8; };
    EXPECT_TRUE(last(offsetof(ksTextBody, text), ksEntityTextSize, sizeof(ksTextBody)));
    EXPECT_TRUE(last(offsetof(ksDimensionBody, text), ksEntityNameSize, sizeof(ksDimensionBody)));
    EXPECT_TRUE(last(offsetof(ksMtextBody, text), ksEntityNameSize, sizeof(ksMtextBody)));
    EXPECT_TRUE(last(offsetof(ksToleranceBody, text), ksEntityNameSize, sizeof(ksToleranceBody)));
    EXPECT_TRUE(last(offsetof(ksViewportBody, name), ksEntityNameSize, sizeof(ksViewportBody)));
    // The attribute texts follow one another in their order.
    EXPECT_EQ(offsetof(ksAttdefBody, tag), offsetof(ksAttdefBody, prompt) + ksAttributeTextSize);
    EXPECT_EQ(offsetof(ksAttdefBody, defaultValue), offsetof(ksAttdefBody, tag) + ksAttributeTextSize);
    EXPECT_TRUE(last(offsetof(ksAttdefBody, defaultValue), ksAttributeTextSize, sizeof(ksAttdefBody)));
    EXPECT_EQ(offsetof(ksAttribBody, value), offsetof(ksAttribBody, tag) + ksAttributeTextSize);
    EXPECT_EQ(sizeof(ksAttribBody), sizeof(ksEntityBody));
    // 16 bytes keep X and Y; 32 the point and the flags, with nothing else.
    EXPECT_EQ(offsetof(ksVertexBody, point.z), size_t{ksVertexCutXY});
    EXPECT_LE(offsetof(ksVertexBody, flags) + sizeof(int16_t), size_t{ksVertexCutPoint});
    EXPECT_EQ(offsetof(ksVertexBody, startWidth), size_t{ksVertexCutPoint});
}

// Read versions of a row, as a bit set.
unsigned readVersions(const ksEntityField& r) {
    if (r.flags & ksEfNoRead) return 0;
    if (r.flags & ksEfWriteVersions) return 0xFF;
    unsigned bits = 0;
    for (int v = r.minVersion; v <= r.maxVersion; ++v) bits |= 1u << v;
    return bits;
}

TEST(EntityFields, EveryBodyHasRowsThatFitTheirFields) {
    std::vector<const ksEntityFieldSet*> sets = {&ksEntityHeaderFields};
    for (int t = 0; t < ksEntityFixedCount; ++t) {
        const ksEntityFieldSet& set = ksEntityFieldTable[t];
        const size_t size = t == ksEntProxyRows ? sizeof(ksProxyEntity) : ksEntityBodySize(t);
        EXPECT_EQ(set.rows != nullptr, size != 0) << t;
        if (set.rows == nullptr) continue;
        EXPECT_EQ(set.recordSize, size) << t;
        sets.push_back(&set);
    }
    EXPECT_EQ(ksEntityHeaderFields.recordSize, sizeof(ksEntityHeader));
    for (const ksEntityFieldSet* set : sets) {
        for (const ksEntityField& r : std::vector<ksEntityField>(set->rows, set->rows + set->count)) {
            const size_t unit = ksEntityFieldElementWidth(r.kind);
            SCOPED_TRACE(testing::Message() << "group " << r.group << " at " << r.offset);
            EXPECT_LE(r.offset + r.width, set->recordSize);
            switch (r.kind) {
                case ksEfText: case ksEfCodedText: case ksEfName: EXPECT_GE(r.width, 2); break;
                case ksEfShort: case ksEfReal: case ksEfLong:
                    EXPECT_LE((r.index + 1) * unit, r.width);
                    EXPECT_EQ(r.width % unit, 0u);
                    break;
                default: EXPECT_EQ(r.width, unit);
            }
            if (r.note != ksEfNoNote) {
                EXPECT_LE(r.note + (r.flags & ksEfListCount ? 4u : 2u), set->recordSize);
            }
            EXPECT_NE(readVersions(r) | (r.flags & ksEfNoWrite ? 0 : 1), 0u);
        }
    }
}

// Groups that a record has twice: each row has its own condition.
const std::set<std::pair<int, int>> knownRepeats = {{ksEntMtext, 1}};

TEST(EntityFields, GroupsRepeatOnlyWhereTheRecordsSayTheyDo) {
    std::set<std::pair<int, int>> repeats;
    const ksEntityFieldSet& common = ksEntityHeaderFields;
    auto clash = [](const ksEntityField& a, const ksEntityField& b) {
        return a.group == b.group && (readVersions(a) & readVersions(b)) != 0;
    };
    auto cond = [](const ksEntityField& r) { return r.flags & ksEfConditions; };
    for (int t = 0; t < ksEntityFixedCount; ++t) {
        const ksEntityFieldSet& set = ksEntityFieldTable[t];
        for (size_t i = 0; i < set.count; ++i) {
            for (size_t j = i + 1; j < set.count; ++j) {
                if (!clash(set.rows[i], set.rows[j])) continue;
                EXPECT_NE(cond(set.rows[i]), cond(set.rows[j])) << ksEntityNames[t] << " " << set.rows[i].group;
                repeats.insert({t, set.rows[i].group});
            }
            for (size_t j = 0; j < common.count; ++j) {
                EXPECT_FALSE(clash(set.rows[i], common.rows[j]) && cond(set.rows[i]) == cond(common.rows[j]))
                    << ksEntityNames[t] << " hides common group " << common.rows[j].group;
            }
        }
    }
    EXPECT_EQ(repeats, knownRepeats);
}

// A lookup and the row it must give; offset npos: no row.
struct Probe {
    int type;  // -1: the common rows
    int group;
    int version;
    uint16_t condition;
    size_t offset;
    ksEntityFieldKind kind;
    int index;
    uint16_t flags;  // flags the row must have
    size_t note;
};

constexpr size_t none = static_cast<size_t>(-1);
constexpr uint16_t run = ksEfInRun;
#define AT(R, field) offsetof(R, field)

const Probe probes[] = {
    {ksEntLine, 21, 4, 0, AT(ksLineBody, end), ksEfReal, 1, 0, ksEfNoNote},
    {ksEnt3dLine, 30, 0, 0, AT(ksLineBody, start), ksEfReal, 2, 0, ksEfNoNote},
    {ksEntArc, 51, 5, 0, AT(ksArcBody, endAngle), ksEfAngle, 0, 0, ksEfNoNote},
    {ksEntShape, 2, 5, 0, none, ksEfByte, 0, 0, 0},
    {ksEntText, 1, 6, 0, AT(ksTextBody, text), ksEfCodedText, 0, 0, ksEfNoNote},
    {ksEntText, 7, 6, 0, AT(ksTextBody, styleHandle), ksEfNameRef, ksTableStyle, 0, ksEfNoNote},
    {ksEntText, 31, 6, 0, none, ksEfByte, 0, 0, 0},
    {ksEntText, 73, -3, 0, AT(ksTextBody, verticalAlign), ksEfByte, 0, ksEfWriteVersions, ksEfNoNote},
    {ksEntAttrib, 74, 4, 0, AT(ksAttribBody, verticalAlign), ksEfByte, 0, 0, ksEfNoNote},
    {ksEntAttdef, 3, 4, 0, AT(ksAttdefBody, prompt), ksEfText, 0, 0, ksEfNoNote},
    {ksEntInsert, 70, 2, 0, AT(ksInsertBody, columnCount), ksEfShort, 0, 0, ksEfNoNote},
    {ksEntInsert, 2, 2, 0, AT(ksInsertBody, blockHandle), ksEfNameRef, ksTableBlock, 0, ksEfNoNote},
    {ksEntVertex, 40, 6, 0, AT(ksVertexBody, startWidth), ksEfReal, 0, ksEfPresence, AT(ksVertexBody, hasStartWidth)},
    {ksEntVertex, 73, 6, 0, AT(ksVertexBody, faceIndices), ksEfShort, 2, ksEfCounted, AT(ksVertexBody, faceIndexCount)},
    {ksEntDimension, 32, 5, 0, AT(ksDimensionBody, insertionPoint), ksEfReal, 2, ksEfPresence,
     AT(ksDimensionBody, hasInsertionPoint)},
    {ksEntDimension, 3, 1, 0, AT(ksDimensionBody, dimstyleHandle), ksEfNameRef, ksTableDimstyle, 0, ksEfNoNote},
    {ksEnt3dFace, 70, 2, 0, AT(ks3dFaceBody, invisibleEdges), ksEfShort, 0, ksEfLowByteOut, ksEfNoNote},
    {ksEntViewport, 12, 6, 0, none, ksEfByte, 0, 0, 0},
    {ksEntViewport, 22, 7, 0, AT(ksViewportBody, viewCenter), ksEfReal, 1, 0, ksEfNoNote},
    {ksEntViewport, 12, 12, 0, AT(ksViewportBody, viewCenter), ksEfReal, 0, 0, ksEfNoNote},
    {ksEntViewport, 341, 7, 0, AT(ksViewportBody, frozenLayers), ksEfHandleList, 0, ksEfListCount,
     AT(ksViewportBody, frozenLayerCount)},
    {ksEntViewport, 2, 4, 0, AT(ksViewportBody, name), ksEfText, 0, ksEfNoWrite, ksEfNoNote},
    {ksEntMtext, 1, 5, 0, AT(ksMtextBody, text), ksEfCodedText, 0, 0, ksEfNoNote},
    {ksEntMtext, 1, 5, run, AT(ksMtextBody, longText), ksEfTextChunk, 0, ksEfInRun, ksEfNoNote},
    {ksEntMtext, 3, 5, 0, AT(ksMtextBody, longText), ksEfTextChunk, 0, 0, ksEfNoNote},
    {ksEntSpline, 41, 5, 0, none, ksEfByte, 0, 0, 0},
    {ksEntSpline, 41, 5, run, AT(ksSplineBody, data), ksEfRealList, 1, ksEfInRun, ksEfNoNote},
    {ksEntMline, 12, 5, 0, none, ksEfByte, 0, 0, 0},
    {ksEntMline, 75, 5, run, AT(ksMlineBody, data), ksEfShortList, 1, ksEfInRun, ksEfNoNote},
    {ksEntMline, 2, 5, 0, AT(ksMlineBody, styleHandle), ksEfNameRef, ksTableMlinestyle, 0, ksEfNoNote},
    {ksEntLeader, 231, 5, 0, AT(ksLeaderBody, horizontalDirection), ksEfReal, 2, 0, ksEfNoNote},
    {ksEntBody, 3, 5, 0, AT(ksModelerBody, satData), ksEfModelText, 0, 0, ksEfNoNote},
    {ksEntRegion, 1, 5, 0, AT(ksModelerBody, satData), ksEfModelText, 1, 0, ksEfNoNote},
    {ksEntClassBase + 2, 10, 7, 0, none, ksEfByte, 0, 0, 0},
    {ksEntClassBase + 2, 93, 7, 0, offsetof(ksProxyEntity, dataBitLength), ksEfLong, 0, 0, ksEfNoNote},
    {ksEntProxy, 91, 5, 0, offsetof(ksProxyEntity, applicationClass), ksEfShort, 0, 0, ksEfNoNote},
    {18, 10, 7, 0, none, ksEfByte, 0, 0, 0},
    {-1, 330, 6, 0, none, ksEfByte, 0, 0, 0},
    {-1, 330, 6, ksEfInBrackets, AT(ksEntityHeader, reactors), ksEfHandleList, 0, ksEfListCount,
     AT(ksEntityHeader, reactorCount)},
    {-1, 370, 4, 0, AT(ksEntityHeader, lineweight), ksEfShort, 0, ksEfWriteVersions, ksEfNoNote},
    {-1, 60, 0, 0, AT(ksEntityHeader, flags), ksEfBit, ksEntityInvisible, 0, ksEfNoNote},
    {-1, 67, 0, 0, AT(ksEntityHeader, flags), ksEfBit, ksEntityPaperSpace, 0, ksEfNoNote},
    {-1, 220, 3, 0, AT(ksEntityHeader, extrusion), ksEfReal, 1, ksEfExtrusion, ksEfNoNote},
    {-1, 8, 0, 0, AT(ksEntityHeader, layerHandle), ksEfNameRef, ksTableLayer, 0, ksEfNoNote},
};
#undef AT

TEST(EntityFields, LookupFollowsVersionsAndConditions) {
    for (const Probe& p : probes) {
        const ksEntityField* r = p.type < 0 ? ksEntityHeaderFieldFind(p.group, p.version, p.condition)
                                            : ksEntityFieldFind(p.type, p.group, p.version, p.condition);
        SCOPED_TRACE(testing::Message() << "type " << p.type << " group " << p.group << " version " << p.version);
        if (p.offset == none) {
            EXPECT_EQ(r, nullptr);
            continue;
        }
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->offset, p.offset);
        EXPECT_EQ(r->kind, p.kind);
        EXPECT_EQ(r->index, p.index);
        EXPECT_EQ(r->flags & p.flags, p.flags);
        EXPECT_EQ(r->note, p.note);
    }
}

const ksEntityField& rowOf(int type, int group, uint16_t flags) {
    const ksEntityFieldSet& set = type < 0 ? ksEntityHeaderFields : ksEntityFieldTable[type];
    for (size_t i = 0; i < set.count; ++i) {
        if (set.rows[i].group == group && (set.rows[i].flags & flags) == flags) return set.rows[i];
    }
    ADD_FAILURE() << "no row " << group << " in " << type;
    return set.rows[0];
}

TEST(EntityFields, WritingHasItsOwnVersions) {
    struct Case {
        int type, group;
        uint16_t flags;
        int firstWritten;  // 8: never
    };
    const Case cases[] = {
        {ksEntText, 73, 0, 4},        {ksEntText, 31, ksEfNoRead, 3},     {ksEntAttdef, 31, ksEfNoRead, 3},
        {ksEnt3dFace, 70, 0, 3},      {ksEntPolyline, 71, 0, 3},          {ksEntVertex, 74, 0, 4},
        {ksEntBlock, 30, 0, 4},       {ksEntBlock, 1, 0, 4},              {ksEntDimension, 31, 0, 3},
        {ksEntDimension, 53, 0, 4},   {ksEntViewport, 12, 0, 7},          {ksEntViewport, 68, 0, 0},
        {ksEntViewport, 2, 0, 8},     {ksEntMtext, 44, 0, 8},             {ksEntMtext, 73, 0, 8},
        {-1, 370, 0, 7},              {-1, 60, 0, 5},                     {-1, 330, 0, 6},
        {-1, 5, 0, 3},                {-1, 62, 0, 0},
    };
    for (const Case& c : cases) {
        const ksEntityField& r = rowOf(c.type, c.group, c.flags);
        for (int v = 0; v < ksVersionCount; ++v) {
            EXPECT_EQ(ksEntityFieldWritten(r, v), v >= c.firstWritten) << c.type << "/" << c.group << " v" << v;
        }
    }
}

TEST(EntityFields, AddressNamesTheElement) {
    ksEntityBody body;
    const ksEntityField* face = ksEntityFieldFind(ksEntVertex, 74, 7);
    const ksEntityField* endZ = ksEntityFieldFind(ksEntLine, 31, 7);
    const ksEntityField* chunk = ksEntityFieldFind(ksEntMtext, 3, 7);
    ASSERT_TRUE(face && endZ && chunk);
    EXPECT_EQ(ksEntityFieldAddress(&body, *face), &body.vertex.faceIndices[3]);
    EXPECT_EQ(ksEntityFieldAddress(&body, *endZ), &body.line.end.z);
    EXPECT_EQ(ksEntityFieldAddress(&body, *chunk), &body.mtext.longText);
}

}  // namespace
