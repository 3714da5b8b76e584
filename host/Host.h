// The agent host's state that its commands act on: the module, what the host holds in it, its output.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <string_view>

#include "Agent/ShowCommand.h"
#include "KelLib/Q7SyncModule.h"
#include "Oru/TaskScheduler.h"
#include "PrintingHandler.h"

namespace Q7Agent {

class Host {
public:
    explicit Host(std::FILE* out);
    // Lets go of its requests and withdraws its handlers: they print to out, which may not
    // outlive the host.
    ~Host();
    Host(Host const&) = delete;
    Host& operator=(Host const&) = delete;

    std::FILE* out() const noexcept { return out_; }
    Kel::Q7Sync::Module& module() const noexcept { return *module_; }

    // Holds a request for the host's users; returns the id it is held by.
    unsigned requestIs(Lumo::Ptr<Kel::Q7Sync::PathSubscribeRequest const> request);
    // Stops holding request `id` and hands it over (null if there is none), so that the caller
    // decides when the last holder lets go and the subscription ends.
    Lumo::Ptr<Kel::Q7Sync::PathSubscribeRequest const> requestDel(unsigned id);
    std::size_t requests() const noexcept { return requests_.size(); }

    // Registers a printing handler for `key` with the module, in place of any other.
    void handlerIs(std::string const& key);
    // Withdraws the module's handler for `key`, the host's or not.
    void handlerDel(std::string const& key);

    // Runs show command `name` of the agent onto out. False, having printed nothing, when
    // there is no such command.
    bool showCommandRun(std::string_view name);

    bool quitting() const noexcept { return quitting_; }
    void quittingIs(bool quitting) noexcept { quitting_ = quitting; }

private:
    std::FILE* out_;
    Lumo::Ptr<Kel::Q7Sync::Module> module_;
    Lumo::Ptr<Oru::TaskScheduler> scheduler_;
    Lumo::Ptr<Agent::AsynchShowCommandAnchor> anchor_;
    // Requests the host holds for its users, by the id it printed.
    std::map<unsigned, Lumo::Ptr<Kel::Q7Sync::PathSubscribeRequest const>> requests_;
    // Handlers the host registered, by key; withdrawn from the module when the host goes.
    std::map<std::string, Lumo::Ptr<PrintingHandler const>> handlers_;
    unsigned nextId_ = 1;
    bool quitting_ = false;
};

} // namespace Q7Agent
