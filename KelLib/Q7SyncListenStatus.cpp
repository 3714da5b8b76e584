// ListenStatus and its record ListenConfigStatus, with their type tables.
#include "KelLib/Q7SyncListenStatus.h"

#include <utility>

#include "Wex/Type.h"

namespace Kel::Q7Sync {

ListenConfigStatus::ListenConfigStatus(ListenConfig const& listenConfig, Lumo::Ptr<Q7ListenStatus const> q7ListenStatus)
    : listenConfig_(listenConfig), q7ListenStatus_(std::move(q7ListenStatus)) {}

ListenConfigStatus::~ListenConfigStatus() { hasNotificationActiveIs(false); }

Wex::WexType const* ListenConfigStatus::fwkType() const noexcept { return Wex::wexTypeOf<ListenConfigStatus>(); }

Lumo::Ptr<ListenStatus> ListenStatus::ListenStatusIs() {
    Lumo::Ptr<ListenStatus> s(new ListenStatus());
    s->hasNotificationActiveIs(true);
    return s;
}

Lumo::Ptr<ListenStatus> listenStatusFactory() { return ListenStatus::ListenStatusIs(); }

ListenStatus::~ListenStatus() { hasNotificationActiveIs(false); }

Wex::WexType const* ListenStatus::fwkType() const noexcept { return Wex::wexTypeOf<ListenStatus>(); }

Lumo::Ptr<ListenConfigStatus> ListenStatus::listenConfigStatusIs(ListenConfig const& listenConfig,
                                                                 Lumo::Ptr<Q7ListenStatus const> const& q7ListenStatus) {
    if (listenConfigStatus_ && ListenConfig::isEq(listenConfigStatus_->listenConfig(), listenConfig) &&
        listenConfigStatus_->q7ListenStatus() == q7ListenStatus)
        return listenConfigStatus_;
    // Built before the old record goes: the arguments may be fields of that record.
    Lumo::Ptr<ListenConfigStatus> record(new ListenConfigStatus(listenConfig, q7ListenStatus));
    record->hasNotificationActiveIs(true);
    listenConfigStatus_ = record;
    return record;
}

Lumo::Ptr<ListenConfigStatus> ListenStatus::listenConfigStatusDel() noexcept {
    return std::exchange(listenConfigStatus_, nullptr);
}

namespace {
void buildTypeTable(Wex::WexModule& m) {
    m.type<ListenStatus>("Kel::Q7Sync::ListenStatus")
        // A write takes the endpoint and status of the record given; a write of null (or with no
        // argument, which resets the attribute to its initial value) deletes the record.
        .attribute(
            "listenConfigStatus", [](ListenStatus const& s) { return s.listenConfigStatus(); },
            [](ListenStatus& s, Lumo::Ptr<ListenConfigStatus> const& record) {
                if (record) s.listenConfigStatusIs(record->listenConfig(), record->q7ListenStatus());
                else s.listenConfigStatusDel();
            });
    m.type<ListenConfigStatus>("Kel::Q7Sync::ListenConfigStatus")
        .readOnly("listenConfig", [](ListenConfigStatus const& r) { return r.listenConfig(); })
        .readOnly("q7ListenStatus", [](ListenConfigStatus const& r) { return r.q7ListenStatus(); });
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncListenStatus", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
