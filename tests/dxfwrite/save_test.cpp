// Whole DXF files: a drawing made in memory, with a few records added,
// saved in every release and both forms, then read by an independent
// reader (ezdxf, through the shared dxfcheck tool and a small script) for
// its audit, its table counts and header values; the bytes every file
// must start and end with; the order of sections and tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "dxfwrite/dxfwrite.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/load.h"
#include "frame/newdrawing.h"
#include "frame/save.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/tables.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

namespace fs = std::filesystem;

const char* const kPython = "/usr/bin/python3";

// Prints NAME=VALUE for header variables and table names ezdxf reads back.
const char* const kReadBack = R"(
import sys, ezdxf
doc = ezdxf.readfile(sys.argv[1])
for name in sys.argv[2:]:
    if name.startswith("$"):
        v = doc.header.get(name, None)
        print(name + "=" + ("" if v is None else str(v)))
print("blocks=" + ",".join(sorted(b.name.upper() for b in doc.blocks)))
print("layers=" + ",".join(sorted(l.dxf.name.upper() for l in doc.layers)))
)";

bool haveEzdxf()
{
    static const bool have = zt::runCommand(kPython, {"-c", "import ezdxf"}).status == 0;
    return have;
}

fs::path dxfcheck() { return zt::sourceDir() / ".." / "shared" / "tools" / "dxfcheck"; }

int jsonCount(const std::string& json, const std::string& key)
{
    std::smatch m;
    return std::regex_search(json, m, std::regex("\"" + key + "\": (\\d+)")) ? std::stoi(m[1]) : -1;
}

class DxfSave : public zt::ToolkitTest {
protected:
    zt::TempDir dir;
    ksFcb* fcb = nullptr;
    uint64_t next = 0x400;
    ksObjHandle anonymousBlock{};

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ASSERT_NE(fcb = ksNewDrawing(nullptr, nullptr, 0, ksAC1015), nullptr);
        addRecords();
    }
    void TearDown() override
    {
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
        ToolkitTest::TearDown();
    }

    ksObjHandle handle() { return ksHandleFromU64(next++); }

    // Two layers (one with a blank and parentheses), a dashed linetype, a
    // text style, a named and an anonymous block with a LINE each, and a
    // LINE in model space.
    void addRecords()
    {
        for (const char* name : {"Walls", "Doors (old)"}) {
            ksLayer layer;
            ksLayerDefaults(fcb, &layer);
            std::strcpy(layer.name, name);
            layer.entryHandle = handle();
            ASSERT_EQ(ksLayerAdd(fcb, &layer), 1);
        }
        ksLinetype dashed;
        ksLinetypeDefaults(&dashed);
        std::strcpy(dashed.name, "Dashed");
        std::strcpy(dashed.description, "__ __ __");
        dashed.dashCount = 2;
        dashed.patternLength = 0.75;
        dashed.dashes[0].length = 0.5;
        dashed.dashes[1].length = -0.25;
        dashed.entryHandle = handle();
        ASSERT_EQ(ksLinetypeAdd(fcb, &dashed), 1);
        ksStyle style;
        ksStyleDefaults(&style);
        std::strcpy(style.name, "Notes");
        std::strcpy(style.fontFile, "romans.shx");
        style.entryHandle = handle();
        ASSERT_EQ(ksStyleAdd(fcb, &style), 1);
        addBlock("Door");
        addBlock("*U7");
        addLine(fcb->modelEntities);
        ksLayerFind(fcb, "Walls", &fcb->header->CLAYER);
        fcb->header->LTSCALE = 2.5;
        fcb->header->ANGBASE = 3.14159265358979 / 2;
        fcb->header->INSBASE = {1.5, -2.0, 0.25};
    }
    void addBlock(const char* name)
    {
        ksBlockHeader block;
        ksBlockHeaderDefaults(&block);
        std::strcpy(block.name, name);
        block.entryHandle = handle();
        ASSERT_EQ(ksBlockHeaderAdd(fcb, &block), 1);
        anonymousBlock = block.entryHandle;
        const ksLoc list = ksBlockEntityList(fcb, block.entryHandle);
        addEntity(list, ksEntBlock);
        addLine(list);
        addEntity(list, ksEntEndblk);
    }
    void addEntity(ksLoc list, int16_t type, const ksEntityBody* with = nullptr)
    {
        ksEntityHeader h{};
        ksEntityBody b{};
        h.type = type;
        ksEntityDefaults(fcb, &h, &b);
        if (with)
            b = *with;
        h.handle = handle();
        ASSERT_EQ(ksEntityAppend(fcb, list, &h, &b), 1);
    }
    void addLine(ksLoc list)
    {
        ksEntityBody b{};
        b.line = {{0, 0, 0}, {10, 5, 0}};
        addEntity(list, ksEntLine, &b);
    }

    fs::path save(int16_t form, int16_t version)
    {
        std::string name = std::to_string(version);
        name += form == 2 ? "b.dxf" : "a.dxf";
        const fs::path path = dir / name;
        EXPECT_EQ(ksSaveDrawing(fcb, path.string().c_str(), form, version, 0, 6, 1, 1), 1)
            << "version " << version << " form " << form << " error " << ksErrorNumber();
        return path;
    }
    uint32_t count(ksTableList table) { return ksTableCount(fcb, table); }
};

// The group values of an ASCII file, codes dropped.
std::vector<std::string> asciiValues(const fs::path& path)
{
    const auto bytes = zt::readFile(path);
    std::vector<std::string> lines;
    std::string line;
    for (uint8_t c : bytes) {
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else if (c != '\r') {
            line += static_cast<char>(c);
        }
    }
    std::vector<std::string> values;
    for (size_t i = 1; i < lines.size(); i += 2)
        values.push_back(lines[i]);
    return values;
}

TEST_F(DxfSave, EveryReleaseAndFormReadsCleanWithTheTablesWritten)
{
    if (!haveEzdxf() || !fs::exists(dxfcheck()))
        GTEST_SKIP() << "ezdxf for /usr/bin/python3 or shared/tools/dxfcheck not available";
    for (int16_t version = 0; version < ksVersionCount; ++version) {
        for (int16_t form : {1, 2}) {
            SCOPED_TRACE("version " + std::to_string(version) + " form " + std::to_string(form));
            const fs::path path = save(form, version);
            const auto r = zt::runCommand(kPython, {dxfcheck().string(), path.string(), "--json"});
            EXPECT_EQ(r.status, 0) << r.out << r.err;
            // ezdxf adds the Defpoints layer, and to files below R13 the two
            // fixed linetypes and the two space blocks, which those don't hold.
            const int layers = jsonCount(r.out, "layers");
            EXPECT_TRUE(layers == int(count(ksListLayers)) || layers == int(count(ksListLayers)) + 1) << r.out;
            EXPECT_EQ(jsonCount(r.out, "linetypes"), int(count(ksListLinetypes))) << r.out;
            EXPECT_EQ(jsonCount(r.out, "styles"), int(count(ksListShapeFiles))) << r.out;
            // Reading R13 and R14, ezdxf upgrades to R2000 and adds its arrow blocks.
            const int blocks = jsonCount(r.out, "blocks");
            if (version == ksAC1012 || version == ksAC1014)
                EXPECT_GE(blocks, int(count(ksListBlockHeaders))) << r.out;
            else
                EXPECT_EQ(blocks, int(count(ksListBlockHeaders))) << r.out;
        }
    }
}

TEST_F(DxfSave, FilesStartWithTheirSectionAndVersionAndEndWithEof)
{
    for (int16_t version = 0; version < ksVersionCount; ++version) {
        const std::string acadver = ksVersionNames[version];
        const auto ascii = zt::readFile(save(1, version));
        const std::string text(ascii.begin(), ascii.end());
        EXPECT_EQ(text.rfind("  0\r\nSECTION\r\n  2\r\nHEADER\r\n  9\r\n$ACADVER\r\n  1\r\n" + acadver + "\r\n", 0), 0u)
            << acadver;
        EXPECT_TRUE(text.ends_with("  0\r\nENDSEC\r\n  0\r\nEOF\r\n")) << acadver;

        const auto binary = zt::readFile(save(2, version));
        const std::string bytes(binary.begin(), binary.end());
        // One-byte codes below R13, two bytes from it on.
        const std::string code0 = version < ksAC1012 ? std::string(1, '\0') : std::string(2, '\0');
        const std::string code9 = version < ksAC1012 ? std::string("\x09") : std::string("\x09\0", 2);
        const std::string code1 = version < ksAC1012 ? std::string("\x01") : std::string("\x01\0", 2);
        const std::string head = std::string("AutoCAD Binary DXF\r\n\x1A\0", 22) + code0 + std::string("SECTION\0", 8);
        EXPECT_EQ(bytes.rfind(head, 0), 0u) << acadver;
        EXPECT_NE(bytes.find(code9 + std::string("$ACADVER\0", 9) + code1 + acadver + '\0'), std::string::npos);
        EXPECT_TRUE(bytes.ends_with(code0 + std::string("EOF\0", 4))) << acadver;
        EXPECT_EQ(bytes.find("\r\n", 22), std::string::npos) << acadver;
    }
}

TEST_F(DxfSave, SectionsAndTablesStandInTheOrderOfTheRelease)
{
    struct Row {
        int16_t version;
        std::vector<std::string> sections, tables;
    };
    const std::vector<std::string> oldSections = {"HEADER", "TABLES", "BLOCKS", "ENTITIES"};
    const std::vector<std::string> newSections = {"HEADER", "CLASSES", "TABLES", "BLOCKS", "ENTITIES", "OBJECTS"};
    const Row rows[] = {
        {0, oldSections, {"LTYPE", "LAYER", "STYLE", "VIEW"}},
        {3, oldSections, {"VPORT", "LTYPE", "LAYER", "STYLE", "VIEW", "UCS"}},
        {4, oldSections, {"VPORT", "LTYPE", "LAYER", "STYLE", "VIEW", "UCS", "APPID", "DIMSTYLE"}},
        {5, newSections,
         {"VPORT", "LTYPE", "LAYER", "STYLE", "VIEW", "UCS", "APPID", "DIMSTYLE", "BLOCK_RECORD"}},
        {7, newSections,
         {"VPORT", "LTYPE", "LAYER", "STYLE", "VIEW", "UCS", "APPID", "DIMSTYLE", "BLOCK_RECORD"}},
    };
    for (const Row& row : rows) {
        const auto values = asciiValues(save(1, row.version));
        std::vector<std::string> sections, tables;
        for (size_t i = 0; i + 1 < values.size(); ++i) {
            if (values[i] == "SECTION")
                sections.push_back(values[i + 1]);
            if (values[i] == "TABLE")
                tables.push_back(values[i + 1]);
        }
        EXPECT_EQ(sections, row.sections) << row.version;
        EXPECT_EQ(tables, row.tables) << row.version;
    }
}

TEST_F(DxfSave, HeaderAndNamesReadBackThroughAnIndependentReader)
{
    if (!haveEzdxf())
        GTEST_SKIP() << "ezdxf for /usr/bin/python3 not available";
    // The anonymous block takes its place in the block list as its number.
    int32_t index = -1;
    ASSERT_NE(ksDxfTableName(fcb, ksListBlockHeaders, anonymousBlock, &index), nullptr);
    const std::string anonymous = "*U" + std::to_string(index);
    for (int16_t version : {3, 4, 6, 7}) {
        for (int16_t form : {1, 2}) {
            SCOPED_TRACE("version " + std::to_string(version) + " form " + std::to_string(form));
            const fs::path path = save(form, version);
            const auto r = zt::runCommand(kPython, {"-c", kReadBack, path.string(), "$ACADVER", "$CLAYER",
                                                    "$LTSCALE", "$ANGBASE", "$INSBASE", "$HANDSEED", "$TEXTSTYLE"});
            ASSERT_EQ(r.status, 0) << r.err;
            std::map<std::string, std::string> seen;
            std::smatch m;
            for (std::string rest = r.out; std::regex_search(rest, m, std::regex("([^\n=]+)=([^\n]*)\n"));
                 rest = m.suffix())
                seen[m[1]] = m[2];
            // ezdxf reads the releases before R12 as R12 and R14 as R2000.
            EXPECT_EQ(seen["$ACADVER"], ksVersionNames[std::max<int16_t>(version == 6 ? 7 : version, 4)]);
            EXPECT_EQ(seen["$CLAYER"], version >= 7 ? "Walls" : "WALLS");
            EXPECT_EQ(seen["$LTSCALE"], "2.5");
            EXPECT_NEAR(std::stod(seen["$ANGBASE"]), 90.0, 1e-9);
            EXPECT_EQ(seen["$INSBASE"], "(1.5, -2.0, 0.25)");
            EXPECT_EQ(seen["$TEXTSTYLE"], version >= 7 ? "Standard" : "STANDARD");
            // Below R14 two handles more, for the expansion of LWPOLYLINEs.
            EXPECT_EQ(std::stoull(seen["$HANDSEED"], nullptr, 16),
                      ksHandleToU64(fcb->nextHandle) + (version < ksAC1014 ? 2 : 0));
            EXPECT_NE(seen["blocks"].find("DOOR"), std::string::npos) << seen["blocks"];
            EXPECT_NE(seen["blocks"].find(anonymous), std::string::npos) << seen["blocks"];
            EXPECT_NE(seen["layers"].find(version >= 7 ? "DOORS (OLD)" : "DOORS__OLD_"), std::string::npos)
                << seen["layers"];
        }
    }
}

TEST_F(DxfSave, ProgressRisesThroughTheSectionsAndNoticesDropNothingHere)
{
    static std::vector<int> seen;
    seen.clear();
    ksSetSaveProgress([](int16_t percent) { seen.push_back(percent); });
    for (int16_t version : {4, 7}) {
        seen.clear();
        save(1, version);
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(seen.front(), 0);
        EXPECT_EQ(seen.back(), 100);
        EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end())) << version;
        EXPECT_NE(std::find(seen.begin(), seen.end(), version < ksAC1012 ? 40 : 48), seen.end());
    }
}

}  // namespace
