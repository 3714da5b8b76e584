// Q7Sync::Mirror: a stream's state applied, through reflection, to the attribute at a path.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "Q7Serdes/Sync.pb.h"

namespace Q7Sync {

// The receiving end of a stream: entries set and deleted by key in their text forms, or the
// value of a plain attribute. After a snapshot, entries that it did not name are deleted, so
// that nothing stale stays. It keeps the point of the source's history that it holds the state
// at, to resume from on the next connection.
class Mirror : public std::enable_shared_from_this<Mirror> {
public:
    using ResumePoint = std::pair<std::uint64_t, std::uint64_t>;  // epoch, seq

    explicit Mirror(std::string path) : path_(std::move(path)) {}

    std::string const& path() const noexcept { return path_; }
    // A new sync begins (the stream is asked for): returns the point to ask to resume from.
    std::optional<ResumePoint> begin();
    // Applies a Snapshot, InSync or Change frame. Returns, when the state is complete (InSync),
    // what it came to ("snapshot of 3 entries complete"). Data that cannot be applied (nothing at
    // the path, text that does not read as the attribute's types) throws with the reason, and
    // the resume point is forgotten. A write tells the attribute's watchers, who may end the
    // stream: ended() then stops the rest at once.
    std::optional<std::string> apply(q7serdes::Frame const& frame);
    void ended() noexcept { ended_ = true; }

    std::optional<ResumePoint> resumePoint() const {
        return resumable_ ? std::optional<ResumePoint>({epoch_, seq_}) : std::nullopt;
    }

private:
    std::optional<std::string> applied(q7serdes::Frame const& frame);

    std::string path_;
    bool ended_ = false;
    std::optional<ResumePoint> askedFrom_;
    std::unordered_set<std::string> seen_;  // keys the snapshot named
    std::size_t entries_ = 0;               // entries received before InSync
    std::uint64_t epoch_ = 0;
    std::uint64_t seq_ = 0;
    bool resumable_ = false;
};

} // namespace Q7Sync
