// Agents as processes under faults: a publisher that hangs, a peer that stops reading.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <regex>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Q7Serdes/Framing.h"
#include "support/AgentProcess.h"

namespace Kel::Q7Sync::Test {
namespace {

bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

// Publishes the interfaces, runs `setup`, then listens on loopback: the port the system chose.
std::uint16_t serve(AgentProcess& publisher, std::string const& setup) {
    publisher.send("publish /sys/state/interfaces\n" + setup);
    std::string const listening = publisher.run("listen 127.0.0.1 0");
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
            using std::chrono::milliseconds;
            auto const left = std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd p{fd_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, int(left.count())) <= 0) return false;
            ssize_t const n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) return false;
            reader_.append(chunk, std::size_t(n));
        }
    }

private:
    int fd_;
    std::string name_;
    Q7Serdes::FrameReader reader_;
};

// A publisher that hangs is dropped for its silence; back, it is resumed from the subscriber's
// point rather than sent the whole state again.
TEST(PeerFaults, AHungPublisherIsDroppedForItsSilenceAndResumedFromWhenItRunsAgain) {
    AgentProcess publisher, subscriber;
    std::uint16_t const port =
        serve(publisher, "set /sys/state/interfaces eth0 up\nset /sys/state/interfaces eth1 up\n");
    std::string const uri = interfacesAt(port), mirror = mirrorOf(port, "ifaces");
    subscriber.send(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces ifaces\n", port));
    ASSERT_TRUE(has(subscriber.run(fmt::format("wait status {} inSync", uri)), "(snapshot of 2 entries complete)"))
        << subscriber.output();

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
        std::mutex mutex;
        std::condition_variable_any wake;
        std::unique_lock lock(mutex);
        while (!stop.stop_requested()) {
            raw.send(encoded(beat));
            wake.wait_for(lock, stop, 1s, [] { return false; });
        }
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

} // namespace
} // namespace Kel::Q7Sync::Test
