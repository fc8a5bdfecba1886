"""Both example clients against every result line of the interface, on a simulated phone.

The catalogue is the table in docs/interface.md: a line that is in the table and in no scenario fails
the test, and so does a scenario whose lines the clients read differently.
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
UNVERIFIED = "write không verify được (err=%s) — kiểm tra trustcache/entitlement binary" % "<why>"


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
      [app(APP), app(OTHER, "no Documents/Library to back up")])),
    (f"mkdir '{STORE}/daily.morvane/not installed'", ["restore", "daily.morvane"],
     (0, False, "daily.morvane", None, [app("not installed", "container not found"), app(APP)])),
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
        pattern = re.escape(line).replace("…", ".*").replace("ALL", "@")
        for name in (r"com\.a", r"daily\.morvane"):
            pattern = pattern.replace(name, "[^:]+")
        shapes[line] = (stream, re.compile(pattern.replace("@", "ALL")))
    return shapes


class Phone:
    """A simulated phone in a folder of its own."""

    def __init__(self, folder):
        self.folder = folder
        command = ["build/morvane_phone", "new", folder, "--app", APP, "--app", OTHER, "--files", "3"]
        subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
        self.run = ["build/morvane_phone", "run", folder, "--"]
        show = ["build/morvane_phone", "show", folder, "--json"]
        shown = json.loads(subprocess.run(show, cwd=ROOT, check=True, capture_output=True).stdout)
        self.data = {entry["identifier"]: entry["data"]["path"] for entry in shown["apps"]}

    def prepare(self, script):
        for name, path in self.data.items():
            script = script.replace("{%s}" % name, path)
        subprocess.run([*self.run, "sh", "-c", script], cwd=ROOT, check=True)


class ClientsUnderstandTheTool(unittest.TestCase):
    def tool_lines(self, phone, arguments):
        """What the tool itself says: (stream, line) for each line."""
        command = [*phone.run, "build/morvane_cli", *arguments]
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)
        return [(name, line) for name in ("stdout", "stderr")
                for line in getattr(done, name).splitlines()]

    def client_outcome(self, client, tool, arguments):
        command = [*client, "--tool", tool, *arguments]
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, timeout=60,
                              check=False)
        self.assertEqual(done.stderr, "", command)
        outcome = json.loads(done.stdout)
        expected = outcome["status"] if outcome["status"] >= 0 else 128 - outcome["status"]
        self.assertEqual(done.returncode, expected)
        return outcome

    def test_every_result_line(self):
        self.assertGreaterEqual(len(catalogue()), 14)
        missing = dict(catalogue())
        for client in [None, *CLIENTS]:
            with tempfile.TemporaryDirectory() as folder:
                phone = Phone(folder + "/phone")
                for script, arguments, expected in SCENARIOS:
                    phone.prepare(script or ":")
                    if client is None:
                        for stream, line in self.tool_lines(phone, arguments):
                            for known, (where, shape) in list(missing.items()):
                                if where == stream and shape.fullmatch(line):
                                    del missing[known]
                        continue
                    with self.subTest(client=client[0], arguments=arguments):
                        tool = " ".join([*phone.run, "build/morvane_cli"])
                        got = self.client_outcome(client, tool, arguments)
                        fields = ("status", "ok", "backup", "reason", "apps")
                        got["apps"].sort(key=lambda entry: entry["app"])
                        for entry in got["apps"]:
                            entry["incomplete"] = ANY if entry["incomplete"] else 0
                        got["reason"] = got["reason"] and re.sub(r"\(err=.+\)", "(err=<why>)",
                                                                 got["reason"])
                        want = dict(zip(fields, expected))
                        want["apps"] = sorted(want["apps"], key=lambda entry: entry["app"])
                        self.assertEqual({name: got[name] for name in fields}, want)
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
                        got = self.client_outcome(client, f"sh {tool.name}", ["reset"])
                        fields = ("status", "ok", "reason", "apps")
                        self.assertEqual(tuple(got[name] for name in fields), expected)


if __name__ == "__main__":
    unittest.main()
