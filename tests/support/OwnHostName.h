#pragma once

#include "platform/FileDescriptor.h"

namespace tessard {

/// While it exists, the thread that made it and the threads and programs that this one starts have a host
/// name of their own, at first the one from before. May be had where a `NetworkNamespace` may; whatever
/// cannot be done throws std::runtime_error, which fails the test.
class OwnHostName {
 public:
  OwnHostName();
  OwnHostName(const OwnHostName&) = delete;
  OwnHostName& operator=(const OwnHostName&) = delete;
  ~OwnHostName();

  void set(const char* name) const;

 private:
  FileDescriptor before_;
};

}  // namespace tessard
