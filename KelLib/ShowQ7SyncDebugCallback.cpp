// The debug show command: callback, per-invocation instance, and their type tables.
#include "KelLib/ShowQ7SyncDebugCallback.h"

#include <cstdint>

#include "KelLib/Q7SyncModule.h"
#include "Oru/DumpContext.h"
#include "Termout/DumpStateWriterCallback.h"
#include "Wex/Trace.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
Wex::TraceHandle& traceHandle() {
    static Wex::TraceHandle handle("ShowQ7SyncDebugCallback", false);
    return handle;
}
} // namespace

ShowQ7SyncDebugCallback::ShowQ7SyncDebugCallback(Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor,
                                                 Lumo::Ptr<Oru::TaskScheduler> scheduler)
    : Agent::AsynchShowCommandCallback(kCommandName, anchor, std::move(scheduler)) {}

ShowQ7SyncDebugCallback::~ShowQ7SyncDebugCallback() { hasNotificationActiveIs(false); }

Lumo::Ptr<ShowQ7SyncDebugCallback> ShowQ7SyncDebugCallback::ShowQ7SyncDebugCallbackIs(
    Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor, Lumo::Ptr<Oru::TaskScheduler> const& scheduler) {
    Lumo::Ptr<ShowQ7SyncDebugCallback> c(new ShowQ7SyncDebugCallback(anchor, scheduler));
    c->hasNotificationActiveIs(true);
    return c;
}

Lumo::Ptr<ShowQ7SyncDebugCallback> showQ7SyncDebugCallbackFactory(Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor,
                                                                   Lumo::Ptr<Oru::TaskScheduler> const& scheduler) {
    return ShowQ7SyncDebugCallback::ShowQ7SyncDebugCallbackIs(anchor, scheduler);
}

Lumo::Ptr<Agent::AsynchShowCommandInstanceSm> ShowQ7SyncDebugCallback::createInstanceSm(
    Lumo::Ptr<Agent::AgentCommandCallbackParams> const& params) {
    // The output descriptor in the framework's text form of an entity pointer: hexadecimal, as
    // an address prints (descriptor 5 is "0x5").
    int const writeFd = params ? params->writeFd() : -1;
    WEX_TRACE(traceHandle(), 1, "ShowQ7SyncDebugCallback", "writeFd={}",
              fmt::format("{:#x}", static_cast<std::uintptr_t>(static_cast<std::intptr_t>(writeFd))));
    return ShowQ7SyncDebugSm::ShowQ7SyncDebugSmIs(anchor(), scheduler(), params);
}

ShowQ7SyncDebugSm::ShowQ7SyncDebugSm(Lumo::Ptr<Agent::AsynchShowCommandAnchor> anchor,
                                     Lumo::Ptr<Oru::TaskScheduler> scheduler,
                                     Lumo::Ptr<Agent::AgentCommandCallbackParams> params)
    : Agent::AsynchShowCommandInstanceSm(std::move(anchor), std::move(scheduler), std::move(params)) {}

ShowQ7SyncDebugSm::~ShowQ7SyncDebugSm() {
    hasNotificationActiveIs(false);
    wexDoZombieReactors(true);
}

Lumo::Ptr<ShowQ7SyncDebugSm> ShowQ7SyncDebugSm::ShowQ7SyncDebugSmIs(
    Lumo::Ptr<Agent::AsynchShowCommandAnchor> const& anchor, Lumo::Ptr<Oru::TaskScheduler> const& scheduler,
    Lumo::Ptr<Agent::AgentCommandCallbackParams> const& params) {
    Lumo::Ptr<ShowQ7SyncDebugSm> sm(new ShowQ7SyncDebugSm(anchor, scheduler, params));
    sm->hasNotificationActiveIs(true);
    return sm;
}

int ShowQ7SyncDebugSm::produceOutput() {
    WEX_TRACE(traceHandle(), 1, "ShowQ7SyncDebugSm", "");
    Lumo::Ptr<Oru::DumpContext> dumpContext(new Oru::DumpContext(-1, nullptr, 0));
    dumpContext->hasNotificationActiveIs(true);
    Lumo::Ptr<Termout::DumpStateWriterCallback> writer(new Termout::DumpStateWriterCallback(cliBuffer()));
    writer->hasNotificationActiveIs(true);
    dumpContext->writerIs(writer);
    // Each object is shown under its owner; back pointers stay addresses.
    dumpContext->followWeakReferencesIs(false);
    Lumo::Ptr<Module> module = Module::get();
    dumpContext->write(fmt::format("{} {}\n", Wex::wexTypeOf<Module>()->name(), static_cast<void const*>(module.ptr())));
    Oru::Impl::doObjDumpChildPtrGeneric(module, Wex::wexTypeOf<Module>(), *dumpContext, 0);
    module = nullptr;
    dumpContext = nullptr;
    writer = nullptr;
    return 0;
}

Wex::WexType const* ShowQ7SyncDebugCallback::fwkType() const noexcept { return Wex::wexTypeOf<ShowQ7SyncDebugCallback>(); }
Wex::WexType const* ShowQ7SyncDebugSm::fwkType() const noexcept { return Wex::wexTypeOf<ShowQ7SyncDebugSm>(); }

namespace {
Wex::WexModuleRegistrar registrar("KelLib/ShowQ7SyncDebugCallback", [](Wex::WexModule& m) {
    m.type<ShowQ7SyncDebugCallback>("Kel::Q7Sync::ShowQ7SyncDebugCallback")
        .base<Agent::AsynchShowCommandCallback>()
        .maker(Agent::callbackMaker<ShowQ7SyncDebugCallback>());
    m.type<ShowQ7SyncDebugSm>("Kel::Q7Sync::ShowQ7SyncDebugSm")
        .base<Agent::AsynchShowCommandInstanceSm>()
        .maker(Agent::instanceSmMaker<ShowQ7SyncDebugSm>());
});
} // namespace

} // namespace Kel::Q7Sync
