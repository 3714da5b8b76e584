// The module root: the shared instance, the directory tree, listening, reflection, a construction
// that fails, and one subscription through the module as a client makes it.
#include "KelLib/Q7SyncModule.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Q7Sync/Service.h"
#include "Wex/Type.h"
#include "support/FreshProcess.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Calls = std::vector<::Q7Sync::Service::Call>;

Lumo::Ptr<Wex::Dir> childDir(Lumo::Ptr<Wex::Dir> const& parent, char const* name) {
    return parent ? Lumo::ptr_cast<Wex::Dir>(parent->entityPtr(name)) : nullptr;
}
Lumo::Ptr<Wex::Dir> globalQ7(char const* child = nullptr) {
    Lumo::Ptr<Wex::Dir> q7 = childDir(Wex::System::globalDir(), "q7");
    return child ? childDir(q7, child) : q7;
}
std::set<std::string> childNames(Wex::Dir const& dir) {
    std::set<std::string> out;
    for (auto const& e : dir.entity()) out.insert(e->name().str());
    return out;
}
ListenConfig loopback(std::uint16_t port = 0) {
    return ListenConfig(Kivu::IpGenAddr::fromString("127.0.0.1").value(), port);
}

// The shared module is built before the first fixture counts live objects, so that its own
// objects are not taken for leaks. Every test leaves it as it found it.
class ModuleTest : public SyncFixture {
protected:
    static void SetUpTestSuite() { shared_ = Module::get(); }
    static void TearDownTestSuite() { shared_ = nullptr; }

    Module& shared() { return *shared_; }

private:
    static inline Lumo::Ptr<Module> shared_;
};

TEST_F(ModuleTest, GetReturnsTheOneModuleAndEachCallTakesOneReference) {
    Lumo::Ptr<Module> first = Module::get();
    std::uint32_t const held = first->references();
    Lumo::Ptr<Module> second = Module::get();
    EXPECT_EQ(first, second);
    EXPECT_EQ(&shared(), first.ptr());
    EXPECT_EQ(first->references(), held + 1);
    second = nullptr;
    EXPECT_EQ(first->references(), held);
}

TEST_F(ModuleTest, StartUpBuildsQ7WithExactlyLocalWriteSyncAndRemoteAndEveryAttribute) {
    Lumo::Ptr<Wex::Dir> q7 = globalQ7();
    ASSERT_TRUE(q7);
    EXPECT_EQ(shared().q7Dir(), q7);
    EXPECT_EQ(childNames(*q7), (std::set<std::string>{"local", "remote", "writeSync"}));
    EXPECT_EQ(shared().localDir(), globalQ7("local"));
    EXPECT_EQ(shared().writeSyncDir(), globalQ7("writeSync"));
    EXPECT_EQ(shared().remoteDir(), globalQ7("remote"));
    EXPECT_EQ(shared().localDir()->entities(), 0u);
    EXPECT_EQ(shared().writeSyncDir()->entities(), 0u);

    EXPECT_TRUE(shared().effectiveListenConfig() && shared().listenSm() && shared().effectiveSubscribeConfig() &&
                shared().syncContainerSm() && shared().syncContainerStatus() && shared().subscriberSm() &&
                shared().syncContainerHandlerRegistry() && shared().syncContainerHandlerSm() &&
                shared().listenStatus() && shared().pathSubscribeRequestDedupTable() && shared().subscribeStatus());
    // The reactors are wired to the module's own entities.
    EXPECT_EQ(shared().listenSm()->listenConfig(), shared().effectiveListenConfig());
    EXPECT_EQ(shared().listenSm()->listenStatus(), shared().listenStatus());
    EXPECT_EQ(shared().effectiveListenConfig()->listenConfig(), ListenConfig());
}

TEST_F(ModuleTest, ListenWithTheValueInForceChangesNothing) {
    ChangeRecorder recorder(shared().effectiveListenConfig());
    shared().listen(ListenConfig());
    EXPECT_TRUE(recorder.changes.empty());
    EXPECT_TRUE(calls().empty());

    shared().listen(loopback());
    recorder.changes.clear();
    service().callsDelAll();
    shared().listen(loopback());
    EXPECT_TRUE(recorder.changes.empty());
    EXPECT_TRUE(calls().empty());
    shared().listen(ListenConfig());
}

TEST_F(ModuleTest, ListenWithANewValueMakesExactlyThatValueTheOneInForce) {
    ChangeRecorder recorder(shared().effectiveListenConfig());
    shared().listen(loopback());
    EXPECT_EQ(shared().effectiveListenConfig()->listenConfig(), loopback());
    EXPECT_EQ(recorder.changes.size(), 1u);
    EXPECT_EQ(calls(), (Calls{{"listen", "127.0.0.1, 0"}}));
    ASSERT_TRUE(shared().listenStatus()->listenConfigStatus());
    EXPECT_EQ(shared().listenStatus()->listenConfigStatus()->listenConfig(), loopback());

    service().callsDelAll();
    shared().listen(ListenConfig());
    EXPECT_EQ(shared().effectiveListenConfig()->listenConfig(), ListenConfig());
    EXPECT_EQ(calls(), (Calls{{"close", "127.0.0.1, 0"}}));
    EXPECT_FALSE(shared().listenStatus()->listenConfigStatus());
}

TEST_F(ModuleTest, ModuleFactoryBuildsAnotherModuleOnTheSameDirectories) {
    Lumo::Ptr<Module> other = moduleFactory();
    ASSERT_TRUE(other);
    EXPECT_NE(other.ptr(), &shared());
    EXPECT_EQ(other->references(), 1u);
    EXPECT_EQ(other->q7Dir(), shared().q7Dir());
    EXPECT_EQ(other->localDir(), shared().localDir());
    EXPECT_EQ(other->writeSyncDir(), shared().writeSyncDir());
    EXPECT_EQ(other->remoteDir(), shared().remoteDir());
    EXPECT_EQ(childNames(*globalQ7()), (std::set<std::string>{"local", "remote", "writeSync"}));
    // Everything else is its own.
    EXPECT_NE(other->effectiveSubscribeConfig(), shared().effectiveSubscribeConfig());
    EXPECT_NE(other->pathSubscribeRequestDedupTable(), shared().pathSubscribeRequestDedupTable());
    EXPECT_NE(other->syncContainerHandlerRegistry(), shared().syncContainerHandlerRegistry());
    EXPECT_EQ(Module::get().ptr(), &shared());
}

// The module releases its dedup table before its reactors: requests that clients still hold
// stop being tracked, so their subscriptions end while the reactors can still undo them. Nothing
// else goes: the endpoint stays open and the directories stay in the global directory.
TEST_F(ModuleTest, DestroyingAModuleEndsTheSubscriptionsOfItsTableAndLeavesEndpointAndDirectories) {
    PathSubscribeConfig const cfg = subscription("k");
    Lumo::Ptr<Module> other = moduleFactory();
    std::vector<std::string> log;
    other->syncContainerHandlerRegistry()->syncContainerHandlerIs(RecordingHandler::make("H", "k", &log));
    Lumo::Ptr<PathSubscribeRequest> request = other->pathSubscribeRequestDedupTable()->dedup(cfg);
    other->listen(loopback());
    ASSERT_TRUE(containerAt(globalQ7("remote"), cfg));
    service().callsDelAll();

    other = nullptr;
    EXPECT_EQ(calls(), Calls{unsubscribeCall(cfg)});
    EXPECT_EQ(service().subscriptions(), 0u);
    EXPECT_FALSE(globalQ7("remote")->entityPtr(cfg.remoteAgentKey()));
    EXPECT_EQ(log, (std::vector<std::string>{given("H", cfg), withdrawn("H", cfg)}));
    EXPECT_EQ(service().endpoints(), 1u);
    EXPECT_EQ(childNames(*globalQ7()), (std::set<std::string>{"local", "remote", "writeSync"}));
    EXPECT_EQ(Module::get().ptr(), &shared());

    // The request outlives its table untracked: its release reaches nobody.
    EXPECT_FALSE(request->lifeTimeNotifier());
    service().callsDelAll();
    request = nullptr;
    EXPECT_TRUE(calls().empty());
}

TEST_F(ModuleTest, ASubscriptionThroughTheModuleGetsContainerSubscriptionAndHandlerAndReleaseUndoesThem) {
    PathSubscribeConfig const cfg = subscription("k");
    std::vector<std::string> log;
    Lumo::Ptr<RecordingHandler> handler = RecordingHandler::make("H", "k", &log);
    shared().syncContainerHandlerRegistry()->syncContainerHandlerIs(handler);

    Lumo::Ptr<PathSubscribeRequest> request = shared().pathSubscribeRequestDedupTable()->dedup(cfg);
    Lumo::Ptr<Wex::Entity> container = containerAt(globalQ7("remote"), cfg);
    ASSERT_TRUE(container);
    EXPECT_EQ(shared().syncContainerStatus()->syncContainer(cfg), container);
    EXPECT_TRUE(shared().effectiveSubscribeConfig()->pathSubscribeConfigHas(cfg));
    Calls const made = calls();
    EXPECT_TRUE(made.size() == 1 || made.size() == 2) << made.size() << " calls";
    for (auto const& call : made) EXPECT_EQ(call, subscribeCall(cfg));
    EXPECT_EQ(service().subscriptions(), 1u);
    ASSERT_TRUE(shared().subscribeStatus()->pathSubscribeStatus(cfg));
    EXPECT_EQ(shared().subscribeStatus()->pathSubscribeStatus(cfg)->syncStatus(),
              service().syncStatus(cfg.remoteUri().view()));
    EXPECT_EQ(log, (std::vector<std::string>{given("H", cfg)}));
    EXPECT_EQ(handler->held.size(), 1u);

    service().callsDelAll();
    container = nullptr;
    request = nullptr;
    EXPECT_EQ(calls(), Calls{unsubscribeCall(cfg)});
    EXPECT_FALSE(globalQ7("remote")->entityPtr(cfg.remoteAgentKey()));
    EXPECT_EQ(log, (std::vector<std::string>{given("H", cfg), withdrawn("H", cfg)}));
    EXPECT_TRUE(handler->held.empty());
    EXPECT_TRUE(shared().effectiveSubscribeConfig()->pathSubscribeConfig().empty());
    EXPECT_TRUE(shared().syncContainerStatus()->syncContainer().empty());
    EXPECT_TRUE(shared().subscribeStatus()->pathSubscribeStatus().empty());
    shared().syncContainerHandlerRegistry()->syncContainerHandlerDel("k");
}

// Reflection shows the attributes in their documented order, reads each one, and writes none.
class ModuleReflectionTest : public ModuleTest {
protected:
    Wex::WexType const* type = Wex::typeNode("Kel::Q7Sync::Module");
    Wex::GenericIf view() { return type->genericIf(Lumo::Ptr<Wex::PtrInterface>(&shared())); }

    // What each readable attribute must lead to.
    std::map<std::string, Wex::PtrInterface const*> expected() {
        Module& m = shared();
        return {{"effectiveListenConfig", m.effectiveListenConfig().ptr()},
                {"listenSm", m.listenSm().ptr()},
                {"effectiveSubscribeConfig", m.effectiveSubscribeConfig().ptr()},
                {"q7Dir", m.q7Dir().ptr()},
                {"localDir", m.localDir().ptr()},
                {"writeSyncDir", m.writeSyncDir().ptr()},
                {"remoteDir", m.remoteDir().ptr()},
                {"syncContainerSm", m.syncContainerSm().ptr()},
                {"syncContainerStatus", m.syncContainerStatus().ptr()},
                {"subscriberSm", m.subscriberSm().ptr()},
                {"syncContainerHandlerRegistry", m.syncContainerHandlerRegistry().ptr()},
                {"syncContainerHandlerSm", m.syncContainerHandlerSm().ptr()},
                {"listenStatus", m.listenStatus().ptr()},
                {"pathSubscribeRequestDedupTable", m.pathSubscribeRequestDedupTable().ptr()},
                {"subscribeStatus", m.subscribeStatus().ptr()}};
    }
};

TEST_F(ModuleReflectionTest, TheTableListsTheAttributesInTheirDocumentedOrder) {
    ASSERT_TRUE(type);
    EXPECT_EQ(shared().fwkType(), type);
    std::vector<std::string> names;
    for (Wex::WexAttr const& a : type->attrs()) names.emplace_back(a.name());
    EXPECT_EQ(names, (std::vector<std::string>{
                         "get", "effectiveListenConfig", "listenSm", "listen", "effectiveSubscribeConfig", "q7Dir",
                         "localDir", "writeSyncDir", "remoteDir", "syncContainerSm", "syncContainerStatus",
                         "subscriberSm", "syncContainerHandlerRegistry", "syncContainerHandlerSm", "listenStatus",
                         "pathSubscribeRequestDedupTable", "subscribeStatus", "handleInitialized"}));
    EXPECT_EQ(type->attr("get")->kind(), Wex::AttrKind::staticOperation);
    EXPECT_EQ(type->attr("listen")->params(), std::vector<std::string>{"listenConfig"});
}

TEST_F(ModuleReflectionTest, EveryAttributeReadsWhatTheModuleHolds) {
    ASSERT_TRUE(type);
    Wex::GenericIf const gi = view();
    std::size_t read = 0;
    for (Wex::WexAttr const& a : type->attrs()) {
        if (a.kind() != Wex::AttrKind::attribute) continue;
        auto const want = expected();
        ASSERT_TRUE(want.count(std::string(a.name()))) << a.name();
        EXPECT_EQ(a.genericIfGet(gi).object(), want.at(std::string(a.name()))) << a.name();
        ++read;
    }
    EXPECT_EQ(read, 15u);  // rows 2 to 17 but the operation listen
    Wex::Value const status = type->attrOrThrow("listenStatus").genericIfGet(gi);
    ASSERT_TRUE(status.object());
    EXPECT_EQ(status.object()->fwkType(), Wex::typeNode("Kel::Q7Sync::ListenStatus"));
}

TEST_F(ModuleReflectionTest, EveryWriteIsRefusedAndChangesNothing) {
    ASSERT_TRUE(type);
    Wex::GenericIf const gi = view();
    auto const before = expected();
    Lumo::Ptr<Wex::Dir> stranger = freshDir("stranger");
    for (Wex::WexAttr const& a : type->attrs()) {
        if (a.kind() != Wex::AttrKind::attribute) continue;
        EXPECT_TRUE(a.readOnly()) << a.name();
        Wex::Value const same = a.genericIfGet(gi);
        EXPECT_THROW(a.genericIfSet(gi, Wex::Args{{std::string(a.name()), same}}), Wex::AttributeAccessException)
            << a.name();
        EXPECT_THROW(a.genericIfSet(gi, Wex::Args{{std::string(a.name()), Wex::Value::of(stranger)}}),
                     Wex::AttributeAccessException)
            << a.name();
        EXPECT_THROW(a.genericIfSet(gi, Wex::Args{}), Wex::AttributeAccessException) << a.name();
    }
    EXPECT_EQ(expected(), before);
}

TEST_F(ModuleReflectionTest, GetListenAndHandleInitializedCanBeCalled) {
    ASSERT_TRUE(type);
    Wex::Value const got = type->attrOrThrow("get").call(nullptr, {});
    EXPECT_EQ(got.object(), &shared());

    Wex::GenericIf const gi = view();
    Wex::WexAttr const& listen = type->attrOrThrow("listen");
    EXPECT_THROW(listen.genericIfCall(gi, {}), Wex::NewEntityArgsException);
    EXPECT_THROW(listen.genericIfCall(gi, {{"listenConfig", Wex::Value::of(7)}}), Wex::NewEntityArgsException);
    EXPECT_EQ(shared().effectiveListenConfig()->listenConfig(), ListenConfig());
    listen.genericIfCall(gi, {{"listenConfig", Wex::Value::of(loopback())}});
    EXPECT_EQ(shared().effectiveListenConfig()->listenConfig(), loopback());
    listen.genericIfCall(gi, {{"listenConfig", Wex::Value::of(ListenConfig())}});

    // Run again on a module of its own, it builds new entities on the directories already there.
    Lumo::Ptr<Module> other = moduleFactory();
    Lumo::Ptr<EffectiveSubscribeConfig const> const firstSet = other->effectiveSubscribeConfig();
    type->attrOrThrow("handleInitialized").genericIfCall(type->genericIf(Lumo::Ptr<Wex::PtrInterface>(other)), {});
    EXPECT_NE(other->effectiveSubscribeConfig(), firstSet);
    EXPECT_EQ(other->q7Dir(), shared().q7Dir());
    EXPECT_EQ(other->remoteDir(), shared().remoteDir());
}

TEST_F(ModuleReflectionTest, GenericConstructionBuildsANewModuleFromNoArguments) {
    ASSERT_TRUE(type);
    Wex::Value const made = type->newValue({});
    ASSERT_TRUE(made.object());
    EXPECT_NE(made.object(), &shared());
    EXPECT_EQ(static_cast<Module const*>(made.object())->q7Dir(), shared().q7Dir());
    long const live = Wex::PtrInterface::liveObjects();
    EXPECT_THROW(type->newValue({{"name", Wex::Value::of(Lumo::String("q7"))}}), Wex::NewEntityArgsException);
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), live);
}

// A construction that throws leaves nothing behind, and the next one succeeds. It needs a
// global directory that has never held the module's tree, so it runs in a process of its own.
TEST(ModuleConstructionTest, AConstructionThatThrowsLeavesNothingAndTheNextOneSucceeds) {
    if (!inFreshProcess()) return;
    Lumo::Ptr<Wex::Dir> const& global = Wex::System::globalDir();
    ASSERT_FALSE(global->entityPtr("q7"));
    Lumo::Ptr<Wex::Entity> impostor = global->createEntity("Kel::Q7Sync::SyncContainer", "q7");
    ASSERT_TRUE(impostor);
    std::size_t const entries = global->entities();
    long const live = Wex::PtrInterface::liveObjects();

    try {
        moduleFactory();
        ADD_FAILURE() << "a module was built on a global directory whose 'q7' is not a directory";
    } catch (Wex::Exception const& e) {
        EXPECT_NE(std::string(e.what()).find("'q7'"), std::string::npos) << e.what();
    }
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), live);
    EXPECT_EQ(global->entities(), entries);
    EXPECT_EQ(global->entityPtr("q7"), impostor);

    global->deleteEntity("q7");
    impostor = nullptr;
    Lumo::Ptr<Module> module = moduleFactory();
    ASSERT_TRUE(module);
    EXPECT_EQ(module->q7Dir(), globalQ7());
    EXPECT_EQ(childNames(*globalQ7()), (std::set<std::string>{"local", "remote", "writeSync"}));
}

} // namespace
} // namespace Kel::Q7Sync::Test
