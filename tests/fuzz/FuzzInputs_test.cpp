#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/FuzzTargets.h"

namespace tessard {
namespace {

namespace fs = std::filesystem;

using Target = void (*)(std::string_view);

std::vector<fs::path> inputsOf(const std::string& target) {
  std::vector<fs::path> inputs;
  for (const char* kind : {"corpus", "found"}) {
    const fs::path directory = fs::path(TESSARD_FUZZ_INPUTS) / kind / target;
    if (!fs::exists(directory)) continue;
    for (const auto& entry : fs::directory_iterator(directory)) inputs.push_back(entry.path());
  }
  std::ranges::sort(inputs);
  return inputs;
}

std::string contentOf(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void expectEveryPromiseKept(const std::string& name, Target target) {
  const auto inputs = inputsOf(name);
  EXPECT_GE(inputs.size(), 10U) << "kept inputs of " << name;
  for (const fs::path& input : inputs) {
    SCOPED_TRACE(input.string());
    try {
      target(contentOf(input));
    } catch (const BrokenPromise& broken) {
      ADD_FAILURE() << broken.what();
    }
  }
}

TEST(FuzzInputs, OfCertificatesBreakNothing) {
  expectEveryPromiseKept("certificates", fuzz::certificates);
}

TEST(FuzzInputs, OfTheHostFilterBreakNothing) {
  expectEveryPromiseKept("host_filter", fuzz::host_filter);
}

TEST(FuzzInputs, OfTheMasterFileBreakNothing) {
  expectEveryPromiseKept("master_file", fuzz::master_file);
}

TEST(FuzzInputs, OfPathLookupsBreakNothing) {
  expectEveryPromiseKept("path_lookup", fuzz::path_lookup);
}

TEST(FuzzInputs, OfPropertyListsBreakNothing) {
  expectEveryPromiseKept("property_lists", fuzz::property_lists);
}

TEST(FuzzInputs, OfRequestsBreakNothing) {
  expectEveryPromiseKept("requests", fuzz::requests);
}

TEST(FuzzInputs, OfXmlEditsBreakNothing) {
  expectEveryPromiseKept("xml_edits", fuzz::xml_edits);
}

}  // namespace
}  // namespace tessard
