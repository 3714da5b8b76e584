// ListenConfig: hashing, text form, parsing and its type table.
#include "KelLib/Q7SyncListenConfig.h"

#include <ostream>

#include <fmt/format.h>

#include "Wex/Hash.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
constexpr char kTypeName[] = "Kel::Q7Sync::ListenConfig";
} // namespace

std::uint32_t ListenConfig::hash(std::uint32_t seed) const noexcept {
    std::uint32_t const addrHash = Kivu::Ip6Addr::hash(hostAddr_);
    return Wex::Hash(seed).hashMix(addrHash).hashMix(port_).result();
}

std::string valueToStrep(ListenConfig const& c) {
    return fmt::format("Value('{}', ** {{'hostAddr': {}, 'port': {}}})", kTypeName, Kivu::valueToStrep(c.hostAddr()),
                       c.port());
}

std::ostream& operator<<(std::ostream& os, ListenConfig const& c) { return os << valueToStrep(c); }

ListenConfig::ListenConfig(Wex::CharRange& range) {
    // Parse into a scratch range so that a failure leaves `range` where it was.
    Wex::CharRange r = range;
    r.require("Value('Kel::Q7Sync::ListenConfig', ** {", kTypeName);
    r.require("'hostAddr': ", "hostAddr");
    try {
        hostAddr_ = Kivu::sequenceToValue(r);
    } catch (Wex::RangeException const& e) {
        // The address reader names its own type; the caller wants to know which field failed.
        throw Wex::RangeException("hostAddr", e.what());
    }
    r.require(", 'port': ", "port");
    port_ = r.deserializeAttr<std::uint16_t>("port");
    r.require("})", kTypeName);
    range = r;
}

namespace {
void buildTypeTable(Wex::WexModule& m) {
    m.type<ListenConfig>(kTypeName)
        .readOnly("hostAddr", [](ListenConfig const& c) { return c.hostAddr(); })
        .readOnly("port", [](ListenConfig const& c) { return c.port(); })
        .maker([](Wex::Args const& a) {
            a.checkOnly(kTypeName, {"hostAddr", "port"});
            return ListenConfig(a.get<Kivu::IpGenAddr>(kTypeName, "hostAddr"), a.get<std::uint16_t>(kTypeName, "port"));
        });
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncListenConfig", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
