// The subscription reactors: the effective subscribe configuration and the request notifiee
// that maintains it, the container and subscribe state machines, and the handler dispatch.
#pragma once

#include <cstddef>

#include "KelLib/Q7SyncSubscribeRequest.h"
#include "Lumo/Publisher.h"
#include "Lumo/String.h"
#include "Wex/Collection.h"
#include "Wex/PtrInterface.h"

namespace Kel::Q7Sync {

// The subscriptions in force. Watchers hear of each insertion (previous value null) and each
// removal (previous value the removed configuration) with the configuration as the key.
class EffectiveSubscribeConfig : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kPathSubscribeConfig = 130;
    using Configs = Wex::Collection<PathSubscribeConfig, PathSubscribeConfig>;

    static Lumo::Ptr<EffectiveSubscribeConfig> EffectiveSubscribeConfigIs();

    Configs const& pathSubscribeConfig() const noexcept { return pathSubscribeConfig_; }
    bool pathSubscribeConfigHas(PathSubscribeConfig const& config) const noexcept { return pathSubscribeConfig_.has(config); }
    void pathSubscribeConfigIs(PathSubscribeConfig const& config) { pathSubscribeConfig_.set(config); }
    bool pathSubscribeConfigDel(PathSubscribeConfig const& config) { return pathSubscribeConfig_.del(config); }
    void pathSubscribeConfigDelAll() { pathSubscribeConfig_.delAll(); }

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

// NOTIFIEE-DECLARATIONS

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
    // leaves EffectiveSubscribeConfig).
    void handleInsert(Lumo::Ptr<Oru::DedupHandleBase> const& request) const override;
    void handleRemove(Oru::DedupHandleBase* request) const override;
    void handleNotificationStop(Lumo::Ptr<Oru::DedupHashTable const> const& table) const override;

    // The steps of an event. Arguments are never null; requestLtn names a live request.
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
    Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfig_;
    mutable Pending pendingRequest_{"pendingRequest", kPendingRequest};
    mutable RequestSets requestSetForLocalUri_{"requestSetForLocalUri", kRequestSetForLocalUri};
    mutable RequestSets requestSetForRemoteUri_{"requestSetForRemoteUri", kRequestSetForRemoteUri};
};

Lumo::Ptr<PathSubscribeRequestNotifiee> pathSubscribeRequestNotifieeFactory(
    Lumo::Ptr<EffectiveSubscribeConfig> const& effectiveSubscribeConfig);

} // namespace Kel::Q7Sync
