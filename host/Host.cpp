// Host: the requests and handlers it holds, and the show commands it runs.
#include "Host.h"

#include <unistd.h>

#include <utility>

#include "KelLib/ShowQ7SyncDebugCallback.h"
#include "ServiceDumpCallback.h"

namespace Q7Agent {

Host::Host(std::FILE* out)
    : out_(out), module_(Kel::Q7Sync::Module::get()), scheduler_(new Oru::TaskScheduler()),
      anchor_(new Agent::AsynchShowCommandAnchor()) {
    scheduler_->hasNotificationActiveIs(true);
    anchor_->hasNotificationActiveIs(true);
    anchor_->callbackIs(Kel::Q7Sync::showQ7SyncDebugCallbackFactory(anchor_, scheduler_));
    anchor_->callbackIs(ServiceDumpCallback::ServiceDumpCallbackIs(anchor_, scheduler_));
}

Host::~Host() {
    requests_.clear();
    auto const& registry = module_->syncContainerHandlerRegistry();
    for (auto const& [key, handler] : handlers_)
        if (registry->syncContainerHandler(Lumo::String(key)) == handler) registry->syncContainerHandlerDel(Lumo::String(key));
    handlers_.clear();
    while (!anchor_->callbacks().empty()) anchor_->callbackDel((*anchor_->callbacks().begin())->name());
}

unsigned Host::requestIs(Lumo::Ptr<Kel::Q7Sync::PathSubscribeRequest const> request) {
    unsigned const id = nextId_++;
    requests_.emplace(id, std::move(request));
    return id;
}

Lumo::Ptr<Kel::Q7Sync::PathSubscribeRequest const> Host::requestDel(unsigned id) {
    auto it = requests_.find(id);
    if (it == requests_.end()) return nullptr;
    auto request = std::move(it->second);
    requests_.erase(it);
    return request;
}

void Host::handlerIs(std::string const& key) {
    Lumo::Ptr<PrintingHandler const> handler(new PrintingHandler(Lumo::String(key), out_));
    handlers_[key] = handler;
    module_->syncContainerHandlerRegistry()->syncContainerHandlerIs(handler);
}

void Host::handlerDel(std::string const& key) {
    module_->syncContainerHandlerRegistry()->syncContainerHandlerDel(Lumo::String(key));
    handlers_.erase(key);
}

bool Host::showCommandRun(std::string_view name) {
    // The show command writes to the descriptor: what was printed before it goes first.
    std::fflush(out_);
    if (!anchor_->run(name, ::fileno(out_))) return false;
    scheduler_->runPending();
    return true;
}

} // namespace Q7Agent
