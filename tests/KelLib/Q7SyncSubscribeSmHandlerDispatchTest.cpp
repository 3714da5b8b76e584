// The handler dispatch: containers handed to and withdrawn from the handler of their key.
#include "KelLib/Q7SyncSubscribeSm.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Log = std::vector<std::string>;

class HandlerDispatchTest : public SyncFixture {
protected:
    Lumo::Ptr<SyncContainerHandlerSm> makeSm() {
        return SyncContainerHandlerSm::SyncContainerHandlerSmIs(registry, status);
    }
    Lumo::Ptr<SyncContainer> record(PathSubscribeConfig const& cfg) {
        Lumo::Ptr<SyncContainer> c = placeContainer(dir, cfg);
        status->syncContainerIs(c);
        return c;
    }
    Lumo::Ptr<RecordingHandler> handler(char const* name, char const* key = "k") {
        return RecordingHandler::make(name, key, &log);
    }

    Log log;
    Lumo::Ptr<SyncContainerHandlerRegistry> registry = SyncContainerHandlerRegistry::SyncContainerHandlerRegistryIs();
    Lumo::Ptr<SyncContainerStatus> status = SyncContainerStatus::SyncContainerStatusIs();
    Lumo::Ptr<Wex::Dir> dir = freshDir();
    PathSubscribeConfig const k1 = subscription("k", 1), k2 = subscription("k", 2), other = subscription("j", 1);
};

TEST_F(HandlerDispatchTest, RegisteringReplaysOnlyItsKeysContainersAndRemovingWithdrawsThem) {
    record(k1);
    record(k2);
    record(other);
    auto sm = makeSm();
    auto h = handler("H");
    registry->syncContainerHandlerIs(h);
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (Log{given("H", k1), given("H", k2)}));
    log.clear();
    registry->syncContainerHandlerIs(h);
    EXPECT_TRUE(log.empty());
    registry->syncContainerHandlerDel("k");
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (Log{withdrawn("H", k1), withdrawn("H", k2)}));
    EXPECT_TRUE(h->held.empty());
}

TEST_F(HandlerDispatchTest, ReplacedHandlerIsToldBeforeTheNewOneIsGiven) {
    record(k1);
    auto sm = makeSm();
    registry->syncContainerHandlerIs(handler("A"));
    log.clear();
    registry->syncContainerHandlerIs(handler("B"));
    EXPECT_EQ(log, (Log{withdrawn("A", k1), given("B", k1)}));
}

TEST_F(HandlerDispatchTest, HandlerRegisteredFirstFollowsItsContainersComingAndGoing) {
    auto sm = makeSm();
    auto h = handler("H");
    registry->syncContainerHandlerIs(h);
    Lumo::Ptr<SyncContainer> c = record(k1);
    record(other);
    EXPECT_EQ(h->held.count(c), 1u);
    status->syncContainerDel(k1);
    status->syncContainerDel(other);
    EXPECT_EQ(log, (Log{given("H", k1), withdrawn("H", k1)}));
}

TEST_F(HandlerDispatchTest, ContainersWithoutHandlerCauseNoDispatchAtAll) {
    auto sm = makeSm();
    traces.clear();
    record(k1);
    status->syncContainerDel(k1);
    EXPECT_TRUE(log.empty());
    EXPECT_TRUE(traces.at(8).empty());
}

TEST_F(HandlerDispatchTest, ConstructionGivesEachRecordedContainerToItsHandlerTwice) {
    Lumo::Ptr<SyncContainer> c = record(k1);
    registry->syncContainerHandlerIs(handler("H"));
    traces.clear();
    auto sm = makeSm();
    EXPECT_EQ(log, (Log{given("H", k1), given("H", k1)}));
    EXPECT_EQ(traces.at(8), (Log{"SyncContainerHandlerSm::handleInitialized: ",
                                 fmt::format("SyncContainerHandlerSm::handleSyncContainer: remoteAgentKey={}, "
                                             "syncContainerKey=k, syncContainer={}",
                                             k1.remoteAgentKey(), static_cast<void const*>(c.ptr())),
                                 "SyncContainerHandlerSm::handleSyncContainerHandler: syncContainerKey=k"}));
}

TEST_F(HandlerDispatchTest, DestructionWithdrawsEveryContainerAndLeavesRegistryAndRecords) {
    record(k1);
    record(k2);
    record(other);
    auto h = handler("H");
    registry->syncContainerHandlerIs(h);
    auto sm = makeSm();
    log.clear();
    sm = nullptr;
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (Log{withdrawn("H", k1), withdrawn("H", k2)}));
    EXPECT_EQ(registry->syncContainerHandler("k"), h);
    EXPECT_EQ(status->syncContainer().size(), 3u);
    EXPECT_EQ(registry->notifieeList()->subscribers(), 0u);
    EXPECT_EQ(status->notifieeList()->subscribers(), 0u);
}

TEST_F(HandlerDispatchTest, AThrowingHandlerIsReportedAndTheDispatchGoesOn) {
    record(k1);
    record(k2);
    auto sm = makeSm();
    auto h = handler("H");
    h->throws = true;
    registry->syncContainerHandlerIs(h);
    EXPECT_EQ(log.size(), 2u);
    EXPECT_EQ(traces.at(0).size(), 2u);
}

} // namespace
} // namespace Kel::Q7Sync::Test
