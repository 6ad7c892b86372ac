// The output of a run: how it is cut into chunks, and what of it is kept.

#include <gtest/gtest.h>
#include <unistd.h>

#include "plugin/manager/output_capture.h"

namespace {

constexpr size_t LIMIT = COutputCapture::PART_LIMIT;

class ChunkReaderTest : public testing::Test {
protected:
    ChunkReaderTest() {
        if (pipe(pipe_) != 0) {
            abort();
        }
    }
    ~ChunkReaderTest() override {
        close(pipe_[0]);
        EndOutput();
    }

    void EndOutput() {
        if (pipe_[1] >= 0) {
            close(pipe_[1]);
        }
        pipe_[1] = -1;
    }

    // What comes out until the reader wants more, "|" after each chunk; "$" for the end of the output.
    std::string Drain() {
        std::string result;
        std::string_view chunk;
        for (;;) {
            switch (reader_.Next(chunk)) {
                case CChunkReader::EState::CHUNK:
                    result += std::string(chunk) + "|";
                    break;
                case CChunkReader::EState::NEED_DATA:
                    return result;
                case CChunkReader::EState::END:
                    return result + "$";
            }
        }
    }

    std::string Deliver(const std::string& data) {
        EXPECT_EQ(write(pipe_[1], data.data(), data.size()), static_cast<ssize_t>(data.size()));
        reader_.Fill(pipe_[0]);
        return Drain();
    }

    CChunkReader reader_;
    int pipe_[2] = {-1, -1};
};

TEST_F(ChunkReaderTest, LinesAreWholeHoweverTheirBytesArrive) {
    EXPECT_EQ(Drain(), "");
    EXPECT_EQ(Deliver("one\ntw"), "one\n|");
    EXPECT_EQ(Deliver("o"), "");
    EXPECT_EQ(Deliver("\n\nlast"), "two\n|\n|");
    EndOutput();
    reader_.Fill(pipe_[0]);
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

TEST(OutputCaptureTest, HeadTakesAChunkAtItsLimitAndTheTailKeepsTheRestWhole) {
    COutputCapture capture;
    std::string expected(LIMIT, 'h');
    for (size_t at = 0; at < LIMIT; at += 1023) {
        capture.Append(std::string_view(expected).substr(at, 1023));
    }
    capture.Append("this chunk still goes to the head");
    expected += "this chunk still goes to the head";
    for (size_t tail = 0; tail <= LIMIT; tail += 1000) {
        capture.Append(NumberedChunk(tail));
        expected += NumberedChunk(tail);
    }
    EXPECT_EQ(capture.Take(), expected);
    EXPECT_EQ(capture.Take(), "");
}

TEST(OutputCaptureTest, BeyondBothPartsOnlyTheNewestChunksStayBehindAMark) {
    COutputCapture capture;
    std::string all;
    for (size_t number = 0; number < 5000; ++number) {
        capture.Append(NumberedChunk(number));
        all += NumberedChunk(number);
    }
    // The head holds 1049 chunks; the tail drops while it holds more than the limit, then takes one chunk more.
    const std::string output = capture.Take();
    const size_t head = (LIMIT / 1000 + 1) * 1000;
    const size_t tail = (LIMIT / 1000 + 1) * 1000;
    EXPECT_EQ(output.substr(0, head), all.substr(0, head));
    EXPECT_EQ(output.substr(head, 5), "\n...\n");
    EXPECT_EQ(output.substr(head + 5), all.substr(all.size() - tail));
}

TEST(OutputCaptureTest, OneByteChunksKeepTheirBoundaries) {
    COutputCapture capture;
    for (size_t count = 0; count < 3 * LIMIT; ++count) {
        capture.Append("\n");
    }
    for (size_t count = 0; count < LIMIT; ++count) {
        capture.Append("");
    }
    EXPECT_EQ(capture.Take(), std::string(LIMIT + 1, '\n') + "\n...\n" + std::string(LIMIT, '\n'));
}

}  // namespace
