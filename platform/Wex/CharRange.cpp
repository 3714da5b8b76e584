// Wex::CharRange: literals, integers and quoted strings.
#include "Wex/CharRange.h"

#include <fmt/format.h>

namespace Wex {

namespace {
std::string preview(std::string_view s) {
    constexpr std::size_t kMax = 24;
    return s.empty() ? std::string("end of text") : fmt::format("'{}'", s.substr(0, kMax));
}
int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
} // namespace

void CharRange::require(std::string_view literal, std::string_view attribute) {
    if (!rest_.starts_with(literal))
        throw RangeException(attribute, fmt::format("expected \"{}\" at {}", literal, preview(rest_)));
    rest_.remove_prefix(literal.size());
}

std::string_view CharRange::token(std::string_view stops, std::string_view attribute) {
    std::size_t n = rest_.find_first_of(stops);
    if (n == std::string_view::npos) n = rest_.size();
    if (n == 0) throw RangeException(attribute, fmt::format("expected a value at {}", preview(rest_)));
    std::string_view t = rest_.substr(0, n);
    rest_.remove_prefix(n);
    return t;
}

std::uint64_t CharRange::readUnsigned(std::string_view attribute, std::uint64_t max) {
    std::size_t i = 0;
    std::uint64_t v = 0;
    while (i < rest_.size() && rest_[i] >= '0' && rest_[i] <= '9') {
        std::uint64_t d = std::uint64_t(rest_[i] - '0');
        if (v > (max - d) / 10) throw RangeException(attribute, fmt::format("value out of range at {}", preview(rest_)));
        v = v * 10 + d;
        ++i;
    }
    if (i == 0) throw RangeException(attribute, fmt::format("expected an unsigned number at {}", preview(rest_)));
    rest_.remove_prefix(i);
    return v;
}

std::string CharRange::readQuoted(std::string_view attribute) {
    if (rest_.empty() || rest_[0] != '\'')
        throw RangeException(attribute, fmt::format("expected a quoted string at {}", preview(rest_)));
    std::string out;
    std::size_t i = 1;
    for (;;) {
        if (i >= rest_.size()) throw RangeException(attribute, "unterminated string");
        char c = rest_[i];
        if (c == '\'') break;
        if (c != '\\') {
            out.push_back(c);
            ++i;
            continue;
        }
        if (i + 1 >= rest_.size()) throw RangeException(attribute, "unterminated escape");
        char e = rest_[i + 1];
        if (e == '\\' || e == '\'') {
            out.push_back(e);
            i += 2;
        } else if (e == 'x' && i + 3 < rest_.size() && hexDigit(rest_[i + 2]) >= 0 && hexDigit(rest_[i + 3]) >= 0) {
            out.push_back(static_cast<char>(hexDigit(rest_[i + 2]) * 16 + hexDigit(rest_[i + 3])));
            i += 4;
        } else {
            throw RangeException(attribute, fmt::format("bad escape at {}", preview(rest_.substr(i))));
        }
    }
    rest_.remove_prefix(i + 1);
    return out;
}

bool CharRange::readBool(std::string_view attribute) {
    for (bool v : {true, false}) {
        std::string_view const word = v ? "true" : "false";
        if (rest_.starts_with(word)) {
            rest_.remove_prefix(word.size());
            return v;
        }
    }
    throw RangeException(attribute, fmt::format("expected true or false at {}", preview(rest_)));
}

void CharRange::checkAllDataConsumed(std::string_view attribute) const {
    if (!rest_.empty()) throw RangeException(attribute, fmt::format("text left over: {}", preview(rest_)));
}

std::string valueToStrep(std::string_view s) {
    std::string out;
    out.reserve(s.size() + 2);
    out.push_back('\'');
    for (char c : s) {
        auto u = static_cast<unsigned char>(c);
        if (c == '\\' || c == '\'') {
            out.push_back('\\');
            out.push_back(c);
        } else if (u < 0x20 || u >= 0x7f) {
            out += fmt::format("\\x{:02x}", u);
        } else {
            out.push_back(c);
        }
    }
    out.push_back('\'');
    return out;
}

} // namespace Wex
