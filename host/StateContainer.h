// StateContainer: a sync container whose mirrored state is one string.
#pragma once

#include <cstdint>

#include "KelLib/Q7SyncContainer.h"
#include "Lumo/String.h"

namespace Q7Agent {

// The sync service writes the remote state into "syncAttribute". Every write is counted,
// changing or not, so that a reset through reflection shows even on an empty value.
class StateContainer : public Kel::Q7Sync::SyncContainer {
public:
    static constexpr Wex::AttributeId kSyncAttribute = Kel::Q7Sync::SyncContainer::kAttributeEnd;

    explicit StateContainer(Lumo::String name);

    Lumo::String const& syncAttribute() const noexcept { return syncAttribute_; }
    // Watchers hear of a change of the value (attribute kSyncAttribute).
    void syncAttributeIs(Lumo::String const& value);
    std::uint32_t syncAttributeWrites() const noexcept { return syncAttributeWrites_; }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~StateContainer() override;

private:
    Lumo::String syncAttribute_;
    std::uint32_t syncAttributeWrites_ = 0;
};

} // namespace Q7Agent
