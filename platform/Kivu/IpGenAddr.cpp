// Kivu: address text through the C library, and hashing.
#include "Kivu/IpGenAddr.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>
#include <ostream>

#include "Wex/CharRange.h"
#include "Wex/Hash.h"

namespace Kivu {

namespace {
constexpr std::string_view kUnspecified = "unspecified";
}

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
    char buf[INET6_ADDRSTRLEN];
    if (family_ == Family::ip6) return inet_ntop(AF_INET6, bytes_.data(), buf, sizeof buf);
    if (family_ == Family::ip4) return inet_ntop(AF_INET, bytes_.data(), buf, sizeof buf);
    return "0.0.0.0";
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
