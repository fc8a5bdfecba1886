#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>

#include "phone/result.h"

namespace morvane::phone {

struct Bytes {
  explicit Bytes(std::string_view bytes) : value(bytes) {}
  std::string_view value;
};
/// A value bound to a statement: nothing (NULL), a number, a text or bytes.
using SqlValue = std::variant<std::monostate, std::int64_t, std::string_view, Bytes>;

/// Makes or changes an SQLite file of a phone.
class SqliteWriter {
 public:
  /// What stays of a write-ahead log at the end: nothing, or the log and its index as beside the
  /// databases of a running app.
  enum class Log { merged, kept };

  SqliteWriter() = default;
  ~SqliteWriter() { sqlite3_close_v2(handle_); }
  SqliteWriter(const SqliteWriter&) = delete;
  SqliteWriter& operator=(const SqliteWriter&) = delete;

  /// Opens the file at `path`, making it when it is not there.
  Result open(const std::string& path, Log log = Log::merged);
  /// Runs the one statement `sql` with its parameters in order.
  Result run(std::string_view sql, std::initializer_list<SqlValue> values = {});

 private:
  Result failed(std::string_view action) const;

  std::string path_;
  sqlite3* handle_ = nullptr;
};

/// While one lives, what SQLite draws at random (the salts of its logs) comes from `seed`.
class SeededSqlite {
 public:
  explicit SeededSqlite(std::uint64_t seed);
  ~SeededSqlite();
  SeededSqlite(const SeededSqlite&) = delete;
  SeededSqlite& operator=(const SeededSqlite&) = delete;
};

}  // namespace morvane::phone
