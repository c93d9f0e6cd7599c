// Object records and class entity bodies: XRECORD items, the class list
// and its role numbers, body forms by drawing, the object list, and the
// blob layouts of LWPOLYLINE and HATCH, over good and hostile blobs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/classent.h"
#include "records/object.h"
#include "store/blob.h"
#include "store/btree.h"
#include "store/handles.h"
#include "support/fixtures.h"

namespace {

using zt::blobOf;
using zt::Bytes;

class ObjectTest : public zt::DrawingTest {};

// An item of the code with a value that tells the code apart.
void fillItem(ksXrecordItem* item, int16_t code)
{
    item->code = code;
    item->length = 0;
    auto& v = item->value;
    switch (ksXrecordKindOf(code)) {
    case ksXvText: item->length = static_cast<uint16_t>(std::snprintf(v.text, 32, "text %d", code)); break;
    case ksXvBytes: item->length = 3, std::memcpy(v.bytes, "\x01\xFE\x7F", 3); break;
    case ksXvPoint: v.point = {code + 0.25, -2.0, 3.5}; break;
    case ksXvReal: v.real = code + 0.5; break;
    case ksXvInt16: v.int16 = static_cast<int16_t>(-code); break;
    case ksXvInt32: v.int32 = code * 100000; break;
    case ksXvHandle: v.handle = ksHandleFromU64(0x0102030405060700ull + static_cast<uint64_t>(code)); break;
    case ksXvNone: break;
    }
}

// An item as text: its code, length and the value by the code's form.
std::string show(const ksXrecordItem& i)
{
    char s[128];
    const auto& v = i.value;
    const int c = i.code, n = i.length;
    switch (ksXrecordKindOf(i.code)) {
    case ksXvText: return std::to_string(c) + "/" + std::to_string(n) + "=" + v.text;
    case ksXvBytes: std::snprintf(s, sizeof s, "%d/%d=%02X%02X%02X", c, n, v.bytes[0], v.bytes[1], v.bytes[2]); break;
    case ksXvPoint: std::snprintf(s, sizeof s, "%d=%.17g,%.17g,%.17g", c, v.point.x, v.point.y, v.point.z); break;
    case ksXvReal: std::snprintf(s, sizeof s, "%d=%.17g", c, v.real); break;
    case ksXvInt16: std::snprintf(s, sizeof s, "%d=%d", c, v.int16); break;
    case ksXvInt32: std::snprintf(s, sizeof s, "%d=%d", c, v.int32); break;
    case ksXvHandle: std::snprintf(s, sizeof s, "%d=h%llX", c, (unsigned long long)ksHandleToU64(v.handle)); break;
    case ksXvNone: std::snprintf(s, sizeof s, "%d=none", c); break;
    }
    return s;
}

TEST_F(ObjectTest, XrecordItemsOfEveryAcceptedRangeComeBackAsWritten)
{
    // Both ends of each range the add operation takes, every stored form.
    const int16_t codes[] = {0,   9,   10,  19,  40,  59,  60,  79,   90,   99,   100,  102,  140,  147, 170,
                             175, 300, 309, 310, 319, 320, 330, 369, 999, 1003, 1004, 1005, 1008, 1010, 1059,
                             1060, 1070, 1071};
    auto in = std::make_unique<ksXrecordItem>(), out = std::make_unique<ksXrecordItem>();
    ksLoc blob = ksBlobNew();
    ksBlobCursor* w = ksBlobOpenWrite(blob);
    for (int16_t code : codes) {
        fillItem(in.get(), code);
        ASSERT_EQ(ksAddXrecordItem(w, in.get()), 1) << code;
    }
    ASSERT_EQ(ksBlobCloseWrite(w), 1);
    ksBlobCursor* r = ksBlobOpenRead(blob);
    for (int16_t code : codes) {
        fillItem(in.get(), code);
        ASSERT_EQ(ksNextXrecordItem(r, out.get()), 1) << code;
        EXPECT_EQ(show(*out), show(*in));
    }
    EXPECT_EQ(ksNextXrecordItem(r, out.get()), 0);  // a clean end
    EXPECT_EQ(ksErrorNumber(), 0);
    ksBlobCloseRead(r);
    ksBlobFree(blob);
}

TEST_F(ObjectTest, XrecordStoredFormsTextsAndReversed330)
{
    auto item = std::make_unique<ksXrecordItem>();
    ksLoc blob = ksBlobNew();
    ksBlobCursor* w = ksBlobOpenWrite(blob);
    item->code = 1;
    std::strcpy(item->value.text, "ab");
    ASSERT_EQ(ksAddXrecordItem(w, item.get()), 1);
    item->code = 330;
    item->value.handle = ksHandleFromU64(0x1122);
    ASSERT_EQ(ksAddXrecordItem(w, item.get()), 1);
    ksBlobCloseWrite(w);
    // code, length, code page 192, bytes; then the handle low byte first
    EXPECT_EQ(zt::bytesOf(blob), (Bytes{1, 0, 2, 0, 192, 'a', 'b', 0x4A, 0x01, 0x22, 0x11, 0, 0, 0, 0, 0, 0}));
    ksBlobFree(blob);
}

TEST_F(ObjectTest, XrecordRejectsCodesOutsideTheAcceptedRanges)
{
    auto item = std::make_unique<ksXrecordItem>();
    ksLoc blob = ksBlobNew();
    ksBlobCursor* w = ksBlobOpenWrite(blob);
    // 39 has a stored form but isn't taken; 1009 is taken by range but has
    // no stored form; 310 with a byte run beyond its one-byte length.
    for (int16_t code : {-1, 20, 39, 80, 89, 101, 103, 139, 148, 169, 176, 299, 370, 998, 1009, 1072, 2000, 310}) {
        fillItem(item.get(), code);
        item->length = code == 310 ? 256 : item->length;
        EXPECT_EQ(ksAddXrecordItem(w, item.get()), 0) << code;
        EXPECT_EQ(ksErrorNumber(), 166) << code;
    }
    ksBlobCloseWrite(w);
    EXPECT_EQ(ksBlobSize(blob), 0u);
    EXPECT_EQ(ksAddXrecordItem(nullptr, item.get()), 0);
    EXPECT_EQ(ksErrorNumber(), 163);
    ksBlobFree(blob);
}

TEST_F(ObjectTest, XrecordReadOfBadDataStopsWith165)
{
    const struct {
        const char* what;
        Bytes bytes;
    } cases[] = {
        {"unknown code 20", {20, 0, 1, 2, 3, 4}},
        {"code 1009", {0xF1, 0x03, 0, 0}},
        {"half a code", {1}},
        {"text longer than the blob", {1, 0, 50, 0, 192, 'x', 'y', 'z'}},
        {"text without its code page", {1, 0, 0}},
        {"byte run longer than the blob", {0x36, 0x01, 200, 1, 2, 3}},
        {"point cut short", {10, 0, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F}},
        {"handle cut short", {0x4A, 0x01, 1, 2, 3}},
    };
    auto item = std::make_unique<ksXrecordItem>();
    for (const auto& c : cases) {
        ksLoc blob = blobOf(c.bytes);
        ksBlobCursor* r = ksBlobOpenRead(blob);
        EXPECT_EQ(ksNextXrecordItem(r, item.get()), 0) << c.what;
        EXPECT_EQ(ksErrorNumber(), 165) << c.what;
        ksBlobCloseRead(r);
        ksBlobFree(blob);
    }
    EXPECT_EQ(ksNextXrecordItem(nullptr, item.get()), 0);
    EXPECT_EQ(ksErrorNumber(), 162);
}

// ---------------------------------------------------------------------------
// Classes

TEST_F(ObjectTest, ClassNumbersAndAddIfMissingIgnoringCase)
{
    EXPECT_EQ(ksClassNextNumber(fcb), 500);
    EXPECT_EQ(ksClassAddIfMissing(fcb, "lwpolyline", "AcDbPolyline", "x", 0, 498, 0), 500);
    EXPECT_EQ(ksClassAddIfMissing(fcb, "LWPolyline", "Other", "y", 3, 499, 1), 1);  // there already
    EXPECT_EQ(ksClassCount(fcb), 1u);
    EXPECT_EQ(fcb->classNumbers.lwpolyline, 500);

    ksClass c;
    ksClassDefaults(&c);
    EXPECT_EQ(c.itemClassId, 499);
    std::strcpy(c.dxfName, "Layout");
    c.classNumber = 503;  // a number from the file is kept
    EXPECT_EQ(ksClassAdd(fcb, &c), 503);
    EXPECT_EQ(fcb->classNumbers.layout, 503);
    EXPECT_EQ(ksClassNextNumber(fcb), 504);
    EXPECT_EQ(ksClassAddIfMissing(fcb, "DxfZombieObject", "", "", 0, 499, 0), 504);
    EXPECT_EQ(std::tuple(fcb->classNumbers.zombieObjectClass, fcb->classNumbers.classCount), std::tuple(504, 3));

    c.classNumber = 42;  // no class has a number below 500
    EXPECT_EQ(ksClassAdd(fcb, &c), 0);
    EXPECT_EQ(ksErrorNumber(), 202);
    c.classNumber = INT16_MAX;
    EXPECT_EQ(ksClassAdd(fcb, &c), INT16_MAX);
    EXPECT_EQ(ksClassNextNumber(fcb), 0);  // nothing left above it
    EXPECT_EQ(ksClassAddIfMissing(fcb, "NEW", "", "", 0, 499, 0), 0);
}

TEST_F(ObjectTest, DefaultClassesFillTheGapsWithTheNextNumbers)
{
    ASSERT_EQ(ksAddDefaultClasses(fcb), 1);
    ASSERT_EQ(ksClassCount(fcb), static_cast<uint32_t>(ksDefaultClassCount));
    ksClass c;
    ksClassRewind(fcb);
    for (int i = 0; i < ksDefaultClassCount; ++i) {
        ASSERT_EQ(ksClassNext(fcb, &c), 1);
        EXPECT_EQ(std::tuple(c.classNumber, std::string(c.dxfName), c.wasProxy),
                  std::tuple(500 + i, std::string(ksDefaultClasses[i].dxfName), 0));
    }
    EXPECT_EQ(ksClassNext(fcb, &c), 0);
    ASSERT_EQ(ksClassFindName(fcb, "lwpolyline", &c), 1);
    EXPECT_STREQ(c.appName, "\"AutoCAD\"");  // the quotes are part of the name
    ASSERT_EQ(ksClassFindNumber(fcb, 502, &c), 1);
    EXPECT_STREQ(c.appName, "\"\"");
    EXPECT_EQ(std::tuple(fcb->classNumbers.xrecord, fcb->classNumbers.arcAlignedText), std::tuple(510, 523));

    // A drawing whose file had some classes gets the missing ones behind.
    ksFcb* other = newDrawing();
    ASSERT_EQ(ksClassAddIfMissing(other, "XRECORD", "AcDbXrecord", "", 0, 499, 0), 500);
    ASSERT_EQ(ksAddDefaultClasses(other), 1);
    EXPECT_EQ(ksClassCount(other), static_cast<uint32_t>(ksDefaultClassCount));
    const ksClassNumbers& n = other->classNumbers;
    EXPECT_EQ(std::tuple(n.xrecord, n.lwpolyline, n.layout), std::tuple(500, 501, 515));
}

TEST_F(ObjectTest, ClassDeleteReportsEachCaseAndForgetsTheRole)
{
    EXPECT_EQ(ksClassDelete(fcb, 500), 0);
    EXPECT_EQ(ksErrorNumber(), 176);
    ASSERT_EQ(ksAddDefaultClasses(fcb), 1);
    EXPECT_EQ(ksClassDelete(fcb, 600), 0);
    EXPECT_EQ(ksErrorNumber(), 180);
    EXPECT_EQ(ksClassDelete(fcb, 500), 1);  // the first, where the rewound cursor stood
    EXPECT_EQ(std::tuple(fcb->classNumbers.lwpolyline, fcb->classNumbers.classCount),
              std::tuple(0, ksDefaultClassCount - 1));
    ksClass c;
    ASSERT_EQ(ksClassNext(fcb, &c), 1);
    EXPECT_EQ(c.classNumber, 501);
}

// ---------------------------------------------------------------------------
// Forms by drawing

TEST_F(ObjectTest, BodyFormsFollowEachDrawingsClassNumbers)
{
    ASSERT_EQ(ksAddDefaultClasses(fcb), 1);  // XRECORD 510, LAYOUT 515
    ksFcb* other = newDrawing();             // LAYOUT 500, XRECORD 501, then the defaults
    ASSERT_EQ(ksClassAddIfMissing(other, "LAYOUT", "", "", 0, 499, 0), 500);
    ASSERT_EQ(ksClassAddIfMissing(other, "XRECORD", "", "", 0, 499, 0), 501);
    ASSERT_EQ(ksAddDefaultClasses(other), 1);

    const struct {
        int16_t kind;
        ksObjectForm inFirst, inOther;
    } cases[] = {
        {32, ksFormDictionary, ksFormDictionary},  {33, ksFormMlineStyle, ksFormMlineStyle},
        {36, ksFormGroup, ksFormGroup},            {100, ksFormProxy, ksFormProxy},
        {103, ksFormPlotSettings, ksFormPlotSettings}, {499, ksFormStream, ksFormStream},
        {500, ksFormProxy, ksFormLayout},  // LWPOLYLINE is an entity class
        {501, ksFormProxy, ksFormXrecord},         {510, ksFormXrecord, ksFormIdBuffer},
        {515, ksFormLayout, ksFormObjectPtr},      {508, ksFormIdBuffer, ksFormImageDef},
        {518, ksFormPlaceholder, ksFormPlaceholder}, {9999, ksFormProxy, ksFormProxy},
        {0, ksFormProxy, ksFormProxy},
    };
    for (const auto& c : cases)
        EXPECT_EQ(std::tuple(ksObjectFormOf(fcb, c.kind), ksObjectFormOf(other, c.kind)), std::tuple(c.inFirst, c.inOther))
            << c.kind;
    EXPECT_EQ(ksObjectBodySize(fcb, 510), sizeof(ksXrecord));
    EXPECT_EQ(ksObjectBodySize(other, 510), sizeof(ksIdBuffer));
    EXPECT_EQ(ksObjectBodySize(fcb, 518), 0u);
    EXPECT_EQ(ksObjectBodySize(fcb, 777), sizeof(ksProxyObject));

    // Entities: HATCH is 503 in one and 505 in the other; 510 is an object class.
    const struct {
        ksFcb* drawing;
        int16_t type;
        uint32_t size;
    } entities[] = {{fcb, 503, ksHatchBodySize},        {other, 503, ksImageBodySize},
                    {other, 505, ksHatchBodySize},      {fcb, 520, ksWipeoutBodySize},
                    {fcb, 510, ksProxyEntityBodySize},  {fcb, 498, ksProxyEntityBodySize},
                    {fcb, 7, 0},                        {nullptr, 503, ksProxyEntityBodySize}};
    for (const auto& e : entities)
        EXPECT_EQ(ksEntityClassBodySize(e.drawing, e.type), e.size) << e.type;
}

TEST_F(ObjectTest, DefaultsOverGarbage)
{
    ASSERT_EQ(ksAddDefaultClasses(fcb), 1);
    ksObjectHeader h;
    ksObjectBody b;
    auto setUp = [&](int16_t kind) {
        std::memset(&h, 0xA5, sizeof h);
        std::memset(&b, 0xA5, sizeof b);
        h.kind = kind;
        ksObjectDefaults(fcb, &h, &b);
        EXPECT_EQ(std::tuple(h.kind, h.eed, h.reactorCount, ksHandleIsNull(h.owner)), std::tuple(kind, 0u, 0, true));
    };
    setUp(ksKindMlineStyle);
    const ksMlineStyle& m = b.mlineStyle;
    EXPECT_EQ(std::tuple(m.fillColor, m.startAngle, m.endAngle, m.elementCount, m.elements, std::string(m.name)),
              std::tuple(256, 1.5707963267949, 1.5707963267949, 2, 0u, std::string()));
    setUp(ksKindGroup);
    EXPECT_EQ(std::tuple(b.group.selectable, b.group.unnamed), std::tuple(1, 0));
    setUp(ksKindPlotSettings);
    const ksPlotSettings& p = b.plotSettings;
    EXPECT_EQ(std::tuple(p.realWorldUnits, p.scaleFactor, p.plotType), std::tuple(1.0, 1.0, 0));
    setUp(fcb->classNumbers.layout);
    EXPECT_EQ(std::tuple(b.layout.settings.drawingUnits, b.layout.elevation), std::tuple(1.0, 0.0));
    setUp(fcb->classNumbers.spatialFilter);
    const ksSpatialFilter& f = b.spatialFilter;
    EXPECT_EQ(std::tuple(f.normal.z, f.displayBoundary, f.clipTransform[3][2]), std::tuple(1.0, 1, 0.0));
    setUp(fcb->classNumbers.wipeoutVariables);
    EXPECT_EQ(b.wipeoutVariables.displayFrame, 1);
    setUp(ksKindProxy);
    EXPECT_EQ(std::tuple(b.proxy.applicationClass, b.proxy.data), std::tuple(0, 0u));

    ksImage image;
    std::memset(&image, 0xA5, sizeof image);
    EXPECT_EQ(ksClassEntityDefaults(fcb, fcb->classNumbers.wipeout, &image), ksCeWipeout);
    EXPECT_EQ(std::tuple(image.clipType, image.clipVertices), std::tuple(1, 0u));
    ksOle2Frame ole;
    EXPECT_EQ(ksClassEntityDefaults(fcb, fcb->classNumbers.ole2frame, &ole), ksCeOle2Frame);
    EXPECT_EQ(std::tuple(ole.version, ole.oleType), std::tuple(2, 1));
}

// ---------------------------------------------------------------------------
// Object list

// Adds an object of the kind with its defaults, changed by `change`.
template <typename Change>
int16_t addObject(ksFcb* fcb, int16_t kind, uint64_t handle, Change change)
{
    ksObjectHeader h{};
    ksObjectBody b{};
    h.kind = kind;
    ksObjectDefaults(fcb, &h, &b);
    h.handle = ksHandleFromU64(handle);
    change(h, b);
    return ksObjectAdd(fcb, &h, &b);
}
int16_t addObject(ksFcb* fcb, int16_t kind, uint64_t handle)
{
    return addObject(fcb, kind, handle, [](ksObjectHeader&, ksObjectBody&) {});
}

TEST_F(ObjectTest, ObjectListKeepsEachBodyAtItsKindsSize)
{
    ASSERT_EQ(ksAddDefaultClasses(fcb), 1);
    const std::pair<uint64_t, int16_t> added[] = {{0xC, ksKindDictionary},
                                                  {0xD, fcb->classNumbers.layout},
                                                  {0xE, fcb->classNumbers.placeholder},
                                                  {0xF, 4321},
                                                  {0x10, fcb->classNumbers.xrecord}};
    for (const auto& [handle, k] : added) {
        const int16_t kind = k;
        ASSERT_EQ(addObject(fcb, kind, handle, [&](ksObjectHeader&, ksObjectBody& b) {
                      if (kind == fcb->classNumbers.layout)
                          std::strcpy(b.layout.name, "Layout1");
                      if (kind == 4321)
                          b.proxy.originalClass = 77;
                  }), 1) << kind;
    }
    EXPECT_EQ(ksObjectCount(fcb), 5u);
    EXPECT_LT(ksVmBlockSize(ksBtreeFind(fcb, ksHandleFromU64(0xC))),
              ksVmBlockSize(ksBtreeFind(fcb, ksHandleFromU64(0xD))));

    ksObjectHeader h{};
    ksObjectBody b{};
    ksObjectRewind(fcb);
    for (auto [handle, kind] : added) {
        ASSERT_EQ(ksObjectNext(fcb, &h, &b), 1);
        EXPECT_EQ(std::tuple(h.kind, ksHandleToU64(h.handle)), std::tuple(kind, handle));
    }
    EXPECT_EQ(ksObjectNext(fcb, &h, &b), 0);

    ASSERT_EQ(ksObjectSeek(fcb, ksHandleFromU64(0xD), &h, &b), 1);
    EXPECT_STREQ(b.layout.name, "Layout1");
    EXPECT_EQ(b.layout.settings.scaleFactor, 1.0);
    ASSERT_EQ(ksObjectNext(fcb, &h, &b), 1);  // the cursor stands behind the object
    EXPECT_EQ(ksHandleToU64(h.handle), 0xEu);
    ASSERT_EQ(ksObjectNext(fcb, &h, &b), 1);
    EXPECT_EQ(b.proxy.originalClass, 77);

    EXPECT_EQ(ksObjectSeek(fcb, ksHandleFromU64(0x99), &h, &b), 0);
    EXPECT_EQ(ksErrorNumber(), 303);
    EXPECT_EQ(addObject(fcb, ksKindDictionary, 0xC), 0);  // a handle that is already there
    EXPECT_EQ(ksErrorNumber(), 172);
}

TEST_F(ObjectTest, ReplaceKeepsTheKindAndItsPlace)
{
    for (uint64_t handle : {0x20, 0x21, 0x22}) {
        ASSERT_EQ(addObject(fcb, ksKindGroup, handle, [&](ksObjectHeader&, ksObjectBody& b) {
                      std::snprintf(b.group.description, sizeof b.group.description, "group %d", int(handle));
                  }), 1);
    }
    ksObjectHeader h{};
    ksObjectBody b{};
    ASSERT_EQ(ksObjectSeek(fcb, ksHandleFromU64(0x21), &h, &b), 1);

    ksObjectHeader other = h;
    ksObjectBody dictionary{};
    other.kind = ksKindDictionary;
    dictionary.dictionary.entryCount = 9;
    EXPECT_EQ(ksObjectReplace(fcb, &other, &dictionary), 0);
    EXPECT_EQ(ksErrorNumber(), 205);
    ASSERT_EQ(ksObjectSeek(fcb, ksHandleFromU64(0x21), &h, &b), 1);
    EXPECT_EQ(h.kind, ksKindGroup);
    EXPECT_STREQ(b.group.description, "group 33");

    std::strcpy(b.group.description, "renamed");
    b.group.selectable = 0;
    EXPECT_EQ(ksObjectReplace(fcb, &h, &b), 1);
    std::vector<std::string> order;
    ksObjectRewind(fcb);
    while (ksObjectNext(fcb, &h, &b))
        order.push_back(b.group.description);
    EXPECT_EQ(order, (std::vector<std::string>{"group 32", "renamed", "group 34"}));

    other.handle = ksHandleFromU64(0x55);
    other.kind = ksKindGroup;
    EXPECT_EQ(ksObjectReplace(fcb, &other, &b), 0);
    EXPECT_EQ(ksErrorNumber(), 303);
}

TEST_F(ObjectTest, DeleteFreesBlobsKeepsAWalkAndReportsEachCase)
{
    auto refused = [&](uint64_t handle, int16_t error) {
        EXPECT_EQ(ksObjectDelete(fcb, ksHandleFromU64(handle)), 0) << handle;
        EXPECT_EQ(ksErrorNumber(), error) << handle;
    };
    refused(0x30, 164);  // an empty list
    for (uint64_t handle : {0x30, 0x31, 0x32}) {
        ASSERT_EQ(addObject(fcb, ksKindDictionary, handle, [](ksObjectHeader& h, ksObjectBody& b) {
                      b.dictionary.entries = blobOf(Bytes(520, 0));
                      b.dictionary.entryCount = 1;
                      h.eed = blobOf({1, 2, 3});
                  }), 1);
    }
    refused(0x99, 168);

    ksObjectHeader h{};
    ksObjectBody b{};
    ksObjectRewind(fcb);
    ASSERT_EQ(ksObjectNext(fcb, &h, &b), 1);  // the walk stands on 0x31
    const size_t before = ksVmBytesInUse();
    EXPECT_EQ(ksObjectDelete(fcb, ksHandleFromU64(0x31)), 1);
    EXPECT_LT(ksVmBytesInUse() + 520, before);  // the node and both blobs
    EXPECT_EQ(ksBtreeFind(fcb, ksHandleFromU64(0x31)), 0u);
    ASSERT_EQ(ksObjectNext(fcb, &h, &b), 1);
    EXPECT_EQ(ksHandleToU64(h.handle), 0x32u);

    refused(0x31, 168);
    EXPECT_EQ(ksObjectDelete(fcb, ksHandleFromU64(0x30)) + ksObjectDelete(fcb, ksHandleFromU64(0x32)), 2);
    EXPECT_EQ(ksObjectCount(fcb), 0u);
    refused(0x32, 164);
}

// ---------------------------------------------------------------------------
// Class entity blobs

TEST_F(ObjectTest, LwpolylineVerticesTakeOnlyTheFieldsTheyNeed)
{
    const struct {
        const char* what;
        ksLwVertex second;
        int16_t flags;
        uint32_t bytes;
    } cases[] = {
        {"plain", {{3, 4}, 0, 0, 0}, 0, 2 * 16},
        {"bulge", {{3, 4}, 0.5, 0, 0}, ksLwHasBulges, 2 * 24},
        {"widths", {{3, 4}, 0, 0, 2}, ksLwHasWidths, 2 * 32},
        {"both", {{3, 4}, -1, 1, 2}, ksLwHasBulges | ksLwHasWidths, 2 * 40},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ksLwpolyline body{};
        body.flags = ksLwClosed | ksLwHasBulges;  // stale flags go
        const ksLwVertex in[2] = {{{1, 2}, 0, 0, 0}, c.second};
        ASSERT_EQ(ksLwpolylineSetVertices(&body, in, 2), 1);
        EXPECT_EQ(std::tuple(body.flags, body.vertexCount, ksBlobSize(body.vertices)),
                  std::tuple(ksLwClosed | c.flags, 2, c.bytes));
        ksLwVertex out[2];
        ASSERT_EQ(ksLwpolylineGetVertices(&body, out, 2), 1);
        EXPECT_EQ(std::tuple(out[1].point.y, out[1].bulge, out[1].endWidth), std::tuple(4.0, c.second.bulge, c.second.endWidth));
        EXPECT_EQ(ksLwpolylineDxfFlags(body.flags), 1);
        EXPECT_EQ(ksClassEntityFreeBlobs(nullptr, 0, &body), 1);  // type 0: nothing to free
        ksBlobFree(body.vertices);
    }
    EXPECT_EQ(ksLwpolylineFlagsFromDxf(ksLwHasBulges | ksLwClosed, 128), ksLwHasBulges | ksLwPlinegen);
}

TEST_F(ObjectTest, LwpolylineCountsThatTheBlobCantHoldFail)
{
    ksLwpolyline body{};
    const ksLwVertex in[3] = {{{1, 2}, 0, 0, 0}, {{3, 4}, 0, 0, 0}, {{5, 6}, 0, 0, 0}};
    ASSERT_EQ(ksLwpolylineSetVertices(&body, in, 3), 1);
    ksLwVertex out[8];
    for (int32_t count : {4, 1000000, -1}) {
        body.vertexCount = count;
        EXPECT_EQ(ksLwpolylineGetVertices(&body, out, 8), 0) << count;
        EXPECT_EQ(ksErrorNumber(), 199) << count;
    }
    body.vertexCount = 3;
    body.flags = ksLwHasWidths;  // flags asking for more than was stored
    EXPECT_EQ(ksLwpolylineGetVertices(&body, out, 8), 0);
    body.flags = 0;
    EXPECT_EQ(ksLwpolylineGetVertices(&body, out, 2), 0);  // more than the caller holds
    EXPECT_EQ(ksLwpolylineGetVertices(&body, out, 3), 1);
    ksBlobFree(body.vertices);
}

// Writes a hatch with a polyline loop and a loop of each edge kind.
ksHatch makeHatch()
{
    ksHatch h{};
    h.boundary = ksBlobNew();
    h.loopCount = 2;
    ksBlobCursor* c = ksBlobOpenWrite(h.boundary);
    ksHatchLoopWrite(c, {ksHatchPolylineLoop, 1, 1, 2});
    ksHatchVertexWrite(c, 1, {{0, 0}, 0.5});
    ksHatchVertexWrite(c, 1, {{4, 0}, 0});
    ksHatchLoopEndWrite(c, 1);
    ksHatchLoopWrite(c, {ksHatchPixelLoop, 0, 0, 4});
    // kind, first, second, radius, start, end, counterClockwise, degree, rational, periodic, knots, controls
    ksHatchEdgeWrite(c, {ksHatchLine, {0, 0}, {1, 1}, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    ksHatchEdgeWrite(c, {ksHatchArc, {}, {}, 2, 0, 3.0, 1, 0, 0, 0, 0, 0});
    ksHatchEdgeWrite(c, {ksHatchEllipse, {}, {5, 0}, 2, 0, 3.0, 1, 0, 0, 0, 0, 0});
    ksHatchEdgeWrite(c, {ksHatchSpline, {}, {}, 0, 0, 0, 0, 3, 1, 0, 2, 2});
    ksBlobWriteReal(c, 0.0);
    ksBlobWriteReal(c, 1.0);
    ksHatchControlWrite(c, 1, {{0, 0}, 1.0});
    ksHatchControlWrite(c, 1, {{9, 9}, 0.5});
    ksHatchLoopEndWrite(c, 2);
    ksBlobCloseWrite(c);
    return h;
}

TEST_F(ObjectTest, HatchBoundaryAndPatternReadBackAsWritten)
{
    ksHatch h = makeHatch();
    int32_t objects = 0;
    bool pixel = false;
    ASSERT_EQ(ksHatchBoundaryCheck(&h, &objects, &pixel), 1);
    EXPECT_EQ(std::tuple(objects, pixel), std::tuple(3, true));
    // 12 + 2 x 24 + 4, then 8 + 33 + 43 + 59 + 17 + 16 + 2 x 24 + 4
    EXPECT_EQ(ksBlobSize(h.boundary), 64u + 228u);

    ksBlobCursor* c = ksBlobOpenRead(h.boundary);
    ksHatchLoop loop;
    ksHatchVertex v;
    ksHatchEdge e;
    ksHatchControl control;
    int32_t count;
    double knot;
    ASSERT_EQ(ksHatchLoopRead(c, &loop), 1);
    EXPECT_EQ(std::tuple(loop.closed, loop.count), std::tuple(1, 2));
    ASSERT_EQ(ksHatchVertexRead(c, loop.hasBulge, &v), 1);
    EXPECT_EQ(v.bulge, 0.5);
    ASSERT_EQ(ksHatchVertexRead(c, loop.hasBulge, &v) + ksHatchLoopEndRead(c, &count) + ksHatchLoopRead(c, &loop), 3);
    EXPECT_EQ(loop.count, 4);
    for (uint8_t kind : {ksHatchLine, ksHatchArc, ksHatchEllipse, ksHatchSpline}) {
        ASSERT_EQ(ksHatchEdgeRead(c, &e), 1);
        EXPECT_EQ(e.kind, kind);
    }
    EXPECT_EQ(e.controlCount, 2);
    ASSERT_EQ(ksBlobReadReal(c, &knot) + ksBlobReadReal(c, &knot), 2);
    EXPECT_EQ(knot, 1.0);
    ASSERT_EQ(ksHatchControlRead(c, e.rational, &control) + ksHatchControlRead(c, e.rational, &control), 2);
    EXPECT_EQ(control.weight, 0.5);
    ASSERT_EQ(ksHatchLoopEndRead(c, &count), 1);
    EXPECT_EQ(count, 2);
    ksBlobCloseRead(c);

    h.patternLines = ksBlobNew();
    c = ksBlobOpenWrite(h.patternLines);
    ksHatchPatternLineWrite(c, {0.7, {1, 2}, {3, 4}, 2});
    ksBlobWriteReal(c, 0.25);
    ksBlobWriteReal(c, -0.125);
    ksBlobCloseWrite(c);
    EXPECT_EQ(ksBlobSize(h.patternLines), 42u + 16u);
    c = ksBlobOpenRead(h.patternLines);
    ksHatchPatternLine line;
    ASSERT_EQ(ksHatchPatternLineRead(c, &line), 1);
    EXPECT_EQ(std::tuple(line.offset.y, line.dashCount), std::tuple(4.0, 2));
    ksBlobCloseRead(c);

    const size_t before = ksVmBytesInUse();
    fcb->classNumbers.hatch = 530;
    EXPECT_EQ(ksClassEntityFreeBlobs(fcb, 530, &h), 1);
    EXPECT_EQ(std::tuple(h.boundary, h.patternLines), std::tuple(0u, 0u));
    EXPECT_LT(ksVmBytesInUse(), before);
}

TEST_F(ObjectTest, HostileHatchBoundariesFailCleanly)
{
    // A good boundary with a head that claims more than it holds.
    ksHatch h = makeHatch();
    int32_t objects;
    bool pixel;
    for (int32_t loops : {3, 100000, -1, 1}) {  // 1: a loop is left over
        h.loopCount = loops;
        EXPECT_EQ(ksHatchBoundaryCheck(&h, &objects, &pixel), 0) << loops;
        EXPECT_EQ(ksErrorNumber(), 199) << loops;
    }
    ksBlobFree(h.boundary);

    const struct {
        const char* what;
        Bytes bytes;
    } cases[] = {
        {"polyline loop of a billion vertices", {2, 0, 0, 0, 0, 0, 0, 0, 0, 0xCA, 0x9A, 0x3B, 0, 0, 0, 0}},
        {"edge loop of 2^31 - 1 edges", {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F, 1}},
        {"negative vertex count", {2, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}},
        {"edge of kind 7", {0, 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0, 0}},
        {"spline with a negative knot count",
         {0, 0, 0, 0, 1, 0, 0, 0, 4, 3, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"spline with more knots than bytes",
         {0, 0, 0, 0, 1, 0, 0, 0, 4, 3, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"loop without its end", {0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        ksHatch bad{};
        bad.boundary = blobOf(c.bytes);
        bad.loopCount = 1;
        EXPECT_EQ(ksHatchBoundaryCheck(&bad, &objects, &pixel), 0) << c.what;
        EXPECT_EQ(ksErrorNumber(), 199) << c.what;
        ksBlobFree(bad.boundary);
    }
}

// ---------------------------------------------------------------------------
// Field rows

TEST_F(ObjectTest, FieldRowsReachTheirFields)
{
    const struct {
        const ksTableFieldSet& set;
        int group;
        size_t offset;
        ksTableFieldKind kind;
    } cases[] = {
        {ksMlineStyleFields, 51, offsetof(ksMlineStyle, startAngle), ksTfAngle},
        {ksMlineStyleFields, 71, offsetof(ksMlineStyle, elementCount), ksTfByte},
        {ksClassFields, 90, offsetof(ksClass, classVersion), ksTfShort},
        {ksClassFields, 281, offsetof(ksClass, itemClassId), ksTfShort},
        {ksObjectFields(ksFormPlotSettings), 142, offsetof(ksPlotSettings, realWorldUnits), ksTfReal},
        {ksObjectFields(ksFormLayout), 330, offsetof(ksLayout, blockRecord), ksTfHandle},
        {ksObjectFields(ksFormLayout), 37, offsetof(ksLayout, ucsYAxis), ksTfReal},
        {ksObjectFields(ksFormImageDef), 21, offsetof(ksImageDef, pixelSize), ksTfReal},
        {ksObjectFields(ksFormGroup), 71, offsetof(ksGroup, selectable), ksTfShort},
    };
    for (const auto& c : cases) {
        const ksTableField* row = std::find_if(c.set.rows, c.set.rows + c.set.count,
                                               [&](const ksTableField& r) { return r.group == c.group; });
        ASSERT_NE(row, c.set.rows + c.set.count) << c.group;
        EXPECT_EQ(std::tuple(row->offset, row->kind), std::tuple(c.offset, c.kind)) << c.group;
    }
    EXPECT_EQ(ksObjectFieldFind(ksFormLayout, 37)->index, 2);
    EXPECT_EQ(ksObjectFieldFind(ksFormLayout, 142), nullptr);  // a settings group
    EXPECT_EQ(ksObjectFieldFind(ksFormIdBuffer, 330), nullptr);
    EXPECT_EQ(ksObjectFieldFind(ksFormPlaceholder, 5), nullptr);
    EXPECT_EQ(ksProxyEntityFields.count, 5);
    EXPECT_EQ(ksProxyEntityFieldRows[2].offset, offsetof(ksProxyEntity, applicationClass));
}

}  // namespace
