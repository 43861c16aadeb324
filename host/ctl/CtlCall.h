#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Value.h"
#include "host/ctl/CtlArguments.h"
#include "host/ctl/CtlOutput.h"
#include "host/ctl/ServiceWatch.h"
#include "host/ctl/UnixHttpClient.h"

namespace tessard {

/// One call of tessardctl on its way to an exit code: what the verbs have in common. Exit codes are those of
/// sysexits; whatever gives one has told the failure.
class CtlCall {
 public:
  using Words = std::vector<std::string>;
  /// What is left to do with an answer that holds no error.
  using Finish = std::function<int(const Dictionary& answer)>;

  /// Both are borrowed.
  CtlCall(const CtlArguments& arguments, const CtlOutput& output);

  const CtlArguments& arguments() const { return arguments_; }
  const CtlOutput& output() const { return output_; }
  ServiceWatch& watch() { return watch_; }

  /// Shows the progress of the services' parts while an answer is awaited.
  void showParts() { showsParts_ = true; }
  /// From here on a daemon that is gone is waited for: `pause` is called between two attempts, until it is
  /// false, which ends the request with exit code 0.
  void outlastDaemon(std::function<bool()> pause) { pause_ = std::move(pause); }
  /// Whether the request that was sent last has logged an error.
  bool errorLogged() const { return errorLogged_; }

  int usage(const std::string& problem) const;
  /// "There is no verb ...", with the one that may be meant.
  int unknownVerb(const std::string& verb) const;
  /// Ends a call that was answered, with errors that were logged and shown.
  int tellErrorsLogged() const;

  /// Sends a request to the plug-in, shows the lines that it logged, and finishes with its answer.
  int send(Dictionary request, const Finish& finish);
  /// The dictionary that the daemon itself answers; absent, with the exit code, when there is none.
  std::optional<Dictionary> exchange(const std::string& method, const std::string& path,
                                     const std::string& body, int& exitCode);
  /// The same, but an error answer whose id is `expected` is the caller's to deal with: `id` has it then.
  std::optional<Dictionary> exchange(const std::string& method, const std::string& path,
                                     const std::string& body, std::string_view expected, std::string& id,
                                     int& exitCode);

  /// The same whatever its status is, which is told.
  std::optional<Dictionary> answerOf(const std::string& method, const std::string& path,
                                     const std::string& body, int& status, int& exitCode);
  /// Tells the failure that an answer of another status than 200 stands for.
  int hostFailure(int status, const Dictionary& answer) const;

  /// The text that the daemon itself answers, whatever form it has; absent as above.
  std::optional<std::string> textAt(const std::string& path, int& exitCode);

  /// Shows the lines that a request logged; true when one of them is an error.
  bool showLog(const Dictionary& wrapped);
  /// "key: value" for each entry, or the JSON document.
  int printEntries(const Dictionary& answer) const;
  /// Ends a call that was answered with nothing because service data does not exist: `what` is a sentence's
  /// beginning, such as "There is no list yet".
  int beforeSetup(const std::string& what) const;

 private:
  void showWaiting(int seconds);
  std::optional<ClientReply> replyTo(const std::string& method, const std::string& path,
                                     const std::string& body, int& exitCode);
  int pluginFailure(const Dictionary& answer) const;

  const CtlArguments& arguments_;
  const CtlOutput& output_;
  UnixHttpClient client_;
  ServiceWatch watch_;
  std::function<bool()> pause_;
  bool showsParts_ = false;
  bool errorLogged_ = false;
  std::string errors_;  // that the request has logged
};

/// The exit code of a failure that the daemon answers with this HTTP status and id.
int exitCodeFor(int status, const std::string& id);

/// The string under a key, or another text.
std::string textFor(const Dictionary& dictionary, std::string_view key, const std::string& otherwise);

}  // namespace tessard
