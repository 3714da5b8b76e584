// The host's interpreter: finds each line's command in the registry, parses it with CLI11 and runs it.
#include "Shell.h"

#include <exception>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Command.h"

namespace Q7Agent {

bool Shell::execute(std::string_view line) {
    std::string text(line);
    if (auto hash = text.find('#'); hash != std::string::npos) text.erase(hash);
    auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return true;
    text.erase(0, first);
    std::string const name = text.substr(0, text.find_first_of(" \t"));
    auto it = commands().find(name);
    std::FILE* out = host_.out();
    if (it == commands().end()) {
        fmt::print(out, "error: unknown command '{}'; usage: help\n", name);
        ++failures_;
        return true;
    }
    CommandEntry const& entry = it->second;
    try {
        CLI::App app(std::string(entry.help), name);
        app.set_help_flag();  // "-h" is not an option of any command
        auto command = entry.make();
        command->parse(app, text.substr(name.size()));
        command->run(host_);
    } catch (Failed const&) {
        ++failures_;
    } catch (std::exception const& e) {
        fmt::print(out, "error: {}; usage: {}\n", e.what(), entry.usage);
        ++failures_;
    } catch (...) {
        fmt::print(out, "error: unexpected failure; usage: {}\n", entry.usage);
        ++failures_;
    }
    std::fflush(out);
    return !host_.quitting();
}

} // namespace Q7Agent
