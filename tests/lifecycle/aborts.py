#!/usr/bin/env python3
"""A complete update, aborted with Ctrl-C's signal during each of its items in turn: what featurehost
answers, what it says it found, and how it leaves the unit. Runs in the sandbox, with the real tools.
Needs FEATUREHOST (the executable) and MAKE_SAMPLE_UPDATE. Exit status 77: everything was skipped."""

import json
import os
import signal
import subprocess
import sys
import unittest

from whole_update import ABORTED, SUCCESS, TIME_LIMIT, WholeUpdateTestCase

# Of an archive some of the content, and then little by little. Of the image, whose first use is the
# copy and whose second is the check, it says when it is half through, and in one of them waits.
PAUSING_ZCAT = """
import gzip, pathlib, shutil, sys, time
folder = pathlib.Path({folder!r})
with gzip.open(sys.argv[1]) as source:
    if sys.argv[1].endswith(".img.gz"):
        use = "check" if (folder / "copy").exists() else "copy"
        sys.stdout.buffer.write(source.read(7000000))
        sys.stdout.flush()
        (folder / use).touch()
        for _ in range(1000):
            if use == {pause!r} and not (folder / "go").exists():
                time.sleep(0.05)
    elif {pause!r} == "archive":
        sys.stdout.buffer.write(source.read(3000000))
        for piece in iter(lambda: source.read(1000), b""):
            sys.stdout.buffer.write(piece)
            sys.stdout.flush()
            time.sleep(0.05)
    shutil.copyfileobj(source, sys.stdout.buffer)
"""


class AbortOfAWholeUpdate(WholeUpdateTestCase):
    def pause(self, use):
        """Let a decompression pause: "archive", or the "copy" or "check" of the image."""
        self.cover_zcat(PAUSING_ZCAT.format(folder=str(self.tools), pause=use))

    def abort_at(self, percent, use=None):
        """Install, abort once so many percent have come (and then, where the next item begins without
        an event, the image's decompression pauses), and hear all to the end."""
        host = subprocess.Popen(
            [os.environ["FEATUREHOST"], "install", "--json", self.update / "update.toml"],
            env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.addCleanup(host.stderr.close)
        self.addCleanup(host.stdout.close)
        events = []
        aborted = False
        self.errors = ""
        try:
            for line in host.stdout:
                events.append(json.loads(line))
                if not aborted and events[-1].get("percent", -1) >= percent:
                    aborted = True
                    if use:
                        self.wait_for((self.tools / use).exists, use)
                    host.send_signal(signal.SIGINT)
                    while "stopping as soon as the module can" not in self.errors:
                        line = host.stderr.readline()
                        self.assertNotEqual("", line, self.errors)
                        self.errors += line
                    (self.tools / "go").touch()
            self.errors += host.stderr.read()
            self.code = host.wait(TIME_LIMIT)
        finally:
            host.kill()
            host.wait()
        self.assertTrue(aborted, events)
        return events

    def results(self, events):
        """The events without progress, as code or name with what they say."""
        return [f"{event.get('code', event['event'])}"
                + (f" {int(event['success'])}" if "success" in event else "")
                for event in events if event.get("code") != 205]

    def test_during_the_archive_what_the_module_leaves_is_told_and_cleaned(self):
        self.pause("archive")
        events = self.abort_at(1)
        self.assertEqual(ABORTED, self.code, self.errors)
        self.assertEqual(["200", "201", "202 1", "203", "206", "left_behind", "207 1"],
                         self.results(events))
        left = next(e for e in events if e["event"] == "left_behind")["items"]
        self.assertEqual(["mount", "process", "process"], sorted(item["kind"] for item in left))
        self.assertTrue(all(item["cleaned"] for item in left), left)
        self.assertIn("left behind: mount ", self.errors)
        self.assert_unit_is_tidy()

    def test_during_the_image_nothing_is_left(self):
        self.pause("copy")
        events = self.abort_at(60, "copy")
        self.assertEqual(ABORTED, self.code, self.errors)
        self.assertEqual(["200", "201", "202 1", "203", "206", "207 1"], self.results(events),
                         self.errors)
        self.assert_unit_is_tidy()

    def test_during_the_check_nothing_is_left(self):
        self.pause("check")
        events = self.abort_at(86, "check")
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
