// Stream and memory hooks: the only way the toolkit reaches files and the
// allocator. The host supplies them at link time; this program's set
// forwards to the C library.
#pragma once

#include <cstdint>
#include <cstdio>

using ksStream = std::FILE;

// Size of the buffer given to every stream a hook opens.
inline constexpr size_t ksStreamBufferSize = 8192;

// Files.
ksStream* ksFileOpenRead(const char* path);                 // "rb", full buffer
ksStream* ksFileOpen(const char* path, const char* mode);   // writers use "w+b"
int ksFileClose(ksStream* stream);                          // input side
int ksFileCloseOutput(ksStream* stream);                    // output side, same work
int ksFilePutText(const char* text, ksStream* stream);
size_t ksFileRead(void* buffer, size_t size, size_t count, ksStream* stream);
size_t ksFileWrite(const void* buffer, size_t size, size_t count, ksStream* stream);
int ksFileSeek(ksStream* stream, long offset, int whence);  // 0 start, 1 here, 2 end
long ksFileTell(ksStream* stream);
int ksFileGetByte(ksStream* stream);                        // next byte or -1
int ksFilePutByte(int byte, ksStream* stream);
int ksFileAtEnd(ksStream* stream);
long ksFileSize(ksStream* stream);                          // position unchanged

// Reads one line of at most size-1 bytes plus the end mark. CR, LF, CR LF
// and LF CR each end a line; the first byte of the end stays in the text,
// the second of a pair is dropped. Null at the end of the stream or for a
// size of 0.
char* ksFileReadLine(char* buffer, int size, ksStream* stream);

// Memory.
void* ksMemAlloc(uint32_t size);
void ksMemFree(void* block);
int16_t ksVmInit();
