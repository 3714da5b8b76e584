// StateContainer: a sync container that mirrors a peer's keyed state, string to string.
#pragma once

#include "KelLib/Q7SyncContainer.h"
#include "Lumo/String.h"
#include "Wex/EntryMap.h"

namespace Q7Agent {

// The sync service writes the remote entries into "syncAttribute" by key, through reflection,
// with the key and the value in their text forms; watchers hear of each entry set or deleted.
class StateContainer : public Kel::Q7Sync::SyncContainer {
public:
    static constexpr Wex::AttributeId kSyncAttribute = Kel::Q7Sync::SyncContainer::kAttributeEnd;
    using State = Wex::EntryMap<Lumo::String, Lumo::String>;

    explicit StateContainer(Lumo::String name);

    State const& syncAttribute() const noexcept { return syncAttribute_; }
    void syncAttributeIs(Lumo::String const& key, Lumo::String const& value) { syncAttribute_.set({key, value}); }
    // Returns the value it removed (empty when there was no entry).
    Lumo::String syncAttributeDel(Lumo::String const& key) { return syncAttribute_.del(key).value; }
    void syncAttributeDelAll() { syncAttribute_.delAll(); }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~StateContainer() override;

private:
    State syncAttribute_{"syncAttribute", kSyncAttribute, &publisher()};
};

} // namespace Q7Agent
