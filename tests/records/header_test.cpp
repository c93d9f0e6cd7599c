// The header record: its default image, the DXF variable tables and the
// stores made through them.
#include "records/header.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string>

namespace {

// A header full of garbage, then set to defaults: whatever the image does
// not cover would show up as 0xA5 bytes.
ksHeader defaultsOverGarbage() {
    ksHeader h;
    std::memset(&h, 0xA5, sizeof h);
    ksHeaderSetDefaults(&h);
    return h;
}

const ksHeaderVar& var(const char* name) {
    const ksHeaderVar* v = ksHeaderVarFind(name);
    if (v == nullptr) throw std::runtime_error(std::string("no header variable ") + name);
    return *v;
}

bool isZero(const void* p, size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) {
        if (b[i] != 0) return false;
    }
    return true;
}

TEST(HeaderDefaults, RealsAndShortsOfTheImage) {
    const ksHeader h = defaultsOverGarbage();
    const struct {
        const char* what;
        double actual;
        double expected;
    } reals[] = {
        {"DIMSCALE", h.DIMSCALE, 1.0},    {"LTSCALE", h.LTSCALE, 1.0},
        {"TEXTSIZE", h.TEXTSIZE, 0.2},    {"VIEWSIZE", h.VIEWSIZE, 9.158369},
        {"DIMALTF", h.DIMALTF, 25.4},     {"DIMEXO", h.DIMEXO, 0.0625},
        {"DIMGAP", h.DIMGAP, 0.09},       {"LENSLENGTH", h.LENSLENGTH, 50.0},
        {"TRACEWID", h.TRACEWID, 0.05},   {"VIEWCTR.x", h.VIEWCTR.x, 6.591288},
        {"VIEWCTR.y", h.VIEWCTR.y, 4.579184}, {"VIEWDIR.z", h.VIEWDIR.z, 1.0},
        {"UCSXDIR.x", h.UCSXDIR.x, 1.0},  {"PUCSYDIR.y", h.PUCSYDIR.y, 1.0},
        {"dwgHeaderReals[0]", h.dwgHeaderReals[0], 412148564080.0},
        {"dwgHeaderReals[3]", h.dwgHeaderReals[3], 1.0},
    };
    for (const auto& r : reals) EXPECT_EQ(r.actual, r.expected) << r.what;

    const struct {
        const char* what;
        int actual;
        int expected;
    } ints[] = {
        {"MAXACTVP", h.MAXACTVP, 16},      {"SPLINESEGS", h.SPLINESEGS, 8},
        {"SPLINETYPE", h.SPLINETYPE, 6},   {"SURFTAB1", h.SURFTAB1, 6},
        {"CECOLOR", h.CECOLOR, 256},       {"TREEDEPTH", h.TREEDEPTH, 3020},
        {"DWGCODEPAGE", h.DWGCODEPAGE, 12}, {"DIMATFIT", h.DIMATFIT, 3},
        {"DIMLUNIT", h.DIMLUNIT, 2},       {"SHADEDIF", h.SHADEDIF, 70},
        {"CYCLEKEEP", h.CYCLEKEEP, 5},     {"DIMTOLJ", h.DIMTOLJ, 1},
        {"XEDIT", h.XEDIT, 1},             {"PROXYGRAPHICS", h.PROXYGRAPHICS, 0},
        {"dwgHeaderLong1", h.dwgHeaderLong1, 24},
    };
    for (const auto& i : ints) EXPECT_EQ(i.actual, i.expected) << i.what;
}

TEST(HeaderDefaults, InvertedExtentsTextsAndEmptyFields) {
    const ksHeader h = defaultsOverGarbage();
    for (const ksPoint3* p : {&h.EXTMIN, &h.PEXTMIN}) {
        EXPECT_EQ(p->x, 1e20);
        EXPECT_EQ(p->y, 1e20);
        EXPECT_EQ(p->z, 1e20);
    }
    for (const ksPoint3* p : {&h.EXTMAX, &h.PEXTMAX}) {
        EXPECT_EQ(p->x, -1e20);
        EXPECT_EQ(p->y, -1e20);
        EXPECT_EQ(p->z, -1e20);
    }
    EXPECT_EQ(h.PLIMMAX.x, 12.0);
    EXPECT_EQ(h.PLIMMAX.y, 9.0);
    EXPECT_EQ(h.SNAPUNIT.y, 1.0);
    EXPECT_STREQ(h.ACADVER, "AC1012");
    EXPECT_STREQ(h.MENU, "acad");
    // The image reaches the last byte of long fields and the record's end.
    EXPECT_TRUE(isZero(h.MENU + 4, sizeof h.MENU - 4));
    EXPECT_TRUE(isZero(h.DIMBLK, sizeof h.DIMBLK));
    EXPECT_TRUE(isZero(h.dwgHeaderTexts, sizeof h.dwgHeaderTexts));
    EXPECT_TRUE(isZero(&h.HANDSEED, sizeof h.HANDSEED));
    EXPECT_TRUE(isZero(&h.PUCSBASE, sizeof h.PUCSBASE));
    EXPECT_EQ(h.dwgHeaderShort, 0);
    EXPECT_EQ(h.USERR[4], 0.0);
}

TEST(HeaderVarTable, SortedUniqueAndComplete) {
    ASSERT_EQ(std::size(ksHeaderVarTable), 213u);
    for (size_t i = 1; i < std::size(ksHeaderVarTable); ++i) {
        EXPECT_LT(std::strcmp(ksHeaderVarTable[i - 1].name, ksHeaderVarTable[i].name), 0)
            << ksHeaderVarTable[i - 1].name << " / " << ksHeaderVarTable[i].name;
    }
    for (const ksHeaderVar& v : ksHeaderVarTable) {
        const std::string name = v.name;
        std::string lower = name;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        EXPECT_EQ(ksHeaderVarFind(name), &v) << name;
        EXPECT_EQ(ksHeaderVarFind("$" + name), &v) << name;
        EXPECT_EQ(ksHeaderVarFind("$" + lower), &v) << name;
        EXPECT_EQ(ksHeaderNameFind(name), nullptr) << name;
    }
}

TEST(HeaderVarTable, RejectsNearMissesAndFieldsWithoutDxfName) {
    for (const char* name : {"", "$", "$$ACADVER", "DIMBL", "DIMBLK3", "ACADVERX", "USERI0", "USERI6",
                             "USERI", "BACKZ", "STYLESHEET", "CYCLECURR", "ucsNameText",
                             "dimblkHandle", "ENDSEC"}) {
        EXPECT_EQ(ksHeaderVarFind(name), nullptr) << name;
    }
}

TEST(HeaderVarTable, EntriesStayInsideTheRecordAndDoNotOverlap) {
    for (const ksHeaderVar& v : ksHeaderVarTable) {
        EXPECT_LE(v.offset + v.width, sizeof(ksHeader)) << v.name;
        if (v.kind == ksHvText) {
            EXPECT_LE(v.size, v.width) << v.name;
        }
    }
    // Two entries touch either the same field or disjoint bytes.
    for (const ksHeaderVar& a : ksHeaderVarTable) {
        for (const ksHeaderVar& b : ksHeaderVarTable) {
            if (a.offset == b.offset) {
                EXPECT_EQ(a.width, b.width) << a.name << " / " << b.name;
            } else {
                EXPECT_TRUE(a.offset + a.width <= b.offset || b.offset + b.width <= a.offset)
                    << a.name << " overlaps " << b.name;
            }
        }
    }
}

TEST(HeaderVarTable, EntriesNameTheirFields) {
    const struct {
        const char* name;
        size_t offset;
        ksHeaderKind kind;
    } cases[] = {
        {"ACADVER", offsetof(ksHeader, ACADVER), ksHvText},
        {"HANDSEED", offsetof(ksHeader, HANDSEED), ksHvHandle},
        {"DWGCODEPAGE", offsetof(ksHeader, DWGCODEPAGE), ksHvCodePage},
        {"TDUPDATE", offsetof(ksHeader, TDUPDATE), ksHvDate},
        {"TDUUPDATE", offsetof(ksHeader, TDUUPDATE), ksHvDate},
        {"VIEWTWIST", offsetof(ksHeader, VIEWTWIST), ksHvReal},
        {"VISRETAIN", offsetof(ksHeader, VISRETAIN), ksHvShort},
        {"VIEWDIR", offsetof(ksHeader, VIEWDIR), ksHvPoint3},
        {"AXISUNIT", offsetof(ksHeader, AXISUNIT), ksHvPoint2},
        {"DIMTAD", offsetof(ksHeader, DIMTAD), ksHvByte},
        {"DIMATFIT", offsetof(ksHeader, DIMATFIT), ksHvShort},
        {"DIMFIT", offsetof(ksHeader, DIMATFIT), ksHvLowByte},
        {"DIMLUNIT", offsetof(ksHeader, DIMLUNIT), ksHvShort},
        {"DIMUNIT", offsetof(ksHeader, DIMLUNIT), ksHvShort},
        {"PROXYGRAPHICS", offsetof(ksHeader, PROXYGRAPHICS), ksHvByte},
        {"SAVEIMAGES", offsetof(ksHeader, PROXYGRAPHICS), ksHvByte},
    };
    for (const auto& c : cases) {
        const ksHeaderVar& v = var(c.name);
        EXPECT_EQ(v.offset, c.offset) << c.name;
        EXPECT_EQ(v.kind, c.kind) << c.name;
    }
}

TEST(HeaderVarTable, TextLimitsOfDxfValues) {
    const struct {
        const char* name;
        int n;
    } limits[] = {
        {"ACADVER", 7},    {"DIMPOST", 16},        {"DIMAPOST", 16},    {"DIMBLK", 32},
        {"DIMBLK1", 32},   {"DIMBLK2", 32},        {"DIMLDRBLK", 32},   {"MENU", 61},
        {"HYPERLINKBASE", 127}, {"FINGERPRINTGUID", 39}, {"VERSIONGUID", 39},
    };
    const std::string longText(700, 'q');
    for (const auto& l : limits) {
        const ksHeaderVar& v = var(l.name);
        EXPECT_EQ(v.size, l.n) << l.name;
        ksHeader h = defaultsOverGarbage();
        auto* field = static_cast<char*>(ksHeaderVarField(&h, &v));
        std::memset(field, 'x', v.width);
        ASSERT_TRUE(ksHeaderVarSetText(&h, &v, longText));
        EXPECT_EQ(std::strlen(field), static_cast<size_t>(l.n - 1)) << l.name;
        if (l.n < v.width) {
            EXPECT_EQ(field[l.n], 'x') << l.name << " wrote past its limit";
        }
    }
    int texts = 0;
    for (const ksHeaderVar& v : ksHeaderVarTable) texts += v.kind == ksHvText;
    EXPECT_EQ(texts, static_cast<int>(std::size(limits)));
}

TEST(HeaderSharedFields, DimfitSetsOnlyTheLowByteOfDimatfit) {
    ksHeader h = defaultsOverGarbage();
    ASSERT_TRUE(ksHeaderVarSetInt(&h, &var("DIMATFIT"), 0x1234));
    EXPECT_EQ(h.DIMATFIT, 0x1234);
    ASSERT_TRUE(ksHeaderVarSetInt(&h, &var("$dimfit"), 0x0105));
    EXPECT_EQ(h.DIMATFIT, 0x1205);
    EXPECT_EQ(ksHeaderVarGetInt(&h, &var("DIMFIT")), 0x05);
    EXPECT_EQ(ksHeaderVarGetInt(&h, &var("DIMATFIT")), 0x1205);
}

TEST(HeaderSharedFields, OldAndNewNamesReachOneField) {
    ksHeader h = defaultsOverGarbage();
    ASSERT_TRUE(ksHeaderVarSetInt(&h, &var("SAVEIMAGES"), 1));
    EXPECT_EQ(h.PROXYGRAPHICS, 1);
    EXPECT_EQ(ksHeaderVarGetInt(&h, &var("PROXYGRAPHICS")), 1);
    ASSERT_TRUE(ksHeaderVarSetInt(&h, &var("PROXYGRAPHICS"), 0));
    EXPECT_EQ(ksHeaderVarGetInt(&h, &var("SAVEIMAGES")), 0);

    ASSERT_TRUE(ksHeaderVarSetInt(&h, &var("DIMUNIT"), 6));
    EXPECT_EQ(h.DIMLUNIT, 6);
    EXPECT_EQ(ksHeaderVarGetInt(&h, &var("DIMLUNIT")), 6);
}

TEST(HeaderStores, NeighboursDimfracAndDimgapStaySeparate) {
    ksHeader h = defaultsOverGarbage();
    ASSERT_TRUE(ksHeaderVarSetInt(&h, &var("DIMFRAC"), -1));
    EXPECT_EQ(h.DIMFRAC, -1);
    EXPECT_EQ(h.DIMGAP, 0.09);
    ASSERT_TRUE(ksHeaderVarSetReal(&h, &var("DIMGAP"), -1e300));
    EXPECT_EQ(h.DIMGAP, -1e300);
    EXPECT_EQ(h.DIMFRAC, -1);
}

TEST(HeaderStores, UseriAndUserrIndexTheirArrays) {
    ksHeader h = defaultsOverGarbage();
    for (int i = 1; i <= 5; ++i) {
        const ksHeaderVar& vi = var(("USERI" + std::to_string(i)).c_str());
        const ksHeaderVar& vr = var(("$userr" + std::to_string(i)).c_str());
        EXPECT_EQ(vi.size, i - 1);
        EXPECT_EQ(vr.size, i - 1);
        ASSERT_TRUE(ksHeaderVarSetInt(&h, &vi, 100 + i));
        ASSERT_TRUE(ksHeaderVarSetReal(&h, &vr, 0.5 * i));
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(h.USERI[i], 101 + i);
        EXPECT_EQ(h.USERR[i], 0.5 * (i + 1));
    }
    EXPECT_EQ(h.UNITMODE, 0);
    EXPECT_EQ(h.USRTIMER, 1);
}

TEST(HeaderStores, ByteKeepsLowBitsAndKindsRefuseOtherValues) {
    ksHeader h = defaultsOverGarbage();
    ASSERT_TRUE(ksHeaderVarSetInt(&h, &var("DIMTAD"), 0x1FF));
    EXPECT_EQ(h.DIMTAD, -1);
    EXPECT_FALSE(ksHeaderVarSetInt(&h, &var("DIMSCALE"), 3));
    EXPECT_FALSE(ksHeaderVarSetReal(&h, &var("DIMDEC"), 3.0));
    EXPECT_FALSE(ksHeaderVarSetText(&h, &var("HANDSEED"), "FF"));
    EXPECT_EQ(h.DIMSCALE, 1.0);
    EXPECT_EQ(h.DIMDEC, 4);
    EXPECT_TRUE(isZero(&h.HANDSEED, sizeof h.HANDSEED));
}

TEST(HeaderVarTable, WriterVersionRanges) {
    const struct {
        const char* name;
        int version;
        bool written;
    } cases[] = {
        {"SAVEIMAGES", 5, true},  {"SAVEIMAGES", 6, false}, {"PROXYGRAPHICS", 5, false},
        {"PROXYGRAPHICS", 6, true}, {"DIMFIT", 6, true},    {"DIMFIT", 7, false},
        {"DIMATFIT", 6, false},   {"DIMATFIT", 7, true},    {"DIMUNIT", 7, false},
        {"VIEWTWIST", 0, false},  {"VIEWTWIST", 7, false},  {"FLATLAND", 3, true},
        {"FLATLAND", 4, false},   {"SPLFRAME", 2, true},    {"SPLINESEGS", 2, true},
        {"ATTDIA", 2, true},      {"ATTREQ", 2, true},      {"SPLINETYPE", 2, false},
        {"ACADVER", 0, true},     {"ACADMAINTVER", 5, false}, {"HANDLING", 7, false},
        {"HANDSEED", 7, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ksHeaderVarWritten(&var(c.name), c.version), c.written) << c.name << " at " << c.version;
    }
    EXPECT_EQ(var("EXTMIN").zFromVersion, 4);
    EXPECT_EQ(var("INSBASE").zFromVersion, 3);
    EXPECT_EQ(var("VIEWCTR").zFromVersion, ksVersionCount);
}

TEST(HeaderNameTable, TwelveSortedNamesWithTheirBuffersAndHandles) {
    const struct {
        const char* name;
        size_t handle;
    } names[] = {
        {"CELTYPE", offsetof(ksHeader, CELTYPE)},     {"CLAYER", offsetof(ksHeader, CLAYER)},
        {"CMLSTYLE", offsetof(ksHeader, CMLSTYLE)},   {"DIMSTYLE", offsetof(ksHeader, DIMSTYLE)},
        {"DIMTXSTY", offsetof(ksHeader, DIMTXSTY)},   {"PUCSBASE", offsetof(ksHeader, PUCSBASE)},
        {"PUCSNAME", offsetof(ksHeader, PUCSNAME)},   {"PUCSORTHOREF", offsetof(ksHeader, PUCSORTHOREF)},
        {"TEXTSTYLE", offsetof(ksHeader, TEXTSTYLE)}, {"UCSBASE", offsetof(ksHeader, UCSBASE)},
        {"UCSNAME", offsetof(ksHeader, UCSNAME)},     {"UCSORTHOREF", offsetof(ksHeader, UCSORTHOREF)},
    };
    ASSERT_EQ(std::size(ksHeaderNameTable), std::size(names));
    for (size_t i = 0; i < std::size(names); ++i) {
        const ksHeaderNameVar& n = ksHeaderNameTable[i];
        EXPECT_STREQ(n.name, names[i].name);
        EXPECT_EQ(n.buffer, static_cast<int16_t>(i)) << n.name;
        EXPECT_EQ(n.handleOffset, names[i].handle) << n.name;
        EXPECT_EQ(n.kind, ksHvText);
        EXPECT_EQ(n.size, 512);
        EXPECT_EQ(ksHeaderNameFind(std::string("$") + names[i].name), &n);
        EXPECT_EQ(ksHeaderVarFind(names[i].name), nullptr) << names[i].name;
    }
    EXPECT_EQ(ksHeaderNameFind("$clayer"), &ksHeaderNameTable[1]);
    EXPECT_EQ(ksHeaderNameFind("CLAYERS"), nullptr);
    EXPECT_EQ(ksHeaderNameFind("MENU"), nullptr);
    EXPECT_TRUE(ksHeaderNameFind("UCSBASE")->flags & ksHvWrittenEmpty);
    EXPECT_FALSE(ksHeaderNameFind("UCSNAME")->flags & ksHvWrittenEmpty);
}

}  // namespace
