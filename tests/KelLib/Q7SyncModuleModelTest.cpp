// Seeded random sequences of client operations on the shared module, compared after every step
// with the reference model, with handlers that call back into the module from containerIs and
// containerDel.
//
// Q7_MODEL_SEED=<n> replays one sequence and prints its operations. Otherwise the test runs
// Q7_MODEL_SEQUENCES (default 10000) seeds from Q7_MODEL_FIRST_SEED (default 1) on, and one
// random seed, printed.
#include "KelLib/Q7SyncModule.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "host/StateContainer.h"
#include "Memtrail/Memtrail.h"
#include "Q7Sync/Service.h"
#include "Wex/CharRange.h"
#include "Wex/Exception.h"
#include "support/SubscriptionModel.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using ::Q7Serdes::WexUtils::SyncStatusEnum;
using Request = Lumo::Ptr<PathSubscribeRequest const>;

constexpr std::uint64_t kDefaultSequences = 10000;
constexpr int kMaxReentryDepth = 2;     // nested calls from inside nested calls, and no deeper
constexpr unsigned kReentryPercent = 25; // of the calls a re-entrant handler gets
char const* const kKeys[] = {"k1", "k2", "k3"};  // k3: a key no subscription uses

std::uint64_t mix(std::uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

// The sequence's own generator, so that a seed means the same operations on every platform.
class Rng {
public:
    explicit Rng(std::uint64_t seed) : state_(mix(seed)) {}
    std::uint64_t next() { return mix(state_++); }
    std::size_t below(std::size_t n) { return static_cast<std::size_t>(next() % n); }
    bool percent(unsigned p) { return next() % 100 < p; }

private:
    std::uint64_t state_;
};

std::string brief(PathSubscribeConfig const& c) {
    bool const state = c.syncContainerType() == Wex::wexTypeOf<Q7Agent::StateContainer>();
    return fmt::format("{}{}>{}:{}:{}", c.remoteAgentKey(), c.remotePath(), c.syncContainerKey(),
                       state ? "State" : "Sync", c.flags());
}

template <class Set, class F>
std::string listed(Set const& s, F&& show) {
    std::string out = "{";
    for (auto const& v : s) out += (out.size() > 1 ? ", " : "") + show(v);
    return out + "}";
}
std::string listed(Model::Configs const& s) { return listed(s, brief); }
std::string listed(std::set<std::string> const& s) {
    return listed(s, [](std::string const& v) { return v; });
}

// Nothing left once everything is released: no container, no agent directory, no record, no
// subscription on the service, no status reactor, no request, no handler, no endpoint.
std::string leftOver(Module const& module) {
    ::Q7Sync::Service const& service = ::Q7Sync::Service::instance();
    std::vector<std::string> left;
    if (module.remoteDir()->entities() != 0) left.push_back("agent directories");
    if (!module.syncContainerStatus()->syncContainer().empty()) left.push_back("container records");
    if (!module.effectiveSubscribeConfig()->pathSubscribeConfig().empty()) left.push_back("configurations in force");
    if (!module.subscribeStatus()->pathSubscribeStatus().empty()) left.push_back("subscribe status records");
    if (!module.subscriberSm()->wexQ7SyncStatus().empty()) left.push_back("status reactors");
    if (service.subscriptions() != 0) left.push_back("subscriptions on the service");
    if (service.endpoints() != 0) left.push_back("endpoints");
    if (module.pathSubscribeRequestDedupTable()->dedupTable()->size() != 0) left.push_back("requests");
    if (!module.syncContainerHandlerRegistry()->syncContainerHandler().empty()) left.push_back("handlers");
    if (module.listenStatus()->listenConfigStatus()) left.push_back("a listen record");
    std::string out;
    for (std::string const& l : left) out += (out.empty() ? "left over: " : ", ") + l;
    return out;
}

class Sequence;

// A client's handler: keeps what it was given, counts calls the contract rules out, and may
// call back into the module (as its sequence decides) from inside either call.
class ModelHandler : public SyncContainerHandler {
public:
    using Held = std::map<PathSubscribeConfig, Lumo::Ptr<SyncContainer const>>;

    static Lumo::Ptr<ModelHandler> make(Sequence& sequence, int id, char const* key, bool reentrant) {
        Lumo::Ptr<ModelHandler> h(new ModelHandler(sequence, id, key, reentrant));
        h->hasNotificationActiveIs(true);
        return h;
    }

    void containerIs(Lumo::Ptr<SyncContainer const> const& container) const override;
    void containerDel(PathSubscribeConfig const& config) const override;

    int id() const noexcept { return id_; }
    bool reentrant() const noexcept { return reentrant_; }
    Held const& held() const noexcept { return held_; }
    std::vector<std::string> const& contractBreaches() const noexcept { return breaches_; }

private:
    ModelHandler(Sequence& sequence, int id, char const* key, bool reentrant)
        : SyncContainerHandler(Lumo::String(key)), sequence_(sequence), id_(id), reentrant_(reentrant) {}

    Sequence& sequence_;
    int const id_;
    bool const reentrant_;
    mutable Held held_;
    mutable std::vector<std::string> breaches_;
};

// One seeded sequence of operations on the shared module, with the client-side bookkeeping
// the model is computed from: the requests held, the handlers registered, the statuses set.
class Sequence {
public:
    Sequence(std::uint64_t seed, Module& module, bool verbose) : seed_(seed), rng_(seed), module_(module),
                                                                 verbose_(verbose) {
        chooseSpace();
    }
    Sequence(Sequence const&) = delete;
    Sequence& operator=(Sequence const&) = delete;
    // After a divergence the sequence ends early: what it holds goes, quietly, while the
    // bookkeeping its handlers write into still exists.
    ~Sequence() {
        quiet_ = true;
        while (!holdings_.empty()) release(holdings_.size() - 1);
        for (auto const& [key, handler] : std::map(registered_))
            try {
                module_.syncContainerHandlerRegistry()->syncContainerHandlerDel(Lumo::String(key));
            } catch (std::exception const&) {
            }
    }

    // The first divergence from the model, with the operations that led to it; empty if none.
    std::string run();

    void reenter(ModelHandler const& handler, PathSubscribeConfig const& config, bool given);
    void note(std::string text) { log_.push_back(std::string(2 * depth_, ' ') + std::move(text)); }
    void diverge(std::string what) {
        if (divergence_.empty()) divergence_ = std::move(what);
    }

private:
    struct Holding {
        PathSubscribeConfig config;
        Request request;
    };

    void chooseSpace();
    void step();
    void teardown();
    std::string check() const;

    void dedup(std::size_t index);
    void release(std::size_t holding);
    void releaseOneOf(PathSubscribeConfig const& config);
    Lumo::Ptr<ModelHandler> newHandler(char const* key);
    void registryChange(char const* key, Lumo::Ptr<ModelHandler> const& handler);
    void statusChange();
    void listenChange();
    void listeningChange();
    void invalidInput();

    std::vector<PathSubscribeConfig> heldConfigs() const;
    std::size_t indexOf(PathSubscribeConfig const& config) const;
    ::Q7Sync::Service& service() const { return ::Q7Sync::Service::instance(); }

    std::uint64_t const seed_;
    Rng rng_;
    Module& module_;
    bool const verbose_;
    std::vector<PathSubscribeConfig> space_;
    std::size_t step_ = 0;
    int depth_ = 0;
    bool quiet_ = false;
    int nextHandlerId_ = 1;
    std::vector<Holding> holdings_;
    std::map<std::string, Lumo::Ptr<ModelHandler>> registered_;
    std::vector<Lumo::Ptr<ModelHandler>> handlers_;  // every handler made, registered or not
    std::map<std::string, SyncStatusEnum> syncStatus_;
    std::optional<ListenConfig> listen_;
    bool listening_ = false;
    std::map<std::tuple<int, std::size_t, bool>, unsigned> callsThisStep_;
    std::vector<std::string> log_;
    std::string divergence_;
};

void ModelHandler::containerIs(Lumo::Ptr<SyncContainer const> const& container) const {
    PathSubscribeConfig const config = container->pathSubscribeConfig();
    sequence_.note(fmt::format("H{} containerIs {}", id_, brief(config)));
    auto [it, added] = held_.try_emplace(config, container);
    if (!added) {
        if (it->second == container) breaches_.push_back("given a container it holds: " + brief(config));
        it->second = container;
    }
    sequence_.reenter(*this, config, true);
}

void ModelHandler::containerDel(PathSubscribeConfig const& config) const {
    sequence_.note(fmt::format("H{} containerDel {}", id_, brief(config)));
    if (held_.erase(config) == 0) breaches_.push_back("withdrawn what it does not hold: " + brief(config));
    sequence_.reenter(*this, config, false);
}

// A small space per sequence, drawn from 2 agents x 2 paths x 2 keys x 2 types x 2 flag sets,
// so that held configurations often share a remote URI (agent and path) or a local URI (agent
// and key).
void Sequence::chooseSpace() {
    std::vector<PathSubscribeConfig> all;
    Wex::WexType const* const types[] = {Wex::wexTypeOf<SyncContainer>(), Wex::wexTypeOf<Q7Agent::StateContainer>()};
    Flags const flags[] = {::Q7Sync::WexUtils::RELIABLE(),
                           ::Q7Sync::WexUtils::RELIABLE() | ::Q7Sync::WexUtils::SNAPSHOT()};
    for (char const* host : {"10.9.0.1", "10.9.0.2"})
        for (char const* path : {"/a", "/b"})
            for (char const* key : {kKeys[0], kKeys[1]})
                for (Wex::WexType const* type : types)
                    for (Flags f : flags)
                        all.emplace_back(Kivu::IpGenAddr::fromString(host).value(), 4000, path, key, type, f);
    std::size_t const size = 3 + rng_.below(6);
    while (space_.size() < size) {
        PathSubscribeConfig const& c = all[rng_.below(all.size())];
        if (std::find(space_.begin(), space_.end(), c) == space_.end()) space_.push_back(c);
    }
}

std::size_t Sequence::indexOf(PathSubscribeConfig const& config) const {
    return static_cast<std::size_t>(std::find(space_.begin(), space_.end(), config) - space_.begin());
}

std::vector<PathSubscribeConfig> Sequence::heldConfigs() const {
    std::vector<PathSubscribeConfig> out;
    for (Holding const& h : holdings_) out.push_back(h.config);
    return out;
}

void Sequence::dedup(std::size_t index) {
    PathSubscribeConfig const config = space_[index];
    note("dedup " + brief(config));
    Request request = module_.pathSubscribeRequestDedupTable()->dedup(config);
    if (!request || !(request->pathSubscribeConfig() == config)) diverge("dedup returned another request");
    for (Holding const& h : holdings_)
        if (h.config == config && h.request != request) diverge("equal configurations got two requests");
    holdings_.push_back({config, std::move(request)});
}

// Takes the holding out of the bookkeeping before the release runs, since handlers called by
// the release change the bookkeeping too.
void Sequence::release(std::size_t holding) {
    note("release " + brief(holdings_[holding].config));
    Request request = std::move(holdings_[holding].request);
    holdings_.erase(holdings_.begin() + static_cast<std::ptrdiff_t>(holding));
    request = nullptr;
}

void Sequence::releaseOneOf(PathSubscribeConfig const& config) {
    for (std::size_t i = 0; i < holdings_.size(); ++i)
        if (holdings_[i].config == config) return release(i);
}

Lumo::Ptr<ModelHandler> Sequence::newHandler(char const* key) {
    Lumo::Ptr<ModelHandler> h = ModelHandler::make(*this, nextHandlerId_++, key, rng_.percent(50));
    handlers_.push_back(h);
    return h;
}

// Registers handler under key, or removes key's handler when handler is null. Every change is
// taken, in the order asked for: one asked for from inside a handler's call is made once the
// event that called the handler has completed, after the change under way. So the bookkeeping
// takes each change before the call.
void Sequence::registryChange(char const* key, Lumo::Ptr<ModelHandler> const& handler) {
    note(handler ? fmt::format("register H{}{} for {}", handler->id(), handler->reentrant() ? "*" : "", key)
                 : fmt::format("remove handler of {}", key));
    SyncContainerHandlerRegistry& registry = *module_.syncContainerHandlerRegistry();
    if (handler) registered_[key] = handler;
    else registered_.erase(key);
    try {
        if (handler) registry.syncContainerHandlerIs(handler);
        else registry.syncContainerHandlerDel(Lumo::String(key));
    } catch (Wex::Exception const& e) {
        diverge(fmt::format("a change of {} was refused: {}", key, e.what()));
    }
}

// What a re-entrant handler does from inside a call, decided by the seed, the step, the
// handler, the call and the configuration: not by the order in which the module makes the
// calls, which follows hash orders.
void Sequence::reenter(ModelHandler const& handler, PathSubscribeConfig const& config, bool given) {
    if (quiet_ || depth_ >= kMaxReentryDepth || !handler.reentrant()) return;
    std::size_t const index = indexOf(config);
    unsigned const nth = callsThisStep_[{handler.id(), index, given}]++;
    std::uint64_t const r =
        mix(seed_ ^ mix((step_ << 32) ^ (std::uint64_t(handler.id()) << 16) ^ (index << 8) ^ (nth << 1) ^ given));
    if (r % 100 >= kReentryPercent) return;
    std::uint64_t const what = r / 100;
    std::size_t const other = (what / 8) % space_.size();
    char const* const key = kKeys[(what / 8) % std::size(kKeys)];
    ++depth_;
    try {
        switch (what % 8) {
        case 0: case 1: dedup(other); break;
        case 2: releaseOneOf(config); break;  // its own subscription
        case 3: releaseOneOf(space_[other]); break;
        case 4: registryChange(key, newHandler(key)); break;
        case 5: registryChange(key, nullptr); break;
        case 6: registryChange(handler.syncContainerKey().c_str(), newHandler(handler.syncContainerKey().c_str())); break;
        default: registryChange(handler.syncContainerKey().c_str(), nullptr); break;
        }
    } catch (std::exception const& e) {
        diverge(fmt::format("H{} got an exception calling back into the module: {}", handler.id(), e.what()));
    }
    --depth_;
}

void Sequence::statusChange() {
    Model::Configs const inForce = Model::effective(Model::distinct(heldConfigs()));
    std::vector<std::string> uris;
    for (PathSubscribeConfig const& c : inForce) uris.push_back(c.remoteUri().str());
    std::string const uri = !uris.empty() && rng_.percent(80) ? uris[rng_.below(uris.size())]
                                                              : space_[rng_.below(space_.size())].remoteUri().str();
    auto const status = static_cast<SyncStatusEnum>(rng_.below(5));
    note(fmt::format("status of {} -> {}", uri, status));
    bool const subscribed = std::find(uris.begin(), uris.end(), uri) != uris.end();
    if (service().syncStatusIs(uri, status, Lumo::String("model")) != subscribed)
        diverge(fmt::format("the service {} {}", subscribed ? "does not know" : "still knows", uri));
    if (subscribed) syncStatus_[uri] = status;
}

// A loopback endpoint the system grants, and one on an address no interface has, which the
// system refuses; the module records either with the service's status.
void Sequence::listenChange() {
    std::optional<ListenConfig> next;
    switch (rng_.below(3)) {
    case 0: break;
    case 1: next = ListenConfig(Kivu::IpGenAddr::fromString("127.0.0.1").value(), 0); break;
    default: next = ListenConfig(Kivu::IpGenAddr::fromString("192.0.2.1").value(), 4001); break;
    }
    note(next ? fmt::format("listen {}", valueToStrep(*next)) : "listen nowhere");
    module_.listen(next.value_or(ListenConfig()));
    if (next != listen_) listening_ = next && next->hostAddr().stringValue() == "127.0.0.1";
    listen_ = next;
}

void Sequence::listeningChange() {
    bool const listening = rng_.percent(50);
    ListenConfig const endpoint = listen_.value_or(ListenConfig(Kivu::IpGenAddr::fromString("127.0.0.1").value(), 0));
    note(fmt::format("endpoint listening -> {}", listening));
    if (service().listeningIs(endpoint.hostAddr().stringValue(), endpoint.port(), listening, Lumo::String("model")) !=
        listen_.has_value())
        diverge("the service's endpoints differ from the one in force");
    if (listen_) listening_ = listening;
}

// Refused with an error and nothing changed: a subscription without an address or a container
// type, and a null handler.
void Sequence::invalidInput() {
    note("invalid input");
    PathSubscribeConfig const& c = space_[rng_.below(space_.size())];
    // The text form carries no container type.
    auto const noType = Wex::fromString<PathSubscribeConfig>(valueToStrep(c));
    try {
        module_.pathSubscribeRequestDedupTable()->dedup(noType);
        diverge("a configuration without container type was taken");
    } catch (Wex::Exception const&) {
    }
    try {
        module_.pathSubscribeRequestDedupTable()->dedup(PathSubscribeConfig());
        diverge("a configuration without address was taken");
    } catch (Wex::Exception const&) {
    }
    try {
        module_.syncContainerHandlerRegistry()->syncContainerHandlerIs(nullptr);
        diverge("a null handler was taken");
    } catch (Wex::NullArgumentException const&) {
    }
}

void Sequence::step() {
    callsThisStep_.clear();
    std::size_t const r = rng_.below(100);
    if (r < 30) dedup(rng_.below(space_.size()));
    else if (r < 52) {
        if (!holdings_.empty()) release(rng_.below(holdings_.size()));
    } else if (r < 62) {
        char const* key = kKeys[rng_.below(std::size(kKeys))];
        registryChange(key, newHandler(key));
    } else if (r < 64) {
        // The very handler registered again: nothing to do, nobody told.
        if (!registered_.empty()) {
            auto it = std::next(registered_.begin(), static_cast<std::ptrdiff_t>(rng_.below(registered_.size())));
            Lumo::Ptr<ModelHandler> const h = it->second;
            registryChange(h->syncContainerKey().c_str(), h);
        }
    } else if (r < 71) registryChange(kKeys[rng_.below(std::size(kKeys))], nullptr);
    else if (r < 86) statusChange();
    else if (r < 93) listenChange();
    else if (r < 97) listeningChange();
    else invalidInput();
}

void Sequence::teardown() {
    quiet_ = true;
    note("-- release everything");
    while (!holdings_.empty()) release(rng_.below(holdings_.size()));
    for (char const* key : kKeys) registryChange(key, nullptr);
    module_.listen(ListenConfig());
    listen_.reset();
    listening_ = false;
}

std::string Sequence::run() {
    Memtrail::Handle& traces = *Memtrail::defaultHandle();
    long const liveAtStart = Wex::PtrInterface::liveObjects();
    std::size_t const steps = 20 + rng_.below(41);
    std::string failure = leftOver(module_);
    if (!failure.empty()) failure = "the module is not empty at the start: " + failure;
    for (step_ = 1; failure.empty() && step_ <= steps + 1; ++step_) {
        service().callsDelAll();
        if (step_ <= steps) step();
        else teardown();
        // A subscription that ended and began again within the step has a fresh status.
        for (::Q7Sync::Service::Call const& call : service().calls())
            if (call.operation == "unsubscribe") syncStatus_.erase(call.arguments);
        failure = divergence_;
        if (failure.empty()) failure = check();
        // Level 0: a broken invariant or a handler that threw.
        for (Memtrail::Record const* r : traces.records(0)) failure += "\n  level-0 trace: " + r->text();
    }
    if (failure.empty()) failure = leftOver(module_);
    if (failure.empty()) {
        handlers_.clear();
        registered_.clear();
        long const left = Wex::PtrInterface::liveObjects() - liveAtStart;
        if (left != 0) failure = fmt::format("{} framework objects made by the sequence are still alive", left);
    }
    if (failure.empty() && !verbose_) return {};
    std::string out = fmt::format("seed {}: {} configurations:", seed_, space_.size());
    for (PathSubscribeConfig const& c : space_) out += " " + brief(c);
    out += "\n";
    std::size_t n = 0;
    for (std::string const& line : log_) out += fmt::format("  {:4} {}\n", ++n, line);
    if (!failure.empty()) out += fmt::format("DIVERGENCE at step {}: {}\n", step_ - 1, failure);
    return out;
}

// Compares the module with the model: the configurations in force, the requests and their
// bookkeeping, the containers in the directory tree and their records, the subscriptions on the
// service with their statuses and watchers, the registry, what every handler holds, and the
// listening endpoint.
std::string Sequence::check() const {
    Model::Configs const held = Model::distinct(heldConfigs());
    Model::Configs const inForce = Model::effective(held);

    Model::Configs const moduleInForce(module_.effectiveSubscribeConfig()->pathSubscribeConfig().begin(),
                                       module_.effectiveSubscribeConfig()->pathSubscribeConfig().end());
    if (moduleInForce != inForce)
        return fmt::format("in force: module {} model {} (held {})", listed(moduleInForce), listed(inForce),
                           listed(held));

    auto const& table = module_.pathSubscribeRequestDedupTable();
    if (table->dedupTable()->size() != held.size())
        return fmt::format("{} requests in the table, {} distinct configurations held", table->dedupTable()->size(),
                           held.size());
    auto const* notifiee = dynamic_cast<PathSubscribeRequestNotifiee const*>(table->lifeTimeNotifiee().ptr());
    if (!notifiee) return "the dedup table has no request notifiee";
    if (!notifiee->pendingRequest().empty()) return "requests left pending after the event";
    for (bool remote : {true, false}) {
        std::map<std::string, std::size_t> sets;
        for (auto const& set : remote ? notifiee->requestSetForRemoteUri() : notifiee->requestSetForLocalUri())
            sets[set->uri().str()] = set->requests();
        if (sets != Model::requestsByUri(held, remote))
            return fmt::format("the {} URI sets differ from the requests held", remote ? "remote" : "local");
    }

    // The containers: one per configuration in force, in remote / agent / key, and nothing else.
    std::map<PathSubscribeConfig, Lumo::Ptr<SyncContainer const>> containers;
    std::set<std::string> agents, expectedAgents;
    for (PathSubscribeConfig const& c : inForce) expectedAgents.insert(c.remoteAgentKey().str());
    for (Lumo::Ptr<Wex::Entity> const& agent : module_.remoteDir()->entity()) {
        agents.insert(agent->name().str());
        auto const* dir = dynamic_cast<Wex::Dir const*>(agent.ptr());
        if (!dir) return fmt::format("remote/{} is not a directory", agent->name());
        for (Lumo::Ptr<Wex::Entity> const& e : dir->entity()) {
            auto c = Lumo::ptr_cast<SyncContainer const>(Lumo::Ptr<Wex::Entity const>(e));
            if (!c) return fmt::format("remote/{}/{} is not a container", agent->name(), e->name());
            PathSubscribeConfig const& cfg = c->pathSubscribeConfig();
            if (!inForce.count(cfg))
                return fmt::format("remote/{}/{} serves {}, which is not in force", agent->name(), e->name(), brief(cfg));
            if (cfg.remoteAgentKey() != agent->name() || cfg.syncContainerKey() != e->name() ||
                c->fwkType() != cfg.syncContainerType())
                return fmt::format("remote/{}/{} is misplaced or of another type than {}", agent->name(), e->name(),
                                   brief(cfg));
            containers[cfg] = c;
        }
    }
    if (agents != expectedAgents)
        return fmt::format("agent directories {} expected {}", listed(agents), listed(expectedAgents));
    if (containers.size() != inForce.size())
        return fmt::format("{} containers for {} configurations in force", containers.size(), inForce.size());

    SyncContainerStatus const& records = *module_.syncContainerStatus();
    if (records.syncContainer().size() != inForce.size())
        return fmt::format("{} container records for {} in force", records.syncContainer().size(), inForce.size());
    for (auto const& [cfg, container] : containers)
        if (records.syncContainer(cfg) != container) return "the record of " + brief(cfg) + " is not its container";

    // The subscriptions: on the service, recorded with the service's own status, watched.
    std::set<std::string> uris, serviceUris;
    for (PathSubscribeConfig const& c : inForce) uris.insert(c.remoteUri().str());
    for (std::string const& u : service().subscribedUris()) serviceUris.insert(u);
    if (serviceUris != uris) return fmt::format("the service holds {} expected {}", listed(serviceUris), listed(uris));
    SubscribeStatus const& subscribeStatus = *module_.subscribeStatus();
    if (subscribeStatus.pathSubscribeStatus().size() != inForce.size()) return "subscribe status records differ";
    for (PathSubscribeConfig const& c : inForce) {
        Lumo::Ptr<PathSubscribeStatus> const entry = subscribeStatus.pathSubscribeStatus(c);
        auto const serviceStatus = service().syncStatus(c.remoteUri().view());
        if (!entry || entry->syncStatus() != serviceStatus) return "no status record for " + brief(c);
        auto const expected = syncStatus_.find(c.remoteUri().str());
        SyncStatusEnum const want = expected != syncStatus_.end() ? expected->second : SyncStatusEnum::notConnected;
        if (entry->syncStatus()->status() != want)
            return fmt::format("status of {} is {}, expected {}", c.remoteUri(), entry->syncStatus()->status(), want);
    }
    std::set<std::string> watched;
    for (auto const& sm : module_.subscriberSm()->wexQ7SyncStatus()) {
        if (sm->q7SyncStatus() != service().syncStatus(sm->remoteUri().view()))
            return "a status reactor watches a status the service does not hold: " + sm->remoteUri().str();
        watched.insert(sm->remoteUri().str());
    }
    if (watched != uris) return fmt::format("status reactors for {} expected {}", listed(watched), listed(uris));

    // The registry, and what every handler ever made holds.
    SyncContainerHandlerRegistry const& registry = *module_.syncContainerHandlerRegistry();
    if (registry.syncContainerHandler().size() != registered_.size()) return "the registry differs from the handlers registered";
    for (auto const& [key, h] : registered_)
        if (registry.syncContainerHandler(Lumo::String(key)) != h) return "another handler is registered for " + key;
    for (Lumo::Ptr<ModelHandler> const& h : handlers_) {
        if (!h->contractBreaches().empty()) return fmt::format("H{} was {}", h->id(), h->contractBreaches().front());
        auto it = registered_.find(h->syncContainerKey().str());
        bool const isRegistered = it != registered_.end() && it->second == h;
        ModelHandler::Held expected;
        if (isRegistered)
            for (PathSubscribeConfig const& c : Model::ofKey(inForce, h->syncContainerKey().str())) expected[c] = containers[c];
        if (h->held() != expected)
            return fmt::format("H{} ({}registered, {}) holds {} expected {}", h->id(), isRegistered ? "" : "not ",
                               h->syncContainerKey(),
                               listed(h->held(), [](auto const& e) { return brief(e.first); }),
                               listed(expected, [](auto const& e) { return brief(e.first); }));
    }

    // The listening endpoint.
    auto const& record = module_.listenStatus()->listenConfigStatus();
    if (service().endpoints() != (listen_ ? 1u : 0u)) return fmt::format("{} endpoints open", service().endpoints());
    if (!listen_) return record ? "a listen record without an endpoint in force" : "";
    if (!record || !(record->listenConfig() == *listen_)) return "the listen record is not the endpoint in force";
    if (!record->q7ListenStatus() || record->q7ListenStatus()->listening() != listening_)
        return fmt::format("the endpoint's status does not say listening={}", listening_);
    return {};
}

std::optional<std::uint64_t> fromEnv(char const* name) {
    char const* v = std::getenv(name);
    if (!v || !*v) return std::nullopt;
    return std::strtoull(v, nullptr, 10);
}

class ModelTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        previousTraces_ = Memtrail::defaultHandle();
        Memtrail::defaultHandleIs(&traces_);
        ::Q7Sync::Service::instance().reset();
        ::Q7Sync::Service::instance().callLogIs(true);
        module_ = Module::get();
    }
    static void TearDownTestSuite() {
        ::Q7Sync::Service::instance().callLogIs(false);
        module_ = nullptr;
        Memtrail::defaultHandleIs(previousTraces_);
    }
    static Lumo::Ptr<Module> module_;
    // Every trace point writes a record here; a level-0 record fails the sequence.
    static Memtrail::Handle traces_;
    static Memtrail::Handle* previousTraces_;
};
Lumo::Ptr<Module> ModelTest::module_;
Memtrail::Handle ModelTest::traces_{8};
Memtrail::Handle* ModelTest::previousTraces_ = nullptr;

TEST_F(ModelTest, RandomSequencesEndInTheStateTheModelPredicts) {
    if (auto seed = fromEnv("Q7_MODEL_SEED")) {
        std::string const out = Sequence(*seed, *module_, true).run();
        std::fputs(out.c_str(), stdout);
        EXPECT_EQ(out.find("DIVERGENCE"), std::string::npos);
        return;
    }
    std::uint64_t const first = fromEnv("Q7_MODEL_FIRST_SEED").value_or(1);
    std::uint64_t const sequences = fromEnv("Q7_MODEL_SEQUENCES").value_or(kDefaultSequences);
    std::random_device entropy;
    std::uint64_t const randomSeed = std::uint64_t(entropy()) << 32 | entropy();
    std::printf("model: seeds %llu..%llu and the random seed %llu (replay one with Q7_MODEL_SEED=<seed>)\n",
                static_cast<unsigned long long>(first), static_cast<unsigned long long>(first + sequences - 1),
                static_cast<unsigned long long>(randomSeed));
    std::vector<std::uint64_t> seeds;
    for (std::uint64_t s = first; s < first + sequences; ++s) seeds.push_back(s);
    seeds.push_back(randomSeed);
    std::uint64_t run = 0;
    for (std::uint64_t seed : seeds) {
        std::string const failure = Sequence(seed, *module_, false).run();
        ++run;
        // The shared module may be left in any state after a divergence: stop at the first.
        ASSERT_TRUE(failure.empty()) << failure << "replay: Q7_MODEL_SEED=" << seed;
    }
    std::printf("model: %llu sequences, 0 divergences\n", static_cast<unsigned long long>(run));
}


// The re-entrant calls the random sequences make, one by one, each with the outcome the module
// promises: handlers may ask for and release subscriptions and change the registration of any
// key but the one whose containers are being handed over to them.
class ReentrantHandlerTest : public ::testing::Test {
protected:
    ReentrantHandlerTest() : module_(Module::get()), liveBefore_(Wex::PtrInterface::liveObjects()) {
        service().reset();
        service().callLogIs(true);
    }
    ~ReentrantHandlerTest() override {
        for (auto& h : handlers) h->onCall = nullptr;
        while (!requests.empty()) release(requests.begin()->first);
        for (char const* key : {"k", "j"}) module_->syncContainerHandlerRegistry()->syncContainerHandlerDel(key);
        EXPECT_EQ(leftOver(*module_), "");
        EXPECT_TRUE(traces.at(0).empty());
        service().callLogIs(false);
        handlers.clear();
        EXPECT_EQ(Wex::PtrInterface::liveObjects(), liveBefore_) << "framework objects leaked";
    }

    static ::Q7Sync::Service& service() { return ::Q7Sync::Service::instance(); }
    Lumo::Ptr<PathSubscribeRequest> dedup(PathSubscribeConfig const& c) {
        return module_->pathSubscribeRequestDedupTable()->dedup(c);
    }
    // Out of the map before the release runs: handlers called by it change the map too.
    void release(std::string const& name) {
        auto it = requests.find(name);
        if (it == requests.end()) return;
        Lumo::Ptr<PathSubscribeRequest> request = std::move(it->second);
        requests.erase(it);
        request = nullptr;
    }
    Lumo::Ptr<RecordingHandler> handler(char const* name, char const* key = "k") {
        handlers.push_back(RecordingHandler::make(name, key, &log));
        return handlers.back();
    }
    SyncContainerHandlerRegistry& registry() { return *module_->syncContainerHandlerRegistry(); }
    Lumo::Ptr<Wex::Entity> containerAt(PathSubscribeConfig const& c) {
        auto agent = Lumo::ptr_cast<Wex::Dir const>(module_->remoteDir()->entityPtr(c.remoteAgentKey()));
        return agent ? agent->entityPtr(c.syncContainerKey()) : nullptr;
    }
    bool inForce(PathSubscribeConfig const& c) { return module_->effectiveSubscribeConfig()->pathSubscribeConfigHas(c); }

    Lumo::Ptr<Module> module_;
    TraceRecords traces;
    std::vector<std::string> log;
    std::vector<Lumo::Ptr<RecordingHandler>> handlers;
    std::map<std::string, Lumo::Ptr<PathSubscribeRequest>> requests;

private:
    long liveBefore_;
};

TEST_F(ReentrantHandlerTest, AHandlerReleasingTheSubscriptionItIsGivenLeavesNothingBehind) {
    PathSubscribeConfig const cfg = subscription("k");
    requests["a"] = dedup(cfg);
    auto h = handler("H");
    h->onCall = [&](PathSubscribeConfig const&, bool given) {
        if (given) release("a");
    };
    registry().syncContainerHandlerIs(h);
    EXPECT_EQ(log, (std::vector<std::string>{given("H", cfg), withdrawn("H", cfg)}));
    EXPECT_TRUE(h->held.empty());
    EXPECT_FALSE(inForce(cfg));
    EXPECT_FALSE(containerAt(cfg));
    EXPECT_EQ(service().subscriptions(), 0u);
}

// The request asked for again is filed once the release has run to its end: the subscription
// starts afresh, with a new container in place and a new subscribe on the service.
TEST_F(ReentrantHandlerTest, AHandlerAskingAgainForWhatIsWithdrawnGetsItAfreshOnceTheReleaseIsDone) {
    PathSubscribeConfig const cfg = subscription("k");
    auto h = handler("H");
    registry().syncContainerHandlerIs(h);
    requests["a"] = dedup(cfg);
    Lumo::Ptr<Wex::Entity> const container = containerAt(cfg);
    h->onCall = [&](PathSubscribeConfig const& c, bool given) {
        if (!given) requests["again"] = dedup(c);
    };
    service().callsDelAll();
    release("a");
    EXPECT_TRUE(inForce(cfg));
    ASSERT_TRUE(containerAt(cfg));
    EXPECT_NE(containerAt(cfg), container);
    EXPECT_EQ(module_->syncContainerStatus()->syncContainer(cfg), containerAt(cfg));
    EXPECT_EQ(log, (std::vector<std::string>{given("H", cfg), withdrawn("H", cfg), given("H", cfg)}));
    ASSERT_EQ(h->held.size(), 1u);
    EXPECT_EQ(*h->held.begin(), containerAt(cfg));
    EXPECT_EQ(service().calls().front(), (::Q7Sync::Service::Call{"unsubscribe", cfg.remoteUri().str()}));
    EXPECT_EQ(service().subscribedUris(), std::vector<std::string>{cfg.remoteUri().str()});
}

TEST_F(ReentrantHandlerTest, OneAskedForWhileAnotherOnItsRemoteUriIsWithdrawnIsSubscribedAfresh) {
    PathSubscribeConfig const a = subscription("k", 1, "shared/path"), b = subscription("j", 1, "shared/path");
    ASSERT_EQ(a.remoteUri(), b.remoteUri());
    auto h = handler("H");
    registry().syncContainerHandlerIs(h);
    requests["a"] = dedup(a);
    h->onCall = [&](PathSubscribeConfig const&, bool given) {
        if (!given) requests["b"] = dedup(b);
    };
    service().callsDelAll();
    release("a");
    EXPECT_TRUE(inForce(b));
    ASSERT_TRUE(service().syncStatus(b.remoteUri().view()));
    EXPECT_EQ(service().syncStatus(b.remoteUri().view())->localUri(), b.localUri());
    EXPECT_EQ(module_->subscribeStatus()->pathSubscribeStatus().size(), 1u);
    EXPECT_TRUE(module_->subscribeStatus()->pathSubscribeStatus(b));
    auto const calls = service().calls();
    auto unsubscribed = std::find(calls.begin(), calls.end(), ::Q7Sync::Service::Call{"unsubscribe", a.remoteUri().str()});
    ASSERT_NE(unsubscribed, calls.end());
    EXPECT_EQ(std::count_if(unsubscribed, calls.end(), [](auto const& c) { return c.operation == "subscribe"; }),
              std::count_if(calls.begin(), calls.end(), [](auto const& c) { return c.operation == "subscribe"; }))
        << "the shared remote URI was subscribed for b before a's subscription was ended";
}

TEST_F(ReentrantHandlerTest, OneAskedForWhileAnotherAtItsPlaceIsWithdrawnGetsAContainerOfItsOwn) {
    PathSubscribeConfig const a = subscription("k", 1, "a/path");
    PathSubscribeConfig const b = subscription("k", 1, "b/path", Wex::wexTypeOf<Q7Agent::StateContainer>());
    ASSERT_EQ(a.localUri(), b.localUri());
    auto h = handler("H");
    registry().syncContainerHandlerIs(h);
    requests["a"] = dedup(a);
    h->onCall = [&](PathSubscribeConfig const& c, bool given) {
        if (!given && c == a) requests["b"] = dedup(b);
    };
    release("a");
    auto const container = Lumo::ptr_cast<Q7Agent::StateContainer>(containerAt(b));
    ASSERT_TRUE(container);
    EXPECT_EQ(container->pathSubscribeConfig(), b);
    EXPECT_EQ(module_->syncContainerStatus()->syncContainer(b), container);
    ASSERT_EQ(h->held.size(), 1u);
    EXPECT_EQ(*h->held.begin(), container);
}

// The replacement asked for from inside the first container's hand-over waits for the hand-over
// to end: the outgoing handler is given both containers before it is told of either going.
TEST_F(ReentrantHandlerTest, ChangingTheHandlerOfAKeyWhileItsContainersAreHandedOverWaitsForTheHandOver) {
    PathSubscribeConfig const first = subscription("k", 1), second = subscription("k", 2);
    requests["first"] = dedup(first);
    requests["second"] = dedup(second);
    auto h = handler("H"), other = handler("O"), elsewhere = handler("E", "j");
    h->onCall = [&](PathSubscribeConfig const&, bool given) {
        if (!given || registry().syncContainerHandler("j")) return;
        registry().syncContainerHandlerIs(other);
        registry().syncContainerHandlerIs(elsewhere);
        EXPECT_EQ(registry().syncContainerHandler("k"), h) << "the change overtook the hand-over under way";
    };
    registry().syncContainerHandlerIs(h);
    EXPECT_EQ(registry().syncContainerHandler("k"), other);
    EXPECT_EQ(registry().syncContainerHandler("j"), elsewhere);
    ASSERT_EQ(log.size(), 6u);
    auto const handedTo = [&](char const* name, bool given) {
        return static_cast<std::size_t>(std::count_if(log.begin(), log.end(), [&](std::string const& l) {
            return l.starts_with(fmt::format("{} {}", name, given ? "containerIs" : "containerDel"));
        }));
    };
    EXPECT_TRUE(log[0].starts_with("H containerIs") && log[1].starts_with("H containerIs")) << log[1];
    EXPECT_EQ(handedTo("H", false), 2u);
    EXPECT_EQ(handedTo("O", true), 2u);
    EXPECT_TRUE(h->held.empty());
    EXPECT_EQ(other->held.size(), 2u);
}

TEST_F(ReentrantHandlerTest, AHandlerReplacingItselfWhenGivenANewContainerHandsAllOver) {
    PathSubscribeConfig const first = subscription("k", 1), second = subscription("k", 2);
    auto h = handler("H"), next = handler("N");
    registry().syncContainerHandlerIs(h);
    requests["first"] = dedup(first);
    h->onCall = [&](PathSubscribeConfig const&, bool given) {
        if (given) registry().syncContainerHandlerIs(next);
    };
    requests["second"] = dedup(second);
    EXPECT_EQ(registry().syncContainerHandler("k"), next);
    EXPECT_TRUE(h->held.empty());
    EXPECT_EQ(next->held.size(), 2u);
}

// On its first withdrawal the outgoing handler ends the other subscription, which the hand-over
// has not reached yet: the hand-over completes as it began, and the subscription then ends with
// the incoming handler, which by then holds it.
TEST_F(ReentrantHandlerTest, ASubscriptionEndedDuringAHandOverEndsAfterItWithTheIncomingHandler) {
    PathSubscribeConfig const first = subscription("k", 1), second = subscription("k", 2);
    auto outgoing = handler("A"), incoming = handler("B");
    registry().syncContainerHandlerIs(outgoing);
    requests[first.localUri().str()] = dedup(first);
    requests[second.localUri().str()] = dedup(second);
    PathSubscribeConfig ended;
    outgoing->onCall = [&](PathSubscribeConfig const& c, bool given) {
        if (given || ended) return;
        ended = c == first ? second : first;
        release(ended.localUri().str());
    };
    log.clear();
    registry().syncContainerHandlerIs(incoming);
    PathSubscribeConfig const& kept = ended == first ? second : first;
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log.back(), withdrawn("B", ended));
    EXPECT_EQ(std::count(log.begin(), log.end(), given("B", ended)), 1);
    EXPECT_TRUE(outgoing->held.empty());
    ASSERT_EQ(incoming->held.size(), 1u);
    EXPECT_EQ((*incoming->held.begin())->pathSubscribeConfig(), kept);
}

} // namespace
} // namespace Kel::Q7Sync::Test
