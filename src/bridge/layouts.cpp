#include "bridge/layouts.h"

#include <cstdio>
#include <cstring>

#include "frame/fcb.h"
#include "frame/globals.h"
#include "records/object.h"
#include "records/tables.h"
#include "store/blob.h"
#include "store/handles.h"
#include "store/tablelist.h"

namespace {


ksDictionaryEntry entry(const char* name, const ksObjHandle& handle)
{
    ksDictionaryEntry e{};
    std::snprintf(e.name, sizeof e.name, "%s", name);
    e.handle = handle;
    return e;
}

bool writeEntries(ksLoc* blob, const ksDictionaryEntry* entries, int count)
{
    *blob = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(*blob);
    bool ok = out != nullptr;
    for (int i = 0; ok && i < count; ++i)
        ok = ksDictionaryEntryWrite(out, entries[i]);
    ok = ksBlobCloseWrite(out) && ok;
    if (!ok) {
        ksBlobFree(*blob);
        *blob = 0;
    }
    return ok;
}

// A fresh object of the kind with its defaults and handle, owned by
// `owner` when one is given.
bool start(ksFcb* fcb, int16_t kind, const ksObjHandle& handle, const ksObjHandle* owner, ksObjectHeader* head,
           ksObjectBody* body)
{
    *head = ksObjectHeader{};
    head->kind = kind;
    ksObjectDefaults(fcb, head, body);
    head->handle = handle;
    return owner == nullptr || ksObjectSetOwner(head, *owner);
}

// Adds an object; on a refusal its blobs go again.
bool add(ksFcb* fcb, ksObjectHeader* head, ksObjectBody* body)
{
    if (ksObjectAdd(fcb, head, body))
        return true;
    int16_t error = ksErrorNumber();
    ksObjectFreeBlobs(fcb, head, body);
    ksSetError(error);
    return false;
}

bool addDictionary(ksFcb* fcb, const ksObjHandle& handle, const ksObjHandle& owner, const ksDictionaryEntry* entries,
                   int count)
{
    ksObjectHeader head;
    ksObjectBody body;
    if (!start(fcb, ksKindDictionary, handle, &owner, &head, &body))
        return false;
    body.dictionary.cloning = 1;
    body.dictionary.entryCount = count;
    if (count != 0 && !writeEntries(&body.dictionary.entries, entries, count)) {
        ksObjectFreeBlobs(fcb, &head, &body);
        return false;
    }
    return add(fcb, &head, &body);
}

// Every layer's plot style.
bool setPlotStyles(ksFcb* fcb, const ksObjHandle& style)
{
    ksLayer layer;
    ksLayerRewind(fcb);
    while (ksLayerNext(fcb, &layer)) {
        layer.plotStyleHandle = style;
        if (!ksLayerUpdate(fcb, &layer))
            return false;
    }
    return true;
}

// A layout of one space, and the space's block record pointing back to it.
bool addLayout(ksFcb* fcb, const char* name, const ksObjHandle& handle, const ksObjHandle& dictionary,
               const ksObjHandle& block)
{
    ksObjectHeader head;
    ksObjectBody body;
    if (!start(fcb, fcb->classNumbers.layout, handle, &dictionary, &head, &body))
        return false;
    std::snprintf(body.layout.name, sizeof body.layout.name, "%s", name);
    body.layout.blockRecord = block;
    if (!add(fcb, &head, &body))
        return false;
    ksBlockHeader record;
    if (!ksBlockHeaderSeek(fcb, block, &record))
        return false;
    record.layoutHandle = handle;
    return ksBlockHeaderUpdate(fcb, &record);
}

// The named object dictionary gets one entry per name, pointing to the new
// objects: an entry it has already is pointed anew, a missing one appended.
bool renameEntries(ksFcb* fcb, ksObjectHeader* head, ksObjectBody* body, const ksDictionaryEntry (&wanted)[4])
{
    bool seen[4] = {};
    ksLoc fresh = ksBlobNew();
    ksBlobCursor* out = ksBlobOpenWrite(fresh);
    ksBlobCursor* in = ksBlobOpenRead(body->dictionary.entries);
    bool ok = out != nullptr;
    ksDictionaryEntry e;
    while (ok && in && ksDictionaryEntryRead(in, &e)) {
        for (int i = 0; i < 4; ++i) {
            if (ksStrCompare(e.name, wanted[i].name) == 0) {
                e.handle = wanted[i].handle;
                seen[i] = true;
            }
        }
        ok = ksDictionaryEntryWrite(out, e);
    }
    ksBlobCloseRead(in);
    int32_t count = body->dictionary.entryCount;
    for (int i = 0; ok && i < 4; ++i) {
        if (!seen[i]) {
            ok = ksDictionaryEntryWrite(out, wanted[i]);
            ++count;
        }
    }
    ok = ksBlobCloseWrite(out) && ok;
    if (!ok) {
        ksBlobFree(fresh);
        return false;
    }
    ksLoc old = body->dictionary.entries;
    body->dictionary.entries = fresh;
    body->dictionary.entryCount = count;
    if (!ksObjectReplace(fcb, head, body)) {
        ksBlobFree(fresh);
        ksSetError(281);
        return false;
    }
    ksBlobFree(old);
    return true;
}

// R13 and R14 files written by programs that know layouts carry their
// LAYOUT objects under the named object dictionary's ACAD_LAYOUT. Such a
// drawing keeps them: each layout's block record is pointed back at it,
// which those releases' block records can't say. False when the drawing
// has no such layouts.
bool linkExistingLayouts(ksFcb* fcb, const ksObjectHeader& namedHead, const ksObjectBody& namedBody)
{
    ksObjHandle layouts{};
    ksBlobCursor* in = ksBlobOpenRead(namedBody.dictionary.entries);
    ksDictionaryEntry e;
    for (int32_t i = 0; in && i < namedBody.dictionary.entryCount && ksDictionaryEntryRead(in, &e); ++i)
        if (ksStrCompare(e.name, "ACAD_LAYOUT") == 0)
            layouts = e.handle;
    ksBlobCloseRead(in);
    ksObjectHeader head;
    ksObjectBody body;
    if (ksHandleIsNull(layouts) || fcb->classNumbers.layout == 0 || !ksObjectSeek(fcb, layouts, &head, &body) ||
        head.kind != ksKindDictionary)
        return false;
    bool any = false;
    for (ksObjectRewind(fcb); ksObjectNext(fcb, &head, &body);) {
        if (head.kind != fcb->classNumbers.layout || ksHandleCompare(head.owner, layouts) != 0)
            continue;
        ksBlockHeader record;
        if (ksBlockHeaderSeek(fcb, body.layout.blockRecord, &record)) {
            record.layoutHandle = head.handle;
            ksBlockHeaderUpdate(fcb, &record);
        }
        any = true;
    }
    (void)namedHead;
    return any;
}

}  // namespace

int16_t ksAddLayoutObjects(ksFcb* fcb, const ksObjHandle* handles)
{
    auto take = [&](int slot) { return ksHandleFixedOrNext(fcb, handles, slot); };
    ksObjectHeader head;
    ksObjectBody body;

    // The named object dictionary stands first.
    ksSetError(164);
    ksObjectRewind(fcb);
    if (!ksObjectNext(fcb, &head, &body))
        return 0;
    if (head.kind != ksKindDictionary) {
        ksSetError(201);
        return 0;
    }
    const ksObjHandle named = head.handle;
    if (linkExistingLayouts(fcb, head, body)) {
        ksSetError(0);
        return 1;
    }
    // The classes of the new objects, in a drawing that lacks them.
    const ksClassNumbers& n = fcb->classNumbers;
    if ((!n.placeholder || !n.dictionaryWithDefault || !n.layout || !n.wipeoutVariables) &&
        !ksAddDefaultClasses(fcb))
        return 0;

    const ksObjHandle placeholder = take(28);
    const ksObjHandle layouts = take(29);
    const ksObjHandle plotStyles = take(30);

    // The plot style dictionary, whose one style "Normal" is its default.
    if (!start(fcb, n.dictionaryWithDefault, plotStyles, &named, &head, &body))
        return 0;
    const ksDictionaryEntry normal = entry("Normal", placeholder);
    body.dictionaryWithDefault.entryCount = 1;
    body.dictionaryWithDefault.cloning = 1;
    body.dictionaryWithDefault.defaultEntry = placeholder;
    if (!writeEntries(&body.dictionaryWithDefault.entries, &normal, 1)) {
        ksObjectFreeBlobs(fcb, &head, &body);
        return 0;
    }
    if (!add(fcb, &head, &body))
        return 0;
    fcb->defaultPlotStyleHandle = plotStyles;
    if (!setPlotStyles(fcb, plotStyles))
        return 0;

    if (!start(fcb, n.placeholder, placeholder, &plotStyles, &head, &body) || !add(fcb, &head, &body))
        return 0;
    if (!setPlotStyles(fcb, placeholder))
        return 0;

    const ksObjHandle model = take(31);
    if (!addLayout(fcb, "Model", model, layouts, fcb->modelBlockHandle))
        return 0;
    const ksObjHandle paper = take(32);
    if (!addLayout(fcb, "Layout1", paper, layouts, fcb->paperBlockHandle))
        return 0;
    const ksDictionaryEntry spaces[2] = {entry("Layout1", paper), entry("Model", model)};
    if (!addDictionary(fcb, layouts, named, spaces, 2))
        return 0;
    const ksObjHandle plotSettings = take(33);
    if (!addDictionary(fcb, plotSettings, named, nullptr, 0))
        return 0;

    ksObjectHeader namedHead;
    ksObjectBody namedBody;
    if (!ksObjectSeek(fcb, named, &namedHead, &namedBody))
        return 0;
    // The wipeout variables belong to the named object dictionary, which
    // names them, but it keeps no reactor of them.
    const ksObjHandle wipeout = take(34);
    if (!start(fcb, n.wipeoutVariables, wipeout, nullptr, &head, &body))
        return 0;
    head.owner = named;
    if (!add(fcb, &head, &body))
        return 0;

    const ksDictionaryEntry wanted[4] = {entry("ACAD_LAYOUT", layouts), entry("ACAD_PLOTSETTINGS", plotSettings),
                                         entry("ACAD_PLOTSTYLENAME", plotStyles),
                                         entry("ACAD_WIPEOUT_VARS", wipeout)};
    if (!renameEntries(fcb, &namedHead, &namedBody, wanted))
        return 0;
    ksSetError(0);
    return 1;
}
