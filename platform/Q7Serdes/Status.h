// Q7Serdes status entities: what the sync service tells of a subscription and of an endpoint.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Lumo/Publisher.h"
#include "Lumo/String.h"
#include "Wex/PtrInterface.h"

namespace Q7Serdes::WexUtils {

enum class SyncStatusEnum : std::uint8_t { notConnected = 0, connecting = 1, syncing = 2, inSync = 3, failed = 4 };
std::string valueToStrep(SyncStatusEnum s);

// The state of one subscribed remote URI. The service owns and updates it; watchers
// (NotifieeConst) hear of each attribute change through notifieeList().
class SyncStatus : public Wex::PtrInterface {
public:
    // Attribute identifiers count from 130 in declaration order.
    static constexpr Wex::AttributeId kUri = 130, kLocalUri = 131, kPeer = 132, kStatus = 133, kReason = 134;

    // `uri` is "<peer>/<path>": the peer is the text before its first '/'. `requestFlags`: the
    // sync service's request flags it was subscribed with, as their 8-bit value.
    SyncStatus(Lumo::String uri, Lumo::String localUri, std::uint8_t requestFlags = 0);

    Lumo::String const& uri() const noexcept { return uri_; }
    Lumo::String const& localUri() const noexcept { return localUri_; }
    // The agent that serves the uri, as "<address>:<port>".
    Lumo::String const& peer() const noexcept { return peer_; }
    std::uint8_t requestFlags() const noexcept { return requestFlags_; }
    SyncStatusEnum status() const noexcept { return status_; }
    Lumo::String const& reason() const noexcept { return reason_; }

    // Written by the service only.
    void statusIs(SyncStatusEnum s);
    void reasonIs(Lumo::String const& r);

    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~SyncStatus() override;

private:
    Lumo::String uri_;
    Lumo::String localUri_;
    Lumo::String peer_;
    std::uint8_t requestFlags_;
    SyncStatusEnum status_ = SyncStatusEnum::notConnected;
    Lumo::String reason_;
    mutable Lumo::Publisher publisher_;
};

// The state of one listening endpoint, as the operating system answered.
class ListenStatus : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kListening = 130, kReason = 131;

    ListenStatus(bool listening, Lumo::String reason);

    bool listening() const noexcept { return listening_; }
    Lumo::String const& reason() const noexcept { return reason_; }

    // Written by the service only.
    void listeningIs(bool l);
    void reasonIs(Lumo::String const& r);

    Lumo::Publisher& publisher() const noexcept { return publisher_; }
    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~ListenStatus() override;

private:
    bool listening_;
    Lumo::String reason_;
    mutable Lumo::Publisher publisher_;
};

} // namespace Q7Serdes::WexUtils

template <>
struct fmt::formatter<Q7Serdes::WexUtils::SyncStatusEnum> : fmt::formatter<std::string_view> {
    template <class Ctx>
    auto format(Q7Serdes::WexUtils::SyncStatusEnum s, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(Q7Serdes::WexUtils::valueToStrep(s), ctx);
    }
};
