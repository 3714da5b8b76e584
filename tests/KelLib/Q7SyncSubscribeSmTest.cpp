// The subscribe state machine, its status reactors and the SubscribeStatus record.
#include "KelLib/Q7SyncSubscribeSm.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "KelLib/Q7SyncSubscribeStatus.h"
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

} // namespace
} // namespace Kel::Q7Sync::Test
