// PathSubscribeConfig: derivation, comparison, hashing, text form; and the request types.
#include "KelLib/Q7SyncSubscribeRequest.h"

#include <charconv>
#include <iterator>
#include <ostream>
#include <utility>

#include <fmt/format.h>

#include "KelLib/Q7SyncContainer.h"
#include "Lumo/SmallBlocks.h"
#include "Oru/WeakRef.h"
#include "Wex/Hash.h"

namespace Kel::Q7Sync {

namespace {
constexpr char kTypeName[] = "Kel::Q7Sync::PathSubscribeConfig";
constexpr char kSyncAttribute[] = "syncAttribute";

// The agent key "<address>:<port>": the address text, a colon and up to ten digits of port.
constexpr std::size_t kAgentKeyMaxLength = Kivu::IpGenAddr::kMaxTextLength + 1 + 10;
} // namespace

void* PathSubscribeConfig::Fields::operator new(std::size_t size) { return Lumo::smallBlockNew(size); }
void PathSubscribeConfig::Fields::operator delete(void* p, std::size_t size) noexcept { Lumo::smallBlockDelete(p, size); }

PathSubscribeConfig::Fields const& PathSubscribeConfig::defaultFields() noexcept {
    static Fields const value = [] {
        Fields f;
        f.hash0 = computeHash(f, 0);
        return f;
    }();
    return value;
}

void PathSubscribeConfig::destroy(Fields* fields) noexcept { delete fields; }

PathSubscribeConfig PathSubscribeConfig::made(std::unique_ptr<Fields> fields) {
    fields->hash0 = computeHash(*fields, 0);
    return PathSubscribeConfig(fields.release());
}

PathSubscribeConfig::PathSubscribeConfig(Kivu::IpGenAddr const& remoteAddr, std::uint32_t remotePort,
                                         Lumo::String remotePath, Lumo::String syncContainerKey,
                                         Wex::WexType const* syncContainerType, SyncRequestFlags flags) {
    auto f = std::make_unique<Fields>();
    f->remoteAddr = remoteAddr;
    f->remotePort = remotePort;
    f->remotePath = std::move(remotePath);
    f->syncContainerKey = std::move(syncContainerKey);
    f->syncContainerType = syncContainerType;
    f->flags = flags;
    handleInitialized(*f);
    *this = made(std::move(f));
}

void PathSubscribeConfig::handleInitialized(Fields& f) {
    if (f.remoteAddr.isUnspecified()) return;
    Wex::WexType const* base = Wex::wexTypeOf<SyncContainer>();
    if (!f.syncContainerType || !base || !f.syncContainerType->isDerived(base))
        throw Wex::NewEntityArgsException(kTypeName, "syncContainerType",
                                          fmt::format("must be Kel::Q7Sync::SyncContainer or derived from it, not {}",
                                                      f.syncContainerType ? f.syncContainerType->name() : "no type"));
    // Made by hand on the stack: this runs for every dedup, hits included, and the generic
    // formatters (and inet_ntop's sprintf for IPv4) cost more than the rest of a hit.
    char agentKey[kAgentKeyMaxLength];
    char* w = f.remoteAddr.writeText(agentKey);
    *w++ = ':';
    w = std::to_chars(w, std::end(agentKey), f.remotePort).ptr;
    f.remoteAgentKey = Lumo::String(std::string_view(agentKey, std::size_t(w - agentKey)));
    std::string_view const key = f.remoteAgentKey.view();
    f.localUri = Lumo::String::concat({"/q7/remote/", key, "/", f.syncContainerKey.view(), "/", kSyncAttribute});
    f.remoteUri = Lumo::String::concat({key, f.remotePath.startsWith("/") ? "" : "/", f.remotePath.view()});
}

PathSubscribeConfig PathSubscribeConfig::createWithContainerTypeString(Kivu::IpGenAddr const& remoteAddr,
                                                                       std::uint32_t remotePort,
                                                                       Lumo::String remotePath,
                                                                       Lumo::String syncContainerKey,
                                                                       std::string_view syncContainerTypeName,
                                                                       SyncRequestFlags flags) {
    Wex::WexType const* type = Wex::typeNode(syncContainerTypeName);
    if (!type)
        throw Wex::NewEntityArgsException(kTypeName, "syncContainerTypeName",
                                          fmt::format("'{}' names no registered type", syncContainerTypeName));
    return PathSubscribeConfig(remoteAddr, remotePort, std::move(remotePath), std::move(syncContainerKey), type, flags);
}

PathSubscribeConfig PathSubscribeConfig::createWriteSyncConfig(Kivu::IpGenAddr const& remoteAddr, Kivu::Port remotePort,
                                                               Lumo::String syncContainerKey,
                                                               Wex::WexType const* syncContainerType,
                                                               SyncRequestFlags flags) {
    if (!::Q7Sync::WexUtils::has(flags, ::Q7Sync::WexUtils::WRITE()))
        throw Wex::NewEntityArgsException(kTypeName, "flags", "must contain WRITE for a write-sync subscription");
    Lumo::String path(fmt::format("/q7/writeSync/{}/{}", syncContainerKey, kSyncAttribute));
    return PathSubscribeConfig(remoteAddr, remotePort.value(), std::move(path), std::move(syncContainerKey),
                               syncContainerType, flags);
}

bool PathSubscribeConfig::sameFields(Fields const& a, Fields const& b) noexcept {
    return a.remotePort == b.remotePort && a.flags == b.flags && a.syncContainerType == b.syncContainerType &&
           Kivu::IpGenAddr::isEq(a.remoteAddr, b.remoteAddr) && a.remotePath == b.remotePath &&
           a.syncContainerKey == b.syncContainerKey && a.remoteAgentKey == b.remoteAgentKey &&
           a.localUri == b.localUri && a.remoteUri == b.remoteUri;
}

bool operator<(PathSubscribeConfig const& x, PathSubscribeConfig const& y) noexcept {
    auto const& a = x.fields();
    auto const& b = y.fields();
    if (!Kivu::IpGenAddr::isEq(a.remoteAddr, b.remoteAddr)) return a.remoteAddr < b.remoteAddr;
    if (a.remotePort != b.remotePort) return a.remotePort < b.remotePort;
    if (auto c = a.remotePath <=> b.remotePath; c != 0) return c < 0;
    if (auto c = a.syncContainerKey <=> b.syncContainerKey; c != 0) return c < 0;
    if (a.syncContainerType != b.syncContainerType) return Wex::typeLess(a.syncContainerType, b.syncContainerType);
    if (a.flags != b.flags) return std::uint8_t(a.flags) < std::uint8_t(b.flags);
    if (auto c = a.remoteAgentKey <=> b.remoteAgentKey; c != 0) return c < 0;
    if (auto c = a.localUri <=> b.localUri; c != 0) return c < 0;
    return (a.remoteUri <=> b.remoteUri) < 0;
}

std::uint32_t PathSubscribeConfig::computeHash(Fields const& f, std::uint32_t seed) noexcept {
    Wex::Hash h(seed);
    h.hashMix(Kivu::Ip6Addr::hash(f.remoteAddr));
    h.hashMix(f.remotePort);
    // The strings by their bytes, not by the hashes they keep: the value's hash is then the
    // framework hash of its content alone, whatever way Lumo::String hashes its own text.
    h.hashMix(f.remotePath.view()).hashMix(f.syncContainerKey.view());
    h.hashMix(reinterpret_cast<std::uint64_t>(f.syncContainerType));
    h.hashMix(std::uint32_t(std::uint8_t(f.flags)));
    h.hashMix(f.remoteAgentKey.view()).hashMix(f.localUri.view()).hashMix(f.remoteUri.view());
    return h.result();
}

PathSubscribeConfig::operator bool() const noexcept { return fields_ && !isEq(*this, PathSubscribeConfig()); }

std::string valueToStrep(PathSubscribeConfig const& c) {
    return fmt::format("Value('{}', ** {{'remoteAddr': {}, 'remotePort': {}, 'remotePath': {}, 'syncContainerKey': {}, "
                       "'flags': {}, 'remoteAgentKey': {}, 'localUri': {}, 'remoteUri': {}}})",
                       kTypeName, Kivu::valueToStrep(c.remoteAddr()), c.remotePort(), Wex::valueToStrep(c.remotePath()),
                       Wex::valueToStrep(c.syncContainerKey()), ::Q7Sync::valueToStrep(c.flags()),
                       Wex::valueToStrep(c.remoteAgentKey()), Wex::valueToStrep(c.localUri()),
                       Wex::valueToStrep(c.remoteUri()));
}

std::ostream& operator<<(std::ostream& os, PathSubscribeConfig const& c) { return os << valueToStrep(c); }

PathSubscribeConfig::PathSubscribeConfig(Wex::CharRange& range) {
    // Parse into a scratch range so that a failure leaves `range` where it was.
    Wex::CharRange r = range;
    auto f = std::make_unique<Fields>();
    r.require("Value('Kel::Q7Sync::PathSubscribeConfig', ** {", kTypeName);
    r.require("'remoteAddr': ", "remoteAddr");
    try {
        f->remoteAddr = Kivu::sequenceToValue(r);
    } catch (Wex::RangeException const& e) {
        throw Wex::RangeException("remoteAddr", e.what());
    }
    r.require(", 'remotePort': ", "remotePort");
    f->remotePort = r.deserializeAttr<std::uint32_t>("remotePort");
    r.require(", 'remotePath': ", "remotePath");
    f->remotePath = r.deserializeAttr<Lumo::String>("remotePath");
    r.require(", 'syncContainerKey': ", "syncContainerKey");
    f->syncContainerKey = r.deserializeAttr<Lumo::String>("syncContainerKey");
    r.require(", 'flags': ", "flags");
    try {
        f->flags = ::Q7Sync::sequenceToValue(r);
    } catch (Wex::RangeException const& e) {
        throw Wex::RangeException("flags", e.what());
    }
    r.require(", 'remoteAgentKey': ", "remoteAgentKey");
    f->remoteAgentKey = r.deserializeAttr<Lumo::String>("remoteAgentKey");
    r.require(", 'localUri': ", "localUri");
    f->localUri = r.deserializeAttr<Lumo::String>("localUri");
    r.require(", 'remoteUri': ", "remoteUri");
    f->remoteUri = r.deserializeAttr<Lumo::String>("remoteUri");
    r.require("})", kTypeName);
    *this = made(std::move(f));
    range = r;
}

// PathSubscribeRequestLifeTimeNotifier

namespace {
constexpr char kLtnTypeName[] = "Kel::Q7Sync::PathSubscribeRequestLifeTimeNotifier";
constexpr char kRequestTypeName[] = "Kel::Q7Sync::PathSubscribeRequest";
constexpr char kTableTypeName[] = "Kel::Q7Sync::PathSubscribeRequestDedupTable";
} // namespace

Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier> PathSubscribeRequestLifeTimeNotifier::
    PathSubscribeRequestLifeTimeNotifierIs(Lumo::Ptr<Oru::DedupHandleBase const> const& handle) {
    if (!handle) throw Wex::NullArgumentException("handle");
    // requestRawPtr() relies on the handle being a request.
    auto const* request = Lumo::object_cast<PathSubscribeRequest const>(handle.ptr());
    if (!request)
        throw Wex::NewEntityArgsException(kLtnTypeName, "handle", "is not a Kel::Q7Sync::PathSubscribeRequest");
    Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier> ltn(
        new PathSubscribeRequestLifeTimeNotifier(handle, request->pathSubscribeConfig()));
    ltn->hasNotificationActiveIs(true);
    return ltn;
}

Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier> pathSubscribeRequestLifeTimeNotifierFactory(
    Lumo::Ptr<Oru::DedupHandleBase const> const& handle) {
    return PathSubscribeRequestLifeTimeNotifier::PathSubscribeRequestLifeTimeNotifierIs(handle);
}

PathSubscribeRequestLifeTimeNotifier::PathSubscribeRequestLifeTimeNotifier(
    Lumo::Ptr<Oru::DedupHandleBase const> const& handle, PathSubscribeConfig const& pathSubscribeConfig) noexcept
    : Oru::DedupHandleLifeTimeNotifier(handle), pathSubscribeConfig_(pathSubscribeConfig) {}

PathSubscribeRequestLifeTimeNotifier::~PathSubscribeRequestLifeTimeNotifier() { hasNotificationActiveIs(false); }

PathSubscribeRequest* PathSubscribeRequestLifeTimeNotifier::requestRawPtr() const noexcept {
    return static_cast<PathSubscribeRequest*>(getDedupedObjectRawPtr());
}

Wex::WexType const* PathSubscribeRequestLifeTimeNotifier::fwkType() const noexcept {
    return Wex::wexTypeOf<PathSubscribeRequestLifeTimeNotifier>();
}

// PathSubscribeRequest

Lumo::Ptr<PathSubscribeRequest> PathSubscribeRequest::PathSubscribeRequestIs(
    PathSubscribeConfig const& pathSubscribeConfig) {
    Lumo::Ptr<PathSubscribeRequest> request(new PathSubscribeRequest(pathSubscribeConfig));
    request->hasNotificationActiveIs(true);
    return request;
}

Lumo::Ptr<PathSubscribeRequest> pathSubscribeRequestFactory(PathSubscribeConfig const& pathSubscribeConfig) {
    return PathSubscribeRequest::PathSubscribeRequestIs(pathSubscribeConfig);
}

PathSubscribeRequest::PathSubscribeRequest(PathSubscribeConfig const& pathSubscribeConfig)
    : pathSubscribeConfig_(pathSubscribeConfig) {}

// A notifier that the notifiee's bookkeeping (or anyone) still holds must not name a request
// that is gone.
PathSubscribeRequest::~PathSubscribeRequest() {
    hasNotificationActiveIs(false);
    if (lifeTimeNotifier_) lifeTimeNotifier_->requestRawPtrDel({});
}

void PathSubscribeRequest::lifeTimeNotifierIs(
    Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier const> const& lifeTimeNotifier) {
    if (lifeTimeNotifier == lifeTimeNotifier_) return;
    if (lifeTimeNotifier && lifeTimeNotifier->getDedupedObjectRawPtr() != this)
        throw Wex::NewEntityArgsException(kRequestTypeName, "lifeTimeNotifier", "names another request");
    if (lifeTimeNotifier_) lifeTimeNotifier_->requestRawPtrDel({});
    lifeTimeNotifier_ = lifeTimeNotifier;
}

std::uint32_t PathSubscribeRequest::hash() const noexcept { return pathSubscribeConfig_.hash(0); }

bool PathSubscribeRequest::compare(Oru::DedupHandleBase const* other) const noexcept {
    auto const* request = Lumo::object_cast<PathSubscribeRequest const>(other);
    return request && PathSubscribeConfig::isEq(pathSubscribeConfig_, request->pathSubscribeConfig_);
}

bool PathSubscribeRequest::compareByContent(Oru::DedupContentHandle const& content) const noexcept {
    return PathSubscribeConfig::isEq(pathSubscribeConfig_, static_cast<PathSubscribeConfig const&>(content));
}

Wex::WexType const* PathSubscribeRequest::fwkType() const noexcept { return Wex::wexTypeOf<PathSubscribeRequest>(); }

// PathSubscribeRequestDedupTable

namespace {
// The framework table's allocator: a request for a configuration it holds none equal to.
Lumo::Ptr<Oru::DedupHandleBase> allocPathSubscribeRequest(Oru::DedupContentHandle const& content) {
    return PathSubscribeRequest::PathSubscribeRequestIs(static_cast<PathSubscribeConfig const&>(content));
}
} // namespace

Lumo::Ptr<PathSubscribeRequestDedupTable> PathSubscribeRequestDedupTable::PathSubscribeRequestDedupTableIs(
    Lumo::Ptr<Oru::DedupHashTableLifeTimeNotifiee const> const& lifeTimeNotifiee) {
    if (!lifeTimeNotifiee) throw Wex::NullArgumentException("lifeTimeNotifiee");
    Lumo::Ptr<PathSubscribeRequestDedupTable> table(new PathSubscribeRequestDedupTable(lifeTimeNotifiee));
    table->hasNotificationActiveIs(true);
    return table;
}

Lumo::Ptr<PathSubscribeRequestDedupTable> pathSubscribeRequestDedupTableFactory(
    Lumo::Ptr<Oru::DedupHashTableLifeTimeNotifiee const> const& lifeTimeNotifiee) {
    return PathSubscribeRequestDedupTable::PathSubscribeRequestDedupTableIs(lifeTimeNotifiee);
}

PathSubscribeRequestDedupTable::PathSubscribeRequestDedupTable(
    Lumo::Ptr<Oru::DedupHashTableLifeTimeNotifiee const> lifeTimeNotifiee)
    : lifeTimeNotifiee_(std::move(lifeTimeNotifiee)) {
    handleInitialized();
}

PathSubscribeRequestDedupTable::~PathSubscribeRequestDedupTable() {
    hasNotificationActiveIs(false);
    handleDestroy();
    dedupTable_ = nullptr;
    lifeTimeNotifiee_ = nullptr;
}

void PathSubscribeRequestDedupTable::handleInitialized() {
    Lumo::Ptr<Oru::DedupHashTable> table(new Oru::DedupHashTableUnorderedSet(true));
    table->hasNotificationActiveIs(true);
    dedupTableIs(table);
}

void PathSubscribeRequestDedupTable::dedupTableIs(Lumo::Ptr<Oru::DedupHashTable> const& dedupTable) {
    if (!dedupTable) throw Wex::NullArgumentException("dedupTable");
    if (dedupTable == dedupTable_) return;
    // The notifiee must not keep notifiers of requests whose table it no longer hears from.
    handleDestroy();
    dedupTable_ = dedupTable;
    dedupTable_->lifeTimeNotifieeIs(lifeTimeNotifiee_);
}

Lumo::Ptr<PathSubscribeRequest> PathSubscribeRequestDedupTable::dedup(PathSubscribeConfig const& config) const {
    if (config.remoteAddr().isUnspecified())
        throw Wex::NewEntityArgsException(kTableTypeName, "remoteAddr",
                                          "is unspecified: a subscription needs the remote agent's address");
    // A parsed value carries no container type: nothing could be created for it.
    if (!config.syncContainerType())
        throw Wex::NewEntityArgsException(kTableTypeName, "syncContainerType",
                                          "is missing: a subscription needs the type of its container");
    // The table holds nothing but what allocPathSubscribeRequest made.
    return Lumo::static_ptr_cast<PathSubscribeRequest>(
        dedupTable_->findOrDedup(config, config.hash(0), allocPathSubscribeRequest));
}

void PathSubscribeRequestDedupTable::handleDestroy() {
    if (dedupTable_) dedupTable_->lifeTimeNotifieeIs(nullptr);
}

Wex::WexType const* PathSubscribeRequestDedupTable::fwkType() const noexcept {
    return Wex::wexTypeOf<PathSubscribeRequestDedupTable>();
}

namespace {
void buildTypeTable(Wex::WexModule& m) {
    using C = PathSubscribeConfig;
    m.type<C>(kTypeName)
        .readOnly("remoteAddr", [](C const& c) { return c.remoteAddr(); })
        .readOnly("remotePort", [](C const& c) { return c.remotePort(); })
        .readOnly("remotePath", [](C const& c) { return c.remotePath(); })
        .readOnly("syncContainerKey", [](C const& c) { return c.syncContainerKey(); })
        .readOnly("flags", [](C const& c) { return c.flags(); })
        .readOnly("remoteAgentKey", [](C const& c) { return c.remoteAgentKey(); })
        .readOnly("localUri", [](C const& c) { return c.localUri(); })
        .readOnly("remoteUri", [](C const& c) { return c.remoteUri(); })
        .hidden("handleInitialized")
        .staticOperation("createWithContainerTypeString",
                         {"remoteAddr", "remotePort", "remotePath", "syncContainerKey", "syncContainerTypeName", "flags"},
                         [](Wex::Args const& a) {
                             return C::createWithContainerTypeString(
                                 a.get<Kivu::IpGenAddr>(kTypeName, "remoteAddr"),
                                 a.get<std::uint32_t>(kTypeName, "remotePort"),
                                 a.get<Lumo::String>(kTypeName, "remotePath"),
                                 a.get<Lumo::String>(kTypeName, "syncContainerKey"),
                                 a.get<Lumo::String>(kTypeName, "syncContainerTypeName").view(),
                                 a.get<C::SyncRequestFlags>(kTypeName, "flags"));
                         });
    using R = PathSubscribeRequest;
    using L = PathSubscribeRequestLifeTimeNotifier;
    using T = PathSubscribeRequestDedupTable;
    m.type<R>(kRequestTypeName)
        .readOnly("pathSubscribeConfig", [](R const& r) { return r.pathSubscribeConfig(); })
        .readOnly("localUri", [](R const& r) { return r.localUri(); })
        .readOnly("remoteUri", [](R const& r) { return r.remoteUri(); })
        .attribute(
            "lifeTimeNotifier", [](R const& r) { return r.lifeTimeNotifier(); },
            [](R& r, Lumo::Ptr<L const> const& ltn) { r.lifeTimeNotifierIs(ltn); });
    // A back pointer: the notifier names its request without holding it.
    m.type<L>(kLtnTypeName).readOnly("requestRawPtr", [](L const& l) { return Oru::WeakRef(l.requestRawPtr()); });
    m.type<T>(kTableTypeName)
        .readOnly("lifeTimeNotifiee", [](T const& t) { return t.lifeTimeNotifiee(); })
        .attribute(
            "dedupTable", [](T const& t) { return t.dedupTable(); },
            [](T& t, Lumo::Ptr<Oru::DedupHashTable> const& table) { t.dedupTableIs(table); })
        .operation("dedup", {"config"},
                   [](T& t, Wex::Args const& a) {
                       return t.dedup(a.get<PathSubscribeConfig>(kTableTypeName, "config"));
                   })
        .hidden("handleInitialized")
        .hidden("handleDestroy");
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncSubscribeRequest", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
