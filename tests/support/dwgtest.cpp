#include "support/dwgtest.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "driver/hooks.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/loadphases.h"
#include "frame/readerops.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/tables.h"
#include "store/handles.h"

namespace zt {

namespace {

std::string upper(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

uint64_t hexOf(const std::string& s) { return std::strtoull(s.c_str(), nullptr, 16); }

}  // namespace

const std::string* DxfRecord::find(int code, const char* subclass) const
{
    bool application = false, inside = subclass != nullptr && *subclass == 0;
    for (const DxfGroup& g : groups) {
        if (g.code == 102)
            application = g.value.starts_with("{");
        else if (g.code == 100 && subclass)
            inside = g.value == subclass;
        else if (g.code == code && !application && (subclass == nullptr || inside))
            return &g.value;
    }
    return nullptr;
}

std::string DxfRecord::text(int code, const char* subclass) const
{
    const std::string* v = find(code, subclass);
    return v ? *v : std::string();
}

uint64_t DxfRecord::hex(int code, const char* subclass) const { return hexOf(text(code, subclass)); }

uint64_t DxfRecord::handle() const
{
    for (const DxfGroup& g : groups)
        if (g.code == 5 || g.code == 105)
            return hexOf(g.value);
    return 0;
}

std::vector<uint64_t> DxfRecord::reactors() const
{
    std::vector<uint64_t> out;
    bool inside = false;
    for (const DxfGroup& g : groups) {
        if (g.code == 102)
            inside = g.value == "{ACAD_REACTORS";
        else if (inside && g.code == 330)
            out.push_back(hexOf(g.value));
    }
    return out;
}

std::vector<std::pair<std::string, uint64_t>> DxfRecord::items() const
{
    std::vector<std::pair<std::string, uint64_t>> out;
    std::string name;
    for (const DxfGroup& g : groups) {
        if (g.code == 3)
            name = g.value;
        else if (g.code == 350 || g.code == 360)
            out.emplace_back(name, hexOf(g.value));
    }
    return out;
}

DxfFile::DxfFile(const fs::path& file)
{
    const std::vector<uint8_t> bytes = readFile(file);
    version = ksSniffBytes(std::span(bytes).first(std::min(bytes.size(), ksSniffSize))).version;
    std::vector<std::string> lines(1);
    for (uint8_t b : bytes) {
        if (b == '\n')
            lines.emplace_back();
        else if (b != '\r')
            lines.back() += static_cast<char>(b);
    }
    std::vector<DxfRecord>* records = nullptr;
    DxfRecord* record = nullptr;
    bool named = false, header = false;  // the next group 2 names a section; in HEADER
    for (size_t i = 0; i + 1 < lines.size(); i += 2) {
        const int code = std::atoi(lines[i].c_str());
        std::string& v = lines[i + 1];
        v.erase(0, v.find_first_not_of(" \t"));
        v.erase(v.find_last_not_of(" \t") + 1);
        if (code == 0) {
            named = v == "SECTION";
            if (named || v == "ENDSEC" || v == "EOF")
                records = nullptr, record = nullptr;
            else if (records)
                record = &records->emplace_back(DxfRecord{v, {}});
        } else if (named && code == 2) {
            named = false, header = v == "HEADER";
            records = &sections[v];
        } else if (header && code == 9) {
            record = &vars[v.substr(1)];
            record->type = v.substr(1);
        } else if (record) {
            record->groups.push_back({code, std::move(v)});
        }
    }
    for (const DxfRecord& r : section("TABLES")) {
        entries[r.type + "/" + upper(r.text(2))] = r.handle();
        // The true name of a renamed block record: an extended data text.
        for (size_t i = 0; i + 1 < r.groups.size(); ++i)
            if (r.groups[i].code == 1001 && r.groups[i].value == "ACDBDYNAMICBLOCKTRUENAME2")
                entries[r.type + "/" + upper(r.groups[i + 1].value)] = r.handle();
    }
}

const std::vector<DxfRecord>& DxfFile::section(const std::string& name) const
{
    static const std::vector<DxfRecord> none;
    const auto it = sections.find(name);
    return it == sections.end() ? none : it->second;
}

uint64_t DxfFile::entry(const std::string& table, const std::string& name) const
{
    const auto it = entries.find(table + "/" + upper(name));
    return it == entries.end() ? 0 : it->second;
}

uint64_t DxfFile::member(uint64_t dictionary, const std::string& name) const
{
    for (const DxfRecord& r : section("OBJECTS")) {
        if (r.handle() != dictionary)
            continue;
        for (const auto& [item, handle] : r.items())
            if (item == name)
                return handle;
    }
    return 0;
}

std::string DxfFile::var(const std::string& name) const
{
    const auto it = vars.find(name);
    return it == vars.end() || it->second.groups.empty() ? std::string() : it->second.groups[0].value;
}

std::string fieldDiffers(const DxfFile& dxf, const void* field, int kind, int index, const std::string& value,
                         double tolerance, int mask)
{
    const double v = std::atof(value.c_str());
    auto integer = [&](auto ours) { return (ours & mask) == (decltype(ours)(v) & mask) ? "" : std::to_string(ours); };
    auto real = [&](double ours, double want) {
        return std::fabs(ours - want) <= tolerance * std::max(1.0, std::fabs(want)) ? "" : std::to_string(ours);
    };
    auto handle = [&](uint64_t want) {
        const uint64_t ours = ksHandleToU64(*static_cast<const ksObjHandle*>(field));
        return ours == want ? "" : std::to_string(ours);
    };
    switch (kind) {
    case ksTfByte: return integer(*static_cast<const int8_t*>(field));
    case ksTfShort: return integer(*static_cast<const int16_t*>(field));
    case ksTfLong: return integer(*static_cast<const int32_t*>(field));
    case ksTfReal:
    case ksTfDashStart: return real(*static_cast<const double*>(field), v);
    case ksTfAngle: return real(*static_cast<const double*>(field), v * std::numbers::pi / 180);
    case ksTfText:
    case ksTfCodedText: return value == static_cast<const char*>(field) ? "" : static_cast<const char*>(field);
    case ksTfHandle: return handle(hexOf(value));
    case ksTfNameRef: return handle(dxf.entry(index == ksTableBlock ? "BLOCK_RECORD" : ksTableNames[index], value));
    case ksEfBit: return ((*static_cast<const int8_t*>(field) & index) != 0) == (v != 0) ? "" : "not so";
    default: return "";
    }
}

const std::vector<DrawingPair>& drawingPairs()
{
    // Exporters that computed the extents anew; one without ATTDIA in its
    // drawings writes its own.
    const std::vector<std::string> extents = {"EXTMIN", "EXTMAX"};
    static const std::vector<DrawingPair> pairs = {
        {"dwg/AC1012/example_r13.dwg", "dxf/AC1012/libredwg_example_r13.dxf"},
        {"dwg/AC1014/example_r14.dwg", "dxf/AC1014/libredwg_example_r14.dxf", true, false, {"ATTDIA"}},
        {"dwg/AC1014/v.dwg", "dxf/AC1012/v.dxf", true, true},
        {"dwg/AC1015/Constraints.dwg", "dxf/AC1015/Constraints.dxf"},
        {"dwg/AC1015/circle_2000.dwg", "dxf/AC1015/circle_2000.dxf"},
        {"dwg/AC1015/line_2000.dwg", "dxf/AC1015/line_2000.dxf"},
        {"dwg/AC1015/mtext_2000.dwg", "dxf/AC1015/mtext_2000.dxf"},
        {"dwg/AC1015/point2d_2000.dwg", "dxf/AC1015/point2d_2000.dxf"},
        {"dwg/AC1015/polyline2d_line_2000.dwg", "dxf/AC1015/polyline2d_line_2000.dxf"},
        {"dwg/AC1015/text_2000.dwg", "dxf/AC1015/text_2000.dxf"},
        {"dwg/AC1015/libredwg_entities-2d.dwg", "dxf/AC1015/libredwg_entities-2d.dxf", true, true},
        {"dwg/AC1015/libredwg_2000_entities-2d.dwg", "dxf/AC1015/libredwg_2000_entities-2d.dxf", false, true},
        {"dwg/AC1015/libredwg_2000_entities-3d.dwg", "dxf/AC1015/libredwg_2000_entities-3d.dxf", false, true},
        {"dwg/AC1015/libredwg_test-data_example_2000.dwg", "dxf/AC1015/libredwg_test-data_example_2000.dxf",
         true, false, extents},
        {"dwg/AC1015/libredwg_sample_2000.dwg", "dxf/AC1015/libredwg_sample_2000.dxf", true, false, extents},
        {"dwg/AC1015/TS1.dwg", "dxf/AC1015/libredwg_TS1.dxf", true, false, extents},
        // Linetypes with dashes and texts, a view with its own UCS.
        {"dwg/AC1015/acadsharp_sample_AC1015.dwg", "dxf/AC1015/acadsharp_sample_AC1015_ascii.dxf", false},
        {"dwg/AC1015/acadsharp_samples_sample_AC1015.dwg",
         "dxf/AC1015/acadsharp_samples_sample_AC1015_ascii.dxf", false},
    };
    return pairs;
}

std::vector<std::string> corpusDwgs()
{
    std::vector<std::string> out;
    for (const CorpusEntry& e : corpusManifest())
        if (e.path.starts_with("dwg/") && (e.version == "AC1012" || e.version == "AC1014" || e.version == "AC1015"))
            out.push_back(e.path);
    return out;
}

void DwgLoadTest::SetUp()
{
    ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
    ksInstallDwgReader();
}

void DwgLoadTest::TearDown()
{
    if (fcb)
        ksCloseDrawing(fcb);
    fcb = nullptr;
    ToolkitTest::TearDown();
}

std::string DwgLoadTest::open(const fs::path& file, DwgPhases upto)
{
    // The load's order and error numbers, the entity phases left out.
    static constexpr struct {
        int16_t error;
        int16_t (*run)(ksFcb*);
    } kPhases[] = {
        {45, ksLoadLinetypes}, {46, ksLoadLayers},     {47, ksLoadClasses},      {48, ksLoadVports},
        {49, ksLoadUcses},     {50, ksLoadRegApps},    {51, ksLoadViews},        {52, ksLoadShapeFiles},
        {54, ksLoadBlockHeaders}, {53, ksLoadDimStyles}, {56, ksLoadObjects},
    };
    if (fcb)
        ksCloseDrawing(fcb);
    fcb = ksNewFcb();
    fcb->header = static_cast<ksHeader*>(ksMemAlloc(sizeof(ksHeader)));
    ksHeaderSetDefaults(fcb->header);
    std::snprintf(fcb->fileName, sizeof fcb->fileName, "%s", file.c_str());
    if ((fcb->file = ksFileOpenRead(fcb->fileName)) == nullptr)
        return "open";
    fcb->fileVersion = ksSniffBytes(readFile(file, ksSniffSize)).version;
    fcb->ops = &ksG->dwgOps;
    fcb->loading = 1;
    ksResetHeaderReferences();
    ksG->errorNumber = 22;
    if (!ksOpReadHeader(fcb))
        return "header, error " + std::to_string(ksG->errorNumber);
    fcb->nextHandle = fcb->handleSeed;
    const size_t phases = upto == DwgPhases::header ? 0 : upto == DwgPhases::tables ? 10 : 11;
    for (size_t i = 0; i < phases; ++i) {
        ksG->errorNumber = kPhases[i].error;
        if (!kPhases[i].run(fcb))
            return "phase, error " + std::to_string(ksG->errorNumber);
    }
    return {};
}

ksBitWriter& DwgImage::begin(int16_t type, uint64_t handle, bool entity, ksLoc graphic)
{
    map.push_back({handle, uint32_t(image.size())});
    EXPECT_EQ(ksBeginObject(w, type, ksHandleFromU64(handle), 0, 0, graphic, entity), 1);
    return w;
}

void DwgImage::entity(int16_t type, uint64_t handle, const Write& data, const Write& handles, const EntityForm& form)
{
    const bool r2000 = version >= ksAC1015;
    begin(type, handle, true, form.graphic);
    ksWriteBits(w, uint64_t(form.mode), 2), ksWriteBL(w, 0);
    if (!r2000)
        ksWriteBit(w, 1);
    ksWriteBit(w, form.noLinks), ksWriteBS(w, 256), ksWriteBD(w, 1.0);
    if (r2000)
        ksWriteBits(w, 0, 4);
    ksWriteBS(w, 0);
    if (r2000)
        ksWriteRC(w, 29);
    data(w);
    ksMarkHandles(w);
    if (form.mode == 0)
        ksWriteHandle(w, ksHandleFromU64(0x1F), 0x40);
    ksWriteHandle(w, ksHandleFromU64(0), 0x30);
    // R2000 has the links in front of the layer, the others behind it.
    for (int i = 0; i < 2; ++i) {
        if (i == int(r2000))
            ksWriteHandle(w, ksHandleFromU64(0x10), 0x50);
        else if (!form.noLinks)
            ksWriteHandle(w, ksHandleFromU64(handle - 1), 0x40), ksWriteHandle(w, ksHandleFromU64(form.next), 0x40);
    }
    if (handles)
        handles(w);
    end();
}

void DwgImage::end() { EXPECT_EQ(ksEndObject(w, ksVectorSink(image)), 1); }

void DwgImage::install(ksDwgState& st) const
{
    st.image = image;
    st.image.resize(image.size() + 8);
    st.size = uint32_t(image.size());
    st.map = map;
    std::ranges::sort(st.map, {}, &ksDwgMapEntry::handle);
}

}  // namespace zt
