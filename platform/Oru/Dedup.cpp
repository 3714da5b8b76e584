// Oru dedup hash table: insertion, self-removal on the last release, notifiee changes.
#include "Oru/Dedup.h"

#include <cstdio>
#include <cstdlib>

#include "Memtrail/Memtrail.h"

namespace Oru {

namespace {
constexpr Memtrail::Site kNotifieeThrew{0, "DedupHashTable", "handleRemove", "notifiee threw: {}"};
} // namespace

void DedupHandleBase::assertIsDeduped() const noexcept {
    if (!isDeduped()) Wex::lifecycleFailure("dedup handle expected in its table", this);
}

void DedupHandleBase::zeroReferencesIs() const noexcept {
    auto* self = const_cast<DedupHandleBase*>(this);
    if (table_) table_->handleZeroReferences(self);
    delete this;
}

void DedupHashTable::lifeTimeNotifieeIs(Lumo::Ptr<DedupHashTableLifeTimeNotifiee const> const& notifiee) {
    if (notifiee == notifiee_) return;
    Lumo::Ptr<DedupHashTableLifeTimeNotifiee const> old = notifiee_;
    notifiee_ = notifiee;
    if (old) old->handleNotificationStop(Lumo::Ptr<DedupHashTable const>(this));
}

void DedupHashTable::notifyInsert(Lumo::Ptr<DedupHandleBase> const& handle) const {
    if (Lumo::Ptr<DedupHashTableLifeTimeNotifiee const> n = notifiee_) n->handleInsert(handle);
}

void DedupHashTable::notifyRemove(DedupHandleBase* handle) const noexcept {
    Lumo::Ptr<DedupHashTableLifeTimeNotifiee const> n = notifiee_;
    if (!n) return;
    try {
        n->handleRemove(handle);
    } catch (std::exception const& e) {
        if (auto* h = Memtrail::defaultHandle())
            h->write(kNotifieeThrew, "Oru", std::string(e.what()));
    }
}

DedupHashTableUnorderedSet::DedupHashTableUnorderedSet(bool notifyRemovals) : notifyRemovals_(notifyRemovals) {}

DedupHashTableUnorderedSet::~DedupHashTableUnorderedSet() {
    hasNotificationActiveIs(false);
    // Clients may hold handles longer than the table: they must not reach back into it.
    for (DedupHandleBase* handle : handles_) handle->setDedupHashTable(nullptr, passkey());
}

Lumo::Ptr<DedupHandleBase> DedupHashTableUnorderedSet::findOrDedup(DedupContentHandle const& content,
                                                                   std::uint32_t hash, Allocator allocator) {
    std::size_t const held = handles_.find(ContentKey{hash, &content});
    if (held != handles_.npos) return Lumo::Ptr<DedupHandleBase>(handles_.at(held));
    Lumo::Ptr<DedupHandleBase> handle = allocator(content);
    handle->setDedupHashTable(this, passkey());
    handle->dedupStateIs(DedupHandleState::deduped);
    handles_.insertNew(handle.ptr());
    notifyInsert(handle);
    return handle;
}

void DedupHashTableUnorderedSet::handleZeroReferences(DedupHandleBase* handle) noexcept {
    if (std::size_t const i = handles_.find(static_cast<DedupHandleBase const*>(handle)); i != handles_.npos)
        handles_.take(i);
    handle->setDedupHashTable(nullptr, passkey());
    bool const tracked = handle->isDeduped();
    handle->dedupStateIs(DedupHandleState::removed);
    if (tracked && notifyRemovals_) notifyRemove(handle);
}

} // namespace Oru
