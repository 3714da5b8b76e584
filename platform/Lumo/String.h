// Lumo::String: an immutable string whose copies share one counted buffer.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Lumo {

// Strings are copied into every collection keyed by a subscription; sharing the buffer makes
// each copy a count increment instead of an allocation. Counts are framework-thread only.
// The hash is computed once, on the first look-up, and kept with the buffer: a string used as a
// key is looked up far more often than made, and many strings are never keys.
class String {
public:
    String() noexcept = default;
    String(std::string_view s);
    String(char const* s) : String(std::string_view(s)) {}
    String(std::string const& s) : String(std::string_view(s)) {}
    String(String const& o) noexcept : rep_(o.rep_) { if (rep_) ++rep_->refs; }
    String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
    String& operator=(String o) noexcept { std::swap(rep_, o.rep_); return *this; }
    ~String() {
        if (rep_ && --rep_->refs == 0) destroy(rep_);
    }

    std::string_view view() const noexcept { return rep_ ? std::string_view(rep_->data, rep_->size) : std::string_view(); }
    operator std::string_view() const noexcept { return view(); }
    std::string str() const { return std::string(view()); }
    char const* c_str() const noexcept { return rep_ ? rep_->data : ""; }
    std::size_t size() const noexcept { return rep_ ? rep_->size : 0; }
    bool empty() const noexcept { return rep_ == nullptr; }
    bool startsWith(std::string_view p) const noexcept { return view().starts_with(p); }
    // The hash of the text, the same for equal strings whatever their buffers.
    std::uint32_t hash() const noexcept {
        if (!rep_) return kEmptyHash;
        if (!rep_->hashed) keepHash(rep_);
        return rep_->hash;
    }
    static std::uint32_t hashOf(std::string_view s) noexcept;
    // The parts joined, written straight into the new buffer.
    static String concat(std::initializer_list<std::string_view> parts);

    // Copies of one string share the buffer: that case is decided inline.
    friend bool operator==(String const& a, String const& b) noexcept { return a.rep_ == b.rep_ || sameText(a, b); }
    friend bool operator==(String const& a, std::string_view b) noexcept { return a.view() == b; }
    friend bool operator==(String const& a, char const* b) noexcept { return a.view() == b; }
    friend std::strong_ordering operator<=>(String const& a, String const& b) noexcept { return a.view() <=> b.view(); }

private:
    struct Rep {
        std::uint32_t refs;
        std::uint32_t size : 31;
        std::uint32_t hashed : 1;
        std::uint32_t hash;
        char data[1];
    };
    static constexpr std::uint32_t kEmptyHash = 0x811c9dc5u;
    static Rep* allocate(std::size_t size);
    static void keepHash(Rep* rep) noexcept;
    static bool sameText(String const& a, String const& b) noexcept;
    static void destroy(Rep* rep) noexcept;
    Rep* rep_ = nullptr;
};

std::ostream& operator<<(std::ostream& os, String const& s);

} // namespace Lumo

template <>
struct fmt::formatter<Lumo::String> : fmt::formatter<std::string_view> {
    template <class Ctx>
    auto format(Lumo::String const& s, Ctx& ctx) const { return fmt::formatter<std::string_view>::format(s.view(), ctx); }
};

template <>
struct std::hash<Lumo::String> {
    std::size_t operator()(Lumo::String const& s) const noexcept { return s.hash(); }
};
