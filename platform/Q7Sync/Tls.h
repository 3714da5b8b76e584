// Q7Sync::Tls: the mutual-TLS context that every connection of an agent shares.
#pragma once

#include <string>

#include <asio/ssl/context.hpp>

namespace Q7Sync {

struct Credentials;

// One context for both roles: it presents the agent's certificate, and requires from the peer
// a certificate that the authority signed. Either side refuses a peer without one at the
// handshake, before any frame is read or written.
class Tls {
public:
    // Throws std::runtime_error naming the file and OpenSSL's reason when one cannot be used.
    explicit Tls(Credentials const& credentials);

    asio::ssl::context& context() noexcept { return context_; }

private:
    asio::ssl::context context_;
};

// A TLS error's text as a person reads it: OpenSSL's reason without the library's codes.
std::string tlsReason(asio::error_code const& ec);

} // namespace Q7Sync
