// Blobs: chunk boundaries, reads and seeks against a byte model, patches,
// typed values and their byte layout, and the refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "frame/globals.h"
#include "store/blob.h"
#include "store/list.h"
#include "support/fixtures.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes pattern(size_t n, uint32_t seed)
{
    std::mt19937 rng(seed);
    Bytes out(n);
    for (auto& b : out)
        b = static_cast<uint8_t>(rng());
    return out;
}

int16_t lastSeverity = 0;
void recordSeverity(int16_t severity) { lastSeverity = severity; }

class BlobTest : public zt::ToolkitTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ToolkitTest::SetUp());
        ASSERT_NE(blob = ksBlobNew(), 0u);
    }
    void TearDown() override
    {
        ksBlobFree(blob);
        ksSetErrorHandler(nullptr);
        ToolkitTest::TearDown();
    }

    // Writes bytes in pieces through the cursor and closes it; the blob
    // then holds what the cursor said it had.
    void write(ksBlobCursor* cursor, const Bytes& bytes, size_t piece = 1000)
    {
        ASSERT_NE(cursor, nullptr);
        uint32_t length = ksBlobLength(cursor) + static_cast<uint32_t>(bytes.size());
        for (size_t at = 0; at < bytes.size(); at += piece)
            ASSERT_EQ(ksBlobWrite(cursor, bytes.data() + at, static_cast<uint16_t>(std::min(piece, bytes.size() - at))), 1);
        ASSERT_EQ(ksBlobLength(cursor), length);
        ASSERT_EQ(ksBlobCloseWrite(cursor), 1);
        ASSERT_EQ(ksBlobSize(blob), length);
    }
    Bytes readAll()
    {
        ksBlobCursor* cursor = ksBlobOpenRead(blob);
        Bytes out(ksBlobSize(blob));
        EXPECT_TRUE(out.empty() || ksBlobRead(cursor, out.data(), static_cast<uint16_t>(out.size())));
        EXPECT_EQ(ksBlobCloseRead(cursor), 1);
        return out;
    }
    // The chunk list's length, and each chunk's block big enough for its share.
    size_t chunkCount()
    {
        ksBlob d;
        EXPECT_EQ(ksVmRead(&d, blob, sizeof d), 1);
        uint32_t left = d.size;
        for (ksLoc c = ksListFirst(d.chunks); c != 0; c = ksListNodeNext(c), left -= std::min(left, ksBlobChunkSize))
            EXPECT_GE(ksVmBlockSize(c), ksListNodeHeaderSize + std::min(left, ksBlobChunkSize));
        return ksListCount(d.chunks);
    }

    ksLoc blob = 0;
};

TEST_F(BlobTest, ChunkBoundaries)
{
    for (size_t size : {4096, 4097, 8192, 1, 0}) {
        SCOPED_TRACE(::testing::Message() << size << " bytes");
        ksBlobCursor* cursor = ksBlobOpenWrite(blob);
        if (size == 4096) {  // the write stores the full chunk, closing adds none
            ASSERT_EQ(ksBlobWrite(cursor, pattern(4096, 7).data(), 4096), 1);
            EXPECT_EQ(ksListCount(cursor->chunks), 1u);
        }
        write(cursor, size == 4096 ? Bytes{} : pattern(size, 7));
        EXPECT_EQ(chunkCount(), (size + 4095) / 4096);
        EXPECT_EQ(readAll(), pattern(size, 7));
    }
}

TEST_F(BlobTest, AppendRebuildsTheLastChunk)
{
    Bytes bytes = pattern(4097, 1), more = pattern(5000, 2);
    write(ksBlobOpenWrite(blob), bytes);
    ksBlobCursor* cursor = ksBlobOpenAppend(blob);
    ASSERT_NE(cursor, nullptr);
    EXPECT_TRUE(cursor->offset == 1 && cursor->size == 4096 && ksListCount(cursor->chunks) == 1);
    write(cursor, more, 333);
    bytes.insert(bytes.end(), more.begin(), more.end());
    EXPECT_EQ(chunkCount(), 3u);
    EXPECT_EQ(readAll(), bytes);
    ksLoc fresh = ksBlobNew();  // appending to a blob never written is a plain write
    ksBlobCursor* first = ksBlobOpenAppend(fresh);
    ASSERT_TRUE(first && ksBlobWriteByte(first, 9) && ksBlobCloseWrite(first));
    EXPECT_EQ(ksBlobSize(fresh), 1u);
    ksBlobFree(fresh);
}

TEST_F(BlobTest, ReadsAndSeeksAgreeWithModel)
{
    const Bytes model = pattern(50 * 1024 + 123, 3);
    const uint32_t size = static_cast<uint32_t>(model.size());
    ksBlobCursor* w = ksBlobOpenWrite(blob);
    for (size_t at = 0, n; at < size; at += n) {  // single bytes and pieces of odd sizes
        n = at % 7 ? std::min<size_t>(1 + at % 5000, size - at) : 1;
        ASSERT_EQ(n == 1 ? ksBlobWriteByte(w, model[at]) : ksBlobWrite(w, &model[at], static_cast<uint16_t>(n)), 1);
    }
    write(w, {});
    ksBlobCursor* r = ksBlobOpenRead(blob);
    std::mt19937 rng(11);
    uint32_t pos = 0;
    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE(::testing::Message() << "step " << step << " at " << pos);
        uint32_t border = static_cast<uint32_t>(rng() % 14 * 4096 + rng() % 3);
        uint16_t n = static_cast<uint16_t>(rng() % 9000);
        Bytes got(n + 1, 0xEE);
        bool fits = pos < size && size - pos >= n;
        switch (rng() % 4) {
        case 0:  // anywhere, a third of the time next to a chunk border or the end
            pos = rng() % 3 ? static_cast<uint32_t>(rng() % (size + 1)) : std::min(size, border - (border > 0));
            ASSERT_EQ(ksBlobSeek(r, pos), 1);
            break;
        case 1: ASSERT_EQ(ksBlobSeek(r, size + 1 + static_cast<uint32_t>(rng() % 5000)), 0); break;
        case 2:
            ASSERT_EQ(ksBlobReadByte(r, got.data()), pos < size ? 1 : 0);
            ASSERT_TRUE(pos == size || got[0] == model[pos++]);
            break;
        default:
            ASSERT_EQ(ksBlobRead(r, got.data(), n), fits ? 1 : 0) << n << " bytes";
            ASSERT_TRUE(fits ? std::equal(got.begin(), got.end() - 1, model.begin() + pos) : got[0] == 0xEE);
            pos += fits ? n : 0;
        }
        ASSERT_EQ(ksBlobTell(r), pos);
    }
    // Exactly the rest works and one more byte fails without moving; a read
    // of 0 works while bytes are left, and nothing reads at the end.
    Bytes got(101);
    ASSERT_EQ(ksBlobSeek(r, size - 100), 1);
    EXPECT_EQ(ksBlobRead(r, got.data(), 101), 0);
    EXPECT_EQ(ksBlobRead(r, got.data(), 0), 1);
    EXPECT_EQ(ksBlobTell(r), size - 100);
    EXPECT_EQ(ksBlobRead(r, got.data(), 100), 1);
    EXPECT_TRUE(std::equal(got.begin(), got.end() - 1, model.end() - 100));
    EXPECT_EQ(ksBlobRead(r, got.data(), 1) + ksBlobRead(r, got.data(), 0), 0);
    // Unread puts the byte back; rewind goes to the start.
    ASSERT_TRUE(ksBlobSeek(r, 5000) && ksBlobReadByte(r, got.data()));
    EXPECT_EQ(ksBlobUnreadByte(r, got[0]), 1);
    EXPECT_EQ(ksBlobTell(r), 5000u);
    ksBlobRewind(r);
    ASSERT_EQ(ksBlobReadByte(r, got.data()), 1);
    EXPECT_EQ(got[0], model[0]);
    EXPECT_EQ(ksBlobCloseRead(r), 1);
}

TEST_F(BlobTest, EmptyBlobHasNothingToRead)
{
    for (bool written : {false, true}) {
        if (written)
            write(ksBlobOpenWrite(blob), {});
        ksBlobCursor* r = ksBlobOpenRead(blob);
        uint8_t b;
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(ksBlobRead(r, &b, 1) + ksBlobReadByte(r, &b), 0);
        EXPECT_EQ(ksBlobSeek(r, 0), 1);
        EXPECT_EQ(ksBlobSeek(r, 1), 0);
        EXPECT_EQ(ksBlobCloseRead(r), 1);
    }
}

TEST_F(BlobTest, PatchOverwritesInPlace)
{
    Bytes model = pattern(10000, 5);
    const Bytes patch = pattern(20, 6);
    write(ksBlobOpenWrite(blob), model);
    for (uint32_t at : {0u, 4090u, 8185u, 9980u}) {  // the middle two cross a chunk border
        ASSERT_EQ(ksBlobPatch(blob, at, patch.data(), 20), 1) << at;
        std::copy(patch.begin(), patch.end(), model.begin() + at);
    }
    EXPECT_EQ(ksBlobPatch(blob, 10000, patch.data(), 0), 1);
    EXPECT_EQ(ksBlobPatch(blob, 9981, patch.data(), 20), 0);  // would grow by one
    EXPECT_EQ(ksBlobPatch(blob, 10001, patch.data(), 0) + ksBlobPatch(0, 0, patch.data(), 1), 0);
    EXPECT_EQ(readAll(), model);
}

TEST_F(BlobTest, OpenForWriteTruncates)
{
    write(ksBlobOpenWrite(blob), pattern(10000, 8));
    write(ksBlobOpenWrite(blob), {1, 2, 3});
    EXPECT_EQ(chunkCount(), 1u);
    EXPECT_EQ(readAll(), (Bytes{1, 2, 3}));
    size_t inUse = ksVmBytesInUse();  // the old chunks were freed: the same again costs nothing
    write(ksBlobOpenWrite(blob), {4, 5, 6});
    EXPECT_EQ(ksVmBytesInUse(), inUse);
}

TEST_F(BlobTest, TypedValuesRoundTripLittleEndian)
{
    const ksObjHandle handle{{0, 0, 0, 0, 0, 0x12, 0x34, 0x56}};
    ksBlobCursor* w = ksBlobOpenWrite(blob);
    ASSERT_TRUE(ksBlobWriteText(w, "abc") && ksBlobWriteText(w, "") && ksBlobWriteHandle(w, handle) &&
                ksBlobWriteInt16(w, -2) && ksBlobWriteInt32(w, 0x12345678) && ksBlobWriteReal(w, 1.0) &&
                ksBlobWritePoint(w, ksPoint3{1.0, -2.0, 0.5}));
    write(w, {});
    EXPECT_EQ(readAll(), (Bytes{3, 0, 'a', 'b', 'c', 0, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0x56, 0xFE, 0xFF,
                                0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F, 0, 0, 0, 0, 0, 0, 0xF0,
                                0x3F, 0, 0, 0, 0, 0, 0, 0x00, 0xC0, 0, 0, 0, 0, 0, 0, 0xE0, 0x3F}));
    ksBlobCursor* r = ksBlobOpenRead(blob);
    char text[8], empty[8];
    ksObjHandle h{};
    int16_t i16 = 0;
    int32_t i32 = 0;
    double real = 0;
    ksPoint3 p{};
    ASSERT_TRUE(ksBlobReadText(r, text, 7) && ksBlobReadText(r, empty, 7) && ksBlobReadHandle(r, &h) &&
                ksBlobReadInt16(r, &i16) && ksBlobReadInt32(r, &i32) && ksBlobReadReal(r, &real) &&
                ksBlobReadPoint(r, &p));
    EXPECT_TRUE(!std::strcmp(text, "abc") && !*empty && !std::memcmp(h.bytes, handle.bytes, 8));
    EXPECT_TRUE(i16 == -2 && i32 == 0x12345678 && real == 1.0 && p.x == 1.0 && p.y == -2.0 && p.z == 0.5);
    // At the end a read fails, and still clears what it reads into.
    EXPECT_EQ(ksBlobReadInt16(r, &i16) + ksBlobReadInt32(r, &i32) + ksBlobReadReal(r, &real) + ksBlobReadPoint(r, &p), 0);
    EXPECT_TRUE(i16 == 0 && i32 == 0 && real == 0 && p.x == 0 && p.y == 0 && p.z == 0);
    EXPECT_EQ(ksBlobCloseRead(r), 1);
}

TEST_F(BlobTest, TextAboveTheLimit)
{
    ksBlobCursor* w = ksBlobOpenWrite(blob);
    ASSERT_TRUE(ksBlobWriteText(w, "hello world") && ksBlobWriteInt16(w, 77));
    write(w, {});
    char text[16];
    int16_t after = 0;
    ksBlobCursor* r = ksBlobOpenRead(blob);
    EXPECT_EQ(ksBlobReadText(r, text, 10), 0);  // no handler: refused
    ksBlobRewind(r);
    ASSERT_EQ(ksBlobReadText(r, text, 11), 1);  // exactly the limit is fine
    EXPECT_STREQ(text, "hello world");
    ksSetErrorHandler(recordSeverity);          // a handler: cut to the limit, the rest stepped over
    lastSeverity = 0;
    ksBlobRewind(r);
    ASSERT_EQ(ksBlobReadText(r, text, 5), 1);
    EXPECT_STREQ(text, "hello");
    EXPECT_EQ(lastSeverity, 5);
    ASSERT_EQ(ksBlobReadInt16(r, &after), 1);
    EXPECT_EQ(after, 77);
    EXPECT_EQ(ksBlobCloseRead(r), 1);
}

TEST_F(BlobTest, NullCursorAndBlobAreRefused)
{
    ksObjHandle h{};
    uint8_t b = 0;
    ksG->errorNumber = 0;
    EXPECT_EQ(ksBlobReadHandle(nullptr, &h), 0);
    EXPECT_EQ(ksG->errorNumber, 162);
    EXPECT_EQ(ksBlobWriteHandle(nullptr, h), 0);
    EXPECT_EQ(ksG->errorNumber, 163);
    EXPECT_EQ(ksBlobRead(nullptr, &b, 1) + ksBlobWrite(nullptr, &b, 1) + ksBlobCloseRead(nullptr), 0);
    EXPECT_TRUE(!ksBlobOpenWrite(0) && !ksBlobOpenRead(0) && !ksBlobOpenAppend(0));
    EXPECT_EQ(ksBlobFree(0) + ksBlobSize(0), 0u);
}

}  // namespace
