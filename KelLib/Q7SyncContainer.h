// SyncContainer: the local entity a subscription is mirrored into.
#pragma once

#include "KelLib/Q7SyncSubscribeRequest.h"
#include "Wex/Entity.h"

namespace Kel::Q7Sync {

class SyncContainer : public Wex::Entity {
public:
    explicit SyncContainer(Lumo::String name);

    PathSubscribeConfig const& pathSubscribeConfig() const noexcept { return pathSubscribeConfig_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~SyncContainer() override;

private:
    PathSubscribeConfig pathSubscribeConfig_;
};

} // namespace Kel::Q7Sync
