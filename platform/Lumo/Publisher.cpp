// Lumo::Publisher: delivery that tolerates subscribers joining, leaving and the publisher dying.
#include "Lumo/Publisher.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "Memtrail/Memtrail.h"

namespace Lumo {

namespace {
constexpr Memtrail::Site kSubscriberThrew{0, "Publisher", "publishChangeRecursive", "subscriber threw: {}"};
constexpr Memtrail::Site kSubscriberThrewOther{0, "Publisher", "publishChangeRecursive",
                                               "subscriber threw a non-standard exception"};
} // namespace

void Publisher::Subscribers::push_back(Subscriber* s) {
    if (size_ == cap_) {
        std::uint32_t const cap = cap_ * 4;
        auto** heap = new Subscriber*[cap];
        std::copy(begin(), end(), heap);
        if (cap_ > 1) delete[] heap_;
        heap_ = heap;
        cap_ = cap;
    }
    begin()[size_++] = s;
}

void Publisher::Subscribers::erase(Subscriber** it) noexcept {
    std::copy(it + 1, end(), it);
    --size_;
}

Publisher::~Publisher() {
    for (Delivery* d = delivery_; d; d = d->outer) d->publisherGone = true;
#ifndef NDEBUG
    // A subscriber still joined would be called through a dangling publisher pointer later.
    if (subscribers() != 0 && !delivery_) {
        std::fprintf(stderr, "Lumo::Publisher destroyed with %zu subscriber(s) still joined\n", subscribers());
        std::abort();
    }
#endif
}

void Publisher::subscriberIs(Subscriber* s) {
    if (!s || subscriberHas(s)) return;
    subscribers_.push_back(s);
}

void Publisher::subscriberDel(Subscriber* s) noexcept {
    auto it = std::find(subscribers_.begin(), subscribers_.end(), s);
    if (it == subscribers_.end()) return;
    if (delivery_) {
        *it = nullptr;
        holes_ = true;
    } else {
        subscribers_.erase(it);
    }
}

bool Publisher::subscriberHas(Subscriber const* s) const noexcept {
    return s && std::find(subscribers_.begin(), subscribers_.end(), s) != subscribers_.end();
}

std::size_t Publisher::subscribers() const noexcept {
    return subscribers_.size() - std::count(subscribers_.begin(), subscribers_.end(), nullptr);
}

void Publisher::publishChangeRecursive(AttributeId attribute, void const* key, void const* prev,
                                       void const* source) const noexcept {
    if (subscribers_.empty()) return;
    Delivery frame{delivery_, false};
    delivery_ = &frame;
    Change const change{attribute, key, prev, source};
    std::size_t const n = subscribers_.size();
    for (std::size_t i = 0; i < n; ++i) {
        Subscriber* s = subscribers_[i];
        if (!s) continue;
        try {
            s->onPublish(*this, change);
        } catch (std::exception const& e) {
            if (auto* h = Memtrail::defaultHandle())
                h->write(kSubscriberThrew, "Lumo", std::string(e.what()));
        } catch (...) {
            if (auto* h = Memtrail::defaultHandle())
                h->write(kSubscriberThrewOther, "Lumo");
        }
        if (frame.publisherGone) return;
    }
    delivery_ = frame.outer;
    if (!delivery_ && holes_) compact();
}

void Publisher::compact() const noexcept {
    subscribers_.eraseFrom(std::remove(subscribers_.begin(), subscribers_.end(), nullptr));
    holes_ = false;
}

} // namespace Lumo
