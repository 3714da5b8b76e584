// Termout::NonBlockingCliTxnBuffer: buffering, writing through partial writes and full descriptors.
#include "Termout/NonBlockingCliTxnBuffer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include "Wex/Type.h"

namespace Termout {

namespace {
// A reader that closed its end must not kill the daemon: SIGPIPE is blocked for the write and
// one it raised is taken back, so the caller sees EPIPE. One that was already pending is left.
ssize_t writeWithoutSigpipe(int fd, char const* data, std::size_t size) noexcept {
    sigset_t pipeSet, oldSet, pendingSet;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    sigpending(&pendingSet);
    bool const wasPending = sigismember(&pendingSet, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipeSet, &oldSet);
    ssize_t const r = ::write(fd, data, size);
    int const err = errno;
    if (r < 0 && err == EPIPE && !wasPending) {
        timespec const zero{0, 0};
        while (sigtimedwait(&pipeSet, nullptr, &zero) < 0 && errno == EINTR) {}
    }
    pthread_sigmask(SIG_SETMASK, &oldSet, nullptr);
    errno = err;
    return r;
}
} // namespace

NonBlockingCliTxnBuffer::NonBlockingCliTxnBuffer(int fd, std::size_t capacity, int stallLimitMs)
    : fd_(fd), capacity_(capacity), stallLimitMs_(stallLimitMs) {
    if (fd < 0) throw Wex::RangeException("fd", "is not a file descriptor");
    if (capacity == 0) throw Wex::RangeException("capacity", "must be at least one byte");
    data_ = std::make_unique<char[]>(capacity);
}

NonBlockingCliTxnBuffer::~NonBlockingCliTxnBuffer() { flush(); }

void NonBlockingCliTxnBuffer::write(std::string_view text) noexcept {
    while (!text.empty() && error_ == 0) {
        // A piece larger than the buffer goes out directly rather than through it.
        if (used_ == 0 && text.size() >= capacity_) {
            writeOut(text.data(), text.size());
            return;
        }
        std::size_t const n = std::min(capacity_ - used_, text.size());
        std::memcpy(data_.get() + used_, text.data(), n);
        used_ += n;
        text.remove_prefix(n);
        if (used_ == capacity_) flush();
    }
}

bool NonBlockingCliTxnBuffer::flush() noexcept {
    if (used_ > 0 && error_ == 0) writeOut(data_.get(), used_);
    used_ = 0;
    return error_ == 0;
}

void NonBlockingCliTxnBuffer::writeOut(char const* data, std::size_t size) noexcept {
    while (size > 0) {
        ssize_t const r = writeWithoutSigpipe(fd_, data, size);
        if (r > 0) {
            data += r;
            size -= static_cast<std::size_t>(r);
            written_ += static_cast<std::uint64_t>(r);
            continue;
        }
        if (r == 0) {
            error_ = EIO;  // a descriptor that takes nothing and reports no error would spin here
            return;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            error_ = errno;
            return;
        }
        pollfd p{fd_, POLLOUT, 0};
        int ready;
        do {
            ready = ::poll(&p, 1, stallLimitMs_);
        } while (ready < 0 && errno == EINTR);
        if (ready == 0) {
            error_ = ETIMEDOUT;
            return;
        }
        if (ready < 0) {
            error_ = errno;
            return;
        }
        // Ready, or in error: the next write tells which.
    }
}

Wex::WexType const* NonBlockingCliTxnBuffer::fwkType() const noexcept {
    return Wex::wexTypeOf<NonBlockingCliTxnBuffer>();
}

namespace {
Wex::WexModuleRegistrar registrar("Termout/NonBlockingCliTxnBuffer", [](Wex::WexModule& m) {
    m.type<NonBlockingCliTxnBuffer>("Termout::NonBlockingCliTxnBuffer")
        .readOnly("fd", [](NonBlockingCliTxnBuffer const& b) { return b.fd(); })
        .readOnly("capacity", [](NonBlockingCliTxnBuffer const& b) { return b.capacity(); })
        .readOnly("buffered", [](NonBlockingCliTxnBuffer const& b) { return b.buffered(); })
        .readOnly("bytesWritten", [](NonBlockingCliTxnBuffer const& b) { return b.bytesWritten(); })
        .readOnly("error", [](NonBlockingCliTxnBuffer const& b) { return b.error(); });
});
} // namespace

} // namespace Termout
