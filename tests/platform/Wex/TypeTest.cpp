// Type tables, generic access by attribute name, and directories that make entities by type.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "Kivu/IpGenAddr.h"
#include "Wex/Entity.h"
#include "Wex/EntryMap.h"
#include "Wex/Type.h"

namespace {

class Widget : public Wex::Entity {
public:
    explicit Widget(Lumo::String name) : Wex::Entity(std::move(name)) {}
    unsigned size() const { return size_; }
    void sizeIs(unsigned s) { size_ = s; }
    unsigned grow(unsigned by) { return size_ += by; }
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Widget>(); }

private:
    unsigned size_ = 1;
};

class Gadget : public Widget {
public:
    explicit Gadget(Lumo::String name) : Widget(std::move(name)) {}
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Gadget>(); }
};

// Made by its owner from construction values, which it cannot be made again with.
class Slot : public Wex::PtrInterface {
public:
    Slot(Lumo::String key, unsigned size) : key_(std::move(key)), size_(size) {}
    Lumo::String const& key() const noexcept { return key_; }
    unsigned size() const noexcept { return size_; }

private:
    Lumo::String key_;
    unsigned size_;
};

// Owns one collection of each kind reflection writes: plain entries (as a container type keeps
// a peer's state), counted members, and members it makes itself. Every change is published.
class Shelf : public Wex::Entity {
public:
    using Labels = Wex::EntryMap<Lumo::String, Lumo::String>;
    using Widgets = Wex::Collection<Lumo::String, Lumo::Ptr<Widget>, Wex::MemberKey<&Wex::Entity::name>>;
    using Slots = Wex::Collection<Lumo::String, Lumo::Ptr<Slot>, Wex::MemberKey<&Slot::key>>;

    explicit Shelf(Lumo::String name) : Wex::Entity(std::move(name)) {}

    Labels const& label() const noexcept { return label_; }
    void labelIs(Lumo::String const& key, Lumo::String const& value) { label_.set({key, value}); }
    Lumo::String labelDel(Lumo::String const& key) { return label_.del(key).value; }
    void labelDelAll() { label_.delAll(); }

    Widgets const& widget() const noexcept { return widget_; }
    void widgetIs(Lumo::Ptr<Widget> const& w) { widget_.set(w); }
    Lumo::Ptr<Widget> widgetDel(Lumo::String const& name) { return widget_.del(name); }

    Slots const& slot() const noexcept { return slot_; }
    Lumo::Ptr<Slot> slotIs(Lumo::String const& key, unsigned size) {
        if (Lumo::Ptr<Slot> held = slot_.get(key)) {
            if (held->size() != size) throw Wex::ReInstantiationException("size");
            return held;
        }
        return slot_.set(Lumo::Ptr<Slot>(new Slot(key, size)));
    }

    bool open = false;
    Kivu::IpGenAddr addr;
    Lumo::Ptr<Widget> favourite;

    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Shelf>(); }

private:
    mutable Lumo::Publisher publisher_;
    Labels label_{"label", 130, &publisher_};
    Widgets widget_{"widget", 131, &publisher_};
    Slots slot_{"slot", 132, &publisher_};
};

Wex::WexModuleRegistrar registrar("tests/Reflection", [](Wex::WexModule& m) {
    m.type<Widget>("Test::Widget")
        .base<Wex::Entity>()
        .attribute("size", [](Widget const& w) { return w.size(); }, [](Widget& w, unsigned s) { w.sizeIs(s); })
        .readOnly("twice", [](Widget const& w) { return 2 * w.size(); })
        .operation("grow", {"by"}, [](Widget& w, Wex::Args const& a) { return w.grow(a.get<unsigned>("grow", "by")); })
        .entityMaker();
    m.type<Gadget>("Test::Gadget").base<Widget>().entityMaker();
    m.type<Shelf>("Test::Shelf")
        .base<Wex::Entity>()
        .collection("label", [](Shelf const& s) -> auto const& { return s.label(); })
        .memberIs({"key", "value"}, &Shelf::labelIs)
        .memberDel(&Shelf::labelDel)
        .memberDelAll(&Shelf::labelDelAll)
        .collection("widget", [](Shelf const& s) -> auto const& { return s.widget(); })
        .memberIs(&Shelf::widgetIs)
        .memberDel(&Shelf::widgetDel)
        // The same map, showing each widget's size: read-only.
        .collection("widgetSize", [](Shelf const& s) -> auto const& { return s.widget(); },
                    [](Lumo::Ptr<Widget> const& w) { return w->size(); })
        .collection("slot", [](Shelf const& s) -> auto const& { return s.slot(); })
        .memberIs({"key", "size"}, &Shelf::slotIs)
        .attribute("open", [](Shelf const& s) { return s.open; }, [](Shelf& s, bool o) { s.open = o; })
        .attribute("addr", [](Shelf const& s) { return s.addr; }, [](Shelf& s, Kivu::IpGenAddr const& a) { s.addr = a; })
        .attribute("favourite", [](Shelf const& s) { return s.favourite; },
                   [](Shelf& s, Lumo::Ptr<Widget> const& w) { s.favourite = w; })
        .entityMaker();
});

TEST(Reflection, TypesAreFoundByNameWithTheirDescent) {
    auto const* widget = Wex::typeNode("Test::Widget");
    auto const* gadget = Wex::typeNode("Test::Gadget");
    ASSERT_NE(widget, nullptr);
    ASSERT_NE(gadget, nullptr);
    EXPECT_EQ(Wex::typeNode("Test::Nothing"), nullptr);
    EXPECT_TRUE(gadget->isDerived(widget));
    EXPECT_TRUE(gadget->isDerived(Wex::typeNode("Wex::Entity")));
    EXPECT_FALSE(widget->isDerived(gadget));
    EXPECT_TRUE(Wex::typeLess(widget, gadget));
    EXPECT_FALSE(Wex::typeLess(gadget, widget));
    EXPECT_FALSE(Wex::typeLess(widget, widget));
}

TEST(Reflection, AttributesComeInDeclarationOrderBaseFirst) {
    std::vector<std::string> names;
    for (auto const* a : Wex::typeNode("Test::Gadget")->allAttrs()) names.emplace_back(a->name());
    EXPECT_EQ(names, (std::vector<std::string>{"name", "size", "twice", "grow"}));
}

TEST(Reflection, GenericReadWriteAndCallByName) {
    auto const* type = Wex::typeNode("Test::Gadget");
    Lumo::Ptr<Wex::Entity> g = type->newEntity("g");
    Wex::GenericIf gi = type->genericIf(g);
    type->attrOrThrow("size").genericIfSet(gi, Wex::Args{{"size", Wex::Value::of(5u)}});
    EXPECT_EQ(*type->attrOrThrow("twice").genericIfGet(gi).as<unsigned>(), 10u);
    EXPECT_EQ(type->attrOrThrow("grow").genericIfCall(gi, {{"by", Wex::Value::of(2u)}}).text(), "7");
    type->attrOrThrow("size").genericIfSet(gi, {});  // no arguments: back to the initial value
    EXPECT_EQ(static_cast<Widget&>(*g).size(), 0u);
    EXPECT_EQ(type->attrOrThrow("name").genericIfGet(gi).text(), "'g'");
}

TEST(Reflection, BadAccessIsRefusedNamingTheAttribute) {
    auto const* type = Wex::typeNode("Test::Widget");
    Lumo::Ptr<Wex::Entity> w = type->newEntity("w");
    Wex::GenericIf gi = type->genericIf(w);
    EXPECT_THROW(type->attrOrThrow("twice").genericIfSet(gi, {}), Wex::AttributeAccessException);
    EXPECT_THROW(type->attrOrThrow("missing"), Wex::AttributeAccessException);
    EXPECT_THROW(type->attrOrThrow("grow").genericIfCall(gi, {}), Wex::NewEntityArgsException);
    EXPECT_THROW(type->attrOrThrow("size").genericIfSet(gi, {{"size", Wex::Value::of(std::string("x"))}}),
                 Wex::NewEntityArgsException);
    EXPECT_EQ(static_cast<Widget&>(*w).size(), 1u);
    try {
        type->newValue({{"name", Wex::Value::of(Lumo::String("n"))}, {"colour", Wex::Value::of(3)}});
        FAIL();
    } catch (Wex::NewEntityArgsException const& e) {
        EXPECT_EQ(e.attribute(), "colour");
    }
    EXPECT_THROW(Wex::typeNode("Test::Gadget")->genericIf(Lumo::Ptr<Wex::PtrInterface>(w)), Wex::AttributeAccessException);
}

TEST(Reflection, ATypeIsUnknownOnceItsTableIsUnregistered) {
    struct Temporary {};
    {
        Wex::WexModuleRegistrar table("tests/Temporary", [](Wex::WexModule& m) { m.type<Temporary>("Test::Temporary"); });
        EXPECT_EQ(Wex::typeNode("Test::Temporary"), &table.module().types().front());
        EXPECT_EQ(Wex::wexTypeOf<Temporary>(), Wex::typeNode("Test::Temporary"));
    }
    EXPECT_EQ(Wex::typeNode("Test::Temporary"), nullptr);
    EXPECT_EQ(Wex::wexTypeOf<Temporary>(), nullptr);
    EXPECT_NE(Wex::typeNode(std::string("Test::Widget")), nullptr);
}

TEST(Reflection, ValuesTellTheirHashAndTruthWhereTheirTypeHasThem) {
    struct Point {
        unsigned x = 0;
        std::uint32_t hash(std::uint32_t seed) const noexcept { return seed * 31 + x + 1; }
        explicit operator bool() const noexcept { return x != 0; }
    };
    EXPECT_EQ(Wex::Value::of(Point{7}).hash(), Point{7}.hash(0));
    EXPECT_EQ(Wex::Value::of(Point{7}).truth(), true);
    EXPECT_EQ(Wex::Value::of(Point{}).truth(), false);
    EXPECT_EQ(Wex::Value::of(Lumo::Ptr<Widget>()).truth(), false);
    EXPECT_EQ(Wex::Value::of(Lumo::String("s")).hash(), std::nullopt);
    EXPECT_EQ(Wex::Value::of(Lumo::String("s")).truth(), std::nullopt);
    EXPECT_EQ(Wex::Value().hash(), std::nullopt);
}

TEST(Reflection, PlainAttributesAreWrittenFromTextWithTheirTypesReader) {
    auto const* type = Wex::typeNode("Test::Shelf");
    Lumo::Ptr<Wex::Entity> entity = type->newEntity("s");
    auto& shelf = static_cast<Shelf&>(*entity);
    Wex::GenericIf gi = type->genericIf(entity);
    struct Write {
        char const* attribute;
        char const* text;
        char const* reads;
    };
    for (Write const& w : {Write{"open", "true", "true"}, Write{"addr", "10.1.2.3", "10.1.2.3"}, Write{"open", "false", "false"}}) {
        type->attrOrThrow(w.attribute).genericIfSetFromText(gi, w.text);
        EXPECT_EQ(type->attrOrThrow(w.attribute).genericIfGet(gi).text(), w.reads) << w.attribute << " " << w.text;
    }
    // Bad text, a type without a text form, text left over: refused naming the attribute.
    shelf.favourite = Lumo::Ptr<Widget>(new Widget("w"));
    for (Write const& w : {Write{"open", "yes", ""}, Write{"addr", "10.1.2", ""}, Write{"addr", "10.1.2.4 x", ""},
                           Write{"favourite", "null", ""}}) {
        try {
            type->attrOrThrow(w.attribute).genericIfSetFromText(gi, w.text);
            ADD_FAILURE() << w.attribute << " written from '" << w.text << "'";
        } catch (Wex::RangeException const& e) {
            EXPECT_EQ(e.attribute(), w.attribute);
        }
    }
    EXPECT_FALSE(shelf.open);
    EXPECT_EQ(Kivu::valueToStrep(shelf.addr), "10.1.2.3");
    EXPECT_TRUE(shelf.favourite);
    EXPECT_THROW(Wex::typeNode("Test::Widget")->attrOrThrow("twice").setFromText(entity.ptr(), "3"),
                 Wex::AttributeAccessException);
}

// Records what watchers of a shelf hear: the attribute, the key and whether it came with a
// previous value.
class ShelfWatcher : public Lumo::Subscriber {
public:
    explicit ShelfWatcher(Shelf const& shelf) : shelf_(shelf) { shelf_.notifieeList()->subscriberIs(this); }
    ShelfWatcher(ShelfWatcher const&) = delete;
    ShelfWatcher& operator=(ShelfWatcher const&) = delete;
    ~ShelfWatcher() { shelf_.notifieeList()->subscriberDel(this); }
    void onPublish(Lumo::Publisher const&, Lumo::Change const& c) override {
        heard.push_back(fmt::format("{} {} {}", c.attribute, *static_cast<Lumo::String const*>(c.key),
                                    c.prev ? "replaced" : "new"));
    }
    std::vector<std::string> heard;

private:
    Shelf const& shelf_;
};

class CollectionReflectionTest : public ::testing::Test {
protected:
    static Lumo::Ptr<Shelf> makeShelf() {
        return Lumo::ptr_cast<Shelf>(Wex::typeNode("Test::Shelf")->newEntity("shelf"));
    }
    static Wex::Value key(char const* k) { return Wex::Value::of(Lumo::String(k)); }
    static Wex::WexAttr const& attr(char const* name) { return Wex::typeNode("Test::Shelf")->attrOrThrow(name); }
    static Wex::GenericIf view(Lumo::Ptr<Shelf> const& s) {
        return Wex::typeNode("Test::Shelf")->genericIf(Lumo::Ptr<Wex::PtrInterface>(s));
    }
};

TEST_F(CollectionReflectionTest, EntriesWrittenFromTextOrValuesNotifyExactlyAsTheTypedCalls) {
    Lumo::Ptr<Shelf> typed = makeShelf(), reflected = makeShelf();
    ShelfWatcher typedWatcher(*typed), reflectedWatcher(*reflected);
    Wex::WexAttr const& label = attr("label");
    Wex::GenericIf const gi = view(reflected);
    struct Step {
        std::function<void(Shelf&)> typed;
        std::function<Wex::Value()> reflected;
        char const* returns;
    };
    Step const steps[] = {
        {[](Shelf& s) { s.labelIs("a", "x"); }, [&] { return label.genericIfMemberIsFromText(gi, "'a'", "'x'"); }, ""},
        {[](Shelf& s) { s.labelIs("a", "x"); }, [&] { return label.genericIfMemberIsFromText(gi, "'a'", "'x'"); }, ""},
        {[](Shelf& s) { s.labelIs("a", "y"); },
         [&] { return label.genericIfMemberIs(gi, {{"key", key("a")}, {"value", key("y")}}); }, ""},
        {[](Shelf& s) { s.labelIs("b", "z"); }, [&] { return label.genericIfMemberIsFromText(gi, "'b'", "'z'"); }, ""},
        {[](Shelf& s) { s.labelDel("a"); }, [&] { return label.genericIfMemberDelFromText(gi, "'a'"); }, "'y'"},
        {[](Shelf& s) { s.labelDel("a"); }, [&] { return label.genericIfMemberDel(gi, key("a")); }, "''"},
        {[](Shelf& s) { s.labelIs("c", "w"); }, [&] { return label.genericIfMemberIsFromText(gi, "'c'", "'w'"); }, ""},
        {[](Shelf& s) { s.labelDelAll(); }, [&] { label.genericIfMemberDelAll(gi); return Wex::Value(); }, ""},
        {[](Shelf& s) { s.labelIs("d", "v"); }, [&] { return label.genericIfMemberIsFromText(gi, "'d'", "'v'"); }, ""},
        // Written with no arguments, as a container's "syncAttribute" is reset: emptied.
        {[](Shelf& s) { s.labelDelAll(); }, [&] { label.genericIfSet(gi, {}); return Wex::Value(); }, ""},
    };
    for (Step const& step : steps) {
        step.typed(*typed);
        EXPECT_EQ(step.reflected().text(), step.returns);
        EXPECT_EQ(reflectedWatcher.heard, typedWatcher.heard);
        EXPECT_EQ(reflected->label().size(), typed->label().size());
    }
    // Deleting all goes key by key in the map's order, as a watcher is there.
    std::vector<std::string> heard = typedWatcher.heard;
    ASSERT_EQ(heard.size(), 9u);
    std::sort(heard.begin() + 5, heard.begin() + 7);
    EXPECT_EQ(heard, (std::vector<std::string>{"130 a new", "130 a replaced", "130 b new", "130 a replaced", "130 c new",
                                               "130 b replaced", "130 c replaced", "130 d new", "130 d replaced"}));
    EXPECT_TRUE(reflected->label().empty());
}

TEST_F(CollectionReflectionTest, MembersAreReadTestedAndCountedAsTheCollectionShowsThem) {
    Lumo::Ptr<Shelf> shelf = makeShelf();
    Wex::GenericIf const gi = view(shelf);
    Lumo::Ptr<Widget> w(new Widget("w"));
    w->sizeIs(4);
    attr("widget").genericIfMemberIs(gi, {{"widget", Wex::Value::of(w)}});
    attr("slot").genericIfMemberIs(gi, {{"key", key("s")}, {"size", Wex::Value::of(2u)}});
    shelf->labelIs("k", "v");
    struct Read {
        char const* attribute;
        char const* key;
        std::string value;  // the text of what it shows under the key
        bool has;
    };
    for (Read const& r : {Read{"widget", "w", Wex::Value::of(w).text(), true}, Read{"widget", "x", "", false},
                          Read{"widgetSize", "w", "4", true}, Read{"widgetSize", "x", "", false},
                          Read{"label", "k", "'v'", true}, Read{"label", "x", "", false},
                          Read{"slot", "s", Wex::Value::of(shelf->slot().get("s")).text(), true}}) {
        EXPECT_EQ(attr(r.attribute).genericIfMember(gi, key(r.key)).text(), r.value) << r.attribute << " " << r.key;
        EXPECT_EQ(attr(r.attribute).genericIfMemberHas(gi, key(r.key)), r.has) << r.attribute << " " << r.key;
        EXPECT_EQ(attr(r.attribute).genericIfCount(gi), 1u) << r.attribute;
    }
    EXPECT_EQ(*attr("widgetSize").genericIfMember(gi, key("w")).as<unsigned>(), 4u);
    std::vector<std::string> walked;
    attr("label").forEach(shelf.ptr(), [&](Wex::Value const& k, Wex::Value const& v) { walked.push_back(k.text() + v.text()); });
    EXPECT_EQ(walked, std::vector<std::string>{"'k''v'"});
    EXPECT_EQ(attr("slot").params(), (std::vector<std::string>{"key", "size"}));
    EXPECT_TRUE(attr("widgetSize").readOnly());
    EXPECT_FALSE(attr("widget").deletesAllMembers());
    EXPECT_TRUE(attr("label").deletesAllMembers());
    EXPECT_EQ(attr("widget").genericIfMemberDel(gi, key("w")).object(), w.ptr());
}

TEST_F(CollectionReflectionTest, RefusalsNameTheAttributeAndChangeNothing) {
    Lumo::Ptr<Shelf> shelf = makeShelf();
    Wex::GenericIf const gi = view(shelf);
    shelf->slotIs("s", 4);
    shelf->labelIs("k", "v");
    ShelfWatcher watcher(*shelf);
    struct Refusal {
        char const* what;
        std::function<void()> attempt;
        std::function<bool(Wex::Exception const&)> isExpected;
        char const* attribute;
    };
    auto const null = [](Wex::Exception const& e) { return dynamic_cast<Wex::NullArgumentException const*>(&e); };
    auto const wrongType = [](Wex::Exception const& e) { return dynamic_cast<Wex::ValueTypeException const*>(&e); };
    auto const badText = [](Wex::Exception const& e) { return dynamic_cast<Wex::RangeException const*>(&e); };
    auto const denied = [](Wex::Exception const& e) { return dynamic_cast<Wex::AttributeAccessException const*>(&e); };
    auto const again = [](Wex::Exception const& e) { return dynamic_cast<Wex::ReInstantiationException const*>(&e); };
    auto const badArgs = [](Wex::Exception const& e) { return dynamic_cast<Wex::NewEntityArgsException const*>(&e); };
    Refusal const refusals[] = {
        {"a null member", [&] { attr("widget").genericIfMemberIs(gi, {{"widget", Wex::Value::of(Lumo::Ptr<Widget>())}}); },
         null, "widget"},
        {"a member of another type", [&] { attr("widget").genericIfMemberIs(gi, {{"widget", Wex::Value::of(3u)}}); },
         wrongType, "widget"},
        {"a key of another type", [&] { attr("widget").genericIfMember(gi, Wex::Value::of(3u)); }, wrongType, "widget"},
        {"a deletion by a key of another type", [&] { attr("label").genericIfMemberDel(gi, Wex::Value::of(3u)); },
         wrongType, "label"},
        {"a counted member from text", [&] { attr("widget").genericIfMemberIsFromText(gi, "'w'", "null"); }, badText,
         "widget"},
        {"an unquoted key", [&] { attr("label").genericIfMemberIsFromText(gi, "k", "'x'"); }, badText, "label"},
        {"text left over", [&] { attr("label").genericIfMemberIsFromText(gi, "'k'", "'x' 'y'"); }, badText, "label"},
        {"a bad key text to delete", [&] { attr("label").genericIfMemberDelFromText(gi, "'k"); }, badText, "label"},
        {"a read-only collection", [&] { attr("widgetSize").genericIfMemberDel(gi, key("w")); }, denied, "widgetSize"},
        {"a deletion the owner does not offer", [&] { attr("widget").genericIfMemberDelAll(gi); }, denied, "widget"},
        {"an entry made again with other values",
         [&] { attr("slot").genericIfMemberIs(gi, {{"key", key("s")}, {"size", Wex::Value::of(5u)}}); }, again, "size"},
        {"a missing construction value", [&] { attr("slot").genericIfMemberIs(gi, {{"key", key("t")}}); }, badArgs,
         "size"},
        {"an unknown construction value",
         [&] {
             attr("slot").genericIfMemberIs(gi, {{"key", key("t")}, {"size", Wex::Value::of(1u)}, {"colour", key("red")}});
         },
         badArgs, "colour"},
        {"a slot from a size that is not a number", [&] { attr("slot").genericIfMemberIsFromText(gi, "'t'", "big"); },
         badText, "slot"},
    };
    for (Refusal const& r : refusals) {
        try {
            r.attempt();
            ADD_FAILURE() << r.what << " was accepted";
        } catch (Wex::Exception const& e) {
            EXPECT_TRUE(r.isExpected(e)) << r.what << ": " << e.what();
            EXPECT_EQ(e.attribute(), r.attribute) << r.what;
        }
    }
    EXPECT_TRUE(watcher.heard.empty());
    EXPECT_EQ(shelf->widget().size(), 0u);
    EXPECT_EQ(shelf->slot().size(), 1u);
    EXPECT_EQ(shelf->slot().get("s")->size(), 4u);
    EXPECT_EQ(shelf->label().get("k").value, "v");
    // What is refused for one kind of write is allowed where the owner offers it.
    Wex::Value const made = attr("slot").genericIfMemberIsFromText(gi, "'t'", "7");
    EXPECT_EQ(made.object(), shelf->slot().get("t").ptr());
    EXPECT_EQ(shelf->slot().get("t")->size(), 7u);
}

TEST(Directory, CreatesByTypeNameReturnsTheHeldChildAndDeletes) {
    Lumo::Ptr<Wex::Dir> dir(new Wex::Dir("d"));
    Lumo::Ptr<Wex::Entity> a = dir->createEntity("Test::Gadget", "a");
    ASSERT_TRUE(a);
    EXPECT_EQ(a->fwkType(), Wex::typeNode("Test::Gadget"));
    EXPECT_EQ(dir->createEntity("Test::Widget", "a"), a);  // held child, whatever its type
    EXPECT_EQ(dir->entities(), 1u);
    EXPECT_THROW(dir->createEntity("Test::Nothing", "b"), Wex::NewEntityArgsException);
    EXPECT_EQ(dir->entities(), 1u);
    // By the type itself: the same, without the look-up by name.
    EXPECT_EQ(dir->createEntity(Wex::typeNode("Test::Widget"), "a"), a);
    EXPECT_THROW(dir->createEntity(static_cast<Wex::WexType const*>(nullptr), "b"), Wex::NullArgumentException);
    EXPECT_EQ(dir->entities(), 1u);
    Lumo::Ptr<Wex::Entity> sub = dir->createEntity("Wex::Dir", "sub");
    EXPECT_TRUE(Lumo::ptr_cast<Wex::Dir>(sub));
    EXPECT_EQ(dir->deleteEntity("a"), a);
    EXPECT_EQ(dir->deleteEntity("a"), nullptr);
    EXPECT_EQ(dir->entityPtr("sub"), sub);
    EXPECT_EQ(dir->entities(), 1u);
}

TEST(Directory, GlobalDirectoryIsOneRoot) {
    EXPECT_EQ(Wex::System::globalDir(), Wex::System::globalDir());
    EXPECT_TRUE(Wex::System::globalDir());
}

} // namespace
