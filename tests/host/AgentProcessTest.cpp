// The q7agent program as a process: its command line, exit status and example script.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Q7Sync/Service.h"
#include "support/AgentProcess.h"
#include "support/Authority.h"

namespace Kel::Q7Sync::Test {
namespace {

TEST(AgentProgram, ExitsWithAStatusThatSaysWhatWentWrong) {
    struct Case {
        std::vector<std::string> arguments;
        std::string input;
        int status;
        std::string output;
    };
    std::string const failed = "> release 5\nerror: id: no request 5; usage: release ID\n";
    // The credential options: the service's own words for a file it cannot use.
    Authority const authority;
    std::string const missing = authority.dir() + "/missing.pem";
    std::string refusal = "accepted";
    try {
        ::Q7Sync::Service::instance().credentialsIs({missing, authority.agentKey(), authority.ca()});
    } catch (std::runtime_error const& e) {
        refusal = e.what();
    }
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
                               "statuses\n", 2, "q7agent: " + refusal + "\n"}}) {
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
