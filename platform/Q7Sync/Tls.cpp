// Q7Sync::Tls: loading the credentials, and the peer verification both roles do.
#include "Q7Sync/Tls.h"

#include <stdexcept>

#include <asio/ssl/error.hpp>
#include <fmt/format.h>
#include <openssl/err.h>

#include "Q7Sync/Service.h"

namespace Q7Sync {

Tls::Tls(Credentials const& credentials) : context_(asio::ssl::context::tls) {
    // TLS 1.2 at least: older versions have known weaknesses and nothing here needs them.
    context_.set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                         asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
                         asio::ssl::context::no_tlsv1_1);
    auto const load = [](char const* what, std::string const& file, auto&& use) {
        asio::error_code ec;
        use(ec);
        if (ec) throw std::runtime_error(fmt::format("{} '{}' cannot be used: {}", what, file, tlsReason(ec)));
    };
    load("certificate", credentials.certificate,
         [&](asio::error_code& ec) { context_.use_certificate_chain_file(credentials.certificate, ec); });
    load("private key", credentials.privateKey, [&](asio::error_code& ec) {
        context_.use_private_key_file(credentials.privateKey, asio::ssl::context::pem, ec);
    });
    load("authority", credentials.authority,
         [&](asio::error_code& ec) { context_.load_verify_file(credentials.authority, ec); });
    if (SSL_CTX_check_private_key(context_.native_handle()) != 1)
        throw std::runtime_error(fmt::format("private key '{}' does not match certificate '{}'",
                                             credentials.privateKey, credentials.certificate));
    // Both roles: a peer must present a certificate of the authority, or the handshake fails.
    context_.set_verify_mode(asio::ssl::verify_peer | asio::ssl::verify_fail_if_no_peer_cert);
}

std::string tlsReason(asio::error_code const& ec) {
    if (ec.category() != asio::error::get_ssl_category()) return ec.message();
    // OpenSSL's reason string alone ("certificate verify failed"), without "(SSL routines)".
    if (char const* reason = ERR_reason_error_string(static_cast<unsigned long>(ec.value()))) return reason;
    return ec.message();
}

} // namespace Q7Sync
