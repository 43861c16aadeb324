#include <algorithm>
#include <utility>

#include "atoms/HostObjects.h"
#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
#include "common/Format.h"
#include "common/PropertyList.h"

namespace tessard {

namespace {

Array servicesIn(const Dictionary& configuration) {
  const Array* services = configuration.arrayFor("services");
  return services ? *services : Array{};
}

Dictionary answerWith(Array services) {
  Dictionary answer;
  answer.set("configuredServices", std::move(services));
  return answer;
}

bool isOfService(const Dictionary& entry, const std::string& service) {
  const std::string* name = entry.stringFor("service");
  return name && *name == service;
}

}  // namespace

std::optional<Array> NOTIFICATION_PLUGIN_NotificationServiceAtom::getConfiguredServices() {
  const auto configuration = lists_.look(kBundleConfigFilePath);
  return configuration ? servicesIn(*configuration.value()) : Array{};
}

// The file is the preferences' file too. A new one needs their defaults: a file with client services alone
// would be taken for complete preferences. One that cannot be read is for a person to mend.
std::optional<Dictionary> NOTIFICATION_PLUGIN_NotificationServiceAtom::bundleConfigurationToChange() {
  const auto there = isThere(platform().files, kBundleConfigFilePath);
  // Who is asked for them first makes them.
  if (there && !there.value() && !owner().loadPreferences()) {
    logError_source("client services cannot be changed before the host name is known", "");
    return std::nullopt;
  }
  auto stored = there ? lists_.read(kBundleConfigFilePath) : Result<Dictionary>(there.error());
  if (stored) return std::move(stored).value();
  logError_source(fill("client services cannot be changed: \"%@\" : %@",
                       {kBundleConfigFilePath, stored.error().description()}),
                  "");
  return std::nullopt;
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::keepServices(Dictionary configuration,
                                                               const Array& services) {
  configuration.set("services", services);
  const auto written = lists_.write(kBundleConfigFilePath, configuration, kBundleConfigOwnership);
  if (written) return;
  writeFailed(kBundleConfigFilePath, written.error());
  logError_source(fill("client services were not saved: \"%@\" : %@",
                       {kBundleConfigFilePath, written.error().description()}),
                  "");
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_NotificationServiceAtom::addServiceWithRequest(
    const Dictionary& request) {
  ChangeSet changes(platform().changes);
  auto configuration = bundleConfigurationToChange();
  if (!configuration) return answerWith({});
  Array services = servicesIn(*configuration);
  Dictionary entry = request;
  entry.remove("command");
  Value added(std::move(entry));
  if (std::ranges::find(services, added) != services.end()) {
    logDebug_source("request to add a duplicate entry into configuredServices, ignoring", "");
    return answerWith(std::move(services));
  }
  services.push_back(std::move(added));
  keepServices(std::move(*configuration), services);
  changes.end();
  return answerWith(std::move(services));
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_NotificationServiceAtom::removeServiceWithRequest(
    const Dictionary& request) {
  ChangeSet changes(platform().changes);
  auto configuration = bundleConfigurationToChange();
  if (!configuration) return answerWith({});
  Array services = servicesIn(*configuration);
  const std::string* service = request.stringFor("service");
  const std::string* hostName = request.stringFor("hostName");
  if (service && hostName) removeService_ofHost(*service, *hostName, services);
  keepServices(std::move(*configuration), services);
  changes.end();
  return answerWith(std::move(services));
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::removeService_ofHost(const std::string& service,
                                                                       const std::string& hostName,
                                                                       Array& services) {
  HostObjects hosts(platform().network, platform().clock);
  HostObject target = hosts.hostWithName(hostName);
  if (const auto current = owner().currentHostDomain()) {
    const HostObject currentHost = hosts.currentHostWithName(*current);
    if (hosts.isSame(currentHost, hostName)) target = currentHost;
  }
  std::erase_if(services, [&](const Value& value) {
    const Dictionary* entry = value.asDictionary();
    if (!entry || !isOfService(*entry, service)) return false;
    const std::string* host = entry->stringFor("hostName");
    return host && hosts.isSame(target, *host);
  });
  if (hosts.ranOutOfTime()) {
    logWarning_source(
        fill("not every host of the service \"%@\" could be looked up in time; those left stay configured",
             {service}),
        "");
  }
}

}  // namespace tessard
