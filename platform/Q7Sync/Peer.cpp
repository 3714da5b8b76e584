// Q7Sync::Peer: connecting with backoff, asking for paths, and mirroring what arrives.
#include "Q7Sync/Peer.h"

#include <fmt/format.h>

#include <exception>
#include <vector>

#include "Q7Sync/Channel.h"
#include "Wex/Path.h"

namespace Q7Sync {

using Q7Serdes::WexUtils::SyncStatus;
using Q7Serdes::WexUtils::SyncStatusEnum;

Peer::Peer(asio::io_context& loop, std::string key, asio::ip::tcp::endpoint remote)
    : key_(std::move(key)), remote_(std::move(remote)), timer_(loop), askAgain_(loop), socket_(loop) {}

Peer::~Peer() { stop(); }

void Peer::stop() noexcept {
    stopped_ = true;
    try {
        timer_.cancel();
        askAgain_.cancel();
    } catch (std::exception const&) {
        // Cancelling a timer fails only when the system cannot; the peer is stopped all the same.
    }
    asio::error_code ignored;
    socket_.close(ignored);
    if (channel_) channel_->close();
    channel_.reset();
}

void Peer::subscriptionIs(Lumo::Ptr<SyncStatus> const& status, std::string path) {
    bool const first = streams_.empty();
    std::uint32_t const id = nextId_++;
    Stream& stream = streams_[id];
    stream.status = status;
    stream.path = std::move(path);
    if (channel_) request(id, stream);
    else if (first && !connecting_) schedule(std::chrono::milliseconds(0));
}

void Peer::subscriptionDel(Lumo::String const& uri) {
    for (auto it = streams_.begin(); it != streams_.end(); ++it) {
        if (it->second.status->uri() != uri) continue;
        if (channel_) {
            q7serdes::Frame frame;
            frame.mutable_unsubscribe()->set_stream(it->first);
            channel_->send(frame);
        }
        streams_.erase(it);
        return;
    }
}

std::vector<std::uint32_t> Peer::ids() const {
    std::vector<std::uint32_t> out;
    out.reserve(streams_.size());
    for (auto const& [id, stream] : streams_) out.push_back(id);
    return out;
}

Peer::Stream* Peer::streamOf(std::uint32_t id) {
    auto it = streams_.find(id);
    return it == streams_.end() ? nullptr : &it->second;
}

void Peer::schedule(std::chrono::milliseconds after) {
    timer_.expires_after(after);
    timer_.async_wait([weak = weak_from_this()](asio::error_code ec) {
        if (auto self = weak.lock(); self && !ec && !self->stopped_) self->connect();
    });
}

void Peer::connect() {
    connecting_ = true;
    auto const self = shared_from_this();
    for (std::uint32_t id : ids())
        if (Stream* stream = streamOf(id); stream && stream->status->status() == SyncStatusEnum::notConnected)
            statusIs(stream->status, SyncStatusEnum::connecting, fmt::format("connecting to {}", key_));
    // A status watcher may have ended the last subscription, and with it this peer.
    if (stopped_) return;
    asio::error_code ignored;
    socket_.close(ignored);
    socket_.async_connect(remote_, [weak = weak_from_this()](asio::error_code ec) {
        auto self = weak.lock();
        if (!self || ec == asio::error::operation_aborted || self->stopped_) return;
        if (ec) self->lost(ec.message());
        else self->connected();
    });
    timer_.expires_after(kConnectTimeout);
    timer_.async_wait([weak = weak_from_this()](asio::error_code ec) {
        auto self = weak.lock();
        if (!self || ec || !self->connecting_) return;
        asio::error_code ignored;
        self->socket_.close(ignored);
        self->lost(fmt::format("no answer within {} s", kConnectTimeout.count()));
    });
}

void Peer::connected() {
    connecting_ = false;
    timer_.cancel();
    backoff_.reset();
    askAgainBackoff_.reset();
    channel_ = std::make_shared<Channel>(std::move(socket_));
    socket_ = asio::ip::tcp::socket(timer_.get_executor());
    channel_->start([this](q7serdes::Frame const& frame) { onFrame(frame); },
                    [this](std::string const& why) { lost(fmt::format("connection lost: {}", why)); });
    auto const self = shared_from_this();
    for (std::uint32_t id : ids())
        if (Stream* stream = streamOf(id); stream && channel_) request(id, *stream);
}

void Peer::request(std::uint32_t id, Stream& stream) {
    stream.snapshotting = true;
    stream.failed = false;
    stream.seen.clear();
    q7serdes::Frame frame;
    frame.mutable_subscribe()->set_stream(id);
    frame.mutable_subscribe()->set_path(stream.path);
    channel_->send(frame);
    // Asked again after a failure, the status stays failed until the snapshot is complete.
    if (stream.status->status() != SyncStatusEnum::failed)
        statusIs(stream.status, SyncStatusEnum::syncing, "connected: the snapshot is arriving");
}

void Peer::failedIs(std::uint32_t id, std::string const& why) {
    // The path may be published later, or the container made: failed streams are asked for
    // again, with a backoff of their own, for as long as they are subscribed.
    if (!askAgainPending_) {
        askAgainPending_ = true;
        askAgainWait_ = askAgainBackoff_.next();
        askAgain_.expires_after(askAgainWait_);
        askAgain_.async_wait([weak = weak_from_this()](asio::error_code ec) {
            auto self = weak.lock();
            if (!self || ec) return;
            self->askAgainPending_ = false;
            for (std::uint32_t id : self->ids())
                if (Stream* stream = self->streamOf(id); stream && stream->failed && self->channel_) self->request(id, *stream);
        });
    }
    Stream* stream = streamOf(id);
    stream->failed = true;
    statusIs(stream->status, SyncStatusEnum::failed,
             fmt::format("{}; next ask in {:.1f} s", why, double(askAgainWait_.count()) / 1000.0));
}

void Peer::lost(std::string const& why) {
    connecting_ = false;
    if (channel_) channel_->close();
    channel_.reset();
    auto const wait = backoff_.next();
    auto const self = shared_from_this();
    std::string const reason = fmt::format("{}; next try in {:.1f} s", why, double(wait.count()) / 1000.0);
    for (std::uint32_t id : ids())
        if (Stream* stream = streamOf(id)) statusIs(stream->status, SyncStatusEnum::connecting, reason);
    if (!stopped_) schedule(wait);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): a copy, as the caller's may go meanwhile
void Peer::statusIs(Lumo::Ptr<SyncStatus> const held, SyncStatusEnum status, std::string const& reason) {
    // The reason first: watchers of the status read it when the status changes. They may end
    // the subscription, and with it the stream that held the status the caller passed.
    held->reasonIs(Lumo::String(reason));
    held->statusIs(status);
}

void Peer::onFrame(q7serdes::Frame const& frame) {
    auto const self = shared_from_this();
    std::uint32_t id = 0;
    switch (frame.body_case()) {
    case q7serdes::Frame::kRefused: id = frame.refused().stream(); break;
    case q7serdes::Frame::kSnapshot: id = frame.snapshot().stream(); break;
    case q7serdes::Frame::kInSync: id = frame.in_sync().stream(); break;
    case q7serdes::Frame::kChange: id = frame.change().stream(); break;
    default:
        lost("connection closed: the peer sent a subscriber's request");
        return;
    }
    // Frames on a stream that was ended meanwhile are late, not wrong.
    Stream* stream = streamOf(id);
    if (!stream || stream->failed) return;
    if (frame.body_case() == q7serdes::Frame::kRefused) {
        failedIs(id, fmt::format("refused by {}: {}", key_, frame.refused().reason()));
        return;
    }
    try {
        apply(id, frame);
    } catch (std::exception const& e) {
        if (!streamOf(id)) return;
        // The publisher stops streaming it until it is asked for again.
        q7serdes::Frame unsubscribe;
        unsubscribe.mutable_unsubscribe()->set_stream(id);
        if (channel_) channel_->send(unsubscribe);
        failedIs(id, fmt::format("data from {} not applied: {}", key_, e.what()));
    }
}

void Peer::apply(std::uint32_t id, q7serdes::Frame const& frame) {
    // A write tells the container's handler, which may end this subscription or others: the
    // stream is looked up again after each.
    Stream* stream = streamOf(id);
    Lumo::Ptr<SyncStatus> const status = stream->status;
    // Found anew for each frame: the container is the module's, and may be replaced meanwhile.
    Wex::AttributeAt const at = Wex::attributeAt(status->localUri().view());
    if (!at) throw std::runtime_error(fmt::format("nothing to write at {}", status->localUri()));
    bool const keyed = at.attr->kind() == Wex::AttrKind::collection;
    auto const write = [&](q7serdes::Entry const& entry) {
        if (keyed) at.attr->memberIsFromText(at.object(), entry.key(), entry.value());
        else at.attr->setFromText(at.object(), entry.value());
        return (stream = streamOf(id)) != nullptr;
    };
    switch (frame.body_case()) {
    case q7serdes::Frame::kSnapshot:
        for (auto const& entry : frame.snapshot().entries()) {
            if (stream->snapshotting) stream->seen.insert(entry.key());
            if (!write(entry)) return;
        }
        return;
    case q7serdes::Frame::kChange:
        for (auto const& entry : frame.change().set())
            if (!write(entry)) return;
        if (keyed)
            for (auto const& key : frame.change().deleted()) {
                at.attr->memberDelFromText(at.object(), key);
                if (!streamOf(id)) return;
            }
        return;
    case q7serdes::Frame::kInSync: {
        // What the snapshot did not name went while we were away.
        std::vector<Wex::Value> stale;
        if (keyed)
            at.attr->forEach(at.object(), [&](Wex::Value const& key, Wex::Value const&) {
                if (!stream->seen.count(key.text())) stale.push_back(key);
            });
        std::size_t const entries = stream->seen.size();
        stream->snapshotting = false;
        stream->seen.clear();
        for (auto const& key : stale) at.attr->memberDel(at.object(), key);
        statusIs(status, SyncStatusEnum::inSync,
                 fmt::format("snapshot of {} entr{} complete{}", entries, entries == 1 ? "y" : "ies",
                             stale.empty() ? "" : fmt::format(", {} stale deleted", stale.size())));
        return;
    }
    default:
        return;
    }
}

} // namespace Q7Sync
