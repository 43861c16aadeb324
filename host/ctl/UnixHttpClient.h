#pragma once

#include <functional>
#include <string>
#include <variant>

namespace tessard {

/// Why there is no answer. The id is stable, the message is for a person, the exit code one of sysexits.
struct ClientFailure {
  std::string id;
  std::string message;
  int exitCode;
};

struct ClientReply {
  int status = 0;
  std::string body;
};

/// A client of the daemon: one request over a Unix socket, one answer.
class UnixHttpClient {
 public:
  /// `socketPath` is a path of this machine. `waiting` is called about once a second, with the seconds so
  /// far, while the answer is not there.
  UnixHttpClient(std::string socketPath, std::function<void(int)> waiting)
      : socketPath_(std::move(socketPath)), waiting_(std::move(waiting)) {}

  /// Sends a request with a JSON body (an empty one for none). An answer that comes before the request could
  /// be sent whole counts.
  std::variant<ClientReply, ClientFailure> send(const std::string& method, const std::string& path,
                                                const std::string& body) const;

  /// Who may use the socket, as a sentence with a proposal.
  std::string whoMayConnect() const;

 private:
  std::variant<int, ClientFailure> connected() const;

  std::string socketPath_;
  std::function<void(int)> waiting_;
};

/// Reads a whole HTTP/1.1 answer with a Content-Length. False when it is none, or not whole.
bool parseReply(const std::string& bytes, ClientReply& reply);

}  // namespace tessard
