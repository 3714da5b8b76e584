// The subscription reactors of the module.
#include "KelLib/Q7SyncSubscribeSm.h"

#include <exception>
#include <string>
#include <utility>
#include <vector>
#include "Oru/WeakRef.h"
#include "Q7Sync/Service.h"
#include "Wex/Exception.h"
#include "Wex/Trace.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
// One trace handle for every reactor of this unit, made on first use.
[[gnu::always_inline]] inline Wex::TraceHandle& traceHandle() {
    static Wex::TraceHandle handle("KelQ7SyncSubscribeSm", false);
    return handle;
}
} // namespace

Lumo::Ptr<EffectiveSubscribeConfig> EffectiveSubscribeConfig::EffectiveSubscribeConfigIs() {
    Lumo::Ptr<EffectiveSubscribeConfig> c(new EffectiveSubscribeConfig());
    c->hasNotificationActiveIs(true);
    return c;
}

Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfigFactory() {
    return EffectiveSubscribeConfig::EffectiveSubscribeConfigIs();
}

EffectiveSubscribeConfig::~EffectiveSubscribeConfig() { hasNotificationActiveIs(false); }

Wex::WexType const* EffectiveSubscribeConfig::fwkType() const noexcept { return Wex::wexTypeOf<EffectiveSubscribeConfig>(); }


// PathSubscribeRequestSetForUri

Lumo::Ptr<PathSubscribeRequestSetForUri> PathSubscribeRequestSetForUri::PathSubscribeRequestSetForUriIs(
    Lumo::String const& uri) {
    Lumo::Ptr<PathSubscribeRequestSetForUri> set(new PathSubscribeRequestSetForUri(uri));
    set->hasNotificationActiveIs(true);
    return set;
}

Lumo::Ptr<PathSubscribeRequestSetForUri> pathSubscribeRequestSetForUriFactory(Lumo::String const& uri) {
    return PathSubscribeRequestSetForUri::PathSubscribeRequestSetForUriIs(uri);
}

PathSubscribeRequestSetForUri::PathSubscribeRequestSetForUri(Lumo::String uri) : uri_(std::move(uri)) {}

PathSubscribeRequestSetForUri::~PathSubscribeRequestSetForUri() { hasNotificationActiveIs(false); }

Wex::WexType const* PathSubscribeRequestSetForUri::fwkType() const noexcept {
    return Wex::wexTypeOf<PathSubscribeRequestSetForUri>();
}

// PathSubscribeRequestNotifiee

namespace {
constexpr char kNotifiee[] = "PathSubscribeRequestNotifiee";
} // namespace

// An invariant of the request bookkeeping, which the framework table's calling contract keeps.
// A breach is traced at level 0 with the check's text (this runs inside notifications, so it
// does not throw), and the caller then does `orElse` to leave its state consistent.
#define NOTIFIEE_INVARIANT(holds, check, orElse)                       \
    do {                                                              \
        if (!(holds)) [[unlikely]] {                                  \
            WEX_TRACE(traceHandle(), 0, kNotifiee, "{}", check);      \
            orElse;                                                   \
        }                                                             \
    } while (false)

Lumo::Ptr<PathSubscribeRequestNotifiee> PathSubscribeRequestNotifiee::PathSubscribeRequestNotifieeIs(
    Lumo::Ptr<EffectiveSubscribeConfig> const& effectiveSubscribeConfig) {
    if (!effectiveSubscribeConfig) throw Wex::NullArgumentException("effectiveSubscribeConfig");
    Lumo::Ptr<PathSubscribeRequestNotifiee> n(new PathSubscribeRequestNotifiee(effectiveSubscribeConfig));
    n->hasNotificationActiveIs(true);
    return n;
}

Lumo::Ptr<PathSubscribeRequestNotifiee> pathSubscribeRequestNotifieeFactory(
    Lumo::Ptr<EffectiveSubscribeConfig> const& effectiveSubscribeConfig) {
    return PathSubscribeRequestNotifiee::PathSubscribeRequestNotifieeIs(effectiveSubscribeConfig);
}

PathSubscribeRequestNotifiee::PathSubscribeRequestNotifiee(Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfig)
    : effectiveSubscribeConfig_(std::move(effectiveSubscribeConfig)) {}

// Leaves EffectiveSubscribeConfig as it is: only handleNotificationStop withdraws configurations.
PathSubscribeRequestNotifiee::~PathSubscribeRequestNotifiee() {
    hasNotificationActiveIs(false);
    requestSetForLocalUriDelAll();
    requestSetForRemoteUriDelAll();
    pendingRequestDelAll();
    effectiveSubscribeConfig_ = nullptr;
}

Wex::WexType const* PathSubscribeRequestNotifiee::fwkType() const noexcept {
    return Wex::wexTypeOf<PathSubscribeRequestNotifiee>();
}

Lumo::Ptr<PathSubscribeRequestSetForUri> PathSubscribeRequestNotifiee::requestSetForLocalUriIs(
    Lumo::String const& uri) const {
    if (Lumo::Ptr<PathSubscribeRequestSetForUri> set = requestSetForLocalUri_.get(uri)) return set;
    return requestSetForLocalUri_.set(PathSubscribeRequestSetForUri::PathSubscribeRequestSetForUriIs(uri));
}

Lumo::Ptr<PathSubscribeRequestSetForUri> PathSubscribeRequestNotifiee::requestSetForLocalUriDel(
    Lumo::String const& uri) const {
    return requestSetForLocalUri_.del(uri);
}

Lumo::Ptr<PathSubscribeRequestSetForUri> PathSubscribeRequestNotifiee::requestSetForRemoteUriIs(
    Lumo::String const& uri) const {
    if (Lumo::Ptr<PathSubscribeRequestSetForUri> set = requestSetForRemoteUri_.get(uri)) return set;
    return requestSetForRemoteUri_.set(PathSubscribeRequestSetForUri::PathSubscribeRequestSetForUriIs(uri));
}

Lumo::Ptr<PathSubscribeRequestSetForUri> PathSubscribeRequestNotifiee::requestSetForRemoteUriDel(
    Lumo::String const& uri) const {
    return requestSetForRemoteUri_.del(uri);
}

// Run to completion: a request asked for from inside another event is filed once that event has
// completed; the event holds the request until then.
void PathSubscribeRequestNotifiee::handleInsert(Lumo::Ptr<Oru::DedupHandleBase> const& handle) const {
    auto* request = Lumo::object_cast<PathSubscribeRequest>(handle.ptr());
    NOTIFIEE_INVARIANT(request != nullptr, "request is a PathSubscribeRequest", return);
    clientEvents().post([self = Lumo::Ptr<PathSubscribeRequestNotifiee const>(this),
                         request = Lumo::Ptr<PathSubscribeRequest>(request)] {
        // Unless its table has stopped telling this notifiee meanwhile, which untracked the rest.
        Oru::DedupHashTable const* table = request->getDedupHashTable();
        if (table && table->lifeTimeNotifiee() == self) self->trackRequest(request);
    });
}

void PathSubscribeRequestNotifiee::trackRequest(Lumo::Ptr<PathSubscribeRequest> const& request) const {
    // A request tracked already stays as it is filed.
    NOTIFIEE_INVARIANT(request->lifeTimeNotifier() == nullptr, "request->lifeTimeNotifier() == nullptr", return);
    RequestLtn const ltn = PathSubscribeRequestLifeTimeNotifier::PathSubscribeRequestLifeTimeNotifierIs(request);
    request->lifeTimeNotifierIs(ltn);
    addRequestToSet(requestSetForRemoteUriIs(request->remoteUri()), ltn);
    addRequestToSet(requestSetForLocalUriIs(request->localUri()), ltn);
    drainPendingRequests();
}

void PathSubscribeRequestNotifiee::addRequestToSet(Lumo::Ptr<PathSubscribeRequestSetForUri> const& requestSet,
                                                   RequestLtn const& requestLtn) const {
    RequestLtn const currentRequestLtn = requestSet->requests() == 1 ? *requestSet->request().begin() : nullptr;
    requestSet->requestIs(requestLtn);
    if (requestSet->requests() == 2) {
        // The sole request so far may have been effective; now it cannot be.
        NOTIFIEE_INVARIANT(nullptr != currentRequestLtn, "nullptr != currentRequestLtn", return);
        pendingRequestIs(currentRequestLtn);
    } else if (requestSet->requests() == 1) {
        pendingRequestIs(requestLtn);
    }
    // With three or more none of them is effective, before or after.
}

// Called with the request still whole, from its last release, which it does not outlive: the
// event keeps its notifier, whose configuration is the request's, and touches the request only
// while it is there (its notifier loses it when it goes).
void PathSubscribeRequestNotifiee::handleRemove(Oru::DedupHandleBase* handle) const {
    auto* request = Lumo::object_cast<PathSubscribeRequest>(handle);
    NOTIFIEE_INVARIANT(request != nullptr, "request is a PathSubscribeRequest", return);
    RequestLtn lifeTimeNotifier = request->lifeTimeNotifier();
    NOTIFIEE_INVARIANT(lifeTimeNotifier != nullptr, "lifeTimeNotifier != nullptr", return);
    if (!clientEvents().running()) {
        clientEvents().now([&] { untrackRequest(lifeTimeNotifier); });
        return;
    }
    clientEvents().post([self = Lumo::Ptr<PathSubscribeRequestNotifiee const>(this), ltn = std::move(lifeTimeNotifier)] {
        // Unless its table has stopped telling this notifiee meanwhile, which untracked it.
        Lumo::Ptr<PathSubscribeRequestSetForUri> const set =
            self->requestSetForRemoteUri_.get(ltn->pathSubscribeConfig().remoteUri());
        if (set && set->requestHas(ltn)) self->untrackRequest(ltn);
    });
}

void PathSubscribeRequestNotifiee::untrackRequest(RequestLtn const& requestLtn) const {
    PathSubscribeConfig const& config = requestLtn->pathSubscribeConfig();
    Lumo::Ptr<PathSubscribeRequestSetForUri> const remoteSet = requestSetForRemoteUri_.get(config.remoteUri());
    NOTIFIEE_INVARIANT(remoteSet != nullptr, "requestSetForRemoteUriHas( request->remoteUri() )", {});
    if (remoteSet) removeRequestFromSet(remoteSet, requestLtn);
    Lumo::Ptr<PathSubscribeRequestSetForUri> const localSet = requestSetForLocalUri_.get(config.localUri());
    NOTIFIEE_INVARIANT(localSet != nullptr, "requestSetForLocalUriHas( request->localUri() )", {});
    if (localSet) removeRequestFromSet(localSet, requestLtn);
    drainPendingRequests();
    if (PathSubscribeRequest* request = requestLtn->requestRawPtr()) request->lifeTimeNotifierIs(nullptr);
}

void PathSubscribeRequestNotifiee::removeRequestFromSet(Lumo::Ptr<PathSubscribeRequestSetForUri> const& requestSet,
                                                        RequestLtn const& requestLtn) const {
    requestSet->requestDel(requestLtn);
    if (requestSet->requests() == 1) {
        // The remaining request may now be effective.
        pendingRequestIs(*requestSet->request().begin());
    } else if (requestSet->requests() == 0) {
        // Which collection files the set: compared by identity, so that a local and a remote
        // URI that happen to be equal are still told apart.
        Lumo::String const uri = requestSet->uri();
        if (requestSetForLocalUri_.get(uri) == requestSet) {
            requestSetForLocalUriDel(uri);
        } else {
            NOTIFIEE_INVARIANT(requestSetForRemoteUri_.get(uri) == requestSet, "requestSetForRemoteUriHas( set->uri() )",
                               return);
            requestSetForRemoteUriDel(uri);
        }
        // Its own configuration may have to leave the effective set.
        pendingRequestIs(requestLtn);
    }
}

void PathSubscribeRequestNotifiee::drainPendingRequests() const {
    WEX_TRACE(traceHandle(), 8, kNotifiee, "");
    pendingRequest_.forEachSafe([this](RequestLtn const& ltn) { handleRequest(ltn); });
    pendingRequestDelAll();
}

void PathSubscribeRequestNotifiee::handleRequest(RequestLtn const& requestLtn) const {
    // A copy: the reactors run by the changes below may release the request.
    PathSubscribeConfig const config = requestLtn->pathSubscribeConfig();
    Lumo::Ptr<PathSubscribeRequestSetForUri> const remoteSet = requestSetForRemoteUri_.get(config.remoteUri());
    std::size_t const requestCountForRemoteUri = remoteSet ? remoteSet->requests() : 0;
    Lumo::Ptr<PathSubscribeRequestSetForUri> const localSet = requestSetForLocalUri_.get(config.localUri());
    std::size_t const requestCountForLocalUri = localSet ? localSet->requests() : 0;
    if (requestCountForLocalUri == 1 && requestCountForRemoteUri == 1) {
        WEX_TRACE(traceHandle(), 8, kNotifiee, "Add subscribe config for ltn {} with remoteUri {}", requestLtn,
                  config.remoteUri());
        effectiveSubscribeConfig_->pathSubscribeConfigIs(config);
    } else if (effectiveSubscribeConfig_->pathSubscribeConfigHas(config)) {
        WEX_TRACE(traceHandle(), 1, kNotifiee,
                  "Remove subscribe config for ltn {} with remoteUri {} and requestCountForRemoteUri {} and "
                  "requestCountForLocalUri {}",
                  requestLtn, config.remoteUri(), requestCountForRemoteUri, requestCountForLocalUri);
        effectiveSubscribeConfig_->pathSubscribeConfigDel(config);
    }
}

// At once, not queued: the table that stopped is going (with its module, say), and the
// reactors that withdraw the subscriptions in force may go right after it.
void PathSubscribeRequestNotifiee::handleNotificationStop(Lumo::Ptr<Oru::DedupHashTable const> const& table) const {
    clientEvents().now([&] { untrackAll(table); });
}

// The table no longer tells this notifiee of anything: a request that a reactor or handler
// releases while this runs dies unannounced, and is untracked here by its notifier alone.
void PathSubscribeRequestNotifiee::untrackAll(Lumo::Ptr<Oru::DedupHashTable const> const& table) const {
    WEX_TRACE(traceHandle(), 1, kNotifiee, "{}", table);
    std::vector<RequestLtn> tracked;
    for (auto const& set : requestSetForRemoteUri_)
        for (RequestLtn const& ltn : set->request()) tracked.push_back(ltn);
    for (RequestLtn const& ltn : tracked) {
        if (PathSubscribeRequest* request = ltn->requestRawPtr())
            request->dedupStateIs(Oru::DedupHandleState::notificationStopped);
        untrackRequest(ltn);
    }
    // No notifier may stay filed here once its request is untracked.
    NOTIFIEE_INVARIANT(!requestSetForLocalUris(), "!requestSetForLocalUris() && \"Must have been cleaned up above\"", {
        requestSetForLocalUriDelAll();
        requestSetForRemoteUriDelAll();
    });
}

// SyncContainerStatus

Lumo::Ptr<SyncContainerStatus> SyncContainerStatus::SyncContainerStatusIs() {
    Lumo::Ptr<SyncContainerStatus> status(new SyncContainerStatus());
    status->hasNotificationActiveIs(true);
    return status;
}

Lumo::Ptr<SyncContainerStatus> syncContainerStatusFactory() { return SyncContainerStatus::SyncContainerStatusIs(); }

SyncContainerStatus::~SyncContainerStatus() { hasNotificationActiveIs(false); }

void SyncContainerStatus::syncContainerIs(Lumo::Ptr<SyncContainer const> const& container) {
    if (!container) throw Wex::NullArgumentException("syncContainer");
    clientEvents().now([&] {
        Lumo::String const& key = container->pathSubscribeConfig().syncContainerKey();
        syncContainerByKey_.try_emplace(key, "syncContainer", kSyncContainer).first->second.set(container);
        syncContainer_.set(container);
    });
}

Lumo::Ptr<SyncContainer const> SyncContainerStatus::syncContainerDel(PathSubscribeConfig const& config) {
    Lumo::Ptr<SyncContainer const> removed;
    clientEvents().now([&] {
        if (auto it = syncContainerByKey_.find(config.syncContainerKey()); it != syncContainerByKey_.end()) {
            it->second.del(config);
            if (it->second.empty()) syncContainerByKey_.erase(it);
        }
        removed = syncContainer_.del(config);
    });
    return removed;
}

void SyncContainerStatus::syncContainerDelAll() {
    clientEvents().now([this] {
        if (publisher_.subscribers() == 0) {
            syncContainerByKey_.clear();
            syncContainer_.delAll();
            return;
        }
        syncContainer_.forEachSafe([this](Lumo::Ptr<SyncContainer const> const& container) {
            PathSubscribeConfig const config = container->pathSubscribeConfig();
            syncContainerDel(config);
        });
    });
}

std::vector<Lumo::Ptr<SyncContainer const>> SyncContainerStatus::syncContainersOfKey(Lumo::String const& key) const {
    auto it = syncContainerByKey_.find(key);
    if (it == syncContainerByKey_.end()) return {};
    return {it->second.begin(), it->second.end()};
}

Wex::WexType const* SyncContainerStatus::fwkType() const noexcept { return Wex::wexTypeOf<SyncContainerStatus>(); }

// SyncContainerSm

Lumo::Ptr<SyncContainerSm> SyncContainerSm::SyncContainerSmIs(
    Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig,
    Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus, Lumo::Ptr<Wex::Dir> const& remoteDir) {
    if (!syncContainerStatus) throw Wex::NullArgumentException("syncContainerStatus");
    if (!remoteDir) throw Wex::NullArgumentException("remoteDir");
    Lumo::Ptr<SyncContainerSm> sm(new SyncContainerSm(subscribeConfig, syncContainerStatus, remoteDir));
    sm->hasNotificationActiveIs(true);
    return sm;
}

Lumo::Ptr<SyncContainerSm> syncContainerSmFactory(Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig,
                                                  Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus,
                                                  Lumo::Ptr<Wex::Dir> const& remoteDir) {
    return SyncContainerSm::SyncContainerSmIs(subscribeConfig, syncContainerStatus, remoteDir);
}

SyncContainerSm::SyncContainerSm(Lumo::Ptr<EffectiveSubscribeConfig const> subscribeConfig,
                                 Lumo::Ptr<SyncContainerStatus> syncContainerStatus, Lumo::Ptr<Wex::Dir> remoteDir)
    : subscribeConfig_(std::move(subscribeConfig)), syncContainerStatus_(std::move(syncContainerStatus)),
      remoteDir_(std::move(remoteDir)) {
    hasNotificationActiveIs(true);
    handlePathSubscribeConfig();
}

SyncContainerSm::~SyncContainerSm() {
    hasNotificationActiveIs(false);
    wexDoZombieReactors(true);
}

void SyncContainerSm::hasNotificationActiveIs(bool active) {
    if (active == notificationActive()) return;
    PtrInterface::hasNotificationActiveIs(active);
    if (subscribeConfig_) subscribeConfig_->pathSubscribeConfig().watcherIs(this, active);
}

// The key is the value the collection was handed (or gave back), held by the collection's
// caller for the whole delivery: no copy needed.
void SyncContainerSm::onMember(EffectiveSubscribeConfig::Configs const&, PathSubscribeConfig const& config,
                               PathSubscribeConfig const*) {
    if (!zombie()) handlePathSubscribeConfig(config);
}

void SyncContainerSm::handlePathSubscribeConfig(PathSubscribeConfig const& pathSubscribeConfig) {
    if (subscribeConfig_ && subscribeConfig_->pathSubscribeConfigHas(pathSubscribeConfig)) addContainer(pathSubscribeConfig);
    else removeContainer(pathSubscribeConfig);
}

void SyncContainerSm::handlePathSubscribeConfig() {
    WEX_TRACE(traceHandle(), 8, "SyncContainerSm", "");
    // Records of ended subscriptions go with their containers; those in force are added again.
    syncContainerStatus_->syncContainer().forEachSafe([this](Lumo::Ptr<SyncContainer const> const& container) {
        PathSubscribeConfig const config = container->pathSubscribeConfig();
        handlePathSubscribeConfig(config);
    });
    if (subscribeConfig_)
        subscribeConfig_->pathSubscribeConfig().forEachSafe(
            [this](PathSubscribeConfig const& config) { handlePathSubscribeConfig(config); });
}

void SyncContainerSm::addContainer(PathSubscribeConfig const& config) {
    WEX_TRACE(traceHandle(), 1, "SyncContainerSm", "localUri {}", config.localUri());
    // Runs inside notifications: whatever the directory or the container type refuses (a place
    // held by the container of another subscription in force, say) is traced, and the
    // subscription goes without a container.
    Lumo::Ptr<SyncContainer> container;
    std::string failure;
    try {
        auto agentDir = Lumo::ptr_cast<Wex::Dir>(remoteDir_->createEntity(Wex::wexTypeOf<Wex::Dir>(), config.remoteAgentKey()));
        if (agentDir) container = SyncContainer::create(agentDir, config);
        else failure = "its remoteAgentKey names an entity that is not a directory";
    } catch (std::exception const& e) {
        failure = e.what();
    }
    if (!container) {
        WEX_TRACE(traceHandle(), 0, "SyncContainerSm", "localUri {} gets no container: {}", config.localUri(),
                  failure);
        agentDirDelIfEmpty(config.remoteAgentKey());
        return;
    }
    syncContainerStatus_->syncContainerIs(container);
}

void SyncContainerSm::removeContainer(PathSubscribeConfig const& config) {
    WEX_TRACE(traceHandle(), 1, "SyncContainerSm", "localUri {}", config.localUri());
    // The record goes first: its watchers unsubscribe and withdraw the container while it is
    // still in its directory.
    syncContainerStatus_->syncContainerDel(config);
    auto agentDir = Lumo::ptr_cast<Wex::Dir>(remoteDir_->entityPtr(config.remoteAgentKey()));
    auto syncContainer = agentDir ? Lumo::ptr_cast<SyncContainer>(agentDir->entityPtr(config.syncContainerKey())) : nullptr;
    if (nullptr == syncContainer) {
        WEX_TRACE(traceHandle(), 0, "SyncContainerSm",
                  "check failed: nullptr != syncContainer && \"A container must have been created before\" (localUri {})",
                  config.localUri());
        return;
    }
    if (!(syncContainer->pathSubscribeConfig() == config)) {
        WEX_TRACE(traceHandle(), 0, "SyncContainerSm",
                  "localUri {} names the container of remoteUri {}, which keeps it", config.localUri(),
                  syncContainer->pathSubscribeConfig().remoteUri());
        return;
    }
    agentDir->deleteEntity(config.syncContainerKey());
    agentDirDelIfEmpty(config.remoteAgentKey());
}

void SyncContainerSm::agentDirDelIfEmpty(Lumo::String const& remoteAgentKey) {
    auto agentDir = Lumo::ptr_cast<Wex::Dir>(remoteDir_->entityPtr(remoteAgentKey));
    if (agentDir && agentDir->entities() == 0) remoteDir_->deleteEntity(remoteAgentKey);
}

Wex::WexType const* SyncContainerSm::fwkType() const noexcept { return Wex::wexTypeOf<SyncContainerSm>(); }

// SubscribeSm

Lumo::Ptr<SubscribeSm> SubscribeSm::SubscribeSmIs(Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig,
                                                  Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus,
                                                  Lumo::Ptr<SubscribeStatus> const& subscribeStatus) {
    if (!subscribeConfig) throw Wex::NullArgumentException("subscribeConfig");
    if (!syncContainerStatus) throw Wex::NullArgumentException("syncContainerStatus");
    if (!subscribeStatus) throw Wex::NullArgumentException("subscribeStatus");
    Lumo::Ptr<SubscribeSm> sm(new SubscribeSm(subscribeConfig, syncContainerStatus, subscribeStatus));
    sm->hasNotificationActiveIs(true);
    return sm;
}

Lumo::Ptr<SubscribeSm> subscribeSmFactory(Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig,
                                          Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus,
                                          Lumo::Ptr<SubscribeStatus> const& subscribeStatus) {
    return SubscribeSm::SubscribeSmIs(subscribeConfig, syncContainerStatus, subscribeStatus);
}

SubscribeSm::SubscribeSm(Lumo::Ptr<EffectiveSubscribeConfig const> subscribeConfig,
                         Lumo::Ptr<SyncContainerStatus> syncContainerStatus, Lumo::Ptr<SubscribeStatus> subscribeStatus)
    : subscribeConfig_(std::move(subscribeConfig)), syncContainerStatus_(std::move(syncContainerStatus)),
      subscribeStatus_(std::move(subscribeStatus)) {
    hasNotificationActiveIs(true);
    try {
        handlePathSubscribeConfig();
    } catch (...) {
        // A sync service that broke its promise (subscribe's refusal): no destructor runs for a
        // constructor that throws, so the watchers leave here.
        hasNotificationActiveIs(false);
        for (auto const& sm : wexQ7SyncStatus_) sm->subscribeSmIs(nullptr);
        throw;
    }
}

SubscribeSm::~SubscribeSm() {
    hasNotificationActiveIs(false);
    wexDoZombieReactors(true);
    for (auto const& sm : wexQ7SyncStatus_) sm->subscribeSmIs(nullptr);
    wexQ7SyncStatus_.delAll();
}

void SubscribeSm::hasNotificationActiveIs(bool active) {
    if (active != notificationActive()) {
        PtrInterface::hasNotificationActiveIs(active);
        subscribeConfig_->pathSubscribeConfig().watcherIs(this, active);
        syncContainerStatus_->syncContainer().watcherIs(this, active);
    }
    for (auto const& sm : wexQ7SyncStatus_) sm->hasNotificationActiveIs(active);
}

void SubscribeSm::wexDoZombieReactors(bool marked) {
    PtrInterface::wexDoZombieReactors(marked);
    for (auto const& sm : wexQ7SyncStatus_) sm->wexDoZombieReactors(marked);
}

// The key outlives the delivery (a value held by the collection's caller, or the held
// container's own configuration, which nothing below changes): no copy needed.
void SubscribeSm::onMember(EffectiveSubscribeConfig::Configs const&, PathSubscribeConfig const& config,
                           PathSubscribeConfig const*) {
    if (!zombie()) handlePathSubscribeConfig(config);
}

void SubscribeSm::onMember(SyncContainerStatus::Containers const&, PathSubscribeConfig const& config,
                           Lumo::Ptr<SyncContainer const> const*) {
    if (!zombie()) handlePathSubscribeConfig(config);
}

void SubscribeSm::handlePathSubscribeConfig(PathSubscribeConfig const& config) {
    if (subscribeConfig_->pathSubscribeConfigHas(config) && syncContainerStatus_->syncContainer().has(config)) {
        subscribe(config);
        return;
    }
    if (subscribeStatus_->pathSubscribeStatus().has(config)) unsubscribe(config);
}

void SubscribeSm::handlePathSubscribeConfig() {
    WEX_TRACE(traceHandle(), 8, "SubscribeSm", "");
    subscribeStatus_->pathSubscribeStatus().forEachSafe([this](Lumo::Ptr<PathSubscribeStatus> const& entry) {
        PathSubscribeConfig const config = entry->pathSubscribeConfig();
        handlePathSubscribeConfig(config);
    });
    subscribeConfig_->pathSubscribeConfig().forEachSafe(
        [this](PathSubscribeConfig const& config) { handlePathSubscribeConfig(config); });
}

void SubscribeSm::subscribe(PathSubscribeConfig const& config) {
    WEX_TRACE(traceHandle(), 1, "SubscribeSm", "remoteUri={}, localUri={}, flags={}", config.remoteUri(),
              config.localUri(), config.flags());
    Lumo::Ptr<SyncStatus const> const status =
        ::Q7Sync::WexUtils::subscribe(config.remoteUri(), config.localUri(), config.flags());
    // The sync service promises a status, and the same one while subscribed. A broken promise
    // is refused before either record takes it: the two stay as they were. (Inside a
    // notification, the publisher confines the error to this reactor.)
    if (!status) throw Wex::NullArgumentException("q7SyncStatus");
    Lumo::Ptr<PathSubscribeStatus> const recorded = subscribeStatus_->pathSubscribeStatus(config);
    if (recorded && recorded->syncStatus() != status) throw Wex::ReInstantiationException("syncStatus");
    q7SyncStatusIs(status);
    subscribeStatus_->pathSubscribeStatusIs(config, status);
}

void SubscribeSm::unsubscribe(PathSubscribeConfig const& config) {
    WEX_TRACE(traceHandle(), 1, "SubscribeSm", "remoteUri={}", config.remoteUri());
    ::Q7Sync::WexUtils::unsubscribe(config.remoteUri());
    q7SyncStatusDel(config.remoteUri());
    subscribeStatus_->pathSubscribeStatusDel(config);
}

Lumo::Ptr<SubscribeSm::SyncStatus const> SubscribeSm::q7SyncStatus(Lumo::String const& uri) const {
    Lumo::Ptr<Q7SyncStatusSm> const sm = wexQ7SyncStatus_.get(uri);
    return sm ? sm->q7SyncStatus() : nullptr;
}

void SubscribeSm::q7SyncStatusIs(Lumo::Ptr<SyncStatus const> const& status) {
    if (!status) throw Wex::NullArgumentException("q7SyncStatus");
    if (Lumo::Ptr<Q7SyncStatusSm> const held = wexQ7SyncStatus_.get(status->uri())) {
        held->notifierIs(status);  // nothing when it watches this very status already
        return;
    }
    Lumo::Ptr<Q7SyncStatusSm> sm(new Q7SyncStatusSm(status, this));
    sm->hasNotificationActiveIs(true);
    if (zombie()) sm->wexDoZombieReactors(true);
    wexQ7SyncStatus_.set(sm);
}

Lumo::Ptr<SubscribeSm::SyncStatus const> SubscribeSm::q7SyncStatusDel(Lumo::String const& uri) {
    Lumo::Ptr<Q7SyncStatusSm> const sm = wexQ7SyncStatus_.del(uri);
    if (!sm) return nullptr;
    sm->wexDoZombieReactors(true);
    sm->subscribeSmIs(nullptr);
    sm->hasNotificationActiveIs(false);
    return sm->q7SyncStatus();
}

void SubscribeSm::q7SyncStatusDelAll() {
    wexQ7SyncStatus_.forEachSafe([this](Lumo::Ptr<Q7SyncStatusSm> const& sm) {
        Lumo::String const uri = sm->remoteUri();
        q7SyncStatusDel(uri);
    });
}

Wex::WexType const* SubscribeSm::fwkType() const noexcept { return Wex::wexTypeOf<SubscribeSm>(); }

// SubscribeSm::Q7SyncStatusSm

SubscribeSm::Q7SyncStatusSm::Q7SyncStatusSm(Lumo::Ptr<SyncStatus const> const& status, SubscribeSm* subscribeSm)
    : subscribeSm_(subscribeSm), remoteUri_(status ? status->uri() : Lumo::String()) {
    // Not this class's notifierIs: a new watcher reports changes, not the state it finds.
    NotifieeConst::notifierIs(Lumo::ptr_cast<SyncStatus const>(status));
}

SubscribeSm::Q7SyncStatusSm::~Q7SyncStatusSm() {
    hasNotificationActiveIs(false);
    PtrInterface::wexDoZombieReactors(true);
}

void SubscribeSm::Q7SyncStatusSm::notifierIs(Lumo::Ptr<Wex::PtrInterface const> const& p) {
    Lumo::Ptr<SyncStatus const> const status = Lumo::ptr_cast<SyncStatus const>(p);
    if (status.ptr() == syncStatus()) return;
    NotifieeConst::notifierIs(status);
    remoteUri_ = status ? status->uri() : Lumo::String();
    if (status && !zombie()) handleSyncStatus();
}

void SubscribeSm::Q7SyncStatusSm::onAttribute(Wex::AttributeId attribute, void const*) {
    if (attribute == SyncStatus::kStatus && !zombie()) handleSyncStatus();
}

void SubscribeSm::Q7SyncStatusSm::handleSyncStatus() const {
    SyncStatus const* status = syncStatus();
    if (!status) return;
    WEX_TRACE(traceHandle(), 1, "Q7SyncStatusSm", "Q7SyncStatus for {} changed to {} with reason {}",
              status->uri(), status->status(), status->reason());
}

void SubscribeSm::Q7SyncStatusSm::wexDoZombieReactors(bool marked) {
    if (marked == zombie()) return;
    if (syncStatus()) hasNotificationActiveIs(!marked);
    PtrInterface::wexDoZombieReactors(marked);
}

Wex::WexType const* SubscribeSm::Q7SyncStatusSm::fwkType() const noexcept {
    return Wex::wexTypeOf<SubscribeSm::Q7SyncStatusSm>();
}

// SyncContainerHandlerSm

Lumo::Ptr<SyncContainerHandlerSm> SyncContainerHandlerSm::SyncContainerHandlerSmIs(
    Lumo::Ptr<SyncContainerHandlerRegistry const> const& syncContainerHandlerRegistry,
    Lumo::Ptr<SyncContainerStatus const> const& syncContainerStatus) {
    Lumo::Ptr<SyncContainerHandlerSm> sm(new SyncContainerHandlerSm(syncContainerHandlerRegistry, syncContainerStatus));
    sm->hasNotificationActiveIs(true);
    return sm;
}

Lumo::Ptr<SyncContainerHandlerSm> syncContainerHandlerSmFactory(
    Lumo::Ptr<SyncContainerHandlerRegistry const> const& syncContainerHandlerRegistry,
    Lumo::Ptr<SyncContainerStatus const> const& syncContainerStatus) {
    return SyncContainerHandlerSm::SyncContainerHandlerSmIs(syncContainerHandlerRegistry, syncContainerStatus);
}

SyncContainerHandlerSm::SyncContainerHandlerSm(Lumo::Ptr<SyncContainerHandlerRegistry const> syncContainerHandlerRegistry,
                                               Lumo::Ptr<SyncContainerStatus const> syncContainerStatus)
    : syncContainerHandlerRegistry_(std::move(syncContainerHandlerRegistry)),
      syncContainerStatus_(std::move(syncContainerStatus)) {
    hasNotificationActiveIs(true);
    // One event, so that what handlers ask for meanwhile waits until both replays are done.
    clientEvents().now([this] {
        handleInitialized();
        // Hands each recorded container to its key's handler a second time; handlers accept that.
        registryNotifiee_.on_self0(nullptr, syncContainerHandlerRegistry_);
    });
}

SyncContainerHandlerSm::~SyncContainerHandlerSm() {
    hasNotificationActiveIs(false);
    // One event: what handlers ask for while they are told finds the reactor gone.
    clientEvents().now([this] {
        doCleanup();
        wexDoZombieReactors(true);
        if (syncContainerHandlerRegistry_)
            on_syncContainerHandlerRegistry::on_shutdown(*this, *syncContainerHandlerRegistry_);
    });
}

void SyncContainerHandlerSm::hasNotificationActiveIs(bool active) {
    if (active == notificationActive()) return;
    PtrInterface::hasNotificationActiveIs(active);
    if (syncContainerStatus_) syncContainerStatus_->syncContainer().watcherIs(this, active);
}

void SyncContainerHandlerSm::onMember(SyncContainerStatus::Containers const&, PathSubscribeConfig const& config,
                                      Lumo::Ptr<SyncContainer const> const*) {
    if (!zombie()) handleSyncContainer(config);
}

void SyncContainerHandlerSm::handleSyncContainerHandler(Lumo::String const& syncContainerKey, Handler const& oldHandler,
                                                        Handler const& newHandler) {
    WEX_TRACE(traceHandle(), 8, "SyncContainerHandlerSm", "syncContainerKey={}", syncContainerKey);
    replay(syncContainerKey, oldHandler, newHandler);
}

// The key's containers as recorded when the hand-over begins: the handlers it calls cannot
// change them meanwhile, as what they ask for waits until the event has run to completion.
void SyncContainerHandlerSm::replay(Lumo::String const& syncContainerKey, Handler const& oldHandler,
                                    Handler const& newHandler) {
    if (!syncContainerStatus_) return;
    for (Lumo::Ptr<SyncContainer const> const& container : syncContainerStatus_->syncContainersOfKey(syncContainerKey)) {
        if (oldHandler) withdrawContainer(oldHandler, container->pathSubscribeConfig());
        if (newHandler) giveContainer(newHandler, container);
    }
}

void SyncContainerHandlerSm::handleSyncContainer(PathSubscribeConfig const& pathSubscribeConfig) {
    Handler const handler = syncContainerHandlerRegistry_
                                ? syncContainerHandlerRegistry_->syncContainerHandler(pathSubscribeConfig.syncContainerKey())
                                : nullptr;
    if (!handler) return;
    Lumo::Ptr<SyncContainer const> const container =
        syncContainerStatus_ ? syncContainerStatus_->syncContainer(pathSubscribeConfig) : nullptr;
    WEX_TRACE(traceHandle(), 8, "SyncContainerHandlerSm", "remoteAgentKey={}, syncContainerKey={}, syncContainer={}",
              pathSubscribeConfig.remoteAgentKey(), pathSubscribeConfig.syncContainerKey(), container);
    if (container) giveContainer(handler, container);
    else withdrawContainer(handler, pathSubscribeConfig);
}

void SyncContainerHandlerSm::handleInitialized() {
    WEX_TRACE(traceHandle(), 8, "SyncContainerHandlerSm", "");
    if (!syncContainerStatus_) return;
    syncContainerStatus_->syncContainer().forEachSafe([this](Lumo::Ptr<SyncContainer const> const& container) {
        PathSubscribeConfig const config = container->pathSubscribeConfig();
        handleSyncContainer(config);
    });
}

void SyncContainerHandlerSm::doCleanup() {
    WEX_TRACE(traceHandle(), 8, "SyncContainerHandlerSm", "");
    if (!syncContainerStatus_ || !syncContainerHandlerRegistry_) return;
    syncContainerHandlerRegistry_->syncContainerHandler().forEachSafe(
        [this](Handler const& handler) { replay(handler->syncContainerKey(), handler, nullptr); });
}

// Handlers are the client's code, called inside notifications, and within an event of
// clientEvents() (what they ask of the module waits until it completes): one that throws is
// traced and the dispatch goes on with the next container.
void SyncContainerHandlerSm::giveContainer(Handler const& handler, Lumo::Ptr<SyncContainer const> const& container) {
    try {
        clientEvents().now([&] { handler->containerIs(container); });
    } catch (std::exception const& e) {
        WEX_TRACE(traceHandle(), 0, "SyncContainerHandlerSm", "handler of {} threw from containerIs: {}",
                  handler->syncContainerKey(), e.what());
    }
}

void SyncContainerHandlerSm::withdrawContainer(Handler const& handler, PathSubscribeConfig const& config) {
    try {
        clientEvents().now([&] { handler->containerDel(config); });
    } catch (std::exception const& e) {
        WEX_TRACE(traceHandle(), 0, "SyncContainerHandlerSm", "handler of {} threw from containerDel: {}",
                  handler->syncContainerKey(), e.what());
    }
}

Wex::WexType const* SyncContainerHandlerSm::fwkType() const noexcept { return Wex::wexTypeOf<SyncContainerHandlerSm>(); }

// SyncContainerHandlerSm::on_syncContainerHandlerRegistry

void SyncContainerHandlerSm::on_syncContainerHandlerRegistry::onMember(SyncContainerHandlerRegistry::Handlers const&,
                                                                       Lumo::String const& key, Handler const* old) {
    on_child(key, old ? *old : Handler());
}

void SyncContainerHandlerSm::on_syncContainerHandlerRegistry::on_child(Lumo::String const& key, Handler const& old) {
    auto const& registry = reactor_.syncContainerHandlerRegistry_;
    reactor_.handleSyncContainerHandler(key, old, registry ? registry->syncContainerHandler(key) : nullptr);
}

void SyncContainerHandlerSm::on_syncContainerHandlerRegistry::on_self0(
    Lumo::Ptr<SyncContainerHandlerRegistry const> const& r0, Lumo::Ptr<SyncContainerHandlerRegistry const> const& r1) {
    if (r0) r0->syncContainerHandler().watcherIs(this, false);
    if (r1) r1->syncContainerHandler().watcherIs(this, true);
    if (r0)
        r0->syncContainerHandler().forEachSafe([&](Handler const& handler) {
            Lumo::String const key = handler->syncContainerKey();
            reactor_.handleSyncContainerHandler(key, handler, r1 ? r1->syncContainerHandler(key) : nullptr);
        });
    if (r1)
        r1->syncContainerHandler().forEachSafe([&](Handler const& handler) {
            Lumo::String const key = handler->syncContainerKey();
            if (!r0 || !r0->syncContainerHandler().has(key)) reactor_.handleSyncContainerHandler(key, nullptr, handler);
        });
}

void SyncContainerHandlerSm::on_syncContainerHandlerRegistry::on_shutdown(
    SyncContainerHandlerSm& reactor, SyncContainerHandlerRegistry const& registry) noexcept {
    registry.syncContainerHandler().watcherIs(&reactor.registryNotifiee_, false);
}

namespace {
constexpr char kSyncContainerSmTypeName[] = "Kel::Q7Sync::SyncContainerSm";
constexpr char kSubscribeSmTypeName[] = "Kel::Q7Sync::SubscribeSm";
constexpr char kHandlerSmTypeName[] = "Kel::Q7Sync::SyncContainerHandlerSm";

// An operation taking one PathSubscribeConfig argument named `param`.
template <class T>
auto configOperation(void (T::*op)(PathSubscribeConfig const&), char const* owner, char const* param) {
    return [op, owner, param](T& self, Wex::Args const& args) { (self.*op)(args.get<PathSubscribeConfig>(owner, param)); };
}

void buildReactorsTypeTable(Wex::WexModule& m) {
    using Q7SyncStatusSm = SubscribeSm::Q7SyncStatusSm;
    using Handler = SyncContainerHandlerSm::Handler;

    m.type<SyncContainerStatus>("Kel::Q7Sync::SyncContainerStatus")
        .collection("syncContainer", [](SyncContainerStatus const& s) -> auto const& { return s.syncContainer(); })
        .memberIs(&SyncContainerStatus::syncContainerIs)
        .memberDel(&SyncContainerStatus::syncContainerDel)
        .memberDelAll(&SyncContainerStatus::syncContainerDelAll);

    m.type<SyncContainerSm>(kSyncContainerSmTypeName)
        .readOnly("subscribeConfig", [](SyncContainerSm const& sm) { return sm.subscribeConfig(); })
        .readOnly("syncContainerStatus", [](SyncContainerSm const& sm) { return sm.syncContainerStatus(); })
        .readOnly("remoteDir", [](SyncContainerSm const& sm) { return sm.remoteDir(); })
        .operation("addContainer", {"config"},
                   configOperation(&SyncContainerSm::addContainer, kSyncContainerSmTypeName, "config"))
        .operation("removeContainer", {"config"},
                   configOperation(&SyncContainerSm::removeContainer, kSyncContainerSmTypeName, "config"))
        .operation("handlePathSubscribeConfig", {"pathSubscribeConfig"},
                   configOperation<SyncContainerSm>(&SyncContainerSm::handlePathSubscribeConfig,
                                                    kSyncContainerSmTypeName, "pathSubscribeConfig"));

    // q7SyncStatus and wexQ7SyncStatus are two views of one map of status reactors: the
    // statuses they watch, written and deleted as the typed calls do, and the reactors, read-only.
    m.type<SubscribeSm>(kSubscribeSmTypeName)
        .readOnly("subscribeConfig", [](SubscribeSm const& sm) { return sm.subscribeConfig(); })
        .readOnly("syncContainerStatus", [](SubscribeSm const& sm) { return sm.syncContainerStatus(); })
        .readOnly("subscribeStatus", [](SubscribeSm const& sm) { return sm.subscribeStatus(); })
        .operation("subscribe", {"pathSubscribeConfig"},
                   configOperation(&SubscribeSm::subscribe, kSubscribeSmTypeName, "pathSubscribeConfig"))
        .operation("unsubscribe", {"pathSubscribeConfig"},
                   configOperation(&SubscribeSm::unsubscribe, kSubscribeSmTypeName, "pathSubscribeConfig"))
        .operation("handlePathSubscribeConfig", {"pathSubscribeConfig"},
                   configOperation<SubscribeSm>(&SubscribeSm::handlePathSubscribeConfig, kSubscribeSmTypeName,
                                                "pathSubscribeConfig"))
        .collection("q7SyncStatus", [](SubscribeSm const& sm) -> auto const& { return sm.wexQ7SyncStatus(); },
                    [](Lumo::Ptr<Q7SyncStatusSm> const& reactor) { return reactor->q7SyncStatus(); })
        .memberIs(&SubscribeSm::q7SyncStatusIs)
        .memberDel(&SubscribeSm::q7SyncStatusDel)
        .memberDelAll(&SubscribeSm::q7SyncStatusDelAll)
        .collection("wexQ7SyncStatus", [](SubscribeSm const& sm) -> auto const& { return sm.wexQ7SyncStatus(); });

    // The owner is a back pointer, not counted: shown as one.
    m.type<Q7SyncStatusSm>("Kel::Q7Sync::SubscribeSm::Q7SyncStatusSm")
        .attribute(
            "subscribeSm", [](Q7SyncStatusSm const& sm) { return Oru::WeakRef(sm.subscribeSm()); },
            [](Q7SyncStatusSm& sm, Lumo::Ptr<SubscribeSm> const& owner) { sm.subscribeSmIs(owner.ptr()); })
        .attribute(
            "q7SyncStatus", [](Q7SyncStatusSm const& sm) { return sm.q7SyncStatus(); },
            [](Q7SyncStatusSm& sm, Lumo::Ptr<SubscribeSm::SyncStatus const> const& status) { sm.notifierIs(status); })
        .readOnly("remoteUri", [](Q7SyncStatusSm const& sm) { return sm.remoteUri(); })
        .operation("handleSyncStatus", {}, [](Q7SyncStatusSm& sm, Wex::Args const&) { sm.handleSyncStatus(); });

    m.type<SyncContainerHandlerSm>(kHandlerSmTypeName)
        .readOnly("syncContainerHandlerRegistry",
                  [](SyncContainerHandlerSm const& sm) { return sm.syncContainerHandlerRegistry(); })
        .readOnly("syncContainerStatus", [](SyncContainerHandlerSm const& sm) { return sm.syncContainerStatus(); })
        .operation("handleSyncContainerHandler", {"syncContainerKey", "oldHandler", "newHandler"},
                   [](SyncContainerHandlerSm& sm, Wex::Args const& args) {
                       sm.handleSyncContainerHandler(args.get<Lumo::String>(kHandlerSmTypeName, "syncContainerKey"),
                                                     args.get<Handler>(kHandlerSmTypeName, "oldHandler"),
                                                     args.get<Handler>(kHandlerSmTypeName, "newHandler"));
                   })
        .operation("handleSyncContainer", {"pathSubscribeConfig"},
                   configOperation<SyncContainerHandlerSm>(&SyncContainerHandlerSm::handleSyncContainer,
                                                           kHandlerSmTypeName, "pathSubscribeConfig"))
        .operation("handleInitialized", {}, [](SyncContainerHandlerSm& sm, Wex::Args const&) { sm.handleInitialized(); })
        .operation("doCleanup", {}, [](SyncContainerHandlerSm& sm, Wex::Args const&) { sm.doCleanup(); });
}
} // namespace

namespace {
void buildTypeTable(Wex::WexModule& m) {
    m.type<EffectiveSubscribeConfig>("Kel::Q7Sync::EffectiveSubscribeConfig")
        .collection("pathSubscribeConfig",
                    [](EffectiveSubscribeConfig const& e) -> auto const& { return e.pathSubscribeConfig(); });
    using S = PathSubscribeRequestSetForUri;
    using N = PathSubscribeRequestNotifiee;
    m.type<S>("Kel::Q7Sync::PathSubscribeRequestSetForUri")
        .readOnly("uri", [](S const& s) { return s.uri(); })
        .collection("request", [](S const& s) -> auto const& { return s.request(); });
    // The steps of an event keep the bookkeeping consistent only as a whole: not callable alone.
    m.type<N>("Kel::Q7Sync::PathSubscribeRequestNotifiee")
        .readOnly("effectiveSubscribeConfig", [](N const& n) { return n.effectiveSubscribeConfig(); })
        .hidden("handleRequest")
        .collection("pendingRequest", [](N const& n) -> auto const& { return n.pendingRequest(); })
        .hidden("drainPendingRequests")
        .collection("requestSetForLocalUri", [](N const& n) -> auto const& { return n.requestSetForLocalUri(); })
        .collection("requestSetForRemoteUri", [](N const& n) -> auto const& { return n.requestSetForRemoteUri(); })
        .hidden("addRequestToSet")
        .hidden("removeRequestFromSet");
    buildReactorsTypeTable(m);
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncSubscribeSm", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
