// AgentState: the host name's change, and the type table through which commands and the sync
// service read and write it.
#include "host/AgentState.h"

#include <utility>

#include "Wex/Type.h"

namespace Q7Agent {

AgentState::AgentState(Lumo::String name) : Wex::Entity(std::move(name)) {}

AgentState::~AgentState() { hasNotificationActiveIs(false); }

void AgentState::hostnameIs(Lumo::String const& hostname) {
    if (hostname == hostname_) return;
    Lumo::String const previous = std::exchange(hostname_, hostname);
    publisher_.publishChangeRecursive(kHostname, &hostname_, &previous);
}

Wex::WexType const* AgentState::fwkType() const noexcept { return Wex::wexTypeOf<AgentState>(); }

namespace {
Wex::WexModuleRegistrar registrar("host/AgentState", [](Wex::WexModule& m) {
    m.type<AgentState>("Q7Agent::AgentState")
        .base<Wex::Entity>()
        .collection("interfaces", [](AgentState const& s) -> auto const& { return s.interfaces(); })
        .memberIs({"key", "value"}, &AgentState::interfacesIs)
        .memberDel(&AgentState::interfacesDel)
        .memberDelAll(&AgentState::interfacesDelAll)
        .collection("routes", [](AgentState const& s) -> auto const& { return s.routes(); })
        .memberIs({"key", "value"}, &AgentState::routesIs)
        .memberDel(&AgentState::routesDel)
        .memberDelAll(&AgentState::routesDelAll)
        .attribute(
            "hostname", [](AgentState const& s) { return s.hostname(); },
            [](AgentState& s, Lumo::String const& hostname) { s.hostnameIs(hostname); })
        .entityMaker();
});
} // namespace

} // namespace Q7Agent
