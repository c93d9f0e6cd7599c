// The table phases of a load and the default records every drawing holds.
#include "frame/loadphases.h"

#include <cstring>

#include "driver/hooks.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/readerops.h"
#include "records/header.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/record.h"
#include "store/tablelist.h"
#include "store/xdata.h"

namespace {

// The linetype reference of the layer being read (see
// ksNoteLayerLinetypeIndex).
int16_t layerLinetypeIndex = -1;
char layerLinetypeName[ksTableNameSize];

// More viewport entries than this are taken for a damaged file.
constexpr int32_t kMaxVports = 5000;

bool belowR13(const ksFcb* fcb) { return fcb->fileVersion < ksAC1012; }

bool named(const char* name, const char* what) { return ksStrCompare(name, what) == 0; }

bool bySpecialName(const char* name) { return named(name, "BYBLOCK") || named(name, "BYLAYER"); }

template <size_t N>
void setText(char (&field)[N], const char* text)
{
    std::strncpy(field, text, N - 1);
    field[N - 1] = '\0';
}

// Frees the blobs a record read for the table brought along, when it is
// not stored after all.
template <typename R>
void dropBlobs(R& record)
{
    ksBlobFree(record.eed);
    ksBlobFree(record.reactors);
    record.eed = record.reactors = 0;
}

// Adds a default record at the head of its table.
template <typename R>
int16_t addAtHead(ksFcb* fcb, ksTableList table, const R& record)
{
    const ksTableListInfo& t = ksTableLists[table];
    return ksRecordAdd(&record, fcb, record.entryHandle, t.recordSize, fcb->*t.list, ksAtHead, 0, t.errAlloc) != 0;
}

// The names a table holds, as hashes of their upper-case form, so that the
// duplicate test of a DXF table costs as little for its ten-thousandth
// record as for its first. A miss is certain; a hit is confirmed against
// the list. Without memory the set answers "maybe" and the list decides.
class NameHashes {
public:
    NameHashes() = default;
    NameHashes(const NameHashes&) = delete;
    NameHashes& operator=(const NameHashes&) = delete;
    ~NameHashes() { ksMemFree(slots_); }

    bool mayHold(const char* name) const
    {
        if (broken_)
            return true;
        if (slots_ == nullptr)
            return false;
        uint64_t h = hashOf(name);
        for (size_t i = h & (capacity_ - 1); slots_[i] != 0; i = (i + 1) & (capacity_ - 1))
            if (slots_[i] == h)
                return true;
        return false;
    }

    void add(const char* name)
    {
        if (broken_ || ((used_ + 1) * 2 > capacity_ && !grow()))
            return;
        place(hashOf(name));
        ++used_;
    }

private:
    static uint64_t hashOf(const char* name)
    {
        uint64_t h = 14695981039346656037ull;
        for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) {
            unsigned char c = (*p >= 'a' && *p <= 'z') ? *p - 'a' + 'A' : *p;
            h = (h ^ c) * 1099511628211ull;
        }
        return h ? h : 1;  // 0 marks an empty slot
    }

    void place(uint64_t h)
    {
        size_t i = h & (capacity_ - 1);
        while (slots_[i] != 0 && slots_[i] != h)
            i = (i + 1) & (capacity_ - 1);
        slots_[i] = h;
    }

    bool grow()
    {
        size_t capacity = capacity_ ? capacity_ * 2 : 256;
        auto* slots = static_cast<uint64_t*>(ksMemAlloc(static_cast<uint32_t>(capacity * sizeof(uint64_t))));
        if (slots == nullptr || capacity > (1u << 26)) {
            ksMemFree(slots);
            broken_ = true;
            return false;
        }
        std::memset(slots, 0, capacity * sizeof(uint64_t));
        uint64_t* old = slots_;
        size_t oldCapacity = capacity_;
        slots_ = slots;
        capacity_ = capacity;
        for (size_t i = 0; i < oldCapacity; ++i)
            if (old[i] != 0)
                place(old[i]);
        ksMemFree(old);
        return true;
    }

    uint64_t* slots_ = nullptr;
    size_t capacity_ = 0;
    size_t used_ = 0;
    bool broken_ = false;
};

// What a table's own handling makes of a record the loop has read.
enum class Take { add, skip, fail };

template <typename R>
struct TableReader {
    ksTableList list;
    ksTableHead head;
    void (*defaults)(ksFcb*, R*);
    int16_t (*read)(ksFcb*, R*, int16_t* hasExtended);
    bool dxfDuplicates;  // from DXF a name the list holds already is passed over
};

// The loop of a table phase, over the count the header found. `inspect`
// sees each record with its final handle before it is stored, and may keep
// it back. The phase's error number stands again before every read, as the
// steps in between clear it when they succeed.
template <typename R, typename Inspect>
int16_t readTable(ksFcb* fcb, const TableReader<R>& t, Inspect inspect)
{
    const int32_t phaseError = ksG->errorNumber;
    const int32_t count = fcb->tableCount[t.head];
    const bool checkDuplicates = t.dxfDuplicates && fcb->isDxf;
    NameHashes names;
    if (checkDuplicates) {
        R held;
        ksTableRewind(fcb, t.list);
        while (ksTableNext(fcb, t.list, &held))
            names.add(held.name);
    }
    R record;
    for (int32_t i = 0; i < count; ++i) {
        t.defaults(fcb, &record);
        int16_t hasExtended = 0;
        ksG->errorNumber = phaseError;
        if (!t.read(fcb, &record, &hasExtended))
            return 0;
        ksObjHandle known;
        if (checkDuplicates && names.mayHold(record.name) && ksTableFind(fcb, t.list, record.name, &known)) {
            dropBlobs(record);
            continue;
        }
        // Drawings below R13 have no handles of their own; a later record
        // that has none gets one too, as the store indexes every record.
        if (belowR13(fcb) || ksHandleIsNull(record.entryHandle))
            ksHandleNext(fcb, &record.entryHandle);
        Take take = inspect(record);
        if (take == Take::fail)
            return 0;
        if (take == Take::skip) {
            dropBlobs(record);
            continue;
        }
        if (hasExtended && !ksXdataResolve(fcb, &record.eed)) {
            dropBlobs(record);
            return 0;
        }
        if (!ksTableAdd(fcb, t.list, &record)) {
            dropBlobs(record);
            return 0;
        }
        if (checkDuplicates)
            names.add(record.name);
    }
    ksG->errorNumber = phaseError;
    return 1;
}

// A table without special records or defaults.
template <typename R>
int16_t plainTable(ksFcb* fcb, int16_t (*start)(ksFcb*), const TableReader<R>& t)
{
    if (!start(fcb))
        return 0;
    return readTable(fcb, t, [](R&) { return Take::add; });
}

ksObjHandle newHandle(ksFcb* fcb)
{
    ksObjHandle h;
    ksHandleNext(fcb, &h);
    return h;
}

// The record at `index` (from 0) of the linetype list; false past the end.
bool linetypeAt(ksFcb* fcb, int32_t index, ksLinetype* record)
{
    if (index < 0)
        return false;
    ksLinetypeRewind(fcb);
    for (int32_t i = 0; ksLinetypeNext(fcb, record); ++i)
        if (i == index)
            return true;
    return false;
}

// The first linetype whose name is exactly `name`, case counted.
bool linetypeNamed(ksFcb* fcb, const char* name, ksLinetype* record)
{
    ksLinetypeRewind(fcb);
    while (ksLinetypeNext(fcb, record))
        if (std::strcmp(record->name, name) == 0)
            return true;
    return false;
}

// A layer's linetype from the reference its reader noted: the first
// linetype of the list unless the reference names another one; BYBLOCK and
// BYLAYER don't count. A layer of an external reference (a vertical bar in
// its name) whose settings are not retained takes linetype 0, "Continuous".
void resolveLayerLinetype(ksFcb* fcb, ksLayer* layer)
{
    layer->linetypeHandle = ksFirstLinetypeHandle(fcb);
    int16_t index = layerLinetypeIndex;
    const char* name = layerLinetypeName;
    if (std::strchr(layer->name, '|') != nullptr && fcb->visRetain == 0) {
        index = 0;
        name = "Continuous";
    }
    ksLinetype linetype;
    bool hit = fcb->isDxf ? linetypeNamed(fcb, name, &linetype) : linetypeAt(fcb, index, &linetype);
    if (hit && !bySpecialName(linetype.name))
        layer->linetypeHandle = linetype.entryHandle;
}

// Record setup in the one form the loop calls.
void linetypeSetup(ksFcb*, ksLinetype* r) { ksLinetypeDefaults(r); }
void layerSetup(ksFcb* fcb, ksLayer* r)
{
    ksLayerDefaults(fcb, r);
    layerLinetypeIndex = -1;
    layerLinetypeName[0] = '\0';
}
void vportSetup(ksFcb*, ksVport* r) { ksVportDefaults(r); }
void ucsSetup(ksFcb*, ksUcs* r) { ksUcsDefaults(r); }
void appidSetup(ksFcb*, ksAppid* r) { ksAppidDefaults(r); }
void viewSetup(ksFcb*, ksView* r) { ksViewDefaults(r); }
void styleSetup(ksFcb*, ksStyle* r) { ksStyleDefaults(r); }
void dimstyleSetup(ksFcb* fcb, ksDimstyle* r) { ksDimstyleDefaults(fcb, r); }

}  // namespace

// ---------------------------------------------------------------------------
// Default records

int16_t ksAddSpecialLinetypes(ksFcb* fcb)
{
    ksLinetype record;
    ksLinetypeDefaults(&record);
    setText(record.name, "ByBlock");
    record.entryHandle = fcb->byBlockHandle;
    if (!ksLinetypeAdd(fcb, &record))
        return 0;
    setText(record.name, "ByLayer");
    record.entryHandle = fcb->byLayerHandle;
    return ksLinetypeAdd(fcb, &record);
}

int16_t ksAddContinuousLinetype(ksFcb* fcb, const ksObjHandle& handle)
{
    ksLinetype record;
    ksLinetypeDefaults(&record);
    setText(record.name, "Continuous");
    setText(record.description, "Solid line");
    record.entryHandle = handle;
    return addAtHead(fcb, ksListLinetypes, record);
}

int16_t ksAddLayerZero(ksFcb* fcb, const ksObjHandle& handle)
{
    ksLayer record;
    ksLayerDefaults(fcb, &record);
    setText(record.name, "0");
    record.entryHandle = handle;
    return addAtHead(fcb, ksListLayers, record);
}

int16_t ksAddActiveVport(ksFcb* fcb, const ksObjHandle& handle)
{
    ksVport record;
    ksVportDefaults(&record);
    setText(record.name, "*ACTIVE");
    record.direction = fcb->header->VIEWDIR;
    record.center = {fcb->header->VIEWCTR.x, fcb->header->VIEWCTR.y};
    record.height = fcb->header->VIEWSIZE;
    record.entryHandle = handle;
    return addAtHead(fcb, ksListVports, record);
}

int16_t ksAddAcadRegApp(ksFcb* fcb, const ksObjHandle& handle)
{
    ksAppid record;
    ksAppidDefaults(&record);
    setText(record.name, "ACAD");
    record.entryHandle = handle;
    return addAtHead(fcb, ksListRegApps, record);
}

int16_t ksAddStandardStyle(ksFcb* fcb, const ksObjHandle& handle)
{
    ksStyle record;
    ksStyleDefaults(&record);
    setText(record.name, "Standard");
    setText(record.fontFile, "txt");
    record.entryHandle = handle;
    return addAtHead(fcb, ksListShapeFiles, record);
}

int16_t ksAddStandardDimStyle(ksFcb* fcb, const ksObjHandle& handle)
{
    ksDimstyle record;
    ksDimstyleDefaults(fcb, &record);
    setText(record.name, "Standard");
    record.entryHandle = handle;
    return ksDimstyleAdd(fcb, &record);
}

void ksNoteLayerLinetypeIndex(int16_t index) { layerLinetypeIndex = index; }

void ksNoteLayerLinetypeName(const char* name) { setText(layerLinetypeName, name ? name : ""); }

// ---------------------------------------------------------------------------
// Phases

// BYBLOCK and BYLAYER are not linetypes of the list but two handles of the
// drawing; the records that stand for them are made here, below R13 before
// the loop with new handles, from R13 on behind it with the file's handles.
// A record goes in through ksLinetypeAdd, which keeps those two last.
int16_t ksLoadLinetypes(ksFcb* fcb)
{
    if (!ksOpStartLinetypes(fcb))
        return 0;
    const int32_t phaseError = ksG->errorNumber;
    ksG->continuousHandle = ksObjHandle{};
    if (belowR13(fcb)) {
        ksHandleNext(fcb, &fcb->byBlockHandle);
        ksHandleNext(fcb, &fcb->byLayerHandle);
        if (!ksAddSpecialLinetypes(fcb))
            return 0;
        ksG->errorNumber = phaseError;
    }
    bool continuousFound = false;
    TableReader<ksLinetype> t{ksListLinetypes, ksHeadLinetypes, linetypeSetup, ksOpReadLinetype, true};
    auto inspect = [fcb, &continuousFound](ksLinetype& record) {
        // Below R13 the two records are in the list already, with their
        // handles; a file's own entry of that name is passed over.
        if (named(record.name, "BYLAYER")) {
            if (!belowR13(fcb))
                fcb->byLayerHandle = record.entryHandle;
            return Take::skip;
        }
        if (named(record.name, "BYBLOCK")) {
            if (!belowR13(fcb))
                fcb->byBlockHandle = record.entryHandle;
            return Take::skip;
        }
        if (named(record.name, "CONTINUOUS")) {
            ksG->continuousHandle = record.entryHandle;
            continuousFound = true;
        }
        return Take::add;
    };
    if (!readTable(fcb, t, inspect))
        return 0;
    if (!belowR13(fcb)) {
        // A file that lacks either entry still gets its record.
        if (ksHandleIsNull(fcb->byBlockHandle))
            ksHandleNext(fcb, &fcb->byBlockHandle);
        if (ksHandleIsNull(fcb->byLayerHandle))
            ksHandleNext(fcb, &fcb->byLayerHandle);
        if (!ksAddSpecialLinetypes(fcb))
            return 0;
    }
    if (fcb->isDxf && !continuousFound && !ksAddContinuousLinetype(fcb, newHandle(fcb)))
        return 0;
    ksG->errorNumber = phaseError;
    return 1;
}

// DXF and old DWG name a layer's linetype (by text, by place); DWG from R13
// on gives its handle, which stays.
int16_t ksLoadLayers(ksFcb* fcb)
{
    if (!ksOpStartLayers(fcb))
        return 0;
    const int32_t phaseError = ksG->errorNumber;
    bool zeroFound = false;
    TableReader<ksLayer> t{ksListLayers, ksHeadLayers, layerSetup, ksOpReadLayer, true};
    auto inspect = [fcb, &zeroFound](ksLayer& record) {
        if (fcb->isDxf || belowR13(fcb))
            resolveLayerLinetype(fcb, &record);
        if (std::strcmp(record.name, "0") == 0)
            zeroFound = true;
        return Take::add;
    };
    if (!readTable(fcb, t, inspect))
        return 0;
    if (fcb->isDxf && !zeroFound && !ksAddLayerZero(fcb, newHandle(fcb)))
        return 0;
    ksG->errorNumber = phaseError;
    return 1;
}

// Below R13 a drawing has no class section: it gets the default classes.
// DXF numbers its classes from 500 in the order read; DWG gives numbers.
int16_t ksLoadClasses(ksFcb* fcb)
{
    if (belowR13(fcb))
        return ksAddDefaultClasses(fcb);
    if (!ksOpStartClasses(fcb))
        return 0;
    const int32_t phaseError = ksG->errorNumber;
    fcb->classNumbers.zombieEntityClass = 0;
    fcb->classNumbers.zombieObjectClass = 0;
    int16_t number = ksFirstClassNumber;
    ksClass record;
    for (;;) {
        ksClassDefaults(&record);
        ksG->errorNumber = phaseError;
        fcb->failureNumber = 0;
        if (!ksOpReadClass(fcb, &record)) {
            if (fcb->failureNumber != 0) {
                if (fcb->failureNumber > 0)
                    ksG->errorNumber = fcb->failureNumber;
                return 0;
            }
            break;
        }
        if (fcb->isDxf)
            record.classNumber = number;
        ++number;
        // The add notes the class's role, the two zombie classes included,
        // and counts it.
        if (!ksClassAdd(fcb, &record))
            return 0;
    }
    ksG->errorNumber = phaseError;
    if (!ksAddDefaultClasses(fcb))
        return 0;
    ksG->errorNumber = phaseError;
    return 1;
}

int16_t ksLoadVports(ksFcb* fcb)
{
    if (!ksOpStartVports(fcb))
        return 0;
    if (fcb->tableCount[ksHeadVports] > kMaxVports)
        return 0;
    const int32_t phaseError = ksG->errorNumber;
    bool activeFound = false;
    TableReader<ksVport> t{ksListVports, ksHeadVports, vportSetup, ksOpReadVport, false};
    auto inspect = [&activeFound](ksVport& record) {
        if (named(record.name, "*ACTIVE"))
            activeFound = true;
        return Take::add;
    };
    if (!readTable(fcb, t, inspect))
        return 0;
    if (!activeFound && !ksAddActiveVport(fcb, newHandle(fcb)))
        return 0;
    ksG->errorNumber = phaseError;
    return 1;
}

int16_t ksLoadUcses(ksFcb* fcb)
{
    return plainTable(fcb, ksOpStartUcses, TableReader<ksUcs>{ksListUcses, ksHeadUcses, ucsSetup, ksOpReadUcs, false});
}

// Every drawing registers ACAD; a file without any application gets it
// whatever its kind.
int16_t ksLoadRegApps(ksFcb* fcb)
{
    if (!ksOpStartRegApps(fcb))
        return 0;
    const int32_t phaseError = ksG->errorNumber;
    if (fcb->tableCount[ksHeadAppids] == 0) {
        if (!ksAddAcadRegApp(fcb, newHandle(fcb)))
            return 0;
        ksG->errorNumber = phaseError;
        return 1;
    }
    bool acadFound = false;
    TableReader<ksAppid> t{ksListRegApps, ksHeadAppids, appidSetup, ksOpReadRegApp, false};
    auto inspect = [&acadFound](ksAppid& record) {
        if (named(record.name, "ACAD"))
            acadFound = true;
        return Take::add;
    };
    if (!readTable(fcb, t, inspect))
        return 0;
    if (fcb->isDxf && !acadFound && !ksAddAcadRegApp(fcb, newHandle(fcb)))
        return 0;
    ksG->errorNumber = phaseError;
    return 1;
}

int16_t ksLoadViews(ksFcb* fcb)
{
    return plainTable(fcb, ksOpStartViews,
                      TableReader<ksView>{ksListViews, ksHeadViews, viewSetup, ksOpReadView, false});
}

// Text styles and shape files share one table. Duplicate names stay: a
// DXF file may hold "Standard" twice, and both are kept.
int16_t ksLoadShapeFiles(ksFcb* fcb)
{
    if (!ksOpStartShapeFiles(fcb))
        return 0;
    const int32_t phaseError = ksG->errorNumber;
    bool standardFound = false;
    TableReader<ksStyle> t{ksListShapeFiles, ksHeadStyles, styleSetup, ksOpReadShapeFile, false};
    auto inspect = [&standardFound](ksStyle& record) {
        if (named(record.name, "STANDARD"))
            standardFound = true;
        return Take::add;
    };
    if (!readTable(fcb, t, inspect))
        return 0;
    if (fcb->isDxf && !standardFound && !ksAddStandardStyle(fcb, newHandle(fcb)))
        return 0;
    ksG->errorNumber = phaseError;
    return 1;
}

// A dimension style always has a text style: the first of the drawing
// when the file gives none. A file without dimension styles gets
// "Standard", which the header's count doesn't include.
int16_t ksLoadDimStyles(ksFcb* fcb)
{
    if (!ksOpStartDimStyles(fcb))
        return 0;
    const int32_t phaseError = ksG->errorNumber;
    if (fcb->tableCount[ksHeadDimstyles] == 0) {
        if (!ksAddStandardDimStyle(fcb, newHandle(fcb)))
            return 0;
        ksG->errorNumber = phaseError;
        return 1;
    }
    TableReader<ksDimstyle> t{ksListDimStyles, ksHeadDimstyles, dimstyleSetup, ksOpReadDimStyle, false};
    auto inspect = [fcb](ksDimstyle& record) {
        if (ksHandleIsNull(record.DIMTXSTY))
            record.DIMTXSTY = ksFirstStyleHandle(fcb);
        return Take::add;
    };
    return readTable(fcb, t, inspect);
}

// ---------------------------------------------------------------------------
// Undo

void ksUnloadLinetypes(ksFcb* fcb)
{
    ksTableClear(fcb, ksListLinetypes);
    ksXdataFreePending(fcb);
}
void ksUnloadLayers(ksFcb* fcb) { ksTableClear(fcb, ksListLayers); }
void ksUnloadClasses(ksFcb* fcb) { ksClassesFree(fcb); }
void ksUnloadVports(ksFcb* fcb) { ksTableClear(fcb, ksListVports); }
void ksUnloadUcses(ksFcb* fcb) { ksTableClear(fcb, ksListUcses); }
void ksUnloadRegApps(ksFcb* fcb) { ksTableClear(fcb, ksListRegApps); }
void ksUnloadViews(ksFcb* fcb) { ksTableClear(fcb, ksListViews); }
void ksUnloadShapeFiles(ksFcb* fcb) { ksTableClear(fcb, ksListShapeFiles); }
void ksUnloadDimStyles(ksFcb* fcb) { ksTableClear(fcb, ksListDimStyles); }
