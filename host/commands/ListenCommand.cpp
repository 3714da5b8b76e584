// listen: opens the sync service's listening endpoint, or closes it, and says what came of it.
#include "host/Command.h"

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Q7Sync/Service.h"

namespace Q7Agent {
namespace {

class ListenCommand : public Command {
public:
    void run(Host& host) override {
        bool const off = address_ == "off";
        if (off && portOption_->count()) throw CLI::ValidationError("port", "'listen off' takes no port");
        if (!off && !portOption_->count()) throw CLI::RequiredError("port");
        using Kel::Q7Sync::ListenConfig;
        host.module().listen(off ? ListenConfig() : ListenConfig(address(address_), port_));
        auto st = host.module().listenStatus()->listenConfigStatus();
        if (!st) {
            fmt::print(host.out(), "  no endpoint open\n");
        } else if (!st->q7ListenStatus()) {
            fmt::print(host.out(), "  endpoint {} open without status\n", valueToStrep(st->listenConfig()));
        } else {
            auto const& ls = *st->q7ListenStatus();
            auto const& cfg = st->listenConfig();
            std::string on;
            if (ls.listening())
                on = fmt::format(" on port {}", Q7Sync::Service::instance().boundPort(cfg.hostAddr().stringValue(), cfg.port()));
            fmt::print(host.out(), "  listening: {}{}{}\n", ls.listening(), on,
                       ls.reason().empty() ? "" : fmt::format(" ({})", ls.reason()));
        }
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("address", address_)->required();
        portOption_ = app.add_option("port", port_);
    }

private:
    std::string address_;
    std::uint16_t port_ = 0;
    CLI::Option* portOption_ = nullptr;  // whether a port was given: 'listen off' takes none
};

CommandRegistrar<ListenCommand> const registrar("listen", "listen ADDRESS PORT | listen off",
                                                "open the sync service's listening endpoint, or close it");

} // namespace
} // namespace Q7Agent
