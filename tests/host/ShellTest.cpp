// The agent host: its command interpreter driven end to end by scripts, its handling of
// malformed commands, and the q7agent program run on the example script.
#include "Shell.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

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
#include "Wex/Trace.h"
#include "support/SyncTestSupport.h"
#include "support/TempFile.h"

namespace Kel::Q7Sync::Test {
namespace {

std::vector<std::string> linesOf(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

// Everything of the module a command could change, as its dump shows it, with what the host
// holds and what the sync service has.
std::string stateOf(Q7Agent::Shell const& shell) {
    std::FILE* f = std::tmpfile();
    if (!f) throw std::runtime_error("no temporary file");
    {
        Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(fileno(f), nullptr, 0));
        ctx->hasNotificationActiveIs(true);
        Oru::Impl::doObjDumpChildPtrGeneric(Module::get(), Wex::typeNode("Kel::Q7Sync::Module"), ctx, 0);
        ctx->flush();
    }
    std::string out = fmt::format("requests held: {}\nsubscribed: {}\nendpoints: {}\n", shell.host().requests(),
                                  fmt::join(::Q7Sync::Service::instance().subscribedUris(), " "),
                                  ::Q7Sync::Service::instance().endpoints());
    std::rewind(f);
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) out.append(chunk, n);
    std::fclose(f);
    return out;
}

// The shared module is built before the first fixture counts live objects. Each test's host
// goes with the test, and takes what it registered with it.
class HostTest : public SyncFixture {
protected:
    static void SetUpTestSuite() { Module::get(); }

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
    EXPECT_EQ(run("trace KelQ7SyncSubscribeSm 1"), "  KelQ7SyncSubscribeSm levels 1 on\n");
    EXPECT_EQ(run("status 10.20.0.1:6042/sys/state/interfaces inSync initial-sync-done"), "");
    EXPECT_EQ(run("trace KelQ7SyncSubscribeSm 1 --off"), "  KelQ7SyncSubscribeSm levels 1 off\n");
    EXPECT_EQ(run("status 10.20.0.1:6042/sys/state/interfaces syncing"), "");
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

    EXPECT_EQ(run("listening 127.0.0.1 0 false gone"), "");
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
                              "handler add|del KEY", "status REMOTE_URI STATUS", "listening ADDRESS PORT",
                              "trace HANDLE LEVEL", "memtrail [LEVEL]", "show COMMAND", "echo TEXT", "help", "quit"})
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
           "handler add ifaces\n");
    ASSERT_EQ(shell.host().requests(), 3u);
    struct Bad {
        char const* line;
        char const* usage;
    };
    constexpr char kSubscribe[] = "subscribe ADDRESS PORT PATH KEY [--type TYPE] [--flags FLAGS]";
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
    run("listen off");
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

// The q7agent program on the example script, as a user runs it.
std::string runProgram(std::string const& arguments, int* status) {
    std::string const command = fmt::format("'{}' {} 2>&1", Q7_AGENT_PROGRAM, arguments);
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
    std::string const text = runProgram(fmt::format("'{}/host/example.q7'", Q7_SOURCE_DIR), &status);
    EXPECT_EQ(status, 0) << text;
    EXPECT_FALSE(has(text, "error:")) << text;
    EXPECT_FALSE(has(text, "failed")) << text;

    // The handler registered after its containers exist is handed both.
    std::size_t const ifaces = text.find("> handler add ifaces\n");
    std::size_t const routes = text.find("> handler add routes\n");
    std::size_t const release4 = text.find("> release 4\n");
    ASSERT_TRUE(ifaces < routes && routes < release4) << text;
    std::string const handed = text.substr(ifaces, routes - ifaces);
    for (char const* agent : {"10.20.0.1:6042", "fd00:0:0:14::1:6042"})
        EXPECT_TRUE(has(handed, fmt::format("handler 'ifaces': container ifaces of Q7Agent::StateContainer at "
                                            "/q7/remote/{}/ifaces/syncAttribute\n",
                                            agent)))
            << agent;
    // The conflicting pair is held back until one of them goes.
    EXPECT_FALSE(has(text.substr(0, release4), "handler 'routes': container")) << text;
    EXPECT_TRUE(has(text.substr(release4), "  released request 4\n  handler 'routes': container routes of "
                                           "Q7Agent::StateContainer at "
                                           "/q7/remote/10.20.0.1:6042/routes/syncAttribute\n"));
    EXPECT_TRUE(has(text, "  trace KelQ7SyncSubscribeSm[1] Q7SyncStatusSm::handleSyncStatus: Q7SyncStatus for "
                          "10.20.0.1:6042/sys/state/interfaces changed to inSync with reason initial-sync-done\n"));

    std::size_t const first = text.find("\nKel::Q7Sync::Module 0x");
    std::size_t const second = text.find("\nKel::Q7Sync::Module 0x", first + 1);
    ASSERT_NE(second, std::string::npos) << text;
    std::string const before = text.substr(first, text.find("\n== ", first) - first);
    std::string const after = text.substr(second);
    EXPECT_TRUE(has(before, "      name: 'remote'\n      entity: 2\n")) << before;
    EXPECT_TRUE(has(before, "status: inSync")) << before;
    EXPECT_TRUE(has(after, "      name: 'remote'\n      entity: 0\n")) << after;
    EXPECT_TRUE(has(after, "  pathSubscribeConfig: 0\n")) << after;
    EXPECT_TRUE(has(after, "    listenConfigStatus: null\n")) << after;
    for (char const* released : {"withdrawn from /q7/remote/10.20.0.1:6042/ifaces/syncAttribute",
                                 "withdrawn from /q7/remote/10.20.0.1:6042/routes/syncAttribute",
                                 "withdrawn from /q7/remote/fd00:0:0:14::1:6042/ifaces/syncAttribute"})
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
}

} // namespace
} // namespace Kel::Q7Sync::Test
