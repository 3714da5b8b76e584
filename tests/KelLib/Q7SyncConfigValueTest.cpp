// ListenConfig and PathSubscribeConfig: truth, equality, hash, order, text form, derived strings, reflection.
#include <array>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "KelLib/Q7SyncContainer.h"
#include "KelLib/Q7SyncListenConfig.h"
#include "KelLib/Q7SyncSubscribeRequest.h"
#include "Wex/Entity.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {
namespace {

namespace F = ::Q7Sync::WexUtils;

Kivu::IpGenAddr addr(std::string_view text) { return Kivu::IpGenAddr::fromString(text).value(); }

std::string replaced(std::string text, std::string const& from, std::string const& to) {
    auto const at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::string const kListen = "Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.7, 'port': 4711})";
std::string const kSubscribe =
    "Value('Kel::Q7Sync::PathSubscribeConfig', ** {'remoteAddr': 10.1.2.3, 'remotePort': 4000, "
    "'remotePath': 'agent/state', 'syncContainerKey': 'k', 'flags': WRITE|RELIABLE, "
    "'remoteAgentKey': '10.1.2.3:4000', 'localUri': '/q7/remote/10.1.2.3:4000/k/syncAttribute', "
    "'remoteUri': '10.1.2.3:4000/agent/state'})";

// The example with one field changed (from, to), and whether that orders it after the example. The
// derived strings are taken from the text as they stand.
std::tuple<char const*, char const*, bool> const kVariants[] = {
    {"10.1.2.3,", "10.1.2.4,", true},
    {"10.1.2.3,", "::ffff:10.1.2.3,", true},
    {"4000,", "4001,", true},
    {"'agent/state'", "'agent/stat'", false},
    {"'k'", "'j'", false},
    {"WRITE|RELIABLE", "0x80", true},  // flags compare as unsigned numbers
    {"'10.1.2.3:4000'", "'1'", false},
    {"'/q7/remote/10.1.2.3:4000/k/syncAttribute'", "'/z'", true},
    {"'10.1.2.3:4000/agent/state'", "'10.1.2.3:4000/agent/statf'", true},
};

// Texts of distinct values, the default's first.
template <class T>
std::vector<std::string> samples();

template <>
std::vector<std::string> samples<ListenConfig>() {
    std::vector<std::string> texts = {"Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': unspecified, 'port': 0})",
                                      kListen};
    // Apart by the port, by the address, by the family alone; the any-address is an address.
    for (char const* value : {"192.0.2.7, 'port': 4712", "192.0.2.8, 'port': 4711", "unspecified, 'port': 80",
                              "0.0.0.0, 'port': 0", "::, 'port': 0", "2001:db8::1, 'port': 65535"})
        texts.push_back(replaced(kListen, "192.0.2.7, 'port': 4711", value));
    return texts;
}

template <>
std::vector<std::string> samples<PathSubscribeConfig>() {
    std::vector<std::string> texts = {
        "Value('Kel::Q7Sync::PathSubscribeConfig', ** {'remoteAddr': unspecified, 'remotePort': 0, "
        "'remotePath': '', 'syncContainerKey': '', 'flags': NONE, 'remoteAgentKey': '', 'localUri': '', "
        "'remoteUri': ''})",
        R"(Value('Kel::Q7Sync::PathSubscribeConfig', ** {'remoteAddr': unspecified, 'remotePort': 4294967295, )"
        R"('remotePath': 'it\'s a \\ path\x0a', 'syncContainerKey': 'k\'}', )"
        R"('flags': WRITE|RELIABLE|SNAPSHOT|ORDERED|SEED|0x20|0x40|0x80, 'remoteAgentKey': '', 'localUri': '', )"
        R"('remoteUri': ''}))",
        kSubscribe,
    };
    for (auto const& [from, to, after] : kVariants) texts.push_back(replaced(kSubscribe, from, to));
    return texts;
}

template <class T>
class ConfigValueTest : public ::testing::Test {};
using ConfigTypes = ::testing::Types<ListenConfig, PathSubscribeConfig>;
TYPED_TEST_SUITE(ConfigValueTest, ConfigTypes);

TYPED_TEST(ConfigValueTest, SamplesReadBackAsTheyPrintAndOnlyTheDefaultIsFalse) {
    using T = TypeParam;
    std::vector<std::string> const texts = samples<T>();
    std::vector<T> values;
    for (std::string const& text : texts) {
        SCOPED_TRACE(text);
        // Followed by more text, parsing stops at the end of the value; as a whole string nothing may follow.
        std::string const followed = text + ", next";
        Wex::CharRange range(followed);
        T const value(range);
        EXPECT_EQ(range.remaining(), ", next");
        EXPECT_THROW(Wex::fromString<T>(text + " "), Wex::RangeException);
        EXPECT_EQ(valueToStrep(value), text);
        EXPECT_EQ(bool(value), !values.empty());
        Wex::Value const reflected = Wex::Value::of(value);
        EXPECT_EQ(reflected.text(), text);
        EXPECT_EQ(reflected.hash(), value.hash(0));
        EXPECT_EQ(reflected.truth(), bool(value));
        values.push_back(value);
    }
    EXPECT_TRUE(T::isEq(T(), values[0]));
    // Each equal to itself alone, and no two (value, seed) pairs hash alike: every field and the seed count.
    std::set<std::uint32_t> hashes;
    for (std::size_t i = 0; i < values.size(); ++i) {
        for (std::size_t j = 0; j < values.size(); ++j)
            EXPECT_EQ(T::isEq(values[i], values[j]), i == j) << texts[i] << "\n" << texts[j];
        for (std::uint32_t seed : {0u, 1u, 0xffffffffu}) hashes.insert(values[i].hash(seed));
    }
    EXPECT_EQ(hashes.size(), 3 * values.size());
}

// The attribute named by the error of parsing `text`; a failed parse must leave the range alone.
template <class T>
std::string failingAttribute(std::string const& text) {
    Wex::CharRange range(text);
    try {
        T const value(range);
    } catch (Wex::RangeException const& e) {
        EXPECT_EQ(range.remaining(), text) << "a failed parse moved the range";
        return e.attribute();
    }
    return "<parsed>";
}

TEST(ConfigParseTest, EachFailureNamesItsAttribute) {
    std::vector<std::array<std::string, 3>> const listen = {
        {"Value('Kel::Q7Sync::ListenConfig'", "Value('Kel::Q7Sync::Other'", "Kel::Q7Sync::ListenConfig"},
        {"192.0.2.7, 'port': 4711", "nowhere, 'port': x", "hostAddr"},  // the address is read first
        {"4711", "65536", "port"},
        {"})", "}", "Kel::Q7Sync::ListenConfig"}};
    for (auto const& [from, to, attribute] : listen)
        EXPECT_EQ(failingAttribute<ListenConfig>(replaced(kListen, from, to)), attribute) << to;
    std::vector<std::array<std::string, 3>> const subscribe = {
        {"Value('Kel::Q7Sync::PathSubscribeConfig'", "Value('Kel::Q7Sync::ListenConfig'",
         "Kel::Q7Sync::PathSubscribeConfig"},
        {"10.1.2.3,", "10.1.2.300,", "remoteAddr"},
        {"4000", "4294967296", "remotePort"},
        {"'agent/state'", "agent/state", "remotePath"},
        // Each flag once by its name, a bit without a name in hexadecimal.
        {"WRITE|RELIABLE", "WRITE|LOUD", "flags"},
        {"WRITE|RELIABLE", "WRITE|WRITE", "flags"},
        {"WRITE|RELIABLE", "WRITE|0x02", "flags"},
        {"WRITE|RELIABLE", "NONE|WRITE", "flags"},
        {"WRITE|RELIABLE", "WRITE|", "flags"},
        {"'remoteUri': ", "'remoteURI': ", "remoteUri"}};
    for (auto const& [from, to, attribute] : subscribe)
        EXPECT_EQ(failingAttribute<PathSubscribeConfig>(replaced(kSubscribe, from, to)), attribute) << to;
}

TEST(ListenConfigTest, ReflectionShowsReadOnlyFieldsAndConstructsFromTheirNamesOnly) {
    Wex::WexType const* type = Wex::typeNode("Kel::Q7Sync::ListenConfig");
    ASSERT_EQ(type, Wex::wexTypeOf<ListenConfig>());
    EXPECT_TRUE(type->attrs().size() == 2 && type->attrs()[0].readOnly() && type->attrs()[1].readOnly());
    Wex::Args args{{"hostAddr", Wex::Value::of(addr("192.0.2.7"))}, {"port", Wex::Value::of<std::uint16_t>(4711)}};
    EXPECT_EQ(type->newValue(args).text(), kListen);
    EXPECT_THROW(type->newValue(args.add("backlog", Wex::Value::of<std::uint16_t>(5))), Wex::NewEntityArgsException);
}

class SubscribeConfigTest : public ::testing::Test {
protected:
    Wex::WexType const* const container = Wex::wexTypeOf<SyncContainer>();
    PathSubscribeConfig make(std::string_view a, std::uint32_t port, char const* path) const {
        return PathSubscribeConfig(addr(a), port, path, "k", container, F::WRITE() | F::RELIABLE());
    }
    PathSubscribeConfig const example = make("10.1.2.3", 4000, "agent/state");
};

TEST_F(SubscribeConfigTest, AnAddressDerivesTheAgentKeyAndBothUris) {
    EXPECT_EQ(valueToStrep(example), kSubscribe);
    // A leading "/" is not doubled, but the values stay apart by their remotePath.
    PathSubscribeConfig const rooted = make("10.1.2.3", 4000, "/agent/state");
    EXPECT_EQ(rooted.remoteUri(), example.remoteUri());
    EXPECT_FALSE(PathSubscribeConfig::isEq(rooted, example));
    EXPECT_EQ(make("2001:db8::1", 9, "p").localUri(), "/q7/remote/2001:db8::1:9/k/syncAttribute");
    // Every digit count of the port, with the shortest and longest address of each family.
    for (char const* a : {"0.0.0.0", "255.255.255.255", "::1", "1111:2222:3333:4444:5555:6666:7777:8888"})
        for (std::uint32_t port : {0u, 9u, 10u, 99u, 100u, 65535u, 4294967295u})
            EXPECT_EQ(make(a, port, "p").remoteAgentKey().view(), addr(a).stringValue() + ":" + std::to_string(port));
    PathSubscribeConfig const write =
        PathSubscribeConfig::createWriteSyncConfig(addr("10.1.2.3"), Kivu::Port(65535), "k", container, F::WRITE());
    EXPECT_EQ(write.remoteUri(), "10.1.2.3:65535/q7/writeSync/k/syncAttribute");

    // Without an address nothing is derived or checked, and any field makes the value true.
    PathSubscribeConfig const unaddressed(Kivu::IpGenAddr(), 0, "", "k", Wex::wexTypeOf<Wex::Dir>(), {});
    EXPECT_TRUE(bool(unaddressed));
    EXPECT_TRUE(unaddressed.remoteAgentKey().empty() && unaddressed.localUri().empty() &&
                unaddressed.remoteUri().empty());
    EXPECT_FALSE(bool(PathSubscribeConfig(Kivu::IpGenAddr(), 0, "", "", nullptr, {})));
}

TEST_F(SubscribeConfigTest, RefusesWhatCannotBeSubscribed) {
    Kivu::IpGenAddr const a = addr("10.1.2.3");
    for (auto const& [build, attribute] : std::vector<std::pair<std::function<void()>, std::string>>{
             {[&] { PathSubscribeConfig(a, 1, "p", "k", Wex::wexTypeOf<Wex::Dir>(), {}); }, "syncContainerType"},
             {[&] { PathSubscribeConfig(a, 1, "p", "k", nullptr, {}); }, "syncContainerType"},
             {[&] { PathSubscribeConfig::createWithContainerTypeString(a, 1, "p", "k", "Kel::NoSuchType", {}); },
              "syncContainerTypeName"},
             {[&] { PathSubscribeConfig::createWriteSyncConfig(a, Kivu::Port(1), "k", container, F::RELIABLE()); },
              "flags"}}) {
        try {
            build();
            ADD_FAILURE() << "built without " << attribute;
        } catch (Wex::NewEntityArgsException const& e) {
            EXPECT_EQ(e.attribute(), attribute);
        }
    }
    PathSubscribeConfig const byName = PathSubscribeConfig::createWithContainerTypeString(
        a, 4000, "agent/state", "k", "Kel::Q7Sync::SyncContainer", F::WRITE() | F::RELIABLE());
    EXPECT_TRUE(PathSubscribeConfig::isEq(byName, example));
}

TEST_F(SubscribeConfigTest, OrderingIsDecidedByTheFirstFieldThatDiffers) {
    PathSubscribeConfig const parsed = Wex::fromString<PathSubscribeConfig>(kSubscribe);
    for (auto const& [from, to, after] : kVariants) {
        PathSubscribeConfig const other = Wex::fromString<PathSubscribeConfig>(replaced(kSubscribe, from, to));
        EXPECT_EQ(parsed < other, after) << to;
        EXPECT_EQ(other < parsed, !after) << to;
    }
    EXPECT_FALSE(parsed < Wex::fromString<PathSubscribeConfig>(kSubscribe));
    // The container type is neither printed nor parsed, but counts: no type orders before any type.
    EXPECT_EQ(valueToStrep(parsed), valueToStrep(example));
    EXPECT_NE(parsed.hash(0), example.hash(0));
    EXPECT_TRUE(parsed < example);
    EXPECT_FALSE(example < parsed);
}

} // namespace
} // namespace Kel::Q7Sync
