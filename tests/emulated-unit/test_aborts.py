"""An abort in each item of the list: it stops at once, leaves nothing, and can be made good."""

import unittest

import updates
from harness import MIB, UnitTest
from updates import Update, make_cards

# Shell conditions that hold while the item is at work on the unit. The brackets keep a search from
# finding itself.
AT_WORK = {
    "userfs": "[ \"$(percent)\" -ge 5 ]",
    "rootfs": "running '[o]f=/dev/mmcblk1p1'",
    "checkrootfs": "[ \"$(percent)\" -ge 76 ]",
    "factorydata": "running '[o]f=/dev/mmcblk1p2'",
    "eolsettings": "running '[o]f=/tmp/eolmountpoint'",
}

JOB = """\
percent() {{
  busybox sed -n '$s/.*"percent": *\\([0-9]*\\).*/\\1/p' /tmp/events | grep . || echo 0
}}
running() {{ busybox ps -o args | grep -q "$1"; }}
: >/tmp/events
# In the background a shell has its children ignore an interrupt, but not a termination.
featurehost install --json --log-file /tmp/log --log-level info /host/update.toml \\
  >/tmp/events 2>/tmp/errors &
host=$!
until {condition}; do
  kill -0 $host 2>/dev/null || break
done
kill -TERM $host && echo stopped >/host/stopped
wait $host
code=$?
"""


class AbortTest(UnitTest):
    def abort_in(self, item, code=130):
        # Large enough for every item to take a while.
        update = Update(self.share, archive_size=8 * MIB, image_size=12 * MIB,
                        factory_size=40_000, eol_size=40_000)
        cards = make_cards(self.folder)
        run = self.install(cards, JOB.format(condition=AT_WORK[item]))
        story = f"{run.console}\n{run.errors}\n{run.log[-3000:]}"
        self.assertTrue((self.share / "stopped").exists(), "it was over before: " + story)
        self.assertEqual(code, run.code, story)
        self.assert_nothing_left(run)
        return update, cards, run

    def assert_can_be_made_good(self, cards, update):
        self.assert_installed(self.install(cards))
        self.assertEqual([], updates.wrong_with(update, *cards))

    def assert_acknowledged(self, run):
        self.assertIn(207, [event.get("code") for event in run.events])

    def test_in_the_archive(self):
        update, cards, run = self.abort_in("userfs")
        self.assert_acknowledged(run)
        self.assertIsNone(run.result())
        self.assertNotEqual([], updates.wrong_with_rootfs(update, cards[1]), "went on")
        self.assert_can_be_made_good(cards, update)

    def test_in_the_image(self):
        update, cards, run = self.abort_in("rootfs")
        self.assert_acknowledged(run)
        self.assertEqual([], updates.wrong_with_userfs(update, cards[0]))
        self.assertNotEqual([], updates.wrong_with_rootfs(update, cards[1]))
        self.assert_can_be_made_good(cards, update)

    def test_in_the_check(self):
        update, cards, run = self.abort_in("checkrootfs")
        self.assert_acknowledged(run)
        self.assertEqual([], updates.wrong_with_rootfs(update, cards[1]))
        self.assertNotEqual([], updates.wrong_with_factorydata(update, cards[1]), "went on")
        self.assert_can_be_made_good(cards, update)

    def test_in_the_factory_data(self):
        # This item and the next hold the event thread, one inside the other: when the abort is
        # seen the list is at its end.
        update, cards, run = self.abort_in("factorydata", code=0)
        self.assertIs(True, run.result())
        self.assertEqual([], updates.wrong_with(update, *cards))

    def test_in_the_end_of_line_settings(self):
        update, cards, run = self.abort_in("eolsettings", code=0)
        self.assertIs(True, run.result())
        self.assertEqual([], updates.wrong_with(update, *cards))


if __name__ == "__main__":
    unittest.main()
