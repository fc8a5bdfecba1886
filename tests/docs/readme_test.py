"""Runs what the README shows and compares what comes of it with what the README says.

With --update it writes the outputs into the README instead; elisions are then put back by hand.

"$" commands are typed in a clone of the project, "#" commands as root on the simulated phone that the
page makes. Both run in the order of the page, after the block that makes the phone. A line "…" stands
for any number of lines.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
README = ROOT / "README.md"
PHONE = "build/my-phone"
BLOCK = re.compile(r"^```console\n(.*?)^```$", re.M | re.S)


class Step:
    """One command of the page and the output that is shown under it."""

    def __init__(self, block, prompt, command):
        self.block = block
        self.prompt = prompt
        self.command = command
        self.shown = []

    @property
    def makes_phone(self):
        return self.command == f"build/morvane_phone new {PHONE}"


def steps(text):
    result = []
    for number, block in enumerate(BLOCK.findall(text)):
        for line in block.splitlines():
            if line[:2] in ("# ", "$ "):
                result.append(Step(number, line[0], line[2:]))
            else:
                result[-1].shown.append(line)
    return result


def run(step, folder):
    """The output of a command, both streams as they come."""
    command = step.command
    if step.prompt == "#":
        command = ["build/morvane_phone", "run", PHONE, "--", "sh", "-c", command]
    else:
        command = ["sh", "-c", command]
    done = subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False,
                          env={**os.environ, "PATH": f"{ROOT}/build:{os.environ['PATH']}"})
    return done.stdout.splitlines()


def matches(shown, got):
    """Whether the lines are those shown, "…" standing for any."""
    pattern = "".join(r"(?:.*\n)*" if line.strip() == "…" else re.escape(line) + "\n"
                      for line in shown)
    return re.fullmatch(pattern, "".join(line + "\n" for line in got)) is not None


def lay_out(folder):
    """Makes the folder look like a clone in which `make` has run."""
    for entry in ROOT.iterdir():
        if entry.name != "build":
            os.symlink(entry, f"{folder}/{entry.name}")
    os.mkdir(f"{folder}/build")
    for name in ("morvane_cli", "morvane_phone"):
        os.symlink(ROOT / "build" / name, f"{folder}/build/{name}")


def each_output(text):
    """Runs the page: (step, its output). Building is what has happened before."""
    todo = [step for step in steps(text) if not step.command.startswith("make")]
    first = {step.block for step in todo if step.makes_phone}
    todo.sort(key=lambda step: step.block not in first)
    with tempfile.TemporaryDirectory() as folder:
        lay_out(folder)
        for step in todo:
            yield step, run(step, folder)


class ThePageIsTrue(unittest.TestCase):
    def test_commands(self):
        text = README.read_text()
        self.assertEqual(sum(step.makes_phone for step in steps(text)), 1)
        self.assertGreater(len(steps(text)), 10)
        for step, got in each_output(text):
            with self.subTest(command=step.command):
                self.assertTrue(matches(step.shown, got), "\n" + "\n".join(got))

    def test_make_targets_and_scripts(self):
        text = README.read_text()
        named = set(re.findall(r"(?:`|^\$ )(make(?: [a-z-]+)?)(?:`|$)", text, re.M))
        self.assertIn("make", named)
        for command in named:
            with self.subTest(command=command):
                subprocess.run([*command.split(), "-n"], cwd=ROOT, check=True,
                               stdout=subprocess.DEVNULL)
        for script in set(re.findall(r"`(scripts/[a-z-]+)`", text)):
            self.assertTrue(os.access(ROOT / script, os.X_OK), script)

    def test_links(self):
        """Those of all pages, with the sections that they name."""
        pages = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]
        self.assertGreater(len(pages), 3)
        for page in pages:
            prose = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.M | re.S)
            for target in re.findall(r"\]\(([^)\s]+)\)", prose):
                if "://" in target:
                    continue
                path, _, section = target.partition("#")
                file = (page.parent / path) if path else page
                with self.subTest(page=page.name, target=target):
                    self.assertTrue(file.exists())
                    if section:
                        titles = re.findall(r"^#+ (.*)$", file.read_text(), re.M)
                        anchors = [re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")
                                   for title in titles]
                        self.assertIn(section, anchors)


def update():
    text = README.read_text()
    outputs = {}
    for step, got in each_output(text):
        outputs.setdefault(step.block, {})[step.command] = got
    number = -1

    def filled(match):
        nonlocal number
        number += 1
        body = ""
        for line in match[1].splitlines():
            if line[:2] in ("# ", "$ "):
                got = outputs.get(number, {}).get(line[2:], [])
                body += "".join(part + "\n" for part in [line, *got])
        return f"```console\n{body}```"

    README.write_text(BLOCK.sub(filled, text))


if __name__ == "__main__":
    if sys.argv[1:] == ["--update"]:
        update()
    else:
        unittest.main()
