// Lumo::Publisher: delivers an object's attribute changes synchronously to its subscribers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Lumo {

using AttributeId = std::uint32_t;

// One change: the attribute, the key (or new value) it concerns, the value it replaced (null for
// an insertion), and what changed (the collection, or null for a plain attribute), by which the
// framework's typed watchers know the types behind the pointers. All are valid only during the
// delivery.
struct Change {
    AttributeId attribute;
    void const* key;
    void const* prev;
    void const* source;
};

class Publisher;

// The transport under the framework's watchers (Wex::Collection::Watcher, Wex::AttributeWatcher),
// which are what reactors derive from.
class Subscriber {
public:
    virtual void onPublish(Publisher const& publisher, Change const& change) = 0;

protected:
    Subscriber() = default;
    Subscriber(Subscriber const&) = default;
    ~Subscriber() = default;
};

// Delivery policy: a subscriber that leaves during a delivery is skipped from then on (its slot
// is cleared and compacted after the outermost delivery); one that joins during a delivery is
// called from the next change on. An exception out of a subscriber is recorded in the default
// Memtrail handle and goes no further: the change has been made and the others still hear of it.
class Publisher {
public:
    Publisher() = default;
    Publisher(Publisher const&) = delete;
    Publisher& operator=(Publisher const&) = delete;
    ~Publisher();

    void subscriberIs(Subscriber* s);
    void subscriberDel(Subscriber* s) noexcept;
    // Joins (true) or leaves (false): what a reactor does as its notification goes on or off.
    void subscriberActiveIs(Subscriber* s, bool active) {
        if (active) subscriberIs(s);
        else subscriberDel(s);
    }
    bool subscriberHas(Subscriber const* s) const noexcept;
    std::size_t subscribers() const noexcept;

    void publishChangeRecursive(AttributeId attribute, void const* key = nullptr, void const* prev = nullptr,
                                void const* source = nullptr) const noexcept;

private:
    struct Delivery {
        Delivery* outer;
        bool publisherGone;
    };
    void compact() const noexcept;

    // Most publishers have no subscriber or one: the first lives inline, without an allocation.
    class Subscribers {
    public:
        Subscribers() noexcept : one_(nullptr) {}
        Subscribers(Subscribers const&) = delete;
        Subscribers& operator=(Subscribers const&) = delete;
        ~Subscribers() {
            if (cap_ > 1) delete[] heap_;
        }
        std::size_t size() const noexcept { return size_; }
        bool empty() const noexcept { return size_ == 0; }
        Subscriber** begin() noexcept { return cap_ > 1 ? heap_ : &one_; }
        Subscriber** end() noexcept { return begin() + size_; }
        Subscriber* const* begin() const noexcept { return cap_ > 1 ? heap_ : &one_; }
        Subscriber* const* end() const noexcept { return begin() + size_; }
        Subscriber*& operator[](std::size_t i) noexcept { return begin()[i]; }
        void push_back(Subscriber* s);
        void erase(Subscriber** it) noexcept;
        void eraseFrom(Subscriber** it) noexcept { size_ = std::uint32_t(it - begin()); }

    private:
        union {
            Subscriber* one_;
            Subscriber** heap_;
        };
        std::uint32_t size_ = 0;
        std::uint32_t cap_ = 1;
    };
    mutable Subscribers subscribers_;
    mutable Delivery* delivery_ = nullptr;
    mutable bool holes_ = false;
};

} // namespace Lumo
