// Kivu: address text, read through the C library and written by hand; hashing.
#include "Kivu/IpGenAddr.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <ostream>

#include "Wex/CharRange.h"
#include "Wex/Hash.h"

namespace Kivu {

namespace {
constexpr std::string_view kUnspecified = "unspecified";
constexpr std::string_view kAnyIp4 = "0.0.0.0";
static_assert(IpGenAddr::kMaxTextLength < INET6_ADDRSTRLEN);

char* writeDecimal(char* w, unsigned byte) noexcept {
    if (byte >= 100) *w++ = char('0' + byte / 100);
    if (byte >= 10) *w++ = char('0' + byte / 10 % 10);
    *w++ = char('0' + byte % 10);
    return w;
}

char* writeIp4(char* w, std::uint8_t const* b) noexcept {
    for (int i = 0; i < 4; ++i) {
        if (i) *w++ = '.';
        w = writeDecimal(w, b[i]);
    }
    return w;
}

// Lower-case, without leading zeros.
char* writeHexWord(char* w, unsigned word) noexcept {
    static constexpr char kHex[] = "0123456789abcdef";
    int shift = 12;
    while (shift > 0 && (word >> shift) == 0) shift -= 4;
    for (; shift >= 0; shift -= 4) *w++ = kHex[(word >> shift) & 0xf];
    return w;
}
} // namespace

IpGenAddr::IpGenAddr(int addressFamily) noexcept {
    if (addressFamily == AF_INET) family_ = Family::ip4;
    else if (addressFamily == AF_INET6) family_ = Family::ip6;
}

std::optional<IpGenAddr> IpGenAddr::fromString(std::string_view text) {
    if (text == kUnspecified) return IpGenAddr();
    // The C reader stops at a NUL, which would let "1.2.3.4\0junk" through as 1.2.3.4.
    if (text.size() >= INET6_ADDRSTRLEN || text.find('\0') != std::string_view::npos) return std::nullopt;
    char buf[INET6_ADDRSTRLEN];
    std::memcpy(buf, text.data(), text.size());
    buf[text.size()] = '\0';
    IpGenAddr a;
    if (inet_pton(AF_INET, buf, a.bytes_.data()) == 1) {
        a.family_ = Family::ip4;
        return a;
    }
    if (inet_pton(AF_INET6, buf, a.bytes_.data()) == 1) {
        a.family_ = Family::ip6;
        return a;
    }
    return std::nullopt;
}

std::string IpGenAddr::stringValue() const {
    char buf[kMaxTextLength];
    return std::string(buf, writeText(buf));
}

// inet_ntop's text: for IPv6, the first longest run of two or more zero words as "::", and a
// dotted IPv4 tail after five zero words and ffff, or after six zero words.
char* IpGenAddr::writeText(char* w) const noexcept {
    if (family_ == Family::ip4) return writeIp4(w, bytes_.data());
    if (family_ != Family::ip6) return std::copy(kAnyIp4.begin(), kAnyIp4.end(), w);
    unsigned words[8];
    for (std::size_t i = 0; i < 8; ++i) words[i] = unsigned(bytes_[2 * i]) << 8 | bytes_[2 * i + 1];
    int bestBase = -1, bestLen = 0;
    for (int i = 0; i < 8;) {
        if (words[i] != 0) {
            ++i;
            continue;
        }
        int j = i;
        while (j < 8 && words[j] == 0) ++j;
        if (j - i >= 2 && j - i > bestLen) {
            bestBase = i;
            bestLen = j - i;
        }
        i = j;
    }
    for (int i = 0; i < 8; ++i) {
        if (i >= bestBase && i < bestBase + bestLen) {
            if (i == bestBase) *w++ = ':';
            continue;
        }
        if (i) *w++ = ':';
        if (i == 6 && bestBase == 0 && (bestLen == 6 || (bestLen == 5 && words[5] == 0xffff)))
            return writeIp4(w, bytes_.data() + 12);
        w = writeHexWord(w, words[i]);
    }
    if (bestBase >= 0 && bestBase + bestLen == 8) *w++ = ':';
    return w;
}

std::uint32_t Ip6Addr::hash(IpGenAddr const& a) noexcept {
    return Wex::Hash(0).hashMix(a.family()).hashMix(a.bytes().data(), a.bytes().size()).result();
}

std::string valueToStrep(IpGenAddr const& a) { return a.isUnspecified() ? std::string(kUnspecified) : a.stringValue(); }

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a) { return os << valueToStrep(a); }

IpGenAddr sequenceToValue(Wex::CharRange& range) {
    Wex::CharRange start = range;
    std::string_view text = range.token(",})' \t", "IpGenAddr");
    if (auto a = IpGenAddr::fromString(text)) return *a;
    range = start;
    throw Wex::RangeException("IpGenAddr", fmt::format("'{}' is not an IPv4 or IPv6 address", text));
}

} // namespace Kivu
