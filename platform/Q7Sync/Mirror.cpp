// Q7Sync::Mirror: snapshots with stale entries deleted, resumes, changes.
#include "Q7Sync/Mirror.h"

#include <stdexcept>
#include <vector>

#include <fmt/format.h>

#include "Wex/Path.h"

namespace Q7Sync {

std::optional<Mirror::ResumePoint> Mirror::begin() {
    seen_.clear();
    entries_ = 0;
    askedFrom_ = resumePoint();
    return askedFrom_;
}

std::optional<std::string> Mirror::apply(q7serdes::Frame const& frame) {
    try {
        return applied(frame);
    } catch (...) {
        resumable_ = false;
        throw;
    }
}

std::optional<std::string> Mirror::applied(q7serdes::Frame const& frame) {
    auto const self = shared_from_this();
    // Found anew for each frame: the entity is its owner's, and may be replaced meanwhile.
    Wex::AttributeAt const at = Wex::attributeAt(path_);
    if (!at) throw std::runtime_error(fmt::format("nothing to write at {}", path_));
    bool const keyed = at.attr->kind() == Wex::AttrKind::collection;
    auto const write = [&](q7serdes::Entry const& entry) {
        if (keyed) at.attr->memberIsFromText(at.object(), entry.key(), entry.value());
        else at.attr->setFromText(at.object(), entry.value());
        return !ended_;
    };
    switch (frame.body_case()) {
    case q7serdes::Frame::kSnapshot:
        // The state is being replaced: until it is complete, no point of the history holds.
        resumable_ = false;
        for (auto const& entry : frame.snapshot().entries()) {
            if (keyed) seen_.insert(entry.key());
            ++entries_;
            if (!write(entry)) return std::nullopt;
        }
        return std::nullopt;
    case q7serdes::Frame::kChange: {
        auto const& change = frame.change();
        entries_ += std::size_t(change.set_size() + change.deleted_size());
        for (auto const& entry : change.set())
            if (!write(entry)) return std::nullopt;
        if (keyed)
            for (auto const& key : change.deleted()) {
                at.attr->memberDelFromText(at.object(), key);
                if (ended_) return std::nullopt;
            }
        if (change.seq() && epoch_) {
            seq_ = change.seq();
            resumable_ = true;
        }
        return std::nullopt;
    }
    case q7serdes::Frame::kInSync: {
        auto const& inSync = frame.in_sync();
        std::size_t stale = 0;
        if (!inSync.resumed() && keyed) {
            // What the snapshot did not name went while we were away.
            std::vector<Wex::Value> gone;
            at.attr->forEach(at.object(), [&](Wex::Value const& key, Wex::Value const&) {
                if (!seen_.count(key.text())) gone.push_back(key);
            });
            stale = gone.size();
            for (auto const& key : gone) {
                at.attr->memberDel(at.object(), key);
                if (ended_) return std::nullopt;
            }
        }
        seen_.clear();
        epoch_ = inSync.epoch();
        seq_ = inSync.seq();
        resumable_ = epoch_ && seq_;
        std::size_t const entries = entries_;
        entries_ = 0;
        auto const plural = [](std::size_t n) { return fmt::format("{} entr{}", n, n == 1 ? "y" : "ies"); };
        if (inSync.resumed() && askedFrom_)
            return fmt::format("resumed after change {}: {} changed meanwhile", askedFrom_->second, plural(entries));
        return fmt::format("snapshot of {} complete{}", plural(entries),
                           stale ? fmt::format(", {} stale deleted", stale) : "");
    }
    default:
        return std::nullopt;
    }
}

} // namespace Q7Sync
