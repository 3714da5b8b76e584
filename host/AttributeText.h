// What the commands that read and write attributes by path share: finding the attribute, and
// the framework's text forms of keys and values.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Wex/Path.h"

namespace Q7Agent {

// `text` in the framework's string text form: quoted ('eth0'), or read back and quoted again
// when it starts with a quote already, so that each string has one text. Bad quoting is a
// Wex::RangeException naming `argument`.
std::string stringText(std::string const& text, char const* argument);

// The attribute or collection at `path`; a usage error when the path is malformed or nothing
// readable is there.
Wex::AttributeAt attributeOrThrow(std::string const& path);
// The same, for a keyed collection only.
Wex::AttributeAt collectionOrThrow(std::string const& path);

// The key of the entry whose key reads as `keyText`, or nothing.
std::optional<Wex::Value> keyOf(Wex::AttributeAt const& at, std::string const& keyText);
// The entries of a collection as (key, value) texts, sorted by key.
std::vector<std::pair<std::string, std::string>> entriesOf(Wex::AttributeAt const& at);

} // namespace Q7Agent
