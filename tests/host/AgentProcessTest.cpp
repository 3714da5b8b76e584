// The q7agent program as processes: a publisher killed and restarted, `ss`, and the command line.
#include <gtest/gtest.h>

#include <signal.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Q7Sync/Service.h"
#include "support/AgentProcess.h"
#include "support/Authority.h"

namespace Kel::Q7Sync::Test {
namespace {

bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

TEST(Agents, AKilledPublisherRestartedWithOtherStateIsMirroredAgainOverTheOneConnection) {
    AgentProcess publisher, subscriber;
    // The state is in place before the endpoint opens, so that the first snapshot is all of it.
    auto const serve = [&](std::string const& interfaces, std::string const& listen) {
        publisher.send("publish /sys/state/interfaces\npublish /sys/state/routes\n" + interfaces);
        return publisher.run(listen);
    };
    std::string const listening =
        serve("set /sys/state/interfaces eth0 up\nset /sys/state/interfaces eth1 up\n", "listen 127.0.0.1 0");
    auto const port = std::uint16_t(std::stoul(listening.substr(listening.find(" on port ") + 9)));
    auto const reaches = [&](char const* path, char const* status) {
        return subscriber.run(fmt::format("wait status 127.0.0.1:{}/sys/state/{} {}", port, path, status));
    };
    subscriber.send(fmt::format("subscribe 127.0.0.1 {0} /sys/state/interfaces ifaces\n"
                                "subscribe 127.0.0.1 {0} /sys/state/routes routes\n", port));
    ASSERT_TRUE(has(reaches("interfaces", "inSync"), " is inSync") && has(reaches("routes", "inSync"), " is inSync"))
        << subscriber.output();
    EXPECT_EQ(connectionsTo(port), 1);

    publisher.finish(SIGKILL);
    EXPECT_TRUE(has(reaches("interfaces", "connecting"), "; next try in ")) << subscriber.output();
    // The new publisher has lost eth0 and gained lo.
    publisher.start();
    std::string const back = serve("set /sys/state/interfaces eth1 down\nset /sys/state/interfaces lo up\n",
                                   fmt::format("listen 127.0.0.1 {}", port));
    EXPECT_TRUE(has(reaches("interfaces", "inSync"), "complete, 1 stale deleted")) << back << subscriber.output();
    ASSERT_TRUE(has(reaches("routes", "inSync"), " is inSync")) << subscriber.output();
    EXPECT_EQ(connectionsTo(port), 1);

    // The connection goes with the subscriptions: the subscriber closes it before it says so.
    subscriber.run("release 1");
    subscriber.run("release 2");
    EXPECT_EQ(connectionsTo(port), 0);
}

TEST(AgentProgram, ExitsWithAStatusThatSaysWhatWentWrong) {
    struct Case {
        std::vector<std::string> arguments;
        std::string input;
        int status;
        std::string output;
    };
    std::string const failed = "> release 5\nerror: id: no request 5; usage: release ID\n";
    // The credential options: the service's own words for a file it cannot use, and nothing at all
    // for files it can.
    Authority const authority;
    std::string const missing = authority.dir() + "/missing.pem";
    std::string const refusal = [&] {
        try {
            ::Q7Sync::Service::instance().credentialsIs({missing, authority.agentKey(), authority.ca()});
        } catch (std::runtime_error const& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    }();
    std::vector<std::string> secured = authority.agentArguments();
    secured.push_back("/dev/null");
    std::string const together = "q7agent: --tls-cert, --tls-key and --tls-ca go together: ";
    // A pipe is read through the loop to its end or its quit, a last line without its newline included.
    for (Case const& c : {Case{{"--strict", "/dev/null"}, "", 0, ""},
                          Case{{"--strict"}, "release 5\nstatuses", 1,
                               failed + "> statuses\n  (0 subscriptions)\nq7agent: 1 command(s) failed\n"},
                          Case{{}, "release 5\nquit\nstatuses\n", 0, failed + "> quit\nq7agent: 1 command(s) failed\n"},
                          Case{{"--trace", "KelQ7SyncSubscribeSm:12", "/dev/null"}, "", 2,
                               "q7agent: --trace takes HANDLE:LEVEL with LEVEL 0 to 9, not 'KelQ7SyncSubscribeSm:12'\n"},
                          Case{{"--tls-cert", "agent.pem", "/dev/null"}, "", 2, together + "--tls-key, --tls-ca missing\n"},
                          Case{{"--tls-key", "agent.key", "--tls-ca", "ca.pem"}, "", 2, together + "--tls-cert missing\n"},
                          Case{{"--tls-cert", missing, "--tls-key", authority.agentKey(), "--tls-ca", authority.ca()},
                               "statuses\n", 2, "q7agent: " + refusal + "\n"},
                          Case{secured, "", 0, ""}}) {
        SCOPED_TRACE(fmt::format("q7agent {}", fmt::join(c.arguments, " ")));
        AgentProcess agent(c.arguments);
        agent.send(c.input);
        EXPECT_EQ(agent.finish(), c.status);
        EXPECT_EQ(agent.output(), c.output);
    }
}

// The example script runs the module's whole mission with the agent as its own peer: under
// --strict a wait that times out or a command that fails ends it with status 1.
TEST(AgentProgram, TheExampleScriptRunsItsWholeMission) {
    AgentProcess agent({"--strict", Q7_SOURCE_DIR "/host/example.q7"});
    ASSERT_EQ(agent.finish(), 0) << agent.output();
    // The last dump, after every release, shows no endpoint and no request.
    std::string const last = agent.output().substr(agent.output().rfind("> show dumpStateQ7SyncModule"));
    EXPECT_TRUE(has(last, "listenConfigStatus: null\n") && has(last, "requestSetForRemoteUri: 0\n") &&
                last.ends_with("> quit\n"))
        << last;
}

} // namespace
} // namespace Kel::Q7Sync::Test
