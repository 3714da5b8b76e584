// The sync service in one process: an agent's state served on loopback and mirrored into another.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>

#include <fmt/format.h>

#include "Q7Sync/Service.h"
#include "Wex/EventLoop.h"
#include "Wex/Path.h"
#include "host/AgentState.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Q7Serdes::WexUtils::SyncStatus;
using Q7Serdes::WexUtils::SyncStatusEnum;
using namespace std::chrono_literals;

// Each status a subscription takes, as "status (reason)" with the backoff's random wait written "~".
struct Trail : Lumo::Subscriber {
    explicit Trail(Lumo::Ptr<SyncStatus> of) : status(std::move(of)) { status->notifieeList()->subscriberIs(this); }
    ~Trail() { status->notifieeList()->subscriberDel(this); }
    void onPublish(Lumo::Publisher const&, Lumo::Change const& change) override {
        if (change.attribute != SyncStatus::kStatus) return;
        std::string reason = status->reason().str();
        if (auto const in = reason.rfind(" in "); in != std::string::npos && reason.ends_with(" s"))
            reason.replace(in + 4, reason.size() - in - 6, "~");
        seen += fmt::format("{}{} ({})", seen.empty() ? "" : "|", status->status(), reason);
    }
    SyncStatus const* operator->() const { return status.ptr(); }

    Lumo::Ptr<SyncStatus> const status;
    std::string seen;
};

class SyncService : public SyncFixture {
protected:
    ::Q7Sync::Service& service = ::Q7Sync::Service::instance();
    Lumo::Ptr<Q7Agent::AgentState> published = state("/pub/state");
    Lumo::Ptr<Q7Agent::AgentState> mirror = state("/mirror/copy");
    std::uint16_t const port = [this] {
        service.listen("127.0.0.1", 0);
        return service.boundPort("127.0.0.1", 0);
    }();

    ~SyncService() override {
        service.reset();
        published = mirror = nullptr;
        for (auto const* dir : {"pub", "mirror"}) Wex::System::globalDir()->deleteEntity(Lumo::String(dir));
        // What the reset cancelled is told to its handlers.
        Wex::eventLoop().poll();
    }

    static Lumo::Ptr<Q7Agent::AgentState> state(std::string_view path) {
        return Lumo::ptr_cast<Q7Agent::AgentState>(Wex::entityIs(path, Wex::wexTypeOf<Q7Agent::AgentState>()));
    }
    // Sets each published interface, or deletes it when its value is null.
    void put(std::initializer_list<std::pair<char const*, char const*>> interfaces) {
        for (auto const& [key, value] : interfaces) {
            if (value) published->interfacesIs(Lumo::String(key), Lumo::String(value));
            else published->interfacesDel(Lumo::String(key));
        }
    }
    std::string uri(std::string_view path) const { return fmt::format("127.0.0.1:{}{}", port, path); }
    // The trail of a subscription that connected, then went on to `then`.
    std::string connected(std::string const& then) const {
        return fmt::format("connecting (connecting to 127.0.0.1:{})|syncing (connected: the snapshot is arriving)|{}",
                           port, then);
    }
    Trail subscribe(std::string const& remote, std::string_view local = "/mirror/copy/interfaces") {
        return Trail(service.subscribe(Lumo::String(remote), Lumo::String(local), ::Q7Sync::WexUtils::SyncRequestFlags{}));
    }
    static bool reaches(Trail const& s, SyncStatusEnum want) {
        return Wex::runUntil([&] { return s->status() == want; }, 10s);
    }
    static std::map<std::string, std::string> contents(Q7Agent::AgentState const& s) {
        std::map<std::string, std::string> out;
        for (auto const& e : s.interfaces()) out.emplace(e.key.str(), e.value.str());
        return out;
    }
    bool converges() {
        return Wex::runUntil(
            [&] { return mirror->hostname() == published->hostname() && contents(*mirror) == contents(*published); }, 10s);
    }
};

TEST_F(SyncService, MirrorsOfOneAgentShareItsConnectionAndFollowEachChangeUntilThePathGoes) {
    put({{"eth0", "up"}, {"eth1", "down"}});
    published->hostnameIs(Lumo::String("core router"));
    service.publish("/pub/state/interfaces");
    service.publish("/pub/state/hostname");
    Trail const interfaces = subscribe(uri("/pub/state/interfaces"));
    Trail const hostname = subscribe(uri("/pub/state/hostname"), "/mirror/copy/hostname");
    // Nothing is tried inside the call: the loop makes the connection.
    EXPECT_EQ(interfaces->status(), SyncStatusEnum::notConnected);
    EXPECT_EQ(service.peers(), 0u);

    ASSERT_TRUE(reaches(interfaces, SyncStatusEnum::inSync) && reaches(hostname, SyncStatusEnum::inSync));
    EXPECT_EQ(interfaces.seen, connected("inSync (snapshot of 2 entries complete)"));
    EXPECT_EQ(hostname.seen, connected("inSync (snapshot of 1 entry complete)"));
    EXPECT_EQ(contents(*mirror), contents(*published));
    EXPECT_EQ(mirror->hostname(), Lumo::String("core router"));
    EXPECT_EQ(service.peers(), 1u);

    put({{"eth1", "up"}, {"lo", "up"}, {"eth0", nullptr}});
    published->hostnameIs(Lumo::String("edge router"));
    ASSERT_TRUE(converges());

    // The other subscription still streams over the connection.
    service.unsubscribe(Lumo::String(uri("/pub/state/interfaces")));
    EXPECT_EQ(service.peers(), 1u);
    published->hostnameIs(Lumo::String("still here"));
    ASSERT_TRUE(converges());

    service.unpublish("/pub/state/hostname");
    ASSERT_TRUE(reaches(hostname, SyncStatusEnum::failed));
    EXPECT_EQ(hostname.seen, connected(fmt::format("inSync (snapshot of 1 entry complete)|failed (refused by 127.0.0.1:{}: "
                                                   "path '/pub/state/hostname' is no longer published; next ask in ~ s)",
                                                   port)));
    service.unsubscribe(Lumo::String(uri("/pub/state/hostname")));
    EXPECT_EQ(service.peers(), 0u);
}

// A listener whose queue is full: the system drops further connection requests unanswered. The
// attempt is given up once, when the connect timeout fires, and tried again later.
TEST_F(SyncService, AConnectionNeverAnsweredIsGivenUpOnceAtTheTimeout) {
    int const listener = ::socket(AF_INET, SOCK_STREAM, 0), filler = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof at;
    auto* const addr = reinterpret_cast<sockaddr*>(&at);
    ASSERT_EQ(::bind(listener, addr, size) + ::listen(listener, 0) + ::getsockname(listener, addr, &size), 0);
    ASSERT_EQ(::connect(filler, addr, size), 0);
    Trail const status = subscribe(fmt::format("127.0.0.1:{}/pub/state/interfaces", ntohs(at.sin_port)));
    auto const givenUp = [&] { return status->reason().view().starts_with("no answer within 5 s; next try in "); };
    EXPECT_TRUE(Wex::runUntil(givenUp, 6s)) << status->reason();
    Wex::runUntil([] { return false; }, 200ms);  // what the abandoned attempt may still report
    EXPECT_TRUE(givenUp()) << status->reason();
    ::close(filler);
    ::close(listener);
}

TEST_F(SyncService, WhatFailedIsAskedForAgainAndMirroredOnceItCanBe) {
    put({{"eth0", "up"}});
    Trail const status = subscribe(uri("/pub/state/interfaces"), "/mirror/later/interfaces");
    ASSERT_TRUE(reaches(status, SyncStatusEnum::failed));
    // Published, but with nowhere to write: the publisher is told to stop while it fails.
    service.publish("/pub/state/interfaces");
    std::string const notApplied = fmt::format("data from 127.0.0.1:{} not applied: nothing to write at {}; ", port,
                                               "/mirror/later/interfaces");
    ASSERT_TRUE(Wex::runUntil([&] { return status->reason().view().starts_with(notApplied); }, 10s)) << status->reason();
    auto const later = state("/mirror/later");
    ASSERT_TRUE(reaches(status, SyncStatusEnum::inSync)) << status->reason();
    EXPECT_EQ(contents(*later), contents(*published));
    EXPECT_EQ(status.seen, connected(fmt::format("failed (refused by 127.0.0.1:{}: path '/pub/state/interfaces' is not "
                                                 "published; next ask in ~ s)|inSync (snapshot of 1 entry complete)",
                                                 port)));
}

} // namespace
} // namespace Kel::Q7Sync::Test
