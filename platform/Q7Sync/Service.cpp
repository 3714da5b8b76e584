// Q7Sync: the embedded service: subscriptions, their peers, endpoints and published paths.
#include "Q7Sync/Service.h"

#include <charconv>

#include <asio/post.hpp>
#include <fmt/format.h>

#include "Q7Sync/Peer.h"
#include "Q7Sync/Publication.h"
#include "Q7Sync/Server.h"
#include "Q7Sync/Tls.h"
#include "Wex/EventLoop.h"
#include "Wex/Exception.h"

namespace Q7Sync {

using Q7Serdes::WexUtils::ListenStatus;
using Q7Serdes::WexUtils::SyncStatus;
using Q7Serdes::WexUtils::SyncStatusEnum;

namespace WexUtils {
Lumo::Ptr<SyncStatus> subscribe(Lumo::String const& remoteUri, Lumo::String const& localUri, SyncRequestFlags flags) {
    return Service::instance().subscribe(remoteUri, localUri, flags);
}
void unsubscribe(Lumo::String const& remoteUri) { Service::instance().unsubscribe(remoteUri); }
Lumo::Ptr<ListenStatus> listen(std::string const& hostAddr, std::uint16_t port) {
    return Service::instance().listen(hostAddr, port);
}
void close(std::string const& hostAddr, std::uint16_t port) { Service::instance().close(hostAddr, port); }
} // namespace WexUtils

Service& Service::instance() {
    static Service* service = new Service();  // never destroyed: statuses may outlive static destruction
    return *service;
}

Service::Service() = default;
Service::~Service() { reset(); }

void Service::record(char const* operation, std::string arguments) {
    if (!callLog_) return;
    if (calls_.size() >= callCapacity_) calls_.pop_front();
    calls_.push_back(Call{operation, std::move(arguments)});
}

void Service::callLogIs(bool on, std::size_t capacity) {
    callLog_ = on;
    callCapacity_ = capacity ? capacity : 1;
    while (calls_.size() > callCapacity_) calls_.pop_front();
}

Lumo::Ptr<SyncStatus> Service::subscribe(Lumo::String const& remoteUri, Lumo::String const& localUri,
                                         WexUtils::SyncRequestFlags flags) {
    if (callLog_) record("subscribe", fmt::format("{}, {}, {}", remoteUri, localUri, flags));
    if (subscribeReturnsNoStatus_) return nullptr;
    if (Lumo::Ptr<SyncStatus> const* held = subscriptions_.find(remoteUri)) return *held;
    Lumo::Ptr<SyncStatus> status(new SyncStatus(remoteUri, localUri, std::uint8_t(flags)));
    status->hasNotificationActiveIs(true);
    subscriptions_.set(status);
    // The connection is the loop's business: nothing is tried before it runs, and a
    // subscription ended before then never touches the network.
    unattached_.set(status);
    if (!attachPosted_) {
        attachPosted_ = true;
        asio::post(Wex::eventLoop(), [this] { attach(); });
    }
    return status;
}

void Service::attach() {
    attachPosted_ = false;
    std::vector<Lumo::Ptr<SyncStatus>> waiting(unattached_.begin(), unattached_.end());
    unattached_.delAll();
    for (auto const& status : waiting) {
        // Ended meanwhile, by an earlier one's watchers say.
        if (subscriptions_.get(status->uri()) != status) continue;
        std::string_view const uri = status->uri().view();
        std::string_view const peer = status->peer().view();
        std::string_view const path = uri.substr(peer.size());
        auto it = peers_.find(peer);
        if (it == peers_.end()) {
            std::size_t const colon = peer.rfind(':');
            asio::error_code ec;
            asio::ip::address const address = asio::ip::make_address(std::string(peer.substr(0, colon)), ec);
            std::string_view const portText = colon == std::string_view::npos ? "" : peer.substr(colon + 1);
            std::uint16_t port = 0;
            auto const [end, error] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
            bool const portRead = !portText.empty() && error == std::errc() && end == portText.data() + portText.size();
            if (ec || !portRead || path.empty()) {
                status->reasonIs(Lumo::String(fmt::format("'{}' is not <address>:<port>/<path>", uri)));
                status->statusIs(SyncStatusEnum::failed);
                continue;
            }
            auto made = std::make_shared<Peer>(Wex::eventLoop(), std::string(peer),
                                               asio::ip::tcp::endpoint(address, port), tls_);
            it = peers_.emplace(std::string(peer), std::move(made)).first;
        }
        // Kept alive here: the status watchers it tells may end its last subscription.
        std::shared_ptr<Peer> const held = it->second;
        bool const write = WexUtils::has(WexUtils::SyncRequestFlags(status->requestFlags()), WexUtils::WRITE());
        held->subscriptionIs(status, std::string(path), write);
    }
}

void Service::unsubscribe(Lumo::String const& remoteUri) {
    if (callLog_) record("unsubscribe", remoteUri.str());
    Lumo::Ptr<SyncStatus> const status = subscriptions_.del(remoteUri);
    if (!status) return;
    unattached_.del(remoteUri);
    auto it = peers_.find(status->peer().view());
    if (it == peers_.end()) return;
    std::shared_ptr<Peer> const peer = it->second;
    peer->subscriptionDel(remoteUri);
    if (peer->empty()) {
        peer->stop();
        peers_.erase(it);
    }
}

bool Service::syncStatusIs(std::string_view remoteUri, SyncStatusEnum status, Lumo::String const& reason) {
    Lumo::Ptr<SyncStatus> s = syncStatus(remoteUri);
    if (!s) return false;
    // The reason first: watchers of the status read it when the status changes.
    s->reasonIs(reason);
    s->statusIs(status);
    return true;
}

Lumo::Ptr<SyncStatus> Service::syncStatus(std::string_view remoteUri) const {
    return subscriptions_.get(Lumo::String(remoteUri));
}

std::vector<std::string> Service::subscribedUris() const {
    std::vector<std::string> out;
    for (auto const& status : subscriptions_) out.push_back(status->uri().str());
    return out;
}

std::string Service::endpointKey(std::string const& hostAddr, std::uint16_t port) {
    return fmt::format("{}#{}", hostAddr, port);
}

Lumo::Ptr<ListenStatus> Service::listen(std::string const& hostAddr, std::uint16_t port) {
    if (callLog_) record("listen", fmt::format("{}, {}", hostAddr, port));
    std::string key = endpointKey(hostAddr, port);
    endpoints_.erase(key);
    auto endpoint = std::make_shared<Endpoint>(Wex::eventLoop(), hostAddr, port, tls_,
                                               [this](std::string const& path) -> Publication* {
                                                   auto it = publications_.find(path);
                                                   return it == publications_.end() ? nullptr : it->second.get();
                                               });
    endpoint->start();
    Lumo::Ptr<ListenStatus> status = endpoint->status();
    endpoints_.emplace(std::move(key), std::move(endpoint));
    if (listenReturnsNoStatus_) return nullptr;
    return status;
}

void Service::close(std::string const& hostAddr, std::uint16_t port) {
    if (callLog_) record("close", fmt::format("{}, {}", hostAddr, port));
    endpoints_.erase(endpointKey(hostAddr, port));
}

bool Service::listeningIs(std::string const& hostAddr, std::uint16_t port, bool listening, Lumo::String const& reason) {
    auto it = endpoints_.find(endpointKey(hostAddr, port));
    if (it == endpoints_.end()) return false;
    it->second->status()->reasonIs(reason);
    it->second->status()->listeningIs(listening);
    return true;
}

std::uint16_t Service::boundPort(std::string const& hostAddr, std::uint16_t port) const {
    auto it = endpoints_.find(endpointKey(hostAddr, port));
    return it == endpoints_.end() ? 0 : it->second->boundPort();
}

void Service::publish(std::string_view path) {
    if (publications_.count(path)) return;
    Wex::AttributeAt at = Wex::attributeAt(path);
    if (!at) throw Wex::RangeException("path", fmt::format("nothing to publish at {}", path));
    if (!at.attr->readable()) throw Wex::RangeException("path", fmt::format("{} cannot be read", path));
    std::string key(path);
    auto publication = std::make_unique<Publication>(key, std::move(at));
    publications_.emplace(std::move(key), std::move(publication));
}

void Service::unpublish(std::string_view path) {
    if (auto it = publications_.find(path); it != publications_.end()) publications_.erase(it);
}

std::vector<std::string> Service::publishedPaths() const {
    std::vector<std::string> out;
    for (auto const& [path, publication] : publications_) out.push_back(path);
    return out;
}

void Service::credentialsIs(Credentials const& credentials) { tls_ = std::make_shared<Tls>(credentials); }

std::string Service::dump() const {
    std::string out = fmt::format("sync service{}\n", tls_ ? ", mutual TLS required" : ", in the clear (no credentials)");
    out += fmt::format("published: {}\n", publications_.empty() ? "nothing" : fmt::format("{}", fmt::join(publishedPaths(), ", ")));
    for (auto const& [key, endpoint] : endpoints_) {
        out += fmt::format("  endpoint {}: {}\n", key.substr(0, key.rfind('#')),
                           endpoint->status()->listening() ? fmt::format("listening on port {}", endpoint->boundPort())
                                                           : fmt::format("not listening ({})", endpoint->status()->reason()));
        endpoint->describe(out);
    }
    for (auto const& [key, peer] : peers_) peer->describe(out);
    return out;
}

void Service::reset() {
    tls_.reset();
    endpoints_.clear();
    publications_.clear();
    for (auto& [key, peer] : peers_) peer->stop();
    peers_.clear();
    unattached_.delAll();
    subscriptions_.delAll();
    calls_.clear();
    listenReturnsNoStatus_ = false;
    subscribeReturnsNoStatus_ = false;
}

} // namespace Q7Sync
