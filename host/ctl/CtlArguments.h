#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Result.h"

namespace tessard {

/// What a person asks of tessardctl.
struct CtlArguments {
  std::vector<std::string> words;  ///< the verb and what belongs to it, without options
  std::string socketPath = "/run/tessardd/tessardd.sock";
  std::string plugin = "notification";
  std::optional<std::string> file;              ///< of --file
  std::optional<std::string> output;            ///< of --output
  std::optional<std::string> lines;             ///< of --lines, as it was given
  std::vector<std::string> texts{};             ///< of every --text
  std::vector<std::string> components{};        ///< of every --component
  std::optional<std::string> level;             ///< of --level
  std::optional<std::string> since;             ///< of --since
  std::optional<std::string> format;            ///< of --format
  std::optional<std::string> only;              ///< of --only
  std::optional<std::string> timeout;           ///< of --timeout, as it was given
  std::optional<std::string> certificate;       ///< of --certificate
  std::optional<std::string> key;               ///< of --key
  std::optional<std::string> chain;             ///< of --chain
  std::optional<std::string> pkcs12;            ///< of --pkcs12
  std::optional<std::string> fromCertbot;       ///< of --from-certbot
  std::optional<std::string> passPhraseFile;    ///< of --passphrase-file
  std::optional<std::string> passPhraseNumber;  ///< of --passphrase-fd, as it was given
  bool showSecrets = false;
  bool force = false;
  bool check = false;
  bool follow = false;
  bool list = false;
  bool json = false;
  bool details = false;
  bool help = false;
  bool version = false;
};

/// Options may stand anywhere; "--" ends them. Fails with a sentence on an unknown option or a missing value;
/// `json` says whether --json was among the arguments nevertheless.
Result<CtlArguments> parseCtlArguments(const std::vector<std::string>& arguments, bool& json);

/// The text of --help: all of it, or what belongs to the verb that the words begin with, and ends with an
/// example. All of it also for words that are no verb.
std::string ctlHelp(const std::vector<std::string>& words);

/// Every verb, with its second word where it has one.
std::vector<std::string_view> ctlVerbs();

}  // namespace tessard
