// Builds a sample drawing in memory with the toolkit and saves it as DXF:
// layers with colours and linetypes, a dashed linetype, a text style, a
// shape file, blocks with attribute definitions, and one or more of every
// entity type the store holds, in model space, in paper space and inside a
// block, some with extended data; then a mix of simple entities in model
// space up to a wanted count, which makes drawings of any size for
// benchmarks.
//
//   zem_mksample [-n ENTITIES] [-i INITFILE] [-v RELEASE] [-a | -b] OUT.dxf ...
//
// usage() tells the options. The init data file comes from -i, else from
// ZEM_DIRECTORY as the converter finds it.
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/newdrawing.h"
#include "frame/save.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/tablelist.h"
#include "store/xdata.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr double kPi = std::numbers::pi;
constexpr char kShapeFileName[] = "zemsample.shx";
constexpr char kAppName[] = "ZEMSAMPLE";

constexpr int kStatusDone = 0;
constexpr int kStatusSaveFailed = 1;
constexpr int kStatusUsage = 2;
constexpr int kStatusNoInitFile = 4;
constexpr int kStatusBuildFailed = 9;

void usage(std::FILE* out)
{
    std::fputs(
        "usage: zem_mksample [-n ENTITIES] [-i INITFILE] [-v RELEASE] [-a | -b] OUT.dxf\n"
        "                    [[-v RELEASE] [-a | -b] OUT.dxf ...]\n"
        "\n"
        "Builds one sample drawing (R2000 in memory) and saves it to every OUT.dxf.\n"
        "  -n ENTITIES  fill model space with simple entities until the drawing holds this\n"
        "               many in all (model space, paper space and blocks, counted as a DXF\n"
        "               reader counts them: no VERTEX, SEQEND or ATTRIB); 0, the default,\n"
        "               gives the sample set alone\n"
        "  -i INITFILE  the init data file; default $ZEM_DIRECTORY/text/kestrel_dat/ksinit.dat\n"
        "  -v RELEASE   release of the outputs that follow: R12 (AC1009), R13 (AC1012),\n"
        "               R14 (AC1014) or R2000 (AC1015, the default)\n"
        "  -a, -b       ASCII (the default) or binary DXF for the outputs that follow\n"
        "\n"
        "The shape file zemsample.shx, which the SHAPE entities use, is written next to each\n"
        "output. For each output the entities written are listed by space and type, as the\n"
        "release holds them. Exit status: 0 done, 1 a save failed, 2 usage, 4 no init file,\n"
        "9 the toolkit or the drawing failed.\n",
        out);
}

// ---------------------------------------------------------------------------
// What a release holds

enum Space { kModel, kPaper, kBlocks, kSpaceCount };
constexpr const char* kSpaceNames[kSpaceCount] = {"model", "paper", "blocks"};

// Counting slots: the fixed type codes, then one per class entity form.
constexpr int kSlotCount = ksEntityFixedCount + ksCeProxy + 1;
constexpr const char* kClassNames[] = {"", "LWPOLYLINE", "HATCH", "IMAGE", "WIPEOUT", "OLE2FRAME", "RTEXT",
                                       "ARCALIGNEDTEXT", "ACAD_PROXY_ENTITY"};
static_assert(std::size(kClassNames) == ksCeProxy + 1);

// The name under which a reader finds an entity of the slot in a DXF file
// of the release, or null when the release has no place for it: below R13
// none of the R13 types nor the class entities, and an LWPOLYLINE goes out
// as a POLYLINE below R14.
const char* nameInRelease(int slot, int16_t version)
{
    if (slot >= ksEntityFixedCount) {
        const int form = slot - ksEntityFixedCount;
        if (form == ksCeLwpolyline && version < ksAC1014)
            return "POLYLINE";
        // An R13 file has no image definitions, and an IMAGE without one
        // is read as nothing.
        if (form == ksCeImage && version < ksAC1014)
            return nullptr;
        return version >= ksAC1012 ? kClassNames[form] : nullptr;
    }
    switch (slot) {
    case ksEntEllipse:
    case ksEntSpline:
    case ksEntRegion:
    case ksEnt3dSolid:
    case ksEntRay:
    case ksEntXline:
    case ksEntMtext:
    case ksEntLeader:
    case ksEntTolerance:
    case ksEntMline:
    case ksEntBody:
        return version >= ksAC1012 ? ksEntityNames[slot] : nullptr;
    default:
        return ksEntityNames[slot];
    }
}

// Entities that stand under another (or mark a block's ends) and that a
// reader doesn't count among a space's entities.
bool isSubentity(int16_t type)
{
    return type == ksEntAttrib || type == ksEntVertex || type == ksEntSeqend || type == ksEntBlock ||
           type == ksEntEndblk;
}

// ---------------------------------------------------------------------------
// Small helpers

ksPoint3 P(double x, double y, double z = 0.0) { return {x, y, z}; }
ksPoint2 P2(double x, double y) { return {x, y}; }
ksPoint3 operator+(const ksPoint3& a, const ksPoint3& b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
double radians(double degrees) { return degrees * kPi / 180.0; }

template <size_t N>
void setText(char (&field)[N], const char* text)
{
    std::snprintf(field, N, "%s", text);
}

// A prefix and a number, without printf: the bulk entities take one each.
template <size_t N>
void setNumbered(char (&field)[N], const char* prefix, uint64_t number)
{
    size_t n = std::min(std::strlen(prefix), N - 21);
    std::memcpy(field, prefix, n);
    auto result = std::to_chars(field + n, field + N - 1, number);
    *result.ptr = 0;
}

// Any entity body the sample makes.
union Body {
    ksEntityBody e;
    ksLwpolyline lwpolyline;
    ksHatch hatch;
    ksImage image;
    ksOle2Frame ole;
    ksRtext rtext;
    ksArcAlignedText arcText;
};

// A shape file of four shapes, in the layout the shape lookups read: a
// 28-byte head, the count, the index of (number, body size) and the bodies,
// each the shape's name, a zero byte and vector codes ending with 0.
bool writeShapeFile(const fs::path& path)
{
    struct Shape {
        const char* name;
        std::vector<uint8_t> codes;
    };
    const Shape shapes[] = {
        {"BOX", {1, 0x20, 0x24, 0x28, 0x2C, 0}},
        {"TRIANGLE", {1, 0x20, 0x26, 0x2A, 0}},
        {"CROSS", {2, 0x14, 1, 0x2C, 2, 0x16, 1, 0x20, 0}},
        {"DIAMOND", {2, 0x10, 1, 0x12, 0x16, 0x1A, 0x1E, 0}},
    };
    std::vector<uint8_t> out(28, 0);
    const char head[] = "ZEMACAD shapes 1.0\r\n\x1a";
    std::memcpy(out.data(), head, sizeof head - 1);
    auto u16 = [&](unsigned v) {
        out.push_back(static_cast<uint8_t>(v & 0xFF));
        out.push_back(static_cast<uint8_t>(v >> 8));
    };
    u16(std::size(shapes));
    unsigned number = 1;
    for (const Shape& s : shapes) {
        u16(number++);
        u16(static_cast<unsigned>(std::strlen(s.name) + 1 + s.codes.size()));
    }
    for (const Shape& s : shapes) {
        out.insert(out.end(), s.name, s.name + std::strlen(s.name) + 1);
        out.insert(out.end(), s.codes.begin(), s.codes.end());
    }
    std::FILE* file = std::fopen(path.c_str(), "wb");
    return file != nullptr && std::fwrite(out.data(), 1, out.size(), file) == out.size() && std::fclose(file) == 0;
}

// The shape file of the output being saved; the file search finds it there.
std::string shapeFilePath;

int16_t findSampleFile(char* name, char* found, int16_t flag)
{
    const size_t length = std::strlen(name);
    const size_t ours = sizeof kShapeFileName - 1;
    if (!shapeFilePath.empty() && length >= ours && ksStrCompare(name + length - ours, kShapeFileName) == 0 &&
        shapeFilePath.size() < ksPathMax) {
        std::memcpy(found, shapeFilePath.c_str(), shapeFilePath.size() + 1);
        return 1;
    }
    return ksFindFileDefault(name, found, flag);
}

// ---------------------------------------------------------------------------
// The drawing

enum Layer { kLayer0, kWalls, kDoors, kHidden, kNotes, kDims, kHatching, kViewports, kDefpoints, kLayerCount };

class Sample {
public:
    explicit Sample(ksFcb* fcb) : fcb_(fcb), item_(std::make_unique<ksXdataItem>()) {}

    // Entities made, by space and counting slot.
    using Counts = uint64_t[kSpaceCount][kSlotCount];

    bool build(uint64_t wanted);
    uint64_t total() const;
    const Counts& counts() const { return counts_; }

private:
    // Where entities go: a list and the space it belongs to.
    struct Target {
        ksLoc list;
        Space space;
    };

    // Tables and objects.
    bool addTables();
    ksObjHandle addLayer(const char* name, int16_t color, const ksObjHandle& linetype, int16_t lineweight);
    bool addImageObjects();
    bool finishImageDefinition();
    bool appendToNamedDictionary(const char* name, const ksObjHandle& handle);

    // Entities. begin() sets up a new entity of the type on a layer;
    // put() adds it to the target, counting it.
    ksEntityBody& begin(int16_t type, Layer layer);
    template <typename T>
    T& beginClass(int16_t type, Layer layer)
    {
        begin(type, layer);
        ksClassEntityDefaults(fcb_, type, &body_);
        return *reinterpret_cast<T*>(&body_);
    }
    bool put();
    Target beginBlock(const char* name, int8_t flags, const ksPoint3& base, ksObjHandle* handle);
    bool endBlock(const Target& outer);
    ksLoc sampleXdata(int32_t serial);
    bool withXdata(int32_t serial);

    bool addBlocks();
    bool addShowcase(const ksPoint3& o);
    bool addCurves(const ksPoint3& o);
    bool addTexts(const ksPoint3& o);
    bool addFaces(const ksPoint3& o);
    bool addInserts(const ksPoint3& o);
    bool addPolylines(const ksPoint3& o);
    bool addDimensions(const ksPoint3& o);
    bool addDimension(int kind, const ksPoint3& o);
    bool addAnnotations(const ksPoint3& o);
    bool addHatches(const ksPoint3& o);
    bool addClassEntities(const ksPoint3& o);
    bool addModelers();
    bool addViewports();
    bool addTitle();
    bool addBulk(uint64_t wanted);
    bool addDoor(const ksPoint3& at, double rotation, uint64_t number);
    bool vertex(Layer layer, const ksPoint3& p, int16_t flags, double bulge = 0.0);
    bool seqend(Layer layer);

    ksFcb* fcb_;
    std::unique_ptr<ksXdataItem> item_;
    ksEntityHeader head_{};
    Body body_{};
    Target target_{};
    Counts counts_ = {};

    ksObjHandle layers_[kLayerCount] = {};
    ksObjHandle dashed_{}, standardStyle_{}, notesStyle_{}, shapeStyle_{}, dimstyle_{}, appid_{}, mlineStyle_{};
    ksObjHandle door_{}, hinge_{}, title_{}, showcase_{};
    ksObjHandle imageDefinition_{}, imageDictionary_{};
    std::vector<ksObjHandle> imageReactors_;
    int dimensionBlocks_ = 0;
    uint64_t bulk_ = 0;  // entities of the bulk grid
};

uint64_t Sample::total() const
{
    uint64_t sum = 0;
    for (const auto& space : counts_)
        for (uint64_t n : space)
            sum += n;
    return sum;
}

// ---- Tables

ksObjHandle Sample::addLayer(const char* name, int16_t color, const ksObjHandle& linetype, int16_t lineweight)
{
    ksLayer record;
    ksLayerDefaults(fcb_, &record);
    setText(record.name, name);
    record.ownerHandle = fcb_->layerControlHandle;
    record.color = color;
    record.linetypeHandle = linetype;
    record.lineweight = lineweight;
    ksHandleNext(fcb_, &record.entryHandle);
    return ksLayerAdd(fcb_, &record) ? record.entryHandle : ksObjHandle{};
}

bool Sample::addTables()
{
    // The application of the sample's extended data.
    ksAppid app;
    ksAppidDefaults(&app);
    app.ownerHandle = fcb_->regAppControlHandle;
    setText(app.name, kAppName);
    ksHandleNext(fcb_, &app.entryHandle);
    if (!ksAppidAdd(fcb_, &app))
        return false;
    appid_ = app.entryHandle;

    ksLinetype dashes;
    ksLinetypeDefaults(&dashes);
    dashes.ownerHandle = fcb_->linetypeControlHandle;
    setText(dashes.name, "DASHED");
    setText(dashes.description, "Dashed __ __ __ __ __");
    dashes.flags = 0;
    dashes.dashCount = 2;
    dashes.dashes[0].length = 0.5;
    dashes.dashes[1].length = -0.25;
    dashes.patternLength = 0.75;
    ksHandleNext(fcb_, &dashes.entryHandle);
    if (!ksLinetypeAdd(fcb_, &dashes))
        return false;
    dashed_ = dashes.entryHandle;

    const ksObjHandle continuous = ksFirstLinetypeHandle(fcb_);
    layers_[kLayer0] = ksTableFirstHandle(fcb_, ksListLayers);
    layers_[kWalls] = addLayer("WALLS", 1, continuous, 50);
    layers_[kDoors] = addLayer("DOORS", 3, continuous, -3);
    layers_[kHidden] = addLayer("HIDDEN", 4, dashed_, 18);
    layers_[kNotes] = addLayer("NOTES", 5, continuous, -3);
    layers_[kDims] = addLayer("DIMENSIONS", 2, continuous, -3);
    layers_[kHatching] = addLayer("HATCHING", 8, continuous, 13);
    layers_[kViewports] = addLayer("VIEWPORTS", 6, continuous, -3);
    layers_[kDefpoints] = addLayer("Defpoints", 7, continuous, -3);
    for (const ksObjHandle& h : layers_)
        if (ksHandleIsNull(h))
            return false;

    standardStyle_ = ksFirstStyleHandle(fcb_);
    ksStyle style;
    ksStyleDefaults(&style);
    style.ownerHandle = fcb_->shapeFileControlHandle;
    setText(style.name, "NOTES");
    setText(style.fontFile, "romans.shx");
    style.widthFactor = 0.8;
    style.obliqueAngle = radians(15.0);
    style.lastHeight = 2.5;
    ksHandleNext(fcb_, &style.entryHandle);
    if (!ksStyleAdd(fcb_, &style))
        return false;
    notesStyle_ = style.entryHandle;

    // A shape file is an unnamed style entry with flag 1.
    ksStyleDefaults(&style);
    style.ownerHandle = fcb_->shapeFileControlHandle;
    style.flags = 1;
    setText(style.fontFile, kShapeFileName);
    style.lastHeight = 1.0;
    ksHandleNext(fcb_, &style.entryHandle);
    if (!ksStyleAdd(fcb_, &style))
        return false;
    shapeStyle_ = style.entryHandle;

    dimstyle_ = ksTableFirstHandle(fcb_, ksListDimStyles);
    mlineStyle_ = fcb_->header->CMLSTYLE;

    // A layer with extended data of its own.
    ksLayer walls;
    if (!ksLayerSeek(fcb_, layers_[kWalls], &walls))
        return false;
    walls.eed = sampleXdata(0);
    return walls.eed != 0 && ksLayerUpdate(fcb_, &walls);
}

// The objects an IMAGE needs: its definition in the dictionary
// ACAD_IMAGE_DICT, and the raster variables. The definition is added once
// all images are made, so that it can name their reactors.
bool Sample::addImageObjects()
{
    ksHandleNext(fcb_, &imageDictionary_);
    ksHandleNext(fcb_, &imageDefinition_);
    ksObjHandle variables;
    ksHandleNext(fcb_, &variables);

    ksObjectHeader head{};
    ksObjectBody body;
    ksObjectRewind(fcb_);
    if (!ksObjectNext(fcb_, &head, &body) || head.kind != ksKindDictionary)
        return false;
    const ksObjHandle dictionaryOfNames = head.handle;

    head = ksObjectHeader{};
    head.kind = ksKindDictionary;
    ksObjectDefaults(fcb_, &head, &body);
    head.handle = imageDictionary_;
    if (!ksObjectSetOwner(&head, dictionaryOfNames))
        return false;
    ksDictionaryEntry entry{};
    setText(entry.name, "ZEMSAMPLE");
    entry.handle = imageDefinition_;
    body.dictionary.entryCount = 1;
    body.dictionary.cloning = 1;
    body.dictionary.entries = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(body.dictionary.entries);
    bool ok = out && ksDictionaryEntryWrite(out, entry);
    if (!ksBlobCloseWrite(out) || !ok || !ksObjectAdd(fcb_, &head, &body))
        return false;

    head = ksObjectHeader{};
    head.kind = fcb_->classNumbers.rasterVariables;
    ksObjectDefaults(fcb_, &head, &body);
    head.handle = variables;
    if (!ksObjectSetOwner(&head, dictionaryOfNames))
        return false;
    body.rasterVariables.displayFrame = 1;
    body.rasterVariables.displayQuality = 1;
    if (!ksObjectAdd(fcb_, &head, &body))
        return false;
    return appendToNamedDictionary("ACAD_IMAGE_DICT", imageDictionary_) &&
           appendToNamedDictionary("ACAD_IMAGE_VARS", variables);
}

bool Sample::finishImageDefinition()
{
    ksObjectHeader head{};
    ksObjectBody body;
    head.kind = fcb_->classNumbers.imageDef;
    ksObjectDefaults(fcb_, &head, &body);
    head.handle = imageDefinition_;
    if (!ksObjectSetOwner(&head, imageDictionary_))
        return false;
    ksBlobCursor* out = ksBlobOpenAppend(head.reactors);
    bool ok = out != nullptr;
    for (const ksObjHandle& reactor : imageReactors_)
        ok = ok && ksBlobWriteHandle(out, reactor);
    if (!ksBlobCloseWrite(out) || !ok)
        return false;
    head.reactorCount += static_cast<int32_t>(imageReactors_.size());
    setText(body.imageDef.fileName, "zemsample.png");
    body.imageDef.imageSize = P2(64.0, 48.0);
    body.imageDef.pixelSize = P2(1.0, 1.0);
    body.imageDef.loaded = 1;
    return ksObjectAdd(fcb_, &head, &body) != 0;
}

// Appends an entry to the named object dictionary, the first object.
bool Sample::appendToNamedDictionary(const char* name, const ksObjHandle& handle)
{
    ksObjectHeader head;
    ksObjectBody body;
    ksObjectRewind(fcb_);
    if (!ksObjectNext(fcb_, &head, &body) || head.kind != ksKindDictionary)
        return false;
    ksDictionaryEntry entry{};
    setText(entry.name, name);
    entry.handle = handle;
    if (body.dictionary.entries == 0 && (body.dictionary.entries = ksBlobNew()) == 0)
        return false;
    ksBlobCursor* out = ksBlobOpenAppend(body.dictionary.entries);
    bool ok = out && ksDictionaryEntryWrite(out, entry);
    if (!ksBlobCloseWrite(out) || !ok)
        return false;
    ++body.dictionary.entryCount;
    return ksObjectReplace(fcb_, &head, &body) != 0;
}

// ---- Entities

ksEntityBody& Sample::begin(int16_t type, Layer layer)
{
    ksEntityDefaults(&head_, &body_, type);
    ksHandleNext(fcb_, &head_.handle);
    head_.layerHandle = layers_[layer];
    head_.linetypeHandle = fcb_->byLayerHandle;
    if (target_.space == kPaper)
        head_.flags = ksEntityPaperSpace;
    return body_.e;
}

bool Sample::put()
{
    if (!ksEntityAppend(fcb_, target_.list, &head_, &body_))
        return false;
    if (!isSubentity(head_.type)) {
        const int16_t type = head_.type;
        const int slot = type < ksEntityFixedCount ? type : ksEntityFixedCount + ksClassEntityFormOf(fcb_, type);
        ++counts_[target_.space][slot];
    }
    return true;
}

// A block header with a list of its own, opened by its BLOCK entity; the
// entities that follow go into it until endBlock(), which closes it with
// an ENDBLK and goes back to the target returned here.
Sample::Target Sample::beginBlock(const char* name, int8_t flags, const ksPoint3& base, ksObjHandle* handle)
{
    Target outer = target_;
    ksBlockHeader record;
    ksBlockHeaderDefaults(&record);
    setText(record.name, name);
    record.flags = flags;
    record.ownerHandle = fcb_->blockControlHandle;
    ksHandleNext(fcb_, &record.entryHandle);
    record.entities = ksListNew();
    if (record.entities == 0 || !ksBlockHeaderAdd(fcb_, &record)) {
        target_ = {0, kBlocks};
        return outer;
    }
    *handle = record.entryHandle;
    target_ = {record.entities, kBlocks};
    ksEntityBody& b = begin(ksEntBlock, kLayer0);
    b.block.basePoint = base;
    setText(b.block.name, name);
    if (!put())
        target_.list = 0;
    return outer;
}

bool Sample::endBlock(const Target& outer)
{
    bool ok = target_.list != 0;
    if (ok) {
        begin(ksEntEndblk, kLayer0);
        ok = put();
    }
    target_ = outer;
    return ok;
}

// Extended data of the sample's application: a text, a list in braces with
// numbers, a point and a byte run, a handle and a layer reference.
ksLoc Sample::sampleXdata(int32_t serial)
{
    ksLoc blob = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(blob);
    if (out == nullptr)
        return 0;
    ksXdataItem& item = *item_;
    bool ok = true;
    auto write = [&] { ok = ok && ksXdataWrite(out, &item); };
    ksXdataSet(&item, 1001, appid_);
    write();
    ksXdataSetText(&item, 1000, "zemacad sample data");
    write();
    ksXdataSetText(&item, 1002, "{");
    write();
    ksXdataSet(&item, 1070, static_cast<int16_t>(serial));
    write();
    ksXdataSet(&item, 1071, static_cast<int32_t>(100000 + serial));
    write();
    ksXdataSet(&item, 1040, 3.25 * serial);
    write();
    ksXdataSet(&item, 1010, P(1.5, 2.5, 3.5));
    write();
    const uint8_t bytes[] = {0x5A, 0x45, 0x4D, 0x00, 0xFF};
    ksXdataSetBytes(&item, bytes, static_cast<int16_t>(sizeof bytes));
    write();
    ksXdataSetText(&item, 1002, "}");
    write();
    ksXdataSet(&item, 1005, layers_[kWalls]);
    write();
    ksXdataSet(&item, 1003, layers_[kNotes]);
    write();
    if (!ksBlobCloseWrite(out) || !ok) {
        ksBlobFree(blob);
        return 0;
    }
    return blob;
}

bool Sample::withXdata(int32_t serial)
{
    head_.eed = sampleXdata(serial);
    return head_.eed != 0;
}

bool Sample::vertex(Layer layer, const ksPoint3& p, int16_t flags, double bulge)
{
    ksEntityBody& b = begin(ksEntVertex, layer);
    b.vertex.point = p;
    b.vertex.flags = flags;
    b.vertex.bulge = bulge;
    return put();
}

bool Sample::seqend(Layer layer)
{
    begin(ksEntSeqend, layer);
    return put();
}

// ---- Blocks

bool Sample::addBlocks()
{
    Target outer = beginBlock("HINGE", 0, P(0, 0), &hinge_);
    ksEntityBody* b = &begin(ksEntCircle, kLayer0);
    b->circle.radius = 0.15;
    head_.color = 0;
    bool ok = put();
    b = &begin(ksEntLine, kLayer0);
    b->line.start = P(-0.2, 0);
    b->line.end = P(0.2, 0);
    ok = ok && put() && endBlock(outer);

    // A door leaf and its swing, a nested hinge, three attribute
    // definitions (one hidden, one preset).
    outer = beginBlock("DOOR", 2, P(0, 0), &door_);
    b = &begin(ksEntLine, kLayer0);
    b->line.start = P(0, 0);
    b->line.end = P(0, 0.9);
    head_.color = 0;
    head_.linetypeHandle = fcb_->byBlockHandle;
    ok = ok && put();
    b = &begin(ksEntArc, kLayer0);
    b->arc.radius = 0.9;
    b->arc.startAngle = 0.0;
    b->arc.endAngle = kPi / 2;
    head_.linetypeHandle = dashed_;
    ok = ok && put();
    b = &begin(ksEntInsert, kLayer0);
    b->insert.blockHandle = hinge_;
    ok = ok && put();
    struct Definition {
        const char* tag;
        const char* prompt;
        const char* value;
        int8_t flags;
        double y;
    };
    for (const Definition& d : {Definition{"NUMBER", "Door number", "D-000", 0, 0.3},
                                Definition{"WIDTH", "Clear width", "900", 8, 0.0},
                                Definition{"FIRE_RATING", "Fire rating", "EI30", 1, -0.3}}) {
        b = &begin(ksEntAttdef, kLayer0);
        b->attdef.insertion = P(0.2, d.y);
        b->attdef.height = 0.2;
        b->attdef.widthFactor = 1.0;
        b->attdef.attributeFlags = d.flags;
        b->attdef.styleHandle = standardStyle_;
        setText(b->attdef.tag, d.tag);
        setText(b->attdef.prompt, d.prompt);
        setText(b->attdef.defaultValue, d.value);
        ok = ok && put();
    }
    ok = ok && endBlock(outer);

    // The sheet's title block: a frame and four attributes.
    outer = beginBlock("TITLE", 2, P(0, 0), &title_);
    auto& frame = beginClass<ksLwpolyline>(fcb_->classNumbers.lwpolyline, kLayer0);
    const ksLwVertex corners[] = {{P2(0, 0), 0, 0, 0}, {P2(400, 0), 0, 0, 0}, {P2(400, 277), 0, 0, 0},
                                  {P2(0, 277), 0, 0, 0}};
    frame.flags = ksLwClosed | ksLwConstantWidth;
    frame.constantWidth = 0.7;
    ok = ok && ksLwpolylineSetVertices(&frame, corners, 4) && put();
    for (double y : {0.0, 8.0, 16.0, 24.0}) {
        b = &begin(ksEntLine, kLayer0);
        b->line.start = P(300, y);
        b->line.end = P(400, y);
        ok = ok && put();
    }
    b = &begin(ksEntLine, kLayer0);
    b->line.start = P(300, 0);
    b->line.end = P(300, 32);
    ok = ok && put();
    int row = 0;
    for (const char* tag : {"TITLE", "DRAWN", "DATE", "SCALE"}) {
        b = &begin(ksEntAttdef, kLayer0);
        b->attdef.insertion = P(302, 26.0 - 8.0 * row++);
        b->attdef.height = 3.0;
        b->attdef.widthFactor = 1.0;
        b->attdef.styleHandle = notesStyle_;
        setText(b->attdef.tag, tag);
        setText(b->attdef.prompt, tag);
        ok = ok && put();
    }
    return ok && endBlock(outer);
}

bool Sample::addDoor(const ksPoint3& at, double rotation, uint64_t number)
{
    ksEntityBody& b = begin(ksEntInsert, kDoors);
    b.insert.blockHandle = door_;
    b.insert.hasAttributes = 1;
    b.insert.insertion = at;
    b.insert.rotation = rotation;
    if (!put())
        return false;
    const char* tags[] = {"NUMBER", "WIDTH", "FIRE_RATING"};
    for (int i = 0; i < 3; ++i) {
        ksEntityBody& a = begin(ksEntAttrib, kDoors);
        a.attrib.insertion = at + P(0.2, 0.3 - 0.3 * i);
        a.attrib.height = 0.2;
        a.attrib.rotation = rotation;
        a.attrib.attributeFlags = static_cast<int8_t>(i == 2 ? 1 : 0);
        a.attrib.styleHandle = standardStyle_;
        setText(a.attrib.tag, tags[i]);
        if (i == 0)
            setNumbered(a.attrib.value, "D-", number);
        else
            setText(a.attrib.value, i == 1 ? "900" : "EI30");
        if (!put())
            return false;
    }
    return seqend(kDoors);
}

// ---- The sample set: every entity type, at origin o, in the target.

bool Sample::addCurves(const ksPoint3& o)
{
    ksEntityBody* b = &begin(ksEntLine, kWalls);
    b->line.start = o + P(0, 0);
    b->line.end = o + P(10, 5);
    bool ok = withXdata(1) && put();

    b = &begin(ksEntLine, kHidden);
    b->line.start = o + P(0, 2, 0);
    b->line.end = o + P(10, 7, 3);
    head_.linetypeScale = 2.0;
    ok = ok && put();

    b = &begin(ksEntPoint, kNotes);
    b->point.position = o + P(12, 0, 1);
    b->point.xAxisAngle = radians(30.0);
    ok = ok && put();

    b = &begin(ksEntCircle, kWalls);
    b->circle.center = o + P(17, 3);
    b->circle.radius = 3.0;
    head_.thickness = 1.5;
    head_.color = 1;
    ok = ok && withXdata(2) && put();

    // A circle in a plane of its own.
    b = &begin(ksEntCircle, kHidden);
    b->circle.center = P(o.x, o.y, 2.0);
    b->circle.radius = 1.0;
    head_.extrusion = P(0.0, std::sqrt(0.5), std::sqrt(0.5));
    head_.flags |= ksEntityOwnExtrusion;
    ok = ok && put();

    b = &begin(ksEntArc, kWalls);
    b->arc.center = o + P(24, 3);
    b->arc.radius = 2.5;
    b->arc.startAngle = radians(30.0);
    b->arc.endAngle = radians(250.0);
    head_.lineweight = 35;
    ok = ok && put();

    b = &begin(ksEntEllipse, kWalls);
    b->ellipse.center = o + P(32, 3);
    b->ellipse.majorAxis = P(4, 1);
    b->ellipse.ratio = 0.5;
    b->ellipse.startParameter = 0.0;
    b->ellipse.endParameter = 2 * kPi;
    ok = ok && put();

    b = &begin(ksEntEllipse, kHidden);
    b->ellipse.center = o + P(40, 3);
    b->ellipse.majorAxis = P(0, 3);
    b->ellipse.ratio = 0.4;
    b->ellipse.startParameter = radians(45.0);
    b->ellipse.endParameter = radians(270.0);
    ok = ok && put();

    // A cubic spline through four control points, and a rational one with
    // weights and fit points.
    for (int weighted = 0; weighted < 2; ++weighted) {
        b = &begin(ksEntSpline, kWalls);
        ksSplineBody& s = b->spline;
        s.degree = 3;
        s.flags = static_cast<int16_t>(8 | (weighted ? ksSplineWeighted : 0));
        s.knotCount = 8;
        s.controlCount = 4;
        s.fitCount = weighted ? 2 : 0;
        s.knotTolerance = s.controlTolerance = 1e-10;
        s.fitTolerance = weighted ? 1e-10 : 0.0;
        s.data = ksBlobNew();
        ksBlobCursor* out = ksBlobOpenWrite(s.data);
        bool written = out != nullptr;
        for (double k : {0.0, 0.0, 0.0, 0.0, 1.0, 1.0, 1.0, 1.0})
            written = written && ksBlobWriteReal(out, k);
        const double y = weighted ? 8.0 : 0.0;
        const ksPoint3 controls[] = {P(46, y), P(48, y + 5), P(52, y - 2), P(55, y + 3)};
        for (int i = 0; i < 4; ++i) {
            written = written && ksBlobWritePoint(out, o + controls[i]);
            if (weighted)
                written = written && ksBlobWriteReal(out, i == 1 || i == 2 ? 0.7 : 1.0);
        }
        if (weighted)
            written = written && ksBlobWritePoint(out, o + controls[0]) && ksBlobWritePoint(out, o + controls[3]);
        ok = ok && ksBlobCloseWrite(out) && written && put();
    }

    b = &begin(ksEntRay, kHidden);
    b->ray.start = o + P(60, 0);
    b->ray.direction = P(std::sqrt(0.5), std::sqrt(0.5));
    ok = ok && put();
    b = &begin(ksEntXline, kHidden);
    b->ray.start = o + P(62, 0);
    b->ray.direction = P(1, 0);
    return ok && put();
}

bool Sample::addTexts(const ksPoint3& o)
{
    ksEntityBody* b = &begin(ksEntText, kNotes);
    b->text.insertion = o + P(0, 14);
    b->text.height = 2.5;
    b->text.styleHandle = standardStyle_;
    setText(b->text.text, "Sample TEXT %%c50 %%d^ caret");
    bool ok = put();

    b = &begin(ksEntText, kNotes);
    b->text.insertion = o + P(20, 14);
    b->text.alignment = P2(o.x + 28, o.y + 14);
    b->text.height = 2.0;
    b->text.rotation = radians(10.0);
    b->text.widthFactor = 0.8;
    b->text.oblique = radians(15.0);
    b->text.horizontalAlign = 1;
    b->text.verticalAlign = 2;
    b->text.styleHandle = notesStyle_;
    setText(b->text.text, "Centred");
    ok = ok && withXdata(3) && put();

    b = &begin(ksEntMtext, kNotes);
    b->mtext.insertion = o + P(32, 18);
    b->mtext.height = 2.0;
    b->mtext.referenceWidth = 20.0;
    b->mtext.attachment = 1;
    b->mtext.drawingDirection = 1;
    b->mtext.lineSpacingStyle = 1;
    b->mtext.lineSpacing = 1.0;
    b->mtext.styleHandle = notesStyle_;
    setText(b->mtext.text, "Multi-line\\Ptext with {\\Lunderline} and \\C1;colour");
    ok = ok && put();

    // A text longer than one group holds.
    b = &begin(ksEntMtext, kNotes);
    b->mtext.insertion = o + P(56, 18);
    b->mtext.height = 1.0;
    b->mtext.referenceWidth = 30.0;
    b->mtext.attachment = 7;
    b->mtext.drawingDirection = 1;
    b->mtext.styleHandle = standardStyle_;
    b->mtext.longText = ksBlobNew();
    {
        ksBlobCursor* out = ksBlobOpenWrite(b->mtext.longText);
        bool written = out != nullptr;
        const char line[] = "A long paragraph of the sample drawing, repeated to pass one group. ";
        for (int i = 0; i < 9; ++i)
            written = written && ksBlobWrite(out, line, sizeof line - 1);
        ok = ok && ksBlobCloseWrite(out) && written && put();
    }

    b = &begin(ksEntShape, kNotes);
    b->shape.insertion = o + P(0, 20);
    b->shape.size = 2.0;
    b->shape.shapeNumber = 1;
    b->shape.rotation = radians(20.0);
    b->shape.widthFactor = 1.0;
    b->shape.styleHandle = shapeStyle_;
    ok = ok && put();
    b = &begin(ksEntShape, kNotes);
    b->shape.insertion = o + P(4, 20);
    b->shape.size = 1.5;
    b->shape.shapeNumber = 3;
    b->shape.widthFactor = 1.0;
    b->shape.styleHandle = shapeStyle_;
    return ok && put();
}

bool Sample::addFaces(const ksPoint3& o)
{
    ksEntityBody* b = &begin(ksEntSolid, kHatching);
    b->trace.corner1 = o + P(0, 26);
    b->trace.corner2 = o + P(6, 26);
    b->trace.corner3 = o + P(0, 30);
    b->trace.corner4 = o + P(6, 31);
    head_.color = 5;
    bool ok = put();
    b = &begin(ksEntSolid, kHatching);  // a triangle: the last corner twice
    b->trace.corner1 = o + P(8, 26);
    b->trace.corner2 = o + P(12, 26);
    b->trace.corner3 = o + P(10, 30);
    b->trace.corner4 = o + P(10, 30);
    ok = ok && put();
    b = &begin(ksEntTrace, kWalls);
    b->trace.corner1 = o + P(14, 26);
    b->trace.corner2 = o + P(14, 27);
    b->trace.corner3 = o + P(22, 26);
    b->trace.corner4 = o + P(22, 27);
    ok = ok && put();
    b = &begin(ksEnt3dFace, kWalls);
    b->face.corner1 = o + P(24, 26, 0);
    b->face.corner2 = o + P(30, 26, 0);
    b->face.corner3 = o + P(30, 31, 4);
    b->face.corner4 = o + P(24, 31, 4);
    b->face.invisibleEdges = 2;
    return ok && put();
}

bool Sample::addInserts(const ksPoint3& o)
{
    bool ok = addDoor(o + P(34, 26), 0.0, 1) && addDoor(o + P(38, 26), kPi / 2, 2);
    ksEntityBody* b = &begin(ksEntInsert, kDoors);
    b->insert.blockHandle = hinge_;
    b->insert.insertion = o + P(42, 26);
    b->insert.xScale = b->insert.yScale = b->insert.zScale = 4.0;
    ok = ok && withXdata(4) && put();
    // A grid of hinges: two rows, three columns.
    b = &begin(ksEntInsert, kDoors);
    b->insert.blockHandle = hinge_;
    b->insert.insertion = o + P(46, 26);
    b->insert.xScale = 2.0;
    b->insert.yScale = -2.0;
    b->insert.rowCount = 2;
    b->insert.columnCount = 3;
    b->insert.rowSpacing = 2.0;
    b->insert.columnSpacing = 1.5;
    return ok && put();
}

bool Sample::addPolylines(const ksPoint3& o)
{
    // 2D, closed, with widths and a bulge.
    ksEntityBody* b = &begin(ksEntPolyline, kWalls);
    b->polyline.flags = 1;
    b->polyline.startWidth = b->polyline.endWidth = 0.2;
    bool ok = withXdata(5) && put();
    ok = ok && vertex(kWalls, o + P(0, 36), 0) && vertex(kWalls, o + P(6, 36), 0, 0.5);
    b = &begin(ksEntVertex, kWalls);
    b->vertex.point = o + P(6, 40);
    b->vertex.startWidth = 0.5;
    b->vertex.endWidth = 0.0;
    b->vertex.hasStartWidth = b->vertex.hasEndWidth = 1;
    ok = ok && put() && vertex(kWalls, o + P(0, 40), 0) && seqend(kWalls);

    // 3D.
    begin(ksEntPolyline, kHidden).polyline.flags = ksPolyline3d;
    ok = ok && put();
    for (int i = 0; i < 4; ++i)
        ok = ok && vertex(kHidden, o + P(8 + 2 * i, 36 + (i & 1) * 3, i), 32);
    ok = ok && seqend(kHidden);

    // A polygon mesh of 3 by 4.
    b = &begin(ksEntPolyline, kWalls);
    b->polyline.flags = ksPolylinePolygonMesh;
    b->polyline.meshM = 3;
    b->polyline.meshN = 4;
    ok = ok && put();
    for (int m = 0; m < 3; ++m)
        for (int n = 0; n < 4; ++n)
            ok = ok && vertex(kWalls, o + P(18 + 2 * n, 36 + 2 * m, ((m + n) & 1) * 0.5), 64);
    ok = ok && seqend(kWalls);

    // A polyface mesh: a cube of 8 vertices and 6 faces.
    b = &begin(ksEntPolyline, kWalls);
    b->polyline.flags = ksPolylinePolyfaceMesh;
    b->polyline.meshM = 8;
    b->polyline.meshN = 6;
    ok = ok && put();
    for (int i = 0; i < 8; ++i)
        ok = ok && vertex(kWalls, o + P(28 + 3 * ((i ^ (i >> 1)) & 1), 36 + 3 * ((i >> 1) & 1), 3 * (i >> 2)), 192);
    const int16_t faces[6][4] = {{1, 2, 3, 4}, {5, 6, 7, 8}, {1, 2, 6, 5}, {2, 3, 7, 6}, {3, 4, 8, 7}, {4, 1, 5, 8}};
    for (const auto& face : faces) {
        b = &begin(ksEntVertex, kWalls);
        b->vertex.flags = 128;
        b->vertex.faceIndexCount = 4;
        std::copy(std::begin(face), std::end(face), b->vertex.faceIndices);
        ok = ok && put();
    }
    ok = ok && seqend(kWalls);

    // Light polylines: one with bulges and widths, one closed and plain.
    auto& lw = beginClass<ksLwpolyline>(fcb_->classNumbers.lwpolyline, kWalls);
    const ksLwVertex path[] = {{P2(o.x + 36, o.y + 36), 0.0, 0.1, 0.3},
                               {P2(o.x + 40, o.y + 36), -0.4, 0.3, 0.1},
                               {P2(o.x + 44, o.y + 39), 0.0, 0.0, 0.0}};
    lw.elevation = 0.0;
    ok = ok && ksLwpolylineSetVertices(&lw, path, 3) && withXdata(6) && put();
    auto& box = beginClass<ksLwpolyline>(fcb_->classNumbers.lwpolyline, kHidden);
    const ksLwVertex square[] = {{P2(o.x + 46, o.y + 36), 0, 0, 0},
                                 {P2(o.x + 50, o.y + 36), 0, 0, 0},
                                 {P2(o.x + 50, o.y + 40), 0, 0, 0},
                                 {P2(o.x + 46, o.y + 40), 0, 0, 0}};
    box.flags = ksLwClosed;
    return ok && ksLwpolylineSetVertices(&box, square, 4) && put();
}

// One dimension of each kind with the block of its picture: the lines,
// arrows and text a CAD program would draw, and the definition points.
bool Sample::addDimension(int kind, const ksPoint3& o)
{
    char name[16];
    std::snprintf(name, sizeof name, "*D%d", ++dimensionBlocks_);
    ksObjHandle block;
    Target outer = beginBlock(name, 1, P(0, 0), &block);
    ksEntityBody* b = &begin(ksEntLine, kLayer0);
    b->line.start = o + P(0, 4);
    b->line.end = o + P(8, 4);
    bool ok = put();
    for (double x : {0.0, 8.0}) {
        b = &begin(ksEntLine, kLayer0);
        b->line.start = o + P(x, 0.5);
        b->line.end = o + P(x, 4.5);
        ok = ok && put();
        b = &begin(ksEntSolid, kLayer0);
        const double d = x == 0.0 ? 0.5 : -0.5;
        b->trace.corner1 = o + P(x, 4);
        b->trace.corner2 = o + P(x + d, 4.15);
        b->trace.corner3 = o + P(x + d, 3.85);
        b->trace.corner4 = b->trace.corner3;
        ok = ok && put();
        b = &begin(ksEntPoint, kDefpoints);
        b->point.position = o + P(x, 0);
        ok = ok && put();
    }
    b = &begin(ksEntText, kLayer0);
    b->text.insertion = o + P(3, 4.3);
    b->text.height = 0.5;
    b->text.styleHandle = standardStyle_;
    setText(b->text.text, "8.00");
    ok = ok && put() && endBlock(outer);

    b = &begin(ksEntDimension, kDims);
    ksDimensionBody& d = b->dimension;
    d.dimensionType = static_cast<int8_t>(32 | kind);
    d.blockHandle = block;
    d.dimstyleHandle = dimstyle_;
    d.textMidpoint = o + P(4, 4.3);
    switch (kind) {
    case 0:  // rotated (horizontal)
    case 1:  // aligned
        d.definitionPoint = o + P(8, 4);
        d.point13 = o + P(0, 0);
        d.point14 = o + P(8, 0);
        break;
    case 2:  // angle between two lines
        d.point13 = o + P(0, 0);
        d.point14 = o + P(8, 0);
        d.point15 = o + P(0, 0);
        d.definitionPoint = o + P(6, 6);
        d.point16 = o + P(5, 2);
        break;
    case 3:  // diameter
        d.definitionPoint = o + P(0, 0);
        d.point15 = o + P(8, 0);
        d.leaderLength = 1.0;
        break;
    case 4:  // radius
        d.definitionPoint = o + P(4, 0);
        d.point15 = o + P(8, 0);
        d.leaderLength = 1.0;
        break;
    case 5:  // angle by three points
        d.definitionPoint = o + P(6, 3);
        d.point13 = o + P(8, 0);
        d.point14 = o + P(4, 6);
        d.point15 = o + P(0, 0);
        break;
    default:  // ordinate, of X
        d.dimensionType = static_cast<int8_t>(32 | 64 | 6);
        d.definitionPoint = o + P(0, 0);
        d.point13 = o + P(8, 0);
        d.point14 = o + P(8, 4);
        break;
    }
    if (kind == 1)
        setText(d.text, "<> mm");
    return ok && put();
}

bool Sample::addDimensions(const ksPoint3& o)
{
    for (int kind = 0; kind < 7; ++kind)
        if (!addDimension(kind, o + P(10.0 * kind, 44)))
            return false;
    return true;
}

bool Sample::addAnnotations(const ksPoint3& o)
{
    ksEntityBody* b = &begin(ksEntLeader, kDims);
    ksLeaderBody& l = b->leader;
    l.vertexCount = 3;
    l.pathType = 0;
    l.dimstyleHandle = dimstyle_;
    l.textHeight = 2.0;
    l.vertices = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(l.vertices);
    bool ok = out && ksBlobWritePoint(out, o + P(0, 56)) && ksBlobWritePoint(out, o + P(4, 60)) &&
              ksBlobWritePoint(out, o + P(8, 60));
    ok = ksBlobCloseWrite(out) && ok && put();

    b = &begin(ksEntTolerance, kDims);
    b->tolerance.insertion = o + P(12, 58);
    b->tolerance.dimstyleHandle = dimstyle_;
    setText(b->tolerance.text, "{\\Fgdt;j}%%v{\\Fgdt;n}0.05%%vA%%vB");
    ok = ok && put();

    // A multiline of the style Standard, two elements, three vertices.
    b = &begin(ksEntMline, kWalls);
    ksMlineBody& m = b->mline;
    m.scale = 1.0;
    m.justification = 1;
    m.flags = 1;
    m.styleCount = 2;
    m.vertexCount = 3;
    m.styleHandle = mlineStyle_;
    const ksPoint3 path[] = {o + P(24, 56), o + P(32, 56), o + P(32, 62)};
    m.start = path[0];
    m.data = ksBlobNew();
    out = ksBlobOpenWrite(m.data);
    bool written = out != nullptr;
    const ksPoint3 directions[] = {P(1, 0), P(0, 1), P(0, 1)};
    const ksPoint3 miters[] = {P(0, 1), P(-std::sqrt(0.5), std::sqrt(0.5)), P(-1, 0)};
    for (int v = 0; v < 3; ++v) {
        written = written && ksBlobWritePoint(out, path[v]) && ksBlobWritePoint(out, directions[v]) &&
                  ksBlobWritePoint(out, miters[v]);
        for (double offset : {0.5, -0.5}) {
            const double along = v == 1 ? offset * std::sqrt(2.0) : offset;
            written = written && ksBlobWriteInt16(out, 2) && ksBlobWriteReal(out, along) &&
                      ksBlobWriteReal(out, 0.0) && ksBlobWriteInt16(out, 0);
        }
    }
    return ok && ksBlobCloseWrite(out) && written && put();
}

bool Sample::addHatches(const ksPoint3& o)
{
    auto patternLine = [](ksHatch& h) {
        h.patternLineCount = 1;
        h.patternLines = ksBlobNew();
        ksBlobCursor* out = ksBlobOpenWrite(h.patternLines);
        const ksHatchPatternLine line = {radians(45.0), P2(0, 0), P2(-2.2450640303, 2.2450640303), 0};
        bool ok = out && ksHatchPatternLineWrite(out, line);
        return ksBlobCloseWrite(out) && ok;
    };
    auto seed = [](ksHatch& h, const ksPoint2& p) {
        h.seedCount = 1;
        h.seedPoints = ksBlobNew();
        ksBlobCursor* out = ksBlobOpenWrite(h.seedPoints);
        bool ok = out && ksPoint2Write(out, p);
        return ksBlobCloseWrite(out) && ok;
    };

    // Solid, one polyline loop with a bulge.
    auto* h = &beginClass<ksHatch>(fcb_->classNumbers.hatch, kHatching);
    setText(h->patternName, "SOLID");
    h->solidFill = 1;
    h->patternType = 1;
    h->patternScale = 1.0;
    h->loopCount = 1;
    h->boundary = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(h->boundary);
    bool ok = out && ksHatchLoopWrite(out, {ksHatchPolylineLoop | 1, 1, 1, 4});
    const ksHatchVertex square[] = {{P2(o.x, o.y + 66), 0.0},
                                    {P2(o.x + 8, o.y + 66), 0.5},
                                    {P2(o.x + 8, o.y + 72), 0.0},
                                    {P2(o.x, o.y + 72), 0.0}};
    for (const ksHatchVertex& v : square)
        ok = ok && ksHatchVertexWrite(out, 1, v);
    ok = ok && ksHatchLoopEndWrite(out, 0);
    ok = ksBlobCloseWrite(out) && ok && seed(*h, P2(o.x + 4, o.y + 69)) && withXdata(7) && put();

    // ANSI31 over an outer loop of lines and an arc, with an elliptic hole.
    h = &beginClass<ksHatch>(fcb_->classNumbers.hatch, kHatching);
    setText(h->patternName, "ANSI31");
    h->patternType = 1;
    h->patternScale = 1.0;
    h->loopCount = 2;
    h->boundary = ksBlobNew();
    out = ksBlobOpenWrite(h->boundary);
    ok = ok && out && ksHatchLoopWrite(out, {1 | 16, 0, 0, 4});
    auto line = [](double x1, double y1, double x2, double y2) {
        ksHatchEdge e{};
        e.kind = ksHatchLine;
        e.first = P2(x1, y1);
        e.second = P2(x2, y2);
        return e;
    };
    const double x = o.x + 12, y = o.y + 66;
    ksHatchEdge arc{};
    arc.kind = ksHatchArc;
    arc.first = P2(x + 10, y + 4);
    arc.radius = 4.0;
    arc.start = radians(-90.0);
    arc.end = radians(90.0);
    arc.counterClockwise = 1;
    for (const ksHatchEdge& e : {line(x, y, x + 10, y), arc, line(x + 10, y + 8, x, y + 8), line(x, y + 8, x, y)})
        ok = ok && ksHatchEdgeWrite(out, e);
    ok = ok && ksHatchLoopEndWrite(out, 0) && ksHatchLoopWrite(out, {0, 0, 0, 1});
    ksHatchEdge ellipse{};
    ellipse.kind = ksHatchEllipse;
    ellipse.first = P2(x + 6, y + 4);
    ellipse.second = P2(2.5, 0);
    ellipse.radius = 0.5;
    ellipse.start = 0.0;
    ellipse.end = 2 * kPi;
    ellipse.counterClockwise = 1;
    ok = ok && ksHatchEdgeWrite(out, ellipse) && ksHatchLoopEndWrite(out, 0);
    ok = ksBlobCloseWrite(out) && ok && patternLine(*h) && seed(*h, P2(x + 1, y + 1)) && put();

    // A user pattern over a spline closed by a line.
    h = &beginClass<ksHatch>(fcb_->classNumbers.hatch, kHatching);
    setText(h->patternName, "_USER");
    h->patternType = 0;
    h->patternAngle = radians(45.0);
    h->patternScale = 1.0;
    h->loopCount = 1;
    h->boundary = ksBlobNew();
    out = ksBlobOpenWrite(h->boundary);
    ok = ok && out && ksHatchLoopWrite(out, {1, 0, 0, 2});
    ksHatchEdge spline{};
    spline.kind = ksHatchSpline;
    spline.degree = 3;
    spline.knotCount = 8;
    spline.controlCount = 4;
    ok = ok && ksHatchEdgeWrite(out, spline);
    for (double k : {0.0, 0.0, 0.0, 0.0, 1.0, 1.0, 1.0, 1.0})
        ok = ok && ksBlobWriteReal(out, k);
    const double sx = o.x + 30, sy = o.y + 66;
    for (const ksPoint2& c : {P2(sx, sy), P2(sx + 2, sy + 6), P2(sx + 6, sy + 6), P2(sx + 8, sy)})
        ok = ok && ksHatchControlWrite(out, 0, {c, 0.0});
    ok = ok && ksHatchEdgeWrite(out, line(sx + 8, sy, sx, sy)) && ksHatchLoopEndWrite(out, 0);
    ok = ksBlobCloseWrite(out) && ok && patternLine(*h) && put();
    return ok;
}

bool Sample::addClassEntities(const ksPoint3& o)
{
    // An image of 64 by 48 pixels, half a unit each, clipped to its frame.
    auto* image = &beginClass<ksImage>(fcb_->classNumbers.image, kNotes);
    const ksObjHandle imageHandle = head_.handle;
    ksObjHandle reactor;
    ksHandleNext(fcb_, &reactor);
    image->insertion = o + P(40, 66);
    image->size = P2(64, 48);
    image->uVector = P(0.25, 0);
    image->vVector = P(0, 0.25);
    image->display = 7;
    image->brightness = 50;
    image->contrast = 50;
    image->clipVertexCount = 2;
    image->clipCorner1 = P2(-0.5, -0.5);
    image->clipCorner2 = P2(63.5, 47.5);
    image->imageDefHandle = imageDefinition_;
    image->imageDefReactorHandle = reactor;
    bool ok = ksEntityAddReactor(&head_, reactor) && put();

    ksObjectHeader head{};
    ksObjectBody body;
    head.kind = fcb_->classNumbers.imageDefReactor;
    ksObjectDefaults(fcb_, &head, &body);
    head.handle = reactor;
    ok = ok && ksObjectSetOwner(&head, imageHandle);
    body.imageDefReactor.classVersion = 2;
    body.imageDefReactor.image = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(body.imageDefReactor.image);
    ok = ok && out && ksBlobWriteHandle(out, imageHandle);
    ok = ksBlobCloseWrite(out) && ok && ksObjectAdd(fcb_, &head, &body);
    imageReactors_.push_back(reactor);

    // A wipeout: a unit image frame scaled up, clipped by a polygon.
    image = &beginClass<ksImage>(fcb_->classNumbers.wipeout, kNotes);
    image->insertion = o + P(58, 66);
    image->size = P2(1, 1);
    image->uVector = P(8, 0);
    image->vVector = P(0, 6);
    image->display = 7;
    image->brightness = 50;
    image->contrast = 50;
    image->clipType = 2;
    image->clipVertexCount = 4;
    image->clipVertices = ksBlobNew();
    out = ksBlobOpenWrite(image->clipVertices);
    ok = ok && out;
    for (const ksPoint2& c : {P2(-0.5, -0.5), P2(0.5, -0.5), P2(0.5, 0.5), P2(-0.5, 0.5)})
        ok = ok && ksPoint2Write(out, c);
    ok = ksBlobCloseWrite(out) && ok && put();

    // An embedded object with a few bytes of data.
    auto& ole = beginClass<ksOle2Frame>(fcb_->classNumbers.ole2frame, kNotes);
    ole.oleType = 2;
    ole.upperLeft = o + P(0, 84);
    ole.lowerRight = o + P(10, 78);
    ole.data = ksBlobNew();
    out = ksBlobOpenWrite(ole.data);
    uint8_t bytes[80];
    for (size_t i = 0; i < sizeof bytes; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7 + 3);
    ok = ok && out && ksBlobWrite(out, bytes, sizeof bytes);
    ole.dataSize = sizeof bytes;
    ok = ksBlobCloseWrite(out) && ok && put();

    auto& rtext = beginClass<ksRtext>(fcb_->classNumbers.rtext, kNotes);
    rtext.insertion = o + P(14, 80);
    rtext.height = 2.0;
    rtext.styleHandle = standardStyle_;
    setText(rtext.contents, "$(getvar,\"dwgname\")");
    rtext.rtextFlags = 1;
    ok = ok && put();

    auto& arcText = beginClass<ksArcAlignedText>(fcb_->classNumbers.arcAlignedText, kNotes);
    setText(arcText.text, "ARC ALIGNED");
    setText(arcText.fontName, "Arial");
    arcText.styleHandle = standardStyle_;
    arcText.center = o + P(34, 78);
    arcText.radius = 6.0;
    arcText.widthFactor = 1.0;
    arcText.height = 1.5;
    arcText.spacing = 0.0;
    arcText.startAngle = radians(30.0);
    arcText.endAngle = radians(150.0);
    arcText.color = 256;
    return ok && put();
}

// REGION, 3DSOLID and BODY with a small solid-model text of their own: the
// head lines and an empty body record.
bool Sample::addModelers()
{
    static constexpr const char* kLines[] = {
        "400 0 1 0",
        "@7 ZEMACAD @13 ACIS 4.00 NT @24 Sat Jan 01 00:00:00 2000",
        "1 9.9999999999999995e-007 1e-010",
        "body $-1 $1 $-1 $-1 #",
        "lump $-1 $-1 $-1 $0 #",
        "End-of-ACIS-data",
    };
    bool ok = true;
    for (int16_t type : {ksEntRegion, ksEnt3dSolid, ksEntBody}) {
        ksEntityBody& b = begin(type, kWalls);
        b.modeler.satData = ksBlobNew();
        ksBlobCursor* out = ksBlobOpenWrite(b.modeler.satData);
        bool written = out != nullptr;
        for (const char* line : kLines)
            written = written && ksBlobWrite(out, line, static_cast<uint16_t>(std::strlen(line))) &&
                      ksBlobWrite(out, "\r\n", 2);
        ok = ok && ksBlobCloseWrite(out) && written && put();
    }
    return ok;
}

bool Sample::addShowcase(const ksPoint3& o)
{
    return addCurves(o) && addTexts(o) && addFaces(o) && addInserts(o) && addPolylines(o) && addDimensions(o) &&
           addAnnotations(o) && addHatches(o) && addClassEntities(o) && addModelers();
}

// ---- Paper space: the sheet's viewport, two views of model space (one
// with a layer frozen), the title block.

bool Sample::addViewports()
{
    struct View {
        ksPoint3 center;
        double width, height;
        ksPoint2 viewCenter;
        double viewHeight;
    };
    const View views[] = {{P(210, 148.5), 420, 297, P2(210, 148.5), 297},
                          {P(120, 180), 200, 150, P2(40, 45), 100},
                          {P(320, 200), 160, 120, P2(30, 30), 60}};
    int16_t id = 1;
    for (const View& v : views) {
        ksEntityBody& b = begin(ksEntViewport, kViewports);
        ksViewportBody& vp = b.viewport;
        vp.viewportId = id;
        vp.status = id;
        vp.center = v.center;
        vp.width = v.width;
        vp.height = v.height;
        vp.viewCenter = v.viewCenter;
        vp.viewHeight = v.viewHeight;
        vp.direction = P(0, 0, 1);
        if (id == 3) {
            vp.frozenLayerCount = 1;
            vp.frozenLayers = ksBlobNew();
            ksBlobCursor* out = ksBlobOpenWrite(vp.frozenLayers);
            bool ok = out && ksBlobWriteHandle(out, layers_[kHatching]);
            if (!ksBlobCloseWrite(out) || !ok)
                return false;
        }
        if (!put())
            return false;
        ++id;
    }
    return true;
}

bool Sample::addTitle()
{
    ksEntityBody& b = begin(ksEntInsert, kLayer0);
    b.insert.blockHandle = title_;
    b.insert.hasAttributes = 1;
    b.insert.insertion = P(10, 10);
    if (!put())
        return false;
    const char* values[][2] = {{"TITLE", "ZEMACAD sample drawing"}, {"DRAWN", "zem_mksample"},
                               {"DATE", "2000-01-01"}, {"SCALE", "1:1"}};
    int row = 0;
    for (const auto& v : values) {
        ksEntityBody& a = begin(ksEntAttrib, kLayer0);
        a.attrib.insertion = P(312, 36.0 - 8.0 * row++);
        a.attrib.height = 3.0;
        a.attrib.styleHandle = notesStyle_;
        setText(a.attrib.tag, v[0]);
        setText(a.attrib.value, v[1]);
        if (!put())
            return false;
    }
    return seqend(kLayer0);
}

// ---- The bulk: a repeating mix of simple entities on a grid right of the
// sample set, ten entities a cycle, until the drawing holds `wanted`.

bool Sample::addBulk(uint64_t wanted)
{
    constexpr uint64_t kColumns = 1000;
    constexpr double kCell = 10.0;
    constexpr double kLeft = 200.0;
    const int16_t lwpolyline = fcb_->classNumbers.lwpolyline;
    const Layer layers[] = {kWalls, kDoors, kHidden, kNotes, kHatching};
    uint64_t have = total();
    for (uint64_t i = 0; have < wanted; ++i, ++have, ++bulk_) {
        const double x = kLeft + static_cast<double>(i % kColumns) * kCell;
        const double y = static_cast<double>(i / kColumns) * kCell;
        const Layer layer = layers[i / 10 % std::size(layers)];
        bool ok = true;
        switch (i % 10) {
        case 0:
        case 1:
        case 2: {
            ksEntityBody& b = begin(ksEntLine, layer);
            b.line.start = P(x, y);
            b.line.end = P(x + 8.0, y + 2.0 * static_cast<double>(i % 3));
            ok = put();
            break;
        }
        case 3: {
            ksEntityBody& b = begin(ksEntCircle, layer);
            b.circle.center = P(x + 4.0, y + 4.0);
            b.circle.radius = 1.0 + static_cast<double>(i % 7) * 0.25;
            ok = put();
            break;
        }
        case 4: {
            ksEntityBody& b = begin(ksEntArc, layer);
            b.arc.center = P(x + 4.0, y + 4.0);
            b.arc.radius = 3.0;
            b.arc.startAngle = 0.1 * static_cast<double>(i % 31);
            b.arc.endAngle = b.arc.startAngle + 2.0;
            ok = put();
            break;
        }
        case 5: {
            auto& lw = beginClass<ksLwpolyline>(lwpolyline, layer);
            const ksLwVertex path[] = {{P2(x, y), 0, 0, 0},
                                       {P2(x + 8, y), 0, 0, 0},
                                       {P2(x + 8, y + 8), 0.25, 0, 0},
                                       {P2(x, y + 8), 0, 0, 0}};
            lw.flags = ksLwClosed;
            ok = ksLwpolylineSetVertices(&lw, path, 4) && put();
            break;
        }
        case 6: {
            ksEntityBody& b = begin(ksEntText, kNotes);
            b.text.insertion = P(x, y + 1.0);
            b.text.height = 1.5;
            b.text.styleHandle = standardStyle_;
            setNumbered(b.text.text, "T", i);
            ok = put();
            break;
        }
        case 7: {
            ksEntityBody& b = begin(ksEntPoint, layer);
            b.point.position = P(x + 2.0, y + 6.0);
            ok = put();
            break;
        }
        case 8:
            ok = addDoor(P(x + 1.0, y + 1.0), static_cast<double>(i % 4) * kPi / 2, i);
            break;
        default: {
            ksEntityBody& b = begin(ksEntSolid, kHatching);
            b.trace.corner1 = P(x, y);
            b.trace.corner2 = P(x + 3.0, y);
            b.trace.corner3 = P(x, y + 3.0);
            b.trace.corner4 = P(x + 3.0, y + 3.0);
            ok = put();
            break;
        }
        }
        if (!ok)
            return false;
    }
    return true;
}

bool Sample::build(uint64_t wanted)
{
    if (!addTables() || !addImageObjects() || !addBlocks())
        return false;
    // The sample set inside a block, which model space then inserts.
    Target outer = beginBlock("SAMPLES", 2, P(0, 0), &showcase_);
    if (!addShowcase(P(0, 0)) || !endBlock(outer))
        return false;

    target_ = {fcb_->modelEntities, kModel};
    if (!addShowcase(P(0, 0)))
        return false;
    ksEntityBody& b = begin(ksEntInsert, kLayer0);
    b.insert.blockHandle = showcase_;
    b.insert.insertion = P(0, 100);
    b.insert.xScale = b.insert.yScale = b.insert.zScale = 0.5;
    b.insert.rotation = radians(5.0);
    if (!put())
        return false;

    target_ = {fcb_->paperEntities, kPaper};
    if (!addViewports() || !addTitle() || !addShowcase(P(20, 100)))
        return false;

    target_ = {fcb_->modelEntities, kModel};
    if (!addBulk(wanted) || !finishImageDefinition())
        return false;

    // The extents: the sample set and the bulk grid; the sheet of A3.
    ksHeader& h = *fcb_->header;
    const double rows = static_cast<double>((bulk_ + 999) / 1000);
    h.EXTMIN = P(-10, -10, 0);
    h.EXTMAX = P(bulk_ > 0 ? 200 + 10 * static_cast<double>(std::min<uint64_t>(bulk_, 1000)) : 100,
                 std::max(150.0, 10 * rows), 4);
    h.LIMMIN = P2(0, 0);
    h.LIMMAX = P2(h.EXTMAX.x, h.EXTMAX.y);
    h.PEXTMIN = P(0, 0, 0);
    h.PEXTMAX = P(420, 297, 0);
    h.PLIMMIN = P2(0, 0);
    h.PLIMMAX = P2(420, 297);
    return true;
}

// ---------------------------------------------------------------------------
// Command line

struct Output {
    std::string path;
    int16_t version;
    int16_t fileType;  // 1 ASCII, 2 binary
};

int16_t releaseOf(const char* text)
{
    struct Name {
        const char* release;
        const char* code;
        int16_t version;
    };
    static constexpr Name kNames[] = {
        {"R12", "AC1009", ksAC1009}, {"R13", "AC1012", ksAC1012}, {"R14", "AC1014", ksAC1014},
        {"R2000", "AC1015", ksAC1015}};
    for (const Name& n : kNames)
        if (ksStrCompare(text, n.release) == 0 || ksStrCompare(text, n.code) == 0)
            return n.version;
    return -1;
}

bool parseCount(const char* text, uint64_t* out)
{
    const char* end = text + std::strlen(text);
    auto result = std::from_chars(text, end, *out);
    return result.ec == std::errc{} && result.ptr == end;
}

std::string initFilePath()
{
    const char* directory = std::getenv("ZEM_DIRECTORY");
    if (directory == nullptr || *directory == 0)
        return {};
    return std::string(directory) + "/text/kestrel_dat/ksinit.dat";
}

// Wall time and processor time since a start; on a busy machine the second
// tells the work better.
struct Stopwatch {
    Clock::time_point wall = Clock::now();
    std::clock_t cpu = std::clock();
    double seconds() const { return std::chrono::duration<double>(Clock::now() - wall).count(); }
    double cpuSeconds() const { return static_cast<double>(std::clock() - cpu) / CLOCKS_PER_SEC; }
};

// Saves to one output and lists what it holds; false when the save fails.
bool save(ksFcb* fcb, const Sample& sample, const Output& output)
{
    const fs::path path(output.path);
    const fs::path shapes = path.parent_path() / kShapeFileName;
    if (!writeShapeFile(shapes))
        std::fprintf(stderr, "zem_mksample: can't write %s; SHAPE names will be missing\n", shapes.c_str());
    shapeFilePath = shapes.string();
    const char* form = output.fileType == 2 ? "binary" : "ASCII";
    const Stopwatch watch;
    if (!ksSaveDrawing(fcb, output.path.c_str(), output.fileType, output.version, 0, 6, 1, 0)) {
        const int16_t error = ksErrorNumber();
        std::fprintf(stderr, "zem_mksample: can't save %s as %s %s: error %d: %s\n", output.path.c_str(),
                     ksVersionNames[output.version], form, error, ksErrorMessage(error));
        return false;
    }
    const double seconds = watch.seconds(), cpu = watch.cpuSeconds();
    std::error_code ec;
    const uintmax_t size = fs::file_size(path, ec);
    const uintmax_t bytes = ec ? 0 : size;
    std::printf("wrote %s: %s %s, %ju bytes in %.3f s, %.3f s CPU (%.1f MB/s)\n", output.path.c_str(),
                ksVersionNames[output.version], form, bytes, seconds, cpu,
                seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0.0);
    for (int space = 0; space < kSpaceCount; ++space) {
        // Slots that share a name in the release (LWPOLYLINE and POLYLINE
        // below R14) are summed.
        std::vector<std::pair<std::string, uint64_t>> lines;
        for (int slot = 0; slot < kSlotCount; ++slot) {
            const uint64_t n = sample.counts()[space][slot];
            const char* name = n ? nameInRelease(slot, output.version) : nullptr;
            if (name == nullptr)
                continue;
            auto at = std::find_if(lines.begin(), lines.end(), [&](const auto& l) { return l.first == name; });
            if (at == lines.end())
                lines.emplace_back(name, n);
            else
                at->second += n;
        }
        std::sort(lines.begin(), lines.end());
        for (const auto& [name, n] : lines)
            std::printf("  %s %s %ju\n", kSpaceNames[space], name.c_str(), static_cast<uintmax_t>(n));
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    uint64_t wanted = 0;
    std::string initPath;
    std::vector<Output> outputs;
    int16_t version = ksAC1015;
    int16_t fileType = 1;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (std::strcmp(arg, "-h") == 0 || std::strcmp(arg, "--help") == 0) {
            usage(stdout);
            return kStatusDone;
        } else if (std::strcmp(arg, "-n") == 0 && hasValue) {
            if (!parseCount(argv[++i], &wanted)) {
                std::fprintf(stderr, "zem_mksample: -n wants a count, not %s\n", argv[i]);
                return kStatusUsage;
            }
        } else if (std::strcmp(arg, "-v") == 0 && hasValue) {
            if ((version = releaseOf(argv[++i])) < 0) {
                std::fprintf(stderr, "zem_mksample: unknown release %s\n", argv[i]);
                return kStatusUsage;
            }
        } else if (std::strcmp(arg, "-i") == 0 && hasValue) {
            initPath = argv[++i];
        } else if (std::strcmp(arg, "-a") == 0) {
            fileType = 1;
        } else if (std::strcmp(arg, "-b") == 0) {
            fileType = 2;
        } else if (arg[0] == '-' && arg[1] != 0) {
            usage(stderr);
            return kStatusUsage;
        } else {
            outputs.push_back({arg, version, fileType});
        }
    }
    if (outputs.empty()) {
        usage(stderr);
        return kStatusUsage;
    }
    if (initPath.empty() && (initPath = initFilePath()).empty()) {
        std::fputs("zem_mksample: no init file: give -i or set ZEM_DIRECTORY\n", stderr);
        return kStatusNoInitFile;
    }

    int16_t initError = 0;
    if (!ksInit(initPath.c_str(), 0, &initError)) {
        std::fprintf(stderr, "zem_mksample: can't start the toolkit with %s: error %d: %s\n", initPath.c_str(),
                     initError, ksErrorMessage(initError));
        return kStatusBuildFailed;
    }
    ksSetFindFile(findSampleFile);

    int status = kStatusDone;
    const Stopwatch watch;
    ksFcb* fcb = ksNewDrawing(nullptr, nullptr, 0, ksAC1015);
    Sample sample(fcb);
    if (fcb == nullptr || !sample.build(wanted)) {
        const int16_t error = ksErrorNumber();
        std::fprintf(stderr, "zem_mksample: can't build the drawing: error %d: %s\n", error, ksErrorMessage(error));
        status = kStatusBuildFailed;
    } else {
        const double seconds = watch.seconds(), cpu = watch.cpuSeconds();
        const uint64_t total = sample.total();
        std::printf("built %ju entities in %.3f s, %.3f s CPU (%.0f entities/s), %.1f MB in the store\n",
                    static_cast<uintmax_t>(total), seconds, cpu,
                    seconds > 0 ? static_cast<double>(total) / seconds : 0.0,
                    static_cast<double>(ksVmBytesInUse()) / 1e6);
        for (const Output& output : outputs)
            if (!save(fcb, sample, output))
                status = kStatusSaveFailed;
    }
    if (fcb != nullptr)
        ksCloseDrawing(fcb);
    ksShutdown();
    return status;
}
