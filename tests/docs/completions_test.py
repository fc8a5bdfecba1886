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
CONTAINERS = pathlib.Path("/var/mobile/Containers/Data/Application")
METADATA = ".com.apple.mobile_container_manager.metadata.plist"

LONG = "net.wide.example-".ljust(48, "x")  # its length is a digit in the metadata

# What is typed, TAB standing for itself, and the arguments that come of it.
TYPED = [
    ("rese\tcom.b\tk\t", "reset com.burbn.instagram kill"),
    ("reset com.burbn.instagram,org.example.F\tcl\tsys=0",
     "reset com.burbn.instagram,org.example.FieldNotes clear sys=0"),
    ("reset x kill sys=0,app\t1", "reset x kill sys=0,appdata=1"),
    ("reset x kill sys=0,s\t", "reset x kill sys=0,s"),
    ("backup net.w\tdaily", "backup " + LONG + " daily"),
    ("backup com.s\twee\t", "backup com.s.b weekly"),
    ("restore dai\t", "restore daily.morvane"),
    ("restore nam\t", "restore nam"),  # not a part of a name with a blank
    ("removebackup A\t", "removebackup ALL"),
]
SHOWING = "PS1='> '; morvane_cli() { printf 'got <%s>\\n' \"$*\"; }; "
SHELLS = {
    "bash --norc --noprofile -i":
        "bind 'set enable-bracketed-paste off'; . completions/morvane_cli.bash",
    "zsh -f -i":
        "unsetopt zle_bracketed_paste prompt_sp; fpath=($PWD/completions $fpath); "
        "autoload -Uz compinit && compinit -D; bindkey -e; unset zle_bracketed_paste",
}

# fish asks its terminal questions that only a terminal can answer; it completes without one.
FISH = {
    "": "backup removebackup reset restore",
    "reset com.b": "com.burbn.instagram",
    "reset com.burbn.instagram,org": "com.burbn.instagram,org.example.FieldNotes",
    "reset x c": "clear",
    "reset x kill sys=0,": "sys=0,appdata=0 sys=0,appdata=1 sys=0,receipt=0 sys=0,receipt=1",
    "backup x ": "daily weekly",
    "removebackup ": "ALL daily.morvane weekly.morvane",
    "removebackup ALL ": "",
}


def enter(terminal, text, until):
    """What the expression `until` finds in the terminal after typing the text and Enter."""
    os.write(terminal, text.encode())
    time.sleep(0.2 if "\t" in text else 0)
    os.write(terminal, b"\r")
    seen = ""
    while not (found := re.search(until, seen)):
        if not select.select([terminal], [], [], 20)[0]:
            raise AssertionError(f"{text!r} gave {seen!r}")
        seen += os.read(terminal, 65536).decode("utf-8", "replace")
    return found[1].strip()


class ShellsComplete(unittest.TestCase):
    def test_typing(self):
        os.chdir(ROOT)
        os.environ.update(TERM="dumb", HOME="/var/tmp", HISTFILE="/dev/null")
        for shell, setup in SHELLS.items():
            pid, terminal = pty.fork()
            if pid == 0:
                os.execvp(shell.split()[0], shell.split())
            enter(terminal, SHOWING + setup + "; echo rea''dy", "(ready)\r\n")
            for typed, expected in TYPED:
                with self.subTest(shell=shell, typed=typed):
                    got = enter(terminal, "morvane_cli " + typed, "got <(.*)>")
                    self.assertEqual(got, expected)
            os.close(terminal)

    def test_fish(self):
        for line, expected in FISH.items():
            with self.subTest(line=line):
                script = f"source completions/morvane_cli.fish; complete -C 'morvane_cli {line}'"
                got = subprocess.run(["env", "HOME=/var/tmp", "fish", "--no-config", "-c", script],
                                     cwd=ROOT, stdout=subprocess.PIPE, text=True, check=True).stdout
                names = sorted(entry.split("\t")[0] for entry in got.splitlines())
                self.assertEqual(" ".join(names), expected)


def prepare_phone():
    """Backups, and apps whose identifiers the binary metadata makes hard to see."""
    for name in ("daily.morvane", "weekly.morvane", "no name.morvane", ".staging_x_1"):
        pathlib.Path("/var/mobile/MorvaneBackups", name).mkdir(parents=True)
    binary = b"bplist00\xd1\x01\x02_\x10\x15MCMMetadataIdentifier"
    for text in (binary + b"Wcom.s.b\x08", binary + b"_\x10\x30" + LONG.encode() + b"\x08",
                 b'<!DOCTYPE plist "http://www.apple.com/DTDs/PropertyList-1.0.dtd"><string>'
                 b"org.example.FieldNotes</string>"):
        pathlib.Path(tempfile.mkdtemp(dir=CONTAINERS), METADATA).write_bytes(text)
    # What an app could put there to hold up whoever looks.
    os.mkfifo(tempfile.mkdtemp(dir=CONTAINERS) + "/" + METADATA)


if __name__ == "__main__":
    if sys.argv[1:] == ["inside"]:
        prepare_phone()
        unittest.main(argv=sys.argv[:1])
    with tempfile.TemporaryDirectory() as folder:
        phone = [ROOT / "build/morvane_phone", "new", folder + "/phone",
                 "--app", "com.burbn.instagram", "--files", "1"]
        subprocess.run(phone, check=True, stdout=subprocess.DEVNULL)
        inside = [phone[0], "run", phone[2], "--", sys.executable, __file__, "inside"]
        sys.exit(subprocess.run(inside, cwd=ROOT, check=False).returncode)
