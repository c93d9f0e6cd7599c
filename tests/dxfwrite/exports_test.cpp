// Corpus DWG files saved as R2000 DXF and read by an independent reader
// (ezdxf), held against what the drawing holds: entity by entity against
// another program's DXF export of the very same save (dxfexports.py), and
// the objects with their owners and dictionaries (dxfobjects.py). Every
// R13 to R2000 DWG that loads completely takes part; the others are passed
// over with a note until their entities load.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <regex>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "frame/readerops.h"
#include "frame/save.h"
#include "records/object.h"
#include "store/blob.h"
#include "store/handles.h"
#include "support/dwgtest.h"

namespace {

namespace fs = std::filesystem;

const char* const kPython = "/usr/bin/python3";

bool haveEzdxf() { return zt::runCommand(kPython, {"-c", "import ezdxf"}).status == 0; }

// Loads a corpus DWG, with the R2000 layouts made for an older release;
// null, with a note, when the drawing doesn't load yet.
ksFcb* load(const std::string& path)
{
    ksFcb* fcb = ksLoadDrawing((zt::corpusDir() / path).c_str(), 1, 1);
    if (fcb == nullptr)
        std::printf("not yet loadable, passed over: %s (error %d)\n", path.c_str(), ksErrorNumber());
    return fcb;
}

// The drawing's own $HANDSEED in hex: handles from it on are the load's.
std::string seedOf(const ksFcb* fcb)
{
    char seed[20];
    std::snprintf(seed, sizeof seed, "%llX", static_cast<unsigned long long>(ksHandleToU64(fcb->handleSeed)));
    return seed;
}

// Saves a drawing as R2000 ASCII DXF, with every decimal place the writer
// has so that reals compare closely.
bool saveR2000(ksFcb* fcb, const fs::path& out)
{
    const bool ok = ksSaveDrawing(fcb, out.c_str(), 1, ksAC1015, 0, ksDxfMaxPrecision, 1, 0) == 1;
    EXPECT_TRUE(ok) << out << ": the save fails, error " << ksErrorNumber();
    return ok;
}

// Runs a script of this folder on the arguments: one output line each
// `per` arguments, or a failure.
std::vector<std::string> runScript(const char* script, const std::vector<std::string>& arguments, size_t per)
{
    std::vector<std::string> args = {(zt::sourceDir() / "tests/dxfwrite" / script).string()};
    args.insert(args.end(), arguments.begin(), arguments.end());
    const zt::RunResult run = zt::runCommand(kPython, args, {}, {}, 300);
    EXPECT_EQ(run.status, 0) << run.err;
    std::vector<std::string> lines;
    std::istringstream in(run.out);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    EXPECT_EQ(lines.size(), arguments.size() / per) << run.err;
    lines.resize(arguments.size() / per);
    return lines;
}

// The strings of a JSON array member of a line ("name": ["...", ...]),
// escapes kept as they stand.
std::vector<std::string> jsonStrings(const std::string& line, const std::string& name)
{
    std::vector<std::string> out;
    size_t at = line.find("\"" + name + "\": [");
    if (at == std::string::npos)
        return out;
    for (at += name.size() + 5; at < line.size() && line[at] != ']'; ++at) {
        if (line[at] != '"')
            continue;
        std::string text;
        for (++at; at < line.size() && line[at] != '"'; ++at) {
            if (line[at] == '\\')
                text += line[at++];
            text += line[at];
        }
        out.push_back(std::move(text));
    }
    return out;
}

// ---------------------------------------------------------------------------
// Against the exports

// Differences from an export that are understood: the drawing ("" any),
// a pattern the difference line matches whole, and why it is no fault of
// the file we write.
struct Known {
    const char* dwg;
    const char* pattern;
    const char* reason;
};
const char* const kR13 = "dwg/AC1012/example_r13.dwg";
const char* const kR14 = "dwg/AC1014/example_r14.dwg";
const Known kKnown[] = {
    {"", R"(\w+ SPLINE (control points|knots): 0 export \d+)",
     "a spline given by its fit points: the DWG holds no control points or knots, the export computes them"},
    {"", R"(\w+ ACAD_PROXY_ENTITY type export (ARC_DIMENSION|ACAD_TABLE|MULTILEADER|LIGHT|INSERT))",
     "an entity of a later release kept as a proxy in the DWG: the export writes it as its class (for R13 "
     "and R14 as an insert of its graphics), an R2000 file as a proxy"},
    {kR13, R"(\w+ (BLOCK|ENDBLK|LINE) in \*X only in ours)",
     "the export gives the lines of the hatch's anonymous block new handles above the drawing's $HANDSEED"},
    {kR13, R"((52 BLOCK|53 ENDBLK|84 VIEWPORT) in \*PAPER_SPACE0 only in ours)",
     "the export leaves out the drawing's second paper space block and its viewport"},
    {kR14, R"((52 BLOCK|53 ENDBLK|84 VIEWPORT) in \*PAPER_SPACE0 only in ours)",
     "the export leaves out the drawing's second paper space block and its viewport"},
    {kR13, R"(88 VIEWPORT (12 view_center_point|45 view_height) .*)",
     "an R13 paper space viewport keeps its view in extended data, which the export copies as it is"},
    {kR14, R"(88 VIEWPORT (12 view_center_point|45 view_height) .*)",
     "an R14 paper space viewport keeps its view in extended data, which the export copies as it is"},
    {kR13, R"(75E ACAD_PROXY_ENTITY in \*MODEL_SPACE only in ours)", "the export leaves out this proxy entity"},
    {kR14, R"(75E ACAD_PROXY_ENTITY in \*MODEL_SPACE only in ours)", "the export leaves out this proxy entity"},
    {kR14, R"(2[01] (BLOCK|ENDBLK) in \*MODEL_SPACE export in \*U)",
     "the reader makes a model space block record of its own for the export and files the export's model "
     "space BLOCK and ENDBLK under an anonymous block"},
    {"dwg/AC1015/libredwg_entities-2d.dwg", R"(39 SHAPE in \*MODEL_SPACE only in the export)",
     "the shape's name comes from its shape file, which is not at hand: the writer leaves out a shape it "
     "can't name"},
    {"dwg/AC1015/TS1.dwg", R"(22E LEADER 40 text_height \(0\) export \(1\))",
     "the export leaves out the leader's text height, 0 in the drawing; the reader's default is 1"},
};

bool known(std::span<const Known> list, const std::string& dwg, const std::string& difference)
{
    static std::map<const char*, std::regex> patterns;
    for (const Known& k : list) {
        auto it = patterns.find(k.pattern);
        if (it == patterns.end())
            it = patterns.emplace(k.pattern, std::regex(k.pattern, std::regex::optimize)).first;
        if ((!*k.dwg || dwg == k.dwg) && std::regex_match(difference, it->second))
            return true;
    }
    return false;
}

class DxfExports : public zt::ToolkitTest {};

TEST_F(DxfExports, EntitiesMatchTheExportOfTheSameSave)
{
    ZT_REQUIRE_CORPUS();
    if (!haveEzdxf())
        GTEST_SKIP() << "ezdxf for /usr/bin/python3 not available";
    ksInstallDwgReader();
    zt::TempDir dir;
    std::vector<std::string> args, dwgs;
    for (const zt::DrawingPair& pair : zt::drawingPairs()) {
        if (!pair.sameSave)
            continue;
        ksFcb* fcb = load(pair.dwg);
        if (fcb == nullptr)
            continue;
        const fs::path out = dir / (std::to_string(dwgs.size()) + "-" + fs::path(pair.dwg).stem().string() + ".dxf");
        if (saveR2000(fcb, out)) {
            args.insert(args.end(), {out.string(), (zt::corpusDir() / pair.dxf).string(), seedOf(fcb)});
            dwgs.push_back(pair.dwg);
        }
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
    if (dwgs.empty())
        GTEST_SKIP() << "no drawing of a pair with an export of the same save loads yet";
    const std::vector<std::string> lines = runScript("dxfexports.py", args, 3);
    std::string differences;
    size_t entities = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        static const std::regex count(R"re("entities": (\d+))re");
        std::smatch m;
        if (std::regex_search(lines[i], m, count))
            entities += std::stoul(m[1]);
        for (const std::string& d : jsonStrings(lines[i], "differences"))
            if (!known(kKnown, dwgs[i], d))
                differences += "\n  " + dwgs[i] + ": " + d;
    }
    std::printf("%zu drawings, %zu entities compared\n", dwgs.size(), entities);
    EXPECT_TRUE(differences.empty()) << "entities that differ from the export:" << differences;
}

// ---------------------------------------------------------------------------
// Objects

// Problems with the objects that are understood, as kKnown: none yet.
const std::vector<Known> kKnownObjects;

// The object types counted against the drawing's object list.
const char* const kCounted[] = {"DICTIONARY", "ACDBDICTIONARYWDFLT", "GROUP", "LAYOUT", "XRECORD", "MLINESTYLE"};

// What the drawing's object list holds: the count of each type of
// kCounted, and the names the root dictionary (the first object) lists.
std::map<std::string, long> objectCounts(ksFcb* fcb, std::vector<std::string>* root)
{
    std::map<std::string, long> counts;
    ksObjectHeader header;
    ksObjectBody body;
    ksObjectRewind(fcb);
    for (bool first = true; ksObjectNext(fcb, &header, &body); first = false) {
        std::string name = header.kind == ksKindDictionary   ? "DICTIONARY"
                           : header.kind == ksKindMlineStyle ? "MLINESTYLE"
                           : header.kind == ksKindGroup      ? "GROUP"
                                                             : "";
        ksClass c;
        if (name.empty() && header.kind >= ksFirstClassNumber && ksClassFindNumber(fcb, header.kind, &c))
            name = c.dxfName;
        if (std::find(std::begin(kCounted), std::end(kCounted), name) != std::end(kCounted))
            ++counts[name];
        if (first && header.kind == ksKindDictionary) {
            ksBlobCursor* in = ksBlobOpenRead(body.dictionary.entries);
            // An entry without an object (some files keep erased ones)
            // names nothing the file could hold.
            for (ksDictionaryEntry e; in && ksDictionaryEntryRead(in, &e);)
                if (!ksHandleIsNull(e.handle))
                    root->push_back(e.name);
            ksBlobCloseRead(in);
        }
    }
    std::sort(root->begin(), root->end());
    return counts;
}

// The count of a type in a line of dxfobjects.py.
long jsonCount(const std::string& line, const std::string& type)
{
    const size_t at = line.find("\"" + type + "\": ");
    return at == std::string::npos ? 0 : std::stol(line.substr(at + type.size() + 4));
}

TEST_F(DxfExports, ObjectsStandWithTheirOwnersAndDictionaries)
{
    ZT_REQUIRE_CORPUS();
    if (!haveEzdxf())
        GTEST_SKIP() << "ezdxf for /usr/bin/python3 not available";
    ksInstallDwgReader();
    zt::TempDir dir;
    std::map<std::string, std::string> exports;
    for (const zt::DrawingPair& pair : zt::drawingPairs())
        if (pair.sameObjects)
            exports[pair.dwg] = (zt::corpusDir() / pair.dxf).string();
    struct Expected {
        std::string dwg;
        std::map<std::string, long> counts;
        std::vector<std::string> root;
    };
    std::vector<Expected> expected;
    std::vector<std::string> args;
    for (const std::string& dwg : zt::corpusDwgs()) {
        ksFcb* fcb = load(dwg);
        if (fcb == nullptr)
            continue;
        const fs::path out = dir / (std::to_string(expected.size()) + "-" + fs::path(dwg).stem().string() + ".dxf");
        Expected e{dwg, {}, {}};
        e.counts = objectCounts(fcb, &e.root);
        if (saveR2000(fcb, out)) {
            args.insert(args.end(), {out.string(), seedOf(fcb), exports.count(dwg) ? exports[dwg] : "-"});
            expected.push_back(std::move(e));
        }
        EXPECT_EQ(ksCloseDrawing(fcb), 1);
    }
    if (expected.empty())
        GTEST_SKIP() << "no R13 to R2000 DWG of the corpus loads yet";
    const std::vector<std::string> lines = runScript("dxfobjects.py", args, 3);
    std::string differences;
    for (size_t i = 0; i < lines.size(); ++i) {
        const Expected& e = expected[i];
        std::string d;
        for (const char* type : kCounted)
            if (const long got = jsonCount(lines[i], type); got != (e.counts.count(type) ? e.counts.at(type) : 0))
                d += "\n    " + std::string(type) + " " + std::to_string(got) + " in the file, " +
                     std::to_string(e.counts.count(type) ? e.counts.at(type) : 0) + " in the drawing";
        std::vector<std::string> root = jsonStrings(lines[i], "root");
        std::sort(root.begin(), root.end());
        std::vector<std::string> missing, extra;
        std::set_difference(e.root.begin(), e.root.end(), root.begin(), root.end(), std::back_inserter(missing));
        std::set_difference(root.begin(), root.end(), e.root.begin(), e.root.end(), std::back_inserter(extra));
        for (const auto& [what, names] : {std::pair{"missing", &missing}, std::pair{"extra", &extra}})
            for (const std::string& name : *names)
                d += "\n    root dictionary entry " + std::string(what) + ": [" + name + "]";
        for (const std::string& problem : jsonStrings(lines[i], "problems"))
            if (!known(kKnownObjects, e.dwg, problem))
                d += "\n    " + problem;
        if (!d.empty())
            differences += "\n  " + e.dwg + ":" + d;
    }
    std::printf("%zu drawings' objects checked\n", expected.size());
    EXPECT_TRUE(differences.empty()) << "objects that are not as the drawing holds them:" << differences;
}

}  // namespace
