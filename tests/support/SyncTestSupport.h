// Helpers for the module's tests: subscriptions, a recording handler, a change recorder, the
// trace records of a test and a fixture with a fresh sync service and a leak check.
#pragma once

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "KelLib/Q7SyncContainer.h"
#include "KelLib/Q7SyncSubscribeRequest.h"
#include "Memtrail/Memtrail.h"
#include "Q7Sync/Service.h"
#include "Wex/Entity.h"
#include "Wex/Exception.h"

namespace Kel::Q7Sync::Test {

using Flags = PathSubscribeConfig::SyncRequestFlags;
using Calls = std::vector<::Q7Sync::Service::Call>;
using Lines = std::vector<std::string>;

// A subscription of agent 10.1.2.<host>:4000 for the container `key` of `type`.
inline PathSubscribeConfig subscription(char const* key, int host = 1, char const* path = "agent/state",
                                        Wex::WexType const* type = Wex::wexTypeOf<SyncContainer>(),
                                        Flags flags = ::Q7Sync::WexUtils::RELIABLE()) {
    return PathSubscribeConfig(Kivu::IpGenAddr::fromString(fmt::format("10.1.2.{}", host)).value(), 4000, path, key,
                               type, flags);
}

// The attribute named by the E that `attempt` throws, or "accepted" when it throws none.
template <class E, class F>
std::string refusal(F&& attempt) {
    try {
        attempt();
    } catch (E const& e) {
        return e.attribute();
    }
    return "accepted";
}

inline Lumo::Ptr<Wex::Dir> freshDir(char const* name = "remote") {
    Lumo::Ptr<Wex::Dir> dir(new Wex::Dir(name));
    dir->hasNotificationActiveIs(true);
    return dir;
}

// The container of config made in its place, dir / remoteAgentKey / syncContainerKey.
inline Lumo::Ptr<SyncContainer> placeContainer(Lumo::Ptr<Wex::Dir> const& dir, PathSubscribeConfig const& config) {
    return SyncContainer::create(Lumo::ptr_cast<Wex::Dir>(dir->createEntity("Wex::Dir", config.remoteAgentKey())),
                                 config);
}

// The container at dir / remoteAgentKey / syncContainerKey of config, or null.
inline Lumo::Ptr<Wex::Entity> containerAt(Lumo::Ptr<Wex::Dir const> const& dir, PathSubscribeConfig const& config) {
    auto agentDir = Lumo::ptr_cast<Wex::Dir const>(dir->entityPtr(config.remoteAgentKey()));
    return agentDir ? agentDir->entityPtr(config.syncContainerKey()) : nullptr;
}

// Writes "<name> containerIs <localUri>" and "<name> containerDel <localUri>" into a log that
// several handlers may share, keeps the containers it holds, and runs `onCall` inside each call.
class RecordingHandler : public SyncContainerHandler {
public:
    static Lumo::Ptr<RecordingHandler> make(std::string name, char const* key, std::vector<std::string>* log) {
        Lumo::Ptr<RecordingHandler> h(new RecordingHandler(std::move(name), key, log));
        h->hasNotificationActiveIs(true);
        return h;
    }

    void containerIs(Lumo::Ptr<SyncContainer const> const& container) const override {
        log_->push_back(fmt::format("{} containerIs {}", name_, container->pathSubscribeConfig().localUri()));
        held.insert(container);
        if (onCall) onCall(container->pathSubscribeConfig(), true);
        if (throws) throw std::runtime_error("handler failure");
    }
    void containerDel(PathSubscribeConfig const& config) const override {
        log_->push_back(fmt::format("{} containerDel {}", name_, config.localUri()));
        std::erase_if(held, [&](auto const& c) { return c->pathSubscribeConfig() == config; });
        if (onCall) onCall(config, false);
        if (throws) throw std::runtime_error("handler failure");
    }

    mutable std::set<Lumo::Ptr<SyncContainer const>> held;
    std::function<void(PathSubscribeConfig const&, bool given)> onCall;
    bool throws = false;

private:
    RecordingHandler(std::string name, char const* key, std::vector<std::string>* log)
        : SyncContainerHandler(key), name_(std::move(name)), log_(log) {}
    std::string name_;
    std::vector<std::string>* log_;
};

inline std::string given(char const* handler, PathSubscribeConfig const& c) {
    return fmt::format("{} containerIs {}", handler, c.localUri());
}
inline std::string withdrawn(char const* handler, PathSubscribeConfig const& c) {
    return fmt::format("{} containerDel {}", handler, c.localUri());
}

// The changes an object publishes, as "<attribute>" or "<attribute>~" when a previous value came.
class ChangeRecorder final : public Lumo::Subscriber {
public:
    explicit ChangeRecorder(Lumo::Ptr<Wex::PtrInterface const> object) : object_(std::move(object)) {
        object_->notifieeList()->subscriberIs(this);
    }
    ChangeRecorder(ChangeRecorder const&) = delete;
    ChangeRecorder& operator=(ChangeRecorder const&) = delete;
    ~ChangeRecorder() { object_->notifieeList()->subscriberDel(this); }

    void onPublish(Lumo::Publisher const&, Lumo::Change const& change) override {
        changes.push_back(fmt::format("{}{}", change.attribute, change.prev ? "~" : ""));
        if (onChange) onChange(change);
    }

    Lines changes;
    std::function<void(Lumo::Change const&)> onChange;

private:
    Lumo::Ptr<Wex::PtrInterface const> object_;
};

// The trace records written during the test, for one handle as "Class::function: message".
class TraceRecords {
public:
    explicit TraceRecords(std::size_t capacity = 256) : records_(capacity), previous_(Memtrail::defaultHandle()) {
        Memtrail::defaultHandleIs(&records_);
    }
    TraceRecords(TraceRecords const&) = delete;
    TraceRecords& operator=(TraceRecords const&) = delete;
    ~TraceRecords() { Memtrail::defaultHandleIs(previous_); }

    Lines at(unsigned level, std::string_view handle = "KelQ7SyncSubscribeSm") const {
        Lines out;
        for (Memtrail::Record const* r : records_.records(level))
            if (r->handle() == handle)
                out.push_back(fmt::format("{}::{}: {}", r->className(), r->function(), r->message()));
        return out;
    }
    void clear() { records_.clear(); }
    Memtrail::Handle const& handle() const noexcept { return records_; }

private:
    Memtrail::Handle records_;
    Memtrail::Handle* previous_;
};

// Starts each test with a fresh, logging sync service. (Every test program fails a test that
// leaves framework objects alive: support/live/LiveObjectsCheck.cpp.)
class SyncFixture : public ::testing::Test {
protected:
    SyncFixture() {
        service().reset();
        service().callLogIs(true);
    }
    ~SyncFixture() override {
        service().reset();
        service().callLogIs(false);
    }

    static ::Q7Sync::Service& service() { return ::Q7Sync::Service::instance(); }
    static Calls calls() { return service().calls(); }
    // The calls made since the last take.
    static Calls takeCalls() {
        Calls made = service().calls();
        service().callsDelAll();
        return made;
    }
    static ::Q7Sync::Service::Call subscribeCall(PathSubscribeConfig const& c) {
        return {"subscribe", fmt::format("{}, {}, {}", c.remoteUri(), c.localUri(), c.flags())};
    }
    static ::Q7Sync::Service::Call unsubscribeCall(PathSubscribeConfig const& c) {
        return {"unsubscribe", c.remoteUri().str()};
    }

    TraceRecords traces;
};

}  // namespace Kel::Q7Sync::Test
