// writesync: asks to push a local container's entries to a remote agent, and holds the request
// for the host's users as subscribe does.
#include "host/Command.h"

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Wex/Type.h"

namespace Q7Agent {
namespace {

class WriteSyncCommand : public Command {
public:
    void run(Host& host) override {
        auto const f = flags(flags_);
        // Refused here rather than by the module, so that the error names the option.
        if (!Q7Sync::WexUtils::has(f, Q7Sync::WexUtils::WRITE()))
            throw CLI::ValidationError("--flags", fmt::format("'{}' lacks WRITE, which a write-sync request needs", flags_));
        Wex::WexType const* type = Wex::typeNode(type_);
        if (!type) throw CLI::ValidationError("--type", fmt::format("'{}' names no registered type", type_));
        auto cfg = Kel::Q7Sync::PathSubscribeConfig::createWriteSyncConfig(address(address_), Kivu::Port(port_),
                                                                           Lumo::String(key_), type, f);
        unsigned const id = host.requestIs(host.module().pathSubscribeRequestDedupTable()->dedup(cfg));
        fmt::print(host.out(), "  request {} for {} -> {}\n", id, cfg.remoteUri(), cfg.localUri());
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("address", address_)->required();
        app.add_option("port", port_)->required();
        app.add_option("key", key_)->required();
        app.add_option("--type", type_);
        app.add_option("--flags", flags_);
    }

private:
    std::string address_, key_, type_ = "Q7Agent::StateContainer", flags_ = "WRITE";
    std::uint16_t port_ = 0;
};

CommandRegistrar<WriteSyncCommand> const registrar(
    "writesync", "writesync ADDRESS PORT KEY [--type TYPE] [--flags FLAGS]",
    "push the local container's syncAttribute to the remote agent's /q7/writeSync/KEY/syncAttribute; prints the id "
    "of the request the host holds");

} // namespace
} // namespace Q7Agent
