// Wex::EntryMap: a keyed collection of plain (key, value) entries.
#pragma once

#include "Wex/Collection.h"

namespace Wex {

// One entry of a map of plain values. Reflection shows its value under its key, and writes it
// from the two as construction values, so a container type can keep a peer's entries in one:
//   using State = Wex::EntryMap<Lumo::String, Lumo::String>;
//   State syncAttribute_{"syncAttribute", kSyncAttribute, &publisher_};
//   void syncAttributeIs(Lumo::String const& key, Lumo::String const& value) { syncAttribute_.set({key, value}); }
//   table: .collection("syncAttribute", access).memberIs({"key", "value"}, &X::syncAttributeIs)...
template <class K, class V>
struct Entry {
    K key;
    V value;
    friend bool operator==(Entry const&, Entry const&) = default;
};

struct EntryKey {
    template <class K, class V>
    K const& operator()(Entry<K, V> const& e) const noexcept { return e.key; }
};

template <class K, class V>
using EntryMap = Collection<K, Entry<K, V>, EntryKey>;

} // namespace Wex
