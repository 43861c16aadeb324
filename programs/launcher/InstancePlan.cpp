#include "programs/launcher/InstancePlan.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "common/Format.h"
#include "common/XmlDocument.h"
#include "config/LiveElements.h"
#include "config/MasterFileLines.h"

namespace tessard {

namespace {

using Kind = Component::Kind;

constexpr std::array<Kind, 4> kStartingOrder = {Kind::router, Kind::sessionManager, Kind::serverToServer,
                                                Kind::clientToServer};
constexpr std::size_t kLongestFile = std::size_t{1024} * 1024;
// What jabberd takes where its file names none.
constexpr std::uint16_t kRouterPort = 5347;

std::optional<Kind> kindNamed(std::string_view name) {
  for (const Kind kind : kStartingOrder) {
    if (name == nameOf(kind)) return kind;
  }
  return std::nullopt;
}

std::optional<Component> componentInLine(std::string_view line) {
  auto listed = listedComponentIn(line);
  const auto kind = listed ? kindNamed(listed->kind) : std::nullopt;
  if (!kind) return std::nullopt;
  Component component;
  component.kind = *kind;
  component.file = std::move(listed->path);
  return component;
}

std::uint16_t portAt(const XmlNode& root, std::string_view path, std::uint16_t standard) {
  const std::string text = liveTextAt(root, path);
  std::uint16_t port = standard;
  std::from_chars(text.data(), text.data() + text.size(), port);
  return port;
}

void fillIn(Component& component, const XmlNode& root) {
  component.pidFile = liveTextAt(root, "pidfile");
  if (component.kind == Kind::sessionManager) {
    component.domains = liveTextsAt(root, "local.id");
    return;
  }
  component.port = portAt(root, "local.port", component.kind == Kind::router ? kRouterPort : 0);
  const std::string address = liveTextAt(root, "local.ip");
  const bool everywhere = address.empty() || address == "0.0.0.0" || address == "::";
  if (!everywhere) component.address = address;
}

std::optional<SystemError> readComponent(FileSystem& files, Component& component) {
  const auto text = files.readFile(component.file, kLongestFile);
  if (!text) {
    return SystemError(text.error().code(),
                       fill("\"%@\" cannot be read: %@", {component.file, text.error().description()}));
  }
  const auto document = XmlDocument::parse(text.value());
  if (!document) {
    return SystemError(
        0, fill("\"%@\" is not well-formed: %@", {component.file, document.error().description()}));
  }
  fillIn(component, document.value().root());
  return std::nullopt;
}

}  // namespace

const char* nameOf(Kind kind) {
  switch (kind) {
    case Kind::router:
      return "router";
    case Kind::sessionManager:
      return "sm";
    case Kind::serverToServer:
      return "s2s";
    case Kind::clientToServer:
      break;
  }
  return "c2s";
}

std::string describe(const Component& component) {
  if (component.kind != Kind::sessionManager) return nameOf(component.kind);
  return fill("%@ (%@)", {nameOf(component.kind), lastPathComponent(component.file)});
}

Result<std::vector<Component>> readInstancePlan(FileSystem& files, const std::string& masterFile) {
  const auto text = files.readFile(masterFile, kLongestFile);
  if (!text) {
    return SystemError(text.error().code(),
                       fill("\"%@\" cannot be read: %@", {masterFile, text.error().description()}));
  }
  std::vector<Component> components;
  for (const std::string& line : linesOf(text.value())) {
    auto component = componentInLine(line);
    if (!component) continue;
    const auto isSame = [&](const Component& other) {
      return other.kind == component->kind && other.file == component->file;
    };
    if (std::ranges::any_of(components, isSame)) continue;
    if (const auto problem = readComponent(files, *component)) return *problem;
    components.push_back(std::move(*component));
  }
  const auto routers = std::ranges::count(components, Kind::router, &Component::kind);
  if (routers != 1) {
    return SystemError(
        0, fill("\"%@\" lists %ld routers and must list one", {masterFile, static_cast<long>(routers)}));
  }
  std::ranges::stable_sort(components, {}, &Component::kind);
  return components;
}

}  // namespace tessard
