// Benchmarks of the module's subscription bookkeeping on the workload of ../shared/perf-reference,
// through the public API (Module::get, the dedup table, the handler registry, the show command).
//
//   q7bench [google benchmark flags]          the suite; a ROW line per figure at the end
//   q7bench --callgrind distinct|conflict N    one repetition, one callgrind dump per phase
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Agent/ShowCommand.h"
#include "KelLib/Q7SyncModule.h"
#include "KelLib/ShowQ7SyncDebugCallback.h"
#include "Lumo/SmallBlocks.h"
#include "Memtrail/Memtrail.h"
#include "Oru/TaskScheduler.h"
#include "Q7Sync/Service.h"
#include "Wex/Trace.h"

namespace {

using namespace Kel::Q7Sync;
using Flags = PathSubscribeConfig::SyncRequestFlags;
using Request = Lumo::Ptr<PathSubscribeRequest>;

#define CHECK(cond)                                                                 \
    do {                                                                            \
        if (!(cond)) {                                                              \
            std::fprintf(stderr, "CHECK failed %s:%d: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                           \
        }                                                                           \
    } while (0)

// ---- the reference's workload ----

constexpr std::uint32_t kAgents = 1000;

// Raw client inputs of one subscription; the configuration is built from them in the timed region.
struct Input {
    Kivu::IpGenAddr addr;
    std::uint32_t port;
    std::string path;
    std::string key;
    Wex::WexType const* type;
    std::uint8_t flags;
};

// Agent a is 10.20.<a/250>.<a%250+1>, every 10th one fd00:0:0:14::<a>.
Kivu::IpGenAddr agentAddr(std::uint32_t a) {
    std::string const text = a % 10 == 9 ? fmt::format("fd00:0:0:14::{:x}", a) : fmt::format("10.20.{}.{}", a / 250, a % 250 + 1);
    return *Kivu::IpGenAddr::fromString(text);
}

Input makeInput(std::uint32_t i, char keyPrefix, std::uint32_t pathIndex) {
    return Input{agentAddr(i % kAgents), 6042, "/sys/state/c" + std::to_string(pathIndex),
                 keyPrefix + std::to_string(i / kAgents), Wex::wexTypeOf<SyncContainer>(), 0x1};
}

// distinct: N configurations, all in force. conflict: N/2 pairs (A_k key c.., B_k key d..) with
// the same remote URI; the A's first.
std::vector<Input> makeInputs(bool conflict, std::uint32_t n) {
    std::vector<Input> v;
    v.reserve(n);
    if (!conflict) {
        for (std::uint32_t i = 0; i < n; ++i) v.push_back(makeInput(i, 'c', i / kAgents));
    } else {
        for (std::uint32_t k = 0; k < n / 2; ++k) v.push_back(makeInput(k, 'c', k / kAgents));
        for (std::uint32_t k = 0; k < n / 2; ++k) v.push_back(makeInput(k, 'd', k / kAgents));
    }
    return v;
}

// The three derived strings are made here, inside the timed region, as the reference does.
PathSubscribeConfig configOf(Input const& in) {
    return PathSubscribeConfig(in.addr, in.port, Lumo::String(in.path), Lumo::String(in.key), in.type, Flags(in.flags));
}

// ---- measuring ----

using Clock = std::chrono::steady_clock;
template <class F>
double timedNs(bool callgrind, char const* phase, F&& f) {
    if (callgrind) CALLGRIND_ZERO_STATS;
    auto const t0 = Clock::now();
    f();
    double const ns = std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
    if (callgrind) CALLGRIND_DUMP_STATS_AT(phase);
    return ns;
}

long procStatusKb(char const* field) {
    std::ifstream f("/proc/self/status");
    std::string line;
    std::string const prefix = std::string(field) + ":";
    while (std::getline(f, line))
        if (line.rfind(prefix, 0) == 0) return std::atol(line.c_str() + prefix.size());
    return -1;
}

// The resident set in KiB, from /proc/self/statm (cheaper to read than status).
long residentKb() {
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f) return -1;
    long size = 0, resident = 0;
    int const read = std::fscanf(f, "%ld %ld", &size, &resident);
    std::fclose(f);
    return read == 2 ? resident * (::sysconf(_SC_PAGESIZE) / 1024) : -1;
}

// Bytes in use from malloc and from the small-block allocator.
std::size_t heapBytes() {
    struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd + Lumo::smallBlockBytesInUse();
}

// The writes made into the default Memtrail handle so far (the newest record's sequence).
std::uint64_t traceRecordsWritten() {
    Memtrail::Handle* h = Memtrail::defaultHandle();
    if (!h) return 0;
    std::uint64_t newest = 0;
    for (unsigned l = 0; l < Memtrail::kLevels; ++l) {
        auto const records = h->records(l);
        if (!records.empty()) newest = std::max(newest, records.back()->sequence());
    }
    return newest;
}

// Per figure, every timed repetition's value; printed as ROW lines (min, median) at exit.
struct Figures {
    std::map<std::string, std::vector<double>> values;
    void add(std::string const& name, double v) { values[name].push_back(v); }
    void print() const {
        for (auto const& [name, v] : values) {
            auto s = v;
            std::sort(s.begin(), s.end());
            std::printf("ROW\t%s\t%.1f\t%.1f\t%zu\n", name.c_str(), s.front(), s[s.size() / 2], s.size());
        }
    }
};
Figures& figures() {
    static Figures f;
    return f;
}

// ---- the module as a client sees it ----

// A handler that counts: the O(1) work a real one would queue.
class CountingHandler : public SyncContainerHandler {
public:
    static Lumo::Ptr<CountingHandler> make(std::string const& key) {
        Lumo::Ptr<CountingHandler> h(new CountingHandler(Lumo::String(key)));
        h->hasNotificationActiveIs(true);
        return h;
    }
    void containerIs(Lumo::Ptr<SyncContainer const> const&) const override { ++adds; }
    void containerDel(PathSubscribeConfig const&) const override { ++dels; }
    mutable std::uint64_t adds = 0, dels = 0;

private:
    explicit CountingHandler(Lumo::String key) : SyncContainerHandler(std::move(key)) {}
};

struct Client {
    Lumo::Ptr<Module> module = Module::get();
    Lumo::Ptr<PathSubscribeRequestDedupTable const> table = module->pathSubscribeRequestDedupTable();
    std::map<std::string, Lumo::Ptr<CountingHandler>> handlers;

    void registerHandler(std::string const& key) {
        if (handlers.count(key)) return;
        auto h = CountingHandler::make(key);
        handlers[key] = h;
        module->syncContainerHandlerRegistry()->syncContainerHandlerIs(h);
    }
    std::uint64_t inHandlers() const {
        std::uint64_t held = 0;
        for (auto const& [k, h] : handlers) held += h->adds - h->dels;
        return held;
    }
    // The sizes every table must have with `effective` subscriptions in force.
    void expectSizes(std::size_t effective, std::size_t agentDirs) const {
        CHECK(module->effectiveSubscribeConfig()->pathSubscribeConfig().size() == effective);
        CHECK(module->syncContainerStatus()->syncContainer().size() == effective);
        CHECK(module->subscribeStatus()->pathSubscribeStatus().size() == effective);
        CHECK(::Q7Sync::Service::instance().subscriptions() == effective);
        CHECK(module->remoteDir()->entities() == agentDirs);
        CHECK(inHandlers() == effective);
    }
};
Client& client() {
    static Client c;
    return c;
}

// One scenario at one N: inputs, release order and the held requests, made once.
struct Scenario {
    Scenario(bool conflict, std::uint32_t n) : conflict(conflict), n(n), inputs(makeInputs(conflict, n)), order(n), held(n), dups(n) {
        for (std::uint32_t i = 0; i < n; ++i) order[i] = i;
        std::shuffle(order.begin(), order.end(), std::mt19937(42));
        std::set<std::string> keys;
        for (auto const& in : inputs) keys.insert(in.key);
        for (auto const& k : keys) client().registerHandler(k);
    }
    bool const conflict;
    std::uint32_t const n;
    std::vector<Input> const inputs;
    std::vector<std::uint32_t> order;
    std::vector<Request> held, dups;
    bool warm = false;
    double heapPerSub = 0, rssPerSub = 0, coldNs = 0, tracesPerSub = 0;
};
Scenario& scenario(bool conflict, std::uint32_t n) {
    static std::map<std::pair<bool, std::uint32_t>, std::unique_ptr<Scenario>> all;
    auto& s = all[{conflict, n}];
    if (!s) s = std::make_unique<Scenario>(conflict, n);
    return *s;
}

// One repetition of the distinct scenario: fill, dedup hits, shuffled release. Returns the
// phase times in ns; the first one of a scenario also measures memory.
struct DistinctTimes { double subscribe, dedup, release; };
DistinctTimes distinctRep(Scenario& s, bool callgrind) {
    Client const& c = client();
    auto const table = c.table;
    std::size_t const agents = std::min<std::size_t>(s.n, kAgents);
    bool const first = !s.warm;
    long const rss0 = first ? procStatusKb("VmRSS") : 0;
    std::size_t const heap0 = first ? heapBytes() : 0;
    std::uint64_t const traces0 = first ? traceRecordsWritten() : 0;
    DistinctTimes t{};
    t.subscribe = timedNs(callgrind, "subscribe", [&] {
        for (std::uint32_t i = 0; i < s.n; ++i) s.held[i] = table->dedup(configOf(s.inputs[i]));
    });
    if (first) {
        s.heapPerSub = double(heapBytes() - heap0) / s.n;
        s.rssPerSub = double(procStatusKb("VmRSS") - rss0) * 1024.0 / s.n;
        s.coldNs = t.subscribe / s.n;
    }
    c.expectSizes(s.n, agents);
    t.dedup = timedNs(callgrind, "dedup", [&] {
        for (std::uint32_t i = 0; i < s.n; ++i) s.dups[i] = table->dedup(configOf(s.inputs[i]));
        for (std::uint32_t i = 0; i < s.n; ++i) s.dups[i] = nullptr;
    });
    CHECK(s.held[0] && s.held[0].ptr() == table->dedup(configOf(s.inputs[0])).ptr());
    t.release = timedNs(callgrind, "release", [&] {
        for (std::uint32_t i : s.order) s.held[i] = nullptr;
    });
    c.expectSizes(0, 0);
    if (first) s.tracesPerSub = double(traceRecordsWritten() - traces0) / s.n;
    s.warm = true;
    return t;
}

struct ConflictTimes { double subA, subB, relB, relA; };
ConflictTimes conflictRep(Scenario& s, bool callgrind) {
    Client const& c = client();
    auto const table = c.table;
    std::uint32_t const half = s.n / 2;
    std::size_t const agents = std::min<std::size_t>(half, kAgents);
    bool const first = !s.warm;
    long const rss0 = first ? procStatusKb("VmRSS") : 0;
    std::size_t const heap0 = first ? heapBytes() : 0;
    ConflictTimes t{};
    t.subA = timedNs(callgrind, "subscribeA", [&] {
        for (std::uint32_t i = 0; i < half; ++i) s.held[i] = table->dedup(configOf(s.inputs[i]));
    });
    c.expectSizes(half, agents);
    t.subB = timedNs(callgrind, "subscribeB", [&] {  // each B evicts its A
        for (std::uint32_t i = half; i < s.n; ++i) s.held[i] = table->dedup(configOf(s.inputs[i]));
    });
    c.expectSizes(0, 0);
    if (first) {
        s.heapPerSub = double(heapBytes() - heap0) / s.n;
        s.rssPerSub = double(procStatusKb("VmRSS") - rss0) * 1024.0 / s.n;
        s.coldNs = (t.subA + t.subB) / s.n;
    }
    t.relB = timedNs(callgrind, "releaseB", [&] {  // each A comes back
        for (std::uint32_t i : s.order)
            if (i >= half) s.held[i] = nullptr;
    });
    c.expectSizes(half, agents);
    t.relA = timedNs(callgrind, "releaseA", [&] {
        for (std::uint32_t i : s.order)
            if (i < half) s.held[i] = nullptr;
    });
    c.expectSizes(0, 0);
    s.warm = true;
    return t;
}

std::string at(char const* figure, std::uint32_t n) { return fmt::format("{}/{}", figure, n); }

// ---- the benchmarks ----

// The full lifecycle of N simultaneously active subscriptions, and dedup of held ones.
void BM_Distinct(benchmark::State& state, std::uint32_t n) {
    Scenario& s = scenario(false, n);
    if (!s.warm) distinctRep(s, false);  // warm-up: memory, cold subscribe
    for (auto _ : state) {
        DistinctTimes const t = distinctRep(s, false);
        state.SetIterationTime((t.subscribe + t.release) / 1e9);
        state.counters["lifecycle_ns"] = (t.subscribe + t.release) / n;
        state.counters["subscribe_ns"] = t.subscribe / n;
        state.counters["release_ns"] = t.release / n;
        state.counters["dedup_hit_ns"] = t.dedup / n;
        figures().add(at("distinct.lifecycle", n), (t.subscribe + t.release) / n);
        figures().add(at("distinct.subscribe", n), t.subscribe / n);
        figures().add(at("distinct.release", n), t.release / n);
        figures().add(at("distinct.dedup_hit", n), t.dedup / n);
    }
    state.counters["heap_B_per_sub"] = s.heapPerSub;
    state.counters["rss_B_per_sub"] = s.rssPerSub;
    state.counters["trace_records_per_sub"] = s.tracesPerSub;
    figures().values[at("distinct.heap_B_per_sub", n)] = {s.heapPerSub};
    figures().values[at("distinct.rss_B_per_sub", n)] = {s.rssPerSub};
    figures().values[at("distinct.cold_subscribe", n)] = {s.coldNs};
    figures().values[at("distinct.trace_records_per_sub", n)] = {s.tracesPerSub};
}

// N/2 conflicting pairs: each second request evicts the first, its release restores it.
void BM_Conflict(benchmark::State& state, std::uint32_t n) {
    Scenario& s = scenario(true, n);
    if (!s.warm) conflictRep(s, false);
    double const half = n / 2;
    for (auto _ : state) {
        ConflictTimes const t = conflictRep(s, false);
        double const total = t.subA + t.subB + t.relB + t.relA;
        state.SetIterationTime(total / 1e9);
        state.counters["lifecycle_ns"] = total / n;
        state.counters["evict_ns"] = t.subB / half;
        state.counters["restore_ns"] = t.relB / half;
        figures().add(at("conflict.lifecycle", n), total / n);
        figures().add(at("conflict.evict", n), t.subB / half);
        figures().add(at("conflict.restore", n), t.relB / half);
    }
    state.counters["heap_B_per_sub"] = s.heapPerSub;
    figures().values[at("conflict.heap_B_per_sub", n)] = {s.heapPerSub};
}

// Registering a handler for a key whose N containers are recorded (N agent directories, one
// container each): the replay visits that key's containers; registering one for a key without
// containers must not depend on N.
void BM_HandlerRegister(benchmark::State& state, std::uint32_t n) {
    Client& c = client();
    std::vector<Request> held(n);
    Wex::WexType const* type = Wex::wexTypeOf<SyncContainer>();
    for (std::uint32_t i = 0; i < n; ++i)
        held[i] = c.table->dedup(PathSubscribeConfig(agentAddr(i % kAgents), 6042 + i / kAgents,
                                                     Lumo::String("/sys/state/h"), Lumo::String("h"), type, Flags(1)));
    auto const& registry = c.module->syncContainerHandlerRegistry();
    for (auto _ : state) {
        auto const h = CountingHandler::make("h");
        auto const other = CountingHandler::make("g");
        double const keyNs = timedNs(false, "", [&] { registry->syncContainerHandlerIs(h); });
        CHECK(h->adds == n);
        // Registered and removed a thousand times: one call is too short for the clock.
        Lumo::String const otherKey("g");
        double const otherNs = timedNs(false, "", [&] {
                                   for (int i = 0; i < 1000; ++i) {
                                       registry->syncContainerHandlerIs(other);
                                       registry->syncContainerHandlerDel(otherKey);
                                   }
                               }) / 1000;
        CHECK(other->adds == 0);
        registry->syncContainerHandlerDel(Lumo::String("h"));
        CHECK(h->dels == n);
        state.SetIterationTime(keyNs / 1e9);
        state.counters["per_container_ns"] = keyNs / n;
        state.counters["other_key_ns"] = otherNs;
        figures().add(at("handler_register.per_container", n), keyNs / n);
        figures().add(at("handler_register.other_key", n), otherNs);
    }
    held.clear();
    c.expectSizes(0, 0);
}

// The show command's dump of N subscriptions, streamed into a pipe that a reader drains.
void BM_Dump(benchmark::State& state, std::uint32_t n) {
    Client& c = client();
    Scenario& s = scenario(false, n);
    for (std::uint32_t i = 0; i < n; ++i) s.held[i] = c.table->dedup(configOf(s.inputs[i]));
    Lumo::Ptr<Oru::TaskScheduler> scheduler(new Oru::TaskScheduler());
    scheduler->hasNotificationActiveIs(true);
    Lumo::Ptr<Agent::AsynchShowCommandAnchor> anchor(new Agent::AsynchShowCommandAnchor());
    anchor->hasNotificationActiveIs(true);
    anchor->callbackIs(showQ7SyncDebugCallbackFactory(anchor, scheduler));
    for (auto _ : state) {
        int fds[2];
        CHECK(::pipe(fds) == 0);
        long const rss0 = residentKb();
        std::atomic<std::uint64_t> bytes{0};
        std::atomic<long> peak{rss0};
        // Drains the pipe and samples the resident set every megabyte of text.
        std::thread reader([&] {
            static char buf[1 << 16];
            std::uint64_t total = 0, sampled = 0;
            long highest = rss0;
            for (ssize_t r; (r = ::read(fds[0], buf, sizeof buf)) > 0;) {
                total += std::uint64_t(r);
                if (total - sampled >= (1u << 20)) {
                    sampled = total;
                    highest = std::max(highest, residentKb());
                }
            }
            bytes = total;
            peak = highest;
        });
        double const ns = timedNs(false, "", [&] {
            CHECK(anchor->run(ShowQ7SyncDebugCallback::kCommandName, fds[1]));
            scheduler->runPending();
        });
        ::close(fds[1]);
        reader.join();
        ::close(fds[0]);
        double const mbps = double(bytes) / 1e6 / (ns / 1e9);
        state.SetIterationTime(ns / 1e9);
        state.counters["MB_per_s"] = mbps;
        state.counters["text_MB"] = double(bytes) / 1e6;
        state.counters["peak_rss_growth_MB"] = double(peak.load() - rss0) / 1024.0;
        figures().add(at("dump.MB_per_s", n), mbps);
        figures().add(at("dump.text_MB", n), double(bytes) / 1e6);
        // The first dump's growth: later ones reuse the memory the first gave back to the heap.
        auto& growth = figures().values[at("dump.peak_rss_growth_MB", n)];
        growth = {std::max(growth.empty() ? 0.0 : growth[0], double(peak.load() - rss0) / 1024.0)};
    }
    anchor->callbackDel(Lumo::String(ShowQ7SyncDebugCallback::kCommandName));
    for (auto& h : s.held) h = nullptr;
    c.expectSizes(0, 0);
}

// Module::get on the warm path, beside the copy of a counted pointer to the module.
void BM_ModuleGet(benchmark::State& state) {
    Module::get();
    for (auto _ : state) {
        Lumo::Ptr<Module> m = Module::get();
        benchmark::DoNotOptimize(m.ptr());
    }
}
void BM_ModulePtrCopy(benchmark::State& state) {
    Lumo::Ptr<Module> const held = Module::get();
    for (auto _ : state) {
        Lumo::Ptr<Module> m = held;
        benchmark::DoNotOptimize(m.ptr());
    }
}

// A trace point of the kind on the subscription paths: off for its handle (the Memtrail
// record only), on (formatted to a sink that drops it), and with no Memtrail handle at all.
Wex::TraceHandle& benchTrace() {
    static Wex::TraceHandle h("Q7Bench", false);
    return h;
}
void BM_TracePoint(benchmark::State& state, int mode) {
    Lumo::String const uri("/q7/remote/10.20.0.1:6042/c0/syncAttribute");
    Memtrail::Handle* const saved = Memtrail::defaultHandle();
    if (mode == 2) Memtrail::defaultHandleIs(nullptr);
    if (mode == 1) {
        Wex::TraceHandle::sinkIs([](std::string_view line) { benchmark::DoNotOptimize(line.data()); });
        benchTrace().levelIs(1, true);
    }
    for (auto _ : state) WEX_TRACE(benchTrace(), 1, "SyncContainerSm", "localUri {}", uri);
    benchTrace().levelIs(1, false);
    Memtrail::defaultHandleIs(saved);
}

std::uint32_t const kSizes[] = {1000, 10000, 100000, 1000000};

// As many timed repetitions as the reference makes at each N.
int repetitions(std::uint32_t n) { return std::clamp<int>(int(2'000'000 / n), 5, 31); }

void registerAll() {
    for (std::uint32_t n : kSizes) {
        benchmark::RegisterBenchmark(fmt::format("distinct/{}", n).c_str(), BM_Distinct, n)
            ->Iterations(1)->Repetitions(repetitions(n))->UseManualTime()->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(fmt::format("conflict/{}", n).c_str(), BM_Conflict, n)
            ->Iterations(1)->Repetitions(repetitions(n))->UseManualTime()->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(fmt::format("handler_register/{}", n).c_str(), BM_HandlerRegister, n)
            ->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(fmt::format("dump/{}", n).c_str(), BM_Dump, n)
            ->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("module_get", BM_ModuleGet);
    benchmark::RegisterBenchmark("module_ptr_copy", BM_ModulePtrCopy);
    benchmark::RegisterBenchmark("trace_point/off", BM_TracePoint, 0);
    benchmark::RegisterBenchmark("trace_point/on", BM_TracePoint, 1);
    benchmark::RegisterBenchmark("trace_point/no_memtrail", BM_TracePoint, 2);
}

// Plain-figure benchmarks (Google Benchmark's own timing) report their ns per iteration.
class RowReporter : public benchmark::ConsoleReporter {
public:
    RowReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(std::vector<Run> const& runs) override {
        for (Run const& r : runs)
            if (r.iterations > 1 && r.run_type == Run::RT_Iteration)
                figures().add(r.benchmark_name(), r.GetAdjustedRealTime());
        ConsoleReporter::ReportRuns(runs);
    }
};

int callgrindMain(char const* scenarioName, std::uint32_t n) {
    bool const conflict = std::string_view(scenarioName) == "conflict";
    Scenario& s = scenario(conflict, n);
    if (conflict) {
        conflictRep(s, false);
        conflictRep(s, true);
    } else {
        distinctRep(s, false);
        distinctRep(s, true);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string_view(argv[1]) == "--callgrind") return callgrindMain(argv[2], std::uint32_t(std::atol(argv[3])));
    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RowReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    figures().print();
    return 0;
}
