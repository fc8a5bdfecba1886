"""Types into real shells on a simulated phone, as a user would, and looks at what they complete.

Goes by itself into a phone that it makes; every shell must be there.
"""

import os
import pathlib
import pty
import re
import select
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
STORE = pathlib.Path("/var/mobile/MorvaneBackups")

LONG = "net.wide.example-".ljust(48, "x")  # its length is a digit in the metadata

# What is typed, TAB standing for itself, and the arguments that come of it.
TYPED = [
    ("rese\tcom.b\tk\t", "reset com.burbn.instagram kill"),
    ("reset com.burbn.instagram,org.example.F\tcl\tsys=0",
     "reset com.burbn.instagram,org.example.FieldNotes clear sys=0"),
    ("reset x kill sys=0,app\t1", "reset x kill sys=0,appdata=1"),
    ("backup net.w\tdaily", "backup " + LONG + " daily"),
    ("backup com.s\twee\t", "backup com.s.b weekly"),
    ("restore dai\t", "restore daily.morvane"),
    ("removebackup A\t", "removebackup ALL"),
    ("removeb\tweek\t", "removebackup weekly.morvane"),
]

SHELLS = {
    "bash": (["bash", "--norc", "--noprofile", "-i"],
             "PS1='> '; bind 'set enable-bracketed-paste off'; . completions/morvane_cli.bash; "
             "morvane_cli() { printf 'got <%s>\\n' \"$*\"; }"),
    "zsh": (["zsh", "-f", "-i"],
            "PS1='> '; unsetopt zle_bracketed_paste prompt_sp; fpath=($PWD/completions $fpath); "
            "autoload -Uz compinit && compinit -D; bindkey -e; unset zle_bracketed_paste; "
            "morvane_cli() { printf 'got <%s>\\n' \"$*\"; }"),
}


class Shell:
    """An interactive shell at a terminal."""

    def __init__(self, words, setup):
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.chdir(ROOT)
            os.environ.update(TERM="dumb", HOME="/var/tmp", HISTFILE="/dev/null")
            os.execvp(words[0], words)
        self.enter(setup + "; echo rea''dy", "(ready)\r\n")

    def enter(self, text, until):
        """What the expression `until` finds in the terminal after typing the text and Enter."""
        os.write(self.terminal, text.encode())
        time.sleep(0.2 if "\t" in text else 0)
        os.write(self.terminal, b"\r")
        seen, limit = "", time.monotonic() + 20
        while not (found := re.search(until, seen)):
            if time.monotonic() > limit or not select.select([self.terminal], [], [], 20)[0]:
                raise AssertionError(f"{text!r} gave {seen!r}")
            seen += os.read(self.terminal, 65536).decode("utf-8", "replace")
        return found[1].strip()


class ShellsComplete(unittest.TestCase):
    def test_typing(self):
        for name, (words, setup) in SHELLS.items():
            shell = Shell(words, setup)
            for typed, expected in TYPED:
                with self.subTest(shell=name, typed=typed):
                    self.assertEqual(shell.enter("morvane_cli " + typed, r"got <(.*)>"), expected)
            os.close(shell.terminal)

    def test_fish(self):
        # fish asks its terminal questions that only a terminal can answer; it completes without one.
        cases = {
            "": {"reset", "backup", "restore", "removebackup"},
            "reset com.b": {"com.burbn.instagram"},
            "reset com.burbn.instagram,org": {"com.burbn.instagram,org.example.FieldNotes"},
            "reset x c": {"clear"},
            "reset x kill sys=0,": {f"sys=0,{flag}={value}" for flag in ("appdata", "receipt")
                                    for value in (0, 1)},
            "backup x ": {"daily", "weekly"},
            "restore ": {"daily.morvane", "weekly.morvane"},
            "removebackup ": {"daily.morvane", "weekly.morvane", "ALL"},
            "removebackup ALL ": set(),
        }
        for line, expected in cases.items():
            with self.subTest(line=line):
                script = f"source completions/morvane_cli.fish; complete -C 'morvane_cli {line}'"
                got = subprocess.run(["env", "HOME=/var/tmp", "fish", "--no-config", "-c", script],
                                     cwd=ROOT, stdout=subprocess.PIPE, text=True, check=True).stdout
                self.assertEqual({entry.split("\t")[0] for entry in got.splitlines()}, expected)


def prepare_phone():
    """Backups, and apps whose identifiers the binary metadata makes hard to see."""
    for name in ("daily.morvane", "weekly.morvane", "no name.morvane", ".staging_x_1"):
        (STORE / name).mkdir(parents=True)
    containers = pathlib.Path("/var/mobile/Containers/Data/Application")
    for folder, text in {
        "short": b"bplist00\xd1\x01\x02_\x10\x15MCMMetadataIdentifierWcom.s.b\x08",
        "long": b"bplist00\xd1\x01\x02_\x10\x15MCMMetadataIdentifier_\x10\x30" + LONG.encode()
                + b"\x08",
        "xml": b'<!DOCTYPE plist "http://www.apple.com/DTDs/PropertyList-1.0.dtd"><string>'
               b"org.example.FieldNotes</string>",
    }.items():
        (containers / folder).mkdir()
        (containers / folder / ".com.apple.mobile_container_manager.metadata.plist").write_bytes(text)
    # What an app could put there to hold up whoever looks.
    (containers / "stuck").mkdir()
    os.mkfifo(containers / "stuck/.com.apple.mobile_container_manager.metadata.plist")


if __name__ == "__main__":
    if sys.argv[1:] == ["inside"]:
        prepare_phone()
        unittest.main(argv=sys.argv[:1])
    with tempfile.TemporaryDirectory() as folder:
        phone = ["build/morvane_phone", "new", folder + "/phone", "--app", "com.burbn.instagram",
                 "--files", "1"]
        subprocess.run(phone, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
        inside = ["build/morvane_phone", "run", folder + "/phone", "--", sys.executable,
                  __file__, "inside"]
        sys.exit(subprocess.run(inside, cwd=ROOT, check=False).returncode)
