// The request dedup table and its notifiee on their own: requests filed by URI and the
// configurations in force, with the notifiee's traces; what they refuse, and what happens when
// the table stops telling the notifiee. (The rule over random sequences: the model test.)
#include "KelLib/Q7SyncSubscribeRequest.h"

#include <algorithm>

#include "KelLib/Q7SyncSubscribeSm.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using RequestPtr = Lumo::Ptr<PathSubscribeRequest>;

// A configuration at agent 10.1.2.3:4000: its remote URI follows `path`, its local URI `key`.
PathSubscribeConfig config(char const* path, char const* key, Flags flags = ::Q7Sync::WexUtils::RELIABLE()) {
    return subscription(key, 3, path, Wex::wexTypeOf<SyncContainer>(), flags);
}

class RequestDedupTest : public SyncFixture {
protected:
    // The configurations in force as "path/key", sorted.
    Lines inForce() const {
        Lines out;
        for (PathSubscribeConfig const& c : effective->pathSubscribeConfig())
            out.push_back(fmt::format("{}/{}", c.remotePath(), c.syncContainerKey()));
        std::sort(out.begin(), out.end());
        return out;
    }
    bool bookkeepingEmpty() const {
        return notifiee->requestSetForLocalUris() + notifiee->requestSetForRemoteUris() == 0 &&
               notifiee->pendingRequest().empty();
    }
    // The notifiee's level-1 traces since the last take, sorted: those of one event come in hash order.
    Lines takeRemovals() {
        Lines out = traces.at(1);
        traces.clear();
        std::sort(out.begin(), out.end());
        return out;
    }
    static std::string removed(RequestPtr const& r, std::size_t remote, std::size_t local) {
        return fmt::format(
            "PathSubscribeRequestNotifiee::handleRequest: Remove subscribe config for ltn {} with "
            "remoteUri {} and requestCountForRemoteUri {} and requestCountForLocalUri {}",
            static_cast<void const*>(r->lifeTimeNotifier().ptr()), r->remoteUri(), remote, local);
    }

    Lumo::Ptr<EffectiveSubscribeConfig> effective = effectiveSubscribeConfigFactory();
    Lumo::Ptr<PathSubscribeRequestNotifiee> notifiee = pathSubscribeRequestNotifieeFactory(effective);
    Lumo::Ptr<PathSubscribeRequestDedupTable> table = pathSubscribeRequestDedupTableFactory(notifiee);
    PathSubscribeConfig const a = config("r1", "l1");
};

TEST_F(RequestDedupTest, ALoneRequestIsInForceUntilItsLastHolderLetsGo) {
    RequestPtr first = table->dedup(a);
    ASSERT_TRUE(first && first->isDeduped() && first->lifeTimeNotifier());
    EXPECT_EQ(first->pathSubscribeConfig(), a);
    EXPECT_EQ(first->lifeTimeNotifier()->requestRawPtr(), first.ptr());
    EXPECT_EQ(traces.at(8),
              (Lines{"PathSubscribeRequestNotifiee::drainPendingRequests: ",
                     fmt::format("PathSubscribeRequestNotifiee::handleRequest: Add subscribe config for "
                                 "ltn {} with remoteUri {}",
                                 static_cast<void const*>(first->lifeTimeNotifier().ptr()), a.remoteUri())}));
    RequestPtr second = table->dedup(config("r1", "l1"));
    EXPECT_EQ(second, first);
    EXPECT_EQ(table->dedupTable()->size(), 1u);
    std::string const removal = removed(first, 0, 0);
    first = nullptr;
    EXPECT_EQ(inForce(), Lines{"r1/l1"});
    EXPECT_TRUE(traces.at(1).empty());
    second = nullptr;
    EXPECT_TRUE(inForce().empty());
    EXPECT_EQ(takeRemovals(), Lines{removal});
    EXPECT_EQ(table->dedupTable()->size(), 0u);
    EXPECT_TRUE(bookkeepingEmpty());
}

// Requests hold each other back while they share a URI (the rule over random sequences: the
// model test), and each one held back is traced with the counts of its URIs: B shares A's remote
// URI, C A's local URI, and X bridges A and D, both in force.
TEST_F(RequestDedupTest, ARequestSharingAUriHoldsTheOtherBackTracedWithTheCountsOfItsUris) {
    RequestPtr ra = table->dedup(a), rb = table->dedup(config("r1", "l2"));
    EXPECT_TRUE(inForce().empty());
    EXPECT_EQ(takeRemovals(), Lines{removed(ra, 2, 1)});
    rb = nullptr;
    RequestPtr rc = table->dedup(config("r2", "l1"));
    EXPECT_EQ(takeRemovals(), Lines{removed(ra, 1, 2)});
    rc = nullptr;
    RequestPtr const rd = table->dedup(config("r2", "l2"));
    EXPECT_EQ(inForce(), (Lines{"r1/l1", "r2/l2"}));
    RequestPtr rx = table->dedup(config("r1", "l2"));
    Lines expected{removed(ra, 2, 1), removed(rd, 1, 2)};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(takeRemovals(), expected);
    EXPECT_TRUE(inForce().empty());
    EXPECT_EQ(notifiee->requestSetForRemoteUri().get(a.remoteUri())->requests(), 2u);
    EXPECT_EQ(pathSubscribeRequestSetForUriFactory("r3")->uri(), "r3");  // a set is made for the URI it names
    rx = nullptr;
    EXPECT_EQ(inForce(), (Lines{"r1/l1", "r2/l2"}));
}

// Some clients keep their requests and some drop theirs from inside the withdrawals. The
// conflicting pair is untracked one after the other: the second is in force for a moment.
TEST_F(RequestDedupTest, StoppingNotificationWithdrawsEveryConfigurationWhileRequestsAreReleased) {
    std::vector<RequestPtr> kept, dropped;
    for (int i = 0; i < 4; ++i)
        (i % 2 ? kept : dropped)
            .push_back(table->dedup(config(fmt::format("p{}", i).c_str(), fmt::format("k{}", i).c_str())));
    kept.push_back(table->dedup(config("q", "shared")));
    kept.push_back(table->dedup(config("q", "shared", ::Q7Sync::WexUtils::SEED())));
    RequestPtr alone = table->dedup(config("z", "kz"));
    ChangeRecorder watcher(effective);
    watcher.onChange = [&](Lumo::Change const&) { dropped.clear(); };
    traces.clear();
    // Released inside an event, a request's removal waits for the event's end, when the stop has
    // untracked it already.
    clientEvents().now([&] {
        alone = nullptr;
        table->handleDestroy();
    });
    EXPECT_EQ(watcher.changes.size(), 7u);
    EXPECT_TRUE(inForce().empty());
    EXPECT_TRUE(bookkeepingEmpty());
    EXPECT_EQ(table->dedupTable()->size(), 4u);
    for (RequestPtr const& r : kept) {
        EXPECT_FALSE(r->lifeTimeNotifier() || r->isDeduped());
        EXPECT_EQ(r->dedupState(), Oru::DedupHandleState::notificationStopped);
    }
    Lines const level1 = traces.at(1);
    ASSERT_EQ(level1.size(), 7u);
    EXPECT_EQ(level1.front(), fmt::format("PathSubscribeRequestNotifiee::untrackAll: {}",
                                          static_cast<void const*>(table->dedupTable().ptr())));
    // The table tells nobody any more: neither releases nor new requests reach the notifiee.
    kept.clear();
    RequestPtr const late = table->dedup(a);
    EXPECT_TRUE(inForce().empty());
    EXPECT_TRUE(bookkeepingEmpty());
    EXPECT_EQ(late->lifeTimeNotifier(), nullptr);
    EXPECT_EQ(watcher.changes.size(), 7u);
}

TEST_F(RequestDedupTest, BrokenInvariantsAreTracedAtLevelZeroAndChangeNothing) {
    RequestPtr const ra = table->dedup(a);
    // Announced twice: the second insertion is refused and A stays filed once.
    notifiee->handleInsert(Lumo::Ptr<Oru::DedupHandleBase>(ra));
    // A request the notifiee never tracked leaves without touching the others.
    notifiee->handleRemove(pathSubscribeRequestFactory(config("r2", "l2")).ptr());
    EXPECT_EQ(traces.at(0), (Lines{"PathSubscribeRequestNotifiee::trackRequest: request->lifeTimeNotifier() == nullptr",
                                   "PathSubscribeRequestNotifiee::handleRemove: lifeTimeNotifier != nullptr"}));
    EXPECT_EQ(notifiee->requestSetForRemoteUri().get(a.remoteUri())->requests(), 1u);
    EXPECT_EQ(notifiee->requestSetForRemoteUris(), 1u);
    EXPECT_EQ(inForce(), Lines{"r1/l1"});
}

TEST_F(RequestDedupTest, ALifeTimeNotifierNamesItsOwnRequestOnlyAndAnotherTableTakesTheNotifieeOver) {
    RequestPtr ra = table->dedup(a), rb = table->dedup(config("r2", "l2"));
    EXPECT_EQ(refusal<Wex::NewEntityArgsException>([&] { ra->lifeTimeNotifierIs(rb->lifeTimeNotifier()); }),
              "lifeTimeNotifier");
    EXPECT_EQ(ra->lifeTimeNotifier()->requestRawPtr(), ra.ptr());
    // A notifier held beyond its request's release keeps the configuration and names no request.
    Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier const> const held = rb->lifeTimeNotifier();
    rb = nullptr;
    EXPECT_EQ(held->requestRawPtr(), nullptr);
    EXPECT_EQ(held->pathSubscribeConfig(), config("r2", "l2"));
    EXPECT_EQ(refusal<Wex::NullArgumentException>([] { pathSubscribeRequestLifeTimeNotifierFactory(nullptr); }),
              "handle");

    Lumo::Ptr<Oru::DedupHashTable> const old = table->dedupTable();
    table->handleInitialized();
    EXPECT_NE(table->dedupTable(), old);
    EXPECT_EQ(old->lifeTimeNotifiee(), nullptr);
    EXPECT_TRUE(inForce().empty());
    EXPECT_EQ(ra->lifeTimeNotifier(), nullptr);
    RequestPtr const fresh = table->dedup(a);
    EXPECT_NE(fresh, ra);
    ra = nullptr;  // untracked: its release tells nobody
    EXPECT_EQ(inForce(), Lines{"r1/l1"});
}

}  // namespace
}  // namespace Kel::Q7Sync::Test
