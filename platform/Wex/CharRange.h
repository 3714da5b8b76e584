// Wex::CharRange: reading values back from their text forms.
#pragma once

#include <concepts>
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

    // Unsigned integers in decimal, bools as "true" or "false", and strings in the quoted form
    // of valueToStrep.
    template <class T>
    T deserializeAttr(std::string_view attribute) {
        if constexpr (std::is_same_v<T, Lumo::String>) return Lumo::String(readQuoted(attribute));
        else if constexpr (std::is_same_v<T, std::string>) return readQuoted(attribute);
        else if constexpr (std::is_same_v<T, bool>) return readBool(attribute);
        else {
            static_assert(std::is_unsigned_v<T>, "deserializeAttr reads unsigned integers, bools and strings");
            return static_cast<T>(readUnsigned(attribute, static_cast<std::uint64_t>(T(~T(0)))));
        }
    }

    // A whole-string conversion ends here: nothing may be left over.
    void checkAllDataConsumed(std::string_view attribute = "text") const;

private:
    std::uint64_t readUnsigned(std::string_view attribute, std::uint64_t max);
    std::string readQuoted(std::string_view attribute);
    bool readBool(std::string_view attribute);
    std::string_view rest_;
};

// The framework's text form of a string: single quotes, with \\, \' and \xNN escapes.
std::string valueToStrep(std::string_view s);
inline std::string valueToStrep(Lumo::String const& s) { return valueToStrep(s.view()); }
inline std::string valueToStrep(char const* s) { return valueToStrep(std::string_view(s)); }
inline std::string valueToStrep(std::string const& s) { return valueToStrep(std::string_view(s)); }

// Parses a whole string with T's CharRange constructor; text left over is an error. Errors
// name the field that failed.
template <class T>
T fromString(std::string_view text) {
    CharRange range(text);
    T value(range);
    range.checkAllDataConsumed();
    return value;
}

// How a library reads a type of its own from text. It specializes this beside the type, in
// its own header, with `static T read(CharRange&)` (as Kivu/IpGenAddr.h does for addresses).
template <class T>
struct TextReader {};

template <class T>
concept LibraryTextReader = requires(CharRange& range) {
    { TextReader<T>::read(range) } -> std::same_as<T>;
};
// What deserializeAttr reads.
template <class T>
concept PlainTextReadable = std::is_same_v<T, Lumo::String> || std::is_same_v<T, std::string> || std::is_unsigned_v<T>;
// The types reflection can read from text: those deserializeAttr reads, those with a reader of
// their library, and those with a T(CharRange&) constructor. Counted pointers have none.
template <class T>
concept TextReadable = PlainTextReadable<T> || LibraryTextReader<T> || std::is_constructible_v<T, CharRange&>;

// Reads a T at the range's front. Every failure, including a type without a text form, is a
// RangeException naming `attribute`.
template <class T>
T readValue(CharRange& range, std::string_view attribute) {
    if constexpr (!TextReadable<T>) {
        throw RangeException(attribute, "its type has no text form");
    } else {
        try {
            if constexpr (PlainTextReadable<T>) return range.deserializeAttr<T>(attribute);
            else if constexpr (LibraryTextReader<T>) return TextReader<T>::read(range);
            else return T(range);
        } catch (RangeException const& e) {
            // A type's own reader names the field or the type that failed; the caller wants
            // the attribute being written.
            if (e.attribute() == attribute) throw;
            throw RangeException(attribute, e.what());
        }
    }
}

// Reads a whole string as a T; text left over is an error.
template <class T>
T valueFromText(std::string_view text, std::string_view attribute = "text") {
    CharRange range(text);
    T value = readValue<T>(range, attribute);
    range.checkAllDataConsumed(attribute);
    return value;
}

} // namespace Wex
