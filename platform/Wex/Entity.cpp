// Wex::Entity, Wex::Dir and Wex::System, with the framework's own type table.
#include "Wex/Entity.h"

#include "Wex/Type.h"

namespace Wex {

WexType const* Entity::fwkType() const noexcept { return wexTypeOf<Entity>(); }
WexType const* Dir::fwkType() const noexcept { return wexTypeOf<Dir>(); }

Dir::~Dir() {
    hasNotificationActiveIs(false);
    for (auto const& e : entity_) e->handleParent(nullptr);
}

Lumo::Ptr<Entity> Dir::createEntity(std::string_view typeName, Lumo::String const& name) {
    if (Lumo::Ptr<Entity> held = entity_.get(name)) return held;
    WexType const* type = typeNode(typeName);
    if (!type) throw NewEntityArgsException(typeName, "typeName", "names no registered type");
    return createEntity(type, name);
}

Lumo::Ptr<Entity> Dir::createEntity(WexType const* type, Lumo::String const& name) {
    if (!type) throw NullArgumentException("type");
    if (Lumo::Ptr<Entity> held = entity_.get(name)) return held;
    Lumo::Ptr<Entity> e = type->newEntity(name);
    entity_.set(e);
    e->handleParent(this);
    return e;
}

Lumo::Ptr<Entity> Dir::deleteEntity(Lumo::String const& name) {
    Lumo::Ptr<Entity> e = entity_.del(name);
    if (e) e->handleParent(nullptr);
    return e;
}

Lumo::Ptr<Dir> const& System::globalDir() {
    static Lumo::Ptr<Dir> const root = [] {
        Lumo::Ptr<Dir> d(new Dir(""));
        d->hasNotificationActiveIs(true);
        return d;
    }();
    return root;
}

namespace {
WexModuleRegistrar registrar("Wex/Entity", [](WexModule& m) {
    m.type<Entity>("Wex::Entity").readOnly("name", [](Entity const& e) { return e.nameString(); });
    m.type<Dir>("Wex::Dir")
        .base<Entity>()
        .collection("entity", [](Dir const& d) -> Dir::Children const& { return d.entity(); })
        .readOnly("entities", [](Dir const& d) { return d.entities(); })
        .entityMaker();
});
} // namespace

} // namespace Wex
