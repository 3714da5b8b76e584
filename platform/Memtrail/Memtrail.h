// Memtrail: bounded ring buffers, one per trace level, that keep the newest trace records.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include <fmt/format.h>

namespace Lumo { template <class T> class Ptr; }

namespace Memtrail {

inline constexpr unsigned kLevels = 10;

namespace detail {
template <class T> struct StoredArg { using type = std::decay_t<T>; };
template <class T> struct StoredArg<Lumo::Ptr<T>> { using type = void const*; };
template <class T> struct StoredArg<T*> { using type = void const*; };
template <> struct StoredArg<char*> { using type = std::string; };
template <> struct StoredArg<char const*> { using type = std::string; };
template <> struct StoredArg<std::string_view> { using type = std::string; };

template <class T> void const* asAddress(Lumo::Ptr<T> const& p) { return p.ptr(); }
template <class T> void const* asAddress(T* p) { return p; }
} // namespace detail

// What a record keeps of an argument: the value itself, a pointer as its address (so a
// record never keeps an object alive), any character text as an owned copy.
template <class T>
using Stored = typename detail::StoredArg<std::remove_cvref_t<std::decay_t<T>>>::type;

template <class T>
Stored<T> store(T&& v) {
    using S = Stored<T>;
    if constexpr (std::is_same_v<S, void const*>) return detail::asAddress(v);
    else return S(std::forward<T>(v));
}

// Where records come from: one per trace point, in static storage, so that a record keeps a
// single pointer for its level, class, function and format.
struct Site {
    unsigned level;
    char const* className;
    char const* function;
    std::string_view format;
};

// One event: its trace point and a copy of its arguments. The text is made only when read.
// A record fills one cache line: a trace point writes a line and reads none.
class alignas(64) Record {
public:
    // cppcheck-suppress uninitMemberVar ; args_ is raw storage, assign() builds the arguments in it
    Record() = default;
    Record(Record const&) = delete;
    Record& operator=(Record const&) = delete;
    ~Record() { reset(); }

    template <class... S>
    void assign(Site const& site, char const* handle, std::uint64_t sequence, S&&... args) {
        reset();
        site_ = &site; handle_ = handle; sequence_ = sequence;
        using Tuple = std::tuple<std::decay_t<S>...>;
        if constexpr (sizeof(Tuple) <= kInline && alignof(Tuple) <= kInlineAlign) {
            ::new (static_cast<void*>(args_)) Tuple(std::forward<S>(args)...);
            ops_ = &opsFor<Tuple, false>;
        } else {
            *reinterpret_cast<Tuple**>(args_) = new Tuple(std::forward<S>(args)...);
            ops_ = &opsFor<Tuple, true>;
        }
    }

    bool used() const noexcept { return ops_ != nullptr; }
    unsigned level() const noexcept { return site_ ? std::min(site_->level, kLevels - 1) : 0; }
    std::string_view handle() const noexcept { return handle_; }
    std::string_view className() const noexcept { return site_ ? site_->className : ""; }
    std::string_view function() const noexcept { return site_ ? site_->function : ""; }
    std::string_view format() const noexcept { return site_ ? site_->format : std::string_view(); }
    std::uint64_t sequence() const noexcept { return sequence_; }
    std::string message() const;  // the formatted message
    std::string text() const;     // "handle[level] Class::function: message"

private:
    static constexpr std::size_t kInline = 32, kInlineAlign = 16;
    struct Ops {
        void (*destroy)(void*);
        std::string (*format)(std::string_view, void const*);
    };
    template <class Tuple, bool Heap>
    static Tuple const& tupleOf(void const* p) {
        if constexpr (Heap) return **static_cast<Tuple* const*>(p);
        else return *static_cast<Tuple const*>(p);
    }
    template <class Tuple, bool Heap>
    static void destroyArgs(void* p) noexcept {
        if constexpr (Heap) delete *static_cast<Tuple**>(p);
        else static_cast<Tuple*>(p)->~Tuple();
    }
    template <class Tuple, bool Heap>
    static std::string formatArgs(std::string_view f, void const* p) {
        return std::apply([&](auto const&... a) { return fmt::vformat(f, fmt::make_format_args(a...)); },
                          tupleOf<Tuple, Heap>(p));
    }
    // Arguments that need no destruction (addresses, numbers) leave nothing to call when the
    // record is overwritten.
    template <class Tuple, bool Heap>
    static constexpr Ops opsFor{!Heap && std::is_trivially_destructible_v<Tuple> ? nullptr : &destroyArgs<Tuple, Heap>,
                                &formatArgs<Tuple, Heap>};
    void reset() noexcept {
        if (ops_ && ops_->destroy) ops_->destroy(args_);
        ops_ = nullptr;
    }

    Ops const* ops_ = nullptr;
    Site const* site_ = nullptr;
    char const* handle_ = "";
    std::uint64_t sequence_ = 0;
    alignas(kInlineAlign) unsigned char args_[kInline];
};
static_assert(sizeof(Record) == 64);

// A set of rings, one per level; each keeps its newest `capacity` records.
class Handle {
public:
    explicit Handle(std::size_t capacityPerLevel = 1024);
    Handle(Handle const&) = delete;
    Handle& operator=(Handle const&) = delete;

    // A record of `site` (kept by address: it must outlive the record) from the named handle.
    template <class... S>
    void write(Site const& site, char const* handle, S&&... args) {
        Ring& r = rings_[std::min(site.level, kLevels - 1)];
        r.slots[r.next].assign(site, handle, ++sequence_, std::forward<S>(args)...);
        if (++r.next == capacity_) r.next = 0;
        if (r.count < capacity_) ++r.count;
    }

    std::size_t capacity() const noexcept { return capacity_; }
    std::size_t size(unsigned level) const noexcept { return level < kLevels ? rings_[level].count : 0; }
    // The records of one level, oldest first.
    std::vector<Record const*> records(unsigned level) const;
    // The records of every level merged in the order they were written.
    std::vector<Record const*> records() const;
    void clear();

private:
    struct Ring {
        std::unique_ptr<Record[]> slots;
        std::size_t next = 0;
        std::size_t count = 0;
    };
    std::size_t capacity_;
    std::uint64_t sequence_ = 0;
    std::array<Ring, kLevels> rings_;
};

namespace detail {
extern Handle* gDefault;
extern bool gDefaultChosen;
Handle* defaultHandleChosen() noexcept;
} // namespace detail

// The process's default handle; trace points write into it when it is set. The framework
// sets one at start-up; a process may replace it or set none. Inline: every trace point asks.
inline Handle* defaultHandle() noexcept {
    return detail::gDefaultChosen ? detail::gDefault : detail::defaultHandleChosen();
}
void defaultHandleIs(Handle* handle) noexcept;

} // namespace Memtrail
