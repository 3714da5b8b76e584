// help: lists the commands, by name.
#include "host/Command.h"

#include <fmt/format.h>

namespace Q7Agent {
namespace {

class HelpCommand : public Command {
public:
    void run(Host& host) override {
        for (auto const& [name, c] : commands()) fmt::print(host.out(), "  {:58} {}\n", c.usage, c.help);
    }
};

CommandRegistrar<HelpCommand> const registrar("help", "help", "list the commands");

} // namespace
} // namespace Q7Agent
