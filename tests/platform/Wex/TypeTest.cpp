// Type tables, generic access by attribute name, and directories that make entities by type.
#include <gtest/gtest.h>

#include "Wex/Entity.h"
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

Wex::WexModuleRegistrar registrar("tests/Reflection", [](Wex::WexModule& m) {
    m.type<Widget>("Test::Widget")
        .base<Wex::Entity>()
        .attribute("size", [](Widget const& w) { return w.size(); }, [](Widget& w, unsigned s) { w.sizeIs(s); })
        .readOnly("twice", [](Widget const& w) { return 2 * w.size(); })
        .operation("grow", {"by"}, [](Widget& w, Wex::Args const& a) { return w.grow(a.get<unsigned>("grow", "by")); })
        .entityMaker();
    m.type<Gadget>("Test::Gadget").base<Widget>().entityMaker();
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
