// AgentState: the state an agent publishes for its peers to mirror.
#pragma once

#include "Lumo/Publisher.h"
#include "Lumo/String.h"
#include "Wex/Entity.h"
#include "Wex/EntryMap.h"

namespace Q7Agent {

// Its interfaces and routes, each a map of names to states written by key, and its host name.
// Every change is told to its watchers, so that a published path serves it to subscribers.
class AgentState : public Wex::Entity {
public:
    static constexpr Wex::AttributeId kInterfaces = 130, kRoutes = 131, kHostname = 132;
    using Entries = Wex::EntryMap<Lumo::String, Lumo::String>;

    // Directories make it from a name alone.
    explicit AgentState(Lumo::String name);

    Entries const& interfaces() const noexcept { return interfaces_; }
    void interfacesIs(Lumo::String const& key, Lumo::String const& value) { interfaces_.set({key, value}); }
    Lumo::String interfacesDel(Lumo::String const& key) { return interfaces_.del(key).value; }
    void interfacesDelAll() { interfaces_.delAll(); }

    Entries const& routes() const noexcept { return routes_; }
    void routesIs(Lumo::String const& key, Lumo::String const& value) { routes_.set({key, value}); }
    Lumo::String routesDel(Lumo::String const& key) { return routes_.del(key).value; }
    void routesDelAll() { routes_.delAll(); }

    Lumo::String const& hostname() const noexcept { return hostname_; }
    void hostnameIs(Lumo::String const& hostname);

    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~AgentState() override;

private:
    mutable Lumo::Publisher publisher_;
    Entries interfaces_{"interfaces", kInterfaces, &publisher_};
    Entries routes_{"routes", kRoutes, &publisher_};
    Lumo::String hostname_;
};

} // namespace Q7Agent
