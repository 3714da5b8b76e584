// Type tables and generic access by attribute name: reads, writes, calls, collections and refusals.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <typeindex>
#include <vector>

#include "Kivu/IpGenAddr.h"
#include "Wex/Entity.h"
#include "Wex/EntryMap.h"
#include "Wex/Type.h"

namespace {

class Widget : public Wex::Entity {
public:
    explicit Widget(Lumo::String name) : Wex::Entity(std::move(name)) {}
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Widget>(); }
    unsigned size = 1;
};

// Owns a collection of each kind reflection writes, entries it makes from a key and a value and
// counted members, and writes them only through its own operations.
class Shelf : public Wex::Entity {
public:
    explicit Shelf(Lumo::String name) : Wex::Entity(std::move(name)) {}
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Shelf>(); }

    // Tells whether the key is new.
    bool labelIs(Lumo::String const& key, unsigned value) {
        bool const isNew = !label.has(key);
        label.set({key, value});
        return isNew;
    }
    unsigned labelDel(Lumo::String const& key) { return label.del(key).value; }
    void labelDelAll() { label.delAll(); }
    void widgetIs(Lumo::Ptr<Widget> const& w) { widget.set(w); }
    Lumo::Ptr<Widget> widgetDel(Lumo::String const& name) { return widget.del(name); }

    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    mutable Lumo::Publisher publisher_;  // what watchers of the collections hear through
    Wex::EntryMap<Lumo::String, unsigned> label{"label", 130, &publisher_};
    Wex::Collection<Lumo::String, Lumo::Ptr<Widget>, Wex::MemberKey<&Wex::Entity::name>> widget{"widget", 131,
                                                                                                 &publisher_};
    bool open = false;
    Kivu::IpGenAddr addr;
    Lumo::Ptr<Widget> favourite;
};

Wex::WexModuleRegistrar registrar("tests/Reflection", [](Wex::WexModule& m) {
    m.type<Widget>("Test::Widget")
        .base<Wex::Entity>()
        .attribute("size", [](Widget const& w) { return w.size; }, [](Widget& w, unsigned s) { w.size = s; })
        .readOnly("twice", [](Widget const& w) { return 2 * w.size; })
        .operation("grow", {"by"}, [](Widget& w, Wex::Args const& a) { return w.size += a.get<unsigned>("grow", "by"); })
        .entityMaker();
    m.type<Shelf>("Test::Shelf")
        .base<Wex::Entity>()
        .collection("label", [](Shelf const& s) -> auto const& { return s.label; })
        .memberIs({"key", "value"}, &Shelf::labelIs)
        .memberDel(&Shelf::labelDel)
        .memberDelAll(&Shelf::labelDelAll)
        .collection("widget", [](Shelf const& s) -> auto const& { return s.widget; })
        .memberIs(&Shelf::widgetIs)
        .memberDel(&Shelf::widgetDel)
        // The same map showing each widget's size: read-only.
        .collection("widgetSize", [](Shelf const& s) -> auto const& { return s.widget; },
                    [](Lumo::Ptr<Widget> const& w) { return w->size; })
        .attribute("open", [](Shelf const& s) { return s.open; }, [](Shelf& s, bool o) { s.open = o; })
        .attribute("addr", [](Shelf const& s) { return s.addr; }, [](Shelf& s, Kivu::IpGenAddr const& a) { s.addr = a; })
        .attribute("favourite", [](Shelf const& s) { return s.favourite; },
                   [](Shelf& s, Lumo::Ptr<Widget> const& w) { s.favourite = w; })
        .entityMaker();
});

class Reflection : public ::testing::Test {
protected:
    Wex::WexAttr const& attr(char const* name) const { return shelfType->attrOrThrow(name); }
    static Wex::Value key(char const* k) { return Wex::Value::of(Lumo::String(k)); }
    Wex::WexType const* const widgetType = Wex::typeNode("Test::Widget");
    Wex::WexType const* const shelfType = Wex::typeNode(std::string("Test::Shelf"));
    Lumo::Ptr<Wex::Entity> widget = widgetType->newEntity("w");
    Wex::GenericIf const wi = widgetType->genericIf(widget);
    Lumo::Ptr<Shelf> shelf = Lumo::ptr_cast<Shelf>(shelfType->newEntity("shelf"));
    Wex::GenericIf const gi = shelfType->genericIf(Lumo::Ptr<Wex::PtrInterface>(shelf));
};

// Types are found by name with their descent and their attributes base first, ordered by identity;
// attributes are read, written and called by name.
TEST_F(Reflection, TypesAndTheirAttributesAreFoundReadWrittenAndCalledByName) {
    EXPECT_EQ(Wex::typeNode("Test::Nothing"), nullptr);
    EXPECT_TRUE(widgetType->isDerived(Wex::typeNode("Wex::Entity")));
    EXPECT_FALSE(widgetType->isDerived(shelfType));
    std::vector<std::string> names;
    for (auto const* a : widgetType->allAttrs()) names.emplace_back(a->name());
    EXPECT_EQ(names, (std::vector<std::string>{"name", "size", "twice", "grow"}));

    // By identity: no type first, then by table in the order registered, then within a table.
    for (auto [lo, hi] : {std::pair{widgetType, shelfType}, {nullptr, widgetType}}) {
        EXPECT_TRUE(Wex::typeLess(lo, hi));
        EXPECT_FALSE(Wex::typeLess(hi, lo));
    }
    EXPECT_FALSE(Wex::typeLess(widgetType, widgetType));
    widgetType->attrOrThrow("size").genericIfSet(wi, Wex::Args{{"size", Wex::Value::of(5u)}});
    EXPECT_EQ(*widgetType->attrOrThrow("twice").genericIfGet(wi).as<unsigned>(), 10u);
    EXPECT_EQ(widgetType->attrOrThrow("grow").genericIfCall(wi, {{"by", Wex::Value::of(2u)}}).text(), "7");
    EXPECT_EQ(widgetType->attrOrThrow("name").genericIfGet(wi).text(), "'w'");
    widgetType->attrOrThrow("size").genericIfSet(wi, {});  // no arguments: back to the initial value
    EXPECT_EQ(static_cast<Widget&>(*widget).size, 0u);
    // From text, each with its type's own reader.
    attr("open").genericIfSetFromText(gi, "true");
    attr("addr").genericIfSetFromText(gi, "10.1.2.3");
    EXPECT_EQ(attr("open").genericIfGet(gi).text() + " " + attr("addr").genericIfGet(gi).text(), "true 10.1.2.3");
    attr("open").genericIfSetFromText(gi, "false");
    EXPECT_FALSE(shelf->open);
    EXPECT_EQ(widgetType->newValue({{"name", key("n")}}).object()->fwkType(), widgetType);
    // A pointer's truth is whether it is set; a type without hash or truth tells neither.
    EXPECT_EQ(Wex::Value::of(Lumo::Ptr<Widget>()).truth(), false);
    EXPECT_EQ(Wex::Value::of(Lumo::Ptr<Widget>()).text(), "null");
    EXPECT_EQ(Wex::Value::of(Lumo::String("s")).hash(), std::nullopt);
    EXPECT_EQ(Wex::Value::of(Lumo::String("s")).truth(), std::nullopt);
}

TEST_F(Reflection, MembersAreWrittenReadAndDeletedThroughTheOwnersOperations) {
    Wex::WexAttr const& label = attr("label");
    // A watch hears the key of every member written or deleted, until it goes.
    std::vector<std::string> heard;
    auto watch = label.watch(*shelf, [&](Wex::Value const& k) { heard.push_back(k.text()); });
    // Each write returns what the owner's operation returns.
    EXPECT_EQ(label.genericIfMemberIsFromText(gi, "'a'", "1").text(), "true");
    EXPECT_EQ(label.genericIfMemberIsFromText(gi, "'a'", "2").text(), "false");
    EXPECT_EQ(label.genericIfMemberIs(gi, {{"key", key("b")}, {"value", Wex::Value::of(3u)}}).text(), "true");
    EXPECT_EQ(label.genericIfMemberDelFromText(gi, "'a'").text(), "2");
    EXPECT_EQ(label.genericIfMemberDel(gi, key("a")).text(), "0");
    Lumo::Ptr<Widget> w(new Widget("w"));
    w->size = 4;
    // A pointer of a base type is taken for what it points at.
    attr("widget").genericIfMemberIs(gi, {{"widget", Wex::Value::of(Lumo::Ptr<Wex::Entity>(w))}});

    // Read by key as each collection shows its members; an absent key reads as no value.
    for (auto const& [attribute, k, value, has] : std::vector<std::tuple<char const*, char const*, std::string, bool>>{
             {"label", "b", "3", true},
             {"label", "a", "", false},
             {"widget", "w", Wex::Value::of(w).text(), true},
             {"widgetSize", "w", "4", true},
             {"widgetSize", "x", "", false}}) {
        EXPECT_EQ(attr(attribute).genericIfMember(gi, key(k)).text(), value) << attribute << " " << k;
        EXPECT_EQ(attr(attribute).genericIfMemberHas(gi, key(k)), has) << attribute << " " << k;
        EXPECT_EQ(attr(attribute).genericIfCount(gi), 1u) << attribute;
    }
    std::vector<std::string> walked;
    label.forEach(shelf.ptr(), [&](Wex::Value const& k, Wex::Value const& v) { walked.push_back(k.text() + v.text()); });
    EXPECT_EQ(walked, std::vector<std::string>{"'b'3"});
    EXPECT_EQ(label.params(), (std::vector<std::string>{"key", "value"}));
    EXPECT_TRUE(attr("widgetSize").readOnly());
    EXPECT_FALSE(attr("widget").readOnly());
    EXPECT_FALSE(attr("widget").deletesAllMembers());
    EXPECT_EQ(attr("widget").genericIfMemberDel(gi, key("w")).object(), w.ptr());
    EXPECT_EQ(shelf->widget.size(), 0u);
    // Written with no arguments, a collection that deletes all its members is emptied.
    label.genericIfSet(gi, {});
    EXPECT_EQ(shelf->label.size(), 0u);
    label.genericIfMemberIsFromText(gi, "'c'", "5");
    label.genericIfMemberDelAll(gi);
    EXPECT_EQ(shelf->label.size(), 0u);
    watch.reset();
    label.genericIfMemberIsFromText(gi, "'d'", "6");
    EXPECT_EQ(heard, (std::vector<std::string>{"'a'", "'a'", "'b'", "'a'", "'b'", "'c'", "'c'"}));
}

TEST_F(Reflection, RefusalsNameTheAttributeAndChangeNothing) {
    shelf->labelIs("k", 1);
    shelf->favourite = Lumo::Ptr<Widget>(new Widget("f"));
    Wex::WexAttr const& label = attr("label");
    Wex::WexAttr const& members = attr("widget");
    using Range = Wex::RangeException;
    using WrongType = Wex::ValueTypeException;
    using Denied = Wex::AttributeAccessException;
    using BadArgs = Wex::NewEntityArgsException;
    std::vector<std::tuple<std::function<void()>, std::type_index, char const*>> const refusals = {
        {[&] { widgetType->attrOrThrow("twice").genericIfSet(wi, {}); }, typeid(Denied), "twice"},
        {[&] { widgetType->attrOrThrow("twice").genericIfSetFromText(wi, "3"); }, typeid(Denied), "twice"},
        {[&] { widgetType->attrOrThrow("missing"); }, typeid(Denied), "missing"},
        {[&] { widgetType->attrOrThrow("size").genericIfCall(wi, {}); }, typeid(Denied), "size"},
        {[&] { attr("label").genericIfGet(gi); }, typeid(Denied), "label"},
        {[&] { widgetType->newValue({{"name", key("n")}, {"colour", key("red")}}); }, typeid(BadArgs), "colour"},
        {[&] { shelfType->genericIf(widget); }, typeid(Denied), ""},
        {[&] { attr("addr").genericIfSetFromText(gi, "10.1.2"); }, typeid(Range), "addr"},
        {[&] { attr("addr").genericIfSetFromText(gi, "10.1.2.4 x"); }, typeid(Range), "addr"},
        {[&] { attr("favourite").genericIfSetFromText(gi, "null"); }, typeid(Range), "favourite"},
        {[&] { members.genericIfMemberIs(gi, {{"widget", Wex::Value::of(Lumo::Ptr<Wex::Entity>())}}); },
         typeid(Wex::NullArgumentException), "widget"},
        {[&] { members.genericIfMemberIs(gi, {{"widget", Wex::Value::of(3u)}}); }, typeid(WrongType), "widget"},
        {[&] { members.genericIfMember(gi, Wex::Value::of(3u)); }, typeid(WrongType), "widget"},
        {[&] { label.genericIfMemberHas(gi, Wex::Value::of(3u)); }, typeid(WrongType), "label"},
        {[&] { label.genericIfMemberDel(gi, Wex::Value::of(3u)); }, typeid(WrongType), "label"},
        {[&] { members.genericIfMemberIsFromText(gi, "'w'", "null"); }, typeid(Range), "widget"},
        {[&] { label.genericIfMemberIsFromText(gi, "k", "2"); }, typeid(Range), "label"},
        {[&] { label.genericIfMemberDelFromText(gi, "'k"); }, typeid(Range), "label"},
        {[&] { attr("widgetSize").genericIfMemberDel(gi, key("w")); }, typeid(Denied), "widgetSize"},
        {[&] { attr("widgetSize").genericIfMemberIs(gi, {{"widget", key("w")}}); }, typeid(Denied), "widgetSize"},
        {[&] { attr("widgetSize").genericIfMemberIsFromText(gi, "'w'", "4"); }, typeid(Denied), "widgetSize"},
        {[&] { attr("open").genericIfCount(gi); }, typeid(Denied), "open"},
        {[&] { attr("open").genericIfMember(gi, key("x")); }, typeid(Denied), "open"},
        {[&] { attr("open").genericIfMemberHas(gi, key("x")); }, typeid(Denied), "open"},
        {[&] { attr("open").forEach(shelf.ptr(), {}); }, typeid(Denied), "open"},
        {[&] { widgetType->attrOrThrow("grow").watch(*widget, {}); }, typeid(Denied), "grow"},
        {[&] { members.genericIfMemberDelAll(gi); }, typeid(Denied), "widget"},
        {[&] { members.genericIfSet(gi, {}); }, typeid(Denied), "widget"},
        {[&] { label.genericIfMemberIs(gi, {{"key", key("t")}}); }, typeid(BadArgs), "value"},
        {[&] { label.genericIfMemberIs(gi, {{"key", key("t")}, {"value", Wex::Value::of(1u)}, {"colour", key("")}}); },
         typeid(BadArgs), "colour"},
    };
    for (auto const& [attempt, error, attribute] : refusals) {
        try {
            attempt();
            ADD_FAILURE() << "accepted, where " << error.name() << " naming '" << attribute << "' was expected";
        } catch (Wex::Exception const& e) {
            EXPECT_EQ(std::type_index(typeid(e)), error) << e.what();
            EXPECT_EQ(e.attribute(), attribute) << e.what();
        }
    }
    EXPECT_EQ(static_cast<Widget&>(*widget).size, 1u);
    EXPECT_TRUE(shelf->favourite && !shelf->open && shelf->addr.isUnspecified());
    EXPECT_EQ(shelf->widget.size(), 0u);
    EXPECT_EQ(shelf->label.size(), 1u);
    EXPECT_EQ(shelf->label.get("k").value, 1u);
}

} // namespace
