// StateContainer: the write counter and the type table.
#include "host/StateContainer.h"

#include <utility>

#include "Wex/Type.h"

namespace Q7Agent {

StateContainer::StateContainer(Lumo::String name) : Kel::Q7Sync::SyncContainer(std::move(name)) {}

StateContainer::~StateContainer() { hasNotificationActiveIs(false); }

void StateContainer::syncAttributeIs(Lumo::String const& value) {
    ++syncAttributeWrites_;
    if (value == syncAttribute_) return;
    Lumo::String const previous = std::exchange(syncAttribute_, value);
    publisher().publishChangeRecursive(kSyncAttribute, &syncAttribute_, &previous);
}

Wex::WexType const* StateContainer::fwkType() const noexcept { return Wex::wexTypeOf<StateContainer>(); }

namespace {
Wex::WexModuleRegistrar registrar("host/StateContainer", [](Wex::WexModule& m) {
    m.type<StateContainer>("Q7Agent::StateContainer")
        .base<Kel::Q7Sync::SyncContainer>()
        .attribute(
            "syncAttribute", [](StateContainer const& c) { return c.syncAttribute(); },
            [](StateContainer& c, Lumo::String const& value) { c.syncAttributeIs(value); })
        .readOnly("syncAttributeWrites", [](StateContainer const& c) { return c.syncAttributeWrites(); })
        .entityMaker();
});
} // namespace

} // namespace Q7Agent
