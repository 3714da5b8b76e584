// Sync containers: creation and configuration, the container status, the handler registry,
// and the container state machine that keeps containers in step with the subscriptions.
#include "KelLib/Q7SyncContainer.h"

#include <algorithm>
#include <cstdint>
#include <functional>

#include <gtest/gtest.h>

#include "KelLib/Q7SyncSubscribeSm.h"
#include "host/StateContainer.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Q7Agent::StateContainer;

PathSubscribeConfig stateSubscription(char const* key, std::uint8_t flags, char const* path = "agent/state") {
    return subscription(key, 1, path, Wex::wexTypeOf<StateContainer>(), Flags(flags));
}

bool anyContains(std::vector<std::string> const& lines, std::string_view text) {
    return std::any_of(lines.begin(), lines.end(), [&](auto const& l) { return l.find(text) != std::string::npos; });
}

// A write made both ways: the typed call on one object, the reflective one on its twin, which
// returns `returns` (the object it removed, for a deletion).
struct TwinWrite {
    std::function<void()> typed;
    std::function<Wex::Value()> reflected;
    Wex::PtrInterface const* returns = nullptr;
};

// Runs each write both ways; after each the twins must have been heard alike and hold as many.
void expectWritesAlike(std::vector<TwinWrite> const& writes, ChangeRecorder const& typed,
                       ChangeRecorder const& reflected, std::function<bool()> const& sameCount) {
    for (std::size_t i = 0; i < writes.size(); ++i) {
        writes[i].typed();
        EXPECT_EQ(writes[i].reflected().object(), writes[i].returns) << "write " << i;
        EXPECT_EQ(reflected.changes, typed.changes) << "write " << i;
        EXPECT_TRUE(sameCount()) << "write " << i;
    }
}

// Reflective writes refused as the typed ones are, each naming the attribute.
template <class E>
void expectRefused(std::function<void()> const& attempt, char const* attribute) {
    try {
        attempt();
        ADD_FAILURE() << "accepted, " << attribute;
    } catch (E const& e) {
        EXPECT_EQ(e.attribute(), attribute);
    }
}

// SyncContainer

class SyncContainerTest : public SyncFixture {
protected:
    Lumo::Ptr<Wex::Dir> dir = freshDir();
};

TEST_F(SyncContainerTest, CreateMakesTheConfigsTypeNamedAfterItsKeyAndAgainReturnsItTellingNobody) {
    PathSubscribeConfig const cfg = stateSubscription("k", 0x02);
    Lumo::Ptr<SyncContainer> c = SyncContainer::create(dir, cfg);
    ASSERT_TRUE(c);
    EXPECT_EQ(dir->entityPtr("k"), c);
    EXPECT_EQ(c->fwkType(), Wex::wexTypeOf<StateContainer>());
    EXPECT_TRUE(dynamic_cast<StateContainer const*>(c.ptr()));
    EXPECT_EQ(c->pathSubscribeConfig(), cfg);
    EXPECT_EQ(c->remoteAddr(), cfg.remoteAddr());

    ChangeRecorder watcher(c);
    EXPECT_EQ(SyncContainer::create(dir, cfg), c);
    EXPECT_TRUE(watcher.changes.empty());
    EXPECT_EQ(dir->entities(), 1u);
}

// A refusal of another subscription's config, naming the attribute, with nothing changed.
void expectReinstantiationRefused(std::function<void()> const& call) {
    try {
        call();
        ADD_FAILURE() << "another subscription's config was taken";
    } catch (Wex::ReInstantiationException const& e) {
        EXPECT_EQ(e.attribute(), "pathSubscribeConfig");
    }
}

TEST_F(SyncContainerTest, SetConfigConfiguresOnceAndRefusesAnotherConfig) {
    auto c = Lumo::ptr_cast<SyncContainer>(dir->createEntity("Kel::Q7Sync::SyncContainer", "k"));
    ASSERT_TRUE(c);
    EXPECT_EQ(c->syncAttributeName(), "syncAttribute");
    EXPECT_FALSE(c->pathSubscribeConfig());
    ChangeRecorder watcher(c);
    PathSubscribeConfig const first = subscription("k");
    c->setConfig(first);
    c->setConfig(first);
    EXPECT_EQ(watcher.changes, (std::vector<ChangeRecorder::Seen>{{SyncContainer::kPathSubscribeConfig, true}}));

    expectReinstantiationRefused([&] { c->setConfig(subscription("k", 1, "other/path")); });
    EXPECT_EQ(c->pathSubscribeConfig(), first);
    EXPECT_EQ(watcher.changes.size(), 1u);
}

// A container holding a stale entry: only flags 0x15 empty it, and before its configuration is told.
TEST_F(SyncContainerTest, Flags0x15ResetSyncAttributeThroughReflectionBeforeConfiguring) {
    for (std::uint8_t flags : {0x15, 0x01, 0x17, 0x14}) {
        auto held = Lumo::ptr_cast<StateContainer>(dir->createEntity("Q7Agent::StateContainer", "k"));
        held->syncAttributeIs("eth0", "stale");
        ChangeRecorder watcher(held);
        SyncContainer::create(dir, stateSubscription("k", flags));
        bool const reset = flags == 0x15;
        EXPECT_EQ(held->syncAttribute().size(), reset ? 0u : 1u) << "flags " << int(flags);
        std::vector<ChangeRecorder::Seen> expected;
        if (reset) expected.push_back({StateContainer::kSyncAttribute, true});
        expected.push_back({SyncContainer::kPathSubscribeConfig, true});
        EXPECT_EQ(watcher.changes, expected) << "flags " << int(flags);
        dir->deleteEntity("k");
    }
}

TEST_F(SyncContainerTest, Flags0x15OnPlainSyncContainerStillCreatesAndConfigures) {
    PathSubscribeConfig const cfg = subscription("k", 1, "p", Wex::wexTypeOf<SyncContainer>(), Flags(0x15));
    Lumo::Ptr<SyncContainer> c = SyncContainer::create(dir, cfg);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->pathSubscribeConfig(), cfg);
}

TEST_F(SyncContainerTest, ASecondSubscriptionNamingTheContainerLeavesTheFirstsStateAndConfig) {
    PathSubscribeConfig const first = stateSubscription("k", 0x15);
    auto c = Lumo::ptr_cast<StateContainer>(SyncContainer::create(dir, first));
    c->syncAttributeIs("eth0", "mirrored");
    ChangeRecorder watcher(c);
    expectReinstantiationRefused([&] { SyncContainer::create(dir, stateSubscription("k", 0x15, "other/path")); });
    EXPECT_EQ(c->pathSubscribeConfig(), first);
    EXPECT_EQ(c->syncAttribute().get("eth0").value, "mirrored");
    EXPECT_TRUE(watcher.changes.empty());
}

// The sync service writes a peer's entries into the attribute the local URI names, by key, from text.
TEST_F(SyncContainerTest, SyncAttributeIsWrittenByKeyFromTextWithItsWatchersTold) {
    auto c = Lumo::ptr_cast<StateContainer>(SyncContainer::create(dir, stateSubscription("k", 0x02)));
    Wex::WexType const* type = c->fwkType();
    Wex::WexAttr const& state = type->attrOrThrow(c->syncAttributeName().view());
    Wex::GenericIf const gi = type->genericIf(c);
    ChangeRecorder watcher(c);
    state.genericIfMemberIsFromText(gi, "'eth0'", "'remote \\x41 state'");
    EXPECT_EQ(c->syncAttribute().get("eth0").value, "remote A state");
    EXPECT_THROW(state.genericIfMemberIsFromText(gi, "'eth1'", "'unterminated"), Wex::RangeException);
    EXPECT_THROW(state.genericIfMemberIsFromText(gi, "eth1", "'up'"), Wex::RangeException);
    EXPECT_EQ(c->syncAttribute().size(), 1u);
    EXPECT_EQ(state.genericIfMemberDelFromText(gi, "'eth0'").text(), "'remote A state'");
    EXPECT_TRUE(c->syncAttribute().empty());
    EXPECT_EQ(watcher.changes, (std::vector<ChangeRecorder::Seen>{{StateContainer::kSyncAttribute, false},
                                                                  {StateContainer::kSyncAttribute, true}}));
}

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

TEST_F(SyncContainerTest, CreateRefusesBadInputAndChangesNothing) {
    try {
        SyncContainer::create(nullptr, subscription("k"));
        FAIL() << "a null directory was accepted";
    } catch (Wex::NullArgumentException const& e) {
        EXPECT_EQ(e.attribute(), "dir");
    }
    Lumo::Ptr<Wex::Entity> plain = dir->createEntity("Kel::Q7Sync::SyncContainer", "plain");
    Lumo::Ptr<Wex::Entity> notAContainer = dir->createEntity("Wex::Dir", "k");
    EXPECT_THROW(SyncContainer::create(dir, subscription("k")), Wex::NewEntityArgsException);
    EXPECT_THROW(SyncContainer::create(dir, stateSubscription("plain", 0x15)), Wex::NewEntityArgsException);
    EXPECT_EQ(dir->entityPtr("k"), notAContainer);
    EXPECT_FALSE(Lumo::ptr_cast<SyncContainer>(plain)->pathSubscribeConfig());
    // A container made for the subscription and refused by its own type does not stay behind.
    EXPECT_THROW(SyncContainer::create(dir, subscription("new", 1, "p", Wex::wexTypeOf<StubbornContainer>(), Flags(0x15))),
                 Wex::RangeException);
    EXPECT_FALSE(dir->entityPtr("new"));
}

// SyncContainerStatus

class SyncContainerStatusTest : public SyncFixture {
protected:
    Lumo::Ptr<Wex::Dir> dir = freshDir();
    Lumo::Ptr<SyncContainerStatus> status = SyncContainerStatus::SyncContainerStatusIs();
};

TEST_F(SyncContainerStatusTest, RecordsNotifyOnlyRealChangesAndKeepTheKeyIndex) {
    PathSubscribeConfig const a = subscription("k", 1), b = subscription("k", 2), other = subscription("j", 1);
    ChangeRecorder watcher(status);
    auto ca = placeContainer(dir, a), cb = placeContainer(dir, b), co = placeContainer(dir, other);
    status->syncContainerIs(ca);
    status->syncContainerIs(ca);
    status->syncContainerIs(cb);
    status->syncContainerIs(co);
    EXPECT_EQ(watcher.changes.size(), 3u);
    EXPECT_EQ(status->syncContainersOfKey("k").size(), 2u);

    Lumo::Ptr<SyncContainer> replacement = placeContainer(freshDir("elsewhere"), a);
    status->syncContainerIs(replacement);
    EXPECT_EQ(watcher.changes.back(), (ChangeRecorder::Seen{SyncContainerStatus::kSyncContainer, true}));
    EXPECT_EQ(status->syncContainer(a), replacement);
    auto const ofK = status->syncContainersOfKey("k");
    EXPECT_EQ(std::count(ofK.begin(), ofK.end(), replacement), 1);
    EXPECT_EQ(std::count(ofK.begin(), ofK.end(), ca), 0);

    EXPECT_FALSE(status->syncContainerDel(subscription("absent")));
    EXPECT_EQ(watcher.changes.size(), 4u);
    EXPECT_EQ(status->syncContainerDel(b), cb);
    EXPECT_EQ(status->syncContainersOfKey("k").size(), 1u);
    status->syncContainerDelAll();
    EXPECT_EQ(watcher.changes.size(), 7u);
    EXPECT_TRUE(status->syncContainersOfKey("k").empty());
    EXPECT_TRUE(status->syncContainersOfKey("j").empty());
}

TEST_F(SyncContainerStatusTest, NullContainerIsRefusedChangingNothing) {
    ChangeRecorder watcher(status);
    try {
        status->syncContainerIs(nullptr);
        FAIL() << "null accepted";
    } catch (Wex::NullArgumentException const& e) {
        EXPECT_EQ(e.attribute(), "syncContainer");
    }
    EXPECT_EQ(status->syncContainer().size(), 0u);
    EXPECT_TRUE(watcher.changes.empty());
}

TEST_F(SyncContainerStatusTest, ReflectionReadsByKeyAndWritesAndDeletesThroughTheTypedCalls) {
    Wex::WexType const* type = Wex::wexTypeOf<SyncContainerStatus>();
    Wex::WexAttr const& records = type->attrOrThrow("syncContainer");
    Lumo::Ptr<SyncContainerStatus> twin = SyncContainerStatus::SyncContainerStatusIs();
    Wex::GenericIf const gi = type->genericIf(twin);
    ChangeRecorder typedWatcher(status), reflectedWatcher(twin);
    PathSubscribeConfig const a = subscription("k", 1), b = subscription("k", 2);
    auto ca = placeContainer(dir, a), cb = placeContainer(dir, b), replacement = placeContainer(freshDir("other"), a);
    auto const is = [&](Lumo::Ptr<SyncContainer> const& c) {
        return [&, c] { return records.genericIfMemberIs(gi, {{"syncContainer", Wex::Value::of(c)}}); };
    };
    auto const sameCount = [&] { return twin->syncContainer().size() == status->syncContainer().size(); };
    expectWritesAlike({{[&] { status->syncContainerIs(ca); }, is(ca)},
                       {[&] { status->syncContainerIs(ca); }, is(ca)},
                       {[&] { status->syncContainerIs(cb); }, is(cb)},
                       {[&] { status->syncContainerIs(replacement); }, is(replacement)}},
                      typedWatcher, reflectedWatcher, sameCount);
    EXPECT_EQ(reflectedWatcher.changes.size(), 3u);

    EXPECT_EQ(records.genericIfMember(gi, Wex::Value::of(a)).object(), replacement.ptr());
    EXPECT_TRUE(records.genericIfMemberHas(gi, Wex::Value::of(b)));
    EXPECT_FALSE(records.genericIfMember(gi, Wex::Value::of(subscription("absent"))).object());
    EXPECT_FALSE(records.genericIfMemberHas(gi, Wex::Value::of(subscription("absent"))));
    EXPECT_EQ(records.genericIfCount(gi), 2u);
    EXPECT_EQ(twin->syncContainersOfKey("k").size(), 2u);  // the typed call keeps its index

    expectRefused<Wex::NullArgumentException>([&] { is(nullptr)(); }, "syncContainer");
    expectRefused<Wex::ValueTypeException>([&] { records.genericIfMemberIs(gi, {{"syncContainer", Wex::Value::of(dir)}}); },
                                           "syncContainer");
    expectRefused<Wex::ValueTypeException>([&] { records.genericIfMemberDel(gi, Wex::Value::of(Lumo::String("k"))); },
                                           "syncContainer");
    expectRefused<Wex::RangeException>([&] { records.genericIfMemberIsFromText(gi, valueToStrep(a), "null"); },
                                       "syncContainer");
    EXPECT_EQ(reflectedWatcher.changes.size(), 3u);

    expectWritesAlike({{[&] { status->syncContainerDel(b); }, [&] { return records.genericIfMemberDel(gi, Wex::Value::of(b)); },
                        cb.ptr()},
                       {[&] { status->syncContainerDel(b); }, [&] { return records.genericIfMemberDel(gi, Wex::Value::of(b)); }},
                       {[&] { status->syncContainerDelAll(); }, [&] { records.genericIfMemberDelAll(gi); return Wex::Value(); }}},
                      typedWatcher, reflectedWatcher, sameCount);
    EXPECT_EQ(reflectedWatcher.changes.size(), 5u);
    EXPECT_TRUE(twin->syncContainersOfKey("k").empty());
}

// SyncContainerHandlerRegistry

TEST_F(SyncFixture, RegistryRefusesNullAndNotifiesOnlyRealChanges) {
    std::vector<std::string> log;
    auto registry = SyncContainerHandlerRegistry::SyncContainerHandlerRegistryIs();
    ChangeRecorder watcher(registry);
    EXPECT_THROW(registry->syncContainerHandlerIs(nullptr), Wex::NullArgumentException);
    auto a = RecordingHandler::make("A", "k", &log), b = RecordingHandler::make("B", "k", &log);
    registry->syncContainerHandlerIs(a);
    registry->syncContainerHandlerIs(a);
    registry->syncContainerHandlerIs(b);
    EXPECT_FALSE(registry->syncContainerHandlerDel("absent"));
    EXPECT_EQ(watcher.changes, (std::vector<ChangeRecorder::Seen>{{130, false}, {130, true}}));
    EXPECT_EQ(registry->syncContainerHandler("k"), b);
}

TEST_F(SyncFixture, RegistryThroughReflectionIsReadByKeyAndWrittenAsByTheTypedCalls) {
    std::vector<std::string> log;
    Wex::WexType const* type = Wex::wexTypeOf<SyncContainerHandlerRegistry>();
    Wex::WexAttr const& handlers = type->attrOrThrow("syncContainerHandler");
    auto registry = SyncContainerHandlerRegistry::SyncContainerHandlerRegistryIs();
    auto twin = SyncContainerHandlerRegistry::SyncContainerHandlerRegistryIs();
    Wex::GenericIf const gi = type->genericIf(twin);
    ChangeRecorder typedWatcher(registry), reflectedWatcher(twin);
    auto a = RecordingHandler::make("A", "k", &log), b = RecordingHandler::make("B", "k", &log);
    auto const is = [&](Lumo::Ptr<RecordingHandler> const& h) {
        return [&, h] { return handlers.genericIfMemberIs(gi, {{"syncContainerHandler", Wex::Value::of(h)}}); };
    };
    auto const del = [&](char const* key) { return [&, key] { return handlers.genericIfMemberDel(gi, Wex::Value::of(Lumo::String(key))); }; };
    expectWritesAlike({{[&] { registry->syncContainerHandlerIs(a); }, is(a)},
                       {[&] { registry->syncContainerHandlerIs(a); }, is(a)},
                       {[&] { registry->syncContainerHandlerIs(b); }, is(b)},
                       {[&] { registry->syncContainerHandlerDel("absent"); }, del("absent")}},
                      typedWatcher, reflectedWatcher,
                      [&] { return twin->syncContainerHandler().size() == registry->syncContainerHandler().size(); });
    EXPECT_EQ(handlers.genericIfMember(gi, Wex::Value::of(Lumo::String("k"))).object(), b.ptr());
    EXPECT_TRUE(handlers.genericIfMemberHas(gi, Wex::Value::of(Lumo::String("k"))));
    EXPECT_EQ(handlers.genericIfCount(gi), 1u);
    expectRefused<Wex::NullArgumentException>([&] { is(nullptr)(); }, "syncContainerHandler");
    expectRefused<Wex::RangeException>([&] { handlers.genericIfMemberIsFromText(gi, "'k'", "null"); }, "syncContainerHandler");
    EXPECT_EQ(handlers.genericIfMemberDelFromText(gi, "'k'").object(), b.ptr());
    registry->syncContainerHandlerDel("k");
    EXPECT_EQ(reflectedWatcher.changes, typedWatcher.changes);
    EXPECT_EQ(reflectedWatcher.changes.size(), 3u);
    registry->syncContainerHandlerIs(a);
    is(a)();
    registry->syncContainerHandlerDelAll();
    handlers.genericIfMemberDelAll(gi);
    EXPECT_EQ(reflectedWatcher.changes, typedWatcher.changes);
    EXPECT_TRUE(twin->syncContainerHandler().empty());
}

// SyncContainerSm

class SyncContainerSmTest : public SyncFixture {
protected:
    Lumo::Ptr<SyncContainerSm> makeSm() { return SyncContainerSm::SyncContainerSmIs(effective, status, dir); }

    Lumo::Ptr<EffectiveSubscribeConfig> effective = EffectiveSubscribeConfig::EffectiveSubscribeConfigIs();
    Lumo::Ptr<SyncContainerStatus> status = SyncContainerStatus::SyncContainerStatusIs();
    Lumo::Ptr<Wex::Dir> dir = freshDir();
};

TEST_F(SyncContainerSmTest, ContainerIsInPlaceWhenRecordedAndStillThereWhenTheRecordGoes) {
    auto sm = makeSm();
    PathSubscribeConfig const cfg = subscription("k");
    std::vector<std::string> seen;
    ChangeRecorder watcher(status);
    watcher.onChange = [&](Lumo::Change const& change) {
        auto const& key = *static_cast<PathSubscribeConfig const*>(change.key);
        auto held = Lumo::ptr_cast<SyncContainer>(containerAt(dir, key));
        seen.push_back(held && held->pathSubscribeConfig() == key ? "in place" : "missing");
    };
    effective->pathSubscribeConfigIs(cfg);
    EXPECT_TRUE(status->syncContainer(cfg));
    effective->pathSubscribeConfigDel(cfg);
    EXPECT_EQ(seen, (std::vector<std::string>{"in place", "in place"}));
    EXPECT_FALSE(status->syncContainer(cfg));
    EXPECT_EQ(dir->entities(), 0u);
    EXPECT_EQ(traces.at(1), (std::vector<std::string>{"SyncContainerSm::addContainer: localUri " + cfg.localUri().str(),
                                                      "SyncContainerSm::removeContainer: localUri " + cfg.localUri().str()}));
}

TEST_F(SyncContainerSmTest, SubscriptionsOfOneAgentShareItsDirectoryUntilTheLastGoes) {
    auto sm = makeSm();
    PathSubscribeConfig const a = subscription("a"), b = subscription("b");
    effective->pathSubscribeConfigIs(a);
    effective->pathSubscribeConfigIs(b);
    auto agentDir = Lumo::ptr_cast<Wex::Dir>(dir->entityPtr(a.remoteAgentKey()));
    ASSERT_TRUE(agentDir);
    EXPECT_EQ(agentDir->entities(), 2u);
    effective->pathSubscribeConfigDel(a);
    EXPECT_EQ(dir->entityPtr(a.remoteAgentKey()), agentDir);
    EXPECT_TRUE(containerAt(dir, b));
    effective->pathSubscribeConfigDel(b);
    EXPECT_EQ(dir->entities(), 0u);
}

TEST_F(SyncContainerSmTest, SweepAtConstructionAddsSubscriptionsInForceAndRemovesEndedOnes) {
    PathSubscribeConfig const a = subscription("a", 1), b = subscription("b", 2), ended = subscription("gone", 3);
    effective->pathSubscribeConfigIs(a);
    effective->pathSubscribeConfigIs(b);
    auto endedDir = Lumo::ptr_cast<Wex::Dir>(dir->createEntity("Wex::Dir", ended.remoteAgentKey()));
    status->syncContainerIs(SyncContainer::create(endedDir, ended));

    auto sm = makeSm();
    EXPECT_TRUE(status->syncContainer(a) && status->syncContainer(b));
    EXPECT_FALSE(status->syncContainer(ended));
    EXPECT_TRUE(containerAt(dir, a) && containerAt(dir, b));
    EXPECT_FALSE(dir->entityPtr(ended.remoteAgentKey()));
    EXPECT_EQ(traces.at(8), (std::vector<std::string>{"SyncContainerSm::handlePathSubscribeConfig: "}));

    ChangeRecorder watcher(status);
    sm->addContainer(a);
    EXPECT_TRUE(watcher.changes.empty());
}

TEST_F(SyncContainerSmTest, DestroyedOrMarkedReactorLeavesContainersAndRecordsAlone) {
    auto sm = makeSm();
    PathSubscribeConfig const a = subscription("a"), b = subscription("b");
    effective->pathSubscribeConfigIs(a);
    sm->wexDoZombieReactors(true);
    effective->pathSubscribeConfigIs(b);
    EXPECT_FALSE(status->syncContainer(b));
    sm = nullptr;
    effective->pathSubscribeConfigDel(a);
    EXPECT_TRUE(status->syncContainer(a));
    EXPECT_TRUE(containerAt(dir, a));
}

TEST_F(SyncContainerSmTest, TwoSubscriptionsNamingOneContainerLeaveItToTheFirst) {
    auto sm = makeSm();
    PathSubscribeConfig const first = subscription("k", 1, "first"), second = subscription("k", 1, "second");
    effective->pathSubscribeConfigIs(first);
    Lumo::Ptr<Wex::Entity> c = containerAt(dir, first);
    effective->pathSubscribeConfigIs(second);
    EXPECT_FALSE(status->syncContainer(second));
    EXPECT_EQ(status->syncContainer(first), c);
    effective->pathSubscribeConfigDel(second);
    EXPECT_EQ(containerAt(dir, first), c);
    EXPECT_EQ(Lumo::ptr_cast<SyncContainer>(c)->pathSubscribeConfig(), first);
    EXPECT_TRUE(anyContains(traces.at(0), "gets no container: re-instantiation of 'pathSubscribeConfig'"));
    effective->pathSubscribeConfigDel(first);
    EXPECT_EQ(dir->entities(), 0u);
}

TEST_F(SyncContainerSmTest, RemovalOfAVanishedContainerDropsTheRecordAndReportsIt) {
    auto sm = makeSm();
    PathSubscribeConfig const cfg = subscription("k");
    effective->pathSubscribeConfigIs(cfg);
    Lumo::ptr_cast<Wex::Dir>(dir->entityPtr(cfg.remoteAgentKey()))->deleteEntity("k");
    effective->pathSubscribeConfigDel(cfg);
    EXPECT_FALSE(status->syncContainer(cfg));
    EXPECT_TRUE(anyContains(traces.at(0), "nullptr != syncContainer && \"A container must have been created before\""));
}

TEST_F(SyncContainerSmTest, NullStatusOrDirectoryIsRefused) {
    EXPECT_THROW(SyncContainerSm::SyncContainerSmIs(effective, nullptr, dir), Wex::NullArgumentException);
    EXPECT_THROW(SyncContainerSm::SyncContainerSmIs(effective, status, nullptr), Wex::NullArgumentException);
    EXPECT_EQ(effective->publisher().subscribers(), 0u);
}

} // namespace
} // namespace Kel::Q7Sync::Test
