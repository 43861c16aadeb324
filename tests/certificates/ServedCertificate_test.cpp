#include "platform/certificates/ServedCertificate.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/keychain/OpenSsl.h"
#include "platform/keychain/PemFile.h"
#include "tests/support/TestCertificates.h"

namespace tessard {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::chrono::milliseconds kLong{60'000};
constexpr const char* kFeatures =
    "<stream:features><starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/></stream:features>";
constexpr const char* kProceed = "<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";

// A server of this machine for one connection: after each thing that it hears it says the next of its lines.
class Server {
 public:
  explicit Server(std::vector<std::string> lines, const TestCertificate* certificate = nullptr,
                  bool isSixth = false)
      : lines_(std::move(lines)), certificate_(certificate) {
    listening_ = FileDescriptor(::socket(isSixth ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_storage place{};
    socklen_t size = isSixth ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    auto* const first = reinterpret_cast<sockaddr_in*>(&place);
    auto* const sixth = reinterpret_cast<sockaddr_in6*>(&place);
    place.ss_family = isSixth ? AF_INET6 : AF_INET;
    if (isSixth) {
      sixth->sin6_addr = in6addr_loopback;
    } else {
      first->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    // Where it cannot be had there is no port.
    if (::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&place), size) == 0) {
      ::listen(listening_.get(), 1);
    }
    ::getsockname(listening_.get(), reinterpret_cast<sockaddr*>(&place), &size);
    port = ntohs(isSixth ? sixth->sin6_port : first->sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~Server() { finish(); }

  /// Until its one connection has ended, or at once when there was none.
  void finish() {
    if (!thread_.joinable()) return;
    ::shutdown(listening_.get(), SHUT_RDWR);
    thread_.join();
  }

  std::uint16_t port = 0;
  // Known once it has finished.
  std::string heard;
  std::string name;  ///< that the client has asked for in TLS

 private:
  void serve() {
    const FileDescriptor link(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!link) return;
    for (const std::string& line : lines_) {
      char buffer[4096];
      const auto got = ::recv(link.get(), buffer, sizeof buffer, 0);
      if (got <= 0) return;
      heard.append(buffer, static_cast<std::size_t>(got));
      // An empty line is no answer: the client gives up first.
      if (line.empty()) ::recv(link.get(), buffer, sizeof buffer, 0);
      ::send(link.get(), line.data(), line.size(), MSG_NOSIGNAL);
    }
    if (certificate_) shake(link.get());
  }

  void shake(int link) {
    const std::unique_ptr<SSL_CTX, OpenSslFree<SSL_CTX_free>> context(SSL_CTX_new(TLS_server_method()));
    const auto certificate = Certificate::parse(certificate_->der());
    SSL_CTX_use_certificate(context.get(), certificate->handle());
    SSL_CTX_use_PrivateKey(context.get(), decodedKey(certificate_->keyBytes()).get());
    const std::unique_ptr<SSL, OpenSslFree<SSL_free>> tls(SSL_new(context.get()));
    SSL_set_fd(tls.get(), link);
    static_cast<void>(SSL_accept(tls.get()));
    const char* const wanted = SSL_get_servername(tls.get(), TLSEXT_NAMETYPE_host_name);
    name = wanted ? wanted : "";
  }

  const std::vector<std::string> lines_;
  const TestCertificate* const certificate_;
  FileDescriptor listening_;
  std::thread thread_;
};

std::string problemAt(std::uint16_t port, std::chrono::milliseconds patience = kLong,
                      TlsEntranceKind kind = TlsEntranceKind::clients) {
  const auto served = servedCertificate({kind, port}, "example.org", patience);
  return served ? "" : served.error().description();
}

struct ServedCertificates : testing::Test {
  ServedCertificates() { std::signal(SIGPIPE, SIG_IGN); }
};

TEST_F(ServedCertificates, AreTakenAfterStartTlsForTheDomainThatWasAskedFor) {
  const TestCertificate made("example.org");
  for (const auto kind : {TlsEntranceKind::clients, TlsEntranceKind::servers}) {
    Server server({kFeatures, kProceed}, &made);
    const auto served = servedCertificate({kind, server.port}, "m\u00fcnchen.example", kLong);
    ASSERT_TRUE(served) << served.error().description();
    EXPECT_EQ(served.value().der(), made.der());
    server.finish();
    EXPECT_THAT(server.heard, HasSubstr("to='m\u00fcnchen.example'"));
    EXPECT_THAT(server.heard, HasSubstr(kind == TlsEntranceKind::servers ? "xmlns='jabber:server'"
                                                                         : "xmlns='jabber:client'"));
    EXPECT_EQ(server.name, "xn--mnchen-3ya.example");
  }
}

TEST_F(ServedCertificates, AreTakenAtOnceWhereTlsComesFirst) {
  const TestCertificate made("example.org");
  const Server server({}, &made);
  const auto served = servedCertificate({TlsEntranceKind::clientsAtOnce, server.port}, "example.org", kLong);
  ASSERT_TRUE(served) << served.error().description();
  EXPECT_EQ(served.value().der(), made.der());
}

TEST_F(ServedCertificates, AreLookedForAtBothAddressesOfTheMachineItself) {
  const TestCertificate made("example.org");
  const Server server({}, &made, true);
  if (server.port == 0) GTEST_SKIP() << "this machine has no IPv6";
  EXPECT_TRUE(servedCertificate({TlsEntranceKind::clientsAtOnce, server.port}, "example.org", kLong));
}

TEST_F(ServedCertificates, OfAPortWhereNobodyListensAreNone) {
  std::uint16_t port = 0;
  {
    const Server gone({});
    port = gone.port;
  }
  const auto served = servedCertificate({TlsEntranceKind::clients, port}, "example.org", kLong);
  ASSERT_FALSE(served);
  EXPECT_EQ(served.error().code(), ECONNREFUSED);
  EXPECT_EQ(served.error().description(), "nobody listens");
}

TEST_F(ServedCertificates, OfAServerThatDoesNotOfferTlsAreNone) {
  EXPECT_EQ(problemAt(Server({"<stream:features/>"}).port), "TLS is not offered");
  const Server without({"<stream:features></stream:features>"});
  EXPECT_EQ(problemAt(without.port), "TLS is not offered");
  const Server unknown({"<stream:error><host-unknown/></stream:error>"});
  EXPECT_EQ(problemAt(unknown.port), "the server does not know the domain");
  const Server changes({kFeatures, "<failure/>"});
  EXPECT_EQ(problemAt(changes.port), "TLS is offered and then refused");
}

TEST_F(ServedCertificates, OfAServerThatIsSilentAreNotWaitedForLong) {
  const Server silent({""});
  EXPECT_EQ(problemAt(silent.port, std::chrono::milliseconds(50)), "the server does not answer in time");
  const Server later({kFeatures, kProceed, ""});
  EXPECT_EQ(problemAt(later.port, std::chrono::milliseconds(50)), "the server does not answer in time");
}

TEST_F(ServedCertificates, OfAServerThatSaysAnythingElseAreNone) {
  const Server closing({});
  EXPECT_THAT(problemAt(closing.port), Not(testing::IsEmpty()));
  const Server babbling({std::string(70'000, 'x')});
  EXPECT_EQ(problemAt(babbling.port), "the server's answer has no end");
  const Server broken({kFeatures, kProceed, "no TLS at all"});
  EXPECT_EQ(problemAt(broken.port), "the server breaks TLS off");
}

}  // namespace
}  // namespace tessard
