#include "host/TlsService.h"

#include <algorithm>
#include <cerrno>

namespace tessard {

namespace {

using Steady = std::chrono::steady_clock;

// A server on the same machine answers within milliseconds.
constexpr std::chrono::milliseconds kPatience{5000};
// c2s sometimes ends the connection of a client that came right after another one had left.
constexpr int kMostAttempts = 5;

const Array& wantedKeys() {
  static const Array keys = {
      "hosts",          "sslKeyFile", "sslCAFile", "jabberdClientPortTLS", "jabberdClientPortSSL",
      "jabberdS2SPort", "enableXMPP"};
  return keys;
}

void addEntrance(TlsService& service, TlsEntranceKind kind, const Dictionary& settings, const char* key) {
  const Value* value = settings.find(key);
  const std::int64_t port = value ? value->integerValue() : 0;
  if (port > 0 && port <= UINT16_MAX) service.entrances.push_back({kind, static_cast<std::uint16_t>(port)});
}

std::string textAt(const Dictionary& settings, const char* key) {
  const std::string* text = settings.stringFor(key);
  return text ? *text : "";
}

ServedAt lookOnce(const TlsEntrance& entrance, const std::string& domain, Steady::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Steady::now());
  auto certificate = servedCertificate(entrance, domain, std::min(left, kPatience));
  if (certificate) return {entrance, domain, factsOf(certificate.value()), "", false};
  return {entrance, domain, std::nullopt, certificate.error().description(),
          certificate.error().code() == ECONNREFUSED};
}

ServedAt look(const TlsEntrance& entrance, const std::string& domain, Steady::time_point deadline) {
  ServedAt seen = lookOnce(entrance, domain, deadline);
  for (int attempt = 1; attempt < kMostAttempts && !seen.certificate && !seen.isClosed; ++attempt) {
    if (Steady::now() >= deadline) break;
    seen = lookOnce(entrance, domain, deadline);
  }
  return seen;
}

}  // namespace

std::optional<TlsService> tlsServiceOf(const Plugins& plugins, RequestExecutor& executor) {
  for (const auto& [name, handler] : plugins.handlers) {
    const auto settings = executor.settings(*handler, wantedKeys());
    if (!settings || !settings->stringFor("sslKeyFile")) continue;
    TlsService service;
    service.handler = handler.get();
    service.keyFile = textAt(*settings, "sslKeyFile");
    service.caFile = textAt(*settings, "sslCAFile");
    if (const Array* hosts = settings->arrayFor("hosts")) {
      for (const Value& host : *hosts) {
        if (host.asString()) service.domains.push_back(*host.asString());
      }
    }
    addEntrance(service, TlsEntranceKind::clients, *settings, "jabberdClientPortTLS");
    addEntrance(service, TlsEntranceKind::clientsAtOnce, *settings, "jabberdClientPortSSL");
    const Value* servers = settings->find("enableXMPP");
    if (servers && servers->boolValue()) {
      addEntrance(service, TlsEntranceKind::servers, *settings, "jabberdS2SPort");
    }
    return service;
  }
  return std::nullopt;
}

bool isRunning(const TlsService& service, RequestExecutor& executor) {
  const auto outcome =
      executor.execute(*service.handler, "getState", {{"command", "getState"}, {"variant", "withDetails"}});
  const std::string* own = outcome.answer.stringFor("jabberdState");
  const std::string* all = outcome.answer.stringFor("state");
  return own ? *own == "RUNNING" : all && *all == "RUNNING";
}

std::vector<ServedAt> lookAt(const TlsService& service, std::chrono::seconds patience) {
  const auto deadline = Steady::now() + patience;
  std::vector<ServedAt> all;
  for (const std::string& domain : service.domains) {
    for (const TlsEntrance& entrance : service.entrances) {
      if (Steady::now() >= deadline) return all;
      all.push_back(look(entrance, domain, deadline));
    }
  }
  return all;
}

}  // namespace tessard
