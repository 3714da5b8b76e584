// Q7Sync: the sync service's operations, and the service embedded in this process.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Lumo/Ptr.h"
#include "Lumo/String.h"
#include "Q7Serdes/Status.h"
#include "Q7Sync/Flags.h"
#include "Wex/Collection.h"

namespace Q7Sync {

namespace WexUtils {
// The status of remoteUri's subscription: never null, and the same entity while subscribed.
Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> subscribe(Lumo::String const& remoteUri, Lumo::String const& localUri,
                                                      SyncRequestFlags flags);
void unsubscribe(Lumo::String const& remoteUri);
// Opens a listening endpoint; the status tells what the operating system answered.
Lumo::Ptr<Q7Serdes::WexUtils::ListenStatus> listen(std::string const& hostAddr, std::uint16_t port);
void close(std::string const& hostAddr, std::uint16_t port);
} // namespace WexUtils

class Endpoint;
class Peer;
class Publication;
class Tls;

// An agent's identity for mutual TLS: files in PEM form.
struct Credentials {
    std::string certificate;  // this agent's certificate (or chain), signed by the authority
    std::string privateKey;   // its key
    std::string authority;    // the authority whose certificates peers must present
};

// The service as it runs inside this process, on the framework's event loop (Wex::eventLoop).
//  - Serving: each listening endpoint accepts peers and serves them the paths published here,
//    and nothing else.
//  - Subscribing: a remote URI "<address>:<port>/<path>" is mirrored into the attribute that
//    its local URI names. Subscriptions to one remote agent share one connection, made from
//    the loop and closed with the agent's last subscription.
// Its owner (a test, the host program) can also record the calls made to it, change a status
// as a remote peer would, and make listen or subscribe answer with no status.
class Service {
public:
    struct Call {
        std::string operation;  // "subscribe", "unsubscribe", "listen", "close"
        std::string arguments;  // the arguments in call order, joined by ", "
        friend bool operator==(Call const&, Call const&) = default;
    };

    static Service& instance();

    Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> subscribe(Lumo::String const& remoteUri, Lumo::String const& localUri,
                                                         WexUtils::SyncRequestFlags flags);
    void unsubscribe(Lumo::String const& remoteUri);
    Lumo::Ptr<Q7Serdes::WexUtils::ListenStatus> listen(std::string const& hostAddr, std::uint16_t port);
    void close(std::string const& hostAddr, std::uint16_t port);

    // Serves the attribute at `path` ("/dir/.../entity/attribute") to the peers that subscribe
    // it: a snapshot, then each change. Refused with Wex::RangeException (naming "path") when
    // nothing is there. Publishing a path again changes nothing.
    void publish(std::string_view path);
    // Stops serving `path`; its subscribers are told it is refused from now on.
    void unpublish(std::string_view path);
    std::vector<std::string> publishedPaths() const;

    // Write-sync data is accepted below this directory only, as "<root>/<key>/<attribute>".
    static constexpr std::string_view kWriteSyncRoot = "/q7/writeSync";

    // From now on every connection, made or accepted, is mutual TLS with these credentials: a
    // peer without a certificate from the authority is refused at the handshake. A file that
    // cannot be used is a std::runtime_error with the reason, and changes nothing. Connections
    // already open stay as they are.
    void credentialsIs(Credentials const& credentials);
    bool secured() const noexcept { return tls_ != nullptr; }

    // The service's state for a person: each endpoint with its connections (what is queued for
    // each: bytes, and entries waiting per stream) and the last connections it closed and why;
    // each remote agent with its connection and streams.
    std::string dump() const;

    // The owner's controls.
    void callLogIs(bool on, std::size_t capacity = 4096);
    std::vector<Call> calls() const { return {calls_.begin(), calls_.end()}; }
    void callsDelAll() { calls_.clear(); }
    void listenReturnsNoStatusIs(bool none) { listenReturnsNoStatus_ = none; }
    // Subscribe then answers null and keeps no subscription: a broken promise, for its callers to refuse.
    void subscribeReturnsNoStatusIs(bool none) { subscribeReturnsNoStatus_ = none; }
    // A change of a subscription's status as a remote peer would cause it; false when
    // remoteUri is not subscribed.
    bool syncStatusIs(std::string_view remoteUri, Q7Serdes::WexUtils::SyncStatusEnum status, Lumo::String const& reason);

    // A change of an endpoint's listening state as the system would cause it; false when no
    // such endpoint is open.
    bool listeningIs(std::string const& hostAddr, std::uint16_t port, bool listening, Lumo::String const& reason);

    Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> syncStatus(std::string_view remoteUri) const;
    std::size_t subscriptions() const noexcept { return subscriptions_.size(); }
    std::vector<std::string> subscribedUris() const;
    // Remote agents with subscriptions, each with its one connection (made or being made).
    std::size_t peers() const noexcept { return peers_.size(); }
    std::size_t endpoints() const noexcept { return endpoints_.size(); }
    // The port the operating system bound (useful after listening on port 0), or 0.
    std::uint16_t boundPort(std::string const& hostAddr, std::uint16_t port) const;
    // Closes every endpoint and connection and forgets every subscription and publication
    // (for a fresh start in tests).
    void reset();

private:
    Service();
    ~Service();
    void record(char const* operation, std::string arguments);
    // Hands the subscriptions made since the loop last ran to their peers.
    void attach();
    static std::string endpointKey(std::string const& hostAddr, std::uint16_t port);

    // The statuses keyed by their own uri: one open-addressing table, no node per subscription.
    Wex::Collection<Lumo::String, Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus>,
                    Wex::MemberKey<&Q7Serdes::WexUtils::SyncStatus::uri>>
        subscriptions_{"subscriptions", 0};
    Wex::Collection<Lumo::String, Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus>,
                    Wex::MemberKey<&Q7Serdes::WexUtils::SyncStatus::uri>>
        unattached_{"unattached", 0};
    bool attachPosted_ = false;
    // Remote agents by "<address>:<port>".
    std::map<std::string, std::shared_ptr<Peer>, std::less<>> peers_;
    std::map<std::string, std::shared_ptr<Endpoint>, std::less<>> endpoints_;
    std::map<std::string, std::unique_ptr<Publication>, std::less<>> publications_;
    std::shared_ptr<Tls> tls_;
    std::deque<Call> calls_;
    bool callLog_ = false;
    std::size_t callCapacity_ = 4096;
    bool listenReturnsNoStatus_ = false;
    bool subscribeReturnsNoStatus_ = false;
};

} // namespace Q7Sync
