// ServiceDumpCallback: the callback, and the instance that writes the service's dump.
#include "ServiceDumpCallback.h"

#include <utility>

#include "Q7Sync/Service.h"

namespace Q7Agent {
namespace {

class ServiceDumpSm : public Agent::AsynchShowCommandInstanceSm {
public:
    ServiceDumpSm(Lumo::Ptr<Agent::AsynchShowCommandAnchor> anchor, Lumo::Ptr<Oru::TaskScheduler> scheduler,
                  Lumo::Ptr<Agent::AgentCommandCallbackParams> params)
        : AsynchShowCommandInstanceSm(std::move(anchor), std::move(scheduler), std::move(params)) {}

    int produceOutput() override {
        cliBuffer()->write(Q7Sync::Service::instance().dump());
        return 0;
    }

protected:
    ~ServiceDumpSm() override { hasNotificationActiveIs(false); }
};

} // namespace

ServiceDumpCallback::ServiceDumpCallback(Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor,
                                         Lumo::Ptr<Oru::TaskScheduler> scheduler)
    : Agent::AsynchShowCommandCallback(kCommandName, anchor, std::move(scheduler)) {}

ServiceDumpCallback::~ServiceDumpCallback() { hasNotificationActiveIs(false); }

Lumo::Ptr<ServiceDumpCallback> ServiceDumpCallback::ServiceDumpCallbackIs(
    Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor, Lumo::Ptr<Oru::TaskScheduler> const& scheduler) {
    Lumo::Ptr<ServiceDumpCallback> c(new ServiceDumpCallback(anchor, scheduler));
    c->hasNotificationActiveIs(true);
    return c;
}

Lumo::Ptr<Agent::AsynchShowCommandInstanceSm> ServiceDumpCallback::createInstanceSm(
    Lumo::Ptr<Agent::AgentCommandCallbackParams> const& params) {
    Lumo::Ptr<ServiceDumpSm> sm(new ServiceDumpSm(anchor(), scheduler(), params));
    sm->hasNotificationActiveIs(true);
    return sm;
}

} // namespace Q7Agent
