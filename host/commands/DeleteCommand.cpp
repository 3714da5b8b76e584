// delete: removes an entry of a keyed collection, through reflection.
#include "host/Command.h"

#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "host/AttributeText.h"

namespace Q7Agent {
namespace {

class DeleteCommand : public Command {
public:
    void run(Host& host) override {
        Wex::AttributeAt const at = collectionOrThrow(path_);
        std::string const text = stringText(key_, "key");
        auto const key = keyOf(at, text);
        if (!key) throw CLI::ValidationError("key", fmt::format("{} has no entry {}", path_, text));
        at.attr->memberDel(at.object(), *key);
        fmt::print(host.out(), "  deleted {} {}\n", path_, text);
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("path", path_)->required();
        app.add_option("key", key_)->required();
    }

private:
    std::string path_, key_;
};

CommandRegistrar<DeleteCommand> const registrar("delete", "delete PATH KEY", "delete an entry of a collection");

} // namespace
} // namespace Q7Agent
