// The sample drawing tool: one drawing of every entity type, filled up with
// simple entities, saved in R12, R13, R14 and R2000, ASCII and binary; an
// independent reader (ezdxf, through dxfcheck) reads each file without an
// audit error and finds, space by space, the entities the tool says it
// wrote.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "support/support.h"

namespace {

namespace fs = std::filesystem;
using Counts = std::map<std::string, long>;       // type -> count
using Spaces = std::map<std::string, Counts>;     // model, paper, blocks

const char* const kPython = "/usr/bin/python3";

fs::path sampleTool() { return zt::programPath().parent_path() / "zem_mksample"; }
fs::path dxfcheck() { return zt::sourceDir() / ".." / "shared" / "tools" / "dxfcheck"; }

// The tool's listing: "wrote PATH: ..." and then "  SPACE TYPE COUNT".
std::map<std::string, Spaces> listings(const std::string& out)
{
    std::map<std::string, Spaces> files;
    Spaces* current = nullptr;
    const std::regex wrote(R"(^wrote (.+): )"), entry(R"(^  (\w+) (\S+) (\d+)$)");
    std::smatch m;
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        const std::string line = out.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? out.size() : end + 1;
        if (std::regex_search(line, m, wrote))
            current = &files[fs::path(m[1].str()).filename().string()];
        else if (current && std::regex_match(line, m, entry))
            (*current)[m[1]][m[2]] = std::stol(m[3]);
    }
    return files;
}

// One space's counts of the dxfcheck JSON: "space": {"TYPE": n, ...}.
Counts jsonSpace(const std::string& json, const std::string& space)
{
    Counts counts;
    const size_t at = json.find("\"" + space + "\": {");
    if (at == std::string::npos)
        return counts;
    const std::string body = json.substr(at, json.find('}', at) - at);
    const std::regex pair(R"re("([^"]+)": (\d+))re");
    for (auto it = std::sregex_iterator(body.begin(), body.end(), pair); it != std::sregex_iterator(); ++it)
        counts[(*it)[1]] = std::stol((*it)[2]);
    return counts;
}

TEST(SampleDrawing, EveryReleaseAndFormReadsBackWithTheEntitiesWritten)
{
    ASSERT_TRUE(fs::exists(sampleTool())) << sampleTool();
    if (zt::runCommand(kPython, {"-c", "import ezdxf"}).status != 0 || !fs::exists(dxfcheck()))
        GTEST_SKIP() << "ezdxf for /usr/bin/python3 or shared/tools/dxfcheck not available";
    zt::TempDir dir;
    // The reader takes R13 and R14 up to R2000 as it reads them.
    const struct {
        const char* release;
        const char* name;
        const char* acadver;
    } releases[] = {{"R12", "r12", "AC1009"}, {"R13", "r13", "AC1015"}, {"R14", "r14", "AC1015"},
                    {"R2000", "r2000", "AC1015"}};
    constexpr long kEntities = 600;
    std::vector<std::string> args = {"-n", std::to_string(kEntities), "-i", zt::initFile().string()};
    for (const auto& r : releases)
        for (const char* form : {"-a", "-b"})
            args.insert(args.end(), {"-v", r.release, form, (dir / (r.name + std::string(form) + ".dxf")).string()});
    const zt::RunResult run = zt::runCommand(sampleTool(), args);
    if (run.status != 0 && run.err.find("error 21:") != std::string::npos)
        GTEST_SKIP() << "no DXF writer in this build: " << run.err;
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("built " + std::to_string(kEntities) + " entities"), std::string::npos) << run.out;

    const auto files = listings(run.out);
    ASSERT_EQ(files.size(), 8u) << run.out;
    // R2000 holds every type the sample makes, in each space.
    const std::set<std::string> everyType = {
        "3DFACE", "3DSOLID", "ARC",    "ARCALIGNEDTEXT", "BODY",   "CIRCLE", "DIMENSION", "ELLIPSE",
        "HATCH",  "IMAGE",   "INSERT", "LEADER",         "LINE",   "LWPOLYLINE", "MLINE", "MTEXT",
        "OLE2FRAME", "POINT", "POLYLINE", "RAY", "REGION", "RTEXT", "SHAPE", "SOLID", "SPLINE", "TEXT",
        "TOLERANCE", "TRACE", "WIPEOUT", "XLINE"};
    for (const char* space : {"model", "paper", "blocks"}) {
        std::set<std::string> types;
        for (const auto& [type, n] : files.at("r2000-a.dxf").at(space))
            types.insert(type);
        for (const std::string& type : everyType)
            EXPECT_TRUE(types.count(type)) << space << " lacks " << type;
    }

    for (const auto& r : releases) {
        for (const char* form : {"-a", "-b"}) {
            const std::string name = r.name + std::string(form) + ".dxf";
            SCOPED_TRACE(name);
            const auto check = zt::runCommand(kPython, {dxfcheck().string(), (dir / name).string(), "--json"});
            ASSERT_EQ(check.status, 0) << check.out << check.err;
            EXPECT_NE(check.out.find(std::string("\"acadver\": \"") + r.acadver), std::string::npos);
            const Spaces& wrote = files.at(name);
            for (const char* space : {"model", "paper"})
                EXPECT_EQ(jsonSpace(check.out, space), wrote.count(space) ? wrote.at(space) : Counts{}) << space;
            // Reading R13 and R14 the reader adds arrow blocks of its own.
            const Counts blocks = jsonSpace(check.out, "blocks");
            const bool exact = std::string(r.release) == "R12" || std::string(r.release) == "R2000";
            if (exact) {
                EXPECT_EQ(blocks, wrote.at("blocks"));
            }
            for (const auto& [type, n] : wrote.at("blocks"))
                EXPECT_GE(blocks.count(type) ? blocks.at(type) : 0, n) << type;
        }
    }
}

TEST(SampleDrawing, RefusesAnUnknownReleaseAndAMissingOutput)
{
    ASSERT_TRUE(fs::exists(sampleTool())) << sampleTool();
    EXPECT_EQ(zt::runCommand(sampleTool(), {"-v", "R11", "x.dxf"}).status, 2);
    EXPECT_EQ(zt::runCommand(sampleTool(), {"-n", "12"}).status, 2);
}

}  // namespace
