// The reader operation table: 37 slots that a load calls without knowing
// the file's kind. dwgOps and dxfOps fill the same slots; slot 0 is never
// used, slot 28 is filled but never called, slot 30 stays empty.
#pragma once

#include <cstdint>

struct ksFcb;
struct ksEntityHeader;
struct ksObjectHeader;
struct ksBlockHeader;
struct ksClass;
struct ksDimstyle;
struct ksLayer;
struct ksLinetype;
struct ksAppid;
struct ksStyle;
struct ksUcs;
struct ksView;
struct ksVport;
struct ksVpEntHeader;

using ksStartOp = int16_t (*)(ksFcb*);
using ksReadObjectOp = int16_t (*)(ksFcb*, ksObjectHeader*, void* body, int16_t* hasExtended);

// Slots in slot order; the comment is the slot number.
struct ksReaderOps {
    void (*unused0)();                                                                       //  0
    int16_t (*nextObjectType)(ksFcb*);                                                       //  1
    ksReadObjectOp readDictionary;                                                           //  2
    ksReadObjectOp readObject;                                                               //  3
    int16_t (*readBlockHeader)(ksFcb*, ksBlockHeader*, int16_t* hasExtended);                //  4
    int16_t (*readBlockRecord)(ksFcb*, ksBlockHeader*);                                      //  5
    int16_t (*readClass)(ksFcb*, ksClass*);                                                  //  6
    int16_t (*readDimStyle)(ksFcb*, ksDimstyle*, int16_t* hasExtended);                      //  7
    int16_t (*readEntity)(ksFcb*, ksEntityHeader*, void* body, int16_t* hasExtended);        //  8
    ksReadObjectOp readGroup;                                                                //  9
    int16_t (*readHeader)(ksFcb*);                                                           // 10
    int16_t (*readLayer)(ksFcb*, ksLayer*, int16_t* hasExtended);                            // 11
    int16_t (*readLinetype)(ksFcb*, ksLinetype*, int16_t* hasExtended);                      // 12
    ksReadObjectOp readMlineStyle;                                                           // 13
    ksReadObjectOp readPlotSettings;                                                         // 14
    int16_t (*readRegApp)(ksFcb*, ksAppid*, int16_t* hasExtended);                           // 15
    int16_t (*readShapeFile)(ksFcb*, ksStyle*, int16_t* hasExtended);                        // 16
    int16_t (*readUcs)(ksFcb*, ksUcs*, int16_t* hasExtended);                                // 17
    int16_t (*readView)(ksFcb*, ksView*, int16_t* hasExtended);                              // 18
    int16_t (*readVport)(ksFcb*, ksVport*, int16_t* hasExtended);                            // 19
    int16_t (*readVpEntHeader)(ksFcb*, ksVpEntHeader*);                                      // 20
    ksStartOp startBlockEntities;                                                            // 21
    ksStartOp startBlockHeaders;                                                             // 22
    ksStartOp startClasses;                                                                  // 23
    ksStartOp startDimStyles;                                                                // 24
    ksStartOp startEntities;                                                                 // 25
    ksStartOp startLayers;                                                                   // 26
    ksStartOp startLinetypes;                                                                // 27
    ksStartOp unused28;                                                                      // 28
    ksStartOp startObjects;                                                                  // 29
    void (*empty30)();                                                                       // 30
    ksStartOp startRegApps;                                                                  // 31
    ksStartOp startShapeFiles;                                                               // 32
    ksStartOp startUcses;                                                                    // 33
    ksStartOp startViews;                                                                    // 34
    ksStartOp startVpEntHeaders;                                                             // 35
    ksStartOp startVports;                                                                   // 36
};

inline constexpr int ksReaderSlotCount = 37;

// Fill the two tables of the running toolkit. A slot whose reader is not
// built in leaves its pointer null; the forwarders below then fail.
void ksInstallDwgReader();
void ksInstallDxfReader();

// The reader modules' registrations: each fills the slots it serves.
void ksDwgFillOps(ksReaderOps* ops);  // DWG from R13 on (dwgread/)

// One forwarder per slot, taking the drawing first. A null slot returns
// false (0) and leaves the error number the caller set.
int16_t ksOpNextObjectType(ksFcb* fcb);
int16_t ksOpReadDictionary(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended);
int16_t ksOpReadObject(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended);
int16_t ksOpReadBlockHeader(ksFcb* fcb, ksBlockHeader* record, int16_t* hasExtended);
int16_t ksOpReadBlockRecord(ksFcb* fcb, ksBlockHeader* record);
int16_t ksOpReadClass(ksFcb* fcb, ksClass* record);
int16_t ksOpReadDimStyle(ksFcb* fcb, ksDimstyle* record, int16_t* hasExtended);
int16_t ksOpReadEntity(ksFcb* fcb, ksEntityHeader* head, void* body, int16_t* hasExtended);
int16_t ksOpReadGroup(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended);
int16_t ksOpReadHeader(ksFcb* fcb);
int16_t ksOpReadLayer(ksFcb* fcb, ksLayer* record, int16_t* hasExtended);
int16_t ksOpReadLinetype(ksFcb* fcb, ksLinetype* record, int16_t* hasExtended);
int16_t ksOpReadMlineStyle(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended);
int16_t ksOpReadPlotSettings(ksFcb* fcb, ksObjectHeader* head, void* body, int16_t* hasExtended);
int16_t ksOpReadRegApp(ksFcb* fcb, ksAppid* record, int16_t* hasExtended);
int16_t ksOpReadShapeFile(ksFcb* fcb, ksStyle* record, int16_t* hasExtended);
int16_t ksOpReadUcs(ksFcb* fcb, ksUcs* record, int16_t* hasExtended);
int16_t ksOpReadView(ksFcb* fcb, ksView* record, int16_t* hasExtended);
int16_t ksOpReadVport(ksFcb* fcb, ksVport* record, int16_t* hasExtended);
int16_t ksOpReadVpEntHeader(ksFcb* fcb, ksVpEntHeader* record);
int16_t ksOpStartBlockEntities(ksFcb* fcb);
int16_t ksOpStartBlockHeaders(ksFcb* fcb);
int16_t ksOpStartClasses(ksFcb* fcb);
int16_t ksOpStartDimStyles(ksFcb* fcb);
int16_t ksOpStartEntities(ksFcb* fcb);
int16_t ksOpStartLayers(ksFcb* fcb);
int16_t ksOpStartLinetypes(ksFcb* fcb);
int16_t ksOpStartObjects(ksFcb* fcb);
int16_t ksOpStartRegApps(ksFcb* fcb);
int16_t ksOpStartShapeFiles(ksFcb* fcb);
int16_t ksOpStartUcses(ksFcb* fcb);
int16_t ksOpStartViews(ksFcb* fcb);
int16_t ksOpStartVpEntHeaders(ksFcb* fcb);
int16_t ksOpStartVports(ksFcb* fcb);
