#pragma once

#include <chrono>
#include <string>

#include "common/Result.h"

namespace tessard {

/// Makes way for a change of the account files in the open directory: waits until no other program holds the
/// lock file of one of them ("passwd.lock", which holds the number of its process) or, for root, the
/// machine's lock, and is about to make a lock file. Removes lock files that nobody can hold any longer:
/// those of processes that have ended, of this process and the one that started it, and from before the
/// machine was started. EBUSY, naming who is in the way, when it takes longer than `patience`.
Result<void> awaitAccountLocks(int directory, std::chrono::milliseconds patience);

}  // namespace tessard
