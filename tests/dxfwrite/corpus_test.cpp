// Corpus drawings written as DXF and read back by an independent reader.
// Every R13 to R2000 DWG of the corpus that loads completely is saved
// through the toolkit in R12, R13, R14 and R2000, ASCII and binary, in one
// of the releases before R12 in turn, and through the command line. Each
// file must read with no audit error (the shared dxfcheck, which
// dxfcounts.py runs) and hold, block by block and the two spaces too, the
// entities the drawing keeps in that release, and the layers, linetypes,
// text styles and blocks by name.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "bridge/downgrade.h"
#include "frame/readerops.h"
#include "frame/save.h"
#include "records/classent.h"
#include "records/entity.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/entitylist.h"
#include "store/handles.h"
#include "store/list.h"
#include "store/tablelist.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace {

namespace fs = std::filesystem;

// What a file holds, one fact a string, as dxfcounts.py gives them: "in
// TYPE COUNT BLOCK" for the entities of each block, the spaces' included,
// and "layer NAME", "linetype NAME", "style NAME", "block NAME". Sorted.
using Facts = std::vector<std::string>;

const char* const kPython = "/usr/bin/python3";

// The saves of every drawing, and one more from the rotation by the
// drawing's place: the release and the file type, 1 ASCII, 2 binary, 0 the
// command line (which writes R14 ASCII).
using Form = std::pair<int16_t, int16_t>;
const Form kEveryDrawing[] = {{ksAC1009, 1}, {ksAC1012, 1}, {ksAC1014, 1}, {ksAC1015, 1},
                              {ksAC1009, 2}, {ksAC1015, 2}, {ksAC1014, 0}};
const Form kRotation[] = {{ksAC1002, 1}, {ksAC1003, 1}, {ksAC1004, 1}, {ksAC1006, 1}, {ksAC1012, 2}, {ksAC1014, 2}};

// A file written: what it is (drawing, release and form) and should hold.
struct Output {
    fs::path file;
    std::string what;
    int16_t version;
    Facts expected;
};

std::string upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::toupper(c)); });
    return s;
}

// A table name as both sides are compared: below R2000 in capitals with
// blanks and parentheses as "_", and a long name by its first characters
// only (the shortened one ends in the record's index); an anonymous block
// by its kind and a further paper space as "*PAPER_SPACE#", as the file
// numbers those anew.
std::string key(std::string name, int16_t version)
{
    if (version < ksAC1015) {
        name = upper(name);
        std::replace_if(name.begin(), name.end(), [](char c) { return c == ' ' || c == '(' || c == ')'; }, '_');
        if (name.size() > 20)
            name = name.substr(0, 20) + "~";
    }
    const size_t digits = name.find_last_not_of("0123456789") + 1;
    if (name.starts_with("*") && digits == 2)
        name.resize(2);
    else if (digits < name.size() && upper(name.substr(0, digits)) == "*PAPER_SPACE")
        name = name.substr(0, digits) + "#";
    return name;
}

// The type name an entity has in the file of that release.
std::string typeName(ksFcb* fcb, int16_t type, int16_t version)
{
    if (type < ksEntityFixedCount)
        return ksEntityNames[type];
    if (type == fcb->classNumbers.lwpolyline)
        return version < ksAC1014 ? "POLYLINE" : "LWPOLYLINE";
    ksClass c;
    if (ksClassEntityFormOf(fcb, type) != ksCeProxy && ksClassFindNumber(fcb, type, &c))
        return c.dxfName;
    return version == ksAC1012 ? "ACAD_ZOMBIE_ENTITY" : "ACAD_PROXY_ENTITY";
}

// Entities a file holds that the reader can't show: a SHAPE goes out by
// its name, which only its shape file gives (the writer drops one it can't
// name, with notice 95; the corpus brings no shape files); an R13 IMAGE
// has no image definition, which R13 has no place for, and the reader
// drops an image without one.
bool unseen(ksFcb* fcb, int16_t type, int16_t version)
{
    return type == ksEntShape || (version == ksAC1012 && type == fcb->classNumbers.image);
}

// What a file of that release holds of the drawing: in each block the
// top-level entities that fit the release (the reader counts no VERTEX,
// SEQEND or ATTRIB), and the table names.
Facts expect(ksFcb* fcb, int16_t version)
{
    Facts facts;
    auto target = std::make_unique<ksFcb>();
    target->outputVersion = version;
    ksEntityHeader h;
    ksEntityBody b;
    const std::pair<const char*, ksTableList> tables[] = {{"layer", ksListLayers}, {"linetype", ksListLinetypes},
                                                          {"style", ksListShapeFiles}, {"block", ksListBlockHeaders}};
    for (const auto& [table, list] : tables) {
        std::vector<uint8_t> record(ksTableLists[list].recordSize);
        for (ksTableRewind(fcb, list); ksTableNext(fcb, list, record.data());) {
            std::string name = reinterpret_cast<const char*>(record.data() + ksTableLists[list].nameOffset);
            const auto* block = reinterpret_cast<const ksBlockHeader*>(record.data());
            if (list == ksListBlockHeaders && upper(name) == "*PAPER_SPACE" &&
                ksHandleCompare(block->entryHandle, fcb->paperBlockHandle) != 0) {
                // A further layout's block: only R2000 has it, numbered.
                if (version < ksAC1015)
                    continue;
                name += "0";
            }
            const std::string named = key(name, version);
            facts.push_back(table + (" " + named));
            std::map<std::string, long> counts;
            for (ksLoc node = ksListFirst(list == ksListBlockHeaders ? block->entities : 0); node != 0;
                 node = ksListNodeNext(node)) {
                EXPECT_TRUE(ksEntityUnpack(fcb, node, &h, &b, nullptr, nullptr)) << "an entity can't be read";
                const int16_t t = h.type;
                if (t != ksEntBlock && t != ksEntEndblk && t != ksEntVertex && t != ksEntSeqend &&
                    t != ksEntAttrib && !unseen(fcb, t, version) && ksEntityFitsVersion(&h, &b, fcb, target.get()))
                    ++counts[typeName(fcb, t, version)];
            }
            for (const auto& [type, n] : counts)
                facts.push_back("in " + type + " " + std::to_string(n) + " " + named);
        }
    }
    // The reader keeps one text style per name: shape files' entries have
    // none, and two of them are one to it.
    std::sort(facts.begin(), facts.end());
    facts.erase(std::unique(facts.begin(), facts.end(),
                            [](const std::string& a, const std::string& b) { return a == b && a == "style "; }),
                facts.end());
    return facts;
}

// The differences between what the drawing holds and what the reader
// found, by a line of dxfcounts.py.
std::string compare(const Output& o, const std::string& json)
{
    if (json.find("\"status\": 0,") == std::string::npos)
        return " dxfcheck fails: " + json.substr(0, 600);
    Facts got, missing, extra;
    const std::string list = json.substr(json.find("\"facts\": ["));
    const std::regex text(R"re("((?:[^"\\]|\\.)*)"[,\]])re");
    for (auto it = std::sregex_iterator(list.begin(), list.end(), text); it != std::sregex_iterator(); ++it) {
        const std::string fact = (*it)[1];
        size_t name = fact.find(' ') + 1;
        if (fact.starts_with("in "))
            name = fact.find(' ', fact.find(' ', name) + 1) + 1;
        got.push_back(fact.substr(0, name) + key(fact.substr(name), o.version));
    }
    std::sort(got.begin(), got.end());
    std::set_difference(o.expected.begin(), o.expected.end(), got.begin(), got.end(), std::back_inserter(missing));
    std::set_difference(got.begin(), got.end(), o.expected.begin(), o.expected.end(), std::back_inserter(extra));
    // Entries the reader makes itself: the Defpoints layer; below R13 the
    // two fixed linetypes; for R13 and R14, which it reads as R2000, the
    // arrow blocks and what they hold.
    const bool old = o.version < ksAC1012, arrows = o.version == ksAC1012 || o.version == ksAC1014;
    std::erase_if(extra, [&](const std::string& fact) {
        const std::string f = upper(fact);
        return f == "LAYER DEFPOINTS" || (old && (f == "LINETYPE BYBLOCK" || f == "LINETYPE BYLAYER")) ||
               (arrows && (f.starts_with("BLOCK _") || (f.starts_with("IN ") && f.find(" _") != std::string::npos)));
    });
    std::string d;
    for (const auto& [what, facts] : {std::pair{" missing", &missing}, std::pair{" extra", &extra}})
        for (const std::string& f : *facts)
            d += what + (" [" + f + "]");
    return d;
}

class DxfCorpus : public zt::ToolkitTest {};

TEST_F(DxfCorpus, LoadableDrawingsReadBackWithTheirEntitiesAndTables)
{
    ZT_REQUIRE_CORPUS();
    const fs::path dxfcheck = zt::sourceDir() / ".." / "shared" / "tools" / "dxfcheck";
    if (zt::runCommand(kPython, {"-c", "import ezdxf"}).status != 0 || !fs::exists(dxfcheck))
        GTEST_SKIP() << "ezdxf for /usr/bin/python3 or shared/tools/dxfcheck not available";
    ksInstallDwgReader();
    zt::TempDir dir;
    std::vector<Output> outputs;
    int drawings = 0;
    for (const zt::CorpusEntry& entry : zt::corpusManifest()) {
        if (!entry.path.starts_with("dwg/") || entry.version < "AC1012" || entry.version > "AC1015")
            continue;
        const fs::path path = zt::corpusDir() / entry.path;
        // With the R2000 layouts made for a drawing of an older release.
        ksFcb* fcb = ksLoadDrawing(path.c_str(), 1, 1);
        if (fcb == nullptr) {
            std::printf("not yet loadable, passed over: %s (error %d)\n", entry.path.c_str(), ksErrorNumber());
            continue;
        }
        const std::string stem = std::to_string(drawings) + "-" + path.stem().string();
        std::vector<Form> forms(std::begin(kEveryDrawing), std::end(kEveryDrawing));
        forms.push_back(kRotation[drawings++ % std::size(kRotation)]);
        for (const auto& [version, fileType] : forms) {
            const std::string form =
                fileType == 0 ? "command line" : ksVersionNames[version] + std::string(fileType == 2 ? "b" : "a");
            const fs::path out = dir / (stem + "-" + form + ".dxf");
            Facts expected = expect(fcb, version);
            if (fileType == 0 ? zt::runConverter({path.string(), "-x", out.string()}).status == 0
                              : ksSaveDrawing(fcb, out.c_str(), fileType, version, 0, 6, 1, 0) == 1)
                outputs.push_back({out, entry.path + " " + form, version, std::move(expected)});
            else
                ADD_FAILURE() << entry.path << " " << form << ": the save fails, error " << ksErrorNumber();
        }
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
    ASSERT_GT(drawings, 0) << "no R13 to R2000 DWG of the corpus loads";

    std::vector<std::string> args = {(zt::sourceDir() / "tests/dxfwrite/dxfcounts.py").string(), dxfcheck.string()};
    for (const Output& o : outputs)
        args.push_back(o.file.string());
    const zt::RunResult run = zt::runCommand(kPython, args, {}, {}, 600);
    ASSERT_EQ(run.status, 0) << run.err;
    std::istringstream lines(run.out);
    std::string line, differences;
    for (const Output& o : outputs) {
        ASSERT_TRUE(std::getline(lines, line)) << "no line for " << o.file << run.err;
        if (const std::string d = compare(o, line); !d.empty())
            differences += "\n  " + o.what + ":" + d;
    }
    std::printf("%d drawings, %zu files read back\n", drawings, outputs.size());
    EXPECT_TRUE(differences.empty()) << "files that differ from their drawing:" << differences;
}

}  // namespace
