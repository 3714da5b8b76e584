// show: runs a show command of the agent.
#include "host/Command.h"

#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace Q7Agent {
namespace {

class ShowCommand : public Command {
public:
    void run(Host& host) override {
        if (!host.showCommandRun(name_))
            throw CLI::ValidationError("command", fmt::format("no show command '{}'", name_));
    }

protected:
    void bind(CLI::App& app) override { app.add_option("command", name_)->required(); }

private:
    std::string name_;
};

CommandRegistrar<ShowCommand> const registrar(
    "show", "show COMMAND", "run a show command of the agent (dumpStateQ7SyncModule, dumpStateQ7SyncService)");

} // namespace
} // namespace Q7Agent
