// ListenConfig: truth value, equality, hash, text form and parsing, reflection.
#include "KelLib/Q7SyncListenConfig.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Wex/Type.h"

namespace Kel::Q7Sync {
namespace {

Kivu::IpGenAddr addr(std::string_view text) { return Kivu::IpGenAddr::fromString(text).value(); }

// The attribute named by the range error that parsing `text` as a whole string raises.
std::string failingAttribute(std::string const& text) {
    try {
        Wex::fromString<ListenConfig>(text);
    } catch (Wex::RangeException const& e) {
        return e.attribute();
    }
    return "<parsed>";
}

class ListenConfigTest : public ::testing::Test {
protected:
    ListenConfig const v4{addr("192.0.2.7"), 4711};
    ListenConfig const v6{addr("2001:db8::1"), 65535};
    std::string const v4Text = "Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.7, 'port': 4711})";
};

TEST_F(ListenConfigTest, DefaultPrintsUnspecifiedAddressAndIsFalse) {
    ListenConfig const none;
    EXPECT_EQ(valueToStrep(none), "Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': unspecified, 'port': 0})");
    EXPECT_FALSE(bool(none));
    EXPECT_TRUE(ListenConfig::isEq(none, ListenConfig(Kivu::IpGenAddr(0), 0)));
}

TEST_F(ListenConfigTest, EitherFieldAloneMakesItTrue) {
    EXPECT_TRUE(bool(ListenConfig(addr("10.0.0.1"), 0)));
    EXPECT_TRUE(bool(ListenConfig(Kivu::IpGenAddr(), 1)));
    // The IPv4 any-address is a specified address, unlike the unspecified default.
    EXPECT_TRUE(bool(ListenConfig(addr("0.0.0.0"), 0)));
}

TEST_F(ListenConfigTest, EqualityNeedsBothFields) {
    EXPECT_TRUE(ListenConfig::isEq(v4, ListenConfig(addr("192.0.2.7"), 4711)));
    EXPECT_FALSE(ListenConfig::isEq(v4, ListenConfig(addr("192.0.2.7"), 4712)));
    EXPECT_FALSE(ListenConfig::isEq(v4, ListenConfig(addr("192.0.2.8"), 4711)));
    // The same bits in another family are another address.
    EXPECT_FALSE(ListenConfig::isEq(ListenConfig(addr("0.0.0.0"), 1), ListenConfig(addr("::"), 1)));
}

TEST_F(ListenConfigTest, HashFollowsEqualityAndSeed) {
    ListenConfig const same(addr("192.0.2.7"), 4711);
    EXPECT_EQ(v4.hash(0), same.hash(0));
    EXPECT_EQ(v4.hash(99), same.hash(99));
    EXPECT_NE(v4.hash(0), v4.hash(1));
    EXPECT_NE(v4.hash(0), ListenConfig(addr("192.0.2.7"), 4712).hash(0));
    EXPECT_NE(v4.hash(0), ListenConfig(addr("192.0.2.8"), 4711).hash(0));
    EXPECT_NE(ListenConfig().hash(0), ListenConfig(addr("0.0.0.0"), 0).hash(0));
}

TEST_F(ListenConfigTest, PrintedTextParsesBackToAnEqualValue) {
    EXPECT_EQ(valueToStrep(v4), v4Text);
    std::ostringstream os;
    os << v4;
    EXPECT_EQ(os.str(), v4Text);
    for (ListenConfig const& c : {v4, v6, ListenConfig(), ListenConfig(Kivu::IpGenAddr(), 80)}) {
        ListenConfig const back = Wex::fromString<ListenConfig>(valueToStrep(c));
        EXPECT_TRUE(ListenConfig::isEq(back, c)) << valueToStrep(c);
    }
}

TEST_F(ListenConfigTest, ParsingStopsAtTheEndOfTheValue) {
    std::string const text = v4Text + ", next";
    Wex::CharRange range(text);
    ListenConfig const parsed(range);
    EXPECT_TRUE(ListenConfig::isEq(parsed, v4));
    EXPECT_EQ(range.remaining(), ", next");
    // As a whole-string conversion, any character left over is refused.
    EXPECT_THROW(Wex::fromString<ListenConfig>(v4Text + " "), Wex::RangeException);
    EXPECT_THROW(Wex::fromString<ListenConfig>(v4Text + "x"), Wex::RangeException);
}

TEST_F(ListenConfigTest, EachParseFailureNamesItsAttribute) {
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::Other', ** {'hostAddr': 192.0.2.7, 'port': 1})"),
              "Kel::Q7Sync::ListenConfig");
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr':192.0.2.7, 'port': 1})"),
              "hostAddr");
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.300, 'port': 1})"),
              "hostAddr");
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': , 'port': 1})"), "hostAddr");
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.7; 'port': 1})"),
              "hostAddr");
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.7, 'prt': 1})"), "port");
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.7, 'port': 65536})"),
              "port");
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.7, 'port': -1})"), "port");
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.7, 'port': 1}"),
              "Kel::Q7Sync::ListenConfig");
    EXPECT_EQ(failingAttribute(""), "Kel::Q7Sync::ListenConfig");
}

TEST_F(ListenConfigTest, FieldsAreCheckedInOrder) {
    // Both fields bad: the address is read first and is the one reported.
    EXPECT_EQ(failingAttribute("Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': nowhere, 'port': x})"), "hostAddr");
    // A bad prefix is reported before either field is looked at.
    EXPECT_EQ(failingAttribute("Value('ListenConfig', ** {'hostAddr': nowhere, 'port': x})"),
              "Kel::Q7Sync::ListenConfig");
}

TEST_F(ListenConfigTest, FailedParseLeavesTheRangeWhereItWas) {
    std::string const text = "Value('Kel::Q7Sync::ListenConfig', ** {'hostAddr': 192.0.2.7, 'port': 70000})";
    Wex::CharRange range(text);
    EXPECT_THROW(ListenConfig{range}, Wex::RangeException);
    EXPECT_EQ(range.remaining(), text);
}

TEST_F(ListenConfigTest, ReflectionShowsReadOnlyFieldsAndConstructsFromNamedArgs) {
    Wex::WexType const* type = Wex::typeNode("Kel::Q7Sync::ListenConfig");
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type, Wex::wexTypeOf<ListenConfig>());
    ASSERT_EQ(type->attrs().size(), 2u);
    EXPECT_EQ(type->attrs()[0].name(), "hostAddr");
    EXPECT_EQ(type->attrs()[1].name(), "port");
    EXPECT_TRUE(type->attrs()[0].readOnly());
    EXPECT_TRUE(type->attrs()[1].readOnly());

    Wex::Value const made = type->newValue(
        Wex::Args{{"hostAddr", Wex::Value::of(addr("192.0.2.7"))}, {"port", Wex::Value::of<std::uint16_t>(4711)}});
    ASSERT_NE(made.as<ListenConfig>(), nullptr);
    EXPECT_TRUE(ListenConfig::isEq(*made.as<ListenConfig>(), v4));
    EXPECT_EQ(made.hash(), v4.hash(0));
    EXPECT_EQ(made.truth(), true);
    Wex::Value const none = type->newValue(
        Wex::Args{{"hostAddr", Wex::Value::of(Kivu::IpGenAddr())}, {"port", Wex::Value::of<std::uint16_t>(0)}});
    EXPECT_EQ(none.truth(), false);
    EXPECT_EQ(none.hash(), ListenConfig().hash(0));
    EXPECT_EQ(made.text(), v4Text);
    EXPECT_EQ(type->attr("port")->get(made.as<ListenConfig>()).text(), "4711");
    EXPECT_EQ(type->attr("hostAddr")->get(made.as<ListenConfig>()).text(), "192.0.2.7");

    ListenConfig target = v4;
    EXPECT_THROW(type->attr("port")->set(&target, Wex::Args{{"port", Wex::Value::of<std::uint16_t>(1)}}),
                 Wex::AttributeAccessException);
    EXPECT_EQ(target.port(), 4711);
}

TEST_F(ListenConfigTest, ReflectionRefusesMissingAndUnknownArgs) {
    Wex::WexType const* type = Wex::wexTypeOf<ListenConfig>();
    ASSERT_NE(type, nullptr);
    try {
        type->newValue(Wex::Args{{"hostAddr", Wex::Value::of(addr("192.0.2.7"))}});
        FAIL() << "constructed without a port";
    } catch (Wex::NewEntityArgsException const& e) {
        EXPECT_EQ(e.attribute(), "port");
    }
    try {
        type->newValue(Wex::Args{{"hostAddr", Wex::Value::of(addr("192.0.2.7"))},
                                 {"port", Wex::Value::of<std::uint16_t>(1)},
                                 {"backlog", Wex::Value::of<std::uint16_t>(5)}});
        FAIL() << "took an argument it does not know";
    } catch (Wex::NewEntityArgsException const& e) {
        EXPECT_EQ(e.attribute(), "backlog");
    }
}

} // namespace
} // namespace Kel::Q7Sync
