// The parts that a request is made of, each alone, with Google Benchmark. Usage:
//   bench_parts C2S_XML PREFERENCES_PLIST WRITE_REQUEST_JSON [BENCHMARK OPTION]...
// Each part comes with the least that anybody could do with the same bytes, "floor/...": to copy them, each
// byte looked at once.

#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "common/PropertyList.h"
#include "common/XmlDocument.h"
#include "config/ComponentConfiguration.h"
#include "host/JsonCodec.h"
#include "host/RealPlatform.h"

namespace {

using namespace tessard;

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void copyBytes(benchmark::State& state, const std::string& bytes) {
  std::string copy(bytes.size(), '\0');
  for (auto round : state) {
    std::memcpy(copy.data(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(std::memchr(copy.data(), '\0', copy.size()));
  }
}

void parseXml(benchmark::State& state, const std::string& bytes) {
  for (auto round : state) benchmark::DoNotOptimize(XmlDocument::parse(bytes));
}

void serializeXml(benchmark::State& state, const std::string& bytes) {
  const auto document = XmlDocument::parse(bytes);
  for (auto round : state) benchmark::DoNotOptimize(document.value().serialize());
}

// A component whose document is set, and not read from any file.
struct Component {
  explicit Component(const std::string& bytes) : real(HostConfiguration{}), component(real.platform) {
    component.setConfigXMLDocument(XmlDocument::parse(bytes).value());
  }
  RealPlatform real;
  NOTIFICATION_PLUGIN_C2SConfigurationParser component;
};

void lookUp(benchmark::State& state, const std::string& bytes) {
  const Component c2s(bytes);
  for (auto round : state) {
    int found = kNodeNotFound;
    benchmark::DoNotOptimize(
        c2s.component.getStringValueForPath_nodeState("c2s.authreg.mechanisms.sasl.plain", found));
  }
}

void edit(benchmark::State& state, const std::string& bytes) {
  Component c2s(bytes);
  bool other = false;
  for (auto round : state) {
    other = !other;
    c2s.component.setStringValue_forPath_nodeState(other ? "5218" : "5222", "c2s.local.port", kNodeLive);
  }
}

void parseList(benchmark::State& state, const std::string& bytes) {
  for (auto round : state) benchmark::DoNotOptimize(parsePropertyList(bytes));
}

void serializeList(benchmark::State& state, const std::string& bytes) {
  const auto list = parsePropertyList(bytes);
  for (auto round : state) benchmark::DoNotOptimize(serializePropertyList(list.value()));
}

void parseRequest(benchmark::State& state, const std::string& bytes) {
  for (auto round : state) benchmark::DoNotOptimize(parseJson(bytes));
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return 64;
  const std::string xml = contentOf(arguments[1]);
  const std::string list = contentOf(arguments[2]);
  const std::string json = contentOf(arguments[3]);
  if (!XmlDocument::parse(xml) || !parsePropertyList(list) || !parseJson(json)) return 66;
  const auto add = [](const char* name, void (*part)(benchmark::State&, const std::string&),
                      const std::string& bytes) {
    benchmark::RegisterBenchmark(name, [part, &bytes](benchmark::State& state) { part(state, bytes); });
  };
  add("floor/XML", copyBytes, xml);
  add("XML: parse", parseXml, xml);
  add("XML: look a path up", lookUp, xml);
  add("XML: edit a value", edit, xml);
  add("XML: serialise", serializeXml, xml);
  add("floor/property list", copyBytes, list);
  add("property list: parse", parseList, list);
  add("property list: serialise", serializeList, list);
  add("floor/request", copyBytes, json);
  add("request: decode JSON", parseRequest, json);
  int rest = count - 3;
  arguments[3] = arguments[0];
  benchmark::Initialize(&rest, arguments + 3);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
