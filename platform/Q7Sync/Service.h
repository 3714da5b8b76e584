// Q7Sync: the sync service's operations, and the service embedded in this process.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
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

// The service as it runs inside this process: subscriptions by remote URI, and real TCP
// listening sockets. Its owner (a test, the host program) can record the calls made to it,
// change a status as a remote peer would, and make listen or subscribe answer with no status.
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

    // The owner's controls.
    void callLogIs(bool on, std::size_t capacity = 4096);
    std::vector<Call> calls() const { return {calls_.begin(), calls_.end()}; }
    void callsDelAll() { calls_.clear(); }
    void listenReturnsNoStatusIs(bool none) { listenReturnsNoStatus_ = none; }
    // Subscribe then answers null and keeps no subscription: a broken promise, for its callers to refuse.
    void subscribeReturnsNoStatusIs(bool none) { subscribeReturnsNoStatus_ = none; }
    // A remote peer's change of a subscription's status; false when remoteUri is not subscribed.
    bool syncStatusIs(std::string_view remoteUri, Q7Serdes::WexUtils::SyncStatusEnum status, Lumo::String const& reason);
    // A change of an endpoint's listening state; false when no such endpoint is open.
    bool listeningIs(std::string const& hostAddr, std::uint16_t port, bool listening, Lumo::String const& reason);

    Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> syncStatus(std::string_view remoteUri) const;
    std::size_t subscriptions() const noexcept { return subscriptions_.size(); }
    std::vector<std::string> subscribedUris() const;
    std::size_t endpoints() const noexcept { return endpoints_.size(); }
    // The port the operating system bound (useful after listening on port 0), or 0.
    std::uint16_t boundPort(std::string const& hostAddr, std::uint16_t port) const;
    // Closes every endpoint and forgets every subscription (for a fresh start in tests).
    void reset();

private:
    struct Endpoint {
        int fd = -1;
        Lumo::Ptr<Q7Serdes::WexUtils::ListenStatus> status;
    };
    Service() = default;
    ~Service();
    void record(char const* operation, std::string arguments);
    static std::string endpointKey(std::string const& hostAddr, std::uint16_t port);

    // The statuses keyed by their own uri: one open-addressing table, no node per subscription.
    Wex::Collection<Lumo::String, Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus>,
                    Wex::MemberKey<&Q7Serdes::WexUtils::SyncStatus::uri>>
        subscriptions_{"subscriptions", 0};
    std::unordered_map<std::string, Endpoint> endpoints_;
    std::deque<Call> calls_;
    bool callLog_ = false;
    std::size_t callCapacity_ = 4096;
    bool listenReturnsNoStatus_ = false;
    bool subscribeReturnsNoStatus_ = false;
};

} // namespace Q7Sync
