#pragma once

namespace tessard {

/// While one lives, memory that this thread gives back is wiped first, and at its end the stack below: what a
/// client has sent, pass phrases among it, does not stay behind. For the heap, OpenSSL's among it, it needs
/// what is in WipedMemory_main.cpp, which tessardd has; other programs, and the sanitizers, keep their own.
class WipedMemory {
 public:
  WipedMemory();
  WipedMemory(const WipedMemory&) = delete;
  WipedMemory& operator=(const WipedMemory&) = delete;
  ~WipedMemory();

  /// On this thread.
  static bool isWanted();
};

}  // namespace tessard
