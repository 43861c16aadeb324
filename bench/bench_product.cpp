// The plug-in without its daemon: loaded from its bundle and called in this process,
// with all real classes below it, as a request of its own each. Usage:
//   bench_product ROOT PROGRAMS ANSWER [COUNT:]FILE...
// Each FILE holds a request as JSON, carried out COUNT times in the given order; the answer to the last one
// is written to the file ANSWER. For every call a line "NANOSECONDS" is said, and at the end "memory PEAK
// ANONYMOUS" in KiB.

#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "host/BundleLoader.h"
#include "host/JsonCodec.h"
#include "host/RealPlatform.h"

namespace {

using namespace tessard;

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The number behind a name in /proc/self/status, in KiB.
long kibibytesOf(std::string_view name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name)) return std::strtol(line.c_str() + name.size() + 1, nullptr, 10);
  }
  return 0;
}

struct Call {
  long count = 1;
  std::string file;
};

Call callOf(std::string_view argument) {
  Call call;
  const auto colon = argument.find(':');
  const auto* end = argument.data() + (colon == std::string_view::npos ? 0 : colon);
  const auto read = std::from_chars(argument.data(), end, call.count);
  call.file = read.ec == std::errc() ? argument.substr(colon + 1) : argument;
  return call;
}

bool carryOut(PluginRequestHandler& handler, JournalingFileSystem& journal, const Call& call,
              std::string& answer) {
  auto request = parseJson(contentOf(call.file));
  const Dictionary* content = request ? request.value().asDictionary() : nullptr;
  const std::string* command = content ? content->stringFor("command") : nullptr;
  const auto operation = command ? handler.operationForCommand(*command) : nullptr;
  if (!operation) return false;
  for (long done = 0; done < call.count; ++done) {
    const auto begin = std::chrono::steady_clock::now();
    journal.startRequest();
    const auto given = operation(*content);
    journal.finishRequest(false);
    const auto passed = std::chrono::steady_clock::now() - begin;
    std::printf("%lld\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::nanoseconds>(passed).count()));
    journal.tidyUp();
    if (!given) return false;
    if (done + 1 == call.count) answer = serializeJson(*given);
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 5) return 64;
  HostConfiguration configuration;
  configuration.root = arguments[1];
  configuration.programsDirectory = arguments[2];
  RealPlatform real(configuration);
  const auto plugins =
      BundleLoader(configuration.root, real.bundles, real.platform).loadAll(configuration.bundlesDirectory);
  const auto plugin = plugins.handlers.find("notification");
  if (plugin == plugins.handlers.end()) {
    std::fputs("the plug-in cannot be loaded\n", stderr);
    return 70;
  }
  std::string answer;
  for (int index = 4; index < count; ++index) {
    if (!carryOut(*plugin->second, real.journal, callOf(arguments[index]), answer)) {
      std::fprintf(stderr, "no request, or no answer to it: %s\n", arguments[index]);
      return 70;
    }
  }
  std::ofstream(arguments[3], std::ios::binary) << answer;
  std::printf("memory %ld %ld\n", kibibytesOf("VmHWM"),
              kibibytesOf("VmHWM") - kibibytesOf("RssFile") - kibibytesOf("RssShmem"));
  return 0;
}
