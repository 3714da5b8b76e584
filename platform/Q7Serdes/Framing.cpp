// Q7Serdes framing: protobuf's delimited writer, and a reader for frames that arrive in pieces.
#include "Q7Serdes/Framing.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/util/delimited_message_util.h>

namespace Q7Serdes {

void frameAppend(q7serdes::Frame const& frame, std::string& out) {
    google::protobuf::io::StringOutputStream stream(&out);
    google::protobuf::util::SerializeDelimitedToZeroCopyStream(frame, &stream);
}

FrameReader::Result FrameReader::next(q7serdes::Frame& frame) {
    auto const* data = reinterpret_cast<std::uint8_t const*>(buffer_.data()) + consumed_;
    int const available = int(std::min<std::size_t>(buffered(), maxFrameBytes_ + 16));
    google::protobuf::io::CodedInputStream in(data, available);
    std::uint32_t length = 0;
    if (!in.ReadVarint32(&length)) {
        // A length takes at most five bytes: more without one is not a length.
        if (buffered() < 5) return Result::needMore;
        error_ = "frame length unreadable";
        return Result::malformed;
    }
    if (length > maxFrameBytes_) {
        error_ = "frame of " + std::to_string(length) + " bytes exceeds the limit of " + std::to_string(maxFrameBytes_);
        return Result::malformed;
    }
    std::size_t const header = std::size_t(in.CurrentPosition());
    if (buffered() < header + length) return Result::needMore;
    if (!frame.ParseFromArray(data + header, int(length))) {
        error_ = "frame does not parse";
        return Result::malformed;
    }
    consumed_ += header + length;
    // Keep the buffer from growing: drop what was read once it is most of it.
    if (consumed_ == buffer_.size()) {
        buffer_.clear();
        consumed_ = 0;
        // A large frame's room is given back: a peer cannot keep it taken.
        if (buffer_.capacity() > (std::size_t{1} << 20)) std::string().swap(buffer_);
    } else if (consumed_ > 65536 && consumed_ * 2 > buffer_.size()) {
        buffer_.erase(0, consumed_);
        consumed_ = 0;
    }
    return Result::frame;
}

} // namespace Q7Serdes
