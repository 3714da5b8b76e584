// Delivery of changes while subscribers join, leave, throw, or drop the publisher itself.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "Lumo/Publisher.h"
#include "Memtrail/Memtrail.h"

namespace {

struct Probe : Lumo::Subscriber {
    std::function<void(Lumo::Change const&)> act;
    std::vector<Lumo::AttributeId> seen;
    void onPublish(Lumo::Publisher const&, Lumo::Change const& c) override {
        seen.push_back(c.attribute);
        if (act) act(c);
    }
};

TEST(Publisher, DeliversKeyAndPreviousValueToEverySubscriberInJoinOrder) {
    Lumo::Publisher p;
    std::vector<int> order;
    Probe a, b;
    a.act = [&](Lumo::Change const& c) { order.push_back(1); EXPECT_EQ(*static_cast<int const*>(c.key), 7); };
    b.act = [&](Lumo::Change const& c) { order.push_back(2); EXPECT_EQ(*static_cast<int const*>(c.prev), 3); };
    p.subscriberIs(&a);
    p.subscriberIs(&b);
    p.subscriberIs(&a);  // joining twice changes nothing
    int key = 7, prev = 3;
    p.publishChangeRecursive(130, &key, &prev);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    p.subscriberDel(&a);
    p.subscriberDel(&b);
}

TEST(Publisher, SubscriberLeavingDuringDeliveryIsNotCalledAgain) {
    Lumo::Publisher p;
    Probe first, second;
    first.act = [&](Lumo::Change const&) { p.subscriberDel(&second); };
    p.subscriberIs(&first);
    p.subscriberIs(&second);
    p.publishChangeRecursive(130);
    EXPECT_TRUE(second.seen.empty());
    EXPECT_EQ(p.subscribers(), 1u);
    p.subscriberDel(&first);
}

TEST(Publisher, SubscriberJoiningDuringDeliveryHearsFromTheNextChange) {
    Lumo::Publisher p;
    Probe first, late;
    first.act = [&](Lumo::Change const&) { p.subscriberIs(&late); };
    p.subscriberIs(&first);
    p.publishChangeRecursive(130);
    EXPECT_TRUE(late.seen.empty());
    p.publishChangeRecursive(131);
    EXPECT_EQ(late.seen, (std::vector<Lumo::AttributeId>{131}));
    p.subscriberDel(&first);
    p.subscriberDel(&late);
}

TEST(Publisher, NestedDeliveriesWithRemovalsCompactOnlyAtTheEnd) {
    Lumo::Publisher p;
    Probe a, b, c;
    int depth = 0;
    a.act = [&](Lumo::Change const&) {
        if (depth++ == 0) {
            p.subscriberDel(&b);
            p.publishChangeRecursive(140);
        }
    };
    p.subscriberIs(&a);
    p.subscriberIs(&b);
    p.subscriberIs(&c);
    p.publishChangeRecursive(130);
    EXPECT_TRUE(b.seen.empty());
    EXPECT_EQ(c.seen, (std::vector<Lumo::AttributeId>{140, 130}));
    EXPECT_EQ(p.subscribers(), 2u);
    p.subscriberDel(&a);
    p.subscriberDel(&c);
}

TEST(Publisher, SubscriberDestroyingThePublisherEndsTheDelivery) {
    auto p = std::make_unique<Lumo::Publisher>();
    Probe killer, after;
    killer.act = [&](Lumo::Change const&) {
        p->subscriberDel(&killer);
        p->subscriberDel(&after);
        p.reset();
    };
    p->subscriberIs(&killer);
    p->subscriberIs(&after);
    p->publishChangeRecursive(130);  // must not touch the destroyed publisher (ASan)
    EXPECT_TRUE(after.seen.empty());
}

TEST(Publisher, ExceptionOfASubscriberIsRecordedAndGoesNoFurther) {
    Memtrail::Handle trail(16);
    Memtrail::Handle* previous = Memtrail::defaultHandle();
    Memtrail::defaultHandleIs(&trail);
    Lumo::Publisher p;
    Probe thrower, other;
    thrower.act = [](Lumo::Change const&) { throw std::runtime_error("handler failed"); };
    p.subscriberIs(&thrower);
    p.subscriberIs(&other);
    EXPECT_NO_THROW(p.publishChangeRecursive(130));
    EXPECT_EQ(other.seen.size(), 1u);
    ASSERT_EQ(trail.size(0), 1u);
    EXPECT_EQ(trail.records(0)[0]->message(), "subscriber threw: handler failed");
    Memtrail::defaultHandleIs(previous);
    p.subscriberDel(&thrower);
    p.subscriberDel(&other);
}

} // namespace
