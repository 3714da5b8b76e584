// Kivu: IPv4 and IPv6 addresses with their family, and ports.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Wex/CharRange.h"

namespace Kivu {

// An address of family 4 or 6, or the unspecified address of family 0 (the default).
// The unspecified address prints as "unspecified" and reads back from that text; to the
// operating system (stringValue) it is the IPv4 any-address "0.0.0.0".
class IpGenAddr {
public:
    enum class Family : std::uint8_t { unspecified = 0, ip4 = 4, ip6 = 6 };

    constexpr IpGenAddr() noexcept = default;
    // The zero address of a family given as 0, AF_INET or AF_INET6 (anything else: family 0).
    explicit IpGenAddr(int addressFamily) noexcept;
    // Reads IPv4 or IPv6 text (or "unspecified"); nothing for anything else.
    static std::optional<IpGenAddr> fromString(std::string_view text);

    Family family() const noexcept { return family_; }
    bool isUnspecified() const noexcept { return family_ == Family::unspecified; }
    std::array<std::uint8_t, 16> const& bytes() const noexcept { return bytes_; }
    // The address as the operating system writes it (inet_ntop's text).
    std::string stringValue() const;
    // The longest text writeText writes: eight words of four hex digits and their seven colons.
    static constexpr std::size_t kMaxTextLength = 39;
    // Writes stringValue()'s text at `out`, which has room for kMaxTextLength characters, with
    // no NUL, and returns its end. No allocation and no sprintf per field: keys are built from
    // an address for every subscription.
    char* writeText(char* out) const noexcept;

    // Word by word: configurations compare their addresses on every look-up.
    static bool isEq(IpGenAddr const& a, IpGenAddr const& b) noexcept {
        std::uint64_t x[2], y[2];
        std::memcpy(x, a.bytes_.data(), sizeof x);
        std::memcpy(y, b.bytes_.data(), sizeof y);
        return a.family_ == b.family_ && x[0] == y[0] && x[1] == y[1];
    }
    friend bool operator==(IpGenAddr const&, IpGenAddr const&) noexcept = default;
    // Family first, then the address bytes.
    friend std::strong_ordering operator<=>(IpGenAddr const&, IpGenAddr const&) noexcept = default;

private:
    Family family_ = Family::unspecified;
    std::array<std::uint8_t, 16> bytes_{};
};

struct Ip6Addr {
    // 32-bit hash over the family and the 16 address bytes.
    static std::uint32_t hash(IpGenAddr const& a) noexcept;
};

// A 16-bit port number.
class Port {
public:
    constexpr Port() noexcept = default;
    constexpr explicit Port(std::uint16_t v) noexcept : value_(v) {}
    constexpr std::uint16_t value() const noexcept { return value_; }
    constexpr operator std::uint16_t() const noexcept { return value_; }

private:
    std::uint16_t value_ = 0;
};

std::string valueToStrep(IpGenAddr const& a);
std::ostream& operator<<(std::ostream& os, IpGenAddr const& a);
// Reads an address at the range's front, up to the next separator (",})" or a blank).
// Bad text is a Wex::RangeException of attribute "IpGenAddr".
IpGenAddr sequenceToValue(Wex::CharRange& range);

} // namespace Kivu

template <>
struct fmt::formatter<Kivu::IpGenAddr> : fmt::formatter<std::string_view> {
    template <class Ctx>
    auto format(Kivu::IpGenAddr const& a, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(Kivu::valueToStrep(a), ctx);
    }
};

// Reflection reads addresses from text with the library's own reader.
template <>
struct Wex::TextReader<Kivu::IpGenAddr> {
    static Kivu::IpGenAddr read(Wex::CharRange& range) { return Kivu::sequenceToValue(range); }
};
