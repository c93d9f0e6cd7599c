// The DXF group writer. Every group is put together straight in the output
// buffer: the code, the value in its ASCII or binary form, the line end.
// Numbers are formatted by std::to_chars, whose bytes are those of the C
// formats "%d", "%.Nf" and "%.NE" in the C locale; no group allocates.
#include "dxfwrite/groups.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "bridge/downgrade.h"
#include "driver/hooks.h"
#include "frame/fcb.h"
#include "frame/globals.h"
#include "frame/save.h"
#include "records/tables.h"

namespace {

// ---- Output ----------------------------------------------------------------

// Bytes on their way to one file: the open output's large buffer, or a
// small one of a single call's own for a file without an open output.
struct Sink {
    ksStream* stream;
    char* buffer;
    uint32_t used;
    uint32_t size;
};

Sink output{};  // the open output of the save in progress

// The most one group of a fixed-size value takes: a code of 8 bytes, a
// value of ksDxfRealTextMax and its line end.
constexpr uint32_t kGroupMax = 64;
constexpr uint32_t kSpareSize = 512;
static_assert(kGroupMax <= kSpareSize);

// Bytes to the file. When the file refuses them the number is 27; an error
// handler is told (3) and the rest is tried once more after it returns.
bool writeFile(ksStream* stream, const char* bytes, size_t count)
{
    const size_t written = ksFileWrite(bytes, 1, count, stream);
    if (written == count)
        return true;
    ksG->errorNumber = 27;
    if (ksG->errorHandler == nullptr)
        return false;
    ksG->errorHandler(3);
    const size_t rest = count - written;
    return ksFileWrite(bytes + written, 1, rest, stream) == rest;
}

// Empties the buffer into the file. Refused bytes are dropped with it.
bool flush(Sink& sink)
{
    const uint32_t count = sink.used;
    sink.used = 0;
    return count == 0 || writeFile(sink.stream, sink.buffer, count);
}

// Room for `count` bytes (at most the sink's size) at the end of the sink.
inline char* room(Sink& sink, uint32_t count)
{
    if (sink.size - sink.used < count && !flush(sink))
        return nullptr;
    return sink.buffer + sink.used;
}

inline void commit(Sink& sink, const char* end) { sink.used = static_cast<uint32_t>(end - sink.buffer); }

// Bytes of any count.
bool put(Sink& sink, const char* bytes, size_t count)
{
    while (count > 0) {
        if (sink.used == sink.size && !flush(sink))
            return false;
        const size_t part = std::min<size_t>(count, sink.size - sink.used);
        std::memcpy(sink.buffer + sink.used, bytes, part);
        sink.used += static_cast<uint32_t>(part);
        bytes += part;
        count -= part;
    }
    return true;
}

// Whether the target's groups gather in the open output.
inline bool gathers(const ksFcb* fcb) { return output.buffer != nullptr && output.stream == fcb->outputFile; }

// A group's writing on a sink of its own, for a target without an open
// output; the sink is emptied at its end.
template <typename Write>
[[gnu::noinline]] int16_t throughSpare(ksFcb* fcb, Write& write)
{
    char spare[kSpareSize];
    Sink sink{fcb->outputFile, spare, 0, kSpareSize};
    return write(sink) && flush(sink) ? 1 : 0;
}

// Runs one group's writing on the target's sink; a target without an open
// output gets a sink of this call, emptied at its end.
template <typename Write>
inline int16_t withSink(ksFcb* fcb, Write&& write)
{
    if (gathers(fcb)) [[likely]]
        return write(output) ? 1 : 0;
    return throughSpare(fcb, write);
}

// ---- Codes and fixed-size values ------------------------------------------

inline bool isBinary(const ksFcb* fcb) { return fcb->fileType == 2; }

// Binary files hold the flags of codes 290 to 299 in one byte.
inline bool isByteFlag(int16_t group) { return group >= 290 && group <= 299; }

inline char* lineEnd(char* p)
{
    p[0] = '\r';
    p[1] = '\n';
    return p + 2;
}

// "00" to "99": decimal digits are made two at a time.
constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

constexpr auto kPowersOfTenWhole = [] {
    std::array<uint64_t, 20> powers{};
    uint64_t power = 1;
    for (uint64_t& p : powers) {
        p = power;
        power *= 10;
    }
    return powers;
}();

// Decimal digits of a number (1 for 0).
inline int digitCount(uint64_t value)
{
    const int bits = 64 - std::countl_zero(value | 1);
    const int guess = (bits * 1233) >> 12;  // bits x log10(2), at most one short
    return guess + (value >= kPowersOfTenWhole[static_cast<size_t>(guess)] ? 1 : 0) + (value == 0 ? 1 : 0);
}

// The decimal digits of a number, at least `least` of them (zeros in
// front), written backwards so that they end at `end`; returns their start.
template <typename Unsigned>
inline char* digitsBefore(char* end, Unsigned value, int least = 1)
{
    while (value >= 100 || least > 2) {
        end -= 2;
        std::memcpy(end, kDigitPairs + 2 * (value % 100), 2);
        value /= 100;
        least -= 2;
    }
    if (value >= 10 || least == 2) {
        end -= 2;
        std::memcpy(end, kDigitPairs + 2 * value, 2);
    } else if (value > 0 || least == 1) {
        *--end = static_cast<char>('0' + value);
    }
    return end;
}

// The most columns a right-aligned integer is given: the widest precision.
constexpr int kAlignedMax = 16;

// A decimal integer right-aligned in `width` columns ("%*d"); width is at
// most kAlignedMax and p has room for kAlignedMax bytes.
inline char* rightAligned(char* p, int32_t value, int width)
{
    const uint32_t size = value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
    const int count = digitCount(size) + (value < 0 ? 1 : 0);
    char* end = p + std::max(width, count);
    std::memset(p, ' ', kAlignedMax);
    char* start = digitsBefore(end, size);
    if (value < 0)
        start[-1] = '-';
    return end;
}

template <typename Unsigned>
char* littleEndian(char* p, Unsigned value)
{
    for (size_t i = 0; i < sizeof value; ++i)
        *p++ = static_cast<char>(value >> (8 * i));
    return p;
}

// The ASCII form of the codes below kCodeFormCount: "%3d" and CR LF, and
// its length; the text is padded to 8 bytes so that it is copied whole.
constexpr int kCodeFormCount = 1100;
struct CodeForm {
    char text[8];
    uint8_t length;
};
constexpr auto kCodeForms = [] {
    std::array<CodeForm, kCodeFormCount> forms{};
    for (int code = 0; code < kCodeFormCount; ++code) {
        CodeForm& form = forms[static_cast<size_t>(code)];
        const int n = code >= 1000 ? 4 : 3;
        for (int i = 0; i < n; ++i)
            form.text[i] = ' ';
        for (int i = n - 1, v = code; i >= 0 && (v > 0 || i == n - 1); --i, v /= 10)
            form.text[i] = static_cast<char>('0' + v % 10);
        form.text[n] = '\r';
        form.text[n + 1] = '\n';
        form.length = static_cast<uint8_t>(n + 2);
    }
    return forms;
}();

// The codes without a ready ASCII form, and the binary codes before R13.
[[gnu::noinline]] char* putOtherCode(char* p, const ksFcb* fcb, int16_t group)
{
    if (!isBinary(fcb))
        return lineEnd(rightAligned(p, group, 3));
    const auto code = static_cast<uint16_t>(group);
    if (fcb->outputVersion < ksAC1012) {
        if (code < 255) {
            *p++ = static_cast<char>(code);
            return p;
        }
        *p++ = static_cast<char>(255);
    }
    return littleEndian(p, code);
}

// The group code. ASCII: three columns and a line end. Binary: two bytes,
// low first; before R13 codes up to 254 take one byte, and the byte 255
// comes before the two bytes of any other (255 itself included, since a
// reader takes that byte for the mark). p has room for 8 bytes at least.
inline char* putCode(char* p, const ksFcb* fcb, int16_t group)
{
    if (!isBinary(fcb)) {
        if (group >= 0 && group < kCodeFormCount) [[likely]] {
            const CodeForm& form = kCodeForms[static_cast<size_t>(group)];
            std::memcpy(p, form.text, sizeof form.text);
            return p + form.length;
        }
    } else if (fcb->outputVersion >= ksAC1012) {
        return littleEndian(p, static_cast<uint16_t>(group));
    }
    return putOtherCode(p, fcb, group);
}

// One group of a value of fixed size: putValue(p, binary) writes the value
// and returns its end; ASCII gets the line end after it.
template <typename PutValue>
int16_t writeGroup(ksFcb* fcb, int16_t group, PutValue&& putValue)
{
    return withSink(fcb, [&](Sink& sink) {
        char* p = room(sink, kGroupMax);
        if (p == nullptr)
            return false;
        const bool binary = isBinary(fcb);
        p = putValue(putCode(p, fcb, group), binary);
        commit(sink, binary ? p : lineEnd(p));
        return true;
    });
}

// Copies a few bytes without a call: two words that may overlap for up
// to 16, a call for more.
inline void copyShort(char* out, const char* in, size_t n)
{
    if (n >= 8 && n <= 16) {
        uint64_t head, tail;
        std::memcpy(&head, in, 8);
        std::memcpy(&tail, in + n - 8, 8);
        std::memcpy(out, &head, 8);
        std::memcpy(out + n - 8, &tail, 8);
    } else if (n >= 4 && n < 8) {
        uint32_t head, tail;
        std::memcpy(&head, in, 4);
        std::memcpy(&tail, in + n - 4, 4);
        std::memcpy(out, &head, 4);
        std::memcpy(out + n - 4, &tail, 4);
    } else if (n > 0 && n < 4) {
        out[0] = in[0];
        out[n / 2] = in[n / 2];
        out[n - 1] = in[n - 1];
    } else if (n > 16) {
        std::memcpy(out, in, n);
    }
}

// writeTextBytes for a long text or a target without an open output.
[[gnu::noinline]] int16_t writeTextPieces(ksFcb* fcb, int16_t group, const char* text, size_t length)
{
    return withSink(fcb, [&](Sink& sink) {
        char* p = room(sink, kGroupMax);
        if (p == nullptr)
            return false;
        commit(sink, putCode(p, fcb, group));
        return put(sink, text, length) && (isBinary(fcb) ? put(sink, "", 1) : put(sink, "\r\n", 2));
    });
}

// A group of a text value of `length` bytes: the code, the bytes, then
// CR LF or NUL.
inline int16_t writeTextBytes(ksFcb* fcb, int16_t group, const char* text, size_t length)
{
    if (gathers(fcb) && length <= output.size - kGroupMax) [[likely]] {
        char* p = room(output, static_cast<uint32_t>(kGroupMax + length));
        if (p == nullptr)
            return 0;
        p = putCode(p, fcb, group);
        copyShort(p, text, length);
        p += length;
        if (isBinary(fcb))
            *p++ = '\0';
        else
            p = lineEnd(p);
        commit(output, p);
        return 1;
    }
    return writeTextPieces(fcb, group, text, length);
}

// A group of a text value: the code, the bytes from emit(sink), then CR LF
// or NUL.
template <typename Emit>
int16_t writeTextGroup(ksFcb* fcb, int16_t group, Emit&& emit)
{
    return withSink(fcb, [&](Sink& sink) {
        char* p = room(sink, kGroupMax);
        if (p == nullptr)
            return false;
        commit(sink, putCode(p, fcb, group));
        if (!emit(sink))
            return false;
        return isBinary(fcb) ? put(sink, "", 1) : put(sink, "\r\n", 2);
    });
}

// ---- Reals -----------------------------------------------------------------

constexpr double kPowersOfTen[ksDxfMaxPrecision + 1] = {
    1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15, 1e16,
};
constexpr double kExponentFormFrom = 1e16;
constexpr uint64_t kExponentBits = 0x7FF0000000000000;
constexpr int kFullPlaces = 16;

inline int placesInUse() { return std::clamp<int>(ksG->dxfPrecision, 0, ksDxfMaxPrecision); }

// units / 10^places in decimals, with the sign in front and the trailing
// zeros of the decimals cut (one decimal stays); units is below 10^17. The
// text is written backwards from its end, two digits a step. Places, when
// not -1, is the number of places known in advance.
template <int Places>
inline char* withPointCut(char* out, bool negative, uint64_t units, int places)
{
    if constexpr (Places >= 0)
        places = Places;
    uint64_t whole = units;
    uint64_t fraction = 0;
    int kept = 0;  // decimals that stay
    if (places > 0) {
        const uint64_t scale = kPowersOfTenWhole[places];
        whole = units / scale;
        fraction = units % scale;
        kept = places;
        if (fraction == 0) {
            kept = 1;
        } else {
            // At most places - 1 zeros end a fraction that isn't 0: cut
            // by halves, 8 (when there can be so many), 4, 2 and 1.
            if (places > 8 && fraction % 100000000 == 0) {
                fraction /= 100000000;
                kept -= 8;
            }
            if (fraction % 10000 == 0) {
                fraction /= 10000;
                kept -= 4;
            }
            if (fraction % 100 == 0) {
                fraction /= 100;
                kept -= 2;
            }
            if (fraction % 10 == 0) {
                fraction /= 10;
                kept -= 1;
            }
        }
    }
    char* end = out + (negative ? 1 : 0) + digitCount(whole) + (kept > 0 ? kept + 1 : 0);
    char* p = end;
    if (kept > 0) {
        p = digitsBefore(p, fraction, kept);
        *--p = '.';
    }
    p = digitsBefore(p, whole);
    if (negative)
        p[-1] = '-';
    return end;
}

// Cuts trailing zeros, at most `most` of them.
inline char* cutZeros(char* end, int most)
{
    for (; most > 0 && end[-1] == '0'; --most)
        --end;
    return end;
}

// "%.{places}f" with the trailing zeros of the decimals cut (one decimal
// stays). The quick way scales by 10^places, an exact power, and rounds to
// whole units. Below 2^52 the product's fraction, and that less one half,
// are exact multiples of its last place, while its rounding error is at
// most half of that place: a fraction other than one half lies on the
// same side of it as the exact product's. A half may stem from rounding;
// it takes to_chars's exact digits, as larger values do.
template <int Places>
inline char* fixedFormOf(char* out, double value, int places)
{
    if constexpr (Places >= 0)
        places = Places;
    const double scaled = std::fabs(value) * kPowersOfTen[places];
    if (scaled < 0x1p52) {
        // Whole units: the conversion cuts the fraction off, which is the
        // floor of a number this size, and the floor converts back exactly.
        const auto whole = static_cast<int64_t>(scaled);
        const double overHalf = (scaled - static_cast<double>(whole)) - 0.5;
        if (overHalf != 0.0)
            return withPointCut<Places>(out, std::signbit(value),
                                        static_cast<uint64_t>(whole) + (overHalf > 0 ? 1 : 0), places);
    }
    return cutZeros(std::to_chars(out, out + ksDxfRealTextMax, value, std::chars_format::fixed, places).ptr,
                    places - 1);
}

// The usual precision and the full one have forms of their own, with the
// place count fixed.
char* fixedForm(char* out, double value, int places)
{
    switch (places) {
        case 6: return fixedFormOf<6>(out, value, places);
        case kFullPlaces: return fixedFormOf<kFullPlaces>(out, value, places);
        default: return fixedFormOf<-1>(out, value, places);
    }
}

// "%.{places}E": to_chars's exponent has at least two digits, as that of
// the C format; letters are made upper case ("E", "INF").
char* exponentForm(char* out, double value, int places)
{
    char* end = std::to_chars(out, out + ksDxfRealTextMax, value, std::chars_format::scientific, places).ptr;
    for (char* c = out; c != end; ++c) {
        if (*c >= 'a' && *c <= 'z')
            *c = static_cast<char>(*c - 'a' + 'A');
    }
    return end;
}

}  // namespace

// ---- Output ------------------------------------------------------------------

int16_t ksDxfOpenOutput(ksFcb* target)
{
    if (output.buffer == nullptr) {
        ksG->errorNumber = 12;
        output.buffer = static_cast<char*>(ksMemAlloc(ksDxfOutputBufferSize));
        if (output.buffer == nullptr) {
            output = Sink{};
            ksAllocFailed(12);
            return 0;
        }
    }
    output.stream = target->outputFile;
    output.used = 0;
    output.size = ksDxfOutputBufferSize;
    return 1;
}

int16_t ksDxfFlushOutput(ksFcb* target)
{
    if (output.buffer == nullptr || output.stream != target->outputFile)
        return 1;
    return flush(output) ? 1 : 0;
}

int16_t ksDxfCloseOutput(ksFcb* target)
{
    if (output.buffer == nullptr || output.stream != target->outputFile)
        return 1;
    const bool flushed = flush(output);
    ksMemFree(output.buffer);
    output = Sink{};
    return flushed ? 1 : 0;
}

// ---- Number forms --------------------------------------------------------------

int16_t ksDxfSetFormat(int16_t negativeZero, int16_t precision, int16_t writeZeroZ)
{
    precision = ksSetDxfNumberFormats(negativeZero, precision, writeZeroZ);
    // Divided step by step: for most precisions this isn't the double
    // nearest to 0.5 x 10^-precision, and the files show the difference
    // at the threshold.
    double threshold = 0.5;
    for (int i = 0; i < precision; ++i)
        threshold /= 10.0;
    ksG->dxfHalfUnit = threshold;
    return precision;
}

size_t ksDxfFormatReal(double value, char* out)
{
    const int places = placesInUse();
    if ((std::bit_cast<uint64_t>(value) & kExponentBits) == 0)
        value = 0.0;  // zero and denormals, of either sign
    const double size = std::fabs(value);
    char* end = out;
    if (size < ksG->dxfHalfUnit) {
        if (ksG->dxfNegativeZero && value < 0)
            *end++ = '-';
        std::memcpy(end, "0.0", 3);
        end += 3;
    } else if (size >= kExponentFormFrom) {
        end = exponentForm(out, value, places);
    } else {
        end = fixedForm(out, value, places);
    }
    return static_cast<size_t>(end - out);
}

size_t ksDxfFormatRealFull(double value, char* out)
{
    char* end = std::fabs(value) >= kExponentFormFrom ? exponentForm(out, value, placesInUse())
                                                      : fixedForm(out, value, kFullPlaces);
    return static_cast<size_t>(end - out);
}

size_t ksDxfHandleText(const ksObjHandle& handle, char* out)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    size_t n = 0;
    int i = 0;
    while (i < 8 && handle.bytes[i] == 0)
        ++i;
    if (i == 8) {
        out[n++] = '0';
    } else {
        if (handle.bytes[i] >> 4)
            out[n++] = kDigits[handle.bytes[i] >> 4];
        out[n++] = kDigits[handle.bytes[i] & 15];
        while (++i < 8) {
            out[n++] = kDigits[handle.bytes[i] >> 4];
            out[n++] = kDigits[handle.bytes[i] & 15];
        }
    }
    out[n] = '\0';
    return n;
}

size_t ksDxfShortName(const char* name, size_t length, int32_t limit, int32_t index, char* out)
{
    const bool coded = length >= 2 && name[0] == '\\' && name[1] != '\0' && std::strchr("MUmu", name[1]) != nullptr;
    const size_t count = coded ? length / 7 : length;
    size_t n = length;
    size_t counted = count;
    std::memcpy(out, name, length);
    if (count > static_cast<size_t>(std::max(limit, 0))) {
        char digits[12];
        const auto digitCount = static_cast<int32_t>(std::to_chars(digits, digits + sizeof digits, index).ptr - digits);
        const auto keep = static_cast<size_t>(std::max(limit - digitCount, 0));
        if (coded) {
            n = keep * 7;
            counted = keep;
        } else {
            n = keep;
            std::memcpy(out + n, digits, static_cast<size_t>(digitCount));
            n += static_cast<size_t>(digitCount);
            counted = n;
        }
    }
    for (size_t i = 0; i < counted && i < n; ++i) {
        const auto byte = static_cast<uint8_t>(out[i]);
        if (byte == ' ' || byte == '(' || byte == ')' || byte == 0xBD)
            out[i] = '_';
    }
    for (size_t i = 0; i < n; ++i) {
        if (out[i] >= 'a' && out[i] <= 'z')
            out[i] = static_cast<char>(out[i] - 'a' + 'A');
    }
    out[n] = '\0';
    return n;
}

// ---- Groups ------------------------------------------------------------------------

int16_t ksDxfWriteTextSized(ksFcb* fcb, int16_t group, const char* text, size_t length)
{
    return writeTextBytes(fcb, group, text, length);
}

int16_t ksDxfWriteCoded(ksFcb* fcb, int16_t group, const char* text)
{
    return writeTextGroup(fcb, group, [&](Sink& sink) {
        char coded[256];
        size_t n = 0;
        for (size_t index = 0; text[index] != '\0'; ++index) {
            if (n > sizeof coded - 2) {
                if (!put(sink, coded, n))
                    return false;
                n = 0;
            }
            const auto byte = static_cast<uint8_t>(text[index]);
            if (byte < 32) {
                coded[n++] = '^';
                coded[n++] = static_cast<char>(byte + 64);
            } else if (byte == '^' && !(index % 2 == 1 && static_cast<uint8_t>(text[index - 1]) >= 0x80)) {
                coded[n++] = '^';
                coded[n++] = ' ';
            } else {
                coded[n++] = static_cast<char>(byte);
            }
        }
        return put(sink, coded, n);
    });
}

int16_t ksDxfWriteInt16(ksFcb* fcb, int16_t group, int16_t value)
{
    return writeGroup(fcb, group, [&](char* p, bool binary) {
        if (!binary)
            return rightAligned(p, value, placesInUse());
        return isByteFlag(group) ? littleEndian(p, static_cast<uint8_t>(value))
                                 : littleEndian(p, static_cast<uint16_t>(value));
    });
}

int16_t ksDxfWriteInt8(ksFcb* fcb, int16_t group, int8_t value)
{
    return writeGroup(fcb, group, [&](char* p, bool binary) {
        return binary ? littleEndian(p, static_cast<uint8_t>(value)) : rightAligned(p, value, placesInUse());
    });
}

int16_t ksDxfWriteInt32(ksFcb* fcb, int16_t group, int32_t value)
{
    return writeGroup(fcb, group, [&](char* p, bool binary) {
        return binary ? littleEndian(p, static_cast<uint32_t>(value)) : rightAligned(p, value, 9);
    });
}

int16_t ksDxfWriteChar(ksFcb* fcb, int16_t group, char value)
{
    return writeGroup(fcb, group, [&](char* p, bool binary) {
        *p++ = value;
        if (binary)
            *p++ = '\0';
        return p;
    });
}

int16_t ksDxfWriteReal(ksFcb* fcb, int16_t group, double value)
{
    return writeGroup(fcb, group, [&](char* p, bool binary) {
        return binary ? littleEndian(p, std::bit_cast<uint64_t>(value)) : p + ksDxfFormatReal(value, p);
    });
}

int16_t ksDxfWriteRealFull(ksFcb* fcb, int16_t group, double value)
{
    return writeGroup(fcb, group, [&](char* p, bool binary) {
        return binary ? littleEndian(p, std::bit_cast<uint64_t>(value)) : p + ksDxfFormatRealFull(value, p);
    });
}

int16_t ksDxfWriteAngle(ksFcb* fcb, int16_t group, double radians)
{
    return ksDxfWriteReal(fcb, group, ksDxfDegrees(radians));
}

int16_t ksDxfWriteHandle(ksFcb* fcb, int16_t group, const ksObjHandle& handle)
{
    // The hexadecimal text goes straight to the buffer: 16 digits and an
    // end mark at most.
    if (gathers(fcb)) [[likely]] {
        char* p = room(output, kGroupMax);
        if (p == nullptr)
            return 0;
        p = putCode(p, fcb, group);
        p += ksDxfHandleText(handle, p);
        if (isBinary(fcb))
            *p++ = '\0';
        else
            p = lineEnd(p);
        commit(output, p);
        return 1;
    }
    char text[17];
    return writeTextPieces(fcb, group, text, ksDxfHandleText(handle, text));
}

int16_t ksDxfWriteBytes(ksFcb* fcb, int16_t group, const uint8_t* bytes, uint8_t count)
{
    if (isBinary(fcb)) {
        return withSink(fcb, [&](Sink& sink) {
            char* p = room(sink, kGroupMax);
            if (p == nullptr)
                return false;
            p = putCode(p, fcb, group);
            *p++ = static_cast<char>(count);
            commit(sink, p);
            return put(sink, reinterpret_cast<const char*>(bytes), count);
        });
    }
    return writeTextGroup(fcb, group, [&](Sink& sink) {
        static constexpr char kDigits[] = "0123456789ABCDEF";
        char hex[2 * 255];
        for (size_t i = 0; i < count; ++i) {
            hex[2 * i] = kDigits[bytes[i] >> 4];
            hex[2 * i + 1] = kDigits[bytes[i] & 15];
        }
        return put(sink, hex, 2 * size_t{count});
    });
}

int16_t ksDxfWriteDate(ksFcb* fcb, int16_t group, const ksDate& date, int16_t decimals)
{
    const double days = date.days + date.milliseconds / 8.64e7;
    const int places = std::clamp<int>(decimals, 0, kFullPlaces);
    return writeGroup(fcb, group, [&](char* p, bool binary) {
        if (binary)
            return littleEndian(p, std::bit_cast<uint64_t>(days));
        // A day count is far below 1e16, so the fixed form stays short.
        return std::to_chars(p, p + ksDxfRealTextMax, days, std::chars_format::fixed, places).ptr;
    });
}

static_assert(ksDxfShortNameFormSize >= ksTableNameSize + 32);

size_t ksDxfShortNameForm(ksFcb* source, const char* name, int32_t index, char* out)
{
    char bounded[ksTableNameSize];
    const size_t length = strnlen(name, sizeof bounded - 1);
    std::memcpy(bounded, name, length);
    bounded[length] = '\0';
    // A block that prefixes external reference symbols has the room they
    // leave it, whether its name stands alone or in front of a "|".
    const int32_t limit = std::memchr(bounded, '|', length) ? ksDefaultNameLimit : ksXrefNameLimit(source, bounded);
    ksFixName(source, bounded, index, limit, out);
    return std::strlen(out);
}

int16_t ksDxfWriteName(ksFcb* source, ksFcb* fcb, int16_t group, const char* name, int32_t index)
{
    if (fcb->outputVersion >= ksAC1015)
        return ksDxfWriteText(fcb, group, name);
    char shortened[ksDxfShortNameFormSize];
    ksDxfShortNameForm(source, name, index, shortened);
    return ksDxfWriteText(fcb, group, shortened);
}

namespace {

// The axes of a point, `count` of them, as groups g, g + 10, g + 20: with
// an open output in one go, else group by group.
[[gnu::noinline]] int16_t writeAxesApart(ksFcb* fcb, int16_t group, const double* axes, int count, bool full)
{
    for (int i = 0; i < count; ++i) {
        const auto g = static_cast<int16_t>(group + 10 * i);
        if (!(full ? ksDxfWriteRealFull(fcb, g, axes[i]) : ksDxfWriteReal(fcb, g, axes[i])))
            return 0;
    }
    return 1;
}

inline int16_t writeAxes(ksFcb* fcb, int16_t group, const double* axes, int count, bool full)
{
    if (gathers(fcb)) [[likely]] {
        char* p = room(output, kGroupMax * 3);
        if (p == nullptr)
            return 0;
        const bool binary = isBinary(fcb);
        for (int i = 0; i < count; ++i) {
            p = putCode(p, fcb, static_cast<int16_t>(group + 10 * i));
            if (binary) {
                p = littleEndian(p, std::bit_cast<uint64_t>(axes[i]));
            } else {
                p += full ? ksDxfFormatRealFull(axes[i], p) : ksDxfFormatReal(axes[i], p);
                p = lineEnd(p);
            }
        }
        commit(output, p);
        return 1;
    }
    return writeAxesApart(fcb, group, axes, count, full);
}

}  // namespace

int16_t ksDxfWritePoint2(ksFcb* fcb, int16_t group, const ksPoint2& p)
{
    const double axes[] = {p.x, p.y};
    return writeAxes(fcb, group, axes, 2, false);
}

int16_t ksDxfWritePoint3(ksFcb* fcb, int16_t group, const ksPoint3& p)
{
    const double axes[] = {p.x, p.y, p.z};
    return writeAxes(fcb, group, axes, 3, false);
}

int16_t ksDxfWritePoint2Full(ksFcb* fcb, int16_t group, const ksPoint2& p)
{
    const double axes[] = {p.x, p.y};
    return writeAxes(fcb, group, axes, 2, true);
}

int16_t ksDxfWritePoint3Full(ksFcb* fcb, int16_t group, const ksPoint3& p)
{
    const double axes[] = {p.x, p.y, p.z};
    return writeAxes(fcb, group, axes, 3, true);
}

int16_t ksDxfWritePointVar(ksFcb* fcb, const ksPoint3& p, int16_t group)
{
    const bool z = fcb->outputVersion >= ksAC1006 && (ksG->dxfWriteZeroZ || p.z != 0.0);
    const double axes[] = {p.x, p.y, p.z};
    return writeAxes(fcb, group, axes, z ? 3 : 2, false);
}

int16_t ksDxfWritePointKeepZ(ksFcb* fcb, int16_t group, const ksPoint3& p)
{
    const bool z = fcb->outputVersion >= ksAC1006 || p.z != 0.0;
    const double axes[] = {p.x, p.y, p.z};
    return writeAxes(fcb, group, axes, z ? 3 : 2, false);
}

int16_t ksDxfHeaderInt(ksFcb* fcb, const char* name, int16_t value, int16_t group)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWriteInt16(fcb, group, value);
}

int16_t ksDxfHeaderText(ksFcb* fcb, const char* name, const char* text, int16_t group)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWriteText(fcb, group, text);
}

int16_t ksDxfHeaderReal(ksFcb* fcb, const char* name, double value, int16_t group)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWriteReal(fcb, group, value);
}

int16_t ksDxfHeaderAngle(ksFcb* fcb, const char* name, double radians, int16_t group)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWriteAngle(fcb, group, radians);
}

int16_t ksDxfHeaderPoint2(ksFcb* fcb, const char* name, const ksPoint2& p, int16_t group)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWritePoint2(fcb, group, p);
}

int16_t ksDxfHeaderPoint3(ksFcb* fcb, const char* name, const ksPoint3& p, int16_t group)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWritePoint3(fcb, group, p);
}

int16_t ksDxfHeaderPoint3Full(ksFcb* fcb, const char* name, const ksPoint3& p, int16_t group)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWritePoint3Full(fcb, group, p);
}

int16_t ksDxfHeaderByte(ksFcb* fcb, const char* name, int8_t value, int16_t group)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWriteInt16(fcb, group, value);
}

int16_t ksDxfHeaderDate(ksFcb* fcb, const char* name, const ksDate& date, int16_t decimals)
{
    return ksDxfWriteText(fcb, 9, name) && ksDxfWriteDate(fcb, 40, date, decimals);
}
