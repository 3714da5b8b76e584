// A subscription from request to release, through every reactor wired as the module wires them.
#include "KelLib/Q7SyncSubscribeSm.h"

#include <gtest/gtest.h>

#include "KelLib/Q7SyncSubscribeRequest.h"
#include "KelLib/Q7SyncSubscribeStatus.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Calls = std::vector<::Q7Sync::Service::Call>;

class SubscriptionFlowTest : public SyncFixture {
protected:
    // The module's order: dedup table, registry, containers, dispatch, subscriptions.
    SubscriptionFlowTest() {
        auto notifiee = PathSubscribeRequestNotifiee::PathSubscribeRequestNotifieeIs(effective);
        table = PathSubscribeRequestDedupTable::PathSubscribeRequestDedupTableIs(notifiee);
        containerSm = SyncContainerSm::SyncContainerSmIs(effective, status, remote);
        handlerSm = SyncContainerHandlerSm::SyncContainerHandlerSmIs(registry, status);
        subscribeSm = SubscribeSm::SubscribeSmIs(effective, status, subscribeStatus);
        registry->syncContainerHandlerIs(handler);
    }

    Lumo::Ptr<EffectiveSubscribeConfig> effective = EffectiveSubscribeConfig::EffectiveSubscribeConfigIs();
    Lumo::Ptr<SyncContainerHandlerRegistry> registry = SyncContainerHandlerRegistry::SyncContainerHandlerRegistryIs();
    Lumo::Ptr<SyncContainerStatus> status = SyncContainerStatus::SyncContainerStatusIs();
    Lumo::Ptr<SubscribeStatus> subscribeStatus = SubscribeStatus::SubscribeStatusIs();
    Lumo::Ptr<Wex::Dir> remote = freshDir();
    std::vector<std::string> log;
    Lumo::Ptr<RecordingHandler> handler = RecordingHandler::make("H", "k", &log);
    Lumo::Ptr<PathSubscribeRequestDedupTable> table;
    Lumo::Ptr<SyncContainerSm> containerSm;
    Lumo::Ptr<SyncContainerHandlerSm> handlerSm;
    Lumo::Ptr<SubscribeSm> subscribeSm;
    PathSubscribeConfig const cfg = subscription("k");
};

TEST_F(SubscriptionFlowTest, ANewSubscriptionEndsWithContainerSubscriptionStatusAndHandler) {
    Lumo::Ptr<PathSubscribeRequest> request = table->dedup(cfg);
    auto container = Lumo::ptr_cast<SyncContainer>(containerAt(remote, cfg));
    ASSERT_TRUE(container);
    EXPECT_EQ(container->pathSubscribeConfig(), cfg);
    // The container state machine joined the configuration first, so the subscribe state
    // machine hears of the subscription twice, with the container present both times.
    EXPECT_EQ(calls(), (Calls{subscribeCall(cfg), subscribeCall(cfg)}));
    EXPECT_EQ(service().subscriptions(), 1u);
    EXPECT_EQ(subscribeStatus->pathSubscribeStatus(cfg)->syncStatus(), service().syncStatus(cfg.remoteUri().view()));
    EXPECT_EQ(handler->held, (std::set<Lumo::Ptr<SyncContainer const>>{container}));
    EXPECT_EQ(log, (std::vector<std::string>{given("H", cfg)}));
}

TEST_F(SubscriptionFlowTest, ReleaseWithdrawsAndUnsubscribesWhileTheContainerIsInPlaceThenRemovesIt) {
    Lumo::Ptr<PathSubscribeRequest> request = table->dedup(cfg);
    service().callsDelAll();
    std::vector<std::string> seen;
    handler->onCall = [&](PathSubscribeConfig const& c, bool) {
        seen.push_back(containerAt(remote, c) ? "withdrawn in place" : "withdrawn after removal");
    };
    // Joins after the subscribe state machine, so it runs after the unsubscribe.
    ChangeRecorder lastWatcher(status);
    lastWatcher.onChange = [&](Lumo::Change const&) {
        seen.push_back(calls() == Calls{unsubscribeCall(cfg)} && containerAt(remote, cfg) ? "unsubscribed in place"
                                                                                         : "out of order");
    };
    request = nullptr;
    EXPECT_EQ(seen, (std::vector<std::string>{"withdrawn in place", "unsubscribed in place"}));
    EXPECT_EQ(calls(), Calls{unsubscribeCall(cfg)});
    EXPECT_FALSE(remote->entityPtr(cfg.remoteAgentKey()));
    EXPECT_TRUE(handler->held.empty());
    EXPECT_TRUE(subscribeStatus->pathSubscribeStatus().empty());
    EXPECT_TRUE(subscribeSm->wexQ7SyncStatus().empty());
}

TEST_F(SubscriptionFlowTest, ReactorsRebuiltOverExistingStateKeepItAsItIs) {
    Lumo::Ptr<PathSubscribeRequest> request = table->dedup(cfg);
    Lumo::Ptr<Wex::Entity> container = containerAt(remote, cfg);
    subscribeSm = nullptr;
    handlerSm = nullptr;
    containerSm = nullptr;
    EXPECT_TRUE(handler->held.empty());
    EXPECT_EQ(containerAt(remote, cfg), container);
    EXPECT_TRUE(status->syncContainer(cfg));
    EXPECT_TRUE(subscribeStatus->pathSubscribeStatus(cfg));
    EXPECT_EQ(service().subscriptions(), 1u);

    service().callsDelAll();
    containerSm = SyncContainerSm::SyncContainerSmIs(effective, status, remote);
    handlerSm = SyncContainerHandlerSm::SyncContainerHandlerSmIs(registry, status);
    subscribeSm = SubscribeSm::SubscribeSmIs(effective, status, subscribeStatus);
    EXPECT_EQ(containerAt(remote, cfg), container);
    EXPECT_EQ(handler->held.size(), 1u);
    // The sweep meets the subscription as recorded and again as in force.
    EXPECT_EQ(calls(), (Calls{subscribeCall(cfg), subscribeCall(cfg)}));
    EXPECT_EQ(subscribeSm->wexQ7SyncStatus().size(), 1u);
}

} // namespace
} // namespace Kel::Q7Sync::Test
