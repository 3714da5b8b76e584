// Lumo::Ptr: the intrusive counted pointer that holds every framework object.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace Lumo {

// Holds one reference on a counted object (one with newRef()/deleteRef(), as every
// Wex::PtrInterface has). Counts are plain integers: objects belong to the framework thread.
template <class T>
class Ptr {
public:
    using element_type = T;

    constexpr Ptr() noexcept = default;
    constexpr Ptr(std::nullptr_t) noexcept {}
    // Counting is a test and an increment, done on every hot path: always inline, as the
    // compiler would otherwise keep an out-of-line copy per type and call it.
    [[gnu::always_inline]] Ptr(T* p) noexcept : p_(p) { if (p_) p_->newRef(); }
    Ptr(Ptr const& o) noexcept : Ptr(o.p_) {}
    Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(Ptr<U> const& o) noexcept : Ptr(o.ptr()) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(Ptr<U>&& o) noexcept : p_(o.detach()) {}
    [[gnu::always_inline]] ~Ptr() { if (p_) p_->deleteRef(); }

    // By value and swap: the new reference is taken before the old one is dropped, so
    // self-assignment and assignment from an object owned by the old value stay safe.
    Ptr& operator=(Ptr o) noexcept { swap(o); return *this; }
    void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

    T* ptr() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    T& operator*() const noexcept { return *p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }

    // Gives up the reference without dropping it; the caller now owns it.
    T* detach() noexcept { return std::exchange(p_, nullptr); }

    template <class U>
    friend bool operator==(Ptr const& a, Ptr<U> const& b) noexcept { return a.ptr() == b.ptr(); }
    friend bool operator==(Ptr const& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
    friend bool operator==(Ptr const& a, T const* b) noexcept { return a.p_ == b; }
    friend auto operator<=>(Ptr const& a, Ptr const& b) noexcept { return std::compare_three_way{}(a.p_, b.p_); }

private:
    T* p_ = nullptr;
};

// An object whose dynamic type is T itself is cast statically: dynamic_cast walks the class
// hierarchy for every cast, and the framework casts directories, containers and requests to
// their own type all the time. T may be const-qualified.
template <class T, class U>
T* object_cast(U* u) noexcept {
    if (!u) return nullptr;
    // cppcheck-suppress constStatement ; a requires-expression, which cppcheck reads as a statement
    if constexpr (std::is_polymorphic_v<U> && requires { static_cast<T*>(u); })
        if (typeid(*u) == typeid(T)) return static_cast<T*>(u);
    return dynamic_cast<T*>(u);
}

template <class T, class U>
Ptr<T> ptr_cast(Ptr<U> const& p) noexcept { return Ptr<T>(object_cast<T>(p.ptr())); }

template <class T, class U>
Ptr<T> static_ptr_cast(Ptr<U> const& p) noexcept { return Ptr<T>(static_cast<T*>(p.ptr())); }

} // namespace Lumo

template <class T>
struct std::hash<Lumo::Ptr<T>> {
    std::size_t operator()(Lumo::Ptr<T> const& p) const noexcept { return std::hash<T const*>{}(p.ptr()); }
};
