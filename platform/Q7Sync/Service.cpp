// Q7Sync: the embedded service: subscription statuses and real listening sockets.
#include "Q7Sync/Service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include <fmt/format.h>

namespace Q7Sync {

using Q7Serdes::WexUtils::ListenStatus;
using Q7Serdes::WexUtils::SyncStatus;

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
    Lumo::Ptr<SyncStatus> status(new SyncStatus(remoteUri, localUri));
    status->hasNotificationActiveIs(true);
    subscriptions_.set(status);
    return status;
}

void Service::unsubscribe(Lumo::String const& remoteUri) {
    if (callLog_) record("unsubscribe", remoteUri.str());
    subscriptions_.del(remoteUri);
}

bool Service::syncStatusIs(std::string_view remoteUri, Q7Serdes::WexUtils::SyncStatusEnum status,
                           Lumo::String const& reason) {
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
    std::string const key = endpointKey(hostAddr, port);
    if (auto old = endpoints_.find(key); old != endpoints_.end()) {
        if (old->second.fd >= 0) ::close(old->second.fd);
        endpoints_.erase(old);
    }
    sockaddr_storage addr{};
    socklen_t len = 0;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&addr);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&addr);
    Endpoint ep;
    std::string reason;
    if (inet_pton(AF_INET, hostAddr.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        len = sizeof *v4;
    } else if (inet_pton(AF_INET6, hostAddr.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        len = sizeof *v6;
    } else {
        reason = fmt::format("'{}' is not an IPv4 or IPv6 address", hostAddr);
    }
    if (len) {
        ep.fd = ::socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int one = 1;
        if (ep.fd < 0 || ::setsockopt(ep.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
            ::bind(ep.fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(ep.fd, 16) != 0) {
            reason = std::generic_category().message(errno);  // strerror is not thread-safe
            if (ep.fd >= 0) ::close(ep.fd);
            ep.fd = -1;
        }
    }
    ep.status = Lumo::Ptr<ListenStatus>(new ListenStatus(ep.fd >= 0, Lumo::String(reason)));
    ep.status->hasNotificationActiveIs(true);
    Lumo::Ptr<ListenStatus> status = ep.status;
    endpoints_.emplace(key, std::move(ep));
    if (listenReturnsNoStatus_) return nullptr;
    return status;
}

void Service::close(std::string const& hostAddr, std::uint16_t port) {
    if (callLog_) record("close", fmt::format("{}, {}", hostAddr, port));
    auto it = endpoints_.find(endpointKey(hostAddr, port));
    if (it == endpoints_.end()) return;
    if (it->second.fd >= 0) ::close(it->second.fd);
    endpoints_.erase(it);
}

bool Service::listeningIs(std::string const& hostAddr, std::uint16_t port, bool listening, Lumo::String const& reason) {
    auto it = endpoints_.find(endpointKey(hostAddr, port));
    if (it == endpoints_.end()) return false;
    it->second.status->reasonIs(reason);
    it->second.status->listeningIs(listening);
    return true;
}

std::uint16_t Service::boundPort(std::string const& hostAddr, std::uint16_t port) const {
    auto it = endpoints_.find(endpointKey(hostAddr, port));
    if (it == endpoints_.end() || it->second.fd < 0) return 0;
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    if (::getsockname(it->second.fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return 0;
    if (addr.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
    return ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port);
}

void Service::reset() {
    for (auto& [key, ep] : endpoints_)
        if (ep.fd >= 0) ::close(ep.fd);
    endpoints_.clear();
    subscriptions_.delAll();
    calls_.clear();
    listenReturnsNoStatus_ = false;
    subscribeReturnsNoStatus_ = false;
}

} // namespace Q7Sync
