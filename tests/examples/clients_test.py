"""Both example clients against every result line of the interface, on a simulated phone.

The catalogue is the table in docs/interface.md: a line that is in the table and in no scenario
fails the test, and so does a scenario whose lines the clients read differently.
"""

import json
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CLIENTS = (["python3", "examples/morvane.py"], ["node", "examples/morvane.mjs"])
APP, OTHER = "com.burbn.instagram", "com.apple.mobilesafari"
STORE = "/var/mobile/MorvaneBackups"
UNVERIFIED = "write không verify được (err=<why>) — kiểm tra trustcache/entitlement binary"
ANY = "any"  # a number that depends on where the failure was met


def app(name, reason=None, incomplete=0):
    return {"app": name, "ok": reason is None, "reason": reason, "incomplete": incomplete}


# Run in this order on one phone: what is done before as root inside, the arguments, and what the
# client must make of it: (status, ok, backup, reason, apps).
SCENARIOS = [
    ("", ["restore", "daily.morvane"], (1, False, None, "backup not found", [])),
    ("", ["removebackup", "daily.morvane"], (1, False, None, "not found", [])),
    ("", ["removebackup", "ALL"], (0, True, "ALL", None, [])),
    ("", ["backup", "com.none", "daily"],
     (1, False, "daily.morvane", "no app data backed up", [app("com.none", "container not found")])),
    (f"rm -r {{{OTHER}}}/Documents {{{OTHER}}}/Library", ["backup", f"{APP},{OTHER}", "daily"],
     (0, False, "daily.morvane", None,
      [app(OTHER, "no Documents/Library to back up"), app(APP)])),
    (f"mkdir '{STORE}/daily.morvane/not installed'", ["restore", "daily.morvane"],
     (0, False, "daily.morvane", None, [app(APP), app("not installed", "container not found")])),
    (f"rm -r '{STORE}/daily.morvane/not installed'", ["restore", "daily.morvane"],
     (0, True, "daily.morvane", None, [app(APP)])),
    (f"rm -r {STORE}/daily.morvane/{APP}", ["restore", "daily.morvane"],
     (1, False, "daily.morvane", "no app data restored", [])),
    ("", ["removebackup", "daily.morvane"], (0, True, "daily.morvane", None, [])),
    (f"rm -r {STORE} && touch {STORE}", ["backup", APP, "daily"],
     (1, False, "daily.morvane", UNVERIFIED, [app(APP, None, ANY)])),
    ("", ["reset", f"{APP},com.none", "clear"],
     (0, False, None, None, [app(APP), app("com.none", "nothing found to reset")])),
    ("", ["reset", "com.none", "clear", "sys=0"],
     (1, False, None, None, [app("com.none", "nothing found to reset")])),
    ("", ["reset", "../x", "clear"], (2, False, None, "invalid bundle id (rejected)", [])),
    ("", ["reset"], (2, False, None, "usage", [])),
]


def catalogue():
    """Each line of the interface's table of result lines, as an expression for its shape."""
    section = (ROOT / "docs/interface.md").read_text().split("## Result lines")[1].split("\n## ")[0]
    shapes = {}
    for line, stream in re.findall(r"^\| `([^`]+)` \| (std\w+) \|", section, re.M):
        pattern = re.sub(r"com\\\.a|daily\\\.morvane", "[^:]+", re.escape(line)).replace("…", ".*")
        shapes[line] = (stream, re.compile(pattern))
    return shapes


# Runs the tool and keeps what it said.
KEEPING = """"$@" >"$0.stdout" 2>"$0.stderr"
status=$?; cat "$0.stderr" >&2; cat "$0.stdout"; exit $status"""


def run(*words):
    return subprocess.run(words, cwd=ROOT, check=True, capture_output=True, text=True).stdout


class ClientsUnderstandTheTool(unittest.TestCase):
    def outcome(self, client, tool, arguments, fields):
        command = [*client, "--tool", tool, *arguments]
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, timeout=60,
                              check=False)
        self.assertEqual(done.stderr, "", command)
        got = json.loads(done.stdout)
        self.assertEqual(done.returncode,
                         got["status"] if got["status"] >= 0 else 128 - got["status"])
        got["apps"].sort(key=lambda entry: entry["app"])
        for entry in got["apps"]:
            entry["incomplete"] = ANY if entry["incomplete"] else 0
        got["reason"] = got["reason"] and re.sub(r"\(err=.+\)", "(err=<why>)", got["reason"])
        return tuple(got[name] for name in fields)

    def test_every_result_line(self):
        missing = catalogue()
        self.assertGreaterEqual(len(missing), 14)
        for client in CLIENTS:
            with tempfile.TemporaryDirectory() as folder:
                phone = folder + "/phone"
                run("build/morvane_phone", "new", phone, "--app", APP, "--app", OTHER)
                shown = json.loads(run("build/morvane_phone", "show", phone, "--json"))
                inside = ["build/morvane_phone", "run", phone, "--"]
                keeper = pathlib.Path(folder, "keeper")
                keeper.write_text(KEEPING)
                tool = " ".join(["sh", str(keeper), *inside, "build/morvane_cli"])
                for script, arguments, expected in SCENARIOS:
                    for entry in shown["apps"]:
                        script = script.replace("{%s}" % entry["identifier"], entry["data"]["path"])
                    run(*inside, "sh", "-c", script or ":")
                    with self.subTest(client=client[0], arguments=arguments):
                        fields = ("status", "ok", "backup", "reason", "apps")
                        self.assertEqual(self.outcome(client, tool, arguments, fields), expected)
                    said = {name: keeper.with_suffix("." + name).read_text().splitlines()
                            for name in ("stdout", "stderr")}
                    missing = {known: (stream, shape) for known, (stream, shape) in missing.items()
                               if not any(map(shape.fullmatch, said[stream]))}
        self.assertEqual(list(missing), [], "lines of the interface that no scenario brings about")

    def test_what_no_phone_brings_about(self):
        flood = "i=0; while [ $i -lt 3000 ]; do echo \"[morvane_cli] $(printf %0200d 0)\"; " \
                "i=$((i+1)); done"
        cases = {
            # More than a pipe holds, on the stream that a careless client reads second.
            f"{flood} >&2; echo RESET_OK com.a": (0, True, None, [app("com.a")]),
            # A later version's lines.
            "echo NEW_OK x; echo RESET_OK com.a; echo 'NEW_FAIL y: z' >&2; "
            "echo '[morvane_cli] news: a' >&2": (0, True, None, [app("com.a")]),
            # A binary that the system does not trust.
            "kill -9 $$": (-9, False, "the system did not let the tool run: check its signature",
                           []),
        }
        for script, expected in cases.items():
            with tempfile.NamedTemporaryFile("w", suffix=".sh") as tool:
                tool.write(script)
                tool.flush()
                for client in CLIENTS:
                    with self.subTest(client=client[0], script=script[-60:]):
                        got = self.outcome(client, f"sh {tool.name}", ["reset"],
                                           ("status", "ok", "reason", "apps"))
                        self.assertEqual(got, expected)


if __name__ == "__main__":
    unittest.main()
