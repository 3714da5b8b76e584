// Many first callers of Module::get at once: one module is built, once, and all share it.
#include "KelLib/Q7SyncModule.h"

#include <gtest/gtest.h>

#include <array>
#include <latch>
#include <thread>
#include <vector>

#include "Memtrail/Memtrail.h"
#include "support/FreshProcess.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

constexpr int kCallers = 16;
constexpr int kRuns = 20;

// Each construction of a module makes one container reactor, whose first sweep writes this
// record whatever the trace levels: counting the records counts the constructions.
std::size_t constructionsRecorded(Memtrail::Handle const& records) {
    std::size_t n = 0;
    for (Memtrail::Record const* r : records.records(8))
        n += r->className() == "SyncContainerSm" && r->function() == "handlePathSubscribeConfig";
    return n;
}

void raceForTheFirstModule() {
    TraceRecords const traces;

    // Each caller also reads the built module: one that found it already there must see it
    // whole, as the one that built it left it.
    std::array<Lumo::Ptr<Module>, kCallers> got;
    std::array<Wex::Dir const*, kCallers> seen{};
    std::latch start(kCallers);
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i)
        callers.emplace_back([&, i] {
            start.arrive_and_wait();
            got[i] = Module::get();
            seen[i] = got[i]->remoteDir().ptr();
        });
    for (auto& t : callers) t.join();
    ASSERT_TRUE(got[0]);
    for (int i = 0; i < kCallers; ++i) {
        EXPECT_EQ(got[i], got[0]) << "caller " << i;
        EXPECT_EQ(seen[i], got[0]->remoteDir().ptr()) << "caller " << i;
    }
    EXPECT_EQ(got[0]->references(), std::uint32_t(kCallers) + 1) << "one reference per caller and the shared one";
    EXPECT_EQ(constructionsRecorded(traces.handle()), 1u);
    for (auto& p : got) p = nullptr;
    EXPECT_EQ(Module::get()->references(), 2u);
}

TEST(ModuleThreadTest, SixteenFirstCallersAtOnceShareOneModuleBuiltOnce) {
    if (isFreshProcess()) return raceForTheFirstModule();
    // Every run needs a process in which no module exists yet.
    for (int run = 0; run < kRuns; ++run) ASSERT_EQ(runFreshProcess(), 0) << "run " << run;
}

}  // namespace
}  // namespace Kel::Q7Sync::Test
