// Basic types shared by every part of the toolkit.
#pragma once

#include <cstddef>
#include <cstdint>

// A handle: 8 bytes, most significant first. Handles compare as 8 unsigned
// bytes; all zeros means "no handle".
struct ksObjHandle {
    uint8_t bytes[8];
};

// File release codes. AC1013 (the R14 beta) is read as ksR14.
enum ksVersion : int16_t {
    ksVersionUnknown = -1,
    ksAC1002 = 0,
    ksAC1003 = 1,
    ksAC1004 = 2,
    ksAC1006 = 3,
    ksAC1009 = 4,  // R12
    ksAC1012 = 5,  // R13
    ksAC1014 = 6,  // R14
    ksAC1015 = 7,  // R2000
};

inline constexpr int ksVersionCount = 8;

// The version strings in the order of their codes.
inline constexpr const char* ksVersionNames[ksVersionCount] = {
    "AC1002", "AC1003", "AC1004", "AC1006", "AC1009", "AC1012", "AC1014", "AC1015",
};

// Longest path the toolkit keeps (names, found files). Longer paths are
// refused where they come in.
inline constexpr size_t ksPathMax = 512;

struct ksPoint2 {
    double x, y;
};

struct ksPoint3 {
    double x, y, z;
};

// A date or a duration: whole days and milliseconds into the day.
struct ksDate {
    int32_t days;
    int32_t milliseconds;
};
