// Names at both ends of a reference: a drawing with long names, names that
// need cleaning and a block of an external reference whose symbols leave
// it little room, saved below R2000; every name that an entity, a table
// record or the header uses must stand in its table as the file has it.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "frame/fcb.h"
#include "frame/newdrawing.h"
#include "frame/save.h"
#include "records/entity.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/tablelist.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

namespace fs = std::filesystem;

// The independent reader's check of a file: 0 read with no audit errors.
fs::path dxfcheck() { return zt::sourceDir() / ".." / "shared" / "tools" / "dxfcheck"; }
bool haveDxfcheck()
{
    static const bool have =
        fs::exists(dxfcheck()) && zt::runCommand("/usr/bin/python3", {"-c", "import ezdxf"}).status == 0;
    return have;
}

constexpr const char* kXrefBlock = "SOMEXREF";
constexpr const char* kDependentBlock = "SOMEXREF|A_VERY_LONG_BLOCK_NAME_BEYOND_THIRTY_ONE_CHARS";

struct Group {
    int code;
    std::string value;
};

// The groups of an ASCII file.
std::vector<Group> groupsOf(const fs::path& path)
{
    const auto bytes = zt::readFile(path);
    std::vector<std::string> lines(1);
    for (uint8_t c : bytes) {
        if (c == '\n')
            lines.emplace_back();
        else if (c != '\r')
            lines.back() += static_cast<char>(c);
    }
    std::vector<Group> groups;
    for (size_t i = 0; i + 1 < lines.size(); i += 2)
        groups.push_back({std::stoi(lines[i]), lines[i + 1]});
    return groups;
}

// A name as one record or entity uses it: the table it names, and where.
struct Use {
    std::string table, name, where;
};

// The names of the tables and blocks of a file and the names used.
struct Names {
    std::map<std::string, std::set<std::string>> tables;  // "BLOCK" for the BLOCKS section
    std::vector<Use> uses;
};

Names namesOf(const std::vector<Group>& groups)
{
    static const std::map<std::string, std::string> kHeaderUses = {
        {"$CLAYER", "LAYER"},   {"$CELTYPE", "LTYPE"}, {"$TEXTSTYLE", "STYLE"}, {"$DIMTXSTY", "STYLE"},
        {"$DIMSTYLE", "DIMSTYLE"}, {"$DIMBLK", "BLOCK"}, {"$DIMBLK1", "BLOCK"},   {"$DIMBLK2", "BLOCK"},
    };
    // Uses by the record or entity and the code.
    static const std::map<std::pair<std::string, int>, std::string> kUses = {
        {{"LAYER", 6}, "LTYPE"},    {{"DIMSTYLE", 5}, "BLOCK"},     {{"DIMSTYLE", 6}, "BLOCK"},
        {{"DIMSTYLE", 7}, "BLOCK"}, {{"TEXT", 7}, "STYLE"},         {{"INSERT", 2}, "BLOCK"},
        {{"DIMENSION", 2}, "BLOCK"}, {{"DIMENSION", 3}, "DIMSTYLE"}, {{"MLINESTYLE", 6}, "LTYPE"},
        {{"MLINE", 2}, "MLINESTYLE"},
    };
    Names names;
    std::string section, table, record, variable;
    for (size_t i = 0; i < groups.size(); ++i) {
        const auto& [code, value] = groups[i];
        if (code == 0) {
            record = value;
            if (value == "SECTION" && i + 1 < groups.size())
                section = groups[++i].value;
            else if (value == "TABLE" && i + 1 < groups.size())
                table = groups[++i].value;
            continue;
        }
        if (section == "HEADER") {
            if (code == 9)
                variable = value;
            else if (auto use = kHeaderUses.find(variable); use != kHeaderUses.end() && !value.empty())
                names.uses.push_back({use->second, value, variable});
            continue;
        }
        const bool tableRecord = (section == "TABLES" && record == table) || record == "MLINESTYLE";
        if (code == 2 && (tableRecord || (section == "BLOCKS" && record == "BLOCK")))
            names.tables[tableRecord ? record : "BLOCK"].insert(value);
        if (section == "BLOCKS" && record == "BLOCK" && code == 3)
            names.uses.push_back({"BLOCK", value, "BLOCK 3"});
        if (code == 8 && !tableRecord)
            names.uses.push_back({"LAYER", value, record + " 8"});
        if (code == 6 && !tableRecord)
            names.uses.push_back({"LTYPE", value, record + " 6"});
        if (auto use = kUses.find({record, code}); use != kUses.end() && !value.empty())
            names.uses.push_back({use->second, value, record + " " + std::to_string(code)});
    }
    return names;
}

class DxfNames : public zt::ToolkitTest {
protected:
    zt::TempDir dir;
    ksFcb* fcb = nullptr;

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ASSERT_NE(fcb = ksNewDrawing(nullptr, nullptr, 0, ksAC1015), nullptr);
        ASSERT_NO_FATAL_FAILURE(addRecords());
    }
    void TearDown() override
    {
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
        ToolkitTest::TearDown();
    }

    ksObjHandle next()
    {
        ksObjHandle handle;
        ksHandleNext(fcb, &handle);
        return handle;
    }
    template <typename Record, typename Add>
    ksObjHandle add(Record record, const char* name, Add addRecord)
    {
        std::strcpy(record.name, name);
        record.entryHandle = next();
        EXPECT_EQ(addRecord(fcb, &record), 1) << name;
        return record.entryHandle;
    }
    void addEntity(ksLoc list, int16_t type, ksEntityHeader header, const ksEntityBody& body)
    {
        header.type = type;
        header.handle = next();
        ASSERT_EQ(ksEntityAppend(fcb, list, &header, &body), 1) << type;
    }
    ksObjHandle addBlock(const char* name, const ksEntityHeader& header)
    {
        ksBlockHeader block;
        ksBlockHeaderDefaults(&block);
        const ksObjHandle handle = add(block, name, ksBlockHeaderAdd);
        const ksLoc list = ksBlockEntityList(fcb, handle);
        ksEntityBody body{};
        std::strcpy(body.block.name, name);
        addEntity(list, ksEntBlock, header, body);
        body = {};
        body.line = {{0, 0, 0}, {1, 1, 0}};
        addEntity(list, ksEntLine, header, body);
        addEntity(list, ksEntEndblk, header, {});
        return handle;
    }

    // Names beyond 31 characters with blanks and parentheses in every table
    // an entity or the header names, an external reference's block whose
    // layer leaves it 4 characters, and a block that depends on it.
    void addRecords()
    {
        ksLinetype linetype;
        ksLinetypeDefaults(&linetype);
        const ksObjHandle dashed = add(linetype, "Dashed linetype with a long name (x)", ksLinetypeAdd);
        ksLayer layer;
        ksLayerDefaults(fcb, &layer);
        layer.linetypeHandle = dashed;
        const ksObjHandle walls = add(layer, "Layer with a very long name (and parens) beyond 31", ksLayerAdd);
        add(layer, "SOMEXREF|walls of the xref (a long name)", ksLayerAdd);
        ksStyle style;
        ksStyleDefaults(&style);
        std::strcpy(style.fontFile, "txt");
        const ksObjHandle notes = add(style, "Text style of a long name (beyond thirty-one)", ksStyleAdd);

        ksEntityHeader header{};
        ksEntityBody body{};
        header.type = ksEntLine;
        ksEntityDefaults(fcb, &header, &body);
        header.layerHandle = walls;
        header.linetypeHandle = dashed;
        const ksObjHandle xref = addBlock(kXrefBlock, header);
        const ksObjHandle dependent = addBlock(kDependentBlock, header);
        const ksObjHandle arrow = addBlock("Arrow block with a long (name) too", header);

        ksDimstyle dimstyle;
        ksDimstyleDefaults(fcb, &dimstyle);
        dimstyle.DIMBLK = dimstyle.DIMBLK1 = arrow;
        dimstyle.DIMTXSTY = notes;
        const ksObjHandle dimension = add(dimstyle, "Dimension style with a long name (1)", ksDimstyleAdd);
        const ksObjHandle mlineStyle = addMlineStyle(dashed);

        const ksLoc model = fcb->modelEntities;
        body = {};
        body.line = {{0, 0, 0}, {10, 5, 0}};
        addEntity(model, ksEntLine, header, body);
        body = {};
        body.text.insertion = {1, 2, 0};
        body.text.height = 2.5;
        body.text.styleHandle = notes;
        std::strcpy(body.text.text, "note");
        addEntity(model, ksEntText, header, body);
        for (const ksObjHandle& block : {xref, dependent}) {
            body = {};
            body.insert.insertion = {3, 4, 0};
            body.insert.xScale = body.insert.yScale = body.insert.zScale = 1.0;
            body.insert.rowCount = body.insert.columnCount = 1;
            body.insert.blockHandle = block;
            addEntity(model, ksEntInsert, header, body);
        }
        body = {};
        body.mline.scale = 1.0;
        body.mline.styleHandle = mlineStyle;
        addEntity(model, ksEntMline, header, body);
        body = {};
        body.dimension.definitionPoint = {5, 6, 0};
        body.dimension.blockHandle = dependent;
        body.dimension.dimstyleHandle = dimension;
        addEntity(model, ksEntDimension, header, body);

        ksHeader& h = *fcb->header;
        h.CLAYER = walls;
        h.CELTYPE = dashed;
        h.TEXTSTYLE = h.DIMTXSTY = notes;
        h.DIMSTYLE = dimension;
        h.dimblkHandle = arrow;
    }

    // A multiline style of a long name with one element on that linetype.
    ksObjHandle addMlineStyle(const ksObjHandle& linetype)
    {
        int16_t place = 0;
        ksLinetype record;
        ksLinetypeRewind(fcb);
        while (ksLinetypeNext(fcb, &record) && ksHandleCompare(record.entryHandle, linetype) != 0)
            ++place;
        ksObjectHeader head{};
        ksObjectBody body;
        head.kind = ksKindMlineStyle;
        ksObjectDefaults(fcb, &head, &body);
        head.handle = next();
        std::strcpy(body.mlineStyle.name, "Multiline style of a long name (1)");
        body.mlineStyle.elementCount = 1;
        body.mlineStyle.elements = ksBlobNew();
        ksBlobCursor* out = ksBlobOpenWrite(body.mlineStyle.elements);
        EXPECT_EQ(ksMlineElementWrite(out, {256, place, 0.5}), 1);
        EXPECT_EQ(ksBlobCloseWrite(out), 1);
        EXPECT_EQ(ksObjectAdd(fcb, &head, &body), 1);
        return head.handle;
    }

    fs::path save(int16_t version)
    {
        const fs::path path = dir / ("names" + std::to_string(version) + ".dxf");
        EXPECT_EQ(ksSaveDrawing(fcb, path.string().c_str(), 1, version, 0, 6, 0, 1), 1)
            << "version " << version << " error " << ksErrorNumber();
        return path;
    }
};

TEST_F(DxfNames, EveryNameUsedStandsInItsTable)
{
    const std::set<std::string> shortened = {"LAYER", "LTYPE", "STYLE", "DIMSTYLE", "BLOCK", "BLOCK_RECORD",
                                             "MLINESTYLE"};
    // Every kind of use both releases have, so that none goes unchecked.
    const std::set<std::string> kinds = {"$CLAYER", "$CELTYPE", "$TEXTSTYLE", "$DIMSTYLE", "$DIMBLK",
                                         "LAYER 6", "DIMSTYLE 5", "DIMSTYLE 6", "LINE 8", "LINE 6", "TEXT 7",
                                         "INSERT 2", "DIMENSION 2", "DIMENSION 3", "BLOCK 3"};
    for (int16_t version : {ksAC1009, ksAC1012}) {
        SCOPED_TRACE("version " + std::to_string(version));
        const fs::path path = save(version);
        const Names names = namesOf(groupsOf(path));
        if (haveDxfcheck()) {
            const auto r = zt::runCommand("/usr/bin/python3", {dxfcheck().string(), path.string()});
            EXPECT_EQ(r.status, 0) << r.out << r.err;
        }
        std::set<std::string> seen;
        for (const Use& use : names.uses) {
            seen.insert(use.where);
            // Files below R13 have no table records of the two fixed linetypes.
            if (use.table == "LTYPE" && version < ksAC1012 && (use.name == "BYLAYER" || use.name == "BYBLOCK"))
                continue;
            const auto& table = names.tables.at(use.table);
            EXPECT_TRUE(table.contains(use.name)) << use.where << " names " << use.name << ", not in " << use.table;
            if (use.table == "BLOCK" && version >= ksAC1012) {
                EXPECT_TRUE(names.tables.at("BLOCK_RECORD").contains(use.name)) << use.where << " " << use.name;
            }
        }
        for (const std::string& kind : kinds)
            EXPECT_TRUE(seen.contains(kind)) << kind;
        if (version >= ksAC1012) {
            EXPECT_TRUE(seen.contains("MLINESTYLE 6") && seen.contains("MLINE 2"));
        }

        for (const auto& [table, entries] : names.tables) {
            if (!shortened.contains(table))
                continue;
            for (const std::string& name : entries) {
                EXPECT_LE(name.size(), 31u) << table << " " << name;
                EXPECT_EQ(name.find_first_of(" ()abcdefghijklmnopqrstuvwxyz"), std::string::npos) << name;
                // The part before the bar of a dependent symbol is the name
                // its external reference's block has.
                if (const size_t bar = name.find('|'); bar != std::string::npos) {
                    EXPECT_TRUE(names.tables.at("BLOCK").contains(name.substr(0, bar))) << table << " " << name;
                }
            }
        }
        // The layer of the external reference leaves its block 4 characters.
        std::string xref;
        for (const std::string& name : names.tables.at("BLOCK"))
            if (name.starts_with("SOM") && name.find('|') == std::string::npos)
                xref = name;
        EXPECT_EQ(xref.size(), 4u) << xref;
    }
}

}  // namespace
