// The code page names. $DWGCODEPAGE is an index into this list, in DXF
// and in the DWG headers alike; 12 ("dos850") is the default.
#pragma once

inline constexpr const char* ksCodePageNames[] = {
    "undefined", "ascii",     "iso8859-1", "iso8859-2", "iso8859-3", "iso8859-4", "iso8859-5",
    "iso8859-6", "iso8859-7", "iso8859-8", "iso8859-9", "dos437",    "dos850",    "dos852",
    "dos855",    "dos857",    "dos860",    "dos861",    "dos863",    "dos864",    "dos865",
    "dos869",    "dos932",    "mac-roman", "big5",      "ksc5601",   "johab",     "dos866",
    "ansi_1250", "ansi_1251", "ansi_1252", "gb2312",    "ansi_1253", "ansi_1254", "ansi_1255",
    "ansi_1256", "ansi_1257", "ansi_874",  "ansi_932",  "ansi_936",  "ansi_949",  "ansi_950",
};
static_assert(sizeof(ksCodePageNames) / sizeof(ksCodePageNames[0]) == 42);
