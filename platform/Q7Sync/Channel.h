// Q7Sync::Channel: one connection carrying sync frames, either side of it, in the clear or in TLS.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <asio/ip/tcp.hpp>
#include <asio/ssl/stream.hpp>
#include <asio/steady_timer.hpp>

#include "Q7Serdes/Framing.h"

namespace Q7Sync {

class Tls;

// Reads frames as they arrive and hands each to `frame`; writes what it is given in order,
// gathering whatever queued up while the previous write was under way into one write. With TLS,
// the handshake comes first, and a peer without a certificate of the authority is refused there.
//
// Heartbeats: a channel with nothing else to send sends a Heartbeat every kHeartbeatEvery, and
// one that hears nothing from its peer for kSilenceLimit (a peer that hangs without closing)
// closes. The first failure (end of stream, a socket or TLS error, a malformed frame, silence,
// the peer's Closing) closes the channel and is told once to `closed` with a reason a person
// can read. Nothing is told after close().
class Channel : public std::enable_shared_from_this<Channel> {
public:
    static constexpr std::chrono::seconds kHeartbeatEvery{1};
    static constexpr std::chrono::seconds kSilenceLimit{3};
    // Writes are held back from a peer that does not read once this much is queued for it: its
    // owner keeps what is left to say in a form that does not grow with the changes (a Feed).
    static constexpr std::size_t kWriteWindow = std::size_t{256} << 10;

    enum class Role : bool { connecting, accepting };
    struct Handlers {
        std::function<void()> open;                           // the handshake is done: frames may go
        std::function<void(q7serdes::Frame const&)> frame;    // a frame other than Heartbeat or Closing
        std::function<void()> written;                        // a write completed: room in the window
        std::function<void(std::string const& reason)> closed;
    };

    // `tls` null: in the clear. `maxFrameBytes`: the largest frame accepted from the peer.
    Channel(asio::ip::tcp::socket socket, Role role, std::shared_ptr<Tls> tls, std::size_t maxFrameBytes);
    ~Channel();
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;

    // Starts the handshake (if any), the reads and the heartbeats; the handlers are called from
    // the event loop.
    void start(Handlers handlers);
    void send(q7serdes::Frame const& frame);
    // Tells the peer why in a Closing frame, stops reading and closes once that is written.
    // Nothing more is told to the handlers.
    void end(std::string const& reason);
    // Closes at once; nothing more is told to the handlers.
    void close() noexcept;
    // Its owner goes: a channel that is ending still tells its peer why, alone, for at most a
    // heartbeat's time; any other closes at once. Nothing more is told to the handlers.
    void release() noexcept;

    bool open() const noexcept { return !closed_; }
    bool secured() const noexcept { return tls_.has_value(); }
    // Bytes queued for the peer and not yet written; whether more should wait for a write.
    std::size_t queuedBytes() const noexcept { return pending_.size() + writing_.size(); }
    bool windowFull() const noexcept { return queuedBytes() >= kWriteWindow; }
    std::string const& peerName() const noexcept { return peerName_; }

private:
    asio::ip::tcp::socket& socket() noexcept { return tls_ ? tls_->next_layer() : socket_; }
    template <class F>
    void withStream(F&& f) {
        if (tls_) f(*tls_);
        else f(socket_);
    }
    void handshake();
    void refuseCleartext();
    void opened();
    void read();
    void write();
    void heartbeat();
    // This side gives up on the connection: the peer is told why, then the owner.
    void giveUp(std::string const& reason);
    // The connection failed under us: the owner is told why.
    void fail(std::string const& reason);
    std::string errorReason(asio::error_code const& ec) const;

    asio::ip::tcp::socket socket_;
    std::optional<asio::ssl::stream<asio::ip::tcp::socket>> tls_;
    Role role_;
    std::string peerName_;
    Q7Serdes::FrameReader reader_;
    std::array<char, 65536> incoming_;
    std::string pending_;
    std::string writing_;
    q7serdes::Frame frame_;
    Handlers handlers_;
    asio::steady_timer heartbeat_;
    std::chrono::steady_clock::time_point lastHeard_;
    bool wroteSinceBeat_ = false;
    bool opened_ = false;
    bool heardFrame_ = false;
    bool closed_ = false;
    bool ending_ = false;
};

} // namespace Q7Sync
