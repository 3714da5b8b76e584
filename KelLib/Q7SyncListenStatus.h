// ListenStatus: the record of the listening endpoint that is open, read by the module's readers.
#pragma once

#include "KelLib/Q7SyncListenConfig.h"
#include "Lumo/Ptr.h"
#include "Q7Serdes/Status.h"
#include "Wex/PtrInterface.h"

namespace Kel::Q7Sync {

class ListenStatus;

// One opened endpoint and the status the service returned for it (null when it returned none).
// Both are fixed at construction; only ListenStatus makes records.
class ListenConfigStatus : public Wex::PtrInterface {
public:
    using Q7ListenStatus = ::Q7Serdes::WexUtils::ListenStatus;

    ListenConfig const& listenConfig() const noexcept { return listenConfig_; }
    Lumo::Ptr<Q7ListenStatus const> const& q7ListenStatus() const noexcept { return q7ListenStatus_; }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~ListenConfigStatus() override;

private:
    friend class ListenStatus;
    ListenConfigStatus(ListenConfig const& listenConfig, Lumo::Ptr<Q7ListenStatus const> q7ListenStatus);

    ListenConfig const listenConfig_;
    Lumo::Ptr<Q7ListenStatus const> const q7ListenStatus_;
};

// Holds the record of the open endpoint, null while none is open. Publishes nothing: nobody
// reacts to it, readers look at it when they need to.
class ListenStatus : public Wex::PtrInterface {
public:
    using Q7ListenStatus = ListenConfigStatus::Q7ListenStatus;

    static Lumo::Ptr<ListenStatus> ListenStatusIs();

    Lumo::Ptr<ListenConfigStatus> const& listenConfigStatus() const noexcept { return listenConfigStatus_; }
    // Keeps the current record when it already holds an equal configuration and the very same
    // status pointer (two nulls count as the same); otherwise replaces it with a new one.
    Lumo::Ptr<ListenConfigStatus> listenConfigStatusIs(ListenConfig const& listenConfig,
                                                       Lumo::Ptr<Q7ListenStatus const> const& q7ListenStatus);
    // Returns the removed record, or null when there was none.
    Lumo::Ptr<ListenConfigStatus> listenConfigStatusDel() noexcept;

    Wex::WexType const* fwkType() const noexcept override;

protected:
    ListenStatus() = default;
    ~ListenStatus() override;

private:
    Lumo::Ptr<ListenConfigStatus> listenConfigStatus_;
};

Lumo::Ptr<ListenStatus> listenStatusFactory();

} // namespace Kel::Q7Sync
