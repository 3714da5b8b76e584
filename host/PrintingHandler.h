// A container handler that prints what it is given, and each change of it, for the host's
// users to watch.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "KelLib/Q7SyncContainer.h"

namespace Q7Agent {

class PrintingHandler : public Kel::Q7Sync::SyncContainerHandler {
public:
    PrintingHandler(Lumo::String syncContainerKey, std::FILE* out);

    void containerIs(Lumo::Ptr<Kel::Q7Sync::SyncContainer const> const& container) const override;
    void containerDel(Kel::Q7Sync::PathSubscribeConfig const& pathSubscribeConfig) const override;

protected:
    ~PrintingHandler() override;

private:
    class EntryPrinter;

    std::FILE* out_;
    // The containers it holds, by local URI, with the watch of their entries (none for a
    // container type that keeps no entries).
    mutable std::map<std::string, std::unique_ptr<EntryPrinter>> held_;
};

} // namespace Q7Agent
