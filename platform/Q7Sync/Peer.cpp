// Q7Sync::Peer: connecting with backoff, asking for paths, mirroring what arrives, pushing writes.
#include "Q7Sync/Peer.h"

#include <fmt/format.h>

#include <exception>
#include <vector>

#include "Q7Sync/Channel.h"
#include "Q7Sync/Mirror.h"
#include "Q7Sync/Publication.h"
#include "Wex/Exception.h"
#include "Wex/Path.h"

namespace Q7Sync {

using Q7Serdes::WexUtils::SyncStatus;
using Q7Serdes::WexUtils::SyncStatusEnum;

Peer::Peer(asio::io_context& loop, std::string key, asio::ip::tcp::endpoint remote, std::shared_ptr<Tls> tls)
    : key_(std::move(key)), remote_(std::move(remote)), tls_(std::move(tls)), timer_(loop), askAgain_(loop),
      socket_(loop) {}

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
    for (auto& [id, stream] : streams_) stream.feed.reset();
    if (channel_) channel_->release();
    channel_.reset();
}

void Peer::subscriptionIs(Lumo::Ptr<SyncStatus> const& status, std::string path, bool write) {
    bool const first = streams_.empty();
    std::uint32_t const id = nextId_++;
    Stream& stream = streams_[id];
    stream.status = status;
    stream.path = std::move(path);
    stream.write = write;
    if (!write) stream.mirror = std::make_shared<Mirror>(status->localUri().str());
    if (open_) request(id, stream);
    else if (first && !connecting_ && !channel_) schedule(std::chrono::milliseconds(0));
}

void Peer::subscriptionDel(Lumo::String const& uri) {
    for (auto it = streams_.begin(); it != streams_.end(); ++it) {
        if (it->second.status->uri() != uri) continue;
        if (open_) {
            q7serdes::Frame frame;
            frame.mutable_unsubscribe()->set_stream(it->first);
            channel_->send(frame);
        }
        if (it->second.mirror) it->second.mirror->ended();
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
    channel_ = std::make_shared<Channel>(std::move(socket_), Channel::Role::connecting, tls_, Q7Serdes::kMaxFrameBytes);
    socket_ = asio::ip::tcp::socket(timer_.get_executor());
    channel_->start({.open = [this] { opened(); },
                     .frame = [this](q7serdes::Frame const& frame) { onFrame(frame); },
                     .written =
                         [this] {
                             for (auto& [id, stream] : streams_)
                                 if (stream.feed) stream.feed->flush();
                         },
                     .closed = [this](std::string const& why) { lost(fmt::format("connection lost: {}", why)); }});
}

void Peer::opened() {
    open_ = true;
    askAgainBackoff_.reset();
    auto const self = shared_from_this();
    for (std::uint32_t id : ids())
        if (Stream* stream = streamOf(id); stream && open_) request(id, *stream);
}

void Peer::request(std::uint32_t id, Stream& stream) {
    stream.failed = false;
    q7serdes::Frame frame;
    std::string reason;
    if (!stream.write) {
        auto const from = stream.mirror->begin();
        auto& subscribe = *frame.mutable_subscribe();
        subscribe.set_stream(id);
        subscribe.set_path(stream.path);
        if (from) {
            subscribe.set_resume_epoch(from->first);
            subscribe.set_resume_seq(from->second);
        }
        channel_->send(frame);
        reason = from ? fmt::format("connected: resuming after change {}", from->second)
                      : "connected: the snapshot is arriving";
    } else {
        if (!stream.source) {
            std::string const localUri = stream.status->localUri().str();
            Wex::AttributeAt at;
            try {
                at = Wex::attributeAt(localUri);
            } catch (Wex::Exception const&) {
                // An ill-formed local URI names nothing: told as such below.
            }
            if (!at || !at.attr->readable()) return failedIs(id, fmt::format("nothing to push at {}", localUri));
            stream.source = std::make_unique<Publication>(localUri, std::move(at));
        }
        auto& write = *frame.mutable_write();
        write.set_stream(id);
        write.set_path(stream.path);
        write.set_type(std::string(stream.source->at().entity->fwkType()->name()));
        channel_->send(frame);
        // The write side keeps no history for the receiver: each connection pushes it all.
        stream.feed = std::make_unique<Feed>(*stream.source, channel_, id, [](std::string const&) {});
        stream.feed->start(std::nullopt);
        reason = "connected: pushing the state";
    }
    // Asked again after a failure, the status stays failed until the state is complete.
    if (stream.status->status() != SyncStatusEnum::failed) statusIs(stream.status, SyncStatusEnum::syncing, reason);
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
                if (Stream* stream = self->streamOf(id); stream && stream->failed && self->open_)
                    self->request(id, *stream);
        });
    }
    Stream* stream = streamOf(id);
    stream->failed = true;
    stream->feed.reset();
    statusIs(stream->status, SyncStatusEnum::failed,
             fmt::format("{}; next ask in {:.1f} s", why, double(askAgainWait_.count()) / 1000.0));
}

void Peer::lost(std::string const& why) {
    connecting_ = false;
    open_ = false;
    for (auto& [id, stream] : streams_) stream.feed.reset();
    // Told to the peer when the connection still stands (what it sent made no sense here).
    if (channel_) channel_->end(why);
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
    // The peer answered: the next loss starts from the first wait again. (Not on the handshake:
    // a peer that refuses us after it must not be tried again at once, again and again.)
    backoff_.reset();
    switch (frame.body_case()) {
    case q7serdes::Frame::kRefused: {
        std::uint32_t const id = frame.refused().stream();
        // Frames on a stream that was ended meanwhile are late, not wrong.
        if (Stream* stream = streamOf(id); stream && !stream->failed)
            failedIs(id, fmt::format("refused by {}: {}", key_, frame.refused().reason()));
        return;
    }
    case q7serdes::Frame::kStored: {
        Stream* stream = streamOf(frame.stored().stream());
        if (!stream || stream->failed) return;
        if (!stream->write) return lost("connection closed: the peer acknowledged a write on a subscription");
        statusIs(stream->status, SyncStatusEnum::inSync, fmt::format("stored by {}; changes follow", key_));
        return;
    }
    case q7serdes::Frame::kSnapshot: return received(frame.snapshot().stream(), frame);
    case q7serdes::Frame::kInSync: return received(frame.in_sync().stream(), frame);
    case q7serdes::Frame::kChange: return received(frame.change().stream(), frame);
    default: return lost("connection closed: the peer sent what only a subscriber sends");
    }
}

void Peer::received(std::uint32_t id, q7serdes::Frame const& frame) {
    Stream* stream = streamOf(id);
    if (!stream || stream->failed) return;
    if (stream->write) return lost("connection closed: the peer sent data on a write-sync stream");
    std::shared_ptr<Mirror> const mirror = stream->mirror;
    Lumo::Ptr<SyncStatus> const status = stream->status;
    try {
        std::optional<std::string> const complete = mirror->apply(frame);
        // The handlers told of the writes may have ended the stream.
        if (complete && streamOf(id)) statusIs(status, SyncStatusEnum::inSync, *complete);
    } catch (std::exception const& e) {
        if (!streamOf(id)) return;
        // The publisher stops streaming it until it is asked for again.
        q7serdes::Frame unsubscribe;
        unsubscribe.mutable_unsubscribe()->set_stream(id);
        if (channel_) channel_->send(unsubscribe);
        failedIs(id, fmt::format("data from {} not applied: {}", key_, e.what()));
    }
}

void Peer::describe(std::string& out) const {
    out += fmt::format("  remote agent {}: {}", key_,
                       open_ ? fmt::format("connected{}, {} bytes queued", channel_->secured() ? " (TLS)" : "",
                                           channel_->queuedBytes())
                             : std::string(channel_ ? "handshaking" : "not connected"));
    out += '\n';
    for (auto const& [id, stream] : streams_) {
        out += fmt::format("    stream {} {} {}: {}", id, stream.write ? "writes" : "mirrors", stream.status->uri(),
                           stream.status->status());
        if (stream.mirror)
            if (auto const point = stream.mirror->resumePoint()) out += fmt::format(", at change {}", point->second);
        if (stream.feed) out += fmt::format(", {} entries waiting", stream.feed->backlog());
        out += '\n';
    }
}

} // namespace Q7Sync
