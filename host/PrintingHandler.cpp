// PrintingHandler: one line per container given and withdrawn.
#include "PrintingHandler.h"

#include <fmt/format.h>

namespace Q7Agent {

PrintingHandler::PrintingHandler(Lumo::String syncContainerKey, std::FILE* out)
    : Kel::Q7Sync::SyncContainerHandler(std::move(syncContainerKey)), out_(out) {}

void PrintingHandler::containerIs(Lumo::Ptr<Kel::Q7Sync::SyncContainer const> const& container) const {
    auto const& cfg = container->pathSubscribeConfig();
    bool const fresh = held_.insert(cfg.localUri().str()).second;
    fmt::print(out_, "  handler '{}': container {} of {} at {}{}\n", syncContainerKey(), container->name(),
               container->fwkType() ? container->fwkType()->name() : "?", cfg.localUri(),
               fresh ? "" : " (already held)");
}

void PrintingHandler::containerDel(Kel::Q7Sync::PathSubscribeConfig const& cfg) const {
    held_.erase(cfg.localUri().str());
    fmt::print(out_, "  handler '{}': container withdrawn from {}\n", syncContainerKey(), cfg.localUri());
}

} // namespace Q7Agent
