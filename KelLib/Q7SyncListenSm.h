// The listening endpoint in force (EffectiveListenConfig) and the reactor that opens and
// closes it on the sync service (ListenSm).
#pragma once

#include "KelLib/Q7SyncListenConfig.h"
#include "KelLib/Q7SyncListenStatus.h"
#include "Lumo/Ptr.h"
#include "Lumo/Publisher.h"
#include "Q7Serdes/Status.h"
#include "Wex/PtrInterface.h"

namespace Kel::Q7Sync {

// The endpoint wanted; the default ListenConfig means none. Every change is published.
class EffectiveListenConfig : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kListenConfig = 130;

    static Lumo::Ptr<EffectiveListenConfig> EffectiveListenConfigIs();

    ListenConfig const& listenConfig() const noexcept { return listenConfig_; }
    // An equal value changes nothing; another is stored and published, so that watching
    // reactors have run when this returns.
    void listenConfigIs(ListenConfig const& listenConfig);

    Lumo::Publisher& publisher() const noexcept { return publisher_; }
    // The same publisher, so that one-object watchers (NotifieeConst) can watch it too.
    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override;

protected:
    EffectiveListenConfig() = default;
    ~EffectiveListenConfig() override;

private:
    ListenConfig listenConfig_;
    mutable Lumo::Publisher publisher_;
};

Lumo::Ptr<EffectiveListenConfig> effectiveListenConfigFactory();

// Keeps at most one endpoint open: the one in the watched EffectiveListenConfig. It closes the
// endpoint recorded in ListenStatus before opening another, records what it opened, and traces
// the listening state of the status the service returned. Destroying it closes nothing.
class ListenSm : public Wex::PtrInterface {
public:
    using Q7ListenStatus = ::Q7Serdes::WexUtils::ListenStatus;

    // Both arguments are required (Wex::NullArgumentException naming the missing one). Acts on
    // the configuration already present before it returns.
    static Lumo::Ptr<ListenSm> ListenSmIs(Lumo::Ptr<EffectiveListenConfig const> listenConfig,
                                          Lumo::Ptr<ListenStatus> listenStatus);

    Lumo::Ptr<EffectiveListenConfig const> const& listenConfig() const noexcept { return listenConfig_; }
    Lumo::Ptr<ListenStatus> const& listenStatus() const noexcept { return listenStatus_; }

    // Opens `config` on the service, records it with the returned status and watches that status.
    void listen(ListenConfig const& config);
    // Closes `config` on the service, drops the record and stops watching its status.
    void close(ListenConfig const& config);
    void handleListenConfig();

    // The status of the open endpoint that is watched; null when the service returned none.
    Lumo::Ptr<Q7ListenStatus const> const& q7ListenStatus() const noexcept { return q7ListenStatus_; }
    // Watches `status` instead of the one held, and traces its state once when it is new.
    void q7ListenStatusIs(Lumo::Ptr<Q7ListenStatus const> const& status);
    // Stops watching and returns the status that was held (null if none).
    Lumo::Ptr<Q7ListenStatus const> q7ListenStatusDel() noexcept;
    // Traces the watched status; does nothing when none is watched.
    void handleListenStatus() const;

    // Joins (or leaves) the configuration's publisher and that of the watched status.
    void hasNotificationActiveIs(bool active) override;
    Wex::WexType const* fwkType() const noexcept override;
    // A marked reactor ignores every notification. It owns no child reactors to mark with it.
    void wexDoZombieReactors(bool marked) override;

protected:
    ListenSm(Lumo::Ptr<EffectiveListenConfig const> listenConfig, Lumo::Ptr<ListenStatus> listenStatus);
    ~ListenSm() override;

private:
    // One watcher per watched object, so that a change tells which one it came from.
    class ConfigWatcher : public Wex::AttributeWatcher {
    public:
        explicit ConfigWatcher(ListenSm& sm) noexcept : sm_(sm) {}
        void onAttribute(Wex::AttributeId attribute, void const*) override;

    private:
        ListenSm& sm_;
    };
    class StatusWatcher : public Wex::AttributeWatcher {
    public:
        explicit StatusWatcher(ListenSm& sm) noexcept : sm_(sm) {}
        void onAttribute(Wex::AttributeId attribute, void const*) override;

    private:
        ListenSm& sm_;
    };

    void configJoinIs(bool join) noexcept;
    void statusJoinIs(bool join) noexcept;

    Lumo::Ptr<EffectiveListenConfig const> const listenConfig_;
    Lumo::Ptr<ListenStatus> const listenStatus_;
    Lumo::Ptr<Q7ListenStatus const> q7ListenStatus_;
    ConfigWatcher configWatcher_{*this};
    StatusWatcher statusWatcher_{*this};
};

Lumo::Ptr<ListenSm> listenSmFactory(Lumo::Ptr<EffectiveListenConfig const> listenConfig,
                                    Lumo::Ptr<ListenStatus> listenStatus);

} // namespace Kel::Q7Sync
