// Counted pointers and the lifecycle checks of the framework's counted objects.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Lumo/Ptr.h"
#include "Lumo/SmallBlocks.h"
#include "Lumo/String.h"
#include "Wex/PtrInterface.h"

namespace {

class Tracked : public Wex::PtrInterface {
public:
    explicit Tracked(int* deaths, Lumo::Ptr<Tracked> next = nullptr) : next_(std::move(next)), deaths_(deaths) {}
    Lumo::Ptr<Tracked> next_;

protected:
    ~Tracked() override { ++*deaths_; }

private:
    int* deaths_;
};

TEST(Ptr, CountsCopiesAndMovesAndDeletesWithTheLast) {
    int deaths = 0;
    Lumo::Ptr<Tracked> a(new Tracked(&deaths));
    EXPECT_EQ(a->references(), 1u);
    {
        Lumo::Ptr<Tracked> b = a;
        Lumo::Ptr<Tracked const> c = b;
        EXPECT_EQ(a->references(), 3u);
        Lumo::Ptr<Tracked const> d = std::move(c);
        EXPECT_EQ(c, nullptr);
        EXPECT_EQ(a->references(), 3u);
    }
    EXPECT_EQ(a->references(), 1u);
    a = nullptr;
    EXPECT_EQ(deaths, 1);
}

TEST(Ptr, SelfAssignmentKeepsTheObject) {
    int deaths = 0;
    Lumo::Ptr<Tracked> a(new Tracked(&deaths));
    auto& alias = a;
    a = alias;
    EXPECT_EQ(deaths, 0);
    EXPECT_EQ(a->references(), 1u);
}

TEST(Ptr, AssigningFromAnObjectOwnedOnlyByTheOldValueIsSafe) {
    int deaths = 0;
    Lumo::Ptr<Tracked> head(new Tracked(&deaths, Lumo::Ptr<Tracked>(new Tracked(&deaths))));
    // head->next_ is kept alive only by head; the new reference must be taken first.
    head = head->next_;
    EXPECT_EQ(deaths, 1);
    ASSERT_TRUE(head);
    EXPECT_EQ(head->references(), 1u);
}

TEST(Ptr, CastsKeepTheCount) {
    int deaths = 0;
    Lumo::Ptr<Wex::PtrInterface> base(new Tracked(&deaths));
    Lumo::Ptr<Tracked> down = Lumo::ptr_cast<Tracked>(base);
    ASSERT_TRUE(down);
    EXPECT_EQ(base->references(), 2u);
    EXPECT_FALSE((Lumo::ptr_cast<Wex::PtrInterface::NotifieeConst>(base)));
}

TEST(String, CopiesShareTheTextAndCompareByContent) {
    Lumo::String a("remote/path");
    Lumo::String b = a;
    Lumo::String c(std::string("remote/path"));
    EXPECT_EQ(a.c_str(), b.c_str());
    EXPECT_EQ(a, c);
    EXPECT_LT(Lumo::String("a"), Lumo::String("b"));
    EXPECT_TRUE(Lumo::String("").empty());
    EXPECT_EQ(Lumo::String().size(), 0u);
    EXPECT_STREQ(Lumo::String().c_str(), "");
}

// Each length up to four words, each byte in turn: a hash that skipped a byte (in the middle
// of a long text, or between the overlapping tail words) would give two of them one hash.
TEST(String, EveryByteOfTheTextChangesTheHash) {
    for (std::size_t n = 1; n <= 64; ++n) {
        std::string const base(n, 'a');
        std::set<std::uint32_t> hashes{Lumo::String(base).hash()};
        for (std::size_t i = 0; i < n; ++i) {
            std::string changed = base;
            changed[i] = 'b';
            hashes.insert(Lumo::String(changed).hash());
        }
        EXPECT_EQ(hashes.size(), n + 1) << "length " << n;
        EXPECT_EQ(Lumo::String(base).hash(), Lumo::String(std::string_view(base)).hash());
    }
}

// Parts of every length up to past the word-copy cases, each byte distinct: a copy that
// dropped, doubled or misplaced a byte at a part's edge shows in the text.
TEST(String, ConcatJoinsPartsOfEveryLength) {
    std::string alphabet;
    for (int i = 0; i < 40; ++i) alphabet += char('A' + i);
    for (std::size_t n = 0; n <= 40; ++n) {
        std::string_view const part(alphabet.data(), n);
        Lumo::String const joined = Lumo::String::concat({"<", part, "|", part, ">"});
        std::string const expected = "<" + std::string(part) + "|" + std::string(part) + ">";
        EXPECT_EQ(joined.view(), expected) << "length " << n;
        EXPECT_EQ(joined.hash(), Lumo::String(expected).hash());
        EXPECT_EQ(joined.c_str()[joined.size()], '\0');
        EXPECT_EQ(Lumo::String(part).view(), part);
    }
    EXPECT_TRUE(Lumo::String::concat({"", ""}).empty());
}

#ifndef NDEBUG
class Plain : public Wex::PtrInterface {
public:
    Plain() = default;
    ~Plain() override = default;
};

TEST(LifecycleDeathTest, CountUnderflowAborts) {
    // An object that was never counted: releasing a reference it does not have.
    EXPECT_DEATH(
        {
            Plain p;
            p.deleteRef();
        },
        "count underflow");
}

class TakesCountWhileDying : public Wex::PtrInterface {
protected:
    ~TakesCountWhileDying() override { Lumo::Ptr<TakesCountWhileDying> again(this); again.detach(); }
};

TEST(LifecycleDeathTest, CountTakenDuringDestructionAborts) {
    EXPECT_DEATH({ Lumo::Ptr<TakesCountWhileDying> p(new TakesCountWhileDying()); }, "count taken during destruction");
}

TEST(LifecycleDeathTest, DeletingACountedObjectAborts) {
    EXPECT_DEATH(
        {
            auto* p = new Plain();
            Lumo::Ptr<Plain> held(p);
            delete p;
        },
        "object deleted while counted");
}

TEST(LifecycleDeathTest, PublisherDestroyedWithSubscribersAborts) {
    struct Sub : Lumo::Subscriber {
        void onPublish(Lumo::Publisher const&, Lumo::Change const&) override {}
    };
    EXPECT_DEATH(
        {
            Sub s;
            auto* p = new Lumo::Publisher();
            p->subscriberIs(&s);
            delete p;
        },
        "destroyed with 1 subscriber");
}

TEST(Lifecycle, LiveObjectsAreCounted) {
    long const before = Wex::PtrInterface::liveObjects();
    {
        Lumo::Ptr<Plain> p(new Plain());
        EXPECT_EQ(Wex::PtrInterface::liveObjects(), before + 1);
    }
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), before);
}
#endif

} // namespace

namespace {

// Strings are made by text; a different text per object keeps their buffers apart.
struct Bulky : Wex::PtrInterface {
    explicit Bulky(int i) : text(std::to_string(i) + " a text long enough for a buffer of its own") {}
    Lumo::String text;
    char payload[200] = {};
};

} // namespace

TEST(SmallBlocks, CountedObjectsAndBuffersAreInUseUntilTheirLastReferenceGoes) {
    std::size_t const before = Lumo::smallBlockBytesInUse();
    std::vector<Lumo::Ptr<Wex::PtrInterface>> held;
    for (int i = 0; i < 1000; ++i) held.emplace_back(new Bulky(i));
    std::size_t const during = Lumo::smallBlockBytesInUse();
    if (before == 0 && during == 0) GTEST_SKIP() << "built with blocks from malloc";
    // Deleted through the base: the block is the derived object's, with its string buffer.
    EXPECT_GE(during - before, 1000 * (sizeof(Bulky) + 40));
    held.clear();
    EXPECT_LE(Lumo::smallBlockBytesInUse(), before + 4096);
}
