// Q7Serdes status entities: change publication and type tables.
#include "Q7Serdes/Status.h"

#include "Wex/Type.h"

namespace Q7Serdes::WexUtils {

std::string valueToStrep(SyncStatusEnum s) {
    switch (s) {
    case SyncStatusEnum::notConnected: return "notConnected";
    case SyncStatusEnum::connecting: return "connecting";
    case SyncStatusEnum::syncing: return "syncing";
    case SyncStatusEnum::inSync: return "inSync";
    case SyncStatusEnum::failed: return "failed";
    }
    return fmt::format("status{}", unsigned(s));
}

SyncStatus::SyncStatus(Lumo::String uri, Lumo::String localUri, std::uint8_t requestFlags)
    : uri_(std::move(uri)), localUri_(std::move(localUri)), peer_(uri_.view().substr(0, uri_.view().find('/'))),
      requestFlags_(requestFlags) {}

SyncStatus::~SyncStatus() { hasNotificationActiveIs(false); }

void SyncStatus::statusIs(SyncStatusEnum s) {
    if (s == status_) return;
    status_ = s;
    publisher_.publishChangeRecursive(kStatus, &status_);
}

void SyncStatus::reasonIs(Lumo::String const& r) {
    if (r == reason_) return;
    reason_ = r;
    publisher_.publishChangeRecursive(kReason, &reason_);
}

ListenStatus::ListenStatus(bool listening, Lumo::String reason) : listening_(listening), reason_(std::move(reason)) {}

ListenStatus::~ListenStatus() { hasNotificationActiveIs(false); }

void ListenStatus::listeningIs(bool l) {
    if (l == listening_) return;
    listening_ = l;
    publisher_.publishChangeRecursive(kListening, &listening_);
}

void ListenStatus::reasonIs(Lumo::String const& r) {
    if (r == reason_) return;
    reason_ = r;
    publisher_.publishChangeRecursive(kReason, &reason_);
}

Wex::WexType const* SyncStatus::fwkType() const noexcept { return Wex::wexTypeOf<SyncStatus>(); }
Wex::WexType const* ListenStatus::fwkType() const noexcept { return Wex::wexTypeOf<ListenStatus>(); }

namespace {
Wex::WexModuleRegistrar registrar("Q7Serdes/Status", [](Wex::WexModule& m) {
    m.type<SyncStatus>("Q7Serdes::WexUtils::SyncStatus")
        .readOnly("uri", [](SyncStatus const& s) { return s.uri(); })
        .readOnly("localUri", [](SyncStatus const& s) { return s.localUri(); })
        .readOnly("peer", [](SyncStatus const& s) { return s.peer(); })
        .readOnly("status", [](SyncStatus const& s) { return s.status(); })
        .readOnly("reason", [](SyncStatus const& s) { return s.reason(); });
    m.type<ListenStatus>("Q7Serdes::WexUtils::ListenStatus")
        .readOnly("listening", [](ListenStatus const& s) { return s.listening(); })
        .readOnly("reason", [](ListenStatus const& s) { return s.reason(); });
});
} // namespace

} // namespace Q7Serdes::WexUtils
