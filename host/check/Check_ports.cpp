#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>

#include "common/Format.h"
#include "config/JabberPaths.h"
#include "config/NotificationPlaces.h"
#include "host/check/CheckAreas.h"

namespace tessard {

namespace {

constexpr FindingKind kInvalid = {"port-invalid", Severity::error};
constexpr FindingKind kNoClients = {"no-client-port", Severity::error};
constexpr FindingKind kEqual = {"ports-equal", Severity::error};
constexpr FindingKind kPrivileged = {"port-privileged", Severity::error};
constexpr FindingKind kRouter = {"router-port-differs", Severity::error};
constexpr FindingKind kTaken = {"port-taken", Severity::error};
constexpr std::array kKinds = {kInvalid, kNoClients, kEqual, kPrivileged, kRouter, kTaken};

// What the components take where their files name none.
constexpr std::uint16_t kRouterPort = 5347;
// Below that a port wants rights that the components do not have.
constexpr std::uint16_t kFirstFreePort = 1024;

constexpr std::string_view kListening = "0A";  // the state, in /proc/net/tcp

struct Listener {
  std::string what;     ///< "c2s.local.port"
  std::string setting;  ///< by which it is changed; empty for the router's
  std::string address;
  std::uint16_t port;

  bool isEverywhere() const { return address.empty() || address == "0.0.0.0" || address == "::"; }
  std::string remedy() const {
    return setting.empty() ? "give the router another port in all files of the configuration"
                           : fill("choose another port: tessardctl settings set %@=...", {setting});
  }
};

std::optional<std::uint16_t> portIn(const std::string& text) {
  std::uint16_t port = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), port);
  return read.ec == std::errc() && read.ptr == text.data() + text.size() ? std::optional(port) : std::nullopt;
}

// Adds the component's listener at that element, where it has one.
void addListener(const InstanceComponent* component, const std::string& element, const std::string& setting,
                 std::uint16_t standard, std::vector<Listener>& listeners, Findings& findings) {
  if (!component) return;
  const std::string what = fill("%@.%@", {component->kind, element});
  std::optional<std::uint16_t> port = standard;
  if (component->has(element)) {
    const std::string text = component->textAt(element);
    port = portIn(text);
    if (!port) {
      findings.add(
          kInvalid, what,
          fill("%@ in \"%@\" is \"%@\", which is no port.", {what, component->path, text.substr(0, 80)}),
          "Write a whole number from 0 to 65535.");
    }
  }
  if (!port || *port == 0) return;
  if (*port < kFirstFreePort) {
    findings.add(
        kPrivileged, what,
        fill("%@ is %u, and the components have no right to ports below %u.", {what, *port, kFirstFreePort}),
        "Choose a higher one, and let the packet filter redirect the lower one to it.");
  }
  listeners.push_back({what, setting, component->textAt("local.ip"), *port});
}

std::vector<Listener> listenersOf(const Instance& instance, Findings& findings) {
  std::vector<Listener> listeners;
  addListener(instance.first("router"), "local.port", "", kRouterPort, listeners, findings);
  addListener(instance.first("c2s"), "local.port", "jabberdClientPortTLS", 0, listeners, findings);
  addListener(instance.first("c2s"), "local.ssl-port", "jabberdClientPortSSL", 0, listeners, findings);
  addListener(instance.first("s2s"), "local.port", "jabberdS2SPort", 0, listeners, findings);
  return listeners;
}

void examineOwn(const std::vector<Listener>& listeners, Findings& findings) {
  for (auto one = listeners.begin(); one != listeners.end(); ++one) {
    for (auto other = one + 1; other != listeners.end(); ++other) {
      const bool meet = one->isEverywhere() || other->isEverywhere() || one->address == other->address;
      if (one->port != other->port || !meet) continue;
      findings.add(kEqual, std::to_string(one->port),
                   fill("%@ and %@ are the same port %u, so one of them cannot be opened.",
                        {one->what, other->what, one->port}),
                   fill("For one of them, %@", {other->remedy()}));
    }
  }
}

void examineClients(const Instance& instance, const std::vector<Listener>& listeners, Findings& findings) {
  const bool isOpen = std::ranges::any_of(
      listeners, [](const Listener& listener) { return listener.what.starts_with("c2s."); });
  if (!instance.first("c2s") || isOpen) return;
  findings.add(kNoClients, "jabberdClientPortTLS", "Both ports for clients are 0, so no client can connect.",
               "tessardctl settings set jabberdClientPortTLS=5218");
}

void examineRouterPort(const Instance& instance, Findings& findings) {
  const InstanceComponent* router = instance.first("router");
  if (!router) return;
  const std::string own =
      router->has("local.port") ? router->textAt("local.port") : std::to_string(kRouterPort);
  const auto examine = [&](const std::string& subject, const std::string& what, const std::string& port) {
    if (port == own) return;
    findings.add(kRouter, subject,
                 fill("%@ in \"%@\" is %@, and the router listens on %@ (router.local.port).",
                      {what, subject, port, own}),
                 "Give both the same port.");
  };
  for (const InstanceComponent& component : instance.components) {
    if (component.kind != "router" && component.has("router.port"))
      examine(component.path, component.kind + ".router.port", component.textAt("router.port"));
  }
  const Value* port = instance.settings ? instance.settings->find("rport") : nullptr;
  const auto text = port ? port->stringValue() : std::nullopt;
  if (text && !text->empty()) examine(kNotificationSettingsFile, "\"rport\"", *text);
}

// One line of /proc/net/tcp or tcp6 that listens.
struct OpenPort {
  bool isEverywhere;
  std::string address;  ///< as four numbers; empty for IPv6
  std::uint16_t port;
  uid_t user;
  std::string inode;
};

// "0100007F" of a machine that puts the lowest byte first.
std::string addressIn(const std::string& digits) {
  if (digits.size() != 8) return "";
  std::string address;
  for (std::size_t at = 8; at > 0; at -= 2) {
    unsigned byte = 0;
    std::from_chars(digits.data() + at - 2, digits.data() + at, byte, 16);
    address += (address.empty() ? "" : ".") + std::to_string(byte);
  }
  return address;
}

std::vector<OpenPort> openPorts(const std::string& processes) {
  std::vector<OpenPort> ports;
  for (const char* table : {"/net/tcp", "/net/tcp6"}) {
    std::ifstream file(processes + table);
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
      std::istringstream fields(line);
      std::string number, local, remote, state, queues, timer, retries, inode;
      std::string user, timeout;
      fields >> number >> local >> remote >> state >> queues >> timer >> retries >> user >> timeout >> inode;
      const auto colon = local.find(':');
      if (state != kListening || colon == std::string::npos) continue;
      OpenPort open{local.find_first_not_of('0') == colon, addressIn(local.substr(0, colon)), 0, 0, inode};
      std::from_chars(local.data() + colon + 1, local.data() + local.size(), open.port, 16);
      std::from_chars(user.data(), user.data() + user.size(), open.user);
      ports.push_back(std::move(open));
    }
  }
  return ports;
}

// "\"name\" (pid 7)" of the process that has the socket; as much as this process may know.
std::string holderOf(const OpenPort& open, const std::string& processes) {
  const std::string socket = fill("socket:[%@]", {open.inode});
  std::error_code failed;
  for (std::filesystem::directory_iterator process(processes, failed), end; process != end;
       process.increment(failed)) {
    if (failed) break;
    const std::string pid = process->path().filename().string();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code refused;
    for (std::filesystem::directory_iterator file(process->path() / "fd", refused), last; file != last;
         file.increment(refused)) {
      if (refused) break;
      if (std::filesystem::read_symlink(file->path(), refused) != socket) continue;
      std::string name;
      std::ifstream names(process->path() / "comm");
      std::getline(names, name);
      return fill("\"%@\" (pid %@)", {name, pid});
    }
  }
  return fill("a process of the user %u", {open.user});
}

void examineTaken(CheckedSystem& system, const std::vector<Listener>& listeners, Findings& findings) {
  if (!system.isMachine) return;
  const auto ports = openPorts(system.processes);
  for (const Listener& listener : listeners) {
    const auto taken = std::ranges::find_if(ports, [&](const OpenPort& open) {
      const bool meet = open.isEverywhere || (listener.isEverywhere() && !open.address.empty()) ||
                        (!open.address.empty() && open.address == listener.address);
      return open.port == listener.port && open.user != kJabberUserID && meet;
    });
    if (taken == ports.end()) continue;
    findings.add(kTaken, std::to_string(listener.port),
                 fill("The port %u of %@ is taken by %@, so that the service cannot start.",
                      {listener.port, listener.what, holderOf(*taken, system.processes)}),
                 fill("Stop that program (\"ss -ltnp\" shows it), or %@", {listener.remedy()}));
  }
}

void examinePorts(CheckedSystem& system, Findings& findings) {
  const Instance& instance = system.instance();
  const auto listeners = listenersOf(instance, findings);
  examineOwn(listeners, findings);
  examineClients(instance, listeners, findings);
  examineRouterPort(instance, findings);
  examineTaken(system, listeners, findings);
}

}  // namespace

const CheckArea kPortsArea = {"ports", "the ports of the service, and who has taken them", 10, kKinds,
                              examinePorts};

}  // namespace tessard
