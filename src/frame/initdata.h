// Init data: the two built-in shape fonts and the code page tables,
// read from ksinit.dat or through the four init hooks.
//
// File layout, little-endian, no padding:
//
//   signature      text up to a zero byte; the byte before the zero is 'G'
//   two words      2 x 32-bit, not used
//   font index 1   100 x (16-bit shape number, 32-bit offset into data 1)
//   font data 1    4998 bytes (SIMPLEX)
//   font index 2   103 x (16-bit, 32-bit)
//   font data 2    4832 bytes (GDT)
//   page count     16-bit, at most ksMaxCodePages
//   directory      count x (32-bit unused, 16-bit unused, 16-bit extendedCount)
//   tables         per page: 256 x 16-bit single-byte table, then
//                  extendedCount 16-bit keys and extendedCount 16-bit values
#pragma once

#include <cstdint>

inline constexpr int ksFont1Entries = 100;
inline constexpr int ksFont2Entries = 103;
inline constexpr uint32_t ksFont1DataSize = 4998;
inline constexpr uint32_t ksFont2DataSize = 4832;
inline constexpr int ksMaxCodePages = 50;

struct ksFontIndexEntry {
    int16_t number;
    int32_t offset;
};

struct ksInitData {
    ksFontIndexEntry* font1Index;  // ksFont1Entries
    uint8_t* font1Data;            // ksFont1DataSize
    ksFontIndexEntry* font2Index;  // ksFont2Entries
    uint8_t* font2Data;            // ksFont2DataSize
    int16_t codePageCount;
    int16_t extendedCount[ksMaxCodePages];
    uint16_t** codePageToUnicode;  // codePageCount tables of 256
    uint16_t** extendedKeys;       // per page; null when extendedCount is 0
    uint16_t** extendedValues;
};

// Reads the init data into ksG. useHooks: read through the init hooks
// instead of the file at path. 1 on success; 0 with 182, 183 or 207.
int16_t ksLoadInitData(const char* path, int16_t useHooks);
// Frees the tables; initLoaded is left as it is.
void ksFreeInitData();

// Code page number (2 and up: index into the tables + 2) to Unicode and back.
int16_t ksCodeToUnicode(int16_t codePage, uint16_t code, uint16_t* out);
int16_t ksUnicodeToCode(uint16_t unicode, int16_t codePage, uint16_t* out);
