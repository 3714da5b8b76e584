// Sync containers, their records and the reactor that keeps containers in step with the
// subscriptions in force (the hand-over to handlers: Q7SyncSubscribeSmTest).
#include "KelLib/Q7SyncContainer.h"

#include <cstdint>
#include <optional>

#include "KelLib/Q7SyncSubscribeSm.h"
#include "host/StateContainer.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Q7Agent::StateContainer;

PathSubscribeConfig stateSubscription(char const* key, std::uint8_t flags, char const* path = "agent/state") {
    return subscription(key, 1, path, Wex::wexTypeOf<StateContainer>(), Flags(flags));
}
// What a ChangeRecorder writes for a change with a previous value.
std::string changed(Wex::AttributeId attribute) { return std::to_string(attribute) + "~"; }

// A container type whose "syncAttribute" refuses to be reset.
class StubbornContainer : public SyncContainer {
public:
    explicit StubbornContainer(Lumo::String name) : SyncContainer(std::move(name)) {}
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<StubbornContainer>(); }
};
Wex::WexModuleRegistrar stubbornRegistrar("tests/StubbornContainer", [](Wex::WexModule& m) {
    m.type<StubbornContainer>("Test::StubbornContainer")
        .base<SyncContainer>()
        .attribute("syncAttribute", [](StubbornContainer const&) { return 0u; },
                   [](StubbornContainer&, unsigned) { throw Wex::RangeException("syncAttribute", "cannot be reset"); })
        .entityMaker();
});
PathSubscribeConfig stubbornSubscription(int host) {
    return subscription("s", host, "p", Wex::wexTypeOf<StubbornContainer>(), Flags(0x15));
}

class SyncContainerTest : public SyncFixture {
protected:
    Lumo::Ptr<Wex::Dir> dir = freshDir();
};

TEST_F(SyncContainerTest, CreateMakesOrReturnsTheContainerOfItsSubscriptionAndNoOther) {
    PathSubscribeConfig const cfg = stateSubscription("k", 0x02);
    auto const c = Lumo::ptr_cast<StateContainer>(SyncContainer::create(dir, cfg));
    ASSERT_TRUE(c);
    EXPECT_EQ(dir->entityPtr("k"), c);
    EXPECT_EQ(c->remoteAddr(), cfg.remoteAddr());
    c->syncAttributeIs("eth0", "mirrored");
    ChangeRecorder watcher(c);
    EXPECT_EQ(SyncContainer::create(dir, cfg), c);
    // Another subscription naming it leaves it as it is, its state included.
    EXPECT_EQ(refusal<Wex::ReInstantiationException>([&] { SyncContainer::create(dir, stateSubscription("k", 0x15, "x")); }),
              "pathSubscribeConfig");
    EXPECT_EQ(c->pathSubscribeConfig(), cfg);
    EXPECT_EQ(c->syncAttribute().size(), 1u);
    EXPECT_TRUE(watcher.changes.empty());
    // What the directory or the container type refuses: nothing is made or changed.
    Lumo::Ptr<Wex::Entity> const plain = dir->createEntity("Kel::Q7Sync::SyncContainer", "plain");
    dir->createEntity("Wex::Dir", "d");
    EXPECT_EQ(refusal<Wex::NullArgumentException>([&] { SyncContainer::create(nullptr, cfg); }), "dir");
    EXPECT_EQ(refusal<Wex::NullArgumentException>([&] { SyncContainer::create(dir, PathSubscribeConfig()); }),
              "syncContainerType");
    EXPECT_EQ(refusal<Wex::NewEntityArgsException>([&] { SyncContainer::create(dir, subscription("d")); }),
              "syncContainerKey");
    EXPECT_EQ(refusal<Wex::NewEntityArgsException>([&] { SyncContainer::create(dir, stateSubscription("plain", 0x15)); }),
              "syncContainerKey");
    EXPECT_EQ(refusal<Wex::RangeException>([&] { SyncContainer::create(dir, stubbornSubscription(1)); }), "syncAttribute");
    EXPECT_FALSE(Lumo::ptr_cast<SyncContainer>(plain)->pathSubscribeConfig());
    EXPECT_EQ(dir->entities(), 3u) << "the refused container made for its subscription went again";

    // An unconfigured container takes one configuration, typed or through reflection, and keeps it.
    Wex::GenericIf const gi = plain->fwkType()->genericIf(plain);
    plain->fwkType()->attrOrThrow("setConfig").genericIfCall(gi, {{"config", Wex::Value::of(cfg)}});
    auto const configured = Lumo::ptr_cast<SyncContainer>(plain);
    EXPECT_EQ(configured->pathSubscribeConfig(), cfg);
    configured->setConfig(cfg);
    EXPECT_EQ(refusal<Wex::ReInstantiationException>([&] { configured->setConfig(subscription("plain")); }),
              "pathSubscribeConfig");
    EXPECT_EQ(configured->pathSubscribeConfig(), cfg);
}

// Only flags 0x15 reset the container's "syncAttribute", through reflection, before it is configured.
TEST_F(SyncContainerTest, Flags0x15ResetTheSyncAttributeBeforeConfiguringAndOtherFlagsKeepIt) {
    for (std::uint8_t flags : {0x15, 0x01, 0x17, 0x14}) {
        SCOPED_TRACE(flags);
        auto const held = Lumo::ptr_cast<StateContainer>(dir->createEntity("Q7Agent::StateContainer", "k"));
        held->syncAttributeIs("eth0", "stale");
        ChangeRecorder watcher(held);
        SyncContainer::create(dir, stateSubscription("k", flags));
        Lines expected{changed(SyncContainer::kPathSubscribeConfig)};
        if (flags == 0x15) expected.insert(expected.begin(), changed(StateContainer::kSyncAttribute));
        EXPECT_EQ(watcher.changes, expected);
        EXPECT_EQ(held->syncAttribute().size(), flags == 0x15 ? 0u : 1u);
        dir->deleteEntity("k");
    }
    // Without a writable "syncAttribute" the reset is skipped and the container made all the same.
    PathSubscribeConfig const plain = subscription("p", 1, "p", Wex::wexTypeOf<SyncContainer>(), Flags(0x15));
    EXPECT_EQ(SyncContainer::create(dir, plain)->pathSubscribeConfig(), plain);
}

// Watched records go one by one, each told; unwatched ones all at once. The index by key follows.
TEST_F(SyncContainerTest, DeletingAllRecordsTellsEachDeletionOnlyWhenWatched) {
    PathSubscribeConfig const a = subscription("k", 1), b = subscription("k", 2), other = subscription("j", 1);
    auto const ca = placeContainer(dir, a), cb = placeContainer(dir, b), co = placeContainer(dir, other);
    for (bool watched : {true, false}) {
        SCOPED_TRACE(watched);
        Lumo::Ptr<SyncContainerStatus> const status = SyncContainerStatus::SyncContainerStatusIs();
        EXPECT_EQ(refusal<Wex::NullArgumentException>([&] { status->syncContainerIs(nullptr); }), "syncContainer");
        for (auto const& c : {ca, cb, co}) status->syncContainerIs(c);
        EXPECT_EQ(status->syncContainerDel(b), cb);
        EXPECT_EQ(status->syncContainersOfKey("k"), (std::vector<Lumo::Ptr<SyncContainer const>>{ca}));
        std::optional<ChangeRecorder> watcher;
        if (watched) watcher.emplace(status);
        status->syncContainerDelAll();
        EXPECT_TRUE(status->syncContainer().empty());
        EXPECT_TRUE(status->syncContainersOfKey("k").empty() && status->syncContainersOfKey("j").empty());
        if (watched) EXPECT_EQ(watcher->changes, Lines(2, changed(SyncContainerStatus::kSyncContainer)));
    }
}

class SyncContainerSmTest : public SyncFixture {
protected:
    Lumo::Ptr<SyncContainerSm> makeSm() { return SyncContainerSm::SyncContainerSmIs(effective, status, dir); }
    static std::string traced(char const* function, PathSubscribeConfig const& c, std::string const& rest = "") {
        return fmt::format("SyncContainerSm::{}: localUri {}{}", function, c.localUri(), rest);
    }

    Lumo::Ptr<EffectiveSubscribeConfig> effective = EffectiveSubscribeConfig::EffectiveSubscribeConfigIs();
    Lumo::Ptr<SyncContainerStatus> status = SyncContainerStatus::SyncContainerStatusIs();
    Lumo::Ptr<Wex::Dir> dir = freshDir();
};

// The record comes after its container is in place and goes before the container does, so that
// its watchers always find the container where it belongs; an agent's directory goes with its last.
TEST_F(SyncContainerSmTest, ContainersFollowTheSubscriptionsInForceInTheirAgentsDirectory) {
    auto const sm = makeSm();
    PathSubscribeConfig const a = subscription("a"), b = subscription("b");
    ChangeRecorder watcher(status);
    Lines seen;
    watcher.onChange = [&](Lumo::Change const& change) {
        auto const& key = *static_cast<PathSubscribeConfig const*>(change.key);
        auto const held = Lumo::ptr_cast<SyncContainer>(containerAt(dir, key));
        seen.push_back(held && held->pathSubscribeConfig() == key ? "in place" : "missing");
    };
    effective->pathSubscribeConfigIs(a);
    effective->pathSubscribeConfigIs(b);
    EXPECT_EQ(status->syncContainer(b), containerAt(dir, b));
    effective->pathSubscribeConfigDel(a);
    EXPECT_FALSE(containerAt(dir, a) || status->syncContainer(a));
    EXPECT_TRUE(containerAt(dir, b));
    effective->pathSubscribeConfigDel(b);
    EXPECT_EQ(dir->entities(), 0u);
    EXPECT_EQ(seen, Lines(4, "in place"));
    EXPECT_EQ(traces.at(1), (Lines{traced("addContainer", a), traced("addContainer", b), traced("removeContainer", a),
                                   traced("removeContainer", b)}));
}

TEST_F(SyncContainerSmTest, TheFirstSweepAddsWhatIsInForceAndRemovesWhatEnded) {
    PathSubscribeConfig const a = subscription("a", 1), b = subscription("b", 2), ended = subscription("gone", 3);
    effective->pathSubscribeConfigIs(a);
    effective->pathSubscribeConfigIs(b);
    status->syncContainerIs(placeContainer(dir, ended));
    auto const sm = makeSm();
    EXPECT_EQ(status->syncContainer().size(), 2u);
    EXPECT_TRUE(status->syncContainer(a) == containerAt(dir, a) && status->syncContainer(b) == containerAt(dir, b));
    EXPECT_FALSE(dir->entityPtr(ended.remoteAgentKey()));
    EXPECT_EQ(traces.at(8), Lines{"SyncContainerSm::handlePathSubscribeConfig: "});
    ChangeRecorder watcher(status);
    sm->addContainer(a);
    EXPECT_TRUE(watcher.changes.empty());
}

// What the directory or the container type refuses is traced, and the subscription goes without
// a container; its end leaves alone the container that another subscription holds.
TEST_F(SyncContainerSmTest, ASubscriptionThatGetsNoContainerLeavesEveryOtherAsItIs) {
    auto const sm = makeSm();
    PathSubscribeConfig const first = subscription("k", 1, "first"), second = subscription("k", 1, "second");
    effective->pathSubscribeConfigIs(first);
    Lumo::Ptr<Wex::Entity> const c = containerAt(dir, first);
    effective->pathSubscribeConfigIs(second);
    effective->pathSubscribeConfigIs(stubbornSubscription(2));
    EXPECT_EQ(status->syncContainer().size(), 1u);
    EXPECT_FALSE(dir->entityPtr(stubbornSubscription(2).remoteAgentKey()));
    effective->pathSubscribeConfigDel(second);
    EXPECT_EQ(containerAt(dir, first), c);
    EXPECT_EQ(status->syncContainer(first), c);
    EXPECT_EQ(traces.at(0), (Lines{traced("addContainer", second, " gets no container: re-instantiation of "
                                                                  "'pathSubscribeConfig' with different values"),
                                   traced("addContainer", stubbornSubscription(2), " gets no container: range error in attribute 'syncAttribute': cannot be reset"),
                                   traced("removeContainer", second,
                                          " names the container of remoteUri " + first.remoteUri().str() +
                                              ", which keeps it")}));
    // A container that vanished from its place: the record goes all the same.
    Lumo::ptr_cast<Wex::Dir>(dir->entityPtr(first.remoteAgentKey()))->deleteEntity("k");
    traces.clear();
    effective->pathSubscribeConfigDel(first);
    EXPECT_FALSE(status->syncContainer(first));
    EXPECT_EQ(traces.at(0), Lines{"SyncContainerSm::removeContainer: check failed: nullptr != syncContainer && \"A "
                                  "container must have been created before\" (localUri " + first.localUri().str() + ")"});
}

} // namespace
} // namespace Kel::Q7Sync::Test
