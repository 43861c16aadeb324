// Sends one HTTP request again and again and says how long each answer took. Usage:
//   bench_client [OPTION]... SERVER METHOD PATH BODY ANSWER
// SERVER is "unix:PATH" or "tcp:ADDRESS:PORT" (IPv4), BODY a file with JSON ("-" for none), ANSWER a file for
// the body of the last answer. One line "NANOSECONDS" for every answer, without those of --warm.
//   --requests COUNT   how many are timed (1)
//   --warm COUNT       how many are sent before those (0)
//   --reconnect        a new connection for each; connecting counts
//   --start PROGRAM,ARGUMENT,...
//                      the server is started for the requests with its socket already listening (a Unix one);
//                      the time of the first begins before the start. At the end the server is told to end
//                      and is waited for, and "ended NANOSECONDS KIBIBYTES" says how long all took and
//                      the peak of its memory.
// Any answer but 200 ends the program with status 70.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "bench_client: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(70);
}

long long since(Clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count();
}

struct Address {
  sockaddr_storage storage{};
  socklen_t length = 0;

  [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

Address addressOf(const std::string& server) {
  Address address;
  if (server.starts_with("unix:")) {
    auto& name = reinterpret_cast<sockaddr_un&>(address.storage);
    const std::string path = server.substr(5);
    if (path.size() >= sizeof name.sun_path) fail("the socket's path is too long");
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, path.c_str(), path.size() + 1);
    address.length = sizeof name;
    return address;
  }
  const auto colon = server.rfind(':');
  auto& name = reinterpret_cast<sockaddr_in&>(address.storage);
  name.sin_family = AF_INET;
  name.sin_port = htons(static_cast<std::uint16_t>(std::strtol(server.c_str() + colon + 1, nullptr, 10)));
  if (inet_pton(AF_INET, server.substr(4, colon - 4).c_str(), &name.sin_addr) != 1) fail(server);
  address.length = sizeof name;
  return address;
}

int socketFor(const Address& address) {
  const int made = socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (made < 0) fail("no socket");
  const int now = 1;
  if (address.storage.ss_family == AF_INET) setsockopt(made, IPPROTO_TCP, TCP_NODELAY, &now, sizeof now);
  return made;
}

class Client {
 public:
  Client(const Address& address, std::string request) : address_(address), request_(std::move(request)) {}
  ~Client() { leave(); }

  // The body of the answer.
  std::string exchange(bool anew) {
    if (anew) leave();
    if (socket_ < 0) {
      socket_ = socketFor(address_);
      if (connect(socket_, address_.get(), address_.length) != 0) fail("no connection");
    }
    for (std::size_t sent = 0; sent < request_.size();) {
      const ssize_t now = send(socket_, request_.data() + sent, request_.size() - sent, MSG_NOSIGNAL);
      if (now <= 0) fail("the request could not be sent");
      sent += static_cast<std::size_t>(now);
    }
    return receive();
  }

 private:
  void leave() {
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
  }

  std::string receive() {
    std::string got;
    std::size_t head = std::string::npos;
    std::size_t whole = 0;
    while (head == std::string::npos || got.size() < whole) {
      char block[65536];
      const ssize_t now = recv(socket_, block, sizeof block, 0);
      if (now <= 0) fail("no whole answer");
      got.append(block, static_cast<std::size_t>(now));
      if (head != std::string::npos) continue;
      head = got.find("\r\n\r\n");
      if (head != std::string::npos) whole = head + 4 + lengthIn(got.substr(0, head + 2));
    }
    if (!got.starts_with("HTTP/1.1 200")) {
      std::fprintf(stderr, "%s\n", got.substr(0, 2000).c_str());
      std::exit(70);
    }
    return got.substr(head + 4);
  }

  static std::size_t lengthIn(std::string head) {
    for (char& letter : head) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    const auto at = head.find("\r\ncontent-length:");
    if (at == std::string::npos) fail("an answer without its length");
    return std::strtoul(head.c_str() + at + 17, nullptr, 10);
  }

  Address address_;
  std::string request_;
  int socket_ = -1;
};

struct Options {
  long requests = 1;
  long warm = 0;
  bool reconnect = false;
  std::vector<std::string> start;
  std::vector<std::string> words;
};

std::vector<std::string> splitAtCommas(std::string_view text) {
  std::vector<std::string> words;
  while (true) {
    const auto comma = text.find(',');
    words.emplace_back(text.substr(0, comma));
    if (comma == std::string_view::npos) return words;
    text.remove_prefix(comma + 1);
  }
}

Options optionsOf(int count, char** arguments) {
  Options options;
  for (int index = 1; index < count; ++index) {
    const std::string_view word = arguments[index];
    if (word == "--requests" && index + 1 < count) {
      options.requests = std::strtol(arguments[++index], nullptr, 10);
    } else if (word == "--warm" && index + 1 < count) {
      options.warm = std::strtol(arguments[++index], nullptr, 10);
    } else if (word == "--start" && index + 1 < count) {
      options.start = splitAtCommas(arguments[++index]);
    } else if (word == "--reconnect") {
      options.reconnect = true;
    } else {
      options.words.emplace_back(word);
    }
  }
  if (options.words.size() != 5) {
    std::fputs("usage: bench_client [OPTION]... SERVER METHOD PATH BODY ANSWER\n", stderr);
    std::exit(64);
  }
  return options;
}

std::string requestOf(const Options& options) {
  std::string body;
  if (options.words[3] != "-") {
    std::ifstream file(options.words[3], std::ios::binary);
    body = {std::istreambuf_iterator<char>(file), {}};
  }
  return options.words[1] + " " + options.words[2] +
         " HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Hands the program a listening socket the way a service manager does.
pid_t startServer(const Options& options, const Address& address) {
  const int listener = socketFor(address);
  unlink(reinterpret_cast<const sockaddr_un&>(address.storage).sun_path);
  if (bind(listener, address.get(), address.length) != 0 || listen(listener, 16) != 0) fail("no listener");
  const pid_t child = fork();
  if (child < 0) fail("no process");
  if (child > 0) {
    close(listener);
    return child;
  }
  constexpr int kFirstHandedOn = 3;
  if (listener == kFirstHandedOn || dup2(listener, kFirstHandedOn) != kFirstHandedOn) _exit(71);
  setenv("LISTEN_FDS", "1", 1);
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  std::vector<char*> words;
  for (const std::string& word : options.start) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  execv(words.front(), words.data());
  _exit(127);
}

}  // namespace

int main(int count, char** arguments) {
  const Options options = optionsOf(count, arguments);
  const Address address = addressOf(options.words[0]);
  Client client(address, requestOf(options));
  // Kept away from the number that is handed on.
  const int placeholder = options.start.empty() ? -1 : dup(STDERR_FILENO);
  const auto begin = Clock::now();
  const pid_t server = options.start.empty() ? 0 : startServer(options, address);
  std::string answer;
  for (long sent = -options.warm; sent < options.requests; ++sent) {
    const auto asked = server != 0 && sent == -options.warm ? begin : Clock::now();
    answer = client.exchange(options.reconnect);
    const long long passed = since(asked);
    if (sent >= 0) std::printf("%lld\n", passed);
  }
  if (server != 0) {
    kill(server, SIGTERM);
    int status = 0;
    rusage used{};
    wait4(server, &status, 0, &used);
    if (status != 0) fail("the server did not end well");
    std::printf("ended %lld %ld\n", since(begin), used.ru_maxrss);
    close(placeholder);
  }
  std::ofstream(options.words[4], std::ios::binary) << answer;
  return 0;
}
