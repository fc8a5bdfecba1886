#include "phone/sqlite_writer.h"

#include <optional>

#include "phone/random.h"

namespace morvane::phone {
namespace {

class Binder {
 public:
  Binder(sqlite3_stmt* statement, int index) : statement_(statement), index_(index) {}
  void operator()(std::monostate) const { sqlite3_bind_null(statement_, index_); }
  void operator()(std::int64_t value) const { sqlite3_bind_int64(statement_, index_, value); }
  void operator()(std::string_view text) const {
    const int size = static_cast<int>(text.size());
    sqlite3_bind_text(statement_, index_, text.data(), size, SQLITE_STATIC);
  }
  void operator()(Bytes bytes) const {
    const int size = static_cast<int>(bytes.value.size());
    sqlite3_bind_blob(statement_, index_, bytes.value.data(), size, SQLITE_STATIC);
  }

 private:
  sqlite3_stmt* statement_;
  int index_;
};

// The default file layer with one method exchanged.
sqlite3_vfs seededVfs;
std::optional<Random> seededSource;

int seededBytes(sqlite3_vfs*, int count, char* out) {
  const std::string bytes = seededSource->bytes(static_cast<std::size_t>(count));
  bytes.copy(out, bytes.size());
  return count;
}

}  // namespace

Result SqliteWriter::open(const std::string& path, Log log) {
  path_ = path;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW;
  if (sqlite3_open_v2(path.c_str(), &handle_, flags, nullptr) != SQLITE_OK) return failed("open");
  sqlite3_busy_timeout(handle_, 1000);
  // A phone that a crash spoils is made again.
  if (Result r = run("PRAGMA synchronous = OFF"); !r) return r;
  if (log == Log::merged) return run("PRAGMA journal_mode = MEMORY");
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  return run("PRAGMA journal_mode = WAL");
}

Result SqliteWriter::run(std::string_view sql, std::initializer_list<SqlValue> values) {
  sqlite3_stmt* statement = nullptr;
  const int size = static_cast<int>(sql.size());
  if (sqlite3_prepare_v2(handle_, sql.data(), size, &statement, nullptr) != SQLITE_OK) {
    return failed("prepare a statement for");
  }
  int index = 0;
  for (const SqlValue& value : values)
    std::visit(Binder(statement, ++index), value);
  int result = SQLITE_ROW;
  while (result == SQLITE_ROW)
    result = sqlite3_step(statement);
  sqlite3_finalize(statement);
  return result == SQLITE_DONE ? Result() : failed("write");
}

Result SqliteWriter::failed(std::string_view action) const {
  // What is behind "disk I/O error" is more to the point.
  if ((sqlite3_errcode(handle_) & 0xff) == SQLITE_IOERR && sqlite3_system_errno(handle_) != 0) {
    return Result::failed(action, path_, sqlite3_system_errno(handle_));
  }
  return Result::failed("cannot " + std::string(action) + " " + path_ + ": " +
                        sqlite3_errmsg(handle_));
}

SeededSqlite::SeededSqlite(std::uint64_t seed) {
  seededSource.emplace(seed, "SQLite");
  seededVfs = *sqlite3_vfs_find(nullptr);
  seededVfs.zName = "seeded";
  seededVfs.xRandomness = seededBytes;
  sqlite3_vfs_register(&seededVfs, 1);
  sqlite3_randomness(0, nullptr);  // forgets what it was seeded with
}

SeededSqlite::~SeededSqlite() {
  sqlite3_vfs_unregister(&seededVfs);
  sqlite3_randomness(0, nullptr);
}

}  // namespace morvane::phone
