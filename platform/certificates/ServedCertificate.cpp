#include "platform/certificates/ServedCertificate.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string_view>

#include "common/Format.h"
#include "platform/FileDescriptor.h"
#include "platform/SystemCalls.h"
#include "platform/XmlText.h"
#include "platform/certificates/CertificateNames.h"
#include "platform/keychain/OpenSsl.h"

namespace tessard {

namespace {

using Moment = std::chrono::steady_clock::time_point;
using TlsContextPointer = std::unique_ptr<SSL_CTX, OpenSslFree<SSL_CTX_free>>;
using TlsPointer = std::unique_ptr<SSL, OpenSslFree<SSL_free>>;

// A greeting and the features of a server are some hundred bytes.
constexpr std::size_t kLongestAnswer = 65536;

class Link {
 public:
  explicit Link(Moment deadline) : deadline_(deadline) {}

  Result<void> connect(std::uint16_t port) {
    sockaddr_in first{};
    first.sin_family = AF_INET;
    first.sin_port = htons(port);
    first.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto connected = connect(first.sin_family, reinterpret_cast<const sockaddr*>(&first), sizeof first);
    if (connected || connected.error().code() != ECONNREFUSED) return connected;
    sockaddr_in6 second{};
    second.sin6_family = AF_INET6;
    second.sin6_port = first.sin_port;
    second.sin6_addr = in6addr_loopback;
    if (connect(second.sin6_family, reinterpret_cast<const sockaddr*>(&second), sizeof second)) return {};
    return connected;
  }

  Result<void> send(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto sent = ::send(link_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno != EAGAIN && errno != EINTR) return SystemError::last();
      bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
      if (sent < 0 && !await(POLLOUT)) return late();
    }
    return {};
  }

  // What comes, at least with one of the ends. Behind them nothing comes: a server waits for the client then.
  Result<std::string> until(std::initializer_list<std::string_view> ends) {
    std::string got;
    std::array<char, 1024> buffer{};
    while (got.size() < kLongestAnswer) {
      const auto seen = ::recv(link_.get(), buffer.data(), buffer.size(), 0);
      if (seen == 0) return SystemError(0, "the server closes the connection");
      if (seen < 0 && errno != EAGAIN && errno != EINTR) return SystemError::last();
      if (seen < 0 && !await(POLLIN)) return late();
      got.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(seen, 0)));
      for (const std::string_view end : ends) {
        if (got.find(end) != std::string::npos) return got;
      }
    }
    return SystemError(0, "the server's answer has no end");
  }

  Result<Certificate> certificate(const std::string& domain) {
    const TlsContextPointer context(SSL_CTX_new(TLS_client_method()));
    const TlsPointer tls(context ? SSL_new(context.get()) : nullptr);
    if (!tls || SSL_set_fd(tls.get(), link_.get()) != 1) return SystemError(ENOMEM);
    // Whatever is shown is to be seen.
    SSL_set_security_level(tls.get(), 0);
    SSL_set_tlsext_host_name(tls.get(), asciiFormOf(domain).c_str());
    int done = SSL_connect(tls.get());
    while (done != 1) {
      const int wanted = SSL_get_error(tls.get(), done);
      ERR_clear_error();
      const bool waits = wanted == SSL_ERROR_WANT_READ || wanted == SSL_ERROR_WANT_WRITE;
      if (!waits) return SystemError(0, "the server breaks TLS off");
      if (!await(wanted == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT)) return late();
      done = SSL_connect(tls.get());
    }
    const X509* const shown = SSL_get0_peer_certificate(tls.get());
    auto certificate = shown ? Certificate::copyOf(shown) : std::nullopt;
    SSL_shutdown(tls.get());
    ERR_clear_error();
    if (!certificate) return SystemError(0, "the server shows no certificate");
    return *std::move(certificate);
  }

 private:
  static SystemError late() { return {ETIMEDOUT, "the server does not answer in time"}; }

  Result<void> connect(int family, const sockaddr* address, socklen_t size) {
    link_ = FileDescriptor(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!link_) return SystemError::last();
    if (::connect(link_.get(), address, size) == 0) return {};
    if (errno != EINPROGRESS) return SystemError::last();
    if (!await(POLLOUT)) return late();
    int error = 0;
    socklen_t length = sizeof error;
    ::getsockopt(link_.get(), SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) return SystemError(error);
    return {};
  }

  bool await(short event) {
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline_ - std::chrono::steady_clock::now()).count();
    pollfd watched{link_.get(), event, 0};
    return left > 0 && uninterrupted([&] { return ::poll(&watched, 1, static_cast<int>(left)); }) > 0;
  }

  const Moment deadline_;
  FileDescriptor link_;
};

Result<void> startTls(Link& link, TlsEntranceKind kind, const std::string& domain) {
  const auto greeted = link.send(
      fill("<stream:stream xmlns='jabber:%@' xmlns:stream='http://etherx.jabber.org/streams' version='1.0' "
           "to='%@'>",
           {kind == TlsEntranceKind::servers ? "server" : "client", escapeXmlAttribute(domain, '\'')}));
  if (!greeted) return greeted.error();
  const auto features = link.until({"</stream:features>", "</stream:error>", "<stream:features/>"});
  if (!features) return features.error();
  if (features.value().find("host-unknown") != std::string::npos) {
    return SystemError(0, "the server does not know the domain");
  }
  if (features.value().find("urn:ietf:params:xml:ns:xmpp-tls") == std::string::npos) {
    return SystemError(0, "TLS is not offered");
  }
  const auto asked = link.send("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
  if (!asked) return asked.error();
  const auto told = link.until({"/>", "</proceed>", "</failure>"});
  if (!told) return told.error();
  if (told.value().find("<proceed") == std::string::npos) {
    return SystemError(0, "TLS is offered and then refused");
  }
  return {};
}

}  // namespace

const char* wordFor(TlsEntranceKind kind) {
  switch (kind) {
    case TlsEntranceKind::clients:
      return "clients";
    case TlsEntranceKind::clientsAtOnce:
      return "clients-at-once";
    case TlsEntranceKind::servers:
      break;
  }
  return "servers";
}

Result<Certificate> servedCertificate(const TlsEntrance& entrance, const std::string& domain,
                                      std::chrono::milliseconds patience) {
  Link link(std::chrono::steady_clock::now() + patience);
  if (const auto connected = link.connect(entrance.port); !connected) {
    return connected.error().code() == ECONNREFUSED ? SystemError(ECONNREFUSED, "nobody listens")
                                                    : connected.error();
  }
  if (entrance.kind != TlsEntranceKind::clientsAtOnce) {
    if (const auto begun = startTls(link, entrance.kind, domain); !begun) return begun.error();
  }
  return link.certificate(domain);
}

}  // namespace tessard
