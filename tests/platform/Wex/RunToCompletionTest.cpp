// Events that run to completion: what is posted while one runs waits for it, in order.
#include "Wex/RunToCompletion.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Memtrail/Memtrail.h"

namespace {

class RunToCompletionTest : public ::testing::Test {
protected:
    RunToCompletionTest() : previous_(Memtrail::defaultHandle()) { Memtrail::defaultHandleIs(&records_); }
    ~RunToCompletionTest() override { Memtrail::defaultHandleIs(previous_); }

    Wex::RunToCompletion events;
    std::vector<std::string> ran;
    Memtrail::Handle records_{16};

private:
    Memtrail::Handle* previous_;
};

// An event posted from inside another, even from work run at once inside it, runs after the
// one under way and those posted before it, and before the outermost call returns.
TEST_F(RunToCompletionTest, EventsPostedWhileOneRunsWaitForItInTheirOrder) {
    events.post([&] {
        ran.push_back("outer begins");
        events.post([&] {
            ran.push_back("first posted");
            events.post([&] { ran.push_back("posted by the first"); });
        });
        events.now([&] {
            ran.push_back("now, inside");
            events.post([&] { ran.push_back("second posted"); });
        });
        ran.push_back("outer ends");
    });
    EXPECT_EQ(ran, (std::vector<std::string>{"outer begins", "now, inside", "outer ends", "first posted",
                                             "second posted", "posted by the first"}));
    EXPECT_FALSE(events.running());
    EXPECT_EQ(events.queued(), 0u);
}

// The outermost event's error reaches its caller once the queued events have run; a queued
// event's error can reach nobody: it is recorded, and the others still run.
TEST_F(RunToCompletionTest, ErrorsLeaveNoEventBehind) {
    EXPECT_THROW(events.now([&] {
        events.post([&] { throw std::runtime_error("queued failure"); });
        events.post([&] { ran.push_back("after the queued failure"); });
        throw std::logic_error("outer failure");
    }),
                 std::logic_error);
    EXPECT_EQ(ran, std::vector<std::string>{"after the queued failure"});
    EXPECT_FALSE(events.running());
    auto const recorded = records_.records(0);
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0]->message(), "queued event threw: queued failure");
    events.post([&] { ran.push_back("next"); });
    EXPECT_EQ(ran.back(), "next");
}

} // namespace
