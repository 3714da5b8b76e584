// ListenSm over the embedded sync service: every transition of the endpoint, its calls and
// traces; and the entities it works on, EffectiveListenConfig and ListenStatus.
#include "KelLib/Q7SyncListenSm.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Memtrail/Memtrail.h"
#include "Q7Sync/Service.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {
namespace {

using Call = ::Q7Sync::Service::Call;
using Q7ListenStatus = ::Q7Serdes::WexUtils::ListenStatus;
constexpr char kHost[] = "127.0.0.1";
constexpr char kHandle[] = "KelQ7SyncListenSm";

// A TCP socket bound to a port the system chose on 127.0.0.1; listening when asked to.
class LoopbackSocket {
public:
    explicit LoopbackSocket(bool listening) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&a), len) != 0 ||
            (listening && ::listen(fd_, 1) != 0) || ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            ADD_FAILURE() << "cannot bind a loopback socket";
        port_ = ntohs(a.sin_port);
    }
    LoopbackSocket(LoopbackSocket const&) = delete;
    LoopbackSocket& operator=(LoopbackSocket const&) = delete;
    ~LoopbackSocket() {
        if (fd_ >= 0) ::close(fd_);
    }
    std::uint16_t port() const { return port_; }

private:
    int fd_ = -1;
    std::uint16_t port_ = 0;
};

// An endpoint on a port that was free a moment ago.
ListenConfig freeEndpoint() { return ListenConfig(*Kivu::IpGenAddr::fromString(kHost), LoopbackSocket(false).port()); }

Call listenCall(ListenConfig const& c) { return {"listen", fmt::format("{}, {}", kHost, c.port())}; }
Call closeCall(ListenConfig const& c) { return {"close", fmt::format("{}, {}", kHost, c.port())}; }
std::string listenTrace(ListenConfig const& c) { return fmt::format("Listen, hostAddr={}, port={}", kHost, c.port()); }
std::string closeTrace(ListenConfig const& c) { return fmt::format("Close, hostAddr={}, port={}", kHost, c.port()); }
std::string statusTrace(bool listening, std::string_view reason) {
    return fmt::format("Q7ListenStatus for changed to listening:{} with reason {}", listening, reason);
}

std::vector<Memtrail::Record const*> unitRecords(unsigned level) {
    std::vector<Memtrail::Record const*> out;
    for (Memtrail::Record const* r : Memtrail::defaultHandle()->records(level))
        if (r->handle() == kHandle) out.push_back(r);
    return out;
}

class ListenSmTest : public ::testing::Test {
protected:
    void SetUp() override {
        service().reset();
        service().callLogIs(true);
        Memtrail::defaultHandle()->clear();
        liveBefore_ = Wex::PtrInterface::liveObjects();
        config = EffectiveListenConfig::EffectiveListenConfigIs();
        status = ListenStatus::ListenStatusIs();
    }
    void TearDown() override {
        sm = nullptr;
        config = nullptr;
        status = nullptr;
        service().reset();
        service().callLogIs(false);
        EXPECT_EQ(Wex::PtrInterface::liveObjects(), liveBefore_) << "framework objects leaked";
    }

    static ::Q7Sync::Service& service() { return ::Q7Sync::Service::instance(); }
    void start() { sm = ListenSm::ListenSmIs(config, status); }

    // The service calls and level-1 trace messages since the last take.
    std::vector<Call> takeCalls() {
        std::vector<Call> c = service().calls();
        service().callsDelAll();
        return c;
    }
    std::vector<std::string> takeTraces() {
        std::vector<std::string> out;
        for (Memtrail::Record const* r : unitRecords(1)) out.push_back(r->message());
        Memtrail::defaultHandle()->clear();
        return out;
    }
    void take() {
        takeCalls();
        takeTraces();
    }
    Lumo::Ptr<ListenConfigStatus> record() const { return status->listenConfigStatus(); }
    void expectRecord(ListenConfig const& endpoint) const {
        ASSERT_NE(record(), nullptr);
        EXPECT_TRUE(ListenConfig::isEq(record()->listenConfig(), endpoint)) << valueToStrep(record()->listenConfig());
        EXPECT_EQ(record()->q7ListenStatus(), sm->q7ListenStatus());
    }

    Lumo::Ptr<EffectiveListenConfig> config;
    Lumo::Ptr<ListenStatus> status;
    Lumo::Ptr<ListenSm> sm;
    ListenConfig const x = freeEndpoint();
    ListenConfig const y = freeEndpoint();

private:
    long liveBefore_ = 0;
};

TEST_F(ListenSmTest, FirstEndpointIsOpenedAndRecorded) {
    start();
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_TRUE(takeTraces().empty());
    EXPECT_EQ(record(), nullptr);

    config->listenConfigIs(x);
    EXPECT_EQ(takeCalls(), std::vector<Call>{listenCall(x)});
    expectRecord(x);
    ASSERT_NE(sm->q7ListenStatus(), nullptr);
    EXPECT_TRUE(sm->q7ListenStatus()->listening());
    EXPECT_EQ(service().boundPort(kHost, x.port()), x.port());
    EXPECT_EQ(takeTraces(), (std::vector<std::string>{listenTrace(x), statusTrace(true, "")}));
}

TEST_F(ListenSmTest, TracesCarryClassFunctionAndLevel) {
    start();
    config->listenConfigIs(x);
    config->listenConfigIs(ListenConfig());
    std::vector<Memtrail::Record const*> const records = unitRecords(1);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0]->function(), "listen");
    EXPECT_EQ(records[1]->function(), "handleListenStatus");
    EXPECT_EQ(records[2]->function(), "close");
    for (Memtrail::Record const* r : records) EXPECT_EQ(r->className(), "ListenSm");
    for (unsigned level : {0u, 2u, 8u, 9u}) EXPECT_TRUE(unitRecords(level).empty()) << "level " << level;
}

TEST_F(ListenSmTest, SameEndpointAgainDoesNothing) {
    start();
    config->listenConfigIs(x);
    Lumo::Ptr<ListenConfigStatus> const opened = record();
    take();
    config->listenConfigIs(ListenConfig(x.hostAddr(), x.port()));
    sm->handleListenConfig();
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_TRUE(takeTraces().empty());
    EXPECT_EQ(record(), opened);
}

TEST_F(ListenSmTest, NewEndpointClosesTheOldOneFirst) {
    start();
    config->listenConfigIs(x);
    Lumo::Ptr<Q7ListenStatus const> const first = sm->q7ListenStatus();
    take();

    config->listenConfigIs(y);
    EXPECT_EQ(takeCalls(), (std::vector<Call>{closeCall(x), listenCall(y)}));
    EXPECT_EQ(takeTraces(), (std::vector<std::string>{closeTrace(x), listenTrace(y), statusTrace(true, "")}));
    expectRecord(y);
    ASSERT_NE(sm->q7ListenStatus(), nullptr);
    EXPECT_NE(sm->q7ListenStatus(), first);
    EXPECT_EQ(first->publisher().subscribers(), 0u);
    EXPECT_EQ(sm->q7ListenStatus()->publisher().subscribers(), 1u);
    EXPECT_EQ(service().endpoints(), 1u);
    EXPECT_EQ(service().boundPort(kHost, x.port()), 0);
}

TEST_F(ListenSmTest, DefaultEndpointOnlyCloses) {
    start();
    config->listenConfigIs(x);
    Lumo::Ptr<Q7ListenStatus const> const first = sm->q7ListenStatus();
    take();

    config->listenConfigIs(ListenConfig());
    EXPECT_EQ(takeCalls(), std::vector<Call>{closeCall(x)});
    EXPECT_EQ(takeTraces(), std::vector<std::string>{closeTrace(x)});
    EXPECT_EQ(record(), nullptr);
    EXPECT_EQ(sm->q7ListenStatus(), nullptr);
    EXPECT_EQ(first->publisher().subscribers(), 0u);
    EXPECT_EQ(service().endpoints(), 0u);
}

TEST_F(ListenSmTest, OnlyChangesOfListeningAreTraced) {
    start();
    config->listenConfigIs(x);
    take();
    ASSERT_TRUE(service().listeningIs(kHost, x.port(), true, "renewed"));
    EXPECT_TRUE(takeTraces().empty());
    ASSERT_TRUE(service().listeningIs(kHost, x.port(), false, "peer reset"));
    EXPECT_EQ(takeTraces(), std::vector<std::string>{statusTrace(false, "peer reset")});
    ASSERT_TRUE(service().listeningIs(kHost, x.port(), false, "still down"));
    EXPECT_TRUE(takeTraces().empty());
    EXPECT_TRUE(takeCalls().empty());
}

TEST_F(ListenSmTest, EndpointWithoutStatusIsClosedAndReopened) {
    service().listenReturnsNoStatusIs(true);
    start();
    config->listenConfigIs(x);
    EXPECT_EQ(takeCalls(), std::vector<Call>{listenCall(x)});
    EXPECT_EQ(takeTraces(), std::vector<std::string>{listenTrace(x)});
    expectRecord(x);
    EXPECT_EQ(sm->q7ListenStatus(), nullptr);

    sm->handleListenConfig();
    EXPECT_EQ(takeCalls(), (std::vector<Call>{closeCall(x), listenCall(x)}));
    EXPECT_EQ(takeTraces(), (std::vector<std::string>{closeTrace(x), listenTrace(x)}));
    expectRecord(x);

    config->listenConfigIs(y);
    EXPECT_EQ(takeCalls(), (std::vector<Call>{closeCall(x), listenCall(y)}));
    EXPECT_EQ(takeTraces(), (std::vector<std::string>{closeTrace(x), listenTrace(y)}));
    expectRecord(y);

    // Once the service answers with a status again, the endpoint counts as open.
    service().listenReturnsNoStatusIs(false);
    sm->handleListenConfig();
    EXPECT_EQ(takeCalls(), (std::vector<Call>{closeCall(y), listenCall(y)}));
    expectRecord(y);
    EXPECT_NE(sm->q7ListenStatus(), nullptr);
    sm->handleListenConfig();
    EXPECT_TRUE(takeCalls().empty());
}

TEST_F(ListenSmTest, DestructionCallsNothingAndKeepsTheRecord) {
    start();
    config->listenConfigIs(x);
    Lumo::Ptr<Q7ListenStatus const> const first = sm->q7ListenStatus();
    take();

    sm = nullptr;
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_TRUE(takeTraces().empty());
    ASSERT_NE(record(), nullptr);
    EXPECT_EQ(record()->q7ListenStatus(), first);
    EXPECT_EQ(service().endpoints(), 1u);
    EXPECT_EQ(config->publisher().subscribers(), 0u);
    EXPECT_EQ(first->publisher().subscribers(), 0u);
}

TEST_F(ListenSmTest, ReactorOverAnExistingRecordReopensIt) {
    start();
    config->listenConfigIs(x);
    Lumo::Ptr<Q7ListenStatus const> const first = sm->q7ListenStatus();
    sm = nullptr;
    take();

    // It starts without a watched status, so the recorded endpoint is closed and opened again.
    start();
    EXPECT_EQ(takeCalls(), (std::vector<Call>{closeCall(x), listenCall(x)}));
    EXPECT_EQ(takeTraces(), (std::vector<std::string>{closeTrace(x), listenTrace(x), statusTrace(true, "")}));
    expectRecord(x);
    EXPECT_NE(sm->q7ListenStatus(), first);
}

TEST_F(ListenSmTest, EndpointConfiguredBeforeTheReactorIsOpenedAtConstruction) {
    config->listenConfigIs(x);
    EXPECT_TRUE(takeCalls().empty());
    start();
    EXPECT_EQ(takeCalls(), std::vector<Call>{listenCall(x)});
    expectRecord(x);
}

TEST_F(ListenSmTest, PortHeldByAnotherSocketIsRecordedAsNotListening) {
    LoopbackSocket const holder(true);
    ListenConfig const taken(x.hostAddr(), holder.port());
    start();
    config->listenConfigIs(taken);
    EXPECT_EQ(takeCalls(), std::vector<Call>{listenCall(taken)});
    expectRecord(taken);
    ASSERT_NE(sm->q7ListenStatus(), nullptr);
    EXPECT_FALSE(sm->q7ListenStatus()->listening());
    EXPECT_EQ(sm->q7ListenStatus()->reason(), "Address already in use");
    EXPECT_EQ(takeTraces(),
              (std::vector<std::string>{listenTrace(taken), statusTrace(false, "Address already in use")}));

    config->listenConfigIs(ListenConfig());
    EXPECT_EQ(takeCalls(), std::vector<Call>{closeCall(taken)});
    EXPECT_EQ(record(), nullptr);
    EXPECT_EQ(sm->q7ListenStatus(), nullptr);
    EXPECT_EQ(service().endpoints(), 0u);
}

TEST_F(ListenSmTest, MarkedReactorIgnoresEveryNotification) {
    start();
    config->listenConfigIs(x);
    take();
    sm->wexDoZombieReactors(true);
    config->listenConfigIs(y);
    ASSERT_TRUE(service().listeningIs(kHost, x.port(), false, "down"));
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_TRUE(takeTraces().empty());
    expectRecord(x);

    // A status taken while marked is watched but not traced.
    Lumo::Ptr<Q7ListenStatus const> const held = sm->q7ListenStatusDel();
    sm->q7ListenStatusIs(held);
    EXPECT_TRUE(takeTraces().empty());
    EXPECT_EQ(held->publisher().subscribers(), 1u);

    // Unmarked, it acts on the next change from the record it left.
    sm->wexDoZombieReactors(false);
    config->listenConfigIs(x);
    EXPECT_EQ(takeCalls(), std::vector<Call>{});
    config->listenConfigIs(ListenConfig());
    EXPECT_EQ(takeCalls(), std::vector<Call>{closeCall(x)});
}

TEST_F(ListenSmTest, NotificationOffLeavesBothPublishers) {
    start();
    config->listenConfigIs(x);
    Lumo::Ptr<Q7ListenStatus const> const watched = sm->q7ListenStatus();
    take();

    sm->hasNotificationActiveIs(false);
    EXPECT_EQ(config->publisher().subscribers(), 0u);
    EXPECT_EQ(watched->publisher().subscribers(), 0u);
    config->listenConfigIs(y);
    ASSERT_TRUE(service().listeningIs(kHost, x.port(), false, "down"));
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_TRUE(takeTraces().empty());

    sm->hasNotificationActiveIs(true);
    EXPECT_EQ(config->publisher().subscribers(), 1u);
    EXPECT_EQ(watched->publisher().subscribers(), 1u);
    config->listenConfigIs(ListenConfig());
    EXPECT_EQ(takeCalls(), std::vector<Call>{closeCall(x)});
}

TEST_F(ListenSmTest, MissingArgumentIsRefusedAndNothingHappens) {
    config->listenConfigIs(x);
    try {
        ListenSm::ListenSmIs(config, nullptr);
        FAIL() << "made without a listen status";
    } catch (Wex::NullArgumentException const& e) {
        EXPECT_EQ(e.attribute(), "listenStatus");
    }
    try {
        listenSmFactory(nullptr, status);
        FAIL() << "made without a configuration";
    } catch (Wex::NullArgumentException const& e) {
        EXPECT_EQ(e.attribute(), "listenConfig");
    }
    EXPECT_TRUE(takeCalls().empty());
    EXPECT_EQ(config->publisher().subscribers(), 0u);
}

TEST_F(ListenSmTest, ReflectionReadsWritesAndCalls) {
    start();
    Wex::WexType const* type = Wex::typeNode("Kel::Q7Sync::ListenSm");
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(sm->fwkType(), type);
    std::vector<std::string> names;
    for (Wex::WexAttr const& a : type->attrs()) names.emplace_back(a.name());
    EXPECT_EQ(names, (std::vector<std::string>{"listenConfig", "listenStatus", "listen", "close", "handleListenConfig",
                                               "q7ListenStatus", "handleListenStatus"}));
    EXPECT_TRUE(type->attr("listenConfig")->readOnly());
    EXPECT_TRUE(type->attr("listenStatus")->readOnly());
    EXPECT_FALSE(type->attr("q7ListenStatus")->readOnly());

    Wex::GenericIf const gi = type->genericIf(Lumo::Ptr<Wex::PtrInterface>(sm));
    EXPECT_EQ(type->attr("listenStatus")->genericIfGet(gi).object(), status.ptr());
    EXPECT_THROW(type->attr("listenStatus")->genericIfSet(gi, Wex::Args{{"listenStatus", Wex::Value::of(status)}}),
                 Wex::AttributeAccessException);

    type->attr("listen")->genericIfCall(gi, Wex::Args{{"listenConfig", Wex::Value::of(x)}});
    EXPECT_EQ(takeCalls(), std::vector<Call>{listenCall(x)});
    expectRecord(x);

    // Writing null stops watching; the record is left as it is.
    Lumo::Ptr<Q7ListenStatus const> const watched = sm->q7ListenStatus();
    type->attr("q7ListenStatus")->genericIfSet(gi, Wex::Args{});
    EXPECT_EQ(sm->q7ListenStatus(), nullptr);
    EXPECT_EQ(watched->publisher().subscribers(), 0u);
    takeTraces();
    type->attr("handleListenStatus")->genericIfCall(gi, Wex::Args{});
    EXPECT_TRUE(takeTraces().empty());
    type->attr("q7ListenStatus")->genericIfSet(gi, Wex::Args{{"q7ListenStatus", Wex::Value::of(watched)}});
    EXPECT_EQ(takeTraces(), std::vector<std::string>{statusTrace(true, "")});

    type->attr("close")->genericIfCall(gi, Wex::Args{{"listenConfig", Wex::Value::of(x)}});
    EXPECT_EQ(takeCalls(), std::vector<Call>{closeCall(x)});
    EXPECT_EQ(record(), nullptr);
}

// EffectiveListenConfig: what its watchers hear.
class EffectiveListenConfigTest : public ::testing::Test, public Wex::AttributeWatcher {
protected:
    void SetUp() override { watchIs(*config, true); }
    void TearDown() override { watchIs(*config, false); }
    void onAttribute(Wex::AttributeId attribute, void const*) override {
        EXPECT_EQ(attribute, EffectiveListenConfig::kListenConfig);
        // Watchers run after the value is in place.
        heard.push_back(config->listenConfig());
    }

    Lumo::Ptr<EffectiveListenConfig> config = effectiveListenConfigFactory();
    std::vector<ListenConfig> heard;  // the value in place at each change
    ListenConfig const x{*Kivu::IpGenAddr::fromString("192.0.2.1"), 7000};
};

TEST_F(EffectiveListenConfigTest, EachChangeIsPublishedOnceAndEqualValuesNotAtAll) {
    EXPECT_FALSE(bool(config->listenConfig()));
    config->listenConfigIs(ListenConfig());
    config->listenConfigIs(x);
    config->listenConfigIs(ListenConfig(x.hostAddr(), x.port()));
    config->listenConfigIs(ListenConfig(x.hostAddr(), 7001));
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_TRUE(ListenConfig::isEq(heard[0], x));
    EXPECT_TRUE(ListenConfig::isEq(heard[1], ListenConfig(x.hostAddr(), 7001)));
}

TEST_F(EffectiveListenConfigTest, ReflectionWriteIsTheSetter) {
    Wex::WexType const* type = config->fwkType();
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->name(), "Kel::Q7Sync::EffectiveListenConfig");
    Wex::GenericIf const gi = type->genericIf(Lumo::Ptr<Wex::PtrInterface>(config));
    type->attr("listenConfig")->genericIfSet(gi, Wex::Args{{"listenConfig", Wex::Value::of(x)}});
    EXPECT_TRUE(ListenConfig::isEq(config->listenConfig(), x));
    type->attr("listenConfig")->genericIfSet(gi, Wex::Args{});
    EXPECT_FALSE(bool(config->listenConfig()));
    EXPECT_EQ(heard.size(), 2u);
}

// ListenStatus: when a record is kept and when it is replaced.
class ListenStatusTest : public ::testing::Test {
protected:
    static Lumo::Ptr<Q7ListenStatus const> serviceStatus() {
        Lumo::Ptr<Q7ListenStatus> s(new Q7ListenStatus(true, Lumo::String()));
        s->hasNotificationActiveIs(true);
        return s;
    }

    Lumo::Ptr<ListenStatus> status = listenStatusFactory();
    Lumo::Ptr<Q7ListenStatus const> const s1 = serviceStatus();
    Lumo::Ptr<Q7ListenStatus const> const s2 = serviceStatus();
    ListenConfig const x{*Kivu::IpGenAddr::fromString("192.0.2.1"), 7000};
    ListenConfig const y{*Kivu::IpGenAddr::fromString("192.0.2.1"), 7001};
};

TEST_F(ListenStatusTest, RecordIsKeptOnlyForTheSameEndpointAndStatusPointer) {
    Lumo::Ptr<ListenConfigStatus> const none = status->listenConfigStatusIs(x, nullptr);
    EXPECT_EQ(status->listenConfigStatusIs(x, nullptr), none);
    EXPECT_TRUE(none->notificationActive());

    Lumo::Ptr<ListenConfigStatus> const withS1 = status->listenConfigStatusIs(x, s1);
    EXPECT_NE(withS1, none);
    EXPECT_EQ(status->listenConfigStatusIs(ListenConfig(x.hostAddr(), x.port()), s1), withS1);
    // Another status with the same contents is another status.
    EXPECT_NE(status->listenConfigStatusIs(x, s2), withS1);
    Lumo::Ptr<ListenConfigStatus> const other = status->listenConfigStatusIs(y, s2);
    EXPECT_TRUE(ListenConfig::isEq(other->listenConfig(), y));
    EXPECT_EQ(other->q7ListenStatus(), s2);
    EXPECT_EQ(status->listenConfigStatus(), other);
}

TEST_F(ListenStatusTest, RecordCanBeReplacedByItsOwnFields) {
    status->listenConfigStatusIs(x, s1);
    // The arguments live in the record being replaced.
    Lumo::Ptr<ListenConfigStatus> const next =
        status->listenConfigStatusIs(status->listenConfigStatus()->listenConfig(), s2);
    EXPECT_TRUE(ListenConfig::isEq(next->listenConfig(), x));
}

TEST_F(ListenStatusTest, DelReturnsTheRecordOnce) {
    Lumo::Ptr<ListenConfigStatus> const held = status->listenConfigStatusIs(x, s1);
    EXPECT_EQ(status->listenConfigStatusDel(), held);
    EXPECT_EQ(status->listenConfigStatus(), nullptr);
    EXPECT_EQ(status->listenConfigStatusDel(), nullptr);
}

TEST_F(ListenStatusTest, ReflectionWritesDeletesAndShowsReadOnlyRecords) {
    Wex::WexType const* type = status->fwkType();
    ASSERT_NE(type, nullptr);
    Wex::GenericIf const gi = type->genericIf(Lumo::Ptr<Wex::PtrInterface>(status));
    Wex::WexAttr const& attr = type->attrOrThrow("listenConfigStatus");

    Lumo::Ptr<ListenStatus> const elsewhere = ListenStatus::ListenStatusIs();
    Lumo::Ptr<ListenConfigStatus> const source = elsewhere->listenConfigStatusIs(y, s1);
    attr.genericIfSet(gi, Wex::Args{{"listenConfigStatus", Wex::Value::of(source)}});
    ASSERT_NE(status->listenConfigStatus(), nullptr);
    EXPECT_TRUE(ListenConfig::isEq(status->listenConfigStatus()->listenConfig(), y));
    EXPECT_EQ(status->listenConfigStatus()->q7ListenStatus(), s1);
    EXPECT_EQ(attr.genericIfGet(gi).object(), status->listenConfigStatus().ptr());
    attr.genericIfSet(gi, Wex::Args{});
    EXPECT_EQ(status->listenConfigStatus(), nullptr);

    Wex::WexType const* recordType = Wex::typeNode("Kel::Q7Sync::ListenConfigStatus");
    ASSERT_NE(recordType, nullptr);
    ASSERT_EQ(recordType->attrs().size(), 2u);
    EXPECT_EQ(recordType->attrs()[0].name(), "listenConfig");
    EXPECT_EQ(recordType->attrs()[1].name(), "q7ListenStatus");
    EXPECT_TRUE(recordType->attrs()[0].readOnly());
    EXPECT_TRUE(recordType->attrs()[1].readOnly());
    EXPECT_EQ(source->fwkType(), recordType);
}

} // namespace
} // namespace Kel::Q7Sync
