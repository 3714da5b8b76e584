// Module: start-up, the shared instance and the type table.
#include "KelLib/Q7SyncModule.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
constexpr char kTypeName[] = "Kel::Q7Sync::Module";

std::atomic<Module*> gShared{nullptr};
std::mutex gSharedMutex;
Lumo::Ptr<Module> gSharedHolder;  // released by the exit handler

// The directory `name` in `parent`, which must be a directory.
Lumo::Ptr<Wex::Dir> directory(Wex::Dir& parent, char const* name, char const* attribute) {
    Lumo::Ptr<Wex::Dir> dir = Lumo::ptr_cast<Wex::Dir>(parent.createEntity("Wex::Dir", name));
    if (!dir)
        throw Wex::Exception(attribute, fmt::format("{}: '{}' in '{}' is not a directory", kTypeName, name,
                                                    parent.name().empty() ? "/" : parent.name().view()));
    return dir;
}
} // namespace

Lumo::Ptr<Module> Module::get() {
    Module* shared = gShared.load(std::memory_order_acquire);
    if (!shared) {
        std::lock_guard<std::mutex> lock(gSharedMutex);
        shared = gShared.load(std::memory_order_relaxed);
        if (!shared) {
            Lumo::Ptr<Module> m = ModuleIs();  // a throw leaves nothing stored
            static bool const exitHandler = [] {
                std::atexit([] {
                    gShared.store(nullptr, std::memory_order_release);
                    gSharedHolder = nullptr;
                });
                return true;
            }();
            (void)exitHandler;
            gSharedHolder = m;
            shared = m.ptr();
            gShared.store(shared, std::memory_order_release);
        }
    }
    return Lumo::Ptr<Module>(shared);
}

Lumo::Ptr<Module> Module::ModuleIs() {
    Lumo::Ptr<Module> m(new Module());
    m->hasNotificationActiveIs(true);
    return m;
}

Lumo::Ptr<Module> moduleFactory() { return Module::ModuleIs(); }

Module::Module() {
    countAtomicallyIs();  // other threads take references through get()
    handleInitialized();
}

Module::~Module() {
    hasNotificationActiveIs(false);
    subscribeStatus_ = nullptr;
    pathSubscribeRequestDedupTable_ = nullptr;
    listenStatus_ = nullptr;
    syncContainerHandlerSm_ = nullptr;
    syncContainerHandlerRegistry_ = nullptr;
    subscriberSm_ = nullptr;
    syncContainerStatus_ = nullptr;
    syncContainerSm_ = nullptr;
    remoteDir_ = nullptr;
    writeSyncDir_ = nullptr;
    localDir_ = nullptr;
    q7Dir_ = nullptr;
    effectiveSubscribeConfig_ = nullptr;
    listenSm_ = nullptr;
    effectiveListenConfig_ = nullptr;
}

void Module::listen(ListenConfig const& listenConfig) { effectiveListenConfig_->listenConfigIs(listenConfig); }

void Module::handleInitialized() {
    effectiveListenConfig_ = EffectiveListenConfig::EffectiveListenConfigIs();
    Lumo::Ptr<EffectiveSubscribeConfig> effectiveSubscribeConfig = EffectiveSubscribeConfig::EffectiveSubscribeConfigIs();
    effectiveSubscribeConfig_ = effectiveSubscribeConfig;
    Lumo::Ptr<PathSubscribeRequestNotifiee> notifiee =
        PathSubscribeRequestNotifiee::PathSubscribeRequestNotifieeIs(effectiveSubscribeConfig);
    pathSubscribeRequestDedupTable_ = PathSubscribeRequestDedupTable::PathSubscribeRequestDedupTableIs(notifiee);
    syncContainerHandlerRegistry_ = SyncContainerHandlerRegistry::SyncContainerHandlerRegistryIs();
    Lumo::Ptr<ListenStatus> listenStatus = ListenStatus::ListenStatusIs();
    listenStatus_ = listenStatus;
    listenSm_ = ListenSm::ListenSmIs(effectiveListenConfig_, listenStatus);

    Lumo::Ptr<Wex::Dir> q7 = directory(*Wex::System::globalDir(), "q7", "q7Dir");
    q7Dir_ = q7;
    localDir_ = directory(*q7, "local", "localDir");
    writeSyncDir_ = directory(*q7, "writeSync", "writeSyncDir");
    Lumo::Ptr<Wex::Dir> remote = directory(*q7, "remote", "remoteDir");
    remoteDir_ = remote;

    Lumo::Ptr<SyncContainerStatus> syncContainerStatus = SyncContainerStatus::SyncContainerStatusIs();
    syncContainerStatus_ = syncContainerStatus;
    syncContainerSm_ = SyncContainerSm::SyncContainerSmIs(effectiveSubscribeConfig, syncContainerStatus, remote);
    syncContainerHandlerSm_ =
        SyncContainerHandlerSm::SyncContainerHandlerSmIs(syncContainerHandlerRegistry_, syncContainerStatus);
    Lumo::Ptr<SubscribeStatus> subscribeStatus = SubscribeStatus::SubscribeStatusIs();
    subscribeStatus_ = subscribeStatus;
    subscriberSm_ = SubscribeSm::SubscribeSmIs(effectiveSubscribeConfig, syncContainerStatus, subscribeStatus);
}

Wex::WexType const* Module::fwkType() const noexcept { return Wex::wexTypeOf<Module>(); }

namespace {
template <class T>
auto reader(Lumo::Ptr<T> const& (Module::*getter)() const noexcept) {
    return [getter](Module const& m) { return (m.*getter)(); };
}

void buildTypeTable(Wex::WexModule& table) {
    table.type<Module>(kTypeName)
        .staticOperation("get", {}, [](Wex::Args const&) { return Module::get(); })
        .readOnly("effectiveListenConfig", reader(&Module::effectiveListenConfig))
        .readOnly("listenSm", reader(&Module::listenSm))
        .operation("listen", {"listenConfig"},
                   [](Module& m, Wex::Args const& a) { m.listen(a.get<ListenConfig>(kTypeName, "listenConfig")); })
        .readOnly("effectiveSubscribeConfig", reader(&Module::effectiveSubscribeConfig))
        .readOnly("q7Dir", reader(&Module::q7Dir))
        .readOnly("localDir", reader(&Module::localDir))
        .readOnly("writeSyncDir", reader(&Module::writeSyncDir))
        .readOnly("remoteDir", reader(&Module::remoteDir))
        .readOnly("syncContainerSm", reader(&Module::syncContainerSm))
        .readOnly("syncContainerStatus", reader(&Module::syncContainerStatus))
        .readOnly("subscriberSm", reader(&Module::subscriberSm))
        .readOnly("syncContainerHandlerRegistry", reader(&Module::syncContainerHandlerRegistry))
        .readOnly("syncContainerHandlerSm", reader(&Module::syncContainerHandlerSm))
        .readOnly("listenStatus", reader(&Module::listenStatus))
        .readOnly("pathSubscribeRequestDedupTable", reader(&Module::pathSubscribeRequestDedupTable))
        .readOnly("subscribeStatus", reader(&Module::subscribeStatus))
        .operation("handleInitialized", {}, [](Module& m, Wex::Args const&) { m.handleInitialized(); })
        .maker([](Wex::Args const& a) {
            a.checkOnly(kTypeName, {});
            return Module::ModuleIs();
        });
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncModule", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
