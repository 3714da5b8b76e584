// StateContainer: its type table, through which the sync service writes the mirrored entries.
#include "host/StateContainer.h"

#include <utility>

#include "Wex/Type.h"

namespace Q7Agent {

StateContainer::StateContainer(Lumo::String name) : Kel::Q7Sync::SyncContainer(std::move(name)) {}

StateContainer::~StateContainer() { hasNotificationActiveIs(false); }

Wex::WexType const* StateContainer::fwkType() const noexcept { return Wex::wexTypeOf<StateContainer>(); }

namespace {
Wex::WexModuleRegistrar registrar("host/StateContainer", [](Wex::WexModule& m) {
    m.type<StateContainer>("Q7Agent::StateContainer")
        .base<Kel::Q7Sync::SyncContainer>()
        .collection("syncAttribute", [](StateContainer const& c) -> auto const& { return c.syncAttribute(); })
        .memberIs({"key", "value"}, &StateContainer::syncAttributeIs)
        .memberDel(&StateContainer::syncAttributeDel)
        .memberDelAll(&StateContainer::syncAttributeDelAll)
        .entityMaker();
});
} // namespace

} // namespace Q7Agent
