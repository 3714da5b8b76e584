// The keyed collection every collection attribute is made of.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Lumo/Publisher.h"
#include "Wex/Collection.h"
#include "Wex/PtrInterface.h"

namespace {

class Item : public Wex::PtrInterface {
public:
    explicit Item(std::string key) : key_(std::move(key)) {}
    std::string const& key() const noexcept { return key_; }

private:
    std::string key_;
};
using ItemPtr = Lumo::Ptr<Item const>;
using Items = Wex::Collection<std::string, ItemPtr, Wex::MemberKey<&Item::key>>;

struct Heard {
    std::string key;
    Item const* prev;
    bool presentWhenTold;
};

class CollectionTest : public ::testing::Test, public Items::Watcher {
protected:
    void SetUp() override { items.watcherIs(this, true); }
    void TearDown() override { items.watcherIs(this, false); }
    void onMember(Items const& collection, std::string const& key, ItemPtr const* prev) override {
        EXPECT_EQ(&collection, &items);
        heard.push_back({key, prev ? prev->ptr() : nullptr, items.has(key)});
        if (onHeard) onHeard(key);
    }
    static ItemPtr item(std::string k) { return ItemPtr(new Item(std::move(k))); }

    Lumo::Publisher publisher;
    Items items{"item", 130, &publisher};
    std::vector<Heard> heard;
    std::function<void(std::string const&)> onHeard;
};

TEST_F(CollectionTest, InsertReplaceAndDeleteNotifyAfterTheChangeWithThePreviousValue) {
    ItemPtr a = item("k"), b = item("k");
    items.set(a);
    items.set(a);  // the very same value: nobody is told
    items.set(b);
    EXPECT_EQ(items.get("k"), b);
    ItemPtr removed = items.del("k");
    EXPECT_EQ(removed, b);
    EXPECT_EQ(items.del("k"), nullptr);  // absent: null, nobody told
    ASSERT_EQ(heard.size(), 3u);
    EXPECT_EQ(heard[0].prev, nullptr);
    EXPECT_TRUE(heard[0].presentWhenTold);
    EXPECT_EQ(heard[1].prev, a.ptr());
    EXPECT_EQ(heard[2].prev, b.ptr());
    EXPECT_FALSE(heard[2].presentWhenTold);
}

TEST_F(CollectionTest, NullIsRefusedNamingTheAttributeAndChangesNothing) {
    items.set(item("x"));
    heard.clear();
    try {
        items.set(nullptr);
        FAIL() << "null accepted";
    } catch (Wex::NullArgumentException const& e) {
        EXPECT_EQ(e.attribute(), "item");
    }
    EXPECT_EQ(items.size(), 1u);
    EXPECT_TRUE(heard.empty());
}

TEST_F(CollectionTest, DelAllDeletesKeyByKeyWhenWatchedAndAtOnceOtherwise) {
    for (auto k : {"a", "b", "c"}) items.set(item(k));
    heard.clear();
    items.delAll();
    EXPECT_EQ(heard.size(), 3u);
    EXPECT_TRUE(items.empty());

    items.watcherIs(this, false);
    for (auto k : {"a", "b"}) items.set(item(k));
    items.delAll();
    EXPECT_TRUE(items.empty());
    EXPECT_EQ(heard.size(), 3u);
    items.watcherIs(this, true);
}

// Two collections of one type on one publisher: each watcher hears its own collection only.
TEST_F(CollectionTest, AWatcherHearsOnlyTheCollectionItWatches) {
    Items others{"other", 131, &publisher};
    others.set(item("o"));
    items.set(item("i"));
    others.del("o");
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].key, "i");
}

TEST_F(CollectionTest, SafeIterationSurvivesDeletingTheCurrentAndOtherMembers) {
    for (int i = 0; i < 50; ++i) items.set(item(std::to_string(i)));
    std::vector<std::string> visited;
    items.forEachSafe([&](ItemPtr const& it) {
        visited.push_back(it->key());
        items.del(it->key());
        int other = (std::stoi(it->key()) + 1) % 50;
        items.del(std::to_string(other));
        items.set(item("new" + it->key()));  // members added meanwhile are not visited
    });
    EXPECT_GE(visited.size(), 25u);
    EXPECT_LE(visited.size(), 50u);
    for (auto const& k : visited) EXPECT_FALSE(k.starts_with("new"));
}

TEST_F(CollectionTest, WatcherThatDeletesDuringItsNotificationSeesConsistentState) {
    onHeard = [&](std::string const& key) {
        if (key == "a" && items.has("a")) items.del("a");
    };
    items.set(item("a"));
    EXPECT_FALSE(items.has("a"));
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[1].key, "a");
}

TEST(ValueSet, StoresValuesOnceAndPassesTheValueAsPreviousOnDeletion) {
    using Numbers = Wex::Collection<int, int>;
    Lumo::Publisher p;
    struct Watcher : Numbers::Watcher {
        std::vector<std::pair<int, int>> heard;  // the key, and the previous value or -1
        void onMember(Numbers const&, int const& key, int const* prev) override {
            heard.emplace_back(key, prev ? *prev : -1);
        }
    } watcher;
    Numbers set("number", 131, &p);
    set.watcherIs(&watcher, true);
    set.set(4);
    set.set(4);
    EXPECT_TRUE(set.del(4));
    EXPECT_FALSE(set.del(4));
    EXPECT_EQ(watcher.heard, (std::vector<std::pair<int, int>>{{4, -1}, {4, 4}}));
    set.watcherIs(&watcher, false);
}

} // namespace
