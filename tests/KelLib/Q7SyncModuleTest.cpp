// The module root: the shared instance and its directory tree, another module on the same tree
// and what its destruction ends, reflection, and constructions that fail.
#include "KelLib/Q7SyncModule.h"

#include <functional>
#include <set>
#include <tuple>

#include "Wex/Type.h"
#include "support/FreshProcess.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

std::set<std::string> const kTree = {"local", "remote", "writeSync"};

Lumo::Ptr<Wex::Dir> globalQ7() { return Lumo::ptr_cast<Wex::Dir>(Wex::System::globalDir()->entityPtr("q7")); }
std::set<std::string> childNames(Wex::Dir const& dir) {
    std::set<std::string> out;
    for (auto const& e : dir.entity()) out.insert(e->name().str());
    return out;
}
ListenConfig loopback() { return ListenConfig(Kivu::IpGenAddr::fromString("127.0.0.1").value(), 0); }

// The shared module is built before the first test counts live objects, so that its own
// objects are not taken for leaks. Every test leaves it as it found it.
class ModuleTest : public SyncFixture {
protected:
    static void SetUpTestSuite() { shared_ = Module::get(); }
    static void TearDownTestSuite() { shared_ = nullptr; }
    Module& shared() { return *shared_; }

private:
    static inline Lumo::Ptr<Module> shared_;
};

// The module releases its dedup table before its reactors: requests that clients still hold
// stop being tracked, so their subscriptions end while the reactors can still undo them. Nothing
// else goes: the endpoint stays open and the directories stay in the global directory.
TEST_F(ModuleTest, DestroyingAModuleEndsTheSubscriptionsOfItsTableAndLeavesEndpointAndDirectories) {
    PathSubscribeConfig const cfg = subscription("k");
    Lumo::Ptr<Module> other = moduleFactory();
    // The directories are shared, the rest is its own.
    auto const dirs = [](Module const& m) { return std::tuple(m.q7Dir(), m.localDir(), m.writeSyncDir(), m.remoteDir()); };
    EXPECT_EQ(dirs(*other), dirs(shared()));
    EXPECT_NE(other->effectiveSubscribeConfig(), shared().effectiveSubscribeConfig());
    EXPECT_NE(other->pathSubscribeRequestDedupTable(), shared().pathSubscribeRequestDedupTable());
    EXPECT_NE(other->syncContainerHandlerRegistry(), shared().syncContainerHandlerRegistry());
    Lines log;
    other->syncContainerHandlerRegistry()->syncContainerHandlerIs(RecordingHandler::make("H", "k", &log));
    Lumo::Ptr<PathSubscribeRequest> request = other->pathSubscribeRequestDedupTable()->dedup(cfg);
    other->listen(loopback());
    ASSERT_TRUE(containerAt(other->remoteDir(), cfg));
    EXPECT_EQ(takeCalls(), (Calls{subscribeCall(cfg), subscribeCall(cfg), {"listen", "127.0.0.1, 0"}}));
    EXPECT_EQ(service().subscriptions(), 1u);

    other = nullptr;
    EXPECT_EQ(takeCalls(), Calls{unsubscribeCall(cfg)});
    EXPECT_EQ(service().subscriptions(), 0u);
    EXPECT_FALSE(shared().remoteDir()->entityPtr(cfg.remoteAgentKey()));
    EXPECT_EQ(log, (Lines{given("H", cfg), withdrawn("H", cfg)}));
    EXPECT_EQ(service().endpoints(), 1u);
    EXPECT_EQ(childNames(*globalQ7()), kTree);
    EXPECT_EQ(Module::get().ptr(), &shared());
    // The request outlives its table untracked: its release reaches nobody.
    EXPECT_FALSE(request->lifeTimeNotifier());
    EXPECT_FALSE(request->getDedupHashTable());
    request = nullptr;
    EXPECT_TRUE(calls().empty());
}

// Every object of the module reports the type its table registered.
TEST_F(ModuleTest, EveryObjectReportsItsRegisteredType) {
    Module& m = shared();
    PathSubscribeConfig const cfg = subscription("k");
    Lines log;
    Lumo::Ptr<RecordingHandler> const handler = RecordingHandler::make("H", "k", &log);
    m.syncContainerHandlerRegistry()->syncContainerHandlerIs(handler);
    Lumo::Ptr<PathSubscribeRequest> request = m.pathSubscribeRequestDedupTable()->dedup(cfg);
    m.listen(loopback());
    auto const& notifiee =
        dynamic_cast<PathSubscribeRequestNotifiee const&>(*m.pathSubscribeRequestDedupTable()->lifeTimeNotifiee());
    std::pair<Wex::PtrInterface const*, char const*> const objects[] = {
        {&m, "Module"},
        {m.effectiveListenConfig().ptr(), "EffectiveListenConfig"},
        {m.listenSm().ptr(), "ListenSm"},
        {m.listenStatus().ptr(), "ListenStatus"},
        {m.listenStatus()->listenConfigStatus().ptr(), "ListenConfigStatus"},
        {m.effectiveSubscribeConfig().ptr(), "EffectiveSubscribeConfig"},
        {m.pathSubscribeRequestDedupTable().ptr(), "PathSubscribeRequestDedupTable"},
        {&notifiee, "PathSubscribeRequestNotifiee"},
        {notifiee.requestSetForLocalUri().get(cfg.localUri()).ptr(), "PathSubscribeRequestSetForUri"},
        {request.ptr(), "PathSubscribeRequest"},
        {request->lifeTimeNotifier().ptr(), "PathSubscribeRequestLifeTimeNotifier"},
        {m.syncContainerSm().ptr(), "SyncContainerSm"},
        {m.syncContainerStatus().ptr(), "SyncContainerStatus"},
        {m.syncContainerStatus()->syncContainer(cfg).ptr(), "SyncContainer"},
        {m.subscriberSm().ptr(), "SubscribeSm"},
        {m.subscriberSm()->wexQ7SyncStatus(cfg.remoteUri()).ptr(), "SubscribeSm::Q7SyncStatusSm"},
        {m.subscribeStatus().ptr(), "SubscribeStatus"},
        {m.subscribeStatus()->pathSubscribeStatus(cfg).ptr(), "PathSubscribeStatus"},
        {m.syncContainerHandlerRegistry().ptr(), "SyncContainerHandlerRegistry"},
        {m.syncContainerHandlerSm().ptr(), "SyncContainerHandlerSm"},
        {handler.ptr(), "SyncContainerHandler"}};
    for (auto const& [object, name] : objects) {
        ASSERT_TRUE(object) << name;
        EXPECT_EQ(object->fwkType() ? object->fwkType()->name() : "no type", fmt::format("Kel::Q7Sync::{}", name));
    }
    request = nullptr;
    m.listen(ListenConfig());
    m.syncContainerHandlerRegistry()->syncContainerHandlerDel("k");
}

// Neither the shared module nor another is built over a "q7" that is not a directory, and
// nothing stays behind; once it is gone, the next call builds it. It needs a process in which
// the module's tree was never built.
TEST(ModuleConstructionTest, AConstructionThatThrowsLeavesNothingAndTheNextOneSucceeds) {
    if (!inFreshProcess()) return;
    Lumo::Ptr<Wex::Dir> const& global = Wex::System::globalDir();
    ASSERT_FALSE(global->entityPtr("q7"));
    Lumo::Ptr<Wex::Entity> impostor = global->createEntity("Kel::Q7Sync::SyncContainer", "q7");
    ASSERT_TRUE(impostor);
    std::size_t const entries = global->entities();
    long const live = Wex::PtrInterface::liveObjects();
    for (auto const& build :
         {std::function<Lumo::Ptr<Module>()>(&Module::get), std::function<Lumo::Ptr<Module>()>(&Module::get),
          std::function<Lumo::Ptr<Module>()>(&moduleFactory)}) {
        try {
            build();
            ADD_FAILURE() << "a module was built on a global directory whose 'q7' is not a directory";
        } catch (Wex::Exception const& e) {
            EXPECT_NE(std::string(e.what()).find("'q7'"), std::string::npos) << e.what();
        }
        EXPECT_EQ(Wex::PtrInterface::liveObjects(), live);
        EXPECT_EQ(global->entities(), entries);
        EXPECT_EQ(global->entityPtr("q7"), impostor);
    }
    global->deleteEntity("q7");
    impostor = nullptr;
    Lumo::Ptr<Module> const module = Module::get();
    ASSERT_TRUE(module);
    EXPECT_EQ(module->q7Dir(), globalQ7());
    EXPECT_EQ(childNames(*globalQ7()), kTree);
    std::uint32_t const held = module->references();
    Lumo::Ptr<Module> const again = Module::get();
    EXPECT_EQ(again, module);
    EXPECT_EQ(module->references(), held + 1);
}

}  // namespace
}  // namespace Kel::Q7Sync::Test
