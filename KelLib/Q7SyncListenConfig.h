// ListenConfig: the address and port on which the sync service is asked to listen.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "Kivu/IpGenAddr.h"
#include "Wex/CharRange.h"

namespace Kel::Q7Sync {

// A plain value. The default (unspecified address, port 0) means "no endpoint wanted" and is
// the only value whose truth value is false.
class ListenConfig {
public:
    ListenConfig() noexcept = default;
    ListenConfig(Kivu::IpGenAddr const& hostAddr, std::uint16_t port) noexcept : hostAddr_(hostAddr), port_(port) {}
    // Reads the text form of valueToStrep. On failure throws Wex::RangeException naming the
    // attribute that could not be read and leaves `range` where it was.
    explicit ListenConfig(Wex::CharRange& range);

    Kivu::IpGenAddr const& hostAddr() const noexcept { return hostAddr_; }
    std::uint16_t port() const noexcept { return port_; }

    static bool isEq(ListenConfig const& a, ListenConfig const& b) noexcept {
        return a.port_ == b.port_ && Kivu::IpGenAddr::isEq(a.hostAddr_, b.hostAddr_);
    }
    friend bool operator==(ListenConfig const& a, ListenConfig const& b) noexcept { return isEq(a, b); }
    std::uint32_t hash(std::uint32_t seed) const noexcept;
    explicit operator bool() const noexcept { return port_ != 0 || !hostAddr_.isUnspecified(); }

private:
    Kivu::IpGenAddr hostAddr_;
    std::uint16_t port_ = 0;
};

// "Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': <address>, 'port': <decimal>})"
std::string valueToStrep(ListenConfig const& config);
std::ostream& operator<<(std::ostream& os, ListenConfig const& config);

} // namespace Kel::Q7Sync
