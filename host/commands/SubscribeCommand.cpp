// subscribe: asks the module for a remote path and holds the request for the host's users.
#include "host/Command.h"

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace Q7Agent {
namespace {

class SubscribeCommand : public Command {
public:
    void run(Host& host) override {
        auto cfg = Kel::Q7Sync::PathSubscribeConfig::createWithContainerTypeString(
            address(address_), port_, Lumo::String(path_), Lumo::String(key_), type_, flags(flags_));
        unsigned const id = host.requestIs(host.module().pathSubscribeRequestDedupTable()->dedup(cfg));
        fmt::print(host.out(), "  request {} for {} -> {}\n", id, cfg.remoteUri(), cfg.localUri());
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("address", address_)->required();
        app.add_option("port", port_)->required();
        app.add_option("path", path_)->required();
        app.add_option("key", key_)->required();
        app.add_option("--type", type_);
        app.add_option("--flags", flags_);
    }

private:
    std::string address_, path_, key_, type_ = "Q7Agent::StateContainer", flags_ = "NONE";
    std::uint16_t port_ = 0;
};

CommandRegistrar<SubscribeCommand> const registrar(
    "subscribe", "subscribe ADDRESS PORT PATH KEY [--type TYPE] [--flags FLAGS]",
    "ask for a remote path; prints the id of the request the host holds");

} // namespace
} // namespace Q7Agent
