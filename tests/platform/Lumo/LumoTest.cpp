// The Lumo library: counted pointers and their lifecycle checks, shared strings, the publisher.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Lumo/Ptr.h"
#include "Lumo/Publisher.h"
#include "Lumo/SmallBlocks.h"
#include "Lumo/String.h"
#include "Memtrail/Memtrail.h"
#include "Wex/PtrInterface.h"

namespace {

using Log = std::vector<std::string>;

// Logs "<name><attribute>" for each change it hears, then does what the test asks.
struct Probe : Lumo::Subscriber {
    Probe(Log* log, char name) : log(log), name(name) {}
    void onPublish(Lumo::Publisher const&, Lumo::Change const& change) override {
        log->push_back(name + std::to_string(change.attribute));
        if (act) act(change);
    }
    Log* log;
    char name;
    std::function<void(Lumo::Change const&)> act;
};

// One who leaves during a delivery is not called again; one who joins hears from the next change
// on; a subscriber destroying the publisher ends the delivery, which touches nothing of it (ASan).
TEST(Publisher, SubscribersJoiningLeavingThrowingOrDestroyingThePublisherDuringDeliveries) {
    Memtrail::Handle trail(16);
    Memtrail::Handle* const previous = Memtrail::defaultHandle();
    Memtrail::defaultHandleIs(&trail);
    Log log;
    Probe a{&log, 'a'}, b{&log, 'b'}, c{&log, 'c'}, d{&log, 'd'};
    auto p = std::make_unique<Lumo::Publisher>();
    a.act = [&](Lumo::Change const& ch) {
        if (ch.attribute != 130) return;
        p->subscriberDel(&b);
        p->subscriberIs(&d);
        p->publishChangeRecursive(140);
    };
    c.act = [&](Lumo::Change const& ch) {
        if (ch.attribute == 150) throw std::runtime_error("handler failed");
        if (ch.attribute != 160) return;
        for (Probe* s : {&c, &d}) p->subscriberDel(s);
        p.reset();
    };
    d.act = [](Lumo::Change const& ch) { if (ch.attribute == 150) throw 42; };
    for (Probe* s : {&a, &b, &a, &c}) p->subscriberIs(s);
    p->publishChangeRecursive(130);
    EXPECT_TRUE(p->subscribers() == 3 && p->subscriberHas(&d) && !p->subscriberHas(&b));
    p->subscriberDel(&a);
    p->publishChangeRecursive(150);
    p->publishChangeRecursive(160);
    Memtrail::defaultHandleIs(previous);
    EXPECT_EQ(log, (Log{"a130", "a140", "c140", "d140", "c130", "c150", "d150", "c160"}));
    auto const records = trail.records(0);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]->text(), "Lumo[0] Publisher::publishChangeRecursive: subscriber threw: handler failed");
}

struct Tracked : Wex::PtrInterface {
    Tracked(int* deaths, Lumo::Ptr<Tracked> next = nullptr) : next(std::move(next)), deaths(deaths) {}
    ~Tracked() override { ++*deaths; }
    Lumo::Ptr<Tracked> next;
    int* deaths;
};

TEST(Ptr, CountsCastsAndAssignmentsKeepTheCountAndTheLastReferenceDeletes) {
    int deaths = 0;
    Lumo::Ptr<Tracked> head(new Tracked(&deaths, Lumo::Ptr<Tracked>(new Tracked(&deaths))));
    Lumo::Ptr<Wex::PtrInterface> base = head;
    EXPECT_TRUE(Lumo::ptr_cast<Tracked>(base) == head.ptr() && !Lumo::ptr_cast<Wex::PtrInterface::NotifieeConst>(base));
    EXPECT_EQ(head->references(), 2u);
    base = nullptr;
    // The new reference is taken before the old one goes: the sanitizers see the rest.
    auto& alias = head;
    head = alias;
    EXPECT_EQ(deaths, 0);
    head = head->next;  // held by the old value alone
    EXPECT_EQ(deaths, 1);
}

#ifndef NDEBUG
struct Plain : Wex::PtrInterface {};

struct TakesCountWhileDying : Wex::PtrInterface {
    ~TakesCountWhileDying() override { Lumo::Ptr<TakesCountWhileDying>(this).detach(); }
};

TEST(LifecycleDeathTest, EachBrokenRuleAbortsWithItsMessage) {
    EXPECT_DEATH(Plain().deleteRef(), "count underflow");
    EXPECT_DEATH(Lumo::Ptr<TakesCountWhileDying>(new TakesCountWhileDying()), "count taken during destruction");
    EXPECT_DEATH(delete Lumo::Ptr<Plain>(new Plain()).detach(), "object deleted while counted");
    EXPECT_DEATH(
        {
            Log log;
            Probe s(&log, 's');
            auto* p = new Lumo::Publisher();
            p->subscriberIs(&s);
            delete p;
        },
        "destroyed with 1 subscriber");
}
#endif

// Every length up to four words, each byte distinct: a hash that skipped a byte, or a copy that
// dropped, doubled or misplaced one at a part's edge, shows at one of them.
TEST(String, EveryByteCountsInTheHashTheCopyAndTheComparison) {
    std::size_t const blocksBefore = Lumo::smallBlockBytesInUse();
    std::string const alphabet = "0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`abcdefghijklmnopq";
    for (std::size_t n = 0; n <= 64; ++n) {
        SCOPED_TRACE(n);
        std::string const text = alphabet.substr(0, n), expected = "<" + text + "|" + text + ">";
        Lumo::String const s(text), copy = s, joined = Lumo::String::concat({"<", text, "|", text, ">"});
        EXPECT_TRUE(copy.c_str() == s.c_str() && s.view() == text && s.size() == n && s.empty() == (n == 0));
        EXPECT_TRUE(joined == Lumo::String(expected) && joined.view() == expected && !joined.c_str()[joined.size()]);
        EXPECT_EQ(joined.hash(), Lumo::String(expected).hash());
        std::set<std::uint32_t> hashes{s.hash()};
        for (std::size_t i = 0; i < n; ++i) hashes.insert(Lumo::String(std::string(text).replace(i, 1, "~")).hash());
        EXPECT_EQ(hashes.size(), n + 1);
    }
    EXPECT_TRUE(Lumo::String::concat({"", ""}).empty());
    EXPECT_LE(Lumo::smallBlockBytesInUse(), blocksBefore + 4096);  // every buffer went with its last copy
}

} // namespace
