// Trace handles and the Memtrail rings: every trace point recorded, the levels on also printed;
// and events run to completion, whose errors nobody else can hear of go to the rings too.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Lumo/String.h"
#include "Memtrail/Memtrail.h"
#include "Wex/PtrInterface.h"
#include "Wex/RunToCompletion.h"
#include "Wex/Trace.h"

namespace {

using Log = std::vector<std::string>;

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        Memtrail::defaultHandleIs(&trail);
        Wex::TraceHandle::sinkIs([this](std::string_view line) { lines.emplace_back(line); });
    }
    void TearDown() override {
        Memtrail::defaultHandleIs(previous);
        Wex::TraceHandle::sinkIs(nullptr);
    }
    Log texts() const {
        Log out;
        for (Memtrail::Record const* r : trail.records()) out.push_back(r->text());
        return out;
    }
    Memtrail::Handle trail{4};
    Memtrail::Handle* const previous = Memtrail::defaultHandle();
    Log lines;
};

// A level set by name applies to the handles of that name, made before or after. A level on is
// printed at once; every trace point is recorded, the newest ones of each level kept, a pointer as
// its address (the object has gone before the record is read).
TEST_F(TraceTest, ALevelOnIsPrintedAndTheRingsKeepTheNewestRecordsOfEachLevel) {
    Wex::TraceHandle before("TraceTestLevels", false), all("TraceTestAll", true);
    delete new Wex::TraceHandle("TraceTestLevels", false);  // leaves the registry as it goes (ASan)
    EXPECT_FALSE(Wex::TraceHandle::levelIs("TraceTestLevels", 10, true));
    EXPECT_TRUE(Wex::TraceHandle::levelIs("TraceTestLevels", 8, true));
    Wex::TraceHandle h("TraceTestLevels", false);
    h.levelIs(10, true);
    EXPECT_TRUE(before.levelOn(8) && !before.levelOn(3) && all.levelOn(0) && all.levelOn(9) && !all.levelOn(10));
    WEX_TRACE(h, 1, "Probe", "value={} name={}", 2, Lumo::String("x"));
    WEX_TRACE(h, 8, "Probe", "count {}", 3u);
    for (int i = 0; i < 10; ++i) WEX_TRACE(h, 5, "Probe", "n={} {}", i, std::string(100, 'x'));  // spills out
    struct Obj : Wex::PtrInterface {};
    Lumo::Ptr<Obj> gone(new Obj());
    void const* const address = gone.ptr();
    WEX_TRACE(h, 0, "Probe", "ltn {}", gone);
    gone = nullptr;
    EXPECT_EQ(lines, Log{"TraceTestLevels[8] Probe::TestBody: count 3"});
    Log expected{"TraceTestLevels[1] Probe::TestBody: value=2 name=x", lines[0]};
    for (int i = 6; i < 10; ++i)
        expected.push_back(fmt::format("TraceTestLevels[5] Probe::TestBody: n={} {}", i, std::string(100, 'x')));
    expected.push_back(fmt::format("TraceTestLevels[0] Probe::TestBody: ltn {}", address));
    EXPECT_EQ(texts(), expected);
    EXPECT_TRUE(trail.size(5) == 4 && trail.size(10) == 0);
}

// What is posted while an event runs waits for it. A queued event's error can reach nobody: it is
// recorded and the others still run; the outermost event's error reaches its caller once they have.
TEST_F(TraceTest, EventsPostedWhileOneRunsWaitForItAndWhatTheyThrowIsRecorded) {
    Wex::RunToCompletion events;
    Log ran;
    EXPECT_THROW(events.post([&] {
        events.post([&] {
            events.post([&] { ran.push_back("posted by the first"); });
            throw std::runtime_error("queued failure");
        });
        events.now([&] { events.post([] { throw 42; }); });
        EXPECT_TRUE(events.running() && events.queued() == 2);
        ran.push_back("outer ends");
        throw std::logic_error("outer failure");
    }),
                 std::logic_error);
    events.post([&] { ran.push_back("next, at once"); });
    EXPECT_FALSE(events.running());
    EXPECT_EQ(ran, (Log{"outer ends", "posted by the first", "next, at once"}));
    EXPECT_EQ(texts(), (Log{"Wex[0] RunToCompletion::runQueued: queued event threw: queued failure",
                            "Wex[0] RunToCompletion::runQueued: queued event threw a non-standard exception"}));
}

} // namespace
