// Oru dedup hash table: one shared handle per distinct content, removed when its last
// client reference goes, with a life-time notifiee told of every entry and exit.
#pragma once

#include <cstdint>

#include "Lumo/Ptr.h"
#include "Wex/Collection.h"
#include "Wex/Passkey.h"
#include "Wex/PtrInterface.h"

namespace Oru {

class DedupHashTable;

// What a client hands to findOrDedup: the content a handle is compared with. Carries no data.
class DedupContentHandle {
protected:
    DedupContentHandle() = default;
    DedupContentHandle(DedupContentHandle const&) = default;
    DedupContentHandle& operator=(DedupContentHandle const&) = default;
    ~DedupContentHandle() = default;
};

enum class DedupHandleState : std::uint8_t {
    notDeduped = 0,          // never in a table
    deduped = 1,             // in a table
    removed = 2,             // left its table when its last client reference went
    notificationStopped = 3, // untracked by a notifiee that stopped listening; still in its table
};

// A handle the table holds by plain pointer: the table's entry does not keep it alive.
class DedupHandleBase : public Wex::PtrInterface {
public:
    bool isDeduped() const noexcept { return state_ == DedupHandleState::deduped; }
    bool everDeduped() const noexcept { return state_ != DedupHandleState::notDeduped; }
    void assertIsDeduped() const noexcept;
    DedupHandleState dedupState() const noexcept { return state_; }
    void dedupStateIs(DedupHandleState s) noexcept { state_ = s; }

    virtual std::uint32_t hash() const noexcept = 0;
    virtual bool compare(DedupHandleBase const* other) const noexcept = 0;
    virtual bool compareByContent(DedupContentHandle const& content) const noexcept = 0;
    virtual bool compareLessThan(DedupHandleBase const* other) const noexcept { return hash() < other->hash(); }

    DedupHashTable* getDedupHashTable() const noexcept { return table_; }
    // The table that holds the handle, set and cleared by the table alone.
    void setDedupHashTable(DedupHashTable* table, Wex::Passkey<DedupHashTable>) noexcept { table_ = table; }

    // The last reference went: leave the table (telling its notifiee) while still whole.
    void zeroReferencesIs() const noexcept override;

private:
    DedupHashTable* table_ = nullptr;
    DedupHandleState state_ = DedupHandleState::notDeduped;
};

class DedupHandle : public DedupHandleBase {};

// Names a handle without keeping it alive.
class DedupHandleLifeTimeNotifier : public Wex::PtrInterface {
public:
    explicit DedupHandleLifeTimeNotifier(Lumo::Ptr<DedupHandleBase const> const& handle) noexcept
        : handle_(const_cast<DedupHandleBase*>(handle.ptr())) {}
    // The handle, or null once it has gone (when its owner says so: dedupedObjectGone).
    DedupHandleBase* getDedupedObjectRawPtr() const noexcept { return handle_; }

protected:
    // A back pointer, cleared by whoever learns first that the handle goes.
    void dedupedObjectGone() const noexcept { handle_ = nullptr; }

private:
    mutable DedupHandleBase* handle_;
};

class DedupHashTableLifeTimeNotifiee : public Wex::PtrInterface {
public:
    // A new handle entered the table (inside findOrDedup).
    virtual void handleInsert(Lumo::Ptr<DedupHandleBase> const& handle) const = 0;
    // A handle left the table: its last client reference went. It dies right after.
    virtual void handleRemove(DedupHandleBase* handle) const = 0;
    // The table stopped notifying this notifiee (it was detached).
    virtual void handleNotificationStop(Lumo::Ptr<DedupHashTable const> const& table) const = 0;
};

class DedupHashTable : public Wex::PtrInterface {
public:
    using Allocator = Lumo::Ptr<DedupHandleBase> (*)(DedupContentHandle const& content);

    // The handle equal to content, or a new one made by allocator, inserted and announced.
    virtual Lumo::Ptr<DedupHandleBase> findOrDedup(DedupContentHandle const& content, std::uint32_t hash,
                                                   Allocator allocator) = 0;
    virtual std::size_t size() const noexcept = 0;

    Lumo::Ptr<DedupHashTableLifeTimeNotifiee const> const& lifeTimeNotifiee() const noexcept { return notifiee_; }
    // Attaches a notifiee (or none); the one detached hears handleNotificationStop.
    void lifeTimeNotifieeIs(Lumo::Ptr<DedupHashTableLifeTimeNotifiee const> const& notifiee);

protected:
    friend class DedupHandleBase;
    // What a table hands its handles to set their table: its kinds share it.
    static Wex::Passkey<DedupHashTable> passkey() noexcept { return {}; }
    virtual void handleZeroReferences(DedupHandleBase* handle) noexcept = 0;
    void notifyInsert(Lumo::Ptr<DedupHandleBase> const& handle) const;
    void notifyRemove(DedupHandleBase* handle) const noexcept;

private:
    Lumo::Ptr<DedupHashTableLifeTimeNotifiee const> notifiee_;
};

// The table over a hash multimap of plain handle pointers.
class DedupHashTableUnorderedSet : public DedupHashTable {
public:
    // notifyRemovals: whether handles leaving the table are announced to the notifiee.
    explicit DedupHashTableUnorderedSet(bool notifyRemovals);

    Lumo::Ptr<DedupHandleBase> findOrDedup(DedupContentHandle const& content, std::uint32_t hash,
                                           Allocator allocator) override;
    std::size_t size() const noexcept override { return handles_.size(); }

protected:
    ~DedupHashTableUnorderedSet() override;
    void handleZeroReferences(DedupHandleBase* handle) noexcept override;

private:
    // A look-up by content: the hash given to findOrDedup and what the handle must equal.
    struct ContentKey {
        std::uint32_t hash;
        DedupContentHandle const* content;
    };
    struct HandleHash {
        std::size_t operator()(DedupHandleBase const* h) const noexcept { return h->hash(); }
        std::size_t operator()(ContentKey const& k) const noexcept { return k.hash; }
    };
    struct HandleEq {
        bool operator()(DedupHandleBase const* a, DedupHandleBase const* b) const noexcept { return a == b; }
        bool operator()(DedupHandleBase const* a, ContentKey const& k) const noexcept {
            return a->compareByContent(*k.content);
        }
    };

    bool notifyRemovals_;
    // Plain pointers in one open-addressing table; equal hashes simply probe on.
    Wex::detail::FlatSet<DedupHandleBase*, HandleHash, HandleEq> handles_;
};

} // namespace Oru
