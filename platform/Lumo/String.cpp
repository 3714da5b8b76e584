// Lumo::String: shared buffer allocation and release.
#include "Lumo/String.h"

#include <cstddef>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "Lumo/SmallBlocks.h"

namespace Lumo {

namespace {

std::uint64_t load64(unsigned char const* p) noexcept {
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
std::uint64_t load32(unsigned char const* p) noexcept {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
// The 128-bit product folded to 64 bits: one multiply mixes both words fully.
std::uint64_t mum(std::uint64_t a, std::uint64_t b) noexcept {
    __uint128_t const r = static_cast<__uint128_t>(a) * b;
    return static_cast<std::uint64_t>(r) ^ static_cast<std::uint64_t>(r >> 64);
}
constexpr std::uint64_t kMix0 = 0xa0761d6478bd642full, kMix1 = 0xe7037ed1a0b428dbull;

template <std::size_t N>
void copyWord(char* to, char const* from) noexcept {
    char word[N];
    std::memcpy(word, from, N);
    std::memcpy(to, word, N);
}
// Copies s to w and returns its end. The pieces joined here are mostly a few bytes long: two
// overlapping words copy them without a library call each.
char* put(char* w, std::string_view s) noexcept {
    std::size_t const n = s.size();
    char const* p = s.data();
    if (n >= 16) std::memcpy(w, p, n);
    else if (n >= 8) copyWord<8>(w, p), copyWord<8>(w + n - 8, p + n - 8);
    else if (n >= 4) copyWord<4>(w, p), copyWord<4>(w + n - 4, p + n - 4);
    else
        for (std::size_t i = 0; i < n; ++i) w[i] = p[i];
    return w + n;
}

} // namespace

// Sixteen bytes per multiply, the last (or only) ones read as two overlapping words: the keys
// and URIs kept here are 2 to 60 bytes long, and are hashed once each, when they are made.
std::uint32_t String::hashOf(std::string_view s) noexcept {
    if (s.empty()) return kEmptyHash;
    auto const* p = reinterpret_cast<unsigned char const*>(s.data());
    std::size_t const n = s.size();
    std::uint64_t seed = kMix1 ^ n;
    std::uint64_t a, b;
    if (n <= 16) {
        if (n >= 8) {
            a = load64(p);
            b = load64(p + n - 8);
        } else if (n >= 4) {
            a = load32(p);
            b = load32(p + n - 4);
        } else {
            a = (std::uint64_t(p[0]) << 16) | (std::uint64_t(p[n >> 1]) << 8) | p[n - 1];
            b = 0;
        }
    } else {
        std::size_t left = n;
        for (; left > 16; left -= 16, p += 16) seed = mum(load64(p) ^ kMix0, load64(p + 8) ^ seed);
        a = load64(p + left - 16);
        b = load64(p + left - 8);
    }
    std::uint64_t const h = mum(a ^ kMix0, b ^ seed);
    return static_cast<std::uint32_t>(h ^ (h >> 32));
}

String::Rep* String::allocate(std::size_t size) {
    if (size >= std::size_t{1} << 31) throw std::length_error("Lumo::String of 2 GiB or more");
    Rep* rep = static_cast<Rep*>(smallBlockNew(offsetof(Rep, data) + size + 1));
    rep->refs = 1;
    rep->size = static_cast<std::uint32_t>(size);
    rep->hashed = 0;
    rep->data[size] = '\0';
    return rep;
}

String::String(std::string_view s) {
    if (s.empty()) return;
    rep_ = allocate(s.size());
    put(rep_->data, s);
}

String String::concat(std::initializer_list<std::string_view> parts) {
    std::size_t size = 0;
    for (std::string_view p : parts) size += p.size();
    String out;
    if (size == 0) return out;
    out.rep_ = allocate(size);
    char* w = out.rep_->data;
    for (std::string_view p : parts) w = put(w, p);
    return out;
}

void String::keepHash(Rep* rep) noexcept {
    rep->hash = hashOf(std::string_view(rep->data, rep->size));
    rep->hashed = 1;
}

// Hashes already kept settle most unequal pairs; none is made for the comparison.
bool String::sameText(String const& a, String const& b) noexcept {
    if (a.rep_ && b.rep_ && a.rep_->hashed && b.rep_->hashed && a.rep_->hash != b.rep_->hash) return false;
    return a.view() == b.view();
}

void String::destroy(Rep* rep) noexcept { smallBlockDelete(rep, offsetof(Rep, data) + rep->size + 1); }

std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

} // namespace Lumo
