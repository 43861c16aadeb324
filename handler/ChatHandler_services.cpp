#include "common/Format.h"
#include "common/Utf8.h"
#include "coordinator/SettingsProblems.h"
#include "handler/ChatHandler.h"

namespace tessard {

namespace {

// What may come back in a line of a log.
bool isName(const Value& value) {
  const std::string* text = value.asString();
  return text && isXmlText(*text) && text->find_first_of("\t\n\r\x7f") == std::string::npos;
}

}  // namespace

NOTIFICATION_PLUGIN_ChatServiceAtom* NOTIFICATION_PLUGIN_ChatHandler::notificationAtom() const {
  return serviceWrangler_->serviceAtomForName("Notification");
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::getConfiguredServicesWithRequest(const Dictionary& /*request*/) {
  Dictionary answer;
  if (!passGate()) return answer;
  auto* notification = notificationAtom();
  auto services = notification ? notification->getConfiguredServices() : std::nullopt;
  if (services) answer.set("configuredServices", std::move(*services));
  return answer;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::addServiceWithRequest(const Dictionary& request) {
  if (auto refusal = refusalOfServiceRequest(request)) return refusal;
  auto* notification = notificationAtom();
  return notification ? notification->addServiceWithRequest(request) : std::nullopt;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::removeServiceWithRequest(
    const Dictionary& request) {
  if (auto refusal = refusalOfServiceRequest(request)) return refusal;
  auto* notification = notificationAtom();
  return notification ? notification->removeServiceWithRequest(request) : std::nullopt;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::refusalOfServiceRequest(
    const Dictionary& request) const {
  const auto problem = problemWithServiceRequest(request);
  if (!problem) return std::nullopt;
  return refusal("client service", *problem);
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::refusal(std::string_view what, std::string_view problem) const {
  logError_source(fill("%@ refused: %@", {what, problem}), "");
  return responseForError("INVALID_ARG_ERR");
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::getServiceUserWithRequest(
    const Dictionary& request) {
  const Value* service = request.find("service");
  if (service && !isName(*service)) {
    return refusal("service user", "\"service\" must be a string without control characters");
  }
  if (!passGate()) return Dictionary{};
  auto* notification = notificationAtom();
  return notification ? notification->getServiceUserWithRequest(request) : std::nullopt;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::setKorvsCertificateWithRequest(
    const Dictionary& request) {
  const Value* name = request.find("certificateName");
  if (name && !isName(*name)) {
    return refusal("certificate", "\"certificateName\" must be a string without control characters");
  }
  auto* notification = notificationAtom();
  return notification ? notification->setKorvsCertificateWithRequest(request) : std::nullopt;
}

}  // namespace tessard
