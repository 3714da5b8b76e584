// PathSubscribeConfig: derived URIs, refusals, equality, ordering, hash, text form and parsing.
#include "KelLib/Q7SyncSubscribeRequest.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelLib/Q7SyncContainer.h"
#include "Wex/Entity.h"
#include "Wex/Hash.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {
namespace {

using Flags = PathSubscribeConfig::SyncRequestFlags;
namespace F = ::Q7Sync::WexUtils;

Kivu::IpGenAddr addr(std::string_view text) { return Kivu::IpGenAddr::fromString(text).value(); }

// The attribute named by the range error that parsing `text` as a whole string raises.
std::string failingAttribute(std::string const& text) {
    try {
        Wex::fromString<PathSubscribeConfig>(text);
    } catch (Wex::RangeException const& e) {
        return e.attribute();
    }
    return "<parsed>";
}

// Replaces the one occurrence of `from` in `text`.
std::string replaced(std::string text, std::string const& from, std::string const& to) {
    auto const at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

class SubscribeConfigTest : public ::testing::Test {
protected:
    Wex::WexType const* const container = Wex::wexTypeOf<SyncContainer>();
    PathSubscribeConfig make(std::string_view a, std::uint32_t port, char const* path, char const* key,
                             Flags flags = F::RELIABLE()) const {
        return PathSubscribeConfig(addr(a), port, path, key, container, flags);
    }
    PathSubscribeConfig const example = make("10.1.2.3", 4000, "agent/state", "k", F::WRITE() | F::RELIABLE());
    std::string const exampleText =
        "Value('Kel::Q7Sync::PathSubscribeConfig', ** {'remoteAddr': 10.1.2.3, 'remotePort': 4000, "
        "'remotePath': 'agent/state', 'syncContainerKey': 'k', 'flags': WRITE|RELIABLE, "
        "'remoteAgentKey': '10.1.2.3:4000', 'localUri': '/q7/remote/10.1.2.3:4000/k/syncAttribute', "
        "'remoteUri': '10.1.2.3:4000/agent/state'})";
};

TEST_F(SubscribeConfigTest, WorkedExampleDerivesAgentKeyAndBothUris) {
    ASSERT_NE(container, nullptr);
    EXPECT_EQ(example.remoteAgentKey(), "10.1.2.3:4000");
    EXPECT_EQ(example.localUri(), "/q7/remote/10.1.2.3:4000/k/syncAttribute");
    EXPECT_EQ(example.remoteUri(), "10.1.2.3:4000/agent/state");

    // A leading "/" is not doubled, but the values stay apart by their remotePath.
    PathSubscribeConfig const rooted = make("10.1.2.3", 4000, "/agent/state", "k", F::WRITE() | F::RELIABLE());
    EXPECT_EQ(rooted.remoteUri(), example.remoteUri());
    EXPECT_EQ(rooted.localUri(), example.localUri());
    EXPECT_FALSE(PathSubscribeConfig::isEq(rooted, example));

    PathSubscribeConfig const v6 = make("2001:db8::1", 9, "p", "key");
    EXPECT_EQ(v6.remoteAgentKey(), "2001:db8::1:9");
    EXPECT_EQ(v6.localUri(), "/q7/remote/2001:db8::1:9/key/syncAttribute");
    EXPECT_EQ(v6.remoteUri(), "2001:db8::1:9/p");
}

// The agent key is "{}:{}" of the address text and the port: every digit count of the port,
// with the shortest and longest address of each family.
TEST_F(SubscribeConfigTest, AgentKeyJoinsAddressTextAndEveryDigitOfThePort) {
    for (char const* a : {"0.0.0.0", "255.255.255.255", "::1", "1111:2222:3333:4444:5555:6666:7777:8888"})
        for (std::uint32_t port : {0u, 9u, 10u, 99u, 100u, 65535u, 4294967295u})
            EXPECT_EQ(make(a, port, "p", "k").remoteAgentKey().view(), addr(a).stringValue() + ":" + std::to_string(port));
}

TEST_F(SubscribeConfigTest, WriteSyncConfigTakesItsPathFromTheKey) {
    PathSubscribeConfig const w =
        PathSubscribeConfig::createWriteSyncConfig(addr("10.1.2.3"), Kivu::Port(4000), "k", container, F::WRITE());
    EXPECT_EQ(w.remotePath(), "/q7/writeSync/k/syncAttribute");
    EXPECT_EQ(w.remotePort(), 4000u);
    EXPECT_EQ(w.localUri(), example.localUri());
    EXPECT_EQ(w.remoteUri(), "10.1.2.3:4000/q7/writeSync/k/syncAttribute");
    EXPECT_EQ(w.syncContainerType(), container);
    EXPECT_EQ(w.flags(), F::WRITE());
    // The full port range survives the widening to 32 bits.
    EXPECT_EQ(PathSubscribeConfig::createWriteSyncConfig(addr("10.1.2.3"), Kivu::Port(65535), "k", container,
                                                         F::WRITE() | F::SEED())
                  .remoteAgentKey(),
              "10.1.2.3:65535");
}

TEST_F(SubscribeConfigTest, RefusesWhatCannotBeSubscribed) {
    auto attributeOf = [](auto&& build) {
        try {
            build();
        } catch (Wex::NewEntityArgsException const& e) {
            return e.attribute();
        }
        return std::string("<built>");
    };
    // A registered type that is no container, and no type at all.
    EXPECT_EQ(attributeOf([&] { PathSubscribeConfig(addr("10.1.2.3"), 1, "p", "k", Wex::wexTypeOf<Wex::Dir>(), {}); }),
              "syncContainerType");
    EXPECT_EQ(attributeOf([&] { PathSubscribeConfig(addr("10.1.2.3"), 1, "p", "k", nullptr, {}); }),
              "syncContainerType");
    EXPECT_EQ(attributeOf([&] {
                  PathSubscribeConfig::createWithContainerTypeString(addr("10.1.2.3"), 1, "p", "k",
                                                                     "Kel::Q7Sync::NoSuchContainer", {});
              }),
              "syncContainerTypeName");
    EXPECT_EQ(attributeOf([&] {
                  PathSubscribeConfig::createWriteSyncConfig(addr("10.1.2.3"), Kivu::Port(1), "k", container,
                                                             F::RELIABLE() | F::SEED());
              }),
              "flags");

    PathSubscribeConfig const byName = PathSubscribeConfig::createWithContainerTypeString(
        addr("10.1.2.3"), 4000, "agent/state", "k", "Kel::Q7Sync::SyncContainer", F::WRITE() | F::RELIABLE());
    EXPECT_TRUE(PathSubscribeConfig::isEq(byName, example));
}

TEST_F(SubscribeConfigTest, UnspecifiedAddressDerivesNothingAndOnlyTheDefaultIsFalse) {
    EXPECT_FALSE(bool(PathSubscribeConfig()));
    EXPECT_FALSE(bool(PathSubscribeConfig(Kivu::IpGenAddr(), 0, "", "", nullptr, {})));
    EXPECT_TRUE(bool(example));

    // Without an address no type is checked and no URI is made; any other field makes it true.
    std::vector<PathSubscribeConfig> const oneFieldSet = {
        PathSubscribeConfig(Kivu::IpGenAddr(), 1, "", "", nullptr, {}),
        PathSubscribeConfig(Kivu::IpGenAddr(), 0, "p", "", nullptr, {}),
        PathSubscribeConfig(Kivu::IpGenAddr(), 0, "", "k", nullptr, {}),
        PathSubscribeConfig(Kivu::IpGenAddr(), 0, "", "", Wex::wexTypeOf<Wex::Dir>(), {}),
        PathSubscribeConfig(Kivu::IpGenAddr(), 0, "", "", nullptr, F::SEED()),
    };
    for (PathSubscribeConfig const& c : oneFieldSet) {
        EXPECT_TRUE(bool(c)) << c;
        EXPECT_TRUE(c.remoteAgentKey().empty() && c.localUri().empty() && c.remoteUri().empty()) << c;
    }
    // The IPv4 any-address is an address: it derives.
    EXPECT_EQ(make("0.0.0.0", 1, "p", "k").remoteAgentKey(), "0.0.0.0:1");
}

TEST_F(SubscribeConfigTest, ReflectionTellsTheHashWithSeedZeroAndTheTruthValue) {
    Wex::WexAttr const& create = Wex::wexTypeOf<PathSubscribeConfig>()->attrOrThrow("createWithContainerTypeString");
    auto const made = [&](Kivu::IpGenAddr const& a, std::uint32_t port) {
        return create.call(nullptr, {{"remoteAddr", Wex::Value::of(a)},
                                     {"remotePort", Wex::Value::of(port)},
                                     {"remotePath", Wex::Value::of(Lumo::String("agent/state"))},
                                     {"syncContainerKey", Wex::Value::of(Lumo::String("k"))},
                                     {"syncContainerTypeName", Wex::Value::of(Lumo::String("Kel::Q7Sync::SyncContainer"))},
                                     {"flags", Wex::Value::of(F::WRITE() | F::RELIABLE())}});
    };
    EXPECT_EQ(made(addr("10.1.2.3"), 4000).hash(), example.hash(0));
    EXPECT_NE(made(addr("10.1.2.3"), 4001).hash(), example.hash(0));
    EXPECT_EQ(made(addr("10.1.2.3"), 4000).truth(), true);
    EXPECT_EQ(Wex::Value::of(PathSubscribeConfig()).truth(), false);
    EXPECT_EQ(Wex::Value::of(PathSubscribeConfig()).hash(), PathSubscribeConfig().hash(0));
}

TEST_F(SubscribeConfigTest, EveryFieldTakesPartInEqualityAndHash) {
    PathSubscribeConfig const copy = example;
    EXPECT_TRUE(PathSubscribeConfig::isEq(copy, example));
    EXPECT_EQ(copy.hash(0), example.hash(0));
    EXPECT_EQ(copy.hash(77), example.hash(77));
    EXPECT_NE(example.hash(0), example.hash(77));

    Flags const flags = F::WRITE() | F::RELIABLE();
    // The derived strings cannot be set apart from the fields they come from except by text.
    PathSubscribeConfig const parsed = Wex::fromString<PathSubscribeConfig>(exampleText);
    std::vector<std::pair<char const*, PathSubscribeConfig>> const variants = {
        {"remoteAddr", make("10.1.2.4", 4000, "agent/state", "k", flags)},
        {"remoteAddr family", make("::ffff:10.1.2.3", 4000, "agent/state", "k", flags)},
        {"remotePort", make("10.1.2.3", 4001, "agent/state", "k", flags)},
        {"remotePath", make("10.1.2.3", 4000, "agent/stat", "k", flags)},
        {"syncContainerKey", make("10.1.2.3", 4000, "agent/state", "j", flags)},
        {"syncContainerType", parsed},
        {"flags", make("10.1.2.3", 4000, "agent/state", "k", F::WRITE())},
    };
    for (auto const& [field, other] : variants) {
        EXPECT_FALSE(PathSubscribeConfig::isEq(example, other)) << field;
        EXPECT_FALSE(PathSubscribeConfig::isEq(other, example)) << field;
        EXPECT_NE(example.hash(0), other.hash(0)) << field;
    }
    for (char const* derived : {"'10.1.2.3:4000'", "'/q7/remote/10.1.2.3:4000/k/syncAttribute'",
                                "'10.1.2.3:4000/agent/state'"}) {
        std::string const text = replaced(exampleText, derived, "'x'");
        PathSubscribeConfig const other = Wex::fromString<PathSubscribeConfig>(text);
        EXPECT_FALSE(PathSubscribeConfig::isEq(parsed, other)) << derived;
        EXPECT_NE(parsed.hash(0), other.hash(0)) << derived;
    }
}

// hash(seed) is Wex::Hash from the seed over the fields in order: the address by its Kivu hash,
// the port, the strings by their bytes, the container type by identity, the flags as 32 bits.
TEST_F(SubscribeConfigTest, HashFollowsTheFieldsInOrderThroughTheFrameworkHash) {
    auto expected = [](PathSubscribeConfig const& c, std::uint32_t seed) {
        Wex::Hash h(seed);
        h.hashMix(Kivu::Ip6Addr::hash(c.remoteAddr()));
        h.hashMix(std::uint32_t(c.remotePort()));
        h.hashMix(c.remotePath().view());
        h.hashMix(c.syncContainerKey().view());
        h.hashMix(reinterpret_cast<std::uint64_t>(c.syncContainerType()));
        h.hashMix(std::uint32_t(std::uint8_t(c.flags())));
        h.hashMix(c.remoteAgentKey().view());
        h.hashMix(c.localUri().view());
        h.hashMix(c.remoteUri().view());
        return h.result();
    };
    std::vector<std::pair<char const*, PathSubscribeConfig>> const configs = {
        {"IPv4, relative path", example},
        {"IPv6, rooted path", make("2001:db8::1", 9, "/agent/state", "key", F::SEED())},
        {"loopback, root only, no flags", make("127.0.0.1", 65535, "/", "k2", Flags{})},
        {"no container type", Wex::fromString<PathSubscribeConfig>(exampleText)},
        {"default", PathSubscribeConfig()},
    };
    for (auto const& [name, c] : configs)
        for (std::uint32_t seed : {0u, 1u, 77u, 0xffffffffu})
            EXPECT_EQ(c.hash(seed), expected(c, seed)) << name << ", seed " << seed;
}

TEST_F(SubscribeConfigTest, OrderingIsDecidedByTheFirstFieldThatDiffers) {
    auto expectLess = [](PathSubscribeConfig const& lo, PathSubscribeConfig const& hi, char const* why) {
        EXPECT_TRUE(lo < hi) << why;
        EXPECT_FALSE(hi < lo) << why;
    };
    // Later fields count for nothing once an earlier one differs.
    expectLess(make("10.0.0.1", 9999, "z", "z"), make("10.0.0.2", 1, "a", "a"), "remoteAddr");
    expectLess(make("10.0.0.1", 1, "z", "z"), make("10.0.0.1", 2, "a", "a"), "remotePort");
    expectLess(make("10.0.0.1", 1, "a", "z"), make("10.0.0.1", 1, "b", "a"), "remotePath");
    expectLess(make("10.0.0.1", 1, "a", "a", F::SEED()), make("10.0.0.1", 1, "a", "b", F::WRITE()),
               "syncContainerKey");
    // No type orders before any type.
    expectLess(PathSubscribeConfig(Kivu::IpGenAddr(), 1, "a", "a", nullptr, F::SEED()),
               PathSubscribeConfig(Kivu::IpGenAddr(), 1, "a", "a", container, F::WRITE()), "syncContainerType");
    // Flags compare as unsigned numbers: the unnamed top bit is the largest.
    expectLess(make("10.0.0.1", 1, "a", "a", F::WRITE()), make("10.0.0.1", 1, "a", "a", Flags(0x80)), "flags");

    PathSubscribeConfig const parsed = Wex::fromString<PathSubscribeConfig>(exampleText);
    expectLess(Wex::fromString<PathSubscribeConfig>(replaced(exampleText, "'10.1.2.3:4000'", "'1'")), parsed,
               "remoteAgentKey");
    expectLess(parsed, Wex::fromString<PathSubscribeConfig>(
                           replaced(exampleText, "'/q7/remote/10.1.2.3:4000/k/syncAttribute'", "'/z'")),
               "localUri");
    expectLess(parsed, Wex::fromString<PathSubscribeConfig>(
                           replaced(exampleText, "'10.1.2.3:4000/agent/state'", "'10.1.2.3:4000/agent/statf'")),
               "remoteUri");

    EXPECT_FALSE(example < example);
    PathSubscribeConfig const copy = example;
    EXPECT_FALSE(copy < example);
}

TEST_F(SubscribeConfigTest, TextFormRoundTripsEveryFieldButTheContainerType) {
    EXPECT_EQ(valueToStrep(example), exampleText);
    std::ostringstream os;
    os << example;
    EXPECT_EQ(os.str(), exampleText);
    EXPECT_EQ(valueToStrep(PathSubscribeConfig()),
              "Value('Kel::Q7Sync::PathSubscribeConfig', ** {'remoteAddr': unspecified, 'remotePort': 0, "
              "'remotePath': '', 'syncContainerKey': '', 'flags': NONE, 'remoteAgentKey': '', 'localUri': '', "
              "'remoteUri': ''})");
    // Two values apart only by their container type print alike.
    PathSubscribeConfig const typed(Kivu::IpGenAddr(), 1, "p", "k", container, {});
    PathSubscribeConfig const untyped(Kivu::IpGenAddr(), 1, "p", "k", nullptr, {});
    EXPECT_FALSE(PathSubscribeConfig::isEq(typed, untyped));
    EXPECT_EQ(valueToStrep(typed), valueToStrep(untyped));

    // Parsing gives back every printed field, and no container type.
    PathSubscribeConfig const back = Wex::fromString<PathSubscribeConfig>(exampleText);
    EXPECT_EQ(valueToStrep(back), exampleText);
    EXPECT_EQ(back.syncContainerType(), nullptr);
    EXPECT_FALSE(PathSubscribeConfig::isEq(back, example));

    // Values without a container type round-trip whole, awkward characters included.
    std::vector<PathSubscribeConfig> const withoutType = {
        PathSubscribeConfig(),
        PathSubscribeConfig(Kivu::IpGenAddr(), 4294967295u, "it's a \\ path\n", "k'}", nullptr, Flags(0xff)),
    };
    for (PathSubscribeConfig const& c : withoutType) {
        PathSubscribeConfig const parsed = Wex::fromString<PathSubscribeConfig>(valueToStrep(c));
        EXPECT_TRUE(PathSubscribeConfig::isEq(parsed, c)) << c;
        EXPECT_EQ(parsed.hash(0), c.hash(0)) << c;
    }
    // The derived strings are taken from the text, not derived again.
    PathSubscribeConfig const odd = Wex::fromString<PathSubscribeConfig>(
        replaced(exampleText, "'10.1.2.3:4000/agent/state'", "'elsewhere'"));
    EXPECT_EQ(odd.remoteUri(), "elsewhere");
}

TEST_F(SubscribeConfigTest, ParsingStopsAtTheEndOfTheValueAndAFailureMovesNothing) {
    std::string const followed = exampleText + ", next";
    Wex::CharRange range(followed);
    PathSubscribeConfig const parsed(range);
    EXPECT_EQ(range.remaining(), ", next");
    EXPECT_EQ(valueToStrep(parsed), exampleText);

    EXPECT_EQ(failingAttribute(exampleText + " "), "text");
    EXPECT_EQ(failingAttribute(exampleText + "})"), "text");

    std::string const broken = replaced(exampleText, "'flags': WRITE|RELIABLE", "'flags': WRITE|");
    Wex::CharRange bad(broken);
    EXPECT_THROW(PathSubscribeConfig{bad}, Wex::RangeException);
    EXPECT_EQ(bad.remaining(), broken);
}

TEST_F(SubscribeConfigTest, EachParseFailureNamesItsAttribute) {
    struct Case {
        std::string from, to, attribute;
    };
    std::vector<Case> const cases = {
        {"Value('Kel::Q7Sync::PathSubscribeConfig'", "Value('Kel::Q7Sync::ListenConfig'",
         "Kel::Q7Sync::PathSubscribeConfig"},
        {"'remoteAddr': 10.1.2.3", "'remoteAddr': 10.1.2.300", "remoteAddr"},
        {"'remoteAddr': 10.1.2.3", "'remoteAddr': ", "remoteAddr"},
        {"'remoteAddr': ", "'remoteaddr': ", "remoteAddr"},
        {"'remotePort': 4000", "'remotePort': -1", "remotePort"},
        {"'remotePort': 4000", "'remotePort': 4294967296", "remotePort"},
        {"'remotePath': 'agent/state'", "'remotePath': agent/state", "remotePath"},
        {"'syncContainerKey': 'k'", "'syncContainerKey': k", "syncContainerKey"},
        {"'flags': WRITE|RELIABLE", "'flags': WRITE|LOUD", "flags"},
        {"'flags': WRITE|RELIABLE", "'flags': WRITE|WRITE", "flags"},
        {"'flags': WRITE|RELIABLE", "'flags': ", "flags"},
        {"'remoteAgentKey': '10.1.2.3:4000'", "'remoteAgentKey': 10.1.2.3:4000", "remoteAgentKey"},
        {"'localUri': '/q7", "'localUri': /q7", "localUri"},
        {"'remoteUri': '10.1.2.3:4000/agent/state'", "'remoteUri': '10.1.2.3:4000/agent/state", "remoteUri"},
        {"'remoteUri': ", "'remoteURI': ", "remoteUri"},
        {"'})", "'}", "Kel::Q7Sync::PathSubscribeConfig"},
    };
    EXPECT_EQ(failingAttribute(exampleText), "<parsed>");
    for (Case const& c : cases)
        EXPECT_EQ(failingAttribute(replaced(exampleText, c.from, c.to)), c.attribute) << c.to;
}

} // namespace
} // namespace Kel::Q7Sync
