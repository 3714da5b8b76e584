// The framework's dedup hash table: sharing, self-removal on the last release, notifiee changes.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Memtrail/Memtrail.h"
#include "Oru/Dedup.h"

namespace {

using Log = std::vector<std::string>;

struct Content : Oru::DedupContentHandle {
    explicit Content(std::string t) : text(std::move(t)) {}
    std::string text;
};

struct Handle : Oru::DedupHandle {
    explicit Handle(std::string t) : text(std::move(t)) {}
    std::uint32_t hash() const noexcept override { return std::uint32_t(text.size()); }  // collides on purpose
    bool compare(Oru::DedupHandleBase const* o) const noexcept override { return static_cast<Handle const*>(o)->text == text; }
    bool compareByContent(Oru::DedupContentHandle const& c) const noexcept override {
        return static_cast<Content const&>(c).text == text;
    }
    std::string text;
};

// Logs "+text" for an insertion, "-text" for a removal (read whole, and " deduped" if it still counts as such).
struct Recorder : Oru::DedupHashTableLifeTimeNotifiee {
    mutable Log events;
    mutable std::function<void()> onRemove;
    void handleInsert(Lumo::Ptr<Oru::DedupHandleBase> const& h) const override {
        events.push_back("+" + static_cast<Handle const&>(*h).text);
    }
    void handleRemove(Oru::DedupHandleBase* h) const override {
        events.push_back("-" + static_cast<Handle const*>(h)->text + (h->isDeduped() ? " deduped" : ""));
        if (onRemove) onRemove();
    }
    void handleNotificationStop(Lumo::Ptr<Oru::DedupHashTable const> const&) const override { events.push_back("stop"); }
};

// The last release of one handle, told to the notifiee, releases another from inside. What the
// notifiee throws is recorded; a detached notifiee hears nothing more.
TEST(DedupTable, EqualContentSharesOneHandleWhichLeavesWithItsLastClientReference) {
    Lumo::Ptr<Recorder> recorder(new Recorder());
    Lumo::Ptr<Oru::DedupHashTable> table(new Oru::DedupHashTableUnorderedSet(true));
    table->lifeTimeNotifieeIs(recorder);
    auto find = [&](std::string text) {
        Content const c(std::move(text));
        return table->findOrDedup(c, std::uint32_t(c.text.size()), [](Oru::DedupContentHandle const& made) {
            return Lumo::Ptr<Oru::DedupHandleBase>(new Handle(static_cast<Content const&>(made).text));
        });
    };
    Memtrail::Handle records(8);
    Memtrail::Handle* const previous = Memtrail::defaultHandle();
    Memtrail::defaultHandleIs(&records);
    auto a = find("abc"), again = find("abc"), other = find("xyz");  // same hash, other content
    EXPECT_TRUE(a == again && table->size() == 2 && a->isDeduped() && a->everDeduped());
    a = nullptr;
    recorder->onRemove = [&] { other = nullptr; };
    again = nullptr;
    recorder->onRemove = [] { throw std::runtime_error("failed"); };
    find("abc");
    table->lifeTimeNotifieeIs(nullptr);
    find("defg");
    Memtrail::defaultHandleIs(previous);
    EXPECT_EQ(table->size(), 0u);
    EXPECT_EQ(recorder->events, (Log{"+abc", "+xyz", "-abc", "-xyz", "+abc", "-abc", "stop"}));
    ASSERT_EQ(records.size(0), 1u);
    EXPECT_EQ(records.records(0).front()->text(), "Oru[0] DedupHashTable::handleRemove: notifiee threw: failed");
}

} // namespace
