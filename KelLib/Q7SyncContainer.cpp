// SyncContainer: construction and type table.
#include "KelLib/Q7SyncContainer.h"

namespace Kel::Q7Sync {

SyncContainer::SyncContainer(Lumo::String name) : Wex::Entity(std::move(name)) {}

SyncContainer::~SyncContainer() { hasNotificationActiveIs(false); }

Wex::WexType const* SyncContainer::fwkType() const noexcept { return Wex::wexTypeOf<SyncContainer>(); }

namespace {
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncContainer", [](Wex::WexModule& m) {
    m.type<SyncContainer>("Kel::Q7Sync::SyncContainer")
        .base<Wex::Entity>()
        .constant("syncAttributeName", [](SyncContainer const&) { return Lumo::String("syncAttribute"); })
        .readOnly("pathSubscribeConfig", [](SyncContainer const& c) { return c.pathSubscribeConfig(); })
        .entityMaker();
});
} // namespace

} // namespace Kel::Q7Sync
