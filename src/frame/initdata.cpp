// Reading the init data. Only the open and the signature are checked: a
// short file gives tables whose missing tail is zero, never an error. The
// page count is bounded by the size of the per-page arrays.
#include "frame/initdata.h"

#include <cstring>

#include "driver/hooks.h"
#include "frame/globals.h"

namespace {

// The byte source: a file, or the host's init hooks.
class InitSource {
public:
    InitSource(ksStream* file) : file_(file) {}

    // Next byte, or -1 at the end.
    int byte() { return file_ ? ksFileGetByte(file_) : ksG->initReadByte(); }

    // Fills size bytes; what the source can't give stays zero.
    void block(void* buffer, uint32_t size)
    {
        std::memset(buffer, 0, size);
        if (file_)
            ksFileRead(buffer, 1, size, file_);
        else
            ksG->initReadBlock(buffer, static_cast<int32_t>(size));
    }

    uint16_t u16()
    {
        uint8_t b[2];
        block(b, 2);
        return static_cast<uint16_t>(b[0] | b[1] << 8);
    }

    void close()
    {
        if (file_)
            ksFileClose(file_);
        else if (ksG->initClose)
            ksG->initClose();
    }

private:
    ksStream* file_;
};

int32_t readLE32(const uint8_t* p)
{
    return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                                static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24);
}

void readFontIndex(InitSource& in, ksFontIndexEntry* index, int entries)
{
    uint8_t raw[6 * ksFont2Entries];
    in.block(raw, 6u * entries);
    for (int i = 0; i < entries; ++i) {
        const uint8_t* p = raw + 6 * i;
        index[i].number = static_cast<int16_t>(p[0] | p[1] << 8);
        index[i].offset = readLE32(p + 2);
    }
}

template <typename T>
T* allocArray(size_t count)
{
    auto* p = static_cast<T*>(ksMemAlloc(static_cast<uint32_t>(count * sizeof(T))));
    if (p)
        std::memset(p, 0, count * sizeof(T));
    return p;
}

void freeFonts(ksInitData& d)
{
    ksMemFree(d.font2Data);
    ksMemFree(d.font1Data);
    ksMemFree(d.font2Index);
    ksMemFree(d.font1Index);
    d.font1Index = d.font2Index = nullptr;
    d.font1Data = d.font2Data = nullptr;
}

}  // namespace

int16_t ksLoadInitData(const char* path, int16_t useHooks)
{
    ksG->errorNumber = 182;
    ksStream* file = nullptr;
    if (useHooks == 0) {
        if (path == nullptr || (file = ksFileOpenRead(path)) == nullptr)
            return 0;
    } else if (ksG->initOpen == nullptr || ksG->initReadByte == nullptr || ksG->initReadBlock == nullptr ||
               !ksG->initOpen()) {
        return 0;
    }
    InitSource in(file);
    ksInitData& d = ksG->init;
    std::memset(&d, 0, sizeof d);

    d.font1Index = allocArray<ksFontIndexEntry>(ksFont1Entries);
    d.font2Index = allocArray<ksFontIndexEntry>(ksFont2Entries);
    d.font1Data = allocArray<uint8_t>(ksFont1DataSize);
    d.font2Data = allocArray<uint8_t>(ksFont2DataSize);
    if (!d.font1Index || !d.font2Index || !d.font1Data || !d.font2Data) {
        freeFonts(d);
        in.close();
        return 0;
    }

    // The signature: any text whose last byte before the zero is 'G'.
    int previous = 0;
    for (int c; (c = in.byte()) != 0; previous = c) {
        if (c < 0) {  // no zero byte at all
            previous = 0;
            break;
        }
    }
    if (previous != 'G') {
        ksG->errorNumber = 183;
        freeFonts(d);
        in.close();
        return 0;
    }
    ksG->errorNumber = 0;
    uint8_t words[8];
    in.block(words, sizeof words);

    readFontIndex(in, d.font1Index, ksFont1Entries);
    in.block(d.font1Data, ksFont1DataSize);
    readFontIndex(in, d.font2Index, ksFont2Entries);
    in.block(d.font2Data, ksFont2DataSize);

    uint16_t pages = in.u16();
    if (pages > ksMaxCodePages) {  // the per-page arrays hold no more
        ksG->errorNumber = 183;
        freeFonts(d);
        in.close();
        return 0;
    }
    d.codePageCount = static_cast<int16_t>(pages);
    // At least one slot each, so that a count of 0 still gives valid arrays.
    size_t slots = pages ? pages : 1;
    ksG->errorNumber = 207;
    d.codePageToUnicode = allocArray<uint16_t*>(slots);
    d.extendedKeys = allocArray<uint16_t*>(slots);
    d.extendedValues = allocArray<uint16_t*>(slots);
    bool ok = d.codePageToUnicode && d.extendedKeys && d.extendedValues;
    for (int i = 0; ok && i < pages; ++i) {
        uint8_t entry[8];
        in.block(entry, sizeof entry);
        uint16_t extended = static_cast<uint16_t>(entry[6] | entry[7] << 8);
        d.extendedCount[i] = static_cast<int16_t>(extended);
        d.codePageToUnicode[i] = allocArray<uint16_t>(256);
        ok = d.codePageToUnicode[i] != nullptr;
        if (ok && extended != 0) {
            d.extendedKeys[i] = allocArray<uint16_t>(extended);
            d.extendedValues[i] = allocArray<uint16_t>(extended);
            ok = d.extendedKeys[i] && d.extendedValues[i];
        }
    }
    if (!ok) {
        bool goOn = ksAllocFailed(207);
        if (!goOn) {
            ksFreeInitData();
            in.close();
            return 0;
        }
    }
    for (int i = 0; i < pages; ++i) {
        auto decode = [&](uint16_t* table, uint32_t count) {
            if (table == nullptr)
                return;
            in.block(table, count * 2);
            for (uint32_t k = 0; k < count; ++k) {  // stored little-endian
                auto* b = reinterpret_cast<uint8_t*>(table + k);
                table[k] = static_cast<uint16_t>(b[0] | b[1] << 8);
            }
        };
        decode(d.codePageToUnicode[i], 256);
        uint16_t extended = static_cast<uint16_t>(d.extendedCount[i]);
        decode(d.extendedKeys[i], extended);
        decode(d.extendedValues[i], extended);
    }
    in.close();
    ksG->errorNumber = 0;
    ksG->initLoaded = 1;
    return 1;
}

void ksFreeInitData()
{
    ksInitData& d = ksG->init;
    for (int i = 0; i < d.codePageCount; ++i) {
        if (d.codePageToUnicode)
            ksMemFree(d.codePageToUnicode[i]);
        if (d.extendedKeys)
            ksMemFree(d.extendedKeys[i]);
        if (d.extendedValues)
            ksMemFree(d.extendedValues[i]);
    }
    ksMemFree(d.codePageToUnicode);
    ksMemFree(d.extendedKeys);
    ksMemFree(d.extendedValues);
    freeFonts(d);
    d.codePageToUnicode = d.extendedKeys = d.extendedValues = nullptr;
    d.codePageCount = 0;
}

namespace {

// Table of a code page number, or -1 when there is none.
int pageSlot(int16_t codePage)
{
    if (ksG == nullptr || !ksG->initLoaded || codePage < 2 || codePage - 2 >= ksG->init.codePageCount)
        return -1;
    return codePage - 2;
}

}  // namespace

int16_t ksCodeToUnicode(int16_t codePage, uint16_t code, uint16_t* out)
{
    int slot = pageSlot(codePage);
    if (slot < 0)
        return 0;
    const ksInitData& d = ksG->init;
    if (code < 256) {
        if (d.codePageToUnicode[slot] == nullptr)  // its allocation failed and a handler went on
            return 0;
        *out = d.codePageToUnicode[slot][code];
        return 1;
    }
    uint16_t extended = static_cast<uint16_t>(d.extendedCount[slot]);
    for (uint16_t i = 0; i < extended && d.extendedKeys[slot]; ++i) {
        if (d.extendedKeys[slot][i] == code) {
            *out = d.extendedValues[slot][i];
            return 1;
        }
    }
    return 0;
}

int16_t ksUnicodeToCode(uint16_t unicode, int16_t codePage, uint16_t* out)
{
    int slot = pageSlot(codePage);
    if (slot < 0)
        return 0;
    const ksInitData& d = ksG->init;
    for (uint16_t code = 0; code < 256 && d.codePageToUnicode[slot]; ++code) {
        if (d.codePageToUnicode[slot][code] == unicode) {
            *out = code;
            return 1;
        }
    }
    uint16_t extended = static_cast<uint16_t>(d.extendedCount[slot]);
    for (uint16_t i = 0; i < extended && d.extendedValues[slot]; ++i) {
        if (d.extendedValues[slot][i] == unicode) {
            *out = d.extendedKeys[slot][i];
            return 1;
        }
    }
    return 0;
}
