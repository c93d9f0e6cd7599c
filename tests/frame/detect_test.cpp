// Kind and version detection on the first bytes of a file: every drawing of
// the corpus, then hand-made buffers for the edges of the rule.
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frame/load.h"
#include "support/support.h"

namespace {

struct Expect {
    uint8_t isDxf;
    uint8_t fileType;
    int16_t version;
    int16_t betaSeen = 0;
    bool sectionFound = true;  // looked at for DXF only
};

void check(const ksSniff& got, const Expect& want)
{
    EXPECT_EQ(got.isDxf, want.isDxf);
    EXPECT_EQ(got.fileType, want.fileType);
    EXPECT_EQ(got.version, want.version);
    EXPECT_EQ(got.betaSeen, want.betaSeen);
    if (want.isDxf) {
        EXPECT_EQ(got.sectionFound, want.sectionFound);
    }
}

// Files whose detection differs from what their folder and manifest version
// suggest; each is a property of the file's first bytes.
const std::map<std::string, Expect> kKnownCases = {
    // Pre-R2.5 DWG: starts "AC1.40", not "AC10", so it is taken for DXF, and
    // with neither "SECTION" nor a leading "999" it fails as of no known kind.
    {"dwg/unsupported/DIM_ARROW_SIZE.DWG", {1, 1, -1, 0, false}},
    // R1.4-era DXF: bare "NAME,1" lines, no section structure at all.
    {"dxf/none/entities.dxf", {1, 1, -1, 0, false}},
};

int16_t versionCode(const std::string& name)
{
    static const std::map<std::string, int16_t> codes = {
        {"AC1002", 0}, {"AC1003", 1}, {"AC1004", 2}, {"AC1006", 3},
        {"AC1009", 4}, {"AC1012", 5}, {"AC1014", 6}, {"AC1015", 7}};
    auto it = codes.find(name);
    return it == codes.end() ? -1 : it->second;  // none, AC2.10, AC1018 and later
}

TEST(Detect, CorpusFiles)
{
    ZT_REQUIRE_CORPUS();
    auto manifest = zt::corpusManifest();
    ASSERT_FALSE(manifest.empty());
    size_t knownSeen = 0;
    for (const auto& entry : manifest) {
        SCOPED_TRACE(entry.path);
        auto head = zt::readFile(zt::corpusDir() / entry.path, ksSniffSize);
        ASSERT_EQ(head.size(), std::min<uint64_t>(entry.bytes, ksSniffSize));

        Expect want{1, 1, versionCode(entry.version)};
        std::string top = entry.path.substr(0, entry.path.find('/'));
        if (top == "dwg")
            want.isDxf = want.fileType = 0;
        else if (top == "dxf-binary")
            want.fileType = 2;
        if (auto it = kKnownCases.find(entry.path); it != kKnownCases.end()) {
            want = it->second;
            ++knownSeen;
        }
        check(ksSniffBytes(head), want);
    }
    EXPECT_EQ(knownSeen, kKnownCases.size()) << "a known case is no longer in the manifest";
}

std::vector<uint8_t> bytes(const std::string& text) { return {text.begin(), text.end()}; }

// text padded with blanks to size bytes
std::vector<uint8_t> padded(const std::string& text, size_t size)
{
    auto b = bytes(text);
    b.resize(size, ' ');
    return b;
}

// text placed at offset in a buffer of blanks of size bytes
std::vector<uint8_t> placed(const std::string& text, size_t offset, size_t size)
{
    auto b = padded("", size);
    std::copy(text.begin(), text.end(), b.begin() + static_cast<long>(offset));
    return b;
}

const std::string kDxfHead = "  0\nSECTION\n  2\nHEADER\n  9\n$ACADVER\n  1\n";

struct SyntheticCase {
    const char* name;
    std::vector<uint8_t> head;
    Expect want;
};

TEST(Detect, Synthetic)
{
    const SyntheticCase cases[] = {
        {"empty", {}, {1, 1, -1, 0, false}},
        {"shorter than AC10", bytes("AC1"), {1, 1, -1, 0, false}},
        {"text without a section", bytes("hello\n"), {1, 1, -1, 0, false}},
        {"999 start counts as a section", bytes("999\nfrom somewhere\n"), {1, 1, -1}},
        {"section and version", bytes(kDxfHead + "AC1009\n  0\n"), {1, 1, 4}},
        {"lowest version wins", bytes("999\nwas AC1002\n" + kDxfHead + "AC1014\n  0\n"),
         {1, 1, 0}},
        {"version ending two bytes before the end", bytes(kDxfHead + "AC1012\n\n"), {1, 1, 5}},
        {"version ending in the last but one byte", bytes(kDxfHead + "AC1012\n"),
         {1, 1, -1}},
        {"R14 beta at the start", padded("AC1013", 100), {0, 0, 6, 1}},
        {"R14 beta start beside a version", bytes("AC1013 AC1009   "), {0, 0, 4}},
        {"R14 beta elsewhere", bytes(kDxfHead + "AC1013\n  0\n"), {1, 1, -1}},
        {"DWG of a later release", padded("AC1018", 100), {0, 0, -1}},
        {"DWG", padded("AC1015", 100), {0, 0, 7}},
        {"binary DXF", bytes(std::string("AutoCAD Binary DXF\r\n\x1a\0", 22) + "SECTION"),
         {1, 2, -1}},
        {"binary DXF without a section", bytes("AutoCAD Binary DXF\r\n"), {1, 2, -1, 0, false}},
        {"version in the last possible place", placed("AC1009", ksSniffSize - 8, 3000),
         {1, 1, 4, 0, false}},
        {"version one byte later", placed("AC1009", ksSniffSize - 7, 3000), {1, 1, -1, 0, false}},
        {"section beyond the window", placed("SECTION", ksSniffSize, 3000),
         {1, 1, -1, 0, false}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        check(ksSniffBytes(c.head), c.want);
    }
}

}  // namespace
