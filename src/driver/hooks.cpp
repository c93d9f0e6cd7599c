// This program's hooks: thin forwards to the C library's streams and
// allocator.
#include "driver/hooks.h"

#include <cstdlib>

namespace {

// Opens a stream and gives it a full buffer of ksStreamBufferSize bytes.
// The C library owns the buffer (setvbuf with a null buffer), so closing
// the stream frees it.
ksStream* openBuffered(const char* path, const char* mode)
{
    if (path == nullptr || mode == nullptr)
        return nullptr;
    ksStream* stream = std::fopen(path, mode);
    if (stream != nullptr)
        std::setvbuf(stream, nullptr, _IOFBF, ksStreamBufferSize);
    return stream;
}

}  // namespace

ksStream* ksFileOpenRead(const char* path) { return openBuffered(path, "rb"); }

ksStream* ksFileOpen(const char* path, const char* mode) { return openBuffered(path, mode); }

int ksFileClose(ksStream* stream) { return stream ? std::fclose(stream) : 0; }

int ksFileCloseOutput(ksStream* stream) { return stream ? std::fclose(stream) : 0; }

int ksFilePutText(const char* text, ksStream* stream) { return std::fputs(text, stream); }

size_t ksFileRead(void* buffer, size_t size, size_t count, ksStream* stream)
{
    return std::fread(buffer, size, count, stream);
}

size_t ksFileWrite(const void* buffer, size_t size, size_t count, ksStream* stream)
{
    return std::fwrite(buffer, size, count, stream);
}

int ksFileSeek(ksStream* stream, long offset, int whence)
{
    static constexpr int origin[3] = {SEEK_SET, SEEK_CUR, SEEK_END};
    if (whence < 0 || whence > 2)
        return -1;
    return std::fseek(stream, offset, origin[whence]) == 0 ? 0 : -1;
}

long ksFileTell(ksStream* stream) { return std::ftell(stream); }

int ksFileGetByte(ksStream* stream) { return std::getc(stream); }

int ksFilePutByte(int byte, ksStream* stream) { return std::putc(byte, stream); }

int ksFileAtEnd(ksStream* stream) { return std::feof(stream); }

long ksFileSize(ksStream* stream)
{
    long here = std::ftell(stream);
    if (here < 0 || std::fseek(stream, 0, SEEK_END) != 0)
        return -1;
    long size = std::ftell(stream);
    std::fseek(stream, here, SEEK_SET);
    return size;
}

char* ksFileReadLine(char* buffer, int size, ksStream* stream)
{
    if (size <= 0 || std::feof(stream))
        return nullptr;
    int stored = 0;
    int last = EOF;
    for (;;) {
        last = std::getc(stream);
        buffer[stored++] = static_cast<char>(last);
        if (stored == size) {        // out of room: the mark replaces the last byte
            buffer[size - 1] = '\0';
            break;
        }
        if (last == EOF) {           // the mark replaces what the failed read stored
            buffer[stored - 1] = '\0';
            break;
        }
        if (last == '\r' || last == '\n') {
            buffer[stored] = '\0';
            break;
        }
    }
    // Swallow the second byte of a CR LF or LF CR pair.
    if ((last == '\r' || last == '\n') && !std::feof(stream)) {
        int pair = last == '\r' ? '\n' : '\r';
        int next = std::getc(stream);
        if (next != pair && next != EOF)
            std::ungetc(next, stream);
    }
    return buffer;
}

void* ksMemAlloc(uint32_t size) { return std::malloc(size == 0 ? 1 : size); }

void ksMemFree(void* block) { std::free(block); }

int16_t ksVmInit() { return 1; }
