// The host's commands: the base each derives from, and the registry that lists them by name.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Host.h"
#include "Kivu/IpGenAddr.h"
#include "Q7Sync/Flags.h"

namespace CLI {
class App;
}

namespace Q7Agent {

// One command line's command: reads its arguments into its own members, then acts on the host.
// Each command is made afresh for its line.
class Command {
public:
    virtual ~Command() = default;

    // Reads the arguments, the rest of the line after the command's name. By default `app`
    // parses them with the options bind() declares. Throws with what does not fit.
    virtual void parse(CLI::App& app, std::string const& arguments);
    // Acts on the host. Throws, having changed nothing, when the arguments do not fit it.
    virtual void run(Host& host) = 0;

protected:
    // Declares the command's arguments on `app`, each bound to a member.
    virtual void bind(CLI::App& app);
    // An IPv4 or IPv6 address, or a usage error naming the argument.
    static Kivu::IpGenAddr address(std::string const& text);
    // Request flags in their text form ("WRITE|RELIABLE", "NONE"); other text is refused.
    static Q7Sync::WexUtils::SyncRequestFlags flags(std::string const& text);
};

// Thrown by a command that has already said why it failed (a wait that timed out): the line
// counts as failed, and nothing more is printed.
class Failed : public std::runtime_error {
public:
    Failed() : std::runtime_error("failed") {}
};

// What the registry knows of a command.
struct CommandEntry {
    std::string_view usage;
    std::string_view help;
    std::unique_ptr<Command> (*make)();
};
using CommandTable = std::map<std::string, CommandEntry, std::less<>>;

// Every command linked into the program, by name.
CommandTable const& commands();
// Adds a command; a second one by the same name is a fault of the program.
void commandIs(std::string name, CommandEntry entry);

// Registers command C at load. One per command file:
//   CommandRegistrar<ListenCommand> const registrar("listen", "listen ADDRESS PORT", "open ...");
template <class C>
class CommandRegistrar {
public:
    CommandRegistrar(std::string name, std::string_view usage, std::string_view help) {
        commandIs(std::move(name), {usage, help, []() -> std::unique_ptr<Command> { return std::make_unique<C>(); }});
    }
};

} // namespace Q7Agent
