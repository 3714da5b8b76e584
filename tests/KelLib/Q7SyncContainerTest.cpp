// Sync containers: what makes, configures and resets them, and what they refuse. (The reactor
// that keeps them in step with the subscriptions in force: Q7SyncSubscribeSmTest.)
#include "KelLib/Q7SyncContainer.h"

#include <cstdint>

#include "host/StateContainer.h"
#include "support/SyncTestSupport.h"

namespace Kel::Q7Sync::Test {
namespace {

using Q7Agent::StateContainer;

PathSubscribeConfig stateSubscription(char const* key, std::uint8_t flags, char const* path = "agent/state") {
    return subscription(key, 1, path, Wex::wexTypeOf<StateContainer>(), Flags(flags));
}
// What a ChangeRecorder writes for a change with a previous value.
std::string changed(Wex::AttributeId attribute) { return std::to_string(attribute) + "~"; }

// A container type whose "syncAttribute" refuses to be reset.
class StubbornContainer : public SyncContainer {
public:
    explicit StubbornContainer(Lumo::String name) : SyncContainer(std::move(name)) {}
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<StubbornContainer>(); }
};
Wex::WexModuleRegistrar stubbornRegistrar("tests/StubbornContainer", [](Wex::WexModule& m) {
    m.type<StubbornContainer>("Test::StubbornContainer")
        .base<SyncContainer>()
        .attribute(
            "syncAttribute", [](StubbornContainer const&) { return 0u; },
            [](StubbornContainer&, unsigned) { throw Wex::RangeException("syncAttribute", "cannot be reset"); })
        .entityMaker();
});

class SyncContainerTest : public SyncFixture {
protected:
    Lumo::Ptr<Wex::Dir> dir = freshDir();
};

TEST_F(SyncContainerTest, CreateMakesOrReturnsTheContainerOfItsSubscriptionAndNoOther) {
    PathSubscribeConfig const cfg = stateSubscription("k", 0x02);
    auto const c = Lumo::ptr_cast<StateContainer>(SyncContainer::create(dir, cfg));
    ASSERT_TRUE(c);
    EXPECT_EQ(dir->entityPtr("k"), c);
    EXPECT_EQ(c->remoteAddr(), cfg.remoteAddr());
    c->syncAttributeIs("eth0", "mirrored");
    ChangeRecorder watcher(c);
    EXPECT_EQ(SyncContainer::create(dir, cfg), c);
    // Another subscription naming it leaves it as it is, its state included.
    EXPECT_EQ(
        refusal<Wex::ReInstantiationException>([&] { SyncContainer::create(dir, stateSubscription("k", 0x15, "x")); }),
        "pathSubscribeConfig");
    EXPECT_EQ(c->pathSubscribeConfig(), cfg);
    EXPECT_EQ(c->syncAttribute().size(), 1u);
    EXPECT_TRUE(watcher.changes.empty());
    // What the directory or the container type refuses: nothing is made or changed.
    Lumo::Ptr<Wex::Entity> const plain = dir->createEntity("Kel::Q7Sync::SyncContainer", "plain");
    dir->createEntity("Wex::Dir", "d");
    EXPECT_EQ(refusal<Wex::NullArgumentException>([&] { SyncContainer::create(nullptr, cfg); }), "dir");
    EXPECT_EQ(refusal<Wex::NullArgumentException>([&] { SyncContainer::create(dir, PathSubscribeConfig()); }),
              "syncContainerType");
    EXPECT_EQ(refusal<Wex::NewEntityArgsException>([&] { SyncContainer::create(dir, subscription("d")); }),
              "syncContainerKey");
    EXPECT_EQ(
        refusal<Wex::NewEntityArgsException>([&] { SyncContainer::create(dir, stateSubscription("plain", 0x15)); }),
        "syncContainerKey");
    PathSubscribeConfig const stubborn = subscription("s", 1, "p", Wex::wexTypeOf<StubbornContainer>(), Flags(0x15));
    EXPECT_EQ(refusal<Wex::RangeException>([&] { SyncContainer::create(dir, stubborn); }), "syncAttribute");
    EXPECT_FALSE(Lumo::ptr_cast<SyncContainer>(plain)->pathSubscribeConfig());
    EXPECT_EQ(dir->entities(), 3u) << "the refused container made for its subscription went again";

    // An unconfigured container takes one configuration, typed or through reflection, and keeps it.
    Wex::GenericIf const gi = plain->fwkType()->genericIf(plain);
    plain->fwkType()->attrOrThrow("setConfig").genericIfCall(gi, {{"config", Wex::Value::of(cfg)}});
    auto const configured = Lumo::ptr_cast<SyncContainer>(plain);
    EXPECT_EQ(configured->pathSubscribeConfig(), cfg);
    configured->setConfig(cfg);
    EXPECT_EQ(refusal<Wex::ReInstantiationException>([&] { configured->setConfig(subscription("plain")); }),
              "pathSubscribeConfig");
    EXPECT_EQ(configured->pathSubscribeConfig(), cfg);
}

// Only flags 0x15 reset the container's "syncAttribute", through reflection, before it is configured.
TEST_F(SyncContainerTest, Flags0x15ResetTheSyncAttributeBeforeConfiguringAndOtherFlagsKeepIt) {
    for (std::uint8_t flags : {0x15, 0x01, 0x17, 0x14}) {
        SCOPED_TRACE(flags);
        auto const held = Lumo::ptr_cast<StateContainer>(dir->createEntity("Q7Agent::StateContainer", "k"));
        held->syncAttributeIs("eth0", "stale");
        ChangeRecorder watcher(held);
        SyncContainer::create(dir, stateSubscription("k", flags));
        Lines expected{changed(SyncContainer::kPathSubscribeConfig)};
        if (flags == 0x15) expected.insert(expected.begin(), changed(StateContainer::kSyncAttribute));
        EXPECT_EQ(watcher.changes, expected);
        EXPECT_EQ(held->syncAttribute().size(), flags == 0x15 ? 0u : 1u);
        dir->deleteEntity("k");
    }
    // Without a writable "syncAttribute" the reset is skipped and the container made all the same.
    PathSubscribeConfig const plain = subscription("p", 1, "p", Wex::wexTypeOf<SyncContainer>(), Flags(0x15));
    EXPECT_EQ(SyncContainer::create(dir, plain)->pathSubscribeConfig(), plain);
}

}  // namespace
}  // namespace Kel::Q7Sync::Test
