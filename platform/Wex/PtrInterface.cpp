// Wex::PtrInterface: counting with lifecycle checks, and NotifieeConst joining its notifier.
#include "Wex/PtrInterface.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace Wex {

#ifndef NDEBUG
#define WEX_LIFECYCLE_CHECKS 1
namespace { std::atomic<long> gLive{0}; }
#endif

// Every object of the framework carries these: a count and a byte of flags beside the vtable.
static_assert(sizeof(PtrInterface) == sizeof(void*) + 8);

void lifecycleFailure(char const* what, void const* object) noexcept {
    std::fprintf(stderr, "Wex lifecycle check failed: %s (object %p)\n", what, object);
    std::abort();
}

PtrInterface::PtrInterface() noexcept {
#ifdef WEX_LIFECYCLE_CHECKS
    gLive.fetch_add(1, std::memory_order_relaxed);
#endif
}

PtrInterface::~PtrInterface() {
#ifdef WEX_LIFECYCLE_CHECKS
    if (refs_ != 0) lifecycleFailure("object deleted while counted", this);
    gLive.fetch_sub(1, std::memory_order_relaxed);
#endif
}

long PtrInterface::liveObjects() noexcept {
#ifdef WEX_LIFECYCLE_CHECKS
    return gLive.load(std::memory_order_relaxed);
#else
    return 0;
#endif
}

// An object counted atomically is counted from other threads too: its checks read nothing but
// the atomic count, as the flags beside it are the framework thread's.
void PtrInterface::newRefSlow() const noexcept {
#ifdef WEX_LIFECYCLE_CHECKS
    if (!atomicCount_ && dying_) lifecycleFailure("count taken during destruction", this);
#endif
    if (atomicCount_) std::atomic_ref<std::uint32_t>(refs_).fetch_add(1, std::memory_order_relaxed);
    else ++refs_;
}

void PtrInterface::deleteRefSlow() const noexcept {
#ifdef WEX_LIFECYCLE_CHECKS
    if (!atomicCount_ && refs_ == 0) lifecycleFailure("count underflow", this);
#endif
    std::uint32_t const left = atomicCount_ ? std::atomic_ref<std::uint32_t>(refs_).fetch_sub(1, std::memory_order_acq_rel) - 1
                                            : --refs_;
    if (left == UINT32_MAX) lifecycleFailure("count underflow", this);
    if (left == 0) {
        dying_ = true;
        zeroReferencesIs();
    }
}

void PtrInterface::zeroReferencesIs() const noexcept { delete this; }

PtrInterface::NotifieeConst::~NotifieeConst() { notifierJoinIs(false); }

void AttributeWatcher::watchIs(PtrInterface const& object, bool active) {
    Lumo::Publisher* list = object.notifieeList();
    if (!list) return;
    if (active && watched_ && watched_ != &object) watchIs(*watched_, false);
    if (!active && watched_ != &object) return;
    watched_ = active ? &object : nullptr;
    list->subscriberActiveIs(this, active);
}

AttributeWatcher::~AttributeWatcher() {
#ifdef WEX_LIFECYCLE_CHECKS
    if (watched_) lifecycleFailure("attribute watcher destroyed while watching", this);
#endif
}

void PtrInterface::NotifieeConst::notifierJoinIs(bool join) {
    if (join == joined_) return;
    if (notifier_) watchIs(*notifier_, join);
    joined_ = join && notifier_ && notifier_->notifieeList();
}

void PtrInterface::NotifieeConst::notifierIs(Lumo::Ptr<PtrInterface const> const& notifier) {
    if (notifier == notifier_) return;
    notifierJoinIs(false);
    notifier_ = notifier;
    notifierJoinIs(notificationActive());
}

void PtrInterface::NotifieeConst::hasNotificationActiveIs(bool active) {
    PtrInterface::hasNotificationActiveIs(active);
    notifierJoinIs(active);
}

} // namespace Wex
