#!/usr/bin/env python3
"""Checks the phone's binary and packages as they are on disk, and then the checks themselves: each
must notice damage of the kind it is there for."""

import argparse
import functools
import hashlib
import io
import pathlib
import plistlib
import re
import struct
import subprocess
import sys
import tarfile

import macho
import signature

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent

MINIMUM_SYSTEM = "16.1.0"
MAX_SIZE = 250 * 1000
MAX_DYLIBS = 5
MAX_SYSTEM_IMPORTS = 70
LIBSYSTEM = "/usr/lib/libSystem.B.dylib"
# What the linker gives every executable.
EXPORTS = {"__mh_execute_header", "___dso_handle"}
HEADER_PAD = 0x1000


def allowed_imports():
    """The pairs (library, symbol) that the stub libraries admit."""
    allowed = set()
    for stub in (ROOT / "cmake/iphone/lib").glob("*.tbd"):
        text = stub.read_text(encoding="utf-8")
        library = re.search(r"^install-name:\s*'(.*)'", text, re.M).group(1)
        for symbols in re.findall(r"symbols:\s*\[(.*?)\]", text, re.S):
            allowed |= {(library, name.strip()) for name in symbols.split(",")}
    return allowed


# --- The binary


def check_target(data):
    binary = macho.MachO(data)
    assert binary.magic == macho.MAGIC_64 and binary.filetype == macho.EXECUTE, "no executable"
    assert (binary.cpu, binary.subtype) == (macho.CPU_ARM64, macho.SUBTYPE_ALL), "not arm64"
    assert binary.platform() == (macho.PLATFORM_IOS, MINIMUM_SYSTEM), binary.platform()
    assert binary.flags & macho.FLAG_PIE, "its place in memory would be known beforehand"


def check_libraries(data):
    binary = macho.MachO(data)
    expected = {library for library, _ in allowed_imports()}
    assert sorted(binary.dylibs()) == sorted(expected), binary.dylibs()
    assert len(expected) <= MAX_DYLIBS
    for command, _, _ in binary.commands:
        assert command not in macho.OTHER_DYLIB_COMMANDS, f"load command {command:#x}"
        assert command != macho.LC_RPATH, "a search path for libraries"


def check_symbols(data):
    binary = macho.MachO(data)
    imports, exports = binary.symbols()
    assert imports == allowed_imports(), sorted(imports ^ allowed_imports())
    assert sum(library == LIBSYSTEM for library, _ in imports) < MAX_SYSTEM_IMPORTS
    assert exports == EXPORTS, sorted(exports ^ EXPORTS)
    weak = macho.FLAG_WEAK_DEFINES | macho.FLAG_BINDS_TO_WEAK
    assert not binary.flags & weak, "the loader would unite its C++ symbols with the system's"


def check_signing(unsigned, data):
    """The signer has added its load command in spare room, and has changed nothing else."""
    before, after = macho.MachO(unsigned), macho.MachO(data)
    assert before.spare_room() >= HEADER_PAD, f"{before.spare_room()} bytes of spare room"
    assert not before.find(macho.LC_CODE_SIGNATURE), "signed by the linker already"
    assert after.spare_room() == before.spare_room() - 16, "more than one load command was added"
    first, start = before.first_section(), after.signature()[0]
    assert len(unsigned) <= start < len(unsigned) + 16, "something lies before the signature"
    assert data[first:len(unsigned)] == unsigned[first:], "code or data has changed"


def check_signature(data):
    entitlements = plistlib.loads((ROOT / "packaging/entitlements.plist").read_bytes())
    signature.check(macho.MachO(data), entitlements)


def check_size(data):
    assert len(data) < MAX_SIZE, f"{len(data)} bytes"


# --- The packages

PREFIX_OF_ARCHITECTURE = {"iphoneos-arm": "", "iphoneos-arm64": "var/jb/"}
PROGRAM = "usr/bin/morvane_cli"
REQUIRED_FIELDS = {"Package", "Name", "Version", "Architecture", "Section", "Priority", "Maintainer",
                   "Author", "Installed-Size", "Depends", "Description"}
# What a user of the packages must find in them, if the project has it, and where.
EXPECTED_DOCUMENTS = {
    "docs/*.1": "usr/share/man/man1/",
    "completions/*.bash": "usr/share/bash-completion/completions/",
    "completions/_*": "usr/share/zsh/site-functions/",
    "completions/*.fish": "usr/share/fish/vendor_completions.d/",
    "docs/install.md": "usr/share/doc/morvane-cli/",
    "README.md": "usr/share/doc/morvane-cli/",
    "CHANGELOG.md": "usr/share/doc/morvane-cli/",
}


def dpkg_deb(*arguments):
    return subprocess.run(["dpkg-deb", *arguments], check=True, capture_output=True).stdout


@functools.cache
def entries_of(deb, which):
    """The tar entries of a package, as dpkg-deb extracts them: (header, content)"""
    with tarfile.open(fileobj=io.BytesIO(dpkg_deb(which, str(deb)))) as tar:
        return [(entry, tar.extractfile(entry).read() if entry.isfile() else b"")
                for entry in tar.getmembers()]


@functools.cache
def fields_of(deb):
    lines = dpkg_deb("--field", str(deb)).decode().splitlines()
    return dict(line.split(": ", 1) for line in lines if not line.startswith(" "))


def files_of(deb):
    """path below the prefix -> content"""
    prefix = PREFIX_OF_ARCHITECTURE[fields_of(deb)["Architecture"]]
    files = {}
    for entry, content in entries_of(deb, "--fsys-tarfile"):
        if entry.isfile():
            path = entry.name.removeprefix("./")
            assert path.startswith(prefix), f"{path} is outside /{prefix}"
            files[path.removeprefix(prefix)] = content
    return files


def check_format(deb):
    """Compressed with xz: the phone's dpkg may know nothing newer."""
    data = deb.read_bytes()
    assert data.startswith(b"!<arch>\n"), "no archive"
    names, at = [], 8
    while at < len(data):
        names.append(data[at:at + 16].decode().strip())
        at += 60 + (int(data[at + 48:at + 58]) + 1) // 2 * 2
    assert names == ["debian-binary", "control.tar.xz", "data.tar.xz"], names


def check_entries(deb):
    for which in ("--fsys-tarfile", "--ctrl-tarfile"):
        for entry, _ in entries_of(deb, which):
            name = entry.name
            assert (entry.uid, entry.gid) == (0, 0), f"{name} is not root's"
            assert (entry.uname, entry.gname) == ("root", "wheel"), f"{name} is not root:wheel"
            assert entry.isfile() or entry.isdir(), f"{name} is neither file nor folder"
            program = name.endswith(f"/{PROGRAM}")
            expected = 0o755 if entry.isdir() or program else 0o644
            assert entry.mode == expected, f"{name} has mode {entry.mode:o}"
            assert "/var/mobile" not in f"/{name.removeprefix('./')}", f"{name} is a user's"


def check_control(deb):
    control = {entry.name: content for entry, content in entries_of(deb, "--ctrl-tarfile")}
    assert set(control) == {".", "./control", "./md5sums"}, f"{set(control)}: scripts?"
    fields = fields_of(deb)
    assert fields.keys() == REQUIRED_FIELDS, fields.keys() ^ REQUIRED_FIELDS
    assert fields["Depends"] == "firmware (>= 16.1)", fields["Depends"]
    version = re.search(r"^project\(morvane_cli VERSION ([\d.]+)",
                        (ROOT / "CMakeLists.txt").read_text(encoding="utf-8"), re.M).group(1)
    assert fields["Version"] == version, f"{fields['Version']}, not {version}"
    files = entries_of(deb, "--fsys-tarfile")
    sums = {f"{hashlib.md5(content).hexdigest()}  {entry.name.removeprefix('./')}"
            for entry, content in files if entry.isfile()}
    assert set(control["./md5sums"].decode().splitlines()) == sums, "md5sums are wrong"
    used = sum(-(-len(content) // 1024) for _, content in files)
    assert int(fields["Installed-Size"]) == used, f"Installed-Size is not {used}"


def check_contents(debs, data):
    one, other = (files_of(deb) for deb in debs)
    assert one == other, "the two packages differ in more than their prefix"
    assert one[PROGRAM] == data, "the program is not the one that was checked"
    for pattern, folder in EXPECTED_DOCUMENTS.items():
        for source in ROOT.glob(pattern):
            found = [path for path, content in one.items()
                     if path.startswith(folder) and content == source.read_bytes()]
            assert found, f"{source.relative_to(ROOT)} is not in {folder}"
    names = {fields_of(deb)["Package"] for deb in debs}
    assert names == {"morvane-cli"}, names
    assert {fields_of(deb)["Architecture"] for deb in debs} == set(PREFIX_OF_ARCHITECTURE)


# --- The checks themselves


def flipped(data, at):
    return data[:at] + bytes([data[at] ^ 1]) + data[at + 1:]


def replaced(data, old, new):
    assert len(old) == len(new) and old in data, f"nothing to damage: {old}"
    return data.replace(old, new)


def damages(unsigned, data):
    """(what is wrong, the check that must say so, its arguments)"""
    binary = macho.MachO(data)
    start, size = binary.signature()
    sections = binary.first_section()
    symbols = struct.unpack_from("<I", data, binary.one(macho.LC_SYMTAB) + 8)[0]
    build = binary.one(macho.LC_BUILD_VERSION)
    page = 4096
    for at in (0, sections, sections // page * page + page - 1, start // 2, start - 1):
        yield f"byte {at} changed", check_signature, [flipped(data, at)]
    der = data.index(struct.pack(">I", signature.DER_ENTITLEMENTS), start)
    xml = data.index(b"<key>platform-application</key>", start)
    yield "XML entitlement changed", check_signature, [flipped(data, xml + 6)]
    yield "DER entitlement changed", check_signature, [flipped(data, der + 40)]
    yield "signature cut off", check_signature, [data[:start + size // 4] + bytes(size)]
    yield "not signed", check_signature, [unsigned]
    yield "another entitlement", check_signature, [
        replaced(data, b"T84QZS65DQ.platformFamily", b"T84QZS65DQ.platformFamilz")]
    yield "code overwritten by the signer", check_signing, [unsigned, flipped(data, sections)]
    yield "no spare room", check_signing, [
        struct.pack_into("<I", crowded := bytearray(unsigned), 20, sections - 32) or
        bytes(crowded), data]
    yield "built for another platform", check_target, [flipped(data, build + 8)]
    yield "built for a newer system", check_target, [flipped(data, build + 13)]
    yield "another import", check_symbols, [replaced(data, b"\0_unlinkat\0", b"\0_unlinkxx\0")]
    yield "import of another library", check_symbols, [flipped(data, symbols + 16 * 50 + 7)]
    yield "another library", check_libraries, [
        replaced(data, b"/usr/lib/libicucore.A.dylib", b"/usr/lib/libicucore.B.dylib")]
    yield "too large", check_size, [data + bytes(MAX_SIZE)]


def check_checks(unsigned, data):
    for what, check, arguments in damages(unsigned, data):
        try:
            check(*arguments)
        except (AssertionError, ValueError, LookupError, struct.error):
            continue
        raise AssertionError(f"{what}: {check.__name__} did not notice")


def run(checks):
    failed = 0
    for check, *arguments in checks:
        subject = f" {arguments[0].name}" if isinstance(arguments[0], pathlib.Path) else ""
        try:
            check(*arguments)
            print(f"ok      {check.__name__.removeprefix('check_')}{subject}")
        except (AssertionError, ValueError, LookupError, struct.error, OSError,
                subprocess.CalledProcessError) as error:
            failed += 1
            print(f"FAILED  {check.__name__.removeprefix('check_')}{subject}: {error!r}")
    print(f"check-iphone: {len(checks) - failed} passed, {failed} failed")
    return failed


def main():
    parser = argparse.ArgumentParser(description="Checks the phone's binary and packages.")
    parser.add_argument("--unsigned", type=pathlib.Path, required=True)
    parser.add_argument("--binary", type=pathlib.Path, required=True)
    parser.add_argument("debs", type=pathlib.Path, nargs=2)
    options = parser.parse_args()
    unsigned, data = options.unsigned.read_bytes(), options.binary.read_bytes()

    checks = [(check_target, data), (check_libraries, data), (check_symbols, data),
              (check_signing, unsigned, data), (check_signature, data), (check_size, data),
              (check_checks, unsigned, data)]
    for deb in options.debs:
        checks += [(check_format, deb), (check_entries, deb), (check_control, deb)]
    checks.append((check_contents, options.debs, data))
    return 1 if run(checks) else 0


if __name__ == "__main__":
    sys.exit(main())
