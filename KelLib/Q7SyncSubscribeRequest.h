// The subscription value PathSubscribeConfig, and the requests that clients hold for it.
#pragma once

#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Kivu/IpGenAddr.h"
#include "Lumo/String.h"
#include "Oru/Dedup.h"
#include "Q7Sync/Flags.h"
#include "Wex/CharRange.h"
#include "Wex/Passkey.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {

// One subscription: which path of which remote agent is mirrored into what kind of local
// container, under which key, with which request flags. The three derived strings are
// computed once, at construction, from the six given fields.
class PathSubscribeConfig : public Oru::DedupContentHandle {
public:
    using SyncRequestFlags = ::Q7Sync::WexUtils::SyncRequestFlags;

    // The default value: unspecified address, nothing derived; false as a truth value.
    PathSubscribeConfig() noexcept = default;
    // Refuses, with Wex::NewEntityArgsException naming "syncContainerType", a container type
    // that is not SyncContainer or derived from it when the address is specified.
    PathSubscribeConfig(Kivu::IpGenAddr const& remoteAddr, std::uint32_t remotePort, Lumo::String remotePath,
                        Lumo::String syncContainerKey, Wex::WexType const* syncContainerType, SyncRequestFlags flags);
    // Reads the text form; the derived strings are taken as they stand. No container type.
    explicit PathSubscribeConfig(Wex::CharRange& range);

    // The container type named by its full registered name; an unknown name is refused with
    // Wex::NewEntityArgsException naming "syncContainerTypeName".
    static PathSubscribeConfig createWithContainerTypeString(Kivu::IpGenAddr const& remoteAddr,
                                                             std::uint32_t remotePort, Lumo::String remotePath,
                                                             Lumo::String syncContainerKey,
                                                             std::string_view syncContainerTypeName,
                                                             SyncRequestFlags flags);
    // A write-sync subscription: the remote path is "/q7/writeSync/<key>/syncAttribute".
    // Flags without WRITE are refused with Wex::NewEntityArgsException naming "flags".
    static PathSubscribeConfig createWriteSyncConfig(Kivu::IpGenAddr const& remoteAddr, Kivu::Port remotePort,
                                                     Lumo::String syncContainerKey,
                                                     Wex::WexType const* syncContainerType, SyncRequestFlags flags);

    PathSubscribeConfig(PathSubscribeConfig const& o) noexcept : fields_(o.fields_) { if (fields_) ++fields_->refs; }
    PathSubscribeConfig(PathSubscribeConfig&& o) noexcept : fields_(o.fields_) { o.fields_ = nullptr; }
    PathSubscribeConfig& operator=(PathSubscribeConfig o) noexcept { std::swap(fields_, o.fields_); return *this; }
    ~PathSubscribeConfig() { if (fields_ && --fields_->refs == 0) destroy(fields_); }

    Kivu::IpGenAddr const& remoteAddr() const noexcept { return fields().remoteAddr; }
    std::uint32_t remotePort() const noexcept { return fields().remotePort; }
    Lumo::String const& remotePath() const noexcept { return fields().remotePath; }
    Lumo::String const& syncContainerKey() const noexcept { return fields().syncContainerKey; }
    Wex::WexType const* syncContainerType() const noexcept { return fields().syncContainerType; }
    SyncRequestFlags flags() const noexcept { return fields().flags; }
    Lumo::String const& remoteAgentKey() const noexcept { return fields().remoteAgentKey; }
    Lumo::String const& localUri() const noexcept { return fields().localUri; }
    Lumo::String const& remoteUri() const noexcept { return fields().remoteUri; }

    // All nine fields equal; the container type by identity. Copies share their fields, so
    // most checks, made by every collection keyed by a subscription, are one pointer compare.
    static bool isEq(PathSubscribeConfig const& a, PathSubscribeConfig const& b) noexcept {
        return a.fields_ == b.fields_ || (a.fields().hash0 == b.fields().hash0 && sameFields(a.fields(), b.fields()));
    }
    friend bool operator==(PathSubscribeConfig const& a, PathSubscribeConfig const& b) noexcept { return isEq(a, b); }
    // Field by field in declaration order; the first field that differs decides.
    friend bool operator<(PathSubscribeConfig const& a, PathSubscribeConfig const& b) noexcept;
    std::uint32_t hash(std::uint32_t seed) const noexcept { return seed == 0 ? fields().hash0 : computeHash(fields(), seed); }
    explicit operator bool() const noexcept;

private:
    // The fields, made once and shared by every copy: a subscription is copied into half a
    // dozen tables, and each copy is then one count. Counts are framework-thread only.
    struct Fields {
        Kivu::IpGenAddr remoteAddr;
        std::uint32_t remotePort = 0;
        Lumo::String remotePath;
        Lumo::String syncContainerKey;
        Wex::WexType const* syncContainerType = nullptr;
        SyncRequestFlags flags{};
        Lumo::String remoteAgentKey;
        Lumo::String localUri;
        Lumo::String remoteUri;
        // hash(0), the seed of the dedup table and of every collection keyed by subscription,
        // computed once: subscriptions are looked up in half a dozen tables each.
        std::uint32_t hash0 = 0;
        std::uint32_t refs = 1;

        static void* operator new(std::size_t size);
        static void operator delete(void* p, std::size_t size) noexcept;
    };
    explicit PathSubscribeConfig(Fields* fields) noexcept : fields_(fields) {}
    Fields const& fields() const noexcept { return fields_ ? *fields_ : defaultFields(); }
    static Fields const& defaultFields() noexcept;
    static PathSubscribeConfig made(std::unique_ptr<Fields> fields);
    static void handleInitialized(Fields& f);  // the derivation
    static bool sameFields(Fields const& a, Fields const& b) noexcept;
    static std::uint32_t computeHash(Fields const& f, std::uint32_t seed) noexcept;
    static void destroy(Fields* fields) noexcept;

    Fields* fields_ = nullptr;  // null: the default value
};

std::string valueToStrep(PathSubscribeConfig const& config);
std::ostream& operator<<(std::ostream& os, PathSubscribeConfig const& config);


class PathSubscribeRequest;

// The notifiee's handle on one request: names it without keeping it alive. The request holds
// its notifier; a notifier outlives its request only while the notifiee's bookkeeping still
// holds it, and then names no request but keeps its configuration.
class PathSubscribeRequestLifeTimeNotifier : public Oru::DedupHandleLifeTimeNotifier {
public:
    // Refuses a null handle (Wex::NullArgumentException "handle") and one that is not a
    // PathSubscribeRequest (Wex::NewEntityArgsException naming "handle").
    static Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier> PathSubscribeRequestLifeTimeNotifierIs(
        Lumo::Ptr<Oru::DedupHandleBase const> const& handle);

    // The request, or null once the request has let go of this notifier (it was untracked, or
    // it goes): a notifier that someone still holds never names a request that is gone.
    PathSubscribeRequest* requestRawPtr() const noexcept;
    // The request's configuration, also after it has gone.
    PathSubscribeConfig const& pathSubscribeConfig() const noexcept { return pathSubscribeConfig_; }
    // Told by the request when it lets go of this notifier.
    void requestRawPtrDel(Wex::Passkey<PathSubscribeRequest>) const noexcept { dedupedObjectGone(); }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    PathSubscribeRequestLifeTimeNotifier(Lumo::Ptr<Oru::DedupHandleBase const> const& handle,
                                         PathSubscribeConfig const& pathSubscribeConfig) noexcept;
    ~PathSubscribeRequestLifeTimeNotifier() override;

private:
    PathSubscribeConfig const pathSubscribeConfig_;
};

Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier> pathSubscribeRequestLifeTimeNotifierFactory(
    Lumo::Ptr<Oru::DedupHandleBase const> const& handle);

// A client's hold on one subscription: the dedup table hands out one request per distinct
// configuration, and the subscription lasts while any client holds its request.
class PathSubscribeRequest : public Oru::DedupHandle {
public:
    static Lumo::Ptr<PathSubscribeRequest> PathSubscribeRequestIs(PathSubscribeConfig const& pathSubscribeConfig);

    PathSubscribeConfig const& pathSubscribeConfig() const noexcept { return pathSubscribeConfig_; }
    Lumo::String const& localUri() const noexcept { return pathSubscribeConfig_.localUri(); }
    Lumo::String const& remoteUri() const noexcept { return pathSubscribeConfig_.remoteUri(); }

    // Set while the request notifiee tracks the request, null otherwise.
    Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier const> const& lifeTimeNotifier() const noexcept {
        return lifeTimeNotifier_;
    }
    // A notifier that names another request is refused with Wex::NewEntityArgsException
    // naming "lifeTimeNotifier".
    void lifeTimeNotifierIs(Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier const> const& lifeTimeNotifier);

    // The configuration's hash with seed 0, as dedup computes it for an equal configuration.
    std::uint32_t hash() const noexcept override;
    bool compare(Oru::DedupHandleBase const* other) const noexcept override;
    // content is the PathSubscribeConfig handed to dedup.
    bool compareByContent(Oru::DedupContentHandle const& content) const noexcept override;
    Wex::WexType const* fwkType() const noexcept override;

protected:
    explicit PathSubscribeRequest(PathSubscribeConfig const& pathSubscribeConfig);
    ~PathSubscribeRequest() override;

private:
    PathSubscribeConfig const pathSubscribeConfig_;
    Lumo::Ptr<PathSubscribeRequestLifeTimeNotifier const> lifeTimeNotifier_;
};

Lumo::Ptr<PathSubscribeRequest> pathSubscribeRequestFactory(PathSubscribeConfig const& pathSubscribeConfig);

// Where clients ask for subscriptions: equal configurations share one request, and the
// life-time notifiee hears of every request that enters or leaves the framework table.
class PathSubscribeRequestDedupTable : public Wex::PtrInterface {
public:
    // Refuses a null notifiee with Wex::NullArgumentException "lifeTimeNotifiee".
    static Lumo::Ptr<PathSubscribeRequestDedupTable> PathSubscribeRequestDedupTableIs(
        Lumo::Ptr<Oru::DedupHashTableLifeTimeNotifiee const> const& lifeTimeNotifiee);

    Lumo::Ptr<Oru::DedupHashTableLifeTimeNotifiee const> const& lifeTimeNotifiee() const noexcept {
        return lifeTimeNotifiee_;
    }
    Lumo::Ptr<Oru::DedupHashTable> const& dedupTable() const noexcept { return dedupTable_; }
    // Moves the notifiee over: the table held before is detached (its requests are untracked
    // through handleNotificationStop) and the new one attached. Null is refused.
    void dedupTableIs(Lumo::Ptr<Oru::DedupHashTable> const& dedupTable);

    // The request shared by every holder of a configuration equal to `config`. A configuration
    // without a remote address is refused with Wex::NewEntityArgsException naming "remoteAddr",
    // before anything changes: its local and remote URIs are empty and would be confused.
    Lumo::Ptr<PathSubscribeRequest> dedup(PathSubscribeConfig const& config) const;

    // Creates a framework table and attaches the notifiee to it.
    void handleInitialized();
    // Detaches the notifiee, which then drops all of its bookkeeping.
    void handleDestroy();

    Wex::WexType const* fwkType() const noexcept override;

protected:
    explicit PathSubscribeRequestDedupTable(Lumo::Ptr<Oru::DedupHashTableLifeTimeNotifiee const> lifeTimeNotifiee);
    ~PathSubscribeRequestDedupTable() override;

private:
    Lumo::Ptr<Oru::DedupHashTableLifeTimeNotifiee const> lifeTimeNotifiee_;
    Lumo::Ptr<Oru::DedupHashTable> dedupTable_;
};

Lumo::Ptr<PathSubscribeRequestDedupTable> pathSubscribeRequestDedupTableFactory(
    Lumo::Ptr<Oru::DedupHashTableLifeTimeNotifiee const> const& lifeTimeNotifiee);

} // namespace Kel::Q7Sync
