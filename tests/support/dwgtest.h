// Support for the tests of the DWG reader: a DXF file's groups in memory,
// with lookups by section, table entry and header variable; a record's
// field against its DXF group; the drawings of the corpus paired with DXF
// exports of them; a DWG opened as the load opens it; and file images of
// objects framed here.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "dwgread/dwgfile.h"
#include "dwgwrite/objectframe.h"
#include "support/fixtures.h"
#include "support/support.h"

namespace zt {

struct DxfGroup {
    int code;
    std::string value;
};

// A record: the type its group 0 gives and the groups up to the next one.
// A HEADER variable: its name without '$' and its value groups.
struct DxfRecord {
    std::string type;
    std::vector<DxfGroup> groups;

    // The first value of `code` outside the application groups (102); with
    // a subclass, the first inside it ("": before any marker). Null for none.
    const std::string* find(int code, const char* subclass = nullptr) const;
    bool has(int code) const { return find(code) != nullptr; }
    std::string text(int code, const char* subclass = nullptr) const;  // "" for none
    double real(int code, const char* subclass = nullptr) const { return std::atof(text(code, subclass).c_str()); }
    uint64_t hex(int code, const char* subclass = nullptr) const;
    uint64_t handle() const;  // the first group 5 or 105 (a DIMSTYLE's; its 5 is DIMBLK)
    std::vector<uint64_t> reactors() const;
    // A dictionary's items: each name (3) with the handle behind it (350, 360).
    std::vector<std::pair<std::string, uint64_t>> items() const;
};

struct DxfFile {
    explicit DxfFile(const fs::path& file);
    // A section's records; none for a section the file lacks.
    const std::vector<DxfRecord>& section(const std::string& name) const;
    // Handles, 0 for none: an entry of a table (TABLE: a table's own
    // record) by name in any case, a block record also by the true name that
    // some exporters keep when they rename it; a member of a dictionary.
    uint64_t entry(const std::string& table, const std::string& name) const;
    uint64_t member(uint64_t dictionary, const std::string& name) const;
    std::string var(const std::string& name) const;  // the first value of a variable

    int16_t version = 0;  // the ksVersion the head tells
    std::map<std::string, std::vector<DxfRecord>> sections;
    std::map<std::string, DxfRecord> vars;  // without '$'
    std::map<std::string, uint64_t> entries;  // "TABLE/NAME"
};

// A field of a record against the value of the DXF group that the DXF
// reader stores into it, by the kind and index of the reader's row
// (ksTfByte ... ksTfNameRef, ksEfBit; records/tables.h, entity.h): empty
// when they agree (reals within `tolerance`, relative above 1; integers
// under `mask`; kinds not compared always), else what the field holds.
std::string fieldDiffers(const DxfFile& dxf, const void* field, int kind, int index, const std::string& value,
                         double tolerance, int mask = ~0);

// A DWG of the corpus and a DXF export of it (paths under corpusDir()).
struct DrawingPair {
    const char* dwg;
    const char* dxf;
    // An export of that very save: equal $TDCREATE, or one whole hours
    // apart (the exporter wrote local time) with $TDUCREATE equal to the
    // drawing's. Else one of another save or a later revision of the
    // sample: other header values, and an entry under a handle of the
    // drawing may be another one or missing.
    bool sameSave = true;
    // The export's OBJECTS are the drawing's and no others.
    bool sameObjects = false;
    // Header variables in which an export of the same save is not the drawing.
    std::vector<std::string> differ = {};
};
const std::vector<DrawingPair>& drawingPairs();

// The R13 to R2000 DWG files of the corpus, relative to corpusDir().
std::vector<std::string> corpusDwgs();

// How far DwgLoadTest::open runs the load: the header; the table phases
// with the classes; those and the objects. The entity phases never run.
enum class DwgPhases { header, tables, objects };

// A running toolkit with the DWG reader installed, and `fcb`, the DWG last
// opened, which the next open and the end of the test close.
class DwgLoadTest : public ToolkitTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // Opens a file as the load does and runs its phases in the load's order
    // up to `upto`: empty, or the step that failed and the error number.
    std::string open(const fs::path& file, DwgPhases upto);

    ksFcb* fcb = nullptr;
};

// Objects framed by the object writer into a file image of their own:
// begin() writes an object's frame, the caller its data, ksMarkHandles and
// its handles, end() puts it into the image. install() gives a reader state
// the image and its map.
struct DwgImage {
    explicit DwgImage(int16_t version) : version(version) { ksResetBits(w, version); }
    ~DwgImage() { ksBitWriterFree(w); }
    ksBitWriter& begin(int16_t type, uint64_t handle, bool entity, ksLoc graphic = 0);
    void end();

    // An entity whole: the frame, the common data (no reactors, color and
    // linetype BYLAYER, visible), `data`, the common handles (owner 0x1F
    // when `mode` is 0, no extension dictionary, layer 0x10, the links
    // handle - 1 and `next` unless `noLinks`), then `handles`.
    using Write = std::function<void(ksBitWriter&)>;
    struct EntityForm {
        int mode = 2;
        bool noLinks = true;
        uint64_t next = 0;
        ksLoc graphic = 0;
    };
    void entity(int16_t type, uint64_t handle, const Write& data, const Write& handles, const EntityForm& form);
    void install(ksDwgState& st) const;

    int16_t version;
    ksBitWriter w{};
    Bytes image;
    std::vector<ksDwgMapEntry> map;
};

}  // namespace zt
