// The subscription reactors: the container records and the container reactor, the subscribe
// reactor with its status reactors and record, the handler dispatch, and a subscription from
// request to release through every reactor wired as the module wires them.
#include "KelLib/Q7SyncSubscribeSm.h"

#include <algorithm>
#include <optional>

#include "KelLib/Q7SyncSubscribeStatus.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Q7Serdes::WexUtils::SyncStatus;
using Q7Serdes::WexUtils::SyncStatusEnum;
using Q7SyncStatusSm = SubscribeSm::Q7SyncStatusSm;

Lumo::Ptr<SyncStatus> makeStatus(char const* uri) {
    Lumo::Ptr<SyncStatus> s(new SyncStatus(uri, "/local"));
    s->hasNotificationActiveIs(true);
    return s;
}
std::string statusTrace(Lumo::String const& uri, char const* status, char const* reason) {
    return fmt::format("Q7SyncStatusSm::handleSyncStatus: Q7SyncStatus for {} changed to {} with reason {}", uri,
                       status, reason);
}
std::string subscribeTrace(PathSubscribeConfig const& c) {
    return fmt::format("SubscribeSm::subscribe: remoteUri={}, localUri={}, flags={}", c.remoteUri(), c.localUri(),
                       c.flags());
}

// The entities the reactors work on, as the module makes them.
class ReactorTest : public SyncFixture {
protected:
    // Records the container of cfg as the container reactor would.
    Lumo::Ptr<SyncContainer> record(PathSubscribeConfig const& cfg) {
        Lumo::Ptr<SyncContainer> c = placeContainer(dir, cfg);
        status->syncContainerIs(c);
        return c;
    }

    Lumo::Ptr<EffectiveSubscribeConfig> effective = effectiveSubscribeConfigFactory();
    Lumo::Ptr<SyncContainerStatus> status = syncContainerStatusFactory();
    Lumo::Ptr<SubscribeStatus> subscribeStatus = subscribeStatusFactory();
    Lumo::Ptr<SyncContainerHandlerRegistry> registry = syncContainerHandlerRegistryFactory();
    Lumo::Ptr<Wex::Dir> dir = freshDir();
    Lines log;
};

// Watched records go one by one, each told; unwatched ones all at once. The index by key follows.
TEST_F(ReactorTest, DeletingAllRecordsTellsEachDeletionOnlyWhenWatched) {
    PathSubscribeConfig const a = subscription("k", 1), b = subscription("k", 2), other = subscription("j", 1);
    auto const ca = placeContainer(dir, a), cb = placeContainer(dir, b), co = placeContainer(dir, other);
    for (bool watched : {true, false}) {
        SCOPED_TRACE(watched);
        Lumo::Ptr<SyncContainerStatus> const records = syncContainerStatusFactory();
        EXPECT_EQ(refusal<Wex::NullArgumentException>([&] { records->syncContainerIs(nullptr); }), "syncContainer");
        for (auto const& c : {ca, cb, co}) records->syncContainerIs(c);
        EXPECT_EQ(records->syncContainerDel(b), cb);
        EXPECT_EQ(records->syncContainersOfKey("k"), (std::vector<Lumo::Ptr<SyncContainer const>>{ca}));
        std::optional<ChangeRecorder> watcher;
        if (watched) watcher.emplace(records);
        records->syncContainerDelAll();
        EXPECT_TRUE(records->syncContainer().empty());
        EXPECT_TRUE(records->syncContainersOfKey("k").empty() && records->syncContainersOfKey("j").empty());
        if (watched) {
            EXPECT_EQ(watcher->changes, Lines(2, std::to_string(SyncContainerStatus::kSyncContainer) + "~"));
        }
    }
}

class SyncContainerSmTest : public ReactorTest {
protected:
    Lumo::Ptr<SyncContainerSm> makeSm() { return syncContainerSmFactory(effective, status, dir); }
    static std::string traced(char const* function, PathSubscribeConfig const& c, std::string const& rest = "") {
        return fmt::format("SyncContainerSm::{}: localUri {}{}", function, c.localUri(), rest);
    }
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

// What the directory or the container type refuses is traced, and the subscription goes without
// a container; its end leaves alone the container that another subscription holds.
TEST_F(SyncContainerSmTest, ASubscriptionThatGetsNoContainerLeavesEveryOtherAsItIs) {
    auto const sm = makeSm();
    PathSubscribeConfig const first = subscription("k", 1, "first"), second = subscription("k", 1, "second");
    effective->pathSubscribeConfigIs(first);
    Lumo::Ptr<Wex::Entity> const c = containerAt(dir, first);
    effective->pathSubscribeConfigIs(second);
    // The text form carries no container type.
    PathSubscribeConfig const untyped = Wex::fromString<PathSubscribeConfig>(valueToStrep(subscription("s", 2)));
    effective->pathSubscribeConfigIs(untyped);
    EXPECT_EQ(status->syncContainer().size(), 1u);
    EXPECT_FALSE(dir->entityPtr(untyped.remoteAgentKey()));
    effective->pathSubscribeConfigDel(second);
    EXPECT_EQ(containerAt(dir, first), c);
    EXPECT_EQ(status->syncContainer(first), c);
    EXPECT_EQ(
        traces.at(0),
        (Lines{traced("addContainer", second,
                      " gets no container: re-instantiation of "
                      "'pathSubscribeConfig' with different values"),
               traced("addContainer", untyped, " gets no container: null argument for attribute 'syncContainerType'"),
               traced("removeContainer", second,
                      " names the container of remoteUri " + first.remoteUri().str() + ", which keeps it")}));
    // A container that vanished from its place: the record goes all the same.
    Lumo::ptr_cast<Wex::Dir>(dir->entityPtr(first.remoteAgentKey()))->deleteEntity("k");
    traces.clear();
    effective->pathSubscribeConfigDel(first);
    EXPECT_FALSE(status->syncContainer(first));
    EXPECT_EQ(traces.at(0), Lines{"SyncContainerSm::removeContainer: check failed: nullptr != syncContainer && \"A "
                                  "container must have been created before\" (localUri " +
                                  first.localUri().str() + ")"});
}

class SubscribeSmTest : public ReactorTest {
protected:
    Lumo::Ptr<SubscribeSm> makeSm() { return subscribeSmFactory(effective, status, subscribeStatus); }
    // Subscribed on the service, recorded with the service's status and watched.
    bool subscribed(PathSubscribeConfig const& c) const {
        Lumo::Ptr<PathSubscribeStatus> const entry = subscribeStatus->pathSubscribeStatus(c);
        Lumo::Ptr<SyncStatus> const live = service().syncStatus(c.remoteUri().view());
        return live && entry && entry->syncStatus() == live && sm->q7SyncStatus(c.remoteUri()) == live;
    }
    void statusIs(SyncStatusEnum s, char const* reason) { service().syncStatusIs(cfg.remoteUri().view(), s, reason); }

    Lumo::Ptr<SubscribeSm> sm;
    PathSubscribeConfig const cfg = subscription("k");
};

TEST_F(SubscribeSmTest, ASubscriptionIsSubscribedWhileInForceWithItsContainerRecorded) {
    sm = makeSm();
    record(cfg);
    status->syncContainerDel(cfg);
    effective->pathSubscribeConfigIs(cfg);
    EXPECT_TRUE(takeCalls().empty()) << "a container alone, then a configuration alone";
    record(cfg);
    EXPECT_EQ(takeCalls(), Calls{subscribeCall(cfg)});
    EXPECT_TRUE(subscribed(cfg));
    EXPECT_EQ(traces.at(1), Lines{subscribeTrace(cfg)});
    status->syncContainerDel(cfg);
    EXPECT_EQ(takeCalls(), Calls{unsubscribeCall(cfg)});
    EXPECT_FALSE(subscribeStatus->pathSubscribeStatus(cfg) || sm->q7SyncStatus(cfg.remoteUri()));
}

// Reactors act on the state present when they are built: the container reactor adds what is in
// force and removes what ended (a second look changes nothing), and the subscribe reactor
// subscribes what is recorded and in force and unsubscribes stale records.
TEST_F(SubscribeSmTest, TheFirstSweepsAddAndSubscribeWhatIsInForceAndRemoveWhatEnded) {
    PathSubscribeConfig const other = subscription("j", 2), ended = subscription("gone", 3);
    PathSubscribeConfig const stale = subscription("stale", 4);
    effective->pathSubscribeConfigIs(cfg);
    effective->pathSubscribeConfigIs(other);
    status->syncContainerIs(placeContainer(dir, ended));
    subscribeStatus->pathSubscribeStatusIs(stale, makeStatus("stale"));
    auto const containers = syncContainerSmFactory(effective, status, dir);
    EXPECT_EQ(status->syncContainer().size(), 2u);
    EXPECT_TRUE(status->syncContainer(cfg) == containerAt(dir, cfg) &&
                status->syncContainer(other) == containerAt(dir, other));
    EXPECT_FALSE(dir->entityPtr(ended.remoteAgentKey()));
    ChangeRecorder watcher(status);
    containers->addContainer(cfg);
    EXPECT_TRUE(watcher.changes.empty());
    sm = makeSm();
    Calls made = takeCalls();
    std::sort(made.begin(), made.end(), [](auto const& a, auto const& b) { return a.arguments < b.arguments; });
    EXPECT_EQ(made, (Calls{subscribeCall(cfg), subscribeCall(other), unsubscribeCall(stale)}));
    EXPECT_TRUE(subscribed(cfg) && subscribed(other));
    EXPECT_FALSE(subscribeStatus->pathSubscribeStatus(stale));
    EXPECT_EQ(traces.at(8),
              (Lines{"SyncContainerSm::handlePathSubscribeConfig: ", "SubscribeSm::handlePathSubscribeConfig: "}));
}

// A status the service should not have returned is refused inside the container's notification:
// the publisher confines the error to this reactor, the other watcher still hears of the
// container, and neither record takes anything. Met by the first sweep, it fails the construction.
TEST_F(SubscribeSmTest, ANullOrAnotherStatusIsRefusedWhileTheOtherWatchersStillHear) {
    using Null = Wex::NullArgumentException;
    EXPECT_EQ(refusal<Null>([&] { SubscribeSm::SubscribeSmIs(nullptr, status, subscribeStatus); }), "subscribeConfig");
    EXPECT_EQ(refusal<Null>([&] { SubscribeSm::SubscribeSmIs(effective, nullptr, subscribeStatus); }),
              "syncContainerStatus");
    EXPECT_EQ(refusal<Null>([&] { SubscribeSm::SubscribeSmIs(effective, status, nullptr); }), "subscribeStatus");
    effective->pathSubscribeConfigIs(cfg);
    record(cfg);
    service().subscribeReturnsNoStatusIs(true);
    EXPECT_EQ(refusal<Null>([&] { makeSm(); }), "q7SyncStatus");
    EXPECT_EQ(effective->publisher().subscribers() + status->notifieeList()->subscribers(), 0u);
    status->syncContainerDel(cfg);
    sm = makeSm();
    EXPECT_EQ(refusal<Null>([&] { sm->q7SyncStatusIs(nullptr); }), "q7SyncStatus");
    ChangeRecorder other(status);
    auto const refused = [&](char const* error) {
        EXPECT_EQ(other.changes.size(), 1u) << error;
        EXPECT_TRUE(sm->wexQ7SyncStatus().empty()) << error;
        Lines const confined = traces.at(0, "Lumo");
        ASSERT_EQ(confined.size(), 1u) << error;
        EXPECT_NE(confined[0].find(error), std::string::npos) << confined[0];
        traces.clear();
        status->syncContainerDel(cfg);
        other.changes.clear();
    };
    record(cfg);
    service().subscribeReturnsNoStatusIs(false);
    EXPECT_FALSE(subscribeStatus->pathSubscribeStatus(cfg));
    refused("null argument for attribute 'q7SyncStatus'");

    // The record keeps the status an entry was made with, and refuses another.
    Lumo::Ptr<SyncStatus> const recorded = makeStatus(cfg.remoteUri().c_str());
    Lumo::Ptr<PathSubscribeStatus> const entry = subscribeStatus->pathSubscribeStatusIs(cfg, recorded);
    EXPECT_EQ(subscribeStatus->pathSubscribeStatusIs(cfg, recorded), entry);
    EXPECT_EQ(
        refusal<Wex::ReInstantiationException>([&] { subscribeStatus->pathSubscribeStatusIs(cfg, makeStatus("x")); }),
        "syncStatus");
    record(cfg);
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus(cfg), entry);
    EXPECT_EQ(entry->syncStatus(), recorded);
    refused("re-instantiation of 'syncStatus'");
}

// A status reactor traces each new state of the status it watches (not a new reason alone), and a
// new status at once, unless marked with its owner; its owner rebinds it to another status of
// the same URI and lets it go. A destroyed owner calls nothing and leaves its record.
TEST_F(SubscribeSmTest, StatusReactorsTraceEachNewStateWhileTheirOwnerIsUnmarked) {
    sm = makeSm();
    effective->pathSubscribeConfigIs(cfg);
    record(cfg);
    Lumo::Ptr<SyncStatus> const live = service().syncStatus(cfg.remoteUri().view());
    Lumo::Ptr<Q7SyncStatusSm> const reactor = sm->wexQ7SyncStatus(cfg.remoteUri());
    takeCalls();
    traces.clear();
    statusIs(SyncStatusEnum::inSync, "connected");
    live->reasonIs("a reason alone");
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus(cfg)->syncStatus()->status(), SyncStatusEnum::inSync);
    sm->wexDoZombieReactors(true);
    effective->pathSubscribeConfigDel(cfg);
    statusIs(SyncStatusEnum::syncing, "marked");
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_TRUE(subscribed(cfg));
    sm->wexDoZombieReactors(false);
    Lumo::Ptr<SyncStatus> const other = makeStatus(cfg.remoteUri().c_str());
    sm->q7SyncStatusIs(other);
    sm->q7SyncStatusIs(other);
    live->statusIs(SyncStatusEnum::failed);
    EXPECT_EQ(traces.at(1), (Lines{statusTrace(cfg.remoteUri(), "inSync", "connected"),
                                   statusTrace(cfg.remoteUri(), "notConnected", "")}));
    EXPECT_EQ(sm->wexQ7SyncStatus(cfg.remoteUri()), reactor);
    EXPECT_EQ(sm->q7SyncStatusDel(cfg.remoteUri()), other);
    EXPECT_TRUE(reactor->zombie() && !reactor->subscribeSm());
    reactor->notifierIs(dir);  // anything but a status counts as none
    EXPECT_TRUE(reactor->remoteUri().empty() && !reactor->q7SyncStatus());
    sm->q7SyncStatusIs(other);
    sm->q7SyncStatusDelAll();
    EXPECT_TRUE(sm->wexQ7SyncStatus().empty());
    sm->q7SyncStatusIs(live);
    Lumo::Ptr<Q7SyncStatusSm> const last = sm->wexQ7SyncStatus(cfg.remoteUri());
    sm = nullptr;
    traces.clear();
    effective->pathSubscribeConfigIs(cfg);
    other->statusIs(SyncStatusEnum::failed);
    live->statusIs(SyncStatusEnum::inSync);
    EXPECT_TRUE(traces.at(1).empty());
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_TRUE(subscribeStatus->pathSubscribeStatus(cfg));
    EXPECT_TRUE(last->zombie() && !last->subscribeSm());
    EXPECT_EQ(effective->publisher().subscribers() + status->notifieeList()->subscribers(), 0u);
}

// The handler dispatch

class HandlerDispatchTest : public ReactorTest {
protected:
    Lumo::Ptr<SyncContainerHandlerSm> makeSm() { return syncContainerHandlerSmFactory(registry, status); }
    Lumo::Ptr<RecordingHandler> handler(char const* name) { return RecordingHandler::make(name, "k", &log); }
    Lines takeLog() { return std::exchange(log, {}); }

    PathSubscribeConfig const k1 = subscription("k", 1), k2 = subscription("k", 2), other = subscription("j", 1);
};

// A hand-over runs container by container: the outgoing handler lets go of each before the
// incoming one is given it. What a handler throws is traced, and the dispatch goes on.
TEST_F(HandlerDispatchTest, AHandlerIsGivenTheContainersOfItsKeyAndHandsThemOverWhenReplacedOrRemoved) {
    record(k1);
    record(k2);
    record(other);
    auto const sm = makeSm();
    auto const h = handler("H"), b = handler("B");
    registry->syncContainerHandlerIs(h);
    Lines got = takeLog();
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (Lines{given("H", k1), given("H", k2)}));
    registry->syncContainerHandlerIs(h);
    EXPECT_TRUE(log.empty());
    b->throws = true;
    registry->syncContainerHandlerIs(b);
    got = takeLog();
    ASSERT_EQ(got.size(), 4u);
    PathSubscribeConfig const& firstOver = got[0] == withdrawn("H", k1) ? k1 : k2;
    PathSubscribeConfig const& secondOver = firstOver == k1 ? k2 : k1;
    EXPECT_EQ(got, (Lines{withdrawn("H", firstOver), given("B", firstOver), withdrawn("H", secondOver),
                          given("B", secondOver)}));
    registry->syncContainerHandlerDel("k");
    got = takeLog();
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (Lines{withdrawn("B", k1), withdrawn("B", k2)}));
    EXPECT_TRUE(h->held.empty() && b->held.empty());
    auto const threw = [](char const* step, char const* call) {
        return fmt::format("SyncContainerHandlerSm::{}: handler of k threw from {}: handler failure", step, call);
    };
    EXPECT_EQ(traces.at(0), (Lines{threw("giveContainer", "containerIs"), threw("giveContainer", "containerIs"),
                                   threw("withdrawContainer", "containerDel"), threw("withdrawContainer", "containerDel")}));
}

TEST_F(HandlerDispatchTest, ConstructionGivesEachRecordedContainerTwiceAndDestructionWithdrawsIt) {
    Lumo::Ptr<SyncContainer> const c = record(k1);
    record(other);
    registry->syncContainerHandlerIs(handler("H"));
    traces.clear();
    auto sm = makeSm();
    EXPECT_EQ(takeLog(), (Lines{given("H", k1), given("H", k1)}));
    EXPECT_EQ(traces.at(8), (Lines{"SyncContainerHandlerSm::handleInitialized: ",
                                   fmt::format("SyncContainerHandlerSm::handleSyncContainer: remoteAgentKey={}, "
                                               "syncContainerKey=k, syncContainer={}",
                                               k1.remoteAgentKey(), static_cast<void const*>(c.ptr())),
                                   "SyncContainerHandlerSm::handleSyncContainerHandler: syncContainerKey=k"}));
    sm = nullptr;
    EXPECT_EQ(log, Lines{withdrawn("H", k1)});
    EXPECT_TRUE(registry->syncContainerHandler("k"));
    EXPECT_EQ(status->syncContainer().size(), 2u);
    EXPECT_EQ(registry->notifieeList()->subscribers() + status->notifieeList()->subscribers(), 0u);
}

// Every reactor, in the module's order: dedup table, containers, dispatch, subscriptions.
class SubscriptionFlowTest : public ReactorTest {
protected:
    SubscriptionFlowTest() { registry->syncContainerHandlerIs(handler); }

    Lumo::Ptr<RecordingHandler> handler = RecordingHandler::make("H", "k", &log);
    Lumo::Ptr<PathSubscribeRequestDedupTable> table =
        pathSubscribeRequestDedupTableFactory(pathSubscribeRequestNotifieeFactory(effective));
    Lumo::Ptr<SyncContainerSm> containerSm = syncContainerSmFactory(effective, status, dir);
    Lumo::Ptr<SyncContainerHandlerSm> handlerSm = syncContainerHandlerSmFactory(registry, status);
    Lumo::Ptr<SubscribeSm> subscribeSm = subscribeSmFactory(effective, status, subscribeStatus);
    PathSubscribeConfig const cfg = subscription("k");
};

// The subscribe reactor hears of a new subscription twice, through its container's record and
// its configuration, the container in place both times. Its release withdraws the container
// and unsubscribes while the container is still in place, and only then removes it.
TEST_F(SubscriptionFlowTest, ASubscriptionFromRequestToReleaseGoesThroughEveryReactorInOrder) {
    Lumo::Ptr<PathSubscribeRequest> request = table->dedup(cfg);
    auto const container = Lumo::ptr_cast<SyncContainer const>(containerAt(dir, cfg));
    ASSERT_TRUE(container);
    EXPECT_EQ(container->pathSubscribeConfig(), cfg);
    EXPECT_EQ(takeCalls(), (Calls{subscribeCall(cfg), subscribeCall(cfg)}));
    std::string const added = "SyncContainerSm::addContainer: localUri " + cfg.localUri().str();
    EXPECT_EQ(traces.at(1), (Lines{added, subscribeTrace(cfg), subscribeTrace(cfg)}));
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus(cfg)->syncStatus(), service().syncStatus(cfg.remoteUri().view()));
    EXPECT_EQ(handler->held, (std::set<Lumo::Ptr<SyncContainer const>>{container}));
    EXPECT_EQ(log, Lines{given("H", cfg)});

    handler->onCall = [&](PathSubscribeConfig const& c, bool) {
        log.push_back(containerAt(dir, c) && calls().empty() ? "withdrawn in place" : "withdrawn late");
    };
    ChangeRecorder lastWatcher(status);  // joins after the subscribe reactor
    lastWatcher.onChange = [&](Lumo::Change const&) {
        log.push_back(calls() == Calls{unsubscribeCall(cfg)} && containerAt(dir, cfg) ? "unsubscribed in place"
                                                                                      : "late");
    };
    void const* const ltn = request->lifeTimeNotifier().ptr();
    traces.clear();
    request = nullptr;
    EXPECT_EQ(log, (Lines{given("H", cfg), withdrawn("H", cfg), "withdrawn in place", "unsubscribed in place"}));
    EXPECT_EQ(takeCalls(), Calls{unsubscribeCall(cfg)});
    EXPECT_EQ(traces.at(1),
              (Lines{fmt::format("PathSubscribeRequestNotifiee::handleRequest: Remove subscribe config for "
                                 "ltn {} with remoteUri {} and requestCountForRemoteUri 0 and "
                                 "requestCountForLocalUri 0",
                                 ltn, cfg.remoteUri()),
                     "SyncContainerSm::removeContainer: localUri " + cfg.localUri().str(),
                     "SubscribeSm::unsubscribe: remoteUri=" + cfg.remoteUri().str()}));
    EXPECT_FALSE(dir->entityPtr(cfg.remoteAgentKey()));
    EXPECT_TRUE(handler->held.empty());
    EXPECT_TRUE(status->syncContainer().empty());
    EXPECT_TRUE(subscribeStatus->pathSubscribeStatus().empty());
    EXPECT_TRUE(subscribeSm->wexQ7SyncStatus().empty());
}

}  // namespace
}  // namespace Kel::Q7Sync::Test
