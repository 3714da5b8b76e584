// The agent host: its command interpreter driven end to end by scripts, its handling of
// malformed commands, state mirrored through its own event loop, and the q7agent program run
// on the example script and on a pipe.
#include "Shell.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Command.h"
#include "Input.h"
#include "KelLib/Q7SyncModule.h"
#include "Oru/DumpContext.h"
#include "Q7Sync/Service.h"
#include "Wex/Path.h"
#include "Wex/Trace.h"
#include "host/AgentState.h"
#include "host/StateContainer.h"
#include "support/SyncTestSupport.h"
#include "support/TempFile.h"

namespace Kel::Q7Sync::Test {
namespace {

using Q7Serdes::WexUtils::SyncStatusEnum;

std::vector<std::string> linesOf(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

// The entries of a keyed collection as "key=value ..." (in no particular order).
template <class Entries>
std::string entriesOf(Entries const& entries) {
    std::vector<std::string> out;
    for (auto const& e : entries) out.push_back(fmt::format("{}={}", e.key, e.value));
    std::sort(out.begin(), out.end());
    return fmt::format("{}", fmt::join(out, " "));
}

// The agent state the tests publish at /sys/state, as "interfaces | routes | hostname".
std::string agentStateOf() {
    auto const state = Lumo::ptr_cast<Q7Agent::AgentState>(Wex::attributeAt("/sys/state/hostname").entity);
    if (!state) return "none";
    return fmt::format("{} | {} | {}", entriesOf(state->interfaces()), entriesOf(state->routes()), state->hostname());
}

// Everything of the module a command could change, as its dump shows it, with what the host
// holds, what the sync service has, what the directory tree holds at its top and the agent
// state published.
std::string stateOf(Q7Agent::Shell const& shell) {
    std::FILE* f = std::tmpfile();
    if (!f) throw std::runtime_error("no temporary file");
    {
        Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(fileno(f), nullptr, 0));
        ctx->hasNotificationActiveIs(true);
        Oru::Impl::doObjDumpChildPtrGeneric(Module::get(), Wex::typeNode("Kel::Q7Sync::Module"), ctx, 0);
        ctx->flush();
    }
    std::vector<std::string> top;
    for (auto const& e : Wex::System::globalDir()->entity()) top.push_back(e->name().str());
    std::sort(top.begin(), top.end());
    ::Q7Sync::Service const& service = ::Q7Sync::Service::instance();
    std::string out = fmt::format("requests held: {}\nsubscribed: {}\nendpoints: {}\npublished: {}\ntop: {}\nstate: {}\n",
                                  shell.host().requests(), fmt::join(service.subscribedUris(), " "), service.endpoints(),
                                  fmt::join(service.publishedPaths(), " "), fmt::join(top, " "), agentStateOf());
    std::rewind(f);
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) out.append(chunk, n);
    std::fclose(f);
    return out;
}

// The shared module is built before the first fixture counts live objects. Each test's host
// goes with the test, and takes what it registered with it; the state it published goes too.
class HostTest : public SyncFixture {
protected:
    static void SetUpTestSuite() { Module::get(); }
    ~HostTest() override { Wex::System::globalDir()->deleteEntity("sys"); }

    // Runs one line and returns what it printed.
    std::string run(std::string const& line) {
        shell.execute(line);
        return out.fresh();
    }
    // Runs a script as q7agent does, the loop polled after each line, and returns what it printed.
    std::string script(std::string const& text) {
        std::istringstream in(text);
        Q7Agent::Input(shell).streamRun(in);
        return out.fresh();
    }

    TempFile out;
    Q7Agent::Shell shell{out.file()};
};

TEST_F(HostTest, EveryCommandDoesWhatItSays) {
    Module& m = *Module::get();
    std::string text = run("listen 127.0.0.1 0");
    EXPECT_TRUE(text.starts_with("  listening: true on port ")) << text;
    EXPECT_EQ(m.effectiveListenConfig()->listenConfig(),
              ListenConfig(Kivu::IpGenAddr::fromString("127.0.0.1").value(), 0));
    EXPECT_EQ(service().endpoints(), 1u);

    text = run("subscribe 10.20.0.1 6042 /sys/state/interfaces ifaces");
    EXPECT_EQ(text, "  request 1 for 10.20.0.1:6042/sys/state/interfaces -> "
                    "/q7/remote/10.20.0.1:6042/ifaces/syncAttribute\n");
    text = run("subscribe fd00::14 6042 sys/state/interfaces ifaces --type Kel::Q7Sync::SyncContainer "
               "--flags RELIABLE");
    EXPECT_EQ(text, "  request 2 for fd00::14:6042/sys/state/interfaces -> "
                    "/q7/remote/fd00::14:6042/ifaces/syncAttribute\n");
    EXPECT_EQ(shell.host().requests(), 2u);
    EXPECT_EQ(m.syncContainerStatus()->syncContainer().size(), 2u);
    EXPECT_EQ(service().subscriptions(), 2u);

    text = run("handler add ifaces");
    EXPECT_TRUE(text.starts_with("  handler 'ifaces' registered\n")) << text;
    EXPECT_TRUE(has(text, "  handler 'ifaces': container ifaces of Q7Agent::StateContainer at "
                          "/q7/remote/10.20.0.1:6042/ifaces/syncAttribute\n"))
        << text;
    EXPECT_TRUE(has(text, "  handler 'ifaces': container ifaces of Kel::Q7Sync::SyncContainer at "
                          "/q7/remote/fd00::14:6042/ifaces/syncAttribute\n"))
        << text;

    std::vector<std::string> traced;
    Wex::TraceHandle::sinkIs([&](std::string_view line) { traced.emplace_back(line); });
    // The loop never runs here: the remote agents are told nothing, the statuses change as
    // their reports would change them.
    EXPECT_EQ(run("trace KelQ7SyncSubscribeSm 1"), "  KelQ7SyncSubscribeSm levels 1 on\n");
    service().syncStatusIs("10.20.0.1:6042/sys/state/interfaces", SyncStatusEnum::inSync, "initial-sync-done");
    EXPECT_EQ(run("trace KelQ7SyncSubscribeSm 1 --off"), "  KelQ7SyncSubscribeSm levels 1 off\n");
    service().syncStatusIs("10.20.0.1:6042/sys/state/interfaces", SyncStatusEnum::syncing, "");
    EXPECT_EQ(run("statuses"), "  10.20.0.1:6042/sys/state/interfaces syncing\n"
                               "  fd00::14:6042/sys/state/interfaces notConnected\n  (2 subscriptions)\n");
    Wex::TraceHandle::sinkIs(
        [](std::string_view line) { std::fprintf(stderr, "%.*s\n", int(line.size()), line.data()); });
    EXPECT_EQ(traced, std::vector<std::string>{
                          "KelQ7SyncSubscribeSm[1] Q7SyncStatusSm::handleSyncStatus: Q7SyncStatus for "
                          "10.20.0.1:6042/sys/state/interfaces changed to inSync with reason initial-sync-done"});

    text = run("memtrail 1");
    EXPECT_TRUE(has(text, "changed to syncing")) << text;
    EXPECT_TRUE(has(text, " records)\n")) << text;

    text = run("show dumpStateQ7SyncModule");
    EXPECT_TRUE(text.starts_with("Kel::Q7Sync::Module 0x")) << text;
    EXPECT_TRUE(has(text, "\nsubscribeStatus: ")) << text;
    EXPECT_TRUE(has(text, "status: syncing")) << text;

    service().listeningIs("127.0.0.1", 0, false, "gone");
    EXPECT_FALSE(m.listenStatus()->listenConfigStatus()->q7ListenStatus()->listening());

    EXPECT_EQ(run("release 1"), "  released request 1\n  handler 'ifaces': container withdrawn from "
                                "/q7/remote/10.20.0.1:6042/ifaces/syncAttribute\n");
    EXPECT_EQ(run("handler del ifaces"), "  handler 'ifaces' removed\n  handler 'ifaces': container withdrawn from "
                                         "/q7/remote/fd00::14:6042/ifaces/syncAttribute\n");
    EXPECT_EQ(run("handler del ifaces"), "  no handler for 'ifaces'\n");
    EXPECT_EQ(run("release 2"), "  released request 2\n");
    EXPECT_EQ(run("listen off"), "  no endpoint open\n");
    EXPECT_EQ(shell.host().requests(), 0u);
    EXPECT_EQ(m.remoteDir()->entities(), 0u);
    EXPECT_EQ(service().subscriptions(), 0u);
    EXPECT_EQ(service().endpoints(), 0u);

    text = run("help");
    for (char const* usage : {"listen ADDRESS PORT | listen off", "subscribe ADDRESS PORT PATH KEY", "release ID",
                              "handler add|del KEY", "publish PATH [--type TYPE]", "unpublish PATH",
                              "set PATH KEY VALUE | set PATH VALUE", "delete PATH KEY", "get PATH", "statuses",
                              "wait status URI STATUS", "trace HANDLE LEVEL", "memtrail [LEVEL]", "show COMMAND",
                              "echo TEXT", "help", "quit"})
        EXPECT_TRUE(has(text, "  " + std::string(usage))) << usage;
    // A command file that takes a name already taken is refused; the first command stays.
    EXPECT_THROW(Q7Agent::commandIs("quit", {"quit", "", nullptr}), std::logic_error);
    EXPECT_EQ(Q7Agent::commands().at("quit").help, "leave the host");
    EXPECT_EQ(run("echo  it's \"as written\"  "), "\n== it's \"as written\"\n");
    EXPECT_EQ(run("   # a comment"), "");
    EXPECT_TRUE(shell.execute("   "));
    EXPECT_FALSE(shell.execute("quit"));
}

TEST_F(HostTest, AScriptRunsUntilQuitAndCountsWhatFailed) {
    std::string const text = script(
        "# set-up\n"
        "subscribe 127.0.0.1 6042 /a a\n"
        "\n"
        "echo done\n"
        "release 7\n"
        "release 1\n"
        "quit\n"
        "subscribe 127.0.0.1 6042 /b b\n");
    EXPECT_EQ(shell.failures(), 1);
    EXPECT_EQ(linesOf(text), (std::vector<std::string>{
                                 "> subscribe 127.0.0.1 6042 /a a",
                                 "  request 1 for 127.0.0.1:6042/a -> /q7/remote/127.0.0.1:6042/a/syncAttribute",
                                 "",
                                 "== done",
                                 "> release 7",
                                 "error: id: no request 7; usage: release ID",
                                 "> release 1",
                                 "  released request 1",
                                 "> quit"}));
    EXPECT_EQ(shell.host().requests(), 0u);
}

// Each bad line prints one line "error: ...; usage: <its usage>", and leaves the module, the
// requests the host holds and the sync service exactly as they were.
TEST_F(HostTest, AMalformedCommandPrintsOneErrorWithItsUsageAndChangesNothing) {
    script("listen 127.0.0.1 0\n"
           "subscribe 127.0.0.1 6042 /sys/state/routes routes\n"
           "subscribe 127.0.0.1 6042 /sys/state/routes routes-reliable --flags RELIABLE\n"
           "subscribe 127.0.0.2 6042 /sys/state/interfaces ifaces\n"
           "handler add ifaces\n"
           "publish /sys/state/interfaces\n"
           "set /sys/state/interfaces eth0 up\n"
           "set /sys/state/hostname agent-a\n");
    ASSERT_EQ(shell.host().requests(), 3u);
    ASSERT_EQ(agentStateOf(), "eth0=up |  | agent-a");
    struct Bad {
        char const* line;
        char const* usage;
    };
    constexpr char kSubscribe[] = "subscribe ADDRESS PORT PATH KEY [--type TYPE] [--flags FLAGS]";
    constexpr char kPublish[] = "publish PATH [--type TYPE]", kSet[] = "set PATH KEY VALUE | set PATH VALUE",
                   kDelete[] = "delete PATH KEY", kGet[] = "get PATH";
    constexpr char kWait[] = "wait status URI STATUS | entry PATH KEY [VALUE] | absent PATH KEY [--timeout S] | seconds S";
    Bad const bad[] = {
        {"frobnicate", "help"},
        {"listen", "listen ADDRESS PORT | listen off"},
        {"listen 127.0.0.1", "listen ADDRESS PORT | listen off"},
        {"listen off 6042", "listen ADDRESS PORT | listen off"},
        {"listen 127.0.0.1 6042 7", "listen ADDRESS PORT | listen off"},
        {"listen 127.0.0.256 6042", "listen ADDRESS PORT | listen off"},
        {"listen 127.0.0.1 65536", "listen ADDRESS PORT | listen off"},
        {"listen 127.0.0.1 -1", "listen ADDRESS PORT | listen off"},
        {"listen -h", "listen ADDRESS PORT | listen off"},
        {"subscribe 10.20.0.1 6042 /sys/state/x", kSubscribe},
        {"subscribe 10.20.0.1 6042 /sys/state/x x y", kSubscribe},
        {"subscribe 10.20.0 6042 /sys/state/x x", kSubscribe},
        {"subscribe 10.20.0.1 70000 /sys/state/x x", kSubscribe},
        {"subscribe 10.20.0.1 6042 /sys/state/x x --flags BOGUS", kSubscribe},
        {"subscribe 10.20.0.1 6042 /sys/state/x x --flags RELIABLE|", kSubscribe},
        {"subscribe 10.20.0.1 6042 /sys/state/x x --type No::Such", kSubscribe},
        {"subscribe 10.20.0.1 6042 /sys/state/x x --type Wex::Dir", kSubscribe},
        {"subscribe 10.20.0.1 6042 /sys/state/x x --color red", kSubscribe},
        {"release", "release ID"},
        {"release 2 3", "release ID"},
        {"release 99", "release ID"},
        {"release -1", "release ID"},
        {"release two", "release ID"},
        {"handler add", "handler add|del KEY"},
        {"handler remove ifaces", "handler add|del KEY"},
        {"handler add ifaces routes", "handler add|del KEY"},
        {"publish", kPublish},
        {"publish sys/state/routes", kPublish},
        {"publish /sys/state/bogus", kPublish},
        {"publish /other/state/interfaces --type No::Such", kPublish},
        {"publish /other/state/interfaces --type Wex::Dir", kPublish},
        {"publish /sys/state/interfaces/deeper", kPublish},
        {"unpublish /sys/state/routes", "unpublish PATH"},
        {"set /sys/state/interfaces eth1", kSet},
        {"set /sys/state/hostname agent b", kSet},
        {"set /sys/state/interfaces eth1 up extra", kSet},
        {"set /sys/state/nothing eth1 up", kSet},
        {"set /sys/elsewhere/interfaces eth1 up", kSet},
        {"set /sys/state/interfaces \"'eth1\" up", kSet},
        {"set /q7/remote/127.0.0.2:6042/ifaces/pathSubscribeConfig x", kSet},
        {"set /q7/remote/127.0.0.2:6042/ifaces/setConfig x", kSet},
        {"delete /sys/state/interfaces eth9", kDelete},
        {"delete /sys/state/hostname agent-a", kDelete},
        {"delete /sys/state/interfaces", kDelete},
        {"get", kGet},
        {"get /sys/state", kGet},
        {"get /sys/state/nothing", kGet},
        {"statuses now", "statuses"},
        {"wait", kWait},
        {"wait later 1", kWait},
        {"wait status 127.0.0.2:6042/sys/state/interfaces happy", kWait},
        {"wait status 127.0.0.2:6042/sys/state/interfaces", kWait},
        {"wait entry /sys/state/hostname eth0", kWait},
        {"wait entry sys/state/interfaces eth0", kWait},
        {"wait absent /sys/state/interfaces eth0 up", kWait},
        {"wait absent /sys/state/interfaces eth0 --timeout 0", kWait},
        {"wait seconds 0", kWait},
        {"wait seconds soon", kWait},
        {"wait seconds 1 --timeout 2", kWait},
        {"trace KelQ7SyncSubscribeSm 10", "trace HANDLE LEVEL... [--off]"},
        {"trace KelQ7SyncSubscribeSm", "trace HANDLE LEVEL... [--off]"},
        {"trace KelQ7SyncSubscribeSm one", "trace HANDLE LEVEL... [--off]"},
        {"memtrail 10", "memtrail [LEVEL]"},
        {"show", "show COMMAND"},
        {"show dumpStateEverything", "show COMMAND"},
        {"show dumpStateQ7SyncModule now", "show COMMAND"},
        {"help me", "help"},
        {"quit now", "quit"},
    };
    for (Bad const& b : bad) {
        std::string const before = stateOf(shell);
        service().callsDelAll();
        EXPECT_TRUE(shell.execute(b.line)) << b.line;
        std::vector<std::string> const lines = linesOf(out.fresh());
        ASSERT_EQ(lines.size(), 1u) << b.line;
        EXPECT_TRUE(lines[0].starts_with("error: ")) << b.line << "\n" << lines[0];
        EXPECT_TRUE(lines[0].ends_with(std::string("; usage: ") + b.usage)) << b.line << "\n" << lines[0];
        EXPECT_EQ(stateOf(shell), before) << b.line;
        EXPECT_TRUE(calls().empty()) << b.line;
    }
    EXPECT_EQ(shell.failures(), int(std::size(bad)));
    // The held-back pair and the rest stayed as they were, and still work.
    EXPECT_EQ(Module::get()->syncContainerStatus()->syncContainer().size(), 1u);
    EXPECT_EQ(run("release 2"), "  released request 2\n");
    EXPECT_EQ(Module::get()->syncContainerStatus()->syncContainer().size(), 2u);
    EXPECT_EQ(agentStateOf(), "eth0=up |  | agent-a");
    run("listen off");
}

// Published state written and read by path, keys and values given plainly or in the
// framework's text form.
TEST_F(HostTest, StateIsPublishedWrittenAndReadByPath) {
    struct Step {
        char const* line;
        char const* printed;
    };
    Step const steps[] = {
        {"publish /sys/state/interfaces", "  published /sys/state/interfaces\n"},
        {"publish /sys/state/interfaces", "  published /sys/state/interfaces\n"},
        {"set /sys/state/interfaces eth1 down", "  set /sys/state/interfaces 'eth1' = 'down'\n"},
        {"set /sys/state/interfaces eth0 'up and running'", "  set /sys/state/interfaces 'eth0' = 'up and running'\n"},
        {"set /sys/state/hostname \"'agent-a'\"", "  set /sys/state/hostname = 'agent-a'\n"},
        {"get /sys/state/interfaces", "    'eth0' = 'up and running'\n    'eth1' = 'down'\n  (2 entries)\n"},
        {"get /sys/state/hostname", "    'agent-a'\n  (a plain attribute)\n"},
        {"delete /sys/state/interfaces \"'eth1'\"", "  deleted /sys/state/interfaces 'eth1'\n"},
        {"get /sys/state/routes", "  (0 entries)\n"},
        {"unpublish /sys/state/interfaces", "  unpublished /sys/state/interfaces\n"},
        {"statuses", "  (0 subscriptions)\n"},
    };
    for (Step const& step : steps) EXPECT_EQ(run(step.line), step.printed) << step.line;
    EXPECT_EQ(shell.failures(), 0);
    EXPECT_EQ(agentStateOf(), "eth0=up and running |  | agent-a");
    EXPECT_TRUE(service().publishedPaths().empty());
}

// The whole loop in one process: this agent publishes, listens on loopback and subscribes its
// own path through the module; the container mirrors each change, and the handler prints it.
TEST_F(HostTest, ASubscriptionOfThisAgentsOwnPathMirrorsItThroughTheLoop) {
    script("publish /sys/state/interfaces\n"
           "set /sys/state/interfaces eth0 up\n"
           "listen 127.0.0.1 0\n"
           "handler add ifaces\n");
    std::uint16_t const port = service().boundPort("127.0.0.1", 0);
    ASSERT_NE(port, 0);
    std::string const uri = fmt::format("127.0.0.1:{}/sys/state/interfaces", port);
    std::string const local = fmt::format("/q7/remote/127.0.0.1:{}/ifaces/syncAttribute", port);
    std::string const handled = fmt::format("  handler 'ifaces': {} ", uri);
    run(fmt::format("subscribe 127.0.0.1 {} /sys/state/interfaces ifaces", port));
    EXPECT_EQ(run("wait status " + uri + " inSync"),
              handled + "'eth0' = 'up'\n  wait: " + uri + " is inSync (snapshot of 1 entry complete)\n");
    run("set /sys/state/interfaces eth1 down");
    EXPECT_EQ(run("wait entry " + local + " eth1 down"), handled + "'eth1' = 'down'\n  wait: " + local + " has 'eth1' = 'down'\n");
    run("delete /sys/state/interfaces eth0");
    EXPECT_EQ(run("wait absent " + local + " eth0"), handled + "'eth0' deleted\n  wait: " + local + " has no 'eth0'\n");
    auto const container = Lumo::ptr_cast<Q7Agent::StateContainer>(Wex::attributeAt(local).entity);
    ASSERT_TRUE(container);
    EXPECT_EQ(entriesOf(container->syncAttribute()), "eth1=down");
    EXPECT_EQ(run("statuses"), "  " + uri + " inSync (snapshot of 1 entry complete)\n  (1 subscription)\n");
    // A condition that does not come fails the line, which says what held instead.
    EXPECT_EQ(shell.failures(), 0);
    EXPECT_EQ(run("wait entry " + local + " eth1 up --timeout 0.1"),
              "  wait: timed out after 0.1 s: " + local + " has 'eth1' = 'down'\n");
    EXPECT_EQ(shell.failures(), 1);
    run("listen off");  // the module keeps its endpoint's status until then
}

TEST_F(HostTest, AHostThatGoesTakesItsHandlersAndRequestsWithIt) {
    auto const& registry = Module::get()->syncContainerHandlerRegistry();
    {
        TempFile other;
        Q7Agent::Shell host(other.file());
        host.execute("handler add mine");
        host.execute("subscribe 10.3.3.3 6042 /p mine");
        ASSERT_TRUE(registry->syncContainerHandler("mine"));
        ASSERT_EQ(Module::get()->syncContainerStatus()->syncContainer().size(), 1u);
    }
    EXPECT_FALSE(registry->syncContainerHandler("mine"));
    EXPECT_TRUE(Module::get()->syncContainerStatus()->syncContainer().empty());
    EXPECT_EQ(service().subscriptions(), 0u);
    // A handler that another client registered in its place is not the host's to remove.
    std::vector<std::string> log;
    {
        TempFile other;
        Q7Agent::Shell host(other.file());
        host.execute("handler add theirs");
        registry->syncContainerHandlerIs(RecordingHandler::make("R", "theirs", &log));
    }
    EXPECT_TRUE(registry->syncContainerHandler("theirs"));
    registry->syncContainerHandlerDel("theirs");
}

// The q7agent program as a user runs it: on a script, or reading `input` from a pipe (text
// without single quotes).
std::string runProgram(std::string const& arguments, int* status, std::string const& input = "") {
    std::string const pipe = input.empty() ? "" : fmt::format("printf '{}' | ", input);
    std::string const command = fmt::format("{}'{}' {} 2>&1", pipe, Q7_AGENT_PROGRAM, arguments);
    std::FILE* p = ::popen(command.c_str(), "r");
    if (!p) throw std::runtime_error("cannot run " + command);
    std::string out;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, p)) > 0;) out.append(chunk, n);
    int const raw = ::pclose(p);
    *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return out;
}

TEST(HostProgramTest, TheExampleScriptRunsItsWholeMission) {
    int status = -1;
    std::string const text = runProgram(fmt::format("--strict '{}/host/example.q7'", Q7_SOURCE_DIR), &status);
    EXPECT_EQ(status, 0) << text;
    EXPECT_FALSE(has(text, "error:")) << text;
    EXPECT_FALSE(has(text, "timed out")) << text;

    // The handler registered after its container exists is handed it; the conflicting pair is
    // held back until one of them goes.
    std::size_t const ifaces = text.find("> handler add ifaces\n");
    std::size_t const release3 = text.find("> release 3\n");
    ASSERT_TRUE(ifaces < release3) << text;
    EXPECT_TRUE(has(text.substr(ifaces, release3 - ifaces),
                    "  handler 'ifaces': container ifaces of Q7Agent::StateContainer at "
                    "/q7/remote/127.0.0.1:47001/ifaces/syncAttribute\n"))
        << text;
    EXPECT_FALSE(has(text.substr(0, release3), "handler 'routes': container")) << text;
    EXPECT_TRUE(has(text.substr(release3), "  released request 3\n"
                                           "  trace KelQ7SyncSubscribeSm[1] SyncContainerSm::addContainer: localUri "
                                           "/q7/remote/127.0.0.1:47001/routes/syncAttribute\n"
                                           "  handler 'routes': container routes of Q7Agent::StateContainer at "
                                           "/q7/remote/127.0.0.1:47001/routes/syncAttribute\n"))
        << text;
    // The peer's report is traced, and changes of the published state reach the handlers.
    for (char const* line : {"Q7SyncStatus for 127.0.0.1:47001/sys/state/routes changed to inSync with reason "
                             "snapshot of 1 entry complete\n",
                             "  handler 'ifaces': 127.0.0.1:47001/sys/state/interfaces 'eth1' = 'up'\n",
                             "  handler 'routes': 127.0.0.1:47001/sys/state/routes 'default' deleted\n"})
        EXPECT_TRUE(has(text, line)) << line;

    std::size_t const first = text.find("\nKel::Q7Sync::Module 0x");
    std::size_t const second = text.find("\nKel::Q7Sync::Module 0x", first + 1);
    ASSERT_NE(second, std::string::npos) << text;
    std::string const before = text.substr(first, text.find("\n== ", first) - first);
    std::string const after = text.substr(second);
    EXPECT_TRUE(has(before, "      name: 'remote'\n      entity: 1\n")) << before;
    EXPECT_TRUE(has(before, "  pathSubscribeConfig: 2\n")) << before;
    EXPECT_TRUE(has(before, "                'eth1' -> 'up'\n")) << before;
    EXPECT_FALSE(has(before, "status: connecting")) << before;
    EXPECT_TRUE(has(after, "      name: 'remote'\n      entity: 0\n")) << after;
    EXPECT_TRUE(has(after, "  pathSubscribeConfig: 0\n")) << after;
    EXPECT_TRUE(has(after, "    listenConfigStatus: null\n")) << after;
    for (char const* released : {"withdrawn from /q7/remote/127.0.0.1:47001/ifaces/syncAttribute",
                                 "withdrawn from /q7/remote/127.0.0.1:47001/routes/syncAttribute"})
        EXPECT_TRUE(has(text.substr(first, second - first), released)) << released;
    EXPECT_TRUE(text.ends_with("> quit\n")) << text;
}

TEST(HostProgramTest, StrictModeAndBadOptionsEndWithAFailingStatus) {
    int status = -1;
    std::string text = runProgram("--strict /dev/null", &status);
    EXPECT_EQ(status, 0) << text;
    text = runProgram("--trace KelQ7SyncSubscribeSm:12 /dev/null", &status);
    EXPECT_EQ(status, 2) << text;
    EXPECT_TRUE(has(text, "--trace takes HANDLE:LEVEL")) << text;
    text = runProgram("/no/such/script", &status);
    EXPECT_NE(status, 0) << text;

    char path[] = "/tmp/q7agent-script-XXXXXX";
    int const fd = ::mkstemp(path);
    ASSERT_GE(fd, 0);
    std::string const lines = "release 5\nquit\n";
    ASSERT_EQ(::write(fd, lines.data(), lines.size()), ssize_t(lines.size()));
    ::close(fd);
    text = runProgram(fmt::format("--strict {}", path), &status);
    ::unlink(path);
    EXPECT_EQ(status, 1) << text;
    EXPECT_TRUE(has(text, "error: id: no request 5; usage: release ID\n")) << text;
    EXPECT_TRUE(has(text, "q7agent: 1 command(s) failed\n")) << text;

    // A pipe is read through the loop to its end, a last line without its newline included.
    text = runProgram("--strict", &status, "release 5\\nstatuses");
    EXPECT_EQ(status, 1) << text;
    EXPECT_EQ(linesOf(text), (std::vector<std::string>{"> release 5", "error: id: no request 5; usage: release ID",
                                                       "> statuses", "  (0 subscriptions)",
                                                       "q7agent: 1 command(s) failed"}));
}

} // namespace
} // namespace Kel::Q7Sync::Test
