// Wex::Collection: the keyed collection behind every collection attribute.
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Lumo/Ptr.h"
#include "Lumo/Publisher.h"
#include "Wex/Exception.h"
#include "Wex/Value.h"

namespace Wex {

// Keys hash with their own hash(seed) and compare with their own isEq where they have them.
template <class K>
struct KeyTraits {
    static constexpr std::uint32_t kSeed = 0;
    static std::size_t hash(K const& k) noexcept {
        if constexpr (requires { k.hash(kSeed); }) return k.hash(kSeed);
        else return std::hash<K>{}(k);
    }
    static bool eq(K const& a, K const& b) noexcept {
        if constexpr (requires { K::isEq(a, b); }) return K::isEq(a, b);
        else return a == b;
    }
};

// The key a member is stored under: the member itself (sets), or what `KeyOf` takes from it.
struct SelfKey {
    template <class V>
    V const& operator()(V const& v) const noexcept { return v; }
};

// Semantics shared by every collection of the framework:
//  - set(v) stores v under keyOf(v): the very same value again notifies nobody; replacing
//    notifies with the key and the old value; inserting notifies with a null previous value;
//  - del(k) returns what it removed (null, or false for sets, without notification if absent);
//  - delAll() drops everything at once when nobody watches, else deletes key by key;
//  - a null pointer is refused with NullArgumentException naming the attribute;
//  - watchers hear of a change after the collection shows it;
//  - forEachSafe() survives any change the visitor makes, including deleting the member.
template <class K, class V, class KeyOf = SelfKey>
class Collection {
public:
    using Key = K;
    using Member = V;
    static constexpr bool kIsSet = std::is_same_v<K, V>;

    Collection(char const* attribute, AttributeId id, Lumo::Publisher* publisher = nullptr) noexcept
        : attribute_(attribute), id_(id), publisher_(publisher) {}
    Collection(Collection const&) = delete;
    Collection& operator=(Collection const&) = delete;

    static K const& keyOf(V const& v) noexcept { return KeyOf{}(v); }

    std::size_t size() const noexcept { return members_.size(); }
    bool empty() const noexcept { return members_.empty(); }
    auto begin() const noexcept { return members_.begin(); }
    auto end() const noexcept { return members_.end(); }
    void reserve(std::size_t n) { members_.reserve(n); }

    V const* find(K const& k) const noexcept {
        auto it = members_.find(k);
        return it == members_.end() ? nullptr : &*it;
    }
    bool has(K const& k) const noexcept { return members_.find(k) != members_.end(); }
    // The member stored under k, or a null (default) value.
    V get(K const& k) const {
        V const* v = find(k);
        return v ? *v : V();
    }

    V set(V v) {
        if constexpr (IsPtr<V>::value)
            if (!v) throw NullArgumentException(attribute_);
        auto it = members_.find(keyOf(v));
        if (it == members_.end()) {
            members_.insert(v);
            notify(v, nullptr);
            return v;
        }
        if constexpr (kIsSet) {
            return *it;
        } else {
            if (*it == v) return v;
            auto node = members_.extract(it);
            V old = std::move(node.value());
            node.value() = v;
            members_.insert(std::move(node));
            notify(v, &old);
            return v;
        }
    }

    auto del(K const& k) {
        auto it = members_.find(k);
        if constexpr (kIsSet) {
            if (it == members_.end()) return false;
            V old = std::move(members_.extract(it).value());
            notify(old, &old);
            return true;
        } else {
            if (it == members_.end()) return V();
            V old = std::move(members_.extract(it).value());
            notify(old, &old);
            return old;
        }
    }

    void delAll() {
        if (!publisher_ || publisher_->subscribers() == 0) {
            members_.clear();
            return;
        }
        forEachSafe([this](V const& v) { del(keyOf(v)); });
    }

    // Visits a snapshot of the members, skipping those that are gone or replaced by then.
    template <class F>
    void forEachSafe(F&& f) const {
        std::vector<V> snapshot(members_.begin(), members_.end());
        for (V const& v : snapshot) {
            V const* now = find(keyOf(v));
            if (now && *now == v) f(v);
        }
    }

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(K const& k) const noexcept { return KeyTraits<K>::hash(k); }
        template <class U = V, class = std::enable_if_t<!std::is_same_v<U, K>>>
        std::size_t operator()(V const& v) const noexcept { return KeyTraits<K>::hash(keyOf(v)); }
    };
    struct Eq {
        using is_transparent = void;
        static K const& k(K const& x) noexcept { return x; }
        template <class U = V, class = std::enable_if_t<!std::is_same_v<U, K>>>
        static K const& k(V const& x) noexcept { return keyOf(x); }
        template <class A, class B>
        bool operator()(A const& a, B const& b) const noexcept { return KeyTraits<K>::eq(k(a), k(b)); }
    };

    // The key handed to watchers lives in `current` (held by the caller for the delivery).
    void notify(V const& current, V const* prev) const noexcept {
        if (publisher_) publisher_->publishChangeRecursive(id_, &keyOf(current), prev);
    }

    char const* attribute_;
    AttributeId id_;
    Lumo::Publisher* publisher_;
    std::unordered_set<V, Hash, Eq> members_;
};

// The key of a counted member, taken from the object: Collection<K, Ptr<T>, MemberKey<&T::key>>.
template <auto Getter>
struct MemberKey {
    template <class P>
    decltype(auto) operator()(P const& p) const noexcept { return ((*p).*Getter)(); }
};

} // namespace Wex
