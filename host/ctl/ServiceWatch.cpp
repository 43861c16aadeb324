#include "host/ctl/ServiceWatch.h"

#include <functional>

#include "common/Format.h"
#include "host/JsonCodec.h"

namespace tessard {

namespace {

using PartCall = std::function<void(const std::string& name, const std::string& state, const Dictionary&)>;

std::string textFor(const Dictionary& dictionary, std::string_view key) {
  const std::string* text = dictionary.stringFor(key);
  return text ? *text : "";
}

// "jabberd_notification" of "org.jabber.jabberd_notification".
std::string nameOf(const std::string& label) {
  return label.substr(label.rfind('.') + 1);
}

void forEachPart(const Dictionary& service, const PartCall& call) {
  const Array* parts = service.arrayFor("parts");
  if (!parts) return;
  for (const Value& value : *parts) {
    const Dictionary* part = value.asDictionary();
    if (part) call(textFor(*part, "name"), textFor(*part, "state"), *part);
  }
}

void forEachService(const Dictionary& reports,
                    const std::function<void(const std::string& name, const Dictionary&)>& call) {
  for (const auto& [label, value] : reports) {
    if (const Dictionary* service = value.asDictionary()) call(nameOf(label), *service);
  }
}

}  // namespace

ServiceWatch::ServiceWatch(const std::string& socketPath, const CtlOutput& output)
    : client_(socketPath, [](int /*seconds*/) {}), output_(output) {}

std::optional<Dictionary> ServiceWatch::reports() const {
  const auto reply = client_.send("GET", "/v1/services", "");
  const auto* received = std::get_if<ClientReply>(&reply);
  if (!received || received->status != 200) return std::nullopt;
  const auto answer = parseJson(received->body);
  const Dictionary* dictionary = answer ? answer.value().asDictionary() : nullptr;
  const Dictionary* services = dictionary ? dictionary->dictionaryFor("services") : nullptr;
  return services ? std::optional(*services) : std::nullopt;
}

void ServiceWatch::showProgress() {
  if (!output_.terminal()) return;
  const auto found = reports();
  if (!found) return;
  forEachService(*found, [&](const std::string& name, const Dictionary& service) {
    forEachPart(service, [&](const std::string& part, const std::string& state, const Dictionary&) {
      std::string& seen = seen_[name + "/" + part];
      if (seen == state) return;
      seen = state;
      output_.endProgress();
      output_.note(fill("  %@/%@: %@", {name, part, state}));
    });
  });
}

void ServiceWatch::explain() const {
  const auto found = reports();
  if (!found) return;
  forEachService(*found, [&](const std::string& name, const Dictionary& service) {
    const std::string state = textFor(service, "state");
    if (state == "running" || state == "stopping") return;
    const std::string reason = textFor(service, "reason");
    output_.note(fill("%@ (%@)%@%@", {name, state, reason.empty() ? "" : ": ", reason}));
    forEachPart(service, [&](const std::string& part, const std::string& how, const Dictionary& report) {
      if (how == "ready") return;
      output_.note(fill("  %@: %@", {part, how}));
      const Array* lines = report.arrayFor("log");
      if (!lines) return;
      for (const Value& line : *lines) output_.note("    " + readable(line));
    });
  });
}

std::map<int, std::string> ServiceWatch::partsByProcess() const {
  std::map<int, std::string> parts;
  const auto found = reports();
  if (!found) return parts;
  forEachService(*found, [&](const std::string& /*name*/, const Dictionary& service) {
    forEachPart(
        service, [&](const std::string& part, const std::string& /*state*/, const Dictionary& report) {
          const Value* process = report.find("pid");
          if (!process) return;
          // "sm (sm_a.example.xml)"
          const auto bracket = part.find(" (");
          const auto end = part.rfind(".xml)");
          const bool hasFile = bracket != std::string::npos && end != std::string::npos && end > bracket;
          parts[static_cast<int>(process->integerValue())] =
              hasFile ? part.substr(bracket + 2, end - bracket - 2) : part;
        });
  });
  return parts;
}

void ServiceWatch::showParts() const {
  const auto found = reports();
  if (!found) return;
  forEachService(*found, [&](const std::string& name, const Dictionary& service) {
    forEachPart(service, [&](const std::string& part, const std::string& state, const Dictionary&) {
      output_.line(fill("%@/%@: %@", {name, part, state}));
    });
  });
}

}  // namespace tessard
