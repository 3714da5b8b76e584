// set: writes an entry of a keyed collection, or a plain attribute, through reflection.
#include "host/Command.h"

#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "host/AttributeText.h"

namespace Q7Agent {
namespace {

class SetCommand : public Command {
public:
    // Keys and values are given plainly (eth0) and written in the framework's text form
    // ('eth0'); the framework reads both before writing, so that a refusal changes nothing.
    void run(Host& host) override {
        Wex::AttributeAt const at = attributeOrThrow(path_);
        if (at.attr->kind() == Wex::AttrKind::collection) {
            if (values_.size() != 2) throw CLI::ValidationError("value", fmt::format("{} takes KEY VALUE", path_));
            std::string const key = stringText(values_[0], "key"), value = stringText(values_[1], "value");
            at.attr->memberIsFromText(at.object(), key, value);
            fmt::print(host.out(), "  set {} {} = {}\n", path_, key, value);
        } else {
            if (values_.size() != 1) throw CLI::ValidationError("value", fmt::format("{} takes one VALUE", path_));
            std::string const value = stringText(values_[0], "value");
            at.attr->setFromText(at.object(), value);
            fmt::print(host.out(), "  set {} = {}\n", path_, value);
        }
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("path", path_)->required();
        app.add_option("values", values_)->required()->expected(1, 2);
    }

private:
    std::string path_;
    std::vector<std::string> values_;
};

CommandRegistrar<SetCommand> const registrar("set", "set PATH KEY VALUE | set PATH VALUE",
                                             "write an entry of a collection, or a plain attribute");

} // namespace
} // namespace Q7Agent
