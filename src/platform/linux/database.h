#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>

namespace morvane::platform {

/// Why a database could not answer.
enum class DatabaseState { good, absent, locked, unreadable, damaged };

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

/// One existing SQLite file of the phone, opened as something that may have been tampered with: no
/// extension, trigger or view runs, nothing is created, a lock is waited for only briefly, and a
/// statement that does not come to an end is ended.
class Database {
 public:
  enum class Access { read, write };

  Database() = default;
  ~Database() { sqlite3_close_v2(handle_); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// Opens the regular file at `path` (never through a link).
  [[nodiscard]] DatabaseState open(const char* path, Access access);

  /// Compiles the one statement `sql`; null when it does not fit the database, and state() says
  /// why.
  [[nodiscard]] Statement prepare(std::string_view sql);

  /// Runs `statement` up to its next row: true when there is one. state() tells the end of the rows
  /// from a failure.
  [[nodiscard]] bool nextRow(const Statement& statement);

  /// Runs the one statement `sql`, without parameters or rows.
  [[nodiscard]] bool run(std::string_view sql);

  /// How many rows the last statement inserted, changed or deleted.
  [[nodiscard]] int changedRows() const { return sqlite3_changes(handle_); }

  /// `good` unless a call failed; then why the last failing one did.
  [[nodiscard]] DatabaseState state() const { return state_; }

 private:
  [[nodiscard]] DatabaseState harden();
  bool note(int result);

  sqlite3* handle_ = nullptr;
  DatabaseState state_ = DatabaseState::absent;
};

/// Gives parameter `index` of `statement` the text `value`, which must outlive the statement's run.
void bindText(const Statement& statement, int index, std::string_view value);

/// The text in `column` of the current row; false where it holds anything but a text.
[[nodiscard]] bool columnText(const Statement& statement, int column, std::string& text);

}  // namespace morvane::platform
