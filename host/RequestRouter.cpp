#include "host/RequestRouter.h"

#include <utility>

#include "common/Format.h"
#include "host/Footprint.h"
#include "host/JsonCodec.h"
#include "host/Version.h"
#include "host/WipedMemory.h"

namespace tessard {

namespace {

constexpr std::string_view kPluginsPath = "/v1/plugins/";
constexpr std::string_view kIdlePath = "/v1/events/idle";
constexpr std::string_view kNetworkChangePath = "/v1/events/network-change";
constexpr std::string_view kHealthPath = "/v1/health";
constexpr std::string_view kServicesPath = "/v1/services";
constexpr std::string_view kMetricsPath = "/v1/metrics";
constexpr std::string_view kCertificatesPath = "/v1/certificates";
constexpr std::string_view kCheckPath = "/v1/check";
constexpr std::string_view kCheckAreasPath = "/v1/check/areas";
constexpr std::string_view kTlsCertificatePath = "/v1/tls-certificate";

// Collectors give up after ten seconds, unless told otherwise.
constexpr std::chrono::seconds kMetricsPatience{5};

RoutedRequest answered(HttpAnswer answer) {
  return {std::move(answer)};
}

HttpAnswer serialized(const MediaType& type, const Value& value) {
  auto text = type.serialize(value);
  if (!text) {
    return errorAnswer(
        500, "unserializable-answer",
        fill("The answer cannot be written as %@: %@.", {type.name(), text.error().description()}));
  }
  return {200, type.name(), std::move(text).value()};
}

HttpAnswer answerTo(const HttpRequest& request, const MediaType& sent, Dictionary answer, Array log) {
  const MediaType type = MediaType::forAnswer(request.accept, sent);
  if (!request.with) return serialized(type, std::move(answer));
  return serialized(type, Dictionary{{"answer", std::move(answer)}, {"log", std::move(log)}});
}

HttpAnswer failureAnswer(const HttpRequest& request, std::string_view id, std::string_view message,
                         const Array& log) {
  HttpAnswer answer = errorAnswer(500, id, message);
  if (request.with) {
    answer.body = serializeJson(Dictionary{{"error", id}, {"message", message}, {"log", log}}) + "\n";
  }
  return answer;
}

HttpAnswer answerTo(const HttpRequest& request, const MediaType& sent, std::string_view command,
                    ExecutionOutcome outcome) {
  switch (outcome.kind) {
    case ExecutionOutcome::Kind::answered:
      return answerTo(request, sent, std::move(outcome.answer), std::move(outcome.log));
    case ExecutionOutcome::Kind::unknownCommand:
      return errorAnswer(404, "unknown-command", fill("The plug-in knows no command \"%@\".", {command}));
    case ExecutionOutcome::Kind::noAnswer:
      return failureAnswer(request, "no-answer", fill("The plug-in gave no answer to \"%@\".", {command}),
                           outcome.log);
    case ExecutionOutcome::Kind::failed:
      break;
  }
  return failureAnswer(
      request, "plugin-failed",
      fill("The plug-in failed while it handled \"%@\"; the system log says more.", {command}), outcome.log);
}

HttpAnswer answerTo(const HttpRequest& request, const MediaType& sent, KeychainResult<Dictionary> answer) {
  if (!answer) return Certificates::failure(answer.error());
  return answerTo(request, sent, std::move(answer).value(), {});
}

HttpAnswer answerTo(const HttpRequest& request, const MediaType& sent, TlsCertificate::Answer answer) {
  if (answer.status == 200) {
    return answerTo(request, sent, std::move(answer.content), std::move(answer.log));
  }
  if (request.with) answer.content.set("log", std::move(answer.log));
  return {answer.status, "application/json", serializeJson(answer.content) + "\n"};
}

HttpAnswer methodNotAllowed(std::string_view allowed) {
  HttpAnswer answer = errorAnswer(405, "method-not-allowed", fill("Only %@ is possible here.", {allowed}));
  answer.allow = allowed;
  return answer;
}

}  // namespace

// A request's body, parsed, or the answer that says why it could not be.
struct RequestRouter::Body {
  static Body of(const std::string& text, const std::optional<std::string>& contentType, bool mayBeEmpty) {
    if (text.empty() && mayBeEmpty) return {};
    if (!contentType) {
      return {errorAnswer(415, "unsupported-media-type", "The Content-Type of the body is not given.")};
    }
    const auto type = MediaType::fromContentType(*contentType);
    if (!type) {
      return {errorAnswer(415, "unsupported-media-type",
                          fill("The Content-Type must be application/json, application/xml, text/xml or "
                               "application/x-plist in UTF-8, not \"%@\".",
                               {*contentType}))};
    }
    auto value = type->parse(text);
    if (!value) {
      return {errorAnswer(400, "malformed-body",
                          fill("The body cannot be read: %@.", {value.error().description()}))};
    }
    Dictionary* dictionary = value.value().asDictionary();
    if (!dictionary) return {errorAnswer(400, "not-a-dictionary", "The body must hold a dictionary.")};
    return {std::nullopt, *type, std::move(*dictionary)};
  }

  std::optional<HttpAnswer> refusal{};
  MediaType type = MediaType::json();
  Dictionary content{};
};

RoutedRequest RequestRouter::route(HttpRequest request) const {
  const bool isPlugin = request.path.starts_with(kPluginsPath);
  const bool isEvent = request.path == kIdlePath || request.path == kNetworkChangePath;
  const bool isRead =
      request.path == kHealthPath || request.path == kServicesPath || request.path == kCheckAreasPath;
  const bool isCheck = request.path == kCheckPath;
  const bool isMetrics = request.path == kMetricsPath;
  const bool isCertificates = request.path == kCertificatesPath;
  const bool isTlsCertificate = request.path == kTlsCertificatePath;
  if (!isPlugin && !isEvent && !isRead && !isMetrics && !isCertificates && !isTlsCertificate && !isCheck) {
    return answered(errorAnswer(404, "not-found", fill("There is nothing at \"%@\".", {request.path})));
  }
  if (request.with && *request.with != "log") {
    return answered(errorAnswer(400, "bad-query", "The query argument \"with\" can only be \"log\"."));
  }
  if (isRead) return answered(routeRead(request));
  if (isMetrics) return routeMetrics(std::move(request));
  if (isCheck) return routeCheck(std::move(request));
  if (isCertificates) return routeCertificates(std::move(request));
  if (isTlsCertificate) return routeTlsCertificate(std::move(request));
  if (request.method != "POST") return answered(methodNotAllowed("POST"));
  return isPlugin ? routePlugin(std::move(request)) : routeEvent(std::move(request));
}

RoutedRequest RequestRouter::routePlugin(HttpRequest request) const {
  const std::string name = request.path.substr(kPluginsPath.size());
  if (const auto problem = plugins_.problems.find(name); problem != plugins_.problems.end()) {
    return answered(errorAnswer(500, "plugin-not-loaded",
                                fill("The plug-in \"%@\" is not loaded: %@.", {name, problem->second})));
  }
  const auto plugin = plugins_.handlers.find(name);
  if (plugin == plugins_.handlers.end()) {
    return answered(errorAnswer(404, "unknown-plugin", fill("There is no plug-in \"%@\".", {name})));
  }
  Body body = Body::of(std::exchange(request.body, {}), request.contentType, false);
  if (body.refusal) return answered(std::move(*body.refusal));
  const std::string* found = body.content.stringFor("command");
  if (!found) {
    return answered(errorAnswer(400, "missing-command", "The request has no string under \"command\"."));
  }
  const std::string command = *found;
  PluginRequestHandler& handler = *plugin->second;
  const std::size_t bytes = footprintOf(body.content);
  return {std::nullopt, command,
          [this, name, &handler, command, request = std::move(request),
           body = std::move(body)](const Requester& requester) {
            return answerTo(request, body.type, command,
                            records_.execute(name, handler, command, body.content, requester));
          },
          bytes};
}

RoutedRequest RequestRouter::routeEvent(HttpRequest request) const {
  Body body = Body::of(std::exchange(request.body, {}), request.contentType, request.path == kIdlePath);
  if (body.refusal) return answered(std::move(*body.refusal));
  const std::string name = lastPathComponent(request.path);
  const std::size_t bytes = footprintOf(body.content);
  return {std::nullopt, name,
          [this, request = std::move(request), body = std::move(body)](const Requester& requester) {
            return runEvent(request, body, requester);
          },
          bytes};
}

RoutedRequest RequestRouter::routeCertificates(HttpRequest request) const {
  if (request.method == "GET" || request.method == "HEAD") {
    return {std::nullopt, "certificates",
            [this, request = std::move(request)](const Requester& /*requester*/) {
              return answerTo(request, MediaType::json(), certificates_.all());
            }};
  }
  if (request.method != "POST") return answered(methodNotAllowed("GET, HEAD, POST"));
  Body body = Body::of(std::exchange(request.body, {}), request.contentType, false);
  if (body.refusal) return answered(std::move(*body.refusal));
  const std::size_t bytes = footprintOf(body.content);
  return {std::nullopt, "certificate import",
          [this, request = std::move(request), body = std::move(body)](const Requester& requester) mutable {
            const WipedMemory wiped;
            HttpAnswer answer = importCertificates(request, body, requester);
            body.content = Dictionary();
            return answer;
          },
          bytes};
}

HttpAnswer RequestRouter::importCertificates(const HttpRequest& request, const Body& body,
                                             const Requester& requester) const {
  auto answer = certificates_.import(body.content);
  ExecutionOutcome outcome;
  Dictionary audited = body.content;
  if (!answer) {
    outcome.answer.set("error", answer.error().id());
  } else if (const Array* certificates = answer.value().arrayFor("certificates")) {
    const Dictionary* first = certificates->empty() ? nullptr : certificates->front().asDictionary();
    if (const std::string* subject = first ? first->stringFor("subject") : nullptr)
      audited.set("subject", *subject);
  }
  // The bytes may be a key's.
  if (audited.stringFor("file")) audited.set("file", Data{*audited.stringFor("file")});
  records_.changed({"keychain", "import", std::move(audited), {}}, requester, outcome);
  return answerTo(request, body.type, std::move(answer));
}

RoutedRequest RequestRouter::routeTlsCertificate(HttpRequest request) const {
  if (request.method == "GET" || request.method == "HEAD") {
    return {std::nullopt, "tls-certificate",
            [this, request = std::move(request)](const Requester& /*requester*/) {
              const WipedMemory wiped;  // the file holds a private key
              return answerTo(request, MediaType::json(), tlsCertificate_.current());
            }};
  }
  if (request.method != "POST") return answered(methodNotAllowed("GET, HEAD, POST"));
  Body body = Body::of(std::exchange(request.body, {}), request.contentType, false);
  if (body.refusal) return answered(std::move(*body.refusal));
  const std::size_t bytes = footprintOf(body.content);
  return {std::nullopt, "tls-certificate import",
          [this, request = std::move(request), body = std::move(body)](const Requester& requester) mutable {
            const WipedMemory wiped;
            HttpAnswer answer = importTlsCertificate(request, body, requester);
            body.content = Dictionary();
            return answer;
          },
          bytes};
}

HttpAnswer RequestRouter::importTlsCertificate(const HttpRequest& request, const Body& body,
                                               const Requester& requester) const {
  auto answer = tlsCertificate_.import(body.content);
  const Value* check = body.content.find("check");
  if (!check || !check->boolValue()) {
    // Nothing of the body: what was sent as a certificate may be a key.
    Dictionary audited;
    for (const char* key : {"file", "changed", "restarted"}) {
      if (const Value* value = answer.content.find(key)) audited.set(key, *value);
    }
    if (const Dictionary* certificate = answer.content.dictionaryFor("certificate")) {
      for (const char* key : {"subject", "sha256"}) {
        if (const Value* value = certificate->find(key)) audited.set(key, *value);
      }
    }
    ExecutionOutcome outcome;
    if (const std::string* error = answer.content.stringFor("error")) outcome.answer.set("error", *error);
    outcome.log = answer.log;
    records_.changed({"tls-certificate", "import", std::move(audited), {}}, requester, outcome);
  }
  return answerTo(request, body.type, std::move(answer));
}

RoutedRequest RequestRouter::routeMetrics(HttpRequest request) const {
  if (request.method != "GET" && request.method != "HEAD") return answered(methodNotAllowed("GET, HEAD"));
  RoutedRequest routed;
  routed.label = "metrics";
  routed.work = [this, accept = request.accept](const Requester& /*requester*/) {
    return metrics_.all(accept);
  };
  routed.patience = kMetricsPatience;
  routed.otherwise = [this, accept = std::move(request.accept)] { return metrics_.ofDaemon(accept); };
  return routed;
}

RoutedRequest RequestRouter::routeCheck(HttpRequest request) const {
  if (request.method != "GET" && request.method != "HEAD") return answered(methodNotAllowed("GET, HEAD"));
  CheckWishes wishes;
  HttpAnswer refusal;
  if (!CheckWishes::read(request, wishes, refusal)) return answered(std::move(refusal));
  RoutedRequest routed;
  routed.label = "check";
  routed.isBeside = true;
  routed.work = [this, request = std::move(request),
                 wishes = std::move(wishes)](const Requester& /*requester*/) {
    return answerTo(request, MediaType::json(), checks_.run(wishes), {});
  };
  return routed;
}

HttpAnswer RequestRouter::runEvent(const HttpRequest& request, const Body& body,
                                   const Requester& requester) const {
  const std::string name = lastPathComponent(request.path);
  const NetworkChangeContext context = NetworkChangeContext::fromEvent(body.content);
  const Value* count = body.content.find("count");
  Array reached;
  Array log;
  for (const auto& [pluginName, handler] : plugins_.handlers) {
    ExecutionOutcome outcome =
        request.path == kIdlePath
            ? executor_.idle(*handler, count ? static_cast<int>(count->integerValue()) : 1)
            : executor_.networkChanged(*handler, context);
    log.insert(log.end(), outcome.log.begin(), outcome.log.end());
    if (request.path == kNetworkChangePath) {
      records_.changed({pluginName, name, body.content, {}}, requester, outcome);
    }
    if (outcome.kind != ExecutionOutcome::Kind::answered) {
      outcome.log = std::move(log);
      return answerTo(request, body.type, name, std::move(outcome));
    }
    reached.emplace_back(pluginName);
  }
  return answerTo(request, body.type, {{"plugins", std::move(reached)}}, std::move(log));
}

HttpAnswer RequestRouter::routeRead(const HttpRequest& request) const {
  if (request.method != "GET" && request.method != "HEAD") return methodNotAllowed("GET, HEAD");
  const MediaType type = MediaType::forAnswer(request.accept, MediaType::json());
  if (request.path == kCheckAreasPath) return serialized(type, Checks::areas());
  return serialized(type, request.path == kHealthPath ? health() : Dictionary{{"services", services_.all()}});
}

Dictionary RequestRouter::health() const {
  const WorkSlot::Status status = slot_.status();
  Dictionary answer = {{"status", "ok"}, {"version", kVersion}};
  if (status.running) {
    answer.set("running", Dictionary{{"request", *status.running}, {"seconds", status.runningSeconds}});
  }
  answer.set("waiting", static_cast<std::int64_t>(status.waiting));
  Array names;
  for (const auto& [name, handler] : plugins_.handlers) names.emplace_back(name);
  answer.set("plugins", std::move(names));
  Dictionary problems;
  for (const auto& [name, problem] : plugins_.problems) problems.set(name, problem);
  if (!problems.empty()) answer.set("notLoaded", std::move(problems));
  if (auto certificate = tlsExpiry_.current()) answer.set("tlsCertificate", *std::move(certificate));
  return answer;
}

HttpAnswer RequestRouter::refusal(WorkSlot::Refusal reason) {
  if (reason == WorkSlot::Refusal::stopping) {
    return errorAnswer(503, "stopping", "The daemon is stopping and takes no more requests.");
  }
  return errorAnswer(503, "busy",
                     "Other requests took so long that this one was not begun; try again later.");
}

}  // namespace tessard
