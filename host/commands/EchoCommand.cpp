// echo: prints its line as written, for scripts to say what comes next.
#include "host/Command.h"

#include <string>

#include <fmt/format.h>

namespace Q7Agent {
namespace {

class EchoCommand : public Command {
public:
    // Takes the rest of the line as it stands, quotes and all, unparsed.
    void parse(CLI::App&, std::string const& arguments) override {
        auto const from = arguments.find_first_not_of(" \t");
        auto const to = arguments.find_last_not_of(" \t\r");
        if (from != std::string::npos) text_ = arguments.substr(from, to + 1 - from);
    }
    void run(Host& host) override { fmt::print(host.out(), "\n== {}\n", text_); }

private:
    std::string text_;
};

CommandRegistrar<EchoCommand> const registrar("echo", "echo TEXT...", "print a line (for scripts)");

} // namespace
} // namespace Q7Agent
