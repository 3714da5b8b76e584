// Q7Sync request flags: text form and reader.
#include "Q7Sync/Flags.h"

#include <array>
#include <string_view>

#include "Wex/CharRange.h"

namespace Q7Sync {

namespace {
constexpr std::array<std::string_view, 5> kNames = {"WRITE", "RELIABLE", "SNAPSHOT", "ORDERED", "SEED"};

int bitOf(std::string_view name) {
    for (std::size_t i = 0; i < kNames.size(); ++i)
        if (kNames[i] == name) return int(i);
    if (name.size() == 4 && name.starts_with("0x")) {
        auto hex = [](char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1; };
        int hi = hex(name[2]), lo = hex(name[3]);
        if (hi >= 0 && lo >= 0) {
            int v = hi * 16 + lo;
            for (int b = int(kNames.size()); b < 8; ++b)
                if (v == 1 << b) return b;
        }
    }
    return -1;
}
} // namespace

std::string valueToStrep(WexUtils::SyncRequestFlags f) {
    auto v = std::uint8_t(f);
    if (v == 0) return "NONE";
    std::string out;
    for (int b = 0; b < 8; ++b) {
        if (!(v & (1u << b))) continue;
        if (!out.empty()) out += '|';
        out += b < int(kNames.size()) ? std::string(kNames[b]) : fmt::format("0x{:02x}", 1u << b);
    }
    return out;
}

WexUtils::SyncRequestFlags sequenceToValue(Wex::CharRange& range) {
    Wex::CharRange start = range;
    std::string_view text = range.token(",})' \t", "SyncRequestFlags");
    if (text == "NONE") return WexUtils::SyncRequestFlags(0);
    unsigned v = 0;
    while (!text.empty()) {
        std::size_t bar = text.find('|');
        std::string_view name = text.substr(0, bar);
        int b = bitOf(name);
        if (b < 0 || (v & (1u << b))) {
            range = start;
            throw Wex::RangeException("SyncRequestFlags", fmt::format("'{}' is not a request flag here", name));
        }
        v |= 1u << b;
        text = bar == std::string_view::npos ? std::string_view() : text.substr(bar + 1);
        if (bar != std::string_view::npos && text.empty()) {
            range = start;
            throw Wex::RangeException("SyncRequestFlags", "flag list ends in '|'");
        }
    }
    return WexUtils::SyncRequestFlags(v);
}

} // namespace Q7Sync
