#pragma once

// What the directory reader needs of Darwin's header (getattrlistbulk(2)).

#include <cstddef>
#include <cstdint>

enum : std::uint32_t { ATTR_BIT_MAP_COUNT = 5, ATTR_CMN_NAME = 1, ATTR_CMN_OBJTYPE = 8 };
enum : std::uint32_t { ATTR_CMN_ERROR = 0x20000000, ATTR_CMN_RETURNED_ATTRS = 0x80000000 };

struct attrlist {  // NOLINT(readability-identifier-naming)
  std::uint16_t bitmapcount, reserved;
  std::uint32_t commonattr, volattr, dirattr, fileattr, forkattr;
};
struct attribute_set_t {  // NOLINT(readability-identifier-naming)
  std::uint32_t commonattr, volattr, dirattr, fileattr, forkattr;
};
struct attrreference_t {  // NOLINT(readability-identifier-naming)
  std::int32_t attr_dataoffset, attr_length;
};

extern "C" int getattrlistbulk(int fd, void* wanted, void* buffer, std::size_t size, std::uint64_t);
