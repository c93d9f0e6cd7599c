// Speed of the DXF group writer, with no drawing involved:
//   DxfWriteAscii/DxfWriteBinary  200k CIRCLE-like records (groups 0, 8,
//                        62, 10, 20, 30, 40) through the open output, to
//                        /dev/null (arg 0) or a file in the temp dir (arg 1);
//                        bytes per second
//   DxfFormatReal        the ASCII form of one real, precision 6 and full
//                        (arg 1); values per second
//   SnprintfReal         "%.6f" by snprintf, for comparison
//   DxfSaveDrawing       a whole save (ksSaveDrawing) of a drawing of 200k
//                        simple entities, built once, to /dev/null: R12,
//                        R14, R2000 ASCII (the version as arg) and R2000
//                        binary (100 + the version); bytes per second
//
// Run: build/bench/zemacad_bench_toolkit --benchmark_filter=Dxf
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <vector>

#include "driver/hooks.h"
#include "dxfwrite/groups.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/newdrawing.h"
#include "frame/save.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/tables.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/tablelist.h"

namespace {

constexpr size_t kRecords = 200'000;

struct Circle {
    ksPoint3 center;
    double radius;
    int16_t color;
};

const std::vector<Circle>& circles()
{
    static const std::vector<Circle> all = [] {
        std::mt19937_64 random(7);
        std::uniform_real_distribution<double> coordinate(-1e4, 1e4), radius(0.0, 100.0);
        std::vector<Circle> c(kRecords);
        for (Circle& x : c)
            x = {{coordinate(random), coordinate(random), 0.0}, radius(random), static_cast<int16_t>(random() % 256)};
        return c;
    }();
    return all;
}

bool writeCircles(ksFcb* target)
{
    bool ok = ksDxfOpenOutput(target) != 0;
    for (const Circle& c : circles()) {
        ok = ok && ksDxfWriteText(target, 0, "CIRCLE") && ksDxfWriteText(target, 8, "WALLS-1") &&
             ksDxfWriteInt16(target, 62, c.color) && ksDxfWritePoint3(target, 10, c.center) &&
             ksDxfWriteReal(target, 40, c.radius);
    }
    return ksDxfCloseOutput(target) && ok;
}

// Bytes of one pass, counted in memory.
size_t passBytes(uint8_t fileType)
{
    char* data = nullptr;
    size_t size = 0;
    auto target = std::make_unique<ksFcb>();
    target->fileType = fileType;
    target->outputVersion = ksAC1015;
    target->outputFile = open_memstream(&data, &size);
    writeCircles(target.get());
    std::fclose(target->outputFile);
    std::free(data);
    return size;
}

void writeStream(benchmark::State& state, uint8_t fileType)
{
    ksDxfSetFormat(0, 6, 0);
    const auto path = state.range(0) == 0
                          ? std::filesystem::path("/dev/null")
                          : std::filesystem::temp_directory_path() / "zemacad_bench_dxfwrite.dxf";
    const size_t bytes = passBytes(fileType);
    auto target = std::make_unique<ksFcb>();
    target->fileType = fileType;
    target->outputVersion = ksAC1015;
    for (auto _ : state) {
        target->outputFile = ksFileOpen(path.c_str(), "w+b");
        if (target->outputFile == nullptr || !writeCircles(target.get()))
            state.SkipWithError("the stream could not be written");
        ksFileCloseOutput(target->outputFile);
    }
    if (state.range(0) != 0)
        std::filesystem::remove(path);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void DxfWriteAscii(benchmark::State& state) { writeStream(state, 1); }
void DxfWriteBinary(benchmark::State& state) { writeStream(state, 2); }

void DxfFormatReal(benchmark::State& state)
{
    ksDxfSetFormat(0, 6, 0);
    const bool full = state.range(0) != 0;
    char text[ksDxfRealTextMax];
    for (auto _ : state) {
        size_t total = 0;
        for (const Circle& c : circles())
            total += full ? ksDxfFormatRealFull(c.center.x, text) : ksDxfFormatReal(c.center.x, text);
        benchmark::DoNotOptimize(total);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRecords));
}

void SnprintfReal(benchmark::State& state)
{
    char text[64];
    for (auto _ : state) {
        size_t total = 0;
        for (const Circle& c : circles())
            total += static_cast<size_t>(std::snprintf(text, sizeof text, "%.6f", c.center.x));
        benchmark::DoNotOptimize(total);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRecords));
}

// ---- A whole save ------------------------------------------------------------

constexpr uint32_t kDrawingEntities = 200'000;

union AnyBody {
    ksEntityBody e;
    ksLwpolyline lwpolyline;
};

// A drawing of five layers and a block with attribute definitions, filled
// with a repeating mix of LINE, CIRCLE, ARC, LWPOLYLINE, TEXT, POINT,
// SOLID and INSERTs with three ATTRIBs each.
class SaveDrawing {
public:
    SaveDrawing() : fcb_(ksNewDrawing(nullptr, nullptr, 0, ksAC1015)) { ok_ = fcb_ != nullptr && build(); }
    SaveDrawing(const SaveDrawing&) = delete;
    SaveDrawing& operator=(const SaveDrawing&) = delete;

    ksFcb* fcb() const { return ok_ ? fcb_ : nullptr; }

private:
    static void setText(char* out, const char* text) { std::memcpy(out, text, std::strlen(text) + 1); }

    ksEntityBody& begin(int16_t type, const ksObjHandle& layer)
    {
        ksEntityDefaults(&head_, &body_.e, type);
        ksHandleNext(fcb_, &head_.handle);
        head_.layerHandle = layer;
        head_.linetypeHandle = fcb_->byLayerHandle;
        return body_.e;
    }
    bool put() { return ksEntityAppend(fcb_, list_, &head_, &body_) != 0; }

    ksObjHandle addLayer(const char* name, int16_t color)
    {
        ksLayer record;
        ksLayerDefaults(fcb_, &record);
        setText(record.name, name);
        record.ownerHandle = fcb_->layerControlHandle;
        record.color = color;
        ksHandleNext(fcb_, &record.entryHandle);
        return ksLayerAdd(fcb_, &record) ? record.entryHandle : ksObjHandle{};
    }

    bool addDoorBlock()
    {
        ksBlockHeader record;
        ksBlockHeaderDefaults(&record);
        setText(record.name, "DOOR");
        record.ownerHandle = fcb_->blockControlHandle;
        ksHandleNext(fcb_, &record.entryHandle);
        record.entities = ksListNew();
        if (record.entities == 0 || !ksBlockHeaderAdd(fcb_, &record))
            return false;
        door_ = record.entryHandle;
        list_ = record.entities;
        setText(begin(ksEntBlock, layers_[0]).block.name, "DOOR");
        bool ok = put();
        ksEntityBody* b = &begin(ksEntLine, layers_[0]);
        b->line.end = {1.0, 0.0, 0.0};
        ok = ok && put();
        for (const char* tag : {"NUMBER", "WIDTH", "FIRE_RATING"}) {
            b = &begin(ksEntAttdef, layers_[0]);
            b->attdef.height = 0.2;
            b->attdef.styleHandle = ksFirstStyleHandle(fcb_);
            setText(b->attdef.tag, tag);
            setText(b->attdef.prompt, tag);
            ok = ok && put();
        }
        begin(ksEntEndblk, layers_[0]);
        return ok && put();
    }

    bool addDoor(double x, double y, uint32_t i)
    {
        ksEntityBody& b = begin(ksEntInsert, layers_[1]);
        b.insert.blockHandle = door_;
        b.insert.hasAttributes = 1;
        b.insert.insertion = {x, y, 0.0};
        b.insert.rotation = (i % 4) * 1.5707963267948966;
        if (!put())
            return false;
        const char* tags[] = {"NUMBER", "WIDTH", "FIRE_RATING"};
        for (int a = 0; a < 3; ++a) {
            ksEntityBody& t = begin(ksEntAttrib, layers_[1]);
            t.attrib.insertion = {x + 0.2, y + 0.3 - 0.3 * a, 0.0};
            t.attrib.height = 0.2;
            t.attrib.styleHandle = ksFirstStyleHandle(fcb_);
            setText(t.attrib.tag, tags[a]);
            std::snprintf(t.attrib.value, sizeof t.attrib.value, "D-%u", i);
            if (!put())
                return false;
        }
        begin(ksEntSeqend, layers_[1]);
        return put();
    }

    bool build()
    {
        const char* layerNames[] = {"WALLS", "DOORS", "HIDDEN", "NOTES", "HATCHING"};
        for (int i = 0; i < 5; ++i)
            if (ksHandleIsNull(layers_[i] = addLayer(layerNames[i], static_cast<int16_t>(i + 1))))
                return false;
        if (!addDoorBlock())
            return false;
        list_ = fcb_->modelEntities;
        const int16_t lwpolyline = fcb_->classNumbers.lwpolyline;
        for (uint32_t i = 0; i < kDrawingEntities; ++i) {
            const double x = 200.0 + (i % 1000) * 10.0, y = (i / 1000) * 10.0;
            const ksObjHandle& layer = layers_[i / 10 % 5];
            bool ok = true;
            switch (i % 10) {
                case 0: case 1: case 2: {
                    ksEntityBody& b = begin(ksEntLine, layer);
                    b.line.start = {x, y, 0.0};
                    b.line.end = {x + 8.0, y + 2.0 * (i % 3), 0.0};
                    ok = put();
                    break;
                }
                case 3: {
                    ksEntityBody& b = begin(ksEntCircle, layer);
                    b.circle.center = {x + 4.0, y + 4.0, 0.0};
                    b.circle.radius = 1.0 + (i % 7) * 0.25;
                    ok = put();
                    break;
                }
                case 4: {
                    ksEntityBody& b = begin(ksEntArc, layer);
                    b.arc.center = {x + 4.0, y + 4.0, 0.0};
                    b.arc.radius = 3.0;
                    b.arc.startAngle = 0.1 * (i % 31);
                    b.arc.endAngle = b.arc.startAngle + 2.0;
                    ok = put();
                    break;
                }
                case 5: {
                    begin(lwpolyline, layer);
                    ksClassEntityDefaults(fcb_, lwpolyline, &body_);
                    const ksLwVertex path[] = {{{x, y}, 0, 0, 0}, {{x + 8, y}, 0, 0, 0},
                                               {{x + 8, y + 8}, 0.25, 0, 0}, {{x, y + 8}, 0, 0, 0}};
                    body_.lwpolyline.flags = ksLwClosed;
                    ok = ksLwpolylineSetVertices(&body_.lwpolyline, path, 4) && put();
                    break;
                }
                case 6: {
                    ksEntityBody& b = begin(ksEntText, layers_[3]);
                    b.text.insertion = {x, y + 1.0, 0.0};
                    b.text.height = 1.5;
                    b.text.styleHandle = ksFirstStyleHandle(fcb_);
                    std::snprintf(b.text.text, sizeof b.text.text, "T%u", i);
                    ok = put();
                    break;
                }
                case 7: {
                    ksEntityBody& b = begin(ksEntPoint, layer);
                    b.point.position = {x + 2.0, y + 6.0, 0.0};
                    ok = put();
                    break;
                }
                case 8: ok = addDoor(x + 1.0, y + 1.0, i); break;
                default: {
                    ksEntityBody& b = begin(ksEntSolid, layers_[4]);
                    b.trace.corner1 = {x, y, 0.0};
                    b.trace.corner2 = {x + 3.0, y, 0.0};
                    b.trace.corner3 = {x, y + 3.0, 0.0};
                    b.trace.corner4 = {x + 3.0, y + 3.0, 0.0};
                    ok = put();
                    break;
                }
            }
            if (!ok)
                return false;
        }
        return true;
    }

    ksFcb* fcb_;
    bool ok_ = false;
    ksLoc list_ = 0;
    ksEntityHeader head_{};
    AnyBody body_{};
    ksObjHandle layers_[5] = {};
    ksObjHandle door_{};
};

void DxfSaveDrawing(benchmark::State& state)
{
    // Built by the first run and kept by all: the toolkit is shut down
    // before static objects go, so the drawing is never closed.
    static const SaveDrawing* drawing = new SaveDrawing;
    ksFcb* fcb = drawing->fcb();
    if (fcb == nullptr) {
        state.SkipWithError("the drawing could not be built");
        return;
    }
    const int16_t version = static_cast<int16_t>(state.range(0) % 100);
    const int16_t fileType = state.range(0) >= 100 ? 2 : 1;
    const auto path = std::filesystem::temp_directory_path() / "zemacad_bench_save.dxf";
    if (!ksSaveDrawing(fcb, path.c_str(), fileType, version, 0, 6, 1, 0)) {
        state.SkipWithError("the drawing could not be saved");
        return;
    }
    const auto bytes = std::filesystem::file_size(path);
    std::filesystem::remove(path);
    for (auto _ : state) {
        if (!ksSaveDrawing(fcb, "/dev/null", fileType, version, 0, 6, 1, 0))
            state.SkipWithError("the drawing could not be saved");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

}  // namespace

BENCHMARK(DxfWriteAscii)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(DxfWriteBinary)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(DxfFormatReal)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(SnprintfReal)->Unit(benchmark::kMillisecond);
BENCHMARK(DxfSaveDrawing)->Arg(ksAC1009)->Arg(ksAC1014)->Arg(ksAC1015)->Arg(100 + ksAC1015)->Unit(benchmark::kMillisecond);
