"""Verifies an ad hoc code signature byte by byte, from the format alone (kern/cs_blobs.h of Darwin,
Security's codedirectory.h). It shares nothing with the signer."""

import hashlib
import plistlib
import struct

EMBEDDED_SIGNATURE, CODE_DIRECTORY, REQUIREMENTS = 0xFADE0CC0, 0xFADE0C02, 0xFADE0C01
ENTITLEMENTS, DER_ENTITLEMENTS, CMS = 0xFADE7171, 0xFADE7172, 0xFADE0B01
SLOT_DIRECTORY, SLOT_REQUIREMENTS, SLOT_ENTITLEMENTS, SLOT_DER, SLOT_CMS = 0, 2, 5, 7, 0x10000
MAGIC_OF_SLOT = {SLOT_DIRECTORY: CODE_DIRECTORY, SLOT_REQUIREMENTS: REQUIREMENTS,
                 SLOT_ENTITLEMENTS: ENTITLEMENTS, SLOT_DER: DER_ENTITLEMENTS, SLOT_CMS: CMS}

WITH_EXECUTABLE_SEGMENT = 0x20400  # the first version of the directory that has these fields
FLAG_AD_HOC, EXECUTABLE_MAIN = 0x2, 0x1
SHA256, SHA256_SIZE = 2, 32


def blobs_of(data):
    """slot -> the whole blob, header included"""
    magic, length, count = struct.unpack_from(">3I", data)
    assert magic == EMBEDDED_SIGNATURE, f"signature of kind {magic:#x}"
    assert length <= len(data), "the signature is longer than its place"
    blobs = {}
    for i in range(count):
        slot, offset = struct.unpack_from(">2I", data, 12 + 8 * i)
        kind, size = struct.unpack_from(">2I", data, offset)
        assert offset + size <= length, f"slot {slot} reaches beyond the signature"
        assert slot not in blobs, f"slot {slot} comes twice"
        assert kind == MAGIC_OF_SLOT.get(slot), f"slot {slot} holds a blob of kind {kind:#x}"
        blobs[slot] = data[offset:offset + size]
    return blobs


class Directory:
    """The code directory: the hashes of everything, and what kind of signature it is."""

    def __init__(self, blob):
        (self.version, self.flags, hashes, identifier, self.special_count, self.code_count,
         self.code_limit, self.hash_size, self.hash_type, _, page_bits, _, _, self.team, _,
         limit_64, self.segment_base, self.segment_limit,
         self.segment_flags) = struct.unpack_from(">7I4B4I4Q", blob, 8)
        assert limit_64 == 0, "a limit beyond 4 GB"
        assert (self.hash_type, self.hash_size) == (SHA256, SHA256_SIZE), "hashes are not SHA-256"
        self.page = 1 << page_bits
        self.identifier = blob[identifier:blob.index(b"\0", identifier)].decode()
        first = hashes - SHA256_SIZE * self.special_count
        assert hashes + SHA256_SIZE * self.code_count <= len(blob), "hashes beyond the directory"
        count = self.special_count + self.code_count
        every = [blob[first + SHA256_SIZE * i:][:SHA256_SIZE] for i in range(count)]
        self.special = {self.special_count - i: every[i] for i in range(self.special_count)}
        self.code = every[self.special_count:]


def check_directory(macho, directory):
    assert directory.version >= WITH_EXECUTABLE_SEGMENT, f"version {directory.version:#x}"
    assert directory.flags == FLAG_AD_HOC, f"flags {directory.flags:#x}, not just ad hoc"
    assert directory.identifier == "morvane_cli", f"identifier {directory.identifier}"
    assert directory.team == 0, "an ad hoc signature names no team"
    _, offset, size, _ = macho.segment("__TEXT")
    assert (directory.segment_base, directory.segment_limit) == (offset, size), "not all of __TEXT"
    assert directory.segment_flags == EXECUTABLE_MAIN, f"segment {directory.segment_flags:#x}"


def check_pages(macho, directory):
    start, size = macho.signature()
    assert directory.code_limit == start, "the signature does not cover all up to itself"
    _, link_start, link_size, _ = macho.segment("__LINKEDIT")
    assert start + size <= link_start + link_size == len(macho.data), "it is not in __LINKEDIT"
    assert len(directory.code) == -(-start // directory.page), "there are not as many hashes as pages"
    for i, expected in enumerate(directory.code):
        page = macho.data[i * directory.page:min((i + 1) * directory.page, start)]
        assert hashlib.sha256(page).digest() == expected, f"page {i} is not what was signed"


def check_special(blobs, directory):
    for slot, expected in directory.special.items():
        found = hashlib.sha256(blobs[slot]).digest() if slot in blobs else bytes(SHA256_SIZE)
        assert found == expected, f"slot {slot} is not what was signed"
    unsigned = blobs.keys() - directory.special.keys() - {SLOT_DIRECTORY, SLOT_CMS}
    assert not unsigned, f"slots {unsigned} are not signed"
    assert blobs[SLOT_REQUIREMENTS][8:] == bytes(4), "the requirements are not empty"
    assert len(blobs.get(SLOT_CMS, bytes(8))) == 8, "there is a certificate"


def check(macho, entitlements):
    """Fails unless `macho` is signed ad hoc, whole, and with exactly these entitlements."""
    start, size = macho.signature()
    blobs = blobs_of(macho.data[start:start + size])
    for slot in (SLOT_DIRECTORY, SLOT_REQUIREMENTS, SLOT_ENTITLEMENTS, SLOT_DER):
        assert slot in blobs, f"slot {slot} is missing"
    directory = Directory(blobs[SLOT_DIRECTORY])
    check_directory(macho, directory)
    check_pages(macho, directory)
    check_special(blobs, directory)
    assert plistlib.loads(blobs[SLOT_ENTITLEMENTS][8:]) == entitlements, "XML entitlements differ"
    assert decode_der(blobs[SLOT_DER][8:]) == entitlements, "DER entitlements differ"


# --- Entitlements in DER: [APPLICATION 16] { version 1, [16] { SEQUENCE { key, value }... } }.

WHOLE, DICTIONARY, SEQUENCE, BOOLEAN, INTEGER, UTF8 = 0x70, 0xB0, 0x30, 0x01, 0x02, 0x0C


def elements(data):
    """(tag, contents) of each element in `data`"""
    while data:
        tag, length, start = data[0], data[1], 2
        if length >= 0x80:
            start += length - 0x80
            length = int.from_bytes(data[2:start], "big")
            assert length >= 0x80 and data[2] != 0, "a length that is longer than DER has it"
        assert start + length <= len(data), "an element reaches beyond its container"
        yield tag, data[start:start + length]
        data = data[start + length:]


def dictionary(contents):
    values = {}
    for tag, pair in elements(contents):
        (key_tag, key), value = elements(pair)
        assert (tag, key_tag) == (SEQUENCE, UTF8), "an entry is not (text, value)"
        values[key.decode()] = value_of(*value)
    assert list(values) == sorted(values), "the keys are not in order"
    return values


def value_of(tag, contents):
    if tag == BOOLEAN:
        return {b"\x00": False, b"\xff": True}[contents]
    if tag == INTEGER:
        return int.from_bytes(contents, "big", signed=True)
    if tag == UTF8:
        return contents.decode()
    if tag == SEQUENCE:
        return [value_of(*element) for element in elements(contents)]
    assert tag == DICTIONARY, f"a value of kind {tag:#x}"
    return dictionary(contents)


def decode_der(data):
    ((tag, contents),) = elements(data)
    (version_tag, version), (entries_tag, entries) = elements(contents)
    assert (tag, version_tag, entries_tag) == (WHOLE, INTEGER, DICTIONARY), "not entitlements"
    assert version == b"\x01", "another version of the format"
    return dictionary(entries)
