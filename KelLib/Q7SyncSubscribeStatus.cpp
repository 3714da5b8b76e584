// SubscribeStatus and PathSubscribeStatus, with their type tables.
#include "KelLib/Q7SyncSubscribeStatus.h"

#include "Wex/Type.h"

namespace Kel::Q7Sync {

PathSubscribeStatus::PathSubscribeStatus(PathSubscribeConfig const& pathSubscribeConfig,
                                         Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus const> const& syncStatus)
    : pathSubscribeConfig_(pathSubscribeConfig), syncStatus_(syncStatus) {}

PathSubscribeStatus::~PathSubscribeStatus() { hasNotificationActiveIs(false); }

Wex::WexType const* PathSubscribeStatus::fwkType() const noexcept { return Wex::wexTypeOf<PathSubscribeStatus>(); }

Lumo::Ptr<SubscribeStatus> SubscribeStatus::SubscribeStatusIs() {
    Lumo::Ptr<SubscribeStatus> status(new SubscribeStatus());
    status->hasNotificationActiveIs(true);
    return status;
}

Lumo::Ptr<SubscribeStatus> subscribeStatusFactory() { return SubscribeStatus::SubscribeStatusIs(); }

SubscribeStatus::~SubscribeStatus() {
    hasNotificationActiveIs(false);
    pathSubscribeStatusDelAll();
}

Lumo::Ptr<PathSubscribeStatus> SubscribeStatus::pathSubscribeStatusIs(
    PathSubscribeConfig const& config, Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus const> const& status) {
    if (Lumo::Ptr<PathSubscribeStatus> held = pathSubscribeStatus_.get(config)) {
        if (held->syncStatus() != status) throw Wex::ReInstantiationException("syncStatus");
        return held;
    }
    Lumo::Ptr<PathSubscribeStatus> entry(new PathSubscribeStatus(config, status));
    entry->hasNotificationActiveIs(true);
    pathSubscribeStatus_.set(entry);
    return entry;
}

Wex::WexType const* SubscribeStatus::fwkType() const noexcept { return Wex::wexTypeOf<SubscribeStatus>(); }

namespace {
void buildTypeTable(Wex::WexModule& m) {
    m.type<SubscribeStatus>("Kel::Q7Sync::SubscribeStatus")
        .collection("pathSubscribeStatus", [](SubscribeStatus const& s) -> auto const& { return s.pathSubscribeStatus(); })
        .memberIs({"pathSubscribeConfig", "syncStatus"}, &SubscribeStatus::pathSubscribeStatusIs)
        .memberDel(&SubscribeStatus::pathSubscribeStatusDel)
        .memberDelAll(&SubscribeStatus::pathSubscribeStatusDelAll);
    m.type<PathSubscribeStatus>("Kel::Q7Sync::PathSubscribeStatus")
        .readOnly("pathSubscribeConfig", [](PathSubscribeStatus const& e) { return e.pathSubscribeConfig(); })
        .readOnly("syncStatus", [](PathSubscribeStatus const& e) { return e.syncStatus(); });
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncSubscribeStatus", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
