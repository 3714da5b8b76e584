// The subscription reactors: the effective subscribe configuration and the request notifiee
// that maintains it, the container and subscribe state machines, and the handler dispatch.
#pragma once

#include <cstddef>
#include <unordered_map>
#include <vector>
#include "KelLib/Q7SyncContainer.h"
#include "KelLib/Q7SyncSubscribeRequest.h"
#include "KelLib/Q7SyncSubscribeStatus.h"
#include "Lumo/Ptr.h"
#include "Lumo/Publisher.h"
#include "Lumo/String.h"
#include "Q7Serdes/Status.h"
#include "Wex/Collection.h"
#include "Wex/Entity.h"
#include "Wex/PtrInterface.h"

namespace Kel::Q7Sync {

// The subscriptions in force. Watchers hear of each insertion (previous value null) and each
// removal (previous value the removed configuration) with the configuration as the key. Each
// change is part of the event of clientEvents() under way, or an event of its own.
class EffectiveSubscribeConfig : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kPathSubscribeConfig = 130;
    using Configs = Wex::Collection<PathSubscribeConfig, PathSubscribeConfig>;

    static Lumo::Ptr<EffectiveSubscribeConfig> EffectiveSubscribeConfigIs();

    Configs const& pathSubscribeConfig() const noexcept { return pathSubscribeConfig_; }
    bool pathSubscribeConfigHas(PathSubscribeConfig const& config) const noexcept { return pathSubscribeConfig_.has(config); }
    void pathSubscribeConfigIs(PathSubscribeConfig const& config) {
        clientEvents().now([&] { pathSubscribeConfig_.set(config); });
    }
    bool pathSubscribeConfigDel(PathSubscribeConfig const& config) {
        bool deleted = false;
        clientEvents().now([&] { deleted = pathSubscribeConfig_.del(config); });
        return deleted;
    }
    void pathSubscribeConfigDelAll() { clientEvents().now([&] { pathSubscribeConfig_.delAll(); }); }

    Lumo::Publisher& publisher() const noexcept { return publisher_; }
    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    EffectiveSubscribeConfig() = default;
    ~EffectiveSubscribeConfig() override;

private:
    mutable Lumo::Publisher publisher_;
    Configs pathSubscribeConfig_{"pathSubscribeConfig", kPathSubscribeConfig, &publisher_};
};

Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfigFactory();


// The requests that use one URI, by their life-time notifiers. A set exists only while it
// holds a request.
class PathSubscribeRequestSetForUri : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kRequest = 131;
    using RequestLtn = Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier const>;
    using Requests = Wex::Collection<RequestLtn, RequestLtn>;

    static Lumo::Ptr<PathSubscribeRequestSetForUri> PathSubscribeRequestSetForUriIs(Lumo::String const& uri);

    Lumo::String const& uri() const noexcept { return uri_; }
    Requests const& request() const noexcept { return request_; }
    std::size_t requests() const noexcept { return request_.size(); }
    bool requestHas(RequestLtn const& ltn) const noexcept { return request_.has(ltn); }
    void requestIs(RequestLtn const& ltn) { request_.set(ltn); }
    bool requestDel(RequestLtn const& ltn) { return request_.del(ltn); }
    void requestDelAll() { request_.delAll(); }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    explicit PathSubscribeRequestSetForUri(Lumo::String uri);
    ~PathSubscribeRequestSetForUri() override;

private:
    Lumo::String const uri_;
    Requests request_{"request", kRequest};
};

Lumo::Ptr<PathSubscribeRequestSetForUri> pathSubscribeRequestSetForUriFactory(Lumo::String const& uri);

// The request dedup table's life-time notifiee. It files each request under its remote and its
// local URI and keeps EffectiveSubscribeConfig to the rule: a configuration is effective
// exactly when its request is the only one for its remote URI and the only one for its local
// URI. Each event updates the sets first and then re-evaluates the requests it made pending.
// Events run to completion (clientEvents()): a request asked for or released from inside
// another event, by a handler say, is filed or dropped once that event has completed.
// Everything here runs inside notifications: a broken invariant is traced at level 0, never
// thrown.
class PathSubscribeRequestNotifiee : public Oru::DedupHashTableLifeTimeNotifiee {
public:
    static constexpr Wex::AttributeId kPendingRequest = 132;
    static constexpr Wex::AttributeId kRequestSetForLocalUri = 134;
    static constexpr Wex::AttributeId kRequestSetForRemoteUri = 135;
    using RequestLtn = PathSubscribeRequestSetForUri::RequestLtn;
    using Pending = Wex::Collection<RequestLtn, RequestLtn>;
    using RequestSets = Wex::Collection<Lumo::String, Lumo::Ptr<PathSubscribeRequestSetForUri>,
                                        Wex::MemberKey<&PathSubscribeRequestSetForUri::uri>>;

    // Refuses a null configuration with Wex::NullArgumentException "effectiveSubscribeConfig".
    static Lumo::Ptr<PathSubscribeRequestNotifiee> PathSubscribeRequestNotifieeIs(
        Lumo::Ptr<EffectiveSubscribeConfig> const& effectiveSubscribeConfig);

    Lumo::Ptr<EffectiveSubscribeConfig> const& effectiveSubscribeConfig() const noexcept {
        return effectiveSubscribeConfig_;
    }

    // The framework table's calls: a request entered the table, left it, or the table stopped
    // telling this notifiee (every tracked request is then untracked, every configuration
    // leaves EffectiveSubscribeConfig). Each is an event of its own.
    void handleInsert(Lumo::Ptr<Oru::DedupHandleBase> const& request) const override;
    void handleRemove(Oru::DedupHandleBase* request) const override;
    void handleNotificationStop(Lumo::Ptr<Oru::DedupHashTable const> const& table) const override;

    // The steps of an event. Arguments are never null; requestLtn's request may be gone (its
    // configuration is the notifier's).
    void handleRequest(RequestLtn const& requestLtn) const;
    void drainPendingRequests() const;
    void addRequestToSet(Lumo::Ptr<PathSubscribeRequestSetForUri> const& requestSet,
                         RequestLtn const& requestLtn) const;
    void removeRequestFromSet(Lumo::Ptr<PathSubscribeRequestSetForUri> const& requestSet,
                              RequestLtn const& requestLtn) const;

    // Empty between events.
    Pending const& pendingRequest() const noexcept { return pendingRequest_; }
    void pendingRequestIs(RequestLtn const& ltn) const { pendingRequest_.set(ltn); }
    bool pendingRequestDel(RequestLtn const& ltn) const { return pendingRequest_.del(ltn); }
    void pendingRequestDelAll() const { pendingRequest_.delAll(); }

    RequestSets const& requestSetForLocalUri() const noexcept { return requestSetForLocalUri_; }
    std::size_t requestSetForLocalUris() const noexcept { return requestSetForLocalUri_.size(); }
    bool requestSetForLocalUriHas(Lumo::String const& uri) const noexcept { return requestSetForLocalUri_.has(uri); }
    // The set for uri, created empty when there is none.
    Lumo::Ptr<PathSubscribeRequestSetForUri> requestSetForLocalUriIs(Lumo::String const& uri) const;
    Lumo::Ptr<PathSubscribeRequestSetForUri> requestSetForLocalUriDel(Lumo::String const& uri) const;
    void requestSetForLocalUriDelAll() const { requestSetForLocalUri_.delAll(); }

    RequestSets const& requestSetForRemoteUri() const noexcept { return requestSetForRemoteUri_; }
    std::size_t requestSetForRemoteUris() const noexcept { return requestSetForRemoteUri_.size(); }
    bool requestSetForRemoteUriHas(Lumo::String const& uri) const noexcept { return requestSetForRemoteUri_.has(uri); }
    Lumo::Ptr<PathSubscribeRequestSetForUri> requestSetForRemoteUriIs(Lumo::String const& uri) const;
    Lumo::Ptr<PathSubscribeRequestSetForUri> requestSetForRemoteUriDel(Lumo::String const& uri) const;
    void requestSetForRemoteUriDelAll() const { requestSetForRemoteUri_.delAll(); }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    explicit PathSubscribeRequestNotifiee(Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfig);
    ~PathSubscribeRequestNotifiee() override;

private:
    void trackRequest(Lumo::Ptr<PathSubscribeRequest> const& request) const;
    void untrackRequest(RequestLtn const& requestLtn) const;
    void untrackAll(Lumo::Ptr<Oru::DedupHashTable const> const& table) const;

    Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfig_;
    mutable Pending pendingRequest_{"pendingRequest", kPendingRequest};
    mutable RequestSets requestSetForLocalUri_{"requestSetForLocalUri", kRequestSetForLocalUri};
    mutable RequestSets requestSetForRemoteUri_{"requestSetForRemoteUri", kRequestSetForRemoteUri};
};

Lumo::Ptr<PathSubscribeRequestNotifiee> pathSubscribeRequestNotifieeFactory(
    Lumo::Ptr<EffectiveSubscribeConfig> const& effectiveSubscribeConfig);

// The recorded containers, keyed by the subscription each serves (its pathSubscribeConfig).
// A record keeps its container alive. Watchers hear of each insertion, replacement and
// removal (attribute kSyncContainer) with the key and the previous container. Each change is
// part of the event of clientEvents() under way, or an event of its own: the handlers told of
// it see their calls into the module wait until every watcher has heard of it.
class SyncContainerStatus : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kSyncContainer = 130;
    using Containers = Wex::Collection<PathSubscribeConfig, Lumo::Ptr<SyncContainer const>,
                                       Wex::MemberKey<&SyncContainer::pathSubscribeConfig>>;

    static Lumo::Ptr<SyncContainerStatus> SyncContainerStatusIs();

    Containers const& syncContainer() const noexcept { return syncContainer_; }
    Lumo::Ptr<SyncContainer const> syncContainer(PathSubscribeConfig const& config) const {
        return syncContainer_.get(config);
    }
    // Records container under its own pathSubscribeConfig; refuses null
    // (Wex::NullArgumentException of "syncContainer").
    void syncContainerIs(Lumo::Ptr<SyncContainer const> const& container);
    Lumo::Ptr<SyncContainer const> syncContainerDel(PathSubscribeConfig const& config);
    void syncContainerDelAll();

    // The containers recorded for one syncContainerKey, as a snapshot that later changes of
    // the status do not disturb.
    std::vector<Lumo::Ptr<SyncContainer const>> syncContainersOfKey(Lumo::String const& syncContainerKey) const;

    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    SyncContainerStatus() = default;
    ~SyncContainerStatus() override;

private:
    mutable Lumo::Publisher publisher_;
    Containers syncContainer_{"syncContainer", kSyncContainer, &publisher_};
    // The same records by syncContainerKey, so that a handler's replay visits only its key.
    // Nobody watches these; they change before syncContainer_ tells its watchers.
    std::unordered_map<Lumo::String, Containers> syncContainerByKey_;
};

Lumo::Ptr<SyncContainerStatus> syncContainerStatusFactory();

// Gives every subscription in force its container in remoteDir / remoteAgentKey /
// syncContainerKey and records it; takes record and container away when the subscription
// ends, the record first, so that watchers of the status still find the container in place.
// Destroying the reactor leaves containers and records as they are.
class SyncContainerSm : public Wex::PtrInterface, private EffectiveSubscribeConfig::Configs::Watcher {
public:
    // Refuses a null status or directory (Wex::NullArgumentException); a null configuration
    // counts as an empty one.
    static Lumo::Ptr<SyncContainerSm> SyncContainerSmIs(Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig,
                                                        Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus,
                                                        Lumo::Ptr<Wex::Dir> const& remoteDir);

    Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig() const noexcept { return subscribeConfig_; }
    Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus() const noexcept { return syncContainerStatus_; }
    Lumo::Ptr<Wex::Dir> const& remoteDir() const noexcept { return remoteDir_; }

    void addContainer(PathSubscribeConfig const& config);
    void removeContainer(PathSubscribeConfig const& config);
    // Adds the container of a subscription in force, removes that of any other.
    void handlePathSubscribeConfig(PathSubscribeConfig const& pathSubscribeConfig);
    // Every recorded subscription, then every one in force.
    void handlePathSubscribeConfig();

    void hasNotificationActiveIs(bool active) override;
    Wex::WexType const* fwkType() const noexcept override;

protected:
    SyncContainerSm(Lumo::Ptr<EffectiveSubscribeConfig const> subscribeConfig,
                    Lumo::Ptr<SyncContainerStatus> syncContainerStatus, Lumo::Ptr<Wex::Dir> remoteDir);
    ~SyncContainerSm() override;

private:
    void onMember(EffectiveSubscribeConfig::Configs const&, PathSubscribeConfig const& config,
                  PathSubscribeConfig const* removed) override;
    void agentDirDelIfEmpty(Lumo::String const& remoteAgentKey);

    Lumo::Ptr<EffectiveSubscribeConfig const> const subscribeConfig_;
    Lumo::Ptr<SyncContainerStatus> const syncContainerStatus_;
    Lumo::Ptr<Wex::Dir> const remoteDir_;
};

Lumo::Ptr<SyncContainerSm> syncContainerSmFactory(Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig,
                                                  Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus,
                                                  Lumo::Ptr<Wex::Dir> const& remoteDir);

// Subscribes, on the sync service, every subscription that is in force and has its container
// recorded, and unsubscribes it as soon as either is missing. Keeps each returned status in
// SubscribeStatus and watches it through a Q7SyncStatusSm per remote URI. Destroying the
// reactor unsubscribes nothing and leaves SubscribeStatus as it is.
class SubscribeSm : public Wex::PtrInterface,
                    private EffectiveSubscribeConfig::Configs::Watcher,
                    private SyncContainerStatus::Containers::Watcher {
public:
    using SyncStatus = Q7Serdes::WexUtils::SyncStatus;

    // Traces each change of the status of one subscribed remote URI. Owned by its SubscribeSm
    // through a counted pointer; its back pointer to the owner is not counted and is cleared
    // when the owner lets it go.
    class Q7SyncStatusSm : public Wex::PtrInterface::NotifieeConst {
    public:
        // Watches status without tracing it; the owner switches notification on.
        Q7SyncStatusSm(Lumo::Ptr<SyncStatus const> const& status, SubscribeSm* subscribeSm);

        SubscribeSm* subscribeSm() const noexcept { return subscribeSm_; }
        void subscribeSmIs(SubscribeSm* subscribeSm) noexcept { subscribeSm_ = subscribeSm; }
        Lumo::Ptr<SyncStatus const> q7SyncStatus() const noexcept { return Lumo::Ptr<SyncStatus const>(syncStatus()); }
        void q7SyncStatusIs(Lumo::Ptr<SyncStatus const> const& status) { notifierIs(status); }
        // The uri of the watched status, empty when it watches none; the owner's key for it.
        // Kept here with each new notifier, so that a look-up in the owner's map reads no
        // further than the reactor.
        Lumo::String const& remoteUri() const noexcept { return remoteUri_; }

        // Watches p when it is a SyncStatus (anything else counts as null) and traces a new
        // status at once.
        void notifierIs(Lumo::Ptr<Wex::PtrInterface const> const& p) override;
        void onAttribute(Wex::AttributeId attribute, void const* value) override;
        void handleSyncStatus() const;
        void wexDoZombieReactors(bool marked) override;
        Wex::WexType const* fwkType() const noexcept override;

    protected:
        ~Q7SyncStatusSm() override;

    private:
        // The notifier is always a SyncStatus or null: notifierIs admits nothing else.
        SyncStatus const* syncStatus() const noexcept { return static_cast<SyncStatus const*>(notifier().ptr()); }

        SubscribeSm* subscribeSm_;
        Lumo::String remoteUri_;
    };

    static constexpr Wex::AttributeId kQ7SyncStatus = 136;
    using StatusSms = Wex::Collection<Lumo::String, Lumo::Ptr<Q7SyncStatusSm>, Wex::MemberKey<&Q7SyncStatusSm::remoteUri>>;

    // Refuses any null argument (Wex::NullArgumentException naming it).
    static Lumo::Ptr<SubscribeSm> SubscribeSmIs(Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig,
                                                Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus,
                                                Lumo::Ptr<SubscribeStatus> const& subscribeStatus);

    Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig() const noexcept { return subscribeConfig_; }
    Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus() const noexcept { return syncContainerStatus_; }
    Lumo::Ptr<SubscribeStatus> const& subscribeStatus() const noexcept { return subscribeStatus_; }

    // Records the status the service returns. A null status (Wex::NullArgumentException of
    // "q7SyncStatus") or one other than the status recorded for config
    // (Wex::ReInstantiationException of "syncStatus") is refused, and nothing is recorded.
    void subscribe(PathSubscribeConfig const& config);
    void unsubscribe(PathSubscribeConfig const& config);
    // Subscribes a subscription in force with its container recorded, unsubscribes any other
    // that is subscribed.
    void handlePathSubscribeConfig(PathSubscribeConfig const& config);
    // Every subscribed subscription, then every one in force.
    void handlePathSubscribeConfig();

    // Two views of one map, keyed by remote URI: the statuses, and the reactors watching them.
    StatusSms const& wexQ7SyncStatus() const noexcept { return wexQ7SyncStatus_; }
    Lumo::Ptr<Q7SyncStatusSm> wexQ7SyncStatus(Lumo::String const& uri) const { return wexQ7SyncStatus_.get(uri); }
    Lumo::Ptr<SyncStatus const> q7SyncStatus(Lumo::String const& uri) const;
    // Watches status under its uri: reuses the reactor there, rebinding it to another status
    // entity; refuses null (Wex::NullArgumentException of "q7SyncStatus").
    void q7SyncStatusIs(Lumo::Ptr<SyncStatus const> const& status);
    Lumo::Ptr<SyncStatus const> q7SyncStatusDel(Lumo::String const& uri);
    void q7SyncStatusDelAll();

    void hasNotificationActiveIs(bool active) override;
    void wexDoZombieReactors(bool marked) override;
    Wex::WexType const* fwkType() const noexcept override;

protected:
    SubscribeSm(Lumo::Ptr<EffectiveSubscribeConfig const> subscribeConfig,
                Lumo::Ptr<SyncContainerStatus> syncContainerStatus, Lumo::Ptr<SubscribeStatus> subscribeStatus);
    ~SubscribeSm() override;

private:
    void onMember(EffectiveSubscribeConfig::Configs const&, PathSubscribeConfig const& config,
                  PathSubscribeConfig const* removed) override;
    void onMember(SyncContainerStatus::Containers const&, PathSubscribeConfig const& config,
                  Lumo::Ptr<SyncContainer const> const* previous) override;

    Lumo::Ptr<EffectiveSubscribeConfig const> const subscribeConfig_;
    Lumo::Ptr<SyncContainerStatus> const syncContainerStatus_;
    Lumo::Ptr<SubscribeStatus> const subscribeStatus_;
    StatusSms wexQ7SyncStatus_{"q7SyncStatus", kQ7SyncStatus};
};

Lumo::Ptr<SubscribeSm> subscribeSmFactory(Lumo::Ptr<EffectiveSubscribeConfig const> const& subscribeConfig,
                                          Lumo::Ptr<SyncContainerStatus> const& syncContainerStatus,
                                          Lumo::Ptr<SubscribeStatus> const& subscribeStatus);

// Keeps every registered handler holding exactly the recorded containers of its key:
// containerIs when a record appears or the handler arrives, containerDel when the record goes,
// the handler leaves, or the reactor is destroyed. An outgoing handler is told containerDel
// before the incoming one is given the container. Handlers are called inside events that run
// to completion (clientEvents()): what a handler asks of the module waits until the event that
// called it has completed, so a hand-over is never overtaken by another.
class SyncContainerHandlerSm : public Wex::PtrInterface, private SyncContainerStatus::Containers::Watcher {
public:
    using Handler = Lumo::Ptr<SyncContainerHandler const>;

    // The reactor's subscription to the registry's publisher.
    class on_syncContainerHandlerRegistry final : public SyncContainerHandlerRegistry::Handlers::Watcher {
    public:
        explicit on_syncContainerHandlerRegistry(SyncContainerHandlerSm& reactor) noexcept : reactor_(reactor) {}

        // The handler of key changed; old is the one it had (null after an insertion).
        void on_child(Lumo::String const& key, Handler const& old);
        // Moves the reactor's subscription from registry r0 to r1 (either may be null) and
        // replays every handler of r0 (to r1's handler of its key, or none), then r1's handlers
        // of the keys r0 has none for.
        void on_self0(Lumo::Ptr<SyncContainerHandlerRegistry const> const& r0,
                      Lumo::Ptr<SyncContainerHandlerRegistry const> const& r1);
        static void on_shutdown(SyncContainerHandlerSm& reactor, SyncContainerHandlerRegistry const& registry) noexcept;

    private:
        void onMember(SyncContainerHandlerRegistry::Handlers const&, Lumo::String const& key,
                      Handler const* old) override;
        SyncContainerHandlerSm& reactor_;  // the enclosing reactor, whose member this is
    };

    // Either argument may be null: no registry means no handlers, no status no containers.
    static Lumo::Ptr<SyncContainerHandlerSm> SyncContainerHandlerSmIs(
        Lumo::Ptr<SyncContainerHandlerRegistry const> const& syncContainerHandlerRegistry,
        Lumo::Ptr<SyncContainerStatus const> const& syncContainerStatus);

    Lumo::Ptr<SyncContainerHandlerRegistry const> const& syncContainerHandlerRegistry() const noexcept {
        return syncContainerHandlerRegistry_;
    }
    Lumo::Ptr<SyncContainerStatus const> const& syncContainerStatus() const noexcept { return syncContainerStatus_; }

    // For each recorded container of the key: oldHandler's containerDel, then newHandler's
    // containerIs (either handler may be null).
    void handleSyncContainerHandler(Lumo::String const& syncContainerKey, Handler const& oldHandler,
                                    Handler const& newHandler);
    // Gives the container recorded for the subscription to its key's handler, or withdraws it.
    void handleSyncContainer(PathSubscribeConfig const& pathSubscribeConfig);
    void handleInitialized();
    void doCleanup();

    // Switches the status subscription only; the registry's stays as it is.
    void hasNotificationActiveIs(bool active) override;
    Wex::WexType const* fwkType() const noexcept override;

protected:
    SyncContainerHandlerSm(Lumo::Ptr<SyncContainerHandlerRegistry const> syncContainerHandlerRegistry,
                           Lumo::Ptr<SyncContainerStatus const> syncContainerStatus);
    ~SyncContainerHandlerSm() override;

private:
    void onMember(SyncContainerStatus::Containers const&, PathSubscribeConfig const& config,
                  Lumo::Ptr<SyncContainer const> const* previous) override;
    // Hands the recorded containers of one key from oldHandler over to newHandler.
    void replay(Lumo::String const& syncContainerKey, Handler const& oldHandler, Handler const& newHandler);
    void giveContainer(Handler const& handler, Lumo::Ptr<SyncContainer const> const& container);
    void withdrawContainer(Handler const& handler, PathSubscribeConfig const& config);

    Lumo::Ptr<SyncContainerHandlerRegistry const> syncContainerHandlerRegistry_;
    Lumo::Ptr<SyncContainerStatus const> syncContainerStatus_;
    on_syncContainerHandlerRegistry registryNotifiee_{*this};
};

Lumo::Ptr<SyncContainerHandlerSm> syncContainerHandlerSmFactory(
    Lumo::Ptr<SyncContainerHandlerRegistry const> const& syncContainerHandlerRegistry,
    Lumo::Ptr<SyncContainerStatus const> const& syncContainerStatus);

} // namespace Kel::Q7Sync
