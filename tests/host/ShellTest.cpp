// The agent host's commands in this process: what each prints, and malformed lines that change nothing.
#include "Shell.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include <fmt/format.h>

#include "KelLib/Q7SyncModule.h"
#include "Q7Sync/Service.h"
#include "support/SyncTestSupport.h"
#include "support/TempFile.h"

namespace Kel::Q7Sync::Test {
namespace {

// The shared module is built before the first test counts live objects; each test's host and /sys go with it.
class HostTest : public SyncFixture {
protected:
    static void SetUpTestSuite() { Module::get(); }
    ~HostTest() override { Wex::System::globalDir()->deleteEntity("sys"); }

    std::string run(std::string const& line) {
        shell.execute(line);
        return out.fresh();
    }
    // Runs the lines of `transcript` that start with "> ", the loop not served between them: what
    // comes back, each line shown before its output, is the transcript when each printed what it says.
    std::string replay(std::string const& transcript) {
        std::string text;
        std::istringstream in(transcript);
        for (std::string line; std::getline(in, line);)
            if (line.starts_with("> ")) text += fmt::format("{}\n{}", line, run(line.substr(2)));
        return text;
    }

    TempFile out;
    Q7Agent::Shell shell{out.file()};
};

// This agent subscribes its own path on loopback: the container mirrors each change, the handler prints it.
TEST_F(HostTest, ASubscriptionOfThisAgentsOwnPathMirrorsItThroughTheLoop) {
    std::string const listening = run("listen 127.0.0.1 0");
    std::uint16_t const port = service().boundPort("127.0.0.1", 0);
    ASSERT_EQ(listening, fmt::format("  listening: true on port {}\n", port));
    // Only the waits serve the loop, so that what each line prints is fixed.
    std::string const transcript = fmt::format(R"(> publish /sys/state/interfaces
  published /sys/state/interfaces
> set /sys/state/interfaces eth0 'up and running'
  set /sys/state/interfaces 'eth0' = 'up and running'
> handler add ifaces
  handler 'ifaces' registered
> subscribe 127.0.0.1 {0} /sys/state/interfaces ifaces
  handler 'ifaces': container ifaces of Q7Agent::StateContainer at /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute
  request 1 for 127.0.0.1:{0}/sys/state/interfaces -> /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute
> wait status 127.0.0.1:{0}/sys/state/interfaces inSync
  handler 'ifaces': 127.0.0.1:{0}/sys/state/interfaces 'eth0' = 'up and running'
  wait: 127.0.0.1:{0}/sys/state/interfaces is inSync (snapshot of 1 entry complete)
> set /sys/state/interfaces eth1 down
  set /sys/state/interfaces 'eth1' = 'down'
> wait entry /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute eth1 down
  handler 'ifaces': 127.0.0.1:{0}/sys/state/interfaces 'eth1' = 'down'
  wait: /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute has 'eth1' = 'down'
> delete /sys/state/interfaces "'eth0'"
  deleted /sys/state/interfaces 'eth0'
> wait absent /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute eth0
  handler 'ifaces': 127.0.0.1:{0}/sys/state/interfaces 'eth0' deleted
  wait: /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute has no 'eth0'
> get /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute
    'eth1' = 'down'
  (1 entry)
> wait entry /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute eth1 up --timeout 0.1
  wait: timed out after 0.1 s: /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute has 'eth1' = 'down'
> statuses
  127.0.0.1:{0}/sys/state/interfaces inSync (snapshot of 1 entry complete)
  (1 subscription)
> handler del ifaces
  handler 'ifaces' removed
  handler 'ifaces': container withdrawn from /q7/remote/127.0.0.1:{0}/ifaces/syncAttribute
> release 1
  released request 1
> unpublish /sys/state/interfaces
  unpublished /sys/state/interfaces
> listen off
  no endpoint open
)",
                                               port);
    EXPECT_EQ(replay(transcript), transcript);
    EXPECT_EQ(shell.failures(), 1);
}

// Each bad line prints "error: ...; usage: <its usage>" and leaves module, host, service and state as they were.
TEST_F(HostTest, AMalformedLineIsOneErrorWithItsUsageAndChangesNothing) {
    // A conflicting pair held back, a subscription of another type and flags, published state; no loop.
    replay(R"(> listen 127.0.0.1 0
> subscribe 127.0.0.1 6042 /sys/state/routes routes
> subscribe 127.0.0.1 6042 /sys/state/routes routes-reliable --flags RELIABLE
> subscribe ::1 6042 sys/state/interfaces ifaces --type Kel::Q7Sync::SyncContainer --flags RELIABLE
> handler add ifaces
> publish /sys/state/hostname
> set /sys/state/hostname "'agent-a'")");
    auto const state = [&] {
        return replay("> show dumpStateQ7SyncModule\n> statuses\n> get /sys/state/hostname") +
               fmt::format("{} requests, {} at the top", shell.host().requests(), Wex::System::globalDir()->entities());
    };
    std::string const before = state();
    EXPECT_NE(before.find("'syncContainerKey': 'ifaces', 'flags': RELIABLE"), std::string::npos) << before;
    ASSERT_TRUE(before.ends_with("> get /sys/state/hostname\n    'agent-a'\n  (a plain attribute)\n3 requests, 2 at the top"))
        << before;
    constexpr char kSubscribe[] = "subscribe ADDRESS PORT PATH KEY [--type TYPE] [--flags FLAGS]";
    struct Bad {
        char const* line;
        char const* usage;
    } const bad[] = {
        {"frobnicate", "help"},
        {"listen 127.0.0.256 6042", "listen ADDRESS PORT | listen off"},
        {"subscribe 127.0.0.1 6042 /sys/state/x x --flags RELIABLE|", kSubscribe},
        {"subscribe 127.0.0.1 70000 /sys/state/x x --type Wex::Dir", kSubscribe},
        {"writesync 127.0.0.1 6042 x --flags RELIABLE", "writesync ADDRESS PORT KEY [--type TYPE] [--flags FLAGS]"},
        {"publish /other/state/interfaces --type No::Such", "publish PATH [--type TYPE]"},
        {"set /sys/state/hostname agent b", "set PATH KEY VALUE | set PATH VALUE"},
        {"wait seconds 0", "wait status URI STATUS [REASON] | entry PATH KEY [VALUE] | absent PATH KEY [--timeout S] | seconds S"},
        {"trace KelQ7SyncSubscribeSm 10", "trace HANDLE LEVEL... [--off]"},
    };
    for (Bad const& b : bad) {
        SCOPED_TRACE(b.line);
        service().callsDelAll();
        std::string const printed = run(b.line);
        EXPECT_TRUE(printed.starts_with("error: ") && printed.find('\n') == printed.size() - 1) << printed;
        EXPECT_TRUE(printed.ends_with(std::string("; usage: ") + b.usage + "\n")) << printed;
        EXPECT_TRUE(calls().empty());
        EXPECT_EQ(state(), before);
    }
    EXPECT_EQ(shell.failures(), int(std::size(bad)));
    run("listen off");
}

} // namespace
} // namespace Kel::Q7Sync::Test
