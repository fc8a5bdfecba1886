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
UNVERIFIED = (f"write không verify được (err={STORE}: Not a directory) — "
              "kiểm tra trustcache/entitlement binary")
NOT_RUN = "the system did not let the tool run: check its signature"

# Run in this order on one phone: what is done before as root inside, the arguments, and what the
# client must make of it: (status, ok, backup, reason, what is said of each app).
SCENARIOS = [
    ("", "restore daily.morvane", (1, False, None, "backup not found", {})),
    ("", "removebackup daily.morvane", (1, False, None, "not found", {})),
    ("", "removebackup ALL", (0, True, "ALL", None, {})),
    ("", "backup com.none daily", (1, False, "daily.morvane", "no app data backed up",
                                   {"com.none": "container not found"})),
    (f"mkdir {BARE} && echo com.bare >{BARE}/{METADATA}", f"backup com.bare,{APP} daily",
     (0, False, "daily.morvane", None,
      {"com.bare": "no Documents/Library to back up", APP: None})),
    (f"mkdir '{STORE}/daily.morvane/not installed'", "restore daily.morvane",
     (0, False, "daily.morvane", None, {APP: None, "not installed": "container not found"})),
    (f"rm -r {STORE}/daily.morvane/*/", "restore daily.morvane",
     (1, False, "daily.morvane", "no app data restored", {})),
    ("", "removebackup daily.morvane", (0, True, "daily.morvane", None, {})),
    (f"rm -r {STORE} && touch {STORE}", f"backup {APP} daily",
     (1, False, "daily.morvane", UNVERIFIED, {APP: "incomplete"})),
    ("", f"reset {APP},com.none clear",
     (0, False, None, None, {APP: None, "com.none": "nothing found to reset"})),
    ("", "reset ../x clear", (2, False, None, "invalid bundle id (rejected)", {})),
    ("", "reset", (2, False, None, "usage", {})),
]

# Tools that no phone brings about: one of a later version, which says more than a pipe holds; and
# one that is not let run.
TOOLS = {
    "yes '[morvane_cli] new: a' | head -n 9999 >&2; echo NEW_OK x; echo RESET_OK com.a; "
    "echo 'NEW_FAIL y: z' >&2": (0, True, None, None, {"com.a": None}),
    "kill -9 $$": (-9, False, None, NOT_RUN, {}),
}

# Runs the tool and keeps what it said.
KEEPER = """"$@" >"$0.1" 2>"$0.2"; status=$?
tee -a "$0.stdout" <"$0.1"; tee -a "$0.stderr" <"$0.2" >&2; exit $status"""


def catalogue():
    """Each line of the interface's table of result lines, with its stream and its shape."""
    section = (ROOT / "docs/interface.md").read_text().split("## Result lines")[1].split("\n## ")[0]
    for line, stream in re.findall(r"^\| `([^`]+)` \| (std\w+) \|", section, re.M):
        shape = re.escape(line).replace("…", ".*")
        yield line, stream, re.sub(r"com\\\.a|daily\\\.morvane", "[^:]+", shape)


def run(*words, check=True):
    return subprocess.run(words, cwd=ROOT, check=check, capture_output=True, text=True, timeout=60)


class ClientsUnderstandTheTool(unittest.TestCase):
    def expect(self, client, tool, arguments, expected):
        with self.subTest(client=client[0], tool=tool[-60:], arguments=arguments):
            done = run(*client, "--tool", tool, *arguments.split(), check=False)
            got = json.loads(done.stdout)
            status, *rest = (got[name] for name in ("status", "ok", "backup", "reason"))
            self.assertEqual(done.returncode, status if status >= 0 else 128 - status)
            apps = {}
            for app in got["apps"]:
                self.assertEqual(app["ok"], app["reason"] is None)
                apps[app["app"]] = "incomplete" if app["incomplete"] else app["reason"]
            self.assertEqual((status, *rest, apps), expected)

    def test_every_result_line_and_what_no_phone_brings_about(self):
        self.assertGreaterEqual(len(list(catalogue())), 14)
        for client in CLIENTS:
            with tempfile.TemporaryDirectory() as folder:
                phone, keeper = folder + "/phone", pathlib.Path(folder, "keeper")
                run("build/morvane_phone", "new", phone, "--app", APP)
                inside = ["build/morvane_phone", "run", phone, "--"]
                keeper.write_text(KEEPER)
                tool = " ".join(["sh", str(keeper), *inside, "build/morvane_cli"])
                for script, arguments, expected in SCENARIOS:
                    run(*inside, "sh", "-c", script)
                    self.expect(client, tool, arguments, expected)
                for line, stream, shape in catalogue():
                    said = keeper.with_suffix("." + stream).read_text()
                    self.assertRegex(said, f"(?m)^{shape}$", f"no scenario brings about {line}")
                for script, expected in TOOLS.items():
                    keeper.write_text(script)
                    self.expect(client, f"sh {keeper}", "reset", expected)


if __name__ == "__main__":
    unittest.main()
