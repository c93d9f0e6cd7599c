// The stream hooks that the DXF reader leans on: the line reader and the
// file size.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "driver/hooks.h"
#include "support/support.h"

namespace {

struct LineCase {
    const char* name;
    std::string content;
    int size;                        // buffer size handed to the reader
    std::vector<std::string> lines;  // results up to the first null
};

// The end of the stream is known only once a read has failed, so a file
// whose last line end is a pair gives one empty text before the null.
const LineCase kLineCases[] = {
    {"CR", "ab\rcd\r", 64, {"ab\r", "cd\r"}},
    {"LF", "ab\ncd\n", 64, {"ab\n", "cd\n"}},
    {"CR LF", "ab\r\ncd\r\n", 64, {"ab\r", "cd\r", ""}},
    {"LF CR", "ab\n\rcd\n\r", 64, {"ab\n", "cd\n", ""}},
    {"mixed ends", "a\r\nb\rc\n\rd\ne", 64, {"a\r", "b\r", "c\n", "d\n", "e"}},
    {"last line without an end", "ab\ncd", 64, {"ab\n", "cd"}},
    {"empty lines keep their end", "\n\nx\r\ry", 64, {"\n", "\n", "x\r", "\r", "y"}},
    {"empty file", "", 64, {""}},
    // Room for three bytes and the mark: the fourth byte read is lost, the
    // rest of the line comes with the next call.
    {"line longer than the buffer", "abcdef\nxy\n", 4, {"abc", "ef\n", "xy\n"}},
    {"size 0", "ab\n", 0, {}},
};

TEST(Hooks, ReadLine)
{
    for (const auto& c : kLineCases) {
        SCOPED_TRACE(c.name);
        zt::TempDir dir;
        zt::writeFile(dir / "lines.dxf", c.content);
        ksStream* stream = ksFileOpenRead((dir / "lines.dxf").c_str());
        ASSERT_NE(stream, nullptr);

        std::vector<std::string> got;
        for (size_t call = 0; call <= c.lines.size(); ++call) {
            std::string buffer(static_cast<size_t>(c.size) + 8, '#');  // '#' guards the tail
            char* line = ksFileReadLine(buffer.data(), c.size, stream);
            EXPECT_EQ(buffer.substr(static_cast<size_t>(c.size)), "########")
                << "wrote past the buffer";
            if (line == nullptr)
                break;
            EXPECT_EQ(line, buffer.data());
            got.emplace_back(line);
        }
        EXPECT_EQ(got, c.lines);
        ksFileClose(stream);
    }
}

TEST(Hooks, FileSizeKeepsPosition)
{
    zt::TempDir dir;
    zt::writeFile(dir / "ten", "0123456789");
    zt::writeFile(dir / "empty", "");
    ksStream* stream = ksFileOpenRead((dir / "ten").c_str());
    ASSERT_NE(stream, nullptr);
    for (long at : {0L, 3L, 10L}) {
        SCOPED_TRACE(at);
        ASSERT_EQ(ksFileSeek(stream, at, 0), 0);
        EXPECT_EQ(ksFileSize(stream), 10);
        EXPECT_EQ(ksFileTell(stream), at);
        EXPECT_EQ(ksFileGetByte(stream), at < 10 ? '0' + at : -1);
    }
    ksFileClose(stream);

    stream = ksFileOpenRead((dir / "empty").c_str());
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(ksFileSize(stream), 0);
    EXPECT_EQ(ksFileTell(stream), 0);
    ksFileClose(stream);
}

}  // namespace
