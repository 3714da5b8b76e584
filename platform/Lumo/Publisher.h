// Lumo::Publisher: delivers an object's attribute changes synchronously to its subscribers.
#pragma once

#include <cstdint>
#include <vector>

namespace Lumo {

using AttributeId = std::uint32_t;

// One change: the attribute, the key (or new value) it concerns, and the value it replaced
// (null for an insertion). Both pointers are valid only during the delivery.
struct Change {
    AttributeId attribute;
    void const* key;
    void const* prev;
};

class Publisher;

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
    bool subscriberHas(Subscriber const* s) const noexcept;
    std::size_t subscribers() const noexcept;

    void publishChangeRecursive(AttributeId attribute, void const* key = nullptr, void const* prev = nullptr) const noexcept;

private:
    struct Delivery {
        Delivery* outer;
        bool publisherGone;
    };
    void compact() const noexcept;

    mutable std::vector<Subscriber*> subscribers_;
    mutable Delivery* delivery_ = nullptr;
    mutable bool holes_ = false;
};

} // namespace Lumo
