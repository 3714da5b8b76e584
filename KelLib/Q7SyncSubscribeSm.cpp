// The subscription reactors of the module.
#include "KelLib/Q7SyncSubscribeSm.h"

#include "Wex/Trace.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
// One trace handle for every reactor of this unit, made on first use.
Wex::TraceHandle& traceHandle() {
    static Wex::TraceHandle handle("KelQ7SyncSubscribeSm", false);
    return handle;
}
} // namespace

Lumo::Ptr<EffectiveSubscribeConfig> EffectiveSubscribeConfig::EffectiveSubscribeConfigIs() {
    Lumo::Ptr<EffectiveSubscribeConfig> c(new EffectiveSubscribeConfig());
    c->hasNotificationActiveIs(true);
    return c;
}

Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfigFactory() {
    return EffectiveSubscribeConfig::EffectiveSubscribeConfigIs();
}

EffectiveSubscribeConfig::~EffectiveSubscribeConfig() { hasNotificationActiveIs(false); }

Wex::WexType const* EffectiveSubscribeConfig::fwkType() const noexcept { return Wex::wexTypeOf<EffectiveSubscribeConfig>(); }

// NOTIFIEE-DEFINITIONS

namespace {
void buildTypeTable(Wex::WexModule& m) {
    m.type<EffectiveSubscribeConfig>("Kel::Q7Sync::EffectiveSubscribeConfig")
        .collection("pathSubscribeConfig",
                    [](EffectiveSubscribeConfig const& e) -> auto const& { return e.pathSubscribeConfig(); });
    // NOTIFIEE-TYPES-TABLE
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncSubscribeSm", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
