// Q7Sync::Channel: the handshake, asynchronous reads and gathered writes, heartbeats.
#include "Q7Sync/Channel.h"

#include <asio/read.hpp>
#include <asio/ssl/error.hpp>
#include <asio/write.hpp>
#include <fmt/format.h>

#include "Q7Sync/Tls.h"

namespace Q7Sync {

namespace {
// A TLS connection opens with a handshake record; anything else is a peer in the clear.
constexpr unsigned char kTlsHandshakeRecord = 0x16;
// Buffers that grew for a burst are given back once it is written.
constexpr std::size_t kKeepCapacity = std::size_t{1} << 20;

void trim(std::string& buffer) {
    if (buffer.empty() && buffer.capacity() > kKeepCapacity) std::string().swap(buffer);
}
} // namespace

Channel::Channel(asio::ip::tcp::socket socket, Role role, std::shared_ptr<Tls> tls, std::size_t maxFrameBytes)
    : socket_(std::move(socket)), role_(role), reader_(maxFrameBytes), heartbeat_(socket_.get_executor()) {
    asio::error_code ignored;
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
    auto const remote = socket_.remote_endpoint(ignored);
    peerName_ = fmt::format("{}:{}", remote.address().to_string(), remote.port());
    if (tls) tls_.emplace(std::move(socket_), tls->context());
}

Channel::~Channel() { close(); }

void Channel::start(Handlers handlers) {
    handlers_ = std::move(handlers);
    lastHeard_ = std::chrono::steady_clock::now();
    heartbeat();
    if (!tls_) opened();
    else if (role_ == Role::accepting) refuseCleartext();
    else handshake();
}

// A peer that speaks in the clear to an agent that requires TLS is told why in its own terms
// before the connection closes, rather than left with a handshake it cannot read.
void Channel::refuseCleartext() {
    socket().async_receive(asio::buffer(incoming_.data(), 1), asio::socket_base::message_peek,
                           [self = shared_from_this()](asio::error_code ec, std::size_t n) {
                               if (self->closed_) return;
                               if (ec) return self->fail(self->errorReason(ec));
                               if (n == 1 && static_cast<unsigned char>(self->incoming_[0]) == kTlsHandshakeRecord)
                                   return self->handshake();
                               q7serdes::Frame frame;
                               frame.mutable_closing()->set_reason(
                                   "this agent accepts mutual TLS only: connect with a certificate of its authority");
                               auto bytes = std::make_shared<std::string>();
                               Q7Serdes::frameAppend(frame, *bytes);
                               // Written past TLS, in the peer's own terms; the channel closes once it is out.
                               self->ending_ = true;
                               asio::async_write(self->socket(), asio::buffer(*bytes),
                                                 [self, bytes](asio::error_code, std::size_t) { self->close(); });
                               self->handlers_.closed("refused at the TLS handshake: the peer spoke in the clear");
                           });
}

void Channel::handshake() {
    auto const type = role_ == Role::connecting ? asio::ssl::stream_base::client : asio::ssl::stream_base::server;
    tls_->async_handshake(type, [self = shared_from_this()](asio::error_code ec) {
        if (self->closed_) return;
        if (ec) return self->fail(self->errorReason(ec));
        self->opened();
    });
}

void Channel::opened() {
    opened_ = true;
    if (!pending_.empty()) write();
    read();
    if (handlers_.open && !closed_) handlers_.open();
}

void Channel::send(q7serdes::Frame const& frame) {
    if (closed_ || ending_) return;
    Q7Serdes::frameAppend(frame, pending_);
    wroteSinceBeat_ = true;
    if (opened_ && writing_.empty()) write();
}

void Channel::end(std::string const& reason) {
    if (closed_ || ending_) return;
    q7serdes::Frame frame;
    frame.mutable_closing()->set_reason(reason);
    send(frame);
    ending_ = true;
    if (!opened_) close();
}

void Channel::release() noexcept {
    if (!ending_) close();
}

void Channel::close() noexcept {
    // The handlers stay: close() may come from inside one of them.
    closed_ = true;
    try {
        heartbeat_.cancel();
    } catch (std::exception const&) {
        // Cancelling fails only when the system cannot; its handler then finds the channel closed.
    }
    asio::error_code ignored;
    socket().close(ignored);
}

void Channel::heartbeat() {
    heartbeat_.expires_after(kHeartbeatEvery);
    heartbeat_.async_wait([weak = weak_from_this()](asio::error_code ec) {
        auto const self = weak.lock();
        if (!self || ec || self->closed_) return;
        // A peer that does not take the Closing frame within a tick is not waited for longer.
        if (self->ending_) return self->close();
        if (std::chrono::steady_clock::now() - self->lastHeard_ >= kSilenceLimit) {
            return self->giveUp(self->opened_ ? fmt::format("nothing heard from the peer for {} s", kSilenceLimit.count())
                                              : fmt::format("no TLS handshake within {} s", kSilenceLimit.count()));
        }
        if (self->opened_ && !self->wroteSinceBeat_) {
            q7serdes::Frame beat;
            beat.mutable_heartbeat();
            self->send(beat);
        }
        self->wroteSinceBeat_ = false;
        self->heartbeat();
    });
}

std::string Channel::errorReason(asio::error_code const& ec) const {
    if (ec == asio::error::eof || ec == asio::ssl::error::stream_truncated) return "closed by the peer";
    if (ec.category() != asio::error::get_ssl_category()) return ec.message();
    return fmt::format("{}: {}", heardFrame_ ? "TLS error" : "refused at the TLS handshake", tlsReason(ec));
}

void Channel::read() {
    auto const done = [self = shared_from_this()](asio::error_code ec, std::size_t n) {
        if (self->closed_ || self->ending_) return;
        if (ec) return self->fail(self->errorReason(ec));
        self->lastHeard_ = std::chrono::steady_clock::now();
        self->reader_.append(self->incoming_.data(), n);
        for (;;) {
            switch (self->reader_.next(self->frame_)) {
            case Q7Serdes::FrameReader::Result::needMore:
                return self->read();
            case Q7Serdes::FrameReader::Result::malformed:
                return self->giveUp(self->reader_.error());  // the stream cannot be read on
            case Q7Serdes::FrameReader::Result::frame:
                self->heardFrame_ = true;
                if (self->frame_.has_heartbeat()) break;
                if (self->frame_.has_closing())
                    return self->fail(fmt::format("closed by the peer: {}", self->frame_.closing().reason()));
                self->handlers_.frame(self->frame_);
                if (self->closed_ || self->ending_) return;
                break;
            }
        }
    };
    withStream([&](auto& stream) { stream.async_read_some(asio::buffer(incoming_), done); });
}

void Channel::write() {
    writing_.swap(pending_);
    auto const done = [self = shared_from_this()](asio::error_code ec, std::size_t) {
        self->writing_.clear();
        trim(self->writing_);
        trim(self->pending_);
        if (self->closed_) return;
        if (ec) return self->fail(self->errorReason(ec));
        if (!self->pending_.empty()) self->write();
        else if (self->ending_) return self->close();
        if (self->handlers_.written && !self->ending_) self->handlers_.written();
    };
    withStream([&](auto& stream) { asio::async_write(stream, asio::buffer(writing_), done); });
}

void Channel::giveUp(std::string const& reason) {
    auto const closed = handlers_.closed;
    end(reason);
    if (closed) closed(reason);
}

void Channel::fail(std::string const& reason) {
    if (closed_) return;
    bool const told = ending_;  // an ending channel has told its owner all it will
    close();
    if (handlers_.closed && !told) handlers_.closed(reason);
}

} // namespace Q7Sync
