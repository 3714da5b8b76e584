// Lumo::String: shared buffer allocation and release.
#include "Lumo/String.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

#include "Lumo/SmallBlocks.h"

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

String::Rep* String::allocate(std::size_t size) {
    Rep* rep = static_cast<Rep*>(smallBlockNew(offsetof(Rep, data) + size + 1));
    rep->refs = 1;
    rep->size = static_cast<std::uint32_t>(size);
    rep->data[size] = '\0';
    return rep;
}

String::String(std::string_view s) {
    if (s.empty()) return;
    rep_ = allocate(s.size());
    std::memcpy(rep_->data, s.data(), s.size());
    rep_->hash = hashOf(s);
}

String String::concat(std::initializer_list<std::string_view> parts) {
    std::size_t size = 0;
    for (std::string_view p : parts) size += p.size();
    String out;
    if (size == 0) return out;
    out.rep_ = allocate(size);
    char* w = out.rep_->data;
    for (std::string_view p : parts) {
        std::memcpy(w, p.data(), p.size());
        w += p.size();
    }
    out.rep_->hash = hashOf(out.view());
    return out;
}

void String::destroy(Rep* rep) noexcept { smallBlockDelete(rep, offsetof(Rep, data) + rep->size + 1); }

std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

} // namespace Lumo
