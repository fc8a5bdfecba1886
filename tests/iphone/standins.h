#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/iphone/frameworks.h"

/// Stand-ins for the platform's C functions that the phone's bodies call. Every object counts its
/// owners; using one that has none left, releasing one that belongs to somebody else, and sending a
/// message that would raise an exception on the phone fail the test at once.
namespace morvane::test {

/// An object of CoreFoundation: of the type of the members that are set.
struct Object {
  enum class Kind : CFTypeID { text = 1, array, dictionary, url, other };

  Kind kind = Kind::other;
  std::u16string text = {};
  std::vector<CFTypeRef> keys = {};
  std::vector<CFTypeRef> values = {};
  std::optional<std::string> path = {};
  int owners = 1;
};

/// Objects that belong to the platform. They live until the end of the case.
CFStringRef text(std::u16string value);
CFTypeRef array(std::vector<CFTypeRef> values);
CFTypeRef dictionary(std::vector<std::pair<CFTypeRef, CFTypeRef>> entries);
CFTypeRef url(std::optional<std::string> path);
CFTypeRef other();

/// How many objects the code under test has been handed to own and has not released.
int ownedObjects();

/// The phone as the functions find it, and what they were asked.
struct Phone {
  // Application records: the class is known once one of these libraries is loaded.
  std::set<std::string> librariesThere;
  std::string libraryOfClass;
  std::map<std::string, std::map<std::string, CFTypeRef>> records;  // property -> value
  std::vector<std::string> loaded;

  // The keychain's answer to every query, handed over to the caller, and the queries: key -> value.
  OSStatus status = 0;
  CFTypeRef answer = nullptr;
  std::vector<std::map<std::string, std::string>> queries;

  std::vector<CFStringCompareFlags> searchFlags;
  int openExpressions = 0;
  int openPools = 0;

  // The process table: its size by the first call, and its bytes by the second.
  std::size_t tableSize = 0;
  std::string table;
  std::vector<std::size_t> tableCalls;  // the room that each call brought

  // Listings: what each call answers, packed as getattrlistbulk(2) does.
  std::vector<std::string> batches;
  std::size_t listings = 0;
  int listingError = 0;
};

/// The phone of the case that runs. Each case begins with an empty one.
Phone& phone();
void resetPhone();

}  // namespace morvane::test
