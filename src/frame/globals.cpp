// Start and stop of the toolkit, its hooks and switches, and the small
// text services every part uses.
#include "frame/globals.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "driver/hooks.h"
#include "fonts/shapes.h"
#include "records/codepages.h"
#include "store/vm.h"

ksGlobals* ksG = nullptr;

namespace {

// Process-wide values that exist before the toolkit is up; ksInit copies
// them into the block.
ksInitOpenHook processInitOpen = nullptr;
ksInitReadByteHook processInitReadByte = nullptr;
ksInitReadBlockHook processInitReadBlock = nullptr;
ksInitCloseHook processInitClose = nullptr;
ksSeverityHook processErrorHandler = nullptr;

constexpr uint32_t kInitScratchSize = 10;

constexpr char kSeparator = '/';
constexpr char kForeignSeparator = '\\';

// Frees the four shared buffers in the reverse order of their making.
void freeBuffers(ksGlobals* g)
{
    ksMemFree(g->xdataWriteBuffer);
    ksMemFree(g->xdataReadBuffer);
    ksMemFree(g->writeBuffer);
    ksMemFree(g->readBuffer);
    g->xdataWriteBuffer = g->xdataReadBuffer = g->writeBuffer = g->readBuffer = nullptr;
}

// Tears down a block that ksInit could not finish: hands the number back
// and leaves the toolkit down.
int16_t failInit(ksGlobals* g, int16_t* errorOut)
{
    if (errorOut)
        *errorOut = static_cast<int16_t>(g->errorNumber);
    freeBuffers(g);
    ksMemFree(g->initScratch);
    ksMemFree(g);
    ksG = nullptr;
    return 0;
}

bool fileExists(const char* path)
{
    ksStream* stream = ksFileOpenRead(path);
    if (stream == nullptr)
        return false;
    ksFileClose(stream);
    return true;
}

// Copies text into a ksPathMax buffer; false when it does not fit.
bool copyPath(char* out, std::string_view text)
{
    if (text.size() >= ksPathMax)
        return false;
    std::memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
    return true;
}

constexpr unsigned char foldCase(unsigned char c) { return (c >= 'a' && c <= 'z') ? c - 'a' + 'A' : c; }

}  // namespace

int16_t ksInit(const char* initPath, int16_t useHooks, int16_t* errorOut)
{
    if (initPath == nullptr && useHooks == 0) {
        if (errorOut)
            *errorOut = 295;
        return 0;
    }
    auto* g = static_cast<ksGlobals*>(ksMemAlloc(sizeof(ksGlobals)));
    if (g == nullptr) {
        if (errorOut)
            *errorOut = 284;
        return 0;
    }
    std::memset(g, 0, sizeof *g);
    ksG = g;

    g->initOpen = processInitOpen;
    g->initReadByte = processInitReadByte;
    g->initReadBlock = processInitReadBlock;
    g->initClose = processInitClose;
    g->errorHandler = processErrorHandler;
    g->findFile = ksFindFileDefault;
    g->initLoaded = 0;

    g->errorNumber = 216;
    if (!ksVmInit())
        return failInit(g, errorOut);
    g->initScratch = ksMemAlloc(kInitScratchSize);
    if (g->initScratch == nullptr)
        return failInit(g, errorOut);
    std::strcpy(g->dxfIntegerFormat, "%6d");
    std::strcpy(g->dxfRealFormat, "%.6f");
    std::strcpy(g->dxfExpFormat, "%.6lE");
    g->dxfPrecision = 6;
    g->dxfScale = 1000000.0;
    g->dxfHalfUnit = 5e-07;
    g->dxfHalfUnitRadians = g->dxfHalfUnit / 57.295779513082195;
    g->dxfNegativeZero = 0;

    g->errorNumber = 11;
    if ((g->readBuffer = static_cast<uint8_t*>(ksMemAlloc(ksIoBufferSize))) == nullptr)
        return failInit(g, errorOut);
    g->errorNumber = 12;
    if ((g->writeBuffer = static_cast<uint8_t*>(ksMemAlloc(ksIoBufferSize))) == nullptr)
        return failInit(g, errorOut);
    g->errorNumber = 9;
    if ((g->xdataReadBuffer = static_cast<uint8_t*>(ksMemAlloc(ksXdataBufferSize))) == nullptr)
        return failInit(g, errorOut);
    g->errorNumber = 10;
    if ((g->xdataWriteBuffer = static_cast<uint8_t*>(ksMemAlloc(ksXdataBufferSize))) == nullptr)
        return failInit(g, errorOut);

    g->errorNumber = 15;
    g->writeBlockSize = 4096;

    if (!ksLoadInitData(initPath, useHooks))
        return failInit(g, errorOut);

    g->errorNumber = 294;
    if (!ksShapeSystemInit()) {
        ksFreeInitData();
        return failInit(g, errorOut);
    }

    g->errorNumber = 0;
    g->allowBetaFiles = 1;
    g->convertPolylines = 1;
    std::memset(&g->nullHandle, 0, sizeof g->nullHandle);
    std::memset(&g->firstHandle, 0, sizeof g->firstHandle);
    g->firstHandle.bytes[7] = 1;
    if (errorOut)
        *errorOut = 0;
    return 1;
}

void ksShutdown()
{
    ksGlobals* g = ksG;
    if (g == nullptr)
        return;
    if (g->initLoaded)
        ksFreeInitData();
    ksMemFree(g->initScratch);
    g->initScratch = nullptr;
    freeBuffers(g);
    ksShapeSystemShutdown();
    ksMemFree(g);
    ksVmRelease();
    ksVmInit();
    ksG = nullptr;
}

void ksSetInitOpen(ksInitOpenHook hook) { processInitOpen = hook; }
void ksSetInitReadByte(ksInitReadByteHook hook) { processInitReadByte = hook; }
void ksSetInitReadBlock(ksInitReadBlockHook hook) { processInitReadBlock = hook; }
void ksSetInitClose(ksInitCloseHook hook) { processInitClose = hook; }

void ksSetErrorHandler(ksSeverityHook hook)
{
    processErrorHandler = hook;
    if (ksG)
        ksG->errorHandler = hook;
}

// Sets one field of a running toolkit; 0 when the toolkit is down.
#define KS_SETTER(name, type, field, value) \
    int16_t name(type arg)                  \
    {                                       \
        if (ksG == nullptr)                 \
            return 0;                       \
        ksG->field = (value);               \
        return 1;                           \
    }

KS_SETTER(ksSetFindFile, ksFindFileHook, findFile, arg ? arg : ksFindFileDefault)
KS_SETTER(ksSetWriteNotice, ksNoticeHook, writeNotice, arg)
KS_SETTER(ksSetDxfProgress, ksProgressHook, dxfProgress, arg)
KS_SETTER(ksSetLoadProgress, ksProgressHook, loadProgress, arg)
KS_SETTER(ksSetSaveProgress, ksProgressHook, saveProgress, arg)
KS_SETTER(ksSetEntityNotice, ksEntityNoticeHook, entityNotice, arg)
KS_SETTER(ksSetAllowBetaFiles, int16_t, allowBetaFiles, arg)
KS_SETTER(ksSetOutputOption, int16_t, outputOption, arg)
KS_SETTER(ksSetConvertPolylines, uint8_t, convertPolylines, arg)
KS_SETTER(ksSetSkipBlockRefs, uint8_t, skipBlockRefs, arg)
#undef KS_SETTER

int16_t ksStopLoad()
{
    if (ksG == nullptr)
        return 0;
    ksG->loadContinue = 0;
    return 1;
}

int16_t ksFindFileDefault(char* name, char* found, int16_t /*flag*/)
{
    for (char* p = name; *p; ++p)
        if (*p == kForeignSeparator)
            *p = kSeparator;
    std::string_view given(name);
    if (!copyPath(found, given)) {
        found[0] = '\0';
        return 0;
    }
    if (given.find(kSeparator) != std::string_view::npos)
        return 1;
    if (fileExists(found))
        return 1;
    if (given.find(':') != std::string_view::npos)
        return 1;
    const char* acad = std::getenv("ACAD");
    if (acad == nullptr)
        return 1;
    char candidate[ksPathMax];
    std::string_view dirs(acad);
    while (!dirs.empty()) {
        size_t end = dirs.find(';');
        std::string_view dir = dirs.substr(0, end);
        dirs = end == std::string_view::npos ? std::string_view() : dirs.substr(end + 1);
        if (dir.empty())
            continue;
        bool needSeparator = dir.back() != kSeparator;
        size_t length = dir.size() + (needSeparator ? 1 : 0) + given.size();
        if (length >= ksPathMax)
            continue;
        std::memcpy(candidate, dir.data(), dir.size());
        if (needSeparator)
            candidate[dir.size()] = kSeparator;
        std::memcpy(candidate + length - given.size(), given.data(), given.size());
        candidate[length] = '\0';
        if (fileExists(candidate)) {
            std::memcpy(found, candidate, length + 1);
            return 1;
        }
    }
    return 1;
}

int16_t ksCodePageName(int16_t index, char* buffer)
{
    if (index < 0 || index >= ksCodePageNameCount)
        return 0;
    std::strcpy(buffer, ksCodePageNames[index]);
    return 1;
}

int16_t ksCodePageIndex(const char* name, int16_t* indexOut)
{
    for (int16_t i = 0; i < ksCodePageNameCount; ++i) {
        if (ksStrCompare(name, ksCodePageNames[i]) == 0) {
            *indexOut = i;
            return 1;
        }
    }
    return 0;
}

int ksStrNCompare(const char* a, const char* b, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        unsigned char ca = foldCase(static_cast<unsigned char>(a[i]));
        unsigned char cb = foldCase(static_cast<unsigned char>(b[i]));
        if (ca != cb)
            return ca < cb ? -1 : 1;
        if (ca == 0)
            return 0;
    }
    return 0;
}

int ksStrCompare(const char* a, const char* b) { return ksStrNCompare(a, b, SIZE_MAX); }
