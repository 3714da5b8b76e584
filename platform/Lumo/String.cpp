// Lumo::String: shared buffer allocation and release.
#include "Lumo/String.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

namespace Lumo {

// Eight bytes at a time with a multiply-xorshift mix: cheap for the short keys and URIs kept
// here, and well spread in the low bits that open-addressing tables use.
std::uint32_t String::hashOf(std::string_view s) noexcept {
    if (s.empty()) return kEmptyHash;
    auto const* p = reinterpret_cast<unsigned char const*>(s.data());
    std::size_t n = s.size();
    std::uint64_t h = 0x9e3779b97f4a7c15ull ^ n;
    std::uint64_t w;
    while (n >= 8) {
        std::memcpy(&w, p, 8);
        h = (h ^ w) * 0xbf58476d1ce4e5b9ull;
        h ^= h >> 29;
        p += 8;
        n -= 8;
    }
    w = 0;
    std::memcpy(&w, p, n);
    h = (h ^ w) * 0x94d049bb133111ebull;
    h ^= h >> 31;
    h *= 0xbf58476d1ce4e5b9ull;
    return static_cast<std::uint32_t>(h ^ (h >> 32));
}

String::String(std::string_view s) {
    if (s.empty()) return;
    void* mem = std::malloc(offsetof(Rep, data) + s.size() + 1);
    if (!mem) throw std::bad_alloc();
    rep_ = static_cast<Rep*>(mem);
    rep_->refs = 1;
    rep_->size = static_cast<std::uint32_t>(s.size());
    rep_->hash = hashOf(s);
    std::memcpy(rep_->data, s.data(), s.size());
    rep_->data[s.size()] = '\0';
}

void String::destroy(Rep* rep) noexcept { std::free(rep); }

std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

} // namespace Lumo
