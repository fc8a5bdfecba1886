#!/usr/bin/env python3
"""Makes one .deb for the phone: the same bytes from the same input, whoever runs it and when.

dpkg-deb would take the owners' names from this machine, where the phone's group 0 is not "wheel"; so
the archives are written here, with the formats that deb(5) describes.
"""

import argparse
import hashlib
import io
import lzma
import pathlib
import tarfile

EXECUTABLE = 0o755
PLAIN = 0o644

# Where each file of the project goes below the prefix. Those of "documents" are left out where the
# project does not have them.
PROGRAM = "usr/bin/morvane_cli"
DOCUMENTS = {
    "docs/morvane_cli.1": "usr/share/man/man1/morvane_cli.1",
    "completions/morvane_cli.bash": "usr/share/bash-completion/completions/morvane_cli",
    "completions/_morvane_cli": "usr/share/zsh/site-functions/_morvane_cli",
    "completions/morvane_cli.fish": "usr/share/fish/vendor_completions.d/morvane_cli.fish",
    "README.md": "usr/share/doc/morvane-cli/README.md",
    "CHANGELOG.md": "usr/share/doc/morvane-cli/CHANGELOG.md",
    "SECURITY.md": "usr/share/doc/morvane-cli/SECURITY.md",
    "docs/install.md": "usr/share/doc/morvane-cli/install.md",
    "docs/interface.md": "usr/share/doc/morvane-cli/interface.md",
    "LICENSE": "usr/share/doc/morvane-cli/copyright",
}


class Tree:
    """A tar archive whose entries all belong to root:wheel and are of one time."""

    def __init__(self, time):
        self.time = time
        self.bytes = io.BytesIO()
        self.tar = tarfile.open(fileobj=self.bytes, mode="w", format=tarfile.GNU_FORMAT)
        self.folders = set()

    def _add(self, name, kind, mode, content=b""):
        entry = tarfile.TarInfo(name)
        entry.type, entry.mode, entry.mtime, entry.size = kind, mode, self.time, len(content)
        entry.uid = entry.gid = 0
        entry.uname, entry.gname = "root", "wheel"
        self.tar.addfile(entry, io.BytesIO(content))

    def add_file(self, path, content, mode):
        for folder in reversed(pathlib.PurePosixPath(path).parents):
            if folder not in self.folders:
                self.folders.add(folder)
                name = "./" if str(folder) == "." else f"./{folder}/"
                self._add(name, tarfile.DIRTYPE, EXECUTABLE)
        self._add(f"./{path}", tarfile.REGTYPE, mode, content)

    def compressed(self):
        self.tar.close()
        # Not the highest preset: its dictionary asks more memory of the phone than the tool has bytes.
        return lzma.compress(self.bytes.getvalue(), format=lzma.FORMAT_XZ, preset=6)


def ar_archive(members, time):
    archive = b"!<arch>\n"
    for name, content in members:
        archive += f"{name:<16}{time:<12}{0:<6}{0:<6}{0o100644:<8o}{len(content):<10}`\n".encode()
        archive += content + b"\n" * (len(content) % 2)
    return archive


def collect(root, binary, prefix):
    """What the package holds: (path, content, mode), sorted by path."""
    files = [(prefix + PROGRAM, binary.read_bytes(), EXECUTABLE)]
    for source, path in DOCUMENTS.items():
        if (root / source).exists():
            files.append((prefix + path, (root / source).read_bytes(), PLAIN))
    return sorted(files)


def control_text(template, version, architecture, files):
    size = sum(-(-len(content) // 1024) for _, content, _ in files)
    fields = {"VERSION": version, "ARCHITECTURE": architecture, "INSTALLED_SIZE": str(size)}
    for name, value in fields.items():
        template = template.replace(f"@{name}@", value)
    return template


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--binary", type=pathlib.Path, required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--architecture", required=True)
    parser.add_argument("--prefix", default="", help='where "usr" is, below the root: "var/jb/"')
    parser.add_argument("--time", type=int, required=True, help="of all files, in seconds since 1970")
    parser.add_argument("--output", type=pathlib.Path, required=True)
    options = parser.parse_args()

    here = pathlib.Path(__file__).resolve().parent
    files = collect(here.parent.parent, options.binary, options.prefix)
    data, control = Tree(options.time), Tree(options.time)
    for path, content, mode in files:
        data.add_file(path, content, mode)
    text = control_text((here / "control.in").read_text(encoding="utf-8"), options.version,
                        options.architecture, files)
    control.add_file("control", text.encode(), PLAIN)
    sums = "".join(f"{hashlib.md5(content).hexdigest()}  {path}\n" for path, content, _ in files)
    control.add_file("md5sums", sums.encode(), PLAIN)
    members = [("debian-binary", b"2.0\n"), ("control.tar.xz", control.compressed()),
               ("data.tar.xz", data.compressed())]
    options.output.write_bytes(ar_archive(members, options.time))


if __name__ == "__main__":
    main()
