// The subscription reactors of the module.
#include "KelLib/Q7SyncSubscribeSm.h"

#include <utility>
#include <vector>

#include "Wex/Exception.h"
#include "Wex/Trace.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
// One trace handle for every reactor of this unit, made on first use.
Wex::TraceHandle& traceHandle() {
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

// NOTIFIEE-DEFINITIONS

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

// An invariant of the request bookkeeping. A failure is recorded at level 0 with the check's
// text and the caller carries on with whatever keeps its state consistent.
bool invariant(bool holds, char const* function, char const* check) {
    if (!holds) Wex::traceWrite(traceHandle(), 0, kNotifiee, function, "{}", check);
    return holds;
}
} // namespace

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

void PathSubscribeRequestNotifiee::handleInsert(Lumo::Ptr<Oru::DedupHandleBase> const& handle) const {
    auto* request = dynamic_cast<PathSubscribeRequest*>(handle.ptr());
    if (!invariant(request != nullptr, __func__, "request is a PathSubscribeRequest")) return;
    // A request tracked already stays as it is filed.
    if (!invariant(request->lifeTimeNotifier() == nullptr, __func__, "request->lifeTimeNotifier() == nullptr")) return;
    RequestLtn const ltn = PathSubscribeRequestLifeTimeNotifier::PathSubscribeRequestLifeTimeNotifierIs(handle);
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
        if (invariant(nullptr != currentRequestLtn, __func__, "nullptr != currentRequestLtn"))
            pendingRequestIs(currentRequestLtn);
    } else if (requestSet->requests() == 1) {
        pendingRequestIs(requestLtn);
    }
    // With three or more none of them is effective, before or after.
}

// Called with the request still whole, from its last release: nothing here may take a counted
// pointer to it.
void PathSubscribeRequestNotifiee::handleRemove(Oru::DedupHandleBase* handle) const {
    auto* request = dynamic_cast<PathSubscribeRequest*>(handle);
    if (!invariant(request != nullptr, __func__, "request is a PathSubscribeRequest")) return;
    // Held here so that it outlives the bookkeeping below.
    RequestLtn const lifeTimeNotifier = request->lifeTimeNotifier();
    if (!invariant(lifeTimeNotifier != nullptr, __func__, "lifeTimeNotifier != nullptr")) return;
    Lumo::Ptr<PathSubscribeRequestSetForUri> const remoteSet = requestSetForRemoteUri_.get(request->remoteUri());
    if (invariant(remoteSet != nullptr, __func__, "requestSetForRemoteUriHas( request->remoteUri() )"))
        removeRequestFromSet(remoteSet, lifeTimeNotifier);
    Lumo::Ptr<PathSubscribeRequestSetForUri> const localSet = requestSetForLocalUri_.get(request->localUri());
    if (invariant(localSet != nullptr, __func__, "requestSetForLocalUriHas( request->localUri() )"))
        removeRequestFromSet(localSet, lifeTimeNotifier);
    drainPendingRequests();
    request->lifeTimeNotifierIs(nullptr);
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
        if (requestSetForLocalUri_.get(uri) == requestSet) requestSetForLocalUriDel(uri);
        else if (invariant(requestSetForRemoteUri_.get(uri) == requestSet, __func__,
                           "requestSetForRemoteUriHas( set->uri() )"))
            requestSetForRemoteUriDel(uri);
        // Its own configuration may have to leave the effective set.
        pendingRequestIs(requestLtn);
    }
}

// A nested event (a reactor releasing or asking for a request from inside a notification sent
// here) drains everything pending itself; the visit below skips what it took.
void PathSubscribeRequestNotifiee::drainPendingRequests() const {
    WEX_TRACE(traceHandle(), 8, kNotifiee, "");
    pendingRequest_.forEachSafe([this](RequestLtn const& ltn) { handleRequest(ltn); });
    pendingRequestDelAll();
}

void PathSubscribeRequestNotifiee::handleRequest(RequestLtn const& requestLtn) const {
    PathSubscribeRequest const* request = requestLtn->requestRawPtr();
    // A copy: the reactors run by the changes below may release the request.
    PathSubscribeConfig const config = request->pathSubscribeConfig();
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

void PathSubscribeRequestNotifiee::handleNotificationStop(Lumo::Ptr<Oru::DedupHashTable const> const& table) const {
    WEX_TRACE(traceHandle(), 1, kNotifiee, "{}", table);
    // Every tracked request is held until the end: a reactor run by a drain below may release
    // the last client pointer of one not yet untracked, and the table, detached already, would
    // let it die unannounced while its notifier is still filed here.
    std::vector<Lumo::Ptr<PathSubscribeRequest>> tracked;
    for (auto const& set : requestSetForRemoteUri_)
        for (RequestLtn const& ltn : set->request()) tracked.emplace_back(ltn->requestRawPtr());
    for (Lumo::Ptr<PathSubscribeRequest> const& request : tracked) {
        if (!request->lifeTimeNotifier()) continue;  // untracked by a nested stop
        request->dedupStateIs(Oru::DedupHandleState::notificationStopped);
        handleRemove(request.ptr());
    }
    if (!invariant(!requestSetForLocalUris(), __func__,
                   "!requestSetForLocalUris() && \"Must have been cleaned up above\"")) {
        // No notifier may stay filed here once its request is untracked.
        requestSetForLocalUriDelAll();
        requestSetForRemoteUriDelAll();
    }
}

namespace {
void buildTypeTable(Wex::WexModule& m) {
    m.type<EffectiveSubscribeConfig>("Kel::Q7Sync::EffectiveSubscribeConfig")
        .collection("pathSubscribeConfig",
                    [](EffectiveSubscribeConfig const& e) -> auto const& { return e.pathSubscribeConfig(); });
    // NOTIFIEE-TYPES-TABLE
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
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncSubscribeSm", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
