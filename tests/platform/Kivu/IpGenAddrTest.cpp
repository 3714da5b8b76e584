// Addresses and request flags: text forms, readers and the edges between families.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Kivu/IpGenAddr.h"
#include "Q7Sync/Flags.h"
#include "Wex/CharRange.h"

namespace {

Kivu::IpGenAddr addr(std::string_view s) { return *Kivu::IpGenAddr::fromString(s); }

TEST(Address, ReadsAndWritesBothFamilies) {
    EXPECT_EQ(addr("10.1.2.3").stringValue(), "10.1.2.3");
    EXPECT_EQ(addr("10.1.2.3").family(), Kivu::IpGenAddr::Family::ip4);
    EXPECT_EQ(addr("FD00:0:0:14::1").stringValue(), "fd00:0:0:14::1");
    EXPECT_EQ(addr("::ffff:1.2.3.4").family(), Kivu::IpGenAddr::Family::ip6);
    for (auto bad : {"256.1.1.1", "1.2.3", "1.2.3.4 ", "fd00::1::2", "", "localhost", "1.2.3.4/8"})
        EXPECT_FALSE(Kivu::IpGenAddr::fromString(bad)) << bad;
    using namespace std::string_view_literals;
    for (auto bad : {"1.2.3.4\0junk"sv, "::1\0"sv, "\0"sv})
        EXPECT_FALSE(Kivu::IpGenAddr::fromString(bad)) << "with a NUL, " << bad.size() << " bytes";
}

// What the C library writes for the address, the reference for our own writer.
std::string cLibraryText(Kivu::IpGenAddr const& a) {
    char buf[INET6_ADDRSTRLEN];
    int const family = a.family() == Kivu::IpGenAddr::Family::ip6 ? AF_INET6 : AF_INET;
    return inet_ntop(family, a.bytes().data(), buf, sizeof buf);
}

// writeText into a buffer of exactly kMaxTextLength, a guard byte after it.
std::string written(Kivu::IpGenAddr const& a) {
    constexpr std::size_t max = Kivu::IpGenAddr::kMaxTextLength;
    char buf[max + 1];
    buf[max] = '#';
    char const* end = a.writeText(buf);
    EXPECT_EQ(buf[max], '#') << "past kMaxTextLength";
    EXPECT_LE(end - buf, std::ptrdiff_t(max));
    return std::string(buf, std::min<std::size_t>(std::size_t(end - buf), max));
}

TEST(Address, WritesTheCLibraryTextWithinItsMaximumLength) {
    std::vector<std::string> texts = {"1:22:333:4444:a:bc:def:f00f", "fd00:0:0:14::3e7", "::ffff:1.2.3.4",
                                      "::1.2.3.4", "::ffff:0.0.0.0", "::ffff:0:1.2.3.4", "::", "::1", "1::"};
    // Words of 0, 1 and ffff in every arrangement: each placement of zero runs, ties between
    // runs, and both dotted IPv4 tails.
    for (int code = 0; code < 6561; ++code) {
        unsigned w[8];
        for (int i = 0, c = code; i < 8; ++i, c /= 3) w[i] = c % 3 == 0 ? 0 : c % 3 == 1 ? 1 : 0xffff;
        texts.push_back(fmt::format("{:x}:{:x}:{:x}:{:x}:{:x}:{:x}:{:x}:{:x}", w[0], w[1], w[2], w[3], w[4], w[5],
                                    w[6], w[7]));
    }
    for (unsigned v = 0; v < 256; ++v) texts.push_back(fmt::format("{}.{}.{}.{}", v, 255 - v, v / 16, v % 10));
    for (std::string const& text : texts) {
        Kivu::IpGenAddr const a = addr(text);
        std::string const expected = cLibraryText(a);
        EXPECT_EQ(written(a), expected) << text;
        EXPECT_EQ(a.stringValue(), expected) << text;
    }
    EXPECT_EQ(written(addr("1111:2222:3333:4444:5555:6666:7777:8888")).size(), Kivu::IpGenAddr::kMaxTextLength);
    EXPECT_EQ(written(Kivu::IpGenAddr()), "0.0.0.0");
}

TEST(Address, UnspecifiedAddressIsItsOwnValue) {
    Kivu::IpGenAddr none;
    EXPECT_TRUE(none.isUnspecified());
    EXPECT_EQ(Kivu::IpGenAddr(0), none);
    EXPECT_NE(Kivu::IpGenAddr(AF_INET), none);  // 0.0.0.0 is a real IPv4 address
    EXPECT_EQ(Kivu::valueToStrep(none), "unspecified");
    EXPECT_EQ(none.stringValue(), "0.0.0.0");
    Wex::CharRange r("unspecified, x");
    EXPECT_EQ(Kivu::sequenceToValue(r), none);
    EXPECT_EQ(r.remaining(), ", x");
}

TEST(Address, OrdersByFamilyThenBytesAndHashesEqualValuesEqually) {
    EXPECT_LT(Kivu::IpGenAddr(), addr("0.0.0.0"));
    EXPECT_LT(addr("10.0.0.1"), addr("10.0.0.2"));
    EXPECT_LT(addr("255.255.255.255"), addr("::"));
    EXPECT_EQ(Kivu::Ip6Addr::hash(addr("10.0.0.1")), Kivu::Ip6Addr::hash(addr("10.0.0.1")));
    EXPECT_NE(Kivu::Ip6Addr::hash(addr("10.0.0.1")), Kivu::Ip6Addr::hash(addr("10.0.0.2")));
}

TEST(Address, ReaderLeavesTheRangeUntouchedOnFailure) {
    Wex::CharRange r("10.0.0.300})");
    EXPECT_THROW(Kivu::sequenceToValue(r), Wex::RangeException);
    EXPECT_EQ(r.remaining(), "10.0.0.300})");
}

TEST(Flags, TextFormRoundTripsEveryValue) {
    for (unsigned v = 0; v < 256; ++v) {
        auto f = Q7Sync::WexUtils::SyncRequestFlags(v);
        std::string text = Q7Sync::valueToStrep(f);
        Wex::CharRange r(text);
        EXPECT_EQ(Q7Sync::sequenceToValue(r), f) << text;
        EXPECT_TRUE(r.empty());
    }
    EXPECT_EQ(Q7Sync::valueToStrep(Q7Sync::WexUtils::SyncRequestFlags(0x15)), "WRITE|SNAPSHOT|SEED");
    EXPECT_EQ(Q7Sync::valueToStrep(Q7Sync::WexUtils::SyncRequestFlags(0)), "NONE");
}

TEST(Flags, ReaderRefusesUnknownRepeatedAndDanglingNames) {
    for (auto bad : {"READ", "WRITE|WRITE", "WRITE|", "|WRITE", "0x01", "write", ""}) {
        Wex::CharRange r(bad);
        EXPECT_THROW(Q7Sync::sequenceToValue(r), Wex::RangeException) << bad;
    }
}

TEST(CharRange, StringsRoundTripThroughTheirQuotedForm) {
    for (std::string s : {std::string(""), std::string("a'b\\c"), std::string("tab\there"), std::string("\x01\xff", 2)}) {
        std::string text = Wex::valueToStrep(s);
        Wex::CharRange r(text);
        EXPECT_EQ(r.deserializeAttr<std::string>("s"), s);
        EXPECT_TRUE(r.empty());
    }
}

TEST(CharRange, ErrorsNameTheAttribute) {
    Wex::CharRange r("70000");
    try {
        r.deserializeAttr<std::uint16_t>("port");
        FAIL();
    } catch (Wex::RangeException const& e) {
        EXPECT_EQ(e.attribute(), "port");
    }
    Wex::CharRange q("'open");
    EXPECT_THROW(q.deserializeAttr<Lumo::String>("path"), Wex::RangeException);
    Wex::CharRange big("18446744073709551616");
    EXPECT_THROW(big.deserializeAttr<std::uint64_t>("n"), Wex::RangeException);
    Wex::CharRange max("18446744073709551615");
    EXPECT_EQ(max.deserializeAttr<std::uint64_t>("n"), 18446744073709551615ull);
}

} // namespace
