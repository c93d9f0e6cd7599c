// Fuzz entries beside the loader's: the readers of untrusted bytes that a
// whole drawing file doesn't reach directly. The replay driver sends the
// files of fuzz/regress/<name>/ to the entry of that name.
#pragma once

#include <cstddef>
#include <cstdint>

// Extended data: the first byte picks the file's coding (DXF, DWG below
// R13, DWG R13 up), the rest is one record's raw items. They are read,
// stored, read back from the blob, resolved and coded again.
int zemacadFuzzXdata(const uint8_t* data, size_t size);

// Init data: the bytes are an init data file, read through the init hooks.
int zemacadFuzzInitData(const uint8_t* data, size_t size);
