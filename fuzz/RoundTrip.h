// What both parser targets check for one input: the whole-string parse either fails with a
// framework error or gives a value whose printed text reads back to the same value and text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "Wex/CharRange.h"
#include "Wex/Exception.h"

namespace Q7Fuzz {

[[noreturn]] inline void finding(std::string_view what, std::string_view first, std::string_view second = {}) {
    std::fprintf(stderr, "fuzz finding: %.*s\n  %.*s\n  %.*s\n", int(what.size()), what.data(), int(first.size()),
                 first.data(), int(second.size()), second.data());
    __builtin_trap();
}

// Reads `text` as a whole T the way Wex::fromString does, but keeps hold of the range so a
// refused text can be checked to have left it where it was.
template <class T>
std::optional<T> parseWhole(std::string_view text) {
    Wex::CharRange range(text);
    std::optional<T> value;
    try {
        value.emplace(range);
    } catch (Wex::Exception const&) {
        if (range.remaining() != text) finding("a refused text moved the range", text, range.remaining());
        return std::nullopt;
    }
    range.checkAllDataConsumed();
    return value;
}

template <class T>
void checkRoundTrip(std::uint8_t const* data, std::size_t size) {
    std::string_view const input(reinterpret_cast<char const*>(data), size);
    std::optional<T> parsed;
    try {
        parsed = parseWhole<T>(input);
    } catch (Wex::Exception const&) {
        return; // text that is not a T: expected
    } catch (std::exception const& e) {
        finding("parsing threw a non-framework exception", e.what(), input);
    } catch (...) {
        finding("parsing threw something that is not a std::exception", input);
    }
    if (!parsed) return;

    std::string const printed = valueToStrep(*parsed);
    std::optional<T> reparsed;
    try {
        reparsed = parseWhole<T>(printed);
    } catch (std::exception const& e) {
        finding("the printed text of a parsed value does not read back", printed, e.what());
    }
    if (!reparsed) finding("the printed text of a parsed value does not read back", printed);
    if (!T::isEq(*parsed, *reparsed)) finding("the printed text reads back to another value", printed, input);
    std::string const reprinted = valueToStrep(*reparsed);
    if (reprinted != printed) finding("the value read back prints differently", printed, reprinted);
}

} // namespace Q7Fuzz
