// unpublish: stops serving a path; its subscribers are told it is refused.
#include "host/Command.h"

#include <algorithm>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Q7Sync/Service.h"

namespace Q7Agent {
namespace {

class UnpublishCommand : public Command {
public:
    void run(Host& host) override {
        Q7Sync::Service& service = Q7Sync::Service::instance();
        auto const published = service.publishedPaths();
        if (std::find(published.begin(), published.end(), path_) == published.end())
            throw CLI::ValidationError("path", fmt::format("{} is not published", path_));
        service.unpublish(path_);
        fmt::print(host.out(), "  unpublished {}\n", path_);
    }

protected:
    void bind(CLI::App& app) override { app.add_option("path", path_)->required(); }

private:
    std::string path_;
};

CommandRegistrar<UnpublishCommand> const registrar("unpublish", "unpublish PATH", "stop serving a published path");

} // namespace
} // namespace Q7Agent
