// SubscribeStatus: the sync status of every subscribed subscription, for readers to consult.
#pragma once

#include "KelLib/Q7SyncSubscribeRequest.h"
#include "Lumo/Ptr.h"
#include "Q7Serdes/Status.h"
#include "Wex/Collection.h"
#include "Wex/PtrInterface.h"

namespace Kel::Q7Sync {

// One subscription and the status entity the sync service returned for it. The entity is the
// service's live one: its changes show here without anyone writing the entry.
class PathSubscribeStatus : public Wex::PtrInterface {
public:
    PathSubscribeConfig const& pathSubscribeConfig() const noexcept { return pathSubscribeConfig_; }
    Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus const> const& syncStatus() const noexcept { return syncStatus_; }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~PathSubscribeStatus() override;

private:
    friend class SubscribeStatus;  // the collection creates its entries
    PathSubscribeStatus(PathSubscribeConfig const& pathSubscribeConfig,
                        Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus const> const& syncStatus);

    PathSubscribeConfig const pathSubscribeConfig_;
    Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus const> const syncStatus_;
};

// The entries by subscription. It publishes nothing: readers read it. An entry is removed,
// never rewritten.
class SubscribeStatus : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kPathSubscribeStatus = 130;
    using Entries = Wex::Collection<PathSubscribeConfig, Lumo::Ptr<PathSubscribeStatus>,
                                    Wex::MemberKey<&PathSubscribeStatus::pathSubscribeConfig>>;

    static Lumo::Ptr<SubscribeStatus> SubscribeStatusIs();

    Entries const& pathSubscribeStatus() const noexcept { return pathSubscribeStatus_; }
    Lumo::Ptr<PathSubscribeStatus> pathSubscribeStatus(PathSubscribeConfig const& config) const {
        return pathSubscribeStatus_.get(config);
    }
    // The entry for config, created when there is none. An entry that holds another status
    // is kept and the call refused with Wex::ReInstantiationException of "syncStatus".
    Lumo::Ptr<PathSubscribeStatus> pathSubscribeStatusIs(PathSubscribeConfig const& config,
                                                         Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus const> const& status);
    Lumo::Ptr<PathSubscribeStatus> pathSubscribeStatusDel(PathSubscribeConfig const& config) {
        return pathSubscribeStatus_.del(config);
    }
    void pathSubscribeStatusDelAll() { pathSubscribeStatus_.delAll(); }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    SubscribeStatus() = default;
    ~SubscribeStatus() override;

private:
    Entries pathSubscribeStatus_{"pathSubscribeStatus", kPathSubscribeStatus};
};

Lumo::Ptr<SubscribeStatus> subscribeStatusFactory();

} // namespace Kel::Q7Sync
