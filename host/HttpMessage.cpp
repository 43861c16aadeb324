#include "host/HttpMessage.h"

#include "common/Format.h"
#include "common/Value.h"
#include "host/JsonCodec.h"

namespace tessard {

namespace {

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
  return {status, "application/json", serializeJson(content) + "\n"};
}

std::string wholeMessage(const HttpAnswer& answer) {
  return fill(
             "HTTP/1.1 %u %@\r\nContent-Type: %@\r\nContent-Length: %lu\r\nConnection: close\r\n"
             "\r\n",
             {answer.status, reasonFor(answer.status), answer.contentType, answer.body.size()}) +
         answer.body;
}

}  // namespace tessard
