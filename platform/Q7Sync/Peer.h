// Q7Sync::Peer: the one connection to a remote agent, and the subscriptions that share it.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include "Lumo/Ptr.h"
#include "Q7Serdes/Status.h"
#include "Q7Serdes/Sync.pb.h"
#include "Q7Sync/Backoff.h"

namespace Q7Sync {

class Channel;

// Connects from the event loop, never inside a call to it, and keeps trying with backoff while
// it has subscriptions. On each connection it asks for every path it holds and applies what
// arrives, through reflection, to the attribute that each subscription's local URI names. The
// statuses say where each subscription stands:
//   notConnected  no attempt yet (the loop has not run since the subscription was made)
//   connecting    trying, or lost: the reason has the system's answer and when the next try is
//   syncing       connected: the snapshot is arriving
//   inSync        the snapshot is complete (entries it did not name are deleted); changes stream
//   failed        the remote refused the path, or its data could not be applied: the reason says
//                 why, and when the path is asked for again (it may be published later)
class Peer : public std::enable_shared_from_this<Peer> {
public:
    static constexpr std::chrono::seconds kConnectTimeout{5};

    Peer(asio::io_context& loop, std::string key, asio::ip::tcp::endpoint remote);
    ~Peer();
    Peer(Peer const&) = delete;
    Peer& operator=(Peer const&) = delete;

    // Adds the subscription of `status` (its uri names this peer) for `path` at the peer.
    void subscriptionIs(Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> const& status, std::string path);
    void subscriptionDel(Lumo::String const& uri);
    bool empty() const noexcept { return streams_.empty(); }
    bool connected() const noexcept { return channel_ != nullptr; }
    // Closes the connection and stops trying.
    void stop() noexcept;

private:
    struct Stream {
        Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> status;
        std::string path;
        bool snapshotting = false;
        bool failed = false;
        std::unordered_set<std::string> seen;  // keys the snapshot named
    };

    void schedule(std::chrono::milliseconds after);
    void connect();
    void connected();
    void lost(std::string const& why);
    void request(std::uint32_t id, Stream& stream);
    void failedIs(std::uint32_t id, std::string const& why);
    void onFrame(q7serdes::Frame const& frame);
    void apply(std::uint32_t id, q7serdes::Frame const& frame);
    static void statusIs(Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> const held, Q7Serdes::WexUtils::SyncStatusEnum status,
                         std::string const& reason);
    Stream* streamOf(std::uint32_t id);
    // The streams' ids as they are now: watchers told of a status may end any of them.
    std::vector<std::uint32_t> ids() const;

    std::string key_;
    asio::ip::tcp::endpoint remote_;
    asio::steady_timer timer_;
    asio::steady_timer askAgain_;
    Backoff askAgainBackoff_;
    Backoff::Duration askAgainWait_{0};
    bool askAgainPending_ = false;
    asio::ip::tcp::socket socket_;
    std::shared_ptr<Channel> channel_;
    Backoff backoff_;
    bool connecting_ = false;
    bool stopped_ = false;
    std::uint32_t nextId_ = 1;
    std::map<std::uint32_t, Stream> streams_;
};

} // namespace Q7Sync
