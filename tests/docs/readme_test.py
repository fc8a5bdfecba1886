"""Runs what the README shows and compares what comes of it with what the README says.

"$" commands are typed in a clone of the project, "#" commands as root on the simulated phone that the
page makes. Both run in the order of the page, after the block that makes the phone. A line "…" stands
for any number of lines.
"""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TEXT = (ROOT / "README.md").read_text()
PHONE = "build/my-phone"


def steps():
    """Each command but `make`: [prompt, command, an expression for what is shown under it]."""
    blocks = [[]]
    for block in re.findall(r"^```console\n(.*?)^```$", TEXT, re.M | re.S):
        made = []
        for line in block.splitlines():
            if line[:2] in ("# ", "$ "):
                made.append([line[0], line[2:], ""])
            else:
                made[-1][2] += r"(?:.*\n)*" if line.strip() == "…" else re.escape(line + "\n")
        makes_phone = any(step[1] == f"build/morvane_phone new {PHONE}" for step in made)
        blocks.insert(0 if makes_phone else len(blocks), made)
    return [step for made in blocks for step in made if not step[1].startswith("make")]


def lay_out(folder):
    """Makes the folder look like a clone in which `make` has run."""
    os.mkdir(f"{folder}/build")
    tools = [ROOT / "build" / name for name in ("morvane_cli", "morvane_phone")]
    for entry in [*ROOT.iterdir(), *tools]:
        if entry.name != "build":
            os.symlink(entry, f"{folder}/{entry.relative_to(ROOT)}")


class ThePageIsTrue(unittest.TestCase):
    def test_commands(self):
        self.assertGreater(len(steps()), 10)
        inside = ["build/morvane_phone", "run", PHONE, "--"]
        path = f"{ROOT}/build:{os.environ['PATH']}"
        with tempfile.TemporaryDirectory() as folder:
            lay_out(folder)
            for prompt, command, shown in steps():
                words = [*(inside if prompt == "#" else []), "sh", "-c", command]
                got = subprocess.run(words, cwd=folder, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                     check=False, env={**os.environ, "PATH": path}).stdout
                with self.subTest(command=command):
                    self.assertIsNotNone(re.fullmatch(shown, got), "\n" + got)

    def test_make_targets_and_scripts(self):
        named = set(re.findall(r"(?:`|^\$ )(make(?: [a-z-]+)?)(?:`|$)", TEXT, re.M))
        self.assertIn("make", named)
        for command in named:
            with self.subTest(command=command):
                subprocess.run([*command.split(), "-n"], cwd=ROOT, check=True,
                               stdout=subprocess.DEVNULL)
        for script in set(re.findall(r"`(scripts/[a-z-]+)`", TEXT)):
            self.assertTrue(os.access(ROOT / script, os.X_OK), script)

    def test_links(self):
        """Those of all pages, with the sections that they name."""
        pages = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]
        self.assertGreater(len(pages), 3)
        for page in pages:
            prose = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.M | re.S)
            for path, section in re.findall(r"\]\((?!\w+://)([^)#\s]*)#?([^)\s]*)\)", prose):
                file = page.parent / path if path else page
                with self.subTest(page=page.name, target=path, section=section):
                    titles = re.findall(r"^#+ (.*)$", file.read_text() if section else "", re.M)
                    anchors = {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")
                               for title in titles}
                    self.assertTrue(file.exists() and (not section or section in anchors))


if __name__ == "__main__":
    unittest.main()
