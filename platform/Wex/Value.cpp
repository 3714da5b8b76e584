// Wex::Value and Wex::Args: the names of types in errors; refusing arguments a construction does not take.
#include "Wex/Value.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace Wex {

std::string typeName(std::type_info const& type) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

namespace {
template <class Names>
void refuseOthers(std::vector<std::pair<std::string, Value>> const& args, std::string_view owner, Names const& allowed) {
    for (auto const& a : args)
        if (std::find(allowed.begin(), allowed.end(), a.first) == allowed.end())
            throw NewEntityArgsException(owner, a.first, "is not taken");
}
} // namespace

void Args::checkOnly(std::string_view owner, std::initializer_list<std::string_view> allowed) const {
    refuseOthers(args_, owner, allowed);
}

void Args::checkOnly(std::string_view owner, std::vector<std::string> const& allowed) const {
    refuseOthers(args_, owner, allowed);
}

} // namespace Wex
