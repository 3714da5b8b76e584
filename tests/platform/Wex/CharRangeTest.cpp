// The framework's text reader: what it reads, and the error that leaves the cursor alone for what it cannot.
#include "Wex/CharRange.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Lumo/String.h"

namespace {

template <class T>
void readAs(Wex::CharRange& range) {
    range.deserializeAttr<T>("attr");
}

// The message of the error that `read` raises on `text`, which must name "attr" and leave the cursor alone.
std::string refusal(std::string_view text, void (*read)(Wex::CharRange&)) {
    Wex::CharRange range(text);
    try {
        read(range);
    } catch (Wex::RangeException const& e) {
        EXPECT_EQ(range.remaining(), text) << "a failed read moved the cursor";
        EXPECT_EQ(e.attribute(), "attr");
        return e.what();
    }
    return "read without error";
}

TEST(CharRangeTest, ReadsEveryByteBackFromTheQuotedFormAndNumbersUpToTheTypesMaximum) {
    std::string all;
    for (int c = 0; c < 256; ++c) all.push_back(static_cast<char>(c));
    std::string const text = Wex::valueToStrep(all) + R"(,'\x4a\x4A\x7e\x7E',65535,18446744073709551615,true,false;)";
    Wex::CharRange range(text);
    EXPECT_EQ(range.deserializeAttr<std::string>("attr"), all);
    range.require(",", "comma");
    EXPECT_EQ(range.deserializeAttr<Lumo::String>("attr"), "JJ~~");
    range.require(",", "comma");
    EXPECT_EQ(range.deserializeAttr<std::uint16_t>("attr"), 65535u);
    range.require(",", "comma");
    EXPECT_EQ(range.deserializeAttr<std::uint64_t>("attr"), UINT64_MAX);
    range.require(",", "comma");
    EXPECT_EQ(range.token(",", "word"), "true");
    range.require(",", "comma");
    EXPECT_FALSE(range.deserializeAttr<bool>("attr"));
    range.advance(100);
    EXPECT_NO_THROW(range.checkAllDataConsumed());
    Wex::CharRange yes("true");
    EXPECT_TRUE(yes.deserializeAttr<bool>("attr"));
    EXPECT_TRUE(yes.empty());
}

TEST(CharRangeTest, WhatCannotBeReadIsRefusedSayingWhatIsWrong) {
    std::vector<std::pair<std::string, std::string>> const cases = {
        // What follows is shown up to 24 characters.
        {refusal("plain text that goes on and on", readAs<std::string>),
         "attribute 'attr': expected a quoted string at 'plain text that goes on '"},
        {refusal("", readAs<std::string>), "expected a quoted string at end of text"},
        {refusal("'open", readAs<std::string>), "unterminated string"},
        {refusal("'open\\", readAs<std::string>), "unterminated escape"},
        {refusal(R"('open\')", readAs<std::string>), "unterminated string"},
        {refusal(R"('a\qb')", readAs<std::string>), R"(bad escape at '\qb')"},
        {refusal(R"('\xg0')", readAs<std::string>), "bad escape"},
        {refusal(R"('\x0G')", readAs<Lumo::String>), "bad escape"},
        {refusal(R"('\x4')", readAs<std::string>), "bad escape"},
        {refusal("65536", readAs<std::uint16_t>), "value out of range"},
        {refusal("18446744073709551616", readAs<std::uint64_t>), "value out of range"},
        {refusal("-1", readAs<std::uint32_t>), "expected an unsigned number at '-1'"},
        {refusal("True", readAs<bool>), "expected true or false at 'True'"},
        {refusal("key: value", [](Wex::CharRange& r) { r.require("other", "attr"); }),
         R"(expected "other" at 'key: value')"},
        {refusal("; rest", [](Wex::CharRange& r) { r.token(";", "attr"); }), "expected a value at '; rest'"},
        {refusal("; rest", [](Wex::CharRange& r) { r.checkAllDataConsumed("attr"); }), "text left over: '; rest'"},
    };
    for (auto const& [message, expected] : cases) EXPECT_NE(message.find(expected), std::string::npos) << message;
}

} // namespace
