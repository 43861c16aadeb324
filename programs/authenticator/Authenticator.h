#pragma once

#include <array>
#include <functional>
#include <string>
#include <string_view>

#include "programs/authenticator/PipeRequest.h"
#include "programs/authenticator/SaslauthdClient.h"

namespace tessard {

/// Answers the questions of c2s, one after the other: c2s waits for each answer, and its clients with it.
class Authenticator {
 public:
  /// Takes one sentence for the system log.
  using Say = std::function<void(const std::string&)>;

  /// `saslauthd` must outlive this object.
  Authenticator(const SaslauthdClient& saslauthd, Say say);

  /// Serves c2s, which writes to `questions` and reads `answers`, until it ends or says that it goes. Fails
  /// when the descriptors do not work.
  Result<void> serve(int questions, int answers);

 private:
  /// What one write of c2s asks for; empty when it goes.
  std::string_view answerTo(std::string_view written);
  bool userExists(const std::string& name);
  bool passwordIsRight(const PipeRequest& request);

  const SaslauthdClient& saslauthd_;
  Say say_;
  bool saslauthdFailed_ = false;
};

}  // namespace tessard
