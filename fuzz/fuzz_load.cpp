// libFuzzer target: every input is a whole drawing file for the loader.
#include <cstddef>
#include <cstdint>

#include "load_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return zemacadFuzzLoad(data, size);
}
