#!/usr/bin/env python3
"""A complete update, aborted with Ctrl-C's signal during each of its items in turn: what featurehost
answers, what it says it found, and how it leaves the unit. Runs in the sandbox, with the real tools.
Needs FEATUREHOST (the executable) and MAKE_SAMPLE_UPDATE. Exit status 77: everything was skipped."""

import json
import os
import signal
import subprocess
import sys
import time
import unittest

from whole_update import ABORTED, SUCCESS, TIME_LIMIT, WholeUpdateTestCase

SLOW_ZCAT = """
import gzip, shutil, sys, time
with gzip.open(sys.argv[1]) as source:
    if sys.argv[1].endswith(".img.gz"):
        sys.stdout.buffer.write(source.read(7000000))
        sys.stdout.flush()
        time.sleep(4)
    shutil.copyfileobj(source, sys.stdout.buffer)
"""


class AbortOfAWholeUpdate(WholeUpdateTestCase):
    def slow_image(self):
        """Both decompressions of the image, for the copy and for the check, pause in the middle."""
        self.cover_zcat(SLOW_ZCAT)

    def abort_when(self, condition, after=0):
        """Install, abort at the first event that the condition takes (so many seconds after it, where
        the next item begins without an event), and hear all to the end."""
        host = subprocess.Popen(
            [os.environ["FEATUREHOST"], "install", "--json", self.update / "update.toml"],
            env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.addCleanup(host.stderr.close)
        self.addCleanup(host.stdout.close)
        events = []
        aborted = False
        try:
            for line in host.stdout:
                events.append(json.loads(line))
                if not aborted and condition(events[-1]):
                    aborted = True
                    time.sleep(after)
                    host.send_signal(signal.SIGINT)
            self.errors = host.stderr.read()
            self.code = host.wait(TIME_LIMIT)
        finally:
            host.kill()
            host.wait()
        self.assertTrue(aborted, events)
        return events

    @staticmethod
    def progress_from(percent):
        return lambda event: event.get("percent", -1) >= percent

    def results(self, events):
        """The events without progress, as code or name with what they say."""
        return [f"{event.get('code', event['event'])}"
                + (f" {int(event['success'])}" if "success" in event else "")
                for event in events if event.get("code") != 205]

    def test_during_the_archive_what_the_module_leaves_is_told_and_cleaned(self):
        events = self.abort_when(self.progress_from(1))
        self.assertEqual(ABORTED, self.code, self.errors)
        self.assertEqual(["200", "201", "202 1", "203", "206", "left_behind", "207 1"],
                         self.results(events))
        left = next(e for e in events if e["event"] == "left_behind")["items"]
        self.assertEqual(["mount", "process", "process"], sorted(item["kind"] for item in left))
        self.assertTrue(all(item["cleaned"] for item in left), left)
        self.assertIn("left behind: mount ", self.errors)
        self.assert_unit_is_tidy()

    def test_during_the_image_nothing_is_left(self):
        self.slow_image()
        events = self.abort_when(self.progress_from(60), after=1)
        self.assertEqual(ABORTED, self.code, self.errors)
        self.assertEqual(["200", "201", "202 1", "203", "206", "207 1"], self.results(events),
                         self.errors)
        self.assert_unit_is_tidy()

    def test_during_the_check_nothing_is_left(self):
        self.slow_image()
        events = self.abort_when(self.progress_from(86))
        self.assertEqual(ABORTED, self.code, self.errors)
        self.assertEqual(["200", "201", "202 1", "203", "206", "207 1"], self.results(events),
                         self.errors)
        self.assert_unit_is_tidy()

    def blocked_dd(self, marker):
        """The dd of one item takes a moment, and aborts its host in the middle of it."""
        self.script("dd", f'case "$*" in *{marker}*) kill -INT "$(cat {self.tools}/host)"; '
                    'sleep 0.5 ;; esac\nexec /bin/dd "$@"')

    def abort_in_dd(self, marker):
        self.blocked_dd(marker)
        host = subprocess.Popen(
            ["sh", "-c", f'echo $$ >{self.tools}/host; exec "$0" install --json "$1"',
             os.environ["FEATUREHOST"], self.update / "update.toml"],
            env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        output, self.errors = host.communicate(timeout=TIME_LIMIT)
        self.code = host.returncode
        return [json.loads(line) for line in output.splitlines()]

    def test_during_the_blocking_items_the_update_is_installed_first(self):
        for marker in ("factory.bin", "settings.bin"):
            with self.subTest(marker):
                events = self.abort_in_dd(marker)
                self.assertEqual(SUCCESS, self.code, self.errors)
                self.assertEqual(["200", "201", "202 1", "203"], self.results(events)[:4])
                self.assertEqual("204 1", self.results(events)[-1])
                self.assert_unit_is_tidy()


if __name__ == "__main__":
    if not os.environ.get("SANDBOX"):
        print("skipped: not run by scripts/sandbox")
        sys.exit(77)
    unittest.main(verbosity=2)
