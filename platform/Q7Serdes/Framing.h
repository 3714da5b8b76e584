// Q7Serdes framing: sync frames on a byte stream, in protobuf's length-delimited form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Q7Serdes/Sync.pb.h"

namespace Q7Serdes {

// A frame larger than this is refused: a peer cannot make us buffer without bound. Requests
// (what an accepting side reads, write-sync data included) have a tighter bound of their own.
inline constexpr std::size_t kMaxFrameBytes = 16u << 20;
inline constexpr std::size_t kMaxRequestFrameBytes = 1u << 20;

// Appends `frame`, delimited, to `out`.
void frameAppend(q7serdes::Frame const& frame, std::string& out);

// Cuts frames out of the bytes received so far. Bytes are appended as they arrive; next()
// then yields each complete frame in turn.
class FrameReader {
public:
    enum class Result : std::uint8_t { frame, needMore, malformed };

    explicit FrameReader(std::size_t maxFrameBytes = kMaxFrameBytes) : maxFrameBytes_(maxFrameBytes) {}

    void append(char const* data, std::size_t size) { buffer_.append(data, size); }
    // The next complete frame into `frame`. `malformed` (with error() saying why) when the
    // length is too large or the frame does not parse: the stream cannot be trusted after it.
    Result next(q7serdes::Frame& frame);
    std::string const& error() const noexcept { return error_; }
    std::size_t buffered() const noexcept { return buffer_.size() - consumed_; }

private:
    std::size_t maxFrameBytes_;
    std::string buffer_;
    std::size_t consumed_ = 0;
    std::string error_;
};

} // namespace Q7Serdes
