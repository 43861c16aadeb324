// The parts that a request is made of, each alone, with Google Benchmark. Usage:
//   bench_parts C2S_XML PREFERENCES_PLIST WRITE_REQUEST_JSON [BENCHMARK OPTION]...
// Each part comes with the least that anybody could do with the same bytes, "floor/...": to copy them, each
// byte looked at once.

#include <benchmark/benchmark.h>

#include <algorithm>
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

// What is worked on; read before anything is run.
struct Inputs {
  std::string xml;
  std::string list;
  std::string json;
};

Inputs& inputs() {
  static Inputs inputs;
  return inputs;
}

void copyBytes(benchmark::State& state, const std::string& bytes) {
  std::string copy(bytes.size(), '\0');
  while (state.KeepRunning()) {
    std::copy(bytes.begin(), bytes.end(), copy.begin());
    benchmark::DoNotOptimize(copy.find('\0'));
  }
}

void floorXml(benchmark::State& state) {
  copyBytes(state, inputs().xml);
}

void floorList(benchmark::State& state) {
  copyBytes(state, inputs().list);
}

void floorRequest(benchmark::State& state) {
  copyBytes(state, inputs().json);
}

void parseXml(benchmark::State& state) {
  while (state.KeepRunning()) benchmark::DoNotOptimize(XmlDocument::parse(inputs().xml));
}

void serializeXml(benchmark::State& state) {
  const auto document = XmlDocument::parse(inputs().xml);
  while (state.KeepRunning()) benchmark::DoNotOptimize(document.value().serialize());
}

// A component whose document is set, and not read from any file.
struct Component {
  Component() { component.setConfigXMLDocument(XmlDocument::parse(inputs().xml).value()); }
  RealPlatform real{HostConfiguration{}};
  NOTIFICATION_PLUGIN_C2SConfigurationParser component{real.platform};
};

void lookUp(benchmark::State& state) {
  const Component c2s;
  while (state.KeepRunning()) {
    int found = kNodeNotFound;
    benchmark::DoNotOptimize(
        c2s.component.getStringValueForPath_nodeState("c2s.authreg.mechanisms.sasl.plain", found));
  }
}

void edit(benchmark::State& state) {
  Component c2s;
  bool other = false;
  while (state.KeepRunning()) {
    other = !other;
    c2s.component.setStringValue_forPath_nodeState(other ? "5218" : "5222", "c2s.local.port", kNodeLive);
  }
}

void parseList(benchmark::State& state) {
  while (state.KeepRunning()) benchmark::DoNotOptimize(parsePropertyList(inputs().list));
}

void serializeList(benchmark::State& state) {
  const auto list = parsePropertyList(inputs().list);
  while (state.KeepRunning()) benchmark::DoNotOptimize(serializePropertyList(list.value()));
}

void parseRequest(benchmark::State& state) {
  while (state.KeepRunning()) benchmark::DoNotOptimize(parseJson(inputs().json));
}

BENCHMARK(floorXml)->Name("floor/XML");
BENCHMARK(parseXml)->Name("XML: parse");
BENCHMARK(lookUp)->Name("XML: look a path up");
BENCHMARK(edit)->Name("XML: edit a value");
BENCHMARK(serializeXml)->Name("XML: serialise");
BENCHMARK(floorList)->Name("floor/property list");
BENCHMARK(parseList)->Name("property list: parse");
BENCHMARK(serializeList)->Name("property list: serialise");
BENCHMARK(floorRequest)->Name("floor/request");
BENCHMARK(parseRequest)->Name("request: decode JSON");

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return 64;
  inputs() = {contentOf(arguments[1]), contentOf(arguments[2]), contentOf(arguments[3])};
  if (!XmlDocument::parse(inputs().xml) || !parsePropertyList(inputs().list) || !parseJson(inputs().json))
    return 66;
  int rest = count - 3;
  arguments[3] = arguments[0];
  benchmark::Initialize(&rest, arguments + 3);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
