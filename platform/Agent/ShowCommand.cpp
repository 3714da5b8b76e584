// Agent show commands: registry, dispatch to callbacks, the scheduled output task, type tables.
#include "Agent/ShowCommand.h"

#include <exception>

#include "Memtrail/Memtrail.h"
#include "Oru/WeakRef.h"
#include "Wex/Type.h"

namespace Agent {

AgentCommandCallbackParams::AgentCommandCallbackParams(Lumo::String commandName, int writeFd)
    : commandName_(std::move(commandName)), writeFd_(writeFd) {
    if (writeFd < 0) throw Wex::RangeException("writeFd", "is not a file descriptor");
}

AsynchShowCommandAnchor::~AsynchShowCommandAnchor() {
    for (AsynchShowCommandCallback* c : made_) c->anchor_ = nullptr;
    made_.clear();
}

void AsynchShowCommandAnchor::callbackIs(Lumo::Ptr<AsynchShowCommandCallback> const& callback) {
    if (!callback) throw Wex::NullArgumentException("callback");
    if (callback->anchor_ != this) throw Wex::RangeException("callback", "was made on another anchor");
    if (callback->nameString() != callback->name())
        throw Wex::RangeException("callback", "nameString() differs from the name it was made with");
    callbacks_.set(callback);
}

Lumo::Ptr<AsynchShowCommandCallback> AsynchShowCommandAnchor::callbackDel(Lumo::String const& name) {
    return callbacks_.del(name);
}

bool AsynchShowCommandAnchor::run(std::string_view commandName, int fd) {
    Lumo::Ptr<AsynchShowCommandCallback> const c = callback(Lumo::String(commandName));
    if (!c) return false;
    Lumo::Ptr<AgentCommandCallbackParams> const params(new AgentCommandCallbackParams(c->name(), fd));
    params->hasNotificationActiveIs(true);
    c->handleCommand(params);
    return true;
}

AsynchShowCommandCallback::AsynchShowCommandCallback(Lumo::String name, Lumo::Ptr<AsynchShowCommandAnchor> const& anchor,
                                                     Lumo::Ptr<Oru::TaskScheduler> scheduler)
    : Wex::Entity(std::move(name)), anchor_(anchor.ptr()), scheduler_(std::move(scheduler)) {
    if (!anchor_) throw Wex::NullArgumentException("anchor");
    if (!scheduler_) throw Wex::NullArgumentException("scheduler");
    anchor_->made_.insert(this);
}

AsynchShowCommandCallback::~AsynchShowCommandCallback() {
    if (anchor_) anchor_->made_.erase(this);
}

namespace {
constexpr Memtrail::Site kCommandFailed{1, "AsynchShowCommandCallback", "handleCommand",
                                      "command '{}' ended with status {}"};
// Whatever produceOutput does, what it wrote goes out and the instance stops reacting.
void finishInstance(AsynchShowCommandInstanceSm& instance) noexcept {
    instance.cliBuffer()->flush();
    instance.wexDoZombieReactors(true);
}

void runInstance(Lumo::Ptr<AsynchShowCommandInstanceSm> const& instance) {
    int status;
    try {
        status = instance->produceOutput();
    } catch (...) {
        finishInstance(*instance);
        throw;  // the scheduler records it
    }
    finishInstance(*instance);
    if (status != 0)
        if (auto* h = Memtrail::defaultHandle())
            h->write(kCommandFailed, "Agent", instance->params()->commandName().str(), status);
}
} // namespace

void AsynchShowCommandCallback::handleCommand(Lumo::Ptr<AgentCommandCallbackParams> const& params) {
    if (!params) throw Wex::NullArgumentException("params");
    Lumo::Ptr<AsynchShowCommandInstanceSm> instance = createInstanceSm(params);
    if (!instance) throw Wex::NullArgumentException("instance");
    scheduler_->taskIs([instance] { runInstance(instance); });
}

AsynchShowCommandInstanceSm::AsynchShowCommandInstanceSm(Lumo::Ptr<AsynchShowCommandAnchor> anchor,
                                                         Lumo::Ptr<Oru::TaskScheduler> scheduler,
                                                         Lumo::Ptr<AgentCommandCallbackParams> params)
    : anchor_(std::move(anchor)), scheduler_(std::move(scheduler)), params_(std::move(params)) {
    if (!anchor_) throw Wex::NullArgumentException("anchor");
    if (!scheduler_) throw Wex::NullArgumentException("scheduler");
    if (!params_) throw Wex::NullArgumentException("params");
    cliBuffer_ = new Termout::NonBlockingCliTxnBuffer(params_->writeFd());
    cliBuffer_->hasNotificationActiveIs(true);
}

std::string AsynchShowCommandInstanceSm::formatDerivedType() const {
    Wex::WexType const* t = fwkType();
    return t ? std::string(t->name()) : std::string("unknown");
}

void AsynchShowCommandInstanceSm::dumpState(Oru::DumpContext& ctx) const {
    Oru::dumpObject(Lumo::Ptr<Wex::PtrInterface const>(this), ctx);
}

Wex::WexType const* AgentCommandCallbackParams::fwkType() const noexcept { return Wex::wexTypeOf<AgentCommandCallbackParams>(); }
Wex::WexType const* AsynchShowCommandAnchor::fwkType() const noexcept { return Wex::wexTypeOf<AsynchShowCommandAnchor>(); }
Wex::WexType const* AsynchShowCommandCallback::fwkType() const noexcept { return Wex::wexTypeOf<AsynchShowCommandCallback>(); }
Wex::WexType const* AsynchShowCommandInstanceSm::fwkType() const noexcept { return Wex::wexTypeOf<AsynchShowCommandInstanceSm>(); }

namespace {
Wex::WexModuleRegistrar registrar("Agent/ShowCommand", [](Wex::WexModule& m) {
    m.type<AgentCommandCallbackParams>("Agent::AgentCommandCallbackParams")
        .readOnly("commandName", [](AgentCommandCallbackParams const& p) { return p.commandName(); })
        .readOnly("writeFd", [](AgentCommandCallbackParams const& p) { return p.writeFd(); })
        .maker([](Wex::Args const& args) {
            constexpr std::string_view type = "Agent::AgentCommandCallbackParams";
            args.checkOnly(type, {"commandName", "writeFd"});
            Lumo::Ptr<AgentCommandCallbackParams> p(
                new AgentCommandCallbackParams(args.get<Lumo::String>(type, "commandName"), args.get<int>(type, "writeFd")));
            p->hasNotificationActiveIs(true);
            return p;
        });
    m.type<AsynchShowCommandAnchor>("Agent::AsynchShowCommandAnchor")
        .collection("callback", [](AsynchShowCommandAnchor const& a) -> AsynchShowCommandAnchor::Callbacks const& {
            return a.callbacks();
        })
        .maker([](Wex::Args const& args) {
            args.checkOnly("Agent::AsynchShowCommandAnchor", {});
            Lumo::Ptr<AsynchShowCommandAnchor> a(new AsynchShowCommandAnchor());
            a->hasNotificationActiveIs(true);
            return a;
        });
    m.type<AsynchShowCommandCallback>("Agent::AsynchShowCommandCallback")
        .base<Wex::Entity>()
        .readOnly("anchor", [](AsynchShowCommandCallback const& c) { return Oru::WeakRef(c.anchor().ptr()); })
        .readOnly("scheduler", [](AsynchShowCommandCallback const& c) { return c.scheduler(); });
    m.type<AsynchShowCommandInstanceSm>("Agent::AsynchShowCommandInstanceSm")
        .readOnly("derivedType", [](AsynchShowCommandInstanceSm const& i) { return Lumo::String(i.formatDerivedType()); })
        .readOnly("params", [](AsynchShowCommandInstanceSm const& i) { return i.params(); })
        .readOnly("anchor", [](AsynchShowCommandInstanceSm const& i) { return i.anchor(); })
        .readOnly("scheduler", [](AsynchShowCommandInstanceSm const& i) { return i.scheduler(); })
        .readOnly("cliBuffer", [](AsynchShowCommandInstanceSm const& i) { return i.cliBuffer(); });
});
} // namespace

} // namespace Agent
