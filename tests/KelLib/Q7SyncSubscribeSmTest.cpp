// The subscribe state machine, its status reactors and the SubscribeStatus record.
#include "KelLib/Q7SyncSubscribeSm.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "KelLib/Q7SyncSubscribeStatus.h"
#include "Oru/WeakRef.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Q7Serdes::WexUtils::SyncStatus;
using Q7Serdes::WexUtils::SyncStatusEnum;
using Q7SyncStatusSm = SubscribeSm::Q7SyncStatusSm;
using Calls = std::vector<::Q7Sync::Service::Call>;

Lumo::Ptr<SyncStatus> makeStatus(char const* uri) {
    Lumo::Ptr<SyncStatus> s(new SyncStatus(uri, "/local"));
    s->hasNotificationActiveIs(true);
    return s;
}

std::string statusTrace(PathSubscribeConfig const& c, char const* status, char const* reason) {
    return fmt::format("Q7SyncStatusSm::handleSyncStatus: Q7SyncStatus for {} changed to {} with reason {}", c.remoteUri(),
                       status, reason);
}

class SubscribeSmTest : public SyncFixture {
protected:
    Lumo::Ptr<SubscribeSm> makeSm() { return SubscribeSm::SubscribeSmIs(effective, status, subscribeStatus); }
    // Records the container of cfg as the container state machine would.
    void record(PathSubscribeConfig const& cfg) { status->syncContainerIs(placeContainer(dir, cfg)); }
    bool subscribed(PathSubscribeConfig const& cfg) const {
        return subscribeStatus->pathSubscribeStatus(cfg) && sm->q7SyncStatus(cfg.remoteUri());
    }

    Lumo::Ptr<EffectiveSubscribeConfig> effective = EffectiveSubscribeConfig::EffectiveSubscribeConfigIs();
    Lumo::Ptr<SyncContainerStatus> status = SyncContainerStatus::SyncContainerStatusIs();
    Lumo::Ptr<SubscribeStatus> subscribeStatus = SubscribeStatus::SubscribeStatusIs();
    Lumo::Ptr<Wex::Dir> dir = freshDir();
    Lumo::Ptr<SubscribeSm> sm;
    PathSubscribeConfig const cfg = subscription("k");
};

TEST_F(SubscribeSmTest, SubscribesOnceBothConfigAndContainerArePresent) {
    sm = makeSm();
    effective->pathSubscribeConfigIs(cfg);
    EXPECT_TRUE(calls().empty());
    record(cfg);
    EXPECT_EQ(calls(), Calls{subscribeCall(cfg)});
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus().size(), 1u);
    EXPECT_EQ(sm->wexQ7SyncStatus().size(), 1u);
    EXPECT_EQ(sm->q7SyncStatus(cfg.remoteUri()), service().syncStatus(cfg.remoteUri()));
    EXPECT_EQ(traces.at(1), (std::vector<std::string>{fmt::format("SubscribeSm::subscribe: remoteUri={}, localUri={}, flags={}",
                                                                  cfg.remoteUri(), cfg.localUri(), cfg.flags())}));
}

TEST_F(SubscribeSmTest, ContainerWithoutConfigCallsNothing) {
    sm = makeSm();
    record(cfg);
    status->syncContainerDel(cfg);
    EXPECT_TRUE(calls().empty());
}

TEST_F(SubscribeSmTest, LeavingTheConfigUnsubscribesOnceAndTheContainersRemovalAfterDoesNothing) {
    sm = makeSm();
    effective->pathSubscribeConfigIs(cfg);
    record(cfg);
    service().callsDelAll();
    effective->pathSubscribeConfigDel(cfg);
    status->syncContainerDel(cfg);
    EXPECT_EQ(calls(), Calls{unsubscribeCall(cfg)});
    EXPECT_FALSE(subscribed(cfg));
    EXPECT_TRUE(sm->wexQ7SyncStatus().empty());
}

TEST_F(SubscribeSmTest, LosingOnlyTheContainerUnsubscribesAndRecordingItAgainResubscribes) {
    sm = makeSm();
    effective->pathSubscribeConfigIs(cfg);
    record(cfg);
    status->syncContainerDel(cfg);
    EXPECT_FALSE(subscribed(cfg));
    record(cfg);
    EXPECT_EQ(calls(), (Calls{subscribeCall(cfg), unsubscribeCall(cfg), subscribeCall(cfg)}));
    EXPECT_TRUE(subscribed(cfg));
}

TEST_F(SubscribeSmTest, ContainerMadeInsideTheConfigNotificationSubscribesTwiceWithoutStatusTrace) {
    // As in the module: the container state machine joins the configuration first.
    auto containers = SyncContainerSm::SyncContainerSmIs(effective, status, dir);
    sm = makeSm();
    effective->pathSubscribeConfigIs(cfg);
    EXPECT_EQ(calls(), (Calls{subscribeCall(cfg), subscribeCall(cfg)}));
    auto const level1 = traces.at(1);
    EXPECT_EQ(std::count_if(level1.begin(), level1.end(), [](auto const& l) { return l.starts_with("SubscribeSm::subscribe"); }), 2);
    EXPECT_EQ(std::count_if(level1.begin(), level1.end(), [](auto const& l) { return l.starts_with("Q7SyncStatusSm"); }), 0);
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus().size(), 1u);
    EXPECT_EQ(sm->wexQ7SyncStatus().size(), 1u);
}

TEST_F(SubscribeSmTest, ConstructionSweepSubscribesWantedAndUnsubscribesStaleEntries) {
    PathSubscribeConfig const other = subscription("j", 2), stale = subscription("stale", 3);
    effective->pathSubscribeConfigIs(cfg);
    effective->pathSubscribeConfigIs(other);
    record(cfg);
    record(other);
    subscribeStatus->pathSubscribeStatusIs(stale, makeStatus("stale"));
    sm = makeSm();
    auto const made = calls();
    EXPECT_EQ(made.size(), 3u);
    EXPECT_EQ(std::count(made.begin(), made.end(), unsubscribeCall(stale)), 1);
    EXPECT_TRUE(subscribed(cfg) && subscribed(other));
    EXPECT_FALSE(subscribeStatus->pathSubscribeStatus(stale));
    EXPECT_EQ(traces.at(8), (std::vector<std::string>{"SubscribeSm::handlePathSubscribeConfig: "}));
}

TEST_F(SubscribeSmTest, DestructionCallsNothingLeavesTheRecordAndSilencesItsStatusReactors) {
    sm = makeSm();
    effective->pathSubscribeConfigIs(cfg);
    record(cfg);
    Lumo::Ptr<Q7SyncStatusSm> reactor = sm->wexQ7SyncStatus(cfg.remoteUri());
    service().callsDelAll();
    sm = nullptr;
    EXPECT_TRUE(calls().empty());
    EXPECT_TRUE(subscribeStatus->pathSubscribeStatus(cfg));
    EXPECT_EQ(reactor->subscribeSm(), nullptr);
    EXPECT_TRUE(reactor->zombie());
    service().syncStatusIs(cfg.remoteUri().view(), SyncStatusEnum::inSync, "up");
    EXPECT_EQ(traces.at(1).size(), 1u);  // the subscribe trace only
}

TEST_F(SubscribeSmTest, MarkedReactorIgnoresChangesAndMarksItsStatusReactors) {
    sm = makeSm();
    effective->pathSubscribeConfigIs(cfg);
    record(cfg);
    sm->wexDoZombieReactors(true);
    effective->pathSubscribeConfigDel(cfg);
    EXPECT_TRUE(subscribed(cfg));
    traces.clear();
    service().syncStatusIs(cfg.remoteUri().view(), SyncStatusEnum::inSync, "up");
    EXPECT_TRUE(traces.at(1).empty());
    sm->wexDoZombieReactors(false);
    service().syncStatusIs(cfg.remoteUri().view(), SyncStatusEnum::failed, "down");
    EXPECT_EQ(traces.at(1), (std::vector<std::string>{statusTrace(cfg, "failed", "down")}));
}

TEST_F(SubscribeSmTest, NullArgumentsAreRefusedChangingNothing) {
    EXPECT_THROW(SubscribeSm::SubscribeSmIs(nullptr, status, subscribeStatus), Wex::NullArgumentException);
    EXPECT_THROW(SubscribeSm::SubscribeSmIs(effective, status, nullptr), Wex::NullArgumentException);
    EXPECT_EQ(effective->publisher().subscribers(), 0u);
    sm = makeSm();
    try {
        sm->q7SyncStatusIs(nullptr);
        FAIL() << "null accepted";
    } catch (Wex::NullArgumentException const& e) {
        EXPECT_EQ(e.attribute(), "q7SyncStatus");
    }
    EXPECT_TRUE(sm->wexQ7SyncStatus().empty());
}

// A status the service should not have returned is refused inside the container's notification:
// the publisher confines the error to this reactor, the other watcher still hears of the
// container, and neither record takes anything.
TEST_F(SubscribeSmTest, ANullOrAnotherStatusIsRefusedWhileTheOtherWatchersStillHear) {
    sm = makeSm();
    ChangeRecorder other(status);
    effective->pathSubscribeConfigIs(cfg);
    auto const refused = [&](char const* error) {
        EXPECT_EQ(other.changes.size(), 1u) << error;
        EXPECT_TRUE(sm->wexQ7SyncStatus().empty()) << error;
        auto const confined = traces.at(0, "Lumo");
        ASSERT_EQ(confined.size(), 1u) << error;
        EXPECT_NE(confined[0].find(error), std::string::npos) << confined[0];
        traces.clear();
        other.changes.clear();
        status->syncContainerDel(cfg);
        other.changes.clear();
    };

    service().subscribeReturnsNoStatusIs(true);
    record(cfg);
    service().subscribeReturnsNoStatusIs(false);
    EXPECT_FALSE(subscribeStatus->pathSubscribeStatus(cfg));
    refused("null argument for attribute 'q7SyncStatus'");

    Lumo::Ptr<SyncStatus> const recorded = makeStatus(cfg.remoteUri().c_str());
    subscribeStatus->pathSubscribeStatusIs(cfg, recorded);
    record(cfg);
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus(cfg)->syncStatus(), recorded);
    refused("re-instantiation of 'syncStatus'");
}

TEST_F(SubscribeSmTest, AConstructionThatMeetsABrokenPromiseFailsWithNothingJoined) {
    effective->pathSubscribeConfigIs(cfg);
    record(cfg);
    service().subscribeReturnsNoStatusIs(true);
    EXPECT_THROW(makeSm(), Wex::NullArgumentException);
    service().subscribeReturnsNoStatusIs(false);
    EXPECT_EQ(effective->publisher().subscribers(), 0u);
    EXPECT_EQ(status->notifieeList()->subscribers(), 0u);
    EXPECT_FALSE(subscribeStatus->pathSubscribeStatus(cfg));
}

// Q7SyncStatusSm and SubscribeStatus

TEST_F(SubscribeSmTest, StatusChangesOfASubscribedUriAreTracedAndShowInTheRecord) {
    sm = makeSm();
    effective->pathSubscribeConfigIs(cfg);
    record(cfg);
    Lumo::Ptr<SyncStatus> live = service().syncStatus(cfg.remoteUri().view());
    traces.clear();
    service().syncStatusIs(cfg.remoteUri().view(), SyncStatusEnum::inSync, "connected");
    live->reasonIs("reason only");
    EXPECT_EQ(traces.at(1), (std::vector<std::string>{statusTrace(cfg, "inSync", "connected")}));
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus(cfg)->syncStatus()->status(), SyncStatusEnum::inSync);

    effective->pathSubscribeConfigDel(cfg);
    traces.clear();
    live->statusIs(SyncStatusEnum::failed);
    EXPECT_TRUE(traces.at(1).empty());
}

TEST_F(SubscribeSmTest, StatusReactorTracesANewNotifierAtOnceAndNothingElse) {
    auto s1 = makeStatus("10.0.0.1:1/a"), s2 = makeStatus("10.0.0.1:1/a");
    Lumo::Ptr<Q7SyncStatusSm> reactor(new Q7SyncStatusSm(s1, nullptr));
    reactor->hasNotificationActiveIs(true);
    reactor->notifierIs(s1);
    EXPECT_TRUE(traces.at(1).empty());
    reactor->notifierIs(s2);
    EXPECT_EQ(traces.at(1).size(), 1u);
    s1->statusIs(SyncStatusEnum::failed);
    EXPECT_EQ(traces.at(1).size(), 1u);
    reactor->notifierIs(dir);
    EXPECT_EQ(reactor->remoteUri(), "");
    EXPECT_FALSE(reactor->q7SyncStatus());
    s2->statusIs(SyncStatusEnum::failed);
    EXPECT_EQ(traces.at(1).size(), 1u);
}

TEST_F(SubscribeSmTest, RecordKeepsItsStatusAndRefusesAnother) {
    auto s = makeStatus("a"), t = makeStatus("a");
    Lumo::Ptr<PathSubscribeStatus> entry = subscribeStatus->pathSubscribeStatusIs(cfg, s);
    EXPECT_EQ(subscribeStatus->pathSubscribeStatusIs(cfg, s), entry);
    try {
        subscribeStatus->pathSubscribeStatusIs(cfg, t);
        FAIL() << "another status accepted";
    } catch (Wex::ReInstantiationException const& e) {
        EXPECT_EQ(e.attribute(), "syncStatus");
    }
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus(cfg), entry);
    EXPECT_EQ(entry->syncStatus(), s);
    EXPECT_EQ(entry->pathSubscribeConfig(), cfg);
}

// Reflection

// q7SyncStatus shows the statuses that the reactors of wexQ7SyncStatus watch; both are read by
// key, tested and counted, and only the first written, through the typed calls.
TEST_F(SubscribeSmTest, ReflectionShowsStatusesInOneViewAndTheirReactorsInTheOther) {
    sm = makeSm();
    Lumo::Ptr<SubscribeSm> twin = makeSm();
    Wex::WexType const* type = Wex::wexTypeOf<SubscribeSm>();
    Wex::GenericIf const gi = type->genericIf(twin);
    Wex::WexAttr const& statuses = type->attrOrThrow("q7SyncStatus");
    Wex::WexAttr const& reactors = type->attrOrThrow("wexQ7SyncStatus");
    Lumo::String const uri = "10.0.0.1:1/a";
    auto const s1 = makeStatus(uri.str().c_str()), s2 = makeStatus(uri.str().c_str());
    Wex::Value const key = Wex::Value::of(uri);
    auto const is = [&](Lumo::Ptr<SyncStatus> const& s) {
        return statuses.genericIfMemberIs(gi, {{"q7SyncStatus", Wex::Value::of(s)}});
    };
    // Watching s1, s1 again, then s2 of the same uri: only the rebinding traces, once per twin.
    for (auto const& [status, traced] : {std::pair{s1, 0u}, std::pair{s1, 0u}, std::pair{s2, 2u}}) {
        sm->q7SyncStatusIs(status);
        EXPECT_TRUE(is(status).empty());
        EXPECT_EQ(traces.at(1).size(), traced);
        EXPECT_EQ(twin->wexQ7SyncStatus().size(), sm->wexQ7SyncStatus().size());
    }
    EXPECT_EQ(traces.at(1)[0], traces.at(1)[1]);

    Lumo::Ptr<Q7SyncStatusSm> const reactor = twin->wexQ7SyncStatus(uri);
    EXPECT_EQ(statuses.genericIfMember(gi, key).object(), s2.ptr());
    EXPECT_EQ(reactors.genericIfMember(gi, key).object(), reactor.ptr());
    std::vector<Wex::PtrInterface const*> walked;
    statuses.forEach(twin.ptr(), [&](Wex::Value const&, Wex::Value const& v) { walked.push_back(v.object()); });
    EXPECT_EQ(walked, std::vector<Wex::PtrInterface const*>{s2.ptr()});
    for (Wex::WexAttr const* view : {&statuses, &reactors}) {
        EXPECT_TRUE(view->genericIfMemberHas(gi, key));
        EXPECT_FALSE(view->genericIfMemberHas(gi, Wex::Value::of(Lumo::String("absent"))));
        EXPECT_FALSE(view->genericIfMember(gi, Wex::Value::of(Lumo::String("absent"))).object());
        EXPECT_EQ(view->genericIfCount(gi), 1u);
    }
    // The reactor's owner is a back pointer; a write still takes a counted one.
    Wex::WexType const* reactorType = Wex::wexTypeOf<Q7SyncStatusSm>();
    Wex::WexAttr const& owner = reactorType->attrOrThrow("subscribeSm");
    Wex::GenericIf const reactorView = reactorType->genericIf(reactor);
    ASSERT_TRUE(owner.genericIfGet(reactorView).as<Oru::WeakRef>());
    EXPECT_EQ(owner.genericIfGet(reactorView).as<Oru::WeakRef>()->ptr(), twin.ptr());

    try {
        is(nullptr);
        ADD_FAILURE() << "null accepted";
    } catch (Wex::NullArgumentException const& e) {
        EXPECT_EQ(e.attribute(), "q7SyncStatus");
    }
    EXPECT_THROW(statuses.genericIfMemberIs(gi, {{"q7SyncStatus", Wex::Value::of(reactor)}}), Wex::ValueTypeException);
    EXPECT_THROW(statuses.genericIfMemberIsFromText(gi, "'x'", "null"), Wex::RangeException);
    EXPECT_THROW(reactors.genericIfMemberDel(gi, key), Wex::AttributeAccessException);
    EXPECT_EQ(twin->wexQ7SyncStatus(uri), reactor);

    sm->q7SyncStatusDel(uri);
    EXPECT_EQ(statuses.genericIfMemberDel(gi, key).object(), s2.ptr());
    EXPECT_EQ(statuses.genericIfMemberDel(gi, key).object(), nullptr);
    EXPECT_EQ(owner.genericIfGet(reactorView).as<Oru::WeakRef>()->ptr(), nullptr);
    EXPECT_TRUE(reactor->zombie());
    owner.genericIfSet(reactorView, {{"subscribeSm", Wex::Value::of(twin)}});
    EXPECT_EQ(reactor->subscribeSm(), twin.ptr());
    EXPECT_EQ(traces.at(1).size(), 2u);

    is(s2);
    statuses.genericIfMemberDelAll(gi);
    EXPECT_TRUE(twin->wexQ7SyncStatus().empty());
    EXPECT_THROW(reactors.genericIfMemberDelAll(gi), Wex::AttributeAccessException);
}

// Entries are made by the record from their construction values and never made again with
// others; reflection takes the same values, and the entries' own attributes only read.
TEST_F(SubscribeSmTest, ReflectionMakesRecordEntriesFromTheirConstructionValues) {
    Wex::WexType const* type = Wex::wexTypeOf<SubscribeStatus>();
    Wex::WexAttr const& entries = type->attrOrThrow("pathSubscribeStatus");
    Wex::GenericIf const gi = type->genericIf(subscribeStatus);
    auto const s = makeStatus("a"), t = makeStatus("a");
    auto const make = [&](Lumo::Ptr<SyncStatus> const& status) {
        return entries.genericIfMemberIs(gi, {{"pathSubscribeConfig", Wex::Value::of(cfg)}, {"syncStatus", Wex::Value::of(status)}});
    };
    EXPECT_EQ(entries.params(), (std::vector<std::string>{"pathSubscribeConfig", "syncStatus"}));
    Wex::Value const made = make(s);
    Lumo::Ptr<PathSubscribeStatus> const entry = subscribeStatus->pathSubscribeStatus(cfg);
    ASSERT_TRUE(entry);
    EXPECT_EQ(made.object(), entry.ptr());
    EXPECT_EQ(entry->syncStatus(), s);
    EXPECT_EQ(make(s).object(), entry.ptr());
    try {
        make(t);
        ADD_FAILURE() << "made again with another status";
    } catch (Wex::ReInstantiationException const& e) {
        EXPECT_EQ(e.attribute(), "syncStatus");
    }
    EXPECT_THROW(entries.genericIfMemberIs(gi, {{"pathSubscribeConfig", Wex::Value::of(cfg)}}), Wex::NewEntityArgsException);
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus(cfg), entry);
    EXPECT_EQ(entries.genericIfMember(gi, Wex::Value::of(cfg)).object(), entry.ptr());
    EXPECT_TRUE(entries.genericIfMemberHas(gi, Wex::Value::of(cfg)));
    EXPECT_EQ(entries.genericIfCount(gi), 1u);
    for (Wex::WexAttr const* a : Wex::wexTypeOf<PathSubscribeStatus>()->allAttrs()) EXPECT_TRUE(a->readOnly()) << a->name();

    EXPECT_EQ(entries.genericIfMemberDel(gi, Wex::Value::of(cfg)).object(), entry.ptr());
    EXPECT_FALSE(entries.genericIfMemberDel(gi, Wex::Value::of(cfg)).object());
    EXPECT_FALSE(entries.genericIfMemberHas(gi, Wex::Value::of(cfg)));
    make(s);
    entries.genericIfMemberDelAll(gi);
    EXPECT_EQ(entries.genericIfCount(gi), 0u);
}

} // namespace
} // namespace Kel::Q7Sync::Test
