// Q7Sync serving side: snapshots, changes and refusals, sent from the published attribute.
#include "Q7Sync/Server.h"

#include <fmt/format.h>

#include <vector>

#include "Q7Sync/Channel.h"

namespace Q7Sync {

namespace {
// Snapshot frames are cut at about this size, so that a large state does not make one frame.
constexpr std::size_t kSnapshotFrameBytes = std::size_t{256} << 10;

void refuse(Channel& channel, std::uint32_t stream, std::string const& reason) {
    q7serdes::Frame frame;
    frame.mutable_refused()->set_stream(stream);
    frame.mutable_refused()->set_reason(reason);
    channel.send(frame);
}
} // namespace

// --- Publication

Publication::Publication(std::string path, Wex::AttributeAt at) : path_(std::move(path)), at_(std::move(at)) {
    if (at_.attr->kind() != Wex::AttrKind::collection) plainValue_ = at_.attr->get(at_.object()).text();
    watch_ = at_.attr->watch(*at_.entity, [this](Wex::Value const& key) { changed(key); });
}

Publication::~Publication() {
    watch_.reset();
    // Sessions forget the stream: the publisher has nothing more to say on it.
    auto const streams = std::move(streams_);
    for (auto const& [session, stream] : streams) session->streamRefused(stream, fmt::format("path '{}' is no longer published", path_));
}

q7serdes::Entry Publication::entryOf(Wex::Value const& key, Wex::Value const& value) const {
    q7serdes::Entry entry;
    if (!key.empty()) entry.set_key(key.text());
    entry.set_value(value.text());
    return entry;
}

void Publication::streamIs(ServerSession& session, std::uint32_t stream) {
    streams_.emplace(&session, stream);
    q7serdes::Frame frame;
    auto* snapshot = frame.mutable_snapshot();
    snapshot->set_stream(stream);
    if (at_.attr->kind() == Wex::AttrKind::collection) {
        std::size_t bytes = 0;
        at_.attr->forEach(at_.object(), [&](Wex::Value const& key, Wex::Value const& value) {
            auto& entry = *snapshot->add_entries() = entryOf(key, value);
            bytes += entry.key().size() + entry.value().size() + 8;
            if (bytes < kSnapshotFrameBytes) return;
            session.send(frame);
            snapshot->clear_entries();
            bytes = 0;
        });
    } else {
        auto& entry = *snapshot->add_entries();
        entry.set_value(plainValue_);
    }
    if (snapshot->entries_size() > 0) session.send(frame);
    frame.mutable_in_sync()->set_stream(stream);
    session.send(frame);
}

void Publication::streamDel(ServerSession& session, std::uint32_t stream) { streams_.erase({&session, stream}); }

void Publication::changed(Wex::Value const& key) {
    if (streams_.empty() && at_.attr->kind() == Wex::AttrKind::collection) return;
    q7serdes::Frame frame;
    auto* change = frame.mutable_change();
    if (at_.attr->kind() == Wex::AttrKind::collection) {
        Wex::Value const value = at_.attr->member(at_.object(), key);
        if (value.empty()) change->add_deleted(key.text());
        else *change->add_set() = entryOf(key, value);
    } else {
        // Any change of the entity is heard: only a new value of this attribute is served.
        std::string text = at_.attr->get(at_.object()).text();
        if (text == plainValue_) return;
        plainValue_ = std::move(text);
        change->add_set()->set_value(plainValue_);
    }
    sendToAll(frame);
}

void Publication::sendToAll(q7serdes::Frame& frame) {
    for (auto const& [session, stream] : streams_) {
        frame.mutable_change()->set_stream(stream);
        session->send(frame);
    }
}

// --- ServerSession

ServerSession::ServerSession(asio::ip::tcp::socket socket, PublicationOf publicationOf, Gone gone)
    : channel_(std::make_shared<Channel>(std::move(socket))), publicationOf_(std::move(publicationOf)),
      gone_(std::move(gone)) {}

ServerSession::~ServerSession() {
    channel_->close();
    for (auto const& [stream, publication] : streams_) publication->streamDel(*this, stream);
}

void ServerSession::start() {
    channel_->start([this](q7serdes::Frame const& frame) { onFrame(frame); },
                    [this](std::string const&) { gone_(this); });
}

void ServerSession::send(q7serdes::Frame const& frame) { channel_->send(frame); }

std::size_t ServerSession::queuedBytes() const noexcept { return channel_->queuedBytes(); }

void ServerSession::streamRefused(std::uint32_t stream, std::string const& reason) {
    if (streams_.erase(stream)) refuse(*channel_, stream, reason);
}

void ServerSession::onFrame(q7serdes::Frame const& frame) {
    switch (frame.body_case()) {
    case q7serdes::Frame::kSubscribe: {
        std::uint32_t const stream = frame.subscribe().stream();
        if (streams_.count(stream)) {
            refuse(*channel_, stream, fmt::format("stream {} is already in use", stream));
            return;
        }
        Publication* publication = publicationOf_(frame.subscribe().path());
        if (!publication) {
            refuse(*channel_, stream, fmt::format("path '{}' is not published", frame.subscribe().path()));
            return;
        }
        streams_.emplace(stream, publication);
        publication->streamIs(*this, stream);
        return;
    }
    case q7serdes::Frame::kUnsubscribe:
        if (auto it = streams_.find(frame.unsubscribe().stream()); it != streams_.end()) {
            it->second->streamDel(*this, it->first);
            streams_.erase(it);
        }
        return;
    default:
        // Only a subscriber's requests come this way: anything else ends the connection.
        channel_->close();
        gone_(this);
        return;
    }
}

// --- Endpoint

Endpoint::Endpoint(asio::io_context& loop, std::string const& hostAddr, std::uint16_t port,
                   ServerSession::PublicationOf publicationOf)
    : acceptor_(loop), publicationOf_(std::move(publicationOf)) {
    asio::error_code ec;
    asio::ip::address const address = asio::ip::make_address(hostAddr, ec);
    std::string reason;
    if (ec) {
        reason = fmt::format("'{}' is not an IPv4 or IPv6 address", hostAddr);
    } else {
        asio::ip::tcp::endpoint const at(address, port);
        acceptor_.open(at.protocol(), ec);
        if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
        if (!ec) acceptor_.bind(at, ec);
        if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
        if (ec) {
            reason = ec.message();
            asio::error_code ignored;
            acceptor_.close(ignored);
        }
    }
    status_ = Lumo::Ptr<Q7Serdes::WexUtils::ListenStatus>(
        new Q7Serdes::WexUtils::ListenStatus(acceptor_.is_open(), Lumo::String(reason)));
    status_->hasNotificationActiveIs(true);
}

Endpoint::~Endpoint() {
    asio::error_code ignored;
    acceptor_.close(ignored);
}

void Endpoint::start() {
    if (acceptor_.is_open()) accept();
}

std::uint16_t Endpoint::boundPort() const {
    asio::error_code ec;
    auto const at = acceptor_.local_endpoint(ec);
    return ec ? 0 : at.port();
}

void Endpoint::accept() {
    acceptor_.async_accept([weak = weak_from_this()](asio::error_code ec, asio::ip::tcp::socket socket) {
        auto self = weak.lock();
        if (!self || ec == asio::error::operation_aborted) return;
        if (!ec) {
            auto session = std::make_unique<ServerSession>(std::move(socket), self->publicationOf_,
                                                           [endpoint = self.get()](ServerSession* gone) {
                                                               endpoint->sessions_.erase(gone);
                                                           });
            ServerSession* s = session.get();
            self->sessions_.emplace(s, std::move(session));
            s->start();
        }
        // A failed accept (out of descriptors, say) leaves the endpoint listening for the next.
        self->accept();
    });
}

} // namespace Q7Sync
