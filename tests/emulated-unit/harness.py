"""What the tests on the emulated unit share."""

import json
import shutil
import sys
import tempfile
import unittest
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts"))

import emulated_unit  # noqa: E402  (the path above is needed first)
from cards import MIB, Card, FileSystem, Partition  # noqa: E402,F401

MODULE = "maincpuloader"

# Leaves what happened in the shared folder, and what an update must not leave behind.
REPORT = """\
cp /tmp/log /tmp/events /tmp/errors /host/ 2>/dev/null
{ grep -E ' (/mnt|/tmp)' /proc/mounts
  busybox ps -o stat,args | grep -E '(^| |/)(zcat|gzip|tar|dd) ' | grep -v grep
  ls -d /tmp/eolmountpoint /tmp/CalculateDiskSpace 2>/dev/null
} >/host/left
"""

INSTALL = ("featurehost install --json --log-file /tmp/log --log-level info /host/update.toml"
           " >/tmp/events 2>/tmp/errors")
# What the checks before an install refuse, to see what the module does with it.
INSTALL_ANYWAY = INSTALL.replace("install", "install --no-lint", 1)


@dataclass
class Run:
    """One run of featurehost on the unit."""
    code: int
    events: list
    log: str
    errors: str
    left: str
    console: str

    def percentages(self):
        return [event["percent"] for event in self.events if "percent" in event]

    def result(self):
        """Success of the install result, or None when there was none."""
        return next((event["success"] for event in self.events if event.get("code") == 204), None)


class UnitTest(unittest.TestCase):
    """A folder that the unit shares, and another one for the cards; both go with the test."""

    tools = "gnu"
    timeout = 600
    cached = True

    def setUp(self):
        self.folder = Path(tempfile.mkdtemp(prefix="maincpuloader-test-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.share = self.folder / "share"
        self.share.mkdir()

    def on_unit(self, job, cards, files=None):
        """Run a job with these cards. Returns (exit code, console)."""
        images = [None if card is None else card.path for card in cards]
        return emulated_unit.run(job, images, self.share, self.timeout, files, self.tools,
                                 cached=self.cached)

    def install(self, cards, job=INSTALL + "\ncode=$?\n"):
        """Run featurehost, or a job that runs it and sets $code, on the update in the share."""
        code, console = self.on_unit(job + REPORT + "exit $code\n", cards)
        events = [json.loads(line) for line in self._shared("events").splitlines()]
        return Run(code, events, self._shared("log"), self._shared("errors"),
                   self._shared("left"), console)

    def _shared(self, name):
        path = self.share / name
        return path.read_text(errors="replace") if path.exists() else ""

    def assert_installed(self, run):
        story = f"{run.console}\n{run.errors}\n{run.log[-3000:]}"
        self.assertEqual(0, run.code, story)
        self.assertIs(True, run.result(), story)
        self.assert_nothing_left(run)

    def assert_refused(self, run, *lines):
        """The install failed, and the log has these texts."""
        story = f"{run.console}\n{run.errors}\n{run.log[-3000:]}"
        self.assertEqual(1, run.code, story)
        self.assertIs(False, run.result(), story)
        for line in lines:
            self.assertIn(line, run.log)
        self.assert_nothing_left(run)

    def assert_nothing_left(self, run):
        self.assertEqual("", run.left, "mounts, children or folders left on the unit")


def tool_program(name):
    """A cross-compiled program of the tests."""
    path = emulated_unit.BUILD / name
    if not path.exists():
        raise unittest.SkipTest(f"{path} is not built")
    return path
