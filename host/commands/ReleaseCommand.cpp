// release: lets go of a request the host holds.
#include "host/Command.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace Q7Agent {
namespace {

class ReleaseCommand : public Command {
public:
    void run(Host& host) override {
        auto request = host.requestDel(id_);
        if (!request) throw CLI::ValidationError("id", fmt::format("no request {}", id_));
        fmt::print(host.out(), "  released request {}\n", id_);
        request = nullptr;  // the last holder's release ends the subscription
    }

protected:
    void bind(CLI::App& app) override { app.add_option("id", id_)->required(); }

private:
    unsigned id_ = 0;
};

CommandRegistrar<ReleaseCommand> const registrar("release", "release ID", "let go of a request the host holds");

} // namespace
} // namespace Q7Agent
