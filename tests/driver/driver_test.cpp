// The converter as a user meets it: arguments, environment, exit status and
// messages. In the table no input is a readable drawing, so every load
// fails and its message tells which input name the argument parsing
// produced; real drawings of the corpus follow it.
#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

enum class Sys { Ready, Unset, Empty, NoInitFile };
enum class Debug { Set, Empty, Unset };

struct DriverCase {
    const char* name;
    std::vector<std::string> args;
    std::vector<std::string> files;  // made in the working folder beforehand
    int status;
    std::string out;                 // stdout, byte for byte
    Sys sys = Sys::Ready;
    Debug debug = Debug::Set;
    std::string err = "";
};

// The debug print writes every message followed by one more newline.
std::string said(std::initializer_list<std::string> messages)
{
    std::string text;
    for (const auto& m : messages)
        text += m + "\n";
    return text;
}

std::string loadFailed(const std::string& input, int code)
{
    const char* why = code == 3 ? "Can't open file" : "Can't determine file type";
    return said({"Error opening file " + input + "\n",
                 "error code is " + std::to_string(code) + ": " + why + "\n"});
}

const std::string kUsage = said({"usage: zemacadconv infilename mode outfilename\n"});
const std::string kInitFailed = said({"Unable to initialize KESTREL\n",
                                      "error is 182: Unable to open init file\n",
                                      "try moving ksinit.dat to the current directory\n"});
const std::string kNoSystemDir = "system directory not found, (check configuration)\n";
const std::string kWrongMode = said({"Wrong conversion type input"});

const std::vector<std::string> kIO{"in.dwg", "-w", "out.dwg"};

const DriverCase kCases[] = {
    // Usage: fewer than three arguments, before anything else.
    {"no arguments", {}, {}, 100, kUsage},
    {"two arguments", {"in.dwg", "-w"}, {}, 100, kUsage},
    {"usage needs no system directory", {"in.dwg", "-w"}, {}, 100, kUsage, Sys::Unset},
    {"usage is silent without debug", {"in.dwg"}, {}, 100, "", Sys::Ready, Debug::Unset},

    // System directory and init data.
    {"no system directory", kIO, {}, 4, "", Sys::Unset, Debug::Set, kNoSystemDir},
    {"empty system directory", kIO, {}, 4, "", Sys::Empty, Debug::Set, kNoSystemDir},
    {"no system directory, no debug", kIO, {}, 4, "", Sys::Unset, Debug::Unset, kNoSystemDir},
    {"no init data file", kIO, {}, 9, kInitFailed, Sys::NoInitFile},
    {"no init data file before a malformed mode", {"in.dwg", "w", "out.dwg"}, {}, 9,
     kInitFailed, Sys::NoInitFile},
    {"no init data file, no debug", kIO, {}, 9, "", Sys::NoInitFile, Debug::Unset},

    // Load failures and the debug switch.
    {"missing input", kIO, {}, 9, loadFailed("in.dwg", 3)},
    {"input of no known kind", kIO, {"in.dwg"}, 9, loadFailed("in.dwg", 5)},
    {"debug with an empty value", kIO, {"in.dwg"}, 9, loadFailed("in.dwg", 5), Sys::Ready,
     Debug::Empty},
    {"silent without debug", kIO, {"in.dwg"}, 9, "", Sys::Ready, Debug::Unset},

    // Modes.
    {"mode -W", {"in.dwg", "-W", "out.dwg"}, {}, 9, loadFailed("in.dwg", 3)},
    {"mode -x", {"in.dwg", "-x", "out.dxf"}, {}, 9, loadFailed("in.dwg", 3)},
    {"mode -X", {"in.dwg", "-X", "out.dxf"}, {}, 9, loadFailed("in.dwg", 3)},
    {"unsupported mode loads first", {"in.dwg", "-q", "out.dwg"}, {"in.dwg"}, 9,
     kWrongMode + loadFailed("in.dwg", 5)},
    {"malformed mode w", {"in.dwg", "w", "out.dwg"}, {"in.dwg"}, 0, ""},
    {"malformed mode --w", {"in.dwg", "--w", "out.dwg"}, {"in.dwg"}, 0, ""},
    {"malformed mode -", {"in.dwg", "-", "out.dwg"}, {"in.dwg"}, 0, ""},
    {"empty mode", {"in.dwg", "", "out.dwg"}, {"in.dwg"}, 0, ""},

    // Names that the shell split at blanks.
    {"quoted name over three arguments", {"'a", "b", "c.dwg'", "-w", "out.dwg"}, {"a b c.dwg"},
     9, loadFailed("a b c.dwg", 5)},
    {"quoted name in one argument", {"'abc.dwg'", "-w", "out.dwg"}, {"abc.dwg"}, 9,
     loadFailed("abc.dwg", 5)},
    {"no closing quote drops the last character", {"'a", "b", "-w", "out.dwg"}, {"a "}, 9,
     loadFailed("a ", 5)},
    {"joined name before -v 12", {"'a", "b", "c.dwg'", "-w", "out.dwg", "-v", "12"},
     {"a b c.dwg"}, 9, loadFailed("a b c.dwg", 5)},
    {"joining stops before the version switch", {"'a", "b", "c.dwg", "-w", "out.dwg", "-v", "12"},
     {}, 9, loadFailed("a b c.dw", 3)},
    {"-V is no version switch", {"'a", "b", "-w", "out.dwg", "-V", "12"}, {}, 9,
     kWrongMode + loadFailed("a b -w out.dw", 3)},
    // "-v" not last but one: the joining runs on and "12" becomes the mode.
    {"-v counts only last but one", {"'a", "b", "-w", "out.dwg", "-v", "12", "13"}, {}, 0, ""},
};

TEST(Driver, CommandLine)
{
    ASSERT_TRUE(zt::fs::exists(zt::programPath())) << zt::programPath();
    for (const DriverCase& c : kCases) {
        SCOPED_TRACE(c.name);
        zt::TempDir work;
        for (const auto& f : c.files)
            zt::writeFile(work / f, "not a drawing\n");

        std::vector<zt::EnvChange> env;
        if (c.sys == Sys::Unset)
            env.push_back({"ZEM_DIRECTORY", std::nullopt});
        else if (c.sys == Sys::Empty)
            env.push_back({"ZEM_DIRECTORY", ""});
        else if (c.sys == Sys::NoInitFile)
            env.push_back({"ZEM_DIRECTORY", work.path().string()});
        if (c.debug != Debug::Unset)
            env.push_back({"ZEMACAD_DEBUG", c.debug == Debug::Set ? "1" : ""});

        zt::RunResult r = zt::runConverter(c.args, env, work.path());
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);

        std::vector<std::string> expected = c.files;
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(work.list(), expected) << "no file may be written";
    }
}

// A drawing that loads completely, with a mode the converter doesn't
// have: the load succeeds and the mode is refused with status 5.
TEST(Driver, RealDrawings)
{
    ZT_REQUIRE_CORPUS();
    struct Case {
        const char* file;
        int status;
    } cases[] = {
        {"dwg/AC1014/line_R14.dwg", 5},
        {"dwg/AC1015/line_2000.dwg", 5},
        {"dwg/AC1015/Constraints.dwg", 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        zt::TempDir work;
        zt::RunResult r = zt::runConverter({(zt::corpusDir() / c.file).string(), "-q", "x"},
                                           {{"ZEMACAD_DEBUG", "1"}}, work.path());
        EXPECT_EQ(r.status, c.status) << r.out;
        EXPECT_EQ(r.out, kWrongMode + said({"Conversion mode not supported\n"}));
        EXPECT_TRUE(work.list().empty());
    }
}

}  // namespace
