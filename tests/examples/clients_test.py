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
APP = "com.burbn.instagram"
STORE = "/var/mobile/MorvaneBackups"
BARE = "/var/mobile/Containers/Data/Application/bare"
METADATA = ".com.apple.mobile_container_manager.metadata.plist"
UNVERIFIED = "write không verify được (err=<why>) — kiểm tra trustcache/entitlement binary"
NOT_RUN = "the system did not let the tool run: check its signature"


def app(name, reason=None, incomplete=False):
    return {"app": name, "ok": reason is None, "reason": reason, "incomplete": incomplete}


# Run in this order on one phone: what is done before as root inside, the arguments, and what the
# client must make of it: (status, ok, backup, reason, apps).
SCENARIOS = [
    ("", "restore daily.morvane", (1, False, None, "backup not found", [])),
    ("", "removebackup daily.morvane", (1, False, None, "not found", [])),
    ("", "removebackup ALL", (0, True, "ALL", None, [])),
    ("", "backup com.none daily", (1, False, "daily.morvane", "no app data backed up",
                                   [app("com.none", "container not found")])),
    (f"mkdir {BARE} && echo com.bare >{BARE}/{METADATA}", f"backup com.bare,{APP} daily",
     (0, False, "daily.morvane", None,
      [app("com.bare", "no Documents/Library to back up"), app(APP)])),
    (f"mkdir '{STORE}/daily.morvane/not installed'", "restore daily.morvane",
     (0, False, "daily.morvane", None, [app(APP), app("not installed", "container not found")])),
    (f"rm -r {STORE}/daily.morvane/*/", "restore daily.morvane",
     (1, False, "daily.morvane", "no app data restored", [])),
    ("", "removebackup daily.morvane", (0, True, "daily.morvane", None, [])),
    (f"rm -r {STORE} && touch {STORE}", f"backup {APP} daily",
     (1, False, "daily.morvane", UNVERIFIED, [app(APP, None, True)])),
    ("", f"reset {APP},com.none clear",
     (0, False, None, None, [app(APP), app("com.none", "nothing found to reset")])),
    ("", "reset ../x clear", (2, False, None, "invalid bundle id (rejected)", [])),
    ("", "reset", (2, False, None, "usage", [])),
]

# Tools that no phone brings about.
FLOOD = "yes '[morvane_cli] more than a pipe holds' | head -n 9999"
TOOLS = {
    f"{FLOOD} >&2; echo RESET_OK com.a": (0, True, None, None, [app("com.a")]),
    # A later version's lines.
    "echo NEW_OK x; echo RESET_OK com.a; echo 'NEW_FAIL y: z' >&2; echo '[morvane_cli] new: a' >&2":
        (0, True, None, None, [app("com.a")]),
    "kill -9 $$": (-9, False, None, NOT_RUN, []),
}

# Runs the tool and keeps what it said.
KEEPER = """"$@" >"$0.stdout" 2>"$0.stderr"
status=$?; cat "$0.stderr" >&2; cat "$0.stdout"; exit $status"""


def catalogue():
    """Each line of the interface's table of result lines, with its stream and its shape."""
    section = (ROOT / "docs/interface.md").read_text().split("## Result lines")[1].split("\n## ")[0]
    rows = re.findall(r"^\| `([^`]+)` \| (std\w+) \|", section, re.M)
    return {line: (stream, re.sub(r"com\\\.a|daily\\\.morvane", "[^:]+",
                                  re.escape(line).replace("…", ".*"))) for line, stream in rows}


def run(*words, check=True):
    return subprocess.run(words, cwd=ROOT, check=check, capture_output=True, text=True, timeout=60)


class ClientsUnderstandTheTool(unittest.TestCase):
    def expect(self, client, tool, arguments, expected):
        with self.subTest(client=client[0], tool=tool[-60:], arguments=arguments):
            done = run(*client, "--tool", tool, *arguments.split(), check=False)
            got = json.loads(done.stdout)
            status = got["status"]
            self.assertEqual(done.returncode, status if status >= 0 else 128 - status)
            got["apps"].sort(key=lambda entry: entry["app"])
            for entry in got["apps"]:
                entry["incomplete"] = entry["incomplete"] > 0
            got["reason"] = got["reason"] and re.sub(r"\(err=.+\)", "(err=<why>)", got["reason"])
            fields = ("status", "ok", "backup", "reason", "apps")
            self.assertEqual(tuple(got[name] for name in fields), expected)

    def test_every_result_line(self):
        missing = catalogue()
        self.assertGreaterEqual(len(missing), 14)
        for client in CLIENTS:
            with tempfile.TemporaryDirectory() as folder:
                phone, keeper = pathlib.Path(folder, "phone"), pathlib.Path(folder, "keeper")
                run("build/morvane_phone", "new", phone, "--app", APP)
                inside = ["build/morvane_phone", "run", str(phone), "--"]
                keeper.write_text(KEEPER)
                tool = " ".join(["sh", str(keeper), *inside, "build/morvane_cli"])
                for script, arguments, expected in SCENARIOS:
                    run(*inside, "sh", "-c", script)
                    self.expect(client, tool, arguments, expected)
                    said = {name: keeper.with_suffix("." + name).read_text().splitlines()
                            for name in ("stdout", "stderr")}
                    missing = {line: (stream, shape) for line, (stream, shape) in missing.items()
                               if not any(re.fullmatch(shape, text) for text in said[stream])}
        self.assertEqual(list(missing), [], "lines of the interface that no scenario brings about")

    def test_what_no_phone_brings_about(self):
        for script, expected in TOOLS.items():
            with tempfile.NamedTemporaryFile("w", suffix=".sh") as tool:
                tool.write(script)
                tool.flush()
                for client in CLIENTS:
                    self.expect(client, f"sh {tool.name}", "reset", expected)


if __name__ == "__main__":
    unittest.main()
