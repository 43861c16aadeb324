#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>

#include "common/Result.h"

struct sqlite3;

namespace tessard {

/// A SQLite file that others may be using, opened so that nothing beside it is made or changed.
class ReadOnlyDatabase {
 public:
  /// `path` is one of the machine without links. What takes longer than `patience` in all is given up: as
  /// long as it reads, nobody else's writes get through. EBUSY for what cannot be read without a change, and
  /// for what others have locked; code 0 with a text for what is no database.
  static Result<ReadOnlyDatabase> open(const std::string& path, std::chrono::milliseconds patience);

  /// What the database finds wrong in itself; empty when it is sound. EBUSY as above.
  Result<std::string> damage();
  /// The names of its tables, in small letters.
  Result<std::set<std::string>> tables();

 private:
  struct Closing {
    void operator()(sqlite3* database) const;
  };
  using Deadline = std::chrono::steady_clock::time_point;

  ReadOnlyDatabase(std::unique_ptr<sqlite3, Closing> database, Deadline deadline);
  Result<std::set<std::string>> firstColumn(const char* statement);

  std::unique_ptr<Deadline> deadline_;  // before the database, which looks at it
  std::unique_ptr<sqlite3, Closing> database_;
};

}  // namespace tessard
