// Wex paths: walking the directory tree from its root.
#include "Wex/Path.h"

#include <algorithm>
#include <vector>

namespace Wex {

namespace {
std::vector<std::string_view> partsOf(std::string_view path, std::size_t atLeast) {
    if (path.empty() || path.front() != '/') throw RangeException("path", "must start with '/'");
    std::vector<std::string_view> parts;
    for (std::size_t at = 1; at <= path.size();) {
        std::size_t const end = std::min(path.find('/', at), path.size());
        if (end == at) throw RangeException("path", "has an empty part");
        parts.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    if (parts.size() < atLeast) throw RangeException("path", "names too few parts");
    return parts;
}

// The directory that the first `count` parts name, or null when one is missing.
Lumo::Ptr<Dir> dirAt(std::vector<std::string_view> const& parts, std::size_t count) {
    Lumo::Ptr<Dir> dir = System::globalDir();
    for (std::size_t i = 0; i < count && dir; ++i) dir = Lumo::ptr_cast<Dir>(dir->entityPtr(Lumo::String(parts[i])));
    return dir;
}
} // namespace

AttributeAt attributeAt(std::string_view path) {
    auto const parts = partsOf(path, 2);
    Lumo::Ptr<Dir> const dir = dirAt(parts, parts.size() - 2);
    if (!dir) return {};
    Lumo::Ptr<Entity> entity = dir->entityPtr(Lumo::String(parts[parts.size() - 2]));
    if (!entity || !entity->fwkType()) return {};
    WexAttr const* attr = nullptr;
    for (WexType const* t = entity->fwkType(); t && !attr; t = t->base()) attr = t->attr(parts.back());
    if (!attr) return {};
    return {std::move(entity), attr};
}

Lumo::Ptr<Dir> dirAt(std::string_view path) {
    auto const parts = partsOf(path, 1);
    return dirAt(parts, parts.size());
}

Lumo::Ptr<Entity> entityIs(std::string_view path, WexType const* type) {
    if (!type) throw NullArgumentException("type");
    auto const parts = partsOf(path, 1);
    Lumo::Ptr<Dir> dir = System::globalDir();
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        Lumo::Ptr<Entity> next = dir->createEntity(wexTypeOf<Dir>(), Lumo::String(parts[i]));
        dir = Lumo::ptr_cast<Dir>(next);
        if (!dir) throw RangeException("path", std::string(parts[i]) + " is not a directory");
    }
    return dir->createEntity(type, Lumo::String(parts.back()));
}

} // namespace Wex
