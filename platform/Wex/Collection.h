// Wex::Collection: the keyed collection behind every collection attribute.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "Lumo/Ptr.h"
#include "Lumo/Publisher.h"
#include "Lumo/SmallBlocks.h"
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

namespace detail {

// An open-addressing hash set with linear probing: one allocation for the whole table instead
// of one node per member. A control byte per slot says empty (0), deleted (1) or full (0x80 and
// seven bits of the hash, so that most mismatches are refused without reading the member).
// A lone member lives inside the set itself, as most request sets and directories hold one.
// Pointers and iterators into it are invalidated by any insertion; erasing leaves the others
// in place. Capacity is kept when members go (as a node table keeps its buckets); clear()
// gives a large one back.
template <class V, class Hash, class Eq>
class FlatSet {
public:
    // cppcheck-suppress uninitMemberVar ; inlineSlot_ is raw storage, a member is built in it
    FlatSet() noexcept = default;
    FlatSet(FlatSet const&) = delete;
    FlatSet& operator=(FlatSet const&) = delete;
    ~FlatSet() { release(); }

    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = V;
        using difference_type = std::ptrdiff_t;
        using pointer = V const*;
        using reference = V const&;

        const_iterator() noexcept = default;
        reference operator*() const noexcept { return set_->slots_[i_]; }
        pointer operator->() const noexcept { return &set_->slots_[i_]; }
        const_iterator& operator++() noexcept {
            i_ = set_->nextFull(i_ + 1);
            return *this;
        }
        const_iterator operator++(int) noexcept {
            const_iterator old = *this;
            ++*this;
            return old;
        }
        friend bool operator==(const_iterator const& a, const_iterator const& b) noexcept { return a.i_ == b.i_; }

    private:
        friend class FlatSet;
        const_iterator(FlatSet const* set, std::size_t i) noexcept : set_(set), i_(i) {}
        FlatSet const* set_ = nullptr;
        std::size_t i_ = 0;
    };

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    const_iterator begin() const noexcept { return const_iterator(this, size_ ? nextFull(0) : cap_); }
    const_iterator end() const noexcept { return const_iterator(this, cap_); }

    // The slot holding a member equal to k, or npos.
    static constexpr std::size_t npos = ~std::size_t(0);
    template <class Key>
    [[gnu::always_inline]] std::size_t find(Key const& k) const noexcept {
        if (size_ == 0) return npos;
        std::uint64_t const m = mix(Hash{}(k));
        std::uint8_t const tag = tagOf(m);
        std::size_t i = indexOf(m);
        for (std::size_t probes = 0; probes < cap_; ++probes, i = (i + 1) & (cap_ - 1)) {
            std::uint8_t const c = ctrl_[i];
            if (c == kEmpty) return npos;
            if (c == tag && Eq{}(slots_[i], k)) return i;
        }
        return npos;
    }
    V const& at(std::size_t i) const noexcept { return slots_[i]; }
    V& at(std::size_t i) noexcept { return slots_[i]; }

    // Adds v, known to be absent.
    void insertNew(V v) {
        if (cap_ == 0) useInline();
        else if (cap_ == 1 ? size_ + deleted_ == 1 : (size_ + deleted_ + 1) * 4 > cap_ * 3) grow();
        std::uint64_t const m = mix(Hash{}(v));
        std::size_t i = indexOf(m);
        while (ctrl_[i] >= 0x80) i = (i + 1) & (cap_ - 1);
        if (ctrl_[i] == kDeleted) --deleted_;
        ::new (static_cast<void*>(slots_ + i)) V(std::move(v));
        ctrl_[i] = tagOf(m);
        ++size_;
    }

    // Takes the member out of slot i and returns it.
    V take(std::size_t i) noexcept {
        V v = std::move(slots_[i]);
        slots_[i].~V();
        // A slot followed by an empty one ends no probe sequence: it may be empty again.
        if (cap_ == 1 || ctrl_[(i + 1) & (cap_ - 1)] == kEmpty) {
            ctrl_[i] = kEmpty;
        } else {
            ctrl_[i] = kDeleted;
            ++deleted_;
        }
        if (--size_ == 0 && deleted_) {
            std::memset(ctrl_, kEmpty, cap_);
            deleted_ = 0;
        }
        return v;
    }

    void reserve(std::size_t n) {
        if (n > 1 && n * 4 > cap_ * 3) rehash(capacityFor(n));
    }
    // A small table is kept for the next members: sets that fill and empty on every event
    // (the notifiee's pending requests) would otherwise allocate each time.
    void clear() noexcept {
        if (cap_ > kKeptOnClear) {
            release();
            return;
        }
        destroyAll();
        if (cap_) std::memset(ctrl_, kEmpty, cap_);
        size_ = deleted_ = 0;
    }

private:
    static constexpr std::uint8_t kEmpty = 0, kDeleted = 1;
    static constexpr std::size_t kKeptOnClear = 64;

    static std::uint64_t mix(std::size_t h) noexcept { return std::uint64_t(h) * 0x9e3779b97f4a7c15ull; }
    static std::uint8_t tagOf(std::uint64_t m) noexcept { return std::uint8_t(0x80 | ((m >> 24) & 0x7f)); }
    std::size_t indexOf(std::uint64_t m) const noexcept { return std::size_t(m >> shift_) & (cap_ - 1); }
    static std::size_t capacityFor(std::size_t n) noexcept {
        std::size_t cap = 2;
        while (n * 4 > cap * 3) cap *= 2;
        return cap;
    }
    std::size_t nextFull(std::size_t i) const noexcept {
        while (i < cap_ && ctrl_[i] < 0x80) ++i;
        return i;
    }
    void useInline() noexcept {
        ctrl_ = &inlineCtrl_;
        *ctrl_ = kEmpty;
        slots_ = reinterpret_cast<V*>(inlineSlot_);
        cap_ = 1;
        shift_ = 63;
    }
    bool isInline() const noexcept { return ctrl_ == &inlineCtrl_; }
    void grow() {
        // Twice the room when live members need it; otherwise the same size, without the deleted.
        rehash(cap_ == 1 || (size_ + 1) * 2 * 4 > cap_ * 3 ? capacityFor((size_ + 1) * 2) : cap_);
    }
    static std::size_t slotsOffset(std::size_t cap) noexcept {
        // cppcheck-suppress CastAddressToIntegerAtReturn ; alignof is a size, no address is involved
        return (cap + alignof(V) - 1) / alignof(V) * alignof(V);
    }
    // NOLINTNEXTLINE(bugprone-sizeof-expression): slots hold V, which is a pointer in some tables
    static std::size_t bytesFor(std::size_t cap) noexcept { return slotsOffset(cap) + cap * sizeof(V); }
    // Small tables, made and dropped with the sets that hold a few members, from the small-block
    // allocator; large ones, rehashed rarely, from malloc.
    static constexpr std::size_t kSmallTable = 256;
    static void* allocate(std::size_t bytes) {
        if (bytes <= kSmallTable) return Lumo::smallBlockNew(bytes);
        void* mem = std::malloc(bytes);
        if (!mem) throw std::bad_alloc();
        return mem;
    }
    static void deallocate(void* mem, std::size_t bytes) noexcept {
        if (bytes <= kSmallTable) Lumo::smallBlockDelete(mem, bytes);
        else std::free(mem);
    }
    void rehash(std::size_t cap) {
        static_assert(alignof(V) <= alignof(std::max_align_t));
        // NOLINTNEXTLINE(bugprone-sizeof-expression): slots hold V, which is a pointer in some tables
        void* mem = allocate(bytesFor(cap));
        auto* ctrl = static_cast<std::uint8_t*>(mem);
        auto* slots = reinterpret_cast<V*>(ctrl + slotsOffset(cap));
        std::memset(ctrl, kEmpty, cap);
        unsigned shift = 64;
        for (std::size_t c = cap; c > 1; c /= 2) --shift;
        for (std::size_t i = 0; i < cap_; ++i) {
            if (ctrl_[i] < 0x80) continue;
            std::uint64_t const m = mix(Hash{}(slots_[i]));
            std::size_t j = std::size_t(m >> shift);
            while (ctrl[j] != kEmpty) j = (j + 1) & (cap - 1);
            ::new (static_cast<void*>(slots + j)) V(std::move(slots_[i]));
            slots_[i].~V();
            ctrl[j] = tagOf(m);
        }
        if (!isInline()) deallocate(ctrl_, bytesFor(cap_));
        ctrl_ = ctrl;
        slots_ = slots;
        cap_ = cap;
        shift_ = shift;
        deleted_ = 0;
    }
    void destroyAll() noexcept {
        if constexpr (!std::is_trivially_destructible_v<V>)
            for (std::size_t i = 0; i < cap_; ++i)
                if (ctrl_[i] >= 0x80) slots_[i].~V();
    }
    void release() noexcept {
        destroyAll();
        if (!isInline()) deallocate(ctrl_, bytesFor(cap_));
        ctrl_ = nullptr;
        slots_ = nullptr;
        cap_ = size_ = deleted_ = 0;
        shift_ = 64;
    }

    std::uint8_t* ctrl_ = nullptr;
    V* slots_ = nullptr;
    std::size_t cap_ = 0;
    std::size_t size_ = 0;
    std::size_t deleted_ = 0;
    unsigned shift_ = 64;
    std::uint8_t inlineCtrl_ = kEmpty;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the slot holds V, which is a pointer in some tables
    alignas(V) unsigned char inlineSlot_[sizeof(V)];
};

// Up to eight members on the stack, more on the heap: the visit of forEachSafe.
template <class V>
class Snapshot {
public:
    template <class It>
    // cppcheck-suppress uninitMemberVar ; inline_ is raw storage, members are built in it
    Snapshot(It first, It last, std::size_t n) {
        if (n > kInline) {
            heap_.reserve(n);
            heap_.assign(first, last);
            data_ = heap_.data();
            size_ = heap_.size();
            return;
        }
        data_ = reinterpret_cast<V*>(inline_);
        for (; first != last; ++first) ::new (static_cast<void*>(data_ + size_++)) V(*first);
    }
    Snapshot(Snapshot const&) = delete;
    Snapshot& operator=(Snapshot const&) = delete;
    ~Snapshot() {
        if (heap_.empty())
            for (std::size_t i = 0; i < size_; ++i) data_[i].~V();
    }
    V const* begin() const noexcept { return data_; }
    V const* end() const noexcept { return data_ + size_; }

private:
    static constexpr std::size_t kInline = 8;
    alignas(V) unsigned char inline_[kInline * sizeof(V)];
    std::vector<V> heap_;
    V* data_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace detail

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

    // The one way to watch a collection: after each change the watcher is told the key and the
    // member the change replaced or removed (null after an insertion), each with its own type.
    // A watcher watches one collection at a time; a reactor watching two of the same type has
    // a watcher for each.
    class Watcher : private Lumo::Subscriber {
    public:
        virtual void onMember(Collection const& collection, K const& key, V const* prev) = 0;

    protected:
        Watcher() = default;
        Watcher(Watcher const&) = delete;
        Watcher& operator=(Watcher const&) = delete;
        // A watcher leaves before it goes (its owner's notification goes off first); one still
        // watching would be called through a dangling pointer later.
        ~Watcher() {
#ifndef NDEBUG
            if (watched_) lifecycleFailure("collection watcher destroyed while watching", this);
#endif
        }

    private:
        friend class Collection;
        // The collection published the change with its own types: the pointers are a K and a V.
        void onPublish(Lumo::Publisher const&, Lumo::Change const& change) final {
            if (!watched_ || change.source != watched_) return;
            onMember(*watched_, *static_cast<K const*>(change.key), static_cast<V const*>(change.prev));
        }
        Collection const* watched_ = nullptr;
    };

    Collection(char const* attribute, AttributeId id, Lumo::Publisher* publisher = nullptr) noexcept
        : attribute_(attribute), id_(id), publisher_(publisher) {}
    Collection(Collection const&) = delete;
    Collection& operator=(Collection const&) = delete;

    static K const& keyOf(V const& v) noexcept { return KeyOf{}(v); }

    // Joins (true) or leaves (false) `watcher` to this collection's changes. A watcher joining
    // leaves the collection it watched before; one leaving a collection it does not watch stays
    // as it is. A collection made without a publisher tells nobody, and is never heard from.
    void watcherIs(Watcher* watcher, bool active) const {
        if (!publisher_) return;
        if (active && watcher->watched_ && watcher->watched_ != this) watcher->watched_->watcherIs(watcher, false);
        if (!active && watcher->watched_ != this) return;
        watcher->watched_ = active ? this : nullptr;
        publisher_->subscriberActiveIs(watcher, active);
    }

    std::size_t size() const noexcept { return members_.size(); }
    bool empty() const noexcept { return members_.empty(); }
    auto begin() const noexcept { return members_.begin(); }
    auto end() const noexcept { return members_.end(); }
    void reserve(std::size_t n) { members_.reserve(n); }

    V const* find(K const& k) const noexcept {
        std::size_t const i = members_.find(k);
        return i == Members::npos ? nullptr : &members_.at(i);
    }
    bool has(K const& k) const noexcept { return members_.find(k) != Members::npos; }
    // The member stored under k, or a null (default) value.
    V get(K const& k) const {
        V const* v = find(k);
        return v ? *v : V();
    }

    V set(V v) {
        if constexpr (IsPtr<V>::value)
            if (!v) throw NullArgumentException(attribute_);
        std::size_t const i = members_.find(keyOf(v));
        if (i == Members::npos) {
            members_.insertNew(v);
            notify(v, nullptr);
            return v;
        }
        if constexpr (kIsSet) {
            return members_.at(i);
        } else {
            if (members_.at(i) == v) return v;
            V old = std::exchange(members_.at(i), v);
            notify(v, &old);
            return v;
        }
    }

    auto del(K const& k) {
        std::size_t const i = members_.find(k);
        if constexpr (kIsSet) {
            if (i == Members::npos) return false;
            V old = members_.take(i);
            notify(old, &old);
            return true;
        } else {
            if (i == Members::npos) return V();
            V old = members_.take(i);
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
        detail::Snapshot<V> const snapshot(members_.begin(), members_.end(), members_.size());
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
        if (publisher_) publisher_->publishChangeRecursive(id_, &keyOf(current), prev, this);
    }

    char const* attribute_;
    AttributeId id_;
    Lumo::Publisher* publisher_;
    using Members = detail::FlatSet<V, Hash, Eq>;
    Members members_;
};

// The key of a counted member, taken from the object: Collection<K, Ptr<T>, MemberKey<&T::key>>.
template <auto Getter>
struct MemberKey {
    template <class P>
    decltype(auto) operator()(P const& p) const noexcept { return ((*p).*Getter)(); }
};

} // namespace Wex
