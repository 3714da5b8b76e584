// Wex::CharRange: reading values back from their text forms.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "Lumo/String.h"
#include "Wex/Exception.h"

namespace Wex {

// A cursor over text. Every failure is a RangeException naming the attribute being read,
// and leaves the cursor where the failing read began.
class CharRange {
public:
    explicit CharRange(std::string_view text) noexcept : rest_(text) {}

    std::string_view remaining() const noexcept { return rest_; }
    bool empty() const noexcept { return rest_.empty(); }
    void advance(std::size_t n) noexcept { rest_.remove_prefix(n < rest_.size() ? n : rest_.size()); }

    // Requires `literal` next; names `attribute` when it is missing.
    void require(std::string_view literal, std::string_view attribute);
    // Reads up to (not including) the first of `stops`; an empty run is an error.
    std::string_view token(std::string_view stops, std::string_view attribute);

    // Unsigned integers in decimal, and strings in the quoted form of valueToStrep.
    template <class T>
    T deserializeAttr(std::string_view attribute) {
        if constexpr (std::is_same_v<T, Lumo::String>) return Lumo::String(readQuoted(attribute));
        else if constexpr (std::is_same_v<T, std::string>) return readQuoted(attribute);
        else {
            static_assert(std::is_unsigned_v<T>, "deserializeAttr reads unsigned integers and strings");
            return static_cast<T>(readUnsigned(attribute, static_cast<std::uint64_t>(T(~T(0)))));
        }
    }

    // A whole-string conversion ends here: nothing may be left over.
    void checkAllDataConsumed(std::string_view attribute = "text") const;

private:
    std::uint64_t readUnsigned(std::string_view attribute, std::uint64_t max);
    std::string readQuoted(std::string_view attribute);
    std::string_view rest_;
};

// The framework's text form of a string: single quotes, with \\, \' and \xNN escapes.
std::string valueToStrep(std::string_view s);
inline std::string valueToStrep(Lumo::String const& s) { return valueToStrep(s.view()); }
inline std::string valueToStrep(char const* s) { return valueToStrep(std::string_view(s)); }
inline std::string valueToStrep(std::string const& s) { return valueToStrep(std::string_view(s)); }

// Parses a whole string with T's CharRange constructor; text left over is an error.
template <class T>
T fromString(std::string_view text) {
    CharRange range(text);
    T value(range);
    range.checkAllDataConsumed();
    return value;
}

} // namespace Wex
