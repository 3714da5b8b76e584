// Show commands: registration, invocation through the scheduler, instances and their output.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Agent/ShowCommand.h"
#include "Memtrail/Memtrail.h"
#include "Oru/DumpContext.h"
#include "Oru/TaskScheduler.h"
#include "Termout/DumpStateWriterCallback.h"
#include "Wex/Type.h"
#include "support/TempFile.h"

namespace {

using Agent::AgentCommandCallbackParams;
using Agent::AsynchShowCommandAnchor;
using Agent::AsynchShowCommandCallback;
using Agent::AsynchShowCommandInstanceSm;
using Oru::TaskScheduler;

// Writes one numbered line, or part of one and then fails, or a dump of itself.
class EchoInstance : public AsynchShowCommandInstanceSm {
public:
    enum class Mode { echo, fail, dump };

    EchoInstance(Lumo::Ptr<AsynchShowCommandAnchor> anchor, Lumo::Ptr<TaskScheduler> scheduler,
                 Lumo::Ptr<AgentCommandCallbackParams> params, Mode mode = Mode::echo)
        : AsynchShowCommandInstanceSm(std::move(anchor), std::move(scheduler), std::move(params)),
          mode_(mode), number_(++made) {
        ++live;
    }
    ~EchoInstance() override { --live; }

    int produceOutput() override {
        switch (mode_) {
        case Mode::echo:
            cliBuffer()->write(fmt::format("echo #{} of '{}'\n", number_, params()->commandName()));
            return 0;
        case Mode::fail:
            cliBuffer()->write("partial\n");
            throw std::runtime_error("disk on fire");
        case Mode::dump: {
            Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(-1, nullptr, 0));
            ctx->hasNotificationActiveIs(true);
            Lumo::Ptr<Termout::DumpStateWriterCallback> writer(new Termout::DumpStateWriterCallback(cliBuffer()));
            writer->hasNotificationActiveIs(true);
            ctx->writerIs(writer);
            ctx->followWeakReferencesIs(false);
            dumpState(*ctx);
            return 3;
        }
        }
        return -1;
    }
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<EchoInstance>(); }

    static inline int made = 0;
    static inline int live = 0;

private:
    Mode mode_;
    int number_;
};

class EchoCallback : public AsynchShowCommandCallback {
public:
    EchoCallback(Lumo::Ptr<AsynchShowCommandAnchor> const& anchor, Lumo::Ptr<TaskScheduler> scheduler,
                 Lumo::String name = "echo", EchoInstance::Mode mode = EchoInstance::Mode::echo)
        : AsynchShowCommandCallback(std::move(name), anchor, std::move(scheduler)), mode_(mode) {}
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<EchoCallback>(); }

    // The last instance made, kept alive for a look after its task, when asked to.
    bool keepLast = false;
    Lumo::Ptr<EchoInstance> last;

protected:
    Lumo::Ptr<AsynchShowCommandInstanceSm> createInstanceSm(Lumo::Ptr<AgentCommandCallbackParams> const& params) override {
        Lumo::Ptr<EchoInstance> i(new EchoInstance(anchor(), scheduler(), params, mode_));
        i->hasNotificationActiveIs(true);
        if (keepLast) last = i;
        return i;
    }

private:
    EchoInstance::Mode mode_;
};

// Claims a name other than the one it was made with.
class MisnamedCallback : public EchoCallback {
public:
    using EchoCallback::EchoCallback;
    Lumo::String nameString() const override { return "alias"; }
};

Wex::WexModuleRegistrar registrar("tests/ShowCommand", [](Wex::WexModule& m) {
    m.type<EchoCallback>("ShowTest::EchoCallback")
        .base<AsynchShowCommandCallback>()
        .maker(Agent::callbackMaker<EchoCallback>());
    m.type<EchoInstance>("ShowTest::EchoInstance")
        .base<AsynchShowCommandInstanceSm>()
        .maker(Agent::instanceSmMaker<EchoInstance>());
});

bool memtrailHas(std::string const& text) {
    for (Memtrail::Record const* r : Memtrail::defaultHandle()->records())
        if (r->text().find(text) != std::string::npos) return true;
    return false;
}

class ShowCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        anchor->hasNotificationActiveIs(true);
        scheduler->hasNotificationActiveIs(true);
        echo->hasNotificationActiveIs(true);
        anchor->callbackIs(echo);
    }
    void TearDown() override {
        echo->last = nullptr;  // it holds the anchor, which holds the callback
        echo = nullptr;
        anchor = nullptr;
        scheduler = nullptr;
        EXPECT_EQ(EchoInstance::live, 0);
        EXPECT_EQ(Wex::PtrInterface::liveObjects(), liveAtStart);  // nothing kept alive by a cycle
    }

    long const liveAtStart = Wex::PtrInterface::liveObjects();
    Lumo::Ptr<AsynchShowCommandAnchor> anchor{new AsynchShowCommandAnchor()};
    Lumo::Ptr<TaskScheduler> scheduler{new TaskScheduler()};
    Lumo::Ptr<EchoCallback> echo{new EchoCallback(anchor, scheduler)};
};

TEST_F(ShowCommandTest, OutputIsWrittenOnlyWhenTheSchedulerRuns) {
    TempFile out;
    int const before = EchoInstance::made;
    ASSERT_TRUE(anchor->run("echo", out.fd()));
    EXPECT_EQ(scheduler->pending(), 1u);
    EXPECT_EQ(EchoInstance::live, 1);
    EXPECT_EQ(out.contents(), "");
    EXPECT_EQ(scheduler->runPending(), 1u);
    EXPECT_EQ(out.contents(), fmt::format("echo #{} of 'echo'\n", before + 1));
    EXPECT_EQ(EchoInstance::live, 0);  // the task let its instance go
    EXPECT_EQ(scheduler->pending(), 0u);
}

TEST_F(ShowCommandTest, AfterItsTaskAnInstanceHasFlushedAndStoppedReacting) {
    echo->keepLast = true;
    TempFile out;
    ASSERT_TRUE(anchor->run("echo", out.fd()));
    ASSERT_NE(echo->last, nullptr);
    EXPECT_FALSE(echo->last->zombie());
    scheduler->runPending();
    EXPECT_TRUE(echo->last->zombie());
    EXPECT_EQ(echo->last->cliBuffer()->buffered(), 0u);
    EXPECT_NE(out.contents(), "");
}

TEST_F(ShowCommandTest, TwoInvocationsGiveTwoInstancesAndTwoOutputs) {
    TempFile first, second;
    int const before = EchoInstance::made;
    ASSERT_TRUE(anchor->run("echo", first.fd()));
    ASSERT_TRUE(anchor->run("echo", second.fd()));
    EXPECT_EQ(EchoInstance::live, 2);
    EXPECT_EQ(scheduler->runPending(), 2u);
    EXPECT_EQ(first.contents(), fmt::format("echo #{} of 'echo'\n", before + 1));
    EXPECT_EQ(second.contents(), fmt::format("echo #{} of 'echo'\n", before + 2));
    EXPECT_EQ(anchor->callback("echo"), echo);
}

TEST_F(ShowCommandTest, UnknownCommandOrBadDescriptorSchedulesAndWritesNothing) {
    TempFile out;
    EXPECT_FALSE(anchor->run("ech", out.fd()));
    EXPECT_FALSE(anchor->run("", out.fd()));
    EXPECT_THROW(anchor->run("echo", -1), Wex::RangeException);
    EXPECT_EQ(scheduler->pending(), 0u);
    EXPECT_EQ(EchoInstance::live, 0);
    EXPECT_EQ(scheduler->runPending(), 0u);
    EXPECT_EQ(out.contents(), "");
}

TEST_F(ShowCommandTest, AFailingCommandKeepsWhatItWroteAndDoesNotStopTheOthers) {
    Lumo::Ptr<EchoCallback> failing(new EchoCallback(anchor, scheduler, "fail", EchoInstance::Mode::fail));
    failing->keepLast = true;  // so that what it wrote must have been flushed, not left to its destructor
    anchor->callbackIs(failing);
    TempFile failOut, echoOut;
    ASSERT_TRUE(anchor->run("fail", failOut.fd()));
    ASSERT_TRUE(anchor->run("echo", echoOut.fd()));
    std::size_t ran = 0;
    EXPECT_NO_THROW(ran = scheduler->runPending());
    EXPECT_EQ(ran, 2u);
    EXPECT_EQ(failOut.contents(), "partial\n");
    EXPECT_NE(echoOut.contents().find("of 'echo'"), std::string::npos);
    EXPECT_TRUE(memtrailHas("disk on fire"));
    EXPECT_TRUE(failing->last->zombie());
    failing->last = nullptr;
}

TEST_F(ShowCommandTest, ADumpCommandShowsItsInstanceWithoutFollowingBackPointers) {
    anchor->callbackIs(Lumo::Ptr<EchoCallback>(new EchoCallback(anchor, scheduler, "dump", EchoInstance::Mode::dump)));
    TempFile out;
    ASSERT_TRUE(anchor->run("dump", out.fd()));
    scheduler->runPending();
    std::string const text = out.contents();
    EXPECT_TRUE(text.find("(ShowTest::EchoInstance)\n  derivedType: 'ShowTest::EchoInstance'\n") != std::string::npos) << text;
    EXPECT_NE(text.find("    commandName: 'dump'\n"), std::string::npos) << text;
    // anchor -> its callbacks -> each callback's back pointer, shown as a bare address
    EXPECT_NE(text.find(fmt::format("      'echo' -> {} (ShowTest::EchoCallback)\n", static_cast<void*>(echo.ptr()))),
              std::string::npos) << text;
    EXPECT_NE(text.find(fmt::format("        anchor: {}\n", static_cast<void*>(anchor.ptr()))), std::string::npos) << text;
    EXPECT_TRUE(memtrailHas("command 'dump' ended with status 3"));
}

TEST_F(ShowCommandTest, RegistrationRefusesBadCallbacksAndChangesNothing) {
    Lumo::Ptr<AsynchShowCommandAnchor> other(new AsynchShowCommandAnchor());
    EXPECT_THROW(anchor->callbackIs(nullptr), Wex::NullArgumentException);
    EXPECT_THROW(anchor->callbackIs(Lumo::Ptr<EchoCallback>(new EchoCallback(other, scheduler, "stray"))),
                 Wex::RangeException);
    EXPECT_THROW(anchor->callbackIs(Lumo::Ptr<EchoCallback>(new MisnamedCallback(anchor, scheduler, "real"))),
                 Wex::RangeException);
    EXPECT_EQ(anchor->callbacks().size(), 1u);
    EXPECT_THROW(Lumo::Ptr<EchoCallback>(new EchoCallback(nullptr, scheduler)), Wex::NullArgumentException);
    EXPECT_THROW(Lumo::Ptr<EchoCallback>(new EchoCallback(anchor, nullptr)), Wex::NullArgumentException);
}

TEST_F(ShowCommandTest, ARemovedOrReplacedCommandIsNoLongerServed) {
    Lumo::Ptr<EchoCallback> replacement(new EchoCallback(anchor, scheduler));
    anchor->callbackIs(replacement);
    EXPECT_EQ(anchor->callback("echo"), replacement);
    EXPECT_EQ(anchor->callbackDel("echo"), replacement);
    EXPECT_EQ(anchor->callbackDel("echo"), nullptr);
    TempFile out;
    EXPECT_FALSE(anchor->run("echo", out.fd()));
    EXPECT_EQ(scheduler->pending(), 0u);
}

TEST_F(ShowCommandTest, ACallbackOutlivingItsAnchorSeesNoAnchor) {
    Lumo::Ptr<EchoCallback> unregistered(new EchoCallback(anchor, scheduler, "later"));
    EXPECT_EQ(echo->anchor(), anchor);
    anchor = nullptr;
    EXPECT_EQ(echo->anchor(), nullptr);
    EXPECT_EQ(unregistered->anchor(), nullptr);
}

TEST_F(ShowCommandTest, ReflectionMakesCallbacksAndInstancesFromNamedArguments) {
    auto const* cbType = Wex::typeNode("ShowTest::EchoCallback");
    ASSERT_NE(cbType, nullptr);
    Wex::Value made = cbType->newValue({{"anchor", Wex::Value::of(anchor)}, {"scheduler", Wex::Value::of(scheduler)}});
    auto const* cb = made.as<Lumo::Ptr<EchoCallback>>();
    ASSERT_NE(cb, nullptr);
    EXPECT_TRUE((*cb)->notificationActive());
    EXPECT_EQ((*cb)->anchor(), anchor);
    EXPECT_EQ((*cb)->nameString(), "echo");
    EXPECT_THROW(cbType->newValue({{"anchor", Wex::Value::of(anchor)}}), Wex::NewEntityArgsException);
    EXPECT_THROW(cbType->newValue({{"anchor", Wex::Value::of(anchor)},
                                   {"scheduler", Wex::Value::of(scheduler)},
                                   {"colour", Wex::Value::of(1)}}),
                 Wex::NewEntityArgsException);

    TempFile out;
    Lumo::Ptr<AgentCommandCallbackParams> params(new AgentCommandCallbackParams("echo", out.fd()));
    Wex::Value instance = Wex::typeNode("ShowTest::EchoInstance")->newValue(
        {{"anchor", Wex::Value::of(anchor)}, {"scheduler", Wex::Value::of(scheduler)}, {"params", Wex::Value::of(params)}});
    auto const* i = instance.as<Lumo::Ptr<EchoInstance>>();
    ASSERT_NE(i, nullptr);
    EXPECT_EQ((*i)->cliBuffer()->fd(), out.fd());
    EXPECT_EQ((*i)->formatDerivedType(), "ShowTest::EchoInstance");
    EXPECT_THROW(Wex::typeNode("ShowTest::EchoInstance")->newValue({{"anchor", Wex::Value::of(anchor)},
                                                                    {"scheduler", Wex::Value::of(scheduler)}}),
                 Wex::NewEntityArgsException);
}

// ---- the scheduler on its own ----

TEST(TaskScheduler, RunsInOrderIncludingTasksQueuedMeanwhile) {
    Lumo::Ptr<TaskScheduler> s(new TaskScheduler());
    std::vector<int> order;
    s->taskIs([&] { order.push_back(1); s->taskIs([&] { order.push_back(3); }); });
    s->taskIs([&] { order.push_back(2); });
    EXPECT_EQ(s->pending(), 2u);
    EXPECT_EQ(s->runPending(), 3u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(s->pending(), 0u);
}

TEST(TaskScheduler, AThrowingTaskIsRecordedAndTheOthersRun) {
    Lumo::Ptr<TaskScheduler> s(new TaskScheduler());
    int ran = 0;
    s->taskIs([] { throw std::runtime_error("task number one broke"); });
    s->taskIs([] { throw 42; });
    s->taskIs([&] { ++ran; });
    EXPECT_EQ(s->runPending(), 3u);
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(memtrailHas("task number one broke"));
    EXPECT_TRUE(memtrailHas("non-standard exception"));
}

TEST(TaskScheduler, ATaskMayDropTheLastReferenceToTheScheduler) {
    Lumo::Ptr<TaskScheduler> s(new TaskScheduler());
    TaskScheduler* raw = s.ptr();
    int ran = 0;
    raw->taskIs([&] { s = nullptr; });
    raw->taskIs([&] { ++ran; });
    EXPECT_EQ(raw->runPending(), 2u);  // the scheduler is released only once this returns
    EXPECT_EQ(ran, 1);
}

TEST(TaskScheduler, AnEmptyTaskIsRefused) {
    Lumo::Ptr<TaskScheduler> s(new TaskScheduler());
    EXPECT_THROW(s->taskIs(TaskScheduler::Task()), Wex::NullArgumentException);
    EXPECT_EQ(s->pending(), 0u);
}

} // namespace
