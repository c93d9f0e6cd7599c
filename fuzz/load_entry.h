// The load fuzzer's entry: one input is one drawing file. The libFuzzer
// target and the replay driver both run it.
#pragma once

#include <cstddef>
#include <cstdint>

// Brings the toolkit up on the first call (init file from the build,
// both readers installed), writes the bytes to a seekable file, detects
// them, loads them as a drawing and closes what the load gave. Always 0:
// the checks are the sanitizers' and the process's own survival.
int zemacadFuzzLoad(const uint8_t* data, size_t size);

// Brings the toolkit up as the first load does; nothing when it is up.
void zemacadFuzzStart();

// Takes the toolkit down and drops the scratch file; safe to call twice.
// Registered with atexit by the first zemacadFuzzLoad call.
void zemacadFuzzShutdown();
