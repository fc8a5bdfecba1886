#include "platform/linux/database.h"

#include <sys/stat.h>

#include <cerrno>

namespace morvane::platform {
namespace {

constexpr int kLockWaitMilliseconds = 250;

// A statement on a keychain takes some ten steps of SQLite's machine for each item. Pages that
// refer to each other over and over can make a small file look like one of more items than there
// are atoms.
constexpr int kStepsBetweenChecks = 1'000'000;
constexpr int kMostChecks = 20;

int countCheck(void* checks) {
  return ++*static_cast<int*>(checks) > kMostChecks ? 1 : 0;
}

DatabaseState stateOf(int result) {
  switch (result & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return DatabaseState::good;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return DatabaseState::locked;
    case SQLITE_CANTOPEN:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
    case SQLITE_PERM:
    case SQLITE_READONLY:
      return DatabaseState::unreadable;
    default:
      return DatabaseState::damaged;
  }
}

}  // namespace

DatabaseState Database::open(const char* path, Access access) {
  // SQLite would open anything that opens: what is no file must not get that far.
  struct stat status = {};
  if (lstat(path, &status) != 0) {
    state_ =
        errno == ENOENT || errno == ENOTDIR ? DatabaseState::absent : DatabaseState::unreadable;
    return state_;
  }
  if (!S_ISREG(status.st_mode)) return state_ = DatabaseState::damaged;
  const int mode = access == Access::read ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
  const int flags = mode | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
  if (!note(sqlite3_open_v2(path, &handle_, flags, nullptr))) return state_;
  return state_ = harden();
}

// The list is the one of https://www.sqlite.org/security.html for files from elsewhere.
DatabaseState Database::harden() {
  sqlite3_busy_timeout(handle_, kLockWaitMilliseconds);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
  if (!run("PRAGMA cell_size_check = ON")) return state_;
  if (!run("PRAGMA mmap_size = 0")) return state_;
  return DatabaseState::good;
}

Statement Database::prepare(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  note(sqlite3_prepare_v2(handle_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr));
  return Statement(statement);
}

bool Database::nextRow(const Statement& statement) {
  int checks = 0;
  sqlite3_progress_handler(handle_, kStepsBetweenChecks, countCheck, &checks);
  const int result = sqlite3_step(statement.get());
  sqlite3_progress_handler(handle_, 0, nullptr, nullptr);
  return note(result) && result == SQLITE_ROW;
}

bool Database::run(std::string_view sql) {
  const Statement statement = prepare(sql);
  if (statement == nullptr) return false;
  while (nextRow(statement)) {
  }
  return state_ == DatabaseState::good;
}

bool Database::note(int result) {
  state_ = stateOf(result);
  return state_ == DatabaseState::good;
}

void bindText(const Statement& statement, int index, std::string_view value) {
  sqlite3_bind_text(statement.get(), index, value.data(), static_cast<int>(value.size()),
                    SQLITE_STATIC);
}

bool columnText(const Statement& statement, int column, std::string& text) {
  if (sqlite3_column_type(statement.get(), column) != SQLITE_TEXT) return false;
  const unsigned char* bytes = sqlite3_column_text(statement.get(), column);
  if (bytes == nullptr) return false;  // out of memory
  const int length = sqlite3_column_bytes(statement.get(), column);
  text.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
  return true;
}

}  // namespace morvane::platform
