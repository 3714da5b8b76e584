// The show command "dumpStateQ7SyncService": the sync service's own account of its endpoints,
// connections and remote agents, beside the module's dump.
#pragma once

#include "Agent/ShowCommand.h"
#include "Lumo/Ptr.h"

namespace Q7Agent {

// Each invocation writes Q7Sync::Service::dump() to the command's output as it stands then.
class ServiceDumpCallback : public Agent::AsynchShowCommandCallback {
public:
    static constexpr char kCommandName[] = "dumpStateQ7SyncService";

    static Lumo::Ptr<ServiceDumpCallback> ServiceDumpCallbackIs(Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor,
                                                                Lumo::Ptr<Oru::TaskScheduler> const& scheduler);

protected:
    ServiceDumpCallback(Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor, Lumo::Ptr<Oru::TaskScheduler> scheduler);
    ~ServiceDumpCallback() override;
    Lumo::Ptr<Agent::AsynchShowCommandInstanceSm> createInstanceSm(
        Lumo::Ptr<Agent::AgentCommandCallbackParams> const& params) override;
};

} // namespace Q7Agent
