// Replays saved inputs through the load fuzzer's entry: every file of
// fuzz/regress/ and every file of the drawing corpus, or the files and
// folders named on the command line instead. An input that once crashed
// the fuzzer goes into fuzz/regress/ under a name that says what it was,
// and this program, run by CTest on every build, keeps it fixed.
//
// The corpus is $ZEMACAD_CORPUS when set, else <source dir>/../shared/corpus;
// without it only fuzz/regress/ is replayed, and the run says so.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "load_entry.h"
#include "more_entries.h"

#ifndef ZEMACAD_REGRESS_DIR
#error "ZEMACAD_REGRESS_DIR must name fuzz/regress"
#endif
#ifndef ZEMACAD_SOURCE_DIR
#error "ZEMACAD_SOURCE_DIR must name the source tree"
#endif

namespace fs = std::filesystem;

namespace {

// Regular files under root (root itself when it is a file), sorted so a
// run replays in the same order everywhere.
bool collect(const fs::path& root, std::vector<fs::path>& out)
{
    std::error_code ec;
    if (fs::is_regular_file(root, ec)) {
        out.push_back(root);
        return true;
    }
    if (!fs::is_directory(root, ec))
        return false;
    std::vector<fs::path> found;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_regular_file(ec))
            found.push_back(it->path());
    }
    if (ec) {
        std::fprintf(stderr, "cannot list %s: %s\n", root.c_str(), ec.message().c_str());
        return false;
    }
    std::sort(found.begin(), found.end());
    out.insert(out.end(), found.begin(), found.end());
    return true;
}

fs::path corpusRoot()
{
    const char* env = std::getenv("ZEMACAD_CORPUS");
    if (env != nullptr && *env != '\0')
        return env;
    return fs::path(ZEMACAD_SOURCE_DIR) / ".." / "shared" / "corpus";
}

// Inputs under fuzz/regress/<name>/ belong to the entry of that name;
// all others are drawing files for the loader.
using Entry = int (*)(const uint8_t*, size_t);
Entry entryFor(const fs::path& file)
{
    static const struct {
        const char* folder;
        Entry entry;
    } kEntries[] = {{"xdata", zemacadFuzzXdata}, {"initdata", zemacadFuzzInitData}};
    fs::path relative = fs::absolute(file).lexically_normal().lexically_relative(ZEMACAD_REGRESS_DIR);
    if (!relative.empty() && *relative.begin() != "..")
        for (const auto& e : kEntries)
            if (*relative.begin() == e.folder)
                return e.entry;
    return zemacadFuzzLoad;
}

bool replay(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The name goes out before the load, so a crash report ends with it.
    std::printf("replay %s (%zu bytes)\n", file.c_str(), bytes.size());
    std::fflush(stdout);
    entryFor(file)(bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<fs::path> files;
    bool ok = true;

    if (argc > 1) {
        for (int i = 1; i < argc; ++i) {
            if (!collect(argv[i], files)) {
                std::fprintf(stderr, "no such file or folder: %s\n", argv[i]);
                ok = false;
            }
        }
    } else {
        if (!collect(ZEMACAD_REGRESS_DIR, files)) {
            std::fprintf(stderr, "regress folder missing: %s\n", ZEMACAD_REGRESS_DIR);
            ok = false;
        }
        size_t saved = files.size();
        fs::path corpus = corpusRoot();
        if (!collect(corpus, files))
            std::printf("corpus not found at %s: replaying fuzz/regress only "
                        "(set ZEMACAD_CORPUS to add it)\n", corpus.c_str());
        std::printf("%zu saved inputs, %zu corpus files\n", saved, files.size() - saved);
    }

    size_t replayed = 0;
    for (const fs::path& file : files) {
        if (replay(file))
            ++replayed;
        else
            ok = false;
    }
    zemacadFuzzShutdown();
    std::printf("replayed %zu of %zu inputs\n", replayed, files.size());
    return ok ? 0 : 1;
}
