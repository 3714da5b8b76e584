// get: prints the entries of a keyed collection, or a plain attribute's value.
#include "host/Command.h"

#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "host/AttributeText.h"

namespace Q7Agent {
namespace {

class GetCommand : public Command {
public:
    void run(Host& host) override {
        Wex::AttributeAt const at = attributeOrThrow(path_);
        if (at.attr->kind() != Wex::AttrKind::collection) {
            fmt::print(host.out(), "    {}\n  (a plain attribute)\n", at.attr->get(at.object()).text());
            return;
        }
        auto const entries = entriesOf(at);
        for (auto const& [key, value] : entries) fmt::print(host.out(), "    {} = {}\n", key, value);
        fmt::print(host.out(), "  ({} entr{})\n", entries.size(), entries.size() == 1 ? "y" : "ies");
    }

protected:
    void bind(CLI::App& app) override { app.add_option("path", path_)->required(); }

private:
    std::string path_;
};

CommandRegistrar<GetCommand> const registrar("get", "get PATH",
                                             "print the entries of a collection by key, or an attribute's value");

} // namespace
} // namespace Q7Agent
