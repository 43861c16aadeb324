#include "host/check/ReadOnlyDatabase.h"

#include <sqlite3.h>

#include <cerrno>
#include <fstream>
#include <utility>

#include "common/Text.h"

namespace tessard {

namespace {

// How many of SQLite's own steps are done between two looks at the time.
constexpr int kSteps = 1000;

// The places in the file's header that tell the journal's form, and the number of a write-ahead log.
constexpr std::size_t kHeaderSize = 20;
constexpr std::size_t kFormPlace = 18;
constexpr char kWriteAhead = 2;

struct Finishing {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

SystemError errorOf(sqlite3* database) {
  switch (sqlite3_errcode(database)) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_INTERRUPT:
    case SQLITE_READONLY:
    case SQLITE_CANTOPEN:
      return SystemError(EBUSY);
    default:
      return {0, sqlite3_errmsg(database)};
  }
}

bool isThere(const std::string& path) {
  return std::ifstream(path).good();
}

// "file:" with what it takes for special in it written as numbers.
std::string uriOf(const std::string& path, bool isImmutable) {
  std::string uri = replacingAll(path, "%", "%25");
  uri = replacingAll(replacingAll(uri, "?", "%3f"), "#", "%23");
  return "file:" + uri + (isImmutable ? "?mode=ro&immutable=1" : "?mode=ro");
}

int isLate(void* deadline) {
  return std::chrono::steady_clock::now() > *static_cast<std::chrono::steady_clock::time_point*>(deadline);
}

}  // namespace

void ReadOnlyDatabase::Closing::operator()(sqlite3* database) const {
  sqlite3_close_v2(database);
}

ReadOnlyDatabase::ReadOnlyDatabase(std::unique_ptr<sqlite3, Closing> database, Deadline deadline)
    : deadline_(std::make_unique<Deadline>(deadline)), database_(std::move(database)) {
  sqlite3_progress_handler(database_.get(), kSteps, isLate, deadline_.get());
}

Result<ReadOnlyDatabase> ReadOnlyDatabase::open(const std::string& path, std::chrono::milliseconds patience) {
  std::string header(kHeaderSize, '\0');
  std::ifstream(path).read(header.data(), static_cast<std::streamsize>(header.size()));
  // A reader of a write-ahead log makes an index beside it where there is none.
  const bool hasLog = header[kFormPlace] == kWriteAhead;
  if (hasLog && isThere(path + "-wal") && !isThere(path + "-shm")) return SystemError(EBUSY);
  sqlite3* opened = nullptr;
  const bool isImmutable = hasLog && !isThere(path + "-wal");
  const int status = sqlite3_open_v2(uriOf(path, isImmutable).c_str(), &opened,
                                     SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOFOLLOW, nullptr);
  std::unique_ptr<sqlite3, Closing> database(opened);
  if (!database) return SystemError(ENOMEM);
  if (status != SQLITE_OK) return errorOf(opened);
  sqlite3_busy_timeout(opened, static_cast<int>(patience.count()));
  return ReadOnlyDatabase(std::move(database), std::chrono::steady_clock::now() + patience);
}

Result<std::string> ReadOnlyDatabase::damage() {
  const auto said = firstColumn("PRAGMA quick_check(1)");
  if (!said) return said.error();
  if (said.value().empty() || said.value().contains("ok")) return std::string();
  return *said.value().begin();
}

Result<std::set<std::string>> ReadOnlyDatabase::tables() {
  return firstColumn("SELECT lower(name) FROM sqlite_master WHERE type = 'table'");
}

Result<std::set<std::string>> ReadOnlyDatabase::firstColumn(const char* statement) {
  sqlite3_stmt* prepared = nullptr;
  const int status = sqlite3_prepare_v2(database_.get(), statement, -1, &prepared, nullptr);
  const std::unique_ptr<sqlite3_stmt, Finishing> finishing(prepared);
  if (status != SQLITE_OK) return errorOf(database_.get());
  std::set<std::string> column;
  while (true) {
    const int step = sqlite3_step(prepared);
    if (step == SQLITE_DONE) return column;
    if (step != SQLITE_ROW) return errorOf(database_.get());
    const unsigned char* text = sqlite3_column_text(prepared, 0);
    if (text) column.insert(reinterpret_cast<const char*>(text));
  }
}

}  // namespace tessard
