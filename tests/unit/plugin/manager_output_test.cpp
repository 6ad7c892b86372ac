// The output of a run: how it is cut into chunks, and what of it is kept.

#include <gtest/gtest.h>
#include <unistd.h>

#include "plugin/manager/output_capture.h"
#include "plugin/platform/unique_descriptor.h"

namespace {

constexpr size_t LIMIT = COutputCapture::PART_LIMIT;

class ChunkReaderTest : public testing::Test {
protected:
    ChunkReaderTest() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe(ends), 0);
        read_end_ = CUniqueDescriptor(ends[0]);
        write_end_ = CUniqueDescriptor(ends[1]);
    }

    // What comes out until the reader wants more, "|" after each chunk; "$" for the end of the output.
    std::string Drain() {
        std::string result;
        std::string_view chunk;
        auto state = reader_.Next(chunk);
        for (; state == CChunkReader::EState::CHUNK; state = reader_.Next(chunk)) {
            result += std::string(chunk) + "|";
        }
        return result + (state == CChunkReader::EState::END ? "$" : "");
    }

    std::string Deliver(const std::string& data) {
        EXPECT_EQ(write(write_end_.Get(), data.data(), data.size()), static_cast<ssize_t>(data.size()));
        reader_.Fill(read_end_.Get());
        return Drain();
    }

    CChunkReader reader_;
    CUniqueDescriptor read_end_;
    CUniqueDescriptor write_end_;
};

TEST_F(ChunkReaderTest, LinesAreWholeHoweverTheirBytesArrive) {
    EXPECT_EQ(Drain(), "");
    EXPECT_EQ(Deliver("one\ntw"), "one\n|");
    EXPECT_EQ(Deliver("o"), "");
    EXPECT_EQ(Deliver("\n\nlast"), "two\n|\n|");
    write_end_ = {};
    reader_.Fill(read_end_.Get());
    EXPECT_EQ(Drain(), "last|$");
}

TEST_F(ChunkReaderTest, ALongLineIsCutAfter1023Bytes) {
    EXPECT_EQ(Deliver(std::string(1022, 'a')), "");
    EXPECT_EQ(Deliver(std::string(1024, 'a')), std::string(1023, 'a') + "|" + std::string(1023, 'a') + "|");
    EXPECT_EQ(Deliver(std::string(1022, 'b') + "\nc"), std::string(1022, 'b') + "\n|");
    EXPECT_EQ(Deliver(std::string(1, '\0') + "\n"), std::string("c\0\n|", 4));
}

// Fills a capture with chunks of 1000 bytes that tell their own number.
std::string NumberedChunk(size_t number) {
    std::string chunk = std::to_string(number) + ":";
    chunk.resize(1000, '.');
    return chunk;
}

TEST(OutputCaptureTest, BeyondHeadAndTailOnlyTheNewestChunksStayBehindAMark) {
    // Either part takes a chunk while it holds no more than the limit.
    constexpr size_t CHUNKS = LIMIT / 1000 + 1;
    for (const size_t count : {2 * CHUNKS, 2 * CHUNKS + 1, size_t{5000}}) {
        COutputCapture capture;
        std::string all;
        for (size_t number = 0; number < count; ++number) {
            capture.Append(NumberedChunk(number));
            all += NumberedChunk(number);
        }
        const std::string output = capture.Take();
        const std::string mark = count > 2 * CHUNKS ? "\n...\n" : "";
        EXPECT_EQ(output.substr(0, CHUNKS * 1000), all.substr(0, CHUNKS * 1000)) << count;
        EXPECT_EQ(output.substr(CHUNKS * 1000), mark + all.substr(all.size() - CHUNKS * 1000)) << count;
        EXPECT_EQ(capture.Take(), "");
    }
}

TEST(OutputCaptureTest, OneByteChunksKeepTheirBoundaries) {
    COutputCapture capture;
    for (size_t count = 0; count < 3 * LIMIT; ++count) {
        capture.Append("\n");
    }
    for (size_t count = 0; count < LIMIT; ++count) {
        capture.Append("");
    }
    EXPECT_TRUE(capture.Take() == std::string(LIMIT + 1, '\n') + "\n...\n" + std::string(LIMIT, '\n'));
}

}  // namespace
