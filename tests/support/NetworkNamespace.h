#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/FileDescriptor.h"

namespace tessard {

/// A network of a test's own, whose only interface at first is the loopback; nothing leads out of it. It ends
/// with this object and the sockets opened in it. Whatever cannot be done throws std::runtime_error, which
/// fails the test. For a test program's main thread alone.
class NetworkNamespace {
 public:
  /// Why this process cannot make one; absent when it can.
  static std::optional<std::string> whyImpossible();

  NetworkNamespace();

  /// Runs commands of a shell inside; throws with what they said when they fail. Answers their output.
  std::string shell(std::string_view commands) const;

  /// Makes the two ends of a cable, `name` in here and `otherName` in the other one; both are up.
  void connect(const std::string& name, const NetworkNamespace& other, const std::string& otherName) const;

  /// While it exists, the thread that made it is inside, with the sockets it opens and the programs it
  /// starts.
  class Stay {
   public:
    explicit Stay(const NetworkNamespace& inside);
    Stay(const Stay&) = delete;
    Stay& operator=(const Stay&) = delete;
    ~Stay();

   private:
    FileDescriptor before_;
  };

 private:
  FileDescriptor namespace_;
};

}  // namespace tessard
