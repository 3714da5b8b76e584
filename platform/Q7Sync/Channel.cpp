// Q7Sync::Channel: asynchronous reads and gathered writes of sync frames.
#include "Q7Sync/Channel.h"

#include <asio/read.hpp>
#include <asio/write.hpp>

namespace Q7Sync {

Channel::Channel(asio::ip::tcp::socket socket) : socket_(std::move(socket)) {
    asio::error_code ignored;
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
}

void Channel::start(FrameHandler onFrame, CloseHandler onClosed) {
    onFrame_ = std::move(onFrame);
    onClosed_ = std::move(onClosed);
    read();
}

asio::ip::tcp::endpoint Channel::remote() const {
    asio::error_code ignored;
    return socket_.remote_endpoint(ignored);
}

void Channel::send(q7serdes::Frame const& frame) {
    if (closed_) return;
    Q7Serdes::frameAppend(frame, pending_);
    if (writing_.empty()) write();
}

void Channel::close() noexcept {
    // The handlers stay: close() may come from inside one of them.
    closed_ = true;
    asio::error_code ignored;
    socket_.close(ignored);
}

void Channel::read() {
    socket_.async_read_some(asio::buffer(incoming_), [self = shared_from_this()](asio::error_code ec, std::size_t n) {
        if (self->closed_) return;
        if (ec) {
            self->fail(ec == asio::error::eof ? "closed by the peer" : ec.message());
            return;
        }
        self->reader_.append(self->incoming_.data(), n);
        for (;;) {
            switch (self->reader_.next(self->frame_)) {
            case Q7Serdes::FrameReader::Result::needMore:
                self->read();
                return;
            case Q7Serdes::FrameReader::Result::malformed:
                self->fail(self->reader_.error());
                return;
            case Q7Serdes::FrameReader::Result::frame:
                self->onFrame_(self->frame_);
                if (self->closed_) return;
                break;
            }
        }
    });
}

void Channel::write() {
    writing_.swap(pending_);
    asio::async_write(socket_, asio::buffer(writing_), [self = shared_from_this()](asio::error_code ec, std::size_t) {
        self->writing_.clear();
        if (self->closed_) return;
        if (ec) {
            self->fail(ec.message());
            return;
        }
        if (!self->pending_.empty()) self->write();
    });
}

void Channel::fail(std::string const& reason) {
    close();
    onClosed_(reason);
}

} // namespace Q7Sync
