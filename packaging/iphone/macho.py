"""Reads what the checks need of a 64-bit Mach-O executable (mach-o/loader.h, mach-o/nlist.h)."""

import struct

MAGIC_64 = 0xFEEDFACF
CPU_ARM64 = 0x0100000C
SUBTYPE_ALL = 0
EXECUTE = 2
PLATFORM_IOS = 2

FLAG_WEAK_DEFINES = 0x8000
FLAG_BINDS_TO_WEAK = 0x10000
FLAG_PIE = 0x200000

LC_SYMTAB = 0x2
LC_LOAD_DYLIB = 0xC
LC_SEGMENT_64 = 0x19
LC_CODE_SIGNATURE = 0x1D
LC_BUILD_VERSION = 0x32
LC_MAIN = 0x80000028

# Commands that name a library in another way than LC_LOAD_DYLIB: weak, re-exported, lazy, upward.
OTHER_DYLIB_COMMANDS = {0x80000018, 0x8000001F, 0x20, 0x80000023}
LC_RPATH = 0x8000001C

HEADER_SIZE = 32
N_TYPE, N_EXT, N_STAB, N_UNDF = 0x0E, 0x01, 0xE0, 0x00


def text_at(data, offset):
    return data[offset:data.index(b"\0", offset)].decode()


class MachO:
    def __init__(self, data):
        self.data = data
        (self.magic, self.cpu, self.subtype, self.filetype, count, self.commands_size, self.flags,
         _) = struct.unpack_from("<8I", data)
        self.commands = []  # (command, offset, size)
        offset = HEADER_SIZE
        for _ in range(count):
            command, size = struct.unpack_from("<2I", data, offset)
            self.commands.append((command, offset, size))
            offset += size
        assert offset == HEADER_SIZE + self.commands_size, "the load commands do not add up"

    def find(self, wanted):
        return [offset for command, offset, _ in self.commands if command == wanted]

    def one(self, wanted):
        found = self.find(wanted)
        assert len(found) == 1, f"{len(found)} load commands of kind {wanted:#x}"
        return found[0]

    def segments(self):
        """(name, file offset, file size, offset in the file of each section that has contents)"""
        for at in self.find(LC_SEGMENT_64):
            name, _, _, offset, size = struct.unpack_from("<16s4Q", self.data, at + 8)
            (count,) = struct.unpack_from("<I", self.data, at + 64)
            sections = [struct.unpack_from("<I", self.data, at + 72 + 80 * i + 48)[0]
                        for i in range(count)]
            yield name.rstrip(b"\0").decode(), offset, size, [s for s in sections if s]

    def segment(self, wanted):
        return next(segment for segment in self.segments() if segment[0] == wanted)

    def first_section(self):
        return min(offset for segment in self.segments() for offset in segment[3])

    def spare_room(self):
        """How many bytes lie between the load commands and the first section."""
        return self.first_section() - HEADER_SIZE - self.commands_size

    def platform(self):
        """(platform, minimum version) as in LC_BUILD_VERSION, the version as x.y.z"""
        platform, version = struct.unpack_from("<2I", self.data, self.one(LC_BUILD_VERSION) + 8)
        return platform, f"{version >> 16}.{version >> 8 & 0xFF}.{version & 0xFF}"

    def dylibs(self):
        names = []
        for at in self.find(LC_LOAD_DYLIB):
            (name,) = struct.unpack_from("<I", self.data, at + 8)
            names.append(text_at(self.data, at + name))
        return names

    def symbols(self):
        """(imports, exports): imports as (library's install name, symbol)"""
        symbols, count, strings, _ = struct.unpack_from("<4I", self.data, self.one(LC_SYMTAB) + 8)
        dylibs, imports, exports = self.dylibs(), set(), set()
        for i in range(count):
            name, kind, _, description, _ = struct.unpack_from("<IBBHQ", self.data, symbols + 16 * i)
            if kind & N_STAB or not kind & N_EXT:
                continue
            name = text_at(self.data, strings + name)
            if kind & N_TYPE == N_UNDF:
                imports.add((dylibs[(description >> 8) - 1], name))
            else:
                exports.add(name)
        return imports, exports

    def signature(self):
        """(file offset, size) of the code signature's place"""
        return struct.unpack_from("<2I", self.data, self.one(LC_CODE_SIGNATURE) + 8)
