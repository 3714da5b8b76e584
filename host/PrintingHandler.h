// A container handler that prints what it is given, for the host's users to watch.
#pragma once

#include <cstdio>
#include <set>
#include <string>

#include "KelLib/Q7SyncContainer.h"

namespace Q7Agent {

class PrintingHandler : public Kel::Q7Sync::SyncContainerHandler {
public:
    PrintingHandler(Lumo::String syncContainerKey, std::FILE* out);

    void containerIs(Lumo::Ptr<Kel::Q7Sync::SyncContainer const> const& container) const override;
    void containerDel(Kel::Q7Sync::PathSubscribeConfig const& pathSubscribeConfig) const override;
    // The local URIs of the containers it holds now.
    std::set<std::string> const& held() const noexcept { return held_; }

private:
    std::FILE* out_;
    mutable std::set<std::string> held_;
};

} // namespace Q7Agent
