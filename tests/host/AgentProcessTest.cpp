// Agents as separate processes on loopback, checked as a person would check them: the mirror,
// a publisher killed and restarted, a refused path, and the connections that `ss` shows.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "support/AgentProcess.h"

namespace {

using Kel::Q7Sync::Test::AgentProcess;
using namespace std::chrono_literals;

// A port nobody listens on right now, on 127.0.0.1.
std::uint16_t freePort() {
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

// Connections established to `port`, counted from the connecting side, as `ss` lists them.
int connectionsTo(std::uint16_t port) {
    std::string const command = fmt::format("ss -tnH state established '( dport = :{} )'", port);
    FILE* ss = ::popen(command.c_str(), "r");
    if (!ss) return -1;
    int lines = 0;
    for (int c; (c = std::fgetc(ss)) != EOF;) lines += c == '\n';
    ::pclose(ss);
    return lines;
}

bool connectionsBecome(std::uint16_t port, int want) {
    for (int i = 0; i < 100; ++i) {
        if (connectionsTo(port) == want) return true;
        std::this_thread::sleep_for(50ms);
    }
    return false;
}

class Agents : public ::testing::Test {
protected:
    std::uint16_t const port = freePort();
    std::string const remote = fmt::format("127.0.0.1:{}", port);
    std::string const mirror = fmt::format("/q7/remote/{}/ifaces/syncAttribute", remote);
    AgentProcess publisher{Q7_AGENT_PROGRAM};
    AgentProcess subscriber{Q7_AGENT_PROGRAM};

    void publish(std::initializer_list<std::pair<char const*, char const*>> entries) {
        publisher.run(fmt::format("listen 127.0.0.1 {}", port));
        publisher.run("publish /sys/state/interfaces");
        for (auto const& [key, value] : entries) publisher.run(fmt::format("set /sys/state/interfaces {} {}", key, value));
    }
    std::string waitFor(std::string const& status, std::string const& path = "/sys/state/interfaces") {
        return subscriber.run(fmt::format("wait status {}{} {}", remote, path, status));
    }
};

TEST_F(Agents, TheSubscriberMirrorsThePublisherAndItsHandlerHearsEachChange) {
    publish({{"eth0", "up"}, {"eth1", "down"}});
    subscriber.run("handler add ifaces");
    subscriber.run(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces ifaces", port));
    EXPECT_NE(waitFor("inSync").find("inSync"), std::string::npos) << subscriber.seen();
    std::string const got = subscriber.run("get " + mirror);
    EXPECT_NE(got.find("'eth0' = 'up'"), std::string::npos) << got;
    EXPECT_NE(got.find("'eth1' = 'down'"), std::string::npos) << got;

    publisher.run("set /sys/state/interfaces eth1 up");
    publisher.run("delete /sys/state/interfaces eth0");
    EXPECT_TRUE(subscriber.expect("'eth1' = 'up'")) << subscriber.seen();
    EXPECT_TRUE(subscriber.expect("'eth0' deleted")) << subscriber.seen();
}

TEST_F(Agents, AfterAKilledPublisherRestartsTheMirrorConvergesOnItsNewState) {
    publish({{"eth0", "up"}, {"eth1", "up"}});
    subscriber.run(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces ifaces", port));
    waitFor("inSync");

    publisher.kill(SIGKILL);
    std::string const lost = waitFor("connecting");
    EXPECT_NE(lost.find("next try in"), std::string::npos) << lost;

    // The new publisher has lost eth0 and gained lo.
    publisher.start();
    publish({{"eth1", "down"}, {"lo", "up"}});
    std::string const back = waitFor("inSync");
    EXPECT_NE(back.find("inSync"), std::string::npos) << subscriber.seen();
    std::string const got = subscriber.run("get " + mirror);
    EXPECT_EQ(got.find("eth0"), std::string::npos) << got;
    EXPECT_NE(got.find("'eth1' = 'down'"), std::string::npos) << got;
    EXPECT_NE(got.find("'lo' = 'up'"), std::string::npos) << got;
}

TEST_F(Agents, APathThatIsNotPublishedFailsWithTheReason) {
    publish({});
    subscriber.run(fmt::format("subscribe 127.0.0.1 {} /sys/state/routes routes", port));
    std::string const failed = waitFor("failed", "/sys/state/routes");
    EXPECT_NE(failed.find("is not published"), std::string::npos) << subscriber.seen();
}

TEST_F(Agents, OneConnectionPerRemoteAgentReleasedWithItsLastSubscription) {
    publish({{"eth0", "up"}});
    publisher.run("publish /sys/state/routes");
    subscriber.run(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces ifaces", port));
    subscriber.run(fmt::format("subscribe 127.0.0.1 {} /sys/state/routes routes", port));
    waitFor("inSync");
    waitFor("inSync", "/sys/state/routes");
    EXPECT_EQ(connectionsTo(port), 1);
    subscriber.run("release 1");
    EXPECT_EQ(connectionsTo(port), 1);
    subscriber.run("release 2");
    EXPECT_TRUE(connectionsBecome(port, 0)) << connectionsTo(port) << " connection(s) left";
}

} // namespace
