// Q7Sync::Channel: one TCP connection carrying sync frames, either side of it.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>

#include <asio/ip/tcp.hpp>

#include "Q7Serdes/Framing.h"

namespace Q7Sync {

// Reads frames as they arrive and hands each to `onFrame`; writes what it is given in order,
// gathering whatever queued up while the previous write was under way into one write. The
// first failure (end of stream, a socket error, a malformed frame) closes the channel and is
// told once to `onClosed` with a reason a person can read. Nothing is told after close().
class Channel : public std::enable_shared_from_this<Channel> {
public:
    using FrameHandler = std::function<void(q7serdes::Frame const&)>;
    using CloseHandler = std::function<void(std::string const& reason)>;

    explicit Channel(asio::ip::tcp::socket socket);
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;

    // Starts reading; the handlers are called from the event loop.
    void start(FrameHandler onFrame, CloseHandler onClosed);
    void send(q7serdes::Frame const& frame);
    // Closes the socket; nothing more is told to either handler.
    void close() noexcept;

    bool open() const noexcept { return !closed_; }
    // Bytes queued for the peer and not yet written.
    std::size_t queuedBytes() const noexcept { return pending_.size() + writing_.size(); }
    asio::ip::tcp::endpoint remote() const;

private:
    void read();
    void write();
    void fail(std::string const& reason);

    asio::ip::tcp::socket socket_;
    Q7Serdes::FrameReader reader_;
    std::array<char, 65536> incoming_;
    std::string pending_;
    std::string writing_;
    q7serdes::Frame frame_;
    FrameHandler onFrame_;
    CloseHandler onClosed_;
    bool closed_ = false;
};

} // namespace Q7Sync
