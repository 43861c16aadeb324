#include "platform/keychain/Database.h"

#include <sqlite3.h>

#include "common/Format.h"

namespace tessard {

namespace {

constexpr int kPatienceMilliseconds = 10'000;

// Nothing in a keychain comes near it.
constexpr int kLongestValue = 16 * 1024 * 1024;

// SQLite's own sentences for its numbers: the ones with details could quote values.
KeychainError problemOf(int code) {
  const std::string text = fill("The keychain's database: %@", {sqlite3_errstr(code)});
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return {KeychainProblem::busy, "Another program keeps the keychain locked"};
    case SQLITE_FULL:
      return {KeychainProblem::full, "The disk is too full for a change of the keychain"};
    case SQLITE_READONLY:
      return {KeychainProblem::readOnly, "The keychain is on a disk that cannot be written"};
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_EMPTY:
    case SQLITE_MISMATCH:
      return {KeychainProblem::damaged, text};
    case SQLITE_AUTH:
    case SQLITE_PERM:
      return {KeychainProblem::notPermitted, text};
    case SQLITE_CONSTRAINT:
      return {KeychainProblem::duplicate, text};
    default:
      return {KeychainProblem::io, text};
  }
}

struct Finalizing {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalizing>;

int bind(sqlite3_stmt* statement, int place, const SqlInput& input) {
  if (const auto* number = std::get_if<std::int64_t>(&input)) {
    return sqlite3_bind_int64(statement, place, *number);
  }
  // The inputs outlive the statement. A null pointer would be no text but nothing at all.
  const auto pointerOf = [](std::string_view bytes) { return bytes.data() ? bytes.data() : ""; };
  if (const auto* text = std::get_if<std::string_view>(&input)) {
    return sqlite3_bind_text64(statement, place, pointerOf(*text), text->size(), SQLITE_STATIC, SQLITE_UTF8);
  }
  const std::string_view bytes = std::get<Blob>(input).bytes;
  return sqlite3_bind_blob64(statement, place, pointerOf(bytes), bytes.size(), SQLITE_STATIC);
}

SqlRow rowOf(sqlite3_stmt* statement) {
  SqlRow row;
  for (int column = 0; column < sqlite3_column_count(statement); ++column) {
    if (sqlite3_column_type(statement, column) == SQLITE_INTEGER) {
      row.cells.emplace_back(static_cast<std::int64_t>(sqlite3_column_int64(statement, column)));
      continue;
    }
    // Also the bytes of a text.
    const void* bytes = sqlite3_column_blob(statement, column);
    const int size = sqlite3_column_bytes(statement, column);
    row.cells.emplace_back(
        bytes ? std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size)) : std::string());
  }
  return row;
}

}  // namespace

std::int64_t SqlRow::number(std::size_t index) const {
  const auto* number = index < cells.size() ? std::get_if<std::int64_t>(&cells[index]) : nullptr;
  return number ? *number : 0;
}

std::string SqlRow::text(std::size_t index) const {
  const auto* text = index < cells.size() ? std::get_if<std::string>(&cells[index]) : nullptr;
  return text ? *text : std::string();
}

void Database::Closing::operator()(sqlite3* database) const {
  sqlite3_close_v2(database);
}

KeychainResult<Database> Database::open(const std::string& path) {
  sqlite3* opened = nullptr;
  const int code = sqlite3_open_v2(
      path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE, nullptr);
  Database database{std::unique_ptr<sqlite3, Closing>(opened)};
  if (code != SQLITE_OK) return problemOf(code);
  sqlite3_busy_timeout(opened, kPatienceMilliseconds);
  sqlite3_limit(opened, SQLITE_LIMIT_LENGTH, kLongestValue);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  // EXTRA is FULL, and flushes the directory too when the journal is gone: without it the last change could
  // be undone by a loss of power.
  for (const char* setting : {"PRAGMA synchronous = EXTRA", "PRAGMA secure_delete = ON",
                              "PRAGMA foreign_keys = ON", "PRAGMA temp_store = MEMORY"}) {
    if (auto set = database.run(setting); !set) return set.error();
  }
  return database;
}

KeychainResult<std::vector<SqlRow>> Database::run(std::string_view text,
                                                  std::initializer_list<SqlInput> inputs) {
  sqlite3_stmt* prepared = nullptr;
  int code =
      sqlite3_prepare_v2(database_.get(), text.data(), static_cast<int>(text.size()), &prepared, nullptr);
  const Statement statement(prepared);
  if (code != SQLITE_OK) return problemOf(code);
  int place = 0;
  for (const SqlInput& input : inputs) {
    if (code = bind(prepared, ++place, input); code != SQLITE_OK) return problemOf(code);
  }
  std::vector<SqlRow> rows;
  while ((code = sqlite3_step(prepared)) == SQLITE_ROW) rows.push_back(rowOf(prepared));
  if (code != SQLITE_DONE) return problemOf(code);
  return rows;
}

std::int64_t Database::lastRow() const {
  return sqlite3_last_insert_rowid(database_.get());
}

int Database::changedRows() const {
  return sqlite3_changes(database_.get());
}

}  // namespace tessard
