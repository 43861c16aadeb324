#include "platform/DirectoryBundles.h"

#include <cerrno>
#include <utility>

#include "common/FileSystem.h"
#include "common/PropertyList.h"

namespace tessard {

namespace {

constexpr std::string_view kIdentifierKey = "CFBundleIdentifier";
constexpr std::string_view kExecutableKey = "CFBundleExecutable";

bool isFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

std::optional<SystemError> problemWith(const Dictionary& information, const std::string& file) {
  for (const std::string_view key : {kIdentifierKey, kExecutableKey}) {
    const std::string* text = information.stringFor(key);
    if (text && !text->empty()) continue;
    return SystemError(0, file + " has no text under \"" + std::string(key) + "\"");
  }
  if (isFileName(*information.stringFor(kExecutableKey))) return std::nullopt;
  return SystemError(0, file + " names under \"" + std::string(kExecutableKey) + "\" what is no file name");
}

}  // namespace

DirectoryBundle::DirectoryBundle(FileSystem& files, std::string path, Dictionary information)
    : files_(files), path_(std::move(path)), information_(std::move(information)) {}

const std::string& DirectoryBundle::identifier() const {
  return *information_.stringFor(kIdentifierKey);
}

std::string DirectoryBundle::executablePath() const {
  return path_ + "/Contents/Linux/" + *information_.stringFor(kExecutableKey);
}

std::optional<std::string> DirectoryBundle::pathForResource_ofType(std::string_view name,
                                                                   std::string_view type) {
  std::string file(name);
  if (!type.empty()) file.append(".").append(type);
  if (!isFileName(name) || !isFileName(file)) return std::nullopt;
  std::string path = path_ + "/Contents/Resources/" + file;
  const Result<FileAttributes> attributes = files_.attributes(path);
  const bool isThere =
      attributes ? attributes.value().kind == FileAttributes::Kind::regular : mayPass(attributes.error());
  return isThere ? std::optional(path) : std::nullopt;
}

Result<DirectoryBundle*> DirectoryBundles::add(std::string_view directory) {
  while (directory.size() > 1 && directory.ends_with('/')) directory.remove_suffix(1);
  const std::string file = std::string(directory) + "/Contents/Info.plist";
  Result<Dictionary> information = readPropertyListFile(files_, file);
  if (!information) return information.error();
  if (const auto problem = problemWith(information.value(), file)) return *problem;

  auto bundle =
      std::make_unique<DirectoryBundle>(files_, std::string(directory), std::move(information).value());
  if (bundleWithIdentifier(bundle->identifier())) {
    return SystemError(EEXIST, "a bundle \"" + bundle->identifier() + "\" is loaded already");
  }
  return bundles_.emplace_back(std::move(bundle)).get();
}

Bundle* DirectoryBundles::bundleWithIdentifier(std::string_view identifier) {
  for (const auto& bundle : bundles_) {
    if (bundle->identifier() == identifier) return bundle.get();
  }
  return nullptr;
}

}  // namespace tessard
