// The framework's dedup hash table: sharing, self-removal on the last release, notifiee changes.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Memtrail/Memtrail.h"
#include "Oru/Dedup.h"

namespace {

struct Content : Oru::DedupContentHandle {
    std::string text;
};

class Handle : public Oru::DedupHandle {
public:
    explicit Handle(std::string t) : text(std::move(t)) {}
    std::uint32_t hash() const noexcept override { return static_cast<std::uint32_t>(text.size()); }  // collides on purpose
    bool compare(Oru::DedupHandleBase const* o) const noexcept override { return static_cast<Handle const*>(o)->text == text; }
    bool compareByContent(Oru::DedupContentHandle const& c) const noexcept override {
        return static_cast<Content const&>(c).text == text;
    }
    std::string text;
};

Lumo::Ptr<Oru::DedupHandleBase> allocate(Oru::DedupContentHandle const& c) {
    return Lumo::Ptr<Oru::DedupHandleBase>(new Handle(static_cast<Content const&>(c).text));
}

class Recorder : public Oru::DedupHashTableLifeTimeNotifiee {
public:
    mutable std::vector<std::string> events;
    mutable std::function<void(Oru::DedupHandleBase*)> onRemove;
    void handleInsert(Lumo::Ptr<Oru::DedupHandleBase> const& h) const override {
        events.push_back("insert " + static_cast<Handle const&>(*h).text);
    }
    void handleRemove(Oru::DedupHandleBase* h) const override {
        events.push_back("remove " + static_cast<Handle const*>(h)->text);
        if (onRemove) onRemove(h);
    }
    void handleNotificationStop(Lumo::Ptr<Oru::DedupHashTable const> const&) const override { events.push_back("stop"); }
};

class DedupTableTest : public ::testing::Test {
protected:
    void SetUp() override {
        table->hasNotificationActiveIs(true);
        table->lifeTimeNotifieeIs(recorder);
    }
    Lumo::Ptr<Oru::DedupHandleBase> find(std::string t) {
        Content c;
        c.text = std::move(t);
        return table->findOrDedup(c, static_cast<std::uint32_t>(c.text.size()), allocate);
    }
    Lumo::Ptr<Recorder> recorder{new Recorder()};
    Lumo::Ptr<Oru::DedupHashTable> table{new Oru::DedupHashTableUnorderedSet(true)};
};

TEST_F(DedupTableTest, EqualContentSharesOneHandleAnnouncedOnce) {
    auto a = find("abc");
    auto b = find("abc");
    auto c = find("xyz");  // same hash, other content
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
    EXPECT_TRUE(a->isDeduped());
    EXPECT_EQ(table->size(), 2u);
    EXPECT_EQ(recorder->events, (std::vector<std::string>{"insert abc", "insert xyz"}));
}

TEST_F(DedupTableTest, LastClientReleaseRemovesTheHandleAndTellsTheNotifieeFirst) {
    auto a = find("abc");
    auto again = find("abc");
    a = nullptr;
    EXPECT_EQ(table->size(), 1u);
    EXPECT_EQ(recorder->events.size(), 1u);
    bool wholeWhenTold = false;
    recorder->onRemove = [&](Oru::DedupHandleBase* h) { wholeWhenTold = static_cast<Handle*>(h)->text == "abc"; };
    again = nullptr;
    EXPECT_TRUE(wholeWhenTold);
    EXPECT_EQ(table->size(), 0u);
    EXPECT_EQ(recorder->events.back(), "remove abc");
    auto fresh = find("abc");  // a new handle for the same content
    EXPECT_TRUE(fresh->isDeduped());
    EXPECT_EQ(recorder->events.back(), "insert abc");
}

TEST_F(DedupTableTest, ReleasingAnotherLastPointerInsideHandleRemoveIsSafe) {
    Lumo::Ptr<Oru::DedupHandleBase> a = find("abc"), b = find("defg");
    recorder->onRemove = [&](Oru::DedupHandleBase*) { b = nullptr; };
    a = nullptr;
    EXPECT_EQ(table->size(), 0u);
    EXPECT_EQ(recorder->events, (std::vector<std::string>{"insert abc", "insert defg", "remove abc", "remove defg"}));
}

TEST_F(DedupTableTest, ANotifieeThrowingFromHandleRemoveIsRecordedAndTheHandleStillLeaves) {
    Memtrail::Handle records(8);
    Memtrail::Handle* const previous = Memtrail::defaultHandle();
    Memtrail::defaultHandleIs(&records);
    auto a = find("abc");
    recorder->onRemove = [](Oru::DedupHandleBase*) { throw std::runtime_error("notifiee failure"); };
    EXPECT_NO_THROW(a = nullptr);
    recorder->onRemove = nullptr;
    Memtrail::defaultHandleIs(previous);
    EXPECT_EQ(table->size(), 0u);
    ASSERT_EQ(records.size(0), 1u);
    EXPECT_NE(records.records(0).front()->text().find("notifiee threw: notifiee failure"), std::string::npos);
    EXPECT_TRUE(find("abc")->isDeduped());
}

TEST_F(DedupTableTest, DetachedNotifieeHearsStopAndNothingAfter) {
    auto a = find("abc");
    table->lifeTimeNotifieeIs(nullptr);
    EXPECT_EQ(recorder->events.back(), "stop");
    a = nullptr;
    find("new");
    EXPECT_EQ(recorder->events, (std::vector<std::string>{"insert abc", "stop"}));
}

TEST_F(DedupTableTest, HandlesOutliveTheirTable) {
    auto a = find("abc");
    table->lifeTimeNotifieeIs(nullptr);
    table = nullptr;
    EXPECT_EQ(a->getDedupHashTable(), nullptr);
    a = nullptr;  // must not reach into the destroyed table (ASan)
}

TEST(DedupStates, StoppedHandlesWereDedupedButAreNotAnyMore) {
    Lumo::Ptr<Handle> h(new Handle("x"));
    EXPECT_FALSE(h->everDeduped());
    h->dedupStateIs(Oru::DedupHandleState::notificationStopped);
    EXPECT_TRUE(h->everDeduped());
    EXPECT_FALSE(h->isDeduped());
}

} // namespace
