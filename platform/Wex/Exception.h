// The framework's errors. Each names the attribute it concerns.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Wex {

class Exception : public std::runtime_error {
public:
    Exception(std::string_view attribute, std::string const& message)
        : std::runtime_error(message), attribute_(attribute) {}
    std::string const& attribute() const noexcept { return attribute_; }

private:
    std::string attribute_;
};

// A null pointer given where an attribute needs an object.
class NullArgumentException : public Exception {
public:
    explicit NullArgumentException(std::string_view attribute);
};

// An entry remade with construction values other than those it has.
class ReInstantiationException : public Exception {
public:
    explicit ReInstantiationException(std::string_view attribute);
};

// Text that cannot be read as the attribute's value.
class RangeException : public Exception {
public:
    RangeException(std::string_view attribute, std::string_view detail);
};

// Arguments that a generic construction does not take, or lacks.
class NewEntityArgsException : public Exception {
public:
    NewEntityArgsException(std::string_view type, std::string_view attribute, std::string_view detail);

protected:
    // For refinements that word their own message.
    NewEntityArgsException(std::string_view attribute, std::string const& message) : Exception(attribute, message) {}
};

// A key, value or argument of another type than the attribute takes. A kind of
// NewEntityArgsException: an argument of the wrong type is refused the same way as a missing one.
class ValueTypeException : public NewEntityArgsException {
public:
    ValueTypeException(std::string_view type, std::string_view attribute, std::string_view expected,
                       std::string_view given);
};

// A reflective access to an attribute that does not exist or does not allow it.
class AttributeAccessException : public Exception {
public:
    AttributeAccessException(std::string_view type, std::string_view attribute, std::string_view detail);
};

} // namespace Wex
