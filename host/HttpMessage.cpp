#include "host/HttpMessage.h"

#include <sys/socket.h>

#include "common/Format.h"
#include "common/Value.h"
#include "host/JsonCodec.h"

namespace tessard {

namespace {

// For 503: what is in the way is mostly gone as soon as a request or two have been answered.
constexpr unsigned kRetrySeconds = 1;

std::string_view reasonFor(unsigned status) {
  switch (status) {
    case 403:
      return "Forbidden";
    case 408:
      return "Request Timeout";
    case 413:
      return "Content Too Large";
    case 503:
      return "Service Unavailable";
    default:
      return "Error";
  }
}

}  // namespace

HttpAnswer errorAnswer(unsigned status, std::string_view id, std::string_view message) {
  const Dictionary content = {{"error", id}, {"message", message}};
  return {status, "application/json", serializeJson(content) + "\n", {}, status == 503 ? kRetrySeconds : 0};
}

std::string wholeMessage(const HttpAnswer& answer) {
  std::string message =
      fill("HTTP/1.1 %u %@\r\nContent-Type: %@\r\nContent-Length: %lu\r\n",
           {answer.status, reasonFor(answer.status), answer.contentType, answer.body.size()});
  if (answer.retryAfter > 0) message += fill("Retry-After: %u\r\n", {answer.retryAfter});
  return message + "Connection: close\r\n\r\n" + answer.body;
}

void sendNow(int connection, const HttpAnswer& answer) {
  const std::string message = wholeMessage(answer);
  send(connection, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace tessard
