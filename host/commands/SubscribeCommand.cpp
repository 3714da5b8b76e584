// subscribe and writesync: ask the module for a subscription and hold the request for the
// host's users.
#include "host/Command.h"

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Wex/Type.h"

namespace Q7Agent {
namespace {

// What both take: the remote agent, the container's key and type, the flags.
class RequestCommand : public Command {
protected:
    explicit RequestCommand(char const* flags) : flags_(flags) {}

    void hold(Host& host, Kel::Q7Sync::PathSubscribeConfig const& cfg) {
        unsigned const id = host.requestIs(host.module().pathSubscribeRequestDedupTable()->dedup(cfg));
        fmt::print(host.out(), "  request {} for {} -> {}\n", id, cfg.remoteUri(), cfg.localUri());
    }
    void bindAgent(CLI::App& app) {
        app.add_option("address", address_)->required();
        app.add_option("port", port_)->required();
    }
    void bindContainer(CLI::App& app) {
        app.add_option("key", key_)->required();
        app.add_option("--type", type_);
        app.add_option("--flags", flags_);
    }

    std::string address_, key_, type_ = "Q7Agent::StateContainer", flags_;
    std::uint16_t port_ = 0;
};

class SubscribeCommand : public RequestCommand {
public:
    SubscribeCommand() : RequestCommand("NONE") {}
    void run(Host& host) override {
        hold(host, Kel::Q7Sync::PathSubscribeConfig::createWithContainerTypeString(
                       address(address_), port_, Lumo::String(path_), Lumo::String(key_), type_, flags(flags_)));
    }

protected:
    void bind(CLI::App& app) override {
        bindAgent(app);
        app.add_option("path", path_)->required();
        bindContainer(app);
    }

private:
    std::string path_;
};

class WriteSyncCommand : public RequestCommand {
public:
    WriteSyncCommand() : RequestCommand("WRITE") {}
    void run(Host& host) override {
        auto const f = flags(flags_);
        // Refused here rather than by the module, so that the error names the option.
        if (!Q7Sync::WexUtils::has(f, Q7Sync::WexUtils::WRITE()))
            throw CLI::ValidationError("--flags", fmt::format("'{}' lacks WRITE, which a write-sync request needs", flags_));
        Wex::WexType const* type = Wex::typeNode(type_);
        if (!type) throw CLI::ValidationError("--type", fmt::format("'{}' names no registered type", type_));
        hold(host, Kel::Q7Sync::PathSubscribeConfig::createWriteSyncConfig(address(address_), Kivu::Port(port_),
                                                                          Lumo::String(key_), type, f));
    }

protected:
    void bind(CLI::App& app) override {
        bindAgent(app);
        bindContainer(app);
    }
};

CommandRegistrar<SubscribeCommand> const subscribe(
    "subscribe", "subscribe ADDRESS PORT PATH KEY [--type TYPE] [--flags FLAGS]",
    "ask for a remote path; prints the id of the request the host holds");
CommandRegistrar<WriteSyncCommand> const writeSync(
    "writesync", "writesync ADDRESS PORT KEY [--type TYPE] [--flags FLAGS]",
    "push the local container's syncAttribute to the remote agent's /q7/writeSync/KEY/syncAttribute; prints the id "
    "of the request the host holds");

} // namespace
} // namespace Q7Agent
