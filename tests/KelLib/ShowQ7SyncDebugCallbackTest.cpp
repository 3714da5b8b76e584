// The debug show command "dumpStateQ7SyncModule", served through the agent's show-command
// anchor: it builds the module when no one has, and dumps all of it into the command's output.
#include "KelLib/ShowQ7SyncDebugCallback.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "KelLib/Q7SyncModule.h"
#include "Memtrail/Memtrail.h"
#include "Oru/TaskScheduler.h"
#include "Wex/Trace.h"
#include "Wex/Type.h"
#include "support/FreshProcess.h"
#include "support/SyncTestSupport.h"
#include "support/TempFile.h"

namespace Kel::Q7Sync::Test {
namespace {

constexpr char kCommand[] = "dumpStateQ7SyncModule";
constexpr char kHeader[] = "Kel::Q7Sync::Module 0x";

// The dumps in an output, each from its header line on.
std::vector<std::string> dumpsIn(std::string const& out) {
    std::vector<std::string> dumps;
    for (std::size_t at = out.find(kHeader); at != std::string::npos;) {
        std::size_t const next = out.find(std::string("\n") + kHeader, at);
        dumps.push_back(out.substr(at, next == std::string::npos ? std::string::npos : next + 1 - at));
        at = next == std::string::npos ? next : next + 1;
    }
    return dumps;
}

// The names of the unindented "name: ..." lines that follow a dump's header: the module's own attributes.
std::vector<std::string> shownAttributes(std::string const& dump) {
    std::vector<std::string> names;
    for (std::size_t at = dump.find('\n') + 1; at < dump.size();) {
        std::size_t const end = std::min(dump.find('\n', at), dump.size());
        if (dump[at] != ' ') names.push_back(dump.substr(at, dump.find(':', at) - at));
        at = end + 1;
    }
    return names;
}

std::vector<std::string> moduleAttributes() {
    std::vector<std::string> names;
    for (Wex::WexAttr const& a : Wex::typeNode("Kel::Q7Sync::Module")->attrs())
        if (a.kind() == Wex::AttrKind::attribute) names.emplace_back(a.name());
    return names;
}

Lumo::Ptr<Oru::TaskScheduler> newScheduler() {
    Lumo::Ptr<Oru::TaskScheduler> s(new Oru::TaskScheduler());
    s->hasNotificationActiveIs(true);
    return s;
}
Lumo::Ptr<Agent::AsynchShowCommandAnchor> newAnchor() {
    Lumo::Ptr<Agent::AsynchShowCommandAnchor> a(new Agent::AsynchShowCommandAnchor());
    a->hasNotificationActiveIs(true);
    return a;
}

// An agent's show commands with the module's command registered, as the agent registers it.
struct AgentCommands {
    Lumo::Ptr<Oru::TaskScheduler> scheduler = newScheduler();
    Lumo::Ptr<::Agent::AsynchShowCommandAnchor> anchor = newAnchor();
    Lumo::Ptr<ShowQ7SyncDebugCallback> callback = showQ7SyncDebugCallbackFactory(anchor, scheduler);

    AgentCommands() { anchor->callbackIs(callback); }
    ~AgentCommands() { anchor->callbackDel(kCommand); }
    // One invocation, output and all.
    void show(TempFile const& out) {
        ASSERT_TRUE(anchor->run(kCommand, out.fd()));
        EXPECT_EQ(scheduler->runPending(), 1u);
    }
};

TEST(ShowCommandFirstUseTest, AnInvocationBeforeAnyoneHasTheModuleBuildsItAndDumpsAllOfIt) {
    if (!inFreshProcess()) return;
    Lumo::Ptr<Wex::Dir> const& global = Wex::System::globalDir();
    ASSERT_FALSE(global->entityPtr("q7"));
    AgentCommands agent;
    TempFile out;
    ASSERT_TRUE(agent.anchor->run(kCommand, out.fd()));
    // The output is produced when the scheduler runs, not before.
    EXPECT_FALSE(global->entityPtr("q7"));
    EXPECT_EQ(agent.scheduler->runPending(), 1u);

    Lumo::Ptr<Wex::Entity> const q7 = global->entityPtr("q7");
    ASSERT_TRUE(q7);
    Lumo::Ptr<Module> const module = Module::get();
    EXPECT_EQ(module->q7Dir(), q7);
    std::string const text = out.contents();
    std::vector<std::string> const dumps = dumpsIn(text);
    ASSERT_EQ(dumps.size(), 1u) << text;
    EXPECT_TRUE(dumps[0].starts_with(fmt::format("Kel::Q7Sync::Module {}\n", static_cast<void const*>(module.ptr()))));
    EXPECT_EQ(shownAttributes(dumps[0]), moduleAttributes()) << text;
    EXPECT_NE(text.find(fmt::format("q7Dir: {} (Wex::Dir)", static_cast<void const*>(q7.ptr()))), std::string::npos);
    for (char const* dir : {"'local' -> ", "'writeSync' -> ", "'remote' -> "})
        EXPECT_NE(text.find(dir), std::string::npos) << dir;
    EXPECT_EQ(text.find("<error"), std::string::npos) << text;
}

// The shared module is built before the first fixture counts live objects.
class ShowCommandModuleTest : public SyncFixture {
protected:
    static void SetUpTestSuite() { module_ = Module::get(); }
    static void TearDownTestSuite() { module_ = nullptr; }
    static Module& module() { return *module_; }

    AgentCommands agent;

private:
    static inline Lumo::Ptr<Module> module_;
};

TEST_F(ShowCommandModuleTest, TheCommandIsNamedDumpStateQ7SyncModule) {
    EXPECT_EQ(agent.callback->nameString(), kCommand);
    EXPECT_EQ(agent.callback->name(), kCommand);
    EXPECT_EQ(agent.anchor->callback(kCommand), agent.callback);
    EXPECT_EQ(agent.callback->anchor(), agent.anchor);
    EXPECT_EQ(agent.callback->scheduler(), agent.scheduler);
    TempFile out;
    EXPECT_FALSE(agent.anchor->run("dumpstateq7syncmodule", out.fd()));
    EXPECT_EQ(agent.scheduler->pending(), 0u);
}

TEST_F(ShowCommandModuleTest, TwoInvocationsMakeTwoInstancesAndTwoCompleteDumpsThroughOneCallback) {
    Lumo::Ptr<::Agent::AsynchShowCommandCallback> const callback = agent.anchor->callback(kCommand);
    std::uint32_t const references = callback->references();
    TempFile out;
    long const live = Wex::PtrInterface::liveObjects();
    ASSERT_TRUE(agent.anchor->run(kCommand, out.fd()));
    long const perInvocation = Wex::PtrInterface::liveObjects() - live;
    EXPECT_GE(perInvocation, 1);
    ASSERT_TRUE(agent.anchor->run(kCommand, out.fd()));
    EXPECT_EQ(Wex::PtrInterface::liveObjects() - live, 2 * perInvocation) << "each invocation has its own instance";
    EXPECT_EQ(agent.scheduler->pending(), 2u);
    EXPECT_EQ(agent.scheduler->runPending(), 2u);
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), live) << "instances go once their output is out";

    std::vector<std::string> const dumps = dumpsIn(out.contents());
    ASSERT_EQ(dumps.size(), 2u);
    EXPECT_EQ(shownAttributes(dumps[0]), moduleAttributes());
    EXPECT_EQ(dumps[1], dumps[0]);
    EXPECT_EQ(agent.anchor->callback(kCommand), callback);
    EXPECT_EQ(callback->references(), references);
}

TEST_F(ShowCommandModuleTest, EachInvocationAndItsOutputAreTracedAtLevelOne) {
    Memtrail::Handle records(16);
    Memtrail::defaultHandleIs(&records);
    std::vector<std::string> lines;
    Wex::TraceHandle::sinkIs([&](std::string_view line) { lines.emplace_back(line); });
    TempFile out;

    agent.show(out);  // level 1 off: records only
    EXPECT_TRUE(lines.empty());
    ASSERT_TRUE(Wex::TraceHandle::levelIs("ShowQ7SyncDebugCallback", 1, true));
    agent.show(out);
    Wex::TraceHandle::levelIs("ShowQ7SyncDebugCallback", 1, false);
    Wex::TraceHandle::sinkIs(
        [](std::string_view line) { std::fprintf(stderr, "%.*s\n", int(line.size()), line.data()); });
    Memtrail::defaultHandleIs(nullptr);

    // The descriptor as an entity pointer is written, in hexadecimal: "0x5", not "5".
    std::string const fd = fmt::format("0x{:x}", out.fd());
    std::vector<std::string> seen;
    for (Memtrail::Record const* r : records.records(1)) {
        EXPECT_EQ(r->handle(), "ShowQ7SyncDebugCallback");
        seen.push_back(fmt::format("{}::{} [{}] {}", r->className(), r->function(), r->format(), r->message()));
    }
    std::vector<std::string> const once = {
        "ShowQ7SyncDebugCallback::createInstanceSm [writeFd={}] writeFd=" + fd,
        "ShowQ7SyncDebugSm::produceOutput [] "};
    std::vector<std::string> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(seen, twice);
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "ShowQ7SyncDebugCallback[1] ShowQ7SyncDebugCallback::createInstanceSm: writeFd=" + fd,
                         "ShowQ7SyncDebugCallback[1] ShowQ7SyncDebugSm::produceOutput: "}));
}

TEST_F(ShowCommandModuleTest, ReflectionBuildsTheCallbackFromAnchorAndSchedulerAndNothingElse) {
    Wex::WexType const* type = Wex::typeNode("Kel::Q7Sync::ShowQ7SyncDebugCallback");
    ASSERT_TRUE(type);
    Lumo::Ptr<::Agent::AsynchShowCommandAnchor> const anchor = newAnchor();
    Wex::Value const a = Wex::Value::of(anchor);
    Wex::Value const s = Wex::Value::of(agent.scheduler);

    long const live = Wex::PtrInterface::liveObjects();
    using Refused = Wex::Exception;
    EXPECT_THROW(type->newValue({}), Refused);
    EXPECT_THROW(type->newValue({{"anchor", a}}), Refused);
    EXPECT_THROW(type->newValue({{"scheduler", s}}), Refused);
    EXPECT_THROW(type->newValue({{"anchor", a}, {"scheduler", s}, {"name", Wex::Value::of(Lumo::String("x"))}}),
                 Refused);
    EXPECT_THROW(type->newValue({{"anchor", s}, {"scheduler", s}}), Refused);
    EXPECT_THROW(type->newValue({{"anchor", a}, {"scheduler", a}}), Refused);
    Wex::Value const noAnchor = Wex::Value::of(Lumo::Ptr<::Agent::AsynchShowCommandAnchor>());
    EXPECT_THROW(type->newValue({{"anchor", noAnchor}, {"scheduler", s}}), Wex::NullArgumentException);
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), live);
    EXPECT_TRUE(anchor->callbacks().empty());

    Wex::Value const made = type->newValue({{"anchor", a}, {"scheduler", s}});
    auto* callback = dynamic_cast<ShowQ7SyncDebugCallback*>(const_cast<Wex::PtrInterface*>(made.object()));
    ASSERT_TRUE(callback);
    EXPECT_EQ(callback->name(), kCommand);
    EXPECT_EQ(callback->anchor(), anchor);
    EXPECT_EQ(callback->scheduler(), agent.scheduler);
    EXPECT_TRUE(callback->notificationActive());
    anchor->callbackIs(Lumo::Ptr<::Agent::AsynchShowCommandCallback>(callback));
    TempFile out;
    ASSERT_TRUE(anchor->run(kCommand, out.fd()));
    agent.scheduler->runPending();
    std::vector<std::string> const dumps = dumpsIn(out.contents());
    ASSERT_EQ(dumps.size(), 1u);
    EXPECT_EQ(shownAttributes(dumps[0]), moduleAttributes());
    anchor->callbackDel(kCommand);
}

TEST_F(ShowCommandModuleTest, ReflectionBuildsAnInstanceThatDumpsTheModule) {
    Wex::WexType const* type = Wex::typeNode("Kel::Q7Sync::ShowQ7SyncDebugSm");
    ASSERT_TRUE(type);
    TempFile out;
    Lumo::Ptr<::Agent::AgentCommandCallbackParams> params(new ::Agent::AgentCommandCallbackParams(kCommand, out.fd()));
    params->hasNotificationActiveIs(true);
    Wex::Args args{{"anchor", Wex::Value::of(agent.anchor)},
                   {"scheduler", Wex::Value::of(agent.scheduler)},
                   {"params", Wex::Value::of(params)}};
    Wex::Value made = type->newValue(args);
    auto* instance = dynamic_cast<ShowQ7SyncDebugSm*>(const_cast<Wex::PtrInterface*>(made.object()));
    ASSERT_TRUE(instance);
    EXPECT_EQ(instance->formatDerivedType(), "Kel::Q7Sync::ShowQ7SyncDebugSm");
    EXPECT_EQ(instance->produceOutput(), 0);
    instance->cliBuffer()->flush();
    made = Wex::Value();
    std::vector<std::string> const dumps = dumpsIn(out.contents());
    ASSERT_EQ(dumps.size(), 1u);
    EXPECT_EQ(shownAttributes(dumps[0]), moduleAttributes());

    args.add("extra", Wex::Value::of(1));
    EXPECT_THROW(type->newValue(args), Wex::NewEntityArgsException);
}

// A container whose attribute "sample", read by the dump when it reaches the container, notes
// how far the output of the command has got at that moment.
class SamplingContainer : public SyncContainer {
public:
    explicit SamplingContainer(Lumo::String name) : SyncContainer(std::move(name)) {}
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<SamplingContainer>(); }

    struct Sample {
        std::uint64_t written;
        std::size_t buffered;
    };
    static inline Termout::NonBlockingCliTxnBuffer const* watched = nullptr;
    static inline std::vector<Sample> samples;

    int sample() const {
        if (watched) samples.push_back({watched->bytesWritten(), watched->buffered()});
        return 0;
    }

protected:
    ~SamplingContainer() override { hasNotificationActiveIs(false); }
};

Wex::WexModuleRegistrar registrar("tests/ShowCommandModule", [](Wex::WexModule& m) {
    m.type<SamplingContainer>("Test::SamplingContainer")
        .base<SyncContainer>()
        .readOnly("sample", [](SamplingContainer const& c) { return c.sample(); })
        .entityMaker();
});

// The module's callback, keeping the last instance the module's code made.
class WatchedCallback : public ShowQ7SyncDebugCallback {
public:
    using ShowQ7SyncDebugCallback::ShowQ7SyncDebugCallback;
    Lumo::Ptr<::Agent::AsynchShowCommandInstanceSm> last;

protected:
    ~WatchedCallback() override = default;
    Lumo::Ptr<::Agent::AsynchShowCommandInstanceSm> createInstanceSm(
        Lumo::Ptr<::Agent::AgentCommandCallbackParams> const& params) override {
        last = ShowQ7SyncDebugCallback::createInstanceSm(params);
        return last;
    }
};

TEST_F(ShowCommandModuleTest, ADumpOfThousandsOfSubscriptionsGoesOutWhileItIsWritten) {
    constexpr int kSubscriptions = 2000;
    Wex::WexType const* type = Wex::typeNode("Test::SamplingContainer");
    std::vector<Lumo::Ptr<PathSubscribeRequest>> requests;
    for (int i = 0; i < kSubscriptions; ++i)
        requests.push_back(module().pathSubscribeRequestDedupTable()->dedup(
            PathSubscribeConfig(Kivu::IpGenAddr::fromString("10.1.2.3").value(), 4000, fmt::format("state/{}", i),
                                fmt::format("k{}", i), type, Flags())));
    ASSERT_EQ(module().syncContainerStatus()->syncContainer().size(), std::size_t(kSubscriptions));

    Lumo::Ptr<WatchedCallback> callback(new WatchedCallback(agent.anchor, agent.scheduler));
    callback->hasNotificationActiveIs(true);
    agent.anchor->callbackIs(callback);
    TempFile out;
    ASSERT_TRUE(agent.anchor->run(kCommand, out.fd()));
    ASSERT_TRUE(callback->last);
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> const buffer = callback->last->cliBuffer();
    SamplingContainer::samples.clear();
    SamplingContainer::watched = buffer.ptr();
    agent.scheduler->runPending();
    SamplingContainer::watched = nullptr;
    callback->last = nullptr;

    // One walk: each container is read once, as it is shown.
    ASSERT_EQ(SamplingContainer::samples.size(), std::size_t(kSubscriptions));
    std::vector<SamplingContainer::Sample> const samples = std::move(SamplingContainer::samples);
    SamplingContainer::samples.clear();
    std::string const text = out.contents();
    ASSERT_GT(text.size(), 20 * buffer->capacity()) << "too small a dump to tell";
    EXPECT_EQ(buffer->bytesWritten(), text.size());
    std::size_t rises = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        EXPECT_LE(samples[i].buffered, buffer->capacity()) << "sample " << i;
        if (i > 0) {
            EXPECT_GE(samples[i].written, samples[i - 1].written) << "sample " << i;
            rises += samples[i].written > samples[i - 1].written;
        }
    }
    // The containers take up a good part of the dump: its text went out many times meanwhile.
    EXPECT_GE(rises, 5u);
    std::vector<std::string> const dumps = dumpsIn(text);
    ASSERT_EQ(dumps.size(), 1u);
    EXPECT_EQ(shownAttributes(dumps[0]), moduleAttributes());

    requests.clear();
    EXPECT_TRUE(module().syncContainerStatus()->syncContainer().empty());
    EXPECT_EQ(module().remoteDir()->entities(), 0u);
}

} // namespace
} // namespace Kel::Q7Sync::Test
