// status: changes a subscription's status in the sync service, as its remote agent would report it.
#include "host/Command.h"

#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Q7Serdes/Status.h"
#include "Q7Sync/Service.h"

namespace Q7Agent {
namespace {

Q7Serdes::WexUtils::SyncStatusEnum syncStatus(std::string const& text) {
    using S = Q7Serdes::WexUtils::SyncStatusEnum;
    for (S s : {S::notConnected, S::connecting, S::syncing, S::inSync, S::failed})
        if (valueToStrep(s) == text) return s;
    throw CLI::ValidationError("status", fmt::format("'{}' is not one of notConnected, connecting, syncing, inSync, failed", text));
}

class StatusCommand : public Command {
public:
    void run(Host&) override {
        auto const status = syncStatus(status_);
        if (!Q7Sync::Service::instance().syncStatusIs(remoteUri_, status, Lumo::String(reason_)))
            throw CLI::ValidationError("remoteUri", fmt::format("'{}' is not subscribed", remoteUri_));
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("remoteUri", remoteUri_)->required();
        app.add_option("status", status_)->required();
        app.add_option("reason", reason_);
    }

private:
    std::string remoteUri_, status_, reason_;
};

CommandRegistrar<StatusCommand> const registrar("status", "status REMOTE_URI STATUS [REASON]",
                                                "change a subscription's status in the sync service");

} // namespace
} // namespace Q7Agent
