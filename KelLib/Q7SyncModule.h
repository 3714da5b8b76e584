// Module: the root through which the process reaches everything the module offers.
#pragma once

#include "KelLib/Q7SyncContainer.h"
#include "KelLib/Q7SyncListenConfig.h"
#include "KelLib/Q7SyncListenSm.h"
#include "KelLib/Q7SyncListenStatus.h"
#include "KelLib/Q7SyncSubscribeRequest.h"
#include "KelLib/Q7SyncSubscribeSm.h"
#include "KelLib/Q7SyncSubscribeStatus.h"
#include "Lumo/Ptr.h"
#include "Wex/Entity.h"
#include "Wex/PtrInterface.h"

namespace Kel::Q7Sync {

// Building a Module builds the whole module: its configuration and status entities, its
// reactors wired together, and the directory tree "q7" with "local", "writeSync" and
// "remote" in the global directory. Clients use the shared one, from get().
class Module : public Wex::PtrInterface {
public:
    // The one shared module of the process, built on the first call (safe against
    // concurrent first callers; a construction that throws stores nothing and the next
    // call tries again). Afterwards: a lock-free load and one counted reference.
    static Lumo::Ptr<Module> get();
    // A new module, built like the shared one but not shared.
    static Lumo::Ptr<Module> ModuleIs();

    // Sets the endpoint in force; the listen reactor closes the old one and opens this one.
    void listen(ListenConfig const& listenConfig);
    // Builds the module; the constructor runs it. Run again, it shares the existing directories.
    void handleInitialized();

    Lumo::Ptr<EffectiveListenConfig> const& effectiveListenConfig() const noexcept { return effectiveListenConfig_; }
    Lumo::Ptr<EffectiveListenConfig const> wexeffectiveListenConfigConst() const noexcept { return effectiveListenConfig_; }
    Lumo::Ptr<ListenSm> const& listenSm() const noexcept { return listenSm_; }
    Lumo::Ptr<ListenSm const> wexlistenSmConst() const noexcept { return listenSm_; }
    Lumo::Ptr<EffectiveSubscribeConfig const> const& effectiveSubscribeConfig() const noexcept { return effectiveSubscribeConfig_; }
    Lumo::Ptr<Wex::Dir const> const& q7Dir() const noexcept { return q7Dir_; }
    Lumo::Ptr<Wex::Dir> const& localDir() const noexcept { return localDir_; }
    Lumo::Ptr<Wex::Dir> const& writeSyncDir() const noexcept { return writeSyncDir_; }
    Lumo::Ptr<Wex::Dir const> const& remoteDir() const noexcept { return remoteDir_; }
    Lumo::Ptr<SyncContainerSm const> const& syncContainerSm() const noexcept { return syncContainerSm_; }
    Lumo::Ptr<SyncContainerStatus const> const& syncContainerStatus() const noexcept { return syncContainerStatus_; }
    Lumo::Ptr<SubscribeSm const> const& subscriberSm() const noexcept { return subscriberSm_; }
    Lumo::Ptr<SyncContainerHandlerRegistry> const& syncContainerHandlerRegistry() const noexcept { return syncContainerHandlerRegistry_; }
    Lumo::Ptr<SyncContainerHandlerSm const> const& syncContainerHandlerSm() const noexcept { return syncContainerHandlerSm_; }
    Lumo::Ptr<ListenStatus const> const& listenStatus() const noexcept { return listenStatus_; }
    Lumo::Ptr<PathSubscribeRequestDedupTable const> const& pathSubscribeRequestDedupTable() const noexcept { return pathSubscribeRequestDedupTable_; }
    Lumo::Ptr<SubscribeStatus const> const& subscribeStatus() const noexcept { return subscribeStatus_; }

    // Replace the pointer and notify nobody.
    void effectiveListenConfigIs(Lumo::Ptr<EffectiveListenConfig> p) noexcept { effectiveListenConfig_ = std::move(p); }
    void listenSmIs(Lumo::Ptr<ListenSm> p) noexcept { listenSm_ = std::move(p); }
    void effectiveSubscribeConfigIs(Lumo::Ptr<EffectiveSubscribeConfig const> p) noexcept { effectiveSubscribeConfig_ = std::move(p); }
    void syncContainerSmIs(Lumo::Ptr<SyncContainerSm const> p) noexcept { syncContainerSm_ = std::move(p); }
    void syncContainerStatusIs(Lumo::Ptr<SyncContainerStatus const> p) noexcept { syncContainerStatus_ = std::move(p); }
    void subscriberSmIs(Lumo::Ptr<SubscribeSm const> p) noexcept { subscriberSm_ = std::move(p); }
    void syncContainerHandlerSmIs(Lumo::Ptr<SyncContainerHandlerSm const> p) noexcept { syncContainerHandlerSm_ = std::move(p); }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    Module();
    ~Module() override;

private:
    // Stored in the order of the attribute table; released in the reverse order.
    Lumo::Ptr<EffectiveListenConfig> effectiveListenConfig_;
    Lumo::Ptr<ListenSm> listenSm_;
    Lumo::Ptr<EffectiveSubscribeConfig const> effectiveSubscribeConfig_;
    Lumo::Ptr<Wex::Dir const> q7Dir_;
    Lumo::Ptr<Wex::Dir> localDir_;
    Lumo::Ptr<Wex::Dir> writeSyncDir_;
    Lumo::Ptr<Wex::Dir const> remoteDir_;
    Lumo::Ptr<SyncContainerSm const> syncContainerSm_;
    Lumo::Ptr<SyncContainerStatus const> syncContainerStatus_;
    Lumo::Ptr<SubscribeSm const> subscriberSm_;
    Lumo::Ptr<SyncContainerHandlerRegistry> syncContainerHandlerRegistry_;
    Lumo::Ptr<SyncContainerHandlerSm const> syncContainerHandlerSm_;
    Lumo::Ptr<ListenStatus const> listenStatus_;
    Lumo::Ptr<PathSubscribeRequestDedupTable const> pathSubscribeRequestDedupTable_;
    Lumo::Ptr<SubscribeStatus const> subscribeStatus_;
};

Lumo::Ptr<Module> moduleFactory();

} // namespace Kel::Q7Sync
