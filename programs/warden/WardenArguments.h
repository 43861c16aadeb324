#pragma once

#include <string>
#include <vector>

#include "common/Result.h"

namespace tessard {

/// What is asked of keywarden.
struct WardenArguments {
  std::vector<std::string> words;  ///< the verb and what belongs to it, without options
  std::string root = "/";
  bool json = false;
  bool identity = false;          ///< of --identity
  bool askForPassPhrase = false;  ///< --get-private-key-passphrase stood in the verb's place
  bool help = false;
  bool version = false;
};

/// Options may stand anywhere; "--" ends them. `rootByDefault` counts where no --root is given; empty is "/".
/// Fails with a sentence on an unknown option or a missing value; `json` says whether --json was among the
/// arguments nevertheless.
Result<WardenArguments> parseWardenArguments(const std::vector<std::string>& arguments,
                                             const std::string& rootByDefault, bool& json);

/// The text of --help.
std::string wardenHelp();

}  // namespace tessard
