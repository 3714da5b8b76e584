// Wex::Args: refusing arguments a construction does not take.
#include "Wex/Value.h"

#include <algorithm>

namespace Wex {

void Args::checkOnly(std::string_view owner, std::initializer_list<std::string_view> allowed) const {
    for (auto const& a : args_)
        if (std::find(allowed.begin(), allowed.end(), a.first) == allowed.end())
            throw NewEntityArgsException(owner, a.first, "is not taken");
}

} // namespace Wex
