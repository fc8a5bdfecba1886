#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace morvane::phone {

/// A property list value, owned.
class Plist {
 public:
  static Plist dictionary() { return Plist(plist_new_dict()); }
  static Plist array() { return Plist(plist_new_array()); }
  static Plist text(const std::string& value) { return Plist(plist_new_string(value.c_str())); }
  static Plist number(std::uint64_t value) { return Plist(plist_new_uint(value)); }
  static Plist yes() { return Plist(plist_new_bool(1)); }
  static Plist data(std::string_view bytes) {
    return Plist(plist_new_data(bytes.data(), bytes.size()));
  }
  static Plist texts(const std::vector<std::string>& values);

  /// Reads either form; a list without a value when `bytes` are neither.
  static Plist parse(const std::string& bytes);

  ~Plist() { plist_free(node_); }
  Plist(Plist&& other) noexcept : node_(other.release()) {}
  Plist& operator=(Plist&&) = delete;

  /// Puts `value` into this dictionary.
  Plist& set(const char* key, Plist value);
  /// Puts `value` at the end of this array.
  Plist& add(Plist value);

  [[nodiscard]] std::string toBinary() const;
  [[nodiscard]] std::string toXml() const;

  /// What a dictionary holds under `key`: "", 0 or nothing where that is absent or of another kind.
  [[nodiscard]] std::string textAt(const char* key) const;
  [[nodiscard]] std::uint64_t numberAt(const char* key) const;
  [[nodiscard]] std::vector<std::string> textsAt(const char* key) const;
  [[nodiscard]] std::vector<Plist> dictionariesAt(const char* key) const;

 private:
  explicit Plist(plist_t node) : node_(node) {}
  plist_t release();
  [[nodiscard]] plist_t at(const char* key, plist_type type) const;

  plist_t node_;
};

}  // namespace morvane::phone
