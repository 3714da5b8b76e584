// Show commands: the registry, invocations run by the scheduler, and the buffer their output streams through.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fmt/format.h>

#include "Agent/ShowCommand.h"
#include "Memtrail/Memtrail.h"
#include "support/TempFile.h"

namespace {

using Agent::AsynchShowCommandAnchor;
using Oru::TaskScheduler;
using Termout::NonBlockingCliTxnBuffer;

// Produces its output with the body its callback was given.
class Instance : public Agent::AsynchShowCommandInstanceSm {
public:
    using Body = std::function<int(Instance&)>;
    Instance(Lumo::Ptr<AsynchShowCommandAnchor> anchor, Lumo::Ptr<TaskScheduler> scheduler,
             Lumo::Ptr<Agent::AgentCommandCallbackParams> params, Body body)
        : AsynchShowCommandInstanceSm(std::move(anchor), std::move(scheduler), std::move(params)),
          body(std::move(body)) {}
    int produceOutput() override { return body(*this); }

    Body body;
};

int echo(Instance& i) {
    i.cliBuffer()->write(fmt::format("'{}' to fd {}\n", i.params()->commandName(), i.params()->writeFd()));
    return 0;
}

// Serves a command with `body`, keeping its last instance for a look after its task.
class Callback : public Agent::AsynchShowCommandCallback {
public:
    Callback(Lumo::Ptr<AsynchShowCommandAnchor> const& anchor, Lumo::Ptr<TaskScheduler> scheduler,
             Lumo::String name = "echo", Instance::Body body = echo)
        : AsynchShowCommandCallback(std::move(name), anchor, std::move(scheduler)), body(std::move(body)) {}

    Instance::Body body;
    Lumo::Ptr<Instance> last;

protected:
    Lumo::Ptr<Agent::AsynchShowCommandInstanceSm> createInstanceSm(
        Lumo::Ptr<Agent::AgentCommandCallbackParams> const& params) override {
        return last = Lumo::Ptr<Instance>(new Instance(anchor(), scheduler(), params, body));
    }
};

class ShowCommandTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (Lumo::Ptr<Callback> const& c : made) c->last = nullptr;  // it holds the anchor, which holds it
    }
    // A callback serving `name`, registered.
    Lumo::Ptr<Callback> command(Lumo::String name, Instance::Body body = echo) {
        made.emplace_back(new Callback(anchor, scheduler, std::move(name), std::move(body)));
        anchor->callbackIs(made.back());
        return made.back();
    }

    Lumo::Ptr<AsynchShowCommandAnchor> anchor{new AsynchShowCommandAnchor()};
    Lumo::Ptr<TaskScheduler> scheduler{new TaskScheduler()};
    std::vector<Lumo::Ptr<Callback>> made;
};

// The tasks run in the order they were queued, those queued meanwhile last. The callbacks keep their
// last instances alive: each is flushed and stopped by its task, not by its end.
TEST_F(ShowCommandTest, InvocationsRunWhenTheSchedulerRunsEachIntoItsOwnOutputWhateverTheOthersDo) {
    TempFile first, second, dumpOut;
    Lumo::Ptr<Callback> const echoing = command("echo");
    Lumo::Ptr<Callback> const failing = command("fail", [](Instance& i) -> int {
        i.cliBuffer()->write("partial\n");
        throw std::runtime_error("disk on fire");
    });
    Lumo::Ptr<Callback> const dump = command("dump", [&](Instance& i) {
        i.dumpState(*Lumo::Ptr<Oru::DumpContext>(new Oru::DumpContext(i.params()->writeFd(), nullptr, 1)));
        i.scheduler()->taskIs([&] {
            EXPECT_EQ(::write(second.fd(), "late\n", 5), 5);
            throw 7;
        });
        return 3;
    });
    for (auto const& [name, out] : {std::pair{"echo", &first}, {"fail", &first}, {"dump", &dumpOut}, {"echo", &second}})
        ASSERT_TRUE(anchor->run(name, out->fd()));
    EXPECT_THROW(scheduler->taskIs(TaskScheduler::Task()), Wex::NullArgumentException);
    EXPECT_EQ(scheduler->pending(), 4u);

    EXPECT_EQ(scheduler->runPending(), 5u);
    EXPECT_EQ(first.contents(), fmt::format("'echo' to fd {}\npartial\n", first.fd()));
    EXPECT_EQ(second.contents(), fmt::format("'echo' to fd {}\nlate\n", second.fd()));
    EXPECT_TRUE(echoing->last->zombie() && failing->last->zombie());
    auto const addr = [](auto const& p) { return static_cast<void const*>(p.ptr()); };
    EXPECT_EQ(dumpOut.contents(),
              fmt::format("{} (Agent::AsynchShowCommandInstanceSm)\n"
                          "  derivedType: 'Agent::AsynchShowCommandInstanceSm'\n"
                          "  params: {} (Agent::AgentCommandCallbackParams, not shown: depth limit)\n"
                          "  anchor: {} (Agent::AsynchShowCommandAnchor, not shown: depth limit)\n"
                          "  scheduler: {} (Oru::TaskScheduler, not shown: depth limit)\n"
                          "  cliBuffer: {} (Termout::NonBlockingCliTxnBuffer, not shown: depth limit)\n",
                          addr(dump->last), addr(dump->last->params()), addr(anchor), addr(scheduler),
                          addr(dump->last->cliBuffer())));
    std::string records;
    for (Memtrail::Record const* r : Memtrail::defaultHandle()->records()) records += r->text() + "\n";
    EXPECT_TRUE(records.ends_with("Oru[0] TaskScheduler::runPending: task threw: disk on fire\n"
                                  "Agent[1] AsynchShowCommandCallback::handleCommand: "
                                  "command 'dump' ended with status 3\n"
                                  "Oru[0] TaskScheduler::runPending: task threw a non-standard exception\n"))
        << records;
}

TEST_F(ShowCommandTest, TheAnchorServesTheLatestCallbackOfANameAndOnlyOnesMadeOnIt) {
    Lumo::Ptr<Callback> const first = command("echo");
    Lumo::Ptr<AsynchShowCommandAnchor> const other(new AsynchShowCommandAnchor());
    EXPECT_THROW(anchor->callbackIs(Lumo::Ptr<Callback>(new Callback(other, scheduler))), Wex::RangeException);
    Lumo::Ptr<Callback> const second = command("echo");
    EXPECT_EQ(anchor->callbackDel("echo"), second);
    EXPECT_EQ(anchor->callbackDel("echo"), nullptr);
    EXPECT_FALSE(anchor->run("echo", 1));
    EXPECT_EQ(scheduler->pending(), 0u);
    // Callbacks outliving their anchor, registered or not, see it gone.
    anchor->callbackIs(first);
    anchor = nullptr;
    EXPECT_EQ(std::tuple(first->anchor(), second->anchor()), std::tuple(nullptr, nullptr));
    EXPECT_THROW(Wex::typeNode("Agent::AsynchShowCommandAnchor")->newValue({{"extra", Wex::Value::of(1)}}),
                 Wex::NewEntityArgsException);
}

TEST(CliTxnBuffer, OutputIsHeldUntilTheBufferFillsAndAPieceTooLargeForItGoesOutAtOnce) {
    TempFile file;
    Lumo::Ptr<NonBlockingCliTxnBuffer> const buffer(new NonBlockingCliTxnBuffer(file.fd(), 10));
    using State = std::tuple<std::size_t, std::uint64_t, std::string>;
    auto const state = [&] { return State(buffer->buffered(), buffer->bytesWritten(), file.contents()); };
    buffer->write("abcdef");
    EXPECT_EQ(state(), State(6, 0, ""));
    buffer->write("ghijkl");
    EXPECT_EQ(state(), State(2, 10, "abcdefghij"));
    buffer->write("mnopqrstuvwxyz0123456789");  // 8 fill the buffer, 16 go out directly
    EXPECT_EQ(state(), State(0, 36, "abcdefghijklmnopqrstuvwxyz0123456789"));
    buffer->write("!");
    EXPECT_TRUE(buffer->flush());
    EXPECT_EQ(state(), State(0, 37, "abcdefghijklmnopqrstuvwxyz0123456789!"));
    EXPECT_THROW(Lumo::Ptr<NonBlockingCliTxnBuffer>(new NonBlockingCliTxnBuffer(file.fd(), 0)), Wex::RangeException);
}

// Output far larger than the buffer, in pieces of uneven sizes numbered so that order shows, into a
// non-blocking pipe whose reader drains it, went away (EPIPE, never a SIGPIPE) or stopped reading.
TEST(CliTxnBuffer, OutputIntoAFullPipeArrivesWholeOrEndsWhenTheReaderGoesOrStops) {
    enum Reader { drains, gone, stopped };
    for (Reader const reader : {drains, gone, stopped}) {
        SCOPED_TRACE(reader);
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        ASSERT_EQ(::fcntl(fds[1], F_SETFL, O_NONBLOCK), 0);
        if (reader == gone) ::close(fds[0]);
        std::string received, sent;
        std::thread draining([&] {
            char chunk[65536];
            for (ssize_t r; reader == drains && (r = ::read(fds[0], chunk, sizeof chunk)) > 0;)
                received.append(chunk, std::size_t(r));
        });
        int const stallLimitMs = reader == stopped ? 0 : 30'000;
        Lumo::Ptr<NonBlockingCliTxnBuffer> const buffer(new NonBlockingCliTxnBuffer(fds[1], 1000, stallLimitMs));
        for (std::size_t i = 0; sent.size() < 4 * 1024 * 1024 && buffer->error() == 0; ++i) {
            std::string const piece = fmt::format("{:08}:{:{}}|", i, "", (i * 7919) % (i % 50 ? 3000 : 200'000));
            buffer->write(piece);
            sent += piece;
        }
        std::uint64_t const written = buffer->bytesWritten();
        buffer->write("the end");  // dropped after an error
        EXPECT_EQ(buffer->flush(), reader == drains);
        ::close(fds[1]);
        draining.join();
        if (reader != gone) ::close(fds[0]);
        EXPECT_EQ(std::tuple(buffer->error(), buffer->buffered(), buffer->bytesWritten(), written > 0, received),
                  std::tuple(reader == drains ? 0 : reader == gone ? EPIPE : ETIMEDOUT, 0u,
                             reader == drains ? sent.size() + 7 : written, reader != gone,
                             reader == drains ? sent + "the end" : ""));
    }
}

} // namespace
