// Trace handles and the Memtrail rings: records always kept, formatted only when read.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Lumo/String.h"
#include "Memtrail/Memtrail.h"
#include "Wex/PtrInterface.h"
#include "Wex/Trace.h"

namespace {

// Counts how often it is formatted, to prove that a switched-off level formats nothing.
struct Counted {
    int* formats;
};

} // namespace

template <>
struct fmt::formatter<Counted> : fmt::formatter<int> {
    template <class Ctx>
    auto format(Counted const& c, Ctx& ctx) const { return fmt::formatter<int>::format(++*c.formats, ctx); }
};

namespace {

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        previous = Memtrail::defaultHandle();
        Memtrail::defaultHandleIs(&trail);
        Wex::TraceHandle::sinkIs([this](std::string_view line) { lines.emplace_back(line); });
    }
    void TearDown() override {
        Memtrail::defaultHandleIs(previous);
        Wex::TraceHandle::sinkIs(nullptr);
    }
    Memtrail::Handle trail{4};
    Memtrail::Handle* previous = nullptr;
    std::vector<std::string> lines;
};

TEST_F(TraceTest, SwitchedOffLevelWritesARecordButFormatsOnlyWhenRead) {
    Wex::TraceHandle h("TraceTestOff", false);
    int formats = 0;
    WEX_TRACE(h, 1, "Probe", "value={} name={}", Counted{&formats}, Lumo::String("x"));
    EXPECT_EQ(formats, 0);
    EXPECT_TRUE(lines.empty());
    ASSERT_EQ(trail.size(1), 1u);
    auto const* r = trail.records(1)[0];
    EXPECT_EQ(r->message(), "value=1 name=x");
    EXPECT_EQ(r->className(), "Probe");
    EXPECT_EQ(r->function(), "TestBody");
    EXPECT_EQ(r->handle(), "TraceTestOff");
}

TEST_F(TraceTest, SwitchedOnLevelFormatsAtOnceToTheSink) {
    Wex::TraceHandle h("TraceTestOn", false);
    h.levelIs(8, true);
    WEX_TRACE(h, 8, "Probe", "count {}", 3u);
    WEX_TRACE(h, 1, "Probe", "not shown");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "TraceTestOn[8] Probe::TestBody: count 3");
    EXPECT_EQ(trail.size(1), 1u);
}

TEST_F(TraceTest, LevelsSetByNameApplyToHandlesCreatedLater) {
    EXPECT_FALSE(Wex::TraceHandle::levelIs("TraceTestLater", 10, true));
    EXPECT_TRUE(Wex::TraceHandle::levelIs("TraceTestLater", 2, true));
    Wex::TraceHandle h("TraceTestLater", false);
    EXPECT_TRUE(h.levelOn(2));
    EXPECT_FALSE(h.levelOn(3));
}

TEST_F(TraceTest, PointersAreRecordedAsAddressesAndDoNotKeepObjectsAlive) {
    struct Obj : Wex::PtrInterface {};
    Wex::TraceHandle h("TraceTestPtr", false);
    void const* address = nullptr;
    {
        Lumo::Ptr<Obj> p(new Obj());
        address = p.ptr();
        WEX_TRACE(h, 1, "Probe", "ltn {}", p);
    }
    EXPECT_EQ(trail.records(1)[0]->message(), fmt::format("ltn {}", address));
}

TEST_F(TraceTest, RingKeepsTheNewestRecordsOfEachLevel) {
    Wex::TraceHandle h("TraceTestRing", false);
    for (int i = 0; i < 10; ++i) WEX_TRACE(h, 5, "Probe", "n={} {}", i, std::string(100, 'x'));  // spills to the heap
    WEX_TRACE(h, 0, "Probe", "other level");
    auto recs = trail.records(5);
    ASSERT_EQ(recs.size(), 4u);
    EXPECT_TRUE(recs.front()->message().starts_with("n=6 "));
    EXPECT_TRUE(recs.back()->message().starts_with("n=9 "));
    auto all = trail.records();
    ASSERT_EQ(all.size(), 5u);
    EXPECT_EQ(all.back()->message(), "other level");
}

} // namespace
