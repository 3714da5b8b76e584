// Q7Sync::Publication and Q7Sync::Feed: numbered changes, snapshots and resumes, coalescing.
#include "Q7Sync/Publication.h"

#include <algorithm>
#include <random>

#include <fmt/format.h>

#include "Q7Sync/Channel.h"

namespace Q7Sync {

namespace {
// Frames are cut at about this size, so that the window is filled in steps of it.
constexpr std::size_t kFrameBytes = std::size_t{64} << 10;
// Protobuf's own cost of an entry beside its key and value.
constexpr std::size_t kEntryOverhead = 8;

std::uint64_t newEpoch() {
    std::random_device random;
    std::uint64_t epoch = 0;
    while (epoch == 0) epoch = (std::uint64_t(random()) << 32) | random();
    return epoch;
}
} // namespace

// --- Publication

Publication::Publication(std::string path, Wex::AttributeAt at)
    : path_(std::move(path)), at_(std::move(at)), keyed_(at_.attr->kind() == Wex::AttrKind::collection),
      epoch_(newEpoch()) {
    if (!keyed_) plainValue_ = at_.attr->get(at_.object()).text();
    watch_ = at_.attr->watch(*at_.entity, [this](Wex::Value const& key) { changed(key); });
}

Publication::~Publication() {
    watch_.reset();
    auto const feeds = std::move(feeds_);
    for (Feed* feed : feeds) feed->publicationGone(fmt::format("path '{}' is no longer published", path_));
}

std::vector<std::string> Publication::keys() const {
    if (!keyed_) return {std::string()};
    std::vector<std::string> out;
    out.reserve(at_.attr->count(at_.object()));
    at_.attr->forEach(at_.object(), [&](Wex::Value const& key, Wex::Value const&) { out.push_back(key.text()); });
    return out;
}

std::optional<std::string> Publication::valueOf(std::string const& key) const {
    if (!keyed_) return plainValue_;
    Wex::Value const value = at_.attr->member(at_.object(), at_.attr->keyFromText(key));
    if (value.empty()) return std::nullopt;
    return value.text();
}

std::optional<std::vector<std::string>> Publication::changedSince(std::uint64_t epoch, std::uint64_t seq) const {
    if (epoch != epoch_ || seq > seq_ || seq_ - seq > log_.size()) return std::nullopt;
    std::vector<std::string> out;
    std::unordered_set<std::string_view> seen;
    for (auto it = log_.end() - std::ptrdiff_t(seq_ - seq); it != log_.end(); ++it)
        if (seen.insert(*it).second) out.push_back(*it);
    return out;
}

void Publication::changed(Wex::Value const& key) {
    std::string text;
    if (keyed_) {
        text = key.text();
    } else {
        // Any change of the entity is heard: only a new value of this attribute is a change.
        std::string now = at_.attr->get(at_.object()).text();
        if (now == plainValue_) return;
        plainValue_ = std::move(now);
    }
    ++seq_;
    log_.push_back(text);
    if (log_.size() > kResumeLog) log_.pop_front();
    if (feeds_.empty()) return;
    // Read once for every feed, from the key as it came rather than from its text.
    std::optional<std::string> value;
    if (!keyed_) value = plainValue_;
    else if (Wex::Value const now = at_.attr->member(at_.object(), key); !now.empty()) value = now.text();
    for (Feed* feed : feeds_) feed->changed(text, value);
}

// --- Feed

Feed::Feed(Publication& publication, std::shared_ptr<Channel> channel, std::uint32_t stream,
           std::function<void(std::string const&)> ended)
    : publication_(&publication), channel_(std::move(channel)), stream_(stream), ended_(std::move(ended)) {
    publication_->feeds_.push_back(this);
}

Feed::~Feed() {
    if (publication_) std::erase(publication_->feeds_, this);
}

void Feed::publicationGone(std::string const& reason) {
    publication_ = nullptr;
    // The owner drops this feed in there: nothing of it may be touched after.
    auto const ended = ended_;
    ended(reason);
}

bool Feed::start(std::optional<std::pair<std::uint64_t, std::uint64_t>> resume) {
    std::optional<std::vector<std::string>> keys;
    if (resume) keys = publication_->changedSince(resume->first, resume->second);
    resumed_ = keys.has_value();
    if (!resumed_) keys = publication_->keys();
    for (auto const& key : *keys) queue(key);
    stateLeft_ = keys_.size();
    inSyncDue_ = true;
    flush();
    return resumed_;
}

void Feed::queue(std::string const& key) {
    if (queued_.count(key)) return;
    keys_.push_back(key);
    queued_.insert(keys_.back());
}

std::size_t Feed::addTo(q7serdes::Change& change, std::string const& key, std::optional<std::string> value) {
    if (value) {
        auto& entry = *change.add_set();
        entry.set_key(key);
        entry.set_value(std::move(*value));
        return entry.value().size();
    }
    change.add_deleted(key);
    return 0;
}

void Feed::changed(std::string const& key, std::optional<std::string> const& value) {
    // Nothing waits and there is room: the change goes as it is, with the point it brings the peer to.
    if (!inSyncDue_ && keys_.empty() && !channel_->windowFull()) {
        q7serdes::Frame frame;
        auto& change = *frame.mutable_change();
        change.set_stream(stream_);
        addTo(change, key, value);
        change.set_seq(publication_->seq());
        channel_->send(frame);
        return;
    }
    queue(key);
    if (!channel_->windowFull()) flush();
}

void Feed::flush() {
    if (!publication_) return;
    q7serdes::Frame frame;
    while (channel_->open() && !channel_->windowFull()) {
        frame.Clear();
        bool const state = stateLeft_ > 0;
        if (!state && inSyncDue_) {
            auto& inSync = *frame.mutable_in_sync();
            inSync.set_stream(stream_);
            inSync.set_epoch(publication_->epoch());
            if (keys_.empty()) inSync.set_seq(publication_->seq());
            inSync.set_resumed(resumed_);
            inSyncDue_ = false;
            channel_->send(frame);
            continue;
        }
        if (keys_.empty()) return;
        // One frame's worth of entries, read as they stand now. A snapshot names what is there;
        // a resume or a change also names what was deleted.
        bool const snapshot = state && !resumed_;
        auto* const entries = snapshot ? frame.mutable_snapshot()->mutable_entries() : nullptr;
        auto* const change = snapshot ? nullptr : frame.mutable_change();
        if (snapshot) frame.mutable_snapshot()->set_stream(stream_);
        else change->set_stream(stream_);
        std::size_t bytes = 0;
        while (!keys_.empty() && bytes < kFrameBytes && (!state || stateLeft_ > 0)) {
            queued_.erase(keys_.front());  // before the key moves out from under its view
            std::string key = std::move(keys_.front());
            keys_.pop_front();
            if (state) --stateLeft_;
            bytes += key.size() + kEntryOverhead;
            if (snapshot) {
                if (auto value = publication_->valueOf(key)) {
                    auto& entry = *entries->Add();
                    bytes += value->size();
                    entry.set_key(std::move(key));
                    entry.set_value(std::move(*value));
                }
            } else {
                bytes += addTo(*change, key, publication_->valueOf(key));
            }
        }
        // The last of what waited brings the peer to the publication's point.
        if (change && !state && keys_.empty()) change->set_seq(publication_->seq());
        if (snapshot ? !entries->empty() : change->set_size() + change->deleted_size() > 0) channel_->send(frame);
    }
}

} // namespace Q7Sync
