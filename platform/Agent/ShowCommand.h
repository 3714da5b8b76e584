// Agent show commands: the process's registry of commands, the callback that serves each
// command, and the instance that produces the output of one invocation.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>

#include "Lumo/Ptr.h"
#include "Lumo/String.h"
#include "Oru/DumpContext.h"
#include "Oru/TaskScheduler.h"
#include "Termout/NonBlockingCliTxnBuffer.h"
#include "Wex/Collection.h"
#include "Wex/Entity.h"
#include "Wex/PtrInterface.h"
#include "Wex/Type.h"
#include "Wex/Value.h"

namespace Agent {

class AsynchShowCommandCallback;
class AsynchShowCommandInstanceSm;

// What one invocation is given: the command's name and the descriptor its output goes to
// (the caller's; it stays open until the caller closes it).
class AgentCommandCallbackParams : public Wex::PtrInterface {
public:
    // A negative descriptor is a Wex::RangeException.
    AgentCommandCallbackParams(Lumo::String commandName, int writeFd);

    Lumo::String const& commandName() const noexcept { return commandName_; }
    int writeFd() const noexcept { return writeFd_; }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~AgentCommandCallbackParams() override = default;

private:
    Lumo::String commandName_;
    int writeFd_;
};

// The show commands of the process, by name. The anchor holds its callbacks; they point
// back at it without a count (see AsynchShowCommandCallback).
class AsynchShowCommandAnchor : public Wex::PtrInterface {
public:
    static constexpr Wex::AttributeId kCallback = 1;
    using Callbacks = Wex::Collection<Lumo::String, Lumo::Ptr<AsynchShowCommandCallback>, Wex::MemberKey<&Wex::Entity::name>>;

    AsynchShowCommandAnchor() = default;

    // Registers `callback` under its name, replacing one of the same name. Refused, with
    // nothing changed: null (Wex::NullArgumentException); made on another anchor, or with a
    // nameString() other than its name (Wex::RangeException).
    void callbackIs(Lumo::Ptr<AsynchShowCommandCallback> const& callback);
    // Returns the callback removed, or null when none had that name.
    Lumo::Ptr<AsynchShowCommandCallback> callbackDel(Lumo::String const& name);
    Lumo::Ptr<AsynchShowCommandCallback> callback(Lumo::String const& name) const { return callbacks_.get(name); }
    Callbacks const& callbacks() const noexcept { return callbacks_; }

    // One invocation of `commandName` with output to `fd`: its callback schedules an instance
    // to write the output. False, with nothing scheduled or written, for an unknown command.
    // A known command with a negative fd is a Wex::RangeException.
    bool run(std::string_view commandName, int fd);

    Wex::WexType const* fwkType() const noexcept override;

protected:
    // Clears the back pointer of every callback made on this anchor that is still alive.
    ~AsynchShowCommandAnchor() override;

private:
    friend class AsynchShowCommandCallback;
    Callbacks callbacks_{"callback", kCallback};
    // Every live callback made on this anchor, registered or not.
    std::unordered_set<AsynchShowCommandCallback*> made_;
};

// Serves one command: each invocation gets a new instance (createInstanceSm) whose output is
// produced later, when the scheduler runs. The anchor is a back pointer, not a count, as the
// anchor holds the callback once registered; it reads null after the anchor has gone.
class AsynchShowCommandCallback : public Wex::Entity {
public:
    Lumo::Ptr<AsynchShowCommandAnchor> anchor() const noexcept { return Lumo::Ptr<AsynchShowCommandAnchor>(anchor_); }
    Lumo::Ptr<Oru::TaskScheduler> const& scheduler() const noexcept { return scheduler_; }
    // The command's name. A derived type that overrides it must return the name given.
    Lumo::String nameString() const override { return name(); }

    // Makes the instance and queues a task that runs its produceOutput() and then flushes its
    // output; the task keeps the instance alive until then. Nothing is queued when params is
    // null (Wex::NullArgumentException) or when createInstanceSm throws or returns null.
    virtual void handleCommand(Lumo::Ptr<AgentCommandCallbackParams> const& params);

    Wex::WexType const* fwkType() const noexcept override;

protected:
    // A null anchor or scheduler is a Wex::NullArgumentException.
    AsynchShowCommandCallback(Lumo::String name, Lumo::Ptr<AsynchShowCommandAnchor> const& anchor,
                              Lumo::Ptr<Oru::TaskScheduler> scheduler);
    ~AsynchShowCommandCallback() override;

    virtual Lumo::Ptr<AsynchShowCommandInstanceSm> createInstanceSm(Lumo::Ptr<AgentCommandCallbackParams> const& params) = 0;

private:
    friend class AsynchShowCommandAnchor;
    AsynchShowCommandAnchor* anchor_;
    Lumo::Ptr<Oru::TaskScheduler> scheduler_;
};

// One invocation: writes the command's output into cliBuffer(), a buffer on the params'
// descriptor. The library marks it a zombie once its output is out.
class AsynchShowCommandInstanceSm : public Wex::PtrInterface {
public:
    Lumo::Ptr<AsynchShowCommandAnchor> const& anchor() const noexcept { return anchor_; }
    Lumo::Ptr<Oru::TaskScheduler> const& scheduler() const noexcept { return scheduler_; }
    Lumo::Ptr<AgentCommandCallbackParams> const& params() const noexcept { return params_; }
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> const& cliBuffer() const noexcept { return cliBuffer_; }

    // The name of the instance's own type table, or "unknown" without one.
    virtual std::string formatDerivedType() const;
    // Dumps this instance and what it reaches, generically.
    virtual void dumpState(Oru::DumpContext& ctx) const;
    // Writes the output into cliBuffer(); returns the command's status, 0 for success.
    virtual int produceOutput() = 0;

    Wex::WexType const* fwkType() const noexcept override;

protected:
    // A null argument is a Wex::NullArgumentException.
    AsynchShowCommandInstanceSm(Lumo::Ptr<AsynchShowCommandAnchor> anchor, Lumo::Ptr<Oru::TaskScheduler> scheduler,
                                Lumo::Ptr<AgentCommandCallbackParams> params);
    ~AsynchShowCommandInstanceSm() override = default;

private:
    Lumo::Ptr<AsynchShowCommandAnchor> anchor_;
    Lumo::Ptr<Oru::TaskScheduler> scheduler_;
    Lumo::Ptr<AgentCommandCallbackParams> params_;
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> cliBuffer_;
};

// Generic construction for the type table of a concrete callback T, made as
// T(anchor, scheduler) from the arguments "anchor" and "scheduler":
//   m.type<T>("Ns::T").base<Agent::AsynchShowCommandCallback>().maker(Agent::callbackMaker<T>());
template <class T>
auto callbackMaker() {
    return [](Wex::Args const& args) {
        std::string_view const type = Wex::wexTypeOf<T>() ? Wex::wexTypeOf<T>()->name() : "show command callback";
        args.checkOnly(type, {"anchor", "scheduler"});
        Lumo::Ptr<T> made(new T(args.get<Lumo::Ptr<AsynchShowCommandAnchor>>(type, "anchor"),
                                args.get<Lumo::Ptr<Oru::TaskScheduler>>(type, "scheduler")));
        made->hasNotificationActiveIs(true);
        return made;
    };
}

// The same for a concrete instance T, made as T(anchor, scheduler, params).
template <class T>
auto instanceSmMaker() {
    return [](Wex::Args const& args) {
        std::string_view const type = Wex::wexTypeOf<T>() ? Wex::wexTypeOf<T>()->name() : "show command instance";
        args.checkOnly(type, {"anchor", "scheduler", "params"});
        Lumo::Ptr<T> made(new T(args.get<Lumo::Ptr<AsynchShowCommandAnchor>>(type, "anchor"),
                                args.get<Lumo::Ptr<Oru::TaskScheduler>>(type, "scheduler"),
                                args.get<Lumo::Ptr<AgentCommandCallbackParams>>(type, "params")));
        made->hasNotificationActiveIs(true);
        return made;
    };
}

} // namespace Agent
