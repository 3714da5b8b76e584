// The debug show command "dumpStateQ7SyncModule": dumps the whole module into the command's output.
#pragma once

#include "Agent/ShowCommand.h"
#include "Lumo/Ptr.h"

namespace Kel::Q7Sync {

// One invocation: obtains the shared module and dumps it generically.
class ShowQ7SyncDebugSm : public Agent::AsynchShowCommandInstanceSm {
public:
    static Lumo::Ptr<ShowQ7SyncDebugSm> ShowQ7SyncDebugSmIs(Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor,
                                                            Lumo::Ptr<Oru::TaskScheduler> const& scheduler,
                                                            Lumo::Ptr<Agent::AgentCommandCallbackParams> const& params);

    int produceOutput() override;
    void hasNotificationActiveIs(bool active) override { AsynchShowCommandInstanceSm::hasNotificationActiveIs(active); }
    void wexDoZombieReactors(bool marked) override { AsynchShowCommandInstanceSm::wexDoZombieReactors(marked); }
    Wex::WexType const* fwkType() const noexcept override;

    ShowQ7SyncDebugSm(Lumo::Ptr<Agent::AsynchShowCommandAnchor> anchor, Lumo::Ptr<Oru::TaskScheduler> scheduler,
                      Lumo::Ptr<Agent::AgentCommandCallbackParams> params);

protected:
    ~ShowQ7SyncDebugSm() override;
};

// The command's callback, registered once with the agent's show-command anchor.
class ShowQ7SyncDebugCallback : public Agent::AsynchShowCommandCallback {
public:
    static constexpr char kCommandName[] = "dumpStateQ7SyncModule";

    static Lumo::Ptr<ShowQ7SyncDebugCallback> ShowQ7SyncDebugCallbackIs(
        Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor, Lumo::Ptr<Oru::TaskScheduler> const& scheduler);

    Wex::WexType const* fwkType() const noexcept override;

    ShowQ7SyncDebugCallback(Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor,
                            Lumo::Ptr<Oru::TaskScheduler> scheduler);

protected:
    ~ShowQ7SyncDebugCallback() override;
    Lumo::Ptr<Agent::AsynchShowCommandInstanceSm> createInstanceSm(
        Lumo::Ptr<Agent::AgentCommandCallbackParams> const& params) override;
};

Lumo::Ptr<ShowQ7SyncDebugCallback> showQ7SyncDebugCallbackFactory(Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor,
                                                                   Lumo::Ptr<Oru::TaskScheduler> const& scheduler);

} // namespace Kel::Q7Sync
