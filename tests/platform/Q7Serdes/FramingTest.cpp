// Frames cut out of a byte stream however it arrives, and streams that cannot be trusted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Q7Serdes/Framing.h"

namespace {

using Result = Q7Serdes::FrameReader::Result;

TEST(Framing, FramesComeOutWholeAndInOrderHoweverTheBytesArrive) {
    // The reader drops the first from its buffer while the next waits there; the second has a two-byte length.
    std::string bytes;
    for (std::size_t size : {70000, 300, 1}) {
        q7serdes::Frame frame;
        frame.mutable_change()->add_set()->set_value(std::string(size, 'x'));
        Q7Serdes::frameAppend(frame, bytes);
    }
    for (std::size_t piece : {std::size_t(1), std::size_t(3), std::size_t(4096), bytes.size()}) {
        Q7Serdes::FrameReader reader;
        q7serdes::Frame frame;
        std::vector<std::size_t> sizes;
        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            reader.append(bytes.data() + at, std::min(piece, bytes.size() - at));
            // Bounded: a reader that yields a frame again would never stop.
            while (sizes.size() < 4 && reader.next(frame) == Result::frame)
                sizes.push_back(frame.change().set(0).value().size());
        }
        EXPECT_EQ(sizes, (std::vector<std::size_t>{70000, 300, 1})) << "in pieces of " << piece;
        EXPECT_EQ(reader.buffered(), 0u);
    }
}

TEST(Framing, ALengthBeyondTheLimitOrBytesThatDoNotParseAreMalformed) {
    struct Case {
        std::string bytes;
        Result result;
        char const* error;
    } const cases[] = {{"\x80\x80\x80\x08", Result::needMore, ""},  // 16 MiB: the largest frame
                       {"\x81\x80\x80\x08", Result::malformed, "frame of 16777217 bytes exceeds the limit of 16777216"},
                       {"\xff\xff\xff\xff", Result::needMore, ""},  // a length takes up to five bytes
                       {"\xff\xff\xff\xff\xff", Result::malformed, "frame length unreadable"},
                       {"\x03\xff\xff\xff", Result::malformed, "frame does not parse"}};
    for (Case const& c : cases) {
        Q7Serdes::FrameReader reader;
        reader.append(c.bytes.data(), c.bytes.size());
        q7serdes::Frame frame;
        EXPECT_EQ(reader.next(frame), c.result) << c.error;
        EXPECT_EQ(reader.error(), c.error);
    }
}

} // namespace
