// Q7Sync::Peer: the one connection to a remote agent, and the subscriptions that share it.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include "Lumo/Ptr.h"
#include "Q7Serdes/Status.h"
#include "Q7Serdes/Sync.pb.h"
#include "Q7Sync/Backoff.h"

namespace Q7Sync {

class Channel;
class Feed;
class Mirror;
class Publication;
class Tls;

// Connects from the event loop, never inside a call to it, and keeps trying with backoff while
// it has subscriptions. On each connection it asks for every path it holds: a subscription is
// mirrored, through reflection, into the attribute that its local URI names; a write-sync
// pushes that attribute to the peer's path instead. The statuses say where each stands:
//   notConnected  no attempt yet (the loop has not run since the subscription was made)
//   connecting    trying, or lost (refused, closed, silent, or refused at the TLS handshake):
//                 the reason has the system's or the peer's answer and when the next try is
//   syncing       connected: the snapshot is arriving, or what changed since the point the
//                 mirror holds (a resume); a write-sync: its state is being pushed
//   inSync        the state is complete (entries a snapshot did not name are deleted) and
//                 changes stream; a write-sync: the peer stored the state
//   failed        the remote refused the path, or its data could not be applied: the reason says
//                 why, and when the path is asked for again (it may be published later)
class Peer : public std::enable_shared_from_this<Peer> {
public:
    static constexpr std::chrono::seconds kConnectTimeout{5};

    Peer(asio::io_context& loop, std::string key, asio::ip::tcp::endpoint remote, std::shared_ptr<Tls> tls);
    ~Peer();
    Peer(Peer const&) = delete;
    Peer& operator=(Peer const&) = delete;

    // Adds the subscription of `status` (its uri names this peer) for `path` at the peer;
    // `write`: a write-sync, which pushes the attribute at the status's local URI to `path`.
    void subscriptionIs(Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> const& status, std::string path, bool write);
    void subscriptionDel(Lumo::String const& uri);
    bool empty() const noexcept { return streams_.empty(); }
    // Closes the connection and stops trying.
    void stop() noexcept;
    // The connection and each stream, for the service's dump.
    void describe(std::string& out) const;

private:
    struct Stream {
        Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> status;
        std::string path;
        bool write = false;
        bool failed = false;
        std::shared_ptr<Mirror> mirror;       // a subscription: where what arrives goes, and its resume point
        std::unique_ptr<Publication> source;  // a write-sync: the local attribute, watched while subscribed
        std::unique_ptr<Feed> feed;           // ... and its stream on the current connection
    };

    void schedule(std::chrono::milliseconds after);
    void connect();
    void connected();
    void opened();
    void lost(std::string const& why);
    void request(std::uint32_t id, Stream& stream);
    void failedIs(std::uint32_t id, std::string const& why);
    void onFrame(q7serdes::Frame const& frame);
    void received(std::uint32_t id, q7serdes::Frame const& frame);
    static void statusIs(Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> const held, Q7Serdes::WexUtils::SyncStatusEnum status,
                         std::string const& reason);
    Stream* streamOf(std::uint32_t id);
    // The streams' ids as they are now: watchers told of a status may end any of them.
    std::vector<std::uint32_t> ids() const;

    std::string key_;
    asio::ip::tcp::endpoint remote_;
    std::shared_ptr<Tls> tls_;
    asio::steady_timer timer_;
    asio::steady_timer askAgain_;
    Backoff askAgainBackoff_;
    Backoff::Duration askAgainWait_{0};
    bool askAgainPending_ = false;
    asio::ip::tcp::socket socket_;
    std::shared_ptr<Channel> channel_;
    bool open_ = false;  // the channel's handshake is done
    Backoff backoff_;
    bool connecting_ = false;
    bool stopped_ = false;
    std::uint32_t nextId_ = 1;
    std::map<std::uint32_t, Stream> streams_;
};

} // namespace Q7Sync
