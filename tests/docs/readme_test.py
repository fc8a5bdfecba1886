"""Runs what the README shows and compares what comes of it with what the README says.

"$" commands are typed in the project's folder, "#" commands as root on the simulated phone that the
page makes. Both run in the order of the page, after the block that makes the phone. A line "…"
stands for any number of lines.
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
    blocks = re.findall(r"^```console\n(.*?)^```$", TEXT, re.M | re.S)
    blocks.sort(key=lambda block: f"$ build/morvane_phone new {PHONE}\n" not in block)
    for prompt, command, shown in re.findall(r"^([#$]) (?!make)(.*\n)((?:(?![#$] ).*\n)*)",
                                             "".join(blocks), re.M):
        yield prompt, command, re.escape(shown).replace("…\\\n", "(?:.*\n)*")


class ThePageIsTrue(unittest.TestCase):
    def test_commands(self):
        self.assertGreater(len(list(steps())), 10)
        environment = {**os.environ, "PATH": f"{ROOT}/build:{os.environ['PATH']}"}
        with tempfile.TemporaryDirectory() as folder:
            phone = folder + "/phone"
            for prompt, command, shown in steps():
                words = ["sh", "-c", command.replace(PHONE, phone)]
                if prompt == "#":
                    words = ["build/morvane_phone", "run", phone, "--", *words]
                got = subprocess.run(words, cwd=ROOT, env=environment, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                     check=False)
                with self.subTest(command=command):
                    self.assertRegex(got.stdout, rf"\A{shown}\Z")

    def test_make_targets_and_scripts(self):
        named = set(re.findall(r"(?:`|^\$ )((?:make|scripts/)[a-z -]*)(?:`|$)", TEXT, re.M))
        self.assertIn("make", named)
        for words in named:
            with self.subTest(words=words):
                test = f"{words} -n" if words.startswith("make") else f"test -x {words}"
                subprocess.run(["sh", "-c", test], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)

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
                    anchors = [re.sub(r"[^\w\- ]", "", title).replace(" ", "-").lower()
                               for title in titles]
                    self.assertTrue(file.exists() and (not section or section in anchors))


if __name__ == "__main__":
    unittest.main()
