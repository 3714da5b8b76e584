// Q7Sync serving side: listening endpoints, the peers they accept, and the paths published.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <asio/ip/tcp.hpp>

#include "Lumo/Ptr.h"
#include "Q7Serdes/Status.h"
#include "Q7Serdes/Sync.pb.h"
#include "Wex/Path.h"

namespace Q7Sync {

class Channel;
class ServerSession;

// A published path: the attribute it names, watched through reflection, and the streams of
// the peers that subscribed it. Each stream gets the snapshot, InSync, then every change.
class Publication {
public:
    Publication(std::string path, Wex::AttributeAt at);
    ~Publication();
    Publication(Publication const&) = delete;
    Publication& operator=(Publication const&) = delete;

    std::string const& path() const noexcept { return path_; }
    void streamIs(ServerSession& session, std::uint32_t stream);
    void streamDel(ServerSession& session, std::uint32_t stream);

private:
    void changed(Wex::Value const& key);
    void sendToAll(q7serdes::Frame& frame);
    q7serdes::Entry entryOf(Wex::Value const& key, Wex::Value const& value) const;

    std::string path_;
    Wex::AttributeAt at_;
    std::unique_ptr<Wex::WexAttr::Watch> watch_;
    std::string plainValue_;  // what was last served of a plain attribute
    std::set<std::pair<ServerSession*, std::uint32_t>> streams_;
};

// One accepted peer: its channel, and the publications it subscribed by stream id.
class ServerSession {
public:
    using PublicationOf = std::function<Publication*(std::string const& path)>;
    using Gone = std::function<void(ServerSession*)>;

    ServerSession(asio::ip::tcp::socket socket, PublicationOf publicationOf, Gone gone);
    ~ServerSession();
    ServerSession(ServerSession const&) = delete;
    ServerSession& operator=(ServerSession const&) = delete;

    void start();
    void send(q7serdes::Frame const& frame);
    // The publication behind `stream` went: the peer is told it is refused.
    void streamRefused(std::uint32_t stream, std::string const& reason);
    std::size_t queuedBytes() const noexcept;

private:
    void onFrame(q7serdes::Frame const& frame);

    std::shared_ptr<Channel> channel_;
    PublicationOf publicationOf_;
    Gone gone_;
    std::map<std::uint32_t, Publication*> streams_;
};

// A listening endpoint and the sessions it accepted; closing it ends them.
class Endpoint : public std::enable_shared_from_this<Endpoint> {
public:
    Endpoint(asio::io_context& loop, std::string const& hostAddr, std::uint16_t port,
             ServerSession::PublicationOf publicationOf);
    ~Endpoint();

    void start();
    Lumo::Ptr<Q7Serdes::WexUtils::ListenStatus> const& status() const noexcept { return status_; }
    std::uint16_t boundPort() const;
    std::size_t sessions() const noexcept { return sessions_.size(); }

private:
    void accept();

    asio::ip::tcp::acceptor acceptor_;
    Lumo::Ptr<Q7Serdes::WexUtils::ListenStatus> status_;
    ServerSession::PublicationOf publicationOf_;
    std::map<ServerSession*, std::unique_ptr<ServerSession>> sessions_;
};

} // namespace Q7Sync
