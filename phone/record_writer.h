#pragma once

#include <string>

#include "phone/sqlite_writer.h"
#include "platform/app_record.h"

namespace morvane::phone {

inline constexpr const char* kRecordsPath = "/var/db/records.db";

/// Puts application records into a phone's store of them.
class RecordWriter {
 public:
  /// Opens the store at `path`, making it empty when it is not there.
  Result open(const std::string& path);

  /// Sets the record of the app `identifier`, in place of an older one. What `record` lacks, the
  /// store will not answer.
  Result put(const std::string& identifier, const platform::AppRecord& record);

  /// Takes the record of the app `identifier` away.
  Result remove(const std::string& identifier);

 private:
  SqliteWriter file_;
};

}  // namespace morvane::phone
