// Wex::PtrInterface: the base of every counted framework object, and its one-object watcher.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Lumo/Ptr.h"
#include "Lumo/Publisher.h"
#include "Lumo/SmallBlocks.h"

namespace Wex {

using AttributeId = Lumo::AttributeId;
class WexType;

class PtrInterface {
public:
    class NotifieeConst;

    PtrInterface(PtrInterface const&) = delete;
    PtrInterface& operator=(PtrInterface const&) = delete;

    std::uint32_t references() const noexcept { return refs_; }
#ifdef NDEBUG
    // The plain count inline: every counted pointer copy comes here.
    [[gnu::always_inline]] void newRef() const noexcept {
        if (atomicCount_) newRefSlow();
        else ++refs_;
    }
    [[gnu::always_inline]] void deleteRef() const noexcept {
        if (!atomicCount_ && refs_ > 1) --refs_;
        else deleteRefSlow();
    }
#else
    void newRef() const noexcept { newRefSlow(); }
    void deleteRef() const noexcept { deleteRefSlow(); }
#endif
    void newRefSlow() const noexcept;
    void deleteRefSlow() const noexcept;

    bool notificationActive() const noexcept { return notificationActive_; }
    // Creators switch notification on before handing out the first pointer; destructors
    // switch it off first. Reactors join and leave their publishers here.
    virtual void hasNotificationActiveIs(bool active) { notificationActive_ = active; }

    bool zombie() const noexcept { return zombie_; }
    // A reactor marked for deletion ignores every notification.
    virtual void wexDoZombieReactors(bool marked) { zombie_ = marked; }

    // The publisher through which watchers of one object (NotifieeConst) hear of its
    // attribute changes; null for objects that tell nobody.
    virtual Lumo::Publisher* notifieeList() const noexcept { return nullptr; }
    // Called when the last reference goes, while the object is still whole.
    virtual void zeroReferencesIs() const noexcept;
    virtual WexType const* fwkType() const noexcept { return nullptr; }

    // Live framework objects, counted in builds with lifecycle checks (0 otherwise).
    static long liveObjects() noexcept;

    // Counted objects are made and freed by the thousand per second: their memory comes from
    // the small-block allocator (Lumo/SmallBlocks.h).
    static void* operator new(std::size_t size) { return Lumo::smallBlockNew(size); }
    static void operator delete(void* object, std::size_t size) noexcept { Lumo::smallBlockDelete(object, size); }

protected:
    PtrInterface() noexcept;
    virtual ~PtrInterface();
    // For the few objects that threads other than the framework's take references on (a
    // process-wide singleton): their count is kept with atomic operations. Call before the
    // first reference is handed out.
    void countAtomicallyIs() noexcept { atomicCount_ = true; }

private:
    mutable std::uint32_t refs_ = 0;
    // Read by any thread that counts; the flags below are the framework thread's alone.
    bool atomicCount_ = false;
    mutable bool dying_ : 1 = false;
    bool notificationActive_ : 1 = false;
    bool zombie_ : 1 = false;
};

// Watches the plain attributes of one object, through its notifieeList(): told which attribute
// changed. The one way to watch an object's attributes; a collection has a typed watcher of its
// own (Wex::Collection::Watcher), which tells the key and the previous member with their types.
class AttributeWatcher : private Lumo::Subscriber {
public:
    // Joins (true) or leaves (false) the watchers of `object`, one object at a time: joining
    // leaves the object watched before, and leaving an object not watched changes nothing. An
    // object that tells nobody (its notifieeList() is null) is never heard from.
    void watchIs(PtrInterface const& object, bool active);
    // One attribute of the object changed; value points at the new value or the key.
    virtual void onAttribute(AttributeId attribute, void const* value) = 0;

protected:
    AttributeWatcher() = default;
    AttributeWatcher(AttributeWatcher const&) = delete;
    AttributeWatcher& operator=(AttributeWatcher const&) = delete;
    // A watcher leaves before it goes; one still watching would be called through a dangling
    // pointer later.
    ~AttributeWatcher();

private:
    void onPublish(Lumo::Publisher const&, Lumo::Change const& change) final { onAttribute(change.attribute, change.key); }
    PtrInterface const* watched_ = nullptr;
};

// A counted watcher of one object of another library, which it holds as its notifier.
class PtrInterface::NotifieeConst : public PtrInterface, public AttributeWatcher {
public:
    Lumo::Ptr<PtrInterface const> const& notifier() const noexcept { return notifier_; }
    virtual void notifierIs(Lumo::Ptr<PtrInterface const> const& notifier);
    void hasNotificationActiveIs(bool active) override;
    virtual void onZeroReferences() {}

protected:
    NotifieeConst() = default;
    ~NotifieeConst() override;
    void notifierJoinIs(bool join);

private:
    Lumo::Ptr<PtrInterface const> notifier_;
    bool joined_ = false;
};

// Aborts with a message: the lifecycle checks of debug builds end here.
[[noreturn]] void lifecycleFailure(char const* what, void const* object) noexcept;

} // namespace Wex
