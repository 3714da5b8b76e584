// publish: makes the entity a path names, when it is missing, and serves the path to peers.
#include "host/Command.h"

#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Q7Sync/Service.h"
#include "Wex/Path.h"

namespace Q7Agent {
namespace {

class PublishCommand : public Command {
public:
    void run(Host& host) override {
        Wex::WexType const* type = Wex::typeNode(type_);
        if (!type || !type->makesEntities())
            throw CLI::ValidationError("--type", fmt::format("'{}' is no type that directories make", type_));
        // Checked before the entity is made, so that a refusal leaves the tree as it was. An
        // entity already there is published whatever its type (the service refuses a path it
        // lacks, having made nothing).
        Wex::AttributeAt const at = Wex::attributeAt(path_);
        std::size_t const slash = path_.rfind('/');
        std::string const name = path_.substr(slash + 1);
        Wex::WexAttr const* attr = at ? at.attr : type->attr(name);
        if (!attr) throw CLI::ValidationError("path", fmt::format("{} has no attribute '{}'", type_, name));
        if (!attr->readable()) throw CLI::ValidationError("path", fmt::format("{} cannot be read", path_));
        Wex::entityIs(path_.substr(0, slash), type);
        Q7Sync::Service::instance().publish(path_);
        fmt::print(host.out(), "  published {}\n", path_);
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("path", path_)->required();
        app.add_option("--type", type_);
    }

private:
    std::string path_, type_ = "Q7Agent::AgentState";
};

CommandRegistrar<PublishCommand> const registrar("publish", "publish PATH [--type TYPE]",
                                                 "serve /dir/.../entity/attribute to peers, making the entity if missing");

} // namespace
} // namespace Q7Agent
