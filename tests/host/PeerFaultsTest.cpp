// Agents as processes under faults: a publisher that hangs, a peer that stops reading, bytes
// that no agent would send, write-sync, and peers without the authority's certificate.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <random>
#include <regex>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Q7Serdes/Framing.h"
#include "support/AgentProcess.h"
#include "support/Authority.h"

namespace Kel::Q7Sync::Test {
namespace {

// Publishes the interfaces, runs `setup`, then listens on loopback at `port`: the port bound,
// the one the system chose for 0.
std::uint16_t serve(AgentProcess& publisher, std::string const& setup, std::uint16_t port = 0) {
    publisher.send("publish /sys/state/interfaces\n" + setup);
    std::string const listening = publisher.run(fmt::format("listen 127.0.0.1 {}", port));
    return std::uint16_t(std::stoul(listening.substr(listening.find(" on port ") + 9)));
}

// Whether every wait in what an agent printed held: none timed out, none was refused.
bool held(std::string const& printed) {
    return has(printed, "  wait: ") && !has(printed, "timed out") && !has(printed, "error: ");
}

std::string interfacesAt(std::uint16_t port) { return fmt::format("127.0.0.1:{}/sys/state/interfaces", port); }
std::string mirrorOf(std::uint16_t port, char const* key) {
    return fmt::format("/q7/remote/127.0.0.1:{}/{}/syncAttribute", port, key);
}

// Runs `command` until what it prints has `part`, serving the agent's loop a little between
// tries, for at most 8 s: what it printed last.
std::string until(AgentProcess& agent, std::string const& command, std::string const& part) {
    auto const deadline = std::chrono::steady_clock::now() + 8s;
    std::string printed = agent.run(command);
    while (!has(printed, part) && std::chrono::steady_clock::now() < deadline)
        printed = agent.run("wait seconds 0.1\n" + command);
    return printed;
}

std::string encoded(q7serdes::Frame const& frame) {
    std::string bytes;
    Q7Serdes::frameAppend(frame, bytes);
    return bytes;
}

// A peer made of a bare socket in this process, for what an agent would not send, or would not
// fail to read.
class RawPeer {
public:
    // `receiveBuffer` > 0 keeps the kernel from taking much off the publisher's hands.
    explicit RawPeer(std::uint16_t port, int receiveBuffer = 0)
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receiveBuffer) ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in at{};
        at.sin_family = AF_INET;
        at.sin_port = htons(port);
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0) ADD_FAILURE() << "no connection";
        socklen_t size = sizeof at;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&at), &size);
        name_ = fmt::format("127.0.0.1:{}", ntohs(at.sin_port));
    }
    ~RawPeer() { ::close(fd_); }
    RawPeer(RawPeer const&) = delete;
    RawPeer& operator=(RawPeer const&) = delete;

    // As the publisher's dump names this connection.
    std::string const& name() const noexcept { return name_; }
    void send(std::string const& bytes) const {
        for (std::size_t sent = 0; sent < bytes.size();) {
            ssize_t const n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) return;  // closed by the publisher: what it said is read next
            sent += std::size_t(n);
        }
    }
    // Hands each frame received to `enough` until it says so (true), or false when the publisher
    // closes or `within` passes first.
    bool receive(std::function<bool(q7serdes::Frame const&)> const& enough, std::chrono::seconds within = 5s) {
        auto const deadline = std::chrono::steady_clock::now() + within;
        q7serdes::Frame frame;
        for (char chunk[65536];;) {
            while (reader_.next(frame) == Q7Serdes::FrameReader::Result::frame)
                if (enough(frame)) return true;
            auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd p{fd_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, int(left.count())) <= 0) return false;
            ssize_t const n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) return false;
            reader_.append(chunk, std::size_t(n));
        }
    }
    // The reason of the Closing frame received before the publisher closed, or "(none)".
    std::string closingReason() {
        std::string reason = "(none)";
        receive([&](q7serdes::Frame const& frame) {
            if (frame.has_closing()) reason = frame.closing().reason();
            return false;
        });
        return reason;
    }

private:
    int fd_;
    std::string name_;
    Q7Serdes::FrameReader reader_;
};

// A publisher that hangs is dropped for its silence; back, it is resumed from the subscriber's
// point rather than sent the whole state again. Killed and restarted with other state, it is sent
// the whole state, and what went meanwhile is deleted. All along, two paths share one connection.
TEST(PeerFaults, AHungPublisherIsResumedFromAndARestartedOneIsMirroredAfresh) {
    AgentProcess publisher, subscriber;
    std::string const routes = "publish /sys/state/routes\nset /sys/state/routes default eth0\n";
    std::uint16_t const port =
        serve(publisher, routes + "set /sys/state/interfaces eth0 up\nset /sys/state/interfaces eth1 up\n");
    std::string const uri = interfacesAt(port), mirror = mirrorOf(port, "ifaces");
    subscriber.send(fmt::format("subscribe 127.0.0.1 {0} /sys/state/interfaces ifaces\n"
                                "subscribe 127.0.0.1 {0} /sys/state/routes routes\n", port));
    ASSERT_TRUE(has(subscriber.run(fmt::format("wait status {} inSync", uri)), "(snapshot of 2 entries complete)"))
        << subscriber.output();
    EXPECT_EQ(connectionsTo(port), 1);

    publisher.signal(SIGSTOP);
    // Read by the publisher as soon as it runs again: gone before the subscriber is back.
    publisher.send("delete /sys/state/interfaces eth1\n");
    std::string const lost = subscriber.run(fmt::format("wait status {} connecting --timeout 5", uri));
    publisher.signal(SIGCONT);
    EXPECT_TRUE(has(lost, "(connection lost: nothing heard from the peer for 3 s; next try in ")) << lost;

    publisher.run("set /sys/state/interfaces eth0 down");
    std::string const back = subscriber.run(
        fmt::format("wait entry {0} eth0 down\nwait absent {0} eth1\nwait status {1} inSync", mirror, uri));
    EXPECT_TRUE(held(back)) << back;
    // Change 3 is the last it held: the publication's state, then eth0 and eth1 set.
    EXPECT_TRUE(has(back, "is inSync (resumed after change 3: ")) << back;

    publisher.finish(SIGKILL);
    EXPECT_TRUE(held(subscriber.run(fmt::format("wait status {} connecting 'next try in '", uri))));
    publisher.start();
    serve(publisher, routes + "set /sys/state/interfaces lo up\n", port);
    std::string const afresh = subscriber.run(fmt::format("wait status {} inSync 'snapshot'\nget {}", uri, mirror));
    EXPECT_TRUE(has(afresh, "complete, 1 stale deleted") && has(afresh, "'lo' = 'up'\n  (1 entry)")) << afresh;
    EXPECT_EQ(connectionsTo(port), 1);
    // The connection goes with the subscriptions: the subscriber closes it before it says so.
    subscriber.run("release 1\nrelease 2");
    EXPECT_EQ(connectionsTo(port), 0);
}

// A peer that stops reading costs the publisher one pending entry per key at most, whatever the
// number of changes; what it reads when it comes back is the state as it stands.
TEST(PeerFaults, APeerThatStopsReadingCostsThePublisherTheStateNotTheChanges) {
    constexpr unsigned kEntries = 1000, kRounds = 100, kSize = 200;
    AgentProcess publisher, subscriber;
    std::uint16_t const port = serve(publisher, "");
    ASSERT_TRUE(has(subscriber.run(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces ifaces\n"
                                               "wait status {} inSync", port, interfacesAt(port))), " is inSync"));
    RawPeer raw(port, 64 << 10);
    q7serdes::Frame subscribe;
    subscribe.mutable_subscribe()->set_stream(1);
    subscribe.mutable_subscribe()->set_path("/sys/state/interfaces");
    raw.send(encoded(subscribe));
    ASSERT_TRUE(raw.receive([](q7serdes::Frame const& frame) { return frame.has_in_sync(); }));
    // It never reads now, but it is heard from: the publisher must keep it, not drop it.
    std::jthread const beating([&raw](std::stop_token stop) {
        q7serdes::Frame beat;
        beat.mutable_heartbeat();
        for (int tick = 0; !stop.stop_requested(); ++tick, std::this_thread::sleep_for(100ms))
            if (tick % 10 == 0) raw.send(encoded(beat));
    });

    subscriber.signal(SIGSTOP);
    publisher.run(fmt::format("churn /sys/state/interfaces {} {} --size {}", kEntries, kRounds, kSize));
    std::string const dump = publisher.run("show dumpStateQ7SyncService");
    std::smatch found;
    std::regex const queued(fmt::format(R"(connection {}: (\d+) bytes queued\n +stream 1 serves )"
                                        R"(/sys/state/interfaces: streaming, (\d+) entries waiting)",
                                        raw.name()));
    ASSERT_TRUE(std::regex_search(dump, found, queued)) << dump;
    // The window is full (entries wait), yet the many MB of changes are held as keys, each once.
    EXPECT_LT(std::stoul(found[1]), 512u << 10) << dump;
    EXPECT_GT(std::stoul(found[2]), 0u) << dump;
    EXPECT_LE(std::stoul(found[2]), kEntries) << dump;

    std::string const last = fmt::format("'r{}.", kRounds - 1);
    std::set<std::string> final;
    std::size_t received = 0;
    EXPECT_TRUE(raw.receive(
        [&](q7serdes::Frame const& frame) {
            for (auto const& entry : frame.change().set()) {
                ++received;
                if (entry.value().starts_with(last)) final.insert(entry.key());
            }
            return final.size() == kEntries;
        },
        10s))
        << final.size() << " of " << kEntries << " entries reached the last round";
    EXPECT_LT(received, kEntries * kRounds / 4) << "changes were sent one by one, not coalesced";

    subscriber.signal(SIGCONT);
    std::string value = fmt::format("r{}", kRounds - 1);
    value.resize(kSize, '.');
    std::string const caughtUp = subscriber.run(fmt::format("wait entry {0} k0 {1}\nwait entry {0} k{2} {1}",
                                                            mirrorOf(port, "ifaces"), value, kEntries - 1));
    EXPECT_TRUE(held(caughtUp)) << caughtUp;
}

// What no subscriber would send closes that connection alone, with the reason told to the sender
// and kept in the dump; a subscriber's stream beside it goes on as it was.
TEST(PeerFaults, HostileBytesCloseOnlyTheirOwnConnectionAndSayWhy) {
    AgentProcess publisher, subscriber;
    std::uint16_t const port = serve(publisher, "set /sys/state/interfaces eth0 up\n");
    std::string const uri = interfacesAt(port);
    ASSERT_TRUE(has(subscriber.run(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces ifaces\n"
                                               "wait status {} inSync", port, uri)), " is inSync"));
    std::mt19937 random(7);
    // As long as the largest frame accepted, so that whatever length the noise announces is reached.
    std::string noise(Q7Serdes::kMaxRequestFrameBytes + 16, '\0');
    for (char& c : noise) c = char(random());
    std::string oversized;  // a length past the limit, as a varint, and the start of a body
    for (std::size_t n = Q7Serdes::kMaxRequestFrameBytes + 1; n; n >>= 7)
        oversized += char((n & 0x7f) | (n > 0x7f ? 0x80 : 0));
    oversized += std::string(100, 'x');
    q7serdes::Frame stored, refused;
    stored.mutable_stored()->set_stream(1);
    refused.mutable_refused()->set_stream(1);
    refused.mutable_refused()->set_reason("no");
    struct Attack {
        char const* what;
        std::string bytes;
        std::string reason;
    };
    std::vector<Attack> const attacks = {
        {"random bytes", noise, "frame does not parse"},
        {"an oversized frame", oversized, fmt::format("exceeds the limit of {}", Q7Serdes::kMaxRequestFrameBytes)},
        {"a Stored", encoded(stored), "a subscriber or writer does not send 'stored'"},
        {"a Refused", encoded(refused), "a subscriber or writer does not send 'refused'"}};
    std::vector<std::string> closes;
    for (Attack const& attack : attacks) {
        SCOPED_TRACE(attack.what);
        RawPeer raw(port);
        raw.send(attack.bytes);
        std::string const reason = raw.closingReason();
        EXPECT_TRUE(has(reason, attack.reason)) << reason;
        closes.push_back(fmt::format("closed {}: {}\n", raw.name(), reason));
        // A change made between attacks reaches the subscriber.
        publisher.send(fmt::format("set /sys/state/interfaces eth0 after-{}\n", closes.size()));
        std::string const seen =
            subscriber.run(fmt::format("wait entry {} eth0 after-{}", mirrorOf(port, "ifaces"), closes.size()));
        EXPECT_TRUE(held(seen)) << seen;
    }
    std::string const dump = publisher.run("show dumpStateQ7SyncService");
    for (auto const& close : closes) EXPECT_TRUE(has(dump, close)) << close << dump;
    // Undisturbed: still the first snapshot's stream, never lost nor resumed.
    EXPECT_TRUE(has(subscriber.run("statuses"), uri + " inSync (snapshot of 1 entry complete)"))
        << subscriber.output();
}

// Write-sync pushes a container into the peer's write-sync directory, sets and deletes alike,
// and nowhere else.
TEST(PeerFaults, WriteSyncArrivesInTheWriteSyncDirectoryAndIsRefusedElsewhere) {
    AgentProcess receiver, writer;
    std::uint16_t const port = serve(receiver, "");
    std::string const local = mirrorOf(port, "peer"), target = "/q7/writeSync/peer/syncAttribute";
    std::string const stored = writer.run(fmt::format(
        "writesync 127.0.0.1 {0} peer\nset {1} eth0 up\nset {1} eth1 down\nwait status 127.0.0.1:{0}{2} inSync", port,
        local, target));
    EXPECT_TRUE(has(stored, fmt::format("inSync (stored by 127.0.0.1:{}; changes follow)", port))) << stored;
    std::string const arrived = receiver.run(fmt::format("wait entry {0} eth0 up\nwait entry {0} eth1 down", target));
    EXPECT_TRUE(held(arrived)) << arrived;
    writer.run(fmt::format("delete {} eth0", local));
    std::string const deleted = receiver.run(fmt::format("wait absent {} eth0\nget {}", target, target));
    EXPECT_TRUE(has(deleted, "has no 'eth0'") && has(deleted, "'eth1' = 'down'\n  (1 entry)")) << deleted;

    std::string const refused = writer.run(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces k --flags WRITE\n"
                                                       "wait status {} failed", port, interfacesAt(port)));
    EXPECT_TRUE(has(refused, fmt::format("failed (refused by 127.0.0.1:{}: write-sync is accepted at "
                                         "/q7/writeSync/<key>/<attribute> only, not at '/sys/state/interfaces'",
                                         port)))
        << refused;
}

// With credentials, an agent serves only peers whose certificate its authority signed; the others
// are told why, and the publisher keeps each refused handshake in its dump.
TEST(PeerFaults, OnlyPeersWithACertificateOfTheAuthorityAreServed) {
    Authority const authority;
    AgentProcess publisher(authority.agentArguments()), trusted(authority.agentArguments()), clear,
        rogue(authority.rogueArguments());
    std::uint16_t const port = serve(publisher, "set /sys/state/interfaces eth0 up\n");
    for (AgentProcess* agent : {&trusted, &clear, &rogue})
        agent->send(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces ifaces\n", port));
    std::string const mirrored = trusted.run(fmt::format("wait entry {} eth0 up", mirrorOf(port, "ifaces")));
    EXPECT_TRUE(held(mirrored)) << mirrored;

    EXPECT_TRUE(held(clear.run(fmt::format("wait status {} connecting 'accepts mutual TLS only: '", interfacesAt(port)))))
        << clear.output();
    EXPECT_TRUE(held(rogue.run(fmt::format("wait status {} connecting 'connection lost: refused at the TLS handshake: '",
                                           interfacesAt(port)))))
        << rogue.output();
    std::string const refusal = ": refused at the TLS handshake: certificate verify failed\n";
    std::string const dump = until(publisher, "show dumpStateQ7SyncService", refusal);
    EXPECT_TRUE(has(dump, refusal) && has(dump, ": refused at the TLS handshake: the peer spoke in the clear\n"))
        << dump;
    EXPECT_TRUE(has(dump, " (TLS): ")) << dump;
}

} // namespace
} // namespace Kel::Q7Sync::Test
