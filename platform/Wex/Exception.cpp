// The framework's errors: their messages.
#include "Wex/Exception.h"

#include <fmt/format.h>

namespace Wex {

NullArgumentException::NullArgumentException(std::string_view attribute)
    : Exception(attribute, fmt::format("null argument for attribute '{}'", attribute)) {}

ReInstantiationException::ReInstantiationException(std::string_view attribute)
    : Exception(attribute, fmt::format("re-instantiation of '{}' with different values", attribute)) {}

RangeException::RangeException(std::string_view attribute, std::string_view detail)
    : Exception(attribute, fmt::format("range error in attribute '{}': {}", attribute, detail)) {}

NewEntityArgsException::NewEntityArgsException(std::string_view type, std::string_view attribute, std::string_view detail)
    : Exception(attribute, fmt::format("new {}: argument '{}' {}", type, attribute, detail)) {}

ValueTypeException::ValueTypeException(std::string_view type, std::string_view attribute, std::string_view expected,
                                       std::string_view given)
    : NewEntityArgsException(attribute, fmt::format("{}.{}: takes {}, not {}", type, attribute, expected, given)) {}

AttributeAccessException::AttributeAccessException(std::string_view type, std::string_view attribute, std::string_view detail)
    : Exception(attribute, fmt::format("{}.{}: {}", type, attribute, detail)) {}

} // namespace Wex
