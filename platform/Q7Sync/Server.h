// Q7Sync serving side: listening endpoints and the connections they accept.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <asio/ip/tcp.hpp>

#include "Lumo/Ptr.h"
#include "Q7Serdes/Status.h"
#include "Q7Serdes/Sync.pb.h"

namespace Q7Sync {

class Channel;
class Feed;
class Mirror;
class Publication;
class Tls;

// One accepted connection: the published paths it streams to the peer (a Feed each), and the
// write-sync streams it receives into the write-sync directory (a Mirror each). Anything a peer
// sends that a subscriber or a writer would not (a malformed frame, a frame of the wrong side,
// too many streams) closes this connection with the reason, and nothing else.
class ServerSession {
public:
    using PublicationOf = std::function<Publication*(std::string const& path)>;
    using Gone = std::function<void(ServerSession*, std::string const& reason)>;
    static constexpr std::size_t kMaxStreams = 1024;
    // Keys that writers may make in the write-sync directory, all writers together.
    static constexpr std::size_t kMaxWriteSyncKeys = 4096;

    ServerSession(asio::ip::tcp::socket socket, std::shared_ptr<Tls> tls, PublicationOf publicationOf, Gone gone);
    ~ServerSession();
    ServerSession(ServerSession const&) = delete;
    ServerSession& operator=(ServerSession const&) = delete;

    void start();
    // "<address>:<port>" of the peer.
    std::string const& peerName() const noexcept;
    // What the connection holds and has queued, for the service's dump.
    void describe(std::string& out) const;

private:
    void onFrame(q7serdes::Frame const& frame);
    // Whether a new stream may open under `stream`: refused when the id is taken, and the
    // connection ended when it holds too many.
    bool opens(std::uint32_t stream);
    void subscribe(q7serdes::Subscribe const& subscribe);
    void write(q7serdes::Write const& write);
    // Where write-sync data for `path` goes, or a reason to refuse it.
    std::string writeTarget(std::string const& path, std::string const& type) const;
    void received(std::uint32_t stream, q7serdes::Frame const& frame);
    void refuse(std::uint32_t stream, std::string const& reason);
    // Closes the connection with `reason` told to the peer; the endpoint forgets this session.
    void end(std::string const& reason);

    std::shared_ptr<Channel> channel_;
    PublicationOf publicationOf_;
    Gone gone_;
    std::map<std::uint32_t, std::unique_ptr<Feed>> feeds_;
    std::map<std::uint32_t, std::shared_ptr<Mirror>> sinks_;
};

// A listening endpoint and the connections it accepted; closing it ends them.
class Endpoint : public std::enable_shared_from_this<Endpoint> {
public:
    // The last connections closed, with their reasons, kept for the dump.
    static constexpr std::size_t kClosesKept = 8;

    Endpoint(asio::io_context& loop, std::string const& hostAddr, std::uint16_t port, std::shared_ptr<Tls> tls,
             ServerSession::PublicationOf publicationOf);
    ~Endpoint();

    void start();
    Lumo::Ptr<Q7Serdes::WexUtils::ListenStatus> const& status() const noexcept { return status_; }
    std::uint16_t boundPort() const;
    std::size_t sessions() const noexcept { return sessions_.size(); }
    void describe(std::string& out) const;

private:
    void accept();

    asio::ip::tcp::acceptor acceptor_;
    std::shared_ptr<Tls> tls_;
    Lumo::Ptr<Q7Serdes::WexUtils::ListenStatus> status_;
    ServerSession::PublicationOf publicationOf_;
    std::map<ServerSession*, std::unique_ptr<ServerSession>> sessions_;
    std::deque<std::string> closes_;
};

} // namespace Q7Sync
