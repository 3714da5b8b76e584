// Addresses: text forms, readers and the edges between families.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Kivu/IpGenAddr.h"

namespace {

using Kivu::IpGenAddr;

IpGenAddr addr(std::string_view s) { return *IpGenAddr::fromString(s); }

// writeText into a buffer of exactly kMaxTextLength with a guard byte after it.
std::string written(IpGenAddr const& a) {
    constexpr std::size_t max = IpGenAddr::kMaxTextLength;
    char buf[max + 1];
    buf[max] = '#';
    char const* end = a.writeText(buf);
    EXPECT_EQ(buf[max], '#') << "past kMaxTextLength";
    return std::string(buf, std::min<std::size_t>(std::size_t(end - buf), max));
}

TEST(Address, ReadsBothFamiliesAndNothingElse) {
    EXPECT_EQ(addr("FD00:0:0:14::1").stringValue(), "fd00:0:0:14::1");
    using namespace std::string_view_literals;
    // The C reader would stop at a NUL and take what comes before it.
    for (auto bad : {"256.1.1.1"sv, "1.2.3.4 "sv, "localhost"sv, "1.2.3.4\0junk"sv, "::1\0"sv, "\0"sv, ""sv,
                     "0000:0000:0000:0000:0000:0000:0000:0000:0000:0000"sv})
        EXPECT_FALSE(IpGenAddr::fromString(bad)) << bad.size() << " bytes: " << bad;
}

TEST(Address, WritesTheCLibraryTextWithinItsMaximumLength) {
    std::vector<std::string> texts = {"1:22:333:4444:a:bc:def:f00f", "fd00:0:0:14::3e7", "::ffff:1.2.3.4",
                                      "::1.2.3.4", "::ffff:0.0.0.0", "::ffff:0:1.2.3.4", "::", "::1", "1::"};
    // Words of 0, 1 and ffff in every arrangement: each placement of zero runs, ties between runs,
    // and both dotted IPv4 tails.
    for (int code = 0; code < 6561; ++code) {
        unsigned w[8];
        for (int i = 0, c = code; i < 8; ++i, c /= 3) w[i] = c % 3 == 0 ? 0 : c % 3 == 1 ? 1 : 0xffff;
        texts.push_back(fmt::format("{:x}:{:x}:{:x}:{:x}:{:x}:{:x}:{:x}:{:x}", w[0], w[1], w[2], w[3], w[4], w[5],
                                    w[6], w[7]));
    }
    for (unsigned v = 0; v < 256; ++v) texts.push_back(fmt::format("{}.{}.{}.{}", v, 255 - v, v / 16, v % 10));
    for (std::string const& text : texts) {
        IpGenAddr const a = addr(text);
        char expected[INET6_ADDRSTRLEN];
        int const family = a.family() == IpGenAddr::Family::ip6 ? AF_INET6 : AF_INET;
        inet_ntop(family, a.bytes().data(), expected, sizeof expected);
        EXPECT_EQ(written(a), expected) << text;
        EXPECT_EQ(a.stringValue(), expected) << text;
    }
    EXPECT_EQ(written(addr("1111:2222:3333:4444:5555:6666:7777:8888")).size(), IpGenAddr::kMaxTextLength);
}

TEST(Address, UnspecifiedIsAFamilyOfItsOwnReadAndPrintedAsSuch) {
    IpGenAddr const none;
    EXPECT_TRUE(none.isUnspecified());
    EXPECT_EQ(IpGenAddr(0), none);
    EXPECT_EQ(IpGenAddr(AF_INET), addr("0.0.0.0"));
    EXPECT_EQ(IpGenAddr(AF_INET6), addr("::"));
    EXPECT_EQ(Kivu::valueToStrep(none), "unspecified");
    EXPECT_EQ(written(none), "0.0.0.0");
    // Ordered by family, then by bytes.
    EXPECT_LT(none, addr("0.0.0.0"));
    EXPECT_LT(addr("10.0.0.2"), addr("10.0.0.10"));
    EXPECT_LT(addr("255.255.255.255"), addr("::"));
}

} // namespace
