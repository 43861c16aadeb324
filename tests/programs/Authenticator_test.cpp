#include "programs/authenticator/Authenticator.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr auto kLong = 20s;  // longer than anything here takes
constexpr auto kShort = 20ms;

// Where saslauthd would listen.
class Place {
 public:
  Place() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(socket_.get(), 8), 0);
  }

  std::string path() const { return root_.hostPath("/mux"); }
  void close() { socket_.close(); }

  // What the client makes of a server that takes `length` bytes and answers so.
  Result<bool> answerTo(const std::string& name, const std::string& password, const std::string& answer,
                        std::string* question = nullptr) {
    std::thread server([&] {
      const FileDescriptor client(::accept(socket_.get(), nullptr, nullptr));
      std::string text(8 + name.size() + password.size() + 7, '\0');
      EXPECT_EQ(::recv(client.get(), text.data(), text.size(), MSG_WAITALL),
                static_cast<ssize_t>(text.size()));
      for (const char piece : answer) ::send(client.get(), &piece, 1, MSG_NOSIGNAL);
      if (question) *question = text;
    });
    auto accepted = SaslauthdClient(path(), kLong).accepts(name, password);
    server.join();
    return accepted;
  }

 private:
  ScratchRoot root_;
  FileDescriptor socket_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

TEST(SaslauthdClient, TheQuestionIsFourCountedStrings) {
  Place place;
  std::string question;
  const auto accepted = place.answerTo("ann", "a b", "\0\2OK"s, &question);
  ASSERT_TRUE(accepted.ok());
  EXPECT_TRUE(accepted.value());
  EXPECT_EQ(question, "\0\3ann\0\3a b\0\7jabberd\0\0"s);
}

TEST(SaslauthdClient, TheLongestNameAndPasswordAreCountedInTwoBytes) {
  Place place;
  std::string question;
  const std::string longest(255, 'x');
  EXPECT_TRUE(place.answerTo(longest, longest, "\0\2OK"s, &question).ok());
  EXPECT_EQ(question, "\0\xFF"s + longest + "\0\xFF"s + longest + "\0\7jabberd\0\0"s);
  EXPECT_FALSE(SaslauthdClient(place.path(), kLong).accepts(longest + "x", "p").ok());
  EXPECT_FALSE(SaslauthdClient(place.path(), kLong).accepts("n", longest + "x").ok());
}

TEST(SaslauthdClient, ARefusalIsNoFailure) {
  Place place;
  const auto accepted = place.answerTo("ann", "p", "\0\x1aNO authentication failed  "s);
  ASSERT_TRUE(accepted.ok());
  EXPECT_FALSE(accepted.value());
}

TEST(SaslauthdClient, AnswersThatAreNoneFail) {
  Place place;
  for (const std::string& answer : {""s, "\0"s, "\0\2"s, "\0\2O"s, "\0\0"s, "\0\1O"s, "\0\2ok"s, "\0\2XX"s,
                                    "\0\3 OK"s, "\xFF\xFFOK"s, "OK"s}) {
    EXPECT_FALSE(place.answerTo("ann", "p", answer).ok()) << testing::PrintToString(answer);
  }
}

TEST(SaslauthdClient, NobodyThereFails) {
  Place place;
  place.close();
  const auto accepted = SaslauthdClient(place.path(), kLong).accepts("ann", "p");
  ASSERT_FALSE(accepted.ok());
  EXPECT_EQ(accepted.error().code(), ECONNREFUSED);
  EXPECT_EQ(SaslauthdClient("/nowhere/mux", kLong).accepts("ann", "p").error().code(), ENOENT);
  EXPECT_FALSE(SaslauthdClient("/" + std::string(200, 'x'), kLong).accepts("ann", "p").ok());
}

TEST(SaslauthdClient, ASilentOneIsGivenUp) {
  Place place;  // takes the connection and the question, and never looks at them
  const auto accepted = SaslauthdClient(place.path(), kShort).accepts("ann", "p");
  ASSERT_FALSE(accepted.ok());
  EXPECT_EQ(accepted.error().code(), ETIMEDOUT);
}

TEST(SaslauthdClient, OneWhoseQueueIsFullIsGivenUp) {
  Place place;
  std::vector<FileDescriptor> waiting;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  place.path().copy(address.sun_path, sizeof address.sun_path - 1);
  do {
    waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  } while (::connect(waiting.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
  EXPECT_EQ(SaslauthdClient(place.path(), kShort).accepts("ann", "p").error().code(), ETIMEDOUT);
}

// What c2s sees of it, and what it logs. Nobody can be let in here: the only account that is known to exist
// is root.
class AuthenticatorTest : public testing::Test {
 protected:
  std::vector<std::string> said;

  // Answers to what c2s writes, each write after the answer to the one before.
  std::vector<std::string> answersTo(const std::vector<std::string>& writes) {
    std::array<int, 2> toIt{};
    std::array<int, 2> fromIt{};
    EXPECT_EQ(::pipe2(toIt.data(), O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(fromIt.data(), O_CLOEXEC), 0);
    FileDescriptor questions(toIt[0]);
    FileDescriptor ask(toIt[1]);
    const FileDescriptor hear(fromIt[0]);
    FileDescriptor answers(fromIt[1]);
    const SaslauthdClient saslauthd("/nowhere/mux", kShort);
    std::thread server([&] {
      Authenticator authenticator(saslauthd,
                                  [this](const std::string& sentence) { said.push_back(sentence); });
      EXPECT_TRUE(authenticator.serve(questions.get(), answers.get()).ok());
      answers.close();
    });
    std::vector<std::string> heard = {read(hear)};
    for (const std::string& text : writes) {
      EXPECT_EQ(::write(ask.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
      heard.push_back(read(hear));
    }
    ask.close();
    EXPECT_EQ(read(hear), "") << "more than was asked";
    server.join();
    return heard;
  }

 private:
  static std::string read(const FileDescriptor& from) {
    std::array<char, 256> text{};
    const ssize_t length = ::read(from.get(), text.data(), text.size());
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
  }
};

constexpr const char* kGreeting = "OK USER-EXISTS CHECK-PASSWORD FREE\n";

TEST_F(AuthenticatorTest, ItSaysFirstWhatItAnswersAndEndsWithC2s) {
  EXPECT_THAT(answersTo({}), ElementsAre(kGreeting));
  EXPECT_THAT(answersTo({"FREE\n"}), ElementsAre(kGreeting, ""));
  EXPECT_THAT(said, IsEmpty());
}

TEST_F(AuthenticatorTest, RootAndUnknownAccountsAreRefusedWithoutAsking) {
  EXPECT_THAT(answersTo({"USER-EXISTS root d\n", "USER-EXISTS no-such.account d\n",
                         "CHECK-PASSWORD root cA== d\n", "CHECK-PASSWORD no-such.account cA== d\n"}),
              ElementsAre(kGreeting, "NO\n", "NO\n", "NO\n", "NO\n"));
  EXPECT_THAT(said, ElementsAre("A login of the account \"root\" is refused: it is root.",
                                "A login is refused: there is no account of that name."));
}

TEST_F(AuthenticatorTest, EveryWriteGetsExactlyOneAnswer) {
  const std::string cut(1023, 'n');
  EXPECT_THAT(answersTo({"CHECK-PASSWORD x\nCHECK-PASSWORD y\nUSER-EXISTS z d\n", cut,
                         std::string(9000, '\n'), "\n", "FREE \n"}),
              ElementsAre(kGreeting, "NO\n", "NO\n", "NO\n", "NO\n", "NO\n"));
  EXPECT_THAT(said, SizeIs(5));
}

TEST_F(AuthenticatorTest, NothingOfAMalformedQuestionIsLogged) {
  EXPECT_THAT(answersTo({"CHECK-PASSWORD my secret cA== d\n"}), ElementsAre(kGreeting, "NO\n"));
  EXPECT_THAT(said,
              ElementsAre("A login is refused: its name or its password is none that an account can have."));
}

}  // namespace
}  // namespace tessard
