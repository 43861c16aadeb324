#pragma once

#include <atomic>
#include <cstdio>
#include <thread>

#include "tests/support/ScratchRoot.h"

namespace tessard {

/// A directory "/other" that has another name all the time, as long as this is there.
class RestlessDirectory {
 public:
  explicit RestlessDirectory(const ScratchRoot& root) {
    root.makeDirectory("/other");
    renaming_ = std::thread([this, one = root.hostPath("/other"), another = root.hostPath("/another")] {
      while (!done_) {
        std::rename(one.c_str(), another.c_str());
        std::rename(another.c_str(), one.c_str());
      }
    });
  }
  RestlessDirectory(const RestlessDirectory&) = delete;
  RestlessDirectory& operator=(const RestlessDirectory&) = delete;
  ~RestlessDirectory() {
    done_ = true;
    renaming_.join();
  }

 private:
  std::atomic<bool> done_ = false;
  std::thread renaming_;
};

}  // namespace tessard
