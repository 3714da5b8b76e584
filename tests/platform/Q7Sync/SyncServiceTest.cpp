// The sync service end to end in one process: it serves a path on loopback and subscribes it
// from itself, so that both sides run on the one event loop.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>

#include "Q7Sync/Backoff.h"
#include "Q7Sync/Service.h"
#include "Wex/EntryMap.h"
#include "Wex/EventLoop.h"
#include "Wex/Path.h"
#include "Wex/Type.h"

namespace {

using Q7Serdes::WexUtils::SyncStatusEnum;
using namespace std::chrono_literals;

// State kept as plain entries and one plain value, each change published.
class Table : public Wex::Entity {
public:
    using Entries = Wex::EntryMap<Lumo::String, Lumo::String>;
    static constexpr Wex::AttributeId kLabel = 131;

    explicit Table(Lumo::String name) : Wex::Entity(std::move(name)) {}
    Entries const& entries() const noexcept { return entries_; }
    void entryIs(Lumo::String const& key, Lumo::String const& value) { entries_.set({key, value}); }
    Lumo::String entryDel(Lumo::String const& key) { return entries_.del(key).value; }
    void entryDelAll() { entries_.delAll(); }
    Lumo::String const& label() const noexcept { return label_; }
    void labelIs(Lumo::String const& label) {
        label_ = label;
        publisher_.publishChangeRecursive(kLabel, &label_);
    }
    Lumo::Publisher* notifieeList() const noexcept override { return &publisher_; }
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Table>(); }

private:
    mutable Lumo::Publisher publisher_;
    Entries entries_{"entries", 130, &publisher_};
    Lumo::String label_;
};

Wex::WexModuleRegistrar registrar("tests/SyncService", [](Wex::WexModule& m) {
    m.type<Table>("Test::Table")
        .base<Wex::Entity>()
        .collection("entries", [](Table const& t) -> auto const& { return t.entries(); })
        .memberIs({"key", "value"}, &Table::entryIs)
        .memberDel(&Table::entryDel)
        .memberDelAll(&Table::entryDelAll)
        .attribute("label", [](Table const& t) { return t.label(); }, &Table::labelIs)
        .entityMaker();
});

class SyncService : public ::testing::Test {
protected:
    Q7Sync::Service& service = Q7Sync::Service::instance();
    Lumo::Ptr<Table> published = table("/pub/state");
    Lumo::Ptr<Table> mirror = table("/mirror/copy");
    std::uint16_t port = 0;

    void SetUp() override {
        service.listen("127.0.0.1", 0);
        port = service.boundPort("127.0.0.1", 0);
        ASSERT_NE(port, 0);
    }
    void TearDown() override {
        service.reset();
        published = mirror = nullptr;
        for (auto const* dir : {"pub", "mirror"}) Wex::System::globalDir()->deleteEntity(Lumo::String(dir));
        // What the reset cancelled is told to its handlers.
        Wex::eventLoop().poll();
    }

    static Lumo::Ptr<Table> table(std::string_view path) {
        return Lumo::ptr_cast<Table>(Wex::entityIs(path, Wex::wexTypeOf<Table>()));
    }
    std::string uri(std::string_view path, std::uint16_t at = 0) const {
        return "127.0.0.1:" + std::to_string(at ? at : port) + std::string(path);
    }
    Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> subscribe(std::string const& remote, std::string_view local = "/mirror/copy/entries") {
        return service.subscribe(Lumo::String(remote), Lumo::String(local), Q7Sync::WexUtils::SyncRequestFlags{});
    }
    static bool reaches(Lumo::Ptr<Q7Serdes::WexUtils::SyncStatus> const& s, SyncStatusEnum want) {
        return Wex::runUntil([&] { return s->status() == want; }, 5s);
    }
    static std::map<std::string, std::string> contents(Table const& t) {
        std::map<std::string, std::string> out;
        for (auto const& e : t.entries()) out.emplace(e.key.str(), e.value.str());
        return out;
    }
    bool converges() {
        return Wex::runUntil([&] { return contents(*mirror) == contents(*published); }, 5s);
    }
};

TEST_F(SyncService, AMirrorGetsTheSnapshotThenEveryChange) {
    published->entryIs(Lumo::String("eth0"), Lumo::String("up"));
    published->entryIs(Lumo::String("eth1"), Lumo::String("down"));
    service.publish("/pub/state/entries");
    auto const status = subscribe(uri("/pub/state/entries"));
    // Nothing is tried inside the call: the loop makes the connection.
    EXPECT_EQ(status->status(), SyncStatusEnum::notConnected);
    EXPECT_TRUE(contents(*mirror).empty());

    ASSERT_TRUE(reaches(status, SyncStatusEnum::inSync)) << status->reason();
    EXPECT_EQ(contents(*mirror), contents(*published));
    EXPECT_EQ(status->reason(), Lumo::String("snapshot of 2 entries complete"));

    published->entryIs(Lumo::String("eth1"), Lumo::String("up"));
    published->entryIs(Lumo::String("lo"), Lumo::String("up"));
    published->entryDel(Lumo::String("eth0"));
    ASSERT_TRUE(converges());
    EXPECT_EQ(contents(*mirror), (std::map<std::string, std::string>{{"eth1", "up"}, {"lo", "up"}}));
}

TEST_F(SyncService, APlainAttributeTravelsAsOneEntry) {
    published->labelIs(Lumo::String("core router"));
    service.publish("/pub/state/label");
    auto const status = subscribe(uri("/pub/state/label"), "/mirror/copy/label");
    ASSERT_TRUE(reaches(status, SyncStatusEnum::inSync)) << status->reason();
    EXPECT_EQ(mirror->label(), Lumo::String("core router"));
    published->labelIs(Lumo::String("edge router"));
    EXPECT_TRUE(Wex::runUntil([&] { return mirror->label() == Lumo::String("edge router"); }, 5s));
}

TEST_F(SyncService, WhatCannotBeServedOrMirroredFailsWithItsReason) {
    struct Case {
        char const* remote;
        char const* local;
        char const* reason;
    };
    service.publish("/pub/state/entries");
    std::string const unpublished = uri("/pub/state/label");
    std::string const served = uri("/pub/state/entries");
    for (Case const& c : {Case{unpublished.c_str(), "/mirror/copy/label", "path '/pub/state/label' is not published"},
                          Case{served.c_str(), "/mirror/nothing/here", "nothing to write at /mirror/nothing/here"},
                          Case{"not-an-address:1/p", "/mirror/copy/entries", "is not <address>:<port>/<path>"},
                          Case{"127.0.0.1:99999/p", "/mirror/copy/entries", "is not <address>:<port>/<path>"}}) {
        published->entryIs(Lumo::String("k"), Lumo::String("v"));  // something to apply
        auto const status = subscribe(c.remote, c.local);
        ASSERT_TRUE(reaches(status, SyncStatusEnum::failed)) << c.remote << ": " << valueToStrep(status->status()) << " " << status->reason();
        EXPECT_NE(status->reason().view().find(c.reason), std::string_view::npos) << status->reason();
        service.unsubscribe(Lumo::String(c.remote));
    }
    EXPECT_TRUE(contents(*mirror).empty());
}

TEST_F(SyncService, ARefusedConnectionIsRetriedAndTheMirrorConvergesWithWhatWentMeanwhile) {
    published->entryIs(Lumo::String("a"), Lumo::String("1"));
    published->entryIs(Lumo::String("b"), Lumo::String("2"));
    service.publish("/pub/state/entries");
    auto const status = subscribe(uri("/pub/state/entries"));
    ASSERT_TRUE(reaches(status, SyncStatusEnum::inSync));

    // The publisher goes away: the subscriber says so and keeps trying.
    service.close("127.0.0.1", 0);
    ASSERT_TRUE(reaches(status, SyncStatusEnum::connecting));
    EXPECT_NE(status->reason().view().find("next try in"), std::string_view::npos) << status->reason();
    ASSERT_TRUE(Wex::runUntil([&] { return status->reason().view().find("Connection refused") != std::string_view::npos; }, 5s))
        << status->reason();

    // Meanwhile one entry goes, one changes and one comes: none of it reaches the mirror yet.
    published->entryDel(Lumo::String("a"));
    published->entryIs(Lumo::String("b"), Lumo::String("3"));
    published->entryIs(Lumo::String("c"), Lumo::String("4"));
    EXPECT_EQ(contents(*mirror).count("a"), 1u);

    service.listen("127.0.0.1", port);
    ASSERT_TRUE(reaches(status, SyncStatusEnum::inSync)) << status->reason();
    EXPECT_EQ(contents(*mirror), contents(*published));
    EXPECT_EQ(status->reason(), Lumo::String("snapshot of 2 entries complete, 1 stale deleted"));
}

TEST_F(SyncService, SubscriptionsToOneAgentShareOneConnectionThatGoesWithTheLast) {
    service.publish("/pub/state/entries");
    service.publish("/pub/state/label");
    auto const entries = subscribe(uri("/pub/state/entries"));
    auto const label = subscribe(uri("/pub/state/label"), "/mirror/copy/label");
    ASSERT_TRUE(reaches(entries, SyncStatusEnum::inSync));
    ASSERT_TRUE(reaches(label, SyncStatusEnum::inSync));
    EXPECT_EQ(service.peers(), 1u);
    service.unsubscribe(Lumo::String(uri("/pub/state/entries")));
    EXPECT_EQ(service.peers(), 1u);
    // The other still streams over the connection.
    published->labelIs(Lumo::String("still here"));
    EXPECT_TRUE(Wex::runUntil([&] { return mirror->label() == Lumo::String("still here"); }, 5s));
    service.unsubscribe(Lumo::String(uri("/pub/state/label")));
    EXPECT_EQ(service.peers(), 0u);
}

TEST_F(SyncService, WhatFailedIsAskedForAgainAndMirroredOnceItCanBe) {
    published->entryIs(Lumo::String("eth0"), Lumo::String("up"));
    auto const status = subscribe(uri("/pub/state/entries"), "/mirror/later/entries");
    ASSERT_TRUE(reaches(status, SyncStatusEnum::failed));
    EXPECT_NE(status->reason().view().find("next ask in"), std::string_view::npos) << status->reason();
    // Published, but with nowhere to write: the publisher is told to stop while it fails.
    service.publish("/pub/state/entries");
    ASSERT_TRUE(Wex::runUntil([&] { return status->reason().view().find("not applied") != std::string_view::npos; }, 5s))
        << status->reason();
    auto const later = table("/mirror/later");
    ASSERT_TRUE(reaches(status, SyncStatusEnum::inSync)) << status->reason();
    EXPECT_EQ(contents(*later), contents(*published));
}

TEST_F(SyncService, UnpublishingRefusesThePathToItsSubscribers) {
    service.publish("/pub/state/entries");
    auto const status = subscribe(uri("/pub/state/entries"));
    ASSERT_TRUE(reaches(status, SyncStatusEnum::inSync));
    service.unpublish("/pub/state/entries");
    ASSERT_TRUE(reaches(status, SyncStatusEnum::failed));
    EXPECT_NE(status->reason().view().find("no longer published"), std::string_view::npos) << status->reason();
}

TEST_F(SyncService, PublishingWhatIsNotThereIsRefusedNamingThePath) {
    for (auto const* path : {"/pub/state/nothing", "/pub/none/entries", "relative/path", "/pub//entries"}) {
        try {
            service.publish(path);
            ADD_FAILURE() << path << " was published";
        } catch (Wex::RangeException const& e) {
            EXPECT_EQ(e.attribute(), "path") << path;
        }
    }
    EXPECT_TRUE(service.publishedPaths().empty());
}

TEST(Backoff, EachWaitIsBetweenHalfAndAllOfADoublingCeilingUpToTheCap) {
    Q7Sync::Backoff backoff(7);
    std::chrono::milliseconds ceiling = Q7Sync::Backoff::kFirst;
    for (int i = 0; i < 12; ++i) {
        auto const wait = backoff.next();
        EXPECT_GE(wait, ceiling / 2) << "try " << i;
        EXPECT_LE(wait, ceiling) << "try " << i;
        ceiling = std::min(ceiling * 2, std::chrono::milliseconds(Q7Sync::Backoff::kCap));
    }
    backoff.reset();
    EXPECT_LE(backoff.next(), Q7Sync::Backoff::kFirst);
}

} // namespace
