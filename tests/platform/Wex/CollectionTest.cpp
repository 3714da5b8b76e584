// The keyed collection every collection attribute is made of.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "Lumo/Publisher.h"
#include "Wex/Collection.h"
#include "Wex/PtrInterface.h"

namespace {

struct Item : Wex::PtrInterface {
    Item(std::string key, std::string label) : k(std::move(key)), label(std::move(label)) {}
    std::string const& key() const noexcept { return k; }
    std::string const k, label;
};
using ItemPtr = Lumo::Ptr<Item const>;
using Items = Wex::Collection<std::string, ItemPtr, Wex::MemberKey<&Item::key>>;
using Log = std::vector<std::string>;

ItemPtr item(std::string key, std::string label = "") { return ItemPtr(new Item(key, label.empty() ? key : label)); }

// Logs each change it hears as "<key> <label replaced> -> <label in place>", '-' for none.
class CollectionTest : public ::testing::Test, public Items::Watcher {
protected:
    void SetUp() override { items.watcherIs(this, true); }
    void TearDown() override { items.watcherIs(this, false); }
    void onMember(Items const& collection, std::string const& key, ItemPtr const* prev) override {
        ItemPtr const now = collection.get(key);
        heard.push_back(key + " " + (prev ? (*prev)->label : "-") + " -> " + (now ? now->label : "-"));
    }
    Lumo::Publisher publisher;
    Items items{"item", 130, &publisher};
    Log heard;
};

TEST_F(CollectionTest, ChangesAreToldOnceMadeWithTheValueTheyReplacedAndDelAllTellsEachWhenWatched) {
    ItemPtr const first = item("k", "first"), second = item("k", "second");
    EXPECT_EQ(items.set(first), first);
    items.set(first);  // the very same value: nobody is told
    items.set(second);
    items.set(item("j"));
    EXPECT_EQ(items.del("k"), second);
    EXPECT_EQ(items.del("k"), nullptr);  // absent: nobody is told
    EXPECT_THROW(items.set(nullptr), Wex::NullArgumentException);
    EXPECT_TRUE(items.size() == 1 && items.has("j") && !items.has("k") && !items.get("k"));
    EXPECT_EQ(heard, (Log{"k - -> first", "k first -> second", "j - -> j", "k second -> -"}));
    // Watched, delAll deletes key by key, each told; with nobody on the publisher, at once.
    for (int i = 0; i < 50; ++i) items.set(item(std::to_string(i)));
    items.delAll();
    std::set<std::string> const told(heard.begin(), heard.end());
    EXPECT_TRUE(told.size() == 105 && told.count("j j -> -") && told.count("0 0 -> -") && told.count("49 49 -> -"));
    items.watcherIs(this, false);
    items.set(item("a"));
    items.delAll();
    EXPECT_TRUE(items.empty());
    EXPECT_EQ(heard.size(), 105u);
}

} // namespace
