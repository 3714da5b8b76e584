// SyncContainer: the local entity a subscription is mirrored into; SyncContainerHandler, the
// client's hook for the containers of one key; SyncContainerHandlerRegistry, the handlers by key.
#pragma once

#include "KelLib/Q7SyncSubscribeRequest.h"
#include "Kivu/IpGenAddr.h"
#include "Lumo/Ptr.h"
#include "Lumo/Publisher.h"
#include "Lumo/String.h"
#include "Wex/Collection.h"
#include "Wex/Entity.h"
#include "Wex/PtrInterface.h"
#include "Wex/RunToCompletion.h"

namespace Kel::Q7Sync {

// The module's events, which run to completion: a request entering or leaving the dedup table
// and a change of the handler registry, asked for from inside another event (by a handler
// that is being told of a container), wait until that event has completed. One for the
// process, as the framework thread is one.
Wex::RunToCompletion& clientEvents();

// The base of every container type. A derived type adds the attribute "syncAttribute" that
// the subscription's localUri names and the sync service writes into.
class SyncContainer : public Wex::Entity {
public:
    // Attribute identifiers count from 130 in the order of the type table; a derived type
    // numbers its own attributes from kAttributeEnd on, so that one publisher serves both.
    static constexpr Wex::AttributeId kPathSubscribeConfig = 131;
    static constexpr Wex::AttributeId kAttributeEnd = 135;

    // Directories make containers from a name alone (Wex::Dir::createEntity).
    explicit SyncContainer(Lumo::String name);

    // The container for config in dir, of config's syncContainerType and named its
    // syncContainerKey: the one dir holds under that name, or a new one. With flags 0x15 the
    // type's "syncAttribute", when it has a writable one, is reset through reflection before
    // the container is configured. Refuses a null dir or type (Wex::NullArgumentException), a
    // name held by an entity of another type (Wex::NewEntityArgsException) and a container that
    // serves another subscription (setConfig's refusal), creating and changing nothing.
    static Lumo::Ptr<SyncContainer> create(Lumo::Ptr<Wex::Dir> const& dir, PathSubscribeConfig const& config);

    Lumo::String syncAttributeName() const { return Lumo::String("syncAttribute"); }
    PathSubscribeConfig const& pathSubscribeConfig() const noexcept { return pathSubscribeConfig_; }
    Kivu::IpGenAddr const& remoteAddr() const noexcept { return pathSubscribeConfig_.remoteAddr(); }

    // Configures the container once: an unconfigured container takes config, a configured one
    // accepts only its own config again. Anything else is refused with
    // Wex::ReInstantiationException of "pathSubscribeConfig" and changes nothing.
    void setConfig(PathSubscribeConfig const& config);
    // The raw setter: tells watchers (attribute kPathSubscribeConfig, previous value) of any
    // change. A container recorded in SyncContainerStatus is keyed by this value; use setConfig.
    void pathSubscribeConfigIs(PathSubscribeConfig const& config);

    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~SyncContainer() override;
    Lumo::Publisher& publisher() const noexcept { return publisher_; }

private:
    mutable Lumo::Publisher publisher_;
    PathSubscribeConfig pathSubscribeConfig_;
};

// What a client registers to be given the containers of one syncContainerKey. Both calls
// come from inside notifications: they must not throw, and containerIs must accept a
// container it already holds (the dispatch may give one twice).
class SyncContainerHandler : public Wex::PtrInterface {
public:
    Lumo::String const& syncContainerKey() const noexcept { return syncContainerKey_; }

    virtual void containerIs(Lumo::Ptr<SyncContainer const> const& container) const = 0;
    virtual void containerDel(PathSubscribeConfig const& pathSubscribeConfig) const = 0;

    Wex::WexType const* fwkType() const noexcept override;

protected:
    explicit SyncContainerHandler(Lumo::String syncContainerKey);
    ~SyncContainerHandler() override;

private:
    Lumo::String const syncContainerKey_;
};

// At most one handler per key. Watchers hear of each change (attribute kSyncContainerHandler)
// with the key and the handler it replaced or removed (null after an insertion).
class SyncContainerHandlerRegistry : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kSyncContainerHandler = 130;
    using Handlers = Wex::Collection<Lumo::String, Lumo::Ptr<SyncContainerHandler const>,
                                     Wex::MemberKey<&SyncContainerHandler::syncContainerKey>>;

    static Lumo::Ptr<SyncContainerHandlerRegistry> SyncContainerHandlerRegistryIs();

    Handlers const& syncContainerHandler() const noexcept { return syncContainerHandler_; }
    Lumo::Ptr<SyncContainerHandler const> syncContainerHandler(Lumo::String const& key) const {
        return syncContainerHandler_.get(key);
    }
    // Registers handler under its own key; refuses null (Wex::NullArgumentException),
    // changing nothing. Each change is an event of clientEvents(): asked for by a handler that
    // is being told of a container, it is made once that event has completed.
    void syncContainerHandlerIs(Lumo::Ptr<SyncContainerHandler const> const& handler);
    // Returns the handler it removes: the one registered when it is asked.
    Lumo::Ptr<SyncContainerHandler const> syncContainerHandlerDel(Lumo::String const& key);
    void syncContainerHandlerDelAll();

    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    SyncContainerHandlerRegistry() = default;
    ~SyncContainerHandlerRegistry() override;

private:
    mutable Lumo::Publisher publisher_;
    Handlers syncContainerHandler_{"syncContainerHandler", kSyncContainerHandler, &publisher_};
};

Lumo::Ptr<SyncContainerHandlerRegistry> syncContainerHandlerRegistryFactory();

} // namespace Kel::Q7Sync
