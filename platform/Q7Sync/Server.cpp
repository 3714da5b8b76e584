// Q7Sync serving side: streams served and received, refusals, and what closes a connection.
#include "Q7Sync/Server.h"

#include <fmt/format.h>

#include <exception>

#include "Q7Serdes/Framing.h"
#include "Q7Sync/Channel.h"
#include "Q7Sync/Mirror.h"
#include "Q7Sync/Publication.h"
#include "Q7Sync/Service.h"
#include "Wex/Exception.h"
#include "Wex/Path.h"

namespace Q7Sync {

// --- ServerSession

ServerSession::ServerSession(asio::ip::tcp::socket socket, std::shared_ptr<Tls> tls, PublicationOf publicationOf,
                             Gone gone)
    : channel_(std::make_shared<Channel>(std::move(socket), Channel::Role::accepting, std::move(tls),
                                         Q7Serdes::kMaxRequestFrameBytes)),
      publicationOf_(std::move(publicationOf)), gone_(std::move(gone)) {}

ServerSession::~ServerSession() {
    channel_->release();
    for (auto const& [stream, sink] : sinks_) sink->ended();
}

void ServerSession::start() {
    channel_->start({.open = nullptr,
                     .frame = [this](q7serdes::Frame const& frame) { onFrame(frame); },
                     .written =
                         [this] {
                             for (auto const& [stream, feed] : feeds_) feed->flush();
                         },
                     .closed = [this](std::string const& reason) { gone_(this, reason); }});
}

void ServerSession::end(std::string const& reason) {
    channel_->end(reason);
    gone_(this, reason);  // this session is gone now
}

void ServerSession::refuse(std::uint32_t stream, std::string const& reason) {
    q7serdes::Frame frame;
    frame.mutable_refused()->set_stream(stream);
    frame.mutable_refused()->set_reason(reason);
    channel_->send(frame);
}

void ServerSession::onFrame(q7serdes::Frame const& frame) {
    switch (frame.body_case()) {
    case q7serdes::Frame::kSubscribe: return subscribe(frame.subscribe());
    case q7serdes::Frame::kWrite: return write(frame.write());
    case q7serdes::Frame::kUnsubscribe: {
        std::uint32_t const stream = frame.unsubscribe().stream();
        feeds_.erase(stream);
        if (auto it = sinks_.find(stream); it != sinks_.end()) {
            it->second->ended();
            sinks_.erase(it);
        }
        return;
    }
    case q7serdes::Frame::kSnapshot: return received(frame.snapshot().stream(), frame);
    case q7serdes::Frame::kInSync: return received(frame.in_sync().stream(), frame);
    case q7serdes::Frame::kChange: return received(frame.change().stream(), frame);
    default:
        return end(fmt::format("a subscriber or writer does not send {}",
                               frame.body_case() == q7serdes::Frame::BODY_NOT_SET
                                   ? std::string("an empty frame")
                                   : fmt::format("'{}'", q7serdes::Frame::descriptor()
                                                             ->FindFieldByNumber(frame.body_case())
                                                             ->name())));
    }
}

bool ServerSession::opens(std::uint32_t stream) {
    if (feeds_.count(stream) || sinks_.count(stream)) {
        refuse(stream, fmt::format("stream {} is already in use", stream));
        return false;
    }
    if (feeds_.size() + sinks_.size() >= kMaxStreams) {
        end(fmt::format("more than {} streams on one connection", kMaxStreams));
        return false;  // this session is gone
    }
    return true;
}

void ServerSession::subscribe(q7serdes::Subscribe const& subscribe) {
    std::uint32_t const stream = subscribe.stream();
    if (!opens(stream)) return;
    Publication* publication = publicationOf_(subscribe.path());
    if (!publication) return refuse(stream, fmt::format("path '{}' is not published", subscribe.path()));
    auto feed = std::make_unique<Feed>(*publication, channel_, stream, [this, stream](std::string const& reason) {
        refuse(stream, reason);
        feeds_.erase(stream);
    });
    Feed& started = *feeds_.emplace(stream, std::move(feed)).first->second;
    std::optional<std::pair<std::uint64_t, std::uint64_t>> resume;
    if (subscribe.resume_epoch()) resume.emplace(subscribe.resume_epoch(), subscribe.resume_seq());
    started.start(resume);
}

std::string ServerSession::writeTarget(std::string const& path, std::string const& type) const {
    std::string_view const root = Service::kWriteSyncRoot;
    std::string_view rest(path);
    std::size_t const slash = rest.substr(std::min(rest.size(), root.size() + 1)).find('/');
    if (!rest.starts_with(root) || rest.substr(root.size(), 1) != "/" || slash == 0 ||
        slash == std::string_view::npos || rest.find('/', root.size() + 2 + slash) != std::string_view::npos ||
        rest.ends_with("/"))
        return fmt::format("write-sync is accepted at {}/<key>/<attribute> only, not at '{}'", root, path);
    try {
        Lumo::Ptr<Wex::Dir> const dir = Wex::dirAt(root);
        if (!dir) return fmt::format("this agent has no {} directory", root);
        Wex::AttributeAt at = Wex::attributeAt(path);
        if (!at) {
            // The first write of a key makes its entity, of the writer's type as this agent knows it;
            // writers cannot make the directory grow without bound.
            if (dir->entities() >= kMaxWriteSyncKeys)
                return fmt::format("{} holds its limit of {} keys", root, kMaxWriteSyncKeys);
            Wex::WexType const* made = Wex::typeNode(type);
            if (!made || !made->makesEntities()) return fmt::format("type '{}' is not known here", type);
            Wex::entityIs(path.substr(0, path.rfind('/')), made);
            at = Wex::attributeAt(path);
            if (!at) return fmt::format("'{}' names no attribute of {}", path, type);
        }
        if (at.attr->readOnly()) return fmt::format("'{}' cannot be written", path);
    } catch (Wex::Exception const& e) {
        return fmt::format("'{}' cannot be written: {}", path, e.what());
    }
    return {};
}

void ServerSession::write(q7serdes::Write const& write) {
    std::uint32_t const stream = write.stream();
    if (!opens(stream)) return;
    if (std::string const refusal = writeTarget(write.path(), write.type()); !refusal.empty())
        return refuse(stream, refusal);
    auto sink = std::make_shared<Mirror>(write.path());
    sink->begin();
    sinks_.emplace(stream, std::move(sink));
}

void ServerSession::received(std::uint32_t stream, q7serdes::Frame const& frame) {
    auto it = sinks_.find(stream);
    if (it == sinks_.end()) {
        // Data on a stream that this side serves goes the wrong way; on an unknown one it is
        // late (the stream was refused meanwhile).
        if (feeds_.count(stream)) end(fmt::format("data sent on stream {}, which this agent serves", stream));
        return;
    }
    std::shared_ptr<Mirror> const sink = it->second;
    try {
        if (sink->apply(frame)) {
            q7serdes::Frame stored;
            stored.mutable_stored()->set_stream(stream);
            channel_->send(stored);
        }
    } catch (std::exception const& e) {
        if (sinks_.erase(stream)) refuse(stream, fmt::format("write-sync data not applied: {}", e.what()));
    }
}

std::string const& ServerSession::peerName() const noexcept { return channel_->peerName(); }

void ServerSession::describe(std::string& out) const {
    out += fmt::format("    connection {}{}: {} bytes queued\n", channel_->peerName(), channel_->secured() ? " (TLS)" : "",
                       channel_->queuedBytes());
    for (auto const& [stream, feed] : feeds_)
        out += fmt::format("      stream {} serves {}: {}, {} entries waiting\n", stream, feed->publication()->path(),
                           feed->syncing() ? "sending the state" : "streaming", feed->backlog());
    for (auto const& [stream, sink] : sinks_)
        out += fmt::format("      stream {} writes into {}\n", stream, sink->path());
}

// --- Endpoint

Endpoint::Endpoint(asio::io_context& loop, std::string const& hostAddr, std::uint16_t port, std::shared_ptr<Tls> tls,
                   ServerSession::PublicationOf publicationOf)
    : acceptor_(loop), tls_(std::move(tls)), publicationOf_(std::move(publicationOf)) {
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

void Endpoint::describe(std::string& out) const {
    for (auto const& [key, session] : sessions_) session->describe(out);
    for (auto const& close : closes_) out += fmt::format("    closed {}\n", close);
}

void Endpoint::accept() {
    acceptor_.async_accept([weak = weak_from_this()](asio::error_code ec, asio::ip::tcp::socket socket) {
        auto self = weak.lock();
        if (!self || ec == asio::error::operation_aborted) return;
        if (!ec) {
            auto session = std::make_unique<ServerSession>(
                std::move(socket), self->tls_, self->publicationOf_,
                [endpoint = self.get()](ServerSession* gone, std::string const& reason) {
                    auto it = endpoint->sessions_.find(gone);
                    if (it == endpoint->sessions_.end()) return;
                    endpoint->closes_.push_back(fmt::format("{}: {}", gone->peerName(), reason));
                    if (endpoint->closes_.size() > kClosesKept) endpoint->closes_.pop_front();
                    endpoint->sessions_.erase(it);
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
