// libFuzzer target: an init data file.
#include "more_entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return zemacadFuzzInitData(data, size); }
