#include "common/NetworkChangeContext.h"

#include <array>
#include <string_view>

#include "common/Addresses.h"
#include "common/Format.h"
#include "common/HostNames.h"

namespace tessard {

namespace {

constexpr std::array<std::string_view, 4> kChangeIPKeys = {"oldHost", "newHost", "oldAddress", "newAddress"};

std::optional<std::string> textFor(const Dictionary& fields, std::string_view key) {
  const std::string* text = fields.stringFor(key);
  return text ? std::optional(*text) : std::nullopt;
}

bool differ(const std::optional<std::string>& before, const std::optional<std::string>& after) {
  return before && after && *before != *after;
}

bool flagFor(const Dictionary& fields, std::string_view key) {
  const Value* flag = fields.find(key);
  return flag && flag->boolValue();
}

std::optional<std::string> problemWithEntry(const DictionaryEntry& entry) {
  const std::string* text = entry.value.asString();
  if (!text) return fill("\"%@\" must be a string", {entry.key});
  if (entry.key.ends_with("Host") && !isHostName(*text)) {
    return fill("\"%@\" is not a host name: \"%@\"", {entry.key, *text});
  }
  if (entry.key.ends_with("Address") && !isAddress(*text)) {
    return fill("\"%@\" is not an IP address: \"%@\"", {entry.key, *text});
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> NetworkChangeContext::problemWithChangeIPRequest(const Value& arguments) {
  const Dictionary* fields = arguments.asDictionary();
  if (!fields) {
    return "the arguments must be a dictionary of \"oldHost\", \"newHost\", \"oldAddress\" and "
           "\"newAddress\"";
  }
  for (const std::string_view key : kChangeIPKeys) {
    const Value* value = fields->find(key);
    if (!value) continue;
    if (auto problem = problemWithEntry({std::string(key), *value})) return problem;
  }
  if (!fields->contains("newHost") && !fields->contains("newAddress")) {
    return "neither \"newHost\" nor \"newAddress\" is given";
  }
  return std::nullopt;
}

NetworkChangeContext NetworkChangeContext::networkChangeContextWithChangeIPRequest(const Value& arguments) {
  NetworkChangeContext context;
  const Dictionary* fields = arguments.asDictionary();
  if (!fields) return context;
  context.changeInfo_ = *fields;
  context.oldHost_ = textFor(*fields, "oldHost");
  context.newHost_ = textFor(*fields, "newHost");
  context.hasHostChanged_ = differ(context.oldHost_, context.newHost_);
  const auto newAddress = textFor(*fields, "newAddress");
  context.hasAddrChanged_ = differ(textFor(*fields, "oldAddress"), newAddress);
  context.isNewAddressSelfAssigned_ = newAddress && isSelfAssignedAddress(*newAddress);
  context.hasValidNetworkConfiguration_ = !problemWithChangeIPRequest(arguments);
  return context;
}

NetworkChangeContext NetworkChangeContext::fromEvent(const Dictionary& fields) {
  NetworkChangeContext context;
  if (const Dictionary* info = fields.dictionaryFor("changeInfo")) context.changeInfo_ = *info;
  context.hasHostChanged_ = flagFor(fields, "hasHostChanged");
  context.hasAddrChanged_ = flagFor(fields, "hasAddrChanged");
  context.isNewAddressSelfAssigned_ = flagFor(fields, "isNewAddressSelfAssigned");
  context.oldHost_ = textFor(fields, "oldHost");
  context.newHost_ = textFor(fields, "newHost");
  // The new name becomes part of configuration files and of their names.
  context.hasValidNetworkConfiguration_ =
      flagFor(fields, "hasValidNetworkConfiguration") && (!context.newHost_ || isHostName(*context.newHost_));
  return context;
}

}  // namespace tessard
