#pragma once

#include <string>
#include <vector>

#include "common/Result.h"
#include "common/Value.h"

namespace tessard {

/// Settings from words of a command line:
///   KEY=true, KEY=yes, KEY=false, KEY=no   a boolean
///   KEY=5218                               an integer (no sign but "-", no leading zeros)
///   KEY=[a, b]                             a list of such values; KEY=[] is the empty one
///   KEY="text"                             a JSON string: text, whatever it looks like
///   KEY=text                               everything else is text as it stands
///   KEY+=VALUE                             one more element of a list, which begins empty
///   KEY:=JSON                              any JSON value, see `parseJson`
/// Fails with a sentence on a word of another form, and on a key that is set twice.
Result<Dictionary> parseSettings(const std::vector<std::string>& words);

/// The word for `parseSettings` that gives the setting back.
std::string settingAsWord(const std::string& key, const Value& value);

}  // namespace tessard
