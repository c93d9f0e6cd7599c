// The 16-bit CRC of DWG files: reflected polynomial 0xA001, one table
// step per byte. R13-R2000 sections and objects start from ksCrcSeed;
// the blocks of older files start from 0 and are XORed with a value of
// their kind (ksStampCrc).
#include "dwgread/bitcodes.h"

#include <array>

namespace {

constexpr std::array<uint16_t, 256> kCrcTable = [] {
    std::array<uint16_t, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001u : crc >> 1;
        table[i] = static_cast<uint16_t>(crc);
    }
    return table;
}();

static_assert(kCrcTable[1] == 0xC0C1 && kCrcTable[2] == 0xC181 && kCrcTable[3] == 0x0140);

}  // namespace

uint16_t ksCrc16(uint16_t seed, const uint8_t* data, size_t count)
{
    unsigned crc = seed;
    for (size_t i = 0; i < count; ++i)
        crc = (crc >> 8) ^ kCrcTable[(crc ^ data[i]) & 0xff];
    return static_cast<uint16_t>(crc);
}

void ksStampCrc(uint8_t* buffer, size_t totalLength, uint16_t xorValue)
{
    if (totalLength < 2)
        return;
    const uint16_t crc = static_cast<uint16_t>(ksCrc16(0, buffer, totalLength - 2) ^ xorValue);
    buffer[totalLength - 2] = static_cast<uint8_t>(crc);
    buffer[totalLength - 1] = static_cast<uint8_t>(crc >> 8);
}
