#include "phone/plist.h"

#include <cstdlib>
#include <utility>

namespace morvane::phone {
namespace {

std::string textOf(plist_t node) {
  char* text = nullptr;
  plist_get_string_val(node, &text);
  std::string copy = text != nullptr ? text : "";
  std::free(text);
  return copy;
}

}  // namespace

Plist Plist::texts(const std::vector<std::string>& values) {
  Plist list = array();
  for (const std::string& value : values)
    list.add(text(value));
  return list;
}

Plist Plist::parse(const std::string& bytes) {
  plist_t node = nullptr;
  plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node);
  return Plist(node);
}

plist_t Plist::release() {
  return std::exchange(node_, nullptr);
}

Plist& Plist::set(const char* key, Plist value) {
  plist_dict_set_item(node_, key, value.release());
  return *this;
}

Plist& Plist::add(Plist value) {
  plist_array_append_item(node_, value.release());
  return *this;
}

std::string Plist::toBinary() const {
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(node_, &bytes, &length);
  std::string copy(bytes, length);
  plist_to_bin_free(bytes);
  return copy;
}

std::string Plist::toXml() const {
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(node_, &bytes, &length);
  std::string copy(bytes, length);
  plist_to_xml_free(bytes);
  return copy;
}

plist_t Plist::at(const char* key, plist_type type) const {
  if (node_ == nullptr || plist_get_node_type(node_) != PLIST_DICT) return nullptr;
  plist_t item = plist_dict_get_item(node_, key);
  return item != nullptr && plist_get_node_type(item) == type ? item : nullptr;
}

std::string Plist::textAt(const char* key) const {
  plist_t item = at(key, PLIST_STRING);
  return item != nullptr ? textOf(item) : "";
}

std::uint64_t Plist::numberAt(const char* key) const {
  plist_t item = at(key, PLIST_UINT);
  std::uint64_t value = 0;
  if (item != nullptr) plist_get_uint_val(item, &value);
  return value;
}

std::vector<std::string> Plist::textsAt(const char* key) const {
  std::vector<std::string> texts;
  plist_t list = at(key, PLIST_ARRAY);
  const std::uint32_t size = list != nullptr ? plist_array_get_size(list) : 0;
  for (std::uint32_t i = 0; i < size; ++i) {
    plist_t item = plist_array_get_item(list, i);
    if (plist_get_node_type(item) == PLIST_STRING) texts.push_back(textOf(item));
  }
  return texts;
}

std::vector<Plist> Plist::dictionariesAt(const char* key) const {
  std::vector<Plist> dictionaries;
  plist_t list = at(key, PLIST_ARRAY);
  const std::uint32_t size = list != nullptr ? plist_array_get_size(list) : 0;
  for (std::uint32_t i = 0; i < size; ++i) {
    plist_t item = plist_array_get_item(list, i);
    if (plist_get_node_type(item) == PLIST_DICT) dictionaries.push_back(Plist(plist_copy(item)));
  }
  return dictionaries;
}

}  // namespace morvane::phone
