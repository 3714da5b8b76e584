// memtrail: prints the trace records kept in memory.
#include "host/Command.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Memtrail/Memtrail.h"

namespace Q7Agent {
namespace {

class MemtrailCommand : public Command {
public:
    void run(Host& host) override {
        auto* h = Memtrail::defaultHandle();
        if (!h) return;
        auto recs = level_ < 0 ? h->records() : h->records(unsigned(level_));
        for (auto const* r : recs) fmt::print(host.out(), "  {}\n", r->text());
        fmt::print(host.out(), "  ({} records)\n", recs.size());
    }

protected:
    void bind(CLI::App& app) override { app.add_option("level", level_)->check(CLI::Range(0, 9)); }

private:
    int level_ = -1;  // all levels
};

CommandRegistrar<MemtrailCommand> const registrar("memtrail", "memtrail [LEVEL]",
                                                  "print the trace records kept in memory (all levels, or one)");

} // namespace
} // namespace Q7Agent
