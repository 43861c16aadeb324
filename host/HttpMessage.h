#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tessard {

/// One HTTP request, read whole.
struct HttpRequest {
  std::string method;
  std::string path;  ///< without the query
  std::optional<std::string> contentType;
  std::optional<std::string> accept;
  // The query arguments of these names.
  std::optional<std::string> with;
  std::optional<std::string> only{};
  std::optional<std::string> timeout{};
  std::string body;
};

struct HttpAnswer {
  unsigned status = 200;
  std::string contentType;
  std::string body;
  std::string allow{};      ///< the Allow header, where there is one
  unsigned retryAfter = 0;  ///< the Retry-After header in seconds; 0 for none
};

/// An answer of the host itself: {"error": id, "message": message} as JSON. Ids are stable; the message is
/// one sentence for a person. Status 503 comes with the time after which to try again.
HttpAnswer errorAnswer(unsigned status, std::string_view id, std::string_view message);

/// An answer as the bytes of a whole HTTP/1.1 message that ends the connection, for clients whose request is
/// not read (on).
std::string wholeMessage(const HttpAnswer& answer);

/// Sends such a message as far as the socket takes it at once.
void sendNow(int connection, const HttpAnswer& answer);

}  // namespace tessard
