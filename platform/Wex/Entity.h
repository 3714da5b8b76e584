// Wex::Entity, Wex::Dir and Wex::System: named entities in the framework's directory tree.
#pragma once

#include <cstddef>

#include "Lumo/Ptr.h"
#include "Lumo/String.h"
#include "Wex/Collection.h"
#include "Wex/PtrInterface.h"

namespace Wex {

class Dir;

// A counted object with a name, as directories hold them.
class Entity : public PtrInterface {
public:
    Lumo::String const& name() const noexcept { return name_; }
    virtual Lumo::String nameString() const { return name_; }
    // Told when a directory takes the entity in (dir) or lets it go (null).
    virtual void handleParent(Dir const* /*dir*/) {}
    WexType const* fwkType() const noexcept override;

protected:
    explicit Entity(Lumo::String name) : name_(std::move(name)) {}
    ~Entity() override = default;

private:
    Lumo::String name_;
};

// A directory: named child entities, each of a registered type.
class Dir : public Entity {
public:
    static constexpr AttributeId kEntity = 130;

    explicit Dir(Lumo::String name) : Entity(std::move(name)) {}

    // The child named `name`, created with the type named `typeName` when there is none.
    // An existing child is returned whatever its type.
    Lumo::Ptr<Entity> createEntity(std::string_view typeName, Lumo::String const& name);
    // The same with the type itself, for callers that hold it: no look-up by name.
    Lumo::Ptr<Entity> createEntity(WexType const* type, Lumo::String const& name);
    Lumo::Ptr<Entity> entityPtr(Lumo::String const& name) const { return entity_.get(name); }
    // Removes the child and returns it (null when there was none).
    Lumo::Ptr<Entity> deleteEntity(Lumo::String const& name);
    std::size_t entities() const noexcept { return entity_.size(); }

    using Children = Collection<Lumo::String, Lumo::Ptr<Entity>, MemberKey<&Entity::name>>;
    Children const& entity() const noexcept { return entity_; }
    WexType const* fwkType() const noexcept override;

protected:
    ~Dir() override;

private:
    Children entity_{"entity", kEntity};
};

struct System {
    // The root of the directory tree: one per process, made on first use.
    static Lumo::Ptr<Dir> const& globalDir();
};

} // namespace Wex
