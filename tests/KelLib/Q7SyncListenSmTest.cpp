// ListenSm over the embedded sync service: each transition of the endpoint with its calls,
// traces and record; and ListenStatus, the record it keeps.
#include "KelLib/Q7SyncListenSm.h"

#include <functional>
#include <optional>

#include "Wex/Type.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Call = ::Q7Sync::Service::Call;
using Q7ListenStatus = ::Q7Serdes::WexUtils::ListenStatus;

// Two endpoints on loopback addresses, on ports the system chooses.
ListenConfig const x(*Kivu::IpGenAddr::fromString("127.0.0.1"), 0), y(*Kivu::IpGenAddr::fromString("127.0.0.2"), 0);

std::string host(ListenConfig const& c) { return c.hostAddr().stringValue(); }
Call listenCall(ListenConfig const& c) { return {"listen", host(c) + ", 0"}; }
Call closeCall(ListenConfig const& c) { return {"close", host(c) + ", 0"}; }
std::string opened(ListenConfig const& c) { return "ListenSm::listen: Listen, hostAddr=" + host(c) + ", port=0"; }
std::string closed(ListenConfig const& c) { return "ListenSm::close: Close, hostAddr=" + host(c) + ", port=0"; }
std::string listening(bool on, std::string_view reason = "") {
    return fmt::format("ListenSm::handleListenStatus: Q7ListenStatus for changed to listening:{} with reason {}", on,
                       reason);
}

class ListenSmTest : public SyncFixture {
protected:
    // An action, then the calls and traces it causes and the endpoint recorded after it.
    struct Step {
        char const* what;
        std::function<void()> act;
        Calls calls;
        Lines traced;
        std::optional<ListenConfig> recorded;
    };
    void run(std::vector<Step> const& steps) {
        for (Step const& s : steps) {
            SCOPED_TRACE(s.what);
            s.act();
            EXPECT_EQ(takeCalls(), s.calls);
            // Level 1 as it is, any other level marked.
            Lines traced;
            for (unsigned level = 0; level < 10; ++level)
                for (std::string const& t : traces.at(level, "KelQ7SyncListenSm"))
                    traced.push_back(level == 1 ? t : fmt::format("[level {}] {}", level, t));
            traces.clear();
            EXPECT_EQ(traced, s.traced);
            Lumo::Ptr<ListenConfigStatus> const record = status->listenConfigStatus();
            ASSERT_EQ(record != nullptr, s.recorded.has_value());
            if (!record) continue;
            EXPECT_EQ(record->listenConfig(), *s.recorded);
            if (sm && sm->q7ListenStatus()) {
                EXPECT_EQ(record->q7ListenStatus(), sm->q7ListenStatus());
            }
        }
    }
    void start() { sm = listenSmFactory(config, status); }
    void set(ListenConfig const& c) { config->listenConfigIs(c); }
    void look() { sm->handleListenConfig(); }
    void listeningIs(ListenConfig const& c, bool on, char const* reason) {
        service().listeningIs(host(c), 0, on, reason);
    }

    Lumo::Ptr<EffectiveListenConfig> config = effectiveListenConfigFactory();
    Lumo::Ptr<ListenStatus> status = listenStatusFactory();
    Lumo::Ptr<ListenSm> sm;
};

TEST_F(ListenSmTest, AnEndpointIsOpenedKeptReplacedAndClosed) {
    run({{"configured before the reactor", [&] { set(x); }, {}, {}, std::nullopt},
         {"opened by the reactor", [&] { start(); }, {listenCall(x)}, {opened(x), listening(true)}, x}});
    Lumo::Ptr<Q7ListenStatus const> const first = sm->q7ListenStatus();
    run({{"the same endpoint again", [&] { set(ListenConfig(x.hostAddr(), 0)); }, {}, {}, x},
         {"looked at", [&] { look(); }, {}, {}, x},
         {"listening renewed", [&] { listeningIs(x, true, "renewed"); }, {}, {}, x},
         {"listening lost", [&] { listeningIs(x, false, "reset"); }, {}, {listening(false, "reset")}, x},
         {"still lost", [&] { listeningIs(x, false, "down"); }, {}, {}, x},
         {"another", [&] { set(y); }, {closeCall(x), listenCall(y)}, {closed(x), opened(y), listening(true)}, y},
         {"none", [&] { set(ListenConfig()); }, {closeCall(y)}, {closed(y)}, std::nullopt}});
    EXPECT_EQ(first->publisher().subscribers(), 0u);
    EXPECT_EQ(sm->q7ListenStatus(), nullptr);
    EXPECT_EQ(service().endpoints(), 0u);
    EXPECT_EQ(refusal<Wex::NullArgumentException>([&] { ListenSm::ListenSmIs(config, nullptr); }), "listenStatus");
    EXPECT_EQ(refusal<Wex::NullArgumentException>([&] { listenSmFactory(nullptr, status); }), "listenConfig");
}

// Without a status the endpoint's state is unknown: each look closes and opens it again.
TEST_F(ListenSmTest, AnEndpointOpenedWithoutStatusIsReopenedUntilOneComes) {
    service().listenReturnsNoStatusIs(true);
    start();
    run({{"opened", [&] { set(x); }, {listenCall(x)}, {opened(x)}, x},
         {"looked at", [&] { look(); }, {closeCall(x), listenCall(x)}, {closed(x), opened(x)}, x},
         {"another", [&] { set(y); }, {closeCall(x), listenCall(y)}, {closed(x), opened(y)}, y},
         {"statuses again", [&] { service().listenReturnsNoStatusIs(false); }, {}, {}, y},
         {"looked at", [&] { look(); }, {closeCall(y), listenCall(y)}, {closed(y), opened(y), listening(true)}, y},
         {"looked at again", [&] { look(); }, {}, {}, y}});
}

TEST_F(ListenSmTest, AMarkedOrSilencedReactorIgnoresNotificationsAndResumesFromItsRecord) {
    start();
    set(x);
    takeCalls();
    traces.clear();
    Lumo::Ptr<Q7ListenStatus const> const held = sm->q7ListenStatus();
    run({{"marked", [&] { sm->wexDoZombieReactors(true); }, {}, {}, x},
         {"marked, another", [&] { set(y); }, {}, {}, x},
         {"marked, listening lost", [&] { listeningIs(x, false, "down"); }, {}, {}, x},
         {"marked, the status watched anew", [&] { sm->q7ListenStatusIs(sm->q7ListenStatusDel()); }, {}, {}, x},
         {"unmarked", [&] { sm->wexDoZombieReactors(false); }, {}, {}, x},
         {"unmarked, back to the endpoint open", [&] { set(x); }, {}, {}, x},
         {"unmarked, listening back", [&] { listeningIs(x, true, "up"); }, {}, {listening(true, "up")}, x},
         {"unwatched", [&] { sm->q7ListenStatusIs(nullptr); }, {}, {}, x},
         {"unwatched, told to trace", [&] { sm->handleListenStatus(); }, {}, {}, x},
         {"watched again", [&] { sm->q7ListenStatusIs(held); }, {}, {listening(true, "up")}, x},
         {"silenced", [&] { sm->hasNotificationActiveIs(false); }, {}, {}, x},
         {"silenced, another", [&] { set(y); }, {}, {}, x},
         {"silenced, listening lost", [&] { listeningIs(x, false, "gone"); }, {}, {}, x}});
    EXPECT_EQ(config->publisher().subscribers() + held->publisher().subscribers(), 0u);
    run({{"heard again", [&] { sm->hasNotificationActiveIs(true); }, {}, {}, x},
         {"none", [&] { set(ListenConfig()); }, {closeCall(x)}, {closed(x)}, std::nullopt}});
}

// A record is kept only for the same endpoint and the very same status; it is replaced by a
// write of another record through reflection, and deleted by a write of none.
TEST(ListenStatusTest, ARecordIsKeptOnlyForTheSameEndpointAndStatus) {
    Lumo::Ptr<Q7ListenStatus> const s1(new Q7ListenStatus(true, "")), s2(new Q7ListenStatus(true, ""));
    s1->hasNotificationActiveIs(true);
    s2->hasNotificationActiveIs(true);
    Lumo::Ptr<ListenStatus> const status = listenStatusFactory();
    Lumo::Ptr<ListenConfigStatus> const none = status->listenConfigStatusIs(x, nullptr);
    EXPECT_EQ(status->listenConfigStatusIs(x, nullptr), none);
    Lumo::Ptr<ListenConfigStatus> const withS1 = status->listenConfigStatusIs(x, s1);
    EXPECT_NE(withS1, none);
    EXPECT_EQ(status->listenConfigStatusIs(ListenConfig(x.hostAddr(), 0), s1), withS1);
    // The arguments may be the record's own.
    Lumo::Ptr<ListenConfigStatus> const withS2 = status->listenConfigStatusIs(withS1->listenConfig(), s2);
    EXPECT_TRUE(withS2 != withS1 && withS2->listenConfig() == x);
    EXPECT_EQ(status->listenConfigStatusDel(), withS2);
    EXPECT_EQ(status->listenConfigStatusDel(), nullptr);

    Wex::WexAttr const& attr = status->fwkType()->attrOrThrow("listenConfigStatus");
    Wex::GenericIf const gi = status->fwkType()->genericIf(Lumo::Ptr<Wex::PtrInterface>(status));
    attr.genericIfSet(gi, {{"listenConfigStatus", Wex::Value::of(listenStatusFactory()->listenConfigStatusIs(y, s1))}});
    Lumo::Ptr<ListenConfigStatus> const taken = status->listenConfigStatus();
    EXPECT_TRUE(taken && taken->listenConfig() == y && taken->q7ListenStatus() == s1);
    EXPECT_EQ(attr.genericIfGet(gi).object(), taken.ptr());
    attr.genericIfSet(gi, {});
    EXPECT_EQ(status->listenConfigStatus(), nullptr);
}

}  // namespace
}  // namespace Kel::Q7Sync::Test
