#include <array>
#include <cerrno>

#include "atoms/JabberServiceAtom.h"
#include "common/DurableReplace.h"
#include "common/Format.h"
#include "common/Text.h"
#include "common/Utf8.h"
#include "config/JabberPaths.h"

namespace tessard {

namespace {

constexpr std::array<const char*, 5> kTemplates = {"router.xml", "router-users.xml", "sm.xml", "c2s.xml",
                                                   "s2s.xml"};
constexpr std::size_t kTemplateSizeLimit = 16UL * 1024 * 1024;
constexpr std::size_t kPasswordLength = 15;

// The second J belongs to the alphabet.
constexpr std::string_view kPasswordAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZJabcdefghijklmnopqrstuvwxyz0123456789"
    "`~!#$%^*()-=_+[]\\|;':\",./?{}";
static_assert(kPasswordAlphabet.size() == 91);

struct FilledTemplate {
  std::string path;
  std::string text;
  bool changed;
};

Result<std::string> readText(FileSystem& files, const std::string& path) {
  auto bytes = files.readFile(path, kTemplateSizeLimit);
  if (bytes && !isUtf8(bytes.value())) return SystemError(EILSEQ, "not UTF-8 text");
  return bytes;
}

}  // namespace

std::string NOTIFICATION_PLUGIN_JabberServiceAtom::newRandomPassword() {
  std::string password;
  while (password.size() < kPasswordLength) {
    password += kPasswordAlphabet[platform().random.arc4random() % kPasswordAlphabet.size()];
    // The components expand "${name}" in their files, and an unknown name stops their start: draw again.
    if (password.size() == kPasswordLength && password.find("${") != std::string::npos) password.clear();
  }
  return password;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::initializeServiceConfigurations() {
  const auto host = owner().currentHostDomain();
  if (!host) {
    logError_source("cannot fill the component templates: the host name is not known", "");
    return false;
  }
  const std::string password = newRandomPassword();
  std::vector<FilledTemplate> filled;
  for (const char* name : kTemplates) {
    const std::string path = fill("%@/%@", {kJabberConfigDirectory, name});
    auto text = readText(platform().files, path);
    if (!text) {
      logError_source(fill("Failed to load %@ (error = %@)", {path, text.error().description()}), "");
      return false;
    }
    const std::string named = replacingAll(text.value(), "@HOSTNAME@", *host);
    std::string complete = replacingAll(named, "@ROUTERPASSWORD@", password);
    const bool changed = complete != text.value();
    filled.push_back({path, std::move(complete), changed});
  }
  for (const FilledTemplate& file : filled) {
    const auto written =
        file.changed ? writeAtomically(platform().files, file.path, file.text, kConfigurationFileOwnership)
                     : Result<void>();
    if (!written) {
      logError_source(
          fill("error saving configuration file: \"%@\" : %@", {file.path, written.error().description()}),
          "");
      return false;
    }
    const auto owned = platform().files.setOwnership(file.path, kConfigurationFileOwnership);
    if (!owned) {
      logError_source(fill("setting permissions of config failed: '%@'", {owned.error().description()}), "");
    }
  }
  return true;
}

}  // namespace tessard
