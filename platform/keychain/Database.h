#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/keychain/KeychainResult.h"

struct sqlite3;

namespace tessard {

/// Bytes for a statement, as against a text.
struct Blob {
  std::string_view bytes;
};

using SqlInput = std::variant<std::int64_t, std::string_view, Blob>;

/// What a statement answers in one row.
struct SqlRow {
  std::vector<std::variant<std::int64_t, std::string>> cells;

  std::int64_t number(std::size_t index) const;  ///< 0 for a text or bytes
  std::string text(std::size_t index) const;     ///< empty for a number
};

/// One SQLite file, opened for one piece of work. Other processes that use it are waited for, 10 seconds at
/// most. Every change is on disk when its transaction has ended.
class Database {
 public:
  /// An existing file; `path` is one of the machine without links.
  static KeychainResult<Database> open(const std::string& path);

  /// One statement with its inputs in the order of its question marks. Answers all rows.
  KeychainResult<std::vector<SqlRow>> run(std::string_view statement,
                                          std::initializer_list<SqlInput> inputs = {});
  /// The number of the row that was put in last.
  std::int64_t lastRow() const;
  /// How many rows the last change has changed.
  int changedRows() const;

 private:
  struct Closing {
    void operator()(sqlite3* database) const;
  };

  explicit Database(std::unique_ptr<sqlite3, Closing> database) : database_(std::move(database)) {}

  std::unique_ptr<sqlite3, Closing> database_;
};

}  // namespace tessard
