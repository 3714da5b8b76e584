// trace: switches trace levels of a handle on or off.
#include "host/Command.h"

#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Wex/Trace.h"

namespace Q7Agent {
namespace {

class TraceCommand : public Command {
public:
    void run(Host& host) override {
        for (unsigned l : levels_) Wex::TraceHandle::levelIs(handle_, l, !off_);
        fmt::print(host.out(), "  {} levels {} {}\n", handle_, fmt::join(levels_, " "), off_ ? "off" : "on");
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("handle", handle_)->required();
        app.add_option("levels", levels_)->required()->check(CLI::Range(0u, 9u));
        app.add_flag("--off", off_);
    }

private:
    std::string handle_;
    std::vector<unsigned> levels_;
    bool off_ = false;
};

CommandRegistrar<TraceCommand> const registrar("trace", "trace HANDLE LEVEL... [--off]",
                                               "switch trace levels (0 to 9) of a handle on or off");

} // namespace
} // namespace Q7Agent
