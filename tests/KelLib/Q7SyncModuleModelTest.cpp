// Seeded random sequences of client operations on the shared module, compared after every step
// with a reference model, with handlers that call back into the module from containerIs and
// containerDel.
//
// Q7_MODEL_SEED=<n> replays one sequence and prints its operations. Otherwise the test runs
// Q7_MODEL_SEQUENCES (default 10000) seeds from Q7_MODEL_FIRST_SEED (default 1) on, and one
// random seed, printed.
#include "KelLib/Q7SyncModule.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <tuple>

#include "Memtrail/Memtrail.h"
#include "host/StateContainer.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using ::Q7Serdes::WexUtils::SyncStatusEnum;
using Configs = std::set<PathSubscribeConfig>;
// The state of the module as facts, one line each: observed in the module, predicted by the model.
using Facts = std::set<std::string>;

constexpr std::uint64_t kDefaultSequences = 10000;
constexpr int kMaxReentryDepth = 2;              // nested calls from inside nested calls, and no deeper
constexpr unsigned kReentryPercent = 25;         // of the calls a re-entrant handler gets
char const* const kKeys[] = {"k1", "k2", "k3"};  // k3: a key no subscription uses

std::uint64_t mix(std::uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

// The model, written as plainly as possible so that it can be trusted: how many of the distinct
// configurations held use each remote and each local URI, and those in force, alone on both.
struct Model {
    explicit Model(Configs const& held) {
        for (PathSubscribeConfig const& c : held) {
            ++byRemote[c.remoteUri().str()];
            ++byLocal[c.localUri().str()];
        }
        for (PathSubscribeConfig const& c : held)
            if (byRemote[c.remoteUri().str()] == 1 && byLocal[c.localUri().str()] == 1) inForce.insert(c);
    }
    std::map<std::string, int> byRemote, byLocal;
    Configs inForce;
};

std::string brief(PathSubscribeConfig const& c) {
    bool const state = c.syncContainerType() == Wex::wexTypeOf<Q7Agent::StateContainer>();
    return fmt::format("{}{}>{}:{}:{}", c.remoteAgentKey(), c.remotePath(), c.syncContainerKey(),
                       state ? "State" : "Sync", c.flags());
}

std::string difference(Facts const& observed, Facts const& predicted) {
    std::string out;
    for (std::string const& f : predicted)
        if (!observed.count(f)) out += "\n  missing: " + f;
    for (std::string const& f : observed)
        if (!predicted.count(f)) out += "\n  unexpected: " + f;
    return out;
}

// A client's handler: keeps what it was given, notes the calls that the contract rules out, and
// lets its sequence call back into the module from inside either call.
class ModelHandler : public SyncContainerHandler {
public:
    using OnCall = std::function<void(ModelHandler const&, PathSubscribeConfig const&, bool given)>;
    ModelHandler(int id, char const* key, bool reentrant, OnCall onCall)
        : SyncContainerHandler(Lumo::String(key)), id(id), reentrant(reentrant), onCall_(std::move(onCall)) {}

    void containerIs(Lumo::Ptr<SyncContainer const> const& container) const override {
        auto [it, added] = held.try_emplace(container->pathSubscribeConfig(), container);
        if (!added && it->second == container) breaches.push_back("given a container it holds: " + brief(it->first));
        it->second = container;
        onCall_(*this, container->pathSubscribeConfig(), true);
    }
    void containerDel(PathSubscribeConfig const& config) const override {
        if (held.erase(config) == 0) breaches.push_back("withdrawn what it does not hold: " + brief(config));
        onCall_(*this, config, false);
    }

    int const id;
    bool const reentrant;
    mutable std::map<PathSubscribeConfig, Lumo::Ptr<SyncContainer const>> held;
    mutable Lines breaches;

private:
    OnCall const onCall_;
};

// One seeded sequence of operations on the shared module, with the client's bookkeeping that
// the model predicts from: the requests held, the handlers registered, the statuses set.
class Sequence {
public:
    // A small space per sequence, drawn from 2 agents x 2 paths x 2 keys x 2 types x 2 flag sets,
    // so that held configurations often share a remote URI (agent and path) or a local URI (agent
    // and key).
    Sequence(std::uint64_t seed, Module& module, bool verbose)
        : seed_(seed), rng_(mix(seed)), module_(module), verbose_(verbose) {
        std::vector<PathSubscribeConfig> all;
        for (char const* host : {"10.9.0.1", "10.9.0.2"})
            for (char const* path : {"/a", "/b"})
                for (char const* key : {kKeys[0], kKeys[1]})
                    for (Wex::WexType const* type :
                         {Wex::wexTypeOf<SyncContainer>(), Wex::wexTypeOf<Q7Agent::StateContainer>()})
                        for (Flags f : {::Q7Sync::WexUtils::RELIABLE(),
                                        ::Q7Sync::WexUtils::RELIABLE() | ::Q7Sync::WexUtils::SNAPSHOT()})
                            all.emplace_back(Kivu::IpGenAddr::fromString(host).value(), 4000, path, key, type, f);
        std::size_t const size = 3 + below(6);
        while (space_.size() < size) {
            PathSubscribeConfig const& c = all[below(all.size())];
            if (std::find(space_.begin(), space_.end(), c) == space_.end()) space_.push_back(c);
        }
    }
    Sequence(Sequence const&) = delete;
    Sequence& operator=(Sequence const&) = delete;
    // After a divergence the sequence ends early: what it holds goes, quietly.
    ~Sequence() {
        quiet_ = true;
        holdings_.clear();
        for (auto const& [key, handler] : std::map(registered_))
            module_.syncContainerHandlerRegistry()->syncContainerHandlerDel(Lumo::String(key));
    }
    // The first divergence from the model, with the operations that led to it; empty if none.
    std::string run() {
        Memtrail::Handle const& traces = *Memtrail::defaultHandle();
        long const liveAtStart = Wex::PtrInterface::liveObjects();
        std::size_t const steps = 20 + below(41);
        std::string failure = difference(observed(), predicted());
        if (!failure.empty()) failure = "the module is not empty at the start:" + failure;
        for (step_ = 1; failure.empty() && step_ <= steps + 1; ++step_) {
            service().callsDelAll();
            if (step_ <= steps) {
                step();
            } else {
                quiet_ = true;
                note("-- release everything");
                while (!holdings_.empty()) release(below(holdings_.size()));
                module_.syncContainerHandlerRegistry()->syncContainerHandlerDelAll();
                registered_.clear();
            }
            // A subscription that ended and began again within the step has a fresh status.
            for (::Q7Sync::Service::Call const& call : service().calls())
                if (call.operation == "unsubscribe") syncStatus_.erase(call.arguments);
            failure = divergence_.empty() ? difference(observed(), predicted()) : divergence_;
            // Level 0: a broken invariant or a handler that threw.
            for (Memtrail::Record const* r : traces.records(0)) failure += "\n  level-0 trace: " + r->text();
        }
        if (failure.empty()) {
            handlers_.clear();
            registered_.clear();
            if (long const left = Wex::PtrInterface::liveObjects() - liveAtStart; left != 0)
                failure = fmt::format("{} framework objects made by the sequence are still alive", left);
        }
        if (failure.empty() && !verbose_) return {};
        std::string out = fmt::format("seed {}: {} configurations:", seed_, space_.size());
        for (PathSubscribeConfig const& c : space_) out += " " + brief(c);
        out += "\n";
        for (std::size_t n = 0; n < log_.size(); ++n) out += fmt::format("  {:4} {}\n", n + 1, log_[n]);
        if (!failure.empty()) out += fmt::format("DIVERGENCE at step {}: {}\n", step_ - 1, failure);
        return out;
    }

private:
    std::size_t below(std::size_t n) { return static_cast<std::size_t>(rng_() % n); }
    void note(std::string text) { log_.push_back(std::string(2 * depth_, ' ') + std::move(text)); }
    void diverge(std::string what) {
        if (divergence_.empty()) divergence_ = std::move(what);
    }
    Configs held() const {
        Configs out;
        for (auto const& [config, request] : holdings_) out.insert(config);
        return out;
    }
    static ::Q7Sync::Service& service() { return ::Q7Sync::Service::instance(); }

    void dedup(std::size_t index) {
        PathSubscribeConfig const config = space_[index];
        note("dedup " + brief(config));
        Lumo::Ptr<PathSubscribeRequest const> request = module_.pathSubscribeRequestDedupTable()->dedup(config);
        if (!request || !(request->pathSubscribeConfig() == config)) diverge("dedup returned another request");
        for (auto const& [c, r] : holdings_)
            if (c == config && r != request) diverge("equal configurations got two requests");
        holdings_.emplace_back(config, std::move(request));
    }

    // Out of the bookkeeping before the release runs: the handlers it calls change the bookkeeping too.
    void release(std::size_t holding) {
        note("release " + brief(holdings_[holding].first));
        Lumo::Ptr<PathSubscribeRequest const> request = std::move(holdings_[holding].second);
        holdings_.erase(holdings_.begin() + static_cast<std::ptrdiff_t>(holding));
        request = nullptr;
    }

    void releaseOneOf(PathSubscribeConfig const& config) {
        for (std::size_t i = 0; i < holdings_.size(); ++i)
            if (holdings_[i].first == config) return release(i);
    }

    Lumo::Ptr<ModelHandler> newHandler(char const* key) {
        Lumo::Ptr<ModelHandler> h(
            new ModelHandler(int(handlers_.size()) + 1, key, below(100) < 50,
                             [this](auto const& h, auto const& c, bool given) { reenter(h, c, given); }));
        h->hasNotificationActiveIs(true);
        handlers_.push_back(h);
        return h;
    }

    // Registers handler under key, or removes key's handler when handler is null. Every change is
    // taken, in the order asked for (one asked for from inside a handler is made once the event under
    // way has completed), so the bookkeeping takes each change before the call.
    void registryChange(char const* key, Lumo::Ptr<ModelHandler> const& handler) {
        note(handler ? fmt::format("register H{}{} for {}", handler->id, handler->reentrant ? "*" : "", key)
                     : fmt::format("remove handler of {}", key));
        SyncContainerHandlerRegistry& registry = *module_.syncContainerHandlerRegistry();
        Lumo::Ptr<SyncContainerHandler const> const before = registry.syncContainerHandler(Lumo::String(key));
        if (handler) {
            registered_[key] = handler;
            registry.syncContainerHandlerIs(handler);
        } else {
            registered_.erase(key);
            // The handler registered when asked, though its removal may wait.
            if (registry.syncContainerHandlerDel(Lumo::String(key)) != before)
                diverge("the removal returned another handler");
        }
    }

    // What a re-entrant handler does from inside a call, decided by the seed, the step, the handler,
    // the call and the configuration: not by the order in which the module makes the calls, which
    // follows hash orders.
    void reenter(ModelHandler const& handler, PathSubscribeConfig const& config, bool given) {
        note(fmt::format("H{} {} {}", handler.id, given ? "containerIs" : "containerDel", brief(config)));
        if (quiet_ || depth_ >= kMaxReentryDepth || !handler.reentrant) return;
        auto const index = std::size_t(std::find(space_.begin(), space_.end(), config) - space_.begin());
        unsigned const nth = callsThisStep_[{handler.id, index, given}]++;
        std::uint64_t const r =
            mix(seed_ ^ mix((step_ << 32) ^ (std::uint64_t(handler.id) << 16) ^ (index << 8) ^ (nth << 1) ^ given));
        if (r % 100 >= kReentryPercent) return;
        std::uint64_t const what = r / 100;
        std::size_t const other = (what / 8) % space_.size();
        char const* const key = kKeys[(what / 8) % std::size(kKeys)];
        char const* const own = handler.syncContainerKey().c_str();
        ++depth_;
        switch (what % 8) {
        case 0:
        case 1: dedup(other); break;
        case 2: releaseOneOf(config); break;  // its own subscription
        case 3: releaseOneOf(space_[other]); break;
        case 4: registryChange(key, newHandler(key)); break;
        case 5: registryChange(key, nullptr); break;
        case 6: registryChange(own, newHandler(own)); break;
        default: registryChange(own, nullptr); break;
        }
        --depth_;
    }

    void statusChange() {
        std::vector<std::string> uris;
        for (PathSubscribeConfig const& c : Model(held()).inForce) uris.push_back(c.remoteUri().str());
        std::string const uri = !uris.empty() && below(100) < 80 ? uris[below(uris.size())]
                                                                 : space_[below(space_.size())].remoteUri().str();
        auto const status = static_cast<SyncStatusEnum>(below(5));
        note(fmt::format("status of {} -> {}", uri, status));
        bool const subscribed = std::find(uris.begin(), uris.end(), uri) != uris.end();
        if (service().syncStatusIs(uri, status, Lumo::String("model")) != subscribed)
            diverge(fmt::format("the service {} {}", subscribed ? "does not know" : "still knows", uri));
        if (subscribed) syncStatus_[uri] = status;
    }

    // Refused with an error naming what is wrong, and nothing changed: a subscription without an
    // address, one without a container type (the text form carries none), and a null handler.
    void invalidInput() {
        note("invalid input");
        auto const refused = [&](PathSubscribeConfig const& c) {
            return refusal<Wex::NewEntityArgsException>([&] { module_.pathSubscribeRequestDedupTable()->dedup(c); });
        };
        if (refused(PathSubscribeConfig()) != "remoteAddr") diverge("a configuration without address was taken");
        if (refused(Wex::fromString<PathSubscribeConfig>(valueToStrep(space_[below(space_.size())]))) !=
            "syncContainerType")
            diverge("a configuration without container type was taken");
        if (refusal<Wex::NullArgumentException>([&] {
                module_.syncContainerHandlerRegistry()->syncContainerHandlerIs(nullptr);
            }) != "syncContainerHandler")
            diverge("a null handler was taken");
    }

    void step() {
        callsThisStep_.clear();
        std::size_t const r = below(100);
        char const* const key = kKeys[below(std::size(kKeys))];
        if (r < 30) dedup(below(space_.size()));
        else if (r < 52 && !holdings_.empty()) release(below(holdings_.size()));
        else if (r < 62) registryChange(key, newHandler(key));
        else if (r < 64 && registered_.count(key)) registryChange(key, registered_[key]);  // nobody told
        else if (r < 71) registryChange(key, nullptr);
        else if (r < 94) statusChange();
        else invalidInput();
    }

    // The configurations in force and the requests by URI; the containers in the directory tree, in
    // place, of their type and recorded; the subscriptions on the service with their recorded and
    // watched statuses; the handlers registered and what every handler ever made holds.
    Facts observed() const {
        Module const& m = module_;
        Facts f;
        for (PathSubscribeConfig const& c : m.effectiveSubscribeConfig()->pathSubscribeConfig())
            f.insert("in force " + brief(c));
        auto const& notifiee =
            dynamic_cast<PathSubscribeRequestNotifiee const&>(*m.pathSubscribeRequestDedupTable()->lifeTimeNotifiee());
        f.insert(fmt::format("{} requests, {} pending", m.pathSubscribeRequestDedupTable()->dedupTable()->size(),
                             notifiee.pendingRequest().size()));
        for (auto const& set : notifiee.requestSetForRemoteUri())
            f.insert(fmt::format("remote {} x{}", set->uri(), set->requests()));
        for (auto const& set : notifiee.requestSetForLocalUri())
            f.insert(fmt::format("local {} x{}", set->uri(), set->requests()));
        for (Lumo::Ptr<Wex::Entity> const& agent : m.remoteDir()->entity()) {
            auto const* dir = dynamic_cast<Wex::Dir const*>(agent.ptr());
            if (!dir || dir->entities() == 0) {
                f.insert(fmt::format("remote/{} is not a directory of containers", agent->name()));
                continue;
            }
            for (Lumo::Ptr<Wex::Entity> const& e : dir->entity()) {
                auto const c = Lumo::ptr_cast<SyncContainer const>(Lumo::Ptr<Wex::Entity const>(e));
                PathSubscribeConfig const cfg = c ? c->pathSubscribeConfig() : PathSubscribeConfig();
                bool const placed = c && cfg.remoteAgentKey() == agent->name() && cfg.syncContainerKey() == e->name() &&
                                    c->fwkType() == cfg.syncContainerType();
                bool const recorded = c && m.syncContainerStatus()->syncContainer(cfg) == c;
                f.insert(fmt::format("container {}{}{}", c ? brief(cfg) : e->name().str(), placed ? "" : " misplaced",
                                     recorded ? "" : " unrecorded"));
            }
        }
        f.insert(fmt::format("{} container records", m.syncContainerStatus()->syncContainer().size()));
        for (std::string const& uri : service().subscribedUris()) f.insert("subscribed " + uri);
        for (auto const& entry : m.subscribeStatus()->pathSubscribeStatus()) {
            bool const live =
                entry->syncStatus() == service().syncStatus(entry->pathSubscribeConfig().remoteUri().view());
            f.insert(fmt::format("status of {} {}{}", brief(entry->pathSubscribeConfig()),
                                 entry->syncStatus()->status(), live ? "" : " not the service's"));
        }
        for (auto const& sm : m.subscriberSm()->wexQ7SyncStatus()) {
            bool const live = sm->q7SyncStatus() == service().syncStatus(sm->remoteUri().view());
            f.insert(fmt::format("watched {}{}", sm->remoteUri(), live ? "" : " not the service's"));
        }
        // Every handler in the registry is one of this sequence's: the module is empty at its start.
        for (auto const& h : m.syncContainerHandlerRegistry()->syncContainerHandler())
            f.insert(
                fmt::format("registered H{} for {}", static_cast<ModelHandler const&>(*h).id, h->syncContainerKey()));
        for (Lumo::Ptr<ModelHandler> const& h : handlers_) {
            for (auto const& [cfg, container] : h->held)
                f.insert(fmt::format("H{} holds {}{}", h->id, brief(cfg),
                                     m.syncContainerStatus()->syncContainer(cfg) == container ? "" : " stale"));
            for (std::string const& breach : h->breaches) f.insert(fmt::format("H{} was {}", h->id, breach));
        }
        return f;
    }

    Facts predicted() const {
        Configs const requests = held();
        Model const model(requests);
        Facts f{fmt::format("{} requests, 0 pending", requests.size()),
                fmt::format("{} container records", model.inForce.size())};
        for (auto const& [uri, n] : model.byRemote) f.insert(fmt::format("remote {} x{}", uri, n));
        for (auto const& [uri, n] : model.byLocal) f.insert(fmt::format("local {} x{}", uri, n));
        for (PathSubscribeConfig const& c : model.inForce) {
            std::string const uri = c.remoteUri().str();
            auto const status = syncStatus_.find(uri);
            f.insert({"in force " + brief(c), "container " + brief(c), "subscribed " + uri, "watched " + uri,
                      fmt::format("status of {} {}", brief(c),
                                  status == syncStatus_.end() ? SyncStatusEnum::notConnected : status->second)});
        }
        for (auto const& [key, h] : registered_) {
            f.insert(fmt::format("registered H{} for {}", h->id, key));
            for (PathSubscribeConfig const& c : model.inForce)
                if (c.syncContainerKey().str() == key) f.insert(fmt::format("H{} holds {}", h->id, brief(c)));
        }
        return f;
    }

    std::uint64_t const seed_;
    std::mt19937_64 rng_;  // fully specified: a seed means the same operations on every platform
    Module& module_;
    bool const verbose_;
    std::vector<PathSubscribeConfig> space_;
    std::size_t step_ = 0;
    int depth_ = 0;
    bool quiet_ = false;
    std::vector<std::pair<PathSubscribeConfig, Lumo::Ptr<PathSubscribeRequest const>>> holdings_;
    std::map<std::string, Lumo::Ptr<ModelHandler>> registered_;
    std::vector<Lumo::Ptr<ModelHandler>> handlers_;  // every handler made, registered or not
    std::map<std::string, SyncStatusEnum> syncStatus_;
    std::map<std::tuple<int, std::size_t, bool>, unsigned> callsThisStep_;
    Lines log_;
    std::string divergence_;
};

std::optional<std::uint64_t> fromEnv(char const* name) {
    char const* v = std::getenv(name);
    return v && *v ? std::optional(std::strtoull(v, nullptr, 10)) : std::nullopt;
}

TEST(ModelTest, RandomSequencesEndInTheStateTheModelPredicts) {
    // Every trace point writes a record here; a level-0 record fails the sequence.
    TraceRecords const traces(8);
    ::Q7Sync::Service::instance().reset();
    ::Q7Sync::Service::instance().callLogIs(true);
    Lumo::Ptr<Module> const module = Module::get();
    if (auto seed = fromEnv("Q7_MODEL_SEED")) {
        std::string const out = Sequence(*seed, *module, true).run();
        std::fputs(out.c_str(), stdout);
        EXPECT_EQ(out.find("DIVERGENCE"), std::string::npos);
    } else {
        std::uint64_t const first = fromEnv("Q7_MODEL_FIRST_SEED").value_or(1);
        std::uint64_t const sequences = fromEnv("Q7_MODEL_SEQUENCES").value_or(kDefaultSequences);
        std::random_device entropy;
        std::uint64_t const randomSeed = std::uint64_t(entropy()) << 32 | entropy();
        fmt::print("model: seeds {}..{} and the random seed {} (replay one with Q7_MODEL_SEED=<seed>)\n", first,
                   first + sequences - 1, randomSeed);
        for (std::uint64_t n = 0; n <= sequences; ++n) {
            std::uint64_t const seed = n < sequences ? first + n : randomSeed;
            std::string const failure = Sequence(seed, *module, false).run();
            // The shared module may be left in any state after a divergence: stop at the first.
            ASSERT_TRUE(failure.empty()) << failure << "replay: Q7_MODEL_SEED=" << seed;
        }
        fmt::print("model: {} sequences, 0 divergences\n", sequences + 1);
    }
    ::Q7Sync::Service::instance().callLogIs(false);
}

}  // namespace
}  // namespace Kel::Q7Sync::Test
