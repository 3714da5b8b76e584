// Wex tracing: handle registry, level settings by name, and the sink.
#include "Wex/Trace.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

namespace Wex {

namespace {
struct TraceRegistry {
    std::vector<TraceHandle*> handles;
    std::map<std::string, std::bitset<10>, std::less<>> wanted;
    TraceHandle::Sink sink = [](std::string_view line) { std::fprintf(stderr, "%.*s\n", int(line.size()), line.data()); };
};
TraceRegistry& traceRegistry() {
    static TraceRegistry r;
    return r;
}
} // namespace

TraceHandle::TraceHandle(char const* name, bool allLevelsOn) : name_(name) {
    auto& r = traceRegistry();
    if (allLevelsOn) levels_.set();
    if (auto it = r.wanted.find(std::string_view(name)); it != r.wanted.end()) levels_ |= it->second;
    r.handles.push_back(this);
}

TraceHandle::~TraceHandle() {
    auto& h = traceRegistry().handles;
    h.erase(std::remove(h.begin(), h.end(), this), h.end());
}

void TraceHandle::levelIs(unsigned level, bool on) noexcept {
    if (level < 10) levels_.set(level, on);
}

bool TraceHandle::levelIs(std::string_view handleName, unsigned level, bool on) {
    if (level >= 10) return false;
    auto& r = traceRegistry();
    auto it = r.wanted.find(handleName);
    if (it == r.wanted.end()) it = r.wanted.emplace(std::string(handleName), std::bitset<10>()).first;
    it->second.set(level, on);
    for (TraceHandle* h : r.handles)
        if (handleName == h->name_) h->levelIs(level, on);
    return true;
}

void TraceHandle::sinkIs(Sink sink) { traceRegistry().sink = std::move(sink); }

void TraceHandle::emit(unsigned level, char const* cls, char const* func, std::string const& message) const {
    auto const& sink = traceRegistry().sink;
    if (sink) sink(fmt::format("{}[{}] {}::{}: {}", name_, level, cls, func, message));
}

} // namespace Wex
