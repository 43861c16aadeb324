// Reads the XML files that standard input names, a path a line, as component files are read, and prints a
// line for each: "accepted PATH", "refused CODE PATH" with an error code of XmlDocument, or "changed PATH"
// when the document is not written as it was read.

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "common/XmlDocument.h"

namespace {

std::string verdictOn(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file) return "unreadable";
  const auto document = tessard::XmlDocument::parse(bytes);
  if (!document) return "refused " + std::to_string(document.error().code());
  const auto written = document.value().serialize();
  return written && written.value() == bytes ? "accepted" : "changed";
}

}  // namespace

int main() {
  std::string path;
  while (std::getline(std::cin, path)) std::cout << verdictOn(path) << ' ' << path << '\n';
  return 0;
}
