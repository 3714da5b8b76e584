// Attributes by path, and their keys and values as text.
#include "AttributeText.h"

#include <algorithm>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Wex/CharRange.h"

namespace Q7Agent {

std::string stringText(std::string const& text, char const* argument) {
    if (text.starts_with('\'')) return Wex::valueToStrep(Wex::valueFromText<Lumo::String>(text, argument));
    return Wex::valueToStrep(text);
}

Wex::AttributeAt attributeOrThrow(std::string const& path) {
    Wex::AttributeAt at = Wex::attributeAt(path);
    if (!at) throw CLI::ValidationError("path", fmt::format("no attribute at {}", path));
    if (at.attr->kind() != Wex::AttrKind::attribute && at.attr->kind() != Wex::AttrKind::collection)
        throw CLI::ValidationError("path", fmt::format("{} is not an attribute", path));
    if (!at.attr->readable()) throw CLI::ValidationError("path", fmt::format("{} cannot be read", path));
    return at;
}

Wex::AttributeAt collectionOrThrow(std::string const& path) {
    Wex::AttributeAt at = attributeOrThrow(path);
    if (at.attr->kind() != Wex::AttrKind::collection)
        throw CLI::ValidationError("path", fmt::format("{} is not a keyed collection", path));
    return at;
}

std::optional<Wex::Value> keyOf(Wex::AttributeAt const& at, std::string const& keyText) {
    std::optional<Wex::Value> found;
    at.attr->forEach(at.object(), [&](Wex::Value const& key, Wex::Value const&) {
        if (!found && key.text() == keyText) found = key;
    });
    return found;
}

std::vector<std::pair<std::string, std::string>> entriesOf(Wex::AttributeAt const& at) {
    std::vector<std::pair<std::string, std::string>> entries;
    at.attr->forEach(at.object(), [&](Wex::Value const& key, Wex::Value const& value) {
        entries.emplace_back(key.text(), value.text());
    });
    std::sort(entries.begin(), entries.end());
    return entries;
}

} // namespace Q7Agent
