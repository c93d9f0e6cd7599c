// libFuzzer target: one record's raw extended data in one of the codings.
#include "more_entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return zemacadFuzzXdata(data, size); }
