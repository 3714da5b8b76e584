// statuses: prints where each subscription of the sync service stands.
#include "host/Command.h"

#include <algorithm>

#include <fmt/format.h>

#include "Q7Sync/Service.h"

namespace Q7Agent {
namespace {

class StatusesCommand : public Command {
public:
    void run(Host& host) override {
        Q7Sync::Service const& service = Q7Sync::Service::instance();
        auto uris = service.subscribedUris();
        std::sort(uris.begin(), uris.end());
        for (auto const& uri : uris) {
            auto const status = service.syncStatus(uri);
            if (!status) continue;
            fmt::print(host.out(), "  {} {}{}\n", uri, status->status(),
                       status->reason().empty() ? "" : fmt::format(" ({})", status->reason()));
        }
        fmt::print(host.out(), "  ({} subscription{})\n", uris.size(), uris.size() == 1 ? "" : "s");
    }
};

CommandRegistrar<StatusesCommand> const registrar("statuses", "statuses",
                                                  "print each subscription of the sync service with its status");

} // namespace
} // namespace Q7Agent
