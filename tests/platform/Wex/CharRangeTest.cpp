// The framework's text reader: what it reads, and the clear error that leaves the cursor in place
// for everything it cannot.
#include "Wex/CharRange.h"

#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "Lumo/String.h"
#include "Wex/Exception.h"

namespace {

// The error of reading `text` as T, with the cursor checked to be where it began.
template <class T>
std::string refusal(std::string_view text) {
    Wex::CharRange range(text);
    try {
        range.deserializeAttr<T>("attr");
    } catch (Wex::RangeException const& e) {
        EXPECT_EQ(range.remaining(), text) << "a failed read moved the cursor";
        EXPECT_EQ(e.attribute(), "attr");
        return e.what();
    }
    ADD_FAILURE() << "read '" << text << "' without error";
    return {};
}

TEST(CharRangeTest, QuotedStringsReadBackEveryByteValueTheTextFormWrites) {
    std::string all;
    for (int c = 0; c < 256; ++c) all.push_back(static_cast<char>(c));
    std::string const text = Wex::valueToStrep(all) + ", next";
    Wex::CharRange range(text);
    EXPECT_EQ(range.deserializeAttr<std::string>("attr"), all);
    EXPECT_EQ(range.remaining(), ", next");
}

TEST(CharRangeTest, HexEscapesTakeEitherCase) {
    Wex::CharRange range(R"('\x4a\x4A\x7e\x7E')");
    EXPECT_EQ(range.deserializeAttr<Lumo::String>("attr"), "JJ~~");
    EXPECT_TRUE(range.empty());
}

TEST(CharRangeTest, MalformedQuotedStringsAreRefusedWithWhatIsWrong) {
    EXPECT_NE(refusal<std::string>("plain").find("expected a quoted string"), std::string::npos);
    EXPECT_NE(refusal<std::string>("").find("expected a quoted string at end of text"), std::string::npos);
    EXPECT_NE(refusal<std::string>("'open").find("unterminated string"), std::string::npos);
    EXPECT_NE(refusal<std::string>("'open\\").find("unterminated escape"), std::string::npos);
    EXPECT_NE(refusal<std::string>(R"('a\qb')").find(R"(bad escape at '\qb')"), std::string::npos);
    EXPECT_NE(refusal<std::string>(R"('\xg0')").find("bad escape"), std::string::npos);
    EXPECT_NE(refusal<std::string>(R"('\x0G')").find("bad escape"), std::string::npos);
    EXPECT_NE(refusal<std::string>(R"('\x4')").find("bad escape"), std::string::npos);
}

TEST(CharRangeTest, UnsignedNumbersStopAtTheTypesMaximum) {
    Wex::CharRange range("65535,65536");
    EXPECT_EQ(range.deserializeAttr<std::uint16_t>("attr"), 65535u);
    range.require(",", "comma");
    EXPECT_NE(refusal<std::uint16_t>(range.remaining()).find("value out of range"), std::string::npos);
    Wex::CharRange big("18446744073709551615");
    EXPECT_EQ(big.deserializeAttr<std::uint64_t>("attr"), UINT64_MAX);
    EXPECT_NE(refusal<std::uint64_t>("18446744073709551616").find("value out of range"), std::string::npos);
    EXPECT_NE(refusal<std::uint32_t>("-1").find("expected an unsigned number at '-1'"), std::string::npos);
}

TEST(CharRangeTest, BoolsReadTheirTextFormAndNothingElse) {
    Wex::CharRange range("true,false");
    EXPECT_TRUE(range.deserializeAttr<bool>("attr"));
    range.require(",", "comma");
    EXPECT_FALSE(range.deserializeAttr<bool>("attr"));
    EXPECT_NE(refusal<bool>("True").find("expected true or false at 'True'"), std::string::npos);
    EXPECT_NE(refusal<bool>("1").find("expected true or false"), std::string::npos);
}

TEST(CharRangeTest, LiteralsTokensAndLeftOverTextAreRefusedNamingTheAttribute) {
    Wex::CharRange range("key: value; rest");
    EXPECT_THROW(range.require("other", "literal"), Wex::RangeException);
    EXPECT_EQ(range.remaining(), "key: value; rest");
    range.require("key: ", "literal");
    EXPECT_EQ(range.token(";", "value"), "value");
    try {
        range.token(";", "empty");
        ADD_FAILURE() << "an empty token was read";
    } catch (Wex::RangeException const& e) {
        EXPECT_EQ(e.attribute(), "empty");
        EXPECT_NE(std::string(e.what()).find("expected a value at '; rest'"), std::string::npos);
    }
    try {
        range.checkAllDataConsumed("whole");
        ADD_FAILURE() << "text left over was accepted";
    } catch (Wex::RangeException const& e) {
        EXPECT_EQ(e.attribute(), "whole");
        EXPECT_NE(std::string(e.what()).find("text left over: '; rest'"), std::string::npos);
    }
    range.advance(100);
    EXPECT_NO_THROW(range.checkAllDataConsumed());
}

} // namespace
