// Q7Sync::Publication and Q7Sync::Feed: an attribute served as a stream of state, to peers that
// may be slow.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Q7Serdes/Sync.pb.h"
#include "Wex/Path.h"

namespace Q7Sync {

class Channel;
class Feed;

// An attribute, watched through reflection, served to the feeds that stream it. Its history of
// changes is numbered (seq) within an epoch, a random number that names this publication: a
// feed resumes from a point of the same epoch when the recent changes still reach back to it.
// Entries are named by their key's text form; a plain attribute is one entry with an empty key.
class Publication {
public:
    // The keys of the last kResumeLog changes are kept, whatever the number of entries.
    static constexpr std::size_t kResumeLog = 16384;

    Publication(std::string path, Wex::AttributeAt at);
    // The feeds are told that the path is no longer served.
    ~Publication();
    Publication(Publication const&) = delete;
    Publication& operator=(Publication const&) = delete;

    std::string const& path() const noexcept { return path_; }
    Wex::AttributeAt const& at() const noexcept { return at_; }
    std::uint64_t epoch() const noexcept { return epoch_; }
    std::uint64_t seq() const noexcept { return seq_; }
    std::size_t feeds() const noexcept { return feeds_.size(); }

    // Every entry's key, as it stands.
    std::vector<std::string> keys() const;
    // The entry's value as it stands, or nothing when it is deleted.
    std::optional<std::string> valueOf(std::string const& key) const;
    // The keys of the entries changed after change `seq` of `epoch`, each once; nothing when
    // that point is of another epoch or older than the changes kept.
    std::optional<std::vector<std::string>> changedSince(std::uint64_t epoch, std::uint64_t seq) const;

private:
    friend class Feed;
    void changed(Wex::Value const& key);

    std::string path_;
    Wex::AttributeAt at_;
    bool keyed_;
    std::unique_ptr<Wex::WexAttr::Watch> watch_;
    std::string plainValue_;  // what a plain attribute last held
    std::uint64_t epoch_;
    std::uint64_t seq_ = 1;  // the state as published is change 1: 0 names no point
    std::deque<std::string> log_;  // the keys of changes seq_ - size + 1 .. seq_
    std::vector<Feed*> feeds_;
};

// One stream of a publication to one peer: the state (a snapshot, or what changed since the
// peer's resume point), InSync, then each change. While the peer's channel has a full write
// window, what is left to send is kept as the keys of the entries that changed, each once, and
// read when there is room: a slow peer costs at most one pending entry per entry of the state,
// never one per change.
class Feed {
public:
    // `ended` is told when the publication goes; the feed must then be dropped.
    Feed(Publication& publication, std::shared_ptr<Channel> channel, std::uint32_t stream,
         std::function<void(std::string const& reason)> ended);
    ~Feed();
    Feed(Feed const&) = delete;
    Feed& operator=(Feed const&) = delete;

    // Starts the stream: after `resume` (epoch, seq) when the publication still reaches back to
    // it, else with a snapshot. True when it resumes.
    bool start(std::optional<std::pair<std::uint64_t, std::uint64_t>> resume);
    // Sends what the window has room for; called again when a write completes.
    void flush();

    Publication const* publication() const noexcept { return publication_; }
    std::uint32_t stream() const noexcept { return stream_; }
    // Entries waiting for room in the window, and whether the state is still being sent.
    std::size_t backlog() const noexcept { return keys_.size(); }
    bool syncing() const noexcept { return inSyncDue_; }

private:
    friend class Publication;
    // Entry `key` changed to `value` (nothing: deleted).
    void changed(std::string const& key, std::optional<std::string> const& value);
    void publicationGone(std::string const& reason);
    void queue(std::string const& key);
    // Adds entry `key` to `change`: set to `value`, or deleted; returns the value's size.
    static std::size_t addTo(q7serdes::Change& change, std::string const& key, std::optional<std::string> value);

    Publication* publication_;
    std::shared_ptr<Channel> channel_;
    std::uint32_t stream_;
    std::function<void(std::string const&)> ended_;
    std::deque<std::string> keys_;
    std::unordered_set<std::string_view> queued_;  // views of keys_
    std::size_t stateLeft_ = 0;  // the first keys_ that belong to the state before InSync
    bool inSyncDue_ = false;
    bool resumed_ = false;
};

} // namespace Q7Sync
