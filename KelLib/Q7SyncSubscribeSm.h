// The subscription reactors: the effective subscribe configuration and the request notifiee
// that maintains it, the container and subscribe state machines, and the handler dispatch.
#pragma once

#include "KelLib/Q7SyncSubscribeRequest.h"
#include "Lumo/Publisher.h"
#include "Wex/Collection.h"
#include "Wex/PtrInterface.h"

namespace Kel::Q7Sync {

// The subscriptions in force. Watchers hear of each insertion (previous value null) and each
// removal (previous value the removed configuration) with the configuration as the key.
class EffectiveSubscribeConfig : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kPathSubscribeConfig = 130;
    using Configs = Wex::Collection<PathSubscribeConfig, PathSubscribeConfig>;

    static Lumo::Ptr<EffectiveSubscribeConfig> EffectiveSubscribeConfigIs();

    Configs const& pathSubscribeConfig() const noexcept { return pathSubscribeConfig_; }
    bool pathSubscribeConfigHas(PathSubscribeConfig const& config) const noexcept { return pathSubscribeConfig_.has(config); }
    void pathSubscribeConfigIs(PathSubscribeConfig const& config) { pathSubscribeConfig_.set(config); }
    bool pathSubscribeConfigDel(PathSubscribeConfig const& config) { return pathSubscribeConfig_.del(config); }
    void pathSubscribeConfigDelAll() { pathSubscribeConfig_.delAll(); }

    Lumo::Publisher& publisher() const noexcept { return publisher_; }
    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    EffectiveSubscribeConfig() = default;
    ~EffectiveSubscribeConfig() override;

private:
    mutable Lumo::Publisher publisher_;
    Configs pathSubscribeConfig_{"pathSubscribeConfig", kPathSubscribeConfig, &publisher_};
};

Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfigFactory();

// NOTIFIEE-DECLARATIONS

} // namespace Kel::Q7Sync
