"""What real shells on a simulated phone complete, as a user types. Every shell must be there."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
LONG = "net.wide.example-".ljust(48, "x")  # its length is a digit in the metadata

# Backups, and apps whose identifiers the metadata makes hard to see; the last could hold up whoever
# looks.
PREPARE = rf"""cd /var/mobile && mkdir -p MorvaneBackups Containers/Data/Application/{{1..4}} &&
(cd MorvaneBackups && mkdir daily.morvane weekly.morvane 'no name.morvane' .staging_x_1) &&
cd Containers/Data/Application && name=.com.apple.mobile_container_manager.metadata.plist &&
start='bplist00\321\001\002_\020\025MCMMetadataIdentifier' &&
printf "${{start}}Wcom.s.b\010" >1/$name && printf "${{start}}_\020\060{LONG}\010" >2/$name &&
echo 'PUBLIC "http://www.apple.com/a-1.0.dtd"><string>org.example.FieldNotes</string>' >3/$name &&
mkfifo 4/$name"""

# A command line, its last word begun, and what that word can become.
ROWS = [
    ("", "re", "removebackup reset restore"),
    ("reset ", "com.b", "com.burbn.instagram"),
    ("reset ", "com.burbn.instagram,org", "com.burbn.instagram,org.example.FieldNotes"),
    ("reset ", "www", ""),
    ("reset x ", "k", "kill"),
    ("reset x kill ", "sys=0,receipt=1,", "sys=0,receipt=1,appdata=0 sys=0,receipt=1,appdata=1"),
    ("backup ", "net.w", LONG),
    ("backup ", "com.s", "com.s.b"),
    ("backup com.s.b ", "wee", "weekly"),
    ("restore ", "dai", "daily.morvane"),
    ("restore ", "nam", ""),  # not a part of a name with a blank
    ("removebackup ", "A", "ALL"),
    ("removebackup ALL ", "", ""),
]
# Shows what a command line has become.
SHOWING = 'morvane_cli() { echo "<$*>"; }\r'
SHELLS = {
    "bash --norc --noprofile -i": ". completions/morvane_cli.bash",
    "zsh -f -i": "fpath=($PWD/completions $fpath); autoload -Uz compinit; compinit -D; bindkey -e",
}


def run(*words, typed=""):
    return subprocess.run(words, cwd=ROOT, input=typed, stdout=subprocess.PIPE, text=True,
                          timeout=60, check=True).stdout


class ShellsComplete(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        run("build/morvane_phone", "new", f"{folder}/phone", "--app", "com.burbn.instagram")
        self.inside = ["build/morvane_phone", "run", f"{folder}/phone", "--", "env", "TERM=dumb",
                       "HOME=/var/tmp", "HISTFILE=/dev/null"]
        run(*self.inside, "bash", "-c", PREPARE)

    def test_typing(self):
        """TAB gives as much as is certain, and a blank where that is the whole word."""
        expected = [line + (os.path.commonprefix(words.split()) or begun)
                    + (" ." if len(words.split()) == 1 else ".") for line, begun, words in ROWS]
        keys = [f"morvane_cli {line}{begun}\t.\r" for line, begun, _ in ROWS]
        for shell, setup in SHELLS.items():
            seen = run(*self.inside, "script", "-qc", shell, "/dev/null",  # at its own terminal
                       typed="".join([SHOWING, setup, "\r", *keys, "exit\r"]))
            self.assertEqual(re.findall(r"<([^<>$]*)>", seen), expected, shell)

    def test_fish(self):
        """It asks a terminal questions that only a real one answers, and completes without one."""
        for line, begun, words in ROWS:
            script = f"complete -C 'morvane_cli {line}{begun}'"
            got = run(*self.inside, "fish", "--no-config", "-c",
                      f"source completions/morvane_cli.fish; {script}")
            names = sorted(entry.split("\t")[0] for entry in got.splitlines())
            self.assertEqual(" ".join(names), words, script)


if __name__ == "__main__":
    unittest.main()
