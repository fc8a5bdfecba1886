#!/usr/bin/env python3
"""A client of morvane_cli: runs one command and says what became of each app.

    morvane.py [--tool "WORDS"] COMMAND ARGUMENT...

Prints one JSON object and ends as the tool did. --tool is what to run (default: morvane_cli); on a
simulated phone: --tool "build/morvane_phone run DIR -- build/morvane_cli".
"""

import json
import re
import subprocess
import sys

PREFIX = "[morvane_cli] "
RESET = re.compile(r"RESET_(OK|FAIL) ([A-Za-z0-9._-]+)(?:: (.*))?")
DONE = re.compile(r"(?:BACKUP|RESTORE|REMOVE)_OK ([A-Za-z0-9._-]+)")
FAILED = re.compile(r"(?:BACKUP|RESTORE|REMOVE)_FAIL(?: ([A-Za-z0-9._-]+))?: (.*)")
APP_FAILED = re.compile(r"(?:BACKUP|RESTORE)_FAIL (.*): ([^:]*)")
APP_DONE = re.compile(r"container (?:backed up|restored): (.*)")
INCOMPLETE = re.compile(r"copy incomplete for (.*): (\d+) file/dir could not be copied")


class Outcome:
    """What one run came to. `apps` has an entry for each app, in the order of the tool's lines."""

    def __init__(self, status):
        self.status = status  # the exit status; negative: the signal that ended the tool
        self.backup = None  # the folder name of the backup that was made, restored or removed
        self.reason = None  # why the command as a whole failed
        self.apps = []
        self.log = []

    def add_app(self, app, reason=None):
        self.apps.append({"app": app, "ok": reason is None, "reason": reason, "incomplete": 0})

    @property
    def ok(self):
        """Whether everything that was asked for was done."""
        return self.status == 0 and all(app["ok"] and not app["incomplete"] for app in self.apps)


def read_output(outcome, text):
    """The result lines of standard output. Lines that are not known are passed over."""
    for line in text.split("\n"):
        if match := RESET.fullmatch(line):
            outcome.add_app(match[2], match[3])
        elif match := DONE.fullmatch(line):
            outcome.backup = match[1]


def read_errors(outcome, text):
    """Standard error: results of the whole without prefix, the log and results of apps with it."""
    for line in text.split("\n"):
        if not line.startswith(PREFIX):
            if match := FAILED.fullmatch(line):
                outcome.backup, outcome.reason = match[1], match[2]
            continue
        message = line.removeprefix(PREFIX)
        outcome.log.append(message)
        if match := APP_DONE.fullmatch(message):
            outcome.add_app(match[1])
        elif match := APP_FAILED.fullmatch(message):
            outcome.add_app(match[1], match[2])
        elif (match := INCOMPLETE.fullmatch(message)) and outcome.apps:
            outcome.apps[-1]["incomplete"] = int(match[2])


def run(tool, arguments, timeout=600):
    """Runs the tool with a list of arguments, no shell between, and reads both streams at once."""
    done = subprocess.run(
        [*tool, *arguments],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=timeout,
        check=False,
    )
    outcome = Outcome(done.returncode)
    read_output(outcome, done.stdout.decode("utf-8", "replace"))
    read_errors(outcome, done.stderr.decode("utf-8", "replace"))
    if done.returncode == 2:  # refused before anything was touched; a usage text has no reason
        outcome.reason = outcome.log[-1] if outcome.log else "usage"
    elif done.returncode < 0 and not done.stdout and not done.stderr:
        outcome.reason = "the system did not let the tool run: check its signature"
    return outcome


def main(arguments):
    tool = ["morvane_cli"]
    if arguments[:1] == ["--tool"] and len(arguments) > 1:
        tool, arguments = arguments[1].split(), arguments[2:]
    outcome = run(tool, arguments)
    print(json.dumps({"ok": outcome.ok, **vars(outcome)}, ensure_ascii=False))
    return outcome.status if outcome.status >= 0 else 128 - outcome.status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
