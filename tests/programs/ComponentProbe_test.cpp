#include "programs/launcher/ComponentProbe.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"

namespace tessard {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

// A port of this machine's loopback. Clients wait in its queue until somebody takes them.
class Port {
 public:
  Port() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof place;
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&place), length), 0);
    EXPECT_EQ(::listen(socket_.get(), 8), 0);
    EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&place), &length), 0);
    number_ = ntohs(place.sin_port);
  }

  std::uint16_t number() const { return number_; }
  void close() { socket_.close(); }

  // What the probe makes of a server that reads the greeting and answers in these pieces.
  DomainState answerTo(const std::string& domain, const std::vector<std::string_view>& pieces,
                       std::string* greeting = nullptr) {
    std::thread server([&] {
      const FileDescriptor client(::accept(socket_.get(), nullptr, nullptr));
      std::array<char, 4096> text{};
      const ssize_t length = ::recv(client.get(), text.data(), text.size(), 0);
      if (greeting && length > 0) greeting->assign(text.data(), static_cast<std::size_t>(length));
      for (const std::string_view piece : pieces)
        ::send(client.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    });
    const DomainState state = askForDomain("127.0.0.1", number_, domain);
    server.join();
    return state;
  }

 private:
  FileDescriptor socket_;
  std::uint16_t number_ = 0;
};

TEST(ComponentProbe, APortIsOpenWhileSomebodyListens) {
  Port port;
  EXPECT_TRUE(portIsOpen("127.0.0.1", port.number()));
  port.close();
  EXPECT_FALSE(portIsOpen("127.0.0.1", port.number()));
  EXPECT_FALSE(portIsOpen("localhost", port.number())) << "names are never looked up";
  EXPECT_FALSE(portIsOpen("", port.number()));
}

TEST(ComponentProbe, FeaturesMeanThatClientsCanLogIn) {
  Port port;
  EXPECT_EQ(port.answerTo("a", {"<?xml version='1.0'?><stream:stream>", "<stream:features ", "xmlns='x'/>"}),
            DomainState::ready);
}

TEST(ComponentProbe, StreamErrorsTellAnAbsentSessionManagerFromAForeignDomain) {
  Port port;
  EXPECT_EQ(port.answerTo("a", {"<stream:error><host-gone/></stream:error></stream:stream>"}),
            DomainState::gone);
  EXPECT_EQ(port.answerTo("a", {"<stream:error><host-unknown/></stream:error>"}), DomainState::unknown);
}

TEST(ComponentProbe, ASilentOrAbsentServerTellsNothing) {
  Port port;
  EXPECT_EQ(port.answerTo("a", {}), DomainState::silent);
  EXPECT_EQ(port.answerTo("a", {"<stream:stream>"}), DomainState::silent);
  EXPECT_EQ(askForDomain("127.0.0.1", port.number(), "a"), DomainState::silent) << "nobody takes the client";
  port.close();
  EXPECT_EQ(askForDomain("127.0.0.1", port.number(), "a"), DomainState::silent);
}

TEST(ComponentProbe, TheDomainCannotBreakOutOfTheGreeting) {
  Port port;
  std::string greeting;
  port.answerTo("a'/><evil b='&<", {}, &greeting);
  EXPECT_THAT(greeting,
              AllOf(StartsWith("<stream:stream "), HasSubstr("&amp;"), testing::Not(HasSubstr("<evil"))));
}

}  // namespace
}  // namespace tessard
