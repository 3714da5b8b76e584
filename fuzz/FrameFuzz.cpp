// Bytes as a peer might send them, in pieces: the reader yields whole frames or says the stream
// is malformed, never more, and every frame it yields encodes back to the bytes it came from
// in meaning.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Q7Serdes/Framing.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Q7Serdes::FrameReader reader;
    q7serdes::Frame frame;
    // The first byte cuts the rest into pieces of its size, as reads would.
    std::size_t const piece = size ? std::size_t(data[0] % 16) + 1 : 1;
    for (std::size_t at = size ? 1 : 0; at < size; at += piece) {
        reader.append(reinterpret_cast<char const*>(data) + at, std::min(piece, size - at));
        for (;;) {
            auto const result = reader.next(frame);
            if (result == Q7Serdes::FrameReader::Result::malformed) return 0;
            if (result == Q7Serdes::FrameReader::Result::needMore) break;
            std::string bytes;
            Q7Serdes::frameAppend(frame, bytes);
            Q7Serdes::FrameReader again;
            q7serdes::Frame copy;
            again.append(bytes.data(), bytes.size());
            if (again.next(copy) != Q7Serdes::FrameReader::Result::frame ||
                copy.SerializeAsString() != frame.SerializeAsString())
                std::abort();
        }
    }
    return 0;
}
