// EffectiveListenConfig and ListenSm: opening and closing the sync service's endpoint.
#include "KelLib/Q7SyncListenSm.h"

#include <utility>

#include "Q7Sync/Service.h"
#include "Wex/Exception.h"
#include "Wex/Trace.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
constexpr char kClassName[] = "ListenSm";

// The unit's one trace handle, made on first use.
Wex::TraceHandle& traceHandle() {
    static Wex::TraceHandle handle("KelQ7SyncListenSm", false);
    return handle;
}

template <class P>
P required(P p, char const* attribute) {
    if (!p) throw Wex::NullArgumentException(attribute);
    return p;
}
} // namespace

// EffectiveListenConfig

Lumo::Ptr<EffectiveListenConfig> EffectiveListenConfig::EffectiveListenConfigIs() {
    Lumo::Ptr<EffectiveListenConfig> c(new EffectiveListenConfig());
    c->hasNotificationActiveIs(true);
    return c;
}

Lumo::Ptr<EffectiveListenConfig> effectiveListenConfigFactory() { return EffectiveListenConfig::EffectiveListenConfigIs(); }

EffectiveListenConfig::~EffectiveListenConfig() { hasNotificationActiveIs(false); }

Wex::WexType const* EffectiveListenConfig::fwkType() const noexcept { return Wex::wexTypeOf<EffectiveListenConfig>(); }

void EffectiveListenConfig::listenConfigIs(ListenConfig const& listenConfig) {
    if (ListenConfig::isEq(listenConfig_, listenConfig)) return;
    ListenConfig const prev = std::exchange(listenConfig_, listenConfig);
    publisher_.publishChangeRecursive(kListenConfig, &listenConfig_, &prev);
}

// ListenSm

Lumo::Ptr<ListenSm> ListenSm::ListenSmIs(Lumo::Ptr<EffectiveListenConfig const> listenConfig,
                                         Lumo::Ptr<ListenStatus> listenStatus) {
    Lumo::Ptr<ListenSm> sm(new ListenSm(std::move(listenConfig), std::move(listenStatus)));
    sm->hasNotificationActiveIs(true);
    return sm;
}

Lumo::Ptr<ListenSm> listenSmFactory(Lumo::Ptr<EffectiveListenConfig const> listenConfig,
                                    Lumo::Ptr<ListenStatus> listenStatus) {
    return ListenSm::ListenSmIs(std::move(listenConfig), std::move(listenStatus));
}

ListenSm::ListenSm(Lumo::Ptr<EffectiveListenConfig const> listenConfig, Lumo::Ptr<ListenStatus> listenStatus)
    : listenConfig_(required(std::move(listenConfig), "listenConfig")),
      listenStatus_(required(std::move(listenStatus), "listenStatus")) {
    configJoinIs(true);
    try {
        handleListenConfig();
    } catch (...) {
        // No destructor runs for a constructor that throws: leave the publishers here.
        configJoinIs(false);
        statusJoinIs(false);
        throw;
    }
}

ListenSm::~ListenSm() {
    hasNotificationActiveIs(false);
    wexDoZombieReactors(true);
    // Both publishers are left even if notification was never switched on: the constructor
    // joins them on its own.
    configJoinIs(false);
    statusJoinIs(false);
}

Wex::WexType const* ListenSm::fwkType() const noexcept { return Wex::wexTypeOf<ListenSm>(); }

void ListenSm::wexDoZombieReactors(bool marked) { PtrInterface::wexDoZombieReactors(marked); }

void ListenSm::hasNotificationActiveIs(bool active) {
    PtrInterface::hasNotificationActiveIs(active);
    configJoinIs(active);
    statusJoinIs(active);
}

void ListenSm::configJoinIs(bool join) noexcept { configWatcher_.watchIs(*listenConfig_, join); }

void ListenSm::statusJoinIs(bool join) noexcept {
    if (q7ListenStatus_) statusWatcher_.watchIs(*q7ListenStatus_, join);
}

void ListenSm::handleListenConfig() {
    ListenConfig const next = listenConfig_->listenConfig();
    Lumo::Ptr<ListenConfigStatus> const record = listenStatus_->listenConfigStatus();
    ListenConfig const prev = record ? record->listenConfig() : ListenConfig();
    // Without a status the endpoint's state is unknown: it is closed and opened again.
    if (q7ListenStatus_ && ListenConfig::isEq(prev, next)) return;
    if (prev) close(prev);
    if (next) listen(next);
}

void ListenSm::listen(ListenConfig const& config) {
    // A copy: `config` may belong to the record that is about to be replaced.
    ListenConfig const endpoint = config;
    WEX_TRACE(traceHandle(), 1, kClassName, "Listen, hostAddr={}, port={}", Kivu::valueToStrep(endpoint.hostAddr()),
              endpoint.port());
    Lumo::Ptr<Q7ListenStatus const> const status =
        ::Q7Sync::WexUtils::listen(endpoint.hostAddr().stringValue(), endpoint.port());
    listenStatus_->listenConfigStatusIs(endpoint, status);
    q7ListenStatusIs(status);
}

void ListenSm::close(ListenConfig const& config) {
    ListenConfig const endpoint = config;
    WEX_TRACE(traceHandle(), 1, kClassName, "Close, hostAddr={}, port={}", Kivu::valueToStrep(endpoint.hostAddr()),
              endpoint.port());
    ::Q7Sync::WexUtils::close(endpoint.hostAddr().stringValue(), endpoint.port());
    listenStatus_->listenConfigStatusDel();
    q7ListenStatusDel();
}

void ListenSm::q7ListenStatusIs(Lumo::Ptr<Q7ListenStatus const> const& status) {
    if (status == q7ListenStatus_) return;
    Lumo::Ptr<Q7ListenStatus const> next = status;
    statusJoinIs(false);
    q7ListenStatus_ = std::move(next);
    if (!q7ListenStatus_) return;
    statusJoinIs(true);
    // The state found at opening is traced as if it had just changed.
    if (!zombie()) handleListenStatus();
}

Lumo::Ptr<ListenSm::Q7ListenStatus const> ListenSm::q7ListenStatusDel() noexcept {
    statusJoinIs(false);
    return std::exchange(q7ListenStatus_, nullptr);
}

void ListenSm::handleListenStatus() const {
    if (!q7ListenStatus_) return;
    WEX_TRACE(traceHandle(), 1, kClassName, "Q7ListenStatus for changed to listening:{} with reason {}",
              q7ListenStatus_->listening(), q7ListenStatus_->reason());
}

void ListenSm::ConfigWatcher::onAttribute(Wex::AttributeId attribute, void const*) {
    if (!sm_.zombie() && attribute == EffectiveListenConfig::kListenConfig) sm_.handleListenConfig();
}

// A status left during its own delivery is not told again: the publisher skips a watcher that left.
void ListenSm::StatusWatcher::onAttribute(Wex::AttributeId attribute, void const*) {
    if (!sm_.zombie() && attribute == Q7ListenStatus::kListening) sm_.handleListenStatus();
}

// Type tables

namespace {
constexpr char kEffective[] = "Kel::Q7Sync::EffectiveListenConfig";
constexpr char kSm[] = "Kel::Q7Sync::ListenSm";

void buildTypeTable(Wex::WexModule& m) {
    m.type<EffectiveListenConfig>(kEffective)
        .attribute(
            "listenConfig", [](EffectiveListenConfig const& e) { return e.listenConfig(); },
            [](EffectiveListenConfig& e, ListenConfig const& c) { e.listenConfigIs(c); });
    m.type<ListenSm>(kSm)
        .readOnly("listenConfig", [](ListenSm const& sm) { return sm.listenConfig(); })
        .readOnly("listenStatus", [](ListenSm const& sm) { return sm.listenStatus(); })
        .operation("listen", {"listenConfig"},
                   [](ListenSm& sm, Wex::Args const& a) { sm.listen(a.get<ListenConfig>(kSm, "listenConfig")); })
        .operation("close", {"listenConfig"},
                   [](ListenSm& sm, Wex::Args const& a) { sm.close(a.get<ListenConfig>(kSm, "listenConfig")); })
        .operation("handleListenConfig", {}, [](ListenSm& sm, Wex::Args const&) { sm.handleListenConfig(); })
        .attribute(
            "q7ListenStatus", [](ListenSm const& sm) { return sm.q7ListenStatus(); },
            [](ListenSm& sm, Lumo::Ptr<ListenSm::Q7ListenStatus const> const& s) { sm.q7ListenStatusIs(s); })
        .operation("handleListenStatus", {}, [](ListenSm& sm, Wex::Args const&) { sm.handleListenStatus(); });
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncListenSm", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
