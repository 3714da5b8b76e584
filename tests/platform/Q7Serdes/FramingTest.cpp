// Frames cut out of a byte stream however it arrives, and streams that cannot be trusted.
#include <gtest/gtest.h>

#include <string>

#include "Q7Serdes/Framing.h"

namespace {

using Result = Q7Serdes::FrameReader::Result;

q7serdes::Frame change(std::uint32_t stream, std::string const& key, std::string const& value) {
    q7serdes::Frame frame;
    frame.mutable_change()->set_stream(stream);
    auto* entry = frame.mutable_change()->add_set();
    entry->set_key(key);
    entry->set_value(value);
    return frame;
}

TEST(Framing, FramesComeOutWholeAndInOrderHoweverTheBytesArrive) {
    std::string bytes;
    Q7Serdes::frameAppend(change(1, "'a'", "'1'"), bytes);
    Q7Serdes::frameAppend(change(2, "'b'", std::string(300, 'x')), bytes);  // a two-byte length
    for (std::size_t piece : {std::size_t(1), std::size_t(3), bytes.size()}) {
        Q7Serdes::FrameReader reader;
        q7serdes::Frame frame;
        std::vector<std::uint32_t> streams;
        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            reader.append(bytes.data() + at, std::min(piece, bytes.size() - at));
            while (reader.next(frame) == Result::frame) streams.push_back(frame.change().stream());
        }
        EXPECT_EQ(streams, (std::vector<std::uint32_t>{1, 2})) << "in pieces of " << piece;
        EXPECT_EQ(frame.change().set(0).value(), std::string(300, 'x'));
        EXPECT_EQ(reader.buffered(), 0u);
    }
}

TEST(Framing, ALengthBeyondTheLimitOrBytesThatDoNotParseAreMalformed) {
    struct Case {
        std::string bytes;
        char const* error;
    };
    std::string const tooLong = "\x81\x80\x80\x10";  // 32 MiB
    std::string const notALength = "\xff\xff\xff\xff\xff\xff";
    std::string const garbage = std::string("\x03\xff\xff\xff", 4);
    for (Case const& c : {Case{tooLong, "exceeds the limit"}, Case{notALength, "length unreadable"},
                          Case{garbage, "does not parse"}}) {
        Q7Serdes::FrameReader reader;
        reader.append(c.bytes.data(), c.bytes.size());
        q7serdes::Frame frame;
        EXPECT_EQ(reader.next(frame), Result::malformed) << c.error;
        EXPECT_NE(reader.error().find(c.error), std::string::npos) << reader.error();
    }
}

} // namespace
