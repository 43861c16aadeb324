#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/Bundles.h"

namespace tessard {

/// A bundle as a test fills it.
class FakeBundle : public Bundle {
 public:
  Dictionary info;
  /// Paths of resources by file name ("check_user_access", "defaultConfig.plist").
  std::map<std::string, std::string, std::less<>> resources;

  const Dictionary& infoDictionary() override { return info; }

  std::optional<std::string> pathForResource_ofType(std::string_view name, std::string_view type) override {
    std::string file(name);
    if (!type.empty()) file += "." + std::string(type);
    const auto found = resources.find(file);
    return found == resources.end() ? std::nullopt : std::optional(found->second);
  }
};

/// Loaded bundles: none until a test adds one.
class FakeBundles : public Bundles {
 public:
  /// The bundle of the identifier, made when it is new.
  FakeBundle& add(std::string_view identifier) {
    auto& bundle = bundles_[std::string(identifier)];
    if (!bundle) bundle = std::make_unique<FakeBundle>();
    return *bundle;
  }

  Bundle* bundleWithIdentifier(std::string_view identifier) override {
    const auto found = bundles_.find(identifier);
    return found == bundles_.end() ? nullptr : found->second.get();
  }

 private:
  std::map<std::string, std::unique_ptr<FakeBundle>, std::less<>> bundles_;
};

}  // namespace tessard
