#include "host/Metrics.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "common/Text.h"
#include "host/Version.h"
#include "host/WipedMemory.h"
#include "platform/keychain/Certificate.h"
#include "platform/keychain/CertificateFile.h"
#include "platform/keychain/KeychainManager.h"
#include "platform/keychain/PemFile.h"

namespace tessard {

namespace {

// Enough to tell certificates from each other.
constexpr std::size_t kDigestDigits = 16;
// Certificates of a file that are looked at: a chain is shorter.
constexpr std::size_t kMostOfFile = 16;

MetricsForm formFor(const std::optional<std::string>& accept) {
  const bool isNew = accept && accept->find("application/openmetrics-text") != std::string::npos;
  return isNew ? MetricsForm::openMetrics : MetricsForm::prometheusText;
}

HttpAnswer answerOf(MetricsForm form, MetricsText& text) {
  return {200,
          form == MetricsForm::openMetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                           : "text/plain; version=0.0.4; charset=utf-8",
          text.finish()};
}

std::string bound(std::size_t index) {
  constexpr auto& kDurations = RequestTally::kDurations;
  return metricNumber(index < kDurations.size() ? kDurations[index] : HUGE_VAL);
}

double isRunning(const std::string& word) {
  return word == "RUNNING" ? 1 : 0;
}

constexpr std::string_view kState = "State";

// A service's own state stands under its name and "State".
bool isServiceState(const DictionaryEntry& entry) {
  return entry.key.size() > kState.size() && entry.key.ends_with(kState) && entry.value.asString();
}

std::optional<double> numberOf(const Dictionary& answer, std::string_view key) {
  const Value* value = answer.find(key);
  if (!value) return std::nullopt;
  return static_cast<double>(value->integerValue());
}

std::optional<double> domainsIn(const Dictionary& answer) {
  const std::string* joined = answer.stringFor("hostsCommaDelimitedString");
  if (!joined) return std::nullopt;
  const auto names = componentsOf(*joined, ',');
  return static_cast<double>(
      std::ranges::count_if(names, [](const std::string& name) { return !name.empty(); }));
}

std::optional<double> restrictionIn(const Dictionary& answer) {
  const std::string* word = answer.stringFor("servicePortsAreRestricted");
  if (!word) return std::nullopt;
  return *word == "YES" ? 1 : 0;
}

using States = std::vector<std::pair<std::string, Dictionary>>;  // by plug-in

void addNumbers(MetricsText& text, const States& states, const char* name, const char* help,
                const std::function<std::optional<double>(const Dictionary&)>& number) {
  text.family(name, MetricKind::gauge, help);
  for (const auto& [plugin, answer] : states) {
    if (const auto found = number(answer)) text.sample({{"plugin", plugin}}, *found);
  }
}

void addEnd(MetricsText& text, const std::string& place, const std::string& subject,
            const std::string& digest, std::int64_t end) {
  text.sample({{"place", place}, {"subject", subject}, {"sha256", digest.substr(0, kDigestDigits)}},
              static_cast<double>(end));
}

void addEndsOfFile(MetricsText& text, const std::string& path, std::string_view pem) {
  const auto blocks = pemBlocks(pem);
  if (!blocks) return;
  std::vector<std::string> seen;
  for (const PemBlock& block : *blocks) {
    const auto certificate =
        block.isCertificate() ? Certificate::parse(block.bytes.view()) : std::optional<Certificate>();
    if (!certificate || seen.size() == kMostOfFile) continue;
    const std::string digest = certificate->sha256();
    if (std::ranges::find(seen, digest) != seen.end()) continue;
    seen.push_back(digest);
    addEnd(text, path, certificate->subject(), digest, certificate->notAfter());
  }
}

}  // namespace

Metrics::Metrics(std::string root, Platform& platform, const Plugins& plugins, RequestExecutor& executor,
                 const RequestTally& tally, const WorkSlot& slot)
    : root_(std::move(root)),
      platform_(platform),
      plugins_(plugins),
      executor_(executor),
      tally_(tally),
      slot_(slot),
      started_(platform.clock.now().seconds) {}

HttpAnswer Metrics::all(const std::optional<std::string>& accept) const {
  MetricsText text(formFor(accept));
  addDaemon(text);
  addRequests(text);
  addServices(text);
  addCertificates(text);
  return answerOf(formFor(accept), text);
}

HttpAnswer Metrics::ofDaemon(const std::optional<std::string>& accept) const {
  MetricsText text(formFor(accept));
  addDaemon(text);
  addRequests(text);
  return answerOf(formFor(accept), text);
}

void Metrics::addDaemon(MetricsText& text) const {
  const WorkSlot::Status status = slot_.status();
  text.family("tessard_build_info", MetricKind::gauge, "The version of the daemon.");
  text.sample({{"version", kVersion}}, 1);
  text.family("tessard_start_time_seconds", MetricKind::gauge,
              "When the daemon began, in seconds since 1970.");
  text.sample({}, static_cast<double>(started_));
  text.family("tessard_connections", MetricKind::gauge, "Open connections of clients of the daemon.");
  text.sample({}, static_cast<double>(tally_.counts().connections));
  text.family("tessard_requests_waiting", MetricKind::gauge, "Requests that wait for their turn.");
  text.sample({}, static_cast<double>(status.waiting));
  text.family("tessard_request_running_seconds", MetricKind::gauge,
              "For how long the request that runs has been running; 0 when none is.");
  text.sample({}, status.running ? status.runningSeconds : 0);
  text.family("tessard_plugin_loaded", MetricKind::gauge, "Whether a plug-in could be loaded.");
  for (const auto& [name, handler] : plugins_.handlers) text.sample({{"plugin", name}}, 1);
  for (const auto& [name, problem] : plugins_.problems) text.sample({{"plugin", name}}, 0);
}

void Metrics::addRequests(MetricsText& text) const {
  const auto counts = tally_.counts();
  text.family("tessard_http_answers", MetricKind::counter, "Answers by HTTP status.");
  for (const auto& [status, count] : counts.answers) {
    text.sample({{"code", std::to_string(status)}}, static_cast<double>(count));
  }
  text.family("tessard_requests", MetricKind::counter,
              "Requests that were carried out, by what they came to.");
  for (const auto& [key, count] : counts.requests) {
    const auto& [plugin, command, result] = key;
    text.sample({{"plugin", plugin}, {"command", command}, {"result", result}}, static_cast<double>(count));
  }
  text.family("tessard_configuration_writes", MetricKind::counter,
              "Requests to write settings, by what they came to.");
  for (const auto& [key, count] : counts.requests) {
    const auto& [plugin, command, result] = key;
    if (command == "writeSettings") {
      text.sample({{"plugin", plugin}, {"result", result}}, static_cast<double>(count));
    }
  }
  text.family("tessard_request_duration_seconds", MetricKind::histogram,
              "How long requests took once it was their turn.");
  for (const auto& [key, durations] : counts.durations) {
    const auto& [plugin, command] = key;
    std::uint64_t total = 0;
    for (std::size_t index = 0; index < durations.counts.size(); ++index) {
      total += durations.counts[index];
      text.sample({{"plugin", plugin}, {"command", command}, {"le", bound(index)}},
                  static_cast<double>(total), "_bucket");
    }
    text.sample({{"plugin", plugin}, {"command", command}}, durations.seconds, "_sum");
    text.sample({{"plugin", plugin}, {"command", command}}, static_cast<double>(total), "_count");
  }
}

void Metrics::addServices(MetricsText& text) const {
  States states;
  for (const auto& [name, handler] : plugins_.handlers) {
    auto outcome = executor_.execute(*handler, "getState", {{"variant", "withDetails"}});
    if (resultOf(outcome) == "done") states.emplace_back(name, std::move(outcome.answer));
  }
  addNumbers(text, states, "tessard_running", "Whether all services of a plug-in run.",
             [](const Dictionary& answer) -> std::optional<double> {
               const std::string* state = answer.stringFor("state");
               return state ? std::optional(isRunning(*state)) : std::nullopt;
             });
  text.family("tessard_service_running", MetricKind::gauge, "Whether one service runs.");
  for (const auto& [plugin, answer] : states) {
    for (const DictionaryEntry& entry : answer) {
      if (!isServiceState(entry)) continue;
      text.sample({{"plugin", plugin}, {"service", entry.key.substr(0, entry.key.size() - kState.size())}},
                  isRunning(*entry.value.asString()));
    }
  }
  addNumbers(text, states, "tessard_service_connections", "Connections of clients of the services.",
             [](const Dictionary& answer) { return numberOf(answer, "currentConnections"); });
  addNumbers(text, states, "tessard_domains", "Domains that are served.", domainsIn);
  addNumbers(text, states, "tessard_ports_restricted",
             "Whether the packet filter keeps strangers from a port of the services.", restrictionIn);
}

void Metrics::addCertificates(MetricsText& text) const {
  const WipedMemory wiped;  // the file holds a private key
  text.family("tessard_certificate_end_time_seconds", MetricKind::gauge,
              "When a certificate expires, in seconds since 1970.");
  if (const auto records = KeychainManager(root_, platform_.clock).certificates()) {
    for (const CertificateRecord& each : records.value()) {
      addEnd(text, "keychain", each.subject, each.sha256, each.notAfter);
    }
  }
  for (const auto& [name, handler] : plugins_.handlers) {
    const auto settings = executor_.settings(*handler, {"sslKeyFile"});
    const std::string* path = settings ? settings->stringFor("sslKeyFile") : nullptr;
    if (!path || path->empty()) continue;
    const auto pem = platform_.files.readFile(*path, CertificateFile::kSizeLimit);
    if (pem) addEndsOfFile(text, *path, pem.value());
  }
}

}  // namespace tessard
