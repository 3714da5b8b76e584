// Termout::NonBlockingCliTxnBuffer: a command's output, streamed to its descriptor in bounded chunks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Wex/PtrInterface.h"

namespace Termout {

// Output goes out whenever the buffer fills, so memory stays at `capacity` whatever the size
// of the output. A descriptor that is non-blocking is waited on (poll) when it is full; one
// that accepts nothing for `stallLimitMs` ends the output, as does any write error (a client
// that went away is EPIPE, never a SIGPIPE). After an error further output is dropped.
// The descriptor stays the caller's: it is never closed here.
class NonBlockingCliTxnBuffer : public Wex::PtrInterface {
public:
    static constexpr std::size_t kDefaultCapacity = std::size_t{64} * 1024;
    static constexpr int kDefaultStallLimitMs = 30'000;

    // A negative fd or a zero capacity is a Wex::RangeException.
    explicit NonBlockingCliTxnBuffer(int fd, std::size_t capacity = kDefaultCapacity,
                                     int stallLimitMs = kDefaultStallLimitMs);

    int fd() const noexcept { return fd_; }
    std::size_t capacity() const noexcept { return capacity_; }
    // Bytes held and not yet handed to the descriptor.
    std::size_t buffered() const noexcept { return used_; }
    std::uint64_t bytesWritten() const noexcept { return written_; }
    // The errno value that ended the output (ETIMEDOUT for a stall), 0 while output goes out.
    int error() const noexcept { return error_; }

    void write(std::string_view text) noexcept;
    // Writes out everything held; false once the output has ended in an error.
    bool flush() noexcept;

    Wex::WexType const* fwkType() const noexcept override;

protected:
    // Flushes what is left.
    ~NonBlockingCliTxnBuffer() override;

private:
    void writeOut(char const* data, std::size_t size) noexcept;

    int fd_;
    std::size_t capacity_;
    int stallLimitMs_;
    std::unique_ptr<char[]> data_;
    std::size_t used_ = 0;
    std::uint64_t written_ = 0;
    int error_ = 0;
};

} // namespace Termout
