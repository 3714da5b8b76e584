// Wex::Hash: incremental 32-bit hash over the fields of a value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace Wex {

// Mixes byte runs four at a time (murmur3 body), each run followed by its length so that
// ("ab","c") and ("a","bc") differ; result() applies the finaliser.
class Hash {
public:
    explicit constexpr Hash(std::uint32_t seed) noexcept : h_(seed) {}

    Hash& hashMix(void const* data, std::size_t size) noexcept {
        auto const* p = static_cast<unsigned char const*>(data);
        std::size_t n = size;
        while (n >= 4) {
            std::uint32_t k;
            std::memcpy(&k, p, 4);
            body(k);
            p += 4;
            n -= 4;
        }
        std::uint32_t k = 0;
        for (std::size_t i = 0; i < n; ++i) k |= std::uint32_t(p[i]) << (8 * i);
        body(k ^ static_cast<std::uint32_t>(size));
        length_ += static_cast<std::uint32_t>(size);
        return *this;
    }
    Hash& hashMix(std::string_view s) noexcept { return hashMix(s.data(), s.size()); }
    template <class T, class = std::enable_if_t<std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>>>
    Hash& hashMix(T const& v) noexcept { return hashMix(&v, sizeof v); }

    std::uint32_t result() const noexcept {
        std::uint32_t h = h_ ^ length_;
        h ^= h >> 16; h *= 0x85ebca6bu; h ^= h >> 13; h *= 0xc2b2ae35u; h ^= h >> 16;
        return h;
    }

private:
    void body(std::uint32_t k) noexcept {
        k *= 0xcc9e2d51u; k = (k << 15) | (k >> 17); k *= 0x1b873593u;
        h_ ^= k; h_ = (h_ << 13) | (h_ >> 19); h_ = h_ * 5 + 0xe6546b64u;
    }
    std::uint32_t h_;
    std::uint32_t length_ = 0;
};

} // namespace Wex
