// The reference model of the module's subscriptions: what must be in force, given the
// configurations clients hold, written as plainly as possible so that it can be trusted.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "KelLib/Q7SyncSubscribeRequest.h"

namespace Kel::Q7Sync::Model {

using Configs = std::set<PathSubscribeConfig>;

// Equal configurations share one request, so only distinct ones count.
inline Configs distinct(std::vector<PathSubscribeConfig> const& held) { return Configs(held.begin(), held.end()); }

// A configuration is in force exactly when no other held configuration shares its remote URI
// or its local URI.
inline Configs effective(Configs const& all) {
    std::map<std::string, std::size_t> byRemote, byLocal;
    for (PathSubscribeConfig const& c : all) {
        ++byRemote[c.remoteUri().str()];
        ++byLocal[c.localUri().str()];
    }
    Configs out;
    for (PathSubscribeConfig const& c : all)
        if (byRemote[c.remoteUri().str()] == 1 && byLocal[c.localUri().str()] == 1) out.insert(c);
    return out;
}

// How many held configurations use each remote (or local) URI.
inline std::map<std::string, std::size_t> requestsByUri(Configs const& held, bool remote) {
    std::map<std::string, std::size_t> out;
    for (PathSubscribeConfig const& c : held) ++out[(remote ? c.remoteUri() : c.localUri()).str()];
    return out;
}

// The configurations in force for one container key: what that key's handler must hold.
inline Configs ofKey(Configs const& inForce, std::string const& key) {
    Configs out;
    for (PathSubscribeConfig const& c : inForce)
        if (c.syncContainerKey().str() == key) out.insert(c);
    return out;
}

} // namespace Kel::Q7Sync::Model
