// Q7Sync request flags: an 8-bit flag set with its text form.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Wex/CharRange.h"

namespace Q7Sync {
namespace WexUtils {

// Bit 0 WRITE (a write-sync subscription), bit 1 RELIABLE, bit 2 SNAPSHOT, bit 3 ORDERED,
// bit 4 SEED; bits 5 to 7 carry no name.
enum class SyncRequestFlags : std::uint8_t {};

constexpr SyncRequestFlags WRITE() noexcept { return SyncRequestFlags(0x01); }
constexpr SyncRequestFlags RELIABLE() noexcept { return SyncRequestFlags(0x02); }
constexpr SyncRequestFlags SNAPSHOT() noexcept { return SyncRequestFlags(0x04); }
constexpr SyncRequestFlags ORDERED() noexcept { return SyncRequestFlags(0x08); }
constexpr SyncRequestFlags SEED() noexcept { return SyncRequestFlags(0x10); }

constexpr SyncRequestFlags operator|(SyncRequestFlags a, SyncRequestFlags b) noexcept {
    return SyncRequestFlags(std::uint8_t(a) | std::uint8_t(b));
}
constexpr bool has(SyncRequestFlags set, SyncRequestFlags f) noexcept { return (std::uint8_t(set) & std::uint8_t(f)) == std::uint8_t(f); }

} // namespace WexUtils

// "NONE", or the names of the bits joined by '|' ("WRITE|SNAPSHOT"); unnamed bits as hex ("0x20").
std::string valueToStrep(WexUtils::SyncRequestFlags f);
// Reads the text form back; anything else is a Wex::RangeException of attribute "SyncRequestFlags".
WexUtils::SyncRequestFlags sequenceToValue(Wex::CharRange& range);

namespace WexUtils {
using ::Q7Sync::valueToStrep;  // found by argument-dependent lookup on the flags, as reflection does
}

} // namespace Q7Sync

template <>
struct fmt::formatter<Q7Sync::WexUtils::SyncRequestFlags> : fmt::formatter<std::string_view> {
    template <class Ctx>
    auto format(Q7Sync::WexUtils::SyncRequestFlags f, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(Q7Sync::valueToStrep(f), ctx);
    }
};

// Reflection reads request flags from text with the library's own reader.
template <>
struct Wex::TextReader<Q7Sync::WexUtils::SyncRequestFlags> {
    static Q7Sync::WexUtils::SyncRequestFlags read(Wex::CharRange& range) { return Q7Sync::sequenceToValue(range); }
};
