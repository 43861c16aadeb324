#include "common/Format.h"
#include "coordinator/SettingsProblems.h"
#include "handler/ChatHandler.h"

namespace tessard {

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
  logError_source(fill("client service refused: %@", {*problem}), "");
  return responseForError("INVALID_ARG_ERR");
}

}  // namespace tessard
