#include "phone/keychain_writer.h"

#include "phone/random.h"

namespace morvane::phone {
namespace {

// The columns of the phone's tables that tell items apart or that anyone asks for. Values are
// encrypted there; here they are noise.
constexpr std::string_view kSchema[] = {
    "CREATE TABLE IF NOT EXISTS genp (rowid INTEGER PRIMARY KEY AUTOINCREMENT, cdat REAL, mdat "
    "REAL,"
    " labl BLOB, acct BLOB NOT NULL DEFAULT '', svce BLOB NOT NULL DEFAULT '', data BLOB,"
    " agrp TEXT NOT NULL, pdmn TEXT, sync INTEGER NOT NULL DEFAULT 0,"
    " UNIQUE (acct, svce, agrp, sync))",
    "CREATE TABLE IF NOT EXISTS inet (rowid INTEGER PRIMARY KEY AUTOINCREMENT, cdat REAL, mdat "
    "REAL,"
    " labl BLOB, acct BLOB NOT NULL DEFAULT '', srvr BLOB NOT NULL DEFAULT '', data BLOB,"
    " agrp TEXT NOT NULL, pdmn TEXT, sync INTEGER NOT NULL DEFAULT 0,"
    " UNIQUE (acct, srvr, agrp, sync))",
    "CREATE TABLE IF NOT EXISTS cert (rowid INTEGER PRIMARY KEY AUTOINCREMENT, cdat REAL, mdat "
    "REAL,"
    " labl BLOB, issr BLOB NOT NULL DEFAULT '', slnr BLOB NOT NULL DEFAULT '', pkhh BLOB, data "
    "BLOB,"
    " agrp TEXT NOT NULL, pdmn TEXT, sync INTEGER NOT NULL DEFAULT 0,"
    " UNIQUE (issr, slnr, agrp, sync))",
    "CREATE TABLE IF NOT EXISTS keys (rowid INTEGER PRIMARY KEY AUTOINCREMENT, cdat REAL, mdat "
    "REAL,"
    " kcls INTEGER NOT NULL DEFAULT 0, labl BLOB, klbl BLOB NOT NULL DEFAULT '', data BLOB,"
    " agrp TEXT NOT NULL, pdmn TEXT, sync INTEGER NOT NULL DEFAULT 0,"
    " UNIQUE (kcls, klbl, agrp, sync))"};

constexpr std::int64_t kPublicKey = 0;   // kSecAttrKeyClassPublic
constexpr std::int64_t kPrivateKey = 1;  // kSecAttrKeyClassPrivate

constexpr std::string_view kAddPassword =
    " (cdat, mdat, labl, acct, svce, data, agrp, pdmn) VALUES (0, 0, ?1, ?1, ?2, ?3, ?4, 'ck')";
constexpr std::string_view kAddCertificate =
    "INSERT INTO cert (cdat, mdat, labl, issr, slnr, pkhh, data, agrp, pdmn)"
    " VALUES (0, 0, ?1, 'CN=Morvane', ?1, ?2, ?3, ?4, 'ck')";
constexpr std::string_view kAddKey =
    "INSERT INTO keys (cdat, mdat, labl, kcls, klbl, data, agrp, pdmn)"
    " VALUES (0, 0, ?1, ?2, ?3, ?4, ?5, 'ck')";

}  // namespace

Result KeychainWriter::open(const std::string& path) {
  if (Result r = file_.open(path); !r) return r;
  for (const std::string_view sql : kSchema) {
    if (Result r = file_.run(sql); !r) return r;
  }
  return {};
}

Result KeychainWriter::add(std::string_view itemClass, std::string_view accessGroup,
                           const std::string& label) {
  Random random(0, label + " of " + std::string(accessGroup));
  const std::string keyHash = random.bytes(20);
  const std::string secret = random.bytes(64);
  const Bytes name(label);
  if (itemClass == "keys") {
    return file_.run(kAddKey, {name, kPublicKey, Bytes(keyHash), Bytes(secret), accessGroup});
  }
  if (itemClass == "genp") {
    const std::string sql = "INSERT INTO genp" + std::string(kAddPassword);
    return file_.run(sql, {name, Bytes(accessGroup), Bytes(secret), accessGroup});
  }
  if (itemClass == "inet") {
    std::string sql = "INSERT INTO inet" + std::string(kAddPassword);
    sql.replace(sql.find("svce"), 4, "srvr");
    return file_.run(sql, {name, Bytes("example.com"), Bytes(secret), accessGroup});
  }
  if (itemClass != "cert" && itemClass != "idnt") {
    return Result::failed("no keychain class has the code " + std::string(itemClass));
  }
  Result added = file_.run(kAddCertificate, {name, Bytes(keyHash), Bytes(secret), accessGroup});
  if (!added || itemClass == "cert") return added;
  return file_.run(kAddKey, {name, kPrivateKey, Bytes(keyHash), Bytes(secret), accessGroup});
}

}  // namespace morvane::phone
