// The DXF group writer: every group of a DXF file, ASCII or binary, goes
// out through these operations. They fix the number forms, the line ends
// and the binary encodings, and they are where a full disk is met.
//
// The target's fileType picks the form (2 binary, else ASCII) and its
// outputVersion the binary group code size. The number forms come from
// ksG: dxfPrecision, dxfNegativeZero, dxfWriteZeroZ and dxfHalfUnit (reals
// smaller than it in size print as zero), set by ksDxfSetFormat.
//
// Output is buffered: between ksDxfOpenOutput and ksDxfCloseOutput the
// groups of the target gather in one large buffer, which goes to the file
// by one ksFileWrite each time it fills. Groups of a target without an
// open output are written straight through, group by group. Whoever opens
// the output closes it before the file is closed, on a failure path too.
//
// Every writing operation returns 1, or 0 with error 27 when the file
// refused bytes. A group whose bytes were refused may stand in the file in
// part; callers stop at the first 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frame/kstypes.h"

struct ksFcb;

// ---- Output ------------------------------------------------------------

inline constexpr uint32_t ksDxfOutputBufferSize = 1u << 20;

// Gives the target's outputFile the large buffer. 0 with error 12 when the
// buffer can't be had; the groups are then written straight through. An
// output left open by an earlier target is dropped unwritten.
int16_t ksDxfOpenOutput(ksFcb* target);
// Writes the gathered bytes to the file.
int16_t ksDxfFlushOutput(ksFcb* target);
// Flushes and frees the buffer; 1 when the target has no open output.
int16_t ksDxfCloseOutput(ksFcb* target);

// ---- Number forms --------------------------------------------------------

// Stores the switches, rebuilds the formats of ksG for `precision` (cut to
// 0..16) and sets the zero threshold to 0.5 divided by ten `precision`
// times. Returns the precision in use.
int16_t ksDxfSetFormat(int16_t negativeZero, int16_t precision, int16_t writeZeroZ);

// Longest text a real takes (no line end).
inline constexpr size_t ksDxfRealTextMax = 48;

// The ASCII value text of ksDxfWriteReal and ksDxfWriteRealFull, without
// the line end, into out (ksDxfRealTextMax bytes); returns its length.
size_t ksDxfFormatReal(double value, char* out);
size_t ksDxfFormatRealFull(double value, char* out);

// The upper-case hexadecimal text of a handle without leading zeros, "0"
// for the null handle, with an end mark (out: 17 bytes); returns its length.
size_t ksDxfHandleText(const ksObjHandle& handle, char* out);

// Degrees of an angle in radians, as the files have them.
inline double ksDxfDegrees(double radians) { return radians * 180.0 / 3.1415926535898; }

// The short form of a table name for targets before R2000: cut to `limit`
// characters with the decimal `index` in place of the cut (a name coded
// as \M or \U escapes counts 7 bytes a character and is cut without one),
// blanks, parentheses and 0xBD made "_", ASCII letters made upper case.
// out takes length + 12 bytes; returns the length written, with an end mark.
size_t ksDxfShortName(const char* name, size_t length, int32_t limit, int32_t index, char* out);

// ---- Groups --------------------------------------------------------------

// A text as it stands: its bytes and CR LF, or its bytes and NUL.
int16_t ksDxfWriteTextSized(ksFcb* fcb, int16_t group, const char* text, size_t length);
inline int16_t ksDxfWriteText(ksFcb* fcb, int16_t group, const char* text)
{
    return ksDxfWriteTextSized(fcb, group, text, std::strlen(text));
}
// A text with control bytes and carets coded: a byte below 32 is "^" and
// the byte + 64, a "^" is "^ " unless it is the second byte of a double
// byte character (odd place, byte before it above 127).
int16_t ksDxfWriteCoded(ksFcb* fcb, int16_t group, const char* text);
// 16-bit and 8-bit integers: ASCII right-aligned in `precision` columns;
// binary 2 bytes low first, or the one byte. The flags of codes 290 to 299
// are one byte in binary, as the 16-bit writer gives them too.
int16_t ksDxfWriteInt16(ksFcb* fcb, int16_t group, int16_t value);
int16_t ksDxfWriteInt8(ksFcb* fcb, int16_t group, int8_t value);
// 32-bit: ASCII right-aligned in 9 columns; binary 4 bytes low first.
int16_t ksDxfWriteInt32(ksFcb* fcb, int16_t group, int32_t value);
// One character: ASCII the byte; binary the byte and a 0 byte, which
// reads as a text of one character.
int16_t ksDxfWriteChar(ksFcb* fcb, int16_t group, char value);
// Reals: ASCII in `precision` decimals with trailing zeros cut (one
// decimal stays), sizes below the zero threshold as "0.0" or "-0.0",
// 1e16 and above in exponent form; binary the 8 IEEE bytes, low first.
int16_t ksDxfWriteReal(ksFcb* fcb, int16_t group, double value);
// As ksDxfWriteReal with 16 decimals and no zero threshold.
int16_t ksDxfWriteRealFull(ksFcb* fcb, int16_t group, double value);
// Radians written as degrees by ksDxfWriteReal.
int16_t ksDxfWriteAngle(ksFcb* fcb, int16_t group, double radians);
// The handle's hexadecimal text, as a text.
int16_t ksDxfWriteHandle(ksFcb* fcb, int16_t group, const ksObjHandle& handle);
// A byte chunk (310, 1004): ASCII upper-case hexadecimal, two digits a
// byte; binary the count in one byte, then the bytes. Readers take the
// count as signed, so a chunk holds at most 127 bytes.
int16_t ksDxfWriteBytes(ksFcb* fcb, int16_t group, const uint8_t* bytes, uint8_t count);
// A date as days and the fraction of the day: ASCII with exactly
// `decimals` decimals; binary 8 bytes.
int16_t ksDxfWriteDate(ksFcb* fcb, int16_t group, const ksDate& date, int16_t decimals);
// A table name: as it stands for R2000 targets, in its short form before
// (ksFixName of bridge/downgrade.h with `index`). The limit is 26 but for a
// block that the source's xrefNames have an entry for: the room of that
// entry, whether the name is the block's own or the part before the "|" of
// an external reference's symbol, which takes the block's place in the
// block table as its index (0 when there is no such block). So every
// writer of a name, its table's and its users', gives it the same form.
int16_t ksDxfWriteName(ksFcb* source, ksFcb* fcb, int16_t group, const char* name, int32_t index);
// The text ksDxfWriteName writes for a target before R2000, into out
// (ksDxfShortNameFormSize bytes) with an end mark; returns its length.
// Within one save it depends on nothing but the name and the index.
inline constexpr size_t ksDxfShortNameFormSize = 512 + 32;
size_t ksDxfShortNameForm(ksFcb* source, const char* name, int32_t index, char* out);

// Points: the axes as groups g, g + 10, g + 20.
int16_t ksDxfWritePoint2(ksFcb* fcb, int16_t group, const ksPoint2& p);
int16_t ksDxfWritePoint3(ksFcb* fcb, int16_t group, const ksPoint3& p);
int16_t ksDxfWritePoint2Full(ksFcb* fcb, int16_t group, const ksPoint2& p);
int16_t ksDxfWritePoint3Full(ksFcb* fcb, int16_t group, const ksPoint3& p);
// Z only for targets from AC1006 on, and then only when it isn't 0 or
// dxfWriteZeroZ is set.
int16_t ksDxfWritePointVar(ksFcb* fcb, const ksPoint3& p, int16_t group);
// Z always from AC1006 on; before it only when it isn't 0.
int16_t ksDxfWritePointKeepZ(ksFcb* fcb, int16_t group, const ksPoint3& p);

// Header variables: group 9 with the name ("$" included), then the value.
int16_t ksDxfHeaderInt(ksFcb* fcb, const char* name, int16_t value, int16_t group = 70);
int16_t ksDxfHeaderText(ksFcb* fcb, const char* name, const char* text, int16_t group = 1);
int16_t ksDxfHeaderReal(ksFcb* fcb, const char* name, double value, int16_t group = 40);
int16_t ksDxfHeaderAngle(ksFcb* fcb, const char* name, double radians, int16_t group = 50);
int16_t ksDxfHeaderPoint2(ksFcb* fcb, const char* name, const ksPoint2& p, int16_t group = 10);
int16_t ksDxfHeaderPoint3(ksFcb* fcb, const char* name, const ksPoint3& p, int16_t group = 10);
int16_t ksDxfHeaderPoint3Full(ksFcb* fcb, const char* name, const ksPoint3& p, int16_t group = 10);
// A byte variable goes out as ksDxfWriteInt16 writes it: in binary two
// bytes for codes 70 and 280, one byte for the flags of 290 to 299.
int16_t ksDxfHeaderByte(ksFcb* fcb, const char* name, int8_t value, int16_t group = 70);
// A date as group 40 with 9 decimals ($TDCREATE ...) or 10 ($TDINDWG ...).
int16_t ksDxfHeaderDate(ksFcb* fcb, const char* name, const ksDate& date, int16_t decimals);
