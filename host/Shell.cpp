// The host's commands, each parsed with CLI11 from one line.
#include "Shell.h"

#include <unistd.h>

#include <functional>
#include <iostream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "KelLib/ShowQ7SyncDebugCallback.h"
#include "Memtrail/Memtrail.h"
#include "Q7Sync/Service.h"
#include "Wex/Trace.h"

namespace Q7Agent {

using Kel::Q7Sync::ListenConfig;
using Kel::Q7Sync::PathSubscribeConfig;

namespace {

Kivu::IpGenAddr address(std::string const& text) {
    auto a = Kivu::IpGenAddr::fromString(text);
    if (!a) throw CLI::ValidationError("address", fmt::format("'{}' is not an IPv4 or IPv6 address", text));
    return *a;
}

Q7Sync::WexUtils::SyncRequestFlags flags(std::string const& text) {
    Wex::CharRange r(text);
    auto f = Q7Sync::sequenceToValue(r);
    r.checkAllDataConsumed("flags");
    return f;
}

Q7Serdes::WexUtils::SyncStatusEnum syncStatus(std::string const& text) {
    using S = Q7Serdes::WexUtils::SyncStatusEnum;
    for (S s : {S::notConnected, S::connecting, S::syncing, S::inSync, S::failed})
        if (valueToStrep(s) == text) return s;
    throw CLI::ValidationError("status", fmt::format("'{}' is not one of notConnected, connecting, syncing, inSync, failed", text));
}

} // namespace

// A command: its usage line, and how it reads its arguments into an action.
struct Shell::Command {
    char const* usage;
    char const* help;
    std::function<std::function<void()>(Shell&, CLI::App&)> define;
    // Takes the rest of the line as it stands, quotes and all, unparsed.
    bool verbatim = false;
};

std::map<std::string, Shell::Command, std::less<>> const& Shell::commands() {
    static std::map<std::string, Command, std::less<>> const table = {
        {"listen", {"listen ADDRESS PORT | listen off", "open the sync service's listening endpoint, or close it",
                    [](Shell& s, CLI::App& app) {
                        auto a = std::make_shared<std::pair<std::string, std::uint16_t>>();
                        app.add_option("address", a->first)->required();
                        CLI::Option* port = app.add_option("port", a->second);
                        return [&s, a, port] {
                            bool const off = a->first == "off";
                            if (off && port->count())
                                throw CLI::ValidationError("port", "'listen off' takes no port");
                            if (!off && !port->count()) throw CLI::RequiredError("port");
                            ListenConfig cfg = off ? ListenConfig() : ListenConfig(address(a->first), a->second);
                            s.module_->listen(cfg);
                            auto st = s.module_->listenStatus()->listenConfigStatus();
                            if (!st) {
                                fmt::print(s.out_, "  no endpoint open\n");
                            } else if (!st->q7ListenStatus()) {
                                fmt::print(s.out_, "  endpoint {} open without status\n", valueToStrep(st->listenConfig()));
                            } else {
                                auto const& ls = *st->q7ListenStatus();
                                std::string const host = st->listenConfig().hostAddr().stringValue();
                                fmt::print(s.out_, "  listening: {}{}{}\n", ls.listening(),
                                           ls.listening() ? fmt::format(" on port {}", Q7Sync::Service::instance().boundPort(host, st->listenConfig().port())) : "",
                                           ls.reason().empty() ? "" : fmt::format(" ({})", ls.reason()));
                            }
                        };
                    }}},
        {"subscribe", {"subscribe ADDRESS PORT PATH KEY [--type TYPE] [--flags FLAGS]",
                       "ask for a remote path; prints the id of the request the host holds",
                       [](Shell& s, CLI::App& app) {
                           struct Args { std::string addr, path, key, type = "Q7Agent::StateContainer", flags = "NONE"; std::uint16_t port = 0; };
                           auto a = std::make_shared<Args>();
                           app.add_option("address", a->addr)->required();
                           app.add_option("port", a->port)->required();
                           app.add_option("path", a->path)->required();
                           app.add_option("key", a->key)->required();
                           app.add_option("--type", a->type);
                           app.add_option("--flags", a->flags);
                           return [&s, a] {
                               auto cfg = PathSubscribeConfig::createWithContainerTypeString(
                                   address(a->addr), a->port, Lumo::String(a->path), Lumo::String(a->key), a->type, flags(a->flags));
                               auto request = s.module_->pathSubscribeRequestDedupTable()->dedup(cfg);
                               unsigned const id = s.nextId_++;
                               s.requests_.emplace(id, request);
                               fmt::print(s.out_, "  request {} for {} -> {}\n", id, cfg.remoteUri(), cfg.localUri());
                           };
                       }}},
        {"release", {"release ID", "let go of a request the host holds",
                     [](Shell& s, CLI::App& app) {
                         auto id = std::make_shared<unsigned>();
                         app.add_option("id", *id)->required();
                         return [&s, id] {
                             auto it = s.requests_.find(*id);
                             if (it == s.requests_.end()) throw CLI::ValidationError("id", fmt::format("no request {}", *id));
                             auto request = std::move(it->second);
                             s.requests_.erase(it);
                             fmt::print(s.out_, "  released request {}\n", *id);
                             request = nullptr;  // the last holder's release ends the subscription
                         };
                     }}},
        {"handler", {"handler add|del KEY", "register or remove a printing container handler for a key",
                     [](Shell& s, CLI::App& app) {
                         auto a = std::make_shared<std::pair<std::string, std::string>>();
                         app.add_option("action", a->first)->required()->check(CLI::IsMember({"add", "del"}));
                         app.add_option("key", a->second)->required();
                         return [&s, a] {
                             auto registry = s.module_->syncContainerHandlerRegistry();
                             if (a->first == "add") {
                                 fmt::print(s.out_, "  handler '{}' registered\n", a->second);
                                 Lumo::Ptr<PrintingHandler const> handler(new PrintingHandler(Lumo::String(a->second), s.out_));
                                 s.handlers_[a->second] = handler;
                                 registry->syncContainerHandlerIs(handler);
                             } else if (!registry->syncContainerHandler(Lumo::String(a->second))) {
                                 fmt::print(s.out_, "  no handler for '{}'\n", a->second);
                             } else {
                                 // Said first, as the handler is told of its containers while it goes.
                                 fmt::print(s.out_, "  handler '{}' removed\n", a->second);
                                 registry->syncContainerHandlerDel(Lumo::String(a->second));
                                 s.handlers_.erase(a->second);
                             }
                         };
                     }}},
        {"status", {"status REMOTE_URI STATUS [REASON]", "change a subscription's status in the sync service",
                    [](Shell&, CLI::App& app) {
                        auto a = std::make_shared<std::array<std::string, 3>>();
                        app.add_option("remoteUri", (*a)[0])->required();
                        app.add_option("status", (*a)[1])->required();
                        app.add_option("reason", (*a)[2]);
                        return [a] {
                            auto st = syncStatus((*a)[1]);
                            if (!Q7Sync::Service::instance().syncStatusIs((*a)[0], st, Lumo::String((*a)[2])))
                                throw CLI::ValidationError("remoteUri", fmt::format("'{}' is not subscribed", (*a)[0]));
                        };
                    }}},
        {"listening", {"listening ADDRESS PORT true|false [REASON]", "change an endpoint's listening state in the sync service",
                       [](Shell&, CLI::App& app) {
                           struct Args { std::string addr, reason; std::uint16_t port = 0; bool on = false; };
                           auto a = std::make_shared<Args>();
                           app.add_option("address", a->addr)->required();
                           app.add_option("port", a->port)->required();
                           app.add_option("listening", a->on)->required();
                           app.add_option("reason", a->reason);
                           return [a] {
                               if (!Q7Sync::Service::instance().listeningIs(a->addr, a->port, a->on, Lumo::String(a->reason)))
                                   throw CLI::ValidationError("address", fmt::format("no endpoint {} {}", a->addr, a->port));
                           };
                       }}},
        {"trace", {"trace HANDLE LEVEL... [--off]", "switch trace levels (0 to 9) of a handle on or off",
                   [](Shell& s, CLI::App& app) {
                       struct Args { std::string handle; std::vector<unsigned> levels; bool off = false; };
                       auto a = std::make_shared<Args>();
                       app.add_option("handle", a->handle)->required();
                       app.add_option("levels", a->levels)->required()->check(CLI::Range(0u, 9u));
                       app.add_flag("--off", a->off);
                       return [&s, a] {
                           for (unsigned l : a->levels) Wex::TraceHandle::levelIs(a->handle, l, !a->off);
                           fmt::print(s.out_, "  {} levels {} {}\n", a->handle, fmt::join(a->levels, " "), a->off ? "off" : "on");
                       };
                   }}},
        {"memtrail", {"memtrail [LEVEL]", "print the trace records kept in memory (all levels, or one)",
                      [](Shell& s, CLI::App& app) {
                          auto level = std::make_shared<int>(-1);
                          app.add_option("level", *level)->check(CLI::Range(0, 9));
                          return [&s, level] {
                              auto* h = Memtrail::defaultHandle();
                              if (!h) return;
                              auto recs = *level < 0 ? h->records() : h->records(unsigned(*level));
                              for (auto const* r : recs) fmt::print(s.out_, "  {}\n", r->text());
                              fmt::print(s.out_, "  ({} records)\n", recs.size());
                          };
                      }}},
        {"show", {"show COMMAND", "run a show command of the agent (dumpStateQ7SyncModule)",
                  [](Shell& s, CLI::App& app) {
                      auto name = std::make_shared<std::string>();
                      app.add_option("command", *name)->required();
                      return [&s, name] { s.runShowCommand(*name); };
                  }}},
        {"echo", {"echo TEXT...", "print a line (for scripts)",
                  [](Shell& s, CLI::App&) {
                      return [&s] { fmt::print(s.out_, "\n== {}\n", s.arguments_); };
                  },
                  true}},
        {"help", {"help", "list the commands",
                  [](Shell& s, CLI::App&) {
                      return [&s] {
                          for (auto const& [name, c] : commands()) fmt::print(s.out_, "  {:58} {}\n", c.usage, c.help);
                      };
                  }}},
        {"quit", {"quit", "leave the host",
                  [](Shell& s, CLI::App&) { return [&s] { s.quit_ = true; }; }}},
    };
    return table;
}

Shell::Shell(std::FILE* out)
    : out_(out), module_(Kel::Q7Sync::Module::get()), scheduler_(new Oru::TaskScheduler()),
      anchor_(new Agent::AsynchShowCommandAnchor()) {
    scheduler_->hasNotificationActiveIs(true);
    anchor_->hasNotificationActiveIs(true);
    anchor_->callbackIs(Kel::Q7Sync::showQ7SyncDebugCallbackFactory(anchor_, scheduler_));
}

Shell::~Shell() {
    requests_.clear();
    // Its handlers print to out_, which may not outlive the host; the module must not keep them.
    auto const& registry = module_->syncContainerHandlerRegistry();
    for (auto const& [key, handler] : handlers_)
        if (registry->syncContainerHandler(Lumo::String(key)) == handler) registry->syncContainerHandlerDel(Lumo::String(key));
    handlers_.clear();
    while (!anchor_->callbacks().empty()) anchor_->callbackDel((*anchor_->callbacks().begin())->name());
}

void Shell::runShowCommand(std::string_view name) {
    std::fflush(out_);
    if (!anchor_->run(name, ::fileno(out_)))
        throw CLI::ValidationError("command", fmt::format("no show command '{}'", name));
    scheduler_->runPending();
}

bool Shell::execute(std::string_view line) {
    std::string text(line);
    if (auto hash = text.find('#'); hash != std::string::npos) text.erase(hash);
    auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return true;
    text.erase(0, first);
    std::string const name = text.substr(0, text.find_first_of(" \t"));
    auto it = commands().find(name);
    if (it == commands().end()) {
        fmt::print(out_, "error: unknown command '{}'; usage: help\n", name);
        ++failures_;
        return true;
    }
    std::string const rest = text.substr(name.size());
    auto const from = rest.find_first_not_of(" \t");
    auto const to = rest.find_last_not_of(" \t\r");
    arguments_ = from == std::string::npos ? std::string() : rest.substr(from, to + 1 - from);
    try {
        CLI::App app(it->second.help, name);
        app.set_help_flag();  // "-h" is not an option of any command
        std::function<void()> action = it->second.define(*this, app);
        if (!it->second.verbatim) app.parse(rest, false);
        action();
    } catch (std::exception const& e) {
        fmt::print(out_, "error: {}; usage: {}\n", e.what(), it->second.usage);
        ++failures_;
    } catch (...) {
        fmt::print(out_, "error: unexpected failure; usage: {}\n", it->second.usage);
        ++failures_;
    }
    std::fflush(out_);
    return !quit_;
}

int Shell::run(std::istream& in, bool interactive) {
    std::string line;
    for (;;) {
        if (interactive) {
            fmt::print(out_, "q7agent> ");
            std::fflush(out_);
        }
        if (!std::getline(in, line)) break;
        // A script's commands are shown before their output; its comments and echoes are not.
        auto const first = line.find_first_not_of(" \t\r");
        if (!interactive && first != std::string::npos && line[first] != '#' &&
            line.compare(first, line.find_first_of(" \t\r", first) - first, "echo") != 0)
            fmt::print(out_, "> {}\n", line);
        if (!execute(line)) break;
    }
    return failures_;
}

} // namespace Q7Agent
