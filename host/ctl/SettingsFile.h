#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/Result.h"
#include "common/Value.h"

namespace tessard {

/// The forms of a file with settings.
enum class SettingsForm { yaml, json, propertyList };

/// "yaml", "json" or "plist"; absent for other words.
std::optional<SettingsForm> settingsFormNamed(std::string_view name);

/// A dictionary out of a text in one of the forms, told by how it begins: a property list, XML or binary; a
/// JSON object; or else YAML. In YAML plain true, yes, false and no are booleans, plain digits integers, and
/// everything else is text. Fails with a sentence, code 0.
Result<Dictionary> parseSettingsText(std::string_view text);

/// The same from a file of this machine, "-" for standard input, of at most 16 MiB. A file that cannot be
/// read fails with its error.
Result<Dictionary> readSettingsFile(const std::string& path);

/// The text that `parseSettingsText` reads back as the same. Fails when the form cannot hold the value.
Result<std::string> settingsText(const Dictionary& settings, SettingsForm form);

}  // namespace tessard
