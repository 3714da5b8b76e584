// Wex paths: an attribute of an entity named by its place in the directory tree.
#pragma once

#include <string_view>

#include "Lumo/Ptr.h"
#include "Wex/Entity.h"
#include "Wex/Type.h"

namespace Wex {

// "/dir/.../entity/attribute": the directories from the root, the entity, one of its attributes.
struct AttributeAt {
    Lumo::Ptr<Entity> entity;
    WexAttr const* attr = nullptr;

    explicit operator bool() const noexcept { return attr != nullptr; }
    // What WexAttr's operations take as the object.
    void* object() const noexcept { return static_cast<PtrInterface*>(entity.ptr()); }
};

// The attribute at `path`, or an empty result when a directory, the entity or the attribute is
// not there. A path that is not absolute, has an empty part or fewer than two parts is a
// RangeException naming "path".
AttributeAt attributeAt(std::string_view path);

// The directory at "/dir/...", or null when one on the way is missing or not a directory.
Lumo::Ptr<Dir> dirAt(std::string_view path);

// The entity at "/dir/.../entity", made with `type` when it is missing, with the directories
// leading to it. An entity already there is returned whatever its type; a part on the way that
// is not a directory is a RangeException naming "path".
Lumo::Ptr<Entity> entityIs(std::string_view path, WexType const* type);

} // namespace Wex
