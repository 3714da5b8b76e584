// The host's command interpreter: one line, one command, on the module's public API.
#pragma once

#include <cstdio>
#include <istream>
#include <map>
#include <string>
#include <string_view>

#include "Agent/ShowCommand.h"
#include "KelLib/Q7SyncModule.h"
#include "Oru/TaskScheduler.h"
#include "PrintingHandler.h"

namespace Q7Agent {

class Shell {
public:
    explicit Shell(std::FILE* out);
    ~Shell();

    // Runs one command line. Returns false when it asks to quit. Bad commands print one line
    // "error: ..." with the command's usage and change nothing; nothing here throws.
    bool execute(std::string_view line);
    // Runs every line of `in` until it ends or a line quits; with a prompt when interactive.
    // Returns the number of lines that failed.
    int run(std::istream& in, bool interactive);

    std::size_t requests() const noexcept { return requests_.size(); }

private:
    struct Command;
    static std::map<std::string, Command, std::less<>> const& commands();
    void runShowCommand(std::string_view name);

    std::FILE* out_;
    Lumo::Ptr<Kel::Q7Sync::Module> module_;
    Lumo::Ptr<Oru::TaskScheduler> scheduler_;
    Lumo::Ptr<Agent::AsynchShowCommandAnchor> anchor_;
    // Requests the host holds for its users, by the id it printed.
    std::map<unsigned, Lumo::Ptr<Kel::Q7Sync::PathSubscribeRequest const>> requests_;
    // Handlers the host registered, by key; withdrawn from the module when the host goes.
    std::map<std::string, Lumo::Ptr<PrintingHandler const>> handlers_;
    // The current command's arguments as written.
    std::string arguments_;
    unsigned nextId_ = 1;
    int failures_ = 0;
    bool quit_ = false;
};

} // namespace Q7Agent
