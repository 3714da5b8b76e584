// listening: changes an endpoint's listening state in the sync service.
#include "host/Command.h"

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Q7Sync/Service.h"

namespace Q7Agent {
namespace {

class ListeningCommand : public Command {
public:
    void run(Host&) override {
        if (!Q7Sync::Service::instance().listeningIs(address_, port_, listening_, Lumo::String(reason_)))
            throw CLI::ValidationError("address", fmt::format("no endpoint {} {}", address_, port_));
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("address", address_)->required();
        app.add_option("port", port_)->required();
        app.add_option("listening", listening_)->required();
        app.add_option("reason", reason_);
    }

private:
    std::string address_, reason_;
    std::uint16_t port_ = 0;
    bool listening_ = false;
};

CommandRegistrar<ListeningCommand> const registrar("listening", "listening ADDRESS PORT true|false [REASON]",
                                                   "change an endpoint's listening state in the sync service");

} // namespace
} // namespace Q7Agent
