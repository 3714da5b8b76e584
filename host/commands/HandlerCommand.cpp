// handler: registers or removes a printing container handler for a key.
#include "host/Command.h"

#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace Q7Agent {
namespace {

class HandlerCommand : public Command {
public:
    void run(Host& host) override {
        if (action_ == "add") {
            fmt::print(host.out(), "  handler '{}' registered\n", key_);
            host.handlerIs(key_);
        } else if (!host.module().syncContainerHandlerRegistry()->syncContainerHandler(Lumo::String(key_))) {
            fmt::print(host.out(), "  no handler for '{}'\n", key_);
        } else {
            // Said first, as the handler is told of its containers while it goes.
            fmt::print(host.out(), "  handler '{}' removed\n", key_);
            host.handlerDel(key_);
        }
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("action", action_)->required()->check(CLI::IsMember({"add", "del"}));
        app.add_option("key", key_)->required();
    }

private:
    std::string action_, key_;
};

CommandRegistrar<HandlerCommand> const registrar("handler", "handler add|del KEY",
                                                 "register or remove a printing container handler for a key");

} // namespace
} // namespace Q7Agent
