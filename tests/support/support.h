// Test support shared by all test programs: temporary folders, running the
// built converter, the sample drawing corpus and small file helpers.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace zt {

namespace fs = std::filesystem;

// Paths fixed by the build.
fs::path sourceDir();   // the repository
fs::path programPath(); // the built zemacadconv
fs::path systemDir();   // a ready system directory for ZEM_DIRECTORY
fs::path initFile();    // the init data file inside systemDir()

// A fresh folder under the system's temporary directory, named after the
// running test; it and everything in it is removed at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const fs::path& path() const { return path_; }
    fs::path operator/(std::string_view name) const { return path_ / name; }
    // Names of the entries directly inside, sorted.
    std::vector<std::string> list() const;

private:
    fs::path path_;
};

// One change to the environment of a child: set to a value, or remove
// when value is empty (std::nullopt). An empty string sets an empty value.
struct EnvChange {
    std::string name;
    std::optional<std::string> value;
};

struct RunResult {
    int status = -1;      // exit status; minus the signal number if killed
    bool timedOut = false;
    std::string out;      // everything written to stdout
    std::string err;      // everything written to stderr
};

// Runs program with args (argv[0] is the program path) without a shell,
// starting from a copy of the current environment with the changes
// applied, in workDir if given. Gives up after timeoutSeconds.
RunResult runCommand(const fs::path& program, const std::vector<std::string>& args,
                     const std::vector<EnvChange>& env = {}, const fs::path& workDir = {},
                     int timeoutSeconds = 120);

// The converter with ZEM_DIRECTORY = systemDir() and ZEMACAD_DEBUG removed,
// then the given changes on top.
RunResult runConverter(const std::vector<std::string>& args,
                       const std::vector<EnvChange>& env = {}, const fs::path& workDir = {});

// The corpus: $ZEMACAD_CORPUS when set, else <source dir>/../shared/corpus;
// empty when that folder doesn't exist.
fs::path corpusDir();

struct CorpusEntry {
    std::string path;     // relative to corpusDir(), e.g. "dwg/AC1009/x.dwg"
    uint64_t bytes = 0;
    std::string sha256;
    std::string version;  // "AC1009", "none", "AC2.10", ...
};

// The rows of MANIFEST.tsv; empty when the corpus is absent.
std::vector<CorpusEntry> corpusManifest();

// Whole file (or its first `limit` bytes); throws std::runtime_error when
// the file can't be read.
std::vector<uint8_t> readFile(const fs::path& file, size_t limit = SIZE_MAX);
// Creates or replaces file; throws std::runtime_error on failure.
void writeFile(const fs::path& file, std::span<const uint8_t> bytes);
void writeFile(const fs::path& file, std::string_view text);

}  // namespace zt

// Ends the current test as skipped when the corpus isn't there.
#define ZT_REQUIRE_CORPUS()                                                           \
    do {                                                                              \
        if (::zt::corpusDir().empty())                                                \
            GTEST_SKIP() << "sample drawing corpus not found: set ZEMACAD_CORPUS or " \
                            "provide <source dir>/../shared/corpus";                  \
    } while (0)
