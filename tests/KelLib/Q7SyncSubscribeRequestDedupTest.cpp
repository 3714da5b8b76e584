// Subscribe requests: dedup, tracking per URI, and the effective subscribe configuration.
#include "KelLib/Q7SyncSubscribeRequest.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "KelLib/Q7SyncContainer.h"
#include "KelLib/Q7SyncSubscribeSm.h"
#include "Memtrail/Memtrail.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {
namespace {

using Flags = PathSubscribeConfig::SyncRequestFlags;
namespace F = ::Q7Sync::WexUtils;
using RequestPtr = Lumo::Ptr<PathSubscribeRequest>;

// A configuration at agent 10.1.2.3:4000: its remote URI follows `path`, its local URI `key`.
PathSubscribeConfig config(char const* path, char const* key, Flags flags = F::RELIABLE()) {
    return PathSubscribeConfig(Kivu::IpGenAddr::fromString("10.1.2.3").value(), 4000, path, key,
                               Wex::wexTypeOf<SyncContainer>(), flags);
}

// Hears EffectiveSubscribeConfig as the reactors do: "+path/key" for an entry, "-path/key"
// for a departure, and may act from inside the notification.
class EffectiveWatcher : public EffectiveSubscribeConfig::Configs::Watcher {
public:
    explicit EffectiveWatcher(Lumo::Ptr<EffectiveSubscribeConfig> effective) : effective_(std::move(effective)) {
        effective_->pathSubscribeConfig().watcherIs(this, true);
    }
    ~EffectiveWatcher() { effective_->pathSubscribeConfig().watcherIs(this, false); }

    void onMember(EffectiveSubscribeConfig::Configs const&, PathSubscribeConfig const& c,
                  PathSubscribeConfig const*) override {
        bool const entered = effective_->pathSubscribeConfigHas(c);
        events.push_back(fmt::format("{}{}/{}", entered ? '+' : '-', c.remotePath(), c.syncContainerKey()));
        if (onChange) onChange(c, entered);
    }

    std::vector<std::string> events;
    std::function<void(PathSubscribeConfig const&, bool entered)> onChange;

private:
    Lumo::Ptr<EffectiveSubscribeConfig> effective_;
};

class RequestDedupTest : public ::testing::Test {
protected:
    void SetUp() override { Memtrail::defaultHandle()->clear(); }

    bool effectiveHas(PathSubscribeConfig const& c) const { return effective->pathSubscribeConfigHas(c); }
    std::size_t effectiveCount() const { return effective->pathSubscribeConfig().size(); }
    bool bookkeepingEmpty() const {
        return notifiee->requestSetForLocalUri().empty() && notifiee->requestSetForRemoteUri().empty() &&
               notifiee->pendingRequest().empty();
    }
    // Messages the notifiee traced at `level`, oldest first.
    static std::vector<std::string> traced(unsigned level) {
        std::vector<std::string> out;
        for (Memtrail::Record const* r : Memtrail::defaultHandle()->records(level))
            if (r->handle() == "KelQ7SyncSubscribeSm" && r->className() == "PathSubscribeRequestNotifiee")
                out.push_back(r->message());
        return out;
    }
    static std::string addTrace(RequestPtr const& r) {
        return fmt::format("Add subscribe config for ltn {} with remoteUri {}",
                           static_cast<void const*>(r->lifeTimeNotifier().ptr()), r->remoteUri());
    }
    static std::string removeTrace(void const* ltn, PathSubscribeConfig const& c, std::size_t remote,
                                   std::size_t local) {
        return fmt::format("Remove subscribe config for ltn {} with remoteUri {} and requestCountForRemoteUri {} "
                           "and requestCountForLocalUri {}",
                           ltn, c.remoteUri(), remote, local);
    }

    Lumo::Ptr<EffectiveSubscribeConfig> effective = EffectiveSubscribeConfig::EffectiveSubscribeConfigIs();
    Lumo::Ptr<PathSubscribeRequestNotifiee> notifiee = pathSubscribeRequestNotifieeFactory(effective);
    Lumo::Ptr<PathSubscribeRequestDedupTable> table = pathSubscribeRequestDedupTableFactory(notifiee);
    EffectiveWatcher watcher{effective};

    PathSubscribeConfig const a = config("r1", "l1");
    PathSubscribeConfig const b = config("r2", "l2");
};

TEST_F(RequestDedupTest, ALoneRequestIsEffectiveUntilItsLastHolderLetsGo) {
    RequestPtr first = table->dedup(a);
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->isDeduped());
    EXPECT_TRUE(PathSubscribeConfig::isEq(first->pathSubscribeConfig(), a));
    ASSERT_TRUE(first->lifeTimeNotifier());
    EXPECT_EQ(first->lifeTimeNotifier()->requestRawPtr(), first.ptr());
    EXPECT_EQ(traced(8), (std::vector<std::string>{"", addTrace(first)}));
    EXPECT_EQ(Memtrail::defaultHandle()->records(8).front()->text(),
              "KelQ7SyncSubscribeSm[8] PathSubscribeRequestNotifiee::drainPendingRequests: ");
    EXPECT_TRUE(effectiveHas(a));

    RequestPtr second = table->dedup(config("r1", "l1"));
    EXPECT_EQ(second, first);
    EXPECT_EQ(table->dedupTable()->size(), 1u);
    EXPECT_EQ(watcher.events, (std::vector<std::string>{"+r1/l1"}));

    void const* const ltn = first->lifeTimeNotifier().ptr();
    first = nullptr;
    EXPECT_TRUE(effectiveHas(a));
    EXPECT_TRUE(traced(1).empty());
    second = nullptr;
    EXPECT_EQ(effectiveCount(), 0u);
    EXPECT_EQ(traced(1), (std::vector<std::string>{removeTrace(ltn, a, 0, 0)}));
    EXPECT_EQ(table->dedupTable()->size(), 0u);
    EXPECT_TRUE(bookkeepingEmpty());

    // A later dedup makes a new request, announced anew.
    RequestPtr again = table->dedup(a);
    EXPECT_EQ(watcher.events, (std::vector<std::string>{"+r1/l1", "-r1/l1", "+r1/l1"}));
}

// A shares its remote URI with B in one case and its local URI in the other.
struct Conflict {
    char const* name;
    PathSubscribeConfig other;
    std::size_t remoteCount, localCount;
};

TEST_F(RequestDedupTest, ASharedUriHoldsBothBackUntilOneGoes) {
    std::vector<Conflict> const conflicts = {
        {"shared remote URI", config("r1", "l2"), 2, 1},
        {"shared local URI", config("r2", "l1"), 1, 2},
        {"equal URIs, other flags", config("r1", "l1", F::SEED()), 2, 2},
    };
    for (Conflict const& c : conflicts) {
        for (bool releaseAFirst : {false, true}) {
            SCOPED_TRACE(fmt::format("{}, release {} first", c.name, releaseAFirst ? "A" : "B"));
            Memtrail::defaultHandle()->clear();
            RequestPtr ra = table->dedup(a);
            void const* const ltnA = ra->lifeTimeNotifier().ptr();
            RequestPtr rb = table->dedup(c.other);
            EXPECT_NE(ra, rb);
            EXPECT_FALSE(effectiveHas(a));
            EXPECT_FALSE(effectiveHas(c.other));
            EXPECT_EQ(traced(1), (std::vector<std::string>{removeTrace(ltnA, a, c.remoteCount, c.localCount)}));

            if (releaseAFirst) {
                ra = nullptr;
                EXPECT_TRUE(effectiveHas(c.other));
                EXPECT_EQ(effectiveCount(), 1u);
            } else {
                rb = nullptr;
                EXPECT_TRUE(effectiveHas(a));
                EXPECT_EQ(effectiveCount(), 1u);
            }
            ra = rb = nullptr;
            EXPECT_EQ(effectiveCount(), 0u);
            EXPECT_TRUE(bookkeepingEmpty());
        }
    }
}

TEST_F(RequestDedupTest, AThirdRequestOnASharedUriChangesNothingUntilItIsAlone) {
    RequestPtr ra = table->dedup(a);
    RequestPtr rb = table->dedup(config("r1", "l2"));
    watcher.events.clear();
    RequestPtr rc = table->dedup(config("r1", "l3"));
    EXPECT_TRUE(watcher.events.empty());
    EXPECT_EQ(effectiveCount(), 0u);
    EXPECT_EQ(notifiee->requestSetForRemoteUri().get(a.remoteUri())->requests(), 3u);

    ra = nullptr;
    EXPECT_TRUE(watcher.events.empty());
    rb = nullptr;
    EXPECT_EQ(watcher.events, (std::vector<std::string>{"+r1/l3"}));
}

TEST_F(RequestDedupTest, ARequestBridgingTwoEffectiveOnesHoldsBothBack) {
    RequestPtr ra = table->dedup(a);
    RequestPtr rb = table->dedup(b);
    EXPECT_EQ(effectiveCount(), 2u);
    watcher.events.clear();

    PathSubscribeConfig const d = config("r1", "l2");  // A's remote URI, B's local URI
    RequestPtr rd = table->dedup(d);
    EXPECT_EQ(effectiveCount(), 0u);
    std::vector<std::string> left = watcher.events;
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"-r1/l1", "-r2/l2"}));

    watcher.events.clear();
    rd = nullptr;
    EXPECT_TRUE(effectiveHas(a));
    EXPECT_TRUE(effectiveHas(b));
    EXPECT_EQ(watcher.events.size(), 2u);

    // Releasing one of the outer ones instead lets D in only when both are gone.
    rd = table->dedup(d);
    ra = nullptr;
    EXPECT_EQ(effectiveCount(), 0u);
    rb = nullptr;
    EXPECT_TRUE(effectiveHas(d));
    EXPECT_EQ(effectiveCount(), 1u);
}

TEST_F(RequestDedupTest, StoppingNotificationWithdrawsEveryConfigurationAndUntracksTheRequests) {
    std::vector<RequestPtr> held;
    for (int i = 0; i < 5; ++i)
        held.push_back(table->dedup(config(fmt::format("p{}", i).c_str(), fmt::format("k{}", i).c_str())));
    held.push_back(table->dedup(config("q", "shared")));
    held.push_back(table->dedup(config("q", "shared", F::SEED())));
    ASSERT_EQ(effectiveCount(), 5u);
    watcher.events.clear();
    Memtrail::defaultHandle()->clear();

    table->handleDestroy();
    EXPECT_EQ(effectiveCount(), 0u);
    EXPECT_TRUE(bookkeepingEmpty());
    // The conflicting pair is untracked one after the other: the second is alone for a moment
    // and passes through the effective set on its way out.
    std::vector<std::string> events = watcher.events;
    std::sort(events.begin(), events.end());
    EXPECT_EQ(events, (std::vector<std::string>{"+q/shared", "-p0/k0", "-p1/k1", "-p2/k2", "-p3/k3", "-p4/k4",
                                                "-q/shared"}));
    for (RequestPtr const& r : held) {
        EXPECT_EQ(r->lifeTimeNotifier(), nullptr);
        EXPECT_EQ(r->dedupState(), Oru::DedupHandleState::notificationStopped);
        EXPECT_TRUE(r->everDeduped());
        EXPECT_FALSE(r->isDeduped());
    }
    std::vector<std::string> const level1 = traced(1);
    ASSERT_EQ(level1.size(), 7u);
    EXPECT_EQ(level1.front(), fmt::format("{}", static_cast<void const*>(table->dedupTable().ptr())));
    EXPECT_TRUE(traced(0).empty());

    // The table tells nobody any more: neither releases nor new requests reach the notifiee.
    watcher.events.clear();
    held.clear();
    RequestPtr late = table->dedup(a);
    EXPECT_TRUE(watcher.events.empty());
    EXPECT_TRUE(bookkeepingEmpty());
    EXPECT_EQ(late->lifeTimeNotifier(), nullptr);
}

TEST_F(RequestDedupTest, DestroyingTheTableWithdrawsWhileClientsStillHoldRequests) {
    RequestPtr ra = table->dedup(a);
    RequestPtr rb = table->dedup(b);
    table = nullptr;
    EXPECT_EQ(effectiveCount(), 0u);
    EXPECT_TRUE(bookkeepingEmpty());
    EXPECT_EQ(ra->lifeTimeNotifier(), nullptr);
    EXPECT_EQ(ra->getDedupHashTable(), nullptr);
    ra = rb = nullptr;  // no table to reach back into
    EXPECT_EQ(effectiveCount(), 0u);
}

TEST_F(RequestDedupTest, AnUnspecifiedAddressIsRefusedAndChangesNothing) {
    RequestPtr ra = table->dedup(a);
    watcher.events.clear();
    Memtrail::defaultHandle()->clear();
    // Same URIs as nothing else: both would be empty.
    for (PathSubscribeConfig const& none :
         {PathSubscribeConfig(), PathSubscribeConfig(Kivu::IpGenAddr(), 4000, "r1", "l1", nullptr, F::WRITE())}) {
        try {
            table->dedup(none);
            ADD_FAILURE() << "accepted " << none;
        } catch (Wex::NewEntityArgsException const& e) {
            EXPECT_EQ(e.attribute(), "remoteAddr");
            EXPECT_NE(std::string(e.what()).find("Kel::Q7Sync::PathSubscribeRequestDedupTable"), std::string::npos);
        }
    }
    EXPECT_EQ(table->dedupTable()->size(), 1u);
    EXPECT_EQ(notifiee->requestSetForRemoteUris(), 1u);
    EXPECT_EQ(notifiee->requestSetForLocalUris(), 1u);
    EXPECT_TRUE(effectiveHas(a));
    EXPECT_EQ(effectiveCount(), 1u);
    EXPECT_TRUE(watcher.events.empty());
    EXPECT_TRUE(traced(8).empty());
}

TEST_F(RequestDedupTest, ReleasingTheLastPointerFromInsideANotificationIsSafe) {
    long const liveBefore = Wex::PtrInterface::liveObjects();
    {
        RequestPtr ra = table->dedup(a);
        RequestPtr rb = table->dedup(b);
        // The first departure drops the client's only pointer to B, inside the drain that
        // D's arrival runs.
        watcher.onChange = [&](PathSubscribeConfig const&, bool entered) {
            if (!entered) rb = nullptr;
        };
        RequestPtr rd = table->dedup(config("r1", "l2"));
        EXPECT_EQ(rb, nullptr);
        EXPECT_EQ(effectiveCount(), 0u);  // D still shares A's remote URI
        EXPECT_EQ(notifiee->requestSetForRemoteUris(), 1u);
        EXPECT_EQ(notifiee->requestSetForLocalUris(), 2u);
        EXPECT_TRUE(notifiee->pendingRequest().empty());
        watcher.onChange = nullptr;
        ra = nullptr;
        EXPECT_TRUE(effectiveHas(config("r1", "l2")));
    }
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), liveBefore);
    EXPECT_TRUE(bookkeepingEmpty());
    EXPECT_TRUE(traced(0).empty());
}

TEST_F(RequestDedupTest, ReleasingRequestsWhileNotificationStopsIsSafe) {
    long const liveBefore = Wex::PtrInterface::liveObjects();
    std::vector<RequestPtr> held;
    for (int i = 0; i < 4; ++i)
        held.push_back(table->dedup(config(fmt::format("p{}", i).c_str(), fmt::format("k{}", i).c_str())));
    // Each withdrawal drops every client pointer, those of requests not yet untracked too.
    watcher.onChange = [&](PathSubscribeConfig const&, bool) { held.clear(); };
    table->handleDestroy();
    EXPECT_EQ(effectiveCount(), 0u);
    EXPECT_TRUE(bookkeepingEmpty());
    EXPECT_TRUE(held.empty());
    EXPECT_EQ(table->dedupTable()->size(), 0u);
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), liveBefore);
    EXPECT_TRUE(traced(0).empty());
}

TEST_F(RequestDedupTest, BrokenInvariantsAreTracedAtLevelZeroAndChangeNothing) {
    RequestPtr ra = table->dedup(a);
    // Announced twice: the second insertion is refused and A stays filed once.
    notifiee->handleInsert(Lumo::Ptr<Oru::DedupHandleBase>(ra));
    EXPECT_EQ(traced(0), (std::vector<std::string>{"request->lifeTimeNotifier() == nullptr"}));
    EXPECT_EQ(notifiee->requestSetForRemoteUri().get(a.remoteUri())->requests(), 1u);
    EXPECT_TRUE(effectiveHas(a));

    // A request the notifiee never tracked leaves without touching the others.
    RequestPtr stray = PathSubscribeRequest::PathSubscribeRequestIs(b);
    notifiee->handleRemove(stray.ptr());
    EXPECT_EQ(traced(0).back(), "lifeTimeNotifier != nullptr");
    EXPECT_TRUE(effectiveHas(a));
    EXPECT_EQ(notifiee->requestSetForRemoteUris(), 1u);
}

TEST_F(RequestDedupTest, ALifeTimeNotifierNamesItsOwnRequestOnly) {
    RequestPtr ra = table->dedup(a);
    RequestPtr rb = table->dedup(b);
    try {
        ra->lifeTimeNotifierIs(rb->lifeTimeNotifier());
        ADD_FAILURE() << "took another request's notifier";
    } catch (Wex::NewEntityArgsException const& e) {
        EXPECT_EQ(e.attribute(), "lifeTimeNotifier");
    }
    EXPECT_EQ(ra->lifeTimeNotifier()->requestRawPtr(), ra.ptr());
    // A notifier held beyond its request's release keeps the configuration and names no request.
    Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier const> const held = rb->lifeTimeNotifier();
    rb = nullptr;
    EXPECT_EQ(held->requestRawPtr(), nullptr);
    EXPECT_EQ(held->pathSubscribeConfig(), b);
    EXPECT_THROW(PathSubscribeRequestLifeTimeNotifier::PathSubscribeRequestLifeTimeNotifierIs(nullptr),
                 Wex::NullArgumentException);
    EXPECT_THROW(PathSubscribeRequestDedupTable::PathSubscribeRequestDedupTableIs(nullptr), Wex::NullArgumentException);
    EXPECT_THROW(table->dedupTableIs(nullptr), Wex::NullArgumentException);
}

TEST_F(RequestDedupTest, AnotherFrameworkTableTakesTheNotifieeOver) {
    RequestPtr ra = table->dedup(a);
    Lumo::Ptr<Oru::DedupHashTable> const old = table->dedupTable();
    table->handleInitialized();
    EXPECT_NE(table->dedupTable(), old);
    EXPECT_EQ(old->lifeTimeNotifiee(), nullptr);
    EXPECT_EQ(effectiveCount(), 0u);
    EXPECT_EQ(ra->lifeTimeNotifier(), nullptr);

    RequestPtr fresh = table->dedup(a);
    EXPECT_NE(fresh, ra);
    EXPECT_TRUE(effectiveHas(a));
    ra = nullptr;  // untracked: its release tells nobody
    EXPECT_TRUE(effectiveHas(a));
}

TEST_F(RequestDedupTest, ReflectionReachesTheTableTheBookkeepingAndTheRequest) {
    Wex::WexType const* tableType = Wex::typeNode("Kel::Q7Sync::PathSubscribeRequestDedupTable");
    Wex::WexType const* notifieeType = Wex::typeNode("Kel::Q7Sync::PathSubscribeRequestNotifiee");
    Wex::WexType const* ltnType = Wex::typeNode("Kel::Q7Sync::PathSubscribeRequestLifeTimeNotifier");
    ASSERT_TRUE(tableType && notifieeType && ltnType);

    Wex::Value const got = tableType->attrOrThrow("dedup").genericIfCall(tableType->genericIf(table),
                                                                          Wex::Args{{"config", Wex::Value::of(a)}});
    ASSERT_NE(got.as<RequestPtr>(), nullptr);
    RequestPtr const ra = *got.as<RequestPtr>();
    EXPECT_EQ(ra, table->dedup(a));
    EXPECT_TRUE(effectiveHas(a));

    std::vector<std::string> names;
    for (Wex::WexAttr const& attr : notifieeType->attrs()) names.emplace_back(attr.name());
    EXPECT_EQ(names, (std::vector<std::string>{"effectiveSubscribeConfig", "handleRequest", "pendingRequest",
                                               "drainPendingRequests", "requestSetForLocalUri",
                                               "requestSetForRemoteUri", "addRequestToSet", "removeRequestFromSet"}));
    Wex::GenericIf const n = notifieeType->genericIf(notifiee);
    EXPECT_EQ(notifieeType->attrOrThrow("requestSetForRemoteUri").count(n.object), 1u);
    EXPECT_FALSE(notifieeType->attrOrThrow("handleRequest").callable());

    // The notifier shows its request as a back pointer: by address.
    Wex::Value const named = ltnType->attrOrThrow("requestRawPtr").genericIfGet(
        ltnType->genericIf(Lumo::Ptr<Wex::PtrInterface>(const_cast<PathSubscribeRequestLifeTimeNotifier*>(
            ra->lifeTimeNotifier().ptr()))));
    EXPECT_EQ(named.text(), fmt::format("{}", static_cast<void const*>(ra.ptr())));
}

// Drives dedup and releases in random order against the rule itself: a configuration is
// effective exactly when its request is alone on its remote URI and alone on its local URI.
TEST_F(RequestDedupTest, RandomDedupAndReleaseFollowTheRule) {
    unsigned const seed = std::getenv("Q7_TEST_SEED") ? unsigned(std::strtoul(std::getenv("Q7_TEST_SEED"), nullptr, 10))
                                                      : std::random_device{}();
    SCOPED_TRACE(fmt::format("seed {} (rerun with Q7_TEST_SEED={})", seed, seed));
    std::mt19937 rng(seed);

    // Three remote paths by three keys by two flag sets: plenty of shared URIs.
    std::vector<PathSubscribeConfig> configs;
    for (char const* path : {"a", "b", "c"})
        for (char const* key : {"x", "y", "z"})
            for (Flags flags : {F::RELIABLE(), F::WRITE()}) configs.push_back(config(path, key, flags));
    std::vector<int> holders(configs.size(), 0);
    std::vector<std::pair<std::size_t, RequestPtr>> held;

    auto check = [&](int step) {
        std::size_t expected = 0;
        for (std::size_t i = 0; i < configs.size(); ++i) {
            bool alone = holders[i] > 0;
            for (std::size_t j = 0; alone && j < configs.size(); ++j) {
                bool const shares = configs[j].remoteUri() == configs[i].remoteUri() ||
                                    configs[j].localUri() == configs[i].localUri();
                if (j != i && holders[j] > 0 && shares) alone = false;
            }
            expected += alone;
            if (effectiveHas(configs[i]) != alone) {
                ADD_FAILURE() << "step " << step << ": " << configs[i] << (alone ? " missing" : " effective");
                return false;
            }
        }
        if (effectiveCount() != expected || !notifiee->pendingRequest().empty()) {
            ADD_FAILURE() << "step " << step << ": " << effectiveCount() << " effective, " << expected << " expected";
            return false;
        }
        return true;
    };

    int step = 0;
    for (; step < 1500; ++step) {
        if (held.empty() || rng() % 100 < 55) {
            std::size_t const i = rng() % configs.size();
            RequestPtr r = table->dedup(configs[i]);
            // Every holder of a configuration holds the same request.
            for (auto const& [j, other] : held)
                if (j == i && other != r) ADD_FAILURE() << "step " << step << ": two requests for " << configs[i];
            held.emplace_back(i, std::move(r));
            ++holders[i];
        } else {
            std::size_t const k = rng() % held.size();
            --holders[held[k].first];
            std::swap(held[k], held.back());
            held.pop_back();
        }
        if (!check(step)) return;
    }
    std::shuffle(held.begin(), held.end(), rng);
    while (!held.empty()) {
        --holders[held.back().first];
        held.pop_back();
        if (!check(step++)) return;
    }
    EXPECT_EQ(effectiveCount(), 0u);
    EXPECT_TRUE(bookkeepingEmpty());
    EXPECT_EQ(table->dedupTable()->size(), 0u);
    EXPECT_TRUE(traced(0).empty());
}

} // namespace
} // namespace Kel::Q7Sync
