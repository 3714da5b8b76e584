// PrintingHandler: one line per container given and withdrawn, and per entry set or deleted.
#include "PrintingHandler.h"

#include <fmt/format.h>

#include "Wex/CharRange.h"
#include "host/StateContainer.h"

namespace Q7Agent {

// Watches the entries of one container, from the hand-over to the withdrawal.
class PrintingHandler::EntryPrinter final : public StateContainer::State::Watcher {
public:
    using Entry = StateContainer::State::Member;

    EntryPrinter(Lumo::Ptr<StateContainer const> container, std::string prefix, std::FILE* out)
        : container_(std::move(container)), prefix_(std::move(prefix)), out_(out) {
        container_->syncAttribute().watcherIs(this, true);
    }
    ~EntryPrinter() { container_->syncAttribute().watcherIs(this, false); }

private:
    void onMember(StateContainer::State const& state, Lumo::String const& key, Entry const*) override {
        if (Entry const* now = state.find(key))
            fmt::print(out_, "{} {} = {}\n", prefix_, Wex::valueToStrep(key), Wex::valueToStrep(now->value));
        else
            fmt::print(out_, "{} {} deleted\n", prefix_, Wex::valueToStrep(key));
    }

    Lumo::Ptr<StateContainer const> container_;
    std::string prefix_;
    std::FILE* out_;
};

PrintingHandler::PrintingHandler(Lumo::String syncContainerKey, std::FILE* out)
    : Kel::Q7Sync::SyncContainerHandler(std::move(syncContainerKey)), out_(out) {}

PrintingHandler::~PrintingHandler() = default;

void PrintingHandler::containerIs(Lumo::Ptr<Kel::Q7Sync::SyncContainer const> const& container) const {
    auto const& cfg = container->pathSubscribeConfig();
    auto [at, fresh] = held_.try_emplace(cfg.localUri().str());
    fmt::print(out_, "  handler '{}': container {} of {} at {}{}\n", syncContainerKey(), container->name(),
               container->fwkType() ? container->fwkType()->name() : "?", cfg.localUri(),
               fresh ? "" : " (already held)");
    if (auto state = Lumo::ptr_cast<StateContainer const>(container); state && fresh)
        at->second = std::make_unique<EntryPrinter>(
            std::move(state), fmt::format("  handler '{}': {}", syncContainerKey(), cfg.remoteUri()), out_);
}

void PrintingHandler::containerDel(Kel::Q7Sync::PathSubscribeConfig const& cfg) const {
    held_.erase(cfg.localUri().str());
    fmt::print(out_, "  handler '{}': container withdrawn from {}\n", syncContainerKey(), cfg.localUri());
}

} // namespace Q7Agent
