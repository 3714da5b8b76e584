// Command: the default parsing, the address argument, and the registry.
#include "Command.h"

#include <stdexcept>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Wex/CharRange.h"

namespace Q7Agent {

namespace {
// Function-local, so that registrars in any file may fill it whatever the order of static
// initialisation.
CommandTable& table() {
    static CommandTable commands;
    return commands;
}
} // namespace

void Command::parse(CLI::App& app, std::string const& arguments) {
    bind(app);
    app.parse(arguments, false);
}

void Command::bind(CLI::App&) {}

Kivu::IpGenAddr Command::address(std::string const& text) {
    auto a = Kivu::IpGenAddr::fromString(text);
    if (!a) throw CLI::ValidationError("address", fmt::format("'{}' is not an IPv4 or IPv6 address", text));
    return *a;
}

Q7Sync::WexUtils::SyncRequestFlags Command::flags(std::string const& text) {
    Wex::CharRange r(text);
    auto f = Q7Sync::sequenceToValue(r);
    r.checkAllDataConsumed("flags");
    return f;
}

CommandTable const& commands() { return table(); }

void commandIs(std::string name, CommandEntry entry) {
    if (!table().emplace(name, entry).second)
        throw std::logic_error(fmt::format("command '{}' registered twice", name));
}

} // namespace Q7Agent
