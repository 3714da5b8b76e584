// The debug show command "dumpStateQ7SyncModule": the module it obtains as it runs, dumped whole.
#include "KelLib/ShowQ7SyncDebugCallback.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "KelLib/Q7SyncModule.h"
#include "Wex/Type.h"
#include "support/FreshProcess.h"
#include "support/SyncTestSupport.h"
#include "support/TempFile.h"

namespace Kel::Q7Sync::Test {
namespace {

constexpr char kCommand[] = "dumpStateQ7SyncModule";

// Checks that `out` is one dump of `module`: its header, then the attributes of the module's type
// table unindented, what they lead to indented under them, and no read that failed.
void expectOneDumpOf(std::string const& out, Module const& module) {
    std::string const header = fmt::format("Kel::Q7Sync::Module {}\n", static_cast<void const*>(&module));
    ASSERT_TRUE(out.starts_with(header)) << out;
    std::vector<std::string> shown, listed;
    std::istringstream lines(out.substr(header.size()));
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with(' ')) shown.push_back(line.substr(0, line.find(':')));
    for (Wex::WexAttr const& a : Wex::wexTypeOf<Module>()->attrs())
        if (a.kind() == Wex::AttrKind::attribute) listed.emplace_back(a.name());
    EXPECT_EQ(shown, listed) << out;
    EXPECT_EQ(out.find("<error"), std::string::npos) << out;
}

// In a process of its own, where no one has built the shared module yet.
TEST(ShowCommandFirstUseTest, TheCommandBuildsTheModuleWhenItRunsAndDumpsAllOfIt) {
    if (!inFreshProcess()) return;
    TraceRecords traces;
    Lumo::Ptr<Oru::TaskScheduler> const scheduler(new Oru::TaskScheduler());
    Lumo::Ptr<::Agent::AsynchShowCommandAnchor> const anchor(new ::Agent::AsynchShowCommandAnchor());
    anchor->callbackIs(showQ7SyncDebugCallbackFactory(anchor, scheduler));
    TempFile first, second;
    ASSERT_TRUE(anchor->run(kCommand, first.fd()));
    EXPECT_FALSE(Wex::System::globalDir()->entityPtr("q7")) << "built before the command ran";
    EXPECT_EQ(scheduler->runPending(), 1u);
    Lumo::Ptr<Module> const module = Module::get();
    EXPECT_EQ(module->q7Dir(), Wex::System::globalDir()->entityPtr("q7"));
    expectOneDumpOf(first.contents(), *module);

    // A subscription gives the module's tree a back pointer, from the request's notifiee to the
    // request, which the dump leaves an address. This time through a callback made by reflection.
    Lumo::Ptr<PathSubscribeRequest> const request = module->pathSubscribeRequestDedupTable()->dedup(subscription("k"));
    Wex::Args args{{"anchor", Wex::Value::of(anchor)}, {"scheduler", Wex::Value::of(scheduler)}};
    Wex::Value const callback = Wex::wexTypeOf<ShowQ7SyncDebugCallback>()->newValue(args);
    ASSERT_TRUE(callback.as<Lumo::Ptr<ShowQ7SyncDebugCallback>>() && callback.object()->notificationActive());
    anchor->callbackIs(*callback.as<Lumo::Ptr<ShowQ7SyncDebugCallback>>());
    ASSERT_TRUE(anchor->run(kCommand, second.fd()));
    EXPECT_EQ(scheduler->runPending(), 1u);
    expectOneDumpOf(second.contents(), *module);
    EXPECT_NE(second.contents().find(fmt::format("requestRawPtr: {}\n", static_cast<void const*>(request.ptr()))),
              std::string::npos);

    // The descriptor in the text form of an entity pointer: hexadecimal.
    std::string const made = "ShowQ7SyncDebugCallback::createInstanceSm: writeFd=0x";
    std::string const ran = "ShowQ7SyncDebugSm::produceOutput: ";
    EXPECT_EQ(traces.at(1, "ShowQ7SyncDebugCallback"),
              (std::vector<std::string>{made + fmt::format("{:x}", first.fd()), ran,
                                        made + fmt::format("{:x}", second.fd()), ran}));
    EXPECT_EQ(traces.at(1, "Agent"), std::vector<std::string>()) << "a status other than 0 is recorded";
}

} // namespace
} // namespace Kel::Q7Sync::Test
